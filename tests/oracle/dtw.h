// Dynamic time warping as it is written down: one row of costs, updated in place from the highest
// column to the lowest.
#pragma once

#include <functional>
#include <vector>

namespace oracle {

using LocalDistance = std::function<double(int i, int j)>; // test frame i, pattern frame j

struct Band {
    std::vector<int> lo, hi; // first and last column of each row
};

Band dtwBand(int nRows, int nColumns, int margin);

// Cost of the best path, or the threshold. `margin` is at most nColumns - 1.
double dtwGrid(int nRows, int nColumns, int margin, double threshold, const LocalDistance& local);

// Whether a pattern of nColumns frames is compared at all with a test of nRows; the margin is the
// call's.
bool dtwAdmits(int nRows, int nColumns, int margin);

// Local distances, not yet rounded.
double dtwEuclidean(const float* a, const float* b, int nDim);
double dtwCityBlock(const float* a, const float* b, int nDim);

} // namespace oracle
