// TalvorVarDataText.cpp — the text members of the typed value (case, join,
// cut, reverse, by UTF-8 characters) and its numeric functions.

#include "TalvorDecimal.h"
#include "TalvorString.h"
#include "TalvorVarDataInternal.h"

#include <climits>
#include <cmath>
#include <cstring>
#include <new>

using namespace talvorvar;

namespace {

bool IsLead(char c) { return ((BYTE)c & 0xC0) != 0x80; }

int CharCount(const char* p, int nLen)
{
    int n = 0;
    for (int i = 0; i < nLen; ++i) n += IsLead(p[i]);
    return n;
}

// Byte offset of character nChar (0 the first); nLen past the last one.
int CharOffset(const char* p, int nLen, int nChar)
{
    int i = 0;
    for (; i < nLen; ++i) {
        if (IsLead(p[i])) {
            if (nChar == 0) return i;
            --nChar;
        }
    }
    return nLen;
}

// The text this value stands for, borrowed from it or printed into vHold
// (which the caller frees). Result: false for NULL, or when printing fails.
bool TextView(const st_VARDATA& v, st_VARDATA& vHold, const char*& p, int& nLen)
{
    vHold.Init();
    if (IsVoid(v.m_vt)) return false;
    if (IsTextType(v.m_vt)) {
        p = TextOf(v, nLen);
        return true;
    }
    if (v.GetCompatibleStringValue(nullptr, vHold) != 0 || vHold.m_vt == TALVOR_VT_NULL) return false;
    p = TextOf(vHold, nLen);
    return true;
}

// Replaces v by nLen bytes at p (which may point into v's own text).
int Store(st_VARDATA& v, CTalvorBufferPool* pPool, const char* p, int nLen)
{
    st_VARDATA t;
    t.Init();
    int nResult = t.SetData(pPool, p, nLen);
    if (nResult != 0) {
        v.SetNull();
        return nResult;
    }
    v.Free();
    memcpy(&v.m_bSign, &t.m_bSign, sizeof(st_VARDATA) - offsetof(st_VARDATA, m_bSign) - sizeof(int));
    v.m_vt = t.m_vt;
    return 0;
}

// this = the characters nFirst .. nFirst + nCount - 1 (clipped) of its text.
int Cut(st_VARDATA& v, CTalvorBufferPool* pPool, long long llFirst, long long llCount)
{
    st_VARDATA hold;
    const char* p = nullptr;
    int nLen = 0;
    if (!TextView(v, hold, p, nLen)) {
        if (IsVoid(v.m_vt)) return 0;
        v.SetNull();
        return TALVOR_VARDATA_NO_MEMORY;
    }
    int nChars = CharCount(p, nLen);
    if (llFirst < 0) llCount += llFirst, llFirst = 0;
    if (llFirst > nChars) llFirst = nChars;
    if (llCount < 0) llCount = 0;
    if (llCount > nChars - llFirst) llCount = nChars - llFirst;
    int nBegin = CharOffset(p, nLen, (int)llFirst);
    int nEnd = CharOffset(p, nLen, (int)(llFirst + llCount));
    int nResult = Store(v, pPool, p + nBegin, nEnd - nBegin);
    hold.Free();
    return nResult;
}

int Fold(st_VARDATA& v, CTalvorBufferPool* pPool, bool bUpper)
{
    if (IsVoid(v.m_vt)) return 0;
    int nResult = Cut(v, pPool, 0, INT_MAX);  // a copy of its own
    if (nResult != 0 || v.m_lpszValue == nullptr) return nResult;
    if (bUpper) TalvorMakeUpper(v.m_lpszValue, v.m_nStrLen);
    else TalvorMakeLower(v.m_lpszValue, v.m_nStrLen);
    return 0;
}

void StoreNumber(st_VARDATA& v, const st_VARDATA& r)
{
    v.Free();
    v.m_vt = r.m_vt;
    memcpy(&v.m_bSign, &r.m_bSign, sizeof(st_VARDATA) - offsetof(st_VARDATA, m_bSign) - sizeof(int));
}

void StoreDouble(st_VARDATA& v, double d)
{
    st_VARDATA r;
    if (std::isfinite(d)) MakeDouble(r, d);
    else MakeNull(r);
    StoreNumber(v, r);
}

} // namespace

int st_VARDATA::Upper(CTalvorBufferPool* pPool) { return Fold(*this, pPool, true); }
int st_VARDATA::Lower(CTalvorBufferPool* pPool) { return Fold(*this, pPool, false); }

int st_VARDATA::SubString(CTalvorBufferPool* pPool, int nStart, int nCount)
{
    if (IsVoid(m_vt)) return 0;
    if (nStart == 0) return Cut(*this, pPool, 0, 0);
    if (nStart > 0) return Cut(*this, pPool, (long long)nStart - 1, nCount);
    st_VARDATA hold;
    const char* p = nullptr;
    int nLen = 0;
    if (!TextView(*this, hold, p, nLen)) return Cut(*this, pPool, 0, 0);
    long long llFirst = (long long)CharCount(p, nLen) + nStart;
    hold.Free();
    // Before the start: nothing, as MySQL gives.
    return llFirst < 0 ? Cut(*this, pPool, 0, 0) : Cut(*this, pPool, llFirst, nCount);
}

