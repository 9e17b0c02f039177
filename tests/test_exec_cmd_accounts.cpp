/*
 * Procedure 3 from an agent that runs under an ordinary account: commands
 * run as that account, or as root through su or sudo with the request's
 * account, and the first elevated account is the one the agent keeps.
 * Uses the kvxt_ test accounts and sudo rules: LOCKS machine.
 */
#include <gtest/gtest.h>

#include "test_accounts.h"
#include "test_exec_cmd_client.h"

namespace {

using kvxtest::Account;
using kvxtest::AccountKind;

struct ElevationCase {
    const char* name;
    AccountKind agent;       /* the account the agent runs as */
    bool su_root_alias;      /* request names kvxt_root0 (su), else no user */
    bool with_password;      /* the request carries the password that fits */
    int sudoflag;
    bool root_expected;
};

const ElevationCase kElevationCases[] = {
    {"no account data: the agent's own user", AccountKind::Runner, false, false, 0, false},
    {"sudo flag without password", AccountKind::SudoNoPassword, false, false, 1, true},
    {"sudo with password", AccountKind::SudoPassword, false, true, 0, true},
    {"su with the account's password", AccountKind::Runner, true, true, 0, true},
};

TEST(ExecCmdAccounts, CommandRunsAsTheRequestAsks)
{
    KVXT_REQUIRE_SUDO();
    for (const ElevationCase& c : kElevationCases) {
        SCOPED_TRACE(c.name);
        const kvxtest::TestAccount& agent = Account(c.agent);
        const kvxtest::TestAccount& alias = Account(AccountKind::RootAlias);
        AgentBox box;
        AgentHarness& h = *box;
        h.run_as(agent.uid, agent.gid);
        ASSERT_TRUE(h.start());

        ExecRequest rq;
        rq.cmd = "id -u";
        rq.msg_mode = true;
        rq.sudoflag = c.sudoflag;
        if (c.su_root_alias)
            rq.user = alias.name;
        if (c.with_password)
            rq.passwd = c.su_root_alias ? alias.password : agent.password;
        ExecReply r = exec_cmd(h, rq, 60000);
        ASSERT_EQ(0, r.rc);
        EXPECT_EQ(0, r.ret);
        /* popen output comes raw; terminal output is trimmed */
        EXPECT_EQ(c.root_expected ? "0" : std::to_string(agent.uid) + "\n", r.str);

        rq.msg_mode = false;
        rq.cmd = "test \"$(id -u)\" = 0";
        EXPECT_EQ(c.root_expected ? 0 : 1, exec_cmd(h, rq, 60000).ret);
        if (c.with_password)
            EXPECT_EQ(std::string::npos, h.log().find(rq.passwd));
    }
}

TEST(ExecCmdAccounts, FirstElevatedAccountIsKeptForCleanup)
{
    KVXT_REQUIRE_ACCOUNTS();
    const kvxtest::TestAccount& runner = Account(AccountKind::Runner);
    const kvxtest::TestAccount& alias = Account(AccountKind::RootAlias);
    const kvxtest::TestAccount& plain = Account(AccountKind::Plain);
    AgentBox box;
    AgentHarness& h = *box;
    /* The cleanup's driver unload shows which account ran it. */
    std::string uid_file = h.root + "/driverinstall.uid";
    h.add_stub("driverinstall", 0, "id -u >> " + uid_file);
    h.add_stub("killall");
    h.run_as(runner.uid, runner.gid);
    ASSERT_TRUE(h.start());

    const kvxtest::TestAccount* order[] = {&alias, &plain};
    for (const kvxtest::TestAccount* acct : order) {
        ExecRequest rq;
        rq.cmd = "true";
        rq.user = acct->name;
        rq.passwd = acct->password;
        ASSERT_EQ(0, exec_cmd(h, rq, 60000).rc);
    }
    h.signal_agent(SIGHUP);
    EXPECT_EQ(1, h.wait_exit(90));
    EXPECT_EQ("0\n", AgentHarness::read_file(uid_file));
    std::string log = h.log();
    const std::string cached = "exec_cmd_svc: Cached non root user su user.";
    size_t first = log.find(cached);
    EXPECT_NE(std::string::npos, first);
    EXPECT_EQ(std::string::npos, log.find(cached, first + 1));
    EXPECT_EQ(std::string::npos, log.find(alias.password));
    EXPECT_EQ(std::string::npos, log.find(plain.password));
}

} /* namespace */
