// The inner loops of perceptrons, against one scalar loop after the other, and the table of the
// sigmoid.
#include "recognition/vsqmlp_table.h"
#include "support/every_level.h"
#include "support/guarded.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace {

using support::Guarded;

constexpr float infinity = std::numeric_limits<float>::infinity();
constexpr float notANumber = std::numeric_limits<float>::quiet_NaN();

long double trueSigmoid(long double x) {
    return 1.0L / (1.0L + std::exp(-x));
}

// The polynomial of a row, in extended precision.
template <class T>
long double polynomialOf(const T (&row)[8], long double u) {
    long double a = 0, b = 0;
    for (int i = 0; i < 4; ++i) {
        a = a * u + row[i];
        b = b * u + row[4 + i];
    }
    return b + u * u * u * u * a;
}

// The sigmoid by the rules of its ranges, before the one rounding.
long double unroundedSigmoid(float x) {
    if (x > 17.0f) return 1.0L;
    if (x < -104.0f) return 0.0L;
    if (x == 17.0f || x <= -78.0f) return trueSigmoid(x);
    const int k = int(std::fabs(x));
    const long double value =
        polynomialOf(vsq::kSigmoidRows[k], static_cast<long double>(k) - std::fabs(x));
    return x >= 0.0f ? 1.0L - value : value;
}

// Half the distance of floats around a value from 0 to 1.
long double halfUnit(long double value) {
    int exponent = 0;
    std::frexp(static_cast<double>(value), &exponent);
    return std::ldexp(0.5L, std::max(exponent - 24, -149));
}

// Elements of all ranges, and both sides of every piece's ends.
std::vector<float> sigmoidArguments() {
    std::vector<float> x;
    std::mt19937 random(1);
    std::uniform_real_distribution<float> nearby(-16, 16), wide(-106, 20);
    for (int i = 0; i < 4000; ++i)
        x.push_back(nearby(random));
    for (int i = 0; i < 4000; ++i)
        x.push_back(wide(random));
    for (int k = -105; k <= 18; ++k)
        for (const float v :
             {std::nextafter(float(k), -1000.0f), float(k), std::nextafter(float(k), 1000.0f)})
            x.push_back(v);
    for (const float tiny : {1e-45f, 1e-38f, 1e-20f, -1e-20f, -1e-45f, -0.0f, 0.0f})
        x.push_back(tiny);
    return x;
}

} // namespace

// --- the table ---

TEST(SigmoidTable, HasTheSettledFigures) {
    const struct {
        int k;
        const char* printed[8];
    } rows[] = {
        {0,
         {"-5.3516436e-05", "3.2629713e-04", "2.3881204e-03", "1.5209372e-04", "-2.0792527e-02",
          "5.3791505e-06", "2.5000027e-01", "5.0000000e-01"}},
        {1,
         {"8.1314567e-05", "3.0207130e-04", "-5.2012852e-04", "-5.1960503e-03", "-5.9015267e-03",
          "4.5426972e-02", "1.9661184e-01", "2.6894143e-01"}},
        {2,
         {"-1.7438293e-05", "-1.7880078e-04", "-7.4488611e-04", "-8.7478309e-04", "6.4732209e-03",
          "3.9981008e-02", "1.0499357e-01", "1.1920292e-01"}},
        {77,
         {"4.3324183e-38", "4.5971733e-37", "2.9842154e-36", "1.5087225e-35", "6.0414389e-35",
          "1.8125643e-34", "3.6251405e-34", "3.6251410e-34"}},
    };
    ASSERT_EQ(vsq::sigmoidRows, 78);
    for (const auto& row : rows)
        for (int i = 0; i < 8; ++i) {
            char text[32];
            std::snprintf(text, sizeof text, "%.7e", double(vsq::kSigmoidRows[row.k][i]));
            EXPECT_EQ(std::string(text), row.printed[i]) << row.k << ' ' << i;
        }
}

