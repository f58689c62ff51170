// Mahalanobis distances at 13 and 39 dimensions against plain double precision loops.
#include "ktlp6.h"
#include "levels/levels.h"
#include "plain_distances.h"

#include <benchmark/benchmark.h>

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
};

template <class Function>
void add(const std::string& name, int n, Function function) {
    benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) {
        const Data data(n);
        for (auto _ : state) {
            benchmark::ClobberMemory();
            benchmark::DoNotOptimize(function(data, n));
        }
    });
}

const int registered = [] {
    for (int n : {13, 39}) {
        const std::string size = std::to_string(n);
        add("mahalanobisD/" + size + "/ours", n, [](const Data& d, int count) {
            return KTsMahalanobisD(d.a.data(), d.b.data(), d.weights.data(), count, 0);
        });
        add("mahalanobisD/" + size + "/plain", n, [](const Data& d, int count) {
            return plain::mahalanobisDiagonal(d.a.data(), d.b.data(), d.weights.data(), count);
        });
        add("mahalanobis/" + size + "/ours", n, [](const Data& d, int count) {
            return KTsMahalanobis(d.a.data(), d.b.data(), d.rows.data(), count, 0);
        });
        add("mahalanobis/" + size + "/plain", n, [](const Data& d, int count) {
            return plain::mahalanobis(d.a.data(), d.b.data(), d.rows.data(), count);
        });
        add("mahalanobisDFixed/" + size + "/ours", n, [](const Data& d, int count) {
            return KTwMahalanobisD(d.wa.data(), d.wb.data(), d.wWeights.data(), count, 0, KT_Saturate,
                                   nullptr);
        });
        // A codebook's sixteen densities, which are laid out once: their exponents, and plain forms one by one.
        add("mahalanobisD/16x" + size + "/ours", n, [](const Data& d, int count) {
            float exponents[16];
            vsq::kernels().mahal->panelExponents(d.a.data(), d.panel.data(), 16, count, count, exponents);
            benchmark::DoNotOptimize(exponents);
            return double(exponents[15]);
        });
        add("mahalanobisD/16x" + size + "/plain", n, [](const Data& d, int count) {
            double forms[16];
            for (int k = 0; k < 16; ++k)
                forms[k] =
                    plain::mahalanobisDiagonal(d.a.data(), d.b.data() + k, d.weights.data() + k, count);
            benchmark::DoNotOptimize(forms);
            return forms[15];
        });
    }
    return 0;
}();

} // namespace
