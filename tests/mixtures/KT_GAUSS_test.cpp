#include "frame/context.h"
#include "mixtures/mixtures.h"
#include "support/alloc_faults.h"
#include "support/reports.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <thread>

using namespace mixtures;

namespace {

constexpr char bothOrNeither[] =
    "One of InverseCov or InverseCovD must be NULL and the other non NULL";
constexpr char noBlock[] = "insufficiency of memory for pointer  ptr";
constexpr char noTable[] = "insufficiency of memory for pointer  ptr2";

// The image's size by its definition, for shapes whose products fit.
int imageBytes(int nDim, int nMix, bool full, int e) {
    const int dimPad = (nDim + 3) / 4 * 4, mixPad = (nMix + 3) / 4 * 4;
    const int means = nMix * dimPad * e + mixPad * 4;
    const int covariance = full ? nDim * nMix * dimPad * e + nMix * dimPad * 4 + mixPad * 4 : means;
    return 0x3f + means + covariance + mixPad * (e == 4 ? 12 : 6);
}

void expectReport(const support::CapturedReports& reports, int status, const char* text,
                  const char* name) {
    ASSERT_EQ(reports.count(), 1u);
    EXPECT_EQ(reports[0].status, status);
    EXPECT_EQ(reports[0].message, text);
    EXPECT_EQ(reports[0].function, name);
    EXPECT_EQ(reports[0].source, "..\\_LIBSRC\\KT_GAUSS");
    EXPECT_EQ(KTGetStatus(), status);
}

std::uintptr_t address(const void* p) {
    return reinterpret_cast<std::uintptr_t>(p);
}

} // namespace

TEST(GaussServer, PaddingRoundsUpToFours) {
    EXPECT_EQ(ktl::gauss::padded(13), 16);
    EXPECT_EQ(ktl::gauss::padded(3), 4);
    EXPECT_EQ(ktl::gauss::padded(16), 16);
    EXPECT_EQ(ktl::gauss::padded(14), 16);
    EXPECT_EQ(ktl::gauss::padded(1), 4);
}

TEST(GaussServer, FloatBlockFollowsTheLayout) {
    std::mt19937 random(1);
    for (const bool full : {false, true})
        for (const auto& [nDim, nMix] : {std::pair{13, 3}, {16, 4}, {1, 1}, {39, 8}}) {
            auto mixture = randomMixture(random, nDim, nMix, full);
            const Server server = mixture.server(0x1234 & ~KT_GAUSS_NORMALIZE);
            const auto* s = server.get();
            ASSERT_NE(s, nullptr);
            const int dimPad = (nDim + 3) / 4 * 4, mixPad = (nMix + 3) / 4 * 4;
            EXPECT_EQ(address(s->pNormWeights) % 16, 0u);
            EXPECT_GE(address(s->pNormWeights), address(s + 1));
            EXPECT_EQ(s->pWork, s->pNormWeights + mixPad);
            EXPECT_EQ(s->pWeights, s->pNormWeights + 2 * mixPad);
            EXPECT_EQ(s->ppMeans, static_cast<void*>(s->pNormWeights + 3 * mixPad));
            float** rows = ktl::gauss::means<float>(s);
            EXPECT_EQ(static_cast<void*>(rows[0]), static_cast<void*>(rows + mixPad));
            for (int k = 0; k < nMix; ++k)
                EXPECT_EQ(rows[k], rows[0] + k * dimPad);
            void* behind = rows[0] + nMix * dimPad;
            if (full) {
                float*** tables = ktl::gauss::matrices<float>(s);
                EXPECT_EQ(behind, static_cast<void*>(tables));
                EXPECT_EQ(static_cast<void*>(tables[0]), static_cast<void*>(tables + mixPad));
                for (int k = 0; k < nMix; ++k) {
                    EXPECT_EQ(tables[k], tables[0] + k * dimPad);
                    for (int i = 0; i < nDim; ++i)
                        EXPECT_EQ(tables[k][i], tables[0][0] + (k * nDim + i) * dimPad);
                }
                EXPECT_EQ(static_cast<void*>(tables[0][0]),
                          static_cast<void*>(tables[0] + nMix * dimPad));
                EXPECT_EQ(s->ppInverseCovD, nullptr);
            } else {
                EXPECT_EQ(behind, s->ppInverseCovD);
                float** table = ktl::gauss::diagonals<float>(s);
                EXPECT_EQ(static_cast<void*>(table[0]), static_cast<void*>(table + mixPad));
                EXPECT_EQ(s->pppInverseCov, nullptr);
            }
            EXPECT_EQ(s->flags, GAUSS_SERVER_FVR_S | (full ? KT_GAUSS_FULL : KT_GAUSS_DIAGONAL));
            EXPECT_EQ(s->nBytes, imageBytes(nDim, nMix, full, 4));
            EXPECT_EQ(s->nObservations, 1);
            EXPECT_EQ(s->scale, 0);
        }
}

