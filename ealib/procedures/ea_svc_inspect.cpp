/*
 * ea_svc_inspect.cpp - procedures 7 and 8: virtual machine detection and
 * the machine check (source name "ea_svc").
 *
 * Both reuse the command request record: procedure 7 reads the job UUID
 * from its "str", procedure 8 the lock query or the machine check script.
 */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ea_svc.h"
#include "ea_child.h"
#include "svc_product.h"
#include "zelutil.h"
#include "zeltrust.h"

#define INSPECT_PATH_SIZE     4096
#define INSPECT_META_SIZE     128
#define CHECK_FN              "check_machine"   /* log lines of the helpers too */
#define CHECK_LOCK_QUERY      "kvx_ea_check_set_lock.cmd"
#define CHECK_LOCK_QUERY_LEN  25
#define CHECK_REPORT_NAME     ".checkmachinetxt"
#define CHECK_NODE_MARKER     "\"NodeUUID\" : \""

/* Re-runs the agent as root in a one-shot mode; its exit status answers. */
static int vmdetect_root_rerun(const char* user, const char* pwd, const char* mode)
{
    /* the agent's path is one shell word, whatever directory the server chose */
    char* cmd = zel_shell_cmdline("%w %s > /dev/null 2>&1", GetEATarget(), mode);
    int rc = cmd != NULL ? SuperExecuteCmd(user, pwd, cmd, 1, NULL, 0) : -1;

    free(cmd);
    return rc;
}

/*
 * detect_vm_info_svc - procedure 7.
 * Fills res: vpt_type (1 virtual), is_local (1 when the job of the UUID runs
 * here), socks, is_oracle_uek.  Not root: the agent program is re-run as
 * root through su/sudo and its exit status (bit 7 = UEK) is taken as it is.
 * Always returns 0.
 */
int detect_vm_info_svc(ExecCmdargs* args, VMDetectInfores* res)
{
    EA_PASSWORD_WIPED_ON_RETURN(args != NULL ? args->pwd : NULL);
    if (res == NULL)
        return 0;
    /* A request whose "param" did not decode is taken as one without a job
     * UUID and without an account: no job can be local, detection still runs. */
    int decoded = args != NULL && args->cmd != NULL;
    const char* uuid = decoded ? args->cmd : "";
    const char* user = (args != NULL && args->user != NULL) ? args->user : "";
    const char* pwd  = (args != NULL && args->pwd != NULL) ? args->pwd : "";

    ZELLogFunction(3, "ea_svc", 57, "%s: UUID=%s.\n", __FUNCTION__, uuid);
    int run = 0;
    int rc = 0;
    if (decoded)
        rc = check_process_running(uuid, &run);
    res->is_local = run;
    ZELLogFunction(3, "ea_svc", 63, "%s: check_process_running return: %d.\n",
                   __FUNCTION__, rc);

    /* arguments that did not decode name no account: no su or sudo, the probes run unelevated */
    if (geteuid() != 0 && decoded) {
        int st = vmdetect_root_rerun(user, pwd, "EA_CMD_DETECT_VM");
        res->vpt_type = st & ~0x80;
        res->is_oracle_uek = (st & 0x80) ? 1 : 0;
        res->socks = vmdetect_root_rerun(user, pwd, "EA_CMD_GET_SOCKS");
    } else {
        res->vpt_type = detect_vm_info();
        res->is_oracle_uek = is_oracle_uek();
        res->socks = get_pv_sockets();
    }
    ZELLogFunction(3, "ea_svc", 77, "%s: result, local: %d, vm: %d, socks: %d, oracle-uek: %d.\n",
                   __FUNCTION__, res->is_local, res->vpt_type, res->socks, res->is_oracle_uek);
    return 0;
}

/* Lock query: >= 0 lock held and no volume backup, -2 one is running. */
static int check_lock_query(ExecCmdres* res)
{
    res->cmd_len = 0;
    if (ea_lock_status >= 0) {
        int pid = query_process_pid(backup_program_flag);
        if (pid > 1) {
            res->cmd_ret = -2;
            ZELLogFunction(3, "ea_svc", 90, "%s: kvxbackupvol already running, pid=%d.\n",
                           CHECK_FN, pid);
            return 0;
        }
    }
    res->cmd_ret = ea_lock_status;
    return 0;
}

