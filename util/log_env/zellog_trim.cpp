/*
 * zellog_trim.cpp - keeping a log file to its newest lines (source name
 * "zellog").
 *
 * Trimming runs "wc -l" and "sed -i" through the execution layer, which logs
 * through zellog.cpp; keeping it in a file of its own leaves the log facility
 * itself free of any call back into the execution layer.
 */
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>

#include "zelfunc.h"
#include "zellog.h"
#include "zeltrust.h"

/* Line count through "wc -l"; 0 when the command fails or prints nothing. */
int GetFileLines(const char* path)
{
    /* the path is one word whatever it holds ("wc -l \"...\"" when it is safe) */
    char* cmd = zel_shell_cmdline("wc -l %W", path);
    char out[129];

    int n = cmd != NULL ? zel_shell_capture(cmd, out, sizeof(out), NULL) : -1;

    free(cmd);
    if (n <= 0)
        return 0;
    return atoi(out);
}

/*
 * Keeps the newest linesLeft lines of file, deleting the oldest with
 * "sed -i".  0 when nothing had to go, else the command's decoded status.
 */
int LimitFileLines(const char* file, int linesLeft)
{
    int count = GetFileLines(file);
    char* cmd;
    int rc;

    if (count <= linesLeft)
        return 0;
    cmd = zel_shell_cmdline("sed -i '1,%d d' %W", count - linesLeft, file);
    if (cmd == NULL)
        return -1;
    rc = ExecuteCmdSilently(cmd);
    free(cmd);
    return rc;
}

/* Same as LimitFileLines(), for the log file. */
int ZELLimitLogLines(const char* log, int linesLeft)
{
    zel_trusted t;
    int rc = zel_trust_open_path(log, O_RDONLY, 0, 0, &t);
    int err = errno;

    zel_trust_close(&t);
    /* a log root may not trust is neither counted nor rewritten: wc and sed would follow its links */
    if (rc != 0 && err != ENOENT)
        return 0;
    return LimitFileLines(log, linesLeft);
}

