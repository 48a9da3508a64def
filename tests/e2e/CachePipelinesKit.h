// CachePipelinesKit.h — what the end-to-end tests of the shared cache share:
// a database with cache-mode files and a small cache in the sandbox, the
// engine stand-in's cache job (talvor-peer cache) and its output lines, and
// the files' blocks read from disk through the maps the disk holds.
#pragma once

#include "DatabaseLoadKit.h"
#include "PeerCache.h"
#include "TalvorCacheFlush.h"

#include <set>
#include <thread>

namespace talvortest {

// Big enough that the daemon never grows them while a test runs: a file is
// grown when no more than 128 MiB of it are unallocated.
const char CACHE_FILE_MIB[] = "130";
const int PEER_RUN_TIMEOUT_MS = 120000;

// A cache small enough for the tests, without the files' write buffers,
// and one large enough that every cache-mode file keeps them.
const int SMALL_CACHE_MIB = 64;
const int BUFFERED_CACHE_MIB = 300;
// The file numbers of a database of one table and one index file.
const int TABLE_NO = 2, INDEX_NO = 3;

// The stand-in's lines, by kind; a result of -1 is a time-out.
struct PeerFlushLine { int nFile = 0; UINT nBlock = 0; long long llTs = 0; int nResult = -1, nSave = -1, nFlush = -1; };
struct PeerTsLine { bool bIndex = false; long long llTs = 0; int nResult = -1; };
struct PeerRun {
    int nExit = -99;
    std::string strOut;
    std::vector<PeerFlushLine> vPosts, vFlushes, vFaults, vLoads;
    std::vector<PeerTsLine> vStamps;
    std::vector<int> vPageResults;
    bool bDone = false;
};

inline int ResultOf(const std::string& strLine)
{
    size_t n = strLine.find(" result ");
    if (n == std::string::npos) return -2;
    return strLine.compare(n + 8, 7, "timeout") == 0 ? -1 : atoi(strLine.c_str() + n + 8);
}

inline PeerFlushLine FlushOf(const std::string& strLine)
{
    PeerFlushLine f;
    f.nFile = (int)NumberAfter(strLine, "file ");
    f.nBlock = (UINT)NumberAfter(strLine, " block ");
    f.llTs = NumberAfter(strLine, " ts ");
    f.nResult = ResultOf(strLine);
    size_t n = strLine.find(" flags ");
    if (n != std::string::npos) sscanf(strLine.c_str() + n, " flags %d %d", &f.nSave, &f.nFlush);
    return f;
}

inline PeerRun ParsePeer(const std::string& strOut, int nExit)
{
    PeerRun run;
    run.nExit = nExit;
    run.strOut = strOut;
    std::istringstream in(strOut);
    std::string l;
    while (std::getline(in, l)) {
        if (l.rfind("post ", 0) == 0) run.vPosts.push_back(FlushOf(l));
        if (l.rfind("flush ", 0) == 0) run.vFlushes.push_back(FlushOf(l));
        // "fault MODE file ..." and "loadfault MODE file ...": the mode, which
        // may itself read "file", stands before the fields.
        if (l.rfind("fault ", 0) == 0) run.vFaults.push_back(FlushOf(l.substr(l.find(' ', 6))));
        if (l.rfind("loadfault ", 0) == 0) run.vLoads.push_back(FlushOf(l.substr(l.find(' ', 10))));
        if (l.rfind("load ", 0) == 0) run.vLoads.push_back(FlushOf(l));
        if (l.rfind("page ", 0) == 0) run.vPageResults.push_back(ResultOf(l));
        if (l.rfind("timestamp ", 0) == 0)
            run.vStamps.push_back({l.find("kind index") != std::string::npos, NumberAfter(l, " ts "), ResultOf(l)});
        if (l == "done") run.bDone = true;
    }
    return run;
}

// Runs the stand-in's cache job to its end.
inline PeerRun RunCachePeer(DaemonSandbox& box, std::vector<std::string> vCmd)
{
    vCmd.insert(vCmd.begin(), "cache");
    std::string strOut;
    int nExit = Peer(box, vCmd, &strOut, PEER_RUN_TIMEOUT_MS);
    return ParsePeer(strOut, nExit);
}

// A database of cache-mode files (and nothing else) under a running daemon.
inline pid_t StartCacheDb(DaemonSandbox& box, const std::vector<std::string>& vFiles,
                          int nCacheMiB = SMALL_CACHE_MIB)
{
    std::vector<std::string> vArgs = {"--name", "CACHE"};
    for (const std::string& s : vFiles) vArgs.insert(vArgs.end(), {s, CACHE_FILE_MIB});
    return StartDb(box, vArgs, "", nCacheMiB);
}

inline std::string FileOf(DaemonSandbox& box, int nFileNo, bool bIndex)
{
    return box.DataDir() + (bIndex ? "Index" : "Table") + std::to_string(nFileNo) + ".dbf";
}

// A block on disk where the map on disk places it: empty when it does not.
inline std::string DiskBlock(const std::string& strFile, UINT nBlockNo)
{
    long long llAt = talvorpeer::PeerCacheDiskBlockOffset(strFile, nBlockNo);
    if (llAt < 0) return std::string();
    return strFile.substr((size_t)llAt, (size_t)talvorpeer::PEERCACHE_BLOCK_SIZE);
}

// A cache block as its copy on disk must be: the engine's in-memory marks
// zeroed, found by their offsets in the block head.
inline std::string AsOnDisk(std::string strBlock)
{
    if (strBlock.size() >= (size_t)talvorpeer::PEERCACHE_BLOCK_SIZE) talvorpeer::PeerCacheDiskImage((LPBYTE)&strBlock[0]);
    return strBlock;
}

// The version the stand-in makes of a block at llTs, as the disk must hold it.
inline std::string VersionOnDisk(int nFileNo, bool bIndex, UINT nBlockNo, long long llTs)
{
    std::string s((size_t)talvorpeer::PEERCACHE_BLOCK_SIZE, '\0');
    talvorpeer::PeerCacheMakeBlock((LPBYTE)&s[0], (BYTE)nFileNo, bIndex ? FILETYPE_INDEX : FILETYPE_TABLE, nBlockNo,
                                   llTs);
    return AsOnDisk(s);
}

inline long long TimestampOfBlock(const std::string& strBlock) { return RecordIn<BASEBLOCKHEAD>(strBlock).m_nTimestamp; }

// The committed timestamp of table or index blocks in the system file on disk.
inline long long SystemTimestamp(DaemonSandbox& box, bool bIndex)
{
    return RecordOnDisk<long long>(box.DataDir() + "System.dbf",
                                   bIndex ? SYSTEMFILE_CACHEINDEXTS_OFFSET : SYSTEMFILE_CACHETABLETS_OFFSET);
}

} // namespace talvortest
