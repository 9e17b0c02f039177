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
#include "eactl_fixture.h"

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
        std::string line = eactl_progress_line(st, c.elapsed, 79);
        EXPECT_EQ(c.line, line);
        EXPECT_LE(line.size(), 79u);
        EXPECT_EQ(line.substr(0, 30), eactl_progress_line(st, c.elapsed, 30));
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

    /* the log has no times: a line gets the fetch's time only a poll after
     * this session's previous drain, never on a first or late fetch */
    EactlSession s;
    char now[16];
    for (time_t since : {(time_t)0, time(NULL) - 60, time(NULL)}) {
        s.activity_since = since;
        testing::internal::CaptureStdout();
        eactl_print_activity(&s, "1 0 Backup job started\n");
        std::string out = testing::internal::GetCapturedStdout();
        time_t t = time(NULL);
        strftime(now, sizeof(now), "%H:%M:%S", gmtime(&t));
        EXPECT_EQ(std::string(since > t - 60 ? now : "--:--:--") + "  info     Backup job started\n", out);
        EXPECT_GE(s.activity_since, t - 1);
    }

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
    setenv("HOME", "/home/op", 1);
    EXPECT_EQ((Words{"ssh", "-F", "/a b/c", "-o", "x=y z"}),
              eactl_split_command("  ssh -F '/a b/c'\t-o \"x=y z\" "));
    EXPECT_EQ((Words{"ssh", ""}), eactl_split_command("ssh ''"));
    EXPECT_EQ((Words{"ssh", "-F", "/home/op/nodes.conf", "-i", "~/k"}),
              eactl_split_command("ssh -F ~/nodes.conf -i '~/k'"));
    EXPECT_EQ(Words{}, eactl_split_command("ssh 'open"));
    EXPECT_EQ(Words{}, eactl_split_command("ssh $(rm -rf x)"));
    EXPECT_EQ(Words{}, eactl_split_command("   "));

    const struct { const char* machine; bool remote; Words agents; } cases[] = {
        {"x86_64", false, {"kvx_ea", "kvx_ea-static"}},
        {"x86_64", true, {"kvx_ea-static"}},
        {"i386", true, {"kvx_ea-i386"}}, {"i686", false, {"kvx_ea-i386"}},
        {"aarch64", true, {"kvx_ea-aarch64"}}, {"arm64", false, {"kvx_ea-aarch64"}},
        {"ppc64le", true, {"kvx_ea-ppc64le"}}, {"s390x", true, {"kvx_ea-s390x"}},
        {"i786", true, {}}, {"ppc64", true, {}}, {"armv7l", true, {}}, {"", false, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.machine) + (c.remote ? " remote" : " local"));
        EXPECT_EQ(c.agents, eactl_agents_for(c.machine, c.remote));
    }
}

/* Host patterns as pdsh and clush write them; a bad one is refused whole. */
TEST(EactlHosts, RangesListsAndDuplicates)
{
    typedef std::vector<std::string> Words;
    const struct { const char* pattern; Words hosts; } cases[] = {
        {"web[01-03]", {"web01", "web02", "web03"}},
        {"n[1-3,7]", {"n1", "n2", "n3", "n7"}},
        {"a,b[9-10].lan,c", {"a", "b9.lan", "b10.lan", "c"}},
        {"r[1-2]n[1-2]", {"r1n1", "r1n2", "r2n1", "r2n2"}},
        {"root@db[8-9]", {"root@db8", "root@db9"}},
        {"n[3-1]", {}}, {"n[1-", {}}, {"n[a-b]", {}}, {"n]1[", {}}, {"n[1-200000]", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.pattern);
        Words hosts;
        EXPECT_EQ(c.hosts.empty() ? -1 : 0, eactl_expand_hosts(c.pattern, &hosts));
        EXPECT_TRUE(c.hosts.empty() || c.hosts == hosts) << joined(hosts);
    }
    std::vector<EactlNode> nodes;
    eactl_add_nodes({"n1", "n2", "n1", "n3"}, &nodes);
    eactl_add_nodes({"n3", "n4"}, &nodes);
    eactl_exclude_nodes({"n2", "n9"}, &nodes);
    std::vector<std::string> names;
    for (const EactlNode& n : nodes)
        names.push_back(n.name);
    EXPECT_EQ("n1 n3 n4 ", joined(names));
}

/* Shared ssh connections only through a directory of this user that no one
 * else can enter. */
