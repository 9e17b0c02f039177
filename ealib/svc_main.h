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

int  svc_main(ExecProto* proto);
/* Never returns once it has started: ends with exit(1). */
void cleanup_target(void);
int  query_process_pid(const char* name);
int  ExecuteCmdWrapper(const char* cmd, int silent);

#endif /* SVC_MAIN_H */
