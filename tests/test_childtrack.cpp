// The SIGCHLD handler and the record of the background product program.
// The test program holds this one test: the handler, PATH and the log it
// sets stay here.
#include <signal.h>

#include "ea_svc.h"
#include "test_runtime_support.h"
#include "zellog.h"

namespace {

TEST(ChildTrack, ReapsRecordsAndUnloadsTheDriverAfterAFailedBackup)
{
    const struct {
        const char* cmd;   // command line the agent started
        int child;         // exit code, or -signal
        int ret_status;    // what the record holds afterwards
        bool tracked, driver_unloaded;
    } cases[] = {
        {"/w/kvxbackupvol -j 3", 5, 5, true, true},
        {"nohup KVXBACKUPVOL --x", -SIGKILL, 9, true, true},
        {"kvxbackupvol", 0, 0, true, false},
        {"kvxbmr --restore", 5, 5, true, false},
        {"sleep 100", 3, 3 << 8, false, false},   // a foreign child: the raw status
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
        pid_t pid = fork();
        if (pid == 0)
            _exit(c.child < 0 ? raise(-c.child) : c.child);
        set_global_process_st(c.cmd, pid);
        siginfo_t info;
        ASSERT_EQ(waitid(P_PID, pid, &info, WEXITED | WNOWAIT), 0);   // ended, not reaped
        EXPECT_EQ(query_global_process_exist(), c.tracked ? 1 : 0);
        sigprocmask(SIG_UNBLOCK, &chld, NULL);   // the handler reaps it here
        EXPECT_EQ(query_global_process_return_status(), c.ret_status);
        EXPECT_EQ(AgentHarness::read_file(calls), c.driver_unloaded ? "driverinstall -u\n" : "");
        // Asked twice: the exit is logged once.
        EXPECT_EQ(query_global_process_exist() + query_global_process_exist(), 0);
        std::string id = std::to_string(pid), text = AgentHarness::read_file(log);
        EXPECT_EQ(log_count(text, "ea_svc", 38, "child pid=" + id + " exist"), 1);
        EXPECT_EQ(log_count(text, "ea_svc", 75, "Child process pid=[" + id + "] has exited, status: " +
                                                    std::to_string(c.ret_status) + "."), c.tracked);
    }
    kill(idle, SIGKILL);
    (void)!system(("rm -rf " + std::string(dir)).c_str());
}

} // namespace
