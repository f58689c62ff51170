// The spectrum of an all-pole model, order 12, at 256 frequencies.
#include "ktlp6.h"
#include "plain_conversions.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <string>

namespace {

constexpr int order = 12, fftOrder = 8, bins = 1 << fftOrder;
float coef[order];
short fixedCoef[order];
alignas(64) float table[bins * order * 2], spectrum[bins];
alignas(64) short fixedSpectrum[bins];

void prepare() {
    for (int i = 0; i < order; ++i) {
        coef[i] = 0.05f * float(i % 5 - 2);
        fixedCoef[i] = short(coef[i] * 4096);
    }
    for (int k = 0; k < bins; ++k)
        for (int i = 0; i < order; ++i) {
            const double angle = 3.14159265358979323846 * (i + 1) * k / bins;
            table[2 * (k * order + i)] = float(std::cos(angle));
            table[2 * (k * order + i) + 1] = float(-std::sin(angle));
        }
}

template <class Function>
void add(const char* operation, const char* who, Function function) {
    benchmark::RegisterBenchmark((std::string(operation) + "/" + std::to_string(bins) + "/" + who).c_str(),
                                 [=](benchmark::State& state) {
                                     prepare();
                                     for (auto _ : state) {
                                         benchmark::ClobberMemory();
                                         function();
                                         benchmark::ClobberMemory();
                                     }
                                 });
}

const int registered = [] {
    add("lpSpectrum", "ours", [] { KTsLPSpectrum(coef, order, spectrum, fftOrder, 1.0f); });
    add("lpSpectrum", "plain", [] { plain::spectrum(table, bins, coef, order, 1.0f, spectrum); });
    add("lpSpectrumFixed", "ours", [] {
        KTwLPSpectrum(fixedCoef, order - 1, fixedSpectrum, fftOrder, 1.0f, -12, KT_AutoScale, nullptr);
    });
    add("lpSpectrumTransform", "ours", [] { KTsLPSpectrum(coef, order, spectrum, 7, 1.0f); });
    return 0;
}();

} // namespace
