/*
 * zeltrust.h - may root trust this file or directory: opening a file below a
 * directory the agent was given, without following links, only when it and
 * every directory walked to it belong to root or to the agent's account and
 * no one else can write them (as OpenSSH's safe_path() and sudo's sudoers
 * checks do).
 */
#ifndef ZELTRUST_H
#define ZELTRUST_H

#include <sys/types.h>

#define ZT_MKDIR     1   /* make a missing directory on the way (mode 0755) */
#define ZT_PRIVATE   2   /* no access at all for group or others (lock files) */
#define ZT_LOOSE_OK  4   /* a loose mode the agent cannot tighten is taken as it is */

typedef struct zel_trusted {
    int  dir;          /* the file's directory (for unlinkat), -1 when closed */
    int  fd;           /* the file itself, -1 when closed */
    char name[256];    /* the file's name within dir */
    char why[160];     /* why it was refused (errno EPERM) */
    uid_t owner;       /* the root's owner, trusted too when no one else may write the root */
} zel_trusted;

/* 1 when uid is root or the agent's effective uid. */
int  zel_trusted_owner(uid_t uid);

/*
 * Opens root/rel: root is trusted as given, every directory of rel below it
 * is opened with O_NOFOLLOW and checked, and so is the file (flags and mode
 * as for open(2); O_NOFOLLOW and O_CLOEXEC are added).  Trusted owners are
 * root, the agent's account and the owner of a root no one else may write
 * (an agent's own work directory, seen from the root programs it runs).  A trusted owner's
 * file or directory that others may write is tightened (chmod g-w,o-w, or
 * to owner-only with ZT_PRIVATE) when the agent may change its mode.
 * 0 with t->fd and t->dir open; -1 with errno: ENOENT when something is
 * absent, EPERM when refused (t->why says why), else the failing call's.
 * Release with zel_trust_close() on every result.
 */
int  zel_trust_open(const char* root, const char* rel, int flags, mode_t mode,
                    unsigned opts, zel_trusted* t);

/*
 * zel_trust_open() of a whole path: the root is the longest of the work and
 * bootstrap directories that holds path, else path's own directory.  A
 * refusal is logged as one line.  Same results.
 */
int  zel_trust_open_path(const char* path, int flags, mode_t mode, unsigned opts,
                         zel_trusted* t);

void zel_trust_close(zel_trusted* t);

#endif /* ZELTRUST_H */
