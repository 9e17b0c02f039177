/*
 * ea_jxdr_job.cpp - codecs of the job status, activity log and job result
 * procedures (three-mode convention, see ea_jxdr.cpp).
 *
 * The records are byte-packed, so numbers are unpacked into aligned locals
 * and stored afterwards; a record is only written once "param" matched.
 */
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include "ea_proto.h"

/* ---- procedure 2 ---- */

int jxdr_JOBSTATUSargs(JXDR* xdrs, JOBSTATUSargs*& rec)
{
    JOBSTATUSargs* r;
    int id = 0;
    json_int_t id_in = 0;

    if (xdrs->x_op == JXDR_ENCODE) {
        if (!rec)
            return -1;
        jxdr_set_param(xdrs, json_pack("{s:i}", "id", rec->jobid));
        return 0;
    }
    if (xdrs->x_op != JXDR_DECODE)
        return -1;
    if (json_unpack(xdrs->x_hd, "{s:{s:I}}", "param", "id", &id_in) != 0 || !jxdr_int_fits(id_in, &id))
        return -1;   /* an id that does not fit is refused, not wrapped */
    r = (JOBSTATUSargs*)jxdr_param_alloc(xdrs, sizeof(JOBSTATUSargs));
    if (!r)
        return -1;
    r->jobid = id;
    rec = r;
    return 0;
}

/* Texts are "s" when read and "o" (a jxdr_text string) when written. */
#define JOBSTATUS_FORMAT(t) \
    "{s:i, s:i, s:i, s:i, s:" t ", s:{s:" t ", s:i, s:i, s:I, s:I}, s:i, s:i, s:I, s:I, " \
    "s:i, s:i, s:i, s:I, s:i, s:{s:i,s:i,s:I,s:I,s:I}}"

static json_t* pack_job_status(const JOB_STATUS* r)
{
    const JOBSTAT* st = &r->job_statistic;
    int act_size = (int)r->act_size;
    json_t* act_log = jxdr_text(r->act_log, EA_ACT_LOG_SIZE - 1, &act_size);

    /* vol.name may fill its 255 bytes without a terminator */
    return json_pack(JOBSTATUS_FORMAT("o"),
        "sts", (int)r->sts, "typ", (int)r->typ, "stg", (int)r->stg,
        "act_size", act_size, "act_log", act_log,
        "vol", "name", jxdr_text(r->vol.name, (int)sizeof(r->vol.name), NULL),
        "tm_usd", (int)r->vol.tm_usd, "tm_rem", (int)r->vol.tm_rem,
        "dt_all", (json_int_t)r->vol.dt_all, "dt_fin", (json_int_t)r->vol.dt_fin,
        "tm_usd", (int)r->tm_usd, "tm_rem", (int)r->tm_rem,
        "dt_all", (json_int_t)r->dt_all, "dt_fin", (json_int_t)r->dt_fin,
        "enc", (int)r->enc, "cmp", (int)r->cmp, "lmt", (int)r->lmt,
        "proc_data_w", (json_int_t)r->processed_data_w, "throughput_w", (int)r->throughput_w,
        "stat", "valid", st->DataIsValid, "is_dedup", st->DedupFlag,
        "total_data", (json_int_t)st->TotalDataSize,
        "unique_data", (json_int_t)st->UniqueDataSize,
        "compressed_data", (json_int_t)st->CompressedDataSize);
}

/* Decoded reply of procedure 2 before it is stored into the packed record. */
typedef struct job_status_wire {
    int sts, typ, stg, act_size, vtm_usd, vtm_rem, tm_usd, tm_rem, enc, cmp, lmt, thr_w;
    int valid, dedup;
    json_int_t vdt_all, vdt_fin, dt_all, dt_fin, proc_w, total, unique, compressed;
    const char* name;
    const char* act_log;
} job_status_wire;

