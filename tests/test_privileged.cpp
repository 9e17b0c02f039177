/* su and sudo execution and the root check, run from the throwaway accounts. */
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <memory>

#include "privileged_testkit.h"
#include "ea_svc.h"
#include "test_exec_cmd_client.h"

using kvxtest::AccountKind;
using ptk::Pwd;
using ptk::TestLog;

static ::testing::Environment* const g_env = ::testing::AddGlobalTestEnvironment(new ptk::Env);

static const std::string kStdPath = "/sbin:/bin:/usr/bin:/usr/sbin:/usr/local/sbin:/usr/local/bin";
static const std::string kShowEnv = "echo \"$LD_LIBRARY_PATH|$PATH|$(id -un)\"";
static const std::string kLongX = "x=" + std::string(65000, 'a');   /* as long as a request line allows */
static const std::string kLong = kLongX + "; echo ${#x}";
static const std::string kSu = "SuperExecuteCmdEx: execute command (";
static const std::string kExports = "export LD_LIBRARY_PATH=\"/kvxt/lib\"; ";
/* a command's own prompt: whatever it reads comes back between the brackets */
static const std::string kOwnPrompt = "bash -c 'printf \"Password: \"; IFS= read -r -t 2 l; echo \"got[$l]\"'";

struct RunCase {
    const char* name;
    AccountKind runner, who;    /* su to who as runner when they differ, else sudo as who */
    Pwd pwd;
    const char *ld, *path;      /* null: unset */
    bool libDir;                /* the agent's library directory exists */
    const char* cmd;
    int timeout, rc, answers;   /* answers: "write password to tty" lines */
    std::string out, logged;    /* the output when rc is 0; a line logged once */
    int block = 1;              /* 0: out is what the command, running on, leaves in $TARGET_WORK_DIR/ran */
    const char* lang = NULL;    /* LC_ALL of the run (a locale generated for it, UTF-8) */
    const char* defaults = "";  /* sudo defaults of the case's own for the sudo accounts */
    int times = 1;              /* how often the line is logged */
};

static const std::string kId = "SudoExecuteCmdEx: execute command (id -un)\n", kOut = "tty output is: ";

/* sudo as kvxt_sudopw runs id -un: root after one answer, or exit 1 after three tries, a translated
 * "Sorry" logged after the first two */
static RunCase SudoId(const char* name, Pwd pwd, const std::string& logged, const char* lang = NULL,
                      const char* defaults = "")
{
    bool right = pwd == Pwd::Right;
    return { name, AccountKind::SudoPassword, AccountKind::SudoPassword, pwd, NULL, NULL, false, "id -un", -1,
             right ? 0 : 1, right ? 1 : 3, right ? "root" : "", logged, 1, lang, defaults, !right && lang ? 2 : 1 };
}

