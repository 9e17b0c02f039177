/*
 * zelfunc_su.cpp - running a command as root through su or sudo on a
 * pseudo-terminal, and checking whether given credentials reach root
 * (source name "zelfunc").
 *
 * With an account name the command runs as "su <user> -mc <command>" and su's
 * password prompt is answered; without one the agent's own login user runs
 * it through sudo, answering sudo's prompt if one appears.
 */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "zelfunc.h"
#include "zellog.h"
#include "zelfunc_pty.h"

#define STD_PATH "/sbin:/bin:/usr/bin:/usr/sbin:/usr/local/sbin:/usr/local/bin"
#define SUDO_ARGV_MAX 10

static const char* const kSuFn = "SuperExecuteCmdEx";
static const char* const kSudoFn = "SudoExecuteCmdEx";

/* ---------------------------------------------------------------------- */
/* su path                                                                 */
/* ---------------------------------------------------------------------- */

/*
 * One export statement for the su command text: "export NAME=\"value\"; "
 * for a value of safe characters, else the value single-quoted (a library
 * path or PATH with a blank or a quote stays one word; "" stays "").  Heap
 * string (caller frees), or null without memory.
 */
static char* su_export(const char* name, const char* value)
{
    if (value[0] == '\0')
        return zel_shell_cmdline("export %s=\"\"; ", name);
    return zel_shell_cmdline("export %s=%W; ", name, value);
}

/*
 * Builds the text su runs: the library path and PATH exports when the agent
 * has them, then cmd ("id" when null), whole.  Heap string (caller frees),
 * or null without memory.
 */
static char* build_su_command(const char* cmd)
{
    const char* ld = getenv("LD_LIBRARY_PATH");
    const char* path = getenv("PATH");
    char* ldExport = ld != NULL ? su_export("LD_LIBRARY_PATH", ld) : NULL;
    char* pathValue = ld != NULL && path != NULL ? zel_shell_cmdline("%s:" STD_PATH, path) : NULL;
    char* pathExport = pathValue != NULL ? su_export("PATH", pathValue) : NULL;
    char* out = NULL;

    /* sized from the command: every command the channel accepts runs whole */
    if (ld == NULL || (ldExport != NULL && (path == NULL || pathExport != NULL)))
        out = zel_shell_cmdline("%s%s%s", ldExport ? ldExport : "", pathExport ? pathExport : "",
                                cmd != NULL ? cmd : "id");
    free(ldExport);
    free(pathExport);
    free(pathValue);
    return out;
}

/*
 * Takes su's first output as its prompt and answers it with password while
 * the terminal's echo is off; other text is left as the command's output.
 * Returns 0, or -2 select error, -5 nothing printed in time, -3 read
 * failure, -4 short write, 1 / -9 a no-echo read sitting unanswered
 * (password change / given up, the child ended).  buf (PTY_CHUNK + 1 bytes) keeps the last chunk read.
 */
static int su_answer_prompt(PtyRun* run, const char* password, char* buf, char* output, int outputSize)
{
    struct timeval tv = { PTY_SELECT_SECONDS, 0 };
    ssize_t n;
    int ready;

    ready = pty_select(kSuFn, run, 0, &tv, 1);
    if (ready < 0)
        return -2;
    if (ready == PTY_UNANSWERED)
        return pty_give_up_unanswered(kSuFn, run, output, outputSize) == PTY_WAIT_CHANGE_PWD ? 1 : -9;
    if (ready == 0) {
        ZELLogFunction(0, ZELFUNC_SRC, 85, "%s: no data from tty output.\n", kSuFn);
        return -5;
    }

    errno = 0;
    n = read(run->masterFd, buf, PTY_CHUNK - 1);
    if (n <= 0) {
        ZELLogFunction(0, ZELFUNC_SRC, 92, "%s: failed to read tty output(%d).\n", kSuFn, errno);
        return -3;
    }
    buf[n] = '\0';
    pty_log_text(3, 96, "%stty output is: %s\n", "", buf, run->secret);
    /* su that asks nothing prints the command's output: the password never goes there */
    if (!pty_noecho_read(run))
        return 0;

    if (write(run->masterFd, password, strlen(password)) != (ssize_t)strlen(password)) {
        ZELLogFunction(0, ZELFUNC_SRC, 102, "%s: failed to write password(%d).\n", kSuFn, errno);
        return -4;
    }
    /* the echo is read and dropped; a failed read leaves the prompt in buf */
    n = pty_read_answer(run, buf, PTY_CHUNK, -1);
    if (n >= 0)
        buf[n] = '\0';
    return 0;
}

/* Wait phase and output capture of a blocking su run; the result to return. */
static int su_finish_blocking(PtyRun* run, int mytimeout, char* output, int outputSize,
                              const char* lastChunk)
{
    int status = 0;

    switch (pty_wait_child(kSuFn, run, mytimeout, &status, output, outputSize)) {
    case PTY_WAIT_EXITED:      break;
    case PTY_WAIT_CHANGE_PWD:  return 1;
    case PTY_WAIT_TIMEOUT:     return -9;
    default:                   return -6;
    }
    if (WIFSIGNALED(status)) {
        ZELLogFunction(0, ZELFUNC_SRC, 125, "%s:child exits abnormally(%d).\n", kSuFn, WTERMSIG(status));
        return -7;
    }
    pty_capture_output(run, output, outputSize, lastChunk);
    return WEXITSTATUS(status);
}

