// Mixtures: a frame's score beside a matrix-vector product with a log-sum-exp and beside mixtures
// in lanes, both in float with a vector exponential; a run of frames in one call; estimation and
// inversion beside Armadillo.
#include "bench/mixtures/plain_mixtures.h"
#include "bench/support/bench.h"
#include "ktlp6.h"

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

using Rows = std::vector<std::vector<float>>;

std::vector<float*> pointers(Rows& rows) {
    std::vector<float*> result;
    for (auto& row : rows)
        result.push_back(row.data());
    return result;
}

// The same numbers for every side of a row.
struct Data {
    std::mt19937 random{7};
    int nDim, nMix;
    Rows means, inverses;
    std::vector<float*> meanRows, inverseRows;
    std::vector<float> weights, x;

    Data(int dimensions, int mixtures)
        : nDim(dimensions), nMix(mixtures), means(rows(nMix, -1, 1)), inverses(rows(nMix, 0.2f, 1)),
          meanRows(pointers(means)), inverseRows(pointers(inverses)),
          weights(std::size_t(nMix), 1.0f / float(nMix)), x(rows(1, -1, 1)[0]) {}
    Data(const Data&) = delete;
    Data& operator=(const Data&) = delete;

    Rows rows(int count, float low, float high) {
        std::uniform_real_distribution<float> uniform(low, high);
        const std::vector<float> row(static_cast<std::size_t>(nDim));
        Rows all(static_cast<std::size_t>(count), row);
        for (auto& filled : all)
            for (float& value : filled)
                value = uniform(random);
        return all;
    }
    GaussMixServer* diagonalServer() {
        return KTsInitGaussMixServer(weights.data(), meanRows.data(), nullptr, inverseRows.data(),
                                     nDim, nMix, 0);
    }
};

struct Single : Data {
    using Data::Data;
    double likelihood = 0;
    bench::Values results() const { return {likelihood}; }
};

struct Ours : Single {
    GaussMixServer* server = diagonalServer();
    using Single::Single;
    ~Ours() { KTsFreeGaussMixServer(server); }
    void run() { benchmark::DoNotOptimize(likelihood = KTsEvalGaussMix(server, x.data(), nDim)); }
};

struct OursFixed : Single {
    GaussMixServer* floats = diagonalServer();
    GaussMixServer* server = KTswConvertGaussMixServer(floats, -15, -10, -8);
    std::vector<short> words = std::vector<short>(std::size_t(nDim));
    OursFixed(int dimensions, int mixtures) : Single(dimensions, mixtures) {
        int scale = -10;
        KTswbConvertDown(x.data(), words.data(), nDim, KT_FixedScale, &scale);
    }
    ~OursFixed() {
        KTsFreeGaussMixServer(server);
        KTsFreeGaussMixServer(floats);
    }
    void run() {
        int scale = -10;
        benchmark::DoNotOptimize(KTwEvalGaussMix(server, words.data(), nDim, KT_AutoScale, &scale));
    }
};

struct Lanes : Single {
    plain::LaneMixture mixture{meanRows.data(), inverseRows.data(), weights.data(), nDim, nMix};
    using Single::Single;
    void run() { likelihood = double(mixture.likelihood(x.data())); }
};

struct Loop : Lanes {
    using Lanes::Lanes;
    void run() { likelihood = double(mixture.likelihoodByLoop(x.data())); }
};

// 200 frames under a model of one state: one call that scores them all.
struct Run : Data {
    static constexpr int frames = 200;
    const int items = frames;
    Rows frameRows = rows(frames, -1, 1);
    std::vector<const float*> frameTable;
    double cost = 0;
    Run(int dimensions, int mixtures) : Data(dimensions, mixtures) {
        for (const auto& row : frameRows)
            frameTable.push_back(row.data());
    }
    bench::Values results() const { return {cost}; }
};

