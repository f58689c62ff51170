// The range control of the forward recursions: a frame's sum over the states decides by its
// exponent field whether the frame is multiplied by a power of two, which loses no bits. For
// level sources.
#pragma once

#include "simd/pack.h"

#include <cstdint>
#include <cstring>

namespace vsq::VSQ_LEVEL {
namespace {

constexpr int exponentShift = 52, allOfField = 0x7FF;    // where the exponent field of a double is
constexpr int unitField = 0x3FF;                         // the field of 1.0
constexpr int lowestField = 0x37F, highestField = 0x47F; // 2^-128 and 2^128
constexpr int clampedField = 0x2FF;                      // one step multiplies by 2^256 at the most
constexpr int overflowField = 0x7FE;

VSQ_INLINE std::uint64_t patternOf(double value) {
    std::uint64_t pattern;
    std::memcpy(&pattern, &value, sizeof pattern);
    return pattern;
}

VSQ_INLINE int exponentField(double value) {
    return static_cast<int>(patternOf(value) >> exponentShift) & allOfField;
}

VSQ_INLINE bool isInRange(double sum) {
    const int field = exponentField(sum);
    return sum >= 0.0 && field >= lowestField && field <= highestField;
}

enum class RangeFault {
    none,
    vanished, // zero or denormal
    // negative, no number, or too large for the doubles; or the count of exponents left the ints
    beyond
};

// Brings a sum near 1: multiplies it by a power of two, which the frame's values then need as well,
// and counts its exponent. After a fault nothing has been changed.
VSQ_INLINE RangeFault bringIntoRange(double* sum, double* power, int* exponent) {
    int field = exponentField(*sum);
    if (!(*sum >= 0.0) || field >= overflowField) return RangeFault::beyond;
    if (field == 0) return RangeFault::vanished;
    if (field < clampedField) field = clampedField;
    int counted;
    if (__builtin_sadd_overflow(*exponent, unitField - field, &counted)) return RangeFault::beyond;
    *exponent = counted;
    const std::uint64_t pattern = static_cast<std::uint64_t>(2 * unitField - field)
                                  << exponentShift; // 2^(unitField - field)
    std::memcpy(power, &pattern, sizeof pattern);
    *sum *= *power;
    return RangeFault::none;
}

} // namespace
} // namespace vsq::VSQ_LEVEL
