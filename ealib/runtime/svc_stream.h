/*
 * svc_stream.h - the protocol's output stream, kept from the commands the
 * agent starts (source name "svc_main").
 */
#ifndef SVC_STREAM_H
#define SVC_STREAM_H

#include <stdio.h>

/*
 * Moves standard output to a close-on-exec descriptor and puts /dev/null in
 * its place (and in standard error's when that is the same stream), so that
 * only replies reach the server.  The stream to write replies to; stdout
 * when it cannot be moved.
 */
FILE* svc_private_stream(void);

#endif /* SVC_STREAM_H */
