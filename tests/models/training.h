// Models as the training tests hold them, the servers made of them, and servers read back.
#pragma once

#include "ktlp6.h"
#include "mixtures/KT_GAUSS.h"
#include "models/layout.h"
#include "oracle/baumwelch.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace training {

using oracle::Row;
using oracle::Rows;
using Floats = std::vector<std::vector<float>>;
using Topology = hmm::Topology;

constexpr Topology topologies[] = {Topology::full, Topology::triangular, Topology::banded};

inline bool connects(Topology topology, std::size_t i, std::size_t j) {
    return hmm::stores(topology, int(i), int(j));
}

// A row of probabilities that are floats, as a server will hold them.
inline Row randomRow(std::mt19937& random, std::size_t n) {
    std::uniform_real_distribution<double> uniform(0.05, 1.0);
    Row row(n);
    double sum = 0;
    for (double& value : row)
        sum += value = uniform(random);
    std::vector<float> stored;
    for (double value : row)
        stored.push_back(float(value / sum));
    return Row(stored.begin(), stored.end());
}

inline oracle::Hmm randomChain(std::mt19937& random, std::size_t n, Topology topology) {
    oracle::Hmm chain;
    chain.pi = randomRow(random, n);
    chain.a.assign(n, Row(n, 0.0));
    for (std::size_t i = 0; i < n; ++i) {
        std::vector<std::size_t> targets;
        for (std::size_t j = 0; j < n; ++j)
            if (connects(topology, i, j)) targets.push_back(j);
        const Row values = randomRow(random, targets.size());
        for (std::size_t k = 0; k < targets.size(); ++k)
            chain.a[i][targets[k]] = values[k];
    }
    return chain;
}

inline Rows randomRows(std::mt19937& random, std::size_t rows, std::size_t columns) {
    Rows result;
    for (std::size_t i = 0; i < rows; ++i)
        result.push_back(randomRow(random, columns));
    return result;
}

inline std::vector<float> floats(const Row& row) {
    return std::vector<float>(row.begin(), row.end());
}
inline Floats floats(const Rows& rows) {
    Floats result;
    for (const Row& row : rows)
        result.push_back(floats(row));
    return result;
}

template <class T>
std::vector<const T*> pointers(const std::vector<std::vector<T>>& rows) {
    std::vector<const T*> result;
    for (const auto& row : rows)
        result.push_back(row.data());
    return result;
}

inline int makeDiscrete(const oracle::DiscreteHmm& model, int flags = KT_HMM_EXPONENTIAL) {
    const Floats a = floats(model.chain.a), b = floats(model.b);
    const std::vector<float> pi = floats(model.chain.pi);
    return KTsInitHMMServer(pointers(a).data(), pointers(b).data(), pi.data(), int(pi.size()),
                            int(b[0].size()), flags);
}

inline int makeSemicontinuous(const oracle::SemicontinuousHmm& model, int nQuant) {
    const Floats a = floats(model.chain.a), b = floats(model.weights);
    const std::vector<float> pi = floats(model.chain.pi);
    return KTsInitSemicontHMMServer(pointers(a).data(), pointers(b).data(), pi.data(),
                                    int(pi.size()), int(b[0].size()), nQuant, KT_HMM_EXPONENTIAL);
}

// The mixture server of a state; the caller frees it.
inline GaussMixServer* makeMixture(const oracle::Components& state, int flags = 0) {
    const int nMix = int(state.weights.size()), nDim = int(state.means[0].size());
    std::vector<float> weights = floats(state.weights);
    Floats means = floats(state.means), diagonals;
    std::vector<Floats> matrices;
    std::vector<float*> meanRows, diagonalRows;
    std::vector<std::vector<float*>> matrixRows(state.weights.size());
    std::vector<float**> matrixTables;
    for (const Rows& inverse : state.inverses) {
        std::vector<float> diagonal;
        for (std::size_t d = 0; d < inverse.size(); ++d)
            diagonal.push_back(float(inverse[d][d]));
        diagonals.push_back(diagonal);
        matrices.push_back(floats(inverse));
    }
    for (std::size_t m = 0; m < state.weights.size(); ++m) {
        meanRows.push_back(means[m].data());
        diagonalRows.push_back(diagonals[m].data());
        for (auto& row : matrices[m])
            matrixRows[m].push_back(row.data());
        matrixTables.push_back(matrixRows[m].data());
    }
    return KTsInitGaussMixServer(
        weights.data(), meanRows.data(), state.isDiagonal ? nullptr : matrixTables.data(),
        state.isDiagonal ? diagonalRows.data() : nullptr, nDim, nMix, flags);
}

