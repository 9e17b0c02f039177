/*
 * exec_proto.cpp - the protocol endpoint: received lines become envelopes,
 * envelopes become written records; call() is the client's half.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include "exec_proto.h"
#include "ea_proto.h"

#define EP_LINE_SIZE     65536
#define EP_LOG_TAIL      10000
#define EP_LOG_LONG      10240
#define EP_PATTERN_SIZE  128

ExecProto::ExecProto(NetChannel* channel) : m_channel(channel), m_reply(NULL)
{
}

ExecProto::~ExecProto()
{
    jxdr_destroy(m_reply);
}

/*
 * Reads one line and parses it.  0 with jxdr set (caller destroys it);
 * -1 empty or interrupted read; -2 end of input; -5 the line is not an
 * envelope (jxdr null; logged to the debug log).
 */
int ExecProto::receive(JXDR*& jxdr)
{
    char buffer[EP_LINE_SIZE];
    int n, len;

    n = m_channel->read_line(buffer, sizeof(buffer));
    if (n == 0)
        return -1;
    if (n < 0)
        return n;
    if (buffer[n - 1] == '\n')
        buffer[n - 1] = '\0';

    jxdr = jxdr_create(buffer);
    if (!jxdr) {
        len = (int)strlen(buffer);
        dlog2("exec_proto", 27, "%s: %d.", buffer, len);
        if (len > EP_LOG_LONG)
            dlog2("exec_proto", 29, "%s: %d.", buffer + len - EP_LOG_TAIL, len);
    }
    explicit_bzero(buffer, (size_t)n);   /* the line may carry a password */
    return jxdr ? 0 : -5;
}

/* Writes the envelope as one record.  The byte count written including the
 * NUL, or -1 when the envelope cannot be serialised or the stream broke. */
int ExecProto::send(JXDR* jxdr)
{
    char* text = jxdr_to_string(jxdr);
    int rc;

    if (!text)
        return -1;
    rc = m_channel->write_line(text);
    free(text);
    return rc;
}

/*
 * Ping with discard_msg: skips lines until the reply echoing args->msg
 * arrives, without decoding it.  0 found; -1 empty read; -2 end of input.
 */
static int call_discard_ping(NetChannel* channel, const PINGargs* args)
{
    char buffer[EP_LINE_SIZE];
    char pattern[EP_PATTERN_SIZE];
    int n;

    memset(buffer, 0, sizeof(buffer));
    memset(pattern, 0, sizeof(pattern));
    snprintf(pattern, EP_PATTERN_SIZE - 1, "{\"str\": \"%s\", \"sp\":",
             args->msg ? args->msg : "");
    for (;;) {
        n = channel->read_line(buffer, sizeof(buffer));
        if (n <= 0)
            break;
        if (buffer[n - 1] == '\n')
            buffer[n - 1] = '\0';
        /* foreign text goes in as an argument, never as the format */
        dlog2("exec_proto", 74, "%s", buffer);
        if (strstr(buffer, pattern))
            break;
    }
    if (n == 0)
        return -1;
    return n < 0 ? n : 0;
}

/*
 * Sends a call of procedure fn and decodes the reply into resp.  0 done;
 * -3 no envelope could be made; else the failing receive() result.
 */
int ExecProto::call(int fn, jxdrproc_t f_args, char* args, jxdrproc_t f_resp, char* resp)
{
    JXDR* j;
    JXDR* reply = NULL;
    char* rec = args;
    int rc;

    /* the previous reply's strings are no longer needed by the caller */
    jxdr_destroy(m_reply);
    m_reply = NULL;

    j = jxdr_create_call(fn);
    if (!j)
        return -3;
    if (f_args)
        f_args(j, rec);
    send(j);
    jxdr_destroy(j);

    if (fn == EA_PROC_PING && args && ((PINGargs*)args)->discard_msg)
        return call_discard_ping(m_channel, (PINGargs*)args);

    /* skip the empty line that ends each reply record, and any noise */
    do {
        rc = receive(reply);
    } while (rc == -5);
    if (rc != 0)
        return rc;
    m_reply = reply;
    rec = resp;
    if (f_resp)
        f_resp(reply, rec);
    return 0;
}