TEST(GaussServer, FixedBlockFollowsTheLayout) {
    std::mt19937 random(2);
    for (const bool full : {false, true})
        for (const auto& [nDim, nMix] : {std::pair{13, 3}, {16, 4}, {2, 5}}) {
            auto mixture = randomFixedMixture(random, nDim, nMix, full);
            const Server server = mixture.server(KT_GAUSS_NORMALIZE | KT_GAUSS_RAW, -7);
            const auto* s = server.get();
            ASSERT_NE(s, nullptr);
            const int dimPad = (nDim + 3) / 4 * 4, mixPad = (nMix + 3) / 4 * 4;
            EXPECT_EQ(s->pNormWeights, nullptr);
            EXPECT_EQ(address(s->pWork) % 16, 0u);
            EXPECT_EQ(s->pWeights, static_cast<void*>(static_cast<int*>(s->pWork) + mixPad));
            short** rows = ktl::gauss::means<short>(s);
            EXPECT_EQ(s->ppMeans, static_cast<void*>(ktl::gauss::weights<short>(s) + mixPad));
            for (int k = 0; k < nMix; ++k) {
                EXPECT_EQ(address(rows[k]) % 8, 0u);
                EXPECT_EQ(rows[k], rows[0] + k * dimPad);
            }
            EXPECT_EQ(s->flags, GAUSS_SERVER_FVR_W | KT_GAUSS_NORMALIZE |
                                    (full ? KT_GAUSS_FULL : KT_GAUSS_DIAGONAL));
            EXPECT_EQ(s->nBytes, imageBytes(nDim, nMix, full, 2));
            EXPECT_EQ(s->scale, -7);
        }
}

TEST(GaussServer, InputsAreCopiedAndPaddingIsZero) {
    std::mt19937 random(3);
    for (const bool full : {false, true}) {
        auto mixture = randomMixture(random, 13, 3, full);
        const auto original = mixture;
        const Server server = mixture.server();
        mixture.weights.assign(3, -1);
        for (auto& row : mixture.means)
            row.assign(13, -1);
        for (int k = 0; k < 4; ++k)
            EXPECT_EQ(ktl::gauss::weights<float>(server.get())[k],
                      k < 3 ? original.weights[std::size_t(k)] : 0.0f);
        for (std::size_t k = 0; k < 3; ++k)
            for (std::size_t i = 0; i < 16; ++i) {
                EXPECT_EQ(ktl::gauss::means<float>(server.get())[k][i],
                          i < 13 ? original.means[k][i] : 0.0f);
                for (std::size_t j = 0; full && i < 13 && j < 16; ++j)
                    EXPECT_EQ(ktl::gauss::matrices<float>(server.get())[k][i][j],
                              j < 13 ? original.matrices[k][i][j] : 0.0f);
                if (!full) {
                    EXPECT_EQ(ktl::gauss::diagonals<float>(server.get())[k][i],
                              i < 13 ? original.diagonals[k][i] : 0.0f);
                }
            }
    }
}

