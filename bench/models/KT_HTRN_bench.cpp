// One Baum-Welch iteration: a discrete model of 64 symbols, 10 fully connected states on 20
// sequences of 100 frames and 12 on one sequence of 2000; a continuous one of 5 banded states with
// 4 diagonal components of 26 dimensions on 100 sequences of 40 frames; a semicontinuous one over
// 64 densities. Loops in double beside them.
#include "bench/models/plain_training.h"
#include "bench/support/bench.h"
#include "ktlp6.h"

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

// The transitions and initial values of a trained model, and the outputs of a discrete one.
bench::Values parametersOf(int id, int n, int nSymbols) {
    std::vector<float> initial(static_cast<std::size_t>(n));
    std::vector<std::vector<float>> trans, out;
    std::vector<void*> transRows, outRows;
    for (int i = 0; i < n; ++i) {
        trans.emplace_back(std::size_t(n));
        out.emplace_back(std::size_t(nSymbols));
        transRows.push_back(trans.back().data());
        outRows.push_back(out.back().data());
    }
    KTGetHMMProb(id, initial.data(), transRows.data(), nSymbols > 0 ? outRows.data() : nullptr,
                 nullptr, nullptr);
    bench::Values all(initial.begin(), initial.end());
    for (const auto* rows : {&trans, &out})
        for (const auto& row : *rows)
            all.insert(all.end(), row.begin(), row.end());
    return all;
}

bench::Values parametersOf(const plain::Chain& chain, const std::vector<double>& outputs) {
    bench::Values all = chain.pi;
    all.insert(all.end(), chain.a.begin(), chain.a.end());
    all.insert(all.end(), outputs.begin(), outputs.end());
    return all;
}

struct DiscreteJob {
    static constexpr int symbols = 64;
    DiscreteJob(int nStates, int nSequences, int frames)
        : random(1), n(nStates), count(nSequences), model{randomChain(random, n, n), symbols, {}} {
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
    DiscreteJob(const DiscreteJob&) = delete;
    DiscreteJob& operator=(const DiscreteJob&) = delete;
    ~DiscreteJob() { KTHMMFreeAll(); }
    int server() const {
        const Table a(model.chain.a, n), b(model.b, symbols), pi(model.chain.pi, n);
        return KTsInitHMMServer(a.rows.data(), b.rows.data(), pi.values.data(), n, symbols,
                                KT_HMM_EXPONENTIAL);
    }
    std::mt19937 random;
    int n, count;
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
    FrameJob(const FrameJob&) = delete;
    FrameJob& operator=(const FrameJob&) = delete;
    ~FrameJob() { KTHMMFreeAll(); }
    int continuousServer() const {
        const Table a(model.chain.a, n), pi(model.chain.pi, n);
        Table weights(model.weights, nMix), means(model.means, nDim),
            inverses(model.inverses, nDim);
        std::vector<GaussMixServer*> mixtures;
        for (int i = 0; i < n; ++i)
            mixtures.push_back(
                KTsInitGaussMixServer(weights.rows[std::size_t(i)], means.rows.data() + i * nMix,
                                      nullptr, inverses.rows.data() + i * nMix, nDim, nMix, 0));
        const int id = KTsInitContHMMServer(a.rows.data(), pi.values.data(), mixtures.data(), n,
                                            nDim, KT_HMM_EXPONENTIAL);
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
        return KTsInitSemicontHMMServer(a.rows.data(), b.rows.data(), pi.values.data(), n,
                                        densities, nDim, KT_HMM_EXPONENTIAL);
    }
    std::mt19937 random;
    plain::Continuous model;
    std::vector<float> values;
    std::vector<float*> rows;
    std::vector<const float* const*> tables;
    std::vector<int> lengths;
};

struct OursDiscrete : DiscreteJob {
    int id = server();
    using DiscreteJob::DiscreteJob;
    int train() const {
        float change = 1e-30f;
        return KTsTrainHMMBaumWelch(id, rows.data(), lengths.data(), count, 1, &change);
    }
    void run() { KTFreeHMMServer(train()); }
    bench::Values results() const { return parametersOf(train(), n, symbols); }
};

using TrainDiscrete = double (*)(plain::Discrete&, const int* const*, const int*, int);

struct PlainDiscrete : DiscreteJob {
    TrainDiscrete train;
    plain::Discrete trained = model;
    PlainDiscrete(int nStates, int nSequences, int frames, TrainDiscrete how)
        : DiscreteJob(nStates, nSequences, frames), train(how) {}
    void run() {
        trained = model;
        benchmark::DoNotOptimize(train(trained, rows.data(), lengths.data(), count));
    }
    bench::Values results() const { return parametersOf(trained.chain, trained.b); }
};

struct OursContinuous : FrameJob {
    int id = continuousServer();
    int train() const {
        float change = 1e-30f;
        return KTsTrainContHMMBaumWelch(id, tables.data(), lengths.data(), count, 1, &change);
    }
    void run() { KTFreeHMMServer(train()); }
    bench::Values results() const { return parametersOf(train(), n, 0); }
};

struct PlainContinuous : FrameJob {
    plain::Continuous trained = model;
    void run() {
        trained = model;
        benchmark::DoNotOptimize(
            plain::trainContinuous(trained, tables.data(), lengths.data(), count));
    }
    bench::Values results() const { return parametersOf(trained.chain, {}); }
};

struct OursSemicontinuous : FrameJob {
    int id = semicontinuousServer();
    void run() {
        float change = 1e-30f;
        KTFreeHMMServer(
            KTsTrainSemicontHMMBaumWelch(id, tables.data(), lengths.data(), count, 1, &change));
    }
};

void addDiscrete(const char* name, int n, int sequences, int frames) {
    bench::Row(name, [=] { return OursDiscrete(n, sequences, frames); })
        .peer("plain", 1e-5,
              [=] { return PlainDiscrete(n, sequences, frames, plain::trainDiscrete); })
        .peer("lanes", 1e-5,
              [=] { return PlainDiscrete(n, sequences, frames, plain::trainDiscreteLanes); });
}

const int registered = [] {
    addDiscrete("trainDiscrete/10x20x100", 10, 20, 100);
    addDiscrete("trainDiscrete/12x1x2000", 12, 1, 2000);
    bench::Row("trainContinuous/5x4x26", [] { return OursContinuous(); }).peer("plain", 1e-5, [] {
        return PlainContinuous();
    });
    bench::Row("trainSemicontinuous/5x64x26", [] { return OursSemicontinuous(); });
    return 0;
}();

} // namespace
