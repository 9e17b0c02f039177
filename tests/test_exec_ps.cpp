/*
 * test_exec_ps.cpp - the job script probe, which looks at every process of
 * the machine.
 */
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "foundation_testkit.h"
#include "zelutil.h"

using fkit::TestLog;

namespace {

::testing::Environment* const kLog = ::testing::AddGlobalTestEnvironment(new TestLog);

TEST(JobProbe, SeesRunningJobScriptButNotOtherJobs)
{
    fkit::TempDir tmp;
    std::string uuid = "5b1c0e2a-" + std::to_string(getpid());
    std::string script = tmp / ("jobscript_" + uuid + ".sh");
    fkit::WriteFile(script, "#!/bin/sh\nsleep 30\n");
    ASSERT_EQ(0, chmod(script.c_str(), 0755));

    int run = -1;
    EXPECT_EQ(0, check_process_running(uuid.c_str(), &run));
    EXPECT_EQ(0, run);

    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        setpgid(0, 0);
        /* sh keeps the script's name on its command line */
        execl("/bin/sh", "sh", script.c_str(), (char*)NULL);
        _exit(127);
    }
    usleep(300 * 1000);
    size_t mark = TestLog::Size();
    EXPECT_EQ(0, check_process_running(uuid.c_str(), &run));
    EXPECT_EQ(1, run);
    EXPECT_NE(std::string::npos, TestLog::Since(mark).find(
                  "check_process_running: job(" + uuid + ") is running.\n"));

    EXPECT_EQ(0, check_process_running((uuid + "-other").c_str(), &run));
    EXPECT_EQ(0, run);

    kill(-pid, SIGKILL);   /* the script and its sleep */
    waitpid(pid, NULL, 0);
    mark = TestLog::Size();
    EXPECT_EQ(0, check_process_running(uuid.c_str(), &run));
    EXPECT_EQ(0, run);
    EXPECT_NE(std::string::npos, TestLog::Since(mark).find(
                  "check_process_running: job(" + uuid + ") isn't running.\n"));
    EXPECT_EQ(0, check_process_running(uuid.c_str(), NULL));
}

}  // namespace
