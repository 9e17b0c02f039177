/*
 * zellog.cpp - the utility library's diagnostic log.
 *
 * One process-wide log file, configured by ZELInitLogger(), opened lazily by
 * the first line at or below the configured level and kept open until exit.
 * Every line carries a date/time stamp, the process and kernel thread ids,
 * the caller's line number and the base name of its source.
 */
#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include "zelfunc.h"
#include "zellog.h"
#include "zeltrust.h"
#include "kvx_version.h"

#define LOG_LINE_MAX     10240
#define LOG_PATH_MAX     4096
#define LOG_DEFAULT_NAME "kvx.log"
#define LOG_REPEAT_KEPT  32   /* identical lines written before the rest of a run is counted */

static char  pszLogBaseDir[LOG_PATH_MAX];
static char  pszLogFileName[LOG_PATH_MAX];
static int   zelDebugLevel = 3;
static int   zelDebugLevelResetFlag = 0;
static int   zelConsoleDebugLog = 0;
static int   zelLogFileResetFlag = 0;   /* recorded only */
static FILE* gfpDebug = NULL;
static char  lastMessage[LOG_LINE_MAX];   /* the current run of identical lines */
static char  lastSource[64];
static int   lastLineNo = -1;
static long  runLength = 0;

/* Product version shown in the banner line of every new log stream. */
static const int kVersion[5] = { KVX_VERSION_MAJOR, KVX_VERSION_MINOR, KVX_VERSION_PATCH,
                                 KVX_BUILD_MAJOR, KVX_BUILD_MINOR };

/* Last path component of a source name ("" for null). */
static const char* log_basename(const char* filename)
{
    const char* slash;

    if (filename == NULL)
        return "";
    slash = strrchr(filename, '/');
    return slash != NULL ? slash + 1 : filename;
}

/*
 * Configures the log without opening it.  logFile may be a bare name (the
 * directory then comes from ZEL_LOG_BASE_DIR or the executable's directory,
 * plus "/logs") or a path whose directory part is used as given.  A negative
 * logLevel keeps the current level.
 */
void ZELInitLogger(const char* logFile, int logLevel)
{
    char baseDir[LOG_PATH_MAX];
    char fileName[LOG_PATH_MAX];

    memset(baseDir, 0, sizeof(baseDir));
    memset(fileName, 0, sizeof(fileName));

    if (logFile != NULL && logFile[0] != '\0') {
        const char* slash = strrchr(logFile, '/');
        if (slash != NULL) {
            size_t dirlen = (size_t)(slash - logFile) + 1;
            if (dirlen > sizeof(baseDir) - 1)
                dirlen = sizeof(baseDir) - 1;
            memcpy(baseDir, logFile, dirlen);
            exstrncpy(fileName, slash + 1, sizeof(fileName));
        } else {
            exstrncpy(fileName, logFile, sizeof(fileName));
        }
        zelLogFileResetFlag = 1;
    }

    if (baseDir[0] == '\0') {
        const char* env = getenv(ZEL_LOG_BASE_DIR_ENV);
        if (env != NULL)
            exstrncpy(baseDir, env, sizeof(baseDir));
        else
            GetProcessPath(baseDir, sizeof(baseDir));
        strncat(baseDir, "/logs", sizeof(baseDir) - 1 - strlen(baseDir));
    }
    SetLogBaseDir(baseDir);

    if (fileName[0] == '\0')
        exstrncpy(pszLogFileName, LOG_DEFAULT_NAME, sizeof(pszLogFileName));
    else
        SetLogFileName(fileName);

    SetDebugLogLevel(logLevel);
    GetDebugLogLevel();
}

/*
 * Opens the log stream if it is not open yet (appending, the base directory
 * made one level deep with mode 0755).  0 when open, errno when the file
 * cannot be opened (EPERM: root may not trust it, said once on standard
 * error).  Writes the banner first.
 */
