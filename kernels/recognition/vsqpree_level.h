// Pre-emphasis in place: each element but the first becomes x[i] - alpha * x[i-1], always from the
// unfiltered previous element. n may be anything; nothing is written for n below 2.
#pragma once

#include "levels/levelrecord.h"

namespace vsq {

// Fixed point: acc = x[i] * 2^14 - alphaQ * x[i-1] is exact in 32 bits for alphaQ from 0 to 2^14,
// and its shift rounds toward minus infinity. `saturateFixed` narrows acc >> 14 with
// saturation; `shiftFixed` keeps the low 16 bits of acc >> shift, shift from 0 to 31.
struct PreeKernels {
    void (*filterFloat)(float* vec, int n, float alpha);
    void (*saturateFixed)(short* vec, int n, int alphaQ);
    void (*shiftFixed)(short* vec, int n, int alphaQ, int shift);
};
VSQ_DECLARE_LEVELS(PreeKernels, preeKernels)

} // namespace vsq
