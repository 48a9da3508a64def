// Where the areas of the shared cache lie: offsets worked out by hand, and
// for a sweep of sizes the rules that keep areas apart.
#include "CacheLayout.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

// By hand (64 MiB in the new segment's test): FIFO = (100 - 80) x MB / 100
// whole MiB; FIFO offset = size - FIFO - 393216; N = FIFO offset / 16384 -
// 1; map blocks = 1 + N / 4096; first free = 2 + map blocks. Per size: FIFO
// size and offset, flashback offset, N, map blocks, first free, load slots
// and their end.
const struct {
    int nMB, nLRU;
    std::vector<long long> vWant;
} kSizes[] = {
    // 1 GiB: FIFO 204 MiB (204.8 cut); 859439104 / 16384 = 52456; 52455 /
    // 4096 = 12. Links 0 to 14 serve no chain, so all 475 slots stay.
    {1024, 80, {213909504, 859439104, 1073348608, 52455, 13, 15, 475, 32808}},
    // LRU 0 is taken as 2: FIFO 98 MiB; 1703936 / 16384 = 104.
    {100, 0, {102760448, 1703936, 104464384, 103, 1, 3, 473, 32744}},
    // LRU 150 is taken as 98: FIFO 2 MiB; 102367232 / 16384 = 6248.
    {100, 150, {2097152, 102367232, 104464384, 6247, 2, 4, 473, 32744}},
};

// Areas apart: no load slot on a link a chain may use (475 slots would end
// 40 bytes into the map, on links 0 to 9, live when the first cache block is
// below 10); a link for every block before the first block; the last block
// before the FIFO area, the flashback area behind it to the end.
void ExpectApart(const CACHELAYOUT& l)
{
    EXPECT_LE(l.m_llLoadEnd, CacheLinkOffset(l.m_nFirstFreeNo));
    if (l.m_nFirstFreeNo < 10) {
        EXPECT_LE(l.m_llLoadEnd, CACHE_MAP_OFFSET);
    }
    EXPECT_LE(CacheLinkOffset(l.m_nBlockBufNum) + 4, CacheBlockOffset(l.m_nFirstFreeNo));
    EXPECT_LE(CacheBlockOffset(l.m_nBlockBufNum) + CACHE_BLOCK_SIZE, l.m_llFIFOOffset);
    EXPECT_EQ(l.m_llFIFOOffset + l.m_llFIFOSize, l.m_llFlashBackOffset);
    EXPECT_EQ(l.m_llTotalSize, l.m_llFlashBackOffset + CACHE_FLASHBACK_SIZE);
}

} // namespace

TEST(CacheLayout, HandWorkedOffsetsAndTheLruPercentClampedTo2And98)
{
    for (const auto& e : kSizes) {
        SCOPED_TRACE(testing::Message() << e.nMB << " MiB, LRU " << e.nLRU);
        CACHELAYOUT l;
        ASSERT_TRUE(CacheComputeLayoutMB(e.nMB, e.nLRU, l));
        EXPECT_EQ((long long)e.nMB * 1048576, l.m_llTotalSize);
        EXPECT_EQ(e.vWant, (std::vector<long long>{l.m_llFIFOSize, l.m_llFIFOOffset, l.m_llFlashBackOffset,
                                                   l.m_nBlockBufNum, l.m_nMapBlocks, l.m_nFirstFreeNo,
                                                   l.m_nLoadSlotNum, l.m_llLoadEnd}));
        ExpectApart(l);
    }
}

// The fixed areas of the head follow each other without gap or overlap.
static_assert(CACHE_FLUSH_OFFSET == (int)sizeof(CacheBufferHead), "head");
static_assert(CACHE_INDEXFLUSH_OFFSET == CACHE_FLUSH_OFFSET + CACHE_FLUSH_RING_SIZE * (int)sizeof(stu_CacheFlush), "");
static_assert(CACHE_FLUSHTSFILE_OFFSET == CACHE_INDEXFLUSH_OFFSET + CACHE_FLUSH_RING_SIZE * (int)sizeof(stu_CacheFlush),
              "index ring");
static_assert(CACHE_FLUSHFILE_OFFSET ==
                  CACHE_FLUSHTSFILE_OFFSET + CACHE_FLUSHTSFILE_NUM * (int)sizeof(stu_CacheFlushFile), "");
static_assert(CACHE_LOAD_OFFSET == CACHE_FLUSHFILE_OFFSET + CACHE_FLUSHFILE_NUM * (int)sizeof(stu_CacheFlushFile), "");
static_assert(CACHE_FLASHBACK_SIZE == 16 * 16384 + 32 * 4096, "two pools' images: 16 of 16384, 32 of 4096");

TEST(CacheLayout, LinksLieInMapBlocksOf4096)
{
    EXPECT_EQ(32768, CacheLinkOffset(0));
    EXPECT_EQ(2 * 16384 + 4095 * 4, CacheLinkOffset(4095));
    EXPECT_EQ(3 * 16384, CacheLinkOffset(4096));
}

// N = 28671 puts the first block at 2 + 1 + 6 = 9, N = 28672 at 10. Head
// blocks and one map block with no block behind them are refused; one more
// block gives a cache of exactly one, number 3.
TEST(CacheLayout, SlotCountChangesWhereLinkNineStopsBeingLiveAndSizesWithoutABlockAreRefused)
{
    struct { long long llBlocks; UINT nFirstFree, nLast; int nSlots; } arCases[] = {
        {28671 + 1, 9, 28671, 473}, {28672 + 1, 10, 28672, 475}, {4, 3, 3, 473}};
    for (const auto& c : arCases) {
        SCOPED_TRACE(c.llBlocks);
        CACHELAYOUT l;
        ASSERT_TRUE(CacheComputeLayout(c.llBlocks * 16384 + CACHE_FLASHBACK_SIZE, 0, l));
        EXPECT_EQ(c.nFirstFree, l.m_nFirstFreeNo);
        EXPECT_EQ(c.nLast, l.m_nBlockBufNum);
        EXPECT_EQ(c.nSlots, l.m_nLoadSlotNum);
        ExpectApart(l);
    }
    CACHELAYOUT l;
    EXPECT_FALSE(CacheComputeLayout(3LL * 16384 + CACHE_FLASHBACK_SIZE, 0, l));
    EXPECT_FALSE(CacheComputeLayout(64LL * 1048576, 64LL * 1048576, l));
}
