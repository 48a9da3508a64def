// BaseFunDate.cpp — the date and time members of CBaseFunManager that read
// a date: what an argument means as a date or a time, the clock, the parts
// of a date, text by a format and back. The arithmetic members are in
// BaseFunDateArith.cpp.
//
// Numbers stand for dates the way MySQL reads them
// (YYYYMMDD, YYMMDD, YYYYMMDDhhmmss, times HHMMSS), not as day numbers: a
// function argument is what a user typed, and that is how users type dates.

#include "BaseFunDateInternal.h"
#include "TalvorDateInternal.h"
#include "TalvorDecimal.h"

#include <cmath>
#include <cstdio>
#include <sys/time.h>

using namespace basefun;

namespace {

// Keyword ids of the functions and units this file tells apart.
const int KW_DATE = 139, KW_TIME = 140, KW_DATETIME = 141, KW_TIMESTAMP = 142, KW_YEAR = 146;
const int KW_CURRENT_DATE = 343, KW_CURDATE = 479, KW_CURRENT_TIME = 484, KW_CURTIME = 485;
// The units from SECOND to QUARTER (417 to 423: second, minute, hour, day,
// week, month, quarter) run in the order of the interval types.
const int KW_MICROSECOND = 416, KW_SECOND = 417, KW_MINUTE = 418, KW_HOUR = 419, KW_QUARTER = 423,
          KW_YEAR_MONTH = 434;
const int KW_MONTHNAME = 537, KW_DAYNAME = 538, KW_DAYOFYEAR = 539, KW_DAYOFMONTH = 540, KW_DAYOFWEEK = 541;
const int KW_TO_DAYS = 623, KW_UTC_DATE = 624, KW_UTC_TIME = 625, KW_WEEKDAY = 627, KW_WEEKOFYEAR = 628;
const int KW_FRAC_SECOND = 679;
// The week mode of WEEKOFYEAR.
const int ISO_WEEK_MODE = 3;

// Longest text read as a date, a format, a zone or a locale.
const int MAX_DATE_TEXT = 64;
const int MAX_FORMAT_TEXT = 4096;
const int MAX_NAME_TEXT = 16;
// Biggest number that can name a date and time: 9999-12-31 23:59:59.
const long long MAX_DATE_NUMBER = 99991231235959LL;
const long long MAX_DATE_ONLY_NUMBER = 99991231LL;
const long long MILLION = 1000000;

bool DateOfParts(int y, int m, int d, long long llSecondOfDay, long long llMicros, DATE& date)
{
    TALVORDATEPARTS s = {
        y, m, d, (int)(llSecondOfDay / 3600), (int)(llSecondOfDay / 60 % 60), (int)(llSecondOfDay % 60), (int)llMicros,
        0, 0};
    return CTalvorDate::ConvertParts(date, s) == 0;
}

// YYYYMMDD, YYMMDD, YYMMDDhhmmss, YYYYMMDDhhmmss.
bool DateOfNumber(long long n, long long llMicros, DATE& date)
{
    if (n <= 0 || n > MAX_DATE_NUMBER) return false;
    int y, m, d, h = 0, mi = 0, s = 0;
    if (n <= MAX_DATE_ONLY_NUMBER) {
        if (CTalvorDate::ValidDate(n, y, m, d) != 0) return false;
    } else {
        if (CTalvorDate::ValidDate(n / MILLION, y, m, d) != 0) return false;
        if (CTalvorDate::ValidTime(n % MILLION, h, mi, s) != 0) return false;
    }
    return DateOfParts(y, m, d, h * 3600LL + mi * 60 + s, llMicros, date);
}

// Whole part and microseconds of a non-negative number value.
bool SplitNumber(const VARDATA& n, long long& llWhole, long long& llMicros)
{
    llMicros = 0;
    if (n.m_vt == TALVOR_VT_BIGINT) {
        llWhole = n.m_llValue;
        return true;
    }
    double d = n.GetCompatibleDouble();
    if (!std::isfinite(d) || d < 0 || d > (double)MAX_DATE_NUMBER + 1) return false;
    llWhole = (long long)d;
    llMicros = std::llround((d - (double)llWhole) * MILLION);
    if (llMicros >= MILLION) llMicros = MILLION - 1;
    return true;
}

bool AllDigits(const char* p, int n)
{
    if (n == 0) return false;
    for (int i = 0; i < n; ++i)
        if (p[i] < '0' || p[i] > '9') return false;
    return true;
}

bool DateOfText(const char* p, int n, DATE& date)
{
    while (n > 0 && (*p == ' ' || *p == '\t')) {
        ++p;
        --n;
    }
    while (n > 0 && (p[n - 1] == ' ' || p[n - 1] == '\t' || p[n - 1] == 0)) --n;
    if (n > MAX_DATE_TEXT) return false;
    const int SHORT_DIGITS = 8;
    if (n <= SHORT_DIGITS && AllDigits(p, n)) {
        long long v = 0;
        for (int i = 0; i < n; ++i) v = v * 10 + (p[i] - '0');
        return DateOfNumber(v, 0, date);
    }
    CTalvorDate parser;
    return parser.ParseDate(p, n, date) == 0;
}

// HHMMSS with hours past 23, signed.
bool TimeSecondsOfNumber(long long n, long long& llSeconds)
{
    bool bNegative = n < 0;
    unsigned long long u = bNegative ? 0ULL - (unsigned long long)n : (unsigned long long)n;
    if (u % 100 > 59 || u / 100 % 100 > 59) return false;
    unsigned long long uHours = u / 10000;
    if (uHours > (unsigned long long)(MAX_TIME_SECONDS / 3600)) return false;
    long long v = (long long)(uHours * 3600 + u / 100 % 100 * 60 + u % 100);
    llSeconds = bNegative ? -v : v;
    return true;
}

// Where the fraction of a time text begins (its point), or nLen for none:
// a point with one to nine digits behind it, and nothing else.
int FractionAt(const char* p, int nLen)
{
    const int MAX_FRACTION_DIGITS = 9;
    int nPoint = nLen - 1;
    while (nPoint >= 0 && p[nPoint] >= '0' && p[nPoint] <= '9') --nPoint;
    int nDigits = nLen - 1 - nPoint;
    if (nPoint < 1 || p[nPoint] != '.' || nDigits == 0 || nDigits > MAX_FRACTION_DIGITS) return nLen;
    return nPoint;
}

// Microseconds of the fraction of a time text, 0 without one.
long long FractionMicros(const VARDATA& v)
{
    if (!IsTextArg(v) || v.m_lpszValue == nullptr || v.m_nStrLen > MAX_DATE_TEXT) return 0;
    int nPoint = FractionAt(v.m_lpszValue, v.m_nStrLen);
    long long llMicros = 0;
    for (int i = 1; i <= 6; ++i) {
        int k = nPoint + i;
        llMicros = llMicros * 10 + (k < v.m_nStrLen ? v.m_lpszValue[k] - '0' : 0);
    }
    return llMicros;
}

// Today's date in the database's zone, whole days.
DATE Today() { return std::floor(CTalvorDate::GetCurrentDateTime()); }

// Now with whole seconds, shifted by dZoneDays.
DATE NowShifted(double dZoneDays)
{
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    talvordate::DayTime t = {TALVOR_DATE_UNIX_EPOCH, (long long)tv.tv_sec * MICROS_PER_SECOND +
                                                         std::llround(dZoneDays * 86400.0) * MICROS_PER_SECOND};
    talvordate::Normalize(t);
    return talvordate::JoinDate(t);
}

int SetNow(VARDATA& vResult, DATE now, int nKind)
{
    if (nKind == KW_DATE) return SetDateOnly(vResult, now);
    if (nKind == KW_TIME) {
        TALVORDATEPARTS s;
        if (CTalvorDate::ConvertDateTime(now, s) != 0) return SetNullResult(vResult);
        return SetTimeSeconds(vResult, s.m_nHour * 3600LL + s.m_nMinute * 60 + s.m_nSecond);
    }
    return SetDateTime(vResult, now);
}

// Text of a text argument for a date function: null (result NULL) for
// NULL; an empty text for another type.
const char* FormatOf(CTalvorBufferPool* pPool, const VARDATA& vFormat)
{
    if (IsNullArg(vFormat)) return nullptr;
    if (!IsTextArg(vFormat)) return "";
    return TextOf(pPool, vFormat, MAX_FORMAT_TEXT);
}

// Reports a failed Format: no memory is the only code that leaves NULL
// and a failure; the rest is no answer.
int FormatResult(int nResult, VARDATA& vResult)
{
    if (nResult == 0) return 0;
    SetNullResult(vResult);
    return nResult == TALVOR_DATE_NO_MEMORY ? TALVOR_VARDATA_NO_MEMORY : 0;
}


// The part of a date named by a keyword id, as an integer. Result: false
// for a number that is none of them.
bool NumberPart(const TALVORDATEPARTS& s, DATE date, int nFunction, long long& v)
{
    int nYear = 0;
    switch (nFunction) {
    case KW_DAYOFYEAR: v = s.m_nDayOfYear; return true;
    case KW_DAYOFWEEK: v = s.m_nDayOfWeek + 1; return true;
    case KW_WEEKDAY: v = (s.m_nDayOfWeek + 6) % 7; return true;
    case KW_WEEKOFYEAR: v = CTalvorDate::CalcWeek(s, ISO_WEEK_MODE, nYear); return true;
    case KW_TO_DAYS: v = (long long)std::floor(date) + TO_DAYS_OF_DAY_ZERO; return true;
    default: return false;
    }
}

bool IsNumberArg(const VARDATA& v)
{
    return v.m_vt == TALVOR_VT_INT || v.m_vt == TALVOR_VT_BIGINT || v.m_vt == TALVOR_VT_DOUBLE ||
           v.m_vt == TALVOR_VT_DECIMAL || v.m_vt == TALVOR_VT_TINY || v.m_vt == TALVOR_VT_SMALL;
}

bool IsClockPart(int nFunction)
{
    return nFunction == KW_HOUR || nFunction == KW_MINUTE || nFunction == KW_SECOND || nFunction == KW_MICROSECOND;
}

}  // namespace

