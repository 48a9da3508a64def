// The table flush pipeline over a ring posted as the engine posts it; file
// bytes are checked against a model kept beside, never read back through
// the backend.
#include "FlushRingFixture.h"

#include <chrono>
#include <fstream>
#include <sys/resource.h>
#include <thread>
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
        if (llPages <= 0 || getrlimit(RLIMIT_AS, &m_old) != 0) return;
        struct rlimit r = m_old;
        r.rlim_cur = (rlim_t)(llPages * sysconf(_SC_PAGESIZE) + llMore);
        m_bSet = setrlimit(RLIMIT_AS, &r) == 0;
    }
    ~AddressSpaceLimit() { if (m_bSet) setrlimit(RLIMIT_AS, &m_old); }
    struct rlimit m_old = {};
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
    PostData(11, 50LL * FS_PART, false)->m_llTimestamp = 0;  // cancelled: dropped, result 0
    PostUnknown();
    PostTimestamp(9100, 7, 12);
    PostTimestamp(9200, -1, CACHEFLUSH_TSNUM_CLEAR);
    {
        AddressSpaceLimit limit(512LL * 1048576);
        ASSERT_TRUE(limit.m_bSet);
        Run();
    }

    EXPECT_EQ(std::vector<int>(6, CACHEFLUSH_DONE), Results());
    EXPECT_EQ((125 + 6) % CACHE_FLUSH_RING_SIZE, (int)Head()->m_bStorageFlushPos);
    EXPECT_EQ(-1, FirstDiff(FileBytes(), m_vLogical));
    EXPECT_EQ(0, Val(m_pCache->m_pFlushFile[3].m_bStatus)) << "the head's image not given back";
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
    // A data block in a map block (past the head blocks), and one past the
    // segment's end.
    PostData(21, 41LL * FS_PART, false)->m_llCacheBlockOffset = (long long)CACHE_HEAD_BLOCKS * CACHE_BLOCK_SIZE;
    PostData(22, 42LL * FS_PART, false)->m_llCacheBlockOffset = llSeg - FS_PART / 2;
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
    PostPage(CACHEFLUSH_MAP, 2, 3LL * FS_PART)->m_bFileNo = 9;
    PostData(31, 41LL * FS_PART, false)->m_bFileNo = 200;
    PostData(32, 42LL * FS_PART, false)->m_bFileNo = 11;
    m_vLogical = m_vDisk;
    Run();

    std::vector<int> vWant(9, CACHEFLUSH_UNUSABLE);
    for (int n : {CACHEFLUSH_NOBACKEND, CACHEFLUSH_NOFILE, CACHEFLUSH_NOFILE}) vWant.push_back(n);
    EXPECT_EQ(vWant, Results());
    ExpectNothingWritten();
    EXPECT_TRUE(m_module.m_vCommits.empty());
    // No image is given back for an unusable entry; those of the others are.
    EXPECT_EQ(1, Val(m_pCache->m_pFlushFile[8].m_bStatus));
    EXPECT_EQ(0, Val(m_pCache->m_pFlushFile[2].m_bStatus));
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

// A pause comes while the flush loop grows the file: it is granted only
// once the growth is over, and while it stands the loop's rounds leave the
// file alone though it is short of room again.
TEST_F(FlushRing, APauseIsGrantedOnlyOnceTheLoopIsOffTheFileAndKeepsItOff)
{
    MakeRing();
    // The cached head of a file nearly full; growth needs a flashback and a
    // system head.
    static char s_cFlashback;
    static SYSTEMFILEHEAD s_stHead;
    m_module.m_pFlashback = reinterpret_cast<CTalvorFlashback*>(&s_cFlashback);
    m_module.m_pSystemHead = &s_stHead;
    LPTABLEFILEHEAD lpHead = (LPTABLEFILEHEAD)(Base() + (long long)Head()->m_nFileInfoNo[FS_FILE_NO] * CACHE_BLOCK_SIZE);
    memset(lpHead, 0, CACHE_PAGE_SIZE);
    lpHead->m_nDataFlag = TABLEFILE_DATAFLAG;
    lpHead->m_bFileType = FILETYPE_TABLE;
    lpHead->m_bFileNo = FS_FILE_NO;
    lpHead->m_nFileTotalSize = FS_FILE_SIZE;
    lpHead->m_nFileFreeMemoryOffset = FS_FILE_SIZE - FS_PART;
    // Short rounds, so that the paused file is passed over many times.
    m_pCache->m_nWaitTime = 20;
    // The growth hangs on its first write: the loop is inside the file.
    m_io.Hold(FileOp::PWrite);
    std::thread tLoop([&] { EXPECT_EQ(S_OK, m_pCache->StorageFlush(nullptr)); });
    ASSERT_TRUE(m_io.WaitHeld(20000)) << "the loop never grew the file";
    ExpectPauseWaitsOutTheHold("the loop still grew the file");
    const long long llGrown = Val(lpHead->m_nFileTotalSize);
    EXPECT_EQ(FS_FILE_SIZE + CACHEFLUSH_GROW_SIZE, llGrown);
    lpHead->m_nFileFreeMemoryOffset = llGrown - FS_PART;
    // Long enough for a growth of the file to end (it shows at its end).
    std::this_thread::sleep_for(std::chrono::milliseconds(2000));
    EXPECT_EQ(llGrown, Val(lpHead->m_nFileTotalSize)) << "the loop grew a paused file";
    m_pCache->ResumeFile();
    TalvorStoreShared(&m_pCache->m_bExit, 1);
    tLoop.join();
}

} // namespace
