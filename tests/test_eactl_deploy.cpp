/*
 * The operator client deploying the real agent: on this machine, through a
 * private OpenSSH server on 127.0.0.1 (its own keys and port, key
 * authentication only, nothing in ~/.ssh touched), on many nodes at once,
 * and from its Debian package unpacked into a temporary root.
 */
#include <gtest/gtest.h>
#include <jansson.h>
#include <string.h>
#include <sys/stat.h>

#include <regex>

#include "eactl_testkit.h"
#include "sshd_sandbox.h"

namespace {

const std::string kBin = KVX_BIN_DIR;

bool built(const char* name)
{
    return access((kBin + "/" + name).c_str(), X_OK) == 0;
}

class EactlDeploy : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        home_ssh = ssh_dir_state();
        if (!sshd_sandbox_start(&sb, {"node1", "node2", "node3"}, &sb_error))
            sb.dir.clear();
    }
    static void TearDownTestSuite()
    {
        sshd_sandbox_stop(&sb);
        EXPECT_EQ(home_ssh, ssh_dir_state()) << "~/.ssh changed";
    }
    void SetUp() override
    {
        ASSERT_FALSE(sb.dir.empty()) << sb_error;
        dir = temp_dir("kvx-eactl-test");
        ASSERT_FALSE(dir.empty());
    }
    void TearDown() override { remove_tree(dir); }

    /* What ~/.ssh holds: its entries with their sizes and times. */
    static std::string ssh_dir_state()
    {
        const char* home = getenv("HOME");
        std::string path = std::string(home ? home : "/") + "/.ssh";
        Outcome r = run_program({"sh", "-c", "ls -la --time-style=full-iso '" + path + "' 2>&1"}, "/tmp");
        return r.out;
    }
    /* The client's options to reach the sandbox; the sanitizer build has no
     * static agent and deploys its own. */
    std::vector<std::string> over_ssh(std::vector<std::string> args) const
    {
        std::vector<std::string> opts = {"--ssh", "ssh -F " + sb.client_config};
        if (!built("kvx_ea-static"))
            opts.insert(opts.end(), {"--agent", kBin + "/kvx_ea"});
        args.insert(args.begin(), opts.begin(), opts.end());
        return args;
    }
    /* Connections sshd has accepted so far. */
    static int connections()
    {
        std::string log = slurp(sb.dir + "/sshd.log");
        int n = 0;
        for (size_t at = log.find("Accepted publickey"); at != std::string::npos;
             at = log.find("Accepted publickey", at + 1))
            n++;
        return n;
    }

    static SshdSandbox sb;
    static std::string sb_error, home_ssh;
    std::string dir;
};

SshdSandbox EactlDeploy::sb;
std::string EactlDeploy::sb_error, EactlDeploy::home_ssh;

/* Quiet unless asked: the agent's first-start "wc" message and a command's
 * standard error stay in the target unless -v; over ssh one connection
 * carries the whole session. */
TEST_F(EactlDeploy, PingAndExecQuietlyThroughOneConnection)
{
    const struct {
        bool ssh, verbose;
        const char* deployed;   /* in -v's message */
    } cases[] = {
        {false, false, ""}, {false, true, "/kvx_ea (x86_64) deployed in /tmp/kvx-eactl."},
        {true, false, ""}, {true, true, " (x86_64) deployed in /tmp/kvx-eactl."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.ssh ? "ssh" : "local") + (c.verbose ? " -v" : ""));
        std::vector<std::string> args = {"ping", "hi", "then", "exec", "echo out; echo err >&2"};
        if (c.verbose)
            args.insert(args.begin(), "-v");
        if (c.ssh)
            args.insert(args.begin(), {"--host", "node1"});
        int before = connections();
        Outcome r = run_eactl(c.ssh ? over_ssh(args) : args, dir);
        EXPECT_EQ(0, r.status) << r.err;
        EXPECT_TRUE(has(r.out, "reply: hi\n") && has(r.out, "ret: 0\nout\n")) << r.out;
        EXPECT_EQ(c.ssh ? 1 : 0, connections() - before);
        if (!c.verbose) {
            EXPECT_EQ("", r.err);
            continue;
        }
        std::string node = c.ssh ? "node1" : "localhost";
        EXPECT_TRUE(has(r.err, "kvx-eactl: " + node + ": stderr: wc: ")) << r.err;
        EXPECT_TRUE(has(r.err, "kvx-eactl: " + node + ": stderr: err\n")) << r.err;
        EXPECT_TRUE(has(r.err, c.deployed)) << r.err;
    }
    /* the password from the environment travels only inside requests */
    setenv("KVX_EACTL_PASSWD", "kvxt-secret", 1);
    Outcome r = run_eactl({"exec", "env"}, dir);
    unsetenv("KVX_EACTL_PASSWD");
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_TRUE(has(r.out, "PATH=") && !has(r.out, "kvxt-secret")) << r.out;
}

