// ValueLibrary.cpp — keyword lookup and pools against the standard ways of
// doing the same in the same run. At the end the ratios are printed as
// reference time / our time, so above 1.0 is faster than the reference:
//   keyword lookup / std::unordered_map of the same words   goal >= 1.0
//   page pool (a statement's small objects) / malloc+free   goal >= 2.0
//   size-class pool (16 KiB..1 MiB buffers) / malloc+free   goal >= 2.0
#include "CommonDataDef.h"
#include "TalvorBufferPool.h"
#include "TalvorKeywordParse.h"

#include "BenchRatio.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

using talvorbench::PrintRatio;
using talvorbench::RunRatioBench;
using talvorbench::Record;

namespace {

const int g_nObjectsPerStatement = 1000;
const int g_nBuffersPerRound = 64;


// Tokens as a parser meets them: keywords in any case, and identifiers.
std::vector<std::string> Tokens()
{
    std::vector<std::string> tokens;
    std::mt19937 rng(5);
    std::vector<std::string> names;
    for (LPTALVORKEYWORDDATA pRow = CTalvorKeywordParse::GetKeywordTable(); pRow->m_nKeyworkID != 0; ++pRow) {
        names.push_back(pRow->m_lpszKeyword);
    }
    for (int i = 0; i < 4096; ++i) {
        std::string s = names[rng() % names.size()];
        if (rng() % 2) {
            for (char& c : s) c = (char)tolower((unsigned char)c);
        }
        if (rng() % 3 == 0) s = "col_" + std::to_string(rng() % 100000);
        if (s.size() >= 2) tokens.push_back(s);
    }
    return tokens;
}

const std::vector<std::string>& TokenSet()
{
    static const std::vector<std::string> tokens = Tokens();
    return tokens;
}

void BM_KeywordLookup(benchmark::State& state)
{
    CTalvorKeywordParse* pParse = CTalvorKeywordParse::instance();
    const std::vector<std::string>& tokens = TokenSet();
    char szData[TALVOR_KEYWORD_MAX_TOKEN + TALVOR_KEYWORD_PAD];
    long long nSum = 0;
    auto t0 = std::chrono::steady_clock::now();
    for (auto _ : state) {
        for (const std::string& tok : tokens) nSum += pParse->GetKeyword(tok.data(), (int)tok.size(), szData, FALSE);
    }
    benchmark::DoNotOptimize(nSum);
    Record(state, "keyword", t0, tokens.size());
}

void BM_UnorderedMapLookup(benchmark::State& state)
{
    std::vector<std::string> names;
    for (LPTALVORKEYWORDDATA pRow = CTalvorKeywordParse::GetKeywordTable(); pRow->m_nKeyworkID != 0; ++pRow) {
        names.push_back(pRow->m_lpszKeyword);
    }
    std::unordered_map<std::string_view, int> table;
    for (size_t i = 0; i < names.size(); ++i) table.emplace(names[i], (int)i + 100);
    const std::vector<std::string>& tokens = TokenSet();
    char szData[TALVOR_KEYWORD_MAX_TOKEN + TALVOR_KEYWORD_PAD];
    long long nSum = 0;
    auto t0 = std::chrono::steady_clock::now();
    for (auto _ : state) {
        for (const std::string& tok : tokens) {
            // The same case folding the lookup does, so both answer the same question.
            for (size_t i = 0; i < tok.size(); ++i) {
                char c = tok[i];
                szData[i] = (c >= 'a' && c <= 'z') ? (char)(c - 32) : c;
            }
            auto it = table.find(std::string_view(szData, tok.size()));
            nSum += it == table.end() ? 1 : it->second;
        }
    }
    benchmark::DoNotOptimize(nSum);
    Record(state, "unordered_map", t0, tokens.size());
}

std::vector<UINT> ObjectSizes()
{
    std::vector<UINT> sizes;
    std::mt19937 rng(9);
    for (int i = 0; i < g_nObjectsPerStatement; ++i) sizes.push_back(8 + rng() % 249);
    return sizes;
}

// One statement: its small objects made one by one, all dropped at the end.
void BM_PagePoolStatement(benchmark::State& state)
{
    std::vector<UINT> sizes = ObjectSizes();
    CTalvorBufferPoolEx pool;
    pool.SetPoolPageSize(16384);
    auto t0 = std::chrono::steady_clock::now();
    for (auto _ : state) {
        for (UINT n : sizes) {
            LPBYTE p = pool.AllocBuffer(n);
            p[0] = 1;
            benchmark::DoNotOptimize(p);
        }
        pool.ResetBuffer();
    }
    Record(state, "page_pool", t0, sizes.size());
}

void BM_MallocStatement(benchmark::State& state)
{
    std::vector<UINT> sizes = ObjectSizes();
    std::vector<void*> held(sizes.size());
    auto t0 = std::chrono::steady_clock::now();
    for (auto _ : state) {
        for (size_t i = 0; i < sizes.size(); ++i) {
            LPBYTE p = static_cast<LPBYTE>(malloc(sizes[i]));
            p[0] = 1;
            held[i] = p;
        }
        for (void* p : held) free(p);
    }
    Record(state, "malloc_small", t0, sizes.size());
}

std::vector<UINT> BufferSizes()
{
    const UINT arSizes[] = {16384, 30000, 65536, 100000, 200000, 262144, 600000, 1048576};
    std::vector<UINT> sizes;
    std::mt19937 rng(13);
    for (int i = 0; i < g_nBuffersPerRound; ++i) sizes.push_back(arSizes[rng() % 8]);
    return sizes;
}

// Buffers taken and given back one by one, as sort and join areas are.
void BM_SizeClassPool(benchmark::State& state)
{
    std::vector<UINT> sizes = BufferSizes();
    std::vector<LPBYTE> held(sizes.size());
    CTalvorMemoryPool pool;
    auto t0 = std::chrono::steady_clock::now();
    for (auto _ : state) {
        for (size_t i = 0; i < sizes.size(); ++i) {
            UINT n = sizes[i];
            held[i] = pool.Alloc(n);
            held[i][0] = 1;
        }
        for (LPBYTE p : held) pool.Free(p);
    }
    Record(state, "size_class_pool", t0, sizes.size());
}

void BM_MallocBuffers(benchmark::State& state)
{
    std::vector<UINT> sizes = BufferSizes();
    std::vector<LPBYTE> held(sizes.size());
    auto t0 = std::chrono::steady_clock::now();
    for (auto _ : state) {
        for (size_t i = 0; i < sizes.size(); ++i) {
            held[i] = static_cast<LPBYTE>(malloc(sizes[i]));
            held[i][0] = 1;
        }
        for (LPBYTE p : held) free(p);
    }
    Record(state, "malloc_buffers", t0, sizes.size());
}

BENCHMARK(BM_UnorderedMapLookup);
BENCHMARK(BM_KeywordLookup);
BENCHMARK(BM_MallocStatement);
BENCHMARK(BM_PagePoolStatement);
BENCHMARK(BM_MallocBuffers);
BENCHMARK(BM_SizeClassPool);

}  // namespace

int main(int argc, char** argv)
{
    return RunRatioBench(argc, argv, [] {
        PrintRatio("keyword lookup / unordered_map", "unordered_map", "keyword", 1.0);
        PrintRatio("page pool / malloc+free", "malloc_small", "page_pool", 2.0);
        PrintRatio("size-class pool / malloc+free", "malloc_buffers", "size_class_pool", 2.0);
    });
}
