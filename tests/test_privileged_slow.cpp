/* Cases that wait out the 30-second terminal budget or sudo's retries: 30 to 50 s each. */
#include <gtest/gtest.h>

#include "privileged_testkit.h"

using kvxtest::AccountKind;
using ptk::Pwd;

static ::testing::Environment* const g_env = ::testing::AddGlobalTestEnvironment(new ptk::Env);

static const char* const kNoData = "ExecuteCmdInteractively: no data from tty output.\n";

static const ptk::PtyCase kQuiet[] = {
    { "NonBlockingReturnsAfterTheBudget", { "sh", "-c", "trap '' HUP; exec sleep 36" }, NULL, 0, -1, 0, 0, true,
      NULL, kNoData, 1, 29.5 },
    { "BlockingLogsSixteenTimesThenTimesOut", { "sh", "-c", "trap '' HUP; exec sleep 36" }, NULL, 1, 2, -8, 0,
      true, NULL, kNoData, 16, 31.5 },
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

/* sudo's "Sorry, try again." usually comes with the next prompt, which then goes unanswered */
static const ptk::RootCase kSlowRoot[] = {
    { "KeyLoginAskedForPasswordTakenAsRoot", AccountKind::SudoPassword, AccountKind::SudoPassword, Pwd::Empty,
      0, 0, "CheckRootUser: sudo -v failed but treat it succeed on redhat 7 or above.\n" },
    /* sudo prints "Sorry, try again." and its next prompt in one chunk or in
     * two: unanswered, the wait times out (-8); answered, sudo gives up (1) */
    { "WrongPasswordFails", AccountKind::SudoPassword, AccountKind::SudoPassword, Pwd::Wrong, -8, -5,
      "CheckRootUser: sudo -v failed (%d).\n", 1 },
};

class SudoRootCheckSlow : public ::testing::TestWithParam<ptk::RootCase> {};

TEST_P(SudoRootCheckSlow, ResultAndUid) { KVXT_REQUIRE_SUDO(); ptk::CheckRootCase(GetParam()); }
INSTANTIATE_TEST_SUITE_P(CheckRootUser, SudoRootCheckSlow, ::testing::ValuesIn(kSlowRoot), ptk::ByName());
