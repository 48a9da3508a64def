// Decimal numbers against Python's decimal module (libmpdec), run at test
// time on generated values: 36 digits, rounding half up. Where our rules
// differ from plain 36-digit arithmetic the reference applies the same rule
// through libmpdec (quantize), so the arithmetic and the rounding are still
// someone else's:
//   - parsing cuts a negative value instead of rounding, and keeps at most 32
//     fraction digits beside integer digits;
//   - a sum whose operands cannot share one scale in 36 digits rounds both
//     to the scale of the larger integer part first;
//   - a product keeps at most max(9, scale a, scale b) places;
//   - a quotient always carries 36 digits (compared by value);
//   - a zero sum has scale 0 and sign 0; zero prints without a sign.

#include "PythonReference.h"
#include "TalvorDecimal.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

const char* g_szReference = R"PY(
import sys
from decimal import Decimal, Context, ROUND_HALF_UP, ROUND_DOWN, InvalidOperation
BIG = Context(prec=500, Emax=999999, Emin=-999999, rounding=ROUND_HALF_UP)
C36 = Context(prec=36, Emax=999999, Emin=-999999, rounding=ROUND_HALF_UP)
def coef(d): return int("".join(map(str, d.as_tuple().digits)) or "0")
def scale(d): return -d.as_tuple().exponent
def out(d): return "null" if d is None else "%d %d %d" % (d.as_tuple().sign, coef(d), scale(d))
def ndig(d): return len(str(coef(d))) if coef(d) else 0
def inrange(d): return d is not None and -127 <= scale(d) <= 127
def q(d, s, rnd=ROUND_HALF_UP): return d.quantize(Decimal(1).scaleb(-s), rounding=rnd, context=BIG)

def parse(text):
    mant, _, e = text.strip().lower().partition('e')
    rnd = ROUND_DOWN if mant.startswith('-') else ROUND_HALF_UP
    ip, _, fp = mant.lstrip('+-').partition('.')
    nint = len(ip.lstrip('0'))
    if nint >= 1 and nint < 4 and len(fp) > 32:
        r = q(BIG.create_decimal(mant), 32, rnd)
    else:
        r = Context(prec=36, Emax=999999, Emin=-999999, rounding=rnd).create_decimal(mant)
    r = r.scaleb(int(e) if e else 0, context=BIG)
    return r if inrange(r) else None

def add(a, b):
    sa, sb = scale(a), scale(b)
    ia, ib = ndig(a) - sa, ndig(b) - sb
    if sa != sb and not (sa > sb and sa + ib <= 36) and not (sb > sa and sb + ia <= 36):
        s = 36 - max(ia, ib)
        if s > 127: return Decimal(0)
        a, b = q(a, s), q(b, s)
    exact = BIG.add(a, b)
    if exact == 0: return exact if a == 0 and b == 0 and a.is_signed() == b.is_signed() else Decimal(0)
    r = C36.plus(exact)
    return r if inrange(r) else None

def mul(a, b):
    sa, sb = scale(a), scale(b)
    exact = BIG.multiply(a, b)
    r = q(exact, min(sa + sb, max(9, sa, sb)))
    if ndig(r) > 36:
        r = C36.plus(exact)
        if exact.is_signed() and not r.is_signed(): r = -r
    if scale(r) > 127: return Decimal(0)
    return r if inrange(r) else None

def divide(a, b):
    r = C36.divide(a, b)
    if not (-127 <= 35 - r.adjusted() <= 127): return "null|"
    p = format(q(r, 9 if r.adjusted() >= 0 else 8 - r.adjusted()), 'f')
    if '.' in p: p = p.rstrip('0').rstrip('.')
    return out(r.normalize(BIG)) + "|" + p

def zoom(a, s, rnd):
    r = q(a, int(s), rnd)
    return out(r if ndig(r) <= 36 else None)

def text(a):
    p = format(a, 'f')
    return p[1:] if a == 0 and p.startswith('-') else p

def int64(a, rnd): return max(-2**63, min(2**63 - 1, int(a.quantize(Decimal(1), rounding=rnd, context=BIG))))

