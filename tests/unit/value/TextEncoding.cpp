// Encodings against the C library's iconv (UTF-8, UTF-16LE and the native
// wide form, the wide forms of dates and numbers too), hexadecimal text
// against OpenSSL's hex printer, and the classification and name lookups by
// their rules.

#include "TalvorBufferPool.h"
#include "TalvorCharset.h"
#include "TalvorDate.h"
#include "TalvorDecimal.h"

#include <gtest/gtest.h>
#include <iconv.h>
#include <openssl/crypto.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <cwchar>
#include <random>
#include <string>
#include <vector>

namespace {

// Converts with iconv; false when iconv refuses the input.
bool Iconv(const char* lpszTo, const char* lpszFrom, const std::string& in, std::string& out) {
    iconv_t cd = iconv_open(lpszTo, lpszFrom);
    if (cd == (iconv_t)-1) return false;
    std::vector<char> buf(in.size() * 4 + 16);
    char *pIn = const_cast<char*>(in.data()), *pOut = buf.data();
    size_t nIn = in.size(), nOut = buf.size();
    const bool bOk = iconv(cd, &pIn, &nIn, &pOut, &nOut) != (size_t)-1;
    iconv_close(cd);
    if (bOk) out.assign(buf.data(), buf.size() - nOut);
    return bOk;
}

std::string Ucs4(const std::vector<UINT>& codes) {
    return std::string((const char*)codes.data(), codes.size() * 4);
}

// Code points of one, two, three and four UTF-8 bytes alike, no surrogates.
std::vector<UINT> RandomCodes(std::mt19937& rng, int n) {
    static const UINT kFrom[] = {1, 0x80, 0x800, 0x10000}, kSpan[] = {0x7F, 0x780, 0xF800, 0x100000};
    std::vector<UINT> v;
    while ((int)v.size() < n) {
        const int k = (int)(rng() % 4);
        const UINT u = kFrom[k] + (UINT)(rng() % kSpan[k]);
        if (u < 0xD800 || u >= 0xE000) v.push_back(u);
    }
    return v;
}

}  // namespace

TEST(CodePoints, EveryScalarValueAgreesWithIconv) {
    // All of Unicode in one go: our UTF-8 and UTF-16 forms of each code point
    // against iconv's, and back through the packed form and the decoder.
    std::vector<UINT> codes;
    for (UINT u = 1; u <= 0x10FFFF; ++u) {
        if (u < 0xD800 || u >= 0xE000) codes.push_back(u);
    }
    std::string strUtf8, strUtf16;
    ASSERT_TRUE(Iconv("UTF-8", "UCS-4LE", Ucs4(codes), strUtf8));
    ASSERT_TRUE(Iconv("UTF-16LE", "UCS-4LE", Ucs4(codes), strUtf16));
    size_t nPos8 = 0, nPos16 = 0;
    for (UINT u : codes) {
        BYTE arBytes[4];
        const int n = TalvorCode2UTF8(u, arBytes);
        ASSERT_EQ(std::string((const char*)arBytes, n), strUtf8.substr(nPos8, n)) << u;
        UINT uPacked = 0;
        for (int i = 0; i < n; ++i) uPacked = (uPacked << 8) | arBytes[i];
        nPos8 += n;
        ASSERT_EQ(TalvorGetUnicode(strUtf8.c_str() + nPos8 - n), u);
        wchar_t arUnits[2];
        const int nUnits = TalvorCode2UTF16(uPacked, arUnits);
        ASSERT_EQ(nUnits, u >= 0x10000 ? 2 : 1) << u;
        for (int i = 0; i < nUnits; ++i) {
            const unsigned uUnit = (BYTE)strUtf16[nPos16] | ((BYTE)strUtf16[nPos16 + 1] << 8);
            ASSERT_EQ((unsigned)arUnits[i], uUnit) << u;
            nPos16 += 2;
        }
    }
    EXPECT_EQ(TalvorCode2UTF8(0x110000, nullptr), -1);
}

