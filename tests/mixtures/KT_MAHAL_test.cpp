#include "support/every_level.h"
#include "support/guarded.h"
#include "support/random.h"
#include "support/reports.h"

#include "ktlp6.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

namespace {

using support::randomFloats;

std::mt19937 generator(41);

std::vector<short> randomShorts(int n, int low, int high) {
    std::uniform_int_distribution<int> value(low, high);
    std::vector<short> result(static_cast<std::size_t>(n));
    for (short& x : result)
        x = static_cast<short>(value(generator));
    return result;
}

// Rows of a lower triangle and nothing behind their diagonals, each in a block of its own that a
// sanitizer guards.
template <class T>
struct Triangle {
    std::vector<std::vector<T>> rows;
    std::vector<const T*> pointers;

    template <class Make>
    Triangle(int n, Make make) {
        for (int i = 0; i < n; ++i)
            rows.push_back(make(i + 1));
        for (const auto& row : rows)
            pointers.push_back(row.data());
    }
};

template <class T>
long double exactDiagonal(const T* x, const T* y, const T* c, int n) {
    long double sum = 0;
    for (int i = 0; i < n; ++i) {
        const long double d = static_cast<long double>(x[i]) - y[i];
        sum += c[i] * d * d;
    }
    return sum;
}

template <class T>
long double exactFull(const T* x, const T* y, const T* const* c, int n) {
    long double diagonal = 0, triangle = 0;
    for (int i = 0; i < n; ++i) {
        const long double di = static_cast<long double>(x[i]) - y[i];
        diagonal += c[i][i] * di * di;
        for (int j = 0; j < i; ++j)
            triangle += c[i][j] * di * (static_cast<long double>(x[j]) - y[j]);
    }
    return diagonal + triangle + triangle;
}

// One unit in the last place of a float of that size.
double floatUlp(long double value) {
    const float f = static_cast<float>(std::fabs(value));
    return static_cast<double>(std::nextafter(f, HUGE_VALF)) - static_cast<double>(f);
}

} // namespace

TEST(Mahalanobis, DiagonalIsWithinAFloatUlpOfTheExactValue) {
    support::onEveryLevel([] {
        for (int n = 1; n <= 200; ++n) {
            const auto x = randomFloats(n, -9, 9, generator), y = randomFloats(n, -9, 9, generator),
                       c = randomFloats(n, 0.01f, 5, generator);
            const long double exact = exactDiagonal(x.data(), y.data(), c.data(), n);
            EXPECT_NEAR(KTsMahalanobisD(x.data(), y.data(), c.data(), n, 0), double(exact),
                        floatUlp(exact));
            const long double root = std::sqrt(exact);
            EXPECT_NEAR(KTsMahalanobisD(x.data(), y.data(), c.data(), n, 1), double(root),
                        floatUlp(root));
        }
    });
}

// 7 to 13, and every other dimension: each row counts exactly once.
TEST(Mahalanobis, FullIsWithinAFloatUlpOfTheExactValue) {
    support::onEveryLevel([] {
        for (int n = 1; n <= 70; ++n) {
            const auto x = randomFloats(n, -9, 9, generator), y = randomFloats(n, -9, 9, generator);
            Triangle<float> c(n, [](int count) {
                auto row = randomFloats(count, -0.05f, 0.05f, generator);
                row.back() = 2; // dominates: a form far from 0, so that cancellation plays no part
                return row;
            });
            const long double exact = exactFull(x.data(), y.data(), c.pointers.data(), n);
            ASSERT_GT(exact, 0);
            EXPECT_NEAR(KTsMahalanobis(x.data(), y.data(), c.pointers.data(), n, 0), double(exact),
                        floatUlp(exact))
                << n;
            const long double root = std::sqrt(exact);
            EXPECT_NEAR(KTsMahalanobis(x.data(), y.data(), c.pointers.data(), n, 1), double(root),
                        floatUlp(root));
        }
    });
}

// Every element of the triangle carries its own power of two in turn, so that one left out or
// counted twice shows.
TEST(Mahalanobis, EveryElementOfTheTriangleCountsOnce) {
    support::onEveryLevel([] {
        for (int n : {7, 8, 9, 11, 12, 13, 39}) {
            const std::vector<float> x(static_cast<std::size_t>(n), 1.0f),
                y(static_cast<std::size_t>(n), 0.0f);
            for (int i = 0; i < n; ++i)
                for (int j = 0; j <= i; ++j) {
                    Triangle<float> c(
                        n, [](int count) { return std::vector<float>(std::size_t(count), 0.0f); });
                    c.rows[std::size_t(i)][std::size_t(j)] = 1.0f;
                    EXPECT_EQ(KTsMahalanobis(x.data(), y.data(), c.pointers.data(), n, 0),
                              i == j ? 1.0 : 2.0)
                        << n << ": " << i << ", " << j;
                }
        }
    });
}

