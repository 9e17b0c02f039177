/* The activity log parser, and job status over a monitor crafted in the real
 * segment (key 0xAC23E27E) with this process as the tracked program. */
#include <gtest/gtest.h>

#include "ea_svc.h"
#include "test_runtime_support.h"
#include "zelutil.h"

namespace {

const UINT64 MiB = 1ULL << 20, GiB = 1ULL << 30;

struct ParseCase {
    std::string text;
    int events;          /* -1: more than the 2 places given */
    std::string first;   /* "type code message" of the first event */
};

TEST(ActivityLog, ParserKeepsOnlyWellFormedLines)
{
    AgentHarness tmp;   /* for its temporary tree */
    ZELInitLogger((tmp.root + "/test.log").c_str(), 3);
    const ParseCase cases[] = {
        {"1 123 you run into a info.\n", 1, "1 123 you run into a info."},
        {"2 -7 negative\n", 1, "2 4294967289 negative"},
        {"4 00 a  b c \n", 1, "4 0 a  b c "},
        {"0 5 type zero\n", 0, ""}, {"x 5 type not a number\n", 0, ""},
        {"1 x code not a number\n", 0, ""}, {"1 5 \n", 0, ""}, {"1 5\n", 0, ""},
        {"1  5 double blank\n", 0, ""}, {"\n", 0, ""},
        {"1 2 first\n1 3 unterminated", 1, "1 2 first"},
        {"0 1 a\n7 8 b\n1 x c\n", 1, "7 8 b"},
        {"1 1 " + std::string(1500, 'q') + "\n", 1, "1 1 " + std::string(1023, 'q')},
        {"1 1 a\n2 2 b\n3 3 c\n", -1, ""},
    };
    for (const ParseCase& c : cases) {
        SCOPED_TRACE(c.text.substr(0, 40));
        AgentActivityLogStruc ev[2];
        int count = 2;
        EXPECT_EQ(c.events, read_activity_log(c.text.c_str(), (int)c.text.size(), ev, &count));
        std::string first = std::to_string(ev[0].type) + " " + std::to_string(ev[0].errorCode);
        EXPECT_EQ(c.first, c.events == 1 ? first + " " + ev[0].message : c.first);
    }
    EXPECT_EQ(1, log_count(AgentHarness::read_file(tmp.root + "/test.log"), "agentactivitylog", 60,
                           "read_activity_log: pLogSize is too small (logSize=2)."));
}

/* in: elapsed s, processed, job sent, disk estimate, disk sent, written (bytes);
 * out: dt_fin, tm_usd, vol.tm_usd, vol.dt_all, vol.dt_fin, processed_data_w, throughput_w */
struct MonitorCase {
    const char* name;
    UINT64 in[6];
    std::vector<UINT64> out;
};

const MonitorCase kMonitors[] = {
    /* 10240 KiB in 120 s: 85 KiB/s, reported per minute */
    {"TenMiBInTwoMinutes", {120, 10 * MiB, 10 * MiB, 0, 0, 10 * MiB}, {10240, 5100, 5100, 0, 0, 10240, 5120}},
    {"DiskPercentage", {1, 0, 0, 200 * GiB, 50 * GiB, 0}, {0, 0, 0, 25, 50 * MiB, 0, 0}},
    {"NoDiskEstimateNoDivision", {1, 0, 0, 0, 7 * GiB, 0}, {0, 0, 0, 0, 7 * MiB, 0, 0}},
    /* (1023 * 60) >> 10 = 59, where shifting first would give 0 */
    {"ThroughputMultipliesFirst", {1, 0, 0, 0, 0, 1023}, {0, 0, 0, 0, 0, 0, 59}},
    /* 0x100000001 KiB * 60 = 0x3c0000003c, cut to 32 bits */
    {"RatesCutTo32Bits", {1, 0x100000001ULL << 10, 0x100000001ULL << 10, 0, 0, 0},
     {0x100000001ULL, 0x3c, 0x3c, 0, 0, 0, 0}},
    /* a 5 TiB job after an hour: KiB counts above 2^32 arrive whole */
    {"FiveTiBInAnHour", {3600, 5ULL << 40, 5ULL << 40, 8ULL << 40, 5ULL << 40, 5ULL << 39},
     {5ULL << 30, 89478480, 89478480, 62, 5ULL << 30, 5ULL << 29, 44739242}},
    {"ElapsedUsesLow32Bits", {(1ULL << 32) + 120, 10 * MiB, 0, 0, 0, 0}, {10240, 5100, 0, 0, 0, 0, 0}},
    /* -1 seconds sign-extends to 2^64 - 1: every rate is 0 */
    {"NegativeElapsedDividesToZero", {0xffffffffULL, 10 * MiB, 10 * MiB, 0, 0, 10 * MiB},
     {10240, 0, 0, 0, 0, 10240, 0}},
};

TEST(JobStatus, ConvertsMonitorCounters)
{
    ZELInitLogger("/dev/null", 3);
    int shmid = CreateSHM(KVX_MONITOR_SIZE);
    ASSERT_GE(shmid, 0);
    RECOVERYPOINT_MONITOR* m = (RECOVERYPOINT_MONITOR*)AttachSHM(KVX_MONITOR_SIZE, shmid);
    ASSERT_NE(nullptr, m);
    gst_nblk_p = {getpid(), 0, 0};
    for (const MonitorCase& c : kMonitors) {
        SCOPED_TRACE(c.name);
        memset(m, 0, sizeof(*m));
        m->usJobType = 4;
        m->usJobStatus = 7;
        m->job_monitor.ulJobPhase = 9;
        memset(m->job_monitor.wszDiskName, 'D', sizeof(m->job_monitor.wszDiskName));
        m->ullProcessDataElapsedTime = c.in[0];
        m->ulRPProcessed_data = c.in[1];
        m->job_monitor.ulXferBytesJob = c.in[2];
        m->job_monitor.ulEstBytesDisk = c.in[3];
        m->job_monitor.ulXferBytesDisk = c.in[4];
        m->processed_data_w = c.in[5];
        JOB_STATUS r = {};
        EXPECT_EQ(0, get_job_status_svc(nullptr, &r));
        EXPECT_EQ(c.out, (std::vector<UINT64>{r.dt_fin, r.tm_usd, r.vol.tm_usd, r.vol.dt_all,
                                               r.vol.dt_fin, r.processed_data_w, r.throughput_w}));
        EXPECT_EQ("4 7 9", std::to_string(r.typ) + " " + std::to_string(r.sts) + " " + std::to_string(r.stg));
        EXPECT_EQ(std::string(sizeof(r.vol.name), 'D'), std::string(r.vol.name, strnlen(r.vol.name, 255)))
            << "all 255 bytes, no more";
    }
    gst_nblk_p = {0, 0, 0};
    DetachSHM(m);
    DelSHM(shmid);
}

} // namespace
