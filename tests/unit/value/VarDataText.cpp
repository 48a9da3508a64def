// Text members of typed values against Python's str on generated UTF-8
// text (characters of 1 to 4 bytes): cuts by character count, from either
// end and past either end, reversal, case of ASCII letters, and joining;
// then the numeric functions against Python's math.

#include "PackedValue.h"
#include "PythonReference.h"
#include "TalvorBufferPool.h"
#include "TalvorDecimal.h"
#include "TalvorVarDataOps.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

using talvortest::Val;

namespace {

// Input lines: "<op> <a> <b> <hex of the text>"; the answer is the hex of
// the result's UTF-8 bytes, or "-" for an empty text.
const char* g_szReference = R"PY(
import sys
def mysql_substring(s, pos, n):
    if pos == 0 or n <= 0: return ""
    start = pos - 1 if pos > 0 else len(s) + pos
    if start < 0: return ""
    return s[start:start + n]
def fold(s, up):
    return "".join((c.upper() if up else c.lower()) if c.isascii() and c.isalpha() else c for c in s)
for line in sys.stdin:
    op, a, b, h = line.split()
    s = bytes.fromhex(h).decode("utf-8") if h != "-" else ""
    a, b = int(a), int(b)
    if op == "sub": r = mysql_substring(s, a, b)
    elif op == "right": r = s[len(s) - a:] if 0 < a <= len(s) else (s if a > len(s) else "")
    elif op == "left": r = s[:a] if a > 0 else ""
    elif op == "rev": r = s[::-1]
    elif op == "up": r = fold(s, True)
    elif op == "low": r = fold(s, False)
    elif op == "link": r = s + s[:a]
    e = r.encode("utf-8").hex()
    print(e if e else "-")
    sys.stdout.flush()
)PY";

std::string Hex(const std::string& s)
{
    if (s.empty()) return "-";
    std::string r;
    char sz[3];
    for (unsigned char c : s) {
        snprintf(sz, sizeof(sz), "%02x", c);
        r += sz;
    }
    return r;
}

std::string RandomText(std::mt19937& rng)
{
    static const char* const arPieces[] = {"a", "Z", "q", "7", " ", "\xC3\xA9", "\xC3\x89", "\xD0\x96",
                                           "\xE2\x82\xAC", "\xE4\xB8\xAD", "\xF0\x9F\x98\x80", "_"};
    std::string s;
    int n = (int)(rng() % 12);
    for (int i = 0; i < n; ++i) s += arPieces[rng() % (sizeof(arPieces) / sizeof(arPieces[0]))];
    return s;
}

std::string Bytes(const st_VARDATA& v)
{
    if (v.m_vt == TALVOR_VT_NULL) return "NULL";
    int nLen = 0;
    const BYTE* p = v.GetBinaryData(nLen);
    return p == nullptr ? "" : std::string((const char*)p, (size_t)nLen);
}

TEST(VarDataText, CutsReversalCaseAndJoinAgainstPython)
{
    std::mt19937 rng(31);
    struct Case {
        std::string m_strOp;
        int m_a, m_b;
        std::string m_strText;
    };
    std::vector<Case> vCases;
    std::vector<std::string> vLines;
    const char* const arOps[] = {"sub", "right", "left", "rev", "up", "low", "link"};
    for (int i = 0; i < 1500; ++i) {
        Case c;
        c.m_strOp = arOps[rng() % 7];
        c.m_a = (int)(rng() % 31) - 15;
        c.m_b = (int)(rng() % 31) - 5;
        if (c.m_strOp == "link") c.m_a = (int)(rng() % 14);
        c.m_strText = RandomText(rng);
        vCases.push_back(c);
        vLines.push_back(c.m_strOp + " " + std::to_string(c.m_a) + " " + std::to_string(c.m_b) + " " +
                         Hex(c.m_strText));
    }
    std::vector<std::string> vOut = talvortest::RunPythonReference(g_szReference, vLines);
    ASSERT_EQ(vOut.size(), vLines.size()) << "the reference did not answer every line";
    for (size_t i = 0; i < vCases.size(); ++i) {
        const Case& c = vCases[i];
        SCOPED_TRACE(vLines[i]);
        CTalvorBufferPool pool;
        st_VARDATA v;
        v.Init();
        // Owned text half the time, pool text the other half.
        ASSERT_EQ(i % 2 ? v.SetData(c.m_strText.c_str(), (int)c.m_strText.size())
                        : v.SetData(&pool, c.m_strText.c_str(), (int)c.m_strText.size()),
                  0);
        CTalvorBufferPool* pPool = i % 3 ? &pool : nullptr;
        int nResult = 0;
        if (c.m_strOp == "sub") nResult = v.SubString(pPool, c.m_a, c.m_b);
        else if (c.m_strOp == "right") nResult = v.Right(pPool, c.m_a);
        else if (c.m_strOp == "left") nResult = v.CharTrunc(pPool, c.m_a);
        else if (c.m_strOp == "rev") nResult = v.Reverse(pPool);
        else if (c.m_strOp == "up") nResult = v.Upper(pPool);
        else if (c.m_strOp == "low") nResult = v.Lower(pPool);
        else {
            st_VARDATA head;
            head.Init();
            head.SetData(c.m_strText.c_str(), (int)c.m_strText.size());
            ASSERT_EQ(head.CharTrunc(nullptr, c.m_a), 0);
            nResult = v.Link(pPool, head);
            head.Free();
        }
        EXPECT_EQ(nResult, 0);
        EXPECT_EQ(Hex(Bytes(v)), vOut[i]);
        v.Free();
    }
}

