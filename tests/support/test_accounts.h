/*
 * test_accounts.h - throwaway kvxt_ accounts for su, sudo and account tests
 * (as root neither asks for a password), made on first use by one process on
 * the machine at a time and removed when it exits.  Users register with LOCKS machine.
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
    SudoPassword,    /* kvxt_sudopw: sudo asks for its password */
    SudoNoPassword,  /* kvxt_sudonp: sudo without a password */
    Plain,           /* kvxt_plain: ordinary account, no sudo rights */
    RootAlias        /* kvxt_root0: a second uid-0 account with its own password */
};

struct TestAccount {
    std::string name, password;
    uid_t uid;
    gid_t gid;
};

std::string AccountsUnavailable();  /* "" when accounts can be made here, else why not */
std::string SudoUnavailable();      /* "" when sudo is installed too, else why not */
bool EnsureAccounts(std::string* why);        /* false with *why when making them failed */
const TestAccount& Account(AccountKind kind);  /* made on first call; empty name and a failure if not */
void RemoveAccounts();                         /* now, with the sudo rules; also done at exit */

/* "" once locale (e.g. "de_DE", UTF-8) is there, generated with localedef if needed and then removed
 * with the accounts; else why not.  setuid sudo ignores LOCPATH, so it goes to the system's directory. */
std::string EnsureLocale(const std::string& locale);

/* A sudoers.d file of the test's own holding "Defaults:<users> <defaults>" while it lives. */
struct SudoDefaults {
    explicit SudoDefaults(const std::string& defaults);
    ~SudoDefaults();
    bool ok;
};

struct ChildResult {   /* what a RunAs child reported */
    bool finished = false;   /* the child ran fn to the end and reported */
    int code = 0;            /* fn's result */
    std::string text;        /* what fn put into its text argument */
    std::string error;       /* why finished is false */
};

/* Runs fn in a forked child dropped to acct (killed after timeoutSec); fn reports
 * through its result and text, not through gtest assertions. */
ChildResult RunAs(const TestAccount& acct, const std::function<int(std::string&)>& fn,
                  int timeoutSec = 120);

}  // namespace kvxtest

/* Skips the current test unless accounts can be made; fails it if making them failed. */
#define KVXT_REQUIRE_ACCOUNTS()                                               \
    do {                                                                      \
        std::string kvxt_why_ = kvxtest::AccountsUnavailable();               \
        if (!kvxt_why_.empty())                                               \
            GTEST_SKIP() << "needs test accounts: " << kvxt_why_;             \
        if (!kvxtest::EnsureAccounts(&kvxt_why_))                             \
            FAIL() << "test accounts: " << kvxt_why_;                         \
    } while (0)

/* Same, and also skips when sudo is not installed. */
#define KVXT_REQUIRE_SUDO()                                                   \
    do {                                                                      \
        if (!kvxtest::SudoUnavailable().empty())                              \
            GTEST_SKIP() << "needs sudo: " << kvxtest::SudoUnavailable();     \
        KVXT_REQUIRE_ACCOUNTS();                                              \
    } while (0)

#endif /* KVX_TEST_ACCOUNTS_H */
