// Encodings against the C library's iconv (UTF-8 and UTF-16LE), hexadecimal
// text against OpenSSL's hex printer.

#include "TalvorBufferPool.h"
#include "TalvorCharset.h"

#include <gtest/gtest.h>
#include <iconv.h>
#include <openssl/crypto.h>

#include <cstring>
#include <cwchar>
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

// The wide forms share the code point coder above; here their edges.
TEST(WideText, EdgesOfTheWideForms) {
    CTalvorBufferPool pool;
    const wchar_t arWide[] = {L'a', (wchar_t)0x4E2D, (wchar_t)0x1F600, 0};
    const std::string strUtf8 = "a\xE4\xB8\xAD\xF0\x9F\x98\x80";
    char szOut[16];
    // One byte short is refused, not overrun.
    EXPECT_EQ(TalvorUnicode2UTF8(arWide, -1, szOut, (int)strUtf8.size() - 1), -1);
    ASSERT_EQ(TalvorUnicode2UTF8(arWide, -1, szOut, sizeof(szOut)), (int)strUtf8.size());
    EXPECT_EQ(std::string(szOut), strUtf8);
    // Into a pool (UTF-8 to wide): bytes behind nLen must not be taken in.
    const wchar_t* lpWide = TalvorConvertWChar((strUtf8 + "tail").data(), (int)strUtf8.size(), &pool);
    EXPECT_TRUE(lpWide && std::wstring(lpWide) == arWide && (uintptr_t)lpWide % alignof(wchar_t) == 0);
    const wchar_t arTooBig[] = {(wchar_t)0x110000, 0};
    EXPECT_EQ(TalvorUnicode2UTF8(arTooBig, -1, nullptr, 0), -1);
    // Surrogate pairs held in two units are one character, as iconv joins UTF-16 input.
    const wchar_t arPair[] = {(wchar_t)0xD83D, (wchar_t)0xDE00};
    EXPECT_EQ(std::string(szOut, TalvorUnicode2UTF8(arPair, 2, szOut, sizeof(szOut))), "\xF0\x9F\x98\x80");
    EXPECT_EQ(TalvorConvertWChar("abc", 3, nullptr), nullptr);
}

TEST(HexText, AgainstOpensslAndRefusals) {
    const BYTE arData[] = {0x00, 0x0F, 0xA0, 0xFF, 0x5C};
    char szHex[11];
    ASSERT_EQ(HexConvertChar(arData, 5, szHex), 10);
    char* pRef = OPENSSL_buf2hexstr(arData, 5);
    std::string strRef(pRef ? pRef : ""), strOurs;
    OPENSSL_free(pRef);
    for (int j = 0; j < 5; ++j) strOurs += (j ? ":" : "") + std::string(szHex + 2 * j, 2);
    EXPECT_EQ(strOurs, strRef);
    BYTE arBack[8];
    int nOut = sizeof(arBack);
    ASSERT_EQ(CharConvertHex("000fa0fF5c", 10, arBack, nOut), 0);
    EXPECT_EQ(std::vector<BYTE>(arBack, arBack + nOut), std::vector<BYTE>(arData, arData + 5));
    auto unhex = [](const char* lpsz, int nRoom) { BYTE ar[4]; return CharConvertHex(lpsz, (int)strlen(lpsz), ar, nRoom); };
    EXPECT_EQ(unhex("0G", 4), TALVOR_ERROR_BAD_HEX_TEXT);
    EXPECT_EQ(unhex("ABC", 4), TALVOR_ERROR_BAD_HEX_TEXT);
    EXPECT_EQ(unhex("ABCD", 1), TALVOR_ERROR_NO_ROOM);
}


