/*
 * Instance metadata with session tokens: the plain request goes first and a
 * token is fetched only after a 401.  Everything runs in a network namespace
 * of the test's own, where 169.254.169.254 lives on the private loopback.
 */
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "httpclient.h"
#include "zelcommon.h"

namespace {

struct Answer {
    const char* expect;   /* text the request must contain */
    std::string reply;    /* whole response */
    bool trickle;         /* sent a byte every 200 ms */
};

/* Serves one connection per answer on fd, appending each request to log. */
void serve(int fd, const std::vector<Answer>& answers, const std::string& log)
{
    for (const Answer& a : answers) {
        int c = accept(fd, NULL, NULL);
        if (c < 0)
            _exit(1);
        char req[2048] = "";
        ssize_t n = recv(c, req, sizeof(req) - 1, 0);
        FILE* f = fopen(log.c_str(), "a");
        fprintf(f, "%s%s====\n", n > 0 ? req : "", strstr(req, a.expect) ? "" : "UNEXPECTED\n");
        fclose(f);
        for (size_t at = 0; at < a.reply.size(); at += a.trickle ? 1 : a.reply.size()) {
            if (send(c, a.reply.data() + at, a.trickle ? 1 : a.reply.size(), MSG_NOSIGNAL) < 0)
                _exit(1);
            if (a.trickle)
                usleep(200000);
        }
        close(c);
    }
    _exit(0);
}

/* In a new network namespace: serve answers on 169.254.169.254:80 and look
 * up "instance-id" (within seconds, 0: the lookup's own deadline).  Returns
 * "rc value" as the child reports it; the child ends after 30 s at most. */
std::string lookup_in_netns(const std::vector<Answer>& answers, const std::string& log,
                            int seconds, bool* skipped)
{
    int p[2];
    if (pipe(p) != 0)
        return "pipe";
    pid_t pid = fork();
    if (pid == 0) {
        close(p[0]);
        if (unshare(CLONE_NEWNET) != 0 ||
            system("ip link set lo up && ip addr add 169.254.169.254/32 dev lo") != 0) {
            dprintf(p[1], "SKIP");
            _exit(0);
        }
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        struct sockaddr_in sa = {};
        sa.sin_family = AF_INET;
        sa.sin_port = htons(80);
        sa.sin_addr.s_addr = inet_addr("169.254.169.254");
        if (bind(fd, (struct sockaddr*)&sa, sizeof(sa)) != 0 || listen(fd, 4) != 0)
            _exit(1);
        pid_t server = fork();
        if (server == 0)
            serve(fd, answers, log);
        close(fd);
        char value[128] = "";
        int len = 127;
        alarm(30);
        int rc = seconds > 0 ? get_meta_value_within("instance-id", value, &len, seconds)
                             : get_meta_value_by_key("instance-id", value, &len);
        dprintf(p[1], "%d %.*s", rc, rc == 0 ? len : 0, value);
        kill(server, SIGKILL);
        waitpid(server, NULL, 0);
        _exit(0);
    }
    close(p[1]);
    char buf[256] = "";
    ssize_t n = read(p[0], buf, sizeof(buf) - 1);
    close(p[0]);
    waitpid(pid, NULL, 0);
    std::string out(buf, n > 0 ? (size_t)n : 0);
    *skipped = out == "SKIP";
    return out;
}

const char* const GET_V1 = "GET /latest/meta-data/instance-id HTTP/1.0\r\nUser-Agent: kvx/1.0\r\nAccept: */*\r\n\r\n";
const char* const OK_ID = "HTTP/1.0 200 OK\r\nContent-Length: 9\r\n\r\ni-0abc123";
const char* const UNAUTHORIZED = "HTTP/1.0 401 Unauthorized\r\nContent-Length: 0\r\n\r\n";

struct Case {
    const char* name;
    std::vector<Answer> answers;
    const char* result;           /* what the lookup reports */
    int requests;                 /* connections the node made */
    int seconds;                  /* the lookup's deadline (0: its own) */
};

/* A response that, a byte every 200 ms, would take 20 minutes. */
const std::string SLOW = "HTTP/1.0 200 OK\r\nContent-Length: 6000\r\n\r\n" + std::string(6000, 'x');

} /* namespace */

/* The token steps follow a plain request answered 401; a service that
 * trickles its answers is given up at the lookup's deadline, token step
 * included. */
TEST(MetadataToken, PlainRequestFirstAndTokenOnlyAfter401)
{
    char dir[] = "/tmp/kvxmeta.XXXXXX";
    ASSERT_TRUE(mkdtemp(dir));
    setenv("ZEL_LOG_BASE_DIR", dir, 1);
    const Case cases[] = {
        {"v1 answers", {{GET_V1, OK_ID}}, "0 i-0abc123", 1},
        {"not found is final", {{GET_V1, "HTTP/1.0 404 Not Found\r\n\r\n"}}, "-2 ", 1},
        {"token after 401",
         {{GET_V1, UNAUTHORIZED},
          {"PUT /latest/api/token HTTP/1.0\r\nUser-Agent: kvx/1.0\r\nAccept: */*\r\n"
           "X-aws-ec2-metadata-token-ttl-seconds: 60\r\n\r\n",
           "HTTP/1.0 200 OK\r\nContent-Length: 8\r\n\r\nTOKEN123"},
          {"GET /latest/meta-data/instance-id HTTP/1.0\r\nUser-Agent: kvx/1.0\r\nAccept: */*\r\n"
           "X-aws-ec2-metadata-token: TOKEN123\r\n\r\n", OK_ID}},
         "0 i-0abc123", 3},
        {"token refused", {{GET_V1, UNAUTHORIZED}, {"PUT /latest/api/token", "HTTP/1.0 403 Forbidden\r\n\r\n"}},
         "-2 ", 2},
        {"trickling answer", {{GET_V1, SLOW, true}}, "-4 ", 1, 2},
        {"trickling token", {{GET_V1, UNAUTHORIZED}, {"PUT /latest/api/token", SLOW, true}}, "-4 ", 2, 2},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::string log = std::string(dir) + "/requests";
        unlink(log.c_str());
        bool skipped = false;
        long long start = zel_now_ms();
        std::string got = lookup_in_netns(c.answers, log, c.seconds, &skipped);
        long long took = zel_now_ms() - start;
        if (skipped)
            GTEST_SKIP() << "cannot make a network namespace with its own 169.254.169.254 here";
        EXPECT_EQ(c.result, got);
        if (c.seconds > 0) {
            EXPECT_TRUE(took >= c.seconds * 1000 - 50 && took < c.seconds * 1000 + 5000) << took;
        }
        FILE* f = fopen(log.c_str(), "r");
        std::string seen;
        char line[512];
        while (f && fgets(line, sizeof(line), f))
            seen += line;
        if (f)
            fclose(f);
        EXPECT_EQ(std::string::npos, seen.find("UNEXPECTED")) << seen;
        size_t requests = 0;
        for (size_t at = seen.find("====\n"); at != std::string::npos; at = seen.find("====\n", at + 1))
            requests++;
        EXPECT_EQ((size_t)c.requests, requests) << seen;
    }
    std::string logged;
    FILE* f = fopen((std::string(dir) + "/logs/kvx.log").c_str(), "r");
    char line[1024];
    while (f && fgets(line, sizeof(line), f))
        logged += line;
    if (f)
        fclose(f);
    EXPECT_NE(std::string::npos, logged.find("Get meta data token successfully"));
    EXPECT_EQ(std::string::npos, logged.find("TOKEN123")) << "the session token is a secret";
    system((std::string("rm -rf ") + dir).c_str());
}
