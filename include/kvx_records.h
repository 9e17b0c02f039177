/*
 * kvx_records.h - records that the product's backup programs and the agent
 * exchange through files and System V shared memory.  Byte-packed and
 * little-endian; the static_asserts pin every offset the agent reads.
 */
#ifndef KVX_RECORDS_H
#define KVX_RECORDS_H

#include <stddef.h>
#include "zel_basic_types.h"

#pragma pack(push, 1)

/* Job statistics block (40 bytes). */
typedef struct _JobStatistic {
    int    DedupFlag;
    int    DataIsValid;
    UINT64 TotalDataSize;
    UINT64 UniqueDataSize;
    UINT64 CompressedDataSize;
    UINT64 MetaDataSize;
} JOBSTAT;

/* Job result file "logs/linuxkvxjobres" (105 bytes). */
typedef struct _JOB_RESULT {
    UINT64 processed_data_read;
    UINT32 throughput_read;
    UINT64 processed_data_write;
    UINT32 throughput_write;
    UINT32 recovery_count;
    UINT64 protected_data;
    char   sessionNo[32];
    char   sessionGuid[37];
} JOB_RESULT;

/* One parsed activity log event. */
typedef struct _AgentActivityLogStruc {
    UINT32 type;
    UINT32 errorCode;
    char   message[1024];
} AgentActivityLogStruc;

typedef struct _JOB_MONITOR {
    UINT32 ulSessionID;
    UINT32 ulFlags;
    UINT32 ulJobPhase;
    UINT32 ulJobStatus;
    UINT32 ulJobType;
    UINT32 ulJobMethod;
    UINT32 ulVolMethod;
    UINT64 ulEstBytesJob;
    UINT64 ulXferBytesJob;
    UINT64 ulEstBytesDisk;
    UINT64 ulXferBytesDisk;
    char   wszDiskName[256];
    UINT64 ulBackupStartTime;
    UINT32 ulElapsedTime;
} JOB_MONITOR;

typedef struct ZELRecoveryPointConfigDef {
    UINT8  bootVolExistFlag;
    UINT8  bootVolBackupFlag;
    UINT8  rootVolBackupFlag;
    UINT8  jobType;
    UINT32 compressLevel;
    UINT32 hashLen;
    char   algo[128];
    char   hash[128];
    UINT32 backupTime;
} ZELRecoveryPointConfig;

typedef struct ZELVolumeImageDef {
    char   volumeName[4097];
    char   volumeFstype[129];
    char   volumeDevice[4097];
    char   volumeImage[4097];
    UINT64 volumeImageSize;
    UINT64 volumeSize;
    char   volumeBitmap[4097];
    UINT64 volumeBitmapSize;
    UINT64 volumeSignature;
} ZELVolumeImage;

#define KVX_MAX_VOLUMES 256

/* Recovery point monitor: the job-status shared memory segment. */
typedef struct _RECOVERYPOINT_MONITOR {
    JOB_MONITOR            job_monitor;
    USHORT                 usJobStatus;
    USHORT                 usJobType;
    UINT64                 ulRPBackupVolsStartTime;
    UINT64                 ulRPProcessed_data;
    ZELRecoveryPointConfig config;
    char                   session_location[4097];
    char                   destination[4097];
    UINT64                 ullEstimatedSessionSize;
    char                   reserve[512];
    UINT32                 vol_num;
    ZELVolumeImage         vol_image[KVX_MAX_VOLUMES];
    UINT64                 processed_data_w;
    UINT32                 throughput_w;
    UINT64                 ullProcessDataElapsedTime;
    UINT32                 ctlCommand;
    JOBSTAT                job_statistic;
} RECOVERYPOINT_MONITOR;

#pragma pack(pop)

#define KVX_JOB_RESULT_SIZE 105
#define KVX_MONITOR_SIZE    4245946

