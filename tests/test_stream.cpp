// The reply stream under load and faults: a server that stops reading, a
// stream that breaks, commands that print, and too few descriptors.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "test_exec_cmd_client.h"
#include "zelfunc.h"

namespace {

enum Call { WRITEV, READ, POLL, PPOLL };

// The system calls' numbers as /proc shows them: a 32-bit agent (the i386
// build) is reported with the i386 numbers even on an x86-64 kernel.
long call_number(pid_t pid, Call c)
{
    static const long native[] = { SYS_writev, SYS_read, SYS_poll, SYS_ppoll };
    static const long i386[] = { 146, 3, 168, 309 };
    char elf[5] = {};
    std::ifstream exe("/proc/" + std::to_string(pid) + "/exe", std::ios::binary);
    bool compat = exe.read(elf, sizeof(elf)) && elf[4] == 1;   // ELFCLASS32
    return compat && sizeof(void*) == 8 ? i386[c] : native[c];
}

// True while process pid is blocked in system call c.
bool in_call(pid_t pid, Call c)
{
    std::string call = AgentHarness::read_file("/proc/" + std::to_string(pid) + "/syscall");
    return !call.empty() && call.compare(0, 7, "running") != 0 && atol(call.c_str()) == call_number(pid, c);
}

long long bytes_read(pid_t pid)
{
    std::string io = AgentHarness::read_file("/proc/" + std::to_string(pid) + "/io");
    size_t at = io.find("rchar: ");
    return at == std::string::npos ? -1 : atoll(io.c_str() + at + 7);
}

// True once the agent has read up to total bytes and waits for more.
bool waits_after_reading(pid_t pid, long long total)
{
    return wait_until([&] {
        return bytes_read(pid) >= total && (in_call(pid, READ) || in_call(pid, POLL) || in_call(pid, PPOLL));
    });
}

// A background job ends while the server does not read: every reply comes,
// whole and in order, and the files the replies carry are delivered once.
TEST(Stream, NoReplyLostWhileTheServerStopsReading)
{
    AgentHarness h;
    stage_node(h);   // the broken stream at the end stops the agent with a cleanup
    const std::string logs = h.work_dir + "/logs/";
    mkdir(logs.c_str(), 0755);
    std::string events;
    for (int i = 0; i < 500; i++)
        events += "1 0 event " + std::to_string(i) + " of the activity log, about sixty bytes\n";
    AgentHarness::write_file(logs + "linuxkvxactivity.log", events);
    JOB_RESULT done = {};
    done.protected_data = 12345;
    ASSERT_EQ(0, create_job_result((logs + "linuxkvxjobres").c_str(), &done));
    ASSERT_TRUE(h.start());
    const std::string go = h.root + "/go";   // a background job that ends when the test writes to it
    ASSERT_EQ(0, mkfifo(go.c_str(), 0600));
    ASSERT_TRUE(run_cmd(h, 1, "cat " + go, true));

    const int kPings = 3000;
    std::string flood;
    for (int i = 0; i < kPings; i++) {
        flood += request_line(10 + i, 1, "{\"str\": \"p" + std::to_string(i) + "\"}") + "\n";
        if (i == 300)
            flood += request_line(5, 5, "") + "\n" + request_line(6, 6, "") + "\n";
    }
    std::thread sender([&] { h.send_raw(flood, false); });
    EXPECT_TRUE(wait_until([&] { return in_call(h.agent_pid(), WRITEV); }, 30000)) << "the server stopped reading";
    int fd = -1;   // opens once the job has it open
    EXPECT_TRUE(wait_until([&] { return (fd = open(go.c_str(), O_WRONLY | O_NONBLOCK)) >= 0; })) << h.log();
    close(fd);
    int next = 10;
    std::string got_log;
    long long got_result = 0;
    for (int n = 0; n < kPings + 2; n++) {
        Reply r(read_reply(h), json_decref);
        long long seq = json_integer_value(json_object_get(r.get(), "seq"));
        if (seq == 5)
            got_log = text(r, "ActivityLogs");
        else if (seq == 6)
            got_result = num(r, "protect_data");
        else if (seq == next)
            next++;
        else
            break;   // lost or out of order
    }
    EXPECT_EQ(10 + kPings, next) << "every ping answered, in order";
    if (next != 10 + kPings)
        h.signal_agent(SIGKILL);   // a sender still writing ends too
    sender.join();
    EXPECT_EQ(events.substr(0, 32767), got_log);
    EXPECT_EQ(12345, got_result);
    EXPECT_EQ(log_count(h.log(), "ea_svc", 38, "signal_child: child pid="), 1) << "the job ended meanwhile";

    // A reply that cannot be written leaves its file for the next session.
    AgentHarness::write_file(logs + "linuxkvxactivity.log", "1 0 kept\n");
    h.close_output();
    h.send_raw(request_line(7, 5, ""));
    EXPECT_EQ(1, h.wait_exit(30)) << "a broken stream stops the agent";
    EXPECT_EQ("1 0 kept\n", AgentHarness::read_file(logs + "linuxkvxactivity.log"));
}

// A server that neither reads nor closes cannot hold the agent in a write:
// the idle alarm (armed while a reply goes out) or the remote shell's end
// stops it after a short grace, and the node is cleaned.
TEST(Stream, StopSignalEndsAReplyNobodyReads)
{
    for (int sig : {SIGALRM, SIGHUP}) {
        SCOPED_TRACE(strsignal(sig));
        AgentHarness h;
        stage_node(h);
        ASSERT_TRUE(h.start());
        std::string flood;
        for (int i = 0; i < 3000; i++)
            flood += request_line(10 + i, 1, "{\"str\": \"p\"}") + "\n";
        std::thread sender([&] { h.send_raw(flood, false); });
        EXPECT_TRUE(wait_until([&] { return in_call(h.agent_pid(), WRITEV); }, 30000));
        h.signal_agent(sig);
        EXPECT_EQ(1, h.wait_exit(30)) << "still blocked in its write";
        h.signal_agent(SIGKILL);   // a sender still writing ends too
        sender.join();
        expect_cleaned(h.root, {});
    }
}

// Whatever a command prints stays off the stream, and a daemon it leaves
// does not hold the stream open after the agent has ended.
TEST(Stream, OnlyRepliesReachTheServer)
{
    AgentHarness h;
    ASSERT_TRUE(h.start());
    h.send_raw(request_line(1, 3, exec_args("echo X; sleep 30 & true", false)));
    std::string rec;
    ASSERT_TRUE(h.read_raw(rec, 30000));
    EXPECT_EQ(0u, rec.find("{")) << rec;
    ASSERT_TRUE(h.read_raw(rec, 30000));
    EXPECT_EQ("\n", rec);
    h.close_input();
    EXPECT_EQ(0, h.wait_exit(20));
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_FALSE(h.read_raw(rec, 20000)) << rec;
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(15)) << "end of output with the agent";
}

// Too few descriptors for the wake-up pipe: said once, and a request that a
// signal splits is still answered.
TEST(Stream, RequestStaysWholeWithoutTheWakeUpPipe)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizers' runtime needs descriptors of its own (UBSan checks memory through a pipe)";
#endif
    AgentHarness h;
    h.limit_files(6);
    ASSERT_TRUE(h.start());
    ASSERT_TRUE(rpc(h, 1, "{\"str\": \"up\"}"));
    std::string split = request_line(101, 1, "{\"str\": \"in two pieces\"}");
    long long before = bytes_read(h.agent_pid());
    h.send_raw(split.substr(0, 30), false);
    ASSERT_TRUE(waits_after_reading(h.agent_pid(), before + 30));
    h.signal_agent(SIGCHLD);   // as a command ending would
    ASSERT_TRUE(waits_after_reading(h.agent_pid(), before + 30));
    h.send_raw(split.substr(30));
    Reply r(read_reply(h), json_decref);
    ASSERT_TRUE(r) << "the request was lost\n" << h.log();
    EXPECT_EQ("in two pieces", text(r, "str"));
    EXPECT_EQ(1, log_count(h.log(), "svc_main", 300, "Failed to create the wake-up pipe"));
}

} // namespace
