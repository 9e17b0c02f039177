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
    return EACTL_USAGE;
}

/* The result of a command whose reply was printed or failed. */
int outcome(int rc)
{
    return rc < 0 ? EACTL_FAILED : EACTL_OK;
}

/* Parses the account options and the rest as one command text. */
int parse_account_and_text(int argc, char** argv, EactlAccount* acct, std::string* text,
                           bool text_required)
{
    int i = 1;
    for (; i < argc && strncmp(argv[i], "--", 2) == 0; i++) {
        int rc = eactl_account_option(acct, argc, argv, &i);
        if (rc < 0)
            return EACTL_USAGE;
        if (rc == 0)
            break;
    }
    eactl_account_finish(acct);
    *text = join_args(argc, argv, i);
    if (text_required && text->empty())
        return bad_usage(argv[0], "a command text is required");
    return EACTL_OK;
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
    if (s->checking)
        return EACTL_OK;
    PINGargs a = {(int)text.size() + 1, const_cast<char*>(text.c_str()), false};
    char buf[EA_PING_MSG_SIZE] = "";
    PINGres r = {0, (int)sizeof(buf), buf};
    int rc = eactl_request(s, EA_PROC_PING, JXDR_PROC(PINGargs, jxdr_PINGargs), (char*)&a,
                           JXDR_PROC(PINGres, jxdr_PINGres), (char*)&r);
    if (rc != 0)
        return outcome(rc);
    time_t stamp = (time_t)r.stamp;
    char when[64] = "";
    strftime(when, sizeof(when), "%Y-%m-%d %H:%M:%S", localtime(&stamp));
    printf("reply: %s\nagent clock: %s (sp=%d)\n", r.msg, when, (int)r.stamp);
    return EACTL_OK;
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
                return rc < 0 ? EACTL_USAGE : bad_usage("exec", "unknown option");
        }
    }
    eactl_account_finish(&acct);
    std::string cmd = join_args(argc, argv, i);
    if (cmd.empty())
        return bad_usage("exec", "a command is required");
    if (s->checking)
        return EACTL_OK;

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
    return outcome(rc);
}

int eactl_cmd_status(EactlSession* s, int argc, char** argv)
{
    JOBSTATUSargs a = {0};
    if (argc == 3 && strcmp(argv[1], "--id") == 0)
        a.jobid = atoi(argv[2]);
    else if (argc != 1)
        return bad_usage("status", "usage: status [--id N]");
    if (s->checking)
        return EACTL_OK;
    JOB_STATUS r;
    memset(&r, 0, sizeof(r));
    int rc = eactl_request(s, EA_PROC_JOBSTATUS, JXDR_PROC(JOBSTATUSargs, jxdr_JOBSTATUSargs), (char*)&a,
                           JXDR_PROC(JOB_STATUS, jxdr_JOBSTATUSres), (char*)&r);
    if (rc != 0)
        return outcome(rc);
    if (r.sts == EACTL_JOB_ENDED) {
        printf("no job running; the last one %s\n", r.stg == 1 ? "finished" : "failed");
        return EACTL_OK;
    }
    printf("job running (status %u, type %u, phase %u)\n%s\n", r.sts, r.typ, r.stg,
           eactl_progress_line(r, -1).c_str());
    printf("processed %s, written %s at %.1f MiB/s\n", eactl_bytes(r.dt_fin << 10).c_str(),
           eactl_bytes(r.processed_data_w << 10).c_str(), eactl_mib_per_s(r.throughput_w));
    if (r.job_statistic.DataIsValid)
        printf("statistics: total %s, unique %s, compressed %s, deduplication %s\n",
               eactl_bytes(r.job_statistic.TotalDataSize).c_str(),
               eactl_bytes(r.job_statistic.UniqueDataSize).c_str(),
               eactl_bytes(r.job_statistic.CompressedDataSize).c_str(),
               r.job_statistic.DedupFlag ? "on" : "off");
    eactl_print_activity(s, r.act_size ? r.act_log : NULL);
    return EACTL_OK;
}

void eactl_print_activity(EactlSession* s, const char* text)
{
    time_t now = time(NULL);
    for (const char* at = text; at && *at;) {
        const char* nl = strchr(at, '\n');
        std::string line = nl ? std::string(at, nl) : std::string(at);
        std::string shown = eactl_activity_line(line.c_str(), now);
        if (s->tty)
            printf("\r%-79s\n", shown.c_str());   /* over a progress line */
        else
            printf("%s\n", shown.c_str());
        at = nl ? nl + 1 : at + line.size();
    }
}

