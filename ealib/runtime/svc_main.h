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

/* Returns 0 after a normal stop, -1 when a signal handler cannot be installed. */
int  svc_main(ExecProto* proto);
/* Never returns once it has started: ends with exit(1). */
void cleanup_target(void);

#endif /* SVC_MAIN_H */
