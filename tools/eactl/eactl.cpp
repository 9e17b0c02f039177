/*
 * eactl.cpp - kvx-eactl: deploys kvx_ea on this machine or over ssh on many
 * nodes, the way the backup server does, and calls its procedures.
 *
 *   kvx-eactl [OPTIONS] COMMAND [ARGS...] [then COMMAND [ARGS...]]...
 *
 * Each node gets a fresh agent (a copy of kvx_ea in a new target directory,
 * started under a shell of its own), runs the commands in order in one
 * session, then closes the agent's input and removes what was deployed.
 */
#include "eactl.h"

#include <jansson.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#ifndef KVX_VERSION
#define KVX_VERSION "unknown"
#endif

namespace {

typedef int (*eactl_cmd_t)(EactlSession*, int, char**);

struct EactlCommand {
    const char* name;
    int         fn;      /* the procedure its replies come from */
    eactl_cmd_t run;
    const char* usage;
};

const EactlCommand commands[] = {
    {"ping",         EA_PROC_PING,          eactl_cmd_ping,         "ping TEXT                     echo TEXT and show the agent's clock"},
    {"exec",         EA_PROC_EXEC_CMD,      eactl_cmd_exec,         "exec [--msg|--wait|--background] [--jobid N] [ACCOUNT] CMD\n"
                                                                    "                                run a shell command (default --msg: return its output)"},
    {"status",       EA_PROC_JOBSTATUS,     eactl_cmd_status,       "status [--id N]               progress of the background backup job"},
    {"log",          EA_PROC_AGENTLOG,      eactl_cmd_log,          "log                           activity log lines since the last fetch"},
    {"result",       EA_PROC_JOBRESULT,     eactl_cmd_result,       "result                        the finished job's result record"},
    {"mount",        EA_PROC_MOUNT,         eactl_cmd_mount,        "mount LOCATION [--point DIR] [--user U] [--passwd-file F]\n"
                                                                    "                                mount a session location (NFS, CIFS, local)"},
    {"vmdetect",     EA_PROC_VMDETECT,      eactl_cmd_vmdetect,     "vmdetect [--uuid UUID] [ACCOUNT]  VM, job-running, socket and UEK flags"},
    {"checkmachine", EA_PROC_CHECK_MACHINE, eactl_cmd_checkmachine, "checkmachine CMD [ACCOUNT]    machine check (or kvx_ea_check_set_lock.cmd)"},
    {"demo",         0,                     eactl_cmd_demo,         "demo [--seconds N] [--exit CODE]  simulated backup from start to result"},
};

void usage(FILE* out)
{
    fprintf(out,
            "usage: kvx-eactl [OPTIONS] COMMAND [ARGS...] [then COMMAND [ARGS...]]...\n\n"
            "options:\n"
            "  --host HOST        deploy over ssh on HOST (repeat for more nodes)\n"
            "  --hosts-file FILE  one ssh destination per line\n"
            "  --ssh COMMAND      the ssh command and its options (default: ssh)\n"
            "  --parallel N       nodes served at once (default 8)\n"
            "  --timeout S        seconds a node may take, 0 for no limit (default 120)\n"
            "  --json             one JSON line per reply, each with \"host\"\n"
            "  -v, --verbose      show what was deployed and the agent's standard error\n"
            "  --agent PATH       deploy this agent instead of the one for the node\n"
            "  --target DIR       deploy into DIR instead of a fresh /tmp/kvx-eactl.XXXXXX\n"
            "  --keep             leave the target directory behind\n"
            "  --version          print the version\n\n"
            "commands:\n");
    for (const EactlCommand& c : commands)
        fprintf(out, "  %s\n", c.usage);
    fprintf(out,
            "\nACCOUNT: --user NAME (su), --sudo (sudo as the agent's user), --passwd-file FILE\n"
            "         (the password may also come from $KVX_EACTL_PASSWD; never from the command line)\n"
            "Without --agent PATH the agent that fits the node's \"uname -m\" is deployed:\n"
            "kvx_ea-static for a remote x86_64 node, kvx_ea-i386 for i386 to i686.\n");
}

const EactlCommand* find_command(const char* name)
{
    for (const EactlCommand& c : commands)
        if (strcmp(c.name, name) == 0)
            return &c;
    return nullptr;
}

const char* command_of(int fn)
{
    for (const EactlCommand& c : commands)
        if (c.fn == fn)
            return c.name;
    return "call";
}

const char* call_error_text(int rc)
{
    switch (rc) {
    case -1: return "empty read or reply could not be written";
    case -2: return "the agent closed the connection";
    case -3: return "the request envelope could not be made";
    case -5: return "the reply is not an envelope";
    default: return "unknown failure";
    }
}

/* One JSON line: {"host": ..., and the given members}. */
void print_json_line(const EactlSession* s, json_t* members)
{
    json_t* line = json_pack("{s:s}", "host", s->node.c_str());
    json_object_update(line, members);
    char* text = json_dumps(line, 0);
    if (text)
        printf("%s\n", text);
    free(text);
    json_decref(line);
    json_decref(members);
}

void print_node_result(const EactlSession* s, int rc)
{
    const char* word = rc == EACTL_OK ? "ok" : rc == EACTL_UNREACHABLE ? "unreachable" : "failed";
    print_json_line(s, json_pack("{s:s}", "result", word));
}

/* Reads a whole number within [low, high]; false with a message otherwise. */
bool number_option(const char* opt, const char* value, int low, int high, int* out)
{
    char* end = NULL;
    long v = strtol(value, &end, 10);
    if (end == value || *end != '\0' || v < low || v > high) {
        fprintf(stderr, "kvx-eactl: %s takes a whole number from %d to %d\n", opt, low, high);
        return false;
    }
    *out = (int)v;
    return true;
}

/* Parses the options before the first command; the index of that command,
 * or -1 (usage printed) / 0 (done: help or version) when nothing runs. */
int parse_options(int argc, char** argv, EactlSession* s, std::vector<std::string>* hosts,
                  int* parallel, int* status)
{
    *status = EACTL_USAGE;
    int i = 1;
    for (; i < argc && argv[i][0] == '-'; i++) {
        const char* opt = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        bool takes = true;
        if (strcmp(opt, "--json") == 0) {
            s->json = true, takes = false;
        } else if (strcmp(opt, "--keep") == 0) {
            s->keep = true, takes = false;
        } else if (strcmp(opt, "-v") == 0 || strcmp(opt, "--verbose") == 0) {
            s->verbose = true, takes = false;
        } else if (strcmp(opt, "-h") == 0 || strcmp(opt, "--help") == 0) {
            usage(stdout);
            *status = EACTL_OK;
            return 0;
        } else if (strcmp(opt, "--version") == 0) {
            printf("kvx-eactl %s\n", KVX_VERSION);
            *status = EACTL_OK;
            return 0;
        } else if (!value) {
            break;
        } else if (strcmp(opt, "--host") == 0) {
            /* ssh would read a destination that starts with '-' as one of its options. */
            if (value[0] == '-' || value[0] == '\0') {
                fprintf(stderr, "kvx-eactl: --host '%s' is not an ssh destination\n", value);
                return -1;
            }
            hosts->push_back(value);
        } else if (strcmp(opt, "--hosts-file") == 0) {
            if (eactl_read_hosts(value, hosts) != 0)
                return -1;
        } else if (strcmp(opt, "--ssh") == 0) {
            s->ssh = eactl_split_command(value);
            if (s->ssh.empty()) {
                fprintf(stderr, "kvx-eactl: --ssh '%s' names no command\n", value);
                return -1;
            }
        } else if (strcmp(opt, "--parallel") == 0) {
            if (!number_option(opt, value, 1, 1000, parallel))
                return -1;
        } else if (strcmp(opt, "--timeout") == 0) {
            if (!number_option(opt, value, 0, 86400, &s->timeout_s))
                return -1;
        } else if (strcmp(opt, "--agent") == 0) {
            s->agent_path = value;
        } else if (strcmp(opt, "--target") == 0) {
            s->target_dir = value;
        } else {
            break;
        }
        if (takes)
            i++;
    }
    if (i >= argc || argv[i][0] == '-') {
        if (i < argc)
            fprintf(stderr, "kvx-eactl: unknown option or missing value: %s\n", argv[i]);
        usage(stderr);
        return -1;
    }
    return i;
}

/* Splits argv[first..] into commands at each "then" and checks each one's
 * arguments; EACTL_OK, or the first command's failure (reported). */
int plan_chain(EactlSession* s, int argc, char** argv, int first, std::vector<EactlStep>* chain)
{
    int begin = first;
    for (int k = first; k <= argc; k++) {
        if (k < argc && strcmp(argv[k], "then") != 0)
            continue;
        if (k == begin || !find_command(argv[begin])) {
            fprintf(stderr, "kvx-eactl: unknown or missing command '%s'\n",
                    k == begin ? "" : argv[begin]);
            usage(stderr);
            return EACTL_USAGE;
        }
        chain->push_back({begin, k - begin});
        begin = k + 1;
    }
    s->checking = true;
    for (const EactlStep& step : *chain) {
        int rc = find_command(argv[step.first])->run(s, step.count, argv + step.first);
        if (rc != EACTL_OK)
            return rc;
    }
    s->checking = false;
    return EACTL_OK;
}

} /* namespace */

