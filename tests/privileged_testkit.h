/*
 * privileged_testkit.h - helpers of the pseudo-terminal, su and sudo tests:
 * a private log at level 5 that forked children can write to, scratch
 * directories, descriptor counts, reaping of children left running on
 * purpose, and the root check run as a test account.
 */
#ifndef PRIVILEGED_TESTKIT_H
#define PRIVILEGED_TESTKIT_H

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "foundation_testkit.h"
#include "test_accounts.h"
#include "zelutil.h"

namespace ptk {

using fkit::OpenFdCount;
using fkit::ReadFile;

/*
 * A scratch directory under /tmp, world-writable so dropped children can use
 * it; kept for a look afterwards when KVX_KEEP_TEST_DIRS is set.
 */
struct ScratchDir {
    std::string path;
    ScratchDir()
    {
        char tmpl[] = "/tmp/kvx-privileged-XXXXXX";
        path = mkdtemp(tmpl) != NULL ? tmpl : "/tmp";
        chmod(path.c_str(), 01777);
    }
    ~ScratchDir()
    {
        if (getenv("KVX_KEEP_TEST_DIRS") == NULL && path.rfind("/tmp/kvx-privileged-", 0) == 0)
            (void)!system(("rm -rf '" + path + "'").c_str());
    }
    std::string operator/(const std::string& name) const { return path + "/" + name; }
};

/*
 * The process-wide log at level 5 in a scratch directory, opened before any
 * test forks (children inherit the open stream, whatever account they drop
 * to).  TARGET_WORK_DIR points into the scratch directory, so the agent's
 * library directory is Dir()/work/linux-kvx-client.
 */
class PrivilegedEnv : public ::testing::Environment {
public:
    void SetUp() override
    {
        mkdir((dir_ / "work").c_str(), 0777);
        setenv("TARGET_WORK_DIR", (dir_ / "work").c_str(), 1);
        ZELInitLogger((dir_ / "privileged.log").c_str(), 5);
        ZELLogFunction(0, "test", __LINE__, "privileged tests start\n");
    }
    static const ScratchDir& Dir() { return dir_; }
    static std::string LibDir() { return dir_ / "work/linux-kvx-client"; }
    static std::string LogText() { return ReadFile(dir_ / "privileged.log"); }
    static size_t Mark() { return LogText().size(); }
    static std::string Since(size_t mark)
    {
        std::string t = LogText();
        return mark < t.size() ? t.substr(mark) : std::string();
    }

private:
    static inline ScratchDir dir_;
};

/* Monotonic clock in seconds. */
inline double Seconds()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

inline int CountOf(const std::string& text, const std::string& what)
{
    int n = 0;
    for (size_t p = text.find(what); p != std::string::npos; p = text.find(what, p + what.size()))
        n++;
    return n;
}

/* Reaps every child that has ended (runs with block != 1 leave them behind). */
inline int ReapEnded()
{
    int n = 0;
    while (waitpid(-1, NULL, WNOHANG) > 0)
        n++;
    return n;
}

/* Pid written by a script into path, waiting up to 5 s for it to appear. */
inline pid_t WaitPidFile(const std::string& path)
{
    for (int i = 0; i < 100; i++) {
        std::string t = ReadFile(path);
        if (!t.empty() && t.back() == '\n')
            return (pid_t)atoi(t.c_str());
        usleep(50000);
    }
    return -1;
}

inline bool ProcessAlive(pid_t pid)
{
    int st;
    if (pid <= 0)
        return false;
    if (waitpid(pid, &st, WNOHANG) == pid)   /* our own child that has ended */
        return false;
    return kill(pid, 0) == 0;
}

inline void KillAndReap(pid_t pid)
{
    if (pid <= 0)
        return;
    kill(pid, SIGKILL);
    waitpid(pid, NULL, 0);
}

/* A null-terminated argument vector over owned strings. */
struct Argv {
    std::vector<std::string> items;
    std::vector<char*> ptrs;
    explicit Argv(std::vector<std::string> v) : items(std::move(v))
    {
        for (std::string& s : items)
            ptrs.push_back(&s[0]);
        ptrs.push_back(NULL);
    }
    char** get() { return ptrs.data(); }
};

/* argv for "bash -c <script>" (bash for read -t). */
inline Argv Bash(const std::string& script) { return Argv({ "bash", "-c", script }); }

/*
 * CheckRootUser(user, pwd) run as acct in a forked child: its result in
 * code, the uid it reported in text ("-5" when left untouched).
 */
inline kvxtest::ChildResult CheckRootAs(const kvxtest::TestAccount& acct, const std::string& user,
                                        const char* pwd)
{
    std::string password = pwd != NULL ? pwd : "";
    bool nullPwd = pwd == NULL;
    return kvxtest::RunAs(acct, [&](std::string& text) {
        int uid = -5;
        int rc = CheckRootUser(user.c_str(), nullPwd ? NULL : password.c_str(), &uid);
        text = std::to_string(uid);
        return rc;
    });
}

}  // namespace ptk

#endif /* PRIVILEGED_TESTKIT_H */
