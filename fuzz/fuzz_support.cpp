/*
 * fuzz_support.cpp - set-up shared by the fuzz targets.
 *
 * The agent's libraries log to a file under ZEL_LOG_BASE_DIR (and the
 * protocol trace to $KVXSVR_HOME/logs when KVXEALIB_DEBUG is set).  Both
 * point into a fresh directory under $TMPDIR, removed at exit, so a run
 * never writes next to the sources.  Log levels stay as configured.
 */
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fuzz_support.h"
#include "zellog.h"

static char g_log_dir[4096];

static int remove_entry(const char* path, const struct stat* st, int flag, struct FTW* ftw)
{
    return remove(path);
}

static void remove_log_dir(void)
{
    if (g_log_dir[0] != '\0')
        nftw(g_log_dir, remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}

/* Called by libFuzzer once, before the first input. */
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    const char* tmp = getenv("TMPDIR");
    char logs[4200];

    snprintf(g_log_dir, sizeof(g_log_dir), "%s/kvx_fuzz.XXXXXX",
             tmp != NULL && tmp[0] != '\0' ? tmp : "/tmp");
    if (mkdtemp(g_log_dir) == NULL) {
        perror("fuzz: mkdtemp");
        exit(1);
    }
    snprintf(logs, sizeof(logs), "%s/logs", g_log_dir);
    if (mkdir(logs, 0755) != 0) {
        perror("fuzz: mkdir");
        exit(1);
    }
    setenv(ZEL_LOG_BASE_DIR_ENV, g_log_dir, 1);
    setenv("KVXSVR_HOME", g_log_dir, 1);
    atexit(remove_log_dir);
    return 0;
}

void fuzz_fail(const char* file, int line, const char* what)
{
    fprintf(stderr, "==%d== FUZZ CHECK FAILED at %s:%d: %s\n", (int)getpid(), file, line, what);
    abort();
}

char* fuzz_strndup(const uint8_t* data, size_t size)
{
    char* s = (char*)malloc(size + 1);

    if (s == NULL)
        abort();
    if (size > 0)
        memcpy(s, data, size);
    s[size] = '\0';
    return s;
}
