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
    LPTABLEFILEHEAD h = (LPTABLEFILEHEAD)v.data();
    EXPECT_EQ(TABLEFILE_DATAFLAG, h->m_nDataFlag);
    EXPECT_EQ(1018u, Val(h->m_nMaxObjectNum));
    EXPECT_EQ(16384, Val(h->m_nFileHeaderSize));
    EXPECT_EQ(16384, Val(h->m_nBlockMapSize));
    EXPECT_EQ(49152, Val(h->m_nBlockMapStartOffset));
    EXPECT_EQ(65536, Val(h->m_nBlockStartOffset));
    EXPECT_EQ(65536, Val(h->m_nFileFreeMemoryOffset));
    EXPECT_EQ(680, Val(h->m_nMaxBlockMapNum));
    EXPECT_EQ(506, Val(h->m_nHeadMaxObjectNum));
    EXPECT_EQ(16384, Val(h->m_nNextFileHeadOffset));
    EXPECT_EQ(0, Val(h->m_nCacheStartOffset));
    for (int k = 1; k <= 2; k++) {
        LPTABLEFILEHEADEX x = (LPTABLEFILEHEADEX)(v.data() + k * 16384);
        EXPECT_EQ(TABLEFILEEX_DATAFLAG, x->m_nDataFlag);
        EXPECT_EQ(12, x->m_bFileNo);
        EXPECT_EQ(k, x->m_bExHeadNo);
        EXPECT_EQ(k == 1 ? 32768 : 0, Val(x->m_nNextFileHeadOffset));
    }
    LPBASEFILEBLOCKMAPHEAD_CACHE m = (LPBASEFILEBLOCKMAPHEAD_CACHE)(v.data() + 49152);
    EXPECT_EQ(BLOCKMAP_CACHE_DATAFLAG, m->m_nDataFlag);
    EXPECT_EQ(1, Val(m->m_nMapNo));
    EXPECT_EQ(123456789, Val(m->m_nTimestamp));
    EXPECT_EQ(0, Val(m->m_nNextBlockMapOffset));
    // Every byte not named above is zero: nothing of the old buffer is left.
    std::vector<BYTE> z(v.size(), 0);
    EXPECT_EQ(0, memcmp(v.data() + 16384 + sizeof(TABLEFILEHEADEX) - 6, z.data(), 6));
    EXPECT_EQ(0, memcmp(v.data() + 49152 + sizeof(BASEFILEBLOCKMAPHEAD_CACHE), z.data(),
                        16384 - sizeof(BASEFILEBLOCKMAPHEAD_CACHE)));
}

TEST(CacheFileHeadArea, IndexFileWithoutExtendedPagesAndRefusals)
{
    std::vector<BYTE> v(32768, 0xEE);
    int nEx = -1;
    ASSERT_TRUE(CacheBuildHeadArea(Def(FILETYPE_INDEX, 677), v.data(), (long long)v.size(), &nEx));
    EXPECT_EQ(0, nEx);
    LPINDEXFILEHEAD h = (LPINDEXFILEHEAD)v.data();
    EXPECT_EQ(INDEXFILE_DATAFLAG, h->m_nDataFlag);
    EXPECT_EQ(677, Val(h->m_nHeadMaxObjectNum));
    EXPECT_EQ(0, Val(h->m_nNextFileHeadOffset));
    EXPECT_EQ(16384, Val(h->m_nBlockMapStartOffset));
    EXPECT_EQ(BLOCKMAP_CACHE_DATAFLAG, ((LPBASEFILEBLOCKMAPHEAD_CACHE)(v.data() + 16384))->m_nDataFlag);

    std::vector<BYTE> w(65536, 0x5A), before = w;
    EXPECT_FALSE(CacheBuildHeadArea(Def(FILETYPE_INDEX, 678), w.data(), 32768, nullptr));
    EXPECT_FALSE(CacheBuildHeadArea(Def(FILETYPE_DATA, 10), w.data(), 65536, nullptr));
    CACHEHEADAREADEF d = Def(FILETYPE_TABLE, 1018);
    d.m_nFileSize = 49152;
    EXPECT_FALSE(CacheBuildHeadArea(d, w.data(), 65536, nullptr));
    EXPECT_TRUE(w == before);
}

}  // namespace
