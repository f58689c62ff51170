#include "bench/frontend/plain_frontend.h"

#include "bench/kernels/plain_vectors.h"

#include <algorithm>
#include <cmath>

namespace plain {

void preemphasize(float* vec, float alpha, int n) {
    for (int i = n - 1; i > 0; --i)
        vec[i] -= alpha * vec[i - 1];
}

void prepare(const float* src, const float* window, float alpha, float* frame, int n) {
    frame[0] = src[0];
    for (int i = 1; i < n; ++i)
        frame[i] = src[i] - alpha * src[i - 1];
    if (window != nullptr) multiply(frame, window, n);
}

void multiply(float* vec, const float* window, int n) {
    for (int i = 0; i < n; ++i)
        vec[i] *= window[i];
}

namespace {

void durbin(const float* r, float* coef, int order) {
    float a[32];
    float error = r[0];
    for (int i = 1; i <= order; ++i) {
        float sum = r[i];
        for (int j = 1; j < i; ++j)
            sum -= a[j] * r[i - j];
        const float k = sum / error;
        a[i] = k;
        for (int j = 1; 2 * j < i; ++j) {
            const float lower = a[j], upper = a[i - j];
            a[j] = lower - upper * k;
            a[i - j] = upper - lower * k;
        }
        if (i % 2 == 0) a[i / 2] *= 1 - k;
        error *= 1 - k * k;
    }
    std::copy(a + 1, a + order + 1, coef);
}

} // namespace

void predict(const float* src, int n, float* coef, int order) {
    float r[32];
    autoCorr(src, n, r, order + 1);
    durbin(r, coef, order);
}

void predictLanes(const float* src, int n, float* coef, int order) {
    float r[32];
    autoCorrLanes(src, n, r, order + 1);
    durbin(r, coef, order);
}

void spectrum(const float* table, int n, const float* coef, int order, float gain, float* spec) {
    for (int k = 0; k < n; ++k) {
        float re = 1, im = 0;
        for (int i = 0; i < order; ++i) {
            re -= table[2 * (k * order + i)] * coef[i];
            im += table[2 * (k * order + i) + 1] * coef[i];
        }
        spec[k] = gain / std::sqrt(re * re + im * im);
    }
}

Cepstra::Cepstra(const std::vector<float>& weights, int nFilters, int nBins, int nCoefficients)
    : bins(nBins), last(0), magnitudes(std::size_t(nBins + 16)), energies(std::size_t(nFilters)),
      nCeps(nCoefficients) {
    for (int f = 0; f < nFilters; ++f) {
        const float* row = weights.data() + f * nBins;
        const auto isUsed = [](float weight) { return weight != 0; };
        const int first = int(std::find_if(row, row + nBins, isUsed) - row);
        int end = nBins;
        while (end > first && row[end - 1] == 0)
            --end;
        filters.push_back({first, end - first, allWeights.size()});
        allWeights.insert(allWeights.end(), row + first, row + end);
        last = std::max(last, end);
    }
    // the logarithm is to base 10: its factor stands in the cosines
    for (int f = 0; f < nFilters; ++f)
        for (int k = 0; k < nCeps; ++k)
            cosines.push_back(
                float(std::log10(std::exp(1.0)) * std::sqrt((k == 0 ? 1.0 : 2.0) / nFilters) *
                      std::cos(std::acos(-1.0) * k * (2 * f + 1) / (2 * nFilters))));
}

void Cepstra::evaluate(const float* spectrum, float threshold, float* ceps) {
    for (int i = 0; i < last; ++i)
        magnitudes[i] = std::sqrt(spectrum[2 * i] * spectrum[2 * i] +
                                  spectrum[2 * i + 1] * spectrum[2 * i + 1]);
    const int nFilters = int(filters.size());
    for (int f = 0; f < nFilters; ++f)
        energies[f] = dot(magnitudes.data() + filters[f].first,
                          allWeights.data() + filters[f].weights, filters[f].length);
    for (int f = 0; f < nFilters; ++f)
        energies[f] = std::log(std::max(threshold, energies[f]));
    std::fill(ceps, ceps + nCeps, 0.0f);
    for (int f = 0; f < nFilters; ++f)
        for (int k = 0; k < nCeps; ++k)
            ceps[k] += energies[f] * cosines[f * nCeps + k];
}

} // namespace plain
