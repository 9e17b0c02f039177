/*
 * eactl_cmds.cpp - one function per procedure: build the argument record,
 * call, print the result record as text or as the reply's JSON.
 */
#include "eactl.h"

#include <stdlib.h>
#include <string.h>
#include <time.h>

namespace {

/* Joins argv[from..argc) with blanks: the rest of the line is the command. */
std::string join_args(int argc, char** argv, int from)
{
    std::string text;
    for (int k = from; k < argc; k++) {
        if (k > from)
            text += " ";
        text += argv[k];
    }
    return text;
}

int bad_usage(const char* cmd, const char* what)
{
    fprintf(stderr, "kvx-eactl %s: %s\n", cmd, what);
    return 2;
}

/* Parses the account options and the rest as one command text. */
int parse_account_and_text(int argc, char** argv, EactlAccount* acct, std::string* text,
                           bool text_required)
{
    int i = 1;
    for (; i < argc && strncmp(argv[i], "--", 2) == 0; i++) {
        int rc = eactl_account_option(acct, argc, argv, &i);
        if (rc < 0)
            return -1;
        if (rc == 0)
            break;
    }
    eactl_account_finish(acct);
    *text = join_args(argc, argv, i);
    if (text_required && text->empty())
        return bad_usage(argv[0], "a command text is required");
    return 0;
}

void fill_exec_args(ExecCmdargs* a, const std::string& cmd, const EactlAccount& acct)
{
    memset(a, 0, sizeof(*a));
    a->cmd = const_cast<char*>(cmd.c_str());
    a->cmd_len = (int)cmd.size() + 1;
    a->user = const_cast<char*>(acct.user.c_str());
    a->pwd = const_cast<char*>(acct.passwd.c_str());
    a->sudo_flag = acct.sudo_flag;
}

void print_exec_result(const ExecCmdres* r)
{
    printf("ret: %d\n", r->cmd_ret);
    if (r->cmd && r->cmd_len > 0) {
        /* "retmsg_len" may claim more than the text received: stop at its end */
        int n = (int)strnlen(r->cmd, (size_t)r->cmd_len);
        printf("%.*s%s", n, r->cmd, n > 0 && r->cmd[n - 1] == '\n' ? "" : "\n");
    }
}

} /* namespace */

int eactl_cmd_ping(EactlSession* s, int argc, char** argv)
{
    std::string text = join_args(argc, argv, 1);
    PINGargs a = {(int)text.size() + 1, const_cast<char*>(text.c_str()), false};
    char buf[EA_PING_MSG_SIZE] = "";
    PINGres r = {0, (int)sizeof(buf), buf};
    int rc = eactl_request(s, EA_PROC_PING, JXDR_PROC(PINGargs, jxdr_PINGargs), (char*)&a,
                           JXDR_PROC(PINGres, jxdr_PINGres), (char*)&r);
    if (rc != 0)
        return rc < 0 ? 1 : 0;
    time_t stamp = (time_t)r.stamp;
    char when[64] = "";
    strftime(when, sizeof(when), "%Y-%m-%d %H:%M:%S", localtime(&stamp));
    printf("reply: %s\nagent clock: %s (sp=%d)\n", r.msg, when, (int)r.stamp);
    return 0;
}

