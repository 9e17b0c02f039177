/*
 * test_exec_cmd_client.h - the server's side of procedures 3 and 8 for the
 * integration tests: one call with the client codecs, and one raw request
 * whose reply is read as JSON.
 */
#ifndef TEST_EXEC_CMD_CLIENT_H
#define TEST_EXEC_CMD_CLIENT_H

#include <errno.h>
#include <jansson.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdlib.h>

#include <string>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#define KVXT_KEEP_ALLOCATED(p) __lsan_ignore_object(p)
#else
#define KVXT_KEEP_ALLOCATED(p) ((void)(p))
#endif

#include "agent_harness.h"
#include "ea_proto.h"

/*
 * Owns one harness.  A harness that never made its parent process (start()
 * not called, or failed early) is not destroyed: its destructor would send
 * SIGKILL to process group -1, which is every process on the machine.  Its
 * temporary tree is removed instead and the object is left allocated.
 */
class AgentBox {
public:
    AgentBox() : m_h(new AgentHarness) {}
    ~AgentBox()
    {
        if (m_h->parent_pid() != -1) {
            delete m_h;
            return;
        }
        std::string rm = "rm -rf '" + m_h->root + "'";
        if (system(rm.c_str()) != 0) {
        }
        KVXT_KEEP_ALLOCATED(m_h);
    }
    AgentBox(const AgentBox&) = delete;
    AgentBox& operator=(const AgentBox&) = delete;
    AgentHarness& operator*() { return *m_h; }
    AgentHarness* operator->() { return m_h; }

private:
    AgentHarness* m_h;
};

struct ExecRequest {
    std::string cmd;
    bool msg_mode = false;
    bool block_mode = false;
    int jobid = 0;
    std::string user;
    std::string passwd;
    int sudoflag = 0;
};

struct ExecReply {
    int rc = -100;     /* result of ExecProto::call */
    int ret = -100;    /* "ret" */
    int len = -1;      /* "retmsg_len" */
    std::string str;   /* "str" */
};

/* One call of procedure fn (3 or 8) through the client codecs. */
inline ExecReply exec_call(AgentHarness& h, int fn, const ExecRequest& rq, int timeout_ms = 30000)
{
    std::string cmd = rq.cmd, user = rq.user, pwd = rq.passwd;
    ExecCmdargs args = {};
    args.cmd = &cmd[0];
    args.cmd_len = (int)cmd.size() + 1;
    args.need_get_return_msg_flag = rq.msg_mode ? 1 : 0;
    args.block_flag = rq.block_mode ? 1 : 0;
    args.jobid = rq.jobid;
    args.user = &user[0];
    args.pwd = &pwd[0];
    args.sudo_flag = rq.sudoflag;

    std::vector<char> buf(EA_EXEC_RES_SIZE + 1, '\0');
    ExecCmdres res = {};
    res.cmd = buf.data();
    res.cmd_ret = -100;
    res.cmd_len = -1;

    ExecReply out;
    out.rc = h.call(fn, JXDR_PROC(ExecCmdargs, jxdr_ExecCmdargs), (char*)&args,
                    JXDR_PROC(ExecCmdres, jxdr_ExecCmdres), (char*)&res, timeout_ms);
    out.ret = res.cmd_ret;
    out.len = res.cmd_len;
    out.str.assign(buf.data());
    return out;
}

inline ExecReply exec_cmd(AgentHarness& h, const ExecRequest& rq, int timeout_ms = 30000)
{
    return exec_call(h, EA_PROC_EXEC_CMD, rq, timeout_ms);
}

/*
 * Sends one raw request line and parses the reply record (<json> NUL "\n\n",
 * whose empty second line is consumed too); null when none came.
 */
inline json_t* raw_call(AgentHarness& h, const std::string& line, int timeout_ms = 15000)
{
    h.send_raw(line);
    std::string reply, empty;
    if (!h.read_raw(reply, timeout_ms))
        return nullptr;
    h.read_raw(empty, 2000);
    json_error_t err;
    return json_loads(reply.c_str(), 0, &err);
}

/*
 * Makes /var/lib/kvx_cache exist for the life of the object, so that an
 * agent started meanwhile can take the product lock; removes what it made.
 * Needs LOCKS machine.  Fails (ok() false) when /etc/.kvx decides instead.
 */
class ProductLockDir {
public:
    ProductLockDir()
    {
        struct stat st;
        if (access("/etc/.kvx", R_OK) == 0)
            return;
        if (stat(kDir, &st) != 0) {
            if (mkdir(kDir, 0755) != 0)
                return;
            m_made_dir = true;
        }
        m_made_file = access(kFile, F_OK) != 0;
        m_ok = true;
    }
    ~ProductLockDir()
    {
        if (m_made_file)
            unlink(kFile);
        if (m_made_dir)
            rmdir(kDir);
    }
    bool ok() const { return m_ok; }

private:
    static constexpr const char* kDir = "/var/lib/kvx_cache";
    static constexpr const char* kFile = "/var/lib/kvx_cache/backup.bat";
    bool m_ok = false;
    bool m_made_dir = false;
    bool m_made_file = false;
};

#endif /* TEST_EXEC_CMD_CLIENT_H */
