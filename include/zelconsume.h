/*
 * zelconsume.h - product files that a reply consumes (activity log, job
 * result): while a request is served their removal waits until the reply
 * carrying their text has been written whole.
 */
#ifndef ZELCONSUME_H
#define ZELCONSUME_H

#include "zeltrust.h"

/* Finishes one consumed file: delivered 0 leaves it as it is; closes t. */
typedef void (*zel_consume_fn)(zel_trusted* t, long consumed, int delivered);

/* From now until zel_consume_release, consumed files are kept. */
void zel_consume_hold(void);
/*
 * Takes over the trusted file t (its first consumed bytes read; t is left
 * closed for the caller).  Kept for zel_consume_release while holding, else
 * finished at once as delivered.  The file's directory stays open with it,
 * so its removal never goes through a path that could be swapped meanwhile.
 */
void zel_consume(zel_trusted* t, long consumed, zel_consume_fn finish);
/* Finishes the kept files (removed only when delivered) and stops holding. */
void zel_consume_release(int delivered);

#endif /* ZELCONSUME_H */
