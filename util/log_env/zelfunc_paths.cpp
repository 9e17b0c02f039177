/*
 * zelfunc_paths.cpp - the agent's directories, path joining, directory
 * creation, file property tests and the single-instance lock file.
 */
#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include "zelfunc.h"
#include "zellog.h"
#include "zelsvciobackend.h"
#include "zeltrust.h"

#define DEFAULT_DIR       "/tmp"
#define DEFAULT_ZEL_ROOT  "/ZEL_ROOT/"

/*
 * dst = src1, a "/" unless src1 already ends in one, then src2 (if any).
 * Null (dst untouched) for an empty src1, a null dst or len 0.  Every
 * append is bounded by len: the result may be cut, never overflows.
 */
char* path_join(const char* src1, const char* src2, char* dst, size_t len)
{
    size_t used;

    if (src1 == NULL || src1[0] == '\0' || dst == NULL || len == 0)
        return NULL;
    exstrncpy(dst, src1, len);
    used = strlen(dst);
    if (used == 0 || dst[used - 1] != '/')
        strncat(dst, "/", len - 1 - used);
    if (src2 != NULL)
        strncat(dst, src2, len - 1 - strlen(dst));
    return dst;
}

/*
 * Fills a cached directory once: the variable's value plus "/" when it is
 * set and non-empty, else "/tmp" plus "/" with the variable exported as
 * "/tmp" so that child processes agree.
 */
static char* cached_env_dir(char* cache, size_t size, const char* var)
{
    const char* value;

    if (cache[0] != '\0')
        return cache;
    value = getenv(var);
    if (value == NULL || value[0] == '\0') {
        setenv(var, DEFAULT_DIR, 1);
        value = DEFAULT_DIR;
    }
    path_join(value, "/", cache, size);
    return cache;
}

/* Work directory, e.g. "/opt/t//" (static, computed once). */
char* GetTargetWorkDir(void)
{
    static char dir[ZEL_PATH_MAX];
    return cached_env_dir(dir, sizeof(dir), TARGET_WORK_DIR_ENV);
}

/* Directory the agent was started from, e.g. "/tmp//" (static, once). */
char* GetTargetBootstrapDir(void)
{
    static char dir[ZEL_PATH_MAX];
    return cached_env_dir(dir, sizeof(dir), TARGET_BOOTSTRAP_DIR_ENV);
}

/* The client package directory "<work dir>linux-kvx-client" (static, once). */
char* GetEnvLdLibraryPath(void)
{
    static char dir[ZEL_PATH_MAX];

    if (dir[0] == '\0')
        path_join(GetTargetWorkDir(), "linux-kvx-client", dir, sizeof(dir));
    return dir;
}

/* The agent's own executable "<bootstrap dir>kvx_ea" (static, once). */
char* GetEATarget(void)
{
    static char path[ZEL_PATH_MAX];

    if (path[0] == '\0')
        path_join(GetTargetBootstrapDir(), "kvx_ea", path, sizeof(path));
    return path;
}

/*
 * ZEL_ROOT_PATH when set and non-empty, else "/ZEL_ROOT/".  Read again at
 * every call; the returned static buffer is overwritten by the next call.
 */
char* GetZelRootDir(void)
{
    static char dir[ZEL_PATH_MAX];
    const char* value = getenv(ZEL_ROOT_PATH_ENV);

    exstrncpy(dir, (value != NULL && value[0] != '\0') ? value : DEFAULT_ZEL_ROOT, sizeof(dir));
    return dir;
}

/*
 * 0 when path is a directory or was made (mode 0755, one level: parents
 * must exist); -1 otherwise, logged at level 3.
 */
int CreateDirectory(const char* path)
{
    struct stat st;

    if (path == NULL)
        return -1;
    if (stat(path, &st) != 0) {
        if (errno != ENOENT) {
            ZELLogFunction(3, "zelfunc", 142, "Stat [%s] error: [%s]\n", path, strerror(errno));
            return -1;
        }
        if (mkdir(path, 0755) != 0) {
            ZELLogFunction(3, "zelfunc", 146, "Mkdir [%s] error: [%s]\n", path, strerror(errno));
            return -1;
        }
        return 0;
    }
    if (!S_ISDIR(st.st_mode)) {
        ZELLogFunction(3, "zelfunc", 152, "The path [%s] doesn't refer to a directory.\n", path);
        return -1;
    }
    return 0;
}

