/*
 * su and sudo execution and the root check, run from throwaway accounts
 * (as root neither su nor sudo asks for a password), plus the command
 * lines they build and the descriptors and secrets they must not leak.
 */
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "privileged_testkit.h"
#include "test_accounts.h"
#include "zelutil.h"

using kvxtest::Account;
using kvxtest::AccountKind;
using kvxtest::ChildResult;
using kvxtest::RunAs;
using kvxtest::TestAccount;
using ptk::PrivilegedEnv;

static ::testing::Environment* const g_env =
    ::testing::AddGlobalTestEnvironment(new PrivilegedEnv);

static const std::string kStdPath = "/sbin:/bin:/usr/bin:/usr/sbin:/usr/local/sbin:/usr/local/bin";

/* Sets (or, with a null value, unsets) an environment variable for one scope. */
class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value) : name_(name)
    {
        const char* old = getenv(name);
        had_ = old != NULL;
        if (had_)
            old_ = old;
        if (value != NULL)
            setenv(name, value, 1);
        else
            unsetenv(name);
    }
    ~ScopedEnv()
    {
        if (had_)
            setenv(name_.c_str(), old_.c_str(), 1);
        else
            unsetenv(name_.c_str());
    }

private:
    std::string name_, old_;
    bool had_;
};

/* Runs cmd through the su or sudo runner as acct; code and cleaned output. */
static ChildResult RunElevated(const TestAccount& acct, const std::string& user,
                               const std::string& pwd, const std::string& cmd)
{
    return RunAs(acct, [&](std::string& text) {
        char out[1024] = "";
        int rc = SuperExecuteCmd(user.c_str(), pwd.c_str(), cmd.c_str(), 1, out, sizeof(out));
        text = out;
        return rc;
    });
}

/* ---- su ---- */

struct SuRunCase {
    const char* name;
    AccountKind target;
    bool rightPassword;
    int rc;
    const char* text;        /* expected output; null: the target's uid */
};
static void PrintTo(const SuRunCase& c, std::ostream* os) { *os << c.name; }

static const SuRunCase kSuRuns[] = {
    { "RightPasswordRunsAsTheAccount", AccountKind::Plain, true, 0, NULL },
    { "WrongPasswordReturnsSuExitCode", AccountKind::Plain, false, 1, "" },
    { "SecondRootAccountWithItsPassword", AccountKind::RootAlias, true, 0, "0" },
};

class SuRun : public ::testing::TestWithParam<SuRunCase> {};

TEST_P(SuRun, IdAsTarget)
{
    KVXT_REQUIRE_ACCOUNTS();
    const SuRunCase& c = GetParam();
    const TestAccount& target = Account(c.target);
    ChildResult r = RunElevated(Account(AccountKind::Runner), target.name,
                                c.rightPassword ? target.password : "not-the-password", "id -u");
    ASSERT_TRUE(r.finished) << r.error;
    EXPECT_EQ(c.rc, r.code);
    if (c.rc == 0) {
        EXPECT_EQ(c.text != NULL ? std::string(c.text) : std::to_string(target.uid), r.text);
    }
}

INSTANTIATE_TEST_SUITE_P(Su, SuRun, ::testing::ValuesIn(kSuRuns),
                         [](const ::testing::TestParamInfo<SuRunCase>& i) { return i.param.name; });

TEST(Su, CommandOutlivingTimeoutIsMinusNine)
{
    KVXT_REQUIRE_ACCOUNTS();
    const TestAccount& plain = Account(AccountKind::Plain);
    ChildResult r = RunAs(Account(AccountKind::Runner), [&](std::string& text) {
        return SuperExecuteCmdEx(plain.name.c_str(), plain.password.c_str(), "sleep 20", 1, 2,
                                 NULL, 0);
    });
    ASSERT_TRUE(r.finished) << r.error;
    EXPECT_EQ(-9, r.code);
}

