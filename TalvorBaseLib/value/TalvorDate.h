// TalvorDate.h — dates as doubles of days since 1899-12-30 00:00:00, the
// fraction being the share of the day; proleptic Gregorian, years 1 to 9999.
// The fraction runs the same way as the days, so 1899-12-29 06:00 is -0.75
// and adding a fraction always moves forward in time.
//
// What a double keeps: the parts of a day number come back in the finest
// power-of-ten unit wider than the spacing of doubles at that day, so parts
// in whole units round-trip exactly and seconds never drift: microseconds
// while |day| < 65,536 (1720-07-26 to 2079-06-04), 10 µs while |day| <
// 524,288 (to 3335), 100 µs up to 9999-12-31. The last instants of a day
// never round onto the next midnight.
//
// Thread safety: the static functions work on their arguments alone and may
// run on any thread. A CTalvorDate object is scratch for one parse on one
// thread. DbTimeZoneValue writes its cache without a latch; every writer
// computes the same value.
#pragma once

#include "TalvorBufferPool.h"
#include "TalvorVarData.h"

typedef double DATE;

#define TALVOR_DATE_INVALID_DATA 49
#define TALVOR_DATE_BAD_PARAMETER 25
#define TALVOR_DATE_BAD_FORMAT 1504
#define TALVOR_DATE_BAD_DATE 1505
#define TALVOR_DATE_NO_MEMORY 3

// Day number of 1970-01-01 and of 1601-01-01.
#define TALVOR_DATE_UNIX_EPOCH 25569
#define TALVOR_DATE_FILETIME_EPOCH (-109205)

// Units a fixed form takes in the longest case, NUL included:
// "YYYY-MM-DD hh:mm:ss.ffffff"; a stored time takes at most "-3072:00:00".
#define TALVOR_DATE_TEXT_UNITS 28
// The current year of RR parsing, read from the clock.
#define TALVOR_DATE_YEAR_NOW 0

// Fields a free-form text may have, and characters in one field.
#define TALVOR_DATE_MAX_FIELDS 8
#define TALVOR_DATE_FIELD_CHARS 8

// Parts of a date and time; microseconds 0 to 999,999.
struct TALVORDATEPARTS {
    int m_nYear;
    int m_nMonth;
    int m_nDay;
    int m_nHour;
    int m_nMinute;
    int m_nSecond;
    int m_nMicrosecond;
    int m_nDayOfWeek;  // 0 Sunday
    int m_nDayOfYear;  // 1 to 366
};

enum INTERVAL_TYPE {
    INTERVAL_MICROSECOND = 1,
    INTERVAL_FRAC_SECOND = 2,
    INTERVAL_SECOND = 3,
    INTERVAL_MINUTE = 4,
    INTERVAL_HOUR = 5,
    INTERVAL_DAY = 6,
    INTERVAL_WEEK = 7,
    INTERVAL_MONTH = 8,
    INTERVAL_QUARTER = 9,
    INTERVAL_YEAR = 10,
    INTERVAL_SECOND_MICROSECOND = 11,
    INTERVAL_MINUTE_MICROSECOND = 12,
    INTERVAL_MINUTE_SECOND = 13,
    INTERVAL_HOUR_MICROSECOND = 14,
    INTERVAL_HOUR_SECOND = 15,
    INTERVAL_HOUR_MINUTE = 16,
    INTERVAL_DAY_MICROSECOND = 17,
    INTERVAL_DAY_SECOND = 18,
    INTERVAL_DAY_MINUTE = 19,
    INTERVAL_DAY_HOUR = 20,
    INTERVAL_YEAR_MONTH = 21
};

#define TALVOR_DATE_BAD_INTERVAL 517
// Amounts of an interval: year, month, day, hour, minute, second, microsecond.
#define TALVOR_INTERVAL_FIELDS 7

class CTalvorDate {
public:
    CTalvorDate();

