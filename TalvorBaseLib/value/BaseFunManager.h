// BaseFunManager.h — the built-in SQL functions on typed values: one member
// per function, each short glue over the decimal, the date and the typed
// value. The SQL layer of the engine calls them; the daemon does not.
//
// Common contract (every member unless it says otherwise):
// - Arguments are read, never changed; the result is set whole. Text of a
//   result lives in the statement's pool (pool), never freed before the
//   statement ends; a result never owns (m_bAutoRelease stays 0).
// - NULL in gives NULL out, unless the function is about NULL. A function
//   that has no answer for its input sets NULL and returns 0.
// - Result: 0, or TALVOR_FUN_BAD_TYPE (a wrong argument kind),
//   TALVOR_FUN_BAD_FUNCTION (a wrong function number), TALVOR_VARDATA_NO_MEMORY
//   (the pool gave nothing), TALVOR_FUN_OUT_OF_RANGE (cot of a zero tangent).
// - Every length taken from a value is bounded before an allocation: a text
//   result above TALVOR_FUN_MAX_RESULT bytes is NULL.
// - Function numbers are the keyword ids the SQL layer found the name under.
//
// Thread safety: the class holds no data; any thread may call any member on
// values and a pool of its own. Rand with a seed and TalvorSleep are the
// only members with effects outside their arguments. No latch is taken.
#pragma once

#include "TalvorBufferPool.h"
#include "TalvorVarDataOps.h"

#define TALVOR_FUN_BAD_TYPE 1501
#define TALVOR_FUN_BAD_FUNCTION 1502
#define TALVOR_FUN_OUT_OF_RANGE 1800

// Longest text result of Space, Repeat and the other growing members.
#define TALVOR_FUN_MAX_RESULT 0x100000

class CBaseFunManager {
public:
    // ---- Text
    // Characters are UTF-8 characters, positions count from 1; a value that
    // is no text is taken by its text form. Searches and compares fold ASCII
    // letters (the engine's text order) and go by bytes otherwise; REPLACE,
    // SUBSTRING_INDEX and TRIM match bytes exactly. Binary text (8) counts
    // bytes and matches exactly, and what is cut from it stays binary.
    // Counts and positions are read as SQL reads an integer: a double
    // rounds (ties to even), text gives the integer at its head.
    // Results are text (7) in the pool unless a line says otherwise.

