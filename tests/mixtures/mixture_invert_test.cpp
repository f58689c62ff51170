#include "frame/context.h"
#include "mixtures/mixtures.h"
#include "support/alloc_faults.h"
#include "support/every_level.h"
#include "support/reports.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>

using namespace mixtures;

namespace {

Server invert(const Server& server, int flags = 0) {
    return Server(KTsInvertGaussianCovMatrix(server.get(), flags));
}

Mixture<float> oneFull(const Rows<float>& covariance) {
    Mixture<float> m;
    m.nDim = int(covariance.size());
    m.nMix = 1;
    m.weights = {0.5f};
    m.means = {std::vector<float>(covariance.size(), 1)};
    m.matrices = {covariance};
    return m;
}

Mixture<float> oneDiagonal(const std::vector<float>& variances) {
    Mixture<float> m;
    m.nDim = int(variances.size());
    m.nMix = 1;
    m.weights = {0.5f};
    m.means = {std::vector<float>(variances.size(), 1)};
    m.diagonals = {variances};
    return m;
}

oracle::Matrix matrixOf(const Server& server, std::size_t k = 0) {
    oracle::Matrix result;
    for (int i = 0; i < server->nDim; ++i)
        result.push_back(wide(ktl::gauss::matrices<float>(server.get())[k][i], server->nDim));
    return result;
}

double largest(const oracle::Matrix& m) {
    double value = 0;
    for (const auto& row : m)
        for (const double v : row)
            value = std::max(value, std::fabs(v));
    return value;
}

// Elimination in float on a well-conditioned matrix: about n roundings of 2^-24 for each element,
// amplified by the condition number, of which n * max|A| * n * max|A^-1| is a bound.
double tolerance(const oracle::Matrix& a, const oracle::Matrix& inverse) {
    const double n = double(a.size());
    return 4 * n * n * n * largest(a) * largest(inverse) * largest(inverse) * 0x1p-24;
}

void expectInverse(const Rows<float>& covariance) {
    auto mixture = oneFull(covariance);
    const Server inverted = invert(mixture.server());
    ASSERT_NE(inverted, nullptr);
    const auto a = wide(covariance), expected = oracle::inverse(a), got = matrixOf(inverted);
    for (std::size_t i = 0; i < a.size(); ++i)
        for (std::size_t j = 0; j < a.size(); ++j)
            ASSERT_NEAR(got[i][j], expected[i][j], tolerance(a, expected))
                << a.size() << ": " << i << " " << j;
}

} // namespace

TEST(Invert, DiagonalOfTwoAndFour) {
    float a[] = {1, 1}, b[] = {3, 5}, c[] = {2, 3};
    float* rows[] = {a, b, c}; // variances 1 and 4
    const Server built(KTsBuildGaussMixServer(rows, 3, 2, 0));
    ktl::gauss::diagonals<float>(built.get())[0][0] = 2;
    ASSERT_EQ(ktl::gauss::diagonals<float>(built.get())[0][1], 4);
    const Server inverted = invert(built, KT_GAUSS_NORMALIZE | KT_GAUSS_RAW);
    EXPECT_EQ(ktl::gauss::diagonals<float>(inverted.get())[0][0], 0.5f);
    EXPECT_EQ(ktl::gauss::diagonals<float>(inverted.get())[0][1], 0.25f);
    EXPECT_EQ(inverted->pNormWeights[0], float(1 / std::sqrt(8.0)));
    EXPECT_EQ(ktl::gauss::weights<float>(inverted.get())[0], 1.0f);
    EXPECT_EQ(inverted->flags, GAUSS_SERVER_FVR_S | KT_GAUSS_DIAGONAL | KT_GAUSS_NORMALIZE);
    EXPECT_EQ(inverted->nObservations, 3);
}

TEST(Invert, NotRawSourcesMultiplyTheWeight) {
    auto mixture = oneDiagonal({2, 4});
    const Server inverted = invert(mixture.server(), KT_GAUSS_NORMALIZE);
    EXPECT_EQ(inverted->pNormWeights[0], float(0.5 * std::sqrt(8.0)));
}

