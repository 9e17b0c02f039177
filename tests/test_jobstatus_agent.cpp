/*
 * The job procedures through the real agent, with the simulated backup
 * program started in the background as the server starts the real one:
 * progress while it runs, its activity events delivered once, its job
 * result intact, and the failure path that uninstalls the driver.
 */
#include <string.h>
#include <unistd.h>

#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "test_jobdata_agent.h"

namespace {

/* Fields of the packed records are compared by value (unary +): a reference
 * to one may be misaligned. */

const UINT64 SIM_BASE_KIB = 5ULL << 30;   /* the simulator's 5 TiB, in KiB */

/* Lines of text, each counted. */
std::map<std::string, int> count_lines(const std::string& text)
{
    std::map<std::string, int> n;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line))
        n[line]++;
    return n;
}

class JobAgent : public ::testing::Test {
protected:
    AgentHarness h;
    void SetUp() override
    {
        h.install_simulator();
        h.add_stub("driverinstall");
        ASSERT_TRUE(h.start());
    }
};

TEST_F(JobAgent, BackupProgressEventsAndResultReachServer)
{
    ASSERT_EQ(start_background(h, "kvxbackupvol --seconds 6 --exit 0"), 0);

    std::string events;
    int running_polls = 0;
    UINT64 last_fin = 0;
    StatusReply st;
    for (int i = 0; i < 30; i++) {
        st = poll_status(h);
        ASSERT_EQ(st.rc, 0);
        events += st.act_log;
        if (st.act_size != 0) {
            EXPECT_EQ(st.act_size, st.act_log.size() + 1);
        }
        if (st.res.sts == 10)
            break;
        running_polls++;
        EXPECT_EQ(+st.res.sts, 1u);
        EXPECT_EQ(+st.res.typ, 1u);
        EXPECT_EQ(+st.res.stg, 2u);
        EXPECT_STREQ(st.res.vol.name, "/dev/simdisk0");
        EXPECT_GE(+st.res.dt_fin, SIM_BASE_KIB) << "a KiB count above 2^32";
        EXPECT_GE(+st.res.dt_fin, last_fin);
        EXPECT_LE(+st.res.vol.dt_all, 100u);
        EXPECT_EQ(+st.res.job_statistic.DataIsValid, 1);
        EXPECT_EQ(+st.res.job_statistic.TotalDataSize, st.res.dt_fin << 10);
        last_fin = st.res.dt_fin;
        sleep(1);
    }
    EXPECT_GE(running_polls, 2);
    EXPECT_EQ(+st.res.sts, 10u);
    EXPECT_EQ(+st.res.stg, 1u);

    AgentLogReply lg = fetch_activity_log(h);
    ASSERT_EQ(lg.rc, 0);
    events += lg.text;
    std::map<std::string, int> lines = count_lines(events);
    EXPECT_EQ(lines["1 0 kvxbackupvol: started"], 1) << events;
    for (int k = 1; k <= 6; k++)
        EXPECT_EQ(lines["1 0 kvxbackupvol: step " + std::to_string(k) + " of 6"], 1) << events;
    EXPECT_EQ(lines["1 0 kvxbackupvol: finished"], 1) << events;
    EXPECT_EQ(lines.size(), 8u) << events;
    lg = fetch_activity_log(h);
    EXPECT_EQ(lg.size, 0);
    EXPECT_EQ(lg.text, "");

    JOB_RESULT r = {};
    ASSERT_EQ(fetch_job_result(h, r), 0);
    EXPECT_EQ(+r.processed_data_read, 0x123456789AULL);
    EXPECT_EQ(+r.throughput_read, 3000u);
    EXPECT_EQ(+r.processed_data_write, 0xFEDCBA9876ULL);
    EXPECT_EQ(+r.throughput_write, 123456u);
    EXPECT_EQ(+r.recovery_count, 7u);
    EXPECT_EQ(+r.protected_data, (1ULL << 40) + 5);
    EXPECT_STREQ(r.sessionNo, "S0000042");
    EXPECT_STREQ(r.sessionGuid, "0f0e0d0c-0b0a-4908-8706-050403020100");
    EXPECT_FALSE(AgentHarness::exists(h.work_dir + "/logs/linuxkvxjobres"));

    memset(&r, 0x33, sizeof(r));
    ASSERT_EQ(fetch_job_result(h, r), 0);
    EXPECT_EQ(+r.processed_data_read, 0u) << "delivered once";
    EXPECT_STREQ(r.sessionNo, "");

    EXPECT_TRUE(h.stub_calls("driverinstall").empty());
}

TEST_F(JobAgent, FailedBackupReportsStageThreeAndUninstallsDriver)
{
    ASSERT_EQ(start_background(h, "kvxbackupvol --seconds 1 --exit 5"), 0);
    StatusReply st;
    for (int i = 0; i < 30; i++) {
        st = poll_status(h);
        ASSERT_EQ(st.rc, 0);
        if (st.res.sts == 10)
            break;
        sleep(1);
    }
    EXPECT_EQ(+st.res.sts, 10u);
    EXPECT_EQ(+st.res.stg, 3u);
    std::vector<std::string> calls = h.stub_calls("driverinstall");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0], "driverinstall -u");
}

TEST_F(JobAgent, NoProgramAnswersFinishedAtOnce)
{
    StatusReply st = poll_status(h, 5000);
    ASSERT_EQ(st.rc, 0);
    EXPECT_EQ(+st.res.sts, 10u);
    EXPECT_EQ(+st.res.stg, 1u);
    EXPECT_EQ(st.act_size, 0u);
}

} // namespace
