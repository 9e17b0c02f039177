/*
 * eactl.h - the operator client: deploys kvx_ea as the backup server does and
 * calls its procedures, on this machine or on many nodes over ssh.
 */
#ifndef EACTL_H
#define EACTL_H

#include <getopt.h>
#include <stdio.h>
#include <sys/types.h>
#include <jansson.h>
#include <string>
#include <vector>
#include "exec_proto.h"
#include "ea_proto.h"

/* How a node ended: the exit status of a node's run and of the client.
 * With many nodes the client exits with the worst: unreachable over failed. */
enum {
    EACTL_OK = 0,
    EACTL_FAILED = 1,       /* a command, the agent or its deployment failed */
    EACTL_USAGE = 2,        /* bad arguments: nothing was deployed */
    EACTL_UNREACHABLE = 4,  /* the node never answered, or a time-out ended it */
    EACTL_HELP = 100,       /* --help was shown: nothing runs (never an exit status) */
};
/* The client's exit status after SIGINT or SIGTERM: 128 + the signal. */
#define EACTL_SIGNALLED(sig) (128 + (sig))

/* One node: its name in messages, and how ssh reaches it. */
typedef struct EactlNode {
    std::string name;   /* inventory name or ssh destination */
    std::string dest;   /* ssh destination (ansible_host, or the name) */
    std::string port;   /* ansible_port, "" = ssh's own */
    std::string user;   /* ansible_user, "" = ssh's own */
} EactlNode;

/* A file copied into the target directory with the agent. */
typedef struct EactlFile {
    std::string local;   /* file on this machine */
    std::string name;    /* path below the target directory */
} EactlFile;

/* One deployed agent and the client endpoint bound to it. */
typedef struct EactlSession {
    std::string host;                /* "" = this machine, else an ssh destination */
    std::string node;                /* the node's name in messages and JSON lines */
    std::vector<std::string> ssh;    /* the ssh command and its own options */
    std::string port;                /* ssh -p, "" = none */
    std::string login;               /* ssh -l, "" = none */
    std::string control_dir;         /* ssh ControlPath directory, "" = no reuse */
    std::string agent_hash;          /* sha256 of the agent, for the node's cache */
    std::string target_dir;          /* holds boot/kvx_ea and work/ on the node */
    std::string work_dir;
    std::string agent_path;          /* agent to deploy; "" = the one for the node */
    std::string machine;             /* the node's "uname -m" */
    std::vector<EactlFile> files;    /* more files to install with the agent */
    bool  keep = false;              /* leave the target directory behind */
    bool  own_dir = false;           /* the target directory is a fresh temporary one */
    bool  json = false;              /* print replies as JSON lines */
    bool  verbose = false;           /* show the node's standard error always */
    bool  checking = false;          /* commands only check their arguments */
    bool  tty = false;               /* progress may redraw one line */
    bool  failed = false;            /* a call failed: show the node's standard error */
    int   timeout_s = 0;             /* time-out of a node's commands, 0 = none */
    int   connect_timeout_s = 15;    /* time-out until the node's shell answers */
    int   exit_status = 0;           /* worst exit status of a command the node ran */
    std::string reason;              /* why the node failed, for --json */
    time_t activity_since = 0;       /* this session drained the activity log then, 0 = never */
    pid_t shell_pid = -1;            /* the disposable parent (sh or ssh) */
    int   node_pgid = 0;             /* the process group of the node's shell */
    int   err_fd = -1;               /* captured standard error of that parent */
    FILE* from_agent = nullptr;
    FILE* to_agent = nullptr;
    STDIOChannel* channel = nullptr;
    ExecProto*    proto = nullptr;
} EactlSession;

/* Deploys and starts the agent through one shell (sh, or ssh's remote shell):
 * the node's architecture, the copy, the start and, when the session ends,
 * the removal all go through that one connection.  EACTL_OK, or
 * EACTL_FAILED / EACTL_UNREACHABLE with a message naming the node. */
int  eactl_deploy(EactlSession* s);
/* Starts args (argv[0] looked up in PATH) with its standard input and
 * output bound to the session's client endpoint and its standard error on
 * s->err_fd when that is set; new_session puts it in a session of its own.
 * 0 or -1 with a message on stderr. */
int  eactl_start(EactlSession* s, std::vector<std::string> args, bool new_session);
/* Closes the agent's input, waits for it and its shell (which removes the
 * target directory unless kept) and shows the node's standard error when
 * asked (-v) or when the session failed.  Returns the shell's exit status
 * (the agent's, or 255 from ssh), -1 when there was none. */
int  eactl_finish(EactlSession* s);

/* Finds an agent or helper program: beside this program (a build tree), then
 * in ../lib/kvx-ea (an installed package).  "" when it is in neither. */
