// TextValue.cpp — the text routines of the value library next to a reference
// doing the same work in the same run. Each benchmark times both sides over
// the same inputs, alternating, and reports counter "ratio" = reference time /
// our time (1.0 is as fast, above is faster). Goals: CRC-32 against zlib
// >= 1.0, MD5 against OpenSSL >= 0.9, LIKE against SQLite's >= 1.0, the
// collation compare against memcmp >= 0.5.
#include "MD5.h"
#include "TalvorHash.h"
#include "TalvorString.h"

#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <sqlite3.h>
#include <zlib.h>

#include <chrono>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

// Runs both sides nRounds times each, interleaved so that frequency changes
// and neighbours' load hit both alike, and reports the ratio.
template <typename FnOurs, typename FnRef>
void RunPair(benchmark::State& state, int nRounds, FnOurs fnOurs, FnRef fnRef) {
    Clock::duration dOurs{}, dRef{};
    for (auto _ : state) {
        for (int i = 0; i < nRounds; ++i) {
            auto t0 = Clock::now();
            fnOurs();
            auto t1 = Clock::now();
            fnRef();
            auto t2 = Clock::now();
            dOurs += t1 - t0;
            dRef += t2 - t1;
        }
    }
    const double dO = std::chrono::duration<double>(dOurs).count();
    const double dR = std::chrono::duration<double>(dRef).count();
    state.counters["ratio"] = dO > 0 ? dR / dO : 0;
}

std::vector<BYTE> RandomBytes(size_t n) {
    std::mt19937 rng(42);
    std::vector<BYTE> v(n);
    for (auto& b : v) b = (BYTE)rng();
    return v;
}

void BM_Crc32VsZlib(benchmark::State& state) {
    const int nLen = (int)state.range(0);
    const auto data = RandomBytes((size_t)nLen);
    const int nRepeat = (1 << 20) / nLen;
    RunPair(state, 8,
            [&] { for (int i = 0; i < nRepeat; ++i) benchmark::DoNotOptimize(TalvorCRC32(data.data(), nLen)); },
            [&] { for (int i = 0; i < nRepeat; ++i) benchmark::DoNotOptimize(crc32(0, data.data(), (uInt)nLen)); });
    state.SetBytesProcessed(state.iterations() * 8 * (int64_t)nRepeat * nLen * 2);
}
BENCHMARK(BM_Crc32VsZlib)->Arg(64)->Arg(65536);

void BM_Md5VsOpenssl(benchmark::State& state) {
    const int nLen = (int)state.range(0);
    const auto data = RandomBytes((size_t)nLen);
    const int nRepeat = (1 << 20) / nLen;
    EVP_MD_CTX* pCtx = EVP_MD_CTX_new();
    RunPair(state, 4,
            [&] {
                for (int i = 0; i < nRepeat; ++i) {
                    MD5 md5;
                    md5.MD5Update(data.data(), nLen);
                    BYTE arDigest[16];
                    md5.MD5Final(arDigest);
                    benchmark::DoNotOptimize(arDigest);
                }
            },
            [&] {
                for (int i = 0; i < nRepeat; ++i) {
                    unsigned char arDigest[EVP_MAX_MD_SIZE];
                    unsigned int n = 0;
                    EVP_DigestInit_ex(pCtx, EVP_md5(), nullptr);
                    EVP_DigestUpdate(pCtx, data.data(), (size_t)nLen);
                    EVP_DigestFinal_ex(pCtx, arDigest, &n);
                    benchmark::DoNotOptimize(arDigest);
                }
            });
    EVP_MD_CTX_free(pCtx);
}
BENCHMARK(BM_Md5VsOpenssl)->Arg(64)->Arg(65536);

// A scan: one pattern over many rows of text, as the engine runs LIKE.
void BM_LikeVsSqlite(benchmark::State& state) {
    static const char* const kPatterns[] = {"%needle%", "row_%_end", "prefix%", "%a%b%c%d%"};
    const std::string strSql = kPatterns[state.range(0)];
    std::mt19937 rng(7);
    std::vector<std::string> rows;
    for (int i = 0; i < 2000; ++i) {
        std::string s = (i % 3 == 0) ? "prefix" : "row_";
        for (int n = 20 + (int)(rng() % 80); n > 0; --n) s += (char)('a' + rng() % 26);
        if (i % 5 == 0) s += "needle";
        s += (i % 2) ? "_end" : "x";
        rows.push_back(s);
    }
    std::vector<char> pat(strSql.begin(), strSql.end());
    pat.push_back(0);
    int nLen = (int)pat.size();
    StrPretreatment(pat.data(), nLen, nullptr, TRUE);
    const int nWords = TalvorLikeFixedWords(pat.data(), nLen - 1);
    int nOurs = 0, nRef = 0;
    RunPair(state, 4,
            [&] {
                for (const auto& r : rows)
                    nOurs += SubStringMatch(r.data(), (int)r.size(), pat.data(), nLen - 1, nWords, 0, TRUE, FALSE) == 0;
            },
            [&] {
                for (const auto& r : rows) nRef += sqlite3_strlike(strSql.c_str(), r.c_str(), 0) == 0;
            });
    if (nOurs != nRef) state.SkipWithError("matchers disagree");
}
BENCHMARK(BM_LikeVsSqlite)->DenseRange(0, 3);

// Equal keys compared to the end, the worst case of a sorted scan.
void BM_CompareVsMemcmp(benchmark::State& state) {
    const int nLen = (int)state.range(0);
    std::vector<std::string> keys;
    std::mt19937 rng(9);
    for (int i = 0; i < 256; ++i) {
        std::string s;
        for (int n = 0; n < nLen; ++n) s += (char)('a' + rng() % 26);
        keys.push_back(s);
    }
    std::vector<std::string> copies = keys;
    int nSum = 0;
    RunPair(state, 64,
            [&] {
                for (size_t i = 0; i < keys.size(); ++i)
                    nSum += TalvorCompare(keys[i].data(), nLen, copies[i].data(), nLen, TRUE);
            },
            [&] {
                for (size_t i = 0; i < keys.size(); ++i) {
                    int n = memcmp(keys[i].data(), copies[i].data(), (size_t)nLen);
                    benchmark::DoNotOptimize(n);
                    nSum += n;
                }
            });
    benchmark::DoNotOptimize(nSum);
}
BENCHMARK(BM_CompareVsMemcmp)->Arg(16)->Arg(64)->Arg(256);

}  // namespace

BENCHMARK_MAIN();
