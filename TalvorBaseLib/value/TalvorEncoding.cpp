// TalvorEncoding.cpp — UTF-8, UTF-16 units and wide text; hexadecimal text;
// MySQL escaping.

#include "TalvorCharset.h"
#include "TalvorTextInternal.h"

#include <cstdio>
#include <cstring>
#include <cwchar>
#include <new>

using namespace talvor_text;

const char TalvorHexChars[17] = "0123456789ABCDEF";

namespace {

constexpr UINT kMaxCodePoint = 0x10FFFF;
constexpr UINT kSurrogateHigh = 0xD800;
constexpr UINT kSurrogateLow = 0xDC00;
constexpr UINT kSurrogateEnd = 0xE000;
constexpr UINT kSupplementaryBase = 0x10000;

int Utf8Length(UINT uCode) {
    if (uCode < 0x80) return 1;
    if (uCode < 0x800) return 2;
    if (uCode < 0x10000) return 3;
    return 4;
}

void WriteUtf8(UINT uCode, BYTE* p, int nBytes) {
    static constexpr BYTE kLeadMark[5] = {0, 0, 0xC0, 0xE0, 0xF0};
    for (int i = nBytes - 1; i > 0; --i) {
        p[i] = (BYTE)(0x80 | (uCode & 0x3F));
        uCode >>= 6;
    }
    p[0] = (BYTE)(kLeadMark[nBytes] | uCode);
}

// The number of bytes a packed sequence holds, from its lead byte; 0 when
// the packed value is no well-formed form (wrong lead or continuation).
int PackedForm(UINT uPacked, UINT& uCode) {
    int nBytes = 1;
    if (uPacked > 0xFFFFFF) nBytes = 4;
    else if (uPacked > 0xFFFF) nBytes = 3;
    else if (uPacked > 0xFF) nBytes = 2;
    BYTE arBytes[4];
    for (int i = 0; i < nBytes; ++i) arBytes[i] = (BYTE)(uPacked >> (8 * (nBytes - 1 - i)));
    int nDecoded = 0;
    uCode = DecodeBounded(arBytes, nBytes, nDecoded);
    if (nBytes == 1) return arBytes[0] < 0x80 ? 1 : 0;
    return nDecoded == nBytes ? nBytes : 0;
}

bool IsHighSurrogate(UINT u) { return u >= kSurrogateHigh && u < kSurrogateLow; }
bool IsLowSurrogate(UINT u) { return u >= kSurrogateLow && u < kSurrogateEnd; }

int HexValue(UINT c) {
    if (c >= '0' && c <= '9') return (int)(c - '0');
    if (c >= 'A' && c <= 'F') return (int)(c - 'A' + 10);
    if (c >= 'a' && c <= 'f') return (int)(c - 'a' + 10);
    return -1;
}

bool IsHexSpace(UINT c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

template <typename TChar>
int HexToBytes(const TChar* lpszText, int nLen, LPBYTE lpOut, int& nOutLen) {
    const int nRoom = nOutLen;
    nOutLen = 0;
    if (lpszText == nullptr || nLen <= 0) return 0;
    int nHigh = -1;
    int nOut = 0;
    for (int i = 0; i < nLen; ++i) {
        const UINT c = (UINT)lpszText[i];
        if (IsHexSpace(c)) continue;
        const int nDigit = HexValue(c);
        if (nDigit < 0) return TALVOR_ERROR_BAD_HEX_TEXT;
        if (nHigh < 0) {
            nHigh = nDigit;
            continue;
        }
        if (lpOut == nullptr || nOut >= nRoom) return TALVOR_ERROR_NO_ROOM;
        lpOut[nOut++] = (BYTE)((nHigh << 4) | nDigit);
        nHigh = -1;
    }
    if (nHigh >= 0) return TALVOR_ERROR_BAD_HEX_TEXT;
    nOutLen = nOut;
    return 0;
}

template <typename TChar>
int BytesToHex(const BYTE* lpSrc, int nLen, TChar* lpszOut) {
    if (lpSrc == nullptr || lpszOut == nullptr || nLen <= 0) {
        if (lpszOut != nullptr) lpszOut[0] = 0;
        return 0;
    }
    for (int i = 0; i < nLen; ++i) {
        lpszOut[2 * i] = (TChar)TalvorHexChars[lpSrc[i] >> 4];
        lpszOut[2 * i + 1] = (TChar)TalvorHexChars[lpSrc[i] & 15];
    }
    lpszOut[2 * nLen] = 0;
    return 2 * nLen;
}

// The escape letter of a byte MySQL escapes, or 0.
char MySqlEscape(char c) {
    switch (c) {
        case '\b': return 'b';
        case '\t': return 't';
        case '\n': return 'n';
        case '\r': return 'r';
        case 0x1A: return 'Z';
        case '\'': return '\'';
        case '"': return '"';
        case '\\': return '\\';
        default: return 0;
    }
}

}  // namespace

UINT TalvorGetUnicode(const char* lpszText) {
    if (lpszText == nullptr) return 0;
    // A NUL is no continuation byte, so a cut sequence stops before it and
    // the bound of 6 is never reached past the text's end.
    constexpr int kLongestForm = 6;
    int nBytes = 0;
    return DecodeBounded((const BYTE*)lpszText, kLongestForm, nBytes);
}

int TalvorCode2UTF8(UINT uCode, LPBYTE lpOut) {
    if (uCode > kMaxCodePoint) return -1;
    const int nBytes = Utf8Length(uCode);
    if (lpOut != nullptr) WriteUtf8(uCode, lpOut, nBytes);
    return nBytes;
}

int TalvorCode2UTF16(UINT uPacked, wchar_t* lpOut) {
    UINT uCode = 0;
    if (PackedForm(uPacked, uCode) == 0 || uCode > kMaxCodePoint) return -1;
    if (uCode < kSupplementaryBase) {
        if (lpOut != nullptr) lpOut[0] = (wchar_t)uCode;
        return 1;
    }
    uCode -= kSupplementaryBase;
    if (lpOut != nullptr) {
        lpOut[0] = (wchar_t)(kSurrogateHigh + (uCode >> 10));
        lpOut[1] = (wchar_t)(kSurrogateLow + (uCode & 0x3FF));
    }
    return 2;
}

int TalvorUnicode2UTF8(const wchar_t* lpSrc, int nLen, char* lpDest, int nBuf) {
    if (lpSrc == nullptr) return 0;
    if (nLen < 0) nLen = (int)wcslen(lpSrc);
    int nOut = 0;
    for (int i = 0; i < nLen; ++i) {
        UINT uCode = (UINT)lpSrc[i];
        if (IsHighSurrogate(uCode) && i + 1 < nLen && IsLowSurrogate((UINT)lpSrc[i + 1])) {
            uCode = kSupplementaryBase + ((uCode - kSurrogateHigh) << 10) + ((UINT)lpSrc[i + 1] - kSurrogateLow);
            ++i;
        }
        if (uCode > kMaxCodePoint) return -1;
        const int nBytes = Utf8Length(uCode);
        if (lpDest != nullptr) {
            if (nOut + nBytes > nBuf) return -1;
            WriteUtf8(uCode, (BYTE*)lpDest + nOut, nBytes);
        }
        nOut += nBytes;
    }
    if (lpDest != nullptr && nOut < nBuf) lpDest[nOut] = 0;
    return nOut;
}

int TalvorUTF82Unicode(const char* lpSrc, int nLen, wchar_t* lpDest, int nBuf) {
    if (lpSrc == nullptr) return 0;
    if (nLen < 0) nLen = (int)strlen(lpSrc);
    const BYTE* p = (const BYTE*)lpSrc;
    int nOut = 0;
    for (int i = 0; i < nLen;) {
        int nBytes = 0;
        const UINT uCode = DecodeBounded(p + i, nLen - i, nBytes);
        if (lpDest != nullptr) {
            if (nOut >= nBuf) return -1;
            lpDest[nOut] = (wchar_t)uCode;
        }
        ++nOut;
        i += nBytes;
    }
    if (lpDest != nullptr && nOut < nBuf) lpDest[nOut] = 0;
    return nOut;
}

int HexConvertChar(const BYTE* lpSrc, int nLen, char* lpszOut) {
    return BytesToHex(lpSrc, nLen, lpszOut);
}

int HexConvertWChar(const BYTE* lpSrc, int nLen, wchar_t* lpszOut) {
    return BytesToHex(lpSrc, nLen, lpszOut);
}

int CharConvertHex(const char* lpszText, int nLen, LPBYTE lpOut, int& nOutLen) {
    return HexToBytes(lpszText, nLen, lpOut, nOutLen);
}

int WCharConvertHex(const wchar_t* lpszText, int nLen, LPBYTE lpOut, int& nOutLen) {
    return HexToBytes(lpszText, nLen, lpOut, nOutLen);
}

int ConvertMySQLVarchar(const char* lpszText, char* lpszOut) {
    if (lpszText == nullptr) {
        if (lpszOut != nullptr) lpszOut[0] = 0;
        return 0;
    }
    int nOut = 0;
    for (const char* p = lpszText; *p; ++p) {
        const char chEscape = MySqlEscape(*p);
        if (chEscape != 0) {
            if (lpszOut != nullptr) {
                lpszOut[nOut] = '\\';
                lpszOut[nOut + 1] = chEscape;
            }
            nOut += 2;
        } else {
            if (lpszOut != nullptr) lpszOut[nOut] = *p;
            ++nOut;
        }
    }
    if (lpszOut != nullptr) lpszOut[nOut] = 0;
    return nOut;
}

wchar_t* TalvorConvertBinary(const BYTE* lpData, int nLen) {
    constexpr int kShownBytes = 32;
    constexpr int kLengthRoom = 16;  // "(" + up to 11 digits + ")"
    if (nLen < 0) nLen = 0;
    if (lpData == nullptr && nLen > 0) return nullptr;
    const int nShown = nLen < kShownBytes ? nLen : kShownBytes;
    wchar_t* lpszText = new (std::nothrow) wchar_t[kLengthRoom + 2 * nShown + 1];
    if (lpszText == nullptr) return nullptr;
    char szLength[kLengthRoom];
    const int nHead = snprintf(szLength, sizeof(szLength), "(%d)", nLen);
    for (int i = 0; i < nHead; ++i) lpszText[i] = (wchar_t)szLength[i];
    BytesToHex(lpData, nShown, lpszText + nHead);
    return lpszText;
}
