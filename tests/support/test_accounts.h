/*
 * test_accounts.h - throwaway login accounts for tests of su, sudo and
 * account checks, and a way to run code as one of them.
 *
 * As root, su and sudo never ask for a password, so a test that wants to see
 * a prompt forks, drops to one of these accounts and runs the code under
 * test there (RunAs), collecting an int and a text over a pipe.
 *
 * The accounts are made on first use (useradd, passwords through chpasswd,
 * sudo rules in /etc/sudoers.d/kvxt_accounts) and removed again when the
 * process that made them exits; leftovers of a crashed run are removed
 * before they are made again.  root's own password is never touched.
 * Every test that uses them must be registered with LOCKS machine.
 *
 *     TEST(Su, RightPassword) {
 *         KVXT_REQUIRE_ACCOUNTS();
 *         const kvxtest::TestAccount& plain = kvxtest::Account(kvxtest::AccountKind::Plain);
 *         kvxtest::ChildResult r = kvxtest::RunAs(
 *             kvxtest::Account(kvxtest::AccountKind::Runner),
 *             [&](std::string& text) { return CheckRootUser(plain.name.c_str(), ...); });
 *         ASSERT_TRUE(r.finished) << r.error;
 *     }
 */
#ifndef KVX_TEST_ACCOUNTS_H
#define KVX_TEST_ACCOUNTS_H

#include <sys/types.h>
#include <functional>
#include <string>

#include <gtest/gtest.h>

namespace kvxtest {

enum class AccountKind {
    Runner,          /* kvxt_run: unprivileged, no sudo rights; code runs as it */
    SudoPassword,    /* kvxt_sudopw: sudo rights, sudo asks for its password */
    SudoNoPassword,  /* kvxt_sudonp: sudo rights without a password */
    Plain,           /* kvxt_plain: ordinary account, uid > 0, no sudo rights */
    RootAlias        /* kvxt_root0: a second uid-0 account with its own password */
};

struct TestAccount {
    std::string name;
    std::string password;
    uid_t uid;
    gid_t gid;
};

/* Empty when accounts can be made here (root, useradd, chpasswd); else why not. */
std::string AccountsUnavailable();
/* Empty when sudo is installed (and accounts can be made); else why not. */
std::string SudoUnavailable();

/*
 * The account of that kind, made (with all the others) on first call.
 * Aborts the calling test with a fatal failure message in the returned
 * account's name when they could not be made; check AccountsUnavailable()
 * (or use KVXT_REQUIRE_ACCOUNTS) first.
 */
const TestAccount& Account(AccountKind kind);
/* False with *why filled when making the accounts failed. */
bool EnsureAccounts(std::string* why);
/* Removes the accounts and the sudo rules now (also done at exit). */
void RemoveAccounts();

/* What a RunAs child reported. */
struct ChildResult {
    bool finished = false;   /* the child ran fn to the end and reported */
    int code = 0;            /* fn's result */
    std::string text;        /* what fn put into its text argument */
    std::string error;       /* why finished is false */
};

/*
 * Forks, drops to acct (supplementary groups, gid, uid; USER, LOGNAME set)
 * and runs fn there; the child never returns into the test.  fn must not
 * use gtest assertions: it reports through its result and text.  The child
 * is killed after timeoutSec seconds.
 */
ChildResult RunAs(const TestAccount& acct, const std::function<int(std::string&)>& fn,
                  int timeoutSec = 120);

}  // namespace kvxtest

/* Skips the current test unless accounts can be made and were made. */
#define KVXT_REQUIRE_ACCOUNTS()                                               \
    do {                                                                      \
        std::string kvxt_why_ = kvxtest::AccountsUnavailable();               \
        if (kvxt_why_.empty() && !kvxtest::EnsureAccounts(&kvxt_why_))        \
            FAIL() << "test accounts: " << kvxt_why_;                         \
        if (!kvxt_why_.empty())                                               \
            GTEST_SKIP() << "needs test accounts: " << kvxt_why_;             \
    } while (0)

/* Same, and also skips when sudo is not installed. */
#define KVXT_REQUIRE_SUDO()                                                   \
    do {                                                                      \
        std::string kvxt_why_ = kvxtest::SudoUnavailable();                   \
        if (!kvxt_why_.empty())                                               \
            GTEST_SKIP() << "needs sudo: " << kvxt_why_;                      \
        KVXT_REQUIRE_ACCOUNTS();                                              \
    } while (0)

#endif /* KVX_TEST_ACCOUNTS_H */
