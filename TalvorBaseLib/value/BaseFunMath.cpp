// BaseFunMath.cpp — the math members of CBaseFunManager: signs, rounding of
// integers, decimals, doubles and dates, logarithms, the trigonometric
// family by number and the random numbers.
//
// Arguments are first taken as the number they stand for (the typed
// value's rule), so text, dates and numbers of every width meet one path.

#include "BaseFunDateInternal.h"
#include "BaseFunInternal.h"
#include "TalvorDecimal.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <uuid/uuid.h>

using namespace basefun;

namespace {

// Function numbers of MathFuntion, and where the keyword ids of the same
// names (SIN .. DEGREES, in the same order) begin.
const int MATH_SIN = 20, MATH_ASIN = 21, MATH_COS = 22, MATH_ACOS = 23, MATH_TAN = 24, MATH_COT = 25, MATH_RADIANS = 26,
          MATH_DEGREES = 27;
const int KEYWORD_SIN = 594, KEYWORD_DEGREES = 601;
const int KEYWORD_LN = 516, KEYWORD_LOG = 517, KEYWORD_LOG2 = 604, KEYWORD_LOG10 = 605;
// Asin and acos forgive this much past 1, for values that are 1 but for
// the last bits.
const double ASIN_LIMIT = 1.000001;
// Rounding counts beyond these change nothing in a double or a decimal.
const int MAX_ROUND_DIGITS = 127;

const char* const DEFAULT_DATE_UNIT = "DD";

// The number an argument stands for: 2, 3 or 240; false for NULL.
bool NumberOf(const VARDATA& vArg, VARDATA& vNumber)
{
    if (IsNullArg(vArg)) return false;
    vArg.GetCompatibleNumberValue(vNumber);
    return !IsNullArg(vNumber);
}

bool DoubleOf(const VARDATA& vArg, double& d)
{
    VARDATA n;
    if (!NumberOf(vArg, n)) return false;
    d = n.GetCompatibleDouble();
    return true;
}

int SetNumber(VARDATA& vResult, const VARDATA& n)
{
    Reset(vResult, n.m_vt);
    memcpy(&vResult.m_bSign, &n.m_bSign, sizeof(VARDATA) - 4 - sizeof(int));
    return 0;
}

// In-place operation of the typed value on the number an argument stands for.
template <typename Op>
int OnNumber(VARDATA& vArg, VARDATA& vResult, Op fnOp)
{
    VARDATA n;
    if (!NumberOf(vArg, n)) return SetNullResult(vResult);
    fnOp(n);
    return SetNumber(vResult, n);
}

int DigitCount(unsigned long long u)
{
    int n = 1;
    while (u >= 10) {
        u /= 10;
        ++n;
    }
    return n;
}

// A magnitude and a sign as a 64-bit integer, or as a decimal past its range.
int SetSignedMagnitude(VARDATA& vResult, unsigned long long u, bool bNegative)
{
    const unsigned long long MAX_MAGNITUDE = (unsigned long long)LLONG_MAX;
    if (u <= MAX_MAGNITUDE) return SetBigInt(vResult, bNegative ? -(long long)u : (long long)u);
    Reset(vResult, TALVOR_VT_DECIMAL);
    CTalvorDecimal::Convert2Decimal(u, &vResult);
    vResult.m_bSign = bNegative ? 1 : 0;
    return 0;
}

// An integer to nDigits places: a positive count keeps it; a negative one
// is cut to the number's digits, and the remainder against half of the
// power of ten decides (bRound), or is dropped. A result past the 64-bit
// range becomes a decimal.
int IntegerRound(long long llValue, int nDigits, VARDATA& vResult, bool bRound)
{
    if (nDigits >= 0) return SetBigInt(vResult, llValue);
    bool bNegative = llValue < 0;
    unsigned long long u = bNegative ? 0ULL - (unsigned long long)llValue : (unsigned long long)llValue;
    int n = -nDigits;
    int nHave = DigitCount(u);
    if (n > nHave) n = nHave;
    unsigned long long p = 1;
    for (int i = 0; i < n; ++i) p *= 10;
    unsigned long long r = u % p;
    unsigned long long q = u - r;
    // q + p stays below 2^64: q is at most 9.3e18 and p at most 1e19 only
    // when q is 0.
    if (bRound && r >= p / 2) q += p;
    return SetSignedMagnitude(vResult, q, bNegative && q != 0);
}

// MySQL's rounding of doubles: rint on the value scaled by
// the power of ten (half to even), or floor/ceil towards zero.
double DoubleRound(double d, int nDigits, bool bRound)
{
    if (nDigits > MAX_ROUND_DIGITS) nDigits = MAX_ROUND_DIGITS;
    if (nDigits < -MAX_ROUND_DIGITS) nDigits = -MAX_ROUND_DIGITS;
    bool bNegative = nDigits < 0;
    double p = std::pow(10.0, bNegative ? -nDigits : nDigits);
    volatile double dDiv = d / p;
    volatile double dMul = d * p;
    if (bNegative && std::isinf(p)) return 0.0;
    if (!bNegative && std::isinf(dMul)) return d;
    if (!bRound) {
        if (d >= 0.0) return bNegative ? std::floor(dDiv) * p : std::floor(dMul) / p;
        return bNegative ? std::ceil(dDiv) * p : std::ceil(dMul) / p;
    }
    return bNegative ? std::rint(dDiv) * p : std::rint(dMul) / p;
}

int DecimalRound(const VARDATA& v, int nDigits, VARDATA& vResult, bool bRound)
{
    if (nDigits > MAX_ROUND_DIGITS) nDigits = MAX_ROUND_DIGITS;
    if (nDigits < -MAX_ROUND_DIGITS) nDigits = -MAX_ROUND_DIGITS;
    if (nDigits >= v.m_bScale) return SetNumber(vResult, v);
    VARDATA r;
    Reset(r, TALVOR_VT_DECIMAL);
    if (CTalvorDecimal::Zoom(&v, &r, (char)nDigits, bRound ? TRUE : FALSE) != 0 || r.m_vt != TALVOR_VT_DECIMAL)
        return SetNullResult(vResult);
    r.m_bPrecison = 0;
    return SetNumber(vResult, r);
}

int NumberRound(const VARDATA& n, int nDigits, VARDATA& vResult, bool bRound)
{
    switch (n.m_vt) {
    case TALVOR_VT_BIGINT: return IntegerRound(n.m_llValue, nDigits, vResult, bRound);
    case TALVOR_VT_DOUBLE: return SetDouble(vResult, DoubleRound(n.m_dblValue, nDigits, bRound));
    case TALVOR_VT_DECIMAL: return DecimalRound(n, nDigits, vResult, bRound);
    default: return SetNullResult(vResult);
    }
}

// A unit of the calendar in vDigits, or null when it is none.
const char* UnitOfDigits(CTalvorBufferPool* pPool, const VARDATA* pDigits)
{
    if (pDigits == nullptr) return DEFAULT_DATE_UNIT;
    if (!IsTextArg(*pDigits)) return nullptr;
    const int MAX_UNIT = 8;
    const char* lpszUnit = TextOf(pPool, *pDigits, MAX_UNIT);
    if (lpszUnit == nullptr || CTalvorDate::GetRoundType(lpszUnit) == 255) return nullptr;
    return lpszUnit;
}

int DateRound(DATE date, BYTE bType, const char* lpszUnit, VARDATA& vResult, bool bRound)
{
    DATE r;
    int nResult = bRound ? CTalvorDate::Round(date, lpszUnit, r) : CTalvorDate::Trunc(date, lpszUnit, r);
    if (nResult == TALVOR_DATE_BAD_PARAMETER) {
        SetNullResult(vResult);
        return nResult;
    }
    if (nResult != 0) return SetNullResult(vResult);
    return bType == TALVOR_VT_DATE ? SetDateOnly(vResult, r) : SetDateTime(vResult, r);
}

// A date with a unit (absent: a day) goes to the calendar; everything else
// is rounded as the number it stands for.
int RoundAny(CTalvorBufferPool* pPool, VARDATA& vArg, const VARDATA* pDigits, VARDATA& vResult, bool bRound)
{
    if (IsNullArg(vArg) || (pDigits != nullptr && IsNullArg(*pDigits))) return SetNullResult(vResult);
    if (vArg.m_vt == TALVOR_VT_DATETIME || vArg.m_vt == TALVOR_VT_DATE) {
        const char* lpszUnit = UnitOfDigits(pPool, pDigits);
        DATE date;
        if (lpszUnit != nullptr) {
            if (CBaseFunManager::date(pPool, vArg, date) != 0) return SetNullResult(vResult);
            return DateRound(date, vArg.m_vt, lpszUnit, vResult, bRound);
        }
    }
    if (IsTextArg(vArg) && pDigits != nullptr) {
        VARDATA vDigits = *pDigits;
        return bRound ? CBaseFunManager::Round(pPool, vArg.m_lpszValue, vArg.m_nStrLen, vDigits, vResult)
                      : CBaseFunManager::Trunc(pPool, vArg.m_lpszValue, vArg.m_nStrLen, vDigits, vResult);
    }
    VARDATA n;
    if (!NumberOf(vArg, n)) return SetNullResult(vResult);
    int nDigits = pDigits == nullptr ? 0 : pDigits->GetCompatibleInt();
    return NumberRound(n, nDigits, vResult, bRound);
}

int RoundText(CTalvorBufferPool* pPool, const char* lpszText, int nLen, VARDATA& vDigits, VARDATA& vResult, bool bRound)
{
    if (lpszText == nullptr || IsNullArg(vDigits)) return SetNullResult(vResult);
    VARDATA vText;
    Reset(vText, TALVOR_VT_TEXT);
    vText.m_lpszValue = (char*)lpszText;
    vText.m_nStrLen = nLen;
    const char* lpszUnit = UnitOfDigits(pPool, &vDigits);
    DATE date;
    if (lpszUnit != nullptr && CBaseFunManager::date(pPool, vText, date) == 0)
        return DateRound(date, TALVOR_VT_DATETIME, lpszUnit, vResult, bRound);
    VARDATA n;
    if (!NumberOf(vText, n)) return SetNullResult(vResult);
    return NumberRound(n, vDigits.GetCompatibleInt(), vResult, bRound);
}

// MySQL's generator: two seeds below 2^30 - 1.
struct RandSequence {
    unsigned long m_ulSeed1;
    unsigned long m_ulSeed2;
};
const unsigned long RAND_MAX_VALUE = 0x3FFFFFFFUL;

void SeedSequence(RandSequence& r, unsigned int uSeed)
{
    r.m_ulSeed1 = (unsigned int)(uSeed * 0x10001ULL + 55555555ULL) % RAND_MAX_VALUE;
    r.m_ulSeed2 = (unsigned int)(uSeed * 0x10000001ULL) % RAND_MAX_VALUE;
}

double NextRandom(RandSequence& r)
{
    r.m_ulSeed1 = (r.m_ulSeed1 * 3 + r.m_ulSeed2) % RAND_MAX_VALUE;
    r.m_ulSeed2 = (r.m_ulSeed1 + r.m_ulSeed2 + 33) % RAND_MAX_VALUE;
    return (double)r.m_ulSeed1 / (double)RAND_MAX_VALUE;
}

}  // namespace

