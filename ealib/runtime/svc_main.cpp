/*
 * svc_main.cpp - the service loop (source name "svc_main").
 *
 * Prepares the environment every command run on the node inherits, opens
 * the log, takes the product lock, installs the signal handlers and serves
 * one request at a time until end of input, a stop signal or five idle
 * minutes.  The procedure table below is the only place that knows the
 * procedures: adding one is adding a row.
 */
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <sys/prctl.h>
#include <sys/stat.h>

#include "svc_main.h"
#include "ea_svc.h"
#include "ea_child.h"
#include "svc_logcap.h"
#include "svc_product.h"
#include "svc_wake.h"
#include "zelconsume.h"
#include "zelfunc.h"
#include "zellog.h"
#include "zeltrust.h"

#ifndef SA_INTERRUPT
#define SA_INTERRUPT 0   /* Linux: absence of SA_RESTART already interrupts */
#endif

#define SRC              "svc_main"
#define EA_LOG_FILE      "kvx-agent.log"
#define EA_LOG_LINES     20000
#define EA_IDLE_SECONDS  300
#define EA_STD_PATH      ":/bin:/sbin:/usr/bin:/usr/sbin:/usr/local/bin:/usr/local/sbin"

volatile sig_atomic_t _kill_self = 0;

/* ---- procedure table ---- */

static const ea_proc_entry ea_procs[] = {
    { EA_PROC_PING, "EA_PROC_PING",
      JXDR_PROC(PINGargs, jxdr_PINGargs), JXDR_PROC(PINGres, jxdr_PINGres),
      EA_HANDLER(PINGargs, PINGres, ping_svc) },
    { EA_PROC_JOBSTATUS, "EA_PROC_JOBSTATUS",
      JXDR_PROC(JOBSTATUSargs, jxdr_JOBSTATUSargs), JXDR_PROC(JOB_STATUS, jxdr_JOBSTATUSres),
      EA_HANDLER(JOBSTATUSargs, JOB_STATUS, get_job_status_svc) },
    { EA_PROC_EXEC_CMD, "EA_PROC_EXEC_CMD",
      JXDR_PROC(ExecCmdargs, jxdr_ExecCmdargs), JXDR_PROC(ExecCmdres, jxdr_ExecCmdres),
      EA_HANDLER(ExecCmdargs, ExecCmdres, exec_cmd_svc) },
    { EA_PROC_MOUNT, "EA_PROC_MOUNT",
      JXDR_PROC(Mountargs, jxdr_Mountargs), JXDR_PROC(Mountres, jxdr_Mountres),
      EA_HANDLER(Mountargs, Mountres, mount_svc) },
    { EA_PROC_AGENTLOG, "EA_PROC_AGENTLOG",
      jxdr_Noargs, JXDR_PROC(AGENTLOGres, jxdr_AGENTLOGres),
      EA_HANDLER(char, AGENTLOGres, get_agent_activity_log_svc) },
    { EA_PROC_JOBRESULT, "EA_PROC_JOBRESULT",
      jxdr_Noargs, JXDR_PROC(JOB_RESULT, jxdr_JOBRESULTres),
      EA_HANDLER(char, JOB_RESULT, get_job_result_svc) },
    { EA_PROC_VMDETECT, "EA_PROC_VMDETECT",
      JXDR_PROC(ExecCmdargs, jxdr_ExecCmdargs), JXDR_PROC(VMDetectInfo_t, jxdr_VMDetectres),
      EA_HANDLER(ExecCmdargs, VMDetectInfo_t, detect_vm_info_svc) },
    { EA_PROC_CHECK_MACHINE, "EA_PROC_CHECK_MACHINE",
      JXDR_PROC(ExecCmdargs, jxdr_ExecCmdargs), JXDR_PROC(ExecCmdres, jxdr_ExecCmdres),
      EA_HANDLER(ExecCmdargs, ExecCmdres, check_machine) },
};

