/*
 * Procedure 8 end to end: the machine check script's report comes back as
 * one line, with the EC2 instance id put in front of the node UUID.
 *
 * The whole test process moves into a network namespace of its own with
 * nothing but loopback; 169.254.169.254 lives on that loopback and is
 * answered by a small responder here.  No packet leaves the namespace.
 */
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include "test_exec_cmd_client.h"

namespace {

/* Private namespace with loopback up and the metadata address on it. */
bool enter_private_netns(std::string& why)
{
    if (unshare(CLONE_NEWNET) != 0) {
        why = std::string("unshare(CLONE_NEWNET): ") + strerror(errno);
        return false;
    }
    struct if_nameindex* ifs = if_nameindex();
    bool only_lo = ifs != nullptr;
    for (struct if_nameindex* i = ifs; i && i->if_index != 0; i++)
        if (strcmp(i->if_name, "lo") != 0)
            only_lo = false;
    if (ifs)
        if_freenameindex(ifs);
    if (!only_lo) {
        why = "the new namespace has interfaces besides lo";
        return false;
    }
    if (system("ip link set lo up") != 0 ||
        system("ip addr add 169.254.169.254/32 dev lo") != 0) {
        why = "could not configure lo in the namespace (iproute2)";
        return false;
    }
    return true;
}

/* Forked HTTP/1.0 responder on 169.254.169.254:80 answering every GET. */
class MetadataResponder {
public:
    MetadataResponder(int code, const std::string& body) : m_pid(-1)
    {
        int s = socket(AF_INET, SOCK_STREAM, 0);
        int one = 1;
        setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
        struct sockaddr_in a = {};
        a.sin_family = AF_INET;
        a.sin_port = htons(80);
        inet_pton(AF_INET, "169.254.169.254", &a.sin_addr);
        if (bind(s, (struct sockaddr*)&a, sizeof(a)) != 0 || listen(s, 8) != 0) {
            close(s);
            return;
        }
        std::string reply = "HTTP/1.0 " + std::to_string(code) + " X\r\nContent-Length: " +
                            std::to_string(body.size()) + "\r\n\r\n" + body;
        m_pid = fork();
        if (m_pid == 0) {
            for (;;) {
                int c = accept(s, nullptr, nullptr);
                if (c < 0)
                    continue;
                std::string req;
                char buf[512];
                struct pollfd p = {c, POLLIN, 0};
                while (req.find("\r\n\r\n") == std::string::npos && poll(&p, 1, 3000) > 0) {
                    ssize_t n = read(c, buf, sizeof(buf));
                    if (n <= 0)
                        break;
                    req.append(buf, (size_t)n);
                }
                if (write(c, reply.data(), reply.size()) < 0) {
                }
                close(c);
            }
        }
        close(s);
    }
    ~MetadataResponder()
    {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
    }
    bool ok() const { return m_pid > 0; }

private:
    pid_t m_pid;
};

class CheckMachine : public ::testing::Test {
protected:
    static void SetUpTestSuite() { s_netns = enter_private_netns(s_why); }
    void SetUp() override
    {
        if (!s_netns)
            GTEST_SKIP() << "no private network namespace: " << s_why;
        report_path = h.root + "/report.txt";
        script = h.boot_dir + "/checkmachine";
        AgentHarness::write_script(script, "cat " + report_path + "\n");
        ASSERT_TRUE(h.start());
    }
    ExecReply check(const std::string& cmd)
    {
        ExecRequest rq;
        rq.cmd = cmd;
        rq.msg_mode = true;
        return exec_call(h, EA_PROC_CHECK_MACHINE, rq, 60000);
    }
    std::string report_file() const { return h.boot_dir + "/.checkmachinetxt"; }

