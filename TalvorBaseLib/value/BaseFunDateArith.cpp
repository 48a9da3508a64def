// BaseFunDateArith.cpp — the date and time members of CBaseFunManager that
// compute with dates: seconds since 1970, day counts, intervals, the
// distance between two dates in a unit, periods and weeks.
//
// Work is done on whole days plus microseconds of the day (the date
// library's DayTime), so that a day or a month added is exact and a second
// never drifts in the double.

#include "BaseFunDateInternal.h"
#include "TalvorDateInternal.h"

#include <cmath>
#include <cstdio>
#include <sys/time.h>

using namespace basefun;
using talvordate::DayTime;

namespace {

const long long MICROS_PER_DAY = SECONDS_PER_DAY * MICROS_PER_SECOND;
// First TO_DAYS that names a real date: 0001-01-01.
const long long FIRST_TO_DAYS = 366;
// Periods: two-digit years below this are 20xx.
const long long PERIOD_PIVOT = 70;
const BYTE INTERVAL_MARK = 1;
// Longest amount of an interval value, as text.
const int MAX_AMOUNT_TEXT = 64;
const double MAX_UNIX_SECONDS = 253402300800.0;  // 10000-01-01
const int MAX_INTERVAL_TEXT = 3 + MAX_AMOUNT_TEXT;

bool DayTimeOfArg(CTalvorBufferPool* pPool, const VARDATA& v, DayTime& t)
{
    DATE d;
    return CBaseFunManager::date(pPool, v, d) == 0 && talvordate::SplitDate(d, t);
}

// A text argument that is a date without a time of day, which the
// SQL layer keeps a date after whole days are added, as MySQL does.
bool IsDateOnlyText(CTalvorBufferPool* pPool, const VARDATA& v)
{
    if (!IsTextArg(v) || v.m_lpszValue == nullptr) return false;
    if (memchr(v.m_lpszValue, ':', (size_t)v.m_nStrLen) != nullptr) return false;
    DATE d;
    return CBaseFunManager::date(pPool, v, d) == 0 && d == std::floor(d);
}

// The result of arithmetic on a date argument: a date for a date (or a
// date-only text) when nothing finer than a day was added, else a date
// and time.
int SetArithResult(CTalvorBufferPool* pPool, const VARDATA& vDate, const DayTime& t, bool bFiner, VARDATA& vResult)
{
    if (!talvordate::InRange(t)) return SetNullResult(vResult);
    DATE d = talvordate::JoinDate(t);
    bool bDate = vDate.m_vt == TALVOR_VT_DATE || IsDateOnlyText(pPool, vDate);
    return bDate && !bFiner ? SetDateOnly(vResult, d) : SetDateTime(vResult, d);
}

// Microseconds of each simple unit up to a week; 0 for units by the calendar.
long long MicrosOfUnit(int nType)
{
    switch (nType) {
    case INTERVAL_MICROSECOND: return 1;
    case INTERVAL_FRAC_SECOND: return 1000;
    case INTERVAL_SECOND: return MICROS_PER_SECOND;
    case INTERVAL_MINUTE: return 60 * MICROS_PER_SECOND;
    case INTERVAL_HOUR: return 3600 * MICROS_PER_SECOND;
    case INTERVAL_DAY: return MICROS_PER_DAY;
    case INTERVAL_WEEK: return 7 * MICROS_PER_DAY;
    default: return 0;
    }
}

int MonthsOfUnit(int nType)
{
    return nType == INTERVAL_MONTH ? 1 : nType == INTERVAL_QUARTER ? 3 : nType == INTERVAL_YEAR ? 12 : 0;
}

// t plus llAmount units of a simple type. Result: false out of range.
bool AddUnits(DayTime& t, int nType, long long llAmount)
{
    const long long LIMIT = 1LL << 40;
    if (llAmount > LIMIT || llAmount < -LIMIT) return false;
    int nMonths = MonthsOfUnit(nType);
    if (nMonths > 0) {
        DayTime r;
        if (talvordate::MonthsBetweenAdd(t, (int)(llAmount * nMonths), r) != 0) return false;
        t = r;
        return true;
    }
    long long llUnit = MicrosOfUnit(nType);
    long long llDays = llAmount * llUnit / MICROS_PER_DAY;
    t.m_nDay += llDays;
    t.m_nMicros += llAmount * llUnit - llDays * MICROS_PER_DAY;
    talvordate::Normalize(t);
    return talvordate::InRange(t);
}

// Whole months from a to b (a <= b): a month is complete when the day and
// then the time of day of a have come round again.
long long WholeMonths(const DayTime& a, const DayTime& b)
{
    int ya, ma, da, yb, mb, db;
    talvordate::CivilFromDay(a.m_nDay, ya, ma, da);
    talvordate::CivilFromDay(b.m_nDay, yb, mb, db);
    long long n = (long long)(yb - ya) * 12 + (mb - ma);
    if (db < da || (db == da && b.m_nMicros < a.m_nMicros)) --n;
    return n;
}

long long MicrosBetween(const DayTime& a, const DayTime& b)
{
    return (b.m_nDay - a.m_nDay) * MICROS_PER_DAY + (b.m_nMicros - a.m_nMicros);
}

// Seconds since 1970 of a day number of the database's zone.
double UnixSecondsOf(const DayTime& t)
{
    long long llZone = std::llround(DbTimeZoneValue() * 3600);
    return (double)((t.m_nDay - TALVOR_DATE_UNIX_EPOCH) * SECONDS_PER_DAY - llZone) +
           (double)t.m_nMicros / MICROS_PER_SECOND;
}

// A period YYMM or YYYYMM as months since year 0; false for a negative one.
bool MonthsOfPeriod(const VARDATA& v, long long& llMonths)
{
    long long p = v.GetCompatibleBigInt();
    if (p < 0) return false;
    if (p == 0) {
        llMonths = 0;
        return true;
    }
    long long nYear = p / 100;
    if (nYear < 100) nYear += nYear < PERIOD_PIVOT ? 2000 : 1900;
    llMonths = nYear * 12 + p % 100 - 1;
    return true;
}

// Seconds of a time argument, or of a date's time of day.
bool SecondsOfArg(CTalvorBufferPool* pPool, const VARDATA& v, long long& llSeconds)
{
    if (TimeSecondsOf(pPool, v, llSeconds)) return true;
    TALVORTIME t;
    if (CBaseFunManager::time(pPool, v, t) != 0) return false;
    llSeconds = SecondsOfTime(t);
    return true;
}

// A time, or text read as one, rather than a date.
bool IsTimeArg(CTalvorBufferPool* pPool, const VARDATA& v)
{
    long long llSeconds;
    return v.m_vt == TALVOR_VT_TIME || (IsTextArg(v) && TimeSecondsOf(pPool, v, llSeconds));
}

// The days of an ADDDATE(date, n) as an interval of days.
int AddDays(CTalvorBufferPool* pPool, VARDATA& vDate, const VARDATA& vDays, VARDATA& vResult, BOOL bAdd)
{
    DayTime t;
    if (IsNullArg(vDays) || !DayTimeOfArg(pPool, vDate, t)) return SetNullResult(vResult);
    long long llDays = vDays.GetCompatibleBigInt();
    if (!AddUnits(t, INTERVAL_DAY, bAdd ? llDays : -llDays)) return SetNullResult(vResult);
    return SetArithResult(pPool, vDate, t, false, vResult);
}

// A date, a stored date or a stored time with an interval value whose text
// ends within its length.
int AddInterval(CTalvorBufferPool* pPool, VARDATA& vDate, const VARDATA& vInterval, VARDATA& vResult, BOOL bAdd)
{
    int nResult;
    if (vDate.m_vt == TALVOR_VT_TIME) {
        nResult = CTalvorDate::DateAddSubInterval(pPool, vDate.m_stTime, vInterval, vResult, bAdd);
    } else if (vDate.m_vt == TALVOR_VT_DATE || IsDateOnlyText(pPool, vDate)) {
        DATE d;
        TALVORDATE stDate;
        if (CBaseFunManager::date(pPool, vDate, d) != 0 || CTalvorDate::ConvertDate(d, stDate) != 0)
            return SetNullResult(vResult);
        nResult = CTalvorDate::DateAddSubInterval(pPool, stDate, vInterval, vResult, bAdd);
    } else {
        DATE d;
        if (CBaseFunManager::date(pPool, vDate, d) != 0) return SetNullResult(vResult);
        nResult = CTalvorDate::DateAddSubInterval(pPool, d, vInterval, vResult, bAdd);
    }
    if (nResult == TALVOR_DATE_BAD_INTERVAL || nResult == TALVOR_DATE_BAD_PARAMETER) {
        SetNullResult(vResult);
        return nResult;
    }
    if (nResult != 0) return SetNullResult(vResult);
    // The library's result may pass year 9999 only as NULL; a date and time
    // is checked once more so that no caller meets one out of range.
    return vResult.m_vt == TALVOR_VT_DATETIME ? SetDateTime(vResult, vResult.m_dblValue) : 0;
}

}  // namespace