std::string eactl_find_program(const char* name);
/* Agent file names that suit a node's "uname -m", best first; empty when
 * none is built for it.  A remote x86-64 node gets the static agent only. */
std::vector<std::string> eactl_agents_for(const std::string& machine, bool remote);
/* Splits an --ssh command into words (blanks separate; '...' and "..."
 * group).  Empty on an unbalanced quote. */
std::vector<std::string> eactl_split_command(const std::string& text);

/* "kvx-eactl: NODE: " and the message, on stderr. */
void eactl_error(const EactlSession* s, const char* fmt, ...)
    __attribute__((format(printf, 2, 3)));

/* Runs one procedure call; 0 or the endpoint's negative code (reported). */
int  eactl_call(EactlSession* s, int fn, jxdrproc_t f_args, char* args,
                jxdrproc_t f_res, char* res);
/* eactl_call for a subcommand: -1 when the call failed, 1 when the reply
 * was printed as a JSON line (--json), 0 when the caller prints it as text. */
int  eactl_request(EactlSession* s, int fn, jxdrproc_t f_args, char* args,
                   jxdrproc_t f_res, char* res);

/* With --json: prints the reply as a record of type "reply" (the wire's
 * "param", readable fields beside it and the members of extra, which it
 * takes) and returns 1; else 0 (the caller prints text). */
int  eactl_print_reply(EactlSession* s, int fn, jxdrproc_t f_res, char* res, json_t* extra);
/* Prints a JSON record with "host" added as one line; takes rec. */
void eactl_print_json(const EactlSession* s, json_t* rec);
/* Adds readable fields to a reply's record: sizes in bytes, rates in MiB/s,
 * times in ISO 8601 (eactl_units.cpp). */
void eactl_readable_fields(int fn, const char* res, json_t* rec);
/* The private directory of the shared ssh connections ($XDG_RUNTIME_DIR or
 * /tmp, made 0700 and checked), "" when none can be had. */
std::string eactl_control_dir();
/* The sha256 of a file in hex, "" when it cannot be read. */
std::string eactl_file_hash(const std::string& path);

/* Subcommands: argv[0] is the subcommand name.  With s->checking they only
 * check their arguments (and name the files they need installed).
 * EACTL_OK, EACTL_FAILED, or EACTL_USAGE with a message. */
int  eactl_cmd_ping(EactlSession* s, int argc, char** argv);
int  eactl_cmd_exec(EactlSession* s, int argc, char** argv);
int  eactl_cmd_status(EactlSession* s, int argc, char** argv);
int  eactl_cmd_log(EactlSession* s, int argc, char** argv);
int  eactl_cmd_result(EactlSession* s, int argc, char** argv);
int  eactl_cmd_mount(EactlSession* s, int argc, char** argv);
int  eactl_cmd_vmdetect(EactlSession* s, int argc, char** argv);
int  eactl_cmd_checkmachine(EactlSession* s, int argc, char** argv);
int  eactl_cmd_demo(EactlSession* s, int argc, char** argv);

/* sts of a job status reply when no job is running. */
#define EACTL_JOB_ENDED 10
/* Prints activity log text line by line as eactl_activity_line shows it.
 * The log carries no time of its own: the lines get the time of this fetch
 * only when this session drained the log just before (a poll apart), else
 * none; the drain is noted for the next fetch. */
void eactl_print_activity(EactlSession* s, const char* text);
/* Marks the activity log as drained now (a job that writes it has just started). */
void eactl_activity_drained(EactlSession* s);

/* One command of a chain: argv[first .. first + count). */
typedef struct EactlStep {
    int first;
    int count;
} EactlStep;
/* Deploys on s's node, runs the chain and removes the agent: EACTL_OK,
 * EACTL_FAILED or EACTL_UNREACHABLE.  A command that failed (an exit status,
 * a failed mount) does not stop the chain; a failed call does.  The connection has s->connect_timeout_s
 * seconds, the chain s->timeout_s. */
int  eactl_run_node(EactlSession* s, const std::vector<EactlStep>& chain, char** argv);
/* Runs the chain on every node, at most parallel at a time, each node's
 * output lines prefixed with its name (text) or whole (JSON lines), then
 * prints the summary.  EACTL_OK when every node succeeded, else
 * EACTL_UNREACHABLE when one was, else EACTL_FAILED; 128 + the signal when
 * SIGINT or SIGTERM ended the run. */
int  eactl_run_nodes(const EactlSession& proto, const std::vector<EactlNode>& nodes,
                     int parallel, const std::vector<EactlStep>& chain, char** argv);
/* The time-out of the node this process drives: when it expires, or on
 * SIGINT, SIGTERM or SIGHUP, the agent's input is closed so that the agent
 * ends and its shell removes the target; what has not ended a grace period
 * later is killed with the shell's process group, and the shell's pipes
 * are turned to /dev/null, so that no read or write can block past it.
 * 0 disarms the time-out. */
