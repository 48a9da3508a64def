// Numbers as text against MariaDB: bases 2, 8, 16 and CONV's 2 to 36 on
// integers at the 64-bit edges, negative ones and texts with a number at
// their head; FORMAT's rounding and grouping on integers and decimals;
// UNHEX of odd, invalid and mixed-case digits. A lost sign bit, a carry that
// does not ripple through a row of nines, or a comma one place off is a
// differing row.
//
// Deliberate differences from MariaDB: FORMAT keeps at most 30 places (a
// decimal holds 36 digits); TO_CHAR's number form, an Oracle form, is held
// against FORMAT without commas.
#include "FunReference.h"
#include "PackedValue.h"

#include <gtest/gtest.h>

using namespace talvortest;
using talvortest::Val;

namespace {

CBaseFunManager g_fun;

long long RandomNumber(std::mt19937& rng)
{
    static const long long kEdges[] = {0, 1, -1, 255, 256, -256, 2147483647LL, -2147483648LL, 4294967295LL,
                                       9223372036854775807LL, (-9223372036854775807LL - 1), 1000, 999999, -999999};
    if (rng() % 3 == 0) return kEdges[rng() % (sizeof(kEdges) / sizeof(kEdges[0]))];
    long long ll = (long long)(((unsigned long long)rng() << 32) | rng()) >> (rng() % 63);
    return rng() % 2 ? ll : -ll;
}

// A decimal literal with up to 18 digits before and 9 after the point,
// rows of nines now and then, so that rounding carries far.
std::string RandomDecimal(std::mt19937& rng)
{
    std::string s = rng() % 3 == 0 ? "-" : "";
    int nInt = 1 + (int)(rng() % 18), nFrac = 1 + (int)(rng() % 9);
    bool bNines = rng() % 4 == 0;
    for (int i = 0; i < nInt; ++i) s += bNines ? '9' : (char)('0' + (i == 0 && nInt > 1 ? 1 + rng() % 9 : rng() % 10));
    s += '.';
    for (int i = 0; i < nFrac; ++i) s += bNines ? '9' : (char)('0' + rng() % 10);
    return s;
}

FunArg RandomNumberArg(std::mt19937& rng)
{
    switch (rng() % 8) {
    case 0: return ArgNull();
    case 1: return ArgText(std::to_string(RandomNumber(rng)) + (rng() % 2 ? "abc" : ""));
    default: return ArgInt(RandomNumber(rng));
    }
}

} // namespace

// Letters: n a number (or text with one at its head), d digits as text,
// f and t bases.
TEST(FunNumberText, BasesKeepTheSignBitAndEveryDigit)
{
    const std::vector<FunRow> vRows = {
        {"BIN(?)", "n", Of1(&CBaseFunManager::Bin)},
        {"OCT(?)", "n", Of1(&CBaseFunManager::Oct)},
        // HEX of text is its bytes; of a number, the number.
        {"HEX(?)", "n", Of1(&CBaseFunManager::Hex)},
        {"CONV(?, ?, ?)", "dft", Of3(&CBaseFunManager::Conv)},
        {"CONV(?, ?, ?)", "nTt", Of3(&CBaseFunManager::Conv)}};
    std::mt19937 rng(31);
    FunBatch batch;
    for (int i = 0; i < 300; ++i) {
        FunArg n = RandomNumberArg(rng);
        static const int kBases[] = {2, 8, 10, 16, 36, -2, -10, -16, -36, 1, 37, 0};
        FunArg from = ArgInt(kBases[rng() % 12]), to = ArgInt(kBases[rng() % 12]);
        if (rng() % 12 == 0) (rng() % 2 ? from : to) = ArgNull();
        FunArg digits = rng() % 10 == 0 ? ArgNull() : ArgText(rng() % 2 ? "-1aZ" : (rng() % 2 ? "ff" : "777"));
        AddRows(batch, vRows, [&](char c) {
            return c == 'n' ? n : c == 'd' ? digits : c == 'f' ? from : c == 't' ? to : ArgInt(10);
        });
    }
    batch.Check();
}

