/*
 * ea_jxdr.cpp - codecs of the ping, command, mount and VM detection
 * procedures.
 *
 * Every codec has three modes: decode (x_op 2) carves the record from the
 * envelope's arena and fills it from "param"; called with a null record on
 * a reply it carves an empty result record; encode (x_op 1) turns the
 * record into "param".  0 on success, -1 when "param" does not match (the
 * caller's record pointer is then left as it was).  A null char* field is
 * encoded as "" (the JSON library refuses a null string); the texts of
 * replies go through jxdr_text(), so that every reply packs.
 */
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include "ea_proto.h"

static const char* str_or_empty(const char* s)
{
    return s ? s : "";
}

int jxdr_Noargs(JXDR* xdrs, char*& rec)
{
    return 0;
}

/* ---- procedure 1: ping ---- */

/* "param" {"str": msg}; msg_len = strlen(msg) + 1. */
int jxdr_PINGargs(JXDR* xdrs, PINGargs*& rec)
{
    PINGargs* r;
    const char* s = NULL;

    if (xdrs->x_op == JXDR_ENCODE) {
        if (!rec)
            return -1;
        jxdr_set_param(xdrs, json_pack("{s:s}", "str", str_or_empty(rec->msg)));
        return 0;
    }
    if (xdrs->x_op != JXDR_DECODE)
        return -1;
    if (json_unpack(xdrs->x_hd, "{s:{s:s}}", "param", "str", &s) != 0)
        return -1;
    r = (PINGargs*)jxdr_param_alloc(xdrs, sizeof(PINGargs));
    if (!r)
        return -1;
    r->msg = jxdr_param_strdup(xdrs, s);
    if (!r->msg)
        return -1;
    r->msg_len = (int)strlen(s) + 1;
    rec = r;
    return 0;
}

/* "param" {"str": msg, "sp": stamp}.  Allocation mode: 1024-byte msg.
 * Decode: msg (capacity msg_len, preset by the caller) gets the text cut
 * to msg_len - 1 characters; msg_len becomes strlen(msg) + 1. */
int jxdr_PINGres(JXDR* xdrs, PINGres*& rec)
{
    const char* s = NULL;
    int stamp = 0;

    if (!rec) {
        rec = (PINGres*)jxdr_result_alloc(xdrs, sizeof(PINGres), offsetof(PINGres, msg),
                                          EA_PING_MSG_SIZE);
        return rec && rec->msg ? 0 : -1;
    }
    if (xdrs->x_op == JXDR_ENCODE) {
        jxdr_set_param(xdrs, json_pack("{s:o,s:i}",
                                       "str", jxdr_text(rec->msg, EA_PING_MSG_SIZE - 1, NULL),
                                       "sp", (int)rec->stamp));
        return 0;
    }
    if (xdrs->x_op != JXDR_DECODE)
        return -1;
    if (json_unpack(xdrs->x_hd, "{s:{s:s,s:i}}", "param", "str", &s, "sp", &stamp) != 0)
        return -1;
    rec->stamp = stamp;
    /* a caller without a buffer gets one from the reply's arena */
    if (!rec->msg) {
        rec->msg = jxdr_param_alloc(xdrs, EA_PING_MSG_SIZE);
        rec->msg_len = rec->msg ? EA_PING_MSG_SIZE : 0;
    }
    if (rec->msg && rec->msg_len > 0) {
        jxdr_copy_text(rec->msg, rec->msg_len, s, rec->msg_len - 1);
        rec->msg_len = (int)strlen(rec->msg) + 1;
    }
    return 0;
}

/* ---- procedure 3 (arguments also of 7 and 8; result also of 8) ---- */