/* The demo over ssh, and a failing job here, whose agent's standard error
 * is then shown. */
TEST_F(EactlDeploy, DemoReadsLikeABackup)
{
    std::regex progress("\n +[0-9]+%  [0-9.]+/[0-9.?]+ GiB  [0-9.]+ MiB/s  "
                        "elapsed [0-9]+:[0-9]{2}  ETA [-0-9]+:[-0-9]{2}  /dev/sd[ab][12]\n");
    Outcome r = run_eactl(over_ssh({"--host", "node2", "demo", "--seconds", "2"}), dir);
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("", r.err);
    for (const char* part : {" deployed on node2 (x86_64) in /tmp/kvx-eactl.",
                             "backup started on node2: kvxbackupvol --seconds 2 --exit 0\n",
                             "  info     Backup job started: 2 volumes, 7.0 GiB\n",
                             "  info     Backing up /dev/sdb1 (xfs, 2.5 GiB)\n",
                             "  info     Backup job finished: 7.0 GiB read, 3.0 GiB written\n",
                             "backup finished:\nread 7.0 GiB at 3584.0 MiB/s, wrote 3.0 GiB at ",
                             "protected 7.0 GiB in session S0000042 ("})
        EXPECT_TRUE(has(r.out, part)) << part << " in\n" << r.out;
    EXPECT_TRUE(std::regex_search(r.out, progress)) << r.out;

    r = run_eactl({"demo", "--seconds", "0", "--exit", "4"}, dir);
    EXPECT_EQ(1, r.status);
    EXPECT_TRUE(has(r.out, "  error    Backup job failed with exit code 4 (code 4)\nbackup FAILED:\n"))
        << r.out;
    EXPECT_TRUE(has(r.err, "kvx-eactl: localhost: stderr: wc: ")) << r.err;
}

/* Three aliases of the server in parallel with one that refuses and one
 * that never answers: each ok node's lines come prefixed, the silent one
 * ends at its time-out, and the summary counts them. */
TEST_F(EactlDeploy, ManyNodesInParallelWithUnreachableOnes)
{
    spill(dir + "/nodes", "node1\nnode2  # web\n\nnode3\nunreachable\nsilent\n");
    int before = connections();
    Outcome r = run_eactl(over_ssh({"--hosts-file", dir + "/nodes", "--timeout", "4", "ping", "many"}), dir);
    EXPECT_EQ(1, r.status);
    EXPECT_LT(r.seconds, 20.0) << "waited for the silent node";
    EXPECT_EQ(3, connections() - before);
    for (const char* node : {"node1", "node2", "node3"})
        EXPECT_TRUE(has(r.out, std::string(node) + ": reply: many\n")) << r.out;
    EXPECT_TRUE(std::regex_match(r.out, std::regex("((node[123]: [^\n]*\n){6})summary: 3 ok, 0 failed, "
                                                   "2 unreachable \\((unreachable, silent|silent, unreachable)\\)\n")))
        << r.out;
    EXPECT_TRUE(has(r.err, "kvx-eactl: unreachable: unreachable\n")) << r.err;
    EXPECT_TRUE(has(r.err, "kvx-eactl: unreachable: stderr: ssh: connect to host 127.0.0.1 port ")) << r.err;
    EXPECT_TRUE(has(r.err, "kvx-eactl: silent: unreachable: no answer within 4 s\n")) << r.err;

    r = run_eactl(over_ssh({"--json", "--host", "node1", "--host", "node3", "--host", "unreachable",
                            "ping", "js"}), dir);
    EXPECT_EQ(1, r.status);
    std::string results;
    int lines = 0;
    for (size_t at = 0, nl; (nl = r.out.find('\n', at)) != std::string::npos; at = nl + 1, lines++) {
        json_t* line = json_loads(r.out.substr(at, nl - at).c_str(), 0, NULL);
        ASSERT_TRUE(line) << r.out;
        const char* host = json_string_value(json_object_get(line, "host"));
        const char* result = json_string_value(json_object_get(line, "result"));
        json_t* param = json_object_get(line, "param");
        if (param) {
            EXPECT_STREQ("js", json_string_value(json_object_get(param, "str")));
        }
        if (result)
            results += std::string(host) + "=" + result + " ";
        if (!host) {
            json_t* sum = json_object_get(line, "summary");
            EXPECT_EQ(2, json_integer_value(json_object_get(sum, "ok")));
            EXPECT_EQ(0, json_integer_value(json_object_get(sum, "failed")));
            EXPECT_EQ(1, json_integer_value(json_object_get(sum, "unreachable")));
        }
        json_decref(line);
    }
    EXPECT_EQ(6, lines) << r.out;
    for (const char* result : {"node1=ok ", "node3=ok ", "unreachable=unreachable "})
        EXPECT_TRUE(has(results, result)) << results;
}

