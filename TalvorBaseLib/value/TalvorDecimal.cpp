// TalvorDecimal.cpp — decimal numbers over four base-10^9 limbs.
//
// 36 digits stay below 2^120, so the magnitude of a value is worked on as one
// unsigned 128-bit integer; only products (72 digits) need wider limbs.

#include "TalvorDecimal.h"
#include "TalvorNumberText.h"

#include <cmath>
#include <cstring>

const int TalvorPowers10[10] = {1, 10, 100, 1000, 10000, 100000, 1000000, 10000000, 100000000, 1000000000};

namespace {

typedef unsigned __int128 u128;

// 10^38 is the largest power of ten below 2^128.
const int MAX_POW10_U128 = 38;
// Integer digits past which a text is no longer a decimal: 36 kept plus the
// 127 places of the most negative scale.
const int MAX_TEXT_INT_DIGITS = 163;
// Fraction digits a text keeps when it also has integer digits.
const int MAX_TEXT_FRACTION = 32;
// Exponent digits a text may carry.
const int MAX_EXPONENT_DIGITS = 3;
// Longest bit or hexadecimal literal worth copying: b'' around 64 digits,
// with room for leading zeros.
const int MAX_LITERAL_TEXT = 96;
// A quotient prints with this many places.
const int QUOTIENT_PLACES = 9;
// Product limbs of two four-limb values.
const int PRODUCT_LIMBS = 8;
// A double with this many integer digits is no decimal.
const int MAX_DOUBLE_INT_DIGITS = 161;
// Double digits kept from a large double, and the point where a double
// counts as large.
const int DOUBLE_KEEP_DIGITS = 18;
const int DOUBLE_LARGE_DIGITS = 15;
// Times a small double is raised by 10^9 before it counts as zero.
const int DOUBLE_MAX_RAISES = 10;
const int DIGITS_PER_LIMB = 9;
const int FIRST_ROUNDING_DIGIT = 5;

struct Pow10Table {
    u128 m_arValue[MAX_POW10_U128 + 1];
    Pow10Table()
    {
        m_arValue[0] = 1;
        for (int i = 1; i <= MAX_POW10_U128; ++i) m_arValue[i] = m_arValue[i - 1] * 10;
    }
};
const Pow10Table g_Pow10;

inline u128 Pow10(int n) { return g_Pow10.m_arValue[n]; }
const u128 MAX_MAGNITUDE_END = Pow10(TALVOR_DECIMAL_MAX_DIGITS);  // 10^36

int DigitCount(u128 m)
{
    if (m == 0) return 0;
    unsigned long long ullHigh = (unsigned long long)(m >> 64);
    int nBits = ullHigh != 0 ? 128 - __builtin_clzll(ullHigh) : 64 - __builtin_clzll((unsigned long long)m);
    // log10(2) ~ 1233 / 4096 gives the count or one less.
    int n = nBits * 1233 >> 12;
    return m >= Pow10(n) ? n + 1 : n;
}

// Limbs above m_bValid are 0, so all four fold without a loop: two 64-bit
// halves and one 128-bit multiply.
u128 Magnitude(const st_VARDATA* v)
{
    const unsigned long long TWO_LIMBS = 1000000000000000000ULL;
    if (v->m_bValid == 0) return 0;
    const int* p = v->m_arDecimalData;
    unsigned long long ullLow = (unsigned long long)(UINT)p[1] * TALVOR_DECIMAL_LIMB_BASE + (UINT)p[0];
    unsigned long long ullHigh = (unsigned long long)(UINT)p[3] * TALVOR_DECIMAL_LIMB_BASE + (UINT)p[2];
    return (u128)ullHigh * TWO_LIMBS + ullLow;
}

void SetNull(st_VARDATA* v)
{
    v->m_vt = TALVOR_VT_NULL;
    v->m_bSign = 0;
    v->m_bScale = 0;
    v->m_bValid = 0;
    v->m_bPrecison = 0;
    memset(v->m_arDecimalData, 0, sizeof(v->m_arDecimalData));
}

// m must be below 10^36 and nScale within -127..127.
void SetValue(st_VARDATA* v, BYTE bSign, int nScale, u128 m)
{
    v->m_vt = TALVOR_VT_DECIMAL;
    v->m_bSign = bSign;
    v->m_bScale = (signed char)nScale;
    v->m_bPrecison = 0;
    // One 128-bit division at most; the limbs come from 64-bit halves.
    const unsigned long long TWO_LIMBS = 1000000000000000000ULL;
    unsigned long long ullLow = (unsigned long long)m, ullHigh = 0;
    if ((m >> 64) != 0 || ullLow >= TWO_LIMBS) {
        ullHigh = (unsigned long long)(m / TWO_LIMBS);
        ullLow = (unsigned long long)(m - (u128)ullHigh * TWO_LIMBS);
    }
    v->m_arDecimalData[0] = (int)(ullLow % TALVOR_DECIMAL_LIMB_BASE);
    v->m_arDecimalData[1] = (int)(ullLow / TALVOR_DECIMAL_LIMB_BASE);
    v->m_arDecimalData[2] = (int)(ullHigh % TALVOR_DECIMAL_LIMB_BASE);
    v->m_arDecimalData[3] = (int)(ullHigh / TALVOR_DECIMAL_LIMB_BASE);
    int nValid = TALVOR_DECIMAL_LIMBS;
    while (nValid > 1 && v->m_arDecimalData[nValid - 1] == 0) --nValid;
    v->m_bValid = (BYTE)nValid;
}

bool ScaleInRange(int nScale) { return nScale >= TALVOR_DECIMAL_MIN_SCALE && nScale <= TALVOR_DECIMAL_MAX_SCALE; }

// m / 10^n, and with bRound one more when the first dropped digit is 5 or
// more (half away from zero on a magnitude).
u128 DropDigits(u128 m, int n, bool bRound)
{
    if (n <= 0) return m;
    if (n > MAX_POW10_U128) return 0;
    u128 q = m / Pow10(n - 1);
    int nLast = (int)(q % 10);
    q /= 10;
    if (bRound && nLast >= FIRST_ROUNDING_DIGIT) ++q;
    return q;
}

// Keeps a magnitude of 10^36 (a rounding carry) within the limbs by one
// digit less; the scale follows.
void FitCarry(u128& m, int& nScale)
{
    if (m >= MAX_MAGNITUDE_END) {
        m = DropDigits(m, 1, true);
        --nScale;
    }
}

bool IsDecimal(const st_VARDATA* v) { return v->m_vt == TALVOR_VT_DECIMAL; }

// --- Text ------------------------------------------------------------------------

inline bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }
inline bool IsDigit(char c) { return c >= '0' && c <= '9'; }
inline char Upper(char c) { return (c >= 'a' && c <= 'z') ? (char)(c - 'a' + 'A') : c; }

