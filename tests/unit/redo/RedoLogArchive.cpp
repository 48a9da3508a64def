// Unit: the archiver over real group files, and the live feeds of standby
// readers. The writer's passes are driven by the test; the archiver runs to
// its end condition once the writer has stopped.
#include "FaultFileIO.h"
#include "RedoLogFixture.h"

using namespace talvortest;

namespace {

class RedoArchive : public RedoFixture {
protected:
    void ArchiveAll()
    {
        EXPECT_EQ(nullptr, RunArchiver(m_pRedo)) << "a copy was left open";
        EXPECT_EQ(nullptr, +m_pRedo->m_lpArchiveDir);
    }
    std::string ArchivedLog(const std::string& strDes, UINT nLog)
    {
        return strDes + "/ArchiveLog/Log" + std::to_string(nLog) + ".log";
    }
};

} // namespace

// Group 2 gets the oldest number and group 0 the newest. The order shows
// in the writes that mark the group files archived.
TEST_F(RedoArchive, SealedGroupsAreArchivedOldestFirstWhateverTheirIndex)
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
    io.OnCall(FileOp::PWrite,
              [&](const FileCall& c) { strOrder += c.m_strPath.substr(c.m_strPath.rfind('/') + 1) + " "; });
    ArchiveAll();
    io.OnCall(FileOp::PWrite, nullptr);
    EXPECT_EQ("Redo2.log Redo1.log Redo0.log ", strOrder);
    EXPECT_EQ(9, +Ring()->m_nLogArchiveNo);
}

TEST_F(RedoArchive, AGroupWhoseHeadCannotBeReadIsSetAsideAndTheRestGoOn)
{
    MakeRing(8192);
    ArchiveInto(m_pHead, m_strDir);
    ASSERT_TRUE(InitRedo());
    SealThreeLogs();
    // The oldest group's head names another log: it must not go out as log 1.
    MF_REDOLOGFILEHEAD h = GroupHead(0);
    h.m_nSequenceNO = 77;
    ASSERT_TRUE(SetGroupHead(0, h));
    ArchiveAll(); // returns: the stop is not held by the bad group
    EXPECT_EQ(REDOGROUP_SEALED, m_pRedo->GetGroup(0)->m_bState) << "left for the next start";
    EXPECT_EQ(77u, +GroupHead(0).m_nSequenceNO) << "its file untouched";
    EXPECT_FALSE(PathExists(ArchivedLog(m_strDir + "A", 1)));
    EXPECT_FALSE(PathExists(ArchivedLog(m_strDir + "A", 77)));
    for (int nLog = 2; nLog <= 3; nLog++) {
        EXPECT_EQ(REDOGROUP_ARCHIVED, m_pRedo->GetGroup(nLog - 1)->m_bState) << nLog;
        EXPECT_TRUE(PathExists(ArchivedLog(m_strDir + "A", nLog))) << nLog;
    }
}

TEST_F(RedoArchive, LiveFeedTakesWholeStretchesAndDropsOutOnAMismatch)
{
    MakeRing(8192);
    ASSERT_TRUE(InitRedo());
    std::vector<BYTE> vBuffer(4096);
    TALVORREDOLOGSTANDBYCACHE feed;
    memset(&feed, 0, sizeof(feed));
    InitializeCriticalTalvor(&feed.m_stCrit);
    InitEvent(feed.m_hEvent);
    feed.m_lpBuffer = vBuffer.data();
    feed.m_nBufferSize = (int)vBuffer.size();
    m_pRedo->AddStandby(&feed);
    m_pRedo->StartWriter(m_st);
    std::string a = Record(700, 1, 1), b = Record(900, 1, 2);
    Produce(a);
    Pass();
    Produce(b);
    Pass();
    EXPECT_EQ(1u, +feed.m_nRedoLogNo);
    ASSERT_EQ(1600, +feed.m_nLogDataSize);
    EXPECT_EQ(0, memcmp(vBuffer.data(), (a + b).data(), 1600));
    EXPECT_FALSE(feed.m_bNewDataFlag);
    // The reader lost the thread: the feed keeps its bytes and says so.
    feed.m_nLogDataPos = 60;
    Produce(Record(300, 1, 3));
    Pass();
    EXPECT_TRUE(feed.m_bNewDataFlag);
    EXPECT_EQ(1600, +feed.m_nLogDataSize);
    m_pRedo->SubStandby(&feed);
    Stop();
    FreeEvent(feed.m_hEvent);
    DeleteCriticalTalvor(&feed.m_stCrit);
}
