/*
 * test_http_slow.cpp - a server that takes the connection and never answers:
 * the client waits out eleven 5-second receive time-outs and gives up.  A
 * metadata service that trickles a byte every 4 seconds is given up at the
 * lookup's 60-second deadline.
 */
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <sched.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <thread>

#include "httpclient.h"
#include "zelcommon.h"

TEST(HttpGetSlow, SilentServerGivesUpAfterTenRetries)
{
    struct sockaddr_in sa = { AF_INET, 0, { htonl(INADDR_LOOPBACK) }, {} };
    socklen_t n = sizeof(sa);
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(fd, (struct sockaddr*)&sa, n) | listen(fd, 1) |   /* never accepted */
              getsockname(fd, (struct sockaddr*)&sa, &n), 0);
    char out[32];
    int outlen = sizeof(out);
    time_t start = time(NULL);
    EXPECT_EQ(http_get("127.0.0.1", ntohs(sa.sin_port), "/", out, &outlen), -4);
    EXPECT_TRUE(time(NULL) - start >= 54 && time(NULL) - start <= 70) << time(NULL) - start;
    EXPECT_EQ(outlen, (int)sizeof(out));
    close(fd);
}

TEST(MetaDataSlow, TricklingServiceEndsAtTheDeadline)
{
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        alarm(120);
        if (unshare(CLONE_NEWNET) != 0 ||
            system("ip link set lo up && ip addr add 169.254.169.254/32 dev lo") != 0)
            _exit(77);
        struct sockaddr_in sa = { AF_INET, htons(80), { inet_addr("169.254.169.254") }, {} };
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        if (bind(fd, (struct sockaddr*)&sa, sizeof(sa)) | listen(fd, 1))
            _exit(78);
        std::thread([fd] {   /* every byte comes well within the 5-second receive time-out */
            for (int c = accept(fd, NULL, NULL); send(c, "H", 1, MSG_NOSIGNAL) == 1;)
                sleep(4);
        }).detach();
        char value[128];
        int len = 127;
        long long start = zel_now_ms();
        int rc = get_meta_value_by_key("instance-id", value, &len);
        long long took = zel_now_ms() - start;
        _exit(rc == -4 && took >= 59900 && took < 65000 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 77)
        GTEST_SKIP() << "no network namespace with its own 169.254.169.254 here";
    EXPECT_EQ(status, 0);
}
