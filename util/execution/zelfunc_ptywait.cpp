/*
 * zelfunc_ptywait.cpp - waiting on a pseudo-terminal and its child: for
 * terminal text, for the child's end, and keeping the terminal of a command
 * left running (source name "zelfunc").
 *
 * Every wait for text also watches the child, so that a daemon the command
 * leaves holding the terminal never holds the caller, and every wait ends
 * at the run's limit when it has one.
 */
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include "zelcommon.h"
#include "zelfunc.h"
#include "zellog.h"
#include "zelfunc_ptywait.h"

#define PTY_SLICE_MS      100   /* how often a wait for terminal text looks at the child */
#define PTY_NUDGE_MS      5000  /* how long a timed-out terminal may take to answer a newline */

/* 1 once the child has ended (or is no longer ours); it is left unreaped. */
static int child_ended(pid_t pid)
{
    siginfo_t si;

    memset(&si, 0, sizeof(si));
    if (waitid(P_PID, (id_t)pid, &si, WEXITED | WNOHANG | WNOWAIT) != 0)
        return errno != EINTR;
    return si.si_pid == pid;
}

int pty_noecho_read(const PtyRun* run)
{
    struct termios t;

    /* echo off on the slave, seen through the master; raw mode (signal keys off too) is a relayed command */
    return tcgetattr(run->masterFd, &t) == 0 && (t.c_lflag & ECHO) == 0 && (t.c_lflag & (ICANON | ISIG)) != 0;
}

/* 1 once the terminal has sat in a no-echo read, printing nothing new, for PTY_UNANSWERED_MS. */
static int sits_unanswered(PtyRun* run)
{
    long long now = zel_now_ms();
    int pending = 0;

    if (!pty_noecho_read(run) || ioctl(run->masterFd, FIONREAD, &pending) != 0) {
        run->sitSince = 0;
        return 0;
    }
    if (run->sitSince == 0 || pending != run->sitPending) {
        run->sitSince = now;
        run->sitPending = pending;
        return 0;
    }
    return now - run->sitSince >= PTY_UNANSWERED_MS;
}

/*
 * Waits for the master to become readable, at most waitMs (-1: no bound)
 * and never past the run's limit.  1 readable, 0 nothing in time,
 * PTY_CHILD_GONE when the child has ended with nothing readable,
 * PTY_UNANSWERED when the terminal sits in a no-echo read, -1 with errno
 * (EINTR included).
 */
static int await_data(PtyRun* run, long long waitMs)
{
    long long end = waitMs < 0 ? LLONG_MAX : zel_now_ms() + waitMs;
    long long left, slice;
    struct timeval tv;
    fd_set fds;
    int n;

    if (run->masterFd < 0 || run->masterFd >= FD_SETSIZE) {
        /* an fd_set cannot hold it: report a select failure, never overflow */
        errno = EBADF;
        return -1;
    }
    if (run->deadline > 0 && run->deadline < end)
        end = run->deadline;
    for (;;) {
        left = end - zel_now_ms();
        left = left < 0 ? 0 : left;
        slice = left < PTY_SLICE_MS ? left : PTY_SLICE_MS;
        tv.tv_sec = (time_t)(slice / 1000);
        tv.tv_usec = (suseconds_t)(slice % 1000) * 1000;
        FD_ZERO(&fds);
        FD_SET(run->masterFd, &fds);
        n = select(run->masterFd + 1, &fds, NULL, NULL, &tv);
        if (n > 0)
            run->sitSince = 0;   /* new text: whatever sat there has moved on */
        if (n != 0)
            return n > 0 ? 1 : -1;
        /* a daemon the command left on the terminal must not hold us: stop once the child is gone */
        if (child_ended(run->pid))
            return PTY_CHILD_GONE;
        /* a question the runner does not answer (a one-time code, a fifth try) must not hold us */
        if (sits_unanswered(run))
            return PTY_UNANSWERED;
        if (left <= PTY_SLICE_MS)
            return 0;
    }
}

