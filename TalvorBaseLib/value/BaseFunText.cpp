// BaseFunText.cpp — the text family that cuts and joins: concat, substrings,
// replace, insert, repeat, trims, pads, quote and the length measures.
// Positions and counts are UTF-8 characters; results go to the pool.
#include "BaseFunInternal.h"

#include <cstring>

using namespace talvorfun;

namespace {

// Arguments of CONCAT kept read between its two passes.
const int kConcatViews = 4;

// A count from a value, kept within what a result could ever hold so that
// later arithmetic on it cannot overflow.
long long CountOf(const VARDATA& v)
{
    long long ll = IntArg(v);
    const long long llLimit = (long long)TALVOR_FUN_MAX_RESULT * 8;
    if (ll > llLimit) return llLimit;
    if (ll < -llLimit) return -llLimit;
    return ll;
}

// The characters [nFromChar, nFromChar + nChars) of t as the result.
int CharSlice(CTalvorBufferPool* pool, const TextView& t, long long nFromChar, long long nChars, VARDATA& result)
{
    int nStart = OffsetAfter(t, 0, nFromChar);
    int nEnd = OffsetAfter(t, nStart, nChars);
    return SetText(pool, t.p + nStart, nEnd - nStart, result, ResultTypeOf(t));
}

// SUBSTRING's start: a zero-based character index, or -1 for none.
long long SubStart(const TextView& t, long long nPos)
{
    if (nPos == 0) return -1;
    if (nPos > 0) return nPos - 1;
    long long nChars = Chars(t);
    return nChars + nPos >= 0 ? nChars + nPos : -1;
}

int SubStringCore(CTalvorBufferPool* pool, VARDATA& str, long long nPos, long long nLen, VARDATA& result)
{
    TextView t;
    ReadText(str, t);
    long long nStart = SubStart(t, nPos);
    if (nStart < 0 || nLen <= 0) return SetText(pool, "", 0, result);
    return CharSlice(pool, t, nStart, nLen, result);
}

// Bytes of the pad result of nChars characters made of pad repeated.
long long PadBytes(const TextView& pad, long long nChars)
{
    int nPadChars = Chars(pad);
    long long nWhole = nChars / nPadChars;
    return nWhole * pad.n + OffsetAfter(pad, 0, nChars % nPadChars);
}

char* FillPad(char* lpOut, const TextView& pad, long long nBytes)
{
    for (long long i = 0; i < nBytes; i += pad.n) {
        long long nTake = nBytes - i < pad.n ? nBytes - i : pad.n;
        memcpy(lpOut + i, pad.p, (size_t)nTake);
    }
    return lpOut + nBytes;
}

bool IsTrimBlank(char ch) { return ch == ' '; }

int TrimBlanks(CTalvorBufferPool* pool, VARDATA& str, bool bLeft, bool bRight, VARDATA& result)
{
    if (IsNullArg(str)) return SetNullResult(result);
    TextView t;
    ReadText(str, t);
    int nStart = 0, nEnd = t.n;
    while (bLeft && nStart < nEnd && IsTrimBlank(t.p[nStart])) ++nStart;
    while (bRight && nEnd > nStart && IsTrimBlank(t.p[nEnd - 1])) --nEnd;
    return SetText(pool, t.p + nStart, nEnd - nStart, result);
}

bool AnyNull(int nCount, const st_VARDATA* args)
{
    for (int i = 0; i < nCount; ++i)
        if (IsNullArg(args[i])) return true;
    return false;
}

} // namespace

int CBaseFunManager::Concat(CTalvorBufferPool* pool, int nCount, st_VARDATA* args, VARDATA& result)
{
    if (nCount < 1 || args == nullptr || AnyNull(nCount, args)) return SetNullResult(result);
    // The common few arguments are read once; more are read twice.
    TextView views[kConcatViews];
    long long nTotal = 0;
    for (int i = 0; i < nCount; ++i) {
        TextView t;
        TextView& v = i < kConcatViews ? views[i] : t;
        ReadText(args[i], v);
        nTotal += v.n;
        if (nTotal > TALVOR_FUN_MAX_RESULT) return SetNullResult(result);
    }
    char* lpOut = nullptr;
    int nRet = NewText(pool, nTotal, result, lpOut);
    for (int i = 0; lpOut != nullptr && i < nCount; ++i) {
        TextView t;
        if (i >= kConcatViews) ReadText(args[i], t);
        const TextView& v = i < kConcatViews ? views[i] : t;
        memcpy(lpOut, v.p, (size_t)v.n);
        lpOut += v.n;
    }
    return nRet;
}

