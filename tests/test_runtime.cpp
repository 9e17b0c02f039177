// The agent as the server sees it: the service loop, its end, and the
// cleanup after a stop signal, each through a staged kvx_ea.
#include <signal.h>
#include <sys/stat.h>
#include <time.h>

#include "test_exec_cmd_client.h"

namespace {

// One session, lines in order.  A request left unanswered must leave the
// next reply on the wire to the next answered one.
TEST(Loop, AnswersWhatDecodesSkipsTheRestThenEndsCleanly)
{
    struct {
        int seq, fn;
        std::string param, echo;   // echo: of procedure 1, cut to at most 1023 bytes
        bool answered;
    } steps[] = {
        {1, 1, "{\"str\": \"hello\", \"sp\": 5}", "hello", true},
        {2147483647, 1, "{\"str\": \"caf\xc3\xa9 \\\"q\\\"\"}", "caf\xc3\xa9 \"q\"", true},
        {-4, 1, "{\"str\": \"" + std::string(3000, 'b') + "\"}", std::string(1023, 'b'), true},
        // the cut would split the last character: it goes whole, the reply still packs
        {3, 1, "{\"str\": \"" + std::string(1022, 'c') + "\\u00e9\"}", std::string(1022, 'c'), true},
        {5, 9, "{\"str\": \"x\"}", "", false},
        {7, -7, "", "", false},
        // Arguments that do not decode reach the handler as a null record.
        {8, 1, "", "", true},
        {9, 1, "{\"str\": 5}", "", true},
        {11, 3, "\"ls\"", "", true},
        {12, 4, "7", "", true},
    };
    AgentHarness h;
    stage_node(h);
    ASSERT_TRUE(h.start());
    // A request whose read is interrupted by a background command ending
    // between its two pieces is answered once its end arrives.
    ASSERT_TRUE(run_cmd(h, 100, "sleep 0.2", true));
    std::string split = request_line(101, 1, "{\"str\": \"in two pieces\"}");
    h.send_raw(split.substr(0, 30), false);
    wait_until([&] { return log_count(h.log(), "ea_svc", 38, "signal_child: child pid=") > 0; });
    h.send_raw(split.substr(30));
    Reply split_reply(read_reply(h), json_decref);
    EXPECT_EQ(text(split_reply, "str"), "in two pieces") << "the request was lost";
    // Seven lines that are no envelope: empty, not JSON, an array, a string
    // version, a function and a sequence number beyond 32 bits (not run as
    // procedure 3, not answered as seq 5), an unterminated object.
    h.send_raw("\ngarbage\n[1, 2]\n{\"ver\": \"1\", \"type\": 1, \"seq\": 1, \"fn\": 1, \"status\": 0}\n"
               "{\"ver\": 1, \"type\": 1, \"seq\": 1, \"fn\": 4294967299, \"status\": 0}\n"
               "{\"ver\": 1, \"type\": 1, \"seq\": 4294967301, \"fn\": 1, \"status\": 0}\n"
               "{\"ver\": 1, \"type\": 1, \"seq\": 1, \"fn\": 1, \"status\": 0, \"param\": {");
    for (const auto& s : steps) {
        SCOPED_TRACE(s.seq);
        time_t before = time(NULL);
        h.send_raw(request_line(s.seq, s.fn, s.param));
        if (!s.answered)
            continue;   // the next reply must be the next step's
        Reply r(read_reply(h), json_decref);
        ASSERT_TRUE(r) << "no reply; stderr: " << h.agent_stderr();
        std::vector<long long> head;
        for (const char* key : {"ver", "type", "seq", "fn", "status"})
            head.push_back(json_integer_value(json_object_get(r.get(), key)));
        EXPECT_EQ(head, std::vector<long long>({1, 2, s.seq, s.fn, 0}));
        if (s.fn == 1) {
            EXPECT_EQ(text(r, "str"), s.echo);
            EXPECT_TRUE(num(r, "sp") >= before && num(r, "sp") <= time(NULL));
        }
    }
    std::string log = h.log();
    EXPECT_EQ(log_count(log, "svc_main", 378, "failed to receive data, rc=-5. try again."), 7);
    for (const auto& s : steps)
        EXPECT_EQ(log_count(log, "svc_main", 429, "Unkown function call:" + std::to_string(s.fn)),
                  s.answered ? 0 : 1);

    // End of input with nothing tracked: exit 0, the node left alone.
    h.close_input();
    ASSERT_EQ(h.wait_exit(20), 0);
    log = h.log();
    EXPECT_EQ(log_count(log, "svc_main", 374, "incomming connection is closed. stop ExecAgent."), 1);
    EXPECT_EQ(log_count(log, "svc_main", 460, "ea[" + std::to_string(h.agent_pid()) + "] finished."), 1);
    EXPECT_EQ(log_count(log, "svc_main", 74, "cleanup_target started"), 0);
    EXPECT_EQ(AgentHarness::read_file(h.root + "/journal"), "");
}

// A stop signal ends the session at once, whether the agent waits for the
// next request or is serving one: no further input, no idle alarm needed.
// Paths with blanks and quotes stay one word in every command line: the
// start-up trims the agent's log, the cleanup removes exactly what was staged.
TEST(Cleanup, StopSignalRemovesFilesKillsParentExitsOne)
{
    const struct {
        int sig, flag, line;   // SIGHUP: sent when the parent dies
        const char *text, *tree;
        bool busy;             // sent while a wait-mode command runs
    } cases[] = {
        {SIGHUP, 1, 364, "receive signal: SIGHUP.", "", false},
        {SIGALRM, 2, 365, "receive signal: SIGALRM.", "kvx node", false},
        {SIGPIPE, 3, 366, "receive signal: SIGPIPE.", "kvx node's \"$HOME\"", false},
        {SIGHUP, 1, 364, "receive signal: SIGHUP.", "", true},
        {SIGALRM, 2, 365, "receive signal: SIGALRM.", "", true},
        {SIGPIPE, 3, 366, "receive signal: SIGPIPE.", "", true},
        {SIGTERM, 4, 363, "receive signal: SIGTERM.", "", true},   // kill, systemd
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.text) + (c.busy ? " busy" : " idle"));
        AgentHarness h(c.tree);
        stage_node(h);
        AgentHarness::write_file(h.base + "/kvx", "beside the tree");
        std::string lines;
        for (int i = 1; i <= 20005; i++)
            lines += "line " + std::to_string(i) + "\n";
        mkdir((h.work_dir + "/logs").c_str(), 0755);
        AgentHarness::write_file(h.work_dir + "/logs/kvx-agent.log", lines);
        ASSERT_TRUE(h.start());
        std::string busy = h.root + "/busy", go = h.root + "/go";
        if (c.busy) {
            h.send_raw(request_line(1, 3, exec_args("touch " + busy + "; until [ -e " + go + " ]; do sleep 0.02; done",
                                                    false)));
            wait_until([&] { return AgentHarness::exists(busy); });
        } else {
            ASSERT_TRUE(run_cmd(h, 1, ":"));
        }
        kill(h.parent_pid(), SIGSTOP);   // a stopped parent cannot reap the agent it dies for
        h.signal_agent(c.sig);
        AgentHarness::write_file(go, "");
        ASSERT_EQ(h.wait_exit(30), 1);
        EXPECT_FALSE(h.parent_alive());
        std::string log = h.log();
        EXPECT_EQ(log_count(log, "svc_main", c.line, c.text), 1);
        EXPECT_EQ(log_count(log, "svc_main", 367, "cleanup flag is set to " +
                                                      std::to_string(c.flag) + ". stop ExecAgent."), 1);
        EXPECT_EQ(log_count(log, "svc_main", 74, "cleanup_target started, non root user flag: 0."), 1);
        EXPECT_EQ(log_count(log, "svc_main", 145, "ea[" + std::to_string(h.agent_pid()) + "] finished."), 1);
        expect_cleaned(h.root, {});
        EXPECT_EQ(0u, log.rfind("line 6\n", 0)) << "the oldest 5 lines trimmed";
        EXPECT_FALSE(AgentHarness::exists(h.work_dir + "/a.js") || AgentHarness::exists(h.client_dir));
        EXPECT_TRUE(AgentHarness::exists(h.base + "/kvx") && AgentHarness::exists(h.work_dir + "/logs"));
    }
}

} // namespace
