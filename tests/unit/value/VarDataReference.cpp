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
    return int(s) if k == "i" else float(s) if k == "d" else Decimal(s)

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

# Text functions on UTF-8 text given in hex ("-": empty); the answer is the
# hex of the result's UTF-8 bytes, or "-" for an empty text.
def text(op, a, b, s):
    if op == "substr":
        start = a - 1 if a > 0 else len(s) + a
        r = "" if a == 0 or b <= 0 or start < 0 else s[start:start + b]
    elif op == "right": r = s[len(s) - a:] if 0 < a <= len(s) else (s if a > len(s) else "")
    elif op == "left": r = s[:a] if a > 0 else ""
    elif op == "rev": r = s[::-1]
    elif op in ("up", "low"):
        r = "".join((c.upper() if op == "up" else c.lower()) if c.isascii() and c.isalpha() else c for c in s)
    else: r = s + s[:a]
    return r.encode("utf-8").hex() or "-"

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
            print("%f" % float(f[1]))
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
        elif op in ("substr", "right", "left", "rev", "up", "low", "link"):
            print(text(op, int(f[1]), int(f[2]), bytes.fromhex(f[3]).decode("utf-8") if f[3] != "-" else ""))
        else:
            print(arith(op, val(f[1]), val(f[2]), f[1][0], f[2][0]))
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
struct Operand { std::string m_strRef; st_VARDATA m_v; };

Operand IntOperand(long long ll)
{
    Operand o{"i:" + std::to_string(ll), {}};
    o.m_v.Init();
    if (ll >= INT_MIN && ll <= INT_MAX && (ll & 1)) o.m_v.SetData((int)ll);  // both widths take part
    else o.m_v.SetData(ll);
    return o;
}

Operand DoubleOperand(double d)
{
    char sz[64];
    snprintf(sz, sizeof(sz), "d:%.17g", d);
    Operand o{sz, {}};
    o.m_v.Init();
    o.m_v.SetData(d);
    return o;
}

Operand DecimalOperand(const std::string& s)
{
    Operand o{"m:" + s, {}};
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
        const unsigned nKind = m_rng() % 3;
        return nKind == 0 ? IntOperand(Int()) : nKind == 1 ? DoubleOperand(Double()) : DecimalOperand(Decimal());
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
    const char c = strRef[0];
    ASSERT_NE(std::string("nidmq").find(c), std::string::npos) << "unknown answer";
    const std::string strValue = strRef.size() > 2 ? strRef.substr(2) : "";
    ASSERT_EQ(Val(r.m_vt), c == 'n'   ? TALVOR_VT_NULL
                           : c == 'i' ? TALVOR_VT_BIGINT
                           : c == 'd' ? TALVOR_VT_DOUBLE
                                      : TALVOR_VT_DECIMAL);
    if (c == 'i') {
        EXPECT_EQ(Val(r.m_llValue), strtoll(strValue.c_str(), nullptr, 10));
    }
    if (c == 'd') {
        EXPECT_EQ(Val(r.m_dblValue), strtod(strValue.c_str(), nullptr));
    }
    if (c == 'm') {
        st_VARDATA ref;
        ASSERT_EQ(CTalvorDecimal::Convert2Decimal(strValue.c_str(), &ref), 0);
        EXPECT_EQ(CTalvorDecimal::Compare(&r, &ref), 0) << "ours " << DecimalText(r);
    }
    if (c == 'q') {
        // A quotient carries 36 digits, rounded half up as the reference's;
        // compared as text, since the parser keeps fewer fraction digits.
        st_VARDATA full = r;
        full.m_bPrecison = 0;
        EXPECT_EQ(TrimZeros(DecimalText(full)), TrimZeros(strValue));
    }
}

const char* const g_arOps[] = {"add", "sub", "mul", "div", "mod"};

