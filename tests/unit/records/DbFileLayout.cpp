// The layout of database files as every program reads and makes it: the
// object accessors count from 0, cache maps are found by division, a chain
// from a file is never followed outside the image or round a loop, and a
// new file's parts lie where its head says, on 512-byte steps.
#include "CacheFileHeadArea.h"
#include "DbFileLayout.h"
#include "PackedValue.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

using talvortest::Val;

namespace {

// An image with a master map block at MAP_AT whose entries the test links.
const long long MAP_AT = 4096;
const long long IMAGE_SIZE = 65536;

long long EntryAt(int n) { return DbMapEntryOffset(MAP_AT, n); }

LPBASEFILEBLOCKMAP Entry(std::vector<BYTE>& vImage, int n) { return (LPBASEFILEBLOCKMAP)&vImage[EntryAt(n)]; }

// Links entries arOrder[0] -> arOrder[1] -> ... -> 0.
void Link(std::vector<BYTE>& vImage, const std::vector<int>& vOrder)
{
    for (size_t i = 0; i < vOrder.size(); i++) {
        Entry(vImage, vOrder[i])->m_nBlockNo = (UINT)(vOrder[i] + 1);
        Entry(vImage, vOrder[i])->m_nNextOffset = i + 1 < vOrder.size() ? EntryAt(vOrder[i + 1]) : 0;
    }
}

std::vector<long long> Walk(std::vector<BYTE>& vImage, long long nFirst, int* pnResult, long long* pnBad = nullptr,
                            long long nDelta = 0)
{
    std::vector<long long> vSeen;
    *pnResult = DbWalkMapChain(vImage.data(), (long long)vImage.size(), nFirst, nDelta, pnBad,
                               [&](long long nOffset, LPBASEFILEBLOCKMAP) {
                                   vSeen.push_back(nOffset);
                                   return true;
                               });
    return vSeen;
}

} // namespace

TEST(DbFileLayoutObjects, EntriesCountFromZero)
{
    std::vector<BYTE> vHead(sizeof(SYSTEMFILEHEAD), 0);
    LPSYSTEMFILEHEAD lpHead = (LPSYSTEMFILEHEAD)vHead.data();
    // Entry 1 is the second record of the table, 56 bytes past its start.
    EXPECT_EQ(1222 + 56, (LPBYTE)DbFileListObject(lpHead) - vHead.data());
    EXPECT_EQ(1222 + 99 * 56, (LPBYTE)DbSystemFileObject(lpHead, 99) - vHead.data());
    EXPECT_EQ(nullptr, DbSystemFileObject(lpHead, 100));
    EXPECT_EQ(nullptr, DbSystemFileObject(lpHead, -1));
}

TEST(DbFileLayoutObjects, MemoryFileObjectsStayInsideTableAndImage)
{
    std::vector<BYTE> vImage(8192, 0);
    LPBASEFILEHEAD lpHead = (LPBASEFILEHEAD)vImage.data();
    lpHead->m_nObjectInfoOffset = 512;
    lpHead->m_nMaxObjectNum = 200;
    EXPECT_EQ(512 + 3 * 56, (LPBYTE)DbMemoryFileObject(vImage.data(), 8192, 3) - vImage.data());
    EXPECT_EQ(nullptr, DbMemoryFileObject(vImage.data(), 8192, 200));  // beyond the table
    // (8192 - 512) / 56 = 137 entries fit the image: 137 would pass its end.
    EXPECT_NE(nullptr, DbMemoryFileObject(vImage.data(), 8192, 136));
    EXPECT_EQ(nullptr, DbMemoryFileObject(vImage.data(), 8192, 137));
    lpHead->m_nObjectInfoOffset = -56;
    EXPECT_EQ(nullptr, DbMemoryFileObject(vImage.data(), 8192, 0));
}

