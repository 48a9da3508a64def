// The cache segment at start: made new as the layout computes it; a
// survivor ready and whole taken over byte for byte, one that cannot be
// trusted rebuilt as good as new; and the refusals.
#include "CacheFixture.h"

#include <cstdio>
#include <functional>

using namespace cachetest;

namespace {

const int SMALL_MB = 32;
const int OTHER_MB = 40;

class CacheSegment : public CacheFixture {
protected:
    // A used cache, as the engine leaves it: file chains, load groups, ring
    // positions and a posted entry, a busy image, written blocks, FIFO and
    // flashback bytes.
    void Use()
    {
        long long llOffset = 0;
        for (int i = 0; i < 3; i++) ASSERT_EQ(0, m_pCache->LoadFile2Cache(nullptr, 3, llOffset));
        for (int i = 0; i < 2; i++) ASSERT_EQ(0, m_pCache->LoadFile2Cache(nullptr, 7, llOffset));
        memset(Base() + llOffset, 0x5A, CACHE_BLOCK_SIZE);
        LPCacheBufferHead h = Head();
        h->m_bCacheFlushPos = 5;
        h->m_bStorageFlushPos = 3;
        h->m_bCacheIndexFlushPos = 9;
        h->m_bStorageIndexFlushPos = 9;
        h->m_bFlushCachePos = 77;
        h->m_stFileCacheLoadInfo[3].m_bCacheLoadPos = 4;
        h->m_stFileCacheLoadInfo[3].m_bStorageLoadPos = 2;
        m_pCache->m_pCacheFlush[3].m_bStatus = 1;
        m_pCache->m_pCacheFlush[3].m_bBlockType = CACHEFLUSH_DATA;
        m_pCache->m_pCacheFlush[3].m_llCacheBlockOffset = llOffset;
        m_pCache->m_pFlushFile[2].m_bStatus = 1;
        LPCacheBufferBlockOperate pSlot = (LPCacheBufferBlockOperate)(Base() + CACHE_LOAD_OFFSET);
        pSlot->m_bStatus = CACHELOAD_POSTED;
        pSlot->m_nBlockNo = 42;
        const CACHELAYOUT& l = m_pCache->GetLayout();
        memset(Base() + l.m_llFIFOOffset, 0x11, 4096);
        memset(Base() + l.m_llFlashBackOffset, 0x22, 4096);
        h->m_bStatus = CACHESTATUS_READY;
    }
    // The bytes of a cache just made at nMB.
    std::vector<BYTE> NewImage(int nMB, int nLRU = 80)
    {
        EXPECT_EQ(S_OK, Open(nMB, nLRU));
        std::vector<BYTE> v = Snapshot();
        m_pCache.reset();
        return v;
    }
};

} // namespace

TEST_F(CacheSegment, NewSegmentHasTheComputedHeadAndEveryBlockOnTheFreeChain)
{
    ASSERT_EQ(S_OK, Open(64));
    EXPECT_FALSE(m_pCache->m_bExists);
    EXPECT_EQ(64LL * 1048576, SegmentSize());
    LPCacheBufferHead h = Head();
    EXPECT_EQ(CACHEBUFFER_DATAFLAG, Val(h->m_nDataFlag));
    EXPECT_EQ(CACHESTATUS_BUILDING, Val(h->m_bStatus));
    EXPECT_EQ(2, Val(h->m_bCacheHeadNum));
    EXPECT_EQ(64LL * 1048576, Val(h->m_llCacheTotalSize));
    EXPECT_EQ(12LL * 1048576, Val(h->m_nFIFOSize));
    EXPECT_EQ(54132736, Val(h->m_llCacheFIFOOffset));
    EXPECT_EQ(66715648, Val(h->m_llCacheFlashBackOffset));
    EXPECT_EQ(393216, Val(h->m_nCacheFlashBackSize));
    EXPECT_EQ(3303u, Val(h->m_nBlockBufNum));
    EXPECT_EQ(4096, Val(h->m_nMapBlockNum));
    EXPECT_EQ(473, Val(h->m_nLoadSlotNum));
    EXPECT_EQ(473, Val(h->m_nValidLoadSlotNum));
    EXPECT_EQ(3, Val(h->m_nFreeNo));
    EXPECT_EQ(0u, Val(h->m_nLoadCacheNo));
    EXPECT_EQ(Base() + 5224, (LPBYTE)m_pCache->m_pCacheFlush);
    EXPECT_EQ(Base() + 11368, (LPBYTE)m_pCache->m_pCacheIndexFlush);
    EXPECT_EQ(Base() + 17576, (LPBYTE)m_pCache->m_pFlushFile);
    EXPECT_EQ(Base() + 17512, (LPBYTE)m_pCache->m_pFlushTimestampFile);
    for (int i = 0; i < 16; i++) EXPECT_EQ(i, Val(m_pCache->m_pFlushFile[i].m_bCacheBlockNo));
    for (int i = 0; i < 32; i++) EXPECT_EQ(i, Val(m_pCache->m_pFlushTimestampFile[i].m_bCacheBlockNo));
    // Blocks 3 to 3303 in order, and the links of head and map blocks unused.
    std::vector<UINT> vFree = Chain(3);
    ASSERT_EQ(3301u, vFree.size());
    for (size_t i = 0; i < vFree.size(); i++) ASSERT_EQ(3 + i, vFree[i]);
    for (UINT b = 0; b < 3; b++) EXPECT_EQ(0u, m_pCache->GetLink(b));
}

