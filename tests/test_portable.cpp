/*
 * The portable agents (kvx_ea-static, and those of the other CPUs when
 * scripts/portable.sh copied them beside it): statically linked executables
 * of their architecture that start with no libraries on the node and answer
 * a ping end to end; another CPU's agent runs under qemu-user-static.
 */
#include <gtest/gtest.h>
#include <errno.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>
#include <filesystem>
#include "agent_harness.h"

namespace {

struct PortableAgent {
    const char *name, *elf;   /* file in the build's bin dir; what file(1) says of its architecture */
    bool optional;            /* skipped when it was not built */
    const char *qemu, *label; /* the emulator that runs it here, null: natively */
};

/* ctest and GoogleTest show the agent's file name, not the record's bytes */
void PrintTo(const PortableAgent& a, std::ostream* os) { *os << a.name; }

const PortableAgent kAgents[] = {
    {"kvx_ea-static", "ELF 64-bit LSB executable, x86-64", false, nullptr, "Static"},
    {"kvx_ea-i386", "ELF 32-bit LSB executable, Intel 80386", true, nullptr, "I386"},
    {"kvx_ea-aarch64", "ELF 64-bit LSB executable, ARM aarch64", true, "/usr/bin/qemu-aarch64-static", "Aarch64"},
    {"kvx_ea-ppc64le", "ELF 64-bit LSB executable, 64-bit PowerPC", true, "/usr/bin/qemu-ppc64le-static", "Ppc64le"},
    {"kvx_ea-s390x", "ELF 64-bit MSB executable, IBM S/390", true, "/usr/bin/qemu-s390x-static", "S390x"},
};

std::string run_text(const std::string& cmd)
{
    std::string out;
    FILE* p = popen((cmd + " 2>&1").c_str(), "r");
    char buf[512];
    for (size_t n; p && (n = fread(buf, 1, sizeof(buf), p)) > 0;)
        out.append(buf, n);
    if (p)
        pclose(p);
    return out;
}

class Portable : public ::testing::TestWithParam<PortableAgent> {
protected:
    void SetUp() override
    {
        path = std::string(KVX_BIN_DIR) + "/" + GetParam().name;
        if (access(path.c_str(), X_OK) != 0) {
            if (GetParam().optional)
                GTEST_SKIP() << path << " not built: scripts/portable.sh builds it and copies it there";
            FAIL() << path << " missing";
        }
        if (GetParam().qemu && access(GetParam().qemu, X_OK) != 0)
            GTEST_SKIP() << GetParam().qemu << " missing: scripts/setup.sh --cross installs it";
        /* a root holding nothing but a copy of the agent, named kvx_ea, and the (static) emulator, named qemu */
        char tmpl[] = "/tmp/kvxportable.XXXXXX";
        ASSERT_TRUE(mkdtemp(tmpl));
        dir = tmpl;
        namespace fs = std::filesystem;
        fs::copy_file(path, dir + "/kvx_ea");
        if (GetParam().qemu)
            fs::copy_file(GetParam().qemu, dir + "/qemu");
        fs::create_directory(dir + "/work");
    }
    void TearDown() override
    {
        std::error_code ec;
        if (!dir.empty())
            std::filesystem::remove_all(dir, ec);
    }
    std::string path, dir;
};

/* An empty root has no loader and no libraries: only a static agent serves there (exit 0 at end of input). */
TEST_P(Portable, IsStaticOfItsArchitectureAndServesInAnEmptyRoot)
{
    std::string what = run_text("file -b '" + path + "'");
    EXPECT_NE(what.find(GetParam().elf), std::string::npos) << what;
    EXPECT_NE(what.find("statically linked"), std::string::npos) << what;
    if (geteuid() != 0)
        GTEST_SKIP() << "chroot needs root";
    std::string agent = GetParam().qemu ? "/qemu /kvx_ea" : "/kvx_ea";
    EXPECT_EQ(0, system(("timeout -s KILL 10 /usr/sbin/chroot '" + dir + "' " + agent +
                         " --targetworkdir /work </dev/null >/dev/null 2>&1").c_str()));
}

/* Ping (the 32-bit clock), then the activity log when the file has grown
 * past 2 GB: its head is answered and the file removed, as on a 64-bit node. */
TEST_P(Portable, AnswersPingAndReadsAnActivityLogOverTwoGigabytes)
{
    /* each case names its agent and emulator: the harness reads them when made and when started */
    setenv("KVX_EA_BINARY", (dir + "/kvx_ea").c_str(), 1);
    setenv("KVX_EA_EMULATOR", GetParam().qemu ? GetParam().qemu : "", 1);
    AgentHarness h;
    std::string act = h.work_dir + "/logs/linuxkvxactivity.log";
    const char line[] = "2026-11-21 10:00:00 1 1 portable\n";
    mkdir((h.work_dir + "/logs").c_str(), 0755);
    AgentHarness::write_file(act, line);
    ASSERT_EQ(truncate(act.c_str(), 3LL << 30), 0) << strerror(errno);
    ASSERT_TRUE(h.start());

    const char text[] = "portable \xc3\xa9";
    PINGargs a = {(int)sizeof(text), (char*)text, false};
    char buf[EA_ACT_LOG_SIZE] = {0};
    PINGres r = {0, EA_PING_MSG_SIZE, buf};
    ASSERT_EQ(h.call(EA_PROC_PING, JXDR_PROC(PINGargs, jxdr_PINGargs), (char*)&a,
                     JXDR_PROC(PINGres, jxdr_PINGres), (char*)&r), 0);
    EXPECT_STREQ(buf, text);
    EXPECT_LE(llabs((long long)r.stamp - (long long)time(NULL)), 5);

    memset(buf, 0, sizeof(buf));
    AGENTLOGres l = {(int)sizeof(buf), buf};
    ASSERT_EQ(h.call(EA_PROC_AGENTLOG, jxdr_Noargs, NULL, JXDR_PROC(AGENTLOGres, jxdr_AGENTLOGres), (char*)&l), 0);
    EXPECT_STREQ(buf, line);
    h.close_input();
    EXPECT_EQ(h.wait_exit(20), 0);
    EXPECT_FALSE(AgentHarness::exists(act));
}

/* The simulated backup program goes to the nodes with the demo: static too,
 * the build machine's and those of the other CPUs that were built. */
TEST(PortableSimulator, IsStatic)
{
    for (const char* cpu : {"", "-i386", "-aarch64", "-ppc64le", "-s390x"}) {
        std::string path = std::string(KVX_BIN_DIR) + "/kvxbackupvol-sim" + cpu;
        if (*cpu && access(path.c_str(), X_OK) != 0)
            continue;
        std::string what = run_text("file -b '" + path + "'");
        EXPECT_NE(what.find("statically linked"), std::string::npos) << path << ": " << what;
    }
}

INSTANTIATE_TEST_SUITE_P(Agents, Portable, ::testing::ValuesIn(kAgents),
                         [](const ::testing::TestParamInfo<PortableAgent>& i) { return std::string(i.param.label); });

} // namespace
