// FunctionCall.cpp — a SQL function called through the function library on
// typed values against the same work done by a direct C++ call on plain
// strings, in one run. The direct calls are functions the compiler may not
// inline, as a call through any library is: the ratio is the price of the
// typed value and the pool, not of the call. The ratio printed at the end is direct time /
// library time (goal >= 0.5):
//   CONCAT of three texts / std::string appends into a reused buffer
//   LENGTH and CHAR_LENGTH / size() and a UTF-8 lead-byte count
//   LOCATE / std::search folding letters, and a character count
//   IFNULL / a conditional on two plain integers
#include "BaseFunManager.h"

#include "BenchRatio.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <random>
#include <string>
#include <string_view>
#include <vector>

using talvorbench::PrintRatio;
using talvorbench::RunRatioBench;
using talvorbench::Record;

namespace {

const int g_nRows = 1024;

#define TALVOR_BENCH_CALL __attribute__((noinline))

TALVOR_BENCH_CALL void DirectConcat(const std::string& a, const std::string& b, const std::string& c, std::string& out)
{
    out.clear();
    out.append(a).append(b).append(c);
}

TALVOR_BENCH_CALL long long DirectLength(const std::string& s) { return (long long)s.size(); }

TALVOR_BENCH_CALL long long DirectCharLength(const std::string& s)
{
    long long n = 0;
    for (unsigned char ch : s) n += (ch & 0xC0) != 0x80;
    return n;
}

// The same answer LOCATE gives: ASCII letters folded, the position in
// characters.
TALVOR_BENCH_CALL long long DirectLocate(std::string_view hay, std::string_view needle)
{
    auto fold = [](char a, char b) { return tolower((unsigned char)a) == tolower((unsigned char)b); };
    auto it = std::search(hay.begin(), hay.end(), needle.begin(), needle.end(), fold);
    if (it == hay.end()) return 0;
    long long nChars = 1;
    for (auto p = hay.begin(); p != it; ++p) nChars += ((unsigned char)*p & 0xC0) != 0x80;
    return nChars;
}

// A plain nullable integer: null pointer for NULL.
TALVOR_BENCH_CALL long long DirectIfNull(const long long* p, long long dflt) { return p != nullptr ? *p : dflt; }

CBaseFunManager g_fun;

// Short texts as columns hold them: names, codes, a few UTF-8 characters.
const std::vector<std::string>& Texts()
{
    static std::vector<std::string> v;
    if (!v.empty()) return v;
    static const char* kPieces[] = {"ab", "Zeta", "\xc3\xa9t\xc3\xa9", "42", "x,y", "\xe4\xb8\xad\xe6\x96\x87", "-"};
    std::mt19937 rng(7);
    for (int i = 0; i < g_nRows; ++i) {
        std::string s;
        for (int k = 1 + (int)(rng() % 4); k > 0; --k) s += kPieces[rng() % 7];
        v.push_back(s);
    }
    return v;
}

std::vector<VARDATA> Typed(const std::vector<std::string>& vText)
{
    std::vector<VARDATA> v(vText.size());
    for (size_t i = 0; i < vText.size(); ++i) {
        v[i].Init();
        v[i].AttachString((char*)vText[i].data(), (int)vText[i].size(), TALVOR_VT_TEXT);
    }
    return v;
}

void BM_DirectConcat(benchmark::State& state)
{
    const auto& t = Texts();
    std::string out;
    out.reserve(256);
    auto t0 = std::chrono::steady_clock::now();
    for (auto _ : state) {
        size_t nTotal = 0;
        for (int i = 2; i < g_nRows; ++i) {
            DirectConcat(t[i - 2], t[i - 1], t[i], out);
            nTotal += out.size();
        }
        benchmark::DoNotOptimize(nTotal);
    }
    Record(state, "direct_concat", t0, g_nRows - 2);
}

void BM_LibraryConcat(benchmark::State& state)
{
    std::vector<VARDATA> v = Typed(Texts());
    CTalvorBufferPool pool;
    VARDATA r;
    r.Init();
    auto t0 = std::chrono::steady_clock::now();
    for (auto _ : state) {
        size_t nTotal = 0;
        for (int i = 2; i < g_nRows; ++i) {
            g_fun.Concat(&pool, 3, &v[i - 2], r);
            nTotal += (size_t)r.m_nStrLen;
        }
        pool.ResetBuffer();
        benchmark::DoNotOptimize(nTotal);
    }
    Record(state, "library_concat", t0, g_nRows - 2);
}

void BM_DirectLength(benchmark::State& state)
{
    const auto& t = Texts();
    auto t0 = std::chrono::steady_clock::now();
    for (auto _ : state) {
        long long nTotal = 0;
        for (const std::string& s : t) nTotal += DirectLength(s) + DirectCharLength(s);
        benchmark::DoNotOptimize(nTotal);
    }
    Record(state, "direct_length", t0, g_nRows);
}

void BM_LibraryLength(benchmark::State& state)
{
    std::vector<VARDATA> v = Typed(Texts());
    VARDATA r;
    r.Init();
    auto t0 = std::chrono::steady_clock::now();
    for (auto _ : state) {
        long long nTotal = 0;
        for (VARDATA& x : v) {
            g_fun.Length(nullptr, x, r);
            nTotal += r.m_llValue;
            g_fun.CharLength(nullptr, x, r);
            nTotal += r.m_llValue;
        }
        benchmark::DoNotOptimize(nTotal);
    }
    Record(state, "library_length", t0, g_nRows);
}

void BM_DirectLocate(benchmark::State& state)
{
    const auto& t = Texts();
    auto t0 = std::chrono::steady_clock::now();
    for (auto _ : state) {
        long long nTotal = 0;
        for (const std::string& s : t) nTotal += DirectLocate(s, "et");
        benchmark::DoNotOptimize(nTotal);
    }
    Record(state, "direct_locate", t0, g_nRows);
}

void BM_LibraryLocate(benchmark::State& state)
{
    std::vector<VARDATA> v = Typed(Texts());
    char szNeedle[] = "et";
    VARDATA needle, r;
    needle.Init();
    needle.AttachString(szNeedle, 2, TALVOR_VT_TEXT);
    r.Init();
    auto t0 = std::chrono::steady_clock::now();
    for (auto _ : state) {
        long long nTotal = 0;
        for (VARDATA& x : v) {
            g_fun.Locate(nullptr, needle, x, r);
            nTotal += r.m_llValue;
        }
        benchmark::DoNotOptimize(nTotal);
    }
    Record(state, "library_locate", t0, g_nRows);
}

void BM_DirectIfNull(benchmark::State& state)
{
    std::vector<long long> v(g_nRows);
    std::vector<bool> vNull(g_nRows);
    std::mt19937 rng(8);
    for (int i = 0; i < g_nRows; ++i) {
        v[i] = (long long)rng();
        vNull[i] = rng() % 4 == 0;
    }
    auto t0 = std::chrono::steady_clock::now();
    for (auto _ : state) {
        long long nTotal = 0;
        for (int i = 0; i < g_nRows; ++i) nTotal += DirectIfNull(vNull[i] ? nullptr : &v[i], -1);
        benchmark::DoNotOptimize(nTotal);
    }
    Record(state, "direct_ifnull", t0, g_nRows);
}

void BM_LibraryIfNull(benchmark::State& state)
{
    std::vector<VARDATA> v(g_nRows);
    std::mt19937 rng(8);
    for (int i = 0; i < g_nRows; ++i) {
        v[i].Init();
        long long ll = (long long)rng();
        if (rng() % 4 == 0) v[i].SetNull();
        else v[i].SetData(ll);
    }
    VARDATA dflt, r;
    dflt.Init();
    dflt.SetData(-1LL);
    r.Init();
    CTalvorBufferPool pool;
    auto t0 = std::chrono::steady_clock::now();
    for (auto _ : state) {
        long long nTotal = 0;
        for (VARDATA& x : v) {
            g_fun.IfNull(&pool, x, dflt, r);
            nTotal += r.m_llValue;
        }
        benchmark::DoNotOptimize(nTotal);
    }
    Record(state, "library_ifnull", t0, g_nRows);
}

BENCHMARK(BM_DirectConcat);
BENCHMARK(BM_LibraryConcat);
BENCHMARK(BM_DirectLength);
BENCHMARK(BM_LibraryLength);
BENCHMARK(BM_DirectLocate);
BENCHMARK(BM_LibraryLocate);
BENCHMARK(BM_DirectIfNull);
BENCHMARK(BM_LibraryIfNull);

}  // namespace

int main(int argc, char** argv)
{
    return RunRatioBench(argc, argv, [] {
        PrintRatio("CONCAT library / direct", "direct_concat", "library_concat", 0.5);
        PrintRatio("LENGTH+CHAR_LENGTH library / direct", "direct_length", "library_length", 0.5);
        PrintRatio("LOCATE library / direct", "direct_locate", "library_locate", 0.5);
        PrintRatio("IFNULL library / direct", "direct_ifnull", "library_ifnull", 0.5);
    });
}
