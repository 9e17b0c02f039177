/*
 * exec_proto.h - protocol endpoint (source name "exec_proto").
 *
 * Result codes: 0 success; -1 empty read or serialiser failure; -2 end of
 * input; -3 envelope could not be created (call only); -5 not an envelope.
 */
#ifndef EXEC_PROTO_H
#define EXEC_PROTO_H

#include "jxdr.h"
#include "net_conn.h"

class ExecProto {
public:
    explicit ExecProto(NetChannel* channel);  /* channel not owned */
    virtual ~ExecProto();
    virtual int receive(JXDR*& jxdr);
    virtual int send(JXDR* jxdr);
    /*
     * Client side: send a call and decode the reply into resp.  Lines that
     * are not envelopes (the empty line after each reply record, login-shell
     * output) are skipped.  Strings of resp may point into the reply, which
     * stays alive until the next call or the destructor.
     */
    virtual int call(int fn, jxdrproc_t f_args, char* args, jxdrproc_t f_resp, char* resp);

    NetChannel* m_channel;
    JXDR*       m_reply;   /* last reply received by call(), owned */
};

#endif /* EXEC_PROTO_H */
