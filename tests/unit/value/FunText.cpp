// The text functions against MariaDB on generated arguments: ASCII and UTF-8
// texts with separators, counts that are zero, negative, past the text and
// at the 32- and 64-bit edges, and NULLs. A wrong character offset, a lost
// byte at a seam, or a NULL that does not spread shows up as a differing row.
//
// Deliberate differences from MariaDB (ours first, then why):
// - a result above 0x100000 bytes is NULL: every growing result is bounded first;
// - compares and searches fold ASCII only (the server side is folded by LOWER);
// - a SUBSTRING_INDEX count outside 32 bits is taken whole, not wrapped;
// - REPLACE(s, '', NULL) is NULL: NULL in gives NULL out;
// - LOCATE('', s, pos > 1) gives the character position, not a byte offset;
// - a double as text has the "%f" form, so the numbers below are no doubles.
#include "FunReference.h"

#include <algorithm>
#include <climits>

using namespace talvortest;
using talvortest::Val;

namespace {

CBaseFunManager g_fun;

// The server's side of a compare: letters folded, then compared binary,
// the order our compares use for the texts generated here.
#define FOLD "LOWER(?) COLLATE utf8mb4_bin"

// Cases where MariaDB answers otherwise by design (the table above).
bool Deliberate(const std::string& strSql)
{
    auto has = [&](const char* lpsz) { return strSql.find(lpsz) != std::string::npos; };
    if (strSql.rfind("SUBSTRING_INDEX(", 0) == 0) return has("4294967296") || has("922337203685477580");
    if (strSql.rfind("REPLACE(", 0) == 0) return has("X'' USING utf8mb4), NULL");
    if (strSql.rfind("LOCATE(LOWER(CONVERT(X'' ", 0) == 0) return std::count(strSql.begin(), strSql.end(), ',') >= 2;
    return false;
}

// The pieces of separators that SUBSTRING_INDEX, REPLACE and LOCATE look for.
FunArg RandomNeedle(std::mt19937& rng)
{
    static const char* kNeedles[] = {",", ".", "a", "ab", "b", " ", "", "\xe4\xb8\xad", ",,", "Z", "zz"};
    return rng() % 15 == 0 ? ArgNull() : ArgText(kNeedles[rng() % 11]);
}

} // namespace

// Tables of members by the letters of their arguments: s a text (now and
// then a number, taken by its text form), p and n counts, e a separator
// (drawn afresh at each place), t and u other texts, k a small count.
FunCall TrimOf(int nWhere) { return [nWhere](Pool* p, Args& v, VARDATA& r) { return g_fun.Trim(p, v[1], v[0], nWhere, r); }; }
FunCall PadOf(BOOL bLeft) { return [bLeft](Pool* p, Args& v, VARDATA& r) { return g_fun.LRPad(p, v[0], v[1], v[2], bLeft, r); }; }
FunCall OrdOf(BOOL bOrd) { return [bOrd](Pool* p, Args& v, VARDATA& r) { return g_fun.AsciiOrd(p, v[0], bOrd, r); }; }

TEST(FunText, CutsAndSlicesCountCharactersLikeTheReference)
{
    const std::vector<FunRow> vRows = {
        {"SUBSTRING(?, ?)", "sp", Of2(&CBaseFunManager::SubString)},
        {"SUBSTRING(?, ?, ?)", "spn", Of3(&CBaseFunManager::SubString)},
        {"LEFT(?, ?)", "sn", Of2(&CBaseFunManager::Left)},
        {"RIGHT(?, ?)", "sn", Of2(&CBaseFunManager::Right)},
        {"SUBSTRING_INDEX(?, ?, ?)", "sen", Of3(&CBaseFunManager::SubString_Index)},
        {"INSERT(?, ?, ?, ?)", "spnt", Of4(&CBaseFunManager::Insert)},
        {"REVERSE(?)", "s", Of1(&CBaseFunManager::Reverse)},
        {"CHAR_LENGTH(?)", "s", Of1(&CBaseFunManager::CharLength)},
        {"ORD(?)", "s", OrdOf(TRUE)}};
    std::mt19937 rng(22);
    FunBatch batch;
    for (int i = 0; i < 250; ++i) {
        // Binary text counts bytes, not characters: a UTF-8 character cut in two is the right answer there.
        FunArg s = rng() % 6 == 0 ? ArgInt(RandomCount(rng)) : rng() % 5 == 0 ? ArgBin(RandomText(rng)) : RandomTextArg(rng);
        FunArg p = RandomCountArg(rng), n = RandomCountArg(rng);
        // A double count rounds, ties to even.
        static const char* kHalves[] = {"1.5", "2.5", "-1.5", "0.4", "2.6"};
        if (rng() % 6 == 0) n = ArgDouble(kHalves[rng() % 5]);
        // A text count reads the number at its head.
        static const char* kTextCounts[] = {"2x", "2.7", " 3", "-1.5", "1e1", "abc", "0x3", "2.5"};
        if (rng() % 6 == 0) n = ArgText(kTextCounts[rng() % 8]);
        AddRows(batch, vRows, {{'s', s}, {'p', p}, {'n', n}, {'e', RandomNeedle(rng)}, {'t', RandomTextArg(rng)}});
    }
    batch.Check(Deliberate);
}

