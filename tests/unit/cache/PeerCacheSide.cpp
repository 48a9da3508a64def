// The engine stand-in's side of the shared cache (talvor-peer cache) against
// the daemon's own pipeline and load thread, in one process: a cache-mode
// file whose head pages hang in a real segment, the table flush loop on a
// thread of its own, and the stand-in attached to the segment by its key as
// the engine attaches it. What reaches the file is read past every layer
// and compared byte for byte with what the stand-in held in the cache.
#include "CacheFileHeadArea.h"
#include "FileStorageFixture.h"
#include "PeerCache.h"

#include <algorithm>
#include <chrono>
#include <thread>

using namespace cachetest;
using namespace talvorpeer;

namespace {

const int WAIT_MS = 20000;
const int BLOCKS = 3;
const long long FIRST_TS = 100;

class PeerCacheSide : public FileStorageFixture {
protected:
    void SetUp() override
    {
        FileStorageFixture::SetUp();
        Make(FALSE);
        ASSERT_FALSE(HasFatalFailure());
        WriteHeadArea();
        ASSERT_FALSE(HasFatalFailure());
        m_module.m_arFiles[FS_FILE_NO] = &m_info;
        m_pCache->SetCacheModule(&m_module);
        m_pCache->m_nWaitTime = 20;
        long long llOffset = 0;
        ASSERT_EQ(0, m_pCache->LoadFile2Cache(nullptr, FS_FILE_NO, llOffset));
        ASSERT_EQ(0, m_pCache->LoadFile2Cache(nullptr, FS_FILE_NO, llOffset));
        ASSERT_EQ(0, m_pCache->NewFile2Cache(nullptr, FS_FILE_NO, FILETYPE_TABLE, m_area.m_p, 0));
        Head()->m_bStatus = CACHESTATUS_READY;
        m_flusher = std::thread([this] { EXPECT_EQ(S_OK, m_pCache->StorageFlush(nullptr)); });
        ASSERT_TRUE(m_peer.Attach(0)) << m_peer.m_strError;
        ASSERT_TRUE(m_peer.OpenFile(FS_FILE_NO, FILETYPE_TABLE, m_strPath, m_file)) << m_peer.m_strError;
    }
    void TearDown() override
    {
        if (m_pCache) TalvorStoreShared(&m_pCache->m_bExit, 1);
        if (m_flusher.joinable()) m_flusher.join();
        if (m_pCache) m_pCache->Free();
        FileStorageFixture::TearDown();
    }
    // The head area of a new table file over the first bytes of the file.
    void WriteHeadArea()
    {
        CACHEHEADAREADEF stDef = {FS_FILE_NO, FILETYPE_TABLE, 1, 16, FS_FILE_SIZE, 1};
        int nEx = -1;
        ASSERT_TRUE(CacheBuildHeadArea(stDef, m_area.m_p, (long long)m_area.m_n, &nEx));
        ASSERT_EQ(0, nEx);
        int fd = open(m_strPath.c_str(), O_RDWR);
        ASSERT_GE(fd, 0);
        ASSERT_EQ((ssize_t)m_area.m_n, pwrite(fd, m_area.m_p, m_area.m_n, 0));
        close(fd);
    }
    // Blocks 1..BLOCKS made new and carried to disk.
    void MakeAndFlushBlocks()
    {
        for (int i = 0; i < BLOCKS; i++) {
            UINT nNo = 0;
            ASSERT_TRUE(m_peer.NewBlock(m_file, FIRST_TS + i, nNo)) << m_peer.m_strError;
            ASSERT_EQ((UINT)i + 1, nNo);
            PeerFlushPost post = m_peer.DataEntry(m_file, nNo, FIRST_TS + i);
            ASSERT_TRUE(m_peer.PostEntry(post, WAIT_MS));
            ASSERT_EQ(CACHEFLUSH_DONE, m_peer.WaitEntry(post, WAIT_MS));
        }
    }
    std::vector<BYTE> FileRange(long long llAt, int nSize)
    {
        std::vector<BYTE> v = FileBytes();
        if (v.size() < (size_t)(llAt + nSize)) return {};
        return std::vector<BYTE>(v.begin() + llAt, v.begin() + llAt + nSize);
    }
    // The cache block as a disk copy must hold it: the engine's in-memory
    // marks zeroed, by their offsets in the block head.
    std::vector<BYTE> AsOnDisk(const BYTE* lpBlock)
    {
        std::vector<BYTE> v(lpBlock, lpBlock + PEERCACHE_BLOCK_SIZE);
        for (size_t n : {offsetof(BASEBLOCKHEAD, m_bSaveFlag), offsetof(BASEBLOCKHEAD, m_bFlushFlag),
                         offsetof(BASEBLOCKHEAD, m_bStatus), offsetof(BASEBLOCKHEAD, m_bThreadNum)})
            v[n] = 0;
        memset(&v[offsetof(BASEBLOCKHEAD, m_nLockTimestamp)], 0, 8);
        return v;
    }
    long long PlaceOf(UINT nBlockNo) { return m_peer.MapEntry(m_file, nBlockNo)->m_nBlockOffset; }
    LPBLOCKHEAD Live(UINT nBlockNo) { return (LPBLOCKHEAD)m_peer.BlockAt(m_file.m_mapBlocks[nBlockNo]); }
    // Posts the entry of block 1's next version, bent by fnBend, and gives
    // the daemon's answer.
    template <class F>
    int PostBent(F fnBend)
    {
        long long llTs = FIRST_TS + 50;
        m_peer.ChangeBlock(m_file, 1, llTs);
        PeerFlushPost post = m_peer.DataEntry(m_file, 1, llTs);
        fnBend(post.m_stEntry);
        if (!m_peer.PostEntry(post, WAIT_MS)) return -2;
        return m_peer.WaitEntry(post, WAIT_MS);
    }

