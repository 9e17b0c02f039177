/*
 * Procedure 3 end to end: message mode, wait mode, the job id in the
 * environment, the capture and command buffer limits, and requests whose
 * arguments do not decode.
 */
#include <gtest/gtest.h>

#include "test_exec_cmd_client.h"

namespace {

class ExecCmd : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(h.start()) << "kvx_ea could not be started"; }
    AgentBox box;
    AgentHarness& h = *box;
};

struct ModeCase {
    const char* name;
    const char* cmd;
    bool msg_mode;
    int ret;
    const char* str;
};

/* Every row runs in the same agent, so a row whose output leaked into the
 * protocol stream would break the rows after it. */
const ModeCase kModeCases[] = {
    {"message returns output", "echo hello", true, 0, "hello\n"},
    {"message silent success fails", "true", true, 1, "fread return 0!"},
    {"message exit before output fails", "exit 3", true, 1, "fread return 0!"},
    {"message output wins over exit code", "printf 'x\\n'; exit 3", true, 0, "x\n"},
    {"message stderr not captured", "echo out; echo err >&2", true, 0, "out\n"},
    {"wait success", "true", false, 0, "no return"},
    {"wait failure", "false", false, 1, "no return"},
    {"wait output discarded", "sh -c 'echo noise; echo more >&2'", false, 0, "no return"},
    {"wait signal is failure", "kill -9 $$", false, 1, "no return"},
};

TEST_F(ExecCmd, MessageAndWaitModesAnswerAsTheServerExpects)
{
    for (const ModeCase& c : kModeCases) {
        SCOPED_TRACE(c.name);
        ExecRequest rq;
        rq.cmd = c.cmd;
        rq.msg_mode = c.msg_mode;
        ExecReply r = exec_cmd(h, rq);
        ASSERT_EQ(0, r.rc);
        EXPECT_EQ(c.ret, r.ret);
        EXPECT_EQ(c.str, r.str);
        EXPECT_EQ((int)strlen(c.str), r.len);
    }
}

TEST_F(ExecCmd, EveryRequestSetsJobIdForItsCommands)
{
    for (int jobid : {42, 0, -7}) {
        SCOPED_TRACE(jobid);
        ExecRequest rq;
        rq.cmd = "echo \"$jobID\"";
        rq.msg_mode = true;
        rq.jobid = jobid;
        ExecReply r = exec_cmd(h, rq);
        ASSERT_EQ(0, r.rc);
        EXPECT_EQ(std::to_string(jobid) + "\n", r.str);
    }
    EXPECT_NE(std::string::npos, h.log().find("exec_cmd_svc: Current JOB ID is: -7"));
}

TEST_F(ExecCmd, MessageOutputIsCutToOneRead)
{
    ExecRequest rq;
    rq.cmd = "head -c 5000 /dev/zero | tr '\\000' a";
    rq.msg_mode = true;
    ExecReply r = exec_cmd(h, rq);
    ASSERT_EQ(0, r.rc);
    EXPECT_EQ(0, r.ret);
    EXPECT_EQ(1024, r.len);
    EXPECT_EQ(std::string(1024, 'a'), r.str);
}

TEST_F(ExecCmd, WaitModeCutsLongCommandLines)
{
    /* Cut inside the padding, the final "exit 7" is never run. */
    ExecRequest rq;
    rq.cmd = "true; : " + std::string(1100, 'p') + "; exit 7";
    ExecReply r = exec_cmd(h, rq);
    ASSERT_EQ(0, r.rc);
    EXPECT_EQ(0, r.ret);
    EXPECT_EQ("no return", r.str);

    rq.cmd = "true; : " + std::string(900, 'p') + "; exit 7";
    r = exec_cmd(h, rq);
    ASSERT_EQ(0, r.rc);
    EXPECT_EQ(1, r.ret);
}

TEST_F(ExecCmd, LogShowsPasswordLengthOnly)
{
    ExecRequest rq;
    rq.cmd = "true";
    rq.passwd = "Sekr3t-pw";
    rq.sudoflag = 0;
    exec_cmd(h, rq);   /* as root: runs directly, the password is unused */
    std::string log = h.log();
    EXPECT_NE(std::string::npos,
              log.find("cmd=true, msg_mode=0, block_mode=0, sudo_flag=0, user=, pwd=9."));
    EXPECT_EQ(std::string::npos, log.find("Sekr3t-pw"));
}

struct NullParamCase {
    int fn;
    const char* param;   /* JSON text of "param", or null to leave it out */
};

const NullParamCase kNullParamCases[] = {
    {EA_PROC_EXEC_CMD, "\"not an object\""},
    {EA_PROC_EXEC_CMD, nullptr},
    {EA_PROC_EXEC_CMD, "{\"str\": \"true\"}"},
    {EA_PROC_VMDETECT, "[]"},
    {EA_PROC_CHECK_MACHINE, "17"},
};

TEST_F(ExecCmd, UndecodableArgumentsAreAnsweredAndServingGoesOn)
{
    int seq = 900;
    for (const NullParamCase& c : kNullParamCases) {
        SCOPED_TRACE(std::string("fn ") + std::to_string(c.fn) + " param " +
                     (c.param ? c.param : "(none)"));
        std::string line = "{\"ver\": 1, \"type\": 1, \"seq\": " + std::to_string(++seq) +
                           ", \"fn\": " + std::to_string(c.fn) + ", \"status\": 0";
        if (c.param)
            line += std::string(", \"param\": ") + c.param;
        line += "}";
        json_t* reply = raw_call(h, line);
        ASSERT_NE(nullptr, reply) << "no reply; agent stderr: " << h.agent_stderr();
        EXPECT_EQ(seq, json_integer_value(json_object_get(reply, "seq")));
        EXPECT_EQ(0, json_integer_value(json_object_get(reply, "status")));
        json_t* param = json_object_get(reply, "param");
        if (c.fn == EA_PROC_EXEC_CMD) {
            EXPECT_EQ(1, json_integer_value(json_object_get(param, "ret")));
            EXPECT_STREQ("invalid argument!", json_string_value(json_object_get(param, "str")));
            EXPECT_EQ(17, json_integer_value(json_object_get(param, "retmsg_len")));
        } else if (c.fn == EA_PROC_CHECK_MACHINE) {
            EXPECT_EQ(-1, json_integer_value(json_object_get(param, "ret")));
            EXPECT_EQ(0, json_integer_value(json_object_get(param, "retmsg_len")));
        } else {
            EXPECT_EQ(0, json_integer_value(json_object_get(param, "local")));
            EXPECT_NE(nullptr, json_object_get(param, "type"));
        }
        json_decref(reply);
    }
    ExecRequest rq;
    rq.cmd = "echo alive";
    rq.msg_mode = true;
    EXPECT_EQ("alive\n", exec_cmd(h, rq).str);
}

} /* namespace */
