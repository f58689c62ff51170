// Quadratic forms of a difference of two vectors, weighted by a diagonal or by a symmetric matrix of which
// only the lower triangle is read. Differences, products and sums are double precision, the sums in lanes
// of fixed order; fixed-point data is exact as long as the form stays below 2^53. 0 for n below 1.
#pragma once

#include "levelrecord.h"

namespace vsq {

struct MahalKernels {
    // Sum of c[i] * (x[i] - y[i])^2; the arrays have n elements.
    double (*diagonal)(const float* x, const float* y, const float* c, int n);
    double (*diagonalFixed)(const short* x, const short* y, const short* c, int n);

    // Sum over i and j of c[i][j] * (x[i] - y[i]) * (x[j] - y[j]). Row i of the n rows holds elements 0 to i.
    double (*full)(const float* x, const float* y, const float* const* c, int n);
    double (*fullFixed)(const short* x, const short* y, const short* const* c, int n);

    // diagonal(x, y[k], c[k], n) for nRows rows at once, into forms[k], with the same bits.
    void (*diagonalRows)(const float* x, const float* const* y, const float* const* c, int nRows, int n,
                         double* forms);
};
VSQ_DECLARE_LEVELS(MahalKernels, mahalKernels)

} // namespace vsq