int OpenLogFile(void)
{
    static int refused = 0;
    char root[LOG_PATH_MAX];
    char rel[LOG_PATH_MAX];
    zel_trusted t;
    char* slash;

    if (gfpDebug != NULL)
        return 0;
    if (pszLogBaseDir[0] == '\0' || pszLogFileName[0] == '\0')
        ZELInitLogger(NULL, -1);

    /* the base directory is made one level deep below its parent; an over-long path is cut */
    exstrncpy(root, pszLogBaseDir, sizeof(root));
    for (size_t n = strlen(root); n > 1 && root[n - 1] == '/'; n--)
        root[n - 1] = '\0';
    slash = strrchr(root, '/');
    if (snprintf(rel, sizeof(rel), "%s/%s", slash != NULL ? slash + 1 : root, pszLogFileName) < 0)
        return 1;
    if (slash != NULL)
        slash[slash == root ? 1 : 0] = '\0';
    else
        root[0] = '\0';
    /* opened below its parent without following links, and only when root may trust it */
    if (zel_trust_open(root, rel, O_RDWR | O_CREAT | O_APPEND, 0644, ZT_MKDIR, &t) != 0) {
        int err = errno;
        if (err == EPERM && !refused++)
            fprintf(stderr, "Log not trusted, not written: [%s/%s]: %s.\n", pszLogBaseDir,
                    pszLogFileName, t.why);
        zel_trust_close(&t);
        return err != 0 ? err : 1;
    }
    gfpDebug = fdopen(t.fd, "a+");
    if (gfpDebug == NULL) {
        int err = errno;
        zel_trust_close(&t);
        return err;
    }
    t.fd = -1;   /* the stream owns it now */
    zel_trust_close(&t);

    ZELLogFunction(0, "zellog", 156, "Tessel for Linux Version %d.%d.%d (Build:%d.%d)\n",
                   kVersion[0], kVersion[1], kVersion[2], kVersion[3], kVersion[4]);
    return 0;
}

/* Writes one line: header, then message (which supplies the newline). */
static void write_log_line(int lineNo, const char* source, const char* message)
{
    char header[LOG_LINE_MAX];

    snprintf(header, sizeof(header), "%s %s (pid:%u tid:%u) %4d:%-20s ",
             GetSysDate(), GetSysTime(), (unsigned)getpid(),
             (unsigned)syscall(SYS_gettid), lineNo, source);
    fprintf(gfpDebug, "%s", header);
    fprintf(gfpDebug, "%s", message);
    fflush(gfpDebug);

    if (zelConsoleDebugLog == 1) {
        /* standard error: standard output is the agent's protocol stream */
        fprintf(stderr, "%s", header);
        fprintf(stderr, "%s", message);
    }
}

/* Ends the current run: the lines it did not write become one count line. */
static void end_log_run(void)
{
    char note[64];

    if (runLength > LOG_REPEAT_KEPT && gfpDebug != NULL) {
        snprintf(note, sizeof(note), "last message repeated %ld times\n", runLength - LOG_REPEAT_KEPT);
        write_log_line(lastLineNo, lastSource, note);
    }
    runLength = 0;
    lastLineNo = -1;
}

/* Closes and forgets the stream; the next line opens it again. */
void CloseLogFile(void)
{
    end_log_run();
    if (gfpDebug != NULL) {
        fclose(gfpDebug);
        gfpDebug = NULL;
    }
}

/*
 * Writes one line when level <= the configured level.  The format supplies
 * the newline; the message is cut at 10239 bytes.  0 when written or
 * suppressed, else OpenLogFile()'s error.
 */
int ZELLogFunction(int level, const char* filename, int lineNo, const char* fmt, ...)
{
    char message[LOG_LINE_MAX];
    const char* source = log_basename(filename);
    va_list ap;
    int rc;

    if (level > zelDebugLevel)
        return 0;
    rc = OpenLogFile();
    if (rc != 0)
        return rc;

    message[0] = '\0';
    if (fmt != NULL) {
        va_start(ap, fmt);
        vsnprintf(message, sizeof(message), fmt, ap);
        va_end(ap);
    }

    /* a run of identical lines ends in a count, as syslog does, not in a full disk */
    if (lineNo == lastLineNo && strcmp(source, lastSource) == 0 && strcmp(message, lastMessage) == 0) {
        if (++runLength > LOG_REPEAT_KEPT)
            return 0;
    } else {
        end_log_run();
        lastLineNo = lineNo;
        exstrncpy(lastSource, source, sizeof(lastSource));
        exstrncpy(lastMessage, message, sizeof(lastMessage));
        runLength = 1;
    }
    write_log_line(lineNo, source, message);
    return 0;
}

