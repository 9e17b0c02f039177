/* Procedures 2, 5 and 6 through the agent, with the simulated backup program
 * started in the background as the server starts the real one. */
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "test_exec_cmd_client.h"
#include "zelutil.h"

namespace {

/* A file a reply consumes goes once that reply is out: look after the next one. */
bool removed(AgentHarness& h, const std::string& path)
{
    rpc(h, EA_PROC_PING, "{\"str\": \"\"}");
    return !AgentHarness::exists(path);
}

/* Starts the simulator and polls until it has ended; the events of every poll
 * are appended to events, the last reply returned. */
Reply run_job(AgentHarness& h, const std::string& args, std::string& events, int& running,
              const std::string& disk = "")
{
    std::string cmd = "kvxbackupvol " + (disk.empty() ? "" : "--disk " + disk + " ") + args;
    Reply r = rpc(h, EA_PROC_EXEC_CMD, exec_args(cmd, false, true));
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
        EXPECT_TRUE(disk.empty() ? name == "/dev/sda2" || name == "/dev/sdb1" : name == disk) << name;
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
    /* read at most 32 KiB, cut and removed (texts that are not UTF-8: Codec.*) */
    const struct { std::string file, text; long long size; } logfiles[] = {
        {std::string(9, 'a') + "\n", std::string(9, 'a') + "\n", 11},
        {std::string(39999, 'a') + "\n", std::string(32767, 'a'), 32768},
    };
    for (const auto& f : logfiles) {
        AgentHarness::write_file(logs + "linuxkvxactivity.log", f.file);
        Reply r = rpc(h, EA_PROC_AGENTLOG, "");
        EXPECT_EQ(f.size, num(r, "size"));
        EXPECT_EQ(f.text, text(r, "ActivityLogs"));
        EXPECT_TRUE(removed(h, logs + "linuxkvxactivity.log"));
    }
    std::string events;
    int running = 0;
    /* an event in Latin-1 waits in the file for the job's first poll */
    ASSERT_EQ(0, write_activity_log_file((logs + "linuxkvxactivity.log").c_str(), "1 0 caf\xe9"));
    Reply st = run_job(h, "--seconds 4 --exit 0", events, running, "/dev/" + std::string(250, 'd'));
    EXPECT_GE(running, 2);
    EXPECT_EQ(10, num(st, "sts"));
    EXPECT_EQ(1, num(st, "stg"));

    events += text(rpc(h, EA_PROC_AGENTLOG, ""), "ActivityLogs");
    EXPECT_EQ("1 0 caf?\n"
              "1 0 Backup job started: 2 volumes, 7.0 GiB\n"
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
    EXPECT_TRUE(removed(h, logs + "linuxkvxjobres"));
    AgentHarness::write_file(logs + "linuxkvxjobres", std::string(50, 'A'));
    res = rpc(h, EA_PROC_JOBRESULT, "");
    EXPECT_EQ("0 ", std::to_string(num(res, "proc_data_r")) + " " + text(res, "session"));
    EXPECT_TRUE(removed(h, logs + "linuxkvxjobres"));
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
