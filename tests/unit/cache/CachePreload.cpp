// The preload at start, on real files and a real segment; the blocks
// expected in the cache are computed from the layout the test wrote.
#include "TestClock.h"
#include "CacheFixture.h"
#include "FaultFileIO.h"
#include "TalvorFileStorage.h"
#include "TempTree.h"

#include <random>

using namespace cachetest;

namespace {

const BYTE INDEX_NO = 11;
const BYTE TABLE_NO = 12;
const long long FILE_SIZE = 4LL * 1048576;

struct BlockShape {
    BYTE bNode;  // 1 leaf, 2..5 upper; table blocks 0
    int nSize;
    int nID;
};

struct TestFile {
    BYTE bFileNo;
    std::vector<BlockShape> vBlocks;
    std::vector<long long> vOffsets;
    std::string strPath;
    FILEINFO info;
    long long llLoadSize = 0;
    CTalvorFileStorage* pStorage = nullptr;
};

class CachePreload : public CacheFixture {
protected:
    void SetUp() override
    {
        CacheFixture::SetUp();
        ASSERT_EQ(0, Open(32));
        m_rng.seed(1126);
        memset(&m_stProgress, 0, sizeof(m_stProgress));
        m_pCache->m_pLoadProgress = &m_stProgress;
    }
    void TearDown() override
    {
        if (m_pCache) m_pCache->Free();
        for (auto& f : m_vFiles)
            if (f->pStorage != nullptr) f->pStorage->Release();
        m_vFiles.clear();
        m_module.m_pFileList = nullptr;
        CacheFixture::TearDown();
    }

