// The Kohonen search over 256 codes.
#include "ktlp6.h"

#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#ifdef KTL_HAVE_FAISS
#include <faiss/utils/distances.h>
#endif

namespace {

constexpr int nCodes = 256;

template <class T>
struct Map {
    explicit Map(int n)
        : nDim(n), codes(static_cast<std::size_t>(nCodes * n)), vector(static_cast<std::size_t>(n)) {
        std::mt19937 random(3);
        std::normal_distribution<float> normal;
        for (T& value : codes)
            value = T(100 * normal(random));
        for (T& value : vector)
            value = T(100 * normal(random));
        for (std::size_t c = 0; c < nCodes; ++c)
            rows.push_back(&codes[c * std::size_t(n)]);
    }
    int nDim;
    std::vector<T> codes, vector;
    std::vector<T*> rows;
};

void searchOurs(benchmark::State& state, int nBest, int bRoot) {
    Map<float> map(int(state.range(0)));
    std::vector<float> distances(nCodes);
    std::vector<int> indices(nCodes);
    for (auto _ : state) {
        KTsVQKohonen(map.vector.data(), map.rows.data(), distances.data(), map.nDim, nCodes, indices.data(),
                     nBest, bRoot);
        benchmark::DoNotOptimize(indices.data());
        benchmark::ClobberMemory();
    }
}

void searchFixed(benchmark::State& state, int scaleMode) {
    Map<short> map(int(state.range(0)));
    std::vector<int> distances(nCodes), indices(nCodes);
    int scale = 0;
    for (auto _ : state) {
        KTwVQKohonen(map.vector.data(), map.rows.data(), distances.data(), map.nDim, nCodes, indices.data(),
                     1, 1, scaleMode, &scale);
        benchmark::ClobberMemory();
    }
}

BENCHMARK_CAPTURE(searchOurs, winner, 1, 0)->Name("kohonen/256 codes, winner/ours")->Arg(13)->Arg(39);
BENCHMARK_CAPTURE(searchOurs, ranked, 10, 1)->Name("kohonen/256 codes, 10 best, rooted/ours")->Arg(13);
BENCHMARK_CAPTURE(searchFixed, plain, KT_NoScale)->Name("kohonen/256 codes, fixed/ours")->Arg(13);
BENCHMARK_CAPTURE(searchFixed, scaled, KT_AutoScale)->Name("kohonen/256 codes, fixed, scaled/ours")->Arg(13);

#ifdef KTL_HAVE_FAISS
void searchFaiss(benchmark::State& state) {
    Map<float> map(int(state.range(0)));
    std::vector<float> distances(nCodes);
    for (auto _ : state)
        benchmark::DoNotOptimize(faiss::fvec_L2sqr_ny_nearest(
            distances.data(), map.vector.data(), map.codes.data(), std::size_t(map.nDim), nCodes));
}
BENCHMARK(searchFaiss)->Name("kohonen/256 codes, winner/faiss")->Arg(13)->Arg(39);
#endif

} // namespace
