/*
 * ea_child.h - the tracked background child and the cached elevation
 * account (source name "ea_svc").
 *
 * The command execution service records the background program it starts;
 * the job status service, the service loop's shut-down decision and the
 * cleanup query it.  The SIGCHLD handler only reaps into a ring; the main
 * flow looks at the ring through child_exit_events().
 */
#ifndef EA_CHILD_H
#define EA_CHILD_H

#include <sys/types.h>

typedef struct st_no_block_process {
    pid_t pid;             /* tracked child, 0 = none */
    int   finished_flag;   /* 0 running, 1 reaped, 2 reaped and reported */
    int   ret_status;      /* decoded exit status */
} st_no_block_process;

extern st_no_block_process gst_nblk_p;
extern int  g_cached_nonRootUserFlag;
extern char g_cached_rootUser[128];
extern char g_cached_rootPwd[128];
extern int  g_cached_prog_type_flag;     /* 0 none, 1 kvxbackupvol, 2 other */
extern const char* backup_program_flag;  /* "kvxbackupvol" */
extern const char* restore_program_flag; /* "kvxbmr" */

void set_global_process_st(const char* cmd, int pid);
int  query_global_process_exist(void);
int  query_global_process_return_status(void);
/* SIGCHLD handler: reaps ended children into the ring and wakes the loop. */
void signal_child(int sig);
/* Logs and records the children the handler reaped (main flow only). */
void child_exit_events(void);

/*
 * Runs cmd as root through the cached account when the agent is not root
 * and one was cached, else as the agent itself (logged unless silent).
 * Returns the command's decoded exit status, 0 on success.
 */
int  ExecuteCmdWrapper(const char* cmd, int silent);
/* From now on elevated commands of ExecuteCmdWrapper end by end_ms
 * (zel_now_ms()); the cleanup sets its overall budget with it. */
void ea_elevated_deadline(long long end_ms);

#endif /* EA_CHILD_H */
