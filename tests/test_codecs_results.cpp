/*
 * Result codecs on the client side: what the agent encodes is what a server
 * decodes, 64-bit counters survive, and over-long or lying fields are cut
 * to the receiving buffers.
 */
#include <string.h>
#include "test_codecs.h"

namespace {

typedef CodecEnv ResultCodec;

const UINT64 BIG1 = 0x100000001ULL;        /* just above 2^32 */
const UINT64 BIG2 = 0x7123456789abcdefULL;

} // namespace

TEST_F(ResultCodec, JobStatusRoundTripKeepsEveryField)
{
    JXDR* d = result_over_wire(jxdr_JOBSTATUSres, [](JOB_STATUS* s) {
        s->sts = 4; s->typ = 1; s->stg = 7;
        strcpy(s->vol.name, "/dev/sda1");
        s->vol.tm_usd = 5100; s->vol.tm_rem = 0; s->vol.dt_all = 42; s->vol.dt_fin = BIG1;
        s->tm_usd = 6000; s->dt_all = BIG2; s->dt_fin = BIG1 + 5;
        s->enc = 1; s->cmp = 2; s->lmt = 3;
        strcpy(s->act_log, "1 0 started\n");
        s->act_size = 13;
        s->processed_data_w = BIG2; s->throughput_w = 99;
        s->job_statistic.DedupFlag = 1; s->job_statistic.DataIsValid = 1;
        s->job_statistic.TotalDataSize = BIG1; s->job_statistic.UniqueDataSize = BIG2;
        s->job_statistic.CompressedDataSize = 77; s->job_statistic.MetaDataSize = 55;
    });

    JOB_STATUS got;
    memset(&got, 0, sizeof(got));
    JOB_STATUS* g = &got;     /* no act_log buffer: one is carved */
    ASSERT_EQ(jxdr_JOBSTATUSres(d, g), 0);
    EXPECT_EQ(+got.sts, 4u); EXPECT_EQ(+got.typ, 1u); EXPECT_EQ(+got.stg, 7u);
    EXPECT_STREQ(got.vol.name, "/dev/sda1");
    EXPECT_EQ(+got.vol.tm_usd, 5100u);
    EXPECT_EQ(+got.vol.dt_all, 42u);
    EXPECT_EQ(+got.vol.dt_fin, BIG1);
    EXPECT_EQ(+got.tm_usd, 6000u);
    EXPECT_EQ(+got.dt_all, BIG2);
    EXPECT_EQ(+got.dt_fin, BIG1 + 5);
    EXPECT_EQ(+got.enc, 1u); EXPECT_EQ(+got.cmp, 2u); EXPECT_EQ(+got.lmt, 3u);
    EXPECT_EQ(+got.act_size, 13u);
    ASSERT_NE(+got.act_log, nullptr);
    EXPECT_STREQ(got.act_log, "1 0 started\n");
    EXPECT_EQ(+got.processed_data_w, BIG2);
    EXPECT_EQ(+got.throughput_w, 99u);
    EXPECT_EQ(+got.job_statistic.DedupFlag, 1);
    EXPECT_EQ(+got.job_statistic.DataIsValid, 1);
    EXPECT_EQ(+got.job_statistic.TotalDataSize, BIG1);
    EXPECT_EQ(+got.job_statistic.UniqueDataSize, BIG2);
    EXPECT_EQ(+got.job_statistic.CompressedDataSize, 77u);
    EXPECT_EQ(+got.job_statistic.MetaDataSize, 0u) << "MetaDataSize is not transmitted";
}

TEST_F(ResultCodec, JobStatusCutsNameAndLog)
{
    JXDR* r = reply_env();
    JOB_STATUS* s = nullptr;
    ASSERT_EQ(jxdr_JOBSTATUSres(r, s), 0);
    memset(s->vol.name, 'n', sizeof(s->vol.name));        /* no terminator */
    memset(s->act_log, 'a', EA_ACT_LOG_SIZE - 1);
    s->act_size = EA_ACT_LOG_SIZE;
    ASSERT_EQ(jxdr_JOBSTATUSres(r, s), 0);
    json_t* vol = json_object_get(json_object_get(r->x_hd, "param"), "vol");
    EXPECT_EQ(strlen(json_string_value(json_object_get(vol, "name"))), 255u);

    /* a sender that claims a larger log and sends a longer name */
    std::string name(400, 'x'), log(40000, 'l');
    json_t* p = json_object_get(r->x_hd, "param");
    json_object_set_new(json_object_get(p, "vol"), "name", json_string(name.c_str()));
    json_object_set_new(p, "act_log", json_string(log.c_str()));
    json_object_set_new(p, "act_size", json_integer(40000));
    JOB_STATUS got;
    memset(&got, 0, sizeof(got));
    JOB_STATUS* g = &got;
    ASSERT_EQ(jxdr_JOBSTATUSres(over_wire(r), g), 0);
    EXPECT_EQ(strlen(got.vol.name), 254u);
    EXPECT_EQ(+got.act_size, (UINT32)EA_ACT_LOG_SIZE);
    EXPECT_EQ(strlen(got.act_log), (size_t)EA_ACT_LOG_SIZE - 1);
}

