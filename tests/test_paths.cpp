/*
 * test_paths.cpp - directory getters and their environment side effects,
 * path joining, bounded copies, directory creation, file properties, the
 * single-instance lock, date and time stamps, trims.
 */
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "foundation_testkit.h"
#include "zelutil.h"

using fkit::InChild;
using fkit::TempDir;
using fkit::TestLog;

namespace {

::testing::Environment* const kLog = ::testing::AddGlobalTestEnvironment(new TestLog);

/* ---- getters: each case in a fresh process, values are cached ---- */

struct DirCase {
    const char* name;
    const char* var;
    const char* value;       /* null: unset */
    char* (*getter)(void);
    const char* want;
    const char* wantEnv;     /* the variable afterwards */
};

class DirGetter : public ::testing::TestWithParam<DirCase> {};

TEST_P(DirGetter, ResolvesOnceAndExportsDefault)
{
    const DirCase& c = GetParam();
    EXPECT_EQ(0, InChild([&] {
        unsetenv(TARGET_WORK_DIR_ENV);
        unsetenv(TARGET_BOOTSTRAP_DIR_ENV);
        if (c.value != NULL)
            setenv(c.var, c.value, 1);
        EXPECT_STREQ(c.want, c.getter());
        const char* env = getenv(c.var);
        EXPECT_STREQ(c.wantEnv, env != NULL ? env : "(unset)");
        /* cached: a later change of the environment is not seen */
        setenv(c.var, "/elsewhere", 1);
        EXPECT_STREQ(c.want, c.getter());
    }));
}

INSTANTIATE_TEST_SUITE_P(
    Table, DirGetter,
    ::testing::Values(
        DirCase{ "WorkUnset", TARGET_WORK_DIR_ENV, NULL, GetTargetWorkDir, "/tmp//", "/tmp" },
        DirCase{ "WorkEmpty", TARGET_WORK_DIR_ENV, "", GetTargetWorkDir, "/tmp//", "/tmp" },
        DirCase{ "WorkPlain", TARGET_WORK_DIR_ENV, "/opt/t", GetTargetWorkDir, "/opt/t//", "/opt/t" },
        DirCase{ "WorkSlash", TARGET_WORK_DIR_ENV, "/data/", GetTargetWorkDir, "/data//", "/data/" },
        DirCase{ "BootUnset", TARGET_BOOTSTRAP_DIR_ENV, NULL, GetTargetBootstrapDir, "/tmp//", "/tmp" },
        DirCase{ "BootPlain", TARGET_BOOTSTRAP_DIR_ENV, "/b", GetTargetBootstrapDir, "/b//", "/b" },
        DirCase{ "ClientDirFromWork", TARGET_WORK_DIR_ENV, "/w", GetEnvLdLibraryPath,
                 "/w//linux-kvx-client", "/w" },
        DirCase{ "ClientDirDefault", TARGET_WORK_DIR_ENV, NULL, GetEnvLdLibraryPath,
                 "/tmp//linux-kvx-client", "/tmp" },
        DirCase{ "AgentFromBootstrap", TARGET_BOOTSTRAP_DIR_ENV, "/b", GetEATarget, "/b//kvx_ea", "/b" },
        DirCase{ "AgentDefault", TARGET_BOOTSTRAP_DIR_ENV, NULL, GetEATarget, "/tmp//kvx_ea", "/tmp" }),
    [](const ::testing::TestParamInfo<DirCase>& i) { return std::string(i.param.name); });

TEST(DirGetter, ZelRootIsReadAtEveryCall)
{
    EXPECT_EQ(0, InChild([] {
        unsetenv(ZEL_ROOT_PATH_ENV);
        EXPECT_STREQ("/ZEL_ROOT/", GetZelRootDir());
        setenv(ZEL_ROOT_PATH_ENV, "/mnt/sess", 1);
        EXPECT_STREQ("/mnt/sess", GetZelRootDir());
        setenv(ZEL_ROOT_PATH_ENV, "", 1);
        EXPECT_STREQ("/ZEL_ROOT/", GetZelRootDir());
    }));
}

/* ---- path_join, exstrncpy ---- */

TEST(PathJoin, JoinsWithOneSlashAndBoundsByLength)
{
    struct {
        const char* a;
        const char* b;
        size_t len;
        const char* want;   /* null: returns null, dst untouched */
    } cases[] = {
        { "a", NULL, 64, "a/" },          { "a/", "b", 64, "a/b" },
        { "/opt/t", "/", 64, "/opt/t//" }, { "/tmp//", "kvx_ea", 64, "/tmp//kvx_ea" },
        { "", "b", 64, NULL },             { NULL, "b", 64, NULL },
        { "a", "b", 0, NULL },             { "abcdef", "ghi", 5, "abcd" },
        { "abc", "ghi", 4, "abc" },        { "abc", "ghi", 5, "abc/" },
        { "abc", "ghi", 7, "abc/gh" },
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.a != NULL ? c.a : "(null)") + " + " + (c.b != NULL ? c.b : "(null)") +
                     " len " + std::to_string(c.len));
        char dst[64];
        memset(dst, '#', sizeof(dst));
        dst[63] = '\0';
        char* got = path_join(c.a, c.b, dst, c.len);
        if (c.want == NULL) {
            EXPECT_EQ(nullptr, got);
            EXPECT_EQ('#', dst[0]);
        } else {
            EXPECT_EQ(dst, got);
            EXPECT_STREQ(c.want, dst);
            if (c.len < sizeof(dst) - 1) {
                EXPECT_EQ('#', dst[c.len]);   /* nothing written beyond len */
            }
        }
    }
    EXPECT_EQ(nullptr, path_join("a", "b", NULL, 8));
}

