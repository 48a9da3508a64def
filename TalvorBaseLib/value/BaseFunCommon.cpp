// BaseFunCommon.cpp — reading arguments as text and setting results, for
// every family of the function library.
#include "BaseFunInternal.h"
#include "TalvorNumberText.h"

#include <climits>
#include <cmath>
#include <cstring>

namespace talvorfun {

using namespace talvorvar;

void ReadOtherText(const VARDATA& v, TextView& t)
{
    t.p = "";
    t.n = 0;
    t.bBytes = v.m_vt == TALVOR_VT_BINARY || v.m_vt == TALVOR_VT_HEX;
    if (IsVoid(v.m_vt)) return;
    if (v.m_vt == TALVOR_VT_BINARY || v.m_vt == TALVOR_VT_HEX) {
        // Binary bytes may end in NUL bytes that are data, not a terminator.
        if (v.m_lpszValue != nullptr && v.m_nStrLen > 0) {
            t.p = v.m_lpszValue;
            t.n = v.m_nStrLen;
        }
        return;
    }
    if (IsTextType(v.m_vt)) {
        t.p = TextOf(v, t.n);
        return;
    }
    t.n = ConvertVarData2String(v, t.sz);
    if (v.m_vt == TALVOR_VT_DOUBLE && memchr(t.sz, '.', t.n) != nullptr) t.n = TrimTailZero(t.sz, TRUE);
    t.p = t.sz;
}

namespace {

// The integer at the head of a text, after blanks and a sign: what SQL
// reads from '2x' or '2.7' (2); no digits read as 0; saturating.
long long IntegerHead(const char* p, int nLen)
{
    int i = 0;
    while (i < nLen && (p[i] == ' ' || p[i] == '\t' || p[i] == '\n' || p[i] == '\r')) ++i;
    bool bNeg = i < nLen && p[i] == '-';
    if (i < nLen && (p[i] == '-' || p[i] == '+')) ++i;
    unsigned long long ull = 0;
    const unsigned long long ullLimit = bNeg ? (unsigned long long)LLONG_MAX + 1 : (unsigned long long)LLONG_MAX;
    for (; i < nLen && p[i] >= '0' && p[i] <= '9'; ++i) {
        unsigned nDigit = (unsigned)(p[i] - '0');
        if (ull > (ullLimit - nDigit) / 10) return bNeg ? LLONG_MIN : LLONG_MAX;
        ull = ull * 10 + nDigit;
    }
    return bNeg ? (long long)(0 - ull) : (long long)ull;
}

} // namespace

long long IntArg(const VARDATA& v)
{
    if (IsTextType(v.m_vt) && !IsHexText(v)) {
        TextView t;
        ReadText(v, t);
        return IntegerHead(t.p, t.n);
    }
    if (v.m_vt != TALVOR_VT_DOUBLE) return v.GetCompatibleBigInt();
    double d = rint(v.m_dblValue);
    if (!(d > -9223372036854775808.0)) return LLONG_MIN;
    if (d >= 9223372036854775808.0) return LLONG_MAX;
    return (long long)d;
}

int NewText(CTalvorBufferPool* pool, long long nLen, VARDATA& result, char*& lpOut, BYTE bType)
{
    lpOut = nullptr;
    ResetResult(result, TALVOR_VT_NULL);
    if (nLen < 0 || nLen > TALVOR_FUN_MAX_RESULT) return 0;
    LPBYTE p = pool == nullptr ? nullptr : pool->AllocBuffer((UINT)nLen + 1);
    if (p == nullptr) return TALVOR_VARDATA_NO_MEMORY;
    p[nLen] = 0;
    lpOut = (char*)p;
    result.m_vt = bType;
    result.m_lpszValue = lpOut;
    result.m_nStrLen = (int)nLen;
    return 0;
}

int SetText(CTalvorBufferPool* pool, const char* p, long long nLen, VARDATA& result, BYTE bType)
{
    char* lpOut = nullptr;
    int nRet = NewText(pool, nLen, result, lpOut, bType);
    if (lpOut != nullptr && nLen > 0) memcpy(lpOut, p, (size_t)nLen);
    return nRet;
}

int CopyText(CTalvorBufferPool* pool, const VARDATA& src, VARDATA& result)
{
    TextView t;
    ReadText(src, t);
    BYTE bType = src.m_vt == TALVOR_VT_BINARY || src.m_vt == TALVOR_VT_HEX ? TALVOR_VT_BINARY : TALVOR_VT_TEXT;
    return SetText(pool, t.p, t.n, result, bType);
}

int CharOffset(const char* p, int nLen, long long nChars)
{
    int i = 0;
    for (; i < nLen && nChars > 0; --nChars) i = NextChar(p, nLen, i);
    return i;
}

int FindBytes(const char* p, int nLen, const char* lpSub, int nSubLen, int nFrom)
{
    if (nSubLen == 0) return nFrom <= nLen ? nFrom : -1;
    for (int i = nFrom; i + nSubLen <= nLen; ++i) {
        if (p[i] == lpSub[0] && memcmp(p + i, lpSub, (size_t)nSubLen) == 0) return i;
    }
    return -1;
}

namespace {

inline unsigned char Folded(char ch)
{
    unsigned char b = (unsigned char)ch;
    return b >= 'A' && b <= 'Z' ? (unsigned char)(b + ('a' - 'A')) : b;
}

} // namespace

int CompareText(const TextView& a, const TextView& b, bool bPadSpace)
{
    int nMin = a.n < b.n ? a.n : b.n;
    for (int i = 0; i < nMin; ++i) {
        unsigned char x = Folded(a.p[i]), y = Folded(b.p[i]);
        if (x != y) return x < y ? -1 : 1;
    }
    if (a.n == b.n) return 0;
    if (!bPadSpace) return a.n < b.n ? -1 : 1;
    // The rest of the longer text against blanks.
    const TextView& l = a.n > b.n ? a : b;
    int nSign = a.n > b.n ? 1 : -1;
    for (int i = nMin; i < l.n; ++i) {
        unsigned char x = (unsigned char)l.p[i];
        if (x != ' ') return x < ' ' ? -nSign : nSign;
    }
    return 0;
}

namespace {

// Below this many bytes a candidate is looked for byte by byte.
const int kShortScan = 64;

// The first byte at or after p of nLen that is ch or, for a letter, its
// other case: memchr for each, the second bounded by the first's find.
const char* FindFirstByte(const char* p, int nLen, unsigned char ch)
{
    if (nLen < kShortScan) {
        // Short texts, the common case: one pass beats two library calls.
        unsigned char bFold = ch >= 'a' && ch <= 'z' ? 0x20 : 0;
        for (int i = 0; i < nLen; ++i)
            if (((unsigned char)p[i] | bFold) == ch) return p + i;
        return nullptr;
    }
    const char* q = (const char*)memchr(p, ch, (size_t)nLen);
    if (ch < 'a' || ch > 'z') return q;
    int nUpTo = q == nullptr ? nLen : (int)(q - p);
    const char* r = (const char*)memchr(p, ch - ('a' - 'A'), (size_t)nUpTo);
    return r != nullptr ? r : q;
}

} // namespace

int FindNoCase(const char* p, int nLen, const char* lpSub, int nSubLen, int nFrom)
{
    if (nSubLen == 0) return nFrom <= nLen ? nFrom : -1;
    unsigned char bFirst = Folded(lpSub[0]);
    for (int i = nFrom; i + nSubLen <= nLen; ++i) {
        const char* q = FindFirstByte(p + i, nLen - nSubLen + 1 - i, bFirst);
        if (q == nullptr) return -1;
        i = (int)(q - p);
        if (i != nFrom && IsContinuation((unsigned char)p[i])) continue;
        int k = 1;
        while (k < nSubLen && Folded(p[i + k]) == Folded(lpSub[k])) ++k;
        if (k == nSubLen) return i;
    }
    return -1;
}

} // namespace talvorfun
