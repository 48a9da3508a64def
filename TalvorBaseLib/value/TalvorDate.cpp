// TalvorDate.cpp — day numbers, free-form parsing, formatting by tokens,
// week modes, calendar arithmetic, rounding and zones. Intervals, parsing by
// format and the fixed texts have files of their own.
//
// Every computation goes through whole days plus whole microseconds of the
// day, so that carries and clamps are exact integers and the double is
// touched only when a value comes in or goes out.

#include "TalvorDate.h"

#include <cmath>
#include <cstdlib>
#include <cctype>
#include <cstring>
#include <strings.h>
#include <ctime>
#include <sys/time.h>

#include "TalvorDateInternal.h"

namespace talvordate {

const double MICROS_PER_DAY_D = 86400000000.0;
// Days of a 400-year cycle, and of its parts.
const long long DAYS_PER_ERA = 146097;
const long long YEARS_PER_ERA = 400;
// Longest free-form text, and the year where two-digit years turn to 19xx.
const int MAX_FREE_TEXT = 63;
const int TWO_DIGIT_PIVOT = 71;
// Longest text one token produces ("Wednesday", "12:00:00 AM").
const int MAX_TOKEN_TEXT = 16;
// Julian day number of day 0.
const long long JULIAN_OF_DAY_ZERO = 2415019;
// 1 for the days of the week of day 0 (a Saturday): (day + 6) % 7 is 0 Sunday.
const int DAY_ZERO_WEEKDAY = 6;
const int MAX_TZ_HOUR = 13;
const int MIN_TZ_HOUR = -12;
const double ZONE_NOT_READ = 10000.0;

extern const char* const g_arMonthNames[12] = {"January", "February", "March", "April", "May", "June",
    "July", "August", "September", "October", "November", "December"};
extern const char* const g_arDayNames[7] = {"Sunday", "Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday"};
const char* const g_arRoman[12] = {"I", "II", "III", "IV", "V", "VI", "VII", "VIII", "IX", "X", "XI", "XII"};

// Two-digit pairs "00" to "99".
struct DigitPairs {
    char m_arPair[200];
    DigitPairs()
    {
        for (int i = 0; i < 100; ++i) {
            m_arPair[2 * i] = (char)('0' + i / 10);
            m_arPair[2 * i + 1] = (char)('0' + i % 10);
        }
    }
};
const DigitPairs g_Pairs;

long long FloorDiv(long long a, long long b) { return a >= 0 ? a / b : -((-a + b - 1) / b); }

// Days from 0000-03-01 counted in 400-year cycles; March first puts the
// leap day last in each year.
long long DayFromCivil(int nYear, int nMonth, int nDay)
{
    long long y = nMonth <= 2 ? nYear - 1 : nYear;
    long long era = FloorDiv(y, YEARS_PER_ERA);
    long long yoe = y - era * YEARS_PER_ERA;
    long long mp = nMonth > 2 ? nMonth - 3 : nMonth + 9;
    long long doy = (153 * mp + 2) / 5 + nDay - 1;
    long long doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    // 719468 days from 0000-03-01 to 1970-01-01.
    const long long DAYS_MARCH_ZERO_TO_1970 = 719468;
    return era * DAYS_PER_ERA + doe - DAYS_MARCH_ZERO_TO_1970 + TALVOR_DATE_UNIX_EPOCH;
}

void CivilFromDay(long long nDay, int& nYear, int& nMonth, int& nDayOfMonth)
{
    const long long DAYS_MARCH_ZERO_TO_1970 = 719468;
    long long z = nDay - TALVOR_DATE_UNIX_EPOCH + DAYS_MARCH_ZERO_TO_1970;
    long long era = FloorDiv(z, DAYS_PER_ERA);
    long long doe = z - era * DAYS_PER_ERA;
    long long yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    long long doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    long long mp = (5 * doy + 2) / 153;
    nDayOfMonth = (int)(doy - (153 * mp + 2) / 5 + 1);
    nMonth = (int)(mp < 10 ? mp + 3 : mp - 9);
    nYear = (int)(yoe + era * YEARS_PER_ERA + (nMonth <= 2 ? 1 : 0));
}

int WeekdayOfDay(long long nDay) { return (int)(((nDay + DAY_ZERO_WEEKDAY) % 7 + 7) % 7); }

bool SplitDate(DATE date, DayTime& t)
{
    if (!std::isfinite(date)) return false;
    double dDay = std::floor(date);
    if (dDay < (double)MIN_DAY || dDay > (double)MAX_DAY) return false;
    t.m_nDay = (long long)dDay;
    // The finest power-of-ten unit wider than the spacing of doubles here:
    // parts in whole units come back exactly, so seconds never drift.
    double dSpacing = (std::nextafter(date, HUGE_VAL) - date) * MICROS_PER_DAY_D;
    long long nUnit = 1;
    while ((double)nUnit <= dSpacing) nUnit *= 10;
    t.m_nMicros = std::llround((date - dDay) * MICROS_PER_DAY_D / (double)nUnit) * nUnit;
    // JoinDate never rounds onto the next midnight, so neither does this.
    if (t.m_nMicros >= MICROS_PER_DAY) t.m_nMicros = MICROS_PER_DAY - nUnit;
    return true;
}

// Late in the range the spacing of doubles passes microseconds, and the last
// instants of a day would round onto the next midnight; they stay on their day.
DATE JoinDate(const DayTime& t)
{
    double dDay = (double)t.m_nDay;
    double d = dDay + (double)t.m_nMicros / MICROS_PER_DAY_D;
    if (d >= dDay + 1.0) d = std::nextafter(dDay + 1.0, dDay);
    return d;
}

void Normalize(DayTime& t)
{
    t.m_nDay += FloorDiv(t.m_nMicros, MICROS_PER_DAY);
    t.m_nMicros -= FloorDiv(t.m_nMicros, MICROS_PER_DAY) * MICROS_PER_DAY;
}

void PartsOf(const DayTime& t, TALVORDATEPARTS& p)
{
    CivilFromDay(t.m_nDay, p.m_nYear, p.m_nMonth, p.m_nDay);
    long long us = t.m_nMicros;
    p.m_nHour = (int)(us / MICROS_PER_HOUR);
    p.m_nMinute = (int)(us / MICROS_PER_MINUTE % 60);
    p.m_nSecond = (int)(us / MICROS_PER_SECOND % 60);
    p.m_nMicrosecond = (int)(us % MICROS_PER_SECOND);
    p.m_nDayOfWeek = WeekdayOfDay(t.m_nDay);
    p.m_nDayOfYear = (int)(t.m_nDay - DayFromCivil(p.m_nYear, 1, 1) + 1);
}

bool DayTimeOf(const TALVORDATEPARTS& p, DayTime& t)
{
    if (p.m_nYear < MIN_YEAR || p.m_nYear > MAX_YEAR || p.m_nMonth < 1 || p.m_nMonth > 12) return false;
    if (p.m_nDay < 1 || p.m_nDay > CTalvorDate::DaysInMonth(p.m_nYear, p.m_nMonth)) return false;
    if (p.m_nHour < 0 || p.m_nHour > 23 || p.m_nMinute < 0 || p.m_nMinute > 59) return false;
    if (p.m_nSecond < 0 || p.m_nSecond > 59 || p.m_nMicrosecond < 0 || p.m_nMicrosecond >= MICROS_PER_SECOND)
        return false;
    t.m_nDay = DayFromCivil(p.m_nYear, p.m_nMonth, p.m_nDay);
    t.m_nMicros = p.m_nHour * MICROS_PER_HOUR + p.m_nMinute * MICROS_PER_MINUTE + p.m_nSecond * MICROS_PER_SECOND +
                  p.m_nMicrosecond;
    return true;
}

char* PutPair(char* p, int n)
{
    memcpy(p, g_Pairs.m_arPair + 2 * n, 2);
    return p + 2;
}

char* PutNumber(char* p, long long n, int nWidth)
{
    char sz[24];
    int nLen = 0;
    bool bNeg = n < 0;
    unsigned long long u = bNeg ? 0ULL - (unsigned long long)n : (unsigned long long)n;
    do {
        sz[nLen++] = (char)('0' + u % 10);
        u /= 10;
    } while (u != 0);
    while (nLen < nWidth) sz[nLen++] = '0';
    if (bNeg) *p++ = '-';
    while (nLen > 0) *p++ = sz[--nLen];
    return p;
}

char* PutText(char* p, const char* lpsz, int nMax)
{
    int n = (int)strlen(lpsz);
    if (n > nMax) n = nMax;
    memcpy(p, lpsz, n);
    return p + n;
}

char* PutFixed(char* p, const TALVORDATEPARTS& s)
{
    p = PutPair(p, s.m_nYear / 100);
    p = PutPair(p, s.m_nYear % 100);
    *p++ = '-';
    p = PutPair(p, s.m_nMonth);
    *p++ = '-';
    return PutPair(p, s.m_nDay);
}

char* PutClock(char* p, const TALVORDATEPARTS& s)
{
    p = PutPair(p, s.m_nHour);
    *p++ = ':';
    p = PutPair(p, s.m_nMinute);
    *p++ = ':';
    return PutPair(p, s.m_nSecond);
}

// Parts printed for a value outside the range.
void OutOfRangeParts(DATE date, TALVORDATEPARTS& s)
{
    memset(&s, 0, sizeof(s));
    if (date > 0) {
        s.m_nYear = MAX_YEAR;
        s.m_nMonth = 12;
        s.m_nDay = 31;
        s.m_nHour = 23;
        s.m_nMinute = 59;
        s.m_nSecond = 59;
    }
}

// --- Tokens ------------------------------------------------------------------------

struct TokenDef {
    const char* m_lpszText;
    BYTE m_bType;
};

// Longer tokens first where one begins another.
const TokenDef g_arPercentTokens[] = {{"%Y", 0}, {"%y", 8}, {"%m", 14}, {"%c", 1}, {"%b", 17}, {"%M", 18},
    {"%d", 15}, {"%e", 2}, {"%D", 22}, {"%j", 12}, {"%H", 16}, {"%k", 3}, {"%I", 11}, {"%h", 11}, {"%l", 11},
    {"%i", 4}, {"%S", 5}, {"%s", 5}, {"%f", 6}, {"%p", 13}, {"%r", 20}, {"%T", 21}, {"%a", 40}, {"%W", 41},
    {"%w", 42}, {"%U", 44}, {"%u", 45}, {"%V", 46}, {"%v", 47}, {"%X", 50}, {"%x", 51}, {"%%", TOKEN_PERCENT}};
const TokenDef g_arPictureTokens[] = {{"Y,YYY", 56}, {"YYYY", 0}, {"YYY", 55}, {"YY", 54}, {"Y", 53},
    {"RRRR", 10}, {"RR", 9}, {"MONTH", 18}, {"MON", 17}, {"MM", 14}, {"MI", 4}, {"RM", 19}, {"DDD", 12},
    {"DD", 15}, {"DAY", 41}, {"DY", 40}, {"DW", 59}, {"D", 43}, {"HH24", 16}, {"HH12", 11}, {"HH", 11},
    {"SSSSS", 23}, {"SS", 5}, {"FF6", 6}, {"FF3", 7}, {"FF", 7}, {"A.M.", 13}, {"P.M.", 13}, {"AM", 13},
    {"PM", 13}, {"A.D.", 61}, {"B.C.", 62}, {"AD", 61}, {"BC", 62}, {"TS", 20}, {"WW", 48}, {"W", 49},
    {"SCC", 52}, {"CC", 52}, {"J", 57}, {"Q", 58}, {"IW", 60}};

// Token number by the letter after a "%", TOKEN_UNKNOWN where none.
struct PercentTable {
    BYTE m_arType[128];
    PercentTable()
    {
        memset(m_arType, TOKEN_UNKNOWN, sizeof(m_arType));
        for (const TokenDef& t : g_arPercentTokens) m_arType[(int)t.m_lpszText[1]] = t.m_bType;
    }
};
const PercentTable g_PercentTable;

bool MatchNoCase(const char* p, const char* lpszToken, int& nLen)
{
    int i = 0;
    for (; lpszToken[i]; ++i) {
        char c = p[i];
        if (c >= 'a' && c <= 'z') c = (char)(c - 'a' + 'A');
        if (c != lpszToken[i]) return false;
    }
    nLen = i;
    return true;
}

const char* Ordinal(int nDay)
{
    if (nDay >= 11 && nDay <= 13) return "th";
    switch (nDay % 10) {
    case 1: return "st";
    case 2: return "nd";
    case 3: return "rd";
    default: return "th";
    }
}

int Hour12(int nHour) { return nHour % 12 == 0 ? 12 : nHour % 12; }

char* PutToken(char* p, BYTE bType, const TALVORDATEPARTS& s, const DayTime& t)
{
    int nIsoYear = 0;
    switch (bType) {
    case 0: return PutNumber(p, s.m_nYear, 4);
    case 53: return PutNumber(p, s.m_nYear % 10, 1);
    case 54: case 8: case 9: return PutPair(p, s.m_nYear % 100);
    case 55: return PutNumber(p, s.m_nYear % 1000, 3);
    case 10: return PutNumber(p, s.m_nYear, 4);
    case 56: p = PutNumber(p, s.m_nYear / 1000, 1); *p++ = ','; return PutNumber(p, s.m_nYear % 1000, 3);
    case 14: return PutPair(p, s.m_nMonth);
    case 1: return PutNumber(p, s.m_nMonth, 1);
    case 17: return PutText(p, g_arMonthNames[s.m_nMonth - 1], 3);
    case 18: return PutText(p, g_arMonthNames[s.m_nMonth - 1], MAX_TOKEN_TEXT);
    case 19: return PutText(p, g_arRoman[s.m_nMonth - 1], MAX_TOKEN_TEXT);
    case 15: return PutPair(p, s.m_nDay);
    case 2: return PutNumber(p, s.m_nDay, 1);
    case 22: p = PutNumber(p, s.m_nDay, 1); return PutText(p, Ordinal(s.m_nDay), 2);
    case 12: return PutNumber(p, s.m_nDayOfYear, 3);
    case 16: return PutPair(p, s.m_nHour);
    case 3: return PutNumber(p, s.m_nHour, 1);
    case 11: return PutPair(p, Hour12(s.m_nHour));
    case 4: return PutPair(p, s.m_nMinute);
    case 5: return PutPair(p, s.m_nSecond);
    case 23: return PutNumber(p, t.m_nMicros / MICROS_PER_SECOND, 5);
    case 6: return PutNumber(p, s.m_nMicrosecond, 6);
    case 7: return PutNumber(p, s.m_nMicrosecond / 1000, 3);
    case 13: return PutText(p, s.m_nHour < 12 ? "AM" : "PM", 2);
    case 20:
        p = PutPair(p, Hour12(s.m_nHour));
        *p++ = ':';
        p = PutPair(p, s.m_nMinute);
        *p++ = ':';
        p = PutPair(p, s.m_nSecond);
        return PutText(p, s.m_nHour < 12 ? " AM" : " PM", 3);
    case 21: return PutClock(p, s);
    case 40: return PutText(p, g_arDayNames[s.m_nDayOfWeek], 3);
    case 41: return PutText(p, g_arDayNames[s.m_nDayOfWeek], MAX_TOKEN_TEXT);
    case 42: return PutNumber(p, s.m_nDayOfWeek, 1);
    case 43: return PutNumber(p, s.m_nDayOfWeek + 1, 1);
    case 59: return PutNumber(p, s.m_nDayOfWeek == 0 ? 7 : s.m_nDayOfWeek, 1);
    case 44: return PutPair(p, CTalvorDate::CalcWeek(s, 0, nIsoYear));
    case 45: return PutPair(p, CTalvorDate::CalcWeek(s, 1, nIsoYear));
    case 46: return PutPair(p, CTalvorDate::CalcWeek(s, 2, nIsoYear));
    case 47: case 60: return PutPair(p, CTalvorDate::CalcWeek(s, 3, nIsoYear));
    case 50: CTalvorDate::CalcWeek(s, 2, nIsoYear); return PutNumber(p, nIsoYear, 4);
    case 51: CTalvorDate::CalcWeek(s, 3, nIsoYear); return PutNumber(p, nIsoYear, 4);
    case 48: return PutPair(p, (s.m_nDayOfYear - 1) / 7 + 1);
    case 49: return PutNumber(p, (s.m_nDay - 1) / 7 + 1, 1);
    case 52: return PutPair(p, (s.m_nYear + 99) / 100);
    case 57: return PutNumber(p, t.m_nDay + JULIAN_OF_DAY_ZERO, 1);
    case 58: return PutNumber(p, (s.m_nMonth - 1) / 3 + 1, 1);
    case 61: case 62: return PutText(p, "AD", 2);
    case TOKEN_PERCENT: *p++ = '%'; return p;
    default: return p;
    }
}

// --- Weeks -------------------------------------------------------------------------

// Mode bits as MySQL documents them: Monday first, weeks 1-53 with the
// edges in the neighbouring years, week 1 the first with four days.
const int WEEK_MONDAY_FIRST = 1;
const int WEEK_YEAR_RANGE = 2;
const int WEEK_FOUR_DAYS = 4;

int ModeBits(int nMode)
{
    // Modes 0-7: which of them count weeks by four days is not the bit order.
    static const int arBits[8] = {0, WEEK_MONDAY_FIRST | WEEK_FOUR_DAYS, WEEK_YEAR_RANGE,
        WEEK_MONDAY_FIRST | WEEK_YEAR_RANGE | WEEK_FOUR_DAYS, WEEK_FOUR_DAYS, WEEK_MONDAY_FIRST,
        WEEK_YEAR_RANGE | WEEK_FOUR_DAYS, WEEK_MONDAY_FIRST | WEEK_YEAR_RANGE};
    return arBits[nMode & 7];
}

long long FirstWeekStart(int nYear, int nBits)
{
    long long nJan1 = DayFromCivil(nYear, 1, 1);
    int nWeekday = WeekdayOfDay(nJan1);
    int nIntoWeek = (nBits & WEEK_MONDAY_FIRST) ? (nWeekday + 6) % 7 : nWeekday;
    if (nBits & WEEK_FOUR_DAYS) return nIntoWeek <= 3 ? nJan1 - nIntoWeek : nJan1 + 7 - nIntoWeek;
    return nIntoWeek == 0 ? nJan1 : nJan1 + 7 - nIntoWeek;
}

// --- Free-form text -------------------------------------------------------------------

inline bool IsSeparator(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '-' || c == '/' || c == ',' || c == '.' ||
           c == ':';
}

int DigitsValue(const char* p, int n)
{
    int v = 0;
    for (int i = 0; i < n; ++i) v = v * 10 + (p[i] - '0');
    return v;
}

int FullYear(int nYear, int nChars)
{
    if (nChars > 2) return nYear;
    return nYear < TWO_DIGIT_PIVOT ? 2000 + nYear : 1900 + nYear;
}

// YYMMDDhhmmss or YYYYMMDDhhmmss.
bool CompactDate(const char* p, int n, TALVORDATEPARTS& s)
{
    const int SHORT_FORM = 12, LONG_FORM = 14;
    if (n != SHORT_FORM && n != LONG_FORM) return false;
    for (int i = 0; i < n; ++i)
        if (p[i] < '0' || p[i] > '9') return false;
    int nYearChars = n - 10;
    s.m_nYear = FullYear(DigitsValue(p, nYearChars), nYearChars);
    p += nYearChars;
    s.m_nMonth = DigitsValue(p, 2);
    s.m_nDay = DigitsValue(p + 2, 2);
    s.m_nHour = DigitsValue(p + 4, 2);
    s.m_nMinute = DigitsValue(p + 6, 2);
    s.m_nSecond = DigitsValue(p + 8, 2);
    s.m_nMicrosecond = 0;
    return true;
}

int MonthsBetweenAdd(const DayTime& t, int nMonths, DayTime& r)
{
    int y, m, d;
    CivilFromDay(t.m_nDay, y, m, d);
    long long nTotal = (long long)y * 12 + (m - 1) + nMonths;
    long long nYear = FloorDiv(nTotal, 12);
    int nMonth = (int)(nTotal - nYear * 12) + 1;
    if (nYear < MIN_YEAR || nYear > MAX_YEAR) return TALVOR_DATE_INVALID_DATA;
    int nLast = CTalvorDate::DaysInMonth((int)nYear, nMonth);
    if (d > nLast) d = nLast;
    r.m_nDay = DayFromCivil((int)nYear, nMonth, d);
    r.m_nMicros = t.m_nMicros;
    return 0;
}

bool InRange(const DayTime& t) { return t.m_nDay >= MIN_DAY && t.m_nDay <= MAX_DAY; }

// A parsed date and time that a day number can hold.
int CheckParsedDate(const TALVORDATEPARTS& s)
{
    if (CTalvorDate::CheckValidDateTime(s, false) != 0) return TALVOR_DATE_INVALID_DATA;
    return s.m_nYear >= MIN_YEAR && s.m_nYear <= MAX_YEAR ? 0 : TALVOR_DATE_INVALID_DATA;
}

}  // namespace talvordate