TEST(Su, ExportsRestoreWhatSuDropsFromTheEnvironment)
{
    KVXT_REQUIRE_ACCOUNTS();
    const TestAccount& plain = Account(AccountKind::Plain);
    ChildResult r = RunAs(Account(AccountKind::Runner), [&](std::string& text) {
        setenv("LD_LIBRARY_PATH", "/kvxt/lib", 1);
        setenv("PATH", "/usr/bin:/bin", 1);
        setenv("KVXT_KEPT", "kept", 1);
        char out[256] = "";
        int rc = SuperExecuteCmd(plain.name.c_str(), plain.password.c_str(),
                                 "echo \"$LD_LIBRARY_PATH|$PATH|$KVXT_KEPT\"", 1, out, sizeof(out));
        text = out;
        return rc;
    });
    ASSERT_TRUE(r.finished) << r.error;
    EXPECT_EQ(0, r.code);
    EXPECT_EQ("/kvxt/lib|/usr/bin:/bin:" + kStdPath + "|kept", r.text);
}

TEST(Su, NullUserOrPasswordRunsNothing)
{
    size_t mark = PrivilegedEnv::Mark();
    EXPECT_EQ(-1, SuperExecuteCmdEx(NULL, "pw", "true", 1, -1, NULL, 0));
    EXPECT_EQ(-1, SuperExecuteCmdEx("root", NULL, "true", 1, -1, NULL, 0));
    EXPECT_EQ(-1, SuperExecuteCmd("root", NULL, "true", 1, NULL, 0));
    EXPECT_EQ(std::string::npos, PrivilegedEnv::Since(mark).find("execute command"));
}

struct SuLineCase {
    const char* name;
    const char* ld;      /* LD_LIBRARY_PATH, null: unset */
    const char* path;    /* PATH, null: unset */
    const char* cmd;
    std::string expected;
};
static void PrintTo(const SuLineCase& c, std::ostream* os) { *os << c.name; }

static const SuLineCase kSuLines[] = {
    { "BothExportsBeforeCommand", "/kvxt/lib", "/usr/bin:/bin", ": one",
      "export LD_LIBRARY_PATH=\"/kvxt/lib\"; export PATH=\"/usr/bin:/bin:" + kStdPath +
      "\"; : one" },
    { "PathExportOnlyWithLibraryExport", NULL, "/usr/bin:/bin", ": two", ": two" },
    { "LibraryExportWithoutPath", "/kvxt/lib", NULL, ": three",
      "export LD_LIBRARY_PATH=\"/kvxt/lib\"; : three" },
    { "NullCommandIsId", NULL, "/usr/bin:/bin", NULL, "id" },
};

class SuCommandLine : public ::testing::TestWithParam<SuLineCase> {};

TEST_P(SuCommandLine, Logged)
{
    const SuLineCase& c = GetParam();
    size_t mark = PrivilegedEnv::Mark();
    {
        ScopedEnv ld("LD_LIBRARY_PATH", c.ld);
        ScopedEnv path("PATH", c.path);
        SuperExecuteCmdEx("root", "", c.cmd, 1, -1, NULL, 0);
    }
    std::string log = PrivilegedEnv::Since(mark);
    EXPECT_NE(std::string::npos, log.find("SuperExecuteCmdEx: execute command (" + c.expected + ")\n"))
        << log;
}

INSTANTIATE_TEST_SUITE_P(Su, SuCommandLine, ::testing::ValuesIn(kSuLines),
                         [](const ::testing::TestParamInfo<SuLineCase>& i) { return i.param.name; });

TEST(Su, LongCommandIsCutToFit)
{
    std::string cmd = ": " + std::string(5000, 'a');
    size_t mark = PrivilegedEnv::Mark();
    {
        ScopedEnv ld("LD_LIBRARY_PATH", "/kvxt/lib");
        ScopedEnv path("PATH", "/usr/bin:/bin");
        SuperExecuteCmdEx("root", "", cmd.c_str(), 1, -1, NULL, 0);
    }
    std::string log = PrivilegedEnv::Since(mark);
    const std::string head = "SuperExecuteCmdEx: execute command (";
    size_t start = log.find(head);
    ASSERT_NE(std::string::npos, start);
    start += head.size();
    size_t end = log.find(")\n", start);
    ASSERT_NE(std::string::npos, end);
    std::string line = log.substr(start, end - start);
    EXPECT_EQ(4095u, line.size());
    EXPECT_EQ(0u, line.find("export LD_LIBRARY_PATH="));
}