// --- Shared helpers -----------------------------------------------------------------------------

namespace basefun {

// The one shape of every value setter: a value that converts is stored by
// fnStore into v of type bType; one that does not makes v NULL. Result: 0.
template <class Store> int SetConverted(VARDATA& v, bool bConverts, BYTE bType, Store fnStore)
{
    if (!bConverts) return SetNullResult(v);
    Reset(v, bType);
    fnStore(v);
    return 0;
}

int SetDouble(VARDATA& v, double dValue)
{
    return SetConverted(v, std::isfinite(dValue), TALVOR_VT_DOUBLE, [&](VARDATA& r) { r.m_dblValue = dValue; });
}

int SetDateTime(VARDATA& v, DATE date)
{
    TALVORDATEPARTS s;
    bool bConverts = CTalvorDate::ConvertDateTime(date, s) == 0;
    return SetConverted(v, bConverts, TALVOR_VT_DATETIME, [&](VARDATA& r) { r.m_dblValue = date; });
}

int SetDateOnly(VARDATA& v, DATE date)
{
    TALVORDATE d;
    bool bConverts = CTalvorDate::ConvertDate(date, d) == 0;
    return SetConverted(v, bConverts, TALVOR_VT_DATE, [&](VARDATA& r) { r.m_stDate = d; });
}

int SetTimeSeconds(VARDATA& v, long long llSeconds)
{
    bool bConverts = llSeconds >= MIN_TIME_SECONDS && llSeconds <= MAX_TIME_SECONDS;
    return SetConverted(v, bConverts, TALVOR_VT_TIME, [&](VARDATA& r) {
        long long nDay = talvordate::FloorDiv(llSeconds, SECONDS_PER_DAY);
        long long nRest = llSeconds - nDay * SECONDS_PER_DAY;
        r.m_stTime.m_nDay = (signed char)nDay;
        r.m_stTime.m_bHour = (BYTE)(nRest / 3600);
        r.m_stTime.m_bMintue = (BYTE)(nRest / 60 % 60);
        r.m_stTime.m_bSecond = (BYTE)(nRest % 60);
    });
}

int SetText(CTalvorBufferPool* pPool, VARDATA& v, const char* lpszText, int nLen)
{
    char* p = nLen < 0 || nLen > TALVOR_FUN_MAX_RESULT ? nullptr : (char*)pPool->AllocBuffer((UINT)nLen + 1);
    if (p == nullptr) {
        SetNullResult(v);
        return TALVOR_VARDATA_NO_MEMORY;
    }
    memcpy(p, lpszText, (size_t)nLen);
    p[nLen] = 0;
    Reset(v, TALVOR_VT_TEXT);
    v.m_lpszValue = p;
    v.m_nStrLen = nLen;
    return 0;
}

const char* TextOf(CTalvorBufferPool* pPool, const VARDATA& v, int nMax)
{
    if (!IsTextArg(v) || v.m_lpszValue == nullptr || v.m_nStrLen < 0 || v.m_nStrLen > nMax) return nullptr;
    if (memchr(v.m_lpszValue, 0, (size_t)v.m_nStrLen) != nullptr) return v.m_lpszValue;
    char* p = (char*)pPool->AllocBuffer((UINT)v.m_nStrLen + 1);
    if (p == nullptr) return nullptr;
    memcpy(p, v.m_lpszValue, (size_t)v.m_nStrLen);
    p[v.m_nStrLen] = 0;
    return p;
}

int UnitOf(int nUnit)
{
    if (nUnit >= INTERVAL_MICROSECOND && nUnit <= INTERVAL_YEAR_MONTH) return nUnit;
    switch (nUnit) {
    case KW_MICROSECOND: return INTERVAL_MICROSECOND;
    case KW_FRAC_SECOND: return INTERVAL_FRAC_SECOND;
    case KW_YEAR: return INTERVAL_YEAR;
    default: break;
    }
    // SECOND .. QUARTER and SECOND_MICROSECOND .. YEAR_MONTH stand in the
    // keyword table in the order of the interval types.
    if (nUnit >= KW_SECOND && nUnit <= KW_QUARTER) return nUnit - KW_SECOND + INTERVAL_SECOND;
    if (nUnit > KW_QUARTER && nUnit <= KW_YEAR_MONTH) return nUnit - KW_QUARTER - 1 + INTERVAL_SECOND_MICROSECOND;
    return 0;
}

bool TimeSecondsOf(CTalvorBufferPool* /*pPool*/, const VARDATA& v, long long& llSeconds)
{
    if (v.m_vt == TALVOR_VT_TIME) {
        llSeconds = SecondsOfTime(v.m_stTime);
        return true;
    }
    if (!IsTextArg(v) || v.m_lpszValue == nullptr || v.m_nStrLen > MAX_DATE_TEXT) return false;
    // A fraction of a second is read apart (FractionMicros).
    const char* p = v.m_lpszValue;
    int n = FractionAt(p, v.m_nStrLen);
    TALVORTIME t;
    if (CTalvorDate::ParseTime(t, p, n) != 0) return false;
    // One bare number is HHMMSS, as a number would be.
    bool bNegative = n > 0 && *p == '-';
    if (AllDigits(p + (bNegative ? 1 : 0), n - (bNegative ? 1 : 0))) {
        long long x = 0;
        for (int i = bNegative ? 1 : 0; i < n; ++i) x = x * 10 + (p[i] - '0');
        return TimeSecondsOfNumber(bNegative ? -x : x, llSeconds);
    }
    llSeconds = SecondsOfTime(t);
    return true;
}

}  // namespace basefun

