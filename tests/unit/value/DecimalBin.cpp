// The stored form of decimals: lengths by declared precision, round trips of
// generated values, the binary forms at the limb edges, column fitting and
// the hash input that equal numbers share.

#include "TalvorDecimal.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <set>
#include <string>

namespace {

st_VARDATA Parse(const std::string& s)
{
    st_VARDATA v;
    memset(&v, 0, sizeof(v));
    CTalvorDecimal::Convert2Decimal(s.c_str(), &v);
    return v;
}

TEST(DecimalBin, LengthsByPrecision)
{
    const int arTotal[37] = {18, 3, 3, 4, 4, 5, 5, 5, 6, 6, 10, 10, 10, 10, 10, 10, 10, 10, 10,
                             14, 14, 14, 14, 14, 14, 14, 14, 14, 18, 18, 18, 18, 18, 18, 18, 18, 18};
    for (int p = 1; p <= 36; ++p) EXPECT_EQ(CTalvorDecimalBin::CalcBinLen(p), arTotal[p]) << p;
    BYTE arBuf[32];
    st_VARDATA v = Parse("4294967295");
    v.m_bPrecison = 9;
    ASSERT_EQ(CTalvorDecimalBin::FormatBin(&v, arBuf, sizeof(arBuf)), 6);
    EXPECT_EQ(arBuf[0], TALVOR_DECIMAL_BIN_SCALE | TALVOR_DECIMAL_BIN_BINARY | 4);
    v.m_bPrecison = 10;
    ASSERT_EQ(CTalvorDecimalBin::FormatBin(&v, arBuf, sizeof(arBuf)), 10);
    EXPECT_EQ(arBuf[0], TALVOR_DECIMAL_BIN_SCALE | 8);
    EXPECT_EQ(CTalvorDecimalBin::GetBinLen(arBuf), 10);
    v = Parse("256");
    v.m_bPrecison = 2;
    EXPECT_EQ(CTalvorDecimalBin::FormatBin(&v, arBuf, sizeof(arBuf)), 0) << "256 exceeds one byte";
    v.m_bPrecison = 0;
    EXPECT_EQ(CTalvorDecimalBin::FormatBin(&v, arBuf, sizeof(arBuf)), 4);
    EXPECT_EQ(CTalvorDecimalBin::FormatBin(&v, arBuf, 3), 0) << "buffer too small";
    v = Parse("0");
    EXPECT_EQ(CTalvorDecimalBin::FormatBin(&v, arBuf, sizeof(arBuf)), 2);
    st_VARDATA r;
    ASSERT_EQ(CTalvorDecimalBin::LoadBin(arBuf, &r), 0);
    EXPECT_TRUE(CTalvorDecimal::IsZero(&r));
    EXPECT_EQ(r.m_bPrecison, 2);
    // No scale byte: scale 0, data from byte 1.
    const BYTE arNoScale[] = {2, 0x39, 0x30};
    ASSERT_EQ(CTalvorDecimalBin::LoadBin(arNoScale, &r), 0);
    char sz[64];
    CTalvorDecimal::PrintDecimal(&r, sz);
    EXPECT_STREQ(sz, "12345");
    const BYTE arTooLong[] = {0x40 | 17, 0};
    EXPECT_EQ(CTalvorDecimalBin::LoadBin(arTooLong, &r), TALVOR_ERROR_DECIMAL_LOAD);
    const BYTE arBadLimb[] = {0x40 | 12, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(CTalvorDecimalBin::LoadBin(arBadLimb, &r), TALVOR_ERROR_DECIMAL_LOAD);
    EXPECT_EQ(r.m_vt, TALVOR_VT_NULL);
}

TEST(DecimalBin, RoundTripsOfGeneratedValues)
{
    std::mt19937_64 rng(21);
    BYTE arBuf[32];
    for (int i = 0; i < 20000; ++i) {
        int nDigits = 1 + (int)(rng() % 36);
        std::string s = (rng() % 2) ? "-" : "";
        for (int k = 0; k < nDigits; ++k) s += (char)('0' + rng() % 10);
        s += "E" + std::to_string((int)(rng() % 60) - 30);
        st_VARDATA v = Parse(s), r;
        ASSERT_EQ(v.m_vt, TALVOR_VT_DECIMAL) << s;
        v.m_bPrecison = (BYTE)(rng() % 37);
        int nLen = CTalvorDecimalBin::FormatBin(&v, arBuf, sizeof(arBuf));
        if (nLen == 0) {
            EXPECT_NE(v.m_bPrecison, 0) << s;
            continue;
        }
        EXPECT_EQ(nLen, CTalvorDecimalBin::CalcBinLen(&v)) << s;
        EXPECT_EQ(CTalvorDecimalBin::GetBinLen(arBuf), nLen) << s;
        ASSERT_EQ(CTalvorDecimalBin::LoadBin(arBuf, &r), 0) << s;
        EXPECT_EQ(CTalvorDecimal::Compare(&v, &r), 0) << s;
        EXPECT_EQ(r.m_bScale, v.m_bScale) << s;
        EXPECT_EQ(r.m_bSign, v.m_bSign) << s;
        EXPECT_FALSE(CTalvorDecimalBin::IsMax(arBuf));
    }
    for (int p : {2, 4, 7, 9, 18, 27, 36}) {
        int nLen = CTalvorDecimalBin::GetMax(p, arBuf);
        EXPECT_EQ(nLen, CTalvorDecimalBin::CalcBinLen(p));
        EXPECT_TRUE(CTalvorDecimalBin::IsMax(arBuf));
    }
}

TEST(DecimalBin, ColumnFitting)
{
    st_VARDATA v = Parse("123.456");
    EXPECT_EQ(CTalvorDecimalBin::VerificationData(&v, 10, 2), 0);
    char sz[64];
    CTalvorDecimal::PrintDecimal(&v, sz);
    EXPECT_STREQ(sz, "123.46");
    v = Parse("25.55");
    EXPECT_EQ(CTalvorDecimalBin::VerificationData(&v, 2, 1), TALVOR_ERROR_DECIMAL_PRECISION) << "256 needs two bytes";
    CTalvorDecimal::PrintDecimal(&v, sz);
    EXPECT_STREQ(sz, "25.55") << "untouched on failure";
    EXPECT_EQ(CTalvorDecimalBin::VerificationData(&v, 3, 1), 0);
    v = Parse("1");
    EXPECT_EQ(CTalvorDecimalBin::VerificationData(&v, 36, 36), TALVOR_ERROR_DECIMAL_PRECISION);
}

// Equal numbers give equal factors across scales, zero signs and types;
// different numbers rarely collide.
TEST(DecimalBin, HashFactorOfEqualNumbers)
{
    std::mt19937_64 rng(8);
    std::set<long long> factors;
    int nCount = 0;
    for (int i = 0; i < 5000; ++i) {
        long long ll = (long long)(rng() >> (rng() % 60)) * ((i % 2) ? -1 : 1);
        st_VARDATA a, b, c;
        a.m_vt = TALVOR_VT_BIGINT;
        a.m_llValue = ll;
        CTalvorDecimal::Convert2Decimal(ll, &b);
        CTalvorDecimal::Zoom(&b, &c, (char)(rng() % 10), FALSE);
        long long h = CTalvorDecimalBin::CalcHashFactor(&a);
        EXPECT_EQ(CTalvorDecimalBin::CalcHashFactor(&b), h) << ll;
        if (c.m_vt == TALVOR_VT_DECIMAL) {
            EXPECT_EQ(CTalvorDecimalBin::CalcHashFactor(&c), h) << ll;
        }
        if (ll >= INT32_MIN && ll <= INT32_MAX) {
            st_VARDATA n;
            n.m_vt = TALVOR_VT_INT;
            n.m_nValue = (int)ll;
            EXPECT_EQ(CTalvorDecimalBin::CalcHashFactor(&n), h) << ll;
        }
        factors.insert(h);
        ++nCount;
    }
    EXPECT_GT((int)factors.size(), nCount * 9 / 20) << "the sign does not count, so about half are distinct";
    st_VARDATA big = Parse("12E40"), bigger = Parse("1200E38"), d;
    EXPECT_EQ(CTalvorDecimalBin::CalcHashFactor(&big), CTalvorDecimalBin::CalcHashFactor(&bigger));
    st_VARDATA half = Parse("0.5"), halfLong = Parse("0.50000");
    EXPECT_EQ(CTalvorDecimalBin::CalcHashFactor(&half), CTalvorDecimalBin::CalcHashFactor(&halfLong));
    d.m_vt = TALVOR_VT_DOUBLE;
    d.m_dblValue = 0.5;
    EXPECT_EQ(CTalvorDecimalBin::CalcHashFactor(&d), CTalvorDecimalBin::CalcHashFactor(&half));
    d.m_dblValue = 1e20;
    st_VARDATA e20 = Parse("100000000000000000000");
    EXPECT_EQ(CTalvorDecimalBin::CalcHashFactor(&d), CTalvorDecimalBin::CalcHashFactor(&e20));
    st_VARDATA pz = Parse("0"), nz = Parse("-0.000");
    EXPECT_EQ(CTalvorDecimalBin::CalcHashFactor(&pz), CTalvorDecimalBin::CalcHashFactor(&nz));
}

}  // namespace
