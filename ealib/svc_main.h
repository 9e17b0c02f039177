/*
 * svc_main.h - the service loop and the target cleanup (source name
 * "svc_main").
 */
#ifndef SVC_MAIN_H
#define SVC_MAIN_H

#include <signal.h>
#include "exec_proto.h"

/* 0 serve; 1 SIGHUP; 2 SIGALRM (idle); 3 SIGPIPE.  Written by handlers only. */
extern volatile sig_atomic_t _kill_self;
/* Product lock: descriptor >= 0 held, -2 held elsewhere, -1 failure/unset. */
extern int ea_lock_status;
extern int _cleaning_flag;

/*
 * One row of the procedure table: number, name, argument codec, result codec
 * and handler.  Handlers take the decoded argument record (null when the
 * request's "param" did not decode) and the result record to fill.
 */
typedef int (*ea_handler_t)(char* args, char* res);

/* Adapts a handler written for typed records to ea_handler_t. */
template <typename A, typename R, int (*H)(A*, R*)>
int ea_typed_handler(char* args, char* res)
{
    return H((A*)args, (R*)res);
}
#define EA_HANDLER(A, R, h) (&ea_typed_handler<A, R, h>)

typedef struct ea_proc_entry {
    int          fn;
    const char*  name;
    jxdrproc_t   f_args;
    jxdrproc_t   f_res;
    ea_handler_t handler;
} ea_proc_entry;

/* The row for procedure fn, or null for an unknown number. */
const ea_proc_entry* ea_proc_lookup(int fn);

/*
 * Wakes the service loop's wait for input (async-signal-safe; every signal
 * handler calls it).  A forked child that goes on without the loop calls
 * svc_wake_close() so that its signals do not wake its parent.
 */
void svc_wake(void);
void svc_wake_close(void);

/* Returns 0 after a normal stop, -1 when a signal handler cannot be installed. */
int  svc_main(ExecProto* proto);
/* Never returns once it has started: ends with exit(1). */
void cleanup_target(void);
int  query_process_pid(const char* name);
int  ExecuteCmdWrapper(const char* cmd, int silent);

#endif /* SVC_MAIN_H */
