#include "levels/levels.h"
#include "mixtures/mixtures.h"
#include "support/every_level.h"
#include "support/reports.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>

using namespace mixtures;

namespace {

// The likelihood by the plain sum, and the error that one rounding of the exponent to float, an
// exponential and products within two units in the last place, and double sums allow.
struct Expected {
    double value = 0, error = 0;
};
Expected likelihood(const Mixture<float>& m, const float* normWeights,
                    const std::vector<float>& x) {
    Expected result;
    for (std::size_t k = 0; k < m.weights.size(); ++k) {
        if (m.weights[k] == 0 && !std::signbit(m.weights[k])) continue;
        const double q =
            m.full() ? oracle::fullForm(wide(x), wide(m.means[k]), wide(m.matrices[k]))
                     : oracle::diagonalForm(wide(x), wide(m.means[k]), wide(m.diagonals[k]));
        const double exponent = -std::fabs(q) / 2;
        const double term = std::exp(exponent) * double(normWeights[k]);
        result.value += term;
        result.error += std::fabs(term) * (std::fabs(exponent) * 0x1p-23 + 0x1p-21) + 1e-44;
    }
    return result;
}

} // namespace

TEST(SEval, AgreesWithThePlainSumOnEveryLevel) {
    support::onEveryLevel([] {
        std::mt19937 random(21);
        for (const bool full : {false, true})
            for (const int nDim : {1, 2, 3, 4, 5, 7, 8, 9, 12, 13, 15, 16, 17, 31, 33, 39, 48})
                for (const int nMix : {1, 2, 3, 4, 5, 7, 8, 9, 17}) {
                    auto mixture = randomMixture(random, nDim, nMix, full);
                    const Server server = mixture.server();
                    const auto x = randomVector(random, nDim, 1);
                    const auto expected = likelihood(mixture, server->pNormWeights, x);
                    ASSERT_NEAR(KTsEvalGaussMix(server.get(), x.data(), nDim), expected.value,
                                expected.error)
                        << nDim << " " << nMix << " " << full;
                }
    });
}

TEST(SEval, GivesTheSameBitsOnEveryLevel) {
    std::mt19937 random(22);
    for (const bool full : {false, true})
        for (const int nDim : {1, 5, 13, 39, 64})
            for (const int nMix : {1, 3, 8, 33}) {
                auto mixture = randomMixture(random, nDim, nMix, full);
                const Server server = mixture.server(KT_GAUSS_NORMALIZE);
                const auto x = randomVector(random, nDim);
                vsq::selectLevel(vsq::Level::baseline);
                const double expected = KTsEvalGaussMix(server.get(), x.data(), nDim);
                support::onEveryLevel(
                    [&] { ASSERT_EQ(KTsEvalGaussMix(server.get(), x.data(), nDim), expected); });
            }
}

TEST(SEval, UsesTheFormsOfTheDistances) {
    std::mt19937 random(23);
    for (const bool full : {false, true})
        for (const int nDim : {3, 13, 39}) {
            auto mixture = randomMixture(random, nDim, 6, full);
            const Server server = mixture.server();
            const auto x = randomVector(random, nDim, 1);
            std::vector<float> exponents;
            for (std::size_t k = 0; k < 6; ++k) {
                std::vector<const float*> rows;
                if (full)
                    for (const auto& row : mixture.matrices[k])
                        rows.push_back(row.data());
                const double q =
                    full ? vsq::kernels().mahal->fullFloat(x.data(), mixture.means[k].data(),
                                                           rows.data(), nDim)
                         : vsq::kernels().mahal->diagonalFloat(x.data(), mixture.means[k].data(),
                                                               mixture.diagonals[k].data(), nDim);
                exponents.push_back(float(-std::fabs(q) * 0.5));
            }
            vsq::kernels().lnexp->exp(exponents.data(), 6);
            EXPECT_EQ(KTsEvalGaussMix(server.get(), x.data(), nDim),
                      vsq::kernels().dotp->dot(exponents.data(), server->pNormWeights, 6));
        }
}

TEST(SEval, VectorAtTheMeanOfASingleMixtureOfWeightOneGivesOne) {
    for (const bool full : {false, true}) {
        std::mt19937 random(24);
        auto mixture = randomMixture(random, 13, 1, full);
        mixture.weights[0] = 1;
        const Server server = mixture.server();
        EXPECT_EQ(KTsEvalGaussMix(server.get(), mixture.means[0].data(), 13), 1.0);
    }
}

TEST(SEval, ZeroWeightsContributeNothing) {
    support::onEveryLevel([] {
        std::mt19937 random(25);
        for (const bool full : {false, true}) {
            auto mixture = randomMixture(random, 6, 5, full);
            mixture.weights[1] = mixture.weights[4] = 0;
            mixture.means[1][0] = NAN; // would spoil the sum, were it looked at
            const Server server = mixture.server();
            const auto x = randomVector(random, 6);
            auto others = mixture;
            for (const std::size_t k : {4u, 1u}) {
                others.weights.erase(others.weights.begin() + long(k));
                others.means.erase(others.means.begin() + long(k));
                if (full)
                    others.matrices.erase(others.matrices.begin() + long(k));
                else
                    others.diagonals.erase(others.diagonals.begin() + long(k));
            }
            others.nMix = 3;
            const Server without = others.server();
            const double expected = KTsEvalGaussMix(without.get(), x.data(), 6);
            EXPECT_NEAR(KTsEvalGaussMix(server.get(), x.data(), 6), expected, expected * 1e-15);
        }
    });
}

