/*
 * ea_svc_exec.cpp - procedure 3: run one shell command on the node
 * (source name "ea_svc").
 *
 * Three ways, chosen by the request: in the background (answered at once,
 * a product program is handed to the child tracking), run and wait with the
 * output discarded, or run and return what the command printed.  An agent
 * that is not root runs the command through su or sudo with the account of
 * the request, and keeps the first such account for its own later commands.
 */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "ea_svc.h"
#include "ea_child.h"
#include "svc_wake.h"
#include "zelutil.h"

#define EXEC_BUF_SIZE   1024   /* captured output */
#define EXEC_JOBID_SIZE 16
#define EXEC_FN         "exec_cmd_svc"   /* every log line names the procedure */
#define EXEC_DEVNULL    "/dev/null"   /* where background and wait mode output goes */

/* Copies a status text into the reply buffer and sets its length. */
static void exec_set_text(ExecCmdres* res, const char* text)
{
    exstrncpy(res->cmd, text, EA_EXEC_RES_SIZE);
    res->cmd_len = (int)strlen(res->cmd);
}

static int str_empty(const char* s)
{
    return s == NULL || s[0] == '\0';
}

/* Runs cmd to its end, as root through su/sudo when elevate is set. */
static int exec_run_blocking(int elevate, const ExecCmdargs* args, const char* cmd)
{
    if (elevate)
        return SuperExecuteCmd(args->user, args->pwd, cmd, 1, NULL, 0);
    return ExecuteCmd(cmd);
}

/*
 * First elevated request wins: its account (su) or the sudo way is kept for
 * the agent's own elevated commands (cleanup); later requests change nothing.
 */
static void exec_cache_account(const ExecCmdargs* args)
{
    if (g_cached_nonRootUserFlag != 0)
        return;
    if (!str_empty(args->user)) {
        exstrncpy(g_cached_rootUser, args->user, sizeof(g_cached_rootUser));
        ZELLogFunction(3, "ea_svc", 214, "%s: Cached non root user su user.\n", EXEC_FN);
    } else {
        ZELLogFunction(3, "ea_svc", 216, "%s: Cached sudo user information.\n", EXEC_FN);
    }
    if (!str_empty(args->pwd)) {
        exstrncpy(g_cached_rootPwd, args->pwd, sizeof(g_cached_rootPwd));
        ZELLogFunction(3, "ea_svc", 220, "%s: Cached non root user su pwd.\n", EXEC_FN);
    } else {
        ZELLogFunction(3, "ea_svc", 222, "%s: No sudo pwd information.\n", EXEC_FN);
    }
    g_cached_nonRootUserFlag = 1;
}

/*
 * "<cmd> >>/dev/null 2>&1" in a heap buffer sized from the command (caller
 * frees), so that every command the channel accepts runs whole; null
 * without memory.
 */
static char* exec_redirected(const char* cmd)
{
    size_t size = strlen(cmd) + sizeof(" >>" EXEC_DEVNULL " 2>&1");
    char* command = (char*)malloc(size);

    if (command != NULL)
        snprintf(command, size, "%s >>%s 2>&1", cmd, EXEC_DEVNULL);
    return command;
}

void ea_wipe_password(char* pwd)
{
    if (pwd != NULL)
        explicit_bzero(pwd, strlen(pwd));
}

/*
 * Background mode: fork a child that waits a second, runs the command with
 * its output appended to /dev/null and exits with the command's status.
 */
static int exec_background(int elevate, const ExecCmdargs* args, ExecCmdres* res)
{
    pid_t pid = fork();
    if (pid == -1) {
        ZELLogFunction(3, "ea_svc", 321, "%s: create child process failed! cmd= %s\n",
                       EXEC_FN, "");
        exec_set_text(res, "create child process failed!");
        res->cmd_ret = 1;
        return -1;
    }
    if (pid == 0) {
        svc_wake_close();   /* the child's own signals must not wake the service loop */
        zel_stdin_devnull();
        sleep(1);
        char* command = exec_redirected(args->cmd);
        int rc = command != NULL ? exec_run_blocking(elevate, args, command) : -1;
        ea_wipe_password(args->pwd);   /* this process's copy of the request */
        ZELLogFunction(3, "ea_svc", 315, "%s: after ExecuteCmd(NONBLOCK_MODE): %s ret=%d\n",
                       EXEC_FN, command != NULL ? command : "", rc);
        free(command);
        /* The child ends here: _exit keeps it out of the service loop and
         * never flushes the parent's protocol stream a second time. */
        CloseLogFile();
        _exit(rc);
    }
    set_global_process_st(args->cmd, pid);
    ZELLogFunction(3, "ea_svc", 332, "%s: create child process successfully! cmd=%s, child pid=%d\n",
                   EXEC_FN, args->cmd, (int)pid);
    exec_set_text(res, "create child process successfully!");
    res->cmd_ret = 0;
    return 0;
}

