/* The message envelope, the record framing of the line channel and what
 * the endpoint's receive() makes of the bytes it reads; procedure
 * codecs: each record encoded, sent as text, decoded and encoded again, and
 * "param" texts that do not match the record. */
#include <gtest/gtest.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <memory>
#include <string>
#include <vector>
#include "ea_proto.h"
#include "exec_proto.h"

namespace {

struct EnvelopeDeleter {
    void operator()(JXDR* x) const { jxdr_destroy(x); }
};
typedef std::unique_ptr<JXDR, EnvelopeDeleter> Envelope;

Envelope parse(const std::string& text)
{
    return Envelope(jxdr_create((char*)text.c_str()));
}

const std::string kRequest =
    "{\"ver\": 1, \"type\": 1, \"seq\": 3, \"fn\": 2, \"status\": 5, \"param\": {\"id\": 1}}";

/* receive() results up to the first end of input or empty read. */
std::vector<int> receive_all(FILE* in)
{
    STDIOChannel ch(in, stdout);
    ExecProto ep(&ch);
    std::vector<int> rcs;
    for (int rc = 0; (rc == 0 || rc == -5) && rcs.size() < 10;) {
        JXDR* x = nullptr;
        rcs.push_back(rc = ep.receive(x));
        EXPECT_EQ(rc == 0, x != nullptr);
        jxdr_destroy(x);
    }
    fclose(in);
    return rcs;
}

/* "param" compact with sorted keys; runs of more than 8 equal characters
 * are written "<c>*<count>" to keep failure messages short. */
std::string param_text(JXDR* x)
{
    char* s = json_dumps(json_object_get(x->x_hd, "param"), JSON_COMPACT | JSON_SORT_KEYS);
    std::string in = s ? s : "", out;
    free(s);
    for (size_t i = 0, n; i < in.size(); i += n) {
        for (n = 1; i + n < in.size() && in[i + n] == in[i];)
            n++;
        out += n > 8 ? in[i] + std::string("*") + std::to_string(n) : in.substr(i, n);
    }
    return out;
}

std::string job_status(const char* log, int size, const char* name)
{
    return std::string("{\"act_log\":\"") + log + "\",\"act_size\":" + std::to_string(size) +
           ",\"cmp\":2,\"dt_all\":9007199254740993,\"dt_fin\":4294967302,\"enc\":1,\"lmt\":3,"
           "\"proc_data_w\":9007199254740995,\"stat\":{\"compressed_data\":77,\"is_dedup\":1,"
           "\"total_data\":4294967297,\"unique_data\":9007199254740994,\"valid\":2},\"stg\":7,"
           "\"sts\":4,\"throughput_w\":99,\"tm_rem\":8,\"tm_usd\":6000,\"typ\":5,\"vol\":{"
           "\"dt_all\":42,\"dt_fin\":4294967298,\"name\":\"" + name +
           "\",\"tm_rem\":3,\"tm_usd\":5100}}";
}

#define P(T, f) JXDR_PROC(T, f)
const UINT64 BIG = 4294967297ULL;        /* 2^32 + 1 */
const UINT64 B53 = 9007199254740993ULL; /* 2^53 + 1: not exact in a double */

} // namespace

TEST(Arena, CarvesBackToBackFromOneBlockUntilExhausted)
{
    Envelope x(jxdr_create(nullptr));
    EXPECT_EQ(jxdr_param_alloc(x.get(), 262145), nullptr) << "more than one block";
    char* a = jxdr_param_alloc(x.get(), 10);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(jxdr_param_alloc(x.get(), 20), a + 10) << "no alignment";
    EXPECT_EQ(std::string(a, 30), std::string(30, '\0'));
    EXPECT_EQ(jxdr_param_alloc(x.get(), 262144 - 29), nullptr);
    EXPECT_EQ(jxdr_param_alloc(x.get(), 262144 - 30), a + 30) << "exactly what is left";
    EXPECT_EQ(jxdr_param_alloc(x.get(), 1), nullptr);
    EXPECT_EQ(jxdr_param_alloc(x.get(), -1), nullptr);
}

