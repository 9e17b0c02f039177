/*
 * Procedure 8 through the agent: report, instance id splice, size limits,
 * lock query and account check.  Holds the product lock and runs a process
 * named kvxbackupvol: LOCKS machine.
 */
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "metadata_testkit.h"
#include "test_exec_cmd_client.h"

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

} /* namespace */
