// test_exec.cpp - argument vectors, shell commands, fork/exec with pipes.
#include <string.h>
#include <time.h>

#include <vector>

#include "foundation_testkit.h"

using namespace fkit;

static ::testing::Environment* const kLog = ::testing::AddGlobalTestEnvironment(new TestLog);

TEST(Argv, FillsToCapacityLessOneAndCutsLongArguments)
{
    char* argv[3] = { NULL };
    size_t mark = TestLog::Size();
    EXPECT_EQ(0, PushArgv(argv, 3, "%s", std::string(3000, 'a').c_str()));
    EXPECT_EQ(2047u, strlen(argv[0]));
    EXPECT_EQ(1, TestLog::Count(mark, "PushArgv: buffer is not big enough, string is truncated.\n"));
    EXPECT_EQ(0, PushArgv(argv, 3, "echo %d %s", 42, "x"));
    EXPECT_STREQ("echo 42 x", argv[1]);
    EXPECT_EQ(-1, PushArgv(argv, 3, "full"));
    EXPECT_EQ(NULL, argv[2]);
    CleanArgv(argv);
    char* guard[1] = { (char*)"untouched" };
    EXPECT_EQ(-1, PushArgv(guard, 0, "x"));
    EXPECT_STREQ("untouched", guard[0]);
}

TEST(Shell, DecodesExitCodeOrSignalAndLogsUnlessSilent)
{
    const struct { const char* cmd; int status; } cases[] = {
        { "true", 0 }, { "exit 3", 3 }, { "kill -9 $$", 9 }, { "nosuchcmd-kvx 2>/dev/null", 127 } };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.cmd);
        size_t mark = TestLog::Size();
        EXPECT_EQ(c.status, ExecuteCmd(c.cmd));
        EXPECT_EQ(c.status, ExecuteCmdSilently(c.cmd));
        EXPECT_EQ(1, TestLog::Count(mark, "Execute command [" + std::string(c.cmd) + "] result: " +
                                              std::to_string(c.status) + ".\n"));
    }
    EXPECT_EQ(-1, ExecuteCmd(NULL));
    EXPECT_EQ(-1, ExecuteCmdSilently(NULL));
}

TEST(Process, FeedsInputCapturesOutputAndReleasesEveryPipe)
{
    // log: a line the call must log, or null: no failure logged
    const struct { std::vector<std::string> argv; std::string input; size_t outsize; int rc;
                   const char *output, *log; } cases[] = {
        { { "cat" }, "hello\n", 100, 0, "hello\n", NULL },
        { { "sh", "-c", "echo abcdef; exit 7" }, "", 4, 7, "abc", NULL },
        { { "sh", "-c", "kill -9 $$" }, "", 10, -1, "", NULL },
        // the child never reads its input: writing it must not kill the caller
        { { "/nonexistent/kvx-prog" }, std::string(200000, 'i'), 10, 127, "",
          "ExecuteProcess: failed to exec command(2): /nonexistent/kvx-prog.\n" },
        // a grandchild holding the output open must not hold up the caller
        { { "sh", "-c", "echo early; sleep 3 2>/dev/null &" }, "", 64, 0, "early\n", NULL },
        // a tool writing more than a pipe holds, kept to its first bytes or dropped without a buffer
        { { "sh", "-c", "head -c 300000 /dev/zero | tr '\\000' x; exit 4" }, "", 10, 4, "xxxxxxxxx", NULL },
        { { "sh", "-c", "head -c 300000 /dev/zero; cat >/dev/null; exit 5" }, std::string(200000, 'i'), 0, 5, "", NULL },
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.argv.back());
        char* argv[8] = { NULL };
        for (const std::string& a : c.argv)
            PushArgv(argv, 8, "%s", a.c_str());
        std::vector<char> out(c.outsize + 1, 'Z');
        out.back() = '\0';
        long fds = OpenFdCount();
        size_t mark = TestLog::Size();
        time_t start = time(NULL);
        EXPECT_EQ(c.rc, ExecuteProcess(argv, c.input.empty() ? NULL : c.input.data(), c.input.size(),
                                       c.outsize > 0 ? out.data() : NULL, c.outsize));
        EXPECT_LT(time(NULL) - start, 3);   // the grandchild sleeps 3 s
        EXPECT_STREQ(c.output, out.data());
        EXPECT_EQ(fds, OpenFdCount());
        EXPECT_EQ(c.log != NULL, TestLog::Count(mark, c.log != NULL ? c.log : "ExecuteProcess: failed"));
        CleanArgv(argv);
    }
    char* empty[2] = { NULL };
    char out[8] = "keep";
    EXPECT_EQ(0, ExecuteProcess(NULL, "x", 1, out, sizeof(out)));
    EXPECT_EQ(0, ExecuteProcess(empty, "x", 1, out, sizeof(out)));
    EXPECT_STREQ("keep", out);
}
