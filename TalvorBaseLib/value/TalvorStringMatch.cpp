// TalvorStringMatch.cpp — LIKE: the one-off pattern rewrite and the matchers.
//
// The matcher keeps one resume point, at the last run of "%" it passed, and
// on a mismatch moves that point one character on. A literal recursion into
// every "%" would try all ways of spreading the text over the runs, which is
// exponential in their number; resuming at the last run only is enough,
// because what stands before it has already matched at its leftmost place
// and a later start can never help the part before. The work is bounded by
// pattern length times text length.

#include "TalvorString.h"
#include "TalvorTextInternal.h"

#include <climits>
#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

using namespace talvor_text;

namespace {

constexpr BYTE kAny = (BYTE)TALVOR_LIKE_ANY;
constexpr BYTE kOne = (BYTE)TALVOR_LIKE_ONE;
constexpr int kPatternWord = 4;

bool IsWildcard(BYTE b) { return b == kAny || b == kOne; }

constexpr unsigned long long kOnes = 0x0101010101010101ull;
constexpr unsigned long long kHighs = 0x8080808080808080ull;

// The high bit of every byte of w that is 0, exact for the lowest such
// byte (borrows only run upward, so bytes above a true zero may be flagged
// falsely, which a search for the first one doesn't mind).
unsigned long long ZeroBytes(unsigned long long w) { return (w - kOnes) & ~w & kHighs; }

// Whether a 4-byte word of pattern holds a byte below 3: a wildcard or a NUL.
bool HasMarker(UINT w) { return ((w - 0x03030303u) & ~w & 0x80808080u) != 0; }

template <bool kFold>
bool SameByte(BYTE bPat, BYTE bText) {
    return kFold ? ToLower(bPat) == ToLower(bText) : bPat == bText;
}

// First position at or after nFrom where the literal bPat can stand. Only a
// byte that can't be a continuation is looked up directly: such a byte always
// lies on a character start, so the jump lands where stepping by characters
// would have arrived.
template <bool kFold>
int NextCandidate(const BYTE* s, int nFrom, int nEnd, BYTE bPat) {
    if (bPat >= 0x80 && bPat < 0xC0) return nFrom;
    if (!kFold || ToLower(bPat) == ToUpper(bPat)) {
        const void* p = memchr(s + nFrom, bPat, (size_t)(nEnd - nFrom));
        return p ? (int)((const BYTE*)p - s) : nEnd;
    }
    // A letter under folding: either case, eight bytes a step.
    const BYTE bLow = ToLower(bPat);
#if defined(__SSE2__)
    const __m128i vLow = _mm_set1_epi8((char)bLow), vUp = _mm_set1_epi8((char)ToUpper(bPat));
    for (; nFrom + 16 <= nEnd; nFrom += 16) {
        const __m128i v = _mm_loadu_si128((const __m128i*)(s + nFrom));
        const int nHits = _mm_movemask_epi8(_mm_or_si128(_mm_cmpeq_epi8(v, vLow), _mm_cmpeq_epi8(v, vUp)));
        if (nHits != 0) return nFrom + __builtin_ctz((unsigned)nHits);
    }
#endif
    const unsigned long long ullLow = kOnes * bLow, ullUp = kOnes * ToUpper(bPat);
    for (; nFrom + 8 <= nEnd; nFrom += 8) {
        const unsigned long long w = LoadWord64(s + nFrom);
        const unsigned long long ullHits = ZeroBytes(w ^ ullLow) | ZeroBytes(w ^ ullUp);
        if (ullHits != 0) return nFrom + (__builtin_ctzll(ullHits) >> 3);
    }
    while (nFrom < nEnd && ToLower(s[nFrom]) != bLow) ++nFrom;
    return nFrom;
}

constexpr int kTailUndecided = 1;

// Behind the last run of "%", a rest of plain literal that the text has to
// end with can only stand at the text's end: one compare settles it instead
// of a try at every position. kTailUndecided when the rule doesn't apply (a
// wildcard further on, a prefix match, or a rest that starts inside a
// character, where the position rule of the general walk decides).
template <bool kFold>
int LiteralTail(const BYTE* s, int ps, int nS, const BYTE* p, int pp, int nP, bool bMustEnd) {
    if (!bMustEnd || (p[pp] >= 0x80 && p[pp] < 0xC0)) return kTailUndecided;
    for (int i = pp; i < nP; ++i) {
        if (IsWildcard(p[i])) return kTailUndecided;
    }
    const int nRest = nP - pp;
    if (nS - ps < nRest) return TALVOR_MATCH_NO;
    const BYTE* pTail = s + nS - nRest;
    for (int i = 0; i < nRest; ++i) {
        if (!SameByte<kFold>(p[pp + i], pTail[i])) return TALVOR_MATCH_NO;
    }
    return TALVOR_MATCH_YES;
}

// The match proper. Bytes of the pattern before nLiteralHead are literal even
// when they are wildcard bytes. bMustEnd: the text has to end with the
// pattern.
template <bool kFold>
int MatchCore(const BYTE* s, int nS, const BYTE* p, int nP, int nLiteralHead, bool bMustEnd) {
    int ps = 0, pp = 0;
    int nResumePat = -1, nResumeText = 0;
    for (;;) {
        if (pp < nP) {
            const BYTE c = p[pp];
            if (c == kAny && pp >= nLiteralHead) {
                int nOne = 0;
                for (; pp < nP && IsWildcard(p[pp]); ++pp) nOne += (p[pp] == kOne);
                for (; nOne > 0; --nOne) {
                    // Less text is left for any earlier run: no retry helps.
                    if (ps >= nS) return TALVOR_MATCH_NO;
                    ps = NextCharacter(s, ps, nS);
                }
                if (pp == nP) return TALVOR_MATCH_YES;
                const int nTail = LiteralTail<kFold>(s, ps, nS, p, pp, nP, bMustEnd);
                if (nTail != kTailUndecided) return nTail;
                nResumePat = pp;
                nResumeText = ps = NextCandidate<kFold>(s, ps, nS, p[pp]);
                continue;
            }
            if (c == kOne && pp >= nLiteralHead) {
                if (ps < nS) {
                    ps = NextCharacter(s, ps, nS);
                    ++pp;
                    continue;
                }
            } else if (ps < nS && SameByte<kFold>(c, s[ps])) {
                ++ps;
                ++pp;
                continue;
            }
        } else if (ps == nS || !bMustEnd) {
            return TALVOR_MATCH_YES;
        }
        if (nResumePat < 0 || nResumeText >= nS) return TALVOR_MATCH_NO;
        nResumeText = NextCharacter(s, nResumeText, nS);
        if (!IsWildcard(p[nResumePat]))
            nResumeText = NextCandidate<kFold>(s, nResumeText, nS, p[nResumePat]);
        ps = nResumeText;
        pp = nResumePat;
    }
}

int Match(const BYTE* s, int nS, const BYTE* p, int nP, bool bFold, int nLiteralHead, bool bMustEnd) {
    return bFold ? MatchCore<true>(s, nS, p, nP, nLiteralHead, bMustEnd)
                 : MatchCore<false>(s, nS, p, nP, nLiteralHead, bMustEnd);
}

int FixedWords(const BYTE* p, int nP, int nLiteralHead) {
    int i = 0;
    for (; i < nP; ++i) {
        if (i >= nLiteralHead && IsWildcard(p[i])) break;
    }
    return i / kPatternWord;
}

// Compares up to nWords head words of pattern and text; only a word that
// differs is looked at byte by byte, and then only to fold letters. A word
// holding a wildcard ends the stretch early, so a caller's count can never
// make a wildcard literal. Result: the words that agreed, or -1 at a
// mismatch.
int HeadWordsAgree(const BYTE* s, const BYTE* p, int nWords, bool bFold) {
    for (int i = 0; i < nWords; ++i) {
        const int nAt = i * kPatternWord;
        const UINT wPat = LoadWord32(p + nAt);
        if (HasMarker(wPat)) return i;
        if (LoadWord32(s + nAt) == wPat) continue;
        if (!bFold) return -1;
        for (int j = nAt; j < nAt + kPatternWord; ++j) {
            if (ToLower(s[j]) != ToLower(p[j])) return -1;
        }
    }
    return nWords;
}

int ClampLength(const char* p, int nLen) {
    if (p == nullptr || nLen <= 0) return 0;
    return TrimTrailingNul(p, nLen);
}

}  // namespace

