#include "mixtures/mixtures.h"
#include "support/alloc_faults.h"
#include "support/reports.h"

#include <gtest/gtest.h>

#include <climits>

using namespace mixtures;

namespace {

Server down(const Server& s, int weightScale, int meanScale, int invCovScale) {
    return Server(KTswConvertGaussMixServer(s.get(), weightScale, meanScale, invCovScale));
}
Server up(const Server& s, int weightScale, int meanScale, int invCovScale) {
    return Server(KTwsConvertGaussMixServer(s.get(), weightScale, meanScale, invCovScale));
}

short saturated(float v, int scale) {
    const double u = std::ldexp(double(v), -scale);
    return u >= 32767 ? 32767 : u < -32767 ? -32767 : short(std::trunc(u));
}

Mixture<float> single(float weight, float mean, float inverse) {
    Mixture<float> m;
    m.nDim = m.nMix = 1;
    m.weights = {weight};
    m.means = {{mean}};
    m.diagonals = {{inverse}};
    return m;
}

void expectReport(const support::CapturedReports& reports, int status, const char* text,
                  const char* name) {
    ASSERT_EQ(reports.count(), 1u);
    EXPECT_EQ(reports[0].status, status);
    EXPECT_EQ(reports[0].message, text);
    EXPECT_EQ(reports[0].function, name);
    EXPECT_EQ(reports[0].source, "..\\_LIBSRC\\KT_GAUSS");
}

} // namespace

TEST(ConvertDown, OneAtScaleMinusFourteenIs16384AndComesBack) {
    const Server fixed = down(single(1, 1, 1).server(), -14, 0, 0);
    EXPECT_EQ(ktl::gauss::weights<short>(fixed.get())[0], 16384);
    EXPECT_EQ(ktl::gauss::weights<float>(up(fixed, 14, 0, 0).get())[0], 1.0f);
}

TEST(ConvertDown, EveryElementTakesItsKindsScale) {
    std::mt19937 random(61);
    for (const bool full : {false, true}) {
        auto mixture = randomMixture(random, 7, 3, full);
        const Server source = mixture.server();
        const Server fixed = down(source, -15, -10, -9);
        for (std::size_t k = 0; k < 3; ++k) {
            EXPECT_EQ(ktl::gauss::weights<short>(fixed.get())[k],
                      saturated(mixture.weights[k], -15));
            for (std::size_t i = 0; i < 8; ++i) {
                EXPECT_EQ(ktl::gauss::means<short>(fixed.get())[k][i],
                          i < 7 ? saturated(mixture.means[k][i], -10) : 0);
                for (std::size_t j = 0; full && i < 7 && j < 8; ++j)
                    EXPECT_EQ(ktl::gauss::matrices<short>(fixed.get())[k][i][j],
                              j < 7 ? saturated(mixture.matrices[k][i][j], -9) : 0);
                if (!full) {
                    EXPECT_EQ(ktl::gauss::diagonals<short>(fixed.get())[k][i],
                              i < 7 ? saturated(mixture.diagonals[k][i], -9) : 0);
                }
            }
        }
        EXPECT_EQ(fixed->pNormWeights, nullptr);
        EXPECT_EQ(fixed->scale, -29);
        EXPECT_EQ(fixed->flags, GAUSS_SERVER_FVR_W | (full ? KT_GAUSS_FULL : KT_GAUSS_DIAGONAL));
    }
}

TEST(ConvertDown, ElementsThatDoNotFitArePinned) {
    support::CapturedReports reports;
    const struct {
        float value;
        int stored;
    } cases[] = {{32767.0f, 32767},   {32766.999f, 32767 - 1}, {40000, 32767},
                 {1e30f, 32767},      {INFINITY, 32767},       {-32767.0f, -32767},
                 {-32767.5f, -32767}, {-32768.0f, -32767},     {-1e30f, -32767},
                 {-INFINITY, -32767}, {-32766.5f, -32766},     {0.99f, 0},
                 {-0.99f, 0}};
    for (const auto& c : cases) {
        const Server fixed = down(single(1, c.value, 1).server(), -14, 0, 0);
        EXPECT_EQ(ktl::gauss::means<short>(fixed.get())[0][0], c.stored) << c.value;
    }
    EXPECT_EQ(KTGetStatus(), 0);
    EXPECT_EQ(reports.count(), 0u);
}

