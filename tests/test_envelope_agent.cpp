/*
 * The client half of the protocol against the real agent: repeated calls,
 * the reply record's bytes, and the discarded ping.
 */
#include <gtest/gtest.h>
#include <string.h>
#include <time.h>
#include <string>
#include "agent_harness.h"
#include "ea_proto.h"
#include "jxdr.h"

namespace {

class AgentEndpoint : public ::testing::Test {
protected:
    AgentHarness h;

    void SetUp() override { ASSERT_TRUE(h.start()); }

    int ping(const char* text, std::string& echoed, int32_t& stamp, bool discard = false)
    {
        PINGargs a = {(int)strlen(text) + 1, (char*)text, discard};
        char buf[EA_PING_MSG_SIZE] = {0};
        PINGres r = {0, (int)sizeof(buf), buf};
        int rc = h.call(EA_PROC_PING, JXDR_PROC(PINGargs, jxdr_PINGargs), (char*)&a,
                        JXDR_PROC(PINGres, jxdr_PINGres), (char*)&r);
        echoed = buf;
        stamp = r.stamp;
        return rc;
    }
};

} // namespace

TEST_F(AgentEndpoint, ConsecutiveCallsAllGetTheirReply)
{
    const char* texts[] = {"one", "two \xc3\xa9", "", "four"};
    for (const char* t : texts) {
        SCOPED_TRACE(t);
        std::string echoed;
        int32_t stamp = 0;
        ASSERT_EQ(ping(t, echoed, stamp), 0);
        EXPECT_EQ(echoed, t);
        EXPECT_LE(labs((long)stamp - (long)time(NULL)), 5);
    }
    h.close_input();
    EXPECT_EQ(h.wait_exit(20), 0);
}

TEST_F(AgentEndpoint, DiscardedPingThenNormalCall)
{
    std::string echoed;
    int32_t stamp = 0;
    EXPECT_EQ(ping("marker-1", echoed, stamp, true), 0);
    EXPECT_EQ(echoed, "");
    EXPECT_EQ(ping("after", echoed, stamp), 0);
    EXPECT_EQ(echoed, "after");
}

TEST_F(AgentEndpoint, ReplyRecordIsJsonNulAndEmptyLine)
{
    h.send_raw("{\"ver\": 1, \"type\": 1, \"seq\": 41, \"fn\": 1, \"status\": 0, "
               "\"param\": {\"str\": \"raw\"}}");
    std::string first, second;
    ASSERT_TRUE(h.read_raw(first, 10000));
    ASSERT_TRUE(h.read_raw(second, 10000));
    ASSERT_GE(first.size(), 3u);
    EXPECT_EQ(first.substr(first.size() - 2), std::string("\0\n", 2));
    EXPECT_EQ(second, "\n");

    std::string json = first.substr(0, first.size() - 2);
    EXPECT_EQ(json.find("{\"ver\": 1, \"type\": 2, \"seq\": 41, \"fn\": 1, \"status\": 0, "
                        "\"param\": {\"str\": \"raw\", \"sp\": "), 0u) << json;
    JXDR* x = jxdr_create((char*)json.c_str());
    ASSERT_NE(x, nullptr);
    EXPECT_EQ(x->x_hr.type, JXDR_TYPE_REPLY);
    jxdr_destroy(x);
}
