/*
 * eactl_cmds.cpp - one function per procedure: build the argument record,
 * call, print the result record as text or as the reply's JSON.
 */
#include "eactl.h"

#include <getopt.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <vector>

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

const struct option kHelpOnly[] = {{"help", no_argument, nullptr, 'h'}, {nullptr, 0, nullptr, 0}};

/* Parses a command that takes no option but --help; its first word that is
 * not an option, EACTL_HELP, or EACTL_USAGE (reported). */
int parse_plain(int argc, char** argv, int* first)
{
    optind = 0;
    int opt;
    while ((opt = eactl_getopt(argc, argv, "h", kHelpOnly)) != -1) {
        if (opt == 'h') {
            eactl_command_help(argv[0]);
            return EACTL_HELP;
        }
        return EACTL_USAGE;
    }
    *first = optind;
    return EACTL_OK;
}

/* Parses the account options and the rest as one command text. */
int parse_account_and_text(int argc, char** argv, EactlAccount* acct, std::string* text,
                           bool text_required)
{
    static const struct option opts[] = {EACTL_ACCOUNT_OPTIONS, {"help", no_argument, nullptr, 'h'},
                                         {nullptr, 0, nullptr, 0}};
    optind = 0;
    int opt;
    while ((opt = eactl_getopt(argc, argv, "h", opts)) != -1) {
        if (opt == 'h') {
            eactl_command_help(argv[0]);
            return EACTL_HELP;
        }
        if (opt == '?' || eactl_account_option(acct, opt, optarg) <= 0)
            return EACTL_USAGE;
    }
    eactl_account_finish(acct);
    *text = join_args(argc, argv, optind);
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

void print_exec_result(const ExecCmdres* r, int status)
{
    if (status != 0)
        printf("ret: %d, exit status %d\n", r->cmd_ret, status);
    else
        printf("ret: %d\n", r->cmd_ret);
    if (r->cmd && r->cmd_len > 0) {
        /* "retmsg_len" may claim more than the text received: stop at its end */
        int n = (int)strnlen(r->cmd, (size_t)r->cmd_len);
        printf("%.*s%s", n, r->cmd, n > 0 && r->cmd[n - 1] == '\n' ? "" : "\n");
    }
}

/* The command's exit status, when not 0, comes back in its output (message
 * mode) or in a file of the target (wait mode): the agent's reply has no
 * field for it. */
const char kExitMarker[] = "\037kvx-eactl-exit ";

std::string exit_file(const EactlSession* s)
{
    return s->target_dir + "/kvx-eactl.exit";
}

/* The command text that also reports its exit status; cmd itself when the
 * target's name cannot be written into it. */
std::string with_exit_report(const EactlSession* s, const std::string& cmd, bool msg)
{
    if (msg)
        return "trap 's=$?; [ \"$s\" = 0 ] || printf \"\\037kvx-eactl-exit %d\\n\" \"$s\"' EXIT; " + cmd;
    if (s->target_dir.find_first_of("\"$`\\'\n") != std::string::npos)
        return cmd;
    return "trap 's=$?; [ \"$s\" = 0 ] || echo \"$s\" >\"" + exit_file(s) + "\"' EXIT; " + cmd;
}

/* Takes the exit status out of a message-mode reply's text; 0 without one. */
int take_exit_marker(ExecCmdres* r)
{
    if (!r->cmd || r->cmd_len <= 0)
        return 0;
    size_t n = strnlen(r->cmd, (size_t)r->cmd_len);
    std::string text(r->cmd, n);
    size_t at = text.rfind(kExitMarker);
    if (at == std::string::npos)
        return 0;
    int status = atoi(text.c_str() + at + sizeof(kExitMarker) - 1);
    size_t end = text.find('\n', at);
    text.erase(at, end == std::string::npos ? std::string::npos : end + 1 - at);
    memcpy(r->cmd, text.c_str(), text.size() + 1);
    r->cmd_len = text.empty() ? 0 : (int)text.size() + 1;
    return status;
}

/* Reads the wait-mode exit status that the command left in the target. */
int read_exit_file(EactlSession* s)
{
    std::string cmd = "cat \"" + exit_file(s) + "\" 2>/dev/null; rm -f \"" + exit_file(s) + "\"";
    EactlAccount none = {"", "", 0};
    ExecCmdargs a;
    fill_exec_args(&a, cmd, none);
    a.need_get_return_msg_flag = 1;
    ExecCmdres r = {0, 0, NULL};
    if (eactl_call(s, EA_PROC_EXEC_CMD, JXDR_PROC(ExecCmdargs, jxdr_ExecCmdargs), (char*)&a,
                   JXDR_PROC(ExecCmdres, jxdr_ExecCmdres), (char*)&r) != 0 || r.cmd_ret != 0 || !r.cmd)
        return 1;
    int status = atoi(r.cmd);
    return status > 0 ? status : 1;
}

} /* namespace */

