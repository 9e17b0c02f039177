/*
 * zelmountentry.h - session location mount (source name "zelmountentry").
 */
#ifndef ZELMOUNTENTRY_H
#define ZELMOUNTENTRY_H

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

#endif /* ZELMOUNTENTRY_H */