using namespace talvordate;

// --- Calendar -------------------------------------------------------------------------

CTalvorDate::CTalvorDate() : m_nTimeIndex(-1), m_nDataIndex(0) { memset(m_arData, 0, sizeof(m_arData)); }

bool CTalvorDate::IsLeapYear(int nYear) { return (nYear % 4 == 0 && nYear % 100 != 0) || nYear % 400 == 0; }

int CTalvorDate::DaysInMonth(int nYear, int nMonth)
{
    static const int arDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (nMonth < 1 || nMonth > 12) return 0;
    return nMonth == 2 && IsLeapYear(nYear) ? 29 : arDays[nMonth - 1];
}

int CTalvorDate::CheckValidDay(int nMonth, int nDay, bool bLeap)
{
    const int LEAP_YEAR = 2000, COMMON_YEAR = 2001;
    int nLast = DaysInMonth(bLeap ? LEAP_YEAR : COMMON_YEAR, nMonth);
    return nDay >= 1 && nDay <= nLast ? 0 : TALVOR_DATE_INVALID_DATA;
}

int CTalvorDate::ConvertParts(DATE& date, const TALVORDATEPARTS& stParts)
{
    DayTime t;
    if (!DayTimeOf(stParts, t)) return TALVOR_DATE_INVALID_DATA;
    date = JoinDate(t);
    return 0;
}

