// Unit: the redo object over a private ring and real group files. The
// writer's passes are driven one at a time, so every wrap, cut and seal is
// deterministic; the test plays the engine and the archiver.
#include "RedoLogFixture.h"

using namespace talvortest;

// Positions one short of, at, and one past the end of the ring's data are
// where a wrap written as > instead of >= goes wrong. The records stay well
// inside one group.
class RedoRingEnd : public RedoFixture {
protected:
    // bEndForStart: the engine leaves its write position at the end of the
    // data, which stands for its start.
    void RecordEndingAt(int nShift, bool bEndForStart = false)
    {
        const int nData = 2048, nFirst = 500;
        ASSERT_NO_FATAL_FAILURE(StartRedo(nData));
        Produce(Record(nFirst, 1, 1));
        Pass();
        Produce(Record(nData - nFirst + nShift, 1, 2));
        if (bEndForStart) {
            ASSERT_EQ(RING_HEAD, +Ring()->m_nWritePos);
            Ring()->m_nWritePos = RING_HEAD + nData;
        }
        // The first bytes of the next record, fewer than its head: the scan
        // stops at the end of the second one and must not stand past the ring.
        std::string strThird = Record(700, 1, 3);
        const int nHeadPart = bEndForStart ? 0 : 10;
        ASSERT_EQ(nHeadPart, TraceRingWrite(m_pRing, m_nRingSize, strThird.data(), nHeadPart));
        Pass();
        if (bEndForStart) Ring()->m_nWritePos = RING_HEAD;
        // Where the second record ends, wrapped.
        auto Wrap = [&](int n) { return n < RING_HEAD + nData ? n : n - nData; };
        const int nExpected = Wrap(RING_HEAD + nData + nShift);
        EXPECT_EQ(nExpected, +Ring()->m_nReadPos);
        EXPECT_EQ(Wrap(nExpected + nHeadPart), +Ring()->m_nWritePos);
        m_strStream += strThird.substr(0, (size_t)nHeadPart);
        Produce(strThird.substr((size_t)nHeadPart));
        Pass();
        Stop();
        EXPECT_TRUE(m_strStream == m_strLogs) << m_strLogs.size() << " bytes logged of " << m_strStream.size();
    }
};

TEST_F(RedoRingEnd, RecordEndingOneByteBeforeTheEnd) { RecordEndingAt(-1); }
TEST_F(RedoRingEnd, RecordEndingOnTheLastByte) { RecordEndingAt(0); }
TEST_F(RedoRingEnd, RecordEndingOneByteIntoTheWrap) { RecordEndingAt(1); }
TEST_F(RedoRingEnd, RecordEndingOnTheLastByteWithTheWritePositionAtTheEnd) { RecordEndingAt(0, true); }

TEST_F(RedoFixture, BadRecordAtTheReadPositionIsGivenUpOnAfter31Passes)
{
    ASSERT_NO_FATAL_FAILURE(StartRedo(1024));
    std::string strJunk(100, '\x5A');
    ASSERT_EQ(100, TraceRingWrite(m_pRing, m_nRingSize, strJunk.data(), 100));
    // A bad head may be one still being written: 30 passes wait it out,
    // the 31st gives the ring up.
    for (int i = 0; i < 30; i++) Pass();
    EXPECT_EQ(0, +Ring()->m_bReadException);
    EXPECT_EQ(RING_HEAD, +Ring()->m_nReadPos) << "nothing of a bad record is drained";
    Pass();
    EXPECT_EQ(1, +Ring()->m_bReadException);
    // The engine resets the ring and clears the flag: the writer starts over.
    Ring()->m_nWritePos = RING_HEAD + 500, Ring()->m_nReadPos = RING_HEAD + 300, Ring()->m_bReadException = 0;
    Pass();
    EXPECT_TRUE(!m_st.m_bReadException && Ring()->m_nReadPos == RING_HEAD);
}

// A standby's hold on a group is a byte: taken once per reader, dropped
// when the group changed hands, and a release never wraps it (a wrapped hold
// would keep the writer from the group for good).
TEST_F(RedoFixture, ReaderHoldsNeverWrapBelowZero)
{
    ASSERT_NO_FATAL_FAILURE(StartRedo(8192));
    // Log 1 sealed (and archived by Harvest), log 2 not yet open.
    for (int i = 1; i <= 2; i++) Produce(Record(3000, 1, i)), Pass();
    Pass();
    TALVORCRITICALSECTION stCrit;
    InitThreadCritSection(&stCrit);
    char szPath[MAX_PATH];
    int nGroup = -1;
    BYTE bCur = 9;
    auto Get = [&](UINT nLog) { return m_pRedo->GetWritePos(nLog, nGroup, bCur, szPath, &stCrit); };
    LPTALVORREDOGROUP pGroup = m_pRedo->GetGroup(0);
    EXPECT_EQ(-1, Get(0)) << "0 is no log";
    EXPECT_EQ(-1, Get(5)) << "not yet written";
    EXPECT_EQ(50 + 3000, Get(1));
    EXPECT_EQ(0, nGroup);
    EXPECT_EQ(0, bCur);
    EXPECT_EQ(1, pGroup->m_bStandbyRef);
    Get(1);
    EXPECT_EQ(1, pGroup->m_bStandbyRef) << "a held group is not counted twice";
    // The group changes hands under the reader: the hold is stale.
    pGroup->m_nSequenceNO = 40, pGroup->m_bStandbyRef = 0;
    Get(1);
    EXPECT_EQ(0, pGroup->m_bStandbyRef);
    for (int nHeld = 0, i = 0; i < 2; i++) m_pRedo->ReleaseRedoLog(nHeld, &stCrit);
    EXPECT_EQ(0, pGroup->m_bStandbyRef) << "a release never wraps the count";
    int nNone = -1;
    m_pRedo->ReleaseRedoLog(nNone, &stCrit);
    EXPECT_EQ(-1, nNone);
    Stop();
}

