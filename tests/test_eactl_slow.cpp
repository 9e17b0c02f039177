/*
 * The operator client's time-outs, which take the grace period of 10 s
 * each: a stand-in agent whose helper holds the pipes, and a real agent
 * stuck in a command on a node of the private sshd.
 */
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>

#include "eactl_fixture.h"

namespace {

/* A hung agent whose helper left its process group holding the client's
 * pipes: at the time-out the group is killed and the pipes read end of file. */
TEST_F(EactlClient, TimeOutEndsANodeWhoseProcessesHoldItsPipes)
{
    spill(dir + "/agent",
          "#!/bin/sh\necho $$ > " + dir + "/agent.pid\n"
          "setsid sleep 30 & echo $! > " + dir + "/escaped.pid\nexec sleep 30\n", 0755);
    Outcome r = run_eactl({"-v", "--command-timeout", "1", "--agent", dir + "/agent", "ping", "x"}, dir);
    pid_t agent = atoi(slurp(dir + "/agent.pid").c_str());
    pid_t escaped = atoi(slurp(dir + "/escaped.pid").c_str());
    if (escaped > 0)
        kill(escaped, SIGKILL);
    EXPECT_EQ(4, r.status);
    EXPECT_LT(r.seconds, 20.0) << "held by the escaped process";
    EXPECT_TRUE(has(r.err, "kvx-eactl: localhost: ping: timed out after 1 s")) << r.err;
    std::smatch m;
    ASSERT_TRUE(std::regex_search(r.err, m, std::regex(" deployed in (/[^ \n]+)"))) << r.err;
    EXPECT_NE(0, access(std::string(m[1]).c_str(), F_OK)) << m[1] << " left behind";
    ASSERT_GT(agent, 0);
    std::string stat = slurp("/proc/" + std::to_string(agent) + "/stat");
    EXPECT_TRUE(stat.empty() || has(stat, ") Z ")) << "the agent runs on: " << stat;
}

/* A command that outlasts --command-timeout keeps the agent from reading
 * its closed input: after the grace period the client ends the node's
 * process group through a second session, and nothing stays on the node. */
TEST_F(EactlDeploy, TimeOutEndsACommandStuckOnTheNode)
{
    Outcome r = run_eactl(over_ssh({"-v", "--command-timeout", "1", "--host", "node3", "exec", "--wait",
                                    "sleep 67; echo kvx-eactl-stuck"}), dir);
    EXPECT_EQ(4, r.status) << r.err;
    EXPECT_LT(r.seconds, 30.0);
    EXPECT_TRUE(has(r.err, "kvx-eactl: node3: exec: timed out after 1 s")) << r.err;
    std::smatch m;
    ASSERT_TRUE(std::regex_search(r.err, m, std::regex(" deployed in (/[^ \n]+)"))) << r.err;
    EXPECT_NE(0, access(std::string(m[1]).c_str(), F_OK)) << m[1] << " left on the node";
    Outcome ps = run_program({"sh", "-c", "grep -l 'kvx-eactl-stuc[k]' /proc/[0-9]*/cmdline 2>/dev/null"}, dir);
    EXPECT_EQ("", ps.out) << "the command runs on";
}

} // namespace