TEST(DbFileLayoutMaps, CacheMapIsFoundByDivision)
{
    int nMap = 0, nEntry = 0;
    ASSERT_TRUE(DbCacheMapLocation(681, CACHE_MAX_BLOCKMAP_NUM, &nMap, &nEntry));
    EXPECT_EQ(2, nMap);
    EXPECT_EQ(0, nEntry);
    ASSERT_TRUE(DbCacheMapLocation(680, CACHE_MAX_BLOCKMAP_NUM, &nMap, &nEntry));
    EXPECT_EQ(1, nMap);
    EXPECT_EQ(679, nEntry);
    EXPECT_FALSE(DbCacheMapLocation(0, CACHE_MAX_BLOCKMAP_NUM, &nMap, &nEntry));
    EXPECT_FALSE(DbCacheMapLocation(5, 0, &nMap, &nEntry));
}

namespace {

template <typename T>
T ValueAt(const std::vector<BYTE>& v, long long nOffset)
{
    T t;
    memcpy(&t, v.data() + nOffset, sizeof(t));
    return t;
}

long long BuildArea(BYTE bFileType, BYTE bFileNo, USHORT usGuid, int nObjects, long long nSize, long long nTs,
                    std::vector<BYTE>& v)
{
    CACHEHEADAREADEF d;
    d.m_bFileNo = bFileNo;
    d.m_bFileType = bFileType;
    d.m_usDatabaseGuid = usGuid;
    d.m_nMaxObjectNum = nObjects;
    d.m_nFileSize = nSize;
    d.m_nTimestamp = nTs;
    return CacheBuildHeadArea(d, v.data(), (long long)v.size(), nullptr) ? CacheHeadAreaSize(bFileType, nObjects) : -1;
}

} // namespace

// The head area of a new cache-mode file is checked field by field, at the
// edges of each page, in CacheFileHeadArea; here, read back at the byte
// offsets the engine reads, an index file whose objects spill into an
// extended page, and nothing set but the fields named.
TEST(DbFileLayoutMaps, IndexHeadAreaSpillsIntoAnExtendedPageAndSetsNothingElse)
{
    std::vector<BYTE> v(65536, 0xEE);
    ASSERT_EQ(49152, BuildArea(FILETYPE_INDEX, 3, 1, 678, DB_CACHEFILE_MIN_SIZE, 5, v));
    EXPECT_EQ(0x46424243, ValueAt<int>(v, 0));
    EXPECT_EQ(32768, ValueAt<int>(v, 50));        // first map block
    EXPECT_EQ(49152, ValueAt<long long>(v, 58));  // first block
    EXPECT_EQ(16384, ValueAt<long long>(v, 90));  // the extended page
    EXPECT_EQ(677, ValueAt<USHORT>(v, 98));
    EXPECT_EQ(0x45424243, ValueAt<int>(v, 16384));
    EXPECT_EQ(1, v[16384 + 6]);
    EXPECT_EQ(681, ValueAt<USHORT>(v, 16384 + 8));
    EXPECT_EQ(0, ValueAt<long long>(v, 16384 + 10));
    EXPECT_EQ(0x4D444E51, ValueAt<int>(v, 32768));
    size_t nNonZero = 0;
    for (size_t i = 0; i < 49152; i++) nNonZero += v[i] != 0;
    EXPECT_LT(nNonZero, 100u);
}

TEST(DbFileLayoutChains, GoodChainIsWalkedInOrder)
{
    std::vector<BYTE> vImage(IMAGE_SIZE, 0);
    Link(vImage, {4, 0, 7});
    int nResult = -1;
    std::vector<long long> vSeen = Walk(vImage, EntryAt(4), &nResult);
    EXPECT_EQ(DBCHAIN_OK, nResult);
    EXPECT_EQ((std::vector<long long>{EntryAt(4), EntryAt(0), EntryAt(7)}), vSeen);
    EXPECT_TRUE(Walk(vImage, 0, &nResult).empty());
    EXPECT_EQ(DBCHAIN_OK, nResult);
}

TEST(DbFileLayoutChains, LoopsOfAnyLengthAreRefusedBeforeAnyEntryIsHandedOut)
{
    for (int nTail : {0, 1, 40}) {
        for (int nLoop : {1, 2, 300}) {
            std::vector<BYTE> vImage(IMAGE_SIZE, 0);
            std::vector<int> vOrder;
            for (int i = 0; i < nTail + nLoop; i++) vOrder.push_back(i);
            Link(vImage, vOrder);
            // The last entry points back to the first entry of the loop.
            Entry(vImage, nTail + nLoop - 1)->m_nNextOffset = EntryAt(nTail);
            int nResult = -1;
            long long nBad = 0;
            std::vector<long long> vSeen = Walk(vImage, EntryAt(0), &nResult, &nBad);
            EXPECT_EQ(DBCHAIN_LOOP, nResult) << nTail << "+" << nLoop;
            EXPECT_TRUE(vSeen.empty()) << nTail << "+" << nLoop;
            EXPECT_GE(nBad, EntryAt(nTail));
        }
    }
}

