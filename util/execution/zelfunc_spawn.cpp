/*
 * zelfunc_spawn.cpp - running "sh -c <command>" as system() and popen() do,
 * but with standard input on /dev/null (source name "zelfunc").
 *
 * The agent's standard input is the server's request stream.  A command
 * that reads its input (head, read, a product program asking a question)
 * must get end of file, never the server's next requests.
 */
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include "zelfunc.h"

extern char** environ;

#define CAPTURE_TICK_MS 100   /* how often a silent pipe makes us look at the shell */

pid_t zel_spawn_shell(const char* cmd, int out_fd)
{
    char* argv[] = { (char*)"sh", (char*)"-c", (char*)cmd, NULL };
    posix_spawn_file_actions_t fa;
    pid_t pid = -1;
    int rc;

    if (cmd == NULL) {
        errno = EINVAL;
        return -1;
    }
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    if (out_fd >= 0 && out_fd != 1)
        posix_spawn_file_actions_adddup2(&fa, out_fd, 1);
    rc = posix_spawn(&pid, "/bin/sh", &fa, NULL, argv, environ);
    posix_spawn_file_actions_destroy(&fa);
    if (rc != 0) {
        errno = rc;
        return -1;
    }
    return pid;
}

void zel_stdin_devnull(void)
{
    int fd = open("/dev/null", O_RDONLY);
    if (fd > 0) {
        dup2(fd, 0);
        close(fd);
    }
}

/* waitpid() for one child, retried when a signal interrupts it. */
static pid_t wait_child(pid_t pid, int* status, int flags)
{
    pid_t r;
    do {
        r = waitpid(pid, status, flags);
    } while (r < 0 && errno == EINTR);
    return r;
}

void zel_chld_default(struct sigaction* old)
{
    struct sigaction dfl;
    memset(&dfl, 0, sizeof(dfl));
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    sigaction(SIGCHLD, &dfl, old);
}

void zel_chld_restore(const struct sigaction* old)
{
    sigaction(SIGCHLD, old, NULL);
}

int zel_system(const char* cmd)
{
    struct sigaction old;
    int status = 0;
    int err;

    zel_chld_default(&old);   /* a SIGCHLD handler of the caller must not reap the shell */
    pid_t pid = zel_spawn_shell(cmd, -1);
    if (pid < 0)
        status = 127 << 8;   /* as system(): a shell that cannot run exits with 127 */
    else if (wait_child(pid, &status, 0) < 0)
        status = -1;
    err = errno;
    zel_chld_restore(&old);
    errno = err;
    return status;
}

/*
 * Reads what the shell prints into out until size - 1 bytes, end of file,
 * or the shell has exited and nothing more is ready: a daemon the command
 * leaves behind with the pipe open does not hold us.  Returns the count.
 */
static size_t capture_from(int fd, pid_t pid, char* out, size_t size, int* reaped, int* status)
{
    size_t n = 0;

    while (n < size - 1) {
        struct pollfd pfd = { fd, POLLIN, 0 };
        int ready = poll(&pfd, 1, *reaped ? 0 : CAPTURE_TICK_MS);
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready == 0) {
            if (*reaped)
                break;   /* the shell is gone and its pipe is quiet */
            *reaped = wait_child(pid, status, WNOHANG) == pid;
            continue;
        }
        if (ready < 0)
            break;
        ssize_t r = read(fd, out + n, size - 1 - n);
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0)
            break;
        n += (size_t)r;
    }
    out[n] = '\0';
    return n;
}

int zel_shell_capture(const char* cmd, char* out, size_t size, int* status)
{
    struct sigaction old;
    int pfd[2];
    int reaped = 0, st = 0;
    ssize_t n = -1;

    if (out == NULL || size == 0)
        return -1;
    out[0] = '\0';
    if (pipe2(pfd, O_CLOEXEC) != 0)
        return -1;
    zel_chld_default(&old);
    pid_t pid = zel_spawn_shell(cmd, pfd[1]);
    close(pfd[1]);
    if (pid >= 0) {
        n = (ssize_t)capture_from(pfd[0], pid, out, size, &reaped, &st);
        close(pfd[0]);   /* a command still writing gets SIGPIPE, as with pclose() */
        if (!reaped && wait_child(pid, &st, 0) < 0)
            st = -1;
    } else {
        close(pfd[0]);
    }
    zel_chld_restore(&old);
    if (status != NULL)
        *status = st;
    return (int)n;
}
