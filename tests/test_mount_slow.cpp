/*
 * test_mount_slow.cpp - a read-only location: five write tests 2 s apart, then
 * the failure and the mount undone.
 */
#include "test_mount_agent.h"

#include <time.h>

TEST_F(MountAgent, ReadOnlyLocationIsUnmountedAfterFailedWriteTest)
{
    control("mount", "bind", src);
    control("mount", "ro", "");
    start();
    time_t t0 = time(NULL);
    expect_mount("nfshost:/exp", "", "", point, 1, "");
    EXPECT_TRUE(time(NULL) - t0 >= 9 && time(NULL) - t0 < 20) << time(NULL) - t0 << " s";
    EXPECT_EQ(calls("mount").size(), 1u);
    EXPECT_EQ(calls("umount"), Lines{ "umount " + point });
    EXPECT_FALSE(bound(point)) << "the mount was left";
    EXPECT_TRUE(logged("Session location nfshost:/exp has no write permission: "
                       "Read-only file system[30]."));
}
