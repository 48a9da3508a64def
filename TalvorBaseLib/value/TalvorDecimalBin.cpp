// TalvorDecimalBin.cpp — the stored form of decimals in records and index
// keys, column fitting, and the hash input that equal numbers share.

#include "TalvorDecimal.h"

#include <cmath>
#include <cstring>

namespace {

typedef unsigned __int128 u128;

const int MAX_DATA_BYTES = 16;
const int LIMB_BYTES = 4;
const unsigned long long LIMB = TALVOR_DECIMAL_LIMB_BASE;
const unsigned long long TWO_LIMBS = LIMB * LIMB;
const unsigned long long HASH_MULTIPLIER = 131;
// Limbs of the largest value multiplied out: 36 digits and 127 zeros.
const int MAX_WIDE_LIMBS = 20;
const int DIGITS_PER_LIMB = 9;
// Declared precision of a stored length, for the lengths that have one.
const int PRECISION_OF_TWO_LIMBS = 18;
const int PRECISION_OF_FOUR_LIMBS = 36;

u128 Magnitude(const st_VARDATA* v)
{
    u128 m = 0;
    for (int i = v->m_bValid - 1; i >= 0; --i) m = m * LIMB + (UINT)v->m_arDecimalData[i];
    return m;
}

// Data bytes of a declared precision, as the column table gives them.
int DataBytes(int nPrecison)
{
    if (nPrecison <= 2) return 1;
    if (nPrecison <= 4) return 2;
    if (nPrecison <= 7) return 3;
    if (nPrecison <= 9) return 4;
    if (nPrecison <= 18) return 8;
    if (nPrecison <= 27) return 12;
    return 16;
}

// Largest magnitude L data bytes hold.
u128 Capacity(int nBytes)
{
    const u128 ONE = 1;
    if (nBytes <= 8) return (ONE << (8 * nBytes)) - 1;
    u128 m = 1;
    for (int i = 0; i < nBytes / LIMB_BYTES; ++i) m *= LIMB;
    return m - 1;
}

int DigitCount(u128 m)
{
    int n = 0;
    while (m != 0) {
        m /= 10;
        ++n;
    }
    return n;
}

// L of a value without a declared precision, by its digit count.
int BytesByDigits(u128 m, int nValid)
{
    const int SMALL_DIGITS = 3, MEDIUM_DIGITS = 5, LARGE_DIGITS = 8;
    int nDigits = DigitCount(m);
    if (nDigits == 0) return 0;
    if (nDigits <= SMALL_DIGITS) return m <= Capacity(1) ? 1 : 2;
    if (nDigits <= MEDIUM_DIGITS) return m <= Capacity(2) ? 2 : 3;
    if (nDigits <= LARGE_DIGITS) return m <= Capacity(3) ? 3 : 4;
    return LIMB_BYTES * nValid;
}

void PutLittleEndian(LPBYTE p, unsigned long long v, int nBytes)
{
    for (int i = 0; i < nBytes; ++i) p[i] = (BYTE)(v >> (8 * i));
}

unsigned long long GetLittleEndian(const BYTE* p, int nBytes)
{
    unsigned long long v = 0;
    for (int i = nBytes - 1; i >= 0; --i) v = (v << 8) | p[i];
    return v;
}

int PrecisionOfBytes(int nBytes)
{
    switch (nBytes) {
    case 0: case 1: return 2;
    case 2: return 4;
    case 3: return 7;
    case 4: return 9;
    case 8: return PRECISION_OF_TWO_LIMBS;
    case 16: return PRECISION_OF_FOUR_LIMBS;
    default: return nBytes / LIMB_BYTES * DIGITS_PER_LIMB;
    }
}

bool FitsPrecision(const st_VARDATA* v, int nPrecision) { return Magnitude(v) <= Capacity(DataBytes(nPrecision)); }

void SetLoaded(st_VARDATA* v, BYTE bSign, int nScale, u128 m)
{
    memset(&v->m_bSign, 0, sizeof(st_VARDATA) - 4 - sizeof(int));
    v->m_vt = TALVOR_VT_DECIMAL;
    v->m_bSign = bSign;
    v->m_bScale = (signed char)nScale;
    int nValid = 0;
    for (int i = 0; i < TALVOR_DECIMAL_LIMBS; ++i) {
        v->m_arDecimalData[i] = (int)(m % LIMB);
        m /= LIMB;
        if (v->m_arDecimalData[i] != 0) nValid = i + 1;
    }
    v->m_bValid = (BYTE)(nValid == 0 ? 1 : nValid);
}

unsigned long long FoldLimbs(const unsigned long long* arLimbs, int nLimbs)
{
    while (nLimbs > 1 && arLimbs[nLimbs - 1] == 0) --nLimbs;
    unsigned long long h = arLimbs[0];
    for (int i = 1; i < nLimbs; ++i) h = h * HASH_MULTIPLIER + arLimbs[i];
    return h;
}

// The whole number m x 10^nExponent when it fits 64 bits. Result: false
// when it does not.
bool WholeIn64Bits(u128 m, int nExponent, unsigned long long& ullWhole)
{
    const u128 MAX_64 = ~0ULL;
    for (int i = 0; i < nExponent && m <= MAX_64; ++i) m *= 10;
    if (m > MAX_64) return false;
    ullWhole = (unsigned long long)m;
    return true;
}

int TrailingZeroBits(u128 m)
{
    const int HALF_BITS = 64;
    unsigned long long ullLow = (unsigned long long)m;
    if (ullLow != 0) return __builtin_ctzll(ullLow);
    return HALF_BITS + __builtin_ctzll((unsigned long long)(m >> HALF_BITS));
}

// The double that is exactly m x 10^-nScale (m not 0, and without trailing
// zeros when nScale is above 0). Result: false when no double is.
bool ExactDouble(u128 m, int nScale, double& d)
{
    const u128 DOUBLE_MANTISSA_LIMIT = (u128)1 << 53;
    // m x 10^k = m x 5^k x 2^k; m / 10^s = (m / 5^s) / 2^s, and only when 5^s
    // divides m: the odd part that is left must fit a double's 53 bits.
    int nTwos = -nScale;
    for (int i = 0; i < nScale; ++i) {
        if (m % 5 != 0) return false;
        m /= 5;
    }
    int nZeros = TrailingZeroBits(m);
    m >>= nZeros;
    for (int i = nScale; i < 0 && m < DOUBLE_MANTISSA_LIMIT; ++i) m *= 5;
    if (m >= DOUBLE_MANTISSA_LIMIT) return false;
    d = std::ldexp((double)(unsigned long long)m, nZeros + nTwos);
    return true;
}

long long HashOfDecimal(const st_VARDATA* v)
{
    u128 m = Magnitude(v);
    int nScale = v->m_bScale;
    if (m == 0) return (long long)talvorfixed::HashOfWhole(0);
    while (nScale > 0 && m % 10 == 0) {
        m /= 10;
        --nScale;
    }
    // What a long long or a double can equal hashes as they do.
    const unsigned long long MAGNITUDE_2_63 = 1ULL << 63;
    unsigned long long ullSmall = 0;
    bool bWhole64 = nScale <= 0 && WholeIn64Bits(m, -nScale, ullSmall);
    if (bWhole64 && ullSmall <= MAGNITUDE_2_63) return (long long)talvorfixed::HashOfWholeMagnitude(ullSmall);
    double d = 0;
    if (ExactDouble(m, nScale, d)) return (long long)talvorfixed::HashOfDouble(d);
    if (nScale > 0 && m <= (u128)~0ULL) return (long long)talvorfixed::HashOfDigits((unsigned long long)m, nScale);
    if (bWhole64) return (long long)talvorfixed::HashOfDigits(ullSmall, 0);
    unsigned long long arLimbs[MAX_WIDE_LIMBS] = {0};
    // Trailing zeros of a negative scale become whole zero limbs and one
    // power of ten, so the limbs are those of the integer multiplied out.
    int nShift = nScale < 0 ? -nScale / DIGITS_PER_LIMB : 0;
    int nRest = nScale < 0 ? -nScale % DIGITS_PER_LIMB : 0;
    unsigned long long ullFactor = 1;
    for (int i = 0; i < nRest; ++i) ullFactor *= 10;
    int n = nShift;
    unsigned long long ullCarry = 0;
    while (m != 0 || ullCarry != 0) {
        unsigned long long t = (unsigned long long)(m % LIMB) * ullFactor + ullCarry;
        arLimbs[n++] = t % LIMB;
        ullCarry = t / LIMB;
        m /= LIMB;
    }
    unsigned long long h = FoldLimbs(arLimbs, n);
    // A fraction that remains cannot equal any integer; its scale joins in.
    if (nScale > 0) h = h * HASH_MULTIPLIER + (unsigned long long)nScale;
    return (long long)h;
}

}  // namespace