TEST(VarDataText, NullStaysNullAndNumbersAreTakenAsText)
{
    CTalvorBufferPool pool;
    st_VARDATA n;
    n.Init();
    n.SetNull();
    EXPECT_EQ(n.SubString(&pool, 1, 2), 0);
    EXPECT_EQ(n.Upper(&pool), 0);
    EXPECT_EQ(n.Reverse(&pool), 0);
    EXPECT_EQ(Val(n.m_vt), TALVOR_VT_NULL);
    st_VARDATA v, x;
    v.Init();
    x.Init();
    v.SetData(12345LL);
    ASSERT_EQ(v.Reverse(&pool), 0);
    EXPECT_EQ(Bytes(v), "54321");
    v.SetData(2.5);
    ASSERT_EQ(v.Link(&pool, n), 0);
    EXPECT_EQ(Val(v.m_vt), TALVOR_VT_NULL) << "NULL joined is NULL";
    v.SetData(2.5);
    x.SetData(-1);
    ASSERT_EQ(v.Link(&pool, x), 0);
    EXPECT_EQ(Bytes(v), "2.5-1");
    // A stray continuation byte at the end is kept, not read past.
    const char szBad[] = "ab\xA9";
    v.AttachString((char*)szBad, 3, TALVOR_VT_TEXT);
    ASSERT_EQ(v.Reverse(&pool), 0);
    EXPECT_EQ(Val(v.m_nStrLen), 3);
}

TEST(VarDataNumberFunctions, PowerSqrtTruncAvg)
{
    st_VARDATA v, b;
    v.Init();
    b.Init();
    v.SetData(2LL);
    b.SetData(10LL);
    v.Power(b);
    ASSERT_EQ(Val(v.m_vt), TALVOR_VT_DOUBLE);
    EXPECT_EQ(Val(v.m_dblValue), 1024.0);
    v.SetData(-8.0);
    b.SetData(1.0 / 3);
    v.Power(b);
    EXPECT_EQ(Val(v.m_vt), TALVOR_VT_NULL) << "no real root";
    v.SetData(1e200);
    b.SetData(2LL);
    v.Power(b);
    EXPECT_EQ(Val(v.m_vt), TALVOR_VT_NULL) << "past the double range";
    v.SetData(2.25);
    v.Sqrt();
    EXPECT_EQ(Val(v.m_dblValue), 1.5);
    v.SetData(-1LL);
    v.Sqrt();
    EXPECT_EQ(Val(v.m_vt), TALVOR_VT_NULL);

    CTalvorDecimal::Convert2Decimal("-123.4567", &v);
    v.Trunc(2);
    char sz[TALVOR_DECIMAL_TEXT_BYTES];
    ASSERT_EQ(Val(v.m_vt), TALVOR_VT_DECIMAL);
    CTalvorDecimal::PrintDecimal(&v, sz);
    EXPECT_STREQ(sz, "-123.45") << "cut, not rounded";
    v.SetData(98765LL);
    v.Trunc(-2);
    EXPECT_EQ(Val(v.m_llValue), 98700);
    v.SetData(-2.789);
    v.Trunc(1);
    EXPECT_DOUBLE_EQ(Val(v.m_dblValue), -2.7);

    // A sum and its count give the average; a count of 0 gives NULL.
    v.SetData(10LL);
    v.m_nDataCount = 4;
    v.Avg();
    ASSERT_EQ(Val(v.m_vt), TALVOR_VT_DOUBLE);
    EXPECT_EQ(Val(v.m_dblValue), 2.5);
    EXPECT_EQ(Val(v.m_nDataCount), 4);
    CTalvorDecimal::Convert2Decimal("10.0", &v);
    v.m_nDataCount = 0;
    v.Avg();
    EXPECT_EQ(Val(v.m_vt), TALVOR_VT_NULL);
}

