// TalvorDateInterval.cpp — interval values and date arithmetic by them,
// stored dates and times with intervals, times from text, the clock and
// zone conversion.

#include "TalvorDateInternal.h"
#include "TalvorDecimal.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <sys/time.h>

using namespace talvordate;

// --- Intervals ----------------------------------------------------------------------------

namespace {

enum IntervalField { FIELD_YEAR, FIELD_MONTH, FIELD_DAY, FIELD_HOUR, FIELD_MINUTE, FIELD_SECOND, FIELD_MICRO };
const int INTERVAL_HEAD = 3;
const BYTE INTERVAL_MARK = 1;
const int MAX_COMPOUND_NUMBERS = 5;
const int MICRO_DIGITS = 6;

// First and last field of each compound type, in the order of the text.
struct CompoundShape {
    int m_nFirst;
    int m_nLast;
};
const CompoundShape g_arCompound[] = {
    {FIELD_SECOND, FIELD_MICRO}, {FIELD_MINUTE, FIELD_MICRO}, {FIELD_MINUTE, FIELD_SECOND},
    {FIELD_HOUR, FIELD_MICRO}, {FIELD_HOUR, FIELD_SECOND}, {FIELD_HOUR, FIELD_MINUTE}, {FIELD_DAY, FIELD_MICRO},
    {FIELD_DAY, FIELD_SECOND}, {FIELD_DAY, FIELD_MINUTE}, {FIELD_DAY, FIELD_HOUR}, {FIELD_YEAR, FIELD_MONTH}};

// A single amount: integers as they are, fractions rounded half away from zero.
bool SingleAmount(BYTE bValueType, const char* lpszValue, long long& llAmount)
{
    const BYTE VALUE_INT = 1, VALUE_BIGINT = 2, VALUE_DOUBLE = 3;
    st_VARDATA v;
    memset(&v, 0, sizeof(v));
    if (bValueType == VALUE_DOUBLE) {
        char* pEnd = nullptr;
        double d = strtod(lpszValue, &pEnd);
        if (pEnd == lpszValue || !std::isfinite(d) || std::fabs(d) > 9.2e18) return false;
        llAmount = std::llround(d);
        return true;
    }
    if (CTalvorDecimal::Convert2Decimal(lpszValue, &v) != 0 || v.m_vt != TALVOR_VT_DECIMAL) return false;
    if ((bValueType == VALUE_INT || bValueType == VALUE_BIGINT) && v.m_bScale > 0) return false;
    llAmount = CTalvorDecimal::Convert2Int64(&v, TRUE);
    return true;
}

// Numbers of a compound text; the digits after a point count as a fraction.
bool CompoundAmounts(const char* p, const CompoundShape& shape, long long* arFields)
{
    long long arNumbers[MAX_COMPOUND_NUMBERS];
    int arDigits[MAX_COMPOUND_NUMBERS];
    int nCount = 0;
    bool bNegative = false;
    while (*p == ' ') ++p;
    if (*p == '-') {
        bNegative = true;
        ++p;
    }
    while (*p) {
        if (*p < '0' || *p > '9') {
            ++p;
            continue;
        }
        if (nCount == MAX_COMPOUND_NUMBERS) return false;
        long long v = 0;
        int nDigits = 0;
        for (; *p >= '0' && *p <= '9'; ++p, ++nDigits) {
            if (v > 99999999999LL) return false;
            v = v * 10 + (*p - '0');
        }
        arNumbers[nCount] = v;
        arDigits[nCount++] = nDigits;
    }
    int nFields = shape.m_nLast - shape.m_nFirst + 1;
    if (nCount == 0 || nCount > nFields) return false;
    // Given fewer numbers, the last fields are the ones set.
    int nField = shape.m_nLast - nCount + 1;
    for (int i = 0; i < nCount; ++i, ++nField) {
        long long v = arNumbers[i];
        if (nField == FIELD_MICRO) {
            if (arDigits[i] > MICRO_DIGITS) return false;
            for (int k = arDigits[i]; k < MICRO_DIGITS; ++k) v *= 10;
        }
        arFields[nField] = bNegative ? -v : v;
    }
    return true;
}

int AddIntervalFields(DayTime& t, const long long* arFields)
{
    const long long MAX_MONTHS = 12LL * MAX_YEAR, MAX_DAYS = MAX_DAY - MIN_DAY;
    long long nMonths = arFields[FIELD_YEAR] * 12 + arFields[FIELD_MONTH];
    if (nMonths > MAX_MONTHS || nMonths < -MAX_MONTHS) return TALVOR_DATE_INVALID_DATA;
    if (nMonths != 0 && MonthsBetweenAdd(t, (int)nMonths, t) != 0) return TALVOR_DATE_INVALID_DATA;
    // Past these bounds any amount leaves the range; within them the sum of
    // microseconds cannot wrap.
    const long long arLimit[TALVOR_INTERVAL_FIELDS] = {0, 0, MAX_DAYS, MAX_DAYS * 24, MAX_DAYS * 1440,
                                                       MAX_DAYS * 86400, MAX_DAYS * MICROS_PER_DAY};
    for (int i = FIELD_DAY; i <= FIELD_MICRO; ++i)
        if (llabs(arFields[i]) > arLimit[i]) return TALVOR_DATE_INVALID_DATA;
    t.m_nDay += arFields[FIELD_DAY];
    long long nHours = arFields[FIELD_HOUR], nMinutes = arFields[FIELD_MINUTE], nSeconds = arFields[FIELD_SECOND];
    t.m_nMicros += nHours * MICROS_PER_HOUR + nMinutes * MICROS_PER_MINUTE + nSeconds * MICROS_PER_SECOND +
                   arFields[FIELD_MICRO];
    Normalize(t);
    return InRange(t) ? 0 : TALVOR_DATE_INVALID_DATA;
}

void SetDateResult(VARDATA& v, DATE date)
{
    memset(&v.m_bSign, 0, sizeof(VARDATA) - 4 - sizeof(int));
    v.m_vt = TALVOR_VT_DATETIME;
    v.m_dblValue = date;
}

void SetNullResult(VARDATA& v)
{
    memset(&v.m_bSign, 0, sizeof(VARDATA) - 4 - sizeof(int));
    v.m_vt = TALVOR_VT_NULL;
}

}  // namespace

