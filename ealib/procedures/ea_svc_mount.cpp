/*
 * ea_svc_mount.cpp - procedure 4: mount the backup session location and
 * report the mount point used.  Source name "ea_svc".
 */
#include <string.h>

#include "ea_svc.h"
#include "zelfunc.h"
#include "zellog.h"
#include "zelmountentry.h"

#define SRC "ea_svc"

/*
 * Mounts args->session_location (with user, pwd and the wanted mount point,
 * "" for the default) and fills res: ret 0 with the mount point and its
 * length, or ret 1 with "" and 0.  The error number only goes to the log.
 * Always returns 0.
 *
 * A mount point that does not fit the reply's buffer is answered as a
 * failure, and a mount made for it undone: a cut path would name another
 * directory, and the server copies exactly "len" bytes into a buffer of the
 * same size.
 */
int mount_svc(Mountargs* args, Mountres* res)
{
    char new_mount_point[ZEL_MOUNT_BUF_SIZE];
    bool real_mount_flag = false;
    size_t len;
    int ret;
    EA_PASSWORD_WIPED_ON_RETURN(args != NULL ? args->pwd : NULL);

    if (res == NULL)
        return 0;
    res->ret = 1;
    res->mount_point_len = 0;
    /* A request whose "param" did not decode is refused without being read. */
    if (args == NULL || res->mount_point == NULL) {
        ZELLogFunction(0, SRC, __LINE__, "mount_svc: invalid mount request.\n");
        if (res->mount_point != NULL)
            res->mount_point[0] = '\0';
        return 0;
    }
    res->mount_point[0] = '\0';

    memset(new_mount_point, 0, sizeof(new_mount_point));
    /* Bounded: a wanted mount point over 4095 bytes is cut, not overrun. */
    if (args->mount_point != NULL && args->mount_point[0] != '\0')
        exstrncpy(new_mount_point, args->mount_point, sizeof(new_mount_point));

    ret = MountSessionLocation(args->session_location, args->user, args->pwd,
                               new_mount_point, real_mount_flag, NULL, false, -1);
    if (ret != 0)
        return 0;

    len = strlen(new_mount_point);
    if (len >= EA_MOUNT_POINT_SIZE) {
        ZELLogFunction(0, SRC, __LINE__,
                       "mount_svc: mount point is too long for the reply (%d bytes).\n", (int)len);
        if (real_mount_flag)
            UmountSessionLocation(new_mount_point);
        return 0;
    }
    memcpy(res->mount_point, new_mount_point, len + 1);
    res->mount_point_len = (int)len;
    res->ret = 0;
    return 0;
}
