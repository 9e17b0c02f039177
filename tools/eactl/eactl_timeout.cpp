/*
 * eactl_timeout.cpp - the per-node time-out: when it expires, the node's
 * shell (sh, or ssh with its helpers) is killed with its process group and
 * the client's ends of its pipes are turned to /dev/null, so that no read or
 * write of this process can wait on the node any longer.
 */
#include "eactl.h"

#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

namespace {

/* The shell of the session this process drives, for the time-out. */
volatile sig_atomic_t g_timed_out = 0;
volatile sig_atomic_t g_shell = -1;
volatile sig_atomic_t g_fds[2] = {-1, -1};
int g_devnull = -1;

void on_timeout(int)
{
    g_timed_out = 1;
    if (g_shell > 0) {
        /* The whole group: the agent under the shell, or ssh's proxy command, ends with it. */
        kill(-(pid_t)g_shell, SIGKILL);
        kill((pid_t)g_shell, SIGKILL);
    }
    /* A process that left the group may still hold the pipes: read end of file instead. */
    for (int k = 0; k < 2; k++)
        if (g_fds[k] >= 0 && g_devnull >= 0)
            dup2(g_devnull, g_fds[k]);
}

} /* namespace */

void eactl_arm_timeout(int seconds)
{
    g_timed_out = 0;
    alarm(0);
    if (seconds <= 0)
        return;
    if (g_devnull < 0)
        g_devnull = open("/dev/null", O_RDWR | O_CLOEXEC);
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = on_timeout;
    sa.sa_flags = SA_RESTART;
    sigaction(SIGALRM, &sa, NULL);
    alarm((unsigned)seconds);
}

void eactl_watch_shell(pid_t pgid, int read_fd, int write_fd)
{
    g_fds[0] = read_fd;
    g_fds[1] = write_fd;
    g_shell = pgid;
    if (g_timed_out)   /* expired before the shell was known */
        on_timeout(SIGALRM);
}

void eactl_unwatch_shell()
{
    g_shell = -1;
    g_fds[0] = g_fds[1] = -1;
}

bool eactl_timed_out()
{
    return g_timed_out != 0;
}