int CTalvorDate::ParseIntervalString(const char* lpszInterval, long long* arFields, INTERVAL_TYPE& eType)
{
    for (int i = 0; i < TALVOR_INTERVAL_FIELDS; ++i) arFields[i] = 0;
    if (lpszInterval == nullptr || (BYTE)lpszInterval[0] != INTERVAL_MARK) return TALVOR_DATE_BAD_INTERVAL;
    int nType = (BYTE)lpszInterval[1];
    if (nType < INTERVAL_MICROSECOND || nType > INTERVAL_YEAR_MONTH || lpszInterval[2] == 0)
        return TALVOR_DATE_BAD_INTERVAL;
    eType = (INTERVAL_TYPE)nType;
    const char* lpszValue = lpszInterval + INTERVAL_HEAD;
    if (nType >= INTERVAL_SECOND_MICROSECOND)
        return CompoundAmounts(lpszValue, g_arCompound[nType - INTERVAL_SECOND_MICROSECOND], arFields)
                   ? 0
                   : TALVOR_DATE_BAD_PARAMETER;
    long long llAmount;
    if (!SingleAmount((BYTE)lpszInterval[2], lpszValue, llAmount)) return TALVOR_DATE_BAD_PARAMETER;
    const long long MILLI = 1000, DAYS_PER_WEEK = 7, MONTHS_PER_QUARTER = 3;
    const long long LIMIT = 1LL << 50;
    if (llAmount > LIMIT || llAmount < -LIMIT) return TALVOR_DATE_BAD_PARAMETER;
    switch (nType) {
    case INTERVAL_MICROSECOND: arFields[FIELD_MICRO] = llAmount; break;
    case INTERVAL_FRAC_SECOND: arFields[FIELD_MICRO] = llAmount * MILLI; break;
    case INTERVAL_SECOND: arFields[FIELD_SECOND] = llAmount; break;
    case INTERVAL_MINUTE: arFields[FIELD_MINUTE] = llAmount; break;
    case INTERVAL_HOUR: arFields[FIELD_HOUR] = llAmount; break;
    case INTERVAL_DAY: arFields[FIELD_DAY] = llAmount; break;
    case INTERVAL_WEEK: arFields[FIELD_DAY] = llAmount * DAYS_PER_WEEK; break;
    case INTERVAL_MONTH: arFields[FIELD_MONTH] = llAmount; break;
    case INTERVAL_QUARTER: arFields[FIELD_MONTH] = llAmount * MONTHS_PER_QUARTER; break;
    default: arFields[FIELD_YEAR] = llAmount; break;
    }
    return 0;
}