static const RunCase kRuns[] = {
    { "SuRightPasswordRunsAfterExports", AccountKind::Runner, AccountKind::Plain, Pwd::Right, "/kvxt/lib",
      "/usr/bin:/bin", false, kShowEnv.c_str(), -1, 0, 0, "/kvxt/lib|/usr/bin:/bin:" + kStdPath + "|kvxt_plain",
      kSu + kExports + "export PATH=\"/usr/bin:/bin:" + kStdPath + "\"; " + kShowEnv + ")\n" },
    { "SuUnsafePathValuesStayOneWord", AccountKind::Runner, AccountKind::Plain, Pwd::Right, "/kvxt/a b",
      "/usr/bin:/bin:/opt/$(id -u)", false, kShowEnv.c_str(), -1, 0, 0,
      "/kvxt/a b|/usr/bin:/bin:/opt/$(id -u):" + kStdPath + "|kvxt_plain", kSu + "export LD_LIBRARY_PATH='/kvxt/a b'; "
      "export PATH='/usr/bin:/bin:/opt/$(id -u):" + kStdPath + "'; " + kShowEnv + ")\n" },
    { "SuWrongPasswordIsSuExitCode", AccountKind::Runner, AccountKind::Plain, Pwd::Wrong, NULL, "/usr/bin:/bin", false,
      "id -un", -1, 1, 0, "", kSu + "id -un)\n" },
    { "SuPasswordTooLongRunsNothing", AccountKind::Runner, AccountKind::Plain, Pwd::TooLong, NULL, NULL, false,
      "id -un", -1, -4, 0, "", "SuperExecuteCmdEx: password is too long (130 bytes), nothing run.\n" },
    { "SuSecondRootAccountNullCommandIsId", AccountKind::Runner, AccountKind::RootAlias, Pwd::Right, "/kvxt/lib", NULL,
      false, NULL, -1, 0, 0, "uid=0(root) gid=0(root) groups=0(root)", kSu + kExports + "id)\n" },
    { "SuCommandOutlivingTimeoutIsMinusNine", AccountKind::Runner, AccountKind::Plain, Pwd::Right, NULL, NULL, false,
      "sleep 20", 2, -9, 0, "", kSu + "sleep 20)\n" },
    /* su run by root asks nothing: the first text is the command's own, never answered */
    { "SuAskingNothingKeepsThePasswordFromTheCommand", AccountKind::RootAlias, AccountKind::Plain, Pwd::Right, NULL, NULL,
      false, kOwnPrompt.c_str(), -1, 0, 0, "got[]", "tty output is: Password: " },
    { "SuNonBlockingCommandRunsOn", AccountKind::Runner, AccountKind::Plain, Pwd::Right, NULL, NULL, false,
      "sleep 2; id -un >\"$TARGET_WORK_DIR/ran\"", -1, 0, 0, "kvxt_plain\n", kSu + "sleep 2; ", 0 },
    { "SudoPasswordAnsweredStandardPathOnly", AccountKind::SudoPassword, AccountKind::SudoPassword, Pwd::Right,
      "/kvxt/lib", "/usr/bin:/bin", false, kShowEnv.c_str(), -1, 0, 1, "|" + kStdPath + "|root",
      "SudoExecuteCmdEx: arg[1] -E, arg[2] PATH=" + kStdPath + ", arg[3] sh, arg[4]=-c.\n" },
    { "SudoPasswordlessPassesLibraryPathAndPath", AccountKind::SudoNoPassword, AccountKind::SudoNoPassword, Pwd::Empty,
      "/kvxt/lib", "/usr/bin:/bin", true, kShowEnv.c_str(), -1, 0, 0, "/kvxt/lib|/usr/bin:/bin:" + kStdPath + "|root",
      "SudoExecuteCmdEx: arg[1] -E, arg[2] LD_LIBRARY_PATH=/kvxt/lib, arg[3] PATH=/usr/bin:/bin:" + kStdPath +
      ", arg[4]=sh.\n" },
    { "SudoPasswordlessKeepsThePasswordFromTheCommand", AccountKind::SudoNoPassword, AccountKind::SudoNoPassword,
      Pwd::Right, NULL, NULL, false, kOwnPrompt.c_str(), -1, 0, 0, "got[]", "tty output is: Password: " },
    { "SudoLongCommandRunsWhole", AccountKind::SudoNoPassword, AccountKind::SudoNoPassword, Pwd::Empty, NULL, NULL,
      false, kLong.c_str(), -1, 0, 0, "65000", "SudoExecuteCmdEx: execute command (" + kLongX.substr(0, 8000) },
    SudoId("SudoWrongPasswordGivesUpAfterItsTries", Pwd::Wrong, kId),
    /* prompts in any language, and a wrong password's tries counted without its words */
    SudoId("SudoGermanPromptAnswered", Pwd::Right, kOut + "[sudo] Passwort für kvxt_sudopw: ", "de_DE"),
    SudoId("SudoGermanWrongPasswordTriedThrice", Pwd::Wrong, kOut + "Das hat nicht funktioniert", "de_DE"),
    SudoId("SudoJapanesePromptAnswered", Pwd::Right, kOut + "[sudo] kvxt_sudopw のパスワード:", "ja_JP"),
    SudoId("SudoJapaneseWrongPasswordTriedThrice", Pwd::Wrong, kOut + "残念、また試してください。", "ja_JP"),
    SudoId("SudoChineseFullWidthColonAnswered", Pwd::Right, kOut + "[sudo] kvxt_sudopw 的密码：", "zh_CN"),
    SudoId("SudoChineseWrongPasswordTriedThrice", Pwd::Wrong, kOut + "对不起，请重试。", "zh_CN"),
    SudoId("SudoFrenchPromptAnswered", Pwd::Right, kOut + "[sudo] Mot de passe de kvxt_sudopw\u00a0: ", "fr_FR"),
    SudoId("SudoFrenchWrongPasswordTriedThrice", Pwd::Wrong, kOut + "Désolé, essayez de nouveau.", "fr_FR"),
    { "SuChinesePromptAnswered", AccountKind::Runner, AccountKind::Plain, Pwd::Right, NULL, NULL, false, "id -un", -1,
      0, 0, "kvxt_plain", kOut + "密码： ", 1, "zh_CN" },
    /* site set-ups: pwfeedback reads in cbreak mode and echoes stars, a prompt of the site's own, a lecture, insults */
    SudoId("SudoPwfeedbackPromptAnswered", Pwd::Right, kId, NULL, "pwfeedback"),
    SudoId("SudoPwfeedbackWrongPasswordTriedThrice", Pwd::Wrong, kId, NULL, "pwfeedback"),
    SudoId("SudoSitePromptAnswered", Pwd::Right, kOut + "Enter the secret of kvxt_sudopw: ", NULL,
           "passprompt=\"Enter the secret of %p: \""),
    SudoId("SudoLectureAlwaysAnswered", Pwd::Right, kId, NULL, "lecture=always"),
    SudoId("SudoInsultsWrongPasswordTriedThrice", Pwd::Wrong, kId, NULL, "insults"),
};