int pty_select(const char* fn, PtyRun* run, int forWrite, struct timeval* tv, int announce)
{
    long long budget, t0, left;
    fd_set fds;
    int n;

    for (;;) {
        if (announce)
            ZELLogFunction(0, ZELFUNC_SRC, 89, "%s: select....\n", fn);
        if (!forWrite) {
            budget = tv != NULL ? (long long)tv->tv_sec * 1000 + tv->tv_usec / 1000 : -1;
            t0 = zel_now_ms();
            n = await_data(run, budget);
            if (tv != NULL) {   /* the budget is counted down across calls */
                left = budget - (zel_now_ms() - t0);
                left = left < 0 ? 0 : left;
                tv->tv_sec = (time_t)(left / 1000);
                tv->tv_usec = (suseconds_t)(left % 1000) * 1000;
            }
        } else if (run->masterFd < 0 || run->masterFd >= FD_SETSIZE) {
            errno = EBADF;
            n = -1;
        } else {
            FD_ZERO(&fds);
            FD_SET(run->masterFd, &fds);
            n = select(run->masterFd + 1, NULL, &fds, NULL, tv);
        }
        if (n >= 0)
            return n;
        if (errno != EINTR) {
            ZELLogFunction(0, ZELFUNC_SRC, 111, "%s: failed to excecute select(%d).\n", fn, errno);
            return -1;
        }
        ZELLogFunction(0, ZELFUNC_SRC, 114, "%s: select get system interruption.\n", fn);
    }
}

ssize_t pty_read_answer(PtyRun* run, char* buf, size_t size, long long waitMs)
{
    (void)await_data(run, waitMs);   /* an interruption ends the wait, as it ended a blocking read */
    return read(run->masterFd, buf, size);
}

/* Closes every descriptor from 3 on. */
static void close_from_three(void)
{
    long max = sysconf(_SC_OPEN_MAX);

#ifdef SYS_close_range
    if (syscall(SYS_close_range, 3U, ~0U, 0U) == 0)
        return;
#endif
    for (long fd = 3; fd < (max > 0 && max < 65536 ? max : 65536); fd++)
        close((int)fd);
}

/* The keeper: holds fd as its standard input until the terminal's last user has gone. */
static void keep_terminal(int fd) __attribute__((noreturn));
static void keep_terminal(int fd)
{
    char buf[PTY_CHUNK];
    int devnull = open("/dev/null", O_RDWR);
    ssize_t n;

    setsid();
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    dup2(fd, 0);
    if (devnull >= 0) {
        dup2(devnull, 1);
        dup2(devnull, 2);
    }
    close_from_three();   /* the protocol stream and the log stay with the agent */
    /* a fresh program: nothing of the agent's memory stays with the terminal */
    execlp("cat", "cat", (char*)NULL);
    do {
        errno = 0;
        n = read(0, buf, sizeof(buf));
    } while (n > 0 || (n < 0 && errno == EINTR));
    _exit(0);
}

void pty_hand_over(PtyRun* run)
{
    pid_t middle;

    explicit_bzero(run->secret, sizeof(run->secret));
    middle = fork();
    if (middle == 0) {
        /* the keeper goes to init at once: the agent never has to reap it */
        if (fork() == 0)
            keep_terminal(run->masterFd);
        _exit(0);
    }
    while (middle > 0 && waitpid(middle, NULL, 0) < 0 && errno == EINTR)
        ;
}

/* Polls for mytimeout rounds; 1 when timed out, 2 unanswered, 0 reaped, -1 waitpid error. */
static int poll_child(PtyRun* run, int mytimeout, int* status)
{
    int timeElapse = 0;
    pid_t r;

    /* the count is taken before its test: a reap in the last round is a time-out */
    while (timeElapse++ < mytimeout) {
        r = waitpid(run->pid, status, WNOHANG);
        if (r < 0)
            return -1;
        if (r == run->pid)
            break;
        if (sits_unanswered(run))
            return 2;
        sleep(1);
    }
    return timeElapse >= mytimeout ? 1 : 0;
}

/*
 * Waits for the child, up to the run's limit when it has one; 1 when that
 * passed, 2 unanswered, 0 reaped, -1 waitpid error.
 */
static int wait_until_limit(PtyRun* run, int* status)
{
    useconds_t pause = 1000;
    pid_t r;

    for (;;) {
        r = waitpid(run->pid, status, WNOHANG);
        if (r < 0 && errno != EINTR)
            return -1;
        if (r == run->pid)
            return 0;
        if (run->deadline > 0 && zel_now_ms() >= run->deadline)
            return 1;
        /* sudo has no time-out of its own for a password: a read nobody answers is given up */
        if (sits_unanswered(run))
            return 2;
        usleep(pause);
        pause = pause < 64000 ? pause * 2 : 100000;
    }
}

