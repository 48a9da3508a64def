// CacheLayout.h — where each area of the shared block cache lies for a given
// segment size, in one place for every program that opens the cache: the
// daemon builds it from these numbers, the engine stand-in and the tests find
// it by them, and a cache that survived a restart is checked against them.
//
// The segment, by cache block of 16384 bytes:
//   blocks 0 and 1     CacheBufferHead, the two flush rings, the two pools of
//                      flush images, the load slots
//   blocks 2 ..        the cache map: one 32-bit link per cache block
//   m_nFirstFreeNo ..  the cache blocks, up to m_nBlockBufNum
//   FIFO offset ..     the FIFO area, then the flashback area to the end
#pragma once

#include "MemDBCommonDef.h"
#include "TypeDef.h"

// Fixed places inside the two head blocks.
inline constexpr int CACHE_FLUSH_OFFSET = 5224;             // table flush ring
inline constexpr int CACHE_INDEXFLUSH_OFFSET = 11368;       // index flush ring
inline constexpr int CACHE_FLUSHTSFILE_OFFSET = 17512;      // pool of timestamp array images
inline constexpr int CACHE_FLUSHFILE_OFFSET = 17576;        // pool of head and map images
inline constexpr int CACHE_LOAD_OFFSET = 17608;             // first load slot
inline constexpr int CACHE_MAP_OFFSET = CACHE_HEAD_BLOCKS * CACHE_BLOCK_SIZE;  // link 0
inline constexpr int CACHE_MIN_SIZE_MB = 32;

// Load slots. The engine's design asks for 475 of them, which end 40 bytes
// past the head blocks, on links 0 to 9 of the map. Those links belong to
// head and map blocks and are never used, unless the map is so short that
// the first cache block falls below number 10 (blocks below about 450 MiB);
// then the last slots would lie on live links of the free chain. Such a cache
// gets 473 slots, all inside the head blocks; a larger one keeps 475.
inline constexpr int CACHE_LOADSLOT_NUM_FULL = 475;
inline constexpr int CACHE_LOADSLOT_NUM_INHEAD = (CACHE_MAP_OFFSET - CACHE_LOAD_OFFSET) / 32;  // 473

// The computed layout of one segment size.
typedef struct _CACHELAYOUT {
    long long m_llTotalSize;        // bytes of the segment
    long long m_llFIFOSize;         // bytes of the FIFO area
    long long m_llFIFOOffset;       // first byte of the FIFO area
    long long m_llFlashBackOffset;  // first byte of the flashback area
    int m_nFlashBackSize;           // CACHE_FLASHBACK_SIZE
    int m_nLoadSlotNum;             // slots in the head blocks (see above)
    long long m_llLoadEnd;          // first byte behind the last slot
    int m_nMapBlocks;               // cache map blocks
    UINT m_nBlockBufNum;            // highest cache block number
    UINT m_nFirstFreeNo;            // first block behind the map: the head of a new free chain
} CACHELAYOUT, *LPCACHELAYOUT;

// Bytes of the FIFO area for a cache of nCacheMB MiB: (100 - LRU percent) of
// it, in whole MiB. nLRUPercent must be 2 to 98.
inline constexpr long long CacheFIFOSize(int nCacheMB, int nLRUPercent)
{
    return (long long)(100 - nLRUPercent) * nCacheMB / 100 * 1048576LL;
}

// Offset in the segment of the map link of cache block nBlockNo.
inline constexpr long long CacheLinkOffset(UINT nBlockNo)
{
    return (long long)(CACHE_HEAD_BLOCKS + nBlockNo / CACHE_MAP_LINKS) * CACHE_BLOCK_SIZE +
           (long long)(nBlockNo % CACHE_MAP_LINKS) * 4;
}

// Offset in the segment of cache block nBlockNo.
inline constexpr long long CacheBlockOffset(UINT nBlockNo) { return (long long)nBlockNo * CACHE_BLOCK_SIZE; }

// Fills layout for a segment of llTotalSize bytes with a FIFO area of
// llFIFOSize bytes. TRUE when that size holds a cache: the map and at least
// one cache block before the FIFO area, and a block count a link can name.
// FALSE leaves layout undefined. Any thread; pure arithmetic.
BOOL CacheComputeLayout(long long llTotalSize, long long llFIFOSize, CACHELAYOUT& layout);

// The same from the configured values: nCacheMB MiB ("buffercachesize") and
// the LRU percent, which is clamped to 2 to 98 first.
BOOL CacheComputeLayoutMB(int nCacheMB, int nLRUPercent, CACHELAYOUT& layout);
