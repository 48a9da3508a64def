// TalvorJsonText.cpp — JSON validity and value extraction.
//
// The check never recurses: nesting is a stack of bracket bytes on the
// machine stack, so a deeply nested document costs a refusal, not a crash.

#include "TalvorJsonText.h"

#include "TalvorCharset.h"

namespace {

constexpr char kEscapeLimited[] = "\"\\rnt";
constexpr int kHexDigitsOfEscape = 4;
constexpr UINT kHighSurrogateFirst = 0xD800, kLowSurrogateFirst = 0xDC00, kSurrogateEnd = 0xE000;
constexpr UINT kSurrogateBase = 0x10000;
constexpr int kSurrogateShift = 10;
constexpr int kUtf8Max = 4;

struct Cursor {
    const char* m_p;
    int m_nEnd;
    int m_nPos;
    bool AtEnd() const { return m_nPos >= m_nEnd; }
    char Peek() const { return m_p[m_nPos]; }
};

bool IsJsonSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }

void SkipSpace(Cursor& cur) {
    while (!cur.AtEnd() && IsJsonSpace(cur.Peek())) ++cur.m_nPos;
}

bool IsAllowedEscape(char c) {
    for (const char* p = kEscapeLimited; *p; ++p) {
        if (*p == c) return true;
    }
    return false;
}

// Moves over a string whose opening quote is at the cursor; false when it
// doesn't close or holds a byte the rule set refuses.
bool ScanString(Cursor& cur, bool bStrict) {
    ++cur.m_nPos;
    while (!cur.AtEnd()) {
        const unsigned char c = (unsigned char)cur.m_p[cur.m_nPos++];
        if (c == '"') return true;
        if (c == '\\') {
            if (cur.AtEnd() || !IsAllowedEscape(cur.m_p[cur.m_nPos])) return false;
            ++cur.m_nPos;
        } else if (c == '\t' || c == '\r' || c == '\n' || (bStrict && c < 0x20)) {
            return false;
        }
    }
    return false;
}

bool ScanDigits(Cursor& cur) {
    const int nStart = cur.m_nPos;
    while (!cur.AtEnd() && IsDigit(cur.Peek())) ++cur.m_nPos;
    return cur.m_nPos > nStart;
}

// -?(0|[1-9][0-9]*)(.[0-9]+)?([eE][+-]?[0-9]+)?
bool ScanNumber(Cursor& cur) {
    if (cur.Peek() == '-') ++cur.m_nPos;
    if (cur.AtEnd()) return false;
    if (cur.Peek() == '0') {
        ++cur.m_nPos;
    } else if (!ScanDigits(cur)) {
        return false;
    }
    if (!cur.AtEnd() && cur.Peek() == '.') {
        ++cur.m_nPos;
        if (!ScanDigits(cur)) return false;
    }
    if (!cur.AtEnd() && (cur.Peek() == 'e' || cur.Peek() == 'E')) {
        ++cur.m_nPos;
        if (!cur.AtEnd() && (cur.Peek() == '+' || cur.Peek() == '-')) ++cur.m_nPos;
        if (!ScanDigits(cur)) return false;
    }
    return true;
}

bool ScanWord(Cursor& cur, const char* lpszWord) {
    for (; *lpszWord; ++lpszWord, ++cur.m_nPos) {
        if (cur.AtEnd() || cur.Peek() != *lpszWord) return false;
    }
    return true;
}

bool ScanScalar(Cursor& cur) {
    switch (cur.Peek()) {
    case '"': return ScanString(cur, true);
    case 't': return ScanWord(cur, "true");
    case 'f': return ScanWord(cur, "false");
    case 'n': return ScanWord(cur, "null");
    default: return ScanNumber(cur);
    }
}

char CloserOf(char chOpen) { return chOpen == '{' ? '}' : ']'; }

// Structure only: strings, and brackets paired by kind.
bool CheckLenient(const char* p, int nLen) {
    char arStack[TALVOR_JSON_MAX_DEPTH];
    int nDepth = 0;
    Cursor cur{p, nLen, 0};
    while (!cur.AtEnd()) {
        const char c = cur.Peek();
        if (c == '"') {
            if (!ScanString(cur, false)) return false;
            continue;
        }
        ++cur.m_nPos;
        if (c == '{' || c == '[') {
            if (nDepth == TALVOR_JSON_MAX_DEPTH) return false;
            arStack[nDepth++] = CloserOf(c);
        } else if (c == '}' || c == ']') {
            if (nDepth == 0 || arStack[nDepth - 1] != c) return false;
            // The outermost bracket must close at the very end.
            if (--nDepth == 0) return cur.AtEnd();
        }
    }
    return false;
}

