/*
 * test_log.cpp - the diagnostic log: line layout, banner, level threshold,
 * configuration from arguments and environment, directory creation,
 * console echo and trimming.  Every case that configures the logger runs
 * in a fresh forked process: the logger's state lives for the process.
 */
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "foundation_testkit.h"
#include "zelutil.h"

using fkit::InChild;
using fkit::ReadFile;
using fkit::TempDir;

namespace {

const char kBanner[] = "Tessel for Linux Version 6.5.1 (Build:1631.1)\n";

std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> out;
    std::stringstream ss(text);
    std::string line;
    while (std::getline(ss, line))
        out.push_back(line);
    return out;
}

void ClearLogEnv()
{
    unsetenv(ZEL_LOG_BASE_DIR_ENV);
    unsetenv(ZEL_LOG_DEBUG_LEVEL_ENV);
    unsetenv(ZEL_LOG_TO_CONSOLE_ENV);
}

TEST(Log, LineCarriesStampIdsLineAndSourceBaseName)
{
    TempDir tmp;
    std::string log = tmp / "app.log";
    int rc = InChild([&] {
        ClearLogEnv();
        ZELInitLogger(log.c_str(), 3);
        EXPECT_EQ(0, ZELLogFunction(3, "/src/ealib/svc_main.cpp", 198, "ea[%d] started.\n", 7));
        ZELLogFunction(0, "ea_svc", 12345, "%s", "long line number\n");
    });
    ASSERT_EQ(0, rc);

    std::vector<std::string> lines = Lines(ReadFile(log));
    ASSERT_EQ(3u, lines.size());
    std::regex stamp(R"(^\d{4}-\d{2}-\d{2} \d{2}-\d{2}-\d{2}:\d{3} \(pid:(\d+) tid:(\d+)\) (.*)$)");
    std::smatch m;
    for (const std::string& line : lines) {
        SCOPED_TRACE(line);
        ASSERT_TRUE(std::regex_match(line, m, stamp));
        EXPECT_EQ(m[1].str(), m[2].str());   /* single-threaded: tid == pid */
    }
    std::regex_match(lines[0], m, stamp);
    EXPECT_EQ(" 156:zellog               Tessel for Linux Version 6.5.1 (Build:1631.1)", m[3].str());
    std::regex_match(lines[1], m, stamp);
    EXPECT_EQ(" 198:svc_main.cpp         ea[7] started.", m[3].str());
    std::regex_match(lines[2], m, stamp);
    EXPECT_EQ("12345:ea_svc               long line number", m[3].str());
}

TEST(Log, BannerPrecedesFirstLineOnceAndMessagesAreCut)
{
    TempDir tmp;
    std::string log = tmp / "app.log";
    ASSERT_EQ(0, InChild([&] {
        ClearLogEnv();
        ZELInitLogger(log.c_str(), 3);
        std::string big(20000, 'x');
        for (int i = 0; i < 3; i++)
            ZELLogFunction(3, "t", 1, "n%d\n", i);
        ZELLogFunction(3, "t", 2, "%s\n", big.c_str());
    }));
    std::string text = ReadFile(log);
    std::vector<std::string> lines = Lines(text);
    ASSERT_EQ(5u, lines.size());   /* the cut message loses its newline */
    EXPECT_NE(std::string::npos, lines[0].find(kBanner, 0, strlen(kBanner) - 1));
    EXPECT_EQ(text.find("Tessel"), text.rfind("Tessel"));
    size_t body = lines[4].find("xxx");
    ASSERT_NE(std::string::npos, body);
    EXPECT_EQ(10239u, lines[4].size() - body);
    EXPECT_NE('\n', text.back());
}

struct LevelCase {
    int configured;
    int level;
    bool written;
};

class LogLevel : public ::testing::TestWithParam<LevelCase> {};