    // Writes the file (head page, one map page, the blocks from 32768),
    // puts its head and map into the cache and opens its backend.
    TestFile& AddFile(BYTE bFileNo, BYTE bType, const std::vector<BlockShape>& vBlocks)
    {
        m_vFiles.emplace_back(new TestFile);
        TestFile& f = *m_vFiles.back();
        f.bFileNo = bFileNo;
        f.vBlocks = vBlocks;
        std::vector<BYTE> v((size_t)m_llFileSize);
        for (BYTE& b : v) b = (BYTE)m_rng();
        memset(v.data(), 0, 2 * CACHE_BLOCK_SIZE);
        long long llAt = 32768;
        LPBASEFILEBLOCKMAPHEAD_CACHE lpMap = (LPBASEFILEBLOCKMAPHEAD_CACHE)(v.data() + CACHE_BLOCK_SIZE);
        lpMap->m_nDataFlag = BLOCKMAP_CACHE_DATAFLAG;
        lpMap->m_nBlockMapNum = (int)vBlocks.size();
        lpMap->m_nMapNo = 1;
        for (size_t i = 0; i < vBlocks.size(); i++) {
            LPBASEBLOCKHEAD h = (LPBASEBLOCKHEAD)(v.data() + llAt);
            h->m_nDataFlag = BLOCK_DATAFLAG;
            h->m_nBlockNo = (UINT)(i + 1);
            h->m_bFileNo = bFileNo;
            h->m_nBlockSize = vBlocks[i].nSize;
            h->m_bNodeType = vBlocks[i].bNode;
            h->m_bThreadNum = 3;
            lpMap->m_pBlockMap[i].m_nBlockNo = (UINT)(i + 1);
            lpMap->m_pBlockMap[i].m_nBlockSize = vBlocks[i].nSize;
            lpMap->m_pBlockMap[i].m_nID = vBlocks[i].nID;
            lpMap->m_pBlockMap[i].m_nBlockOffset = llAt;
            f.vOffsets.push_back(llAt);
            llAt += vBlocks[i].nSize;
        }
        LPTABLEFILEHEAD lpHead = (LPTABLEFILEHEAD)v.data();
        lpHead->m_nDataFlag = bType == FILETYPE_TABLE ? TABLEFILE_DATAFLAG : INDEXFILE_DATAFLAG;
        lpHead->m_bFileNo = bFileNo;
        lpHead->m_bFileType = bType;
        lpHead->m_nBlockNum = (UINT)vBlocks.size();
        lpHead->m_nFileTotalSize = m_llFileSize;
        lpHead->m_nFileHeaderSize = CACHE_BLOCK_SIZE;
        lpHead->m_nBlockMapStructSize = BLOCKMAP_STRUCT_SIZE_CACHE;
        lpHead->m_nMaxBlockMapNum = m_nMaxMap;
        lpHead->m_nFileFreeMemoryOffset = llAt;
        f.strPath = m_tree.Path("File" + std::to_string(bFileNo) + ".dbf");
        EXPECT_TRUE(talvortest::WriteWholeFile(f.strPath, AsString(v.data(), v.size())));
        long long llOffset = 0;
        EXPECT_EQ(0, m_pCache->LoadFile2Cache(nullptr, bFileNo, llOffset));
        EXPECT_EQ(0, m_pCache->LoadFile2Cache(nullptr, bFileNo, llOffset));
        EXPECT_EQ(0, m_pCache->NewFile2Cache(nullptr, bFileNo, bType, v.data(), 0));
        Describe(f.info, f.strPath, bFileNo, bType, m_llFileSize);
        f.info.m_pLoadSize = &f.llLoadSize;
        f.pStorage = new CTalvorFileStorage(m_pCache.get());
        EXPECT_EQ(0, f.pStorage->OpenFile(nullptr, &f.info, 1));
        f.info.m_pStorageFile = f.pStorage;
        // The list in the order the files were added.
        if (m_vFiles.size() == 1) m_module.m_pFileList = &f.info;
        else m_vFiles[m_vFiles.size() - 2]->info.m_pNext = &f.info;
        return f;
    }
    // A fresh cache with an index file of 12 MiB: two pieces of the preload.
    TestFile& FreshBigIndex(const std::vector<BlockShape>& vBlocks)
    {
        TearDown();
        SetUp();
        m_llFileSize = 12LL * 1048576;
        return AddFile(INDEX_NO, FILETYPE_INDEX, vBlocks);
    }
    // Room so that nRoom - nUsed = llWanted.
    void SetRoom(long long llWanted)
    {
        long long nUsed = (long long)(UINT)Head()->m_nFreeNo * CACHE_BLOCK_SIZE;
        m_pCache->m_nFIFOSize = m_pCache->m_llCacheBufferSize - m_pCache->m_nCacheFlashBackSize - nUsed - llWanted;
    }
    // Leaves only nBlocks on the free chain (its end link cleared).
    void CutFreeChain(int nBlocks)
    {
        std::vector<UINT> v = Chain((UINT)Head()->m_nFreeNo);
        ASSERT_GT((int)v.size(), nBlocks);
        *(UINT*)(Base() + CacheLinkOffset(v[(size_t)nBlocks - 1])) = 0;
    }
    // The loaded blocks, in the order of the free chain, each equal to the
    // file's bytes with the use count cleared.
    ::testing::AssertionResult ChainHolds(const TestFile& f, const std::vector<int>& vWant)
    {
        std::vector<UINT> vChain = Chain((UINT)Head()->m_nFreeNo);
        if (vChain.size() < vWant.size()) return ::testing::AssertionFailure() << "free chain too short";
        for (size_t i = 0; i < vWant.size(); i++) {
            int b = vWant[i];
            std::vector<BYTE> vFile = FileAt(f.strPath, f.vOffsets[(size_t)b], f.vBlocks[(size_t)b].nSize);
            if (vFile.empty()) return ::testing::AssertionFailure() << "file unreadable";
            vFile[offsetof(BASEBLOCKHEAD, m_bThreadNum)] = 0;
            if (memcmp(Base() + CacheBlockOffset(vChain[i]), vFile.data(), vFile.size()) != 0)
                return ::testing::AssertionFailure() << "chain place " << i << " does not hold block " << (b + 1);
        }
        // Behind the loaded blocks no further block of either file was put.
        if (vChain.size() > vWant.size()) {
            LPBASEBLOCKHEAD h = (LPBASEBLOCKHEAD)(Base() + CacheBlockOffset(vChain[vWant.size()]));
            if (h->m_nDataFlag == BLOCK_DATAFLAG) return ::testing::AssertionFailure() << "more blocks loaded than wanted";
        }
        return ::testing::AssertionSuccess();
    }

