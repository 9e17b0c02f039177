// The agent log under floods of lines that are no request: identical lines
// end in a count, distinct ones are trimmed while the agent serves.
#include "svc_logcap.h"
#include "test_exec_cmd_client.h"

namespace {

TEST(StreamSlow, LogStaysBoundedUnderFloods)
{
    AgentHarness h;
    ASSERT_TRUE(h.start());
    const int kEmpty = 1 << 20, kDistinct = 100000;
    h.send_raw(std::string(kEmpty, '\n') + request_line(1, 99, ""));
    ASSERT_TRUE(rpc(h, 1, "{\"str\": \"a\"}"));
    std::string log = h.log();
    EXPECT_LT(log.size(), 64u << 10);
    EXPECT_EQ(1, log_count(log, "svc_main", 378, "last message repeated " + std::to_string(kEmpty - 32) + " times"));

    std::string flood;
    for (int i = 0; i < kDistinct; i++)
        flood += request_line(i, 1000 + i, "") + "\n";
    h.send_raw(flood, false);
    ASSERT_TRUE(rpc(h, 1, "{\"str\": \"b\"}"));
    log = h.log();
    EXPECT_LT(log.size(), 2500000u + SVC_LOG_SLACK) << "20000 lines and the slack at most";
    EXPECT_EQ(1, log_count(log, "svc_main", 429, "Unkown function call:" + std::to_string(999 + kDistinct)));
}

} // namespace
