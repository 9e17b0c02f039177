/*
 * ea_svc_job.cpp - the job procedures: job status (from the backup
 * program's monitor segment), activity log and job result.
 */
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "ea_svc.h"
#include "ea_child.h"
#include "zelutil.h"

#define LOG_SRC "ea_svc"

#define JOB_STS_ENDED      10   /* sts: no program running */
#define JOB_STG_SUCCEEDED  1    /* stg with sts 10: exited with 0 */
#define JOB_STG_FAILED     3    /* stg with sts 10: failed, or no monitor */
#define SHM_ATTACH_ROUNDS  60

/* Joins the work directory and name into buf (ZEL_PATH_MAX bytes). */
static char* work_file_path(const char* name, char* buf)
{
    return path_join(GetTargetWorkDir(), name, buf, ZEL_PATH_MAX);
}

/*
 * Drains the activity log into out (KVX_ACTIVITY_LOG_MAX bytes).  Returns
 * the drained buffer size (text length + 1), or 0 when nothing was read;
 * failures are logged at line log_line.
 */
static int drain_activity_log(const char* caller, int log_line, char* out)
{
    char path[ZEL_PATH_MAX];
    char* text = NULL;
    int size = 0, drained = 0;
    int rc;

    work_file_path(KVX_ACTIVITY_LOG_NAME, path);
    rc = read_activity_log_file(path, &text, &size);
    if (rc > 0) {
        drained = size;
        memcpy(out, text, size);     /* size <= KVX_ACTIVITY_LOG_MAX, terminated */
    } else if (rc < 0) {
        ZELLogFunction(3, LOG_SRC, log_line, "%s: Failed to read activity log from file: %s, rc=%d.\n",
                       caller, path, rc);
    }
    free(text);
    return drained;
}

/*
 * Waits for a running program's monitor segment: up to SHM_ATTACH_ROUNDS
 * attempts a second apart, giving up early when the program ends.  Returns
 * the attached monitor or null; *running is refreshed when none came.
 */
static RECOVERYPOINT_MONITOR* wait_for_monitor(int* running)
{
    RECOVERYPOINT_MONITOR* m = NULL;

    for (int round = 0; round < SHM_ATTACH_ROUNDS; round++) {
        m = (RECOVERYPOINT_MONITOR*)AttachSHM(KVX_MONITOR_SIZE, 0);
        if (m != NULL)
            return m;
        *running = query_global_process_exist();
        if (!*running)
            break;
        sleep(1);
    }
    *running = query_global_process_exist();
    return NULL;
}

/*
 * Converts the monitor's counters: byte counts to KiB, rates to KiB per
 * minute (carried in the tm_usd fields), all in unsigned 64-bit arithmetic
 * divided by the sign-extended elapsed seconds and cut to the field width.
 */
static void fill_from_monitor(const RECOVERYPOINT_MONITOR* m, JOB_STATUS* res)
{
    const JOB_MONITOR* jm = &m->job_monitor;
    UINT64 est_disk = jm->ulEstBytesDisk;
    UINT64 xfer_disk = jm->ulXferBytesDisk;
    UINT64 processed = m->ulRPProcessed_data;
    UINT64 processed_w = m->processed_data_w;
    int elapsed;

    res->typ = m->usJobType;
    res->sts = m->usJobStatus;
    res->stg = jm->ulJobPhase;
    /* all 255 bytes of the field (unterminated when full, as the codec reads it) */
    size_t len = strnlen(jm->wszDiskName, sizeof(jm->wszDiskName));
    if (len > sizeof(res->vol.name))
        len = sizeof(res->vol.name);
    memcpy(res->vol.name, jm->wszDiskName, len);

    res->vol.dt_all = est_disk != 0 ? xfer_disk * 100 / est_disk : 0;
    res->vol.dt_fin = xfer_disk >> 10;
    res->dt_fin = processed >> 10;

    elapsed = (int)(UINT32)m->ullProcessDataElapsedTime;
    if (elapsed == 0)
        elapsed = (int)((UINT32)time(NULL) - (UINT32)m->ulRPBackupVolsStartTime);
    res->processed_data_w = processed_w >> 10;
    if (elapsed != 0) {
        UINT64 div = (UINT64)(INT64)elapsed;
        res->vol.tm_usd = (UINT32)((jm->ulXferBytesJob >> 10) / div * 60);
        res->tm_usd = (UINT32)((processed >> 10) / div * 60);
        res->throughput_w = (UINT32)(((processed_w * 60) >> 10) / div);
    }

    res->job_statistic.DedupFlag = m->job_statistic.DedupFlag;
    res->job_statistic.DataIsValid = m->job_statistic.DataIsValid;
    res->job_statistic.TotalDataSize = m->job_statistic.TotalDataSize;
    res->job_statistic.UniqueDataSize = m->job_statistic.UniqueDataSize;
    res->job_statistic.CompressedDataSize = m->job_statistic.CompressedDataSize;
}

/*
 * Procedure 2: progress of the tracked background program.  Not running:
 * sts 10 and stg 1 (exit status 0) or 3.  Running without a monitor
 * segment within 60 s: sts 10, stg 3.  Otherwise the monitor's values and
 * the activity log drained into act_log.  res arrives zeroed; always 0.
 */
int get_job_status_svc(JOBSTATUSargs* args, JOB_STATUS* res)
{
    RECOVERYPOINT_MONITOR* m = NULL;
    int running;

    if (res == NULL)            /* no result record: nothing to answer into */
        return 0;
    running = query_global_process_exist();
    if (running)
        m = wait_for_monitor(&running);
    if (!running) {
        res->sts = JOB_STS_ENDED;
        res->stg = query_global_process_return_status() == 0 ? JOB_STG_SUCCEEDED : JOB_STG_FAILED;
        return 0;
    }
    if (m == NULL) {
        res->sts = JOB_STS_ENDED;
        res->stg = JOB_STG_FAILED;
        ZELLogFunction(3, LOG_SRC, 399, "%s: Attach shm failed!\n", __func__);
        return 0;
    }
    fill_from_monitor(m, res);
    res->act_size = 0;
    /* Without a buffer the events stay in the file for the next poll. */
    if (res->act_log != NULL) {
        res->act_log[0] = '\0';
        res->act_size = (UINT32)drain_activity_log(__func__, 460, res->act_log);
    }
    DetachSHM(m);
    return 0;
}

/*
 * Procedure 5: the activity log text gathered since the last fetch; logSize
 * is the drained buffer size (text length + 1) or 0.  Always 0.
 */
int get_agent_activity_log_svc(char* args, AGENTLOGres* res)
{
    if (res == NULL)
        return 0;
    res->logSize = 0;
    /* Without a buffer the events stay in the file for the next fetch. */
    if (res->pLog == NULL)
        return 0;
    res->pLog[0] = '\0';
    res->logSize = drain_activity_log(__func__, 485, res->pLog);
    return 0;
}

/*
 * Procedure 6: the job result record, consumed from the work directory.
 * Zeros when there is none.  Returns read_job_result's result.
 */
int get_job_result_svc(char* args, JOB_RESULT* res)
{
    char path[ZEL_PATH_MAX];

    if (res == NULL)
        return -1;
    work_file_path(KVX_JOB_RESULT_NAME, path);
    memset(res, 0, KVX_JOB_RESULT_SIZE);
    return read_job_result(path, res);
}
