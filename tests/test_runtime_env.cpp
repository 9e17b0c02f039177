/*
 * The environment that commands run by the agent inherit: the client
 * package directory first in the library path and PATH, the product homes,
 * LANG=C and umask 0.  A root agent keeps the inherited paths behind its
 * own; an agent running as an ordinary user drops them.
 */
#include <unistd.h>

#include <map>
#include <string>

#include <gtest/gtest.h>

#include "agent_harness.h"
#include "test_accounts.h"
#include "test_runtime_support.h"

namespace {

const char* const kInheritedPath = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
const char* const kInheritedLd = "/inherited/lib";

struct EnvCase {
    const char* name;
    bool as_root;
};

class ChildEnv : public ::testing::TestWithParam<EnvCase> {};

std::map<std::string, std::string> parse_env(const std::string& path)
{
    std::map<std::string, std::string> vars;
    for (const std::string& line : read_lines(path)) {
        size_t eq = line.find('=');
        if (eq != std::string::npos)
            vars[line.substr(0, eq)] = line.substr(eq + 1);
    }
    return vars;
}

TEST_P(ChildEnv, ClientDirectoryLeadsAndProductHomesPointAtIt)
{
    const EnvCase& c = GetParam();
    if (!c.as_root)
        KVXT_REQUIRE_ACCOUNTS();
    HarnessPtr hp(new AgentHarness);
    AgentHarness& h = *hp;
    h.set_env("PATH", kInheritedPath);
    h.set_env("LD_LIBRARY_PATH", kInheritedLd);
    h.set_env("LANG", "en_US.UTF-8");
    if (!c.as_root) {
        const kvxtest::TestAccount& user = kvxtest::Account(kvxtest::AccountKind::Runner);
        h.run_as(user.uid, user.gid);
    }
    ASSERT_TRUE(h.start());

    std::string out = h.root + "/child.env";
    /* The agent appends its own redirection to the last command of the line. */
    ASSERT_TRUE(run_cmd(h, 1, "env > " + out + "; echo UMASK=$(umask) >> " + out + "; :"));
    std::map<std::string, std::string> env = parse_env(out);
    ASSERT_FALSE(env.empty()) << "command did not run; log:\n" << h.log();

    std::string client = h.work_dir + "//linux-kvx-client";
    if (c.as_root) {
        EXPECT_EQ(env["LD_LIBRARY_PATH"], client + ":" + kInheritedLd);
        EXPECT_EQ(env["PATH"], client + ":" + kInheritedPath);
    } else {
        EXPECT_EQ(env["LD_LIBRARY_PATH"], client);
        EXPECT_EQ(env["PATH"], client + ":/bin:/sbin:/usr/bin:/usr/sbin:/usr/local/bin:/usr/local/sbin");
    }
    EXPECT_EQ(env["ZEL_ENCRYPTION_LIBRARY_PATH"], client);
    EXPECT_EQ(env["QMPKIHOME"], client);
    EXPECT_EQ(env["KVX_CLN_HOME"], client);
    EXPECT_EQ(env["LANG"], "C");
    EXPECT_EQ(env["ZEL_LOG_BASE_DIR"], h.work_dir + "//");
    EXPECT_EQ(env["TARGET_WORK_DIR"], h.work_dir);
    EXPECT_EQ(env["TARGET_BOOTSTRAP_DIR"], h.boot_dir);
    EXPECT_EQ(env["UMASK"], "0000");

    h.close_input();
    EXPECT_EQ(h.wait_exit(20), 0);
}

const EnvCase kEnvCases[] = {
    {"Root", true},
    {"OrdinaryUser", false},
};

INSTANTIATE_TEST_SUITE_P(Accounts, ChildEnv, ::testing::ValuesIn(kEnvCases),
                         [](const ::testing::TestParamInfo<EnvCase>& i) { return i.param.name; });

} /* namespace */
