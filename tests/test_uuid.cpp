/*
 * test_uuid.cpp - GUIDs from the kernel's UUID source.
 */
#include <gtest/gtest.h>

#include <ctype.h>
#include <string.h>

#include <string>

#include "kvxuuid.h"

namespace {

bool is_guid_text(const std::string& s)
{
    if (s.size() != 36)
        return false;
    for (size_t i = 0; i < s.size(); i++) {
        bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? s[i] != '-' : !(isdigit((unsigned char)s[i]) || (s[i] >= 'a' && s[i] <= 'f')))
            return false;
    }
    return true;
}

std::string guid_text()
{
    unsigned char g[16];
    char buf[64];
    if (genGUID(g) != 0 || strGUID(g, buf, sizeof(buf)) != 0)
        return "";
    return buf;
}

} /* namespace */

TEST(Guid, TextIsThirtySixLowerCaseHexCharacters)
{
    for (int i = 0; i < 50; i++) {
        std::string s = guid_text();
        SCOPED_TRACE(s);
        EXPECT_TRUE(is_guid_text(s));
        EXPECT_EQ(s[14], '4');   /* the kernel's random (version 4) UUIDs survive the round trip */
    }
}

TEST(Guid, TwoGuidsDiffer)
{
    EXPECT_NE(guid_text(), guid_text());
}

TEST(Guid, PackUnpackRoundTripAndByteOrder)
{
    uuid u;
    ASSERT_EQ(get_uuid(&u), 0);
    unsigned char packed[16];
    uuid_pack(&u, packed);
    uuid back;
    uuid_unpack(packed, &back);
    EXPECT_EQ(back.time_low, u.time_low);
    EXPECT_EQ(back.time_mid, u.time_mid);
    EXPECT_EQ(back.time_hi_and_version, u.time_hi_and_version);
    EXPECT_EQ(back.clock_seq, u.clock_seq);
    EXPECT_EQ(memcmp(back.node, u.node, 6), 0);

    const unsigned char fixed[16] = { 0x12, 0x34, 0x56, 0x78, 0x9a, 0xbc, 0xde, 0xf0,
                                      0x01, 0x23, 0, 0, 0, 0, 0, 0 };
    uuid_unpack(fixed, &u);
    EXPECT_EQ(u.time_low, 0x12345678u);
    EXPECT_EQ(u.time_mid, 0x9abc);
    EXPECT_EQ(u.time_hi_and_version, 0xdef0);
    EXPECT_EQ(u.clock_seq, 0x0123);
    char buf[37];
    ASSERT_EQ(strGUID(fixed, buf, sizeof(buf)), 0);
    EXPECT_STREQ(buf, "12345678-9abc-def0-0123-000000000000");
}

TEST(Guid, RejectsNullAndShortBuffers)
{
    unsigned char g[16] = { 0 };
    char buf[64];
    EXPECT_EQ(genGUID(NULL), 0);
    EXPECT_EQ(strGUID(g, buf, 36), -1);
    EXPECT_EQ(strGUID(NULL, buf, sizeof(buf)), -1);
    EXPECT_EQ(strGUID(g, NULL, 64), -1);
    EXPECT_EQ(get_uuid(NULL), -1);
}