struct OursRun : Run {
    int id;
    OursRun(int dimensions, int mixtures) : Run(dimensions, mixtures) {
        GaussMixServer* server = diagonalServer();
        const float one = 1;
        const float* row = &one;
        id = KTsInitContHMMServer(&row, &one, &server, 1, nDim, KT_HMM_EXPONENTIAL);
        KTsFreeGaussMixServer(server);
    }
    ~OursRun() { KTHMMFreeAll(); }
    void run() {
        int best;
        benchmark::DoNotOptimize(cost =
                                     KTsEvalContHMMForward(id, frameTable.data(), frames, &best));
    }
};

struct LanesRun : Run {
    plain::LaneMixture mixture{meanRows.data(), inverseRows.data(), weights.data(), nDim, nMix};
    using Run::Run;
    void run() { cost = mixture.cost(frameTable.data(), frames); }
};

#ifdef KTL_HAVE_OPENBLAS
// log of weight * exp(-q / 2) = the row (x squared, x) times a column of a matrix, and a constant.
// The matrix stands with its mixtures side by side, which is how the product is fastest.
struct Table {
    std::vector<float> matrix, constants; // 2 * nDim rows of nMix
    explicit Table(const Data& d) : matrix(std::size_t(2 * d.nDim * d.nMix)) {
        openblas_set_num_threads(1);
        for (int k = 0; k < d.nMix; ++k) {
            double constant = std::log(double(d.weights[std::size_t(k)]));
            for (int i = 0; i < d.nDim; ++i) {
                const float mean = d.means[std::size_t(k)][std::size_t(i)];
                const float inverse = d.inverses[std::size_t(k)][std::size_t(i)];
                matrix[std::size_t(i * d.nMix + k)] = -0.5f * inverse;
                matrix[std::size_t((d.nDim + i) * d.nMix + k)] = inverse * mean;
                constant -= 0.5 * double(inverse) * double(mean) * double(mean);
            }
            constants.push_back(float(constant));
        }
    }
    static void expand(const float* x, int n, float* row) {
        for (int i = 0; i < n; ++i) {
            row[i] = x[i] * x[i];
            row[n + i] = x[i];
        }
    }
};

struct Blas : Single {
    Table table{*this};
    std::vector<float> row = std::vector<float>(std::size_t(2 * nDim)), logs = table.constants;
    using Single::Single;
    void run() {
        Table::expand(x.data(), nDim, row.data());
        std::copy(table.constants.begin(), table.constants.end(), logs.begin());
        cblas_sgemv(CblasColMajor, CblasNoTrans, nMix, 2 * nDim, 1, table.matrix.data(), nMix,
                    row.data(), 1, 1, logs.data(), 1);
        likelihood = std::exp(double(plain::logSumExp(logs.data(), nMix)));
    }
};

struct BlasRun : Run {
    Table table{*this};
    std::vector<float> expanded = std::vector<float>(std::size_t(2 * nDim * frames)),
                       logs = std::vector<float>(std::size_t(nMix * frames));
    using Run::Run;
    void run() {
        for (int t = 0; t < frames; ++t) {
            Table::expand(frameTable[std::size_t(t)], nDim, expanded.data() + 2 * nDim * t);
            std::copy(table.constants.begin(), table.constants.end(), logs.begin() + nMix * t);
        }
        cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, frames, nMix, 2 * nDim, 1,
                    expanded.data(), 2 * nDim, table.matrix.data(), nMix, 1, logs.data(), nMix);
        double sum = 0;
        for (int t = 0; t < frames; ++t)
            sum += double(plain::logSumExp(logs.data() + nMix * t, nMix));
        cost = -sum / std::log(10.0);
    }
};
#endif

struct Full : Single {
    Rows matrix = rows(nDim, 0.01f, 0.02f);
    std::vector<float*> matrixRows;
    std::vector<float**> tables;
    Full(int dimensions, int mixtures) : Single(dimensions, mixtures) {
        for (std::size_t i = 0; i < matrix.size(); ++i)
            for (std::size_t j = 0; j <= i; ++j)
                matrix[i][j] = i == j ? 1.0f : matrix[j][i];
        matrixRows = pointers(matrix);
        tables.assign(std::size_t(nMix), matrixRows.data());
    }
};

