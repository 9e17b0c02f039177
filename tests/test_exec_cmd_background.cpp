/*
 * Procedure 3 in the background: the reply comes at once, only the product
 * programs are tracked, and the forked child never serves requests itself.
 * Runs a process named kvxbackupvol and holds the product lock: LOCKS machine.
 */
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>

#include "test_exec_cmd_client.h"

namespace {

const char kStarted[] = "create child process successfully!";

int count_of(const std::string& text, const std::string& what)
{
    int n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        n++;
    return n;
}

bool has_call(const AgentHarness& h, const std::string& stub, const std::string& line)
{
    std::vector<std::string> calls = h.stub_calls(stub);
    return std::find(calls.begin(), calls.end(), line) != calls.end();
}

class ExecBackground : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!lock_dir.ok())
            GTEST_SKIP() << "/etc/.kvx decides the product lock here; not touching it";
        h.add_stub("kvxmonitor");
        h.add_stub("driverinstall");
        h.add_stub("killall");
    }
    /* Starts cmd in the background; checks the immediate reply. */
    void start_background(const std::string& cmd)
    {
        ExecRequest rq;
        rq.cmd = cmd;
        rq.block_mode = true;
        auto t0 = std::chrono::steady_clock::now();
        ExecReply r = exec_cmd(h, rq);
        auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                      std::chrono::steady_clock::now() - t0).count();
        ASSERT_EQ(0, r.rc);
        EXPECT_EQ(0, r.ret);
        EXPECT_EQ(kStarted, r.str);
        EXPECT_EQ((int)strlen(kStarted), r.len);
        EXPECT_LT(ms, 900) << "the reply must not wait for the command";
    }
    ProductLockDir lock_dir;
    AgentBox box;
    AgentHarness& h = *box;
};

TEST_F(ExecBackground, PlainCommandIsNotTrackedAndChildNeverServes)
{
    ASSERT_TRUE(h.start());
    ASSERT_NO_FATAL_FAILURE(start_background("sleep 4"));
    ASSERT_NO_FATAL_FAILURE(start_background("sh -c 'echo visible; echo err >&2'"));
    sleep(2);   /* the second child has run its command and ended */
    ExecRequest rq;
    rq.cmd = "echo still-serving";
    rq.msg_mode = true;
    EXPECT_EQ("still-serving\n", exec_cmd(h, rq).str);

    h.close_input();
    EXPECT_EQ(0, h.wait_exit(10)) << "an untracked command must not make the agent clean";
    std::string log = h.log();
    EXPECT_EQ(1, count_of(log, "incomming connection is closed"));
    EXPECT_NE(std::string::npos,
              log.find("after ExecuteCmd(NONBLOCK_MODE): sh -c 'echo visible; echo err >&2' >>/dev/null 2>&1 ret=0"));
    EXPECT_TRUE(h.stub_calls("kvxmonitor").empty());
}

TEST_F(ExecBackground, RunningBackupProgramIsTrackedAndCleanedOnClose)
{
    /* The cleanup removes the stub directory: the monitor reports elsewhere. */
    std::string seen = h.root + "/kvxmonitor.seen";
    h.add_stub("kvxmonitor", 0, "echo \"$*\" >> " + seen);
    h.add_stub("kvxbackupvol", 0, "exec sleep 20");
    ASSERT_TRUE(h.start());
    ASSERT_NO_FATAL_FAILURE(start_background("kvxbackupvol --job 12"));
    sleep(2);
    h.close_input();
    EXPECT_EQ(1, h.wait_exit(30)) << "a running tracked program makes the agent clean";
    EXPECT_EQ("--canceljob\n", AgentHarness::read_file(seen));
    EXPECT_NE(std::string::npos, h.log().find("cleanup_target started"));
}

struct ExitCase {
    const char* name;
    const char* stub_sh;   /* body of the kvxbackupvol stub */
    const char* cmd;
    bool driver_unloaded;  /* "driverinstall -u" expected from the child handler */
};

const ExitCase kExitCases[] = {
    {"backup program fails", "exit 5", "kvxbackupvol --job 3", true},
    {"backup program succeeds", "exit 0", "kvxbackupvol --job 3", false},
    {"untracked command fails", "exit 0", "sh -c 'exit 5'", false},
};

TEST(ExecBackgroundExit, FailedBackupProgramUnloadsTheDriver)
{
    ProductLockDir lock_dir;   /* held by each agent, as on a real node */
    for (const ExitCase& c : kExitCases) {
        SCOPED_TRACE(c.name);
        AgentBox a_box;
        AgentHarness& a = *a_box;
        a.add_stub("kvxbackupvol", 0, c.stub_sh);
        a.add_stub("driverinstall");
        ASSERT_TRUE(a.start());
        ExecRequest rq;
        rq.cmd = c.cmd;
        rq.block_mode = true;
        ASSERT_EQ(0, exec_cmd(a, rq).ret);
        sleep(3);   /* one second's delay in the child, then the command */
        EXPECT_EQ(c.driver_unloaded, has_call(a, "driverinstall", "driverinstall -u"));
        a.close_input();
        EXPECT_EQ(0, a.wait_exit(10));
    }
}

} /* namespace */
