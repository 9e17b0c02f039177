/*
 * svc_product.cpp - the node's product lock and the product programs that
 * run on the node (source name "svc_main").
 */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "svc_product.h"
#include "zelfunc.h"
#include "zellog.h"

#define SRC              "svc_main"
#define EA_LOCK_ETC      "/etc/.kvx"
#define EA_LEGACY_DIR    "/var/lib/norvane_kvx"
#define EA_CACHE_DIR     "/var/lib/kvx_cache"
#define EA_LOCK_CACHE    EA_CACHE_DIR "/backup.bat"

int ea_lock_status = -1;

/*
 * Takes the node's product lock, held until the process exits.  A node with
 * the legacy cache directory has it renamed first.
 */
void take_product_lock(void)
{
    if (access(EA_LOCK_ETC, R_OK) == 0) {
        ea_lock_status = check_and_lock_file(EA_LOCK_ETC, 0);
        return;
    }
    if (access(EA_LEGACY_DIR, R_OK) == 0 && rename(EA_LEGACY_DIR, EA_CACHE_DIR) != 0)
        ZELLogFunction(3, SRC, 206, "Failed to rename %s to %s (%d).\n",
                       EA_LEGACY_DIR, EA_CACHE_DIR, errno);
    ea_lock_status = check_and_lock_file(EA_LOCK_CACHE, 0);
}

/*
 * Pid of the first process whose "ps" line contains name; 0 when none runs,
 * -1 when ps could not be started.
 */
int query_process_pid(const char* name)
{
    char cmd[4096];
    char buf[4096];
    snprintf(cmd, sizeof(cmd), "ps -e -o pid,comm | grep \"%s\"", name);
    if (zel_shell_capture(cmd, buf, sizeof(buf), NULL) < 0) {
        ZELLogFunction(0, SRC, 47, "%s: open pipe(%s) failed.\n", __func__, cmd);
        return -1;
    }
    if (buf[0] == '\0') {
        ZELLogFunction(3, SRC, 61, "%s: process(%s) is exited.\n", __func__, name);
        return 0;
    }
    return atoi(buf);
}

