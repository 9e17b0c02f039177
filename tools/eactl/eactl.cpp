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

#include <ctype.h>
#include <errno.h>
#include <getopt.h>
#include <jansson.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#ifndef KVX_VERSION
#define KVX_VERSION "unknown"
#endif

namespace {

const char* g_main_argv0 = nullptr;

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
            "  -w, --host HOSTS       deploy over ssh on HOSTS: names, comma lists, ranges\n"
            "                         as in web[01-12] or n[1-3,7] (repeat for more)\n"
            "  -x, --exclude HOSTS    leave these hosts out\n"
            "  --hosts-file FILE      one host pattern per line; - reads standard input\n"
            "  --inventory FILE       the hosts of an Ansible inventory (ansible-inventory)\n"
            "  --limit PATTERN        only the inventory's hosts that match this pattern\n"
            "  --ssh COMMAND          the ssh command and its options (default: ssh)\n"
            "  --no-reuse             one new ssh connection per call, no shared one\n"
            "  --parallel N           nodes served at once (default 8)\n"
            "  --connect-timeout S    seconds until a node's shell answers (default 15)\n"
            "  --command-timeout S    seconds a node's commands may take, 0 for no limit\n"
            "                         (default 120; --timeout is the same)\n"
            "  --json                 one JSON record per line\n"
            "  -v, --verbose          show what was deployed and the agent's standard error\n"
            "  --agent PATH           deploy this agent instead of the one for the node\n"
            "  --target DIR           deploy into DIR instead of a fresh kvx-eactl.XXXXXX\n"
            "                         in /tmp (or $TMPDIR, /var/tmp, $HOME where /tmp\n"
            "                         cannot run programs)\n"
            "  --keep                 leave the target directory behind\n"
            "  -h, --help             this text; COMMAND --help shows the command's\n"
            "  --version              print the version\n\n"
            "commands:\n");
    for (const EactlCommand& c : commands)
        fprintf(out, "  %s\n", c.usage);
    fprintf(out,
            "\nACCOUNT: --user NAME (su), --sudo (sudo as the agent's user), --passwd-file FILE\n"
            "         (the password may also come from $KVX_EACTL_PASSWD; never from the command line)\n"
            "Without --agent PATH the agent that fits the node's \"uname -m\" is deployed:\n"
            "kvx_ea-static for a remote x86_64 node, kvx_ea-i386 for i386 to i686.\n"
            "Exit status: 0 all ok, 1 a command failed, 2 usage, 4 a node unreachable or\n"
            "timed out, 130/143 interrupted.\n");
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

enum {
    OPT_HOSTS_FILE = 256, OPT_INVENTORY, OPT_LIMIT, OPT_SSH, OPT_NO_REUSE, OPT_PARALLEL,
    OPT_CONNECT_TIMEOUT, OPT_COMMAND_TIMEOUT, OPT_JSON, OPT_AGENT, OPT_TARGET, OPT_KEEP,
    OPT_VERSION,
};

const struct option kOptions[] = {
    {"host", required_argument, nullptr, 'w'},
    {"exclude", required_argument, nullptr, 'x'},
    {"hosts-file", required_argument, nullptr, OPT_HOSTS_FILE},
    {"inventory", required_argument, nullptr, OPT_INVENTORY},
    {"limit", required_argument, nullptr, OPT_LIMIT},
    {"ssh", required_argument, nullptr, OPT_SSH},
    {"no-reuse", no_argument, nullptr, OPT_NO_REUSE},
    {"parallel", required_argument, nullptr, OPT_PARALLEL},
    {"connect-timeout", required_argument, nullptr, OPT_CONNECT_TIMEOUT},
    {"command-timeout", required_argument, nullptr, OPT_COMMAND_TIMEOUT},
    {"timeout", required_argument, nullptr, OPT_COMMAND_TIMEOUT},
    {"json", no_argument, nullptr, OPT_JSON},
    {"verbose", no_argument, nullptr, 'v'},
    {"agent", required_argument, nullptr, OPT_AGENT},
    {"target", required_argument, nullptr, OPT_TARGET},
    {"keep", no_argument, nullptr, OPT_KEEP},
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, OPT_VERSION},
    {nullptr, 0, nullptr, 0},
};

