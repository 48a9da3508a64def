// BaseFunTextSearch.cpp — the text family that looks things up: positions,
// lists and sets, FIELD and ELT, CHAR and STRCMP, the character set name.
#include "BaseFunInternal.h"

#include <cstring>

using namespace talvorfun;

namespace {

// Most members of a set: one per bit of the 64-bit mask.
const int kSetBits = 64;

// Character position (from 1) of sub in t at or after character nFrom
// (zero-based, at most the character count), 0 when absent.
long long LocateFrom(const TextView& t, const TextView& sub, long long nFrom)
{
    int nByte = OffsetAfter(t, 0, nFrom);
    int nAt = t.bBytes ? FindBytes(t.p, t.n, sub.p, sub.n, nByte) : FindNoCase(t.p, t.n, sub.p, sub.n, nByte);
    return nAt < 0 ? 0 : CharsBefore(t, nAt) + 1;
}

int LocateCore(VARDATA& sub, VARDATA& str, long long nPos, VARDATA& result)
{
    if (nPos < 1) return SetInt(result, 0);
    TextView t, s;
    ReadText(str, t);
    ReadText(sub, s);
    // Binary on either side makes the search one of bytes.
    t.bBytes = t.bBytes || s.bBytes;
    if (nPos > 1 && nPos - 1 > Chars(t)) return SetInt(result, 0);
    return SetInt(result, LocateFrom(t, s, nPos - 1));
}

bool IsIntArg(const VARDATA& v) { return talvorvar::IsIntType(v.m_vt); }
bool IsTextArg(const VARDATA& v) { return talvorvar::IsTextType(v.m_vt); }

// Whether FIELD's args[0] equals args[i] under the kind all arguments share.
bool FieldEquals(const VARDATA& a, const VARDATA& b, bool bAllText, bool bAllInt)
{
    if (bAllText) {
        TextView ta, tb;
        ReadText(a, ta);
        ReadText(b, tb);
        return CompareText(ta, tb, true) == 0;
    }
    if (bAllInt) return a.GetCompatibleBigInt() == b.GetCompatibleBigInt();
    return a.GetCompatibleDouble() == b.GetCompatibleDouble();
}

// Appends a member of a list: the separator first unless it is the first.
char* AppendItem(char* lpOut, const TextView& sep, const TextView& item, bool bFirst)
{
    if (!bFirst) {
        memcpy(lpOut, sep.p, (size_t)sep.n);
        lpOut += sep.n;
    }
    memcpy(lpOut, item.p, (size_t)item.n);
    return lpOut + item.n;
}

} // namespace

int CBaseFunManager::TalvorChar(CTalvorBufferPool* pool, int nCount, st_VARDATA* args, VARDATA& result)
{
    if (nCount < 0 || (nCount > 0 && args == nullptr) || nCount > TALVOR_FUN_MAX_RESULT / 4)
        return SetNullResult(result);
    char* lpOut = nullptr;
    int nRet = NewText(pool, 4LL * nCount, result, lpOut, TALVOR_VT_BINARY);
    if (lpOut == nullptr) return nRet;
    int n = 0;
    for (int i = 0; i < nCount; ++i) {
        if (IsNullArg(args[i])) continue;
        UINT u = (UINT)(unsigned long long)IntArg(args[i]);
        bool bStarted = false;
        for (int nShift = 24; nShift >= 0; nShift -= 8) {
            BYTE b = (BYTE)(u >> nShift);
            if (b == 0 && !bStarted && nShift > 0) continue;
            bStarted = true;
            lpOut[n++] = (char)b;
        }
    }
    lpOut[n] = 0;
    result.m_nStrLen = n;
    return 0;
}

int CBaseFunManager::TalvorStrCmp(CTalvorBufferPool*, VARDATA& a, VARDATA& b, VARDATA& result)
{
    if (IsNullArg(a) || IsNullArg(b)) return SetNullResult(result);
    TextView ta, tb;
    ReadText(a, ta);
    ReadText(b, tb);
    return SetInt(result, CompareText(ta, tb, true));
}

int CBaseFunManager::Find_In_Set(CTalvorBufferPool*, VARDATA& str, VARDATA& list, VARDATA& result)
{
    if (IsNullArg(str) || IsNullArg(list)) return SetNullResult(result);
    TextView s, l;
    ReadText(str, s);
    ReadText(list, l);
    if (l.n == 0 || memchr(s.p, ',', (size_t)s.n) != nullptr) return SetInt(result, 0);
    long long nItem = 1;
    for (int nStart = 0; nStart <= l.n; ++nItem) {
        const char* lpComma = (const char*)memchr(l.p + nStart, ',', (size_t)(l.n - nStart));
        int nEnd = lpComma == nullptr ? l.n : (int)(lpComma - l.p);
        TextView item;
        item.p = l.p + nStart;
        item.n = nEnd - nStart;
        if (CompareText(item, s, false) == 0) return SetInt(result, nItem);
        nStart = nEnd + 1;
    }
    return SetInt(result, 0);
}