int CTalvorDate::ConvertVariantTime(DATE& date, int nYear, int nMonth, int nDay, int nHour, int nMinute, int nSecond,
                                    int nMillisecond)
{
    const int MILLIS_PER_SECOND = 1000;
    if (nMillisecond < 0 || nMillisecond >= MILLIS_PER_SECOND) return TALVOR_DATE_INVALID_DATA;
    TALVORDATEPARTS s = {nYear, nMonth, nDay, nHour, nMinute, nSecond, nMillisecond * 1000, 0, 0};
    return ConvertParts(date, s);
}

int CTalvorDate::ConvertVariantTime(DATE& date, int nYear, int nMonth, int nDay, int nHour, int nMinute, int nSecond)
{
    return ConvertVariantTime(date, nYear, nMonth, nDay, nHour, nMinute, nSecond, 0);
}

int CTalvorDate::ConvertVariantTime(DATE& date, const TALVORDATE& stDate)
{
    return ConvertVariantTime(date, stDate.m_sYear, stDate.m_bMonth, stDate.m_bDay, 0, 0, 0);
}

int CTalvorDate::ConvertVariantTime(DATE& date, const TALVORTIME& stTime)
{
    if (stTime.m_bHour > 23 || stTime.m_bMintue > 59 || stTime.m_bSecond > 59) return TALVOR_DATE_INVALID_DATA;
    DayTime t = {stTime.m_nDay, stTime.m_bHour * MICROS_PER_HOUR + stTime.m_bMintue * MICROS_PER_MINUTE +
                                    stTime.m_bSecond * MICROS_PER_SECOND};
    date = JoinDate(t);
    return 0;
}