int st_VARDATA::CharTrunc(CTalvorBufferPool* pPool, int nCount) { return Cut(*this, pPool, 0, nCount); }

int st_VARDATA::Right(CTalvorBufferPool* pPool, int nCount)
{
    if (IsVoid(m_vt)) return 0;
    if (nCount <= 0) return Cut(*this, pPool, 0, 0);
    st_VARDATA hold;
    const char* p = nullptr;
    int nLen = 0;
    if (!TextView(*this, hold, p, nLen)) return Cut(*this, pPool, 0, 0);
    long long llFirst = (long long)CharCount(p, nLen) - nCount;
    hold.Free();
    return Cut(*this, pPool, llFirst < 0 ? 0 : llFirst, nCount);
}

int st_VARDATA::Reverse(CTalvorBufferPool* pPool)
{
    if (IsVoid(m_vt)) return 0;
    int nResult = Cut(*this, pPool, 0, INT_MAX);
    if (nResult != 0 || m_lpszValue == nullptr) return nResult;
    // Reverse the bytes, then each character's bytes back into order.
    char* p = m_lpszValue;
    int nLen = m_nStrLen;
    for (int i = 0, j = nLen - 1; i < j; ++i, --j) {
        char c = p[i];
        p[i] = p[j];
        p[j] = c;
    }
    for (int i = 0; i < nLen;) {
        int j = i;
        while (j < nLen && !IsLead(p[j])) ++j;  // continuation bytes now come first
        if (j == nLen) break;                    // stray ones at the end stay as they are
        for (int a = i, b = j; a < b; ++a, --b) {
            char c = p[a];
            p[a] = p[b];
            p[b] = c;
        }
        i = j + 1;
    }
    return 0;
}

int st_VARDATA::Link(CTalvorBufferPool* pPool, const st_VARDATA& b)
{
    if (IsVoid(m_vt) || IsVoid(b.m_vt)) {
        if (!IsVoid(m_vt)) SetNull();
        return 0;
    }
    st_VARDATA holdA, holdB;
    const char *pA = nullptr, *pB = nullptr;
    int nA = 0, nB = 0;
    int nResult = TALVOR_VARDATA_NO_MEMORY;
    if (TextView(*this, holdA, pA, nA) && TextView(b, holdB, pB, nB) &&
        (long long)nA + nB <= TALVOR_VARDATA_MAX_TEXT) {
        char* pJoin = new (std::nothrow) char[(size_t)nA + nB + 1];
        if (pJoin != nullptr) {
            memcpy(pJoin, pA, (size_t)nA);
            memcpy(pJoin + nA, pB, (size_t)nB);
            nResult = Store(*this, pPool, pJoin, nA + nB);
            delete[] pJoin;
        }
    }
    if (nResult != 0) SetNull();
    holdA.Free();
    holdB.Free();
    return nResult;
}

void st_VARDATA::Power(const st_VARDATA& b)
{
    if (IsVoid(m_vt) || IsVoid(b.m_vt)) {
        if (!IsVoid(m_vt)) SetNull();
        return;
    }
    StoreDouble(*this, pow(GetCompatibleDouble(), b.GetCompatibleDouble()));
}

void st_VARDATA::Sqrt()
{
    if (IsVoid(m_vt)) return;
    double d = GetCompatibleDouble();
    StoreDouble(*this, d < 0 ? NAN : sqrt(d));
}

void st_VARDATA::Trunc(int nDigits)
{
    if (IsVoid(m_vt)) return;
    st_VARDATA n, r;
    GetCompatibleNumberValue(n);
    memcpy(&r, &n, sizeof(r));
    const int MAX_SHIFT = 18;
    if (n.m_vt == TALVOR_VT_DOUBLE) {
        int k = nDigits > 308 ? 308 : nDigits < -308 ? -308 : nDigits;
        double dScale = pow(10.0, k);
        r.m_dblValue = std::trunc(n.m_dblValue * dScale) / dScale;
        if (!std::isfinite(r.m_dblValue)) r.m_dblValue = n.m_dblValue;  // too many places to cut any
    } else if (n.m_vt == TALVOR_VT_DECIMAL) {
        if (nDigits < n.m_bScale) {
            int k = nDigits < TALVOR_DECIMAL_MIN_SCALE ? TALVOR_DECIMAL_MIN_SCALE : nDigits;
            if (CTalvorDecimal::Zoom(&n, &r, (char)k, FALSE) != 0) MakeNull(r);
        }
    } else if (n.m_vt == TALVOR_VT_BIGINT && nDigits < 0) {
        if (-nDigits > MAX_SHIFT) r.m_llValue = 0;
        else {
            long long llPow = 1;
            for (int i = 0; i < -nDigits; ++i) llPow *= 10;
            r.m_llValue = n.m_llValue / llPow * llPow;
        }
    }
    StoreNumber(*this, r);
}

void st_VARDATA::Avg()
{
    if (IsVoid(m_vt)) return;
    st_VARDATA count;
    count.Init();
    count.SetData(m_nDataCount);
    StoreNumber(*this, *this / count);
}
