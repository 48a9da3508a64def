// End-to-end: the engine stand-in works on cache-mode files in a running
// daemon's shared cache (talvor-peer cache). Blocks changed in the cache
// reach their files as the cache held them, with the engine's in-memory
// marks cleared; the committed timestamps reach the system file; blocks are
// loaded on request as the file holds them; entries of random fields and
// a torn one write nothing. Each refusal of a wrong entry or load request is
// the flush and load threads' own unit case.
#include "CachePipelinesKit.h"

using namespace talvortest;

namespace {


std::string Dumped(const std::string& strDir, const char* lpszKind, int nFileNo, UINT nBlockNo)
{
    return ReadWholeFile(strDir + "/" + lpszKind + "_" + std::to_string(nFileNo) + "_" + std::to_string(nBlockNo) +
                         ".bin");
}

// The last timestamp the run gave each block of a file.
std::map<UINT, long long> LastPosted(const PeerRun& run, int nFileNo)
{
    std::map<UINT, long long> m;
    for (const PeerFlushLine& p : run.vPosts)
        if (p.nFile == nFileNo && p.llTs > m[p.nBlock]) m[p.nBlock] = p.llTs;
    return m;
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
    std::map<UINT, long long> mapLast = LastPosted(run, nFileNo);
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
    for (const PeerFlushLine& f : run.vFlushes) {
        EXPECT_EQ(0, f.nResult) << "file " << f.nFile << " block " << f.nBlock;
        EXPECT_EQ(0, f.nSave) << "file " << f.nFile << " block " << f.nBlock;
        EXPECT_EQ(0, f.nFlush) << "an unchanged block written is clean: file " << f.nFile << " block " << f.nBlock
                               << "\n" << run.strOut;
    }
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
    for (const PeerLoadLine& l : run.vLoads) {
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

TEST(CachePipelines, TornAndRandomEntriesWriteNothingAndAnOvertakenOneWritesTheNewerBlockWhole)
{
    DaemonSandbox box;
    // Two table files: the entries of one must leave the other alone.
    pid_t pid = StartCacheDb(box, {"--table-file", "--table-file", "--index-file"});
    ASSERT_GT(pid, 0);
    const std::vector<std::string> vNames = {"Table2.dbf", "Table3.dbf", "Index4.dbf"};
    PeerRun made = RunCachePeer(box, {"--blocks", "3", "--timestamp"});
    ExpectAllDone(made, 3 * 3, 3 * 2, 2);

    // An entry whose copy is not the block it names (torn) fails and writes
    // nothing; the change is still owed. (Cancelled, lapsed, unknown-file and
    // unusable entries are FileFlush's and FlushRing's at unit level.)
    std::map<std::string, std::string> mapBefore = Snapshot(box.DataDir(), vNames);
    PeerRun torn = RunCachePeer(box, {"--blocks", "3", "--rounds", "0", "--fault", "size"});
    EXPECT_EQ(0, torn.nExit) << torn.strOut;
    ASSERT_EQ(3u, torn.vFaults.size()) << torn.strOut;
    for (const auto& f : torn.vFaults) {
        EXPECT_EQ(CACHEFLUSH_FAILED, f.second.nResult) << "file " << f.second.nFile;
        EXPECT_TRUE(f.second.nSave == 1 || f.second.nFlush == 1) << "file " << f.second.nFile;
    }
    EXPECT_TRUE(mapBefore == Snapshot(box.DataDir(), vNames)) << "a torn entry wrote to a file";

    // The generation moved on between the entry and its posting: the newer
    // version is written whole, and the block stays marked for it.
    PeerRun moved = RunCachePeer(box, {"--blocks", "3", "--rounds", "0", "--fault", "generation", "--files", "2,4"});
    EXPECT_EQ(0, moved.nExit) << moved.strOut;
    ASSERT_EQ(2u, moved.vFaults.size()) << moved.strOut;
    for (const auto& f : moved.vFaults) {
        bool bIndex = f.second.nFile == 4;
        EXPECT_EQ(CACHEFLUSH_DONE, f.second.nResult);
        EXPECT_TRUE(bIndex ? f.second.nFlush == 1 : f.second.nSave == 1) << "file " << f.second.nFile;
        std::string strName = bIndex ? "Index4.dbf" : "Table2.dbf";
        std::string strFile = ReadWholeFile(box.DataDir() + strName);
        EXPECT_TRUE(DiskBlock(strFile, 1) == VersionOnDisk(f.second.nFile, bIndex, 1, f.second.llTs)) << strName;
        // Nothing else of the file moved.
        std::string strWant = mapBefore[strName];
        long long llAt = talvorpeer::PeerCacheDiskBlockOffset(strFile, 1);
        ASSERT_GT(llAt, 0) << strName;
        strWant.replace((size_t)llAt, (size_t)talvorpeer::PEERCACHE_BLOCK_SIZE, DiskBlock(strFile, 1));
        EXPECT_EQ(-1, FirstDiffAt(strWant, strFile)) << strName << " block 1 at " << llAt;
    }
    EXPECT_TRUE(mapBefore["Table3.dbf"] == ReadWholeFile(box.DataDir() + "Table3.dbf"));

    // Entries of random fields, as an engine that died while writing them
    // may leave: each is answered with a code and none writes.
    mapBefore = Snapshot(box.DataDir(), vNames);
    PeerRun garbage = RunCachePeer(box, {"--blocks", "3", "--rounds", "0", "--fault", "garbage", "--garbage-count", "64"});
    EXPECT_EQ(0, garbage.nExit) << garbage.strOut;
    ASSERT_EQ(3u * 64, garbage.vFaults.size()) << garbage.strOut;
    const std::set<int> setCodes = {CACHEFLUSH_DONE, CACHEFLUSH_UNUSABLE, CACHEFLUSH_FAILED, CACHEFLUSH_NOBACKEND,
                                    CACHEFLUSH_NOFILE};
    std::set<int> setSeen;
    for (const auto& f : garbage.vFaults) {
        EXPECT_EQ(1u, setCodes.count(f.second.nResult)) << f.second.nResult;
        setSeen.insert(f.second.nResult);
    }
    EXPECT_GE(setSeen.size(), 3u) << "the entries reach more than one refusal";
    EXPECT_TRUE(mapBefore == Snapshot(box.DataDir(), vNames)) << "an entry of random fields wrote to a file";
    // The rings go on: a plain round afterwards is served in full.
    PeerRun after = RunCachePeer(box, {"--blocks", "3", "--timestamp"});
    ExpectAllDone(after, 3 * 3, 3 * 2, 2);
    EXPECT_TRUE(StopDaemon(box, pid)) << box.ReadDaemonTrace();
}
