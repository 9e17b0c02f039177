/*
 * agent_harness.h - runs a staged copy of kvx_ea as the backup server does.
 *
 * Each harness makes a private tree:
 *     <root>/boot/kvx_ea                 copy of the agent (TARGET_BOOTSTRAP_DIR)
 *     <root>/work/                       --targetworkdir (logs/ appear here)
 *     <root>/work/linux-kvx-client/      stubs; first on the agent's PATH
 * and starts the agent under a disposable parent process, so the agent's
 * cleanup (which deletes its own file and kills its parent) harms nothing.
 * The test process is a child subreaper, so an agent whose parent was killed
 * is re-parented to the test and its exit status can still be collected.
 *
 * The agent binary is $KVX_EA_BINARY if set, else KVX_BIN_DIR/kvx_ea; the
 * simulated backup program $KVX_SIM_BINARY if set, else
 * KVX_BIN_DIR/kvxbackupvol-sim.  With $KVX_EA_EMULATOR (an agent of another
 * CPU) both run through that program, e.g. qemu-aarch64-static.
 */
#ifndef AGENT_HARNESS_H
#define AGENT_HARNESS_H

#include <signal.h>
#include <sys/types.h>
#include <functional>
#include <string>
#include <vector>
#include "exec_proto.h"
#include "ea_proto.h"

class AgentHarness {
public:
    /* tree: the tree is <tmp>/<tree> instead of <tmp> itself, for a path
     * with blanks or quotes in it (<tmp> is private to the harness). */
    explicit AgentHarness(const std::string& tree = "");
    ~AgentHarness();

    std::string base, root, boot_dir, work_dir, client_dir;

    /* ---- node set-up before start() ---- */
    /* Stub program in client_dir that appends one line per call, the program
     * name and its arguments joined by single blanks, to client_dir/<name>.calls,
     * runs extra_sh (shell text, may be empty) and exits with exit_code.
     * A stub never reads standard input unless extra_sh does. */
    void add_stub(const std::string& name, int exit_code = 0, const std::string& extra_sh = "");
    /* Lines recorded by a stub, oldest first (empty when never called). */
    std::vector<std::string> stub_calls(const std::string& name) const;
    /* Executable /bin/sh script at an absolute path. */
    static void write_script(const std::string& path, const std::string& body);
    /* Copies the simulated backup program to client_dir/kvxbackupvol. */
    void install_simulator();
    /* Extra or overriding environment variable for the agent. */
    void set_env(const std::string& name, const std::string& value);
    /* Runs the agent (not its parent) as this account; the tree is chowned. */
    void run_as(uid_t uid, gid_t gid);
    /* As root the agent gets mount and IPC namespaces of its own, with a
     * private layer over /var/lib (product lock) and its own monitor key, so
     * that other agents on the machine cannot change an outcome.  A test
     * whose agents must share those with each other calls this first. */
    void share_node() { m_private = false; }
    /* The agent starts with RLIMIT_NOFILE at n and only descriptors 0-2. */
    void limit_files(int n) { m_nofile = n; }
    /* Runs fn in a child that joined the agent's namespaces (e.g. to make a
     * mount the agent should see); its result, false when it cannot join. */
    bool in_agent_namespaces(const std::function<bool()>& fn);

    /* ---- the agent process ---- */
    /* Starts the agent; args default to {"--targetworkdir", work_dir}. */
    bool start(const std::vector<std::string>& args = {}, bool default_args = true);
    /* ExecProto::call guarded by a watchdog: after timeout_ms the agent is
     * killed, which makes the call return -2. */
    int call(int fn, jxdrproc_t f_args, char* args, jxdrproc_t f_resp, char* resp,
             int timeout_ms = 30000);
    /* Writes text followed by "\n" (unless newline is false) to the agent's
     * standard input. */
    void send_raw(const std::string& text, bool newline = true);
    /* Reads one raw record (up to and including "\n") within timeout_ms;
     * false when nothing arrived. */
    bool read_raw(std::string& out, int timeout_ms);
    void close_input();
    /* Closes the test's end of the agent's standard output (later writes break). */
    void close_output();
    /* Exit status of the agent (0-255, 128+signal when killed), or -1 when
     * it has not ended within timeout_s. */
    int  wait_exit(int timeout_s);
    bool parent_alive();
    void signal_agent(int sig);
    pid_t agent_pid() const { return m_agent; }
    pid_t parent_pid() const { return m_parent; }

    /* ---- what the node shows afterwards ---- */
    std::string log() const;            /* work/logs/kvx-agent.log */
    std::string agent_stderr() const;   /* the agent's standard error */
    static bool exists(const std::string& path);
    static std::string read_file(const std::string& path);
    static std::vector<std::string> read_lines(const std::string& path);   /* without their "\n" */
    static void write_file(const std::string& path, const std::string& text);

private:
    void stop();
    std::vector<std::string> m_env;
    uid_t m_uid = 0;
    gid_t m_gid = 0;
    bool  m_as_user = false;
    bool  m_private = true;
    int   m_nofile = 0;         /* RLIMIT_NOFILE for the agent, 0: inherited */
    pid_t m_parent = -1;
    pid_t m_agent = -1;
    int   m_to_agent = -1;      /* write end of the agent's stdin */
    int   m_from_agent = -1;    /* read end of the agent's stdout */
    int   m_status_fd = -1;     /* parent reports the agent's pid and exit status */
    int   m_exit = -1;          /* collected exit status, -1 until known */
    FILE* m_in = nullptr;
    FILE* m_out = nullptr;
    STDIOChannel* m_channel = nullptr;
    ExecProto*    m_proto = nullptr;
};

#endif /* AGENT_HARNESS_H */
