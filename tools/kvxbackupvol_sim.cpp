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
 *   --disk NAME  the disk name published for every volume (255 bytes at most)
 *
 * The work directory is $TARGET_WORK_DIR (default /tmp).  Standard input is
 * never read: it is the agent's protocol stream, so it is replaced with
 * /dev/null first thing.  SIGTERM, SIGINT and SIGHUP remove the segment and
 * end the program with 128 + the signal.
 *
 * What it publishes reads like a real volume backup: two volumes (4.5 GiB of
 * ext4 on /dev/sda2, then 2.5 GiB of xfs on /dev/sdb1) read in N steps at a
 * steady rate that varies by up to a tenth from second to second, about 43 %
 * of it written after deduplication and compression.  Every count is a whole
 * number of 4 KiB blocks.  Activity events: the job's start, each volume's
 * start and end, and "Backup job finished: ..." (type 1) or, with a non-zero
 * exit code, "Backup job failed with exit code CODE" (type 3, code CODE).
 * The job result holds the totals, rates in KiB per minute, one recovery
 * point and session "S0000042".
 */
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "zelutil.h"

#define GIB            (1ULL << 30)
#define BLOCK          4096ULL
#define WRITTEN_PCT    43
#define UNIQUE_PCT     61

typedef struct sim_volume {
    const char* name;
    const char* fstype;
    UINT64      bytes;
} sim_volume;

static const sim_volume kVolumes[] = {
    {"/dev/sda2", "ext4", 45 * GIB / 10},
    {"/dev/sdb1", "xfs",  25 * GIB / 10},
};
#define SIM_VOLUMES    (int)(sizeof(kVolumes) / sizeof(kVolumes[0]))

/* Rate of each second in percent of the mean, repeated. */
static const int kPace[] = {100, 107, 94, 110, 97, 90, 105, 98};
#define SIM_PACE       (int)(sizeof(kPace) / sizeof(kPace[0]))

static volatile sig_atomic_t g_stop_signal;

typedef struct sim_opts {
    int seconds;
    int exit_code;
    int delay;
    int no_shm;
    const char* disk;   /* null: each volume's own name */
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
    o->disk = NULL;
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

static UINT64 job_bytes(void)
{
    UINT64 total = 0;

    for (int v = 0; v < SIM_VOLUMES; v++)
        total += kVolumes[v].bytes;
    return total;
}

static UINT64 blocks_of(UINT64 bytes, int pct)
{
    return bytes / 100 * pct / BLOCK * BLOCK;
}

/* Bytes read after step k of n: the paces summed up to k, scaled to the job. */
static UINT64 read_after(int k, int n)
{
    long long upto = 0, all = 0;

    if (k >= n)
        return job_bytes();
    for (int i = 0; i < n; i++) {
        all += kPace[i % SIM_PACE];
        if (i < k)
            upto += kPace[i % SIM_PACE];
    }
    return (UINT64)((double)job_bytes() * (double)upto / (double)all) / BLOCK * BLOCK;
}

/* The volume being read at a job position, and how far into it. */
static int volume_at(UINT64 pos, UINT64* into)
{
    int v = 0;

    while (v < SIM_VOLUMES - 1 && pos >= kVolumes[v].bytes) {
        pos -= kVolumes[v].bytes;
        v++;
    }
    *into = pos;
    return v;
}

static double in_gib(UINT64 bytes)
{
    return (double)bytes / (double)GIB;
}

static void activity(const char* path, int type, int code, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));

static void activity(const char* path, int type, int code, const char* fmt, ...)
{
    char line[ZEL_TEXT_MAX];
    va_list ap;

    va_start(ap, fmt);
    vsnprintf(line, sizeof(line), fmt, ap);
    va_end(ap);
    write_activity_log_file2(path, type, code, line);
}

/* Reports the volumes finished and started since volume *current. */
static void volume_events(const char* actlog, int* current, int now)
{
    for (; *current < now; ++*current) {
        activity(actlog, 1, 0, "Volume %s done: %.1f GiB read", kVolumes[*current].name,
                 in_gib(kVolumes[*current].bytes));
        activity(actlog, 1, 0, "Backing up %s (%s, %.1f GiB)", kVolumes[*current + 1].name,
                 kVolumes[*current + 1].fstype, in_gib(kVolumes[*current + 1].bytes));
    }
}

