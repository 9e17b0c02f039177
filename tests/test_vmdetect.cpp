/*
 * test_vmdetect.cpp - VM and socket probes on crafted BIOS images, SMBIOS
 * tables, cpuinfo texts and random bytes; GUID text.
 */
#include <gtest/gtest.h>

#include <string.h>

#include <random>
#include <regex>
#include <string>
#include <vector>

#include "kvxuuid.h"
#include "vmdetect.h"

namespace {

/* Checksums right; names a table of 0x0BCD bytes at 0xF5AB0, 57 structures. */
const u8 kEntry[31] = { '_', 'S', 'M', '_', 0x79, 31, 2, 8, 0, 0, 0, 0, 0, 0, 0, 0,
                        '_', 'D', 'M', 'I', '_', 0x3E, 0xCD, 0x0B, 0xB0, 0x5A, 0x0F, 0, 57 };

/* Structure: type, manufacturer string number, strings. */
struct Dmi { u8 type, mf; std::vector<std::string> strings; };

std::vector<u8> dmi_table(const std::vector<Dmi>& structs)
{
    std::vector<u8> t;
    for (const Dmi& s : structs) {
        const u8 head[8] = { s.type, 8, 0, 0, s.mf, 0, 0, 0 };
        t.insert(t.end(), head, head + 8);
        for (const std::string& str : s.strings)
            t.insert(t.end(), str.c_str(), str.c_str() + str.size() + 1);
        t.insert(t.end(), s.strings.empty() ? 2 : 1, 0);
    }
    return t;
}

/* get_manufacturer over an exact-size heap copy (ASan sees any overrun):
 * the name, or "" when it fails. */
std::string manufacturer_of(std::vector<u8> t, int ne)
{
    t.shrink_to_fit();
    dmi_table_info info = { t.empty() ? NULL : t.data(), (int)t.size(), ne };
    u8 out[128];
    return get_manufacturer(&info, out) == 0 ? std::string((const char*)out) : "";
}

} /* namespace */

TEST(SmbiosEntry, OnlyAnIntactFirstAnchorIsTaken)
{
    const struct { const char* name; size_t off; void (*spoil)(u8*); int want; } cases[] = {
        { "valid", 0x5A30, [](u8*) {}, 0x5A30 },
        { "length byte 30", 0x100, [](u8* ep) { ep[5] = 30; ep[4]++; }, -1 },
        { "length byte past the image", 0xFFE0, [](u8* ep) { ep[5] = 0xFF; ep[4] -= 0xE0; }, -1 },
        { "bad checksum", 0x100, [](u8* ep) { ep[4]++; }, -1 },
        { "missing _DMI_", 0x100, [](u8* ep) { ep[17] = 'X'; ep[0x15] -= 'X' - 'D'; }, -1 },
        { "bad _DMI_ checksum", 0x100, [](u8* ep) { ep[0x15]++; ep[4]--; }, -1 },
        { "first anchor decides", 0x200, [](u8* ep) { memcpy(ep - 0x180, "_SM_", 4); }, -1 },
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<u8> image(0x10000, 0);
        memcpy(&image[c.off], kEntry, sizeof(kEntry));
        c.spoil(&image[c.off]);
        smbios_entry ep = {};
        ASSERT_EQ(smbios_find_entry(image.data(), image.size(), &ep), c.want);
        EXPECT_TRUE(c.want < 0 || (ep.len == 0x0BCD && ep.addr == 0xF5AB0 && ep.ne == 57));
    }
}