// --- Seconds since 1970 -------------------------------------------------------------------------

int CBaseFunManager::From_UnixTime(CTalvorBufferPool* /*pPool*/, VARDATA& vSeconds, VARDATA& vResult)
{
    if (IsNullArg(vSeconds)) return SetNullResult(vResult);
    double d = vSeconds.GetCompatibleDouble();
    if (!(d >= 0 && d < MAX_UNIX_SECONDS)) return SetNullResult(vResult);
    long long llWhole = (long long)d;
    long long llMicros = std::llround((d - (double)llWhole) * MICROS_PER_SECOND);
    DayTime t = {TALVOR_DATE_UNIX_EPOCH,
                 llWhole * MICROS_PER_SECOND + llMicros + std::llround(DbTimeZoneValue() * 3600) * MICROS_PER_SECOND};
    talvordate::Normalize(t);
    if (!talvordate::InRange(t)) return SetNullResult(vResult);
    return SetDateTime(vResult, talvordate::JoinDate(t));
}

int CBaseFunManager::From_UnixTime(CTalvorBufferPool* pPool, VARDATA& vSeconds, VARDATA& vFormat, VARDATA& vResult)
{
    VARDATA vDate;
    From_UnixTime(pPool, vSeconds, vDate);
    if (vDate.m_vt != TALVOR_VT_DATETIME) return SetNullResult(vResult);
    return DateFuntion(pPool, vDate, vFormat, vResult);
}

