/*
 * test_mount_slow.cpp - locations that mount but cannot be written: five
 * write attempts two seconds apart, then the failure (each case ~10 s).
 */
#include "test_mount_agent.h"

#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "zelfunc.h"
#include "zelmountentry.h"

namespace {

static double seconds_since(const struct timespec& t0)
{
    struct timespec t1;
    clock_gettime(CLOCK_MONOTONIC, &t1);
    return (t1.tv_sec - t0.tv_sec) + (t1.tv_nsec - t0.tv_nsec) / 1e9;
}

TEST_F(MountAgent, ReadOnlyShareIsUnmountedAfterFailedWriteTest)
{
    control("mount", "bind", src);
    control("mount", "ro", "");
    start();

    struct timespec t0;
    clock_gettime(CLOCK_MONOTONIC, &t0);
    MountReply r = mount("nfshost:/exp", "", "", point, 60000);
    double took = seconds_since(t0);
    ASSERT_EQ(0, r.rc);
    EXPECT_EQ(1, r.ret);
    EXPECT_EQ("", r.str);
    EXPECT_GE(took, 9.5);
    EXPECT_LT(took, 20.0);
    EXPECT_EQ(1u, h.stub_calls("mount").size());
    EXPECT_EQ(std::vector<std::string>{"umount " + point}, h.stub_calls("umount"));
    EXPECT_FALSE(is_mount_point(point)) << "the mount made for the request was left";
    EXPECT_NE(std::string::npos,
              h.log().find("Session location nfshost:/exp has no write permission: "
                           "Read-only file system[30]."));
}

/* Permission denied (not a read-only file system) is reported as 2015. */
TEST(MountWriteTest, PermissionDeniedIs2015)
{
    TempDir dir;
    chmod(dir.path.c_str(), 0755);
    std::string location = dir.path + "/sess";
    mkdir(location.c_str(), 0755);   /* root's: an ordinary user cannot write */

    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        char point[ZEL_MOUNT_BUF_SIZE] = "";
        bool real = true;
        setenv(ZEL_ROOT_PATH_ENV, dir.path.c_str(), 1);
        if (setgid(65534) != 0 || setuid(65534) != 0)
            _exit(1);
        int ret = MountSessionLocation(location.c_str(), "", "", point, real, nullptr, false, -1);
        int out[2] = {ret, real ? 1 : 0};
        _exit(write(fds[1], out, sizeof(out)) == (ssize_t)sizeof(out) ? 0 : 1);
    }
    close(fds[1]);
    int out[2] = {-100, -100};
    ssize_t n = read(fds[0], out, sizeof(out));
    close(fds[0]);
    int st = 0;
    waitpid(pid, &st, 0);
    ASSERT_EQ((ssize_t)sizeof(out), n) << "child could not run as nobody";
    EXPECT_EQ(2015, out[0]);
    EXPECT_EQ(0, out[1]);
}

} /* namespace */