inline int makeContinuous(const oracle::ContinuousHmm& model, int flags = KT_HMM_EXPONENTIAL) {
    const Floats a = floats(model.chain.a);
    const std::vector<float> pi = floats(model.chain.pi);
    std::vector<GaussMixServer*> mixtures;
    for (const auto& state : model.states)
        mixtures.push_back(makeMixture(state));
    const int id =
        KTsInitContHMMServer(pointers(a).data(), pi.data(), mixtures.data(), int(pi.size()),
                             int(model.states[0].means[0].size()), flags);
    for (GaussMixServer* mixture : mixtures)
        KTsFreeGaussMixServer(mixture);
    return id;
}

// --- reading back ---

inline oracle::Hmm chainOf(int id) {
    const HMMServer& server = *KTFindHMMServer(id);
    const auto n = std::size_t(server.nStates);
    const hmm::TransitionMap map = hmm::TransitionMap::of(server);
    const float* initials = hmm::floats(server.initials);
    oracle::Hmm chain{Row(initials, initials + n), Rows(n, Row(n, 0.0))};
    for (std::size_t i = 0; i < n; ++i)
        for (std::size_t j = 0; j < n; ++j)
            if (connects(map.topology, i, j))
                chain.a[i][j] =
                    double(hmm::floats(server.transitions)[map.position(int(i), int(j))]);
    return chain;
}

inline oracle::DiscreteHmm discreteOf(int id) {
    const HMMServer& server = *KTFindHMMServer(id);
    oracle::DiscreteHmm model{chainOf(id), {}};
    for (int i = 0; i < server.nStates; ++i) {
        Row row;
        for (int k = 0; k < server.nSymbols; ++k)
            row.push_back(double(hmm::outputRows<float>(server.outputs)[k][i]));
        model.b.push_back(row);
    }
    return model;
}

inline oracle::SemicontinuousHmm semicontinuousOf(int id) {
    const HMMServer& server = *KTFindHMMServer(id);
    oracle::SemicontinuousHmm model{chainOf(id), {}};
    for (int i = 0; i < server.nStates; ++i) {
        const float* weights = hmm::outputRows<float>(server.outputs)[i];
        model.weights.push_back(Row(weights, weights + server.nSymbols));
    }
    return model;
}

// Weights and means; the inverses stay empty.
inline oracle::ContinuousHmm continuousOf(int id) {
    const HMMServer& server = *KTFindHMMServer(id);
    oracle::ContinuousHmm model{chainOf(id), {}};
    for (int i = 0; i < server.nStates; ++i) {
        const GaussMixServer* mixture = server.mixtures[i];
        oracle::Components state;
        for (int m = 0; m < mixture->nMix; ++m) {
            const float* mean = ktl::gauss::means<float>(mixture)[m];
            state.weights.push_back(double(ktl::gauss::weights<float>(mixture)[m]));
            state.means.push_back(Row(mean, mean + mixture->nDim));
        }
        model.states.push_back(state);
    }
    return model;
}