TEST(GaussServer, NormalizeFoldsTheDeterminantIntoTheWeights) {
    std::mt19937 random(4);
    for (const bool full : {false, true})
        for (const int n : {1, 2, 3, 7, 13}) {
            auto mixture = randomMixture(random, n, 5, full);
            const Server server = mixture.server(KT_GAUSS_NORMALIZE);
            EXPECT_EQ(server->flags & KT_GAUSS_NORMALIZE, KT_GAUSS_NORMALIZE);
            for (std::size_t k = 0; k < 5; ++k) {
                double det = 1;
                if (full)
                    oracle::inverse(wide(mixture.matrices[k]), &det);
                else
                    for (const float v : mixture.diagonals[k])
                        det *= double(v);
                const double expected = double(mixture.weights[k]) * std::sqrt(std::fabs(det));
                // Diagonals round once. Elimination in float: n^2 roundings of 2^-24 on elements
                // whose growth the positive definite matrices bound, against pivots of at least
                // 0.5.
                const double tolerance = full ? expected * n * n * 0x1p-20 : expected * 0x1p-23;
                EXPECT_NEAR(double(server->pNormWeights[k]), expected, tolerance) << n;
                EXPECT_EQ(ktl::gauss::weights<float>(server.get())[k], mixture.weights[k]);
            }
        }
}

TEST(GaussServer, DeterminantOfManyFactorsNeitherOverflowsNorUnderflowsOnTheWay) {
    Mixture<float> m;
    m.nDim = 40;
    m.nMix = 1;
    m.weights = {1};
    m.means = {std::vector<float>(40, 0)};
    m.diagonals = {std::vector<float>(40, 1e-30f)};
    for (std::size_t i = 20; i < 40; ++i)
        m.diagonals[0][i] = 1e30f; // 10^-600 first, then back to 1
    const Server server = m.server(KT_GAUSS_NORMALIZE);
    EXPECT_NEAR(server->pNormWeights[0], 1.0f,
                1e-5f); // the floats nearest 10^30 and 10^-30, to the power of 20
}

TEST(GaussServer, FullDeterminantOfManyFactorsNeitherOverflowsNorUnderflowsOnTheWay) {
    for (const bool largeFirst : {false, true}) {
        Mixture<float> m;
        m.nDim = 40;
        m.nMix = 1;
        m.weights = {1};
        m.means = {std::vector<float>(40, 0)};
        m.matrices = {Rows<float>(40, std::vector<float>(40, 0))};
        // 10^380 or 10^-380 first, then back to 1; no pivot below 10^-20
        for (std::size_t i = 0; i < 40; ++i)
            m.matrices[0][i][i] = (i < 20) == largeFirst ? 1e19f : 1e-19f;
        const Server server = m.server(KT_GAUSS_NORMALIZE);
        // their floats are within 2^-24, 20 times each
        EXPECT_NEAR(server->pNormWeights[0], 1.0f, 1e-5f);
    }
}

// The determinant is 2^1080, beyond a double; a mixture of weight 0 counts nothing all the same.
TEST(GaussServer, AWeightOfZeroStaysZeroWhateverTheDeterminant) {
    for (const bool full : {false, true}) {
        Mixture<float> m;
        m.nDim = 40;
        m.nMix = 2;
        m.weights = {0, 1};
        m.means.assign(2, std::vector<float>(40, 0.0f));
        Rows<float> wide(40, std::vector<float>(40, 0.0f)), unit = wide;
        for (std::size_t i = 0; i < 40; ++i) {
            wide[i][i] = 0x1p27f;
            unit[i][i] = 1;
        }
        if (full)
            m.matrices = {wide, unit};
        else
            m.diagonals = {std::vector<float>(40, 0x1p27f), std::vector<float>(40, 1.0f)};
        const Server server = m.server(KT_GAUSS_NORMALIZE);
        EXPECT_EQ(server->pNormWeights[0], 0.0f);
        EXPECT_EQ(KTsEvalGaussMix(server.get(), m.means[0].data(), 40), 1.0);
    }
}

TEST(GaussServer, SingularFullMatrixGetsANormalisedWeightOfZero) {
    Mixture<float> m;
    m.nDim = 3;
    m.nMix = 1;
    m.weights = {0.5f};
    m.means = {{1, 2, 3}};
    m.matrices = {{{1, 2, 3}, {2, 4, 6}, {3, 6, 9}}};
    const Server server = m.server(KT_GAUSS_NORMALIZE);
    ASSERT_NE(server, nullptr);
    EXPECT_EQ(server->pNormWeights[0], 0.0f);
    EXPECT_EQ(ktl::gauss::weights<float>(server.get())[0], 0.5f);
}

