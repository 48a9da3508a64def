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
//   - a whole number of magnitude up to 2^63: the magnitude (WholeKey),
//     which a double below 2^51 finds with one addition and a subtraction;
//   - any other number a double holds exactly: from the double's bits
//     (HashOfDouble);
//   - any other number (only a decimal holds one): its digits and scale.
// Integers keep the cost of their magnitude; a double pays a few floating
// additions, and neither looks for digits.
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

// Whole numbers below 2^51 added to this land, exactly, in the low bits of
// its mantissa: the bits of |d| + kWholeBridge less those of kWholeBridge
// are |d| as an integer, so a double finds an integer's key with one
// addition and one subtraction. This wants IEEE arithmetic, rounding to
// nearest: no -ffast-math where this header is included.
constexpr double kWholeBridge = 6755399441055744.0;  // 1.5 x 2^52
constexpr unsigned long long kWholeBridgeBits = 0x4338000000000000ULL;

// Result: the key of a whole number of magnitude at most 2^63: the
// magnitude itself, so that an integer pays nothing for it.
inline unsigned long long WholeKey(unsigned long long ullMagnitude) { return ullMagnitude; }

// Result: the key of a double no other rule takes: its bits moved up by
// one, which drops the sign.
inline unsigned long long DoubleKey(double d)
{
    unsigned long long ullBits = 0;
    memcpy(&ullBits, &d, sizeof(ullBits));
    return ullBits << 1;
}

// Result: the hash input of a double of magnitude 2^51 or more, an
// infinity or not a number: a whole one of magnitude up to 2^63 as the
// integer, any other by DoubleKey.
inline unsigned long long HashOfWideDouble(double d)
{
    const double TWO_TO_63 = 9223372036854775808.0;
    const unsigned long long MAGNITUDE_2_63 = 1ULL << 63;
    double dAbs = d < 0 ? -d : d;
    if (dAbs <= TWO_TO_63) {
        unsigned long long u = dAbs < TWO_TO_63 ? (unsigned long long)dAbs : MAGNITUDE_2_63;
        if ((double)u == dAbs) return HashOfMagnitude(WholeKey(u));
    }
    return HashOfMagnitude(DoubleKey(d));
}

// Result: the hash input of any double. Below 2^51 in magnitude the nearest
// whole number through kWholeBridge, and what is left over, both exact: a
// whole double leaves +0.0 and takes the integer's key; a fraction's
// remainder joins its key. Magnitudes from 2^51 on are rare and go out of
// the way.
inline unsigned long long HashOfDouble(double d)
{
    const double TWO_TO_51 = 2251799813685248.0;
    double dAbs = __builtin_fabs(d);
    if (__builtin_expect(!(dAbs < TWO_TO_51), 0)) return HashOfWideDouble(d);
    double dBridged = dAbs + kWholeBridge;
    double dRest = dAbs - (dBridged - kWholeBridge);
    unsigned long long ullBridged = 0, ullRest = 0;
    memcpy(&ullBridged, &dBridged, sizeof(ullBridged));
    memcpy(&ullRest, &dRest, sizeof(ullRest));
    // The remainder's bits are multiplied apart first: fractions of nearby
    // whole numbers often leave remainders that differ in low bits only.
    const unsigned long long REST_MIX = 0xC2B2AE3D27D4EB4FULL;
    return HashOfMagnitude(WholeKey(ullBridged - kWholeBridgeBits) ^ (ullRest * REST_MIX));
}

// Result: the hash input of a long long (or an int): its magnitude's key.
inline unsigned long long HashOfWhole(long long ll) { return HashOfMagnitude(WholeKey(MagnitudeOf(ll))); }

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
