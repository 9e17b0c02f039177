/*
 * fuzz_receive.cpp - received lines through ExecProto::receive, then every
 * codec over each envelope that results.
 *
 * The input is the agent's standard input: any number of lines.  Each
 * envelope is decoded by every argument codec (a decoded record must
 * survive the client's encoder, the wire and the decoder unchanged) and
 * by every result codec in both of its modes.  Everything is destroyed, so
 * a leak is a finding.
 */
#include <stdlib.h>
#include <string.h>

#include <string>

#include "ea_proto.h"
#include "exec_proto.h"
#include "fuzz_support.h"

#define EP_LINE_MAX 65535   /* longest line receive() takes whole */

/* A channel over bytes in memory, read as fgets reads a stream; what is
 * written is kept. */
class MemChannel : public NetChannel {
public:
    MemChannel(const char* data, size_t size) : m_data(data), m_size(size), m_pos(0) {}

    virtual int read_line(char* buffer, int size)
    {
        int n = 0;
        bool eof = false;

        while (n < size - 1) {
            if (m_pos >= m_size) {
                eof = true;
                break;
            }
            buffer[n] = m_data[m_pos++];
            if (buffer[n++] == '\n')
                break;
        }
        if (eof)
            return -2;   /* a last line without "\n" is dropped, as on a stream */
        return (int)strlen(buffer);
    }

    virtual int write_line(char* buffer)
    {
        size_t len = strlen(buffer) + 1;

        m_out.append(buffer, len);
        m_out.append("\n\n");
        return (int)len;
    }

    std::string m_out;

private:
    const char* m_data;
    size_t m_size;
    size_t m_pos;
};

/* In the agent an envelope carries one record, carved at the start of a
 * fresh arena; each codec here starts from the same state. */
static void arena_reset(JXDR* x)
{
    free(x->x_param.p_org);
    memset(&x->x_param, 0, sizeof(x->x_param));
    x->x_op = JXDR_DECODE;
}

static bool same_text(const char* a, const char* b)
{
    return a != NULL && b != NULL && strcmp(a, b) == 0;
}

static bool same_ping(const PINGargs* a, const PINGargs* b)
{
    return a->msg_len == b->msg_len && same_text(a->msg, b->msg);
}

static bool same_jobstatus(const JOBSTATUSargs* a, const JOBSTATUSargs* b)
{
    return a->jobid == b->jobid;
}

static bool same_exec(const ExecCmdargs* a, const ExecCmdargs* b)
{
    return a->cmd_len == b->cmd_len && same_text(a->cmd, b->cmd) &&
           a->need_get_return_msg_flag == b->need_get_return_msg_flag &&
           a->block_flag == b->block_flag && a->jobid == b->jobid &&
           same_text(a->user, b->user) && same_text(a->pwd, b->pwd) &&
           a->sudo_flag == b->sudo_flag;
}

static bool same_mount(const Mountargs* a, const Mountargs* b)
{
    return same_text(a->session_location, b->session_location) &&
           same_text(a->user, b->user) && same_text(a->pwd, b->pwd) &&
           same_text(a->mount_point, b->mount_point);
}

static bool same_vmdetect(const VMDetectArg* a, const VMDetectArg* b)
{
    return same_text(a->uuid, b->uuid);
}

/*
 * The client's side of a decoded record: encoded into a call, sent as a
 * record, received and decoded again, it must compare equal.  Skipped when
 * the encoded line is longer than receive() takes.
 */
template <typename T, int (*F)(JXDR*, T*&)>
static void round_trip(int fn, T* rec, bool (*same)(const T*, const T*))
{
    JXDR* call = jxdr_create_call(fn);
    JXDR* back = NULL;
    T* encoded = rec;
    T* again = NULL;

    FUZZ_CHECK(call != NULL);
    FUZZ_CHECK(F(call, encoded) == 0);
    MemChannel wire(NULL, 0);
    ExecProto sender(&wire);
    int sent = sender.send(call);
    jxdr_destroy(call);
    FUZZ_CHECK(sent > 0);
    if (sent - 1 >= EP_LINE_MAX)
        return;

    MemChannel reply(wire.m_out.data(), wire.m_out.size());
    ExecProto receiver(&reply);
    FUZZ_CHECK(receiver.receive(back) == 0);
    FUZZ_CHECK(F(back, again) == 0 && again != NULL);
    FUZZ_CHECK(same(rec, again));
    jxdr_destroy(back);
}

/* Decode mode of one argument codec; a success must yield a record. */
template <typename T, int (*F)(JXDR*, T*&)>
static void decode_args(JXDR* x, bool (*same)(const T*, const T*))
{
    T* rec = NULL;

    arena_reset(x);
    if (F(x, rec) != 0)
        return;
    FUZZ_CHECK(rec != NULL);
    round_trip<T, F>(x->x_hr.fn, rec, same);
}

/*
 * Both modes of one result codec when "param" matches it: filling a
 * caller's record without buffers, and filling the record that the
 * allocation mode carves (its 32-200 KiB buffers are only worth carving
 * for a matching "param").
 */
template <typename T, int (*F)(JXDR*, T*&)>
static void decode_result(JXDR* x)
{
    T blank;
    T* rec = &blank;

    memset(&blank, 0, sizeof(blank));
    arena_reset(x);
    if (F(x, rec) != 0)
        return;
    FUZZ_CHECK(rec == &blank);

    rec = NULL;
    arena_reset(x);
    if (F(x, rec) == 0 && rec != NULL)
        FUZZ_CHECK(F(x, rec) == 0);
}

static void decode_all(JXDR* x)
{
    char* none = NULL;

    arena_reset(x);
    FUZZ_CHECK(jxdr_Noargs(x, none) == 0);
    decode_args<PINGargs, jxdr_PINGargs>(x, same_ping);
    decode_args<JOBSTATUSargs, jxdr_JOBSTATUSargs>(x, same_jobstatus);
    decode_args<ExecCmdargs, jxdr_ExecCmdargs>(x, same_exec);
    decode_args<Mountargs, jxdr_Mountargs>(x, same_mount);
    decode_args<VMDetectArg, jxdr_VMDetectargs>(x, same_vmdetect);

    decode_result<PINGres, jxdr_PINGres>(x);
    decode_result<JOB_STATUS, jxdr_JOBSTATUSres>(x);
    decode_result<ExecCmdres, jxdr_ExecCmdres>(x);
    decode_result<Mountres, jxdr_Mountres>(x);
    decode_result<AGENTLOGres, jxdr_AGENTLOGres>(x);
    decode_result<JOB_RESULT, jxdr_JOBRESULTres>(x);
    decode_result<VMDetectInfo_t, jxdr_VMDetectres>(x);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    MemChannel input((const char*)data, size);
    ExecProto proto(&input);
    JXDR* x;
    int rc;

    do {
        x = NULL;
        rc = proto.receive(x);
        FUZZ_CHECK(rc == 0 || rc == -1 || rc == -2 || rc == -5);
        FUZZ_CHECK((rc == 0) == (x != NULL));
        if (x != NULL) {
            decode_all(x);
            jxdr_destroy(x);
        }
    } while (rc != -2);
    return 0;
}
