/*
 * Procedure codecs: wire keys, encode -> text -> decode round trips, decode
 * failures that leave the record alone, 64-bit values and bounded copies.
 */
#include <string.h>
#include "test_codecs.h"

typedef CodecEnv Codec;

TEST_F(Codec, EncodesWireKeys)
{
    PINGargs pa = {3, (char*)"hi", false};
    PINGres pr = {1700000000, 3, (char*)"hi"};
    ExecCmdargs ea = {3, (char*)"ls", 1, 0, 7, (char*)"bob", (char*)"pw", 1};
    ExecCmdres er = {0, 2, (char*)"x\n"};
    Mountargs ma = {(char*)"h:/e", (char*)"u", (char*)"p", (char*)"/mnt"};
    Mountres mr = {0, 4, (char*)"/mnt"};
    JOBSTATUSargs ja = {12};
    VMDetectInfo_t vr = {1, 0, 2, 1};
    VMDetectArg va = {(char*)"abc"};
    AGENTLOGres ar = {4, (char*)"abc"};

    struct Row { const char* name; JXDR* env; std::string expected; } rows[] = {
        {"ping args", call_env(), "{\"str\":\"hi\"}"},
        {"ping res", reply_env(), "{\"sp\":1700000000,\"str\":\"hi\"}"},
        {"exec args", call_env(), "{\"block_mode\":false,\"jobid\":7,\"msg_mode\":true,"
                                  "\"passwd\":\"pw\",\"str\":\"ls\",\"sudoflag\":1,\"user\":\"bob\"}"},
        {"exec res", reply_env(), "{\"ret\":0,\"retmsg_len\":2,\"str\":\"x\\n\"}"},
        {"mount args", call_env(), "{\"location\":\"h:/e\",\"point\":\"/mnt\",\"pwd\":\"p\",\"user\":\"u\"}"},
        {"mount res", reply_env(), "{\"len\":4,\"ret\":0,\"str\":\"/mnt\"}"},
        {"jobstatus args", call_env(), "{\"id\":12}"},
        {"vmdetect res", reply_env(), "{\"isuek\":1,\"local\":0,\"socks\":2,\"type\":1}"},
        {"vmdetect args", call_env(), "{\"uuid\":\"abc\"}"},
        {"agentlog res", reply_env(), "{\"ActivityLogs\":\"abc\",\"size\":4}"},
    };
    PINGargs* ppa = &pa; PINGres* ppr = &pr; ExecCmdargs* pea = &ea; ExecCmdres* per = &er;
    Mountargs* pma = &ma; Mountres* pmr = &mr; JOBSTATUSargs* pja = &ja;
    VMDetectInfo_t* pvr = &vr; VMDetectArg* pva = &va; AGENTLOGres* par = &ar;
    ASSERT_EQ(jxdr_PINGargs(rows[0].env, ppa), 0);
    ASSERT_EQ(jxdr_PINGres(rows[1].env, ppr), 0);
    ASSERT_EQ(jxdr_ExecCmdargs(rows[2].env, pea), 0);
    ASSERT_EQ(jxdr_ExecCmdres(rows[3].env, per), 0);
    ASSERT_EQ(jxdr_Mountargs(rows[4].env, pma), 0);
    ASSERT_EQ(jxdr_Mountres(rows[5].env, pmr), 0);
    ASSERT_EQ(jxdr_JOBSTATUSargs(rows[6].env, pja), 0);
    ASSERT_EQ(jxdr_VMDetectres(rows[7].env, pvr), 0);
    ASSERT_EQ(jxdr_VMDetectargs(rows[8].env, pva), 0);
    ASSERT_EQ(jxdr_AGENTLOGres(rows[9].env, par), 0);
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(param_text(r.env), r.expected);
    }
}

TEST_F(Codec, EncodesAbsentStringsAsEmpty)
{
    ExecCmdargs ea = {0, nullptr, 0, 1, 0, nullptr, nullptr, 0};
    ExecCmdargs* pea = &ea;
    JXDR* c = call_env();
    ASSERT_EQ(jxdr_ExecCmdargs(c, pea), 0);
    EXPECT_EQ(param_text(c), "{\"block_mode\":true,\"jobid\":0,\"msg_mode\":false,"
                             "\"passwd\":\"\",\"str\":\"\",\"sudoflag\":0,\"user\":\"\"}");
}

/* Decoding a "param" that does not match returns -1 and leaves the caller's
 * record (or record pointer) exactly as it was. */
struct MismatchRow {
    const char* name;
    jxdrproc_t codec;
    size_t rec_size;      /* 0: argument codec, rec is a pointer to check */
    const char* param;
};