TEST(Invert, WithoutNormalizeTheWeightsAreThePlainOnes) {
    std::mt19937 random(41);
    for (const bool full : {false, true}) {
        auto mixture = randomMixture(random, 5, 3, full);
        const Server inverted = invert(mixture.server(KT_GAUSS_NORMALIZE));
        for (int k = 0; k < 3; ++k)
            EXPECT_EQ(inverted->pNormWeights[k], mixture.weights[std::size_t(k)]);
        EXPECT_EQ(inverted->flags, GAUSS_SERVER_FVR_S | (full ? KT_GAUSS_FULL : KT_GAUSS_DIAGONAL));
        for (int k = 0; k < 3; ++k)
            for (int i = 0; i < 5; ++i)
                EXPECT_EQ(ktl::gauss::means<float>(inverted.get())[k][i],
                          mixture.means[std::size_t(k)][std::size_t(i)]);
    }
}

TEST(Invert, TinyVarianceIsSingularAndLeavesTheSource) {
    support::CapturedReports reports;
    auto mixture = oneDiagonal({1, 1e-31f});
    const Server source = mixture.server();
    EXPECT_EQ(invert(source), nullptr);
    EXPECT_EQ(ktl::gauss::diagonals<float>(source.get())[0][1], 1e-31f);
    EXPECT_EQ(reports.count(), 0u);
    EXPECT_EQ(KTGetStatus(), 0);
}

TEST(Invert, TheLimitsThemselvesPass) {
    auto smallest = oneDiagonal({1e-30f}), below = oneDiagonal({std::nextafter(1e-30f, 0.0f)});
    const Server inverted = invert(smallest.server());
    ASSERT_NE(inverted, nullptr);
    EXPECT_EQ(ktl::gauss::diagonals<float>(inverted.get())[0][0], 1 / 1e-30f);
    EXPECT_EQ(invert(below.server()), nullptr);
    auto negative = oneDiagonal({-2});
    EXPECT_EQ(ktl::gauss::diagonals<float>(invert(negative.server()).get())[0][0], -0.5f);
}

TEST(Invert, TinyDeterminantIsSingular) {
    auto tiny = oneDiagonal({1e-26f, 1e-26f, 1e-26f}),
         enough = oneDiagonal({1e-25f, 1e-25f, 1e-25f});
    EXPECT_EQ(invert(tiny.server()), nullptr);   // 1e-78
    EXPECT_NE(invert(enough.server()), nullptr); // 1e-75
    auto tinyFull = oneFull({{1e-26f, 0, 0}, {0, 1e-26f, 0}, {0, 0, 1e-26f}});
    EXPECT_EQ(invert(tinyFull.server()), nullptr);
}

TEST(Invert, FullDeterminantsNeitherOverflowNorUnderflowOnTheWay) {
    for (const bool largeFirst : {false, true}) {
        Rows<float> covariance(30, std::vector<float>(30, 0));
        for (std::size_t i = 0; i < 30; ++i)
            covariance[i][i] = (i < 15) == largeFirst ? 1e29f : 1e-29f;
        auto mixture = oneFull(covariance);
        const Server inverted = invert(mixture.server(), KT_GAUSS_NORMALIZE);
        ASSERT_NE(inverted, nullptr);
        EXPECT_NEAR(inverted->pNormWeights[0], 0.5f, 1e-5f); // a determinant of 1, by way of 10^435
    }
}

TEST(Invert, FullOfOrderOneHasItsOwnRule) {
    auto mixture = oneFull({{4}});
    EXPECT_EQ(matrixOf(invert(mixture.server()))[0][0], 0.25);
    auto tooSmall = oneFull({{1e-31f}});
    EXPECT_EQ(invert(tooSmall.server()), nullptr);
    auto smallest = oneFull({{1e-30f}});
    EXPECT_NE(invert(smallest.server()), nullptr);
}