    static bool s_netns;
    static std::string s_why;
    AgentBox box;
    AgentHarness& h = *box;
    std::string report_path, script;
};

bool CheckMachine::s_netns = false;
std::string CheckMachine::s_why;

const char kReport[] = "{\n\t\"NodeUUID\" : \"1234-abcd\",\n\t\"Name\" : \"n1\"\n}\n";
const char kFlat[] = "{  \"NodeUUID\" : \"1234-abcd\",  \"Name\" : \"n1\" } ";
const char kSpliced[] = "{  \"NodeUUID\" : \"i-0abc123--1234-abcd\",  \"Name\" : \"n1\" } ";

struct ReportCase {
    const char* name;
    int http_code;         /* 0: nothing listens on the metadata address */
    const char* metadata;
    const char* report;
    const char* reply;
    const char* log_line;  /* expected in the agent log, or null */
};

const ReportCase kReportCases[] = {
    {"EC2 instance id spliced", 200, "i-0abc123", kReport, kSpliced,
     "check_machine: The target node is a EC2 VM and its instance id is i-0abc123."},
    {"value not an instance id", 200, "vm-123", kReport, kFlat,
     "check_machine: it is not AWS VM but we get instance-id=vm-123."},
    {"no metadata service", 0, "", kReport, kFlat, nullptr},
    {"metadata service says 404", 404, "i-0abc123", kReport, kFlat, nullptr},
    {"marker needs the blanks", 200, "i-0abc123", "\"NodeUUID\":\"1234\"\n", "\"NodeUUID\":\"1234\" ",
     nullptr},
    {"tabs and line feeds become blanks", 200, "i-0abc123", "a\tb\nc\n", "a b c ", nullptr},
};

TEST_F(CheckMachine, ReportIsReturnedAsOneLineWithInstanceId)
{
    for (const ReportCase& c : kReportCases) {
        SCOPED_TRACE(c.name);
        MetadataResponder responder(c.http_code, c.metadata);
        if (c.http_code != 0)
            ASSERT_TRUE(responder.ok()) << "responder could not bind 169.254.169.254:80";
        AgentHarness::write_file(report_path, c.report);

        ExecReply r = check(script);
        ASSERT_EQ(0, r.rc);
        EXPECT_EQ(0, r.ret);
        EXPECT_EQ(c.reply, r.str);
        EXPECT_EQ((int)strlen(c.reply), r.len);
        EXPECT_FALSE(AgentHarness::exists(report_file())) << "the report file must be removed";
        if (c.log_line)
            EXPECT_NE(std::string::npos, h.log().find(c.log_line));
    }
    /* The splice made the text 11 bytes longer than the report. */
    EXPECT_EQ(strlen(kReport) + 11, strlen(kSpliced));
}

TEST_F(CheckMachine, ScriptStatusAndRunCommandAreReported)
{
    AgentHarness::write_script(script, "echo 'x'\necho oops >&2\nexit 4\n");
    ExecReply r = check(script);
    ASSERT_EQ(0, r.rc);
    EXPECT_EQ(4, r.ret);
    EXPECT_EQ("x ", r.str);
    std::string f = h.boot_dir + "//.checkmachinetxt";
    EXPECT_NE(std::string::npos,
              h.log().find("touch " + f + " >/dev/null 2>&1; chmod 666 " + f +
                           " >/dev/null 2>&1; " + script + " >" + f + " 2>/dev/null"));
}

struct SizeCase {
    size_t bytes;
    int ret;
    const char* log_line;
};

TEST_F(CheckMachine, OversizedReportsAreRefused)
{
    const SizeCase cases[] = {
        {204799, 0, "read_checkmachine_file: checkmachine output is too big(204800.)"},
        {204800, -1, "check_machine: The output of checkmachine is to large (204800)!"},
    };
    for (const SizeCase& c : cases) {
        SCOPED_TRACE(c.bytes);
        AgentHarness::write_file(report_path, std::string(c.bytes, 'r'));
        ExecReply r = check(script);
        ASSERT_EQ(0, r.rc);
        EXPECT_EQ(c.ret, r.ret);
        EXPECT_EQ(0, r.len);
        EXPECT_EQ("", r.str);
        EXPECT_NE(std::string::npos, h.log().find(c.log_line));
        unlink(report_file().c_str());
    }
}

TEST_F(CheckMachine, CommandWithoutCheckmachineIsNotRun)
{
    ExecReply r = check("touch " + h.root + "/ran");
    ASSERT_EQ(0, r.rc);
    EXPECT_EQ(0, r.ret);   /* the account check's answer for a root agent */
    EXPECT_EQ(0, r.len);
    EXPECT_FALSE(AgentHarness::exists(h.root + "/ran"));
    EXPECT_NE(std::string::npos, h.log().find("check_machine: invalid checkmachine command (touch "));
}

TEST(CheckMachineAccount, RejectedAccountRunsNothing)
{
    AgentBox box;
    AgentHarness& h = *box;
    std::string ran = h.root + "/ran";
    AgentHarness::write_script(h.boot_dir + "/checkmachine", "touch " + ran + "\n");
    h.run_as(65534, 65534);
    ASSERT_TRUE(h.start());
    ExecRequest rq;
    rq.cmd = h.boot_dir + "/checkmachine";
    rq.user = "root";
    rq.passwd = "certainly-not-the-root-password";
    ExecReply r = exec_call(h, EA_PROC_CHECK_MACHINE, rq, 90000);
    ASSERT_EQ(0, r.rc);
    EXPECT_EQ(7003, r.ret);
    EXPECT_EQ(0, r.len);
    EXPECT_FALSE(AgentHarness::exists(ran));
    EXPECT_EQ(std::string::npos, h.log().find("certainly-not"));
}

} /* namespace */
