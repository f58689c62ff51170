// Autocorrelation. The plain loop sums in float, ours in double.
#include "plain_vectors.h"
#include "vsq.h"

#include <benchmark/benchmark.h>

#include <string>

namespace {

alignas(64) float signal[16384];
float lags[16384];

template <class Function>
void add(const char* who, int n, int nLags, Function function) {
    const std::string name = "autoCorr/" + std::to_string(n) + "x" + std::to_string(nLags) + "/" + who;
    benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) {
        for (int i = 0; i < 16384; ++i)
            signal[i] = float((i * 7919) % 2003) - 1000;
        for (auto _ : state) {
            benchmark::ClobberMemory();
            function(signal, n, lags, nLags);
            benchmark::DoNotOptimize(lags);
        }
    });
}

const int registered = [] {
    const int shapes[][2] = {{240, 11}, {400, 13}, {400, 17}, {512, 25}, {4096, 64}, {16384, 16384}};
    for (const auto& shape : shapes) {
        add("ours", shape[0], shape[1],
            [](const float* src, int n, float* dst, int nLags) { vsqsAutoCorr(src, n, dst, nLags, 0); });
        add("plainFloat", shape[0], shape[1], plain::autoCorr);
    }
    return 0;
}();

} // namespace