// Everything that a server stores as numbers, for comparisons bit by bit.
inline std::vector<float> allOf(int id) {
    const HMMServer& server = *KTFindHMMServer(id);
    const float *initials = hmm::floats(server.initials),
                *transitions = hmm::floats(server.transitions);
    std::vector<float> all(initials, initials + server.nStates);
    all.insert(all.end(), transitions, transitions + hmm::TransitionMap::of(server).size());
    const auto shape = hmm::OutputShape::of(server.status, server.nStates, server.nSymbols);
    for (int r = 0; server.outputs != nullptr && r < shape.rows; ++r) {
        const float* row = hmm::outputRows<float>(server.outputs)[r];
        all.insert(all.end(), row, row + shape.columns);
    }
    for (int i = 0; server.mixtures != nullptr && i < server.nStates; ++i) {
        const GaussMixServer* mixture = server.mixtures[i];
        for (int m = 0; m < mixture->nMix; ++m) {
            all.push_back(ktl::gauss::weights<float>(mixture)[m]);
            all.push_back(mixture->pNormWeights[m]);
            const float* mean = ktl::gauss::means<float>(mixture)[m];
            all.insert(all.end(), mean, mean + mixture->nDim);
        }
    }
    return all;
}

inline void expectNear(const Rows& expected, const Rows& actual, double tolerance,
                       const char* what) {
    ASSERT_EQ(expected.size(), actual.size());
    for (std::size_t i = 0; i < expected.size(); ++i)
        for (std::size_t j = 0; j < expected[i].size(); ++j)
            EXPECT_NEAR(expected[i][j], actual[i][j], tolerance) << what << ' ' << i << ' ' << j;
}

inline void expectNear(const oracle::Hmm& expected, const oracle::Hmm& actual, double tolerance) {
    expectNear(Rows{expected.pi}, Rows{actual.pi}, tolerance, "initial");
    expectNear(expected.a, actual.a, tolerance, "transition");
}

// Symbols drawn from the model, so that every sequence can be produced.
inline std::vector<int> drawSymbols(std::mt19937& random, const oracle::DiscreteHmm& model,
                                    int nFrames) {
    const auto draw = [&](const Row& row) {
        return std::discrete_distribution<int>(row.begin(), row.end())(random);
    };
    std::vector<int> symbols;
    int state = draw(model.chain.pi);
    for (int t = 0; t < nFrames; ++t) {
        symbols.push_back(draw(model.b[std::size_t(state)]));
        state = draw(model.chain.a[std::size_t(state)]);
    }
    return symbols;
}

inline Rows randomFrames(std::mt19937& random, int nFrames, std::size_t nDim) {
    std::normal_distribution<float> normal(0.0f, 1.0f);
    Rows frames(static_cast<std::size_t>(nFrames), Row(nDim));
    for (Row& frame : frames)
        for (double& x : frame)
            x = double(normal(random));
    return frames;
}

// The arguments of a training call.
struct SymbolData {
    explicit SymbolData(std::vector<std::vector<int>> data) : sequences(std::move(data)) {
        for (const auto& sequence : sequences) {
            rows.push_back(sequence.data());
            lengths.push_back(int(sequence.size()));
        }
    }
    int train(int id, int maxIterations, float* pTolerance = nullptr) const {
        return KTsTrainHMMBaumWelch(id, rows.data(), lengths.data(), int(rows.size()),
                                    maxIterations, pTolerance);
    }
    std::vector<std::vector<int>> sequences;
    std::vector<const int*> rows;
    std::vector<int> lengths;
};

struct FrameData {
    explicit FrameData(const std::vector<Rows>& data) : sequences(data) {
        for (const Rows& frames : data)
            values.push_back(floats(frames));
        for (const Floats& frames : values) {
            rows.push_back(pointers(frames));
            lengths.push_back(int(frames.size()));
        }
        for (const auto& frames : rows)
            tables.push_back(frames.data());
    }
    int trainContinuous(int id, int maxIterations, float* pTolerance = nullptr) const {
        return KTsTrainContHMMBaumWelch(id, tables.data(), lengths.data(), int(tables.size()),
                                        maxIterations, pTolerance);
    }
    int trainSemicontinuous(int id, int maxIterations, float* pTolerance = nullptr) const {
        return KTsTrainSemicontHMMBaumWelch(id, tables.data(), lengths.data(), int(tables.size()),
                                            maxIterations, pTolerance);
    }
    std::vector<Rows> sequences;
    std::vector<Floats> values;
    std::vector<std::vector<const float*>> rows;
    std::vector<const float* const*> tables;
    std::vector<int> lengths;
};

