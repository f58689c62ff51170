// Densities for the tests of continuous and semicontinuous models: mixtures for the states, and the thread's
// codebooks.
#pragma once

#include "mixtures/mixtures.h"
#include "models/models.h"

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
