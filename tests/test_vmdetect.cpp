/*
 * test_vmdetect.cpp - the VM and socket probes on crafted inputs: SMBIOS
 * entry points in a 64 KiB BIOS image, structure tables, manufacturer
 * names and /proc/cpuinfo texts; and the readers on this host.
 */
#include <gtest/gtest.h>

#include <string.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "vmdetect.h"

namespace {

const size_t kArea = 0x10000;

/* A valid SMBIOS 2.x entry point of eplen bytes at image[off]. */
void put_entry(std::vector<u8>& image, size_t off, u8 eplen = 31, u16 tlen = 0x1234,
               u32 addr = 0x000E1000, u16 ne = 42)
{
    u8* ep = &image[off];
    memset(ep, 0, eplen);
    memcpy(ep, "_SM_", 4);
    ep[5] = eplen;
    ep[6] = 2;
    ep[7] = 8;
    memcpy(ep + 16, "_DMI_", 5);
    ep[0x16] = (u8)tlen;
    ep[0x17] = (u8)(tlen >> 8);
    for (int i = 0; i < 4; i++)
        ep[0x18 + i] = (u8)(addr >> (8 * i));
    ep[0x1C] = (u8)ne;
    ep[0x1D] = (u8)(ne >> 8);
    u8 sum = 0;
    for (int i = 16; i < 31; i++)
        sum = (u8)(sum + ep[i]);
    ep[0x15] = (u8)(0 - sum);
    sum = 0;
    for (int i = 0; i < eplen; i++)
        sum = (u8)(sum + ep[i]);
    ep[4] = (u8)(0 - sum);
}

/* Re-balances the entry point checksum after a deliberate change. */
void fix_checksum(std::vector<u8>& image, size_t off)
{
    u8* ep = &image[off];
    u8 sum = 0;
    ep[4] = 0;
    for (int i = 0; i < ep[5] && off + i < image.size(); i++)
        sum = (u8)(sum + ep[i]);
    ep[4] = (u8)(0 - sum);
}

/* Appends one structure: type, formatted area of fmt_len bytes with the
 * manufacturer string number at offset 4, then the string set. */
void add_struct(std::vector<u8>& t, u8 type, u8 mf_num, const std::vector<std::string>& strings,
                u8 fmt_len = 8)
{
    std::vector<u8> s(fmt_len, 0);
    s[0] = type;
    s[1] = fmt_len;
    if (fmt_len > 4)
        s[4] = mf_num;
    t.insert(t.end(), s.begin(), s.end());
    for (const std::string& str : strings) {
        t.insert(t.end(), str.begin(), str.end());
        t.push_back(0);
    }
    if (strings.empty())
        t.push_back(0);
    t.push_back(0);
}

/* get_manufacturer over an exact-size heap copy of the table. */
int manufacturer_of(const std::vector<u8>& table, int ne, std::string* mf)
{
    std::unique_ptr<u8[]> copy(new u8[table.size() ? table.size() : 1]);
    if (!table.empty())
        memcpy(copy.get(), table.data(), table.size());
    dmi_table_info info = { copy.get(), (int)table.size(), ne };
    u8 out[128];
    memset(out, 0xAA, sizeof(out));
    int rc = get_manufacturer(&info, out);
    if (rc == 0 && mf != NULL)
        *mf = std::string((const char*)out);
    return rc;
}

} /* namespace */

/* ---- entry point scan ---- */

TEST(SmbiosEntry, FindsValidEntryAtSixteenByteBoundary)
{
    std::vector<u8> image(kArea, 0);
    put_entry(image, 0x5A30, 31, 0x0BCD, 0x000F5AB0, 57);

    smbios_entry ep = {};
    EXPECT_EQ(smbios_find_entry(image.data(), image.size(), &ep), 0x5A30);
    EXPECT_EQ(ep.len, 0x0BCD);
    EXPECT_EQ(ep.addr, 0x000F5AB0u);
    EXPECT_EQ(ep.ne, 57);
}