int CBaseFunManager::Unix_TimeStamp(CTalvorBufferPool* /*pPool*/, VARDATA& vResult)
{
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return SetBigInt(vResult, (long long)tv.tv_sec);
}

int CBaseFunManager::Unix_TimeStamp(CTalvorBufferPool* pPool, VARDATA& vDate, VARDATA& vResult)
{
    DayTime t;
    if (!DayTimeOfArg(pPool, vDate, t)) return SetNullResult(vResult);
    double d = UnixSecondsOf(t);
    if (d < 0) return SetNullResult(vResult);
    if (t.m_nMicros % MICROS_PER_SECOND != 0) return SetDouble(vResult, d);
    return SetBigInt(vResult, (long long)d);
}

// --- Day counts ---------------------------------------------------------------------------------

int CBaseFunManager::DateDiff(CTalvorBufferPool* pPool, VARDATA& vA, VARDATA& vB, VARDATA& vResult)
{
    DayTime a, b;
    if (!DayTimeOfArg(pPool, vA, a) || !DayTimeOfArg(pPool, vB, b)) return SetNullResult(vResult);
    return SetBigInt(vResult, a.m_nDay - b.m_nDay);
}

int CBaseFunManager::From_Days(CTalvorBufferPool* /*pPool*/, VARDATA& vDays, VARDATA& vResult)
{
    if (IsNullArg(vDays)) return SetNullResult(vResult);
    long long n = vDays.GetCompatibleBigInt();
    if (n < FIRST_TO_DAYS) return SetNullResult(vResult);
    DayTime t = {n - TO_DAYS_OF_DAY_ZERO, 0};
    if (!talvordate::InRange(t)) return SetNullResult(vResult);
    return SetDateOnly(vResult, talvordate::JoinDate(t));
}

int CBaseFunManager::To_Days(CTalvorBufferPool* pPool, VARDATA& vDate, VARDATA& vResult)
{
    DayTime t;
    if (!DayTimeOfArg(pPool, vDate, t)) return SetNullResult(vResult);
    return SetBigInt(vResult, t.m_nDay + TO_DAYS_OF_DAY_ZERO);
}

int CBaseFunManager::To_Seconds(CTalvorBufferPool* pPool, VARDATA& vDate, VARDATA& vResult)
{
    DayTime t;
    if (!DayTimeOfArg(pPool, vDate, t)) return SetNullResult(vResult);
    return SetBigInt(vResult, (t.m_nDay + TO_DAYS_OF_DAY_ZERO) * SECONDS_PER_DAY + t.m_nMicros / MICROS_PER_SECOND);
}

