/*
 * zelfunc_shm.cpp - the job monitor's System V shared memory segment: the
 * backup program creates it (CreateSHM), the agent attaches it read-only in
 * spirit (AttachSHM).  The key is fixed; no ftok.
 */
#include <errno.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/types.h>

#include "zelfunc.h"
#include "zellog.h"
#include "zeltrust.h"

/* The fixed key of the job monitor segment. */
int GetIPCKey(void)
{
    return KVX_IPC_KEY;
}

/*
 * Attaches segment shmid when it is >= 1, otherwise looks up the existing
 * segment of GetIPCKey() (never creates it).  The address, or null (logged
 * at level 0), also for a segment that root or the agent's account did not
 * both create and own.  Release with DetachSHM().
 */
void* AttachSHM(int size, int shmid)
{
    void* addr;

    if (shmid < 1) {
        int key;

        if (shmid < 0)
            ZELLogFunction(3, "zelfunc", __LINE__, "%s shmid=%d\n", "AttachSHM", shmid);
        key = GetIPCKey();
        if (key == -1) {
            ZELLogFunction(0, "zelfunc", __LINE__, "%s: ftok failed: %s(%d).\n",
                           "AttachSHM", strerror(errno), errno);
            return NULL;
        }
        shmid = shmget((key_t)key, (size_t)size, 0666);
        if (shmid < 0) {
            int err = errno;
            ZELLogFunction(0, "zelfunc", __LINE__, "%s: shmget failed: %s(%d). shmid=%d\n",
                           "AttachSHM", strerror(err), err, shmid);
            return NULL;
        }
    }
    /* a segment another account created or owns may carry forged progress: none */
    struct shmid_ds ds;
    if (shmctl(shmid, IPC_STAT, &ds) != 0 || !zel_trusted_owner(ds.shm_perm.cuid) ||
        !zel_trusted_owner(ds.shm_perm.uid)) {
        ZELLogFunction(0, "zelfunc", __LINE__, "%s: segment %d not trusted (creator %ld, owner %ld).\n",
                       "AttachSHM", shmid, (long)ds.shm_perm.cuid, (long)ds.shm_perm.uid);
        return NULL;
    }
    addr = shmat(shmid, NULL, 0);
    if (addr == (void*)-1) {   /* shmat's failure value is not null: map it */
        int err = errno;
        ZELLogFunction(0, "zelfunc", __LINE__, "%s: shmat failed: %s(%d).\n",
                       "AttachSHM", strerror(err), err);
        return NULL;
    }
    return addr;
}

/* Detaches an address from AttachSHM(); 0 or -1. */
int DetachSHM(void* addr)
{
    if (addr == NULL)
        return -1;
    return shmdt(addr) == 0 ? 0 : -1;
}

/*
 * Writer side: creates (or opens) the GetIPCKey() segment of size bytes,
 * mode 0666.  An older segment too small for size is removed and made
 * again.  The shmid, or -1 (logged at level 0).
 */
int CreateSHM(int size)
{
    key_t key = (key_t)GetIPCKey();
    int shmid = shmget(key, (size_t)size, IPC_CREAT | 0666);

    if (shmid < 0 && errno == EINVAL) {
        int old = shmget(key, 0, 0);
        if (old >= 0)
            shmctl(old, IPC_RMID, NULL);
        shmid = shmget(key, (size_t)size, IPC_CREAT | 0666);
    }
    if (shmid < 0) {
        int err = errno;
        ZELLogFunction(0, "zelfunc", __LINE__, "%s: shmget failed: %s(%d).\n",
                       "CreateSHM", strerror(err), err);
        return -1;
    }
    return shmid;
}

/* Removes segment shmid (it goes once the last process detaches); 0 or -1. */
int DelSHM(int shmid)
{
    return shmctl(shmid, IPC_RMID, NULL) == 0 ? 0 : -1;
}
