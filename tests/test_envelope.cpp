/*
 * The message envelope: arena, header parsing and building, text form, the
 * protocol debug log, connection settings and whole-count descriptor I/O.
 */
#include <gtest/gtest.h>
#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include "jxdr.h"
#include "net_conn.h"
#include "zelcommon.h"

namespace {

struct EnvelopeDeleter {
    void operator()(JXDR* x) const { jxdr_destroy(x); }
};
typedef std::unique_ptr<JXDR, EnvelopeDeleter> Envelope;

Envelope parse(const std::string& text)
{
    return Envelope(jxdr_create((char*)text.c_str()));
}

std::string dump(JXDR* x)
{
    char* s = jxdr_to_string(x);
    std::string out = s ? s : "";
    free(s);
    return out;
}

} // namespace

TEST(Arena, PacksPiecesBackToBackAndNeverGrows)
{
    Envelope x(jxdr_create(nullptr));
    ASSERT_TRUE(x);
    EXPECT_EQ(x->x_param.p_org, nullptr) << "no block before first use";

    char* a = jxdr_param_alloc(x.get(), 10);
    char* b = jxdr_param_alloc(x.get(), 20);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(b, a + 10);
    EXPECT_EQ(x->x_param.l_all, JXDR_ARENA_SIZE);
    EXPECT_EQ(x->x_param.l_rem, JXDR_ARENA_SIZE - 30);
    for (int i = 0; i < 30; i++)
        ASSERT_EQ(a[i], 0) << "byte " << i;

    EXPECT_EQ(jxdr_param_alloc(x.get(), JXDR_ARENA_SIZE - 29), nullptr);
    EXPECT_EQ(jxdr_param_alloc(x.get(), JXDR_ARENA_SIZE - 30), b + 20) << "exactly what is left";
    EXPECT_EQ(x->x_param.l_rem, 0);
    EXPECT_EQ(jxdr_param_alloc(x.get(), 1), nullptr);
    EXPECT_EQ(jxdr_param_alloc(x.get(), -1), nullptr);
}

TEST(Arena, RefusesMoreThanOneBlock)
{
    Envelope x(jxdr_create(nullptr));
    EXPECT_EQ(jxdr_param_alloc(x.get(), JXDR_ARENA_SIZE + 1), nullptr);
    EXPECT_NE(jxdr_param_alloc(x.get(), JXDR_ARENA_SIZE), nullptr);
}

/* Texts that must not become an envelope. */
struct Rejected { const char* name; const char* text; };

class HeaderRejection : public ::testing::TestWithParam<Rejected> {};

TEST_P(HeaderRejection, GivesNoEnvelope)
{
    EXPECT_FALSE(parse(GetParam().text));
}

INSTANTIATE_TEST_SUITE_P(Envelope, HeaderRejection, ::testing::Values(
    Rejected{"StringVersion", "{\"ver\": \"1\", \"type\": 1, \"seq\": 3, \"fn\": 1, \"status\": 0}"},
    Rejected{"RealSeq", "{\"ver\": 1, \"type\": 1, \"seq\": 3.5, \"fn\": 1, \"status\": 0}"},
    Rejected{"MissingStatus", "{\"ver\": 1, \"type\": 1, \"seq\": 3, \"fn\": 1}"},
    Rejected{"MissingFn", "{\"ver\": 1, \"type\": 1, \"seq\": 3, \"status\": 0}"},
    Rejected{"Array", "[1, 1, 3, 1, 0]"},
    Rejected{"NotJson", "ver=1 type=1"},
    Rejected{"Empty", ""},
    Rejected{"TruncatedObject", "{\"ver\": 1, \"type\": 1, \"seq\": 3,"}),
    [](const ::testing::TestParamInfo<Rejected>& i) { return std::string(i.param.name); });

TEST(Envelope, AcceptsHeaderWithoutParam)
{
    Envelope x = parse("{\"ver\": 7, \"type\": 1, \"seq\": 3, \"fn\": 9, \"status\": 0, \"extra\": []}");
    ASSERT_TRUE(x);
    EXPECT_EQ(x->x_op, JXDR_DECODE);
    EXPECT_EQ(jxdr_proc_num(x.get()), 9);
    EXPECT_EQ(x->x_hr.seq, 3);
    EXPECT_EQ(x->x_hr.ver, 7);
}

TEST(Envelope, ReplyRepeatsSeqAndFn)
{
    Envelope req = parse("{\"ver\": 1, \"type\": 1, \"seq\": 3, \"fn\": 2, \"status\": 5, "
                         "\"param\": {\"id\": 1}}");
    ASSERT_TRUE(req);
    Envelope rep(jxdr_create_reply(req.get()));
    ASSERT_TRUE(rep);
    EXPECT_EQ(rep->x_op, JXDR_ENCODE);
    Envelope back = parse(dump(rep.get()));
    ASSERT_TRUE(back);
    EXPECT_EQ(back->x_hr.ver, 1);
    EXPECT_EQ(back->x_hr.type, JXDR_TYPE_REPLY);
    EXPECT_EQ(back->x_hr.seq, 3);
    EXPECT_EQ(back->x_hr.fn, 2);
    EXPECT_EQ(back->x_hr.st, 0);
    EXPECT_EQ(json_object_size(json_object_get(back->x_hd, "param")), 0u);
}

TEST(Envelope, CallsTakeIncreasingSequenceNumbers)
{
    Envelope a(jxdr_create_call(1));
    Envelope b(jxdr_create_call(4));
    EXPECT_EQ(b->x_hr.seq, a->x_hr.seq + 1);
    EXPECT_EQ(jxdr_get_seq(), b->x_hr.seq);
    EXPECT_EQ(b->x_hr.type, JXDR_TYPE_CALL);
    EXPECT_EQ(jxdr_proc_num(b.get()), 4);
}

