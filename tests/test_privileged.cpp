/* su and sudo execution and the root check, run from the throwaway accounts. */
#include <gtest/gtest.h>

#include "privileged_testkit.h"

using kvxtest::AccountKind;
using ptk::Pwd;
using ptk::TestLog;

static ::testing::Environment* const g_env = ::testing::AddGlobalTestEnvironment(new ptk::Env);

static const std::string kStdPath = "/sbin:/bin:/usr/bin:/usr/sbin:/usr/local/sbin:/usr/local/bin";
static const std::string kShowEnv = "echo \"$LD_LIBRARY_PATH|$PATH|$(id -un)\"";
static const std::string kLong = ": " + std::string(5000, 'a');
static const std::string kSu = "SuperExecuteCmdEx: execute command (";
static const std::string kExports = "export LD_LIBRARY_PATH=\"/kvxt/lib\"; ";

struct RunCase {
    const char* name;
    bool su;                    /* su to who as kvxt_run, else sudo as who */
    AccountKind who;
    Pwd pwd;
    const char *ld, *path;      /* null: unset */
    bool libDir;                /* the agent's library directory exists */
    const char* cmd;
    int timeout, rc;
    std::string out, logged;    /* the output when rc is 0; a line logged once */
};

static const RunCase kRuns[] = {
    { "SuRightPasswordRunsAfterExports", true, AccountKind::Plain, Pwd::Right, "/kvxt/lib", "/usr/bin:/bin",
      false, kShowEnv.c_str(), -1, 0, "/kvxt/lib|/usr/bin:/bin:" + kStdPath + "|kvxt_plain",
      kSu + kExports + "export PATH=\"/usr/bin:/bin:" + kStdPath + "\"; " + kShowEnv + ")\n" },
    { "SuWrongPasswordIsSuExitCode", true, AccountKind::Plain, Pwd::Wrong, NULL, "/usr/bin:/bin", false,
      "id -un", -1, 1, "", kSu + "id -un)\n" },
    { "SuSecondRootAccountNullCommandIsId", true, AccountKind::RootAlias, Pwd::Right, "/kvxt/lib", NULL, false,
      NULL, -1, 0, "uid=0(root) gid=0(root) groups=0(root)", kSu + kExports + "id)\n" },
    { "SuLongCommandCutToFit", true, AccountKind::Plain, Pwd::Right, "/kvxt/lib", NULL, false, kLong.c_str(), -1, 0,
      "", kSu + (kExports + kLong).substr(0, 4095) + ")\n" },
    { "SuCommandOutlivingTimeoutIsMinusNine", true, AccountKind::Plain, Pwd::Right, NULL, NULL, false,
      "sleep 20", 2, -9, "", kSu + "sleep 20)\n" },
    { "SudoPasswordAnsweredStandardPathOnly", false, AccountKind::SudoPassword, Pwd::Right, "/kvxt/lib",
      "/usr/bin:/bin", false, kShowEnv.c_str(), -1, 0, "|" + kStdPath + "|root",
      "SudoExecuteCmdEx: arg[1] -E, arg[2] PATH=" + kStdPath + ", arg[3] sh, arg[4]=-c.\n" },
    { "SudoPasswordlessPassesLibraryPathAndPath", false, AccountKind::SudoNoPassword, Pwd::Empty, "/kvxt/lib",
      "/usr/bin:/bin", true, kShowEnv.c_str(), -1, 0, "/kvxt/lib|/usr/bin:/bin:" + kStdPath + "|root",
      "SudoExecuteCmdEx: arg[1] -E, arg[2] LD_LIBRARY_PATH=/kvxt/lib, arg[3] PATH=/usr/bin:/bin:" + kStdPath +
      ", arg[4]=sh.\n" },
};

static void PrintTo(const RunCase& c, std::ostream* os) { *os << c.name; }
class ElevatedRun : public ::testing::TestWithParam<RunCase> {};

