// TalvorVarDataCompare.cpp — compare, three-valued logic and hashing of typed
// values, and the one-operator compare of the SQL layer.

#include "TalvorDate.h"
#include "TalvorDecimal.h"
#include "TalvorNumberText.h"
#include "TalvorString.h"
#include "TalvorVarDataInternal.h"

#include <cmath>
#include <cstring>

using namespace talvorvar;

namespace {

// A pair either has an order or cannot be compared (text that does not
// convert to the other side's type, a null text on the right).
const int ORDER_NONE = 2;

int Sign(long long d) { return d < 0 ? -1 : d > 0 ? 1 : 0; }

using talvorfixed::DoubleOrder;

bool IsNumberType(BYTE vt) { return IsIntType(vt) || vt == TALVOR_VT_DOUBLE || vt == TALVOR_VT_DECIMAL; }
// Text for the compare: hexadecimal literals are numbers there.
bool IsPlainText(const st_VARDATA& v) { return IsTextType(v.m_vt) && !IsHexText(v); }
bool IsBytes(BYTE vt) { return vt == TALVOR_VT_BINARY || vt == TALVOR_VT_HEX; }

int TextOrder(const st_VARDATA& a, const st_VARDATA& b, BOOL bCase)
{
    if (b.m_lpszValue == nullptr) return ORDER_NONE;
    int nA = 0, nB = 0;
    const char* pA = TextOf(a, nA);
    const char* pB = TextOf(b, nB);
    if (IsBytes(a.m_vt) || IsBytes(b.m_vt)) bCase = TRUE;
    return Sign(TalvorCompare(pA, nA, pB, nB, bCase));
}

// An integer or a decimal as a decimal; NULL for anything else.
void AsDecimal(const st_VARDATA& n, st_VARDATA& d)
{
    memset(&d, 0, sizeof(d));
    d.m_vt = TALVOR_VT_NULL;
    if (n.m_vt == TALVOR_VT_DECIMAL) memcpy(&d, &n, sizeof(d));
    else if (IsIntType(n.m_vt)) CTalvorDecimal::Convert2Decimal(IntOf(n), &d);
}

// A natural number, 32 bits to a limb, the lowest first. kBigLimbs holds a
// decimal's 36 digits times 10^127 times 2^1126 (the lowest binary place of
// a double as a whole mantissa), and a double's 53 bits times 2^971 times
// 10^127.
const int kBigLimbs = 64;
const int kLimbBits = 32;
struct BigNatural {
    UINT m_arLimbs[kBigLimbs];
    int m_nLimbs;
};

void BigSet(BigNatural& n, unsigned __int128 u)
{
    n.m_nLimbs = 0;
    for (; u != 0; u >>= kLimbBits) n.m_arLimbs[n.m_nLimbs++] = (UINT)u;
}

void BigMultiply(BigNatural& n, UINT uFactor)
{
    unsigned long long ullCarry = 0;
    for (int i = 0; i < n.m_nLimbs; ++i) {
        unsigned long long t = (unsigned long long)n.m_arLimbs[i] * uFactor + ullCarry;
        n.m_arLimbs[i] = (UINT)t;
        ullCarry = t >> kLimbBits;
    }
    if (ullCarry != 0) n.m_arLimbs[n.m_nLimbs++] = (UINT)ullCarry;
}

void BigMultiplyPow10(BigNatural& n, int nExponent)
{
    const int STEP = 9;
    const UINT STEP_FACTOR = 1000000000U;
    for (; nExponent >= STEP; nExponent -= STEP) BigMultiply(n, STEP_FACTOR);
    UINT uRest = 1;
    for (int i = 0; i < nExponent; ++i) uRest *= 10;
    BigMultiply(n, uRest);
}

void BigShiftLeft(BigNatural& n, int nBits)
{
    int nWhole = nBits / kLimbBits, nPart = nBits % kLimbBits;
    if (n.m_nLimbs == 0) return;
    BigMultiply(n, 1U << nPart);
    memmove(n.m_arLimbs + nWhole, n.m_arLimbs, n.m_nLimbs * sizeof(UINT));
    memset(n.m_arLimbs, 0, nWhole * sizeof(UINT));
    n.m_nLimbs += nWhole;
}

int BigOrder(const BigNatural& a, const BigNatural& b)
{
    if (a.m_nLimbs != b.m_nLimbs) return a.m_nLimbs < b.m_nLimbs ? -1 : 1;
    for (int i = a.m_nLimbs - 1; i >= 0; --i)
        if (a.m_arLimbs[i] != b.m_arLimbs[i]) return a.m_arLimbs[i] < b.m_arLimbs[i] ? -1 : 1;
    return 0;
}

int SignOf(double d) { return (d > 0) - (d < 0); }

// The order of a decimal against a double by their exact values: both
// magnitudes are brought to one whole unit, 10^-s x 2^-b, and compared
// there.
int DecimalDoubleOrder(const st_VARDATA& x, double d)
{
    const int MANTISSA_BITS = 53;
    if (d != d) return DoubleOrder(CTalvorDecimal::Convert2Double(&x), d);
    int nSignX = CTalvorDecimal::IsZero(&x) ? 0 : x.m_bSign ? -1 : 1;
    if (nSignX != SignOf(d)) return nSignX < SignOf(d) ? -1 : 1;
    if (nSignX == 0) return 0;
    if (std::isinf(d)) return d > 0 ? -1 : 1;
    unsigned __int128 m = 0;
    for (int i = x.m_bValid - 1; i >= 0; --i) m = m * TALVOR_DECIMAL_LIMB_BASE + (UINT)x.m_arDecimalData[i];
    int nExp = 0;
    double dFraction = std::frexp(std::fabs(d), &nExp);
    unsigned long long ullMantissa = (unsigned long long)std::ldexp(dFraction, MANTISSA_BITS);
    int nTwos = nExp - MANTISSA_BITS, nScale = x.m_bScale;
    // |x| = m x 10^-nScale, |d| = mantissa x 2^nTwos.
    BigNatural bigX, bigD;
    BigSet(bigX, m);
    BigSet(bigD, ullMantissa);
    if (nScale < 0) BigMultiplyPow10(bigX, -nScale);
    else BigMultiplyPow10(bigD, nScale);
    if (nTwos < 0) BigShiftLeft(bigX, -nTwos);
    else BigShiftLeft(bigD, nTwos);
    int n = BigOrder(bigX, bigD);
    return nSignX > 0 ? n : -n;
}

// The order of a whole number against a double by their exact values: the
// double's whole part decides, then its fraction.
int WholeDoubleOrder(long long ll, double d)
{
    const double TWO_TO_63 = 9223372036854775808.0;
    if (d != d) return DoubleOrder((double)ll, d);
    if (d >= TWO_TO_63) return -1;
    if (d < -TWO_TO_63) return 1;
    long long llWhole = (long long)d;
    if (ll != llWhole) return ll < llWhole ? -1 : 1;
    // d less its whole part is exact.
    return -SignOf(d - (double)llWhole);
}

// Two numbers of types 1, 2, 3, 80, 81, 240, 247: of one kind by their
// own order (doubles within the tolerance), of two kinds by their exact
// values.
int NumberOrder(const st_VARDATA& a, const st_VARDATA& b)
{
    bool bDoubleA = a.m_vt == TALVOR_VT_DOUBLE, bDoubleB = b.m_vt == TALVOR_VT_DOUBLE;
    if (IsIntType(a.m_vt) && IsIntType(b.m_vt)) {
        long long x = IntOf(a), y = IntOf(b);
        return x < y ? -1 : x > y ? 1 : 0;
    }
    if (bDoubleA && bDoubleB) return DoubleOrder(a.m_dblValue, b.m_dblValue);
    if (bDoubleB)
        return a.m_vt == TALVOR_VT_DECIMAL ? DecimalDoubleOrder(a, b.m_dblValue) : WholeDoubleOrder(IntOf(a), b.m_dblValue);
    if (bDoubleA) return -NumberOrder(b, a);
    st_VARDATA x, y;
    AsDecimal(a, x);
    AsDecimal(b, y);
    if (x.m_vt != TALVOR_VT_DECIMAL || y.m_vt != TALVOR_VT_DECIMAL)
        return DoubleOrder(a.GetCompatibleDouble(), b.GetCompatibleDouble());
    return CTalvorDecimal::Compare(&x, &y);
}

// The number a text stands for, or false when it is none.
bool TextToNumber(const st_VARDATA& v, st_VARDATA& n)
{
    if (IsHexText(v)) {
        v.GetCompatibleNumberValue(n);
        return true;
    }
    int nLen = 0;
    const char* p = TextOf(v, nLen);
    char sz[kParseBytes];
    TrimmedCopy(p, nLen, sz);
    if (sz[0] == 0 || TextNumberKind(sz) == TALVOR_NUMBER_NONE) return false;
    memset(&n, 0, sizeof(n));
    n.m_vt = TALVOR_VT_TEXT;
    n.m_lpszValue = sz;
    n.m_nStrLen = (int)strlen(sz);
    // Read as a number outright, even where the text would also be a date.
    double d = n.GetCompatibleDouble();
    if (IsNumber(sz) == TALVOR_NUMBER_INTEGER && CTalvorDecimal::Convert2Decimal(sz, &n) == 0 &&
        n.m_vt == TALVOR_VT_DECIMAL)
        return true;
    memset(&n, 0, sizeof(n));
    n.m_vt = TALVOR_VT_DOUBLE;
    n.m_dblValue = d;
    return true;
}

// One side of a compare against a date, as a day number. Result: false for
// text that is no date.
bool DateSide(const st_VARDATA& v, double& dDays)
{
    if (IsPlainText(v)) {
        int nLen = 0;
        const char* p = TextOf(v, nLen);
        return TextAsDate(p, nLen, dDays);
    }
    if (IsDateType(v.m_vt)) return DaysOf(v, dDays);
    dDays = v.GetCompatibleDouble();
    return true;
}

// The order of two values neither of which is NULL or a marker.
int Order(const st_VARDATA& a, const st_VARDATA& b, BOOL bCase)
{
    double dA = 0, dB = 0;
    st_VARDATA n;
    bool bTextA = IsPlainText(a), bTextB = IsPlainText(b);
    if (bTextA && bTextB) return TextOrder(a, b, bCase);
    if (IsDateType(a.m_vt) || IsDateType(b.m_vt)) {
        if (a.m_vt == b.m_vt && a.m_vt == TALVOR_VT_DATE) return Sign((long long)a.m_uValue - (long long)b.m_uValue);
        if (!DateSide(a, dA) || !DateSide(b, dB)) return ORDER_NONE;
        return DoubleOrder(dA, dB);
    }
    if (bTextA) {
        if (!TextToNumber(a, n)) return ORDER_NONE;
        return NumberOrder(n, IsHexText(b) ? (b.GetCompatibleNumberValue(n), n) : b);
    }
    if (bTextB) {
        if (!TextToNumber(b, n)) return ORDER_NONE;
        st_VARDATA x;
        if (IsHexText(a)) a.GetCompatibleNumberValue(x);
        else memcpy(&x, &a, sizeof(x));
        return NumberOrder(x, n);
    }
    st_VARDATA x, y;
    if (IsHexText(a)) a.GetCompatibleNumberValue(x);
    else memcpy(&x, &a, sizeof(x));
    if (IsHexText(b)) b.GetCompatibleNumberValue(y);
    else memcpy(&y, &b, sizeof(y));
    if (IsNumberType(x.m_vt) && IsNumberType(y.m_vt)) return NumberOrder(x, y);
    return ORDER_NONE;
}

// Operator test on two values: NULLs equal only to the same NULL for == and
// nothing else; pairs without an order are false.
bool Test(const st_VARDATA& a, const st_VARDATA& b, BYTE bOp, BOOL bCase)
{
    bool bVoidA = IsVoid(a.m_vt), bVoidB = IsVoid(b.m_vt);
    if (bVoidA || bVoidB) return bOp == TALVOR_OP_EQUAL && bVoidA && bVoidB && a.m_vt == b.m_vt;
    int n = Order(a, b, bCase);
    if (n == ORDER_NONE) return false;
    switch (bOp) {
    case TALVOR_OP_EQUAL: return n == 0;
    case TALVOR_OP_NOT_EQUAL: return n != 0;
    case TALVOR_OP_GREATER: return n > 0;
    case TALVOR_OP_GREATER_EQUAL: return n >= 0;
    case TALVOR_OP_LESS: return n < 0;
    default: return n <= 0;
    }
}

// Hash input of text: digits by 10, letters by 37 (either case alike, as
// the compare ignores case), other bytes by 131.
unsigned long long TextHash(const st_VARDATA& v, unsigned long long h)
{
    int nLen = 0;
    const char* p = TextOf(v, nLen);
    for (int i = 0; i < nLen; ++i) {
        BYTE c = (BYTE)p[i];
        if (c >= '0' && c <= '9') h = h * 10 + (c - '0');
        else if (c >= 'A' && c <= 'Z') h = h * 37 + (c - 55);
        else if (c >= 'a' && c <= 'z') h = h * 37 + (c - 87);
        else h = h * 131 + c;
    }
    return h;
}

// The share of any value; the fixed-width types repeat what the inline
// path of CalcHashFactor gives them.
unsigned long long HashAdd(const st_VARDATA& v, unsigned long long h)
{
    const double SECONDS_PER_DAY = 24.0 * 3600.0;
    double dDays = 0;
    if (IsIntType(v.m_vt)) return h + talvorfixed::HashOfWhole(IntOf(v));
    if (v.m_vt == TALVOR_VT_DOUBLE) return h + talvorfixed::HashOfDouble(v.m_dblValue);
    if (v.m_vt == TALVOR_VT_DECIMAL) return h + (unsigned long long)CTalvorDecimalBin::CalcHashFactor(&v);
    if (IsVoid(v.m_vt)) return h;
    if (IsTextType(v.m_vt)) return TextHash(v, h);
    if (v.m_vt == TALVOR_VT_TIME)
        return h + (unsigned long long)(v.m_stTime.m_bHour * 3600LL + v.m_stTime.m_nDay * 86400LL +
                                        v.m_stTime.m_bMintue * 60LL + v.m_stTime.m_bSecond);
    if (IsDateType(v.m_vt)) {
        if (!DaysOf(v, dDays) || !std::isfinite(dDays)) return h;
        return h + (unsigned long long)(long long)(dDays * SECONDS_PER_DAY + 0.5);
    }
    return h + (unsigned long long)CTalvorDecimalBin::CalcHashFactor(&v);
}

} // namespace