TEST(SigmoidTable, StaysWithinTheBoundInEveryRow) {
    for (int k = 0; k < vsq::sigmoidRows; ++k)
        for (int i = 0; i <= 1000; ++i) {
            const long double u = -i / 1000.0L, truth = trueSigmoid(u - k);
            ASSERT_LE(std::fabs(polynomialOf(vsq::kSigmoidRows[k], u) - truth), 3e-7L * truth)
                << k << ' ' << i;
        }
}

TEST(SigmoidTable, HasFineRowsWithinTheirBound) {
    for (int k = 0; k < vsq::fineSigmoidRows; ++k)
        for (int i = 0; i <= 1000; ++i) {
            const long double u = -i / 1000.0L, truth = trueSigmoid(u - k);
            ASSERT_LE(std::fabs(polynomialOf(vsq::kFineSigmoidRows[k], u) - truth),
                      vsq::fineSigmoidError * truth)
                << k << ' ' << i;
        }
}

// --- the sigmoid ---

// Rounded once: within half a unit of the polynomial, and what double arithmetic adds.
TEST(SigmoidKernel, RoundsThePolynomialOnce) {
    const std::vector<float> x = sigmoidArguments();
    support::onEveryLevel([&] {
        std::vector<float> y(x.size());
        vsq::kernels().mlp->sigmoidFloat(x.data(), y.data(), int(x.size()));
        for (std::size_t i = 0; i < x.size(); ++i) {
            const long double value = unroundedSigmoid(x[i]);
            ASSERT_LE(std::fabs(y[i] - value), halfUnit(value) * 1.000001L + value * 0x1p-50L)
                << x[i];
        }
    });
}

TEST(SigmoidKernel, GivesTheSameBitsOnEveryLevel) {
    const std::vector<float> x = sigmoidArguments();
    std::vector<float> first;
    support::onEveryLevel([&] {
        std::vector<float> y(x.size());
        vsq::kernels().mlp->sigmoidFloat(x.data(), y.data(), int(x.size()));
        if (first.empty()) first = y;
        EXPECT_EQ(y, first);
    });
}

// Blocks of every length, with and without far elements among near ones, give each element what it
// has alone.
TEST(SigmoidKernel, TreatsEachElementByItselfAndWritesNothingElse) {
    const std::vector<float> pool = sigmoidArguments();
    support::onEveryLevel([&] {
        std::mt19937 random(2);
        for (int n = 0; n <= 140; ++n)
            for (const bool far : {false, true}) {
                Guarded<float> x{std::size_t(n)}, y{std::size_t(n)};
                for (std::size_t i = 0; i < x.size(); ++i)
                    x[i] = pool[random() % (far ? pool.size() : 4000)];
                vsq::kernels().mlp->sigmoidFloat(x.data(), y.data(), n);
                EXPECT_TRUE(y.intact());
                for (std::size_t i = 0; i < x.size(); ++i) {
                    float alone = -1;
                    vsq::kernels().mlp->sigmoidFloat(&x[i], &alone, 1);
                    ASSERT_EQ(y[i], alone) << x[i] << ' ' << n;
                }
                vsq::kernels().mlp->sigmoidFloat(x.data(), x.data(), n); // in place
                EXPECT_EQ(x.values(), y.values());
            }
    });
}

TEST(SigmoidKernel, HasItsLimits) {
    support::onEveryLevel([] {
        const std::vector<float> x = {0.0f,    -0.0f,  17.5f,     1e30f,     infinity,
                                      -105.0f, -1e30f, -infinity, notANumber};
        std::vector<float> y(x.size());
        vsq::kernels().mlp->sigmoidFloat(x.data(), y.data(), int(x.size()));
        EXPECT_EQ(std::vector<float>(y.begin(), y.end() - 1),
                  (std::vector<float>{0.5f, 0.5f, 1, 1, 1, 0, 0, 0}));
        EXPECT_TRUE(std::isnan(y.back()));
        float kept = 5;
        vsq::kernels().mlp->sigmoidFloat(x.data(), &kept, 0);
        vsq::kernels().mlp->sigmoidFloat(x.data(), &kept, -4);
        EXPECT_EQ(kept, 5.0f);
    });
}

// --- the fixed sigmoid ---