int CBaseFunManager::Abs(CTalvorBufferPool* /*pPool*/, VARDATA& vArg, VARDATA& vResult)
{
    return OnNumber(vArg, vResult, [](VARDATA& n) { n.Abs(); });
}

int CBaseFunManager::Sign(CTalvorBufferPool* /*pPool*/, VARDATA& vArg, VARDATA& vResult)
{
    VARDATA n;
    if (!NumberOf(vArg, n)) return SetNullResult(vResult);
    int nSign = 0;
    if (n.m_vt == TALVOR_VT_BIGINT)
        nSign = n.m_llValue > 0 ? 1 : n.m_llValue < 0 ? -1 : 0;
    else if (n.m_vt == TALVOR_VT_DOUBLE)
        nSign = n.m_dblValue > 0 ? 1 : n.m_dblValue < 0 ? -1 : 0;
    else if (n.m_vt == TALVOR_VT_DECIMAL && !CTalvorDecimal::IsZero(&n))
        nSign = n.m_bSign ? -1 : 1;
    return SetBigInt(vResult, nSign);
}

int CBaseFunManager::Ceil(CTalvorBufferPool* /*pPool*/, VARDATA& vArg, VARDATA& vResult)
{
    return OnNumber(vArg, vResult, [](VARDATA& n) { n.Ceil(); });
}

