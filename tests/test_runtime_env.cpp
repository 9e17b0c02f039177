// What the agent makes of the node: its start-up forms, the environment of
// the commands it runs (the client package directory first in the library
// path and PATH, the product homes, LANG=C, umask 022; a root agent keeps the
// inherited paths behind its own, one run as an ordinary user drops them),
// and the product lock.
#include <errno.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <map>

#include "test_accounts.h"
#include "test_runtime_support.h"
#include "vmdetect.h"

namespace {

TEST(StartUp, OneShotModesOptionFormsAndChildEnvironment)
{
    setenv("ZEL_LOG_BASE_DIR", "/tmp", 1);   // where the probes here may log
    const std::string path = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
    const struct {
        std::vector<std::string> args;   // "@W": the harness work dir
        int exit_status;                 // of the one-shot modes; -1: serves
        bool work_from_option;           // else TARGET_WORK_DIR stays as inherited
        const char* root;                // expected ZEL_ROOT_PATH
        bool as_user;
    } forms[] = {
        {{"EA_CMD_DETECT_VM"}, (detect_vm_info() | (is_oracle_uek() ? 0x80 : 0)) & 0xff},
        {{"EA_CMD_GET_SOCKS"}, get_pv_sockets() & 0xff},
        {{"--zelrootdir", "/zr"}, -1, false, "/zr"},
        {{"--targetworkdir", "@W"}, -1, true, "/env-root"},
        {{"--targetworkdir", "@W"}, -1, true, "/env-root", true},
        {{"--targetworkdir", "@W", "--zelrootdir", "/zr"}, -1, true, "/zr"},
        {{"--ZelRootDir", "/zr"}, -1, false, "/env-root"},
        {{"EA_CMD_DETECT_VM", "extra"}, -1, false, "/env-root"},
        {{"--zelrootdir"}, -1, false, "/env-root"},
        {{"--zelrootdir", "/zr", "--targetworkdir", "@W", "x"}, -1, false, "/env-root"},
    };
    for (const auto& f : forms) {
        SCOPED_TRACE(&f - forms);
        if (f.as_user && !kvxtest::AccountsUnavailable().empty())
            continue;
        AgentHarness h;
        std::string env_work = h.root + "/envwork", out = h.root + "/child.env";
        std::vector<std::string> args;
        for (const std::string& arg : f.args)
            args.push_back(arg == "@W" ? h.work_dir : arg);
        mkdir(env_work.c_str(), 0755);
        for (const auto& var : std::map<std::string, std::string>{
                 {"TARGET_WORK_DIR", env_work}, {"ZEL_ROOT_PATH", "/env-root"}, {"PATH", path},
                 {"LD_LIBRARY_PATH", "/inherited/lib"}, {"LANG", "en_US.UTF-8"}})
            h.set_env(var.first, var.second);
        if (f.as_user)
            h.run_as(kvxtest::Account(kvxtest::AccountKind::Runner).uid,
                     kvxtest::Account(kvxtest::AccountKind::Runner).gid);
        ASSERT_TRUE(h.start(args, false));
        if (f.exit_status >= 0) {
            EXPECT_EQ(h.wait_exit(60), f.exit_status);
            EXPECT_EQ(read_reply(h, 100), nullptr);
            EXPECT_FALSE(AgentHarness::exists(env_work + "/logs"));
            continue;
        }
        // The agent appends its own redirection to the last command of the line.
        run_cmd(h, 1, "env > " + out + "; echo UMASK=$(umask) >> " + out + "; :");
        std::map<std::string, std::string> env;
        for (const std::string& line : AgentHarness::read_lines(out))
            env[line.substr(0, line.find('='))] = line.substr(line.find('=') + 1);
        std::string work = f.work_from_option ? h.work_dir : env_work, client = work + "//linux-kvx-client";
        std::map<std::string, std::string> want = {
            {"TARGET_BOOTSTRAP_DIR", h.boot_dir}, {"TARGET_WORK_DIR", work}, {"ZEL_ROOT_PATH", f.root},
            {"LD_LIBRARY_PATH", f.as_user ? client : client + ":/inherited/lib"},
            {"PATH", client + ":" + (f.as_user ? "/bin:/sbin:/usr/bin:/usr/sbin:/usr/local/bin:/usr/local/sbin" : path)},
            {"ZEL_LOG_BASE_DIR", work + "//"},
            {"ZEL_ENCRYPTION_LIBRARY_PATH", client}, {"QMPKIHOME", client}, {"KVX_CLN_HOME", client},
            {"LANG", "C"}, {"UMASK", "0022"}};
        for (const auto& var : want)
            EXPECT_EQ(env[var.first], var.second) << var.first;
        EXPECT_TRUE(AgentHarness::exists(work + "/logs/kvx-agent.log"));
        h.close_input();
        EXPECT_EQ(h.wait_exit(20), 0);
    }
}

// The node's product lock decides which agent cleans up when the server
// closes the connection while a product program it started still runs.  A
// private mount namespace with a tmpfs on /var/lib keeps the lock the test's.
TEST(ProductLock, OnlyTheHolderCleansUpAfterEndOfInput)
{
    if (access("/etc/.kvx", F_OK) == 0)
        GTEST_SKIP() << "/etc/.kvx exists: the agents would lock it instead";
    ASSERT_EQ(unshare(CLONE_NEWNS), 0) << strerror(errno);
    ASSERT_EQ(mount(NULL, "/", NULL, MS_REC | MS_PRIVATE, NULL), 0) << strerror(errno);
    ASSERT_EQ(mount("kvxt_varlib", "/var/lib", "tmpfs", 0, "mode=0755"), 0) << strerror(errno);
    ASSERT_EQ(mkdir("/var/lib/norvane_kvx", 0755), 0);   // the legacy name
    AgentHarness::write_file("/var/lib/norvane_kvx/legacy", "old");
    AgentHarness holder, other;
    for (AgentHarness* h : {&holder, &other}) {
        h->share_node();   // both see the lock under the test's /var/lib
        stage_node(*h);   // a backup program that ends well when cancelled
        add_journal_stub(*h, "kvxbackupvol", 0, "trap 'kill $!; exit 0' TERM\necho $$ > " + h->root +
                                                    "/prog.pid\nsleep 1000 & wait");
        add_journal_stub(*h, "kvxmonitor", 0, "kill $(cat " + h->root + "/prog.pid)");
    }
    ASSERT_TRUE(holder.start());
    ASSERT_TRUE(run_cmd(holder, 1, ":"));   // set-up done: it holds the lock
    EXPECT_TRUE(AgentHarness::exists("/var/lib/kvx_cache/legacy"));

    // An agent without the lock leaves program and node as they are.
    ASSERT_TRUE(other.start());
    pid_t prog = start_program(other, 1, "kvxbackupvol -j 1");
    ASSERT_GT(prog, 0) << other.log();
    other.close_input();
    EXPECT_EQ(other.wait_exit(30), 0);
    EXPECT_EQ(kill(prog, SIGTERM), 0) << "the product program was stopped";
    std::string log = other.log();
    EXPECT_EQ(log_count(log, "zelfunc", 0, "is locked(write) by pid: [" +
                                                 std::to_string(holder.agent_pid()) + "]"), 1);
    EXPECT_EQ(log_count(log, "svc_main", 454, "process still running flag: 1"), 1);
    EXPECT_EQ(AgentHarness::read_lines(other.root + "/journal"), std::vector<std::string>{"kvxbackupvol -j 1"});

    // The holder cancels its program and cleans the node.
    ASSERT_GT(start_program(holder, 2, "kvxbackupvol -j 1"), 0) << holder.log();
    kill(holder.parent_pid(), SIGSTOP);   // a stopped parent cannot reap the agent it dies for
    holder.close_input();
    ASSERT_EQ(holder.wait_exit(120), 1);
    EXPECT_FALSE(holder.parent_alive());
    EXPECT_EQ(log_count(holder.log(), "svc_main", 100,
                        "cancel the program(kvxbackupvol) successfully."), 1);
    expect_cleaned(holder.root, {"kvxbackupvol -j 1", "kvxmonitor --canceljob"});
}

} // namespace
