// Numbers in and out of text: the edges of integers and bases, bit literals
// round trip, and the kinds of a number's text.

#include "TalvorDecimal.h"
#include "TalvorNumberText.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <tuple>
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

// Every base is held against the server by CONV; here its edges.
TEST(BaseConversion, EdgesOfTheBases) {
    char szOut[80];
    long long llBack = 0;
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

TEST(DecimalText, IntegersAtTheEdgesAndSizeSuffixes)
{
    for (long long ll : {LLONG_MIN, LLONG_MAX, (long long)INT_MIN - 1, (long long)INT_MAX + 1, -7LL}) {
        std::string s = std::to_string(ll);
        EXPECT_EQ(std::make_tuple(StringToLongLong(s.c_str()), StringToInt(s.c_str()), ToNumber(s.c_str(), (int)s.size())),
                  std::make_tuple(ll, (int)std::max<long long>(INT_MIN, std::min<long long>(INT_MAX, ll)), ll)) << s;
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
