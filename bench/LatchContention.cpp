// Cost of one acquire/release pair of the latch, alone and with two threads
// fighting for it, against std::mutex measured in the same run.
//
// Each latch benchmark reports `vs_mutex`: its time per pair divided by that
// of std::mutex at the same thread count (the mutex benchmarks are
// registered first, so they have run by then). Above 1 the latch is slower.
#include "LinuxCommonAPI.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <mutex>

namespace {

const int kMaxThreads = 2;

TALVOR_SECTION g_Latch;
std::mutex g_Mutex;
long g_nShared = 0; // touched only under the lock being measured

// ns per pair of each thread of the last std::mutex run, by thread count.
std::atomic<double> g_arMutexNs[kMaxThreads + 1][kMaxThreads];

struct LatchInit {
    LatchInit() { InitializeCriticalTalvor(&g_Latch); }
    ~LatchInit() { DeleteCriticalTalvor(&g_Latch); }
} g_LatchInit;

double MutexNsPerPair(int nThreads)
{
    double dSum = 0;
    for (int i = 0; i < nThreads; i++) dSum += g_arMutexNs[nThreads][i].load();
    return dSum / nThreads;
}

template <class Lock> void RunPairs(benchmark::State& state, Lock&& lock)
{
    auto t0 = std::chrono::steady_clock::now();
    for (auto _ : state) {
        lock.Enter();
        benchmark::DoNotOptimize(++g_nShared);
        lock.Leave();
    }
    double dNs = std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - t0).count();
    double dPerPair = state.iterations() ? dNs / (double)state.iterations() : 0;
    state.counters["ns_per_pair"] = benchmark::Counter(dPerPair, benchmark::Counter::kAvgThreads);
    lock.Report(state, dPerPair);
}

struct MutexLock {
    void Enter() { g_Mutex.lock(); }
    void Leave() { g_Mutex.unlock(); }
    void Report(benchmark::State& state, double dPerPair)
    {
        g_arMutexNs[state.threads()][state.thread_index()] = dPerPair;
    }
};

struct LatchReport {
    void Report(benchmark::State& state, double dPerPair)
    {
        double dMutex = MutexNsPerPair(state.threads());
        if (dMutex > 0) state.counters["vs_mutex"] = benchmark::Counter(dPerPair / dMutex, benchmark::Counter::kAvgThreads);
    }
};

// The recursive acquire the daemon's guards use.
struct OwnerLatch : LatchReport {
    UINT m_nID = GetCurrentThreadId();
    void Enter() { EnterCriticalTalvor(&g_Latch, m_nID); }
    void Leave() { LeaveCriticalTalvor(&g_Latch); }
};

// The spinning acquire of the logging path.
struct SpinLatch : LatchReport {
    void Enter() { EnterCriticalTalvorEx(&g_Latch); }
    void Leave() { LeaveCriticalTalvor(&g_Latch); }
};

void BM_StdMutex(benchmark::State& state) { RunPairs(state, MutexLock()); }
void BM_TalvorLatch(benchmark::State& state) { RunPairs(state, OwnerLatch()); }
void BM_TalvorLatchEx(benchmark::State& state) { RunPairs(state, SpinLatch()); }

} // namespace

BENCHMARK(BM_StdMutex)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_TalvorLatch)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_TalvorLatchEx)->Threads(1)->Threads(2)->UseRealTime();

BENCHMARK_MAIN();