D, RND = Decimal, {"1": ROUND_HALF_UP, "0": ROUND_DOWN}
OPS = {"parse": lambda f: out(parse(f[1])), "add": lambda f: out(add(D(f[1]), D(f[2]))),
       "sub": lambda f: out(add(D(f[1]), D(f[2]).copy_negate())), "mul": lambda f: out(mul(D(f[1]), D(f[2]))),
       "div": lambda f: divide(D(f[1]), D(f[2])),
       "cmp": lambda f: int(BIG.compare(D(f[1]), D(f[2]))), "zoom": lambda f: zoom(D(f[1]), f[2], RND[f[3]]),
       "print": lambda f: text(D(f[1])), "int64": lambda f: int64(D(f[1]), RND[f[2]])}
for line in sys.stdin:
    f = line.rstrip("\n").split("|")
    try:
        print(OPS[f[0]](f))
    except (InvalidOperation, ZeroDivisionError):
        print("invalid")
    sys.stdout.flush()
)PY";

// Runs the reference over the lines; one answer per line.
std::vector<std::string> RunReference(const std::vector<std::string>& vLines)
{
    std::vector<std::string> vOut = talvortest::RunPythonReference(g_szReference, vLines);
    EXPECT_EQ(vOut.size(), vLines.size()) << "the reference did not answer every line";
    return vOut.resize(vLines.size()), vOut;
}

// "sign coefficient scale" of a value, or "null", as the reference writes it;
// bNormal moves trailing zeros into the scale, for values whose digit count
// is a rule of its own (quotients).
std::string Describe(const st_VARDATA& v, bool bNormal = false)
{
    if (v.m_vt != TALVOR_VT_DECIMAL) return "null";
    std::string strDigits;
    char szLimb[16];
    for (int i = TALVOR_DECIMAL_LIMBS - 1; i >= 0; --i) {
        int nLimb = i < v.m_bValid ? v.m_arDecimalData[i] : 0;
        snprintf(szLimb, sizeof(szLimb), strDigits.empty() ? "%d" : "%09d", nLimb);
        if (!strDigits.empty() || nLimb != 0) strDigits += szLimb;
    }
    if (strDigits.empty()) strDigits = "0";
    int nScale = v.m_bScale;
    for (; bNormal && strDigits.size() > 1 && strDigits.back() == '0'; --nScale) strDigits.pop_back();
    return std::to_string(v.m_bSign) + " " + strDigits + " " + std::to_string(nScale);
}

// The exact value we hold, as a text every reader takes without rounding.
std::string Canonical(const st_VARDATA& v)
{
    std::string s = Describe(v);
    size_t p1 = s.find(' '), p2 = s.rfind(' ');
    return std::string(s[0] == '1' ? "-" : "") + s.substr(p1 + 1, p2 - p1 - 1) + "E" + std::to_string(-atoi(s.c_str() + p2 + 1));
}

st_VARDATA Parse(const std::string& s) { st_VARDATA v; memset(&v, 0, sizeof(v)); CTalvorDecimal::Convert2Decimal(s.c_str(), &v); return v; }

std::string Print(const st_VARDATA& v)
{
    char sz[256];
    int n = CTalvorDecimal::PrintDecimal(&v, sz);
    EXPECT_EQ(n, (int)strlen(sz));
    return sz;
}

// Texts of decimal values: digit counts up to 36, scales from -20 to 60,
// both signs, runs of nines and zeros that provoke carries.
struct ValueMaker {
    explicit ValueMaker(unsigned nSeed) : m_rng(nSeed) {}
    std::string Digits(int n)
    {
        std::string s;
        int nKind = Pick(0, 5);
        for (int i = 0; i < n; ++i) s += nKind == 0 ? '9' : nKind == 1 && i > 0 ? '0' : (char)('0' + Pick(0, 9));
        if (!s.empty() && s[0] == '0') s[0] = '1';
        return s;
    }
    // A value of at most 36 digits, written with an exponent.
    std::string Value()
    {
        int nDigits = Pick(0, 4) == 0 ? Pick(30, 36) : Pick(1, 20);
        int nScale = Pick(0, 3) == 0 ? Pick(-20, 60) : Pick(0, 12);
        std::string strSign = Pick(0, 1) ? "-" : "";
        std::string d = Pick(0, 15) == 0 ? std::string("0") : Digits(nDigits);
        return strSign + d + "E" + std::to_string(-nScale);
    }
    int Pick(int a, int b) { return std::uniform_int_distribution<int>(a, b)(m_rng); }
    std::mt19937 m_rng;
};

