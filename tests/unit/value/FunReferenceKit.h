// FunReferenceKit.h — what the math and date function tests share: typed
// arguments, the text a result shows as, and one batch of expressions held
// against the reference server, which is started once per test binary.
#pragma once

#include "BaseFunManager.h"
#include "FunReference.h"
#include "MariaDbReference.h"
#include "PackedValue.h"
#include "TalvorDate.h"
#include "TalvorDecimal.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace funkit {

using talvortest::MariaDbReference;
using talvortest::SqlAnswer;

// The library reads the machine's zone, the server session is UTC: both
// must mean the same hours, set before the library caches its first reading.
inline void UseUtc()
{
    setenv("TZ", "UTC", 1);
    tzset();
}

// Before any test runs, so no reading is cached in another zone.
inline const bool g_bUseUtc = (UseUtc(), true);

// The server for every test of this binary (the kit's, started once); null
// (and a failure) when it did not start.
inline MariaDbReference* Server()
{
    MariaDbReference& db = talvortest::SharedMariaDb();
    if (db.Started()) return &db;
    ADD_FAILURE() << "reference server: " << db.Error();
    return nullptr;
}

inline VARDATA Null()
{
    VARDATA v;
    memset(&v, 0, sizeof(v));
    v.m_vt = TALVOR_VT_NULL;
    return v;
}

inline VARDATA Int(long long n)
{
    VARDATA v = Null();
    v.m_vt = TALVOR_VT_BIGINT;
    v.m_llValue = n;
    return v;
}

inline VARDATA Dbl(double d)
{
    VARDATA v = Null();
    v.m_vt = TALVOR_VT_DOUBLE;
    v.m_dblValue = d;
    return v;
}

inline VARDATA Dec(const char* lpszText)
{
    VARDATA v = Null();
    CTalvorDecimal::Convert2Decimal(lpszText, &v);
    return v;
}

// Text of the pool (type 7); the pool keeps the bytes alive.
inline VARDATA Text(CTalvorBufferPool& pool, const std::string& str)
{
    VARDATA v = Null();
    char* p = (char*)pool.AllocBuffer((UINT)str.size() + 1);
    memcpy(p, str.data(), str.size());
    p[str.size()] = 0;
    v.m_vt = TALVOR_VT_TEXT;
    v.m_lpszValue = p;
    v.m_nStrLen = (int)str.size();
    return v;
}

// A date and time (4) from "YYYY-MM-DD hh:mm:ss".
inline VARDATA DateTime(CTalvorBufferPool& pool, const std::string& str)
{
    VARDATA v = Null();
    VARDATA t = Text(pool, str);
    DATE d;
    if (CBaseFunManager::date(&pool, t, d) != 0) return v;
    v.m_vt = TALVOR_VT_DATETIME;
    v.m_dblValue = d;
    return v;
}

// A stored date (12) from "YYYY-MM-DD", and a stored time (11) from
// "[-]h:mm:ss"; NULL for text that is neither.
inline VARDATA StoredDate(CTalvorBufferPool& pool, const std::string& str)
{
    VARDATA v = Null(), t = Text(pool, str);
    return CBaseFunManager::Date(&pool, t, v) == 0 ? v : Null();
}

inline VARDATA StoredTime(CTalvorBufferPool& pool, const std::string& str)
{
    VARDATA v = Null(), t = Text(pool, str);
    return CBaseFunManager::Time(&pool, t, v) == 0 ? v : Null();
}

// What a result shows as, the way the server's client shows it: dates by
// their fixed forms, integers in decimal, text as its bytes.
inline std::string Show(const VARDATA& v)
{
    char sz[64];
    switch (v.m_vt) {
    case TALVOR_VT_NULL: return "NULL";
    case TALVOR_VT_DATETIME: {
        // A fraction shows when there is one, as the server shows a result
        // that took microseconds.
        TALVORDATEPARTS s;
        double d = v.m_dblValue;
        bool bFraction = CTalvorDate::ConvertDateTime(d, s) == 0 && s.m_nMicrosecond != 0;
        CTalvorDate::FormatDateTime(d, sz, bFraction ? 6 : 0);
        return sz;
    }
    case TALVOR_VT_DATE: {
        TALVORDATE d = v.m_stDate;
        CTalvorDate::FormatDate(d, sz);
        return sz;
    }
    case TALVOR_VT_TIME: {
        TALVORTIME t = v.m_stTime;
        CTalvorDate::FormatTime(t, sz);
        return sz;
    }
    case TALVOR_VT_BIGINT: return std::to_string(talvortest::Val(v.m_llValue));
    case TALVOR_VT_DOUBLE: snprintf(sz, sizeof(sz), "%.17g", talvortest::Val(v.m_dblValue)); return sz;
    case TALVOR_VT_DECIMAL: {
        CTalvorDecimal::PrintDecimal(&v, sz);
        return sz;
    }
    case TALVOR_VT_TEXT:
    case TALVOR_VT_VARTEXT: return std::string(v.m_lpszValue, (size_t)v.m_nStrLen);
    default: return "type " + std::to_string(v.m_vt);
    }
}