int jxdr_ExecCmdargs(JXDR* xdrs, ExecCmdargs*& rec)
{
    ExecCmdargs* r;
    const char *s = NULL, *user = NULL, *pwd = NULL;
    int msg_mode = 0, block_mode = 0, jobid = 0, sudoflag = 0;
    json_int_t jobid_in = 0;

    if (xdrs->x_op == JXDR_ENCODE) {
        if (!rec)
            return -1;
        jxdr_set_param(xdrs, json_pack("{s:s,s:b,s:b,s:i,s:s,s:s,s:i}",
                                       "str", str_or_empty(rec->cmd),
                                       "msg_mode", rec->need_get_return_msg_flag,
                                       "block_mode", rec->block_flag,
                                       "jobid", rec->jobid,
                                       "user", str_or_empty(rec->user),
                                       "passwd", str_or_empty(rec->pwd),
                                       "sudoflag", rec->sudo_flag));
        dlog2("unset", 0, "cmdargs: encode: cmd_len=%d! \n",
              (int)strlen(str_or_empty(rec->cmd)));
        return 0;
    }
    if (xdrs->x_op != JXDR_DECODE)
        return -1;
    if (json_unpack(xdrs->x_hd, "{s:{s:s,s:b,s:b,s:I,s:s,s:s,s:i}}", "param",
                    "str", &s, "msg_mode", &msg_mode, "block_mode", &block_mode,
                    "jobid", &jobid_in, "user", &user, "passwd", &pwd,
                    "sudoflag", &sudoflag) != 0)
        return -1;
    if (!jxdr_int_fits(jobid_in, &jobid))   /* refused, not wrapped */
        return -1;
    dlog2("unset", 0, "1.cmdargs: decode: cmd_len=%d! \n", (int)strlen(s));

    r = (ExecCmdargs*)jxdr_param_alloc(xdrs, sizeof(ExecCmdargs));
    if (!r)
        return -1;
    r->cmd = jxdr_param_strdup(xdrs, s);
    r->user = jxdr_param_strdup(xdrs, user);
    r->pwd = jxdr_param_strdup(xdrs, pwd);
    if (!r->cmd || (user && !r->user) || (pwd && !r->pwd))
        return -1;
    r->cmd_len = (int)strlen(s) + 1;
    r->need_get_return_msg_flag = msg_mode;
    r->block_flag = block_mode;
    r->jobid = jobid;
    r->sudo_flag = sudoflag;
    rec = r;
    return 0;
}

/* "param" {"str": cmd, "retmsg_len": cmd_len, "ret": cmd_ret}.
 * Allocation mode: 204800-byte cmd.  Decode: at most retmsg_len bytes of
 * the text, never more than the text holds or the buffer takes. */
int jxdr_ExecCmdres(JXDR* xdrs, ExecCmdres*& rec)
{
    const char* s = NULL;
    int len = 0, ret = 0, cap = EA_EXEC_RES_SIZE;

    if (!rec) {
        rec = (ExecCmdres*)jxdr_result_alloc(xdrs, sizeof(ExecCmdres), offsetof(ExecCmdres, cmd),
                                             EA_EXEC_RES_SIZE);
        return rec && rec->cmd ? 0 : -1;
    }
    if (xdrs->x_op == JXDR_ENCODE) {
        /* the handlers cut command output at their own limits */
        len = rec->cmd_len;
        json_t* str = jxdr_text(rec->cmd, -1, &len);
        jxdr_set_param(xdrs, json_pack("{s:o,s:i,s:i}", "str", str,
                                       "retmsg_len", len, "ret", rec->cmd_ret));
        return 0;
    }
    if (xdrs->x_op != JXDR_DECODE)
        return -1;
    if (json_unpack(xdrs->x_hd, "{s:{s:s,s:i,s:i}}", "param", "str", &s,
                    "retmsg_len", &len, "ret", &ret) != 0)
        return -1;
    rec->cmd_len = len;
    rec->cmd_ret = ret;
    if (!rec->cmd && len > 0) {
        /* sized by the text actually received, not by the claimed length */
        cap = (int)strnlen(s, (size_t)len) + 1;
        rec->cmd = jxdr_param_alloc(xdrs, cap);
        if (!rec->cmd)
            return -1;
    }
    if (rec->cmd && len > 0)
        jxdr_copy_text(rec->cmd, cap, s, len);
    return 0;
}

/* ---- procedure 4 ---- */

int jxdr_Mountargs(JXDR* xdrs, Mountargs*& rec)
{
    Mountargs* r;
    const char *loc = NULL, *user = NULL, *pwd = NULL, *point = NULL;

    if (xdrs->x_op == JXDR_ENCODE) {
        if (!rec)
            return -1;
        jxdr_set_param(xdrs, json_pack("{s:s,s:s,s:s,s:s}",
                                       "location", str_or_empty(rec->session_location),
                                       "user", str_or_empty(rec->user),
                                       "pwd", str_or_empty(rec->pwd),
                                       "point", str_or_empty(rec->mount_point)));
        dlog2("unset", 0, "Mountargs: encode: location=%d! \n",
              (int)strlen(str_or_empty(rec->session_location)));
        return 0;
    }
    if (xdrs->x_op != JXDR_DECODE)
        return -1;
    if (json_unpack(xdrs->x_hd, "{s:{s:s,s:s,s:s,s:s}}", "param", "location", &loc,
                    "user", &user, "pwd", &pwd, "point", &point) != 0)
        return -1;
    r = (Mountargs*)jxdr_param_alloc(xdrs, sizeof(Mountargs));
    if (!r)
        return -1;
    r->session_location = jxdr_param_strdup(xdrs, loc);
    r->user = jxdr_param_strdup(xdrs, user);
    r->pwd = jxdr_param_strdup(xdrs, pwd);
    r->mount_point = jxdr_param_strdup(xdrs, point);
    if (!r->session_location || !r->user || !r->pwd || !r->mount_point)
        return -1;
    rec = r;
    return 0;
}

