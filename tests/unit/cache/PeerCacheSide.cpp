// The engine stand-in's side of the shared cache over a real segment; its
// round trips run against a daemon in the cache pipeline end-to-end test.
#include "FlushRingFixture.h"
#include "PeerCache.h"

using namespace cachetest;
using namespace talvorpeer;

namespace {

class PeerCacheSide : public FlushLast {
protected:
    void SetUp() override
    {
        FlushLast::SetUp();
        MakeFile();
        ASSERT_FALSE(HasFatalFailure());
        Head()->m_bStatus = CACHESTATUS_READY;
        ASSERT_TRUE(m_peer.Attach(0)) << m_peer.m_strError;
        ASSERT_TRUE(m_peer.OpenFile(FS_FILE_NO, FILETYPE_TABLE, m_strPath, m_file)) << m_peer.m_strError;
    }
    void TearDown() override
    {
        if (m_pCache) m_pCache->Free();
        FlushLast::TearDown();
    }
    CPeerCache m_peer;
    PeerCacheFile m_file;
};

// A version is made in its own block: the bytes on both sides stay.
TEST(PeerCacheBlock, AVersionFillsItsBlockAndNotOneByteMore)
{
    const size_t nGuard = 64;
    std::vector<BYTE> v((size_t)PEERCACHE_BLOCK_SIZE + 2 * nGuard, 0x5A);
    PeerCacheMakeBlock(v.data() + nGuard, 9, FILETYPE_TABLE, 77, 123456789);
    for (size_t i = 0; i < nGuard; i++) {
        EXPECT_EQ(0x5A, v[i]) << "before the block, byte " << i;
        EXPECT_EQ(0x5A, v[nGuard + PEERCACHE_BLOCK_SIZE + i]) << "past the block, byte " << i;
    }
    EXPECT_NE(0x5A, v[nGuard + PEERCACHE_BLOCK_SIZE - 1]) << "the payload reaches the block's last byte";
    LPBLOCKHEAD lpHead = (LPBLOCKHEAD)(v.data() + nGuard);
    EXPECT_EQ(BLOCK_DATAFLAG, Val(lpHead->m_nDataFlag));
    EXPECT_EQ(77u, Val(lpHead->m_nBlockNo));
    EXPECT_EQ(123456789LL, Val(lpHead->m_nTimestamp));
    EXPECT_EQ(PEERCACHE_BLOCK_SIZE, Val(lpHead->m_nBlockSize));
}

TEST_F(PeerCacheSide, DamagedPlacesInTheSegmentAreNotFollowed)
{
    PeerCacheFile file;
    LPTABLEFILEHEAD lpHead = m_file.m_lpHead;
    long long llStart = lpHead->m_nCacheStartOffset;
    lpHead->m_nCacheStartOffset = m_pCache->GetLayout().m_llFIFOOffset;
    EXPECT_FALSE(m_peer.OpenFile(FS_FILE_NO, FILETYPE_TABLE, m_strPath, file)) << "a chain into the FIFO area";
    lpHead->m_nCacheStartOffset = llStart + 8;
    EXPECT_FALSE(m_peer.OpenFile(FS_FILE_NO, FILETYPE_TABLE, m_strPath, file)) << "a chain off a block's start";
    lpHead->m_nCacheStartOffset = llStart;
    UINT nHeadNo = Head()->m_nFileInfoNo[FS_FILE_NO];
    Head()->m_nFileInfoNo[FS_FILE_NO] = m_pCache->GetLayout().m_nBlockBufNum + 1;
    EXPECT_FALSE(m_peer.OpenFile(FS_FILE_NO, FILETYPE_TABLE, m_strPath, file)) << "a head past the last block";
    Head()->m_nFileInfoNo[FS_FILE_NO] = nHeadNo;
    EXPECT_TRUE(m_peer.OpenFile(FS_FILE_NO, FILETYPE_TABLE, m_strPath, file));
    int nFree = Head()->m_nFreeNo;
    Head()->m_nFreeNo = (int)m_pCache->GetLayout().m_nBlockBufNum + 5;
    long long llCache = 0;
    EXPECT_FALSE(m_peer.TakeFreeBlock(llCache));
    EXPECT_EQ((int)m_pCache->GetLayout().m_nBlockBufNum + 5, Val(Head()->m_nFreeNo)) << "a bad chain is not moved";
    Head()->m_nFreeNo = nFree;
    CPeerCache other;
    Head()->m_nBlockBufNum += 1;
    EXPECT_FALSE(other.Attach(0)) << "a head that does not fit its segment";
    Head()->m_nBlockBufNum -= 1;
}

} // namespace