int CTalvorDecimalBin::CalcBinLen(int nPrecison)
{
    if (nPrecison <= 0 || nPrecison > PRECISION_OF_FOUR_LIMBS) nPrecison = PRECISION_OF_FOUR_LIMBS;
    return DataBytes(nPrecison) + 2;
}

int CTalvorDecimalBin::CalcBinLen(const st_VARDATA* lpValue)
{
    int nPrecision = lpValue->m_bPrecison;
    if (nPrecision >= 1 && nPrecision <= PRECISION_OF_FOUR_LIMBS) return CalcBinLen(nPrecision);
    return BytesByDigits(Magnitude(lpValue), lpValue->m_bValid) + 2;
}

int CTalvorDecimalBin::GetBinLen(const BYTE* lpData)
{
    int nBytes = lpData[0] & TALVOR_DECIMAL_BIN_LENGTH;
    return nBytes + ((lpData[0] & TALVOR_DECIMAL_BIN_SCALE) ? 2 : 1);
}

int CTalvorDecimalBin::FormatBin(const st_VARDATA* lpValue, LPBYTE lpBuffer, int nLen)
{
    if (lpValue->m_vt != TALVOR_VT_DECIMAL) return 0;
    u128 m = Magnitude(lpValue);
    int nPrecision = lpValue->m_bPrecison;
    int nBytes;
    if (nPrecision >= 1 && nPrecision <= PRECISION_OF_FOUR_LIMBS) {
        nBytes = DataBytes(nPrecision);
        if (m > Capacity(nBytes)) return 0;
    } else {
        nBytes = BytesByDigits(m, lpValue->m_bValid);
    }
    if (nBytes + 2 > nLen) return 0;
    BYTE bFlag = TALVOR_DECIMAL_BIN_SCALE | (BYTE)nBytes;
    if (lpValue->m_bSign) bFlag |= TALVOR_DECIMAL_BIN_NEGATIVE;
    LPBYTE p = lpBuffer + 2;
    const unsigned long long ONE_LIMB_MAX = LIMB - 1;
    if (nBytes < LIMB_BYTES || (nBytes == LIMB_BYTES && m > ONE_LIMB_MAX) ||
        (nBytes == 2 * LIMB_BYTES && m >= TWO_LIMBS)) {
        // Past the limbs of its length the value is one binary integer.
        if (nBytes >= LIMB_BYTES) bFlag |= TALVOR_DECIMAL_BIN_BINARY;
        PutLittleEndian(p, (unsigned long long)m, nBytes);
    } else {
        for (int i = 0; i < nBytes / LIMB_BYTES; ++i) {
            PutLittleEndian(p + i * LIMB_BYTES, (unsigned long long)(m % LIMB), LIMB_BYTES);
            m /= LIMB;
        }
    }
    lpBuffer[0] = bFlag;
    lpBuffer[1] = (BYTE)lpValue->m_bScale;
    return nBytes + 2;
}

