/*
 * zelfunc_ptywait.h - waiting on a pseudo-terminal and its child: the run
 * record, the waits for terminal text and for the child's end, and keeping
 * the terminal of a command left running.  The runner (zelfunc_pty.h)
 * builds on it; nothing here calls back into the runner.  Private to the
 * utility library.
 */
#ifndef ZELFUNC_PTYWAIT_H
#define ZELFUNC_PTYWAIT_H

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
    long long        sitSince;        /* monotonic ms since the terminal sits in a no-echo read, nothing new; 0: not */
    int              sitPending;      /* bytes waiting on the master when that began */
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

/* pty_select() for reading: the terminal sits in a no-echo read that nothing answers. */
#define PTY_UNANSWERED 3

/* How long a no-echo read may sit with nothing new before the run gives it up. */
#define PTY_UNANSWERED_MS 20000

/*
 * select() on the master for reading (forWrite 0) or writing, within the
 * budget *tv (counted down across calls).  Interruptions are logged and
 * retried; with announce set, fn's "select...." line is logged before every
 * wait.  Returns 1 ready, 0 time-out (or the run's limit reached), -1 error
 * (logged as "failed to excecute select"), and for reading PTY_CHILD_GONE
 * once the child has ended with nothing readable, PTY_UNANSWERED once the
 * terminal has sat in a no-echo read for PTY_UNANSWERED_MS with nothing new.
 */
int  pty_select(const char* fn, PtyRun* run, int forWrite, struct timeval* tv, int announce);

/*
 * 1 while the terminal reads with its echo off, a line at a time or in
 * cbreak mode (sudo's pwfeedback), as passwords are read; raw mode (signal
 * keys off too) is a terminal relayed to a command, not a prompt.
 */
int  pty_noecho_read(const PtyRun* run);

/*
 * Gives up a run whose terminal sits in a no-echo read the runner will not
 * answer: logs why as fn, checks for a password-change dialogue as after a
 * time-out and ends the child.  PTY_WAIT_TIMEOUT or PTY_WAIT_CHANGE_PWD.
 */
int  pty_give_up_unanswered(const char* fn, PtyRun* run, char* output, int outputSize);

/*
 * One read of at most size bytes of what the terminal answers to something
 * just written: waits for it while the child lives (at most waitMs, -1 no
 * bound, and never past the run's limit), then reads what is there.  The
 * read's result: bytes, 0, or -1 with errno.
 */
ssize_t pty_read_answer(PtyRun* run, char* buf, size_t size, long long waitMs);

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
 * time-out.  Either wait gives the run up (pty_give_up_unanswered) once the
 * terminal sits in a no-echo read for PTY_UNANSWERED_MS.  After a time-out
 * a newline is written to the terminal and its
 * answer checked for a password-change dialogue ("1" then goes into output
 * when given).  Returns a PTY_WAIT_* value.
 */
int  pty_wait_child(const char* fn, PtyRun* run, int mytimeout, int* status,
                    char* output, int outputSize);

#endif /* ZELFUNC_PTYWAIT_H */