int eactl_cmd_exec(EactlSession* s, int argc, char** argv)
{
    EactlAccount acct = {"", "", 0};
    int msg = 1, block = 0, jobid = 0, i = 1;
    for (; i < argc && strncmp(argv[i], "--", 2) == 0; i++) {
        if (strcmp(argv[i], "--msg") == 0) {
            msg = 1, block = 0;
        } else if (strcmp(argv[i], "--wait") == 0) {
            msg = 0, block = 0;
        } else if (strcmp(argv[i], "--background") == 0) {
            msg = 0, block = 1;
        } else if (strcmp(argv[i], "--jobid") == 0 && i + 1 < argc) {
            jobid = atoi(argv[++i]);
        } else {
            int rc = eactl_account_option(&acct, argc, argv, &i);
            if (rc <= 0)
                return rc < 0 ? 1 : bad_usage("exec", "unknown option");
        }
    }
    eactl_account_finish(&acct);
    std::string cmd = join_args(argc, argv, i);
    if (cmd.empty())
        return bad_usage("exec", "a command is required");

    ExecCmdargs a;
    fill_exec_args(&a, cmd, acct);
    a.need_get_return_msg_flag = msg;
    a.block_flag = block;
    a.jobid = jobid;
    ExecCmdres r = {0, 0, NULL};
    int rc = eactl_request(s, EA_PROC_EXEC_CMD, JXDR_PROC(ExecCmdargs, jxdr_ExecCmdargs),
                           (char*)&a, JXDR_PROC(ExecCmdres, jxdr_ExecCmdres), (char*)&r);
    if (rc == 0)
        print_exec_result(&r);
    return rc < 0 ? 1 : 0;
}

int eactl_cmd_status(EactlSession* s, int argc, char** argv)
{
    JOBSTATUSargs a = {0};
    if (argc == 3 && strcmp(argv[1], "--id") == 0)
        a.jobid = atoi(argv[2]);
    else if (argc != 1)
        return bad_usage("status", "usage: status [--id N]");
    JOB_STATUS r;
    memset(&r, 0, sizeof(r));
    int rc = eactl_request(s, EA_PROC_JOBSTATUS, JXDR_PROC(JOBSTATUSargs, jxdr_JOBSTATUSargs), (char*)&a,
                           JXDR_PROC(JOB_STATUS, jxdr_JOBSTATUSres), (char*)&r);
    if (rc != 0)
        return rc < 0 ? 1 : 0;
    printf("status %u, type %u, phase %u\n", r.sts, r.typ, r.stg);
    printf("disk %.255s: %llu%% done, %llu KiB, %u KiB/min\n", r.vol.name,
           (unsigned long long)r.vol.dt_all, (unsigned long long)r.vol.dt_fin, r.vol.tm_usd);
    printf("job: %llu KiB processed, %u KiB/min; written %llu KiB, %u KiB/min\n",
           (unsigned long long)r.dt_fin, r.tm_usd, (unsigned long long)r.processed_data_w,
           r.throughput_w);
    if (r.job_statistic.DataIsValid)
        printf("statistics: total %llu, unique %llu, compressed %llu (dedup %d)\n",
               (unsigned long long)r.job_statistic.TotalDataSize,
               (unsigned long long)r.job_statistic.UniqueDataSize,
               (unsigned long long)r.job_statistic.CompressedDataSize, r.job_statistic.DedupFlag);
    if (r.act_size && r.act_log)
        printf("activity:\n%s", r.act_log);
    return 0;
}

int eactl_cmd_log(EactlSession* s, int argc, char** argv)
{
    AGENTLOGres r = {0, NULL};
    int rc = eactl_request(s, EA_PROC_AGENTLOG, jxdr_Noargs, NULL,
                           JXDR_PROC(AGENTLOGres, jxdr_AGENTLOGres), (char*)&r);
    if (rc != 0)
        return rc < 0 ? 1 : 0;
    if (r.logSize > 0 && r.pLog)
        printf("%s", r.pLog);
    else
        printf("(no new activity)\n");
    return 0;
}

int eactl_cmd_result(EactlSession* s, int argc, char** argv)
{
    JOB_RESULT r;
    memset(&r, 0, sizeof(r));
    int rc = eactl_request(s, EA_PROC_JOBRESULT, jxdr_Noargs, NULL,
                           JXDR_PROC(JOB_RESULT, jxdr_JOBRESULTres), (char*)&r);
    if (rc != 0)
        return rc < 0 ? 1 : 0;
    printf("session %.31s (%.36s)\n", r.sessionNo, r.sessionGuid);
    printf("read %llu bytes at %u, written %llu bytes at %u, protected %llu bytes, %u recovered\n",
           (unsigned long long)r.processed_data_read, r.throughput_read,
           (unsigned long long)r.processed_data_write, r.throughput_write,
           (unsigned long long)r.protected_data, r.recovery_count);
    return 0;
}

