/*
 * agentactivitylog.cpp - the activity log file that the backup programs
 * append to and the agent drains, and the machine check report reader.
 *
 * Readers and writers serialise on a whole-file lockf() lock taken without
 * waiting, retried once a second for KVX_LOCK_ATTEMPTS attempts, so a reader
 * never sees a half-written line.  A reader consumes the file: it empties and
 * removes it once read, so each event is delivered once.
 */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "agentactivitylog.h"
#include "zelcommon.h"
#include "zelconsume.h"
#include "zellog.h"
#include "zeltrust.h"

#define LOG_SRC "agentactivitylog"

#define KVX_LOCK_ATTEMPTS      6
#define KVX_ACTIVITY_LINE_MAX  1123     /* 1122 characters and the terminator */
#define KVX_CHECKMACHINE_LIMIT 204799   /* largest accepted buffer (size + 1) */

/* Internal result of drain_locked_file: the file exceeds a refusing limit. */
#define DRAIN_TOO_BIG (-1000)

/*
 * Takes the whole-file lock, KVX_LOCK_ATTEMPTS tries one second apart; a
 * read lock on a descriptor open for reading only.
 */
static int lock_with_retries(int fd, int writable)
{
    struct flock fl;

    memset(&fl, 0, sizeof(fl));
    fl.l_type = F_RDLCK;
    fl.l_whence = SEEK_SET;
    for (int attempt = 0; attempt < KVX_LOCK_ATTEMPTS; attempt++) {
        if (writable ? lockf(fd, F_TLOCK, 0) == 0 : fcntl(fd, F_SETLK, &fl) == 0)
            return 0;
        sleep(1);
    }
    return -1;
}

/* Reads up to want bytes, retrying interrupted reads; the count or -1. */
static int read_all(int fd, char* buf, int want)
{
    int got = 0;

    while (got < want) {
        ssize_t n = read(fd, buf + got, want - got);
        if (n > 0)
            got += (int)n;
        else if (n == 0)
            break;
        else if (errno != EINTR)
            return -1;
    }
    return got;
}

/*
 * Removes the consumed head of a drained file once delivered: the whole file,
 * or, when lines were appended since it was read, only the part read.
 */
static void finish_drained(zel_trusted* t, long consumed, int delivered)
{
    struct stat st;
    int fd = t->fd;
    int writable = (fcntl(fd, F_GETFL) & O_ACCMODE) != O_RDONLY;

    if (delivered && lock_with_retries(fd, writable) == 0 && fstat(fd, &st) == 0) {
        long rest = (long)st.st_size - consumed;
        char* tail = rest > 0 ? (char*)malloc((size_t)rest) : NULL;
        if (rest > 0 && writable && tail != NULL && pread(fd, tail, (size_t)rest, consumed) == (ssize_t)rest) {
            if (ftruncate(fd, 0) == 0 && pwrite(fd, tail, (size_t)rest, 0) != (ssize_t)rest) {
                /* what could not be put back is lost as with a full disk */
            }
        } else if (rest <= 0) {
            if (writable && ftruncate(fd, 0) != 0) {
                /* Unlinked anyway; an unemptied file cannot be read again. */
            }
            unlinkat(t->dir, t->name, 0);
        }
        free(tail);
    }
    zel_trust_close(t);
}

/*
 * The one reader behind read_activity_log_file and read_checkmachine_file.
 * Locks path, reads it into a fresh heap buffer of file size + 1 bytes and
 * removes the file.  A file that needs more than limit bytes (file size + 1
 * above limit) is cut to limit
 * (its tail is lost with the file) when refuse is 0; when refuse is set it is
 * left alone and DRAIN_TOO_BIG returned with the needed size in *size.
 * Results: bytes read; 0 no file (or one root may not trust); -1 bad
 * arguments or open failure; -2 lock not obtained; -3 read error (file kept, *text still set for the caller to
 * free); -errno when fstat or malloc fails.
 */
static int drain_locked_file(const char* path, char** text, int* size, int limit, int refuse,
                             int keep)
{
    struct stat st;
    zel_trusted t;
    int fd, err, got;

    if (path == NULL || text == NULL || size == NULL)
        return -1;
    /* a file root may not trust (a link, another account's) is taken as absent */
    int writable = 1;
    int rc = zel_trust_open_path(path, O_RDWR, 0, refuse ? ZT_LOOSE_OK : 0, &t);
    if (rc != 0 && errno == EACCES) {   /* root's file, an agent of another account: read it */
        zel_trust_close(&t);
        writable = 0;
        rc = zel_trust_open_path(path, O_RDONLY, 0, refuse ? ZT_LOOSE_OK : 0, &t);
    }
    if (rc != 0) {
        err = errno;
        zel_trust_close(&t);
        return (err == ENOENT || err == EPERM) ? 0 : -1;
    }
    fd = t.fd;
    if (lock_with_retries(fd, writable) != 0) {
        zel_trust_close(&t);
        return -2;
    }
    if (fstat(fd, &st) != 0) {
        err = errno;
        zel_trust_close(&t);
        return -err;
    }
    if (st.st_size >= (off_t)limit) {
        if (refuse) {
            /* Saturate: the caller only logs the figure. */
            *size = st.st_size >= 0x7fffffff ? 0x7fffffff : (int)st.st_size + 1;
            zel_trust_close(&t);
            return DRAIN_TOO_BIG;
        }
        *size = limit;
    } else {
        *size = (int)st.st_size + 1;
    }
    /* Zeroed, so a file that shrank under us leaves no stale bytes. */
    *text = (char*)calloc(1, *size);
    if (*text == NULL) {
        err = errno;
        zel_trust_close(&t);
        return -err;
    }
    got = read_all(fd, *text, *size);
    if (got < 0) {
        zel_trust_close(&t);
        return -3;
    }
    (*text)[*size - 1] = '\0';
    if (keep) {   /* removed once the reply is out; appending goes on meanwhile */
        struct flock whole;   /* the whole file: lockf's F_ULOCK would free only what lies past the read */
        memset(&whole, 0, sizeof(whole));
        whole.l_type = F_UNLCK;
        whole.l_whence = SEEK_SET;
        fcntl(fd, F_SETLK, &whole);
        zel_consume(&t, (long)st.st_size, finish_drained);
    } else {
        finish_drained(&t, (long)st.st_size, 1);
    }
    return got;
}