TEST(DbFileLayoutChains, EntriesOutsideTheImageAreRefused)
{
    std::vector<BYTE> vImage(IMAGE_SIZE, 0);
    Link(vImage, {0, 1});
    int nResult = -1;
    long long nBad = 0;
    // The last whole entry ends exactly at the image's end: accepted.
    Entry(vImage, 1)->m_nNextOffset = IMAGE_SIZE - 20;
    Walk(vImage, EntryAt(0), &nResult, &nBad);
    EXPECT_EQ(DBCHAIN_OK, nResult);
    // One byte further and it would be read past the end.
    Entry(vImage, 1)->m_nNextOffset = IMAGE_SIZE - 19;
    std::vector<long long> vSeen = Walk(vImage, EntryAt(0), &nResult, &nBad);
    EXPECT_EQ(DBCHAIN_OUTSIDE, nResult);
    EXPECT_EQ(IMAGE_SIZE - 19, nBad);
    EXPECT_TRUE(vSeen.empty());
    Entry(vImage, 1)->m_nNextOffset = -40;
    Walk(vImage, EntryAt(0), &nResult, &nBad);
    EXPECT_EQ(DBCHAIN_OUTSIDE, nResult);
    Walk(vImage, IMAGE_SIZE, &nResult, &nBad);
    EXPECT_EQ(DBCHAIN_OUTSIDE, nResult);
    EXPECT_EQ(IMAGE_SIZE, nBad);
}

TEST(DbFileLayoutChains, SlaveReadsAddTheDeltaButReportMasterOffsets)
{
    const int nMapSize = 8192;
    std::vector<BYTE> vImage(IMAGE_SIZE, 0);
    // The master says 0 -> 1; the slave copy says 0 -> 2.
    Link(vImage, {0, 1});
    LPBASEFILEBLOCKMAP lpSlave0 = (LPBASEFILEBLOCKMAP)&vImage[EntryAt(0) + nMapSize];
    lpSlave0->m_nNextOffset = EntryAt(2);
    int nResult = -1;
    std::vector<long long> vSeen = Walk(vImage, EntryAt(0), &nResult, nullptr, nMapSize);
    EXPECT_EQ(DBCHAIN_OK, nResult);
    EXPECT_EQ((std::vector<long long>{EntryAt(0), EntryAt(2)}), vSeen);
    // A delta that pushes an entry past the end is refused as well.
    Walk(vImage, EntryAt(0), &nResult, nullptr, IMAGE_SIZE);
    EXPECT_EQ(DBCHAIN_OUTSIDE, nResult);
}

TEST(DbFileLayoutChains, ImageChangedAfterTheCheckCannotLengthenTheWalk)
{
    std::vector<BYTE> vImage(IMAGE_SIZE, 0);
    Link(vImage, {0, 1, 2});
    int nSteps = 0;
    int nResult = DbWalkMapChain(vImage.data(), IMAGE_SIZE, EntryAt(0), 0, nullptr,
                                 [&](long long, LPBASEFILEBLOCKMAP) {
                                     // The engine turns the chain into a loop under the walk.
                                     Entry(vImage, 2)->m_nNextOffset = EntryAt(0);
                                     return ++nSteps < 100;
                                 });
    EXPECT_EQ(DBCHAIN_LOOP, nResult);
    EXPECT_EQ(3, nSteps);
}