namespace {

short formula(int in, int inBits, int outBits) {
    const double r = std::ldexp(1.0 / (1.0 + std::exp(-std::ldexp(double(in), -inBits))), outBits);
    return short(r > 32767.0 ? 32767 : int(r));
}

} // namespace

TEST(WordSigmoidKernel, IsTheFormulaForAllScales) {
    support::onEveryLevel([] {
        std::mt19937 random(3);
        for (int inBits = 1; inBits <= 30; ++inBits)
            for (const int outBits : {1, 2, 7, 10, 14, 15, 16, 20, 29, 30}) {
                Guarded<int> in(300);
                for (std::size_t i = 0; i < in.size(); ++i)
                    in[i] = i < 100 ? int(random()) : int(random()) >> (random() % 31);
                in[0] = INT32_MIN, in[1] = INT32_MAX, in[2] = 0, in[3] = -1, in[4] = 1;
                Guarded<short> out(in.size());
                vsq::kernels().mlp->sigmoidFixed(in.data(), out.data(), int(in.size()), inBits,
                                                 outBits);
                EXPECT_TRUE(out.intact());
                for (std::size_t i = 0; i < in.size(); ++i)
                    ASSERT_EQ(out[i], formula(in[i], inBits, outBits))
                        << in[i] << ' ' << inBits << ' ' << outBits;
            }
    });
}

// Every 16-bit result's neighbourhood: sums in small steps over the whole range in which results
// differ.
TEST(WordSigmoidKernel, IsTheFormulaInSmallSteps) {
    support::onEveryLevel([] {
        std::vector<int> in;
        for (int i = -(17 << 15); i <= 17 << 15; i += 5)
            in.push_back(i);
        std::vector<short> out(in.size());
        vsq::kernels().mlp->sigmoidFixed(in.data(), out.data(), int(in.size()), 15, 15);
        for (std::size_t i = 0; i < in.size(); ++i)
            ASSERT_EQ(out[i], formula(in[i], 15, 15)) << in[i];
    });
}

TEST(WordSigmoidKernel, WritesNothingBesideItsElements) {
    support::onEveryLevel([] {
        std::mt19937 random(4);
        for (int n = -1; n <= 70; ++n)
            for (const int range : {1 << 18, 1 << 20}) {
                Guarded<int> in{std::size_t(std::max(n, 0))};
                for (std::size_t i = 0; i < in.size(); ++i)
                    in[i] = int(random() % unsigned(2 * range)) - range;
                Guarded<short> out{in.size(), short(-1)};
                vsq::kernels().mlp->sigmoidFixed(in.data(), out.data(), n, 15, 15);
                EXPECT_TRUE(out.intact());
                for (std::size_t i = 0; i < in.size(); ++i)
                    ASSERT_EQ(out[i], formula(in[i], 15, 15));
            }
    });
}

// --- training ---

namespace {

struct Layer {
    std::vector<Guarded<float>> rows;
    std::vector<float*> pointers;
    Layer(std::mt19937& random, int count, int n) {
        std::normal_distribution<float> normal;
        for (int k = 0; k < count; ++k) {
            rows.emplace_back(std::size_t(n));
            for (std::size_t i = 0; i < std::size_t(n); ++i)
                rows.back()[i] = normal(random);
        }
        for (auto& row : rows)
            pointers.push_back(row.data());
    }
    bool intact() const {
        for (const auto& row : rows)
            if (!row.intact()) return false;
        return true;
    }
};

} // namespace

TEST(SigmoidSlopesKernel, AreTheProductInDoubleRoundedOnce) {
    support::onEveryLevel([] {
        std::mt19937 random(7);
        std::uniform_real_distribution<float> uniform(-1, 2);
        for (int n = -1; n <= 70; ++n) {
            Guarded<float> y{std::size_t(std::max(n, 0))}, slopes{y.size(), -1.0f};
            std::vector<float> expected;
            for (std::size_t i = 0; i < y.size(); ++i) {
                y[i] = uniform(random);
                expected.push_back(float((1.0 - double(y[i])) * double(y[i])));
            }
            vsq::kernels().mlp->sigmoidSlopes(y.data(), slopes.data(), n);
            EXPECT_TRUE(slopes.intact());
            EXPECT_EQ(slopes.values(), expected);
            vsq::kernels().mlp->sigmoidSlopes(y.data(), y.data(), n); // in place
            EXPECT_EQ(y.values(), expected);
        }
    });
}

