/*
 * test_http.cpp - the HTTP client: response parsing over byte buffers, one
 * GET against a scripted server on 127.0.0.1, and the metadata lookup in a
 * network namespace of the test's own.
 */
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <random>
#include <string>

#include "httpclient.h"
#include "test_http_responder.h"

namespace {

const std::string kBody19 = "i-0123456789abcdef0";   /* 19 bytes */

std::string ok_response(const std::string& body)
{
    return "HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\n\r\n" + body;
}

struct GetResult {
    int rc;
    int outlen;
    std::string out;   /* the outlen-byte prefix written */
};

/* http_get against the responder with an output buffer of cap bytes. */
GetResult get_from(TestResponder& srv, int cap = 64, const char* ip = "127.0.0.1",
                   const char* uri = "/latest/meta-data/instance-id")
{
    std::string out((size_t)cap + 8, 'X');
    GetResult r;

    r.outlen = cap;
    r.rc = http_get(ip, srv.port(), uri, &out[0], &r.outlen);
    r.out = r.rc == 0 ? out.substr(0, (size_t)r.outlen) : "";
    return r;
}

/* A port on 127.0.0.1 where nothing listens (bound, then released). */
int closed_port()
{
    TestResponder probe({});
    return probe.port();
}

} /* namespace */

/* ---- parsing over byte buffers ---- */

TEST(HttpHead, LengthCountsThroughTheBlankLine)
{
    const struct { const char* text; int want; } cases[] = {
        { "HTTP/1.0 200 OK\r\n\r\n", 19 },
        { "HTTP/1.0 200 OK\r\nA: b\r\n\r\nbody", 25 },
        { "HTTP/1.0 200 OK\r\n", 0 },
        { "HTTP/1.0 200 OK\n\n", 0 },
        { "", 0 },
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(http_head_length(c.text, (int)strlen(c.text)), c.want);
    }
    /* the text ends at a NUL byte, as in the client's terminated buffer */
    const char nul[] = "HTTP/1.0 200 OK\0\r\n\r\n";
    EXPECT_EQ(http_head_length(nul, (int)sizeof(nul) - 1), 0);
}

TEST(HttpHead, StatusLineReadLikeScanf)
{
    const struct { const char* text; int fields; int code; } cases[] = {
        { "HTTP/1.0 200 OK\r\n", 3, 200 },
        { "HTTP/1.1 404 Not Found\r\n", 3, 404 },
        { "HTTP/1.0 200\r\n\r\n", 2, 200 },
        { "HTTP/1.0 OK 200\r\n", 1, -1 },
        { "HTTP/1.0\r\n\r\n200 x", 3, 200 },   /* blanks include line ends */
        { "   \r\n", -1, -1 },
        { "X -17 y", 3, -17 },
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        int code = -1;
        EXPECT_EQ(http_status_fields(c.text, (int)strlen(c.text), &code), c.fields);
        EXPECT_EQ(code, c.code);
    }
}

TEST(HttpHead, ContentLengthIsCaseSensitiveAndLastWins)
{
    const struct { const char* text; int want; } cases[] = {
        { "HTTP/1.0 200 OK\r\nContent-Length: 19\r\n\r\n", 19 },
        { "HTTP/1.0 200 OK\r\ncontent-length: 5\r\n\r\n", 0 },
        { "HTTP/1.0 200 OK\r\nContent-Length:5\r\n\r\n", 0 },
        { "HTTP/1.0 200 OK\r\nContent-Length: 3\r\nContent-Length: 7\r\n\r\n", 7 },
        { "HTTP/1.0 200 OK\r\nX-Content-Length: 12\r\n\r\n", 12 },
        { "HTTP/1.0 200 OK\r\nContent-Length: \r\n9\r\n\r\n", 0 },
        { "HTTP/1.0 200 OK\r\n\r\nContent-Length: 4\r\n", 4 },   /* body lines count too */
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(http_content_length(c.text, (int)strlen(c.text)), c.want);
    }
}

TEST(HttpHead, ReadinessCutsExtraBytesAndRejectsBadStatus)
{
    const std::string full = ok_response(kBody19);
    const int kUnchanged = -1;
    const struct { std::string text; int want, len_after, con_len; } cases[] = {
        { full + "EXTRA", 1, (int)full.size(), 19 },
        { full.substr(0, full.size() - 5), 0, kUnchanged, 19 },
        { full.substr(0, 50), 0, kUnchanged, 0 },
        { "HTTP/1.0 200 OK\r\n\r\nbody bytes", 1, 19, 0 },
        { "HTTP/1.0 200 OK\r\nContent-Len", 0, kUnchanged, 0 },
        { "HTTP/1.0 404 Not Found\r\n\r\n", -7, kUnchanged, 0 },
        { "garbage\r\n\r\n", -7, kUnchanged, 0 },
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        int len = (int)c.text.size(), head = 0, con = 0;
        EXPECT_EQ(http_content_ready(c.text.data(), &len, &head, &con), c.want);
        EXPECT_EQ(len, c.len_after == kUnchanged ? (int)c.text.size() : c.len_after);
        EXPECT_EQ(con, c.con_len);
    }
}

