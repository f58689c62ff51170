// The spectrum of an all-pole model, order 12, at 256 frequencies. The peer sums in float, ours in
// double.
#include "bench/frontend/plain_frontend.h"
#include "bench/support/bench.h"
#include "ktlp6.h"

#include <cmath>

namespace {

constexpr int order = 12, fftOrder = 8, bins = 1 << fftOrder;

struct Arrays {
    float coef[order];
    short fixedCoef[order];
    alignas(64) float table[bins * order * 2], spectrum[bins];
    alignas(64) short fixedSpectrum[bins];
    Arrays() {
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
    bench::Values results() const { return bench::valuesOf(spectrum, bins); }
};

template <class Function>
auto make(Function function) {
    struct Side : Arrays {
        Function function;
        explicit Side(Function f) : function(f) {}
        void run() { function(*this); }
    };
    return [=] { return Side(function); };
}

const int registered = [] {
    bench::Row("lpSpectrum/256",
               make([](Arrays& a) { KTsLPSpectrum(a.coef, order, a.spectrum, fftOrder, 1.0f); }))
        .peer("plain", 1e-5, make([](Arrays& a) {
                  plain::spectrum(a.table, bins, a.coef, order, 1.0f, a.spectrum);
              }));
    bench::Row("lpSpectrumFixed/256", make([](Arrays& a) {
                   KTwLPSpectrum(a.fixedCoef, order - 1, a.fixedSpectrum, fftOrder, 1.0f, -12,
                                 KT_AutoScale, nullptr);
               }));
    bench::Row("lpSpectrumTransform/256",
               make([](Arrays& a) { KTsLPSpectrum(a.coef, order, a.spectrum, 7, 1.0f); }));
    return 0;
}();

} // namespace