    // Result: true for a Gregorian leap year.
    static bool IsLeapYear(int nYear);
    // Result: 0 when nDay exists in nMonth (of a leap year with bLeap), else 49.
    static int CheckValidDay(int nMonth, int nDay, bool bLeap);
    // Result: days in the month, 0 for a month outside 1..12.
    static int DaysInMonth(int nYear, int nMonth);
    // Result: 0 when the parts name a real date and time, else 49: month
    // 1..12, day within the month by the leap rule of m_nYear, then the time
    // as CheckValidTime with the fraction. With bTimeOnly the date parts are
    // not looked at (a time alone stands on day 0). The year's range is the
    // conversion's to check, not this.
    static int CheckValidDateTime(const TALVORDATEPARTS& stParts, bool bTimeOnly);
    // Result: 0 for hour 0..23, minute and second 0..59 and, with bFraction,
    // microseconds 0..999,999; else 49.
    static int CheckValidTime(const TALVORDATEPARTS& stParts, bool bFraction);
    // A number YYYYMMDD (7 or 8 digits) or YYMMDD (up to 6 digits, the year
    // completed as a free-form two-digit year is) split into its parts.
    // Result: 0 with the parts set, or 49 (parts untouched) for a negative
    // number, more than 8 digits, or no real date.
    static int ValidDate(long long llValue, int& nYear, int& nMonth, int& nDay);
    // A number HHMMSS split into its parts. Result: 0 with the parts set, or
    // 49 (parts untouched) for a negative number or no time of day.
    static int ValidTime(long long llValue, int& nHour, int& nMinute, int& nSecond);
    // The year of the picture tokens RR and RRRR: nYear with nDigits digits
    // as read. One or two digits are placed in the century nearest
    // nCurrentYear: 00-49 in the century of the current year when its last
    // two digits are 00-49, else in the next one; 50-99 in the previous
    // century when they are 00-49, else in the current one. Three or four
    // digits stand as they are. Result: the full year.
    static int RoundedYear(int nYear, int nDigits, int nCurrentYear);

    // Parts to a day number. Result: 0, or 49 (date untouched) for a part
    // out of range or a year outside 1..9999.
    static int ConvertVariantTime(DATE& date, int nYear, int nMonth, int nDay, int nHour, int nMinute,
                                  int nSecond, int nMillisecond);
    static int ConvertVariantTime(DATE& date, int nYear, int nMonth, int nDay, int nHour, int nMinute, int nSecond);
    // The same with microseconds.
    static int ConvertParts(DATE& date, const TALVORDATEPARTS& stParts);
    static int ConvertVariantTime(DATE& date, const TALVORDATE& stDate);
    static int ConvertVariantTime(DATE& date, const TALVORTIME& stTime);

    // Day number to parts, in the unit the double holds (see above). Result: 0, or
    // 49 outside 0001-01-01 .. 9999-12-31 23:59:59.999999.
    static int ConvertDateTime(DATE date, TALVORDATEPARTS& stParts);
    // The same rounded to the nearest millisecond instead.
    static int ConvertDateTime(DATE date, int& nYear, int& nMonth, int& nDay, int& nHour, int& nMinute,
                               int& nSecond, int& nMillisecond);
    static int ConvertDate(DATE date, TALVORDATE& stDate);
    static int ConvertTime(DATE date, TALVORTIME& stTime);

    // "YYYY-MM-DD hh:mm:ss" and, for nFraction 1 to 6, a point and that many
    // digits of the second; a NUL follows. Out of range: 9999-12-31 23:59:59
    // for positive values, zeros for negative ones. Result: the length.
    static BYTE FormatDateTime(DATE date, char* lpszOut, char nFraction);
    // "YYYY-MM-DD" and "hh:mm:ss" alone, same rules.
    static BYTE FormatDate(DATE date, char* lpszOut);
    static BYTE FormatTime(DATE date, char* lpszOut);
    // The same three in wide text, unit for unit the narrow text; lpszOut
    // holds TALVOR_DATE_TEXT_UNITS units.
    static BYTE FormatDateTime(DATE date, wchar_t* lpszOut, char nFraction);
    static BYTE FormatDate(DATE date, wchar_t* lpszOut);
    static BYTE FormatTime(DATE date, wchar_t* lpszOut);
    // A stored date as "YYYY-MM-DD"; "0000-00-00" for one that names no
    // real date. Result: the length.
    static BYTE FormatDate(const TALVORDATE& stDate, char* lpszOut);
    static BYTE FormatDate(const TALVORDATE& stDate, wchar_t* lpszOut);
    // A stored time as "hh:mm:ss", its whole days counted into the hours
    // (at least two digits) and "-" in front of a negative time;
    // "00:00:00" for fields past 23, 59, 59. Result: the length.
    static BYTE FormatTime(const TALVORTIME& stTime, char* lpszOut);
    static BYTE FormatTime(const TALVORTIME& stTime, wchar_t* lpszOut);

