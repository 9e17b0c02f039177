/*
 * The product lock and the shut-down decision: when the server closes the
 * connection while a tracked product program still runs, only the agent
 * that holds the node's product lock cleans the target.  Also the rename of
 * the legacy cache directory.
 *
 * Each test runs in a private mount namespace with a fresh tmpfs on
 * /var/lib, so the lock directory it makes is seen by its own agents only
 * and nothing of the machine's /var/lib is touched.
 */
#include <errno.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "agent_harness.h"
#include "test_runtime_support.h"

namespace {

class ProductLock : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (access("/etc/.kvx", F_OK) == 0)
            GTEST_SKIP() << "/etc/.kvx exists: the agents would lock it instead";
        static bool unshared = false;
        if (!unshared) {
            ASSERT_EQ(unshare(CLONE_NEWNS), 0) << strerror(errno);
            ASSERT_EQ(mount(NULL, "/", NULL, MS_REC | MS_PRIVATE, NULL), 0) << strerror(errno);
            unshared = true;
        }
        ASSERT_EQ(mount("kvxt_varlib", "/var/lib", "tmpfs", 0, "mode=0755"), 0) << strerror(errno);
        mounted_ = true;
    }
    void TearDown() override
    {
        if (mounted_)
            umount2("/var/lib", MNT_DETACH);
    }

    /* A stub product program that runs until killed; its pid lands in pidfile. */
    static void add_product_stub(AgentHarness& h, const std::string& journal,
                                 const std::string& name, const std::string& pidfile)
    {
        add_journal_stub(h, journal, name, 0,
                         "echo $$ > " + pidfile + "\nwhile :; do sleep 1; done");
    }

    /* Starts "kvxbackupvol -j 1" in the background and waits until it runs. */
    static pid_t start_backup(AgentHarness& h, const std::string& pidfile)
    {
        if (!run_cmd(h, 2, "kvxbackupvol -j 1", true))
            return -1;
        for (int i = 0; i < 500; i++) {
            std::string pid = AgentHarness::read_file(pidfile);
            if (!pid.empty() && pid.back() == '\n')
                return atoi(pid.c_str());
            usleep(20000);
        }
        return -1;
    }

    bool mounted_ = false;
};

TEST_F(ProductLock, LockHolderCancelsTrackedProgramAtEndOfInput)
{
    HarnessPtr hp(new AgentHarness);
    AgentHarness& h = *hp;
    std::string journal = h.root + "/journal", pidfile = h.root + "/prog.pid";
    ASSERT_EQ(mkdir("/var/lib/kvx_cache", 0755), 0);
    add_cleanup_stubs(h, journal);
    add_product_stub(h, journal, "kvxbackupvol", pidfile);
    add_journal_stub(h, journal, "kvxmonitor", 0, "kill $(cat " + pidfile + ")");
    std::vector<std::string> staged = stage_product_files(h);
    ASSERT_TRUE(h.start());
    ASSERT_GT(start_backup(h, pidfile), 0) << h.log();

    h.close_input();
    int parent = reap_parent(h, 120);
    EXPECT_TRUE(WIFSIGNALED(parent) && WTERMSIG(parent) == SIGKILL) << "parent status " << parent;
    ASSERT_EQ(h.wait_exit(30), 1);

    std::string log = h.log();
    EXPECT_TRUE(AgentHarness::exists("/var/lib/kvx_cache/backup.bat"));
    EXPECT_EQ(log_count(log, "svc_main", 454, "process still running flag: 1"), 1);
    EXPECT_EQ(log_count(log, "svc_main", 80, "try to cancel program: kvxbackupvol."), 1);
    EXPECT_EQ(log_count(log, "svc_main", 100, "cancel the program(kvxbackupvol) successfully."), 1);
    EXPECT_EQ(log_count(log, "svc_main", 108, "force stop program"), 0);
    EXPECT_EQ(log_count(log, "svc_main", 145, "ea[" + std::to_string(h.agent_pid()) + "] finished."), 1);

    /* The failed program may also have the SIGCHLD handler unload the driver. */
    std::vector<std::string> calls = read_lines(journal);
    ASSERT_GE(calls.size(), 5u);
    EXPECT_EQ(calls[0], "kvxbackupvol -j 1");
    EXPECT_EQ(calls[1], "kvxmonitor --canceljob");
    for (size_t i = 2; i + 2 < calls.size(); i++)
        EXPECT_EQ(calls[i], "driverinstall -u");
    EXPECT_EQ(calls[calls.size() - 2], "killall kvxagent");
    EXPECT_EQ(calls.back(), expected_rm_line(h));
    for (const std::string& f : staged)
        EXPECT_FALSE(AgentHarness::exists(f)) << f;
}

