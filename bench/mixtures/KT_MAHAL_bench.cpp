// Mahalanobis distances at 13 and 39 dimensions against plain double precision loops.
#include "bench/mixtures/plain_distances.h"
#include "bench/support/bench.h"
#include "ktlp6.h"
#include "levels/levels.h"

#include <string>
#include <vector>

namespace {

constexpr int most = 256;

struct Data {
    std::vector<float> a, b, weights, matrix;
    std::vector<const float*> rows;
    std::vector<double> panel; // sixteen rows
    std::vector<short> wa, wb, wWeights;

    explicit Data(int n) : matrix(std::size_t(n) * n) {
        for (int i = 0; i < most; ++i) {
            a.push_back(float(i * 7 % 23) * 0.3f);
            b.push_back(float(i * 5 % 19) * 0.4f);
            weights.push_back(0.1f + float(i % 7));
            wa.push_back(short(i * 977));
            wb.push_back(short(i * 571));
            wWeights.push_back(short(i * 31));
        }
        for (std::size_t i = 0; i < matrix.size(); ++i)
            matrix[i] = float(i % 31) * 0.01f;
        for (int i = 0; i < n; ++i)
            rows.push_back(&matrix[std::size_t(i) * n]);
        const float *means[16], *diagonals[16];
        for (int k = 0; k < 16; ++k) {
            means[k] = b.data() + k;
            diagonals[k] = weights.data() + k;
        }
        panel.resize(vsq::panelSize(16, n));
        vsq::kernels().mahal->fillPanel(means, diagonals, 16, n, panel.data());
    }
    Data(const Data&) = delete;
    Data& operator=(const Data&) = delete;
};

// A function fills the results from the data.
template <class Function>
auto make(int n, Function function) {
    struct Side {
        Function function;
        Data data;
        int n;
        double out[16] = {};
        Side(Function f, int count) : function(f), data(count), n(count) {}
        void run() { function(data, n, out); }
        bench::Values results() const { return bench::valuesOf(out, 16); }
    };
    return [=] { return Side(function, n); };
}

void addSingle(int n) {
    const std::string size = std::to_string(n);
    bench::Row("mahalanobisD/" + size, make(n,
                                            [](const Data& d, int count, double* out) {
                                                *out = KTsMahalanobisD(d.a.data(), d.b.data(),
                                                                       d.weights.data(), count, 0);
                                            }))
        .peer("plain", 1e-6, make(n, [](const Data& d, int count, double* out) {
                  *out =
                      plain::mahalanobisDiagonal(d.a.data(), d.b.data(), d.weights.data(), count);
              }));
    bench::Row("mahalanobis/" + size, make(n,
                                           [](const Data& d, int count, double* out) {
                                               *out = KTsMahalanobis(d.a.data(), d.b.data(),
                                                                     d.rows.data(), count, 0);
                                           }))
        .peer("plain", 1e-6, make(n, [](const Data& d, int count, double* out) {
                  *out = plain::mahalanobis(d.a.data(), d.b.data(), d.rows.data(), count);
              }));
    bench::Row("mahalanobisDFixed/" + size, make(n, [](const Data& d, int count, double* out) {
                   *out = KTwMahalanobisD(d.wa.data(), d.wb.data(), d.wWeights.data(), count, 0,
                                          KT_Saturate, nullptr);
               }));
}

// A codebook's sixteen densities, which are laid out once: their exponents, and plain forms one by
// one.
void addPanel(int n) {
    bench::Row("mahalanobisD/16x" + std::to_string(n),
               make(n,
                    [](const Data& d, int count, double* out) {
                        float exponents[16];
                        vsq::kernels().mahal->panelExponents(d.a.data(), d.panel.data(), 16, count,
                                                             count, exponents);
                        for (int k = 0; k < 16; ++k)
                            out[k] = double(exponents[k]);
                    }))
        .peer("plain", 1e-6, make(n, [](const Data& d, int count, double* out) {
                  for (int k = 0; k < 16; ++k)
                      out[k] = -0.5 * plain::mahalanobisDiagonal(d.a.data(), d.b.data() + k,
                                                                 d.weights.data() + k, count);
              }));
}

const int registered = [] {
    for (const int n : {13, 39}) {
        addSingle(n);
        addPanel(n);
    }
    return 0;
}();

} // namespace