// --- Arguments as dates and times ---------------------------------------------------------------

int CBaseFunManager::date(CTalvorBufferPool* /*pPool*/, const VARDATA& vArg, double& dtOut)
{
    DATE d = 0;
    bool bOk = false;
    switch (vArg.m_vt) {
    case TALVOR_VT_DATETIME: {
        TALVORDATEPARTS s;
        d = vArg.m_dblValue;
        bOk = CTalvorDate::ConvertDateTime(d, s) == 0;
        break;
    }
    case TALVOR_VT_DATE: bOk = CTalvorDate::ConvertVariantTime(d, vArg.m_stDate) == 0; break;
    case TALVOR_VT_TIME:
        bOk = CTalvorDate::ConvertVariantTime(d, vArg.m_stTime) == 0;
        d += Today();
        break;
    case TALVOR_VT_INT:
    case TALVOR_VT_BIGINT:
    case TALVOR_VT_DOUBLE:
    case TALVOR_VT_DECIMAL:
    case TALVOR_VT_TINY:
    case TALVOR_VT_SMALL: {
        VARDATA n;
        vArg.GetCompatibleNumberValue(n);
        long long llWhole, llMicros;
        bOk = SplitNumber(n, llWhole, llMicros) && DateOfNumber(llWhole, llMicros, d);
        break;
    }
    default:
        bOk = IsTextArg(vArg) && vArg.m_lpszValue != nullptr && DateOfText(vArg.m_lpszValue, vArg.m_nStrLen, d);
        break;
    }
    if (!bOk) return TALVOR_DATE_INVALID_DATA;
    dtOut = d;
    return 0;
}

