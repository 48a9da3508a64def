// Typed values against Python on generated operands: arithmetic of integers
// (moving to decimals on overflow), doubles and decimals, and the order of
// numbers across types. Where our rules are our own the reference applies
// them too: integer division gives a double, a remainder takes the
// dividend's sign, a zero divisor or a result past the double range is
// NULL. Then the text members where they read bytes of their own.

#include "PackedValue.h"
#include "PythonReference.h"
#include "TalvorBufferPool.h"
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
import sys, math
from decimal import Decimal, Context, ROUND_HALF_UP
BIG = Context(prec=200, Emax=999999, Emin=-999999)
C36 = Context(prec=36, Emax=999999, Emin=-999999, rounding=ROUND_HALF_UP)
I64 = 2**63
def val(t): k, s = t.split(":", 1); return int(s) if k == "i" else float(s) if k == "d" else Decimal(s)

def arith(op, a, b, ka, kb):
    if op in ("div", "mod") and b == 0: return "null"
    if "d" in (ka, kb):
        x, y = float(a), float(b)
        if op == "mod":
            # The remainder goes through decimals: an integer enters exactly.
            r = float(BIG.remainder(*(Decimal(v) if k == "i" else Decimal(repr(float(v))) for v, k in ((a, ka), (b, kb)))))
        else:
            try: r = {"add": x + y, "sub": x - y, "mul": x * y, "div": x / y if op == "div" else 0}[op]
            except OverflowError: return "null"
        return "null" if math.isinf(r) or math.isnan(r) else "d " + repr(r)
    if ka == "i" and kb == "i":
        if op == "div": return "d " + repr(a / b)
        if op == "mod": r = abs(a) % abs(b); return "i " + str(-r if a < 0 else r)
        r = {"add": a + b, "sub": a - b, "mul": a * b}[op]
        return "i " + str(r) if -I64 <= r < I64 else "m " + str(r) if abs(r) < 10**36 else "skip"
    x, y = Decimal(a), Decimal(b)
    if op == "div": return "q " + format(C36.divide(x, y), "f")
    return "m " + str({"add": BIG.add, "sub": BIG.subtract, "mul": BIG.multiply, "mod": BIG.remainder}[op](x, y))

for line in sys.stdin:
    f = line.split()
    op = f[0]
    try:
        if op == "cmp":
            a, b = [Decimal(x) if isinstance(x, float) else x for x in (val(f[1]), val(f[2]))]
            print((a > b) - (a < b))
        else: print(arith(op, val(f[1]), val(f[2]), f[1][0], f[2][0]))
    except OverflowError:
        print("null")
    sys.stdout.flush()
)PY";

std::vector<std::string> RunReference(const std::vector<std::string>& vLines) {
    std::vector<std::string> vOut = talvortest::RunPythonReference(g_szReference, vLines);
    EXPECT_EQ(vOut.size(), vLines.size()) << "the reference did not answer every line";
    vOut.resize(vLines.size());
    return vOut;
}

// An operand as the reference reads it ("i:12", "d:0.25", "m:1.5") and as
// a typed value.
struct Operand { std::string m_strRef; st_VARDATA m_v; };

Operand IntOperand(long long ll) {
    Operand o{"i:" + std::to_string(ll), {}};
    o.m_v.Init();
    if (ll >= INT_MIN && ll <= INT_MAX && (ll & 1)) o.m_v.SetData((int)ll);  // both widths take part
    else o.m_v.SetData(ll);
    return o;
}
Operand DoubleOperand(double d) {
    char sz[64];
    snprintf(sz, sizeof(sz), "d:%.17g", d);
    Operand o{sz, {}};
    o.m_v.Init();
    o.m_v.SetData(d);
    return o;
}
Operand DecimalOperand(const std::string& s) {
    Operand o{"m:" + s, {}};
    o.m_v.Init();
    EXPECT_EQ(CTalvorDecimal::Convert2Decimal(s.c_str(), &o.m_v), 0) << s;
    return o;
}

