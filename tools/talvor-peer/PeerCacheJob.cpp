// PeerCacheJob.cpp — the job "cache": the engine at work on the shared
// block cache. It finds the cache-mode files' heads and maps in the cache,
// makes the blocks it needs (new ones in the map, known ones loaded through
// the load slots), changes them in rounds and carries each round to disk
// through the flush ring of the file's kind, with the pages and a committed
// timestamp if asked; on command it posts one wrong entry or load request,
// or only leaves the blocks dirty and stays alive as a live engine, to be
// killed without answering. Every outcome is one line on stdout:
//   file F type T blocks N
//   post file F block N ts T
//   flush file F block N ts T result R flags S L     (R: a code or "timeout")
//   page file F type P result R
//   timestamp kind table|index ts T result R
//   fault MODE file F block N ts T result R flags S L  (garbage: one a posted entry)
//   load file F block N result R untouched U
//   loadfault MODE file F block N result R untouched U
//   dirty file F block N ts T
//   done
#include "PeerArgs.h"
#include "PeerCache.h"
#include "PeerClock.h"
#include "PeerData.h"
#include "PeerImage.h"
#include "PeerJobs.h"

#include <cstdarg>
#include <random>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <unistd.h>

namespace talvorpeer {

namespace {

const int PEER_REFUSED = 5;
const BYTE FILLER_BYTE = 0xA5;
// A file number no database file has.
const BYTE NO_SUCH_FILE = 250;
const int HOLD_SLICE_US = 1000;

const std::vector<OptionSpec> g_vCacheOptions = {
    {"files", true, "comma list of file numbers to work on (default: every cache-mode file)"},
    {"blocks", true, "blocks 1..N of each file to work on, made if the file has fewer (default 4, at most 100)"},
    {"rounds", true, "rounds of changes carried to disk (default 1)"},
    {"seconds", true, "stop starting rounds after this many seconds (default 60)"},
    {"timestamp", false, "after each round also post the map block, the head and a committed timestamp"},
    {"ts-array", true, "timestamps in the array image of each timestamp entry (default 0: none)"},
    {"fault", true, "after the rounds post one wrong entry for block 1: generation, number, file, size, "
                    "offset0 or timestamp0; or garbage: entries of random fields"},
    {"garbage-count", true, "entries of random fields each file gets with --fault garbage (default 32)"},
    {"load", false, "after the rounds load blocks 1..N through the load slots into fresh cache blocks"},
    {"load-fault", true, "after the rounds load block 1 with a wrong request: late, number, file or size"},
    {"dirty-only", false, "change the blocks in the cache, post nothing"},
    {"dump-dir", true, "directory for the posted (post_F_N.bin) and loaded (load_F_N.bin) cache blocks"},
    {"live", false, "run as a live engine: m_bService 1, answer channel commands"},
    {"hold-ms", true, "stay alive (live) this long after the work (default 0)"},
    {"wait-ms", true, "how long to wait for each answer of the daemon (default 10000)"},
    {"wait-ready-ms", true, "how long to wait for the daemon's readiness (default 30000)"},
};

struct CacheJob {
    CPeerEngine engine;
    CPeerCache cache;
    std::vector<PeerCacheFile> vFiles;
    long long llTs = 0;
    long long nBlocks = 4, nRounds = 1, nSeconds = 60, nArray = 0, nHoldMs = 0, nWaitMs = 10000, nReadyMs = 30000;
    long long nGarbage = 32;
    bool bLive = false, bTimestamp = false, bDirtyOnly = false, bLoad = false;
    std::string strFault, strLoadFault, strDump, strFiles;
};

void Line(const char* lpszFormat, ...)
{
    va_list args;
    va_start(args, lpszFormat);
    vprintf(lpszFormat, args);
    va_end(args);
    putchar('\n');
    fflush(stdout);
}

std::string ResultText(int nResult) { return nResult == PEERCACHE_TIMEOUT ? "timeout" : std::to_string(nResult); }

void ServeIdle(void* pArg)
{
    CacheJob* pJob = (CacheJob*)pArg;
    if (pJob->bLive) pJob->engine.ServeChannel();
}

void Dump(const CacheJob& job, const char* lpszKind, BYTE bFileNo, UINT nBlockNo, const BYTE* lpBytes)
{
    if (job.strDump.empty() || lpBytes == nullptr) return;
    std::string strPath = job.strDump + "/" + lpszKind + "_" + std::to_string(bFileNo) + "_" + std::to_string(nBlockNo) +
                          ".bin";
    std::ofstream out(strPath, std::ios::binary | std::ios::trunc);
    out.write((const char*)lpBytes, PEERCACHE_BLOCK_SIZE);
}

bool Wanted(const std::string& strFiles, int nFileNo)
{
    if (strFiles.empty()) return true;
    std::string strList = "," + strFiles + ",";
    return strList.find("," + std::to_string(nFileNo) + ",") != std::string::npos;
}

// The cache-mode files of the file list, found in the cache.
bool OpenFiles(CacheJob& job)
{
    bool bOk = true;
    DbForEachFileListRow(job.engine.m_lpSystem, job.engine.m_nSystemSize,
                         [&](LPSYSTEMBLOCKHEAD, LPFILE_MEMDBFILEINFO lpRow) {
                             BYTE bType = lpRow->m_bFileType;
                             if (lpRow->m_bDropFlag == 1 || (bType != FILETYPE_TABLE && bType != FILETYPE_INDEX) ||
                                 !Wanted(job.strFiles, lpRow->m_bFileNo))
                                 return true;
                             PeerCacheFile file;
                             if (!job.cache.OpenFile(lpRow->m_bFileNo, bType, lpRow->m_lpszFilePath, file)) {
                                 fprintf(stderr, "talvor-peer cache: %s\n", job.cache.m_strError.c_str());
                                 bOk = false;
                                 return false;
                             }
                             job.vFiles.push_back(file);
                             return true;
                         });
    return bOk && !job.vFiles.empty();
}

// The engine's next timestamps start above every one it can see.
void StartTimestamps(CacheJob& job)
{
    LPSYSTEMFILEHEAD lpSystem = job.engine.Head();
    long long llTs = TalvorLoadShared(&lpSystem->m_nEndTimestamp);
    if (lpSystem->m_nCacheTableTimestamp > llTs) llTs = lpSystem->m_nCacheTableTimestamp;
    if (lpSystem->m_nCacheIndexTimestamp > llTs) llTs = lpSystem->m_nCacheIndexTimestamp;
    for (PeerCacheFile& file : job.vFiles) {
        if (file.m_lpHead->m_nTimestamp > llTs) llTs = file.m_lpHead->m_nTimestamp;
        for (auto& it : file.m_mapBlocks) {
            LPBLOCKHEAD lpBlock = (LPBLOCKHEAD)job.cache.BlockAt(it.second);
            if (lpBlock != nullptr && lpBlock->m_nTimestamp > llTs) llTs = lpBlock->m_nTimestamp;
        }
    }
    job.llTs = llTs;
}

// Blocks 1..N of a file in the cache: made new past the map's end, loaded
// through the slots when the map has them but the cache does not.
bool EnsureBlocks(CacheJob& job, PeerCacheFile& file)
{
    for (UINT n = 1; n <= (UINT)job.nBlocks; n++) {
        if (file.m_mapBlocks.count(n) != 0) continue;
        if (job.cache.MapEntry(file, n) == nullptr) {
            UINT nNew = 0;
            if (!job.cache.NewBlock(file, ++job.llTs, nNew) || nNew != n) {
                fprintf(stderr, "talvor-peer cache: %s\n", job.cache.m_strError.c_str());
                return false;
            }
            continue;
        }
        long long llCache = 0;
        if (!job.cache.TakeFreeBlock(llCache)) {
            fprintf(stderr, "talvor-peer cache: no free cache block for block %u\n", n);
            return false;
        }
        int nResult = job.cache.LoadBlock(file, n, llCache, PEERLOAD_NONE, 0, (int)job.nWaitMs);
        Line("load file %d block %u result %s untouched 0", file.m_bFileNo, n, ResultText(nResult).c_str());
        if (nResult != CACHELOAD_OK) return false;
        file.m_mapBlocks[n] = llCache;
    }
    Line("file %d type %d blocks %u", file.m_bFileNo, file.m_bFileType, (UINT)file.m_lpHead->m_nBlockNum);
    return true;
}

// Waits for a posted block entry and tells its answer with the live flags.
bool ReportFlush(CacheJob& job, PeerCacheFile& file, const PeerFlushPost& post, const char* lpszWhat)
{
    int nResult = job.cache.WaitEntry(post, (int)job.nWaitMs, ServeIdle, &job);
    LPBLOCKHEAD lpBlock = (LPBLOCKHEAD)job.cache.BlockAt(file.m_mapBlocks[(UINT)post.m_stEntry.m_nBlockNo]);
    // The daemon clears the flags as it flushes.
    int nSave = lpBlock != nullptr ? TalvorLoadShared(&lpBlock->m_bSaveFlag) : -1;
    int nFlush = lpBlock != nullptr ? TalvorLoadShared(&lpBlock->m_bFlushFlag) : -1;
    Line("%s file %d block %u ts %lld result %s flags %d %d", lpszWhat, file.m_bFileNo, (UINT)post.m_stEntry.m_nBlockNo,
         (long long)post.m_stEntry.m_llTimestamp, ResultText(nResult).c_str(), nSave, nFlush);
    return nResult != PEERCACHE_TIMEOUT;
}

bool PostOrSay(CacheJob& job, PeerFlushPost& post)
{
    if (job.cache.PostEntry(post, (int)job.nWaitMs)) return true;
    fprintf(stderr, "talvor-peer cache: %s\n", job.cache.m_strError.c_str());
    return false;
}

// The pages of every file and one timestamp per ring, after the blocks.
bool PostPagesAndTimestamps(CacheJob& job, std::vector<std::pair<PeerFlushPost, int>>& vPages,
                            std::vector<PeerFlushPost>& vStamps)
{
    bool arKinds[2] = {false, false};
    for (PeerCacheFile& file : job.vFiles) {
        arKinds[file.m_bFileType == FILETYPE_INDEX] = true;
        for (BYTE bType : {CACHEFLUSH_MAP, CACHEFLUSH_HEAD}) {
            PeerFlushPost post;
            if (!job.cache.PageEntry(file, bType, post) || !PostOrSay(job, post)) return false;
            vPages.push_back({post, file.m_bFileNo});
        }
    }
    for (int k = 0; k < 2; k++) {
        PeerFlushPost post;
        if (!arKinds[k]) continue;
        if (!job.cache.TimestampEntry(k == 1, job.llTs, (int)job.nArray, post) || !PostOrSay(job, post)) return false;
        vStamps.push_back(post);
    }
    return true;
}

// One round: every block changed, all entries posted, then all answers.
int RunRound(CacheJob& job)
{
    std::vector<std::pair<PeerFlushPost, size_t>> vBlocks;
    for (size_t f = 0; f < job.vFiles.size(); f++) {
        PeerCacheFile& file = job.vFiles[f];
        for (UINT n = 1; n <= (UINT)job.nBlocks; n++) {
            long long llTs = ++job.llTs;
            job.cache.ChangeBlock(file, n, llTs);
            if (job.bDirtyOnly) {
                Line("dirty file %d block %u ts %lld", file.m_bFileNo, n, llTs);
                continue;
            }
            PeerFlushPost post = job.cache.DataEntry(file, n, llTs);
            Dump(job, "post", file.m_bFileNo, n, job.cache.BlockAt(file.m_mapBlocks[n]));
            Line("post file %d block %u ts %lld", file.m_bFileNo, n, llTs);
            if (!PostOrSay(job, post)) return PEER_TIMEOUT;
            vBlocks.push_back({post, f});
        }
    }
    std::vector<std::pair<PeerFlushPost, int>> vPages;
    std::vector<PeerFlushPost> vStamps;
    if (job.bTimestamp && !job.bDirtyOnly && !PostPagesAndTimestamps(job, vPages, vStamps)) return PEER_TIMEOUT;
    for (auto& it : vBlocks)
        if (!ReportFlush(job, job.vFiles[it.second], it.first, "flush")) return PEER_TIMEOUT;
    for (auto& it : vPages) {
        int nResult = job.cache.WaitEntry(it.first, (int)job.nWaitMs, ServeIdle, &job);
        Line("page file %d type %d result %s", it.second, (int)it.first.m_stEntry.m_bBlockType,
             ResultText(nResult).c_str());
        if (nResult == PEERCACHE_TIMEOUT) return PEER_TIMEOUT;
    }
    for (PeerFlushPost& post : vStamps) {
        int nResult = job.cache.WaitEntry(post, (int)job.nWaitMs, ServeIdle, &job);
        Line("timestamp kind %s ts %lld result %s", post.m_bIndex ? "index" : "table",
             (long long)post.m_stEntry.m_llTimestamp, ResultText(nResult).c_str());
        if (nResult == PEERCACHE_TIMEOUT) return PEER_TIMEOUT;
    }
    return PEER_OK;
}

// The generation moves on between the entry and its posting.
struct GenerationMove {
    CacheJob* pJob;
    PeerCacheFile* pFile;
};

bool MoveGeneration(PeerFlushPost& post, void* pArg)
{
    GenerationMove* pMove = (GenerationMove*)pArg;
    long long llTs = ++pMove->pJob->llTs;
    pMove->pJob->cache.ChangeBlock(*pMove->pFile, post.m_stEntry.m_nBlockNo, llTs);
    Dump(*pMove->pJob, "post", pMove->pFile->m_bFileNo, post.m_stEntry.m_nBlockNo,
         pMove->pJob->cache.BlockAt(pMove->pFile->m_mapBlocks[(UINT)post.m_stEntry.m_nBlockNo]));
    return true;
}

// Another file of the same kind, or a number that names none.
BYTE OtherFile(const CacheJob& job, const PeerCacheFile& file)
{
    for (const PeerCacheFile& other : job.vFiles)
        if (other.m_bFileNo != file.m_bFileNo && other.m_bFileType == file.m_bFileType) return other.m_bFileNo;
    return NO_SUCH_FILE;
}

// Entries of random bytes, as an engine that died while writing them may
// leave: every field drawn, offsets mostly inside the segment and the file
// but never on a page's start, block numbers no block has, and no
// timestamp entry (one would be committed as it stands).
void FillGarbage(std::mt19937_64& rng, const CacheJob& job, const PeerCacheFile& file, stu_CacheFlush& e)
{
    static const BYTE arTypes[] = {0, CACHEFLUSH_HEAD, CACHEFLUSH_MAP, CACHEFLUSH_DATA, CACHEFLUSH_EXHEAD, 6, 200};
    static const int arSizes[] = {PEERCACHE_BLOCK_SIZE, PEERCACHE_BLOCK_SIZE / 2, 512, 0, -PEERCACHE_BLOCK_SIZE,
                                  1 << 30, 3 * PEERCACHE_BLOCK_SIZE};
    long long llSegment = job.cache.Layout().m_llTotalSize;
    long long llFile = file.m_lpHead->m_nFileTotalSize;
    e.m_bBlockType = arTypes[rng() % sizeof(arTypes)];
    e.m_bReserved = (BYTE)(rng() % 40);
    e.m_bFileNo = rng() % 2 ? file.m_bFileNo : (BYTE)rng();
    e.m_bFlushCode = (BYTE)rng();
    e.m_nBlockNo = (UINT)(1000 + rng() % 100000);
    e.m_nBlockSize = arSizes[rng() % 7] + (rng() % 4 == 0 ? (int)(rng() % 512) : 0);
    e.m_llTimestamp = rng() % 2 ? 0 : (long long)(rng() >> 2);
    e.m_llTransTimestamp = (long long)(rng() >> 2);
    long long arCache[] = {0, (long long)(rng() % (unsigned long long)(llSegment / CACHE_BLOCK_SIZE)) * CACHE_BLOCK_SIZE +
                                  512 * (long long)(1 + rng() % 31),
                           llSegment + 512, -(long long)CACHE_BLOCK_SIZE, (long long)(rng() >> 1)};
    e.m_llCacheBlockOffset = arCache[rng() % 5];
    long long arFile[] = {0, (long long)(rng() % (unsigned long long)(llFile / CACHE_PAGE_SIZE)) * CACHE_PAGE_SIZE,
                          llFile, -(long long)CACHE_PAGE_SIZE, (long long)(rng() >> 1)};
    e.m_llFileBlockOffset = arFile[rng() % 5];
}

int PostGarbage(CacheJob& job, PeerCacheFile& file)
{
    std::mt19937_64 rng((unsigned long long)job.llTs * 2654435761ULL + file.m_bFileNo);
    for (long long i = 0; i < job.nGarbage; i++) {
        PeerFlushPost post;
        memset(&post.m_stEntry, 0, sizeof(post.m_stEntry));
        post.m_bIndex = file.m_bFileType == FILETYPE_INDEX;
        FillGarbage(rng, job, file, post.m_stEntry);
        if (!job.cache.PostEntry(post, (int)job.nWaitMs)) return PEER_TIMEOUT;
        int nResult = job.cache.WaitEntry(post, (int)job.nWaitMs, ServeIdle, &job);
        Line("fault garbage file %d block %u ts %lld result %s flags 0 0", file.m_bFileNo,
             (UINT)post.m_stEntry.m_nBlockNo, (long long)post.m_stEntry.m_llTimestamp, ResultText(nResult).c_str());
        if (nResult == PEERCACHE_TIMEOUT) return PEER_TIMEOUT;
    }
    return PEER_OK;
}

int PostFault(CacheJob& job, PeerCacheFile& file)
{
    const std::string& m = job.strFault;
    if (m == "garbage") return PostGarbage(job, file);
    long long llTs = ++job.llTs;
    job.cache.ChangeBlock(file, 1, llTs);
    PeerFlushPost post = job.cache.DataEntry(file, 1, llTs);
    stu_CacheFlush& e = post.m_stEntry;
    if (m == "number")
        e.m_nBlockNo = (UINT)job.nBlocks + 1;
    else if (m == "file")
        e.m_bFileNo = OtherFile(job, file);
    else if (m == "size")
        e.m_nBlockSize = PEERCACHE_BLOCK_SIZE / 2;
    else if (m == "offset0")
        e.m_llCacheBlockOffset = 0;
    else if (m == "timestamp0")
        e.m_llTimestamp = 0;
    else if (m != "generation")
        return PEER_USAGE;
    GenerationMove stMove = {&job, &file};
    if (m != "generation") Dump(job, "post", file.m_bFileNo, 1, job.cache.BlockAt(file.m_mapBlocks[1]));
    if (!job.cache.PostEntry(post, (int)job.nWaitMs, m == "generation" ? MoveGeneration : nullptr, &stMove))
        return PEER_TIMEOUT;
    int nResult = job.cache.WaitEntry(post, (int)job.nWaitMs, ServeIdle, &job);
    LPBLOCKHEAD lpBlock = (LPBLOCKHEAD)job.cache.BlockAt(file.m_mapBlocks[1]);
    if (lpBlock == nullptr) return PEER_IPC;
    Line("fault %s file %d block 1 ts %lld result %s flags %d %d", m.c_str(), file.m_bFileNo,
         (long long)lpBlock->m_nTimestamp, ResultText(nResult).c_str(), (int)TalvorLoadShared(&lpBlock->m_bSaveFlag),
         (int)TalvorLoadShared(&lpBlock->m_bFlushFlag));
    return nResult == PEERCACHE_TIMEOUT ? PEER_TIMEOUT : PEER_OK;
}

// A fresh cache block filled with a pattern, so that a refused load can be
// seen to have left it alone.
bool FreshBlock(CacheJob& job, long long& llCache)
{
    if (!job.cache.TakeFreeBlock(llCache)) {
        fprintf(stderr, "talvor-peer cache: no free cache block\n");
        return false;
    }
    memset(job.cache.BlockAt(llCache), FILLER_BYTE, PEERCACHE_BLOCK_SIZE);
    return true;
}

bool Untouched(CacheJob& job, long long llCache)
{
    LPBYTE lp = job.cache.BlockAt(llCache);
    for (int i = 0; i < PEERCACHE_BLOCK_SIZE; i++)
        if (lp[i] != FILLER_BYTE) return false;
    return true;
}

int LoadAll(CacheJob& job, PeerCacheFile& file)
{
    for (UINT n = 1; n <= (UINT)job.nBlocks; n++) {
        long long llCache = 0;
        if (!FreshBlock(job, llCache)) return PEER_IPC;
        int nResult = job.cache.LoadBlock(file, n, llCache, PEERLOAD_NONE, 0, (int)job.nWaitMs);
        Dump(job, "load", file.m_bFileNo, n, job.cache.BlockAt(llCache));
        Line("load file %d block %u result %s untouched %d", file.m_bFileNo, n, ResultText(nResult).c_str(),
             Untouched(job, llCache) ? 1 : 0);
        if (nResult == PEERCACHE_TIMEOUT) return PEER_TIMEOUT;
    }
    return PEER_OK;
}

int LoadFault(CacheJob& job, PeerCacheFile& file)
{
    const std::string& m = job.strLoadFault;
    PeerLoadFault eFault = m == "late" ? PEERLOAD_LATE
                           : m == "number" ? PEERLOAD_NUMBER
                           : m == "file"   ? PEERLOAD_FILE
                           : m == "size"   ? PEERLOAD_SIZE
                                           : PEERLOAD_NONE;
    if (eFault == PEERLOAD_NONE) return PEER_USAGE;
    long long llCache = 0;
    if (!FreshBlock(job, llCache)) return PEER_IPC;
    int nResult = job.cache.LoadBlock(file, 1, llCache, eFault, NO_SUCH_FILE, (int)job.nWaitMs);
    Dump(job, "load", file.m_bFileNo, 1, job.cache.BlockAt(llCache));
    Line("loadfault %s file %d block 1 result %s untouched %d", m.c_str(), file.m_bFileNo, ResultText(nResult).c_str(),
         Untouched(job, llCache) ? 1 : 0);
    return nResult == PEERCACHE_TIMEOUT ? PEER_TIMEOUT : PEER_OK;
}

bool ParseCacheArgs(const std::vector<std::string>& args, CacheJob& job)
{
    CPeerArgs opts;
    if (!opts.Parse(args, g_vCacheOptions) || !opts.GetInt("blocks", 4, 1, 100, job.nBlocks) ||
        !opts.GetInt("rounds", 1, 0, 1LL << 40, job.nRounds) || !opts.GetInt("seconds", 60, 1, 86400, job.nSeconds) ||
        !opts.GetInt("ts-array", 0, 0, SYSTEMFILE_TIMESTAMP_NUM, job.nArray) ||
        !opts.GetInt("hold-ms", 0, 0, 3600000, job.nHoldMs) || !opts.GetInt("wait-ms", 10000, 1, 600000, job.nWaitMs) ||
        !opts.GetInt("wait-ready-ms", 30000, 0, 600000, job.nReadyMs) ||
        !opts.GetInt("garbage-count", 32, 1, 100000, job.nGarbage)) {
        fprintf(stderr, "talvor-peer cache: %s\n%s", opts.Error().c_str(), CacheJobUsage().c_str());
        return false;
    }
    job.bLive = opts.Has("live");
    job.bTimestamp = opts.Has("timestamp");
    job.bDirtyOnly = opts.Has("dirty-only");
    job.bLoad = opts.Has("load");
    job.strFault = opts.GetString("fault", "");
    job.strLoadFault = opts.GetString("load-fault", "");
    job.strDump = opts.GetString("dump-dir", "");
    job.strFiles = opts.GetString("files", "");
    return true;
}

int RunWork(CacheJob& job)
{
    long long nDeadline = NowMs() + job.nSeconds * 1000;
    for (long long r = 0; r < job.nRounds && NowMs() < nDeadline; r++) {
        int nRet = RunRound(job);
        if (nRet != PEER_OK) return nRet;
    }
    for (PeerCacheFile& file : job.vFiles) {
        int nRet = PEER_OK;
        if (!job.strFault.empty()) nRet = PostFault(job, file);
        if (nRet == PEER_OK && job.bLoad) nRet = LoadAll(job, file);
        if (nRet == PEER_OK && !job.strLoadFault.empty()) nRet = LoadFault(job, file);
        if (nRet != PEER_OK) return nRet;
    }
    return PEER_OK;
}

} // namespace

std::string CacheJobUsage()
{
    return "usage: talvor-peer cache [options]\n"
           "Works on the cache-mode files in the shared cache as the engine does.\n\n" +
           DescribeOptions(g_vCacheOptions);
}

int RunCacheJob(const std::vector<std::string>& args)
{
    CacheJob job;
    if (!ParseCacheArgs(args, job)) return PEER_USAGE;
    if (!job.engine.Attach((int)job.nReadyMs) || !job.cache.Attach((int)job.nReadyMs)) {
        fprintf(stderr, "talvor-peer cache: the daemon is not ready: %s\n", job.cache.m_strError.c_str());
        return PEER_IPC;
    }
    if (!OpenFiles(job)) {
        fprintf(stderr, "talvor-peer cache: no cache-mode file to work on\n");
        return PEER_INPUT;
    }
    if (job.bLive) job.engine.SetLive(true);
    StartTimestamps(job);
    int nRet = PEER_OK;
    for (PeerCacheFile& file : job.vFiles)
        if (!EnsureBlocks(job, file)) nRet = PEER_REFUSED;
    if (nRet == PEER_OK) nRet = RunWork(job);
    for (long long nHeld = 0; nHeld < job.nHoldMs; nHeld++) {
        ServeIdle(&job);
        usleep(HOLD_SLICE_US);
    }
    if (job.bLive) job.engine.SetLive(false);
    Line("done");
    return nRet;
}

} // namespace talvorpeer