/* Wait mode: "no return" whatever happens; ret 1 when the command failed. */
static int exec_wait(int elevate, const ExecCmdargs* args, ExecCmdres* res)
{
    exec_set_text(res, "no return");
    char* command = exec_redirected(args->cmd);
    int rc = command != NULL ? exec_run_blocking(elevate, args, command) : -1;
    ZELLogFunction(4, "ea_svc", 296, "%s, after ExecuteCmd: %s. ret=%d.\n",
                   EXEC_FN, command != NULL ? command : "", rc);
    free(command);
    res->cmd_ret = (rc != 0) ? 1 : 0;
    return 0;
}

/* Message mode through su/sudo: the exit code is returned as it is. */
static int exec_message_elevated(const ExecCmdargs* args, ExecCmdres* res)
{
    char output[EXEC_BUF_SIZE];
    memset(output, 0, sizeof(output));

    res->cmd_ret = SuperExecuteCmd(args->user, args->pwd, args->cmd, 1, output,
                                   EXEC_BUF_SIZE - 1);
    int len = (int)strlen(output);
    if (len > EA_EXEC_RES_SIZE - 1) {
        ZELLogFunction(0, "ea_svc", 270, "%s: The output is to large (%d)!\n",
                       EXEC_FN, len);
        res->cmd_ret = -1;
        return -1;
    }
    if (len > 0)
        exec_set_text(res, output);
    else
        res->cmd_len = 0;
    return 0;
}

/*
 * Message mode as the agent's own user: at most 1024 bytes of what the
 * command prints; a command that prints nothing is a failure.
 */
static int exec_message_plain(const ExecCmdargs* args, ExecCmdres* res)
{
    char output[EXEC_BUF_SIZE + 1];   /* one spare byte keeps a full read terminated */

    /* our own sh -c instead of popen(): the command's input is /dev/null */
    int got = zel_shell_capture(args->cmd, output, sizeof(output), NULL);
    if (got < 0) {
        ZELLogFunction(0, "ea_svc", 237, "%s: popen Error! errno=%d, errmsg=%s\n",
                       EXEC_FN, errno, strerror(errno));
        exec_set_text(res, "popen error!");
        res->cmd_ret = 1;
        return -1;
    }
    if (got == 0) {
        ZELLogFunction(0, "ea_svc", 247, "%s: no data is read! errno=%d, errms=%s\n",
                       EXEC_FN, errno, strerror(errno));
        exec_set_text(res, "fread return 0!");
        res->cmd_ret = 1;
        return -1;
    }
    int len = (int)strlen(output);
    ZELLogFunction(4, "ea_svc", 257, "%s: buf size=%d, buf=%s\n", EXEC_FN, len, output);
    if (len > EA_EXEC_RES_SIZE - 1) {
        ZELLogFunction(0, "ea_svc", 259, "%s: The output is to large (%d)!\n",
                       EXEC_FN, len);
        res->cmd_ret = -1;
        return -1;
    }
    exec_set_text(res, output);
    res->cmd_ret = 0;
    return 0;
}

/*
 * exec_cmd_svc - procedure 3.
 * Fills res (cmd_ret: 0 success, 1 failure, -1 output too large, or the
 * exit code of an elevated message-mode command; cmd/cmd_len: output or a
 * status text).  Returns 0 or -1; the service loop ignores the value.
 * Sets "jobID" in the agent's environment for every request.
 */
int exec_cmd_svc(ExecCmdargs* args, ExecCmdres* res)
{
    char jobid[EXEC_JOBID_SIZE];
    EA_PASSWORD_WIPED_ON_RETURN(args != NULL ? args->pwd : NULL);

    if (res == NULL || res->cmd == NULL)
        return -1;
    /* A request whose "param" did not decode has no command to run: answer
     * it as a failed command (ret 1) so the server takes its failure path. */
    if (args == NULL || args->cmd == NULL) {
        ZELLogFunction(0, "ea_svc", 216, "%s: no command in the request.\n", EXEC_FN);
        exec_set_text(res, "invalid argument!");
        res->cmd_ret = 1;
        return -1;
    }

    snprintf(jobid, sizeof(jobid), "%d", args->jobid);
    setenv("jobID", jobid, 1);
    ZELLogFunction(3, "ea_svc", 197, "%s: Current JOB ID is: %s\n", EXEC_FN, jobid);
    ZELLogFunction(3, "ea_svc", 199,
                   "%s: cmd=%s, msg_mode=%d, block_mode=%d, sudo_flag=%d, user=%s, pwd=%d.\n",
                   EXEC_FN, args->cmd, args->need_get_return_msg_flag, args->block_flag,
                   args->sudo_flag, args->user ? args->user : "",
                   args->pwd ? (int)strlen(args->pwd) : 0);

    int elevate = (int)geteuid();
    if (elevate != 0 && str_empty(args->user) && str_empty(args->pwd) && args->sudo_flag == 0) {
        elevate = 0;
        ZELLogFunction(3, "ea_svc", 206, "%s: Execute command with current nonroot user.\n",
                       EXEC_FN);
    }
    if (elevate != 0)
        exec_cache_account(args);

    if (args->block_flag != 0)
        return exec_background(elevate, args, res);
    if (args->need_get_return_msg_flag != 1)
        return exec_wait(elevate, args, res);
    if (elevate != 0)
        return exec_message_elevated(args, res);
    return exec_message_plain(args, res);
}
