/* Procedures 2, 5 and 6 through the agent, with the simulated backup program
 * started in the background as the server starts the real one. */
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "test_exec_cmd_client.h"

namespace {

/* Starts the simulator and polls until it has ended; the events of every poll
 * are appended to events, the last reply returned. */
Reply run_job(AgentHarness& h, const std::string& args, std::string& events, int& running)
{
    Reply r = rpc(h, EA_PROC_EXEC_CMD, exec_args("kvxbackupvol " + args, false, true));
    EXPECT_EQ("create child process successfully!", text(r, "str"));
    long long last_fin = 0;
    for (int i = 0; i < 30; i++, running++, sleep(1)) {
        r = rpc(h, EA_PROC_JOBSTATUS, "{\"id\": 0}", 90000);
        std::string act = text(r, "act_log");
        events += act;
        EXPECT_EQ(act.empty() ? 0 : (long long)act.size() + 1, num(r, "act_size"));
        if (num(r, "sts") != 1)
            break;
        std::string name = text(r, "vol.name");
        EXPECT_EQ("1 2", std::to_string(num(r, "typ")) + " " + std::to_string(num(r, "stg")));
        EXPECT_TRUE(name == "/dev/sda2" || name == "/dev/sdb1") << name;
        EXPECT_GE(num(r, "dt_fin"), last_fin) << "growing";
        EXPECT_LE(num(r, "vol.dt_all"), 100);
        EXPECT_EQ(1, num(r, "stat.valid"));
        EXPECT_EQ(num(r, "dt_fin") << 10, num(r, "stat.total_data"));
        last_fin = num(r, "dt_fin");
    }
    return r;
}

TEST(JobAgent, ProgressEventsResultAndFailureReachServer)
{
    AgentHarness h;
    h.install_simulator();
    h.add_stub("driverinstall");
    const std::string logs = h.work_dir + "/logs/";
    mkdir(logs.c_str(), 0755);   /* before the agent's own log makes it */
    ASSERT_TRUE(h.start());
    for (size_t n : {10, 40000}) {   /* read at most 32 KiB, cut and removed */
        AgentHarness::write_file(logs + "linuxkvxactivity.log", std::string(n - 1, 'a') + "\n");
        Reply r = rpc(h, EA_PROC_AGENTLOG, "");
        EXPECT_EQ(std::min(n + 1, (size_t)32768), (size_t)num(r, "size"));
        EXPECT_EQ(std::min(n, (size_t)32767), text(r, "ActivityLogs").size());
        EXPECT_FALSE(AgentHarness::exists(logs + "linuxkvxactivity.log"));
    }
    std::string events;
    int running = 0;
    Reply st = run_job(h, "--seconds 4 --exit 0", events, running);
    EXPECT_GE(running, 2);
    EXPECT_EQ(10, num(st, "sts"));
    EXPECT_EQ(1, num(st, "stg"));

    events += text(rpc(h, EA_PROC_AGENTLOG, ""), "ActivityLogs");
    EXPECT_EQ("1 0 Backup job started: 2 volumes, 7.0 GiB\n"
              "1 0 Backing up /dev/sda2 (ext4, 4.5 GiB)\n"
              "1 0 Volume /dev/sda2 done: 4.5 GiB read\n"
              "1 0 Backing up /dev/sdb1 (xfs, 2.5 GiB)\n"
              "1 0 Volume /dev/sdb1 done: 2.5 GiB read\n"
              "1 0 Backup job finished: 7.0 GiB read, 3.0 GiB written\n",
              events) << "each event once, in order";
    EXPECT_EQ(0, num(rpc(h, EA_PROC_AGENTLOG, ""), "size")) << "no file: nothing";

    Reply res = rpc(h, EA_PROC_JOBRESULT, "");
    EXPECT_EQ(7LL << 30, num(res, "proc_data_r"));
    EXPECT_EQ(0xC0A3D000LL, num(res, "proc_data_w")) << "43 % in whole 4 KiB blocks";
    EXPECT_EQ(7LL << 30, num(res, "protect_data"));
    EXPECT_EQ("S0000042", text(res, "session"));
    EXPECT_FALSE(AgentHarness::exists(logs + "linuxkvxjobres"));
    AgentHarness::write_file(logs + "linuxkvxjobres", std::string(50, 'A'));
    res = rpc(h, EA_PROC_JOBRESULT, "");
    EXPECT_EQ("0 ", std::to_string(num(res, "proc_data_r")) + " " + text(res, "session"));
    EXPECT_FALSE(AgentHarness::exists(logs + "linuxkvxjobres"));
    EXPECT_EQ(1, log_count(h.log(), "zelfunc", 2362, "return:50, not equal expected:105."));
    EXPECT_TRUE(h.stub_calls("driverinstall").empty());

    st = run_job(h, "--seconds 1 --exit 5", events, running);
    EXPECT_EQ(10, num(st, "sts"));
    EXPECT_EQ(3, num(st, "stg"));
    EXPECT_EQ(std::vector<std::string>{"driverinstall -u"}, h.stub_calls("driverinstall"));

    /* A job that ends while a wait-mode command runs (its SIGCHLD is lost) is
     * reported ended at once, and end of input then leaves the node alone. */
    h.add_stub("kvxbmr", 0, "sleep 0.5");
    rpc(h, EA_PROC_EXEC_CMD, exec_args("kvxbmr --restore", false, true));
    std::string log = h.log(), tag = "kvxbmr --restore, child pid=";
    std::string pid = log.substr(log.rfind(tag) + tag.size());
    pid = pid.substr(0, pid.find('\n'));
    Reply w = rpc(h, EA_PROC_EXEC_CMD, exec_args("until grep -q ') Z' /proc/" + pid + "/stat; do "
                                                 "sleep 0.05; done", false));
    EXPECT_EQ(0, num(w, "ret"));
    st = rpc(h, EA_PROC_JOBSTATUS, "{\"id\": 0}", 20000);
    EXPECT_EQ("10 1", std::to_string(num(st, "sts")) + " " + std::to_string(num(st, "stg")));
    h.close_input();
    EXPECT_EQ(0, h.wait_exit(20));
    EXPECT_EQ(0, log_count(h.log(), "svc_main", 74, "cleanup_target started"));
}

} // namespace