class Generator {
public:
    explicit Generator(unsigned nSeed) : m_rng(nSeed) {}
    // Small, around the 32-bit limits, anywhere in 64 bits, within a double's 52 bits.
    long long Int() {
        const unsigned nKind = m_rng() % 4;
        return nKind == 0   ? (long long)(m_rng() % 2001) - 1000
               : nKind == 1 ? (long long)m_rng() - (1LL << 31)
               : nKind == 2 ? (long long)(((unsigned long long)m_rng() << 32) | m_rng())
                            : (long long)(m_rng() % (1ULL << 52)) - (1LL << 51);
    }
    // Exact in binary and in short decimal text.
    double Double() { return ((double)((long long)(m_rng() % 200001) - 100000)) / 8.0 * (m_rng() % 3 == 0 ? 1e6 : 1.0); }
    std::string Decimal() {
        char sz[64];
        long long nInt = (long long)(m_rng() % 10000000000ULL);
        snprintf(sz, sizeof(sz), "%s%lld.%0*u", m_rng() % 2 ? "-" : "", m_rng() % 3 ? nInt % 100000 : nInt,
                 (int)(1 + m_rng() % 4), (unsigned)(m_rng() % 10000));
        return sz;
    }
    Operand Any() {
        const unsigned nKind = m_rng() % 3;
        return nKind == 0 ? IntOperand(Int()) : nKind == 1 ? DoubleOperand(Double()) : DecimalOperand(Decimal());
    }
    unsigned Next() { return m_rng(); }

private:
    std::mt19937 m_rng;
};

std::string DecimalText(const st_VARDATA& v) {
    char sz[TALVOR_DECIMAL_TEXT_BYTES];
    CTalvorDecimal::PrintDecimal(&v, sz);
    return sz;
}

// The digits without trailing zeros of the fraction, nor a point left last.
std::string TrimZeros(std::string s) {
    if (s.find('.') == std::string::npos) return s;
    while (s.back() == '0') s.pop_back();
    if (s.back() == '.') s.pop_back();
    return s;
}

