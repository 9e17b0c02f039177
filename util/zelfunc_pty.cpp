/*
 * zelfunc_pty.cpp - running a command on a fresh pseudo-terminal that
 * answers password prompts, and cleaning the terminal text it leaves
 * (source name "zelfunc").
 *
 * Programs such as su and sudo read passwords from their terminal, not from
 * standard input, so the runner owns the master side of a pty, watches what
 * the child prints and writes the stored password when a prompt appears.
 */
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pty.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include "zelfunc.h"
#include "zellog.h"
#include "zelfunc_pty.h"

#define READ_PWD_MAX_TIME 3     /* answers given before the last one allowed */
#define PTY_SLICE_MS      100   /* how often a wait for terminal text looks at the child */
#define PTY_NUDGE_MS      5000  /* how long a timed-out terminal may take to answer a newline */

/* Where the prompt phase leaves off. */
enum { PROMPT_WAIT = 1, PROMPT_IDLE = 2 };

static const char* const kRunFn = "ExecuteCmdInteractively";

/* ---------------------------------------------------------------------- */
/* pieces shared with the su path                                          */
/* ---------------------------------------------------------------------- */

static long long now_ms(void)
{
    struct timespec ts;

    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (long long)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

/* 1 once the child has ended (or is no longer ours); it is left unreaped. */
static int child_ended(pid_t pid)
{
    siginfo_t si;

    memset(&si, 0, sizeof(si));
    if (waitid(P_PID, (id_t)pid, &si, WEXITED | WNOHANG | WNOWAIT) != 0)
        return errno != EINTR;
    return si.si_pid == pid;
}

/*
 * Waits for the master to become readable, at most waitMs (-1: no bound)
 * and never past the run's limit.  1 readable, 0 nothing in time,
 * PTY_CHILD_GONE when the child has ended with nothing readable, -1 with
 * errno (EINTR included).
 */
static int await_data(PtyRun* run, long long waitMs)
{
    long long end = waitMs < 0 ? LLONG_MAX : now_ms() + waitMs;
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
        left = end - now_ms();
        left = left < 0 ? 0 : left;
        slice = left < PTY_SLICE_MS ? left : PTY_SLICE_MS;
        tv.tv_sec = (time_t)(slice / 1000);
        tv.tv_usec = (suseconds_t)(slice % 1000) * 1000;
        FD_ZERO(&fds);
        FD_SET(run->masterFd, &fds);
        n = select(run->masterFd + 1, &fds, NULL, NULL, &tv);
        if (n != 0)
            return n > 0 ? 1 : -1;
        /* a daemon the command left on the terminal must not hold us: stop once the child is gone */
        if (child_ended(run->pid))
            return PTY_CHILD_GONE;
        if (left <= PTY_SLICE_MS)
            return 0;
    }
}

void pty_run_begin(PtyRun* run, const char* pwd, int limit)
{
    struct sigaction dfl;

    memset(run, 0, sizeof(*run));
    run->pid = -1;
    run->masterFd = -1;
    if (limit > 0)
        run->deadline = now_ms() + (long long)limit * 1000;
    if (pwd != NULL)
        exstrncpy(run->secret, pwd, sizeof(run->secret));   /* what "%s\n" in 128 bytes sends */

    memset(&dfl, 0, sizeof(dfl));
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    sigaction(SIGCHLD, &dfl, &run->oldChld);
    run->sigSaved = 1;
}

void pty_finish(PtyRun* run)
{
    if (run->masterFd >= 0) {
        close(run->masterFd);
        run->masterFd = -1;
    }
    /* the password is not kept in memory past the run */
    explicit_bzero(run->secret, sizeof(run->secret));
    if (run->sigSaved) {
        sigaction(SIGCHLD, &run->oldChld, NULL);
        run->sigSaved = 0;
    }
}

int pty_password_too_long(const char* fn, const char* pwd)
{
    size_t len = pwd != NULL ? strlen(pwd) : 0;

    if (len + 2 <= PTY_PASSWORD_SIZE)
        return 0;
    /* cut, it would lose its newline and leave su or sudo reading for ever */
    ZELLogFunction(0, ZELFUNC_SRC, __LINE__, "%s: password is too long (%d bytes), nothing run.\n",
                   fn, (int)len);
    return 1;
}