class CodecMismatch : public Codec, public ::testing::WithParamInterface<MismatchRow> {};

TEST_P(CodecMismatch, RejectsWithoutTouchingRecord)
{
    const MismatchRow& row = GetParam();
    JXDR* x = with_param(row.param);
    std::vector<char> rec(row.rec_size ? row.rec_size : 1, 0);
    std::vector<char> before = rec;
    char* sentinel = (char*)0x1;
    char* r = row.rec_size ? rec.data() : sentinel;

    EXPECT_EQ(row.codec(x, r), -1);
    EXPECT_EQ(r, row.rec_size ? rec.data() : sentinel);
    EXPECT_EQ(rec, before);
}

#define P(T, f) JXDR_PROC(T, f)
INSTANTIATE_TEST_SUITE_P(Codecs, CodecMismatch, ::testing::Values(
    MismatchRow{"PingArgsNoStr", P(PINGargs, jxdr_PINGargs), 0, "{}"},
    MismatchRow{"PingArgsIntStr", P(PINGargs, jxdr_PINGargs), 0, "{\"str\": 5}"},
    MismatchRow{"PingArgsNoParam", P(PINGargs, jxdr_PINGargs), 0, "null"},
    MismatchRow{"PingResNoSp", P(PINGres, jxdr_PINGres), sizeof(PINGres), "{\"str\": \"a\"}"},
    MismatchRow{"JobStatusArgsStringId", P(JOBSTATUSargs, jxdr_JOBSTATUSargs), 0, "{\"id\": \"1\"}"},
    MismatchRow{"JobStatusResEmpty", P(JOB_STATUS, jxdr_JOBSTATUSres), sizeof(JOB_STATUS), "{}"},
    MismatchRow{"ExecArgsIntMsgMode", P(ExecCmdargs, jxdr_ExecCmdargs), 0,
                "{\"str\":\"ls\",\"msg_mode\":1,\"block_mode\":false,\"jobid\":0,"
                "\"user\":\"\",\"passwd\":\"\",\"sudoflag\":0}"},
    MismatchRow{"ExecArgsNoPasswd", P(ExecCmdargs, jxdr_ExecCmdargs), 0,
                "{\"str\":\"ls\",\"msg_mode\":true,\"block_mode\":false,\"jobid\":0,"
                "\"user\":\"\",\"sudoflag\":0}"},
    MismatchRow{"ExecArgsNotObject", P(ExecCmdargs, jxdr_ExecCmdargs), 0, "[1, 2]"},
    MismatchRow{"ExecResNoRet", P(ExecCmdres, jxdr_ExecCmdres), sizeof(ExecCmdres),
                "{\"str\":\"a\",\"retmsg_len\":1}"},
    MismatchRow{"MountArgsNullPoint", P(Mountargs, jxdr_Mountargs), 0,
                "{\"location\":\"a\",\"user\":\"\",\"pwd\":\"\",\"point\":null}"},
    MismatchRow{"MountResNoLen", P(Mountres, jxdr_Mountres), sizeof(Mountres),
                "{\"str\":\"a\",\"ret\":0}"},
    MismatchRow{"AgentLogNoText", P(AGENTLOGres, jxdr_AGENTLOGres), sizeof(AGENTLOGres),
                "{\"size\": 3}"},
    MismatchRow{"JobResultNoGuid", P(JOB_RESULT, jxdr_JOBRESULTres), sizeof(JOB_RESULT),
                "{\"proc_data_r\":1,\"throughput_r\":1,\"proc_data_w\":1,\"throughput_w\":1,"
                "\"rec_count\":1,\"protect_data\":1,\"session\":\"s\"}"},
    MismatchRow{"VMDetectResNoIsuek", P(VMDetectInfo_t, jxdr_VMDetectres), sizeof(VMDetectInfo_t),
                "{\"type\":1,\"local\":1,\"socks\":1}"},
    MismatchRow{"VMDetectArgsNoUuid", P(VMDetectArg, jxdr_VMDetectargs), 0, "{}"}),
    [](const ::testing::TestParamInfo<MismatchRow>& i) { return std::string(i.param.name); });
#undef P

TEST_F(Codec, NoargsLeavesRecordNull)
{
    char* rec = nullptr;
    EXPECT_EQ(jxdr_Noargs(with_param("{\"x\": 1}"), rec), 0);
    EXPECT_EQ(rec, nullptr);
}

