// Typed values against Python on generated operands: arithmetic of integers
// (moving to decimals on overflow), doubles and decimals, dates plus days,
// the "%f" text of doubles, and the order of numbers across types. Where our
// rules are our own the reference applies them too: integer division gives a
// double, a remainder takes the dividend's sign, a zero divisor or a result
// past the double range is NULL. Then the text members against Python's str
// on generated UTF-8 text (characters of 1 to 4 bytes), and the printers.

#include "PackedValue.h"
#include "PythonReference.h"
#include "TalvorBufferPool.h"
#include "TalvorDate.h"
#include "TalvorDecimal.h"
#include "TalvorVarDataOps.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

using talvortest::Val;

namespace {

const char* g_szReference = R"PY(
import sys, math, datetime
from decimal import Decimal, Context, ROUND_HALF_UP
BIG = Context(prec=200, Emax=999999, Emin=-999999)
C36 = Context(prec=36, Emax=999999, Emin=-999999, rounding=ROUND_HALF_UP)
I64 = 2**63

def val(t):
    k, s = t.split(":", 1)
    if k == "i": return int(s)
    if k == "d": return float(s)
    return Decimal(s)

def kind(t):
    return t.split(":", 1)[0]

def arith(op, a, b, ka, kb):
    if "d" in (ka, kb):
        x, y = float(a), float(b)
        if op in ("div", "mod") and y == 0: return "null"
        if op == "mod":
            # The remainder goes through decimals: an integer enters exactly.
            dx = Decimal(a) if ka == "i" else Decimal(repr(x))
            dy = Decimal(b) if kb == "i" else Decimal(repr(y))
            r = float(BIG.remainder(dx, dy))
        else:
            try:
                r = {"add": x + y, "sub": x - y, "mul": x * y, "div": x / y if op == "div" else 0}[op]
            except OverflowError:
                return "null"
        return "null" if math.isinf(r) or math.isnan(r) else "d " + repr(r)
    if ka == "i" and kb == "i":
        if op in ("div", "mod") and b == 0: return "null"
        if op == "div": return "d " + repr(a / b)
        if op == "mod":
            r = abs(a) % abs(b)
            return "i " + str(-r if a < 0 else r)
        r = {"add": a + b, "sub": a - b, "mul": a * b}[op]
        if -I64 <= r < I64: return "i " + str(r)
        return "m " + str(r) if abs(r) < 10**36 else "skip"
    x, y = Decimal(a), Decimal(b)
    if op in ("div", "mod") and y == 0: return "null"
    if op == "div": return "q " + format(C36.divide(x, y), "f")
    if op == "mod": return "m " + str(BIG.remainder(x, y))
    r = {"add": BIG.add, "sub": BIG.subtract, "mul": BIG.multiply}[op](x, y)
    return "m " + str(r)

BASE = datetime.datetime(1899, 12, 30)
for line in sys.stdin:
    f = line.split()
    op = f[0]
    try:
        if op == "cmp":
            a, b = val(f[1]), val(f[2])
            a = Decimal(a) if isinstance(a, float) else a
            b = Decimal(b) if isinstance(b, float) else b
            print((a > b) - (a < b))
        elif op == "fmt":
            print(("%f" % float(f[1])).rstrip("0").rstrip("."))
        elif op == "trunc":
            x = float(f[1])
            print(max(-I64, min(I64 - 1, int(x))))
        elif op == "round":
            r = int(Decimal(f[1]).quantize(Decimal(1), rounding=ROUND_HALF_UP, context=BIG))
            print(max(-I64, min(I64 - 1, r)))
        elif op == "dateadd":
            d = datetime.date(int(f[1]), int(f[2]), int(f[3])) + datetime.timedelta(days=int(f[4]))
            print(d.isoformat())
        elif op == "dtadd":
            t = datetime.datetime.strptime(f[1] + " " + f[2], "%Y-%m-%d %H:%M:%S")
            r = t + datetime.timedelta(days=int(f[3]) / 4)
            print(r.strftime("%Y-%m-%d %H:%M:%S") if 1 <= r.year <= 9999 else "null")
        elif op == "datesub":
            a = datetime.date(int(f[1]), int(f[2]), int(f[3]))
            b = datetime.date(int(f[4]), int(f[5]), int(f[6]))
            print((a - b).days)
        else:
            print(arith(op, val(f[1]), val(f[2]), kind(f[1]), kind(f[2])))
    except OverflowError:
        print("null")
    sys.stdout.flush()
)PY";

