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
#include <pty.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "zelcommon.h"
#include "zelfunc.h"
#include "zellog.h"
#include "zelfunc_pty.h"

#define READ_PWD_MAX_TIME 3     /* answers given before the last one allowed */

/* Where the prompt phase leaves off. */
enum { PROMPT_WAIT = 1, PROMPT_IDLE = 2, PROMPT_UNANSWERED = 3 };

static const char* const kRunFn = "ExecuteCmdInteractively";

/* ---------------------------------------------------------------------- */
/* pieces shared with the su path                                          */
/* ---------------------------------------------------------------------- */

void pty_run_begin(PtyRun* run, const char* pwd, int limit)
{
    memset(run, 0, sizeof(*run));
    run->pid = -1;
    run->masterFd = -1;
    if (limit > 0)
        run->deadline = zel_now_ms() + (long long)limit * 1000;
    if (pwd != NULL)
        exstrncpy(run->secret, pwd, sizeof(run->secret));   /* what "%s\n" in 128 bytes sends */

    zel_chld_default(&run->oldChld);
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
        zel_chld_restore(&run->oldChld);
        run->sigSaved = 0;
    }
}

int pty_password_too_long(const char* fn, const char* pwd)
{
    size_t len = pwd != NULL ? strlen(pwd) : 0;

    if (len + 2 <= PTY_PASSWORD_SIZE)
        return 0;
    /* cut, it would lose its newline and leave su or sudo reading for ever */
    ZELLogFunction(0, ZELFUNC_SRC, 73, "%s: password is too long (%d bytes), nothing run.\n",
                   fn, (int)len);
    return 1;
}

pid_t pty_fork(const char* fn, PtyRun* run)
{
    run->pid = forkpty(&run->masterFd, NULL, NULL, NULL);
    if (run->pid < 0) {
        ZELLogFunction(0, ZELFUNC_SRC, 82, "%s: failed to fork pty(%d).\n", fn, errno);
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
        ZELLogFunction(0, ZELFUNC_SRC, 156, "%s: not enough memory.\n", fn);
        return -1;
    }
    /* the buffer is only trusted up to its size: both copies stay terminated */
    output[outputSize - 1] = '\0';
    exstrncpy(copy, output, (size_t)outputSize);
    pty_log_text(3, 162, "%s: output before processing: %s\n", fn, copy, secret);
    TrimSpaces(copy);
    if (strncasecmp(copy, "Warning:", 8) == 0 || strncasecmp(copy, "Error:", 6) == 0) {
        nl = strchr(copy, '\n');
        if (nl != NULL)
            exstrncpy(output, nl + 1, (size_t)outputSize);
    }
    free(copy);
    TrimSpaces(output);
    pty_log_text(3, 171, "%s: output after processing: %s\n", fn, output, secret);
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
        ZELLogFunction(0, ZELFUNC_SRC, 201, "%s: output isn't ready.\n", kRunFn);

    if (password[0] != '\0') {
        ZELLogFunction(3, ZELFUNC_SRC, 204, "write password to tty: %d\n", (int)strlen(run->secret));
        want = (ssize_t)strlen(password);
        n = write(run->masterFd, password, (size_t)want);
    } else {
        ZELLogFunction(0, ZELFUNC_SRC, 208, "%s: its ssh key auth but requires password, "
                       "it happends for sudo -v on redhat 7 or above version.\n", kRunFn);
        want = 1;
        n = write(run->masterFd, "\n", 1);
    }
    if (n != want) {
        ZELLogFunction(0, ZELFUNC_SRC, 214, "%s: failed to write password(%d).\n", kRunFn, errno);
        return -6;
    }

    /* the echo read takes 256 bytes; buf has one more byte for the terminator */
    memset(buf, 0, bufSize);
    n = pty_read_answer(run, buf, bufSize - 1, -1);
    if (n < 0)
        buf[0] = '\0';
    pty_log_text(3, 223, "%s: read after write password: %s\n", kRunFn, buf, run->secret);
    return 0;
}

/*
 * 1 when text just printed opens a no-echo read to answer.  *answered is 1
 * while the read last answered lasts: text up to a line end is its echo
 * (sudo's pwfeedback stars), and a no-echo read after it is the next try,
 * whatever language the text is in.
 */
static int is_new_prompt(const PtyRun* run, const char* text, int* answered)
{
    const char* nl = strchr(text, '\n');
    int noecho = pty_noecho_read(run);
    int pending = 0;

    if (*answered) {
        if (nl == NULL) {
            *answered = noecho;
            return 0;
        }
        *answered = 0;
        text = nl + 1;
    }
    /* a prompt longer than a chunk (sudo's lecture comes with it) is answered at its end */
    if (ioctl(run->masterFd, FIONREAD, &pending) == 0 && pending > 0)
        return 0;
    /* a password goes only to a prompt (the line still being written) of a terminal reading with echo off */
    const char* last = strrchr(text, '\n');
    return (last != NULL ? last[1] : text[0]) != '\0' && noecho;
}