TEST(FunText, JoinsRepeatsAndPadsKeepEveryByte)
{
    const std::vector<FunRow> vRows = {
        {"CONCAT(?, ?, ?)", "adc", OfN(&CBaseFunManager::Concat)},
        {"CONCAT_WS(?, ?, ?, ?)", "eabc", OfN(&CBaseFunManager::Concat_WS)},
        {"REPLACE(?, ?, ?)", "aeb", Of3(&CBaseFunManager::Replace)},
        // Counts stay below MariaDB's packet limit, where both must agree.
        {"REPEAT(?, ?)", "ak", Of2(&CBaseFunManager::Repeat)},
        {"LPAD(?, ?, ?)", "anb", PadOf(TRUE)},
        {"RPAD(?, ?, ?)", "anb", PadOf(FALSE)},
        {"LTRIM(?)", "a", Of1(&CBaseFunManager::LTrim)},
        {"TRIM(?)", "a", Of1(&CBaseFunManager::Trim)},
        {"TRIM(TRAILING ? FROM ?)", "ra", TrimOf(TALVOR_FUN_TRIM_TRAILING)},
        {"TRIM(BOTH ? FROM ?)", "ra", TrimOf(TALVOR_FUN_TRIM_BOTH)},
        {"QUOTE(?)", "a", Of1(&CBaseFunManager::Quote)},
        // NUL and Ctrl-Z are escaped; binary keeps them as data.
        {"QUOTE(?)", "q", Of1(&CBaseFunManager::Quote)},
        // Lists: the members the bits or the count name.
        {"MAKE_SET(?, ?, ?, ?)", "nabc", OfN(&CBaseFunManager::Make_Set)},
        {"EXPORT_SET(?, ?, ?, ?, ?)", "nabek", OfN(&CBaseFunManager::Export_Set)},
        {"ELT(?, ?, ?, ?)", "kabc", OfN(&CBaseFunManager::Elt)},
        {"FIELD(" FOLD ", " FOLD ", " FOLD ", " FOLD ")", "babc", OfN(&CBaseFunManager::TalvorField)},
        // Measures and searches: characters and positions.
        {"LENGTH(?)", "a", Of1(&CBaseFunManager::Length)},
        {"INSTR(" FOLD ", " FOLD ")", "ar", Of2(&CBaseFunManager::InStr)},
        {"LOCATE(" FOLD ", " FOLD ", ?)", "ran", Of3(&CBaseFunManager::Locate)},
        {"STRCMP(" FOLD ", " FOLD ")", "ab", Of2(&CBaseFunManager::TalvorStrCmp)},
        {"FIND_IN_SET(" FOLD ", " FOLD ")", "ra", Of2(&CBaseFunManager::Find_In_Set)}};
    std::mt19937 rng(23);
    FunBatch batch;
    for (int i = 0; i < 200; ++i) {
        FunArg a = RandomTextArg(rng), b = RandomTextArg(rng), c = RandomTextArg(rng);
        FunArg n = rng() % 2 ? ArgInt((long long)(rng() % 30) - 3) : RandomCountArg(rng);
        static const char* kDecimals[] = {"1.50", "-0.001", "123456789012.000000001", "0.0"};
        FunArg d = rng() % 3 == 0 ? ArgDec(kDecimals[rng() % 4]) : RandomCountArg(rng);
        FunArg k = rng() % 2 ? ArgInt((long long)(rng() % 7) - 2) : ArgNull();
        FunArg rem = RandomNeedle(rng);
        FunArg q = ArgBin(RandomText(rng, 3) + std::string(1, "\0\032'\\"[rng() % 4]) + RandomText(rng, 2));
        AddRows(batch, vRows, {{'a', a}, {'b', b}, {'c', c}, {'d', d}, {'n', n}, {'k', k}, {'r', rem}, {'q', q}},
                [&] { return RandomNeedle(rng); });
    }
    batch.Check(Deliberate);
}