/*
 * Drains the activity log at path.  On success *text is a heap buffer the
 * caller frees and *size its size: text length + 1, at most
 * KVX_ACTIVITY_LOG_MAX (a longer file yields its first 32767 bytes and loses
 * the rest).  Results: bytes read (> 0); 0 no file or empty file; -1 null
 * argument or open failure; -2 still locked after 6 attempts (file kept);
 * -3 read error; -errno when fstat or malloc fails.  The caller frees *text
 * whenever it was set, also on -3.
 */
int read_activity_log_file(const char* path, char** text, int* size)
{
    return drain_locked_file(path, text, size, KVX_ACTIVITY_LOG_MAX, 0, 1);
}

/*
 * Drains the machine check report: the same results as
 * read_activity_log_file, except that a report needing more than 204799
 * bytes (size + 1) is refused with -2 and left in place instead of cut.
 * *len_out is the report size + 1; *buf_out is freed by the caller.
 */
int read_checkmachine_file(const char* filename, char** buf_out, int* len_out)
{
    int rc = drain_locked_file(filename, buf_out, len_out, KVX_CHECKMACHINE_LIMIT, 1, 0);
    if (rc == DRAIN_TOO_BIG) {
        ZELLogFunction(0, LOG_SRC, __LINE__, "%s: checkmachine output is too big(%d.)\n",
                       __func__, *len_out);
        return -2;
    }
    return rc;
}

/*
 * Appends text and "\n" to path under the whole-file lock (the file is
 * created with mode 0644).  Each failed lock closes the file, waits a second
 * and reopens it.  Results: 0 written; -1 open failure or a file root may not trust; busy_rc when the lock
 * was not obtained in KVX_LOCK_ATTEMPTS attempts (the line is dropped).
 */
static int append_locked(const char* path, const char* text, int busy_rc)
{
    for (int attempt = 0; attempt < KVX_LOCK_ATTEMPTS; attempt++) {
        zel_trusted t;
        if (zel_trust_open_path(path, O_RDWR | O_CREAT | O_APPEND, 0644, 0, &t) != 0) {
            zel_trust_close(&t);
            return -1;
        }
        if (lockf(t.fd, F_TLOCK, 0) == 0) {
            writen(t.fd, (void*)text, (int)strlen(text), 0);
            writen(t.fd, (void*)"\n", 1, 0);
            zel_trust_close(&t);
            return 0;
        }
        zel_trust_close(&t);
        sleep(1);
    }
    return busy_rc;
}

/*
 * Appends line and a newline to the activity log.  0; -1 open failure or
 * null argument; -ENOENT when the file stayed locked for 6 attempts.
 */
int write_activity_log_file(const char* path, const char* line)
{
    if (path == NULL || line == NULL)
        return -1;
    return append_locked(path, line, -ENOENT);
}

/*
 * Appends one event "<type> <errorCode> <message>" (cut to 1122 characters)
 * to the activity log.  0; -1 open failure or null path; -2 when the file
 * stayed locked for 6 attempts.
 */
int write_activity_log_file2(const char* path, int type, int errorCode, const char* message)
{
    char line[KVX_ACTIVITY_LINE_MAX];

    if (path == NULL)
        return -1;
    snprintf(line, sizeof(line), "%d %d %s", type, errorCode, message ? message : "");
    return append_locked(path, line, -2);
}

/*
 * Moves the events of the activity log from into the activity log to.
 * -1 for a null argument; otherwise the result of the drain of from, or of
 * the append to to when there was text to move.
 */
int update_activity_log_file(const char* from, const char* to)
{
    char* text = NULL;
    int size = 0;
    int rc;

    if (from == NULL || to == NULL) {
        ZELLogFunction(0, LOG_SRC, 190, "%s: Invalid parameters.\n", __func__);
        return -1;
    }
    rc = read_activity_log_file(from, &text, &size);
    if (rc > 0) {
        rc = write_activity_log_file(to, text);
        if (rc != 0)
            ZELLogFunction(0, LOG_SRC, 200, "%s: Failed to write activity log (%d)\n",
                           __func__, rc);
    }
    free(text);
    return rc;
}
