// Inner loops of the multilayer perceptrons beside the sums of vsqmatvec: the sigmoid, and the steps of
// training.
#pragma once

namespace vsq {

struct MlpKernels {
    // out[i] = 1 / (1 + exp(-in[i])) for n elements, ascending; out may be in. With x from -78 (excluded) to
    // 17 (excluded) it is the polynomial of kSigmoidRows at -|x|, in double, or 1 less that for x >= 0,
    // rounded once. Above 17 it is 1, below -104 it is 0; 17 itself and -104 to -78 take the formula with the
    // C library's exp.
    void (*sigmoid)(const float* in, float* out, int n);

    // One row's step of gradient descent with momentum: delta = x[i] * g + previous[i] * momentum in double;
    // weights[i] += delta and previous[i] = delta, each rounded to float once.
    void (*descend)(float* weights, float* previous, const float* x, double g, double momentum, int n);

    // sums[i] += weights[i] * delta, in double.
    void (*addScaled)(double* sums, const float* weights, double delta, int n);
};
VSQ_DECLARE_LEVELS(MlpKernels, mlpKernels)

} // namespace vsq