TEST(GaussServer, PivotBelowTheLimitMeansADeterminantOfZero) {
    Mixture<float> m;
    m.nDim = 2;
    m.nMix = 2;
    m.weights = {1, 1};
    m.means = {{0, 0}, {0, 0}};
    m.matrices = {{{1e20f, 0}, {0, 1e-20f}}, {{1e20f, 0}, {0, 0.99e-20f}}};
    const Server server = m.server(KT_GAUSS_NORMALIZE);
    // the float 1e-20 is the limit itself and passes
    EXPECT_NEAR(server->pNormWeights[0], 1.0f, 1e-6f);
    EXPECT_EQ(server->pNormWeights[1], 0.0f);
}

TEST(GaussServer, ZeroWeightStaysInTheServer) {
    std::mt19937 random(5);
    auto mixture = randomMixture(random, 4, 3, false);
    mixture.weights[1] = 0;
    const Server server = mixture.server();
    EXPECT_EQ(server->nMix, 3);
    EXPECT_EQ(server->pNormWeights[1], 0.0f);
}

TEST(GaussServer, FreeingNullIsHarmless) {
    KTsFreeGaussMixServer(nullptr);
    KTwFreeGaussMixServer(nullptr);
}

TEST(GaussServer, ServersAreOneBlock) {
    std::mt19937 random(6);
    auto mixture = randomMixture(random, 13, 3, true);
    support::alloc::arm(0);
    const long before = support::alloc::liveBlocks();
    GaussMixServer* server = mixture.server().release();
    support::alloc::disarm();
    EXPECT_EQ(support::alloc::liveBlocks(), before + 1);
    KTwFreeGaussMixServer(server);
    EXPECT_EQ(support::alloc::liveBlocks(), before);
}

TEST(GaussServer, BothOrNeitherCovarianceIsRefused) {
    support::CapturedReports reports;
    float weight = 1, row[1] = {1};
    float* rows[] = {row};
    float** tables[] = {rows};
    EXPECT_EQ(KTsInitGaussMixServer(&weight, rows, tables, rows, 1, 1, 0), nullptr);
    expectReport(reports, -5, bothOrNeither, "KTsInitGaussMixServer");
    reports.clear();
    support::CapturedReports again;
    EXPECT_EQ(KTsInitGaussMixServer(&weight, rows, nullptr, nullptr, 1, 1, 0), nullptr);
    expectReport(again, -5, bothOrNeither, "KTsInitGaussMixServer");
}

TEST(GaussServer, FixedBothOrNeitherCovarianceIsRefused) {
    short weight = 1, row[1] = {1};
    short* rows[] = {row};
    short** tables[] = {rows};
    for (const bool both : {false, true}) {
        support::CapturedReports reports;
        EXPECT_EQ(KTwInitGaussMixServer(&weight, rows, both ? tables : nullptr,
                                        both ? rows : nullptr, 1, 1, 0, 0),
                  nullptr);
        expectReport(reports, -5, bothOrNeither, "KTwInitGaussMixServer");
    }
}

