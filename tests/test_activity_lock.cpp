/*
 * The activity log's lock: a reader or writer that meets a file locked by
 * another process retries once a second and gives up after 6 attempts,
 * leaving the file as it was.  Each refusal takes about 6 seconds.
 */
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ea_svc.h"
#include "test_jobdata_node.h"

namespace {

using H = AgentHarness;

double now_s()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

/* A process holding a lockf lock for some seconds on a file it fills with content. */
class Locker {
public:
    Locker(const std::string& path, const std::string& content, int seconds)
    {
        int ready[2];
        H::write_file(path, content);
        if (pipe(ready) != 0)
            return;
        m_pid = fork();
        if (m_pid == 0) {
            int fd = open(path.c_str(), O_RDWR);
            if (fd < 0 || lockf(fd, F_LOCK, 0) != 0)
                _exit(1);
            if (write(ready[1], "x", 1) != 1)
                _exit(1);
            sleep(seconds);
            _exit(0);
        }
        close(ready[1]);
        char c;
        m_locked = m_pid > 0 && read(ready[0], &c, 1) == 1;
        close(ready[0]);
    }
    ~Locker()
    {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
    }
    bool locked() const { return m_locked; }

private:
    pid_t m_pid = -1;
    bool m_locked = false;
};

struct LockedCase {
    const char* name;
    std::function<int(const std::string& path)> op;
    int rc;
};
void PrintTo(const LockedCase& c, std::ostream* os) { *os << c.name; }

int drain(const std::string& path)
{
    char* text = nullptr;
    int size = 0;
    int rc = read_activity_log_file(path.c_str(), &text, &size);
    free(text);
    return rc;
}

using ActivityLocked = JobDataTest;

class ActivityLock : public ActivityLocked, public ::testing::WithParamInterface<LockedCase> {};

TEST_P(ActivityLock, GivesUpAfterSixSecondsAndKeepsFile)
{
    const std::string content = "1 0 held by another process\n";
    Locker holder(node.activity, content, 10);
    ASSERT_TRUE(holder.locked());

    double t0 = now_s();
    EXPECT_EQ(GetParam().op(node.activity), GetParam().rc);
    double took = now_s() - t0;
    EXPECT_GE(took, 5.0);
    EXPECT_LE(took, 8.5);
    EXPECT_EQ(H::read_file(node.activity), content);
}

INSTANTIATE_TEST_SUITE_P(Callers, ActivityLock, ::testing::Values(
    LockedCase{"Reader", drain, -2},
    LockedCase{"LineWriter",
               [](const std::string& p) { return write_activity_log_file(p.c_str(), "1 0 x"); },
               -ENOENT},
    LockedCase{"EventWriter",
               [](const std::string& p) { return write_activity_log_file2(p.c_str(), 1, 0, "x"); },
               -2},
    LockedCase{"CheckmachineReader",
               [](const std::string& p) {
                   char* buf = nullptr;
                   int len = 0;
                   int rc = read_checkmachine_file(p.c_str(), &buf, &len);
                   free(buf);
                   return rc;
               },
               -2}),
    [](const ::testing::TestParamInfo<LockedCase>& i) { return std::string(i.param.name); });

TEST_F(ActivityLocked, HandlerLogsLockedFetchAndLeavesEvents)
{
    Locker holder(node.activity, "1 0 waiting\n", 10);
    ASSERT_TRUE(holder.locked());

    std::vector<char> buf(EA_ACT_LOG_SIZE, 0);
    AGENTLOGres res = {-1, buf.data()};
    EXPECT_EQ(get_agent_activity_log_svc(nullptr, &res), 0);
    EXPECT_EQ(res.logSize, 0);
    EXPECT_EQ(log_count(node.log(), "ea_svc", 485,
                        "get_agent_activity_log_svc: Failed to read activity log from file: " +
                        node.activity_as_logged() + ", rc=-2."), 1);
    EXPECT_TRUE(H::exists(node.activity));
}

TEST_F(ActivityLocked, ReaderOutwaitsShortLock)
{
    Locker holder(node.activity, "1 0 soon\n", 2);
    ASSERT_TRUE(holder.locked());

    char* text = nullptr;
    int size = 0;
    double t0 = now_s();
    EXPECT_EQ(read_activity_log_file(node.activity.c_str(), &text, &size), 9);
    EXPECT_GE(now_s() - t0, 1.0);
    EXPECT_STREQ(text, "1 0 soon\n");
    free(text);
    EXPECT_FALSE(H::exists(node.activity));
}

} // namespace
