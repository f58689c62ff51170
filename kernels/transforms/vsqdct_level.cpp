// The cosine transform's loops: products with the two half-size matrices of the direct method, and
// the steps before and after the Fourier transform of the other one.
#include "transforms/vsqdct_level.h"
#include "simd/pack.h"

#include <cstddef>

namespace vsq::VSQ_LEVEL {
namespace {

constexpr int lanes = dctRow;
constexpr int mostRows = dctDirectLimit / 2 / lanes;
using Lanes = Pack<float, lanes>;

// results[lanes * r + lane] = sum over i of matrix[(r * terms + i) * lanes + lane] * x[i]. Four
// running sums, i modulo 4, hide the additions' latency.
void multiply(const float* matrix, const float* x, float* results, int rows, int terms) {
    for (int row = 0; row < rows; ++row, results += lanes) {
        Lanes sums[4];
        for (Lanes& sum : sums)
            sum = splat<float, lanes>(0.0f);
        int i = 0;
        for (; i + 4 <= terms; i += 4, matrix += 4 * lanes)
            for (int s = 0; s < 4; ++s)
                sums[s] = sums[s] +
                          load<float, lanes>(matrix + lanes * s) * splat<float, lanes>(x[i + s]);
        for (int s = 0; i < terms; ++i, ++s, matrix += lanes)
            sums[s] = sums[s] + load<float, lanes>(matrix) * splat<float, lanes>(x[i]);
        store(results, (sums[0] + sums[1]) + (sums[2] + sums[3]));
    }
}

int rowsFor(int results) {
    return (results + lanes - 1) / lanes;
}

void forward(const float* src, float* dst, const DctMatrices& matrices) {
    const int n = matrices.n, half = n / 2;
    float sums[dctDirectLimit / 2 + 1], differences[dctDirectLimit / 2 + 1];
    alignas(64) float even[lanes * (mostRows + 1)], odd[lanes * (mostRows + 1)];
    for (int j = 0; j < half; ++j) {
        sums[j] = src[j] + src[n - 1 - j];
        differences[j] = src[j] - src[n - 1 - j];
    }
    if (n % 2 != 0) sums[half] = src[half];
    multiply(matrices.even, sums, even, rowsFor(n - half), n - half);
    multiply(matrices.odd, differences, odd, rowsFor(half), half);
    for (int k = 0; k < half; ++k) {
        dst[2 * k] = even[k];
        dst[2 * k + 1] = odd[k];
    }
    if (n % 2 != 0) dst[n - 1] = even[half];
}

void inverse(const float* src, float* dst, const DctMatrices& matrices) {
    const int n = matrices.n, half = n / 2;
    float evenTerms[dctDirectLimit / 2 + 1], oddTerms[dctDirectLimit / 2 + 1];
    alignas(64) float symmetric[lanes * (mostRows + 1)], antisymmetric[lanes * (mostRows + 1)];
    for (int k = 0; k < half; ++k) {
        evenTerms[k] = src[2 * k];
        oddTerms[k] = src[2 * k + 1];
    }
    if (n % 2 != 0) evenTerms[half] = src[n - 1];
    multiply(matrices.even, evenTerms, symmetric, rowsFor(n - half), n - half);
    multiply(matrices.odd, oddTerms, antisymmetric, rowsFor(half), half);
    for (int j = 0; j < half; ++j) {
        dst[j] = symmetric[j] + antisymmetric[j];
        dst[n - 1 - j] = symmetric[j] - antisymmetric[j];
    }
    if (n % 2 != 0) dst[half] = symmetric[half];
}

void reorder(const float* src, float* dst, int n) {
    for (int j = 0; j < n / 2; ++j) {
        dst[j] = src[2 * j];
        dst[n - 1 - j] = src[2 * j + 1];
    }
}

void restore(const float* src, float* dst, int n) {
    for (int j = 0; j < n / 2; ++j) {
        dst[2 * j] = src[j];
        dst[2 * j + 1] = src[n - 1 - j];
    }
}

void turn(const float* spectrum, float* dst, const float* factors, int n) {
    const int half = n / 2;
    dst[0] = spectrum[0] * factors[0];
    dst[half] = spectrum[1] * factors[0]; // sqrt(2/n) cos(pi / 4)
    for (int k = 1; k < half; ++k) {
        const float re = spectrum[2 * k], im = spectrum[2 * k + 1];
        dst[k] = re * factors[k] + im * factors[half + k];
        dst[n - k] = re * factors[half + k] - im * factors[k];
    }
}

// The inverse of the rotation is its transpose; half of it, since the spectrum stands for two
// mirrored halves.
void turnBack(const float* src, float* spectrum, const float* factors, int n) {
    const int half = n / 2;
    spectrum[0] = src[0] * factors[0];
    spectrum[1] = src[half] * factors[0];
    for (int k = 1; k < half; ++k) {
        const float near = src[k] * 0.5f, far = src[n - k] * 0.5f;
        spectrum[2 * k] = near * factors[k] + far * factors[half + k];
        spectrum[2 * k + 1] = near * factors[half + k] - far * factors[k];
    }
}

} // namespace

extern const DctKernels dctKernels{
    .forward = forward,
    .inverse = inverse,
    .reorder = reorder,
    .restore = restore,
    .turn = turn,
    .turnBack = turnBack,
};

} // namespace vsq::VSQ_LEVEL