int CBaseFunManager::Concat_WS(CTalvorBufferPool* pool, int nCount, st_VARDATA* args, VARDATA& result)
{
    if (nCount < 1 || args == nullptr || IsNullArg(args[0])) return SetNullResult(result);
    TextView sep, t;
    ReadText(args[0], sep);
    long long nTotal = 0;
    int nParts = 0;
    for (int i = 1; i < nCount; ++i) {
        if (IsNullArg(args[i])) continue;
        ReadText(args[i], t);
        nTotal += t.n + (nParts++ > 0 ? sep.n : 0);
        if (nTotal > TALVOR_FUN_MAX_RESULT) return SetNullResult(result);
    }
    char* lpOut = nullptr;
    int nRet = NewText(pool, nTotal, result, lpOut);
    nParts = 0;
    for (int i = 1; lpOut != nullptr && i < nCount; ++i) {
        if (IsNullArg(args[i])) continue;
        if (nParts++ > 0) {
            memcpy(lpOut, sep.p, (size_t)sep.n);
            lpOut += sep.n;
        }
        ReadText(args[i], t);
        memcpy(lpOut, t.p, (size_t)t.n);
        lpOut += t.n;
    }
    return nRet;
}

int CBaseFunManager::SubString(CTalvorBufferPool* pool, VARDATA& str, VARDATA& pos, VARDATA& result)
{
    if (IsNullArg(str) || IsNullArg(pos)) return SetNullResult(result);
    return SubStringCore(pool, str, CountOf(pos), (long long)TALVOR_FUN_MAX_RESULT * 8, result);
}

int CBaseFunManager::SubString(CTalvorBufferPool* pool, VARDATA& str, VARDATA& pos, VARDATA& len, VARDATA& result)
{
    if (IsNullArg(str) || IsNullArg(pos) || IsNullArg(len)) return SetNullResult(result);
    return SubStringCore(pool, str, CountOf(pos), CountOf(len), result);
}

int CBaseFunManager::SubString_Index(CTalvorBufferPool* pool, VARDATA& str, VARDATA& delim, VARDATA& count,
                                     VARDATA& result)
{
    if (IsNullArg(str) || IsNullArg(delim) || IsNullArg(count)) return SetNullResult(result);
    TextView t, d;
    ReadText(str, t);
    ReadText(delim, d);
    long long nCount = CountOf(count);
    if (nCount == 0 || d.n == 0) return SetText(pool, "", 0, result);
    if (nCount > 0) {
        int nAt = -d.n;
        for (long long i = 0; i < nCount; ++i) {
            nAt = FindBytes(t.p, t.n, d.p, d.n, nAt + d.n);
            if (nAt < 0) return SetText(pool, t.p, t.n, result);
        }
        return SetText(pool, t.p, nAt, result);
    }
    // From the right: the delimiters are found left to right without overlap,
    // and the count picks among the last of them.
    int nFound = 0;
    for (int nAt = FindBytes(t.p, t.n, d.p, d.n, 0); nAt >= 0; nAt = FindBytes(t.p, t.n, d.p, d.n, nAt + d.n))
        ++nFound;
    if (-nCount > nFound) return SetText(pool, t.p, t.n, result);
    long long nSkip = nFound + nCount;
    int nAt = FindBytes(t.p, t.n, d.p, d.n, 0);
    for (long long i = 0; i < nSkip; ++i) nAt = FindBytes(t.p, t.n, d.p, d.n, nAt + d.n);
    return SetText(pool, t.p + nAt + d.n, t.n - nAt - d.n, result);
}

