/*
 * check_root_account: how the commands for an account supplied by the
 * server must run.  Cases other than the root agent run the check in a
 * child dropped to a throwaway account, with su and sudo for real.
 */
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>
#include <sys/wait.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "agent_harness.h"
#include "ea_svc.h"
#include "test_accounts.h"
#include "test_runtime_support.h"
#include "zellog.h"

namespace {

using kvxtest::AccountKind;

TEST(RootAccount, RootAgentRunsDirectlyWhateverTheCredentials)
{
    ASSERT_EQ(geteuid(), 0u);
    EXPECT_EQ(check_root_account("kvxt_nobody_here", "wrong"), 0);
    EXPECT_EQ(check_root_account(NULL, NULL), 0);
}

/* Who the server names, as seen from an unprivileged agent. */
enum class Cred { PlainRight, PlainWrong, RootAliasRight, NoUserNoPassword, NoUserWrongPassword };

struct AccountCase {
    const char* name;
    AccountKind agent;   /* the account the agent runs as */
    Cred cred;
    bool hide_sudo;      /* PATH without sudo */
    int result;
    bool logs_failure;   /* "failed to CheckRootUser" logged */
};

const AccountCase kAccountCases[] = {
    {"OrdinaryAccountIsNotRoot", AccountKind::Runner, Cred::PlainRight, false, 7002, false},
    {"WrongSuPasswordIsRejected", AccountKind::Runner, Cred::PlainWrong, false, 7003, true},
    {"SecondRootAccountReachesRoot", AccountKind::Runner, Cred::RootAliasRight, false, 1, false},
    {"SudoWithoutPasswordReachesRoot", AccountKind::SudoNoPassword, Cred::NoUserNoPassword, false, 1,
     false},
    {"WrongSudoPasswordIsRejected", AccountKind::Runner, Cred::NoUserWrongPassword, false, 7013,
     true},
    {"MissingSudo", AccountKind::Runner, Cred::NoUserNoPassword, true, 7012, true},
};

class RootAccountAs : public ::testing::TestWithParam<AccountCase> {};

TEST_P(RootAccountAs, AnswersHowToRunCommands)
{
    const AccountCase& c = GetParam();
    KVXT_REQUIRE_ACCOUNTS();
    if (c.agent == AccountKind::SudoNoPassword || c.cred == Cred::NoUserWrongPassword)
        KVXT_REQUIRE_SUDO();

    std::string user, pwd;
    const kvxtest::TestAccount& plain = kvxtest::Account(AccountKind::Plain);
    const kvxtest::TestAccount& alias = kvxtest::Account(AccountKind::RootAlias);
    switch (c.cred) {
    case Cred::PlainRight: user = plain.name; pwd = plain.password; break;
    case Cred::PlainWrong: user = plain.name; pwd = "not-the-password"; break;
    case Cred::RootAliasRight: user = alias.name; pwd = alias.password; break;
    case Cred::NoUserNoPassword: break;
    case Cred::NoUserWrongPassword: pwd = "not-the-password"; break;
    }

    char tmpl[] = "/tmp/kvxtacct.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    std::string dir = tmpl;
    chmod(dir.c_str(), 01777);
    std::string path_env = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
    if (c.hide_sudo) {
        ASSERT_EQ(symlink("/usr/bin/which", (dir + "/which").c_str()), 0);
        path_env = dir;
    }

    kvxtest::ChildResult r = kvxtest::RunAs(kvxtest::Account(c.agent), [&](std::string& text) {
        setenv("PATH", path_env.c_str(), 1);
        ZELInitLogger((dir + "/agent.log").c_str(), 3);
        return check_root_account(user.c_str(), pwd.c_str());
    });
    ASSERT_TRUE(r.finished) << r.error;
    EXPECT_EQ(r.code, c.result);
    std::string log = AgentHarness::read_file(dir + "/agent.log");
    EXPECT_EQ(log_count(log, "ea_svc", 122, "check_root_account: failed to CheckRootUser"),
              c.logs_failure ? 1 : 0)
        << log;
    (void)!system(("rm -rf " + dir).c_str());
}

INSTANTIATE_TEST_SUITE_P(Accounts, RootAccountAs, ::testing::ValuesIn(kAccountCases),
                         [](const ::testing::TestParamInfo<AccountCase>& i) { return i.param.name; });

} /* namespace */

namespace {

/* A non-root agent that cached an account cleans the target through it. */
TEST(RootAccountCleanup, NonRootAgentCleansThroughCachedAccount)
{
    KVXT_REQUIRE_ACCOUNTS();
    const kvxtest::TestAccount& runner = kvxtest::Account(AccountKind::Runner);
    const kvxtest::TestAccount& alias = kvxtest::Account(AccountKind::RootAlias);
    HarnessPtr hp(new AgentHarness);
    AgentHarness& h = *hp;
    std::string journal = h.root + "/journal";
    add_cleanup_stubs(h, journal);
    add_journal_stub(h, journal, "driverinstall", 0, "echo \"uid $(id -u)\" >> " + journal);
    std::vector<std::string> staged = stage_product_files(h);
    h.run_as(runner.uid, runner.gid);
    ASSERT_TRUE(h.start());

    json_t* p = json_pack("{s:s,s:b,s:b,s:i,s:s,s:s,s:i}", "str", ":", "msg_mode", 0,
                          "block_mode", 0, "jobid", 0, "user", alias.name.c_str(), "passwd",
                          alias.password.c_str(), "sudoflag", 0);
    char* param = json_dumps(p, 0);
    h.send_raw(request_line(1, 3, param));
    free(param);
    json_decref(p);
    json_t* r = read_reply(h, 30000);
    ASSERT_NE(r, nullptr);
    json_decref(r);

    h.signal_agent(SIGALRM);
    int parent = reap_parent(h, 120);
    EXPECT_TRUE(WIFSIGNALED(parent) && WTERMSIG(parent) == SIGKILL) << "parent status " << parent;
    ASSERT_EQ(h.wait_exit(60), 1);

    std::vector<std::string> want = {"driverinstall -u", "uid 0", "killall kvxagent",
                                     expected_rm_line(h)};
    EXPECT_EQ(read_lines(journal), want);
    for (const std::string& f : staged)
        EXPECT_FALSE(AgentHarness::exists(f)) << f;
    EXPECT_EQ(log_count(h.log(), "svc_main", 74, "cleanup_target started, non root user flag: 1."), 1);
}

} /* namespace */
