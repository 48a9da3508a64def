// The write buffers of a cache-mode file, checked against a model of the
// file kept apart from the code under test.
#include "FileStorageFixture.h"

#include <atomic>
#include <thread>

using namespace cachetest;
using talvortest::FileOp;

namespace {

// A file with its buffers made for each test; whatever a test did, no latch
// is left taken and, the buffers drained, the disk holds the model.
class FileBuffers : public FileStorageFixture {
protected:
    void SetUp() override
    {
        FileStorageFixture::SetUp();
        Make(TRUE);
    }
    void TearDown() override
    {
        if (m_pStorage != nullptr && !HasFatalFailure()) {
            EXPECT_TRUE(LatchFree());
            EXPECT_TRUE(DrainedFileMatches());
        }
        FileStorageFixture::TearDown();
    }
    void Remake(BOOL bFileCache)
    {
        FileStorageFixture::TearDown();
        FileStorageFixture::SetUp();
        Make(bFileCache);
    }
    int Move(const std::string& strTo)
    {
        std::vector<char> vTo(strTo.begin(), strTo.end());
        vTo.push_back('\0');
        AlignedBytes buf(1048576);
        return m_pStorage->ChangeFilePath(nullptr, &m_info, vTo.data(), buf.m_p, 1048576, nullptr, 1);
    }
};

// Without buffers the same calls go straight to the file: the direct
// write's own test below.
TEST_F(FileBuffers, RandomBlocksComeBackAndReachTheDisk)
{
    std::uniform_int_distribution<long long> part(0, FS_FILE_SIZE / FS_PART - 4);
    // Sectors anywhere in a part, up to three parts long: transfers
    // inside one part, over unread parts, and across span boundaries.
    for (int i = 0; i < 600; i++) {
        long long llPos = part(m_rng) * FS_PART + 512 * (long long)(m_rng() % (FS_PART / 512));
        int nSize = 512 * (1 + (int)(m_rng() % (3 * FS_PART / 512)));
        if (m_rng() % 2 == 0) {
            ASSERT_EQ(0, Write(llPos, nSize)) << i;
        } else {
            ASSERT_TRUE(ReadsBack(llPos, nSize)) << i;
        }
    }
    EXPECT_TRUE(DrainedFileMatches());
    EXPECT_FALSE(m_pStorage->CheckFlush());
}

// The release drains the buffers; on a disk that fails every write it
// still ends.
TEST_F(FileBuffers, ReleaseDrainsTheBuffersAndEndsWhenTheDiskKeepsFailing)
{
    for (bool bFailing : {false, true}) {
        SCOPED_TRACE(bFailing ? "failing disk" : "good disk");
        Remake(TRUE);
        ASSERT_EQ(0, Write(FS_PART, FS_PART));
        ASSERT_EQ(0, Write(9 * FS_SPAN, FS_PART));
        if (bFailing) m_io.FailCall(FileOp::PWrite, m_io.Calls(FileOp::PWrite) + 1, EIO, talvortest::FAULT_ALWAYS);
        m_pStorage->Release();
        m_pStorage = nullptr;
        EXPECT_EQ(bFailing, FirstDiff(FileBytes(), m_vLogical) != -1);
    }
}

TEST_F(FileBuffers, DirectWriteRetriesFailedAndShortTransfersThenReports)
{
    Remake(FALSE);
    // A failed try and a short one: neither is taken for done.
    m_io.FailNext(FileOp::PWrite, EIO, 1);
    m_io.CutTransfer(FileOp::PWrite, 2, 4096);
    ASSERT_EQ(0, Write(3 * FS_PART, FS_PART));
    EXPECT_EQ(-1, FirstDiff(FileBytes(), m_vLogical));
    m_io.FailNext(FileOp::PWrite, EIO, 3);
    std::vector<BYTE> before = FileBytes();
    AlignedBytes buf(FS_PART);
    memset(buf.m_p, 0xAB, FS_PART);
    EXPECT_EQ(1, m_pStorage->WriteBlock(nullptr, 4 * FS_PART, buf.m_p, FS_PART));
    EXPECT_EQ(-1, FirstDiff(FileBytes(), before));
}

// A buffer whose write fails keeps its data for a later flush (the drain
// at the end finds it on disk): a whole span read in and then changed,
// whose first try is cut short and the others fail.
TEST_F(FileBuffers, FailedFlushBufferKeepsItsDataForALaterFlush)
{
    const long long llSpan = 5 * FS_SPAN;
    ASSERT_TRUE(ReadsBack(llSpan, FS_PART));
    ASSERT_EQ(0, Write(llSpan + 3 * FS_PART, 2 * FS_PART));
    ASSERT_EQ(0, Write(llSpan + 9 * FS_PART, FS_PART));
    long long nCalls = m_io.Calls(FileOp::PWrite);
    m_io.CutTransfer(FileOp::PWrite, nCalls + 1, 512);
    m_io.FailCall(FileOp::PWrite, nCalls + 2, EIO, FILESTORE_IO_TRIES - 1);
    EXPECT_EQ(1, m_pStorage->FlushBuffer(nullptr));
    EXPECT_TRUE(ReadsBack(llSpan + 3 * FS_PART, 2 * FS_PART));
    EXPECT_TRUE(DrainedFileMatches());
}

TEST_F(FileBuffers, EvictionWritesTheLeastRecentTailAndAFailedOneWritesStraight)
{
    CTalvorFileStorage::stu_Cache_Buffer* p = nullptr;
    int nBufPos = -1;
    EXPECT_EQ(-1, m_pStorage->AllocCacheBuffer(FS_SPAN - FS_PART, 2 * FS_PART, p, nBufPos));
    EXPECT_EQ(nullptr, p);
    // One changed part in each of 64 spans: every buffer in use, span 0 the
    // least recently used.
    for (int i = 0; i < FILESTORE_BUFFER_NUM; i++) ASSERT_EQ(0, Write((long long)i * FS_SPAN + FS_PART, FS_PART)) << i;
    EXPECT_TRUE(Writes().empty());
    m_io.FailNext(FileOp::PWrite, EIO, 3);
    ASSERT_EQ(0, Write(70LL * FS_SPAN, FS_PART));
    // Three tries at the evicted part, then the new block straight to disk.
    EXPECT_EQ((Calls{{FS_PART, FS_PART}, {FS_PART, FS_PART}, {FS_PART, FS_PART}, {70LL * FS_SPAN, FS_PART}}), Writes());
    std::vector<BYTE> file = FileBytes();
    EXPECT_EQ(0, memcmp(file.data() + FS_PART, m_vDisk.data() + FS_PART, FS_PART));
    EXPECT_EQ(0, memcmp(file.data() + 70LL * FS_SPAN, m_vLogical.data() + 70LL * FS_SPAN, FS_PART));
    // Now the tail goes out and its buffer takes the new span.
    ClearCalls();
    ASSERT_EQ(0, Write(71LL * FS_SPAN, FS_PART));
    EXPECT_EQ((Calls{{FS_PART, FS_PART}}), Writes());
}

// Writers on their own parts and a flusher at once, under the buffers'
// latch: every read gives the part's last write, and nothing is lost on
// its way to the disk (the drained file is checked at the end).
TEST_F(FileBuffers, ThreadsOnTheirOwnBlocksAndAFlusherLoseNothing)
{
    const int nThreads = 4, nRounds = 300;
    // Thread t owns every part p with p % nThreads == t.
    std::vector<std::vector<BYTE>> vData(nThreads, std::vector<BYTE>((size_t)nRounds * FS_PART));
    std::vector<std::vector<long long>> vPos(nThreads);
    for (int t = 0; t < nThreads; t++) {
        for (int r = 0; r < nRounds; r++)
            vPos[t].push_back(((long long)(m_rng() % (FS_FILE_SIZE / FS_PART / nThreads)) * nThreads + t) * FS_PART);
        for (BYTE& b : vData[t]) b = (BYTE)m_rng();
    }
    std::atomic<bool> bStop{false};
    std::atomic<int> nBad{0};
    std::thread flusher([&] {
        TALVORCRITICALSECTION stCrit;
        InitThreadCritSection(&stCrit);
        for (; !bStop; std::this_thread::yield()) nBad += m_pStorage->FlushBuffer(&stCrit) == 1;
    });
    std::vector<std::thread> vThreads;
    for (int t = 0; t < nThreads; t++) {
        vThreads.emplace_back([&, t] {
            TALVORCRITICALSECTION stCrit;
            InitThreadCritSection(&stCrit);
            AlignedBytes buf(FS_PART), back(FS_PART);
            for (int r = 0; r < nRounds; r++) {
                memcpy(buf.m_p, vData[t].data() + (size_t)r * FS_PART, FS_PART);
                nBad += m_pStorage->WriteBlock(&stCrit, vPos[t][r], buf.m_p, FS_PART) != 0;
                nBad += m_pStorage->ReadBlock(&stCrit, vPos[t][r], back.m_p, FS_PART) != 0 ||
                        memcmp(back.m_p, buf.m_p, FS_PART) != 0;
            }
        });
    }
    for (std::thread& th : vThreads) th.join();
    bStop = true;
    flusher.join();
    EXPECT_EQ(0, nBad.load());
    // Later writes of a part overwrite earlier ones in the model as on disk.
    for (int t = 0; t < nThreads; t++)
        for (int r = 0; r < nRounds; r++)
            memcpy(m_vLogical.data() + vPos[t][r], vData[t].data() + (size_t)r * FS_PART, FS_PART);
}

TEST_F(FileBuffers, AMoveIsRefusedOverAFileStopsAtAFailedCopyOrTakesTheChangesAlong)
{
    ASSERT_EQ(0, Write(FS_PART, FS_PART));
    EXPECT_EQ(1, Move(m_tree.File("There.dbf", "x")));
    // The buffered part goes out (one write), then the third piece fails.
    m_io.FailCall(FileOp::PWrite, m_io.Calls(FileOp::PWrite) + 4, EIO, 3);
    EXPECT_EQ(1, Move(m_tree.Path("Moved.dbf")));
    // The old file stays open and whole.
    EXPECT_STREQ(m_strPath.c_str(), m_info.m_lpszFilePath);
    EXPECT_TRUE(ReadsBack(0, 2 * FS_PART));
    // A move that goes through takes the buffered changes along.
    ASSERT_EQ(0, Write(FS_PART, FS_PART));
    ASSERT_TRUE(ReadsBack(4 * FS_SPAN, FS_PART));
    ASSERT_EQ(0, Write(4 * FS_SPAN + 512, 512));
    long long nLoadSize = -1;
    m_info.m_pLoadSize = &nLoadSize;
    std::string strOld = m_strPath;
    std::string strNew = m_tree.Path("moved/deeper/Table7.dbf");
    ASSERT_EQ(0, Move(strNew));
    // The old file stays until the file list names the new one: removing it
    // is the file command's, after that.
    EXPECT_TRUE(TalvorPathExists(strOld.c_str()));
    EXPECT_STREQ(strNew.c_str(), m_info.m_lpszFilePath);
    EXPECT_EQ(FS_FILE_SIZE, nLoadSize);
    m_strPath = strNew;
    EXPECT_EQ(-1, FirstDiff(FileBytes(), m_vLogical));
    // The file goes on at its new place (the drain at the end finds it there).
    ASSERT_EQ(0, Write(9 * FS_PART, FS_PART));
}

}  // namespace