TEST(Mahalanobis, AllLevelsGiveTheSameBits) {
    for (int n : {1, 5, 13, 16, 17, 31, 32, 39, 64, 255, 256, 257, 272, 600}) {
        const auto x = randomFloats(n, -9, 9, generator), y = randomFloats(n, -9, 9, generator),
                   d = randomFloats(n, 0.01f, 5, generator);
        Triangle<float> c(n, [](int count) { return randomFloats(count, -1, 1, generator); });
        vsq::selectLevel(vsq::Level::baseline);
        const double full = KTsMahalanobis(x.data(), y.data(), c.pointers.data(), n, 0);
        const double diagonal = KTsMahalanobisD(x.data(), y.data(), d.data(), n, 0);
        support::onEveryLevel([&] {
            EXPECT_EQ(KTsMahalanobis(x.data(), y.data(), c.pointers.data(), n, 0), full) << n;
            EXPECT_EQ(KTsMahalanobisD(x.data(), y.data(), d.data(), n, 0), diagonal) << n;
        });
    }
}

TEST(Mahalanobis, DimensionsBeyondOneStripOfTheTriangle) {
    for (int n : {255, 256, 257, 300, 512, 513, 700}) {
        const auto x = randomFloats(n, -9, 9, generator), y = randomFloats(n, -9, 9, generator);
        Triangle<float> c(n, [](int count) {
            auto row = randomFloats(count, -0.01f, 0.01f, generator);
            row.back() = 2;
            return row;
        });
        const long double exact = exactFull(x.data(), y.data(), c.pointers.data(), n);
        EXPECT_NEAR(KTsMahalanobis(x.data(), y.data(), c.pointers.data(), n, 0), double(exact),
                    floatUlp(exact))
            << n;
    }
}

TEST(Mahalanobis, EqualVectorsGiveExactlyZero) {
    support::onEveryLevel([] {
        for (int n : {1, 2, 7, 8, 13, 39, 300}) {
            const auto x = randomFloats(n, -1e6f, 1e6f, generator),
                       d = randomFloats(n, -5, 5, generator);
            const auto w = randomShorts(n, -32768, 32767), wd = randomShorts(n, -32768, 32767);
            Triangle<float> c(n, [](int count) { return randomFloats(count, -5, 5, generator); });
            Triangle<short> wc(n, [](int count) { return randomShorts(count, -32768, 32767); });
            for (int root = 0; root < 2; ++root) {
                EXPECT_EQ(KTsMahalanobis(x.data(), x.data(), c.pointers.data(), n, root), 0.0);
                EXPECT_EQ(KTsMahalanobisD(x.data(), x.data(), d.data(), n, root), 0.0);
                EXPECT_EQ(KTwMahalanobis(w.data(), w.data(), wc.pointers.data(), n, root,
                                         KT_NoScale, nullptr),
                          0);
                EXPECT_EQ(
                    KTwMahalanobisD(w.data(), w.data(), wd.data(), n, root, KT_NoScale, nullptr),
                    0);
            }
        }
    });
}

TEST(Mahalanobis, OneDimensionHasNoTriangle) {
    const float x = 5, y = 2, c = 0.5f, *rows[] = {&c};
    EXPECT_EQ(KTsMahalanobis(&x, &y, rows, 1, 0), 4.5);
    const short wx = 5, wy = 2, wc = 4, *wRows[] = {&wc};
    EXPECT_EQ(KTwMahalanobis(&wx, &wy, wRows, 1, 0, KT_NoScale, nullptr), 36);
    EXPECT_EQ(KTwMahalanobis(&wx, &wy, wRows, 1, 1, KT_NoScale, nullptr), 6);
}

TEST(Mahalanobis, DimensionsBelowOneGiveZero) {
    const float* none = nullptr;
    EXPECT_EQ(KTsMahalanobis(none, none, nullptr, 0, 1), 0.0);
    EXPECT_EQ(KTsMahalanobisD(none, none, none, -3, 0), 0.0);
    EXPECT_EQ(KTwMahalanobis(nullptr, nullptr, nullptr, 0, 0, KT_NoScale, nullptr), 0);
    EXPECT_EQ(KTwMahalanobisD(nullptr, nullptr, nullptr, 0, 1, KT_NoScale, nullptr), 0);
}