// Whether our result is the reference's ("i 5", "d 0.5", "m 1.25",
// "q <36-digit quotient>", "null").
void ExpectResult(const st_VARDATA& r, const std::string& strRef, const std::string& strWhat) {
    SCOPED_TRACE(strWhat + " -> reference " + strRef);
    if (strRef == "skip") return;
    const char c = strRef[0];
    ASSERT_NE(std::string("nidmq").find(c), std::string::npos) << "unknown answer";
    const std::string strValue = strRef.size() > 2 ? strRef.substr(2) : "";
    ASSERT_EQ(Val(r.m_vt), c == 'n' ? TALVOR_VT_NULL : c == 'i' ? TALVOR_VT_BIGINT : c == 'd' ? TALVOR_VT_DOUBLE : TALVOR_VT_DECIMAL);
    if (c == 'i') { EXPECT_EQ(Val(r.m_llValue), strtoll(strValue.c_str(), nullptr, 10)); }
    if (c == 'd') { EXPECT_EQ(Val(r.m_dblValue), strtod(strValue.c_str(), nullptr)); }
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

st_VARDATA Apply(int nOp, const st_VARDATA& a, const st_VARDATA& b) {
    return nOp == 0 ? a + b : nOp == 1 ? a - b : nOp == 2 ? a * b : nOp == 3 ? a / b : a % b;
}

TEST(VarDataReference, ArithmeticOfMixedNumbersAgainstPython) {
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

// A decimal whose reference text is what it holds, printed back: the
// parser keeps at most 36 digits, so a longer text is rounded first.
Operand HeldDecimalOperand(const std::string& s) {
    Operand o;
    o.m_v.Init();
    CTalvorDecimal::Convert2Decimal(s.c_str(), &o.m_v);
    o.m_strRef = o.m_v.m_vt == TALVOR_VT_DECIMAL ? "m:" + DecimalText(o.m_v) : "";
    return o;
}

// The exact digits of a double as glibc prints them, without the zeros
// behind the last one.
std::string ExactText(double d) {
    char sz[1500];
    snprintf(sz, sizeof(sz), "%.1100f", d);
    return TrimZeros(sz);
}

// Long longs, doubles and decimals at the edges of a double's precision
// (2^53 and around, 2^63, 2^64, -0.0, subnormals, 17 significant digits,
// fractions no 36 digits hold) against Python's exact order of the same
// values: no side is rounded to the other's type, and every pair that is
// equal hashes alike in every hash entry.
TEST(VarDataReference, ExactOrderAndHashOfWideNumbersAgainstPython) {
    const long long TWO_53 = 1LL << 53;
    std::vector<long long> vInts = {0, 1, -1, TWO_53 - 1, TWO_53, TWO_53 + 1, -TWO_53 - 1, (1LL << 62) + 1,
                                    LLONG_MAX, LLONG_MIN, LLONG_MIN + 1, 1234567890123456789LL, 4503599627370497LL};
    std::mt19937_64 rng(53);
    for (int i = 0; i < 24; ++i) vInts.push_back((long long)(rng() >> (rng() % 12)) * (i % 2 ? 1 : -1));
    std::vector<double> vDoubles = {0.0, -0.0, 0.1, 0.30000000000000004, 1.0000000000000002, 9007199254740992.0,
                                    9007199254740994.0, -9223372036854775808.0, 18446744073709551616.0, 1e20, -1e300,
                                    5e-324, 2.2250738585072014e-308, 1.7976931348623157e308, HUGE_VAL, -HUGE_VAL,
                                    4503599627370496.5};
    for (long long ll : vInts) vDoubles.insert(vDoubles.end(), {(double)ll, std::nextafter((double)ll, HUGE_VAL)});
    for (int i = 0; i < 80; ++i)  // 53 bits anywhere, and short fractions
        vDoubles.push_back(i % 2 ? std::ldexp((double)(rng() >> 11), (int)(rng() % 161) - 100) * (i % 4 == 1 ? -1 : 1)
                                 : std::ldexp((double)(rng() >> (24 + rng() % 30)), -(int)(rng() % 40)));
    std::vector<std::string> vDecimalTexts = {"-0.000", "0.100000000000000006", "9007199254740993",
                                              "9223372036854775808", "1E20", "0.3000000000000000444089209850062616"};
    // The exact digits of every double that 36 digits hold, the others cut.
    for (double d : vDoubles)
        if (std::isfinite(d)) vDecimalTexts.push_back(ExactText(d));

    std::vector<Operand> vValues;
    for (long long ll : vInts) vValues.push_back(IntOperand(ll));
    for (double d : vDoubles) vValues.push_back(DoubleOperand(d));
    for (const std::string& s : vDecimalTexts)
        if (Operand o = HeldDecimalOperand(s); !o.m_strRef.empty()) vValues.push_back(o);
    std::vector<std::string> vLines;
    for (const Operand& a : vValues)
        for (const Operand& b : vValues) vLines.push_back("cmp " + a.m_strRef + " " + b.m_strRef);
    std::vector<std::string> vOut = RunReference(vLines);
    size_t n = 0;
    int nEqualAcrossTypes = 0;
    for (const Operand& a : vValues) {
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
            EXPECT_TRUE((a.m_v == b.m_v) == (nRef == 0) && (a.m_v < b.m_v) == (nRef < 0) && (a.m_v >= b.m_v) == (nRef >= 0))
                << strLine;
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

// A stray continuation byte at the end is kept, not read past.
TEST(VarDataText, AStrayContinuationByteIsKept) {
    CTalvorBufferPool pool;
    st_VARDATA v;
    v.Init();
    v.AttachString((char*)"ab\xA9", 3, TALVOR_VT_TEXT);
    ASSERT_EQ(v.Reverse(&pool), 0);
    EXPECT_EQ(Val(v.m_nStrLen), 3);
}

} // namespace