TEST(Exstrncpy, CopiesAtMostNMinusOneAndTerminates)
{
    char buf[8];
    memset(buf, 'x', sizeof(buf));
    EXPECT_STREQ("0123456", exstrncpy(buf, "0123456789", sizeof(buf)));
    EXPECT_STREQ("ab", exstrncpy(buf, "ab", sizeof(buf)));
    EXPECT_EQ('\0', buf[7]);
    EXPECT_STREQ("", exstrncpy(buf, NULL, sizeof(buf)));
    buf[0] = 'k';
    exstrncpy(buf, "zz", 0);   /* no room: untouched */
    EXPECT_EQ('k', buf[0]);
    EXPECT_STREQ("", exstrncpy(buf, "zz", 1));
}

/* ---- directories and file properties ---- */

TEST(CreateDirectory, MakesOneLevelAndRejectsFiles)
{
    TempDir tmp;
    std::string file = tmp / "file";
    fkit::WriteFile(file, "x");
    mode_t old = umask(022);
    EXPECT_EQ(0, CreateDirectory((tmp / "d").c_str()));
    umask(old);
    struct stat st;
    ASSERT_EQ(0, stat((tmp / "d").c_str(), &st));
    EXPECT_EQ(0755u, st.st_mode & 07777);
    EXPECT_EQ(0, CreateDirectory((tmp / "d").c_str()));

    size_t mark = TestLog::Size();
    EXPECT_EQ(-1, CreateDirectory(file.c_str()));
    EXPECT_EQ(-1, CreateDirectory((tmp / "no/such").c_str()));
    EXPECT_EQ(-1, CreateDirectory((file + "/sub").c_str()));
    std::string log = TestLog::Since(mark);
    EXPECT_NE(std::string::npos, log.find("The path [" + file + "] doesn't refer to a directory.\n"));
    EXPECT_NE(std::string::npos,
              log.find("Mkdir [" + tmp / "no/such" + "] error: [No such file or directory]\n"));
    EXPECT_NE(std::string::npos, log.find("Stat [" + file + "/sub] error: [Not a directory]\n"));
}

TEST(FileProperty, AllRequestedFlagsMustHold)
{
    TempDir tmp;
    std::string empty = tmp / "empty", full = tmp / "full", fifo = tmp / "fifo";
    fkit::WriteFile(empty, "");
    fkit::WriteFile(full, "data");
    ASSERT_EQ(0, chmod(full.c_str(), 0600));
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0644));
    std::string link = tmp / "link";
    ASSERT_EQ(0, symlink(full.c_str(), link.c_str()));

    struct {
        std::string file;
        unsigned prop;
        int rpc;
        int want;
    } cases[] = {
        { "/etc", FILE_DIRECTORY | FILE_READABLE, 0, 1 },
        { "/etc", FILE_REGULAR, 0, 0 },
        { "/etc", FILE_EMPTY | FILE_NON_EMPTY, 0, 1 },
        { empty, FILE_REGULAR | FILE_EMPTY, 0, 1 },
        { empty, FILE_NON_EMPTY, 0, 0 },
        { full, FILE_REGULAR | FILE_NON_EMPTY | FILE_READABLE | FILE_WRITABLE, 0, 1 },
        { full, FILE_EXECUTABLE, 0, 0 },
        { full, FILE_EMPTY, 0, 0 },
        { link, FILE_LINK, 0, 0 },          /* stat follows links */
        { link, FILE_REGULAR, 0, 1 },
        { fifo, FILE_FIFO, 0, 1 },
        { "/dev/null", FILE_CHARACTER, 0, 1 },
        { "/dev/null", FILE_BLOCK, 0, 0 },
        { tmp / "missing", 0, 0, 0 },
        { "", 0, 0, 0 },
        { full, FILE_REGULAR, 1, 1 },       /* layer disabled: local stat */
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file + " prop " + std::to_string(c.prop));
        EXPECT_EQ(c.want, CheckFileProperty(c.file.c_str(), c.prop, c.rpc));
    }
    EXPECT_EQ(0, CheckFileProperty(NULL, 0, 0));
}

/* ---- the single-instance lock ---- */