int CBaseFunManager::Last_Day(CTalvorBufferPool* pPool, VARDATA& vDate, VARDATA& vResult)
{
    DayTime t;
    if (!DayTimeOfArg(pPool, vDate, t)) return SetNullResult(vResult);
    int y, m, d;
    talvordate::CivilFromDay(t.m_nDay, y, m, d);
    DayTime r = {talvordate::DayFromCivil(y, m, CTalvorDate::DaysInMonth(y, m)), 0};
    return SetDateOnly(vResult, talvordate::JoinDate(r));
}

int CBaseFunManager::MakeDate(CTalvorBufferPool* /*pPool*/, VARDATA& vYear, VARDATA& vDayOfYear, VARDATA& vResult)
{
    if (IsNullArg(vYear) || IsNullArg(vDayOfYear)) return SetNullResult(vResult);
    long long nYear = vYear.GetCompatibleBigInt();
    long long nDay = vDayOfYear.GetCompatibleBigInt();
    if (nDay < 1 || nYear < 0 || nYear > 9999) return SetNullResult(vResult);
    if (nYear < 100) nYear += nYear < PERIOD_PIVOT ? 2000 : 1900;
    DayTime t = {talvordate::DayFromCivil((int)nYear, 1, 1) + nDay - 1, 0};
    if (nDay > MICROS_PER_DAY || !talvordate::InRange(t)) return SetNullResult(vResult);
    return SetDateOnly(vResult, talvordate::JoinDate(t));
}

// --- Times --------------------------------------------------------------------------------------

int CBaseFunManager::MakeTime(CTalvorBufferPool* /*pPool*/, VARDATA& vHour, VARDATA& vMinute, VARDATA& vSecond,
                              VARDATA& vResult)
{
    if (IsNullArg(vHour) || IsNullArg(vMinute) || IsNullArg(vSecond)) return SetNullResult(vResult);
    long long h = vHour.GetCompatibleBigInt(), m = vMinute.GetCompatibleBigInt(), s = vSecond.GetCompatibleBigInt();
    if (m < 0 || m > 59 || s < 0 || s > 59 || h > MAX_TIME_SECONDS / 3600 || h < MIN_TIME_SECONDS / 3600)
        return SetNullResult(vResult);
    long long v = (h < 0 ? -h : h) * 3600 + m * 60 + s;
    return SetTimeSeconds(vResult, h < 0 ? -v : v);
}

int CBaseFunManager::Sec_To_Time(CTalvorBufferPool* /*pPool*/, VARDATA& vSeconds, VARDATA& vResult)
{
    if (IsNullArg(vSeconds)) return SetNullResult(vResult);
    return SetTimeSeconds(vResult, vSeconds.GetCompatibleBigInt());
}

int CBaseFunManager::Time_To_Sec(CTalvorBufferPool* pPool, VARDATA& vTime, VARDATA& vResult)
{
    TALVORTIME t;
    if (time(pPool, vTime, t) != 0) return SetNullResult(vResult);
    return SetBigInt(vResult, SecondsOfTime(t));
}

int CBaseFunManager::AddSubTime(CTalvorBufferPool* pPool, VARDATA& vA, VARDATA& vB, VARDATA& vResult, BOOL bAdd)
{
    long long llB;
    if (IsNullArg(vA) || !SecondsOfArg(pPool, vB, llB)) return SetNullResult(vResult);
    if (!bAdd) llB = -llB;
    long long llA;
    if (IsTimeArg(pPool, vA) && TimeSecondsOf(pPool, vA, llA)) return SetTimeSeconds(vResult, llA + llB);
    DayTime t;
    if (!DayTimeOfArg(pPool, vA, t) || !AddUnits(t, INTERVAL_SECOND, llB)) return SetNullResult(vResult);
    return SetDateTime(vResult, talvordate::JoinDate(t));
}

int CBaseFunManager::TimeDiff(CTalvorBufferPool* pPool, VARDATA& vA, VARDATA& vB, VARDATA& vResult)
{
    if (IsNullArg(vA) || IsNullArg(vB)) return SetNullResult(vResult);
    bool bTimeA = IsTimeArg(pPool, vA), bTimeB = IsTimeArg(pPool, vB);
    if (bTimeA != bTimeB) return SetNullResult(vResult);
    long long llA, llB;
    if (bTimeA) {
        if (!TimeSecondsOf(pPool, vA, llA) || !TimeSecondsOf(pPool, vB, llB)) return SetNullResult(vResult);
        return SetTimeSeconds(vResult, llA - llB);
    }
    DayTime a, b;
    if (!DayTimeOfArg(pPool, vA, a) || !DayTimeOfArg(pPool, vB, b)) return SetNullResult(vResult);
    // Whole seconds, cut towards zero.
    return SetTimeSeconds(vResult, MicrosBetween(b, a) / MICROS_PER_SECOND);
}

