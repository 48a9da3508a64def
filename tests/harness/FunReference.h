// FunReference.h — SQL functions of the value library checked against the
// MariaDB reference: each case is an expression with its arguments, run
// through our member and collected; one Eval per batch asks the server for
// all of them. Header-only: each function test binary links it alone.
#pragma once

#include "MariaDbReference.h"

#include "BaseFunManager.h"
#include "TalvorDecimal.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>
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
        case kDouble: return str + "e0";  // an exponent makes the literal a double
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
inline FunArg ArgInt(long long ll) { FunArg a; a.nKind = FunArg::kInt; a.ll = ll; return a; }
inline FunArg ArgText(const std::string& s) { FunArg a; a.nKind = FunArg::kText; a.str = s; return a; }
inline FunArg ArgDec(const std::string& s) { FunArg a; a.nKind = FunArg::kDecimal; a.str = s; return a; }
// A double written as digits with a point ("2.5"): exact in both places.
inline FunArg ArgDouble(const std::string& s) { FunArg a; a.nKind = FunArg::kDouble; a.str = s; return a; }
// Text the server compares by its bytes (binary collation).
inline FunArg ArgTextBin(const std::string& s) { FunArg a; a.nKind = FunArg::kTextBin; a.str = s; return a; }
inline FunArg ArgBin(const std::string& s) { FunArg a; a.nKind = FunArg::kBinary; a.str = s; return a; }

// The text the client shows for a result value; bNull for SQL NULL.
inline std::string ShownText(const VARDATA& v, bool& bNull)
{
    bNull = v.m_vt == TALVOR_VT_NULL || v.m_vt == TALVOR_VT_EMPTY;
    if (bNull) return "";
    if (v.m_vt == TALVOR_VT_TEXT || v.m_vt == TALVOR_VT_VARTEXT || v.m_vt == TALVOR_VT_BINARY ||
        v.m_vt == TALVOR_VT_FIXTEXT)
        return std::string(v.m_lpszValue, (size_t)v.m_nStrLen);
    std::vector<char> buf((size_t)ConvertVarData2String(v, nullptr) + 1);
    int n = ConvertVarData2String(v, buf.data());
    return std::string(buf.data(), (size_t)n);
}

// The server, started once per test binary; the static's destructor stops
// it and removes its tree when the binary exits.
inline MariaDbReference& SharedMariaDb()
{
    struct Started {
        MariaDbReference db;
        Started()
        {
            if (!db.Start()) fprintf(stderr, "MariaDB reference: %s\n", db.Error().c_str());
        }
    };
    static Started s_started;
    return s_started.db;
}

// Our member on typed arguments: pool, arguments, result; returns its code.
using Pool = CTalvorBufferPool;
using Args = std::vector<VARDATA>;
using FunCall = std::function<int(Pool*, Args&, VARDATA&)>;

// Cases gathered, then compared against the server in one batch.
class FunBatch {
public:
    // SQL expression strExpr (with "?" for each argument, left to right)
    // against fn on the same arguments.
    void Add(const std::string& strExpr, const std::vector<FunArg>& vArgs, const FunCall& fn)
    {
        Case c;
        c.strSql = Fill(strExpr, vArgs);
        std::vector<VARDATA> v(vArgs.size());
        for (size_t i = 0; i < vArgs.size(); ++i) vArgs[i].ToVar(v[i]);
        VARDATA r;
        r.Init();
        c.nRet = fn(&m_pool, v, r);
        c.strOurs = ShownText(r, c.bOursNull);
        c.bOwns = r.m_bAutoRelease != 0 && r.m_vt != TALVOR_VT_DECIMAL;
        r.Free();
        m_vCases.push_back(c);
    }
    size_t Size() const { return m_vCases.size(); }

    // Asks the server and checks every case; bSkip says which cases the
    // server may answer differently (the caller's table of differences).
    void Check(const std::function<bool(const std::string& strSql)>& fnDeliberate = nullptr)
    {
        MariaDbReference& db = SharedMariaDb();
        std::vector<std::string> vSql;
        for (auto& c : m_vCases) vSql.push_back(c.strSql);
        std::vector<SqlAnswer> vAns;
        ASSERT_TRUE(db.Eval(vSql, vAns)) << db.Error();
        ASSERT_EQ(vAns.size(), m_vCases.size());
        int nFailed = 0;
        for (size_t i = 0; i < m_vCases.size() && nFailed < 20; ++i) {
            const Case& c = m_vCases[i];
            EXPECT_EQ(c.nRet, 0) << c.strSql;
            EXPECT_FALSE(c.bOwns) << "a result must never own its text: " << c.strSql;
            if (fnDeliberate && fnDeliberate(c.strSql)) continue;
            const SqlAnswer& a = vAns[i];
            EXPECT_FALSE(a.bError) << c.strSql;
            bool bSame = a.bNull == c.bOursNull && (a.bNull || a.strText == c.strOurs);
            EXPECT_TRUE(bSame) << c.strSql << "\n  server: " << (a.bNull ? "NULL" : "'" + a.strText + "'")
                               << "\n  ours:   " << (c.bOursNull ? "NULL" : "'" + c.strOurs + "'");
            if (!bSame || a.bError) ++nFailed;
        }
        m_vCases.clear();
        m_pool.ResetBuffer();
    }

private:
    struct Case {
        std::string strSql;
        int nRet = 0;
        bool bOursNull = false;
        bool bOwns = false;
        std::string strOurs;
    };
    static std::string Fill(const std::string& strExpr, const std::vector<FunArg>& vArgs)
    {
        std::string s;
        size_t n = 0;
        for (char ch : strExpr) {
            if (ch == '?' && n < vArgs.size()) s += vArgs[n++].Sql();
            else s += ch;
        }
        return s;
    }
    std::vector<Case> m_vCases;
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
inline FunArg RandomTextArg(std::mt19937& rng)
{
    return rng() % 12 == 0 ? ArgNull() : ArgText(RandomText(rng));
}
inline FunArg RandomCountArg(std::mt19937& rng)
{
    return rng() % 12 == 0 ? ArgNull() : ArgInt(RandomCount(rng));
}

} // namespace talvortest