/* Without --agent each node gets the agent it can run: here either one
 * (kvx_ea first), on an i686 node kvx_ea-i386 (when built), over ssh the
 * static agent, which needs no libraries on the node. */
TEST_F(EactlDeploy, DeploysTheAgentOfTheNodesArchitecture)
{
    const struct {
        std::vector<std::string> prefix, options;
        const char* agent;
        const char* elf;
    } cases[] = {
        {{}, {}, "kvx_ea", "ELF 64-bit"},
        {{"setarch", "i686"}, {}, "kvx_ea-i386", "ELF 32-bit"},
        {{}, {"--ssh", "ssh -F " + sb.client_config, "--host", "node3"}, "kvx_ea-static",
         "ELF 64-bit LSB executable, x86-64"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.agent);
        if (!built(c.agent))
            continue;   /* the i386 agent comes from scripts/portable.sh; no static one under sanitizers */
        std::string target = dir + "/" + c.agent;
        std::vector<std::string> args = c.prefix;
        args.push_back(kBin + "/kvx-eactl");
        args.insert(args.end(), c.options.begin(), c.options.end());
        args.insert(args.end(), {"--target", target, "ping", "arch"});
        Outcome r = run_program(args, dir);
        EXPECT_TRUE(has(r.out, "reply: arch")) << r.out << r.err;
        EXPECT_EQ(slurp(kBin + "/" + c.agent), slurp(target + "/boot/kvx_ea"));
        Outcome what = run_program({"file", "-b", target + "/boot/kvx_ea"}, dir);
        EXPECT_EQ(0u, what.out.find(c.elf)) << what.out;
    }
}

/* The package, unpacked with dpkg-deb -x (nothing installed): its client
 * finds its agent in ../lib/kvx-ea and its man page renders cleanly. */
TEST_F(EactlDeploy, PackageRunsFromAnUnpackedRoot)
{
    if (!built("kvx_ea-static"))
        GTEST_SKIP() << "the package needs the static agent, which sanitizer builds lack";
    Outcome r = run_program({"bash", std::string(KVX_SOURCE_DIR) + "/scripts/package.sh", "--bin", kBin,
                         "--out", dir}, dir);
    std::string deb = dir + "/kvx-ea_" KVX_VERSION_TEXT "_amd64.deb";
    ASSERT_EQ(0, r.status) << r.err;
    ASSERT_EQ(deb + "\n", r.out);
    std::string root = dir + "/root";
    ASSERT_EQ(0, run_program({"dpkg-deb", "-x", deb, root}, dir).status);
    for (const char* file : {"/usr/bin/kvx-eactl", "/usr/lib/kvx-ea/kvx_ea-static",
                             "/usr/lib/kvx-ea/kvxbackupvol-sim", "/usr/share/man/man1/kvx-eactl.1.gz",
                             "/usr/share/doc/kvx-ea/README.md"})
        EXPECT_EQ(0, access((root + file).c_str(), R_OK)) << file;

    r = run_program({root + "/usr/bin/kvx-eactl", "--version"}, dir);
    EXPECT_EQ("kvx-eactl " KVX_VERSION_TEXT "\n", r.out);
    r = run_program({root + "/usr/bin/kvx-eactl", "-v", "ping", "packaged"}, dir);
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_TRUE(has(r.out, "reply: packaged\n")) << r.out;
    EXPECT_TRUE(has(r.err, root + "/usr/bin/../lib/kvx-ea/kvx_ea-static (x86_64) deployed in ")) << r.err;

    r = run_program({"man", "--warnings", "-E", "UTF-8", "-l", root + "/usr/share/man/man1/kvx-eactl.1.gz"}, dir);
    EXPECT_EQ(0, r.status);
    EXPECT_EQ("", r.err);
    EXPECT_TRUE(has(r.out, "KVX-EACTL(1)") && has(r.out, "--hosts-file FILE")) << r.out;
}

} // namespace