int eactl_cmd_ping(EactlSession* s, int argc, char** argv)
{
    int first = 1;
    int rc = parse_plain(argc, argv, &first);
    if (rc != EACTL_OK)
        return rc;
    std::string text = join_args(argc, argv, first);
    if (s->checking)
        return EACTL_OK;
    PINGargs a = {(int)text.size() + 1, const_cast<char*>(text.c_str()), false};
    char buf[EA_PING_MSG_SIZE] = "";
    PINGres r = {0, (int)sizeof(buf), buf};
    rc = eactl_request(s, EA_PROC_PING, JXDR_PROC(PINGargs, jxdr_PINGargs), (char*)&a,
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
    static const struct option opts[] = {
        {"msg", no_argument, nullptr, 'm'},
        {"wait", no_argument, nullptr, 'W'},
        {"background", no_argument, nullptr, 'b'},
        {"jobid", required_argument, nullptr, 'j'},
        EACTL_ACCOUNT_OPTIONS,
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    EactlAccount acct = {"", "", 0};
    int msg = 1, block = 0, opt;
    long jobid = 0;
    optind = 0;
    while ((opt = eactl_getopt(argc, argv, "h", opts)) != -1) {
        switch (opt) {
        case 'm': msg = 1, block = 0; break;
        case 'W': msg = 0, block = 0; break;
        case 'b': msg = 0, block = 1; break;
        case 'j':
            if (!eactl_number("exec", "--jobid", optarg, 0, 2147483647L, &jobid))
                return EACTL_USAGE;
            break;
        case 'h':
            eactl_command_help("exec");
            return EACTL_HELP;
        default:
            if (opt == '?' || eactl_account_option(&acct, opt, optarg) <= 0)
                return EACTL_USAGE;
        }
    }
    eactl_account_finish(&acct);
    std::string cmd = join_args(argc, argv, optind);
    if (cmd.empty())
        return bad_usage("exec", "a command is required");
    if (s->checking)
        return EACTL_OK;

    std::string sent = block ? cmd : with_exit_report(s, cmd, msg);
    ExecCmdargs a;
    fill_exec_args(&a, sent, acct);
    a.need_get_return_msg_flag = msg;
    a.block_flag = block;
    a.jobid = (int)jobid;
    ExecCmdres r = {0, 0, NULL};
    int rc = eactl_call(s, EA_PROC_EXEC_CMD, JXDR_PROC(ExecCmdargs, jxdr_ExecCmdargs),
                        (char*)&a, JXDR_PROC(ExecCmdres, jxdr_ExecCmdres), (char*)&r);
    if (rc != 0)
        return EACTL_FAILED;
    /* the reply's text lives in the channel until the next call */
    std::vector<char> text(r.cmd && r.cmd_len > 0 ? r.cmd : "", r.cmd && r.cmd_len > 0
                           ? r.cmd + strnlen(r.cmd, (size_t)r.cmd_len) : "");
    text.push_back('\0');
    r.cmd = text.data();
    r.cmd_len = text.size() > 1 ? (int)text.size() : 0;
    int status = 0;
    if (msg)
        status = take_exit_marker(&r);
    else if (!block && r.cmd_ret != 0)
        status = sent == cmd ? 1 : read_exit_file(s);
    bool agent_failed = status == 0 && r.cmd_ret != 0 && !block;   /* e.g. no output in message mode */
    if (status != 0) {
        s->exit_status = status;
        s->reason = "exit status " + std::to_string(status);
    } else if (agent_failed) {
        s->reason = "the agent answered ret " + std::to_string(r.cmd_ret);
    }
    if (eactl_print_reply(s, EA_PROC_EXEC_CMD, JXDR_PROC(ExecCmdres, jxdr_ExecCmdres), (char*)&r,
                          json_pack("{s:i}", "status", status)) == 0)
        print_exec_result(&r, status);
    return status == 0 && !agent_failed ? EACTL_OK : EACTL_FAILED;
}

int eactl_cmd_status(EactlSession* s, int argc, char** argv)
{
    static const struct option opts[] = {{"id", required_argument, nullptr, 'i'},
                                         {"help", no_argument, nullptr, 'h'},
                                         {nullptr, 0, nullptr, 0}};
    JOBSTATUSargs a = {0};
    long id = 0;
    int opt;
    optind = 0;
    while ((opt = eactl_getopt(argc, argv, "h", opts)) != -1) {
        if (opt == 'h') {
            eactl_command_help("status");
            return EACTL_HELP;
        }
        if (opt != 'i' || !eactl_number("status", "--id", optarg, 0, 2147483647L, &id))
            return EACTL_USAGE;
    }
    if (optind != argc)
        return bad_usage("status", "takes no arguments but --id N");
    a.jobid = (int)id;
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
           eactl_progress_line(r, -1, s->tty ? eactl_line_width() : 79).c_str());
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

int eactl_cmd_log(EactlSession* s, int argc, char** argv)
{
    int first = 1;
    int rc = parse_plain(argc, argv, &first);
    if (rc != EACTL_OK)
        return rc;
    if (first != argc)
        return bad_usage("log", "takes no arguments");
    if (s->checking)
        return EACTL_OK;
    AGENTLOGres r = {0, NULL};
    rc = eactl_request(s, EA_PROC_AGENTLOG, jxdr_Noargs, NULL,
                           JXDR_PROC(AGENTLOGres, jxdr_AGENTLOGres), (char*)&r);
    if (rc != 0)
        return outcome(rc);
    if (r.logSize > 0 && r.pLog && r.pLog[0])
        eactl_print_activity(s, r.pLog);
    else {
        eactl_activity_drained(s);
        printf("(no new activity)\n");
    }
    return EACTL_OK;
}

int eactl_cmd_result(EactlSession* s, int argc, char** argv)
{
    int first = 1;
    int rc = parse_plain(argc, argv, &first);
    if (rc != EACTL_OK)
        return rc;
    if (first != argc)
        return bad_usage("result", "takes no arguments");
    if (s->checking)
        return EACTL_OK;
    JOB_RESULT r;
    memset(&r, 0, sizeof(r));
    rc = eactl_request(s, EA_PROC_JOBRESULT, jxdr_Noargs, NULL,
                           JXDR_PROC(JOB_RESULT, jxdr_JOBRESULTres), (char*)&r);
    if (rc == 0)
        printf("%s\n", eactl_result_text(r).c_str());
    return outcome(rc);
}

int eactl_cmd_mount(EactlSession* s, int argc, char** argv)
{
    static const struct option opts[] = {{"point", required_argument, nullptr, 'p'},
                                         EACTL_ACCOUNT_OPTIONS,
                                         {"help", no_argument, nullptr, 'h'},
                                         {nullptr, 0, nullptr, 0}};
    EactlAccount acct = {"", "", 0};
    std::string location, point;
    int opt;
    optind = 0;
    while ((opt = eactl_getopt(argc, argv, "h", opts)) != -1) {
        if (opt == 'h') {
            eactl_command_help("mount");
            return EACTL_HELP;
        }
        if (opt == 'p')
            point = optarg;
        else if (opt == '?' || eactl_account_option(&acct, opt, optarg) <= 0)
            return EACTL_USAGE;
    }
    if (argc - optind > 1)
        return bad_usage("mount", "one location only");
    if (optind < argc)
        location = argv[optind];
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
    if (r.ret == 0) {
        printf("mounted on %s\n", r.mount_point);
        return EACTL_OK;
    }
    printf("mount failed (ret %d); the agent's log has the reason\n", r.ret);
    s->reason = "mount failed (ret " + std::to_string(r.ret) + ")";
    return EACTL_FAILED;
}

int eactl_cmd_vmdetect(EactlSession* s, int argc, char** argv)
{
    static const struct option opts[] = {{"uuid", required_argument, nullptr, 'u'},
                                         EACTL_ACCOUNT_OPTIONS,
                                         {"help", no_argument, nullptr, 'h'},
                                         {nullptr, 0, nullptr, 0}};
    EactlAccount acct = {"", "", 0};
    std::string uuid;
    int opt;
    optind = 0;
    while ((opt = eactl_getopt(argc, argv, "h", opts)) != -1) {
        if (opt == 'h') {
            eactl_command_help("vmdetect");
            return EACTL_HELP;
        }
        if (opt == 'u')
            uuid = optarg;
        else if (opt == '?' || eactl_account_option(&acct, opt, optarg) <= 0)
            return EACTL_USAGE;
    }
    if (optind != argc)
        return bad_usage("vmdetect", "takes no arguments but options");
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
        print_exec_result(&r, 0);
    return outcome(rc);
}
