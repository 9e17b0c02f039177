// foundation_testkit.h - temp dirs, fresh-process checks, a process-wide test log.
#ifndef FOUNDATION_TESTKIT_H
#define FOUNDATION_TESTKIT_H

#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

#include "zelutil.h"

namespace fkit {

struct TempDir {
    char path[32] = "/tmp/kvx-foundation-XXXXXX";
    TempDir() { (void)!mkdtemp(path); }
    ~TempDir() { std::error_code ec; std::filesystem::remove_all(path, ec); }
    std::string operator/(const std::string& name) const { return path + ("/" + name); }
};

inline std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

inline long OpenFdCount()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// Runs fn in a forked child (the library caches per process); 0: all checks passed.
template <class F>
int InChild(F fn)
{
    fflush(NULL);
    pid_t pid = fork();
    if (pid == 0) {
        fn();
        fflush(NULL);
        _exit(::testing::Test::HasFailure());
    }
    int st = -1;
    waitpid(pid, &st, 0);
    return st;
}

// The library's log at level 6 in a private directory.
class TestLog : public ::testing::Environment {
public:
    void SetUp() override
    {
        ZELInitLogger(path_.c_str(), 6);
        ZELLogFunction(0, "test", __LINE__, "opened now: descriptor counts stay level\n");
    }
    static size_t Size() { return ReadFile(path_).size(); }
    static std::string Since(size_t mark) { return ReadFile(path_).substr(mark); }
    // How often text was logged after a mark taken with Size().
    static int Count(size_t mark, const std::string& text)
    {
        std::string t = ReadFile(path_);
        int n = 0;
        for (size_t at = t.find(text, mark); at != std::string::npos; at = t.find(text, at + 1))
            n++;
        return n;
    }

private:
    static inline TempDir dir_;
    static inline std::string path_ = dir_ / "t.log";
};

}  // namespace fkit

#endif /* FOUNDATION_TESTKIT_H */
