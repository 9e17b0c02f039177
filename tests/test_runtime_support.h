/*
 * test_runtime_support.h - helpers of the runtime tests: reading the agent
 * log, writing raw requests and reading raw replies, recording stubs.
 */
#ifndef TEST_RUNTIME_SUPPORT_H
#define TEST_RUNTIME_SUPPORT_H

#include <stdio.h>
#include <string.h>
#include <unistd.h>
#include <sys/wait.h>
#include <jansson.h>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "agent_harness.h"

/*
 * Deletes a harness only when its agent was started: the destructor of one
 * that never started would signal process group -1, that is every process
 * of the machine.  An unstarted harness is left (with its temp dir).
 */
struct HarnessDeleter {
    void operator()(AgentHarness* h) const
    {
        if (h->parent_pid() != -1)
            delete h;
    }
};
typedef std::unique_ptr<AgentHarness, HarnessDeleter> HarnessPtr;

/*
 * Number of log lines written from source src at line lineno (0: any line)
 * whose message contains text.  The header of a line ends in "%4d:%-20s ".
 */
static inline int log_count(const std::string& log, const char* src, int lineno,
                            const std::string& text)
{
    char tag[64];
    if (lineno > 0)
        snprintf(tag, sizeof(tag), "%4d:%-20s ", lineno, src);
    else
        snprintf(tag, sizeof(tag), ":%-20s ", src);
    std::istringstream in(log);
    std::string line;
    int n = 0;
    while (std::getline(in, line)) {
        size_t at = line.find(tag);
        if (at != std::string::npos && line.find(text, at + strlen(tag)) != std::string::npos)
            n++;
    }
    return n;
}

/* One request line; param_json "" leaves "param" out. */
static inline std::string request_line(int seq, int fn, const std::string& param_json)
{
    std::string line = "{\"ver\": 1, \"type\": 1, \"seq\": " + std::to_string(seq) +
                       ", \"fn\": " + std::to_string(fn) + ", \"status\": 0";
    if (!param_json.empty())
        line += ", \"param\": " + param_json;
    return line + "}";
}

/* "param" of procedure 3; block starts cmd in the background. */
static inline std::string exec_param(const std::string& cmd, bool block)
{
    json_t* p = json_pack("{s:s,s:b,s:b,s:i,s:s,s:s,s:i}", "str", cmd.c_str(), "msg_mode", 0,
                          "block_mode", block ? 1 : 0, "jobid", 0, "user", "", "passwd", "",
                          "sudoflag", 0);
    char* text = json_dumps(p, 0);
    std::string s = text ? text : "{}";
    free(text);
    json_decref(p);
    return s;
}

/* Next reply envelope (the empty record after each reply skipped); null if none. */
static inline json_t* read_reply(AgentHarness& h, int timeout_ms)
{
    std::string rec;
    while (h.read_raw(rec, timeout_ms)) {
        if (rec == "\n")
            continue;
        json_error_t err;
        return json_loads(rec.substr(0, rec.find('\0')).c_str(), 0, &err);
    }
    return NULL;
}

/* Sends procedure 3 and waits for its reply; true when one came. */
static inline bool run_cmd(AgentHarness& h, int seq, const std::string& cmd, bool block = false)
{
    h.send_raw(request_line(seq, 3, exec_param(cmd, block)));
    json_t* r = read_reply(h, 30000);
    json_decref(r);
    return r != NULL;
}

/* Polls the agent log for a line (10 s at most). */
static inline bool wait_log(const AgentHarness& h, const char* src, int lineno,
                            const std::string& text, int timeout_ms = 10000)
{
    for (int waited = 0; waited <= timeout_ms; waited += 20) {
        if (log_count(h.log(), src, lineno, text) > 0)
            return true;
        usleep(20000);
    }
    return false;
}

/* Stub that also appends its call line to journal (kept outside client_dir,
 * which the cleanup removes). */
static inline void add_journal_stub(AgentHarness& h, const std::string& journal,
                                    const std::string& name, int exit_code = 0,
                                    const std::string& extra_sh = "")
{
    h.add_stub(name, exit_code, "printf '%s\\n' \"$line\" >> " + journal + "\n" + extra_sh);
}

/*
 * Waits for the agent's disposable parent to end and returns its raw wait
 * status, -1 on time-out.  Call before wait_exit(), which would reap it
 * without telling how it ended.
 */
static inline int reap_parent(AgentHarness& h, int timeout_s)
{
    pid_t parent = h.parent_pid();
    for (int waited = 0; parent > 0 && waited < timeout_s * 50; waited++) {
        int st = 0;
        if (waitpid(parent, &st, WNOHANG) == parent)
            return st;
        usleep(20000);
    }
    return -1;
}

/* ---- a node prepared for the target cleanup ---- */

/* Stubs of the programs the cleanup runs, each also writing to journal; the
 * rm stub then really removes. */
static inline void add_cleanup_stubs(AgentHarness& h, const std::string& journal)
{
    const char* plain[] = {"driverinstall", "kvxmonitor", "killall", "umount"};
    for (const char* name : plain)
        add_journal_stub(h, journal, name);
    add_journal_stub(h, journal, "rm", 0, "exec /bin/rm \"$@\"");
}

/* Copies the server leaves on the node; all of them go in the cleanup. */
static inline std::vector<std::string> stage_product_files(AgentHarness& h)
{
    std::vector<std::string> files;
    const char* work_files[] = {
        "LinuxImage-backup-client-x86.tar.gz", "LinuxImage-backup-client-x64.tar.gz",
        "LinuxImage-restore-client-x86.tar.gz", "LinuxImage-restore-client-x64.tar.gz",
        "drv_target.lst", "a.js", "b.js",
    };
    for (const char* f : work_files)
        files.push_back(h.work_dir + "/" + f);
    files.push_back(h.boot_dir + "/checkmachine");
    for (const std::string& f : files)
        AgentHarness::write_file(f, "staged");
    files.push_back(h.boot_dir + "/kvx_ea");
    files.push_back(h.client_dir);
    return files;
}

/* The removal command as the rm stub records it (the shell expanded *.js). */
static inline std::string expected_rm_line(const AgentHarness& h)
{
    std::string w = h.work_dir + "///", b = h.boot_dir + "//";
    return "rm -rf " + w + "linux-kvx-client " + w + "LinuxImage-backup-client-x86.tar.gz " + w +
           "LinuxImage-backup-client-x64.tar.gz " + w + "LinuxImage-restore-client-x86.tar.gz " + w +
           "LinuxImage-restore-client-x64.tar.gz " + w + "drv_target.lst " + w + "a.js " + w +
           "b.js " + b + "/checkmachine " + b + "kvx_ea";
}

static inline std::vector<std::string> read_lines(const std::string& path)
{
    std::vector<std::string> lines;
    std::istringstream in(AgentHarness::read_file(path));
    std::string line;
    while (std::getline(in, line))
        lines.push_back(line);
    return lines;
}

#endif /* TEST_RUNTIME_SUPPORT_H */