static void publish_step(RECOVERYPOINT_MONITOR* m, UINT64 pos, int k, const char* disk)
{
    JOB_MONITOR* jm = &m->job_monitor;
    UINT64 into;
    int v = volume_at(pos, &into);

    snprintf(jm->wszDiskName, sizeof(jm->wszDiskName), "%s", disk != NULL ? disk : kVolumes[v].name);
    jm->ulEstBytesDisk = kVolumes[v].bytes;
    jm->ulXferBytesDisk = into;
    jm->ulXferBytesJob = pos;
    m->ulRPProcessed_data = pos;
    m->processed_data_w = blocks_of(pos, WRITTEN_PCT);
    m->ullProcessDataElapsedTime = (UINT64)k;
    m->job_statistic.TotalDataSize = pos;
    m->job_statistic.UniqueDataSize = blocks_of(pos, UNIQUE_PCT);
    m->job_statistic.CompressedDataSize = blocks_of(pos, WRITTEN_PCT);
}

static void publish_start(RECOVERYPOINT_MONITOR* m)
{
    JOB_MONITOR* jm = &m->job_monitor;

    m->usJobType = 1;
    m->usJobStatus = 1;
    jm->ulJobType = 1;
    jm->ulJobStatus = 1;
    jm->ulJobPhase = 2;
    jm->ulEstBytesJob = job_bytes();
    jm->ulBackupStartTime = (UINT64)time(NULL);
    m->ulRPBackupVolsStartTime = (UINT64)time(NULL);
    m->job_statistic.DedupFlag = 1;
    m->job_statistic.DataIsValid = 1;
    m->job_statistic.MetaDataSize = 4096;
}

/* The job's totals, rates in KiB per minute over n seconds. */
static void write_result(const char* path, int n)
{
    JOB_RESULT r;
    UINT64 seconds = n > 0 ? (UINT64)n : 1;

    memset(&r, 0, sizeof(r));
    r.processed_data_read = job_bytes();
    r.throughput_read = (UINT32)((job_bytes() >> 10) * 60 / seconds);
    r.processed_data_write = blocks_of(job_bytes(), WRITTEN_PCT);
    r.throughput_write = (UINT32)((r.processed_data_write >> 10) * 60 / seconds);
    r.recovery_count = 1;
    r.protected_data = job_bytes();
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
    RECOVERYPOINT_MONITOR* m = NULL;
    sim_opts o;
    int shmid = -1, volume = 0;
    UINT64 into;

    setup_process();
    if (parse_args(argc, argv, &o) != 0)
        return 64;
    path_join(GetTargetWorkDir(), "logs", logdir, ZEL_PATH_MAX);
    path_join(GetTargetWorkDir(), KVX_ACTIVITY_LOG_NAME, actlog, ZEL_PATH_MAX);
    path_join(GetTargetWorkDir(), KVX_JOB_RESULT_NAME, jobres, ZEL_PATH_MAX);
    CreateDirectory(logdir);

    activity(actlog, 1, 0, "Backup job started: %d volumes, %.1f GiB", SIM_VOLUMES, in_gib(job_bytes()));
    activity(actlog, 1, 0, "Backing up %s (%s, %.1f GiB)", kVolumes[0].name, kVolumes[0].fstype,
             in_gib(kVolumes[0].bytes));
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
        publish_start(m);
        publish_step(m, read_after(0, o.seconds), 0, o.disk);
    }
    for (int k = 1; k <= o.seconds && !g_stop_signal; k++) {
        nap(1);
        if (g_stop_signal)
            break;
        UINT64 pos = read_after(k, o.seconds);
        if (m != NULL)
            publish_step(m, pos, k, o.disk);
        if (k < o.seconds)
            volume_events(actlog, &volume, volume_at(pos, &into));
    }
    if (!g_stop_signal) {
        volume_events(actlog, &volume, SIM_VOLUMES - 1);
        activity(actlog, 1, 0, "Volume %s done: %.1f GiB read", kVolumes[volume].name,
                 in_gib(kVolumes[volume].bytes));
        write_result(jobres, o.seconds);
        if (o.exit_code == 0)
            activity(actlog, 1, 0, "Backup job finished: %.1f GiB read, %.1f GiB written",
                     in_gib(job_bytes()), in_gib(blocks_of(job_bytes(), WRITTEN_PCT)));
        else
            activity(actlog, 3, o.exit_code, "Backup job failed with exit code %d", o.exit_code);
    }
    if (m != NULL)
        DetachSHM(m);
    if (shmid >= 0)
        DelSHM(shmid);
    return g_stop_signal ? 128 + (int)g_stop_signal : o.exit_code;
}
