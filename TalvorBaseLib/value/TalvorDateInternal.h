// TalvorDateInternal.h — what the date sources of this folder share: whole
// days plus microseconds of the day, the civil calendar in 400-year cycles,
// and the digit writers of the formats. Not for use outside the value
// library's date files.
//
// Every function works on its arguments alone and may run on any thread.
#pragma once

#include "TalvorDate.h"

#include <cstring>

namespace talvordate {

const long long MICROS_PER_SECOND = 1000000LL;
const long long MICROS_PER_MINUTE = 60 * MICROS_PER_SECOND;
const long long MICROS_PER_HOUR = 60 * MICROS_PER_MINUTE;
const long long MICROS_PER_DAY = 24 * MICROS_PER_HOUR;
const int MIN_YEAR = 1;
const int MAX_YEAR = 9999;
// Day numbers of 0001-01-01 and 9999-12-31.
const long long MIN_DAY = -693593;
const long long MAX_DAY = 2958465;
// GetFormatType's numbers of an unknown token and of "%%".
const int TOKEN_UNKNOWN = 255;
const int TOKEN_PERCENT = 254;

// vResult becomes the text written from lpszOut up to p (its terminator),
// owned by the caller's pool. Returns 0.
inline int SetTextResult(st_VARDATA& vResult, char* lpszOut, char* p)
{
    *p = 0;
    vResult.m_vt = TALVOR_VT_TEXT;
    vResult.m_bAutoRelease = 0;
    vResult.m_lpszValue = lpszOut;
    vResult.m_nStrLen = (int)(p - lpszOut);
    return 0;
}

// Writes lpszFormat from p: text that is no token as it stands, each token
// by fnPut(p, nType), which returns the end of what it wrote or null for a
// token it cannot write. The end of the text, or null.
template <typename Put>
char* WriteFormat(char* p, const char* lpszFormat, Put fnPut)
{
    for (const char* f = lpszFormat; *f;) {
        int nLen = 1;
        BYTE bType = CTalvorDate::GetFormatType(f, nLen);
        if (bType == TOKEN_UNKNOWN) {
            memcpy(p, f, (size_t)nLen);
            p += nLen;
        } else {
            p = fnPut(p, bType);
            if (p == nullptr) return nullptr;
        }
        f += nLen;
    }
    return p;
}

// January to December, Sunday to Saturday.
extern const char* const g_arMonthNames[12];
extern const char* const g_arDayNames[7];

// A day number split into whole days and microseconds of the day.
struct DayTime {
    long long m_nDay;
    long long m_nMicros;
};

// Result: a / b rounded towards minus infinity (b > 0).
long long FloorDiv(long long a, long long b);
// Result: the day number of a proleptic Gregorian date.
long long DayFromCivil(int nYear, int nMonth, int nDay);
// The date of a day number.
void CivilFromDay(long long nDay, int& nYear, int& nMonth, int& nDayOfMonth);

// Result: false for a day number outside the range or not finite; else t
// holds it, its microseconds in the unit the double keeps there.
bool SplitDate(DATE date, DayTime& t);
// Result: the day number; never rounded onto the next midnight.
DATE JoinDate(const DayTime& t);
// Carries microseconds past a day, either way, into the days.
void Normalize(DayTime& t);
// Result: whether t lies within 0001-01-01 .. 9999-12-31.
bool InRange(const DayTime& t);
// The parts of t, day of week and of year included.
void PartsOf(const DayTime& t, TALVORDATEPARTS& p);
// Result: false for parts that name no instant of years 1 to 9999.
bool DayTimeOf(const TALVORDATEPARTS& p, DayTime& t);
// r = t plus nMonths, the day clamped to the new month's last. Result: 0, or
// 49 when the year leaves 1 to 9999.
int MonthsBetweenAdd(const DayTime& t, int nMonths, DayTime& r);

// A year of nChars digits as free-form text means it: two or fewer below
// 71 are 20xx, the rest 19xx.
int FullYear(int nYear, int nChars);
// 12 for hours 0 and 12, else the hour of the half day.
int Hour12(int nHour);

// Writers into a format's buffer. Result: the end of what was written.
// Two digits of n (0 to 99).
char* PutPair(char* p, int n);
// n in at least nWidth digits, "-" in front of a negative one.
char* PutNumber(char* p, long long n, int nWidth);
// At most nMax characters of lpsz.
char* PutText(char* p, const char* lpsz, int nMax);

}  // namespace talvordate
