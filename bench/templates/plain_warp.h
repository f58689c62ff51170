// Time warping with fixed ends over a band of slopes 1/2 and 2, in float, as an application in a hurry
// would write it: patterns stored dimension by dimension, so that the columns of a row are computed side by
// side.
#pragma once

#include <vector>

namespace plain {

class Pattern {
public:
    Pattern(const float* const* frames, int nFrames, int nDim);

    // The best cost of a path, no two flat steps in a row; every column advances by 0, 1 or 2.
    float warp(const float* const* test, int nTest);

private:
    void distances(const float* frame, int lo, int hi);

    int nColumns, nDim, stride;
    std::vector<float> values; // nDim rows of `stride`
    std::vector<float> local, costs[2], bans[2];
};

} // namespace plain