TEST(SmbiosEntry, RejectsBrokenEntryPoints)
{
    const struct {
        const char* name;
        size_t off;
        void (*spoil)(std::vector<u8>&, size_t);
        int want;   /* offset found, or -1 */
    } cases[] = {
        { "intact, longer entry point", 0x100, [](std::vector<u8>& im, size_t o) {
              put_entry(im, o, 40); }, 0x100 },
        { "last boundary with room", 0xFFE0, [](std::vector<u8>&, size_t) {}, 0xFFE0 },
        { "not on a boundary", 0x108, [](std::vector<u8>&, size_t) {}, -1 },
        { "length byte 30", 0x100, [](std::vector<u8>& im, size_t o) {
              im[o + 5] = 30; fix_checksum(im, o); }, -1 },
        { "bad checksum", 0x100, [](std::vector<u8>& im, size_t o) { im[o + 4]++; }, -1 },
        { "_DMI_ missing", 0x100, [](std::vector<u8>& im, size_t o) {
              im[o + 17] = 'X'; im[o + 0x15] -= 'X' - 'D'; fix_checksum(im, o); }, -1 },
        { "bad intermediate checksum", 0x100, [](std::vector<u8>& im, size_t o) {
              im[o + 0x15]++; fix_checksum(im, o); }, -1 },
        { "length byte past the image", 0xFFE0, [](std::vector<u8>& im, size_t o) {
              im[o + 5] = 0xFF; }, -1 },
        { "first anchor decides", 0x200, [](std::vector<u8>& im, size_t) {
              memcpy(&im[0x80], "_SM_", 4); }, -1 },
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<u8> image(kArea, 0);
        if (c.off % 16 == 0) {
            put_entry(image, c.off);
        } else {
            std::vector<u8> aligned(kArea, 0);
            put_entry(aligned, c.off & ~(size_t)15);
            memcpy(&image[c.off], &aligned[c.off & ~(size_t)15], 31);
        }
        c.spoil(image, c.off);
        smbios_entry ep = {};
        EXPECT_EQ(smbios_find_entry(image.data(), image.size(), &ep), c.want);
    }
}

TEST(SmbiosEntry, NoAnchorOrTinyImage)
{
    std::vector<u8> image(kArea, 0);
    smbios_entry ep = {};
    EXPECT_EQ(smbios_find_entry(image.data(), image.size(), &ep), -1);
    EXPECT_EQ(smbios_find_entry(image.data(), 31, &ep), -1);
    EXPECT_EQ(smbios_find_entry(NULL, kArea, &ep), -1);
}

/* ---- structure walk ---- */

TEST(SmbiosTable, NextEntrySkipsFormattedAreaAndStrings)
{
    std::vector<u8> t;
    add_struct(t, 0, 1, { "BIOS vendor", "1.0" });
    size_t second = t.size();
    add_struct(t, 1, 1, {});
    size_t third = t.size();
    add_struct(t, 127, 0, {}, 4);

    dmi_table_info info = { t.data(), (int)t.size(), 3 };
    u8* p = next_entry(&info, t.data());
    ASSERT_EQ(p, t.data() + second);
    p = next_entry(&info, p);
    ASSERT_EQ(p, t.data() + third);
    EXPECT_EQ(next_entry(&info, p), t.data() + t.size());
    EXPECT_EQ(next_entry(&info, t.data() + t.size()), nullptr);

    info.len = (int)t.size() - 1;   /* end-of-table marker cut off */
    EXPECT_EQ(next_entry(&info, t.data() + third), nullptr);
}