int ParseWord(const char* p, const char* pEnd, st_VARDATA* v)
{
    SetNull(v);
    int nLen = (int)(pEnd - p);
    if (nLen == 2 && Upper(p[1]) == 'A') return 0;
    if (nLen == 3 && Upper(p[1]) == 'A' && Upper(p[2]) == 'N') return 0;
    return TALVOR_ERROR_DECIMAL_LOAD;
}

void SetUnsigned64(st_VARDATA* v, BYTE bSign, unsigned long long ull) { SetValue(v, bSign, 0, (u128)ull); }

// Bit and hexadecimal literals: the helpers of the text module want a NUL.
int ParseLiteral(const char* p, const char* pEnd, BYTE bSign, bool bHex, st_VARDATA* v)
{
    char szText[MAX_LITERAL_TEXT + 1];
    int nLen = (int)(pEnd - p);
    SetNull(v);
    if (nLen > MAX_LITERAL_TEXT) return TALVOR_ERROR_DECIMAL_INVALID;
    memcpy(szText, p, nLen);
    szText[nLen] = 0;
    long long llValue = 0;
    if (bHex) {
        const int nHexBase = 16;
        const char* q = szText + 2;
        if (*q == 0) return TALVOR_ERROR_DECIMAL_INVALID;
        for (const char* r = q; *r; ++r) {
            char c = Upper(*r);
            if (!IsDigit(c) && !(c >= 'A' && c <= 'F')) return TALVOR_ERROR_DECIMAL_INVALID;
        }
        if (ConvSpecifiedStringToDecimal(q, nHexBase, llValue) != 0) return TALVOR_ERROR_DECIMAL_INVALID;
    } else {
        int nBits = 0;
        if (ConvertBitToNumber(szText, llValue, nBits) != 0) return TALVOR_ERROR_DECIMAL_INVALID;
    }
    SetUnsigned64(v, bSign, (unsigned long long)llValue);
    return 0;
}

struct NumberText {
    const char* m_pInt;  // integer digits after leading zeros
    int m_nInt;
    const char* m_pFrac;
    int m_nFrac;
    int m_nExponent;
};

// Splits digits, point and exponent; trailing blanks are allowed.
bool SplitNumber(const char* p, const char* pEnd, NumberText& t)
{
    bool bAnyDigit = false;
    while (p < pEnd && *p == '0') {
        ++p;
        bAnyDigit = true;
    }
    t.m_pInt = p;
    while (p < pEnd && IsDigit(*p)) ++p;
    t.m_nInt = (int)(p - t.m_pInt);
    bAnyDigit = bAnyDigit || t.m_nInt > 0;
    t.m_pFrac = p;
    t.m_nFrac = 0;
    if (p < pEnd && *p == '.') {
        t.m_pFrac = ++p;
        while (p < pEnd && IsDigit(*p)) ++p;
        t.m_nFrac = (int)(p - t.m_pFrac);
        bAnyDigit = bAnyDigit || t.m_nFrac > 0;
    }
    if (!bAnyDigit) return false;
    t.m_nExponent = 0;
    if (p < pEnd && Upper(*p) == 'E') {
        ++p;
        bool bNeg = false;
        if (p < pEnd && (*p == '-' || *p == '+')) bNeg = *p++ == '-';
        int nDigits = 0;
        while (p < pEnd && IsDigit(*p)) {
            t.m_nExponent = t.m_nExponent * 10 + (*p++ - '0');
            if (++nDigits > MAX_EXPONENT_DIGITS) return false;
        }
        if (nDigits == 0) return false;
        if (bNeg) t.m_nExponent = -t.m_nExponent;
    }
    while (p < pEnd && IsBlank(*p)) ++p;
    return p == pEnd;
}

// Digit i of the integer digits followed by the fraction digits.
inline int DigitAt(const NumberText& t, int i) { return i < t.m_nInt ? t.m_pInt[i] - '0' : t.m_pFrac[i - t.m_nInt] - '0'; }

