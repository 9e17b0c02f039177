/*
 * zellog.h - the utility library's diagnostic log (source name "zellog").
 *
 * Levels: 0 errors and the banner, 3 progress (default threshold), 4 detail,
 * 5 debug, 6 lock tracing.  Every caller passes its own source name (for
 * example "svc_main") and line number; the text of the format begins with
 * the calling function's name.  Passwords are never logged, only lengths.
 */
#ifndef ZELLOG_H
#define ZELLOG_H

#include <stddef.h>

#define ZEL_LOG_BASE_DIR_ENV     "ZEL_LOG_BASE_DIR"
#define ZEL_LOG_DEBUG_LEVEL_ENV  "ZEL_LOG_DEBUG_LEVEL"
#define ZEL_LOG_TO_CONSOLE_ENV   "ZEL_LOG_TO_CONSOLE"

/* Configures (does not open) the log: file name or path, level (<0 keeps). */
void  ZELInitLogger(const char* logFile, int logLevel);

/*
 * Appends one stamped line when level <= configured level.  Returns 0 when the
 * line was written or suppressed, else the non-zero result of OpenLogFile().
 */
int   ZELLogFunction(int level, const char* filename, int lineNo, const char* fmt, ...)
        __attribute__((format(printf, 4, 5)));

int   OpenLogFile(void);
void  CloseLogFile(void);
void  SetLogBaseDir(const char* dir);
void  SetLogFileName(const char* name);
char* ZELGetLogPath(void);
char* ZELGetLogFileName(void);
void  SetDebugLogLevel(int level);
int   GetDebugLogLevel(void);

/* Directory of the running executable, no trailing slash; 0 or -1. */
int   GetProcessPath(char* path, int path_len);

/* Line count of a file through "wc -l"; 0 when it cannot be counted. */
int   GetFileLines(const char* path);
/* Keeps the newest linesLeft lines (sed -i); 0 when nothing had to go. */
int   LimitFileLines(const char* file, int linesLeft);
int   ZELLimitLogLines(const char* log, int linesLeft);

void  ZELHexLog(const unsigned char* pszDataBuf, int len);

#endif /* ZELLOG_H */
