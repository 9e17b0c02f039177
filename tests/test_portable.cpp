/*
 * The portable agents (kvx_ea-static, and those of the other CPUs when
 * scripts/portable.sh copied them beside it): statically linked executables
 * of their architecture that start with no libraries on the node and answer
 * a ping end to end; another CPU's agent runs under qemu-user-static.
 */
#include <gtest/gtest.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <string>
#include "agent_harness.h"

namespace {

struct PortableAgent {
    const char* name;       /* file in the build's bin dir */
    const char* elf;        /* what file(1) says about the architecture */
    bool        optional;   /* skipped when it was not built */
    const char* qemu;       /* the emulator that runs it here, null: natively */
    const char* label;
};

/* ctest and GoogleTest show the agent's file name, not the record's bytes */
void PrintTo(const PortableAgent& a, std::ostream* os) { *os << a.name; }

const PortableAgent kAgents[] = {
    {"kvx_ea-static",  "ELF 64-bit LSB executable, x86-64", false, nullptr, "Static"},
    {"kvx_ea-i386",    "ELF 32-bit LSB executable, Intel 80386", true, nullptr, "I386"},
    {"kvx_ea-aarch64", "ELF 64-bit LSB executable, ARM aarch64", true, "/usr/bin/qemu-aarch64-static",
     "Aarch64"},
    {"kvx_ea-ppc64le", "ELF 64-bit LSB executable, 64-bit PowerPC", true, "/usr/bin/qemu-ppc64le-static",
     "Ppc64le"},
    {"kvx_ea-s390x",   "ELF 64-bit MSB executable, IBM S/390", true, "/usr/bin/qemu-s390x-static",
     "S390x"},
};

std::string run_text(const std::string& cmd)
{
    std::string out;
    FILE* p = popen((cmd + " 2>&1").c_str(), "r");
    if (!p)
        return out;
    char buf[512];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), p)) > 0)
        out.append(buf, n);
    pclose(p);
    return out;
}

/* A directory holding nothing but a copy of the agent, named kvx_ea, and
 * the (static) emulator that runs it, named qemu. */
std::string bare_copy(const std::string& agent, const char* qemu)
{
    char tmpl[] = "/tmp/kvxportable.XXXXXX";
    if (!mkdtemp(tmpl))
        return "";
    std::string dir = tmpl;
    AgentHarness::write_file(dir + "/kvx_ea", AgentHarness::read_file(agent));
    chmod((dir + "/kvx_ea").c_str(), 0755);
    if (qemu) {
        AgentHarness::write_file(dir + "/qemu", AgentHarness::read_file(qemu));
        chmod((dir + "/qemu").c_str(), 0755);
    }
    return dir;
}

/* Runs dir/kvx_ea as "/kvx_ea --targetworkdir /work" inside chroot(dir), with
 * an input that ends at once; the exit status (127 when it could not be
 * executed), -1 when it did not end within 10 s. */
int serve_in_chroot(const std::string& dir, bool emulated)
{
    mkdir((dir + "/work").c_str(), 0755);
    int in[2];
    if (pipe(in) != 0)
        return -1;
    pid_t pid = fork();
    if (pid == 0) {
        int null_fd = open("/dev/null", O_RDWR);
        dup2(in[0], 0);
        dup2(null_fd, 1);
        dup2(null_fd, 2);
        close(in[1]);
        if (chroot(dir.c_str()) != 0 || chdir("/") != 0)
            _exit(125);
        if (emulated)
            execl("/qemu", "qemu", "/kvx_ea", "--targetworkdir", "/work", (char*)NULL);
        else
            execl("/kvx_ea", "kvx_ea", "--targetworkdir", "/work", (char*)NULL);
        _exit(127);
    }
    close(in[0]);
    close(in[1]);
    int st = 0;
    for (int i = 0; i < 200; i++) {
        if (waitpid(pid, &st, WNOHANG) == pid)
            return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
        usleep(50000);
    }
    kill(pid, SIGKILL);
    waitpid(pid, &st, 0);
    return -1;
}

class Portable : public ::testing::TestWithParam<PortableAgent> {
protected:
    void SetUp() override
    {
        path = std::string(KVX_BIN_DIR) + "/" + GetParam().name;
        if (access(path.c_str(), X_OK) != 0) {
            if (GetParam().optional)
                GTEST_SKIP() << path << " not built: scripts/portable.sh builds it "
                                        "and copies it there";
            FAIL() << path << " missing";
        }
        if (GetParam().qemu && access(GetParam().qemu, X_OK) != 0)
            GTEST_SKIP() << GetParam().qemu << " missing: scripts/setup.sh --cross installs it";
        dir = bare_copy(path, GetParam().qemu);
        ASSERT_FALSE(dir.empty());
    }
    void TearDown() override
    {
        if (!dir.empty())
            system(("rm -rf '" + dir + "'").c_str());
    }
    std::string path, dir;
};

TEST_P(Portable, IsStaticExecutableOfItsArchitecture)
{
    std::string what = run_text("file -b '" + path + "'");
    EXPECT_NE(what.find(GetParam().elf), std::string::npos) << what;
    EXPECT_NE(what.find("statically linked"), std::string::npos) << what;
    std::string deps = run_text("ldd '" + path + "'");
    EXPECT_TRUE(deps.find("not a dynamic executable") != std::string::npos ||
                deps.find("statically linked") != std::string::npos) << deps;
}

TEST_P(Portable, ServesInAnEmptyRoot)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "chroot needs root";
    EXPECT_EQ(serve_in_chroot(dir, GetParam().qemu != nullptr), 0)
        << "an empty root has no loader and no libraries";
}

/* Ping (the 32-bit clock), then the activity log when the file has grown
 * past 2 GB: its head is answered and the file removed, as on a 64-bit node. */
TEST_P(Portable, AnswersPingAndReadsAnActivityLogOverTwoGigabytes)
{
    const char* old = getenv("KVX_EA_BINARY");
    std::string saved = old ? old : "";
    setenv("KVX_EA_BINARY", (dir + "/kvx_ea").c_str(), 1);
    AgentHarness h;
    if (old)
        setenv("KVX_EA_BINARY", saved.c_str(), 1);
    else
        unsetenv("KVX_EA_BINARY");
    /* the emulator, if any, is read when the agent starts */
    const char* old_qemu = getenv("KVX_EA_EMULATOR");
    std::string saved_qemu = old_qemu ? old_qemu : "";
    setenv("KVX_EA_EMULATOR", GetParam().qemu ? GetParam().qemu : "", 1);

    std::string act = h.work_dir + "/logs/linuxkvxactivity.log";
    const char line[] = "2026-11-21 10:00:00 1 1 portable\n";
    mkdir((h.work_dir + "/logs").c_str(), 0755);
    AgentHarness::write_file(act, line);
    ASSERT_EQ(truncate(act.c_str(), 3LL << 30), 0) << strerror(errno);
    bool started = h.start();
    setenv("KVX_EA_EMULATOR", saved_qemu.c_str(), 1);
    ASSERT_TRUE(started);

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
    ASSERT_EQ(h.call(EA_PROC_AGENTLOG, jxdr_Noargs, NULL,
                     JXDR_PROC(AGENTLOGres, jxdr_AGENTLOGres), (char*)&l), 0);
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
                         [](const ::testing::TestParamInfo<PortableAgent>& i) {
                             return std::string(i.param.label);
                         });

} // namespace
