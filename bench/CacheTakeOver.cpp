// The cache's take-over at start: Initialize on a segment that survived a
// daemon with status 0 (ready), which checks the survivor's head, its
// chains and load groups and keeps it byte for byte, against a plain
// shmget + shmat (+ shmdt) of the same segment. Each side in turn, per
// size: the 1 GiB default and a small cache. No goal is set; the ratio
// shows what the checks of a survivor cost over the attach alone.
//
// Run by hand in a private namespace (the segment key is fixed):
//   tests/isolate.sh build/bench/bench_CacheTakeOver
#include "CacheBenchKit.h"

#include <benchmark/benchmark.h>

using namespace cachebench;

namespace {

const int ROUND = 50;
const int ROUNDS = 10;

// The daemon that made the cache ends without removing it.
bool LeaveSurvivor(int nMB)
{
    RemoveSegment();
    BenchCache cache;
    if (cache.Open(nMB) != S_OK) return false;
    cache.Head()->m_bStatus = CACHESTATUS_READY;
    cache->m_hCacheBufferFile = 0;
    cache.m_pCache.reset();
    return true;
}

// One start on the survivor: taken over whole, then let go as a daemon
// that dies would.
bool TakeOver(int nMB, cachetest::FakeCacheModule& module)
{
    CTalvorCacheStorage* pCache = new CTalvorCacheStorage;
    pCache->SetCacheModule(&module);
    bool bWhole = pCache->Initialize(SHMNAME_CACHEBUFFER, nMB, LRU_PERCENT, ModuleMarker(), FALSE) == S_OK &&
                  pCache->m_bExists;
    pCache->m_hCacheBufferFile = 0;
    delete pCache;
    return bWhole;
}

bool PlainAttach()
{
    int nId = shmget(SHMKEY_CACHEBUFFER, 0, 0);
    if (nId < 0) return false;
    void* p = shmat(nId, nullptr, 0);
    if (p == (void*)-1) return false;
    benchmark::DoNotOptimize(p);
    return shmdt(p) == 0;
}

bool OursRound(int nMB, Tally& tally)
{
    cachetest::FakeCacheModule module;
    auto tStart = std::chrono::steady_clock::now();
    for (int i = 0; i < ROUND; i++)
        if (!TakeOver(nMB, module)) return false;
    tally.Add(ROUND, tStart);
    return true;
}

bool RawRound(Tally& tally)
{
    auto tStart = std::chrono::steady_clock::now();
    for (int i = 0; i < ROUND; i++)
        if (!PlainAttach()) return false;
    tally.Add(ROUND, tStart);
    return true;
}

struct SizeTallies {
    int nMB;
    Tally ours, raw;
};
SizeTallies g_arSizes[] = {{1024, {}, {}}, {64, {}, {}}};

void BM_TakeOverAgainstAttach(benchmark::State& state)
{
    SizeTallies& t = g_arSizes[state.range(0)];
    if (!LeaveSurvivor(t.nMB)) state.SkipWithError("cannot make the segment");
    for (auto _ : state) {
        bool bGood = true;
        for (int r = 0; r < ROUNDS && bGood; r++)
            bGood = r % 2 == 0 ? RawRound(t.raw) && OursRound(t.nMB, t.ours) : OursRound(t.nMB, t.ours) && RawRound(t.raw);
        if (!bGood) {
            state.SkipWithError("a take-over was refused or rebuilt the cache");
            break;
        }
    }
    RemoveSegment();
}

BENCHMARK(BM_TakeOverAgainstAttach)->Arg(0)->Arg(1)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    TraceInstallSink(&ErrorsToStderr);
    if (SegmentExists()) {
        fprintf(stderr, "a cache segment exists already: run under tests/isolate.sh\n");
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    printf("\n");
    for (const SizeTallies& t : g_arSizes) {
        char szWhat[128];
        snprintf(szWhat, sizeof(szWhat), "Take-over of a ready %d MiB cache / plain shmget+shmat+shmdt", t.nMB);
        Report(szWhat, t.ours, t.raw, "starts/s", 0);
    }
    return 0;
}
