// DecimalDate.cpp — decimals and dates against references in the same run.
// Ratios printed at the end are reference time / our time (above 1.0 is
// faster than the reference):
//   decimal add, multiply, divide / GCC's _Decimal128        goal >= 1.0
//   decimal parse / strtod of the same texts                  goal >= 1.0
//   date parse / strptime + timegm                            goal >= 1.0
//   date format (token walk and fixed form) / gmtime_r + strftime  goal >= 1.0
#include "TalvorDate.h"
#include "TalvorDecimal.h"

#include "BenchRatio.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <random>
#include <string>
#include <vector>

// GCC's 128-bit decimal float (IEEE 754 BID, the libgcc routines); C++ has
// no keyword for it, only the machine mode.
typedef float _Decimal128 __attribute__((mode(TD)));

using talvorbench::PrintRatio;
using talvorbench::RunRatioBench;
using talvorbench::Record;

namespace {

const int g_nValues = 1024;

// Texts of money-like and scientific values: up to 18 digits, 0 to 6 places.
const std::vector<std::string>& Texts()
{
    static std::vector<std::string> v;
    if (!v.empty()) return v;
    std::mt19937_64 rng(9);
    for (int i = 0; i < g_nValues; ++i) {
        long long nInt = (long long)(rng() % 1000000000ULL) + 1;
        int nPlaces = (int)(rng() % 7);
        std::string s = (i % 3 == 0 ? "-" : "") + std::to_string(nInt);
        if (nPlaces > 0) {
            std::string f = std::to_string(rng() % 1000000ULL + 1000000ULL).substr(1, nPlaces);
            s += "." + f;
        }
        v.push_back(s);
    }
    return v;
}

const std::vector<st_VARDATA>& Decimals()
{
    static std::vector<st_VARDATA> v;
    if (!v.empty()) return v;
    for (const std::string& s : Texts()) {
        st_VARDATA d;
        CTalvorDecimal::Convert2Decimal(s.c_str(), &d);
        v.push_back(d);
    }
    return v;
}

const std::vector<_Decimal128>& Decimal128s()
{
    static std::vector<_Decimal128> v;
    if (!v.empty()) return v;
    // Built from the same digits, so both sides hold the same values.
    for (const std::string& s : Texts()) {
        const char* p = s.c_str();
        bool bNeg = *p == '-';
        if (bNeg) ++p;
        _Decimal128 d = 0, scale = 1;
        bool bFrac = false;
        for (; *p; ++p) {
            if (*p == '.') {
                bFrac = true;
                continue;
            }
            d = d * 10 + (*p - '0');
            if (bFrac) scale *= 10;
        }
        v.push_back((bNeg ? -d : d) / scale);
    }
    return v;
}

template <typename Op>
void RunDecimal(benchmark::State& state, const char* lpszName, Op op)
{
    const std::vector<st_VARDATA>& v = Decimals();
    st_VARDATA c;
    auto t0 = std::chrono::steady_clock::now();
    for (auto _ : state) {
        for (int i = 0; i + 1 < g_nValues; ++i) {
            op(&v[i], &v[i + 1], &c);
            benchmark::DoNotOptimize(c);
        }
    }
    Record(state, lpszName, t0, g_nValues - 1);
}

template <typename Op>
void RunDecimal128(benchmark::State& state, const char* lpszName, Op op)
{
    const std::vector<_Decimal128>& v = Decimal128s();
    auto t0 = std::chrono::steady_clock::now();
    for (auto _ : state) {
        for (int i = 0; i + 1 < g_nValues; ++i) {
            _Decimal128 c = op(v[i], v[i + 1]);
            benchmark::DoNotOptimize(c);
        }
    }
    Record(state, lpszName, t0, g_nValues - 1);
}

void BM_DecimalAdd(benchmark::State& s) { RunDecimal(s, "add", [](const st_VARDATA* a, const st_VARDATA* b, st_VARDATA* c) { CTalvorDecimal::Add(a, b, c); }); }
void BM_DecimalMul(benchmark::State& s) { RunDecimal(s, "mul", [](const st_VARDATA* a, const st_VARDATA* b, st_VARDATA* c) { CTalvorDecimal::Mul(a, b, c); }); }
void BM_DecimalDiv(benchmark::State& s) { RunDecimal(s, "div", [](const st_VARDATA* a, const st_VARDATA* b, st_VARDATA* c) { CTalvorDecimal::Div(a, b, c); }); }
void BM_D128Add(benchmark::State& s) { RunDecimal128(s, "d128_add", [](_Decimal128 a, _Decimal128 b) { return a + b; }); }
void BM_D128Mul(benchmark::State& s) { RunDecimal128(s, "d128_mul", [](_Decimal128 a, _Decimal128 b) { return a * b; }); }
void BM_D128Div(benchmark::State& s) { RunDecimal128(s, "d128_div", [](_Decimal128 a, _Decimal128 b) { return a / b; }); }

void BM_DecimalParse(benchmark::State& state)
{
    const std::vector<std::string>& v = Texts();
    st_VARDATA d;
    auto t0 = std::chrono::steady_clock::now();
    for (auto _ : state) {
        for (const std::string& s : v) {
            CTalvorDecimal::Convert2Decimal(s.c_str(), (int)s.size(), &d);
            benchmark::DoNotOptimize(d);
        }
    }
    Record(state, "parse", t0, v.size());
}

void BM_StrtodParse(benchmark::State& state)
{
    const std::vector<std::string>& v = Texts();
    auto t0 = std::chrono::steady_clock::now();
    for (auto _ : state) {
        for (const std::string& s : v) {
            double d = strtod(s.c_str(), nullptr);
            benchmark::DoNotOptimize(d);
        }
    }
    Record(state, "strtod", t0, v.size());
}

const std::vector<std::string>& DateTexts()
{
    static std::vector<std::string> v;
    if (!v.empty()) return v;
    std::mt19937 rng(4);
    char sz[32];
    for (int i = 0; i < g_nValues; ++i) {
        snprintf(sz, sizeof(sz), "%04d-%02d-%02d %02d:%02d:%02d", 1900 + (int)(rng() % 200), 1 + (int)(rng() % 12),
                 1 + (int)(rng() % 28), (int)(rng() % 24), (int)(rng() % 60), (int)(rng() % 60));
        v.push_back(sz);
    }
    return v;
}

void BM_DateParse(benchmark::State& state)
{
    const std::vector<std::string>& v = DateTexts();
    CTalvorDate parser;
    DATE d;
    auto t0 = std::chrono::steady_clock::now();
    for (auto _ : state) {
        for (const std::string& s : v) {
            parser.ParseDate(s.c_str(), (int)s.size(), d);
            benchmark::DoNotOptimize(d);
        }
    }
    Record(state, "date_parse", t0, v.size());
}

void BM_StrptimeParse(benchmark::State& state)
{
    const std::vector<std::string>& v = DateTexts();
    auto t0 = std::chrono::steady_clock::now();
    for (auto _ : state) {
        for (const std::string& s : v) {
            struct tm t = {};
            strptime(s.c_str(), "%Y-%m-%d %H:%M:%S", &t);
            time_t tt = timegm(&t);
            benchmark::DoNotOptimize(tt);
        }
    }
    Record(state, "strptime", t0, v.size());
}

std::vector<DATE> Dates()
{
    std::vector<DATE> v;
    CTalvorDate parser;
    for (const std::string& s : DateTexts()) {
        DATE d = 0;
        parser.ParseDate(s.c_str(), (int)s.size(), d);
        v.push_back(d);
    }
    return v;
}

void BM_DateFormat(benchmark::State& state)
{
    std::vector<DATE> v = Dates();
    CTalvorBufferPool pool;
    VARDATA r;
    auto t0 = std::chrono::steady_clock::now();
    for (auto _ : state) {
        for (DATE& d : v) {
            CTalvorDate::Format(&pool, d, "%Y-%m-%d %H:%i:%s", r);
            benchmark::DoNotOptimize(r);
        }
        pool.ResetBuffer();
    }
    Record(state, "date_format", t0, v.size());
}

void BM_DateFormatFixed(benchmark::State& state)
{
    std::vector<DATE> v = Dates();
    char sz[40];
    auto t0 = std::chrono::steady_clock::now();
    for (auto _ : state) {
        for (DATE d : v) {
            CTalvorDate::FormatDateTime(d, sz, 0);
            benchmark::DoNotOptimize(sz);
        }
    }
    Record(state, "date_fixed", t0, v.size());
}

void BM_StrftimeFormat(benchmark::State& state)
{
    std::vector<time_t> v;
    for (DATE d : Dates()) v.push_back((time_t)((d - TALVOR_DATE_UNIX_EPOCH) * 86400.0));
    char sz[40];
    auto t0 = std::chrono::steady_clock::now();
    for (auto _ : state) {
        for (time_t t : v) {
            struct tm tmv;
            gmtime_r(&t, &tmv);
            strftime(sz, sizeof(sz), "%Y-%m-%d %H:%M:%S", &tmv);
            benchmark::DoNotOptimize(sz);
        }
    }
    Record(state, "strftime", t0, v.size());
}

BENCHMARK(BM_DecimalAdd);
BENCHMARK(BM_D128Add);
BENCHMARK(BM_DecimalMul);
BENCHMARK(BM_D128Mul);
BENCHMARK(BM_DecimalDiv);
BENCHMARK(BM_D128Div);
BENCHMARK(BM_DecimalParse);
BENCHMARK(BM_StrtodParse);
BENCHMARK(BM_DateParse);
BENCHMARK(BM_StrptimeParse);
BENCHMARK(BM_DateFormat);
BENCHMARK(BM_DateFormatFixed);
BENCHMARK(BM_StrftimeFormat);

}  // namespace

int main(int argc, char** argv)
{
    return RunRatioBench(argc, argv, [] {
        PrintRatio("decimal add / _Decimal128", "d128_add", "add", 1.0);
        PrintRatio("decimal multiply / _Decimal128", "d128_mul", "mul", 1.0);
        PrintRatio("decimal divide / _Decimal128", "d128_div", "div", 1.0);
        PrintRatio("decimal parse / strtod", "strtod", "parse", 1.0);
        PrintRatio("date parse / strptime+timegm", "strptime", "date_parse", 1.0);
        PrintRatio("date format / gmtime_r+strftime", "strftime", "date_format", 1.0);
        PrintRatio("fixed date form / gmtime_r+strftime", "strftime", "date_fixed", 1.0);
    });
}
