// Unit: the archiver over real group files, and the live feeds of standby
// readers. The writer's passes are driven by the test; the archiver runs to
// its end condition once the writer has stopped.
#include "RedoLogFixture.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

using namespace talvortest;

namespace {

class RedoArchive : public RedoFixture {
protected:
    // Three logs sealed by the writer (the last one by its stop), none
    // archived yet.
    void SealThreeLogs()
    {
        m_pRedo->StartWriter(m_st);
        for (int i = 0; i < 3; i++) {
            std::string s = Record(3000, 1, i + 1);
            ASSERT_EQ(3000, TraceRingWrite(m_pRing, m_nRingSize, s.data(), 3000));
            m_strStream += s;
            m_pRedo->WritePass(m_st, &m_stCrit);
            m_pRedo->WritePass(m_st, &m_stCrit);
        }
        m_bExit = TRUE;
        for (int i = 0; i < 100 && !m_pRedo->WritePass(m_st, &m_stCrit); i++) {
        }
        ASSERT_TRUE(m_st.m_bEnded);
        for (int g = 0; g < 3; g++) ASSERT_EQ(REDOGROUP_SEALED, m_pRedo->GetGroup(g)->m_bState) << g;
    }

    void RunArchiver()
    {
        TalvorStoreShared(&m_pRedo->m_bArchiveExit, TRUE);
        void* hFile = nullptr;
        void* hSrc = nullptr;
        EXPECT_EQ(0, m_pRedo->ArchiveFile(hFile, hSrc));
        EXPECT_EQ(nullptr, hFile);
        EXPECT_EQ(nullptr, +m_pRedo->m_lpArchiveDir);
    }

    std::string GroupFile(int g) { return ReadWholeFile(m_strDir + "Redo" + std::to_string(g) + ".log"); }
};

MF_REDOLOGFILEHEAD HeadOf(const std::string& s)
{
    MF_REDOLOGFILEHEAD h;
    memset(&h, 0, sizeof(h));
    if (s.size() >= sizeof(h)) memcpy(&h, s.data(), sizeof(h));
    return h;
}

} // namespace

TEST_F(RedoArchive, NoCopyWhenArchivingIsOffOrOnNodeTypeThree)
{
    for (int nCase = 0; nCase < 2; nCase++) {
        MakeRing(8192);
        m_pHead->m_nTalvorArchiveType = nCase == 0 ? 0 : 1;
        snprintf(m_pHead->m_lpArchiveDesPath, sizeof(m_pHead->m_lpArchiveDesPath), "%sC%d", m_strDir.c_str(), nCase);
        m_pRedo = new CTalvorRedoLog();
        m_pRedo->SetRingSize(m_nRingSize);
        ASSERT_TRUE(m_pRedo->Init(m_pHead, nCase == 0 ? 0 : 3, &m_bExit, (char*)m_strDir.c_str(), (char*)m_pRing,
                                  nullptr, nullptr, FALSE, nullptr));
        m_bExit = FALSE;
        m_strStream.clear();
        SealThreeLogs();
        RunArchiver();
        for (int g = 0; g < 3; g++) EXPECT_EQ(REDOGROUP_ARCHIVED, m_pRedo->GetGroup(g)->m_bState) << nCase;
        struct stat st;
        EXPECT_NE(0, stat((m_strDir + "C" + std::to_string(nCase) + "/ArchiveLog/Log" +
                           std::to_string(m_pRedo->GetGroup(0)->m_nSequenceNO) + ".log").c_str(), &st));
        delete m_pRedo;
        m_pRedo = nullptr;
        free(m_pRing);
        m_pRing = nullptr;
        // The next case starts over on fresh groups.
        for (const std::string& strGroup : ListFiles(m_strDir, "Redo")) {
            if (strGroup.size() > 4 && strGroup.compare(strGroup.size() - 4, 4, ".log") == 0) {
                ASSERT_EQ(0, unlink(strGroup.c_str()));
            }
        }
    }
}