TEST(Envelope, RejectsTextsWithoutIntegerHeader)
{
    const char* rejected[] = {
        "{\"ver\": \"1\", \"type\": 1, \"seq\": 3, \"fn\": 1, \"status\": 0}",
        "{\"ver\": 1, \"type\": 1, \"seq\": 3.5, \"fn\": 1, \"status\": 0}",
        "{\"ver\": 1, \"type\": 1, \"seq\": 3, \"fn\": 1}",
        "[1, 1, 3, 1, 0]",
        "ver=1 type=1",
        "",
    };
    for (const char* text : rejected) {
        SCOPED_TRACE(text);
        EXPECT_FALSE(parse(text));
    }
    Envelope x = parse("{\"ver\": 7, \"type\": 1, \"seq\": 3, \"fn\": 9, \"status\": 0, \"x\": []}");
    ASSERT_TRUE(x) << "extra keys and no \"param\" are accepted";
    EXPECT_EQ(jxdr_proc_num(x.get()), 9);
}

/* A reply goes out as ASCII JSON with ", " and ": ", its NUL and "\n\n". */
TEST(Framing, ReplyRecordOnAPipe)
{
    Envelope req = parse(kRequest);
    ASSERT_TRUE(req);
    Envelope rep(jxdr_create_reply(req.get()));
    json_object_set_new(json_object_get(rep->x_hd, "param"), "str",
                        json_string("caf\xc3\xa9 \xe2\x82\xac"));
    std::string json = "{\"ver\": 1, \"type\": 2, \"seq\": 3, \"fn\": 2, \"status\": 0, "
                       "\"param\": {\"str\": \"caf\\u00E9 \\u20AC\"}}";
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    FILE* out = fdopen(fds[1], "w");
    STDIOChannel ch(stdin, out);
    ExecProto ep(&ch);
    EXPECT_EQ(ep.send(rep.get()), (int)json.size() + 1);
    fclose(out);
    char buf[256];
    ssize_t n = read(fds[0], buf, sizeof(buf));
    close(fds[0]);
    EXPECT_EQ(std::string(buf, n > 0 ? n : 0), json + std::string("\0\n\n", 3));
}

TEST(Endpoint, ReceiveResultsForEachKindOfLine)
{
    struct { const char* name; std::string input; std::vector<int> results; } rows[] = {
        {"request", kRequest + "\n", {0, -2}},
        {"lone newline", "\n", {-5, -2}},
        {"last line without newline is dropped", kRequest, {-2}},
        {"70000-byte line read in two pieces", std::string(70000, 'x') + "\n", {-5, -5, -2}},
        {"record and separator", kRequest + std::string("\0\n\n", 3), {0, -5, -2}},
        {"login noise between requests", kRequest + "\nLast login\n" + kRequest + "\n", {0, -5, 0, -2}},
    };
    for (auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(receive_all(fmemopen(&row.input[0], row.input.size(), "r")), row.results);
    }
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    fcntl(fds[0], F_SETFL, O_NONBLOCK);   /* the writer stays, nothing comes */
    EXPECT_EQ(receive_all(fdopen(fds[0], "r")), std::vector<int>{-1}) << "empty read";
    close(fds[1]);
}


/* Over-long fields come back cut to the buffers that send or receive them.
 * Reply texts always pack: a character cut by a buffer is dropped (and the
 * length sent with the text lowered), other bytes that are not UTF-8 become
 * "?", valid UTF-8 (a 4-byte character here) is left alone. */
