/*
 * test_mount_agent.cpp - procedure 4 end to end: local directories, NFS and
 * CIFS through the mount tool stubs, existing mounts, and mount points that
 * do not fit the reply.
 */
#include "test_mount_agent.h"

#include <unistd.h>

#include "zelmountentry.h"

namespace {

static bool contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

static std::vector<std::string> lines_of(const std::string& text)
{
    std::vector<std::string> out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line))
        out.push_back(line);
    return out;
}

TEST_F(MountAgent, LocalLocationNeedsItsParentAndIsReported)
{
    start();
    std::string missing = h.root + "/backup/sess";
    MountReply r = mount(missing, "", "", "");
    ASSERT_EQ(0, r.rc);
    EXPECT_EQ(1, r.ret);
    EXPECT_EQ(0, r.len);
    EXPECT_EQ("", r.str);
    EXPECT_TRUE(contains(h.log(), "Session location parent directory " + h.root +
                                      "/backup doesn't exist."));

    mkdir((h.root + "/backup").c_str(), 0755);
    r = mount(missing, "", "", "");
    ASSERT_EQ(0, r.rc);
    EXPECT_EQ(0, r.ret);
    EXPECT_EQ(missing, r.str);
    EXPECT_EQ((int)missing.size(), r.len);
    EXPECT_TRUE(AgentHarness::exists(missing));
    EXPECT_TRUE(AgentHarness::exists(zelroot)) << "the default mount point is made first";
    EXPECT_TRUE(h.stub_calls("mount").empty());
}

struct NfsCase {
    const char* name;
    bool with_option;
    bool default_point;
    const char* args;      /* after "mount nfshost:/exp <point>" */
};

class MountAgentNfs : public MountAgent, public ::testing::WithParamInterface<NfsCase> {};

TEST_P(MountAgentNfs, CommandLineCarriesTheEnvironmentsOptions)
{
    const NfsCase& c = GetParam();
    if (c.with_option)
        h.set_env("KVX_MOUNTOPTION", "vers=3");
    start();
    std::string used = c.default_point ? zelroot : point;
    MountReply r = mount("nfshost:/exp", "", "", c.default_point ? "" : point);
    ASSERT_EQ(0, r.rc);
    EXPECT_EQ(0, r.ret);
    EXPECT_EQ(used, r.str);
    EXPECT_EQ((int)used.size(), r.len);
    std::string cmd = "mount nfshost:/exp " + used + c.args;
    EXPECT_EQ(std::vector<std::string>{cmd}, h.stub_calls("mount"));
    EXPECT_TRUE(contains(h.log(), "Execute command [" + cmd + "] result: 0."));
    EXPECT_TRUE(h.stub_calls("umount").empty());
}

INSTANTIATE_TEST_SUITE_P(
    Cases, MountAgentNfs,
    ::testing::Values(NfsCase{"DefaultPointWithOption", true, true, " -w -o vers=3"},
                      NfsCase{"WantedPointNoOption", false, false, " -w"}),
    [](const ::testing::TestParamInfo<NfsCase>& i) { return std::string(i.param.name); });

TEST_F(MountAgent, FailedNfsMountIsReportedWithoutWriteTest)
{
    control("mount", "exit", "32\n");
    start();
    MountReply r = mount("nfshost:/exp", "", "", point);
    ASSERT_EQ(0, r.rc);
    EXPECT_EQ(1, r.ret);
    EXPECT_EQ("", r.str);
    EXPECT_EQ(1u, h.stub_calls("mount").size());
    EXPECT_TRUE(h.stub_calls("umount").empty());
    EXPECT_TRUE(contains(h.log(), "result: 32."));
}

/* The kernel decides how many option strings are tried. */
static bool new_kernel()
{
    int mainv = 0, subv = 0, patchv = 0;
    return GetKernelVersion(&mainv, &subv, &patchv) == 0 && IsNewKernel(mainv, subv);
}

TEST_F(MountAgent, CifsFallsBackAndGivesPasswordOnlyOnStandardInput)
{
    if (!new_kernel())
        GTEST_SKIP() << "fallback sequence of kernels from 3.7 on";
    const std::string pwd = "Pa55-w0rd!";
    control("mount.cifs", "exit", "32\n32\n0\n");
    control("mount.cifs", "bind", src);
    write_text(src + "/marker", "x");
    h.set_env("KVX_SMBD_PORT", "4445");
    start();

    MountReply r = mount("//srv/share", "CORP\\backup", pwd, point);
    ASSERT_EQ(0, r.rc);
    EXPECT_EQ(0, r.ret);
    EXPECT_EQ(point, r.str);
    EXPECT_TRUE(AgentHarness::exists(point + "/marker")) << "share not mounted";

    const std::string head = "mount.cifs //srv/share " + point + " -o rw,port=4445";
    const std::string user = ",domainname=CORP,username=backup";
    std::vector<std::string> want = {head + user, head + user + ",sec=ntlmssp",
                                     head + user + ",vers=2.1"};
    EXPECT_EQ(want, h.stub_calls("mount.cifs"));
    EXPECT_EQ(std::vector<std::string>(3, pwd), lines_of(client_file("mount.cifs.stdin")));
    EXPECT_TRUE(contains(h.log(), "Try cifs mount option:rw,port=4445" + user + ",vers=2.1"));
    EXPECT_FALSE(contains(h.log(), pwd));
    EXPECT_FALSE(contains(h.agent_stderr(), pwd));
    EXPECT_FALSE(contains(client_file("mount.cifs.calls"), pwd));
}