static int unpack_job_status(json_t* hd, job_status_wire* w)
{
    char fmt[256];

    snprintf(fmt, sizeof(fmt), "{s:%s}", JOBSTATUS_FORMAT("s"));
    return json_unpack(hd, fmt, "param",
        "sts", &w->sts, "typ", &w->typ, "stg", &w->stg,
        "act_size", &w->act_size, "act_log", &w->act_log,
        "vol", "name", &w->name, "tm_usd", &w->vtm_usd, "tm_rem", &w->vtm_rem,
        "dt_all", &w->vdt_all, "dt_fin", &w->vdt_fin,
        "tm_usd", &w->tm_usd, "tm_rem", &w->tm_rem, "dt_all", &w->dt_all, "dt_fin", &w->dt_fin,
        "enc", &w->enc, "cmp", &w->cmp, "lmt", &w->lmt,
        "proc_data_w", &w->proc_w, "throughput_w", &w->thr_w,
        "stat", "valid", &w->valid, "is_dedup", &w->dedup, "total_data", &w->total,
        "unique_data", &w->unique, "compressed_data", &w->compressed);
}

/*
 * Stores a received activity log text of the announced size (taken as
 * unsigned, clamped to 32768 and returned in *clamped).  A buffer of that
 * size is carved when the record has none.  At most 32767 characters are
 * copied, never more than the buffer takes.  0, or -2 when no buffer could
 * be had.  line_clamp/line_nomem: the caller's debug-log lines (0 = none).
 */
static int store_act_log(JXDR* xdrs, char*& buf, UINT32 size, const char* text,
                         int* clamped, int line_clamp, int line_nomem)
{
    int cap = EA_ACT_LOG_SIZE;

    if (size > EA_ACT_LOG_SIZE) {
        size = EA_ACT_LOG_SIZE;
        dlog2("ea_jxdr", line_clamp, "log size is too large, it will be trancated.\n");
    }
    *clamped = (int)size;
    if (!text)
        return 0;
    if (!buf) {
        buf = jxdr_param_alloc(xdrs, (int)size);
        cap = (int)size;
        if (!buf) {
            if (line_nomem)
                dlog2("ea_jxdr", line_nomem, "Failed to allocate memory.\n");
            return -2;
        }
    }
    jxdr_copy_text(buf, cap, text, EA_ACT_LOG_SIZE - 1);
    return 0;
}

int jxdr_JOBSTATUSres(JXDR* xdrs, JOB_STATUS*& rec)
{
    job_status_wire w;
    int size;

    if (!rec) {
        rec = (JOB_STATUS*)jxdr_result_alloc(xdrs, sizeof(JOB_STATUS),
                                             offsetof(JOB_STATUS, act_log), EA_ACT_LOG_SIZE);
        if (!rec)
            return -1;
        if (!rec->act_log)
            dlog2("ea_jxdr", 329, "jxdr_param_alloc failed");
        return 0;
    }
    if (xdrs->x_op == JXDR_ENCODE) {
        jxdr_set_param(xdrs, pack_job_status(rec));
        return 0;
    }
    if (xdrs->x_op != JXDR_DECODE)
        return -1;
    memset(&w, 0, sizeof(w));
    if (unpack_job_status(xdrs->x_hd, &w) != 0) {
        dlog("Error! \n");
        return -1;
    }
    rec->sts = w.sts; rec->typ = w.typ; rec->stg = w.stg;
    rec->vol.tm_usd = w.vtm_usd; rec->vol.tm_rem = w.vtm_rem;
    rec->vol.dt_all = w.vdt_all; rec->vol.dt_fin = w.vdt_fin;
    rec->tm_usd = w.tm_usd; rec->tm_rem = w.tm_rem;
    rec->dt_all = w.dt_all; rec->dt_fin = w.dt_fin;
    rec->enc = w.enc; rec->cmp = w.cmp; rec->lmt = w.lmt;
    rec->processed_data_w = w.proc_w; rec->throughput_w = w.thr_w;
    rec->job_statistic.DataIsValid = w.valid;
    rec->job_statistic.DedupFlag = w.dedup;
    rec->job_statistic.TotalDataSize = w.total;
    rec->job_statistic.UniqueDataSize = w.unique;
    rec->job_statistic.CompressedDataSize = w.compressed;
    /* all 255 bytes of the field; a terminator only where there is room */
    memset(rec->vol.name, 0, sizeof(rec->vol.name));
    memcpy(rec->vol.name, w.name, strnlen(w.name, sizeof(rec->vol.name)));
    rec->act_size = (UINT32)w.act_size;
    if (w.act_size != 0) {
        char* log = rec->act_log;     /* the packed field cannot bind a reference */
        store_act_log(xdrs, log, (UINT32)w.act_size, w.act_log, &size, 422, 0);
        rec->act_log = log;
        rec->act_size = (UINT32)size;
    }
    return 0;
}

