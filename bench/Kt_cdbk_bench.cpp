// Tree codebooks: training and quantising of vectors of 13 elements, as cepstra are.
#include "ktlp6.h"

#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#ifdef KTL_HAVE_FAISS
#include <faiss/Clustering.h>
#include <faiss/IndexFlat.h>
#include <omp.h>
#endif

namespace {

constexpr int nDim = 13, nSize = 256;

// Vectors of 40 clouds; the same ones, rounded, for the fixed flavour.
struct Set {
    explicit Set(int n) : count(n), floats(static_cast<std::size_t>(n * nDim)), words(floats.size()) {
        std::mt19937 random(7);
        std::normal_distribution<float> normal;
        std::vector<float> centres(40 * nDim);
        for (float& value : centres)
            value = 3 * normal(random);
        for (int i = 0; i < n; ++i) {
            const std::size_t cloud = random() % 40;
            for (std::size_t k = 0; k < nDim; ++k) {
                const std::size_t at = std::size_t(i) * nDim + k;
                floats[at] = centres[cloud * nDim + k] + normal(random);
                words[at] = short(300 * floats[at]);
            }
            floatRows.push_back(&floats[std::size_t(i) * nDim]);
            wordRows.push_back(&words[std::size_t(i) * nDim]);
        }
    }
    int count;
    std::vector<float> floats;
    std::vector<short> words;
    std::vector<float*> floatRows;
    std::vector<short*> wordRows;
};

KTCodebook* train(Set& set, int flags) {
    return KTsMakeCodebook(set.floatRows.data(), nullptr, set.count, nDim, nSize, flags | KT_CB_EUCLID);
}

void trainOurs(benchmark::State& state, int flags) {
    Set set(int(state.range(0)));
    for (auto _ : state)
        KT_FreeCodebook(train(set, flags));
}

void trainFixed(benchmark::State& state) {
    Set set(int(state.range(0)));
    for (auto _ : state)
        KT_FreeCodebook(KTwMakeCodebook(set.wordRows.data(), nullptr, set.count, nDim, nSize,
                                        KT_CB_SPLIT_WIDEST | KT_CB_EUCLID));
}

void quantiseOurs(benchmark::State& state) {
    Set set(20000);
    KTCodebook* const codebook = train(set, KT_CB_SPLIT_LARGEST);
    std::vector<int> index(20000);
    double distortion = 0;
    for (auto _ : state)
        KTsVQCodebook(codebook, set.floatRows.data(), index.data(), set.count, nDim, &distortion);
    state.counters["distortion"] = distortion;
    KT_FreeCodebook(codebook);
}

void quantiseFixed(benchmark::State& state) {
    Set set(20000);
    KTCodebook* const codebook = KTwMakeCodebook(set.wordRows.data(), nullptr, set.count, nDim, nSize,
                                                 KT_CB_SPLIT_LARGEST | KT_CB_EUCLID);
    std::vector<int> index(20000);
    int distortion = 0;
    for (auto _ : state)
        KTwVQCodebook(codebook, set.wordRows.data(), index.data(), set.count, nDim, &distortion, KT_NoScale,
                      nullptr);
    KT_FreeCodebook(codebook);
}

BENCHMARK_CAPTURE(trainOurs, widest, KT_CB_SPLIT_WIDEST)
    ->Name("makeCodebook/256 cells/ours")
    ->Arg(5000)
    ->Arg(20000)
    ->Arg(80000)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(trainOurs, largest, KT_CB_SPLIT_LARGEST)
    ->Name("makeCodebook/256 cells, largest first/ours")
    ->Arg(20000)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(trainFixed)->Name("makeCodebook/256 cells, fixed/ours")->Arg(20000)->Unit(benchmark::kMillisecond);
BENCHMARK(quantiseOurs)->Name("vqCodebook/20000 vectors/ours")->Unit(benchmark::kMicrosecond);
BENCHMARK(quantiseFixed)->Name("vqCodebook/20000 vectors, fixed/ours")->Unit(benchmark::kMicrosecond);

#ifdef KTL_HAVE_FAISS
void trainFaiss(benchmark::State& state) {
    omp_set_num_threads(1);
    Set set(int(state.range(0)));
    faiss::ClusteringParameters parameters;
    parameters.niter = 10;
    parameters.max_points_per_centroid = 1 << 20;
    for (auto _ : state) {
        faiss::Clustering clustering(nDim, nSize, parameters);
        faiss::IndexFlatL2 index(nDim);
        clustering.train(set.count, set.floats.data(), index);
    }
}

void quantiseFaiss(benchmark::State& state) {
    omp_set_num_threads(1);
    Set set(20000);
    faiss::IndexFlatL2 index(nDim);
    index.add(nSize, set.floats.data());
    std::vector<float> distances(20000);
    std::vector<faiss::Index::idx_t> labels(20000);
    for (auto _ : state)
        index.search(set.count, set.floats.data(), 1, distances.data(), labels.data());
}

BENCHMARK(trainFaiss)->Name("makeCodebook/256 cells/faiss")->Arg(20000)->Unit(benchmark::kMillisecond);
BENCHMARK(quantiseFaiss)->Name("vqCodebook/20000 vectors/faiss")->Unit(benchmark::kMicrosecond);
#endif

} // namespace
