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
using talvorfixed::ShortDoubleDigits;
using talvorfixed::ShortDoubleHash;

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

void AsDecimal(const st_VARDATA& n, st_VARDATA& d)
{
    memset(&d, 0, sizeof(d));
    d.m_vt = TALVOR_VT_NULL;
    if (n.m_vt == TALVOR_VT_DECIMAL) memcpy(&d, &n, sizeof(d));
    else if (n.m_vt == TALVOR_VT_DOUBLE) {
        unsigned long long u = 0;
        int nScale = 0;
        if (!ShortDoubleDigits(n.m_dblValue, u, nScale)) CTalvorDecimal::Convert2Decimal(n.m_dblValue, &d);
        else {
            CTalvorDecimal::Convert2Decimal(u, &d);
            d.m_bScale = (signed char)nScale;
            d.m_bSign = n.m_dblValue < 0 ? 1 : 0;
        }
    }
    else CTalvorDecimal::Convert2Decimal(IntOf(n), &d);
}

// Two numbers of types 1, 2, 3, 80, 81, 240, 247.
int NumberOrder(const st_VARDATA& a, const st_VARDATA& b)
{
    if (IsIntType(a.m_vt) && IsIntType(b.m_vt)) {
        long long x = IntOf(a), y = IntOf(b);
        return x < y ? -1 : x > y ? 1 : 0;
    }
    if (a.m_vt == TALVOR_VT_DECIMAL || b.m_vt == TALVOR_VT_DECIMAL) {
        st_VARDATA x, y;
        AsDecimal(a, x);
        AsDecimal(b, y);
        if (x.m_vt != TALVOR_VT_DECIMAL || y.m_vt != TALVOR_VT_DECIMAL)
            return DoubleOrder(a.GetCompatibleDouble(), b.GetCompatibleDouble());
        return CTalvorDecimal::Compare(&x, &y);
    }
    return DoubleOrder(a.GetCompatibleDouble(), b.GetCompatibleDouble());
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
    unsigned long long ullShort = 0;
    if (IsIntType(v.m_vt))
        return h + talvorfixed::HashOfMagnitude(talvorfixed::MagnitudeOf(IntOf(v)));
    if (v.m_vt == TALVOR_VT_DOUBLE && ShortDoubleHash(v.m_dblValue, ullShort)) return h + ullShort;
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