int ParseDigits(const NumberText& t, BYTE bSign, st_VARDATA* v)
{
    if (t.m_nInt > MAX_TEXT_INT_DIGITS) {
        SetNull(v);
        return 0;
    }
    // Digits of the run integer + fraction that are kept: [nFirst, nFirst + nKeep).
    int nFirst = 0, nKeep = 0, nScale = 0;
    if (t.m_nInt > TALVOR_DECIMAL_MAX_DIGITS) {
        nKeep = TALVOR_DECIMAL_MAX_DIGITS;
        nScale = TALVOR_DECIMAL_MAX_DIGITS - t.m_nInt;
    } else if (t.m_nInt > 0) {
        int nFrac = t.m_nFrac;
        if (nFrac > MAX_TEXT_FRACTION) nFrac = MAX_TEXT_FRACTION;
        if (nFrac > TALVOR_DECIMAL_MAX_DIGITS - t.m_nInt) nFrac = TALVOR_DECIMAL_MAX_DIGITS - t.m_nInt;
        nKeep = t.m_nInt + nFrac;
        nScale = nFrac;
    } else {
        // Zero, point, fraction: the zeros after the point only move the scale.
        int nZeros = 0;
        while (nZeros < t.m_nFrac && t.m_pFrac[nZeros] == '0') ++nZeros;
        int nSignificant = t.m_nFrac - nZeros;
        if (nSignificant > TALVOR_DECIMAL_MAX_DIGITS) nSignificant = TALVOR_DECIMAL_MAX_DIGITS;
        nFirst = nZeros;
        nKeep = nSignificant;
        nScale = nZeros + nSignificant;
    }
    u128 m = 0;
    for (int i = nFirst; i < nFirst + nKeep; ++i) m = m * 10 + DigitAt(t, i);
    int nAll = t.m_nInt + t.m_nFrac;
    // A negative value is cut; a positive one rounds by its first dropped digit.
    if (bSign == 0 && nFirst + nKeep < nAll && DigitAt(t, nFirst + nKeep) >= FIRST_ROUNDING_DIGIT) ++m;
    FitCarry(m, nScale);
    nScale -= t.m_nExponent;
    if (!ScaleInRange(nScale)) {
        SetNull(v);
        return 0;
    }
    SetValue(v, bSign, nScale, m);
    return 0;
}

int PrintMagnitude(u128 m, char* p)
{
    char szDigits[MAX_POW10_U128 + 2];
    int n = 0;
    do {
        szDigits[n++] = (char)('0' + (int)(m % 10));
        m /= 10;
    } while (m != 0);
    for (int i = 0; i < n; ++i) p[i] = szDigits[n - 1 - i];
    return n;
}

int PrintPlain(const st_VARDATA* v, char* lpszOut)
{
    u128 m = Magnitude(v);
    int nScale = v->m_bScale;
    char* p = lpszOut;
    if (m == 0) {
        *p++ = '0';
        if (nScale > 0) {
            *p++ = '.';
            memset(p, '0', nScale);
            p += nScale;
        }
        *p = 0;
        return (int)(p - lpszOut);
    }
    if (v->m_bSign) *p++ = '-';
    char szDigits[MAX_POW10_U128 + 2];
    int nDigits = PrintMagnitude(m, szDigits);
    if (nScale <= 0) {
        memcpy(p, szDigits, nDigits);
        p += nDigits;
        memset(p, '0', -nScale);
        p += -nScale;
    } else if (nDigits > nScale) {
        memcpy(p, szDigits, nDigits - nScale);
        p += nDigits - nScale;
        *p++ = '.';
        memcpy(p, szDigits + nDigits - nScale, nScale);
        p += nScale;
    } else {
        *p++ = '0';
        *p++ = '.';
        memset(p, '0', nScale - nDigits);
        p += nScale - nDigits;
        memcpy(p, szDigits, nDigits);
        p += nDigits;
    }
    *p = 0;
    return (int)(p - lpszOut);
}

// --- Arithmetic helpers ------------------------------------------------------------

int AddSigned(const st_VARDATA* a, const st_VARDATA* b, BYTE bSignB, st_VARDATA* c)
{
    if (!IsDecimal(a) || !IsDecimal(b)) {
        SetNull(c);
        return 0;
    }
    u128 ma = Magnitude(a), mb = Magnitude(b);
    int sa = a->m_bScale, sb = b->m_bScale;
    BYTE bSignA = a->m_bSign;
    int nScale = sa;
    if (sa != sb) {
        int ia = DigitCount(ma) - sa, ib = DigitCount(mb) - sb;
        if (sa > sb && sa + ib <= TALVOR_DECIMAL_MAX_DIGITS) {
            mb *= Pow10(sa - sb);
        } else if (sb > sa && sb + ia <= TALVOR_DECIMAL_MAX_DIGITS) {
            ma *= Pow10(sb - sa);
            nScale = sb;
        } else {
            // One scale for both would need more than 36 digits: the
            // fraction gives way to the integer digits.
            nScale = TALVOR_DECIMAL_MAX_DIGITS - (ia > ib ? ia : ib);
            if (nScale > TALVOR_DECIMAL_MAX_SCALE) {
                SetValue(c, 0, 0, 0);
                return 0;
            }
            ma = nScale < sa ? DropDigits(ma, sa - nScale, true) : ma * Pow10(nScale - sa);
            mb = nScale < sb ? DropDigits(mb, sb - nScale, true) : mb * Pow10(nScale - sb);
        }
    }
    u128 m;
    BYTE bSign;
    if (bSignA == bSignB) {
        m = ma + mb;
        bSign = bSignA;
        FitCarry(m, nScale);
    } else if (ma == mb) {
        SetValue(c, 0, 0, 0);
        return 0;
    } else if (ma > mb) {
        m = ma - mb;
        bSign = bSignA;
    } else {
        m = mb - ma;
        bSign = bSignB;
    }
    if (!ScaleInRange(nScale)) {
        SetNull(c);
        return TALVOR_ERROR_DECIMAL_PRECISION;
    }
    SetValue(c, bSign, nScale, m);
    return 0;
}

