// ConfigIniSyntax.h — where a line of the ini ends, which lines are comments
// and which are section heads: one rule for every reader and writer of the
// file in this folder (the tree's parser, the one-line splice, and the
// file-direct GetPrivateProfile* / WritePrivateProfileString).
//
// The tree and the file-direct family still differ in what they make of a
// value (the family cuts it at "#"), but they must never differ in which
// section a key belongs to: a head the one reader takes and the other skips
// moves every key below it, and the same key then reads differently in the
// daemon, in the language setting and in the engine. Hand-edited files do
// carry heads such as "[Config] ; cluster" and indented or tab-padded names.
//
// Header-only and free of state: any thread, no latch.
#pragma once

#include <cctype>
#include <cstring>

// The line that begins at p ends at the first CR or LF, or at lpEnd; a CR LF
// ends it as one. Returns the end of the line's text; *ppNext is where the
// next line begins (lpEnd when none follows).
inline const char* IniLineEnd(const char* p, const char* lpEnd, const char** ppNext)
{
    const char* q = p;
    while (q < lpEnd && *q != '\n' && *q != '\r') q++;
    const char* lpNext = q;
    if (lpNext < lpEnd) lpNext += (*lpNext == '\r' && lpNext + 1 < lpEnd && lpNext[1] == '\n') ? 2 : 1;
    *ppNext = lpNext;
    return q;
}

inline bool IniIsBlank(char c) { return isspace((unsigned char)c) != 0; }

// Moves the pair inward over every white-space character, tabs included.
inline void IniTrimBlanks(const char*& s, const char*& e)
{
    while (s < e && IniIsBlank(*s)) s++;
    while (e > s && IniIsBlank(e[-1])) e--;
}

// [s, e) is a line trimmed by IniTrimBlanks. Empty lines and lines beginning
// "#" carry nothing.
inline bool IniIsNothing(const char* s, const char* e) { return s == e || *s == '#'; }

// [s, e) is a line trimmed by IniTrimBlanks. It is a section head when it
// begins "[" and holds a "]"; the name runs to the first "]", trimmed, and
// whatever follows that "]" (a comment, as a rule) is ignored. False for any
// other line.
inline bool IniHeadName(const char* s, const char* e, const char*& lpName, const char*& lpNameEnd)
{
    if (s == e || *s != '[') return false;
    const char* lpClose = (const char*)memchr(s, ']', (size_t)(e - s));
    if (lpClose == nullptr) return false;
    lpName = s + 1;
    lpNameEnd = lpClose;
    IniTrimBlanks(lpName, lpNameEnd);
    return true;
}

// [s, e) is a line trimmed by IniTrimBlanks that is neither nothing nor a
// head. The key is the text in front of the first "=", trimmed; *ppEq is
// that "=", or null when the line has none.
inline void IniKeyName(const char* s, const char* e, const char*& lpKey, const char*& lpKeyEnd, const char** ppEq)
{
    const char* lpEq = (const char*)memchr(s, '=', (size_t)(e - s));
    *ppEq = lpEq;
    lpKey = s;
    lpKeyEnd = lpEq != nullptr ? lpEq : e;
    IniTrimBlanks(lpKey, lpKeyEnd);
}
