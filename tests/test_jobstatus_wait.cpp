/*
 * A backup program that never publishes its monitor: the job status request
 * blocks for the 60 seconds the agent grants a starting program, then
 * reports a failed stage.
 */
#include <time.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "test_jobdata_agent.h"

namespace {

/* Fields of the packed records are compared by value (unary +): a reference
 * to one may be misaligned. */

TEST(JobAgentSlow, WaitsSixtySecondsForMissingMonitor)
{
    AgentHarness h;
    h.install_simulator();
    h.add_stub("driverinstall");
    ASSERT_TRUE(h.start());
    /* Outlives the wait by a few seconds, then ends by itself. */
    ASSERT_EQ(start_background(h, "kvxbackupvol --no-shm --seconds 66"), 0);

    time_t t0 = time(NULL);
    StatusReply st = poll_status(h, 90000);
    time_t took = time(NULL) - t0;
    ASSERT_EQ(st.rc, 0);
    EXPECT_GE(took, 59);
    EXPECT_LE(took, 75);
    EXPECT_EQ(+st.res.sts, 10u);
    EXPECT_EQ(+st.res.stg, 3u);
    EXPECT_NE(h.log().find("get_job_status_svc: Attach shm failed!"), std::string::npos);

    /* The next request waits only until the program ends by itself. */
    st = poll_status(h, 90000);
    ASSERT_EQ(st.rc, 0);
    EXPECT_EQ(+st.res.sts, 10u);
    EXPECT_EQ(+st.res.stg, 1u);
    EXPECT_LE(time(NULL) - t0, 85);
}

} // namespace
