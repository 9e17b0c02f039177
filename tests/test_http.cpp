/*
 * test_http.cpp - the HTTP client against a one-connection server on
 * 127.0.0.1; the metadata lookup inside the test's own network namespace.
 */
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <poll.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "httpclient.h"

namespace {

const std::string kBody = "i-0123456789abcdef0";
const std::string kRequest = "GET /latest/meta-data/instance-id HTTP/1.0\r\n"
                             "User-Agent: kvx/1.0\r\nAccept: */*\r\n\r\n";

std::string ok(const std::string& body)
{
    return "HTTP/1.0 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

/* One connection: reads the request, answers in two pieces 20 ms apart, closes. */
struct Server {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), port = 0;
    std::string request;
    std::thread th;

    Server(const std::string& response, const char* addr = "127.0.0.1", int p = 0)
    {
        struct sockaddr_in sa = { AF_INET, htons((uint16_t)p), { inet_addr(addr) }, {} };
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
        { "200 with Content-Length", ok(kBody), 64, 0, kBody },
        { "extra bytes dropped", ok(kBody) + "TRAILING", 64, 0, kBody },
        { "200 without Content-Length is empty", "HTTP/1.0 200 OK\r\n\r\nignored", 64, 0, "" },
        { "outlen cuts the copy", ok(kBody), 10, 0, kBody.substr(0, 10) },
        { "no output buffer", ok(kBody), -1, 0, "" },
        { "404", "HTTP/1.0 404 Not Found\r\nContent-Length: 3\r\n\r\nnop", 64, -2, "" },
        { "unreadable status line", "HTTP/1.0\r\n\r\n", 64, -2, "" },
        { "closed before the body", ok(kBody).substr(0, 45), 64, -4, "" },
        { "closed with nothing sent", "", 64, -4, "" },
        { "larger than the client's buffer", ok(std::string(9000, 'b')), 64, -4, "" },
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
        Server srv(ok(kBody));
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

TEST(MetaData, InstanceIdInsideOwnNetworkNamespace)
{
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        char value[128] = "";
        int len = 127;
        alarm(60);
        if (unshare(CLONE_NEWNET) != 0)
            _exit(77);
        if (system("ip link set lo up && ip addr add 169.254.169.254/32 dev lo") != 0)
            _exit(78);
        Server* srv = new Server(ok(kBody) + "\n", "169.254.169.254", 80);
        int rc = get_meta_value_by_key("instance-id", value, &len);
        srv->wait();
        int bad = (rc != 0 || len != 19 || kBody != value) | (srv->request != kRequest) << 1;
        delete srv;   /* nothing listens on port 80 any more */
        bad |= (get_meta_value_by_key("instance-id", value, &len) != -1) << 2;
        bad |= (get_meta_value_by_key(NULL, value, &len) != -1) << 3;
        _exit(bad);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 77)
        GTEST_SKIP() << "unshare(CLONE_NEWNET) refused";
    EXPECT_EQ(status, 0) << "exit bits: 1 value, 2 request, 4 nothing listening, 8 null key";
}