TEST(HttpHead, ArbitraryBytesStayInsideTheBuffer)
{
    std::mt19937 rng(4242);
    const std::string alphabet = "HTTP/1.0 200OK\r\n:Content-Length: 0123456789-+\0x";

    for (int round = 0; round < 3000; round++) {
        size_t n = rng() % 300;
        /* exact-size heap copy without a terminator: ASan sees any overrun */
        std::unique_ptr<char[]> buf(new char[n ? n : 1]);
        for (size_t i = 0; i < n; i++)
            buf[i] = round % 2 ? (char)rng() : alphabet[rng() % alphabet.size()];
        int len = (int)n, head = 0, con = 0, code = 0;
        http_head_length(buf.get(), (int)n);
        http_status_fields(buf.get(), (int)n, &code);
        http_content_length(buf.get(), (int)n);
        int rc = http_content_ready(buf.get(), &len, &head, &con);
        ASSERT_TRUE(rc == 1 || rc == 0 || rc == -7);
        ASSERT_GE(len, 0);
        ASSERT_LE(len, (int)n);
    }
}

/* ---- one GET against a scripted server ---- */

TEST(HttpGet, ReturnsBodyAndSendsTheExactRequest)
{
    TestResponder srv(TestResponder::once(ok_response(kBody19)));
    ASSERT_TRUE(srv.ok());

    GetResult r = get_from(srv);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.outlen, 19);
    EXPECT_EQ(r.out, kBody19);
    EXPECT_EQ(srv.request(),
              "GET /latest/meta-data/instance-id HTTP/1.0\r\nUser-Agent: kvx/1.0\r\nAccept: */*\r\n\r\n");
}

TEST(HttpGet, ResponseShapesGiveTheirResults)
{
    const struct { const char* name; std::string response; int rc; std::string body; } cases[] = {
        { "extra bytes dropped", ok_response(kBody19) + "TRAILING", 0, kBody19 },
        { "no Content-Length is an empty body", "HTTP/1.0 200 OK\r\n\r\nignored body", 0, "" },
        { "lower-case header not honoured", "HTTP/1.0 200 OK\r\ncontent-length: 5\r\n\r\nabcde", 0, "" },
        { "404", "HTTP/1.0 404 Not Found\r\nContent-Length: 3\r\n\r\nnop", -2, "" },
        { "unreadable status line", "HTTP/1.0\r\n\r\n", -2, "" },
        { "closed before the body", ok_response(kBody19).substr(0, 45), -4, "" },
        { "closed before the head", "HTTP/1.0 200 OK\r\nContent-", -4, "" },
        { "closed with nothing sent", "", -4, "" },
        { "larger than the buffer", ok_response(std::string(9000, 'b')), -4, "" },
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TestResponder srv(TestResponder::once(c.response));
        ASSERT_TRUE(srv.ok());
        GetResult r = get_from(srv);
        EXPECT_EQ(r.rc, c.rc);
        if (c.rc == 0) {
            EXPECT_EQ(r.out, c.body);
        }
    }
}

TEST(HttpGet, CollectsADribbledResponse)
{
    TestResponder srv(TestResponder::dribble(ok_response(kBody19) + "JUNK", 3, 20));
    ASSERT_TRUE(srv.ok());

    GetResult r = get_from(srv);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.out, kBody19);
}

TEST(HttpGet, OutlenBoundsTheCopy)
{
    {
        TestResponder srv(TestResponder::once(ok_response(kBody19)));
        GetResult r = get_from(srv, 64);
        EXPECT_EQ(r.rc, 0);
        EXPECT_EQ(r.outlen, 19);
    }
    {
        TestResponder srv(TestResponder::once(ok_response(kBody19)));
        char out[16];
        int outlen = 10;
        memset(out, 'X', sizeof(out));
        ASSERT_EQ(http_get("127.0.0.1", srv.port(), "/", out, &outlen), 0);
        EXPECT_EQ(outlen, 10);
        EXPECT_EQ(std::string(out, 10), kBody19.substr(0, 10));
        EXPECT_EQ(out[10], 'X');   /* no terminator added */
    }
    {
        TestResponder srv(TestResponder::once(ok_response(kBody19)));
        ASSERT_EQ(http_get("127.0.0.1", srv.port(), "/", NULL, NULL), 0);
    }
}

TEST(HttpGet, ClassicAddressParser)
{
    /* "127.0.1" is 127.0.0.1 to the classic parser, as 169.254.169 is a valid address */
    TestResponder srv(TestResponder::once(ok_response(kBody19)));
    ASSERT_TRUE(srv.ok());
    GetResult r = get_from(srv, 64, "127.0.1");
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.out, kBody19);

    int outlen = 8;
    char out[8];
    for (const char* bad : { "169.254.x", "255.255.255.255", "", "localhost" }) {
        SCOPED_TRACE(bad);
        EXPECT_EQ(http_get(bad, 80, "/", out, &outlen), -3);
    }
    EXPECT_EQ(http_get(NULL, 80, "/", out, &outlen), -3);
}