void eactl_arm_timeout(int seconds);
/* Installs the handlers of SIGINT, SIGTERM and SIGHUP for eactl_arm_timeout. */
void eactl_catch_interrupts();
/* The signal that interrupted the client, 0 when none did. */
int  eactl_interrupted();
/* eactl_start and eactl_finish register and drop the shell to stop. */
void eactl_watch_shell(pid_t pgid, int read_fd, int write_fd);
void eactl_unwatch_shell();
bool eactl_timed_out();
/* Whether the grace period ran out and the shell's group was killed. */
bool eactl_killed();
/* Waits for the shell at most the grace period once the input was closed
 * for a time-out or an interrupt; kills its group after that.  The wait
 * status, as waitpid gives it. */
int  eactl_wait_shell(pid_t pid);

/* Host lists (eactl_hosts.cpp). */
/* Expands a host pattern as pdsh and clush do: a comma list of names, each
 * with ranges in brackets ("web[01-12]", "n[1-3,7]", "r[1-2]n[1-2]");
 * 0, or -1 with a message. */
int  eactl_expand_hosts(const std::string& pattern, std::vector<std::string>* hosts);
/* Reads one host pattern per line from path, "-" for standard input (blank
 * lines and # comments skipped); 0, or -1 with a message. */
int  eactl_read_hosts(const char* path, std::vector<std::string>* hosts);
/* The hosts of an Ansible inventory (INI or YAML, through
 * "ansible-inventory --list"), limited by an Ansible pattern when limit is
 * not empty, with ansible_host, ansible_port and ansible_user; 0, or -1
 * with a message (naming the package when ansible-inventory is missing). */
int  eactl_read_inventory(const std::string& file, const std::string& limit,
                          std::vector<EactlNode>* nodes);
/* Appends the names to nodes, leaving out those already there and those
 * in exclude. */
void eactl_add_nodes(const std::vector<std::string>& names, std::vector<EactlNode>* nodes);
void eactl_exclude_nodes(const std::vector<std::string>& exclude, std::vector<EactlNode>* nodes);

/* Options (eactl.cpp). */
/* getopt_long over a command's argv (argv[0] its name): the next option,
 * -1 after the last, 'h' for --help, '?' after a one-line message naming
 * the bad option.  Options end at the first word that is not one, or "--". */
int  eactl_getopt(int argc, char** argv, const char* shortopts, const struct option* longopts);
/* Reads a whole number within [low, high]; false with a message otherwise. */
bool eactl_number(const char* cmd, const char* opt, const char* value, long low, long high,
                  long* out);
/* Prints a command's usage line to stdout (its --help). */
void eactl_command_help(const char* name);

/* Account options shared by exec, vmdetect, checkmachine and mount:
 * --user NAME, --passwd-file FILE (or $KVX_EACTL_PASSWD), --sudo. */
typedef struct EactlAccount {
    std::string user;
    std::string passwd;
    int         sudo_flag;
} EactlAccount;
#define EACTL_ACCOUNT_OPTIONS \
    {"user", required_argument, nullptr, 'U'}, \
    {"passwd-file", required_argument, nullptr, 'P'}, \
    {"sudo", no_argument, nullptr, 'S'}
/* Takes an account option that getopt returned; 1 if it was one, 0 if not,
 * -1 on error (reported). */
int  eactl_account_option(EactlAccount* acct, int opt, const char* value);
void eactl_account_finish(EactlAccount* acct);

/* Human units (eactl_units.cpp). */
/* "812.5 MiB", "6.5 GiB": bytes in the largest binary unit below them. */
std::string eactl_bytes(unsigned long long bytes);
/* "1:05", "1:02:03"; "--:--" for a negative count. */
std::string eactl_duration(long seconds);
/* MiB/s from a rate in KiB per minute, the unit of the job status replies. */
double eactl_mib_per_s(unsigned long long kib_per_min);
/* The progress line of a running job: the current volume's percent,
 * done and estimated total, the rate, elapsed time (seconds, < 0 unknown),
 * time left and the volume name.  At most width characters (1 to 383). */
std::string eactl_progress_line(const JOB_STATUS& st, long elapsed_s, int width);
/* Columns a line on the terminal may take: its width less one (the last
 * column would wrap), 79 when standard output is not a terminal.  Arms
 * SIGWINCH on the first call. */
int  eactl_line_width();
/* Whether the terminal changed its size since the last call. */
bool eactl_resized();
/* An activity log line "TYPE CODE TEXT" as "HH:MM:SS  level  TEXT (code N)",
 * at the given time ("--:--:--" for 0, unknown); a line of another form is
 * shown as it is. */
std::string eactl_activity_line(const char* line, time_t when);
/* The job result in words: what was read and written, at which rate. */
std::string eactl_result_text(const JOB_RESULT& r);

#endif /* EACTL_H */