    // The arguments one after the other; any NULL gives NULL.
    static int Concat(CTalvorBufferPool* pool, int nCount, st_VARDATA* args, VARDATA& result);
    // args[0] between the others; a NULL separator gives NULL, NULL others
    // are left out.
    static int Concat_WS(CTalvorBufferPool* pool, int nCount, st_VARDATA* args, VARDATA& result);
    // From character pos (negative: from the end; 0: the empty text) to the
    // end, or nLen characters of it (0 or less: the empty text).
    static int SubString(CTalvorBufferPool* pool, VARDATA& str, VARDATA& pos, VARDATA& result);
    static int SubString(CTalvorBufferPool* pool, VARDATA& str, VARDATA& pos, VARDATA& len, VARDATA& result);
    // What stands before the count-th delimiter (a negative count: after
    // the count-th from the right); count 0 or an empty delimiter: empty.
    static int SubString_Index(CTalvorBufferPool* pool, VARDATA& str, VARDATA& delim, VARDATA& count, VARDATA& result);
    // The first / last n characters; n of 0 or less gives the empty text.
    static int Left(CTalvorBufferPool* pool, VARDATA& str, VARDATA& n, VARDATA& result);
    static int Right(CTalvorBufferPool* pool, VARDATA& str, VARDATA& n, VARDATA& result);
    // Every from replaced by to, left to right; an empty from changes nothing.
    static int Replace(CTalvorBufferPool* pool, VARDATA& str, VARDATA& from, VARDATA& to, VARDATA& result);
    // len characters at pos replaced by newstr; pos outside the text gives
    // the text unchanged, len below 0 or past the end replaces the rest.
    static int Insert(CTalvorBufferPool* pool, VARDATA& str, VARDATA& pos, VARDATA& len, VARDATA& newstr,
                      VARDATA& result);
    // Byte form of Insert: nCutLen bytes at nBytePos replaced by nNewLen
    // bytes of lpNew, into the pool. Result: 0, or TALVOR_VARDATA_NO_MEMORY;
    // a result above TALVOR_FUN_MAX_RESULT is NULL.
    static int string_insert(CTalvorBufferPool* pool, const char* lpSrc, int nSrcLen, int nBytePos, int nCutLen,
                             const char* lpNew, int nNewLen, VARDATA& result);
    static int Reverse(CTalvorBufferPool* pool, VARDATA& str, VARDATA& result);
    // count copies; count below 1 gives the empty text, a result above
    // TALVOR_FUN_MAX_RESULT bytes NULL.
    static int Repeat(CTalvorBufferPool* pool, VARDATA& str, VARDATA& count, VARDATA& result);
    // n blanks, bounded as Repeat.
    static int Space(CTalvorBufferPool* pool, VARDATA& n, VARDATA& result);
    // Blanks off the start / the end / both ends.
    static int LTrim(CTalvorBufferPool* pool, VARDATA& str, VARDATA& result);
    static int RTrim(CTalvorBufferPool* pool, VARDATA& str, VARDATA& result);
    static int Trim(CTalvorBufferPool* pool, VARDATA& str, VARDATA& result);
    // Ends of Trim, the keyword ids of LEADING, BOTH and TRAILING.
#define TALVOR_FUN_TRIM_LEADING 549
#define TALVOR_FUN_TRIM_BOTH 550
#define TALVOR_FUN_TRIM_TRAILING 551
    // Every whole remstr off the ends nWhere names: the keyword id of BOTH,
    // LEADING or TRAILING (TALVOR_FUN_TRIM_*); an empty remstr takes nothing.
    static int Trim(CTalvorBufferPool* pool, VARDATA& str, VARDATA& remstr, int nWhere, VARDATA& result);
    // LPAD (bLeft) and RPAD: str padded with pad or cut to len characters;
    // len below 0, or padding needed from an empty pad, gives NULL.
    static int LRPad(CTalvorBufferPool* pool, VARDATA& str, VARDATA& len, VARDATA& pad, BOOL bLeft, VARDATA& result);
    // The text in single quotes with backslash, quote, NUL and 0x1A escaped;
    // NULL gives the word NULL (the function is about NULL).
    static int Quote(CTalvorBufferPool* pool, VARDATA& str, VARDATA& result);
    // Writes the quoted form of nLen bytes to lpszOut, which holds
    // 2 * nLen + 2 bytes. Result: the bytes written (no NUL).
    static int string_quote(const char* lpSrc, int nLen, char* lpszOut);
    // Bytes / characters / bits of the text form; a 64-bit integer (2).
    static int Length(CTalvorBufferPool* pool, VARDATA& str, VARDATA& result);
    static int CharLength(CTalvorBufferPool* pool, VARDATA& str, VARDATA& result);
    static int Bit_Length(CTalvorBufferPool* pool, VARDATA& str, VARDATA& result);
    // ASCII: the first byte; ORD (bOrd): the first character's bytes as a
    // big-endian number. The empty text gives 0. Integer (2).
    static int AsciiOrd(CTalvorBufferPool* pool, VARDATA& str, BOOL bOrd, VARDATA& result);
    // CHAR(n, ...): each integer's low 32 bits as bytes, leading zero bytes
    // left out; NULL arguments are skipped. Binary (8) in the pool.
    static int TalvorChar(CTalvorBufferPool* pool, int nCount, st_VARDATA* args, VARDATA& result);
    // STRCMP: -1, 0 or 1, trailing blanks not counted. Integer (2).
    static int TalvorStrCmp(CTalvorBufferPool* pool, VARDATA& a, VARDATA& b, VARDATA& result);
    // Position of str among the comma-separated items of list; 0 when it is
    // not there or holds a comma. Integer (2).
    static int Find_In_Set(CTalvorBufferPool* pool, VARDATA& str, VARDATA& list, VARDATA& result);
    // args[0] as bits picking from the others, comma-separated; NULL
    // members are left out.
    static int Make_Set(CTalvorBufferPool* pool, int nCount, st_VARDATA* args, VARDATA& result);
    // EXPORT_SET(bits, on, off [, separator [, number of bits]]): the count
    // is read as 32 bits unsigned, and 64 when above 64.
    static int Export_Set(CTalvorBufferPool* pool, int nCount, st_VARDATA* args, VARDATA& result);
    // The args[0]-th of the others, NULL when there is none.
    static int Elt(CTalvorBufferPool* pool, int nCount, st_VARDATA* args, VARDATA& result);
    // FIELD: position of args[0] among the others, 0 if absent or NULL;
    // compared as text when all are text, as integers when all are
    // integers, else as numbers. Integer (2).
    static int TalvorField(CTalvorBufferPool* pool, int nCount, st_VARDATA* args, VARDATA& result);
    // Character position of sub in str, 0 when absent. Integer (2).
    static int InStr(CTalvorBufferPool* pool, VARDATA& str, VARDATA& sub, VARDATA& result);
    static int Locate(CTalvorBufferPool* pool, VARDATA& sub, VARDATA& str, VARDATA& result);
    // From character pos on; pos below 1 gives 0.
    static int Locate(CTalvorBufferPool* pool, VARDATA& sub, VARDATA& str, VARDATA& pos, VARDATA& result);
    static int Position(CTalvorBufferPool* pool, VARDATA& sub, VARDATA& str, VARDATA& result);
    // The character set name of the value: "binary" for numbers, dates and
    // binary text, "utf8mb4" for text.
    static int CharSet(CTalvorBufferPool* pool, VARDATA& value, VARDATA& result);
    // The value, under a name only the column list sees.
    static int Name_Const(CTalvorBufferPool* pool, VARDATA& name, VARDATA& value, VARDATA& result);
    // EXTRACTVALUE on a path of element names (/a/b, //b, * and a final
    // /text()): the direct text of every match, blank-separated; the empty
    // text when nothing matches, NULL for a path or document it cannot read.
    static int Xml_Extract(CTalvorBufferPool* pool, VARDATA& xml, VARDATA& path, VARDATA& result);