int eactl_call(EactlSession* s, int fn, jxdrproc_t f_args, char* args, jxdrproc_t f_res, char* res)
{
    int rc = s->proto->call(fn, f_args, args, f_res, res);
    if (rc != 0) {
        s->failed = true;
        if (eactl_timed_out())
            eactl_error(s, "%s: timed out after %d s", command_of(fn), s->timeout_s);
        else
            eactl_error(s, "%s: procedure %d failed (%d): %s", command_of(fn), fn, rc,
                        call_error_text(rc));
    }
    return rc;
}

int eactl_request(EactlSession* s, int fn, jxdrproc_t f_args, char* args, jxdrproc_t f_res, char* res)
{
    if (eactl_call(s, fn, f_args, args, f_res, res) != 0)
        return -1;
    if (!s->json)
        return 0;
    JXDR* j = jxdr_create(NULL);
    if (!j)
        return 1;
    f_res(j, res);
    json_t* param = json_object_get(j->x_hd, "param");
    print_json_line(s, json_pack("{s:s, s:O}", "command", command_of(fn),
                                 "param", param ? param : json_object()));
    jxdr_destroy(j);
    return 1;
}

int eactl_run_node(EactlSession* s, const std::vector<EactlStep>& chain, char** argv)
{
    eactl_arm_timeout(s->timeout_s);
    int rc = eactl_deploy(s);
    for (size_t k = 0; rc == EACTL_OK && k < chain.size(); k++) {
        const EactlCommand* c = find_command(argv[chain[k].first]);
        if (c->run(s, chain[k].count, argv + chain[k].first) != EACTL_OK) {
            s->failed = true;
            rc = EACTL_FAILED;
        }
    }
    if (s->shell_pid > 0) {
        int status = eactl_finish(s);
        if (status > 0 && !eactl_timed_out())
            eactl_error(s, "the agent exited with status %d", status);
    }
    eactl_arm_timeout(0);
    if (s->json)
        print_node_result(s, rc);
    return rc;
}

