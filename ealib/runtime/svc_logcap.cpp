/*
 * svc_logcap.cpp - the agent log kept bounded while serving (source name
 * "svc_main").
 */
#include <sys/stat.h>

#include "svc_logcap.h"
#include "zelfunc.h"
#include "zellog.h"

void svc_log_bound(const char* path, int lines)
{
    static long mark = -1;   /* size after the last trim */
    struct stat st;

    if (stat(path, &st) != 0)
        return;
    if (mark < 0 || st.st_size < mark)
        mark = (long)st.st_size;
    if ((long)st.st_size - mark <= SVC_LOG_SLACK)
        return;
    ZELLimitLogLines(path, lines);
    CloseLogFile();   /* trimming made a new file: the next line opens that one */
    mark = stat(path, &st) == 0 ? (long)st.st_size : 0;
}