TEST(Envelope, TextUsesSpacedSeparatorsAndAsciiEscapes)
{
    Envelope c(jxdr_create_call(1));
    int seq = c->x_hr.seq;
    json_object_set_new(json_object_get(c->x_hd, "param"), "str", json_string("caf\xc3\xa9 \xe2\x82\xac"));
    EXPECT_EQ(dump(c.get()),
              "{\"ver\": 1, \"type\": 1, \"seq\": " + std::to_string(seq) +
              ", \"fn\": 1, \"status\": 0, \"param\": {\"str\": \"caf\\u00E9 \\u20AC\"}}");
}

/* ---- protocol debug log ---- */

class DebugLog : public ::testing::Test {
protected:
    std::string home;

    void SetUp() override
    {
        char tmpl[] = "/tmp/kvx_dlog_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        home = tmpl;
        ASSERT_EQ(mkdir((home + "/logs").c_str(), 0755), 0);
        setenv("KVXSVR_HOME", home.c_str(), 1);
        unsetenv("KVXEALIB_DEBUG");
    }
    void TearDown() override
    {
        unsetenv("KVXSVR_HOME");
        unsetenv("KVXEALIB_DEBUG");
        unlink(log_path().c_str());
        rmdir((home + "/logs").c_str());
        rmdir(home.c_str());
    }
    std::string log_path() const { return home + "/logs/ealib.log"; }
    std::string log_text() const
    {
        std::ifstream f(log_path());
        std::stringstream ss;
        ss << f.rdbuf();
        return ss.str();
    }
};

TEST_F(DebugLog, SilentUnlessBothVariablesSet)
{
    EXPECT_EQ(dlog2("x.cpp", 1, "%s", "hello"), 0);
    EXPECT_EQ(dlog("hello"), 0);
    EXPECT_NE(access(log_path().c_str(), F_OK), 0) << "nothing written, nothing created";

    setenv("KVXEALIB_DEBUG", "1", 1);
    unsetenv("KVXSVR_HOME");
    EXPECT_EQ(dlog("hello"), 0);
    EXPECT_NE(access(log_path().c_str(), F_OK), 0);
}

TEST_F(DebugLog, WritesStampedEntries)
{
    setenv("KVXEALIB_DEBUG", "1", 1);
    EXPECT_EQ(dlog2("/src/ealib/exec_proto.cpp", 27, "%s: %d.", "abc", 3), 0);
    EXPECT_EQ(dlog("100% sure %s"), 0);
    std::string text = log_text();
    std::string prefix = std::string("][") + program_invocation_short_name + ":" +
                         std::to_string(getpid()) + " - ";
    EXPECT_NE(text.find(prefix + "exec_proto.cpp:27]abc: 3.\n"), std::string::npos) << text;
    EXPECT_NE(text.find(prefix + "unset:0]100% sure %s\n"), std::string::npos) << text;
    ASSERT_GT(text.size(), 21u);
    EXPECT_EQ(text[0], '[');
    EXPECT_EQ(text[20], ']') << "time stamp is YYYY-MM-DD HH:MM:SS";
}

TEST_F(DebugLog, CutsLongMessagesAndReportsUnwritableFile)
{
    setenv("KVXEALIB_DEBUG", "1", 1);
    std::string big(20000, 'q');
    dlog2("f", 1, "%s", big.c_str());
    std::string text = log_text();
    EXPECT_EQ(text.size() - text.find('q'), 10239u + 1) << "10239 characters and the newline";

    setenv("KVXSVR_HOME", "/nonexistent/kvx", 1);
    EXPECT_EQ(dlog("x"), -1);
}

/* ---- connection settings ---- */

class TestConn : public NetConn {
public:
    int open(const char*, int, const char*) override { return 0; }
    int close() override { return 0; }
};

TEST(NetConn, TimeoutIsSecondsOutsideMillisecondsInside)
{
    TestConn c;
    c.set_timeout(30);
    EXPECT_EQ(c.get_timeout(), 30);
    EXPECT_EQ(c.m_param.timeout, 30000);
}

/* ---- whole-count descriptor I/O ---- */

TEST(WholeCountIo, MovesEverythingOrReportsEnd)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    char out[100000];
    memset(out, 'w', sizeof(out));
    pid_t pid = fork();
    if (pid == 0) {
        ::close(fds[0]);
        _exit(writen(fds[1], out, sizeof(out), 0) == (int)sizeof(out) ? 0 : 1);
    }
    ::close(fds[1]);
    static char in[100001];
    EXPECT_EQ(readn(fds[0], in, sizeof(out), 0), (int)sizeof(out));
    EXPECT_EQ(memcmp(in, out, sizeof(out)), 0);
    EXPECT_EQ(readn(fds[0], in, 10, 0), 0) << "end of file";
    EXPECT_EQ(readn(fds[0], in, -1, 0), -1);
    EXPECT_EQ(writen(fds[0], in, -1, 0), -1);
    int st = 0;
    waitpid(pid, &st, 0);
    EXPECT_EQ(st, 0);
    ::close(fds[0]);
}

TEST(WholeCountIo, ReportsWriteErrorOnStdout)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    ::close(fds[0]);
    void (*old)(int) = signal(SIGPIPE, SIG_IGN);
    testing::internal::CaptureStdout();
    EXPECT_EQ(writen(fds[1], (void*)"abc", 3, 0), -1);
    fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "writen error:" + std::to_string(EPIPE) + "\n");
    signal(SIGPIPE, old);
    ::close(fds[1]);
    EXPECT_EQ(readn(-1, fds, 4, 0), -1);
}

