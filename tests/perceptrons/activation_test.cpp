// Activations and derivatives.
#include "perceptrons/perceptrons.h"
#include "support/every_level.h"
#include "support/guarded.h"

#include <climits>
#include <cstdint>
#include <limits>

using namespace perceptrons;

namespace {

float sigmoidOf(float x) {
    float y = -1;
    KTsSigmoidActivation(&x, &y, 1);
    return y;
}
float of(KTMLPActivationFn function, float x) {
    float y = -7;
    function(&x, &y, 1);
    return y;
}
short of(KTMLPFixedActivationFn function, int x, int inScale, int outScale) {
    short y = -7;
    function(&x, &y, 1, inScale, outScale);
    return y;
}

// The true sigmoid; long double carries its exponents.
long double trueSigmoid(float x) {
    return 1.0L / (1.0L + std::exp(-static_cast<long double>(x)));
}

// 3e-7 relatively, and in the denormal range half a unit of the last place.
void expectNearSigmoid(float x, float y) {
    const long double truth = trueSigmoid(x);
    const long double tolerance =
        std::max(3e-7L * truth, 0.5000001L * std::numeric_limits<float>::denorm_min());
    ASSERT_LE(std::abs(static_cast<long double>(y) - truth), tolerance) << x;
}

// truncation of the scaled value, by the fixed-scale conversion's rule for values in range
short down(double value, int outScale) {
    return short(std::trunc(std::ldexp(value, -outScale)));
}

} // namespace

TEST(SigmoidActivation, StaysWithinTheBoundOverTheWholeRange) {
    support::onEveryLevel([] {
        std::vector<float> x, y;
        for (int i = -110 * 256; i <= 30 * 256; ++i)
            x.push_back(float(i) / 256.0f);
        std::mt19937 random(1);
        std::uniform_real_distribution<float> uniform(-17, 17), wide(-106, 20);
        for (int i = 0; i < 20000; ++i)
            x.push_back(i % 2 == 0 ? uniform(random) : wide(random));
        for (int k = -104; k <= 17; ++k) // both sides of every piece's ends
            for (float to : {-1000.0f, 1000.0f})
                x.push_back(std::nextafter(float(k), to));
        for (float tiny : {1e-45f, 1e-38f, 1e-20f, -1e-20f, -1e-45f, -0.0f})
            x.push_back(tiny);
        y.resize(x.size());
        KTsSigmoidActivation(x.data(), y.data(), int(x.size()));
        for (std::size_t i = 0; i < x.size(); ++i)
            expectNearSigmoid(x[i], y[i]);
    });
}

TEST(SigmoidActivation, OfEachElementDependsOnItAlone) {
    support::onEveryLevel([] {
        std::mt19937 random(2);
        std::uniform_real_distribution<float> uniform(-20, 20);
        for (int n = 0; n <= 70; ++n) {
            const auto size = std::size_t(n);
            support::Guarded<float> x(size), y(size);
            for (int i = 0; i < n; ++i)
                x[std::size_t(i)] =
                    uniform(random) * (n % 2 == 0 ? 1.0f : 0.5f); // some blocks have far elements
            KTsSigmoidActivation(x.data(), y.data(), n);
            EXPECT_TRUE(y.intact());
            for (std::size_t i = 0; i < y.size(); ++i)
                EXPECT_EQ(y[i], sigmoidOf(x[i]));
        }
    });
}

TEST(SigmoidActivation, GivesTheSameBitsOnEveryLevel) {
    std::mt19937 random(3);
    std::uniform_real_distribution<float> uniform(-16, 16);
    std::vector<float> x(1000), expected;
    for (float& v : x)
        v = uniform(random);
    support::onEveryLevel([&] {
        std::vector<float> y(x.size());
        KTsSigmoidActivation(x.data(), y.data(), int(x.size()));
        if (expected.empty()) expected = y;
        EXPECT_EQ(y, expected);
    });
}

TEST(SigmoidActivation, WorksInPlaceAndOnNothing) {
    support::onEveryLevel([] {
        std::vector<float> x = {-3, -2, -1, 0, 1, 2, 3}, y(x.size()), kept = x;
        KTsSigmoidActivation(x.data(), x.data(), 0);
        KTsSigmoidActivation(x.data(), x.data(), -5);
        EXPECT_EQ(x, kept);
        KTsSigmoidActivation(x.data(), y.data(), 7);
        KTsSigmoidActivation(x.data(), x.data(), 7);
        EXPECT_EQ(x, y);
    });
}

TEST(SigmoidActivation, OfZeroIsOneHalf) {
    EXPECT_EQ(sigmoidOf(0.0f), 0.5f);
    EXPECT_EQ(sigmoidOf(-0.0f), 0.5f);
}