    // ---- Number as text
    // The value as a 64-bit integer in base 2 / 8 / 16 (two's complement
    // for negatives). Hex of text gives its bytes in hexadecimal.
    static int Bin(CTalvorBufferPool* pool, VARDATA& value, VARDATA& result);
    static int Oct(CTalvorBufferPool* pool, VARDATA& value, VARDATA& result);
    static int Hex(CTalvorBufferPool* pool, VARDATA& value, VARDATA& result);
    // Pairs of hexadecimal digits as bytes (8); an odd count reads a
    // leading 0; any other character gives NULL.
    static int UnHex(CTalvorBufferPool* pool, VARDATA& value, VARDATA& result);
    // CONV(value, from, to): bases 2 to 36 by absolute value, a negative
    // one signed; any other base gives NULL.
    static int Conv(CTalvorBufferPool* pool, VARDATA& value, VARDATA& from, VARDATA& to, VARDATA& result);
    // The number rounded half away from zero to nDigits places (0 to 30)
    // with a comma between groups of three digits.
    static int Format(CTalvorBufferPool* pool, VARDATA& value, VARDATA& digits, VARDATA& result);
    // The number by a format of 0, 9, "." and D: as many places behind the
    // point as the format has behind its point; NULL for a second point.
    static int NumberToChar(CTalvorBufferPool* pool, VARDATA& value, const char* lpszFormat, VARDATA& result);
    // Whether the text holds only 0, 9, "." and D, at least one of them.
    static BOOL IsNumberFormat(const char* lpszFormat, int nLen);
    // Digits of ull in base 8 / 16 (upper case) into lpszOut (23 / 17
    // bytes). Result: the length, NUL not counted.
    static int LongLongToOct(unsigned long long ull, char* lpszOut);
    static int LongLongToHex(unsigned long long ull, char* lpszOut);
    // One nibble as its upper-case hexadecimal digit.
    static char IntToHex(int nNibble);
    // nLen bytes as 2 * nLen upper-case hexadecimal digits and a NUL.
    static void StringToHex(const char* lpSrc, int nLen, char* lpszOut);
    // Whether every byte is a hexadecimal digit.
    static BOOL CheckHexStringValid(const char* lpSrc, int nLen);
    // The value of one hexadecimal digit, -1 for any other character.
    static int GetDecimalBySingleHex(char ch);

    // ---- Math

    // ---- Date and time

    // ---- Null and choice
    // Results are copies of the chosen argument, text in the pool.