int CBaseFunManager::Floor(CTalvorBufferPool* /*pPool*/, VARDATA& vArg, VARDATA& vResult)
{
    return OnNumber(vArg, vResult, [](VARDATA& n) { n.Floor(); });
}

int CBaseFunManager::Round(CTalvorBufferPool* pPool, VARDATA& vArg, VARDATA& vResult)
{
    return RoundAny(pPool, vArg, nullptr, vResult, true);
}

int CBaseFunManager::Round(CTalvorBufferPool* pPool, VARDATA& vArg, VARDATA& vDigits, VARDATA& vResult)
{
    return RoundAny(pPool, vArg, &vDigits, vResult, true);
}

int CBaseFunManager::Round(CTalvorBufferPool* pPool, const char* lpszText, int nLen, VARDATA& vDigits, VARDATA& vResult)
{
    return RoundText(pPool, lpszText, nLen, vDigits, vResult, true);
}

int CBaseFunManager::Round(double dValue, int nDigits, VARDATA& vResult)
{
    return SetDouble(vResult, DoubleRound(dValue, nDigits, true));
}

int CBaseFunManager::Round(int nValue, int nDigits, VARDATA& vResult)
{
    return IntegerRound(nValue, nDigits, vResult, true);
}

int CBaseFunManager::Round(long long llValue, int nDigits, VARDATA& vResult)
{
    return IntegerRound(llValue, nDigits, vResult, true);
}

