#include "bench/kernels/plain_vectors.h"

#include "bench/support/lanes.h"

#include <algorithm>
#include <cmath>

namespace plain {

void ln(float* vec, int n) {
    for (int i = 0; i < n; ++i)
        vec[i] = std::log(vec[i]);
}

void exp(float* vec, int n) {
    for (int i = 0; i < n; ++i)
        vec[i] = std::exp(vec[i]);
}

float dot(const float* a, const float* b, int n) {
    float sum = 0;
    for (int i = 0; i < n; ++i)
        sum += a[i] * b[i];
    return sum;
}

float squaredDistance(const float* a, const float* b, int n) {
    float sum = 0;
    for (int i = 0; i < n; ++i)
        sum += (a[i] - b[i]) * (a[i] - b[i]);
    return sum;
}

void autoCorr(const float* src, int n, float* dst, int nLags) {
    for (int k = 0; k < nLags; ++k) {
        float sum = 0;
        for (int i = 0; i < n - k; ++i)
            sum += src[i] * src[i + k];
        dst[k] = sum;
    }
}

namespace {

// Sixteen lags. Four chains hide the latency of the additions; zeros behind the samples stand for
// what is missing.
void sixteenLags(const float* fixed, const float* moved, int n, float* lags) {
    Floats a = {}, b = {}, c = {}, d = {};
    for (int i = 0; i < n; i += 4) {
        a += fixed[i] * load(moved + i);
        b += fixed[i + 1] * load(moved + i + 1);
        c += fixed[i + 2] * load(moved + i + 2);
        d += fixed[i + 3] * load(moved + i + 3);
    }
    store(lags, (a + b) + (c + d));
}

} // namespace

void autoCorrLanes(const float* src, int n, float* dst, int nLags) {
    float padded[mostSamples + mostLags + 4], lags[mostLags];
    std::copy(src, src + n, padded);
    std::fill(padded + n, padded + n + mostLags + 4, 0.0f);
    sixteenLags(padded, padded, n, lags);
    if (nLags > 16) sixteenLags(padded, padded + 16, n, lags + 16);
    std::copy(lags, lags + nLags, dst);
}

namespace {

template <int n>
void columns(const float* table, const float* in, float* out) {
    float sums[n] = {};
    for (int i = 0; i < n; ++i)
        for (int k = 0; k < n; ++k)
            sums[k] += in[i] * table[i * n + k];
    std::copy(sums, sums + n, out);
}

} // namespace

Transform columnTransform(int n) {
    switch (n) {
    case 13:
        return columns<13>;
    case 24:
        return columns<24>;
    case 26:
        return columns<26>;
    case 32:
        return columns<32>;
    case 40:
        return columns<40>;
    default:
        return nullptr;
    }
}

void widen(const short* src, float* dst, int n) {
    for (int i = 0; i < n; ++i)
        dst[i] = src[i];
}

void clampToWords(const float* src, short* dst, int n) {
    for (int i = 0; i < n; ++i)
        dst[i] = short(std::max(-32768.0f, std::min(32767.0f, src[i])));
}

} // namespace plain
