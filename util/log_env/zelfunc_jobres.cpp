/*
 * zelfunc_jobres.cpp - the job result file "logs/linuxkvxjobres": one
 * 105-byte JOB_RESULT record, written by a backup program when its job ends
 * and consumed (read, emptied, removed) by the agent.
 */
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include "zelcommon.h"
#include "zelconsume.h"
#include "zelfunc.h"
#include "zellog.h"
#include "zeltrust.h"

#define LOG_SRC "zelfunc"

/*
 * Appends rec (KVX_JOB_RESULT_SIZE bytes) to path, creating it with mode
 * 0644; a file root may not trust is not written.  The file is opened for
 * appending, so an unread older result stays in front and is the one that
 * gets delivered.  0; -1 when the open fails
 * or the write is short.
 */
int create_job_result(const char* path, JOB_RESULT* rec)
{
    zel_trusted t;
    int fd, n;

    if (path == NULL || rec == NULL)
        return -1;
    fd = zel_trust_open_path(path, O_RDWR | O_CREAT | O_APPEND, 0644, 0, &t) == 0 ? dup(t.fd) : -1;
    zel_trust_close(&t);
    if (fd < 0) {
        int err = errno;
        ZELLogFunction(0, LOG_SRC, 2328, "%s: open(%s) failed: %s[%d].\n",
                       __func__, path, strerror(err), err);
        return -1;
    }
    n = writen(fd, rec, KVX_JOB_RESULT_SIZE, 0);
    close(fd);
    if (n != KVX_JOB_RESULT_SIZE) {
        ZELLogFunction(0, LOG_SRC, 2337, "%s: writen(%s) return:%d, not equal expected:%d.\n",
                       __func__, path, n, KVX_JOB_RESULT_SIZE);
        return -1;
    }
    return 0;
}

/* Empties and removes the job result file once its record was delivered. */
static void finish_job_result(zel_trusted* t, long consumed, int delivered)
{
    if (delivered) {
        if ((fcntl(t->fd, F_GETFL) & O_ACCMODE) != O_RDONLY && ftruncate(t->fd, 0) != 0) {
            /* Removed below in any case. */
        }
        unlinkat(t->dir, t->name, 0);
    }
    zel_trust_close(t);
}

/*
 * Reads the first record of the job result file into rec and removes the
 * file, whatever was read.  0 when the file does not exist (rec untouched)
 * or a whole record was read; -1 when the open fails or the file is shorter
 * than one record (rec untouched).
 */
int read_job_result(const char* path, JOB_RESULT* rec)
{
    JOB_RESULT tmp;
    zel_trusted t;
    int fd, n;

    if (path == NULL || rec == NULL)
        return -1;
    /* a result file root may not trust (a link, another account's) is taken as absent */
    int rc = zel_trust_open_path(path, O_RDWR, 0, 0, &t);
    if (rc != 0 && errno == EACCES) {   /* root's file, an agent of another account: read it */
        zel_trust_close(&t);
        rc = zel_trust_open_path(path, O_RDONLY, 0, 0, &t);
    }
    if (rc != 0) {
        int err = errno;
        zel_trust_close(&t);
        if (err == ENOENT || err == EPERM) {
            ZELLogFunction(0, LOG_SRC, 2345, "%s: file(%s) is not exist.\n", __func__, path);
            return 0;
        }
        ZELLogFunction(0, LOG_SRC, 2352, "%s: open(%s) failed: %s[%d].\n",
                       __func__, path, strerror(err), err);
        return -1;
    }
    fd = t.fd;
    /* Read aside: a short file must not leave a partial record behind. */
    memset(&tmp, 0, sizeof(tmp));
    n = readn(fd, &tmp, KVX_JOB_RESULT_SIZE, 0);
    zel_consume(&t, n, finish_job_result);
    if (n != KVX_JOB_RESULT_SIZE) {
        ZELLogFunction(0, LOG_SRC, 2362, "%s: readn(%s) return:%d, not equal expected:%d.\n",
                       __func__, path, n, KVX_JOB_RESULT_SIZE);
        return -1;
    }
    /* The texts travel as strings: keep them terminated whatever the writer did. */
    tmp.sessionNo[sizeof(tmp.sessionNo) - 1] = '\0';
    tmp.sessionGuid[sizeof(tmp.sessionGuid) - 1] = '\0';
    memcpy(rec, &tmp, sizeof(tmp));
    return 0;
}