int StrPretreatment(char* pStr, int& nStrLen, const char* pEscape, BOOL bAnsi) {
    if (pStr == nullptr) {
        nStrLen = 0;
        return 0;
    }
    if (nStrLen <= 1) {
        pStr[0] = 0;
        nStrLen = 1;
        return nStrLen;
    }
    bool bHaveEscape = false;
    char chEscape = 0;
    if (pEscape != nullptr && *pEscape != 0) {
        bHaveEscape = true;
        chEscape = *pEscape;
    } else if (!bAnsi) {
        bHaveEscape = true;
        chEscape = '\\';
    }
    const int nEnd = nStrLen - 1;
    int nOut = 0;
    for (int i = 0; i < nEnd; ++i) {
        const char c = pStr[i];
        const bool bHasNext = i + 1 < nEnd;
        if (bHaveEscape && c == chEscape && bHasNext) {
            // Once a doubled escape has stood for itself, the escape byte is
            // plain text for the rest of the pattern.
            if (pStr[i + 1] == chEscape) bHaveEscape = false;
            pStr[nOut++] = pStr[++i];
            continue;
        }
        if (!bAnsi && c == '\\' && bHasNext && (pStr[i + 1] == '%' || pStr[i + 1] == '_')) {
            pStr[nOut++] = pStr[++i];
            continue;
        }
        if (c == '%') {
            if (nOut == 0 || pStr[nOut - 1] != TALVOR_LIKE_ANY) pStr[nOut++] = TALVOR_LIKE_ANY;
        } else if (c == '_') {
            pStr[nOut++] = TALVOR_LIKE_ONE;
        } else {
            pStr[nOut++] = c;
        }
    }
    pStr[nOut] = 0;
    nStrLen = nOut + 1;
    return nStrLen;
}