TEST(FunNumberText, UnhexTakesPairsAndRefusesOtherCharacters)
{
    std::mt19937 rng(32);
    FunBatch batch;
    static const char* kDigits[] = {"0", "9", "a", "F", "f", "A", "g", " ", "00", "ff", "7E"};
    for (int i = 0; i < 200; ++i) {
        std::string s;
        for (int k = (int)(rng() % 7); k > 0; --k) s += kDigits[rng() % 11];
        FunArg a = rng() % 12 == 0 ? ArgNull() : ArgText(s);
        batch.Add("HEX(UNHEX(?))", {a}, [](Pool* pool, Args& v, VARDATA& r) {
            VARDATA b;
            b.Init();
            int n = g_fun.UnHex(pool, v[0], b);
            return n != 0 ? n : g_fun.Hex(pool, b, r);
        });
    }
    batch.Check();
}

TEST(FunNumberText, FormatRoundsHalfAwayAndGroupsByThree)
{
    std::mt19937 rng(33);
    FunBatch batch;
    for (int i = 0; i < 300; ++i) {
        FunArg x = rng() % 2 ? ArgDec(RandomDecimal(rng)) : ArgInt(RandomNumber(rng));
        if (rng() % 12 == 0) x = ArgNull();
        FunArg d = rng() % 12 == 0 ? ArgNull() : ArgInt((long long)(rng() % 14) - 2);
        batch.Add("FORMAT(?, ?)", {x, d}, Of2(&CBaseFunManager::Format));
    }
    batch.Check();
}

// Doubles: FORMAT scales the binary value and rounds ties to even (as the
// SQL functions round a double); HEX rounds to an integer, BIN and OCT cut.
TEST(FunNumberText, DoublesRoundScaledWithTiesToEven)
{
    std::mt19937 rng(35);
    FunBatch batch;
    for (int i = 0; i < 200; ++i) {
        std::string s = std::to_string((long long)(rng() % 2000000) - 1000000) + "." + std::to_string(rng() % 1000);
        FunArg x = ArgDouble(s), d = ArgInt((long long)(rng() % 8));
        batch.Add("FORMAT(?, ?)", {x, d}, Of2(&CBaseFunManager::Format));
        batch.Add("HEX(?)", {x}, Of1(&CBaseFunManager::Hex));
        batch.Add("BIN(?)", {x}, Of1(&CBaseFunManager::Bin));
        batch.Add("OCT(?)", {x}, Of1(&CBaseFunManager::Oct));
    }
    batch.Check();
}

// TO_CHAR's number form: places by the format, no groups; the reference
// is FORMAT with its commas taken out.
TEST(FunNumberText, NumberToCharTakesItsPlacesFromTheFormat)
{
    std::mt19937 rng(34);
    FunBatch batch;
    static const char* kFormats[] = {"999", "990.99", "9D9", "0.0000", ".9", "99999.999999"};
    static const int kPlaces[] = {0, 2, 1, 4, 1, 6};
    for (int i = 0; i < 120; ++i) {
        int k = (int)(rng() % 6);
        FunArg x = ArgDec(RandomDecimal(rng));
        std::string strExpr = "REPLACE(FORMAT(?, " + std::to_string(kPlaces[k]) + "), ',', '')";
        const char* lpszFormat = kFormats[k];
        batch.Add(strExpr, {x}, [lpszFormat](Pool* pool, Args& v, VARDATA& r) {
            return g_fun.NumberToChar(pool, v[0], lpszFormat, r);
        });
    }
    batch.Check();

    CTalvorBufferPool pool;
    VARDATA x, r;
    x.Init();
    r.Init();
    x.SetData(1.25);
    ASSERT_EQ(g_fun.NumberToChar(&pool, x, "9.9.9", r), 0);
    EXPECT_EQ(Val(r.m_vt), TALVOR_VT_NULL) << "a second point names no format";
    ASSERT_EQ(g_fun.NumberToChar(&pool, x, "9,9", r), 0);
    EXPECT_EQ(Val(r.m_vt), TALVOR_VT_NULL);
    EXPECT_TRUE(CBaseFunManager::IsNumberFormat("09D9", 4));
    EXPECT_FALSE(CBaseFunManager::IsNumberFormat("YYYY", 4));
    EXPECT_FALSE(CBaseFunManager::IsNumberFormat("", 0));
}