struct CifsFailCase {
    const char* name;
    const char* option;    /* KVX_MOUNTOPTION, null = unset */
    size_t attempts;
    bool logged;
};

class MountAgentCifsFail : public MountAgent,
                           public ::testing::WithParamInterface<CifsFailCase> {};

TEST_P(MountAgentCifsFail, GivesUpAfterItsLastFallback)
{
    if (!new_kernel())
        GTEST_SKIP() << "fallback sequence of kernels from 3.7 on";
    const CifsFailCase& c = GetParam();
    control("mount.cifs", "exit", "32\n");
    if (c.option)
        h.set_env("KVX_MOUNTOPTION", c.option);
    start();
    MountReply r = mount("//srv/share", "", "", point);
    ASSERT_EQ(0, r.rc);
    EXPECT_EQ(1, r.ret);
    std::vector<std::string> calls = h.stub_calls("mount.cifs");
    EXPECT_EQ(c.attempts, calls.size());
    if (c.option && !calls.empty()) {
        EXPECT_EQ("mount.cifs //srv/share " + point + " -o rw," + c.option, calls[0]);
    }
    EXPECT_EQ(c.logged, contains(h.log(), "Fail to mount session location //srv/share"));
    EXPECT_EQ(std::vector<std::string>(c.attempts, ""), lines_of(client_file("mount.cifs.stdin")));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, MountAgentCifsFail,
    ::testing::Values(CifsFailCase{"EveryFallback", nullptr, 4, true},
                      CifsFailCase{"CallersSecIsFinal", "sec=krb5", 1, false}),
    [](const ::testing::TestParamInfo<CifsFailCase>& i) { return std::string(i.param.name); });

/* A mount of the location that the mount table shows, as NFS would. */
static void premount(const std::string& location, const std::string& at)
{
    mkdir(at.c_str(), 0755);
    ASSERT_EQ(0, mount(location.c_str(), at.c_str(), "tmpfs", 0, "size=1m"))
        << strerror(errno);
}

TEST_F(MountAgent, ExistingMountIsReplaced)
{
    premount("nfshost:/exp", point);
    control("mount", "bind", src);
    write_text(src + "/marker", "x");
    start();
    MountReply r = mount("nfshost:/exp/", "", "", point + "/");
    ASSERT_EQ(0, r.rc);
    EXPECT_EQ(0, r.ret);
    EXPECT_EQ(point + "/", r.str);
    EXPECT_EQ(std::vector<std::string>{"umount " + point}, h.stub_calls("umount"));
    EXPECT_EQ(std::vector<std::string>{"mount nfshost:/exp " + point + " -w"},
              h.stub_calls("mount"));
    EXPECT_EQ(1, mounts_on(point));
    EXPECT_TRUE(AgentHarness::exists(point + "/marker"));
}

TEST_F(MountAgent, ExistingMountIsReusedWhenItCannotBeUnmounted)
{
    premount("nfshost:/exp", point);
    control("umount", "exit", "1\n");
    start();
    MountReply r = mount("nfshost:/exp", "", "", point);
    ASSERT_EQ(0, r.rc);
    EXPECT_EQ(0, r.ret);
    EXPECT_EQ(point, r.str);
    std::vector<std::string> want = {"umount " + point, "umount -fl " + point};
    EXPECT_EQ(want, h.stub_calls("umount"));
    EXPECT_TRUE(h.stub_calls("mount").empty());
    EXPECT_TRUE(contains(h.log(), "Mount nfshost:/exp on " + point + " exists."));
    EXPECT_TRUE(contains(h.log(), "Umount session location from " + point + " failed:1"));
    EXPECT_EQ(1, mounts_on(point));
}

TEST_F(MountAgent, MountPointLongerThanTheReplyIsRefusedAndUndone)
{
    std::string deep = h.root;
    while (deep.size() < 1100 - 101)
        deep += "/" + std::string(100, 'd');
    deep += "/" + std::string(1100 - deep.size() - 1, 'e');
    std::string parent = deep.substr(0, deep.rfind('/'));
    ASSERT_EQ(0, system(("mkdir -p " + parent).c_str()));
    control("mount", "bind", src);
    start();

    MountReply r = mount("nfshost:/exp", "", "", deep);
    ASSERT_EQ(0, r.rc);
    EXPECT_EQ(1, r.ret);
    EXPECT_EQ(0, r.len);
    EXPECT_EQ("", r.str);
    EXPECT_EQ(1u, h.stub_calls("mount").size());
    EXPECT_EQ(std::vector<std::string>{"umount " + deep}, h.stub_calls("umount"));
    EXPECT_EQ(0, mounts_on(deep));
    unmount_all(deep);

    /* the agent is still serving */
    r = mount(h.root, "", "", "");
    EXPECT_EQ(0, r.rc);
    EXPECT_EQ(0, r.ret);
}

} /* namespace */