/*
 * Prompt phase: reads what the child prints and answers password prompts,
 * at most READ_PWD_MAX_TIME + 1 times.  Returns PROMPT_WAIT (go on to the
 * wait phase), PROMPT_IDLE (nothing printed in time and block != 1),
 * PROMPT_UNANSWERED, or -4 / -6.  buf (bufSize = PTY_CHUNK + 1) keeps the
 * last chunk read.
 */
static int prompt_phase(PtyRun* run, const char* password, int block, char* buf, size_t bufSize)
{
    struct timeval tv = { PTY_SELECT_SECONDS, 0 };   /* armed once for the whole phase */
    int readPwdTimes = 0;
    int retryTimes = 0;
    int answered = 0;
    int echoed = 0;     /* buf holds an answer's echo, still to be examined */
    int ready, rc;
    ssize_t n;

    for (;;) {
        if (!echoed) {
            ready = pty_select(kRunFn, run, 0, &tv, 0);
            if (ready < 0)
                return -4;
            if (ready == PTY_UNANSWERED)
                return PROMPT_UNANSWERED;
            if (ready == 0) {
                ZELLogFunction(4, ZELFUNC_SRC, 262, "%s: no data from tty output.\n", kRunFn);
                if (block != 1)
                    return PROMPT_IDLE;
                while (retryTimes++ < 15)
                    ZELLogFunction(4, ZELFUNC_SRC, 266, "%s: no data from tty output.\n", kRunFn);
                return PROMPT_WAIT;
            }

            errno = 0;
            n = read(run->masterFd, buf, PTY_CHUNK - 1);
            if (n <= 0) {
                ZELLogFunction(0, ZELFUNC_SRC, 273, "%s: failed to read tty output(%d), maybe the "
                               "command has no output, continue.\n", kRunFn, errno);
                return PROMPT_WAIT;     /* buf keeps the previous chunk for the output */
            }
            buf[n] = '\0';
            pty_log_text(3, 278, "%s: tty output is: %s\n", kRunFn, buf, run->secret);
        }
        echoed = 0;
        if (!is_new_prompt(run, buf, &answered))
            continue;

        rc = answer_prompt(run, password, &tv, buf, bufSize);
        if (rc < 0)
            return rc;
        if (readPwdTimes++ >= READ_PWD_MAX_TIME)
            return PROMPT_WAIT;
        answered = 1;
        echoed = 1;
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
        ZELLogFunction(0, ZELFUNC_SRC, 309, "%s:chile %d exits abnormally(%d).\n",
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
        pty_log_text(3, 322, "%s: read %s\n", kRunFn, buf2, run->secret);
    }
    ZELLogFunction(3, ZELFUNC_SRC, 324, "%s: process %d exited (%d).\n", kRunFn, (int)run->pid, ret);
    return ret;
}

/*
 * Runs argv (null-terminated, argv[0] the program, searched in PATH) on a new
 * pseudo-terminal, answering password prompts with pwd and a newline, or a
 * bare newline when pwd is null or empty; at most four answers.  A prompt
 * is text printed while the terminal reads with its echo off (in line or
 * cbreak mode), whatever its words; each new such read after an answer's
 * line end is the next try.  A no-echo read that sits unanswered for
 * PTY_UNANSWERED_MS ends the child (-8, logged).  block == 1 waits for the child
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
        ZELLogFunction(3, ZELFUNC_SRC, 357, "%s: argment is empty.\n", kRunFn);
        return -1;
    }
    if (pty_password_too_long(kRunFn, pwd))
        return -6;
    if (pwd == NULL || pwd[0] == '\0')
        ZELLogFunction(3, ZELFUNC_SRC, 363, "%s: no password for current user, try sudo with ssh key.\n", kRunFn);
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
        ZELLogFunction(0, ZELFUNC_SRC, 375, "%s: failed to execute cmd: %s(%s).\n",
                       kRunFn, argv[1] != NULL ? argv[1] : "(null)", strerror(err));
        pty_child_exit(err);
    }

    rc = prompt_phase(&run, password, block, buf, sizeof(buf));
    if (rc == PROMPT_UNANSWERED)
        rc = pty_give_up_unanswered(kRunFn, &run, output, outputSize) == PTY_WAIT_CHANGE_PWD ? 1 : -8;
    else if (rc == PROMPT_IDLE || (rc == PROMPT_WAIT && block != 1))
        rc = 0;
    else if (rc == PROMPT_WAIT)
        rc = finish_blocking_run(&run, mytimeout, output, outputSize, buf);
    explicit_bzero(password, sizeof(password));
    pty_finish(&run);
    return rc;
}