int CBaseFunManager::time(CTalvorBufferPool* pPool, const VARDATA& vArg, TALVORTIME& stOut)
{
    long long llSeconds = 0;
    bool bOk = TimeSecondsOf(pPool, vArg, llSeconds);
    if (!bOk && IsNumberArg(vArg)) {
        long long n = vArg.GetCompatibleBigInt();
        // Eight digits and more are a date (and time); shorter ones HHMMSS.
        const long long FIRST_DATE_NUMBER = 10000000LL;
        DATE d;
        TALVORDATEPARTS s;
        if (n >= FIRST_DATE_NUMBER) {
            bOk = DateOfNumber(n, 0, d) && CTalvorDate::ConvertDateTime(d, s) == 0;
            if (bOk) llSeconds = s.m_nHour * 3600LL + s.m_nMinute * 60 + s.m_nSecond;
        } else {
            bOk = TimeSecondsOfNumber(n, llSeconds);
        }
    } else if (!bOk && !IsNullArg(vArg)) {
        DATE d;
        TALVORDATEPARTS s;
        bOk = date(pPool, vArg, d) == 0 && CTalvorDate::ConvertDateTime(d, s) == 0;
        if (bOk) llSeconds = s.m_nHour * 3600LL + s.m_nMinute * 60 + s.m_nSecond;
    }
    if (!bOk) return TALVOR_DATE_INVALID_DATA;
    VARDATA v;
    SetTimeSeconds(v, llSeconds);
    if (v.m_vt != TALVOR_VT_TIME) return TALVOR_DATE_INVALID_DATA;
    stOut = v.m_stTime;
    return 0;
}