// 2^1024 and more is beyond a double, and no zero may meet an infinity: neither an element nor
// padding.
TEST(ConvertDown, ZerosStayZeroAtEveryScale) {
    Mixture<float> diagonal;
    diagonal.nDim = 3;
    diagonal.nMix = 2;
    diagonal.weights = {0.0f, 0x1p-149f};
    diagonal.means = {{0.0f, 0x1p-149f, -0x1p-149f}, {-0.0f, 1.0f, -1.0f}};
    Mixture<float> full = diagonal;
    diagonal.diagonals = {{1, 0, 2}, {0, 0, 1e-40f}};
    full.matrices = {{{1, 0, 2}, {0, 0, 0}, {2, 0, 1}}, {{0, 0, -3}, {0, 1, 0}, {-3, 0, 0}}};
    const auto pinned = [](float v) { return v > 0 ? 0x7FFF : v < 0 ? -0x7FFF : 0; };
    for (auto* m : {&diagonal, &full})
        for (const int scale :
             {-1023, -1024, -1025, -1087, -1088, -5000, -16384, INT_MIN + 1, INT_MIN}) {
            const Server fixed = down(m->server(), scale, scale, scale);
            for (std::size_t k = 0; k < 4; ++k)
                EXPECT_EQ(ktl::gauss::weights<short>(fixed.get())[k],
                          k < 2 ? pinned(m->weights[k]) : 0);
            for (std::size_t k = 0; k < 2; ++k)
                for (std::size_t i = 0; i < 4; ++i) {
                    EXPECT_EQ(ktl::gauss::means<short>(fixed.get())[k][i],
                              i < 3 ? pinned(m->means[k][i]) : 0)
                        << scale;
                    if (!m->full()) {
                        EXPECT_EQ(ktl::gauss::diagonals<short>(fixed.get())[k][i],
                                  i < 3 ? pinned(m->diagonals[k][i]) : 0);
                    }
                    for (std::size_t j = 0; m->full() && i < 3 && j < 4; ++j)
                        EXPECT_EQ(ktl::gauss::matrices<short>(fixed.get())[k][i][j],
                                  j < 3 ? pinned(m->matrices[k][i][j]) : 0);
                }
        }
}

// Nor does an infinite element meet a factor that has vanished.
TEST(ConvertDown, InfinitiesArePinnedAtEveryScale) {
    for (const int scale : {-1024, 0, 1023, 1074, 1075, 2000, INT_MAX}) {
        const Server fixed =
            down(single(INFINITY, -INFINITY, INFINITY).server(), scale, scale, scale);
        EXPECT_EQ(ktl::gauss::weights<short>(fixed.get())[0], 0x7FFF) << scale;
        EXPECT_EQ(ktl::gauss::means<short>(fixed.get())[0][0], -0x7FFF) << scale;
        EXPECT_EQ(ktl::gauss::diagonals<short>(fixed.get())[0][0], 0x7FFF) << scale;
    }
}

TEST(ConvertDown, ServerScaleIsThatOfTheForm) {
    EXPECT_EQ(down(single(1, 1, 1).server(), 0, 2, -3)->scale, 1);
    EXPECT_EQ(down(single(1, 1, 1).server(), 0, INT_MAX, 0)->scale, -2); // wraps, defined
}

