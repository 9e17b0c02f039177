/*
 * kvxbackupvol_sim.cpp - a stand-in for the volume backup program, for
 * tests and demonstrations: it publishes a job monitor segment, advances its
 * counters once a second, appends activity log events, leaves a job result
 * and exits with the code it was told to.  It writes through the utility
 * library's own writer code, exactly as the real backup program does.
 *
 *   kvxbackupvol [--seconds N] [--exit CODE] [--delay S] [--no-shm] [--disk NAME]
 *
 *   --seconds N  run N progress steps a second apart (default 3)
 *   --exit CODE  exit status at the end (default 0)
 *   --delay S    wait S seconds before creating the segment (default 0)
 *   --no-shm     never create the segment (a program without a monitor)
 *   --disk NAME  the disk name published (default /dev/simdisk0; 255 bytes at most)
 *
 * The work directory is $TARGET_WORK_DIR (default /tmp).  Standard input is
 * never read: it is the agent's protocol stream, so it is replaced with
 * /dev/null first thing.  SIGTERM, SIGINT and SIGHUP remove the segment and
 * end the program with 128 + the signal.
 *
 * Values, at step k of N (k = 0 at start), chosen above 2^32 where the wire
 * has 64-bit fields:
 *   typ 1, sts 1, phase 2, disk "/dev/simdisk0" (or --disk)
 *   processed = SIM_BASE + k GiB (ulRPProcessed_data, ulXferBytesJob)
 *   disk: estimated 100 GiB, transferred k * 100 / N percent of it
 *   processed_data_w = processed / 2, elapsed = k seconds
 * Activity events: "1 0 kvxbackupvol: started", one
 * "1 0 kvxbackupvol: step k of N" per step, "1 CODE kvxbackupvol: finished".
 */
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "zelutil.h"

#define GIB            (1ULL << 30)
#define SIM_BASE       (5ULL << 40)            /* 5 TiB */
#define SIM_DISK_SIZE  (100 * GIB)
#define SIM_DISK_NAME  "/dev/simdisk0"

static volatile sig_atomic_t g_stop_signal;

typedef struct sim_opts {
    int seconds;
    int exit_code;
    int delay;
    int no_shm;
    const char* disk;
} sim_opts;

static void on_stop(int sig)
{
    g_stop_signal = sig;
}

static int parse_int(const char* s, int* out)
{
    char* end;
    long v;

    if (s == NULL)
        return -1;
    errno = 0;
    v = strtol(s, &end, 10);
    if (errno != 0 || end == s || *end != '\0' || v < 0 || v > 100000)
        return -1;
    *out = (int)v;
    return 0;
}

/* 0, or -1 after printing the usage. */
static int parse_args(int argc, char** argv, sim_opts* o)
{
    o->seconds = 3;
    o->exit_code = 0;
    o->delay = 0;
    o->no_shm = 0;
    o->disk = SIM_DISK_NAME;
    for (int i = 1; i < argc; i++) {
        int bad = 0;
        if (strcmp(argv[i], "--seconds") == 0)
            bad = parse_int(i + 1 < argc ? argv[++i] : NULL, &o->seconds);
        else if (strcmp(argv[i], "--exit") == 0)
            bad = parse_int(i + 1 < argc ? argv[++i] : NULL, &o->exit_code);
        else if (strcmp(argv[i], "--delay") == 0)
            bad = parse_int(i + 1 < argc ? argv[++i] : NULL, &o->delay);
        else if (strcmp(argv[i], "--no-shm") == 0)
            o->no_shm = 1;
        else if (strcmp(argv[i], "--disk") == 0 && i + 1 < argc)
            o->disk = argv[++i];
        else
            bad = -1;
        if (bad || o->exit_code > 255) {
            fprintf(stderr, "usage: %s [--seconds N] [--exit CODE] [--delay S] [--no-shm] "
                    "[--disk NAME]\n", argv[0]);
            return -1;
        }
    }
    return 0;
}

/* Sleeps n seconds unless a stop signal arrives. */
static void nap(int n)
{
    for (int i = 0; i < n && !g_stop_signal; i++)
        sleep(1);
}

static void publish_step(RECOVERYPOINT_MONITOR* m, int k, int n)
{
    UINT64 processed = SIM_BASE + (UINT64)k * GIB;
    JOB_MONITOR* jm = &m->job_monitor;

    jm->ulXferBytesDisk = n > 0 ? SIM_DISK_SIZE / 100 * (UINT64)(k * 100 / n) : SIM_DISK_SIZE;
    jm->ulXferBytesJob = processed;
    m->ulRPProcessed_data = processed;
    m->processed_data_w = processed / 2;
    m->ullProcessDataElapsedTime = (UINT64)k;
    m->job_statistic.TotalDataSize = processed;
    m->job_statistic.UniqueDataSize = processed / 2;
    m->job_statistic.CompressedDataSize = processed / 4;
}

