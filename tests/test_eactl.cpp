/*
 * The operator client without a real agent: the human units of the job
 * replies, the ssh command and agent choice, arguments refused before
 * anything is deployed, and stand-in agents that fail or hang.
 */
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>

#include <algorithm>

#include "eactl.h"
#include "eactl_testkit.h"

namespace {

const unsigned long long KiB = 1024, MiB = KiB << 10, GiB = MiB << 10;

struct ProgressCase {
    const char* name;
    unsigned long long pct, vol_done_kib, rate, vol_rate, job_done_kib;   /* rates KiB/min */
    long elapsed;
    const char* volume;
    const char* line;
};

const ProgressCase kProgress[] = {
    {"NothingYet", 0, 0, 0, 0, 0, 0, "/dev/sda2",
     "  0%  0.0/? GiB  0.0 MiB/s  elapsed 0:00  ETA --:--  /dev/sda2"},
    /* 2 GiB at 40 %: 4.9 GiB when half a point is added back; 512 MiB/s */
    {"MidVolume", 40, 2 * GiB / KiB, 512 * 1024 * 60, 0, 2 * GiB / KiB, 4, "/dev/sdb1",
     " 40%  2.0/4.9 GiB  512.0 MiB/s  elapsed 0:04  ETA 0:06  /dev/sdb1"},
    /* elapsed from the reply: 36000 MiB at 10 MiB/s took an hour */
    {"ElapsedFromTheReply", 150, GiB / KiB, 10 * 1024 * 60, 0, 36000 * MiB / KiB, -1, "/dev/sda1",
     "100%  1.0/1.0 GiB  10.0 MiB/s  elapsed 1:00:00  ETA 0:00  /dev/sda1"},
    {"RateOfTheVolumeField", 50, 512 * MiB / KiB, 0, 1024 * 60, 512 * MiB / KiB, -1, "/dev/vg0/lv",
     " 50%  512.0/1013.9 MiB  1.0 MiB/s  elapsed 8:32  ETA 8:22  /dev/vg0/lv"},
    {"LongNameCut", 99, 5000 * GiB / KiB, 2000 * 1024 * 60, 0, 0, 7200,
     "/dev/disk/by-id/wwn-0x5000c500a1b2c3d4-part1",
     " 99%  4.9/4.9 TiB  2000.0 MiB/s  elapsed 2:00:00  ETA 0:13  /dev/disk/by-id/wwn"},
};

TEST(EactlUnits, ProgressLineShowsPercentSizesRateAndTimes)
{
    for (const ProgressCase& c : kProgress) {
        SCOPED_TRACE(c.name);
        JOB_STATUS st;
        memset(&st, 0, sizeof(st));
        st.vol.dt_all = c.pct;
        st.vol.dt_fin = c.vol_done_kib;
        st.tm_usd = (UINT32)c.rate;
        st.vol.tm_usd = (UINT32)c.vol_rate;
        st.dt_fin = c.job_done_kib;
        snprintf(st.vol.name, sizeof(st.vol.name), "%s", c.volume);
        std::string line = eactl_progress_line(st, c.elapsed);
        EXPECT_EQ(c.line, line);
        EXPECT_LE(line.size(), 79u);
    }
}

TEST(EactlUnits, BytesDurationsActivityAndResultInWords)
{
    const struct { unsigned long long bytes; const char* text; } sizes[] = {
        {0, "0 B"}, {1023, "1023 B"}, {1024, "1.0 KiB"}, {7 * GiB + 512 * MiB, "7.5 GiB"},
        {5ULL << 40, "5.0 TiB"}, {~0ULL, "16384.0 PiB"},
    };
    for (const auto& c : sizes)
        EXPECT_EQ(c.text, eactl_bytes(c.bytes));
    const struct { long seconds; const char* text; } times[] = {
        {-1, "--:--"}, {0, "0:00"}, {59, "0:59"}, {3599, "59:59"}, {3661, "1:01:01"},
    };
    for (const auto& c : times)
        EXPECT_EQ(c.text, eactl_duration(c.seconds));

    setenv("TZ", "UTC", 1);
    tzset();
    const time_t when = 1795435058;   /* 11:57:38 UTC */
    const struct { const char* line; const char* shown; } activity[] = {
        {"1 0 Backing up /dev/sda2 (ext4, 4.5 GiB)", "11:57:38  info     Backing up /dev/sda2 (ext4, 4.5 GiB)"},
        {"2 17 disk  almost full", "11:57:38  warning  disk  almost full (code 17)"},
        {"3 5 Backup job failed", "11:57:38  error    Backup job failed (code 5)"},
        {"9 0 unknown type", "9 0 unknown type"}, {"1 x no code", "1 x no code"}, {"", ""},
    };
    for (const auto& c : activity)
        EXPECT_EQ(c.shown, eactl_activity_line(c.line, when));

    JOB_RESULT r;
    memset(&r, 0, sizeof(r));
    r.processed_data_read = 7 * GiB;
    r.throughput_read = 700 * 1024 * 60;
    r.processed_data_write = 3 * GiB;
    r.throughput_write = 300 * 1024 * 60;
    r.protected_data = 7 * GiB;
    r.recovery_count = 2;
    snprintf(r.sessionNo, sizeof(r.sessionNo), "S0000042");
    EXPECT_EQ("read 7.0 GiB at 700.0 MiB/s, wrote 3.0 GiB at 300.0 MiB/s\n"
              "protected 7.0 GiB in session S0000042 (-), 2 recovery points",
              eactl_result_text(r));
}

TEST(EactlDeploy, SplitsTheSshCommandAndPicksTheAgentForTheNode)
{
    typedef std::vector<std::string> Words;
    EXPECT_EQ((Words{"ssh", "-F", "/a b/c", "-o", "x=y z"}),
              eactl_split_command("  ssh -F '/a b/c'\t-o \"x=y z\" "));
    EXPECT_EQ((Words{"ssh", ""}), eactl_split_command("ssh ''"));
    EXPECT_EQ(Words{}, eactl_split_command("ssh 'open"));
    EXPECT_EQ(Words{}, eactl_split_command("   "));

    const struct { const char* machine; bool remote; Words agents; } cases[] = {
        {"x86_64", false, {"kvx_ea", "kvx_ea-static"}},
        {"x86_64", true, {"kvx_ea-static"}},
        {"i386", true, {"kvx_ea-i386"}}, {"i686", false, {"kvx_ea-i386"}},
        {"i786", true, {}}, {"aarch64", true, {}}, {"", false, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.machine) + (c.remote ? " remote" : " local"));
        EXPECT_EQ(c.agents, eactl_agents_for(c.machine, c.remote));
    }
}

