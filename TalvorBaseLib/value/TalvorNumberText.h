// TalvorNumberText.h — numbers in and out of text (bit literals, bases up to
// 36, hexadecimal), small numeric helpers, and the object-number bit sets of
// the planner.
//
// Thread-safety: every function works on its arguments alone and may run on
// any thread.
#pragma once

#include "TypeDef.h"

// Status of a conversion that met text it cannot read.
#define TALVOR_ERROR_INVALID_DATA 1500

// A set of up to 64 object numbers: object n is bit n - 1.
typedef long long relbitmap;

// --- Recognising and reading numbers --------------------------------------------

#define TALVOR_NUMBER_NONE 0
#define TALVOR_NUMBER_INTEGER 1
#define TALVOR_NUMBER_HEX_OR_SIZE 2
#define TALVOR_NUMBER_POINT 3

// What kind of number a NUL-terminated text is: 1 decimal integer (optional
// "-"; the empty text too), 2 hexadecimal digits, "0x" and hexadecimal, or a
// decimal with a size suffix (K, M, G, T, each optionally followed by B,
// either case), 3 digits with one point, 0 anything else or null.
int IsNumber(const char* lpszText);

// strtod of the text when IsNumber recognises a decimal or pointed number,
// else 0.0.
double ToDouble(const char* lpszText);

// Skips two bytes (the "0x"), then reads hexadecimal digits up to the first
// that isn't one. A null text or one under 3 bytes gives 0.
long long HexStringToNumber(const char* lpszText);

// Up to the first 8 of nLen bytes, read as a big-endian number.
long long GetHexEncodedData(const char* lpData, int nLen);

// Reads a bit literal b'0101', b0101 or 0b0101 (any number of zeros before
// the b, b in either case) into llValue and its digit count into nBits.
// Result: 0, or TALVOR_ERROR_INVALID_DATA for any other text or more than 64
// digits (then the outputs are 0).
int ConvertBitToNumber(const char* lpszText, long long& llValue, int& nBits);

// Writes b'<nLen binary digits>' (the low nLen bits, highest first; nLen
// cut to 1..64) and a NUL. Result: the length written, NUL not counted.
int ConvertBitToString(long long nValue, int nLen, char* lpszOut);

// CONV's reader: the longest head of digits valid in base |nFromBase| (2 to
// 36, letters either case), after an optional "-". A negative base reads a
// signed number, saturating at the 64-bit signed limits; a positive one an
// unsigned number, saturating at 2^64 - 1, a "-" negating it modulo 2^64.
// Result: 0, or TALVOR_ERROR_INVALID_DATA for a base outside the range.
int ConvSpecifiedStringToDecimal(const char* lpszSrc, int nFromBase, long long& llValue);

// CONV's writer: llValue in base |nToBase| with upper-case letters; a
// negative base prints a signed value, a positive one the value as unsigned.
// lpszOut needs 66 bytes. Result: the length, NUL not counted; 0 and an empty
// text for a base outside 2 to 36.
int ConvDecimalToSpecifiedString(long long llValue, int nToBase, char* lpszOut);

// --- Small helpers -----------------------------------------------------------------

// 0 when a and b differ by less than 1e-6, else -1 or 1.
int CompareDouble(double a, double b);

// Removes trailing zeros and then a trailing point, in place. Without bCheck
// the text must hold exactly one point, or it is left alone and the result
// is 0. Result: the new length.
int TrimTailZero(char* lpszText, BOOL bCheck);

// Print the value by sprintf's decimal form and give the end of the text
// (its NUL). lpszOut needs 21 bytes.
char* TalvorConvert(char* lpszOut, signed char value);
char* TalvorConvert(char* lpszOut, unsigned char value);
char* TalvorConvert(char* lpszOut, short value);
char* TalvorConvert(char* lpszOut, unsigned short value);
char* TalvorConvert(char* lpszOut, int value);
char* TalvorConvert(char* lpszOut, unsigned int value);
char* TalvorConvert(char* lpszOut, long long value);
char* TalvorConvert(char* lpszOut, unsigned long long value);

// The ceiling of log2(n): 0 below 2, 1 for 2, 2 up to 4, 3 up to 8, ...
int TalvorLog2(long long n);

// log(x) / log(base).
double TalvorLog(double dBase, double x);

// Of nCount int arguments: the first that isn't 0, replaced by the last
// argument when that is not 0 and smaller; 0 when all are 0 or nCount < 1.
int GetFirstNoZeroValue(int nCount, ...);

// --- Object-number sets --------------------------------------------------------------

// Adds object bObjectNo (1 to 64; others are ignored) to rel.
void AddRel(BYTE bObjectNo, relbitmap& rel);
// The union.
relbitmap BmsAdd(relbitmap a, relbitmap b);
// Whether the two sets share an object.
BOOL BmsOverlap(relbitmap a, relbitmap b);
// Whether a has no object outside b.
BOOL BmsIsSubset(relbitmap a, relbitmap b);