static void publish_start(RECOVERYPOINT_MONITOR* m, const char* disk)
{
    JOB_MONITOR* jm = &m->job_monitor;

    m->usJobType = 1;
    m->usJobStatus = 1;
    jm->ulJobType = 1;
    jm->ulJobStatus = 1;
    jm->ulJobPhase = 2;
    snprintf(jm->wszDiskName, sizeof(jm->wszDiskName), "%s", disk);
    jm->ulEstBytesDisk = SIM_DISK_SIZE;
    jm->ulEstBytesJob = 8 * (1ULL << 40);
    jm->ulBackupStartTime = (UINT64)time(NULL);
    m->ulRPBackupVolsStartTime = (UINT64)time(NULL);
    m->job_statistic.DedupFlag = 1;
    m->job_statistic.DataIsValid = 1;
    m->job_statistic.MetaDataSize = 4096;
}

static void write_result(const char* path)
{
    JOB_RESULT r;

    memset(&r, 0, sizeof(r));
    r.processed_data_read = 0x123456789AULL;
    r.throughput_read = 3000;
    r.processed_data_write = 0xFEDCBA9876ULL;
    r.throughput_write = 123456;
    r.recovery_count = 7;
    r.protected_data = (1ULL << 40) + 5;
    snprintf(r.sessionNo, sizeof(r.sessionNo), "%s", "S0000042");
    snprintf(r.sessionGuid, sizeof(r.sessionGuid), "%s", "0f0e0d0c-0b0a-4908-8706-050403020100");
    if (create_job_result(path, &r) != 0)
        fprintf(stderr, "kvxbackupvol: cannot write %s\n", path);
}

static void setup_process(void)
{
    struct sigaction sa;
    int fd = open("/dev/null", O_RDONLY);

    if (fd >= 0 && fd != STDIN_FILENO) {
        dup2(fd, STDIN_FILENO);
        close(fd);
    }
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = on_stop;
    sigaction(SIGTERM, &sa, NULL);
    sigaction(SIGINT, &sa, NULL);
    sigaction(SIGHUP, &sa, NULL);
    ZELInitLogger("kvxbackupvol-sim.log", 3);
}

int main(int argc, char** argv)
{
    char logdir[ZEL_PATH_MAX], actlog[ZEL_PATH_MAX], jobres[ZEL_PATH_MAX];
    char line[ZEL_TEXT_MAX];
    RECOVERYPOINT_MONITOR* m = NULL;
    sim_opts o;
    int shmid = -1;

    setup_process();
    if (parse_args(argc, argv, &o) != 0)
        return 64;
    path_join(GetTargetWorkDir(), "logs", logdir, ZEL_PATH_MAX);
    path_join(GetTargetWorkDir(), KVX_ACTIVITY_LOG_NAME, actlog, ZEL_PATH_MAX);
    path_join(GetTargetWorkDir(), KVX_JOB_RESULT_NAME, jobres, ZEL_PATH_MAX);
    CreateDirectory(logdir);

    write_activity_log_file2(actlog, 1, 0, "kvxbackupvol: started");
    nap(o.delay);
    if (!o.no_shm && !g_stop_signal) {
        shmid = CreateSHM(KVX_MONITOR_SIZE);
        if (shmid >= 0)
            m = (RECOVERYPOINT_MONITOR*)AttachSHM(KVX_MONITOR_SIZE, shmid);
        if (m == NULL) {
            fprintf(stderr, "kvxbackupvol: cannot publish the monitor segment\n");
            if (shmid >= 0)
                DelSHM(shmid);
            return 70;
        }
        publish_start(m, o.disk);
        publish_step(m, 0, o.seconds);
    }
    for (int k = 1; k <= o.seconds && !g_stop_signal; k++) {
        nap(1);
        if (g_stop_signal)
            break;
        if (m != NULL)
            publish_step(m, k, o.seconds);
        snprintf(line, sizeof(line), "kvxbackupvol: step %d of %d", k, o.seconds);
        write_activity_log_file2(actlog, 1, 0, line);
    }
    if (!g_stop_signal) {
        write_result(jobres);
        write_activity_log_file2(actlog, 1, o.exit_code, "kvxbackupvol: finished");
    }
    if (m != NULL)
        DetachSHM(m);
    if (shmid >= 0)
        DelSHM(shmid);
    return g_stop_signal ? 128 + (int)g_stop_signal : o.exit_code;
}
