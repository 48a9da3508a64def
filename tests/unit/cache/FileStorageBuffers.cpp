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
    void Remake(BOOL bFileCache, BYTE bOpenFileUseBuffer = 1)
    {
        FileStorageFixture::TearDown();
        FileStorageFixture::SetUp();
        Make(bFileCache, FILETYPE_TABLE, bOpenFileUseBuffer);
    }
    int Move(const std::string& strTo)
    {
        std::vector<char> vTo(strTo.begin(), strTo.end());
        vTo.push_back('\0');
        AlignedBytes buf(1048576);
        return m_pStorage->ChangeFilePath(nullptr, &m_info, vTo.data(), buf.m_p, 1048576, nullptr, 1);
    }
};

TEST_F(FileBuffers, RandomBlocksComeBackAndReachTheDiskWithAndWithoutBuffers)
{
    for (BOOL bFileCache : {TRUE, FALSE}) {
        SCOPED_TRACE(bFileCache ? "with buffers" : "without buffers");
        Remake(bFileCache);
        EXPECT_EQ(bFileCache, m_pStorage->HasBuffers());
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
        EXPECT_EQ(-1, m_pStorage->FlushBuffer(nullptr));
        EXPECT_FALSE(m_pStorage->CheckFlush());
    }
}

TEST_F(FileBuffers, DirectAndSynchronousOpenTakesEveryTransfer)
{
    // Opened O_DIRECT | O_SYNC: a transfer of a bad length or offset would
    // fail with EINVAL, so every path must stay on 512-byte bounds, also the
    // changed range of a whole span written at odd places.
    Remake(TRUE, 0);
    ASSERT_TRUE(ReadsBack(0, FS_PART));
    ASSERT_EQ(0, Write(100, 1000));
    ASSERT_EQ(0, Write(FS_PART + 7, 3));
    ASSERT_TRUE(ReadsBack(0, 2 * FS_PART));
    ASSERT_EQ(0, Write(3 * FS_SPAN + FS_PART, 2 * FS_PART));
    ASSERT_TRUE(ReadsBack(3 * FS_SPAN, FS_PART));
    ASSERT_TRUE(ReadsBack(3 * FS_SPAN - FS_PART, 4 * FS_PART));
    ASSERT_EQ(0, Write(5 * FS_SPAN - FS_PART, FS_SPAN));
    EXPECT_TRUE(DrainedFileMatches());
    for (const auto& c : Writes()) {
        EXPECT_EQ(0, c.first % 512) << c.first;
        EXPECT_EQ(0, c.second % 512) << c.second;
    }
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
        if (!bFailing) {
            EXPECT_EQ(-1, FirstDiff(FileBytes(), m_vLogical));
        }
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
// at the end finds it on disk): a span of changed parts, and a whole span
// read in and then changed, whose first try is cut short.
TEST_F(FileBuffers, FailedFlushBufferKeepsItsDataForALaterFlush)
{
    for (bool bWhole : {false, true}) {
        SCOPED_TRACE(bWhole ? "whole span" : "changed parts");
        const long long llSpan = bWhole ? 5 * FS_SPAN : 2 * FS_SPAN;
        if (bWhole) {
            ASSERT_TRUE(ReadsBack(llSpan, FS_PART));
        }
        ASSERT_EQ(0, Write(llSpan + 3 * FS_PART, 2 * FS_PART));
        ASSERT_EQ(0, Write(llSpan + 9 * FS_PART, FS_PART));
        std::vector<BYTE> before = FileBytes();
        long long nCalls = m_io.Calls(FileOp::PWrite);
        if (bWhole) m_io.CutTransfer(FileOp::PWrite, nCalls + 1, 512);
        m_io.FailCall(FileOp::PWrite, nCalls + 1 + bWhole, EIO, FILESTORE_IO_TRIES - bWhole);
        EXPECT_EQ(1, m_pStorage->FlushBuffer(nullptr));
        if (!bWhole) {
            EXPECT_EQ(-1, FirstDiff(FileBytes(), before));
        }
        EXPECT_TRUE(ReadsBack(llSpan + 3 * FS_PART, 2 * FS_PART));
        EXPECT_TRUE(DrainedFileMatches());
    }
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

TEST_F(FileBuffers, ThreadsOnTheirOwnBlocksAndAFlusherLoseNothing)
{
    const int nThreads = 4;
    const int nRounds = 300;
    // Thread t owns every part p with p % nThreads == t.
    std::vector<std::vector<BYTE>> vData(nThreads);
    std::vector<std::vector<long long>> vPos(nThreads);
    for (int t = 0; t < nThreads; t++) {
        for (int r = 0; r < nRounds; r++) {
            long long llPart = (long long)(m_rng() % (FS_FILE_SIZE / FS_PART / nThreads)) * nThreads + t;
            vPos[t].push_back(llPart * FS_PART);
        }
        vData[t].resize((size_t)nRounds * FS_PART);
        for (BYTE& b : vData[t]) b = (BYTE)m_rng();
    }
    std::atomic<bool> bStop{false};
    std::atomic<int> nBad{0};
    std::thread flusher([&] {
        TALVORCRITICALSECTION stCrit;
        InitThreadCritSection(&stCrit);
        while (!bStop) {
            if (m_pStorage->FlushBuffer(&stCrit) == 1) nBad++;
            std::this_thread::yield();
        }
    });
    std::vector<std::thread> vThreads;
    for (int t = 0; t < nThreads; t++) {
        vThreads.emplace_back([&, t] {
            TALVORCRITICALSECTION stCrit;
            InitThreadCritSection(&stCrit);
            AlignedBytes buf(FS_PART), back(2 * FS_PART);
            for (int r = 0; r < nRounds; r++) {
                memcpy(buf.m_p, vData[t].data() + (size_t)r * FS_PART, FS_PART);
                if (m_pStorage->WriteBlock(&stCrit, vPos[t][r], buf.m_p, FS_PART) != 0) nBad++;
                // The last write of this part so far must come back.
                if (m_pStorage->ReadBlock(&stCrit, vPos[t][r], back.m_p, FS_PART) != 0 ||
                    memcmp(back.m_p, buf.m_p, FS_PART) != 0)
                    nBad++;
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
    // The file goes on at its new place, through the same buffers.
    ASSERT_EQ(0, Write(9 * FS_PART, FS_PART));
    EXPECT_TRUE(ReadsBack(0, 2 * FS_SPAN));
}

}  // namespace
