/*
 * eactl.cpp - kvx-eactl: deploys kvx_ea on this machine or over ssh, the way
 * the backup server does, and calls its procedures.
 *
 *   kvx-eactl [--json] [--host HOST] [--agent PATH] [--target DIR] [--keep]
 *             COMMAND [ARGS...] [then COMMAND [ARGS...]]...
 *
 * Each invocation deploys a fresh agent (a copy of kvx_ea in a new target
 * directory, started under a shell of its own), runs the commands in order in
 * one session, then closes the agent's input and removes what it deployed.
 */
#include "eactl.h"

#include <jansson.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace {

typedef int (*eactl_cmd_t)(EactlSession*, int, char**);

struct EactlCommand {
    const char* name;
    eactl_cmd_t run;
    const char* usage;
};

const EactlCommand commands[] = {
    {"ping",         eactl_cmd_ping,         "ping TEXT                     echo TEXT and show the agent's clock"},
    {"exec",         eactl_cmd_exec,         "exec [--msg|--wait|--background] [--jobid N] [ACCOUNT] CMD\n"
                                             "                                run a shell command (default --msg: return its output)"},
    {"status",       eactl_cmd_status,       "status [--id N]               progress of the background backup job"},
    {"log",          eactl_cmd_log,          "log                           activity log lines since the last fetch"},
    {"result",       eactl_cmd_result,       "result                        the finished job's result record"},
    {"mount",        eactl_cmd_mount,        "mount LOCATION [--point DIR] [--user U] [--passwd-file F]\n"
                                             "                                mount a session location (NFS, CIFS, local)"},
    {"vmdetect",     eactl_cmd_vmdetect,     "vmdetect [--uuid UUID] [ACCOUNT]  VM, job-running, socket and UEK flags"},
    {"checkmachine", eactl_cmd_checkmachine, "checkmachine CMD [ACCOUNT]    machine check (or kvx_ea_check_set_lock.cmd)"},
    {"demo",         eactl_cmd_demo,         "demo [--seconds N] [--exit CODE]  simulated backup from start to result"},
};

void usage(FILE* out)
{
    fprintf(out,
            "usage: kvx-eactl [--json] [--host HOST] [--agent PATH] [--target DIR] [--keep]\n"
            "                 COMMAND [ARGS...] [then COMMAND [ARGS...]]...\n\n"
            "commands:\n");
    for (const EactlCommand& c : commands)
        fprintf(out, "  %s\n", c.usage);
    fprintf(out,
            "\nACCOUNT: --user NAME (su), --sudo (sudo as the agent's user), --passwd-file FILE\n"
            "         (the password may also come from $KVX_EACTL_PASSWD; never from the command line)\n"
            "--host HOST deploys over ssh; --json prints each reply's \"param\" as JSON.\n"
            "Without --agent PATH the agent beside this program that fits the node's \"uname -m\"\n"
            "is deployed: kvx_ea for x86_64, kvx_ea-i386 for i386 to i686.\n");
}

const EactlCommand* find_command(const char* name)
{
    for (const EactlCommand& c : commands)
        if (strcmp(c.name, name) == 0)
            return &c;
    return nullptr;
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

} /* namespace */

int eactl_call(EactlSession* s, int fn, jxdrproc_t f_args, char* args, jxdrproc_t f_res, char* res)
{
    int rc = s->proto->call(fn, f_args, args, f_res, res);
    if (rc != 0)
        fprintf(stderr, "kvx-eactl: procedure %d failed (%d): %s\n", fn, rc, call_error_text(rc));
    return rc;
}

void eactl_print_json(jxdrproc_t f_res, char* res)
{
    JXDR* j = jxdr_create(NULL);
    if (!j)
        return;
    f_res(j, res);
    json_t* param = json_object_get(j->x_hd, "param");
    char* text = param ? json_dumps(param, JSON_INDENT(2) | JSON_ENSURE_ASCII) : NULL;
    printf("%s\n", text ? text : "{}");
    free(text);
    jxdr_destroy(j);
}

int eactl_request(EactlSession* s, int fn, jxdrproc_t f_args, char* args, jxdrproc_t f_res, char* res)
{
    if (eactl_call(s, fn, f_args, args, f_res, res) != 0)
        return -1;
    if (!s->json)
        return 0;
    eactl_print_json(f_res, res);
    return 1;
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

void eactl_account_finish(EactlAccount* acct)
{
    const char* env = getenv("KVX_EACTL_PASSWD");
    if (acct->passwd.empty() && env)
        acct->passwd = env;
}

int main(int argc, char** argv)
{
    EactlSession s;
    s.keep = false;
    s.own_dir = false;
    s.json = false;
    s.shell_pid = -1;
    s.from_agent = s.to_agent = nullptr;
    s.channel = nullptr;
    s.proto = nullptr;
    s.agent_path = "";   /* eactl_deploy picks the agent for the node's architecture */

    int i = 1;
    for (; i < argc && argv[i][0] == '-'; i++) {
        const char* opt = argv[i];
        bool has_value = i + 1 < argc;
        if (strcmp(opt, "--json") == 0) {
            s.json = true;
        } else if (strcmp(opt, "--keep") == 0) {
            s.keep = true;
        } else if ((strcmp(opt, "--host") == 0) && has_value) {
            s.host = argv[++i];
        } else if ((strcmp(opt, "--agent") == 0) && has_value) {
            s.agent_path = argv[++i];
        } else if ((strcmp(opt, "--target") == 0) && has_value) {
            s.target_dir = argv[++i];
        } else if (strcmp(opt, "-h") == 0 || strcmp(opt, "--help") == 0) {
            usage(stdout);
            return 0;
        } else {
            usage(stderr);
            return 2;
        }
    }
    if (i >= argc) {
        usage(stderr);
        return 2;
    }

    /* Split the rest into commands at each "then", checking every name first. */
    std::vector<std::pair<int, int>> spans;
    int begin = i;
    for (int k = i; k <= argc; k++) {
        if (k == argc || strcmp(argv[k], "then") == 0) {
            if (k == begin || !find_command(argv[begin])) {
                fprintf(stderr, "kvx-eactl: unknown or missing command '%s'\n",
                        k == begin ? "" : argv[begin]);
                usage(stderr);
                return 2;
            }
            spans.push_back(std::make_pair(begin, k - begin));
            begin = k + 1;
        }
    }

    if (eactl_deploy(&s) != 0)
        return 1;
    int failed = 0;
    for (const auto& span : spans) {
        const EactlCommand* c = find_command(argv[span.first]);
        if (c->run(&s, span.second, argv + span.first) != 0) {
            failed = 1;
            break;
        }
    }
    int status = eactl_finish(&s);
    if (status > 0)
        fprintf(stderr, "kvx-eactl: the agent exited with status %d\n", status);
    return failed ? 1 : 0;
}