TEST(SigmoidActivation, SaturatesOnlyToTheRight) {
    EXPECT_EQ(sigmoidOf(17.5f), 1.0f);
    EXPECT_EQ(sigmoidOf(std::nextafter(17.0f, 18.0f)), 1.0f);
    EXPECT_EQ(sigmoidOf(17.0f), float(sigmoid(17.0)));
    EXPECT_EQ(sigmoidOf(-105.0f), 0.0f);
    EXPECT_EQ(sigmoidOf(-90.0f), float(sigmoid(-90.0)));
    EXPECT_EQ(sigmoidOf(-78.0f), float(sigmoid(-78.0)));
    EXPECT_EQ(sigmoidOf(-104.0f), float(sigmoid(-104.0)));
    EXPECT_EQ(sigmoidOf(-103.5f), std::numeric_limits<float>::denorm_min());
    for (float x : {-17.5f, -77.5f}) {
        EXPECT_GT(sigmoidOf(x), 0.0f);
        expectNearSigmoid(x, sigmoidOf(x));
    }
    EXPECT_EQ(sigmoidOf(INFINITY), 1.0f);
    EXPECT_EQ(sigmoidOf(-INFINITY), 0.0f);
    EXPECT_TRUE(std::isnan(sigmoidOf(NAN)));
}

// The settled figures, seen through the result: row, u, and the polynomial of the printed
// coefficients.
TEST(SigmoidActivation, FollowsTheSettledRows) {
    const struct {
        int k;
        double a[4], b[4];
    } rows[] = {
        {0,
         {-5.3516436e-05, 3.2629713e-04, 2.3881204e-03, 1.5209372e-04},
         {-2.0792527e-02, 5.3791505e-06, 0.25000027, 0.5}},
        {1,
         {8.1314567e-05, 3.0207130e-04, -5.2012852e-04, -5.1960503e-03},
         {-5.9015267e-03, 4.5426972e-02, 0.19661184, 0.26894143}},
        {2,
         {-1.7438293e-05, -1.7880078e-04, -7.4488611e-04, -8.7478309e-04},
         {6.4732209e-03, 3.9981008e-02, 0.10499357, 0.11920292}},
        {77,
         {4.3324183e-38, 4.5971733e-37, 2.9842154e-36, 1.5087225e-35},
         {6.0414389e-35, 1.8125643e-34, 3.6251405e-34, 3.6251410e-34}},
    };
    for (const auto& row : rows)
        for (float u = 0.0f; u > -1.0f; u -= 0.03125f) {
            double a = 0, b = 0;
            for (int i = 0; i < 4; ++i) {
                a = a * double(u) + double(float(row.a[i]));
                b = b * double(u) + double(float(row.b[i]));
            }
            const double value = b + std::pow(double(u), 4) * a;
            EXPECT_FLOAT_EQ(sigmoidOf(u - float(row.k)), float(value)) << row.k << ' ' << u;
        }
}

TEST(SigmoidDerivative, IsTheProductAtTheOutput) {
    EXPECT_EQ(of(KTsSigmoidDerivative, 0.5f), 0.25f);
    EXPECT_EQ(of(KTsSigmoidDerivative, 0.0f), 0.0f);
    EXPECT_EQ(of(KTsSigmoidDerivative, 1.0f), 0.0f);
    for (float v : {0.1f, 0.3f, 0.9f, -2.0f, 7.0f})
        EXPECT_FLOAT_EQ(of(KTsSigmoidDerivative, v), float((1.0 - double(v)) * double(v)));
}

TEST(AbsActivation, IsSymmetric) {
    EXPECT_EQ(of(KTsAbsActivation, 0.0f), 1.0f);
    EXPECT_EQ(of(KTsAbsActivation, 3.0f), 0.25f);
    EXPECT_EQ(of(KTsAbsActivation, -3.0f), 0.25f);
    EXPECT_FLOAT_EQ(of(KTsAbsActivation, 0.3f), float(1.0 / 1.3));
    EXPECT_EQ(of(KTsAbsActivation, INFINITY), 0.0f);
}

TEST(AbsDerivative, HasTheSignOppositeToItsInput) {
    EXPECT_EQ(of(KTsAbsDerivative, 0.0f), 0.0f);
    EXPECT_EQ(of(KTsAbsDerivative, 1.0f), -0.25f);
    EXPECT_EQ(of(KTsAbsDerivative, -1.0f), 0.25f);
    EXPECT_FLOAT_EQ(of(KTsAbsDerivative, 0.3f), float(-1.0 / std::pow(1.0 + double(0.3f), 2.0)));
    EXPECT_FLOAT_EQ(of(KTsAbsDerivative, -0.7f), float(1.0 / std::pow(1.0 + double(0.7f), 2.0)));
}