int CBaseFunManager::Trunc(CTalvorBufferPool* pPool, VARDATA& vArg, VARDATA& vResult)
{
    return RoundAny(pPool, vArg, nullptr, vResult, false);
}

int CBaseFunManager::Trunc(CTalvorBufferPool* pPool, VARDATA& vArg, VARDATA& vDigits, VARDATA& vResult)
{
    return RoundAny(pPool, vArg, &vDigits, vResult, false);
}

int CBaseFunManager::Trunc(CTalvorBufferPool* pPool, const char* lpszText, int nLen, VARDATA& vDigits, VARDATA& vResult)
{
    return RoundText(pPool, lpszText, nLen, vDigits, vResult, false);
}

int CBaseFunManager::Trunc(double dValue, int nDigits, VARDATA& vResult)
{
    return SetDouble(vResult, DoubleRound(dValue, nDigits, false));
}

int CBaseFunManager::Trunc(int nValue, int nDigits, VARDATA& vResult)
{
    return IntegerRound(nValue, nDigits, vResult, false);
}

int CBaseFunManager::Trunc(long long llValue, int nDigits, VARDATA& vResult)
{
    return IntegerRound(llValue, nDigits, vResult, false);
}

int CBaseFunManager::Mod(CTalvorBufferPool* /*pPool*/, VARDATA& vA, VARDATA& vB, VARDATA& vResult)
{
    if (IsNullArg(vA) || IsNullArg(vB)) return SetNullResult(vResult);
    VARDATA na, nb;
    if (!NumberOf(vA, na) || !NumberOf(vB, nb)) return SetNullResult(vResult);
    VARDATA r = na % nb;
    if (r.m_vt == TALVOR_VT_DOUBLE) return SetDouble(vResult, r.m_dblValue);
    return IsNullArg(r) ? SetNullResult(vResult) : SetNumber(vResult, r);
}

int CBaseFunManager::Power(CTalvorBufferPool* /*pPool*/, VARDATA& vA, VARDATA& vB, VARDATA& vResult)
{
    double a, b;
    if (!DoubleOf(vA, a) || !DoubleOf(vB, b)) return SetNullResult(vResult);
    return SetDouble(vResult, std::pow(a, b));
}

int CBaseFunManager::Sqrt(CTalvorBufferPool* /*pPool*/, VARDATA& vArg, VARDATA& vResult)
{
    double d;
    if (!DoubleOf(vArg, d) || d < 0) return SetNullResult(vResult);
    return SetDouble(vResult, std::sqrt(d));
}

