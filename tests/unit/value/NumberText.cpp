// Numbers in and out of text: integers and base conversion against strtoll,
// strtoull and printf, bit literals round trip, and the rules of the small
// helpers.

#include "TalvorDecimal.h"
#include "TalvorNumberText.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

// The kind of a number's text (1 integer, 2 hexadecimal or a size, 3 with
// a point, 0 none), its value as a double, and the hexadecimal readers.
TEST(NumberKinds, IsNumberToDoubleAndHexReaders) {
    struct { const char* m_lpsz; int m_nKind; } arKinds[] = {{"", 1}, {"-123", 1}, {"12.5", 3}, {"-.5", 3},
        {"0x1F", 2}, {"ff", 2}, {"10K", 2}, {"10kb", 2}, {"3M", 2}, {"3Mb", 2}, {"1g", 2}, {"2TB", 2},
        {"1.2.3", 0}, {"0xZ", 0}, {"10KBB", 0}, {"12x", 0}, {nullptr, 0}};
    for (const auto& c : arKinds) EXPECT_EQ(IsNumber(c.m_lpsz), c.m_nKind) << (c.m_lpsz ? c.m_lpsz : "null");
    EXPECT_DOUBLE_EQ(ToDouble("-12.25") + ToDouble("10K") + ToDouble("abc"), -12.25);
    EXPECT_EQ(HexStringToNumber("0x1fG7"), 0x1F);
    EXPECT_EQ(HexStringToNumber("0x"), 0);
    EXPECT_EQ(HexStringToNumber("x'ABCDEF'"), 0xABCDEF);
    EXPECT_EQ(GetHexEncodedData("\x01\x02", 2), 0x0102);
    EXPECT_EQ(GetHexEncodedData("\x01\x02\x03\x04\x05\x06\x07\x08\x09", 9), 0x0102030405060708LL);
}

TEST(BaseConversion, AgreesWithStrtoullAndPrintf) {
    std::mt19937_64 rng(12);
    char szOut[80];
    for (int i = 0; i < 20000; ++i) {
        const int nBase = 2 + (int)(rng() % 35);
        const unsigned long long ullValue = rng() >> (rng() % 64);
        // Unsigned write, then read back through the C library.
        const int n = ConvDecimalToSpecifiedString((long long)ullValue, nBase, szOut);
        ASSERT_EQ(n, (int)strlen(szOut));
        ASSERT_EQ(strtoull(szOut, nullptr, nBase), ullValue) << szOut << " base " << nBase;
        // And our reader, from a lower-case copy.
        std::string strLower = szOut;
        for (char& c : strLower) c = (char)tolower(c);
        long long llBack = 0;
        ASSERT_EQ(ConvSpecifiedStringToDecimal(strLower.c_str(), nBase, llBack), 0);
        ASSERT_EQ((unsigned long long)llBack, ullValue);
        // Signed bases print a sign like printf does.
        const long long llSigned = (long long)ullValue * ((rng() & 1) ? -1 : 1);
        ConvDecimalToSpecifiedString(llSigned, -10, szOut);
        ASSERT_EQ(std::string(szOut), std::to_string(llSigned));
        ConvSpecifiedStringToDecimal(szOut, -10, llBack);
        ASSERT_EQ(llBack, llSigned);
    }
    auto conv = [](const char* lpsz, int nBase) {
        long long ll = 0;
        EXPECT_EQ(ConvSpecifiedStringToDecimal(lpsz, nBase, ll), 0) << lpsz;
        return ll;
    };
    // Reading stops at the first digit the base doesn't have; too long
    // saturates instead of wrapping; an unsigned base takes "-" modulo 2^64,
    // as CONV does.
    EXPECT_EQ(conv("1012", 2), 5);
    EXPECT_EQ((unsigned long long)conv("99999999999999999999999", 10), ULLONG_MAX);
    EXPECT_EQ(conv("-99999999999999999999999", -10), LLONG_MIN);
    EXPECT_EQ((unsigned long long)conv("-1", 10), ULLONG_MAX);
    long long llValue = 0;
    EXPECT_EQ(ConvSpecifiedStringToDecimal("1", 37, llValue), TALVOR_ERROR_INVALID_DATA);
    EXPECT_EQ(ConvDecimalToSpecifiedString(5, 1, szOut), 0);
    EXPECT_STREQ(szOut, "");
    ConvDecimalToSpecifiedString(LLONG_MIN, -16, szOut);
    EXPECT_STREQ(szOut, "-8000000000000000");
}