/* SuperExecuteCmdEx() whose run gives up after limit seconds (0: no limit). */
static int su_run(const char* user, const char* pwd, const char* cmd, int block, int mytimeout,
                  int limit, char* output, int outputSize)
{
    char password[PTY_PASSWORD_SIZE];
    char buf[PTY_CHUNK + 1] = "";
    char* argv[5];
    char* cmdline;
    PtyRun run;
    int rc;

    if (user == NULL || pwd == NULL)
        return -1;
    if (pty_password_too_long(kSuFn, pwd))
        return -4;
    cmdline = build_su_command(cmd);
    if (cmdline == NULL)
        return -1;

    pty_run_begin(&run, pwd, limit);
    ZELLogFunction(3, ZELFUNC_SRC, 152, "%s: execute command (%s)\n", kSuFn, cmdline);
    snprintf(password, sizeof(password), "%s\n", pwd);

    argv[0] = (char*)"su";
    argv[1] = (char*)user;
    argv[2] = (char*)"-mc";
    argv[3] = cmdline;
    argv[4] = NULL;

    if (pty_fork(kSuFn, &run) < 0) {
        rc = -1;
    } else {
        if (run.pid == 0) {
            execvp("su", argv);
            int err = errno;
            ZELLogFunction(0, ZELFUNC_SRC, 167, "%s: failed to execute cmd: %s(%d).\n", kSuFn, cmdline, err);
            pty_child_exit(err);
        }
        rc = su_answer_prompt(&run, password, buf, output, outputSize);
        if (rc == 0 && block == 1)
            rc = su_finish_blocking(&run, mytimeout, output, outputSize, buf);
        else if (rc == 0)
            pty_hand_over(&run);   /* the command runs on: its terminal stays open until it is done */
    }
    explicit_bzero(password, sizeof(password));
    /* closed on every path, the non-blocking and successful ones included */
    pty_finish(&run);
    free(cmdline);
    return rc;
}

/*
 * Runs cmd (null: "id") as user through "su <user> -mc", answering su's
 * first output with pwd and a newline (an empty pwd sends a bare newline)
 * when the terminal's echo is off.  block and mytimeout as for
 * ExecuteCmdInteractively(); with block != 1 the command runs on after the
 * return.  output (may be null) gets the cleaned terminal text, at most
 * outputSize - 1 bytes.  Returns the exit code, 1 when a time-out meets a
 * password-change dialogue, or -1 null user or pwd / forkpty / no memory,
 * -2 select, -3 read, -4 write (or a password too long to send whole:
 * nothing run), -5 no prompt within 30 s, -6 wait, -7 killed by a signal,
 * -9 time-out.  The master descriptor is closed, SIGCHLD restored and the
 * password wiped on every return.
 */
int SuperExecuteCmdEx(const char* user, const char* pwd, const char* cmd, int block,
                      int mytimeout, char* output, int outputSize)
{
    return su_run(user, pwd, cmd, block, mytimeout, 0, output, outputSize);
}

/* ---------------------------------------------------------------------- */
/* sudo path                                                               */
/* ---------------------------------------------------------------------- */

/*
 * Stores a heap copy of s, whole, in argv's next free slot (capacity
 * SUDO_ARGV_MAX, the last slot kept null): PushArgv() would cut it at 2047
 * characters.  0, or -1 when full or without memory.
 */
static int push_whole(char** argv, const char* s)
{
    int i = 0;

    while (i + 1 < SUDO_ARGV_MAX && argv[i] != NULL)
        i++;
    if (i + 1 >= SUDO_ARGV_MAX)
        return -1;
    argv[i] = strdup(s);
    return argv[i] != NULL ? 0 : -1;
}

/* Fills argv (capacity SUDO_ARGV_MAX) with the sudo call for cmd (null: -v); -1 without memory. */
static int build_sudo_argv(char** argv, const char* cmd)
{
    struct stat st;
    const char* ld;
    const char* path;

    PushArgv(argv, SUDO_ARGV_MAX, "sudo");
    if (cmd == NULL) {
        PushArgv(argv, SUDO_ARGV_MAX, "-v");
        ZELLogFunction(3, ZELFUNC_SRC, 233, "%s: execute command (%s)\n", kSudoFn, "sudo -v");
        return 0;
    }

    PushArgv(argv, SUDO_ARGV_MAX, "-E");
    if (stat(GetEnvLdLibraryPath(), &st) != 0) {
        PushArgv(argv, SUDO_ARGV_MAX, "PATH=%s", STD_PATH);
    } else {
        ld = getenv("LD_LIBRARY_PATH");
        path = getenv("PATH");
        if (ld != NULL)
            PushArgv(argv, SUDO_ARGV_MAX, "LD_LIBRARY_PATH=%s", ld);
        if (path != NULL)
            PushArgv(argv, SUDO_ARGV_MAX, "PATH=%s:%s", path, STD_PATH);
    }
    PushArgv(argv, SUDO_ARGV_MAX, "sh");
    PushArgv(argv, SUDO_ARGV_MAX, "-c");
    /* the command goes whole: every command the channel accepts runs as it was sent */
    if (push_whole(argv, cmd) != 0)
        return -1;

    ZELLogFunction(3, ZELFUNC_SRC, 254, "%s: arg[1] %s, arg[2] %s, arg[3] %s, arg[4]=%s.\n", kSudoFn,
                   argv[1] ? argv[1] : "", argv[2] ? argv[2] : "", argv[3] ? argv[3] : "",
                   argv[4] ? argv[4] : "");
    ZELLogFunction(3, ZELFUNC_SRC, 257, "%s: execute command (%s)\n", kSudoFn, cmd);
    return 0;
}