TEST_P(ElevatedRun, ResultOutputAndLog)
{
    KVXT_REQUIRE_SUDO();
    const RunCase& c = GetParam();
    const kvxtest::TestAccount& who = kvxtest::Account(c.who);
    std::string pwd = ptk::PasswordOf(c.pwd, who), lib = ptk::Env::work / "linux-kvx-client";
    c.libDir ? mkdir(lib.c_str(), 0755) : rmdir(lib.c_str());
    size_t mark = TestLog::Size();
    kvxtest::ChildResult r = kvxtest::RunAs(kvxtest::Account(c.su ? AccountKind::Runner : c.who), [&](std::string& text) {
        c.ld != NULL ? setenv("LD_LIBRARY_PATH", c.ld, 1) : unsetenv("LD_LIBRARY_PATH");
        c.path != NULL ? setenv("PATH", c.path, 1) : unsetenv("PATH");
        char out[1024] = "";
        int rc = c.su ? SuperExecuteCmdEx(who.name.c_str(), pwd.c_str(), c.cmd, 1, c.timeout, out, sizeof(out))
                      : SudoExecuteCmdEx(pwd.c_str(), c.cmd, 1, c.timeout, out, sizeof(out));
        text = out;
        return rc;
    });
    rmdir(lib.c_str());
    ASSERT_TRUE(r.finished) << r.error;
    EXPECT_EQ(c.rc, r.code);
    EXPECT_EQ(c.rc == 0 ? c.out : r.text, r.text);
    EXPECT_EQ(1, TestLog::Count(mark, c.logged));
    EXPECT_EQ(!c.su && !pwd.empty(), TestLog::Count(mark, "write password to tty: " + std::to_string(pwd.size()) + "\n"));
    EXPECT_EQ(0, TestLog::Count(mark, who.password));
}

INSTANTIATE_TEST_SUITE_P(Elevated, ElevatedRun, ::testing::ValuesIn(kRuns), ptk::ByName());

TEST(Sudo, MissingSudoIs127)
{
    /* a PATH whose only program is which: the check itself finds no sudo */
    symlink("/usr/bin/which", (ptk::Env::work / "which").c_str());
    size_t mark = TestLog::Size();
    EXPECT_EQ(0, fkit::InChild([&] {
        int uid = -5;
        setenv("PATH", ptk::Env::work.path, 1);
        EXPECT_EQ(127, SuperExecuteCmd("", "pw", "id -u", 1, NULL, 0));
        EXPECT_EQ(127, CheckRootUser("", "", &uid));
        EXPECT_EQ(-5, uid);
    }));
    EXPECT_EQ(2, TestLog::Count(mark, "Execute command [which sudo >/dev/null 2>&1] result: 1.\n"));
    EXPECT_EQ(0, TestLog::Count(mark, "SudoExecuteCmdEx:"));
}

static const ptk::RootCase kRoot[] = {
    { "OrdinaryAccountReportsItsUid", AccountKind::Runner, AccountKind::Plain, Pwd::Right, 0, -1,
      "SuperExecuteCmdEx: execute command (id -u)\n" },
    { "SecondRootAccountIsRoot", AccountKind::Runner, AccountKind::RootAlias, Pwd::Right, 0, 0 },
    { "NullSuPasswordRunsNothing", AccountKind::Runner, AccountKind::Plain, Pwd::Null, -1, -5 },
    { "SudoWithPasswordIsRoot", AccountKind::SudoPassword, AccountKind::SudoPassword, Pwd::Right, 0, 0,
      "SudoExecuteCmdEx: execute command (sudo -v)\n" },
    { "PasswordlessSudoIsRoot", AccountKind::SudoNoPassword, AccountKind::SudoNoPassword, Pwd::Empty, 0, 0 },
    { "NoSudoRightsFails", AccountKind::Plain, AccountKind::Plain, Pwd::Right, 1, -5,
      "CheckRootUser: sudo -v failed (1).\n" },
};

class RootCheck : public ::testing::TestWithParam<ptk::RootCase> {};

TEST_P(RootCheck, ResultAndUid) { KVXT_REQUIRE_SUDO(); ptk::CheckRootCase(GetParam()); }
INSTANTIATE_TEST_SUITE_P(CheckRootUser, RootCheck, ::testing::ValuesIn(kRoot), ptk::ByName());

TEST(Elevated, NoDescriptorLeftAfter200Runs)
{
    KVXT_REQUIRE_SUDO();
    char out[128];
    long fds = fkit::OpenFdCount();
    for (int i = 0; i < 200; i++)   /* su blocking and not, with output and without; sudo */
        (void)(i % 4 == 3 ? SudoExecuteCmdEx("", "echo y", 1, -1, out, sizeof(out))
                          : SuperExecuteCmdEx("root", "", i % 4 == 2 ? ": silent" : "echo x", i % 4 != 1, -1, out, sizeof(out)));
    EXPECT_EQ(fds, fkit::OpenFdCount());
    ptk::ReapAll();
}
