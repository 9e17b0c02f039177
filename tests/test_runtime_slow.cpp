/*
 * A recovery program that ignores the cancel request: the cleanup polls
 * for it 12 times 5 seconds apart, then kills it and force-unmounts the
 * session location, lazily when the forced unmount fails.  Takes a minute.
 */
#include <signal.h>
#include <time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "agent_harness.h"
#include "test_runtime_support.h"

namespace {

TEST(CleanupSlow, StubbornProgramIsKilledAndItsLocationUnmounted)
{
    HarnessPtr hp(new AgentHarness);
    AgentHarness& h = *hp;
    std::string journal = h.root + "/journal", pidfile = h.root + "/prog.pid";
    std::string zelroot = h.root + "/zelroot";
    add_cleanup_stubs(h, journal);
    add_journal_stub(h, journal, "umount", 0, "[ \"$1\" = -f ] && exit 32");
    add_journal_stub(h, journal, "ps", 0, "exec /bin/ps \"$@\"");
    add_journal_stub(h, journal, "kvxbmr", 0,
                     "[ \"$1\" = --cancel ] && exit 0\n"
                     "trap '' TERM\necho $$ > " + pidfile + "\nwhile :; do sleep 1; done");
    std::vector<std::string> staged = stage_product_files(h);
    ASSERT_TRUE(h.start({"--targetworkdir", h.work_dir, "--zelrootdir", zelroot}, false));
    ASSERT_TRUE(run_cmd(h, 1, "kvxbmr --restore", true));
    pid_t prog = -1;
    for (int i = 0; i < 500 && prog <= 0; i++, usleep(20000)) {
        std::string text = AgentHarness::read_file(pidfile);
        if (!text.empty() && text.back() == '\n')
            prog = atoi(text.c_str());
    }
    ASSERT_GT(prog, 0);

    time_t start = time(NULL);
    h.signal_agent(SIGALRM);
    int parent = reap_parent(h, 150);
    EXPECT_TRUE(WIFSIGNALED(parent) && WTERMSIG(parent) == SIGKILL) << "parent status " << parent;
    ASSERT_EQ(h.wait_exit(30), 1);
    EXPECT_GE(time(NULL) - start, 59);
    EXPECT_NE(kill(prog, 0), 0) << "the program survived";

    std::vector<std::string> want = {"kvxbmr --restore", "kvxbmr --cancel"};
    want.insert(want.end(), 13, "ps -e -o pid,comm");
    want.insert(want.end(), {"umount -f " + zelroot, "umount -l " + zelroot, "driverinstall -u",
                             "killall kvxagent", expected_rm_line(h)});
    EXPECT_EQ(read_lines(journal), want);
    for (const std::string& f : staged)
        EXPECT_FALSE(AgentHarness::exists(f)) << f;

    std::string log = h.log();
    EXPECT_EQ(log_count(log, "svc_main", 80, "try to cancel program: kvxbmr."), 1);
    EXPECT_EQ(log_count(log, "svc_main", 100, "cancel the program(kvxbmr) failed."), 1);
    EXPECT_EQ(log_count(log, "svc_main", 108,
                        "force stop program: kvxbmr, pid: " + std::to_string(prog) + "."),
              1);
}

} /* namespace */
