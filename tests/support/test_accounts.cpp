/*
 * test_accounts.cpp - making and removing the kvxt_ test accounts, and
 * running code as one of them in a forked child.
 */
#include "test_accounts.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <vector>

namespace kvxtest {
namespace {

const char* const kSudoersFile = "/etc/sudoers.d/kvxt_accounts";
/* sudo skips files whose name holds a dot: the rules are staged under this one */
const char* const kSudoersStage = "/etc/sudoers.d/.kvxt_accounts.new";

struct AccountSpec {
    AccountKind kind;
    const char* name;
    const char* password;
    bool rootAlias;
};

/* Distinctive passwords, so a test can look for them in logs. */
const AccountSpec kSpecs[] = {
    { AccountKind::Runner,         "kvxt_run",    "Kvxt-Run-4e1c8b",     false },
    { AccountKind::SudoPassword,   "kvxt_sudopw", "Kvxt-SudoPw-93ab7d",  false },
    { AccountKind::SudoNoPassword, "kvxt_sudonp", "Kvxt-SudoNp-2f60e1",  false },
    { AccountKind::Plain,          "kvxt_plain",  "Kvxt-Plain-7f3e9a",   false },
    { AccountKind::RootAlias,      "kvxt_root0",  "Kvxt-Root0-c51d24",   true  },
};

const char* const kSudoRules =
    "# Throwaway accounts of the kvx_ea tests; removed when the tests end.\n"
    "Defaults:kvxt_run,kvxt_sudopw,kvxt_sudonp,kvxt_plain timestamp_timeout=0, "
    "!mail_badpass, !mail_no_user, !mail_no_perms, passwd_tries=3, lecture=never\n"
    "kvxt_sudopw ALL=(ALL:ALL) SETENV: ALL\n"
    "kvxt_sudonp ALL=(ALL:ALL) NOPASSWD: SETENV: ALL\n";

std::vector<TestAccount> g_accounts;
pid_t g_owner = 0;            /* the process that made them; only it removes them */
std::string g_failure;        /* why making them failed, once it did */

/* Runs a shell command quietly; its exit status, or -1. */
int Shell(const std::string& cmd)
{
    int r = system((cmd + " >/dev/null 2>&1").c_str());
    return r != -1 && WIFEXITED(r) ? WEXITSTATUS(r) : -1;
}

bool ProgramExists(const char* name)
{
    return Shell(std::string("command -v ") + name) == 0;
}

void DeleteUser(const char* name)
{
    if (getpwnam(name) == NULL)
        return;
    /* a uid-0 account always looks busy (root runs processes): force it */
    if (Shell(std::string("userdel ") + name) != 0)
        Shell(std::string("userdel -f ") + name);
}

void RemoveAll()
{
    unlink(kSudoersFile);
    unlink(kSudoersStage);
    for (const AccountSpec& s : kSpecs)
        DeleteUser(s.name);
}

void RemoveAtExit()
{
    if (g_owner == getpid())
        RemoveAccounts();
}

bool SetPasswords(std::string* why)
{
    FILE* p = popen("chpasswd", "w");
    if (p == NULL) {
        *why = std::string("popen(chpasswd): ") + strerror(errno);
        return false;
    }
    for (const AccountSpec& s : kSpecs)
        fprintf(p, "%s:%s\n", s.name, s.password);
    int r = pclose(p);
    if (r != 0) {
        *why = "chpasswd failed";
        return false;
    }
    return true;
}

bool InstallSudoRules(std::string* why)
{
    if (access("/etc/sudoers.d", F_OK) != 0)
        return true;     /* no sudo here: the sudo accounts simply have no rights */
    int fd = open(kSudoersStage, O_WRONLY | O_CREAT | O_TRUNC, 0440);
    if (fd < 0) {
        *why = std::string("open(") + kSudoersStage + "): " + strerror(errno);
        return false;
    }
    size_t len = strlen(kSudoRules);
    bool ok = write(fd, kSudoRules, len) == (ssize_t)len;
    close(fd);
    /* a broken sudoers file would lock everybody out of sudo: check it first */
    if (!ok || (ProgramExists("visudo") && Shell(std::string("visudo -cf ") + kSudoersStage) != 0)) {
        unlink(kSudoersStage);
        *why = "sudo rules did not pass visudo -c";
        return false;
    }
    if (rename(kSudoersStage, kSudoersFile) != 0) {
        *why = std::string("rename sudo rules: ") + strerror(errno);
        unlink(kSudoersStage);
        return false;
    }
    return true;
}

bool AddUsers(std::string* why)
{
    for (const AccountSpec& s : kSpecs) {
        std::string cmd = s.rootAlias
            ? std::string("useradd -M -N -g 0 -o -u 0 -d /nonexistent -s /bin/sh ") + s.name
            : std::string("useradd -M -d /nonexistent -s /bin/sh ") + s.name;
        if (Shell(cmd) != 0) {
            *why = "useradd " + std::string(s.name) + " failed";
            return false;
        }
        struct passwd* pw = getpwnam(s.name);
        if (pw == NULL) {
            *why = std::string("getpwnam(") + s.name + ") after useradd";
            return false;
        }
        g_accounts.push_back(TestAccount{ s.name, s.password, pw->pw_uid, pw->pw_gid });
    }
    return true;
}

/* Writes all of len bytes; false on error. */
bool WriteAll(int fd, const void* data, size_t len)
{
    const char* p = (const char*)data;
    while (len > 0) {
        ssize_t n = write(fd, p, len);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        p += n;
        len -= (size_t)n;
    }
    return true;
}

/* Reads what the child wrote until end of file or the deadline (ms, CLOCK_MONOTONIC). */
bool ReadAllUntil(int fd, std::string* out, long long deadlineMs)
{
    char buf[4096];
    for (;;) {
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        long long left = deadlineMs - (now.tv_sec * 1000LL + now.tv_nsec / 1000000);
        if (left <= 0)
            return false;
        struct pollfd pfd = { fd, POLLIN, 0 };
        int r = poll(&pfd, 1, (int)(left > 1000 ? 1000 : left));
        if (r < 0 && errno != EINTR)
            return false;
        if (r <= 0)
            continue;
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return true;
        out->append(buf, (size_t)n);
    }
}

void ChildBody(const TestAccount& acct, const std::function<int(std::string&)>& fn, int fd)
{
    gid_t gid = acct.gid;
    if (setgroups(1, &gid) != 0 || setgid(acct.gid) != 0 || setuid(acct.uid) != 0)
        _exit(120);
    setenv("USER", acct.name.c_str(), 1);
    setenv("LOGNAME", acct.name.c_str(), 1);

    std::string text;
    int code = fn(text);
    uint32_t len = (uint32_t)text.size();
    fflush(NULL);
    if (!WriteAll(fd, &code, sizeof(code)) || !WriteAll(fd, &len, sizeof(len)) ||
        !WriteAll(fd, text.data(), text.size()))
        _exit(121);
    _exit(0);
}

}  // namespace

std::string AccountsUnavailable()
{
    if (geteuid() != 0)
        return "not running as root";
    for (const char* prog : { "useradd", "userdel", "chpasswd", "su" })
        if (!ProgramExists(prog))
            return std::string(prog) + " is not installed";
    return "";
}

std::string SudoUnavailable()
{
    if (!ProgramExists("sudo"))
        return "sudo is not installed";
    return AccountsUnavailable();
}

bool EnsureAccounts(std::string* why)
{
    if (!g_accounts.empty())      /* made here, or by the parent of a forked child */
        return true;
    if (!g_failure.empty()) {
        *why = g_failure;
        return false;
    }
    std::string reason = AccountsUnavailable();
    if (!reason.empty()) {
        *why = reason;
        return false;
    }

    RemoveAll();                  /* leftovers of an earlier, crashed run */
    g_accounts.clear();
    g_owner = getpid();
    static bool registered = false;
    if (!registered) {
        atexit(RemoveAtExit);
        registered = true;
    }
    if (!AddUsers(&reason) || !SetPasswords(&reason) || !InstallSudoRules(&reason)) {
        RemoveAccounts();
        g_failure = reason;
        *why = reason;
        return false;
    }
    return true;
}

void RemoveAccounts()
{
    RemoveAll();
    g_accounts.clear();
}

const TestAccount& Account(AccountKind kind)
{
    static const TestAccount none{ "", "", (uid_t)-1, (gid_t)-1 };
    std::string why;
    if (!EnsureAccounts(&why)) {
        ADD_FAILURE() << "test accounts: " << why;
        return none;
    }
    for (size_t i = 0; i < g_accounts.size(); i++)
        if (kSpecs[i].kind == kind)
            return g_accounts[i];
    ADD_FAILURE() << "no test account of that kind";
    return none;
}

ChildResult RunAs(const TestAccount& acct, const std::function<int(std::string&)>& fn,
                  int timeoutSec)
{
    ChildResult res;
    int fds[2];

    if (acct.name.empty()) {
        res.error = "no such account";
        return res;
    }
    if (pipe2(fds, O_CLOEXEC) != 0) {
        res.error = std::string("pipe: ") + strerror(errno);
        return res;
    }
    fflush(NULL);
    pid_t pid = fork();
    if (pid < 0) {
        res.error = std::string("fork: ") + strerror(errno);
        close(fds[0]);
        close(fds[1]);
        return res;
    }
    if (pid == 0) {
        close(fds[0]);
        ChildBody(acct, fn, fds[1]);
    }
    close(fds[1]);

    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    std::string data;
    bool complete = ReadAllUntil(fds[0], &data, now.tv_sec * 1000LL + now.tv_nsec / 1000000 +
                                                    timeoutSec * 1000LL);
    close(fds[0]);
    if (!complete)
        kill(pid, SIGKILL);
    int st = 0;
    while (waitpid(pid, &st, 0) < 0 && errno == EINTR)
        ;

    uint32_t len = 0;
    if (!complete) {
        res.error = "child timed out after " + std::to_string(timeoutSec) + " s";
    } else if (data.size() < sizeof(int) + sizeof(len)) {
        res.error = "child reported nothing (wait status " + std::to_string(st) + ")";
    } else {
        memcpy(&res.code, data.data(), sizeof(int));
        memcpy(&len, data.data() + sizeof(int), sizeof(len));
        res.text = data.substr(sizeof(int) + sizeof(len), len);
        res.finished = true;
    }
    return res;
}

}  // namespace kvxtest