const ea_proc_entry* ea_proc_lookup(int fn)
{
    for (size_t i = 0; i < sizeof(ea_procs) / sizeof(ea_procs[0]); i++)
        if (ea_procs[i].fn == fn)
            return &ea_procs[i];
    return NULL;
}

/* ---- environment for the commands run on the node ---- */

/* One product variable: its value and the log lines of its two outcomes. */
struct env_row {
    const char* name;
    int         fail_line;
    const char* fail_text;
    int         ok_line;
};

static const env_row env_ld  = { "LD_LIBRARY_PATH", 224, "Failed to set env: LD_LIBRARY_PATH!\n", 229 };
static const env_row env_path = { "PATH", 242, "Failed to set env: PATH!\n", 247 };
static const env_row env_homes[] = {
    { "ZEL_ENCRYPTION_LIBRARY_PATH", 253, "Failed to set env: ZEL_ENCRYPTION_LIBRARY_PATH_ENV!\n", 258 },
    { "QMPKIHOME", 264, "Failed to set env: QMPKIHOME_ENV!\n", 269 },
    { "KVX_CLN_HOME", 275, "Failed to set env: KVXCLN_BASE_DIR_ENV!\n", 280 },
};
static const env_row env_lang = { "LANG", 287, "Failed to set env: LANG!\n", 292 };

/* Sets one variable; a failure is only logged.  Success logs "name=value". */
static void export_env(const env_row* row, const char* value)
{
    if (setenv(row->name, value, 1) != 0) {
        ZELLogFunction(0, SRC, row->fail_line, "%s", row->fail_text);
        return;
    }
    const char* now = getenv(row->name);
    if (now != NULL)
        ZELLogFunction(5, SRC, row->ok_line, "%s=%s\n", row->name, now);
}

/* 1 when any account can make the client directory: anyone may write its
 * parent (the work directory's owner is the server's own account). */
static int client_dir_open_to_others(const char* client)
{
    char parent[4096];
    snprintf(parent, sizeof(parent), "%s", client);
    char* slash = strrchr(parent, '/');
    if (slash == NULL)
        return 0;
    slash[1] = '\0';
    struct stat st;
    return lstat(parent, &st) == 0 && (st.st_mode & S_IWOTH) != 0;
}

/*
 * Puts the client package directory first in the library path and PATH and
 * points the product homes at it.  A root agent keeps the inherited values
 * behind it; any other agent drops them.  A client directory that root may
 * not trust is left out of both paths, and the homes are not set.
 */
static void export_child_env(const char* old_ld, const char* old_path)
{
    char value[4096];
    const char* client = GetEnvLdLibraryPath();
    int root = geteuid() == 0;

    zel_trusted t;
    int rc = zel_trust_open_path(client, O_RDONLY | O_DIRECTORY, 0, 0, &t);
    int absent = rc != 0 && errno == ENOENT;
    int refused = rc != 0 && !absent;
    zel_trust_close(&t);
    /* an absent client directory is left out where another account could make it later */
    if (absent && client_dir_open_to_others(client))
        refused = 1;
    /* a client directory root may not trust (others could plant programs in it) stays out of both paths */
    if (refused) {
        if (old_ld != NULL && root)
            export_env(&env_ld, old_ld);
        else
            unsetenv(env_ld.name);
        export_env(&env_path, old_path != NULL && root ? old_path : EA_STD_PATH + 1);
        export_env(&env_lang, "C");
        return;
    }
    if (old_ld != NULL && root)
        snprintf(value, sizeof(value), "%s:%s", client, old_ld);
    else
        snprintf(value, sizeof(value), "%s", client);
    export_env(&env_ld, value);

    if (old_path != NULL && root)
        snprintf(value, sizeof(value), "%s:%s", client, old_path);
    else
        snprintf(value, sizeof(value), "%s%s", client, EA_STD_PATH);
    export_env(&env_path, value);

    for (size_t i = 0; i < sizeof(env_homes) / sizeof(env_homes[0]); i++)
        export_env(&env_homes[i], client);
    export_env(&env_lang, "C");
}

