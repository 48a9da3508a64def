// TalvorDateParse.cpp — text read by a format of % specifiers and picture
// tokens, the tokens RR and RRRR by the current year.

#include "TalvorDateInternal.h"

#include <cctype>
#include <cstring>
#include <strings.h>

using namespace talvordate;

// --- Parsing by format -------------------------------------------------------------------------

namespace {

const int NAME_SHORT = 3;

inline bool IsBlankChar(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// Up to nMax digits; FALSE when there is none.
bool ReadDigits(const char*& p, int nMax, int& nValue, int& nDigits)
{
    nValue = 0;
    nDigits = 0;
    while (nDigits < nMax && *p >= '0' && *p <= '9') {
        nValue = nValue * 10 + (*p++ - '0');
        ++nDigits;
    }
    return nDigits > 0;
}

bool ReadNumber(const char*& p, int nMax, int& nValue)
{
    int nDigits;
    return ReadDigits(p, nMax, nValue, nDigits);
}

// Index of the name at p among nCount names, by the full name or, with
// bShort, its first three letters; -1 when none matches.
int ReadName(const char*& p, const char* const* arNames, int nCount, bool bShort)
{
    for (int i = 0; i < nCount; ++i) {
        int nLen = bShort ? NAME_SHORT : (int)strlen(arNames[i]);
        if (strncasecmp(p, arNames[i], nLen) == 0) {
            p += nLen;
            return i;
        }
    }
    return -1;
}

bool ReadHalfOfDay(const char*& p, bool& bAfternoon)
{
    const char* const arForms[] = {"A.M.", "P.M.", "AM", "PM"};
    for (int i = 0; i < 4; ++i) {
        size_t nLen = strlen(arForms[i]);
        if (strncasecmp(p, arForms[i], nLen) == 0) {
            bAfternoon = arForms[i][0] == 'P';
            p += nLen;
            return true;
        }
    }
    return false;
}

bool ReadClock(const char*& p, TALVORDATEPARTS& s)
{
    if (!ReadNumber(p, 2, s.m_nHour) || *p++ != ':' || !ReadNumber(p, 2, s.m_nMinute) || *p++ != ':') return false;
    return ReadNumber(p, 2, s.m_nSecond);
}

// The year RR is read against: the clock's, read once and only when needed.
int CurrentYear(int& nCurrentYear)
{
    if (nCurrentYear != TALVOR_DATE_YEAR_NOW) return nCurrentYear;
    TALVORDATEPARTS s;
    if (CTalvorDate::ConvertDateTime(CTalvorDate::GetCurrentDateTime(), s) == 0) nCurrentYear = s.m_nYear;
    return nCurrentYear;
}

// What a parse by format has met so far besides the parts.
struct FormatState {
    bool m_bAfternoon;
    bool m_bTwelveHour;
    int m_nDayOfYear;
    int m_nCurrentYear;
};

// One token of the input.
bool ReadToken(const char*& p, BYTE bType, TALVORDATEPARTS& s, FormatState& st)
{
    int nDigits = 0;
    const int YEAR_DIGITS = 4, PAIR = 2, DAY_OF_YEAR_DIGITS = 3, MICRO_DIGITS_MAX = 6, MILLI_DIGITS = 3;
    switch (bType) {
    case 0:
        if (!ReadDigits(p, YEAR_DIGITS, s.m_nYear, nDigits)) return false;
        s.m_nYear = FullYear(s.m_nYear, nDigits);
        return true;
    case 9: case 10:
        if (!ReadDigits(p, YEAR_DIGITS, s.m_nYear, nDigits)) return false;
        s.m_nYear = CTalvorDate::RoundedYear(s.m_nYear, nDigits, CurrentYear(st.m_nCurrentYear));
        return true;
    case 8: case 54:
        if (!ReadDigits(p, PAIR, s.m_nYear, nDigits)) return false;
        s.m_nYear = FullYear(s.m_nYear, nDigits);
        return true;
    case 14: case 1: return ReadNumber(p, PAIR, s.m_nMonth);
    case 15: case 2: return ReadNumber(p, PAIR, s.m_nDay);
    case 22:
        if (!ReadNumber(p, PAIR, s.m_nDay)) return false;
        if (isalpha((unsigned char)p[0]) && isalpha((unsigned char)p[1])) p += 2;
        return true;
    case 12: return ReadNumber(p, DAY_OF_YEAR_DIGITS, st.m_nDayOfYear);
    case 16: case 3: return ReadNumber(p, PAIR, s.m_nHour);
    case 11:
        st.m_bTwelveHour = true;
        return ReadNumber(p, PAIR, s.m_nHour);
    case 4: return ReadNumber(p, PAIR, s.m_nMinute);
    case 5: return ReadNumber(p, PAIR, s.m_nSecond);
    case 6: case 7: {
        int nMax = bType == 6 ? MICRO_DIGITS_MAX : MILLI_DIGITS;
        if (!ReadDigits(p, nMax, s.m_nMicrosecond, nDigits)) return false;
        for (int i = nDigits; i < MICRO_DIGITS_MAX; ++i) s.m_nMicrosecond *= 10;
        return true;
    }
    case 13: return ReadHalfOfDay(p, st.m_bAfternoon);
    case 17: case 18: {
        int n = ReadName(p, g_arMonthNames, 12, false);
        if (n < 0) n = ReadName(p, g_arMonthNames, 12, true);
        s.m_nMonth = n + 1;
        return n >= 0;
    }
    case 40: case 41:
        if (ReadName(p, g_arDayNames, 7, false) < 0 && ReadName(p, g_arDayNames, 7, true) < 0) return false;
        return true;
    case 21: return ReadClock(p, s);
    case 20:
        st.m_bTwelveHour = true;
        if (!ReadClock(p, s)) return false;
        while (IsBlankChar(*p)) ++p;
        return ReadHalfOfDay(p, st.m_bAfternoon);
    case TOKEN_PERCENT: return *p++ == '%';
    default: return false;
    }
}

// Parts a format left unset (-1) take the value that can't make the rest
// invalid: a leap year, January, the first, midnight.
int CheckFormatParts(const TALVORDATEPARTS& s)
{
    const int LEAP_YEAR = 2000;
    TALVORDATEPARTS c = s;
    if (c.m_nYear == -1) c.m_nYear = LEAP_YEAR;
    if (c.m_nMonth == -1) c.m_nMonth = 1;
    if (c.m_nDay == -1) c.m_nDay = 1;
    if (c.m_nHour == -1) c.m_nHour = 0;
    if (c.m_nMinute == -1) c.m_nMinute = 0;
    if (c.m_nSecond == -1) c.m_nSecond = 0;
    if (c.m_nMicrosecond == -1) c.m_nMicrosecond = 0;
    return CTalvorDate::CheckValidDateTime(c, false);
}

}  // namespace

int CTalvorDate::ParseDate(const char* lpszText, const char* lpszFormat, TALVORDATEPARTS& s)
{
    return ParseDate(lpszText, lpszFormat, s, TALVOR_DATE_YEAR_NOW);
}

int CTalvorDate::ParseDate(const char* lpszText, const char* lpszFormat, TALVORDATEPARTS& s, int nCurrentYear)
{
    s = {-1, -1, -1, -1, -1, -1, -1, -1, -1};
    if (lpszText == nullptr || lpszFormat == nullptr) return TALVOR_DATE_BAD_FORMAT;
    const char* p = lpszText;
    bool bHalfGiven = false;
    FormatState st = {false, false, -1, nCurrentYear};
    for (const char* f = lpszFormat; *f;) {
        if (IsBlankChar(*f)) {
            while (IsBlankChar(*f)) ++f;
            while (IsBlankChar(*p)) ++p;
            continue;
        }
        int nLen = 1;
        BYTE bType = GetFormatType(f, nLen);
        if (bType == TOKEN_UNKNOWN) {
            if (strncmp(p, f, nLen) != 0) return TALVOR_DATE_BAD_FORMAT;
            p += nLen;
        } else {
            if (bType == 13 || bType == 20) bHalfGiven = true;
            if (!ReadToken(p, bType, s, st)) return TALVOR_DATE_BAD_FORMAT;
        }
        f += nLen;
    }
    while (IsBlankChar(*p)) ++p;
    if (*p != 0) return TALVOR_DATE_BAD_FORMAT;
    if (st.m_bTwelveHour || bHalfGiven) {
        if (s.m_nHour < 1 || s.m_nHour > 12) return TALVOR_DATE_INVALID_DATA;
        s.m_nHour = s.m_nHour % 12 + (st.m_bAfternoon ? 12 : 0);
    }
    int nDayOfYear = st.m_nDayOfYear;
    if (nDayOfYear >= 0 && s.m_nYear >= MIN_YEAR && s.m_nYear <= MAX_YEAR) {
        if (nDayOfYear < 1 || nDayOfYear > (IsLeapYear(s.m_nYear) ? 366 : 365)) return TALVOR_DATE_INVALID_DATA;
        CivilFromDay(DayFromCivil(s.m_nYear, 1, 1) + nDayOfYear - 1, s.m_nYear, s.m_nMonth, s.m_nDay);
    }
    return CheckFormatParts(s);
}

