// Mixtures: a frame's score beside two matrix-vector products and a log-sum-exp in float, estimation and
// inversion beside Armadillo.
#include "ktlp6.h"
#include "plain_mixtures.h"

#include <benchmark/benchmark.h>
#ifdef KTL_HAVE_OPENBLAS
#include <cblas.h>
extern "C" void openblas_set_num_threads(int);
#endif
#ifdef KTL_HAVE_ARMADILLO
#include <armadillo>
#endif

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

namespace {

std::mt19937 random(7);

template <class T>
std::vector<std::vector<T>> rowsOf(int count, int n, double low, double high) {
    std::uniform_real_distribution<double> uniform(low, high);
    const std::vector<T> row(static_cast<std::size_t>(n));
    std::vector<std::vector<T>> rows(static_cast<std::size_t>(count), row);
    for (auto& filled : rows)
        for (T& v : filled)
            v = T(uniform(random));
    return rows;
}

template <class T>
std::vector<T*> pointers(std::vector<std::vector<T>>& rows) {
    std::vector<T*> result;
    for (auto& row : rows)
        result.push_back(row.data());
    return result;
}

GaussMixServer* floatServer(int nDim, int nMix, bool full) {
    auto means = rowsOf<float>(nMix, nDim, -1, 1), diagonals = rowsOf<float>(nMix, nDim, 0.2, 1);
    auto matrixRows = rowsOf<float>(nDim, nDim, 0.01, 0.02);
    for (int i = 0; i < nDim; ++i)
        for (int j = 0; j <= i; ++j)
            matrixRows[std::size_t(i)][std::size_t(j)] =
                i == j ? 1.0f : matrixRows[std::size_t(j)][std::size_t(i)];
    auto meanRows = pointers(means), diagonalRows = pointers(diagonals), matrix = pointers(matrixRows);
    std::vector<float**> tables(std::size_t(nMix), matrix.data());
    const std::vector<float> weights(std::size_t(nMix), 1.0f / float(nMix));
    return KTsInitGaussMixServer(weights.data(), meanRows.data(), full ? tables.data() : nullptr,
                                 full ? nullptr : diagonalRows.data(), nDim, nMix, 0);
}

void evalFloat(benchmark::State& state, int nDim, int nMix, bool full) {
    GaussMixServer* server = floatServer(nDim, nMix, full);
    const auto x = rowsOf<float>(1, nDim, -1, 1)[0];
    for (auto _ : state)
        benchmark::DoNotOptimize(KTsEvalGaussMix(server, x.data(), nDim));
    KTsFreeGaussMixServer(server);
}

void evalFixed(benchmark::State& state, int nDim, int nMix) {
    GaussMixServer* server = floatServer(nDim, nMix, false);
    GaussMixServer* fixed = KTswConvertGaussMixServer(server, -15, -10, -8);
    std::vector<short> x(static_cast<std::size_t>(nDim));
    int scale = -10;
    KTswbConvertDown(rowsOf<float>(1, nDim, -1, 1)[0].data(), x.data(), nDim, KT_FixedScale, &scale);
    for (auto _ : state)
        benchmark::DoNotOptimize(KTwEvalGaussMix(fixed, x.data(), nDim, KT_AutoScale, &scale));
    KTsFreeGaussMixServer(server);
    KTsFreeGaussMixServer(fixed);
}

#ifdef KTL_HAVE_OPENBLAS
// -q/2 = x^2 . a + x . b + constant, for all mixtures by two products; then log-sum-exp.
void evalBlas(benchmark::State& state, int nDim, int nMix) {
    openblas_set_num_threads(1);
    const auto size = static_cast<std::size_t>(nDim) * static_cast<std::size_t>(nMix);
    const auto a = rowsOf<float>(1, int(size), -0.5, -0.1)[0], b = rowsOf<float>(1, int(size), -1, 1)[0];
    const auto constants = rowsOf<float>(1, nMix, -3, -1)[0], x = rowsOf<float>(1, nDim, -1, 1)[0];
    std::vector<float> squares(x), y(static_cast<std::size_t>(nMix));
    for (auto _ : state) {
        for (std::size_t i = 0; i < x.size(); ++i)
            squares[i] = x[i] * x[i];
        std::copy(constants.begin(), constants.end(), y.begin());
        cblas_sgemv(CblasRowMajor, CblasNoTrans, nMix, nDim, 1, a.data(), nDim, squares.data(), 1, 1,
                    y.data(), 1);
        cblas_sgemv(CblasRowMajor, CblasNoTrans, nMix, nDim, 1, b.data(), nDim, x.data(), 1, 1, y.data(), 1);
        const float top = *std::max_element(y.begin(), y.end());
        float sum = 0;
        for (const float v : y)
            sum += std::exp(v - top);
        benchmark::DoNotOptimize(top + std::log(sum));
    }
}
#endif

void evalPlain(benchmark::State& state, int nDim, int nMix) {
    auto means = rowsOf<float>(nMix, nDim, -1, 1);
    std::vector<std::vector<std::vector<float>>> matrices;
    std::vector<std::vector<float*>> rows;
    std::vector<float**> tables;
    for (int k = 0; k < nMix; ++k)
        matrices.push_back(rowsOf<float>(nDim, nDim, 0.01, 0.02));
    for (auto& matrix : matrices)
        rows.push_back(pointers(matrix));
    for (auto& table : rows)
        tables.push_back(table.data());
    const auto meanRows = pointers(means);
    const std::vector<float> weights(std::size_t(nMix), 0.1f), x = rowsOf<float>(1, nDim, -1, 1)[0];
    for (auto _ : state)
        benchmark::DoNotOptimize(
            plain::fullMixture(x.data(), meanRows.data(), tables.data(), weights.data(), nDim, nMix));
}

void build(benchmark::State& state, int flags) {
    auto data = rowsOf<float>(20000, 39, -1, 2);
    auto rows = pointers(data);
    for (auto _ : state)
        KTsFreeGaussMixServer(KTsBuildGaussMixServer(rows.data(), 20000, 39, flags));
}

void invert(benchmark::State& state) {
    auto data = rowsOf<float>(400, 39, -1, 2);
    auto rows = pointers(data);
    GaussMixServer* built = KTsBuildGaussMixServer(rows.data(), 400, 39, KT_GAUSS_FULL);
    for (auto _ : state)
        KTsFreeGaussMixServer(KTsInvertGaussianCovMatrix(built, 0));
    KTsFreeGaussMixServer(built);
}

#ifdef KTL_HAVE_ARMADILLO
void armadilloBuild(benchmark::State& state, bool full) {
    arma::fmat data(20000, 39, arma::fill::randu);
    for (auto _ : state) {
        if (full) {
            arma::fmat c = arma::cov(data);
            benchmark::DoNotOptimize(c.memptr());
        } else {
            arma::frowvec v = arma::var(data);
            benchmark::DoNotOptimize(v.memptr());
        }
    }
}

void armadilloInvert(benchmark::State& state) {
    arma::fmat data(400, 39, arma::fill::randu);
    const arma::fmat c = arma::cov(data);
    for (auto _ : state) {
        arma::fmat inverse = arma::inv(c);
        benchmark::DoNotOptimize(inverse.memptr());
    }
}
#endif

template <class Function>
void add(const std::string& operation, const char* who, Function function) {
    benchmark::RegisterBenchmark((operation + "/" + who).c_str(), function);
}

const int registered = [] {
    for (const int nMix : {8, 32, 256}) {
        const std::string name = "mixture_diagonal/39x" + std::to_string(nMix);
        add(name, "ours", [=](benchmark::State& state) { evalFloat(state, 39, nMix, false); });
#ifdef KTL_HAVE_OPENBLAS
        add(name, "openblas", [=](benchmark::State& state) { evalBlas(state, 39, nMix); });
#endif
    }
    add("mixture_fixed/39x32", "ours", [](benchmark::State& state) { evalFixed(state, 39, 32); });
    add("mixture_fixed/39x32", "float", [](benchmark::State& state) { evalFloat(state, 39, 32, false); });
    add("mixture_full/13x8", "ours", [](benchmark::State& state) { evalFloat(state, 13, 8, true); });
    add("mixture_full/13x8", "plain", [](benchmark::State& state) { evalPlain(state, 13, 8); });
    add("build_diagonal/20000x39", "ours", [](benchmark::State& state) { build(state, 0); });
    add("build_full/20000x39", "ours", [](benchmark::State& state) { build(state, KT_GAUSS_FULL); });
    add("invert/39", "ours", invert);
#ifdef KTL_HAVE_ARMADILLO
    add("build_diagonal/20000x39", "armadillo",
        [](benchmark::State& state) { armadilloBuild(state, false); });
    add("build_full/20000x39", "armadillo", [](benchmark::State& state) { armadilloBuild(state, true); });
    add("invert/39", "armadillo", armadilloInvert);
#endif
    return 0;
}();

} // namespace
