/*
 * The activity log on real files: draining (cut, empty and remove), the
 * locked writers, moving events between logs, the event parser, the machine
 * check report reader and the activity log procedure's handler.
 */
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ea_svc.h"
#include "test_jobdata_node.h"

namespace {

using H = AgentHarness;

/* n bytes of printable text in lines of 80. */
std::string filler(size_t n)
{
    std::string s(n, 'x');
    for (size_t i = 0; i < n; i++)
        s[i] = (i % 80 == 79) ? '\n' : (char)('a' + i % 26);
    return s;
}

struct Drained {
    int rc = -100;
    int size = -1;
    std::string text;
};

Drained drain(const std::string& path)
{
    Drained d;
    char* text = nullptr;
    d.rc = read_activity_log_file(path.c_str(), &text, &d.size);
    if (text)
        d.text.assign(text);
    free(text);
    return d;
}

using ActivityLog = JobDataTest;

struct DrainCase {
    const char* name;
    long bytes;        /* -1: no file */
    int rc, size;
    size_t text_len;
};
void PrintTo(const DrainCase& c, std::ostream* os) { *os << c.name; }

class ActivityDrain : public ActivityLog, public ::testing::WithParamInterface<DrainCase> {};

TEST_P(ActivityDrain, ReturnsBoundedTextAndRemovesFile)
{
    const DrainCase& c = GetParam();
    std::string content = c.bytes >= 0 ? filler(c.bytes) : "";
    if (c.bytes >= 0)
        H::write_file(node.activity, content);

    Drained d = drain(node.activity);
    EXPECT_EQ(d.rc, c.rc);
    if (c.bytes >= 0) {
        EXPECT_EQ(d.size, c.size);
        EXPECT_EQ(d.text, content.substr(0, c.text_len));
    }
    EXPECT_FALSE(H::exists(node.activity));
    EXPECT_EQ(drain(node.activity).rc, 0) << "a second read finds nothing";
}

INSTANTIATE_TEST_SUITE_P(Sizes, ActivityDrain, ::testing::Values(
    DrainCase{"Missing", -1, 0, 0, 0},
    DrainCase{"Empty", 0, 0, 1, 0},
    DrainCase{"TenBytes", 10, 10, 11, 10},
    DrainCase{"JustFits", 32767, 32767, 32768, 32767},
    DrainCase{"CutAtLimit", 40000, 32768, 32768, 32767}),
    [](const ::testing::TestParamInfo<DrainCase>& i) { return std::string(i.param.name); });

TEST_F(ActivityLog, DrainRejectsNullOutputs)
{
    char* text = nullptr;
    int size = 0;
    H::write_file(node.activity, "1 0 kept\n");
    EXPECT_EQ(read_activity_log_file(node.activity.c_str(), nullptr, &size), -1);
    EXPECT_EQ(read_activity_log_file(node.activity.c_str(), &text, nullptr), -1);
    EXPECT_EQ(read_activity_log_file(nullptr, &text, &size), -1);
    EXPECT_TRUE(H::exists(node.activity));
}

TEST_F(ActivityLog, WritersAppendEventLines)
{
    std::string longmsg(2000, 'm');
    EXPECT_EQ(write_activity_log_file2(node.activity.c_str(), 1, 123, "you run into a info."), 0);
    EXPECT_EQ(write_activity_log_file(node.activity.c_str(), "1 0 are you run into an error."), 0);
    EXPECT_EQ(write_activity_log_file2(node.activity.c_str(), 2, -5, longmsg.c_str()), 0);

    std::string expect_long = ("2 -5 " + longmsg).substr(0, 1122);
    EXPECT_EQ(H::read_file(node.activity),
              "1 123 you run into a info.\n1 0 are you run into an error.\n" + expect_long + "\n");
}

TEST_F(ActivityLog, SelfTestLinesReadBackAsThreeEvents)
{
    write_activity_log_file2(node.activity.c_str(), 1, 123, "you run into a info.");
    write_activity_log_file2(node.activity.c_str(), 1, 0, "are you run into an error.");
    write_activity_log_file2(node.activity.c_str(), 1, 234, "aa you run into a waring.");
    Drained d = drain(node.activity);
    ASSERT_GT(d.rc, 0);

    AgentActivityLogStruc ev[3];
    int count = 3;
    ASSERT_EQ(read_activity_log(d.text.c_str(), d.rc, ev, &count), 3);
    EXPECT_EQ(count, 3);
    EXPECT_EQ(ev[0].errorCode, 123u);
    EXPECT_STREQ(ev[1].message, "are you run into an error.");
    EXPECT_EQ(ev[2].errorCode, 234u);
    EXPECT_STREQ(ev[2].message, "aa you run into a waring.");
}

TEST_F(ActivityLog, ConcurrentWritersAndReaderLoseAndTearNothing)
{
    const int writers = 3, lines = 20;
    std::vector<pid_t> kids;
    for (int w = 0; w < writers; w++) {
        pid_t pid = fork();
        if (pid == 0) {
            for (int i = 0; i < lines; i++) {
                char msg[64];
                snprintf(msg, sizeof(msg), "writer %d line %d", w, i);
                if (write_activity_log_file2(JobDataNode::get().activity.c_str(), w + 1, i, msg) != 0)
                    _exit(1);
                usleep(2000);
            }
            _exit(0);
        }
        kids.push_back(pid);
    }
    std::string all;
    int running = writers;
    while (running > 0) {
        Drained d = drain(node.activity);
        ASSERT_GE(d.rc, 0);
        all += d.text;
        usleep(5000);
        for (pid_t& k : kids) {
            int st;
            if (k > 0 && waitpid(k, &st, WNOHANG) == k) {
                EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0);
                k = 0;
                running--;
            }
        }
    }
    all += drain(node.activity).text;

