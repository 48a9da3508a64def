// TalvorDecimal.h — the exact numeric type: up to 36 significant digits in
// four base-10^9 limbs (least significant first) inside a st_VARDATA, with a
// scale of its own (value = limbs x 10^-m_bScale). No operation allocates.
//
// Thread safety, for every function here: the class has no state; a call
// touches only the values passed to it, so calls on distinct values may run
// on any thread at once.
#pragma once

#include "TalvorVarData.h"

// Results, as the message table numbers them.
#define TALVOR_ERROR_DECIMAL_PRECISION 91
#define TALVOR_ERROR_DECIMAL_LOAD 363
#define TALVOR_ERROR_DECIMAL_INVALID 1500

#define TALVOR_DECIMAL_MAX_DIGITS 36
#define TALVOR_DECIMAL_MAX_SCALE 127
#define TALVOR_DECIMAL_MIN_SCALE (-127)
#define TALVOR_DECIMAL_LIMB_BASE 1000000000
// m_bPrecison of a quotient: it prints with at most 9 places.
#define TALVOR_DECIMAL_QUOTIENT 255

// 1, 10, ..., 10^9.
extern const int TalvorPowers10[10];

class CTalvorDecimal {
public:
    // Parses a number. Result: 0 with a decimal, or 0 with null for "NA" and
    // "NAN"; 363 with null for any other word beginning with N; 1500 with
    // null for text that is no number; 0 with null for 164 or more integer
    // digits or a scale past -127..127.
    static int Convert2Decimal(const char* lpszText, st_VARDATA* lpValue);
    // The same over nLen bytes, which need no NUL.
    static int Convert2Decimal(const char* lpszText, int nLen, st_VARDATA* lpValue);

    // Exact conversions from integers; the value becomes a decimal of scale 0.
    static void Convert2Decimal(int nValue, st_VARDATA* lpValue);
    static void Convert2Decimal(unsigned int uValue, st_VARDATA* lpValue);
    static void Convert2Decimal(long long llValue, st_VARDATA* lpValue);
    static void Convert2Decimal(unsigned long long ullValue, st_VARDATA* lpValue);
    // At most 18 significant digits of the double, rounded half up, no
    // trailing zeros; zero below 10^-90; null for 161 or more integer digits,
    // NaN or infinity.
    static void Convert2Decimal(double dblValue, st_VARDATA* lpValue);

    // Result: the integer value, rounded half away from zero with bRound,
    // else cut. Outside the type's range it saturates at the nearest limit.
    static int Convert2Int(const st_VARDATA* lpValue, BOOL bRound);
    static long long Convert2Int64(const st_VARDATA* lpValue, BOOL bRound);
    // Result: the nearest double the limb fold gives.
    static double Convert2Double(const st_VARDATA* lpValue);
    // Result: TRUE and the value in the out argument when the decimal is an
    // integer within the type's range; FALSE and the out argument untouched.
    static BOOL IsInt(const st_VARDATA* lpValue, int& nValue);
    static BOOL IsInt64(const st_VARDATA* lpValue, long long& llValue);

    // Writes the text and a NUL. Result: the length without the NUL. The
    // buffer holds sign, 36 digits, point and the zeros of the scale: 170
    // bytes always suffice.
    static int PrintDecimal(const st_VARDATA* lpValue, char* lpszOut);

    // Result: -1, 0 or 1. Zeros are equal whatever their signs.
    static int Compare(const st_VARDATA* a, const st_VARDATA* b);

    // c = a op b. Result: 0, or 91 with c null when the result's magnitude
    // needs a scale below -127. A result too small for scale 127 is zero.
    // c may be a or b.
    static int Add(const st_VARDATA* a, const st_VARDATA* b, st_VARDATA* c);
    static int Sub(const st_VARDATA* a, const st_VARDATA* b, st_VARDATA* c);
    static int Add(st_VARDATA* a, const st_VARDATA* b) { return Add(a, b, a); }
    static int Sub(st_VARDATA* a, const st_VARDATA* b) { return Sub(a, b, a); }
    static int Mul(const st_VARDATA* a, const st_VARDATA* b, st_VARDATA* c);
    // 36 significant digits, m_bPrecison 255. b zero: c null, result 0.
    // A scale past 127 either way: c null, 91.
    static int Div(const st_VARDATA* a, const st_VARDATA* b, st_VARDATA* c);
    // Remainder with the sign and the scale of a (the larger scale of the
    // two). a with no limbs: 1500. b zero: c null, result 0.
    static int Mod(const st_VARDATA* a, const st_VARDATA* b, st_VARDATA* c);

    // dst = src at scale nScale; fewer places are rounded half away from
    // zero with bRound, else cut. Result: 0, or 91 with dst null when more
    // places overflow the limbs or nScale is outside -127..127.
    static int Zoom(const st_VARDATA* src, st_VARDATA* dst, char nScale, BOOL bRound);
    // Result: 0 with dst at scale 0, towards plus or minus infinity; 91 with
    // dst null when the integer needs more than 36 digits.
    static int Ceil(const st_VARDATA* src, st_VARDATA* dst);
    static int Floor(const st_VARDATA* src, st_VARDATA* dst);
    // Drops trailing zeros of the fraction, no further than scale 0. Result: 0.
    static int Clean(st_VARDATA* lpValue);