TEST(DbFileLayoutMake, MemoryFileHeadMapsAndFirstBlockAgree)
{
    for (BYTE bType : {FILETYPE_DATA, FILETYPE_BTREEINDEX, FILETYPE_KVINDEX}) {
        DBMEMFILEPLAN stPlan;
        ASSERT_TRUE(DbPlanMemoryFile(bType, 4 * DB_MIB, 1024, DbDefaultBlockSize(bType), &stPlan));
        for (long long n : {(long long)stPlan.m_nHeaderSize, stPlan.m_nBlockMapStartOffset, stPlan.m_nBlockStartOffset,
                            (long long)stPlan.m_nFirstBlockSize, stPlan.m_nFreeOffset, (long long)stPlan.m_nBlockMapSize})
            EXPECT_TRUE(DbIsAligned(n)) << n;
        std::vector<BYTE> vBuf(stPlan.m_nFreeOffset, 0xEE);
        ASSERT_TRUE(DbBuildMemoryFile(stPlan, 7, 0x1234, vBuf.data(), (long long)vBuf.size()));
        LPBASEFILEHEAD lpHead = (LPBASEFILEHEAD)vBuf.data();
        EXPECT_EQ(FileHeadDataFlag(bType), Val(lpHead->m_nDataFlag));
        EXPECT_EQ(7, lpHead->m_bFileNo);
        EXPECT_EQ(0x1234, Val(lpHead->m_usDatabaseGuid));
        EXPECT_EQ(4 * DB_MIB, Val(lpHead->m_nFileTotalSize));
        EXPECT_EQ(Val(stPlan.m_nFreeOffset), Val(lpHead->m_nFileFreeMemoryOffset));
        EXPECT_EQ(20, Val(lpHead->m_nBlockMapStructSize));
        // The object table lies wholly inside the head region.
        EXPECT_LE(lpHead->m_nObjectInfoOffset + 1024LL * 56, Val(lpHead->m_nFileHeaderSize));
        EXPECT_NE(nullptr, DbMemoryFileObject(vBuf.data(), (long long)vBuf.size(), 1023));
        EXPECT_EQ(0, Val(DbMemoryFileObject(vBuf.data(), (long long)vBuf.size(), 1023)->m_nID));
        // Master and slave are the same bytes.
        long long nMap = lpHead->m_nBlockMapStartOffset;
        EXPECT_EQ(0, memcmp(&vBuf[nMap], &vBuf[nMap + lpHead->m_nBlockMapSize], Val(lpHead->m_nBlockMapSize)));
        LPBASEFILEBLOCKMAPHEAD lpMap = (LPBASEFILEBLOCKMAPHEAD)&vBuf[nMap];
        EXPECT_EQ(BLOCKMAP_DATAFLAG, Val(lpMap->m_nDataFlag));
        EXPECT_EQ(1, Val(lpMap->m_nBlockMapNum));
        LPBASEFILEBLOCKMAP lpEntry = (LPBASEFILEBLOCKMAP)&vBuf[DbMapEntryOffset(nMap, 0)];
        EXPECT_EQ(1u, Val(lpEntry->m_nBlockNo));
        EXPECT_EQ(Val(lpHead->m_nBlockStartOffset), Val(lpEntry->m_nBlockOffset));
        LPBLOCKHEAD lpBlock = (LPBLOCKHEAD)&vBuf[lpEntry->m_nBlockOffset];
        EXPECT_EQ(BLOCK_DATAFLAG, Val(lpBlock->m_nDataFlag));
        EXPECT_EQ(1u, Val(lpBlock->m_nBlockNo));
        EXPECT_EQ(7, lpBlock->m_bFileNo);
        EXPECT_EQ(Val(stPlan.m_nFreeOffset), lpEntry->m_nBlockOffset + lpBlock->m_nBlockSize);
        // A data file is saved along its objects' chains: a block on none
        // would never reach the disk. Index files keep their objects empty.
        const bool bData = bType == FILETYPE_DATA;
        LPBASEFILEOBJECTDEF lpFirst = DbMemoryFileObject(vBuf.data(), (long long)vBuf.size(), 0);
        EXPECT_EQ(bData ? 1 : 0, (int)Val(lpFirst->m_nID));
        EXPECT_EQ(bData ? DbMapEntryOffset(nMap, 0) : 0, (long long)Val(lpFirst->m_nFreeBlockMapOffset));
        EXPECT_EQ(0, (long long)Val(lpFirst->m_nFullBlockMapOffset));
        EXPECT_EQ(bData ? 1 : 0, (int)Val(lpHead->m_nCurrentObjectNum));
    }
}

