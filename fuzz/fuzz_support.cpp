/*
 * fuzz_support.cpp - set-up shared by the fuzz targets.
 *
 * The agent's libraries log to a file under ZEL_LOG_BASE_DIR (and the
 * protocol trace to $KVXSVR_HOME/logs when KVXEALIB_DEBUG is set).  Both
 * point into a fresh directory under $TMPDIR, removed at exit, so a run
 * never writes next to the sources.  Log levels stay as configured.
 */
#include <filesystem>
#include <string>

#include "fuzz_support.h"
#include "zellog.h"

static std::string g_log_dir;

/* Called by libFuzzer once, before the first input. */
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    const char* tmp = getenv("TMPDIR");
    std::string dir = std::string(tmp != NULL && tmp[0] != '\0' ? tmp : "/tmp") + "/kvx_fuzz.XXXXXX";
    FUZZ_CHECK(mkdtemp(&dir[0]) != NULL);
    std::filesystem::create_directory(dir + "/logs");
    g_log_dir = dir;
    setenv(ZEL_LOG_BASE_DIR_ENV, dir.c_str(), 1);
    setenv("KVXSVR_HOME", dir.c_str(), 1);
    atexit([] {
        std::error_code ec;
        std::filesystem::remove_all(g_log_dir, ec);
    });
    return 0;
}