    // Text by a format of % specifiers and picture tokens, in a buffer of
    // the pool; vResult becomes text (m_vt 7). Result: 0, 49 for a date out
    // of range, 3 when the pool gives no memory.
    static int Format(CTalvorBufferPool* pPool, DATE& date, const char* lpszFormat, VARDATA& vResult);
    // Text of a time by a format of time tokens only; hours run past 23
    // with the days, and a negative time starts with "-". Result: 0; 1504
    // for a date token; 3 when the pool gives no memory.
    static int TimeFormat(CTalvorBufferPool* pPool, TALVORTIME& stTime, const char* lpszFormat, VARDATA& vResult);
    // Text as "%Y-%m-%d %H:%i:%s" gives it. Result: as Format.
    static int Format(CTalvorBufferPool* pPool, DATE& date, VARDATA& vResult);
    // One part of a date for EXTRACT, by INTERVAL_TYPE: a single field, the
    // week by mode 0, the quarter, or the digits of a compound type's fields
    // side by side (YEAR_MONTH 202103, DAY_SECOND ddhhmmss). vResult becomes
    // a 64-bit integer. Result: 0, 49 out of range, 517 for a bad type.
    static int GetCombinedData(CTalvorBufferPool* pPool, DATE& date, BYTE bType, VARDATA& vResult);
    // Token number at lpszFormat (see the token table) and its length in
    // nLen; 255 and length 1 for an unknown token.
    static BYTE GetFormatType(const char* lpszFormat, int& nLen);

    // Week number by one of MySQL's modes 0 to 7; nYear receives the year
    // the week belongs to. Result: 0 to 53.
    static int CalcWeek(const TALVORDATEPARTS& stParts, int nMode, int& nYear);

    // Free-form text to parts and to a day number. Result: 0; 1504 for text
    // that cannot be split; 49 for parts out of range.
    int ParseDate(const char* lpszText, int nLen, TALVORDATEPARTS& stParts);
    int ParseDate(const char* lpszText, int nLen, DATE& date);

    // Text by a format of the same tokens Format writes; names compare
    // without regard to case, a blank in the format takes any run of blanks.
    // Parts the format does not set are -1. RR and RRRR read up to four
    // digits and place one or two by RoundedYear against the current year.
    // Result: 0; 1504 for text that does not follow the format; 49 for parts
    // out of range.
    static int ParseDate(const char* lpszText, const char* lpszFormat, TALVORDATEPARTS& stParts);
    // The same against nCurrentYear instead of the clock's year;
    // TALVOR_DATE_YEAR_NOW reads the clock, and only when an RR token needs it.
    static int ParseDate(const char* lpszText, const char* lpszFormat, TALVORDATEPARTS& stParts, int nCurrentYear);

    // Adds years, months, days, hours, minutes, seconds, microseconds; a
    // month that ends sooner clamps the day. Result: 0; 25 for a negative
    // amount; 49 for a result out of range.
    static int DataAddSub(DATE date, int nYears, int nMonths, int nDays, int nHours, int nMinutes, int nSeconds,
                          int nMicroseconds, DATE& result);
    // Adds a signed number of months (and years), clamping the day. Result:
    // 0, or 49 out of range.
    static int AddMonths(DATE date, int nMonths, DATE& result);

