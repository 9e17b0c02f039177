/*
 * zelmountentry.cpp - making a backup session location usable on this node:
 * an NFS export (host:/path), a CIFS share (//server/share) or a local
 * directory, followed by a test that the agent can write there.
 * Source name "zelmountentry".
 */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "kvxuuid.h"
#include "zelfunc.h"
#include "zellog.h"
#include "zelmountentry.h"

#define SRC "zelmountentry"

#define WRITE_TEST_TRIES   5
#define WRITE_TEST_SLEEP_S 2
#define ERR_NO_WRITE_PERMISSION 2015
#define ERR_PARENT_MISSING      2023

/* Mount without writing the mount table ("-n"); nothing in the agent sets it. */
static bool g_should_hide_mount_entry = false;

void SetHideMountEntry(bool hide)
{
    g_should_hide_mount_entry = hide;
}

enum LocationKind { LOCATION_LOCAL, LOCATION_NFS, LOCATION_CIFS };

static LocationKind classify_location(const char* location, int type)
{
    if (strchr(location, ':') != NULL && type != ZEL_SESS_TYPE_CLOUD)
        return LOCATION_NFS;
    if (strncmp(location, "//", 2) == 0 || type == ZEL_SESS_TYPE_CLOUD)
        return LOCATION_CIFS;
    return LOCATION_LOCAL;
}

/*
 * Parent of a local location: cut at the last '/' as long as the cut slash
 * ends the text, so trailing slashes go first and then one component.
 * Text without any '/' is left as it is.
 */
static void location_parent(const char* location, char* parent, size_t size)
{
    char* slash;

    exstrncpy(parent, location, size);
    while ((slash = strrchr(parent, '/')) != NULL) {
        bool wasLast = slash[1] == '\0';

        *slash = '\0';
        if (!wasLast)
            break;
    }
}

/* A local directory is its own mount point; its parent must exist. */
static int use_local_location(const char* location, char* newMountPoint, char* mountPoint)
{
    char parent[ZEL_MOUNT_BUF_SIZE];

    location_parent(location, parent, sizeof(parent));
    if (parent[0] != '\0' && !CheckFileProperty(parent, FILE_DIRECTORY, 0)) {
        ZELLogFunction(0, SRC, __LINE__, "Session location parent directory %s doesn't exist.\n",
                       parent);
        return ERR_PARENT_MISSING;
    }
    exstrncpy(newMountPoint, location, ZEL_MOUNT_BUF_SIZE);
    exstrncpy(mountPoint, location, ZEL_MOUNT_BUF_SIZE);
    return CreateDirectory(mountPoint);
}

/* NFS: the mount tool picks the file system type; options only from the
 * environment.  Location, mount point and options are one word each. */
static int mount_nfs(const char* location, const char* mountPoint)
{
    const char* word = g_should_hide_mount_entry ? "mount -n" : "mount";
    const char* options = getenv("KVX_MOUNTOPTION");
    char* cmd = options != NULL
                    ? zel_shell_cmdline("%s %w %w -w -o %w", word, location, mountPoint, options)
                    : zel_shell_cmdline("%s %w %w -w", word, location, mountPoint);
    int ret = cmd != NULL ? ExecuteCmd(cmd) : ENOMEM;

    free(cmd);
    return ret;
}

/*
 * Creates and removes a hidden file in mountPoint, up to `tries` times with a
 * pause after every failure.  0 when it worked, else the errno of the last
 * attempt.
 */
static int test_write_permission(const char* mountPoint, int tries)
{
    char name[64] = "testkvxwritepermission";
    char path[ZEL_MOUNT_BUF_SIZE];
    unsigned char guid[16];
    bool tooLong;
    int ret = 0;
    int i, fd;

    if (genGUID(guid) == 0) {
        char text[40];

        if (strGUID(guid, text, sizeof(text)) == 0)
            exstrncpy(name, text, sizeof(name));
    }
    /* A path that does not fit is refused as the kernel would refuse it,
     * rather than cut and created somewhere else. */
    tooLong = snprintf(path, sizeof(path), "%s/.%s", mountPoint, name) >= (int)sizeof(path);

    for (i = 0; i < tries; i++) {
        errno = ENAMETOOLONG;
        fd = tooLong ? -1 : open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd >= 0) {
            close(fd);
            unlink(path);
            ZELLogFunction(4, SRC, __LINE__, "Remove test file: %s\n", path);
            return 0;
        }
        ret = errno;
        sleep(WRITE_TEST_SLEEP_S);
    }
    return ret;
}

