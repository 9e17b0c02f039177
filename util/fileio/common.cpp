/*
 * common.cpp - whole-count descriptor I/O and small string helpers.
 */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>
#include "zelcommon.h"
#include "zelsvciobackend.h"

static volatile int g_job_down_flag = 0;

/* Makes readn() give up on any read error while set. */
void set_job_down_flag(int flag)
{
    g_job_down_flag = flag;
}

static ssize_t common_read(int fd, void* buf, size_t count, int redirect)
{
    if (redirect && zelsvc_enabled())
        return _zswrap_read(__LINE__, __FILE__, __func__, fd, buf, count);
    return read(fd, buf, count);
}

static ssize_t common_write(int fd, const void* buf, size_t count, int redirect)
{
    if (redirect && zelsvc_enabled())
        return _zswrap_write(__LINE__, __FILE__, __func__, fd, buf, count);
    return write(fd, buf, count);
}

/*
 * Reads exactly n bytes unless end of file comes first.  Returns the count
 * read (short only at end of file), or -1 for n < 0 and for a read error
 * other than EINTR/EAGAIN (any error while the job-down flag is set).
 */
int readn(int fd, void* buf, int n, int redirect)
{
    char* p = (char*)buf;
    int left = n;
    ssize_t r;

    if (n < 0)
        return -1;
    while (left > 0) {
        r = common_read(fd, p, (size_t)left, redirect);
        if (r > 0) {
            p += r;
            left -= (int)r;
        } else if (r == 0) {
            break;
        } else {
            if (g_job_down_flag)
                return -1;
            if (errno == EINTR || errno == EAGAIN)
                continue;
            return -1;
        }
    }
    return n - left;
}

/*
 * Writes exactly n bytes.  Returns the count written (short only when a
 * write returned 0), or -1 for n < 0 and for a write error other than
 * EINTR.  Every failed write prints "writen error:<errno>" on stderr.
 */
int writen(int fd, void* buf, int n, int redirect)
{
    const char* p = (const char*)buf;
    int left = n;
    ssize_t w;

    if (n < 0)
        return -1;
    while (left > 0) {
        w = common_write(fd, p, (size_t)left, redirect);
        if (w > 0) {
            p += w;
            left -= (int)w;
        } else if (w == 0) {
            break;
        } else {
            int err = errno;
            fprintf(stderr, "writen error:%d\n", err);   /* never into the protocol stream */
            if (err == EINTR)
                continue;
            return -1;
        }
    }
    return n - left;
}

/* Replaces *dst (freeing the old value) with a copy of src; does nothing
 * when either pointer is null. */
void dup_string(char** dst, const char* src)
{
    if (!dst || !src)
        return;
    free(*dst);
    *dst = strdup(src);
}

long long zel_now_ms(void)
{
    struct timespec ts;

    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (long long)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}
