/*
 * test_jobdata_agent.h - the server's side of procedures 2, 3 (background
 * start), 5 and 6 for the tests that drive the real agent.
 */
#ifndef TEST_JOBDATA_AGENT_H
#define TEST_JOBDATA_AGENT_H

#include <string.h>

#include <string>
#include <vector>

#include "agent_harness.h"
#include "ea_proto.h"

/* Starts cmd in background mode; the reply's "ret" (0 started), or -100. */
inline int start_background(AgentHarness& h, const std::string& cmd_text)
{
    std::string cmd = cmd_text;
    char empty[1] = "";
    ExecCmdargs args = {};
    args.cmd = &cmd[0];
    args.cmd_len = (int)cmd.size() + 1;
    args.block_flag = 1;
    args.user = empty;
    args.pwd = empty;
    std::vector<char> buf(EA_EXEC_RES_SIZE + 1, '\0');
    ExecCmdres res = {-100, 0, buf.data()};
    if (h.call(EA_PROC_EXEC_CMD, JXDR_PROC(ExecCmdargs, jxdr_ExecCmdargs), (char*)&args,
               JXDR_PROC(ExecCmdres, jxdr_ExecCmdres), (char*)&res) != 0)
        return -100;
    return strcmp(buf.data(), "create child process successfully!") == 0 ? res.cmd_ret : -100;
}

struct StatusReply {
    int rc = -100;                 /* ExecProto::call */
    JOB_STATUS res = {};
    UINT32 act_size = 0;
    std::string act_log;
};

inline StatusReply poll_status(AgentHarness& h, int timeout_ms = 90000)
{
    StatusReply out;
    std::vector<char> act(EA_ACT_LOG_SIZE + 1, '\0');
    JOBSTATUSargs args = {0};
    out.res.act_log = act.data();
    out.rc = h.call(EA_PROC_JOBSTATUS, JXDR_PROC(JOBSTATUSargs, jxdr_JOBSTATUSargs), (char*)&args,
                    JXDR_PROC(JOB_STATUS, jxdr_JOBSTATUSres), (char*)&out.res, timeout_ms);
    out.act_size = out.res.act_size;
    out.act_log.assign(act.data());
    out.res.act_log = nullptr;
    return out;
}

struct AgentLogReply {
    int rc = -100;
    int size = -1;
    std::string text;
};

inline AgentLogReply fetch_activity_log(AgentHarness& h)
{
    AgentLogReply out;
    std::vector<char> buf(EA_ACT_LOG_SIZE + 1, '\0');
    AGENTLOGres res = {-1, buf.data()};
    out.rc = h.call(EA_PROC_AGENTLOG, JXDR_PROC(char, jxdr_Noargs), nullptr,
                    JXDR_PROC(AGENTLOGres, jxdr_AGENTLOGres), (char*)&res);
    out.size = res.logSize;
    out.text.assign(buf.data());
    return out;
}

/* ExecProto::call's result; the reply decoded into r. */
inline int fetch_job_result(AgentHarness& h, JOB_RESULT& r)
{
    return h.call(EA_PROC_JOBRESULT, JXDR_PROC(char, jxdr_Noargs), nullptr,
                  JXDR_PROC(JOB_RESULT, jxdr_JOBRESULTres), (char*)&r);
}

#endif /* TEST_JOBDATA_AGENT_H */
