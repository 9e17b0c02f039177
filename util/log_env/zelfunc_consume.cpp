/*
 * zelfunc_consume.cpp - consumed product files kept until their reply is out.
 */
#include "zelconsume.h"

#define CONSUME_SLOTS 4

struct consume_slot {
    zel_trusted    file;
    long           consumed;
    zel_consume_fn finish;
};

static consume_slot slots[CONSUME_SLOTS];
static int kept = 0;
static int holding = 0;

void zel_consume_hold(void)
{
    holding = 1;
}

void zel_consume(zel_trusted* t, long consumed, zel_consume_fn finish)
{
    if (!holding || kept >= CONSUME_SLOTS) {
        finish(t, consumed, 1);
        return;
    }
    consume_slot* s = &slots[kept++];
    s->file = *t;
    s->consumed = consumed;
    s->finish = finish;
    t->fd = t->dir = -1;   /* the slot owns the descriptors now */
}

void zel_consume_release(int delivered)
{
    for (int i = 0; i < kept; i++)
        slots[i].finish(&slots[i].file, slots[i].consumed, delivered);
    kept = 0;
    holding = 0;
}
