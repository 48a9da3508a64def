// FunReference.h — SQL functions of the value library checked against the
// MariaDB reference: each case is an expression with its arguments, run
// through our member and collected with the text its result shows as; one
// Eval per batch asks the server for all of them and one loop compares.
// Header-only: each function test binary links it alone.
#pragma once

#include "MariaDbReference.h"

#include "BaseFunManager.h"
#include "PackedValue.h"
#include "TalvorDate.h"
#include "TalvorDecimal.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace talvortest {

// One argument, as SQL text and as a typed value.
struct FunArg {
    enum Kind { kNull, kInt, kText, kDecimal, kBinary, kTextBin, kDouble };
    Kind nKind = kNull;
    long long ll = 0;
    std::string str;  // text bytes, or the digits of a decimal or a double

    std::string Sql() const
    {
        switch (nKind) {
        case kNull: return "NULL";
        case kInt: return std::to_string(ll);
        case kDecimal: return str;
        case kBinary: return "BINARY " + SqlHexLiteral(str);
        case kTextBin: return "(_utf8mb4 " + SqlHexLiteral(str) + " COLLATE utf8mb4_bin)";
        // An exponent makes the literal a double.
        case kDouble: return str.find('e') == std::string::npos ? str + "e0" : str;
        default:
            // A hexadecimal literal is binary to the server: convert it so
            // that the text functions count characters, not bytes.
            return "CONVERT(" + SqlHexLiteral(str) + " USING utf8mb4)";
        }
    }
    // v points at str, which must outlive it.
    void ToVar(VARDATA& v) const
    {
        v.Init();
        switch (nKind) {
        case kNull: v.SetNull(); break;
        case kInt: v.SetData(ll); break;
        case kDecimal: CTalvorDecimal::Convert2Decimal(str.c_str(), &v); break;
        case kDouble: v.SetData(strtod(str.c_str(), nullptr)); break;
        case kBinary: v.AttachBinaryData((void*)str.data(), (int)str.size(), FALSE); break;
        default: v.AttachString((char*)str.data(), (int)str.size(), TALVOR_VT_TEXT); break;
        }
    }
};

inline FunArg ArgNull() { return FunArg{}; }
inline FunArg ArgInt(long long ll) { return FunArg{FunArg::kInt, ll, ""}; }
inline FunArg ArgText(const std::string& s) { return FunArg{FunArg::kText, 0, s}; }
inline FunArg ArgDec(const std::string& s) { return FunArg{FunArg::kDecimal, 0, s}; }
// A double written as digits with a point ("2.5"), or every digit of d
// with an exponent: exact in both places.
inline FunArg ArgDouble(const std::string& s) { return FunArg{FunArg::kDouble, 0, s}; }
inline FunArg ArgDouble(double d) { char sz[40]; snprintf(sz, sizeof(sz), "%.17e", d); return ArgDouble(sz); }
// Text the server compares by its bytes (binary collation).
inline FunArg ArgTextBin(const std::string& s) { return FunArg{FunArg::kTextBin, 0, s}; }
inline FunArg ArgBin(const std::string& s) { return FunArg{FunArg::kBinary, 0, s}; }

// ---- Typed values for the members that take VARDATA directly.

inline VARDATA Null() { VARDATA v; memset(&v, 0, sizeof(v)); v.m_vt = TALVOR_VT_NULL; return v; }
inline VARDATA Int(long long n) { VARDATA v = Null(); v.m_vt = TALVOR_VT_BIGINT; v.m_llValue = n; return v; }
inline VARDATA Dbl(double d) { VARDATA v = Null(); v.m_vt = TALVOR_VT_DOUBLE; v.m_dblValue = d; return v; }
inline VARDATA Dec(const char* lpsz) { VARDATA v = Null(); CTalvorDecimal::Convert2Decimal(lpsz, &v); return v; }

// Text of the pool (type 7); the pool keeps the bytes alive.
inline VARDATA Text(CTalvorBufferPool& pool, const std::string& str)
{
    VARDATA v = Null();
    char* p = (char*)pool.AllocBuffer((UINT)str.size() + 1);
    memcpy(p, str.c_str(), str.size() + 1);
    v.AttachString(p, (int)str.size(), TALVOR_VT_TEXT);
    return v;
}

// A date and time (4) from "YYYY-MM-DD hh:mm:ss"; NULL for other text.
inline VARDATA DateTime(CTalvorBufferPool& pool, const std::string& str)
{
    VARDATA t = Text(pool, str), v = Null();
    DATE d;
    if (CBaseFunManager::date(&pool, t, d) == 0) v.SetDateTime(d);
    return v;
}

