/*
 * agentactivitylog.h - the activity log file shared by the backup programs
 * and the agent, and the machine check report reader
 * (source name "agentactivitylog").
 */
#ifndef AGENTACTIVITYLOG_H
#define AGENTACTIVITYLOG_H

#include "kvx_records.h"

#define KVX_ACTIVITY_LOG_NAME  "logs/linuxkvxactivity.log"
#define KVX_JOB_RESULT_NAME    "logs/linuxkvxjobres"
#define KVX_ACTIVITY_LOG_MAX   32768

int read_activity_log_file(const char* path, char** text, int* size);
int write_activity_log_file(const char* path, const char* line);
int write_activity_log_file2(const char* path, int type, int errorCode, const char* message);
int update_activity_log_file(const char* from, const char* to);
int read_activity_log(const char* text, int length, AgentActivityLogStruc* entries, int* count);
int read_checkmachine_file(const char* filename, char** buf_out, int* len_out);

#endif /* AGENTACTIVITYLOG_H */