#ifdef __cplusplus
static_assert(sizeof(JOBSTAT) == 40, "JOBSTAT layout");
static_assert(sizeof(JOB_RESULT) == KVX_JOB_RESULT_SIZE, "job result layout");
static_assert(offsetof(JOB_RESULT, throughput_read) == 8, "job result layout");
static_assert(offsetof(JOB_RESULT, processed_data_write) == 12, "job result layout");
static_assert(offsetof(JOB_RESULT, throughput_write) == 20, "job result layout");
static_assert(offsetof(JOB_RESULT, recovery_count) == 24, "job result layout");
static_assert(offsetof(JOB_RESULT, protected_data) == 28, "job result layout");
static_assert(offsetof(JOB_RESULT, sessionNo) == 36, "job result layout");
static_assert(offsetof(JOB_RESULT, sessionGuid) == 68, "job result layout");
static_assert(sizeof(JOB_MONITOR) == 328, "job monitor layout");
static_assert(offsetof(JOB_MONITOR, ulJobPhase) == 8, "job monitor layout");
static_assert(offsetof(JOB_MONITOR, ulEstBytesJob) == 28, "job monitor layout");
static_assert(offsetof(JOB_MONITOR, ulXferBytesJob) == 36, "job monitor layout");
static_assert(offsetof(JOB_MONITOR, ulEstBytesDisk) == 44, "job monitor layout");
static_assert(offsetof(JOB_MONITOR, ulXferBytesDisk) == 52, "job monitor layout");
static_assert(offsetof(JOB_MONITOR, wszDiskName) == 60, "job monitor layout");
static_assert(offsetof(JOB_MONITOR, ulBackupStartTime) == 316, "job monitor layout");
static_assert(offsetof(JOB_MONITOR, ulElapsedTime) == 324, "job monitor layout");
static_assert(sizeof(ZELRecoveryPointConfig) == 272, "config layout");
static_assert(sizeof(ZELVolumeImage) == 16549, "volume image layout");
static_assert(sizeof(RECOVERYPOINT_MONITOR) == KVX_MONITOR_SIZE, "monitor layout");
static_assert(offsetof(RECOVERYPOINT_MONITOR, usJobStatus) == 328, "monitor layout");
static_assert(offsetof(RECOVERYPOINT_MONITOR, usJobType) == 330, "monitor layout");
static_assert(offsetof(RECOVERYPOINT_MONITOR, ulRPBackupVolsStartTime) == 332, "monitor layout");
static_assert(offsetof(RECOVERYPOINT_MONITOR, ulRPProcessed_data) == 340, "monitor layout");
static_assert(offsetof(RECOVERYPOINT_MONITOR, config) == 348, "monitor layout");
static_assert(offsetof(RECOVERYPOINT_MONITOR, session_location) == 620, "monitor layout");
static_assert(offsetof(RECOVERYPOINT_MONITOR, destination) == 4717, "monitor layout");
static_assert(offsetof(RECOVERYPOINT_MONITOR, ullEstimatedSessionSize) == 8814, "monitor layout");
static_assert(offsetof(RECOVERYPOINT_MONITOR, reserve) == 8822, "monitor layout");
static_assert(offsetof(RECOVERYPOINT_MONITOR, vol_num) == 9334, "monitor layout");
static_assert(offsetof(RECOVERYPOINT_MONITOR, vol_image) == 9338, "monitor layout");
static_assert(offsetof(RECOVERYPOINT_MONITOR, processed_data_w) == 4245882, "monitor layout");
static_assert(offsetof(RECOVERYPOINT_MONITOR, throughput_w) == 4245890, "monitor layout");
static_assert(offsetof(RECOVERYPOINT_MONITOR, ullProcessDataElapsedTime) == 4245894, "monitor layout");
static_assert(offsetof(RECOVERYPOINT_MONITOR, ctlCommand) == 4245902, "monitor layout");
static_assert(offsetof(RECOVERYPOINT_MONITOR, job_statistic) == 4245906, "monitor layout");
#endif

#endif /* KVX_RECORDS_H */