TEST(ConvertDown, DeterminantFactorGoesIntoTheWeights) {
    auto m = single(0.5f, 1, 0.25f);
    const Server fixed = down(m.server(KT_GAUSS_NORMALIZE), -14, -10, -10);
    EXPECT_EQ(ktl::gauss::weights<short>(fixed.get())[0], 4096); // 0.5 * sqrt(0.25)
    EXPECT_EQ(fixed->flags & KT_GAUSS_NORMALIZE, KT_GAUSS_NORMALIZE);
}

TEST(ConvertDown, ClearsTheFlavourAndTheBlockBitAlone) {
    const Server source = single(1, 1, 1).server();
    source->flags |= KT_GAUSS_BLOCK | KT_GAUSS_RAW | KT_GAUSS_NORMALIZE;
    EXPECT_EQ(down(source, 0, 0, 0)->flags,
              GAUSS_SERVER_FVR_W | KT_GAUSS_DIAGONAL | KT_GAUSS_RAW | KT_GAUSS_NORMALIZE);
    EXPECT_EQ(source->flags & KT_GAUSS_BLOCK, KT_GAUSS_BLOCK);
}

TEST(ConvertUp, MultipliesByTwoToTheMinusScale) {
    Mixture<short> m;
    m.nDim = 2;
    m.nMix = 1;
    m.weights = {16384};
    m.means = {{100, -200}};
    m.diagonals = {{3, 5}};
    const Server source = m.server(0, -9);
    const Server s = up(source, 14, 2, -1);
    EXPECT_EQ(s->pNormWeights[0], 1.0f);
    EXPECT_EQ(ktl::gauss::weights<float>(s.get())[0], 1.0f);
    EXPECT_EQ(ktl::gauss::means<float>(s.get())[0][0], 25.0f);
    EXPECT_EQ(ktl::gauss::means<float>(s.get())[0][1], -50.0f);
    EXPECT_EQ(ktl::gauss::diagonals<float>(s.get())[0][1], 10.0f);
    EXPECT_EQ(s->scale, 0);
    EXPECT_EQ(s->flags, GAUSS_SERVER_FVR_S | KT_GAUSS_DIAGONAL);
}

TEST(ConvertUp, RestoresThePlainWeights) {
    std::mt19937 random(62);
    for (const bool full : {false, true}) {
        auto m = randomFixedMixture(random, 5, 3, full);
        const Server s = up(m.server(KT_GAUSS_NORMALIZE, 0), 14, 0, 3);
        for (std::size_t k = 0; k < 3; ++k) {
            double det = 1;
            if (full)
                oracle::inverse(wide(m.matrices[k]), &det);
            else
                for (const short v : m.diagonals[k])
                    det *= v;
            det = std::fabs(det) * std::pow(2.0, -15); // five factors of 2^-3
            const double norm = m.weights[k] * 0x1p-14;
            EXPECT_EQ(s->pNormWeights[k], float(norm));
            const double plain = det == 0 ? norm : norm / std::sqrt(det);
            EXPECT_NEAR(ktl::gauss::weights<float>(s.get())[k], plain,
                        plain * (full ? 1e-3 : 0x1p-22));
        }
    }
}

// 40 elements of 2^-34: the determinant is 2^-1360, no double, and the weight 5 / 2^-680, no float.
TEST(ConvertUp, ADeterminantBelowADoubleIsNotZero) {
    for (const bool full : {false, true}) {
        Mixture<short> m;
        m.nDim = 40;
        m.nMix = 2;
        m.weights = {5, -5};
        m.means.assign(2, std::vector<short>(40, 0));
        m.diagonals.assign(2, std::vector<short>(40, 1));
        Rows<short> identity(40, std::vector<short>(40, 0));
        for (std::size_t i = 0; i < 40; ++i)
            identity[i][i] = 1;
        if (full) m.matrices.assign(2, identity);
        const Server s = up(m.server(KT_GAUSS_NORMALIZE, 0), 0, 0, 34);
        EXPECT_EQ(s->pNormWeights[0], 5.0f);
        EXPECT_EQ(ktl::gauss::weights<float>(s.get())[0], INFINITY);
        EXPECT_EQ(ktl::gauss::weights<float>(s.get())[1], -INFINITY);
    }
}

