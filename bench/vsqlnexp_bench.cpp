// Logarithm and exponential function in place. Every round starts from fresh arguments, copied in at the same
// cost for all; VOLK has no natural logarithm, so its base-2 one stands in.
#include "plain_vectors.h"
#include "vsq.h"

#include <benchmark/benchmark.h>
#ifdef KTL_HAVE_VOLK
#include <volk/volk.h>
#endif

#include <cstring>
#include <string>
#include <vector>

namespace {

alignas(64) float arguments[4096], values[4096];

template <class Function>
void run(benchmark::State& state, int n, Function function) {
    for (int i = 0; i < n; ++i)
        arguments[i] = 0.01f + 0.02f * float(i % 1000);
    for (auto _ : state) {
        std::memcpy(values, arguments, sizeof(float) * std::size_t(n));
        function(values, n);
        benchmark::DoNotOptimize(values);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * n);
}

template <class Function>
void add(const char* operation, const char* who, Function function) {
    for (int n : {256, 4096})
        benchmark::RegisterBenchmark((std::string(operation) + "/" + std::to_string(n) + "/" + who).c_str(),
                                     [=](benchmark::State& state) { run(state, n, function); });
}

const int registered = [] {
    add("ln", "ours", vsqsbLn1);
    add("ln", "libmvec", plain::ln);
#ifdef KTL_HAVE_VOLK
    add("ln", "volk_log2", [](float* vec, int n) { volk_32f_log2_32f(vec, vec, unsigned(n)); });
#endif
    add("exp", "ours", vsqsbExp1);
    add("exp", "libmvec", plain::exp);
#ifdef KTL_HAVE_VOLK
    add("exp", "volk", [](float* vec, int n) { volk_32f_exp_32f(vec, vec, unsigned(n)); });
#endif
    return 0;
}();

} // namespace
