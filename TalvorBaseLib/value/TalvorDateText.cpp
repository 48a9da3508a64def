// TalvorDateText.cpp — the fixed forms of stored dates and times, the wide
// twins of every fixed form, and times by a format.
//
// A wide form is its narrow form widened unit by unit: the fixed forms are
// ASCII, so the two can never disagree on a digit or a length.

#include "TalvorDateInternal.h"

#include <cstring>
#include <new>

using namespace talvordate;

namespace {

const int SECONDS_PER_MINUTE = 60;
const int MINUTES_PER_HOUR = 60;
const int SECONDS_PER_HOUR = 3600;
const int HOURS_PER_DAY = 24;
const int CLOCK_PAIR = 2;

BYTE Widen(const char* lpszText, BYTE bLen, wchar_t* lpszOut)
{
    for (int i = 0; i <= bLen; ++i) lpszOut[i] = (wchar_t)(unsigned char)lpszText[i];
    return bLen;
}

// nValue (0 or more) in at least nWidth digits. Result: the end of the text.
char* PutDigits(char* p, long long nValue, int nWidth)
{
    char sz[24];
    int n = 0;
    do {
        sz[n++] = (char)('0' + nValue % 10);
        nValue /= 10;
    } while (nValue != 0);
    while (n < nWidth) sz[n++] = '0';
    while (n > 0) *p++ = sz[--n];
    return p;
}

}  // namespace

BYTE CTalvorDate::FormatDateTime(DATE date, wchar_t* lpszOut, char nFraction)
{
    char sz[TALVOR_DATE_TEXT_UNITS];
    return Widen(sz, FormatDateTime(date, sz, nFraction), lpszOut);
}

BYTE CTalvorDate::FormatDate(DATE date, wchar_t* lpszOut)
{
    char sz[TALVOR_DATE_TEXT_UNITS];
    return Widen(sz, FormatDate(date, sz), lpszOut);
}

BYTE CTalvorDate::FormatTime(DATE date, wchar_t* lpszOut)
{
    char sz[TALVOR_DATE_TEXT_UNITS];
    return Widen(sz, FormatTime(date, sz), lpszOut);
}

BYTE CTalvorDate::FormatDate(const TALVORDATE& stDate, char* lpszOut)
{
    DATE date;
    // A stored date that names no day must not print as some other day.
    if (ConvertVariantTime(date, stDate) != 0) {
        const char szZero[] = "0000-00-00";
        for (size_t i = 0; i < sizeof(szZero); ++i) lpszOut[i] = szZero[i];
        return (BYTE)(sizeof(szZero) - 1);
    }
    return FormatDate(date, lpszOut);
}

BYTE CTalvorDate::FormatDate(const TALVORDATE& stDate, wchar_t* lpszOut)
{
    char sz[TALVOR_DATE_TEXT_UNITS];
    return Widen(sz, FormatDate(stDate, sz), lpszOut);
}

BYTE CTalvorDate::FormatTime(const TALVORTIME& stTime, char* lpszOut)
{
    long long nTotal = 0;
    DATE dIgnored;
    if (ConvertVariantTime(dIgnored, stTime) == 0)
        nTotal = ((long long)stTime.m_nDay * HOURS_PER_DAY + stTime.m_bHour) * SECONDS_PER_HOUR +
                 stTime.m_bMintue * SECONDS_PER_MINUTE + stTime.m_bSecond;
    char* p = lpszOut;
    if (nTotal < 0) {
        *p++ = '-';
        nTotal = -nTotal;
    }
    p = PutDigits(p, nTotal / SECONDS_PER_HOUR, CLOCK_PAIR);
    *p++ = ':';
    p = PutDigits(p, nTotal / SECONDS_PER_MINUTE % MINUTES_PER_HOUR, CLOCK_PAIR);
    *p++ = ':';
    p = PutDigits(p, nTotal % SECONDS_PER_MINUTE, CLOCK_PAIR);
    *p = 0;
    return (BYTE)(p - lpszOut);
}

BYTE CTalvorDate::FormatTime(const TALVORTIME& stTime, wchar_t* lpszOut)
{
    char sz[TALVOR_DATE_TEXT_UNITS];
    return Widen(sz, FormatTime(stTime, sz), lpszOut);
}

wchar_t* TalvorConvertDate(DATE date, char nFraction)
{
    wchar_t* lpszText = new (std::nothrow) wchar_t[TALVOR_DATE_TEXT_UNITS];
    if (lpszText != nullptr) CTalvorDate::FormatDateTime(date, lpszText, nFraction);
    return lpszText;
}

wchar_t* TalvorConvertTime(const TALVORTIME& stTime)
{
    wchar_t* lpszText = new (std::nothrow) wchar_t[TALVOR_DATE_TEXT_UNITS];
    if (lpszText != nullptr) CTalvorDate::FormatTime(stTime, lpszText);
    return lpszText;
}

// --- Times by format ------------------------------------------------------------------------------

namespace {

char* PutTimeToken(char* p, BYTE bType, long long nHours, int nMinute, int nSecond)
{
    int nHalf = (int)(nHours % 24);
    switch (bType) {
    case 16: case 3: return PutNumber(p, nHours, bType == 16 ? 2 : 1);
    case 11: return PutPair(p, Hour12(nHalf));
    case 4: return PutPair(p, nMinute);
    case 5: return PutPair(p, nSecond);
    case 6: return PutNumber(p, 0, 6);
    case 7: return PutNumber(p, 0, 3);
    case 23: return PutNumber(p, (nHours * 60 + nMinute) * 60 + nSecond, 5);
    case 13: return PutText(p, nHalf < 12 ? "AM" : "PM", 2);
    case 20:
        p = PutPair(p, Hour12(nHalf));
        *p++ = ':';
        p = PutPair(p, nMinute);
        *p++ = ':';
        p = PutPair(p, nSecond);
        return PutText(p, nHalf < 12 ? " AM" : " PM", 3);
    case 21:
        p = PutNumber(p, nHours, 2);
        *p++ = ':';
        p = PutPair(p, nMinute);
        *p++ = ':';
        return PutPair(p, nSecond);
    case TOKEN_PERCENT: *p++ = '%'; return p;
    default: return nullptr;
    }
}

}  // namespace

int CTalvorDate::TimeFormat(CTalvorBufferPool* pPool, TALVORTIME& stTime, const char* lpszFormat, VARDATA& vResult)
{
    const int MAX_TIME_TOKEN = 24;
    long long nTotal = ((long long)stTime.m_nDay * 24 + stTime.m_bHour) * 3600 + stTime.m_bMintue * 60 + stTime.m_bSecond;
    bool bNegative = nTotal < 0;
    if (bNegative) nTotal = -nTotal;
    long long nHours = nTotal / 3600;
    int nMinute = (int)(nTotal / 60 % 60), nSecond = (int)(nTotal % 60);
    size_t nFormat = strlen(lpszFormat);
    char* lpszOut = (char*)pPool->AllocBuffer((UINT)(nFormat * MAX_TIME_TOKEN + 2));
    if (lpszOut == nullptr) return TALVOR_DATE_NO_MEMORY;
    char* p = lpszOut;
    if (bNegative) *p++ = '-';
    p = WriteFormat(p, lpszFormat, [&](char* q, BYTE bType) { return PutTimeToken(q, bType, nHours, nMinute, nSecond); });
    if (p == nullptr) return TALVOR_DATE_BAD_FORMAT;
    return SetTextResult(vResult, lpszOut, p);
}
