// TalvorString.h — the text compare, case folding and LIKE matching that run
// on every row of a scan that sorts or filters on text.
//
// All text is bytes, normally UTF-8. "Letters" are the ASCII letters only:
// folding adds or takes away 32 on a to z and A to Z and touches nothing else,
// so the results never depend on a locale.
//
// Thread-safety: every function works on the caller's buffers alone and may
// run on any thread; two threads may share read-only inputs.
#pragma once

#include "TypeDef.h"

// --- Pattern form -----------------------------------------------------------

// A LIKE pattern after StrPretreatment: these two bytes are the wildcards, so
// they can never stand as literal text of a pattern.
#define TALVOR_LIKE_ANY ((char)1)  // a run of any characters, "%" in SQL
#define TALVOR_LIKE_ONE ((char)2)  // exactly one character, "_" in SQL

// Result of the matchers.
#define TALVOR_MATCH_YES 0
#define TALVOR_MATCH_NO (-1)

// Result of TalvorCharReplace when the caller's buffer is too small.
#define TALVOR_ERROR_BUFFER_TOO_SMALL 87

// --- Compare and fold -------------------------------------------------------

// The collation compare behind ORDER BY on text.
//
// Result: below 0 when pSrc sorts first, 0 when equal, above 0 otherwise.
// - A null side gives the other side's first byte with the sign of a loss for
//   the null side (both null: 0).
// - A length of 0 means strlen; trailing NUL bytes are ignored on both sides.
// - Without bCaseSensitive only differing bytes are folded (to lower case).
// - At the first difference inside a multi-byte character on both sides the
//   result is the difference of the two code points.
// - A text that is a proper prefix of the other sorts AFTER it: a longer
//   source gives minus its next byte, a longer pDes plus its next byte.
int TalvorCompare(const char* pSrc, int nSrcLen, const char* pDes, int nDestLen,
                  BOOL bCaseSensitive);

// Folded compare of exactly nLen bytes (NUL bytes included). Letters fold to
// lower case. Result: below 0, 0 or above 0 like memcmp; -1 when either
// pointer is null.
int TalvorCompareNoCase(const char* chSrc, const char* chDest, int nLen);

// Fold nLen bytes in place (nLen below 0: up to the NUL). Null is a no-op.
void TalvorMakeUpper(char* pStr, int nLen);
void TalvorMakeLower(char* pStr, int nLen);

// --- LIKE -------------------------------------------------------------------

// Rewrites a LIKE pattern into the pattern form, in place.
//
// nStrLen comes in counting the pattern's closing NUL (strlen + 1) and goes out
// as the new length, again counting the NUL that closes the result; the same
// value is returned. A length of 0 or 1 gives the empty pattern of length 1.
// Escapes: pEscape (its first byte; null or NUL for none) makes the next byte
// literal and is dropped; a doubled escape stands for itself, once: from then
// on the escape byte is plain text. With bAnsi clear a backslash before "%"
// or "_" makes them literal, and with neither pEscape nor bAnsi the backslash
// is the escape byte. "%" becomes TALVOR_LIKE_ANY (runs fold to one) and "_"
// TALVOR_LIKE_ONE.
int StrPretreatment(char* pStr, int& nStrLen, const char* pEscape, BOOL bAnsi);

// Counts the 4-byte words of fixed text at the head of a pattern, the nCount
// that SubStringMatch takes. Pure helper; pPat may be null when nPatLen is 0.
int TalvorLikeFixedWords(const char* pPat, int nPatLen);

// Whether pSrc matches the pattern form pPat. Result: TALVOR_MATCH_YES or
// TALVOR_MATCH_NO.
// - nCount: leading 4-byte words of the pattern that hold no wildcard (see
//   TalvorLikeFixedWords); they are compared word-wise first. A larger value
//   than the pattern's fixed head is cut to it.
// - nCaseSensitive 1: exact bytes; otherwise letters fold.
// - bMatch clear: a wildcard byte at the head of the pattern is literal.
// - bSubStr set: the text may go on behind the end of the pattern.
// Trailing NUL bytes of both lengths are ignored. TALVOR_LIKE_ONE takes one
// whole UTF-8 character; TALVOR_LIKE_ANY tries the rest at each following
// character start. The work is bounded by the product of the two lengths,
// whatever the number of wildcards.
int SubStringMatch(const char* pSrc, int nSrcLen, const char* pPat, int nPatLen,
                   int nCount, int nCaseSensitive, BOOL bMatch, BOOL bSubStr);

// The anchored half of the match: whether the pattern stands at the head of
// pSrc. The text may go on behind the pattern (prefix rule). Arguments and
// results as for SubStringMatch.
int SubStringFind(const char* pSrc, int nSrcLen, const char* pPat, int nPatLen,
                  int nCaseSensitive, BOOL bMatch);

// Replaces every occurrence of pStr1 by pStr2, left to right, after taking
// trailing NUL bytes off all three lengths.
// - lpDesStr null: only measures; nDesLen receives the room needed, closing
//   NUL counted. Result 0.
// - lpDesStr given: nDesLen comes in as its size and goes out as the bytes
//   written, closing NUL counted. Result 0, or TALVOR_ERROR_BUFFER_TOO_SMALL
//   (nothing reliable written).
// An empty or null source gives 0 with nDesLen 0. An empty pStr1 replaces
// nothing (the text is copied as it stands) rather than looping forever.
int TalvorCharReplace(const char* pSrc, int nSrcLen, const char* pStr1, int nLen1,
                      const char* pStr2, int nLen2, char* lpDesStr, int& nDesLen);
