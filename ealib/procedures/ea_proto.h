/*
 * ea_proto.h - procedure numbers, argument and result records, and their
 * codecs (codecs: source name "ea_jxdr").  Records are carved from the
 * envelope's arena; nothing here is freed on its own.
 */
#ifndef EA_PROTO_H
#define EA_PROTO_H

#include <stdint.h>
#include "jxdr.h"
#include "zel_basic_types.h"
#include "kvx_records.h"

enum {
    EA_PROC_PING          = 1,
    EA_PROC_JOBSTATUS     = 2,
    EA_PROC_EXEC_CMD      = 3,
    EA_PROC_MOUNT         = 4,
    EA_PROC_AGENTLOG      = 5,
    EA_PROC_JOBRESULT     = 6,
    EA_PROC_VMDETECT      = 7,
    EA_PROC_CHECK_MACHINE = 8
};

#define EA_PING_MSG_SIZE      1024
#define EA_EXEC_RES_SIZE      204800
#define EA_ACT_LOG_SIZE       32768
#define EA_MOUNT_POINT_SIZE   1024

/* ---- procedure 1 ---- */
typedef struct PINGargs {
    int   msg_len;       /* strlen(msg) + 1 */
    char* msg;
    bool  discard_msg;   /* client side: skip lines until the matching reply */
} PINGargs;

typedef struct PINGres {
    int32_t stamp;       /* the agent's clock, 32-bit seconds */
    int     msg_len;
    char*   msg;         /* 1024-byte buffer in allocation mode */
} PINGres;

/* ---- procedure 2 ---- */
typedef struct JOBSTATUSargs {
    int jobid;
} JOBSTATUSargs;

#pragma pack(push, 1)
typedef struct _JOB_VOL_STATUS {
    char   name[255];
    UINT32 tm_usd;
    UINT32 tm_rem;
    UINT64 dt_all;
    UINT64 dt_fin;
} JOB_VOL_STATUS;

typedef struct _JOB_STATUS {
    UINT32         sts;
    UINT32         typ;
    UINT32         stg;
    JOB_VOL_STATUS vol;
    UINT32         tm_usd;
    UINT32         tm_rem;
    UINT64         dt_all;
    UINT64         dt_fin;
    UINT32         enc;
    UINT32         cmp;
    UINT32         lmt;
    UINT32         act_size;
    char*          act_log;          /* 32768-byte buffer in allocation mode */
    UINT64         processed_data_w;
    UINT32         throughput_w;
    JOBSTAT        job_statistic;
} JOB_STATUS, JOBSTATUSres;
#pragma pack(pop)

/* ---- procedure 3 (and the arguments of 7 and 8, the result of 8) ---- */
typedef struct ExecCmdargs {
    int   cmd_len;
    char* cmd;
    int   need_get_return_msg_flag;
    int   block_flag;
    int   jobid;
    char* user;
    char* pwd;
    int   sudo_flag;
} ExecCmdargs;

typedef struct ExecCmdres {
    int   cmd_ret;
    int   cmd_len;
    char* cmd;           /* 204800-byte buffer in allocation mode */
} ExecCmdres;

/* ---- procedure 4 ---- */
typedef struct Mountargs {
    char* session_location;
    char* user;
    char* pwd;
    char* mount_point;
} Mountargs;

typedef struct Mountres {
    int   ret;
    int   mount_point_len;
    char* mount_point;   /* 1024-byte buffer in allocation mode */
} Mountres;

/* ---- procedure 5 ---- */
typedef struct AGENTLOGres {
    int   logSize;       /* buffer size read (text length + 1), not the text length */
    char* pLog;          /* 32768-byte buffer in allocation mode */
} AGENTLOGres;

/* ---- procedure 7 ---- */
typedef struct VMDetectInfo_t {
    int vpt_type;
    int is_local;
    int socks;
    int is_oracle_uek;
} VMDetectInfo_t, VMDetectInfores;

typedef struct VMDetectArg {
    char* uuid;
} VMDetectArg;

/* ---- codecs ---- */
int jxdr_Noargs(JXDR* xdrs, char*& rec);
int jxdr_PINGargs(JXDR* xdrs, PINGargs*& rec);
int jxdr_PINGres(JXDR* xdrs, PINGres*& rec);
int jxdr_JOBSTATUSargs(JXDR* xdrs, JOBSTATUSargs*& rec);
int jxdr_JOBSTATUSres(JXDR* xdrs, JOB_STATUS*& rec);
int jxdr_ExecCmdargs(JXDR* xdrs, ExecCmdargs*& rec);
int jxdr_ExecCmdres(JXDR* xdrs, ExecCmdres*& rec);
int jxdr_Mountargs(JXDR* xdrs, Mountargs*& rec);
int jxdr_Mountres(JXDR* xdrs, Mountres*& rec);
int jxdr_AGENTLOGres(JXDR* xdrs, AGENTLOGres*& rec);
int jxdr_JOBRESULTres(JXDR* xdrs, JOB_RESULT*& rec);
int jxdr_VMDetectargs(JXDR* xdrs, VMDetectArg*& rec);
int jxdr_VMDetectres(JXDR* xdrs, VMDetectInfo_t*& rec);

#endif /* EA_PROTO_H */
