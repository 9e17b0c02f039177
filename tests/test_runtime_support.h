// test_runtime_support.h - helpers of the runtime tests: the agent log, raw
// requests and replies, stubs recording into <root>/journal, a staged node.
#ifndef TEST_RUNTIME_SUPPORT_H
#define TEST_RUNTIME_SUPPORT_H

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <jansson.h>
#include <sstream>

#include <gtest/gtest.h>

#include "agent_harness.h"

// Number of log lines written from source src at line lineno (0: any line)
// whose message contains text.  A line's header ends in "%4d:%-20s ".
static inline int log_count(const std::string& log, const char* src, int lineno,
                            const std::string& text)
{
    char tag[64];
    snprintf(tag, sizeof(tag), lineno > 0 ? "%4d:%-20s " : "%.0d:%-20s ", lineno, src);
    std::istringstream in(log);
    int n = 0;
    for (std::string line; std::getline(in, line);) {
        size_t at = line.find(tag);
        n += at != std::string::npos && line.find(text, at + strlen(tag)) != std::string::npos;
    }
    return n;
}

// True once done() holds, polled every 20 ms for ms at most.
template <class F> static inline bool wait_until(F done, int ms = 10000)
{
    for (int i = 0; i < ms / 20; i++, usleep(20000))
        if (done())
            return true;
    return done();
}

// One request line; param_json "" leaves "param" out.
static inline std::string request_line(int seq, int fn, const std::string& param_json)
{
    return "{\"ver\": 1, \"type\": 1, \"seq\": " + std::to_string(seq) + ", \"fn\": " +
           std::to_string(fn) + ", \"status\": 0" +
           (param_json.empty() ? "" : ", \"param\": " + param_json) + "}";
}

// Next reply envelope (the empty record after each reply skipped); null if none.
static inline json_t* read_reply(AgentHarness& h, int timeout_ms = 15000)
{
    std::string rec;
    while (h.read_raw(rec, timeout_ms))
        if (rec != "\n")
            return json_loads(rec.substr(0, rec.find('\0')).c_str(), 0, NULL);
    return NULL;
}

// Runs cmd (no quotes in it) through procedure 3; true when answered.
static inline bool run_cmd(AgentHarness& h, int seq, const std::string& cmd, bool block = false)
{
    h.send_raw(request_line(seq, 3, "{\"str\": \"" + cmd + "\", \"msg_mode\": false, " +
                                        "\"block_mode\": " + (block ? "true" : "false") +
                                        ", \"jobid\": 0, \"user\": \"\", \"passwd\": \"\", \"sudoflag\": 0}"));
    json_t* r = read_reply(h, 30000);
    json_decref(r);
    return r != NULL;
}

// Starts cmd in the background; returns the pid its stub wrote to
// <root>/prog.pid, -1 when none came within 10 s.
static inline pid_t start_program(AgentHarness& h, int seq, const std::string& cmd)
{
    std::string pid;
    bool started = run_cmd(h, seq, cmd, true) && wait_until([&] {
        pid = AgentHarness::read_file(h.root + "/prog.pid");
        return !pid.empty() && pid.back() == '\n';
    });
    return started ? atoi(pid.c_str()) : -1;
}

// Waits (10 s at most) until process pid runs with argv[0] name: a fork
// is not yet the program it is about to execute.
static inline bool wait_exec(pid_t pid, const std::string& name)
{
    std::string cmdline = "/proc/" + std::to_string(pid) + "/cmdline";
    return wait_until([&] { return AgentHarness::read_file(cmdline).compare(0, name.size() + 1, name + '\0') == 0; });
}

// Stub that also appends its call line to <root>/journal, which outlives
// the client directory the cleanup removes.  Found from the stub's own
// directory ($d), so that any root path will do.
static inline void add_journal_stub(AgentHarness& h, const std::string& name, int exit_code = 0,
                                    const std::string& extra_sh = "")
{
    h.add_stub(name, exit_code, "printf '%s\\n' \"$line\" >> \"$d/../../journal\"\n" + extra_sh);
}

// ---- a node prepared for the target cleanup ----

// Stages job scripts and journal stubs of what the cleanup runs; "rm"
// removes for real.
static inline void stage_node(AgentHarness& h)
{
    AgentHarness::write_file(h.work_dir + "/a.js", "staged");
    AgentHarness::write_file(h.work_dir + "/b.js", "staged");
    for (const char* name : {"driverinstall", "kvxmonitor", "killall", "umount"})
        add_journal_stub(h, name);
    add_journal_stub(h, "rm", 0, "exec /bin/rm \"$@\"");
}

// After a cleanup the journal holds calls, then the driver unload, the
// product agent's kill and the removal of what the server copied (the
// shell expanded *.js).
static inline void expect_cleaned(const std::string& root, std::vector<std::string> calls)
{
    std::string w = " " + root + "/work///", rm = "rm -rf" + w + "linux-kvx-client";
    for (const char* f : {"LinuxImage-backup-client-x86.tar.gz", "LinuxImage-backup-client-x64.tar.gz",
                          "LinuxImage-restore-client-x86.tar.gz", "LinuxImage-restore-client-x64.tar.gz",
                          "drv_target.lst", "a.js", "b.js"})
        rm += w + f;
    calls.insert(calls.end(), {"driverinstall -u", "killall kvxagent",
                               rm + " " + root + "/boot///checkmachine " + root + "/boot//kvx_ea"});
    EXPECT_EQ(AgentHarness::read_lines(root + "/journal"), calls);
}

#endif // TEST_RUNTIME_SUPPORT_H