TEST(Activations, DoNothingForNoElements) {
    const std::vector<float> in(2, 1.0f);
    const std::vector<int> words(2, 1);
    for (int n : {0, -1}) {
        std::vector<float> out(2, 5.0f);
        std::vector<short> shorts(2, 5);
        for (KTMLPActivationFn f :
             {KTsSigmoidActivation, KTsSigmoidDerivative, KTsAbsActivation, KTsAbsDerivative})
            f(in.data(), out.data(), n);
        for (KTMLPFixedActivationFn f :
             {KTwSigmoidActivation, KTwSigmoidDerivative, KTwAbsActivation, KTwAbsDerivative})
            f(words.data(), shorts.data(), n, 15, -15);
        EXPECT_EQ(out, std::vector<float>(2, 5.0f));
        EXPECT_EQ(shorts, std::vector<short>(2, 5));
    }
}

// From the last element to the first: with the output one element behind the input, each is read
// before it is overwritten; with it before the input, each result is read as the next one's input.
TEST(Activations, WalkFromTheLastElementToTheFirst) {
    for (KTMLPActivationFn f : {KTsSigmoidDerivative, KTsAbsActivation, KTsAbsDerivative})
        for (const std::size_t n : {std::size_t(3), std::size_t(40)})
            for (const std::size_t distance : {std::size_t(1), std::size_t(2), n - 1, n, n + 1}) {
                std::vector<float> values;
                for (std::size_t i = 0; i < n + distance; ++i)
                    values.push_back(0.5f / float(i + 1));
                std::vector<float> behind = values, expected = values;
                for (std::size_t i = n; i-- > 0;)
                    expected[i + distance] = of(f, expected[i]);
                f(behind.data(), behind.data() + distance, int(n));
                EXPECT_EQ(behind, expected) << n << ' ' << distance;
                std::vector<float> before = values;
                expected = values;
                for (std::size_t i = n; i-- > 0;)
                    expected[i] = of(f, expected[i + distance]);
                f(before.data() + distance, before.data(), int(n));
                EXPECT_EQ(before, expected) << n << ' ' << distance;
            }
}

// The float sigmoid walks upward: with the output one element before the input each is read before
// it is overwritten; with it behind the input each result is read as the next one's input.
TEST(SigmoidActivation, WalksFromTheFirstElementToTheLast) {
    support::onEveryLevel([] {
        for (const std::size_t n : {std::size_t(3), std::size_t(40), std::size_t(100)})
            for (const std::size_t distance : {std::size_t(1), std::size_t(2), n - 1, n, n + 1}) {
                std::vector<float> values;
                for (std::size_t i = 0; i < n + distance; ++i)
                    values.push_back(8.0f - float(i) / 3.0f);
                std::vector<float> behind = values, expected = values;
                for (std::size_t i = 0; i < n; ++i)
                    expected[i + distance] = sigmoidOf(expected[i]);
                KTsSigmoidActivation(behind.data(), behind.data() + distance, int(n));
                EXPECT_EQ(behind, expected) << n << ' ' << distance;
                std::vector<float> before = values;
                expected = values;
                for (std::size_t i = 0; i < n; ++i)
                    expected[i] = sigmoidOf(expected[i + distance]);
                KTsSigmoidActivation(before.data() + distance, before.data(), int(n));
                EXPECT_EQ(before, expected) << n << ' ' << distance;
            }
    });
}

TEST(FixedSigmoidActivation, OfZeroIsOneHalf) {
    EXPECT_EQ(of(KTwSigmoidActivation, 0, 15, -15), 16384);
}

TEST(FixedSigmoidActivation, Saturates) {
    EXPECT_EQ(of(KTwSigmoidActivation, 32768 * 40, 15, -15), 0x7FFF);
    EXPECT_EQ(of(KTwSigmoidActivation, 0, 15, -17), 0x7FFF); // 0.5 * 2^17
    EXPECT_EQ(of(KTwSigmoidActivation, INT_MIN, 15, -15), 0);
    for (int outScale : {-31, -32, -40, -64, -1000, -2000, INT_MIN})
        for (int x : {0, 16384, -16384, 1 << 20})
            EXPECT_EQ(of(KTwSigmoidActivation, x, 14, outScale), 0x7FFF) << x << ' ' << outScale;
}

// The factor of the output is a power of two at every scale, the one of the input that of a 32-bit
// integer.
TEST(FixedSigmoidActivation, ScalesItsResultBeyond31Bits) {
    EXPECT_EQ(of(KTwSigmoidActivation, -(45 << 14), 14, -70), short(std::ldexp(sigmoid(-45), 70)));
    EXPECT_EQ(of(KTwSigmoidActivation, -(21 << 14), 14, -31), short(std::ldexp(sigmoid(-21), 31)));
    EXPECT_EQ(of(KTwSigmoidActivation, -2000, -1, -1000), 0); // exp overflows: nothing to scale
    EXPECT_EQ(of(KTwSigmoidActivation, 0, 14, 31), 0);
    EXPECT_EQ(of(KTwSigmoidActivation, 1 << 20, 14, 32), 0);
    EXPECT_EQ(of(KTwSigmoidActivation, 1 << 20, 14, INT_MAX), 0);
}