    long long m_llFileSize = FILE_SIZE;
    int m_nMaxMap = 600;
    talvortest::TempTree m_tree{"preload"};
    std::vector<std::unique_ptr<TestFile>> m_vFiles;
    std::mt19937 m_rng;
    TALVORPROGRESS m_stProgress;
};

const int P = CACHE_BLOCK_SIZE;
const int H = CACHE_BLOCK_SIZE / 2;

// A leaf comes first in file order so that "upper nodes first" cannot be
// satisfied by file order alone; block 4 is free (ID 0); the small leaves
// count in the index size but not in its 16384-byte part.
std::vector<BlockShape> IndexBlocks()
{
    return {{1, P, 1}, {2, P, 1}, {1, P, 1}, {3, P, 0}, {1, H, 1}, {5, P, 1}, {1, P, 1}, {1, H, 1},
            {4, P, 1}, {1, H, 1}, {1, H, 1}, {1, H, 1}, {1, H, 1}, {1, H, 1}, {1, H, 1}, {2, P, 1}};
}
// Blocks of 16384 bytes with an ID: 0, 1, 2, 5, 6, 8, 15; of half size
// with an ID: 4, 7, 9 to 14. Upper nodes with an ID: 1, 5, 8, 15.

// With room for the upper nodes and a leaf share of 2 x 16384, leaves 0 and
// 2 use the share up and block 4 would go over. A free chain cut to 3
// blocks ends the load early under each type. A cache taken over from the
// daemon before loads nothing.
TEST_F(CachePreload, RoomAndAFullCacheEndTheLoadUnderEachType)
{
    const long long llShare = 7LL * P + 2LL * P + (4LL * P) / 100;
    struct {
        const char* lpszType;
        long long llRoom;  // relative to the used blocks
        int nCut;          // blocks left on the free chain, 0 all
        std::vector<int> vWant;
        bool bTakenOver = false;
    } arCases[] = {
        {"some leaves", llShare, 0, {0, 1, 2, 5, 8, 15}},
        {"all, cut", 1LL << 24, 3, {0, 1, 2}},
        {"upper only, cut", 7LL * P - 1, 3, {1, 5, 8}},
        {"taken over", 1LL << 24, 0, {}, true},
    };
    for (const auto& c : arCases) {
        SCOPED_TRACE(c.lpszType);
        TearDown();
        SetUp();
        TestFile& idx = AddFile(INDEX_NO, FILETYPE_INDEX, IndexBlocks());
        AddFile(TABLE_NO, FILETYPE_TABLE, {{0, P, 1}});
        SetRoom(c.llRoom);
        if (c.nCut > 0) CutFreeChain(c.nCut);
        if (c.bTakenOver) {
            m_pCache->m_bExists = TRUE;
            Head()->m_bStatus = CACHESTATUS_BUILDING;
        }
        UINT nHeadFree = (UINT)Head()->m_nFreeNo;
        std::vector<UINT> vBefore = Chain(nHeadFree);
        EXPECT_EQ(S_OK, m_pCache->InitCacheHead(nullptr));
        EXPECT_EQ(CACHESTATUS_READY, Val(Head()->m_bStatus));
        EXPECT_EQ(nHeadFree, (UINT)Head()->m_nFreeNo);
        EXPECT_EQ(vBefore, Chain(nHeadFree)) << "the free chain itself changed";
        EXPECT_TRUE(ChainHolds(idx, c.vWant));
    }
}

TEST_F(CachePreload, ABadHeadAReadErrorOrALostMapFailsTheLoad)
{
    auto fnHead = [this] { return (LPTABLEFILEHEAD)(Base() + CacheBlockOffset(Head()->m_nFileInfoNo[INDEX_NO])); };
    talvortest::FaultFileIO io;
    struct {
        const char* lpName;
        std::function<void()> fnSpoil;
        HRESULT hr;
        int nMaxMap = 600;
    } arCases[] = {
        {"head of another size", [&] { fnHead()->m_nFileHeaderSize = 8192; }, E_FAIL},
        {"chain to no map block", [&] { *(int*)(Base() + fnHead()->m_nCacheStartOffset) = 0x12345678; }, 1},
        {"head naming no next page", [&] { fnHead()->m_nCacheStartOffset = 0; }, CACHE_RESULT_NOCHAIN},
        {"read error", [&] { io.FailNext(talvortest::FileOp::PRead, EIO, FILESTORE_IO_TRIES); }, E_FAIL},
        // A full map block whose next map block is missing.
        {"map lost", nullptr, E_FAIL, 16},
    };
    for (const auto& c : arCases) {
        SCOPED_TRACE(c.lpName);
        TearDown();
        SetUp();
        m_nMaxMap = c.nMaxMap;
        AddFile(INDEX_NO, FILETYPE_INDEX, IndexBlocks());
        if (c.fnSpoil) c.fnSpoil();
        {
            talvortest::ScopedFileIO scoped(&io);
            EXPECT_EQ(c.hr, m_pCache->InitCacheHead(nullptr));
        }
        EXPECT_EQ(CACHESTATUS_FAILED, Val(Head()->m_bStatus));
    }
}

// ---- The read ahead: the next piece is read on a reader thread while the
// blocks of the current one are copied. Whatever it does, the cache and the
// result are those of a sweep that reads each piece only when it gets to it.

int ThreadCount() { return (int)talvortest::ListFiles("/proc/self/task/").size(); }

// The process is back to n threads. A joined thread's task may stay in
// /proc for a moment after the join returns; a leaked one stays for good.
bool ThreadsSettleAt(int n)
{
    return talvortest::WaitUntil([n] { return ThreadCount() == n; }, 2000);
}

const long long PIECE_END = CACHE_PRELOAD_FROM + CACHE_PRELOAD_PIECE;

// nBlocks blocks of 16384 bytes (fewer than the map holds: a full map
// block would need a next one) of node bNode; with bShifted a half-size
// block first, so that a page runs over the end of the first piece and the
// next piece starts with its part carried from the first.
std::vector<BlockShape> TwoPieces(int nBlocks, BYTE bNode, bool bShifted)
{
    std::vector<BlockShape> v;
    if (bShifted) v.push_back({bNode, H, 1});
    for (int i = 0; i < nBlocks; i++) v.push_back({bNode, P, 1});
    return v;
}

// The index spans two pieces and its half-size first block shifts every
// later one, so the second piece starts with a part carried over. A failed
// read of the second piece surfaces once the first is copied: exactly the
// blocks whole inside it, in order, and not one more.
TEST_F(CachePreload, BlocksOfTwoPiecesLandWholeAndAFailedSecondReadStopsAtTheFirst)
{
    for (bool bFail : {false, true}) {
        SCOPED_TRACE(bFail ? "the second read fails" : "both reads go well");
        std::vector<BlockShape> vIndex = TwoPieces(580, 2, true);
        for (size_t i = 1; i < vIndex.size(); i += 7) vIndex[i].bNode = 1;
        vIndex[9].nID = 0;
        TestFile& idx = FreshBigIndex(vIndex);
        ASSERT_GT(idx.vOffsets.back(), PIECE_END);
        int nThreads = ThreadCount();
        UINT nHeadFree = (UINT)Head()->m_nFreeNo;
        talvortest::FaultFileIO io;
        if (bFail) io.FailCall(talvortest::FileOp::PRead, 2, EIO, FILESTORE_IO_TRIES);
        {
            talvortest::ScopedFileIO scoped(&io);
            EXPECT_EQ(bFail ? E_FAIL : S_OK, m_pCache->InitCacheHead(nullptr));
        }
        EXPECT_TRUE(ThreadsSettleAt(nThreads));
        EXPECT_EQ(bFail ? CACHESTATUS_FAILED : CACHESTATUS_READY, Val(Head()->m_bStatus));
        EXPECT_EQ(nHeadFree, (UINT)Head()->m_nFreeNo) << "the preload moved the head's free number";
        std::vector<int> vWant;
        for (size_t b = 0; b < vIndex.size(); b++) {
            if (bFail && idx.vOffsets[b] + vIndex[b].nSize > PIECE_END) break;
            if (vIndex[b].nID != 0) vWant.push_back((int)b);
        }
        EXPECT_TRUE(ChainHolds(idx, vWant));
    }
}

} // namespace