/* Where the nodes come from. */
struct HostOptions {
    std::vector<std::string> names, exclude;
    std::string inventory, limit;
    bool listed = false;   /* a list (range, file, inventory, several): prefixes and a summary */
    bool reuse = true;     /* share ssh connections (--no-reuse turns it off) */
};

/* Parses the options before the first command; the index of that command,
 * or -1 (reported) / 0 (done: help or version) when nothing runs. */
int parse_options(int argc, char** argv, EactlSession* s, HostOptions* h, int* parallel,
                  int* status)
{
    *status = EACTL_USAGE;
    long n = 0;
    int opt, hosts_given = 0;
    while ((opt = eactl_getopt(argc, argv, "+w:x:vh", kOptions)) != -1) {
        switch (opt) {
        case 'h':
            usage(stdout);
            *status = EACTL_OK;
            return 0;
        case OPT_VERSION:
            printf("kvx-eactl %s\n", KVX_VERSION);
            *status = EACTL_OK;
            return 0;
        case 'w':
            /* ssh would read a destination that starts with '-' as one of its options. */
            if (optarg[0] == '-' || optarg[0] == '\0') {
                fprintf(stderr, "kvx-eactl: --host '%s' is not an ssh destination\n", optarg);
                return -1;
            }
            if (eactl_expand_hosts(optarg, &h->names) != 0)
                return -1;
            h->listed = h->listed || strpbrk(optarg, "[,") || ++hosts_given > 1;
            break;
        case 'x':
            if (eactl_expand_hosts(optarg, &h->exclude) != 0)
                return -1;
            break;
        case OPT_HOSTS_FILE:
            if (eactl_read_hosts(optarg, &h->names) != 0)
                return -1;
            h->listed = true;
            break;
        case OPT_INVENTORY:
            h->inventory = optarg;
            h->listed = true;
            break;
        case OPT_LIMIT:
            h->limit = optarg;
            break;
        case OPT_SSH:
            s->ssh = eactl_split_command(optarg);
            if (s->ssh.empty()) {
                fprintf(stderr, "kvx-eactl: --ssh '%s' names no command\n", optarg);
                return -1;
            }
            break;
        case OPT_NO_REUSE:
            h->reuse = false;
            break;
        case OPT_PARALLEL:
            if (!eactl_number(NULL, "--parallel", optarg, 1, 1000, &n))
                return -1;
            *parallel = (int)n;
            break;
        case OPT_CONNECT_TIMEOUT:
            if (!eactl_number(NULL, "--connect-timeout", optarg, 1, 3600, &n))
                return -1;
            s->connect_timeout_s = (int)n;
            break;
        case OPT_COMMAND_TIMEOUT:
            if (!eactl_number(NULL, "--command-timeout", optarg, 0, 86400, &n))
                return -1;
            s->timeout_s = (int)n;
            break;
        case OPT_JSON:
            s->json = true;
            break;
        case 'v':
            s->verbose = true;
            break;
        case OPT_AGENT:
            s->agent_path = optarg;
            break;
        case OPT_TARGET:
            s->target_dir = optarg;
            break;
        case OPT_KEEP:
            s->keep = true;
            break;
        default:
            return -1;
        }
    }
    if (!h->limit.empty() && h->inventory.empty()) {
        fprintf(stderr, "kvx-eactl: --limit selects from an --inventory; try --help\n");
        return -1;
    }
    if (optind >= argc) {
        fprintf(stderr, "kvx-eactl: a command is required; try --help\n");
        return -1;
    }
    return optind;
}

/* Splits argv[first..] into commands at each "then" and checks each one's
 * arguments; EACTL_OK, EACTL_HELP, or the first command's failure (reported). */
