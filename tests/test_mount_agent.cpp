/*
 * test_mount_agent.cpp - session location mounts: paths, CIFS options and
 * fallbacks in process, then procedure 4 through the agent and mount stubs.
 */
#include "test_mount_agent.h"

#include <sys/mount.h>

#include "ea_svc.h"
#include "zelmountentry.h"

TEST(MountPaths, TrimSlashAndCifsUserSplit)
{
    const struct { const char* in; const char* out; } trims[] = {
        { "///srv//data/", "//srv/data" }, { "/mnt/x//", "/mnt/x" }, { "/", "/" },
        { "////", "//" }, { "", "" }, { "host://exp/", "host:/exp" }, { "a//b///c", "a/b/c" },
    };
    for (const auto& c : trims) {
        SCOPED_TRACE(c.in);
        char buf[64];
        snprintf(buf, sizeof(buf), "%s", c.in);
        EXPECT_EQ(trim_slash(buf), buf);
        EXPECT_STREQ(buf, c.out);
    }
    EXPECT_EQ(trim_slash(NULL), nullptr);

    const struct { const char* given; const char* domain; const char* user; } splits[] = {
        { "CORP\\backup", "CORP", "backup" }, { "CORP/backup", "CORP", "backup" },
        { "backup", "", "backup" }, { "\\backup", "", "\\backup" },
        { "A/B\\c", "A", "B\\c" }, { "A\\B\\c", "A\\B", "c" }, { "CORP/", "CORP", "" },
    };
    for (const auto& c : splits) {
        SCOPED_TRACE(c.given);
        size_t domain_len = 99;
        const char* user = SplitCifsUser(c.given, &domain_len);
        EXPECT_EQ(std::string(c.given, domain_len), c.domain);
        EXPECT_STREQ(user, c.user);
    }
}

TEST(MountCifs, OptionStringsAndFallbacks)
{
    const std::string u = ",domainname=CORP,username=backup";
    const std::string p = "rw,port=4445,nocase,domainname=,username=backup,vers=3.0";
    const std::string huge(5000, 'x');
    const struct {
        const char* name;
        bool restore, new_kernel;
        const char *port, *user, *extra;   /* KVX_SMBD_PORT, user, KVX_MOUNTOPTION */
        bool rps;
        std::vector<std::string> tried;
        int end;                           /* 0 failure logged, -1 silent */
    } cases[] = {
        { "backup, kernel 3.7+", false, true, NULL, "CORP\\backup", NULL, false,
          { "rw,cache=none" + u, "rw,cache=none" + u + ",sec=ntlmssp",
            "rw,cache=none" + u + ",vers=2.1", "rw,cache=none" + u + ",sec=ntlmssp,vers=2.1" }, 0 },
        { "backup, old kernel", false, false, NULL, "CORP/backup", NULL, false,
          { "rw,directio" + u, "rw,directio" + u + ",sec=ntlmssp" }, 0 },
        { "restore, old kernel, no user", true, false, NULL, NULL, NULL, false,
          { "rw", "rw,sec=ntlmssp" }, 0 },
        { "restore, port, share and extra options", true, true, "4445", "backup", "vers=3.0", true,
          { p, p + ",sec=ntlmssp", p + ",vers=2.1", p + ",sec=ntlmssp,vers=2.1" }, 0 },
        { "cut to the buffer", true, true, NULL, huge.c_str(), NULL, false,
          std::vector<std::string>(4, ("rw,domainname=,username=" + huge).substr(0, 4095)), 0 },
        { "caller's SEC= is final", false, true, NULL, "backup", "SEC=krb5", false,
          { "rw,cache=none,domainname=,username=backup,SEC=krb5" }, -1 },
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        char opts[ZEL_MOUNT_BUF_SIZE];   /* exact size: ASan sees an overrun */
        std::vector<std::string> tried;
        int next = 1;
        ASSERT_EQ(BuildCifsMountOptions(opts, sizeof(opts), c.restore, c.new_kernel, c.port, c.rps,
                                        c.user, c.extra), 0);
        for (int failed = 1; next == 1; failed++) {
            tried.push_back(opts);
            next = NextCifsMountOptions(opts, sizeof(opts), failed, c.new_kernel);
        }
        EXPECT_EQ(tried, c.tried);
        EXPECT_EQ(next, c.end);
    }
    EXPECT_TRUE(!IsNewKernel(3, 6) && IsNewKernel(3, 7) && IsNewKernel(4, 0));
}

TEST(MountService, UndecodedRequestIsAnsweredWithoutBeingRead)
{
    char buf[8] = "#######";
    Mountres res = { 77, 77, buf };
    EXPECT_EQ(mount_svc(NULL, &res), 0);
    EXPECT_TRUE(res.ret == 1 && res.mount_point_len == 0 && buf[0] == '\0');
    EXPECT_EQ(mount_svc(NULL, NULL), 0);
}