int eactl_cmd_log(EactlSession* s, int argc, char** argv)
{
    if (argc != 1)
        return bad_usage("log", "takes no arguments");
    if (s->checking)
        return EACTL_OK;
    AGENTLOGres r = {0, NULL};
    int rc = eactl_request(s, EA_PROC_AGENTLOG, jxdr_Noargs, NULL,
                           JXDR_PROC(AGENTLOGres, jxdr_AGENTLOGres), (char*)&r);
    if (rc != 0)
        return outcome(rc);
    if (r.logSize > 0 && r.pLog && r.pLog[0])
        eactl_print_activity(s, r.pLog);
    else
        printf("(no new activity)\n");
    return EACTL_OK;
}

int eactl_cmd_result(EactlSession* s, int argc, char** argv)
{
    if (argc != 1)
        return bad_usage("result", "takes no arguments");
    if (s->checking)
        return EACTL_OK;
    JOB_RESULT r;
    memset(&r, 0, sizeof(r));
    int rc = eactl_request(s, EA_PROC_JOBRESULT, jxdr_Noargs, NULL,
                           JXDR_PROC(JOB_RESULT, jxdr_JOBRESULTres), (char*)&r);
    if (rc == 0)
        printf("%s\n", eactl_result_text(r).c_str());
    return outcome(rc);
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
                return rc < 0 ? EACTL_USAGE : bad_usage("mount", "unknown option");
        } else if (location.empty()) {
            location = argv[i];
        } else {
            return bad_usage("mount", "one location only");
        }
    }
    eactl_account_finish(&acct);
    if (location.empty())
        return bad_usage("mount", "a location is required");
    if (s->checking)
        return EACTL_OK;
    Mountargs a = {const_cast<char*>(location.c_str()), const_cast<char*>(acct.user.c_str()),
                   const_cast<char*>(acct.passwd.c_str()), const_cast<char*>(point.c_str())};
    char buf[EA_MOUNT_POINT_SIZE] = "";
    Mountres r = {0, 0, buf};
    int rc = eactl_request(s, EA_PROC_MOUNT, JXDR_PROC(Mountargs, jxdr_Mountargs), (char*)&a,
                           JXDR_PROC(Mountres, jxdr_Mountres), (char*)&r);
    if (rc != 0)
        return outcome(rc);
    if (r.ret == 0)
        printf("mounted on %s\n", r.mount_point);
    else
        printf("mount failed (ret %d); the agent's log has the reason\n", r.ret);
    return EACTL_OK;
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
                return rc < 0 ? EACTL_USAGE : bad_usage("vmdetect", "unknown option");
        }
    }
    eactl_account_finish(&acct);
    if (s->checking)
        return EACTL_OK;
    ExecCmdargs a;
    fill_exec_args(&a, uuid, acct);
    VMDetectInfo_t r = {0, 0, 0, 0};
    int rc = eactl_request(s, EA_PROC_VMDETECT, JXDR_PROC(ExecCmdargs, jxdr_ExecCmdargs), (char*)&a,
                           JXDR_PROC(VMDetectInfo_t, jxdr_VMDetectres), (char*)&r);
    if (rc != 0)
        return outcome(rc);
    printf("virtual machine: %s\njob running here: %s\nsockets: %d\noracle uek: %s\n",
           r.vpt_type ? "yes" : "no", r.is_local ? "yes" : "no", r.socks,
           r.is_oracle_uek ? "yes" : "no");
    return EACTL_OK;
}

int eactl_cmd_checkmachine(EactlSession* s, int argc, char** argv)
{
    EactlAccount acct = {"", "", 0};
    std::string cmd;
    int rc = parse_account_and_text(argc, argv, &acct, &cmd, true);
    if (rc != 0 || s->checking)
        return rc;
    ExecCmdargs a;
    fill_exec_args(&a, cmd, acct);
    a.need_get_return_msg_flag = 1;
    ExecCmdres r = {0, 0, NULL};
    rc = eactl_request(s, EA_PROC_CHECK_MACHINE, JXDR_PROC(ExecCmdargs, jxdr_ExecCmdargs),
                       (char*)&a, JXDR_PROC(ExecCmdres, jxdr_ExecCmdres), (char*)&r);
    if (rc == 0)
        print_exec_result(&r);
    return outcome(rc);
}
