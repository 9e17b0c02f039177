/*
 * zelfunc_pty.h - pieces shared by the pseudo-terminal runner
 * (zelfunc_pty.cpp) and the su path (zelfunc_su.cpp), on top of the waits
 * of zelfunc_ptywait.h.  Private to the utility library; the public entry
 * points are declared in zelfunc.h.
 */
#ifndef ZELFUNC_PTY_H
#define ZELFUNC_PTY_H

#include "zelfunc_ptywait.h"

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
