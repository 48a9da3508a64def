// FlushFileBlock, the last pass at a stop with the engine lost, checked
// against a model of the file's bytes.
#include "FlushRingFixture.h"

using namespace cachetest;

namespace {

TEST_F(FlushLast, AMapBlockNewerThanTheHeadIsWrittenAndAHeadWithoutAChainGives4)
{
    MakeFile();
    m_lpMap->m_nTimestamp = HEAD_TS + 1;
    long long llMapPlace = Val(m_lpHead->m_nBlockMapStartOffset);
    ASSERT_EQ((long long)CACHE_PAGE_SIZE, llMapPlace);
    memcpy(m_vLogical.data() + llMapPlace, m_lpMap, CACHE_PAGE_SIZE);
    EXPECT_EQ(0, m_pCache->FlushFileBlock(nullptr));
    EXPECT_EQ(-1, FirstDiff(FileBytes(), m_vLogical));
    // A marked map block is written and its mark cleared with the write.
    m_lpMap->m_bSaveFlag = 1;
    EXPECT_EQ(0, m_pCache->FlushFileBlock(nullptr));
    EXPECT_EQ(0, Val(m_lpMap->m_bSaveFlag));
    EXPECT_EQ(-1, FirstDiff(FileBytes(), m_vLogical));
    // A head naming no next page gives 4, its head written all the same.
    m_lpHead->m_nCacheStartOffset = 0;
    memcpy(m_vLogical.data(), m_lpHead, CACHE_PAGE_SIZE);
    EXPECT_EQ(CACHE_RESULT_NOCHAIN, m_pCache->FlushFileBlock(nullptr));
    EXPECT_EQ(-1, FirstDiff(FileBytes(), m_vLogical));
}

// The last pass writes the dirty blocks (a clean one is left alone); a
// failed write and a block whose map block the cache does not hold do not
// keep it from the others.
TEST_F(FlushLast, AFailedWriteStillClearsTheMarksAndTheOthersGoOn)
{
    MakeFile();
    LPBLOCKHEAD pFirst = Block(1, 30LL * FS_PART, 1, 0);
    UINT nFar = (UINT)Val(m_lpHead->m_nMaxBlockMapNum) * 3 + 1;
    Block(2, 33LL * FS_PART, 1, 0)->m_nBlockNo = nFar;
    m_lpMap->m_pBlockMap[1].m_nBlockOffset = 0;
    memcpy(m_vLogical.data() + 33LL * FS_PART, m_vDisk.data() + 33LL * FS_PART, FS_PART);
    LPBLOCKHEAD pSecond = Block(3, 34LL * FS_PART, 1, 1);
    Block(6, 32LL * FS_PART, 0, 0);
    // Every try of the first block's write fails: no later chance comes.
    m_io.FailCall(talvortest::FileOp::PWrite, m_io.Calls(talvortest::FileOp::PWrite) + 1, EIO, FILESTORE_IO_TRIES);
    memcpy(m_vLogical.data() + 30LL * FS_PART, m_vDisk.data() + 30LL * FS_PART, FS_PART);
    m_lpHead->m_bSaveFlag = 1;  // cleared with its write, before the copy is taken
    EXPECT_EQ(0, m_pCache->FlushFileBlock(nullptr));
    EXPECT_EQ(0, Val(pFirst->m_bSaveFlag));
    EXPECT_EQ(0, Val(pSecond->m_bSaveFlag));
    EXPECT_EQ(0, Val(pSecond->m_bFlushFlag));
    EXPECT_EQ(0, Val(m_lpHead->m_bSaveFlag));
    EXPECT_EQ(-1, FirstDiff(FileBytes(), m_vLogical));
    EXPECT_TRUE(LatchFree());
}

} // namespace
