// The head area of a new cache-mode file: where each page lies and what it records.
#include "CacheFileHeadArea.h"
#include "CacheFixture.h"

#include <vector>

using namespace cachetest;

namespace {

CACHEHEADAREADEF Def(BYTE bFileType, int nObjects)
{
    return CACHEHEADAREADEF{12, bFileType, 0xBEEF, nObjects, 4194304, 123456789};
}

TEST(CacheFileHeadArea, SizeFollowsTheObjectsAtTheEdgesOfEachPage)
{
    struct Case {
        BYTE bType;
        int nObjects;
        long long nSize;
    } cases[] = {
        {FILETYPE_TABLE, 0, 32768},      {FILETYPE_TABLE, 506, 32768},   {FILETYPE_TABLE, 507, 49152},
        {FILETYPE_TABLE, 1017, 49152},   {FILETYPE_TABLE, 1018, 65536},  {FILETYPE_INDEX, 677, 32768},
        {FILETYPE_INDEX, 678, 49152},    {FILETYPE_INDEX, 1358, 49152},  {FILETYPE_INDEX, 1359, 65536},
        {FILETYPE_DATA, 10, 0},          {FILETYPE_TABLE, -1, 0},
    };
    for (const Case& c : cases)
        EXPECT_EQ(c.nSize, CacheHeadAreaSize(c.bType, c.nObjects)) << (int)c.bType << " " << c.nObjects;
}

TEST(CacheFileHeadArea, TableFileOf1018ObjectsHasTwoExtendedPagesAndMapAt49152)
{
    std::vector<BYTE> v(65536, 0xEE);
    int nEx = -1;
    ASSERT_TRUE(CacheBuildHeadArea(Def(FILETYPE_TABLE, 1018), v.data(), (long long)v.size(), &nEx));
    EXPECT_EQ(2, nEx);
    // Mark, objects, header, map size and place, blocks, free space, map
    // entries, objects in the head, next page, cache link.
    LPTABLEFILEHEAD h = (LPTABLEFILEHEAD)v.data();
    EXPECT_EQ((std::vector<long long>{TABLEFILE_DATAFLAG, 1018, 16384, 16384, 49152, 65536, 65536, 680, 506, 16384, 0}),
              (std::vector<long long>{h->m_nDataFlag, Val(h->m_nMaxObjectNum), Val(h->m_nFileHeaderSize),
                                      Val(h->m_nBlockMapSize), Val(h->m_nBlockMapStartOffset),
                                      Val(h->m_nBlockStartOffset), Val(h->m_nFileFreeMemoryOffset),
                                      Val(h->m_nMaxBlockMapNum), Val(h->m_nHeadMaxObjectNum),
                                      Val(h->m_nNextFileHeadOffset), Val(h->m_nCacheStartOffset)}));
    for (int k = 1; k <= 2; k++) {
        LPTABLEFILEHEADEX x = (LPTABLEFILEHEADEX)(v.data() + k * 16384);
        EXPECT_EQ((std::vector<long long>{TABLEFILEEX_DATAFLAG, 12, k, k == 1 ? 32768 : 0}),
                  (std::vector<long long>{x->m_nDataFlag, x->m_bFileNo, x->m_bExHeadNo, Val(x->m_nNextFileHeadOffset)}));
    }
    LPBASEFILEBLOCKMAPHEAD_CACHE m = (LPBASEFILEBLOCKMAPHEAD_CACHE)(v.data() + 49152);
    EXPECT_EQ((std::vector<long long>{BLOCKMAP_CACHE_DATAFLAG, 1, 123456789, 0}),
              (std::vector<long long>{m->m_nDataFlag, Val(m->m_nMapNo), Val(m->m_nTimestamp), Val(m->m_nNextBlockMapOffset)}));
    // Every byte not named above is zero: nothing of the old buffer is left.
    std::vector<BYTE> z(v.size(), 0);
    EXPECT_EQ(0, memcmp(v.data() + 16384 + sizeof(TABLEFILEHEADEX) - 6, z.data(), 6));
    EXPECT_EQ(0, memcmp(v.data() + 49152 + sizeof(BASEFILEBLOCKMAPHEAD_CACHE), z.data(),
                        16384 - sizeof(BASEFILEBLOCKMAPHEAD_CACHE)));
}

// An index file's area is the table's builder with other marks and counts:
// its sizes are checked above; here only what it refuses, with not a byte
// of the buffer written.
TEST(CacheFileHeadArea, TooSmallABufferAnotherKindOrAFileSmallerThanTheAreaIsRefused)
{
    std::vector<BYTE> w(65536, 0x5A), before = w;
    EXPECT_FALSE(CacheBuildHeadArea(Def(FILETYPE_INDEX, 678), w.data(), 32768, nullptr));
    EXPECT_FALSE(CacheBuildHeadArea(Def(FILETYPE_DATA, 10), w.data(), 65536, nullptr));
    CACHEHEADAREADEF d = Def(FILETYPE_TABLE, 1018);
    d.m_nFileSize = 49152;
    EXPECT_FALSE(CacheBuildHeadArea(d, w.data(), 65536, nullptr));
    EXPECT_TRUE(w == before);
}

}  // namespace