class EactlClient : public ::testing::Test {
protected:
    void SetUp() override
    {
        dir = temp_dir("kvx-eactl-test");
        ASSERT_FALSE(dir.empty());
    }
    void TearDown() override { remove_tree(dir); }
    std::string dir;
};

/* Every one exits 2 before the target directory (made by any deployment) exists. */
TEST_F(EactlClient, RefusesBadArgumentsBeforeDeployingAnything)
{
    spill(dir + "/hosts", "node1\n  # comment\n\nnode2 node3\n");
    spill(dir + "/quoted", "''\n");   /* no host at all: never this machine */
    const std::vector<std::vector<std::string>> cases = {
        {"exec"}, {"exec", "--user"}, {"ping", "x", "then"}, {"then", "ping"}, {"bogus"},
        {"ping", "x", "then", "mount"}, {"status", "--id"}, {"log", "extra"},
        {"checkmachine"}, {"demo", "--seconds", "x"}, {"demo", "--exit", "256"},
        {"--parallel", "0", "ping"}, {"--timeout", "-1", "ping"}, {"--ssh", " ", "ping"},
        {"--host", "-oProxyCommand=false", "ping"}, {"--hosts-file", dir + "/missing", "ping"},
        {"--hosts-file", dir + "/hosts", "ping"}, {"--hosts-file", dir + "/quoted", "ping"}, {"--host"}, {"--bogus", "ping"}, {},
    };
    for (std::vector<std::string> args : cases) {
        std::string shown;
        for (const std::string& a : args)
            shown += a + " ";
        SCOPED_TRACE(shown);
        args.insert(args.begin(), {"--target", dir + "/target"});
        Outcome r = run_eactl(args, dir);
        EXPECT_EQ(2, r.status) << r.err;
        EXPECT_TRUE(r.out.empty()) << r.out;
        EXPECT_FALSE(r.err.empty());
        EXPECT_NE(0, access((dir + "/target").c_str(), F_OK)) << "deployed";
    }
    Outcome r = run_eactl({"--hosts-file", dir + "/hosts", "ping"}, dir);
    EXPECT_TRUE(has(r.err, dir + "/hosts:4: one ssh destination per line")) << r.err;
    r = run_eactl({"--version"}, dir);
    EXPECT_EQ(0, r.status);
    EXPECT_EQ("kvx-eactl " KVX_VERSION_TEXT "\n", r.out);
}

