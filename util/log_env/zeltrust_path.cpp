/*
 * zeltrust_path.cpp - zel_trust_open() of a whole path below the agent's
 * work or bootstrap directory, with the refusal logged (source name
 * "zeltrust").
 */
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "zelfunc.h"
#include "zellog.h"
#include "zeltrust.h"

/* Length of dir (trailing slashes left out) when it holds path, else 0. */
static size_t root_of(const char* dir, const char* path)
{
    size_t len = dir != NULL ? strlen(dir) : 0;

    while (len > 0 && dir[len - 1] == '/')
        len--;
    if (len == 0 || strncmp(dir, path, len) != 0 || path[len] != '/')
        return 0;
    return len;
}

int zel_trust_open_path(const char* path, int flags, mode_t mode, unsigned opts, zel_trusted* t)
{
    char root[4096];
    size_t work, boot, len;
    const char* slash;
    int rc;

    t->fd = t->dir = -1;
    if (path == NULL || path[0] == '\0') {
        errno = ENOENT;
        return -1;
    }
    work = root_of(getenv(TARGET_WORK_DIR_ENV), path);
    boot = root_of(getenv(TARGET_BOOTSTRAP_DIR_ENV), path);
    len = work > boot ? work : boot;
    if (len == 0) {   /* elsewhere: only the file itself is checked */
        slash = strrchr(path, '/');
        len = slash != NULL ? (size_t)(slash - path) : 0;
        if (slash == path)
            len = 1;
    }
    if (len >= sizeof(root)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(root, path, len);
    root[len] = '\0';
    rc = zel_trust_open(root, path + len, flags, mode, opts, t);
    if (rc != 0 && errno == EPERM) {
        ZELLogFunction(0, "zeltrust", __LINE__, "Not trusted, taken as absent: [%s]: %s.\n",
                       path, t->why);
        errno = EPERM;
    }
    return rc;
}