// A stored date (12) from "YYYY-MM-DD"; NULL for other text.
inline VARDATA StoredDate(CTalvorBufferPool& pool, const std::string& str)
{
    VARDATA v = Null(), t = Text(pool, str);
    return CBaseFunManager::Date(&pool, t, v) == 0 ? v : Null();
}

// The text the server's client shows for a result value; bNull for SQL
// NULL. A date and time shows its fraction when it has one, as the server
// shows a result that took microseconds; a double shows every digit.
inline std::string ShownText(const VARDATA& v, bool& bNull)
{
    bNull = v.m_vt == TALVOR_VT_NULL || v.m_vt == TALVOR_VT_EMPTY;
    if (bNull) return "";
    char sz[64];
    switch (v.m_vt) {
    case TALVOR_VT_TEXT:
    case TALVOR_VT_VARTEXT:
    case TALVOR_VT_BINARY:
    case TALVOR_VT_FIXTEXT: return std::string(v.m_lpszValue, (size_t)v.m_nStrLen);
    case TALVOR_VT_DATETIME: {
        TALVORDATEPARTS s;
        CTalvorDate::FormatDateTime(v.m_dblValue, sz, CTalvorDate::ConvertDateTime(v.m_dblValue, s) == 0 && s.m_nMicrosecond ? 6 : 0);
        return sz;
    }
    case TALVOR_VT_TIME: { TALVORTIME t = v.m_stTime; CTalvorDate::FormatTime(t, sz); return sz; }
    case TALVOR_VT_DOUBLE: snprintf(sz, sizeof(sz), "%.17g", Val(v.m_dblValue)); return sz;
    default: break;
    }
    std::vector<char> buf((size_t)ConvertVarData2String(v, nullptr) + 1);
    return std::string(buf.data(), (size_t)ConvertVarData2String(v, buf.data()));
}

// The same, with SQL NULL shown as "NULL".
inline std::string Show(const VARDATA& v) { bool bNull = false; std::string s = ShownText(v, bNull); return bNull ? "NULL" : s; }

// The server, started once per test binary; the static's destructor stops
// it and removes its tree when the binary exits.
inline MariaDbReference& SharedMariaDb()
{
    static MariaDbReference s_db;
    static const bool s_bStarted = (s_db.Start(), true);
    return (void)s_bStarted, s_db;
}

// The library reads the machine's zone, the server session is UTC: both
// must mean the same hours, set before the library caches its first
// reading, so before any test runs.
inline const bool g_bUseUtc = (setenv("TZ", "UTC", 1), tzset(), true);

// How a result is held against the server's text: bytes, or a number
// within 1e-12 relative (doubles computed by two libm paths).
enum CompareKind { SAME_TEXT, SAME_NUMBER };

// One expression and what our member gave for it.
struct FunCase {
    std::string strSql;
    int nRet = 0;
    bool bOursNull = false;
    bool bOwns = false;  // the result owns its text: a leak in a plan
    std::string strOurs;
    CompareKind eKind = SAME_TEXT;
};

inline bool SameNumber(const std::string& a, const std::string& b)
{
    char *pa = nullptr, *pb = nullptr;
    long double x = strtold(a.c_str(), &pa), y = strtold(b.c_str(), &pb);
    if (*pa != 0 || *pb != 0 || a.empty() || b.empty()) return a == b;
    return std::fabs(x - y) <= 1e-12L * std::max({std::fabs(x), std::fabs(y), 1.0L});
}

// A call's code is 0 and the result shows as strShown ("NULL" for NULL);
// the call's text names a failure.
#define EXPECT_SHOWN(call, r, strShown)                   \
    do {                                                  \
        EXPECT_EQ((call), 0) << #call;                    \
        EXPECT_EQ(talvortest::Show(r), strShown) << #call; \
    } while (0)

// Our member on typed arguments: pool, arguments, result; returns its code.
using Pool = CTalvorBufferPool;
using Args = std::vector<VARDATA>;
using FunCall = std::function<int(Pool*, Args&, VARDATA&)>;

