// The SIGCHLD handler and the record of the background product program.
// The test program holds this one test: the handler, PATH and the log it
// sets stay here.
#include <signal.h>

#include "ea_svc.h"
#include "test_runtime_support.h"
#include "zellog.h"

namespace {

TEST(ChildTrack, HandlerOnlyRecordsQueriesReapAndUnloadTheDriverAfterAFailedBackup)
{
    const struct {
        const char* cmd;   // command line the agent started
        int child;         // exit code, or -signal
        int ret_status;    // what the record holds afterwards
        bool tracked, driver_unloaded;
        bool signal_lost;  // ended while SIGCHLD was at its default (a runner waited)
    } cases[] = {
        {"/w/kvxbackupvol -j 3", 5, 5, true, true, false},
        {"nohup KVXBACKUPVOL --x", -SIGKILL, 9, true, true, false},
        {"kvxbackupvol", 0, 0, true, false, false},
        {"kvxbmr --restore", 5, 5, true, false, false},
        {"sleep 100", 3, 3 << 8, false, false, false},   // a foreign child: the raw status
        {"kvxbackupvol -j 4", 0, 0, true, false, true},
        {"kvxbackupvol -j 5", 2, 2, true, true, true},
    };
    char dir[] = "/tmp/kvxtrack.XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    std::string calls = std::string(dir) + "/driverinstall.calls", log = std::string(dir) + "/log";
    AgentHarness::write_script(std::string(dir) + "/driverinstall", "echo \"driverinstall $*\" >> " + calls);
    setenv("PATH", (std::string(dir) + ":/usr/bin:/bin").c_str(), 1);
    ZELInitLogger(log.c_str(), 3);
    signal(SIGCHLD, signal_child);
    pid_t idle = fork();   // a child that runs throughout
    if (idle == 0)
        for (;;)
            pause();
    alarm(5);   // a handler that waited for a running child would hang here
    signal_child(SIGCHLD);
    alarm(0);

    sigset_t chld;
    sigemptyset(&chld);
    sigaddset(&chld, SIGCHLD);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.cmd);
        unlink(calls.c_str());
        sigprocmask(SIG_BLOCK, &chld, NULL);
        if (c.signal_lost)
            signal(SIGCHLD, SIG_DFL);
        pid_t pid = fork();
        if (pid == 0)
            _exit(c.child < 0 ? raise(-c.child) : c.child);
        set_global_process_st(c.cmd, pid);
        siginfo_t info;
        ASSERT_EQ(waitid(P_PID, pid, &info, WEXITED | WNOWAIT), 0);   // ended, not reaped
        sigprocmask(SIG_UNBLOCK, &chld, NULL);   // the handler (if any) runs here
        signal(SIGCHLD, signal_child);
        std::string id = std::to_string(pid);
        // The handler has only recorded the child: nothing logged, nothing run.
        EXPECT_EQ(log_count(AgentHarness::read_file(log), "ea_svc", 38, "child pid=" + id + " "), 0);
        EXPECT_EQ(AgentHarness::read_file(calls), "");
        // An ended child is never taken for running, its signal lost or not.
        EXPECT_EQ(query_global_process_exist(), 0);
        EXPECT_EQ(query_global_process_return_status(), c.ret_status);
        EXPECT_EQ(AgentHarness::read_file(calls), c.driver_unloaded ? "driverinstall -u\n" : "");
        EXPECT_EQ(query_global_process_exist(), 0);   // asked twice: the exit is logged once
        std::string text = AgentHarness::read_file(log);
        EXPECT_EQ(log_count(text, "ea_svc", 38, "signal_child: child pid=" + id + " exist"), 1);
        EXPECT_EQ(log_count(text, "ea_svc", 75, "Child process pid=[" + id + "] has exited, status: " +
                                                    std::to_string(c.ret_status) + "."), c.tracked);
        EXPECT_EQ(waitpid(pid, NULL, WNOHANG), -1) << "left unreaped";
    }
    kill(idle, SIGKILL);
    (void)!system(("rm -rf " + std::string(dir)).c_str());
}

} // namespace
