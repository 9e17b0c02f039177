/*
 * zelfunc_exec.cpp - argument vectors and running programs without a
 * terminal: through the shell (system) or fork/execvp with pipes.
 */
#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include "zelfunc.h"
#include "zellog.h"

#define ARGV_ITEM_MAX 2048

/* ---- argument vectors ---- */

/*
 * Appends one printf-formatted argument (cut at 2047 characters, which is
 * logged) as a heap copy owned by the vector.  The last of the maxsize slots
 * stays null.  0 when pushed or nothing to push; -1 when the vector is full.
 */
int PushArgv(char** argv, unsigned maxsize, const char* format, ...)
{
    char buf[ARGV_ITEM_MAX];
    unsigned index = 0;
    va_list ap;
    int n;

    if (argv == NULL || format == NULL || format[0] == '\0')
        return 0;
    if (maxsize == 0)   /* no slot at all: nothing may be written */
        return -1;
    while (index + 1 < maxsize && argv[index] != NULL)
        index++;
    if (index + 1 >= maxsize) {
        argv[index] = NULL;
        return -1;
    }

    va_start(ap, format);
    n = vsnprintf(buf, sizeof(buf), format, ap);
    va_end(ap);
    if (n > ARGV_ITEM_MAX - 2)
        ZELLogFunction(0, "zelfunc", __LINE__,
                       "%s: buffer is not big enough, string is truncated.\n", "PushArgv");
    argv[index] = strdup(buf);
    return argv[index] != NULL ? 0 : -1;
}

/* Frees every argument up to the first null slot and nulls it; 0. */
int CleanArgv(char** argv)
{
    if (argv == NULL)
        return 0;
    for (int i = 0; argv[i] != NULL; i++) {
        free(argv[i]);
        argv[i] = NULL;
    }
    return 0;
}

/* Frees and nulls the last argument (so it can be replaced); 0. */
int CleanLastArgv(char** argv)
{
    int last = -1;

    if (argv == NULL)
        return 0;
    while (argv[last + 1] != NULL)
        last++;
    if (last >= 0) {
        free(argv[last]);
        argv[last] = NULL;
    }
    return 0;
}

/* ---- shell commands ---- */

/*
 * Maps a system() result: errno for -1, the exit code of a normal exit, the
 * signal number of a killed child, the raw value otherwise.
 */
static int decode_system_status(int r, int err)
{
    if (r == -1)
        return err;
    if ((r & 0x7f) == 0)
        return (r & 0xff00) >> 8;
    if (WIFSIGNALED(r))
        return r & 0x7f;
    return r;
}

/* Sets sig's handler, keeping the previous action in *old for restoring. */
static void set_handler(int sig, void (*handler)(int), struct sigaction* old)
{
    struct sigaction sa;

    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = handler;
    sigemptyset(&sa.sa_mask);
    sigaction(sig, &sa, old);
}

/*
 * system(cmd) with SIGCHLD at its default disposition for the duration (a
 * caller's SIGCHLD handler must not reap the shell).  Raw result; *err gets
 * errno of a failed call.
 */
static int run_system(const char* cmd, int* err)
{
    int r = zel_system(cmd);   /* stdin on /dev/null: the command never reads our requests */
    *err = errno;
    return r;
}

/*
 * Runs cmd through the shell without logging (probes and maintenance
 * commands).  -1 for a null cmd, else the decoded status (exit code, signal
 * number or errno: callers can only test for zero).
 */
int ExecuteCmdSilently(const char* cmd)
{
    int err = 0;
    int r;

    if (cmd == NULL)
        return -1;
    r = run_system(cmd, &err);
    return r == 0 ? 0 : decode_system_status(r, err);
}

/* As ExecuteCmdSilently(), then logs the command line and result (level 3). */
int ExecuteCmd(const char* cmd)
{
    int r;

    if (cmd == NULL)
        return -1;
    r = ExecuteCmdSilently(cmd);
    ZELLogFunction(3, "zelfunc", __LINE__, "Execute command [%s] result: %d.\n", cmd, r);
    return r;
}

#define JOB_QUERY(pattern) "ps laxww | grep " pattern " | grep -v %s | grep -v grep > /dev/null 2>&1"

/*
 * Looks for the job's script among all processes (the backup program itself
 * excluded).  *run gets 1 when found, else 0.  Always 0.
 */
int check_process_running(const char* jobuuid, int* run)
{
    const char* job = jobuuid != NULL ? jobuuid : "";
    /* the server's UUID ends the quoted pattern when safe, else follows it single-quoted */
    int plain = job[0] == '\0' || zel_shell_safe(job);
    char* cmd = zel_shell_cmdline(plain ? JOB_QUERY("\"jobscript.*%s\"") : JOB_QUERY("\"jobscript.*\"%w"),
                                  job, "kvxbackupvol");
    int found = cmd != NULL && ExecuteCmdSilently(cmd) == 0;

    free(cmd);
    if (run != NULL)   /* a null result pointer is not written */
        *run = found;
    if (found)
        ZELLogFunction(4, "zelfunc", __LINE__, "%s: job(%s) is running.\n",
                       "check_process_running", job);
    else
        ZELLogFunction(4, "zelfunc", __LINE__, "%s: job(%s) isn't running.\n",
                       "check_process_running", job);
    return 0;
}

