// CacheLayout.cpp — the arithmetic of the cache segment's areas.
#include "CacheLayout.h"

namespace {

// Links are 32-bit and block numbers travel as UINT; the map must also fit
// before the first block it describes, which the formula guarantees.
const long long CACHE_MAX_BLOCKS = 0x7FFFFFFFLL;

int LoadSlotsFor(UINT nFirstFreeNo)
{
    long long llFullEnd = CACHE_LOAD_OFFSET + (long long)CACHE_LOADSLOT_NUM_FULL * 32;
    return llFullEnd <= CacheLinkOffset(nFirstFreeNo) ? CACHE_LOADSLOT_NUM_FULL : CACHE_LOADSLOT_NUM_INHEAD;
}

}  // namespace

BOOL CacheComputeLayout(long long llTotalSize, long long llFIFOSize, CACHELAYOUT& layout)
{
    if (llTotalSize <= 0 || llFIFOSize < 0) return FALSE;
    layout.m_llTotalSize = llTotalSize;
    layout.m_llFIFOSize = llFIFOSize;
    layout.m_nFlashBackSize = CACHE_FLASHBACK_SIZE;
    layout.m_llFlashBackOffset = llTotalSize - CACHE_FLASHBACK_SIZE;
    layout.m_llFIFOOffset = layout.m_llFlashBackOffset - llFIFOSize;
    long long llBlocks = layout.m_llFIFOOffset / CACHE_BLOCK_SIZE - 1;
    if (llBlocks <= 0 || llBlocks > CACHE_MAX_BLOCKS) return FALSE;
    layout.m_nBlockBufNum = (UINT)llBlocks;
    layout.m_nMapBlocks = 1 + (int)(layout.m_nBlockBufNum / CACHE_MAP_LINKS);
    layout.m_nFirstFreeNo = (UINT)(CACHE_HEAD_BLOCKS + layout.m_nMapBlocks);
    // At least one block behind the map, or there is nothing to cache in.
    if (layout.m_nFirstFreeNo > layout.m_nBlockBufNum) return FALSE;
    layout.m_nLoadSlotNum = LoadSlotsFor(layout.m_nFirstFreeNo);
    layout.m_llLoadEnd = CACHE_LOAD_OFFSET + (long long)layout.m_nLoadSlotNum * 32;
    return TRUE;
}

BOOL CacheComputeLayoutMB(int nCacheMB, int nLRUPercent, CACHELAYOUT& layout)
{
    if (nCacheMB <= 0) return FALSE;
    if (nLRUPercent < 2) nLRUPercent = 2;
    if (nLRUPercent > 98) nLRUPercent = 98;
    return CacheComputeLayout((long long)nCacheMB * 1048576LL, CacheFIFOSize(nCacheMB, nLRUPercent), layout);
}
