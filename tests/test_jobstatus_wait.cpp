/* The agent's waits: an activity log locked by another process (6 attempts a
 * second apart), a backup program that never publishes its monitor (60 s). */
#include <fcntl.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "test_exec_cmd_client.h"

namespace {

TEST(JobAgentSlow, GivesUpOnLockedLogAndMissingMonitor)
{
    AgentHarness h;
    h.install_simulator();
    h.add_stub("driverinstall");
    const std::string act = h.work_dir + "/logs/linuxkvxactivity.log", content = "1 0 held\n";
    mkdir((h.work_dir + "/logs").c_str(), 0755);
    AgentHarness::write_file(act, content);
    int ready[2];
    ASSERT_EQ(0, pipe(ready));
    pid_t holder = fork();
    if (holder == 0) {
        int fd = open(act.c_str(), O_RDWR);
        if (fd >= 0 && lockf(fd, F_LOCK, 0) == 0 && write(ready[1], "x", 1) == 1)
            sleep(10);
        _exit(0);
    }
    char c;
    ASSERT_EQ(1, read(ready[0], &c, 1));
    close(ready[0]), close(ready[1]);
    ASSERT_TRUE(h.start());
    time_t t0 = time(NULL);
    EXPECT_EQ(0, num(rpc(h, EA_PROC_AGENTLOG, ""), "size"));
    EXPECT_GE(time(NULL) - t0, 5);
    EXPECT_LE(time(NULL) - t0, 9);
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    EXPECT_EQ(content, AgentHarness::read_file(act));
    EXPECT_EQ(1, log_count(h.log(), "ea_svc", 485, "get_agent_activity_log_svc: Failed to read activity "
                           "log from file: " + h.work_dir + "//logs/linuxkvxactivity.log, rc=-2."));

    /* outlives the wait by a few seconds, then ends by itself */
    rpc(h, EA_PROC_EXEC_CMD, exec_args("kvxbackupvol --no-shm --seconds 66", false, true));
    t0 = time(NULL);
    Reply st = rpc(h, EA_PROC_JOBSTATUS, "{\"id\": 0}", 90000);
    EXPECT_GE(time(NULL) - t0, 59);
    EXPECT_LE(time(NULL) - t0, 75);
    EXPECT_EQ(10, num(st, "sts"));
    EXPECT_EQ(3, num(st, "stg"));
    EXPECT_EQ(1, log_count(h.log(), "ea_svc", 399, "get_job_status_svc: Attach shm failed!"));

    /* the next request waits only until the program ends by itself */
    st = rpc(h, EA_PROC_JOBSTATUS, "{\"id\": 0}", 90000);
    EXPECT_EQ(10, num(st, "sts"));
    EXPECT_EQ(1, num(st, "stg"));
    EXPECT_LE(time(NULL) - t0, 85);
}

} // namespace