// --- The clock ----------------------------------------------------------------------------------

int CBaseFunManager::SysDate(CTalvorBufferPool* /*pPool*/, VARDATA& vResult, int nFunction)
{
    int nKind = nFunction == KW_CURDATE || nFunction == KW_CURRENT_DATE   ? KW_DATE
                : nFunction == KW_CURTIME || nFunction == KW_CURRENT_TIME ? KW_TIME
                                                                          : KW_DATETIME;
    return SetNow(vResult, NowShifted(DbTimeZoneValue() / 24.0), nKind);
}

int CBaseFunManager::UTC_DateTime(CTalvorBufferPool* /*pPool*/, VARDATA& vResult, int nFunction)
{
    int nKind = nFunction == KW_UTC_DATE ? KW_DATE : nFunction == KW_UTC_TIME ? KW_TIME : KW_DATETIME;
    return SetNow(vResult, NowShifted(0), nKind);
}

int CBaseFunManager::DbTimeZone(CTalvorBufferPool* pPool, VARDATA& vResult)
{
    long long nMinutes = std::llround(DbTimeZoneValue() * 60);
    char sz[16];
    long long nAbs = nMinutes < 0 ? -nMinutes : nMinutes;
    int n = snprintf(sz, sizeof(sz), "%c%02lld:%02lld", nMinutes < 0 ? '-' : '+', nAbs / 60, nAbs % 60);
    return SetText(pPool, vResult, sz, n);
}