// Wide magnitudes of base-10^9 limbs, least significant first.
void WideMul(const UINT* a, const UINT* b, UINT* p)
{
    unsigned long long arAcc[PRODUCT_LIMBS] = {0};
    for (int i = 0; i < TALVOR_DECIMAL_LIMBS; ++i) {
        unsigned long long ullCarry = 0;
        for (int j = 0; j < TALVOR_DECIMAL_LIMBS; ++j) {
            unsigned long long t = arAcc[i + j] + (unsigned long long)a[i] * b[j] + ullCarry;
            arAcc[i + j] = t % TALVOR_DECIMAL_LIMB_BASE;
            ullCarry = t / TALVOR_DECIMAL_LIMB_BASE;
        }
        arAcc[i + TALVOR_DECIMAL_LIMBS] += ullCarry;
    }
    for (int i = 0; i < PRODUCT_LIMBS; ++i) p[i] = (UINT)arAcc[i];
}

int WideDigits(const UINT* p, int nLimbs)
{
    for (int i = nLimbs - 1; i >= 0; --i)
        if (p[i] != 0) return i * DIGITS_PER_LIMB + DigitCount(p[i]);
    return 0;
}

// p /= 10^n over nLimbs limbs.
void WideDropDigits(UINT* p, int nLimbs, int n)
{
    int nWhole = n / DIGITS_PER_LIMB;
    if (nWhole > 0) {
        for (int i = 0; i < nLimbs; ++i) p[i] = i + nWhole < nLimbs ? p[i + nWhole] : 0;
    }
    UINT uDiv = (UINT)TalvorPowers10[n % DIGITS_PER_LIMB];
    if (uDiv == 1) return;
    unsigned long long ullRem = 0;
    for (int i = nLimbs - 1; i >= 0; --i) {
        unsigned long long t = ullRem * TALVOR_DECIMAL_LIMB_BASE + p[i];
        p[i] = (UINT)(t / uDiv);
        ullRem = t % uDiv;
    }
}

void ToLimbs(u128 m, UINT* p)
{
    for (int i = 0; i < TALVOR_DECIMAL_LIMBS; ++i) {
        p[i] = (UINT)(m % TALVOR_DECIMAL_LIMB_BASE);
        m /= TALVOR_DECIMAL_LIMB_BASE;
    }
}

u128 FromLimbs(const UINT* p, int nLimbs)
{
    u128 m = 0;
    for (int i = nLimbs - 1; i >= 0; --i) m = m * TALVOR_DECIMAL_LIMB_BASE + p[i];
    return m;
}

// floor(a x 10^k / b) for a, b below 10^36: the dividend is fed in chunks of
// as many digits as keep the remainder below 10^38.
u128 ScaledQuotient(u128 a, int k, u128 b)
{
    int nChunk = MAX_POW10_U128 - DigitCount(b);
    u128 q = a / b, r = a % b;
    while (k > 0) {
        int n = k < nChunk ? k : nChunk;
        r *= Pow10(n);
        q = q * Pow10(n) + r / b;
        r %= b;
        k -= n;
    }
    return q;
}

// Integer part of a value of scale nScale, cut towards zero; bCut tells
// whether anything was dropped. FALSE when it needs more than 36 digits.
bool IntegerPart(const st_VARDATA* v, u128& m, bool& bCut)
{
    m = Magnitude(v);
    bCut = false;
    int nScale = v->m_bScale;
    if (nScale > 0) {
        if (nScale > MAX_POW10_U128) {
            bCut = m != 0;
            m = 0;
            return true;
        }
        u128 q = m / Pow10(nScale);
        bCut = q * Pow10(nScale) != m;
        m = q;
        return true;
    }
    if (m != 0 && DigitCount(m) - nScale > TALVOR_DECIMAL_MAX_DIGITS) return false;
    if (m != 0) m *= Pow10(-nScale);
    return true;
}

// Places a product keeps: those of the larger operand, or 9; the count
// of digits to drop then also keeps the product within 36 digits.
int ProductDrop(int sa, int sb, int nDigits)
{
    int nKeepScale = sa > sb ? sa : sb;
    if (nKeepScale < QUOTIENT_PLACES) nKeepScale = QUOTIENT_PLACES;
    int nDrop = sa + sb - nKeepScale;
    if (nDrop < 0) nDrop = 0;
    if (nDigits - nDrop > TALVOR_DECIMAL_MAX_DIGITS) nDrop = nDigits - TALVOR_DECIMAL_MAX_DIGITS;
    return nDrop;
}

int SetProduct(u128 m, int nScale, BYTE bSign, st_VARDATA* c)
{
    FitCarry(m, nScale);
    if (nScale > TALVOR_DECIMAL_MAX_SCALE) {
        SetValue(c, bSign, 0, 0);
        return 0;
    }
    if (nScale < TALVOR_DECIMAL_MIN_SCALE) {
        // Too large for any scale: a zero here would be a wrong number.
        SetNull(c);
        return TALVOR_ERROR_DECIMAL_PRECISION;
    }
    SetValue(c, bSign, nScale, m);
    return 0;
}

// Operands below 2^64 multiply into one 128-bit product.
int MulNarrow(u128 p, int sa, int sb, BYTE bSign, st_VARDATA* c)
{
    int nDrop = ProductDrop(sa, sb, DigitCount(p));
    return SetProduct(DropDigits(p, nDrop, true), sa + sb - nDrop, bSign, c);
}

}  // namespace

// --- Parsing and conversions ----------------------------------------------------

int CTalvorDecimal::Convert2Decimal(const char* lpszText, st_VARDATA* lpValue)
{
    if (lpszText == nullptr) {
        SetNull(lpValue);
        return TALVOR_ERROR_DECIMAL_INVALID;
    }
    return Convert2Decimal(lpszText, (int)strlen(lpszText), lpValue);
}

