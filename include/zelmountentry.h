/*
 * zelmountentry.h - session location mount (source name "zelmountentry").
 */
#ifndef ZELMOUNTENTRY_H
#define ZELMOUNTENTRY_H

#include <stddef.h>

int   MountSessionLocation(const char* sessLocation, const char* sessLocationUserName,
                           const char* sessLocationPasswd, char* newMountPoint,
                           bool& realMountFlag, const char* recoveryPoint,
                           bool isRpsShare, int sessLocationType);
int   checkSessionMntExist(char* sessLocation, char* mountPoint);
int   checkSessionMntExistEx(char* sessLocation, char* mountPoint, const char* recoveryPoint);
int   UmountSessionLocation(const char* mountPoint);
int   GetKernelVersion(int* mainv, int* subv, int* patchv);
bool  IsPerformingRestore(void);
char* trim_slash(char* str);
void  SetHideMountEntry(bool hide);

/* ---- pieces of the CIFS mount, kept pure so every kernel can be tested ---- */

/* Size of every path, command line and option buffer of this module. */
#define ZEL_MOUNT_BUF_SIZE 4096

/* Location types; a type of ZEL_SESS_TYPE_CLOUD or above is cloud storage. */
#define ZEL_SESS_TYPE_CLOUD 6

/* The mount.cifs options differ from kernel 3.7 on ("new" kernels). */
bool  IsNewKernel(int mainv, int subv);

/*
 * Splits "DOMAIN/user" or "DOMAIN\user" at the last '/' (else the last '\').
 * A separator at position 0 or none at all gives an empty domain and the
 * whole text as the user.  Sets *domainLen to the length of the domain (the
 * first bytes of given) and returns a pointer into given for the user.
 */
const char* SplitCifsUser(const char* given, size_t* domainLen);

/*
 * Builds the first mount.cifs option string into opts (size bytes, always
 * terminated, every append cut to fit).  restore picks plain "rw"; otherwise
 * the caching option depends on newKernel.  port, user and extra (the value
 * of KVX_MOUNTOPTION) are left out when null; user also when empty.
 * Returns 0, or -1 for a null or empty buffer.
 */
int   BuildCifsMountOptions(char* opts, size_t size, bool restore, bool newKernel,
                            const char* port, bool isRpsShare, const char* user,
                            const char* extra);

/*
 * After attempt number `failed` (1-based) failed, rewrites opts for the next
 * attempt.  Returns 1 when there is one more attempt to make, 0 when the
 * mount has failed for good and that is to be logged, -1 when it has failed
 * for good silently (the caller chose its own "sec=" option).
 */
int   NextCifsMountOptions(char* opts, size_t size, int failed, bool newKernel);

/*
 * Mounts a CIFS share (type ZEL_SESS_TYPE_CLOUD would use mount.s3) on
 * mountPoint, trying the fallback options in turn, at most four runs; the
 * password (null = empty) is given only on the tool's standard input.
 * 0 on success, -1 when the kernel version cannot be read, else the status
 * of the last run.
 */
int   zel_mount_cifs(const char* location, const char* mountPoint, const char* user,
                     const char* passwd, bool isRpsShare, int sessLocationType,
                     bool hideEntry);

/* IsPerformingRestore() on a given cmdline file (tests use their own). */
bool  IsPerformingRestoreFrom(const char* cmdlinePath);

#endif /* ZELMOUNTENTRY_H */