// --- Text and dates -----------------------------------------------------------------------------

int CBaseFunManager::ToDate(CTalvorBufferPool* pPool, VARDATA& vText, VARDATA& vFormat, VARDATA& vResult)
{
    if (IsNullArg(vText) || IsNullArg(vFormat)) return SetNullResult(vResult);
    const char* lpszText = TextOf(pPool, vText, MAX_FORMAT_TEXT);
    const char* lpszFormat = TextOf(pPool, vFormat, MAX_FORMAT_TEXT);
    TALVORDATEPARTS s;
    if (lpszText == nullptr || lpszFormat == nullptr || CTalvorDate::ParseDate(lpszText, lpszFormat, s) != 0)
        return SetNullResult(vResult);
    TALVORDATEPARTS now;
    if (s.m_nYear < 0 || s.m_nMonth < 0) CTalvorDate::ConvertDateTime(CTalvorDate::GetCurrentDateTime(), now);
    if (s.m_nYear < 0) s.m_nYear = now.m_nYear;
    if (s.m_nMonth < 0) s.m_nMonth = now.m_nMonth;
    if (s.m_nDay < 0) s.m_nDay = 1;
    int* arClock[] = {&s.m_nHour, &s.m_nMinute, &s.m_nSecond, &s.m_nMicrosecond};
    for (int* p : arClock)
        if (*p < 0) *p = 0;
    DATE d;
    if (CTalvorDate::ConvertParts(d, s) != 0) return SetNullResult(vResult);
    return SetDateTime(vResult, d);
}

int CBaseFunManager::ToChar(CTalvorBufferPool* pPool, VARDATA& vValue, VARDATA& vResult, VARDATA& vFormat)
{
    if (IsNullArg(vValue) || IsNullArg(vFormat)) return SetNullResult(vResult);
    const char* lpszFormat = FormatOf(pPool, vFormat);
    if (lpszFormat == nullptr) return SetNullResult(vResult);
    DATE d;
    if (vValue.m_vt == TALVOR_VT_DATETIME || vValue.m_vt == TALVOR_VT_DATE) {
        if (date(pPool, vValue, d) != 0) return SetNullResult(vResult);
        const char* lpszUse = *lpszFormat                     ? lpszFormat
                              : vValue.m_vt == TALVOR_VT_DATE ? "YYYY-MM-DD"
                                                              : "YYYY-MM-DD HH24:MI:SS";
        return FormatResult(CTalvorDate::Format(pPool, d, lpszUse, vResult), vResult);
    }
    if (vValue.m_vt == TALVOR_VT_TIME) {
        TALVORTIME t = vValue.m_stTime;
        return FormatResult(CTalvorDate::TimeFormat(pPool, t, *lpszFormat ? lpszFormat : "HH24:MI:SS", vResult),
                            vResult);
    }
    bool bText = IsTextArg(vValue);
    if (*lpszFormat == 0) {
        if (bText) return SetText(pPool, vResult, vValue.m_lpszValue, vValue.m_nStrLen);
        return vValue.GetCompatibleStringValue(pPool, vResult) == 0 ? 0 : TALVOR_VARDATA_NO_MEMORY;
    }
    if (bText && date(pPool, vValue, d) == 0)
        return FormatResult(CTalvorDate::Format(pPool, d, lpszFormat, vResult), vResult);
    // Numbers: a picture of digits and one point, by the number printer.
    return NumberToChar(pPool, vValue, lpszFormat, vResult);
}

int CBaseFunManager::Date(CTalvorBufferPool* pPool, VARDATA& vArg, VARDATA& vResult)
{
    DATE d;
    if (date(pPool, vArg, d) != 0) return SetNullResult(vResult);
    return SetDateOnly(vResult, d);
}

int CBaseFunManager::Time(CTalvorBufferPool* pPool, VARDATA& vArg, VARDATA& vResult)
{
    TALVORTIME t;
    if (time(pPool, vArg, t) != 0) return SetNullResult(vResult);
    return SetTimeSeconds(vResult, SecondsOfTime(t));
}

