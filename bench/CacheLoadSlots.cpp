// Load-slot round trips per second, as the engine makes them: a slot of the
// file's load group filled at the engine's position, its check byte written
// last, the file's load semaphore posted, and the answer awaited on the
// answer semaphore; then the slot is taken back. The file's load thread
// (started by InitFileLoadThreadAndEvent, as when a file opens) reads,
// checks and copies each block into its cache block. The reference reads
// the same random 16 KiB blocks with raw pread on a descriptor opened as the
// backend opens its own (O_DIRECT | O_SYNC), one at a time. The two sides
// take turns in rounds of 100 blocks. Goal: at least 0.7 of the raw rate.
//
// Run by hand in a private namespace (the segment key and the semaphore
// names are fixed): tests/isolate.sh build/bench/bench_CacheLoadSlots
// It makes a 256 MiB file under $TALVOR_BENCH_DIR (default /var/tmp), which
// must take O_DIRECT, and removes it at the end.
#include "CacheBenchKit.h"

#include <benchmark/benchmark.h>

#include <cerrno>
#include <random>

using namespace cachebench;

namespace {

const long long FILE_SIZE = 256LL * 1048576;
const int CACHE_MB = 64;
const BYTE FILE_NO = 9;
const int OPS = 4000;
const int ROUND = 100;
const UINT ANSWER_WAIT_MS = 10;
// The engine's target blocks: one per slot of the group, past the blocks
// the file's chain took.
const UINT TARGET_FROM = 64;

std::string g_strDir;
std::string g_strPath;
std::vector<long long> g_vOffsets;
Tally g_ours, g_raw;

BenchCache g_cache;
BenchFile g_file;
LPCacheBufferBlockOperate g_lpGroup = nullptr;
int g_nSlots = 0;
HEVENTTYPE g_hPost = nullptr;    // CacheLoadEvent of the file
HEVENTTYPE g_hAnswer = nullptr;  // StorageLoadEvent of the file

HEVENTTYPE FileSemaphore(const char* lpszPrefix)
{
    char szName[64];
    snprintf(szName, sizeof(szName), "%s%02X", lpszPrefix, (unsigned)FILE_NO);
    return EngineSemaphore(szName);
}

bool MakeSetup()
{
    if (SegmentExists()) {
        fprintf(stderr, "a cache segment exists already: run under tests/isolate.sh\n");
        return false;
    }
    if (!MakeBenchDir(&g_strDir)) return false;
    g_strPath = g_strDir + "/Table9.dbf";
    if (!MakeBlockFile(g_strPath, FILE_SIZE, FILE_NO)) return false;
    std::mt19937_64 rng(4);
    for (int i = 0; i < OPS; i++) g_vOffsets.push_back((long long)(1 + rng() % (FILE_SIZE / BLOCK - 1)) * BLOCK);
    if (g_cache.Open(CACHE_MB) != S_OK) return false;
    if (!g_file.Open(g_cache.Get(), g_strPath, FILE_NO, FILETYPE_TABLE, FILE_SIZE)) return false;
    g_cache.m_module.m_arFiles[FILE_NO] = &g_file.m_info;
    // The file's head page takes the file its load group.
    long long llHead = 0;
    if (g_cache->LoadFile2Cache(nullptr, FILE_NO, llHead) != 0) return false;
    if (g_cache->GetCacheLoadSlot(FILE_NO, g_lpGroup, g_nSlots) != 0 || g_nSlots <= 0) return false;
    if (g_cache->InitFileLoadThreadAndEvent(FILE_NO) != 0) return false;
    g_hPost = FileSemaphore(SEMNAME_CACHELOADEVENT_PREFIX);
    g_hAnswer = FileSemaphore(SEMNAME_STORAGELOADEVENT_PREFIX);
    return g_hPost != nullptr && g_hAnswer != nullptr;
}

void RemoveSetup()
{
    g_cache.Close();
    CloseEvent(g_hPost);
    CloseEvent(g_hAnswer);
    if (!g_strPath.empty()) unlink(g_strPath.c_str());
    if (!g_strDir.empty()) rmdir(g_strDir.c_str());
}

long long TargetOf(int nSlot)
{
    return CacheBlockOffset(g_cache->GetLayout().m_nFirstFreeNo + TARGET_FROM + (UINT)nSlot);
}

// One round trip at depth 1; true when the block was answered loaded and
// the cache block holds it.
bool RoundTrip(long long llFile)
{
    LPstu_FileCacheLoadInfo lpInfo = &g_cache.Head()->m_stFileCacheLoadInfo[FILE_NO];
    int nPos = lpInfo->m_bCacheLoadPos % g_nSlots;
    LPCacheBufferBlockOperate p = &g_lpGroup[nPos];
    long long llTarget = TargetOf(nPos);
    UINT nBlockNo = (UINT)(llFile / BLOCK);
    p->m_bFileNo = FILE_NO;
    p->m_nBlockNo = nBlockNo;
    p->m_llFileBlockOffset = llFile;
    p->m_nBlockSize = BLOCK;
    p->m_llCacheBlockOffset = llTarget;
    p->m_bSuccess = 99;
    __atomic_thread_fence(__ATOMIC_RELEASE);
    p->m_bVerification = (BYTE)((llTarget / BLOCK) % 255 + 1);
    p->m_bStatus = CACHELOAD_POSTED;
    lpInfo->m_bCacheLoadPos = (BYTE)((nPos + 1) % g_nSlots);
    SetEvent(g_hPost);
    while (p->m_bStatus != CACHELOAD_DONE) WaitMs(g_hAnswer, ANSWER_WAIT_MS);
    __atomic_thread_fence(__ATOMIC_ACQUIRE);
    bool bGood = p->m_bSuccess == CACHELOAD_OK && ((LPBASEBLOCKHEAD)(g_cache.Base() + llTarget))->m_nBlockNo == nBlockNo;
    p->m_bStatus = CACHELOAD_FREE;
    return bGood;
}

// One round of each side over the same ROUND offsets, the sides in turn;
// the order within a round alternates too.
bool RawRound(int fd, LPBYTE lpBuf, int nFrom)
{
    auto tStart = std::chrono::steady_clock::now();
    for (int i = nFrom; i < nFrom + ROUND; i++)
        if (pread(fd, lpBuf, BLOCK, g_vOffsets[(size_t)i]) != BLOCK) return false;
    benchmark::DoNotOptimize(lpBuf[100]);
    g_raw.Add(ROUND, tStart);
    return true;
}

bool SlotRound(int nFrom)
{
    auto tStart = std::chrono::steady_clock::now();
    for (int i = nFrom; i < nFrom + ROUND; i++)
        if (!RoundTrip(g_vOffsets[(size_t)i])) return false;
    g_ours.Add(ROUND, tStart);
    return true;
}

void BM_LoadSlotsAgainstPread(benchmark::State& state)
{
    LPBYTE lpBuf = (LPBYTE)get_aligned_buffer(BLOCK);
    int fd = open(g_strPath.c_str(), O_RDONLY | O_DIRECT | O_SYNC);
    if (fd < 0 || lpBuf == nullptr) state.SkipWithError("open failed");
    int nRound = 0;
    for (auto _ : state) {
        bool bGood = true;
        for (int nFrom = 0; nFrom + ROUND <= OPS && bGood; nFrom += ROUND, nRound++) {
            bGood = AlternateRound(nRound, [&] { return RawRound(fd, lpBuf, nFrom); }, [&] { return SlotRound(nFrom); });
        }
        if (!bGood) {
            state.SkipWithError("a read failed or a block was not answered loaded");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * OPS * 2);
    if (fd >= 0) close(fd);
    free(lpBuf);
}

BENCHMARK(BM_LoadSlotsAgainstPread)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

int main(int argc, char** argv)
{
    return RunCacheBench(argc, argv, MakeSetup, RemoveSetup, g_strDir, [] {
        Report("Load-slot round trip / raw pread (O_DIRECT|O_SYNC), 16 KiB random, depth 1", g_ours, g_raw, "blocks/s",
               0.7);
    });
}
