/*
 * test_exec.cpp - argument vectors, shell commands with decoded statuses,
 * fork/execvp with pipes, the executable's directory and digit strings.
 */
#include <libgen.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "foundation_testkit.h"
#include "zelutil.h"

using fkit::TestLog;

namespace {

::testing::Environment* const kLog = ::testing::AddGlobalTestEnvironment(new TestLog);

/* ---- argument vectors ---- */

TEST(Argv, FillsUpToCapacityMinusOneAndKeepsLastSlotNull)
{
    char* argv[5] = { NULL };
    EXPECT_EQ(0, PushArgv(argv, 5, "sh"));
    EXPECT_EQ(0, PushArgv(argv, 5, "-c"));
    EXPECT_EQ(0, PushArgv(argv, 5, "echo %d %s", 42, "x"));
    EXPECT_EQ(0, PushArgv(argv, 5, "%s", "fourth"));
    EXPECT_EQ(-1, PushArgv(argv, 5, "fifth"));
    EXPECT_EQ(NULL, argv[4]);
    EXPECT_STREQ("echo 42 x", argv[2]);

    /* nothing to push is not an error */
    EXPECT_EQ(0, PushArgv(argv, 5, NULL));
    const char* empty = "";
    EXPECT_EQ(0, PushArgv(argv, 5, empty));
    EXPECT_EQ(0, PushArgv(NULL, 5, "x"));

    EXPECT_EQ(0, CleanLastArgv(argv));
    EXPECT_EQ(NULL, argv[3]);
    EXPECT_EQ(0, PushArgv(argv, 5, "replaced"));
    EXPECT_STREQ("replaced", argv[3]);

    EXPECT_EQ(0, CleanArgv(argv));
    for (char* slot : argv)
        EXPECT_EQ(NULL, slot);
    EXPECT_EQ(0, CleanLastArgv(argv));   /* empty vector: no-op */
    EXPECT_EQ(0, CleanArgv(NULL));
    EXPECT_EQ(0, CleanLastArgv(NULL));
}

TEST(Argv, CutsLongArgumentTo2047CharactersAndLogsIt)
{
    char* argv[3] = { NULL };
    std::string big(3000, 'a');
    size_t mark = TestLog::Size();
    ASSERT_EQ(0, PushArgv(argv, 3, "%s", big.c_str()));
    EXPECT_EQ(2047u, strlen(argv[0]));
    EXPECT_NE(std::string::npos,
              TestLog::Since(mark).find("PushArgv: buffer is not big enough, string is truncated.\n"));

    mark = TestLog::Size();
    ASSERT_EQ(0, PushArgv(argv, 3, "%s", std::string(2000, 'b').c_str()));
    EXPECT_EQ(std::string::npos, TestLog::Since(mark).find("truncated"));
    CleanArgv(argv);
}

TEST(Argv, CapacityOneOrZeroHoldsNothing)
{
    char* one[1] = { NULL };
    EXPECT_EQ(-1, PushArgv(one, 1, "x"));
    EXPECT_EQ(NULL, one[0]);
    char* guard[1] = { (char*)"untouched" };
    EXPECT_EQ(-1, PushArgv(guard, 0, "x"));
    EXPECT_STREQ("untouched", guard[0]);
}

/* ---- shell commands ---- */

/* Fills a 4-slot vector with: sh -c cmd. */
void ShellVector(char* (&argv)[4], const char* cmd)
{
    PushArgv(argv, 4, "sh");
    PushArgv(argv, 4, "-c");
    PushArgv(argv, 4, "%s", cmd);
}

struct StatusCase {
    const char* cmd;
    int status;
};

class ShellStatus : public ::testing::TestWithParam<StatusCase> {};

TEST_P(ShellStatus, DecodesExitCodeOrSignal)
{
    const StatusCase& c = GetParam();
    size_t mark = TestLog::Size();
    EXPECT_EQ(c.status, ExecuteCmd(c.cmd));
    std::string line = "Execute command [" + std::string(c.cmd) + "] result: " +
                       std::to_string(c.status) + ".\n";
    EXPECT_NE(std::string::npos, TestLog::Since(mark).find(line));

    mark = TestLog::Size();
    EXPECT_EQ(c.status, ExecuteCmdSilently(c.cmd));
    EXPECT_EQ(std::string::npos, TestLog::Since(mark).find("Execute command"));
}

INSTANTIATE_TEST_SUITE_P(Table, ShellStatus,
                         ::testing::Values(StatusCase{ "true", 0 }, StatusCase{ "exit 3", 3 },
                                           StatusCase{ "exit 255", 255 },
                                           StatusCase{ "kill -9 $$", 9 },
                                           StatusCase{ "kill -TERM $$", 15 },
                                           StatusCase{ "nosuchcommand-kvx 2>/dev/null", 127 }));

TEST(Shell, NullCommandIsMinusOne)
{
    EXPECT_EQ(-1, ExecuteCmd(NULL));
    EXPECT_EQ(-1, ExecuteCmdSilently(NULL));
}

volatile sig_atomic_t g_reaped = 0;

void ReapingHandler(int)
{
    while (waitpid(-1, NULL, WNOHANG) > 0)
        g_reaped = g_reaped + 1;
}

TEST(Shell, OwnSigchldHandlerCannotStealTheStatusAndIsRestored)
{
    struct sigaction sa, old, now;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = ReapingHandler;
    sigemptyset(&sa.sa_mask);
    ASSERT_EQ(0, sigaction(SIGCHLD, &sa, &old));

    EXPECT_EQ(3, ExecuteCmd("exit 3"));
    EXPECT_EQ(4, ExecuteCmdSilently("exit 4"));
    char* argv[4] = { NULL };
    ShellVector(argv, "exit 5");
    EXPECT_EQ(5, ExecuteProcess(argv, NULL, 0, NULL, 0));
    CleanArgv(argv);

    sigaction(SIGCHLD, NULL, &now);
    EXPECT_EQ((void*)ReapingHandler, (void*)now.sa_handler);
    EXPECT_EQ(0, g_reaped);
    sigaction(SIGCHLD, &old, NULL);
}

/* ---- fork/execvp with pipes ---- */

struct ProcessCase {
    const char* name;
    std::vector<std::string> argv;
    std::string input;
    size_t outsize;
    int rc;
    std::string output;
};

class Process : public ::testing::TestWithParam<ProcessCase> {};

TEST_P(Process, FeedsInputCapturesOutputAndReportsExit)
{
    const ProcessCase& c = GetParam();
    char* argv[8] = { NULL };
    for (const std::string& a : c.argv)
        ASSERT_EQ(0, PushArgv(argv, 8, "%s", a.c_str()));
    std::vector<char> out(c.outsize + 1, 'Z');
    int fds = fkit::OpenFdCount();

    int rc = ExecuteProcess(argv, c.input.empty() ? NULL : c.input.data(), c.input.size(),
                            c.outsize > 0 ? out.data() : NULL, c.outsize);
    EXPECT_EQ(c.rc, rc);
    if (c.outsize > 0) {
        EXPECT_EQ(c.output, std::string(out.data()));
    }
    EXPECT_EQ(fds, fkit::OpenFdCount());   /* every pipe end released */
    CleanArgv(argv);
}

INSTANTIATE_TEST_SUITE_P(
    Table, Process,
    ::testing::Values(
        ProcessCase{ "StdinFedStdoutCaptured", { "cat" }, "hello\n", 100, 0, "hello\n" },
        ProcessCase{ "ExitCodePassedThrough", { "sh", "-c", "echo out; exit 7" }, "", 100, 7, "out\n" },
        ProcessCase{ "OneByteBufferGetsEmptyString", { "sh", "-c", "echo abc" }, "", 1, 0, "" },
        ProcessCase{ "OutputCutToBufferLessOne", { "sh", "-c", "echo abcdef" }, "", 4, 0, "abc" },
        ProcessCase{ "KilledChildIsMinusOne", { "sh", "-c", "kill -9 $$" }, "", 10, -1, "" },
        ProcessCase{ "MissingProgramIs127", { "/nonexistent/kvx-prog" }, "", 10, 127, "" },
        ProcessCase{ "ProgramFoundInPath", { "printf", "%s-%s", "a", "b" }, "", 10, 0, "a-b" },
        ProcessCase{ "NoOutputBufferStillRuns", { "sh", "-c", "exit 2" }, "", 0, 2, "" },
        /* the child never reads: the write must not kill the caller */
        ProcessCase{ "UnreadInputToExitedChild", { "/nonexistent/kvx-prog" },
                     std::string(200000, 'i'), 10, 127, "" }),
    [](const ::testing::TestParamInfo<ProcessCase>& i) { return std::string(i.param.name); });

TEST(Process, NullVectorRunsNothing)
{
    char* empty[2] = { NULL };
    char out[8] = "keep";
    EXPECT_EQ(0, ExecuteProcess(NULL, "x", 1, out, sizeof(out)));
    EXPECT_EQ(0, ExecuteProcess(empty, "x", 1, out, sizeof(out)));
    EXPECT_STREQ("keep", out);
}

TEST(Process, ChildLogsFailedExecThroughSharedLog)
{
    char* argv[2] = { NULL };
    PushArgv(argv, 2, "/nonexistent/kvx-prog");
    size_t mark = TestLog::Size();
    EXPECT_EQ(127, ExecuteProcess(argv, NULL, 0, NULL, 0));
    EXPECT_NE(std::string::npos, TestLog::Since(mark).find(
                  "ExecuteProcess: failed to exec command(2): /nonexistent/kvx-prog.\n"));
    CleanArgv(argv);
}

TEST(Process, ChildRunsInItsOwnSession)
{
    char* argv[4] = { NULL };
    ShellVector(argv, "cut -d' ' -f6 /proc/$$/stat");
    char out[64] = { 0 };
    ASSERT_EQ(0, ExecuteProcess(argv, NULL, 0, out, sizeof(out)));
    CleanArgv(argv);
    EXPECT_NE(getsid(0), atoi(out));
    EXPECT_GT(atoi(out), 0);
}

TEST(Process, GrandchildHoldingOutputOpenDoesNotHang)
{
    char* argv[4] = { NULL };
    ShellVector(argv, "echo early; sleep 3 &");
    char out[64] = { 0 };
    time_t start = time(NULL);
    EXPECT_EQ(0, ExecuteProcess(argv, NULL, 0, out, sizeof(out)));
    EXPECT_LT(time(NULL) - start, 2);
    EXPECT_STREQ("early\n", out);
    CleanArgv(argv);
}

/* ---- the executable's directory, digit strings ---- */

TEST(ModulePath, IsDirectoryOfThisExecutableTerminated)
{
    char self[4096] = { 0 };
    ASSERT_GT(readlink("/proc/self/exe", self, sizeof(self) - 1), 0);
    std::string dir = dirname(self);

    char path[4096];
    memset(path, 'X', sizeof(path));   /* not zeroed: the copy must terminate */
    char* got = GetProcessModulePath(path, sizeof(path));
    ASSERT_NE(nullptr, got);
    EXPECT_EQ(dir, got);
    EXPECT_EQ(dir, path);

    std::vector<char> exact(dir.size() + 1, 'X');
    EXPECT_NE(nullptr, GetProcessModulePath(exact.data(), (int)exact.size()));
    EXPECT_EQ(dir, std::string(exact.data()));

    size_t mark = TestLog::Size();
    char small[4] = "abc";
    EXPECT_EQ(nullptr, GetProcessModulePath(small, (int)dir.size()));
    EXPECT_STREQ("abc", small);
    EXPECT_NE(std::string::npos, TestLog::Since(mark).find(
                  "Got Path Len is larger than input path buf len! failed !\n"));

    char pp[4096];
    ASSERT_EQ(0, GetProcessPath(pp, sizeof(pp)));
    EXPECT_EQ(dir, pp);
    EXPECT_EQ(-1, GetProcessPath(pp, (int)dir.size()));
}

TEST(DigitString, AcceptsOnlyNonEmptyDecimal)
{
    struct {
        const char* s;
        int want;
    } cases[] = { { "0", 1 }, { "1234567890", 1 }, { "", 0 }, { NULL, 0 }, { "12a", 0 },
                  { "-1", 0 }, { " 1", 0 }, { "1 ", 0 }, { "\xd9\xa1", 0 } };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.s != NULL ? c.s : "(null)");
        EXPECT_EQ(c.want, isdigitstring(c.s));
    }
}

}  // namespace
