// TypedValue.cpp — the typed value's compare and hash per row against the
// plain compare of the same numbers in one run. The ratio printed at the end
// is plain time / typed time (goal >= 0.3):
//   typed int64 compare + hash / plain int64 compare
//   typed double compare + hash / plain double compare
#include "TalvorVarDataOps.h"

#include "BenchRatio.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <random>
#include <vector>

using talvorbench::PrintRatio;
using talvorbench::RunRatioBench;
using talvorbench::Record;

namespace {

const int g_nRows = 4096;

const std::vector<long long>& Ints()
{
    static std::vector<long long> v;
    if (!v.empty()) return v;
    std::mt19937_64 rng(5);
    for (int i = 0; i < g_nRows; ++i) v.push_back((long long)(rng() % 2000000000ULL) - 1000000000LL);
    return v;
}

const std::vector<double>& Doubles()
{
    static std::vector<double> v;
    if (!v.empty()) return v;
    std::mt19937_64 rng(6);
    for (int i = 0; i < g_nRows; ++i) v.push_back((double)(long long)(rng() % 2000000ULL) / 16.0 - 62500.0);
    return v;
}

template <class T>
std::vector<st_VARDATA> Typed(const std::vector<T>& vPlain)
{
    std::vector<st_VARDATA> v;
    for (T x : vPlain) {
        st_VARDATA d;
        d.Init();
        d.SetData(x);
        v.push_back(d);
    }
    return v;
}

// Each row against its neighbour, as a sort or a join probe meets them.
template <class T>
void PlainRows(benchmark::State& state, const std::vector<T>& v, const char* lpszName)
{
    auto t0 = std::chrono::steady_clock::now();
    for (auto _ : state) {
        int nLess = 0;
        for (size_t i = 1; i < v.size(); ++i) nLess += v[i - 1] < v[i];
        benchmark::DoNotOptimize(nLess);
    }
    Record(state, lpszName, t0, v.size() - 1);
}

void TypedRows(benchmark::State& state, const std::vector<st_VARDATA>& v, const char* lpszName)
{
    auto t0 = std::chrono::steady_clock::now();
    // Rows and their count held in locals, as a caller's loop holds them:
    // the out-of-line paths could change the vector for all the compiler
    // knows, which would reload both every row (the plain loop, calling
    // nothing, keeps them in registers anyway).
    const st_VARDATA* lpRows = v.data();
    const size_t nRows = v.size();
    for (auto _ : state) {
        int nLess = 0;
        long long h = 0;
        for (size_t i = 1; i < nRows; ++i) {
            nLess += lpRows[i - 1].Compare(lpRows[i]) < 0;
            lpRows[i].CalcHashFactor(h);
        }
        benchmark::DoNotOptimize(nLess);
        benchmark::DoNotOptimize(h);
    }
    Record(state, lpszName, t0, v.size() - 1);
}

// The two halves apart, to see where the time of a row goes.
void CompareOnly(benchmark::State& state, const std::vector<st_VARDATA>& v, const char* lpszName)
{
    auto t0 = std::chrono::steady_clock::now();
    const st_VARDATA* lpRows = v.data();
    const size_t nRows = v.size();
    for (auto _ : state) {
        int nLess = 0;
        for (size_t i = 1; i < nRows; ++i) nLess += lpRows[i - 1].Compare(lpRows[i]) < 0;
        benchmark::DoNotOptimize(nLess);
    }
    Record(state, lpszName, t0, v.size() - 1);
}

void HashOnly(benchmark::State& state, const std::vector<st_VARDATA>& v, const char* lpszName)
{
    auto t0 = std::chrono::steady_clock::now();
    const st_VARDATA* lpRows = v.data();
    const size_t nRows = v.size();
    for (auto _ : state) {
        long long h = 0;
        for (size_t i = 1; i < nRows; ++i) lpRows[i].CalcHashFactor(h);
        benchmark::DoNotOptimize(h);
    }
    Record(state, lpszName, t0, v.size() - 1);
}

void BM_TypedInt64CompareOnly(benchmark::State& state) { CompareOnly(state, Typed(Ints()), "typed_int64_compare"); }
void BM_TypedInt64HashOnly(benchmark::State& state) { HashOnly(state, Typed(Ints()), "typed_int64_hash"); }
void BM_TypedDoubleCompareOnly(benchmark::State& state) { CompareOnly(state, Typed(Doubles()), "typed_double_compare"); }
void BM_TypedDoubleHashOnly(benchmark::State& state) { HashOnly(state, Typed(Doubles()), "typed_double_hash"); }

void BM_PlainInt64(benchmark::State& state) { PlainRows(state, Ints(), "plain_int64"); }
void BM_TypedInt64(benchmark::State& state) { TypedRows(state, Typed(Ints()), "typed_int64"); }
void BM_PlainDouble(benchmark::State& state) { PlainRows(state, Doubles(), "plain_double"); }
void BM_TypedDouble(benchmark::State& state) { TypedRows(state, Typed(Doubles()), "typed_double"); }

BENCHMARK(BM_PlainInt64);
BENCHMARK(BM_TypedInt64);
BENCHMARK(BM_PlainDouble);
BENCHMARK(BM_TypedDouble);
BENCHMARK(BM_TypedInt64CompareOnly);
BENCHMARK(BM_TypedInt64HashOnly);
BENCHMARK(BM_TypedDoubleCompareOnly);
BENCHMARK(BM_TypedDoubleHashOnly);

}  // namespace

int main(int argc, char** argv)
{
    return RunRatioBench(argc, argv, [] {
        PrintRatio("typed int64 compare+hash / plain", "plain_int64", "typed_int64", 0.3);
        PrintRatio("typed double compare+hash / plain", "plain_double", "typed_double", 0.3);
        PrintRatio("  typed int64 compare alone", "plain_int64", "typed_int64_compare", 0.3);
        PrintRatio("  typed int64 hash alone", "plain_int64", "typed_int64_hash", 0.3);
        PrintRatio("  typed double compare alone", "plain_double", "typed_double_compare", 0.3);
        PrintRatio("  typed double hash alone", "plain_double", "typed_double_hash", 0.3);
    });
}
