/*
 * jxdr_dlog.cpp - the protocol debug log.
 *
 * A trace of raw protocol traffic in $KVXSVR_HOME/logs/ealib.log, written
 * only when both KVXEALIB_DEBUG and KVXSVR_HOME are set; silent otherwise.
 * The file is opened and closed for every entry.
 */
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>
#include "jxdr.h"

#define DLOG_MSG_SIZE  10240
#define DLOG_PATH_SIZE 1024

static const char* dlog_basename(const char* path)
{
    const char* slash;

    if (!path)
        return "";
    slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}

/*
 * Appends "[time][prog:pid - file:line]message\n".  0 when written or when
 * the log is disabled, -1 when the file cannot be opened.  The message is
 * cut at 10239 characters.  format is a printf format: callers that log
 * received text must pass it as an argument ("%s"), never as the format.
 */
int dlog2(const char* filename, int line, const char* format, ...)
{
    const char* debug = getenv("KVXEALIB_DEBUG");
    const char* home = getenv("KVXSVR_HOME");
    char path[DLOG_PATH_SIZE];
    char stamp[80];
    char msg[DLOG_MSG_SIZE];
    struct tm tmv;
    time_t now;
    va_list ap;
    FILE* fp;

    if (!debug || !home)
        return 0;
    snprintf(path, DLOG_PATH_SIZE - 1, "%s/logs/ealib.log", home);
    fp = fopen64(path, "a+");
    if (!fp)
        return -1;

    now = time(NULL);
    stamp[0] = '\0';
    if (localtime_r(&now, &tmv))
        strftime(stamp, sizeof(stamp), "%Y-%m-%d %H:%M:%S", &tmv);

    va_start(ap, format);
    vsnprintf(msg, sizeof(msg), format ? format : "", ap);
    va_end(ap);

    fprintf(fp, "[%s][%s:%d - %s:%d]%s\n", stamp, program_invocation_short_name,
            (int)getpid(), dlog_basename(filename), line, msg);
    fclose(fp);
    return 0;
}

/* dlog2 without a source position.  The text is written as it is: it is
 * never interpreted as a format, so a stray "%" cannot read missing
 * arguments. */
int dlog(const char* format)
{
    return dlog2("unset", 0, "%s", format ? format : "");
}