TEST(Mahalanobis, FloatsOfAnySizeStayInRange) {
    const float x[] = {3e38f, 1e-40f}, y[] = {-3e38f, 0.0f}, c[] = {1.0f, 1.0f};
    const double d = 2 * double(3e38f);
    EXPECT_EQ(KTsMahalanobisD(x, y, c, 2, 1), d);
    EXPECT_EQ(KTsMahalanobisD(x + 1, y + 1, c, 1, 1), double(1e-40f));
}

// A difference beyond all numbers makes the form so, in whatever place it is.
TEST(Mahalanobis, InfiniteDifferencesGiveInfiniteForms) {
    support::onEveryLevel([] {
        const float infinity = std::numeric_limits<float>::infinity();
        for (int n : {1, 2, 3, 5, 8, 13, 17, 39})
            for (int place = 0; place < n; ++place) {
                std::vector<float> x(static_cast<std::size_t>(n), 1.0f),
                    y(static_cast<std::size_t>(n), 0.0f);
                const std::vector<float> d(static_cast<std::size_t>(n), 2.0f);
                x[static_cast<std::size_t>(place)] = infinity;
                Triangle<float> c(
                    n, [](int count) { return std::vector<float>(std::size_t(count), 0.5f); });
                EXPECT_EQ(KTsMahalanobis(x.data(), y.data(), c.pointers.data(), n, 0), infinity)
                    << n << " " << place;
                EXPECT_EQ(KTsMahalanobisD(x.data(), y.data(), d.data(), n, 1), infinity)
                    << n << " " << place;
            }
    });
}

// The root of a negative form, which a bad matrix can give, is not a number.
TEST(Mahalanobis, NegativeFormsHaveNoRoot) {
    const float x = 1, y = 0, c = -4, *rows[] = {&c};
    EXPECT_EQ(KTsMahalanobis(&x, &y, rows, 1, 0), -4.0);
    EXPECT_TRUE(std::isnan(KTsMahalanobis(&x, &y, rows, 1, 1)));
    EXPECT_TRUE(std::isnan(KTsMahalanobisD(&x, &y, &c, 1, 1)));
}

TEST(Mahalanobis, FixedPointIsExact) {
    support::onEveryLevel([] {
        for (int n = 1; n <= 64; ++n) {
            const auto x = randomShorts(n, -32768, 32767), y = randomShorts(n, -32768, 32767);
            const auto d = randomShorts(n, -32768, 32767);
            Triangle<short> c(n, [](int count) { return randomShorts(count, -32768, 32767); });
            // Sums of these stay below 2^53 wherever they are cut, or the comparison would prove
            // nothing.
            const long double full = exactFull(x.data(), y.data(), c.pointers.data(), n);
            const long double diagonal = exactDiagonal(x.data(), y.data(), d.data(), n);
            ASSERT_LT(std::fabs(full), 9007199254740992.0L);
            int scale = 0, exactScale = 0;
            const int expectedFull = KTdiConvertDown(double(full), KT_AutoScale, &exactScale);
            EXPECT_EQ(
                KTwMahalanobis(x.data(), y.data(), c.pointers.data(), n, 0, KT_AutoScale, &scale),
                expectedFull);
            EXPECT_EQ(scale, exactScale);
            const int expected = KTdiConvertDown(double(diagonal), KT_AutoScale, &exactScale);
            EXPECT_EQ(KTwMahalanobisD(x.data(), y.data(), d.data(), n, 0, KT_AutoScale, &scale),
                      expected);
            EXPECT_EQ(scale, exactScale);
        }
    });
}

// The largest product of an element with a difference is 2^31 in magnitude, and must not wrap on
// its way.
TEST(Mahalanobis, FixedPointExtremes) {
    support::onEveryLevel([] {
        const std::vector<short> top(40, 32767), bottom(40, -32768);
        Triangle<short> c(
            40, [](int count) { return std::vector<short>(std::size_t(count), short(-32768)); });
        for (int n : {1, 2, 16, 17, 40}) {
            const double form = -32768.0 * 65535.0 * 65535.0 * n * n;
            int scale = 0;
            const int result = KTwMahalanobis(top.data(), bottom.data(), c.pointers.data(), n, 0,
                                              KT_AutoScale, &scale);
            int expectedScale = 0;
            EXPECT_EQ(result, KTdiConvertDown(form, KT_AutoScale, &expectedScale)) << n;
            EXPECT_EQ(scale, expectedScale);
            EXPECT_EQ(KTwMahalanobisD(top.data(), bottom.data(), bottom.data(), n, 0, KT_Saturate,
                                      &scale),
                      -2147483647 - 1);
            EXPECT_EQ(scale, 0);
        }
    });
}