int CBaseFunManager::Make_Set(CTalvorBufferPool* pool, int nCount, st_VARDATA* args, VARDATA& result)
{
    if (nCount < 1 || args == nullptr || IsNullArg(args[0])) return SetNullResult(result);
    unsigned long long ullBits = (unsigned long long)IntArg(args[0]);
    TextView sep, t;
    sep.p = ",";
    sep.n = 1;
    long long nTotal = 0;
    int nItems = 0;
    for (int i = 1; i < nCount && i <= kSetBits; ++i) {
        if (!((ullBits >> (i - 1)) & 1) || IsNullArg(args[i])) continue;
        ReadText(args[i], t);
        nTotal += t.n + (nItems++ > 0 ? 1 : 0);
    }
    if (nTotal > TALVOR_FUN_MAX_RESULT) return SetNullResult(result);
    char* lpOut = nullptr;
    int nRet = NewText(pool, nTotal, result, lpOut);
    nItems = 0;
    for (int i = 1; lpOut != nullptr && i < nCount && i <= kSetBits; ++i) {
        if (!((ullBits >> (i - 1)) & 1) || IsNullArg(args[i])) continue;
        ReadText(args[i], t);
        lpOut = AppendItem(lpOut, sep, t, nItems++ == 0);
    }
    return nRet;
}

int CBaseFunManager::Export_Set(CTalvorBufferPool* pool, int nCount, st_VARDATA* args, VARDATA& result)
{
    if (nCount < 3 || nCount > 5 || args == nullptr) return TALVOR_FUN_BAD_TYPE;
    for (int i = 0; i < nCount; ++i)
        if (IsNullArg(args[i])) return SetNullResult(result);
    unsigned long long ullBits = (unsigned long long)IntArg(args[0]);
    TextView on, off, sep;
    ReadText(args[1], on);
    ReadText(args[2], off);
    sep.p = ",";
    sep.n = 1;
    if (nCount > 3) ReadText(args[3], sep);
    // The count is read as 32 bits unsigned, so a negative one asks for all.
    long long nBits = nCount > 4 ? (UINT)IntArg(args[4]) : kSetBits;
    if (nBits > kSetBits) nBits = kSetBits;
    long long nTotal = 0;
    for (long long i = 0; i < nBits; ++i) nTotal += ((ullBits >> i) & 1 ? on.n : off.n) + (i > 0 ? sep.n : 0);
    if (nTotal > TALVOR_FUN_MAX_RESULT) return SetNullResult(result);
    char* lpOut = nullptr;
    int nRet = NewText(pool, nTotal, result, lpOut);
    for (long long i = 0; lpOut != nullptr && i < nBits; ++i)
        lpOut = AppendItem(lpOut, sep, (ullBits >> i) & 1 ? on : off, i == 0);
    return nRet;
}

int CBaseFunManager::Elt(CTalvorBufferPool* pool, int nCount, st_VARDATA* args, VARDATA& result)
{
    if (nCount < 1 || args == nullptr || IsNullArg(args[0])) return SetNullResult(result);
    long long n = IntArg(args[0]);
    if (n < 1 || n >= nCount) return SetNullResult(result);
    if (IsNullArg(args[n])) return SetNullResult(result);
    TextView t;
    ReadText(args[n], t);
    return SetText(pool, t.p, t.n, result);
}

int CBaseFunManager::TalvorField(CTalvorBufferPool*, int nCount, st_VARDATA* args, VARDATA& result)
{
    if (nCount < 1 || args == nullptr || IsNullArg(args[0])) return SetInt(result, 0);
    bool bAllText = true, bAllInt = true;
    for (int i = 0; i < nCount; ++i) {
        if (IsNullArg(args[i])) continue;
        bAllText = bAllText && IsTextArg(args[i]);
        bAllInt = bAllInt && IsIntArg(args[i]);
    }
    for (int i = 1; i < nCount; ++i) {
        if (!IsNullArg(args[i]) && FieldEquals(args[0], args[i], bAllText, bAllInt)) return SetInt(result, i);
    }
    return SetInt(result, 0);
}

int CBaseFunManager::InStr(CTalvorBufferPool*, VARDATA& str, VARDATA& sub, VARDATA& result)
{
    if (IsNullArg(str) || IsNullArg(sub)) return SetNullResult(result);
    return LocateCore(sub, str, 1, result);
}

int CBaseFunManager::Locate(CTalvorBufferPool*, VARDATA& sub, VARDATA& str, VARDATA& result)
{
    if (IsNullArg(str) || IsNullArg(sub)) return SetNullResult(result);
    return LocateCore(sub, str, 1, result);
}

int CBaseFunManager::Locate(CTalvorBufferPool*, VARDATA& sub, VARDATA& str, VARDATA& pos, VARDATA& result)
{
    if (IsNullArg(str) || IsNullArg(sub) || IsNullArg(pos)) return SetNullResult(result);
    return LocateCore(sub, str, IntArg(pos), result);
}

int CBaseFunManager::Position(CTalvorBufferPool* pool, VARDATA& sub, VARDATA& str, VARDATA& result)
{
    return Locate(pool, sub, str, result);
}

int CBaseFunManager::CharSet(CTalvorBufferPool* pool, VARDATA& value, VARDATA& result)
{
    bool bText = talvorvar::IsTextType(value.m_vt) && value.m_vt != TALVOR_VT_BINARY && value.m_vt != TALVOR_VT_HEX;
    if (bText) return SetText(pool, "utf8mb4", 7, result);
    return SetText(pool, "binary", 6, result);
}

int CBaseFunManager::Name_Const(CTalvorBufferPool* pool, VARDATA&, VARDATA& value, VARDATA& result)
{
    return CopyResult(pool, value, result);
}