/* ---- sudo ---- */

struct SudoRunCase {
    const char* name;
    AccountKind runner;
    bool withPassword;
    bool answered;           /* a password is written to the terminal */
};
static void PrintTo(const SudoRunCase& c, std::ostream* os) { *os << c.name; }

static const SudoRunCase kSudoRuns[] = {
    { "PasswordPromptAnswered", AccountKind::SudoPassword, true, true },
    { "PasswordlessRunsWithoutAnswering", AccountKind::SudoNoPassword, false, false },
};

class SudoRun : public ::testing::TestWithParam<SudoRunCase> {};

TEST_P(SudoRun, IdIsRoot)
{
    KVXT_REQUIRE_SUDO();
    const SudoRunCase& c = GetParam();
    const TestAccount& acct = Account(c.runner);
    size_t mark = PrivilegedEnv::Mark();
    ChildResult r = RunElevated(acct, "", c.withPassword ? acct.password : "", "id -u");
    ASSERT_TRUE(r.finished) << r.error;
    EXPECT_EQ(0, r.code);
    EXPECT_EQ("0", r.text);
    std::string line = "write password to tty: " + std::to_string(acct.password.size()) + "\n";
    EXPECT_EQ(c.answered, PrivilegedEnv::Since(mark).find(line) != std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Sudo, SudoRun, ::testing::ValuesIn(kSudoRuns),
                         [](const ::testing::TestParamInfo<SudoRunCase>& i) { return i.param.name; });

TEST(Sudo, MissingSudoIs127)
{
    /* a PATH whose only program is which: the check itself finds no sudo */
    std::string bin = PrivilegedEnv::Dir() / "which-only";
    mkdir(bin.c_str(), 0755);
    symlink("/usr/bin/which", (bin + "/which").c_str());
    int uid = -5;
    size_t mark = PrivilegedEnv::Mark();
    {
        ScopedEnv path("PATH", bin.c_str());
        EXPECT_EQ(127, SudoExecuteCmdEx("pw", "id -u", 1, -1, NULL, 0));
        EXPECT_EQ(127, SuperExecuteCmd("", "pw", "id -u", 1, NULL, 0));
        EXPECT_EQ(127, CheckRootUser("", "", &uid));
    }
    EXPECT_EQ(-5, uid);
    std::string log = PrivilegedEnv::Since(mark);
    EXPECT_EQ(3, ptk::CountOf(log, "Execute command [which sudo >/dev/null 2>&1] result: 1.\n"));
    EXPECT_EQ(std::string::npos, log.find("SudoExecuteCmdEx:"));
}

struct SudoLineCase {
    const char* name;
    bool libDir;         /* the agent's library directory exists */
    const char* ld;
    std::string args;    /* the logged arg[1..4] line */
    std::string seen;    /* what the command prints: LD_LIBRARY_PATH|PATH */
};
static void PrintTo(const SudoLineCase& c, std::ostream* os) { *os << c.name; }

static const SudoLineCase kSudoLines[] = {
    { "NoLibraryDirPassesStandardPath", false, NULL,
      "arg[1] -E, arg[2] PATH=" + kStdPath + ", arg[3] sh, arg[4]=-c.", "|" + kStdPath },
    { "LibraryDirPassesLibraryPathAndPath", true, "/kvxt/lib",
      "arg[1] -E, arg[2] LD_LIBRARY_PATH=/kvxt/lib, arg[3] PATH=/usr/bin:/bin:" + kStdPath +
      ", arg[4]=sh.", "/kvxt/lib|/usr/bin:/bin:" + kStdPath },
    { "LibraryDirWithoutLibraryPath", true, NULL,
      "arg[1] -E, arg[2] PATH=/usr/bin:/bin:" + kStdPath + ", arg[3] sh, arg[4]=-c.",
      "|/usr/bin:/bin:" + kStdPath },
};

class SudoCommandLine : public ::testing::TestWithParam<SudoLineCase> {};

TEST_P(SudoCommandLine, ArgumentsLoggedAndPassed)
{
    KVXT_REQUIRE_SUDO();
    const SudoLineCase& c = GetParam();
    std::string lib = PrivilegedEnv::LibDir();
    if (c.libDir)
        mkdir(lib.c_str(), 0755);
    else
        rmdir(lib.c_str());
    const std::string cmd = "echo \"$LD_LIBRARY_PATH|$PATH\"";
    char out[1024] = "";
    size_t mark = PrivilegedEnv::Mark();
    int rc;
    {
        ScopedEnv ld("LD_LIBRARY_PATH", c.ld);
        ScopedEnv path("PATH", "/usr/bin:/bin");
        rc = SudoExecuteCmdEx("", cmd.c_str(), 1, -1, out, sizeof(out));
    }
    rmdir(lib.c_str());
    EXPECT_EQ(0, rc);
    EXPECT_EQ(c.seen, out);
    std::string log = PrivilegedEnv::Since(mark);
    EXPECT_NE(std::string::npos, log.find("SudoExecuteCmdEx: " + c.args + "\n")) << log;
    EXPECT_NE(std::string::npos, log.find("SudoExecuteCmdEx: execute command (" + cmd + ")\n"));
}

INSTANTIATE_TEST_SUITE_P(Sudo, SudoCommandLine, ::testing::ValuesIn(kSudoLines),
                         [](const ::testing::TestParamInfo<SudoLineCase>& i) { return i.param.name; });

TEST(Sudo, NullCommandValidatesOnly)
{
    KVXT_REQUIRE_SUDO();
    size_t mark = PrivilegedEnv::Mark();
    EXPECT_EQ(0, SudoExecuteCmdEx("", NULL, 1, 15, NULL, 0));
    EXPECT_NE(std::string::npos,
              PrivilegedEnv::Since(mark).find("SudoExecuteCmdEx: execute command (sudo -v)\n"));
}

/* ---- root check ---- */

enum class Pwd { Right, Wrong, Empty, Null };

struct RootCase {
    const char* name;
    AccountKind runner;
    bool named;              /* check the target account through su, else sudo -v */
    AccountKind target;
    Pwd pwd;
    int rc;                  /* expected result; 99: any non-zero */
    int uid;                 /* expected uid; -1: the target's, -5: untouched */
    const char* logged;      /* expected log text, or null */
};
static void PrintTo(const RootCase& c, std::ostream* os) { *os << c.name; }

static const RootCase kRootCases[] = {
    { "OrdinaryAccountReportsItsUid", AccountKind::Runner, true, AccountKind::Plain, Pwd::Right, 0, -1, NULL },
    { "SecondRootAccountIsRoot", AccountKind::Runner, true, AccountKind::RootAlias, Pwd::Right, 0, 0, NULL },
    { "WrongSuPasswordFails", AccountKind::Runner, true, AccountKind::Plain, Pwd::Wrong, 1, -5, NULL },
    { "NullSuPasswordFails", AccountKind::Runner, true, AccountKind::Plain, Pwd::Null, -1, -5, NULL },
    { "SudoWithPasswordIsRoot", AccountKind::SudoPassword, false, AccountKind::SudoPassword, Pwd::Right, 0, 0, NULL },
    { "PasswordlessSudoIsRoot", AccountKind::SudoNoPassword, false, AccountKind::SudoNoPassword, Pwd::Empty, 0, 0, NULL },
    { "NoSudoRightsFails", AccountKind::Plain, false, AccountKind::Plain, Pwd::Right, 99, -5,
      "CheckRootUser: sudo -v failed (" },
};

class RootCheck : public ::testing::TestWithParam<RootCase> {};

TEST_P(RootCheck, Result)
{
    const RootCase& c = GetParam();
    if (c.named)
        KVXT_REQUIRE_ACCOUNTS();
    else
        KVXT_REQUIRE_SUDO();
    const TestAccount& target = Account(c.target);
    std::string user = c.named ? target.name : "";
    std::string pwd = c.pwd == Pwd::Right ? target.password : c.pwd == Pwd::Wrong ? "wrong-pw" : "";

    size_t mark = PrivilegedEnv::Mark();
    ChildResult r = ptk::CheckRootAs(Account(c.runner), user, c.pwd == Pwd::Null ? NULL : pwd.c_str());
    ASSERT_TRUE(r.finished) << r.error;
    if (c.rc == 99)
        EXPECT_NE(0, r.code);
    else
        EXPECT_EQ(c.rc, r.code);
    EXPECT_EQ(std::to_string(c.uid == -1 ? (int)target.uid : c.uid), r.text);
    if (c.logged != NULL) {
        EXPECT_NE(std::string::npos, PrivilegedEnv::Since(mark).find(c.logged));
    }
}

INSTANTIATE_TEST_SUITE_P(CheckRootUser, RootCheck, ::testing::ValuesIn(kRootCases),
                         [](const ::testing::TestParamInfo<RootCase>& i) { return i.param.name; });

/* ---- what must not leak ---- */

static void MarkerHandler(int) {}

TEST(Elevated, NoDescriptorLeftAfter200Runs)
{
    KVXT_REQUIRE_SUDO();
    struct sigaction mine, before, after;
    memset(&mine, 0, sizeof(mine));
    mine.sa_handler = MarkerHandler;
    sigemptyset(&mine.sa_mask);
    ASSERT_EQ(0, sigaction(SIGCHLD, &mine, &before));

    char out[128];
    int fds = ptk::OpenFdCount();
    for (int i = 0; i < 200; i++) {
        switch (i % 4) {
        case 0:  SuperExecuteCmdEx("root", "", "echo x", 1, -1, out, sizeof(out)); break;
        case 1:  SuperExecuteCmdEx("root", "", "echo x", 0, -1, out, sizeof(out)); break;
        case 2:  SuperExecuteCmdEx("root", "", ": silent", 1, -1, out, sizeof(out)); break;
        default: SudoExecuteCmdEx("", "echo y", 1, -1, out, sizeof(out)); break;
        }
        ptk::ReapEnded();
    }
    EXPECT_EQ(fds, ptk::OpenFdCount());
    ASSERT_EQ(0, sigaction(SIGCHLD, &before, &after));
    EXPECT_EQ((void*)MarkerHandler, (void*)after.sa_handler);
    sleep(1);
    ptk::ReapEnded();
}

TEST(Elevated, PasswordsNeverReachTheLog)
{
    KVXT_REQUIRE_SUDO();
    const TestAccount& plain = Account(AccountKind::Plain);
    const TestAccount& root0 = Account(AccountKind::RootAlias);
    const TestAccount& sudopw = Account(AccountKind::SudoPassword);
    size_t mark = PrivilegedEnv::Mark();

    ChildResult r = RunElevated(Account(AccountKind::Runner), plain.name, plain.password, "id -u");
    EXPECT_TRUE(r.finished) << r.error;
    r = ptk::CheckRootAs(Account(AccountKind::Runner), root0.name, root0.password.c_str());
    EXPECT_TRUE(r.finished) << r.error;
    r = RunElevated(sudopw, "", sudopw.password, "id -u");
    EXPECT_TRUE(r.finished) << r.error;

    std::string log = PrivilegedEnv::Since(mark);
    for (const TestAccount* a : { &plain, &root0, &sudopw })
        EXPECT_EQ(std::string::npos, log.find(a->password)) << a->name;
    EXPECT_NE(std::string::npos,
              log.find("write password to tty: " + std::to_string(sudopw.password.size()) + "\n"));
}