int TalvorLikeFixedWords(const char* pPat, int nPatLen) {
    return FixedWords((const BYTE*)pPat, ClampLength(pPat, nPatLen), 0);
}

int SubStringMatch(const char* pSrc, int nSrcLen, const char* pPat, int nPatLen,
                   int nCount, int nCaseSensitive, BOOL bMatch, BOOL bSubStr) {
    const int nS = ClampLength(pSrc, nSrcLen);
    const int nP = ClampLength(pPat, nPatLen);
    const BYTE* s = (const BYTE*)pSrc;
    const BYTE* p = (const BYTE*)pPat;
    const bool bFold = nCaseSensitive != 1;
    const int nLiteralHead = bMatch ? 0 : 1;
    // A caller's count is a hint, never a licence to read past either text
    // or to take a wildcard as literal.
    int nWords = nCount;
    if (nWords > nS / kPatternWord) nWords = nS / kPatternWord;
    if (nWords > nP / kPatternWord) nWords = nP / kPatternWord;
    if (!bMatch) nWords = 0;
    if (nWords <= 0) return Match(s, nS, p, nP, bFold, nLiteralHead, !bSubStr);
    nWords = HeadWordsAgree(s, p, nWords, bFold);
    if (nWords < 0) return TALVOR_MATCH_NO;
    const int nDone = nWords * kPatternWord;
    return Match(s + nDone, nS - nDone, p + nDone, nP - nDone, bFold, 0, !bSubStr);
}

int SubStringFind(const char* pSrc, int nSrcLen, const char* pPat, int nPatLen,
                  int nCaseSensitive, BOOL bMatch) {
    return Match((const BYTE*)pSrc, ClampLength(pSrc, nSrcLen), (const BYTE*)pPat,
                 ClampLength(pPat, nPatLen), nCaseSensitive != 1, bMatch ? 0 : 1, false);
}

namespace {

// Occurrences of the search text, left to right, none overlapping.
template <typename FnVisit>
void ForEachOccurrence(const char* pSrc, int nSrc, const char* pFind, int nFind, FnVisit fnVisit) {
    int nPos = 0;
    while (nPos + nFind <= nSrc) {
        const void* pHit = memchr(pSrc + nPos, (BYTE)pFind[0], (size_t)(nSrc - nFind + 1 - nPos));
        if (pHit == nullptr) return;
        const int nHit = (int)((const char*)pHit - pSrc);
        if (memcmp(pSrc + nHit + 1, pFind + 1, (size_t)(nFind - 1)) == 0) {
            fnVisit(nHit);
            nPos = nHit + nFind;
        } else {
            nPos = nHit + 1;
        }
    }
}

}  // namespace

int TalvorCharReplace(const char* pSrc, int nSrcLen, const char* pStr1, int nLen1,
                      const char* pStr2, int nLen2, char* lpDesStr, int& nDesLen) {
    const int nSrc = ClampLength(pSrc, nSrcLen);
    const int nFind = ClampLength(pStr1, nLen1);
    const int nWith = ClampLength(pStr2, nLen2);
    if (nSrc == 0) {
        nDesLen = 0;
        return 0;
    }
    long long llHits = 0;
    if (nFind > 0) ForEachOccurrence(pSrc, nSrc, pStr1, nFind, [&](int) { ++llHits; });
    const long long llNeed = nSrc + llHits * (nWith - nFind) + 1;
    if (llNeed > INT_MAX) return TALVOR_ERROR_BUFFER_TOO_SMALL;
    if (lpDesStr == nullptr) {
        nDesLen = (int)llNeed;
        return 0;
    }
    if (nDesLen < llNeed) return TALVOR_ERROR_BUFFER_TOO_SMALL;
    int nIn = 0, nOut = 0;
    auto fnCopy = [&](int nHit) {
        memcpy(lpDesStr + nOut, pSrc + nIn, (size_t)(nHit - nIn));
        nOut += nHit - nIn;
        if (nWith > 0) memcpy(lpDesStr + nOut, pStr2, (size_t)nWith);
        nOut += nWith;
        nIn = nHit + nFind;
    };
    if (nFind > 0) ForEachOccurrence(pSrc, nSrc, pStr1, nFind, fnCopy);
    memcpy(lpDesStr + nOut, pSrc + nIn, (size_t)(nSrc - nIn));
    nOut += nSrc - nIn;
    lpDesStr[nOut++] = 0;
    nDesLen = nOut;
    return 0;
}
