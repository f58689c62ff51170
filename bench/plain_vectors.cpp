#include "plain_vectors.h"

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

void autoCorr(const float* src, int n, float* dst, int nLags) {
    for (int k = 0; k < nLags; ++k) {
        float sum = 0;
        for (int i = 0; i < n - k; ++i)
            sum += src[i] * src[i + k];
        dst[k] = sum;
    }
}

float squaredDistance(const float* a, const float* b, int n) {
    float sum = 0;
    for (int i = 0; i < n; ++i)
        sum += (a[i] - b[i]) * (a[i] - b[i]);
    return sum;
}

} // namespace plain