// A static member as a call on the arguments, of the batch or of a case,
// by its count of arguments (named, as members of one name take different
// counts): the first N arguments, then the result.
using Fun1 = int (*)(Pool*, VARDATA&, VARDATA&);
using Fun2 = int (*)(Pool*, VARDATA&, VARDATA&, VARDATA&);
using Fun3 = int (*)(Pool*, VARDATA&, VARDATA&, VARDATA&, VARDATA&);
using Fun4 = int (*)(Pool*, VARDATA&, VARDATA&, VARDATA&, VARDATA&, VARDATA&);
inline FunCall Of1(Fun1 f) { return [f](Pool* p, Args& a, VARDATA& r) { return f(p, a[0], r); }; }
inline FunCall Of2(Fun2 f) { return [f](Pool* p, Args& a, VARDATA& r) { return f(p, a[0], a[1], r); }; }
inline FunCall Of3(Fun3 f) { return [f](Pool* p, Args& a, VARDATA& r) { return f(p, a[0], a[1], a[2], r); }; }
inline FunCall Of4(Fun4 f) { return [f](Pool* p, Args& a, VARDATA& r) { return f(p, a[0], a[1], a[2], a[3], r); }; }
// A member that takes its arguments as a count and an array.
using FunN = int (*)(Pool*, int, st_VARDATA*, VARDATA&);
inline FunCall OfN(FunN f) { return [f](Pool* p, Args& a, VARDATA& r) { return f(p, (int)a.size(), a.data(), r); }; }

// A plan reuses its result slots: each case starts on a slot that holds 7,
// so a member that leaves the slot as it was on a NULL shows 7, not NULL.
inline VARDATA UsedSlot() { return Int(7); }

// Cases gathered, then compared against the server in one batch.
class FunBatch {
public:
    // SQL expression strExpr (with "?" for each argument, left to right)
    // against fn on the same arguments.
    void Add(const std::string& strExpr, const std::vector<FunArg>& vArgs, const FunCall& fn,
             CompareKind eKind = SAME_TEXT)
    {
        std::vector<VARDATA> v(vArgs.size());
        for (size_t i = 0; i < vArgs.size(); ++i) vArgs[i].ToVar(v[i]);
        Add(Fill(strExpr, vArgs), fn, v, eKind);
    }
    // The SQL text strSql against fn on typed arguments (their bytes kept
    // alive by the caller).
    void Add(const std::string& strSql, const FunCall& fn, Args vArgs, CompareKind eKind = SAME_TEXT)
    {
        VARDATA r = UsedSlot();
        FunCase c{strSql, fn(&m_pool, vArgs, r), false, r.m_bAutoRelease != 0 && r.m_vt != TALVOR_VT_DECIMAL, "", eKind};
        c.strOurs = ShownText(r, c.bOursNull);
        r.Free();
        m_vCases.push_back(c);
    }

    // Every case against the server in one session. A statement the server
    // refuses must be refused here or give NULL; otherwise our code is 0 and
    // the NULL-ness and text (or number) are the server's. fnDeliberate names
    // the cases of the caller's table of differences. The server goes on into
    // year 0; here dates end at 0001-01-01, so NULL answers such a date.
    void Check(const std::function<bool(const std::string& strSql)>& fnDeliberate = nullptr)
    {
        MariaDbReference& db = SharedMariaDb();
        ASSERT_TRUE(db.Started()) << db.Error();
        std::vector<std::string> vSql;
        for (const FunCase& c : m_vCases) vSql.push_back(c.strSql);
        std::vector<SqlAnswer> vAns;
        ASSERT_TRUE(db.Eval(vSql, vAns)) << db.Error();
        ASSERT_EQ(vAns.size(), m_vCases.size());
        int nFailed = 0;
        for (size_t i = 0; i < m_vCases.size() && nFailed < 20; ++i) {
            const FunCase& c = m_vCases[i];
            const SqlAnswer& a = vAns[i];
            EXPECT_FALSE(c.bOwns) << "a result must never own its text: " << c.strSql;
            bool bDeliberate = fnDeliberate && fnDeliberate(c.strSql);
            EXPECT_TRUE(c.nRet == 0 || (a.bError && !bDeliberate)) << "code " << c.nRet << ": " << c.strSql;
            if (bDeliberate) continue;
            bool bSame = a.bError ? c.nRet != 0 || c.bOursNull
                                  : a.bNull == c.bOursNull && (a.bNull || a.strText == c.strOurs ||
                                                              (c.eKind == SAME_NUMBER && SameNumber(c.strOurs, a.strText)));
            if (!a.bError && c.bOursNull && !a.bNull && a.strText.compare(0, 5, "0000-") == 0) bSame = true;
            EXPECT_TRUE(bSame) << c.strSql << "\n  server: " << (a.bError ? "error" : a.bNull ? "NULL" : "'" + a.strText + "'")
                               << "\n  ours:   " << (c.bOursNull ? "NULL" : "'" + c.strOurs + "'") << " (code " << c.nRet << ")";
            nFailed += !bSame;
        }
        m_vCases.clear();
        m_pool.ResetBuffer();
    }

private:
    static std::string Fill(const std::string& strExpr, const std::vector<FunArg>& vArgs)
    {
        std::string s;
        size_t n = 0;
        for (char ch : strExpr) s += ch == '?' && n < vArgs.size() ? vArgs[n++].Sql() : std::string(1, ch);
        return s;
    }
    std::vector<FunCase> m_vCases;
    CTalvorBufferPool m_pool;
};

