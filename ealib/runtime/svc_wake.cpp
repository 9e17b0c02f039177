/*
 * svc_wake.cpp - the service loop's wake-up pipe (source name "svc_main").
 */
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include "svc_wake.h"

static int svc_wake_pipe[2] = { -1, -1 };
static volatile sig_atomic_t svc_woken = 0;   /* set before each byte is written */

int svc_wake_open(void)
{
    if (pipe2(svc_wake_pipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        svc_wake_pipe[0] = svc_wake_pipe[1] = -1;
        return -1;
    }
    return 0;
}

int svc_wake_fd(void)
{
    return svc_wake_pipe[0];
}

void svc_wake(void)
{
    int saved_errno = errno;
    svc_woken = 1;
    if (svc_wake_pipe[1] >= 0) {
        ssize_t w = write(svc_wake_pipe[1], "", 1);   /* a full pipe already wakes */
        (void)w;
    }
    errno = saved_errno;
}

void svc_wake_drain(void)
{
    char buf[64];
    if (svc_woken == 0)
        return;
    svc_woken = 0;
    while (svc_wake_pipe[0] >= 0 && read(svc_wake_pipe[0], buf, sizeof(buf)) > 0)
        ;
}

void svc_wake_close(void)
{
    for (int i = 0; i < 2; i++) {
        if (svc_wake_pipe[i] >= 0)
            close(svc_wake_pipe[i]);
        svc_wake_pipe[i] = -1;
    }
}