TEST(Codec, EveryRecordSurvivesEncodeTextDecode)
{
    std::string ping(1500, 'm'), point = "/" + std::string(1500, 'p'), log(40000, 'a');
    PINGargs pa = {0, (char*)"h\xc3\xa9llo", true};
    PINGres pr = {1700000000, 0, (char*)ping.c_str()};
    JOBSTATUSargs ja = {-5};
    const char* latin1 = "1 0 caf\xe9\n";
    std::string cut_log = std::string(32766, 'a') + "\xc3\xa9";    /* read up to 32767 bytes */
    std::string mixed = "ok \xf0\x9f\x98\x80 \xc0\xaf \xed\xa0\x80 \xf4\x90\x80\x80 caf\xe9\n\xe2\x82";
    const std::string mended_len = std::to_string(mixed.size() - 2);
    JOB_STATUS js = {4, 5, 7, {"", 5100, 3, 42, BIG + 1}, 6000, 8, B53, BIG + 5, 1, 2, 3, 40000,
                     (char*)log.c_str(), B53 + 2, 99, {1, 2, BIG, B53 + 1, 77, 55}}, js2 = js;
    memset(js.vol.name, 'n', sizeof(js.vol.name));      /* no terminator */
    memcpy(js2.vol.name, js.vol.name, sizeof(js.vol.name));
    js2.vol.name[254] = '\xc3';
    js2.act_size = 10;
    js2.act_log = (char*)latin1;
    std::string cut_ping = std::string(1022, 'c') + "\xc3\xa9\xe9";    /* 1023 bytes taken */
    PINGres pr2 = {1700000000, 0, &cut_ping[0]};
    ExecCmdres er3 = {0, (int)mixed.size(), &mixed[0]};
    Mountres mr2 = {0, 9, (char*)"/mnt/caf\xe9"};
    AGENTLOGres ar3 = {32768, &cut_log[0]};
    JOB_RESULT jr2 = {1, 2, 3, 4, 5, 6, "S\xff\xc3", ""};
    ExecCmdargs ea = {0, (char*)"echo hi", 1, 0, 42, nullptr, (char*)"secret", 1};
    ExecCmdres er1 = {-1, 3, (char*)"hello"}, er2 = {0, 100000, (char*)"abc"};
    Mountargs ma = {(char*)"//srv/share", (char*)"CORP\\bob", (char*)"p w", (char*)""};
    Mountres mr = {5, 1501, (char*)point.c_str()};
    AGENTLOGres ar1 = {40001, (char*)log.c_str()}, ar2 = {4, (char*)"0123456789"};
    JOB_RESULT jr = {B53, 11, BIG, 12, 3, BIG * 3, {}, {}};
    memset(jr.sessionNo, '7', sizeof(jr.sessionNo));
    memset(jr.sessionGuid, 'g', sizeof(jr.sessionGuid));
    VMDetectArg va = {(char*)"0f1e-uuid"};
    VMDetectInfo_t vr = {3, 1, 255, 0};

    /* res_size 0: an argument record, decoded into the arena; param: as
     * encoded; back: the decoded record encoded again ("" = param) */
    struct Row { const char* name; jxdrproc_t codec; size_t res_size; void* rec;
                 std::string param, back; } rows[] = {
        {"ping args", P(PINGargs, jxdr_PINGargs), 0, &pa, "{\"str\":\"h\xc3\xa9llo\"}", ""},
        {"ping res", P(PINGres, jxdr_PINGres), sizeof(PINGres), &pr,
         "{\"sp\":1700000000,\"str\":\"m*1023\"}", ""},
        {"ping res, not UTF-8", P(PINGres, jxdr_PINGres), sizeof(PINGres), &pr2,
         "{\"sp\":1700000000,\"str\":\"c*1022\"}", ""},
        {"job status args", P(JOBSTATUSargs, jxdr_JOBSTATUSargs), 0, &ja, "{\"id\":-5}", ""},
        {"job status res", P(JOB_STATUS, jxdr_JOBSTATUSres), sizeof(JOB_STATUS), &js,
         job_status("a*32767", 40000, "n*255"), job_status("a*32767", 32768, "n*255")},
        {"job status res, not UTF-8", P(JOB_STATUS, jxdr_JOBSTATUSres), sizeof(JOB_STATUS), &js2,
         job_status("1 0 caf?\\n", 10, "n*254"), ""},
        {"exec args", P(ExecCmdargs, jxdr_ExecCmdargs), 0, &ea,
         "{\"block_mode\":false,\"jobid\":42,\"msg_mode\":true,\"passwd\":\"secret\","
         "\"str\":\"echo hi\",\"sudoflag\":1,\"user\":\"\"}", ""},
        {"exec res, shorter length", P(ExecCmdres, jxdr_ExecCmdres), sizeof(ExecCmdres), &er1,
         "{\"ret\":-1,\"retmsg_len\":3,\"str\":\"hello\"}", "{\"ret\":-1,\"retmsg_len\":3,\"str\":\"hel\"}"},
        {"exec res, longer length", P(ExecCmdres, jxdr_ExecCmdres), sizeof(ExecCmdres), &er2,
         "{\"ret\":0,\"retmsg_len\":100000,\"str\":\"abc\"}", ""},
        {"exec res, not UTF-8", P(ExecCmdres, jxdr_ExecCmdres), sizeof(ExecCmdres), &er3,
         "{\"ret\":0,\"retmsg_len\":" + mended_len + ",\"str\":\"ok \xf0\x9f\x98\x80 ?? ??? ???? caf?\\n\"}", ""},
        {"mount args", P(Mountargs, jxdr_Mountargs), 0, &ma,
         "{\"location\":\"//srv/share\",\"point\":\"\",\"pwd\":\"p w\",\"user\":\"CORP\\\\bob\"}", ""},
        {"mount res", P(Mountres, jxdr_Mountres), sizeof(Mountres), &mr,
         "{\"len\":1501,\"ret\":5,\"str\":\"/p*1022\"}", ""},
        {"mount res, not UTF-8", P(Mountres, jxdr_Mountres), sizeof(Mountres), &mr2,
         "{\"len\":9,\"ret\":0,\"str\":\"/mnt/caf?\"}", ""},
        {"agent log, too large", P(AGENTLOGres, jxdr_AGENTLOGres), sizeof(AGENTLOGres), &ar1,
         "{\"ActivityLogs\":\"a*32767\",\"size\":40001}", "{\"ActivityLogs\":\"a*32767\",\"size\":32768}"},
        {"agent log, size below text", P(AGENTLOGres, jxdr_AGENTLOGres), sizeof(AGENTLOGres), &ar2,
         "{\"ActivityLogs\":\"0123456789\",\"size\":4}", "{\"ActivityLogs\":\"012\",\"size\":4}"},
        {"agent log, not UTF-8", P(AGENTLOGres, jxdr_AGENTLOGres), sizeof(AGENTLOGres), &ar3,
         "{\"ActivityLogs\":\"a*32766\",\"size\":32767}", ""},
        {"job result", P(JOB_RESULT, jxdr_JOBRESULTres), sizeof(JOB_RESULT), &jr,
         "{\"proc_data_r\":9007199254740993,\"proc_data_w\":4294967297,\"protect_data\":12884901891,"
         "\"rec_count\":3,\"session\":\"7*32\",\"sessionGuid\":\"g*37\",\"throughput_r\":11,\"throughput_w\":12}",
         "{\"proc_data_r\":9007199254740993,\"proc_data_w\":4294967297,\"protect_data\":12884901891,"
         "\"rec_count\":3,\"session\":\"7*31\",\"sessionGuid\":\"g*36\",\"throughput_r\":11,\"throughput_w\":12}"},
        {"job result, not UTF-8", P(JOB_RESULT, jxdr_JOBRESULTres), sizeof(JOB_RESULT), &jr2,
         "{\"proc_data_r\":1,\"proc_data_w\":3,\"protect_data\":6,\"rec_count\":5,"
         "\"session\":\"S??\",\"sessionGuid\":\"\",\"throughput_r\":2,\"throughput_w\":4}", ""},
        {"vm detect args", P(VMDetectArg, jxdr_VMDetectargs), 0, &va, "{\"uuid\":\"0f1e-uuid\"}", ""},
        {"vm detect res", P(VMDetectInfo_t, jxdr_VMDetectres), sizeof(VMDetectInfo_t), &vr,
         "{\"isuek\":0,\"local\":1,\"socks\":255,\"type\":3}", ""},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        Envelope enc(jxdr_create_call(1)), again(jxdr_create_call(1));
        char* rec = (char*)r.rec;
        ASSERT_EQ(r.codec(enc.get(), rec), 0);
        EXPECT_EQ(param_text(enc.get()), r.param);
        char* text = jxdr_to_string(enc.get());
        Envelope dec(jxdr_create(text));
        free(text);
        ASSERT_TRUE(dec);
        std::vector<char> blank(r.res_size + 1, 0);   /* results: no buffers of their own */
        char* out = r.res_size ? blank.data() : nullptr;
        ASSERT_EQ(r.codec(dec.get(), out), 0);
        ASSERT_EQ(r.codec(again.get(), out), 0);
        EXPECT_EQ(param_text(again.get()), r.back.empty() ? r.param : r.back);
    }
}

