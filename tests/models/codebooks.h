// Densities for the tests of continuous and semicontinuous models: mixtures for the states, and the
// thread's codebooks.
#pragma once

#include "mixtures/mixtures.h"
#include "models/fixture.h"
#include "models/outputs.h"

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
