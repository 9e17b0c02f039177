/*
 * test_http_slow.cpp - a server that takes the connection and never answers:
 * the client waits out eleven 5-second receive time-outs and gives up.  A
 * metadata service that trickles its answer is given up at the lookup's
 * 60-second deadline.
 */
#include <gtest/gtest.h>

#include <time.h>

#include "metadata_testkit.h"
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
    /* each byte comes well within the 5-second receive time-out */
    long long start = zel_now_ms();
    std::string got = meta::lookup({{"HTTP/1.0 200 OK\r\nX-Pad: " + std::string(9000, 'x'), "", true}});
    long long took = zel_now_ms() - start;
    if (got == "SKIP")
        GTEST_SKIP() << "no network namespace with its own 169.254.169.254 here";
    EXPECT_EQ("-4 ", got);
    EXPECT_TRUE(took >= 59900 && took < 65000) << took;
}
