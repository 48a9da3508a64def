// FlushFileBlock, the last pass at a stop with the engine lost, checked
// against a model of the file's bytes.
#include "CacheFileHeadArea.h"
#include "FlushRingFixture.h"

using namespace cachetest;

namespace {

const long long HEAD_TS = 4000;

class FlushLast : public FlushRing {
protected:
    // The file's head area in its cache chain (head page, first map block),
    // as a new file puts it there.
    void MakeFile()
    {
        MakeRing();
        long long llSecond = 0;
        ASSERT_EQ(0, m_pCache->LoadFile2Cache(nullptr, FS_FILE_NO, llSecond));
        CACHEHEADAREADEF stDef = {FS_FILE_NO, FILETYPE_TABLE, 1, 10, FS_FILE_SIZE, HEAD_TS};
        std::vector<BYTE> vArea(2 * CACHE_PAGE_SIZE);
        int nEx = -1;
        ASSERT_TRUE(CacheBuildHeadArea(stDef, vArea.data(), (long long)vArea.size(), &nEx));
        ASSERT_EQ(0, nEx);
        ASSERT_EQ(0, m_pCache->NewFile2Cache(nullptr, FS_FILE_NO, FILETYPE_TABLE, vArea.data(), 0));
        m_lpHead = (LPTABLEFILEHEAD)(Base() + (long long)Head()->m_nFileInfoNo[FS_FILE_NO] * CACHE_BLOCK_SIZE);
        m_lpMap = (LPBASEFILEBLOCKMAPHEAD_CACHE)(Base() + llSecond);
        ASSERT_EQ(BLOCKMAP_CACHE_DATAFLAG, Val(m_lpMap->m_nDataFlag));
        ASSERT_GT(Val(m_lpHead->m_nMaxBlockMapNum), 8);
        // The head always reaches offset 0.
        memcpy(m_vLogical.data(), m_lpHead, CACHE_PAGE_SIZE);
        ClearCalls();
    }
    // A block of the file in the cache, its place in the map; dirty by the
    // flags given. The model learns it only when it must be written.
    LPBLOCKHEAD Block(UINT nBlockNo, long long llFileOffset, BYTE bSave, BYTE bFlush)
    {
        PostData(nBlockNo, llFileOffset, bSave == 1 || bFlush == 1);
        // Only the cache block is wanted; the ring stays empty.
        m_pCache->m_pCacheFlush[m_vPosted.back()].m_bStatus = 0;
        LPBLOCKHEAD h = (LPBLOCKHEAD)m_vLive.back();
        h->m_bSaveFlag = bSave;
        h->m_bFlushFlag = bFlush;
        m_lpMap->m_pBlockMap[nBlockNo - 1].m_nBlockOffset = llFileOffset;
        return h;
    }

    LPTABLEFILEHEAD m_lpHead = nullptr;
    LPBASEFILEBLOCKMAPHEAD_CACHE m_lpMap = nullptr;
};

TEST_F(FlushLast, EveryDirtyBlockReachesItsPlaceAndItsMarksClear)
{
    MakeFile();
    LPBLOCKHEAD pSaved = Block(1, 30LL * FS_PART, 1, 0);
    LPBLOCKHEAD pFlushed = Block(5, 31LL * FS_PART, 0, 1);
    LPBLOCKHEAD pClean = Block(6, 32LL * FS_PART, 0, 0);
    // A map block that the cache does not hold: passed over, traced.
    UINT nFar = (UINT)Val(m_lpHead->m_nMaxBlockMapNum) * 3 + 1;
    LPBLOCKHEAD pFar = Block(2, 33LL * FS_PART, 1, 0);
    m_lpMap->m_pBlockMap[1].m_nBlockOffset = 0;
    pFar->m_nBlockNo = nFar;
    memcpy(m_vLogical.data() + 33LL * FS_PART, m_vDisk.data() + 33LL * FS_PART, FS_PART);
    // The map block is not marked and not newer than the head: not written.
    m_lpMap->m_bSaveFlag = 0;
    m_lpMap->m_nTimestamp = HEAD_TS;

    EXPECT_EQ(0, m_pCache->FlushFileBlock(nullptr));
    EXPECT_EQ(-1, FirstDiff(FileBytes(), m_vLogical));
    EXPECT_EQ(0, Val(pSaved->m_bSaveFlag));
    EXPECT_EQ(0, Val(pFlushed->m_bFlushFlag));
    EXPECT_EQ(0, Val(pClean->m_bSaveFlag));
    EXPECT_EQ(0, Val(m_lpHead->m_bSaveFlag));
    EXPECT_TRUE(Traced(60007002, "MAP header is empty"));
    EXPECT_TRUE(LatchFree());
}

TEST_F(FlushLast, AMapBlockMarkedOrNewerThanTheHeadIsWritten)
{
    MakeFile();
    m_lpMap->m_bSaveFlag = 0;
    m_lpMap->m_nTimestamp = HEAD_TS + 1;
    long long llMapPlace = Val(m_lpHead->m_nBlockMapStartOffset);
    ASSERT_EQ((long long)CACHE_PAGE_SIZE, llMapPlace);
    memcpy(m_vLogical.data() + llMapPlace, m_lpMap, CACHE_PAGE_SIZE);
    EXPECT_EQ(0, m_pCache->FlushFileBlock(nullptr));
    EXPECT_EQ(-1, FirstDiff(FileBytes(), m_vLogical));
    EXPECT_EQ(0, Val(m_lpMap->m_bSaveFlag));
}

TEST_F(FlushLast, AFailedWriteStillClearsTheMarksAndTheOthersGoOn)
{
    MakeFile();
    LPBLOCKHEAD pFirst = Block(1, 30LL * FS_PART, 1, 0);
    LPBLOCKHEAD pSecond = Block(3, 34LL * FS_PART, 1, 1);
    // Every try of the first block's write fails: no later chance comes.
    m_io.FailCall(talvortest::FileOp::PWrite, m_io.Calls(talvortest::FileOp::PWrite) + 1, EIO, FILESTORE_IO_TRIES);
    memcpy(m_vLogical.data() + 30LL * FS_PART, m_vDisk.data() + 30LL * FS_PART, FS_PART);
    m_lpMap->m_bSaveFlag = 0;
    m_lpMap->m_nTimestamp = HEAD_TS;
    EXPECT_EQ(0, m_pCache->FlushFileBlock(nullptr));
    EXPECT_EQ(0, Val(pFirst->m_bSaveFlag));
    EXPECT_EQ(0, Val(pSecond->m_bSaveFlag));
    EXPECT_EQ(0, Val(pSecond->m_bFlushFlag));
    EXPECT_EQ(-1, FirstDiff(FileBytes(), m_vLogical));
}

TEST_F(FlushLast, AHeadNamingNoNextPageGives4AfterWritingItsHead)
{
    MakeFile();
    m_lpHead->m_nCacheStartOffset = 0;
    memcpy(m_vLogical.data(), m_lpHead, CACHE_PAGE_SIZE);
    EXPECT_EQ(CACHE_RESULT_NOCHAIN, m_pCache->FlushFileBlock(nullptr));
    EXPECT_EQ(-1, FirstDiff(FileBytes(), m_vLogical));
}

} // namespace
