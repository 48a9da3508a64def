// BenchRatio.h — the time per operation of each case, kept by name, and the
// ratios printed at the end of a run: reference time over ours, so that 1.0
// is as fast as the reference and more is faster.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <string>

namespace talvorbench {

inline std::map<std::string, double>& NsPerOp()
{
    static std::map<std::string, double> s_map;
    return s_map;
}

// Keeps the time per operation of one case, nPerRound operations a round.
inline void Record(benchmark::State& state, const char* lpszName, std::chrono::steady_clock::time_point t0,
                   size_t nPerRound)
{
    double dOps = (double)state.iterations() * (double)nPerRound;
    double dNs = std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - t0).count();
    if (dOps > 0) NsPerOp()[lpszName] = dNs / dOps;
    state.SetItemsProcessed((long long)dOps);
}

inline void PrintRatio(const char* lpszWhat, const char* lpszReference, const char* lpszOurs, double dGoal)
{
    double dRef = NsPerOp()[lpszReference], dOurs = NsPerOp()[lpszOurs];
    if (dRef <= 0 || dOurs <= 0) return;
    printf("%-34s %7.2f ns vs %7.2f ns  ratio %5.2f (goal >= %.1f)\n", lpszWhat, dOurs, dRef, dRef / dOurs, dGoal);
}

// The whole of a value bench: run the registered benchmarks, then print
// the ratios fnReport asks for.
inline int RunRatioBench(int argc, char** argv, const std::function<void()>& fnReport)
{
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    printf("\n");
    fnReport();
    return 0;
}

} // namespace talvorbench
