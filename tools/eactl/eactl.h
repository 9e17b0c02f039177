/*
 * eactl.h - the operator client: deploys kvx_ea as the backup server does and
 * calls its procedures.
 */
#ifndef EACTL_H
#define EACTL_H

#include <stdio.h>
#include <sys/types.h>
#include <string>
#include <vector>
#include "exec_proto.h"
#include "ea_proto.h"

/* One deployed agent and the client endpoint bound to it. */
typedef struct EactlSession {
    std::string host;        /* "" = this machine, else an ssh destination */
    std::string target_dir;  /* holds boot/kvx_ea and work/ on the node */
    std::string work_dir;
    std::string agent_path;  /* agent binary to deploy (local file) */
    bool        keep;        /* leave the target directory behind */
    bool        own_dir;     /* the directory was made by this session */
    bool        json;        /* print replies as JSON */
    pid_t       shell_pid;   /* the disposable parent (sh or ssh) */
    FILE*       from_agent;
    FILE*       to_agent;
    STDIOChannel* channel;
    ExecProto*    proto;
} EactlSession;

/* Deploys and starts the agent; 0 or -1 with a message on stderr. */
int  eactl_deploy(EactlSession* s);
/* Starts args (argv[0] looked up in PATH) with its standard input and
 * output bound to the session's client endpoint; new_session puts it in a
 * session of its own.  0 or -1 with a message on stderr. */
int  eactl_start(EactlSession* s, std::vector<std::string> args, bool new_session);
/* Copies a local file into the node's work/linux-kvx-client; 0 or -1. */
int  eactl_install_client_file(EactlSession* s, const char* local, const char* name);
/* Closes the agent's input, waits for it and removes what was deployed.
 * Returns the agent's exit status (or -1). */
int  eactl_finish(EactlSession* s);

/* Runs one procedure call; 0 or the endpoint's negative code (reported). */
int  eactl_call(EactlSession* s, int fn, jxdrproc_t f_args, char* args,
                jxdrproc_t f_res, char* res);

/* Prints a result record as the "param" JSON the agent sent. */
void eactl_print_json(jxdrproc_t f_res, char* res);
/* eactl_call for a subcommand: -1 when the call failed, 1 when the reply
 * was printed as JSON (--json), 0 when the caller prints it as text. */
int  eactl_request(EactlSession* s, int fn, jxdrproc_t f_args, char* args,
                   jxdrproc_t f_res, char* res);

/* Subcommands: argv[0] is the subcommand name; 0 on success. */
int  eactl_cmd_ping(EactlSession* s, int argc, char** argv);
int  eactl_cmd_exec(EactlSession* s, int argc, char** argv);
int  eactl_cmd_status(EactlSession* s, int argc, char** argv);
int  eactl_cmd_log(EactlSession* s, int argc, char** argv);
int  eactl_cmd_result(EactlSession* s, int argc, char** argv);
int  eactl_cmd_mount(EactlSession* s, int argc, char** argv);
int  eactl_cmd_vmdetect(EactlSession* s, int argc, char** argv);
int  eactl_cmd_checkmachine(EactlSession* s, int argc, char** argv);
int  eactl_cmd_demo(EactlSession* s, int argc, char** argv);

/* Account options shared by exec, vmdetect and checkmachine:
 * --user NAME, --passwd-file FILE (or $KVX_EACTL_PASSWD), --sudo. */
typedef struct EactlAccount {
    std::string user;
    std::string passwd;
    int         sudo_flag;
} EactlAccount;
/* Consumes an account option at argv[*i]; 1 if it was one, -1 on error. */
int  eactl_account_option(EactlAccount* acct, int argc, char** argv, int* i);
void eactl_account_finish(EactlAccount* acct);

#endif /* EACTL_H */