std::vector<std::string> RunReference(const std::vector<std::string>& vLines)
{
    std::vector<std::string> vOut = talvortest::RunPythonReference(g_szReference, vLines);
    EXPECT_EQ(vOut.size(), vLines.size()) << "the reference did not answer every line";
    vOut.resize(vLines.size());
    return vOut;
}

// An operand as the reference reads it ("i:12", "d:0.25", "m:1.5") and as
// a typed value.
struct Operand {
    std::string m_strRef;
    st_VARDATA m_v;
};

Operand IntOperand(long long ll)
{
    Operand o;
    o.m_strRef = "i:" + std::to_string(ll);
    o.m_v.Init();
    if (ll >= INT_MIN && ll <= INT_MAX && (ll & 1)) o.m_v.SetData((int)ll);  // both widths take part
    else o.m_v.SetData(ll);
    return o;
}

Operand DoubleOperand(double d)
{
    char sz[64];
    snprintf(sz, sizeof(sz), "%.17g", d);
    Operand o;
    o.m_strRef = std::string("d:") + sz;
    o.m_v.Init();
    o.m_v.SetData(d);
    return o;
}

Operand DecimalOperand(const std::string& s)
{
    Operand o;
    o.m_strRef = "m:" + s;
    o.m_v.Init();
    EXPECT_EQ(CTalvorDecimal::Convert2Decimal(s.c_str(), &o.m_v), 0) << s;
    return o;
}

class Generator {
public:
    explicit Generator(unsigned nSeed) : m_rng(nSeed) {}
    long long Int()
    {
        switch (m_rng() % 4) {
        case 0: return (long long)(m_rng() % 2001) - 1000;
        case 1: return (long long)m_rng() - (1LL << 31);  // around the 32-bit limits
        case 2: return (long long)(((unsigned long long)m_rng() << 32) | m_rng());  // anywhere in 64 bits
        default: return (long long)(m_rng() % (1ULL << 52)) - (1LL << 51);
        }
    }
    // Exact in binary and in short decimal text.
    double Double() { return ((double)((long long)(m_rng() % 200001) - 100000)) / 8.0 * (m_rng() % 3 == 0 ? 1e6 : 1.0); }
    std::string Decimal()
    {
        char sz[64];
        long long nInt = (long long)(m_rng() % 10000000000ULL);
        snprintf(sz, sizeof(sz), "%s%lld.%0*u", m_rng() % 2 ? "-" : "", m_rng() % 3 ? nInt % 100000 : nInt,
                 (int)(1 + m_rng() % 4), (unsigned)(m_rng() % 10000));
        return sz;
    }
    Operand Any()
    {
        switch (m_rng() % 3) {
        case 0: return IntOperand(Int());
        case 1: return DoubleOperand(Double());
        default: return DecimalOperand(Decimal());
        }
    }
    unsigned Next() { return m_rng(); }

private:
    std::mt19937 m_rng;
};

std::string DecimalText(const st_VARDATA& v)
{
    char sz[TALVOR_DECIMAL_TEXT_BYTES];
    CTalvorDecimal::PrintDecimal(&v, sz);
    return sz;
}

// The digits without trailing zeros of the fraction, nor a point left last.
std::string TrimZeros(std::string s)
{
    if (s.find('.') == std::string::npos) return s;
    while (s.back() == '0') s.pop_back();
    if (s.back() == '.') s.pop_back();
    return s;
}