TEST(HttpGet, RefusedConnectionIsMinusOneAndLeaksNoDescriptor)
{
    int port = closed_port();
    int before = dup(0);
    close(before);

    int outlen = 8;
    char out[8];
    EXPECT_EQ(http_get("127.0.0.1", port, "/", out, &outlen), -1);
    EXPECT_EQ(http_get("bad.address", port, "/", out, &outlen), -3);

    int after = dup(0);
    close(after);
    EXPECT_EQ(after, before);   /* the lowest free descriptor did not move */
}

/* ---- instance metadata in a private network namespace ---- */

namespace {

/* Brings lo up and gives it 169.254.169.254; 0 or -1. */
int setup_link_local_loopback()
{
    struct ifreq ifr;
    struct sockaddr_in* sin = (struct sockaddr_in*)&ifr.ifr_addr;
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    int rc = -1;

    if (fd < 0)
        return -1;
    memset(&ifr, 0, sizeof(ifr));
    snprintf(ifr.ifr_name, sizeof(ifr.ifr_name), "lo");
    if (ioctl(fd, SIOCGIFFLAGS, &ifr) == 0) {
        ifr.ifr_flags |= IFF_UP | IFF_RUNNING;
        if (ioctl(fd, SIOCSIFFLAGS, &ifr) == 0) {
            memset(&ifr, 0, sizeof(ifr));
            snprintf(ifr.ifr_name, sizeof(ifr.ifr_name), "lo:1");
            sin->sin_family = AF_INET;
            sin->sin_addr.s_addr = inet_addr("169.254.169.254");
            rc = ioctl(fd, SIOCSIFADDR, &ifr);
        }
    }
    close(fd);
    return rc;
}

struct MetaOutcome {
    int rc_served, len_served;
    char value[128];
    char request[256];
    int rc_absent;
};

enum { CHILD_OK = 0, CHILD_NO_NETNS = 77, CHILD_SETUP_FAILED = 78 };

/* Runs in the forked child: its own network namespace, nothing but lo. */
int run_metadata_lookups(MetaOutcome* mo)
{
    if (unshare(CLONE_NEWNET) != 0)
        return CHILD_NO_NETNS;
    if (setup_link_local_loopback() != 0)
        return CHILD_SETUP_FAILED;
    {
        TestResponder srv(TestResponder::once(ok_response(kBody19) + "\n"), false, "169.254.169.254", 80);
        if (!srv.ok())
            return CHILD_SETUP_FAILED;
        mo->len_served = 127;
        mo->rc_served = get_meta_value_by_key("instance-id", mo->value, &mo->len_served);
        snprintf(mo->request, sizeof(mo->request), "%s", srv.request().c_str());
    }
    int len = 127;
    char value[128] = { 0 };
    mo->rc_absent = get_meta_value_by_key("instance-id", value, &len);   /* nothing on port 80 now */
    return CHILD_OK;
}

} /* namespace */

TEST(MetaData, LooksUpInstanceIdInPrivateNamespace)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        MetaOutcome mo;
        memset(&mo, 0, sizeof(mo));
        alarm(60);
        close(fds[0]);
        int status = run_metadata_lookups(&mo);
        if (write(fds[1], &mo, sizeof(mo)) != (ssize_t)sizeof(mo))
            status = CHILD_SETUP_FAILED;
        _exit(status);
    }
    close(fds[1]);
    MetaOutcome mo;
    memset(&mo, 0, sizeof(mo));
    ssize_t got = read(fds[0], &mo, sizeof(mo));
    close(fds[0]);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status)) << "child ended by signal " << WTERMSIG(status);
    if (WEXITSTATUS(status) == CHILD_NO_NETNS)
        GTEST_SKIP() << "cannot create a network namespace here (unshare CLONE_NEWNET refused)";
    ASSERT_EQ(WEXITSTATUS(status), CHILD_OK) << "namespace set-up failed";
    ASSERT_EQ(got, (ssize_t)sizeof(mo));

    EXPECT_EQ(mo.rc_served, 0);
    EXPECT_EQ(mo.len_served, 19);
    EXPECT_EQ(std::string(mo.value), kBody19);
    EXPECT_EQ(std::string(mo.request),
              "GET /latest/meta-data/instance-id HTTP/1.0\r\nUser-Agent: kvx/1.0\r\nAccept: */*\r\n\r\n");
    EXPECT_EQ(mo.rc_absent, -1);
}

TEST(MetaData, NullKeyIsRejected)
{
    int len = 8;
    char value[8];
    EXPECT_EQ(get_meta_value_by_key(NULL, value, &len), -1);
}