TEST_F(ResultCodec, JobStatusWithFullArenaStillAnswers)
{
    JXDR* r = reply_env();
    ASSERT_NE(jxdr_param_alloc(r, JXDR_ARENA_SIZE - 1000), nullptr);
    JOB_STATUS* s = nullptr;
    EXPECT_EQ(jxdr_JOBSTATUSres(r, s), 0);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(+s->act_log, nullptr);
    EXPECT_EQ(jxdr_JOBSTATUSres(r, s), 0);   /* encodes "act_log" as "" */
    EXPECT_STREQ(json_string_value(json_object_get(json_object_get(r->x_hd, "param"),
                                                   "act_log")), "");
}

TEST_F(ResultCodec, JobResultRoundTripAndBounds)
{
    JXDR* d = result_over_wire(jxdr_JOBRESULTres, [](JOB_RESULT* j) {
        j->processed_data_read = BIG2;
        j->throughput_read = 11;
        j->processed_data_write = BIG1;
        j->throughput_write = 12;
        j->recovery_count = 3;
        j->protected_data = BIG1 * 3;
        memset(j->sessionNo, '7', sizeof(j->sessionNo));        /* 32 bytes, no terminator */
        strcpy(j->sessionGuid, "0123abcd-0123-4567-89ab-0123456789ab");
    });
    json_t* p = json_object_get(d->x_hd, "param");
    EXPECT_EQ(strlen(json_string_value(json_object_get(p, "session"))), 32u);

    JOB_RESULT got;
    memset(&got, 0xEE, sizeof(got));
    JOB_RESULT* g = &got;
    ASSERT_EQ(jxdr_JOBRESULTres(d, g), 0);
    EXPECT_EQ(+got.processed_data_read, BIG2);
    EXPECT_EQ(+got.throughput_read, 11u);
    EXPECT_EQ(+got.processed_data_write, BIG1);
    EXPECT_EQ(+got.throughput_write, 12u);
    EXPECT_EQ(+got.recovery_count, 3u);
    EXPECT_EQ(+got.protected_data, BIG1 * 3);
    EXPECT_EQ(std::string(got.sessionNo), std::string(31, '7'));
    EXPECT_STREQ(got.sessionGuid, "0123abcd-0123-4567-89ab-0123456789ab");

    d = with_param("{\"proc_data_r\":0,\"throughput_r\":0,\"proc_data_w\":0,"
                         "\"throughput_w\":0,\"rec_count\":0,\"protect_data\":0,"
                         "\"session\":\"s\",\"sessionGuid\":\"" + std::string(80, 'g') + "\"}");
    ASSERT_EQ(jxdr_JOBRESULTres(d, g), 0);
    EXPECT_STREQ(got.sessionNo, "s");
    EXPECT_EQ(strlen(got.sessionGuid), 36u);
}

/* Fields whose announced length and real text disagree. */
struct CutRow {
    const char* name;
    int announced;
    std::string text;
    std::string expected;
};

class ExecResCut : public ResultCodec, public ::testing::WithParamInterface<CutRow> {};

TEST_P(ExecResCut, CopiesNoMoreThanTheTextHolds)
{
    const CutRow& row = GetParam();
    std::string param = "{\"str\": \"" + row.text + "\", \"retmsg_len\": " +
                        std::to_string(row.announced) + ", \"ret\": 3}";
    ExecCmdres own = {0, 0, nullptr};   /* no buffer: carved from the reply */
    ExecCmdres* o = &own;
    ASSERT_EQ(jxdr_ExecCmdres(with_param(param), o), 0);
    EXPECT_EQ(own.cmd_ret, 3);
    EXPECT_EQ(own.cmd_len, row.announced);
    if (row.announced > 0) {
        ASSERT_NE(own.cmd, nullptr);
        EXPECT_EQ(std::string(own.cmd), row.expected);
    }

    std::vector<char> buf(EA_EXEC_RES_SIZE, 'Z');   /* caller's 204800-byte buffer */
    ExecCmdres given = {0, 0, buf.data()};
    ExecCmdres* gp = &given;
    ASSERT_EQ(jxdr_ExecCmdres(with_param(param), gp), 0);
    if (row.announced > 0) {
        EXPECT_EQ(std::string(given.cmd), row.expected);
    }
}

INSTANTIATE_TEST_SUITE_P(Lengths, ExecResCut, ::testing::Values(
    CutRow{"Exact", 5, "hello", "hello"},
    CutRow{"ShorterThanText", 3, "hello", "hel"},
    CutRow{"LongerThanText", 100000, "abc", "abc"},
    CutRow{"Zero", 0, "abc", ""},
    CutRow{"Negative", -4, "abc", ""}),
    [](const ::testing::TestParamInfo<CutRow>& i) { return std::string(i.param.name); });