int CTalvorDecimal::Convert2Decimal(const char* lpszText, int nLen, st_VARDATA* lpValue)
{
    if (lpszText == nullptr || nLen < 0) {
        SetNull(lpValue);
        return TALVOR_ERROR_DECIMAL_INVALID;
    }
    const char* p = lpszText;
    const char* pEnd = lpszText + nLen;
    while (p < pEnd && IsBlank(*p)) ++p;
    BYTE bSign = 0;
    if (p < pEnd && (*p == '-' || *p == '+')) bSign = *p++ == '-';
    int nRest = (int)(pEnd - p);
    if (nRest >= 2 && ((Upper(p[0]) == 'B' && p[1] == '\'') || (p[0] == '0' && p[1] == 'b')))
        return ParseLiteral(p, pEnd, bSign, false, lpValue);
    if (nRest >= 2 && p[0] == '0' && Upper(p[1]) == 'X') return ParseLiteral(p, pEnd, bSign, true, lpValue);
    if (nRest >= 1 && Upper(p[0]) == 'N') {
        const char* q = pEnd;
        while (q > p && IsBlank(q[-1])) --q;
        return ParseWord(p, q, lpValue);
    }
    NumberText t;
    if (!SplitNumber(p, pEnd, t)) {
        SetNull(lpValue);
        return TALVOR_ERROR_DECIMAL_INVALID;
    }
    return ParseDigits(t, bSign, lpValue);
}

void CTalvorDecimal::Convert2Decimal(int nValue, st_VARDATA* lpValue) { Convert2Decimal((long long)nValue, lpValue); }

void CTalvorDecimal::Convert2Decimal(unsigned int uValue, st_VARDATA* lpValue)
{
    SetValue(lpValue, 0, 0, (u128)uValue);
}

void CTalvorDecimal::Convert2Decimal(long long llValue, st_VARDATA* lpValue)
{
    // The magnitude of the most negative value has no long long of its own.
    unsigned long long ull = llValue < 0 ? 0ULL - (unsigned long long)llValue : (unsigned long long)llValue;
    SetValue(lpValue, llValue < 0, 0, (u128)ull);
}

void CTalvorDecimal::Convert2Decimal(unsigned long long ullValue, st_VARDATA* lpValue)
{
    SetValue(lpValue, 0, 0, (u128)ullValue);
}

void CTalvorDecimal::Convert2Decimal(double dblValue, st_VARDATA* lpValue)
{
    if (dblValue == 0.0) {
        SetValue(lpValue, 0, 0, 0);
        return;
    }
    if (!std::isfinite(dblValue)) {
        SetNull(lpValue);
        return;
    }
    BYTE bSign = dblValue < 0;
    double x = std::fabs(dblValue);
    int nIntDigits = 0;
    while (nIntDigits < MAX_DOUBLE_INT_DIGITS && x >= std::pow(10.0, nIntDigits)) ++nIntDigits;
    if (nIntDigits >= MAX_DOUBLE_INT_DIGITS) {
        SetNull(lpValue);
        return;
    }
    const double dLimb = 1e9;
    int nScale = 0;
    if (nIntDigits >= DOUBLE_LARGE_DIGITS) {
        while (nIntDigits - DIGITS_PER_LIMB >= DOUBLE_KEEP_DIGITS) {
            x /= dLimb;
            nIntDigits -= DIGITS_PER_LIMB;
            nScale -= DIGITS_PER_LIMB;
        }
        while (nIntDigits > DOUBLE_KEEP_DIGITS) {
            x /= 10.0;
            --nIntDigits;
            --nScale;
        }
        // 15 to 17 integer digits still leave the double's fraction some
        // digits; cutting it to an integer would lose up to half a unit.
        if (nIntDigits < DOUBLE_KEEP_DIGITS && x != std::floor(x)) {
            x *= TalvorPowers10[DOUBLE_KEEP_DIGITS - nIntDigits];
            nScale += DOUBLE_KEEP_DIGITS - nIntDigits;
        }
    } else {
        for (int i = 0; x < 1.0 && i < DOUBLE_MAX_RAISES; ++i) {
            x *= dLimb;
            nScale += DIGITS_PER_LIMB;
        }
        if (x < 1.0) {
            SetValue(lpValue, 0, 0, 0);
            return;
        }
        nIntDigits = 0;
        while (x >= std::pow(10.0, nIntDigits)) ++nIntDigits;
        int nShift = DIGITS_PER_LIMB - nIntDigits;
        x = nShift >= 0 ? x * TalvorPowers10[nShift] : x / TalvorPowers10[-nShift];
        nScale += nShift;
        if (x != std::floor(x)) {
            x *= dLimb;
            nScale += DIGITS_PER_LIMB;
        }
    }
    u128 m = (u128)(unsigned long long)(x + 0.5);
    while (m != 0 && m % 10 == 0 && nScale > TALVOR_DECIMAL_MIN_SCALE) {
        m /= 10;
        --nScale;
    }
    if (!ScaleInRange(nScale)) {
        SetNull(lpValue);
        return;
    }
    SetValue(lpValue, bSign, nScale, m);
}

