/*
 * The service loop seen from the server: replies, ping, unknown procedures,
 * lines that are not envelopes, undecodable arguments and a normal end of
 * input.  Every case drives a staged kvx_ea over its standard input/output.
 */
#include <time.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>
#include <jansson.h>

#include "agent_harness.h"
#include "test_runtime_support.h"

namespace {

class Loop : public ::testing::Test {
protected:
    HarnessPtr hp{new AgentHarness};
    AgentHarness& h = *hp;

    void SetUp() override { ASSERT_TRUE(h.start()); }

    json_t* ask(int seq, int fn, const std::string& param)
    {
        h.send_raw(request_line(seq, fn, param));
        return read_reply(h, 15000);
    }

    /* A ping answered with its own seq proves the loop is still serving. */
    void expect_serving(int seq)
    {
        json_t* r = ask(seq, 1, "{\"str\": \"still here\"}");
        ASSERT_NE(r, nullptr) << "agent stopped serving; stderr: " << h.agent_stderr();
        EXPECT_EQ(json_integer_value(json_object_get(r, "seq")), seq);
        json_decref(r);
    }
};

int int_of(json_t* obj, const char* key)
{
    return (int)json_integer_value(json_object_get(obj, key));
}

std::string ping_text(json_t* reply)
{
    json_t* s = json_object_get(json_object_get(reply, "param"), "str");
    return json_is_string(s) ? json_string_value(s) : "<not a string>";
}

/* The reply header echoes seq and fn; the ping echo is cut to 1023 bytes;
 * "sp" is the agent's clock. */
TEST_F(Loop, PingReplyEchoesSeqFnAndText)
{
    struct Case {
        int seq;
        std::string str, echo;
    } cases[] = {
        {1, "hello", "hello"},
        {2147483647, "", ""},
        {-4, "caf\xc3\xa9 \"quoted\"", "caf\xc3\xa9 \"quoted\""},
        {9, std::string(1023, 'a'), std::string(1023, 'a')},
        {10, std::string(3000, 'b'), std::string(1023, 'b')},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.seq);
        json_t* param = json_pack("{s:s,s:i}", "str", c.str.c_str(), "sp", 12345);
        char* text = json_dumps(param, 0);
        time_t before = time(NULL);
        json_t* r = ask(c.seq, 1, text);
        time_t after = time(NULL);
        free(text);
        json_decref(param);
        ASSERT_NE(r, nullptr);
        EXPECT_EQ(int_of(r, "ver"), 1);
        EXPECT_EQ(int_of(r, "type"), 2);
        EXPECT_EQ(int_of(r, "seq"), c.seq);
        EXPECT_EQ(int_of(r, "fn"), 1);
        EXPECT_EQ(int_of(r, "status"), 0);
        EXPECT_EQ(ping_text(r), c.echo);
        int sp = int_of(json_object_get(r, "param"), "sp");
        EXPECT_GE(sp, before);
        EXPECT_LE(sp, after);
        json_decref(r);
    }
}

TEST_F(Loop, UnknownProcedureIsLoggedAndNotAnswered)
{
    const int fns[] = {0, 9, -1, 1000};
    int seq = 100;
    for (int fn : fns) {
        SCOPED_TRACE(fn);
        h.send_raw(request_line(seq++, fn, "{\"str\": \"x\"}"));
        /* The next reply on the wire must be the ping's, not the unknown call's. */
        expect_serving(seq++);
        EXPECT_EQ(log_count(h.log(), "svc_main", 429, "Unkown function call:" + std::to_string(fn)),
                  1);
    }
}

TEST_F(Loop, LinesThatAreNotEnvelopesAreSkipped)
{
    const char* lines[] = {
        "",
        "garbage",
        "{\"ver\": \"1\", \"type\": 1, \"seq\": 1, \"fn\": 1, \"status\": 0}",
        "{\"ver\": 1, \"type\": 1, \"seq\": 1, \"fn\": 1}",
        "[1, 2]",
        "{\"ver\": 1, \"type\": 1, \"seq\": 1, \"fn\": 1, \"status\": 0, \"param\": {",
    };
    for (const char* line : lines)
        h.send_raw(line);
    expect_serving(7);
    EXPECT_EQ(log_count(h.log(), "svc_main", 378, "failed to receive data, rc=-5. try again."),
              (int)(sizeof(lines) / sizeof(lines[0])));
}

/* Arguments that do not decode reach the handler as a null record. */
TEST_F(Loop, UndecodableArgumentsAreAnsweredWithoutCrash)
{
    struct Case {
        int fn;
        const char* param;
    } cases[] = {
        {1, ""},  {1, "{}"}, {1, "{\"str\": 5}"}, {1, "\"text\""}, {1, "[1]"},
        {3, "\"ls\""}, {3, "{\"str\": \"true\"}"}, {4, "7"},
    };
    int seq = 200;
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.fn) + " " + c.param);
        time_t before = time(NULL);
        json_t* r = ask(seq, c.fn, c.param);
        ASSERT_NE(r, nullptr) << "no reply; stderr: " << h.agent_stderr();
        EXPECT_EQ(int_of(r, "seq"), seq);
        EXPECT_EQ(int_of(r, "fn"), c.fn);
        EXPECT_EQ(int_of(r, "status"), 0);
        if (c.fn == 1) {
            EXPECT_EQ(ping_text(r), "");
            EXPECT_GE(int_of(json_object_get(r, "param"), "sp"), before);
        }
        json_decref(r);
        seq++;
    }
    expect_serving(seq);
}

TEST_F(Loop, EndOfInputWithNothingRunningLeavesNodeAlone)
{
    const std::string journal = h.root + "/journal";
    const char* stubs[] = {"driverinstall", "kvxmonitor", "kvxbmr", "killall", "rm"};
    for (const char* s : stubs)
        add_journal_stub(h, journal, s);
    const std::string staged[] = {
        h.boot_dir + "/kvx_ea", h.boot_dir + "/checkmachine", h.work_dir + "/drv_target.lst",
        h.work_dir + "/LinuxImage-backup-client-x64.tar.gz", h.work_dir + "/job.js",
    };
    for (const std::string& f : staged)
        if (!AgentHarness::exists(f))
            AgentHarness::write_file(f, "x");

    expect_serving(1);
    h.close_input();
    ASSERT_EQ(h.wait_exit(20), 0);
    int parent = reap_parent(h, 10);
    EXPECT_TRUE(WIFEXITED(parent) && WEXITSTATUS(parent) == 0) << "parent status " << parent;

    std::string log = h.log();
    pid_t pid = h.agent_pid();
    EXPECT_EQ(log_count(log, "svc_main", 198, "ea[" + std::to_string(pid) + "] started."), 1);
    EXPECT_EQ(log_count(log, "svc_main", 374, "incomming connection is closed. stop ExecAgent."), 1);
    EXPECT_EQ(log_count(log, "svc_main", 454, "process still running flag: 0"), 1);
    EXPECT_EQ(log_count(log, "svc_main", 460, "ea[" + std::to_string(pid) + "] finished."), 1);
    EXPECT_EQ(log_count(log, "svc_main", 74, "cleanup_target started"), 0);
    for (const std::string& f : staged)
        EXPECT_TRUE(AgentHarness::exists(f)) << f;
    EXPECT_TRUE(AgentHarness::exists(h.client_dir));
    EXPECT_EQ(AgentHarness::read_file(journal), "");
}

} /* namespace */