int CBaseFunManager::ConvertToDateTime(CTalvorBufferPool* pPool, VARDATA& vArg, VARDATA& vResult)
{
    DATE d;
    if (date(pPool, vArg, d) != 0) return SetNullResult(vResult);
    return SetDateTime(vResult, d);
}

// --- Parts of a date ----------------------------------------------------------------------------

int CBaseFunManager::DateFuntion(CTalvorBufferPool* pPool, VARDATA& vArg, VARDATA& vResult, int nFunction)
{
    // A time has hours past 23, which no date has; a short number is a time.
    long long llSeconds;
    if (IsClockPart(nFunction) && (IsNumberArg(vArg) || TimeSecondsOf(pPool, vArg, llSeconds)))
        return TimeFuntion(pPool, vArg, vResult, nFunction);
    int nType = 0;
    switch (nFunction) {
    case KW_DAYOFMONTH: nType = INTERVAL_DAY; break;
    case KW_DAYOFYEAR:
    case KW_DAYOFWEEK:
    case KW_WEEKDAY:
    case KW_WEEKOFYEAR:
    case KW_TO_DAYS:
    case KW_MONTHNAME:
    case KW_DAYNAME: break;
    default:
        nType = nFunction <= INTERVAL_YEAR_MONTH || (nFunction >= KW_MICROSECOND && nFunction <= KW_QUARTER) ||
                        nFunction == KW_YEAR
                    ? UnitOf(nFunction)
                    : -1;
        break;
    }
    if (nType < 0) {
        SetNullResult(vResult);
        return TALVOR_FUN_BAD_FUNCTION;
    }
    DATE d;
    TALVORDATEPARTS s;
    if (date(pPool, vArg, d) != 0 || CTalvorDate::ConvertDateTime(d, s) != 0) return SetNullResult(vResult);
    if (nType > 0) return CTalvorDate::GetCombinedData(pPool, d, (BYTE)nType, vResult);
    if (nFunction == KW_MONTHNAME || nFunction == KW_DAYNAME) {
        const char* lpszName = nFunction == KW_MONTHNAME ? talvordate::g_arMonthNames[s.m_nMonth - 1]
                                                         : talvordate::g_arDayNames[s.m_nDayOfWeek];
        return SetText(pPool, vResult, lpszName, (int)strlen(lpszName));
    }
    long long v = 0;
    NumberPart(s, d, nFunction, v);
    return SetBigInt(vResult, v);
}

int CBaseFunManager::DateFuntion(CTalvorBufferPool* pPool, VARDATA& vArg, VARDATA& vFormat, VARDATA& vResult)
{
    DATE d;
    if (IsNullArg(vFormat) || date(pPool, vArg, d) != 0) return SetNullResult(vResult);
    const char* lpszFormat = FormatOf(pPool, vFormat);
    if (lpszFormat == nullptr) return SetNullResult(vResult);
    return FormatResult(CTalvorDate::Format(pPool, d, lpszFormat, vResult), vResult);
}

int CBaseFunManager::TimeFuntion(CTalvorBufferPool* pPool, VARDATA& vArg, VARDATA& vResult, int nFunction)
{
    if (!IsClockPart(nFunction)) {
        SetNullResult(vResult);
        return TALVOR_FUN_BAD_FUNCTION;
    }
    TALVORTIME t;
    if (time(pPool, vArg, t) != 0) return SetNullResult(vResult);
    long long llSeconds = SecondsOfTime(t);
    if (llSeconds < 0) llSeconds = -llSeconds;
    switch (nFunction) {
    case KW_HOUR: return SetBigInt(vResult, llSeconds / 3600);
    case KW_MINUTE: return SetBigInt(vResult, llSeconds / 60 % 60);
    case KW_SECOND: return SetBigInt(vResult, llSeconds % 60);
    default: break;
    }
    // A stored time has no fraction; a date and time, or a text, may.
    long long llIgnored;
    if (TimeSecondsOf(pPool, vArg, llIgnored)) return SetBigInt(vResult, FractionMicros(vArg));
    DATE d;
    TALVORDATEPARTS s;
    if (date(pPool, vArg, d) == 0 && CTalvorDate::ConvertDateTime(d, s) == 0)
        return SetBigInt(vResult, s.m_nMicrosecond);
    return SetBigInt(vResult, 0);
}