int CTalvorDate::ConvertDateTime(DATE date, TALVORDATEPARTS& stParts)
{
    DayTime t;
    if (!SplitDate(date, t)) return TALVOR_DATE_INVALID_DATA;
    PartsOf(t, stParts);
    return 0;
}

int CTalvorDate::ConvertDateTime(DATE date, int& nYear, int& nMonth, int& nDay, int& nHour, int& nMinute,
                                 int& nSecond, int& nMillisecond)
{
    const long long MICROS_PER_MILLI = 1000;
    DayTime t;
    if (!SplitDate(date, t)) return TALVOR_DATE_INVALID_DATA;
    // To the nearest millisecond, which the double holds over the whole
    // range; never onto the next midnight, which JoinDate never crosses.
    t.m_nMicros = (t.m_nMicros + MICROS_PER_MILLI / 2) / MICROS_PER_MILLI * MICROS_PER_MILLI;
    if (t.m_nMicros >= MICROS_PER_DAY) t.m_nMicros = MICROS_PER_DAY - MICROS_PER_MILLI;
    TALVORDATEPARTS s;
    PartsOf(t, s);
    nYear = s.m_nYear;
    nMonth = s.m_nMonth;
    nDay = s.m_nDay;
    nHour = s.m_nHour;
    nMinute = s.m_nMinute;
    nSecond = s.m_nSecond;
    nMillisecond = s.m_nMicrosecond / 1000;
    return 0;
}

