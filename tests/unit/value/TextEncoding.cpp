// Encodings against the C library's iconv (UTF-8, UTF-16LE and the native
// wide form), hexadecimal text against OpenSSL's hex printer, and the
// classification and name lookups by their rules.

#include "TalvorBufferPool.h"
#include "TalvorCharset.h"

#include <gtest/gtest.h>
#include <iconv.h>
#include <openssl/crypto.h>

#include <algorithm>
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
    EXPECT_EQ(TalvorGetUnicode("\xE4\xB8"), 0xE4u);
    // The 6-byte form decodes.
    EXPECT_EQ(TalvorGetUnicode("\xFD\xBF\xBF\xBF\xBF\xBF"), 0x7FFFFFFFu);
    wchar_t arUnits[2];
    // A lone or a bad continuation, a cut form, and above 0x10FFFF.
    for (UINT u : {0x80u, 0xC341u, 0xE4B8u, 0xF4908080u}) EXPECT_EQ(TalvorCode2UTF16(u, arUnits), -1) << u;
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
        const wchar_t* lpWide = TalvorConvertWChar((strUtf8 + "tail").data(), (int)strUtf8.size(), &pool);
        ASSERT_TRUE(lpWide && std::wstring(lpWide) == wstr && (uintptr_t)lpWide % alignof(wchar_t) == 0);
    }
    const wchar_t arTooBig[] = {(wchar_t)0x110000, 0};
    EXPECT_EQ(TalvorUnicode2UTF8(arTooBig, -1, nullptr, 0), -1);
    // Surrogate pairs held in two units are one character, as iconv joins UTF-16 input.
    const wchar_t arPair[] = {(wchar_t)0xD83D, (wchar_t)0xDE00};
    char szPair[8];
    EXPECT_EQ(std::string(szPair, TalvorUnicode2UTF8(arPair, 2, szPair, sizeof(szPair))), "\xF0\x9F\x98\x80");
    EXPECT_EQ(TalvorConvertWChar("abc", 3, nullptr), nullptr);
    wchar_t* lpEmpty = TalvorConvertWChar("", 0, &pool);
    EXPECT_TRUE(lpEmpty != nullptr && lpEmpty[0] == 0);
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
        // Back, through lower case.
        for (size_t j = 0; j < hex.size(); j += 3) hex[j] = (char)tolower(hex[j]);
        std::vector<BYTE> back(data.size() + 1);
        int nOut = (int)back.size();
        ASSERT_EQ(CharConvertHex(hex.data(), 2 * (int)data.size(), back.data(), nOut), 0);
        ASSERT_EQ(std::vector<BYTE>(back.begin(), back.begin() + nOut), data);
    }
    auto unhex = [](const char* lpsz, int nRoom) { BYTE ar[4]; return CharConvertHex(lpsz, (int)strlen(lpsz), ar, nRoom); };
    EXPECT_EQ(unhex("0G", 4), TALVOR_ERROR_BAD_HEX_TEXT);
    EXPECT_EQ(unhex("ABC", 4), TALVOR_ERROR_BAD_HEX_TEXT);
    EXPECT_EQ(unhex("ABCD", 1), TALVOR_ERROR_NO_ROOM);
}

TEST(Classification, ByTheOrderOfTheCharacterSet) {
    // "中文" in GBK and a four-byte GB18030 sequence: not UTF-8. UTF-8 sets
    // (33) and a GBK column (28) alike on these.
    std::string strGbk, strBack;
    ASSERT_TRUE(Iconv("GB18030", "UTF-8", "\xE4\xB8\xAD\xE6\x96\x87 \xF0\x9F\x98\x80", strGbk));
    EXPECT_EQ(GetCharacterCodetype(33, "plain text", 10), TALVOR_TEXT_ASCII);
    EXPECT_EQ(GetCharacterCodetype(28, "caf\xC3\xA9 \xE4\xB8\xAD", 9), TALVOR_TEXT_UTF8);
    EXPECT_EQ(GetCharacterCodetype(28, strGbk.data(), (int)strGbk.size()), TALVOR_TEXT_DOUBLE_BYTE);
    EXPECT_EQ(GetCharacterCodetype(33, "\xFF\xFF", 2), TALVOR_TEXT_UNKNOWN);
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

