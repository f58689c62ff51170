// Inner loops of the Gaussian mixtures. "Padded rows" may be read to their n elements
// rounded up to a multiple of 4; what stands after the n does not count.
#pragma once

#include "levels/levelrecord.h"
#include "vectors/scaledproduct.h"

namespace vsq {

struct GaussKernels {
    // The sum over k of normWeights[k] * e^(-|q| / 2), q being the form of mixture k with the bits
    // of MahalKernels::diagonal or ::full, -|q| / 2 rounded to float, and 0 where the bit pattern
    // of weights[k] is 0. The exponentials have the bits of LnExpKernels::exp, the sum those of
    // DotProductKernels::dot; work[k] receives the exponential. x has n elements, the nMix rows of
    // m and c are padded, and so are `weights` and `work`.
    double (*evaluateDiagonal)(const float* x, const float* const* m, const float* const* c,
                               const float* weights, const float* normWeights, int n, int nMix,
                               float* work);
    double (*evaluateFull)(const float* x, const float* const* m, const float* const* const* c,
                           const float* weights, const float* normWeights, int n, int nMix,
                           float* work);

    // forms[k] = sum over i of (x[i] - m[k][i])^2 * c[k][i] in wrapping 32-bit arithmetic. Rows as
    // above.
    void (*formsFixed)(const short* x, const short* const* m, const short* const* c, int n,
                       int nRows, int* forms);

    // Sums over `count` vectors of n elements, one vector after the other on top of what is there,
    // in float: sums[i] += x[i]; sums[i] += x[i] * x[i]; sums[i][j] += x[i] * x[j] for j <= i.
    // Products of shorts are exact 32-bit integers before they become floats.
    void (*sumsFloat)(const float* const* vectors, int count, int n, float* sums);
    void (*sumsFixed)(const short* const* vectors, int count, int n, float* sums);
    void (*squaresFloat)(const float* const* vectors, int count, int n, float* sums);
    void (*squaresFixed)(const short* const* vectors, int count, int n, float* sums);
    void (*productsFloat)(const float* const* vectors, int count, int n, float* const* sums);
    void (*productsFixed)(const short* const* vectors, int count, int n, float* const* sums);

    // Gauss-Jordan inversion in float of the symmetric matrix a (n rows of n, destroyed); b comes
    // as the identity and leaves as the inverse, rows and columns in a's order. `pivots` has room
    // for n. Returns a's determinant; 0, and no inverse, when a pivot is below 1e-30.
    ScaledProduct (*invert)(float* const* a, float* const* b, int* pivots, int n);

    // The determinant of a (n rows of n, destroyed); 0 when a pivot is below 1e-20.
    ScaledProduct (*determinant)(float* const* a, int n);
};
VSQ_DECLARE_LEVELS(GaussKernels, gaussKernels)

} // namespace vsq