int CBaseFunManager::TalvorTimeStamp(CTalvorBufferPool* pPool, VARDATA& vDate, VARDATA& vResult)
{
    return ConvertToDateTime(pPool, vDate, vResult);
}

int CBaseFunManager::TalvorTimeStamp(CTalvorBufferPool* pPool, VARDATA& vDate, VARDATA& vTime, VARDATA& vResult)
{
    DayTime t;
    long long llSeconds;
    if (IsNullArg(vTime) || !DayTimeOfArg(pPool, vDate, t) || !SecondsOfArg(pPool, vTime, llSeconds))
        return SetNullResult(vResult);
    if (!AddUnits(t, INTERVAL_SECOND, llSeconds)) return SetNullResult(vResult);
    return SetDateTime(vResult, talvordate::JoinDate(t));
}

// --- Intervals ----------------------------------------------------------------------------------

int CBaseFunManager::AddSubDate(CTalvorBufferPool* pPool, VARDATA& vDate, VARDATA& vInterval, VARDATA& vResult,
                                BOOL bAdd)
{
    if (IsNullArg(vDate) || IsNullArg(vInterval)) return SetNullResult(vResult);
    bool bInterval = IsTextArg(vInterval) && vInterval.m_lpszValue != nullptr && vInterval.m_nStrLen > 0 &&
                     (BYTE)vInterval.m_lpszValue[0] == INTERVAL_MARK;
    if (!bInterval) return AddDays(pPool, vDate, vInterval, vResult, bAdd);
    // The date library reads an interval up to its NUL: one within the
    // value's own length, so a text from outside is never read past its end.
    VARDATA vBounded = vInterval;
    vBounded.m_lpszValue = (char*)TextOf(pPool, vInterval, MAX_INTERVAL_TEXT);
    if (vBounded.m_lpszValue == nullptr) return SetNullResult(vResult);
    return AddInterval(pPool, vDate, vBounded, vResult, bAdd);
}

int CBaseFunManager::TimeStampAdd(CTalvorBufferPool* pPool, int nUnit, VARDATA& vAmount, VARDATA& vDate,
                                  VARDATA& vResult)
{
    int nType = UnitOf(nUnit);
    if (nType == 0 || nType > INTERVAL_YEAR) {
        SetNullResult(vResult);
        return TALVOR_DATE_BAD_INTERVAL;
    }
    DayTime t;
    if (IsNullArg(vAmount) || !DayTimeOfArg(pPool, vDate, t)) return SetNullResult(vResult);
    if (!AddUnits(t, nType, vAmount.GetCompatibleBigInt())) return SetNullResult(vResult);
    return SetArithResult(pPool, vDate, t, nType < INTERVAL_DAY, vResult);
}

int CBaseFunManager::TimeStampDiff(CTalvorBufferPool* pPool, int nUnit, VARDATA& vA, VARDATA& vB, VARDATA& vResult)
{
    int nType = UnitOf(nUnit);
    if (nType == 0 || nType > INTERVAL_YEAR) {
        SetNullResult(vResult);
        return TALVOR_DATE_BAD_INTERVAL;
    }
    DayTime a, b;
    if (!DayTimeOfArg(pPool, vA, a) || !DayTimeOfArg(pPool, vB, b)) return SetNullResult(vResult);
    int nMonths = MonthsOfUnit(nType);
    if (nMonths == 0) return SetBigInt(vResult, MicrosBetween(a, b) / MicrosOfUnit(nType));
    bool bBackwards = MicrosBetween(a, b) < 0;
    long long n = bBackwards ? WholeMonths(b, a) : WholeMonths(a, b);
    n /= nMonths;
    return SetBigInt(vResult, bBackwards ? -n : n);
}