    int count = 0;
    EXPECT_EQ(read_activity_log(all.c_str(), (int)all.size(), nullptr, &count), writers * lines);
    EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), writers * lines);
}

TEST_F(ActivityLog, UpdateMovesEventsToTheOtherLog)
{
    std::string to = node.logs + "/merged.log";
    H::write_file(to, "1 0 older\n");
    H::write_file(node.activity, "1 7 newer\n");

    EXPECT_EQ(update_activity_log_file(node.activity.c_str(), to.c_str()), 0);
    EXPECT_FALSE(H::exists(node.activity));
    /* The drained text keeps its newline and the writer adds one. */
    EXPECT_EQ(H::read_file(to), "1 0 older\n1 7 newer\n\n");

    EXPECT_EQ(update_activity_log_file(node.activity.c_str(), to.c_str()), 0) << "nothing to move";
    unlink(to.c_str());
}

TEST_F(ActivityLog, UpdateRejectsNullArguments)
{
    EXPECT_EQ(update_activity_log_file(nullptr, node.activity.c_str()), -1);
    EXPECT_EQ(update_activity_log_file(node.activity.c_str(), nullptr), -1);
    EXPECT_EQ(log_count(node.log(), "agentactivitylog", 190,
                        "update_activity_log_file: Invalid parameters."), 2);
}

/* ---- the machine check report reader ---- */

TEST_F(ActivityLog, CheckmachineReportBelowLimitIsDrained)
{
    std::string path = node.work + "/.checkmachinetxt";
    std::string content = filler(204798);
    H::write_file(path, content);
    char* buf = nullptr;
    int len = 0;
    EXPECT_EQ(read_checkmachine_file(path.c_str(), &buf, &len), 204798);
    EXPECT_EQ(len, 204799);
    ASSERT_NE(buf, nullptr);
    EXPECT_EQ(std::string(buf), content);
    free(buf);
    EXPECT_FALSE(H::exists(path));
    EXPECT_EQ(read_checkmachine_file(path.c_str(), &buf, &len), 0);
}

TEST_F(ActivityLog, CheckmachineReportAtLimitIsRefusedAndKept)
{
    std::string path = node.work + "/.checkmachinetxt";
    H::write_file(path, filler(204799));
    char* buf = nullptr;
    int len = 0;
    EXPECT_EQ(read_checkmachine_file(path.c_str(), &buf, &len), -2);
    EXPECT_EQ(buf, nullptr);
    EXPECT_TRUE(H::exists(path));
    EXPECT_NE(node.log().find("read_checkmachine_file: checkmachine output is too big(204800.)"),
              std::string::npos);
    EXPECT_EQ(read_checkmachine_file(path.c_str(), nullptr, &len), -1);
    unlink(path.c_str());
}

/* ---- the procedure handler ---- */

TEST_F(ActivityLog, HandlerDeliversEachEventOnce)
{
    std::vector<char> buf(EA_ACT_LOG_SIZE, 'z');
    AGENTLOGres res = {-1, buf.data()};
    H::write_file(node.activity, "1 0 abcde\n");  /* 10 bytes */

    EXPECT_EQ(get_agent_activity_log_svc(nullptr, &res), 0);
    EXPECT_EQ(res.logSize, 11);
    EXPECT_STREQ(res.pLog, "1 0 abcde\n");
    EXPECT_FALSE(H::exists(node.activity));

    EXPECT_EQ(get_agent_activity_log_svc(nullptr, &res), 0);
    EXPECT_EQ(res.logSize, 0);
    EXPECT_STREQ(res.pLog, "");
    EXPECT_FALSE(H::exists(node.activity)) << "no file is created";
}

TEST_F(ActivityLog, HandlerLogsFailedRead)
{
    std::vector<char> buf(EA_ACT_LOG_SIZE, 0);
    AGENTLOGres res = {-1, buf.data()};
    mkdir(node.activity.c_str(), 0755);   /* cannot be opened for writing */
    EXPECT_EQ(get_agent_activity_log_svc(nullptr, &res), 0);
    rmdir(node.activity.c_str());
    EXPECT_EQ(res.logSize, 0);
    EXPECT_EQ(log_count(node.log(), "ea_svc", 485,
                        "get_agent_activity_log_svc: Failed to read activity log from file: " +
                        node.activity_as_logged() + ", rc=-1."), 1);
}

TEST_F(ActivityLog, HandlersAcceptMissingRecords)
{
    H::write_file(node.activity, "1 0 stays\n");
    AGENTLOGres nobuf = {-1, nullptr};
    EXPECT_EQ(get_agent_activity_log_svc(nullptr, nullptr), 0);
    EXPECT_EQ(get_agent_activity_log_svc(nullptr, &nobuf), 0);
    EXPECT_EQ(nobuf.logSize, 0);
    EXPECT_TRUE(H::exists(node.activity)) << "events stay for a fetch that can take them";
    EXPECT_EQ(get_job_result_svc(nullptr, nullptr), -1);
    EXPECT_EQ(get_job_status_svc(nullptr, nullptr), 0);
}

} // namespace
