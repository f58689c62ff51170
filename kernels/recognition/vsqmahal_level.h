// Quadratic forms of a difference of two vectors, weighted by a diagonal or by a symmetric matrix
// of which only the lower triangle is read. Differences, products and sums are double precision,
// the sums in lanes of fixed order; fixed-point data is exact as long as the form stays below 2^53.
// 0 for n below 1.
#pragma once

#include "levels/levelrecord.h"

#include <cstddef>

namespace vsq {

inline constexpr int panelLanes = 8;
constexpr std::size_t panelSize(int nRows, int n) {
    return (std::size_t(nRows) + panelLanes - 1) / panelLanes * (2 * panelLanes) * std::size_t(n);
}

struct MahalKernels {
    // Sum of c[i] * (x[i] - y[i])^2; the arrays have n elements.
    double (*diagonalFloat)(const float* x, const float* y, const float* c, int n);
    double (*diagonalFixed)(const short* x, const short* y, const short* c, int n);

    // Sum over i and j of c[i][j] * (x[i] - y[i]) * (x[j] - y[j]). Row i of the n rows holds
    // elements 0 to i.
    double (*fullFloat)(const float* x, const float* y, const float* const* c, int n);
    double (*fullFixed)(const short* x, const short* y, const short* const* c, int n);

    // Rows y[k] and c[k] in the order in which panelExponents reads them: eight rows side by side,
    // element by element. The panel has panelSize(nRows, n) elements; a null row counts as zeros.
    void (*fillPanel)(const float* const* y, const float* const* c, int nRows, int n,
                      double* panel);

    // exponents[k] = -|q| / 2 rounded to float, with q = diagonalFloat(x, y[k], c[k], n) bit for
    // bit, for nRows rows of a panel that has been filled with rows of nPanel elements, n or more.
    void (*panelExponents)(const float* x, const double* panel, int nRows, int n, int nPanel,
                           float* exponents);
};
VSQ_DECLARE_LEVELS(MahalKernels, mahalKernels)

} // namespace vsq