    // Adds nValue to the limbs, whatever the scale. Result: 0, or 91 with
    // the value null past 36 digits.
    static int Add(st_VARDATA* lpValue, int nValue);
    // dst = src with the limbs times 10^n and the scale raised by n; null
    // when that overflows the limbs or the scale.
    static void ZoomOut(const st_VARDATA* src, st_VARDATA* dst, BYTE n);
    // Turn the value into an int (m_vt 1) or long long (m_vt 2) in place
    // when it is an integer of that range; otherwise it stays a decimal.
    static void SafeConvert2Int(st_VARDATA* lpValue);
    static void SafeConvert2Int64(st_VARDATA* lpValue);
    // The integer value, rounded half away from zero, in upper-case
    // hexadecimal digits: a negative value as its 64-bit two's complement, a
    // value past 2^64 - 1 as that. lpszOut needs 17 bytes. Result: length.
    static int PrintDecimalHex(const st_VARDATA* lpValue, char* lpszOut);

    // Result: significant digits, 0 for zero.
    static int CalcValidDigit(const st_VARDATA* lpValue);
    // Result: TRUE when no limb is set.
    static int IsZero(const st_VARDATA* lpValue);
};

// --- Integers from text through the decimal parser ------------------------------
// Thread safety: as above, any thread.

// An integer from 1 to 62 bytes of text, with an optional size suffix K, M,
// G or T (powers of 1024), each optionally followed by B, either case. The
// number before the suffix is parsed as a decimal and cut to an integer.
// Result: the value, saturated at the 64-bit limits; 0 for anything else.
long long ToNumber(const char* lpszText, int nLen);
// The decimal value of the text cut to an integer and saturated at the
// type's limits; 0 for text that is no number.
int StringToInt(const char* lpszText);
// The same over nLen bytes, which need no NUL.
int StringToInt(const char* lpszText, int nLen);
long long StringToLongLong(const char* lpszText);

// --- Numbers as new wide texts ---------------------------------------------------
// Thread safety: as above, any thread. Each result is the caller's, to give
// back with delete[]; null when memory is short or lpValue is null.

// Bytes PrintDecimal may write, NUL included: sign, 36 digits, point and the
// zeros of a scale of 127.
#define TALVOR_DECIMAL_TEXT_BYTES 170

// The text of PrintDecimal, unit for unit.
wchar_t* TalvorDecimal2WChar(const st_VARDATA* lpValue);
// An integer in decimal digits, "-" in front of a negative one.
wchar_t* TalvorConvertNumber2WChar(long long llValue);
// A double as the decimal it converts to (at most 18 significant digits, no
// trailing zeros) prints; an empty text for NaN, infinities and doubles too
// large for a decimal.
wchar_t* TalvorConvertNumber2WChar(double dblValue);

// --- Stored form and hashing ---------------------------------------------------
// Thread safety: as above, any thread.

#define TALVOR_DECIMAL_BIN_NEGATIVE 0x80
#define TALVOR_DECIMAL_BIN_SCALE 0x40
#define TALVOR_DECIMAL_BIN_BINARY 0x20
#define TALVOR_DECIMAL_BIN_LENGTH 0x1F
// Scale byte of the largest key of a column; no value has this scale.
#define TALVOR_DECIMAL_MAX_KEY_SCALE 0x80

class CTalvorDecimalBin {
public:
    // Result: bytes of the stored form for a declared precision (3 to 18).
    static int CalcBinLen(int nPrecison);
    // Result: bytes the value takes through FormatBin.
    static int CalcBinLen(const st_VARDATA* lpValue);
    // Result: bytes of a stored value, from its flag byte.
    static int GetBinLen(const BYTE* lpData);
    // Writes the stored form, by the value's m_bPrecison or, when that is 0,
    // by its digit count. Result: bytes written; 0 when the buffer of nLen
    // bytes is too small or the value exceeds its declared precision.
    static int FormatBin(const st_VARDATA* lpValue, LPBYTE lpBuffer, int nLen);
    // Reads a stored form. Result: 0, or 363 (value null) for a length
    // above 16 or a limb above 999,999,999.
    static int LoadBin(const BYTE* lpData, st_VARDATA* lpValue);
    // Writes the largest key of a column of nPrecision. Result: its length.
    static int GetMax(int nPrecision, LPBYTE lpBuffer);
    // Result: TRUE for a key written by GetMax.
    static BOOL IsMax(const BYTE* lpData);
    // Fits a value to a column: it stands when its scale is nScale and its
    // digits fit nPrecision, else it is rounded to nScale and tested again.
    // Result: 0, or 91 (value untouched) when it does not fit.
    static int VerificationData(st_VARDATA* lpValue, BYTE nPrecision, char nScale);
    // Result: a hash input that is equal for equal numbers, whatever their
    // scale, sign of zero, or type (int, long long, double, decimal).
    static long long CalcHashFactor(const st_VARDATA* lpValue);
};