struct OursFull : Full {
    GaussMixServer* server = KTsInitGaussMixServer(weights.data(), meanRows.data(), tables.data(),
                                                   nullptr, nDim, nMix, 0);
    using Full::Full;
    ~OursFull() { KTsFreeGaussMixServer(server); }
    void run() { benchmark::DoNotOptimize(likelihood = KTsEvalGaussMix(server, x.data(), nDim)); }
};

struct PlainFull : Full {
    using Full::Full;
    void run() {
        likelihood = plain::fullMixture(x.data(), meanRows.data(), tables.data(), weights.data(),
                                        nDim, nMix);
    }
};

// Training vectors of 39 elements.
struct Vectors : Data {
    Rows vectors;
    std::vector<float*> table;
    explicit Vectors(int count)
        : Data(39, 1), vectors(rows(count, -1, 2)), table(pointers(vectors)) {}
};

struct OursBuild : Vectors {
    int flags;
    explicit OursBuild(int how) : Vectors(20000), flags(how) {}
    void run() {
        KTsFreeGaussMixServer(KTsBuildGaussMixServer(table.data(), int(table.size()), nDim, flags));
    }
};

struct OursInvert : Vectors {
    GaussMixServer* built =
        KTsBuildGaussMixServer(table.data(), int(table.size()), nDim, KT_GAUSS_FULL);
    OursInvert() : Vectors(400) {}
    ~OursInvert() { KTsFreeGaussMixServer(built); }
    void run() { KTsFreeGaussMixServer(KTsInvertGaussianCovMatrix(built, 0)); }
};

#ifdef KTL_HAVE_ARMADILLO
struct ArmadilloBuild {
    arma::fmat data{20000, 39, arma::fill::randu};
    bool isFull;
    explicit ArmadilloBuild(bool full) : isFull(full) {}
    void run() {
        if (isFull) {
            arma::fmat covariance = arma::cov(data);
            benchmark::DoNotOptimize(covariance.memptr());
        } else {
            arma::frowvec variance = arma::var(data);
            benchmark::DoNotOptimize(variance.memptr());
        }
    }
};

struct ArmadilloInvert {
    arma::fmat covariance = arma::cov(arma::fmat(400, 39, arma::fill::randu));
    void run() {
        arma::fmat inverse = arma::inv(covariance);
        benchmark::DoNotOptimize(inverse.memptr());
    }
};
#endif

void addDiagonal(int nMix) {
    bench::Row row("mixtureDiagonal/39x" + std::to_string(nMix), [=] { return Ours(39, nMix); });
    row.peer("loop", 1e-4, [=] { return Loop(39, nMix); });
    row.peer("lanes", 1e-4, [=] { return Lanes(39, nMix); });
#ifdef KTL_HAVE_OPENBLAS
    row.peer("openblas", 1e-4, [=] { return Blas(39, nMix); });
#endif
}

void addEstimation() {
    bench::Row diagonal("buildDiagonal/20000x39", [] { return OursBuild(0); });
    bench::Row full("buildFull/20000x39", [] { return OursBuild(KT_GAUSS_FULL); });
    bench::Row invert("invert/39", [] { return OursInvert(); });
#ifdef KTL_HAVE_ARMADILLO
    diagonal.other(
        "armadillo", [] { return ArmadilloBuild(false); }, "other data");
    full.other(
        "armadillo", [] { return ArmadilloBuild(true); }, "other data");
    invert.other(
        "armadillo", [] { return ArmadilloInvert(); }, "other data");
#endif
}

const int registered = [] {
    for (const int nMix : {8, 32, 256})
        addDiagonal(nMix);
    bench::Row run("mixtureRun/39x256", [] { return OursRun(39, 256); });
    run.peer("lanes", 1e-5, [] { return LanesRun(39, 256); });
#ifdef KTL_HAVE_OPENBLAS
    run.peer("openblas", 1e-5, [] { return BlasRun(39, 256); });
#endif
    bench::Row("mixtureFixed/39x32", [] { return OursFixed(39, 32); }).other("float", [] {
        return Ours(39, 32);
    });
    bench::Row("mixtureFull/13x8", [] { return OursFull(13, 8); }).peer("plain", 1e-6, [] {
        return PlainFull(13, 8);
    });
    addEstimation();
    return 0;
}();

} // namespace
