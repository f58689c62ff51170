// Rows times a vector: the layers of a perceptron, the weights of semicontinuous models.
#pragma once

#include "levels/levelrecord.h"

namespace vsq {

struct MatVecKernels {
    // dst[r] = the sum over c below nCols of rows[r][first + c] * x[c]; nRows sums, 0.0 where nCols
    // is not above 0. Products and sums are floats: lane l adds the products of columns l, l + 16,
    // ... in ascending order, and the 16 lanes are added as a tree. The sum of n products in
    // floats, in whatever order, is within
    //     n * 2^-24 * (sum of the products' magnitudes)
    // of the true one, to first order, since no product passes through more than n - 1 roundings
    // besides its own; here it is at most n / 16 + 5 of them, so these sums are at least as good as
    // those of a plain loop.
    void (*rowsFloat)(float* dst, const float* const* rows, int first, const float* x, int nRows,
                      int nCols);

    // dst[r] = the sum over c below nCols of (rows[r][c] * x[c]) >> (shift modulo 32). Every
    // product is shifted before it is added; the 32-bit sum wraps.
    void (*rowsFixed)(int* dst, const short* const* rows, const short* x, int nRows, int nCols,
                      int shift);
};
VSQ_DECLARE_LEVELS(MatVecKernels, matVecKernels)

} // namespace vsq