TEST(BitLiterals, ReadWriteRoundTrip) {
    long long llValue;
    int nBits;
    for (const char* s : {"b'0101'", "b0101", "0b0101", "000B'0101'"}) {
        ASSERT_EQ(ConvertBitToNumber(s, llValue, nBits), 0) << s;
        EXPECT_EQ(llValue, 5);
        EXPECT_EQ(nBits, 4);
    }
    for (const char* s : {"b'012'", "b'01", "x'01'", "0b", "b'0'x", "", "1b01"})
        EXPECT_EQ(ConvertBitToNumber(s, llValue, nBits), TALVOR_ERROR_INVALID_DATA) << s;
    EXPECT_EQ(ConvertBitToNumber(("b" + std::string(65, '1')).c_str(), llValue, nBits), TALVOR_ERROR_INVALID_DATA);
    std::mt19937_64 rng(13);
    char szOut[80];
    for (int i = 0; i < 2000; ++i) {
        const int nLen = 1 + (int)(rng() % 64);
        const long long llIn = (long long)rng();
        ASSERT_EQ(ConvertBitToString(llIn, nLen, szOut), nLen + 3);
        ASSERT_EQ(ConvertBitToNumber(szOut, llValue, nBits), 0) << szOut;
        ASSERT_EQ(nBits, nLen);
        const unsigned long long ullMask = nLen == 64 ? ~0ull : (1ull << nLen) - 1;
        ASSERT_EQ((unsigned long long)llValue, (unsigned long long)llIn & ullMask);
    }
}

// Trailing zeros cut after a point, as numbers are printed; the logarithm
// takes its base first.
TEST(SmallHelpers, Rules) {
    // The caller of the last vouched for a point.
    struct { char m_sz[8]; BOOL m_bPoint; int m_nLen; const char* m_lpszOut; } arTrims[] = {
        {"12.500", FALSE, 4, "12.5"}, {"100", FALSE, 0, "100"}, {"1.2.0", FALSE, 0, "1.2.0"},
        {"7.000", FALSE, 1, "7"}, {"100", TRUE, 1, "1"}};
    for (auto& c : arTrims) {
        EXPECT_EQ(TrimTailZero(c.m_sz, c.m_bPoint), c.m_nLen) << c.m_lpszOut;
        EXPECT_STREQ(c.m_sz, c.m_lpszOut);
    }
    EXPECT_DOUBLE_EQ(TalvorLog(10, 1000), 3.0);
}

TEST(DecimalText, IntegersAgainstStrtollAndSizeSuffixes)
{
    std::mt19937_64 rng(17);
    for (int i = 0; i < 5000; ++i) {
        long long ll = (long long)(rng() >> (rng() % 64));
        if (i % 2) ll = -ll;
        std::string s = std::to_string(ll);
        long long llRef = strtoll(s.c_str(), nullptr, 10);
        EXPECT_EQ(StringToLongLong(s.c_str()), llRef) << s;
        long long llInt = llRef > INT_MAX ? INT_MAX : llRef < INT_MIN ? INT_MIN : llRef;
        EXPECT_EQ(StringToInt(s.c_str()), (int)llInt) << s;
        EXPECT_EQ(ToNumber(s.c_str(), (int)s.size()), llRef) << s;
    }
    EXPECT_EQ(StringToLongLong("99999999999999999999"), LLONG_MAX);
    EXPECT_EQ(StringToLongLong("-99999999999999999999"), LLONG_MIN);
    struct { const char* m_lpszText; int m_nValue; } arInts[] = {
        {" 77 ", 77}, {"12.9", 12}, {"-12.9", -12}, {"1e3", 1000}, {"0x10", 16}, {"abc", 0}, {nullptr, 0}};
    for (const auto& c : arInts) EXPECT_EQ(StringToInt(c.m_lpszText), c.m_nValue) << c.m_nValue;
    // Sizes: a suffix of K, M, G or T (B after it optional) times 1024 per step.
    struct { const char* m_lpszText; long long m_llValue; } arCases[] = {
        {"1K", 1024}, {"2kb", 2048}, {"3M", 3LL << 20}, {"3mB", 3LL << 20}, {"4G", 4LL << 30}, {"5T", 5LL << 40},
        {"1.5K", 1024}, {"-2K", -2048}, {"K", 0}, {"10B", 0}, {"10KBB", 0}, {"10X", 0}, {"", 0},
        {"9999999T", LLONG_MAX}, {"-9999999T", LLONG_MIN}, {"8388607T", 8388607LL << 40}};
    for (const auto& c : arCases) EXPECT_EQ(ToNumber(c.m_lpszText, (int)strlen(c.m_lpszText)), c.m_llValue) << c.m_lpszText;
    std::string strLong(63, '1');
    EXPECT_EQ(ToNumber(strLong.c_str(), 63), 0);
}