TEST(SmbiosTable, ManufacturerLookup)
{
    const std::string long_name(200, 'M');
    const struct {
        const char* name;
        std::vector<u8> table;
        int ne;
        int rc;
        std::string mf;
    } cases[] = {
        { "type 1 after BIOS", [] { std::vector<u8> t; add_struct(t, 0, 1, { "AMI" });
              add_struct(t, 1, 1, { "VMware, Inc.", "VMware7,1" }); add_struct(t, 127, 0, {}, 4);
              return t; }(), 3, 0, "VMware, Inc." },
        { "second string", [] { std::vector<u8> t;
              add_struct(t, 1, 2, { "Standard PC", "QEMU" }); add_struct(t, 127, 0, {}, 4);
              return t; }(), 2, 0, "QEMU" },
        { "string number 0 reads the first", [] { std::vector<u8> t;
              add_struct(t, 1, 0, { "Xen" }); add_struct(t, 127, 0, {}, 4); return t; }(), 2, 0, "Xen" },
        { "type 1 as the last structure", [] { std::vector<u8> t; add_struct(t, 0, 1, { "AMI" });
              add_struct(t, 1, 1, { "Red Hat" }); return t; }(), 2, -1, "" },
        { "count stops the walk", [] { std::vector<u8> t; add_struct(t, 0, 1, { "AMI" });
              add_struct(t, 3, 1, { "case" }); add_struct(t, 1, 1, { "Red Hat" });
              add_struct(t, 127, 0, {}, 4); return t; }(), 2, -1, "" },
        { "string number past the set", [] { std::vector<u8> t;
              add_struct(t, 1, 3, { "only one" }); return t; }(), 5, -1, "" },
        { "no type 1", [] { std::vector<u8> t; add_struct(t, 0, 1, { "AMI" });
              add_struct(t, 127, 0, {}, 4); return t; }(), 9, -1, "" },
        { "long string cut to 127", [&] { std::vector<u8> t;
              add_struct(t, 1, 1, { long_name }); add_struct(t, 127, 0, {}, 4); return t; }(),
          2, 0, long_name.substr(0, 127) },
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::string mf;
        EXPECT_EQ(manufacturer_of(c.table, c.ne, &mf), c.rc);
        EXPECT_EQ(mf, c.mf);
    }
}

TEST(SmbiosTable, TruncatedAndGarbageTablesStayInBounds)
{
    std::vector<u8> t;
    add_struct(t, 0, 1, { "American Megatrends", "2.3" });
    add_struct(t, 1, 1, { "Microsoft Corporation", "Virtual Machine" });
    add_struct(t, 127, 0, {}, 4);
    for (size_t cut = 0; cut <= t.size(); cut++) {
        SCOPED_TRACE(cut);
        std::vector<u8> part(t.begin(), t.begin() + (long)cut);
        std::string mf;
        int rc = manufacturer_of(part, 3, &mf);
        EXPECT_TRUE(rc == -1 || mf.rfind("Microsoft Corporation", 0) == 0 ||
                    std::string("Microsoft Corporation").rfind(mf, 0) == 0);
    }

    std::mt19937 rng(77);
    for (int round = 0; round < 5000; round++) {
        std::vector<u8> junk(rng() % 96);
        for (u8& b : junk)
            b = (u8)(rng() % 4 == 0 ? rng() % 3 : rng());
        manufacturer_of(junk, (int)(rng() % 40), NULL);
    }
}

/* ---- manufacturer table ---- */

TEST(Manufacturer, VirtualPlatformsByName)
{
    const struct { const char* mf; int vm; } cases[] = {
        { "VMware, Inc.", 1 },
        { "Xen", 1 },
        { "Xen HVM", 0 },
        { "Microsoft Corporation", 1 },
        { "Red Hat", 1 },
        { "Red Hat Enterprise", 1 },
        { "QEMU", 0 },
        { "vmware", 0 },
        { "Dell Inc.", 0 },
        { "", 0 },
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.mf);
        EXPECT_EQ(is_vm_manufacturer(c.mf), c.vm);
    }
    EXPECT_EQ(is_vm_manufacturer(NULL), 0);
}