/* Opens the agent log under the work directory and trims it. */
static void open_agent_log(void)
{
    char path[4096];
    int rc = setenv(ZEL_LOG_BASE_DIR_ENV, GetTargetWorkDir(), 1);

    ZELInitLogger(EA_LOG_FILE, 3);
    snprintf(path, sizeof(path), "%s/%s", ZELGetLogPath(), EA_LOG_FILE);
    ZELLimitLogLines(path, EA_LOG_LINES);

    if (rc != 0)
        ZELLogFunction(0, SRC, 192, "Failed to set env: ZEL_LOG_BASE_DIR_ENV!\n");
    else
        ZELLogFunction(5, SRC, 195, "%s=%s\n", ZEL_LOG_BASE_DIR_ENV, getenv(ZEL_LOG_BASE_DIR_ENV));
    ZELLogFunction(3, SRC, 198, "ea[%d] started.\n", (int)getpid());
}

/* ---- signals ---- */

static void signal_hup(int sig)   { _kill_self = 1; svc_wake(); }
static void signal_alarm(int sig) { _kill_self = 2; svc_wake(); }
static void signal_pipe(int sig)  { _kill_self = 3; svc_wake(); }
static void signal_term(int sig)  { _kill_self = 4; svc_wake(); }

/* Installs handler without restart semantics: a blocked read returns EINTR. */
static int install_handler(int sig, void (*handler)(int))
{
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = handler;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_INTERRUPT;
    return sigaction(sig, &sa, NULL);
}

/* 0, or -1 after logging which handler could not be installed. */
static int install_signals(void)
{
    /* the wait for the next request must end when a signal arrives */
    if (svc_wake_open() != 0)   /* said once; requests are still read whole without it */
        ZELLogFunction(0, SRC, 300, "Failed to create the wake-up pipe (%d), reading without it.\n", errno);
    if (install_handler(SIGCHLD, signal_child) < 0) {
        ZELLogFunction(0, SRC, 305, "Sigaction(SIGCHLD) failed.\n");
        return -1;
    }
    /* The remote shell that started us dying must stop us too. */
    prctl(PR_SET_PDEATHSIG, SIGHUP);
    if (install_handler(SIGHUP, signal_hup) < 0) {
        ZELLogFunction(0, SRC, 321, "Sigaction(SIGHUP) failed.\n");
        return -1;
    }
    if (install_handler(SIGALRM, signal_alarm) < 0) {
        ZELLogFunction(0, SRC, 335, "Sigaction(SIGALRM) failed.\n");
        return -1;
    }
    if (install_handler(SIGPIPE, signal_pipe) < 0) {
        ZELLogFunction(0, SRC, 349, "Sigaction(SIGPIPE) failed.\n");
        return -1;
    }
    /* kill, systemd or a server shutting down: stop and clean up as for SIGHUP */
    if (install_handler(SIGTERM, signal_term) < 0) {
        ZELLogFunction(0, SRC, 350, "Sigaction(SIGTERM) failed.\n");
        return -1;
    }
    return 0;
}

/* ---- serving ---- */

/*
 * Answers one request: decode, handle, encode, send.  The request envelope
 * is released here on every path.
 */
static void serve_request(ExecProto* proto, JXDR* request)
{
    int fn = jxdr_proc_num(request);
    const ea_proc_entry* proc = ea_proc_lookup(fn);

    if (proc == NULL) {
        ZELLogFunction(0, SRC, 429, "Unkown function call:%d\n", fn);
        jxdr_destroy(request);   /* not answered, but not kept either */
        return;
    }

    char* args = NULL;
    proc->f_args(request, args);   /* a mismatch leaves args null */
    JXDR* reply = jxdr_create_reply(request);
    char* res = NULL;
    if (reply != NULL)
        proc->f_res(reply, res);
    if (res != NULL) {
        zel_consume_hold();   /* files the reply carries go only once it is out whole */
        proc->handler(args, res);
        proc->f_res(reply, res);
        alarm(EA_IDLE_SECONDS);   /* a server that takes no reply for as long as it may stay silent is gone */
        zel_consume_release(proto->send(reply) > 0);
    }
    jxdr_destroy(request);
    jxdr_destroy(reply);
}

