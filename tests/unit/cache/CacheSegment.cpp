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

TEST_F(CacheSegment, NoSegmentBelow32MiBAndANewOneHasTheComputedHeadAndEveryBlockFree)
{
    // Below 32 MiB no segment is made.
    EXPECT_EQ(E_FAIL, Open(31));
    EXPECT_TRUE(Traced(60001001, "")) << "the operator's only sign of why the start failed";
    EXPECT_LT(SegmentId(), 0);
    ASSERT_EQ(S_OK, Open(64));
    EXPECT_FALSE(m_pCache->m_bExists);
    EXPECT_EQ(64LL * 1048576, SegmentSize());
    LPCacheBufferHead h = Head();
    EXPECT_EQ((std::vector<long long>{CACHEBUFFER_DATAFLAG, CACHESTATUS_BUILDING, 64LL * 1048576, 12LL * 1048576,
                                      54132736, 66715648, 3303, 4096, 473, 473, 3}),
              (std::vector<long long>{Val(h->m_nDataFlag), Val(h->m_bStatus), Val(h->m_llCacheTotalSize),
                                      Val(h->m_nFIFOSize), Val(h->m_llCacheFIFOOffset), Val(h->m_llCacheFlashBackOffset),
                                      Val(h->m_nBlockBufNum), Val(h->m_nMapBlockNum), Val(h->m_nLoadSlotNum),
                                      Val(h->m_nValidLoadSlotNum), Val(h->m_nFreeNo)}));
    for (int i = 0; i < 16; i++) EXPECT_EQ(i, Val(m_pCache->m_pFlushFile[i].m_bCacheBlockNo));
    for (int i = 0; i < 32; i++) EXPECT_EQ(i, Val(m_pCache->m_pFlushTimestampFile[i].m_bCacheBlockNo));
    // Blocks 3 to 3303 in order, and the links of head and map blocks unused.
    std::vector<UINT> vFree = Chain(3);
    ASSERT_EQ(3301u, vFree.size());
    for (size_t i = 0; i < vFree.size(); i++) ASSERT_EQ(3 + i, vFree[i]);
    for (UINT b = 0; b < 3; b++) EXPECT_EQ(0u, m_pCache->GetLink(b));
}

static LPCacheBufferHead H(CTalvorCacheStorage& c) { return c.m_pCacheBufferHead; }

// Every way a survivor must not be trusted (cut short, damaged, of another
// size), each made anew to exactly the bytes of a new cache at the size and
// share asked.
TEST_F(CacheSegment, SurvivorCutShortDamagedOrOfAnotherSizeIsMadeAnew)
{
    struct Case {
        const char* lpName;
        std::function<void(CTalvorCacheStorage&)> fnSpoil;
        int nOldMB = SMALL_MB;
        int nNewMB = SMALL_MB;
        int nLRU = 80;
    };
    const std::vector<Case> vCases = {
        {"status 1", [](CTalvorCacheStorage& c) { H(c)->m_bStatus = CACHESTATUS_BUILDING; }},
        // A rebuild takes the share asked, not the survivor's.
        {"failed, new share", [](CTalvorCacheStorage& c) { H(c)->m_bStatus = CACHESTATUS_FAILED; }, SMALL_MB,
         SMALL_MB, 50},
        {"mark", [](CTalvorCacheStorage& c) { H(c)->m_nDataFlag = 0x44444344; }},
        {"total size", [](CTalvorCacheStorage& c) { H(c)->m_llCacheTotalSize = 1LL << 40; }},
        {"block count", [](CTalvorCacheStorage& c) { H(c)->m_nBlockBufNum += 100; }},
        {"free chain head past the blocks",
         [](CTalvorCacheStorage& c) { H(c)->m_nFreeNo = (int)c.GetLayout().m_nBlockBufNum + 1; }},
        {"file chain into a map block", [](CTalvorCacheStorage& c) { H(c)->m_nFileInfoNo[9] = 2; }},
        {"file chain loops",
         [](CTalvorCacheStorage& c) {
             UINT nFirst = H(c)->m_nFileInfoNo[3];
             *(UINT*)(c.m_pCacheBufferAddr + CacheLinkOffset(c.GetLink(c.GetLink(nFirst)))) = nFirst;
         }},
        {"two chains share a block",
         [](CTalvorCacheStorage& c) { H(c)->m_nFileInfoNo[12] = c.GetLink(H(c)->m_nFileInfoNo[7]); }},
        {"flush position", [](CTalvorCacheStorage& c) { H(c)->m_bStorageIndexFlushPos = 128; }},
        {"load group past the slots",
         [](CTalvorCacheStorage& c) {
             H(c)->m_stFileCacheLoadInfo[7].m_nCacheLoadHeadOffset = CACHE_MAP_OFFSET - 32;
         }},
        {"load position past its group",
         [](CTalvorCacheStorage& c) { H(c)->m_stFileCacheLoadInfo[3].m_bStorageLoadPos = 64; }},
        {"recycle list loops",
         [](CTalvorCacheStorage& c) {
             H(c)->m_bRecycleFileNo = 3;
             H(c)->m_stFileCacheLoadInfo[3].m_bNextRecycleFileNo = 7;
             H(c)->m_stFileCacheLoadInfo[7].m_bNextRecycleFileNo = 3;
         }},
        {"load block cursor", [](CTalvorCacheStorage& c) { H(c)->m_nLoadCacheOffset = 16384; }},
        {"smaller size", [](CTalvorCacheStorage&) {}, SMALL_MB, OTHER_MB},
        {"larger size", [](CTalvorCacheStorage&) {}, 48, OTHER_MB},
    };
    for (const Case& k : vCases) {
        SCOPED_TRACE(k.lpName);
        const std::vector<BYTE> vNew = NewImage(k.nNewMB, k.nLRU);
        RemoveSegment();
        ASSERT_EQ(S_OK, Open(k.nOldMB));
        Use();
        k.fnSpoil(*m_pCache);
        Abandon();
        ASSERT_EQ(S_OK, Open(k.nNewMB, k.nLRU));
        EXPECT_FALSE(m_pCache->m_bExists);
        EXPECT_EQ((long long)k.nNewMB * 1048576, SegmentSize());
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
    EXPECT_EQ(E_FAIL, Open(OTHER_MB));
    m_pCache.reset();
    EXPECT_EQ(-1, FirstDiff(vBefore, Snapshot()));
    shmdt(pEngine);
}

// "LRUPercent" changed between two runs: a ready cache keeps its own FIFO
// area and the engine's blocks.
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
    EXPECT_EQ(-1, FirstDiff(vBefore, Snapshot()));
    // The cursors go on where they were: the next block is the next free one.
    long long llOffset = 0;
    ASSERT_EQ(0, m_pCache->LoadFile2Cache(nullptr, 3, llOffset));
    EXPECT_EQ(CacheBlockOffset(nNextFree), llOffset);
    vFile3.push_back(nNextFree);
    EXPECT_EQ(vFile3, Chain(Head()->m_nFileInfoNo[3]));
}
