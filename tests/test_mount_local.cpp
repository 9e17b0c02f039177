/*
 * test_mount_local.cpp - local session locations (no mount tool involved)
 * and the reply of procedure 4, called in process.
 */
#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "ea_svc.h"
#include "test_mount_util.h"
#include "zelfunc.h"
#include "zelmountentry.h"

namespace {

static bool is_dir(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

static int entries_in(const std::string& dir)
{
    std::string cmd = "ls -A '" + dir + "' | wc -l";
    FILE* p = popen(cmd.c_str(), "r");
    int n = -1;
    if (p) {
        if (fscanf(p, "%d", &n) != 1)
            n = -1;
        pclose(p);
    }
    return n;
}

/* Root directory (ZEL_ROOT_PATH) pointed into a temp dir for each test. */
class MountLocal : public ::testing::Test {
protected:
    TempDir dir;
    std::string root;
    char point[ZEL_MOUNT_BUF_SIZE] = "";
    bool real = true;

    void SetUp() override
    {
        root = dir.path + "/zelroot";
        setenv(ZEL_ROOT_PATH_ENV, root.c_str(), 1);
    }
    void TearDown() override { unsetenv(ZEL_ROOT_PATH_ENV); }
    int mount_at(const std::string& location, const char* wanted = "")
    {
        snprintf(point, sizeof(point), "%s", wanted);
        return MountSessionLocation(location.c_str(), "", "", point, real, nullptr, false, -1);
    }
};

TEST_F(MountLocal, MissingParentFailsWith2023)
{
    const std::string cases[] = {"/nope/sess", "/nope/sess//", "/nope/deeper/sess"};
    for (const std::string& c : cases) {
        SCOPED_TRACE(c);
        EXPECT_EQ(2023, mount_at(dir.path + c));
        EXPECT_FALSE(real);
        EXPECT_FALSE(is_dir(dir.path + "/nope"));
    }
}

TEST_F(MountLocal, LocationIsCreatedAndIsItsOwnMountPoint)
{
    mkdir((dir.path + "/backup").c_str(), 0755);
    const std::string cases[] = {"/backup/sess", "/backup/other/"};
    for (const std::string& c : cases) {
        SCOPED_TRACE(c);
        std::string location = dir.path + c;
        EXPECT_EQ(0, mount_at(location, (dir.path + "/wanted").c_str()));
        EXPECT_EQ(location, point);
        EXPECT_FALSE(real);
        EXPECT_TRUE(is_dir(location));
        EXPECT_EQ(0, entries_in(location)) << "write test left its file behind";
    }
    /* the wanted mount point is made even though the location replaces it */
    EXPECT_TRUE(is_dir(dir.path + "/wanted"));
}

TEST_F(MountLocal, RefusesBadArgumentsAndUnusablePoints)
{
    bool flag = true;
    EXPECT_EQ(-1, MountSessionLocation(nullptr, "", "", point, flag, nullptr, false, -1));
    EXPECT_FALSE(flag);
    EXPECT_EQ(-1, MountSessionLocation("/tmp", "", "", nullptr, flag, nullptr, false, -1));

    std::string file = dir.path + "/plainfile";
    write_text(file, "x");
    EXPECT_EQ(-1, mount_at(dir.path, file.c_str()));
    EXPECT_EQ(-1, mount_at(dir.path, (dir.path + "/no/such/parent").c_str()));

    /* a location longer than the working buffers is cut, not overrun */
    EXPECT_EQ(2023, mount_at(dir.path + "/nope/" + std::string(5000, 'x')));
}

/* Reply record as the codec allocates it, with a guard area behind the buffer. */
struct Reply {
    char buf[1024 + 64];
    Mountres res;
    Reply()
    {
        memset(buf, '#', sizeof(buf));
        res.ret = 77;
        res.mount_point_len = 77;
        res.mount_point = buf;
    }
    bool guard_intact() const
    {
        for (size_t i = 1024; i < sizeof(buf); i++)
            if (buf[i] != '#')
                return false;
        return true;
    }
};

TEST_F(MountLocal, ServiceAnswersUndecodedRequestWithoutReadingIt)
{
    Reply r;
    EXPECT_EQ(0, mount_svc(nullptr, &r.res));
    EXPECT_EQ(1, r.res.ret);
    EXPECT_EQ(0, r.res.mount_point_len);
    EXPECT_STREQ("", r.res.mount_point);
    EXPECT_EQ(0, mount_svc(nullptr, nullptr));
}

/* Directory path of about len bytes under base, in components of 200. */
static std::string long_path(const std::string& base, size_t len)
{
    std::string path = base;
    while (path.size() + 201 <= len) {
        path += "/" + std::string(200, 'd');
        mkdir(path.c_str(), 0755);
    }
    return path + "/" + std::string(len - path.size() - 1, 'e');
}

TEST_F(MountLocal, ServiceRefusesMountPointLongerThanTheReply)
{
    const size_t lengths[] = {1023, 1024, 1100};
    for (size_t len : lengths) {
        SCOPED_TRACE(len);
        std::string location = long_path(dir.path, len);
        Mountargs args = {&location[0], (char*)"", (char*)"", (char*)""};
        Reply r;
        EXPECT_EQ(0, mount_svc(&args, &r.res));
        EXPECT_EQ(len < 1024 ? 0 : 1, r.res.ret);
        EXPECT_EQ(len < 1024 ? (int)len : 0, r.res.mount_point_len);
        EXPECT_EQ(len < 1024 ? location : std::string(), r.res.mount_point);
        EXPECT_TRUE(r.guard_intact());
    }
}

} /* namespace */