TEST_P(LogLevel, WritesOnlyAtOrBelowThreshold)
{
    const LevelCase& c = GetParam();
    TempDir tmp;
    std::string log = tmp / "app.log";
    ASSERT_EQ(0, InChild([&] {
        ClearLogEnv();
        ZELInitLogger(log.c_str(), c.configured);
        EXPECT_EQ(0, ZELLogFunction(c.level, "t", 1, "probe\n"));
    }));
    /* a suppressed line does not even create the file */
    EXPECT_EQ(c.written, fkit::Exists(log));
    if (c.written) {
        EXPECT_NE(std::string::npos, ReadFile(log).find("probe"));
    }
}

INSTANTIATE_TEST_SUITE_P(Table, LogLevel,
                         ::testing::Values(LevelCase{ 3, 4, false }, LevelCase{ 3, 3, true },
                                           LevelCase{ 0, 0, true }, LevelCase{ 0, 3, false },
                                           LevelCase{ 6, 6, true }, LevelCase{ 5, 6, false }));

struct InitCase {
    const char* name;
    const char* file;        /* "@" stands for the temp dir */
    int level;
    const char* envLevel;    /* ZEL_LOG_DEBUG_LEVEL or null */
    bool envBase;            /* ZEL_LOG_BASE_DIR = temp dir */
    const char* wantDir;     /* "@" temp dir, "#" executable's dir */
    const char* wantFile;
    int wantLevel;
};

class LogInit : public ::testing::TestWithParam<InitCase> {};

std::string Expand(const char* pattern, const std::string& tmp, const std::string& exeDir)
{
    std::string s = pattern;
    if (s[0] == '@')
        return tmp + s.substr(1);
    if (s[0] == '#')
        return exeDir + s.substr(1);
    return s;
}

TEST_P(LogInit, TakesDirectoryFileAndLevelFromArgumentsThenEnvironment)
{
    const InitCase& c = GetParam();
    TempDir tmp;
    char exe[4096] = { 0 };
    ASSERT_EQ(0, GetProcessPath(exe, sizeof(exe)));
    ASSERT_EQ(0, InChild([&] {
        ClearLogEnv();
        if (c.envLevel != NULL)
            setenv(ZEL_LOG_DEBUG_LEVEL_ENV, c.envLevel, 1);
        if (c.envBase)
            setenv(ZEL_LOG_BASE_DIR_ENV, tmp.path.c_str(), 1);
        std::string file = c.file != NULL ? Expand(c.file, tmp.path, exe) : "";
        ZELInitLogger(c.file != NULL ? file.c_str() : NULL, c.level);
        EXPECT_EQ(Expand(c.wantDir, tmp.path, exe), ZELGetLogPath());
        EXPECT_STREQ(c.wantFile, ZELGetLogFileName());
        EXPECT_EQ(c.wantLevel, GetDebugLogLevel());
    }));
}

INSTANTIATE_TEST_SUITE_P(
    Table, LogInit,
    ::testing::Values(
        InitCase{ "PathKeepsItsSlashAndBeatsEnvLevel", "@/x/app.log", 5, "6", false, "@/x/", "app.log", 5 },
        InitCase{ "BareNameUsesEnvBaseAndEnvLevel", "app.log", -1, "6", true, "@/logs", "app.log", 6 },
        InitCase{ "NothingGivenUsesExecutableDir", NULL, -1, NULL, false, "#/logs", "kvx.log", 3 },
        InitCase{ "ExplicitLevelIgnoresEnv", "app.log", 3, "6", true, "@/logs", "app.log", 3 },
        InitCase{ "EmptyNameMeansDefaultName", "", 4, NULL, true, "@/logs", "kvx.log", 4 }),
    [](const ::testing::TestParamInfo<InitCase>& i) { return std::string(i.param.name); });

