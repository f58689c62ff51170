// Inner products and norms of floats with double sums.
#include "plain_vectors.h"
#include "vsq.h"

#include <benchmark/benchmark.h>
#ifdef KTL_HAVE_OPENBLAS
#include <cblas.h>
#endif

#include <string>

namespace {

alignas(64) float first[4096], second[4096];
alignas(64) short firstWords[4096], secondWords[4096];

template <class Function>
void add(const char* operation, const char* who, int n, Function function) {
    benchmark::RegisterBenchmark((std::string(operation) + "/" + std::to_string(n) + "/" + who).c_str(),
                                 [=](benchmark::State& state) {
                                     for (int i = 0; i < 4096; ++i) {
                                         first[i] = float(i % 77) * 0.3f - 7;
                                         second[i] = float(i % 91) * 0.2f - 8;
                                         firstWords[i] = short(i * 77);
                                         secondWords[i] = short(i * 91);
                                     }
                                     for (auto _ : state) {
                                         benchmark::ClobberMemory();
                                         benchmark::DoNotOptimize(function(n));
                                     }
                                 });
}

const int registered = [] {
    for (int n : {400, 4096}) {
        add("dotProd", "ours", n, [](int count) { return vsqsDotProd(first, second, count); });
#ifdef KTL_HAVE_OPENBLAS
        add("dotProd", "openblas", n, [](int count) { return cblas_dsdot(count, first, 1, second, 1); });
#endif
        add("dotProd", "plainFloat", n, [](int count) { return plain::dot(first, second, count); });
    }
    for (int n : {13, 39, 400}) {
        add("norm", "ours", n, [](int count) { return vsqsNorm(first, second, count, VSQ_NormSquares); });
        add("norm", "plainFloat", n, [](int count) { return plain::squaredDistance(first, second, count); });
        add("fixedNorm", "ours", n,
            [](int count) { return vsqwNorm(firstWords, secondWords, count, VSQ_NormRoot); });
        add("fixedDotProd", "ours", n,
            [](int count) { return vsqwDotProdExt(firstWords, secondWords, count, 0, nullptr); });
    }
    return 0;
}();

} // namespace
