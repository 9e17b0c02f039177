/*
 * zelfunc_text.cpp - bounded string copies, date and time stamps and
 * white-space trims.  Nothing here logs, so the log facility can use it.
 */
#include <ctype.h>
#include <stdio.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>

#include "zelfunc.h"

/*
 * Copies at most n-1 bytes of src and always terminates dst[n-1] (and the
 * copy).  A null src gives an empty string.  Returns dst.
 */
char* exstrncpy(char* dst, const char* src, size_t n)
{
    if (dst == NULL || n == 0)
        return dst;
    if (src == NULL) {
        dst[0] = '\0';
        return dst;
    }
    size_t len = strnlen(src, n - 1);
    memcpy(dst, src, len);
    dst[len] = '\0';
    dst[n - 1] = '\0';
    return dst;
}

/* ---- date and time stamps ---- */

/*
 * The local date `days` days ago as "YYYY<sep>MM<sep>DD", or "YYYYMMDD"
 * when sep is 0.  Static 32-byte buffer, overwritten by the next call.
 */
char* GetLastDate(char sep, int days)
{
    static char date[32];
    time_t when = time(NULL) - (time_t)days * 86400;
    struct tm tmv;

    localtime_r(&when, &tmv);
    if (sep != 0)
        snprintf(date, sizeof(date), "%04d%c%02d%c%02d",
                 tmv.tm_year + 1900, sep, tmv.tm_mon + 1, sep, tmv.tm_mday);
    else
        snprintf(date, sizeof(date), "%04d%02d%02d",
                 tmv.tm_year + 1900, tmv.tm_mon + 1, tmv.tm_mday);
    return date;
}

/* Today as "YYYY-MM-DD" (GetLastDate's static buffer). */
char* GetSysDate(void)
{
    return GetLastDate('-', 0);
}

/* Local time of day "HH-MM-SS:mmm" in a static 32-byte buffer. */
char* GetSysTime(void)
{
    static char stamp[32];
    struct timeval tv;
    struct tm tmv;
    time_t now;

    gettimeofday(&tv, NULL);
    now = tv.tv_sec;
    localtime_r(&now, &tmv);
    snprintf(stamp, sizeof(stamp), "%02d-%02d-%02d:%03d",
             tmv.tm_hour, tmv.tm_min, tmv.tm_sec, (int)(tv.tv_usec / 1000));
    return stamp;
}

/* ---- white-space trims (in place; null accepted; return s) ---- */

char* TrimRightSpaces(char* s)
{
    size_t n;

    if (s == NULL)
        return s;
    n = strlen(s);
    while (n > 0 && isspace((unsigned char)s[n - 1]))
        s[--n] = '\0';
    return s;
}

char* TrimLeftSpaces(char* s)
{
    size_t skip = 0;

    if (s == NULL)
        return s;
    while (s[skip] != '\0' && isspace((unsigned char)s[skip]))
        skip++;
    if (skip > 0)
        memmove(s, s + skip, strlen(s + skip) + 1);
    return s;
}

char* TrimSpaces(char* s)
{
    return TrimLeftSpaces(TrimRightSpaces(s));
}

char* rtrim(char* s) { return TrimRightSpaces(s); }
char* ltrim(char* s) { return TrimLeftSpaces(s); }
char* trim(char* s)  { return TrimSpaces(s); }