int CTalvorDecimalBin::LoadBin(const BYTE* lpData, st_VARDATA* lpValue)
{
    BYTE bFlag = lpData[0];
    int nBytes = bFlag & TALVOR_DECIMAL_BIN_LENGTH;
    bool bScale = (bFlag & TALVOR_DECIMAL_BIN_SCALE) != 0;
    int nScale = bScale ? (signed char)lpData[1] : 0;
    const BYTE* p = lpData + (bScale ? 2 : 1);
    BYTE bSign = (bFlag & TALVOR_DECIMAL_BIN_NEGATIVE) ? 1 : 0;
    if (nBytes > MAX_DATA_BYTES || nScale < TALVOR_DECIMAL_MIN_SCALE) {
        memset(&lpValue->m_bSign, 0, sizeof(st_VARDATA) - 4 - sizeof(int));
        lpValue->m_vt = TALVOR_VT_NULL;
        return TALVOR_ERROR_DECIMAL_LOAD;
    }
    u128 m = 0;
    bool bBinary = nBytes < LIMB_BYTES || ((bFlag & TALVOR_DECIMAL_BIN_BINARY) && (nBytes == LIMB_BYTES || nBytes == 2 * LIMB_BYTES));
    if (bBinary) {
        m = GetLittleEndian(p, nBytes);
    } else {
        for (int i = nBytes / LIMB_BYTES - 1; i >= 0; --i) {
            unsigned long long ullLimb = GetLittleEndian(p + i * LIMB_BYTES, LIMB_BYTES);
            if (ullLimb >= LIMB) {
                memset(&lpValue->m_bSign, 0, sizeof(st_VARDATA) - 4 - sizeof(int));
                lpValue->m_vt = TALVOR_VT_NULL;
                return TALVOR_ERROR_DECIMAL_LOAD;
            }
            m = m * LIMB + ullLimb;
        }
    }
    SetLoaded(lpValue, bSign, nScale, m);
    lpValue->m_bPrecison = (BYTE)PrecisionOfBytes(nBytes);
    return 0;
}

