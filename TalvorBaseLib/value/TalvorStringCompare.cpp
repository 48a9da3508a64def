// TalvorStringCompare.cpp — the collation compare and the ASCII case fold.

#include "TalvorString.h"
#include "TalvorTextInternal.h"

#include <cstring>

using namespace talvor_text;

namespace {

constexpr int kWordBytes = 8;
// Below this the call into the C library costs more than the words.
constexpr int kLibraryCompareFrom = 32;

inline int MeasuredLength(const char* p, int nLen) {
    if (nLen <= 0) nLen = (int)strlen(p);
    return TrimTrailingNul(p, nLen);
}

// Position of the first byte pair that differs after folding, or nLen. Whole
// words go first: equal text, the common case in a sorted scan, never reaches
// the byte loop, and only the bytes of a differing word are folded.
inline int FirstDifference(const BYTE* p1, const BYTE* p2, int nLen, BOOL bCaseSensitive) {
    int nPos = 0;
    while (nPos + kWordBytes <= nLen) {
        const unsigned long long uDiff = LoadWord64(p1 + nPos) ^ LoadWord64(p2 + nPos);
        if (uDiff != 0) {
            int nByte = nPos + (__builtin_ctzll(uDiff) >> 3);
            if (bCaseSensitive) return nByte;
            for (; nByte < nPos + kWordBytes; ++nByte) {
                if (ToLower(p1[nByte]) != ToLower(p2[nByte])) return nByte;
            }
        }
        nPos += kWordBytes;
    }
    for (; nPos < nLen; ++nPos) {
        if (p1[nPos] == p2[nPos]) continue;
        if (bCaseSensitive || ToLower(p1[nPos]) != ToLower(p2[nPos])) return nPos;
    }
    return nLen;
}

// The result at a real difference: code points when both sides hold a
// multi-byte character there, else the (folded) bytes that differ. Equal
// code points from different bytes (overlong forms) fall back to the bytes so
// that different texts never compare equal.
int DifferenceAt(const BYTE* p1, int n1, const BYTE* p2, int n2, int nPos, BOOL bCaseSensitive) {
    const int nByte1 = bCaseSensitive ? p1[nPos] : ToLower(p1[nPos]);
    const int nByte2 = bCaseSensitive ? p2[nPos] : ToLower(p2[nPos]);
    int nStart = nPos;
    while (nStart > 0 && (IsContinuation(p1[nStart]) || IsContinuation(p2[nStart]))) --nStart;
    int nLen1 = 0, nLen2 = 0;
    const UINT uCode1 = DecodeBounded(p1 + nStart, n1 - nStart, nLen1);
    const UINT uCode2 = DecodeBounded(p2 + nStart, n2 - nStart, nLen2);
    if (nLen1 > 1 && nLen2 > 1 && uCode1 != uCode2) return (int)uCode1 - (int)uCode2;
    return nByte1 - nByte2;
}

}  // namespace

int TalvorCompare(const char* pSrc, int nSrcLen, const char* pDes, int nDestLen,
                  BOOL bCaseSensitive) {
    if (pSrc == nullptr || pDes == nullptr) {
        if (pSrc != nullptr) return (BYTE)pSrc[0];
        if (pDes != nullptr) return -(int)(BYTE)pDes[0];
        return 0;
    }
    const int n1 = MeasuredLength(pSrc, nSrcLen);
    const int n2 = MeasuredLength(pDes, nDestLen);
    const int nCommon = n1 < n2 ? n1 : n2;
    const BYTE* p1 = (const BYTE*)pSrc;
    const BYTE* p2 = (const BYTE*)pDes;
    // Equal heads are the common case of a sorted scan: the C library's
    // compare settles them at its own speed, and only texts that differ are
    // walked again to find where.
    const int nPos = (nCommon > kLibraryCompareFrom && memcmp(p1, p2, (size_t)nCommon) == 0)
                         ? nCommon
                         : FirstDifference(p1, p2, nCommon, bCaseSensitive);
    if (nPos < nCommon) return DifferenceAt(p1, n1, p2, n2, nPos, bCaseSensitive);
    // The longer text sorts first. An embedded NUL as the next byte still
    // has to give a non-zero result: the texts are not equal.
    if (n1 > n2) return p1[nCommon] ? -(int)p1[nCommon] : -1;
    if (n2 > n1) return p2[nCommon] ? (int)p2[nCommon] : 1;
    return 0;
}

int TalvorCompareNoCase(const char* chSrc, const char* chDest, int nLen) {
    if (chSrc == nullptr || chDest == nullptr) return -1;
    if (nLen <= 0) return 0;
    const BYTE* p1 = (const BYTE*)chSrc;
    const BYTE* p2 = (const BYTE*)chDest;
    const int nPos = FirstDifference(p1, p2, nLen, FALSE);
    if (nPos == nLen) return 0;
    return (int)ToLower(p1[nPos]) - (int)ToLower(p2[nPos]);
}

void TalvorMakeUpper(char* pStr, int nLen) {
    if (pStr == nullptr) return;
    if (nLen < 0) nLen = (int)strlen(pStr);
    for (int i = 0; i < nLen; ++i) pStr[i] = (char)ToUpper((BYTE)pStr[i]);
}

void TalvorMakeLower(char* pStr, int nLen) {
    if (pStr == nullptr) return;
    if (nLen < 0) nLen = (int)strlen(pStr);
    for (int i = 0; i < nLen; ++i) pStr[i] = (char)ToLower((BYTE)pStr[i]);
}
