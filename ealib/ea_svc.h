/*
 * ea_svc.h - procedure handlers, the account check and the background child
 * record (source name "ea_svc").
 *
 * Handlers fill their result record and return an int the service loop
 * ignores; a null argument record (the request's "param" did not decode) is
 * answered without being dereferenced.
 */
#ifndef EA_SVC_H
#define EA_SVC_H

#include <sys/types.h>
#include "ea_proto.h"

/* ---- background child tracking ---- */
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
void signal_child(int sig);
/* Logs and records the children the handler reaped (main flow only). */
void child_exit_events(void);

/* ---- procedures ---- */
int ping_svc(PINGargs* args, PINGres* res);
int check_root_account(const char* user, const char* pwd);
int exec_cmd_svc(ExecCmdargs* args, ExecCmdres* res);
int get_job_status_svc(JOBSTATUSargs* args, JOB_STATUS* res);
int get_agent_activity_log_svc(char* args, AGENTLOGres* res);
int get_job_result_svc(char* args, JOB_RESULT* res);
int mount_svc(Mountargs* args, Mountres* res);
int detect_vm_info_svc(ExecCmdargs* args, VMDetectInfores* res);
int check_machine(ExecCmdargs* args, ExecCmdres* res);

#endif /* EA_SVC_H */
