/*
 * svc_wake.h - the service loop's wake-up pipe (source name "svc_main").
 *
 * Every signal handler writes a byte into it, so the loop's wait for input
 * ends when a signal arrives even if it came just before the wait.  It
 * depends on nothing else of the agent: the handlers of the loop and of the
 * child tracking both call it.
 */
#ifndef SVC_WAKE_H
#define SVC_WAKE_H

/* Makes the pipe (close-on-exec, non-blocking); 0, or -1 when it cannot. */
int  svc_wake_open(void);
/* The read end for the loop's poll, or -1 when there is no pipe. */
int  svc_wake_fd(void);
/* Wakes the loop's wait (async-signal-safe; keeps errno). */
void svc_wake(void);
/* Empties the pipe; nothing is read when no handler ran since the last drain. */
void svc_wake_drain(void);
/* A forked child that goes on without the loop closes the pipe, so that its
 * signals do not wake its parent. */
void svc_wake_close(void);

#endif /* SVC_WAKE_H */