int CTalvorDate::ConvertDate(DATE date, TALVORDATE& stDate)
{
    TALVORDATEPARTS s;
    int nResult = ConvertDateTime(date, s);
    if (nResult != 0) return nResult;
    stDate.m_bDay = (BYTE)s.m_nDay;
    stDate.m_bMonth = (BYTE)s.m_nMonth;
    stDate.m_sYear = (USHORT)s.m_nYear;
    return 0;
}

int CTalvorDate::ConvertTime(DATE date, TALVORTIME& stTime)
{
    TALVORDATEPARTS s;
    int nResult = ConvertDateTime(date, s);
    if (nResult != 0) return nResult;
    stTime.m_bHour = (BYTE)s.m_nHour;
    stTime.m_bMintue = (BYTE)s.m_nMinute;
    stTime.m_bSecond = (BYTE)s.m_nSecond;
    stTime.m_nDay = 0;
    return 0;
}

// --- Fixed forms ----------------------------------------------------------------------

BYTE CTalvorDate::FormatDateTime(DATE date, char* lpszOut, char nFraction)
{
    const int MAX_FRACTION = 6;
    TALVORDATEPARTS s;
    if (ConvertDateTime(date, s) != 0) OutOfRangeParts(date, s);
    char* p = PutFixed(lpszOut, s);
    *p++ = ' ';
    p = PutClock(p, s);
    int nDigits = nFraction > MAX_FRACTION ? MAX_FRACTION : nFraction;
    if (nDigits > 0) {
        char szMicros[8];
        PutNumber(szMicros, s.m_nMicrosecond, MAX_FRACTION);
        *p++ = '.';
        memcpy(p, szMicros, nDigits);
        p += nDigits;
    }
    *p = 0;
    return (BYTE)(p - lpszOut);
}

BYTE CTalvorDate::FormatDate(DATE date, char* lpszOut)
{
    TALVORDATEPARTS s;
    if (ConvertDateTime(date, s) != 0) OutOfRangeParts(date, s);
    char* p = PutFixed(lpszOut, s);
    *p = 0;
    return (BYTE)(p - lpszOut);
}

BYTE CTalvorDate::FormatTime(DATE date, char* lpszOut)
{
    TALVORDATEPARTS s;
    if (ConvertDateTime(date, s) != 0) OutOfRangeParts(date, s);
    char* p = PutClock(lpszOut, s);
    *p = 0;
    return (BYTE)(p - lpszOut);
}

// --- Formats ----------------------------------------------------------------------------

BYTE CTalvorDate::GetFormatType(const char* lpszFormat, int& nLen)
{
    nLen = 1;
    if (lpszFormat[0] == '%') {
        unsigned char c = (unsigned char)lpszFormat[1];
        // An unknown specifier stays whole, so its letter is not read as a
        // picture token.
        if (c != 0) nLen = 2;
        return c < sizeof(g_PercentTable.m_arType) ? g_PercentTable.m_arType[c] : (BYTE)TOKEN_UNKNOWN;
    }
    // Most characters of a format are separators; only these letters begin
    // a picture token.
    if (strchr("YRMDHSFAPBTWCJQIyrmdhsfapbtwcjqi", lpszFormat[0]) == nullptr || lpszFormat[0] == 0) return TOKEN_UNKNOWN;
    for (const TokenDef& t : g_arPictureTokens)
        if (MatchNoCase(lpszFormat, t.m_lpszText, nLen)) return t.m_bType;
    nLen = 1;
    return TOKEN_UNKNOWN;
}

int CTalvorDate::Format(CTalvorBufferPool* pPool, DATE& date, const char* lpszFormat, VARDATA& vResult)
{
    DayTime t;
    if (!SplitDate(date, t)) return TALVOR_DATE_INVALID_DATA;
    TALVORDATEPARTS s;
    PartsOf(t, s);
    size_t nFormat = strlen(lpszFormat);
    UINT nSize = (UINT)(nFormat * MAX_TOKEN_TEXT + 1);
    char* lpszOut = (char*)pPool->AllocBuffer(nSize);
    if (lpszOut == nullptr) return TALVOR_DATE_NO_MEMORY;
    char* p = WriteFormat(lpszOut, lpszFormat, [&](char* q, BYTE bType) { return PutToken(q, bType, s, t); });
    return SetTextResult(vResult, lpszOut, p);
}

// --- Weeks ------------------------------------------------------------------------------

int CTalvorDate::CalcWeek(const TALVORDATEPARTS& stParts, int nMode, int& nYear)
{
    int nBits = ModeBits(nMode);
    long long nDay = DayFromCivil(stParts.m_nYear, stParts.m_nMonth, stParts.m_nDay);
    nYear = stParts.m_nYear;
    long long nStart = FirstWeekStart(nYear, nBits);
    if (nDay < nStart) {
        if (!(nBits & WEEK_YEAR_RANGE)) return 0;
        --nYear;
        nStart = FirstWeekStart(nYear, nBits);
    } else if ((nBits & WEEK_YEAR_RANGE) && nDay >= FirstWeekStart(nYear + 1, nBits)) {
        ++nYear;
        return 1;
    }
    return (int)((nDay - nStart) / 7 + 1);
}

// --- Free-form parsing ---------------------------------------------------------------------

int CTalvorDate::Split(const char* lpszText, int nLen)
{
    m_nTimeIndex = -1;
    m_nDataIndex = 0;
    int nChars = 0;
    for (int i = 0; i <= nLen; ++i) {
        char c = i < nLen ? lpszText[i] : 0;
        bool bEnd = c == 0 || c == 'Z' || c == 'z';
        if (c == '\'' || c == '"') continue;
        if (bEnd || IsSeparator(c) || c == 'T' || c == 't') {
            if (nChars > 0) {
                m_arData[m_nDataIndex][nChars] = 0;
                ++m_nDataIndex;
                nChars = 0;
            }
            if (c == ':' && m_nTimeIndex < 0) m_nTimeIndex = m_nDataIndex - 1;
            if ((c == 'T' || c == 't') && m_nTimeIndex < 0) m_nTimeIndex = m_nDataIndex;
            if (bEnd) break;
            continue;
        }
        if (c < '0' || c > '9') return TALVOR_DATE_BAD_FORMAT;
        if (nChars == TALVOR_DATE_FIELD_CHARS || m_nDataIndex == TALVOR_DATE_MAX_FIELDS) return TALVOR_DATE_BAD_FORMAT;
        m_arData[m_nDataIndex][nChars++] = c;
    }
    return 0;
}