pid_t pty_fork(const char* fn, PtyRun* run)
{
    run->pid = forkpty(&run->masterFd, NULL, NULL, NULL);
    if (run->pid < 0) {
        ZELLogFunction(0, ZELFUNC_SRC, __LINE__, "%s: failed to fork pty(%d).\n", fn, errno);
        run->masterFd = -1;
        pty_finish(run);
    } else if (run->pid > 0) {
        /* reads take what is there: each wait for text is bounded by await_data() */
        fcntl(run->masterFd, F_SETFL, fcntl(run->masterFd, F_GETFL) | O_NONBLOCK);
    }
    return run->pid;
}

void pty_child_exit(int err)
{
    /* the forked child ends here instead of running on in the caller's code */
    _exit(err == ENOENT ? 127 : 126);
}

int pty_select(const char* fn, PtyRun* run, int forWrite, struct timeval* tv, int announce)
{
    long long budget, t0, left;
    fd_set fds;
    int n;

    for (;;) {
        if (announce)
            ZELLogFunction(0, ZELFUNC_SRC, __LINE__, "%s: select....\n", fn);
        if (!forWrite) {
            budget = tv != NULL ? (long long)tv->tv_sec * 1000 + tv->tv_usec / 1000 : -1;
            t0 = now_ms();
            n = await_data(run, budget);
            if (tv != NULL) {   /* the budget is counted down across calls */
                left = budget - (now_ms() - t0);
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
            ZELLogFunction(0, ZELFUNC_SRC, __LINE__, "%s: failed to excecute select(%d).\n", fn, errno);
            return -1;
        }
        ZELLogFunction(0, ZELFUNC_SRC, __LINE__, "%s: select get system interruption.\n", fn);
    }
}

ssize_t pty_read_answer(PtyRun* run, char* buf, size_t size, long long waitMs)
{
    (void)await_data(run, waitMs);   /* an interruption ends the wait, as it ended a blocking read */
    return read(run->masterFd, buf, size);
}

int pty_echo_off(const PtyRun* run)
{
    struct termios t;

    /* the slave's settings through the master (pexpect's waitnoecho test); a password is read
     * a line at a time: sudo relaying a command's own terminal turns echo off in raw mode */
    return tcgetattr(run->masterFd, &t) == 0 && (t.c_lflag & ECHO) == 0 && (t.c_lflag & ICANON) != 0;
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

/* Polls for mytimeout rounds; 1 when timed out, 0 reaped, -1 waitpid error. */
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
        sleep(1);
    }
    return timeElapse >= mytimeout ? 1 : 0;
}

/* Waits until the run's limit; 1 when it passed, 0 reaped, -1 waitpid error. */
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
        if (now_ms() >= run->deadline)
            return 1;
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
        ZELLogFunction(0, ZELFUNC_SRC, __LINE__, "%s: Failed to write new line.\n", fn);
        return PTY_WAIT_TIMEOUT;
    }
    memset(buf, 0, sizeof(buf));
    /* the child still runs: a terminal that stays silent is not waited on for ever */
    n = pty_read_answer(run, buf, sizeof(buf) - 1, PTY_NUDGE_MS);
    if (n <= 0)
        return PTY_WAIT_TIMEOUT;
    buf[n] = '\0';
    pty_log_text(3, __LINE__, "%s: read %s\n", fn, buf, run->secret);
    if (strstr(buf, "Changing password for") == NULL)
        return PTY_WAIT_TIMEOUT;
    ZELLogFunction(3, ZELFUNC_SRC, __LINE__, "%s: need change password.\n", fn);
    if (output != NULL && outputSize >= 1)
        exstrncpy(output, "1", (size_t)outputSize);
    return PTY_WAIT_CHANGE_PWD;
}

/* A timed-out child: the password-change dialogue, or the time-out logged. */
static int finish_timeout(const char* fn, PtyRun* run, char* output, int outputSize)
{
    int rc = check_change_password(fn, run, output, outputSize);

    if (rc == PTY_WAIT_TIMEOUT)
        ZELLogFunction(0, ZELFUNC_SRC, __LINE__, "%s: wait for child (%d) timed out.\n", fn, (int)run->pid);
    return rc;
}