TEST(Invert, OrderTwoComesBackInItsOwnOrderWhenPivotsSwap) {
    support::onEveryLevel([] {
        expectInverse({{2, 1}, {1, 3}});
        expectInverse({{1, 2}, {2, 5}});
        expectInverse({{1, 1}, {1, 5}}); // a tie: the later column wins
        expectInverse({{0, 1}, {1, 0}});
    });
}

TEST(Invert, EveryOrderComesBackInItsOwnOrder) {
    support::onEveryLevel([] {
        std::mt19937 random(42);
        for (int n = 2; n <= 40; ++n)
            expectInverse(covarianceLike(random, n));
        // Permuted diagonals and scaled rows swap at nearly every step.
        for (int n = 2; n <= 12; ++n)
            for (int round = 0; round < 20; ++round) {
                auto c = covarianceLike(random, n);
                std::vector<float> factor(c.size());
                for (float& f : factor)
                    f = std::ldexp(1.0f, int(random() % 5) - 2);
                for (std::size_t i = 0; i < c.size(); ++i)
                    for (std::size_t j = 0; j < c.size(); ++j)
                        c[i][j] *= factor[i] * factor[j];
                expectInverse(c);
            }
    });
}

TEST(Invert, GivesTheSameBitsOnEveryLevel) {
    std::mt19937 random(43);
    for (const int n : {2, 5, 13, 39}) {
        auto mixture = oneFull(covarianceLike(random, n));
        const Server source = mixture.server();
        vsq::selectLevel(vsq::Level::baseline);
        const auto expected = matrixOf(invert(source));
        support::onEveryLevel([&] { EXPECT_EQ(matrixOf(invert(source)), expected); });
    }
}

TEST(Invert, SingularFullMatricesGiveNull) {
    support::CapturedReports reports;
    auto mixture = oneFull({{1, 2, 3}, {2, 4, 6}, {3, 6, 9}});
    EXPECT_EQ(invert(mixture.server()), nullptr);
    auto zero = oneFull({{0, 0}, {0, 0}});
    EXPECT_EQ(invert(zero.server()), nullptr);
    EXPECT_EQ(reports.count(), 0u);
}

TEST(Invert, TwiceRestoresTheCovariances) {
    std::mt19937 random(44);
    for (const bool full : {false, true}) {
        auto mixture = randomMixture(random, 9, 3, full);
        const Server source = mixture.server();
        const Server back = invert(invert(source));
        ASSERT_NE(back, nullptr);
        for (std::size_t k = 0; k < 3; ++k) {
            if (!full) {
                for (int i = 0; i < 9; ++i)
                    EXPECT_NEAR(ktl::gauss::diagonals<float>(back.get())[k][i],
                                mixture.diagonals[k][std::size_t(i)],
                                mixture.diagonals[k][std::size_t(i)] * 0x1p-22);
                continue;
            }
            const auto a = wide(mixture.matrices[k]), inverse = oracle::inverse(a),
                       got = matrixOf(back, k);
            const double limit =
                2 * tolerance(inverse, a) + tolerance(a, inverse) * largest(a) * largest(a) * 81;
            for (std::size_t i = 0; i < 9; ++i)
                for (std::size_t j = 0; j < 9; ++j)
                    EXPECT_NEAR(got[i][j], a[i][j], limit);
        }
    }
}

TEST(Invert, NormalizeUsesTheFullDeterminant) {
    std::mt19937 random(45);
    auto mixture = randomMixture(random, 6, 2, true);
    const Server source = mixture.server();
    const Server plain = invert(source, KT_GAUSS_NORMALIZE);
    source->flags |= KT_GAUSS_RAW;
    const Server raw = invert(source, KT_GAUSS_NORMALIZE);
    for (std::size_t k = 0; k < 2; ++k) {
        double det = 0;
        oracle::inverse(wide(mixture.matrices[k]), &det);
        const double weight = double(mixture.weights[k]), root = std::sqrt(det);
        EXPECT_NEAR(double(plain->pNormWeights[k]), weight * root, weight * root * 1e-4);
        EXPECT_NEAR(double(raw->pNormWeights[k]), weight / root, weight / root * 1e-4);
    }
    EXPECT_EQ(raw->flags & KT_GAUSS_RAW, 0);
}