int CTalvorDecimalBin::GetMax(int nPrecision, LPBYTE lpBuffer)
{
    int nBytes = DataBytes(nPrecision);
    lpBuffer[0] = (BYTE)(TALVOR_DECIMAL_BIN_SCALE | nBytes);
    lpBuffer[1] = TALVOR_DECIMAL_MAX_KEY_SCALE;
    if (nBytes < LIMB_BYTES) {
        memset(lpBuffer + 2, 0xFF, nBytes);
    } else {
        for (int i = 0; i < nBytes / LIMB_BYTES; ++i) PutLittleEndian(lpBuffer + 2 + i * LIMB_BYTES, LIMB - 1, LIMB_BYTES);
    }
    return nBytes + 2;
}

BOOL CTalvorDecimalBin::IsMax(const BYTE* lpData)
{
    return (lpData[0] & TALVOR_DECIMAL_BIN_SCALE) && lpData[1] == TALVOR_DECIMAL_MAX_KEY_SCALE;
}

int CTalvorDecimalBin::VerificationData(st_VARDATA* lpValue, BYTE nPrecision, char nScale)
{
    if (lpValue->m_vt != TALVOR_VT_DECIMAL) return TALVOR_ERROR_DECIMAL_PRECISION;
    if (lpValue->m_bScale == nScale && FitsPrecision(lpValue, nPrecision)) {
        lpValue->m_bPrecison = nPrecision;
        return 0;
    }
    st_VARDATA stFitted = *lpValue;
    if (CTalvorDecimal::Zoom(lpValue, &stFitted, nScale, TRUE) != 0 || !FitsPrecision(&stFitted, nPrecision))
        return TALVOR_ERROR_DECIMAL_PRECISION;
    stFitted.m_bPrecison = nPrecision;
    *lpValue = stFitted;
    return 0;
}

long long CTalvorDecimalBin::CalcHashFactor(const st_VARDATA* lpValue)
{
    switch (lpValue->m_vt) {
    case TALVOR_VT_INT: return (long long)talvorfixed::HashOfWhole(lpValue->m_nValue);
    case TALVOR_VT_BIGINT: return (long long)talvorfixed::HashOfWhole(lpValue->m_llValue);
    case TALVOR_VT_DOUBLE: return (long long)talvorfixed::HashOfDouble(lpValue->m_dblValue);
    case TALVOR_VT_DECIMAL: return HashOfDecimal(lpValue);
    default: return 0;
    }
}