bool st_VARDATA::operator==(const st_VARDATA& b) const { return Test(*this, b, TALVOR_OP_EQUAL, FALSE); }
bool st_VARDATA::operator!=(const st_VARDATA& b) const { return Test(*this, b, TALVOR_OP_NOT_EQUAL, FALSE); }
bool st_VARDATA::operator<(const st_VARDATA& b) const { return Test(*this, b, TALVOR_OP_LESS, FALSE); }
bool st_VARDATA::operator<=(const st_VARDATA& b) const { return Test(*this, b, TALVOR_OP_LESS_EQUAL, FALSE); }
bool st_VARDATA::operator>(const st_VARDATA& b) const { return Test(*this, b, TALVOR_OP_GREATER, FALSE); }
bool st_VARDATA::operator>=(const st_VARDATA& b) const { return Test(*this, b, TALVOR_OP_GREATER_EQUAL, FALSE); }

int st_VARDATA::CompareOther(const st_VARDATA& b) const
{
    const st_VARDATA& a = *this;
    bool bVoidA = IsVoid(a.m_vt), bVoidB = IsVoid(b.m_vt);
    if (bVoidA || bVoidB) {
        if (bVoidA && bVoidB) return Sign((int)a.m_vt - (int)b.m_vt);
        return bVoidA ? -1 : 1;
    }
    if (IsPlainText(a) && IsPlainText(b)) {
        // A null text sorts as the empty one.
        st_VARDATA x, y;
        memcpy(&x, &a, sizeof(x));
        memcpy(&y, &b, sizeof(y));
        if (y.m_lpszValue == nullptr) y.m_lpszValue = (char*)"", y.m_nStrLen = 0;
        return TextOrder(x, y, FALSE);
    }
    int n = Order(a, b, FALSE);
    if (n != ORDER_NONE) return n;
    // Text that is no number or date against a number or date: numbers and
    // dates first.
    return IsPlainText(a) ? 1 : -1;
}

