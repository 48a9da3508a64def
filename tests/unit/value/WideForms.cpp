// Wide forms of dates, times and numbers: unit for unit their narrow forms
// on the same generated values, and what iconv makes of the narrow text
// (the C library's own widening, which no one here wrote).

#include "TalvorDate.h"
#include "TalvorDecimal.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstring>
#include <iconv.h>
#include <random>
#include <string>
#include <vector>

namespace {

// The narrow text widened by iconv.
std::wstring Iconv(const std::string& strNarrow)
{
    iconv_t cd = iconv_open("WCHAR_T", "UTF-8");
    EXPECT_NE(cd, (iconv_t)-1);
    if (cd == (iconv_t)-1) return L"<no iconv>";
    std::vector<wchar_t> vOut(strNarrow.size() + 1);
    char* pIn = const_cast<char*>(strNarrow.data());
    char* pOut = reinterpret_cast<char*>(vOut.data());
    size_t nIn = strNarrow.size(), nOut = vOut.size() * sizeof(wchar_t);
    size_t nDone = iconv(cd, &pIn, &nIn, &pOut, &nOut);
    iconv_close(cd);
    if (nDone == (size_t)-1) return L"<iconv failed>";
    return std::wstring(vOut.data(), (pOut - reinterpret_cast<char*>(vOut.data())) / sizeof(wchar_t));
}

// A wide result against its narrow twin: same length, same units, a NUL
// behind; and the new[] text of the Talvor* form the same again.
void ExpectTwins(const char* lpszNarrow, int nNarrow, const wchar_t* lpszWide, int nWide, wchar_t* lpszNew,
                 const std::string& strWhat)
{
    EXPECT_EQ(nWide, nNarrow) << strWhat;
    EXPECT_EQ((int)strlen(lpszNarrow), nNarrow) << strWhat;
    EXPECT_EQ(std::wstring(lpszWide), Iconv(lpszNarrow)) << strWhat;
    if (lpszNew != nullptr) {
        EXPECT_EQ(std::wstring(lpszNew), std::wstring(lpszWide)) << strWhat;
    }
    delete[] lpszNew;
}

TEST(WideForms, DayNumbersEveryFixedForm)
{
    std::mt19937_64 rng(1601);
    std::vector<DATE> vDates = {0.0, -1.0, 25569.5, -693593.0, 2958465.999999, 2958466.0, -693594.0, 1e300, -1e300,
                                NAN, 65535.999999999, -0.25};
    for (int i = 0; i < 3000; ++i) vDates.push_back(-693593.0 + (double)(rng() % 365205000000ULL) / 100000.0);
    for (DATE d : vDates)
        for (char nFraction = -1; nFraction <= 7; ++nFraction) {
            char sz[TALVOR_DATE_TEXT_UNITS];
            wchar_t wsz[TALVOR_DATE_TEXT_UNITS];
            std::string strWhat = std::to_string(d) + " /" + std::to_string(nFraction);
            ExpectTwins(sz, CTalvorDate::FormatDateTime(d, sz, nFraction), wsz,
                        CTalvorDate::FormatDateTime(d, wsz, nFraction), TalvorConvertDate(d, nFraction), strWhat);
            ExpectTwins(sz, CTalvorDate::FormatDate(d, sz), wsz, CTalvorDate::FormatDate(d, wsz), nullptr, strWhat);
            ExpectTwins(sz, CTalvorDate::FormatTime(d, sz), wsz, CTalvorDate::FormatTime(d, wsz), nullptr, strWhat);
        }
}

// Stored dates print as their day numbers do, or as zeros when they name no
// day; stored times as TimeFormat's %T, hours past a day and sign included.
TEST(WideForms, StoredDatesAndTimes)
{
    std::mt19937_64 rng(4242);
    CTalvorBufferPool pool;
    for (int i = 0; i < 20000; ++i) {
        TALVORDATE stDate = {(BYTE)(rng() % 33), (BYTE)(rng() % 14), (USHORT)(i % 7 ? rng() % 10001 : rng())};
        char sz[TALVOR_DATE_TEXT_UNITS], szRef[TALVOR_DATE_TEXT_UNITS] = "0000-00-00";
        wchar_t wsz[TALVOR_DATE_TEXT_UNITS];
        DATE d;
        if (CTalvorDate::ConvertVariantTime(d, stDate) == 0) CTalvorDate::FormatDate(d, szRef);
        int n = CTalvorDate::FormatDate(stDate, sz);
        EXPECT_STREQ(sz, szRef) << stDate.m_sYear << "-" << (int)stDate.m_bMonth << "-" << (int)stDate.m_bDay;
        ExpectTwins(sz, n, wsz, CTalvorDate::FormatDate(stDate, wsz), nullptr, sz);

        TALVORTIME stTime = {(BYTE)(rng() % 61), (BYTE)(rng() % 61), (BYTE)(rng() % 25), (signed char)(i % 256 - 128)};
        bool bValid = stTime.m_bSecond < 60 && stTime.m_bMintue < 60 && stTime.m_bHour < 24;
        TALVORTIME stRef = bValid ? stTime : TALVORTIME{0, 0, 0, 0};
        VARDATA v;
        ASSERT_EQ(CTalvorDate::TimeFormat(&pool, stRef, "%T", v), 0);
        n = CTalvorDate::FormatTime(stTime, sz);
        EXPECT_EQ(std::string(sz), std::string(v.m_lpszValue, v.m_nStrLen)) << (int)stTime.m_nDay;
        ExpectTwins(sz, n, wsz, CTalvorDate::FormatTime(stTime, wsz), TalvorConvertTime(stTime), sz);
        pool.ResetBuffer();
    }
}

// Decimals of every shape PrintDecimal knows (integers, fractions, tiny and
// huge scales, quotients of Div that print 9 places), integers against
// std::to_string, and doubles as the decimals they convert to.
TEST(WideForms, DecimalsAndNumbers)
{
    std::mt19937_64 rng(36);
    std::vector<st_VARDATA> vValues;
    for (int i = 0; i < 4000; ++i) {
        std::string s = rng() % 2 ? "-" : "";
        for (int d = 1 + (int)(rng() % 40); d > 0; --d) s += (char)('0' + rng() % 10);
        if (rng() % 2) s += "." + std::to_string(rng() % 100000);
        if (rng() % 3 == 0) s += "e" + std::to_string((int)(rng() % 240) - 120);
        st_VARDATA v, q;
        CTalvorDecimal::Convert2Decimal(s.c_str(), &v);
        vValues.push_back(v);
        st_VARDATA seven;
        CTalvorDecimal::Convert2Decimal(7, &seven);
        if (v.m_vt == TALVOR_VT_DECIMAL && CTalvorDecimal::Div(&v, &seven, &q) == 0) vValues.push_back(q);
    }
    for (const st_VARDATA& v : vValues) {
        char sz[TALVOR_DECIMAL_TEXT_BYTES];
        int n = CTalvorDecimal::PrintDecimal(&v, sz);
        wchar_t* lpWide = TalvorDecimal2WChar(&v);
        ASSERT_NE(lpWide, nullptr);
        ExpectTwins(sz, n, lpWide, (int)wcslen(lpWide), nullptr, sz);
        delete[] lpWide;
    }
    EXPECT_EQ(TalvorDecimal2WChar(nullptr), nullptr);
    for (long long ll : {0LL, -1LL, 7LL, LLONG_MIN, LLONG_MAX, (long long)rng(), -(long long)(rng() >> 1)}) {
        wchar_t* lpWide = TalvorConvertNumber2WChar(ll);
        EXPECT_EQ(std::wstring(lpWide), Iconv(std::to_string(ll)));
        delete[] lpWide;
    }
    for (double d : {0.0, -2.5, 1e-7, 123456789.125, 1e200, (double)rng(), (double)NAN, (double)INFINITY}) {
        st_VARDATA v;
        CTalvorDecimal::Convert2Decimal(d, &v);
        char sz[TALVOR_DECIMAL_TEXT_BYTES];
        int n = CTalvorDecimal::PrintDecimal(&v, sz);
        wchar_t* lpWide = TalvorConvertNumber2WChar(d);
        ExpectTwins(sz, n, lpWide, (int)wcslen(lpWide), nullptr, sz);
        delete[] lpWide;
    }
}

}  // namespace
