// The cosine transform for the usual numbers of filters and some powers of two.
#include "vsq.h"

#include <benchmark/benchmark.h>
#ifdef KTL_HAVE_FFTW
#include <fftw3.h>
#endif

#include <string>

namespace {

constexpr int longest = 256;

void fill(float* x) {
    for (int i = 0; i < longest; ++i)
        x[i] = static_cast<float>(i % 7) - 3.0f;
}

void ours(benchmark::State& state, int n, int flags) {
    float in[longest], out[longest];
    fill(in);
    for (auto _ : state) {
        vsqsDct(in, out, n, flags);
        benchmark::ClobberMemory();
    }
}

void fixedPoint(benchmark::State& state, int n) {
    short in[longest], out[longest];
    for (int i = 0; i < longest; ++i)
        in[i] = static_cast<short>(i % 7 * 100);
    for (auto _ : state) {
        vsqwDct(in, out, n, VSQ_DctForw);
        benchmark::ClobberMemory();
    }
}

#ifdef KTL_HAVE_FFTW
void fftw(benchmark::State& state, int n, fftwf_r2r_kind kind) {
    float in[longest], out[longest];
    const fftwf_plan plan = fftwf_plan_r2r_1d(n, in, out, kind, FFTW_MEASURE);
    fill(in);
    for (auto _ : state) {
        fftwf_execute(plan);
        benchmark::ClobberMemory();
    }
    fftwf_destroy_plan(plan);
}
#endif

template <class Function>
void add(const char* operation, const char* who, int n, Function function) {
    const std::string name = std::string(operation) + "/" + std::to_string(n) + "/" + who;
    benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) { function(state, n); });
}

const int registered = [] {
    for (int n : {13, 24, 26, 32, 40, 64, 128, 256}) {
        add("dct", "ours", n, [](benchmark::State& state, int length) { ours(state, length, VSQ_DctForw); });
        add("inverseDct", "ours", n,
            [](benchmark::State& state, int length) { ours(state, length, VSQ_DctInv); });
        add("fixedDct", "ours", n, fixedPoint);
#ifdef KTL_HAVE_FFTW
        add("dct", "fftw", n, [](benchmark::State& state, int length) { fftw(state, length, FFTW_REDFT10); });
        add("inverseDct", "fftw", n,
            [](benchmark::State& state, int length) { fftw(state, length, FFTW_REDFT01); });
#endif
    }
    return 0;
}();

} // namespace
