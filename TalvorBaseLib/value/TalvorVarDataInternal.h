// TalvorVarDataInternal.h — shared helpers of the typed value's sources; not
// for callers outside this folder.
#pragma once

#include "TalvorVarDataOps.h"

namespace talvorvar {

// Text forms never need more than this for a number or a date: a double by
// "%f" of 1.8e308 is 309 digits, a point and 6 places.
constexpr int kNumberTextBytes = 400;
// Text read as a number or a date is cut to this; no number of the decimal
// parser and no date text is longer.
constexpr int kParseBytes = 400;
// Doubles and day numbers equal within this.
constexpr double kDoubleEpsilon = talvorfixed::kDoubleEpsilon;

inline bool IsMarker(BYTE vt) { return vt == TALVOR_VT_MARK_UNKNOWN || vt == TALVOR_VT_MARK_TRUE; }
// NULL, a marker, or a value never set: nothing to compute on.
inline bool IsVoid(BYTE vt) { return vt == TALVOR_VT_NULL || vt == TALVOR_VT_EMPTY || IsMarker(vt); }
inline bool IsIntType(BYTE vt)
{
    return vt == TALVOR_VT_INT || vt == TALVOR_VT_BIGINT || vt == TALVOR_VT_TINY || vt == TALVOR_VT_SMALL ||
           vt == TALVOR_VT_ENUM;
}
inline bool IsTextType(BYTE vt)
{
    return vt == TALVOR_VT_FIXTEXT || vt == TALVOR_VT_VARTEXT || vt == TALVOR_VT_TEXT || vt == TALVOR_VT_BINARY ||
           vt == TALVOR_VT_PREFIXTEXT || vt == TALVOR_VT_HEX;
}
inline bool IsDateType(BYTE vt) { return vt == TALVOR_VT_DATETIME || vt == TALVOR_VT_DATE || vt == TALVOR_VT_TIME; }
inline bool MayOwn(BYTE vt) { return vt == TALVOR_VT_VARTEXT || vt == TALVOR_VT_BINARY || vt == TALVOR_VT_HEX; }

// The integer of an integer type, whatever its width.
long long IntOf(const st_VARDATA& v);
// The bytes of a text value, trailing NUL bytes not counted; a negative or
// null length reads as empty.
const char* TextOf(const st_VARDATA& v, int& nLen);
// Whether the text is a hexadecimal literal (type 127, or text marked so).
bool IsHexText(const st_VARDATA& v);
// The day number of a date type. Result: false when its fields name no day.
bool DaysOf(const st_VARDATA& v, double& dDays);
// The text as a date, when the free-form date parser takes all of it.
bool TextAsDate(const char* p, int nLen, double& dDays);
// A copy of up to kParseBytes - 1 bytes with a NUL, for the parsers.
void CopyForParse(const char* p, int nLen, char* szOut);
// IsNumber's kind of a NUL-ended text, with bare hexadecimal digits that
// start with no decimal number ("abc") counted as no number.
int TextNumberKind(const char* sz);
// The text with blanks at both ends taken off, NUL-ended, into szOut of
// kParseBytes.
void TrimmedCopy(const char* p, int nLen, char* szOut);
// A day number as a stored time, whole days floored into m_nDay. Result:
// false when the days leave a signed byte.
bool TimeOfDays(double dDays, TALVORTIME& stTime);
// Sets v to a decimal / NULL / 64-bit integer / double, owning nothing.
void MakeNull(st_VARDATA& v);
void MakeBigInt(st_VARDATA& v, long long ll);
void MakeDouble(st_VARDATA& v, double d);

} // namespace talvorvar