int plan_chain(EactlSession* s, int argc, char** argv, int first, std::vector<EactlStep>* chain)
{
    int begin = first;
    for (int k = first; k <= argc; k++) {
        if (k < argc && strcmp(argv[k], "then") != 0)
            continue;
        if (k == begin || !find_command(argv[begin])) {
            if (k == begin)
                fprintf(stderr, "kvx-eactl: a command is missing %s 'then'; try --help\n",
                        k == first ? "before" : "after");
            else
                fprintf(stderr, "kvx-eactl: unknown command '%s'; try --help\n", argv[begin]);
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

/* The nodes the options name, without duplicates and excluded ones;
 * 0, or -1 (reported). */
int select_nodes(const HostOptions& h, std::vector<EactlNode>* nodes)
{
    if (!h.inventory.empty() && eactl_read_inventory(h.inventory, h.limit, nodes) != 0)
        return -1;
    eactl_add_nodes(h.names, nodes);
    eactl_exclude_nodes(h.exclude, nodes);
    if (nodes->empty() && (h.listed || !h.exclude.empty())) {
        fprintf(stderr, "kvx-eactl: no host left to run on\n");
        return -1;
    }
    return 0;
}

} /* namespace */

void eactl_print_json(const EactlSession* s, json_t* rec)
{
    json_t* line = json_pack("{s:s}", "host", s->node.c_str());
    json_object_update(line, rec);
    char* text = json_dumps(line, JSON_REAL_PRECISION(12));
    if (text)
        printf("%s\n", text);
    free(text);
    json_decref(line);
    json_decref(rec);
}

int eactl_call(EactlSession* s, int fn, jxdrproc_t f_args, char* args, jxdrproc_t f_res, char* res)
{
    int rc = s->proto->call(fn, f_args, args, f_res, res);
    if (rc != 0) {
        s->failed = true;
        if (eactl_interrupted())
            eactl_error(s, "%s: interrupted", command_of(fn));
        else if (eactl_timed_out())
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
    return eactl_print_reply(s, fn, f_res, res, nullptr);
}

int eactl_print_reply(EactlSession* s, int fn, jxdrproc_t f_res, char* res, json_t* extra)
{
    if (!s->json) {
        json_decref(extra);
        return 0;
    }
    JXDR* j = jxdr_create(NULL);
    if (!j) {
        json_decref(extra);
        return 1;
    }
    f_res(j, res);
    json_t* param = json_object_get(j->x_hd, "param");
    json_t* rec = json_pack("{s:s, s:s, s:o}", "type", "reply", "command", command_of(fn),
                            "param", param ? json_incref(param) : json_object());
    eactl_readable_fields(fn, res, rec);
    if (extra)
        json_object_update(rec, extra);
    json_decref(extra);
    eactl_print_json(s, rec);
    jxdr_destroy(j);
    return 1;
}

int eactl_run_node(EactlSession* s, const std::vector<EactlStep>& chain, char** argv)
{
    eactl_arm_timeout(s->host.empty() ? s->timeout_s : s->connect_timeout_s + 2);
    int rc = eactl_deploy(s);
    if (rc == EACTL_OK)
        eactl_arm_timeout(s->timeout_s);
    bool any_failed = false;
    for (size_t k = 0; rc == EACTL_OK && k < chain.size(); k++) {
        const EactlCommand* c = find_command(argv[chain[k].first]);
        if (c->run(s, chain[k].count, argv + chain[k].first) != EACTL_OK) {
            any_failed = true;
            if (s->failed)
                rc = EACTL_FAILED;   /* a call failed: the session cannot go on */
        }
    }
    if (any_failed) {
        s->failed = true;
        rc = EACTL_FAILED;
    }
    if (s->shell_pid > 0) {
        int status = eactl_finish(s);
        if (status > 0 && !eactl_timed_out() && !eactl_interrupted()) {
            eactl_error(s, "the agent exited with status %d", status);
            rc = EACTL_FAILED;
            if (s->reason.empty())
                s->reason = "the agent exited with status " + std::to_string(status);
        }
    }
    bool timed_out = eactl_timed_out();
    eactl_arm_timeout(0);
    if (timed_out && !eactl_interrupted()) {
        rc = EACTL_UNREACHABLE;
        s->reason = "timed out";
    }
    if (rc == EACTL_OK && s->exit_status != 0)
        rc = EACTL_FAILED;
    if (rc != EACTL_OK && s->reason.empty())
        s->reason = rc == EACTL_UNREACHABLE ? "unreachable" : "a command failed";
    if (s->json) {
        json_t* rec = json_pack("{s:s, s:s, s:i}", "type", "node", "result",
                                rc == EACTL_OK ? "ok" : rc == EACTL_UNREACHABLE ? "unreachable" : "failed",
                                "status", s->exit_status);
        if (rc != EACTL_OK)
            json_object_set_new(rec, "reason", json_string(s->reason.c_str()));
        eactl_print_json(s, rec);
    }
    return rc;
}

int eactl_getopt(int argc, char** argv, const char* shortopts, const struct option* longopts)
{
    /* "+": options end at the first other word; ":": a missing value is told apart */
    std::string opts = std::string("+:") + (shortopts[0] == '+' ? shortopts + 1 : shortopts);
    opterr = 0;
    int opt = getopt_long(argc, argv, opts.c_str(), longopts, nullptr);
    if (opt != '?' && opt != ':')
        return opt;
    bool main_words = argv[0] == g_main_argv0;
    std::string cmd = main_words ? "" : std::string(" ") + argv[0];
    const char* word = optind - 1 < argc ? argv[optind - 1] : "";
    std::string bad = optopt > 0 && optopt < 128 && strncmp(word, "--", 2) != 0
                          ? std::string("-") + (char)optopt
                          : std::string(word, strcspn(word, "="));
    fprintf(stderr, "kvx-eactl%s: %s '%s'; try 'kvx-eactl%s --help'\n", cmd.c_str(),
            opt == ':' ? "a value is missing after" : "unknown option", bad.c_str(), cmd.c_str());
    return '?';
}

bool eactl_number(const char* cmd, const char* opt, const char* value, long low, long high,
                  long* out)
{
    char* end = NULL;
    errno = 0;
    long v = strtol(value, &end, 10);
    if (end == value || *end != '\0' || errno != 0 || v < low || v > high) {
        fprintf(stderr, "kvx-eactl%s%s: %s '%s': a whole number from %ld to %ld is expected\n",
                cmd ? " " : "", cmd ? cmd : "", opt, value, low, high);
        return false;
    }
    *out = v;
    return true;
}

void eactl_command_help(const char* name)
{
    const EactlCommand* c = find_command(name);
    if (c)
        printf("usage: kvx-eactl [OPTIONS] %s\n", c->usage);
}

int eactl_account_option(EactlAccount* acct, int opt, const char* value)
{
    if (opt == 'S') {
        acct->sudo_flag = 1;
        return 1;
    }
    if (opt == 'U') {
        acct->user = value;
        return 1;
    }
    if (opt != 'P')
        return 0;
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
    g_main_argv0 = argv[0];
    HostOptions h;
    int parallel = 8, status = EACTL_USAGE;
    int first = parse_options(argc, argv, &s, &h, &parallel, &status);
    if (first <= 0)
        return status;

    std::vector<EactlStep> chain;
    int rc = plan_chain(&s, argc, argv, first, &chain);
    if (rc != EACTL_OK)
        return rc == EACTL_HELP ? EACTL_OK : rc;   /* nothing was deployed */
    std::vector<EactlNode> nodes;
    if (select_nodes(h, &nodes) != 0)
        return EACTL_USAGE;
    if (h.reuse && !nodes.empty())
        s.control_dir = eactl_control_dir();
    eactl_catch_interrupts();

    if (h.listed || nodes.size() > 1)
        return eactl_run_nodes(s, nodes, parallel, chain, argv);
    if (!nodes.empty()) {
        s.host = nodes[0].dest;
        s.node = nodes[0].name;
        s.port = nodes[0].port;
        s.login = nodes[0].user;
    }
    s.tty = !s.json && isatty(STDOUT_FILENO);
    rc = eactl_run_node(&s, chain, argv);
    fflush(stdout);
    return eactl_interrupted() ? EACTL_SIGNALLED(eactl_interrupted()) : rc;
}