int CBaseFunManager::Left(CTalvorBufferPool* pool, VARDATA& str, VARDATA& n, VARDATA& result)
{
    if (IsNullArg(str) || IsNullArg(n)) return SetNullResult(result);
    TextView t;
    ReadText(str, t);
    long long nChars = CountOf(n);
    return CharSlice(pool, t, 0, nChars > 0 ? nChars : 0, result);
}

int CBaseFunManager::Right(CTalvorBufferPool* pool, VARDATA& str, VARDATA& n, VARDATA& result)
{
    if (IsNullArg(str) || IsNullArg(n)) return SetNullResult(result);
    TextView t;
    ReadText(str, t);
    long long nChars = CountOf(n), nHave = Chars(t);
    if (nChars <= 0) return SetText(pool, "", 0, result);
    return CharSlice(pool, t, nChars >= nHave ? 0 : nHave - nChars, nChars, result);
}

int CBaseFunManager::Replace(CTalvorBufferPool* pool, VARDATA& str, VARDATA& from, VARDATA& to, VARDATA& result)
{
    if (IsNullArg(str) || IsNullArg(from) || IsNullArg(to)) return SetNullResult(result);
    TextView t, f, r;
    ReadText(str, t);
    ReadText(from, f);
    ReadText(to, r);
    if (f.n == 0) return SetText(pool, t.p, t.n, result);
    long long nTotal = t.n;
    for (int nAt = FindBytes(t.p, t.n, f.p, f.n, 0); nAt >= 0; nAt = FindBytes(t.p, t.n, f.p, f.n, nAt + f.n))
        nTotal += r.n - f.n;
    if (nTotal > TALVOR_FUN_MAX_RESULT) return SetNullResult(result);
    char* lpOut = nullptr;
    int nRet = NewText(pool, nTotal, result, lpOut);
    if (lpOut == nullptr) return nRet;
    int nDone = 0;
    for (int nAt = FindBytes(t.p, t.n, f.p, f.n, 0); nAt >= 0; nAt = FindBytes(t.p, t.n, f.p, f.n, nAt + f.n)) {
        memcpy(lpOut, t.p + nDone, (size_t)(nAt - nDone));
        lpOut += nAt - nDone;
        memcpy(lpOut, r.p, (size_t)r.n);
        lpOut += r.n;
        nDone = nAt + f.n;
    }
    memcpy(lpOut, t.p + nDone, (size_t)(t.n - nDone));
    return 0;
}

int CBaseFunManager::string_insert(CTalvorBufferPool* pool, const char* lpSrc, int nSrcLen, int nBytePos,
                                   int nCutLen, const char* lpNew, int nNewLen, VARDATA& result)
{
    if (nBytePos < 0 || nBytePos > nSrcLen) nBytePos = nSrcLen;
    if (nCutLen < 0 || nCutLen > nSrcLen - nBytePos) nCutLen = nSrcLen - nBytePos;
    long long nTotal = (long long)nSrcLen - nCutLen + nNewLen;
    char* lpOut = nullptr;
    int nRet = NewText(pool, nTotal, result, lpOut);
    if (lpOut == nullptr) return nRet;
    memcpy(lpOut, lpSrc, (size_t)nBytePos);
    memcpy(lpOut + nBytePos, lpNew, (size_t)nNewLen);
    memcpy(lpOut + nBytePos + nNewLen, lpSrc + nBytePos + nCutLen, (size_t)(nSrcLen - nBytePos - nCutLen));
    return 0;
}

int CBaseFunManager::Insert(CTalvorBufferPool* pool, VARDATA& str, VARDATA& pos, VARDATA& len, VARDATA& newstr,
                            VARDATA& result)
{
    if (IsNullArg(str) || IsNullArg(pos) || IsNullArg(len) || IsNullArg(newstr)) return SetNullResult(result);
    TextView t, r;
    ReadText(str, t);
    ReadText(newstr, r);
    long long nPos = CountOf(pos), nLen = CountOf(len), nChars = Chars(t);
    if (nPos < 1 || nPos > nChars) return SetText(pool, t.p, t.n, result);
    int nByte = OffsetAfter(t, 0, nPos - 1);
    int nCut = nLen < 0 ? t.n - nByte : OffsetAfter(t, nByte, nLen) - nByte;
    return string_insert(pool, t.p, t.n, nByte, nCut, r.p, r.n, result);
}