TEST(FixedSigmoidActivation, IsTheTruncatedFormula) {
    support::onEveryLevel([] {
        std::vector<int> x;
        for (int i = -(14 << 15); i <= 14 << 15; i += 7)
            x.push_back(i);
        std::vector<short> y(x.size());
        KTwSigmoidActivation(x.data(), y.data(), int(x.size()), 15, -15);
        for (std::size_t i = 0; i < x.size(); ++i) {
            const long double r = 32768.0L / (1.0L + std::exp(-x[i] / 32768.0L));
            ASSERT_EQ(y[i], r > 32767.0L ? 32767 : short(r)) << x[i];
        }
    });
}

TEST(FixedSigmoidActivation, TakesScalesOfBothSigns) {
    EXPECT_EQ(of(KTwSigmoidActivation, 3, 1, -10), short(1024 * sigmoid(1.5)));
    EXPECT_EQ(of(KTwSigmoidActivation, 3, -1, -10), short(1024 * sigmoid(6.0)));
    EXPECT_EQ(of(KTwSigmoidActivation, -3, -1, -10), short(1024 * sigmoid(-6.0)));
    EXPECT_EQ(of(KTwSigmoidActivation, 3, 1, 0), 0);
    EXPECT_EQ(of(KTwSigmoidActivation, 3, 1, 1), 0);
    EXPECT_EQ(of(KTwSigmoidActivation, 3, 33, -10), short(1024 * sigmoid(1.5))); // counts modulo 32
}

// With a scale of 0 the elements chain, from the last one on.
TEST(FixedSigmoidActivation, DoesNotReadTheInputWithScaleZero) {
    const int in[] = {12345, -999, 77777};
    short out[3];
    KTwSigmoidActivation(in, out, 3, 0, -3);
    double x = 0.0;
    for (int i = 2; i >= 0; --i) {
        x = 8.0 * sigmoid(x);
        EXPECT_EQ(out[i], short(x));
    }
    EXPECT_EQ(out[2], 4);
    KTwSigmoidActivation(in, out, 3, 0, 0); // as evaluation calls it with an exponent of 0
    EXPECT_EQ(out[0], 0);
}

TEST(FixedSigmoidDerivative, IsTheProductAtTheOutput) {
    EXPECT_EQ(of(KTwSigmoidDerivative, 16384, 15, -15), 8192);
    for (int v : {1, 100, 5000, 20000, 32767, -5000})
        EXPECT_EQ(of(KTwSigmoidDerivative, v, 15, -15),
                  down((1 - v / 32768.0) * (v / 32768.0), -15));
    // Not saturated: (1 - 4) * 4 = -12 is -393216 in Q15, whose magnitude's low 16 bits are 0.
    EXPECT_EQ(of(KTwSigmoidDerivative, 4 << 15, 15, -15), 0);
}

TEST(FixedAbsActivation, ReadsTheLowHalf) {
    for (int v : {0, 1, 16384, 32767, -1, -16384, -32768})
        for (int upper : {0, 1, -3}) {
            const int input = v + upper * 65536;
            EXPECT_EQ(of(KTwAbsActivation, input, 15, -14),
                      down(1.0 / (1.0 + std::abs(v / 32768.0)), -14))
                << input;
        }
    EXPECT_EQ(of(KTwAbsActivation, 32768, 15, -14), down(0.5, -14)); // wraps to -1.0
}

TEST(FixedAbsDerivative, TakesItsCaseFromTheWholeInput) {
    EXPECT_EQ(of(KTwAbsDerivative, 0, 15, -14), 0);
    EXPECT_EQ(of(KTwAbsDerivative, 32768 / 2, 15, -14), down(-1.0 / 2.25, -14));
    EXPECT_EQ(of(KTwAbsDerivative, -32768 / 2, 15, -14), down(1.0 / 2.25, -14));
    // x > 0 with a magnitude of 0
    EXPECT_EQ(of(KTwAbsDerivative, 0x10000, 15, -14), -16384);
    // x < 0 with a magnitude of 0
    EXPECT_EQ(of(KTwAbsDerivative, -0x10000, 15, -14), 16384);
    // low half -0.5, whole positive
    EXPECT_EQ(of(KTwAbsDerivative, 0xC000, 15, -12), down(-1.0 / 0.25, -12));
    EXPECT_EQ(of(KTwAbsDerivative, 0x8000, 15, -12), -32768); // division by zero
}