namespace {

// The integer value as a magnitude, rounded or cut; FALSE past 36 digits.
bool RoundedInteger(const st_VARDATA* v, BOOL bRound, u128& m)
{
    int nScale = v->m_bScale;
    if (nScale > 0) {
        m = DropDigits(Magnitude(v), nScale, bRound != 0);
        return true;
    }
    bool bCut;
    return IntegerPart(v, m, bCut);
}

// Magnitude limits of a signed type: the most negative value is one longer.
long long SaturatedSigned(const st_VARDATA* v, BOOL bRound, long long llMin, long long llMax)
{
    if (!IsDecimal(v)) return 0;
    u128 m;
    bool bFits = RoundedInteger(v, bRound, m);
    if (v->m_bSign) {
        u128 mLimit = (u128)(0ULL - (unsigned long long)llMin);
        if (!bFits || m >= mLimit) return llMin;
        return -(long long)m;
    }
    if (!bFits || m >= (u128)llMax) return llMax;
    return (long long)m;
}

// TRUE when v is an integer within llMin..llMax.
bool ExactSigned(const st_VARDATA* v, long long llMin, long long llMax, long long& llValue)
{
    if (!IsDecimal(v)) return false;
    u128 m;
    bool bCut;
    if (!IntegerPart(v, m, bCut) || bCut) return false;
    if (v->m_bSign) {
        if (m > (u128)(0ULL - (unsigned long long)llMin)) return false;
        llValue = (long long)(0ULL - (unsigned long long)m);
        return true;
    }
    if (m > (u128)llMax) return false;
    llValue = (long long)m;
    return true;
}

}  // namespace

int CTalvorDecimal::Convert2Int(const st_VARDATA* lpValue, BOOL bRound)
{
    return (int)SaturatedSigned(lpValue, bRound, INT32_MIN, INT32_MAX);
}

long long CTalvorDecimal::Convert2Int64(const st_VARDATA* lpValue, BOOL bRound)
{
    return SaturatedSigned(lpValue, bRound, INT64_MIN, INT64_MAX);
}

double CTalvorDecimal::Convert2Double(const st_VARDATA* lpValue)
{
    if (!IsDecimal(lpValue)) return 0.0;
    double d = 0.0;
    int nValid = lpValue->m_bValid > TALVOR_DECIMAL_LIMBS ? TALVOR_DECIMAL_LIMBS : lpValue->m_bValid;
    for (int i = nValid - 1; i >= 0; --i) d = d * 1e9 + (UINT)lpValue->m_arDecimalData[i];
    int nScale = lpValue->m_bScale;
    // One power keeps the error to the two roundings of pow and the division.
    if (nScale > 0) d /= std::pow(10.0, nScale);
    else if (nScale < 0) d *= std::pow(10.0, -nScale);
    return lpValue->m_bSign ? -d : d;
}

BOOL CTalvorDecimal::IsInt(const st_VARDATA* lpValue, int& nValue)
{
    long long ll;
    if (!ExactSigned(lpValue, INT32_MIN, INT32_MAX, ll)) return FALSE;
    nValue = (int)ll;
    return TRUE;
}

BOOL CTalvorDecimal::IsInt64(const st_VARDATA* lpValue, long long& llValue)
{
    return ExactSigned(lpValue, INT64_MIN, INT64_MAX, llValue) ? TRUE : FALSE;
}

// --- Printing and comparing -----------------------------------------------------

int CTalvorDecimal::PrintDecimal(const st_VARDATA* lpValue, char* lpszOut)
{
    if (!IsDecimal(lpValue) || lpValue->m_bValid == 0) {
        lpszOut[0] = 0;
        return 0;
    }
    if (lpValue->m_bPrecison != TALVOR_DECIMAL_QUOTIENT || lpValue->m_bScale <= QUOTIENT_PLACES)
        return PrintPlain(lpValue, lpszOut);
    // A quotient shows 9 places, or 9 significant digits below one.
    int nDigits = CalcValidDigit(lpValue);
    int nScale = lpValue->m_bScale;
    int nPlaces = nDigits >= nScale ? QUOTIENT_PLACES : nScale + QUOTIENT_PLACES - nDigits;
    if (nPlaces > TALVOR_DECIMAL_MAX_SCALE) nPlaces = TALVOR_DECIMAL_MAX_SCALE;
    st_VARDATA stShown = *lpValue;
    Zoom(lpValue, &stShown, (char)nPlaces, TRUE);
    stShown.m_bPrecison = 0;
    int nLen = PrintPlain(&stShown, lpszOut);
    if (strchr(lpszOut, '.') != nullptr) nLen = TrimTailZero(lpszOut, FALSE);
    return nLen;
}

int CTalvorDecimal::Compare(const st_VARDATA* a, const st_VARDATA* b)
{
    u128 ma = Magnitude(a), mb = Magnitude(b);
    // Zero may carry either sign; it is one number.
    if (ma == 0 && mb == 0) return 0;
    if (a->m_bSign != b->m_bSign) return a->m_bSign ? -1 : 1;
    int nResult;
    int sa = a->m_bScale, sb = b->m_bScale;
    if (sa == sb) {
        nResult = ma < mb ? -1 : (ma > mb ? 1 : 0);
    } else if (ma == 0 || mb == 0) {
        nResult = ma == 0 ? -1 : 1;
    } else {
        // Integer digit counts decide unless equal; then the scales differ
        // by less than 36 and both fit one scale.
        int ia = DigitCount(ma) - sa, ib = DigitCount(mb) - sb;
        if (ia != ib) {
            nResult = ia < ib ? -1 : 1;
        } else {
            if (sa < sb) ma *= Pow10(sb - sa);
            else mb *= Pow10(sa - sb);
            nResult = ma < mb ? -1 : (ma > mb ? 1 : 0);
        }
    }
    return a->m_bSign ? -nResult : nResult;
}

// --- Arithmetic ------------------------------------------------------------------

int CTalvorDecimal::Add(const st_VARDATA* a, const st_VARDATA* b, st_VARDATA* c)
{
    return AddSigned(a, b, b->m_bSign, c);
}