TEST(SEval, TheBitPatternDecidesWhatAZeroWeightIs) {
    Mixture<float> m;
    m.nDim = 1;
    m.nMix = 2;
    m.weights = {0.0f, -0.0f};
    m.means = {{INFINITY}, {INFINITY}};
    m.diagonals = {{1}, {1}};
    const Server server = m.server();
    const float x = 0;
    KTsEvalGaussMix(server.get(), &x, 1);
    EXPECT_EQ(static_cast<float*>(server->pWork)[0], 1.0f); // exp(0)
    EXPECT_EQ(static_cast<float*>(server->pWork)[1], 0.0f); // exp(-infinity): -0.0 was evaluated
}

TEST(SEval, NegativeFormsCountByTheirMagnitude) {
    Mixture<float> m;
    m.nDim = 1;
    m.nMix = 1;
    m.weights = {1};
    m.means = {{0}};
    m.diagonals = {{-2}};
    const Server server = m.server();
    const float x = 1;
    EXPECT_NEAR(KTsEvalGaussMix(server.get(), &x, 1), std::exp(-1.0), 1e-7);
}

TEST(SEval, NormalisedWeightsCarryTheDeterminant) {
    std::mt19937 random(26);
    auto mixture = randomMixture(random, 5, 3, false);
    const Server server = mixture.server(KT_GAUSS_NORMALIZE);
    const auto x = randomVector(random, 5);
    const auto expected = likelihood(mixture, server->pNormWeights, x);
    EXPECT_NEAR(KTsEvalGaussMix(server.get(), x.data(), 5), expected.value, expected.error);
}

TEST(SEval, FewerDimensionsThanTheServersAreTheFirstOnes) {
    support::onEveryLevel([] {
        std::mt19937 random(27);
        for (const bool full : {false, true}) {
            auto mixture = randomMixture(random, 14, 3, full);
            const Server server = mixture.server();
            const auto x = randomVector(random, 14, 1);
            for (int n = 1; n < 14; ++n) {
                auto part = mixture;
                for (auto* rows : {&part.means, &part.diagonals})
                    for (auto& row : *rows)
                        row.resize(std::size_t(n));
                for (auto& matrix : part.matrices) {
                    matrix.resize(std::size_t(n));
                    for (auto& row : matrix)
                        row.resize(std::size_t(n));
                }
                const auto expected = likelihood(part, server->pNormWeights,
                                                 std::vector<float>(x.begin(), x.begin() + n));
                EXPECT_NEAR(KTsEvalGaussMix(server.get(), x.data(), n), expected.value,
                            expected.error)
                    << n;
            }
            EXPECT_EQ(KTsEvalGaussMix(server.get(), x.data(), 1000),
                      KTsEvalGaussMix(server.get(), x.data(), 14));
        }
    });
}

TEST(SEval, RawServersAreNotRefused) {
    float a[] = {0, 1}, b[] = {2, 5}, c[] = {3, 0};
    float* rows[] = {a, b, c};
    const Server raw(KTsBuildGaussMixServer(rows, 3, 2, 0));
    EXPECT_GT(KTsEvalGaussMix(raw.get(), a, 2), 0.0);
}

TEST(Eval, ServersOfTheOtherFlavourAndNullGiveZero) {
    std::mt19937 random(28);
    auto floats = randomMixture(random, 4, 2, false);
    auto words = randomFixedMixture(random, 4, 2, false);
    const Server s = floats.server(), w = words.server();
    const float x[4] = {};
    const short y[4] = {};
    int scale = 3;
    EXPECT_EQ(KTsEvalGaussMix(w.get(), x, 4), 0.0);
    EXPECT_EQ(KTsEvalGaussMix(nullptr, x, 4), 0.0);
    EXPECT_EQ(KTwEvalGaussMix(s.get(), y, 4, 0, &scale), 0);
    EXPECT_EQ(KTwEvalGaussMix(nullptr, y, 4, 0, &scale), 0);
    EXPECT_EQ(scale, 3);
}