TEST_F(EactlClient, ControlDirectoryOfOthersIsNotUsed)
{
    std::string mine = dir + "/mine", open_dir = dir + "/open";
    mkdir(open_dir.c_str(), 0755);
    setenv("KVX_EACTL_CONTROL_DIR", mine.c_str(), 1);
    EXPECT_EQ(mine, eactl_control_dir());
    struct stat st;
    ASSERT_EQ(0, stat(mine.c_str(), &st));
    EXPECT_EQ(0700u, st.st_mode & 0777);
    setenv("KVX_EACTL_CONTROL_DIR", open_dir.c_str(), 1);
    EXPECT_EQ("", eactl_control_dir());
    symlink(mine.c_str(), (dir + "/link").c_str());
    setenv("KVX_EACTL_CONTROL_DIR", (dir + "/link").c_str(), 1);
    EXPECT_EQ("", eactl_control_dir());
    unsetenv("KVX_EACTL_CONTROL_DIR");
}

/* Every one exits 2 before the target directory (made by any deployment)
 * exists, with one line that names what was wrong. */
TEST_F(EactlClient, RefusesBadArgumentsBeforeDeployingAnything)
{
    spill(dir + "/hosts", "node1\n  # comment\n\nnode2 node3\n");
    spill(dir + "/quoted", "''\n");   /* no host at all: never this machine */
    const struct { std::vector<std::string> args; std::string error; } cases[] = {
        {{"exec"}, "kvx-eactl exec: a command is required"},
        {{"exec", "--user"}, "kvx-eactl exec: a value is missing after '--user'; try 'kvx-eactl exec --help'"},
        {{"exec", "--bogus", "x"}, "kvx-eactl exec: unknown option '--bogus'; try 'kvx-eactl exec --help'"},
        {{"exec", "--jobid", "abc", "x"}, "--jobid 'abc': a whole number from 0 to"},
        {{"exec", "--jobid=7x", "x"}, "--jobid '7x': a whole number"},
        {{"ping", "x", "then"}, "a command is missing after 'then'"},
        {{"then", "ping"}, "a command is missing before 'then'"}, {{"bogus"}, "unknown command 'bogus'; try --help"},
        {{"ping", "x", "then", "mount"}, "kvx-eactl mount: a location is required"},
        {{"status", "--id"}, "a value is missing after '--id'"},
        {{"status", "--id", "-1"}, "--id '-1': a whole number"},
        {{"log", "extra"}, "kvx-eactl log: takes no arguments"}, {{"checkmachine"}, "a command text is required"},
        {{"demo", "--seconds", "x"}, "--seconds 'x': a whole number from 0 to 3600"},
        {{"demo", "--exit", "256"}, "--exit '256'"},
        {{"--parallel", "0", "ping"}, "--parallel '0': a whole number from 1 to 1000"},
        {{"--timeout", "-1", "ping"}, "--command-timeout '-1'"},
        {{"--connect-timeout", "0", "ping"}, "--connect-timeout '0'"},
        {{"--ssh", " ", "ping"}, "--ssh ' ' names no command"},
        {{"--host", "-oProxyCommand=false", "ping"}, "is not an ssh destination"},
        {{"--host=n[2-1]", "ping"}, "'n[2-1]' is not a host pattern"},
        {{"--host", "n1", "-x", "n1", "ping"}, "no host left to run on"},
        {{"--limit", "web", "ping"}, "--limit selects from an --inventory"},
        {{"--hosts-file", dir + "/missing", "ping"}, "cannot read " + dir + "/missing"},
        {{"--hosts-file", dir + "/hosts", "ping"}, dir + "/hosts:4: one ssh destination per line"},
        {{"--hosts-file", dir + "/quoted", "ping"}, dir + "/quoted:1: one ssh destination per line"},
        {{"--host"}, "a value is missing after '--host'; try 'kvx-eactl --help'"},
        {{"--bogus", "ping"}, "unknown option '--bogus'; try 'kvx-eactl --help'"},
        {{"-q", "ping"}, "unknown option '-q'"}, {{}, "a command is required; try --help"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(joined(c.args));
        std::vector<std::string> args = c.args;
        args.insert(args.begin(), {"--target", dir + "/target"});
        Outcome r = run_eactl(args, dir);
        EXPECT_EQ(2, r.status) << r.err;
        EXPECT_TRUE(r.out.empty()) << r.out;
        EXPECT_TRUE(has(r.err, c.error)) << r.err;
        EXPECT_EQ(r.err.size() - 1, r.err.find('\n')) << "one line: " << r.err;
        EXPECT_NE(0, access((dir + "/target").c_str(), F_OK)) << "deployed";
    }
    Outcome r = run_eactl({"--version"}, dir);
    EXPECT_EQ(0, r.status);
    EXPECT_EQ("kvx-eactl " KVX_VERSION_TEXT "\n", r.out);
    /* a command's --help, anywhere in the chain, runs nothing */
    r = run_eactl({"--target", dir + "/target", "ping", "x", "then", "exec", "--help"}, dir);
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ(0u, r.out.find("usage: kvx-eactl [OPTIONS] exec [--msg|--wait|--background]")) << r.out;
    EXPECT_NE(0, access((dir + "/target").c_str(), F_OK)) << "deployed";
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

} // namespace