/* The _EnumFileProperty flags that hold for a stat result. */
static unsigned file_properties(const struct stat* st)
{
    unsigned p = 0;

    if (S_ISREG(st->st_mode))  p |= FILE_REGULAR;
    if (S_ISDIR(st->st_mode))  p |= FILE_DIRECTORY;
    if (S_ISLNK(st->st_mode))  p |= FILE_LINK;   /* never after stat(); kept */
    if (S_ISBLK(st->st_mode))  p |= FILE_BLOCK;
    if (S_ISCHR(st->st_mode))  p |= FILE_CHARACTER;
    if (S_ISSOCK(st->st_mode)) p |= FILE_SOCKET;
    if (S_ISFIFO(st->st_mode)) p |= FILE_FIFO;
    if (st->st_mode & S_IRUSR) p |= FILE_READABLE;
    if (st->st_mode & S_IWUSR) p |= FILE_WRITABLE;
    if (st->st_mode & S_IXUSR) p |= FILE_EXECUTABLE;
    if (S_ISREG(st->st_mode))
        p |= st->st_size == 0 ? FILE_EMPTY : FILE_NON_EMPTY;
    else
        p |= FILE_EMPTY | FILE_NON_EMPTY;   /* size tests only bind regular files */
    return p;
}

/*
 * 1 when file exists and every flag of iprop holds (owner mode bits, not
 * the caller's access), else 0.  rpc routes the stat through the I/O
 * redirection layer when that is enabled.
 */
int CheckFileProperty(const char* file, unsigned iprop, int rpc)
{
    struct stat st;
    int rc;

    if (file == NULL || file[0] == '\0')
        return 0;
    if (rpc && zelsvc_enabled())
        rc = _zswrap_stat(193, __FILE__, __func__, file, &st);
    else
        rc = stat(file, &st);
    if (rc != 0)
        return 0;
    return (file_properties(&st) & iprop) == iprop ? 1 : 0;
}

/* 1 unless process pid runs as another account than root or the agent's (0: unknown, kept). */
static int lock_holder_trusted(pid_t pid)
{
    char proc[32];
    struct stat st;

    snprintf(proc, sizeof(proc), "/proc/%ld", (long)pid);
    return pid <= 0 || stat(proc, &st) != 0 || zel_trusted_owner(st.st_uid);
}

/*
 * Single-instance lock: opens (creating, mode 0600) path and places a
 * non-blocking write lock on the whole file.  Returns the descriptor, which
 * the caller keeps open for the life of the process; -2 when another
 * process of root or the agent's account holds a lock on it (logged unless
 * quiet), -1 on failure or when root may not trust the file.
 */
int check_and_lock_file(const char* path, int quiet)
{
    struct flock fl;
    zel_trusted t;
    int tries = 1;
    int fd;

    if (path == NULL)
        return -1;
    /* close-on-exec: the lock belongs to this process, not its programs; only root and we may open it */
    if (zel_trust_open_path(path, O_RDWR | O_CREAT, 0600, ZT_PRIVATE, &t) != 0) {
        int err = errno;
        zel_trust_close(&t);
        if (err == EPERM)
            return -1;
        ZELLogFunction(3, "zelfunc", 218,
                       "%s: Failed to open [%s] even after trying [%d] times, error code: [%d]\n",
                       "check_and_lock_file", path, tries, err);
        return -1;
    }

    memset(&fl, 0, sizeof(fl));
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    fl.l_start = 0;
    fl.l_len = 0;
    if (fcntl(t.fd, F_GETLK, &fl) == 0 && (fl.l_type == F_RDLCK || fl.l_type == F_WRLCK)) {
        /* a stranger's lock (opened while the file was loose) holds a file we replace */
        if (!lock_holder_trusted(fl.l_pid)) {
            ZELLogFunction(0, "zelfunc", __LINE__,
                           "%s: File (%s) is locked by pid [%ld] of another account: made anew.\n",
                           "check_and_lock_file", path, (long)fl.l_pid);
            close(t.fd);
            unlinkat(t.dir, t.name, 0);
            t.fd = openat(t.dir, t.name, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        } else {
            if (!quiet)
                ZELLogFunction(3, "zelfunc", 231, "%s: File (%s) is locked(write) by pid: [%ld].\n",
                               "check_and_lock_file", path, (long)fl.l_pid);
            zel_trust_close(&t);
            return -2;
        }
    }
    fd = t.fd;
    t.fd = -1;
    zel_trust_close(&t);

    memset(&fl, 0, sizeof(fl));
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    if (fd < 0 || fcntl(fd, F_SETLK, &fl) != 0) {
        ZELLogFunction(3, "zelfunc", 241, "%s: Failed to lock file [%s] error code: [%d]\n",
                       "check_and_lock_file", path, 0);
        if (fd >= 0)
            close(fd);
        return -1;
    }
    return fd;
}
