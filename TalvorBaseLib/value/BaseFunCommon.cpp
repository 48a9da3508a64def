// BaseFunCommon.cpp — reading arguments as text and setting results, for
// every family of the function library.
#include "BaseFunInternal.h"
#include "TalvorNumberText.h"

#include <cstring>

namespace talvorfun {

using namespace talvorvar;

void ReadText(const VARDATA& v, TextView& t)
{
    t.p = "";
    t.n = 0;
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

int NewText(CTalvorBufferPool* pool, long long nLen, VARDATA& result, char*& lpOut, BYTE bType)
{
    lpOut = nullptr;
    result.SetNull();
    if (nLen < 0 || nLen > TALVOR_FUN_MAX_RESULT) return 0;
    LPBYTE p = pool == nullptr ? nullptr : pool->AllocBuffer((UINT)nLen + 1);
    if (p == nullptr) return TALVOR_VARDATA_NO_MEMORY;
    p[nLen] = 0;
    lpOut = (char*)p;
    result.AttachString(lpOut, (int)nLen, bType);
    return 0;
}

int SetText(CTalvorBufferPool* pool, const char* p, long long nLen, VARDATA& result, BYTE bType)
{
    char* lpOut = nullptr;
    int nRet = NewText(pool, nLen, result, lpOut, bType);
    if (lpOut != nullptr && nLen > 0) memcpy(lpOut, p, (size_t)nLen);
    return nRet;
}

int SetInt(VARDATA& result, long long ll)
{
    result.SetData(ll);
    return 0;
}

int SetNullResult(VARDATA& result)
{
    result.SetNull();
    return 0;
}

int CopyResult(CTalvorBufferPool* pool, const VARDATA& src, VARDATA& result)
{
    if (&src == &result) return 0;
    if (IsVoid(src.m_vt)) {
        result.SetNull();
        return 0;
    }
    if (IsTextType(src.m_vt)) {
        // A copy keeps binary bytes whole and never owns its text.
        TextView t;
        ReadText(src, t);
        BYTE bType = src.m_vt == TALVOR_VT_BINARY || src.m_vt == TALVOR_VT_HEX ? TALVOR_VT_BINARY : TALVOR_VT_TEXT;
        return SetText(pool, t.p, t.n, result, bType);
    }
    return result.SetData(pool, src);
}

int CharCount(const char* p, int nLen)
{
    int nChars = 0;
    for (int i = 0; i < nLen; i += CharBytes((unsigned char)p[i])) ++nChars;
    return nChars;
}

int CharOffset(const char* p, int nLen, long long nChars)
{
    int i = 0;
    for (; i < nLen && nChars > 0; --nChars) i += CharBytes((unsigned char)p[i]);
    return i < nLen ? i : nLen;
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

int FindNoCase(const char* p, int nLen, const char* lpSub, int nSubLen, int nFrom)
{
    if (nSubLen == 0) return nFrom <= nLen ? nFrom : -1;
    for (int i = nFrom; i + nSubLen <= nLen; i += CharBytes((unsigned char)p[i])) {
        int k = 0;
        while (k < nSubLen && Folded(p[i + k]) == Folded(lpSub[k])) ++k;
        if (k == nSubLen) return i;
    }
    return -1;
}

} // namespace talvorfun
