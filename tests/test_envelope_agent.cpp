/* The client endpoint against the real agent: the raw reply record, then
 * calls in a row, each skipping the empty line that ends the last reply. */
#include <gtest/gtest.h>
#include <string.h>
#include <string>
#include "agent_harness.h"

namespace {

/* "<call result>:<text echoed in the reply>" */
std::string ping(AgentHarness& h, const char* text, bool discard = false)
{
    PINGargs a = {(int)strlen(text) + 1, (char*)text, discard};
    char buf[EA_PING_MSG_SIZE] = {0};
    PINGres r = {0, (int)sizeof(buf), buf};
    int rc = h.call(EA_PROC_PING, JXDR_PROC(PINGargs, jxdr_PINGargs), (char*)&a,
                    JXDR_PROC(PINGres, jxdr_PINGres), (char*)&r);
    return std::to_string(rc) + ":" + buf;
}

} // namespace

TEST(AgentEndpoint, RawRecordThenCallsInARow)
{
    AgentHarness h;
    ASSERT_TRUE(h.start());
    h.send_raw("{\"ver\": 1, \"type\": 1, \"seq\": 41, \"fn\": 1, \"status\": 0, "
               "\"param\": {\"str\": \"raw\"}}");
    std::string first, second;
    ASSERT_TRUE(h.read_raw(first, 10000));
    ASSERT_TRUE(h.read_raw(second, 10000));
    EXPECT_EQ(first.find("{\"ver\": 1, \"type\": 2, \"seq\": 41, \"fn\": 1, \"status\": 0, "
                         "\"param\": {\"str\": \"raw\", \"sp\": "), 0u) << first;
    EXPECT_EQ(first.substr(first.size() - 3), std::string("}\0\n", 3));
    EXPECT_EQ(second, "\n");

    EXPECT_EQ(ping(h, "one"), "0:one");
    EXPECT_EQ(ping(h, "two \xc3\xa9"), "0:two \xc3\xa9");
    EXPECT_EQ(ping(h, "marker", true), "0:") << "a discarded ping's reply is not decoded";
    EXPECT_EQ(ping(h, "after"), "0:after");
    h.close_input();
    EXPECT_EQ(h.wait_exit(20), 0);
}