// As KTdiConvertDown has it: fixed scale, saturation, the root before the conversion.
TEST(Mahalanobis, FixedPointScaleModes) {
    const short x[] = {300, -200}, y[] = {-100, 100}, c[] = {100, 7};
    const int form = 100 * 400 * 400 + 7 * 300 * 300; // 16,630,000
    int scale = 4;
    EXPECT_EQ(KTwMahalanobisD(x, y, c, 2, 0, KT_FixedScale, &scale), form / 16);
    EXPECT_EQ(scale, 4);
    EXPECT_EQ(KTwMahalanobisD(x, y, c, 2, 0, KT_NoScale, &scale), form);
    EXPECT_EQ(scale, 0);
    EXPECT_EQ(KTwMahalanobisD(x, y, c, 2, 1, KT_NoScale, &scale), 4077);
    scale = -8;
    EXPECT_EQ(KTwMahalanobisD(x, y, c, 2, 1, KT_FixedScale, &scale),
              int(std::sqrt(double(form)) * 256));
    const short row0[] = {100}, row1[] = {-30, 7}, *rows[] = {row0, row1};
    const int full = form + 2 * 30 * 400 * 300;
    EXPECT_EQ(KTwMahalanobis(x, y, rows, 2, 0, KT_NoScale, &scale), full);
    EXPECT_EQ(KTwMahalanobis(x, y, rows, 2, 1, KT_NoScale, nullptr), int(std::sqrt(double(full))));
}

TEST(Mahalanobis, NullScaleIsAccepted) {
    const short x = 9, y = 4, c = 3, *rows[] = {&c};
    for (int mode : {KT_NoScale, KT_FixedScale, KT_AutoScale, KT_Saturate}) {
        int scale = 0;
        EXPECT_EQ(KTwMahalanobis(&x, &y, rows, 1, 0, mode, nullptr),
                  KTwMahalanobis(&x, &y, rows, 1, 0, mode, &scale));
        EXPECT_EQ(KTwMahalanobisD(&x, &y, &c, 1, 0, mode, nullptr),
                  KTwMahalanobisD(&x, &y, &c, 1, 0, mode, &scale));
    }
}

TEST(Mahalanobis, StatusIsNotTouched) {
    support::CapturedReports reports;
    KTSetStatus(KT_StsBadState);
    const float x = 1, y = 0, c = 1, *rows[] = {&c};
    KTsMahalanobis(&x, &y, rows, 1, 0);
    KTsMahalanobisD(&x, &y, &c, 1, 0);
    EXPECT_EQ(KTGetStatus(), KT_StsBadState);
    EXPECT_EQ(reports.count(), 0u);
}

TEST(Mahalanobis, SeveralRowsAtOnceGiveTheSameBitsAsOneByOne) {
    support::onEveryLevel([] {
        for (int n : {1, 12, 13, 16, 39, 40})
            for (int rows : {0, 1, 7, 8, 9, 15, 16, 17, 25}) {
                const auto x = randomFloats(n, -9, 9, generator);
                std::vector<std::vector<float>> means, weights;
                std::vector<const float*> ppMeans, ppWeights;
                for (int k = 0; k < rows; ++k) {
                    means.push_back(randomFloats(n, -9, 9, generator));
                    weights.push_back(randomFloats(n, 0.1f, 5, generator));
                }
                for (int k = 0; k < rows; ++k) {
                    ppMeans.push_back(means[std::size_t(k)].data());
                    ppWeights.push_back(weights[std::size_t(k)].data());
                }
                support::Guarded<double> panel{vsq::panelSize(rows, n)};
                vsq::kernels().mahal->fillPanel(ppMeans.data(), ppWeights.data(), rows, n,
                                                panel.data());
                EXPECT_TRUE(panel.intact());
                for (int used : {n, n / 2, 0}) { // as much of the rows
                    support::Guarded<float> exponents{std::size_t(rows)};
                    vsq::kernels().mahal->panelExponents(x.data(), panel.data(), rows, used, n,
                                                         exponents.data());
                    EXPECT_TRUE(exponents.intact());
                    for (std::size_t k = 0; k < exponents.size(); ++k)
                        EXPECT_EQ(exponents[k], static_cast<float>(
                                                    -0.5 * KTsMahalanobisD(x.data(), ppMeans[k],
                                                                           ppWeights[k], used, 0)));
                }
            }
    });
}
