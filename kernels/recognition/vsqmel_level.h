// Mel filtering: each output is a weighted sum over a short run of neighbouring spectrum bins.
#pragma once

#include "levels/levelrecord.h"

namespace vsq {

// Filters as the kernel runs over them. Groups of four rows share one number of blocks, a
// block is eight bins, and what a row lacks is filled up with weights of zero; so there is no test
// per filter and no tail per sum. The maker sees to it that no block leaves the spectrum:
// firstBin[row] + 8 * nBlocks[group] is at most the number of bins the caller's spectrum has.
struct MelPlan {
    static constexpr int rowsPerGroup = 4;
    static constexpr int binsPerBlock = 8;

    int nRows;   // filters; the last group may be partly empty
    int nGroups; // nRows / 4, rounded up
    // 4 * nGroups: the row's first bin; 0 for rows that only fill the last group
    const int* firstBin;
    const int* nBlocks; // nGroups
    // group after group, in it block after block, in it row after row: eight weights, each the
    // value of a float, so that its product with a bin is exact in double
    const double* weights;
};

struct MelKernels {
    // out[row] = sum of spectrum[bin] * weight, in double: lane l of eight takes every eighth bin,
    // in ascending order, and the lanes are added as a tree. Says whether every result is a number:
    // a weight of zero on an infinite bin or on a NaN gives a NaN in a row that does not know the
    // bin.
    bool (*filter)(const MelPlan& plan, const float* spectrum, float* out);
};
VSQ_DECLARE_LEVELS(MelKernels, melKernels)

} // namespace vsq
