// The loops of the cosine transform.
#pragma once

#include "levels/levelrecord.h"

namespace vsq {

inline constexpr int dctRow = 16; // results in a row of a matrix

// The direct method uses that cosines of even k are symmetric in j and those of odd k
// antisymmetric: two products of half the size, with the sums and the differences of mirrored
// elements. `even` and `odd` hold their matrices in rows of dctRow results: for each row and each
// term so many factors, zeros after the last result.
struct DctMatrices {
    int n;
    const float* even; // for ceil(n / 2) results and terms
    const float* odd;  // for floor(n / 2) terms; floor(n / 2) results forward, ceil(n / 2) inverse
};

struct DctKernels {
    // n from 1 to dctDirectLimit; dst may be src.
    void (*forward)(const float* src, float* dst, const DctMatrices& matrices);
    void (*inverse)(const float* src, float* dst, const DctMatrices& matrices);

    // The method by FFT, n a power of two, 4 at least; the arrays do not overlap. `reorder` puts
    // the even elements first and after them the odd ones backwards; `restore` undoes it. `turn`
    // makes the results from the spectrum of the reordered elements, packed with X[n/2] in element
    // 1, and `turnBack` the spectrum from the results. factors[k] and factors[n/2 + k] are
    // sqrt(2/n) cos(pi k / (2 n)) and sqrt(2/n) sin(pi k / (2 n)), with sqrt(1/n) for k = 0.
    void (*reorder)(const float* src, float* dst, int n);
    void (*restore)(const float* src, float* dst, int n);
    void (*turn)(const float* spectrum, float* dst, const float* factors, int n);
    void (*turnBack)(const float* src, float* spectrum, const float* factors, int n);
};
VSQ_DECLARE_LEVELS(DctKernels, dctKernels)

inline constexpr int dctDirectLimit = 1024;

} // namespace vsq
