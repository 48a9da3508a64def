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

    // ---- Number as text

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

    // ---- Types

    // ---- System
};
