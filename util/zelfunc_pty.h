/*
 * zelfunc_pty.h - pieces shared by the pseudo-terminal runner
 * (zelfunc_pty.cpp, its waits in zelfunc_ptywait.cpp) and the su path
 * (zelfunc_su.cpp).  Private to the
 * utility library; the public entry points are declared in zelfunc.h.
 */
#ifndef ZELFUNC_PTY_H
#define ZELFUNC_PTY_H

#include <signal.h>
#include <sys/time.h>
#include <sys/types.h>

#define ZELFUNC_SRC "zelfunc"

/* The 30-second budget of one terminal session's select() calls. */
#define PTY_SELECT_SECONDS 30

/* Terminal chunks: prompt reads take 255 bytes, echo reads 256 (+1 spare). */
#define PTY_CHUNK 256

/* The password buffers: the password and its newline, terminated. */
#define PTY_PASSWORD_SIZE 128

/* One child on a pseudo-terminal, from forkpty() to pty_finish(). */
typedef struct PtyRun {
    pid_t            pid;
    int              masterFd;        /* -1 when not open; non-blocking in the parent */
    struct sigaction oldChld;         /* SIGCHLD disposition to restore */
    int              sigSaved;        /* 1 while oldChld waits to be restored */
    long long        deadline;        /* monotonic ms at which the run gives up; 0: none */
    char             secret[PTY_PASSWORD_SIZE];   /* password sent, masked in every log line */
} PtyRun;

/* Outcome of pty_wait_child(); each runner maps it to its own result code. */
enum {
    PTY_WAIT_EXITED = 0,     /* reaped; *status holds the wait status */
    PTY_WAIT_CHANGE_PWD,     /* timed out and the terminal asks for a new password */
    PTY_WAIT_TIMEOUT,        /* timed out */
    PTY_WAIT_POLL_ERROR,     /* non-blocking waitpid() failed */
    PTY_WAIT_BLOCK_ERROR     /* blocking waitpid() failed */
};

/* pty_select() for reading: the child has ended and nothing was readable. */
#define PTY_CHILD_GONE 2

/*
 * Saves the SIGCHLD disposition into run->oldChld, sets it to default (the
 * agent's own handler must not reap our child) and marks the run empty.
 * pwd (may be null) is remembered, without a newline, for masking.  limit
 * > 0 makes the whole run give up after that many seconds (pty_wait_child
 * then times out); 0 leaves its waits as the caller asked.
 */
void pty_run_begin(PtyRun* run, const char* pwd, int limit);

/* Closes the master descriptor if open, wipes the remembered password and
 * restores SIGCHLD.  Idempotent. */
void pty_finish(PtyRun* run);

/*
 * 1 (logged as fn's refusal) when pwd and its newline do not fit the
 * PTY_PASSWORD_SIZE buffer: such a password is never sent cut.  Else 0.
 */
int  pty_password_too_long(const char* fn, const char* pwd);

/*
 * forkpty() into run->pid and run->masterFd: 0 in the child, the child's pid
 * in the parent, -1 when it failed (logged as fn's "failed to fork pty",
 * SIGCHLD restored).
 */
pid_t pty_fork(const char* fn, PtyRun* run);

/* In a forked child whose exec failed: never returns into the caller. */
void pty_child_exit(int err) __attribute__((noreturn));

/*
 * select() on the master for reading (forWrite 0) or writing, within the
 * budget *tv (counted down across calls).  Interruptions are logged and
 * retried; with announce set, fn's "select...." line is logged before every
 * wait.  Returns 1 ready, 0 time-out (or the run's limit reached), -1 error
 * (logged as "failed to excecute select"), and for reading PTY_CHILD_GONE
 * once the child has ended with nothing readable.
 */
int  pty_select(const char* fn, PtyRun* run, int forWrite, struct timeval* tv, int announce);

/*
 * One read of at most size bytes of what the terminal answers to something
 * just written: waits for it while the child lives (at most waitMs, -1 no
 * bound, and never past the run's limit), then reads what is there.  The
 * read's result: bytes, 0, or -1 with errno.
 */
ssize_t pty_read_answer(PtyRun* run, char* buf, size_t size, long long waitMs);

/* 1 while the terminal reads a line with its echo off, as a password is read. */
int  pty_echo_off(const PtyRun* run);

/*
 * Hands the master to a detached process that keeps the terminal open and
 * drops what the command prints until the command's side is closed, so the
 * command runs on without a hang-up.  run->masterFd stays the caller's to close.
 */
void pty_hand_over(PtyRun* run);

/*
 * Logs fmt, which takes exactly two "%s" (fn, then text), with every
 * occurrence of secret in text replaced by '*'.  text may be null.
 */
void pty_log_text(int level, int line, const char* fmt, const char* fn,
                  const char* text, const char* secret);

/*
 * Wait phase after the prompt phase.  mytimeout <= 0 waits without bound
 * (up to the run's limit when it has one); otherwise polls once a second for
 * mytimeout rounds, a child reaped in the last round counting as a
 * time-out.  After a time-out a newline is written to the terminal and its
 * answer checked for a password-change dialogue ("1" then goes into output
 * when given).  Returns a PTY_WAIT_* value.
 */
int  pty_wait_child(const char* fn, PtyRun* run, int mytimeout, int* status,
                    char* output, int outputSize);

/*
 * One read of at most outputSize - 1 bytes of terminal text into output;
 * on a read error (nothing left) lastChunk (bounded) is used instead.  The
 * text is then cleaned as ProcessSudoOutput() does.  Nothing happens
 * without a buffer.
 */
void pty_capture_output(PtyRun* run, char* output, int outputSize, const char* lastChunk);

/* ProcessSudoOutput() with secret masked in its two log lines. */
int  pty_clean_output(char* output, int outputSize, const char* secret);

/*
 * ExecuteCmdInteractively() whose run gives up after limit seconds (0: no
 * limit beyond mytimeout).
 */
int  pty_run_interactive(char** argv, const char* pwd, int block, int mytimeout, int limit,
                         char* output, int outputSize);

#endif /* ZELFUNC_PTY_H */