TEST_F(Codec, ArgumentCodecsRoundTripIntoArena)
{
    JXDR* d = nullptr;
    PINGargs* p = args_round_trip(jxdr_PINGargs, PINGargs{0, (char*)"h\xc3\xa9llo", true}, &d);
    ASSERT_NE(p, nullptr);
    EXPECT_STREQ(p->msg, "h\xc3\xa9llo");
    EXPECT_EQ(p->msg_len, 7);
    EXPECT_FALSE(p->discard_msg) << "the flag never travels";
    EXPECT_TRUE(in_arena(d, p) && in_arena(d, p->msg));

    ExecCmdargs* e = args_round_trip(jxdr_ExecCmdargs,
        ExecCmdargs{0, (char*)"echo hi", 1, 0, 42, (char*)"", (char*)"secret", 1}, &d);
    ASSERT_NE(e, nullptr);
    EXPECT_STREQ(e->cmd, "echo hi");
    EXPECT_EQ(e->cmd_len, 8);
    EXPECT_EQ(e->need_get_return_msg_flag, 1);
    EXPECT_EQ(e->block_flag, 0);
    EXPECT_EQ(e->jobid, 42);
    EXPECT_STREQ(e->user, "");
    EXPECT_STREQ(e->pwd, "secret");
    EXPECT_EQ(e->sudo_flag, 1);
    EXPECT_TRUE(in_arena(d, e) && in_arena(d, e->cmd) && in_arena(d, e->pwd));

    Mountargs* m = args_round_trip(jxdr_Mountargs,
        Mountargs{(char*)"//srv/share", (char*)"CORP\\bob", (char*)"p w", (char*)""});
    ASSERT_NE(m, nullptr);
    EXPECT_STREQ(m->session_location, "//srv/share");
    EXPECT_STREQ(m->user, "CORP\\bob");
    EXPECT_STREQ(m->pwd, "p w");
    EXPECT_STREQ(m->mount_point, "");

    JOBSTATUSargs* j = args_round_trip(jxdr_JOBSTATUSargs, JOBSTATUSargs{-5});
    ASSERT_NE(j, nullptr);
    EXPECT_EQ(j->jobid, -5);

    VMDetectArg* v = args_round_trip(jxdr_VMDetectargs, VMDetectArg{(char*)"0f1e-uuid"});
    ASSERT_NE(v, nullptr);
    EXPECT_STREQ(v->uuid, "0f1e-uuid");
}

/* The arena does not align: each result record is carved first in its own
 * reply, as the service loop does, so it starts at the block's start. */
TEST_F(Codec, AllocationModeCarvesZeroedBuffers)
{
    JXDR *rp = reply_env(), *rm = reply_env(), *ra = reply_env(), *re = reply_env();
    JXDR *rj = reply_env(), *rv = reply_env(), *rs = reply_env();
    PINGres* p = nullptr;
    ExecCmdres* e = nullptr;
    Mountres* m = nullptr;
    AGENTLOGres* a = nullptr;
    JOB_RESULT* jr = nullptr;
    VMDetectInfo_t* v = nullptr;
    JOB_STATUS* js = nullptr;
    ASSERT_EQ(jxdr_PINGres(rp, p), 0);
    ASSERT_EQ(jxdr_Mountres(rm, m), 0);
    ASSERT_EQ(jxdr_AGENTLOGres(ra, a), 0);
    ASSERT_EQ(jxdr_ExecCmdres(re, e), 0);
    ASSERT_EQ(jxdr_JOBRESULTres(rj, jr), 0);
    ASSERT_EQ(jxdr_VMDetectres(rv, v), 0);
    ASSERT_EQ(jxdr_JOBSTATUSres(rs, js), 0);
    struct { const char* name; JXDR* env; const void* rec; const char* buf; size_t size; } rows[] = {
        {"ping msg", rp, p, p->msg, EA_PING_MSG_SIZE},
        {"mount point", rm, m, m->mount_point, EA_MOUNT_POINT_SIZE},
        {"activity log", ra, a, a->pLog, EA_ACT_LOG_SIZE},
        {"exec text", re, e, e->cmd, EA_EXEC_RES_SIZE},
        {"job status log", rs, js, js->act_log, EA_ACT_LOG_SIZE},
        {"job result", rj, jr, (const char*)jr, sizeof(JOB_RESULT)},
        {"vm detect", rv, v, (const char*)v, sizeof(VMDetectInfo_t)},
    };
    for (auto& r : rows) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ((const char*)r.rec, r.env->x_param.p_org);
        ASSERT_NE(r.buf, nullptr);
        EXPECT_TRUE(in_arena(r.env, r.buf) && in_arena(r.env, r.buf + r.size - 1));
        std::vector<char> zero(r.size, 0);
        EXPECT_EQ(memcmp(r.buf, zero.data(), r.size), 0);
    }
}
