// Real transforms: forward, inverse with scaling, and the fixed-point form beside the float one.
#include "vsq.h"

#include <benchmark/benchmark.h>
#ifdef KTL_HAVE_FFTW
#include <fftw3.h>
#endif

#include <string>
#include <vector>

namespace {

struct Buffers {
    std::vector<float> in, out;
    explicit Buffers(int order) : in(std::size_t{1} << order), out(in.size() + 2) {
        for (std::size_t i = 0; i < in.size(); ++i)
            in[i] = static_cast<float>(i % 77) * 0.3f - 7.0f;
    }
};

void ours(benchmark::State& state, int order, int flags) {
    Buffers buffers(order);
    for (auto _ : state) {
        vsqsRealFftlNip(buffers.in.data(), buffers.out.data(), order, flags | VSQ_RCPerm);
        benchmark::ClobberMemory();
    }
}

// The samples go round between forward and inverse transforms, as they stand.
void fixedPoint(benchmark::State& state, int order) {
    std::vector<short> samples(std::size_t{1} << order);
    for (std::size_t i = 0; i < samples.size(); ++i)
        samples[i] = static_cast<short>(i % 77);
    for (auto _ : state) {
        vsqwRealFftl(samples.data(), order, VSQ_Forw | VSQ_RCPerm, 0, nullptr);
        benchmark::ClobberMemory();
    }
}

#ifdef KTL_HAVE_FFTW
// Out of place and measured; the inverse of this peer does not scale and may destroy its input.
void fftw(benchmark::State& state, int order, bool isForward) {
    Buffers buffers(order);
    const int n = 1 << order;
    float* reals = fftwf_alloc_real(static_cast<std::size_t>(n));
    fftwf_complex* bins = fftwf_alloc_complex(static_cast<std::size_t>(n / 2 + 1));
    const fftwf_plan plan = isForward ? fftwf_plan_dft_r2c_1d(n, reals, bins, FFTW_MEASURE)
                                      : fftwf_plan_dft_c2r_1d(n, bins, reals, FFTW_MEASURE);
    for (int i = 0; i < n; ++i)
        reals[i] = buffers.in[static_cast<std::size_t>(i)];
    for (int i = 0; i <= n / 2; ++i)
        bins[i][0] = bins[i][1] = 0.0f;
    for (auto _ : state) {
        fftwf_execute(plan);
        benchmark::ClobberMemory();
    }
    fftwf_destroy_plan(plan);
    fftwf_free(reals);
    fftwf_free(bins);
}
#endif

template <class Function>
void add(const char* operation, const char* who, int order, Function function) {
    const std::string name = std::string(operation) + "/" + std::to_string(1 << order) + "/" + who;
    benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) { function(state, order); });
}

const int registered = [] {
    for (int order : {5, 6, 7, 8, 9, 10, 11, 12, 14, 18}) {
        add("realFft", "ours", order, [](benchmark::State& state, int o) { ours(state, o, VSQ_Forw); });
        add("inverseFft", "ours", order, [](benchmark::State& state, int o) { ours(state, o, VSQ_Inv); });
#ifdef KTL_HAVE_FFTW
        add("realFft", "fftw", order, [](benchmark::State& state, int o) { fftw(state, o, true); });
        add("inverseFft", "fftw", order, [](benchmark::State& state, int o) { fftw(state, o, false); });
#endif
    }
    for (int order : {8, 9, 10}) {
        add("fixedFft", "ours", order, fixedPoint);
        add("fixedFft", "float", order, [](benchmark::State& state, int o) { ours(state, o, VSQ_Forw); });
    }
    return 0;
}();

} // namespace
