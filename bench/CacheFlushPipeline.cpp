// Flush entries per second through the table pipeline, as the engine drives
// it: a dirty 16 KiB block in a cache block, a type-3 entry posted at the
// engine's position of the ring, the daemon's semaphore posted, and, when the
// ring is full, a wait on the answer semaphore. The flush thread (started by
// CreateEventAndThread, as at start) copies, checks and writes each block.
// The reference writes the same bytes at the same random offsets with raw
// pwrite, one at a time, on a descriptor opened as the backend opens its own
// (O_DIRECT | O_SYNC). The two sides take turns in rounds of 400 blocks.
// Goal: at least 0.8 of the raw rate.
//
// Run by hand in a private namespace (the segment key and the semaphore
// names are fixed): tests/isolate.sh build/bench/bench_CacheFlushPipeline
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
const int OPS = 2000;
// Blocks of one side's turn: more than the ring holds, so that the
// pipeline runs with a full ring for most of a turn.
const int ROUND = 400;
// Cache blocks the engine cycles through: more than the ring holds, so a
// block is never changed while an entry naming it is still posted.
const int CACHE_BLOCKS = 2 * CACHE_FLUSH_RING_SIZE;
const UINT RING_WAIT_MS = 10;
const long long BLOCK_TS = 5000;

std::string g_strDir;
std::string g_strPath;
std::vector<long long> g_vOffsets;
Tally g_ours, g_raw;

BenchCache g_cache;
BenchFile g_file;
std::vector<long long> g_vCacheBlocks;
HEVENTTYPE g_hPost = nullptr;    // the engine's side of m_hCacheFlush
HEVENTTYPE g_hAnswer = nullptr;  // the engine's side of m_hStorageFlush