// Whether our result is the reference's ("i 5", "d 0.5", "m 1.25",
// "q <36-digit quotient>", "null").
void ExpectResult(const st_VARDATA& r, const std::string& strRef, const std::string& strWhat)
{
    SCOPED_TRACE(strWhat + " -> reference " + strRef);
    if (strRef == "skip") return;
    if (strRef == "null") {
        EXPECT_EQ(Val(r.m_vt), TALVOR_VT_NULL);
        return;
    }
    std::string strValue = strRef.substr(2);
    switch (strRef[0]) {
    case 'i':
        ASSERT_EQ(Val(r.m_vt), TALVOR_VT_BIGINT);
        EXPECT_EQ(Val(r.m_llValue), strtoll(strValue.c_str(), nullptr, 10));
        break;
    case 'd':
        ASSERT_EQ(Val(r.m_vt), TALVOR_VT_DOUBLE);
        EXPECT_EQ(Val(r.m_dblValue), strtod(strValue.c_str(), nullptr));
        break;
    case 'm': {
        ASSERT_EQ(Val(r.m_vt), TALVOR_VT_DECIMAL);
        st_VARDATA ref;
        ASSERT_EQ(CTalvorDecimal::Convert2Decimal(strValue.c_str(), &ref), 0);
        EXPECT_EQ(CTalvorDecimal::Compare(&r, &ref), 0) << "ours " << DecimalText(r);
        break;
    }
    case 'q': {
        // A quotient carries 36 digits, rounded half up as the reference's;
        // compared as text, since the parser keeps fewer fraction digits.
        ASSERT_EQ(Val(r.m_vt), TALVOR_VT_DECIMAL);
        st_VARDATA full = r;
        full.m_bPrecison = 0;
        EXPECT_EQ(TrimZeros(DecimalText(full)), TrimZeros(strValue));
        break;
    }
    default: ADD_FAILURE() << "unknown answer";
    }
}

const char* const g_arOps[] = {"add", "sub", "mul", "div", "mod"};

st_VARDATA Apply(int nOp, const st_VARDATA& a, const st_VARDATA& b)
{
    switch (nOp) {
    case 0: return a + b;
    case 1: return a - b;
    case 2: return a * b;
    case 3: return a / b;
    default: return a % b;
    }
}

TEST(VarDataReference, ArithmeticOfMixedNumbersAgainstPython)
{
    Generator gen(20261126);
    std::vector<std::string> vLines;
    std::vector<st_VARDATA> vResults;
    auto add = [&](int nOp, const Operand& a, const Operand& b) {
        vLines.push_back(std::string(g_arOps[nOp]) + " " + a.m_strRef + " " + b.m_strRef);
        vResults.push_back(Apply(nOp, a.m_v, b.m_v));
    };
    for (int i = 0; i < 3000; ++i) {
        Operand a = gen.Any(), b = gen.Any();
        if (i % 10 == 0) b = IntOperand(0);  // zero divisors
        int nOp = (int)(gen.Next() % 5);
        // Integer quotients are compared bit for bit: keep both exact doubles.
        if (nOp == 3 && a.m_strRef[0] == 'i' && b.m_strRef[0] == 'i') {
            a = IntOperand(a.m_v.GetCompatibleBigInt() % (1LL << 52));
            b = IntOperand(b.m_v.GetCompatibleBigInt() % (1LL << 52));
        }
        add(nOp, a, b);
    }
    // Every pair of integer edges, where the result moves to decimals.
    const long long arEdges[] = {LLONG_MAX, LLONG_MIN, LLONG_MAX - 1, LLONG_MIN + 1, 1LL << 32, -(1LL << 32),
                                 INT_MAX, INT_MIN, 3037000500LL, -3037000500LL, 2, -1, 0};
    for (long long a : arEdges)
        for (long long b : arEdges)
            for (int nOp : {0, 1, 2, 4}) add(nOp, IntOperand(a), IntOperand(b));
    std::vector<std::string> vOut = RunReference(vLines);
    for (size_t i = 0; i < vLines.size(); ++i) ExpectResult(vResults[i], vOut[i], vLines[i]);
}