TEST(CodePoints, StrayAndMalformedForms) {
    // Bytes that start no complete sequence come back as themselves; a NUL
    // cuts a sequence, so nothing past it is read.
    EXPECT_EQ(TalvorGetUnicode("\x80"), 0x80u);
    EXPECT_EQ(TalvorGetUnicode("\xE4\xB8"), 0xE4u);
    EXPECT_EQ(TalvorGetUnicode("\xFF"), 0xFFu);
    // The 6-byte form decodes.
    EXPECT_EQ(TalvorGetUnicode("\xFD\xBF\xBF\xBF\xBF\xBF"), 0x7FFFFFFFu);
    wchar_t arUnits[2];
    EXPECT_EQ(TalvorCode2UTF16(0x80, arUnits), -1);        // a lone continuation
    EXPECT_EQ(TalvorCode2UTF16(0xC341, arUnits), -1);      // a bad continuation
    EXPECT_EQ(TalvorCode2UTF16(0xE4B8, arUnits), -1);      // a cut form
    EXPECT_EQ(TalvorCode2UTF16(0xF4908080, arUnits), -1);  // above 0x10FFFF
}

TEST(WideText, AgreesWithIconvBothWays) {
    std::mt19937 rng(9);
    CTalvorBufferPool pool;
    for (int i = 0; i < 2000; ++i) {
        const std::vector<UINT> codes = RandomCodes(rng, (int)(rng() % 40));
        std::string strUtf8;
        ASSERT_TRUE(Iconv("UTF-8", "UCS-4LE", Ucs4(codes), strUtf8));
        std::wstring wstr(codes.begin(), codes.end());
        // Wide to UTF-8: count, then write.
        const int nNeed = TalvorUnicode2UTF8(wstr.c_str(), -1, nullptr, 0);
        ASSERT_EQ(nNeed, (int)strUtf8.size());
        std::vector<char> out((size_t)nNeed + 1);
        ASSERT_EQ(TalvorUnicode2UTF8(wstr.c_str(), (int)wstr.size(), out.data(), (int)out.size()), nNeed);
        ASSERT_EQ(std::string(out.data()), strUtf8);
        ASSERT_TRUE(nNeed == 0 || TalvorUnicode2UTF8(wstr.c_str(), -1, out.data(), nNeed - 1) == -1) << "one byte short";
        // UTF-8 to wide.
        const int nUnits = TalvorUTF82Unicode(strUtf8.c_str(), -1, nullptr, 0);
        ASSERT_EQ(nUnits, (int)codes.size());
        std::vector<wchar_t> wide((size_t)nUnits + 1);
        ASSERT_EQ(TalvorUTF82Unicode(strUtf8.data(), (int)strUtf8.size(), wide.data(), (int)wide.size()), nUnits);
        ASSERT_EQ(std::wstring(wide.data()), wstr);
        // Into a pool: bytes behind nLen must not be taken in.
        auto wideOf = [](const wchar_t* p) { return p ? std::wstring(p) : std::wstring(L"(none)"); };
        const wchar_t* lpWide = TalvorConvertWChar((strUtf8 + "tail").data(), (int)strUtf8.size(), &pool);
        ASSERT_EQ(wideOf(lpWide), wstr);
        ASSERT_EQ((uintptr_t)lpWide % alignof(wchar_t), 0u);
        ASSERT_EQ(wideOf(TalvorConvertWChar(strUtf8.c_str(), -1, &pool)), wstr);
        // Surrogate pairs held in two units are joined like iconv joins
        // UTF-16 input.
        std::string strUtf16;
        ASSERT_TRUE(Iconv("UTF-16LE", "UCS-4LE", Ucs4(codes), strUtf16));
        std::wstring wstrUnits;
        for (size_t j = 0; j < strUtf16.size(); j += 2)
            wstrUnits += (wchar_t)((BYTE)strUtf16[j] | ((BYTE)strUtf16[j + 1] << 8));
        ASSERT_EQ(TalvorUnicode2UTF8(wstrUnits.c_str(), (int)wstrUnits.size(), out.data(), (int)out.size()), nNeed);
        ASSERT_EQ(std::string(out.data()), strUtf8);
    }
    const wchar_t arTooBig[] = {(wchar_t)0x110000, 0};
    EXPECT_EQ(TalvorUnicode2UTF8(arTooBig, -1, nullptr, 0), -1);
    EXPECT_EQ(TalvorConvertWChar("abc", 3, nullptr), nullptr);
    EXPECT_EQ(TalvorConvertWChar(nullptr, 3, &pool), nullptr);
    wchar_t* lpEmpty = TalvorConvertWChar("", 0, &pool);
    ASSERT_NE(lpEmpty, nullptr);
    EXPECT_EQ(lpEmpty[0], 0);
}