TEST_F(RedoArchive, SealedGroupsAreArchivedOldestFirstWhateverTheirIndex)
{
    MakeRing(8192);
    ASSERT_TRUE(InitRedo());
    SealThreeLogs();
    // Give group 2 the oldest number and group 0 the newest.
    const UINT arNo[3] = {9, 8, 7};
    for (int g = 0; g < 3; g++) {
        std::string strPath = m_strDir + "Redo" + std::to_string(g) + ".log";
        std::string strFile = ReadWholeFile(strPath);
        MF_REDOLOGFILEHEAD h = HeadOf(strFile);
        h.m_nSequenceNO = arNo[g];
        memcpy(&strFile[0], &h, sizeof(h));
        ASSERT_TRUE(WriteFileAt(strPath, 0, std::string((const char*)&h, sizeof(h))));
        m_pRedo->GetGroup(g)->m_nSequenceNO = arNo[g];
    }
    RunArchiver();
    EXPECT_EQ(9, +Ring()->m_nLogArchiveNo) << "the newest log is archived last";
}

TEST_F(RedoArchive, AGroupWhoseHeadCannotBeReadIsSetAsideAndTheRestGoOn)
{
    MakeRing(8192);
    m_pHead->m_nTalvorArchiveType = 1;
    snprintf(m_pHead->m_lpArchiveDesPath, sizeof(m_pHead->m_lpArchiveDesPath), "%sA", m_strDir.c_str());
    ASSERT_TRUE(InitRedo());
    SealThreeLogs();
    // The oldest group's head names another log: it must not go out as log 1.
    std::string strPath = m_strDir + "Redo0.log";
    std::string strFile = ReadWholeFile(strPath);
    MF_REDOLOGFILEHEAD h = HeadOf(strFile);
    h.m_nSequenceNO = 77;
    memcpy(&strFile[0], &h, sizeof(h));
    ASSERT_TRUE(WriteWholeFile(strPath, strFile));
    RunArchiver();  // returns: the stop is not held by the bad group
    EXPECT_EQ(REDOGROUP_SEALED, m_pRedo->GetGroup(0)->m_bState) << "left for the next start";
    EXPECT_EQ(77u, +HeadOf(ReadWholeFile(strPath)).m_nSequenceNO) << "its file untouched";
    struct stat st;
    EXPECT_NE(0, stat((m_strDir + "A/ArchiveLog/Log1.log").c_str(), &st));
    EXPECT_NE(0, stat((m_strDir + "A/ArchiveLog/Log77.log").c_str(), &st));
    for (int nLog = 2; nLog <= 3; nLog++) {
        EXPECT_EQ(REDOGROUP_ARCHIVED, m_pRedo->GetGroup(nLog - 1)->m_bState) << nLog;
        EXPECT_EQ(0, stat((m_strDir + "A/ArchiveLog/Log" + std::to_string(nLog) + ".log").c_str(), &st)) << nLog;
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
    EXPECT_EQ(REDOLOGFILE_HEAD_SIZE, +feed.m_nLogDataPos);
    ASSERT_EQ(1600, +feed.m_nLogDataSize);
    EXPECT_EQ(0, memcmp(vBuffer.data(), (a + b).data(), 1600));
    EXPECT_FALSE(feed.m_bNewDataFlag);
    // The reader lost the thread: the feed keeps its bytes and says so.
    feed.m_nLogDataPos = 60;
    Produce(Record(300, 1, 3));
    Pass();
    EXPECT_TRUE(feed.m_bNewDataFlag);
    EXPECT_EQ(1600, +feed.m_nLogDataSize);
    EXPECT_EQ(0, WaitForSingleObject(&feed.m_hEvent, 1)) << "the feed is told of every stretch";
    m_pRedo->SubStandby(&feed);
    EXPECT_EQ(nullptr, +m_pRedo->m_pStandbyCache);
    Stop();
    FreeEvent(feed.m_hEvent);
    DeleteCriticalTalvor(&feed.m_stCrit);
}
