// BaseFunInternal.h — helpers shared by the sources of CBaseFunManager; not
// for callers outside this folder.
#pragma once

#include "BaseFunManager.h"
#include "TalvorVarDataInternal.h"

#include <cstddef>
#include <cstring>

namespace talvorfun {

// Room for the text form of any number or date (see kNumberTextBytes).
constexpr int kScratchBytes = talvorvar::kNumberTextBytes;

// A value read as text: straight from a text value, or printed into sz.
// Left unset until ReadText fills it: arrays of them cost nothing to make.
struct TextView {
    const char* p;
    int n;
    bool bBytes;  // binary: a character is a byte, and letters do not fold
    char sz[kScratchBytes];
};

// NULL, a marker or an unset value: the function answers NULL.
inline bool IsNullArg(const VARDATA& v) { return talvorvar::IsVoid(v.m_vt); }

// The text form of v into t for a value that is no plain text.
void ReadOtherText(const VARDATA& v, TextView& t);

// The text form of v into t: text (trailing NUL bytes of a record form cut)
// and binary as they are, numbers and dates printed, doubles without
// trailing zeros. NULL reads as the empty text. Inline: every text member
// reads its arguments through it, once per row.
inline void ReadText(const VARDATA& v, TextView& t)
{
    if (v.m_vt == TALVOR_VT_TEXT || v.m_vt == TALVOR_VT_VARTEXT) {
        int n = v.m_nStrLen;
        const char* p = v.m_lpszValue;
        t.bBytes = false;
        if (p == nullptr || n <= 0) {
            t.p = "";
            t.n = 0;
            return;
        }
        while (n > 0 && p[n - 1] == 0) --n;
        t.p = p;
        t.n = n;
        return;
    }
    ReadOtherText(v, t);
}

// Makes result a value of bType with its union cleared, after owned text
// (which a result should never hold) is given back.
inline void ResetResult(VARDATA& result, BYTE bType)
{
    if (result.m_bAutoRelease != 0 && talvorvar::MayOwn(result.m_vt)) result.Free();
    memset(&result.m_bSign, 0, sizeof(st_VARDATA) - offsetof(st_VARDATA, m_bSign) - sizeof(int));
    result.m_vt = bType;
}

// The integer an argument stands for where a function wants a count, a
// position or bits, as SQL reads one: a double rounds to the nearest (ties
// to even), text gives the integer at its head ('2.7' and '2x' are 2), both
// saturating at the 64-bit range; anything else through GetCompatibleBigInt.
long long IntArg(const VARDATA& v);

// Room for a text result of nLen bytes and a NUL in the pool, attached to
// result as type bType, not owned. Result: 0 with lpOut set; 0 with lpOut
// null and result NULL when nLen is past TALVOR_FUN_MAX_RESULT or below 0;
// TALVOR_VARDATA_NO_MEMORY (result NULL) when the pool gives nothing.
int NewText(CTalvorBufferPool* pool, long long nLen, VARDATA& result, char*& lpOut,
            BYTE bType = TALVOR_VT_TEXT);
// A copy of nLen bytes as the text result. Result: as NewText.
int SetText(CTalvorBufferPool* pool, const char* p, long long nLen, VARDATA& result,
            BYTE bType = TALVOR_VT_TEXT);
// result as 64-bit integer / NULL. Result: 0.
inline int SetInt(VARDATA& result, long long ll)
{
    ResetResult(result, TALVOR_VT_BIGINT);
    result.m_llValue = ll;
    return 0;
}
inline int SetNullResult(VARDATA& result)
{
    ResetResult(result, TALVOR_VT_NULL);
    return 0;
}
// A copy of the text or binary src into result, in the pool.
int CopyText(CTalvorBufferPool* pool, const VARDATA& src, VARDATA& result);

// A deep copy of src into result, text into the pool, never owned.
inline int CopyResult(CTalvorBufferPool* pool, const VARDATA& src, VARDATA& result)
{
    if (&src == &result) return 0;
    if (talvorvar::IsVoid(src.m_vt)) {
        ResetResult(result, TALVOR_VT_NULL);
        return 0;
    }
    if (talvorvar::IsTextType(src.m_vt)) return CopyText(pool, src, result);
    // Numbers and dates own nothing: their bytes are the copy, moved in the
    // widths the fields are read with.
    if (result.m_bAutoRelease != 0 && talvorvar::MayOwn(result.m_vt)) result.Free();
    char* lpTo = (char*)&result;
    const char* lpFrom = (const char*)&src;
    const size_t nValue = offsetof(st_VARDATA, m_arDecimalData);
    result.m_vt = src.m_vt;
    memcpy(lpTo + offsetof(st_VARDATA, m_bSign), lpFrom + offsetof(st_VARDATA, m_bSign), nValue - 4);
    memcpy(lpTo + nValue, lpFrom + nValue, 8);
    memcpy(lpTo + nValue + 8, lpFrom + nValue + 8, 8);
    return 0;
}

// A character starts at every byte that is no UTF-8 continuation byte, and
// at the first byte of a text: counting and stepping agree on any bytes,
// valid UTF-8 or not, so no count can lead an offset past the text.
inline bool IsContinuation(unsigned char b) { return (b & 0xC0) == 0x80; }
// Byte where the character after the one at byte i starts (nLen at most).
inline int NextChar(const char* p, int nLen, int i)
{
    for (++i; i < nLen && IsContinuation((unsigned char)p[i]);) ++i;
    return i;
}
// Characters of nLen bytes.
inline int CharCount(const char* p, int nLen)
{
    int nChars = nLen > 0 && IsContinuation((unsigned char)p[0]) ? 1 : 0;
    for (int i = 0; i < nLen; ++i) nChars += !IsContinuation((unsigned char)p[i]);
    return nChars;
}
// Byte offset of the character nChars characters in (nLen at most).
int CharOffset(const char* p, int nLen, long long nChars);
// The same on a text read by ReadText, binary text by bytes.
inline int Chars(const TextView& t) { return t.bBytes ? t.n : CharCount(t.p, t.n); }
// Characters in the first nByte bytes.
inline int CharsBefore(const TextView& t, int nByte) { return t.bBytes ? nByte : CharCount(t.p, nByte); }
// Byte offset nChars characters on from byte nFrom (t.n at most).
inline int OffsetAfter(const TextView& t, int nFrom, long long nChars)
{
    if (t.bBytes) return nChars >= t.n - nFrom ? t.n : nFrom + (int)nChars;
    return nFrom + CharOffset(t.p + nFrom, t.n - nFrom, nChars);
}
// The type of a result cut from t: binary stays binary.
inline BYTE ResultTypeOf(const TextView& t) { return t.bBytes ? TALVOR_VT_BINARY : TALVOR_VT_TEXT; }
// Bytes of the character at byte i.
inline int CharAt(const TextView& t, int i) { return t.bBytes ? 1 : NextChar(t.p, t.n, i) - i; }

// Byte offset of the first occurrence of sub at or after nFrom, or -1.
int FindBytes(const char* p, int nLen, const char* lpSub, int nSubLen, int nFrom);

// Text order of the compare functions (STRCMP, FIELD, NULLIF, GREATEST):
// ASCII letters folded, bytes otherwise, and with bPadSpace the shorter
// text read as if blanks followed it. Result: -1, 0 or 1.
int CompareText(const TextView& a, const TextView& b, bool bPadSpace);
// As FindBytes, with ASCII letters folded.
int FindNoCase(const char* p, int nLen, const char* lpSub, int nSubLen, int nFrom);

} // namespace talvorfun
