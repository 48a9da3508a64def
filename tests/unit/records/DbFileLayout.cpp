// The layout of database files as every program reads and makes it: the
// object accessors count from 0, cache maps are found by division, a chain
// from a file is never followed outside the image or round a loop, and a
// new file's parts lie where its head says, on 512-byte steps.
#include "DbFileLayout.h"
#include "PackedValue.h"

#include <gtest/gtest.h>

#include <climits>
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

// Entry 1 is the second record of a table, one record past its start; the
// last entry of the table and of the image are the bounds.
TEST(DbFileLayoutObjects, EntriesCountFromZeroAndStayInsideTableAndImage)
{
    std::vector<BYTE> vHead(sizeof(SYSTEMFILEHEAD), 0);
    LPSYSTEMFILEHEAD lpSys = (LPSYSTEMFILEHEAD)vHead.data();
    EXPECT_EQ(&lpSys->m_stFileObject[99], DbSystemFileObject(lpSys, 99));
    EXPECT_EQ(nullptr, DbSystemFileObject(lpSys, 100));
    EXPECT_EQ(nullptr, DbSystemFileObject(lpSys, -1));

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
    EXPECT_EQ(std::make_pair(2, 0), std::make_pair(nMap, nEntry));
    ASSERT_TRUE(DbCacheMapLocation(680, CACHE_MAX_BLOCKMAP_NUM, &nMap, &nEntry));
    EXPECT_EQ(std::make_pair(1, 679), std::make_pair(nMap, nEntry));
    EXPECT_FALSE(DbCacheMapLocation(0, CACHE_MAX_BLOCKMAP_NUM, &nMap, &nEntry));
    EXPECT_FALSE(DbCacheMapLocation(5, 0, &nMap, &nEntry));
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

// Entry 1's next, or the start: no chain; the last whole entry ending
// exactly at the image's end; one byte further; before the image; a start
// at its end. What is refused is refused before any entry is handed out.
TEST(DbFileLayoutChains, EntriesOutsideTheImageAreRefused)
{
    const long long NO_CHECK = LLONG_MIN;
    const struct {
        long long nFirst, nNext;
        int nResult;
        long long nBad;
    } arCases[] = {{0, 0, DBCHAIN_OK, NO_CHECK},
                   {EntryAt(0), IMAGE_SIZE - 20, DBCHAIN_OK, NO_CHECK},
                   {EntryAt(0), IMAGE_SIZE - 19, DBCHAIN_OUTSIDE, IMAGE_SIZE - 19},
                   {EntryAt(0), -40, DBCHAIN_OUTSIDE, NO_CHECK},
                   {IMAGE_SIZE, 0, DBCHAIN_OUTSIDE, IMAGE_SIZE}};
    for (const auto& c : arCases) {
        std::vector<BYTE> vImage(IMAGE_SIZE, 0);
        Link(vImage, {0, 1});
        Entry(vImage, 1)->m_nNextOffset = c.nNext;
        int nResult = -1;
        long long nBad = NO_CHECK;
        std::vector<long long> vSeen = Walk(vImage, c.nFirst, &nResult, &nBad);
        SCOPED_TRACE(::testing::Message() << c.nFirst << " -> " << c.nNext);
        EXPECT_EQ(c.nResult, nResult);
        EXPECT_TRUE(c.nResult == DBCHAIN_OK || vSeen.empty());
        EXPECT_TRUE(c.nBad == NO_CHECK || c.nBad == nBad) << nBad;
    }
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
        // The object table lies wholly inside the head region.
        EXPECT_LE(lpHead->m_nObjectInfoOffset + 1024LL * 56, Val(lpHead->m_nFileHeaderSize));
        ASSERT_NE(nullptr, DbMemoryFileObject(vBuf.data(), (long long)vBuf.size(), 1023));
        EXPECT_EQ(0, Val(DbMemoryFileObject(vBuf.data(), (long long)vBuf.size(), 1023)->m_nID));
        // Master and slave are the same bytes.
        long long nMap = lpHead->m_nBlockMapStartOffset;
        EXPECT_EQ(0, memcmp(&vBuf[nMap], &vBuf[nMap + lpHead->m_nBlockMapSize], Val(lpHead->m_nBlockMapSize)));
        LPBASEFILEBLOCKMAPHEAD lpMap = (LPBASEFILEBLOCKMAPHEAD)&vBuf[nMap];
        LPBASEFILEBLOCKMAP lpEntry = (LPBASEFILEBLOCKMAP)&vBuf[DbMapEntryOffset(nMap, 0)];
        LPBLOCKHEAD lpBlock = (LPBLOCKHEAD)&vBuf[lpEntry->m_nBlockOffset];
        // Map head, its first entry, the block it names, and the free space
        // right after that block.
        EXPECT_EQ((std::vector<long long>{BLOCKMAP_DATAFLAG, 1, 1, lpHead->m_nBlockStartOffset, BLOCK_DATAFLAG, 1, 7,
                                          stPlan.m_nFreeOffset}),
                  (std::vector<long long>{lpMap->m_nDataFlag, lpMap->m_nBlockMapNum, lpEntry->m_nBlockNo,
                                          lpEntry->m_nBlockOffset, lpBlock->m_nDataFlag, lpBlock->m_nBlockNo,
                                          lpBlock->m_bFileNo, lpEntry->m_nBlockOffset + lpBlock->m_nBlockSize}));
        // A data file is saved along its objects' chains: a block on none
        // would never reach the disk. Index files keep their objects empty.
        const bool bData = bType == FILETYPE_DATA;
        LPBASEFILEOBJECTDEF lpFirst = DbMemoryFileObject(vBuf.data(), (long long)vBuf.size(), 0);
        EXPECT_EQ((std::vector<long long>{bData, bData ? DbMapEntryOffset(nMap, 0) : 0, 0, bData}),
                  (std::vector<long long>{lpFirst->m_nID, lpFirst->m_nFreeBlockMapOffset,
                                          lpFirst->m_nFullBlockMapOffset, lpHead->m_nCurrentObjectNum}));
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

// Seven rows in 1024-byte blocks of (1024 - 64) / 348 = 2 rows each; the
// rows' order over the blocks and chains is in
// SystemFileList.RowsPastOneBlockAreAllRead. A block whose rows would
// overrun it is not read; a count past the block (64 + 3 * 348 > 1024) stops
// the start: SystemFileList.DamagedListStopsTheStart.
TEST(DbFileLayoutMake, SystemFileHeadAndBlocksWhoseRowsOverrun)
{
    const int nRows = 7;
    DBSYSFILEPLAN stPlan;
    ASSERT_TRUE(DbPlanSystemFile(nRows, 1024, DB_SYSTEMFILE_SIZE, &stPlan));
    std::vector<FILE_MEMDBFILEINFO> vRows(nRows);
    for (int i = 0; i < nRows; i++) {
        vRows[i].m_bFileNo = (BYTE)(i + 1);
        vRows[i].m_bFileType = i == 0 ? FILETYPE_SYSTEM : FILETYPE_DATA;
    }
    std::vector<BYTE> vBuf(stPlan.m_nFreeOffset, 0);
    ASSERT_TRUE(DbBuildSystemFile(stPlan, vRows.data(), 0x4242, "Db", "/d/", vBuf.data(), (long long)vBuf.size()));
    LPSYSTEMFILEHEAD lpHead = (LPSYSTEMFILEHEAD)vBuf.data();
    // Mark, where the objects lie, the file list's object, the highest file
    // number, the first redo log (numbered 1: 0 reads as no log), free space.
    EXPECT_EQ((std::vector<long long>{SYSTEMFILE_DATAFLAG, 1222, 0, 1, 7, 1, stPlan.m_nFreeOffset}),
              (std::vector<long long>{lpHead->m_nDataFlag, lpHead->m_nObjectInfoOffset,
                                      DbSystemFileObject(lpHead, 0)->m_nID, DbFileListObject(lpHead)->m_nID,
                                      lpHead->m_bFileMaxNo, lpHead->m_nRedoLogMaxID, lpHead->m_nFileFreePos}));
    EXPECT_STREQ("/d/", lpHead->m_cDatabasePath);
    ASSERT_NE(nullptr, DbFindFileListRow(vBuf.data(), (long long)vBuf.size(), 5));
    EXPECT_EQ(5, Val(DbFindFileListRow(vBuf.data(), (long long)vBuf.size(), 5)->m_nInnerNo));
    EXPECT_EQ(nullptr, DbFindFileListRow(vBuf.data(), (long long)vBuf.size(), 9));

    const long long nBlock = stPlan.m_nBlockStartOffset;
    LPSYSTEMBLOCKHEAD lpBlock = (LPSYSTEMBLOCKHEAD)&vBuf[nBlock];
    auto Fits = [&] { return DbSystemBlockFits(vBuf.data(), (long long)vBuf.size(), nBlock); };
    ASSERT_EQ(2, Val(lpBlock->m_nDataNum)) << "the most a 1024-byte block holds";
    EXPECT_TRUE(Fits());
    lpBlock->m_nDataNum = -1;
    EXPECT_FALSE(Fits());
    lpBlock->m_nDataNum = 1;
    lpBlock->m_nBlockHeadSize = 20;  // rows would overlay the head
    EXPECT_FALSE(Fits());
    lpBlock->m_nBlockHeadSize = 64;
    lpBlock->m_nBlockSize = (int)(vBuf.size() - nBlock) + 512;  // past the image
    EXPECT_FALSE(Fits());
}
