// Unit: the archiver over real group files. The writer's passes are driven
// by the test; the archiver runs to its end condition once the writer has
// stopped.
#include "FaultFileIO.h"
#include "RedoLogFixture.h"

using namespace talvortest;

// Group 2 gets the oldest number and group 0 the newest. The order shows
// in the writes that mark the group files archived.
TEST_F(RedoFixture, SealedGroupsAreArchivedOldestFirstWhateverTheirIndex)
{
    MakeRing(8192);
    FaultFileIO io;
    ScopedFileIO scoped(&io);
    ASSERT_TRUE(InitRedo());
    SealThreeLogs();
    for (int g = 0; g < 3; g++) {
        MF_REDOLOGFILEHEAD h = GroupHead(g);
        h.m_nSequenceNO = m_pRedo->GetGroup(g)->m_nSequenceNO = 9 - g;
        ASSERT_TRUE(SetGroupHead(g, h));
    }
    std::string strOrder;
    io.OnCall(FileOp::PWrite, [&](const FileCall& c) { strOrder += c.m_strPath.substr(c.m_strPath.rfind('/') + 1) + " "; });
    RunArchiver(m_pRedo);
    io.OnCall(FileOp::PWrite, nullptr);
    EXPECT_EQ("Redo2.log Redo1.log Redo0.log ", strOrder);
}

TEST_F(RedoFixture, AGroupWhoseHeadCannotBeReadIsSetAsideAndTheRestGoOn)
{
    MakeRing(8192);
    ArchiveInto(m_pHead, m_strDir);
    auto Archived = [&](UINT nLog) { return PathExists(m_strDir + "A/ArchiveLog/Log" + std::to_string(nLog) + ".log"); };
    ASSERT_TRUE(InitRedo());
    SealThreeLogs();
    // The oldest group's head names another log: it must not go out as log 1.
    MF_REDOLOGFILEHEAD h = GroupHead(0);
    h.m_nSequenceNO = 77;
    ASSERT_TRUE(SetGroupHead(0, h));
    // It returns: the stop is not held by the bad group.
    EXPECT_EQ(nullptr, RunArchiver(m_pRedo)) << "a copy was left open";
    EXPECT_EQ(nullptr, +m_pRedo->m_lpArchiveDir);
    EXPECT_EQ(REDOGROUP_SEALED, m_pRedo->GetGroup(0)->m_bState) << "left for the next start";
    EXPECT_EQ(77u, +GroupHead(0).m_nSequenceNO) << "its file untouched";
    EXPECT_FALSE(Archived(1) || Archived(77));
    for (int nLog = 2; nLog <= 3; nLog++) {
        EXPECT_EQ(REDOGROUP_ARCHIVED, m_pRedo->GetGroup(nLog - 1)->m_bState) << nLog;
        EXPECT_TRUE(Archived(nLog)) << nLog;
    }
}