TEST(SmbiosTable, ManufacturerAndVirtualPlatformNames)
{
    const std::string long_name(200, 'M');
    const struct { const char* name; std::vector<Dmi> t; int ne; std::string mf; } cases[] = {
        { "type 1 after BIOS", { { 0, 1, { "AMI" } }, { 1, 1, { "VMware, Inc.", "VMware7,1" } },
                                 { 127, 0, {} } }, 3, "VMware, Inc." },
        { "second string", { { 1, 2, { "Standard PC", "QEMU" } }, { 127, 0, {} } }, 2, "QEMU" },
        { "type 1 last structure not seen", { { 0, 1, { "AMI" } }, { 1, 1, { "Red Hat" } } }, 2, "" },
        { "count stops the walk", { { 0, 1, { "AMI" } }, { 3, 1, { "case" } }, { 1, 1, { "Xen" } },
                                    { 127, 0, {} } }, 2, "" },
        { "string number past the set", { { 1, 3, { "only one" } } }, 5, "" },
        { "200-byte string cut to 127", { { 1, 1, { long_name } }, { 127, 0, {} } }, 2,
          long_name.substr(0, 127) },
    };
    for (const auto& c : cases)
        EXPECT_EQ(manufacturer_of(dmi_table(c.t), c.ne), c.mf) << c.name;
    const struct { const char* mf; int vm; } names[] = {
        { "VMware, Inc.", 1 }, { "Xen", 1 }, { "Xen HVM", 0 }, { "Microsoft Corporation", 1 },
        { "Red Hat Enterprise", 1 }, { "QEMU", 0 }, { "vmware", 0 }, { "", 0 }, { NULL, 0 },
    };
    for (const auto& c : names)
        EXPECT_EQ(is_vm_manufacturer(c.mf), c.vm) << (c.mf ? c.mf : "(null)");
}

TEST(Probes, RandomBytesStayInBounds)
{
    std::mt19937 rng(77);
    for (int round = 0; round < 5000; round++) {
        std::vector<u8> junk(rng() % (round % 10 ? 96 : 5000));
        for (u8& b : junk)
            b = (u8)(rng() % 4 == 0 ? rng() % 3 : rng());
        smbios_entry ep;
        manufacturer_of(junk, (int)(rng() % 40));
        smbios_find_entry(junk.data(), junk.size(), &ep);
        cpuinfo_has_hypervisor((const char*)junk.data(), junk.size());
        cpuinfo_count_sockets((const char*)junk.data(), junk.size());
    }
}

TEST(Cpuinfo, HypervisorFlagAndSockets)
{
    const struct { const char* name; std::string text; int hyper, sockets; } cases[] = {
        { "two sockets", "processor\t: 0\nphysical id\t: 0\nflags\t\t: fpu hypervisor\nprocessor\t: 1\n"
          "physical id\t: 1\nflags\t\t: fpu hypervisor\nprocessor\t: 2\nphysical id\t: 1\n", 1, 2 },
        { "processors without physical id", "processor\t: 0\nflags\t\t: fpu\nprocessor\t: 1\n"
          "processor\t: 1\nmodel name\t: hypervisor\nFlags\t\t: hypervisor\n", 0, 2 },
        { "flag past 1023 bytes", "flags\t\t: " + std::string(1100, 'f') + " hypervisor\n", 0, 0 },
        { "last line without newline", "physical id\t: 0\nphysical id\t: 0", 0, 2 },
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(cpuinfo_has_hypervisor(c.text.data(), c.text.size()), c.hyper);
        EXPECT_EQ(cpuinfo_count_sockets(c.text.data(), c.text.size()), c.sockets);
    }
}

TEST(Guid, TextFormatAndFieldOrder)
{
    const std::regex form("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[0-9a-f]{4}-[0-9a-f]{12}");
    unsigned char g[16];
    char buf[37], prev[37] = "";
    for (int i = 0; i < 50; i++, memcpy(prev, buf, sizeof(buf))) {
        ASSERT_TRUE(genGUID(g) == 0 && strGUID(g, buf, sizeof(buf)) == 0);
        EXPECT_TRUE(std::regex_match(buf, form) && strcmp(buf, prev) != 0) << buf;
    }
    const unsigned char fixed[16] = { 0x12, 0x34, 0x56, 0x78, 0x9a, 0xbc, 0xde, 0xf0, 0x01, 0x23 };
    ASSERT_EQ(strGUID(fixed, buf, sizeof(buf)), 0);
    EXPECT_STREQ(buf, "12345678-9abc-def0-0123-000000000000");
    EXPECT_TRUE(strGUID(fixed, buf, 36) == -1 && strGUID(NULL, buf, 37) == -1 && genGUID(NULL) == 0);
}
