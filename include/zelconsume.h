/*
 * zelconsume.h - product files that a reply consumes (activity log, job
 * result): while a request is served their removal waits until the reply
 * carrying their text has been written whole.
 */
#ifndef ZELCONSUME_H
#define ZELCONSUME_H

/* Finishes one consumed file: delivered 0 leaves it as it is; closes fd. */
typedef void (*zel_consume_fn)(int fd, const char* path, long consumed, int delivered);

/* From now until zel_consume_release, consumed files are kept. */
void zel_consume_hold(void);
/*
 * Hands over fd (open on path, its first consumed bytes read).  Kept for
 * zel_consume_release while holding, else finished at once as delivered.
 */
void zel_consume(int fd, const char* path, long consumed, zel_consume_fn finish);
/* Finishes the kept files (removed only when delivered) and stops holding. */
void zel_consume_release(int delivered);

#endif /* ZELCONSUME_H */
