// The front end in plain loops, as an application would write and compile them.
#pragma once

#include <cstddef>
#include <vector>

namespace plain {

void preemphasize(float* vec, float alpha, int n);
void multiply(float* vec, const float* window, int n);
// A pre-emphasised frame from the signal, windowed unless the window is null.
void prepare(const float* src, const float* window, float alpha, float* frame, int n);

// Linear prediction by autocorrelation and Durbin's recursion, orders up to 31; coef has `order`
// elements. The autocorrelation lag by lag, or all lags in registers.
void predict(const float* src, int n, float* coef, int order);
void predictLanes(const float* src, int n, float* coef, int order);

// gain / |A| at n frequencies; the table has rows of `order` pairs of cosine and negated sine, one
// row a frequency.
void spectrum(const float* table, int n, const float* coef, int order, float gain, float* spec);

// Mel filters from their weights over all bins, and the cepstra of a spectrum of interleaved parts.
class Cepstra {
public:
    // weights: nFilters rows of nBins
    Cepstra(const std::vector<float>& weights, int nFilters, int nBins, int nCeps);
    void evaluate(const float* spectrum, float threshold, float* ceps);

private:
    struct Filter {
        int first, length;
        std::size_t weights;
    };
    int bins, last;
    std::vector<Filter> filters;
    std::vector<float> allWeights, magnitudes, energies, cosines;
    int nCeps;
};

} // namespace plain
