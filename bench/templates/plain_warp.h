// Time warping with fixed ends over a band of slopes 1/2 and 2, in float: patterns stored dimension
// by dimension, so that the columns of a row are computed side by side.
#pragma once

#include <vector>

namespace plain {

class Pattern {
public:
    Pattern(const float* const* frames, int nFrames, int nDim);

    // The best cost of a path, no two flat steps in a row; every row advances by 0, 1 or 2 columns.
    // As an application would write it: in place, from the highest column down.
    float warp(const float* const* test, int nTest);
    // The same with distances in registers and two rows of costs, so that the recursion vectorises
    // too.
    float warpLanes(const float* const* test, int nTest);

private:
    void clear();
    void distances(const float* frame, int lo, int hi);
    void distancesLanes(const float* frame, int lo, int hi);

    int nColumns, nDim, stride;
    std::vector<float> values; // nDim rows of `stride`
    std::vector<float> local, costs[2], bans[2];
};

} // namespace plain
