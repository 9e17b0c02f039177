/*
 * zelfunc_consume.cpp - consumed product files kept until their reply is out.
 */
#include <stdio.h>

#include "zelconsume.h"

#define CONSUME_SLOTS 4

struct consume_slot {
    int            fd;
    long           consumed;
    zel_consume_fn finish;
    char           path[4096];
};

static consume_slot slots[CONSUME_SLOTS];
static int kept = 0;
static int holding = 0;

void zel_consume_hold(void)
{
    holding = 1;
}

void zel_consume(int fd, const char* path, long consumed, zel_consume_fn finish)
{
    if (!holding || kept >= CONSUME_SLOTS) {
        finish(fd, path, consumed, 1);
        return;
    }
    consume_slot* s = &slots[kept++];
    s->fd = fd;
    s->consumed = consumed;
    s->finish = finish;
    snprintf(s->path, sizeof(s->path), "%s", path);
}

void zel_consume_release(int delivered)
{
    for (int i = 0; i < kept; i++)
        slots[i].finish(slots[i].fd, slots[i].path, slots[i].consumed, delivered);
    kept = 0;
    holding = 0;
}