/* ---- /proc/cpuinfo ---- */

namespace {

std::string cpuinfo_text(int processors, int sockets, const std::string& flags)
{
    std::ostringstream os;
    for (int i = 0; i < processors; i++) {
        os << "processor\t: " << i << "\nmodel name\t: Example CPU\n";
        if (sockets > 0)
            os << "physical id\t: " << i % sockets << "\n";
        os << "flags\t\t: " << flags << "\n\n";
    }
    return os.str();
}

} /* namespace */

TEST(Cpuinfo, HypervisorOnlyCountsInFlagsLines)
{
    const std::string long_flags = std::string(1100, 'f') + " hypervisor";
    const struct { const char* name; std::string text; int want; } cases[] = {
        { "flag present", cpuinfo_text(2, 1, "fpu vme hypervisor lahf_lm"), 1 },
        { "flag absent", cpuinfo_text(2, 1, "fpu vme lahf_lm"), 0 },
        { "named elsewhere", "model name\t: hypervisor edition\nflags\t\t: fpu\n", 0 },
        { "capitalised key", "Flags\t\t: hypervisor\n", 0 },
        { "past the first 1023 bytes of the line", "flags\t\t: " + long_flags + "\n", 0 },
        { "empty", "", 0 },
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(cpuinfo_has_hypervisor(c.text.data(), c.text.size()), c.want);
    }
}

TEST(Cpuinfo, SocketsFromPhysicalIdsElseProcessors)
{
    const struct { const char* name; std::string text; int want; } cases[] = {
        { "two sockets, sixteen processors", cpuinfo_text(16, 2, "fpu"), 2 },
        { "no physical id", cpuinfo_text(4, 0, "fpu"), 4 },
        { "repeated processor lines", "processor\t: 0\nprocessor\t: 0\nprocessor\t: 1\n", 2 },
        { "last line without newline", "physical id\t: 0\nphysical id\t: 0", 2 },
        { "empty", "", 0 },
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(cpuinfo_count_sockets(c.text.data(), c.text.size()), c.want);
    }
}

TEST(Cpuinfo, ArbitraryBytesStayInsideTheBuffer)
{
    std::mt19937 rng(99);
    for (int round = 0; round < 2000; round++) {
        size_t n = rng() % 5000;
        std::unique_ptr<char[]> buf(new char[n ? n : 1]);
        for (size_t i = 0; i < n; i++)
            buf[i] = rng() % 8 == 0 ? '\n' : (char)rng();
        cpuinfo_has_hypervisor(buf.get(), n);
        cpuinfo_count_sockets(buf.get(), n);
    }
}

/* ---- readers on this host ---- */

TEST(HostProbes, SocketCountMatchesCpuinfo)
{
    std::ifstream in("/proc/cpuinfo");
    ASSERT_TRUE(in.good());
    std::stringstream ss;
    ss << in.rdbuf();
    std::string text = ss.str();

    int socks = get_pv_sockets();
    EXPECT_EQ(socks, cpuinfo_count_sockets(text.data(), text.size()));
    EXPECT_GE(socks, 1);
    EXPECT_GE(fetch_cpu_socks(1), 1);
}

TEST(HostProbes, OracleUekFollowsKernelRelease)
{
    struct utsname u;
    ASSERT_EQ(uname(&u), 0);
    EXPECT_EQ(is_oracle_uek(), strcasestr(u.release, "uek") != NULL ? 1 : 0);
}

TEST(HostProbes, UnreadableDevMemIsAMissingTable)
{
    if (access("/dev/mem", R_OK) == 0)
        GTEST_SKIP() << "/dev/mem is readable here; the missing-table path needs it absent";
    dmi_table_info info = { (u8*)&info, 1, 1 };
    EXPECT_EQ(get_smbios_table(&info), -1);
    EXPECT_EQ(info.ptr, nullptr);
    EXPECT_EQ(detect_vm_by_bios(), 0);
}
