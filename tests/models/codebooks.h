// Densities for the tests of continuous and semicontinuous models: mixtures for the states, and the
// thread's codebooks.
#pragma once

#include "mixtures/mixtures.h"
#include "models/fixture.h"
#include "models/outputs.h"

#include <cmath>
#include <cstdlib>

namespace models {

using mixtures::Server;

// Owned servers, and the table of pointers that the Init functions take.
struct Servers {
    std::vector<Server> owned;
    std::vector<GaussMixServer*> table;

    void add(Server server) {
        table.push_back(server.get());
        owned.push_back(std::move(server));
    }
};

inline Servers floatServers(std::mt19937& random, int count, int nDim, int nMix, bool full) {
    Servers servers;
    for (int i = 0; i < count; ++i)
        servers.add(mixtures::randomMixture(random, nDim, nMix, full).server());
    return servers;
}

// Fixed servers whose likelihoods are neither 0 nor saturated for frames of `fixedFrames`.
inline Servers fixedServers(std::mt19937& random, int count, int nDim, int nMix, bool full) {
    Servers servers;
    std::uniform_int_distribution<int> mean(-40, 40), variance(1, 6);
    for (int i = 0; i < count; ++i) {
        auto mixture = mixtures::randomFixedMixture(random, nDim, nMix, full);
        for (auto& row : mixture.means)
            for (short& v : row)
                v = short(mean(random));
        servers.add(mixture.server(0, -13));
    }
    return servers;
}

template <class T>
Rows<T> framesOf(std::mt19937& random, int count, int nDim) {
    Rows<T> frames;
    for (int t = 0; t < count; ++t)
        if constexpr (std::is_same_v<T, float>)
            frames.push_back(mixtures::randomVector(random, nDim));
        else
            frames.push_back(mixtures::randomWords(random, nDim, 40));
    return frames;
}

// value(server, frame) of every frame and server.
template <class T, class Value>
auto valuesOf(const Rows<T>& frames, const Servers& servers, Value value) {
    Rows<decltype(value(servers.table[0], frames[0].data()))> result;
    for (const auto& frame : frames) {
        result.emplace_back();
        for (GaussMixServer* server : servers.table)
            result.back().push_back(value(server, frame.data()));
    }
    return result;
}

// --- plain references, from the values that a server holds ---

// Exact for the small integers of fixed servers.
template <class T>
double formOf(const GaussMixServer* server, int k, const T* x, int nDim) {
    const auto wide = [nDim](const T* row) { return oracle::Vector(row, row + nDim); };
    const oracle::Vector mean = wide(ktl::gauss::means<T>(server)[k]);
    if (!ktl::gauss::isFull(server))
        return oracle::diagonalForm(wide(x), mean, wide(ktl::gauss::diagonals<T>(server)[k]));
    oracle::Matrix matrix;
    for (int i = 0; i < nDim; ++i)
        matrix.push_back(wide(ktl::gauss::matrices<T>(server)[k][i]));
    return oracle::fullForm(wide(x), mean, matrix);
}

// A value, and what floats may be off it.
struct Uncertain {
    double value = 0, error = 0;

