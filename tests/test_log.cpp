// test_log.cpp - the diagnostic log, configured in a fresh process per case.
#include <regex>

#include "foundation_testkit.h"
#include "kvx_version.h"

using namespace fkit;

TEST(Log, LinesCarryStampIdsAndSourceAfterOneBanner)
{
    TempDir tmp;
    std::string log = tmp / "new/app.log", out = tmp / "stdout";
    ASSERT_EQ(0, InChild([&] {
        clearenv();
        ASSERT_NE(nullptr, freopen(out.c_str(), "w", stdout));
        ZELInitLogger(log.c_str(), 3);   // makes the missing directory
        EXPECT_EQ(0, ZELLogFunction(3, "/src/ealib/svc_main.cpp", 198, "ea[%d] started.\n", 7));
        ZELLogFunction(0, "ea_svc", 12345, "%s", "long line number\n");
        ZELLogFunction(3, "t", 2, "%s\n", std::string(20000, 'x').c_str());
    }));
    EXPECT_EQ("", ReadFile(out));   // the protocol stream stays clean
    // one banner; tid equals pid; the oversized message is cut to 10239 bytes and loses its newline
    std::regex stamp(R"(\d{4}-\d{2}-\d{2} \d{2}-\d{2}-\d{2}:\d{3} \(pid:(\d+) tid:\1\) )");
    EXPECT_EQ("@ 156:zellog               Tessel for Linux Version " KVX_VERSION_STRING " (Build:1631.1)\n"
              "@ 198:svc_main.cpp         ea[7] started.\n"
              "@12345:ea_svc               long line number\n"
              "@   2:t                    " + std::string(10239, 'x'),
              std::regex_replace(ReadFile(log), stamp, "@"));
}

TEST(Log, InitTakesArgumentsThenEnvironmentThenDefaultsAndFiltersByLevel)
{
    // "@": the temp dir, also the environment's base dir if envBase; "#": the executable's dir
    const struct { const char *file; int level; const char* envLevel; bool envBase;
                   const char *dir, *name; int want; } cases[] = {
        { "@/x/app.log", 5, "6", false, "@/x/", "app.log", 5 }, { "app.log", -1, "6", true, "@/logs", "app.log", 6 },
        { "app.log", 3, "6", true, "@/logs", "app.log", 3 },    { "", 4, NULL, true, "@/logs", "kvx.log", 4 },
        { "@/app.log", 0, NULL, false, "@/", "app.log", 0 },     { NULL, -1, NULL, false, "#/logs", "kvx.log", 3 },
    };
    std::string exe = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "case " << &c - cases);
        TempDir tmp;
        auto expand = [&](std::string s) {
            return s[0] == '@' ? tmp.path + s.substr(1) : s[0] == '#' ? exe + s.substr(1) : s;
        };
        ASSERT_EQ(0, InChild([&] {
            clearenv();
            if (c.envLevel != NULL)
                setenv(ZEL_LOG_DEBUG_LEVEL_ENV, c.envLevel, 1);
            if (c.envBase)
                setenv(ZEL_LOG_BASE_DIR_ENV, tmp.path, 1);
            std::string file = c.file != NULL ? expand(c.file) : "";
            ZELInitLogger(c.file != NULL ? file.c_str() : NULL, c.level);
            EXPECT_EQ(expand(c.dir), ZELGetLogPath());
            EXPECT_STREQ(c.name, ZELGetLogFileName());
            EXPECT_EQ(c.want, GetDebugLogLevel());
            if (c.dir[0] == '#')
                return;   // leave the build tree alone
            std::string path = expand(c.dir) + "/" + c.name;
            EXPECT_EQ(0, ZELLogFunction(c.want + 1, "t", 1, "filtered\n"));
            EXPECT_NE(0, access(path.c_str(), F_OK));   // a filtered line makes no file
            EXPECT_EQ(0, ZELLogFunction(c.want, "t", 1, "kept\n"));
            EXPECT_EQ(0, access(path.c_str(), F_OK));
        }));
    }
}

TEST(Log, TrimKeepsTheNewestLines)
{
    // lines written (-1: no file), lines kept, first line kept
    const int cases[][3] = { { 20005, 20000, 6 }, { 20000, 20000, 1 }, { -1, 20000, 0 } };
    for (const auto& c : cases) {
        SCOPED_TRACE(c[0]);
        TempDir tmp;
        std::string file = tmp / "kvx agent.log", text;   // a blank: the name is quoted
        for (int i = 1; i <= c[0]; i++)
            text += "line " + std::to_string(i) + "\n";
        if (c[0] >= 0)
            std::ofstream(file) << text;
        EXPECT_EQ(std::max(c[0], 0), GetFileLines(file.c_str()));
        EXPECT_EQ(0, ZELLimitLogLines(file.c_str(), c[1]));
        EXPECT_EQ(c[0] < 0 ? "" : text.substr(text.find("line " + std::to_string(c[2]) + "\n")), ReadFile(file));
        EXPECT_EQ(c[0] >= 0, access(file.c_str(), F_OK) == 0);
    }
}
