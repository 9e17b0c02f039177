/*
 * test_http.cpp - the HTTP client against a one-connection server on
 * 127.0.0.1; the metadata lookup, with session tokens after a 401, with the
 * test process moved into a network namespace of its own.
 */
#include <gtest/gtest.h>

#include <poll.h>

#include <thread>

#include "foundation_testkit.h"
#include "metadata_testkit.h"

namespace {

::testing::Environment* const kLog = ::testing::AddGlobalTestEnvironment(new fkit::TestLog);

const std::string kBody = "i-0123456789abcdef0";
const std::string kRequest = "GET /latest/meta-data/instance-id HTTP/1.0\r\n"
                             "User-Agent: kvx/1.0\r\nAccept: */*\r\n\r\n";

/* One connection: reads the request, answers in two pieces 20 ms apart, closes. */
struct Server {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), port = 0;
    std::string request;
    std::thread th;

    Server(const std::string& response)
    {
        struct sockaddr_in sa = { AF_INET, 0, { htonl(INADDR_LOOPBACK) }, {} };
        socklen_t n = sizeof(sa);
        if (bind(fd, (struct sockaddr*)&sa, n) | listen(fd, 1) | getsockname(fd, (struct sockaddr*)&sa, &n))
            return;
        port = ntohs(sa.sin_port);
        th = std::thread([this, response] {
            struct pollfd pfd = { fd, POLLIN, 0 };
            char buf[512];
            int c = poll(&pfd, 1, 10000) == 1 ? accept(fd, NULL, NULL) : -1;
            ssize_t got = recv(c, buf, sizeof(buf), 0);   /* the request comes in one piece */
            request.assign(buf, got > 0 ? (size_t)got : 0);
            size_t half = response.size() / 2;
            send(c, response.data(), half, MSG_NOSIGNAL);
            usleep(20000);
            send(c, response.data() + half, response.size() - half, MSG_NOSIGNAL);
            close(c);
        });
    }
    void wait() { if (th.joinable()) th.join(); }
    ~Server() { wait(); close(fd); }
};

} /* namespace */

TEST(HttpGet, ResponsesGiveTheirResults)
{
    const struct { const char* name; std::string response; int cap, rc; std::string out; } cases[] = {
        { "200 with Content-Length", meta::http(200, kBody), 64, 0, kBody },
        { "extra bytes dropped", meta::http(200, kBody) + "TRAILING", 64, 0, kBody },
        { "200 without Content-Length is empty", "HTTP/1.0 200 OK\r\n\r\nignored", 64, 0, "" },
        { "outlen cuts the copy", meta::http(200, kBody), 10, 0, kBody.substr(0, 10) },
        { "no output buffer", meta::http(200, kBody), -1, 0, "" },
        { "404", meta::http(404, "nop"), 64, -2, "" },
        { "unreadable status line", "HTTP/1.0\r\n\r\n", 64, -2, "" },
        { "closed before the body", meta::http(200, kBody).substr(0, 45), 64, -4, "" },
        { "closed with nothing sent", "", 64, -4, "" },
        { "larger than the client's buffer", meta::http(200, std::string(9000, 'b')), 64, -4, "" },
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Server srv(c.response);
        std::string out(72, 'X');
        int outlen = c.cap;
        EXPECT_EQ(http_get("127.0.0.1", srv.port, "/latest/meta-data/instance-id",
                           c.cap < 0 ? NULL : &out[0], c.cap < 0 ? NULL : &outlen), c.rc);
        srv.wait();
        EXPECT_EQ(srv.request, kRequest);
        EXPECT_EQ(out.substr(0, c.rc == 0 && c.cap > 0 ? (size_t)outlen : 0), c.out);
        EXPECT_EQ(out[(size_t)std::max(c.cap, 0)], 'X');   /* nothing written past outlen */
    }
}

