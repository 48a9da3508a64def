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
//   - a double, and any number a double holds exactly: the double's bits
//     (DoubleKey);
//   - a whole number of magnitude up to 2^63: the bits of the double
//     nearest to it, which is the number itself below 2^53;
//   - any other number (only a decimal holds one): its digits and scale.
// A double pays a shift for its key and an integer one conversion; neither
// branches on its value, and neither looks for digits.
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
    // gives that 1 with the order, in one compare. Written as a choice, a
    // caller's "< 0" or "> 0" comes down to one compare of d.
    return d < -kDoubleEpsilon ? -1 : (int)!(d <= kDoubleEpsilon);
}

// Result: the hash input of a key: multiplied by an odd constant (no two
// keys alike) with its high half folded into the low one, without a
// division.
inline unsigned long long HashOfKey(unsigned long long ullKey)
{
    const unsigned long long GOLDEN = 0x9E3779B97F4A7C15ULL;
    const int HALF = 32;
    unsigned long long h = ullKey * GOLDEN;
    return h ^ (h >> HALF);
}

// Result: the key of a number a double holds: its bits moved up by one,
// which drops the sign (and makes -0.0 and 0.0 one key).
inline unsigned long long DoubleKey(double d)
{
    unsigned long long ullBits = 0;
    memcpy(&ullBits, &d, sizeof(ullBits));
    return ullBits << 1;
}

// Result: the hash input of any double, not a number and the infinities
// included: its key multiplied by an odd constant, the high half of the
// 128-bit product folded into the low one. Everyday numbers differ in the
// top of the key only; the high half carries them down, and one multiply
// gives both halves.
inline unsigned long long HashOfDouble(double d)
{
    const unsigned long long GOLDEN = 0x9E3779B97F4A7C15ULL;
    const int HALF = 64;
    unsigned __int128 uProduct = (unsigned __int128)DoubleKey(d) * GOLDEN;
    return (unsigned long long)uProduct ^ (unsigned long long)(uProduct >> HALF);
}

// Result: the hash input of a whole number: that of the double nearest
// to it. A double holds every whole number below 2^53 in magnitude, and
// any other it holds, exactly, so equal numbers meet the same input; the
// few that fall between doubles share their neighbour's, as unequal
// values may. Rounding to nearest is alike for both signs, so a magnitude
// gives the number's input.
inline unsigned long long HashOfWhole(long long ll) { return HashOfDouble((double)ll); }
inline unsigned long long HashOfWhole(int n) { return HashOfDouble((double)n); }
inline unsigned long long HashOfWholeMagnitude(unsigned long long ullMagnitude)
{
    return HashOfDouble((double)ullMagnitude);
}

// Result: the hash input of a number that neither a double nor a long long
// holds, whose digits (the last not 0 when nScale is above 0) make
// ullDigits, nScale of them after the point: the scale goes into the top
// bits.
inline unsigned long long HashOfDigits(unsigned long long ullDigits, int nScale)
{
    const int SCALE_SHIFT = 57;  // scales go to 127: seven bits
    return HashOfKey(ullDigits ^ ((unsigned long long)nScale << SCALE_SHIFT));
}

} // namespace talvorfixed