int pty_wait_child(const char* fn, PtyRun* run, int mytimeout, int* status,
                   char* output, int outputSize)
{
    int rc;

    ZELLogFunction(3, ZELFUNC_SRC, __LINE__, "waiting for process %d\n", (int)run->pid);
    if (mytimeout <= 0) {
        /* a run with a limit ends there, as a time-out, however long the command takes */
        rc = run->deadline > 0 ? wait_until_limit(run, status) : (waitpid(run->pid, status, 0) < 0 ? -1 : 0);
        if (rc < 0) {
            ZELLogFunction(0, ZELFUNC_SRC, __LINE__, "%s: failed to wait child exit(%d).\n", fn, errno);
            return PTY_WAIT_BLOCK_ERROR;
        }
        if (rc == 0)
            return PTY_WAIT_EXITED;
        return finish_timeout(fn, run, output, outputSize);
    }

    rc = poll_child(run, mytimeout, status);
    if (rc < 0) {
        ZELLogFunction(0, ZELFUNC_SRC, __LINE__, "%s: failed to wait child exit(%d).\n", fn, errno);
        return PTY_WAIT_POLL_ERROR;
    }
    if (rc == 0)
        return PTY_WAIT_EXITED;
    return finish_timeout(fn, run, output, outputSize);
}

void pty_capture_output(PtyRun* run, char* output, int outputSize, const char* lastChunk)
{
    ssize_t n;

    if (output == NULL || outputSize < 1)
        return;
    n = read(run->masterFd, output, (size_t)outputSize - 1);
    if (n < 0)
        exstrncpy(output, lastChunk != NULL ? lastChunk : "", (size_t)outputSize);
    else
        output[n] = '\0';
    pty_clean_output(output, outputSize, run->secret);
}

int pty_clean_output(char* output, int outputSize, const char* secret)
{
    static const char* const fn = "ProcessSudoOutput";
    char* copy;
    char* nl;

    if (output == NULL || outputSize < 1)
        return -1;
    copy = (char*)calloc((size_t)outputSize, 1);
    if (copy == NULL) {
        ZELLogFunction(0, ZELFUNC_SRC, __LINE__, "%s: not enough memory.\n", fn);
        return -1;
    }
    /* the buffer is only trusted up to its size: both copies stay terminated */
    output[outputSize - 1] = '\0';
    exstrncpy(copy, output, (size_t)outputSize);
    pty_log_text(3, __LINE__, "%s: output before processing: %s\n", fn, copy, secret);
    TrimSpaces(copy);
    if (strncasecmp(copy, "Warning:", 8) == 0 || strncasecmp(copy, "Error:", 6) == 0) {
        nl = strchr(copy, '\n');
        if (nl != NULL)
            exstrncpy(output, nl + 1, (size_t)outputSize);
    }
    free(copy);
    TrimSpaces(output);
    pty_log_text(3, __LINE__, "%s: output after processing: %s\n", fn, output, secret);
    return 0;
}

/*
 * Drops one leading "Warning:" or "Error:" line (either case) from captured
 * terminal text and trims white space, in place; output must hold a string
 * within outputSize bytes.  Returns 0, or -1 for a null buffer, a size below
 * 1 or no memory.
 */
int ProcessSudoOutput(char* output, int outputSize)
{
    return pty_clean_output(output, outputSize, NULL);
}

/* ---------------------------------------------------------------------- */
/* ExecuteCmdInteractively                                                 */
/* ---------------------------------------------------------------------- */