int CBaseFunManager::Reverse(CTalvorBufferPool* pool, VARDATA& str, VARDATA& result)
{
    if (IsNullArg(str)) return SetNullResult(result);
    TextView t;
    ReadText(str, t);
    char* lpOut = nullptr;
    int nRet = NewText(pool, t.n, result, lpOut, ResultTypeOf(t));
    for (int i = 0; lpOut != nullptr && i < t.n;) {
        int nChar = CharAt(t, i);
        if (nChar > t.n - i) nChar = t.n - i;
        memcpy(lpOut + t.n - i - nChar, t.p + i, (size_t)nChar);
        i += nChar;
    }
    return nRet;
}

int CBaseFunManager::Repeat(CTalvorBufferPool* pool, VARDATA& str, VARDATA& count, VARDATA& result)
{
    if (IsNullArg(str) || IsNullArg(count)) return SetNullResult(result);
    TextView t;
    ReadText(str, t);
    long long nCount = CountOf(count);
    if (nCount < 1 || t.n == 0) return SetText(pool, "", 0, result);
    if (nCount > TALVOR_FUN_MAX_RESULT / t.n) return SetNullResult(result);
    char* lpOut = nullptr;
    int nRet = NewText(pool, nCount * t.n, result, lpOut);
    for (long long i = 0; lpOut != nullptr && i < nCount; ++i) memcpy(lpOut + i * t.n, t.p, (size_t)t.n);
    return nRet;
}

int CBaseFunManager::Space(CTalvorBufferPool* pool, VARDATA& n, VARDATA& result)
{
    if (IsNullArg(n)) return SetNullResult(result);
    long long nCount = CountOf(n);
    if (nCount < 1) return SetText(pool, "", 0, result);
    char* lpOut = nullptr;
    int nRet = NewText(pool, nCount, result, lpOut);
    if (lpOut != nullptr) memset(lpOut, ' ', (size_t)nCount);
    return nRet;
}

int CBaseFunManager::LTrim(CTalvorBufferPool* pool, VARDATA& str, VARDATA& result)
{
    return TrimBlanks(pool, str, true, false, result);
}

int CBaseFunManager::RTrim(CTalvorBufferPool* pool, VARDATA& str, VARDATA& result)
{
    return TrimBlanks(pool, str, false, true, result);
}

int CBaseFunManager::Trim(CTalvorBufferPool* pool, VARDATA& str, VARDATA& result)
{
    return TrimBlanks(pool, str, true, true, result);
}

int CBaseFunManager::Trim(CTalvorBufferPool* pool, VARDATA& str, VARDATA& remstr, int nWhere, VARDATA& result)
{
    if (IsNullArg(str) || IsNullArg(remstr)) return SetNullResult(result);
    if (nWhere != TALVOR_FUN_TRIM_LEADING && nWhere != TALVOR_FUN_TRIM_BOTH && nWhere != TALVOR_FUN_TRIM_TRAILING)
        return TALVOR_FUN_BAD_FUNCTION;
    TextView t, r;
    ReadText(str, t);
    ReadText(remstr, r);
    int nStart = 0, nEnd = t.n;
    if (r.n > 0 && nWhere != TALVOR_FUN_TRIM_TRAILING) {
        while (nEnd - nStart >= r.n && memcmp(t.p + nStart, r.p, (size_t)r.n) == 0) nStart += r.n;
    }
    if (r.n > 0 && nWhere != TALVOR_FUN_TRIM_LEADING) {
        while (nEnd - nStart >= r.n && memcmp(t.p + nEnd - r.n, r.p, (size_t)r.n) == 0) nEnd -= r.n;
    }
    return SetText(pool, t.p + nStart, nEnd - nStart, result);
}

