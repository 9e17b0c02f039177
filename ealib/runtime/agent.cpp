/*
 * agent.cpp - entry point of kvx_ea (source name "agent").
 *
 *   kvx_ea EA_CMD_DETECT_VM        exit status: bit 0 virtual machine, bit 7 UEK
 *   kvx_ea EA_CMD_GET_SOCKS        exit status: para-virtual socket count
 *   kvx_ea [--zelrootdir DIR] [--targetworkdir DIR]
 *                                  serve requests on standard input/output
 *
 * TARGET_BOOTSTRAP_DIR is set to the executable's own directory in every
 * mode.  The log is opened by the service loop, not here.
 */
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>

#include "exec_proto.h"
#include "jxdr.h"
#include "net_conn.h"
#include "svc_main.h"
#include "svc_stream.h"
#include "vmdetect.h"
#include "zelfunc.h"

#define EA_UEK_FLAG 0x80

/* Takes one option pair into the environment; other words are ignored. */
static void apply_option(const char* opt, const char* value)
{
    if (strcmp(opt, "--zelrootdir") == 0)
        setenv(ZEL_ROOT_PATH_ENV, value, 1);
    else if (strcmp(opt, "--targetworkdir") == 0)
        setenv(TARGET_WORK_DIR_ENV, value, 1);
}

int main(int argc, char** argv)
{
    /* it holds root passwords: no core file, and no other process of its user may read its memory */
    prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
    char path[4096];
    memset(path, 0, sizeof(path));
    GetProcessModulePath(path, sizeof(path));   /* stays empty on failure */
    setenv(TARGET_BOOTSTRAP_DIR_ENV, path, 1);

    if (argc == 2 && strcmp(argv[1], "EA_CMD_DETECT_VM") == 0) {
        int status = detect_vm_info();
        if (is_oracle_uek())
            status |= EA_UEK_FLAG;
        return status;
    }
    if (argc == 2 && strcmp(argv[1], "EA_CMD_GET_SOCKS") == 0)
        return get_pv_sockets();

    if (argc == 3) {
        apply_option(argv[1], argv[2]);
    } else if (argc == 5) {
        apply_option(argv[1], argv[2]);
        apply_option(argv[3], argv[4]);
    }

    dlog("=====Exec Agent Start=====");
    /* commands started from here on never write into the reply stream */
    STDIOChannel* channel = new STDIOChannel(stdin, svc_private_stream());
    ExecProto* proto = new ExecProto(channel);
    int rc = svc_main(proto);
    dlog("=====Exec Agent Stop=====");
    delete proto;
    delete channel;
    return rc;
}