int CBaseFunManager::Exp(CTalvorBufferPool* /*pPool*/, VARDATA& vArg, VARDATA& vResult)
{
    double d;
    if (!DoubleOf(vArg, d)) return SetNullResult(vResult);
    return SetDouble(vResult, std::exp(d));
}

int CBaseFunManager::Log(CTalvorBufferPool* /*pPool*/, VARDATA& vArg, VARDATA& vResult)
{
    double d;
    if (!DoubleOf(vArg, d) || d <= 0) return SetNullResult(vResult);
    return SetDouble(vResult, std::log(d));
}

int CBaseFunManager::Log(CTalvorBufferPool* /*pPool*/, VARDATA& vBase, VARDATA& vArg, VARDATA& vResult)
{
    double b, d;
    if (!DoubleOf(vBase, b) || !DoubleOf(vArg, d) || b <= 0 || b == 1.0 || d <= 0) return SetNullResult(vResult);
    return SetDouble(vResult, std::log(d) / std::log(b));
}

int CBaseFunManager::SpecialLog(CTalvorBufferPool* pPool, VARDATA& vArg, VARDATA& vResult, int nFunction)
{
    if (nFunction == KEYWORD_LN || nFunction == KEYWORD_LOG) return Log(pPool, vArg, vResult);
    if (nFunction != KEYWORD_LOG2 && nFunction != KEYWORD_LOG10) {
        SetNullResult(vResult);
        return TALVOR_FUN_BAD_FUNCTION;
    }
    double d;
    if (!DoubleOf(vArg, d) || d <= 0) return SetNullResult(vResult);
    return SetDouble(vResult, nFunction == KEYWORD_LOG2 ? std::log2(d) : std::log10(d));
}

int CBaseFunManager::Pi(CTalvorBufferPool* /*pPool*/, VARDATA& vResult) { return SetDouble(vResult, M_PI); }

int CBaseFunManager::Rand(CTalvorBufferPool* /*pPool*/, VARDATA& vSeed, VARDATA& vResult)
{
    if (vSeed.m_vt == TALVOR_FUN_NO_ARGUMENT) {
        const double MAX_UINT32 = 4294967295.0;
        uuid_t arBytes;
        uuid_generate(arBytes);
        unsigned int u = ((unsigned int)arBytes[0] << 24) | ((unsigned int)arBytes[1] << 16) |
                         ((unsigned int)arBytes[2] << 8) | arBytes[3];
        return SetDouble(vResult, u / MAX_UINT32);
    }
    // A NULL seed seeds as 0, as MySQL does.
    unsigned int uSeed = IsNullArg(vSeed) ? 0U : (unsigned int)vSeed.GetCompatibleBigInt();
    RandSequence r;
    SeedSequence(r, uSeed);
    return SetDouble(vResult, NextRandom(r));
}

int CBaseFunManager::MathFuntion(CTalvorBufferPool* /*pPool*/, VARDATA& vArg, VARDATA& vResult, int nFunction)
{
    if (nFunction >= KEYWORD_SIN && nFunction <= KEYWORD_DEGREES) nFunction = nFunction - KEYWORD_SIN + MATH_SIN;
    if (nFunction < MATH_SIN || nFunction > MATH_DEGREES) {
        SetNullResult(vResult);
        return TALVOR_FUN_BAD_FUNCTION;
    }
    double d;
    if (!DoubleOf(vArg, d)) return SetNullResult(vResult);
    switch (nFunction) {
    case MATH_SIN: return SetDouble(vResult, std::sin(d));
    case MATH_ASIN:
    case MATH_ACOS:
        if (std::fabs(d) > ASIN_LIMIT) return SetNullResult(vResult);
        if (d > 1) d = 1;
        if (d < -1) d = -1;
        return SetDouble(vResult, nFunction == MATH_ASIN ? std::asin(d) : std::acos(d));
    case MATH_COS: return SetDouble(vResult, std::cos(d));
    case MATH_TAN: return SetDouble(vResult, std::tan(d));
    case MATH_COT: {
        double t = std::tan(d);
        if (t == 0.0) {
            SetNullResult(vResult);
            return TALVOR_FUN_OUT_OF_RANGE;
        }
        return SetDouble(vResult, 1.0 / t);
    }
    case MATH_RADIANS: return SetDouble(vResult, d * (M_PI / 180.0));
    default: return SetDouble(vResult, d * (180.0 / M_PI));
    }
}

