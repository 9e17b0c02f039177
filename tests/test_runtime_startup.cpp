/*
 * Start-up: the one-shot query modes and the directory options.  A preload
 * shim reports TARGET_BOOTSTRAP_DIR, TARGET_WORK_DIR and ZEL_ROOT_PATH as
 * the agent left them when it exited.
 */
#include <stdlib.h>
#include <sys/stat.h>

#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "agent_harness.h"
#include "test_runtime_support.h"
#include "vmdetect.h"

namespace {

const char* const kEnvRoot = "/env-root";

/* Harness whose agent reports its start-up variables at exit. */
struct DumpedAgent {
    HarnessPtr hp{new AgentHarness};
    AgentHarness& h = *hp;
    std::string dump, env_work;

    DumpedAgent()
    {
        dump = h.root + "/envdump";
        env_work = h.root + "/envwork";
        mkdir(env_work.c_str(), 0755);
        h.set_env("LD_PRELOAD", KVXT_ENVDUMP_LIB);
        h.set_env("KVXT_ENVDUMP", dump);
        const char* asan = getenv("ASAN_OPTIONS");
        h.set_env("ASAN_OPTIONS", std::string(asan ? asan : "") + ":verify_asan_link_order=0");
        /* What the options must override, or leave alone. */
        h.set_env("TARGET_WORK_DIR", env_work);
        h.set_env("ZEL_ROOT_PATH", kEnvRoot);
    }

    std::map<std::string, std::string> variables() const
    {
        std::map<std::string, std::string> vars;
        for (const std::string& line : read_lines(dump)) {
            size_t eq = line.find('=');
            if (eq != std::string::npos)
                vars[line.substr(0, eq)] = line.substr(eq + 1);
            else
                vars[line.substr(0, line.find(' '))] = "<unset>";
        }
        return vars;
    }
};

/* ---- one-shot modes ---- */

int expected_vm_status()
{
    int status = detect_vm_info();
    if (is_oracle_uek())
        status |= 0x80;
    return status & 0xff;
}

TEST(StartUp, OneShotModesAnswerThroughExitStatusOnly)
{
    setenv("ZEL_LOG_BASE_DIR", "/tmp", 1);   /* where the probes here may log */
    struct Case {
        const char* word;
        int status;
    } cases[] = {
        {"EA_CMD_DETECT_VM", expected_vm_status()},
        {"EA_CMD_GET_SOCKS", get_pv_sockets() & 0xff},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.word);
        DumpedAgent a;
        ASSERT_TRUE(a.h.start({c.word}, false));
        EXPECT_EQ(a.h.wait_exit(60), c.status);
        std::string out;
        EXPECT_FALSE(a.h.read_raw(out, 100));
        EXPECT_EQ(out, "");
        EXPECT_FALSE(AgentHarness::exists(a.env_work + "/logs"));
        EXPECT_EQ(a.variables()["TARGET_BOOTSTRAP_DIR"], a.h.boot_dir);
    }
}

/* ---- directory options ---- */

struct OptionCase {
    const char* name;
    std::vector<std::string> args;   /* "@W" stands for the harness work dir */
    bool work_from_option;           /* else TARGET_WORK_DIR stays as inherited */
    const char* root;                /* expected ZEL_ROOT_PATH */
};

const OptionCase kOptionCases[] = {
    {"RootDirAlone", {"--zelrootdir", "/zr"}, false, "/zr"},
    {"WorkDirAlone", {"--targetworkdir", "@W"}, true, kEnvRoot},
    {"BothPairs", {"--zelrootdir", "/zr", "--targetworkdir", "@W"}, true, "/zr"},
    {"BothPairsReversed", {"--targetworkdir", "@W", "--zelrootdir", "/zr"}, true, "/zr"},
    {"SecondValueWins", {"--zelrootdir", "/a", "--zelrootdir", "/b"}, false, "/b"},
    {"UnknownWordIgnored", {"--foo", "/x"}, false, kEnvRoot},
    {"UnknownFirstPairIgnored", {"--foo", "/x", "--targetworkdir", "@W"}, true, kEnvRoot},
    {"OptionsAreCaseSensitive", {"--ZelRootDir", "/zr"}, false, kEnvRoot},
    {"DetectWordWithExtraServes", {"EA_CMD_DETECT_VM", "extra"}, false, kEnvRoot},
    {"LoneOptionServes", {"--zelrootdir"}, false, kEnvRoot},
    {"FiveWordsIgnored", {"--zelrootdir", "/zr", "--targetworkdir", "@W", "x"}, false, kEnvRoot},
    {"ThreeWordsIgnored", {"--zelrootdir", "/zr", "--targetworkdir"}, false, kEnvRoot},
};

class StartUpOptions : public ::testing::TestWithParam<OptionCase> {};

TEST_P(StartUpOptions, SetDirectoriesThenServe)
{
    const OptionCase& c = GetParam();
    DumpedAgent a;
    std::vector<std::string> args;
    for (const std::string& arg : c.args)
        args.push_back(arg == "@W" ? a.h.work_dir : arg);
    ASSERT_TRUE(a.h.start(args, false));

    a.h.send_raw(request_line(11, 1, "{\"str\": \"up\"}"));
    json_t* r = read_reply(a.h, 15000);
    ASSERT_NE(r, nullptr) << "not serving; stderr: " << a.h.agent_stderr();
    json_decref(r);
    a.h.close_input();
    ASSERT_EQ(a.h.wait_exit(20), 0);

    std::string work = c.work_from_option ? a.h.work_dir : a.env_work;
    std::map<std::string, std::string> vars = a.variables();
    EXPECT_EQ(vars["TARGET_BOOTSTRAP_DIR"], a.h.boot_dir);
    EXPECT_EQ(vars["TARGET_WORK_DIR"], work);
    EXPECT_EQ(vars["ZEL_ROOT_PATH"], c.root);
    EXPECT_TRUE(AgentHarness::exists(work + "/logs/kvx-agent.log"));
}

INSTANTIATE_TEST_SUITE_P(Forms, StartUpOptions, ::testing::ValuesIn(kOptionCases),
                         [](const ::testing::TestParamInfo<OptionCase>& i) { return i.param.name; });

} /* namespace */
