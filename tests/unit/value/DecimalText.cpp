// Integers read through the decimal parser, against strtoll and shifts.

#include "TalvorDecimal.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

TEST(DecimalText, IntegersAgainstStrtoll)
{
    std::mt19937_64 rng(17);
    for (int i = 0; i < 5000; ++i) {
        long long ll = (long long)(rng() >> (rng() % 64));
        if (i % 2) ll = -ll;
        std::string s = std::to_string(ll);
        errno = 0;
        long long llRef = strtoll(s.c_str(), nullptr, 10);
        EXPECT_EQ(StringToLongLong(s.c_str()), llRef) << s;
        long long llInt = llRef > INT_MAX ? INT_MAX : llRef < INT_MIN ? INT_MIN : llRef;
        EXPECT_EQ(StringToInt(s.c_str()), (int)llInt) << s;
        EXPECT_EQ(ToNumber(s.c_str(), (int)s.size()), llRef) << s;
    }
    EXPECT_EQ(StringToLongLong("99999999999999999999"), LLONG_MAX);
    EXPECT_EQ(StringToLongLong("-99999999999999999999"), LLONG_MIN);
    EXPECT_EQ(StringToInt(" 77 "), 77);
    EXPECT_EQ(StringToInt("12.9"), 12);
    EXPECT_EQ(StringToInt("-12.9"), -12);
    EXPECT_EQ(StringToInt("1e3"), 1000);
    EXPECT_EQ(StringToInt("0x10"), 16);
    EXPECT_EQ(StringToInt("abc"), 0);
    EXPECT_EQ(StringToInt(nullptr), 0);
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
