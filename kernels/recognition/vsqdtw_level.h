// Dynamic time warping of one test utterance against one pattern, on a banded grid of test frames
// (rows) by pattern frames (columns).
#pragma once

#include "levels/levelrecord.h"

namespace vsq {

// Columns are handled in runs of this many, wherever a run begins.
constexpr int dtwRun = 8;

// The float nearest 3.4e+38 (bit pattern 0x7F7FC99E): the cost of a cell that no path reaches.
constexpr float dtwDead = 3.4e+38f;

// A pattern is compared by dimension: element k of frame j is at [k * dtwStride(nFrames) + j], in
// double precision, so that a run of frames is one load. Kept so it would take more than twice the
// memory. The stride is an odd number of cache lines, so that the dimensions do not compete for the
// same ones; a run that begins at the last frame may read beyond the stride, hence the room after
// the last dimension.
constexpr long long dtwStride(int nFrames) {
    return nFrames > 0 ? ((static_cast<long long>(nFrames) + dtwRun - 1) / dtwRun | 1) * dtwRun : 0;
}
constexpr long long dtwPatternSize(int nFrames, int nDim) {
    return dtwStride(nFrames) * nDim + dtwRun;
}

// Room for a row of the grid: two columns in front of the first, a run and two columns after the
// last.
constexpr int dtwRoomBefore = 2;
constexpr int dtwRoomAfter = dtwRun + 2;

struct DtwGrid {
    const double* test;          // nRows frames of nDim elements, row after row
    const float* const* pattern; // nColumns frames, readable to nDim rounded up to a multiple of 4
    // scratch: dtwPatternSize(nColumns, nDim) numbers, for the frames as above
    double* columns;
    int nRows, nColumns, nDim;
    // the local distance: sum of magnitudes; otherwise the root of the sum of squares
    bool cityBlock;
    // first and last column of each row's band; the first does not decrease, and neither
    const int* bounds;
    // bound rises by more than 2 from a row to the next
    double threshold; // the result where no path stays below it
    float pruneFrom;  // the smallest float that is not below the threshold
    float clampTo;    // the threshold rounded to float
    float* cost[2];   // scratch: column 0 of two rows, with the room above around them
    int* flat[2];
};

struct DtwKernels {
    // Cost of the best path whose every step goes one row up and 0, 1 or 2 columns on, never two
    // steps of 0 in a row. Ties go to the step of 1. A cell whose best predecessor has reached the
    // threshold is dropped. Costs are floats. A local distance is computed in double precision and
    // rounded to float before it is added, but for the last row, which rounds the sum alone. All
    // levels give the same bits.
    double (*evaluate)(const DtwGrid& grid);
};
VSQ_DECLARE_LEVELS(DtwKernels, dtwKernels)

} // namespace vsq
