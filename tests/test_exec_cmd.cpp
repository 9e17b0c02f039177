/* The client endpoint against the real agent (the raw reply record, then
 * calls in a row), and procedure 3 through one agent: output leaking into the
 * protocol stream, or a background child serving requests, breaks the rows
 * after it. */
#include <tuple>

#include <gtest/gtest.h>

#include "test_exec_cmd_client.h"

namespace {

const std::string kLongX = "x=" + std::string(65000, 'p');

struct ModeCase {
    std::string cmd;
    bool msg, block;
    int ret;
    std::string str;
    int jobid = 0;
    const char* pwd = "";
};

const ModeCase kModes[] = {
    {"echo hello", true, false, 0, "hello\n"},
    {"true", true, false, 1, "fread return 0!"},
    {"printf 'x\\n'; exit 3", true, false, 0, "x\n"},
    {"echo out; echo err >&2", true, false, 0, "out\n"},
    {"head -c 5000 /dev/zero | tr '\\000' a", true, false, 0, std::string(1024, 'a')},
    /* output that is not UTF-8, or cut inside a character, still makes a reply */
    {"printf 'caf\\351\\n'", true, false, 0, "caf?\n"},
    {"head -c 1023 /dev/zero | tr '\\000' a; printf '\\303\\251'", true, false, 0, std::string(1023, 'a')},
    {"sh -c 'echo visible; echo err >&2'", false, true, 0, "create child process successfully!"},
    {"false", false, false, 1, "no return"},
    {"sh -c 'echo noise; echo more >&2'", false, false, 0, "no return"},
    {"kill -9 $$", false, false, 1, "no return"},
    /* a command that reads its input gets end of file, not the server's requests */
    {"read x; echo \"[$x]\"", true, false, 0, "[]\n"},
    {"read x", false, false, 1, "no return"},
    /* commands do not inherit the agent's log */
    {"ls -l /proc/$$/fd | grep -c 'kvx.*log$'", true, false, 0, "0\n"},
    /* as long as a request line allows: run whole in every mode */
    {kLongX + "; [ ${#x} -eq 65000 ]", false, false, 0, "no return"},
    {kLongX + "; [ ${#x} -eq 65000 ] && touch long-ran", false, true, 0, "create child process successfully!"},
    {kLongX + "; echo ${#x}", true, false, 0, "65000\n"},
    {"true", false, false, 0, "no return", 0, "Sekr3t-pw"},
    {"echo \"$jobID\"", true, false, 0, "42\n", 42},
    {"echo \"$jobID\"", true, false, 0, "-7\n", -7},
};

/* procedure, "param" ("" for none), a field of the reply and its value */
const std::tuple<int, const char*, const char*, int> kBadArgs[] = {
    {EA_PROC_EXEC_CMD, "\"not an object\"", "ret", 1},
    {EA_PROC_EXEC_CMD, "", "ret", 1},
    {EA_PROC_EXEC_CMD, "{\"str\": \"true\"}", "retmsg_len", 17},
    {EA_PROC_VMDETECT, "[]", "local", 0},
    {EA_PROC_CHECK_MACHINE, "17", "ret", -1},
};

/* "<call result>:<text echoed in the reply>" */
std::string ping(AgentHarness& h, const char* text, bool discard = false)
{
    PINGargs a = {(int)strlen(text) + 1, (char*)text, discard};
    char buf[EA_PING_MSG_SIZE] = {0};
    PINGres r = {0, (int)sizeof(buf), buf};
    int rc = h.call(EA_PROC_PING, JXDR_PROC(PINGargs, jxdr_PINGargs), (char*)&a,
                    JXDR_PROC(PINGres, jxdr_PINGres), (char*)&r);
    return std::to_string(rc) + ":" + buf;
}

TEST(AgentEndpoint, RawRecordThenCallsInARow)
{
    AgentHarness h;
    ASSERT_TRUE(h.start());
    h.send_raw("{\"ver\": 1, \"type\": 1, \"seq\": 41, \"fn\": 1, \"status\": 0, "
               "\"param\": {\"str\": \"raw\"}}");
    std::string first, second;
    ASSERT_TRUE(h.read_raw(first, 10000));
    ASSERT_TRUE(h.read_raw(second, 10000));
    EXPECT_EQ(first.find("{\"ver\": 1, \"type\": 2, \"seq\": 41, \"fn\": 1, \"status\": 0, "
                         "\"param\": {\"str\": \"raw\", \"sp\": "), 0u) << first;
    EXPECT_EQ(first.substr(first.size() - 3), std::string("}\0\n", 3));
    EXPECT_EQ(second, "\n");

    EXPECT_EQ(ping(h, "one"), "0:one");
    EXPECT_EQ(ping(h, "two \xc3\xa9"), "0:two \xc3\xa9");
    EXPECT_EQ(ping(h, "marker", true), "0:") << "a discarded ping's reply is not decoded";
    EXPECT_EQ(ping(h, "after"), "0:after");
    h.close_input();
    EXPECT_EQ(h.wait_exit(20), 0);
}

TEST(ExecCmd, ModesAnswerAsTheServerExpects)
{
    AgentHarness h;
    h.set_env("ZEL_LOG_TO_CONSOLE", "1");   /* the log echo must not reach the protocol stream */
    ASSERT_TRUE(h.start());
    for (const ModeCase& c : kModes) {
        SCOPED_TRACE(c.cmd.substr(0, 40));
        Reply r = rpc(h, EA_PROC_EXEC_CMD, exec_args(c.cmd, c.msg, c.block, c.jobid, "", c.pwd));
        ASSERT_TRUE(r) << h.agent_stderr();
        EXPECT_EQ(c.ret, num(r, "ret"));
        EXPECT_EQ(c.str, text(r, "str"));
        EXPECT_EQ((long long)c.str.size(), num(r, "retmsg_len"));
        if (*c.pwd != '\0') {   /* once the next request is answered, this one is gone */
            EXPECT_EQ("x", text(rpc(h, EA_PROC_PING, "{\"str\": \"x\"}"), "str"));
            EXPECT_FALSE(memory_holds(h.agent_pid(), c.pwd)) << "a used password stays in memory";
        }
    }
    for (const auto& [fn, param, key, value] : kBadArgs) {
        SCOPED_TRACE(std::to_string(fn) + " " + param);
        Reply r = rpc(h, fn, param);
        ASSERT_TRUE(r) << h.agent_stderr();
        EXPECT_EQ(0, json_integer_value(json_object_get(r.get(), "status")));
        EXPECT_EQ(value, num(r, key));
    }
    EXPECT_EQ("invalid argument!", text(rpc(h, EA_PROC_EXEC_CMD, ""), "str"));
    /* a daemon the command leaves holding its output does not hold the reply */
    std::string done = h.root + "/daemon.done";
    Reply d = rpc(h, EA_PROC_EXEC_CMD,
                  exec_args("echo early; (until [ -e " + done + " ]; do sleep 0.1; done) &", true));
    AgentHarness::write_file(done, "");
    EXPECT_EQ("early\n", text(d, "str"));

    sleep(2);   /* the background children have run their commands and ended */
    EXPECT_TRUE(AgentHarness::exists(h.boot_dir + "/long-ran"));
    h.close_input();
    EXPECT_EQ(0, h.wait_exit(10));
    std::string log = h.log();
    EXPECT_EQ(1, log_count(log, "svc_main", 374, "incomming connection is closed"));
    EXPECT_EQ(1, log_count(log, "ea_svc", 197, "exec_cmd_svc: Current JOB ID is: -7"));
    EXPECT_EQ(1, log_count(log, "ea_svc", 199, "sudo_flag=0, user=, pwd=9."));
    EXPECT_EQ(std::string::npos, log.find("Sekr3t-pw"));
    EXPECT_EQ(1, log_count(h.agent_stderr(), "ea_svc", 197, "exec_cmd_svc: Current JOB ID is: -7"));
}

} /* namespace */
