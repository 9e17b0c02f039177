/* The client's tests: running it (exit status, output, time taken),
 * EactlClient (a scratch directory) and EactlDeploy (also a private sshd
 * for the suite, whose aliases node1 to node3 stand for nodes). */
#ifndef EACTL_FIXTURE_H
#define EACTL_FIXTURE_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <regex>

#include "eactl_spawn.h"
#include "sshd_sandbox.h"

const std::string kBin = KVX_BIN_DIR;
const auto slurp = sshd_sandbox_read;

struct Outcome {
    int status;   /* exit status, 128 + signal */
    std::string out, err;
    double seconds;
};

inline void spill(const std::string& path, const std::string& text, mode_t mode = 0644)
{
    std::ofstream(path) << text;
    chmod(path.c_str(), mode);
}

inline double now_s()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

/* Starts args (args[0] looked up in PATH) with input from the file in and
 * output to the files out and err. */
inline pid_t start_program(const std::vector<std::string>& args, const std::string& in,
                           const std::string& out, const std::string& err)
{
    int fds[3] = {open(in.c_str(), O_RDONLY | O_CLOEXEC),
                  open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644),
                  open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644)};
    pid_t pid = eactl_spawn(args, fds[0], fds[1], fds[2]);
    for (int fd : fds)
        close(fd);
    return pid;
}

/* Runs args with input as its standard input, its output kept in dir. */
inline Outcome run_program(const std::vector<std::string>& args, const std::string& dir,
                           const std::string& input = "")
{
    double t0 = now_s();
    spill(dir + "/run.in", input);
    int st = eactl_reap(start_program(args, dir + "/run.in", dir + "/run.out", dir + "/run.err"));
    return {WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st), slurp(dir + "/run.out"),
            slurp(dir + "/run.err"), now_s() - t0};
}

/* kvx-eactl of this build with the given arguments. */
inline Outcome run_eactl(std::vector<std::string> args, const std::string& dir, const std::string& input = "")
{
    args.insert(args.begin(), kBin + "/kvx-eactl");
    return run_program(args, dir, input);
}

inline bool has(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

/* How often re matches in text. */
inline size_t count_of(const std::string& text, const std::string& re)
{
    std::regex pattern(re);
    return (size_t)std::distance(std::sregex_iterator(text.begin(), text.end(), pattern), std::sregex_iterator());
}

/* What a text must show: parts of it, "=" first the whole text, "!" a part
 * it lacks, "~" a regular expression found in it. */
inline void expect_shows(const std::string& text, const std::vector<std::string>& parts)
{
    for (const std::string& p : parts) {
        std::string rest = p.substr(1);
        if (p[0] == '=')
            EXPECT_EQ(rest, text);
        else if (p[0] == '!')
            EXPECT_FALSE(has(text, rest)) << rest << " in\n" << text;
        else if (p[0] == '~')
            EXPECT_TRUE(std::regex_search(text, std::regex(rest))) << rest << " in\n" << text;
        else
            EXPECT_TRUE(has(text, p)) << p << " in\n" << text;
    }
}

/* Words joined by blanks, for a trace. */
inline std::string joined(const std::vector<std::string>& words)
{
    std::string text;
    for (const std::string& w : words)
        text += w + " ";
    return text;
}

inline bool built(const char* name)
{
    return access((kBin + "/" + name).c_str(), X_OK) == 0;
}

inline void remove_tree(const std::string& dir)
{
    sshd_sandbox_run({"rm", "-rf", "--", dir});
}

class EactlClient : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(mkdtemp(&(dir = "/tmp/kvx-eactl-test.XXXXXX")[0])); }
    void TearDown() override { remove_tree(dir); }
    std::string dir;
};

class EactlDeploy : public EactlClient {
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
        EactlClient::SetUp();
    }

    /* What ~/.ssh holds: its entries with their sizes and times. */
    static std::string ssh_dir_state()
    {
        const char* home = getenv("HOME");
        return run_program({"ls", "-la", "--time-style=full-iso", std::string(home ? home : "/") + "/.ssh"}, "/tmp").out;
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
    static int connections() { return (int)count_of(slurp(sb.dir + "/sshd.log"), "Accepted publickey"); }

    static inline SshdSandbox sb;
    static inline std::string sb_error, home_ssh;
};

#endif /* EACTL_FIXTURE_H */
