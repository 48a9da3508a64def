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

TEST(NumberKinds, IsNumberAndToDouble) {
    for (const char* s : {"", "-123"}) EXPECT_EQ(IsNumber(s), 1) << s;
    for (const char* s : {"12.5", "-.5"}) EXPECT_EQ(IsNumber(s), 3) << s;
    for (const char* s : {"0x1F", "ff", "10K", "10kb", "3M", "3Mb", "1g", "2TB"}) EXPECT_EQ(IsNumber(s), 2) << s;
    for (const char* s : {"1.2.3", "0xZ", "10KBB", "12x"}) EXPECT_EQ(IsNumber(s), 0) << s;
    EXPECT_EQ(IsNumber(nullptr), 0);
    EXPECT_DOUBLE_EQ(ToDouble("-12.25"), -12.25);
    EXPECT_DOUBLE_EQ(ToDouble("10K"), 0.0);
    EXPECT_DOUBLE_EQ(ToDouble("abc"), 0.0);
}

TEST(NumberKinds, HexReaders) {
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
    long long llValue = 0;
    // Reading stops at the first digit the base doesn't have.
    ASSERT_EQ(ConvSpecifiedStringToDecimal("1012", 2, llValue), 0);
    EXPECT_EQ(llValue, 5);
    // Too long saturates instead of wrapping.
    ConvSpecifiedStringToDecimal("99999999999999999999999", 10, llValue);
    EXPECT_EQ((unsigned long long)llValue, ULLONG_MAX);
    ConvSpecifiedStringToDecimal("-99999999999999999999999", -10, llValue);
    EXPECT_EQ(llValue, LLONG_MIN);
    // An unsigned base takes "-" modulo 2^64, as CONV does.
    ConvSpecifiedStringToDecimal("-1", 10, llValue);
    EXPECT_EQ((unsigned long long)llValue, ULLONG_MAX);
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

TEST(SmallHelpers, Rules) {
    EXPECT_EQ(CompareDouble(1.0, 1.0 + 5e-7), 0);
    EXPECT_EQ(CompareDouble(1.0, 1.0 + 2e-6), -1);
    EXPECT_EQ(CompareDouble(2.0, 1.0), 1);
    // The caller of the last vouched for a point.
    struct { char m_sz[8]; BOOL m_bPoint; int m_nLen; const char* m_lpszOut; } arTrims[] = {
        {"12.500", FALSE, 4, "12.5"}, {"100", FALSE, 0, "100"}, {"1.2.0", FALSE, 0, "1.2.0"},
        {"7.000", FALSE, 1, "7"}, {"100", TRUE, 1, "1"}};
    for (auto& c : arTrims) {
        EXPECT_EQ(TrimTailZero(c.m_sz, c.m_bPoint), c.m_nLen) << c.m_lpszOut;
        EXPECT_STREQ(c.m_sz, c.m_lpszOut);
    }
    EXPECT_EQ(TalvorLog2(1), 0);
    EXPECT_EQ(TalvorLog2(LLONG_MAX), 63);
    for (long long n = 2; n < 5000; ++n) ASSERT_EQ(1LL << TalvorLog2(n) >= n && (1LL << (TalvorLog2(n) - 1)) < n, true) << n;
    EXPECT_DOUBLE_EQ(TalvorLog(10, 1000), 3.0);
    EXPECT_EQ(GetFirstNoZeroValue(3, 0, 7, 5), 5);
    EXPECT_EQ(GetFirstNoZeroValue(3, 0, 7, 9), 7);
    EXPECT_EQ(GetFirstNoZeroValue(3, 0, 7, 0), 7);
    EXPECT_EQ(GetFirstNoZeroValue(2, 0, 0), 0);
    char szOut[24];
    EXPECT_STREQ(TalvorConvert(szOut, (unsigned long long)ULLONG_MAX) - 20, "18446744073709551615");
    EXPECT_EQ(TalvorConvert(szOut, (signed char)-128) - szOut, 4);
    EXPECT_EQ(TalvorConvert(szOut, (short)-5) - szOut, 2);
}

TEST(ObjectSets, Bits) {
    relbitmap a = 0, b = 0;
    AddRel(1, a);
    AddRel(64, a);
    AddRel(0, a);   // ignored
    AddRel(65, a);  // ignored
    EXPECT_EQ((unsigned long long)a, 0x8000000000000001ull);
    AddRel(1, b);
    EXPECT_TRUE(BmsOverlap(a, b));
    EXPECT_TRUE(BmsIsSubset(b, a));
    EXPECT_FALSE(BmsIsSubset(a, b));
    EXPECT_EQ(BmsAdd(a, b), a);
    AddRel(2, b);
    EXPECT_FALSE(BmsIsSubset(b, a));
    EXPECT_FALSE(BmsOverlap(a, (relbitmap)0x6));
}

TEST(DecimalText, IntegersAgainstStrtoll)
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
}

TEST(DecimalText, SizeSuffixes)
{
    struct { const char* m_lpszText; long long m_llValue; } arCases[] = {
        {"1K", 1024}, {"2kb", 2048}, {"3M", 3LL << 20}, {"3mB", 3LL << 20}, {"4G", 4LL << 30}, {"5T", 5LL << 40},
        {"1.5K", 1024}, {"-2K", -2048}, {"K", 0}, {"10B", 0}, {"10KBB", 0}, {"10X", 0}, {"", 0},
        {"9999999T", LLONG_MAX}, {"-9999999T", LLONG_MIN}, {"8388607T", 8388607LL << 40}};
    for (const auto& c : arCases) EXPECT_EQ(ToNumber(c.m_lpszText, (int)strlen(c.m_lpszText)), c.m_llValue) << c.m_lpszText;
    std::string strLong(63, '1');
    EXPECT_EQ(ToNumber(strLong.c_str(), 63), 0);
}