// The full grammar. After each value the state is "a value ended": what may
// follow is decided by the innermost open bracket.
bool CheckStrict(const char* p, int nLen) {
    char arStack[TALVOR_JSON_MYSQL_MAX_DEPTH];
    int nDepth = 0;
    Cursor cur{p, nLen, 0};
    bool bWantValue = true;  // else a value just ended
    bool bMayClose = false;  // right after an opening bracket
    for (;;) {
        SkipSpace(cur);
        if (cur.AtEnd()) return false;
        const char c = cur.Peek();
        if (bWantValue) {
            if (bMayClose && c == arStack[nDepth - 1]) {
                ++cur.m_nPos;
                if (--nDepth == 0) return cur.AtEnd();
                bWantValue = false;
                bMayClose = false;
                continue;
            }
            bMayClose = false;
            if (c == '{' || c == '[') {
                if (nDepth == TALVOR_JSON_MYSQL_MAX_DEPTH) return false;
                arStack[nDepth++] = CloserOf(c);
                ++cur.m_nPos;
                bMayClose = true;
                if (c == '{') {
                    // A key must come, or the close.
                    SkipSpace(cur);
                    if (cur.AtEnd()) return false;
                    if (cur.Peek() == '}') continue;
                    if (cur.Peek() != '"' || !ScanString(cur, true)) return false;
                    SkipSpace(cur);
                    if (cur.AtEnd() || cur.Peek() != ':') return false;
                    ++cur.m_nPos;
                    bMayClose = false;
                }
                continue;
            }
            if (nDepth == 0 || !ScanScalar(cur)) return false;
            bWantValue = false;
            continue;
        }
        ++cur.m_nPos;
        if (c == arStack[nDepth - 1]) {
            if (--nDepth == 0) return cur.AtEnd();
            continue;
        }
        if (c != ',') return false;
        bWantValue = true;
        if (arStack[nDepth - 1] == '}') {
            SkipSpace(cur);
            if (cur.AtEnd() || cur.Peek() != '"' || !ScanString(cur, true)) return false;
            SkipSpace(cur);
            if (cur.AtEnd() || cur.Peek() != ':') return false;
            ++cur.m_nPos;
        }
    }
}

int HexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Four hexadecimal digits at p[0..3] when all are there.
bool ReadHex4(const char* p, int nAvail, UINT& uCode) {
    if (nAvail < kHexDigitsOfEscape) return false;
    uCode = 0;
    for (int i = 0; i < kHexDigitsOfEscape; ++i) {
        const int n = HexValue(p[i]);
        if (n < 0) return false;
        uCode = (uCode << 4) | (UINT)n;
    }
    return true;
}

// Resolves the \u escape whose "u" is at p[i]; gives the bytes consumed
// behind the backslash (0 when it isn't a well-formed escape).
int ReadUnicodeEscape(const char* p, int i, int nLen, UINT& uCode) {
    if (!ReadHex4(p + i + 1, nLen - i - 1, uCode)) return 0;
    int nUsed = 1 + kHexDigitsOfEscape;
    UINT uLow = 0;
    const int nLowAt = i + nUsed;
    if (uCode >= kHighSurrogateFirst && uCode < kLowSurrogateFirst && nLowAt + 1 < nLen && p[nLowAt] == '\\' &&
        p[nLowAt + 1] == 'u' && ReadHex4(p + nLowAt + 2, nLen - nLowAt - 2, uLow) && uLow >= kLowSurrogateFirst &&
        uLow < kSurrogateEnd) {
        uCode = kSurrogateBase + ((uCode - kHighSurrogateFirst) << kSurrogateShift) + (uLow - kLowSurrogateFirst);
        nUsed += 2 + kHexDigitsOfEscape;
    }
    return nUsed;
}

