// The engine's trace: the ring in shared memory, the copier that moves its
// bytes unread into the "TalvorService" series, and what becomes of bad
// positions and foreign segments.
#include "TraceLogFixture.h"


#include <algorithm>
#include <random>
#include <sys/shm.h>
#include <thread>

using namespace talvortest;

namespace {

const int HEAD = (int)sizeof(FILE_TRACEMEMFILEHEAD);

class TraceLogRing : public TraceLogFixture {
protected:
    void SetUp() override
    {
        TraceLogFixture::SetUp();
        m_pLog = &CLogManager::instance();
    }

    void OpenRings(int nCacheMiB = 0) { ASSERT_TRUE(m_pLog->InitLogEnvironment(nullptr, nCacheMiB)); }
    LPFILE_TRACEMEMFILEHEAD Ring() const { return (LPFILE_TRACEMEMFILEHEAD)m_pLog->m_pTraceFileAddr; }

    // Writes all of it as the engine would, letting the copier thread make room.
    int Produce(const std::string& strData)
    {
        size_t nDone = 0;
        for (long long nDeadline = NowMs() + 20000; nDone < strData.size() && NowMs() < nDeadline;) {
            int n = TraceRingWrite(m_pLog->m_pTraceFileAddr, m_pLog->m_nTraceFileSize, strData.data() + nDone,
                                   (int)std::min<size_t>(strData.size() - nDone, 7000));
            nDone += (size_t)n;
            SetEvent(m_pLog->m_hTraceEvent);
            if (n == 0) std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        return (int)nDone;
    }

    static std::string RandomBytes(size_t nSize, unsigned nSeed)
    {
        std::mt19937 rng(nSeed);
        std::string strData(nSize, '\0');
        for (char& c : strData) c = (char)(rng() & 0xFF);
        return strData;
    }

    CLogManager* m_pLog = nullptr;
};

// The engine's stream, through several wraps, is the file's body byte for
// byte, with the copier running as a thread against a concurrent producer.
TEST_F(TraceLogRing, StreamAcrossWrapsEqualsTheFileBody)
{
    OpenRings();
    ASSERT_EQ(0, m_pLog->StartTraceThreads(TRUE));
    std::string strData = RandomBytes(3 * 1024 * 1024 + 12345, 7);
    ASSERT_EQ((int)strData.size(), Produce(strData)) << "the ring stayed full";
    ASSERT_TRUE(WaitUntil(
        [&] { return TalvorLoadShared(&Ring()->m_nReadPos) == TalvorLoadShared(&Ring()->m_nWritePos); }, 20000));
    m_pLog->StopTraceThreads(30);
    std::vector<std::string> files = Series("TalvorService");
    ASSERT_EQ(1u, files.size());
    std::string strBody = BodyOf(ReadWholeFile(files[0]));
    ASSERT_EQ(strData.size(), strBody.size());
    EXPECT_TRUE(strData == strBody) << "first difference at "
                                    << std::mismatch(strData.begin(), strData.end(), strBody.begin()).first -
                                           strData.begin();
}

TEST_F(TraceLogRing, CorruptPositionsAreRefusedAndReset)
{
    OpenRings();
    // A write position past the end: nothing is read from there.
    Ring()->m_nWritePos = 0x200000;
    Ring()->m_nReadPos = HEAD;
    ASSERT_TRUE(m_pLog->CopyTraceRing());
    EXPECT_EQ(HEAD, (int)Ring()->m_nWritePos);
    EXPECT_EQ(HEAD, (int)Ring()->m_nReadPos);
    EXPECT_EQ("", SeriesBody("TalvorService"));

    // A read position inside the head: set to the start of the data.
    memset(m_pLog->m_pTraceFileAddr + HEAD, 'd', 100);
    Ring()->m_nWritePos = HEAD + 100;
    Ring()->m_nReadPos = 10;
    ASSERT_TRUE(m_pLog->CopyTraceRing());
    EXPECT_EQ(HEAD + 100, (int)Ring()->m_nReadPos);
    EXPECT_EQ(std::string(100, 'd'), SeriesBody("TalvorService"));

    // A head that claims more than the segment holds is set back first.
    Ring()->m_nFileTotalSize = 0x7FFFFFFF;
    Ring()->m_nFileHeaderSize = -5;
    Ring()->m_nWritePos = 0x7FFFFF00;
    ASSERT_TRUE(m_pLog->CopyTraceRing());
    EXPECT_EQ(0x100000, (int)Ring()->m_nFileTotalSize);
    EXPECT_EQ(HEAD, (int)Ring()->m_nFileHeaderSize);
    EXPECT_EQ(HEAD, (int)Ring()->m_nWritePos);
}

TEST_F(TraceLogRing, SegmentInUseOfAnotherSizeIsTakenWithinItsBounds)
{
    int nId = shmget(SHMKEY_TRACERING, 0x80000, IPC_CREAT | IPC_EXCL | 0666);
    ASSERT_GT(nId, 0);
    LPBYTE lpOther = (LPBYTE)shmat(nId, nullptr, 0);
    ASSERT_NE((void*)-1, (void*)lpOther);
    // Its user believes in the standard size.
    TraceRingInitHead(lpOther, 0x100000, TRACEMEM_FILETYPE_TRACE);
    OpenRings();
    EXPECT_EQ(0x80000, m_pLog->m_nTraceFileSize);
    Ring()->m_nWritePos = 0x90000;
    ASSERT_TRUE(m_pLog->CopyTraceRing());
    EXPECT_EQ(0x80000, (int)Ring()->m_nFileTotalSize);
    EXPECT_EQ(HEAD, (int)Ring()->m_nWritePos);
    // The producer is bounded by the real size too.
    std::string strData = RandomBytes(0x80000 - HEAD - 1, 3);
    EXPECT_EQ((int)strData.size(), TraceRingWrite(lpOther, 0x80000, strData.data(), (int)strData.size() + 100));
    ASSERT_TRUE(m_pLog->CopyTraceRing());
    EXPECT_EQ(strData, SeriesBody("TalvorService"));
    shmdt(lpOther);
}

} // namespace
