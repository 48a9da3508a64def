// The head area of a cache segment that survived a restart, from outside:
// the input lies over the head blocks and the first map block of a used
// cache (what is not given stays as that cache left it) and the start takes
// the segment over, rebuilds it or refuses it. Whatever it does, every chain
// the object walks afterwards stays in the block area and ends, every load
// group it hands out lies in a slot area, and a new block for a file comes
// from the block area. The byte behind the head area, when given, says
// whether the engine is still attached (bit 0).
#include "FuzzCache.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

using namespace talvorfuzz;

namespace {

const BYTE CTRL_ENGINE_ATTACHED = 0x01;
// Files that get a new block after the start: one with a chain in the
// used cache, one without.
const BYTE GROWN_FILES[] = {3, 11};

void Fail(const char* lpszWhat, long long llValue)
{
    fprintf(stderr, "survivor: %s (%lld)\n", lpszWhat, llValue);
    abort();
}

// The blocks of the chain from nFirst, each in the block area and seen in
// no chain before (pSeen); the walk ends within the block count.
void CheckChain(const CTalvorCacheStorage& cache, UINT nFirst, std::vector<BYTE>& vSeen)
{
    const CACHELAYOUT& l = cache.GetLayout();
    UINT nSteps = 0;
    for (UINT n = nFirst; n != 0; n = cache.GetLink(n)) {
        if (n < l.m_nFirstFreeNo || n > l.m_nBlockBufNum) Fail("chain leaves the block area", n);
        if (vSeen[n] != 0) Fail("block in two chains or a loop", n);
        vSeen[n] = 1;
        if (++nSteps > l.m_nBlockBufNum) Fail("chain does not end", nFirst);
    }
}

void CheckChains(const CTalvorCacheStorage& cache)
{
    const CacheBufferHead* h = cache.m_pCacheBufferHead;
    std::vector<BYTE> vSeen((size_t)cache.GetLayout().m_nBlockBufNum + 1, 0);
    CheckChain(cache, (UINT)h->m_nFreeNo, vSeen);
    for (int i = 0; i < MAX_FILE_NUM; i++) CheckChain(cache, h->m_nFileInfoNo[i], vSeen);
}

// Every load group handed out lies whole in the slot area of the head
// blocks or in one cache block of the block area.
void CheckLoadGroups(CTalvorCacheStorage& cache)
{
    const CACHELAYOUT& l = cache.GetLayout();
    LPBYTE lpBase = cache.m_pCacheBufferAddr;
    for (int i = 0; i < MAX_FILE_NUM; i++) {
        LPCacheBufferBlockOperate lpGroup = nullptr;
        int nNum = 0;
        if (cache.GetCacheLoadSlot((BYTE)i, lpGroup, nNum) != 0) continue;
        long long llFrom = (LPBYTE)lpGroup - lpBase;
        long long llTo = llFrom + (long long)nNum * (long long)sizeof(CacheBufferBlockOperate);
        if (nNum <= 0 || nNum > CACHE_LOADGROUP_MAX_SLOTS) Fail("load group slot count", nNum);
        bool bInHead = llFrom >= CACHE_LOAD_OFFSET && llTo <= l.m_llLoadEnd;
        long long llBlock = llFrom / CACHE_BLOCK_SIZE;
        bool bInBlock = llBlock >= (long long)l.m_nFirstFreeNo && llBlock <= (long long)l.m_nBlockBufNum &&
                        llTo <= (llBlock + 1) * CACHE_BLOCK_SIZE && llTo <= l.m_llFIFOOffset;
        if (!bInHead && !bInBlock) Fail("load group outside the slot areas", llFrom);
    }
}

// New blocks for a file: each comes from the block area.
void GrowFiles(CTalvorCacheStorage& cache)
{
    const CACHELAYOUT& l = cache.GetLayout();
    for (BYTE bFileNo : GROWN_FILES) {
        long long llOffset = 0;
        if (cache.LoadFile2Cache(nullptr, bFileNo, llOffset) != 0) continue;
        if (llOffset < CacheBlockOffset(l.m_nFirstFreeNo) || llOffset > CacheBlockOffset(l.m_nBlockBufNum) ||
            llOffset % CACHE_BLOCK_SIZE != 0 || llOffset + CACHE_BLOCK_SIZE > l.m_llFIFOOffset)
            Fail("new block outside the block area", llOffset);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* lpData, size_t nSize)
{
    static std::vector<BYTE> s_vBase = MakeUsedCacheHead(FUZZCACHE_LRU);
    if (s_vBase.size() != FUZZCACHE_HEAD_AREA) abort();
    BYTE bCtrl = nSize > FUZZCACHE_HEAD_AREA ? lpData[FUZZCACHE_HEAD_AREA] : 0;
    LPBYTE lpEngine = AttachSegment();
    if (lpEngine == nullptr) abort();
    memcpy(lpEngine, s_vBase.data(), FUZZCACHE_HEAD_AREA);
    memcpy(lpEngine, lpData, nSize < FUZZCACHE_HEAD_AREA ? nSize : FUZZCACHE_HEAD_AREA);
    if ((bCtrl & CTRL_ENGINE_ATTACHED) == 0) {
        shmdt(lpEngine);
        lpEngine = nullptr;
    }
    cachetest::FakeCacheModule module;
    CTalvorCacheStorage* pCache = new CTalvorCacheStorage;
    pCache->SetCacheModule(&module);
    int nResult = pCache->Initialize(SHMNAME_CACHEBUFFER, FUZZCACHE_MB, FUZZCACHE_LRU, CacheModuleMark(), FALSE);
    if (nResult == S_OK) {
        CheckChains(*pCache);
        CheckLoadGroups(*pCache);
        GrowFiles(*pCache);
        CheckChains(*pCache);
        CheckLoadGroups(*pCache);
    } else if (pCache->m_pCacheBufferHead != nullptr || pCache->m_hCacheBufferFile != 0) {
        Fail("a refused survivor is still held", nResult);
    }
    AbandonCache(pCache);
    if (lpEngine != nullptr) shmdt(lpEngine);
    return 0;
}