/* 1 when id is "i-" and 8 to 17 lowercase hexadecimal digits, the provider's format. */
static int instance_id_valid(const char* id)
{
    size_t digits = strspn(id + 2, "0123456789abcdef");

    return strncmp(id, "i-", 2) == 0 && digits >= 8 && digits <= 17 && id[2 + digits] == '\0';
}

/*
 * The instance id of an EC2 node into id (INSPECT_META_SIZE bytes): 1 when
 * the metadata service answers with an id of the provider's format, else 0.
 */
static int check_ec2_instance_id(char* id)
{
    int len = INSPECT_META_SIZE - 1;

    memset(id, 0, INSPECT_META_SIZE);
    if (get_meta_value_by_key("instance-id", id, &len) != 0)
        return 0;
    id[INSPECT_META_SIZE - 1] = '\0';
    /* the whole answer must match: it is spliced into the report's JSON text */
    if (!instance_id_valid(id)) {
        ZELLogFunction(3, "ea_svc", 113, "%s: it is not AWS VM but we get instance-id=%s.\n",
                       CHECK_FN, id);
        return 0;
    }
    return 1;
}

/*
 * Puts the report into res->cmd (EA_EXEC_RES_SIZE bytes), the node UUID
 * prefixed with "<instance id>--" on an EC2 node, as one line.
 * 0, or -1 when the spliced text would not fit.
 */
static int check_reply_text(const char* report, ExecCmdres* res)
{
    char id[INSPECT_META_SIZE];
    int size = (int)strlen(report);
    const char* marker = strstr(report, CHECK_NODE_MARKER);

    if (marker != NULL && check_ec2_instance_id(id)) {
        ZELLogFunction(3, "ea_svc", 132,
                       "%s: The target node is a EC2 VM and its instance id is %s.\n",
                       CHECK_FN, id);
        int idlen = (int)strlen(id);
        /* The two hyphens and the terminator must fit in the reply buffer too. */
        if (idlen + size + 2 >= EA_EXEC_RES_SIZE) {
            ZELLogFunction(0, "ea_svc", 138, "%s: The output of checkmachine is to large (%d)!\n",
                           CHECK_FN, idlen + size);
            res->cmd_ret = -1;
            return -1;
        }
        int head = (int)(marker - report) + (int)strlen(CHECK_NODE_MARKER);
        snprintf(res->cmd, EA_EXEC_RES_SIZE, "%.*s%s--%s", head, report, id, report + head);
    } else {
        exstrncpy(res->cmd, report, EA_EXEC_RES_SIZE);
    }
    for (char* p = res->cmd; *p != '\0'; p++) {
        if (*p == '\n' || *p == '\t')
            *p = ' ';
    }
    res->cmd_len = (int)strlen(res->cmd);
    return 0;
}

/* Collects the report file the script wrote; the answer of check_machine. */
static int check_collect_report(const char* path, ExecCmdres* res)
{
    struct stat st;
    if (stat(path, &st) != 0) {
        if (errno == ENOENT)
            return 0;
        ZELLogFunction(0, "ea_svc", 163, "%s: Failed to get content from %s (%d)\n",
                       CHECK_FN, path, errno);
        res->cmd_ret = -1;
        return -1;
    }
    if (res->cmd == NULL) {
        ZELLogFunction(0, "ea_svc", 169, "%s: Failed to allocate memory.\n", CHECK_FN);
        res->cmd_ret = -1;
        return -1;
    }
    if (st.st_size >= EA_EXEC_RES_SIZE) {
        ZELLogFunction(0, "ea_svc", 174, "%s: The output of checkmachine is to large (%d)!\n",
                       CHECK_FN, (int)st.st_size);
        res->cmd_ret = -1;
        return -1;
    }

    char* report = NULL;
    int len = 0;
    int rc = read_checkmachine_file(path, &report, &len);
    if (rc < 1 || report == NULL) {
        ZELLogFunction(3, "ea_svc", 184, "%s: Failed to read activity log from file: %s, len=%d.\n",
                       CHECK_FN, path, rc);
        free(report);
        return 0;
    }
    /* The reader's buffer holds len bytes; end the text at what was read. */
    int end = (len < 1) ? 0 : (rc < len - 1 ? rc : len - 1);
    report[end] = '\0';
    int answer = check_reply_text(report, res);
    free(report);
    return answer;
}

