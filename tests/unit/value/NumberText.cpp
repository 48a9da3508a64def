// Numbers in and out of text: integers and base conversion against strtoll,
// strtoull and printf, bit literals round trip, and the kinds of a number's
// text.

#include "TalvorDecimal.h"
#include "TalvorNumberText.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

// The kind of a number's text (1 integer, 2 hexadecimal or a size, 3 with
// a point, 0 none), and the hexadecimal readers.
TEST(NumberKinds, IsNumberAndHexReaders) {
    struct { const char* m_lpsz; int m_nKind; } arKinds[] = {{"", 1}, {"-123", 1}, {"-.5", 3}, {"0x1F", 2}, {"ff", 2},
        {"10kb", 2}, {"2TB", 2}, {"1.2.3", 0}, {"0xZ", 0}, {"10KBB", 0}, {"12x", 0}, {nullptr, 0}};
    for (const auto& c : arKinds) EXPECT_EQ(IsNumber(c.m_lpsz), c.m_nKind) << (c.m_lpsz ? c.m_lpsz : "null");
    EXPECT_EQ(std::make_pair(HexStringToNumber("0x1fG7"), HexStringToNumber("x'ABCDEF'")), std::make_pair(0x1FLL, 0xABCDEFLL));
    EXPECT_EQ(GetHexEncodedData("\x01\x02\x03\x04\x05\x06\x07\x08\x09", 9), 0x0102030405060708LL);
}

TEST(BaseConversion, AgreesWithStrtoullAndPrintf) {
    std::mt19937_64 rng(12);
    char szOut[80];
    long long llBack = 0;
    for (int i = 0; i < 20000; ++i) {
        const int nBase = 2 + (int)(rng() % 35);
        const unsigned long long ullValue = rng() >> (rng() % 64);
        // Unsigned write, read back through the C library and by ours from lower case.
        const int n = ConvDecimalToSpecifiedString((long long)ullValue, nBase, szOut);
        ASSERT_EQ(n, (int)strlen(szOut));
        ASSERT_EQ(strtoull(szOut, nullptr, nBase), ullValue) << szOut << " base " << nBase;
        for (char* p = szOut; *p; ++p) *p = (char)tolower(*p);
        ASSERT_EQ(ConvSpecifiedStringToDecimal(szOut, nBase, llBack), 0);
        ASSERT_EQ((unsigned long long)llBack, ullValue);
        // Signed bases print a sign like printf does.
        const long long llSigned = (long long)ullValue * ((rng() & 1) ? -1 : 1);
        ConvDecimalToSpecifiedString(llSigned, -10, szOut);
        ASSERT_EQ(std::string(szOut), std::to_string(llSigned));
        ConvSpecifiedStringToDecimal(szOut, -10, llBack);
        ASSERT_EQ(llBack, llSigned);
    }
    // Too long saturates instead of wrapping; an unsigned base takes "-"
    // modulo 2^64, as CONV does.
    ConvSpecifiedStringToDecimal("-99999999999999999999999", -10, llBack);
    EXPECT_EQ(llBack, LLONG_MIN);
    ConvSpecifiedStringToDecimal("-1", 10, llBack);
    EXPECT_EQ((unsigned long long)llBack, ULLONG_MAX);
    EXPECT_EQ(ConvSpecifiedStringToDecimal("1", 37, llBack), TALVOR_ERROR_INVALID_DATA);
    ConvDecimalToSpecifiedString(LLONG_MIN, -16, szOut);
    EXPECT_STREQ(szOut, "-8000000000000000");
}

TEST(BitLiterals, ReadWriteRoundTrip) {
    long long llValue;
    int nBits;
    ASSERT_EQ(ConvertBitToNumber("000B'0101'", llValue, nBits), 0);
    EXPECT_EQ(std::make_pair(llValue, nBits), std::make_pair(5LL, 4));
    for (const char* s : {"b'012'", "b'01", "0b", "b'0'x", "1b01"})
        EXPECT_EQ(ConvertBitToNumber(s, llValue, nBits), TALVOR_ERROR_INVALID_DATA) << s;
    EXPECT_EQ(ConvertBitToNumber(("b" + std::string(65, '1')).c_str(), llValue, nBits), TALVOR_ERROR_INVALID_DATA);
    // Written and read back at the widest: 64 bits and a sign bit.
    char szOut[80];
    ASSERT_EQ(ConvertBitToString(LLONG_MIN + 5, 64, szOut), 67);
    ASSERT_EQ(ConvertBitToNumber(szOut, llValue, nBits), 0) << szOut;
    EXPECT_EQ(std::make_pair(llValue, nBits), std::make_pair(LLONG_MIN + 5, 64));
}

TEST(DecimalText, IntegersAgainstStrtollAndSizeSuffixes)
{
    std::mt19937_64 rng(17);
    for (int i = 0; i < 5000; ++i) {
        long long ll = (long long)(rng() >> (rng() % 64)) * (i % 2 ? -1 : 1);
        std::string s = std::to_string(ll);
        long long llInt = ll > INT_MAX ? INT_MAX : ll < INT_MIN ? INT_MIN : ll;
        EXPECT_EQ(StringToLongLong(s.c_str()), strtoll(s.c_str(), nullptr, 10)) << s;
        EXPECT_EQ(StringToInt(s.c_str()), (int)llInt) << s;
        EXPECT_EQ(ToNumber(s.c_str(), (int)s.size()), ll) << s;
    }
    EXPECT_EQ(StringToLongLong("-99999999999999999999"), LLONG_MIN);
    EXPECT_EQ(StringToInt("-12.9") + StringToInt("0x10") + StringToInt(nullptr), -12 + 16);
    // Sizes: a suffix of K, M, G or T (B after it optional) times 1024 per step.
    struct { const char* m_lpszText; long long m_llValue; } arCases[] = {
        {"2kb", 2048}, {"3mB", 3LL << 20}, {"4G", 4LL << 30}, {"5T", 5LL << 40}, {"-2K", -2048}, {"K", 0},
        {"10KBB", 0}, {"9999999T", LLONG_MAX}, {"8388607T", 8388607LL << 40}};
    for (const auto& c : arCases) EXPECT_EQ(ToNumber(c.m_lpszText, (int)strlen(c.m_lpszText)), c.m_llValue) << c.m_lpszText;
    EXPECT_EQ(ToNumber(std::string(63, '1').c_str(), 63), 0);
}
