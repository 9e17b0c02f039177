/*
 * test_accounts.cpp - making and removing the kvxt_ test accounts, and
 * running code as one of them in a forked child.
 */
#include "test_accounts.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vector>

namespace kvxtest {
namespace {

/* In AccountKind order; distinctive passwords, so a test can look for them in logs. */
const char* const kAccounts[][2] = {
    { "kvxt_run", "Kvxt-Run-4e1c8b" },       { "kvxt_sudopw", "Kvxt-SudoPw-93ab7d" },
    { "kvxt_sudonp", "Kvxt-SudoNp-2f60e1" }, { "kvxt_plain", "Kvxt-Plain-7f3e9a" },
    { "kvxt_root0", "Kvxt-Root0-c51d24" },
};
const char* const kSudoers = "/etc/sudoers.d/kvxt_accounts";
const char* const kCaseSudoers = "/etc/sudoers.d/kvxt_case_";   /* + pid: one per process */
const char* const kLocaleMark = ".kvxt_made";   /* in a locale directory the tests generated */
const char* const kSudoRules =
    "Defaults:kvxt_run,kvxt_sudopw,kvxt_sudonp,kvxt_plain timestamp_timeout=0, "
    "!mail_badpass, !mail_no_user, !mail_no_perms, passwd_tries=3, lecture=never\n"
    "kvxt_sudopw ALL=(ALL:ALL) SETENV: ALL\nkvxt_sudonp ALL=(ALL:ALL) NOPASSWD: SETENV: ALL\n";

std::vector<TestAccount> g_accounts;
pid_t g_owner;           /* the process that made them; only it removes them */
std::string g_failure;   /* why they cannot be made, once known */

/* Runs a shell command quietly; its exit status, or -1. */
int Shell(const std::string& cmd)
{
    int r = system(("{ " + cmd + "; } >/dev/null 2>&1").c_str());
    return r != -1 && WIFEXITED(r) ? WEXITSTATUS(r) : -1;
}

/* Installs /etc/sudoers.d/<name> once visudo -c passed its staged copy (sudo skips names with a dot); true if so. */
bool InstallRules(const std::string& name, const std::string& rules)
{
    std::string stage = "/etc/sudoers.d/." + name + ".new";
    return Shell("umask 337 && printf '%s' '" + rules + "' >" + stage + " && visudo -cf " + stage + " && mv " + stage +
                 " /etc/sudoers.d/" + name) == 0;
}

/* Adds the users, sets their passwords and installs the sudo rules; "" or why not. */
std::string MakeAll()
{
    for (size_t i = 0; i < sizeof(kAccounts) / sizeof(kAccounts[0]); i++) {
        std::string name = kAccounts[i][0], uid0 = i == (size_t)AccountKind::RootAlias ? "-N -g 0 -o -u 0 " : "";
        struct passwd* pw = NULL;
        if (Shell("useradd -M -d /nonexistent -s /bin/sh " + uid0 + name) != 0 ||
            Shell("echo '" + name + ":" + kAccounts[i][1] + "' | chpasswd") != 0 ||
            (pw = getpwnam(name.c_str())) == NULL)
            return "useradd, chpasswd or getpwnam failed for " + name;
        g_accounts.push_back(TestAccount{ name, kAccounts[i][1], pw->pw_uid, pw->pw_gid });
    }
    /* without sudo the sudo accounts simply have no rights; visudo checks the rules first */
    if (access("/etc/sudoers.d", F_OK) == 0 && !InstallRules("kvxt_accounts", kSudoRules))
        return "sudo rules did not pass visudo -c";
    return "";
}

}  // namespace

std::string AccountsUnavailable()
{
    if (geteuid() != 0)
        return "not running as root";
    for (const char* prog : { "useradd", "userdel", "chpasswd", "su" })
        if (Shell(std::string("command -v ") + prog) != 0)
            return std::string(prog) + " is not installed";
    return "";
}

std::string SudoUnavailable()
{
    return Shell("command -v sudo") != 0 ? "sudo is not installed" : AccountsUnavailable();
}

bool EnsureAccounts(std::string* why)
{
    if (g_accounts.empty() && g_failure.empty()) {   /* a forked child sees its parent's */
        g_failure = AccountsUnavailable();
        if (g_failure.empty()) {
            /* once: one process on the machine at a time uses them, the lock held until exit */
            [[maybe_unused]] static int locked = flock(open("/run/lock/kvxt_accounts", O_RDWR | O_CREAT | O_CLOEXEC, 0600), LOCK_EX),
                                        atExit = atexit([] { if (g_owner == getpid()) RemoveAccounts(); });
            RemoveAccounts();   /* leftovers of an earlier, crashed run */
            g_owner = getpid();
            if (!(g_failure = MakeAll()).empty())
                RemoveAccounts();
        }
    }
    *why = g_failure;
    return g_failure.empty();
}

void RemoveAccounts()
{
    unlink(kSudoers);
    /* the lock holder's leftovers too: staged and case rules, generated locales of a crashed run */
    Shell(std::string("rm -f ") + kCaseSudoers + "* /etc/sudoers.d/.kvxt_*");
    Shell(std::string("for m in /usr/lib/locale/*/") + kLocaleMark + "; do [ -e \"$m\" ] && rm -rf \"${m%/*}\"; done");
    for (const auto& s : kAccounts)   /* a uid-0 account always looks busy: forced */
        if (getpwnam(s[0]) != NULL && Shell(std::string("userdel ") + s[0]) != 0)
            Shell(std::string("userdel -f ") + s[0]);
    g_accounts.clear();
}

const TestAccount& Account(AccountKind kind)
{
    static const TestAccount none{ "", "", (uid_t)-1, (gid_t)-1 };
    std::string why;
    if (EnsureAccounts(&why))
        return g_accounts[(size_t)kind];
    ADD_FAILURE() << "test accounts: " << why;
    return none;
}

std::string EnsureLocale(const std::string& locale)
{
    std::string dir = "/usr/lib/locale/" + locale + ".utf8", why;
    if (!EnsureAccounts(&why))   /* the lock, and the removal at exit */
        return why;
    if (Shell("locale -a | grep -qx " + locale + ".utf8") == 0)
        return "";
    if (Shell("localedef -i " + locale + " -f UTF-8 --no-archive " + locale + ".UTF-8 && touch " + dir + "/" +
              kLocaleMark) != 0)
        return "localedef failed for " + locale;
    return "";
}

SudoDefaults::SudoDefaults(const std::string& defaults)
{
    ok = defaults.empty() ||
         InstallRules("kvxt_case_" + std::to_string(getpid()), "Defaults:kvxt_sudopw,kvxt_sudonp " + defaults + "\n");
}

SudoDefaults::~SudoDefaults()
{
    unlink((kCaseSudoers + std::to_string(getpid())).c_str());
}

ChildResult RunAs(const TestAccount& acct, const std::function<int(std::string&)>& fn,
                  int timeoutSec)
{
    ChildResult res;
    /* the report goes to a memory file: no size limit, no reader to keep alive */
    int fd = acct.name.empty() ? -1 : memfd_create("kvxt-runas", MFD_CLOEXEC);
    fflush(NULL);
    pid_t pid = fd < 0 ? -1 : fork();
    if (pid == 0) {
        gid_t gid = acct.gid;
        if (setgroups(1, &gid) != 0 || setgid(acct.gid) != 0 || setuid(acct.uid) != 0)
            _exit(120);
        for (const char* var : { "USER", "LOGNAME" })
            setenv(var, acct.name.c_str(), 1);
        std::string text, report = std::to_string(fn(text)) + "\n";
        report += text;
        _exit(write(fd, report.data(), report.size()) == (ssize_t)report.size() ? 0 : 121);
    }
    int st = 0;
    for (int polls = 0; pid > 0 && waitpid(pid, &st, WNOHANG) == 0; polls++)
        if (polls < timeoutSec * 50)
            usleep(20000);
        else
            kill(pid, SIGKILL);
    std::string data(fd < 0 ? 0 : (size_t)lseek(fd, 0, SEEK_END), '\0');
    if (fd >= 0 && pread(fd, &data[0], data.size(), 0) != (ssize_t)data.size())
        data.clear();
    close(fd);   /* -1 when there was none: harmless */
    res.finished = pid > 0 && WIFEXITED(st) && WEXITSTATUS(st) == 0 && data.find('\n') != std::string::npos;
    if (!res.finished)   /* wait status 9: killed after its time-out */
        res.error = pid < 0 ? "no account, or fork failed" : "child failed, wait status " + std::to_string(st);
    else
        res.code = atoi(data.c_str()), res.text = data.substr(data.find('\n') + 1);
    return res;
}

}  // namespace kvxtest
