/*
 * The job result file: the 105-byte record written by a backup program and
 * consumed by the agent's job result procedure.
 */
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "ea_svc.h"
#include "test_jobdata_node.h"

namespace {

/* Fields of the packed records are compared by value (unary +): a reference
 * to one may be misaligned. */

using H = AgentHarness;

JOB_RESULT sample(UINT64 base)
{
    JOB_RESULT r;
    memset(&r, 0, sizeof(r));
    r.processed_data_read = base + 1;           /* above 2^32 */
    r.throughput_read = 3000;
    r.processed_data_write = base + 2;
    r.throughput_write = 0xfffffffeu;
    r.recovery_count = 7;
    r.protected_data = base + 3;
    snprintf(r.sessionNo, sizeof(r.sessionNo), "S%llu", (unsigned long long)base);
    snprintf(r.sessionGuid, sizeof(r.sessionGuid), "0f0e0d0c-0b0a-4908-8706-050403020100");
    return r;
}

bool is_zero(const JOB_RESULT& r)
{
    static const JOB_RESULT zero = {};
    return memcmp(&r, &zero, sizeof(r)) == 0;
}

using JobResult = JobDataTest;

TEST_F(JobResult, RoundTripKeeps64BitValuesAndRemovesFile)
{
    JOB_RESULT out = sample(5ULL << 40), in;
    ASSERT_EQ(create_job_result(node.jobres.c_str(), &out), 0);
    struct stat st;
    ASSERT_EQ(stat(node.jobres.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 105);

    memset(&in, 0x77, sizeof(in));
    EXPECT_EQ(read_job_result(node.jobres.c_str(), &in), 0);
    EXPECT_EQ(memcmp(&in, &out, sizeof(in)), 0);
    EXPECT_EQ(+in.processed_data_read, (5ULL << 40) + 1);
    EXPECT_FALSE(H::exists(node.jobres));
}

TEST_F(JobResult, UnreadOlderResultIsTheOneDelivered)
{
    JOB_RESULT older = sample(1ULL << 33), newer = sample(1ULL << 34), in = {};
    ASSERT_EQ(create_job_result(node.jobres.c_str(), &older), 0);
    ASSERT_EQ(create_job_result(node.jobres.c_str(), &newer), 0);
    EXPECT_EQ(read_job_result(node.jobres.c_str(), &in), 0);
    EXPECT_EQ(+in.processed_data_read, +older.processed_data_read);
    EXPECT_STREQ(in.sessionNo, older.sessionNo);
    EXPECT_FALSE(H::exists(node.jobres)) << "the newer one goes with the file";
}

TEST_F(JobResult, ShortFileIsLoggedDeletedAndYieldsNothing)
{
    H::write_file(node.jobres, std::string(50, '\x41'));
    JOB_RESULT in = {};
    EXPECT_EQ(read_job_result(node.jobres.c_str(), &in), -1);
    EXPECT_TRUE(is_zero(in));
    EXPECT_FALSE(H::exists(node.jobres));
    EXPECT_EQ(log_count(node.log(), "zelfunc", 2362,
                        "read_job_result: readn(" + node.jobres +
                        ") return:50, not equal expected:105."), 1);
}

TEST_F(JobResult, MissingFileIsLoggedAndLeavesRecordZero)
{
    JOB_RESULT in = {};
    EXPECT_EQ(read_job_result(node.jobres.c_str(), &in), 0);
    EXPECT_TRUE(is_zero(in));
    EXPECT_EQ(log_count(node.log(), "zelfunc", 2345,
                        "read_job_result: file(" + node.jobres + ") is not exist."), 1);
}

TEST_F(JobResult, UnterminatedTextsComeBackTerminated)
{
    std::string raw(105, 'S');
    H::write_file(node.jobres, raw);
    JOB_RESULT in = {};
    EXPECT_EQ(read_job_result(node.jobres.c_str(), &in), 0);
    EXPECT_EQ(strlen(in.sessionNo), 31u);
    EXPECT_EQ(strlen(in.sessionGuid), 36u);
}

TEST_F(JobResult, UnwritableLocationIsLogged)
{
    std::string path = node.work + "/nowhere/linuxkvxjobres";
    JOB_RESULT out = sample(1);
    EXPECT_EQ(create_job_result(path.c_str(), &out), -1);
    EXPECT_EQ(log_count(node.log(), "zelfunc", 2328,
                        "create_job_result: open(" + path + ") failed: No such file or directory[2]."),
              1);
}

TEST_F(JobResult, HandlerReadsFromWorkDirectory)
{
    JOB_RESULT out = sample(3ULL << 35), res;
    ASSERT_EQ(create_job_result(node.jobres.c_str(), &out), 0);
    memset(&res, 0x55, sizeof(res));
    EXPECT_EQ(get_job_result_svc(nullptr, &res), 0);
    EXPECT_EQ(memcmp(&res, &out, sizeof(res)), 0);

    memset(&res, 0x55, sizeof(res));
    EXPECT_EQ(get_job_result_svc(nullptr, &res), 0) << "no file: zeros";
    EXPECT_TRUE(is_zero(res));

    H::write_file(node.jobres, std::string(50, '\x41'));
    memset(&res, 0x55, sizeof(res));
    EXPECT_EQ(get_job_result_svc(nullptr, &res), -1);
    EXPECT_TRUE(is_zero(res));
}

} // namespace
