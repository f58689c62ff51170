// Linear prediction of a frame of 400 samples, order 12. The plain loops sum in float, ours in
// double.
#include "bench/frontend/plain_frontend.h"
#include "bench/support/bench.h"
#include "ktlp6.h"

namespace {

constexpr int samples = 400, order = 12;

struct Arrays {
    alignas(64) float frame[samples];
    alignas(64) short words[samples];
    float coef[order] = {};
    short fixedCoef[order] = {};
    Arrays() {
        unsigned noise = 1;
        for (int i = 0; i < samples; ++i) {
            noise = noise * 1664525u + 1013904223u;
            words[i] = short(noise >> 18);
            frame[i] = words[i];
        }
    }
    bench::Values results() const { return bench::valuesOf(coef, order); }
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
    bench::Row("autocorrPrediction/400x12",
               make([](Arrays& a) { KTsLPredict(a.frame, samples, a.coef, order, KT_LPAutocorr); }))
        .peer("plain", 1e-3,
              make([](Arrays& a) { plain::predict(a.frame, samples, a.coef, order); }))
        .peer("lanes", 1e-3,
              make([](Arrays& a) { plain::predictLanes(a.frame, samples, a.coef, order); }));
    bench::Row("covariancePrediction/400x12", make([](Arrays& a) {
                   KTsLPredict(a.frame, samples, a.coef, order, KT_LPCovariance);
               }));
    bench::Row("fixedPrediction/400x12", make([](Arrays& a) {
                   KTwLPredict(a.words, samples, a.fixedCoef, order, KT_LPAutocorr, KT_AutoScale,
                               nullptr);
               }));
    return 0;
}();

} // namespace