TEST(HexText, RoundTripAgainstOpenssl) {
    std::mt19937 rng(10);
    for (int i = 0; i < 500; ++i) {
        std::vector<BYTE> data(rng() % 64);
        for (auto& b : data) b = (BYTE)rng();
        std::vector<char> hex(2 * data.size() + 1);
        ASSERT_EQ(HexConvertChar(data.data(), (int)data.size(), hex.data()), 2 * (int)data.size());
        // OpenSSL writes the same digits with colons between bytes.
        char* pRef = OPENSSL_buf2hexstr(data.data(), (long)data.size());
        std::string strRef(pRef ? pRef : "");
        OPENSSL_free(pRef);
        std::string strOurs;
        for (size_t j = 0; j < data.size(); ++j) strOurs += (j ? ":" : "") + std::string(hex.data() + 2 * j, 2);
        ASSERT_EQ(strOurs, strRef);
        // Back, through lower case and skipped white space.
        std::string strMixed;
        for (size_t j = 0; j < 2 * data.size(); ++j) {
            strMixed += (char)((j % 3) ? hex[j] : tolower(hex[j]));
            if (j % 5 == 0) strMixed += " \t\r\n"[j % 4];
        }
        std::vector<BYTE> back(data.size() + 1);
        int nOut = (int)back.size();
        ASSERT_EQ(CharConvertHex(strMixed.data(), (int)strMixed.size(), back.data(), nOut), 0);
        ASSERT_EQ(nOut, (int)data.size());
        ASSERT_TRUE(std::equal(data.begin(), data.end(), back.begin()));
        std::wstring wstr(strMixed.begin(), strMixed.end());
        nOut = (int)back.size();
        ASSERT_EQ(WCharConvertHex(wstr.data(), (int)wstr.size(), back.data(), nOut), 0);
        ASSERT_TRUE(std::equal(data.begin(), data.end(), back.begin()));
    }
    auto unhex = [](const char* lpsz, int nRoom) { BYTE ar[4]; return CharConvertHex(lpsz, (int)strlen(lpsz), ar, nRoom); };
    EXPECT_EQ(unhex("0G", 4), TALVOR_ERROR_BAD_HEX_TEXT);
    EXPECT_EQ(unhex("ABC", 4), TALVOR_ERROR_BAD_HEX_TEXT);
    EXPECT_EQ(unhex("ABCD", 1), TALVOR_ERROR_NO_ROOM);
    wchar_t wszHex[8];
    const BYTE arBytes[] = {0xAB, 0x01};
    EXPECT_EQ(HexConvertWChar(arBytes, 2, wszHex), 4);
    EXPECT_STREQ(wszHex, L"AB01");
}