int eactl_cmd_mount(EactlSession* s, int argc, char** argv)
{
    EactlAccount acct = {"", "", 0};
    std::string location, point;
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--point") == 0 && i + 1 < argc) {
            point = argv[++i];
        } else if (strncmp(argv[i], "--", 2) == 0) {
            int rc = eactl_account_option(&acct, argc, argv, &i);
            if (rc <= 0)
                return rc < 0 ? 1 : bad_usage("mount", "unknown option");
        } else if (location.empty()) {
            location = argv[i];
        } else {
            return bad_usage("mount", "one location only");
        }
    }
    eactl_account_finish(&acct);
    if (location.empty())
        return bad_usage("mount", "a location is required");
    Mountargs a = {const_cast<char*>(location.c_str()), const_cast<char*>(acct.user.c_str()),
                   const_cast<char*>(acct.passwd.c_str()), const_cast<char*>(point.c_str())};
    char buf[EA_MOUNT_POINT_SIZE] = "";
    Mountres r = {0, 0, buf};
    int rc = eactl_request(s, EA_PROC_MOUNT, JXDR_PROC(Mountargs, jxdr_Mountargs), (char*)&a,
                           JXDR_PROC(Mountres, jxdr_Mountres), (char*)&r);
    if (rc != 0)
        return rc < 0 ? 1 : 0;
    if (r.ret == 0)
        printf("mounted on %s\n", r.mount_point);
    else
        printf("mount failed (ret %d); the agent's log has the reason\n", r.ret);
    return 0;
}

int eactl_cmd_vmdetect(EactlSession* s, int argc, char** argv)
{
    EactlAccount acct = {"", "", 0};
    std::string uuid;
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--uuid") == 0 && i + 1 < argc) {
            uuid = argv[++i];
        } else {
            int rc = eactl_account_option(&acct, argc, argv, &i);
            if (rc <= 0)
                return rc < 0 ? 1 : bad_usage("vmdetect", "unknown option");
        }
    }
    eactl_account_finish(&acct);
    ExecCmdargs a;
    fill_exec_args(&a, uuid, acct);
    VMDetectInfo_t r = {0, 0, 0, 0};
    int rc = eactl_request(s, EA_PROC_VMDETECT, JXDR_PROC(ExecCmdargs, jxdr_ExecCmdargs), (char*)&a,
                           JXDR_PROC(VMDetectInfo_t, jxdr_VMDetectres), (char*)&r);
    if (rc != 0)
        return rc < 0 ? 1 : 0;
    printf("virtual machine: %s\njob running here: %s\nsockets: %d\noracle uek: %s\n",
           r.vpt_type ? "yes" : "no", r.is_local ? "yes" : "no", r.socks,
           r.is_oracle_uek ? "yes" : "no");
    return 0;
}

int eactl_cmd_checkmachine(EactlSession* s, int argc, char** argv)
{
    EactlAccount acct = {"", "", 0};
    std::string cmd;
    int rc = parse_account_and_text(argc, argv, &acct, &cmd, true);
    if (rc != 0)
        return rc;
    ExecCmdargs a;
    fill_exec_args(&a, cmd, acct);
    a.need_get_return_msg_flag = 1;
    ExecCmdres r = {0, 0, NULL};
    rc = eactl_request(s, EA_PROC_CHECK_MACHINE, JXDR_PROC(ExecCmdargs, jxdr_ExecCmdargs),
                       (char*)&a, JXDR_PROC(ExecCmdres, jxdr_ExecCmdres), (char*)&r);
    if (rc == 0)
        print_exec_result(&r);
    return rc < 0 ? 1 : 0;
}