TEST(ConvertUp, ADeterminantOfZeroLeavesTheWeight) {
    for (const bool full : {false, true}) {
        Mixture<short> m;
        m.nDim = 2;
        m.nMix = 1;
        m.weights = {16384};
        m.means = {{0, 0}};
        m.diagonals = {{0, 5}};
        if (full) m.matrices = {{{1, 1}, {1, 1}}};
        const Server s = up(m.server(KT_GAUSS_NORMALIZE, 0), 14, 0, 0);
        EXPECT_EQ(ktl::gauss::weights<float>(s.get())[0], 1.0f);
    }
}

TEST(ConvertUp, ClearsTheBlockBit) {
    std::mt19937 random(63);
    auto m = randomFixedMixture(random, 5, 2, true);
    const Server source = m.server(KT_GAUSS_NORMALIZE), plain = up(source, 0, 0, 0);
    source->flags |= KT_GAUSS_BLOCK;
    const Server s = up(source, 0, 0, 0);
    EXPECT_EQ(s->flags & KT_GAUSS_BLOCK, 0);
    // The bit has no say in the determinant.
    for (int k = 0; k < 2; ++k)
        EXPECT_EQ(ktl::gauss::weights<float>(s.get())[k],
                  ktl::gauss::weights<float>(plain.get())[k]);
}

TEST(Convert, ThereAndBackKeepsTheObservations) {
    float a[] = {1, 5}, b[] = {2, 4}, c[] = {0, 0};
    float* rows[] = {a, b, c};
    for (const int flags : {0, KT_GAUSS_FULL}) {
        const Server built(KTsBuildGaussMixServer(rows, 3, 2, flags));
        const Server fixed = down(built, -14, -8, -8);
        EXPECT_EQ(fixed->nObservations, 3);
        EXPECT_EQ(up(fixed, 14, 8, 8)->nObservations, 3);
    }
}

TEST(Convert, RefusesTheFlavourThatItMakes) {
    std::mt19937 random(64);
    auto words = randomFixedMixture(random, 2, 2, false);
    const Server fixed = words.server(), floats = single(1, 1, 1).server();
    {
        support::CapturedReports reports;
        EXPECT_EQ(down(fixed, 0, 0, 0), nullptr);
        expectReport(reports, -5, "flser->flags&GAUSS_SERVER_FVR_W", "KTswConvertGaussMixfServer");
    }
    support::CapturedReports reports;
    EXPECT_EQ(up(floats, 0, 0, 0), nullptr);
    expectReport(reports, -5, "shser->flags&GAUSS_SERVER_FVR_S", "KTwsConvertGaussMixfServer");
}

// Whatever became of their flags: a fixed server has no normalised weights to convert.
TEST(Convert, GoesByWhatIsThereWhereFlagsAreLost) {
    std::mt19937 random(68);
    auto words = randomFixedMixture(random, 2, 2, false);
    const Server fixed = words.server(), floats = single(1, 1, 1).server();
    fixed->flags = floats->flags = 0;
    {
        support::CapturedReports reports;
        EXPECT_EQ(down(fixed, 0, 0, 0), nullptr);
        expectReport(reports, -5, "flser->flags&GAUSS_SERVER_FVR_W", "KTswConvertGaussMixfServer");
    }
    support::CapturedReports reports;
    EXPECT_EQ(up(floats, 0, 0, 0), nullptr);
    expectReport(reports, -5, "shser->flags&GAUSS_SERVER_FVR_S", "KTwsConvertGaussMixfServer");
}