int CTalvorDecimal::Sub(const st_VARDATA* a, const st_VARDATA* b, st_VARDATA* c)
{
    return AddSigned(a, b, (BYTE)(b->m_bSign ^ 1), c);
}

int CTalvorDecimal::Mul(const st_VARDATA* a, const st_VARDATA* b, st_VARDATA* c)
{
    if (!IsDecimal(a) || !IsDecimal(b)) {
        SetNull(c);
        return 0;
    }
    BYTE bSign = a->m_bSign ^ b->m_bSign;
    int sa = a->m_bScale, sb = b->m_bScale;
    u128 ma = Magnitude(a), mb = Magnitude(b);
    if ((ma >> 64) == 0 && (mb >> 64) == 0) return MulNarrow(ma * mb, sa, sb, bSign, c);
    UINT arA[TALVOR_DECIMAL_LIMBS], arB[TALVOR_DECIMAL_LIMBS], arP[PRODUCT_LIMBS];
    ToLimbs(ma, arA);
    ToLimbs(mb, arB);
    WideMul(arA, arB, arP);
    int nDrop = ProductDrop(sa, sb, WideDigits(arP, PRODUCT_LIMBS));
    bool bRoundUp = false;
    if (nDrop > 0) {
        WideDropDigits(arP, PRODUCT_LIMBS, nDrop - 1);
        bRoundUp = arP[0] % 10 >= FIRST_ROUNDING_DIGIT;
        WideDropDigits(arP, PRODUCT_LIMBS, 1);
    }
    return SetProduct(FromLimbs(arP, TALVOR_DECIMAL_LIMBS) + (bRoundUp ? 1 : 0), sa + sb - nDrop, bSign, c);
}

int CTalvorDecimal::Div(const st_VARDATA* a, const st_VARDATA* b, st_VARDATA* c)
{
    if (!IsDecimal(a) || !IsDecimal(b)) {
        SetNull(c);
        return 0;
    }
    u128 ma = Magnitude(a), mb = Magnitude(b);
    if (mb == 0) {
        SetNull(c);
        return 0;
    }
    if (ma == 0) {
        *c = *a;
        return 0;
    }
    int da = DigitCount(ma), db = DigitCount(mb);
    // Shift the dividend so that the quotient has 36 digits and a guard digit.
    u128 an = ma * Pow10(MAX_POW10_U128 - da), bn = mb * Pow10(MAX_POW10_U128 - db);
    int k = TALVOR_DECIMAL_MAX_DIGITS + 1 - da + db - (an >= bn ? 1 : 0);
    u128 q = ScaledQuotient(ma, k, mb);
    int nScale = a->m_bScale - b->m_bScale + k;
    q = DropDigits(q, 1, true);
    --nScale;
    FitCarry(q, nScale);
    BYTE bSign = a->m_bSign ^ b->m_bSign;
    if (!ScaleInRange(nScale)) {
        SetNull(c);
        return TALVOR_ERROR_DECIMAL_PRECISION;
    }
    SetValue(c, bSign, nScale, q);
    c->m_bValid = TALVOR_DECIMAL_LIMBS;
    c->m_bPrecison = TALVOR_DECIMAL_QUOTIENT;
    return 0;
}

int CTalvorDecimal::Mod(const st_VARDATA* a, const st_VARDATA* b, st_VARDATA* c)
{
    if (!IsDecimal(a) || a->m_bValid == 0) {
        SetNull(c);
        return TALVOR_ERROR_DECIMAL_INVALID;
    }
    if (!IsDecimal(b) || IsZero(b)) {
        SetNull(c);
        return 0;
    }
    u128 ma = Magnitude(a), mb = Magnitude(b);
    int sa = a->m_bScale, sb = b->m_bScale;
    int nScale = sa > sb ? sa : sb;
    u128 r;
    if (sb < sa) {
        int nRaise = sa - sb;
        // A divisor raised past 10^38 exceeds any dividend of 36 digits.
        if (DigitCount(mb) + nRaise > MAX_POW10_U128) r = ma;
        else r = ma % (mb * Pow10(nRaise));
    } else {
        // (ma x 10^n) mod mb, a few digits at a time so nothing overflows.
        int nRaise = sb - sa;
        int nChunk = MAX_POW10_U128 - DigitCount(mb);
        r = ma % mb;
        while (nRaise > 0) {
            int n = nRaise < nChunk ? nRaise : nChunk;
            r = (r * Pow10(n)) % mb;
            nRaise -= n;
        }
    }
    SetValue(c, a->m_bSign, nScale, r);
    return 0;
}

// --- Scale ------------------------------------------------------------------------

int CTalvorDecimal::Zoom(const st_VARDATA* src, st_VARDATA* dst, char nScale, BOOL bRound)
{
    if (!IsDecimal(src)) {
        SetNull(dst);
        return 0;
    }
    int nTo = (signed char)nScale;
    int nFrom = src->m_bScale;
    if (!ScaleInRange(nTo)) {
        SetNull(dst);
        return TALVOR_ERROR_DECIMAL_PRECISION;
    }
    BYTE bPrecision = src->m_bPrecison;
    BYTE bSign = src->m_bSign;
    if (nTo == nFrom) {
        *dst = *src;
        return 0;
    }
    u128 m = Magnitude(src);
    if (nTo < nFrom) {
        m = DropDigits(m, nFrom - nTo, bRound != 0);
    } else if (m != 0) {
        if (DigitCount(m) + nTo - nFrom > TALVOR_DECIMAL_MAX_DIGITS) {
            SetNull(dst);
            return TALVOR_ERROR_DECIMAL_PRECISION;
        }
        m *= Pow10(nTo - nFrom);
    }
    SetValue(dst, bSign, nTo, m);
    dst->m_bPrecison = bPrecision;
    return 0;
}

