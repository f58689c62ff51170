// Inner loops of the multilayer perceptrons beside the sums of vsqmatvec: the sigmoid, and the
// steps of training.
#pragma once

#include "levels/levelrecord.h"

namespace vsq {

struct MlpKernels {
    // out[i] = 1 / (1 + exp(-in[i])) for n elements, ascending; out may be in. With x from -78
    // (excluded) to 17 (excluded) it is the polynomial of kSigmoidRows at -|x|, in double, or 1
    // less that for x >= 0, rounded once. Above 17 it is 1, below -104 it is 0; 17 itself and -104
    // to -78 take the formula with the C library's exp.
    void (*sigmoidFloat)(const float* in, float* out, int n);

    // out[i] = 2^outBits / (1 + exp(-in[i] * 2^-inBits)), truncated to an integer and not above
    // 32767, n elements; both counts from 1 to 30. The results are those of the formula in double
    // with the C library's exp.
    void (*sigmoidFixed)(const int* in, short* out, int n, int inBits, int outBits);

    // slopes[i] = (1 - outputs[i]) * outputs[i] in double, rounded once, n elements; the two are
    // the same array or apart.
    void (*sigmoidSlopes)(const float* outputs, float* slopes, int n);

    // A layer's step of gradient descent with momentum, all in double: for each row k below nRows,
    // with g = deltas[k] * rate, delta = x[i] * g + previous[k][i] * momentum; weights[k][i] +=
    // delta and previous[k][i] = delta, each rounded to float once; i below n.
    void (*descend)(float* const* weights, float* const* previous, const float* x,
                    const float* deltas, double rate, double momentum, int nRows, int n);

    // sums[i] = the sum over k below nRows, in ascending order, of rows[k][i] * deltas[k], in
    // double; i below n.
    void (*weighDeltas)(double* sums, const float* const* rows, const float* deltas, int nRows,
                        int n);
};
VSQ_DECLARE_LEVELS(MlpKernels, mlpKernels)

} // namespace vsq
