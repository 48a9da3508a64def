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
    EXPECT_TRUE(m_pTrace->Has(60001001, "")) << "the operator's only sign of why the start failed";
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
    // Blocks 3 to 3303 in order.
    std::vector<UINT> vFree = Chain(3);
    ASSERT_EQ(3301u, vFree.size());
    for (size_t i = 0; i < vFree.size(); i++) ASSERT_EQ(3 + i, vFree[i]);
}

// Every way a survivor must not be trusted (cut short, damaged, of another
// size), each made anew to exactly the bytes of a new cache at the size and
// share asked.
TEST_F(CacheSegment, SurvivorCutShortDamagedOrOfAnotherSizeIsMadeAnew)
{
    auto fnLink = [this](UINT n) { return (UINT*)(Base() + CacheLinkOffset(n)); };
    auto fnLoad = [this](int n) { return &Head()->m_stFileCacheLoadInfo[n]; };
    struct Case {
        const char* lpName;
        std::function<void()> fnSpoil;
        int nOldMB = SMALL_MB, nNewMB = SMALL_MB, nLRU = 80;
    };
    const std::vector<Case> vCases = {
        {"status 1", [&] { Head()->m_bStatus = CACHESTATUS_BUILDING; }},
        // A rebuild takes the share asked, not the survivor's.
        {"failed, new share", [&] { Head()->m_bStatus = CACHESTATUS_FAILED; }, SMALL_MB, SMALL_MB, 50},
        {"mark", [&] { Head()->m_nDataFlag = 0x44444344; }},
        {"total size", [&] { Head()->m_llCacheTotalSize = 1LL << 40; }},
        {"block count", [&] { Head()->m_nBlockBufNum += 100; }},
        {"free chain head past the blocks", [&] { Head()->m_nFreeNo = (int)m_pCache->GetLayout().m_nBlockBufNum + 1; }},
        {"file chain into a map block", [&] { Head()->m_nFileInfoNo[9] = 2; }},
        {"file chain loops", [&] {
             UINT nFirst = Head()->m_nFileInfoNo[3];
             *fnLink(m_pCache->GetLink(m_pCache->GetLink(nFirst))) = nFirst;
         }},
        {"two chains share a block", [&] { Head()->m_nFileInfoNo[12] = m_pCache->GetLink(Head()->m_nFileInfoNo[7]); }},
        {"flush position", [&] { Head()->m_bStorageIndexFlushPos = 128; }},
        {"load group past the slots", [&] { fnLoad(7)->m_nCacheLoadHeadOffset = CACHE_MAP_OFFSET - 32; }},
        {"load position past its group", [&] { fnLoad(3)->m_bStorageLoadPos = 64; }},
        {"recycle list loops", [&] {
             Head()->m_bRecycleFileNo = 3;
             fnLoad(3)->m_bNextRecycleFileNo = 7;
             fnLoad(7)->m_bNextRecycleFileNo = 3;
         }},
        {"load block cursor", [&] { Head()->m_nLoadCacheOffset = 16384; }},
        {"larger size", [] {}, 48, OTHER_MB},
    };
    for (const Case& k : vCases) {
        SCOPED_TRACE(k.lpName);
        const std::vector<BYTE> vNew = NewImage(k.nNewMB, k.nLRU);
        RemoveSegment();
        ASSERT_EQ(S_OK, Open(k.nOldMB));
        Use();
        k.fnSpoil();
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
