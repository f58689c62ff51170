// Linear prediction of a frame of 400 samples, order 12.
#include "ktlp6.h"
#include "plain_conversions.h"

#include <benchmark/benchmark.h>

#include <string>

namespace {

constexpr int samples = 400, order = 12;
alignas(64) float frame[samples];
alignas(64) short words[samples];
float coef[order];
short fixedCoef[order];

template <class Function>
void add(const char* operation, const char* who, Function function) {
    benchmark::RegisterBenchmark((std::string(operation) + "/" + std::to_string(order) + "/" + who).c_str(),
                                 [=](benchmark::State& state) {
                                     unsigned noise = 1;
                                     for (int i = 0; i < samples; ++i) {
                                         noise = noise * 1664525u + 1013904223u;
                                         words[i] = short(noise >> 18);
                                         frame[i] = words[i];
                                     }
                                     for (auto _ : state) {
                                         benchmark::ClobberMemory();
                                         function();
                                         benchmark::ClobberMemory();
                                     }
                                 });
}

const int registered = [] {
    add("autocorrPrediction", "ours", [] { KTsLPredict(frame, samples, coef, order, KT_LPAutocorr); });
    add("autocorrPrediction", "plain", [] {
        float r[order + 1], e[order + 1], a[order + 1];
        plain::predict(frame, samples, r, e, a, order);
        benchmark::DoNotOptimize(a);
    });
    add("covariancePrediction", "ours", [] { KTsLPredict(frame, samples, coef, order, KT_LPCovariance); });
    add("fixedPrediction", "ours",
        [] { KTwLPredict(words, samples, fixedCoef, order, KT_LPAutocorr, KT_AutoScale, nullptr); });
    return 0;
}();

} // namespace
