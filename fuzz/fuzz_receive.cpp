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
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "ea_proto.h"
#include "exec_proto.h"
#include "fuzz_support.h"

#define EP_LINE_MAX 65535   /* longest line receive() takes whole */

/* receive() over bytes in memory, read as from a stream. */
struct MemInput {
    FILE* file;
    STDIOChannel channel;
    ExecProto proto;
    MemInput(const void* data, size_t size)
        : file(fmemopen((void*)data, size, "r")), channel(file, stdout), proto(&channel)
    {
        FUZZ_CHECK(file != NULL);
    }
    ~MemInput() { fclose(file); }
};

/* In the agent an envelope carries one record, carved at the start of a
 * fresh arena; each codec here starts from the same state. */
static void arena_reset(JXDR* x)
{
    free(x->x_param.p_org);
    memset(&x->x_param, 0, sizeof(x->x_param));
    x->x_op = JXDR_DECODE;
}

/* rec encoded into a call: the wire text and its "param" with sorted keys. */
template <typename T, int (*F)(JXDR*, T*&)>
static std::string encode(int fn, T* rec, std::string* wire)
{
    JXDR* call = jxdr_create_call(fn);
    FUZZ_CHECK(call != NULL && F(call, rec) == 0);
    char* text = jxdr_to_string(call);
    char* param = json_dumps(json_object_get(call->x_hd, "param"), JSON_COMPACT | JSON_SORT_KEYS);
    FUZZ_CHECK(text != NULL && param != NULL);
    if (wire != NULL)
        *wire = std::string(text) + "\n";
    std::string out = param;
    free(text);
    free(param);
    jxdr_destroy(call);
    return out;
}

/*
 * The client's side of a decoded record: encoded into a call, sent as a
 * line, received and decoded again, it must encode the same.  Skipped when
 * the line is longer than receive() takes.
 */
template <typename T, int (*F)(JXDR*, T*&)>
static void round_trip(int fn, T* rec)
{
    std::string wire, sent = encode<T, F>(fn, rec, &wire);
    if (wire.size() - 1 >= EP_LINE_MAX)
        return;
    MemInput in(wire.data(), wire.size());
    JXDR* back = NULL;
    T* again = NULL;
    FUZZ_CHECK(in.proto.receive(back) == 0);
    FUZZ_CHECK(F(back, again) == 0 && again != NULL);
    FUZZ_CHECK((encode<T, F>(fn, again, NULL) == sent));
    jxdr_destroy(back);
}

/* Decode mode of one argument codec; a success must yield a record. */
template <typename T, int (*F)(JXDR*, T*&)>
static void decode_args(JXDR* x)
{
    T* rec = NULL;

    arena_reset(x);
    if (F(x, rec) != 0)
        return;
    FUZZ_CHECK(rec != NULL);
    round_trip<T, F>(x->x_hr.fn, rec);
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
    decode_args<PINGargs, jxdr_PINGargs>(x);
    decode_args<JOBSTATUSargs, jxdr_JOBSTATUSargs>(x);
    decode_args<ExecCmdargs, jxdr_ExecCmdargs>(x);
    decode_args<Mountargs, jxdr_Mountargs>(x);
    decode_args<VMDetectArg, jxdr_VMDetectargs>(x);

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
    if (size == 0)
        return 0;
    MemInput in(data, size);
    JXDR* x;
    int rc;

    do {
        x = NULL;
        rc = in.proto.receive(x);
        FUZZ_CHECK(rc == 0 || rc == -1 || rc == -2 || rc == -5);
        FUZZ_CHECK((rc == 0) == (x != NULL));
        if (x != NULL) {
            decode_all(x);
            jxdr_destroy(x);
        }
    } while (rc != -2);
    return 0;
}
