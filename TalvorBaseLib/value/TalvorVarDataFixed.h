// TalvorVarDataFixed.h — the order and hash input of the fixed-width numbers
// (int, long long, double) on their own, inline: a sort, a grouping or a
// hash join meets them once a row, where a call and a mispredicted branch
// cost more than the work. st_VARDATA's Compare and CalcHashFactor take them
// from here, and the decimal hash takes the same keys for every decimal an
// integer or a double can equal, so that equal numbers of every type keep
// one hash input. The hash input is kept nowhere: it may change between
// versions.
//
// The key of a number, the sign never counting:
//   - a number a double holds exactly: the bits of that double without the
//     sign (0 and -0.0 alike) — every int, every long long up to 2^53;
//   - any other whole number of the long long range: its magnitude, marked
//     so that no double's key meets it;
//   - any other number (only a decimal holds one): its digits and scale.
// Doubles, the type whose digits cost most to find, take their key as they
// are; integers pay one conversion, exact up to 2^53.
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
    // A difference that is no number (NaN, or infinities of one sign) has
    // always ordered by a < b alone, which is false then: 1. !(d <= eps)
    // gives that 1 with the order, in one compare.
    return (int)!(d <= kDoubleEpsilon) - (int)(d < -kDoubleEpsilon);
}

// Result: |ll| as unsigned, LLONG_MIN included, without a branch.
inline unsigned long long MagnitudeOf(long long ll)
{
    unsigned long long u = (unsigned long long)ll, ullSign = 0ULL - (u >> 63);
    return (u ^ ullSign) - ullSign;
}

// Result: the hash input of a key: multiplied by an odd constant (no two
// keys alike) with its high half folded into the low one, without a
// division.
inline unsigned long long HashOfMagnitude(unsigned long long ullMagnitude)
{
    const unsigned long long GOLDEN = 0x9E3779B97F4A7C15ULL;
    const int HALF = 32;
    unsigned long long h = ullMagnitude * GOLDEN;
    return h ^ (h >> HALF);
}

// Result: the key of a double: its bits moved up by one, which drops the
// sign (0 and -0.0 alike) and leaves the lowest bit clear.
inline unsigned long long DoubleKey(double d)
{
    unsigned long long ullBits = 0;
    memcpy(&ullBits, &d, sizeof(ullBits));
    return ullBits << 1;
}

// Result: the key of a whole number below 2^63 in magnitude that no double
// holds: the magnitude moved up by one with the lowest bit set, a key no
// double's reaches.
inline unsigned long long WideWholeKey(unsigned long long ullMagnitude) { return (ullMagnitude << 1) | 1; }

// Result: the hash input of any double.
inline unsigned long long HashOfDouble(double d) { return HashOfMagnitude(DoubleKey(d)); }

// Result: the hash input of a whole number past 2^53 in magnitude: that of
// the double when one holds it exactly, else by WideWholeKey.
inline unsigned long long HashOfWideWhole(long long ll)
{
    const double TWO_TO_63 = 9223372036854775808.0;
    double d = (double)ll;
    // (double)LLONG_MAX rounds up to 2^63, which no long long reaches back.
    if (d != TWO_TO_63 && (long long)d == ll) return HashOfDouble(d);
    return HashOfMagnitude(WideWholeKey(MagnitudeOf(ll)));
}

// Result: the hash input of a long long (or an int).
inline unsigned long long HashOfWhole(long long ll)
{
    // [-2^53, 2^53): the double holds it exactly.
    const unsigned long long EXACT = 1ULL << 53;
    const int EXACT_RANGE_BITS = 54;
    if (__builtin_expect((((unsigned long long)ll + EXACT) >> EXACT_RANGE_BITS) == 0, 1))
        return HashOfDouble((double)ll);
    return HashOfWideWhole(ll);
}

// Result: the hash input of a number that neither a double nor a long long
// holds, whose digits (the last not 0 when nScale is above 0) make
// ullDigits, nScale of them after the point: the scale goes into the top
// bits.
inline unsigned long long HashOfDigits(unsigned long long ullDigits, int nScale)
{
    const int SCALE_SHIFT = 57;  // scales go to 127: seven bits
    return HashOfMagnitude(ullDigits ^ ((unsigned long long)nScale << SCALE_SHIFT));
}

} // namespace talvorfixed