TEST(Convert, RefusesServersWithBothOrNeitherCovariance) {
    const char text[] = "One of InverseCov or InverseCovD must be NULL and the other non NULL";
    std::mt19937 random(65);
    auto words = randomFixedMixture(random, 2, 2, false);
    const Server fixed = words.server(), floats = single(1, 1, 1).server();
    for (const bool both : {false, true}) {
        for (GaussMixServer* s : {fixed.get(), floats.get()}) {
            void* const kept = s->ppInverseCovD;
            if (both)
                s->pppInverseCov = kept;
            else
                s->ppInverseCovD = nullptr;
            support::CapturedReports reports;
            if (s == fixed.get()) {
                EXPECT_EQ(KTwsConvertGaussMixServer(s, 0, 0, 0), nullptr);
                expectReport(reports, -5, text, "KTwsConvertGaussMixfServer");
            } else {
                EXPECT_EQ(KTswConvertGaussMixServer(s, 0, 0, 0), nullptr);
                expectReport(reports, -5, text, "KTswConvertGaussMixfServer");
            }
            s->ppInverseCovD = kept;
            s->pppInverseCov = nullptr;
        }
    }
    EXPECT_EQ(KTswConvertGaussMixServer(nullptr, 0, 0, 0), nullptr);
    EXPECT_EQ(KTwsConvertGaussMixServer(nullptr, 0, 0, 0), nullptr);
}

TEST(Convert, ExhaustionIsReportedUnderTheInitialisersName) {
    std::mt19937 random(66);
    auto words = randomFixedMixture(random, 3, 2, true);
    const Server fixed = words.server(KT_GAUSS_NORMALIZE), floats = single(1, 1, 1).server();
    support::CapturedReports reports;
    const int failures = support::alloc::failEach(
        [&] { down(floats, 0, 0, 0); },
        [&] {
            expectReport(reports, -4, "insufficiency of memory for pointer  ptr",
                         "KTsInitGaussMixServer");
        });
    EXPECT_EQ(failures, 1);
    for (int failAt = 1; failAt <= 3; ++failAt) {
        support::CapturedReports again;
        const long before = support::alloc::liveBlocks();
        support::alloc::arm(failAt);
        const auto* s = KTwsConvertGaussMixServer(fixed.get(), 0, 0, 0);
        support::alloc::disarm();
        ASSERT_EQ(s, nullptr) << failAt;
        expectReport(again, -4,
                     failAt == 1 ? "insufficiency of memory for pointer  ptr"
                                 : "insufficiency of memory for pointer  ptr2",
                     "KTsInitGaussMixServer");
        EXPECT_LE(support::alloc::liveBlocks(), before + 4); // the report's own strings
    }
}

// Only a full matrix needs a copy for its determinant.
TEST(Convert, DiagonalServersTakeOneBlock) {
    std::mt19937 random(67);
    auto words = randomFixedMixture(random, 3, 2, false);
    const Server fixed = words.server(KT_GAUSS_NORMALIZE);
    support::alloc::arm(0);
    const Server floats = up(fixed, 0, 0, 0);
    support::alloc::disarm();
    EXPECT_NE(floats, nullptr);
    EXPECT_EQ(support::alloc::allocations(), 1);
}

TEST(Convert, ScalesAtTheEndsOfTheirRange) {
    const Server floats = single(1, -2, 3).server();
    for (const int scale : {INT_MIN, -INT_MAX, INT_MIN / 2}) { // every element is beyond 16 bits
        const Server fixed = down(floats, scale, scale, scale);
        ASSERT_NE(fixed, nullptr);
        EXPECT_EQ(ktl::gauss::weights<short>(fixed.get())[0], 0x7FFF);
        EXPECT_EQ(ktl::gauss::means<short>(fixed.get())[0][0], -0x7FFF);
        EXPECT_EQ(fixed->scale, int(3u * unsigned(scale)));
    }
    for (const int scale : {INT_MAX, 2000}) {
        const Server fixed = down(floats, scale, scale, scale);
        ASSERT_NE(fixed, nullptr);
        EXPECT_EQ(ktl::gauss::weights<short>(fixed.get())[0], 0);
        EXPECT_EQ(ktl::gauss::means<short>(fixed.get())[0][0], 0);
    }
}