    // One density more: its form is rounded before the exponential, which is good to 2^-22.
    void add(double weight, double exponent) {
        const double term = weight * std::exp(-exponent);
        value += term;
        error += term * (exponent * 0x1p-21 + 0x1p-21);
    }
};

inline Uncertain likelihoodOf(const GaussMixServer* mixture, const float* x, int nDim) {
    Uncertain sum;
    for (int k = 0; k < mixture->nMix; ++k)
        sum.add(double(ktl::gauss::weights<float>(mixture)[k]), formOf(mixture, k, x, nDim) / 2);
    return sum;
}

// A state's weights on the densities of a codebook, of which a full one decays twice as fast.
inline Uncertain likelihoodOf(const std::vector<float>& weights, const Servers& codebook,
                              const float* x, int nDim) {
    Uncertain sum;
    for (std::size_t k = 0; k < weights.size(); ++k) {
        const GaussMixServer* density = codebook.table[k];
        sum.add(double(weights[k]) * double(ktl::gauss::weights<float>(density)[0]),
                formOf(density, 0, x, nDim) / (ktl::gauss::isFull(density) ? 1 : 2));
    }
    sum.error += double(weights.size()) * 0x1p-24 * sum.value; // of the products and their sum
    return sum;
}

// The likelihood becomes a float, its logarithm another, and the product with log10(e) a third.
inline Uncertain costOf(const Uncertain& likelihood) {
    const double cost = -std::log10(likelihood.value);
    const double relative = likelihood.error / likelihood.value + 0x1p-24;
    return {cost, 0.4343 * relative * (1 + relative) + std::abs(cost) * 0x1p-22};
}

// With 30 fractional bits less the 16 that the evaluation of paths asks for.
inline int fixedLikelihoodOf(const GaussMixServer* mixture, const short* x, int nDim) {
    std::vector<std::int32_t> densities;
    std::vector<short> weights;
    for (int k = 0; k < mixture->nMix; ++k) {
        const int form = -std::abs(int(formOf(mixture, k, x, nDim)));
        densities.push_back(oracle::expFix(form, 1 - mixture->scale, 30));
        weights.push_back(ktl::gauss::weights<short>(mixture)[k]);
    }
    int scale = -16;
    return oracle::dotMix(densities, weights, 1, scale);
}

// The densities of a codebook, with 14 fractional bits, and a state's weights on them.
inline std::vector<int> fixedDensitiesOf(const Servers& codebook, const short* x, int nDim) {
    std::vector<int> values;
    for (const GaussMixServer* density : codebook.table) {
        const int form = -std::abs(int(formOf(density, 0, x, nDim)));
        const int value = oracle::expFix(form, 1 - density->scale, 14);
        values.push_back(value * ktl::gauss::weights<short>(density)[0] >> 14);
    }
    return values;
}

// The densities of the thread's codebook, `count` of them, for every frame; rows have their
// padding.
template <class T>
Rows<T> densitiesOf(const Rows<T>& frames, int count, int nDim) {
    Rows<T> table(frames.size(), std::vector<T>(at((count + 3) / 4 * 4)));
    auto rows = mixtures::pointers(table);
    const int n = static_cast<int>(frames.size());
    if constexpr (std::is_same_v<T, float>)
        KTsEvalPdfsFrames(KTGetContext()->sSemicont, pointers(frames).data(), rows.data(), n, count,
                          nDim);
    else
        KTwEvalPdfsFrames(KTGetContext()->wSemicont, pointers(frames).data(), rows.data(), n, count,
                          nDim);
    return table;
}

// value(the sum of a state's weights times a frame's densities) of every frame and state; the sum
// is double for floats, int for fixed weights.
template <class T, class Value>
auto weightedOf(const Rows<T>& densities, const Rows<T>& weights, Value value) {
    using Sum = std::conditional_t<std::is_same_v<T, float>, double, int>;
    Rows<decltype(value(Sum()))> result;
    for (const auto& row : densities) {
        result.emplace_back();
        for (const auto& ofState : weights) {
            Sum sum = 0;
            for (std::size_t k = 0; k < ofState.size(); ++k)
                sum += static_cast<Sum>(ofState[k]) * static_cast<Sum>(row[k]);
            result.back().push_back(value(sum));
        }
    }
    return result;
}

// Small integer weights for fixed semicontinuous models: 14 fractional bits, rows that sum below 1.
inline Rows<short> fixedWeights(std::mt19937& random, int n, int m) {
    std::uniform_int_distribution<int> uniform(1, 16384 / m);
    Rows<short> rows;
    for (int i = 0; i < n; ++i) {
        rows.emplace_back();
        for (int k = 0; k < m; ++k)
            rows.back().push_back(short(uniform(random)));
    }
    return rows;
}

} // namespace models