TEST(LockFile, SecondProcessIsRefusedWhileFirstHoldsIt)
{
    TempDir tmp;
    std::string path = tmp / "backup.bat";
    int fds = fkit::OpenFdCount();
    int fd = check_and_lock_file(path.c_str(), 0);
    ASSERT_GE(fd, 0);
    EXPECT_NE(0, fcntl(fd, F_GETFD) & FD_CLOEXEC);

    size_t mark = TestLog::Size();
    pid_t holder = getpid();
    EXPECT_EQ(0, InChild([&] {
        int before = fkit::OpenFdCount();
        EXPECT_EQ(-2, check_and_lock_file(path.c_str(), 0));
        EXPECT_EQ(-2, check_and_lock_file(path.c_str(), 1));
        EXPECT_EQ(before, fkit::OpenFdCount());   /* refused descriptors closed */
    }));
    std::string log = TestLog::Since(mark);
    std::string line = "check_and_lock_file: File (" + path + ") is locked(write) by pid: [" +
                       std::to_string(holder) + "].\n";
    size_t at = log.find(line);
    EXPECT_NE(std::string::npos, at);
    EXPECT_EQ(std::string::npos, log.find(line, at + 1));   /* quiet: once only */

    close(fd);
    EXPECT_EQ(fds, fkit::OpenFdCount());
    EXPECT_EQ(0, InChild([&] {
        int got = check_and_lock_file(path.c_str(), 0);
        EXPECT_GE(got, 0);
        close(got);
    }));
}

TEST(LockFile, UnopenablePathIsMinusOne)
{
    TempDir tmp;
    std::string path = tmp / "no/such/file";
    size_t mark = TestLog::Size();
    EXPECT_EQ(-1, check_and_lock_file(path.c_str(), 1));
    EXPECT_NE(std::string::npos,
              TestLog::Since(mark).find("check_and_lock_file: Failed to open [" + path +
                                        "] even after trying [1] times, error code: [2]\n"));
    EXPECT_EQ(-1, check_and_lock_file(NULL, 0));
}

/* ---- date and time stamps ---- */

std::string CivilDate(int daysBack, bool dashes)
{
    /* calendar arithmetic on a broken-down date, independent of 86400 s */
    time_t now = time(NULL);
    struct tm t;
    localtime_r(&now, &t);
    t.tm_mday -= daysBack;
    t.tm_hour = 12;
    t.tm_isdst = -1;
    mktime(&t);
    char buf[32];
    strftime(buf, sizeof(buf), dashes ? "%Y-%m-%d" : "%Y%m%d", &t);
    return buf;
}

TEST(Stamps, DatesCountWholeDaysBack)
{
    setenv("TZ", "UTC", 1);
    tzset();
    struct {
        char sep;
        int days;
        bool dashes;
    } cases[] = { { 0, 0, false }, { '-', 0, true }, { 0, 1, false }, { 0, 59, false },
                  { '-', 365, true }, { '-', 366 * 4, true } };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.days) + (c.dashes ? " with dashes" : " plain"));
        std::string want = CivilDate(c.days, c.dashes);
        std::string got = GetLastDate(c.sep, c.days);
        if (got != want)   /* midnight passed between the two reads */
            want = CivilDate(c.days, c.dashes);
        EXPECT_EQ(want, got);
    }
    EXPECT_EQ(std::string(GetLastDate('/', 0)).size(), 10u);
    EXPECT_EQ('/', GetLastDate('/', 0)[4]);
    unsetenv("TZ");
    tzset();
}

/* ---- trims ---- */

TEST(Trim, RemovesWhiteSpaceInPlace)
{
    struct {
        const char* in;
        const char* right;
        const char* left;
        const char* both;
    } cases[] = {
        { "  a b  ", "  a b", "a b  ", "a b" },
        { "\t\r\n x \n", "\t\r\n x", "x \n", "x" },
        { "abc", "abc", "abc", "abc" },
        { "   ", "", "", "" },
        { "", "", "", "" },
    };
    char* (*const rights[])(char*) = { TrimRightSpaces, rtrim };
    char* (*const lefts[])(char*) = { TrimLeftSpaces, ltrim };
    char* (*const boths[])(char*) = { TrimSpaces, trim };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string("[") + c.in + "]");
        for (int k = 0; k < 2; k++) {
            char buf[32];
            exstrncpy(buf, c.in, sizeof(buf));
            EXPECT_EQ(buf, rights[k](buf));
            EXPECT_STREQ(c.right, buf);
            exstrncpy(buf, c.in, sizeof(buf));
            EXPECT_EQ(buf, lefts[k](buf));
            EXPECT_STREQ(c.left, buf);
            exstrncpy(buf, c.in, sizeof(buf));
            EXPECT_EQ(buf, boths[k](buf));
            EXPECT_STREQ(c.both, buf);
        }
    }
    EXPECT_EQ(nullptr, TrimSpaces(NULL));
    EXPECT_EQ(nullptr, TrimLeftSpaces(NULL));
    EXPECT_EQ(nullptr, TrimRightSpaces(NULL));
}

}  // namespace
