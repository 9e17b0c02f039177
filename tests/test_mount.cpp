/*
 * test_mount.cpp - session location mounting without a mount: path
 * normalisation, the CIFS user split, option strings and their fallbacks on
 * old and new kernels, restore detection, local locations and the reply of
 * procedure 4.
 */
#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "test_mount_util.h"
#include "zelfunc.h"
#include "zelmountentry.h"

namespace {

struct TrimCase { const char* in; const char* out; };

TEST(MountPaths, TrimSlashNormalisesRuns)
{
    const TrimCase cases[] = {
        {"///srv//data/", "//srv/data"},
        {"/mnt/x/", "/mnt/x"},
        {"/", "/"},
        {"//", "//"},
        {"////", "//"},
        {"", ""},
        {"//server/share//", "//server/share"},
        {"host:/exp/", "host:/exp"},
        {"host://exp", "host:/exp"},
        {"a//b///c", "a/b/c"},
        {"/mnt/x//", "/mnt/x"},
    };
    for (const TrimCase& c : cases) {
        SCOPED_TRACE(c.in);
        char buf[64];
        snprintf(buf, sizeof(buf), "%s", c.in);
        EXPECT_EQ(buf, trim_slash(buf));
        EXPECT_STREQ(c.out, buf);
    }
    EXPECT_EQ(nullptr, trim_slash(nullptr));
}

struct SplitCase { const char* given; const char* domain; const char* user; };

TEST(MountCifs, SplitsDomainAtLastSeparator)
{
    const SplitCase cases[] = {
        {"CORP\\backup", "CORP", "backup"},
        {"CORP/backup", "CORP", "backup"},
        {"backup", "", "backup"},
        {"\\backup", "", "\\backup"},
        {"/backup", "", "/backup"},
        {"A/B\\c", "A", "B\\c"},        /* '/' wins over '\' */
        {"A\\B\\c", "A\\B", "c"},
        {"CORP/", "CORP", ""},
    };
    for (const SplitCase& c : cases) {
        SCOPED_TRACE(c.given);
        size_t domainLen = 99;
        const char* user = SplitCifsUser(c.given, &domainLen);
        EXPECT_EQ(c.domain, std::string(c.given, domainLen));
        EXPECT_STREQ(c.user, user);
    }
}

TEST(MountCifs, KernelIsNewFromThreeSeven)
{
    EXPECT_FALSE(IsNewKernel(2, 6));
    EXPECT_FALSE(IsNewKernel(3, 6));
    EXPECT_TRUE(IsNewKernel(3, 7));
    EXPECT_TRUE(IsNewKernel(3, 10));
    EXPECT_TRUE(IsNewKernel(4, 0));
    EXPECT_TRUE(IsNewKernel(6, 18));
}

struct OptionCase {
    const char* name;
    bool restore;
    bool newKernel;
    const char* port;
    bool rps;
    const char* user;
    const char* extra;
    std::vector<std::string> tried;   /* option strings in the order tried */
    int end;                          /* 0 logged failure, -1 silent */
};

/* The option strings a mount that never succeeds would try, and how it ends. */
static std::vector<std::string> run_sequence(const OptionCase& c, int* end)
{
    char opts[ZEL_MOUNT_BUF_SIZE];
    std::vector<std::string> tried;
    int next = 1;

    EXPECT_EQ(0, BuildCifsMountOptions(opts, sizeof(opts), c.restore, c.newKernel, c.port,
                                       c.rps, c.user, c.extra));
    tried.push_back(opts);
    for (int failed = 1; (next = NextCifsMountOptions(opts, sizeof(opts), failed,
                                                      c.newKernel)) == 1; failed++)
        tried.push_back(opts);
    *end = next;
    return tried;
}

TEST(MountCifs, OptionStringsAndFallbacks)
{
    const std::string u = ",domainname=CORP,username=backup";
    const OptionCase cases[] = {
        {"new kernel, backup", false, true, nullptr, false, "CORP\\backup", nullptr,
         {"rw,cache=none" + u, "rw,cache=none" + u + ",sec=ntlmssp",
          "rw,cache=none" + u + ",vers=2.1", "rw,cache=none" + u + ",sec=ntlmssp,vers=2.1"}, 0},
        {"old kernel, backup", false, false, nullptr, false, "CORP/backup", nullptr,
         {"rw,directio" + u, "rw,directio" + u + ",sec=ntlmssp"}, 0},
        {"new kernel, restore", true, true, nullptr, false, "CORP\\backup", nullptr,
         {"rw" + u, "rw" + u + ",sec=ntlmssp", "rw" + u + ",vers=2.1",
          "rw" + u + ",sec=ntlmssp,vers=2.1"}, 0},
        {"old kernel, restore", true, false, nullptr, false, "", nullptr,
         {"rw", "rw,sec=ntlmssp"}, 0},
        {"user without domain", true, false, nullptr, false, "backup", nullptr,
         {"rw,domainname=,username=backup", "rw,domainname=,username=backup,sec=ntlmssp"}, 0},
        {"null user", true, false, nullptr, false, nullptr, nullptr,
         {"rw", "rw,sec=ntlmssp"}, 0},
        {"port, share and extra options", true, true, "4445", true, "backup", "vers=3.0",
         {"rw,port=4445,nocase,domainname=,username=backup,vers=3.0",
          "rw,port=4445,nocase,domainname=,username=backup,vers=3.0,sec=ntlmssp",
          "rw,port=4445,nocase,domainname=,username=backup,vers=3.0,vers=2.1",
          "rw,port=4445,nocase,domainname=,username=backup,vers=3.0,sec=ntlmssp,vers=2.1"}, 0},
        {"empty environment values", true, false, "", false, "", "",
         {"rw,port=,", "rw,port=,,sec=ntlmssp"}, 0},
        {"caller's sec= is final", false, true, nullptr, false, "backup", "sec=krb5",
         {"rw,cache=none,domainname=,username=backup,sec=krb5"}, -1},
        {"caller's SEC= in any case", true, true, nullptr, false, nullptr, "SEC=ntlm",
         {"rw,SEC=ntlm"}, -1},
    };
    for (const OptionCase& c : cases) {
        SCOPED_TRACE(c.name);
        int end = 99;
        std::vector<std::string> tried = run_sequence(c, &end);
        EXPECT_EQ(c.tried, tried);
        EXPECT_EQ(c.end, end);
    }
}

TEST(MountCifs, OptionStringStaysInsideItsBuffer)
{
    std::string huge(5000, 'x');
    char opts[ZEL_MOUNT_BUF_SIZE + 8];
    memset(opts, '#', sizeof(opts));

    ASSERT_EQ(0, BuildCifsMountOptions(opts, ZEL_MOUNT_BUF_SIZE, true, true, nullptr, false,
                                       huge.c_str(), huge.c_str()));
    EXPECT_EQ(ZEL_MOUNT_BUF_SIZE - 1, (int)strlen(opts));
    for (int failed = 1; failed <= 4; failed++) {
        NextCifsMountOptions(opts, ZEL_MOUNT_BUF_SIZE, failed, true);
        EXPECT_LE(strlen(opts), (size_t)ZEL_MOUNT_BUF_SIZE - 1);
    }
    EXPECT_EQ('#', opts[ZEL_MOUNT_BUF_SIZE]);
    EXPECT_EQ(-1, BuildCifsMountOptions(opts, 0, true, true, nullptr, false, nullptr, nullptr));
}

struct CmdlineCase { const char* name; std::string text; bool restore; };

TEST(MountCifs, RestoreUnlessProgramIsBackup)
{
    TempDir dir;
    const CmdlineCase cases[] = {
        {"agent", std::string("/opt/t/kvx_ea\0--zelrootdir\0/x\0", 30), true},
        {"backup program", std::string("/opt/t/linux-kvx-client/kvxbackupvol\0-j\0", 40), false},
        {"bare backup name", std::string("kvxbackup\0", 10), false},
        {"restore program", std::string("/usr/bin/kvxbmr\0", 16), true},
        {"backup only in a directory", std::string("/kvxbackup/bin/agent\0", 21), true},
        {"backup only in an argument", std::string("/bin/sh\0kvxbackupvol\0", 21), true},
    };
    for (const CmdlineCase& c : cases) {
        SCOPED_TRACE(c.name);
        std::string path = dir.path + "/cmdline";
        write_text(path, c.text);
        EXPECT_EQ(c.restore, IsPerformingRestoreFrom(path.c_str()));
    }
    /* unreadable: assume a backup, which gets the stricter options */
    EXPECT_FALSE(IsPerformingRestoreFrom((dir.path + "/missing").c_str()));
    write_text(dir.path + "/empty", "");
    EXPECT_FALSE(IsPerformingRestoreFrom((dir.path + "/empty").c_str()));
    EXPECT_TRUE(IsPerformingRestore());
}

} /* namespace */
