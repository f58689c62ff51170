// Roots, thresholds, reciprocals, magnitudes. All arrays have n elements, src of the complex ones n
// pairs (re, im); dst may be src.
#pragma once

#include "levels/levelrecord.h"

namespace vsq {

struct MiscKernels {
    // dst[i] = sqrt(src[i]); a negative element leaves its dst[i] alone. Returns whether there was
    // one. Takes no root of a negative number, not even in lanes that are thrown away.
    bool (*root)(const float* src, float* dst, int n);
    // Values whose bit pattern lies below (or above) thresh's become thresh; see vsqsbThresh1.
    void (*raiseTo)(float* vec, int n, float thresh);
    void (*lowerTo)(float* vec, int n, float thresh);
    // vec[i] = 1 / vec[i], magnitudes below thresh (>= 0) counting as thresh. Zero elements under a
    // zero thresh stay; returns whether there was one. Never divides by zero.
    bool (*reciprocal)(float* vec, int n, float thresh);
    void (*magnitude)(const float* src, float* dst, int n); // dst[i] = sqrt(re * re + im * im)
    void (*power)(const float* src, float* dst, int n);     // dst[i] = re * re + im * im
};
VSQ_DECLARE_LEVELS(MiscKernels, miscKernels)

} // namespace vsq
