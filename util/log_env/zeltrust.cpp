/*
 * zeltrust.cpp - may root trust this file or directory (see zeltrust.h).
 *
 * Every step is taken relative to the descriptor of the directory above it,
 * so nothing can be swapped between the check and the use; a link is never
 * followed below the root.  No logging here: the log itself is opened
 * through this file.
 */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "zeltrust.h"

int zel_trusted_owner(uid_t uid)
{
    return uid == 0 || uid == geteuid();
}

/* EPERM with the reason in t->why; -1. */
static int refuse(zel_trusted* t, const char* name, const char* what)
{
    snprintf(t->why, sizeof(t->why), "%.100s %s", name, what);   /* a long name is cut */
    errno = EPERM;
    return -1;
}

/*
 * Checks the owner and mode of an open file or directory, tightening a
 * trusted owner's loose mode when the agent may.  0, or -1 (refused).
 */
static int check_open(zel_trusted* t, int fd, const char* name, int want_dir, unsigned opts)
{
    struct stat st;
    mode_t loose = (opts & ZT_PRIVATE) ? 077 : 022;

    if (fstat(fd, &st) != 0)
        return -1;
    if (want_dir ? !S_ISDIR(st.st_mode) : !S_ISREG(st.st_mode))
        return refuse(t, name, want_dir ? "is not a directory" : "is not a regular file");
    if (!zel_trusted_owner(st.st_uid) && st.st_uid != t->owner)
        return refuse(t, name, "belongs to another account");
    /* a second name elsewhere would let the file's owner aim us at it */
    if (!want_dir && st.st_nlink > 1)
        return refuse(t, name, "has more than one link");
    if ((st.st_mode & loose) == 0)
        return 0;
    if ((geteuid() == 0 || st.st_uid == geteuid()) && fchmod(fd, st.st_mode & 07777 & ~loose) == 0)
        return 0;
    if (opts & ZT_LOOSE_OK)
        return 0;
    return refuse(t, name, "is writable by others");
}

void zel_trust_close(zel_trusted* t)
{
    if (t->fd >= 0)
        close(t->fd);
    if (t->dir >= 0)
        close(t->dir);
    t->fd = t->dir = -1;
}

int zel_trust_open(const char* root, const char* rel, int flags, mode_t mode,
                   unsigned opts, zel_trusted* t)
{
    struct stat st;
    char buf[4096];
    char* part;
    char* next;

    t->fd = t->dir = -1;
    t->owner = 0;
    t->name[0] = t->why[0] = '\0';
    if (root == NULL || rel == NULL || snprintf(buf, sizeof(buf), "%s", rel) >= (int)sizeof(buf)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    t->dir = open(root[0] != '\0' ? root : ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (t->dir < 0 || fstat(t->dir, &st) != 0)
        return -1;
    t->owner = (st.st_mode & 022) == 0 ? st.st_uid : 0;
    for (part = buf; *part == '/'; part++)
        ;
    while ((next = strchr(part, '/')) != NULL) {
        *next++ = '\0';
        while (*next == '/')
            next++;
        if (*next == '\0')
            break;   /* "dir/" names the directory itself */
        int fd = openat(t->dir, part, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0 && errno == ENOENT && (opts & ZT_MKDIR) && mkdirat(t->dir, part, 0755) == 0)
            fd = openat(t->dir, part, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0)
            return (errno == ELOOP || errno == ENOTDIR) ? refuse(t, part, "is not a directory") : -1;
        close(t->dir);
        t->dir = fd;
        if (check_open(t, fd, part, 1, opts & ~ZT_PRIVATE) != 0)
            return -1;
        part = next;
    }
    if (snprintf(t->name, sizeof(t->name), "%s", part) >= (int)sizeof(t->name)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    /* non-blocking for the open only: a planted FIFO must not hold us */
    t->fd = openat(t->dir, part, flags | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, mode);
    if (t->fd < 0)
        return errno == ELOOP ? refuse(t, part, "is a symbolic link") : -1;
    if (!(flags & O_NONBLOCK))
        fcntl(t->fd, F_SETFL, fcntl(t->fd, F_GETFL) & ~O_NONBLOCK);
    return check_open(t, t->fd, part, (flags & O_DIRECTORY) != 0, opts);
}
