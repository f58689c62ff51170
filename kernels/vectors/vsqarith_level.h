// Elementwise arithmetic and fills. All arrays have n elements; dst may be src.
#pragma once

#include "levels/levelrecord.h"

namespace vsq {

struct ArithKernels {
    void (*setFloat)(float value, float* dst, int n);      // dst[i] = value
    void (*setFixed)(short value, short* dst, int n);      // dst[i] = value
    void (*scale)(float factor, float* dst, int n);        // dst[i] *= factor
    void (*multiply)(const float* src, float* dst, int n); // dst[i] *= src[i]
};
VSQ_DECLARE_LEVELS(ArithKernels, arithKernels)

} // namespace vsq