TEST(VarDataReference, DoubleTextAndIntegerReadsAgainstPython)
{
    Generator gen(77);
    std::vector<std::string> vLines;
    std::vector<double> vDoubles;
    std::vector<std::string> vDecimals;
    for (int i = 0; i < 500; ++i) {
        double d = gen.Double() / (1 + gen.Next() % 7) * (i % 50 == 0 ? 1e15 : 1.0);
        if (i % 100 == 1) d = 1e19 * (i % 200 == 1 ? 1 : -1);  // past the 64-bit range: saturates
        vDoubles.push_back(d);
        char sz[64];
        snprintf(sz, sizeof(sz), "%.17g", d);
        vLines.push_back(std::string("fmt ") + sz);
        vLines.push_back(std::string("trunc ") + sz);
    }
    for (int i = 0; i < 300; ++i) {
        std::string s = gen.Decimal();
        if (i % 3 == 0) s.back() = '5';  // ties round away from zero
        vDecimals.push_back(s);
        vLines.push_back("round " + s);
    }
    std::vector<std::string> vOut = RunReference(vLines);
    size_t n = 0;
    for (double d : vDoubles) {
        st_VARDATA v, t;
        v.Init();
        t.Init();
        v.SetData(d);
        ASSERT_EQ(v.GetCompatibleStringValue(nullptr, t), 0);
        int nLen = 0;
        const BYTE* p = t.GetBinaryData(nLen);
        EXPECT_EQ(std::string((const char*)p, (size_t)nLen), vOut[n]) << vLines[n];
        t.Free();
        ++n;
        EXPECT_EQ(v.GetCompatibleBigInt(), strtoll(vOut[n].c_str(), nullptr, 10)) << vLines[n];
        ++n;
    }
    for (const std::string& s : vDecimals) {
        // The same digits as a decimal value and as text give the same integer.
        st_VARDATA m, t;
        m.Init();
        t.Init();
        CTalvorDecimal::Convert2Decimal(s.c_str(), &m);
        ASSERT_EQ(t.SetData(s.c_str(), (int)s.size()), 0);
        long long llRef = strtoll(vOut[n].c_str(), nullptr, 10);
        EXPECT_EQ(m.GetCompatibleBigInt(), llRef) << vLines[n];
        EXPECT_EQ(t.GetCompatibleBigInt(), llRef) << vLines[n];
        t.Free();
        ++n;
    }
}

// A decimal whose reference text is what it holds, printed back: the
// parser keeps at most 36 digits, so a longer text is rounded first.
Operand HeldDecimalOperand(const std::string& s)
{
    Operand o;
    o.m_v.Init();
    CTalvorDecimal::Convert2Decimal(s.c_str(), &o.m_v);
    o.m_strRef = o.m_v.m_vt == TALVOR_VT_DECIMAL ? "m:" + DecimalText(o.m_v) : "";
    return o;
}

// The exact digits of a double as glibc prints them, without the zeros
// behind the last one.
std::string ExactText(double d)
{
    char sz[1500];
    snprintf(sz, sizeof(sz), "%.1100f", d);
    std::string s = sz;
    while (s.back() == '0') s.pop_back();
    if (s.back() == '.') s.pop_back();
    return s;
}

// Every hash entry of a value: inline, out of line, and the decimal class's.
void ExpectHashesAlike(const st_VARDATA& a, const st_VARDATA& b, const std::string& strWhat)
{
    long long ha = 11, hb = 11;
    a.CalcHashFactor(ha);
    b.CalcHashFactor(hb);
    EXPECT_EQ(ha, hb) << strWhat;
    EXPECT_EQ(a.HashOther(11), b.HashOther(11)) << strWhat;
    EXPECT_EQ(CTalvorDecimalBin::CalcHashFactor(&a), CTalvorDecimalBin::CalcHashFactor(&b)) << strWhat;
}