int CBaseFunManager::LRPad(CTalvorBufferPool* pool, VARDATA& str, VARDATA& len, VARDATA& pad, BOOL bLeft,
                           VARDATA& result)
{
    if (IsNullArg(str) || IsNullArg(len) || IsNullArg(pad)) return SetNullResult(result);
    TextView t, p;
    ReadText(str, t);
    ReadText(pad, p);
    long long nWant = IntArg(len), nHave = Chars(t);
    if (nWant < 0) return SetNullResult(result);
    if (nWant <= nHave) return CharSlice(pool, t, 0, nWant, result);
    // A character takes a byte at least: more characters than the bound can
    // never fit, whatever the pad.
    if (p.n == 0 || nWant > TALVOR_FUN_MAX_RESULT) return SetNullResult(result);
    long long nPadBytes = PadBytes(p, nWant - nHave);
    char* lpOut = nullptr;
    int nRet = NewText(pool, nPadBytes + t.n, result, lpOut);
    if (lpOut == nullptr) return nRet;
    if (bLeft) {
        memcpy(FillPad(lpOut, p, nPadBytes), t.p, (size_t)t.n);
    } else {
        memcpy(lpOut, t.p, (size_t)t.n);
        FillPad(lpOut + t.n, p, nPadBytes);
    }
    return 0;
}

int CBaseFunManager::string_quote(const char* lpSrc, int nLen, char* lpszOut)
{
    int n = 0;
    lpszOut[n++] = '\'';
    for (int i = 0; i < nLen; ++i) {
        char ch = lpSrc[i];
        if (ch == '\\' || ch == '\'') {
            lpszOut[n++] = '\\';
            lpszOut[n++] = ch;
        } else if (ch == 0) {
            lpszOut[n++] = '\\';
            lpszOut[n++] = '0';
        } else if (ch == '\032') {
            lpszOut[n++] = '\\';
            lpszOut[n++] = 'Z';
        } else {
            lpszOut[n++] = ch;
        }
    }
    lpszOut[n++] = '\'';
    return n;
}

int CBaseFunManager::Quote(CTalvorBufferPool* pool, VARDATA& str, VARDATA& result)
{
    if (IsNullArg(str)) return SetText(pool, "NULL", 4, result);
    TextView t;
    ReadText(str, t);
    if (2LL * t.n + 2 > TALVOR_FUN_MAX_RESULT) return SetNullResult(result);
    LPBYTE lpBuf = pool == nullptr ? nullptr : pool->AllocBuffer((UINT)(2 * t.n + 3));
    if (lpBuf == nullptr) {
        result.SetNull();
        return TALVOR_VARDATA_NO_MEMORY;
    }
    int n = string_quote(t.p, t.n, (char*)lpBuf);
    lpBuf[n] = 0;
    result.AttachString((char*)lpBuf, n, TALVOR_VT_TEXT);
    return 0;
}

int CBaseFunManager::Length(CTalvorBufferPool*, VARDATA& str, VARDATA& result)
{
    if (IsNullArg(str)) return SetNullResult(result);
    TextView t;
    ReadText(str, t);
    return SetInt(result, t.n);
}

int CBaseFunManager::CharLength(CTalvorBufferPool*, VARDATA& str, VARDATA& result)
{
    if (IsNullArg(str)) return SetNullResult(result);
    TextView t;
    ReadText(str, t);
    return SetInt(result, Chars(t));
}

int CBaseFunManager::Bit_Length(CTalvorBufferPool*, VARDATA& str, VARDATA& result)
{
    if (IsNullArg(str)) return SetNullResult(result);
    TextView t;
    ReadText(str, t);
    return SetInt(result, 8LL * t.n);
}

int CBaseFunManager::AsciiOrd(CTalvorBufferPool*, VARDATA& str, BOOL bOrd, VARDATA& result)
{
    if (IsNullArg(str)) return SetNullResult(result);
    TextView t;
    ReadText(str, t);
    if (t.n == 0) return SetInt(result, 0);
    int nBytes = bOrd ? CharAt(t, 0) : 1;
    if (nBytes > t.n) nBytes = 1;
    long long ll = 0;
    for (int i = 0; i < nBytes; ++i) ll = ll * 256 + (unsigned char)t.p[i];
    return SetInt(result, ll);
}
