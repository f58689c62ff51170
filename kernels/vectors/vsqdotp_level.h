// Inner products of floats.
#pragma once

#include "levels/levelrecord.h"

namespace vsq {

struct DotProductKernels {
    // The sum of a[i] * b[i] over n (0 or more) elements: exact products, summed in 16 double lanes
    // and then as a tree, the same order at every level.
    double (*dot)(const float* a, const float* b, int n);
};
VSQ_DECLARE_LEVELS(DotProductKernels, dotProductKernels)

} // namespace vsq
