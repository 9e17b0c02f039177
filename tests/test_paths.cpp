// test_paths.cpp - directories, paths, file properties, trims, the lock, the job
// monitor segment under the machine-wide key, the never-enabled I/O layer;
// argument vectors, shell commands, fork/exec with pipes.
#include <fcntl.h>
#include <string.h>
#include <sys/shm.h>
#include <time.h>

#include <vector>

#include "foundation_testkit.h"

using namespace fkit;

static ::testing::Environment* const kLog = ::testing::AddGlobalTestEnvironment(new TestLog);

TEST(DirGetter, ResolvesOnceAndExportsTheDefault)
{
    // value null: unset; env: the variable afterwards
    const struct { const char *var, *value; char* (*getter)(void); const char *want, *env; } cases[] = {
        { TARGET_WORK_DIR_ENV, NULL, GetTargetWorkDir, "/tmp//", "/tmp" },
        { TARGET_WORK_DIR_ENV, "", GetTargetWorkDir, "/tmp//", "/tmp" },
        { TARGET_WORK_DIR_ENV, "/data/", GetTargetWorkDir, "/data//", "/data/" },
        { TARGET_WORK_DIR_ENV, "/w", GetEnvLdLibraryPath, "/w//linux-kvx-client", "/w" },
        { TARGET_BOOTSTRAP_DIR_ENV, "/b", GetEATarget, "/b//kvx_ea", "/b" },
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.want);
        EXPECT_EQ(0, InChild([&] {
            clearenv();
            if (c.value != NULL)
                setenv(c.var, c.value, 1);
            EXPECT_STREQ(c.want, c.getter());
            EXPECT_STREQ(c.env, getenv(c.var));
            setenv(c.var, "/elsewhere", 1);
            EXPECT_STREQ(c.want, c.getter());   // cached
        }));
    }
}

TEST(PathJoin, JoinsWithOneSlashWithinTheLength)
{
    const struct { const char *a, *b; size_t len; const char* want; } cases[] = {   // want null: refused
        { "a", NULL, 64, "a/" },  { "a/", "b", 64, "a/b" }, { "/opt/t", "/", 64, "/opt/t//" },
        { "", "b", 64, NULL },    { NULL, "b", 64, NULL },  { "a", "b", 0, NULL },
        { "abcdef", "ghi", 5, "abcd" }, { "abc", "ghi", 5, "abc/" }, { "abc", "ghi", 7, "abc/gh" },
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "case " << &c - cases);
        char dst[65];
        memset(dst, '#', sizeof(dst));
        EXPECT_EQ(c.want != NULL ? dst : nullptr, path_join(c.a, c.b, dst, c.len));
        EXPECT_STREQ(c.want != NULL ? c.want : "#", c.want != NULL ? dst : std::string(dst, 1).c_str());
        EXPECT_EQ(std::string(65 - c.len, '#'), std::string(dst + c.len, 65 - c.len));   // nothing past len
    }
}

TEST(FileProperty, AllRequestedFlagsMustHoldWithOrWithoutTheLayer)
{
    TempDir tmp;
    std::string empty = tmp / "empty", full = tmp / "full", link = tmp / "link";
    std::ofstream(empty) << "";
    std::ofstream(full) << "data";
    ASSERT_EQ(0, chmod(full.c_str(), 0600) + symlink(full.c_str(), link.c_str()));
    const struct { std::string file; unsigned prop; int want; } cases[] = {
        { "/etc", FILE_DIRECTORY | FILE_READABLE, 1 }, { "/etc", FILE_REGULAR, 0 },
        { empty, FILE_REGULAR | FILE_EMPTY, 1 },       { empty, FILE_NON_EMPTY, 0 },
        { full, FILE_REGULAR | FILE_NON_EMPTY | FILE_READABLE | FILE_WRITABLE, 1 },
        { full, FILE_EXECUTABLE, 0 },                  { link, FILE_LINK, 0 },   // stat follows links
        { "/dev/null", FILE_CHARACTER, 1 },            { tmp / "missing", 0, 0 },
    };
    size_t mark = TestLog::Size();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file + " prop " + std::to_string(c.prop));
        EXPECT_EQ(c.want, CheckFileProperty(c.file.c_str(), c.prop, 0));
        EXPECT_EQ(c.want, CheckFileProperty(c.file.c_str(), c.prop, 1));
    }
    EXPECT_EQ(0, CheckFileProperty(NULL, 0, 0));
    EXPECT_EQ(0, TestLog::Count(mark, "[RPC"));   // the disabled layer is never asked
}

TEST(Trim, RemovesWhiteSpaceInPlace)
{
    const char* cases[][4] = {   // input, right, left, both
        { "  a b  ", "  a b", "a b  ", "a b" }, { "\t\r\n x \n", "\t\r\n x", "x \n", "x" },
        { "abc", "abc", "abc", "abc" },         { "   ", "", "", "" },
    };
    char* (*const trims[])(char*) = { TrimRightSpaces, TrimLeftSpaces, TrimSpaces };
    for (const auto& c : cases)
        for (int k = 0; k < 3; k++) {
            SCOPED_TRACE(testing::Message() << "[" << c[0] << "] trim " << k);
            char buf[32];
            exstrncpy(buf, c[0], sizeof(buf));
            EXPECT_EQ(buf, trims[k](buf));
            EXPECT_STREQ(c[k + 1], buf);
        }
    EXPECT_EQ(nullptr, TrimSpaces(NULL));
}

