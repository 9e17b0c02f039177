/*
 * svc_logcap.h - the agent log kept bounded while serving (source name
 * "svc_main").
 */
#ifndef SVC_LOGCAP_H
#define SVC_LOGCAP_H

/* Bytes the log may grow by before it is trimmed again while serving. */
#define SVC_LOG_SLACK (2L << 20)

/*
 * Trims the log at path to its newest lines once it has grown by more than
 * SVC_LOG_SLACK bytes since the last look that trimmed it (or the first).
 */
void svc_log_bound(const char* path, int lines);

#endif /* SVC_LOGCAP_H */