    AlignedBytes m_area{2 * CACHE_PAGE_SIZE};
    CPeerCache m_peer;
    PeerCacheFile m_file;
    std::thread m_flusher;
};

TEST_F(PeerCacheSide, NewBlocksPagesAndATimestampReachTheFileAsTheCacheHeldThem)
{
    MakeAndFlushBlocks();
    for (UINT n = 1; n <= BLOCKS; n++) {
        EXPECT_EQ(CACHE_PAGE_SIZE * (long long)(n + 1), PlaceOf(n)) << "blocks follow the head area";
        EXPECT_EQ(AsOnDisk((const BYTE*)Live(n)), FileRange(PlaceOf(n), PEERCACHE_BLOCK_SIZE)) << "block " << n;
        EXPECT_EQ(0, Val(Live(n)->m_bSaveFlag));
        EXPECT_EQ(0, Val(Live(n)->m_bFlushFlag)) << "an unchanged block written is clean";
    }
    PeerFlushPost map, head, stamp;
    ASSERT_TRUE(m_peer.PageEntry(m_file, CACHEFLUSH_MAP, map));
    ASSERT_TRUE(m_peer.PageEntry(m_file, CACHEFLUSH_HEAD, head));
    ASSERT_TRUE(m_peer.TimestampEntry(false, FIRST_TS + BLOCKS, 3, stamp));
    std::vector<BYTE> vMap(m_peer.ImageOf(map), m_peer.ImageOf(map) + CACHE_PAGE_SIZE);
    std::vector<BYTE> vHead(m_peer.ImageOf(head), m_peer.ImageOf(head) + CACHE_PAGE_SIZE);
    for (PeerFlushPost* p : {&map, &head, &stamp}) ASSERT_TRUE(m_peer.PostEntry(*p, WAIT_MS));
    for (PeerFlushPost* p : {&map, &head, &stamp}) EXPECT_EQ(CACHEFLUSH_DONE, m_peer.WaitEntry(*p, WAIT_MS));
    // The peer saw the answer through its own mapping of the segment; read
    // it once more through the daemon's, the address the flush thread
    // answered at, so that the thread sanitizer sees the order too.
    ASSERT_EQ(0, TalvorLoadShared(&m_pCache->m_pCacheFlush[stamp.m_nPos].m_bStatus));
    EXPECT_EQ(vMap, FileRange(CACHE_PAGE_SIZE, CACHE_PAGE_SIZE));
    EXPECT_EQ(vHead, FileRange(0, CACHE_PAGE_SIZE));
    EXPECT_EQ((UINT)BLOCKS, Val(((LPTABLEFILEHEAD)vHead.data())->m_nBlockNum));
    EXPECT_EQ(BLOCKS, Val(((LPBASEFILEBLOCKMAPHEAD_CACHE)vMap.data())->m_nBlockMapNum));
    ASSERT_EQ(1u, m_module.m_vCommits.size());
    EXPECT_EQ(FIRST_TS + BLOCKS, m_module.m_vCommits[0].llTimestamp);
    ASSERT_TRUE(m_module.m_vCommits[0].bArray);
    long long arWant[3] = {FIRST_TS + BLOCKS, FIRST_TS + BLOCKS - 1, FIRST_TS + BLOCKS - 2};
    EXPECT_EQ(0, memcmp(arWant, m_module.m_vCommits[0].vArray.data(), sizeof(arWant)));
    // Every image went back to its pool.
    for (int i = 0; i < CACHE_FLUSHFILE_NUM; i++) EXPECT_EQ(0, Val(m_pCache->m_pFlushFile[i].m_bStatus)) << i;
    for (int i = 0; i < CACHE_FLUSHTSFILE_NUM; i++) EXPECT_EQ(0, Val(m_pCache->m_pFlushTimestampFile[i].m_bStatus));
}

TEST_F(PeerCacheSide, BentEntriesAreRefusedOrDroppedAndWriteNothing)
{
    MakeAndFlushBlocks();
    std::vector<BYTE> vBefore = FileBytes();
    EXPECT_EQ(CACHEFLUSH_DONE, PostBent([](stu_CacheFlush& e) { e.m_llTimestamp = 0; })) << "cancelled: dropped";
    EXPECT_EQ(CACHEFLUSH_DONE, PostBent([](stu_CacheFlush& e) { e.m_nBlockNo = BLOCKS + 1; })) << "lapsed";
    EXPECT_EQ(CACHEFLUSH_NOFILE, PostBent([](stu_CacheFlush& e) { e.m_bFileNo = 250; }));
    EXPECT_EQ(CACHEFLUSH_FAILED, PostBent([](stu_CacheFlush& e) { e.m_nBlockSize = PEERCACHE_BLOCK_SIZE / 2; }));
    EXPECT_EQ(CACHEFLUSH_UNUSABLE, PostBent([](stu_CacheFlush& e) { e.m_llCacheBlockOffset = 0; }));
    EXPECT_EQ(-1, FirstDiff(vBefore, FileBytes())) << "no bent entry may write";
    EXPECT_EQ(1, Val(Live(1)->m_bFlushFlag)) << "the change is still owed to the disk";
}

TEST_F(PeerCacheSide, AGenerationMovedOnIsWrittenWholeAndTheBlockStaysMarked)
{
    MakeAndFlushBlocks();
    struct Ctx {
        CPeerCache* pPeer;
        PeerCacheFile* pFile;
    } stCtx = {&m_peer, &m_file};
    m_peer.ChangeBlock(m_file, 2, FIRST_TS + 60);
    PeerFlushPost post = m_peer.DataEntry(m_file, 2, FIRST_TS + 60);
    ASSERT_TRUE(m_peer.PostEntry(post, WAIT_MS, [](PeerFlushPost& p, void* pArg) {
        Ctx* c = (Ctx*)pArg;
        c->pPeer->ChangeBlock(*c->pFile, p.m_stEntry.m_nBlockNo, FIRST_TS + 61);
        return true;
    }, &stCtx));
    EXPECT_EQ(CACHEFLUSH_DONE, m_peer.WaitEntry(post, WAIT_MS));
    std::vector<BYTE> vNewer((size_t)PEERCACHE_BLOCK_SIZE);
    PeerCacheMakeBlock(vNewer.data(), FS_FILE_NO, FILETYPE_TABLE, 2, FIRST_TS + 61);
    EXPECT_EQ(AsOnDisk(vNewer.data()), FileRange(PlaceOf(2), PEERCACHE_BLOCK_SIZE));
    EXPECT_EQ(1, Val(Live(2)->m_bSaveFlag)) << "the newer version must still be saved";
}

TEST_F(PeerCacheSide, LoadsGiveTheFileBlockAndWrongRequestsLeaveTheCacheBlockAlone)
{
    MakeAndFlushBlocks();
    std::vector<BYTE> vDisk = FileRange(PlaceOf(2), PEERCACHE_BLOCK_SIZE);
    auto Load = [&](PeerLoadFault eFault, BYTE bFile, long long& llCache) {
        EXPECT_TRUE(m_peer.TakeFreeBlock(llCache));
        memset(m_peer.BlockAt(llCache), 0xA5, PEERCACHE_BLOCK_SIZE);
        return m_peer.LoadBlock(m_file, 2, llCache, eFault, bFile, WAIT_MS);
    };
    auto Untouched = [&](long long llCache) {
        LPBYTE p = m_peer.BlockAt(llCache);
        return std::all_of(p, p + PEERCACHE_BLOCK_SIZE, [](BYTE b) { return b == 0xA5; });
    };
    long long llCache = 0;
    EXPECT_EQ(CACHELOAD_OK, Load(PEERLOAD_NONE, 0, llCache));
    EXPECT_EQ(vDisk, std::vector<BYTE>(m_peer.BlockAt(llCache), m_peer.BlockAt(llCache) + PEERCACHE_BLOCK_SIZE));
    EXPECT_EQ(CACHELOAD_OK, Load(PEERLOAD_LATE, 0, llCache)) << "the stale half of the slot was never taken";
    EXPECT_EQ(vDisk, std::vector<BYTE>(m_peer.BlockAt(llCache), m_peer.BlockAt(llCache) + PEERCACHE_BLOCK_SIZE));
    EXPECT_EQ(CACHELOAD_FAILED, Load(PEERLOAD_NUMBER, 0, llCache));
    EXPECT_TRUE(Untouched(llCache));
    EXPECT_EQ(CACHELOAD_FAILED, Load(PEERLOAD_SIZE, 0, llCache));
    EXPECT_TRUE(Untouched(llCache));
    EXPECT_EQ(CACHELOAD_NOFILE, Load(PEERLOAD_FILE, 250, llCache));
    EXPECT_TRUE(Untouched(llCache));
}

// A version is made in its own block: the bytes on both sides stay.
TEST(PeerCacheBlock, AVersionFillsItsBlockAndNotOneByteMore)
{
    const size_t nGuard = 64;
    std::vector<BYTE> v((size_t)PEERCACHE_BLOCK_SIZE + 2 * nGuard, 0x5A);
    PeerCacheMakeBlock(v.data() + nGuard, 9, FILETYPE_TABLE, 77, 123456789);
    for (size_t i = 0; i < nGuard; i++) {
        EXPECT_EQ(0x5A, v[i]) << "before the block, byte " << i;
        EXPECT_EQ(0x5A, v[nGuard + PEERCACHE_BLOCK_SIZE + i]) << "past the block, byte " << i;
    }
    EXPECT_NE(0x5A, v[nGuard + PEERCACHE_BLOCK_SIZE - 1]) << "the payload reaches the block's last byte";
    LPBLOCKHEAD lpHead = (LPBLOCKHEAD)(v.data() + nGuard);
    EXPECT_EQ(BLOCK_DATAFLAG, Val(lpHead->m_nDataFlag));
    EXPECT_EQ(77u, Val(lpHead->m_nBlockNo));
    EXPECT_EQ(123456789LL, Val(lpHead->m_nTimestamp));
    EXPECT_EQ(PEERCACHE_BLOCK_SIZE, Val(lpHead->m_nBlockSize));
}

TEST_F(PeerCacheSide, DamagedPlacesInTheSegmentAreNotFollowed)
{
    PeerCacheFile file;
    LPTABLEFILEHEAD lpHead = m_file.m_lpHead;
    long long llStart = lpHead->m_nCacheStartOffset;
    lpHead->m_nCacheStartOffset = m_pCache->GetLayout().m_llFIFOOffset;
    EXPECT_FALSE(m_peer.OpenFile(FS_FILE_NO, FILETYPE_TABLE, m_strPath, file)) << "a chain into the FIFO area";
    lpHead->m_nCacheStartOffset = llStart + 8;
    EXPECT_FALSE(m_peer.OpenFile(FS_FILE_NO, FILETYPE_TABLE, m_strPath, file)) << "a chain off a block's start";
    lpHead->m_nCacheStartOffset = llStart;
    UINT nHeadNo = Head()->m_nFileInfoNo[FS_FILE_NO];
    Head()->m_nFileInfoNo[FS_FILE_NO] = m_pCache->GetLayout().m_nBlockBufNum + 1;
    EXPECT_FALSE(m_peer.OpenFile(FS_FILE_NO, FILETYPE_TABLE, m_strPath, file)) << "a head past the last block";
    Head()->m_nFileInfoNo[FS_FILE_NO] = nHeadNo;
    EXPECT_TRUE(m_peer.OpenFile(FS_FILE_NO, FILETYPE_TABLE, m_strPath, file));
    int nFree = Head()->m_nFreeNo;
    Head()->m_nFreeNo = (int)m_pCache->GetLayout().m_nBlockBufNum + 5;
    long long llCache = 0;
    EXPECT_FALSE(m_peer.TakeFreeBlock(llCache));
    EXPECT_EQ((int)m_pCache->GetLayout().m_nBlockBufNum + 5, Val(Head()->m_nFreeNo)) << "a bad chain is not moved";
    Head()->m_nFreeNo = nFree;
    CPeerCache other;
    Head()->m_nBlockBufNum += 1;
    EXPECT_FALSE(other.Attach(0)) << "a head that does not fit its segment";
    Head()->m_nBlockBufNum -= 1;
}

} // namespace
