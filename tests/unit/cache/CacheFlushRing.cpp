// The table flush pipeline over a ring posted as the engine posts it; file
// bytes are checked against a model kept beside, never read back through
// the backend.
#include "FlushRingFixture.h"

#include <fstream>
#include <sys/resource.h>
#include <unistd.h>

using namespace cachetest;
using talvortest::FileOp;

namespace {

// The limit on this process's address space: set to what it uses now and
// llMore bytes more, given back at the end of the scope.
struct AddressSpaceLimit {
    explicit AddressSpaceLimit(long long llMore)
    {
        long long llPages = 0;
        std::ifstream("/proc/self/statm") >> llPages;
        m_bSet = llPages > 0 && getrlimit(RLIMIT_AS, &m_old) == 0;
        struct rlimit r = m_old;
        r.rlim_cur = (rlim_t)(llPages * sysconf(_SC_PAGESIZE) + llMore);
        m_bSet = m_bSet && setrlimit(RLIMIT_AS, &r) == 0;
    }
    ~AddressSpaceLimit()
    {
        if (m_bSet) setrlimit(RLIMIT_AS, &m_old);
    }
    struct rlimit m_old;
    bool m_bSet = false;
};

// The unknown type is posted with a size near 2 GiB (found by the
// CacheFlushEntry fuzz target, regress-unknown-type-huge-size): a buffer of
// that size made for an entry that is passed over cannot be had under the
// limit, and the failed entry would withhold the timestamps behind it.
TEST_F(FlushRing, EveryTypeCarriedOutInOrderAcrossTheRingsEnd)
{
    MakeRing();
    // The ring wraps from 127 to 0 in the middle of the batch.
    Head()->m_bStorageFlushPos = 125;
    m_nPos = 125;
    PostData(10, 40LL * FS_PART);
    PostPage(CACHEFLUSH_HEAD, 3, 5LL * FS_PART); // a head goes to offset 0 whatever its entry says
    PostPage(CACHEFLUSH_EXHEAD, 4, 1LL * FS_PART);
    PostPage(CACHEFLUSH_MAP, 5, 3LL * FS_PART, 1);
    PostData(11, 50LL * FS_PART, false)->m_llTimestamp = 0;  // cancelled: dropped, result 0
    PostUnknown();
    PostTimestamp(9100, 7, 12);
    PostTimestamp(9200, -1, CACHEFLUSH_TSNUM_CLEAR);
    {
        AddressSpaceLimit limit(512LL * 1048576);
        ASSERT_TRUE(limit.m_bSet);
        Run();
    }

    EXPECT_EQ(std::vector<int>(8, CACHEFLUSH_DONE), Results());
    EXPECT_EQ((125 + 8) % CACHE_FLUSH_RING_SIZE, (int)Head()->m_bStorageFlushPos);
    EXPECT_EQ(-1, FirstDiff(FileBytes(), m_vLogical));
    for (int i : {3, 4, 5}) EXPECT_EQ(0, Val(m_pCache->m_pFlushFile[i].m_bStatus)) << "image " << i;
    EXPECT_EQ(0, Val(m_pCache->m_pFlushTimestampFile[7].m_bStatus));
    LPBYTE lpArray = Base() + m_llTsImages + 7LL * CACHEFLUSH_TSIMAGE_SIZE;
    std::vector<BYTE> vArray(lpArray, lpArray + CACHEFLUSH_TSIMAGE_SIZE);
    EXPECT_TRUE((std::vector<FakeCacheModule::Commit>{{false, 9100, true, vArray, 12},
                                                      {false, 9200, false, {}, CACHEFLUSH_TSNUM_CLEAR}}) ==
                m_module.m_vCommits);
    // The data block's flush mark is cleared, the rest of the live block
    // left alone; the cancelled one keeps its mark.
    EXPECT_EQ(0, Val(((LPBLOCKHEAD)m_vLive[0])->m_bFlushFlag));
    EXPECT_EQ(1, Val(((LPBLOCKHEAD)m_vLive[0])->m_bSaveFlag));
    EXPECT_EQ(2, Val(((LPBLOCKHEAD)m_vLive[0])->m_bThreadNum));
    EXPECT_EQ(1, Val(((LPBLOCKHEAD)m_vLive[1])->m_bFlushFlag));
}


// Entries outside the segment, the pools or the file are unusable; an
// unknown file, a file without a backend or of the other pipeline's type
// gets its own code. None of them writes a byte or commits a timestamp.
TEST_F(FlushRing, EntriesOutsideSegmentPoolOrFileOrOfNoFileOfOursWriteNothing)
{
    MakeRing();
    FILEINFO stBare = m_info;
    stBare.m_bFileNo = 9;
    stBare.m_pStorageFile = nullptr;
    m_module.m_arFiles[9] = &stBare;
    FILEINFO stIndex = m_info;
    stIndex.m_bFileNo = 11;
    stIndex.m_bFileType = (char)FILETYPE_INDEX;
    m_module.m_arFiles[11] = &stIndex;
    long long llSeg = m_pCache->m_llCacheBufferSize;
    PostData(20, 40LL * FS_PART, false)->m_llCacheBlockOffset = 0;
    PostData(21, 41LL * FS_PART, false)->m_llFileBlockOffset = 0;
    // A data block past the segment's end, and one inside the head blocks.
    PostData(22, 42LL * FS_PART, false)->m_llCacheBlockOffset = llSeg - FS_PART / 2;
    PostData(23, 43LL * FS_PART, false)->m_llCacheBlockOffset = CACHE_BLOCK_SIZE;
    // A data block whose size runs past the segment.
    PostData(24, 44LL * FS_PART, false)->m_nBlockSize = 0x7ffffe00;
    // A data block past the file's end, and one over the head page.
    PostData(25, FS_FILE_SIZE - FS_PART / 2, false);
    PostData(26, 512, false);
    // A map image of a pool index past the pool.
    PostPage(CACHEFLUSH_MAP, 6, 3LL * FS_PART)->m_bReserved = CACHE_FLUSHFILE_NUM;
    // A head image whose size is not a page.
    PostPage(CACHEFLUSH_HEAD, 8, 0)->m_nBlockSize = 2 * CACHE_PAGE_SIZE;
    // A timestamp array running past the segment, and one of a bad index.
    PostTimestamp(9999, 2, 3)->m_llCacheBlockOffset = llSeg - 100;
    PostTimestamp(9998, 3, 3)->m_bReserved = CACHE_FLUSHTSFILE_NUM;
    PostData(30, 40LL * FS_PART, false)->m_bFileNo = 9;
    PostPage(CACHEFLUSH_MAP, 2, 3LL * FS_PART)->m_bFileNo = 9;
    PostData(31, 41LL * FS_PART, false)->m_bFileNo = 200;
    PostPage(CACHEFLUSH_MAP, 3, 3LL * FS_PART)->m_bFileNo = 201;
    PostData(32, 42LL * FS_PART, false)->m_bFileNo = 11;
    m_vLogical = m_vDisk;
    Run();

    std::vector<int> vWant(11, CACHEFLUSH_UNUSABLE);
    for (int n : {CACHEFLUSH_NOBACKEND, CACHEFLUSH_NOBACKEND, CACHEFLUSH_NOFILE, CACHEFLUSH_NOFILE, CACHEFLUSH_NOFILE})
        vWant.push_back(n);
    EXPECT_EQ(vWant, Results());
    ExpectNothingWritten();
    EXPECT_TRUE(m_module.m_vCommits.empty());
    // No image is given back for an unusable entry; those of the others are.
    EXPECT_EQ(1, Val(m_pCache->m_pFlushFile[8].m_bStatus));
    EXPECT_EQ(0, Val(m_pCache->m_pFlushFile[2].m_bStatus));
    EXPECT_EQ(0, Val(m_pCache->m_pFlushFile[3].m_bStatus));
    // Every block stays dirty for the engine to post again.
    for (LPBYTE lpLive : m_vLive) EXPECT_EQ(1, Val(((LPBLOCKHEAD)lpLive)->m_bSaveFlag));
}

TEST_F(FlushRing, FailedWriteGives252KeepsTheBlockDirtyAndHoldsTheTimestamp)
{
    MakeRing();
    PostData(40, 40LL * FS_PART);
    // Every try of the second block's write fails.
    m_io.FailCall(FileOp::PWrite, m_io.Calls(FileOp::PWrite) + 2, EIO, FILESTORE_IO_TRIES);
    PostData(41, 41LL * FS_PART, false);
    PostTimestamp(8000, -1, 0);
    Run();

    EXPECT_EQ((std::vector<int>{CACHEFLUSH_DONE, CACHEFLUSH_FAILED, CACHEFLUSH_FAILED}), Results());
    EXPECT_TRUE(m_module.m_vCommits.empty()) << "a timestamp stood for a block that is not on disk";
    LPBLOCKHEAD h = (LPBLOCKHEAD)m_vLive[1];
    EXPECT_EQ(1, Val(h->m_bSaveFlag));
    EXPECT_EQ(-1, FirstDiff(FileBytes(), m_vLogical));

    // The engine posts the block again; now it is written, and the next
    // timestamp is committed.
    m_vPosted.clear();
    TalvorStoreShared(&m_pCache->m_bExit, 0);
    PostData(41, 41LL * FS_PART, true, m_vLive[1]);
    PostTimestamp(8100, -1, 0);
    Run();
    EXPECT_EQ((std::vector<int>{CACHEFLUSH_DONE, CACHEFLUSH_DONE}), Results());
    ASSERT_EQ(1u, m_module.m_vCommits.size());
    EXPECT_EQ(8100, m_module.m_vCommits[0].llTimestamp);
    EXPECT_EQ(-1, FirstDiff(FileBytes(), m_vLogical));
}


// Blocks go through the write buffers into a file opened for buffered
// writes: nothing is durable until synced. The device dies after the Nth
// write or sync, for every N the batch reaches, and the power goes. Each
// timestamp the pipeline committed must then find every block posted
// before it on disk with its bytes.
class FlushRingPowerCut : public FlushRing, public ::testing::WithParamInterface<int> {
protected:
    struct Batch {
        std::vector<long long> vOffsets;  // blocks in posting order
        std::vector<size_t> vBefore;      // blocks before each timestamp
        std::vector<long long> vTs;
    };
    void PostBatch(Batch& b)
    {
        const int arBlocks[] = {3, 2, 4};
        UINT nBlockNo = 100;
        long long llTs = 20000;
        for (int nGroup : arBlocks) {
            for (int i = 0; i < nGroup; i++) {
                // Spread over several spans, some sharing one.
                long long llOffset = (long long)(8 + nBlockNo % 7 * 21 + nBlockNo % 3) * FS_PART;
                PostData(nBlockNo++, llOffset);
                b.vOffsets.push_back(llOffset);
            }
            b.vBefore.push_back(b.vOffsets.size());
            b.vTs.push_back(llTs);
            PostTimestamp(llTs, -1, 0);
            llTs += 1000;
        }
    }
};

// Cuts 1 to 40 cover every write and sync of the batch (about 20); the
// last ones find the batch whole.
TEST_P(FlushRingPowerCut, ACommittedTimestampFindsEveryEarlierBlockOnDisk)
{
    const long long nCut = GetParam();
    MakeRing(TRUE, 1);
    Batch b;
    PostBatch(b);
    long long nCalls = 0;
    auto fnCount = [&](const talvortest::FileCall&) {
        if (++nCalls == nCut) m_io.DieAfter(FileOp::PWrite, 0);
    };
    m_io.AfterCall(FileOp::PWrite, fnCount);
    m_io.AfterCall(FileOp::FSync, fnCount);
    Run();
    m_io.AfterCall(FileOp::PWrite, nullptr);
    m_io.AfterCall(FileOp::FSync, nullptr);
    m_io.LosePower();
    std::vector<BYTE> vFile = FileBytes();
    ASSERT_EQ((size_t)FS_FILE_SIZE, vFile.size());
    for (const FakeCacheModule::Commit& c : m_module.m_vCommits) {
        size_t nGroup = 0;
        while (nGroup < b.vTs.size() && b.vTs[nGroup] != c.llTimestamp) nGroup++;
        ASSERT_LT(nGroup, b.vTs.size());
        for (size_t i = 0; i < b.vBefore[nGroup]; i++) {
            long long llOff = b.vOffsets[i];
            EXPECT_EQ(0, memcmp(vFile.data() + llOff, m_vLogical.data() + llOff, FS_PART))
                << "timestamp " << c.llTimestamp << " committed but block at " << llOff << " is not on disk";
        }
    }
    // Without a cut the whole batch goes through and every timestamp is
    // committed. Every write and sync belongs to the drain before some
    // timestamp, so once one failed after the cut that one is withheld.
    if (nCalls < nCut) {
        EXPECT_EQ(b.vTs.size(), m_module.m_vCommits.size());
    }
    if (nCalls > nCut) {
        EXPECT_LT(m_module.m_vCommits.size(), b.vTs.size());
    }
}

INSTANTIATE_TEST_SUITE_P(EveryCut, FlushRingPowerCut, ::testing::Range(1, 41));

} // namespace
