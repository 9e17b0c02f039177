/*
 * zelmountentry_cifs.cpp - mounting a CIFS share with mount.cifs: the option
 * string, its fallbacks and the runs.  Source name "zelmountentry".
 *
 * The password travels only on mount.cifs's standard input: it is never part
 * of the argument vector, the option string or the log.
 */
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "zelfunc.h"
#include "zellog.h"
#include "zelmountentry.h"

#define SRC "zelmountentry"

#define CIFS_ARGV_MAX 100

/* Appends n bytes of s to opts, cut to what still fits in size bytes. */
static void opt_append_n(char* opts, size_t size, const char* s, size_t n)
{
    size_t len = strlen(opts);
    size_t room = size - 1 - len;

    if (len >= size - 1)
        return;
    if (n > room)
        n = room;
    memcpy(opts + len, s, n);
    opts[len + n] = '\0';
}

static void opt_append(char* opts, size_t size, const char* s)
{
    opt_append_n(opts, size, s, strlen(s));
}

/* Cuts opts at the first occurrence of mark; nothing happens without one. */
static void opt_cut(char* opts, const char* mark)
{
    char* p = strstr(opts, mark);

    if (p != NULL)
        *p = '\0';
}

const char* SplitCifsUser(const char* given, size_t* domainLen)
{
    const char* sep = strrchr(given, '/');

    if (sep == NULL)
        sep = strrchr(given, '\\');
    if (sep == NULL || sep == given) {
        *domainLen = 0;
        return given;
    }
    *domainLen = (size_t)(sep - given);
    return sep + 1;
}

int BuildCifsMountOptions(char* opts, size_t size, bool restore, bool newKernel,
                          const char* port, bool isRpsShare, const char* user,
                          const char* extra)
{
    if (opts == NULL || size == 0)
        return -1;
    opts[0] = '\0';

    if (restore)
        opt_append(opts, size, "rw");
    else
        opt_append(opts, size, newKernel ? "rw,cache=none" : "rw,directio");

    if (port != NULL) {
        opt_append(opts, size, ",port=");
        opt_append(opts, size, port);
    }
    if (isRpsShare)
        opt_append(opts, size, ",nocase");
    if (user != NULL && *user != '\0') {
        size_t domainLen;
        const char* name = SplitCifsUser(user, &domainLen);

        opt_append(opts, size, ",domainname=");
        opt_append_n(opts, size, user, domainLen);
        opt_append(opts, size, ",username=");
        opt_append(opts, size, name);
    }
    if (extra != NULL) {
        opt_append(opts, size, ",");
        opt_append(opts, size, extra);
    }
    return 0;
}

int NextCifsMountOptions(char* opts, size_t size, int failed, bool newKernel)
{
    switch (failed) {
    case 1:
        if (strcasestr(opts, "sec=") != NULL)
            return -1;
        opt_append(opts, size, ",sec=ntlmssp");
        return 1;
    case 2:
        if (!newKernel)
            return 0;
        opt_cut(opts, ",sec=ntlmssp");
        opt_append(opts, size, ",vers=2.1");
        return 1;
    case 3:
        opt_cut(opts, ",vers=2.1");
        opt_append(opts, size, ",sec=ntlmssp,vers=2.1");
        return 1;
    default:
        return 0;
    }
}

/* One mount.cifs run: the password, possibly empty, is its standard input. */
static int run_cifs(char** argv, const char* passwd)
{
    return ExecuteProcess(argv, passwd, strlen(passwd), NULL, 0);
}

int zel_mount_cifs(const char* location, const char* mountPoint, const char* user,
                   const char* passwd, bool isRpsShare, int sessLocationType,
                   bool hideEntry)
{
    char opts[ZEL_MOUNT_BUF_SIZE];
    char* argv[CIFS_ARGV_MAX] = { NULL };
    int mainv = 0, subv = 0, patchv = 0;
    int ret, next, failed = 0;
    bool newKernel;

    ret = GetKernelVersion(&mainv, &subv, &patchv);
    if (ret != 0) {
        ZELLogFunction(0, SRC, __LINE__, "Get kernel version failed.\n");
        return ret;
    }
    newKernel = IsNewKernel(mainv, subv);

    PushArgv(argv, CIFS_ARGV_MAX, "%s",
             sessLocationType == ZEL_SESS_TYPE_CLOUD ? "mount.s3" : "mount.cifs");
    PushArgv(argv, CIFS_ARGV_MAX, "%s", location);
    PushArgv(argv, CIFS_ARGV_MAX, "%s", mountPoint);
    if (hideEntry)
        PushArgv(argv, CIFS_ARGV_MAX, "%s", "-n");
    PushArgv(argv, CIFS_ARGV_MAX, "%s", "-o");

    BuildCifsMountOptions(opts, sizeof(opts), IsPerformingRestore(), newKernel,
                          getenv("KVX_SMBD_PORT"), isRpsShare, user,
                          getenv("KVX_MOUNTOPTION"));
    PushArgv(argv, CIFS_ARGV_MAX, "%s", opts);
    ZELLogFunction(3, SRC, __LINE__, "Cifs mount option:%s\n", opts);
    ret = run_cifs(argv, passwd ? passwd : "");

    while (ret != 0) {
        next = NextCifsMountOptions(opts, sizeof(opts), ++failed, newKernel);
        if (next == 0)
            ZELLogFunction(3, SRC, __LINE__, "Fail to mount session location %s\n", location);
        if (next != 1)
            break;
        ZELLogFunction(3, SRC, __LINE__, "Try cifs mount option:%s\n", opts);
        CleanLastArgv(argv);
        PushArgv(argv, CIFS_ARGV_MAX, "%s", opts);
        ret = run_cifs(argv, passwd ? passwd : "");
    }

    CleanArgv(argv);
    return ret;
}
