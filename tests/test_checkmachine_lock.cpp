/*
 * Procedure 8's lock query: whether this agent holds the product lock and
 * whether a volume backup already runs.  Holds the product lock and runs a
 * process named kvxbackupvol: LOCKS machine.
 */
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <fstream>

#include "test_exec_cmd_client.h"

namespace {

const char kLockQuery[] = "kvx_ea_check_set_lock.cmd";

ExecReply lock_query(AgentHarness& h, const std::string& cmd = kLockQuery)
{
    ExecRequest rq;
    rq.cmd = cmd;
    rq.msg_mode = true;
    return exec_call(h, EA_PROC_CHECK_MACHINE, rq);
}

/* A sleeping process whose name is kvxbackupvol (a renamed copy of sleep). */
class FakeVolumeBackup {
public:
    explicit FakeVolumeBackup(const std::string& dir)
    {
        std::string path = dir + "/kvxbackupvol";
        {
            std::ifstream in("/bin/sleep", std::ios::binary);
            std::ofstream out(path, std::ios::binary);
            out << in.rdbuf();
        }
        chmod(path.c_str(), 0755);
        m_pid = fork();
        if (m_pid == 0) {
            execl(path.c_str(), "kvxbackupvol", "60", (char*)nullptr);
            _exit(127);
        }
        usleep(200000);
    }
    ~FakeVolumeBackup() { stop(); }
    void stop()
    {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        m_pid = -1;
    }
    pid_t pid() const { return m_pid; }

private:
    pid_t m_pid;
};

class CheckMachineLock : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!lock_dir.ok())
            GTEST_SKIP() << "/etc/.kvx decides the product lock here; not touching it";
        ASSERT_TRUE(h.start());
    }
    ProductLockDir lock_dir;
    AgentBox box;
    AgentHarness& h = *box;
};

TEST_F(CheckMachineLock, AnswersLockStateAndRunningVolumeBackup)
{
    ExecReply free_run = lock_query(h);
    ASSERT_EQ(0, free_run.rc);
    EXPECT_GE(free_run.ret, 0) << "the agent holds the product lock: its descriptor";
    EXPECT_EQ(0, free_run.len);

    FakeVolumeBackup backup(h.root);
    ExecReply busy = lock_query(h);
    EXPECT_EQ(-2, busy.ret);
    EXPECT_EQ(0, busy.len);
    EXPECT_NE(std::string::npos,
              h.log().find("check_machine: kvxbackupvol already running, pid=" +
                           std::to_string(backup.pid()) + "."));

    backup.stop();
    EXPECT_EQ(free_run.ret, lock_query(h).ret);
}

TEST_F(CheckMachineLock, SecondAgentWithoutTheLockAnswersMinusTwo)
{
    /* One round trip first: the first agent has taken the lock by then. */
    ASSERT_GE(lock_query(h).ret, 0);
    AgentBox second_box;
    AgentHarness& second = *second_box;
    ASSERT_TRUE(second.start());
    ExecReply r = lock_query(second);
    ASSERT_EQ(0, r.rc);
    EXPECT_EQ(-2, r.ret);
}

TEST_F(CheckMachineLock, OnlyTheExactQueryIsTheLockQuery)
{
    const char* const near_misses[] = {"kvx_ea_check_set_lock.cmd ", " kvx_ea_check_set_lock.cmd",
                                       "kvx_ea_check_set_lock.cm"};
    for (const char* cmd : near_misses) {
        SCOPED_TRACE(std::string("'") + cmd + "'");
        ExecReply r = lock_query(h, cmd);
        ASSERT_EQ(0, r.rc);
        EXPECT_EQ(0, r.ret);   /* the account check's answer: root */
        EXPECT_NE(std::string::npos,
                  h.log().find(std::string("check_machine: invalid checkmachine command (") + cmd + ")"));
    }
}

} /* namespace */
