/*
 * The line channel and the endpoint: record framing on a real pipe, the
 * results of receive() for each kind of input, and call() against a small
 * peer that answers the way the agent does.
 */
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>
#include "ea_proto.h"
#include "exec_proto.h"

namespace {

const std::string kRequest =
    "{\"ver\": 1, \"type\": 1, \"seq\": 4, \"fn\": 1, \"status\": 0, \"param\": {\"str\": \"hi\"}}";

/* A stdio stream holding the given bytes, positioned at the start. */
FILE* input_of(const std::string& bytes)
{
    FILE* f = tmpfile();
    fwrite(bytes.data(), 1, bytes.size(), f);
    rewind(f);
    return f;
}

std::vector<int> receive_all(const std::string& bytes)
{
    FILE* in = input_of(bytes);
    STDIOChannel ch(in, stdout);
    ExecProto ep(&ch);
    std::vector<int> rcs;
    for (int i = 0; i < 10; i++) {
        JXDR* x = nullptr;
        int rc = ep.receive(x);
        rcs.push_back(rc);
        EXPECT_EQ(rc == 0, x != nullptr);
        jxdr_destroy(x);
        if (rc == -2)
            break;
    }
    fclose(in);
    return rcs;
}

} // namespace

TEST(Framing, RecordIsTextNulAndTwoNewlines)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    FILE* out = fdopen(fds[1], "w");
    STDIOChannel ch(stdin, out);
    char text[] = "{\"a\": 1}";
    EXPECT_EQ(ch.write_line(text), (int)strlen(text) + 1);
    fclose(out);
    char buf[64];
    ssize_t n = read(fds[0], buf, sizeof(buf));
    close(fds[0]);
    ASSERT_EQ(n, (ssize_t)strlen(text) + 3);
    EXPECT_EQ(std::string(buf, strlen(text)), text);
    EXPECT_EQ(buf[n - 3], '\0');
    EXPECT_EQ(buf[n - 2], '\n');
    EXPECT_EQ(buf[n - 1], '\n');
}

struct ReceiveRow {
    const char* name;
    std::string input;
    std::vector<int> results;
};

class Receive : public ::testing::TestWithParam<ReceiveRow> {};

TEST_P(Receive, GivesResultsInOrder)
{
    EXPECT_EQ(receive_all(GetParam().input), GetParam().results);
}

INSTANTIATE_TEST_SUITE_P(Endpoint, Receive, ::testing::Values(
    ReceiveRow{"ValidLine", kRequest + "\n", {0, -2}},
    ReceiveRow{"LoneNewline", "\n", {-5, -2}},
    ReceiveRow{"EofWithoutNewlineDropsRequest", kRequest, {-2}},
    ReceiveRow{"LongLineReadInPieces", std::string(70000, 'x') + "\n", {-5, -5, -2}},
    ReceiveRow{"LongLineWithoutNewline", std::string(70000, 'x'), {-5, -2}},
    ReceiveRow{"AgentStyleRecordThenSeparator", kRequest + std::string("\0\n\n", 3), {0, -5, -2}},
    ReceiveRow{"NoiseBetweenRequests", kRequest + "\nLast login: today\n" + kRequest + "\n", {0, -5, 0, -2}},
    ReceiveRow{"EmptyInput", "", {-2}}),
    [](const ::testing::TestParamInfo<ReceiveRow>& i) { return std::string(i.param.name); });

TEST(Endpoint, FailedReadIsEmptyRead)
{
    FILE* wo = tmpfile();
    int fd = fileno(wo);
    char path[64];
    snprintf(path, sizeof(path), "/proc/self/fd/%d", fd);
    FILE* in = fopen(path, "w");       /* reading a write-only stream fails */
    ASSERT_NE(in, nullptr);
    STDIOChannel ch(in, stdout);
    ExecProto ep(&ch);
    JXDR* x = nullptr;
    EXPECT_EQ(ep.receive(x), -1);
    EXPECT_EQ(x, nullptr);
    fclose(in);
    fclose(wo);
}

TEST(Endpoint, LogsUnparsableLinesToDebugLog)
{
    char tmpl[] = "/tmp/kvx_eplog_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    std::string home = tmpl, log = home + "/logs/ealib.log";
    mkdir((home + "/logs").c_str(), 0755);
    setenv("KVXSVR_HOME", home.c_str(), 1);
    setenv("KVXEALIB_DEBUG", "1", 1);
    std::string tail = std::string(9999, 't') + "Z";
    EXPECT_EQ(receive_all("%s%n\n" + std::string(20000, 'h') + tail + "\n"),
              (std::vector<int>{-5, -5, -2}));
    unsetenv("KVXEALIB_DEBUG");
    unsetenv("KVXSVR_HOME");

    std::ifstream f(log);
    std::vector<std::string> lines;
    for (std::string l; std::getline(f, l);)
        lines.push_back(l);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_NE(lines[0].find(" - exec_proto:27]%s%n: 4."), std::string::npos) << lines[0];
    EXPECT_NE(lines[1].find(" - exec_proto:27]hhh"), std::string::npos);
    EXPECT_NE(lines[2].find(" - exec_proto:29]" + tail + ": 30000."), std::string::npos);
    unlink(log.c_str());
    rmdir((home + "/logs").c_str());
    rmdir(home.c_str());
}

