// TalvorDateChecks.cpp — whether parts name a real date and time, numbers
// of the forms YYYYMMDD and HHMMSS, and the year of the RR tokens.

#include "TalvorDate.h"

namespace {

const int HOURS_PER_DAY = 24;
const int MINUTES_PER_HOUR = 60;
const int SECONDS_PER_MINUTE = 60;
const int MICROS_PER_SECOND = 1000000;
const int MONTHS_PER_YEAR = 12;
// Two-digit years below this are 20xx, the others 19xx, as in free-form text.
const int TWO_DIGIT_PIVOT = 71;
const long long HUNDRED = 100;
// YYMMDD up to this value, YYYYMMDD above it, nothing past the second.
const long long SHORT_DATE_MAX = 999999;
const long long LONG_DATE_MAX = 99999999;
const int YEARS_PER_CENTURY = 100;
const int HALF_CENTURY = 50;
const int RR_DIGITS = 2;

}  // namespace

int CTalvorDate::CheckValidTime(const TALVORDATEPARTS& s, bool bFraction)
{
    if (s.m_nHour < 0 || s.m_nHour >= HOURS_PER_DAY) return TALVOR_DATE_INVALID_DATA;
    if (s.m_nMinute < 0 || s.m_nMinute >= MINUTES_PER_HOUR) return TALVOR_DATE_INVALID_DATA;
    if (s.m_nSecond < 0 || s.m_nSecond >= SECONDS_PER_MINUTE) return TALVOR_DATE_INVALID_DATA;
    if (bFraction && (s.m_nMicrosecond < 0 || s.m_nMicrosecond >= MICROS_PER_SECOND)) return TALVOR_DATE_INVALID_DATA;
    return 0;
}

int CTalvorDate::CheckValidDateTime(const TALVORDATEPARTS& s, bool bTimeOnly)
{
    if (!bTimeOnly) {
        if (s.m_nMonth < 1 || s.m_nMonth > MONTHS_PER_YEAR) return TALVOR_DATE_INVALID_DATA;
        if (CheckValidDay(s.m_nMonth, s.m_nDay, IsLeapYear(s.m_nYear)) != 0) return TALVOR_DATE_INVALID_DATA;
    }
    return CheckValidTime(s, true);
}

int CTalvorDate::ValidDate(long long llValue, int& nYear, int& nMonth, int& nDay)
{
    if (llValue < 0 || llValue > LONG_DATE_MAX) return TALVOR_DATE_INVALID_DATA;
    TALVORDATEPARTS s = {0, 0, 0, 0, 0, 0, 0, 0, 0};
    s.m_nDay = (int)(llValue % HUNDRED);
    s.m_nMonth = (int)(llValue / HUNDRED % HUNDRED);
    s.m_nYear = (int)(llValue / (HUNDRED * HUNDRED));
    if (llValue <= SHORT_DATE_MAX) s.m_nYear += s.m_nYear < TWO_DIGIT_PIVOT ? 2000 : 1900;
    if (CheckValidDateTime(s, false) != 0) return TALVOR_DATE_INVALID_DATA;
    nYear = s.m_nYear;
    nMonth = s.m_nMonth;
    nDay = s.m_nDay;
    return 0;
}

int CTalvorDate::ValidTime(long long llValue, int& nHour, int& nMinute, int& nSecond)
{
    // The bound keeps the hours of a huge number from wrapping an int.
    const long long MAX_TIME = 235959;
    if (llValue < 0 || llValue > MAX_TIME) return TALVOR_DATE_INVALID_DATA;
    TALVORDATEPARTS s = {0, 0, 0, 0, 0, 0, 0, 0, 0};
    s.m_nSecond = (int)(llValue % HUNDRED);
    s.m_nMinute = (int)(llValue / HUNDRED % HUNDRED);
    s.m_nHour = (int)(llValue / (HUNDRED * HUNDRED));
    if (CheckValidTime(s, false) != 0) return TALVOR_DATE_INVALID_DATA;
    nHour = s.m_nHour;
    nMinute = s.m_nMinute;
    nSecond = s.m_nSecond;
    return 0;
}

int CTalvorDate::RoundedYear(int nYear, int nDigits, int nCurrentYear)
{
    if (nDigits > RR_DIGITS) return nYear;
    int nCentury = nCurrentYear / YEARS_PER_CENTURY * YEARS_PER_CENTURY;
    bool bCurrentLate = nCurrentYear % YEARS_PER_CENTURY >= HALF_CENTURY;
    bool bLate = nYear >= HALF_CENTURY;
    // A late year read early in a century belongs to the one before; an
    // early year read late in a century to the one after.
    if (bLate && !bCurrentLate) nCentury -= YEARS_PER_CENTURY;
    if (!bLate && bCurrentLate) nCentury += YEARS_PER_CENTURY;
    return nCentury + nYear;
}