/* Logs why the loop stops after a stop signal set the flag. */
static void log_stop_signal(int flag)
{
    if (flag == 1)
        ZELLogFunction(3, SRC, 364, "receive signal: SIGHUP.\n");
    else if (flag == 2)
        ZELLogFunction(3, SRC, 365, "receive signal: SIGALRM.\n");
    else if (flag == 3)
        ZELLogFunction(3, SRC, 366, "receive signal: SIGPIPE.\n");
    else if (flag == 4)
        ZELLogFunction(3, SRC, 363, "receive signal: SIGTERM.\n");
    ZELLogFunction(3, SRC, 367, "cleanup flag is set to %d. stop ExecAgent.\n", flag);
}

/* Serves until end of input or a stop flag. */
static void serve(ExecProto* proto)
{
    char log_path[4096];
    snprintf(log_path, sizeof(log_path), "%s/%s", ZELGetLogPath(), EA_LOG_FILE);
    proto->m_channel->set_wakeup(svc_wake_fd(), &_kill_self);
    for (;;) {
        JXDR* request = NULL;
        svc_log_bound(log_path, EA_LOG_LINES);   /* a flood of lines cannot fill the disk */
        svc_wake_drain();
        child_exit_events();   /* children that ended are logged before the next read */
        alarm(EA_IDLE_SECONDS);
        /* a stop signal that came while a request was served ends the loop
         * now, not after the next request or the idle alarm */
        int rc = _kill_self != 0 ? -1 : proto->receive(request);

        int flag = _kill_self;
        if (flag != 0) {
            log_stop_signal(flag);
            jxdr_destroy(request);   /* received in the same pass: dropped */
            return;
        }
        if (rc == 0 && request != NULL) {
            alarm(0);
            serve_request(proto, request);
            continue;
        }
        if (rc == -2) {
            ZELLogFunction(3, SRC, 374, "incomming connection is closed. stop ExecAgent.\n");
            return;
        }
        ZELLogFunction(0, SRC, 378, "failed to receive data, rc=%d. try again.\n", rc);
        alarm(0);
    }
}

/*
 * The agent's life after start-up.  Returns 0 after a normal stop and -1
 * when a signal handler cannot be installed; ends the process with status 1
 * instead when the target has to be cleaned.
 */
int svc_main(ExecProto* proto)
{
    char old_ld_buf[4096], old_path_buf[4096];
    const char* old_ld = getenv("LD_LIBRARY_PATH");
    const char* old_path = getenv("PATH");
    if (old_ld != NULL)
        old_ld = exstrncpy(old_ld_buf, old_ld, sizeof(old_ld_buf));
    if (old_path != NULL)
        old_path = exstrncpy(old_path_buf, old_path, sizeof(old_path_buf));
    umask(022);   /* nothing the agent or its commands make is writable by others */
    jxdr_wipe_freed_json();

    open_agent_log();
    take_product_lock();
    export_child_env(old_ld, old_path);
    if (install_signals() != 0)
        return -1;

    serve(proto);

    signal(SIGHUP, SIG_IGN);
    signal(SIGALRM, SIG_IGN);
    int running = query_global_process_exist();
    ZELLogFunction(3, SRC, 454, "process still running flag: %d\n", running);
    if (_kill_self != 0 || (running != 0 && ea_lock_status >= 0))
        cleanup_target();
    ZELLogFunction(3, SRC, 460, "ea[%d] finished.\n", (int)getpid());
    return 0;
}