// The determinant of 40 variances of 2^27 is beyond a double; 0 times its root is 0 all the same.
TEST(Invert, AWeightOfZeroStaysZeroWhateverTheDeterminant) {
    for (const bool full : {false, true}) {
        auto mixture = oneDiagonal(std::vector<float>(40, 0x1p27f));
        Rows<float> matrix(40, std::vector<float>(40, 0.0f));
        for (std::size_t i = 0; i < 40; ++i)
            matrix[i][i] = 0x1p27f;
        if (full) mixture = oneFull(matrix);
        mixture.weights = {0};
        const Server source = mixture.server();
        const Server plain = invert(source, KT_GAUSS_NORMALIZE);
        source->flags |= KT_GAUSS_RAW;
        const Server raw = invert(source, KT_GAUSS_NORMALIZE);
        EXPECT_EQ(plain->pNormWeights[0], 0.0f);
        EXPECT_EQ(raw->pNormWeights[0], 0.0f);
    }
}

TEST(Invert, PaddingStaysZero) {
    std::mt19937 random(46);
    auto mixture = randomMixture(random, 5, 2, true);
    const Server inverted = invert(mixture.server());
    for (int i = 0; i < 5; ++i)
        for (int j = 5; j < 8; ++j)
            EXPECT_EQ(ktl::gauss::matrices<float>(inverted.get())[1][i][j], 0.0f);
}

TEST(Invert, WorkTableExhaustionFreesTheSource) {
    std::mt19937 random(47);
    auto mixture = randomMixture(random, 7, 2, true);
    KTFreeGaussTbls();
    GaussMixServer* source = mixture.server().release();
    support::CapturedReports reports;
    const long before = support::alloc::liveBlocks();
    support::alloc::arm(1);
    const auto* inverted = KTsInvertGaussianCovMatrix(source, 0);
    support::alloc::disarm();
    EXPECT_EQ(inverted, nullptr);
    ASSERT_EQ(reports.count(), 1u);
    EXPECT_EQ(reports[0].status, -4);
    EXPECT_EQ(reports[0].message, "insufficiency of memory for pointer  ptr2");
    EXPECT_EQ(reports[0].function, "KTsInvertGaussianCovMatrix");
    EXPECT_EQ(reports[0].source, "..\\_LIBSRC\\KT_GAUSS");
    EXPECT_LT(support::alloc::liveBlocks(), before); // the source went
    EXPECT_EQ(KTGetContext()->gaussBufferLen, 0);
}

TEST(Invert, BlockExhaustionLeavesTheSource) {
    std::mt19937 random(48);
    for (const bool full : {false, true}) {
        auto mixture = randomMixture(random, 7, 2, full);
        const Server source = mixture.server();
        invert(source); // the work table stands now
        support::CapturedReports reports;
        support::alloc::arm(1);
        const auto* inverted = KTsInvertGaussianCovMatrix(source.get(), 0);
        support::alloc::disarm();
        EXPECT_EQ(inverted, nullptr);
        ASSERT_EQ(reports.count(), 1u);
        EXPECT_EQ(reports[0].status, -4);
        EXPECT_EQ(reports[0].message, "insufficiency of memory for pointer  ptr");
        EXPECT_EQ(reports[0].function, "KTsInitGaussMixServer");
        EXPECT_NE(invert(source), nullptr);
    }
    KTFreeGaussTbls();
}

TEST(Invert, NullAndFixedServersGiveNull) {
    std::mt19937 random(49);
    auto words = randomFixedMixture(random, 4, 2, false);
    const Server fixed = words.server();
    EXPECT_EQ(KTsInvertGaussianCovMatrix(nullptr, 0), nullptr);
    EXPECT_EQ(KTsInvertGaussianCovMatrix(fixed.get(), 0), nullptr);
}