    // An interval value (byte 0 is 1, byte 1 the INTERVAL_TYPE, byte 2 the
    // type of the amount, then its text) to amounts in arFields (seven).
    // Fewer numbers than a compound type has fill its last fields; the
    // digits after a point are microseconds by their count. Result: 0, 517
    // for a bad type, 25 for a bad amount.
    static int ParseIntervalString(const char* lpszInterval, long long* arFields, INTERVAL_TYPE& eType);
    // date plus or minus an interval value (its text side). vResult becomes
    // a date and time (m_vt 4). Result: 0; the codes of ParseIntervalString;
    // 49 with vResult null when the result leaves years 1 to 9999.
    static int DateAddSubInterval(CTalvorBufferPool* pPool, DATE date, const VARDATA& vInterval, VARDATA& vResult,
                                  BOOL bAdd);
    // The same for a stored date or time: the result keeps the operand's
    // kind (m_vt 12 or 11) when the interval has no finer part (no time part
    // for a date, no date part for a time), else it is a date and time; a
    // time counts from day 0. Result: as above; 49 also for a time whose
    // days leave a signed byte.
    static int DateAddSubInterval(CTalvorBufferPool* pPool, const TALVORDATE& stDate, const VARDATA& vInterval,
                                  VARDATA& vResult, BOOL bAdd);
    static int DateAddSubInterval(CTalvorBufferPool* pPool, const TALVORTIME& stTime, const VARDATA& vInterval,
                                  VARDATA& vResult, BOOL bAdd);
    // "[-][D ]hh[:mm[:ss]]" to a time whose whole days go to m_nDay, with
    // m_nDay the floor for negative times. Result: 0, 1504 for other text,
    // 49 for minutes or seconds past 59 or days past a signed byte.
    static int ParseTime(TALVORTIME& stTime, const char* lpszText, int nLen);
    // Now, in the database's zone.
    static DATE GetCurrentDateTime();
    // (year - 1) / 100 of the current year.
    static int GetCentury();
    // date less the offset lpszFrom plus the offset lpszTo, as a date and
    // time; null for a bad offset. Result: 0.
    static int ConvertTZ(CTalvorBufferPool* pPool, DATE date, const char* lpszFrom, const char* lpszTo,
                         VARDATA& vResult);

    // Round or truncate to a unit (CC, YYYY, Q, MM, WW, DD, HH, MI, SS, IW
    // and their synonyms). Result: 0; 25 for an unknown unit; 49 out of range.
    static int Round(DATE date, const char* lpszUnit, DATE& result);
    static int Trunc(DATE date, const char* lpszUnit, DATE& result);
    // Result: the unit number 1 to 10, 255 for an unknown one.
    static BYTE GetRoundType(const char* lpszUnit);

    // "+hh:mm" or "-hh:mm" (minutes optional) to days. Result: 0, or 25.
    static int TZToValue(const char* lpszZone, double& dDays);

private:
    int Split(const char* lpszText, int nLen);
    int FieldValue(int nField) const;

    int m_nTimeIndex;
    int m_nDataIndex;
    char m_arData[TALVOR_DATE_MAX_FIELDS][TALVOR_DATE_FIELD_CHARS + 1];
};

// Hours east of UTC of the machine's zone, from mktime of 2017-01-01 against
// gmtime; computed once and cached.
double DbTimeZoneValue();
// Seconds since 1970 to a day number in the database's zone.
DATE ConvertTimetoDate(const long& tTime);
// 100-ns ticks since 1601 to a day number in the database's zone.
DATE ConvertFileTimetoDate(const FILETIME& ft);
DATE ConvertFileTimetoDate(long long llTicks);

// New wide texts of a day number as FormatDateTime writes it with nFraction
// places, and of a stored time as FormatTime writes it. Any thread. Result:
// the text, which the caller gives back with delete[]; null when memory is
// short.
wchar_t* TalvorConvertDate(DATE date, char nFraction);
wchar_t* TalvorConvertTime(const TALVORTIME& stTime);