// Decimal() of Python reads the exponent texts exactly; so do we, as long
// as the exponent has at most 3 digits. Quotients compare by value, and their text (9 places, or 9 significant
// digits below one) against libmpdec's quantize of the same quotient. A
// result past the limits is NULL with the precision code. Rescaling, the
// text and the whole numbers of generated values; the edges of 64 bits
// round half away from zero.
TEST(DecimalReference, ParseArithmeticZoomPrintAndIntegersAgainstLibmpdec)
{
    ValueMaker mk(29);
    std::vector<std::string> vTexts = {"1.50", "0", "-0", "+0.000", "  12  ", "-0.5", "0.5",
        std::string(36, '9'), std::string(37, '9'), "-" + std::string(37, '9'), std::string(36, '9') + ".5",
        "0.000000000000000000000000000000000000000001234567890123456789012345678901234567895",
        "-0.000000000000000000000000000000000000000001234567890123456789012345678901234567895",
        "1.234567890123456789012345678901234567895", "-1.234567890123456789012345678901234567895",
        std::string(163, '4'), std::string(164, '4'), "1e127", "1e-127", "1e-128", "1e128", "5e-127", "123.45e-2",
        "." + std::string(120, '0') + "5", "." + std::string(130, '0') + "5"};
    for (int i = 0; i < 3000; ++i) {
        int nInt = mk.Pick(0, 3) == 0 ? mk.Pick(30, 50) : mk.Pick(0, 12);
        int nFrac = mk.Pick(0, 2) == 0 ? mk.Pick(25, 50) : mk.Pick(0, 8);
        std::string s = std::string(mk.Pick(0, 1) ? "-" : "") + std::string(mk.Pick(0, 2), '0') + mk.Digits(nInt);
        if (nFrac > 0 || nInt == 0) s += "." + std::string(mk.Pick(0, 1) ? mk.Pick(0, 5) : 0, '0') + mk.Digits(nFrac);
        if (s == "." || s == "-." || s.back() == '.') s += "0";
        if (mk.Pick(0, 4) == 0) s += "e" + std::to_string(mk.Pick(-140, 140));
        vTexts.push_back(s);
    }
    std::vector<std::string> vLines;
    for (const std::string& s : vTexts) vLines.push_back("parse|" + s);
    const std::string strNines(36, '9');
    std::vector<std::pair<std::string, std::string>> vPairs = {{strNines, "1"}, {strNines, "0.5"},
        {"1", "0." + std::string(35, '0') + "1"}, {"1.5", "-1.5"}, {"1E100", "1E100"},
        {strNines + "E127", strNines + "E127"}, {"1E-100", "1E-100"}, {"1", "3"}, {"10", "4"}, {"2", "3"},
        {"1E-120", "7"}, {"1E120", "1E-20"}, {strNines, "1." + std::string(35, '0') + "1"}};
    for (int i = 0; i < 4000; ++i) vPairs.push_back({mk.Value(), mk.Value()});
    for (auto& p : vPairs) {
        p.first = Canonical(Parse(p.first));
        p.second = Canonical(Parse(p.second));
        for (const char* op : {"add", "sub", "mul", "cmp", "div"})
            vLines.push_back(std::string(op) + "|" + p.first + "|" + p.second);
    }
    std::vector<std::string> vValues;
    std::vector<int> vScales;
    for (int i = 0; i < 3000; ++i) vValues.push_back(mk.Value());
    for (const char* s : {"-9223372036854775808", "9223372036854775807.5", "-9223372036854775808.5", "-0.5", "0.5"})
        vValues.push_back(s);
    for (const std::string& s : vValues) {
        vScales.push_back(vScales.size() < 3000 ? mk.Pick(-30, 60) : 0);
        for (const char* lpszRound : {"|1", "|0"}) vLines.push_back("zoom|" + s + "|" + std::to_string(vScales.back()) + lpszRound);
        vLines.push_back("print|" + s);
        for (const char* lpszRound : {"|1", "|0"}) vLines.push_back("int64|" + s + lpszRound);
    }
    std::vector<std::string> vRef = RunReference(vLines);
    size_t n = 0;
    for (const std::string& s : vTexts) EXPECT_EQ(Describe(Parse(s)), vRef[n++]) << s;
    st_VARDATA c;
    // The value against the reference's next answer, and the code: 91 exactly when the value turned NULL.
    auto Expect = [&](int nRet, const char* lpszOp) {
        EXPECT_EQ(Describe(c), vRef[n++]) << lpszOp;
        EXPECT_EQ(nRet, c.m_vt == TALVOR_VT_NULL ? TALVOR_ERROR_DECIMAL_PRECISION : 0) << lpszOp;
    };
    for (const auto& p : vPairs) {
        st_VARDATA a = Parse(p.first), b = Parse(p.second);
        ASSERT_TRUE(a.m_vt == TALVOR_VT_DECIMAL && b.m_vt == TALVOR_VT_DECIMAL) << p.first << " , " << p.second;
        SCOPED_TRACE(p.first + " , " + p.second);
        Expect(CTalvorDecimal::Add(&a, &b, &c), "add");
        Expect(CTalvorDecimal::Sub(&a, &b, &c), "sub");
        Expect(CTalvorDecimal::Mul(&a, &b, &c), "mul");
        EXPECT_EQ(std::to_string(CTalvorDecimal::Compare(&a, &b)), vRef[n++]) << "cmp";
        const std::string& strDiv = vRef[n++];
        if (CTalvorDecimal::IsZero(&a) || CTalvorDecimal::IsZero(&b)) continue;
        int nDiv = CTalvorDecimal::Div(&a, &b, &c);
        size_t nBar = strDiv.find('|');
        EXPECT_EQ(Describe(c, true), strDiv.substr(0, nBar)) << "div";
        EXPECT_EQ(nDiv, c.m_vt == TALVOR_VT_NULL ? TALVOR_ERROR_DECIMAL_PRECISION : 0) << "div";
        if (c.m_vt == TALVOR_VT_DECIMAL && c.m_bScale > 9) { EXPECT_EQ(Print(c), strDiv.substr(nBar + 1)) << "div"; }
    }
    for (size_t i = 0; i < vValues.size(); ++i) {
        st_VARDATA a = Parse(vValues[i]), c;
        SCOPED_TRACE(vValues[i] + " to " + std::to_string(vScales[i]));
        for (BOOL bRound : {TRUE, FALSE}) {
            int nResult = CTalvorDecimal::Zoom(&a, &c, (char)vScales[i], bRound);
            EXPECT_EQ(Describe(c), vRef[n++]) << "zoom, round " << bRound;
            EXPECT_EQ(nResult, c.m_vt == TALVOR_VT_NULL ? TALVOR_ERROR_DECIMAL_PRECISION : 0);
        }
        EXPECT_EQ(Print(a), vRef[n++]);
        for (BOOL bRound : {TRUE, FALSE})
            EXPECT_EQ(std::to_string(CTalvorDecimal::Convert2Int64(&a, bRound)), vRef[n++]) << "int64, round " << bRound;
    }
}