TEST(Codec, MismatchedParamLeavesRecordAlone)
{
    struct Row { const char* name; jxdrproc_t codec; size_t res_size; const char* param; } rows[] = {
        {"ping args int str", P(PINGargs, jxdr_PINGargs), 0, "{\"str\": 5}"},
        {"ping res no sp", P(PINGres, jxdr_PINGres), sizeof(PINGres), "{\"str\": \"a\"}"},
        {"job status args string id", P(JOBSTATUSargs, jxdr_JOBSTATUSargs), 0, "{\"id\": \"1\"}"},
        {"job status args id over int", P(JOBSTATUSargs, jxdr_JOBSTATUSargs), 0, "{\"id\": 4294967297}"},
        {"exec args jobid over int", P(ExecCmdargs, jxdr_ExecCmdargs), 0,
         "{\"str\":\"ls\",\"msg_mode\":true,\"block_mode\":false,\"jobid\":4294967303,\"user\":\"\","
         "\"passwd\":\"\",\"sudoflag\":0}"},
        {"job status res empty", P(JOB_STATUS, jxdr_JOBSTATUSres), sizeof(JOB_STATUS), "{}"},
        {"exec args int msg_mode", P(ExecCmdargs, jxdr_ExecCmdargs), 0,
         "{\"str\":\"ls\",\"msg_mode\":1,\"block_mode\":false,\"jobid\":0,\"user\":\"\","
         "\"passwd\":\"\",\"sudoflag\":0}"},
        {"exec args array", P(ExecCmdargs, jxdr_ExecCmdargs), 0, "[1, 2]"},
        {"exec res no ret", P(ExecCmdres, jxdr_ExecCmdres), sizeof(ExecCmdres),
         "{\"str\":\"a\",\"retmsg_len\":1}"},
        {"mount args null point", P(Mountargs, jxdr_Mountargs), 0,
         "{\"location\":\"a\",\"user\":\"\",\"pwd\":\"\",\"point\":null}"},
        {"mount res no len", P(Mountres, jxdr_Mountres), sizeof(Mountres), "{\"str\":\"a\",\"ret\":0}"},
        {"agent log no text", P(AGENTLOGres, jxdr_AGENTLOGres), sizeof(AGENTLOGres), "{\"size\": 3}"},
        {"job result no guid", P(JOB_RESULT, jxdr_JOBRESULTres), sizeof(JOB_RESULT),
         "{\"proc_data_r\":1,\"throughput_r\":1,\"proc_data_w\":1,\"throughput_w\":1,"
         "\"rec_count\":1,\"protect_data\":1,\"session\":\"s\"}"},
        {"vm detect res no isuek", P(VMDetectInfo_t, jxdr_VMDetectres), sizeof(VMDetectInfo_t),
         "{\"type\":1,\"local\":1,\"socks\":1}"},
        {"vm detect args no uuid", P(VMDetectArg, jxdr_VMDetectargs), 0, "{}"},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        std::string text = std::string("{\"ver\": 1, \"type\": 2, \"seq\": 1, \"fn\": 1, "
                                        "\"status\": 0, \"param\": ") + r.param + "}";
        Envelope x(jxdr_create((char*)text.c_str()));
        ASSERT_TRUE(x);
        std::vector<char> rec(r.res_size + 1, 'Z'), before = rec;
        char* p = r.res_size ? rec.data() : (char*)0x1;   /* arguments: pointer kept */
        EXPECT_EQ(r.codec(x.get(), p), -1);
        EXPECT_EQ(p, r.res_size ? rec.data() : (char*)0x1);
        EXPECT_EQ(rec, before);
    }
}
