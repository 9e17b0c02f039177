/* Cases that wait out the 30-second terminal budget, or an agent's cleanup through su or sudo: 30 to 50 s each. */
#include <gtest/gtest.h>

#include "privileged_testkit.h"
#include "test_exec_cmd_client.h"

using kvxtest::AccountKind;
using ptk::Pwd;

static ::testing::Environment* const g_env = ::testing::AddGlobalTestEnvironment(new ptk::Env);

static const char* const kNoData = "ExecuteCmdInteractively: no data from tty output.\n";

static const ptk::PtyCase kQuiet[] = {
    { "NonBlockingReturnsAfterTheBudget", { "sh", "-c", "trap '' HUP; exec sleep 36" }, NULL, 0, -1, 0, 0, true,
      NULL, kNoData, 1, 29.5 },
    { "BlockingLogsSixteenTimesThenTimesOut", { "sh", "-c", "trap '' HUP; exec sleep 36" }, NULL, 1, 2, -8, 0,
      true, NULL, kNoData, 16, 31.5 },
    /* after a time-out the runner's newline gets no answer: it waits 5 s for one, not for the child */
    { "SilentTerminalAfterTimeoutWaitedFiveSeconds", { "bash", "-c", "trap '' HUP; for i in 1 2 3 4; do stty -echo; "
      "printf 'Password: '; IFS= read -r -t 5 l || exit 90; printf '\\n'; done; exec sleep 16" }, "pw-s", 1, 2, -8, 4,
      true, NULL, NULL, 0, 6.5 },
    /* a one-time code asked for ever: answered once, then the child is ended */
    { "UnansweredNoEchoReadEndsTheChild", { "bash", "-c", "stty -echo; printf 'Code: '; while IFS= read -r l; do "
      "printf 'Code: '; done" }, "pw-u", 1, -1, -8, 1, false, NULL,
      "waits in a no-echo read that gets no answer, ending it.\n", 1, 20 },
};

class QuietTerminal : public ::testing::TestWithParam<ptk::PtyCase> {};
TEST_P(QuietTerminal, WaitsOutTheBudget) { ptk::CheckPtyCase(GetParam()); }
INSTANTIATE_TEST_SUITE_P(Pty, QuietTerminal, ::testing::ValuesIn(kQuiet), ptk::ByName());

TEST(SuSlow, NothingPrintedWithin30SecondsIsMinusFive)   /* as root, su asks nothing */
{
    size_t mark = ptk::TestLog::Size();
    double t0 = ptk::Seconds();
    EXPECT_EQ(-5, SuperExecuteCmdEx("root", "", "sleep 33", 1, -1, NULL, 0));
    EXPECT_NEAR(30.5, ptk::Seconds() - t0, 1.5);
    EXPECT_EQ(1, ptk::TestLog::Count(mark, "SuperExecuteCmdEx: no data from tty output.\n"));
    ptk::ReapAll();
}

TEST(SudoSlow, UnanswerablePromptRepliedWithin30Seconds)   /* a PAM-less sudo asking a code for ever */
{
    KVXT_REQUIRE_SUDO();
    const kvxtest::TestAccount& agent = kvxtest::Account(AccountKind::Runner);
    AgentHarness h;
    h.add_stub("sudo", 0, "stty -echo; printf 'Code: '; while IFS= read -r l; do printf 'Code: '; done");
    h.run_as(agent.uid, agent.gid);
    ASSERT_TRUE(h.start());
    double t0 = ptk::Seconds();
    Reply r = rpc(h, EA_PROC_EXEC_CMD, exec_args("id -u", true, false, 0, "", "pw", 1), 60000);
    EXPECT_LT(ptk::Seconds() - t0, 30);
    EXPECT_NE(0, num(r, "ret"));
    EXPECT_EQ(1, log_count(h.log(), "zelfunc", 0, "waits in a no-echo read that gets no answer, ending it."));
}

/* The cleanup after SIGHUP runs its commands through the account cached from the first elevated request. */
struct CleanupCase {
    const char* name;
    AccountKind agent;    /* sudo with the agent's own account */
    Pwd pwd;
    const char* hang;     /* shell text of the driverinstall stub; null: no stub */
    int within;           /* the agent has exited (status 1) within this many seconds of the signal */
};

static const CleanupCase kCleanups[] = {
    { "WrongCachedSudoPasswordStillExits", AccountKind::SudoPassword, Pwd::Wrong, NULL, 110 },
    { "HangingCommandEndsAtItsLimit", AccountKind::SudoNoPassword, Pwd::Empty,
      "echo $$ >\"$TARGET_WORK_DIR/hang.pid\"; exec sleep 90", 50 },
};

static void PrintTo(const CleanupCase& c, std::ostream* os) { *os << c.name; }
class CleanupElevated : public ::testing::TestWithParam<CleanupCase> {};

TEST_P(CleanupElevated, AgentExitsInTime)
{
    KVXT_REQUIRE_SUDO();
    const CleanupCase& c = GetParam();
    const kvxtest::TestAccount& agent = kvxtest::Account(c.agent);
    AgentHarness h;
    if (c.hang != NULL)
        h.add_stub("driverinstall", 0, c.hang);
    h.run_as(agent.uid, agent.gid);
    ASSERT_TRUE(h.start());
    Reply r = rpc(h, EA_PROC_EXEC_CMD, exec_args("true", false, false, 0, "", ptk::PasswordOf(c.pwd, agent), 1), 60000);
    EXPECT_EQ(c.pwd == Pwd::Wrong ? 1 : 0, num(r, "ret"));
    double t0 = ptk::Seconds();
    h.signal_agent(SIGHUP);
    EXPECT_EQ(1, h.wait_exit(c.within)) << ptk::Seconds() - t0;
    EXPECT_EQ(1, log_count(h.log(), "svc_main", 144, "cleanup_target finished."));
    pid_t hung = atoi(AgentHarness::read_file(h.work_dir + "/hang.pid").c_str());
    EXPECT_EQ(c.hang != NULL, hung > 1);   /* the stub did hang the cleanup */
    if (hung > 1)
        kill(hung, SIGKILL);
}

INSTANTIATE_TEST_SUITE_P(Cleanup, CleanupElevated, ::testing::ValuesIn(kCleanups), ptk::ByName());
