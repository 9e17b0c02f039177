/* Fixtures of the client's tests: EactlClient (a scratch directory) and
 * EactlDeploy (a private sshd for the suite, whose aliases node1 to node3
 * stand for nodes, and the client's options to reach it). */
#ifndef EACTL_FIXTURE_H
#define EACTL_FIXTURE_H

#include <gtest/gtest.h>

#include "eactl_testkit.h"
#include "sshd_sandbox.h"

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

const std::string kBin = KVX_BIN_DIR;

inline bool built(const char* name)
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
        /* shared connections of this suite only, ended with it */
        setenv("KVX_EACTL_CONTROL_DIR", (sb.dir + "/cm").c_str(), 1);
    }
    static void TearDownTestSuite()
    {
        for (const char* node : {"node1", "node2", "node3"})
            if (!sb.dir.empty())
                sshd_sandbox_run({"ssh", "-F", sb.client_config, "-o", "ControlPath=" + sb.dir + "/cm/%C",
                                  "-O", "exit", node});
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

public:
    static pid_t sshd_pid() { return sb.pid; }

protected:
    static inline SshdSandbox sb;
    static inline std::string sb_error, home_ssh;
    std::string dir;
};

#endif /* EACTL_FIXTURE_H */
