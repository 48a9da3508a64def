// The choosing functions against MariaDB: NULL picked or passed over at
// every place, conditions of every kind, CASE with and without a value and
// with and without ELSE, GREATEST and LEAST over integers at the 64-bit
// edges, decimals and texts. A value copied from the wrong argument, or a
// NULL that does not spread through GREATEST, is a differing row.
//
// Deliberate differences from MariaDB (ours first, then why):
// - IF(c, 1, 2.50) picking 1 gives 1, not 1.00: the plan types the result;
// - text against text folds ASCII only, then compares bytes (the engine's order);
// - GREATEST('10', 9) is '9' by text order: text is the widest type.
// Cases below keep one kind per call, the kinds the reference agrees on.
#include "FunReference.h"
#include "PackedValue.h"

#include <gtest/gtest.h>

using namespace talvortest;
using talvortest::Val;

namespace {

CBaseFunManager g_fun;

enum Kind { kInts, kDecimals, kTexts };

FunArg RandomOf(std::mt19937& rng, Kind k)
{
    if (rng() % 5 == 0) return ArgNull();
    static const long long kIntValues[] = {0, 1, -1, 7, 42, -42, 9223372036854775807LL, (-9223372036854775807LL - 1)};
    static const char* kDecs[] = {"0.00", "1.50", "-1.50", "2.25", "99.99", "-0.01", "1.00"};
    static const char* kTexts[] = {"", "a", "b", "ab", "abc", "b ", "\xc3\xa9", "x,y", "0"};
    switch (k) {
    case kInts: return ArgInt(kIntValues[rng() % 8]);
    case kDecimals: return ArgDec(kDecs[rng() % 7]);
    // Binary collation on the server: its order is ours for these texts,
    // which have no capitals.
    default: return ArgTextBin(kTexts[rng() % 9]);
    }
}

FunArg RandomCondition(std::mt19937& rng)
{
    switch (rng() % 5) {
    case 0: return ArgNull();
    case 1: return ArgInt((long long)(rng() % 3) - 1);
    case 2: return ArgDec(rng() % 2 ? "0.00" : "0.01");
    default: {
        static const char* kTexts[] = {"0", "1", "abc", "", "0.0", "2.5"};
        return ArgText(kTexts[rng() % 6]);
    }
    }
}

FunCall CaseOf(BOOL bValue)
{
    return [bValue](Pool* pool, Args& v, VARDATA& r) {
        return g_fun.CaseWhen(pool, (int)v.size(), v.data(), bValue, r);
    };
}

} // namespace

// Letters: a, b, c values of one kind, d a condition, e a second one;
// k a key and w, x what it is held against, of the key's kind.
TEST(FunChoice, NullsConditionsAndCaseBranchesPickTheRightArgument)
{
    const std::vector<FunRow> vRows = {
        {"IFNULL(?, ?)", "ab", Of2(&CBaseFunManager::IfNull)},
        {"NVL(?, ?)", "ab", Of2(&CBaseFunManager::Nvl)},
        {"NVL2(?, ?, ?)", "abc", Of3(&CBaseFunManager::Nvl2)},
        {"NULLIF(?, ?)", "ab", Of2(&CBaseFunManager::NullIf)},
        {"ISNULL(?)", "a", Of1(&CBaseFunManager::IsNull)},
        {"COALESCE(?, ?, ?)", "abc", OfN(&CBaseFunManager::Coalesce)},
        {"GREATEST(?, ?, ?)", "abc", OfN(&CBaseFunManager::Greatest)},
        {"LEAST(?, ?, ?)", "abc", OfN(&CBaseFunManager::Least)},
        {"IF(?, ?, ?)", "dab", Of3(&CBaseFunManager::If)},
        {"CASE WHEN ? THEN ? WHEN ? THEN ? END", "daeb", CaseOf(FALSE)},
        {"CASE WHEN ? THEN ? ELSE ? END", "dab", CaseOf(FALSE)},
        {"CASE ? WHEN ? THEN ? WHEN ? THEN ? ELSE ? END", "kwaxbc", CaseOf(TRUE)}};
    std::mt19937 rng(41);
    FunBatch batch;
    for (int i = 0; i < 600; ++i) {
        Kind k = (Kind)(rng() % 3);
        Kind kKey = k == kTexts ? kTexts : kInts;
        FunArg a = RandomOf(rng, k), b = RandomOf(rng, k), c = RandomOf(rng, k), d = RandomCondition(rng);
        FunArg key = RandomOf(rng, kKey), w = RandomOf(rng, kKey), x = RandomOf(rng, kKey);
        AddRows(batch, vRows, [&](char l) {
            switch (l) {
            case 'a': return a;
            case 'b': return b;
            case 'c': return c;
            case 'd': return d;
            case 'k': return key;
            case 'w': return w;
            case 'x': return x;
            default: return RandomCondition(rng);
            }
        });
    }
    batch.Check();
}

// Integers and decimals meet in the decimal: the picked value keeps its
// worth whichever side it came from.
TEST(FunChoice, GreatestOfAnIntegerAndADecimalComparesTheirValues)
{
    CBaseFunManager fun;
    CTalvorBufferPool pool;
    VARDATA v[2], r;
    v[0].Init();
    v[1].Init();
    r.Init();
    v[0].SetData(3);
    CTalvorDecimal::Convert2Decimal("2.5", &v[1]);
    ASSERT_EQ(fun.Greatest(&pool, 2, v, r), 0);
    EXPECT_EQ(Val(r.m_vt), TALVOR_VT_DECIMAL);
    EXPECT_EQ(CTalvorDecimal::Convert2Int(&r, TRUE), 3);
    ASSERT_EQ(fun.Least(&pool, 2, v, r), 0);
    EXPECT_DOUBLE_EQ(CTalvorDecimal::Convert2Double(&r), 2.5);
    v[1].SetNull();
    ASSERT_EQ(fun.Greatest(&pool, 2, v, r), 0);
    EXPECT_EQ(Val(r.m_vt), TALVOR_VT_NULL);
}