namespace {

int ToInteger(const st_VARDATA* src, st_VARDATA* dst, bool bCeil)
{
    if (!IsDecimal(src)) {
        SetNull(dst);
        return 0;
    }
    u128 m;
    bool bCut;
    BYTE bSign = src->m_bSign;
    if (!IntegerPart(src, m, bCut)) {
        SetNull(dst);
        return TALVOR_ERROR_DECIMAL_PRECISION;
    }
    // Cutting moved a positive value down and a negative one up.
    if (bCut && (bCeil ? bSign == 0 : bSign != 0)) ++m;
    if (m >= MAX_MAGNITUDE_END) {
        SetNull(dst);
        return TALVOR_ERROR_DECIMAL_PRECISION;
    }
    SetValue(dst, bSign, 0, m);
    return 0;
}

}  // namespace

int CTalvorDecimal::Ceil(const st_VARDATA* src, st_VARDATA* dst) { return ToInteger(src, dst, true); }

int CTalvorDecimal::Floor(const st_VARDATA* src, st_VARDATA* dst) { return ToInteger(src, dst, false); }

int CTalvorDecimal::Clean(st_VARDATA* lpValue)
{
    if (!IsDecimal(lpValue) || lpValue->m_bScale <= 0) return 0;
    u128 m = Magnitude(lpValue);
    int nScale = lpValue->m_bScale;
    if (m == 0) {
        Zoom(lpValue, lpValue, 0, FALSE);
        return 0;
    }
    int nDrop = 0;
    while (nDrop < nScale && m % 10 == 0) {
        m /= 10;
        ++nDrop;
    }
    if (nDrop > 0) Zoom(lpValue, lpValue, (char)(nScale - nDrop), FALSE);
    return 0;
}

int CTalvorDecimal::CalcValidDigit(const st_VARDATA* lpValue) { return DigitCount(Magnitude(lpValue)); }

int CTalvorDecimal::IsZero(const st_VARDATA* lpValue)
{
    for (int i = 0; i < TALVOR_DECIMAL_LIMBS && i < lpValue->m_bValid; ++i)
        if (lpValue->m_arDecimalData[i] != 0) return FALSE;
    return TRUE;
}

// --- Small in-place forms -----------------------------------------------------------

int CTalvorDecimal::Add(st_VARDATA* lpValue, int nValue)
{
    if (!IsDecimal(lpValue)) return 0;
    u128 m = Magnitude(lpValue);
    u128 uAdd = (u128)(nValue < 0 ? 0ULL - (unsigned long long)(long long)nValue : (unsigned long long)nValue);
    BYTE bSign = lpValue->m_bSign;
    BYTE bPrecision = lpValue->m_bPrecison;
    bool bSameSign = (nValue < 0) == (bSign != 0) || m == 0;
    if (m == 0) bSign = nValue < 0;
    if (bSameSign) {
        m += uAdd;
    } else if (m >= uAdd) {
        m -= uAdd;
    } else {
        m = uAdd - m;
        bSign ^= 1;
    }
    if (m >= MAX_MAGNITUDE_END) {
        SetNull(lpValue);
        return TALVOR_ERROR_DECIMAL_PRECISION;
    }
    SetValue(lpValue, bSign, lpValue->m_bScale, m);
    lpValue->m_bPrecison = bPrecision;
    return 0;
}

void CTalvorDecimal::ZoomOut(const st_VARDATA* src, st_VARDATA* dst, BYTE n)
{
    if (!IsDecimal(src)) {
        SetNull(dst);
        return;
    }
    u128 m = Magnitude(src);
    int nScale = src->m_bScale + n;
    if (!ScaleInRange(nScale) || (m != 0 && DigitCount(m) + n > TALVOR_DECIMAL_MAX_DIGITS)) {
        SetNull(dst);
        return;
    }
    BYTE bPrecision = src->m_bPrecison;
    SetValue(dst, src->m_bSign, nScale, m == 0 ? 0 : m * Pow10(n));
    dst->m_bPrecison = bPrecision;
}

void CTalvorDecimal::SafeConvert2Int(st_VARDATA* lpValue)
{
    int n;
    if (!IsInt(lpValue, n)) return;
    memset(&lpValue->m_bSign, 0, sizeof(st_VARDATA) - 4 - sizeof(int));
    lpValue->m_vt = TALVOR_VT_INT;
    lpValue->m_nValue = n;
}

void CTalvorDecimal::SafeConvert2Int64(st_VARDATA* lpValue)
{
    long long ll;
    if (!IsInt64(lpValue, ll)) return;
    memset(&lpValue->m_bSign, 0, sizeof(st_VARDATA) - 4 - sizeof(int));
    lpValue->m_vt = TALVOR_VT_BIGINT;
    lpValue->m_llValue = ll;
}

int CTalvorDecimal::PrintDecimalHex(const st_VARDATA* lpValue, char* lpszOut)
{
    const char* const HEX_DIGITS = "0123456789ABCDEF";
    unsigned long long ull = 0;
    if (IsDecimal(lpValue)) {
        u128 m;
        bool bFits = RoundedInteger(lpValue, TRUE, m);
        if (lpValue->m_bSign) ull = (unsigned long long)Convert2Int64(lpValue, TRUE);
        else ull = (!bFits || (m >> 64) != 0) ? ~0ULL : (unsigned long long)m;
    }
    char sz[17];
    int n = 0;
    do {
        sz[n++] = HEX_DIGITS[ull & 0xF];
        ull >>= 4;
    } while (ull != 0);
    for (int i = 0; i < n; ++i) lpszOut[i] = sz[n - 1 - i];
    lpszOut[n] = 0;
    return n;
}