int CTalvorDate::DateAddSubInterval(CTalvorBufferPool* /*pPool*/, DATE date, const VARDATA& vInterval,
                                    VARDATA& vResult, BOOL bAdd)
{
    long long arFields[TALVOR_INTERVAL_FIELDS];
    INTERVAL_TYPE eType;
    int nResult = ParseIntervalString(vInterval.m_lpszValue, arFields, eType);
    if (nResult != 0) return nResult;
    if (!bAdd)
        for (long long& f : arFields) f = -f;
    DayTime t;
    if (!SplitDate(date, t) || AddIntervalFields(t, arFields) != 0) {
        SetNullResult(vResult);
        return TALVOR_DATE_INVALID_DATA;
    }
    SetDateResult(vResult, JoinDate(t));
    return 0;
}

int CTalvorDate::ParseTime(TALVORTIME& stTime, const char* lpszText, int nLen)
{
    const int MAX_NUMBERS = 4, MAX_TIME_DIGITS = 9;
    const char* p = lpszText;
    const char* pEnd = lpszText + nLen;
    while (p < pEnd && *p == ' ') ++p;
    while (pEnd > p && pEnd[-1] == ' ') --pEnd;
    bool bNegative = p < pEnd && *p == '-';
    if (bNegative) ++p;
    long long arNumbers[MAX_NUMBERS] = {0};
    int nCount = 0;
    bool bDays = false;
    while (p < pEnd) {
        int nDigits = 0;
        long long v = 0;
        for (; p < pEnd && *p >= '0' && *p <= '9'; ++p) {
            if (++nDigits > MAX_TIME_DIGITS) return TALVOR_DATE_BAD_FORMAT;
            v = v * 10 + (*p - '0');
        }
        if (nDigits == 0 || nCount == MAX_NUMBERS) return TALVOR_DATE_BAD_FORMAT;
        arNumbers[nCount++] = v;
        if (p == pEnd) break;
        if (*p == ' ' && nCount == 1 && !bDays) bDays = true;
        else if (*p != ':') return TALVOR_DATE_BAD_FORMAT;
        ++p;
        if (p == pEnd) return TALVOR_DATE_BAD_FORMAT;
    }
    int nFirst = bDays ? 1 : 0;
    if (nCount == 0 || nCount - nFirst > 3 || nCount - nFirst < 1) return TALVOR_DATE_BAD_FORMAT;
    long long nDays = bDays ? arNumbers[0] : 0;
    long long nHour = arNumbers[nFirst];
    long long nMinute = nCount - nFirst > 1 ? arNumbers[nFirst + 1] : 0;
    long long nSecond = nCount - nFirst > 2 ? arNumbers[nFirst + 2] : 0;
    if (nMinute > 59 || nSecond > 59) return TALVOR_DATE_INVALID_DATA;
    long long nTotal = ((nDays * 24 + nHour) * 60 + nMinute) * 60 + nSecond;
    if (bNegative) nTotal = -nTotal;
    const long long SECONDS_PER_DAY = 86400;
    long long nDay = FloorDiv(nTotal, SECONDS_PER_DAY);
    if (nDay < -128 || nDay > 127) return TALVOR_DATE_INVALID_DATA;
    long long nRest = nTotal - nDay * SECONDS_PER_DAY;
    stTime.m_nDay = (signed char)nDay;
    stTime.m_bHour = (BYTE)(nRest / 3600);
    stTime.m_bMintue = (BYTE)(nRest / 60 % 60);
    stTime.m_bSecond = (BYTE)(nRest % 60);
    return 0;
}

DATE CTalvorDate::GetCurrentDateTime()
{
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    long long nMicros = (long long)tv.tv_sec * MICROS_PER_SECOND + tv.tv_usec +
                        std::llround(DbTimeZoneValue() * MICROS_PER_HOUR);
    DayTime t = {TALVOR_DATE_UNIX_EPOCH, nMicros};
    Normalize(t);
    return JoinDate(t);
}

int CTalvorDate::GetCentury()
{
    TALVORDATEPARTS s;
    if (ConvertDateTime(GetCurrentDateTime(), s) != 0) return 0;
    return (s.m_nYear - 1) / 100;
}

int CTalvorDate::ConvertTZ(CTalvorBufferPool* /*pPool*/, DATE date, const char* lpszFrom, const char* lpszTo,
                           VARDATA& vResult)
{
    double dFrom, dTo;
    DayTime t;
    if (TZToValue(lpszFrom, dFrom) != 0 || TZToValue(lpszTo, dTo) != 0 || !SplitDate(date, t)) {
        SetNullResult(vResult);
        return 0;
    }
    // Offsets are whole minutes; moving by them in the double would leave
    // a second one microsecond short.
    const double MINUTES_PER_DAY = 1440.0;
    t.m_nMicros += std::llround((dTo - dFrom) * MINUTES_PER_DAY) * MICROS_PER_MINUTE;
    Normalize(t);
    SetDateResult(vResult, JoinDate(t));
    return 0;
}