// Long longs, doubles and decimals at the edges of a double's precision
// (2^53 and around, 2^63, 2^64, -0.0, subnormals, 17 significant digits,
// fractions no 36 digits hold) against Python's exact order of the same
// values: no side is rounded to the other's type, and every pair that is
// equal hashes alike in every hash entry.
TEST(VarDataReference, ExactOrderAndHashOfWideNumbersAgainstPython)
{
    const long long TWO_53 = 1LL << 53;
    std::vector<long long> vInts = {0, 1, -1, TWO_53 - 1, TWO_53, TWO_53 + 1, -TWO_53 - 1, (1LL << 62) + 1,
                                    LLONG_MAX, LLONG_MIN, LLONG_MIN + 1, 1234567890123456789LL, 4503599627370497LL};
    std::mt19937_64 rng(53);
    for (int i = 0; i < 24; ++i) {
        long long ll = (long long)(rng() >> (rng() % 12));
        vInts.push_back(i % 2 ? ll : (long long)(0ULL - (unsigned long long)ll));
    }
    std::vector<double> vDoubles = {0.0, -0.0, 1.0, 0.1, 0.5, 1.0 / 3, 0.30000000000000004, 1.0000000000000002,
                                    123456789.12345679, 9007199254740992.0, 9007199254740994.0, -9007199254740992.0,
                                    9223372036854775808.0, -9223372036854775808.0, 18446744073709551616.0, 1e20,
                                    1e300, -1e300, 5e-324, -5e-324, 2.2250738585072014e-308, 1.7976931348623157e308,
                                    HUGE_VAL, -HUGE_VAL, 4503599627370496.5, 0.1 + 0.2};
    for (long long ll : vInts) {
        vDoubles.push_back((double)ll);
        vDoubles.push_back(std::nextafter((double)ll, HUGE_VAL));
    }
    for (int i = 0; i < 40; ++i) {
        double dMantissa = (double)(rng() >> 11);  // 53 bits
        int nExp = (int)(rng() % 161) - 100;
        vDoubles.push_back(std::ldexp(dMantissa, nExp) * (i % 2 ? -1 : 1));
        vDoubles.push_back(std::ldexp((double)(rng() >> (24 + rng() % 30)), -(int)(rng() % 40)));
    }
    std::vector<std::string> vDecimalTexts = {"0", "-0.000", "1.0", "0.1", "0.100000000000000006", "0.3",
                                              "9007199254740993", "9007199254740992.000", "9223372036854775808",
                                              "-9223372036854775808", "9223372036854775807", "18446744073709551616",
                                              "1E20", "-1E300", "0.30000000000000004",
                                              "0.3000000000000000444089209850062616", "4503599627370496.5"};
    // The exact digits of every double that 36 digits hold, the others cut.
    for (double d : vDoubles)
        if (std::isfinite(d)) vDecimalTexts.push_back(ExactText(d));

    std::vector<Operand> vValues;
    for (long long ll : vInts) vValues.push_back(IntOperand(ll));
    for (double d : vDoubles) vValues.push_back(DoubleOperand(d));
    for (const std::string& s : vDecimalTexts) {
        Operand o = HeldDecimalOperand(s);
        if (!o.m_strRef.empty()) vValues.push_back(o);
    }
    std::vector<std::string> vLines;
    for (const Operand& a : vValues)
        for (const Operand& b : vValues) vLines.push_back("cmp " + a.m_strRef + " " + b.m_strRef);
    std::vector<std::string> vOut = RunReference(vLines);
    size_t n = 0;
    int nEqualAcrossTypes = 0;
    for (const Operand& a : vValues) {
        // One value, every entry: the inline hash is the out-of-line one.
        unsigned long long u = 3;
        a.m_v.CalcHashFactorEx(u);
        EXPECT_EQ(u, a.m_v.HashOther(3)) << a.m_strRef;
        for (const Operand& b : vValues) {
            const std::string& strLine = vLines[n];
            int nRef = atoi(vOut[n++].c_str());
            // Two doubles compare by their difference within a tolerance,
            // which is no exact order (and no number for two infinities).
            double dDiff = a.m_v.m_dblValue - b.m_v.m_dblValue;
            if (a.m_v.m_vt == TALVOR_VT_DOUBLE && b.m_v.m_vt == TALVOR_VT_DOUBLE && !(std::fabs(dDiff) > 1e-8) &&
                dDiff != 0)
                continue;
            EXPECT_EQ(a.m_v.Compare(b.m_v), nRef) << strLine;
            EXPECT_EQ(a.m_v == b.m_v, nRef == 0) << strLine;
            EXPECT_EQ(a.m_v != b.m_v, nRef != 0) << strLine;
            EXPECT_EQ(a.m_v < b.m_v, nRef < 0) << strLine;
            EXPECT_EQ(a.m_v <= b.m_v, nRef <= 0) << strLine;
            EXPECT_EQ(a.m_v > b.m_v, nRef > 0) << strLine;
            EXPECT_EQ(a.m_v >= b.m_v, nRef >= 0) << strLine;
            if (nRef != 0) continue;
            ExpectHashesAlike(a.m_v, b.m_v, strLine);
            nEqualAcrossTypes += a.m_strRef[0] != b.m_strRef[0];
        }
    }
    EXPECT_GT(nEqualAcrossTypes, 200) << "the edges hold equal values of different types";
}