TEST(DbFileLayoutMake, PlansThatCannotHoldTheirPartsAreRefused)
{
    DBMEMFILEPLAN stPlan;
    EXPECT_FALSE(DbPlanMemoryFile(FILETYPE_DATA, 128 * 1024, 1024, 65536, &stPlan));  // too small
    EXPECT_FALSE(DbPlanMemoryFile(FILETYPE_DATA, 4 * DB_MIB + 100, 1024, 65536, &stPlan));
    EXPECT_FALSE(DbPlanMemoryFile(FILETYPE_DATA, 4 * DB_MIB, 1024, 65536 + 100, &stPlan));
    EXPECT_FALSE(DbPlanMemoryFile(FILETYPE_SYSTEM, 4 * DB_MIB, 1024, 65536, &stPlan));
    DBSYSFILEPLAN stSys;
    EXPECT_FALSE(DbPlanSystemFile(3, 65536, 512 * 1024, &stSys));  // maps alone need 528 KiB
    EXPECT_FALSE(DbPlanSystemFile(3, 400, DB_SYSTEMFILE_SIZE, &stSys));  // block not aligned
}

TEST(DbFileLayoutMake, SystemFileListSpansBlocksFullChainFirst)
{
    // 1024-byte blocks hold (1024 - 64) / 348 = 2 rows each.
    const int nRows = 7;
    DBSYSFILEPLAN stPlan;
    ASSERT_TRUE(DbPlanSystemFile(nRows, 1024, DB_SYSTEMFILE_SIZE, &stPlan));
    EXPECT_EQ(2, Val(stPlan.m_nRowsPerBlock));
    EXPECT_EQ(4, Val(stPlan.m_nListBlocks));
    std::vector<FILE_MEMDBFILEINFO> vRows(nRows);
    memset(vRows.data(), 0, nRows * sizeof(FILE_MEMDBFILEINFO));
    for (int i = 0; i < nRows; i++) {
        vRows[i].m_bFileNo = (BYTE)(i + 1);
        vRows[i].m_bFileType = i == 0 ? FILETYPE_SYSTEM : FILETYPE_DATA;
    }
    std::vector<BYTE> vBuf(stPlan.m_nFreeOffset, 0);
    ASSERT_TRUE(DbBuildSystemFile(stPlan, vRows.data(), 0x4242, "Db", "/d/", vBuf.data(), (long long)vBuf.size()));
    LPSYSTEMFILEHEAD lpHead = (LPSYSTEMFILEHEAD)vBuf.data();
    EXPECT_EQ(SYSTEMFILE_DATAFLAG, Val(lpHead->m_nDataFlag));
    EXPECT_EQ(1222, Val(lpHead->m_nObjectInfoOffset));
    EXPECT_EQ(0, Val(DbSystemFileObject(lpHead, 0)->m_nID));
    EXPECT_EQ(1, Val(DbFileListObject(lpHead)->m_nID));
    EXPECT_EQ(7, lpHead->m_bFileMaxNo);
    EXPECT_EQ(1, (int)Val(lpHead->m_nRedoLogMaxID)) << "a first redo log numbered 0 reads as no log";
    EXPECT_EQ(Val(stPlan.m_nFreeOffset), Val(lpHead->m_nFileFreePos));
    EXPECT_STREQ("/d/", lpHead->m_cDatabasePath);
    EXPECT_GT(Val(lpHead->m_nWriteRedoOnlineGroups), 2);
    EXPECT_GT(Val(lpHead->m_nWriteRedoMaxSize), 0);

    std::vector<int> vFileNos;
    std::vector<int> vFull;
    int nResult = DbForEachFileListRow(vBuf.data(), (long long)vBuf.size(),
                                       [&](LPSYSTEMBLOCKHEAD lpBlock, LPFILE_MEMDBFILEINFO lpRow) {
                                           vFileNos.push_back(lpRow->m_bFileNo);
                                           vFull.push_back(lpBlock->m_bFullFlag);
                                           return true;
                                       });
    EXPECT_EQ(DBCHAIN_OK, nResult);
    EXPECT_EQ((std::vector<int>{1, 2, 3, 4, 5, 6, 7}), vFileNos);
    EXPECT_EQ((std::vector<int>{1, 1, 1, 1, 1, 1, 0}), vFull);
    ASSERT_NE(nullptr, DbFindFileListRow(vBuf.data(), (long long)vBuf.size(), 5));
    EXPECT_EQ(5, Val(DbFindFileListRow(vBuf.data(), (long long)vBuf.size(), 5)->m_nInnerNo));
    EXPECT_EQ(nullptr, DbFindFileListRow(vBuf.data(), (long long)vBuf.size(), 9));
}