/* SudoExecuteCmdEx() whose run gives up after limit seconds (0: no limit). */
static int sudo_run(const char* pwd, const char* cmd, int block, int mytimeout, int limit,
                    char* output, int outputSize)
{
    char* argv[SUDO_ARGV_MAX];
    int rc = -1;

    if (ExecuteCmd("which sudo >/dev/null 2>&1") != 0)
        return 127;

    memset(argv, 0, sizeof(argv));
    if (build_sudo_argv(argv, cmd) == 0)
        rc = pty_run_interactive(argv, pwd, block, mytimeout, limit, output, outputSize);
    CleanArgv(argv);
    return rc;
}

/*
 * Runs cmd as root through "sudo -E [LD_LIBRARY_PATH=..] PATH=.. sh -c cmd"
 * on a pseudo-terminal (null cmd: "sudo -v"), answering sudo's prompt with
 * pwd.  Returns 127 when sudo is not installed, -1 without memory, else
 * what ExecuteCmdInteractively() returns.
 */
int SudoExecuteCmdEx(const char* pwd, const char* cmd, int block, int mytimeout,
                     char* output, int outputSize)
{
    return sudo_run(pwd, cmd, block, mytimeout, 0, output, outputSize);
}

/*
 * Runs cmd as root: through su when user is non-empty, else through sudo;
 * the wait is unbounded.  Returns the command's exit code or a negative
 * code of the path taken (see SuperExecuteCmdEx, SudoExecuteCmdEx).
 */
int SuperExecuteCmd(const char* user, const char* pwd, const char* cmd, int block,
                    char* output, int outputSize)
{
    if (user != NULL && user[0] != '\0')
        return SuperExecuteCmdEx(user, pwd, cmd, block, -1, output, outputSize);
    return SudoExecuteCmdEx(pwd, cmd, block, -1, output, outputSize);
}

/*
 * SuperExecuteCmd(user, pwd, cmd, 1, NULL, 0) whose run, prompts included,
 * gives up after seconds (> 0): the runner then returns its time-out code
 * (-9 su, -8 sudo) and closes the terminal, which hangs the command up.
 */
int SuperExecuteCmdWithin(const char* user, const char* pwd, const char* cmd, int seconds)
{
    if (user != NULL && user[0] != '\0')
        return su_run(user, pwd, cmd, 1, -1, seconds, NULL, 0);
    return sudo_run(pwd, cmd, 1, -1, seconds, NULL, 0);
}

/* ---------------------------------------------------------------------- */
/* root check                                                              */
/* ---------------------------------------------------------------------- */

/*
 * Checks what the credentials reach.  Empty user: "sudo -v" within 15 s;
 * success (or any failure without a password: key-authenticated logins are
 * taken as root-capable) sets *uid to 0.  Named user: "id -u" through su
 * within 15 s sets *uid to the number printed.  Returns 0 when *uid was
 * set, 127 without sudo, -2 when su's answer is not a number, else the
 * failing run's result.
 */
int CheckRootUser(const char* user, const char* pwd, int* uid)
{
    static const char* const fn = "CheckRootUser";
    char buf[128];
    int rc;

    memset(buf, 0, sizeof(buf));
    if (user == NULL || user[0] == '\0') {
        rc = SudoExecuteCmdEx(pwd, NULL, 1, 15, NULL, 0);
        if (rc == 127)
            return rc;
        if (rc != 0) {
            if (pwd != NULL && pwd[0] != '\0') {
                ZELLogFunction(0, ZELFUNC_SRC, 340, "%s: sudo -v failed (%d).\n", fn, rc);
                return rc;
            }
            ZELLogFunction(0, ZELFUNC_SRC, 343, "%s: sudo -v failed but treat it succeed on redhat 7 or above.\n", fn);
        }
        if (uid != NULL)
            *uid = 0;
        return 0;
    }

    rc = SuperExecuteCmdEx(user, pwd, "id -u", 1, 15, buf, sizeof(buf));
    if (rc != 0)
        return rc;
    if (!isdigitstring(buf)) {
        pty_log_text(0, 354, "%s: error for returned messages: %s.\n", fn, buf, pwd);
        return -2;
    }
    if (uid != NULL)
        *uid = atoi(buf);
    return 0;
}