// Signed zeros, their compares and text, and zero sums are held against
// libmpdec above. Clean drops trailing zeros down to scale 0.
TEST(DecimalRules, CleanAndOverflowCodes)
{
    st_VARDATA b = Parse("1.50"), z = Parse("100.000"), c;
    CTalvorDecimal::Clean(&b);
    CTalvorDecimal::Clean(&z);
    EXPECT_EQ(Describe(b) + "|" + Describe(z), "0 15 1|0 100 0");
    // Where a literal result would be a wrong number the value turns null
    // with 91. Sums, products, quotients and parses past the limits are held
    // against libmpdec above, codes included; these are the limits it never
    // reaches. A zero divisor has no quotient and no remainder: NULL, not a code.
    st_VARDATA big = Parse(std::string(36, '9') + "E127"), one = Parse("1"), zero = Parse("0");
    EXPECT_EQ(CTalvorDecimal::Zoom(&one, &c, (char)-128, TRUE), TALVOR_ERROR_DECIMAL_PRECISION);
    EXPECT_EQ(CTalvorDecimal::Ceil(&big, &c), TALVOR_ERROR_DECIMAL_PRECISION);
    st_VARDATA m;
    int nDiv = CTalvorDecimal::Div(&one, &zero, &c), nMod = CTalvorDecimal::Mod(&one, &zero, &m);
    EXPECT_EQ(std::make_tuple(nDiv, nMod, (int)c.m_vt, (int)m.m_vt), std::make_tuple(0, 0, TALVOR_VT_NULL, TALVOR_VT_NULL));
    // The in-place sum and the widening past 36 digits.
    st_VARDATA v = Parse(std::string(36, '9'));
    EXPECT_EQ(CTalvorDecimal::Add(&v, 1), TALVOR_ERROR_DECIMAL_PRECISION);
    EXPECT_EQ(Describe(v), "null");
    v = Parse(std::string(30, '9'));
    CTalvorDecimal::ZoomOut(&v, &c, 7);
    EXPECT_EQ(Describe(c), "null");
}

