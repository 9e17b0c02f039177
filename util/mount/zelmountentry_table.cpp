/*
 * zelmountentry_table.cpp - looking up, undoing and judging mounts: the mount
 * table, unmount, the kernel version, restore detection and path
 * normalisation.  Source name "zelmountentry".
 */
#include <errno.h>
#include <mntent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/utsname.h>

#include "zelfunc.h"
#include "zellog.h"
#include "zelmountentry.h"

#define SRC "zelmountentry"

static const char* const MOUNT_TABLE = "/etc/mtab";
static const char* const SELF_CMDLINE = "/proc/self/cmdline";

/*
 * Normalises a path in place and returns it: a leading run of slashes is
 * shortened to at most two, every later run collapsed to one, then one
 * trailing slash removed unless the text is all slashes.  Null or empty
 * input is returned unchanged.
 */
char* trim_slash(char* str)
{
    char* r = str;
    char* w = str;
    int lead = 0;
    size_t n;

    if (str == NULL || *str == '\0')
        return str;

    while (*r == '/') {
        if (lead++ < 2)
            *w++ = '/';
        r++;
    }
    while (*r != '\0') {
        if (*r == '/') {
            *w++ = '/';
            while (*r == '/')
                r++;
        } else {
            *w++ = *r++;
        }
    }
    *w = '\0';

    n = (size_t)(w - str);
    if (str[n - 1] == '/' && strspn(str, "/") != n)
        str[n - 1] = '\0';
    return str;
}

static void log_mount_entry(const struct mntent* ent)
{
    ZELLogFunction(5, SRC, __LINE__, "--------------------------------------------------------\n");
    ZELLogFunction(5, SRC, __LINE__, "FS name   = [%s]\n", ent->mnt_fsname);
    ZELLogFunction(5, SRC, __LINE__, "Mount     = [%s]\n", ent->mnt_dir);
    ZELLogFunction(5, SRC, __LINE__, "Type      = [%s]\n", ent->mnt_type);
    ZELLogFunction(5, SRC, __LINE__, "Options   = [%s]\n", ent->mnt_opts);
}

/*
 * 1 when the mount table holds sessLocation mounted on mountPoint, else 0
 * (also when the table cannot be opened).  Both strings are normalised in
 * place with trim_slash before they are compared.
 */
int checkSessionMntExist(char* sessLocation, char* mountPoint)
{
    FILE* fp;
    struct mntent* ent;
    int found = 0;

    if (sessLocation == NULL || mountPoint == NULL)
        return 0;

    fp = setmntent(MOUNT_TABLE, "r+");
    if (fp == NULL) {
        ZELLogFunction(3, SRC, __LINE__, "Failed to open mount table [%s]: [%d]\n",
                       MOUNT_TABLE, errno);
        return 0;
    }
    while (!found && (ent = getmntent(fp)) != NULL) {
        log_mount_entry(ent);
        if (strcmp(trim_slash(ent->mnt_fsname), trim_slash(sessLocation)) != 0)
            continue;
        if (strcmp(trim_slash(ent->mnt_dir), trim_slash(mountPoint)) == 0)
            found = 1;
    }
    endmntent(fp);
    return found;
}

/*
 * 1 when the caller should treat the location as mounted and not mount it:
 * the recovery point already exists under the mount point, or the location
 * is mounted there and cannot be unmounted.  0 when the caller should mount
 * (nothing there, or a stale mount of the same location was just removed).
 */
