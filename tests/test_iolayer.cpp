/*
 * test_iolayer.cpp - the file I/O redirection layer of an agent that never
 * enables it: guarded call sites stay local, every wrapper refuses with a
 * trace line naming its caller.
 */
#include <fcntl.h>
#include <sys/stat.h>

#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "foundation_testkit.h"
#include "zelutil.h"

using fkit::TestLog;

namespace {

::testing::Environment* const kLog = ::testing::AddGlobalTestEnvironment(new TestLog);

TEST(IoLayer, NeverEnabledNorConnected)
{
    EXPECT_FALSE(zelsvc_enabled());
    size_t mark = TestLog::Size();
    EXPECT_FALSE(zelsvc_connected());
    EXPECT_NE(std::string::npos, TestLog::Since(mark).find("[RPC] Connected? no\n"));
}

struct WrapCase {
    const char* call;
    std::function<long()> invoke;   /* returns the wrapper's result as a number */
};

std::string TraceLine(int line, const char* call)
{
    char buf[256];
    snprintf(buf, sizeof(buf),
             "[RPC %4d:caller.cpp do_io] RPC connection broken or not ready while invoking %s!\n",
             line, call);
    return buf;
}

TEST(IoLayer, EveryWrapperRefusesWithTraceOfItsCaller)
{
    struct stat st;
    char buf[8];
    const WrapCase cases[] = {
        { "_errno", [] { return (long)_zswrap__errno(7, "caller.cpp", "do_io"); } },
        { "open", [] { return (long)_zswrap_open(7, "caller.cpp", "do_io", "/etc/hosts", O_RDONLY, 0); } },
        { "close", [] { return (long)_zswrap_close(7, "caller.cpp", "do_io", 0); } },
        { "read", [&] { return (long)_zswrap_read(7, "caller.cpp", "do_io", 0, buf, sizeof(buf)); } },
        { "write", [&] { return (long)_zswrap_write(7, "caller.cpp", "do_io", 1, buf, 0); } },
        { "stat", [&] { return (long)_zswrap_stat(7, "caller.cpp", "do_io", "/", &st); } },
        { "fstat", [&] { return (long)_zswrap_fstat(7, "caller.cpp", "do_io", 0, &st); } },
        { "access", [] { return (long)_zswrap_access(7, "caller.cpp", "do_io", "/", 0); } },
        { "unlink", [] { return (long)_zswrap_unlink(7, "caller.cpp", "do_io", "/nonexistent"); } },
        { "ExecuteCmd", [] { return (long)_zswrap_ExecuteCmd(7, "caller.cpp", "do_io", "true"); } },
        { "fopen", [] { return _zswrap_fopen(7, "caller.cpp", "do_io", "/etc/hosts", "r") ? 0L : -1L; } },
        { "getenv", [] { return _zswrap_getenv(7, "caller.cpp", "do_io", "PATH") ? 0L : -1L; } },
    };
    for (const WrapCase& c : cases) {
        SCOPED_TRACE(c.call);
        size_t mark = TestLog::Size();
        EXPECT_EQ(-1L, c.invoke());
        EXPECT_NE(std::string::npos, TestLog::Since(mark).find(TraceLine(7, c.call)));
    }
}

TEST(IoLayer, GuardedCallSiteStaysLocal)
{
    size_t mark = TestLog::Size();
    EXPECT_EQ(1, CheckFileProperty("/etc", FILE_DIRECTORY, 1));
    EXPECT_EQ(std::string::npos, TestLog::Since(mark).find("[RPC"));
}

}  // namespace