TEST(MySqlEscape, EscapesExactlyTheNamedBytes) {
    for (int c = 1; c < 256; ++c) {
        const char szIn[2] = {(char)c, 0};
        char szOut[3];
        const int n = ConvertMySQLVarchar(szIn, szOut);
        ASSERT_EQ(ConvertMySQLVarchar(szIn, nullptr), n);
        const char* lpszEscaped = strchr("\b\t\n\r\x1A'\"\\", c);
        if (lpszEscaped != nullptr) {
            ASSERT_EQ(n, 2) << c;
            ASSERT_EQ(szOut[0], '\\');
            ASSERT_EQ(szOut[1], "btnrZ'\"\\"[lpszEscaped - "\b\t\n\r\x1A'\"\\"]);
        } else {
            ASSERT_EQ(n, 1) << c;
            ASSERT_EQ(szOut[0], (char)c);
        }
    }
}

TEST(Classification, ByTheOrderOfTheCharacterSet) {
    const std::string strAscii = "plain text";
    const std::string strUtf8 = "caf\xC3\xA9 \xE4\xB8\xAD";
    // "中文" in GBK and a four-byte GB18030 sequence: not UTF-8.
    std::string strGbk;
    ASSERT_TRUE(Iconv("GB18030", "UTF-8", "\xE4\xB8\xAD\xE6\x96\x87 \xF0\x9F\x98\x80", strGbk));
    std::string strBack;
    const std::string strNeither = "\xFF\xFF";
    // UTF-8 sets and a GBK column (28) alike on these.
    for (int nSet : {33, 45, 28}) {
        EXPECT_EQ(GetCharacterCodetype(nSet, strAscii.data(), (int)strAscii.size()), TALVOR_TEXT_ASCII) << nSet;
        EXPECT_EQ(GetCharacterCodetype(nSet, strUtf8.data(), (int)strUtf8.size()), TALVOR_TEXT_UTF8) << nSet;
        EXPECT_EQ(GetCharacterCodetype(nSet, strGbk.data(), (int)strGbk.size()), TALVOR_TEXT_DOUBLE_BYTE) << nSet;
        EXPECT_EQ(GetCharacterCodetype(nSet, strNeither.data(), 2), TALVOR_TEXT_UNKNOWN) << nSet;
    }
    // A GBK column tries GBK first: the UTF-8 text "é中" happens to be
    // valid GBK too (C3 A9, E4 B8, then AD and a missing second byte is not).
    EXPECT_EQ(GetCharacterCodetype(28, "\xC3\xA9\xE4\xB8", 4), TALVOR_TEXT_DOUBLE_BYTE);
    // Every text iconv accepts as GB18030 and refuses as UTF-8 is classed
    // double-byte under a UTF-8 set.
    std::mt19937 rng(11);
    int nChecked = 0;
    for (int i = 0; i < 3000; ++i) {
        std::string s;
        for (int n = 1 + rng() % 8; n > 0; --n) s += (char)(rng() % 2 ? 0x81 + rng() % 0x7E : 0x40 + rng() % 0xBF);
        std::string strConverted;
        if (!Iconv("UTF-8", "GB18030", s, strConverted) || Iconv("UTF-8", "UTF-8", s, strBack)) continue;
        ++nChecked;
        ASSERT_EQ(GetCharacterCodetype(33, s.data(), (int)s.size()), TALVOR_TEXT_DOUBLE_BYTE);
    }
    EXPECT_GT(nChecked, 100);
}

// Collation and character set names: in any case, quoted in pairs, whole,
// cut to 31 bytes; what is not in the table falls to latin1, ascii or the
// default.
TEST(CharsetNames, CollationsAndSetsByNameQuotingAndFallbacks) {
    const struct { bool bSet; std::string strName; int nId; } arCases[] = {
        {false, "utf8mb4_unicode_ci", 224}, {false, "'GBK_CHINESE_CI'", 28}, {false, "\"GB18030_bin\"", 249},
        {false, "`Latin1_Swedish_CI`", 8}, {false, "gbk_chinese_cix", 33}, {false, "latin1_unknown", 49},
        {false, "ascii_general_ci", 48}, {false, "no_such_collation", 33}, {false, "'utf8_bin\"", 33},
        {false, "(", 33}, {false, "0x41", 33}, {false, "", 33},
        {false, "ascii_" + std::string(23, 'x') + "ci", 48}, {false, "ascii_" + std::string(24, 'x') + "ci", 49},
        {true, "`UTF8MB4`", 45}, {true, "\"gb18030\"", 248}, {true, "Binary", 63}, {true, "LATIN7", 8},
        {true, "lati", 33}, {true, "(", 33}};
    for (const auto& c : arCases) {
        const int nLen = (int)c.strName.size();
        EXPECT_EQ(c.bSet ? GetCharacterset(c.strName.data(), nLen) : GetCollationType(c.strName.data(), nLen), c.nId)
            << c.strName;
    }
}

