// Types and system functions, then the choosing and the math families.
// CONVERT(x USING set) is NULL, not '?', for a character the set lacks.
#include "FunReference.h"

#include <climits>

using namespace talvortest;
using talvortest::Val;
using F = CBaseFunManager;

namespace {

CBaseFunManager g_fun;

} // namespace

// The choosing functions against MariaDB: NULL picked or passed over at
// every place, conditions of every kind, CASE with and without a value and
// with and without ELSE, GREATEST over integers at the 64-bit edges,
// decimals and texts. A value copied from the wrong argument, or a NULL that
// does not spread through GREATEST, is a differing row.
//
// Deliberate differences from MariaDB (ours first, then why):
// - IF(c, 1, 2.50) picking 1 gives 1, not 1.00: the plan types the result;
// - text against text folds ASCII only, then compares bytes (the engine's order).
// Each call below takes values of one kind, whose order the reference shares
// (texts without capitals, compared binary on the server).
TEST(FunChoice, NullsConditionsAndCaseBranchesPickTheRightArgument)
{
    auto CaseOf = [](BOOL bValue) -> FunCall {
        return [bValue](Pool* pool, Args& v, VARDATA& r) { return g_fun.CaseWhen(pool, (int)v.size(), v.data(), bValue, r); };
    };
    const std::vector<FunRow> vRows = {
        {"IFNULL(?, ?)", "ab", Of2(&F::IfNull)}, {"NVL2(?, ?, ?)", "abc", Of3(&F::Nvl2)},
        {"NULLIF(?, ?)", "ab", Of2(&F::NullIf)}, {"COALESCE(?, ?, ?)", "abc", OfN(&F::Coalesce)},
        {"GREATEST(?, ?, ?)", "abc", OfN(&F::Greatest)}, {"LEAST(?, ?, ?)", "abc", OfN(&F::Least)},
        {"IF(?, ?, ?)", "dab", Of3(&F::If)}, {"CASE WHEN ? THEN ? WHEN ? THEN ? END", "daeb", CaseOf(FALSE)},
        {"CASE ? WHEN ? THEN ? WHEN ? THEN ? ELSE ? END", "abcfgh", CaseOf(TRUE)}};
    static const FunArg kValues[3][5] = {
        {ArgInt(0), ArgInt(-1), ArgInt(42), ArgInt(LLONG_MAX), ArgInt(LLONG_MIN)},
        {ArgDec("0.00"), ArgDec("1.50"), ArgDec("-1.50"), ArgDec("99.99"), ArgDec("-0.01")},
        {ArgTextBin(""), ArgTextBin("a"), ArgTextBin("ab"), ArgTextBin("b "), ArgTextBin("\xc3\xa9")}};
    static const FunArg kConditions[] = {ArgNull(), ArgInt(-1), ArgInt(0), ArgDec("0.00"), ArgDec("0.01"),
                                         ArgText("0"), ArgText("abc"), ArgText(""), ArgText("2.5")};
    std::mt19937 rng(41);
    FunBatch batch;
    for (int i = 0; i < 600; ++i) {
        const FunArg* pKind = kValues[rng() % 3];
        AddRows(batch, vRows, {{'d', kConditions[rng() % 9]}, {'e', kConditions[rng() % 9]}},
                [&] { return rng() % 5 == 0 ? ArgNull() : pKind[rng() % 5]; });
    }
    batch.Check();
}