st_VARDATA Apply(int nOp, const st_VARDATA& a, const st_VARDATA& b)
{
    return nOp == 0 ? a + b : nOp == 1 ? a - b : nOp == 2 ? a * b : nOp == 3 ? a / b : a % b;
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

// Doubles printed ("%f"), as text values (its zeros behind the point cut)
// and their integer parts; decimals and their text rounded to integers;
// integers printed.
TEST(VarDataReference, NumbersAsTextAndIntegersAgainstPython)
{
    Generator gen(77);
    std::mt19937_64 rng(8);
    std::vector<std::string> vLines;
    std::vector<double> vDoubles;
    std::vector<std::string> vDecimals;
    for (int i = 0; i < 500; ++i) {
        double d = gen.Double() / (1 + gen.Next() % 7) * (i % 50 == 0 ? 1e15 : 1.0);
        if (i % 100 == 1) d = 1e19 * (i % 200 == 1 ? 1 : -1);  // past the 64-bit range: saturates
        vDoubles.push_back(d);
        // Short binary fractions, and integers.
        d = (double)((long long)(rng() % 40000001) - 20000000) / (double)(1 << (rng() % 6));
        vDoubles.push_back(i % 40 == 0 ? (double)(long long)(rng() % 1000000) : d);
    }
    for (double d : vDoubles) {
        char sz[64];
        snprintf(sz, sizeof(sz), "%.17g", d);
        for (const char* lpszOp : {"fmt ", "trunc "}) vLines.push_back(lpszOp + std::string(sz));
    }
    for (int i = 0; i < 300; ++i) {
        std::string s = gen.Decimal();
        if (i % 3 == 0) s.back() = '5';  // ties round away from zero
        vDecimals.push_back(s);
        vLines.push_back("round " + s);
    }
    std::vector<std::string> vOut = RunReference(vLines);
    size_t n = 0;
    for (size_t i = 0; i < vDoubles.size(); ++i) {
        const double d = vDoubles[i];
        SCOPED_TRACE(vLines[n]);
        st_VARDATA v = DoubleOperand(d).m_v, t;
        t.Init();
        char sz[512];
        int nLen = ConvertVarData2String(v, nullptr);
        ASSERT_LT(nLen, (int)sizeof(sz));
        EXPECT_EQ(ConvertVarData2String(v, sz), nLen);
        EXPECT_EQ(std::string(sz), vOut[n]);
        ASSERT_EQ(v.GetCompatibleStringValue(nullptr, t), 0);
        const BYTE* p = t.GetBinaryData(nLen);
        EXPECT_EQ(std::string((const char*)p, (size_t)nLen), TrimZeros(vOut[n]));
        t.Free();
        EXPECT_EQ(v.GetCompatibleBigInt(), strtoll(vOut[n + 1].c_str(), nullptr, 10));
        n += 2;
    }
    for (const std::string& s : vDecimals) {
        // The same digits as a decimal value and as text give the same integer.
        st_VARDATA m = DecimalOperand(s).m_v, t;
        t.Init();
        ASSERT_EQ(t.SetData(s.c_str(), (int)s.size()), 0);
        long long llRef = strtoll(vOut[n].c_str(), nullptr, 10);
        EXPECT_EQ(m.GetCompatibleBigInt(), llRef) << vLines[n];
        EXPECT_EQ(t.GetCompatibleBigInt(), llRef) << vLines[n];
        t.Free();
        ++n;
    }
    for (int i = 0; i < 400; ++i) {
        const long long ll = i == 0 ? LLONG_MIN : (long long)rng() >> (rng() % 64);
        const std::string strRef = std::to_string(ll);
        char sz[32];
        EXPECT_EQ(ConvertVarData2String(IntOperand(ll).m_v, sz), (int)strRef.size());
        EXPECT_EQ(std::string(sz), strRef);
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
    return TrimZeros(sz);
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
    std::vector<double> vDoubles = {0.0, -0.0, 0.1, 0.30000000000000004, 1.0000000000000002, 9007199254740992.0,
                                    9007199254740994.0, -9223372036854775808.0, 18446744073709551616.0, 1e20, -1e300,
                                    5e-324, 2.2250738585072014e-308, 1.7976931348623157e308, HUGE_VAL, -HUGE_VAL,
                                    4503599627370496.5};
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
            const bool arOurs[] = {a.m_v == b.m_v, a.m_v != b.m_v, a.m_v < b.m_v,
                                   a.m_v <= b.m_v, a.m_v > b.m_v, a.m_v >= b.m_v};
            const bool arRef[] = {nRef == 0, nRef != 0, nRef < 0, nRef <= 0, nRef > 0, nRef >= 0};
            for (int k = 0; k < 6; ++k) EXPECT_EQ(arOurs[k], arRef[k]) << strLine << " operator " << k;
            if (nRef != 0) continue;
            // Every hash entry: inline, out of line, and the decimal class's.
            long long ha = 11, hb = 11;
            a.m_v.CalcHashFactor(ha);
            b.m_v.CalcHashFactor(hb);
            EXPECT_EQ(ha, hb) << strLine;
            EXPECT_EQ(a.m_v.HashOther(11), b.m_v.HashOther(11)) << strLine;
            EXPECT_EQ(CTalvorDecimalBin::CalcHashFactor(&a.m_v), CTalvorDecimalBin::CalcHashFactor(&b.m_v)) << strLine;
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
    std::vector<std::string> vLines, vOurs;
    const std::string arOps[] = {"substr", "right", "left", "rev", "up", "low", "link"};
    for (int i = 0; i < 1500; ++i) {
        const std::string& strOp = arOps[rng() % 7];
        int a = (int)(rng() % 31) - 15;
        const int b = (int)(rng() % 31) - 5;
        if (strOp == "link") a = (int)(rng() % 14);
        const std::string strText = RandomText(rng);
        vLines.push_back(strOp + " " + std::to_string(a) + " " + std::to_string(b) + " " + Hex(strText));
        SCOPED_TRACE(vLines.back());
        CTalvorBufferPool pool;
        st_VARDATA v;
        v.Init();
        // Owned text half the time, pool text the other half.
        ASSERT_EQ(i % 2 ? v.SetData(strText.c_str(), (int)strText.size())
                        : v.SetData(&pool, strText.c_str(), (int)strText.size()),
                  0);
        CTalvorBufferPool* pPool = i % 3 ? &pool : nullptr;
        int nResult = 0;
        if (strOp == "substr") nResult = v.SubString(pPool, a, b);
        else if (strOp == "right") nResult = v.Right(pPool, a);
        else if (strOp == "left") nResult = v.CharTrunc(pPool, a);
        else if (strOp == "rev") nResult = v.Reverse(pPool);
        else if (strOp == "up") nResult = v.Upper(pPool);
        else if (strOp == "low") nResult = v.Lower(pPool);
        else {
            st_VARDATA head;
            head.Init();
            head.SetData(strText.c_str(), (int)strText.size());
            ASSERT_EQ(head.CharTrunc(nullptr, a), 0);
            nResult = v.Link(pPool, head);
            head.Free();
        }
        EXPECT_EQ(nResult, 0);
        vOurs.push_back(Hex(Bytes(v)));
        v.Free();
    }
    std::vector<std::string> vOut = RunReference(vLines);
    for (size_t i = 0; i < vLines.size(); ++i) EXPECT_EQ(vOurs[i], vOut[i]) << vLines[i];
}

// What Python's str has no counterpart for: NULL, numbers taken as text, a
// stray continuation byte, wildcards.
TEST(VarDataText, NullNumbersStrayBytesAndWildcards)
{
    CTalvorBufferPool pool;
    st_VARDATA n, v;
    n.Init();
    v.Init();
    n.SetNull();
    EXPECT_EQ(n.SubString(&pool, 1, 2), 0);
    EXPECT_EQ(Val(n.m_vt), TALVOR_VT_NULL);
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
    v.AttachString((char*)"%%", 2, TALVOR_VT_TEXT);
    EXPECT_TRUE(v.IsAllWildcard());
    v.AttachString((char*)"%a%", 3, TALVOR_VT_TEXT);
    EXPECT_FALSE(v.IsAllWildcard());
}

} // namespace