TEST_F(CacheSegment, SizeBelow32MiBAndAMissingModuleAreRefusedWithoutASegment)
{
    EXPECT_EQ(E_FAIL, Open(31));
    EXPECT_TRUE(Traced(60001001, "Cache size (31) does not support less than 32MB, system boot failure!"));
    EXPECT_LT(SegmentId(), 0);
    m_pCache.reset(new CTalvorCacheStorage);
    EXPECT_EQ(E_FAIL, m_pCache->Initialize(SHMNAME_CACHEBUFFER, 64, 80, nullptr, FALSE));
    EXPECT_LT(SegmentId(), 0);
    EXPECT_EQ(S_OK, Open(32));
    EXPECT_EQ(32LL * 1048576, SegmentSize());
}

// Every way a survivor must not be trusted, each rebuilt to exactly the
// bytes of a cache made new.
TEST_F(CacheSegment, SurvivorCutShortOrOutOfBoundsIsRebuiltAsNew)
{
    const std::vector<BYTE> vNew = NewImage(SMALL_MB);
    struct Case {
        const char* lpName;
        std::function<void(CTalvorCacheStorage&)> fnSpoil;
        long nCode;
        const char* lpText;
    };
    const char* lpReload = "Cache residual data was found in the memory, the system will reload the cache";
    const char* lpDamaged = "The cache head in memory is damaged";
    const std::vector<Case> vCases = {
        {"status 1", [](CTalvorCacheStorage& c) { c.m_pCacheBufferHead->m_bStatus = CACHESTATUS_BUILDING; },
         60001000, lpReload},
        {"mark", [](CTalvorCacheStorage& c) { c.m_pCacheBufferHead->m_nDataFlag = 0x44444344; }, 60001011,
         lpDamaged},
        {"mark and status 1",
         [](CTalvorCacheStorage& c) {
             c.m_pCacheBufferHead->m_nDataFlag = 0;
             c.m_pCacheBufferHead->m_bStatus = CACHESTATUS_BUILDING;
         },
         60001011, lpDamaged},
        {"total size", [](CTalvorCacheStorage& c) { c.m_pCacheBufferHead->m_llCacheTotalSize = 1LL << 40; },
         60001011, lpDamaged},
        {"block count", [](CTalvorCacheStorage& c) { c.m_pCacheBufferHead->m_nBlockBufNum += 100; }, 60001011,
         lpDamaged},
        {"free chain head past the blocks",
         [](CTalvorCacheStorage& c) { c.m_pCacheBufferHead->m_nFreeNo = (int)c.GetLayout().m_nBlockBufNum + 1; },
         60001011, lpDamaged},
        {"file chain into a map block",
         [](CTalvorCacheStorage& c) { c.m_pCacheBufferHead->m_nFileInfoNo[9] = 2; }, 60001011, lpDamaged},
        {"file chain loops",
         [](CTalvorCacheStorage& c) {
             UINT nFirst = c.m_pCacheBufferHead->m_nFileInfoNo[3];
             UINT nSecond = c.GetLink(nFirst);
             *(UINT*)(c.m_pCacheBufferAddr + CacheLinkOffset(c.GetLink(nSecond))) = nFirst;
         },
         60001011, lpDamaged},
        {"two chains share a block",
         [](CTalvorCacheStorage& c) {
             c.m_pCacheBufferHead->m_nFileInfoNo[12] = c.GetLink(c.m_pCacheBufferHead->m_nFileInfoNo[7]);
         },
         60001011, lpDamaged},
        {"flush position",
         [](CTalvorCacheStorage& c) { c.m_pCacheBufferHead->m_bStorageIndexFlushPos = 128; }, 60001011, lpDamaged},
        {"load group past the slots",
         [](CTalvorCacheStorage& c) {
             c.m_pCacheBufferHead->m_stFileCacheLoadInfo[7].m_nCacheLoadHeadOffset = CACHE_MAP_OFFSET - 32;
         },
         60001011, lpDamaged},
        {"load position past its group",
         [](CTalvorCacheStorage& c) { c.m_pCacheBufferHead->m_stFileCacheLoadInfo[3].m_bStorageLoadPos = 64; },
         60001011, lpDamaged},
        {"recycle list loops",
         [](CTalvorCacheStorage& c) {
             c.m_pCacheBufferHead->m_bRecycleFileNo = 3;
             c.m_pCacheBufferHead->m_stFileCacheLoadInfo[3].m_bNextRecycleFileNo = 7;
             c.m_pCacheBufferHead->m_stFileCacheLoadInfo[7].m_bNextRecycleFileNo = 3;
         },
         60001011, lpDamaged},
        {"load block cursor",
         [](CTalvorCacheStorage& c) { c.m_pCacheBufferHead->m_nLoadCacheOffset = 16384; }, 60001011, lpDamaged},
    };
    for (const Case& k : vCases) {
        SCOPED_TRACE(k.lpName);
        ASSERT_EQ(S_OK, Open(SMALL_MB));
        Use();
        k.fnSpoil(*m_pCache);
        Abandon();
        m_pTrace->Clear();
        ASSERT_EQ(S_OK, Open(SMALL_MB));
        EXPECT_FALSE(m_pCache->m_bExists);
        EXPECT_TRUE(Traced(k.nCode, k.lpText));
        EXPECT_EQ(-1, FirstDiff(vNew, Snapshot()));
        m_pCache.reset();
        RemoveSegment();
    }
}

