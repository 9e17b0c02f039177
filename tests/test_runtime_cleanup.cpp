/*
 * Target cleanup after a stop signal: a lost parent (SIGHUP), five idle
 * minutes (SIGALRM, sent here instead of waited for) and a broken output
 * pipe (SIGPIPE).  No product program runs, so nothing is cancelled; the
 * driver is unloaded, the staged files go, the parent is killed and the
 * agent exits with status 1.
 */
#include <signal.h>
#include <string.h>
#include <unistd.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "agent_harness.h"
#include "test_runtime_support.h"

namespace {

/* What every flag-driven cleanup with no product program leaves behind. */
void expect_cleaned(const std::string& root, const std::string& log, pid_t agent,
                    const std::vector<std::string>& staged, const std::string& rm_line)
{
    std::vector<std::string> want = {"driverinstall -u", "killall kvxagent", rm_line};
    EXPECT_EQ(read_lines(root + "/journal"), want);
    for (const std::string& f : staged)
        EXPECT_FALSE(AgentHarness::exists(f)) << f;
    std::string pid = std::to_string(agent);
    EXPECT_EQ(log_count(log, "svc_main", 454, "process still running flag: 0"), 1);
    EXPECT_EQ(log_count(log, "svc_main", 74, "cleanup_target started, non root user flag: 0."), 1);
    EXPECT_EQ(log_count(log, "svc_main", 80, "try to cancel program"), 0);
    EXPECT_EQ(log_count(log, "svc_main", 144, "cleanup_target finished."), 1);
    EXPECT_EQ(log_count(log, "svc_main", 145, "ea[" + pid + "] finished."), 1);
    EXPECT_EQ(log_count(log, "svc_main", 460, "finished."), 0);
}

struct SignalCase {
    const char* name;
    int sig;
    int flag;
    int line;
    const char* text;
};

const SignalCase kSignalCases[] = {
    {"Hangup", SIGHUP, 1, 364, "receive signal: SIGHUP."},
    {"IdleAlarm", SIGALRM, 2, 365, "receive signal: SIGALRM."},
    {"BrokenPipe", SIGPIPE, 3, 366, "receive signal: SIGPIPE."},
};

class CleanupOnSignal : public ::testing::TestWithParam<SignalCase> {};

TEST_P(CleanupOnSignal, RemovesFilesKillsParentExitsOne)
{
    const SignalCase& c = GetParam();
    HarnessPtr hp(new AgentHarness);
    AgentHarness& h = *hp;
    add_cleanup_stubs(h, h.root + "/journal");
    std::vector<std::string> staged = stage_product_files(h);
    ASSERT_TRUE(h.start());
    h.send_raw(request_line(1, 1, "{\"str\": \"x\"}"));
    json_t* r = read_reply(h, 15000);   /* handlers are installed once it answers */
    ASSERT_NE(r, nullptr);
    json_decref(r);

    h.signal_agent(c.sig);
    int parent = reap_parent(h, 60);
    EXPECT_TRUE(WIFSIGNALED(parent) && WTERMSIG(parent) == SIGKILL) << "parent status " << parent;
    ASSERT_EQ(h.wait_exit(30), 1);

    std::string log = h.log();
    EXPECT_EQ(log_count(log, "svc_main", c.line, c.text), 1);
    EXPECT_EQ(log_count(log, "svc_main", 367,
                        "cleanup flag is set to " + std::to_string(c.flag) + ". stop ExecAgent."),
              1);
    expect_cleaned(h.root, log, h.agent_pid(), staged, expected_rm_line(h));
}

INSTANTIATE_TEST_SUITE_P(Flags, CleanupOnSignal, ::testing::ValuesIn(kSignalCases),
                         [](const ::testing::TestParamInfo<SignalCase>& i) { return i.param.name; });

/* ---- the remote shell dies ---- */

struct LostParentReport {
    pid_t agent;
    char root[256];
    char rm_line[4096];
    char staged[12][256];
    int nstaged;
};

/*
 * Runs in a forked process T that owns the harness: kills the agent's
 * parent, whereupon the agent is re-parented to T and must kill T.
 */
void lose_parent(int report_fd)
{
    LostParentReport rep;
    memset(&rep, 0, sizeof(rep));
    AgentHarness h;
    add_cleanup_stubs(h, h.root + "/journal");
    std::vector<std::string> staged = stage_product_files(h);
    if (!h.start())
        _exit(2);
    h.send_raw(request_line(1, 1, "{\"str\": \"x\"}"));
    json_t* r = read_reply(h, 15000);
    if (r == NULL)
        _exit(3);
    json_decref(r);

    rep.agent = h.agent_pid();
    snprintf(rep.root, sizeof(rep.root), "%s", h.root.c_str());
    snprintf(rep.rm_line, sizeof(rep.rm_line), "%s", expected_rm_line(h).c_str());
    for (const std::string& f : staged)
        snprintf(rep.staged[rep.nstaged++], sizeof(rep.staged[0]), "%s", f.c_str());
    if (write(report_fd, &rep, sizeof(rep)) != (ssize_t)sizeof(rep))
        _exit(4);
    h.kill_parent(SIGKILL);
    sleep(60);
    _exit(5);   /* the agent should have killed us long before */
}

TEST(CleanupOnLostParent, CleansAndKillsTheProcessItWasHandedTo)
{
    prctl(PR_SET_CHILD_SUBREAPER, 1);   /* the agent ends up as our child */
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    pid_t t = fork();
    ASSERT_GE(t, 0);
    if (t == 0) {
        close(fds[0]);
        lose_parent(fds[1]);
    }
    close(fds[1]);
    LostParentReport rep;
    ssize_t got = read(fds[0], &rep, sizeof(rep));
    close(fds[0]);

    int st = 0;
    ASSERT_EQ(waitpid(t, &st, 0), t);
    ASSERT_EQ(got, (ssize_t)sizeof(rep)) << "helper failed, status " << st;
    EXPECT_TRUE(WIFSIGNALED(st) && WTERMSIG(st) == SIGKILL) << "helper status " << st;

    int agent_status = -1;
    for (int i = 0; i < 1500 && agent_status < 0; i++) {
        if (waitpid(rep.agent, &st, WNOHANG) == rep.agent)
            agent_status = st;
        else
            usleep(20000);
    }
    if (agent_status < 0 && rep.agent > 0)
        kill(rep.agent, SIGKILL);
    while (waitpid(-1, NULL, WNOHANG) > 0)   /* the dead parent, re-parented to us */
        ;
    std::string root = rep.root;
    EXPECT_TRUE(WIFEXITED(agent_status) && WEXITSTATUS(agent_status) == 1)
        << "agent status " << agent_status;

    std::string log = AgentHarness::read_file(root + "/work/logs/kvx-agent.log");
    EXPECT_EQ(log_count(log, "svc_main", 364, "receive signal: SIGHUP."), 1);
    EXPECT_EQ(log_count(log, "svc_main", 367, "cleanup flag is set to 1. stop ExecAgent."), 1);
    std::vector<std::string> staged(rep.staged, rep.staged + rep.nstaged);
    expect_cleaned(root, log, rep.agent, staged, rep.rm_line);
    (void)!system(("rm -rf " + root).c_str());
}

} /* namespace */
