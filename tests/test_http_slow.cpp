/*
 * test_http_slow.cpp - a server that accepts the request and never answers:
 * the client waits out ten retries of its 5-second receive time-out (about
 * 55 seconds) and gives up with -4.
 */
#include <gtest/gtest.h>

#include <chrono>

#include "httpclient.h"
#include "test_http_responder.h"

TEST(HttpGetSlow, SilentServerGivesUpAfterTenRetries)
{
    TestResponder srv({}, true);
    ASSERT_TRUE(srv.ok());

    char out[32];
    int outlen = sizeof(out);
    auto start = std::chrono::steady_clock::now();
    int rc = http_get("127.0.0.1", srv.port(), "/latest/meta-data/instance-id", out, &outlen);
    auto secs = std::chrono::duration_cast<std::chrono::seconds>(
        std::chrono::steady_clock::now() - start).count();

    EXPECT_EQ(rc, -4);
    EXPECT_GE(secs, 54);   /* eleven receive time-outs of 5 s */
    EXPECT_LE(secs, 70);
    EXPECT_EQ(outlen, (int)sizeof(out));
}
