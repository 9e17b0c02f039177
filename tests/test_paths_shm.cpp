/*
 * test_paths_shm.cpp - the job monitor segment under the machine-wide key:
 * the writer side creates it, the reader side attaches, both detach and
 * the segment is removed.
 */
#include <errno.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <string>

#include <gtest/gtest.h>

#include "foundation_testkit.h"
#include "zelutil.h"

using fkit::TestLog;

namespace {

::testing::Environment* const kLog = ::testing::AddGlobalTestEnvironment(new TestLog);

/* Removes whatever segment the key names, so each case starts clean. */
void RemoveKeySegment()
{
    int id = shmget((key_t)GetIPCKey(), 0, 0);
    if (id >= 0)
        shmctl(id, IPC_RMID, NULL);
}

class Shm : public ::testing::Test {
protected:
    void SetUp() override { RemoveKeySegment(); }
    void TearDown() override { RemoveKeySegment(); }
};

TEST_F(Shm, ReaderSeesWhatWriterStored)
{
    int id = CreateSHM(8192);
    ASSERT_GT(id, 0);
    EXPECT_EQ(id, shmget((key_t)0xAC23E27E, 0, 0));   /* the key the backup program uses */
    char* w = (char*)AttachSHM(8192, id);
    ASSERT_NE(nullptr, w);
    exstrncpy(w, "job 42 at 37%", 64);

    char* r = (char*)AttachSHM(8192, 0);   /* looked up by key */
    ASSERT_NE(nullptr, r);
    EXPECT_STREQ("job 42 at 37%", r);
    EXPECT_EQ(0, DetachSHM(r));
    EXPECT_EQ(0, DetachSHM(w));
    EXPECT_EQ(-1, DetachSHM(w));            /* already detached */
    EXPECT_EQ(0, DelSHM(id));
    EXPECT_EQ(-1, DelSHM(id));
}

TEST_F(Shm, MissingSegmentIsNullAndLogged)
{
    size_t mark = TestLog::Size();
    EXPECT_EQ(nullptr, AttachSHM(4245946, 0));
    EXPECT_EQ(nullptr, AttachSHM(4245946, -7));
    std::string log = TestLog::Since(mark);
    EXPECT_NE(std::string::npos,
              log.find("AttachSHM: shmget failed: No such file or directory(2). shmid=-1\n"));
    EXPECT_NE(std::string::npos, log.find("AttachSHM shmid=-7\n"));
}

TEST_F(Shm, BadIdentifierIsNullNotMinusOne)
{
    size_t mark = TestLog::Size();
    EXPECT_EQ(nullptr, AttachSHM(16, 0x7ffffff0));
    EXPECT_NE(std::string::npos, TestLog::Since(mark).find("AttachSHM: shmat failed: "));
}

TEST_F(Shm, AttachAskingMoreThanSegmentHoldsFails)
{
    int id = CreateSHM(1024);
    ASSERT_GT(id, 0);
    EXPECT_EQ(nullptr, AttachSHM(4096, 0));
    EXPECT_EQ(0, DelSHM(id));
}

TEST_F(Shm, WriterReplacesSegmentTooSmall)
{
    int small = CreateSHM(1024);
    ASSERT_GT(small, 0);
    EXPECT_EQ(small, CreateSHM(512));        /* big enough: reused */
    int big = CreateSHM(4245946);
    ASSERT_GT(big, 0);
    struct shmid_ds ds;
    ASSERT_EQ(0, shmctl(big, IPC_STAT, &ds));
    EXPECT_EQ(4245946u, ds.shm_segsz);
    EXPECT_EQ(0666u, ds.shm_perm.mode & 0777);
    EXPECT_EQ(0, DelSHM(big));
}

}  // namespace