TEST(LockFile, SecondProcessIsRefusedWhileFirstHoldsIt)
{
    TempDir tmp;
    std::string path = tmp / "backup.bat";
    int fd = check_and_lock_file(path.c_str(), 0);
    ASSERT_GE(fd, 0);
    EXPECT_NE(0, fcntl(fd, F_GETFD) & FD_CLOEXEC);
    size_t mark = TestLog::Size();
    EXPECT_EQ(0, InChild([&] {
        long before = OpenFdCount();
        EXPECT_EQ(-2, check_and_lock_file(path.c_str(), 0));
        EXPECT_EQ(-2, check_and_lock_file(path.c_str(), 1));
        EXPECT_EQ(before, OpenFdCount());   // refused descriptors closed
    }));
    EXPECT_EQ(1, TestLog::Count(mark, "check_and_lock_file: File (" + path + ") is locked(write) by pid: [" +
                                          std::to_string(getpid()) + "].\n"));
    close(fd);
    EXPECT_EQ(0, InChild([&] { EXPECT_GE(check_and_lock_file(path.c_str(), 0), 0); }));
}

TEST(Shm, ReaderFindsTheWriterSegmentUnderTheMachineKey)
{
    const key_t key = (key_t)0xAC23E27E;   // the backup program's
    shmctl(shmget(key, 0, 0), IPC_RMID, NULL);
    int id = CreateSHM(8192);
    ASSERT_GE(id, 0);   // 0 is the first segment of a fresh IPC namespace (a container)
    EXPECT_EQ(id, shmget(key, 0, 0));
    char *w = (char*)AttachSHM(8192, id), *r = (char*)AttachSHM(8192, 0);   // r: looked up by key
    ASSERT_TRUE(w != NULL && r != NULL);
    exstrncpy(w, "job 42 at 37%", 64);
    EXPECT_STREQ("job 42 at 37%", r);
    EXPECT_EQ(nullptr, AttachSHM(16384, 0));   // more than it holds
    EXPECT_EQ(0, DetachSHM(r) + DetachSHM(w) + DelSHM(id));
    size_t mark = TestLog::Size();
    EXPECT_EQ(nullptr, AttachSHM(8192, 0));
    EXPECT_EQ(1, TestLog::Count(mark, "AttachSHM: shmget failed: No such file or directory(2). shmid=-1\n"));
}

TEST(IoLayer, WrapperRefusesWithATraceOfItsCaller)
{
    size_t mark = TestLog::Size();
    EXPECT_EQ(-1, _zswrap_open(7, "caller.cpp", "do_io", "/etc/hosts", O_RDONLY, 0));
    EXPECT_EQ(1, TestLog::Count(mark, "[RPC    7:caller.cpp do_io] RPC connection broken or not ready while "
                                      "invoking open!\n"));
}

TEST(ShellWord, SafeValuesStayAsTheyWereOthersAreOneQuotedWord)
{
    const struct { const char* in; int dquote; size_t size; const char* want; } cases[] = {   // want null: refused
        { "/opt/t//linux-kvx-client", 0, 64, "/opt/t//linux-kvx-client" },
        { "a-Z_0.9+=:@,%", 1, 64, "\"a-Z_0.9+=:@,%\"" },
        { "/srv/kvx node", 0, 64, "'/srv/kvx node'" },
        { "/srv/kvx node", 1, 64, "'/srv/kvx node'" },
        { "it's $(x)`y`\"z\";*", 0, 64, "'it'\\''s $(x)`y`\"z\";*'" },
        { "", 0, 64, "''" },
        { NULL, 1, 64, "''" },
        { "abc", 1, 6, "\"abc\"" }, { "abc", 1, 5, NULL },
        { "a b", 0, 6, "'a b'" },   { "a b", 0, 5, NULL },   { "'", 0, 6, NULL },
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "case " << &c - cases);
        char out[64];
        memset(out, '#', sizeof(out));
        EXPECT_EQ(c.want != NULL ? out : nullptr, zel_shell_word(c.in, c.dquote, out, c.size));
        EXPECT_STREQ(c.want != NULL ? c.want : "", out);
    }
    // whole command lines are sized from their parts, never cut
    std::string dir(5000, 'd');
    char* line = zel_shell_cmdline("rm -rf %w/%s %W %d%%", (dir + " x").c_str(), "*.js", "/a", 7);
    EXPECT_EQ("rm -rf '" + dir + " x'/*.js \"/a\" 7%", std::string(line != NULL ? line : ""));
    free(line);
    EXPECT_EQ(nullptr, zel_shell_cmdline("%q", "x"));
}

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
