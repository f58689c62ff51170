// Natural logarithm and exponential function of float arrays, in place, within 2 units in the last
// place and with the special values of the C library's functions; the same bits at every level. Any
// n; nothing is checked.
#pragma once

#include "levels/levelrecord.h"

namespace vsq {

struct LnExpKernels {
    void (*ln)(float* vec, int n);
    void (*exp)(float* vec, int n);
};
VSQ_DECLARE_LEVELS(LnExpKernels, lnExpKernels)

} // namespace vsq