TEST_F(CacheSegment, SurvivorOfAnotherSizeIsMadeAnewAtTheSizeAsked)
{
    const std::vector<BYTE> vNew = NewImage(OTHER_MB);
    RemoveSegment();
    for (int nOld : {SMALL_MB, 48}) {
        SCOPED_TRACE(nOld);
        ASSERT_EQ(S_OK, Open(nOld));
        Use();
        Abandon();
        m_pTrace->Clear();
        ASSERT_EQ(S_OK, Open(OTHER_MB));
        EXPECT_FALSE(m_pCache->m_bExists);
        EXPECT_EQ((long long)OTHER_MB * 1048576, SegmentSize());
        EXPECT_TRUE(Traced(60001010, "instead of 41943040, the cache is made anew"));
        EXPECT_EQ(-1, FirstDiff(vNew, Snapshot()));
        m_pCache.reset();
        RemoveSegment();
    }
}

// A survivor that cannot be trusted while another process works in it: the
// start stops and the segment is left exactly as it was.
TEST_F(CacheSegment, UntrustedSurvivorTheEngineIsAttachedToIsRefusedUntouched)
{
    ASSERT_EQ(S_OK, Open(SMALL_MB));
    Use();
    Head()->m_nDataFlag = 0;
    Abandon();
    std::vector<BYTE> vBefore = Snapshot();
    void* pEngine = shmat(SegmentId(), nullptr, 0);
    ASSERT_NE((void*)-1, pEngine);

    EXPECT_EQ(E_FAIL, Open(SMALL_MB));
    EXPECT_TRUE(Traced(60001008, "Abnormal cache load, please close talvorservice and talvorstorage service and try again!"));
    EXPECT_EQ(E_FAIL, Open(OTHER_MB));
    EXPECT_TRUE(Traced(60001009, "and is in use, please close talvorservice and talvorstorage service and try again!"));
    m_pCache.reset();
    EXPECT_EQ(-1, FirstDiff(vBefore, Snapshot()));
    shmdt(pEngine);
}

// "LRUPercent" changed between two runs: a ready cache keeps its own FIFO
// area and the engine's blocks; one cut short is made anew with the new share.
TEST_F(CacheSegment, ReadySurvivorIsTakenOverByteForByteWithItsOwnFifoArea)
{
    ASSERT_EQ(S_OK, Open(SMALL_MB, 80));
    Use();
    std::vector<UINT> vFile3 = Chain(Head()->m_nFileInfoNo[3]);
    UINT nNextFree = (UINT)Head()->m_nFreeNo;
    Abandon();
    std::vector<BYTE> vBefore = Snapshot();
    ASSERT_EQ(S_OK, Open(SMALL_MB, 50));
    EXPECT_TRUE(m_pCache->m_bExists);
    EXPECT_EQ(6LL * 1048576, m_pCache->GetLayout().m_llFIFOSize);
    EXPECT_EQ(6LL * 1048576, m_pCache->m_nFIFOSize);
    EXPECT_TRUE(Traced(60001012, "has a FIFO area of 6MB instead of 16MB: it is taken over as it is"));
    EXPECT_EQ(-1, FirstDiff(vBefore, Snapshot()));
    // The cursors go on where they were: the next block is the next free one.
    long long llOffset = 0;
    ASSERT_EQ(0, m_pCache->LoadFile2Cache(nullptr, 3, llOffset));
    EXPECT_EQ(CacheBlockOffset(nNextFree), llOffset);
    vFile3.push_back(nNextFree);
    EXPECT_EQ(vFile3, Chain(Head()->m_nFileInfoNo[3]));

    Head()->m_bStatus = CACHESTATUS_FAILED;
    Abandon();
    ASSERT_EQ(S_OK, Open(SMALL_MB, 50));
    EXPECT_FALSE(m_pCache->m_bExists);
    EXPECT_EQ(16LL * 1048576, Val(Head()->m_nFIFOSize));
    std::vector<BYTE> vRebuilt = Snapshot();
    m_pCache.reset();
    EXPECT_EQ(-1, FirstDiff(NewImage(SMALL_MB, 50), vRebuilt));
}
