// Sums under the norms. n is 1 or more; b may be null, and the values are then those of a instead
// of a - b.
#pragma once

#include "levels/levelrecord.h"

#include <cstdint>

namespace vsq {

// Floats: differences, squares and sums in double, 16 lanes and a tree, the same order at every
// level.
struct NormKernels {
    // largest magnitude; not-a-numbers count as 0
    double (*largest)(const float* a, const float* b, int n);
    double (*sum)(const float* a, const float* b, int n);     // sum of magnitudes
    double (*squares)(const float* a, const float* b, int n); // sum of squares
    // 16-bit values: exact, below 2^17, 2^48 and 2^63.
    std::int64_t (*largestWords)(const short* a, const short* b, int n);
    std::int64_t (*sumWords)(const short* a, const short* b, int n);
    std::int64_t (*squaresWords)(const short* a, const short* b, int n);
    // results[i] is the root of squares(a[i], b[i], n), for i < count; b[i] is not null.
    void (*distances)(const float* const* a, const float* const* b, int count, int n,
                      double* results);
};
VSQ_DECLARE_LEVELS(NormKernels, normKernels)

} // namespace vsq