TEST(HttpGet, AddressesAndRefusedConnections)
{
    char out[8];
    int outlen = sizeof(out), port, before = dup(0);
    close(before);
    {
        Server srv(meta::http(200, kBody));
        port = srv.port;
        EXPECT_EQ(http_get("127.0.1", port, "/", out, &outlen), 0);   /* classic inet_addr */
    }
    EXPECT_EQ(http_get("127.0.0.1", port, "/", out, &outlen), -1);
    for (const char* bad : { "169.254.x", "255.255.255.255", "", "localhost", (const char*)NULL })
        EXPECT_EQ(http_get(bad, 80, "/", out, &outlen), -3) << (bad ? bad : "(null)");
    int after = dup(0);
    close(after);
    EXPECT_EQ(after, before);   /* no descriptor left open */
}

const std::string UNAUTHORIZED = meta::http(401, ""), SLOW = meta::http(200, std::string(40, 'x'));

/* The token steps follow a plain request answered 401; a service that
 * trickles its answers (SLOW takes 16 s) is given up at the
 * lookup's deadline, token step included. */
TEST(MetadataToken, PlainRequestFirstAndTokenOnlyAfter401)
{
    fkit::TempDir dir;
    size_t mark = fkit::TestLog::Size();
    const struct {
        const char* name;
        std::vector<meta::Answer> answers;
        std::string result;   /* what the lookup reports */
        size_t requests;      /* connections the node made */
        int seconds = 0;      /* the lookup's deadline (0: its own) */
        const char* key = "instance-id";
    } cases[] = {
        {"v1 answers", {{meta::http(200, kBody), kRequest.c_str()}}, "0 " + kBody, 1},
        {"not found is final", {{meta::http(404, ""), kRequest.c_str()}}, "-2 ", 1},
        {"token after 401",
         {{UNAUTHORIZED, kRequest.c_str()},
          {meta::http(200, "TOKEN123"),
           "PUT /latest/api/token HTTP/1.0\r\nUser-Agent: kvx/1.0\r\nAccept: */*\r\n"
           "X-aws-ec2-metadata-token-ttl-seconds: 60\r\n\r\n"},
          {meta::http(200, kBody), "GET /latest/meta-data/instance-id HTTP/1.0\r\nUser-Agent: kvx/1.0\r\nAccept: */*\r\n"
           "X-aws-ec2-metadata-token: TOKEN123\r\n\r\n"}},
         "0 " + kBody, 3},
        {"token refused", {{UNAUTHORIZED, kRequest.c_str()}, {meta::http(403, ""), "PUT /latest/api/token"}},
         "-2 ", 2},
        {"trickling answer", {{SLOW, kRequest.c_str(), true}}, "-4 ", 1, 2},
        {"trickling token", {{UNAUTHORIZED, kRequest.c_str()}, {SLOW, "PUT /latest/api/token", true}}, "-4 ", 2, 2},
        {"nothing listens", {}, "-1 ", 0},
        {"no key", {{meta::http(200, kBody)}}, "-1 ", 0, 0, NULL},
    };
    std::string why = meta::enter_private_netns();
    if (!why.empty())
        GTEST_SKIP() << why;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::string log = dir / "requests";
        unlink(log.c_str());
        pid_t server = meta::serve(c.answers, log);
        char value[128] = "";
        int len = 127;
        long long start = zel_now_ms();
        int rc = c.seconds > 0 ? get_meta_value_within(c.key, value, &len, c.seconds)
                               : get_meta_value_by_key(c.key, value, &len);
        long long took = zel_now_ms() - start;
        meta::stop(server);
        EXPECT_EQ(c.result, std::to_string(rc) + " " + std::string(value, rc == 0 ? len : 0));
        EXPECT_TRUE(c.seconds == 0 || (took >= c.seconds * 1000 - 50 && took < c.seconds * 1000 + 5000)) << took;
        std::string seen = fkit::ReadFile(log);
        EXPECT_EQ(std::string::npos, seen.find("UNEXPECTED")) << seen;
        size_t requests = 0;
        for (size_t at = seen.find("====\n"); at != std::string::npos; at = seen.find("====\n", at + 1))
            requests++;
        EXPECT_EQ(c.requests, requests) << seen;
    }
    EXPECT_EQ(1, fkit::TestLog::Count(mark, "Get meta data token successfully"));
    EXPECT_EQ(0, fkit::TestLog::Count(mark, "TOKEN123")) << "the session token is a secret";
}
