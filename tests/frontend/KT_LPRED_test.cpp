// Linear prediction against the normal equations solved in long double, and against the two
// methods' definitions.
#include "frame/context.h"
#include "frontend/KT_LPRED.h"
#include "support/alloc_faults.h"
#include "support/every_level.h"
#include "support/guarded.h"
#include "support/reports.h"
#include "vsq.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <random>
#include <vector>

namespace {

constexpr int autocorrelation = 1, covariance = 2;

// A stable autoregressive signal, not too ill-conditioned, in 16-bit range.
std::vector<float> signal(int n, int seed) {
    std::mt19937 random(static_cast<unsigned>(seed));
    std::normal_distribution<float> noise(0.0f, 300.0f);
    std::vector<float> x(std::size_t(n), 0.0f);
    for (int i = 0; i < n; ++i) {
        const float x1 = i > 0 ? x[std::size_t(i) - 1] : 0.0f,
                    x2 = i > 1 ? x[std::size_t(i) - 2] : 0.0f;
        x[std::size_t(i)] = std::trunc(0.9f * x1 - 0.5f * x2 + noise(random));
    }
    return x;
}

std::vector<short> toShorts(const std::vector<float>& x) {
    return std::vector<short>(x.begin(), x.end());
}

using Matrix = std::vector<std::vector<long double>>;

Matrix squareMatrix(int n) {
    const auto size = static_cast<std::size_t>(n);
    return Matrix(size, std::vector<long double>(size));
}

// Gaussian elimination with pivoting.
std::vector<long double> solve(Matrix a, std::vector<long double> b) {
    const std::size_t n = b.size();
    for (std::size_t col = 0; col < n; ++col) {
        std::size_t pivot = col;
        for (std::size_t row = col; row < n; ++row)
            if (std::fabs(a[row][col]) > std::fabs(a[pivot][col])) pivot = row;
        std::swap(a[col], a[pivot]);
        std::swap(b[col], b[pivot]);
        for (std::size_t row = col + 1; row < n; ++row) {
            const long double factor = a[row][col] / a[col][col];
            for (std::size_t k = col; k < n; ++k)
                a[row][k] -= factor * a[col][k];
            b[row] -= factor * b[col];
        }
    }
    for (std::size_t i = n; i-- > 0;) {
        for (std::size_t k = i + 1; k < n; ++k)
            b[i] -= a[i][k] * b[k];
        b[i] /= a[i][i];
    }
    return b;
}

long double lag(const std::vector<float>& x, int k) {
    long double sum = 0;
    for (std::size_t i = 0; i + std::size_t(k) < x.size(); ++i)
        sum += static_cast<long double>(x[i]) * x[i + std::size_t(k)];
    return sum;
}

std::vector<long double> referenceAutocorr(const std::vector<float>& x, int order) {
    Matrix r = squareMatrix(order);
    std::vector<long double> b;
    for (int i = 0; i < order; ++i) {
        for (int j = 0; j < order; ++j)
            r[std::size_t(i)][std::size_t(j)] = lag(x, std::abs(i - j));
        b.push_back(lag(x, i + 1));
    }
    return solve(r, b);
}

// The lower triangle as the method defines it, mirrored: row r has nSamples - r terms in every
// column.
std::vector<long double> referenceCovariance(const std::vector<float>& x, int order) {
    const int n = int(x.size());
    Matrix c = squareMatrix(order);
    std::vector<long double> b;
    for (int row = 1; row <= order; ++row) {
        for (int col = 1; col <= row; ++col) {
            long double sum = 0;
            for (int m = 0; m < n - row; ++m)
                sum += static_cast<long double>(x[std::size_t(m + row - col)]) * x[std::size_t(m)];
            c[std::size_t(row) - 1][std::size_t(col) - 1] =
                c[std::size_t(col) - 1][std::size_t(row) - 1] = sum;
        }
        b.push_back(lag(x, row));
    }
    return solve(c, b);
}

// Roundings of the lags and of each stored value are 2^-24 relative; solving enlarges them by the
// condition number, below 40 for these signals (the spectrum's range), over `order` steps.
double tolerance(int order) {
    return 40.0 * (order + 2) * 0x1p-24;
}

class LinearPrediction : public testing::Test {
protected:
    void TearDown() override { KTFreeLPTbls(); }
};

TEST_F(LinearPrediction, AutocorrelationSolvesTheNormalEquations) {
    support::onEveryLevel([] {
        for (int order = 1; order <= 40; ++order) {
            const std::vector<float> x = signal(400, order);
            const auto wanted = referenceAutocorr(x, order);
            support::Guarded<float> coef(std::size_t(order), 9.0f);
            ASSERT_EQ(KTsLPredict(x.data(), 400, coef.data(), order, autocorrelation), 1);
            for (std::size_t i = 0; i < coef.size(); ++i)
                ASSERT_NEAR(coef[i], double(wanted[i]), tolerance(order))
                    << "order " << order << " index " << i;
            ASSERT_TRUE(coef.intact());
        }
    });
}

TEST_F(LinearPrediction, CovarianceSolvesItsEquations) {
    support::onEveryLevel([] {
        for (int order = 1; order <= 40; ++order) {
            const std::vector<float> x = signal(400, 50 + order);
            const auto wanted = referenceCovariance(x, order);
            support::Guarded<float> coef(std::size_t(order), 9.0f);
            ASSERT_EQ(KTsLPredict(x.data(), 400, coef.data(), order, covariance), 1);
            for (std::size_t i = 0; i < coef.size(); ++i)
                ASSERT_NEAR(coef[i], double(wanted[i]), tolerance(order))
                    << "order " << order << " index " << i;
            ASSERT_TRUE(coef.intact());
        }
    });
}

// The recursion as it is defined, with predictor and errors stored as floats after every order;
// empty where it loses stability.
std::vector<float> durbinStored(const std::vector<float>& r, int order) {
    std::vector<float> a(std::size_t(order) + 1), e(std::size_t(order) + 1);
    const auto stored = [](double value) {
        // a compiler may not see through it
        const volatile float rounded = static_cast<float>(value);
        return static_cast<float>(rounded);
    };
    e[0] = r[0];
    for (std::size_t i = 1; i <= std::size_t(order); ++i) {
        double sum = 0;
        for (std::size_t j = 1; j < i; ++j)
            sum += double(a[j]) * double(r[i - j]);
        const double k = (double(r[i]) - sum) / double(e[i - 1]);
        if (std::fabs(k) > 1.0) return {};
        const std::vector<float> before = a;
        for (std::size_t j = 1; j < i; ++j)
            a[j] = stored(double(before[j]) - double(before[i - j]) * k);
        a[i] = stored(k);
        e[i] = stored((1.0 - k * k) * double(e[i - 1]));
    }
    return {a.begin() + 1, a.end()};
}

// A lost rounding shows in the last bit of most coefficients; sums in another order hardly ever do.
TEST_F(LinearPrediction, EveryStoredRoundingIsKept) {
    support::onEveryLevel([] {
        for (int order = 1; order <= 24; ++order)
            for (int seed = 0; seed < 10; ++seed) {
                const std::vector<float> x = signal(300, 1000 * order + seed);
                std::vector<float> r(std::size_t(order) + 1), coef(static_cast<std::size_t>(order));
                vsqsAutoCorr(x.data(), 300, r.data(), order + 1, 0);
                ASSERT_EQ(KTsLPredict(x.data(), 300, coef.data(), order, autocorrelation), 1);
                ASSERT_EQ(coef, durbinStored(r, order)) << "order " << order << " seed " << seed;
            }
    });
}

// Half a sine over a long block, in which the first lags are one float: a quotient of exactly 1, an
// error of exactly 0, and then 0 / 0 or a quotient beyond 1. A product with the error's reciprocal
// gives numbers.
std::vector<float> halfSine(int n, double amplitude) {
    std::vector<float> x(static_cast<std::size_t>(n));
    for (std::size_t i = 0; i < x.size(); ++i)
        x[i] = float(amplitude * std::sin(3.14159265358979323846 * (double(i) + 0.5) / n));
    return x;
}

void expectSameNumbers(const std::vector<float>& got, const std::vector<float>& wanted) {
    ASSERT_EQ(got.size(), wanted.size());
    for (std::size_t i = 0; i < got.size(); ++i)
        ASSERT_TRUE(got[i] == wanted[i] || (std::isnan(got[i]) && std::isnan(wanted[i])))
            << i << ": " << got[i] << ' ' << wanted[i];
}

TEST_F(LinearPrediction, EqualLagsOfHalfASineAreDivided) {
    int tested = 0;
    for (int n = 14000; n < 40000; n += 1300)
        for (double amplitude = 1; amplitude < 32000; amplitude *= 2.3) {
            const std::vector<float> x = halfSine(n, amplitude);
            std::vector<float> r(19);
            vsqsAutoCorr(x.data(), n, r.data(), 19, 0);
            if (r[0] != r[1]) continue;
            ++tested;
            support::onEveryLevel([&] {
                for (int order : {1, 2, 3, 12, 16, 18}) {
                    std::vector<float> coef(std::size_t(order), 7.0f);
                    const std::vector<float> wanted = durbinStored(r, order);
                    const int result =
                        KTsLPredict(x.data(), n, coef.data(), order, autocorrelation);
                    ASSERT_EQ(result, wanted.empty() ? 0 : 1)
                        << n << ' ' << amplitude << ' ' << order;
                    if (!wanted.empty()) expectSameNumbers(coef, wanted);
                }
            });
        }
    EXPECT_GT(tested, 50);
}

// The fixed form runs the same recursion between its conversions.
TEST_F(LinearPrediction, FixedPointDividesEqualLagsToo) {
    for (int n = 14000; n < 40000; n += 2600)
        for (double amplitude = 1000; amplitude < 32000; amplitude *= 1.3) {
            std::vector<float> x = halfSine(n, amplitude);
            for (float& v : x)
                v = std::trunc(v);
            std::vector<float> r(4);
            vsqsAutoCorr(x.data(), n, r.data(), 4, 0);
            if (r[0] != r[1]) continue;
            const std::vector<float> wanted = durbinStored(r, 3);
            std::vector<short> coef(3, 7), converted(3);
            const int result =
                KTwLPredict(toShorts(x).data(), n, coef.data(), 3, 1, KT_NoScale, nullptr);
            ASSERT_EQ(result, wanted.empty() ? 0 : 1) << n << ' ' << amplitude;
            if (wanted.empty()) continue;
            KTswbConvertDown(wanted.data(), converted.data(), 3, KT_NoScale, nullptr);
            ASSERT_EQ(coef, converted);
        }
}

TEST_F(LinearPrediction, LevelsAgreeToTheBit) {
    const std::vector<float> x = signal(333, 7);
    for (int flags : {autocorrelation, covariance}) {
        std::vector<std::vector<float>> results;
        support::onEveryLevel([&] {
            std::vector<float> coef(14);
            KTsLPredict(x.data(), 333, coef.data(), 14, flags);
            results.push_back(coef);
        });
        for (const auto& result : results)
            EXPECT_EQ(result, results[0]);
    }
}

TEST_F(LinearPrediction, OrdersBeyondAHundredAreMerelyLarger) {
    const std::vector<float> x = signal(1200, 3);
    for (int order : {100, 101, 160}) {
        const auto wanted = referenceCovariance(x, order);
        support::Guarded<float> coef(std::size_t(order), 9.0f);
        ASSERT_EQ(KTsLPredict(x.data(), 1200, coef.data(), order, covariance), 1);
        for (std::size_t i = 0; i < coef.size(); ++i)
            ASSERT_NEAR(coef[i], double(wanted[i]), tolerance(order));
        ASSERT_TRUE(coef.intact());
    }
}

TEST_F(LinearPrediction, OrderOneIsTheRatioOfTwoLags) {
    const float x[4] = {1, 2, 3, 4};
    float coef = 0;
    EXPECT_EQ(KTsLPredict(x, 4, &coef, 1, autocorrelation), 1);
    EXPECT_EQ(coef, 20.0f / 30.0f);
    EXPECT_EQ(KTsLPredict(x, 4, &coef, 1, covariance), 1);
    EXPECT_EQ(coef, 20.0f / 14.0f); // C[1][1] has one term less
}

TEST_F(LinearPrediction, AnOrderOfZeroWritesNothing) {
    const float x[4] = {1, 2, 3, 4};
    for (int flags : {autocorrelation, covariance})
        EXPECT_EQ(KTsLPredict(x, 4, nullptr, 0, flags), 1);
}

TEST_F(LinearPrediction, ASilentBlockSucceedsWithoutNumbers) {
    const std::vector<float> x(100, 0.0f);
    std::vector<float> coef(8, 1.0f);
    EXPECT_EQ(KTsLPredict(x.data(), 100, coef.data(), 8, autocorrelation), 1);
    for (float a : coef)
        EXPECT_TRUE(std::isnan(a));
    EXPECT_EQ(KTsLPredict(x.data(), 100, coef.data(), 8, covariance), 1);
}

// The stored errors of a slow sine shrink to the size of their roundings, until a coefficient
// passes 1.
TEST_F(LinearPrediction, APureSineLosesStabilitySilently) {
    support::CapturedReports reports;
    int unstable = 0;
    for (int period = 100; period < 3000; period += 97) {
        std::vector<float> x(20000);
        for (std::size_t i = 0; i < x.size(); ++i)
            x[i] = float(1e4 * std::sin(2 * 3.14159265358979323846 * double(i) / period));
        std::vector<float> coef(30, 77.0f);
        const int result = KTsLPredict(x.data(), 20000, coef.data(), 30, autocorrelation);
        if (result == 0) {
            ++unstable;
            EXPECT_EQ(coef, std::vector<float>(30, 77.0f)); // not written
        }
    }
    EXPECT_GT(unstable, 0);
    EXPECT_EQ(reports.count(), 0u);
    EXPECT_EQ(KTGetStatus(), 0);
}

TEST_F(LinearPrediction, FlagsChooseTheMethod) {
    const std::vector<float> x = signal(100, 4);
    std::vector<float> first(5), both(5), second(5), none(5, 3.0f), beyond(5, 3.0f);
    EXPECT_EQ(KTsLPredict(x.data(), 100, first.data(), 5, 1), 1);
    EXPECT_EQ(KTsLPredict(x.data(), 100, both.data(), 5, 3), 1);
    EXPECT_EQ(KTsLPredict(x.data(), 100, second.data(), 5, 2), 1);
    EXPECT_EQ(KTsLPredict(x.data(), 100, none.data(), 5, 0), 0);
    EXPECT_EQ(KTsLPredict(x.data(), 100, beyond.data(), 5, 4), 0);
    EXPECT_EQ(first, both);
    EXPECT_NE(first, second);
    EXPECT_EQ(none, std::vector<float>(5, 3.0f));
    EXPECT_EQ(beyond, none);
}

TEST_F(LinearPrediction, WorkersAreTheTwoMethods) {
    const std::vector<float> x = signal(100, 4);
    std::vector<float> a(5), b(5);
    EXPECT_EQ(ownsLPAutocorr(x.data(), 100, a.data(), 5), 1);
    EXPECT_EQ(KTsLPredict(x.data(), 100, b.data(), 5, 1), 1);
    EXPECT_EQ(a, b);
    EXPECT_EQ(ownsLPCovariance(x.data(), 100, a.data(), 5), 1);
    EXPECT_EQ(KTsLPredict(x.data(), 100, b.data(), 5, 2), 1);
    EXPECT_EQ(a, b);
}

TEST_F(LinearPrediction, ASmallerOrderReusesTheTable) {
    const std::vector<float> x = signal(100, 4);
    std::vector<float> coef(12);
    auto& lp = KTGetContext()->LP;
    KTsLPredict(x.data(), 100, coef.data(), 12, 1);
    KTsLPredict(x.data(), 100, coef.data(), 12, 2);
    EXPECT_EQ(lp.nAutocorr, (12 + 4) & ~2);
    EXPECT_EQ(lp.nCovariance, 3 * ((66 + 3) & ~2) + 4 * ((12 + 3) & ~2));
    float** const autocorr = lp.arrAutocorr;
    float** const covar = lp.arrCovariance;
    support::alloc::arm(1); // an allocation now would fail
    EXPECT_EQ(KTsLPredict(x.data(), 100, coef.data(), 5, 1), 1);
    EXPECT_EQ(KTsLPredict(x.data(), 100, coef.data(), 5, 2), 1);
    EXPECT_EQ(KTsLPredict(x.data(), 100, coef.data(), 12, 1), 1);
    EXPECT_EQ(KTsLPredict(x.data(), 100, coef.data(), 12, 2), 1);
    support::alloc::disarm();
    EXPECT_EQ(lp.arrAutocorr, autocorr);
    EXPECT_EQ(lp.arrCovariance, covar);
    EXPECT_EQ(lp.nAutocorr, (12 + 4) & ~2);
}

TEST_F(LinearPrediction, TooFewSamplesEndTheProcess) {
    const float x[8] = {1, 2, 3};
    float coef[8];
    EXPECT_EXIT(KTsLPredict(x, 3, coef, 3, 1), testing::ExitedWithCode(1), "^$");
    EXPECT_EXIT(KTsLPredict(x, 3, coef, 3, 2), testing::ExitedWithCode(1), "^$");
    EXPECT_EXIT(KTsLPredict(x, 0, coef, 0, 1), testing::ExitedWithCode(1), "^$");
    EXPECT_EQ(KTsLPredict(x, 4, coef, 3, 1), 1);
}

// --- fixed point ---

TEST_F(LinearPrediction, FixedPointIsTheFloatMethodBetweenConversions) {
    support::onEveryLevel([] {
        for (int order : {1, 2, 10, 13})
            for (int flags : {1, 2, 3})
                for (int mode : {KT_NoScale, KT_FixedScale, KT_AutoScale, KT_Saturate, 7}) {
                    const std::vector<float> x = signal(200, order);
                    const std::vector<short> w = toShorts(x);
                    std::vector<float> coef(static_cast<std::size_t>(order));
                    std::vector<short> wanted(static_cast<std::size_t>(order));
                    int wantedScale = -12, scale = -12;
                    ASSERT_EQ(KTsLPredict(x.data(), 200, coef.data(), order, flags), 1);
                    KTswbConvertDown(coef.data(), wanted.data(), order, mode, &wantedScale);
                    support::Guarded<short> got(std::size_t(order), short(5));
                    ASSERT_EQ(KTwLPredict(w.data(), 200, got.data(), order, flags, mode, &scale),
                              1);
                    ASSERT_EQ(got.values(), wanted);
                    ASSERT_EQ(scale, wantedScale);
                    ASSERT_TRUE(got.intact());
                }
    });
}

TEST_F(LinearPrediction, FixedPointWithoutMethodFailsButConverts) {
    const std::vector<short> x(50, 3);
    short coef[4] = {9, 9, 9, 9};
    int scale = 5;
    EXPECT_EQ(KTwLPredict(x.data(), 50, coef, 4, 0, KT_AutoScale, &scale), 0);
    EXPECT_EQ(scale, 0);
    for (short a : coef)
        EXPECT_EQ(a, 0);
}

TEST_F(LinearPrediction, FixedPointTakesANullScaleForZero) {
    const std::vector<short> x = toShorts(signal(100, 2));
    short a[3], b[3];
    int scale = 0;
    EXPECT_EQ(KTwLPredict(x.data(), 100, a, 3, 1, KT_FixedScale, &scale), 1);
    EXPECT_EQ(KTwLPredict(x.data(), 100, b, 3, 1, KT_FixedScale, nullptr), 1);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(a[i], b[i]);
}

TEST_F(LinearPrediction, FixedPointWithNegativeLengthsStaysInsideItsBlock) {
    short coef[2] = {9, 9};
    EXPECT_EQ(KTwLPredict(nullptr, -5, coef, 2, 0, KT_NoScale, nullptr), 0);
    EXPECT_EQ(KTwLPredict(nullptr, 0, coef, -1, 0, KT_NoScale, nullptr), 0);
}

// --- exhaustion ---

void expectReport(const support::Report& report, const char* function, const char* message,
                  const char* module) {
    EXPECT_EQ(report.status, KT_StsNoMem);
    EXPECT_EQ(report.function, function);
    EXPECT_EQ(report.message, message);
    EXPECT_EQ(report.source, std::string("..\\_LIBSRC\\") + module);
}

TEST_F(LinearPrediction, ExhaustionReportsThePointerAndLeavesTheCoefficients) {
    support::CapturedReports reports;
    const std::vector<float> x = signal(100, 4);
    for (int flags : {autocorrelation, covariance}) {
        KTFreeLPTbls();
        std::vector<float> coef(6, 3.0f), wanted(6);
        int result = -1;
        const int failures = support::alloc::failEach(
            [&] { result = KTsLPredict(x.data(), 100, coef.data(), 6, flags); },
            [&] {
                EXPECT_EQ(result, 0);
                ASSERT_EQ(reports.count(), 2u); // the allocator's own, then the worker's
                expectReport(reports[0], "KTsAlloc2", "The table can not be allocated", "KT_ALLOC");
                if (flags == autocorrelation)
                    expectReport(reports[1], "ownsLPAutocorr",
                                 "insufficiency of memory for pointer  pKTContext->LP.arrAutocorr",
                                 "KT_LPRED");
                else
                    expectReport(
                        reports[1], "ownsLPCovariance",
                        "insufficiency of memory for pointer  pKTContext->LP.arrCovariance",
                        "KT_LPRED");
                EXPECT_EQ(KTGetStatus(), KT_StsNoMem);
                EXPECT_EQ(coef, std::vector<float>(6, 3.0f));
                EXPECT_EQ(KTGetContext()->LP.nAutocorr, 0);
                EXPECT_EQ(KTGetContext()->LP.nCovariance, 0);
                reports.clear();
            });
        EXPECT_EQ(failures, 1);
        EXPECT_EQ(result, 1);
        EXPECT_EQ(KTsLPredict(x.data(), 100, wanted.data(), 6, flags), 1);
        EXPECT_EQ(coef, wanted);
    }
}

TEST_F(LinearPrediction, AFailedGrowthLosesTheOldTableOnly) {
    support::CapturedReports reports;
    const std::vector<float> x = signal(100, 4);
    std::vector<float> coef(40);
    EXPECT_EQ(KTsLPredict(x.data(), 100, coef.data(), 4, autocorrelation), 1);
    support::alloc::arm(1);
    EXPECT_EQ(KTsLPredict(x.data(), 100, coef.data(), 40, autocorrelation), 0);
    support::alloc::disarm();
    EXPECT_EQ(KTGetContext()->LP.arrAutocorr, nullptr);
    EXPECT_EQ(KTGetContext()->LP.nAutocorr, 0);
    EXPECT_EQ(KTsLPredict(x.data(), 100, coef.data(), 40, autocorrelation), 1);
}

TEST_F(LinearPrediction, FixedPointExhaustionLeavesTheCoefficients) {
    support::CapturedReports reports;
    const std::vector<short> x = toShorts(signal(100, 4));
    std::vector<short> coef(6, 3);
    int result = -1, step = 0, scale = 4;
    const int failures = support::alloc::failEach(
        [&] { result = KTwLPredict(x.data(), 100, coef.data(), 6, 1, KT_AutoScale, &scale); },
        [&] {
            EXPECT_EQ(result, 0);
            if (++step == 1) {
                ASSERT_EQ(reports.count(), 1u);
                expectReport(reports[0], "KTwLPredict", "insufficiency of memory for pointer  vec",
                             "KT_LPRED");
                EXPECT_EQ(coef, std::vector<short>(6, 3));
                EXPECT_EQ(scale, 4);
            } else {
                // the worker failed; coefficients are converted all the same
                ASSERT_EQ(reports.count(), 2u);
                EXPECT_EQ(reports[1].function, "ownsLPAutocorr");
                EXPECT_EQ(coef, std::vector<short>(6, 0));
            }
            reports.clear();
        });
    EXPECT_EQ(failures, 2);
    EXPECT_EQ(result, 1);
}

TEST_F(LinearPrediction, AnUnthinkableOrderIsAnExhaustion) {
    support::CapturedReports reports;
    const float x[2] = {1, 2};
    float coef[2];
    EXPECT_EQ(KTsLPredict(x, 2, coef, 2147483647, autocorrelation), 0);
    EXPECT_EQ(KTsLPredict(x, 2, coef, 2147483647, covariance), 0);
    EXPECT_EQ(KTGetStatus(), KT_StsNoMem);
}

// --- release ---

TEST_F(LinearPrediction, FreeingReleasesEverythingButTheLastSpare) {
    const std::vector<float> x = signal(100, 4);
    std::vector<float> coef(12), spectrum(64);
    std::vector<short> fixedCoef(14, 100), fixedSpectrum(64);
    KTFreeLPTbls();
    const long before = support::alloc::liveBlocks();
    auto& lp = KTGetContext()->LP;
    KTsLPredict(x.data(), 100, coef.data(), 12, 1);
    KTsLPredict(x.data(), 100, coef.data(), 12, 2);
    for (int order : {4, 12}) { // direct method and transform
        KTsLPSpectrum(coef.data(), order, spectrum.data(), 5, 1.0f);
        KTwLPSpectrum(fixedCoef.data(), order + 2, fixedSpectrum.data(), 5, 1.0f, -10, KT_AutoScale,
                      nullptr);
    }
    lp.spare0 = std::malloc(8);
    int kept = 0;
    lp.spare1 = &kept;
    EXPECT_GT(support::alloc::liveBlocks(), before);
    KTFreeLPTbls();
    EXPECT_EQ(support::alloc::liveBlocks(), before);
    EXPECT_EQ(lp.spare1, &kept);
    lp.spare1 = nullptr;
    for (const void* block : {lp.wLPTwiddle, lp.sLPTwiddle, lp.wLPBuffer, lp.sLPBuffer, lp.spare0})
        EXPECT_EQ(block, nullptr);
    EXPECT_EQ(lp.arrAutocorr, nullptr);
    EXPECT_EQ(lp.arrCovariance, nullptr);
    for (int word : {lp.wTwiddleOrder, lp.wTwiddleLen, lp.sTwiddleOrder, lp.sTwiddleLen,
                     lp.wBufferOrder, lp.sBufferOrder, lp.nAutocorr, lp.nCovariance})
        EXPECT_EQ(word, 0);
    KTFreeLPTbls(); // again: nothing left
}

} // namespace