// How a result is held against the server's text.
enum CompareKind { SAME_TEXT, SAME_NUMBER };

struct Case {
    std::string m_strSql;  // the expression the server evaluates
    VARDATA m_vOurs;       // our result
    int m_nResult;         // our return code
    CompareKind m_eKind;
};

// Close enough for doubles computed by two libm paths: 1e-12 relative.
inline bool SameNumber(const std::string& a, const std::string& b)
{
    char* pa = nullptr;
    char* pb = nullptr;
    long double x = strtold(a.c_str(), &pa), y = strtold(b.c_str(), &pb);
    if (*pa != 0 || *pb != 0 || a.empty() || b.empty()) return a == b;
    long double scale = std::fabs(x) > std::fabs(y) ? std::fabs(x) : std::fabs(y);
    return std::fabs(x - y) <= 1e-12L * (scale > 1 ? scale : 1);
}

// Every case against the server in one session: the same NULL-ness, and the
// same text or number. Our return code must be 0 unless the server refused
// the expression too.
inline void CompareWithServer(const std::vector<Case>& vCases)
{
    MariaDbReference* pServer = Server();
    ASSERT_NE(pServer, nullptr);
    std::vector<std::string> vSql;
    for (const Case& c : vCases) vSql.push_back(c.m_strSql);
    std::vector<SqlAnswer> vAnswers;
    ASSERT_TRUE(pServer->Eval(vSql, vAnswers));
    ASSERT_EQ(vAnswers.size(), vCases.size());
    for (size_t i = 0; i < vCases.size(); ++i) {
        const Case& c = vCases[i];
        const SqlAnswer& a = vAnswers[i];
        std::string strOurs = Show(c.m_vOurs);
        if (a.bError) {
            EXPECT_TRUE(c.m_nResult != 0 || c.m_vOurs.m_vt == TALVOR_VT_NULL) << c.m_strSql << " ours " << strOurs;
            continue;
        }
        EXPECT_EQ(c.m_nResult, 0) << c.m_strSql;
        std::string strRef = a.bNull ? "NULL" : a.strText;
        // The server goes on into year 0; here dates end at 0001-01-01.
        if (strOurs == "NULL" && strRef.compare(0, 5, "0000-") == 0) continue;
        if (c.m_eKind == SAME_NUMBER)
            EXPECT_TRUE(SameNumber(strOurs, strRef)) << c.m_strSql << " ours " << strOurs << " ref " << strRef;
        else
            EXPECT_EQ(strOurs, strRef) << c.m_strSql;
    }
}

// ---- Generated arguments of the date tests.

typedef std::function<int(CTalvorBufferPool*, VARDATA*, VARDATA&)> Fn;

inline Case Call(CTalvorBufferPool& pool, const std::string& strSql, const Fn& fn, std::vector<VARDATA> vArgs)
{
    Case c{strSql, Null(), 0, SAME_TEXT};
    c.m_nResult = fn(&pool, vArgs.data(), c.m_vOurs);
    return c;
}

inline std::string Quote(const std::string& s) { return "'" + s + "'"; }

inline std::string Two(int n)
{
    char sz[8];
    snprintf(sz, sizeof(sz), "%02d", n);
    return sz;
}

// Dates and times of years 1 to 9999, thick around leap days, year ends
// and the present; every fourth without a time of day.
inline std::vector<std::string> Dates(int nCount, unsigned nSeed)
{
    std::vector<std::string> v = {"2000-02-29 12:00:00", "1900-02-28 23:59:59", "2100-03-01 00:00:00",
                                  "1999-12-31 23:59:59", "2021-01-01 00:00:00", "2020-12-31",
                                  "2024-01-07",          "2018-12-31 00:00:01", "0001-01-01 00:00:00",
                                  "9999-12-31 23:59:59", "1970-01-01 00:00:00", "2038-01-19 03:14:07"};
    std::mt19937 rng(nSeed);
    for (int i = 0; i < nCount; ++i) {
        int y = i % 5 == 0 ? 1001 + (int)(rng() % 8998) : 1901 + (int)(rng() % 199);
        int m = 1 + (int)(rng() % 12);
        int nLast = CTalvorDate::DaysInMonth(y, m);
        int d = i % 3 == 0 ? nLast - (int)(rng() % 2) : 1 + (int)(rng() % nLast);
        std::string s = std::to_string(y) + "-" + Two(m) + "-" + Two(d);
        if (i % 4 != 0) s += " " + Two((int)(rng() % 24)) + ":" + Two((int)(rng() % 60)) + ":" + Two((int)(rng() % 60));
        v.push_back(s);
    }
    return v;
}

}  // namespace funkit
