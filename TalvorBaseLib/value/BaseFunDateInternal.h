// BaseFunDateInternal.h — what the math and date members of CBaseFunManager
// share: setting a result whole, telling a NULL argument, and the units and
// stored forms of dates and times. Not for use outside BaseFunMath.cpp and
// BaseFunDate*.cpp.
//
// Every function works on its arguments alone and may run on any thread.
#pragma once

#include "BaseFunManager.h"
#include "TalvorDate.h"

#include <cstring>

namespace basefun {

const long long SECONDS_PER_DAY = 86400;
const long long MICROS_PER_SECOND = 1000000;
// TO_DAYS of day number 0 (1899-12-30): 0001-01-01 is day 366 of year 0.
const long long TO_DAYS_OF_DAY_ZERO = 693959;
// Longest time of a stored time: its days are a signed byte.
const long long MAX_TIME_SECONDS = 128 * SECONDS_PER_DAY - 1;
const long long MIN_TIME_SECONDS = -128 * SECONDS_PER_DAY;

// The whole value set to one type, every other byte of the union zero.
inline void Reset(VARDATA& v, BYTE bType)
{
    memset(&v.m_bSign, 0, sizeof(VARDATA) - 4 - sizeof(int));
    v.m_vt = bType;
}

inline int SetNullResult(VARDATA& v)
{
    Reset(v, TALVOR_VT_NULL);
    return 0;
}

inline int SetBigInt(VARDATA& v, long long llValue)
{
    Reset(v, TALVOR_VT_BIGINT);
    v.m_llValue = llValue;
    return 0;
}

// A double, or NULL when it is not finite.
int SetDouble(VARDATA& v, double dValue);
// A date and time (4), or NULL when it leaves years 1 to 9999.
int SetDateTime(VARDATA& v, DATE date);
// The date of a day number as a stored date (12), or NULL.
int SetDateOnly(VARDATA& v, DATE date);
// Signed seconds as a stored time (11), or NULL past a signed byte of days.
int SetTimeSeconds(VARDATA& v, long long llSeconds);
// nLen bytes copied into the pool as text (7). Result: 0, or 3 (v NULL).
int SetText(CTalvorBufferPool* pPool, VARDATA& v, const char* lpszText, int nLen);

// NULL, and the markers that pass through as NULL does.
inline bool IsNullArg(const VARDATA& v)
{
    return v.m_vt == TALVOR_VT_NULL || v.m_vt == TALVOR_VT_MARK_UNKNOWN || v.m_vt == TALVOR_VT_MARK_TRUE ||
           v.m_vt == TALVOR_VT_EMPTY;
}

inline bool IsTextArg(const VARDATA& v)
{
    return v.m_vt == TALVOR_VT_FIXTEXT || v.m_vt == TALVOR_VT_VARTEXT || v.m_vt == TALVOR_VT_TEXT ||
           v.m_vt == TALVOR_VT_PREFIXTEXT || v.m_vt == TALVOR_VT_BINARY;
}

// Text of a text value, NUL-terminated in the pool when it is not already,
// at most nMax bytes; null for another type or no memory.
const char* TextOf(CTalvorBufferPool* pPool, const VARDATA& v, int nMax);

// A unit given as an INTERVAL_TYPE (1 to 21) or as the keyword id of its
// name. Result: the INTERVAL_TYPE, 0 for neither.
int UnitOf(int nUnit);

// Signed seconds of a stored time.
inline long long SecondsOfTime(const TALVORTIME& t)
{
    return (long long)t.m_nDay * SECONDS_PER_DAY + t.m_bHour * 3600LL + t.m_bMintue * 60LL + t.m_bSecond;
}

// Result: whether v is a time (11) or text that reads as one and not as a
// date; llSeconds receives its signed seconds.
bool TimeSecondsOf(CTalvorBufferPool* pPool, const VARDATA& v, long long& llSeconds);

}  // namespace basefun