int checkSessionMntExistEx(char* sessLocation, char* mountPoint, const char* recoveryPoint)
{
    char path[ZEL_MOUNT_BUF_SIZE];
    int ret;

    if (recoveryPoint != NULL && mountPoint != NULL) {
        snprintf(path, sizeof(path), "%s/%s", mountPoint, recoveryPoint);
        if (CheckFileProperty(path, 0, 0)) {
            ZELLogFunction(3, SRC, __LINE__, "The recoverypoint %s exists.\n", path);
            return 1;
        }
    }
    if (!checkSessionMntExist(sessLocation, mountPoint))
        return 0;

    ret = UmountSessionLocation(mountPoint);
    ZELLogFunction(3, SRC, __LINE__, "%s: Umount existing mount point %s(%d).\n",
                   "checkSessionMntExistEx", mountPoint, ret);
    return ret != 0 ? 1 : 0;
}

/*
 * Unmounts mountPoint: "umount", then a forced lazy "umount -fl" when that
 * fails.  0 or the status of the last command.
 */
int UmountSessionLocation(const char* mountPoint)
{
    /* the mount point is one word, whatever it holds */
    char* cmd = zel_shell_cmdline("umount %w", mountPoint);
    int ret = cmd != NULL ? ExecuteCmd(cmd) : ENOMEM;

    free(cmd);
    if (ret == 0)
        return 0;
    cmd = zel_shell_cmdline("umount -fl %w", mountPoint);
    ret = cmd != NULL ? ExecuteCmdSilently(cmd) : ENOMEM;
    free(cmd);
    if (ret != 0)
        ZELLogFunction(0, SRC, __LINE__, "%s: Umount session location from %s failed:%d\n",
                       "UmountSessionLocation", mountPoint ? mountPoint : "", ret);
    return ret;
}

/*
 * Reads the running kernel's version from uname.  Fields of the release that
 * do not parse keep the caller's values.  0, or -1 (null argument, uname).
 */
int GetKernelVersion(int* mainv, int* subv, int* patchv)
{
    struct utsname uts;

    if (mainv == NULL || subv == NULL || patchv == NULL)
        return -1;
    if (uname(&uts) != 0) {
        ZELLogFunction(0, SRC, __LINE__, "Get kernel version failed:%s(%d)\n",
                       strerror(errno), errno);
        return -1;
    }
    sscanf(uts.release, "%2d.%2d.%2d", mainv, subv, patchv);
    ZELLogFunction(4, SRC, __LINE__, "main version=%d, sub version=%d, patch version=%d\n",
                   *mainv, *subv, *patchv);
    return 0;
}

bool IsNewKernel(int mainv, int subv)
{
    return (mainv == 3 && subv >= 7) || mainv >= 4;
}

static bool assume_backup(void)
{
    ZELLogFunction(0, SRC, __LINE__, "%s: For safty considerations we'll take this is backup "
                   "prcess for more strict mount options.\n", "IsPerformingRestore");
    return false;
}

/*
 * False when the program named first in the cmdline file has a base name
 * containing "kvxbackup" (a backup), true otherwise.  A file that cannot be
 * read counts as a backup, which gets the stricter mount options.
 */
bool IsPerformingRestoreFrom(const char* cmdlinePath)
{
    char line[ZEL_MOUNT_BUF_SIZE];
    const char* base;
    FILE* fp;

    fp = fopen(cmdlinePath, "r");
    if (fp == NULL) {
        int err = errno;
        ZELLogFunction(0, SRC, __LINE__, "%s: %s failed: %s[%d].\n", "IsPerformingRestore",
                       cmdlinePath, strerror(err), err);
        return assume_backup();
    }
    if (fgets(line, sizeof(line), fp) == NULL) {
        int err = errno;
        fclose(fp);
        ZELLogFunction(0, SRC, __LINE__, "%s: fgets failed: %s[%d].\n", "IsPerformingRestore",
                       strerror(err), err);
        return assume_backup();
    }
    fclose(fp);

    /* The arguments are NUL-separated: the string ends with the program path. */
    base = strrchr(line, '/');
    base = base ? base + 1 : line;
    return strstr(base, "kvxbackup") == NULL;
}

bool IsPerformingRestore(void)
{
    return IsPerformingRestoreFrom(SELF_CMDLINE);
}