/* "param" {"str": mount_point, "len": mount_point_len, "ret": ret}.
 * Allocation mode and decode use a 1024-byte mount_point. */
int jxdr_Mountres(JXDR* xdrs, Mountres*& rec)
{
    const char* s = NULL;
    int len = 0, ret = 0;

    if (!rec) {
        rec = (Mountres*)jxdr_result_alloc(xdrs, sizeof(Mountres), offsetof(Mountres, mount_point),
                                           EA_MOUNT_POINT_SIZE);
        return rec && rec->mount_point ? 0 : -1;
    }
    if (xdrs->x_op == JXDR_ENCODE) {
        len = rec->mount_point_len;
        json_t* str = jxdr_text(rec->mount_point, EA_MOUNT_POINT_SIZE - 1, &len);
        jxdr_set_param(xdrs, json_pack("{s:o,s:i,s:i}", "str", str, "len", len, "ret", rec->ret));
        return 0;
    }
    if (xdrs->x_op != JXDR_DECODE)
        return -1;
    if (json_unpack(xdrs->x_hd, "{s:{s:s,s:i,s:i}}", "param", "str", &s,
                    "len", &len, "ret", &ret) != 0)
        return -1;
    if (!rec->mount_point) {
        rec->mount_point = jxdr_param_alloc(xdrs, EA_MOUNT_POINT_SIZE);
        if (!rec->mount_point)
            return -1;
    }
    rec->mount_point_len = len;
    rec->ret = ret;
    /* bounded by the text and by the 1024-byte buffer */
    if (len > 0)
        jxdr_copy_text(rec->mount_point, EA_MOUNT_POINT_SIZE, s, len);
    return 0;
}

/* ---- procedure 7 ---- */

int jxdr_VMDetectargs(JXDR* xdrs, VMDetectArg*& rec)
{
    VMDetectArg* r;
    const char* uuid = NULL;

    if (xdrs->x_op == JXDR_ENCODE) {
        if (!rec)
            return -1;
        jxdr_set_param(xdrs, json_pack("{s:s}", "uuid", str_or_empty(rec->uuid)));
        return 0;
    }
    if (xdrs->x_op != JXDR_DECODE)
        return -1;
    if (json_unpack(xdrs->x_hd, "{s:{s:s}}", "param", "uuid", &uuid) != 0)
        return -1;
    r = (VMDetectArg*)jxdr_param_alloc(xdrs, sizeof(VMDetectArg));
    if (!r)
        return -1;
    r->uuid = jxdr_param_strdup(xdrs, uuid);
    if (!r->uuid)
        return -1;
    rec = r;
    return 0;
}

#define VMDETECT_FMT "{s:i, s:i, s:i, s:i}"

int jxdr_VMDetectres(JXDR* xdrs, VMDetectInfo_t*& rec)
{
    char fmt[64];
    int type = 0, local = 0, socks = 0, isuek = 0;

    if (!rec) {
        rec = (VMDetectInfo_t*)jxdr_result_alloc(xdrs, sizeof(VMDetectInfo_t), 0, 0);
        return rec ? 0 : -1;
    }
    if (xdrs->x_op == JXDR_ENCODE) {
        jxdr_set_param(xdrs, json_pack(VMDETECT_FMT, "type", rec->vpt_type,
                                       "local", rec->is_local, "socks", rec->socks,
                                       "isuek", rec->is_oracle_uek));
        return 0;
    }
    if (xdrs->x_op != JXDR_DECODE)
        return -1;
    snprintf(fmt, sizeof(fmt), "{s:%s}", VMDETECT_FMT);
    if (json_unpack(xdrs->x_hd, fmt, "param", "type", &type, "local", &local,
                    "socks", &socks, "isuek", &isuek) != 0) {
        dlog("Decoding VMDetect Info error!\n");
        return -1;
    }
    rec->vpt_type = type;
    rec->is_local = local;
    rec->socks = socks;
    rec->is_oracle_uek = isuek;
    return 0;
}
