/*
 * Procedure 7 through the agent, as root and re-run through sudo or su by an
 * agent under an ordinary account (procedure 3 elevates the same way).
 * ps-wide queries and the kvxt_ accounts: LOCKS machine.
 */
#include <signal.h>

#include <gtest/gtest.h>

#include "test_accounts.h"
#include "test_exec_cmd_client.h"
#include "zelutil.h"

namespace {

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
