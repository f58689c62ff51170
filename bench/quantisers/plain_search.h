// The nearest of many codes in plain float loops: codes side by side, element by element.
#pragma once

#include <vector>

namespace plain {

class Codes {
public:
    Codes(const float* const* rows, int nCodes, int nDim); // nCodes is a multiple of 64
    // The nearest code, the first of equals, and the square of its distance. Every code is looked
    // at.
    int nearest(const float* vector, float* square);
    // The squares of all distances.
    void squares(const float* vector, float* distances) const;

private:
    int nCodes, nDim;
    std::vector<float> values, distances;
};

// k-means from the first vectors; a cell that loses all its vectors stays where it was. Returns the
// mean distance of a vector from its cell in the last iteration.
double kMeans(const float* const* vectors, int nVectors, int nDim, int nCodes, int nIterations);

// The nearest code of 16-bit vectors, and the square of its distance.
int nearestWords(const short* vector, const short* const* rows, int nCodes, int nDim, int* square);

} // namespace plain
