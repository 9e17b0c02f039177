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
    std::string why = meta::enter_private_netns();
    if (!why.empty())
        GTEST_SKIP() << why;
    /* each byte comes well within the 5-second receive time-out, all of them in 95 s */
    pid_t server = meta::serve({{"HTTP/1.0 200 OK\r\nX-Pad: " + std::string(450, 'x'), "", true}});
    char value[128];
    int len = 127;
    long long start = zel_now_ms();
    EXPECT_EQ(-4, get_meta_value_by_key("instance-id", value, &len));
    long long took = zel_now_ms() - start;
    meta::stop(server);
    EXPECT_TRUE(took >= 59900 && took < 65000) << took;
}