int CBaseFunManager::Extract(CTalvorBufferPool* pPool, int nUnit, VARDATA& vArg, VARDATA& vResult)
{
    int nType = UnitOf(nUnit);
    if (nType == 0) {
        SetNullResult(vResult);
        return TALVOR_DATE_BAD_INTERVAL;
    }
    DATE d;
    if (date(pPool, vArg, d) != 0) return SetNullResult(vResult);
    int nResult = CTalvorDate::GetCombinedData(pPool, d, (BYTE)nType, vResult);
    return nResult == TALVOR_DATE_INVALID_DATA ? SetNullResult(vResult) : nResult;
}

// --- Formats ------------------------------------------------------------------------------------

int CBaseFunManager::Get_Format(CTalvorBufferPool* pPool, int nType, VARDATA& vLocale, VARDATA& vResult)
{
    struct LocaleFormats {
        const char* m_lpszName;
        const char* m_lpszDate;
        const char* m_lpszDateTime;
        const char* m_lpszTime;
    };
    static const LocaleFormats arFormats[] = {
        {"USA", "%m.%d.%Y", "%Y-%m-%d %H.%i.%s", "%h:%i:%s %p"}, {"JIS", "%Y-%m-%d", "%Y-%m-%d %H:%i:%s", "%H:%i:%s"},
        {"ISO", "%Y-%m-%d", "%Y-%m-%d %H:%i:%s", "%H:%i:%s"},    {"EUR", "%d.%m.%Y", "%Y-%m-%d %H.%i.%s", "%H.%i.%s"},
        {"INTERNAL", "%Y%m%d", "%Y%m%d%H%i%s", "%H%i%s"},
    };
    if (nType != KW_DATE && nType != KW_TIME && nType != KW_DATETIME && nType != KW_TIMESTAMP) {
        SetNullResult(vResult);
        return TALVOR_FUN_BAD_FUNCTION;
    }
    const char* lpszLocale = IsNullArg(vLocale) ? nullptr : TextOf(pPool, vLocale, MAX_NAME_TEXT);
    if (lpszLocale == nullptr) return SetNullResult(vResult);
    for (const LocaleFormats& f : arFormats) {
        if (strcasecmp(f.m_lpszName, lpszLocale) != 0) continue;
        const char* p = nType == KW_DATE ? f.m_lpszDate : nType == KW_TIME ? f.m_lpszTime : f.m_lpszDateTime;
        return SetText(pPool, vResult, p, (int)strlen(p));
    }
    return SetNullResult(vResult);
}

int CBaseFunManager::Time_Format(CTalvorBufferPool* pPool, VARDATA& vTime, VARDATA& vFormat, VARDATA& vResult)
{
    TALVORTIME t;
    if (IsNullArg(vFormat) || time(pPool, vTime, t) != 0) return SetNullResult(vResult);
    const char* lpszFormat = FormatOf(pPool, vFormat);
    if (lpszFormat == nullptr) return SetNullResult(vResult);
    return FormatResult(CTalvorDate::TimeFormat(pPool, t, lpszFormat, vResult), vResult);
}

int CBaseFunManager::Convert_TZ(CTalvorBufferPool* pPool, VARDATA& vDate, VARDATA& vFrom, VARDATA& vTo,
                                VARDATA& vResult)
{
    DATE d;
    if (IsNullArg(vFrom) || IsNullArg(vTo) || date(pPool, vDate, d) != 0) return SetNullResult(vResult);
    const char* lpszFrom = TextOf(pPool, vFrom, MAX_NAME_TEXT);
    const char* lpszTo = TextOf(pPool, vTo, MAX_NAME_TEXT);
    if (lpszFrom == nullptr || lpszTo == nullptr) return SetNullResult(vResult);
    CTalvorDate::ConvertTZ(pPool, d, lpszFrom, lpszTo, vResult);
    return vResult.m_vt == TALVOR_VT_DATETIME ? SetDateTime(vResult, vResult.m_dblValue) : SetNullResult(vResult);
}