/* ---- call() against a peer that answers pings as the agent does ---- */

namespace {

/* Answers `limit` pings, each preceded by `noise`, then closes its output. */
class PingPeer {
public:
    PingPeer(const std::string& noise, int limit) : m_noise(noise), m_limit(limit)
    {
        int req[2], rep[2];
        if (pipe(req) != 0 || pipe(rep) != 0)
            abort();
        m_client_out = fdopen(req[1], "w");
        m_client_in = fdopen(rep[0], "r");
        m_peer_in = fdopen(req[0], "r");
        m_peer_out = fdopen(rep[1], "w");
        m_thread = std::thread([this] { serve(); });
    }
    ~PingPeer()
    {
        fclose(m_client_out);
        m_thread.join();
        fclose(m_peer_in);
        fclose(m_client_in);
    }
    FILE* client_in() { return m_client_in; }
    FILE* client_out() { return m_client_out; }
    int served = 0;

private:
    void serve()
    {
        STDIOChannel ch(m_peer_in, m_peer_out);
        ExecProto ep(&ch);
        while (served < m_limit) {
            JXDR* req = nullptr;
            int rc = ep.receive(req);
            if (rc == -2)
                break;
            if (rc != 0)
                continue;
            PINGargs* a = nullptr;
            jxdr_PINGargs(req, a);
            JXDR* rep = jxdr_create_reply(req);
            PINGres* r = nullptr;
            jxdr_PINGres(rep, r);
            snprintf(r->msg, EA_PING_MSG_SIZE, "%s", a ? a->msg : "");
            r->stamp = (int32_t)time(NULL);
            jxdr_PINGres(rep, r);
            if (!m_noise.empty()) {
                ssize_t w = write(fileno(m_peer_out), m_noise.data(), m_noise.size());
                (void)w;
            }
            ep.send(rep);
            served++;
            jxdr_destroy(req);
            jxdr_destroy(rep);
        }
        fclose(m_peer_out);
    }

    std::string m_noise;
    int m_limit;
    FILE* m_client_out;
    FILE* m_client_in;
    FILE* m_peer_in;
    FILE* m_peer_out;
    std::thread m_thread;
};

int ping(ExecProto& ep, const char* text, std::string& echoed, bool discard = false)
{
    PINGargs a = {(int)strlen(text) + 1, (char*)text, discard};
    char buf[EA_PING_MSG_SIZE] = {0};
    PINGres r = {0, (int)sizeof(buf), buf};
    int rc = ep.call(EA_PROC_PING, JXDR_PROC(PINGargs, jxdr_PINGargs), (char*)&a,
                     JXDR_PROC(PINGres, jxdr_PINGres), (char*)&r);
    echoed = buf;
    if (rc == 0 && !discard) {
        EXPECT_LE(labs((long)r.stamp - (long)time(NULL)), 5);
    }
    return rc;
}

} // namespace

TEST(Call, ConsecutiveCallsSkipRecordSeparatorAndNoise)
{
    struct { const char* name; const char* noise; } rows[] = {
        {"quiet peer", ""},
        {"login shell noise", "Last login: Mon\nwelcome\n"},
    };
    for (auto& row : rows) {
        SCOPED_TRACE(row.name);
        PingPeer peer(row.noise, 3);
        STDIOChannel ch(peer.client_in(), peer.client_out());
        ExecProto ep(&ch);
        std::string echoed;
        EXPECT_EQ(ping(ep, "first", echoed), 0);
        EXPECT_EQ(echoed, "first");
        EXPECT_EQ(ping(ep, "second \xc3\xa9", echoed), 0);
        EXPECT_EQ(echoed, "second \xc3\xa9");
        EXPECT_EQ(ping(ep, "", echoed), 0);
        EXPECT_EQ(echoed, "");
        EXPECT_EQ(ping(ep, "gone", echoed), -2) << "end of input once the peer has left";
    }
}

TEST(Call, DiscardedPingSkipsToTheMatchingReply)
{
    PingPeer peer("motd line\n{\"str\": \"other\", \"sp\": 1}\n", 2);
    STDIOChannel ch(peer.client_in(), peer.client_out());
    ExecProto ep(&ch);
    std::string echoed;
    EXPECT_EQ(ping(ep, "marker", echoed, true), 0);
    EXPECT_EQ(echoed, "") << "the reply is not decoded";
    EXPECT_EQ(ping(ep, "after", echoed), 0);
    EXPECT_EQ(echoed, "after");
    EXPECT_EQ(ping(ep, "marker", echoed, true), -2);
}