// --- random models and data ---

inline oracle::DiscreteHmm randomDiscrete(std::mt19937& random, std::size_t n, std::size_t symbols,
                                          Topology topology) {
    return {randomChain(random, n, topology), randomRows(random, n, symbols)};
}

inline SymbolData drawData(std::mt19937& random, const oracle::DiscreteHmm& model, int count) {
    std::vector<std::vector<int>> sequences;
    for (int q = 0; q < count; ++q)
        sequences.push_back(drawSymbols(random, model, 1 + int(random() % 30)));
    return SymbolData(sequences);
}

inline oracle::Components randomMixture(std::mt19937& random, std::size_t nMix, std::size_t nDim,
                                        bool isDiagonal) {
    std::uniform_real_distribution<float> spread(0.5f, 2.0f), small(-0.2f, 0.2f);
    oracle::Components c{
        randomRow(random, nMix), randomFrames(random, int(nMix), nDim), {}, isDiagonal};
    for (std::size_t m = 0; m < nMix; ++m) {
        Rows inverse(nDim, Row(nDim, 0.0));
        for (std::size_t i = 0; i < nDim; ++i) {
            inverse[i][i] = double(spread(random));
            for (std::size_t j = 0; !isDiagonal && j < i; ++j)
                inverse[i][j] = inverse[j][i] = double(small(random)) / double(nDim);
        }
        c.inverses.push_back(inverse);
    }
    return c;
}

inline oracle::ContinuousHmm randomContinuous(std::mt19937& random, std::size_t n, std::size_t nDim,
                                              Topology topology, std::size_t mostComponents = 3) {
    oracle::ContinuousHmm model{randomChain(random, n, topology), {}};
    for (std::size_t i = 0; i < n; ++i)
        model.states.push_back(
            randomMixture(random, 1 + random() % mostComponents, nDim, random() % 2 == 0));
    return model;
}

inline FrameData frameData(std::mt19937& random, int count, std::size_t nDim) {
    std::vector<Rows> sequences;
    for (int q = 0; q < count; ++q)
        sequences.push_back(randomFrames(random, 1 + int(random() % 30), nDim));
    return FrameData(sequences);
}

// A codebook of single densities, weight 1 each.
struct Codebook {
    Codebook(std::mt19937& random, std::size_t nSymbols, std::size_t nDim) {
        for (std::size_t k = 0; k < nSymbols; ++k)
            densities.push_back(randomMixture(random, 1, nDim, k % 2 == 0));
        install();
    }
    void install() const {
        std::vector<GaussMixServer*> servers;
        for (const auto& density : densities)
            servers.push_back(makeMixture(density));
        EXPECT_EQ(KTsInitSemicontCodebook(servers.data(), int(servers.size()),
                                          int(densities[0].means[0].size()), 0),
                  1);
        for (GaussMixServer* server : servers)
            KTsFreeGaussMixServer(server);
    }
    // By frame and density.
    Rows logDensities(const Rows& frames) const {
        Rows result;
        for (const Row& x : frames) {
            Row row;
            for (const auto& d : densities)
                row.push_back(std::log(d.weights[0]) +
                              oracle::logDensity(x, d.means[0], d.inverses[0], d.isDiagonal));
            result.push_back(row);
        }
        return result;
    }
    std::vector<Rows> logDensities(const FrameData& data) const {
        std::vector<Rows> result;
        for (const Rows& frames : data.sequences)
            result.push_back(logDensities(frames));
        return result;
    }
    std::vector<oracle::Components> densities;
};

// Every test begins and ends without servers.
class HmmTest : public testing::Test {
protected:
    void TearDown() override {
        KTHMMFreeAll();
        KTFreeGaussTbls();
        KTSetStatus(0);
    }
};

} // namespace training