TEST(Log, CreatesMissingBaseDirectoryOneLevelDeep)
{
    TempDir tmp;
    std::string made = tmp / "new";
    std::string deep = tmp / "a/b";
    ASSERT_EQ(0, InChild([&] {
        ClearLogEnv();
        umask(022);
        ZELInitLogger((deep + "/app.log").c_str(), 3);
        EXPECT_EQ(1, ZELLogFunction(0, "t", 1, "lost\n"));   /* parent missing */
        ZELInitLogger((made + "/app.log").c_str(), 3);
        EXPECT_EQ(0, ZELLogFunction(0, "t", 1, "kept\n"));
    }));
    struct stat st;
    ASSERT_EQ(0, stat(made.c_str(), &st));
    EXPECT_EQ(0755u, st.st_mode & 07777);
    EXPECT_NE(std::string::npos, ReadFile(made + "//app.log").find("kept"));
    EXPECT_FALSE(fkit::Exists(tmp / "a"));
}

/* Captures what a child writes to standard output (the protocol stream). */
std::string StdoutOfChild(const std::string& log, const char* console)
{
    TempDir tmp;
    std::string out = tmp / "stdout";
    int rc = InChild([&] {
        ClearLogEnv();
        if (console != NULL)
            setenv(ZEL_LOG_TO_CONSOLE_ENV, console, 1);
        if (freopen(out.c_str(), "w", stdout) == NULL)
            _exit(2);
        ZELInitLogger(log.c_str(), 3);
        ZELLogFunction(3, "t", 1, "echoed?\n");
    });
    EXPECT_EQ(0, rc);
    return ReadFile(out);
}

TEST(Log, StandardOutputStaysSilentUnlessConsoleEchoAsked)
{
    TempDir tmp;
    EXPECT_EQ("", StdoutOfChild(tmp / "a.log", NULL));
    EXPECT_EQ("", StdoutOfChild(tmp / "b.log", "0"));
    std::string echoed = StdoutOfChild(tmp / "c.log", "1");
    EXPECT_NE(std::string::npos, echoed.find("echoed?\n"));
    EXPECT_NE(std::string::npos, echoed.find("Tessel for Linux"));
}

struct TrimCase {
    const char* name;
    int lines;        /* -1: no file */
    int keep;
    int wantFirst;    /* number of the first remaining line */
    int wantLines;
};

class LogTrim : public ::testing::TestWithParam<TrimCase> {};

TEST_P(LogTrim, KeepsNewestLines)
{
    const TrimCase& c = GetParam();
    TempDir tmp;
    std::string file = tmp / "kvx agent.log";   /* blank: the name is quoted */
    if (c.lines >= 0) {
        std::string text;
        for (int i = 1; i <= c.lines; i++)
            text += "line " + std::to_string(i) + "\n";
        fkit::WriteFile(file, text);
    }
    EXPECT_EQ(c.lines > 0 ? c.lines : 0, GetFileLines(file.c_str()));
    EXPECT_EQ(0, ZELLimitLogLines(file.c_str(), c.keep));
    if (c.lines < 0) {
        EXPECT_FALSE(fkit::Exists(file));
        return;
    }
    std::vector<std::string> lines = Lines(ReadFile(file));
    ASSERT_EQ((size_t)c.wantLines, lines.size());
    if (!lines.empty()) {
        EXPECT_EQ("line " + std::to_string(c.wantFirst), lines.front());
        EXPECT_EQ("line " + std::to_string(c.lines), lines.back());
    }
}

INSTANTIATE_TEST_SUITE_P(
    Table, LogTrim,
    ::testing::Values(TrimCase{ "OverLimitLosesOldest", 20005, 20000, 6, 20000 },
                      TrimCase{ "AtLimitUntouched", 20000, 20000, 1, 20000 },
                      TrimCase{ "UnderLimitUntouched", 3, 20000, 1, 3 },
                      TrimCase{ "MissingFileIsNoop", -1, 20000, 0, 0 },
                      TrimCase{ "EmptyFileIsNoop", 0, 5, 0, 0 }),
    [](const ::testing::TestParamInfo<TrimCase>& i) { return std::string(i.param.name); });

}  // namespace
