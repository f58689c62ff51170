// Sums under the norms. n is 1 or more; b may be null, and the values are then those of a instead
// of a - b.
#pragma once

#include "levels/levelrecord.h"

#include <cstdint>

namespace vsq {

// Floats: differences, squares and sums in double, 16 lanes and a tree, the same order at every
// level.
struct NormKernels {
    // largest magnitude; NaNs count as 0
    double (*largestFloat)(const float* a, const float* b, int n);
    double (*sumFloat)(const float* a, const float* b, int n);     // sum of magnitudes
    double (*squaresFloat)(const float* a, const float* b, int n); // sum of squares
    // 16-bit values: exact, below 2^17, 2^48 and 2^63.
    std::int64_t (*largestFixed)(const short* a, const short* b, int n);
    std::int64_t (*sumFixed)(const short* a, const short* b, int n);
    std::int64_t (*squaresFixed)(const short* a, const short* b, int n);
    // results[i] is the root of squaresFloat(a[i], b[i], n), for i < count; b[i] is not null.
    void (*distancesFloat)(const float* const* a, const float* const* b, int count, int n,
                           double* results);
};
VSQ_DECLARE_LEVELS(NormKernels, normKernels)

} // namespace vsq
