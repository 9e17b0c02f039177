/*
 * foundation_testkit.h - small helpers for the log, exec, paths and I/O
 * layer tests: private temp directories, file reading, running a check in
 * a fresh forked process (the library caches state per process), and a
 * process-wide test log.
 */
#ifndef FOUNDATION_TESTKIT_H
#define FOUNDATION_TESTKIT_H

#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "zellog.h"

namespace fkit {

/* A private directory under /tmp, removed with its contents. */
struct TempDir {
    std::string path;
    TempDir()
    {
        char tmpl[] = "/tmp/kvx-foundation-XXXXXX";
        char* p = mkdtemp(tmpl);
        path = p != NULL ? p : "/tmp";
    }
    ~TempDir()
    {
        if (path.rfind("/tmp/kvx-foundation-", 0) == 0)
            (void)!system(("rm -rf '" + path + "'").c_str());
    }
    std::string operator/(const std::string& name) const { return path + "/" + name; }
};

inline std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

inline void WriteFile(const std::string& path, const std::string& text)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

inline bool Exists(const std::string& path)
{
    return access(path.c_str(), F_OK) == 0;
}

/* Number of open descriptors of this process. */
inline int OpenFdCount()
{
    int n = 0;
    DIR* d = opendir("/proc/self/fd");
    if (d == NULL)
        return -1;
    while (readdir(d) != NULL)
        n++;
    closedir(d);
    return n;
}

/*
 * Runs fn in a forked child; gtest failures there are printed by the child
 * and turned into its exit status.  Returns 0 when every check passed.
 */
template <class F>
int InChild(F fn)
{
    fflush(NULL);
    pid_t pid = fork();
    if (pid == 0) {
        fn();
        fflush(NULL);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int st = 0;
    if (pid < 0 || waitpid(pid, &st, 0) != pid)
        return -1;
    return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}

/*
 * The process-wide test log: configured once at level 6 in a private
 * directory, so library messages can be checked.  Only for test programs
 * that never need an unconfigured logger.
 */
class TestLog : public ::testing::Environment {
public:
    void SetUp() override
    {
        ZELInitLogger((dir_ / "test.log").c_str(), 6);
        /* open it now, so descriptor counts in the tests stay level */
        ZELLogFunction(0, "test", __LINE__, "test log opened\n");
    }
    static std::string Path() { return dir_ / "test.log"; }
    static std::string Text() { return ReadFile(Path()); }
    /* Log text written after a mark taken with Size(). */
    static size_t Size() { return Text().size(); }
    static std::string Since(size_t mark)
    {
        std::string t = Text();
        return mark < t.size() ? t.substr(mark) : std::string();
    }

private:
    static inline TempDir dir_;
};

}  // namespace fkit

#endif /* FOUNDATION_TESTKIT_H */
