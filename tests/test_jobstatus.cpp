/*
 * The job status procedure against a monitor record crafted in the real
 * shared memory segment (key 0xAC23E27E), with this test process standing
 * in as the tracked backup program.
 */
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ea_svc.h"
#include "test_jobdata_node.h"

namespace {

/* Fields of the packed records are compared by value (unary +): a reference
 * to one may be misaligned. */

using H = AgentHarness;

const UINT64 MiB = 1ULL << 20, GiB = 1ULL << 30;

class JobStatus : public JobDataTest {
protected:
    int shmid = -1;
    RECOVERYPOINT_MONITOR* m = nullptr;
    std::vector<char> act = std::vector<char>(EA_ACT_LOG_SIZE, 0);
    JOB_STATUS res;

    void SetUp() override
    {
        JobDataTest::SetUp();
        shmid = CreateSHM(KVX_MONITOR_SIZE);
        ASSERT_GE(shmid, 0);
        m = (RECOVERYPOINT_MONITOR*)AttachSHM(KVX_MONITOR_SIZE, shmid);
        ASSERT_NE(m, nullptr);
        memset(m, 0, sizeof(*m));
        track(getpid(), 0);
        reset_result();
    }
    void TearDown() override
    {
        if (m)
            DetachSHM(m);
        remove_segment();
        track(0, 0);
        JobDataTest::TearDown();
    }
    void remove_segment()
    {
        if (shmid >= 0)
            DelSHM(shmid);
        shmid = -1;
    }
    static void track(pid_t pid, int ret_status)
    {
        gst_nblk_p.pid = pid;
        gst_nblk_p.finished_flag = 0;
        gst_nblk_p.ret_status = ret_status;
    }
    /* The codec hands the handler a zeroed record with a 32 KiB log buffer. */
    void reset_result()
    {
        memset(&res, 0, sizeof(res));
        std::fill(act.begin(), act.end(), 0);
        res.act_log = act.data();
    }
    void poll()
    {
        reset_result();
        EXPECT_EQ(get_job_status_svc(nullptr, &res), 0);
    }
};

struct MonitorCase {
    const char* name;
    UINT64 elapsed, processed, xfer_job, est_disk, xfer_disk, processed_w;
    /* expected */
    UINT64 dt_fin;
    UINT32 tm_usd, vol_tm_usd;
    UINT64 vol_dt_all, vol_dt_fin, processed_data_w;
    UINT32 throughput_w;
};
void PrintTo(const MonitorCase& c, std::ostream* os) { *os << c.name; }

class JobStatusArithmetic : public JobStatus, public ::testing::WithParamInterface<MonitorCase> {};

TEST_P(JobStatusArithmetic, ConvertsCounters)
{
    const MonitorCase& c = GetParam();
    m->ullProcessDataElapsedTime = c.elapsed;
    m->ulRPProcessed_data = c.processed;
    m->job_monitor.ulXferBytesJob = c.xfer_job;
    m->job_monitor.ulEstBytesDisk = c.est_disk;
    m->job_monitor.ulXferBytesDisk = c.xfer_disk;
    m->processed_data_w = c.processed_w;
    poll();

    EXPECT_EQ(+res.dt_fin, c.dt_fin);
    EXPECT_EQ(+res.tm_usd, c.tm_usd);
    EXPECT_EQ(+res.vol.tm_usd, c.vol_tm_usd);
    EXPECT_EQ(+res.vol.dt_all, c.vol_dt_all);
    EXPECT_EQ(+res.vol.dt_fin, c.vol_dt_fin);
    EXPECT_EQ(+res.processed_data_w, c.processed_data_w);
    EXPECT_EQ(+res.throughput_w, c.throughput_w);
    EXPECT_EQ(+res.tm_rem, 0u);
    EXPECT_EQ(+res.vol.tm_rem, 0u);
    EXPECT_EQ(+res.dt_all, 0u);
}

INSTANTIATE_TEST_SUITE_P(Monitors, JobStatusArithmetic, ::testing::Values(
    /* 10240 KiB in 120 s: 85 KiB/s, reported per minute */
    MonitorCase{"TwoMinutesTenMiB", 120, 10 * MiB, 10 * MiB, 0, 0, 0,
                10240, 85 * 60, 85 * 60, 0, 0, 0, 0},
    MonitorCase{"DiskPercentage", 1, 0, 0, 200 * GiB, 50 * GiB, 0,
                0, 0, 0, 25, 50 * MiB, 0, 0},
    MonitorCase{"NoDiskEstimateNoDivision", 1, 0, 0, 0, 7 * GiB, 0,
                0, 0, 0, 0, 7 * MiB, 0, 0},
    /* (1023 * 60) >> 10 = 59, where shifting first would give 0 */
    MonitorCase{"ThroughputMultipliesFirst", 1, 0, 0, 0, 0, 1023,
                0, 0, 0, 0, 0, 0, 59},
    /* 1 GiB a second is 60 Mi KiB a minute */
    MonitorCase{"ThroughputPerElapsedSecond", 10, 0, 0, 0, 0, 10 * GiB,
                0, 0, 0, 0, 0, 10 * MiB, 60 * MiB},
    MonitorCase{"KiBCountsAbove32Bits", 1, 5ULL << 40, 0, 0, 0, 0,
                5ULL << 30, (UINT32)((5ULL << 30) * 60), 0, 0, 0, 0, 0},
    /* 0x100000001 KiB * 60 = 0x3c0000003c, cut to 32 bits */
    MonitorCase{"RatesCutTo32Bits", 1, 0x100000001ULL << 10, 0x100000001ULL << 10, 0, 0, 0,
                0x100000001ULL, 0x3c, 0x3c, 0, 0, 0, 0},
    MonitorCase{"ElapsedUsesLow32Bits", (1ULL << 32) + 120, 10 * MiB, 0, 0, 0, 0,
                10240, 85 * 60, 0, 0, 0, 0, 0},
    /* -1 seconds sign-extends to 2^64 - 1: every rate is 0 */
    MonitorCase{"NegativeElapsedDividesToZero", 0xffffffffULL, 10 * MiB, 10 * MiB, 0, 0, 10 * MiB,
                10240, 0, 0, 0, 0, 10240, 0}),
    [](const ::testing::TestParamInfo<MonitorCase>& i) { return std::string(i.param.name); });

TEST_F(JobStatus, CopiesStateAndStatistics)
{
    m->usJobType = 4;
    m->usJobStatus = 7;
    m->job_monitor.ulJobPhase = 9;
    m->job_monitor.ulJobStatus = 99;    /* not the one reported */
    m->ullProcessDataElapsedTime = 1;
    m->job_statistic = JOBSTAT{1, 1, 5ULL << 40, 6ULL << 33, 7ULL << 33, 12345};
    snprintf(m->job_monitor.wszDiskName, sizeof(m->job_monitor.wszDiskName), "/dev/sdb");
    poll();

    EXPECT_EQ(+res.typ, 4u);
    EXPECT_EQ(+res.sts, 7u);
    EXPECT_EQ(+res.stg, 9u);
    EXPECT_STREQ(res.vol.name, "/dev/sdb");
    EXPECT_EQ(+res.job_statistic.DedupFlag, 1);
    EXPECT_EQ(+res.job_statistic.DataIsValid, 1);
    EXPECT_EQ(+res.job_statistic.TotalDataSize, 5ULL << 40);
    EXPECT_EQ(+res.job_statistic.UniqueDataSize, 6ULL << 33);
    EXPECT_EQ(+res.job_statistic.CompressedDataSize, 7ULL << 33);
    EXPECT_EQ(+res.job_statistic.MetaDataSize, 0u) << "not transmitted, not copied";
}

TEST_F(JobStatus, ElapsedFallsBackToStartTime)
{
    m->ulRPBackupVolsStartTime = (UINT64)time(NULL) - 60;
    m->ulRPProcessed_data = 60 * MiB;   /* 61440 KiB */
    poll();
    /* 60 s, or 61 when the clock ticked in between */
    EXPECT_TRUE(res.tm_usd == 61440u / 60 * 60 || res.tm_usd == 61440u / 61 * 60) << res.tm_usd;
}

TEST_F(JobStatus, UnterminatedDiskNameIsBoundedToTheField)
{
    memset(m->job_monitor.wszDiskName, 'D', sizeof(m->job_monitor.wszDiskName));
    poll();
    EXPECT_EQ(strnlen(res.vol.name, sizeof(res.vol.name)), sizeof(res.vol.name) - 1);
    EXPECT_EQ(+res.vol.tm_usd, 0u) << "the next field is untouched";
}

TEST_F(JobStatus, DrainsActivityLogIntoOneReplyOnly)
{
    H::write_file(node.activity, "1 0 abcde\n");
    poll();
    EXPECT_EQ(+res.act_size, 11u);
    EXPECT_STREQ(res.act_log, "1 0 abcde\n");
    EXPECT_FALSE(H::exists(node.activity));
    poll();
    EXPECT_EQ(+res.act_size, 0u);
    EXPECT_STREQ(res.act_log, "");
}

TEST_F(JobStatus, LogsFailedActivityRead)
{
    mkdir(node.activity.c_str(), 0755);   /* cannot be opened for writing */
    poll();
    rmdir(node.activity.c_str());
    EXPECT_EQ(+res.act_size, 0u);
    EXPECT_EQ(log_count(node.log(), "ea_svc", 460,
                        "get_job_status_svc: Failed to read activity log from file: " +
                        node.activity_as_logged() + ", rc=-1."), 1);
}

TEST_F(JobStatus, WithoutLogBufferEventsStayForNextPoll)
{
    H::write_file(node.activity, "1 0 later\n");
    memset(&res, 0, sizeof(res));
    EXPECT_EQ(get_job_status_svc(nullptr, &res), 0);
    EXPECT_EQ(+res.act_size, 0u);
    EXPECT_TRUE(H::exists(node.activity));
}

struct EndedCase {
    const char* name;
    int ret_status;
    UINT32 stg;
};
void PrintTo(const EndedCase& c, std::ostream* os) { *os << c.name; }

class JobStatusEnded : public JobStatus, public ::testing::WithParamInterface<EndedCase> {};

TEST_P(JobStatusEnded, AnswersFromExitStatusWithoutTouchingMonitor)
{
    m->usJobStatus = 1;
    H::write_file(node.activity, "1 0 for later\n");
    track(0, GetParam().ret_status);
    poll();
    EXPECT_EQ(+res.sts, 10u);
    EXPECT_EQ(+res.stg, GetParam().stg);
    EXPECT_EQ(+res.act_size, 0u);
    EXPECT_TRUE(H::exists(node.activity));
}

INSTANTIATE_TEST_SUITE_P(Exits, JobStatusEnded, ::testing::Values(
    EndedCase{"NeverStartedOrSucceeded", 0, 1},
    EndedCase{"FailedWithCode2", 2, 3},
    EndedCase{"KilledBySignal9", 9, 3}),
    [](const ::testing::TestParamInfo<EndedCase>& i) { return std::string(i.param.name); });

TEST_F(JobStatus, StopsWaitingForMonitorWhenProgramEnds)
{
    DetachSHM(m);
    m = nullptr;
    remove_segment();
    /* The agent's own reaper marks the program finished when it exits. */
    struct sigaction sa, old;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = signal_child;
    sigaction(SIGCHLD, &sa, &old);
    pid_t prog = fork();
    if (prog == 0) {
        sleep(2);
        _exit(0);
    }
    ASSERT_GT(prog, 0);
    track(prog, 0);

    time_t t0 = time(NULL);
    poll();
    time_t took = time(NULL) - t0;
    sigaction(SIGCHLD, &old, nullptr);
    EXPECT_GE(took, 1);
    EXPECT_LE(took, 6);
    EXPECT_EQ(+res.sts, 10u);
    EXPECT_EQ(+res.stg, 1u);
}

} // namespace