const char* g_szPrintReference = R"PY(
import sys
from decimal import Decimal
for line in sys.stdin:
    op, x = line.split()
    if op == "f":
        print("%f" % float(x))
    elif op == "i":
        print("%d" % int(x))
    else:
        # Characters of the exact decimal value of a short binary fraction.
        print(len(format(Decimal(float(x)).normalize(), "f")))
    sys.stdout.flush()
)PY";

TEST(VarDataPrint, PrintersAndFiguresAgainstPython)
{
    std::mt19937_64 rng(8);
    std::vector<std::string> vLines;
    std::vector<double> vDoubles;
    std::vector<long long> vInts;
    for (int i = 0; i < 400; ++i) {
        double d = (double)((long long)(rng() % 40000001) - 20000000) / (double)(1 << (rng() % 6));
        if (i % 40 == 0) d = (double)(long long)(rng() % 1000000);  // integral
        vDoubles.push_back(d);
        char sz[64];
        snprintf(sz, sizeof(sz), "%.17g", d);
        vLines.push_back(std::string("f ") + sz);
        vLines.push_back(std::string("g ") + sz);
        long long ll = (long long)rng() >> (rng() % 64);
        vInts.push_back(ll);
        vLines.push_back("i " + std::to_string(ll));
    }
    std::vector<std::string> vOut = talvortest::RunPythonReference(g_szPrintReference, vLines);
    ASSERT_EQ(vOut.size(), vLines.size()) << "the reference did not answer every line";
    for (size_t i = 0; i < vDoubles.size(); ++i) {
        st_VARDATA v;
        v.Init();
        v.SetData(vDoubles[i]);
        char sz[512];
        int nLen = ConvertVarData2String(v, nullptr);
        ASSERT_LT(nLen, (int)sizeof(sz));
        EXPECT_EQ(ConvertVarData2String(v, sz), nLen);
        EXPECT_EQ(std::string(sz), vOut[3 * i]) << vLines[3 * i];
        EXPECT_EQ(GetDoubleFigure(vDoubles[i]), atoi(vOut[3 * i + 1].c_str())) << vLines[3 * i + 1];
        v.SetData(vInts[i]);
        EXPECT_EQ(ConvertVarData2String(v, sz), (int)vOut[3 * i + 2].size());
        EXPECT_EQ(std::string(sz), vOut[3 * i + 2]);
        EXPECT_EQ(GetIntegerFigure(vInts[i]), (int)vOut[3 * i + 2].size());
    }
    EXPECT_EQ(GetIntegerFigure(LLONG_MIN), 20);
    EXPECT_EQ(GetStringFigure("abc", 3, TRUE), 5);
    EXPECT_EQ(GetStringFigure("{\"a\":1}", 7, TRUE), 7) << "an object takes no quotes";
    EXPECT_EQ(GetStringFigure("abc", 3, FALSE), 3);
    // NULL prints as nothing; text as its bytes without a trailing NUL.
    st_VARDATA v;
    v.Init();
    v.SetNull();
    char sz[16] = "x";
    EXPECT_EQ(ConvertVarData2String(v, sz), 0);
    EXPECT_STREQ(sz, "");
    const char szText[] = "ab\0";
    v.AttachString((char*)szText, 3, TALVOR_VT_TEXT);
    EXPECT_EQ(ConvertVarData2String(v, sz), 2);
    EXPECT_STREQ(sz, "ab");
}

TEST(VarDataPrint, TextConversionsInPlace)
{
    CTalvorBufferPool pool;
    st_VARDATA v;
    v.Init();
    ASSERT_EQ(v.CovertString2Data(&pool, "  -17 ", 6, TALVOR_VT_INT), 0);
    EXPECT_EQ(Val(v.m_vt), TALVOR_VT_INT);
    EXPECT_EQ(Val(v.m_nValue), -17);
    EXPECT_EQ(v.CovertString2Data(&pool, TALVOR_VT_INT), TALVOR_VARDATA_TYPE_ERROR) << "no longer text";
    ASSERT_EQ(v.Covert2String(nullptr), 0);
    EXPECT_EQ(Bytes(v), "-17");
    EXPECT_EQ(Val(v.m_bAutoRelease), 1);
    ASSERT_EQ(v.CovertStringToNumber(), 0);  // gives the owned text back
    EXPECT_EQ(Val(v.m_vt), TALVOR_VT_DECIMAL);
    EXPECT_EQ(v.GetCompatibleInt(), -17);
    v.AttachString((char*)"%%", 2, TALVOR_VT_TEXT);
    EXPECT_TRUE(v.IsAllWildcard());
    v.AttachString((char*)"%a%", 3, TALVOR_VT_TEXT);
    EXPECT_FALSE(v.IsAllWildcard());
}

} // namespace