// The rounding family against Debian's MariaDB on generated arguments: a
// wrong rounding direction, a lost digit of a decimal, a bad sign of a
// remainder, or a logarithm of a bad base that gives a number instead of
// NULL shows up here as a differing row.
//
// Deliberate differences from the server (ours first, then why):
// - ROUND(5678, -5) is 10000: the count is cut to the number's digits first;
// - TRUNCATE(-9223372036854775807, -19) is 0 where the server wraps past 2^64;
// - ROUND(1.5, 3) is 1.5: a decimal is not widened by a longer count;
// - ASIN and ACOS forgive 1e-6 past 1; COT(0) is NULL with the range code;
// - ROUND(date, 'MM') and TRUNC are Oracle's forms.
TEST(FunMath, RoundingSignsRemaindersAndLogarithmsMatchTheServer)
{
    std::mt19937_64 rng(1009);
    std::vector<long long> vInts = {0, -1, 5, -5, 15, -1234, 1500, 2500, 999999, LLONG_MAX, LLONG_MIN + 1};
    std::vector<std::string> vDecimals = {"0.5", "-0.5", "1.5", "2.5", "-2.5", "0.0049", "123.455", "-123.455", "99.995", "0.000001"};
    std::vector<double> vDoubles = {0.0, 0.5, -0.5, 2.5, -2.5, 0.1, 1e-300, 1e300, -1e300, 1.5e19, 123456.789};
    std::uniform_real_distribution<double> dist(-1000.0, 1000.0);
    for (int i = 0; i < 40; ++i) {
        long long x = (long long)(rng() % 2000000000000ULL) - 1000000000000LL;
        vInts.push_back(i % 2 ? x : x / 1000003);
        char sz[64];
        snprintf(sz, sizeof(sz), "%lld.%06llu", x / 200000, (unsigned long long)(rng() % 1000000));
        vDecimals.push_back(sz);
        vDoubles.push_back(i % 4 ? dist(rng) : dist(rng) * 1e9);
    }
    FunBatch b;
    const std::pair<std::string, Fun1> arUnary[] = {{"ABS", F::Abs}, {"SIGN", F::Sign}, {"CEIL", F::Ceil},
                                                     {"FLOOR", F::Floor}, {"ROUND", F::Round}, {"BIT_COUNT", F::Bit_Count}};
    // The unary members, then ROUND and TRUNCATE by counts nFrom to nTo.
    auto AddRounding = [&](const FunArg& x, int nFrom, int nTo) {
        for (const auto& f : arUnary) b.Add(f.first + "(?)", {x}, Of1(f.second), SAME_NUMBER);
        for (int d = nFrom; d <= nTo; ++d) {
            b.Add("ROUND(?, ?)", {x, ArgInt(d)}, Of2(F::Round), SAME_NUMBER);
            if (d != -19) b.Add("TRUNCATE(?, ?)", {x, ArgInt(d)}, Of2(F::Trunc), SAME_NUMBER);  // the server wraps there (above)
        }
    };
    // Counts past an integer's digits round differently by design (above).
    for (long long x : vInts) AddRounding(ArgInt(x), -(int)(std::to_string(x).size() - (x < 0)), 2);
    // Text with a point stands for a double on both sides.
    for (const std::string& s : vDecimals) {
        AddRounding(ArgDec(s), -3, 6);
        for (int d = -3; d <= 6; ++d) b.Add("ROUND(?, ?)", {ArgText(s), ArgInt(d)}, Of2(F::Round), SAME_NUMBER);
        b.Add("BIT_COUNT(?)", {ArgText(s)}, Of1(F::Bit_Count), SAME_NUMBER);
    }
    for (double x : vDoubles) AddRounding(ArgDouble(x), -4, 4);
    // NULL in is NULL out, written over the slot a plan reuses.
    AddRounding(ArgNull(), 0, 0);
    const std::pair<std::string, Fun2> arBinary[] = {{"ROUND", F::Round}, {"TRUNCATE", F::Trunc}, {"MOD", F::Mod}, {"LOG", F::Log}};
    for (const auto& f : arBinary)
        for (int nNull : {0, 1}) b.Add(f.first + "(?, ?)", {nNull ? ArgNull() : ArgInt(2), nNull ? ArgInt(2) : ArgNull()}, Of2(f.second), SAME_NUMBER);
    // Text that is not a plain decimal: BIT_COUNT rounds a fraction, cuts nothing else.
    for (const char* lpText : {"1e3", "2.5e0", " 7.5x", ".5", "-.5", "7x", "-7", "-99999999999999999999", "18446744073709551615", "1.5e19", "abc"})
        b.Add("BIT_COUNT(?)", {ArgText(lpText)}, Of1(F::Bit_Count), SAME_NUMBER);
    for (long long x : vInts)
        for (long long y : {0, 1, -1, 3, -7, 1000}) b.Add("MOD(?, ?)", {ArgInt(x), ArgInt(y)}, Of2(F::Mod), SAME_NUMBER);
    for (const std::string& s : vDecimals) b.Add("MOD(?, ?)", {ArgDec(s), ArgDec("0.7")}, Of2(F::Mod), SAME_NUMBER);
    for (double d : {4.0, 0.25, -2.0, 0.0, 1e-5})
        for (double dBase : {2.0, 0.5, 1.0, -2.0, 0.0}) b.Add("LOG(?, ?)", {ArgDouble(dBase), ArgDouble(d)}, Of2(F::Log), SAME_NUMBER);
    // The server shows six places of pi; the value is the double.
    b.Add("PI() + 0e0", {}, [](Pool* p, Args&, VARDATA& r) { return F::Pi(p, r); }, SAME_NUMBER);
    b.Check();
}

// The library's own forms: its integer rounding past the digits,
// Oracle's rounding of dates by a unit, and the range codes of the angles.
TEST(FunMath, OwnRulesRoundDatesByUnitAndRefuseWhatTheyMust)
{
    CTalvorBufferPool pool;
    VARDATA r = Null();
    // Counts within the digits, and a round up past the largest integer,
    // are held against the server; past the digits the count is cut first.
    EXPECT_SHOWN(F::Round(5678, -5, r), r, "10000");
    EXPECT_SHOWN(F::Round(LLONG_MIN, -19, r), r, "-10000000000000000000");

    // Every unit is in the date library's own test; here the member on a
    // date and on text. Without a unit a date rounds to its day. Text that
    // is no date, or a count that is no unit, is rounded as a number: a
    // decimal text half away from zero.
    VARDATA vUnit = Text(pool, "MM"), vText = Text(pool, "2021-03-16 10:00:00"), vNumberText = Text(pool, "15");
    VARDATA vNoUnit = Text(pool, "-1"), vDateText = Text(pool, "2021-03-16"), vBadUnit = Text(pool, "XX");
    EXPECT_SHOWN(F::Trunc(&pool, vText, vUnit, r), r, "2021-03-01 00:00:00");
    EXPECT_SHOWN(F::Round(&pool, vNumberText, vNoUnit, r), r, "20");
    EXPECT_SHOWN(F::Round(&pool, vDateText, vBadUnit, r), r, "NULL");

    VARDATA vZero = Int(0), vTooFar = Dbl(1.00001);
    EXPECT_TRUE(F::MathFuntion(&pool, vZero, r, 25) == TALVOR_FUN_OUT_OF_RANGE && r.m_vt == TALVOR_VT_NULL);
    EXPECT_SHOWN(F::MathFuntion(&pool, vTooFar, r, 23), r, "NULL");
}