int CTalvorDate::FieldValue(int nField) const { return DigitsValue(m_arData[nField], (int)strlen(m_arData[nField])); }

int CTalvorDate::ParseDate(const char* lpszText, int nLen, TALVORDATEPARTS& s)
{
    const int MICRO_DIGITS = 6;
    memset(&s, 0, sizeof(s));
    while (nLen > 0 && (*lpszText == ' ' || *lpszText == '\t')) {
        ++lpszText;
        --nLen;
    }
    while (nLen > 0 && (lpszText[nLen - 1] == ' ' || lpszText[nLen - 1] == '\t')) --nLen;
    if (nLen > MAX_FREE_TEXT || nLen == 0 || lpszText[0] == '-') return TALVOR_DATE_BAD_FORMAT;
    if (CompactDate(lpszText, nLen, s)) return CheckParsedDate(s);
    int nResult = Split(lpszText, nLen);
    if (nResult != 0) return nResult;
    int nTimeFields = 0, nTimeAt = 0;
    if (m_nTimeIndex < 0) {
        if (m_nDataIndex != 3) return TALVOR_DATE_BAD_FORMAT;
    } else if (m_nTimeIndex == 3) {
        if (m_nDataIndex != 6 && m_nDataIndex != 7) return TALVOR_DATE_BAD_FORMAT;
        nTimeFields = m_nDataIndex - 3;
        nTimeAt = 3;
    } else if (m_nTimeIndex == 0) {
        if (m_nDataIndex != 3 && m_nDataIndex != 4) return TALVOR_DATE_BAD_FORMAT;
        nTimeFields = m_nDataIndex;
    } else {
        return TALVOR_DATE_BAD_FORMAT;
    }
    if (m_nTimeIndex != 0) {
        s.m_nYear = FullYear(FieldValue(0), (int)strlen(m_arData[0]));
        s.m_nMonth = FieldValue(1);
        s.m_nDay = FieldValue(2);
    }
    if (nTimeFields > 0) {
        s.m_nHour = FieldValue(nTimeAt);
        s.m_nMinute = FieldValue(nTimeAt + 1);
        s.m_nSecond = FieldValue(nTimeAt + 2);
        if (nTimeFields == 4) {
            // The fraction's digit count is its scale, up to microseconds.
            char szMicros[MICRO_DIGITS + 1] = "000000";
            const char* f = m_arData[nTimeAt + 3];
            for (int i = 0; i < MICRO_DIGITS && f[i]; ++i) szMicros[i] = f[i];
            s.m_nMicrosecond = DigitsValue(szMicros, MICRO_DIGITS);
        }
    }
    // A time alone stands on the day of the base, with date parts 0.
    if (m_nTimeIndex == 0) return CheckValidDateTime(s, true);
    return CheckParsedDate(s);
}

int CTalvorDate::ParseDate(const char* lpszText, int nLen, DATE& date)
{
    TALVORDATEPARTS s;
    int nResult = ParseDate(lpszText, nLen, s);
    if (nResult != 0) return nResult;
    if (s.m_nYear == 0) {
        DayTime t = {0, s.m_nHour * MICROS_PER_HOUR + s.m_nMinute * MICROS_PER_MINUTE +
                            s.m_nSecond * MICROS_PER_SECOND + s.m_nMicrosecond};
        date = JoinDate(t);
        return 0;
    }
    return ConvertParts(date, s);
}

// --- Arithmetic ------------------------------------------------------------------------------

int CTalvorDate::AddMonths(DATE date, int nMonths, DATE& result)
{
    DayTime t, r;
    if (!SplitDate(date, t)) return TALVOR_DATE_INVALID_DATA;
    int nResult = MonthsBetweenAdd(t, nMonths, r);
    if (nResult != 0) return nResult;
    result = JoinDate(r);
    return 0;
}

int CTalvorDate::DataAddSub(DATE date, int nYears, int nMonths, int nDays, int nHours, int nMinutes, int nSeconds,
                            int nMicroseconds, DATE& result)
{
    if (nYears < 0 || nMonths < 0 || nDays < 0 || nHours < 0 || nMinutes < 0 || nSeconds < 0 || nMicroseconds < 0)
        return TALVOR_DATE_BAD_PARAMETER;
    DayTime t, r;
    if (!SplitDate(date, t)) return TALVOR_DATE_INVALID_DATA;
    long long nAllMonths = nYears * 12LL + nMonths;
    if (nAllMonths > (long long)MAX_YEAR * 12) return TALVOR_DATE_INVALID_DATA;
    int nResult = MonthsBetweenAdd(t, (int)nAllMonths, r);
    if (nResult != 0) return nResult;
    r.m_nDay += nDays;
    r.m_nMicros += nHours * MICROS_PER_HOUR + nMinutes * MICROS_PER_MINUTE + nSeconds * MICROS_PER_SECOND +
                   nMicroseconds;
    Normalize(r);
    if (!InRange(r)) return TALVOR_DATE_INVALID_DATA;
    result = JoinDate(r);
    return 0;
}

// --- Round and truncate -------------------------------------------------------------------------

