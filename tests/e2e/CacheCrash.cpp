// End-to-end: the shared cache when a process dies. The daemon is killed
// (SIGKILL) while the engine stand-in flushes in rounds: every block whose
// flush was answered done is on disk whole, no committed cache timestamp
// on disk is ahead of the blocks it stands for, and a new daemon takes the
// surviving cache over and serves what was left posted. (The last pass at a
// stop with the engine lost is CacheFlushLast's at unit level.)
#include "CachePipelinesKit.h"

#include <random>

using namespace talvortest;

namespace {

const UINT CRASH_BLOCKS = 20;
const UINT SECOND_BLOCKS = 5;

// Lines of the spawned stand-in so far.
PeerRun PeerSoFar(DaemonSandbox& box, int nExit = -99)
{
    return ParsePeer(ReadWholeFile(box.Root() + "/peer1.out"), nExit);
}

// What the stand-in's runs posted and were told, joined.
struct Posted {
    std::map<std::pair<int, UINT>, std::set<long long>> mapVersions;  // every version posted
    std::map<std::pair<int, UINT>, long long> mapDone;                // newest answered done
    void Add(const PeerRun& run)
    {
        for (const PeerFlushLine& p : run.vPosts) mapVersions[{p.nFile, p.nBlock}].insert(p.llTs);
        for (const PeerFlushLine& f : run.vFlushes)
            if (f.nResult == 0 && f.llTs > mapDone[{f.nFile, f.nBlock}]) mapDone[{f.nFile, f.nBlock}] = f.llTs;
    }
};

// The disk after a crash: each block a whole version that was posted, none
// older than its last answered flush, none older than what the committed
// timestamp of its kind stands for.
void ExpectDiskConsistent(DaemonSandbox& box, const Posted& posted, int nFileNo, bool bIndex)
{
    std::string strFile = ReadWholeFile(FileOf(box, nFileNo, bIndex));
    long long llCommitted = SystemTimestamp(box, bIndex);
    for (UINT n = 1; n <= CRASH_BLOCKS; n++) {
        std::pair<int, UINT> key(nFileNo, n);
        std::string strDisk = DiskBlock(strFile, n);
        ASSERT_EQ((size_t)talvorpeer::PEERCACHE_BLOCK_SIZE, strDisk.size()) << "file " << nFileNo << " block " << n;
        long long llDisk = TimestampOfBlock(strDisk);
        auto itDone = posted.mapDone.find(key);
        long long llDone = itDone == posted.mapDone.end() ? 0 : itDone->second;
        EXPECT_GE(llDisk, llDone) << "an answered flush is not on disk: file " << nFileNo << " block " << n;
        const std::set<long long>& setVersions = posted.mapVersions.at(key);
        long long llOwed = 0;
        for (long long v : setVersions)
            if (v <= llCommitted) llOwed = v;
        EXPECT_GE(llDisk, llOwed) << "the committed timestamp " << llCommitted << " runs ahead of file " << nFileNo
                                  << " block " << n;
        if (llDisk == 0) continue;
        EXPECT_EQ(1u, setVersions.count(llDisk)) << "file " << nFileNo << " block " << n << " ts " << llDisk;
        EXPECT_TRUE(strDisk == VersionOnDisk(nFileNo, bIndex, n, llDisk)) << "torn: file " << nFileNo << " block " << n;
    }
}

// The daemon is killed while the stand-in flushes in rounds; checked on
// the disk as it left it, and again after a new daemon took the cache over
// and the stand-in carried one more round through, over a few blocks only:
// the timestamp it commits stands for the others too, as the killed daemon
// left them.
void KillWhileFlushing(int nCacheMiB)
{
    DaemonSandbox box;
    pid_t pid = StartCacheDb(box, {"--table-file", "--index-file"}, nCacheMiB);
    ASSERT_GT(pid, 0);
    pid_t peer = box.Spawn({PeerPath(), "cache", "--blocks", std::to_string(CRASH_BLOCKS), "--rounds", "1000000",
                            "--seconds", "120", "--timestamp", "--wait-ms", "5000"},
                           "peer1");
    ASSERT_GT(peer, 0);
    // Past the first rounds (the maps are on disk), at a moment of its own.
    ASSERT_TRUE(WaitUntil([&] { return PeerSoFar(box).vStamps.size() >= 6; }, 60000, TRACE_POLL_MS))
        << PeerSoFar(box).strOut;
    std::mt19937 rng((unsigned)getpid());
    std::this_thread::sleep_for(std::chrono::milliseconds(rng() % 200));
    box.Signal(pid, SIGKILL);
    box.WaitExit(pid, DAEMON_STOP_TIMEOUT_MS);
    int nPeerExit = box.WaitExit(peer, 60000);
    PeerRun first = PeerSoFar(box, nPeerExit);
    EXPECT_EQ(3, first.nExit) << "the stand-in stops waiting on a dead daemon: " << first.strOut;
    Posted posted;
    posted.Add(first);
    ExpectDiskConsistent(box, posted, TABLE_NO, false);
    ExpectDiskConsistent(box, posted, INDEX_NO, true);

    // A new daemon takes the cache over as it stands and serves what was
    // left posted before anything new.
    pid = box.StartServing();
    ASSERT_GT(pid, 0) << box.ReadDaemonTrace();
    PeerRun second = RunCachePeer(box, {"--blocks", std::to_string(SECOND_BLOCKS), "--timestamp"});
    EXPECT_EQ(0, second.nExit) << second.strOut;
    EXPECT_EQ(2 * SECOND_BLOCKS, second.vFlushes.size()) << second.strOut;
    for (const PeerFlushLine& f : second.vFlushes) EXPECT_EQ(0, f.nResult) << second.strOut;
    for (const PeerTsLine& t : second.vStamps) EXPECT_EQ(0, t.nResult) << second.strOut;
    EXPECT_TRUE(second.vLoads.empty()) << "the blocks were found in the cache kept: " << second.strOut;
    ASSERT_TRUE(StopDaemon(box, pid)) << box.ReadDaemonTrace();
    posted.Add(second);
    ExpectDiskConsistent(box, posted, TABLE_NO, false);
    ExpectDiskConsistent(box, posted, INDEX_NO, true);
    for (const PeerTsLine& t : second.vStamps) EXPECT_EQ(t.llTs, SystemTimestamp(box, t.bIndex));
}

} // namespace

// Also where every file keeps write buffers: an answer must still mean the
// disk, not a buffer that dies with the daemon.
TEST(CacheCrash, SigkillWhileTheEngineFlushesLosesNoAnsweredBlockAndNoTimestampRunsAhead)
{
    for (int nCacheMiB : {SMALL_CACHE_MIB, BUFFERED_CACHE_MIB}) {
        SCOPED_TRACE(nCacheMiB);
        KillWhileFlushing(nCacheMiB);
    }
}
