// End-to-end: the engine stand-in works on cache-mode files in a running
// daemon's shared cache (talvor-peer cache). Blocks changed in the cache
// reach their files as the cache held them, with the engine's in-memory
// marks cleared; the committed timestamps reach the system file; blocks are
// loaded on request as the file holds them. Each refusal of a wrong entry
// or load request is the flush and load threads' own unit case.
#include "CachePipelinesKit.h"

using namespace talvortest;

namespace {

std::string Dumped(const std::string& strDir, const char* lpszKind, int nFileNo, UINT nBlockNo)
{
    return ReadWholeFile(strDir + "/" + lpszKind + "_" + std::to_string(nFileNo) + "_" + std::to_string(nBlockNo) +
                         ".bin");
}

long long LastStamp(const PeerRun& run, bool bIndex)
{
    long long llTs = -1;
    for (const PeerTsLine& t : run.vStamps)
        if (t.bIndex == bIndex) llTs = t.llTs;
    return llTs;
}

// Every block of the file equals the stand-in's last version of it, as the
// stand-in dumped it from the cache and as it makes it again.
void ExpectBlocksAsPosted(DaemonSandbox& box, const PeerRun& run, const std::string& strDump, int nFileNo,
                          bool bIndex, UINT nBlocks)
{
    std::string strFile = ReadWholeFile(FileOf(box, nFileNo, bIndex));
    std::map<UINT, long long> mapLast;  // the last timestamp the run gave each block
    for (const PeerFlushLine& p : run.vPosts)
        if (p.nFile == nFileNo && p.llTs > mapLast[p.nBlock]) mapLast[p.nBlock] = p.llTs;
    ASSERT_EQ((size_t)nBlocks, mapLast.size()) << run.strOut;
    for (UINT n = 1; n <= nBlocks; n++) {
        std::string strDisk = DiskBlock(strFile, n);
        ASSERT_EQ((size_t)talvorpeer::PEERCACHE_BLOCK_SIZE, strDisk.size()) << "file " << nFileNo << " block " << n;
        EXPECT_TRUE(strDisk == AsOnDisk(Dumped(strDump, "post", nFileNo, n))) << "file " << nFileNo << " block " << n;
        EXPECT_TRUE(strDisk == VersionOnDisk(nFileNo, bIndex, n, mapLast[n])) << "file " << nFileNo << " block " << n;
    }
    const TABLEFILEHEAD* lpHead = (const TABLEFILEHEAD*)strFile.data();
    EXPECT_EQ(nBlocks, Val(lpHead->m_nBlockNum));
    EXPECT_EQ(0, Val(lpHead->m_bSaveFlag));
}

// The runs ends well: every block, page and timestamp answered done.
void ExpectAllDone(const PeerRun& run, size_t nFlushes, size_t nPages, size_t nStamps)
{
    EXPECT_EQ(0, run.nExit) << run.strOut;
    EXPECT_TRUE(run.bDone) << run.strOut;
    EXPECT_EQ(nFlushes, run.vFlushes.size()) << run.strOut;
    // Done, and written clean: an unchanged block is not owed again.
    for (const PeerFlushLine& f : run.vFlushes)
        EXPECT_TRUE(f.nResult == 0 && f.nSave == 0 && f.nFlush == 0)
            << "file " << f.nFile << " block " << f.nBlock << ": " << f.nResult << ", " << f.nSave << " " << f.nFlush;
    EXPECT_EQ(nPages, run.vPageResults.size()) << run.strOut;
    for (int r : run.vPageResults) EXPECT_EQ(0, r) << run.strOut;
    EXPECT_EQ(nStamps, run.vStamps.size()) << run.strOut;
    for (const PeerTsLine& t : run.vStamps) EXPECT_EQ(0, t.nResult) << run.strOut;
}

// Every load of the run answered done, the block as the file holds it.
void ExpectLoadedAsOnDisk(DaemonSandbox& box, const PeerRun& run, const std::string& strDump, size_t nLoads)
{
    EXPECT_EQ(0, run.nExit) << run.strOut;
    ASSERT_EQ(nLoads, run.vLoads.size()) << run.strOut;
    for (const PeerFlushLine& l : run.vLoads) {
        EXPECT_EQ(CACHELOAD_OK, l.nResult) << "file " << l.nFile << " block " << l.nBlock;
        std::string strDisk = DiskBlock(ReadWholeFile(FileOf(box, l.nFile, l.nFile == INDEX_NO)), l.nBlock);
        ASSERT_FALSE(strDisk.empty());
        EXPECT_TRUE(strDisk == Dumped(strDump, "load", l.nFile, l.nBlock)) << "file " << l.nFile << " block " << l.nBlock;
    }
}

} // namespace

TEST(CachePipelines, BlocksPagesAndTimestampsReachTheDiskAndLoadBackAsTheFileHoldsThem)
{
    DaemonSandbox box;
    pid_t pid = StartCacheDb(box, {"--table-file", "--index-file"});
    ASSERT_GT(pid, 0);
    std::string strDump = box.Root() + "/dump";
    ASSERT_EQ(0, mkdir(strDump.c_str(), 0777));
    PeerRun run = RunCachePeer(box, {"--blocks", "5", "--rounds", "2", "--timestamp", "--ts-array", "3",
                                     "--dump-dir", strDump});
    ExpectAllDone(run, 2 * 5 * 2, 2 * 2 * 2, 2 * 2);
    ExpectBlocksAsPosted(box, run, strDump, TABLE_NO, false, 5);
    ExpectBlocksAsPosted(box, run, strDump, INDEX_NO, true, 5);

    // The committed timestamps and their arrays, each in its own place.
    std::string strSystem = ReadWholeFile(box.DataDir() + "System.dbf");
    for (bool bIndex : {false, true}) {
        long long llTs = LastStamp(run, bIndex);
        ASSERT_GT(llTs, 0) << run.strOut;
        EXPECT_EQ(llTs, RecordIn<long long>(strSystem, bIndex ? SYSTEMFILE_CACHEINDEXTS_OFFSET : SYSTEMFILE_CACHETABLETS_OFFSET));
        size_t nArray = SYSTEMFILE_TABLETSARRAY_OFFSET + (bIndex ? 4100 : 0);
        EXPECT_EQ(3, RecordIn<unsigned short>(strSystem, nArray)) << "index " << bIndex;
        for (int i = 0; i < 3; i++) EXPECT_EQ(llTs - i, RecordIn<long long>(strSystem, nArray + 4 + 8 * (size_t)i));
        EXPECT_EQ(0, RecordIn<long long>(strSystem, nArray + 4 + 8 * 3)) << "the rest of the array is zero";
    }
    // No block outruns the timestamp that stands for it.
    for (const PeerFlushLine& p : run.vPosts)
        EXPECT_LE(p.llTs, LastStamp(run, p.nFile == INDEX_NO)) << "file " << p.nFile << " block " << p.nBlock;

    // Load slots give each block as the file holds it, also for a request
    // still half written when posted, which is waited for. (One that names
    // another block, size or file is CacheLoadThread's at unit level.)
    ExpectLoadedAsOnDisk(box, RunCachePeer(box, {"--blocks", "5", "--rounds", "0", "--load", "--dump-dir", strDump}),
                         strDump, 10);
    ExpectLoadedAsOnDisk(
        box, RunCachePeer(box, {"--blocks", "5", "--rounds", "0", "--load-fault", "late", "--dump-dir", strDump}),
        strDump, 2);

    EXPECT_TRUE(StopDaemon(box, pid)) << box.ReadDaemonTrace();
}
