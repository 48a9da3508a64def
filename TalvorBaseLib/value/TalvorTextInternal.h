// TalvorTextInternal.h — byte-level helpers the text routines of this library
// share. Not part of the library's interface: include only from its .cpp
// files.
//
// Thread-safety: pure functions over constant tables.
#pragma once

#include "TypeDef.h"

#include <cstring>

namespace talvor_text {

// Letters fold by 32 and nothing else does, so a 256-byte table is all the
// fold costs in an inner loop: one load, no branch.
struct FoldTable {
    BYTE m_arLower[256];
    BYTE m_arUpper[256];
    constexpr FoldTable() : m_arLower(), m_arUpper() {
        for (int i = 0; i < 256; ++i) {
            m_arLower[i] = (BYTE)((i >= 'A' && i <= 'Z') ? i + 32 : i);
            m_arUpper[i] = (BYTE)((i >= 'a' && i <= 'z') ? i - 32 : i);
        }
    }
};
inline constexpr FoldTable g_fold{};

inline BYTE ToLower(BYTE b) { return g_fold.m_arLower[b]; }
inline BYTE ToUpper(BYTE b) { return g_fold.m_arUpper[b]; }

inline bool IsContinuation(BYTE b) { return (b & 0xC0) == 0x80; }

// Length a lead byte announces, forms of up to 6 bytes included; 1 for ASCII
// and for bytes that cannot lead (continuations, 0xFE, 0xFF).
inline int SequenceLength(BYTE b) {
    if (b < 0xC0) return 1;
    if (b < 0xE0) return 2;
    if (b < 0xF0) return 3;
    if (b < 0xF8) return 4;
    if (b < 0xFC) return 5;
    if (b < 0xFE) return 6;
    return 1;
}

// Decodes the sequence at p without reading past nAvail bytes. A lead byte
// whose continuation bytes are missing or wrong is a stray byte: it comes back
// as itself with length 1, so that a cut text can never be read beyond.
inline UINT DecodeBounded(const BYTE* p, int nAvail, int& nBytes) {
    const int nSeq = SequenceLength(p[0]);
    nBytes = 1;
    if (nSeq == 1 || nSeq > nAvail) return p[0];
    UINT uCode = p[0] & (0x7F >> nSeq);
    for (int i = 1; i < nSeq; ++i) {
        if (!IsContinuation(p[i])) return p[0];
        uCode = (uCode << 6) | (p[i] & 0x3F);
    }
    nBytes = nSeq;
    return uCode;
}

// Steps over one character: a lead byte of 0xC0 or above takes the
// continuation bytes behind it along. Never beyond nEnd.
inline int NextCharacter(const BYTE* p, int nPos, int nEnd) {
    if (p[nPos++] >= 0xC0) {
        while (nPos < nEnd && IsContinuation(p[nPos])) ++nPos;
    }
    return nPos;
}

inline unsigned long long LoadWord64(const void* p) {
    unsigned long long u;
    memcpy(&u, p, sizeof(u));
    return u;
}

inline UINT LoadWord32(const void* p) {
    UINT u;
    memcpy(&u, p, sizeof(u));
    return u;
}

// Trailing NUL bytes are padding of fixed-width buffers, never text.
inline int TrimTrailingNul(const char* p, int nLen) {
    while (nLen > 0 && p[nLen - 1] == 0) --nLen;
    return nLen;
}

}  // namespace talvor_text
