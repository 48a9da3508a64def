// BaseFunInternal.h — helpers shared by the sources of CBaseFunManager; not
// for callers outside this folder.
#pragma once

#include "BaseFunManager.h"
#include "TalvorVarDataInternal.h"

namespace talvorfun {

// Room for the text form of any number or date (see kNumberTextBytes).
constexpr int kScratchBytes = talvorvar::kNumberTextBytes;

// A value read as text: straight from a text value, or printed into sz.
struct TextView {
    const char* p = "";
    int n = 0;
    char sz[kScratchBytes];
};

// NULL, a marker or an unset value: the function answers NULL.
inline bool IsNullArg(const VARDATA& v) { return talvorvar::IsVoid(v.m_vt); }

// The text form of v into t: text (trailing NUL bytes of a record form cut)
// and binary as they are, numbers and dates printed, doubles without
// trailing zeros. NULL reads as the empty text.
void ReadText(const VARDATA& v, TextView& t);

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
int SetInt(VARDATA& result, long long ll);
int SetNullResult(VARDATA& result);
// A deep copy of src into result, text into the pool.
int CopyResult(CTalvorBufferPool* pool, const VARDATA& src, VARDATA& result);

// Bytes of the UTF-8 character that starts with lead byte b (1 for a stray
// continuation byte, so that every byte belongs to one character).
inline int CharBytes(unsigned char b)
{
    if (b < 0xC0) return 1;
    if (b < 0xE0) return 2;
    if (b < 0xF0) return 3;
    return 4;
}
// Characters of nLen bytes.
int CharCount(const char* p, int nLen);
// Byte offset of the character nChars characters in (nLen at most).
int CharOffset(const char* p, int nLen, long long nChars);
// Byte offset of the first occurrence of sub at or after nFrom, or -1.
int FindBytes(const char* p, int nLen, const char* lpSub, int nSubLen, int nFrom);

// Text order of the compare functions (STRCMP, FIELD, NULLIF, GREATEST):
// ASCII letters folded, bytes otherwise, and with bPadSpace the shorter
// text read as if blanks followed it. Result: -1, 0 or 1.
int CompareText(const TextView& a, const TextView& b, bool bPadSpace);
// As FindBytes, with ASCII letters folded.
int FindNoCase(const char* p, int nLen, const char* lpSub, int nSubLen, int nFrom);

} // namespace talvorfun
