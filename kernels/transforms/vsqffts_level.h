// The passes of the real transform.
#pragma once

#include "levels/levelrecord.h"

#include "transforms/vsqtwd.h"

namespace vsq {

// Transforms of 2 M reals, M = 2^tables.order, order 0 to 30. A spectrum is packed: X[0], then X[M]
// if shift is 0, then the pairs X[1] .. X[M - 1], and X[M] at the end if shift is 1. `in` may be
// `out`. `scratch` has 2 M floats where tables.nPasses is above 0 and is not used otherwise;
// 64-byte alignment makes it faster.
struct FftsKernels {
    void (*forward)(const float* in, float* out, int shift, const FftTables& tables,
                    float* scratch);
    // Not scaled but for `scale`, a power of two.
    void (*inverse)(const float* in, float* out, int shift, float scale, const FftTables& tables,
                    float* scratch);
};
VSQ_DECLARE_LEVELS(FftsKernels, fftsKernels)

} // namespace vsq