int eactl_account_option(EactlAccount* acct, int argc, char** argv, int* i)
{
    const char* opt = argv[*i];
    if (strcmp(opt, "--sudo") == 0) {
        acct->sudo_flag = 1;
        return 1;
    }
    if (strcmp(opt, "--user") != 0 && strcmp(opt, "--passwd-file") != 0)
        return 0;
    if (*i + 1 >= argc) {
        fprintf(stderr, "kvx-eactl: %s needs a value\n", opt);
        return -1;
    }
    const char* value = argv[++*i];
    if (strcmp(opt, "--user") == 0) {
        acct->user = value;
        return 1;
    }
    FILE* f = fopen(value, "r");
    if (!f) {
        fprintf(stderr, "kvx-eactl: cannot read %s: %s\n", value, strerror(errno));
        return -1;
    }
    char line[128] = "";
    if (fgets(line, sizeof(line), f))
        line[strcspn(line, "\r\n")] = '\0';
    fclose(f);
    acct->passwd = line;
    return 1;
}

static std::string g_env_passwd;   /* $KVX_EACTL_PASSWD, taken out of the environment at start */

void eactl_account_finish(EactlAccount* acct)
{
    if (acct->passwd.empty())
        acct->passwd = g_env_passwd;
}

int main(int argc, char** argv)
{
    /* the password travels only inside requests: neither the agent nor its commands inherit it */
    if (const char* pw = getenv("KVX_EACTL_PASSWD"))
        g_env_passwd = pw;
    unsetenv("KVX_EACTL_PASSWD");
    EactlSession s;
    s.timeout_s = 120;
    std::vector<std::string> hosts;
    int parallel = 8, status = EACTL_USAGE;
    int first = parse_options(argc, argv, &s, &hosts, &parallel, &status);
    if (first <= 0)
        return status;

    std::vector<EactlStep> chain;
    int rc = plan_chain(&s, argc, argv, first, &chain);
    if (rc != EACTL_OK)
        return rc;   /* nothing was deployed */

    if (hosts.size() > 1)
        return eactl_run_nodes(s, hosts, parallel, chain, argv);
    if (!hosts.empty())
        s.host = hosts[0];
    s.tty = !s.json && isatty(STDOUT_FILENO);
    return eactl_run_node(&s, chain, argv) == EACTL_OK ? EACTL_OK : EACTL_FAILED;
}