/* A stand-in agent that writes to its standard error and ends without a reply. */
TEST_F(EactlClient, FailureNamesTheNodeAndShowsTheAgentsStandardError)
{
    spill(dir + "/agent", "#!/bin/sh\necho \"bad start: $*\" >&2\nexit 3\n", 0755);
    Outcome r = run_eactl({"--agent", dir + "/agent", "ping", "x", "then", "ping", "y"}, dir);
    EXPECT_EQ(1, r.status);
    EXPECT_TRUE(r.out.empty()) << r.out;
    EXPECT_TRUE(has(r.err, "kvx-eactl: localhost: ping: procedure 1 failed (-2): the agent closed the connection"))
        << r.err;
    EXPECT_TRUE(has(r.err, "kvx-eactl: localhost: stderr: bad start: --targetworkdir /tmp/kvx-eactl."))
        << r.err;
    EXPECT_EQ(r.err.find("procedure 1 failed"), r.err.rfind("procedure 1 failed")) << "stops there";
}

/* A hung agent whose helper left its process group holding the client's
 * pipes: at the time-out the group is killed and the pipes read end of file. */
TEST_F(EactlClient, TimeOutEndsANodeWhoseProcessesHoldItsPipes)
{
    spill(dir + "/agent",
          "#!/bin/sh\necho $$ > " + dir + "/agent.pid\n"
          "setsid sleep 30 & echo $! > " + dir + "/escaped.pid\nexec sleep 30\n", 0755);
    Outcome r = run_eactl({"-v", "--timeout", "1", "--agent", dir + "/agent", "ping", "x"}, dir);
    pid_t agent = atoi(slurp(dir + "/agent.pid").c_str());
    pid_t escaped = atoi(slurp(dir + "/escaped.pid").c_str());
    if (escaped > 0)
        kill(escaped, SIGKILL);
    EXPECT_EQ(1, r.status);
    EXPECT_LT(r.seconds, 10.0) << "held by the escaped process";
    EXPECT_TRUE(has(r.err, "kvx-eactl: localhost: ping: timed out after 1 s")) << r.err;
    size_t at = r.err.find(" deployed in ");
    ASSERT_NE(std::string::npos, at) << r.err;
    std::string target = r.err.substr(at + 13, r.err.find('\n', at) - at - 13);
    EXPECT_NE(0, access(target.c_str(), F_OK)) << target << " left behind";
    ASSERT_GT(agent, 0);
    std::string stat = slurp("/proc/" + std::to_string(agent) + "/stat");
    EXPECT_TRUE(stat.empty() || has(stat, ") Z ")) << "the agent runs on: " << stat;
}

} // namespace