TEST(WEval, FollowsItsRulesToTheBitOnEveryLevel) {
    support::onEveryLevel([] {
        std::mt19937 random(29);
        for (const bool full : {false, true})
            for (const int nDim : {1, 3, 4, 7, 8, 13, 16, 17, 39})
                for (const int nMix : {2, 3, 8, 9})
                    for (const int scale : {-20, -12, 0, 1, 2, 5}) {
                        auto mixture = randomFixedMixture(random, nDim, nMix, full);
                        if (nMix > 2) mixture.weights[1] = 0;
                        const Server server = mixture.server(0, scale);
                        const auto x = randomWords(random, nDim);
                        const int frac = 1 - scale < 1 ? 0 : 1 - scale,
                                  shift = 1 - scale < 1 ? scale - 1 : 0;
                        std::vector<std::int32_t> values;
                        for (std::size_t k = 0; k < std::size_t(nMix); ++k) {
                            // Full forms of these sizes are exact in double and fit 32 bits.
                            const std::int32_t q =
                                full
                                    ? std::int32_t(oracle::fullForm(wide(x), wide(mixture.means[k]),
                                                                    wide(mixture.matrices[k])))
                                    : oracle::wrappingForm(x, mixture.means[k],
                                                           mixture.diagonals[k]);
                            const auto shifted = std::uint32_t(q < 0 ? -std::int64_t(q) : q)
                                                 << shift;
                            values.push_back(
                                mixture.weights[k] == 0
                                    ? 0
                                    : oracle::expFix(std::int32_t(0u - shifted), frac, 30));
                        }
                        for (const int mode : {0, 1, 2, 3}) {
                            int pScale = -10, expectedScale = -10;
                            const int expected =
                                oracle::dotMix(values, mixture.weights, mode, expectedScale);
                            ASSERT_EQ(KTwEvalGaussMix(server.get(), x.data(), nDim, mode, &pScale),
                                      expected)
                                << nDim << " " << nMix << " " << scale << " " << mode << " "
                                << full;
                            ASSERT_EQ(pScale, expectedScale);
                        }
                    }
    });
}

TEST(WEval, DiagonalFormsWrap) {
    support::onEveryLevel([] {
        std::mt19937 random(30);
        for (const int nDim : {1, 5, 16, 39}) {
            Mixture<short> m;
            m.nDim = nDim;
            m.nMix = 2;
            m.weights = {1, 1};
            m.means = {randomWords(random, nDim, 32767),
                       std::vector<short>(std::size_t(nDim), -32768)};
            m.diagonals = {randomWords(random, nDim, 32767),
                           std::vector<short>(std::size_t(nDim), -32768)};
            const std::vector<short> x(std::size_t(nDim), 32767);
            const Server server = m.server(0, -30);
            for (int k = 0; k < 2; ++k)
                ASSERT_EQ(
                    ktl::gauss::fixedForm(server.get(), k, x.data(), nDim),
                    oracle::wrappingForm(x, m.means[std::size_t(k)], m.diagonals[std::size_t(k)]));
            int scale = 0;
            KTwEvalGaussMix(server.get(), x.data(), nDim, 0, &scale);
        }
    });
}

TEST(WEval, ZeroWeightsContributeNothing) {
    std::mt19937 random(31);
    auto mixture = randomFixedMixture(random, 6, 3, false);
    mixture.weights[0] = 0;
    mixture.means[0].assign(6, 0);
    const Server server = mixture.server(0, -10);
    const std::vector<short> atMean(6, 0);
    KTwEvalGaussMix(server.get(), atMean.data(), 6, 0, nullptr);
    EXPECT_EQ(static_cast<int*>(server->pWork)[0], 0);
}

TEST(WEval, FewerDimensionsThanTheServersAreTheFirstOnes) {
    support::onEveryLevel([] {
        std::mt19937 random(32);
        auto mixture = randomFixedMixture(random, 14, 2, false);
        const Server server = mixture.server(0, -10);
        const auto x = randomWords(random, 14);
        for (int n = 1; n <= 20; ++n) {
            const int used = n < 14 ? n : 14;
            const auto cut = [&](const std::vector<short>& row) {
                return std::vector<short>(row.begin(), row.begin() + used);
            };
            std::vector<std::int32_t> values;
            for (std::size_t k = 0; k < 2; ++k)
                values.push_back(oracle::expFix(
                    -oracle::wrappingForm(cut(x), cut(mixture.means[k]), cut(mixture.diagonals[k])),
                    11, 30));
            int scale = 0;
            EXPECT_EQ(KTwEvalGaussMix(server.get(), x.data(), n, 2, nullptr),
                      oracle::dotMix(values, mixture.weights, 2, scale));
        }
    });
}

TEST(WEval, OneMixtureComputesNothing) {
    std::mt19937 random(33);
    auto mixture = randomFixedMixture(random, 3, 1, false);
    const Server server = mixture.server(0, -10);
    int scale = 17;
    EXPECT_EQ(KTwEvalGaussMix(server.get(), mixture.means[0].data(), 3, 2, &scale), 0);
    EXPECT_EQ(scale, 17);
}

TEST(WEval, LikelihoodAtTheMeansIsTheSumOfTheWeights) {
    Mixture<short> m;
    m.nDim = 2;
    m.nMix = 2;
    m.weights = {16384, 8192};
    m.means = {{5, 6}, {5, 6}};
    m.diagonals = {{100, 100}, {7, 7}};
    const Server server = m.server(0, -4);
    const short x[] = {5, 6};
    int scale = 9;
    EXPECT_EQ(KTwEvalGaussMix(server.get(), x, 2, 0, &scale), 16384 + 8192);
    EXPECT_EQ(scale, 0);
}