int CBaseFunManager::Interval2(CTalvorBufferPool* pPool, VARDATA& vAmount, int nUnit, VARDATA& vResult)
{
    int nType = UnitOf(nUnit);
    if (nType == 0) {
        SetNullResult(vResult);
        return TALVOR_DATE_BAD_INTERVAL;
    }
    if (IsNullArg(vAmount)) return SetNullResult(vResult);
    char sz[3 + MAX_AMOUNT_TEXT + 1];
    sz[0] = (char)INTERVAL_MARK;
    sz[1] = (char)nType;
    int nLen;
    if (IsTextArg(vAmount)) {
        if (vAmount.m_lpszValue == nullptr || vAmount.m_nStrLen > MAX_AMOUNT_TEXT) return SetNullResult(vResult);
        sz[2] = (char)TALVOR_VT_TEXT;
        memcpy(sz + 3, vAmount.m_lpszValue, (size_t)vAmount.m_nStrLen);
        nLen = vAmount.m_nStrLen;
    } else {
        VARDATA n;
        vAmount.GetCompatibleNumberValue(n);
        if (IsNullArg(n)) return SetNullResult(vResult);
        sz[2] = (char)n.m_vt;
        if (n.m_vt == TALVOR_VT_DOUBLE)
            nLen = snprintf(sz + 3, MAX_AMOUNT_TEXT, "%.6f", n.m_dblValue);
        else
            nLen = ConvertVarData2String(n, nullptr) <= MAX_AMOUNT_TEXT ? ConvertVarData2String(n, sz + 3) : -1;
        if (nLen < 0 || nLen >= MAX_AMOUNT_TEXT) return SetNullResult(vResult);
    }
    return SetText(pPool, vResult, sz, nLen + 3);
}

int CBaseFunManager::TalvorInterval(CTalvorBufferPool* /*pPool*/, int nCount, st_VARDATA* pArgs, VARDATA& vResult)
{
    if (nCount < 1 || pArgs == nullptr) {
        SetNullResult(vResult);
        return TALVOR_FUN_BAD_TYPE;
    }
    if (IsNullArg(pArgs[0])) return SetBigInt(vResult, -1);
    double dN = pArgs[0].GetCompatibleDouble();
    long long n = 0;
    for (int i = 1; i < nCount; ++i) {
        if (!IsNullArg(pArgs[i]) && dN < pArgs[i].GetCompatibleDouble()) break;
        ++n;
    }
    return SetBigInt(vResult, n);
}

// --- Periods and weeks --------------------------------------------------------------------------

int CBaseFunManager::Period_Diff(CTalvorBufferPool* /*pPool*/, VARDATA& vA, VARDATA& vB, VARDATA& vResult)
{
    long long a, b;
    if (IsNullArg(vA) || IsNullArg(vB) || !MonthsOfPeriod(vA, a) || !MonthsOfPeriod(vB, b))
        return SetNullResult(vResult);
    return SetBigInt(vResult, a - b);
}

int CBaseFunManager::PeriodAdd(CTalvorBufferPool* /*pPool*/, VARDATA& vPeriod, VARDATA& vMonths, VARDATA& vResult)
{
    long long p;
    if (IsNullArg(vPeriod) || IsNullArg(vMonths) || !MonthsOfPeriod(vPeriod, p)) return SetNullResult(vResult);
    if (vPeriod.GetCompatibleBigInt() == 0) return SetBigInt(vResult, 0);
    long long m = p + vMonths.GetCompatibleBigInt();
    if (m <= 0) return SetBigInt(vResult, 0);
    long long nYear = m / 12;
    if (nYear < 100) nYear += nYear < PERIOD_PIVOT ? 2000 : 1900;
    return SetBigInt(vResult, nYear * 100 + m % 12 + 1);
}

int CBaseFunManager::YearWeek(CTalvorBufferPool* pPool, VARDATA& vDate, VARDATA& vResult)
{
    VARDATA vMode;
    SetBigInt(vMode, 0);
    return YearWeek(pPool, vDate, vMode, vResult);
}

int CBaseFunManager::YearWeek(CTalvorBufferPool* pPool, VARDATA& vDate, VARDATA& vMode, VARDATA& vResult)
{
    // The week always belongs to a year of its own here: the mode's bit of
    // weeks counted across the year's edge is set, whatever the mode says.
    const int MODE_YEAR_RANGE = 2, MODE_MASK = 7;
    DATE d;
    TALVORDATEPARTS s;
    if (IsNullArg(vMode) || date(pPool, vDate, d) != 0 || CTalvorDate::ConvertDateTime(d, s) != 0)
        return SetNullResult(vResult);
    int nMode = (int)(vMode.GetCompatibleBigInt() & MODE_MASK) | MODE_YEAR_RANGE;
    int nYear = 0;
    int nWeek = CTalvorDate::CalcWeek(s, nMode, nYear);
    return SetBigInt(vResult, (long long)nYear * 100 + nWeek);
}