TEST_F(MountAgent, LocalAndNfsLocations)
{
    h.set_env("KVX_MOUNTOPTION", "vers=3");
    start();
    const std::string local = h.root + "/backup/sess", nfs = " -w -o vers=3";
    expect_mount(local, "", "", "", 1, "");
    EXPECT_TRUE(logged("Session location parent directory " + h.root + "/backup doesn't exist."));
    mkdir((h.root + "/backup").c_str(), 0755);
    expect_mount(local, "", "", "", 0, local);

    expect_mount("nfshost:/exp", "", "", "", 0, zelroot);
    EXPECT_EQ(calls("mount"), Lines{ "mount nfshost:/exp " + zelroot + nfs });
    EXPECT_TRUE(logged("Execute command [mount nfshost:/exp " + zelroot + nfs + "] result: 0."));
    control("mount", "exit", "32\n0\n");   /* this call fails, the next succeeds */
    expect_mount("nfshost:/exp", "", "", point, 1, "");
    EXPECT_TRUE(logged("result: 32."));
    EXPECT_EQ(calls("umount"), Lines{}) << "a failed mount has nothing to undo";

    /* an existing mount is reused while it cannot be unmounted, else replaced */
    ASSERT_TRUE(mount_here(point));
    control("umount", "exit", "1\n");
    expect_mount("nfshost:/exp", "", "", point, 0, point);
    EXPECT_EQ(calls("umount"), (Lines{ "umount " + point, "umount -fl " + point }));
    EXPECT_TRUE(logged("Mount nfshost:/exp on " + point + " exists."));
    EXPECT_TRUE(logged("Umount session location from " + point + " failed:1"));
    control("umount", "exit", "0\n");
    control("mount", "bind", src);
    expect_mount("nfshost:/exp/", "", "", point + "/", 0, point + "/");
    EXPECT_EQ(calls("umount"), Lines{ "umount " + point });
    EXPECT_EQ(calls("mount"), Lines(2, "mount nfshost:/exp " + point + nfs));   /* failed, then this */
    EXPECT_TRUE(bound(point));

    /* a mount point too long for the reply is refused and its mount undone */
    std::string deep = h.root;
    control("mount", "exit", "0\n");
    while (deep.size() < 1100)
        mkdir((deep += "/" + std::string(100, 'd')).c_str(), 0755);
    expect_mount("nfshost:/exp", "", "", deep, 1, "");
    EXPECT_EQ(calls("mount").size(), 1u);
    EXPECT_EQ(calls("umount"), Lines{ "umount " + deep });
    EXPECT_FALSE(bound(deep));

    /* a point with a blank and a quote is one word: found, unmounted and mounted there */
    const std::string odd = h.root + "/mnt 'x";
    mkdir(odd.c_str(), 0755);
    ASSERT_TRUE(mount_here(odd));
    expect_mount("nfshost:/exp", "", "", odd, 0, odd);
    EXPECT_EQ(calls("umount"), Lines{ "umount " + odd });
    EXPECT_TRUE(bound(odd));
    EXPECT_TRUE(logged("Execute command [mount nfshost:/exp '" + h.root + "/mnt '\\''x' -w -o vers=3] result: 0."));
}

TEST_F(MountAgent, CifsPasswordOnlyOnStandardInput)
{
    const std::string pwd = "Pa55-w0rd!";
    h.set_env("KVX_SMBD_PORT", "4445");
    h.set_env("KVX_MOUNTOPTION", "vers=3");
    control("mount.cifs", "exit", "32\n0\n");
    control("mount.cifs", "bind", src);
    start();
    expect_mount("//srv/share", "CORP\\backup", pwd, point, 0, point);
    EXPECT_TRUE(bound(point));
    const std::string opts = "rw,port=4445,domainname=CORP,username=backup,vers=3";
    const std::string cmd = "mount.cifs //srv/share " + point + " -o " + opts;
    EXPECT_EQ(calls("mount.cifs"), (Lines{ cmd, cmd + ",sec=ntlmssp" }));
    EXPECT_EQ(AgentHarness::read_file(h.client_dir + "/mount.cifs.stdin"), pwd + "\n" + pwd + "\n");
    EXPECT_TRUE(logged("Try cifs mount option:" + opts + ",sec=ntlmssp"));

    /* failing for good: every fallback (two on kernels before 3.7), then logged */
    control("mount.cifs", "exit", "32\n");
    expect_mount("//srv/share", "CORP/backup", pwd, h.root + "/other", 1, "");
    EXPECT_GE(calls("mount.cifs").size(), 2u);
    EXPECT_TRUE(logged("Fail to mount session location //srv/share"));
    EXPECT_FALSE(logged(pwd));
    EXPECT_EQ(h.agent_stderr().find(pwd), std::string::npos);

    /* values stay values: a user name or domain adding options, a location or point read as one */
    const size_t ran = calls("mount.cifs").size();
    for (const Lines& v : std::vector<Lines>{ { "//srv/share", "backup,uid=1001,file_mode=0777", point },
                                              { "//srv/share", "CORP,uid=0/backup", point },
                                              { "-oremount", "backup", point },
                                              { "//srv/share", "backup", "-n" } }) {
        expect_mount(v[0], v[1], pwd, v[2], 1, "");
        EXPECT_TRUE(logged("Refused session location [" + v[0] + "] on [" + v[2] + "] for user [" + v[1]));
    }
    EXPECT_EQ(calls("mount.cifs").size(), ran);
}
