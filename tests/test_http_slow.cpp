/*
 * test_http_slow.cpp - a server that takes the connection and never answers:
 * the client waits out eleven 5-second receive time-outs and gives up.
 */
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <time.h>
#include <unistd.h>

#include "httpclient.h"

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