int st_VARDATA::IsEqual(const st_VARDATA& b, BOOL bCase) const
{
    if (IsVoid(m_vt) || IsVoid(b.m_vt)) return TALVOR_UNKNOWN;
    return Test(*this, b, TALVOR_OP_EQUAL, bCase) ? TALVOR_TRUE : TALVOR_FALSE;
}

BOOL st_VARDATA::SafeEqual(const st_VARDATA& b) const { return Test(*this, b, TALVOR_OP_EQUAL, FALSE) ? TRUE : FALSE; }

int st_VARDATA::IsTrue() const
{
    switch (m_vt) {
    case TALVOR_VT_MARK_TRUE: return TALVOR_TRUE;
    case TALVOR_VT_NULL: case TALVOR_VT_EMPTY: case TALVOR_VT_MARK_UNKNOWN: return TALVOR_UNKNOWN;
    case TALVOR_VT_DOUBLE: case TALVOR_VT_DATETIME:
        return m_dblValue < -kDoubleEpsilon || m_dblValue > kDoubleEpsilon ? TALVOR_TRUE : TALVOR_FALSE;
    case TALVOR_VT_DECIMAL: return CTalvorDecimal::IsZero(this) ? TALVOR_FALSE : TALVOR_TRUE;
    case TALVOR_VT_DATE: case TALVOR_VT_TIME: return m_uValue != 0 ? TALVOR_TRUE : TALVOR_FALSE;
    default: break;
    }
    if (IsTextType(m_vt)) {
        int nLen = 0;
        TextOf(*this, nLen);
        return nLen > 0 ? TALVOR_TRUE : TALVOR_FALSE;
    }
    return IntOf(*this) != 0 ? TALVOR_TRUE : TALVOR_FALSE;
}

