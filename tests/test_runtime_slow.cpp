// A recovery program that ignores the cancel request: the cleanup polls for
// it 12 times 5 seconds apart, then kills it and force-unmounts the session
// location, lazily when the forced unmount fails.  Takes a minute.
#include <signal.h>
#include <time.h>

#include "test_runtime_support.h"

namespace {

TEST(CleanupSlow, StubbornProgramIsKilledAndItsLocationUnmounted)
{
    AgentHarness h;
    std::string zelroot = h.root + "/zel root";   // one word in the umount lines
    stage_node(h);
    add_journal_stub(h, "umount", 0, "[ $# = 2 ] || echo \"split into $#\" >> \"$d/../../journal\"\n"
                                     "[ \"$1\" = -f ] && exit 32");
    add_journal_stub(h, "ps", 0, "exec /bin/ps \"$@\"");
    add_journal_stub(h, "kvxbmr", 0, "[ \"$1\" = --cancel ] && exit 0\ntrap '' TERM\necho $$ > " +
                                         h.root + "/prog.pid\nwhile :; do sleep 1; done");
    ASSERT_TRUE(h.start({"--targetworkdir", h.work_dir, "--zelrootdir", zelroot}, false));
    pid_t prog = start_program(h, 1, "kvxbmr --restore");
    ASSERT_GT(prog, 0);

    time_t start = time(NULL);
    kill(h.parent_pid(), SIGSTOP);   // a stopped parent cannot reap the agent it dies for
    h.signal_agent(SIGALRM);
    ASSERT_EQ(h.wait_exit(150), 1);
    EXPECT_FALSE(h.parent_alive());
    EXPECT_GE(time(NULL) - start, 59);
    EXPECT_NE(kill(prog, 0), 0) << "the program survived";
    std::vector<std::string> calls = {"kvxbmr --restore", "kvxbmr --cancel"};
    calls.insert(calls.end(), 13, "ps -e -o pid,comm");
    calls.insert(calls.end(), {"umount -f " + zelroot, "umount -l " + zelroot});
    expect_cleaned(h.root, calls);
    EXPECT_EQ(log_count(h.log(), "svc_main", 108,
                        "force stop program: kvxbmr, pid: " + std::to_string(prog) + "."), 1);
}

} // namespace
