#include "bench/mixtures/plain_mixtures.h"

#include "bench/support/lanes.h"

#include <algorithm>
#include <cmath>

namespace plain {

double fullMixture(const float* x, const float* const* means, const float* const* const* matrices,
                   const float* weights, int nDim, int nMix) {
    double likelihood = 0;
    for (int k = 0; k < nMix; ++k) {
        double q = 0;
        for (int i = 0; i < nDim; ++i) {
            double row = 0;
            for (int j = 0; j < nDim; ++j)
                row += double(matrices[k][i][j]) * (double(x[j]) - double(means[k][j]));
            q += row * (double(x[i]) - double(means[k][i]));
        }
        likelihood += double(weights[k]) * std::exp(-q / 2);
    }
    return likelihood;
}

namespace {

constexpr int lanes = 16;

// The forms of sixteen mixtures, or of twice or four times sixteen.
template <int groups>
void formsOf(const float* x, const float* means, const float* inverses, int nDim, int stride,
             float* forms) {
    Floats a = {}, b = {}, c = {}, d = {};
    for (int i = 0; i < nDim; ++i, means += stride, inverses += stride) {
        const Floats da = x[i] - load(means);
        a += load(inverses) * da * da;
        if constexpr (groups > 1) {
            const Floats db = x[i] - load(means + lanes);
            b += load(inverses + lanes) * db * db;
        }
        if constexpr (groups > 2) {
            const Floats dc = x[i] - load(means + 2 * lanes), dd = x[i] - load(means + 3 * lanes);
            c += load(inverses + 2 * lanes) * dc * dc;
            d += load(inverses + 3 * lanes) * dd * dd;
        }
    }
    store(forms, a);
    if constexpr (groups > 1) store(forms + lanes, b);
    if constexpr (groups > 2) {
        store(forms + 2 * lanes, c);
        store(forms + 3 * lanes, d);
    }
}

// Sixteen mixtures for four frames.
void formsOfFour(const float* const* x, const float* means, const float* inverses, int nDim,
                 int stride, float* const* forms) {
    Floats a = {}, b = {}, c = {}, d = {};
    for (int i = 0; i < nDim; ++i, means += stride, inverses += stride) {
        const Floats mean = load(means), inverse = load(inverses);
        const Floats da = x[0][i] - mean, db = x[1][i] - mean, dc = x[2][i] - mean,
                     dd = x[3][i] - mean;
        a += inverse * da * da;
        b += inverse * db * db;
        c += inverse * dc * dc;
        d += inverse * dd * dd;
    }
    store(forms[0], a);
    store(forms[1], b);
    store(forms[2], c);
    store(forms[3], d);
}

float weighted(const float* forms, const float* weights, int n) {
    float sum = 0;
    for (int k = 0; k < n; ++k)
        sum += weights[k] * std::exp(-0.5f * forms[k]);
    return sum;
}

} // namespace

LaneMixture::LaneMixture(const float* const* rows, const float* const* inverseRows, const float* w,
                         int n, int nMix)
    : nDim(n), nPadded((nMix + lanes - 1) / lanes * lanes), means(std::size_t(nDim * nPadded)),
      inverses(means.size()), weights(std::size_t(nPadded)), forms(std::size_t(4 * nPadded)) {
    std::copy(w, w + nMix, weights.begin());
    for (int k = 0; k < nMix; ++k)
        for (int i = 0; i < nDim; ++i) {
            means[std::size_t(i * nPadded + k)] = rows[k][i];
            inverses[std::size_t(i * nPadded + k)] = inverseRows[k][i];
        }
}

float LaneMixture::likelihood(const float* x) {
    int k = 0;
    for (; k + 4 * lanes <= nPadded; k += 4 * lanes)
        formsOf<4>(x, means.data() + k, inverses.data() + k, nDim, nPadded, forms.data() + k);
    for (; k + 2 * lanes <= nPadded; k += 2 * lanes)
        formsOf<2>(x, means.data() + k, inverses.data() + k, nDim, nPadded, forms.data() + k);
    for (; k < nPadded; k += lanes)
        formsOf<1>(x, means.data() + k, inverses.data() + k, nDim, nPadded, forms.data() + k);
    return weighted(forms.data(), weights.data(), nPadded);
}

float LaneMixture::likelihoodByLoop(const float* x) {
    float* const sums = forms.data();
    for (int k = 0; k < nPadded; ++k)
        sums[k] = 0;
    for (int i = 0; i < nDim; ++i) {
        const float *mean = means.data() + i * nPadded, *inverse = inverses.data() + i * nPadded;
        for (int k = 0; k < nPadded; ++k)
            sums[k] += inverse[k] * (x[i] - mean[k]) * (x[i] - mean[k]);
    }
    return weighted(sums, weights.data(), nPadded);
}

double LaneMixture::cost(const float* const* frames, int nFrames) {
    double sum = 0;
    int t = 0;
    for (; t + 4 <= nFrames; t += 4) {
        for (int k = 0; k < nPadded; k += lanes) {
            float* const out[4] = {forms.data() + k, forms.data() + nPadded + k,
                                   forms.data() + 2 * nPadded + k, forms.data() + 3 * nPadded + k};
            formsOfFour(frames + t, means.data() + k, inverses.data() + k, nDim, nPadded, out);
        }
        for (int f = 0; f < 4; ++f)
            sum -= std::log10(weighted(forms.data() + f * nPadded, weights.data(), nPadded));
    }
    for (; t < nFrames; ++t)
        sum -= std::log10(likelihood(frames[t]));
    return sum;
}

float logSumExp(const float* values, int n) {
    float top = values[0], sum = 0;
    for (int k = 1; k < n; ++k)
        top = std::max(top, values[k]);
    for (int k = 0; k < n; ++k)
        sum += std::exp(values[k] - top);
    return top + std::log(sum);
}

} // namespace plain