// Wide forms of dates, times and numbers: unit for unit their narrow forms
// on the same generated values, and what iconv makes of the narrow text.
namespace {

// The narrow text widened by iconv (the C library's own widening).
std::wstring Widened(const std::string& strNarrow) {
    std::string out;
    EXPECT_TRUE(Iconv("WCHAR_T", "UTF-8", strNarrow, out)) << strNarrow;
    return std::wstring((const wchar_t*)out.data(), out.size() / sizeof(wchar_t));
}

// A wide result against its narrow twin: same length, same units, a NUL
// behind; and the new[] text of the Talvor* form the same again.
void ExpectTwins(const char* lpszNarrow, int nNarrow, const wchar_t* lpszWide, int nWide, wchar_t* lpszNew,
                 const std::string& strWhat)
{
    EXPECT_EQ(nWide, nNarrow) << strWhat;
    EXPECT_EQ((int)strlen(lpszNarrow), nNarrow) << strWhat;
    EXPECT_EQ(std::wstring(lpszWide), Widened(lpszNarrow)) << strWhat;
    EXPECT_EQ(std::wstring(lpszNew ? lpszNew : lpszWide), std::wstring(lpszWide)) << strWhat;
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
    // A wide form handed out by new[]: ExpectTwins gives it back.
    auto expect = [](const st_VARDATA& v, wchar_t* lpWide) {
        char sz[TALVOR_DECIMAL_TEXT_BYTES];
        const int n = CTalvorDecimal::PrintDecimal(&v, sz);
        ASSERT_NE(lpWide, nullptr) << sz;
        ExpectTwins(sz, n, lpWide, (int)wcslen(lpWide), lpWide, sz);
    };
    std::mt19937_64 rng(36);
    st_VARDATA seven, v, q;
    CTalvorDecimal::Convert2Decimal(7, &seven);
    for (int i = 0; i < 4000; ++i) {
        std::string s = rng() % 2 ? "-" : "";
        for (int d = 1 + (int)(rng() % 40); d > 0; --d) s += (char)('0' + rng() % 10);
        if (rng() % 2) s += "." + std::to_string(rng() % 100000);
        if (rng() % 3 == 0) s += "e" + std::to_string((int)(rng() % 240) - 120);
        CTalvorDecimal::Convert2Decimal(s.c_str(), &v);
        expect(v, TalvorDecimal2WChar(&v));
        if (v.m_vt == TALVOR_VT_DECIMAL && CTalvorDecimal::Div(&v, &seven, &q) == 0) expect(q, TalvorDecimal2WChar(&q));
    }
    EXPECT_EQ(TalvorDecimal2WChar(nullptr), nullptr);
    for (long long ll : {0LL, -1LL, 7LL, LLONG_MIN, LLONG_MAX, (long long)rng(), -(long long)(rng() >> 1)}) {
        wchar_t* lpWide = TalvorConvertNumber2WChar(ll);
        EXPECT_EQ(std::wstring(lpWide), Widened(std::to_string(ll)));
        delete[] lpWide;
    }
    for (double d : {0.0, -2.5, 1e-7, 123456789.125, 1e200, (double)rng(), (double)NAN, (double)INFINITY}) {
        CTalvorDecimal::Convert2Decimal(d, &v);
        expect(v, TalvorConvertNumber2WChar(d));
    }
}

}  // namespace
