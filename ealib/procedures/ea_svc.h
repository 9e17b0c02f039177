/*
 * ea_svc.h - procedure handlers and the account check (source name "ea_svc").
 *
 * Handlers fill their result record and return an int the service loop
 * ignores; a null argument record (the request's "param" did not decode) is
 * answered without being dereferenced.
 */
#ifndef EA_SVC_H
#define EA_SVC_H

#include "ea_proto.h"
#include "ea_child.h"   /* the tracked child the handlers record and query */

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

/* Overwrites a request's password (may be null) once it has been used. */
void ea_wipe_password(char* pwd);
static inline void ea_wipe_password_at(char** pwd) { ea_wipe_password(*pwd); }
/* First line of a handler: the request's password is wiped on every return. */
#define EA_PASSWORD_WIPED_ON_RETURN(pwd) \
    char* ea_used_pwd_ __attribute__((cleanup(ea_wipe_password_at))) = (pwd)

#endif /* EA_SVC_H */
