/*
 * zelcommon.h - whole-count descriptor I/O and small string helpers
 * (source name "common").
 */
#ifndef ZELCOMMON_H
#define ZELCOMMON_H

/* Move exactly n bytes; the count moved (short at end of file) or -1. */
int  readn(int fd, void* buf, int n, int redirect);
int  writen(int fd, void* buf, int n, int redirect);
void set_job_down_flag(int flag);
/* Replaces *dst (freeing it) with a copy of src; no-op on null pointers. */
void dup_string(char** dst, const char* src);
/* Milliseconds of the monotonic clock (deadlines that a clock change cannot move). */
long long zel_now_ms(void);

#endif /* ZELCOMMON_H */