/*
 * Directory of the running executable (no trailing slash).  Copies it into
 * path (len bytes) and returns a static 4096-byte buffer holding it; null
 * when the link cannot be read or the directory does not fit.
 */
char* GetProcessModulePath(char* path, int len)
{
    static char resolved[ZEL_PATH_MAX];
    char source[64];
    ssize_t n;
    char* slash;
    size_t dirlen;

    snprintf(source, sizeof(source), "%s/%d/exe", "/proc", (int)getpid());
    n = readlink(source, resolved, sizeof(resolved) - 1);
    if (n < 0) {
        int err = errno;
        ZELLogFunction(3, "zelfunc", __LINE__,
                       "Failed to locate process path: readlink() failed [%d][%s]\n",
                       err, strerror(err));
        return NULL;
    }
    resolved[n] = '\0';
    ZELLogFunction(5, "zelfunc", __LINE__, "sourcePath   = [%s]\n", source);
    ZELLogFunction(5, "zelfunc", __LINE__, "resolvedPath = [%s]\n", resolved);

    slash = strrchr(resolved, '/');
    if (slash == NULL) {
        ZELLogFunction(3, "zelfunc", __LINE__,
                       "Incorrect resolved path from readlink() : [%s]\n", resolved);
        return NULL;
    }
    *slash = '\0';
    ZELLogFunction(5, "zelfunc", __LINE__, "resolvedPath = [%s]\n", resolved);

    dirlen = strlen(resolved);
    if (path == NULL || len <= 0 || dirlen >= (size_t)len) {
        ZELLogFunction(3, "zelfunc", __LINE__,
                       "Got Path Len is larger than input path buf len! failed !\n");
        return NULL;
    }
    memcpy(path, resolved, dirlen);
    path[dirlen] = '\0';   /* terminated here: callers need not zero path */
    return resolved;
}

/* 1 when s is non-empty and all decimal digits, else 0. */
int isdigitstring(const char* s)
{
    if (s == NULL || *s == '\0')
        return 0;
    for (; *s != '\0'; s++) {
        if (!isdigit((unsigned char)*s))
            return 0;
    }
    return 1;
}

/* ---- fork/execvp with pipes ---- */

static void close_fd(int* fd)
{
    if (*fd >= 0) {
        close(*fd);
        *fd = -1;
    }
}

/*
 * Child side of ExecuteProcess(): wires the pipes to descriptors 0 and 1,
 * starts a new session and executes argv.  Never returns.
 */
static void exec_child(char** argv, int pfdin[2], int pfdout[2])
{
    int err;

    close(pfdin[1]);
    close(pfdout[0]);
    if (dup2(pfdin[0], 0) < 0) {
        err = errno;
        ZELLogFunction(0, "zelfunc", __LINE__, "ExecuteProcess: failed to dup stdin: %d.\n", err);
        _exit(err);
    }
    if (dup2(pfdout[1], 1) < 0) {
        err = errno;
        ZELLogFunction(0, "zelfunc", __LINE__, "ExecuteProcess: failed to dup stdout: %d.\n", err);
        _exit(err);
    }
    /* a pipe end that already was descriptor 0 or 1 stays open */
    if (pfdin[0] > 1)
        close(pfdin[0]);
    if (pfdout[1] > 1)
        close(pfdout[1]);
    if (setsid() < 0) {
        ZELLogFunction(0, "zelfunc", __LINE__, "ExecuteProcess: failed to setsid: %d.\n", errno);
        _exit(-1);
    }
    execvp(argv[0], argv);
    ZELLogFunction(0, "zelfunc", __LINE__, "ExecuteProcess: failed to exec command(%d): %s.\n",
                   errno, argv[0]);
    /* _exit: the child never runs on into the caller's code or atexit hooks */
    _exit(127);
}

/* The pipes of a running child, seen from the parent. */
typedef struct ProcPipes {
    int         in;          /* write end of the child's standard input, -1 once closed */
    int         out;         /* read end of its standard output, -1 once at its end */
    const char* input;       /* what is left to feed */
    size_t      inputLeft;
    char*       output;      /* keeps the first outputSize - 1 bytes */
    size_t      outputSize;
    size_t      kept;
} ProcPipes;

/* Feeds what the pipe takes now; closed once all is written or the child has gone. */
static void feed_some(ProcPipes* p)
{
    ssize_t w = write(p->in, p->input, p->inputLeft);

    if (w > 0) {
        p->input += w;
        p->inputLeft -= (size_t)w;
    }
    if (p->inputLeft == 0 || (w < 0 && errno != EAGAIN && errno != EINTR))
        close_fd(&p->in);
}

/* Takes what the child wrote: the first outputSize - 1 bytes are kept, the rest dropped. */
static void drain_some(ProcPipes* p)
{
    char scratch[4096];
    size_t room = p->outputSize > p->kept + 1 ? p->outputSize - 1 - p->kept : 0;
    ssize_t n = room > 0 ? read(p->out, p->output + p->kept, room)
                         : read(p->out, scratch, sizeof(scratch));

    if (n > 0 && room > 0)
        p->kept += (size_t)n;
    if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR))
        close_fd(&p->out);
}

