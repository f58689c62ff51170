// One Baum-Welch iteration: a discrete model of 10 fully connected states and 64 symbols on 20 sequences of 100 frames; a
// continuous one of 5 banded states with 4 diagonal components of 26 dimensions on 100 sequences of 40 frames; a
// semicontinuous one over 64 densities. Plain double loops beside them.
#include "ktlp6.h"
#include "plain_training.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <random>
#include <vector>

namespace {

std::vector<double> randomRow(std::mt19937& random, int first, int last, int n) {
    std::uniform_real_distribution<double> uniform(0.1, 1.0);
    std::vector<double> row(static_cast<std::size_t>(n));
    double sum = 0;
    for (int j = first; j < last; ++j)
        sum += row[std::size_t(j)] = uniform(random);
    for (double& value : row)
        value /= sum;
    return row;
}

plain::Chain randomChain(std::mt19937& random, int n, int width) {
    plain::Chain chain{n, width, randomRow(random, 0, n, n), {}};
    for (int i = 0; i < n; ++i) {
        const bool full = width == n;
        const auto row = randomRow(random, full ? 0 : i, full ? n : std::min(n, i + width), n);
        chain.a.insert(chain.a.end(), row.begin(), row.end());
    }
    return chain;
}

// A row-pointer table of floats from rows of doubles that stand behind each other.
struct Table {
    Table(const std::vector<double>& all, int columns) : values(all.begin(), all.end()) {
        for (std::size_t i = 0; i < all.size(); i += std::size_t(columns))
            rows.push_back(values.data() + i);
    }
    std::vector<float> values;
    std::vector<float*> rows;
};

struct DiscreteJob {
    static constexpr int n = 10, symbols = 64, count = 20, frames = 100;
    DiscreteJob() : random(1), model{randomChain(random, n, n), symbols, {}} {
        for (int i = 0; i < n; ++i) {
            const auto row = randomRow(random, 0, symbols, symbols);
            model.b.insert(model.b.end(), row.begin(), row.end());
        }
        for (int q = 0; q < count; ++q) {
            sequences.emplace_back();
            for (int t = 0; t < frames; ++t)
                sequences.back().push_back(int(random() % symbols));
            lengths.push_back(frames);
        }
        for (const auto& sequence : sequences)
            rows.push_back(sequence.data());
    }
    ~DiscreteJob() { KTHMMFreeAll(); }
    int server() const {
        const Table a(model.chain.a, n), b(model.b, symbols), pi(model.chain.pi, n);
        return KTsInitHMMServer(a.rows.data(), b.rows.data(), pi.values.data(), n, symbols,
                                KT_HMM_EXPONENTIAL);
    }
    std::mt19937 random;
    plain::Discrete model;
    std::vector<std::vector<int>> sequences;
    std::vector<const int*> rows;
    std::vector<int> lengths;
};

struct FrameJob {
    static constexpr int n = 5, nMix = 4, nDim = 26, count = 100, frames = 40, densities = 64;
    FrameJob() : random(2), model{randomChain(random, n, 3), nMix, nDim, {}, {}, {}} {
        std::normal_distribution<double> normal;
        for (int i = 0; i < n; ++i) {
            const auto row = randomRow(random, 0, nMix, nMix);
            model.weights.insert(model.weights.end(), row.begin(), row.end());
        }
        for (int k = 0; k < n * nMix * nDim; ++k) {
            model.means.push_back(normal(random));
            model.inverses.push_back(0.25);
        }
        for (int k = 0; k < count * frames * nDim; ++k)
            values.push_back(float(normal(random)));
        for (int t = 0; t < count * frames; ++t)
            rows.push_back(values.data() + t * nDim);
        for (int q = 0; q < count; ++q) {
            tables.push_back(rows.data() + q * frames);
            lengths.push_back(frames);
        }
    }
    ~FrameJob() { KTHMMFreeAll(); }
    int continuousServer() const {
        const Table a(model.chain.a, n), pi(model.chain.pi, n);
        Table weights(model.weights, nMix), means(model.means, nDim), inverses(model.inverses, nDim);
        std::vector<GaussMixServer*> mixtures;
        for (int i = 0; i < n; ++i)
            mixtures.push_back(KTsInitGaussMixServer(weights.rows[std::size_t(i)],
                                                     means.rows.data() + i * nMix, nullptr,
                                                     inverses.rows.data() + i * nMix, nDim, nMix, 0));
        const int id = KTsInitContHMMServer(a.rows.data(), pi.values.data(), mixtures.data(), n, nDim,
                                            KT_HMM_EXPONENTIAL);
        for (GaussMixServer* mixture : mixtures)
            KTsFreeGaussMixServer(mixture);
        return id;
    }
    int semicontinuousServer() {
        const std::vector<double> ones(1, 1.0), inverses(nDim, 0.25);
        Table weight(ones, 1), inverse(inverses, nDim);
        std::vector<GaussMixServer*> pdfs;
        for (int k = 0; k < densities; ++k)
            pdfs.push_back(KTsInitGaussMixServer(weight.values.data(),
                                                 const_cast<float**>(rows.data() + 7 * k), nullptr,
                                                 inverse.rows.data(), nDim, 1, 0));
        KTsInitSemicontCodebook(pdfs.data(), densities, nDim, 0);
        for (GaussMixServer* pdf : pdfs)
            KTsFreeGaussMixServer(pdf);
        std::vector<double> weights;
        for (int i = 0; i < n; ++i) {
            const auto row = randomRow(random, 0, densities, densities);
            weights.insert(weights.end(), row.begin(), row.end());
        }
        const Table a(model.chain.a, n), b(weights, densities), pi(model.chain.pi, n);
        return KTsInitSemicontHMMServer(a.rows.data(), b.rows.data(), pi.values.data(), n, densities, nDim,
                                        KT_HMM_EXPONENTIAL);
    }
    std::mt19937 random;
    plain::Continuous model;
    std::vector<float> values;
    std::vector<float*> rows;
    std::vector<const float* const*> tables;
    std::vector<int> lengths;
};

template <class Train>
void oneIteration(benchmark::State& state, int id, const Train& train) {
    for (auto _ : state) {
        float change = 1e-30f;
        KTFreeHMMServer(train(id, &change));
        benchmark::DoNotOptimize(change);
    }
}

void discreteOurs(benchmark::State& state) {
    const DiscreteJob job;
    oneIteration(state, job.server(), [&](int id, float* change) {
        return KTsTrainHMMBaumWelch(id, job.rows.data(), job.lengths.data(), job.count, 1, change);
    });
}

void discretePlain(benchmark::State& state) {
    const DiscreteJob job;
    for (auto _ : state) {
        plain::Discrete model = job.model;
        benchmark::DoNotOptimize(plain::trainDiscrete(model, job.rows.data(), job.lengths.data(), job.count));
    }
}

void continuousOurs(benchmark::State& state) {
    const FrameJob job;
    oneIteration(state, job.continuousServer(), [&](int id, float* change) {
        return KTsTrainContHMMBaumWelch(id, job.tables.data(), job.lengths.data(), job.count, 1, change);
    });
}

void continuousPlain(benchmark::State& state) {
    const FrameJob job;
    for (auto _ : state) {
        plain::Continuous model = job.model;
        benchmark::DoNotOptimize(
            plain::trainContinuous(model, job.tables.data(), job.lengths.data(), job.count));
    }
}

void semicontinuousOurs(benchmark::State& state) {
    FrameJob job;
    oneIteration(state, job.semicontinuousServer(), [&](int id, float* change) {
        return KTsTrainSemicontHMMBaumWelch(id, job.tables.data(), job.lengths.data(), job.count, 1, change);
    });
}

BENCHMARK(discreteOurs)->Name("train/discrete/ours")->Unit(benchmark::kMicrosecond);
BENCHMARK(discretePlain)->Name("train/discrete/plain")->Unit(benchmark::kMicrosecond);
BENCHMARK(continuousOurs)->Name("train/continuous/ours")->Unit(benchmark::kMicrosecond);
BENCHMARK(continuousPlain)->Name("train/continuous/plain")->Unit(benchmark::kMicrosecond);
BENCHMARK(semicontinuousOurs)->Name("train/semicontinuous/ours")->Unit(benchmark::kMicrosecond);

} // namespace
