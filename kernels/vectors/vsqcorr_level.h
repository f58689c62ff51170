// Autocorrelation of floats.
#pragma once

#include "levels/levelrecord.h"

namespace vsq {

struct CorrKernels {
    // sums[k] = the sum of src[i] * src[i + firstLag + k] over i from 0 to n - 1 - firstLag - k,
    // for k from 0 to nLags - 1; all lags below n. Exact products, double sums in an order that is
    // the same at every level.
    void (*autoCorr)(const float* src, int n, int firstLag, double* sums, int nLags);
};
VSQ_DECLARE_LEVELS(CorrKernels, corrKernels)

} // namespace vsq