/* After a time-out: nudge the terminal and look for a password-change dialogue. */
static int check_change_password(const char* fn, PtyRun* run, char* output, int outputSize)
{
    char buf[PTY_CHUNK];
    ssize_t n;

    if (write(run->masterFd, "\n", 1) != 1) {
        ZELLogFunction(0, ZELFUNC_SRC, 222, "%s: Failed to write new line.\n", fn);
        return PTY_WAIT_TIMEOUT;
    }
    memset(buf, 0, sizeof(buf));
    /* the child still runs: a terminal that stays silent is not waited on for ever */
    n = pty_read_answer(run, buf, sizeof(buf) - 1, PTY_NUDGE_MS);
    if (n <= 0)
        return PTY_WAIT_TIMEOUT;
    buf[n] = '\0';
    pty_log_text(3, 231, "%s: read %s\n", fn, buf, run->secret);
    if (strstr(buf, "Changing password for") == NULL)
        return PTY_WAIT_TIMEOUT;
    ZELLogFunction(3, ZELFUNC_SRC, 234, "%s: need change password.\n", fn);
    if (output != NULL && outputSize >= 1)
        exstrncpy(output, "1", (size_t)outputSize);
    return PTY_WAIT_CHANGE_PWD;
}

/* A timed-out child: the password-change dialogue, or the time-out logged. */
static int finish_timeout(const char* fn, PtyRun* run, char* output, int outputSize)
{
    int rc = check_change_password(fn, run, output, outputSize);

    if (rc == PTY_WAIT_TIMEOUT)
        ZELLogFunction(0, ZELFUNC_SRC, 246, "%s: wait for child (%d) timed out.\n", fn, (int)run->pid);
    return rc;
}

int pty_give_up_unanswered(const char* fn, PtyRun* run, char* output, int outputSize)
{
    int rc, n;

    ZELLogFunction(0, ZELFUNC_SRC, __LINE__, "%s: child %d waits in a no-echo read that gets no answer, "
                   "ending it.\n", fn, (int)run->pid);
    rc = finish_timeout(fn, run, output, outputSize);
    kill(run->pid, SIGKILL);
    /* reaped here, within a bound: the hang-up when the master closes ends what it left */
    for (n = 0; n < 200 && waitpid(run->pid, NULL, WNOHANG) == 0; n++)
        usleep(10000);
    return rc;
}

int pty_wait_child(const char* fn, PtyRun* run, int mytimeout, int* status,
                   char* output, int outputSize)
{
    int rc;

    ZELLogFunction(3, ZELFUNC_SRC, 255, "waiting for process %d\n", (int)run->pid);
    if (mytimeout <= 0) {
        /* a run with a limit ends there, as a time-out, however long the command takes */
        rc = wait_until_limit(run, status);
        if (rc < 0) {
            ZELLogFunction(0, ZELFUNC_SRC, 260, "%s: failed to wait child exit(%d).\n", fn, errno);
            return PTY_WAIT_BLOCK_ERROR;
        }
    } else {
        rc = poll_child(run, mytimeout, status);
        if (rc < 0) {
            ZELLogFunction(0, ZELFUNC_SRC, 270, "%s: failed to wait child exit(%d).\n", fn, errno);
            return PTY_WAIT_POLL_ERROR;
        }
    }
    if (rc == 0)
        return PTY_WAIT_EXITED;
    if (rc == 2)
        return pty_give_up_unanswered(fn, run, output, outputSize);
    return finish_timeout(fn, run, output, outputSize);
}

void pty_log_text(int level, int line, const char* fmt, const char* fn,
                  const char* text, const char* secret)
{
    size_t slen = secret != NULL ? strlen(secret) : 0;
    char* copy;
    char* p;

    if (text == NULL)
        text = "";
    if (slen == 0 || strstr(text, secret) == NULL) {
        ZELLogFunction(level, ZELFUNC_SRC, line, fmt, fn, text);
        return;
    }
    /* the answer may come back as terminal echo: mask it in a private copy */
    copy = strdup(text);
    if (copy == NULL) {
        ZELLogFunction(level, ZELFUNC_SRC, line, fmt, fn, "");
        return;
    }
    for (p = strstr(copy, secret); p != NULL; p = strstr(p + slen, secret))
        memset(p, '*', slen);
    ZELLogFunction(level, ZELFUNC_SRC, line, fmt, fn, copy);
    free(copy);
}
