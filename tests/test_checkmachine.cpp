/*
 * Procedure 8 through the agent: report, instance id splice, size limits,
 * lock query and account check.  Procedure 7, as root and re-run through
 * sudo or su by an agent under an ordinary account (procedure 3 elevates the
 * same way).  Holds the product lock, runs a process named kvxbackupvol, asks
 * ps and uses the kvxt_ accounts: LOCKS machine.
 */
#include <signal.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "metadata_testkit.h"
#include "test_accounts.h"
#include "test_exec_cmd_client.h"
#include "zelutil.h"

namespace {

const char kReport[] = "{\n\t\"NodeUUID\" : \"1234-abcd\",\n\t\"Name\" : \"n1\"\n}\n";
const char kFlat[] = "{  \"NodeUUID\" : \"1234-abcd\",  \"Name\" : \"n1\" } ";

struct ReportCase {
    std::string metadata;   /* the service's response, "": nothing listens */
    std::string report;
    int status, ret;   /* the script's exit status, the answer's */
    std::string reply;
    const char* log_line;
};

const ReportCase kReports[] = {
    {meta::http(200, "i-0abc1234"), kReport, 0, 0, "{  \"NodeUUID\" : \"i-0abc1234--1234-abcd\",  \"Name\" : \"n1\" } ",
     "check_machine: The target node is a EC2 VM and its instance id is i-0abc1234."},
    {meta::http(200, "vm-123"), kReport, 0, 0, kFlat, "check_machine: it is not AWS VM but we get instance-id=vm-123."},
    {meta::http(200, "i-0abc\", \"Injected\" : \"x"), kReport, 0, 0, kFlat,
     "check_machine: it is not AWS VM but we get instance-id=i-0abc\", \"Injected\" : \"x."},
    {meta::http(200, "i-0abc123"), kReport, 0, 0, kFlat, "we get instance-id=i-0abc123."},
    {"", kReport, 0, 0, kFlat, ""},
    {meta::http(404, "i-0abc1234"), kReport, 0, 0, kFlat, ""},
    {meta::http(200, "i-0abc1234"), "\"NodeUUID\":\"1234\"\n", 0, 0, "\"NodeUUID\":\"1234\" ", ""},
    {meta::http(200, "i-0abc1234"), "a\tb\nc\n", 4, 4, "a b c ", ""},
    {"", "caf\xe9\n", 0, 0, "caf? ", ""},
    {"", std::string(204799, 'r'), 0, 0, "",
     "read_checkmachine_file: checkmachine output is too big(204800.)"},
    {"", std::string(204800, 'r'), 0, -1, "",
     "check_machine: The output of checkmachine is to large (204800)!"},
};

TEST(CheckMachine, ReportComesBackAsOneLineWithInstanceId)
{
    std::string why = meta::enter_private_netns();
    if (!why.empty())
        GTEST_SKIP() << "no private network namespace: " << why;
    AgentHarness h("kvx node");   /* the report's path is one word in the command line */
    ASSERT_TRUE(h.start());
    const std::string source = h.root + "/report.txt", script = h.boot_dir + "/checkmachine",
                      report = h.boot_dir + "//.checkmachinetxt", word = "'" + report + "'";
    for (const ReportCase& c : kReports) {
        SCOPED_TRACE(c.reply + c.log_line);
        pid_t responder = c.metadata.empty() ? -1 : meta::serve({{c.metadata}});
        AgentHarness::write_file(source, c.report);
        AgentHarness::write_script(script, "cat '" + source + "'\nexit " + std::to_string(c.status) + "\n");
        Reply r = rpc(h, EA_PROC_CHECK_MACHINE, exec_args("'" + script + "'", true), 60000);
        meta::stop(responder);
        EXPECT_EQ(c.ret, num(r, "ret"));
        EXPECT_EQ(c.reply, text(r, "str"));
        EXPECT_EQ((long long)c.reply.size(), num(r, "retmsg_len"));
        EXPECT_EQ(c.reply.empty(), AgentHarness::exists(report)) << "a report read is removed";
        EXPECT_NE(std::string::npos, h.log().find(c.log_line));
        unlink(report.c_str());
    }
    EXPECT_NE(std::string::npos, h.log().find("touch " + word + " >/dev/null 2>&1; chmod 666 " +
                                               word + " >/dev/null 2>&1; '" + script + "' >" +
                                               word + " 2>/dev/null"));
}

TEST(CheckMachine, LockQueryAnswersOnlyTheExactCommand)
{
    const char *kDir = "/var/lib/kvx_cache", *kFile = "/var/lib/kvx_cache/backup.bat";
    if (access("/etc/.kvx", R_OK) == 0)
        GTEST_SKIP() << "/etc/.kvx decides the product lock here; not touching it";
    if (system("ps -e -o comm | grep -q kvxbackupvol") == 0)   /* process names are machine-wide */
        GTEST_SKIP() << "a backup program of another agent runs on this machine";
    bool made_dir = mkdir(kDir, 0755) == 0, made_file = access(kFile, F_OK) != 0;
    std::shared_ptr<void> undo(nullptr, [=](void*) {   /* once the agent has ended */
        if (made_file)
            unlink(kFile);
        if (made_dir)
            rmdir(kDir);
    });
    AgentHarness h;
    ASSERT_TRUE(h.start());
    const std::string query = "kvx_ea_check_set_lock.cmd";
    Reply r = rpc(h, EA_PROC_CHECK_MACHINE, exec_args(query, true));
    long long held = num(r, "ret");
    EXPECT_GE(held, 0) << "the agent holds the product lock: its descriptor\n" << h.log();
    EXPECT_EQ(0, num(r, "retmsg_len"));

    std::string vol = h.root + "/kvxbackupvol";   /* a sleep by that name */
    ASSERT_EQ(0, system(("cp /bin/sleep " + vol).c_str()));
    pid_t backup = fork();
    if (backup == 0) {
        execl(vol.c_str(), "kvxbackupvol", "60", (char*)nullptr);
        _exit(127);
    }
    ASSERT_TRUE(wait_exec(backup, "kvxbackupvol"));
    EXPECT_EQ(-2, num(rpc(h, EA_PROC_CHECK_MACHINE, exec_args(query, true)), "ret"));
    kill(backup, SIGKILL);
    waitpid(backup, nullptr, 0);
    EXPECT_EQ(1, log_count(h.log(), "ea_svc", 0, "check_machine: kvxbackupvol already running, pid=" +
                                                     std::to_string(backup) + "."));
    EXPECT_EQ(held, num(rpc(h, EA_PROC_CHECK_MACHINE, exec_args(query, true)), "ret"));

    for (std::string cmd : {query + " ", " " + query, query.substr(0, 24), "touch " + h.root + "/ran"}) {
        SCOPED_TRACE("'" + cmd + "'");
        EXPECT_EQ(0, num(rpc(h, EA_PROC_CHECK_MACHINE, exec_args(cmd, true)), "ret")) << "root account";
        EXPECT_EQ(1, log_count(h.log(), "ea_svc", 0, "check_machine: invalid checkmachine command (" + cmd + ")"));
    }
    EXPECT_FALSE(AgentHarness::exists(h.root + "/ran"));
}

TEST(CheckMachine, RejectedAccountRunsNothing)
{
    AgentHarness h;
    AgentHarness::write_script(h.boot_dir + "/checkmachine", "touch " + h.root + "/ran\n");
    h.run_as(65534, 65534);
    ASSERT_TRUE(h.start());
    Reply r = rpc(h, EA_PROC_CHECK_MACHINE,
                  exec_args(h.boot_dir + "/checkmachine", true, false, 0, "root", "not-the-root-pw"), 90000);
    EXPECT_EQ(7003, num(r, "ret"));
    EXPECT_EQ(0, num(r, "retmsg_len"));
    EXPECT_FALSE(AgentHarness::exists(h.root + "/ran"));
    EXPECT_EQ(std::string::npos, h.log().find("not-the-root-pw"));
}

using kvxtest::Account;
using kvxtest::AccountKind;

/* What the probes find here, run as root in this process (logging nowhere). */
void expect_this_machine(const Reply& r)
{
    ZELInitLogger("/dev/null", 3);
    EXPECT_EQ(detect_vm_info(), num(r, "type"));
    EXPECT_EQ(get_pv_sockets(), num(r, "socks"));
    EXPECT_EQ(is_oracle_uek(), num(r, "isuek"));
}

TEST(VmDetectService, RootAgentReportsThisMachineAndLocalJob)
{
    AgentHarness h;
    ASSERT_TRUE(h.start());
    const std::string uuid = "5d0c7a2e-0b7e-4b51-9f3a-" + std::to_string(getpid());
    /* a UUID that a shell would take apart stays one word: nothing of it runs */
    const std::string hostile = "x\"; touch " + h.root + "/pwned; echo \"";
    const struct { std::string uuid; int job_running; } rows[] = {{uuid, 0}, {uuid, 1}, {hostile, 0}};
    for (const auto& row : rows) {
        pid_t job = row.job_running ? fork() : -1;   /* a job script: "jobscript-<uuid> 30" */
        if (job == 0) {
            execl("/bin/sleep", ("jobscript-" + row.uuid).c_str(), "30", (char*)nullptr);
            _exit(127);
        }
        if (job > 0) {
            ASSERT_TRUE(wait_exec(job, "jobscript-" + row.uuid));
        }
        Reply r = rpc(h, EA_PROC_VMDETECT, exec_args(row.uuid, false));
        if (job > 0 && kill(job, SIGKILL) == 0)
            waitpid(job, nullptr, 0);
        EXPECT_EQ(row.job_running, num(r, "local"));
        expect_this_machine(r);
    }
    EXPECT_EQ(2, log_count(h.log(), "ea_svc", 0, "detect_vm_info_svc: UUID=" + uuid + "."));
    EXPECT_FALSE(AgentHarness::exists(h.root + "/pwned"));
}

TEST(VmDetectService, OrdinaryAgentRunsAsRootThroughSudoOrSu)
{
    KVXT_REQUIRE_SUDO();
    const kvxtest::TestAccount& alias = Account(AccountKind::RootAlias);
    /* sudo without a password (flag set, the agent in a directory with a blank:
     * its path is one word), sudo with one, su to a root account */
    for (AccountKind kind : {AccountKind::SudoNoPassword, AccountKind::SudoPassword, AccountKind::Runner}) {
        const kvxtest::TestAccount& agent = Account(kind);
        SCOPED_TRACE(agent.name);
        bool blank = kind == AccountKind::SudoNoPassword;
        AgentHarness h(blank ? "kvx node" : "");
        h.run_as(agent.uid, agent.gid);
        ASSERT_TRUE(h.start());
        bool su = kind == AccountKind::Runner, sudo_pw = kind == AccountKind::SudoPassword;
        std::string user = su ? alias.name : "", pwd = su ? alias.password : sudo_pw ? agent.password : "";
        std::string rerun = blank ? "'" + h.boot_dir + "//kvx_ea'" : h.boot_dir + "//kvx_ea";

        /* arguments that do not decode start neither su nor sudo */
        Reply r = rpc(h, EA_PROC_VMDETECT, "[]", 60000);
        EXPECT_EQ(0, num(r, "local"));
        EXPECT_EQ(std::string::npos, h.log().find("EA_CMD_DETECT_VM"));

        r = rpc(h, EA_PROC_VMDETECT, exec_args("no-such-job", false, false, 0, user, pwd), 60000);
        EXPECT_EQ(0, num(r, "local"));
        expect_this_machine(r);
        r = rpc(h, EA_PROC_EXEC_CMD, exec_args("id -u", true, false, 0, user, pwd, kind == AccountKind::SudoNoPassword), 60000);
        EXPECT_EQ("0", text(r, "str")) << "terminal output comes trimmed";

        std::string log = h.log();
        EXPECT_NE(std::string::npos, log.find(rerun + " EA_CMD_DETECT_VM > /dev/null 2>&1"));
        EXPECT_NE(std::string::npos, log.find(rerun + " EA_CMD_GET_SOCKS > /dev/null 2>&1"));
        EXPECT_TRUE(pwd.empty() || log.find(pwd) == std::string::npos);
    }
}

} /* namespace */
