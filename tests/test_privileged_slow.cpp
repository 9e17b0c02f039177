/*
 * The cases that wait out the 30-second terminal budget: a quiet terminal
 * with and without waiting, su that never prompts, and sudo retries, whose
 * "Sorry, try again." arrives together with the next prompt and so is never
 * answered.  Each takes 30 to 50 seconds.
 */
#include <unistd.h>

#include <gtest/gtest.h>

#include "privileged_testkit.h"
#include "test_accounts.h"
#include "zelutil.h"

using kvxtest::Account;
using kvxtest::AccountKind;
using kvxtest::ChildResult;
using ptk::PrivilegedEnv;

static ::testing::Environment* const g_env =
    ::testing::AddGlobalTestEnvironment(new PrivilegedEnv);

static const char* const kNoData = "ExecuteCmdInteractively: no data from tty output.\n";

TEST(PtyRunnerSlow, NonBlockingReturnsWhenTerminalStaysQuiet)
{
    std::string pidFile = PrivilegedEnv::Dir() / "quiet.pid";
    ptk::Argv argv({ "sh", "-c", "trap '' HUP; echo $$ > " + pidFile + "; exec sleep 60" });
    size_t mark = PrivilegedEnv::Mark();
    double t0 = ptk::Seconds();
    EXPECT_EQ(0, ExecuteCmdInteractively(argv.get(), "pw", 0, -1, NULL, 0));
    double took = ptk::Seconds() - t0;
    EXPECT_GE(took, 29.0);
    EXPECT_LT(took, 40.0);
    EXPECT_EQ(1, ptk::CountOf(PrivilegedEnv::Since(mark), kNoData));
    pid_t child = ptk::WaitPidFile(pidFile);
    EXPECT_TRUE(ptk::ProcessAlive(child));
    ptk::KillAndReap(child);
}

TEST(PtyRunnerSlow, BlockingQuietTerminalLogsSixteenTimesThenWaits)
{
    ptk::Argv argv({ "sleep", "60" });
    size_t mark = PrivilegedEnv::Mark();
    double t0 = ptk::Seconds();
    EXPECT_EQ(-8, ExecuteCmdInteractively(argv.get(), "pw", 1, 2, NULL, 0));
    double took = ptk::Seconds() - t0;
    EXPECT_GE(took, 31.0);
    EXPECT_LT(took, 45.0);
    std::string log = PrivilegedEnv::Since(mark);
    EXPECT_EQ(16, ptk::CountOf(log, kNoData));
    EXPECT_NE(std::string::npos, log.find("ExecuteCmdInteractively: wait for child ("));
    ptk::ReapEnded();
}

TEST(SuSlow, NothingPrintedWithin30SecondsIsMinusFive)
{
    /* as root su asks nothing, and the command prints nothing */
    size_t mark = PrivilegedEnv::Mark();
    double t0 = ptk::Seconds();
    EXPECT_EQ(-5, SuperExecuteCmdEx("root", "", "sleep 45", 1, -1, NULL, 0));
    EXPECT_GE(ptk::Seconds() - t0, 29.0);
    EXPECT_NE(std::string::npos,
              PrivilegedEnv::Since(mark).find("SuperExecuteCmdEx: no data from tty output.\n"));
    sleep(1);
    ptk::ReapEnded();
}

struct SlowRootCase {
    const char* name;
    const char* pwd;
    int rc;                  /* 99: any non-zero */
    const char* uid;
    const char* logged;
};
static void PrintTo(const SlowRootCase& c, std::ostream* os) { *os << c.name; }

static const SlowRootCase kSlowRootCases[] = {
    { "KeyLoginAskedForPasswordTakenAsRoot", "", 0, "0",
      "CheckRootUser: sudo -v failed but treat it succeed on redhat 7 or above.\n" },
    { "WrongPasswordFails", "wrong-pw", 99, "-5", "CheckRootUser: sudo -v failed (" },
};

class SudoRootCheckSlow : public ::testing::TestWithParam<SlowRootCase> {};

TEST_P(SudoRootCheckSlow, Result)
{
    KVXT_REQUIRE_SUDO();
    const SlowRootCase& c = GetParam();
    size_t mark = PrivilegedEnv::Mark();
    ChildResult r = ptk::CheckRootAs(Account(AccountKind::SudoPassword), "", c.pwd);
    ASSERT_TRUE(r.finished) << r.error;
    if (c.rc == 99)
        EXPECT_NE(0, r.code);
    else
        EXPECT_EQ(c.rc, r.code);
    EXPECT_EQ(c.uid, r.text);
    EXPECT_NE(std::string::npos, PrivilegedEnv::Since(mark).find(c.logged));
}

INSTANTIATE_TEST_SUITE_P(CheckRootUser, SudoRootCheckSlow, ::testing::ValuesIn(kSlowRootCases),
                         [](const ::testing::TestParamInfo<SlowRootCase>& i) { return i.param.name; });