bool MakeSetup()
{
    if (SegmentExists()) {
        fprintf(stderr, "a cache segment exists already: run under tests/isolate.sh\n");
        return false;
    }
    if (!MakeBenchDir(&g_strDir)) return false;
    g_strPath = g_strDir + "/Table9.dbf";
    if (!MakeBlockFile(g_strPath, FILE_SIZE, FILE_NO)) return false;
    std::mt19937_64 rng(3);
    for (int i = 0; i < OPS; i++) g_vOffsets.push_back((long long)(1 + rng() % (FILE_SIZE / BLOCK - 1)) * BLOCK);
    if (g_cache.Open(CACHE_MB) != S_OK) return false;
    if (!g_file.Open(g_cache.Get(), g_strPath, FILE_NO, FILETYPE_TABLE, FILE_SIZE)) return false;
    g_cache.m_module.m_arFiles[FILE_NO] = &g_file.m_info;
    // The file's chain: its head page first, then the blocks the engine uses.
    for (int i = 0; i <= CACHE_BLOCKS; i++) {
        long long llOffset = 0;
        if (g_cache->LoadFile2Cache(nullptr, FILE_NO, llOffset) != 0) return false;
        if (i > 0) g_vCacheBlocks.push_back(llOffset);
    }
    if (g_cache->CreateEventAndThread() != S_OK) return false;
    g_hPost = EngineSemaphore(SEMNAME_CACHEFLUSHEVENT);
    g_hAnswer = EngineSemaphore(SEMNAME_STORAGEFLUSHEVENT);
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

// The engine changes the block in cache block llCache: marked to be saved.
void DirtyBlock(long long llCache, UINT nBlockNo, BYTE bFlushCode)
{
    LPBYTE lpLive = g_cache.Base() + llCache;
    PutBlockHead(lpLive, FILE_NO, nBlockNo, 0);
    LPBASEBLOCKHEAD h = (LPBASEBLOCKHEAD)lpLive;
    h->m_nTimestamp = BLOCK_TS;
    h->m_bSaveFlag = 1;
    h->m_bFlushFlag = 1;
    h->m_bFlushCode = bFlushCode;
    h->m_nBlockSize = BLOCK;
}

// The entry at the engine's position once it is free; false when its last
// use was not answered done.
stu_CacheFlush* NextFreeEntry(bool& bGood)
{
    BYTE bPos = g_cache.Head()->m_bCacheFlushPos;
    stu_CacheFlush* p = &g_cache->m_pCacheFlush[bPos % CACHE_FLUSH_RING_SIZE];
    while (p->m_bStatus != 0) WaitMs(g_hAnswer, RING_WAIT_MS);
    __atomic_thread_fence(__ATOMIC_ACQUIRE);
    if (p->m_bBlockType == CACHEFLUSH_DATA && p->m_bReserved != CACHEFLUSH_DONE) bGood = false;
    return p;
}

void PostEntry(stu_CacheFlush* p, int i)
{
    long long llCache = g_vCacheBlocks[(size_t)(i % CACHE_BLOCKS)];
    long long llFile = g_vOffsets[(size_t)i];
    UINT nBlockNo = (UINT)(llFile / BLOCK);
    BYTE bFlushCode = (BYTE)(i & 0x7F);
    DirtyBlock(llCache, nBlockNo, bFlushCode);
    memset((void*)p, 0, sizeof(*p));
    p->m_bBlockType = CACHEFLUSH_DATA;
    p->m_bFileNo = FILE_NO;
    p->m_bFlushCode = bFlushCode;
    p->m_nBlockNo = nBlockNo;
    p->m_nBlockSize = BLOCK;
    p->m_llTimestamp = BLOCK_TS;
    p->m_llTransTimestamp = BLOCK_TS;
    p->m_llCacheBlockOffset = llCache;
    p->m_llFileBlockOffset = llFile;
    __atomic_thread_fence(__ATOMIC_RELEASE);
    p->m_bStatus = 1;
    g_cache.Head()->m_bCacheFlushPos = (BYTE)((g_cache.Head()->m_bCacheFlushPos + 1) % CACHE_FLUSH_RING_SIZE);
    SetEvent(g_hPost);
}

// Until the daemon's position meets the engine's: every entry answered.
bool WaitRingDrained()
{
    for (;;) {
        BYTE bPos = g_cache.Head()->m_bCacheFlushPos;
        if (g_cache.Head()->m_bStorageFlushPos == bPos) break;
        WaitMs(g_hAnswer, RING_WAIT_MS);
    }
    __atomic_thread_fence(__ATOMIC_ACQUIRE);
    for (int i = 0; i < CACHE_FLUSH_RING_SIZE; i++) {
        const stu_CacheFlush& e = g_cache->m_pCacheFlush[i];
        if (e.m_bBlockType == CACHEFLUSH_DATA && e.m_bReserved != CACHEFLUSH_DONE) return false;
    }
    return true;
}

// One round of each side over the same ROUND offsets, the sides in turn;
// the order within a round alternates too.
bool PipelineRound(int nFrom)
{
    auto tStart = std::chrono::steady_clock::now();
    bool bGood = true;
    for (int i = nFrom; i < nFrom + ROUND; i++) PostEntry(NextFreeEntry(bGood), i);
    bGood = WaitRingDrained() && bGood;
    if (bGood) g_ours.Add(ROUND, tStart);
    return bGood;
}

bool RawRound(int fd, LPBYTE lpBuf, int nFrom)
{
    auto tStart = std::chrono::steady_clock::now();
    for (int i = nFrom; i < nFrom + ROUND; i++) {
        ((LPBASEBLOCKHEAD)lpBuf)->m_nBlockNo = (UINT)(g_vOffsets[(size_t)i] / BLOCK);
        if (pwrite(fd, lpBuf, BLOCK, g_vOffsets[(size_t)i]) != BLOCK) return false;
    }
    g_raw.Add(ROUND, tStart);
    return true;
}

void BM_FlushPipelineAgainstPwrite(benchmark::State& state)
{
    LPBYTE lpBuf = (LPBYTE)get_aligned_buffer(BLOCK);
    int fd = open(g_strPath.c_str(), O_RDWR | O_DIRECT | O_SYNC);
    if (fd < 0 || lpBuf == nullptr) state.SkipWithError("open failed");
    else memcpy(lpBuf, g_cache.Base() + g_vCacheBlocks[0], BLOCK);
    int nRound = 0;
    for (auto _ : state) {
        bool bGood = true;
        for (int nFrom = 0; nFrom + ROUND <= OPS && bGood; nFrom += ROUND, nRound++) {
            bGood = AlternateRound(nRound, [&] { return RawRound(fd, lpBuf, nFrom); },
                                   [&] { return PipelineRound(nFrom); });
        }
        if (!bGood) {
            state.SkipWithError("a write failed or an entry was not answered done");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * OPS * 2);
    if (fd >= 0) close(fd);
    free(lpBuf);
}

BENCHMARK(BM_FlushPipelineAgainstPwrite)->Iterations(2)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

int main(int argc, char** argv)
{
    return RunCacheBench(argc, argv, MakeSetup, RemoveSetup, g_strDir, [] {
        Report("Flush pipeline / raw pwrite (O_DIRECT|O_SYNC), type-3 entries of 16 KiB, random offsets", g_ours, g_raw,
               "blocks/s", 0.8);
    });
}