// A seal asked for while no group is open is cleared, not left standing,
// and seals nothing.
TEST_F(RedoFixture, StopWithNoGroupOpenTouchesNoFile)
{
    MakeRing(1024);
    ASSERT_TRUE(InitRedo());
    std::string strBefore = ReadWholeFile(m_strDir + "Redo0.log");
    m_pRedo->StartWriter(m_st);
    Ring()->m_bFlushFlag = REDOFLUSH_SEAL;
    Pass();
    EXPECT_EQ(0, +Ring()->m_bFlushFlag) << "a seal request with no group open is just cleared";
    Stop();
    EXPECT_EQ(0, m_nSeals);
    EXPECT_TRUE(strBefore == ReadWholeFile(m_strDir + "Redo0.log"));
}

// The count the head asks for is held to the bounds, and the count taken
// is written back to the head.
TEST_F(RedoFixture, GroupCountIsBoundedAndWrittenBack)
{
    MakeRing(1024);
    m_pHead->m_nWriteRedoOnlineGroups = 2;
    ASSERT_TRUE(InitRedo());
    EXPECT_EQ(3, +m_pHead->m_nWriteRedoOnlineGroups);
    EXPECT_EQ(4096, FileSizeOf(m_strDir + "Redo2.log"));
    delete m_pRedo;
    m_pHead->m_nWriteRedoOnlineGroups = 65;
    ASSERT_TRUE(InitRedo());
    EXPECT_EQ(64, +m_pHead->m_nWriteRedoOnlineGroups);
}

TEST_F(RedoFixture, CorruptPositionsAreRefusedAndReset)
{
    ASSERT_NO_FATAL_FAILURE(StartRedo(1024));
    Ring()->m_nWritePos = m_nRingSize + 4096;
    Ring()->m_nReadPos = -7;
    Pass();
    EXPECT_EQ(RING_HEAD, +Ring()->m_nWritePos);
    EXPECT_EQ(RING_HEAD, +Ring()->m_nReadPos);
    // A head claiming more than the attachment is bounded by it.
    Ring()->m_nFileTotalSize = m_nRingSize * 4;
    Produce(Record(100, 1, 1));
    Pass();
    EXPECT_EQ(m_nRingSize, +Ring()->m_nFileTotalSize);
}

TEST_F(RedoFixture, NextLogNumberPassesEveryArchivedNumber)
{
    MakeRing(1024);
    ArchiveInto(m_pHead, m_strDir);
    ASSERT_EQ(0, system(("mkdir -p '" + m_strDir + "A/ArchiveLog' && touch '" + m_strDir + "A/ArchiveLog/Log7.log'").c_str()));
    m_pHead->m_nRedoLogMaxID = 3; // a commit that did not reach the disk
    ASSERT_TRUE(InitRedo());
    EXPECT_EQ(8u, +m_pHead->m_nRedoLogMaxID);
}

TEST_F(RedoFixture, StartAfterALostSystemFileFollowsTheNewestLog)
{
    ASSERT_NO_FATAL_FAILURE(StartRedo(8192));
    ThreeLogs();
    ASSERT_EQ(3u, m_pRedo->GetGroup(2)->m_nSequenceNO);
    // A hard stop, and the system file as its last commit left it.
    delete m_pRedo;
    m_pRedo = nullptr;
    m_pHead->m_bCurrentRedoGroup = 0;
    m_pHead->m_nRedoLogMaxID = 1;
    ASSERT_TRUE(InitRedo());
    EXPECT_EQ(4u, +m_pHead->m_nRedoLogMaxID);
    EXPECT_EQ(REDOGROUP_SEALED, m_pRedo->GetGroup(2)->m_bState) << "the newest log is sealed, not left behind";
    EXPECT_EQ(0, +m_pRedo->m_bCurrentRedoGroup);
    Harvest();
    EXPECT_TRUE(m_strStream == m_strLogs);
}
