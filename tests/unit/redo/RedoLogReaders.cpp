// Unit: what a standby reader sees of the groups while the writer works:
// a group changing logs, a size asked for while the engine's seal request
// stands, and the timestamps a sealed head gives a reader.
#include "FaultFileIO.h"
#include "PackedValue.h"
#include "RedoLogFixture.h"

#include <thread>

using namespace talvortest;

// The group of log 1 is reused for log 4. While its new head is being
// written, a reader asking for log 4 or log 1 must get "not yet" or "gone",
// never the group with log 1's size under log 4's number.
TEST_F(RedoFixture, ReaderNeverSeesThePreviousLogsSizeWhileAGroupOpens)
{
    FaultFileIO io;
    ScopedFileIO scoped(&io);
    ASSERT_NO_FATAL_FAILURE(StartRedo(8192));
    ThreeLogs();
    Seal();
    ASSERT_EQ(50 + 3000, m_pRedo->GetGroup(0)->m_nWriteSize) << "log 1's size still in its entry";

    TALVORCRITICALSECTION stReader;
    InitThreadCritSection(&stReader);
    int nSeen = 0;
    std::string strSeen;
    io.OnCall(FileOp::PWrite, [&](const FileCall& call) {
        if (call.m_strPath.find("/Redo0.log") == std::string::npos || call.m_nOffset != 0 ||
            call.m_nSize != REDOLOGFILE_HEAD_SIZE || nSeen++ != 0)
            return;
        char szPath[MAX_PATH];
        for (UINT nLog : {1u, 4u}) {
            int nGroup = -1;
            BYTE bCur = 0;
            const int nSize = m_pRedo->GetWritePos(nLog, nGroup, bCur, szPath, &stReader);
            if (nGroup == 0 && nSize != 0)
                strSeen += "log " + std::to_string(nLog) + " in group 0 with " + std::to_string(nSize) + " bytes; ";
            m_pRedo->ReleaseRedoLog(nGroup, &stReader);
        }
        if (m_pRedo->GetGroup(0)->m_nSequenceNO == 4 && m_pRedo->GetGroup(0)->m_nWriteSize != 0)
            strSeen += "entry of log 4 with the old size; ";
    });
    Produce(Record(500, 1, 4));
    Pass();
    io.OnCall(FileOp::PWrite, nullptr);
    EXPECT_EQ(1, nSeen) << "the head of log 4 was written once";
    EXPECT_EQ("", strSeen);
}

// The engine asked for a seal; a reader that wants the size meanwhile must
// not turn that request into a mere publish.
TEST_F(RedoFixture, ReadersSizeRequestLeavesTheEnginesSealRequest)
{
    ASSERT_NO_FATAL_FAILURE(StartRedo(8192));
    Produce(Record(700, 1, 1));
    Pass();
    ASSERT_EQ(REDOGROUP_WRITING, m_pRedo->GetGroup(0)->m_bState);
    Ring()->m_bFlushFlag = REDOFLUSH_SEAL;
    // The writer's next pass comes while the reader waits.
    std::thread writer([&] {
        usleep(50000);
        m_pRedo->WritePass(m_st, &m_stCrit);
    });
    EVENTTYPE ev;
    int nSize = m_pRedo->GetWriteSize(0, TRUE, ev);
    writer.join();
    EXPECT_EQ(REDOGROUP_SEALED, m_pRedo->GetGroup(0)->m_bState) << "the engine's seal request was lost";
    EXPECT_EQ(50 + 700, nSize);
}

TEST_F(RedoFixture, LogOfOneStretchEndsAtItsLargestTimestamp)
{
    ASSERT_NO_FATAL_FAILURE(StartRedo(8192));
    for (int nTs : {5, 7, 0, 6}) Produce(Record(100, nTs == 0 ? 12 : 1, nTs));
    Pass();
    Seal();
    ASSERT_EQ(1, m_nSeals);
    MF_REDOLOGFILEHEAD h = GroupHead(0);
    EXPECT_EQ(5, talvortest::Val(h.m_nBeginTimestamp));
    EXPECT_EQ(7, talvortest::Val(h.m_nEndTimestamp));
    // The next log does not inherit the end of this one.
    Produce(Record(100, 1, 3));
    Pass();
    Seal();
    ASSERT_EQ(2, m_nSeals);
    EXPECT_EQ(3, talvortest::Val(GroupHead(1).m_nEndTimestamp));
}