// Text that names no number, hexadecimal and binary literals, a text read
// within its length. Ceiling and floor are held against the server by CEIL
// and FLOOR of decimals.
TEST(DecimalRules, TextForms)
{
    st_VARDATA v;
    const int BAD = TALVOR_ERROR_DECIMAL_INVALID;
    struct { const char* m_lpszText; int m_nResult; } arNull[] = {{" na ", 0}, {"null", TALVOR_ERROR_DECIMAL_LOAD},
        {"", BAD}, {".", BAD}, {"12a", BAD}, {"1e", BAD}, {"1e1234", BAD}, {"1.2.3", BAD}, {"0xZ", BAD}};
    for (const auto& c : arNull) {
        EXPECT_EQ(CTalvorDecimal::Convert2Decimal(c.m_lpszText, &v), c.m_nResult) << c.m_lpszText;
        EXPECT_EQ(v.m_vt, TALVOR_VT_NULL) << c.m_lpszText;
    }
    EXPECT_EQ(Print(Parse("-0x8000000000000000")) + Print(Parse("0xFFFFFFFFFFFFFFFF")) + Print(Parse("0b101")),
              "-922337203685477580818446744073709551615" "5");
    EXPECT_EQ(CTalvorDecimal::Convert2Decimal("12.5xyz", 4, &v), 0);
    EXPECT_EQ(Print(v), "12.5");
}

// Integers against the C library's printing, read back whole; hashed alike
// at any scale (equality across types is VarDataReference's).
TEST(DecimalRules, IntegerAndDoubleConversionsAndHashFactors)
{
    st_VARDATA v;
    char szRef[64];
    std::mt19937_64 rng(5);
    std::vector<long long> vValues = {LLONG_MIN, LLONG_MAX, 0, -1, INT_MIN, INT_MAX};
    for (int i = 0; i < 5000; ++i) vValues.push_back((long long)(rng() >> (rng() % 64)) * (i % 2 ? -1 : 1));
    for (long long ll : vValues) {
        CTalvorDecimal::Convert2Decimal(ll, &v);
        snprintf(szRef, sizeof(szRef), "%lld", ll);
        EXPECT_EQ(Print(v), szRef);
        long long llBack = 0;
        EXPECT_TRUE(CTalvorDecimal::IsInt64(&v, llBack) && llBack == ll) << ll;
        st_VARDATA scaled;
        long long h = CTalvorDecimalBin::CalcHashFactor(&v);
        CTalvorDecimal::Zoom(&v, &scaled, (char)(1 + rng() % 9), FALSE);
        if (scaled.m_vt == TALVOR_VT_DECIMAL) { EXPECT_EQ(CTalvorDecimalBin::CalcHashFactor(&scaled), h) << ll; }
    }
    long long ll;
    CTalvorDecimal::Convert2Decimal(ULLONG_MAX, &v);
    EXPECT_EQ(Print(v), "18446744073709551615");
    st_VARDATA f = Parse("2.5");
    EXPECT_FALSE(CTalvorDecimal::IsInt64(&v, ll) || CTalvorDecimal::IsInt64(&f, ll));
    EXPECT_EQ(std::make_pair(CTalvorDecimal::Convert2Int(&f, TRUE), CTalvorDecimal::Convert2Int(&f, FALSE)), std::make_pair(3, 2));

    CTalvorDecimal::Convert2Decimal(0.1, &v);
    EXPECT_EQ(Print(v), "0.1") << "the shortest digits, not the binary value's";
    CTalvorDecimal::Convert2Decimal(1e200, &v);
    EXPECT_EQ(v.m_vt, TALVOR_VT_NULL);
    // Past a short fraction the digits are near the double's, at both ends of the exponents.
    for (double d : {-1.2345678901234568e-60, 1.23456789e+25, 9.87654321e+59}) {
        CTalvorDecimal::Convert2Decimal(d, &v);
        ASSERT_EQ(v.m_vt, TALVOR_VT_DECIMAL) << d;
        EXPECT_NEAR(strtod(Print(v).c_str(), nullptr) / d, 1.0, 4 * DBL_EPSILON) << d;
        EXPECT_NEAR(CTalvorDecimal::Convert2Double(&v) / d, 1.0, 8 * DBL_EPSILON) << d;
    }
}