// Growing results are bounded before anything is allocated: one byte past
// the bound is NULL, the bound itself is the text.
TEST(FunText, GrowingResultsAboveTheBoundAreNullNotAllocatedAndNoMemoryIsNull)
{
    CTalvorBufferPool pool;
    VARDATA n = Null(), s = Null(), r = Null();
    char ab[] = "ab";
    s.AttachString(ab, 2, TALVOR_VT_TEXT);
    const long long kMax = TALVOR_FUN_MAX_RESULT;
    // SPACE(n), REPEAT('ab', n) and LPAD('ab', n, 'ab'): the length, -1 for
    // NULL. 2^62 times two bytes wraps 64 bits.
    struct { int m_nMember; long long m_n; long long m_nLen; } arCases[] = {{0, kMax, kMax}, {0, kMax + 1, -1},
        {0, LLONG_MAX, -1}, {1, kMax / 2, kMax}, {1, kMax / 2 + 1, -1}, {1, 1LL << 62, -1}, {2, INT_MAX, -1}};
    for (const auto& c : arCases) {
        n.SetData(c.m_n);
        ASSERT_EQ(c.m_nMember == 0   ? g_fun.Space(&pool, n, r)
                  : c.m_nMember == 1 ? g_fun.Repeat(&pool, s, n, r)
                                     : g_fun.LRPad(&pool, s, n, s, TRUE, r),
                  0);
        long long nLen = Val(r.m_vt) == TALVOR_VT_NULL ? -1 : Val(r.m_nStrLen);
        EXPECT_EQ(nLen, c.m_nLen) << c.m_nMember << " " << c.m_n;
        if (c.m_nLen > 0) { EXPECT_EQ(r.m_lpszValue[kMax - 1], c.m_nMember == 0 ? ' ' : 'b'); }
    }
    // A pool that gives nothing is reported, never written through; the
    // result slot a plan reuses holds NULL after.
    r = UsedSlot();
    EXPECT_EQ(g_fun.Reverse(nullptr, s, r), TALVOR_VARDATA_NO_MEMORY);
    EXPECT_EQ(Val(r.m_vt), TALVOR_VT_NULL);
}

// Numbers as text against MariaDB: bases 2, 8, 16 and CONV's 2 to 36 on
// integers at the 64-bit edges, negative ones and texts with a number at
// their head; FORMAT's rounding and grouping on integers and decimals;
// UNHEX of odd, invalid and mixed-case digits. A lost sign bit, a carry that
// does not ripple through a row of nines, or a comma one place off is a
// differing row.
//
// Deliberate difference from MariaDB: FORMAT keeps at most 30 places (a
// decimal holds 36 digits).
namespace {

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

} // namespace

// Letters: n a number (or text with one at its head), d digits as text, f
// and t bases. UNHEX takes pairs and refuses other characters. FORMAT
// rounds a decimal half away and groups by three; a double it scales in
// binary and rounds ties to even (as the SQL functions round a double).
TEST(FunNumberText, BasesUnhexAndFormatKeepTheSignBitAndEveryDigit)
{
    const std::vector<FunRow> vRows = {
        // HEX of text is its bytes; of a number, the number.
        {"HEX(?)", "n", Of1(&CBaseFunManager::Hex)},
        {"CONV(?, ?, ?)", "dft", Of3(&CBaseFunManager::Conv)},
        {"CONV(?, ?, ?)", "nTt", Of3(&CBaseFunManager::Conv)},
        {"FORMAT(?, ?)", "xp", Of2(&CBaseFunManager::Format)},
        {"FORMAT(?, ?)", "gk", Of2(&CBaseFunManager::Format)},
        {"HEX(UNHEX(?))", "u", [](Pool* pool, Args& v, VARDATA& r) {
             VARDATA b = Null();
             int n = g_fun.UnHex(pool, v[0], b);
             return n != 0 ? n : g_fun.Hex(pool, b, r);
         }}};
    std::mt19937 rng(31);
    FunBatch batch;
    static const int kBases[] = {2, 8, 10, 16, 36, -2, -10, -16, -36, 1, 37, 0};
    static const char* kDigits[] = {"0", "9", "a", "F", "f", "A", "g", " ", "00", "ff", "7E"};
    for (int i = 0; i < 300; ++i) {
        FunArg n = rng() % 8 == 0   ? ArgNull()
                   : rng() % 7 == 0 ? ArgText(std::to_string(RandomNumber(rng)) + (rng() % 2 ? "abc" : ""))
                                    : ArgInt(RandomNumber(rng));
        FunArg from = ArgInt(kBases[rng() % 12]), to = ArgInt(kBases[rng() % 12]);
        if (rng() % 12 == 0) (rng() % 2 ? from : to) = ArgNull();
        FunArg digits = rng() % 10 == 0 ? ArgNull() : ArgText(rng() % 2 ? "-1aZ" : (rng() % 2 ? "ff" : "777"));
        FunArg x = rng() % 12 == 0 ? ArgNull() : rng() % 2 ? ArgDec(RandomDecimal(rng)) : ArgInt(RandomNumber(rng));
        FunArg places = rng() % 12 == 0 ? ArgNull() : ArgInt((long long)(rng() % 14) - 2);
        FunArg dbl = ArgDouble(std::to_string((long long)(rng() % 2000000) - 1000000) + "." + std::to_string(rng() % 1000));
        std::string strHex;
        for (int k = (int)(rng() % 7); k > 0; --k) strHex += kDigits[rng() % 11];
        AddRows(batch, vRows, {{'n', n}, {'d', digits}, {'f', from}, {'t', to}, {'T', ArgInt(10)}, {'x', x}, {'p', places},
                               {'g', dbl}, {'k', ArgInt((long long)(rng() % 8))}, {'u', rng() % 12 == 0 ? ArgNull() : ArgText(strHex)}});
    }
    batch.Check();
}
