// Unit: a clean stop while the archiver, on its own thread, hangs on the
// first log longer than a stop used to wait: the ring is drained into the
// groups all the same, and what stays sealed is archived by the next start.
#include "FaultFileIO.h"
#include "RedoLogFixture.h"

#include <atomic>
#include <thread>

using namespace talvortest;

namespace {

const long long ARCHIVE_HANG_MS = 11000; // longer than the 10 s a stop used to wait for a group

// The log number an archive copy is written for ("LogN.log" or its temp
// name ".LogN.log.tmp"), 0 for any other file.
int ArchivedLogOf(const std::string& strPath)
{
    size_t p = strPath.find("/ArchiveLog/");
    return p == std::string::npos ? 0 : atoi(strPath.c_str() + strPath.find("Log", p + 12) + 3);
}

} // namespace

TEST_F(RedoFixture, CleanStopWithTheArchiverBehindDrainsTheRingAndTheNextStartArchivesTheRest)
{
    MakeRing(32768);
    ArchiveInto(m_pHead, m_strDir);
    FaultFileIO io;
    ScopedFileIO scoped(&io);
    ASSERT_TRUE(InitRedo());
    // Five logs of one record each (a record larger than a group fills one),
    // all in the ring when the stop comes.
    for (int i = 0; i < 5; i++) {
        m_vLogs.push_back(Record(4100, 1, i + 1));
        ASSERT_EQ(4100, TraceRingWrite(m_pRing, m_nRingSize, m_vLogs.back().data(), 4100));
    }
    // Logs 1 and 2 must be archived for the writer to find groups for logs 4
    // and 5 (three groups); the copy of log 1 hangs longer than a stop used to
    // wait. Logs 3 on are held until the writer has ended, so that a backlog
    // is left however fast the archiver catches up.
    bool bHung = false;
    std::atomic<bool> bWriterDone{false};
    io.OnCall(FileOp::PWrite, [&](const FileCall& call) {
        int nLog = ArchivedLogOf(call.m_strPath);
        if (nLog == 1 && !bHung) bHung = true, usleep(ARCHIVE_HANG_MS * 1000);
        while (nLog >= 3 && !bWriterDone) usleep(1000);
    });
    m_bExit = TRUE;
    // What the archiver has not done when its time after the writer's end
    // is up stays sealed.
    m_pRedo->m_nArchiveStopLimitMs = -1;
    std::thread writer([&] {
        TALVORCRITICALSECTION stCrit;
        InitThreadCritSection(&stCrit);
        m_pRedo->WriteLog(stCrit);
    });
    std::thread archiver([&] {
        void *hFile = nullptr, *hSrc = nullptr;
        m_pRedo->ArchiveFile(hFile, hSrc);
    });
    writer.join();
    bWriterDone = true;
    archiver.join();
    io.OnCall(FileOp::PWrite, nullptr);
    EXPECT_TRUE(bHung);
    EXPECT_EQ(+Ring()->m_nReadPos, +Ring()->m_nWritePos) << "the stop left bytes in the ring";
    ASSERT_GE(OldestSealed(), 0) << "the archiver was to leave a backlog";

    // The next start (a new ring: the stop took the old one along) calls
    // nothing archived that is not, and archives the backlog.
    delete m_pRedo;
    FreeRing(), MakeRing(32768);
    m_bExit = FALSE;
    ASSERT_TRUE(InitRedo());
    ASSERT_GE(OldestSealed(), 0);
    EXPECT_EQ((int)m_pRedo->GetGroup(OldestSealed())->m_nSequenceNO - 1, +Ring()->m_nLogArchiveNo)
        << "a sealed log was called archived";
    RunArchiver(m_pRedo);
    EXPECT_EQ(5, +Ring()->m_nLogArchiveNo);
    for (int nLog = 1; nLog <= 5; nLog++) {
        std::string strCopy = ReadWholeFile(m_strDir + "A/ArchiveLog/Log" + std::to_string(nLog) + ".log");
        EXPECT_TRUE(strCopy.size() == REDOLOGFILE_HEAD_SIZE + 4100 && strCopy.substr(REDOLOGFILE_HEAD_SIZE) == m_vLogs[nLog - 1]) << nLog;
    }
}