/* Mounts a remote location unless it is usable as mounted already. */
static int mount_remote(LocationKind kind, char* location, char* mountPoint,
                        const char* user, const char* passwd, bool& realMountFlag,
                        const char* recoveryPoint, bool isRpsShare, int type)
{
    int ret;

    if (checkSessionMntExistEx(location, mountPoint, recoveryPoint)) {
        ZELLogFunction(0, SRC, __LINE__, "Mount %s on %s exists.\n", location, mountPoint);
        return 0;
    }
    if (kind == LOCATION_NFS)
        ret = mount_nfs(location, mountPoint);
    else
        ret = zel_mount_cifs(location, mountPoint, user, passwd, isRpsShare, type,
                             g_should_hide_mount_entry);
    if (ret == 0)
        realMountFlag = true;
    return ret;
}

/*
 * Makes sessLocation usable and proves that it can be written.
 * newMountPoint (4096 bytes, in/out): the wanted mount point or "" for the
 * agent's root directory; on return the mount point used.  realMountFlag is
 * true only when this call mounted (and kept) the location.
 * 0 on success; -1 bad arguments (also a location or mount point starting
 * with "-", a user name or domain with "," or a line break), mount point or
 * kernel version; 2023 local
 * location whose parent is missing; the mount tool's status; 2015 when the
 * location cannot be written for lack of permission, another errno for other
 * write failures (a mount made here is then undone).
 */
int MountSessionLocation(const char* sessLocation, const char* sessLocationUserName,
                         const char* sessLocationPasswd, char* newMountPoint,
                         bool& realMountFlag, const char* recoveryPoint,
                         bool isRpsShare, int sessLocationType)
{
    char location[ZEL_MOUNT_BUF_SIZE];
    char mountPoint[ZEL_MOUNT_BUF_SIZE];
    const char* defaultPoint = GetZelRootDir();
    LocationKind kind;
    int ret;

    realMountFlag = false;
    if (sessLocation == NULL || newMountPoint == NULL) {
        ZELLogFunction(3, SRC, __LINE__, "Invalid session location input parameter.\n");
        return -1;
    }

    /* values stay values: a path read as an option, a user name or domain adding options */
    if (sessLocation[0] == '-' || newMountPoint[0] == '-' ||
        (sessLocationUserName != NULL && strpbrk(sessLocationUserName, ",\r\n") != NULL)) {
        ZELLogFunction(0, SRC, __LINE__, "Refused session location [%s] on [%s] for user [%s].\n",
                       sessLocation, newMountPoint,
                       sessLocationUserName != NULL ? sessLocationUserName : "");
        return -1;
    }
    if (newMountPoint[0] != '\0') {
        exstrncpy(mountPoint, newMountPoint, sizeof(mountPoint));
    } else {
        exstrncpy(newMountPoint, defaultPoint, ZEL_MOUNT_BUF_SIZE);
        exstrncpy(mountPoint, defaultPoint, sizeof(mountPoint));
    }
    ret = CreateDirectory(mountPoint);
    if (ret != 0)
        return ret;

    ZELLogFunction(3, SRC, __LINE__, "Process and check session location %s, type is %s\n",
                   sessLocation,
                   sessLocationType < ZEL_SESS_TYPE_CLOUD ? "local" : "cloud");

    /* Bounded: a location over 4095 bytes is cut, not overrun. */
    exstrncpy(location, sessLocation, sizeof(location));
    kind = classify_location(location, sessLocationType);
    if (kind == LOCATION_LOCAL)
        ret = use_local_location(location, newMountPoint, mountPoint);
    else
        ret = mount_remote(kind, location, mountPoint, sessLocationUserName,
                           sessLocationPasswd, realMountFlag, recoveryPoint,
                           isRpsShare, sessLocationType);
    if (ret != 0)
        return ret;

    ret = test_write_permission(mountPoint, WRITE_TEST_TRIES);
    if (ret == 0)
        return 0;

    ZELLogFunction(0, SRC, __LINE__, "Session location %s has no write permission: %s[%d].\n",
                   sessLocation, strerror(ret), ret);
    if (realMountFlag) {
        UmountSessionLocation(mountPoint);
        realMountFlag = false;
    }
    return ret == EACCES ? ERR_NO_WRITE_PERMISSION : ret;
}