TEST(GaussServer, ExhaustionIsReportedAndNothingStaysAllocated) {
    std::mt19937 random(7);
    auto floats = randomMixture(random, 13, 3, true);
    auto words = randomFixedMixture(random, 13, 3, false);
    KTFreeGaussTbls();
    for (const char* text : {noBlock, noTable}) {
        support::CapturedReports reports;
        auto rows = floats;
        const long before = support::alloc::liveBlocks();
        std::vector<float*> means = pointers(rows.means);
        std::vector<std::vector<float*>> matrixRows;
        for (auto& matrix : rows.matrices)
            matrixRows.push_back(pointers(matrix));
        std::vector<float**> tables;
        for (auto& table : matrixRows)
            tables.push_back(table.data());
        support::alloc::arm(text == noBlock ? 1 : 2);
        const auto* server = KTsInitGaussMixServer(rows.weights.data(), means.data(), tables.data(),
                                                   nullptr, 13, 3, KT_GAUSS_NORMALIZE);
        support::alloc::disarm();
        EXPECT_EQ(server, nullptr);
        expectReport(reports, -4, text, "KTsInitGaussMixServer");
        tables = {};
        matrixRows = {};
        means = {};
        EXPECT_LE(support::alloc::liveBlocks(), before);
        EXPECT_EQ(KTGetContext()->gaussBuffer, nullptr);
        EXPECT_EQ(KTGetContext()->gaussBufferLen, 0);
    }
    support::CapturedReports reports;
    auto means = pointers(words.means), diagonals = pointers(words.diagonals);
    support::alloc::arm(1);
    const auto* server = KTwInitGaussMixServer(words.weights.data(), means.data(), nullptr,
                                               diagonals.data(), 13, 3, 0, 0);
    support::alloc::disarm();
    EXPECT_EQ(server, nullptr);
    expectReport(reports, -4, noBlock, "KTwInitGaussMixServer");
}

TEST(GaussServer, ShapesThatNoBlockCanHoldAreRefused) {
    float weight = 1, row[1] = {1};
    float* rows[] = {row};
    for (const int n : {0, -1, INT_MIN}) {
        support::CapturedReports reports;
        EXPECT_EQ(KTsInitGaussMixServer(&weight, rows, nullptr, rows, n, 1, 0), nullptr);
        EXPECT_EQ(KTsInitGaussMixServer(&weight, rows, nullptr, rows, 1, n, 0), nullptr);
        EXPECT_EQ(reports.count(), 0u);
    }
    for (const auto& [nDim, nMix] :
         {std::pair{INT_MAX, 1}, {1, INT_MAX}, {INT_MAX, INT_MAX}, {65536, 65536}}) {
        support::CapturedReports reports;
        EXPECT_EQ(KTsInitGaussMixServer(&weight, rows, nullptr, rows, nDim, nMix, 0), nullptr);
        expectReport(reports, -4, noBlock, "KTsInitGaussMixServer");
    }
}

TEST(GaussTables, GrowOnlyWhenTheDimensionDoes) {
    std::mt19937 random(8);
    KTFreeGaussTbls();
    auto small = randomMixture(random, 5, 2, true), large = randomMixture(random, 9, 2, true);
    small.server(KT_GAUSS_NORMALIZE);
    const KTContext* context = KTGetContext();
    EXPECT_EQ(context->gaussBufferLen, 5);
    large.server(KT_GAUSS_NORMALIZE);
    EXPECT_EQ(context->gaussBufferLen, 9);
    const void* kept = context->gaussBuffer;
    const Server again = small.server(KT_GAUSS_NORMALIZE);
    EXPECT_EQ(context->gaussBuffer, kept);
    EXPECT_EQ(context->gaussBufferLen, 9);
    // A larger table's rows serve a smaller matrix as well.
    double det = 0;
    oracle::inverse(wide(small.matrices[0]), &det);
    EXPECT_NEAR(double(again->pNormWeights[0]), double(small.weights[0]) * std::sqrt(det), 1e-4);
    KTFreeGaussTbls();
    EXPECT_EQ(context->gaussBuffer, nullptr);
    EXPECT_EQ(context->gaussBufferLen, 0);
    EXPECT_EQ(context->trainBuffer, nullptr);
    EXPECT_EQ(context->trainBufferLen, 0);
    KTFreeGaussTbls();
}

TEST(GaussTables, AreTheThreadsOwn) {
    std::mt19937 random(9);
    auto mixture = randomMixture(random, 6, 2, true);
    KTFreeGaussTbls();
    mixture.server(KT_GAUSS_NORMALIZE);
    const void* mine = KTGetContext()->gaussBuffer;
    std::thread([&] {
        auto copy = mixture;
        copy.server(KT_GAUSS_NORMALIZE);
        EXPECT_NE(KTGetContext()->gaussBuffer, mine);
        KTFreeGaussTbls();
        EXPECT_EQ(KTGetContext()->gaussBuffer, nullptr);
    }).join();
    EXPECT_EQ(KTGetContext()->gaussBuffer, mine);
    KTFreeGaussTbls();
}
