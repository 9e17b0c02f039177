/*
 * eactl_timeout.cpp - how a node's session ends early: at its time-out, or
 * on SIGINT, SIGTERM or SIGHUP.  First the agent's input is closed, as at
 * a normal end, so that the agent cleans up and its shell removes the
 * target; what has not ended a grace period later is killed with the
 * shell's process group (sh, or ssh with its helpers), and the client's
 * ends of its pipes are turned to /dev/null, so that no read or write of
 * this process can wait on the node any longer.
 */
#include "eactl.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

const unsigned kGraceS = 10;   /* from the closed input to the kill */

volatile sig_atomic_t g_timed_out = 0;
volatile sig_atomic_t g_interrupted = 0;
volatile sig_atomic_t g_closing = 0;    /* the input was closed; the next alarm kills */
volatile sig_atomic_t g_killed = 0;
volatile sig_atomic_t g_shell = -1;
volatile sig_atomic_t g_fds[2] = {-1, -1};
int g_devnull = -1;

/* Closes the agent's input: the write end of its pipe becomes /dev/null. */
void close_input()
{
    if (g_fds[1] >= 0 && g_devnull >= 0)
        dup2(g_devnull, g_fds[1]);
}

void kill_shell()
{
    g_killed = 1;
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

/* The first stage of an early end; the alarm brings the second. */
void begin_end()
{
    g_closing = 1;
    close_input();
    alarm(kGraceS);
}

void on_alarm(int)
{
    if (g_closing) {
        kill_shell();
        return;
    }
    g_timed_out = 1;
    begin_end();
}

void on_interrupt(int sig)
{
    if (g_interrupted)
        return;
    g_interrupted = sig;
    if (!g_closing)
        begin_end();
}

void install(int sig, void (*handler)(int), int flags)
{
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = handler;
    sa.sa_flags = flags;
    sigaction(sig, &sa, NULL);
}

} /* namespace */

void eactl_arm_timeout(int seconds)
{
    alarm(0);
    g_timed_out = 0;
    g_killed = 0;
    if (!g_interrupted)
        g_closing = 0;
    if (g_devnull < 0)
        g_devnull = open("/dev/null", O_RDWR | O_CLOEXEC);
    install(SIGALRM, on_alarm, SA_RESTART);
    if (g_interrupted && g_closing)
        alarm(kGraceS);   /* an interrupt still ends the node within the grace period */
    else if (seconds > 0)
        alarm((unsigned)seconds);
}

void eactl_catch_interrupts()
{
    if (g_devnull < 0)
        g_devnull = open("/dev/null", O_RDWR | O_CLOEXEC);
    /* no SA_RESTART: a wait or read in progress returns at once */
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        install(sig, on_interrupt, 0);
}

int eactl_interrupted()
{
    return g_interrupted;
}

void eactl_watch_shell(pid_t pgid, int read_fd, int write_fd)
{
    g_fds[0] = read_fd;
    g_fds[1] = write_fd;
    g_shell = pgid;
    if (g_closing)   /* ending began before the shell was known */
        close_input();
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

bool eactl_killed()
{
    return g_killed != 0;
}

int eactl_wait_shell(pid_t pid)
{
    /* the pipes are closed: only the process group is left to kill */
    g_fds[0] = g_fds[1] = -1;
    g_shell = pid;
    int st = 0;
    pid_t got;
    while ((got = waitpid(pid, &st, 0)) < 0 && errno == EINTR)
        ;
    g_shell = -1;
    return got == pid ? st : 0;
}
