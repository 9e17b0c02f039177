/*
 * Background child tracking: the SIGCHLD handler, the record it fills and
 * the queries made of it.  Each scenario runs in a forked process (a death
 * test), so the handler, the environment and the log stay out of the test
 * runner.
 */
#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <sys/wait.h>

#include <string>

#include <gtest/gtest.h>

#include "agent_harness.h"
#include "ea_svc.h"
#include "zellog.h"
#include "test_runtime_support.h"

namespace {

/* Scratch directory of one test, made and removed by the test runner. */
struct Scratch {
    std::string dir;
    Scratch()
    {
        char tmpl[] = "/tmp/kvxtrack.XXXXXX";
        dir = mkdtemp(tmpl) ? tmpl : "";
    }
    ~Scratch()
    {
        if (!dir.empty())
            (void)!system(("rm -rf " + dir).c_str());
    }
};

/* The forked scenario's node: a stub driverinstall first on PATH, a private
 * log and signal_child as the SIGCHLD handler. */
struct Node {
    std::string dir, log_path, calls;

    explicit Node(const std::string& scratch) : dir(scratch)
    {
        log_path = dir + "/agent.log";
        calls = dir + "/driverinstall.calls";
        AgentHarness::write_script(dir + "/driverinstall",
                                   "echo \"driverinstall $*\" >> " + calls + "\n");
        setenv("PATH", (dir + ":/usr/bin:/bin").c_str(), 1);
        ZELInitLogger(log_path.c_str(), 3);

        struct sigaction sa;
        memset(&sa, 0, sizeof(sa));
        sa.sa_handler = signal_child;
        sigemptyset(&sa.sa_mask);
        sigaction(SIGCHLD, &sa, NULL);
    }
    std::string log() const { return AgentHarness::read_file(log_path); }
    std::string driver_calls() const { return AgentHarness::read_file(calls); }
};

/* Child that waits for a byte on gate, then exits with code or dies of -code. */
pid_t spawn_gated(int gate[2], int code)
{
    if (pipe(gate) != 0)
        return -1;
    pid_t pid = fork();
    if (pid == 0) {
        char c;
        close(gate[1]);
        while (read(gate[0], &c, 1) < 0 && errno == EINTR)
            ;
        if (code < 0)
            kill(getpid(), -code);
        _exit(code);
    }
    close(gate[0]);
    return pid;
}

void release(int gate[2])
{
    if (write(gate[1], "x", 1) != 1)
        perror("release");
    close(gate[1]);
}

/* Lets the handler run until it has logged pid's exit (5 s at most). */
bool wait_reaped(const Node& node, pid_t pid)
{
    std::string text = "signal_child: child pid=" + std::to_string(pid) + " exist";
    for (int i = 0; i < 500; i++) {
        if (log_count(node.log(), "ea_svc", 38, text) > 0)
            return true;
        usleep(10000);
    }
    return false;
}

#define CHECK(cond)                                                           \
    do {                                                                      \
        if (!(cond)) {                                                        \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            _exit(1);                                                         \
        }                                                                     \
    } while (0)

struct ReapCase {
    const char* name;
    const char* cmd;        /* command line the agent started */
    int  child;             /* exit code, or -signal */
    bool tracked;
    int  ret_status;        /* recorded in the record */
    bool driver_unloaded;   /* "driverinstall -u" run by the handler */
};

const ReapCase kReapCases[] = {
    {"BackupExitCodeUnloadsDriver", "/w/kvxbackupvol -j 3", 5, true, 5, true},
    {"BackupKilledRecordsSignal", "nohup KVXBACKUPVOL --x", -SIGKILL, true, 9, true},
    {"BackupSuccessKeepsDriver", "kvxbackupvol", 0, true, 0, false},
    {"RecoveryFailureKeepsDriver", "kvxbmr --restore", 5, true, 5, false},
    {"UntrackedChildLeavesRawStatus", "sleep 100", 3, false, 3 << 8, false},
};

class ChildTrack : public ::testing::TestWithParam<ReapCase> {};

void reap_scenario(const ReapCase& c, const std::string& dir)
{
    Node node(dir);
    int gate[2];
    pid_t pid = spawn_gated(gate, c.child);
    CHECK(pid > 0);
    set_global_process_st(c.cmd, pid);
    CHECK(gst_nblk_p.pid == (c.tracked ? pid : 0));
    CHECK(query_global_process_exist() == (c.tracked ? 1 : 0));

    release(gate);
    CHECK(wait_reaped(node, pid));
    CHECK(query_global_process_return_status() == c.ret_status);
    CHECK(gst_nblk_p.finished_flag == (c.tracked ? 1 : 0));
    CHECK((node.driver_calls() == "driverinstall -u\n") == c.driver_unloaded);
    if (!c.driver_unloaded)
        CHECK(node.driver_calls().empty());

    /* The exit is reported once, however often the loop asks. */
    CHECK(query_global_process_exist() == 0);
    CHECK(query_global_process_exist() == 0);
    CHECK(gst_nblk_p.finished_flag == (c.tracked ? 2 : 0));
    std::string exited = "Child process pid=[" + std::to_string(pid) + "] has exited, status: " +
                         std::to_string(c.ret_status) + ".";
    CHECK(log_count(node.log(), "ea_svc", 75, exited) == (c.tracked ? 1 : 0));
    _exit(0);
}

TEST_P(ChildTrack, ReapsAndRecords)
{
    Scratch scratch;
    EXPECT_EXIT(reap_scenario(GetParam(), scratch.dir), ::testing::ExitedWithCode(0), "");
}

INSTANTIATE_TEST_SUITE_P(Reap, ChildTrack, ::testing::ValuesIn(kReapCases),
                         [](const ::testing::TestParamInfo<ReapCase>& i) { return i.param.name; });

void foreign_child_scenario(const std::string& dir)
{
    Node node(dir);
    int tracked_gate[2], foreign_gate[2];
    pid_t tracked = spawn_gated(tracked_gate, 0);
    pid_t foreign = spawn_gated(foreign_gate, 7);
    CHECK(tracked > 0 && foreign > 0);
    set_global_process_st("kvxbackupvol -j 1", tracked);

    release(foreign_gate);
    CHECK(wait_reaped(node, foreign));
    CHECK(query_global_process_return_status() == 0);
    CHECK(gst_nblk_p.finished_flag == 0);
    CHECK(query_global_process_exist() == 1);

    release(tracked_gate);
    CHECK(wait_reaped(node, tracked));
    CHECK(query_global_process_exist() == 0);
    CHECK(node.driver_calls().empty());
    _exit(0);
}

TEST(ChildTrackForeign, ForeignChildLeavesTrackedRecordAlone)
{
    Scratch scratch;
    EXPECT_EXIT(foreign_child_scenario(scratch.dir), ::testing::ExitedWithCode(0), "");
}

/* A SIGCHLD whose child was already reaped elsewhere (pclose) must not make
 * the handler wait for a child that is still running. */
void stale_signal_scenario(const std::string& dir)
{
    Node node(dir);
    int gate[2];
    pid_t running = spawn_gated(gate, 0);
    CHECK(running > 0);
    set_global_process_st("kvxbackupvol", running);
    alarm(5);   /* a blocked handler ends the scenario with SIGALRM */
    signal_child(SIGCHLD);
    alarm(0);
    CHECK(gst_nblk_p.finished_flag == 0);
    CHECK(query_global_process_exist() == 1);
    CHECK(log_count(node.log(), "ea_svc", 38, "child pid=") == 0);
    release(gate);
    CHECK(wait_reaped(node, running));
    _exit(0);
}

TEST(ChildTrackForeign, StaleSignalDoesNotBlock)
{
    Scratch scratch;
    EXPECT_EXIT(stale_signal_scenario(scratch.dir), ::testing::ExitedWithCode(0), "");
}

/* ---- what a background start records ---- */

struct StartCase {
    const char* cmd;
    bool tracked;
    int  prog_type;
};

TEST(ChildTrackStart, RecordsOnlyProductProgramsAndTheirKind)
{
    const StartCase cases[] = {
        {"/opt/c/kvxbackupvol -c job.js", true, 1},
        {"KvxBackupVol", true, 1},
        {"kvxbmr --restore", true, 2},
        {"sleep 30", false, 2},
        {"", false, 2},
    };
    for (const StartCase& c : cases) {
        SCOPED_TRACE(c.cmd);
        gst_nblk_p.finished_flag = 2;
        gst_nblk_p.ret_status = 99;
        set_global_process_st(c.cmd, 4242);
        EXPECT_EQ(gst_nblk_p.pid, c.tracked ? 4242 : 0);
        EXPECT_EQ(gst_nblk_p.finished_flag, 0);
        EXPECT_EQ(gst_nblk_p.ret_status, 0);
        EXPECT_EQ(g_cached_prog_type_flag, c.prog_type);
    }
    memset(&gst_nblk_p, 0, sizeof(gst_nblk_p));
    g_cached_prog_type_flag = 0;
}

TEST(ChildTrackStart, VanishedChildIsNotRunning)
{
    pid_t pid = fork();
    if (pid == 0)
        _exit(0);
    waitpid(pid, NULL, 0);
    set_global_process_st("kvxbmr", pid);
    EXPECT_EQ(query_global_process_exist(), 0);
    memset(&gst_nblk_p, 0, sizeof(gst_nblk_p));
    g_cached_prog_type_flag = 0;
}

} /* namespace */