BOOL st_VARDATA::IsNull() const { return m_vt == TALVOR_VT_NULL || m_vt == TALVOR_VT_EMPTY; }
BOOL st_VARDATA::IsUnknown() const { return IsTrue() == TALVOR_UNKNOWN; }

int st_VARDATA::operator&&(const st_VARDATA& b) const
{
    int x = IsTrue(), y = b.IsTrue();
    if (x == TALVOR_FALSE || y == TALVOR_FALSE) return TALVOR_FALSE;
    return x == TALVOR_UNKNOWN || y == TALVOR_UNKNOWN ? TALVOR_UNKNOWN : TALVOR_TRUE;
}

int st_VARDATA::operator||(const st_VARDATA& b) const
{
    int x = IsTrue(), y = b.IsTrue();
    if (x == TALVOR_TRUE || y == TALVOR_TRUE) return TALVOR_TRUE;
    return x == TALVOR_UNKNOWN || y == TALVOR_UNKNOWN ? TALVOR_UNKNOWN : TALVOR_FALSE;
}

int st_VARDATA::operator!() const
{
    int x = IsTrue();
    return x == TALVOR_UNKNOWN ? TALVOR_UNKNOWN : x == TALVOR_TRUE ? TALVOR_FALSE : TALVOR_TRUE;
}

unsigned long long st_VARDATA::HashOther(unsigned long long h) const { return HashAdd(*this, h); }

int CompareData(const VARDATA& a, const VARDATA& b, BYTE bOperator, int& nResult)
{
    if (bOperator < TALVOR_OP_SAFE_EQUAL || bOperator > TALVOR_OP_LESS_EQUAL) return TALVOR_VARDATA_BAD_OPERATOR;
    if (bOperator == TALVOR_OP_SAFE_EQUAL) {
        nResult = a.SafeEqual(b) ? TALVOR_TRUE : TALVOR_FALSE;
        return 0;
    }
    if (IsVoid(a.m_vt) || IsVoid(b.m_vt)) {
        nResult = TALVOR_UNKNOWN;
        return 0;
    }
    nResult = Test(a, b, bOperator, FALSE) ? TALVOR_TRUE : TALVOR_FALSE;
    return 0;
}
