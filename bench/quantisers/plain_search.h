// The nearest of many codes in plain float loops: codes side by side, element by element.
#pragma once

#include <vector>

namespace plain {

class Codes {
public:
    Codes(const float* const* rows, int nCodes, int nDim); // nCodes is a multiple of 64
    // The nearest code, the first of equals, and the square of its distance; the tree's leaves are not used: every
    // code is looked at.
    int nearest(const float* vector, float* square);
    // The squares of all distances.
    void squares(const float* vector, float* distances) const;

private:
    int nCodes, nDim;
    std::vector<float> values, distances;
};

// The nearest code of 16-bit vectors, and the square of its distance.
int nearestWords(const short* vector, const short* const* rows, int nCodes, int nDim, int* square);

} // namespace plain