TEST_F(ResultCodec, ExecResRoundTrip)
{
    JXDR* d = result_over_wire(jxdr_ExecCmdres, [](ExecCmdres* e) {
        strcpy(e->cmd, "line1\nline2\n");
        e->cmd_len = 12;
        e->cmd_ret = -1;
    });
    char buf[64] = {0};
    ExecCmdres got = {0, 0, buf};
    ExecCmdres* g = &got;
    ASSERT_EQ(jxdr_ExecCmdres(d, g), 0);
    EXPECT_STREQ(buf, "line1\nline2\n");
    EXPECT_EQ(+got.cmd_len, 12);
    EXPECT_EQ(+got.cmd_ret, -1);
}

TEST_F(ResultCodec, MountResBoundsThePoint)
{
    std::string point(1500, 'p');
    JXDR* d = with_param("{\"str\": \"/" + point + "\", \"len\": 1501, \"ret\": 0}");
    Mountres m = {9, 0, nullptr};
    Mountres* mp = &m;
    ASSERT_EQ(jxdr_Mountres(d, mp), 0);
    EXPECT_EQ(m.ret, 0);
    EXPECT_EQ(m.mount_point_len, 1501);
    EXPECT_EQ(strlen(m.mount_point), (size_t)EA_MOUNT_POINT_SIZE - 1);

    d = result_over_wire(jxdr_Mountres, [](Mountres* e) {
        strcpy(e->mount_point, "/opt/kvx");
        e->mount_point_len = 8;
    });
    Mountres got = {5, 0, nullptr};
    Mountres* g = &got;
    ASSERT_EQ(jxdr_Mountres(d, g), 0);
    EXPECT_STREQ(got.mount_point, "/opt/kvx");
    EXPECT_EQ(+got.ret, 0);
}

TEST_F(ResultCodec, PingResCutsToCallerBuffer)
{
    JXDR* d = result_over_wire(jxdr_PINGres, [](PINGres* p) {
        strcpy(p->msg, "hello world");
        p->msg_len = 12;
        p->stamp = 2000000000;
    });

    char small[8];
    PINGres got = {0, (int)sizeof(small), small};
    PINGres* g = &got;
    ASSERT_EQ(jxdr_PINGres(d, g), 0);
    EXPECT_STREQ(small, "hello w");
    EXPECT_EQ(+got.msg_len, 8);
    EXPECT_EQ(+got.stamp, 2000000000);
}

TEST_F(ResultCodec, AgentLogClampsSizeAndText)
{
    struct Row { const char* name; int size; size_t text_len; int want_size; size_t want_len; } rows[] = {
        {"small", 11, 10, 11, 10},
        {"too large", 40001, 40000, EA_ACT_LOG_SIZE, EA_ACT_LOG_SIZE - 1},
        {"zero size keeps buffer untouched", 0, 5, 0, 0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        JXDR* d = with_param("{\"size\": " + std::to_string(row.size) + ", \"ActivityLogs\": \"" +
                             std::string(row.text_len, 'a') + "\"}");
        AGENTLOGres got = {0, nullptr};
        AGENTLOGres* g = &got;
        ASSERT_EQ(jxdr_AGENTLOGres(d, g), 0);
        EXPECT_EQ(+got.logSize, row.want_size);
        EXPECT_EQ(+got.pLog ? strlen(got.pLog) : 0, row.want_len);
    }

    /* announced 4 bytes but 10 characters sent: the carved buffer holds 3 */
    AGENTLOGres got = {0, nullptr};
    AGENTLOGres* g = &got;
    ASSERT_EQ(jxdr_AGENTLOGres(with_param("{\"size\": 4, \"ActivityLogs\": \"0123456789\"}"), g), 0);
    EXPECT_STREQ(got.pLog, "012");
}

TEST_F(ResultCodec, AgentLogWithoutRoomFails)
{
    JXDR* d = with_param("{\"size\": 1000, \"ActivityLogs\": \"abc\"}");
    ASSERT_NE(jxdr_param_alloc(d, JXDR_ARENA_SIZE - 10), nullptr);
    AGENTLOGres got = {0, nullptr};
    AGENTLOGres* g = &got;
    EXPECT_EQ(jxdr_AGENTLOGres(d, g), -2);
}

TEST_F(ResultCodec, VMDetectRoundTrip)
{
    JXDR* d = result_over_wire(jxdr_VMDetectres, [](VMDetectInfo_t* v) { *v = {1, 1, 255, 0}; });
    VMDetectInfo_t got = {9, 9, 9, 9};
    VMDetectInfo_t* g = &got;
    ASSERT_EQ(jxdr_VMDetectres(d, g), 0);
    EXPECT_EQ(+got.vpt_type, 1);
    EXPECT_EQ(+got.is_local, 1);
    EXPECT_EQ(+got.socks, 255);
    EXPECT_EQ(+got.is_oracle_uek, 0);
}