int CBaseFunManager::ATan(CTalvorBufferPool* /*pPool*/, VARDATA& vArg, VARDATA& vResult)
{
    double d;
    if (!DoubleOf(vArg, d)) return SetNullResult(vResult);
    return SetDouble(vResult, std::atan(d));
}

int CBaseFunManager::ATan(CTalvorBufferPool* /*pPool*/, VARDATA& vY, VARDATA& vX, VARDATA& vResult)
{
    double y, x;
    if (!DoubleOf(vY, y) || !DoubleOf(vX, x)) return SetNullResult(vResult);
    return SetDouble(vResult, std::atan2(y, x));
}

namespace {

// A double rounded half away from zero (not cut), saturated at the bounds of
// the 64-bit words.
unsigned long long RoundedBits(double dArg)
{
    const double d = std::round(dArg);
    if (d >= 18446744073709551616.0) return ULLONG_MAX;
    if (d >= 9223372036854775808.0) return (unsigned long long)d;
    if (!(d > -9223372036854775808.0)) return (unsigned long long)LLONG_MIN;
    return (unsigned long long)(long long)d;
}

// The number a text begins with, as the server reads it for BIT_COUNT: with
// a fraction or an exponent ('2.5', '-.5', '1e3x') it is a double, rounded;
// a whole positive number is exact up to the unsigned bound, where other
// integer arguments stop at the signed one.
unsigned long long TextBits(const VARDATA& v)
{
    talvorfun::TextView t;
    talvorfun::ReadText(v, t);
    int i = 0;
    while (i < t.n && (t.p[i] == ' ' || t.p[i] == '\t' || t.p[i] == '\n' || t.p[i] == '\r')) ++i;
    const int nStart = i;
    const bool bNeg = i < t.n && t.p[i] == '-';
    if (i < t.n && (t.p[i] == '-' || t.p[i] == '+')) ++i;
    unsigned long long ull = 0;
    bool bSaturated = false;
    for (; i < t.n && t.p[i] >= '0' && t.p[i] <= '9'; ++i) {
        const unsigned nDigit = (unsigned)(t.p[i] - '0');
        if (ull > (ULLONG_MAX - nDigit) / 10) bSaturated = true;
        else ull = ull * 10 + nDigit;
    }
    if (i < t.n && (t.p[i] == '.' || t.p[i] == 'e' || t.p[i] == 'E')) {
        // strtod wants a NUL; a number longer than the copy loses only
        // digits far below the units.
        char sz[talvorvar::kParseBytes];
        const int nCopy = std::min(t.n - nStart, (int)sizeof(sz) - 1);
        memcpy(sz, t.p + nStart, (size_t)nCopy);
        sz[nCopy] = 0;
        return RoundedBits(strtod(sz, nullptr));
    }
    // A whole negative number saturates at the signed bound, as everywhere.
    if (bNeg) return bSaturated || ull > (unsigned long long)LLONG_MAX + 1 ? (unsigned long long)LLONG_MIN : 0 - ull;
    return bSaturated ? ULLONG_MAX : ull;
}

// The bits BIT_COUNT counts, as the server reads its argument: a double
// rounds, text as above, anything else as other integer arguments are read.
unsigned long long BitCountBits(const VARDATA& vArg)
{
    if (vArg.m_vt == TALVOR_VT_DOUBLE) return RoundedBits(vArg.m_dblValue);
    if (talvorvar::IsTextType(vArg.m_vt) && !talvorvar::IsHexText(vArg)) return TextBits(vArg);
    return (unsigned long long)talvorfun::IntArg(vArg);
}

} // namespace

int CBaseFunManager::Bit_Count(CTalvorBufferPool* /*pPool*/, VARDATA& vArg, VARDATA& vResult)
{
    if (IsNullArg(vArg)) return SetNullResult(vResult);
    return SetBigInt(vResult, __builtin_popcountll(BitCountBits(vArg)));
}