// --- Stored dates and times with intervals ----------------------------------------------------------

namespace {

bool HasTimePart(INTERVAL_TYPE eType)
{
    return eType <= INTERVAL_HOUR || (eType >= INTERVAL_SECOND_MICROSECOND && eType <= INTERVAL_DAY_HOUR);
}

bool HasDatePart(INTERVAL_TYPE eType)
{
    return (eType >= INTERVAL_DAY && eType <= INTERVAL_YEAR) || eType >= INTERVAL_DAY_MICROSECOND;
}

int AddInterval(DayTime& t, const VARDATA& vInterval, BOOL bAdd, INTERVAL_TYPE& eType)
{
    long long arFields[TALVOR_INTERVAL_FIELDS];
    int nResult = CTalvorDate::ParseIntervalString(vInterval.m_lpszValue, arFields, eType);
    if (nResult != 0) return nResult;
    if (!bAdd)
        for (long long& f : arFields) f = -f;
    return AddIntervalFields(t, arFields);
}

}  // namespace

int CTalvorDate::DateAddSubInterval(CTalvorBufferPool* /*pPool*/, const TALVORDATE& stDate, const VARDATA& vInterval,
                                    VARDATA& vResult, BOOL bAdd)
{
    TALVORDATEPARTS s = {stDate.m_sYear, stDate.m_bMonth, stDate.m_bDay, 0, 0, 0, 0, 0, 0};
    DayTime t;
    if (!DayTimeOf(s, t)) return TALVOR_DATE_INVALID_DATA;
    INTERVAL_TYPE eType = INTERVAL_DAY;
    int nResult = AddInterval(t, vInterval, bAdd, eType);
    if (nResult == TALVOR_DATE_BAD_INTERVAL || nResult == TALVOR_DATE_BAD_PARAMETER) return nResult;
    if (nResult != 0) {
        SetNullResult(vResult);
        return nResult;
    }
    if (HasTimePart(eType)) {
        SetDateResult(vResult, JoinDate(t));
        return 0;
    }
    TALVORDATEPARTS r;
    PartsOf(t, r);
    memset(&vResult.m_bSign, 0, sizeof(VARDATA) - 4 - sizeof(int));
    vResult.m_vt = TALVOR_VT_DATE;
    vResult.m_stDate.m_bDay = (BYTE)r.m_nDay;
    vResult.m_stDate.m_bMonth = (BYTE)r.m_nMonth;
    vResult.m_stDate.m_sYear = (USHORT)r.m_nYear;
    return 0;
}

int CTalvorDate::DateAddSubInterval(CTalvorBufferPool* /*pPool*/, const TALVORTIME& stTime, const VARDATA& vInterval,
                                    VARDATA& vResult, BOOL bAdd)
{
    DayTime t = {stTime.m_nDay, stTime.m_bHour * MICROS_PER_HOUR + stTime.m_bMintue * MICROS_PER_MINUTE +
                                    stTime.m_bSecond * MICROS_PER_SECOND};
    INTERVAL_TYPE eType = INTERVAL_SECOND;
    int nResult = AddInterval(t, vInterval, bAdd, eType);
    if (nResult == TALVOR_DATE_BAD_INTERVAL || nResult == TALVOR_DATE_BAD_PARAMETER) return nResult;
    const long long MIN_TIME_DAY = -128, MAX_TIME_DAY = 127;
    bool bAsTime = !HasDatePart(eType);
    if (nResult != 0 || (bAsTime && (t.m_nDay < MIN_TIME_DAY || t.m_nDay > MAX_TIME_DAY))) {
        SetNullResult(vResult);
        return TALVOR_DATE_INVALID_DATA;
    }
    if (!bAsTime) {
        SetDateResult(vResult, JoinDate(t));
        return 0;
    }
    memset(&vResult.m_bSign, 0, sizeof(VARDATA) - 4 - sizeof(int));
    vResult.m_vt = TALVOR_VT_TIME;
    vResult.m_stTime.m_nDay = (signed char)t.m_nDay;
    vResult.m_stTime.m_bHour = (BYTE)(t.m_nMicros / MICROS_PER_HOUR);
    vResult.m_stTime.m_bMintue = (BYTE)(t.m_nMicros / MICROS_PER_MINUTE % 60);
    vResult.m_stTime.m_bSecond = (BYTE)(t.m_nMicros / MICROS_PER_SECOND % 60);
    return 0;
}