/* Sets the directory of the log file; ignored when null or too long. */
void SetLogBaseDir(const char* dir)
{
    if (dir != NULL && strlen(dir) < sizeof(pszLogBaseDir))
        exstrncpy(pszLogBaseDir, dir, sizeof(pszLogBaseDir));
}

/* Sets the log file's name; ignored when null, empty or too long. */
void SetLogFileName(const char* name)
{
    if (name != NULL && name[0] != '\0' && strlen(name) < sizeof(pszLogFileName))
        exstrncpy(pszLogFileName, name, sizeof(pszLogFileName));
}

/* The live directory buffer (4096 bytes); not to be freed. */
char* ZELGetLogPath(void)
{
    return pszLogBaseDir;
}

/* The live file name buffer (4096 bytes); not to be freed. */
char* ZELGetLogFileName(void)
{
    return pszLogFileName;
}

/* A level >= 0 becomes the threshold and is no longer taken from the env. */
void SetDebugLogLevel(int level)
{
    if (level >= 0) {
        zelDebugLevel = level;
        zelDebugLevelResetFlag = 1;
    }
}

/*
 * The threshold: ZEL_LOG_DEBUG_LEVEL applies only while no level was set
 * explicitly.  Also re-reads ZEL_LOG_TO_CONSOLE (echo of every line on
 * standard output, which is the agent's protocol stream: leave it unset).
 */
int GetDebugLogLevel(void)
{
    const char* env;

    if (zelDebugLevelResetFlag == 0) {
        env = getenv(ZEL_LOG_DEBUG_LEVEL_ENV);
        if (env != NULL)
            zelDebugLevel = atoi(env);
    }
    env = getenv(ZEL_LOG_TO_CONSOLE_ENV);
    zelConsoleDebugLog = env != NULL ? atoi(env) : 0;
    return zelDebugLevel;
}

/*
 * Directory of the running executable without a trailing slash, copied into
 * path (path_len bytes).  0, or -1 when the link cannot be read, holds no
 * slash or does not fit.
 */
int GetProcessPath(char* path, int path_len)
{
    static char exe[LOG_PATH_MAX];
    char link[64];
    ssize_t n;
    char* slash;

    snprintf(link, sizeof(link), "%s/%d/exe", "/proc", (int)getpid());
    n = readlink(link, exe, sizeof(exe) - 1);
    if (n < 0)
        return -1;
    exe[n] = '\0';
    slash = strrchr(exe, '/');
    if (slash == NULL)
        return -1;
    *slash = '\0';
    if (path == NULL || path_len <= 0 || (int)strlen(exe) >= path_len)
        return -1;
    exstrncpy(path, exe, (size_t)path_len);
    return 0;
}

/*
 * Dumps a buffer at level 3: an address line every 256 bytes, then 16 bytes
 * a row in hex followed by their printable characters ('.' otherwise).
 */
void ZELHexLog(const unsigned char* pszDataBuf, int len)
{
    char row[128];
    int off, i, pos;

    if (pszDataBuf == NULL)
        return;
    for (off = 0; off < len; off += 16) {
        if ((off & 0xff) == 0)
            ZELLogFunction(3, "zellog", 318, "Address: +%06X (%6d)\n", off, off);
        pos = 0;
        for (i = 0; i < 16; i++) {
            if (off + i < len)
                pos += snprintf(row + pos, sizeof(row) - pos, "%02X ", pszDataBuf[off + i]);
            else
                pos += snprintf(row + pos, sizeof(row) - pos, "   ");
        }
        for (i = 0; i < 16 && off + i < len; i++) {
            signed char c = (signed char)pszDataBuf[off + i];
            row[pos++] = (c < 0 || !isprint(c)) ? '.' : (char)c;
        }
        row[pos] = '\0';
        ZELLogFunction(3, "zellog", 331, "%s\n", row);
    }
}