TEST(DbFileLayoutMake, BlocksWhoseRowsOverrunAreNotRead)
{
    DBSYSFILEPLAN stPlan;
    FILE_MEMDBFILEINFO stRow;
    memset(&stRow, 0, sizeof(stRow));
    stRow.m_bFileNo = 1;
    ASSERT_TRUE(DbPlanSystemFile(1, 1024, DB_SYSTEMFILE_SIZE, &stPlan));
    std::vector<BYTE> vBuf(stPlan.m_nFreeOffset, 0);
    ASSERT_TRUE(DbBuildSystemFile(stPlan, &stRow, 1, "Db", "/d/", vBuf.data(), (long long)vBuf.size()));
    long long nBlock = stPlan.m_nBlockStartOffset;
    LPSYSTEMBLOCKHEAD lpBlock = (LPSYSTEMBLOCKHEAD)&vBuf[nBlock];
    EXPECT_TRUE(DbSystemBlockFits(vBuf.data(), (long long)vBuf.size(), nBlock));
    lpBlock->m_nDataNum = 3;  // 64 + 3 * 348 > 1024
    EXPECT_FALSE(DbSystemBlockFits(vBuf.data(), (long long)vBuf.size(), nBlock));
    int nRows = 0;
    EXPECT_NE(DBCHAIN_OK, DbForEachFileListRow(vBuf.data(), (long long)vBuf.size(),
                                               [&](LPSYSTEMBLOCKHEAD, LPFILE_MEMDBFILEINFO) { return ++nRows > 0; }));
    EXPECT_EQ(0, nRows);
    lpBlock->m_nDataNum = -1;
    EXPECT_FALSE(DbSystemBlockFits(vBuf.data(), (long long)vBuf.size(), nBlock));
    lpBlock->m_nDataNum = 1;
    lpBlock->m_nBlockHeadSize = 20;  // rows would overlay the head
    EXPECT_FALSE(DbSystemBlockFits(vBuf.data(), (long long)vBuf.size(), nBlock));
    lpBlock->m_nBlockHeadSize = 64;
    lpBlock->m_nBlockSize = (int)(vBuf.size() - nBlock) + 512;  // past the image
    EXPECT_FALSE(DbSystemBlockFits(vBuf.data(), (long long)vBuf.size(), nBlock));
}

// Each file type finds its own head mark, and only the redo types without
// a trailer go without one.
TEST(DbFileLayoutMarks, EachTypeFindsItsOwnMark)
{
    const struct {
        BYTE bType;
        int nMark;
    } arTypes[] = {{FILETYPE_SYSTEM, SYSTEMFILE_DATAFLAG}, {FILETYPE_DATA, DATAFILE_DATAFLAG},
                   {FILETYPE_BTREEINDEX, BTREEINDEXFILE_DATAFLAG}, {FILETYPE_KVINDEX, KVINDEXFILE_DATAFLAG},
                   {FILETYPE_TABLE, TABLEFILE_DATAFLAG}, {FILETYPE_INDEX, INDEXFILE_DATAFLAG},
                   {0, 0}, {5, 0}, {12, 0}};
    for (const auto& t : arTypes) EXPECT_EQ(t.nMark, FileHeadDataFlag(t.bType)) << int(t.bType);
    EXPECT_TRUE(IsCacheFileType(10) && IsCacheFileType(11));
    EXPECT_FALSE(IsCacheFileType(4) || IsCacheFileType(12));
    EXPECT_TRUE(RedoRecordHasTrailer(9) && RedoRecordHasTrailer(15));
    EXPECT_FALSE(RedoRecordHasTrailer(10) || RedoRecordHasTrailer(14));
}