namespace {

const BYTE UNIT_CENTURY = 1, UNIT_YEAR = 2, UNIT_QUARTER = 3, UNIT_MONTH = 4, UNIT_WEEK = 5, UNIT_DAY = 6,
           UNIT_HOUR = 7, UNIT_MINUTE = 8, UNIT_SECOND = 9, UNIT_ISO_WEEK = 10;

struct UnitName {
    const char* m_lpszName;
    BYTE m_bUnit;
};
const UnitName g_arUnits[] = {{"CC", UNIT_CENTURY}, {"SCC", UNIT_CENTURY}, {"SYYYY", UNIT_YEAR}, {"YYYY", UNIT_YEAR},
    {"YEAR", UNIT_YEAR}, {"SYEAR", UNIT_YEAR}, {"YYY", UNIT_YEAR}, {"YY", UNIT_YEAR}, {"Y", UNIT_YEAR},
    {"I", UNIT_YEAR}, {"IY", UNIT_YEAR}, {"IYY", UNIT_YEAR}, {"IYYY", UNIT_YEAR}, {"Q", UNIT_QUARTER},
    {"MONTH", UNIT_MONTH}, {"MON", UNIT_MONTH}, {"MM", UNIT_MONTH}, {"RM", UNIT_MONTH}, {"WW", UNIT_WEEK},
    {"DDD", UNIT_DAY}, {"DD", UNIT_DAY}, {"D", UNIT_DAY}, {"DAY", UNIT_DAY}, {"DY", UNIT_DAY}, {"J", UNIT_DAY},
    {"HH", UNIT_HOUR}, {"HH12", UNIT_HOUR}, {"HH24", UNIT_HOUR}, {"HOUR", UNIT_HOUR}, {"MI", UNIT_MINUTE},
    {"MIN", UNIT_MINUTE}, {"MINUTE", UNIT_MINUTE}, {"SS", UNIT_SECOND}, {"SECOND", UNIT_SECOND},
    {"SEC", UNIT_SECOND}, {"IW", UNIT_ISO_WEEK}};

// Start of the unit holding t, and the start of the next one.
void UnitBounds(const DayTime& t, BYTE bUnit, DayTime& start, DayTime& next)
{
    int y, m, d;
    CivilFromDay(t.m_nDay, y, m, d);
    start.m_nMicros = 0;
    next.m_nMicros = 0;
    switch (bUnit) {
    case UNIT_CENTURY: {
        int nFirst = (y - 1) / 100 * 100 + 1;
        start.m_nDay = DayFromCivil(nFirst, 1, 1);
        next.m_nDay = DayFromCivil(nFirst + 100, 1, 1);
        return;
    }
    case UNIT_YEAR:
        start.m_nDay = DayFromCivil(y, 1, 1);
        next.m_nDay = DayFromCivil(y + 1, 1, 1);
        return;
    case UNIT_QUARTER: {
        int nFirst = (m - 1) / 3 * 3 + 1;
        start.m_nDay = DayFromCivil(y, nFirst, 1);
        next.m_nDay = nFirst == 10 ? DayFromCivil(y + 1, 1, 1) : DayFromCivil(y, nFirst + 3, 1);
        return;
    }
    case UNIT_MONTH:
        start.m_nDay = DayFromCivil(y, m, 1);
        next.m_nDay = m == 12 ? DayFromCivil(y + 1, 1, 1) : DayFromCivil(y, m + 1, 1);
        return;
    case UNIT_WEEK: {
        // Weeks of the year start on the weekday of January 1.
        long long nJan1 = DayFromCivil(y, 1, 1);
        start.m_nDay = nJan1 + (t.m_nDay - nJan1) / 7 * 7;
        next.m_nDay = start.m_nDay + 7;
        return;
    }
    case UNIT_ISO_WEEK:
        start.m_nDay = t.m_nDay - (WeekdayOfDay(t.m_nDay) + 6) % 7;
        next.m_nDay = start.m_nDay + 7;
        return;
    default: break;
    }
    long long nLength = bUnit == UNIT_HOUR ? MICROS_PER_HOUR : bUnit == UNIT_MINUTE ? MICROS_PER_MINUTE
                      : bUnit == UNIT_SECOND ? MICROS_PER_SECOND : MICROS_PER_DAY;
    start.m_nDay = next.m_nDay = t.m_nDay;
    start.m_nMicros = t.m_nMicros / nLength * nLength;
    next.m_nMicros = start.m_nMicros + nLength;
    Normalize(next);
}

long long Distance(const DayTime& a, const DayTime& b)
{
    return (b.m_nDay - a.m_nDay) * MICROS_PER_DAY + (b.m_nMicros - a.m_nMicros);
}

// Whether t has passed the point where rounding goes up.
bool PastMidpoint(const DayTime& t, BYTE bUnit, const DayTime& start, const DayTime& next)
{
    int y, m, d;
    CivilFromDay(start.m_nDay, y, m, d);
    switch (bUnit) {
    case UNIT_CENTURY: return t.m_nDay >= DayFromCivil(y + 50, 1, 1);
    case UNIT_YEAR: return t.m_nDay >= DayFromCivil(y, 7, 1);
    case UNIT_QUARTER: return t.m_nDay >= DayFromCivil(y, m + 1, 16);
    case UNIT_MONTH: return t.m_nDay >= DayFromCivil(y, m, 16);
    default: return 2 * Distance(start, t) >= Distance(start, next);
    }
}

int RoundOrTrunc(DATE date, const char* lpszUnit, DATE& result, bool bRound)
{
    BYTE bUnit = CTalvorDate::GetRoundType(lpszUnit);
    if (bUnit == TOKEN_UNKNOWN) return TALVOR_DATE_BAD_PARAMETER;
    DayTime t, start, next;
    if (!SplitDate(date, t)) return TALVOR_DATE_INVALID_DATA;
    UnitBounds(t, bUnit, start, next);
    const DayTime& r = bRound && PastMidpoint(t, bUnit, start, next) ? next : start;
    if (!InRange(r)) return TALVOR_DATE_INVALID_DATA;
    result = JoinDate(r);
    return 0;
}

}  // namespace

BYTE CTalvorDate::GetRoundType(const char* lpszUnit)
{
    if (lpszUnit == nullptr) return TOKEN_UNKNOWN;
    for (const UnitName& u : g_arUnits) {
        int nLen = 0;
        if (MatchNoCase(lpszUnit, u.m_lpszName, nLen) && lpszUnit[nLen] == 0) return u.m_bUnit;
    }
    return TOKEN_UNKNOWN;
}

int CTalvorDate::Round(DATE date, const char* lpszUnit, DATE& result)
{
    return RoundOrTrunc(date, lpszUnit, result, true);
}

int CTalvorDate::Trunc(DATE date, const char* lpszUnit, DATE& result)
{
    return RoundOrTrunc(date, lpszUnit, result, false);
}

// --- Zones ------------------------------------------------------------------------------------