/*
 * The check makes its report world-writable: while it runs, the directory
 * that holds the report is closed to other users when it is the agent's
 * own (root and the agent keep their way in).  Returns the directory, or -1.
 */
static int check_close_report_dir(struct stat* was)
{
    int dir = open(GetTargetBootstrapDir(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (dir < 0)
        return -1;
    if (fstat(dir, was) != 0 || was->st_uid != geteuid() || (was->st_mode & 077) == 0 ||
        fchmod(dir, was->st_mode & 07700) != 0) {
        close(dir);
        return -1;
    }
    return dir;
}

/* Opens the directory to others again as it was. */
static void check_reopen_report_dir(int dir, const struct stat* was)
{
    if (dir < 0)
        return;
    fchmod(dir, was->st_mode & 07777);
    close(dir);
}

/*
 * check_machine - procedure 8.
 * The lock query answers the product lock state in cmd_ret (see above).
 * Otherwise the account is checked and the "checkmachine" script is run as
 * root, its report (".checkmachinetxt" in the bootstrap directory) returned
 * in cmd as one line with cmd_len; cmd_ret is the script's status.
 * Returns 0, -1, or a negative status of the script run.
 */
int check_machine(ExecCmdargs* args, ExecCmdres* res)
{
    EA_PASSWORD_WIPED_ON_RETURN(args != NULL ? args->pwd : NULL);
    if (res == NULL)
        return -1;
    /* A request whose "param" did not decode names no command: answered as
     * an invalid one that failed (ret -1), without touching the node. */
    if (args == NULL || args->cmd == NULL) {
        ZELLogFunction(0, "ea_svc", 213, "%s: invalid checkmachine command (%s)\n",
                       __FUNCTION__, "");
        res->cmd_ret = -1;
        res->cmd_len = 0;
        return -1;
    }
    ZELLogFunction(3, "ea_svc", 219, "%s: cmd=%s, msg_mode=%d, block_mode=%d, user=%s, pwd=%d.\n",
                   __FUNCTION__, args->cmd, args->need_get_return_msg_flag, args->block_flag,
                   args->user ? args->user : "", args->pwd ? (int)strlen(args->pwd) : 0);

    if (strlen(args->cmd) == CHECK_LOCK_QUERY_LEN && strcmp(args->cmd, CHECK_LOCK_QUERY) == 0)
        return check_lock_query(res);

    int account = check_root_account(args->user, args->pwd);
    res->cmd_ret = account;
    if (account != 0 && account != 1) {
        res->cmd_len = 0;
        return -1;
    }
    if (strstr(args->cmd, "checkmachine") == NULL) {
        ZELLogFunction(0, "ea_svc", 233, "%s: invalid checkmachine command (%s)\n",
                       __FUNCTION__, args->cmd);
        return 0;
    }

    char path[INSPECT_PATH_SIZE];
    memset(path, 0, sizeof(path));
    path_join(GetTargetBootstrapDir(), CHECK_REPORT_NAME, path, sizeof(path));
    zel_trusted t;
    /* a report from before goes first (touch and chmod would follow a link, and no one may hold it open) */
    int found = zel_trust_open_path(path, O_RDONLY, 0, ZT_LOOSE_OK, &t);
    if ((found == 0 || errno == EPERM) && t.name[0] != '\0')
        unlinkat(t.dir, t.name, 0);
    zel_trust_close(&t);
    /* never cut; the report path is one shell word, the server's command stays a command */
    char* command = zel_shell_cmdline("touch %w >/dev/null 2>&1; chmod 666 %w >/dev/null 2>&1; "
                                      "%s >%w 2>/dev/null", path, path, args->cmd, path);
    res->cmd_len = 0;
    struct stat was;
    /* no other user can open the world-writable report while the check writes it */
    int closed = command != NULL ? check_close_report_dir(&was) : -1;
    if (command == NULL)
        res->cmd_ret = -1;
    else if (account == 1)
        res->cmd_ret = SuperExecuteCmd(args->user, args->pwd, command, 1, NULL, 0);
    else
        res->cmd_ret = ExecuteCmd(command);
    check_reopen_report_dir(closed, &was);
    free(command);
    if (res->cmd_ret < 0)
        return res->cmd_ret;
    return check_collect_report(path, res);
}