// The stored form: lengths by declared precision, round trips of generated
// values, the binary forms at the limb edges, and column fitting.
TEST(DecimalBin, LengthsByPrecision)
{
    const int arTotal[37] = {18, 3, 3, 4, 4, 5, 5, 5, 6, 6, 10, 10, 10, 10, 10, 10, 10, 10, 10,
                             14, 14, 14, 14, 14, 14, 14, 14, 14, 18, 18, 18, 18, 18, 18, 18, 18, 18};
    for (int p = 1; p <= 36; ++p) EXPECT_EQ(CTalvorDecimalBin::CalcBinLen(p), arTotal[p]) << p;
    BYTE arBuf[32];
    st_VARDATA v = Parse("4294967295"), r;
    v.m_bPrecison = 9;
    ASSERT_EQ(CTalvorDecimalBin::FormatBin(&v, arBuf, sizeof(arBuf)), 6);
    EXPECT_EQ(arBuf[0], TALVOR_DECIMAL_BIN_SCALE | TALVOR_DECIMAL_BIN_BINARY | 4);
    v.m_bPrecison = 10;
    ASSERT_EQ(CTalvorDecimalBin::FormatBin(&v, arBuf, sizeof(arBuf)), 10);
    EXPECT_EQ(arBuf[0], TALVOR_DECIMAL_BIN_SCALE | 8);
    EXPECT_EQ(CTalvorDecimalBin::GetBinLen(arBuf), 10);
    ASSERT_EQ(CTalvorDecimalBin::LoadBin(arBuf, &r), 0);
    EXPECT_EQ(Print(r), "4294967295");
    v = Parse("256");
    v.m_bPrecison = 2;
    EXPECT_EQ(CTalvorDecimalBin::FormatBin(&v, arBuf, sizeof(arBuf)), 0) << "256 exceeds one byte";
    v.m_bPrecison = 0;
    EXPECT_EQ(CTalvorDecimalBin::FormatBin(&v, arBuf, sizeof(arBuf)), 4);
    EXPECT_EQ(CTalvorDecimalBin::FormatBin(&v, arBuf, 3), 0) << "buffer too small";
    // No scale byte: scale 0, data from byte 1.
    const BYTE arNoScale[] = {2, 0x39, 0x30};
    ASSERT_EQ(CTalvorDecimalBin::LoadBin(arNoScale, &r), 0);
    EXPECT_EQ(Print(r), "12345");
    const BYTE arTooLong[] = {0x40 | 17, 0};
    EXPECT_EQ(CTalvorDecimalBin::LoadBin(arTooLong, &r), TALVOR_ERROR_DECIMAL_LOAD);
    const BYTE arBadLimb[] = {0x40 | 12, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(CTalvorDecimalBin::LoadBin(arBadLimb, &r), TALVOR_ERROR_DECIMAL_LOAD);
    EXPECT_EQ(r.m_vt, TALVOR_VT_NULL);
}

// A column fits a value by rounding it to its scale; one that does not fit
// is refused and left untouched (25.55 at scale 1 is 256: two bytes).
TEST(DecimalBin, ColumnFitting)
{
    st_VARDATA v = Parse("123.456"), w = Parse("25.55"), one = Parse("1");
    EXPECT_EQ(CTalvorDecimalBin::VerificationData(&v, 10, 2), 0);
    EXPECT_EQ(Print(v), "123.46");
    EXPECT_EQ(CTalvorDecimalBin::VerificationData(&w, 2, 1), TALVOR_ERROR_DECIMAL_PRECISION);
    EXPECT_EQ(Print(w), "25.55");
    EXPECT_EQ(CTalvorDecimalBin::VerificationData(&w, 3, 1), 0);
    EXPECT_EQ(CTalvorDecimalBin::VerificationData(&one, 36, 36), TALVOR_ERROR_DECIMAL_PRECISION);
}

}  // namespace
