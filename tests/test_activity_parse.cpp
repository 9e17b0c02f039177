/*
 * The activity log parser: which lines are events, what an event holds, the
 * counting pass and the capacity of the caller's array.
 */
#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "test_jobdata_node.h"

namespace {

struct ParseCase {
    const char* name;
    std::string text;
    int events;
    UINT32 type, code;       /* of the first event, when there is one */
    std::string message;
};
void PrintTo(const ParseCase& c, std::ostream* os) { *os << c.name; }

class ActivityParse : public ::testing::TestWithParam<ParseCase> {};

TEST_P(ActivityParse, KeepsOnlyWellFormedLines)
{
    const ParseCase& c = GetParam();
    std::vector<AgentActivityLogStruc> ev(4);
    int count = (int)ev.size();

    EXPECT_EQ(read_activity_log(c.text.c_str(), (int)c.text.size(), ev.data(), &count), c.events);
    EXPECT_EQ(count, c.events);
    if (c.events > 0) {
        EXPECT_EQ(ev[0].type, c.type);
        EXPECT_EQ(ev[0].errorCode, c.code);
        EXPECT_EQ(std::string(ev[0].message), c.message);
    }
}

INSTANTIATE_TEST_SUITE_P(Lines, ActivityParse, ::testing::Values(
    ParseCase{"Plain", "1 123 you run into a info.\n", 1, 1, 123, "you run into a info."},
    ParseCase{"CodeZeroKept", "3 0 done\n", 1, 3, 0, "done"},
    ParseCase{"CodeZeroPaddedKept", "3 00 done\n", 1, 3, 0, "done"},
    ParseCase{"NegativeCodeKept", "2 -7 neg\n", 1, 2, (UINT32)-7, "neg"},
    ParseCase{"BlanksInMessageKept", "4 5 a  b c \n", 1, 4, 5, "a  b c "},
    ParseCase{"TypeZeroSkipped", "0 5 msg\n", 0, 0, 0, ""},
    ParseCase{"TypeNotNumberSkipped", "x 5 msg\n", 0, 0, 0, ""},
    ParseCase{"CodeNotNumberSkipped", "1 x msg\n", 0, 0, 0, ""},
    ParseCase{"EmptyMessageSkipped", "1 5 \n", 0, 0, 0, ""},
    ParseCase{"NoMessageSkipped", "1 5\n", 0, 0, 0, ""},
    ParseCase{"DoubleBlankLeavesNoCode", "1  5 msg\n", 0, 0, 0, ""},
    ParseCase{"EmptyLineSkipped", "\n", 0, 0, 0, ""},
    ParseCase{"UnterminatedLastLineIgnored", "1 2 first\n1 3 second", 1, 1, 2, "first"},
    ParseCase{"BadLinesBetweenGoodOnes", "0 1 a\n7 8 b\n1 x c\n", 1, 7, 8, "b"},
    ParseCase{"LongMessageCut", "1 1 " + std::string(1500, 'q') + "\n", 1, 1, 1,
              std::string(1023, 'q')}),
    [](const ::testing::TestParamInfo<ParseCase>& i) { return std::string(i.param.name); });

const std::string kThree = "1 1 a\nbad line\n2 2 b\n3 3 c\n";

TEST(ActivityParseCalls, CountOnlyPassSizesTheArray)
{
    int count = -1;
    EXPECT_EQ(read_activity_log(kThree.c_str(), (int)kThree.size(), nullptr, &count), 3);
    EXPECT_EQ(count, 3);
    EXPECT_EQ(read_activity_log(kThree.c_str(), (int)kThree.size(), nullptr, nullptr), 3);
}

TEST(ActivityParseCalls, ReadsOnlyLengthBytes)
{
    int count = 0;
    EXPECT_EQ(read_activity_log(kThree.c_str(), 6, nullptr, &count), 1);
}

TEST(ActivityParseCalls, EmptyInputIsZero)
{
    int count = 9;
    EXPECT_EQ(read_activity_log(nullptr, 10, nullptr, &count), 0);
    EXPECT_EQ(read_activity_log("1 1 a\n", 0, nullptr, &count), 0);
    EXPECT_EQ(count, 9) << "untouched";
}

TEST(ActivityParseCalls, FullArrayFailsAndIsLogged)
{
    JobDataNode& node = JobDataNode::get();
    AgentActivityLogStruc ev[2];
    int count = 2;
    EXPECT_EQ(read_activity_log(kThree.c_str(), (int)kThree.size(), ev, &count), -1);
    EXPECT_EQ(log_count(node.log(), "agentactivitylog", 60,
                        "read_activity_log: pLogSize is too small (logSize=2)."), 1);
}

TEST(ActivityParseCalls, ClearsTheWholeArrayFirst)
{
    AgentActivityLogStruc ev[3];
    memset(ev, 0x5a, sizeof(ev));
    int count = 3;
    EXPECT_EQ(read_activity_log("9 9 only\n", 9, ev, &count), 1);
    EXPECT_EQ(ev[0].type, 9u);
    EXPECT_EQ(ev[1].type, 0u);
    EXPECT_EQ(ev[2].message[0], '\0');
}

} // namespace