static void PrintTo(const RunCase& c, std::ostream* os) { *os << c.name; }
class ElevatedRun : public ::testing::TestWithParam<RunCase> {};

TEST_P(ElevatedRun, ResultOutputAndLog)
{
    KVXT_REQUIRE_SUDO();
    const RunCase& c = GetParam();
    const kvxtest::TestAccount& who = kvxtest::Account(c.who);
    bool su = c.runner != c.who;
    std::string pwd = ptk::PasswordOf(c.pwd, who), lib = ptk::Env::work / "linux-kvx-client",
                ran = ptk::Env::work / "ran";
    c.libDir ? mkdir(lib.c_str(), 0755) : rmdir(lib.c_str());
    std::ofstream(ran, std::ios::trunc).close();
    chmod(ran.c_str(), 0666);
    ASSERT_EQ("", c.lang != NULL ? kvxtest::EnsureLocale(c.lang) : "");
    kvxtest::SudoDefaults rules(c.defaults);
    ASSERT_TRUE(rules.ok) << c.defaults;
    size_t mark = TestLog::Size();
    kvxtest::ChildResult r = kvxtest::RunAs(kvxtest::Account(c.runner), [&](std::string& text) {
        c.lang != NULL ? setenv("LC_ALL", (c.lang + std::string(".UTF-8")).c_str(), 1) : unsetenv("LC_ALL");
        c.ld != NULL ? setenv("LD_LIBRARY_PATH", c.ld, 1) : unsetenv("LD_LIBRARY_PATH");
        c.path != NULL ? setenv("PATH", c.path, 1) : unsetenv("PATH");
        char out[1024] = "";
        int rc = su ? SuperExecuteCmdEx(who.name.c_str(), pwd.c_str(), c.cmd, c.block, c.timeout, out, sizeof(out))
                    : SudoExecuteCmdEx(pwd.c_str(), c.cmd, c.block, c.timeout, out, sizeof(out));
        text = out;
        return rc;
    });
    wait_until([&] { return c.block != 0 || !fkit::ReadFile(ran).empty(); });   /* a command left running */
    rmdir(lib.c_str());
    ASSERT_TRUE(r.finished) << r.error;
    EXPECT_EQ(c.rc, r.code);
    EXPECT_EQ(c.rc == 0 ? c.out : r.text, c.block == 0 ? fkit::ReadFile(ran) : r.text);
    EXPECT_EQ(c.times, TestLog::Count(mark, c.logged));
    EXPECT_EQ(c.answers, TestLog::Count(mark, "write password to tty: " + std::to_string(pwd.size()) + "\n"))
        << TestLog::Since(mark);
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
    /* sudo's "Sorry, try again." comes with its next prompt, answered: sudo's own tries end it */
    { "WrongSudoPasswordFails", AccountKind::SudoPassword, AccountKind::SudoPassword, Pwd::Wrong, 1, -5,
      "CheckRootUser: sudo -v failed (%d).\n" },
    { "KeyLoginAskedForPasswordTakenAsRoot", AccountKind::SudoPassword, AccountKind::SudoPassword, Pwd::Empty,
      0, 0, "CheckRootUser: sudo -v failed but treat it succeed on redhat 7 or above.\n" },
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

/* Procedure 3 through an agent under an ordinary account: su to the second root account when the agent
 * is kvxt_run, else sudo (flag set) with the agent's own password. */
struct RequestCase {
    const char* name;
    AccountKind agent;
    Pwd pwd;
    bool msg, block;
    std::string cmd;
    int ret;
    std::string str;
    double within;        /* the reply comes sooner than this, in seconds */
    const char* leaves;   /* a file the command makes in the work directory; null: none */
};

/* ignored from the start, the hang-up when su's shell ends never reaches the daemon */
static const std::string kDaemon = "trap '' HUP; sleep 8 & echo $! >\"$TARGET_WORK_DIR/daemon.pid\"";

/* the handler's three modes, each with a command as long as a request line allows */
static const std::string kLongWait = kLongX + "; [ ${#x} -eq 65000 ]", kChild = "create child process successfully!",
                         kLongBg = kLongWait + " && touch \"$TARGET_WORK_DIR/long\"";

static const RequestCase kRequests[] = {
    { "SudoWrongPasswordAnsweredSoon", AccountKind::SudoPassword, Pwd::Wrong, false, false, "true", 1, "no return", 20 },
    { "SudoRightPasswordRuns", AccountKind::SudoPassword, Pwd::Right, true, false, "id -u", 0, "0", 5 },
    { "SuDaemonOnTheTerminalDoesNotHoldTheReply", AccountKind::Runner, Pwd::Right, true, false, kDaemon, 0, "", 5,
      "daemon.pid" },
    { "SuPasswordTooLongRunsNothing", AccountKind::Runner, Pwd::TooLong, false, false, "true", 1, "no return", 5 },
    { "SuLongWaitRunsWhole", AccountKind::Runner, Pwd::Right, false, false, kLongWait, 0, "no return", 10 },
    { "SuLongMessageRunsWhole", AccountKind::Runner, Pwd::Right, true, false, kLong, 0, "65000", 10 },
    { "SuLongBackgroundRunsWhole", AccountKind::Runner, Pwd::Right, false, true, kLongBg, 0, kChild, 5, "long" },
    { "SudoCommandPromptGetsNoPassword", AccountKind::SudoNoPassword, Pwd::Right, true, false, kOwnPrompt, 0, "got[]", 10 },
    { "SudoLongWaitRunsWhole", AccountKind::SudoNoPassword, Pwd::Empty, false, false, kLongWait, 0, "no return", 10 },
    { "SudoLongMessageRunsWhole", AccountKind::SudoNoPassword, Pwd::Empty, true, false, kLong, 0, "65000", 10 },
    { "SudoLongBackgroundRunsWhole", AccountKind::SudoNoPassword, Pwd::Empty, false, true, kLongBg, 0, kChild, 5, "long" },
};

TEST(ElevatedAgent, RequestsAnswerInTimeAndRunWhole)
{
    KVXT_REQUIRE_SUDO();
    const kvxtest::TestAccount& alias = kvxtest::Account(AccountKind::RootAlias);
    std::unique_ptr<AgentHarness> h;
    for (size_t i = 0; i < std::size(kRequests); i++) {
        const RequestCase& c = kRequests[i];
        const kvxtest::TestAccount& agent = kvxtest::Account(c.agent);
        bool su = c.agent == AccountKind::Runner;
        SCOPED_TRACE(c.name);
        if (i == 0 || c.agent != kRequests[i - 1].agent) {   /* one agent per account */
            h = std::make_unique<AgentHarness>();
            h->run_as(agent.uid, agent.gid);
            ASSERT_TRUE(h->start());
        }
        double t0 = ptk::Seconds();
        Reply r = rpc(*h, EA_PROC_EXEC_CMD, exec_args(c.cmd, c.msg, c.block, 0, su ? alias.name : "",
                                                      ptk::PasswordOf(c.pwd, su ? alias : agent), !su), 60000);
        EXPECT_LT(ptk::Seconds() - t0, c.within);
        EXPECT_EQ(c.ret, num(r, "ret"));
        EXPECT_EQ(c.str, text(r, "str"));
        std::string left = c.leaves != NULL ? h->work_dir + "/" + c.leaves : "";
        /* a background command's file stays empty, the daemon's holds its pid */
        EXPECT_TRUE(c.leaves == NULL || wait_until([&] {
            return c.block ? AgentHarness::exists(left) : !AgentHarness::read_file(left).empty(); }, 5000));
        pid_t daemon = c.leaves != NULL ? atoi(AgentHarness::read_file(left).c_str()) : 0;
        if (daemon > 1)
            kill(daemon, SIGKILL);
        if (i + 1 < std::size(kRequests) && kRequests[i + 1].agent == c.agent)
            continue;
        /* after its requests the agent still serves, its memory closed to its own account, no password logged */
        struct stat st;
        ASSERT_EQ(0, stat(("/proc/" + std::to_string(h->agent_pid()) + "/mem").c_str(), &st));
        EXPECT_EQ(0u, st.st_uid);
        EXPECT_EQ("alive\n", text(rpc(*h, EA_PROC_EXEC_CMD, exec_args("echo alive", true)), "str"));
        EXPECT_EQ(std::string::npos, h->log().find(su ? alias.password : agent.password));
    }
}

/* Every procedure that takes a password overwrites the request's copy once it has run. */
TEST(Passwords, HandlersWipeTheRequestCopy)
{
    std::vector<char> text(EA_EXEC_RES_SIZE), point(EA_MOUNT_POINT_SIZE);
    std::string mnt = ptk::Env::work / "mnt";
    const struct { const char* name; std::function<void(char*)> run; } handlers[] = {
        { "exec", [&](char* pwd) { ExecCmdargs a = { 5, (char*)"true", 0, 0, 0, (char*)"", pwd, 1 };
                                   ExecCmdres r = { 0, 0, text.data() }; exec_cmd_svc(&a, &r); } },
        { "mount", [&](char* pwd) { Mountargs a = { (char*)"/nonexistent-kvxt/sess", (char*)"u", pwd, &mnt[0] };
                                    Mountres r = { 0, 0, point.data() }; mount_svc(&a, &r); } },
        { "vmdetect", [&](char* pwd) { ExecCmdargs a = { 7, (char*)"no-job", 0, 0, 0, (char*)"", pwd, 0 };
                                       VMDetectInfores r = {}; detect_vm_info_svc(&a, &r); } },
        { "checkmachine", [&](char* pwd) { ExecCmdargs a = { 8, (char*)"no-check", 0, 0, 0, (char*)"", pwd, 0 };
                                           ExecCmdres r = { 0, 0, text.data() }; check_machine(&a, &r); } },
    };
    for (const auto& h : handlers) {
        SCOPED_TRACE(h.name);
        char pwd[] = "Wipe-Me-8c1f";
        h.run(pwd);
        EXPECT_EQ(std::string(sizeof(pwd), '\0'), std::string(pwd, sizeof(pwd)));
    }
}
