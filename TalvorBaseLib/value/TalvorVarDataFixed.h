// TalvorVarDataFixed.h — the order and hash input of the fixed-width numbers
// (int, long long, double) on their own, inline: a sort, a grouping or a
// hash join meets them once a row, where a call and a mispredicted branch
// cost more than the work. st_VARDATA's Compare and CalcHashFactor take them
// from here; the decimal hash takes HashOfDigits for every decimal whose
// digits fit 64 bits, so that equal numbers of every type keep one hash
// input. The hash input is kept nowhere: it may change between versions.
//
// Thread safety: pure functions of their arguments.
#pragma once

#include <cstring>

namespace talvorfixed {

// Doubles and day numbers equal within this.
constexpr double kDoubleEpsilon = 1e-8;

// Result: -1, 0 or 1, computed without a branch.
template <class T> inline int IntegerOrder(T a, T b) { return (a > b) - (a < b); }

// Result: 0 for doubles within kDoubleEpsilon, else -1 or 1; without a
// branch on the values, which a sort or a probe meets in no order.
inline int DoubleOrder(double a, double b)
{
    double d = a - b;
    int n = (d > kDoubleEpsilon) - (d < -kDoubleEpsilon);
    // A difference that is no number (NaN, or infinities of one sign) has
    // always ordered by a < b alone.
    if (d != d) n = a < b ? -1 : 1;
    return n;
}

// Result: |ll| as unsigned, LLONG_MIN included, without a branch.
inline unsigned long long MagnitudeOf(long long ll)
{
    unsigned long long u = (unsigned long long)ll, ullSign = 0ULL - (u >> 63);
    return (u ^ ullSign) - ullSign;
}

// Result: the hash input of a whole number of magnitude ullMagnitude (the
// sign does not count), the one equal numbers share in every type: the
// magnitude multiplied by an odd constant (no two magnitudes alike) with its
// high half folded into the low one, without a division. Magnitudes past 64
// bits, which only a decimal holds, fold their base-10^9 limbs instead.
inline unsigned long long HashOfMagnitude(unsigned long long ullMagnitude)
{
    const unsigned long long GOLDEN = 0x9E3779B97F4A7C15ULL;
    const int HALF = 32;
    unsigned long long h = ullMagnitude * GOLDEN;
    return h ^ (h >> HALF);
}

// Result: the hash input of a number whose digits (the last not 0 when
// nScale is above 0) make ullDigits, nScale of them after the point: the
// scale goes into the top bits, so that a whole number (scale 0) hashes as
// HashOfMagnitude alone.
inline unsigned long long HashOfDigits(unsigned long long ullDigits, int nScale)
{
    const int SCALE_SHIFT = 57;  // scales go to 127: seven bits
    return HashOfMagnitude(ullDigits ^ ((unsigned long long)nScale << SCALE_SHIFT));
}

// A double that is a short binary fraction (at most 20 fraction bits, below
// 10^15 in digits) or a whole number below 2^63 as its exact decimal digits:
// magnitude and scale, the scale the least that holds it. Converting through
// the decimal parser may miss the last of 16 or more digits; these are
// exact, so the compare and the hash take short doubles from here.
// Result: false for any other double.
inline bool ShortDoubleDigits(double d, unsigned long long& ullDigits, int& nScale)
{
    const int MAX_FRACTION_BITS = 20, EXPONENT_BIAS = 1023, MANTISSA_BITS = 52, EXPONENT_MASK = 0x7FF;
    // A mantissa of 53 bits moved up by 10 stays below 2^63.
    const int MAX_WHOLE_SHIFT = 63 - (MANTISSA_BITS + 1);
    const unsigned long long MANTISSA_MASK = (1ULL << MANTISSA_BITS) - 1;
    // 5^s, and the largest whole number that times 5^s stays below 10^15
    // (below 2^63 for whole numbers): the digits of d are d x 2^s x 5^s.
    static const unsigned long long arPowers5[MAX_FRACTION_BITS + 1] = {
        1ULL,           5ULL,           25ULL,           125ULL,           625ULL,           3125ULL,
        15625ULL,       78125ULL,       390625ULL,       1953125ULL,       9765625ULL,       48828125ULL,
        244140625ULL,   1220703125ULL,  6103515625ULL,   30517578125ULL,   152587890625ULL,  762939453125ULL,
        3814697265625ULL, 19073486328125ULL, 95367431640625ULL};
    static const unsigned long long arLimits[MAX_FRACTION_BITS + 1] = {
        9223372036854775807ULL, 199999999999999ULL, 39999999999999ULL, 7999999999999ULL, 1599999999999ULL,
        319999999999ULL,    63999999999ULL,     12799999999ULL,    2559999999ULL,    511999999ULL,
        102399999ULL,       20479999ULL,        4095999ULL,        819199ULL,        163839ULL,
        32767ULL,           6553ULL,            1310ULL,           262ULL,           52ULL,
        10ULL};
    unsigned long long ullBits = 0;
    memcpy(&ullBits, &d, sizeof(ullBits));
    // |d| = mantissa x 2^-p, p = bias + 52 - exponent. The lowest set bit
    // of the mantissa tells how many of those p binary places d needs.
    int nExponent = (int)(ullBits >> MANTISSA_BITS) & EXPONENT_MASK;
    int nPlaces = EXPONENT_BIAS + MANTISSA_BITS - nExponent;
    nScale = 0;
    ullDigits = 0;
    // A zero exponent is 0 of either sign, or a subnormal with far more
    // than MAX_FRACTION_BITS places.
    if (nExponent == 0) return (ullBits << 1) == 0;
    unsigned long long ullMantissa = (ullBits & MANTISSA_MASK) | (1ULL << MANTISSA_BITS);
    // No places: a whole number from 2^52 on, an infinity or not a number.
    if (nPlaces <= 0) {
        if (-nPlaces > MAX_WHOLE_SHIFT) return false;
        ullDigits = ullMantissa << -nPlaces;
        return true;
    }
    int nLowBit = __builtin_ctzll(ullMantissa);
    int nShift = nLowBit < nPlaces ? nLowBit : nPlaces;
    nScale = nPlaces - nShift;
    if (nScale > MAX_FRACTION_BITS) return false;
    // d x 2^s is the whole number left of the shifted-out zeros.
    unsigned long long ullWhole = ullMantissa >> nShift;
    if (ullWhole > arLimits[nScale]) return false;
    ullDigits = ullWhole * arPowers5[nScale];
    return true;
}

// The hash input of a short double: that of the decimal of the same digits
// and scale. Result: false for any other double.
inline bool ShortDoubleHash(double d, unsigned long long& ullHash)
{
    unsigned long long u = 0;
    int nScale = 0;
    if (!ShortDoubleDigits(d, u, nScale)) return false;
    // With any binary place the digits are odd x 5^s and end in 5: the
    // trailing zeros a decimal strips before it hashes are never there.
    ullHash = HashOfDigits(u, nScale);
    return true;
}

} // namespace talvorfixed