char SimpleEscape(char c) {
    switch (c) {
    case 'b': return '\b';
    case 'f': return '\f';
    case 'n': return '\n';
    case 'r': return '\r';
    case 't': return '\t';
    default: return c;
    }
}

// One walk for both measuring (lpDes null) and copying.
int Unescape(const char* p, int nLen, char* lpDes) {
    int nOut = 0;
    BYTE arUtf8[kUtf8Max];
    for (int i = 0; i < nLen; ++i) {
        if (p[i] != '\\') {
            if (lpDes) lpDes[nOut] = p[i];
            ++nOut;
            continue;
        }
        if (++i == nLen) break;
        UINT uCode = 0;
        const int nUsed = p[i] == 'u' ? ReadUnicodeEscape(p, i, nLen, uCode) : 0;
        if (nUsed > 0) {
            const int nBytes = TalvorCode2UTF8(uCode, arUtf8);
            for (int k = 0; k < nBytes; ++k) {
                if (lpDes) lpDes[nOut + k] = (char)arUtf8[k];
            }
            nOut += nBytes > 0 ? nBytes : 0;
            i += nUsed - 1;
            continue;
        }
        if (lpDes) lpDes[nOut] = SimpleEscape(p[i]);
        ++nOut;
    }
    return nOut;
}

// Whether the string opened at p[0] closes with its last byte: a quote
// behind an odd run of backslashes is text, not the end.
bool ClosesAtEnd(const char* p, int n) {
    if (n < 2 || p[n - 1] != '"') return false;
    int nSlashes = 0;
    while (n - 2 - nSlashes > 0 && p[n - 2 - nSlashes] == '\\') ++nSlashes;
    return nSlashes % 2 == 0;
}

}  // namespace

int TalvorJsonCheckValid(const char* lpText, int nLen, BOOL bMysqlFun) {
    constexpr int kShortest = 2;
    if (lpText == nullptr || nLen < kShortest) return 0;
    const char chOpen = lpText[0];
    if ((chOpen != '{' && chOpen != '[') || lpText[nLen - 1] != CloserOf(chOpen)) return 0;
    const bool bValid = bMysqlFun ? CheckStrict(lpText, nLen) : CheckLenient(lpText, nLen);
    return bValid ? 0 : TALVOR_ERROR_JSON_INVALID;
}

int TalvorJsonCalcDataLen(const char* lpData, int nLen) {
    if (lpData == nullptr || nLen < 1) return 0;
    return Unescape(lpData, nLen, nullptr);
}

int TalvorJsonCopyData(const char* lpData, int nLen, char* lpDes) {
    if (lpData == nullptr || lpDes == nullptr || nLen < 1) return 0;
    return Unescape(lpData, nLen, lpDes);
}

int TalvorJsonGetData(const char* lpJsonBuf, int nLen, char* lpDesBuf, int& nDesLen) {
    const int nRoom = nDesLen;
    nDesLen = 0;
    if (lpJsonBuf == nullptr || nLen < 1) {
        if (lpDesBuf && nRoom > 0) lpDesBuf[0] = 0;
        return lpDesBuf && nRoom < 1 ? TALVOR_ERROR_JSON_NO_ROOM : 0;
    }
    int nFirst = 0, nEnd = nLen;
    while (nFirst < nEnd && IsJsonSpace(lpJsonBuf[nFirst])) ++nFirst;
    while (nEnd > nFirst && IsJsonSpace(lpJsonBuf[nEnd - 1])) --nEnd;
    const char* p = lpJsonBuf + nFirst;
    int n = nEnd - nFirst;
    const bool bString = n > 0 && p[0] == '"';
    if (bString) {
        if (!ClosesAtEnd(p, n)) return TALVOR_ERROR_JSON_INVALID;
        ++p;
        n -= 2;
    }
    const int nValue = bString ? TalvorJsonCalcDataLen(p, n) : n;
    nDesLen = nValue;
    if (lpDesBuf == nullptr) return 0;
    if (nValue + 1 > nRoom) return TALVOR_ERROR_JSON_NO_ROOM;
    if (bString) {
        TalvorJsonCopyData(p, n, lpDesBuf);
    } else {
        for (int i = 0; i < n; ++i) lpDesBuf[i] = p[i];
    }
    lpDesBuf[nValue] = 0;
    return 0;
}
