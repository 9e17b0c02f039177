/*
 * ea_child.cpp - the tracked background child, the SIGCHLD handler that
 * reaps children, and the elevation account the agent caches for its own
 * commands (source name "ea_svc").
 *
 * The command execution service starts at most one tracked background
 * program (the backup program or the bare-metal recovery program); this file
 * keeps its pid and exit status for the job status service and for the
 * service loop's shut-down decision, together with the account that the
 * agent caches for its own elevated commands.
 */
#include <errno.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>
#include <sys/types.h>
#include <sys/wait.h>

#include "ea_child.h"
#include "svc_wake.h"
#include "zelcommon.h"
#include "zelfunc.h"
#include "zellog.h"

#define SRC "ea_svc"
#define ELEVATED_CMD_SECS 30    /* the longest one elevated command may take */
#define ELEVATED_MIN_SECS 2     /* what a command gets once the cleanup's time is spent */

st_no_block_process gst_nblk_p;
int  g_cached_nonRootUserFlag = 0;
char g_cached_rootUser[128];
char g_cached_rootPwd[128];
int  g_cached_prog_type_flag = 0;
const char* backup_program_flag = "kvxbackupvol";
const char* restore_program_flag = "kvxbmr";

/* Case-insensitive substring test; a null haystack contains nothing. */
static int cmd_names(const char* cmd, const char* prog)
{
    return cmd != NULL && strcasestr(cmd, prog) != NULL;
}

/*
 * Records the background child just forked for cmd.  Only the backup and the
 * recovery program are tracked (pid kept); any other command leaves the
 * record empty.  Also notes which kind of product program ran last:
 * 1 the backup program, 2 anything else.
 */
void set_global_process_st(const char* cmd, int pid)
{
    child_exit_events();   /* an earlier child's end belongs to the old record */
    memset(&gst_nblk_p, 0, sizeof(gst_nblk_p));
    if (cmd_names(cmd, backup_program_flag) || cmd_names(cmd, restore_program_flag))
        gst_nblk_p.pid = pid;
    g_cached_prog_type_flag = cmd_names(cmd, backup_program_flag) ? 1 : 2;
}

/* Exit code for a normal exit, signal number for a killed child, else raw. */
static int decode_wait_status(int status)
{
    if ((status & 0x7f) == 0)
        return (status & 0xff00) >> 8;
    if (WIFSIGNALED(status))
        return status & 0x7f;
    return status;
}

/*
 * Children reaped by the SIGCHLD handler and not yet looked at by the main
 * flow.  The handler only fills the ring (waitpid is async-signal-safe);
 * logging and running commands wait for child_exit_events().
 */
#define CHILD_EVENTS 64
static struct { pid_t pid; int status; } child_ring[CHILD_EVENTS];
static volatile sig_atomic_t child_head = 0, child_tail = 0;

/* Reaps ended children into the ring; with the ring full the rest stay
 * zombies until the main flow has made room. */
static void reap_into_ring(void)
{
    while (child_head - child_tail < CHILD_EVENTS) {
        int status = 0;
        pid_t pid = waitpid(-1, &status, WNOHANG);   /* never waits for a running child */
        if (pid <= 0)
            return;
        child_ring[child_head % CHILD_EVENTS].pid = pid;
        child_ring[child_head % CHILD_EVENTS].status = status;
        child_head = child_head + 1;
    }
}

/* SIGCHLD handler: records the children that ended and wakes the loop. */
void signal_child(int sig)
{
    int saved_errno = errno;   /* the interrupted code may still look at errno */
    reap_into_ring();
    svc_wake();
    errno = saved_errno;
}

/*
 * What the handler used to do for one reaped child: log it, and for the
 * tracked child record the decoded status (finished_flag 1) and unload the
 * driver after a failed backup.  A foreign child only counts while nothing
 * is tracked: its raw status then lands in ret_status.
 */
