// TalvorCharset.h — character encodings (UTF-8, UTF-16 units, wide text),
// hexadecimal text, MySQL's string escaping, the classification of text by
// encoding, and the lookup of collation and character-set names.
//
// Wide text is wchar_t, 32 bits on this platform: one code point per unit,
// except where a function says it writes UTF-16 units.
//
// Thread-safety: every function works on the caller's data and constant
// tables alone and may run on any thread.
#pragma once

#include "TypeDef.h"

#include <cstddef>

// Upper-case hexadecimal digits, the alphabet of every hexadecimal text here.
extern const char TalvorHexChars[17];

// Status of a conversion that met text it cannot read.
#define TALVOR_ERROR_BAD_HEX_TEXT 25
// Status of a conversion whose output buffer is too small.
#define TALVOR_ERROR_NO_ROOM 87

// --- Code points --------------------------------------------------------------

// The code point of the UTF-8 sequence at lpszText; 5- and 6-byte forms are
// decoded too. A byte that starts no complete sequence (a continuation byte,
// 0xFE, 0xFF, or a lead whose continuations are missing, NUL included) comes
// back as itself; so on NUL-terminated text nothing past the NUL is read.
// Null gives 0.
UINT TalvorGetUnicode(const char* lpszText);

// Writes uCode as 1 to 4 bytes of UTF-8 and gives their number; above
// 0x10FFFF gives -1 and writes nothing.
int TalvorCode2UTF8(UINT uCode, LPBYTE lpOut);

// Takes one UTF-8 sequence packed big-endian into uPacked (0xE4B8AD for the
// three bytes E4 B8 AD) and writes one or two UTF-16 units, one per wchar_t.
// Result: the number of units, or -1 when the value is no well-formed 1- to
// 4-byte form or its code point is above 0x10FFFF.
int TalvorCode2UTF16(UINT uPacked, wchar_t* lpOut);

// Wide text to UTF-8. nLen -1 means up to the NUL. UTF-16 surrogate pairs
// held in two units are joined into one character.
// Result: the bytes of UTF-8 (no NUL counted); a null lpDest only counts.
// -1 for a code point above 0x10FFFF or when nBuf can't hold the result. A
// NUL is written behind the text when nBuf has room for it.
int TalvorUnicode2UTF8(const wchar_t* lpSrc, int nLen, char* lpDest, int nBuf);

// UTF-8 to wide text, one unit per character; a stray byte becomes a unit of
// its own value. nLen -1 means up to the NUL. Result: the units written (no
// NUL counted), or counted with a null lpDest; -1 when nBuf is too small. A
// NUL unit is written behind the text when nBuf has room for it.
int TalvorUTF82Unicode(const char* lpSrc, int nLen, wchar_t* lpDest, int nBuf);

// --- Hexadecimal text ---------------------------------------------------------

// Bytes to upper-case hexadecimal text, NUL-terminated; lpszOut needs
// 2 * nLen + 1 units. Result: 2 * nLen (0 for null arguments).
int HexConvertChar(const BYTE* lpSrc, int nLen, char* lpszOut);
int HexConvertWChar(const BYTE* lpSrc, int nLen, wchar_t* lpszOut);

// Hexadecimal text (either case) to bytes. Space, tab, CR and LF are skipped.
// nOutLen comes in as the room at lpOut and goes out as the bytes written.
// Result: 0; TALVOR_ERROR_BAD_HEX_TEXT for any other non-digit or an odd
// number of digits; TALVOR_ERROR_NO_ROOM when the bytes don't fit.
int CharConvertHex(const char* lpszText, int nLen, LPBYTE lpOut, int& nOutLen);
int WCharConvertHex(const wchar_t* lpszText, int nLen, LPBYTE lpOut, int& nOutLen);

// MySQL's escaping of a NUL-terminated text: backspace, tab, newline, CR and
// 0x1A become \b \t \n \r \Z; both quotes and the backslash get a backslash.
// Result: the length of the escaped text, NUL not counted; with a null
// lpszOut only that length. The output is NUL-terminated.
int ConvertMySQLVarchar(const char* lpszText, char* lpszOut);

// A new wide text "(nLen)" followed by up to 32 bytes in hexadecimal. The
// caller gives it back with delete[]. Null when memory is short or
// lpData is null with nLen above 0.
wchar_t* TalvorConvertBinary(const BYTE* lpData, int nLen);

// --- Classification -----------------------------------------------------------

#define TALVOR_TEXT_ASCII 6
#define TALVOR_TEXT_UTF8 7
#define TALVOR_TEXT_DOUBLE_BYTE 8
#define TALVOR_TEXT_UNKNOWN 9

// Which encoding nLen bytes are in, tried in the order the column's
// character set suggests (33 and 45: UTF-8 first; any other: GBK/GB18030
// first). Result: one of the TALVOR_TEXT_ values.
int GetCharacterCodetype(int nCharacterSet, const char* lpszData, int nLen);

// Whether nLen bytes agree with letters folded (ASCII only). Both must hold
// nLen bytes.
bool TalvorEqualNoCase(const char* lpLeft, const char* lpRight, int nLen);

// --- Collation and character-set names -----------------------------------------

#define TALVOR_COLLATION_DEFAULT 33

// The MySQL collation id of a collation name: quoted in any of the three
// ways or plain, cut to 31 bytes, case ignored. Unknown names: 49 when they
// begin with L, 48 or 49 for ASCII names ending in CI or not, else 33.
int GetCollationType(const char* lpszData, int nDataLen);

// The collation id that stands for a character-set name, quoted or plain,
// case ignored: utf8 33, utf8mb4 45, gb2312 24, gbk 28, gb18030 248, binary
// 63, any name starting with LATIN 8, else 33.
int GetCharacterset(const char* lpszData, int nDataLen);

// --- Wide text in a pool --------------------------------------------------------

class CTalvorBufferPool;

// A wide copy (one unit per character, as TalvorUTF82Unicode) of nLen bytes
// of UTF-8, NUL-terminated, in memory of pPool; nLen -1 means up to the NUL.
// Result: the copy, valid until the pool is reset or freed; null for a null
// text or pool, or when the pool has no memory. The pool belongs to the
// calling thread (pools take no locks).
wchar_t* TalvorConvertWChar(const char* lpszText, int nLen, CTalvorBufferPool* pPool);
