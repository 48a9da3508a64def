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
// m_vt of an argument the call left out (Rand without a seed).
#define TALVOR_FUN_NO_ARGUMENT 19
    // Arguments count by the number they stand for (text through its
    // number, dates as day numbers). Results are 64-bit integers (2),
    // doubles (3), decimals (240), a date and time (4) where a date is
    // rounded, or NULL for a NULL argument and for what has no finite value.

    // |x|, -1/0/1, and the integral neighbours of x (an integer stays one, a
    // decimal keeps its type, a double stays a double).
    static int Abs(CTalvorBufferPool* pPool, VARDATA& vArg, VARDATA& vResult);
    static int Sign(CTalvorBufferPool* pPool, VARDATA& vArg, VARDATA& vResult);
    static int Ceil(CTalvorBufferPool* pPool, VARDATA& vArg, VARDATA& vResult);
    static int Floor(CTalvorBufferPool* pPool, VARDATA& vArg, VARDATA& vResult);
    // x to 0 places, or to vDigits places (negative: left of the point).
    // Integers with a negative count round by the remainder against half of
    // the power of ten; decimals half away from zero; doubles half to even
    // (rint), as MySQL does. A date (4, 12, or text that parses as one) with
    // a text vDigits that is a unit (CC, YYYY, Q, MM, WW, DD, HH, MI, SS, IW)
    // is rounded by it, by "DD" when the count is absent; any other vDigits
    // is a count. Result: 0.
    static int Round(CTalvorBufferPool* pPool, VARDATA& vArg, VARDATA& vResult);
    static int Round(CTalvorBufferPool* pPool, VARDATA& vArg, VARDATA& vDigits, VARDATA& vResult);
    // The typed forms the above dispatch to. Text: a date with a unit goes
    // to the calendar, else the number it stands for.
    static int Round(CTalvorBufferPool* pPool, const char* lpszText, int nLen, VARDATA& vDigits, VARDATA& vResult);
    static int Round(double dValue, int nDigits, VARDATA& vResult);
    static int Round(int nValue, int nDigits, VARDATA& vResult);
    static int Round(long long llValue, int nDigits, VARDATA& vResult);
    // The same shapes cutting towards zero (dates: towards the unit's start).
    static int Trunc(CTalvorBufferPool* pPool, VARDATA& vArg, VARDATA& vResult);
    static int Trunc(CTalvorBufferPool* pPool, VARDATA& vArg, VARDATA& vDigits, VARDATA& vResult);
    static int Trunc(CTalvorBufferPool* pPool, const char* lpszText, int nLen, VARDATA& vDigits, VARDATA& vResult);
    static int Trunc(double dValue, int nDigits, VARDATA& vResult);
    static int Trunc(int nValue, int nDigits, VARDATA& vResult);
    static int Trunc(long long llValue, int nDigits, VARDATA& vResult);
    // a % b (NULL for a zero divisor), a to the power b, the square root,
    // e to x; NULL where the value is not finite or not real.
    static int Mod(CTalvorBufferPool* pPool, VARDATA& vA, VARDATA& vB, VARDATA& vResult);
    static int Power(CTalvorBufferPool* pPool, VARDATA& vA, VARDATA& vB, VARDATA& vResult);
    static int Sqrt(CTalvorBufferPool* pPool, VARDATA& vArg, VARDATA& vResult);
    static int Exp(CTalvorBufferPool* pPool, VARDATA& vArg, VARDATA& vResult);
    // Natural logarithm, and the logarithm of vArg to vBase; NULL for an
    // argument at or below 0 and a base at or below 0 or equal to 1.
    static int Log(CTalvorBufferPool* pPool, VARDATA& vArg, VARDATA& vResult);
    static int Log(CTalvorBufferPool* pPool, VARDATA& vBase, VARDATA& vArg, VARDATA& vResult);
    // LN, LOG2 or LOG10 by the function number (keyword id). Result: 0, or
    // TALVOR_FUN_BAD_FUNCTION.
    static int SpecialLog(CTalvorBufferPool* pPool, VARDATA& vArg, VARDATA& vResult, int nFunction);
    static int Pi(CTalvorBufferPool* pPool, VARDATA& vResult);
    // No argument (m_vt TALVOR_FUN_NO_ARGUMENT): the first 32 bits of a
    // fresh UUID over 4294967295. A seed: the first value of the sequence it
    // seeds in MySQL's generator; each call starts the sequence afresh, since
    // a member without state cannot know where a statement begins, so equal
    // seeds give equal values. Result in [0, 1].
    static int Rand(CTalvorBufferPool* pPool, VARDATA& vSeed, VARDATA& vResult);
    // 20 sin, 21 asin, 22 cos, 23 acos, 24 tan, 25 cot, 26 radians, 27
    // degrees; the keyword ids SIN to DEGREES name the same. Asin and acos of
    // |x| above 1.000001 are NULL. Result: 0; TALVOR_FUN_OUT_OF_RANGE for
    // cot where the tangent is 0; TALVOR_FUN_BAD_FUNCTION.
    static int MathFuntion(CTalvorBufferPool* pPool, VARDATA& vArg, VARDATA& vResult, int nFunction);
    // atan(x), and atan2(y, x).
    static int ATan(CTalvorBufferPool* pPool, VARDATA& vArg, VARDATA& vResult);
    static int ATan(CTalvorBufferPool* pPool, VARDATA& vY, VARDATA& vX, VARDATA& vResult);
    // Bits set in the 64-bit integer the value stands for.
    static int Bit_Count(CTalvorBufferPool* pPool, VARDATA& vArg, VARDATA& vResult);

    // ---- Date and time
    // A date argument is a date and time (4), a date (12), a time (11, on
    // today's date), a number YYYYMMDD[hhmmss] (a double's fraction is
    // microseconds) or free-form text; anything that names no instant of
    // years 1 to 9999 gives NULL. Results: dates 12, times 11 (whole
    // seconds), dates and times 4, numbers 2 or 3, text 7 in the pool.
    // Clock readings are in the database's zone (DbTimeZoneValue).

    // An argument as a day number, and as a time of day (hours past 23 and
    // below 0 carried by the days); text for a time is "[-][D ]hh:mm:ss",
    // else its date's time. Result: 0, or 49 (out untouched) for NULL or no
    // instant.
    static int date(CTalvorBufferPool* pPool, const VARDATA& vArg, double& dtOut);
    static int time(CTalvorBufferPool* pPool, const VARDATA& vArg, TALVORTIME& stOut);

    // Now: by function number CURDATE / CURRENT_DATE a date, CURTIME /
    // CURRENT_TIME a time, anything else a date and time.
    static int SysDate(CTalvorBufferPool* pPool, VARDATA& vResult, int nFunction);
    // The same in UTC: UTC_DATE, UTC_TIME, else UTC_TIMESTAMP.
    static int UTC_DateTime(CTalvorBufferPool* pPool, VARDATA& vResult, int nFunction);
    // The database's zone as "+hh:mm".
    static int DbTimeZone(CTalvorBufferPool* pPool, VARDATA& vResult);
    // Text read by a format of % and picture tokens to a date and time;
    // parts the format does not give: this year, this month, day 1, time 0.
    // NULL when the text does not follow the format.
    static int ToDate(CTalvorBufferPool* pPool, VARDATA& vText, VARDATA& vFormat, VARDATA& vResult);
    // A date by a format ("YYYY-MM-DD HH24:MI:SS" / "YYYY-MM-DD" when it is
    // empty); text that parses as a date likewise; a number by a format of
    // 0, 9, "." and D (digits after the point as the format has them; a
    // second point gives NULL). NULL value or format: NULL.
    static int ToChar(CTalvorBufferPool* pPool, VARDATA& vValue, VARDATA& vResult, VARDATA& vFormat);
    // The date part (12), and the time part (11).
    static int Date(CTalvorBufferPool* pPool, VARDATA& vArg, VARDATA& vResult);
    static int Time(CTalvorBufferPool* pPool, VARDATA& vArg, VARDATA& vResult);
    // One part of a date by function number: YEAR, MONTH, DAY, DAYOFMONTH,
    // HOUR, MINUTE, SECOND, MICROSECOND, QUARTER, WEEK (mode 0), WEEKOFYEAR
    // (mode 3), DAYOFYEAR, DAYOFWEEK (1 Sunday), WEEKDAY (0 Monday) and
    // TO_DAYS as integers, MONTHNAME and DAYNAME as text; an INTERVAL_TYPE
    // number (1 to 21) goes to GetCombinedData. HOUR, MINUTE, SECOND and
    // MICROSECOND of a time, of text that reads as one, or of a number
    // (HHMMSS below eight digits) go to TimeFuntion. Result: 0, or
    // TALVOR_FUN_BAD_FUNCTION.
    static int DateFuntion(CTalvorBufferPool* pPool, VARDATA& vArg, VARDATA& vResult, int nFunction);
    // The date as text by a format (DATE_FORMAT).
    static int DateFuntion(CTalvorBufferPool* pPool, VARDATA& vArg, VARDATA& vFormat, VARDATA& vResult);
    // HOUR (past 23 for long times), MINUTE, SECOND, MICROSECOND of a time.
    // Result: 0, or TALVOR_FUN_BAD_FUNCTION.
    static int TimeFuntion(CTalvorBufferPool* pPool, VARDATA& vArg, VARDATA& vResult, int nFunction);
    // EXTRACT(unit FROM date): nUnit an INTERVAL_TYPE or the keyword id of a
    // unit; compound units give their fields' digits side by side. Result:
    // 0, or TALVOR_DATE_BAD_INTERVAL for an unknown unit.
    static int Extract(CTalvorBufferPool* pPool, int nUnit, VARDATA& vArg, VARDATA& vResult);
    // Seconds since 1970 to a date and time, optionally formatted; NULL
    // below 0 or past 9999.
    static int From_UnixTime(CTalvorBufferPool* pPool, VARDATA& vSeconds, VARDATA& vResult);
    static int From_UnixTime(CTalvorBufferPool* pPool, VARDATA& vSeconds, VARDATA& vFormat, VARDATA& vResult);
    // Seconds since 1970 of now, and of a date (the database's zone taken
    // off); a date with a fraction gives a double. NULL before 1970.
    static int Unix_TimeStamp(CTalvorBufferPool* pPool, VARDATA& vResult);
    static int Unix_TimeStamp(CTalvorBufferPool* pPool, VARDATA& vDate, VARDATA& vResult);
    // Days from b to a, dates only.
    static int DateDiff(CTalvorBufferPool* pPool, VARDATA& vA, VARDATA& vB, VARDATA& vResult);
    // Days since year 0 (0001-01-01 is 366) and back; NULL before 0001-01-01.
    static int From_Days(CTalvorBufferPool* pPool, VARDATA& vDays, VARDATA& vResult);
    static int To_Days(CTalvorBufferPool* pPool, VARDATA& vDate, VARDATA& vResult);
    static int To_Seconds(CTalvorBufferPool* pPool, VARDATA& vDate, VARDATA& vResult);
    // The last day of the date's month.
    static int Last_Day(CTalvorBufferPool* pPool, VARDATA& vDate, VARDATA& vResult);
    // Day nDayOfYear (1 up, past the year's end runs on) of the year; NULL
    // for a day below 1.
    static int MakeDate(CTalvorBufferPool* pPool, VARDATA& vYear, VARDATA& vDayOfYear, VARDATA& vResult);
    // A time from hours, minutes and seconds; NULL for minutes or seconds
    // outside 0..59.
    static int MakeTime(CTalvorBufferPool* pPool, VARDATA& vHour, VARDATA& vMinute, VARDATA& vSecond,
                        VARDATA& vResult);
    // Seconds to a time, and a time to seconds.
    static int Sec_To_Time(CTalvorBufferPool* pPool, VARDATA& vSeconds, VARDATA& vResult);
    static int Time_To_Sec(CTalvorBufferPool* pPool, VARDATA& vTime, VARDATA& vResult);
    // a plus (bAdd) or minus the time b: a date and time stays one, a time
    // stays a time.
    static int AddSubTime(CTalvorBufferPool* pPool, VARDATA& vA, VARDATA& vB, VARDATA& vResult, BOOL bAdd);
    // A date plus or minus an interval value (CTalvorDate's form) or a
    // number of days. A date stays a date when the interval has no time
    // part. Result: 0, or the interval's code (517, 25) for a bad one.
    static int AddSubDate(CTalvorBufferPool* pPool, VARDATA& vDate, VARDATA& vInterval, VARDATA& vResult,
                          BOOL bAdd);
    // a less b as a time; both must be of one kind (times, or dates).
    static int TimeDiff(CTalvorBufferPool* pPool, VARDATA& vA, VARDATA& vB, VARDATA& vResult);
    // TIMESTAMP(date), and TIMESTAMP(date, time): a date and time.
    static int TalvorTimeStamp(CTalvorBufferPool* pPool, VARDATA& vDate, VARDATA& vResult);
    static int TalvorTimeStamp(CTalvorBufferPool* pPool, VARDATA& vDate, VARDATA& vTime, VARDATA& vResult);
    // date plus vAmount units (nUnit as in Extract, simple units only).
    static int TimeStampAdd(CTalvorBufferPool* pPool, int nUnit, VARDATA& vAmount, VARDATA& vDate,
                            VARDATA& vResult);
    // b less a in whole units, cut towards zero; months, quarters and years
    // by the calendar (a month is complete when the day and time of day
    // have come round again).
    static int TimeStampDiff(CTalvorBufferPool* pPool, int nUnit, VARDATA& vA, VARDATA& vB, VARDATA& vResult);
    // Months between two periods YYMM or YYYYMM, and a period plus months.
    static int Period_Diff(CTalvorBufferPool* pPool, VARDATA& vA, VARDATA& vB, VARDATA& vResult);
    static int PeriodAdd(CTalvorBufferPool* pPool, VARDATA& vPeriod, VARDATA& vMonths, VARDATA& vResult);
    // Year and week as YYYYWW by MySQL's week modes (mode 0 without one).
    static int YearWeek(CTalvorBufferPool* pPool, VARDATA& vDate, VARDATA& vResult);
    static int YearWeek(CTalvorBufferPool* pPool, VARDATA& vDate, VARDATA& vMode, VARDATA& vResult);
    // The format of nType (keyword id DATE, TIME, DATETIME or TIMESTAMP)
    // for a locale name: EUR, USA, JIS, ISO, INTERNAL; NULL for another.
    static int Get_Format(CTalvorBufferPool* pPool, int nType, VARDATA& vLocale, VARDATA& vResult);
    // A time as text by a format of time tokens; NULL for a date token.
    static int Time_Format(CTalvorBufferPool* pPool, VARDATA& vTime, VARDATA& vFormat, VARDATA& vResult);
    // A date and time moved from one offset ("+hh:mm") to another.
    static int Convert_TZ(CTalvorBufferPool* pPool, VARDATA& vDate, VARDATA& vFrom, VARDATA& vTo,
                          VARDATA& vResult);
    // The interval value (text of the pool) of INTERVAL amount unit, for
    // AddSubDate and CTalvorDate::DateAddSubInterval.
    static int Interval2(CTalvorBufferPool* pPool, VARDATA& vAmount, int nUnit, VARDATA& vResult);
    // INTERVAL(N, N1, N2, ...): how many of N1.. (ascending) are at or
    // below N; -1 for a NULL N.
    static int TalvorInterval(CTalvorBufferPool* pPool, int nCount, st_VARDATA* pArgs, VARDATA& vResult);
    // Any value as a date and time (4), or NULL.
    static int ConvertToDateTime(CTalvorBufferPool* pPool, VARDATA& vArg, VARDATA& vResult);

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