TEST(VarDataReference, DatesPlusAndMinusDaysAgainstPython)
{
    Generator gen(1899);
    auto date = [&]() {
        BYTE bDay = (BYTE)(1 + gen.Next() % 28), bMonth = (BYTE)(1 + gen.Next() % 12);
        return TALVORDATE{bDay, bMonth, (USHORT)(1 + gen.Next() % 9999)};
    };
    auto ymd = [](const TALVORDATE& d) {
        return std::to_string(d.m_sYear) + " " + std::to_string(d.m_bMonth) + " " + std::to_string(d.m_bDay);
    };
    // Per case: a date plus days, a date and time text plus quarter days,
    // and a date minus a date.
    std::vector<st_VARDATA> vResults;
    std::vector<std::string> vLines;
    for (int i = 0; i < 400; ++i) {
        TALVORDATE stDate = date(), stOther = date();
        int nDays = (int)(gen.Next() % 200001) - 100000, nQuarters = (int)(gen.Next() % 40001) - 20000;
        char sz[64];
        snprintf(sz, sizeof(sz), "%04u-%02u-%02u %02u:%02u:%02u", 1000 + gen.Next() % 9000, 1 + gen.Next() % 12,
                 1 + gen.Next() % 28, gen.Next() % 24, gen.Next() % 60, gen.Next() % 60);
        vLines.push_back("dateadd " + ymd(stDate) + " " + std::to_string(nDays));
        vLines.push_back(std::string("dtadd ") + sz + " " + std::to_string(nQuarters));
        vLines.push_back("datesub " + ymd(stDate) + " " + ymd(stOther));
        st_VARDATA d, t, o;
        for (st_VARDATA* p : {&d, &t, &o}) p->Init();
        d.SetData(stDate);
        o.SetData(stOther);
        // A text that parses as a date makes the sum a date and time.
        ASSERT_EQ(t.SetData(sz, (int)strlen(sz)), 0);
        vResults.push_back(d + IntOperand(nDays).m_v);
        vResults.push_back(t + DoubleOperand(nQuarters / 4.0).m_v);
        vResults.push_back(d - o);
        t.Free();
    }
    std::vector<std::string> vOut = RunReference(vLines);
    const BYTE arTypes[3] = {TALVOR_VT_DATE, TALVOR_VT_DATETIME, TALVOR_VT_DOUBLE};
    for (size_t n = 0; n < vLines.size(); ++n) {
        SCOPED_TRACE(vLines[n]);
        const st_VARDATA& r = vResults[n];
        if (vOut[n] == "null") {
            EXPECT_EQ(Val(r.m_vt), TALVOR_VT_NULL);
            continue;
        }
        ASSERT_EQ(Val(r.m_vt), arTypes[n % 3]);
        char sz[32];
        if (n % 3 == 0) CTalvorDate::FormatDate(r.m_stDate, sz);
        if (n % 3 == 1) CTalvorDate::FormatDateTime(r.m_dblValue, sz, 0);
        if (n % 3 == 2) EXPECT_EQ(Val(r.m_dblValue), strtod(vOut[n].c_str(), nullptr));
        else EXPECT_EQ(std::string(sz), vOut[n]);
    }
}


// Input lines: "<op> <a> <b> <hex of the text>"; the answer is the hex of
// the result's UTF-8 bytes, or "-" for an empty text.
const char* g_szTextReference = R"PY(
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

std::string Hex(const std::string& s) { return s.empty() ? "-" : talvortest::HexOf(s); }

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
    std::vector<std::string> vOut = talvortest::RunPythonReference(g_szTextReference, vLines);
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
    EXPECT_EQ(Val(n.m_vt), TALVOR_VT_NULL);
    st_VARDATA v;
    v.Init();
    v.SetData(12345LL);
    ASSERT_EQ(v.Reverse(&pool), 0);
    EXPECT_EQ(Bytes(v), "54321");
    v.SetData(2.5);
    ASSERT_EQ(v.Link(&pool, n), 0);
    EXPECT_EQ(Val(v.m_vt), TALVOR_VT_NULL) << "NULL joined is NULL";
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