/*
 * Feeds the input and reads the output while the child runs, so that a
 * child writing more than a pipe holds, or not reading its input, cannot
 * stall both sides.  Returns 0 once the child has been reaped (*status
 * set), or -1 with errno when waitpid failed.
 */
static int run_child_io(pid_t pid, ProcPipes* p, int* status)
{
    struct pollfd fds[2];
    struct sigaction old;
    int nfds, timeout = 1, err = 0;
    pid_t r = 0;

    set_handler(SIGPIPE, SIG_IGN, &old);   /* a child that has already gone must not kill us */
    if (p->in >= 0)
        fcntl(p->in, F_SETFL, fcntl(p->in, F_GETFL) | O_NONBLOCK);
    fcntl(p->out, F_SETFL, fcntl(p->out, F_GETFL) | O_NONBLOCK);
    while (p->out >= 0) {
        nfds = 0;
        fds[nfds++] = (struct pollfd){ p->out, POLLIN, 0 };
        if (p->in >= 0)
            fds[nfds++] = (struct pollfd){ p->in, POLLOUT, 0 };
        if (poll(fds, (nfds_t)nfds, timeout) > 0) {
            if (fds[0].revents != 0)
                drain_some(p);
            if (nfds > 1 && fds[1].revents != 0)
                feed_some(p);
            continue;
        }
        /* quiet pipes: the child may have ended while a grandchild holds its output */
        timeout = timeout < 64 ? timeout * 2 : 100;
        r = waitpid(pid, status, WNOHANG);
        if (r < 0 && errno != EINTR)
            err = errno;
        if (r == pid || err != 0)
            break;
    }
    close_fd(&p->in);
    sigaction(SIGPIPE, &old, NULL);
    if (err == 0 && r != pid && waitpid(pid, status, 0) < 0)
        err = errno;
    errno = err;
    return err != 0 ? -1 : 0;
}

/*
 * Runs argv[0] (searched in PATH) in a new session, feeds input to its
 * standard input and reads its standard output until it has ended; the
 * first outputsize - 1 bytes go into output (terminated), the rest, and
 * all of it without a buffer, is dropped.  Standard error is inherited.
 * 0 without running anything for a null vector; otherwise the child's exit
 * code (127: could not execute), -1 when it was killed by a
 * signal, errno when a pipe, fork or wait failed.
 */
int ExecuteProcess(char** argv, const char* input, size_t inputsize,
                   char* output, size_t outputsize)
{
    int pfdin[2] = { -1, -1 };
    int pfdout[2] = { -1, -1 };
    struct sigaction old;
    pid_t pid;
    int status = 0;
    int err, rc;

    if (argv == NULL || argv[0] == NULL)
        return 0;
    if (pipe(pfdin) < 0) {
        err = errno;
        ZELLogFunction(0, "zelfunc", __LINE__, "ExecuteProcess: failed to create pipe1: %d.\n", err);
        return err;
    }
    if (pipe(pfdout) < 0) {
        err = errno;
        ZELLogFunction(0, "zelfunc", __LINE__, "ExecuteProcess: failed to create pipe2: %d.\n", err);
        close_fd(&pfdin[0]);   /* the first pipe is released too */
        close_fd(&pfdin[1]);
        return err;
    }

    zel_chld_default(&old);   /* our wait must get the status */
    pid = fork();
    if (pid < 0) {
        err = errno;
        ZELLogFunction(0, "zelfunc", __LINE__, "ExecuteProcess: failed to fork: %d.\n", err);
        close_fd(&pfdin[0]);
        close_fd(&pfdin[1]);
        close_fd(&pfdout[0]);
        close_fd(&pfdout[1]);
        zel_chld_restore(&old);
        return err;
    }
    if (pid == 0)
        exec_child(argv, pfdin, pfdout);

    close_fd(&pfdin[0]);
    close_fd(&pfdout[1]);
    ProcPipes io = { pfdin[1], pfdout[0], input, input != NULL ? inputsize : 0,
                     output, output != NULL ? outputsize : 0, 0 };
    if (io.inputLeft == 0)
        close_fd(&io.in);   /* nothing to feed: the child sees end of input at once */

    rc = run_child_io(pid, &io, &status);
    if (rc < 0) {
        err = errno;
        ZELLogFunction(0, "zelfunc", __LINE__, "ExecuteProcess: failed to wait subprocess (%d).\n", err);
        close_fd(&io.out);
        zel_chld_restore(&old);
        return err;
    }
    zel_chld_restore(&old);
    rc = WIFEXITED(status) ? WEXITSTATUS(status) : -1;

    if (output != NULL && outputsize > 0) {
        /* what is left at the child's end, taken without waiting for a grandchild */
        if (io.out >= 0)
            drain_some(&io);
        output[io.kept] = '\0';
        ZELLogFunction(5, "zelfunc", __LINE__, "ExecuteProcess: read output (%s).\n", output);
    }
    close_fd(&io.out);
    return rc;
}