/* Answers one prompt; 0, or -4 / -6 as ExecuteCmdInteractively returns them. */
static int answer_prompt(PtyRun* run, const char* password, struct timeval* tv,
                         char* buf, size_t bufSize)
{
    int ready;
    ssize_t n, want;

    ready = pty_select(kRunFn, run, 1, tv, 0);
    if (ready < 0)
        return -4;
    if (ready == 0)
        ZELLogFunction(0, ZELFUNC_SRC, __LINE__, "%s: output isn't ready.\n", kRunFn);

    if (password[0] != '\0') {
        ZELLogFunction(3, ZELFUNC_SRC, __LINE__, "write password to tty: %d\n", (int)strlen(run->secret));
        want = (ssize_t)strlen(password);
        n = write(run->masterFd, password, (size_t)want);
    } else {
        ZELLogFunction(0, ZELFUNC_SRC, __LINE__, "%s: its ssh key auth but requires password, "
                       "it happends for sudo -v on redhat 7 or above version.\n", kRunFn);
        want = 1;
        n = write(run->masterFd, "\n", 1);
    }
    if (n != want) {
        ZELLogFunction(0, ZELFUNC_SRC, __LINE__, "%s: failed to write password(%d).\n", kRunFn, errno);
        return -6;
    }

    /* the echo read takes 256 bytes; buf has one more byte for the terminator */
    memset(buf, 0, bufSize);
    n = pty_read_answer(run, buf, bufSize - 1, -1);
    if (n < 0)
        buf[0] = '\0';
    pty_log_text(3, __LINE__, "%s: read after write password: %s\n", kRunFn, buf, run->secret);
    return 0;
}

/*
 * A password prompt to answer: "Password" (any case) after the chunk's last
 * "try again", shown while the terminal's echo is off.
 */
static int is_password_prompt(const PtyRun* run, const char* chunk)
{
    const char* tail = chunk;
    const char* p;

    /* sudo sends "Sorry, try again." and its next prompt in one chunk: that prompt counts */
    while ((p = strcasestr(tail, "try again")) != NULL)
        tail = p + strlen("try again");
    /* only a terminal with its echo off is reading a password: other text is output */
    return strcasestr(tail, "Password") != NULL && pty_echo_off(run);
}

/*
 * Prompt phase: reads what the child prints and answers password prompts,
 * at most READ_PWD_MAX_TIME + 1 times.  Returns PROMPT_WAIT (go on to the
 * wait phase), PROMPT_IDLE (nothing printed in time and block != 1), or -4
 * / -6.  buf (bufSize = PTY_CHUNK + 1) keeps the last chunk read.
 */
static int prompt_phase(PtyRun* run, const char* password, int block, char* buf, size_t bufSize)
{
    struct timeval tv = { PTY_SELECT_SECONDS, 0 };   /* armed once for the whole phase */
    int readPwdTimes = 0;
    int retryTimes = 0;
    int ready, rc;
    ssize_t n;

    for (;;) {
        ready = pty_select(kRunFn, run, 0, &tv, 0);
        if (ready < 0)
            return -4;
        if (ready == 0) {
            ZELLogFunction(4, ZELFUNC_SRC, __LINE__, "%s: no data from tty output.\n", kRunFn);
            if (block != 1)
                return PROMPT_IDLE;
            while (retryTimes++ < 15)
                ZELLogFunction(4, ZELFUNC_SRC, __LINE__, "%s: no data from tty output.\n", kRunFn);
            return PROMPT_WAIT;
        }

        errno = 0;
        n = read(run->masterFd, buf, PTY_CHUNK - 1);
        if (n <= 0) {
            ZELLogFunction(0, ZELFUNC_SRC, __LINE__, "%s: failed to read tty output(%d), maybe the "
                           "command has no output, continue.\n", kRunFn, errno);
            return PROMPT_WAIT;     /* buf keeps the previous chunk for the output */
        }
        buf[n] = '\0';
        pty_log_text(3, __LINE__, "%s: tty output is: %s\n", kRunFn, buf, run->secret);

        if (!is_password_prompt(run, buf))
            continue;

        rc = answer_prompt(run, password, &tv, buf, bufSize);
        if (rc < 0)
            return rc;
        if (readPwdTimes++ >= READ_PWD_MAX_TIME)
            return PROMPT_WAIT;
    }
}