    // a unless it is NULL, else b (IFNULL is the same).
    static int Nvl(CTalvorBufferPool* pool, VARDATA& a, VARDATA& b, VARDATA& result);
    static int IfNull(CTalvorBufferPool* pool, VARDATA& a, VARDATA& b, VARDATA& result);
    // b when a is not NULL, else c; a NULL b or c passes as it is.
    static int Nvl2(CTalvorBufferPool* pool, VARDATA& a, VARDATA& b, VARDATA& c, VARDATA& result);
    // NULL when a equals b, else a.
    static int NullIf(CTalvorBufferPool* pool, VARDATA& a, VARDATA& b, VARDATA& result);
    // 1 for NULL, else 0. Integer (2).
    static int IsNull(CTalvorBufferPool* pool, VARDATA& a, VARDATA& result);
    // The first argument that is not NULL; all NULL gives NULL.
    static int Coalesce(CTalvorBufferPool* pool, int nCount, st_VARDATA* args, VARDATA& result);
    // a when cond is true, else b (false and NULL alike); a text condition
    // is true when the number it stands for is not 0.
    static int If(CTalvorBufferPool* pool, VARDATA& cond, VARDATA& a, VARDATA& b, VARDATA& result);
    // CASE: with bHasValue, args[0] is compared with each WHEN; then pairs
    // WHEN, THEN; an odd one left at the end is the ELSE. No match and no
    // ELSE gives NULL.
    static int CaseWhen(CTalvorBufferPool* pool, int nCount, st_VARDATA* args, BOOL bHasValue, VARDATA& result);
    // The largest / smallest argument, compared in the widest type of all;
    // any NULL gives NULL. The result has that type.
    static int Greatest(CTalvorBufferPool* pool, int nCount, st_VARDATA* args, VARDATA& result);
    static int Least(CTalvorBufferPool* pool, int nCount, st_VARDATA* args, VARDATA& result);

    // ---- Types
    // value as nType (GetCompatibleValue's rules); with lpszCharset, text
    // re-encoded from UTF-8 to that character set through iconv (NULL for
    // bytes it cannot convert; TALVOR_FUN_BAD_TYPE for an unknown set).
    static int ConvertOrCast(CTalvorBufferPool* pool, VARDATA& value, BYTE nType, const char* lpszCharset,
                             VARDATA& result);
    // The type code a function's result takes in a plan: nFunction is its
    // keyword id, lpArgTypes the nArgCount argument types. bCharset is kept
    // for text results. Result: 0 with bResult set, or
    // TALVOR_FUN_BAD_FUNCTION for an id that is no function.
    static int GetFunRetValType(int nFunction, BYTE bCharset, const BYTE* lpArgTypes, int nArgCount,
                                BYTE& bResult);
    // The same for the JSON functions.
    static int GetJsonFunRetValType(int nFunction, BYTE& bResult);
    // The wider of two types for COALESCE, IF, GREATEST and the like: text
    // over date over double over decimal over integer; NULL yields to all.
    static BYTE GetWidestType(BYTE a, BYTE b);

    // ---- System
    // A new random UUID, 36 lower-case characters.
    static int GetUUID(CTalvorBufferPool* pool, VARDATA& result);
    // Sleeps the argument in seconds (a negative one: not at all); integer
    // 0. Effect outside its arguments: the calling thread waits.
    static int TalvorSleep(CTalvorBufferPool* pool, VARDATA& seconds, VARDATA& result);
    // The MD5 digest as 32 lower-case hexadecimal digits.
    static int Md5(CTalvorBufferPool* pool, VARDATA& str, VARDATA& result);
    // CRC-32 of the text with trailing NUL bytes cut; integer (2). The first
    // call may build the keyword singleton, which takes no lock: the process
    // makes it at start (CTalvorKeywordParse::instance) before threads run.
    static int CRC32(CTalvorBufferPool* pool, VARDATA& str, VARDATA& result);
    // Dotted IPv4 text to its number (short forms as a.b, a.b.c) and back;
    // anything else gives NULL.
    static int Inet_aton(CTalvorBufferPool* pool, VARDATA& str, VARDATA& result);
    static int Inet_ntoa(CTalvorBufferPool* pool, VARDATA& n, VARDATA& result);
    // A relation's start / end node id: the first / second 8 bytes of its
    // 16-byte binary key, little-endian. Other values give NULL.
    static int StartNodeID(CTalvorBufferPool* pool, VARDATA& relation, VARDATA& result);
    static int EndNodeID(CTalvorBufferPool* pool, VARDATA& relation, VARDATA& result);
};