TEST_F(ProductLock, AgentWithoutLockLeavesTrackedProgramAndNode)
{
    ASSERT_EQ(mkdir("/var/lib/kvx_cache", 0755), 0);
    HarnessPtr holder_p(new AgentHarness);
    AgentHarness& holder = *holder_p;
    ASSERT_TRUE(holder.start());
    ASSERT_TRUE(run_cmd(holder, 1, ":"));   /* set-up done: it holds the lock */

    HarnessPtr hp(new AgentHarness);
    AgentHarness& h = *hp;
    std::string journal = h.root + "/journal", pidfile = h.root + "/prog.pid";
    add_cleanup_stubs(h, journal);
    add_product_stub(h, journal, "kvxbackupvol", pidfile);
    std::vector<std::string> staged = stage_product_files(h);
    ASSERT_TRUE(h.start());
    pid_t prog = start_backup(h, pidfile);
    ASSERT_GT(prog, 0) << h.log();

    h.close_input();
    EXPECT_EQ(h.wait_exit(30), 0);
    int parent = reap_parent(h, 10);
    EXPECT_TRUE(WIFEXITED(parent) && WEXITSTATUS(parent) == 0) << "parent status " << parent;
    EXPECT_EQ(kill(prog, 0), 0) << "the product program was stopped";
    kill(prog, SIGTERM);

    std::string log = h.log();
    EXPECT_EQ(log_count(log, "zelfunc", 0, "is locked(write) by pid: [" +
                                                 std::to_string(holder.agent_pid()) + "]"),
              1);
    EXPECT_EQ(log_count(log, "svc_main", 454, "process still running flag: 1"), 1);
    EXPECT_EQ(log_count(log, "svc_main", 460, "ea[" + std::to_string(h.agent_pid()) + "] finished."), 1);
    EXPECT_EQ(log_count(log, "svc_main", 74, "cleanup_target started"), 0);
    EXPECT_EQ(read_lines(journal), std::vector<std::string>{"kvxbackupvol -j 1"});
    for (const std::string& f : staged)
        EXPECT_TRUE(AgentHarness::exists(f)) << f;

    holder.close_input();
    EXPECT_EQ(holder.wait_exit(20), 0);
}

/* ---- the legacy cache directory ---- */

struct LegacyCase {
    const char* name;
    bool cache_exists;   /* a non-empty /var/lib/kvx_cache is already there */
    bool renamed;
};

class LegacyDir : public ProductLock, public ::testing::WithParamInterface<LegacyCase> {};

TEST_P(LegacyDir, RenamedToCacheDirectoryBeforeLocking)
{
    const LegacyCase& c = GetParam();
    ASSERT_EQ(mkdir("/var/lib/norvane_kvx", 0755), 0);
    AgentHarness::write_file("/var/lib/norvane_kvx/legacy", "old");
    if (c.cache_exists) {
        ASSERT_EQ(mkdir("/var/lib/kvx_cache", 0755), 0);
        AgentHarness::write_file("/var/lib/kvx_cache/current", "new");
    }
    HarnessPtr hp(new AgentHarness);
    AgentHarness& h = *hp;
    ASSERT_TRUE(h.start());
    ASSERT_TRUE(run_cmd(h, 1, ":"));
    h.close_input();
    EXPECT_EQ(h.wait_exit(20), 0);

    EXPECT_EQ(AgentHarness::exists("/var/lib/norvane_kvx"), !c.renamed);
    EXPECT_EQ(AgentHarness::exists("/var/lib/kvx_cache/legacy"), c.renamed);
    EXPECT_TRUE(AgentHarness::exists("/var/lib/kvx_cache/backup.bat"));
    EXPECT_EQ(log_count(h.log(), "svc_main", 206,
                        "Failed to rename /var/lib/norvane_kvx to /var/lib/kvx_cache (" +
                            std::to_string(ENOTEMPTY) + ")."),
              c.renamed ? 0 : 1);
}

const LegacyCase kLegacyCases[] = {
    {"MovedWhenAlone", false, true},
    {"KeptWhenCacheExists", true, false},
};

INSTANTIATE_TEST_SUITE_P(Rename, LegacyDir, ::testing::ValuesIn(kLegacyCases),
                         [](const ::testing::TestParamInfo<LegacyCase>& i) { return i.param.name; });

} /* namespace */