/* ---- procedure 5 ---- */

int jxdr_AGENTLOGres(JXDR* xdrs, AGENTLOGres*& rec)
{
    char fmt[64];
    const char* text = NULL;
    int size = 0;

    if (!rec) {
        rec = (AGENTLOGres*)jxdr_result_alloc(xdrs, sizeof(AGENTLOGres),
                                              offsetof(AGENTLOGres, pLog), EA_ACT_LOG_SIZE);
        return rec && rec->pLog ? 0 : -1;
    }
    if (xdrs->x_op == JXDR_ENCODE) {
        size = rec->logSize;
        json_t* text_json = jxdr_text(rec->pLog, EA_ACT_LOG_SIZE - 1, &size);
        jxdr_set_param(xdrs, json_pack("{s:i, s:o}", "size", size, "ActivityLogs", text_json));
        return 0;
    }
    if (xdrs->x_op != JXDR_DECODE)
        return -1;
    snprintf(fmt, sizeof(fmt), "{s:%s}", "{s:i, s:s}");
    if (json_unpack(xdrs->x_hd, fmt, "param", "size", &size, "ActivityLogs", &text) != 0) {
        dlog("jxdr_AGENTLOGres Error! \n");
        return -1;
    }
    rec->logSize = size;
    if (size > 0) {
        int rc = store_act_log(xdrs, rec->pLog, (UINT32)size, text, &rec->logSize, 485, 493);
        if (rc != 0)
            return rc;
    }
    return 0;
}

/* ---- procedure 6 ---- */

#define JOBRESULT_FORMAT(t) "{s:I, s:i, s:I, s:i, s:i, s:I, s:" t ", s:" t "}"

int jxdr_JOBRESULTres(JXDR* xdrs, JOB_RESULT*& rec)
{
    char fmt[64];
    json_int_t rd = 0, wr = 0, prot = 0;
    int thr_r = 0, thr_w = 0, count = 0;
    const char *s_no = NULL, *s_guid = NULL;

    if (!rec) {
        rec = (JOB_RESULT*)jxdr_result_alloc(xdrs, sizeof(JOB_RESULT), 0, 0);
        return rec ? 0 : -1;
    }
    if (xdrs->x_op == JXDR_ENCODE) {
        /* the two texts come from a file and may lack their terminators */
        jxdr_set_param(xdrs, json_pack(JOBRESULT_FORMAT("o"),
            "proc_data_r", (json_int_t)rec->processed_data_read,
            "throughput_r", (int)rec->throughput_read,
            "proc_data_w", (json_int_t)rec->processed_data_write,
            "throughput_w", (int)rec->throughput_write,
            "rec_count", (int)rec->recovery_count,
            "protect_data", (json_int_t)rec->protected_data,
            "session", jxdr_text(rec->sessionNo, (int)sizeof(rec->sessionNo), NULL),
            "sessionGuid", jxdr_text(rec->sessionGuid, (int)sizeof(rec->sessionGuid), NULL)));
        return 0;
    }
    if (xdrs->x_op != JXDR_DECODE)
        return -1;
    snprintf(fmt, sizeof(fmt), "{s:%s}", JOBRESULT_FORMAT("s"));
    if (json_unpack(xdrs->x_hd, fmt, "param", "proc_data_r", &rd, "throughput_r", &thr_r,
                    "proc_data_w", &wr, "throughput_w", &thr_w, "rec_count", &count,
                    "protect_data", &prot, "session", &s_no, "sessionGuid", &s_guid) != 0) {
        dlog("Decoding job result error!\n");
        return -1;
    }
    rec->processed_data_read = rd;
    rec->throughput_read = thr_r;
    rec->processed_data_write = wr;
    rec->throughput_write = thr_w;
    rec->recovery_count = count;
    rec->protected_data = prot;
    /* cut to the fields: 31 and 36 characters plus the terminator */
    jxdr_copy_text(rec->sessionNo, sizeof(rec->sessionNo), s_no, -1);
    jxdr_copy_text(rec->sessionGuid, sizeof(rec->sessionGuid), s_guid, -1);
    return 0;
}