TEST(DescendKernel, ChangesWeightsInDoubleAndRoundsEachOnce) {
    support::onEveryLevel([] {
        std::mt19937 random(5);
        std::normal_distribution<float> normal;
        for (int n = 0; n <= 140; ++n)
            for (const int count : {0, 1, 2, 3, 5, 8}) {
                Layer weights(random, count, n), previous(random, count, n);
                Guarded<float> x{std::size_t(n)}, deltas{std::size_t(count)};
                for (std::size_t i = 0; i < x.size(); ++i)
                    x[i] = normal(random);
                for (std::size_t k = 0; k < deltas.size(); ++k)
                    deltas[k] = normal(random);
                const double rate = double(0.3f), momentum = double(0.7f);
                std::vector<std::vector<float>> newWeights, newPrevious;
                for (std::size_t k = 0; k < deltas.size(); ++k) {
                    newWeights.emplace_back(), newPrevious.emplace_back();
                    const double g = double(deltas[k]) * rate;
                    for (std::size_t i = 0; i < x.size(); ++i) {
                        const double delta =
                            double(x[i]) * g + double(previous.rows[k][i]) * momentum;
                        newWeights[k].push_back(float(double(weights.rows[k][i]) + delta));
                        newPrevious[k].push_back(float(delta));
                    }
                }
                vsq::kernels().mlp->descend(weights.pointers.data(), previous.pointers.data(),
                                            x.data(), deltas.data(), rate, momentum, count, n);
                EXPECT_TRUE(weights.intact() && previous.intact());
                for (std::size_t k = 0; k < deltas.size(); ++k) {
                    ASSERT_EQ(weights.rows[k].values(), newWeights[k]) << n << ' ' << k;
                    ASSERT_EQ(previous.rows[k].values(), newPrevious[k]) << n << ' ' << k;
                }
            }
    });
}

TEST(WeighDeltasKernel, AddsRowsInAscendingOrderInDouble) {
    support::onEveryLevel([] {
        std::mt19937 random(6);
        std::normal_distribution<float> normal;
        for (int n = 0; n <= 70; ++n)
            for (const int count : {0, 1, 2, 3, 5, 13}) {
                const Layer rows(random, count, n);
                Guarded<float> deltas{std::size_t(count)};
                for (std::size_t k = 0; k < deltas.size(); ++k)
                    deltas[k] = normal(random);
                Guarded<double> sums(std::size_t(n), -1.0);
                vsq::kernels().mlp->weighDeltas(sums.data(), rows.pointers.data(), deltas.data(),
                                                count, n);
                EXPECT_TRUE(sums.intact());
                for (std::size_t i = 0; i < sums.size(); ++i) {
                    double sum = 0;
                    for (std::size_t k = 0; k < deltas.size(); ++k)
                        sum += double(rows.rows[k][i]) * double(deltas[k]);
                    ASSERT_EQ(sums[i], sum) << n << ' ' << count << ' ' << i;
                }
            }
    });
}

TEST(TrainingKernels, DoNothingForNoRowsOrColumns) {
    support::onEveryLevel([] {
        float weight = 3, change = 4;
        const float x = 1, delta = 1;
        float* weights = &weight;
        float* changes = &change;
        double sum = 5;
        for (const int none : {0, -1}) {
            vsq::kernels().mlp->descend(&weights, &changes, &x, &delta, 1, 1, none, 1);
            vsq::kernels().mlp->descend(&weights, &changes, &x, &delta, 1, 1, 1, none);
            vsq::kernels().mlp->weighDeltas(&sum, &weights, &delta, 1, none);
        }
        EXPECT_EQ(weight, 3.0f);
        EXPECT_EQ(change, 4.0f);
        EXPECT_EQ(sum, 5.0);
    });
}