/* Wait phase and output capture of a blocking run; the result to return. */
static int finish_blocking_run(PtyRun* run, int mytimeout, char* output, int outputSize,
                               const char* lastChunk)
{
    char buf2[2048];
    int status = 0;
    int ret;
    ssize_t n;

    switch (pty_wait_child(kRunFn, run, mytimeout, &status, output, outputSize)) {
    case PTY_WAIT_EXITED:      break;
    case PTY_WAIT_CHANGE_PWD:  return 1;
    case PTY_WAIT_TIMEOUT:     return -8;
    case PTY_WAIT_POLL_ERROR:  return -7;
    default:                   return -9;
    }

    if (WIFSIGNALED(status)) {
        ZELLogFunction(0, ZELFUNC_SRC, __LINE__, "%s:chile %d exits abnormally(%d).\n",
                       kRunFn, (int)run->pid, WTERMSIG(status));
        return -10;
    }

    pty_capture_output(run, output, outputSize, lastChunk);

    ret = WEXITSTATUS(status);
    if (ret != 0) {
        memset(buf2, 0, sizeof(buf2));
        n = read(run->masterFd, buf2, sizeof(buf2) - 1);
        if (n < 0)
            buf2[0] = '\0';
        pty_log_text(3, __LINE__, "%s: read %s\n", kRunFn, buf2, run->secret);
    }
    ZELLogFunction(3, ZELFUNC_SRC, __LINE__, "%s: process %d exited (%d).\n", kRunFn, (int)run->pid, ret);
    return ret;
}

/*
 * Runs argv (null-terminated, argv[0] the program, searched in PATH) on a new
 * pseudo-terminal, answering password prompts with pwd and a newline, or a
 * bare newline when pwd is null or empty; at most four answers.  A prompt
 * is a chunk with "Password" (any case) after its last "try again", shown
 * while the terminal's echo is off.  block == 1 waits for the child
 * (mytimeout > 0 bounds the wait in seconds); any other block returns 0 once
 * the prompt phase ends.  output (may be null) gets the cleaned terminal
 * text, at most outputSize - 1 bytes.  Returns the exit code, 1 when a
 * time-out meets a password-change dialogue, or -1 empty argv, -3 forkpty,
 * -4 select, -6 write (or a password too long to send whole: nothing run),
 * -7 / -9 wait, -8 time-out, -10 child killed by a signal.  The master
 * descriptor is closed, SIGCHLD restored and the password wiped on every return.
 */
int ExecuteCmdInteractively(char** argv, const char* pwd, int block, int mytimeout,
                            char* output, int outputSize)
{
    return pty_run_interactive(argv, pwd, block, mytimeout, 0, output, outputSize);
}

int pty_run_interactive(char** argv, const char* pwd, int block, int mytimeout, int limit,
                        char* output, int outputSize)
{
    char password[PTY_PASSWORD_SIZE] = "";
    char buf[PTY_CHUNK + 1] = "";
    PtyRun run;
    int rc;

    if (argv == NULL || argv[0] == NULL || argv[0][0] == '\0') {
        ZELLogFunction(3, ZELFUNC_SRC, __LINE__, "%s: argment is empty.\n", kRunFn);
        return -1;
    }
    if (pty_password_too_long(kRunFn, pwd))
        return -6;
    if (pwd == NULL || pwd[0] == '\0')
        ZELLogFunction(3, ZELFUNC_SRC, __LINE__, "%s: no password for current user, try sudo with ssh key.\n", kRunFn);
    else
        snprintf(password, sizeof(password), "%s\n", pwd);

    pty_run_begin(&run, pwd, limit);
    if (pty_fork(kRunFn, &run) < 0) {
        explicit_bzero(password, sizeof(password));
        return -3;
    }
    if (run.pid == 0) {
        execvp(argv[0], argv);
        int err = errno;
        ZELLogFunction(0, ZELFUNC_SRC, __LINE__, "%s: failed to execute cmd: %s(%s).\n",
                       kRunFn, argv[1] != NULL ? argv[1] : "(null)", strerror(err));
        pty_child_exit(err);
    }

    rc = prompt_phase(&run, password, block, buf, sizeof(buf));
    if (rc == PROMPT_IDLE || (rc == PROMPT_WAIT && block != 1))
        rc = 0;
    else if (rc == PROMPT_WAIT)
        rc = finish_blocking_run(&run, mytimeout, output, outputSize, buf);
    explicit_bzero(password, sizeof(password));
    pty_finish(&run);
    return rc;
}