int CTalvorDate::TZToValue(const char* lpszZone, double& dDays)
{
    if (lpszZone == nullptr || (lpszZone[0] != '+' && lpszZone[0] != '-')) return TALVOR_DATE_BAD_PARAMETER;
    int nSign = lpszZone[0] == '-' ? -1 : 1;
    const char* p = lpszZone + 1;
    int nHour = 0, nMinute = 0, nDigits = 0;
    while (*p >= '0' && *p <= '9' && nDigits < 2) {
        nHour = nHour * 10 + (*p++ - '0');
        ++nDigits;
    }
    if (nDigits == 0 || *p != ':') return TALVOR_DATE_BAD_PARAMETER;
    ++p;
    nDigits = 0;
    while (*p >= '0' && *p <= '9' && nDigits < 2) {
        nMinute = nMinute * 10 + (*p++ - '0');
        ++nDigits;
    }
    if (*p != 0 || nMinute > 59) return TALVOR_DATE_BAD_PARAMETER;
    int nSigned = nSign * nHour;
    if (nSigned < MIN_TZ_HOUR || nSigned > MAX_TZ_HOUR || (nSigned == MAX_TZ_HOUR && nMinute != 0))
        return TALVOR_DATE_BAD_PARAMETER;
    dDays = nSign * (nHour / 24.0 + nMinute / 24.0 / 60.0);
    return 0;
}

double DbTimeZoneValue()
{
    static double s_dZone = ZONE_NOT_READ;
    if (s_dZone != ZONE_NOT_READ) return s_dZone;
    const int YEAR_OF_PROBE = 2017 - 1900;
    struct tm stLocal;
    memset(&stLocal, 0, sizeof(stLocal));
    stLocal.tm_year = YEAR_OF_PROBE;
    stLocal.tm_mday = 1;
    stLocal.tm_isdst = -1;
    time_t tProbe = mktime(&stLocal);
    struct tm stUtc;
    gmtime_r(&tProbe, &stUtc);
    // The probe's local midnight read back as UTC fields: the zone is how
    // far UTC lags behind.
    struct tm stLocalAsUtc;
    memset(&stLocalAsUtc, 0, sizeof(stLocalAsUtc));
    stLocalAsUtc.tm_year = YEAR_OF_PROBE;
    stLocalAsUtc.tm_mday = 1;
    double dZone = difftime(timegm(&stLocalAsUtc), timegm(&stUtc)) / 3600.0;
    s_dZone = dZone;
    return dZone;
}

// Whole days and microseconds first: one rounding into the double, so a
// second stays a second wherever the double can hold it.
DATE ConvertTimetoDate(const long& tTime)
{
    long long nMicros = (long long)tTime * MICROS_PER_SECOND + std::llround(DbTimeZoneValue() * MICROS_PER_HOUR);
    DayTime t = {TALVOR_DATE_UNIX_EPOCH, nMicros};
    Normalize(t);
    return JoinDate(t);
}

DATE ConvertFileTimetoDate(long long llTicks)
{
    const long long TICKS_PER_MICRO = 10;
    long long nMicros = FloorDiv(llTicks, TICKS_PER_MICRO) + std::llround(DbTimeZoneValue() * MICROS_PER_HOUR);
    DayTime t = {TALVOR_DATE_FILETIME_EPOCH, nMicros};
    Normalize(t);
    return JoinDate(t);
}

DATE ConvertFileTimetoDate(const FILETIME& ft)
{
    return ConvertFileTimetoDate((long long)(((unsigned long long)ft.dwHighDateTime << 32) | ft.dwLowDateTime));
}

// --- Named parts --------------------------------------------------------------------------------

int CTalvorDate::Format(CTalvorBufferPool* pPool, DATE& date, VARDATA& vResult)
{
    return Format(pPool, date, "%Y-%m-%d %H:%i:%s", vResult);
}

int CTalvorDate::GetCombinedData(CTalvorBufferPool* /*pPool*/, DATE& date, BYTE bType, VARDATA& vResult)
{
    TALVORDATEPARTS s;
    if (ConvertDateTime(date, s) != 0) return TALVOR_DATE_INVALID_DATA;
    const long long HUNDRED = 100, MILLION = 1000000;
    long long nHms = (s.m_nHour * HUNDRED + s.m_nMinute) * HUNDRED + s.m_nSecond;
    long long v;
    int nWeekYear = 0;
    switch (bType) {
    case INTERVAL_MICROSECOND: v = s.m_nMicrosecond; break;
    case INTERVAL_FRAC_SECOND: v = s.m_nMicrosecond / 1000; break;
    case INTERVAL_SECOND: v = s.m_nSecond; break;
    case INTERVAL_MINUTE: v = s.m_nMinute; break;
    case INTERVAL_HOUR: v = s.m_nHour; break;
    case INTERVAL_DAY: v = s.m_nDay; break;
    case INTERVAL_WEEK: v = CalcWeek(s, 0, nWeekYear); break;
    case INTERVAL_MONTH: v = s.m_nMonth; break;
    case INTERVAL_QUARTER: v = (s.m_nMonth - 1) / 3 + 1; break;
    case INTERVAL_YEAR: v = s.m_nYear; break;
    case INTERVAL_SECOND_MICROSECOND: v = s.m_nSecond * MILLION + s.m_nMicrosecond; break;
    case INTERVAL_MINUTE_MICROSECOND: v = (s.m_nMinute * HUNDRED + s.m_nSecond) * MILLION + s.m_nMicrosecond; break;
    case INTERVAL_MINUTE_SECOND: v = s.m_nMinute * HUNDRED + s.m_nSecond; break;
    case INTERVAL_HOUR_MICROSECOND: v = nHms * MILLION + s.m_nMicrosecond; break;
    case INTERVAL_HOUR_SECOND: v = nHms; break;
    case INTERVAL_HOUR_MINUTE: v = s.m_nHour * HUNDRED + s.m_nMinute; break;
    case INTERVAL_DAY_MICROSECOND: v = (s.m_nDay * HUNDRED * HUNDRED * HUNDRED + nHms) * MILLION + s.m_nMicrosecond; break;
    case INTERVAL_DAY_SECOND: v = s.m_nDay * HUNDRED * HUNDRED * HUNDRED + nHms; break;
    case INTERVAL_DAY_MINUTE: v = (s.m_nDay * HUNDRED + s.m_nHour) * HUNDRED + s.m_nMinute; break;
    case INTERVAL_DAY_HOUR: v = s.m_nDay * HUNDRED + s.m_nHour; break;
    case INTERVAL_YEAR_MONTH: v = s.m_nYear * HUNDRED + s.m_nMonth; break;
    default: return TALVOR_DATE_BAD_INTERVAL;
    }
    memset(&vResult.m_bSign, 0, sizeof(VARDATA) - 4 - sizeof(int));
    vResult.m_vt = TALVOR_VT_BIGINT;
    vResult.m_llValue = v;
    return 0;
}
