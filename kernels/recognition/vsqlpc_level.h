// Linear prediction: the recursion that finds a predictor, and the response of its error filter, |1
// - sum c[i] exp(-j w i)|^2, at n equally spaced frequencies from 0 up to but not including the
// Nyquist frequency.
#pragma once

#include "levels/levelrecord.h"

namespace vsq {

// Tables of cosines and negated sines, row by row: row i - 1 has at [k] the cosine of i k pi / n
// and at [n + k] its negated sine, for k from 0 to n - 1; so a row is 2 n elements long. n is a
// power of two; nCoef is the number of coefficients c[1], c[2], ..., and of rows read; 0 is
// allowed. Rows are exactly symmetric about n / 2, even and odd rows with opposite signs, on which
// the kernels rely.
struct LpcKernels {
    // Sums in double; each result is rounded once.
    void (*powerFloat)(const float* table, int n, const float* coef, int nCoef, float* power);
    // Sums in 32 bits, which wrap; the sum of squares of re = one - ... and im, each rounded to
    // float first, times `unit`.
    void (*powerFixed)(const short* table, int n, const short* coef, int nCoef, unsigned one,
                       double unit, float* power);

    // The predictor a[1] to a[order] of a signal with the autocorrelation r[0] to r[order], and its
    // errors e[0] to e[order]; a[0] is not used. All are stored as floats, order by order, and sums
    // and products are double. False when a reflection coefficient is above 1 in magnitude: the
    // recursion has lost stability. J. Durbin, "The Fitting of Time-Series Models", 1960.
    bool (*durbin)(const float* r, float* e, float* a, int order);
};
VSQ_DECLARE_LEVELS(LpcKernels, lpcKernels)

} // namespace vsq
