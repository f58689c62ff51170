#include "plain_conversions.h"

#include <cmath>

namespace plain {

unsigned sum(const unsigned* words, int n) {
    unsigned lanes[64] = {};
    for (int i = 0; i + 64 <= n; i += 64)
        for (int lane = 0; lane < 64; ++lane)
            lanes[lane] += words[i + lane];
    unsigned total = 0;
    for (unsigned lane : lanes)
        total += lane;
    return total;
}

void clampToShorts(const float* src, short* dst, int n) {
    for (int i = 0; i < n; ++i) {
        const float value = src[i] > 32767.0f ? 32767.0f : src[i];
        dst[i] = static_cast<short>(value < -32768.0f ? -32768.0f : value);
    }
}

void toFloats(const short* src, float* dst, int n, float factor) {
    for (int i = 0; i < n; ++i)
        dst[i] = src[i] * factor;
}

void preemphasize(float* vec, float alpha, int n) {
    for (int i = n - 1; i > 0; --i)
        vec[i] -= alpha * vec[i - 1];
}

void predict(const float* src, int n, float* r, float* e, float* a, int order) {
    for (int k = 0; k <= order; ++k) {
        float sum = 0;
        for (int i = 0; i < n - k; ++i)
            sum += src[i] * src[i + k];
        r[k] = sum;
    }
    e[0] = r[0];
    for (int i = 1; i <= order; ++i) {
        float sum = r[i];
        for (int j = 1; j < i; ++j)
            sum -= a[j] * r[i - j];
        const float k = sum / e[i - 1];
        a[i] = k;
        for (int j = 1; 2 * j < i; ++j) {
            const float lower = a[j], upper = a[i - j];
            a[j] = lower - upper * k;
            a[i - j] = upper - lower * k;
        }
        if (i % 2 == 0) a[i / 2] *= 1 - k;
        e[i] = (1 - k * k) * e[i - 1];
    }
}

void spectrum(const float* table, int n, const float* coef, int order, float gain, float* spec) {
    for (int k = 0; k < n; ++k) {
        double re = 1, im = 0;
        for (int i = 0; i < order; ++i) {
            re -= table[2 * (k * order + i)] * static_cast<double>(coef[i]);
            im += table[2 * (k * order + i) + 1] * static_cast<double>(coef[i]);
        }
        spec[k] = gain / static_cast<float>(std::sqrt(re * re + im * im));
    }
}

} // namespace plain