// ---- Generated arguments.

// A text of random pieces: ASCII letters of both cases, digits, blanks,
// commas and dots (the separators the list functions look for), and
// two-, three- and four-byte UTF-8 characters.
inline std::string RandomText(std::mt19937& rng, int nMaxPieces = 8)
{
    static const char* kPieces[] = {"a", "b", "B", "ab", "x", "Z", "0", "7", "12", " ", "  ", ",", ".", ",,",
                                    "\xc3\xa9", "\xc3\x9f", "\xe4\xb8\xad", "\xe2\x82\xac", "\xf0\x9f\x98\x80",
                                    "\\", "'", "-", "ab,", "\xd0\xb6"};
    int n = (int)(rng() % (unsigned)(nMaxPieces + 1));
    std::string s;
    for (int i = 0; i < n; ++i) s += kPieces[rng() % (sizeof(kPieces) / sizeof(kPieces[0]))];
    return s;
}

// A count as positions and lengths meet them: small, zero, negative, past
// any text here, and at the edges of 32 and 64 bits.
inline long long RandomCount(std::mt19937& rng)
{
    static const long long kEdges[] = {0, 1, -1, 2, -2, 3, 5, -5, 40, -40, 2147483647LL, -2147483648LL,
                                       4294967296LL, 9223372036854775807LL, (-9223372036854775807LL - 1)};
    if (rng() % 3 == 0) return kEdges[rng() % (sizeof(kEdges) / sizeof(kEdges[0]))];
    return (long long)(rng() % 13) - 4;
}

// A text argument, now and then NULL.
inline FunArg RandomTextArg(std::mt19937& rng) { return rng() % 12 == 0 ? ArgNull() : ArgText(RandomText(rng)); }
inline FunArg RandomCountArg(std::mt19937& rng) { return rng() % 12 == 0 ? ArgNull() : ArgInt(RandomCount(rng)); }

// One row of a function table: the expression, the letters of its
// arguments (the test's generator gives the value of each letter) and our
// member.
struct FunRow { const char* lpszExpr; const char* lpszArgs; FunCall fn; };

// Every row once, on the arguments the letters have in mArgs; a letter not
// in it is drawn afresh by fnOther at each place.
inline void AddRows(FunBatch& batch, const std::vector<FunRow>& vRows, const std::map<char, FunArg>& mArgs,
                    const std::function<FunArg()>& fnOther = nullptr)
{
    for (const FunRow& row : vRows) {
        std::vector<FunArg> v;
        for (const char* p = row.lpszArgs; *p; ++p) v.push_back(mArgs.count(*p) ? mArgs.at(*p) : fnOther());
        batch.Add(row.lpszExpr, v, row.fn);
    }
}

// ---- Generated dates and the units of intervals.

inline std::string Quote(const std::string& s) { return "'" + s + "'"; }

inline std::string Two(int n) { return (n < 10 ? "0" : "") + std::to_string(n); }
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

// The units of an interval: the server's name and the library's interval
// type. The first nine are the simple units TIMESTAMPADD and TIMESTAMPDIFF
// take.
struct IntervalUnit { const char* lpszName; int nType; };
inline const IntervalUnit kIntervalUnits[] = {{"MICROSECOND", 1}, {"SECOND", 3}, {"MINUTE", 4}, {"HOUR", 5}, {"DAY", 6},
    {"WEEK", 7}, {"MONTH", 8}, {"QUARTER", 9}, {"YEAR", 10}, {"SECOND_MICROSECOND", 11}, {"MINUTE_MICROSECOND", 12},
    {"MINUTE_SECOND", 13}, {"HOUR_MICROSECOND", 14}, {"HOUR_SECOND", 15}, {"HOUR_MINUTE", 16}, {"DAY_MICROSECOND", 17},
    {"DAY_SECOND", 18}, {"DAY_MINUTE", 19}, {"DAY_HOUR", 20}, {"YEAR_MONTH", 21}};
const int kSimpleUnits = 9;

} // namespace talvortest
