// TalvorVarDataOps.h — the typed value's operations: the members declared in
// TalvorVarData.h (setting, borrowing, reading, converting, arithmetic, bits,
// compare, logic, hash) and the free compare of one SQL operator.
//
// Arithmetic and conversion follow MySQL's loose rules: text that looks like
// a number acts as one, dates and numbers mix, NULL spreads. What cannot be
// computed is NULL, not an error; results report only a type pair without a
// rule (516) and no memory (3).
//
// Thread safety: values belong to one statement; no function takes a latch
// and none keeps state, so distinct values may be worked on by any thread.
#pragma once

#include "TalvorVarData.h"

// Results.
#define TALVOR_VARDATA_TYPE_ERROR 516
#define TALVOR_VARDATA_NO_MEMORY 3
#define TALVOR_VARDATA_BAD_OPERATOR 1503
#define TALVOR_VARDATA_BAD_TYPE 1501

// Longest text a value copies: a length from a value or a caller is checked
// against it before any allocation.
#define TALVOR_VARDATA_MAX_TEXT 0x40000000

// Comparison operators of CompareData.
#define TALVOR_OP_SAFE_EQUAL 19
#define TALVOR_OP_EQUAL 20
#define TALVOR_OP_NOT_EQUAL 21
#define TALVOR_OP_GREATER 22
#define TALVOR_OP_GREATER_EQUAL 23
#define TALVOR_OP_LESS 24
#define TALVOR_OP_LESS_EQUAL 25

// Three-valued truth.
#define TALVOR_FALSE 0
#define TALVOR_TRUE 1
#define TALVOR_UNKNOWN 2

// Runs comparison operator bOperator (19 to 25) on a and b. nResult gets 1
// or 0, or 2 when a side is NULL (19, NULL-safe equality, never gives 2).
// Result: 0, or 1503 with nResult untouched for another operator.
int CompareData(const VARDATA& a, const VARDATA& b, BYTE bOperator, int& nResult);

// ---- Field buffers: the stored form of one field value, a first byte (the
// null flag, the caller's to read) and the value behind it: integers, doubles,
// dates and times at offset 1; text a length byte and the text, or 255, a
// 32-bit length and the text at offset 6 when longer than 249 bytes.

// Longest text a field buffer holds behind a one-byte length.
#define TALVOR_FIELD_SHORT_TEXT 249
// The length byte that says a 32-bit length follows.
#define TALVOR_FIELD_LONG_TEXT 255

// Bytes of the field buffer of a value of bType: text of nLen bytes, a
// decimal of precision bCharLen. Result: 0 with nBufferLen set; 1501 for a
// type without a field form or a negative nLen (nBufferLen untouched).
int GetFieldBufferLen(BYTE bType, BYTE bCharLen, int nLen, int& nBufferLen);

// Reads a field buffer of bType into v, after v gives back text it owned.
// 80 and 81 come back as 1; 5, 6, 7 as 6 pointing into the buffer, not
// owned (the buffer must outlive v); 8 as an owned copy; 10 as NULL. Types
// 0, 30 and above 81 leave v as it is. Result: 0, or 3 when the copy of
// type 8 finds no memory or a length past TALVOR_VARDATA_MAX_TEXT.
int GetValueFromFieldBuffer(BYTE bType, const BYTE* lpBuffer, VARDATA& v);
// The same for a buffer of nBufferLen bytes from outside: a value or a
// length that would pass its end is refused with 1501 and v left NULL.
int GetValueFromFieldBuffer(BYTE bType, const BYTE* lpBuffer, int nBufferLen, VARDATA& v);

// ---- Printers.

// Prints v: integers by "%d" or "%lld", doubles by "%f", decimals as they
// print, dates and times by their fixed forms, text as its bytes, NULL as
// nothing; a NUL follows. With a null lpszOut only measures. Result: the
// length, NUL not counted; the buffer must hold it and the NUL.
int ConvertVarData2String(const VARDATA& v, char* lpszOut);
// Characters an integer prints to, its sign included.
int GetIntegerFigure(long long llValue);
// Characters a double prints to: sign, integer digits, and a point and the
// fraction digits, counted until the rest is at or below 1e-10 (17 at most).
int GetDoubleFigure(double dValue);
// Characters a text takes: nLen, and with bQuote 2 more for the quotes,
// unless it is an object in braces.
int GetStringFigure(const char* lpszText, int nLen, BOOL bQuote);