static void record_child_exit(pid_t pid, int status)
{
    ZELLogFunction(3, SRC, 38, "%s: child pid=%d exist %d.\n", "signal_child", (int)pid, status);
    if (pid == gst_nblk_p.pid) {
        int ret = decode_wait_status(status);
        gst_nblk_p.finished_flag = 1;
        gst_nblk_p.ret_status = ret;
        if (ret != 0 && g_cached_prog_type_flag == 1)
            ExecuteCmdWrapper("driverinstall -u", 0);
    } else if (gst_nblk_p.pid == 0) {
        gst_nblk_p.ret_status = status;
    }
}

/*
 * Takes every child that has ended, also those whose SIGCHLD was lost while
 * a runner had the signal at its default disposition, and records each in
 * the order reaped.  Main flow only.
 */
void child_exit_events(void)
{
    sigset_t chld, old;
    sigemptyset(&chld);
    sigaddset(&chld, SIGCHLD);
    siginfo_t peek;
    memset(&peek, 0, sizeof(peek));
    /* the common case, nothing recorded and no child ended, costs one call */
    if (child_tail == child_head &&
        (waitid(P_ALL, 0, &peek, WEXITED | WNOHANG | WNOWAIT) != 0 || peek.si_pid == 0))
        return;
    for (;;) {
        struct { pid_t pid; int status; } batch[CHILD_EVENTS];
        int n = 0;
        sigprocmask(SIG_BLOCK, &chld, &old);
        reap_into_ring();
        while (child_tail != child_head) {
            batch[n].pid = child_ring[child_tail % CHILD_EVENTS].pid;
            batch[n].status = child_ring[child_tail % CHILD_EVENTS].status;
            child_tail = child_tail + 1;
            n++;
        }
        sigprocmask(SIG_SETMASK, &old, NULL);
        for (int i = 0; i < n; i++)
            record_child_exit(batch[i].pid, batch[i].status);
        if (n < CHILD_EVENTS)
            return;
    }
}

/*
 * 1 while the tracked child runs, 0 when there is none or it has ended.
 * Children that ended are recorded first, so an ended child that nobody had
 * reaped yet (a zombie answers kill(pid, 0)) is never taken for running.
 * Reports a reaped child's exit in the log once.
 */
int query_global_process_exist(void)
{
    child_exit_events();
    if (gst_nblk_p.finished_flag == 1) {
        ZELLogFunction(3, SRC, 75, "%s: Child process pid=[%d] has exited, status: %d.\n",
                       __func__, (int)gst_nblk_p.pid, gst_nblk_p.ret_status);
        gst_nblk_p.finished_flag = 2;
    }
    if (gst_nblk_p.pid <= 0 || gst_nblk_p.finished_flag != 0)
        return 0;
    return kill(gst_nblk_p.pid, 0) == 0 ? 1 : 0;
}

/* The tracked child's decoded exit status (or a foreign child's raw one). */
int query_global_process_return_status(void)
{
    child_exit_events();
    return gst_nblk_p.ret_status;
}

/* ---- the agent's own elevated commands ---- */

static long long s_elevated_end;   /* zel_now_ms() by which elevated commands are done; 0: no deadline */

void ea_elevated_deadline(long long end_ms)
{
    s_elevated_end = end_ms;
}

/* Seconds one elevated command may take now. */
static int elevated_limit(void)
{
    long long left = s_elevated_end != 0 ? (s_elevated_end - zel_now_ms()) / 1000 : ELEVATED_CMD_SECS;

    if (left > ELEVATED_CMD_SECS)
        left = ELEVATED_CMD_SECS;
    return left < ELEVATED_MIN_SECS ? ELEVATED_MIN_SECS : (int)left;
}

/*
 * Runs cmd as root through the cached account when the agent is not root
 * and one was cached, else as the agent itself (logged unless silent).
 * Returns the command's decoded exit status, 0 on success.
 */
int ExecuteCmdWrapper(const char* cmd, int silent)
{
    /* bounded: a cached password su or sudo do not take must not keep the agent, and its lock, for good */
    if (g_cached_nonRootUserFlag)
        return SuperExecuteCmdWithin(g_cached_rootUser, g_cached_rootPwd, cmd, elevated_limit());
    return silent ? ExecuteCmdSilently(cmd) : ExecuteCmd(cmd);
}
