#include "frame/context.h"
#include "mixtures/mixtures.h"
#include "support/alloc_faults.h"
#include "support/every_level.h"
#include "support/reports.h"

#include <gtest/gtest.h>

#include <climits>

using namespace mixtures;

namespace {

template <class T>
Server build(Rows<T> data, int nDim, int flags) {
    auto rows = pointers(data);
    if constexpr (std::is_same_v<T, float>)
        return Server(KTsBuildGaussMixServer(rows.data(), int(rows.size()), nDim, flags));
    else
        return Server(KTwBuildGaussMixServer(rows.data(), int(rows.size()), nDim, flags));
}

template <class T>
Server train(const Server& old, Rows<T> data, int nDim) {
    auto rows = pointers(data);
    if constexpr (std::is_same_v<T, float>)
        return Server(KTsTrainGaussMixServer(old.get(), rows.data(), int(rows.size()), nDim));
    else
        return Server(KTwTrainGaussMixServer(old.get(), rows.data(), int(rows.size()), nDim));
}

Rows<float> floatData(std::mt19937& random, int count, int nDim) {
    std::normal_distribution<float> normal;
    Rows<float> data;
    for (int t = 0; t < count; ++t) {
        data.emplace_back();
        for (int i = 0; i < nDim; ++i)
            data.back().push_back(normal(random) +
                                  (i > 0 ? 0.5f * data.back()[std::size_t(i - 1)] : 0.25f));
    }
    return data;
}

Rows<short> wordData(std::mt19937& random, int count, int nDim, int range) {
    Rows<short> data;
    for (int t = 0; t < count; ++t)
        data.push_back(randomWords(random, nDim, range));
    return data;
}

float diagonalAt(const Server& s, int i) {
    return ktl::gauss::diagonals<float>(s.get())[0][i];
}
float matrixAt(const Server& s, int i, int j) {
    return ktl::gauss::matrices<float>(s.get())[0][i][j];
}
float meanAt(const Server& s, int i) {
    return ktl::gauss::means<float>(s.get())[0][i];
}

// The float arithmetic of the one pass, one sum after the other; what the library's bits are
// compared with.
struct OnePass {
    std::vector<float> mean;
    Rows<float> covariance;
};
template <class T>
OnePass onePass(const Rows<T>& data) {
    const std::size_t n = data[0].size();
    const float count = float(data.size()), invN = 1.0f / count, invN1 = 1.0f / (count - 1.0f);
    OnePass r{std::vector<float>(n, 0), Rows<float>(n, std::vector<float>(n, 0))};
    for (std::size_t i = 0; i < n; ++i) {
        for (const auto& x : data)
            r.mean[i] += float(x[i]);
        r.mean[i] *= invN;
    }
    for (std::size_t i = 0; i < n; ++i)
        for (std::size_t j = 0; j < n; ++j) {
            const std::size_t a = std::max(i, j), b = std::min(i, j);
            float sum = -count * r.mean[a];
            sum *= r.mean[b];
            for (const auto& x : data) {
                const float product = float(x[a] * x[b]);
                sum += product;
            }
            r.covariance[i][j] = sum * invN1;
        }
    return r;
}

template <class T>
void expectOnePass(const Rows<T>& data) {
    const int n = int(data[0].size());
    const OnePass expected = onePass(data);
    const Server full = build(data, n, KT_GAUSS_FULL), diagonal = build(data, n, 0);
    for (int i = 0; i < n; ++i) {
        const auto row = std::size_t(i);
        ASSERT_EQ(meanAt(full, i), expected.mean[row]);
        ASSERT_EQ(meanAt(diagonal, i), expected.mean[row]);
        ASSERT_EQ(diagonalAt(diagonal, i), expected.covariance[row][row]) << i;
        for (int j = 0; j < n; ++j)
            ASSERT_EQ(matrixAt(full, i, j), expected.covariance[row][std::size_t(j)])
                << n << ": " << i << " " << j;
    }
}

} // namespace

TEST(Build, TwoVectors) {
    for (const int flags : {0, KT_GAUSS_FULL}) {
        const Server s = build<float>({{0}, {2}}, 1, flags), w = build<short>({{0}, {2}}, 1, flags);
        for (const Server* server : {&s, &w}) {
            EXPECT_EQ(meanAt(*server, 0), 1.0f);
            EXPECT_EQ(flags != 0 ? matrixAt(*server, 0, 0) : diagonalAt(*server, 0), 2.0f);
        }
    }
}

TEST(Build, FillsTheFields) {
    for (const int flags : {0, KT_GAUSS_FULL, KT_GAUSS_NORMALIZE | KT_GAUSS_DIAGONAL, 0x7FFFFFFF}) {
        const bool full = (flags & KT_GAUSS_FULL) != 0;
        const Server s = build<float>({{0, 1, 5}, {2, 7, 1}, {3, 3, 3}}, 3, flags);
        EXPECT_EQ(s->flags,
                  GAUSS_SERVER_FVR_S | KT_GAUSS_RAW | (full ? KT_GAUSS_FULL : KT_GAUSS_DIAGONAL));
        EXPECT_EQ(s->nMix, 1);
        EXPECT_EQ(s->nDim, 3);
        EXPECT_EQ(s->scale, 0);
        EXPECT_EQ(s->nObservations, 3);
        EXPECT_EQ(s->nBytes, 4 * 4 + 0x7f + (full ? 3 * 4 * 4 + 0x10 + 4 * 4 : 4 * 4 + 0x10));
        EXPECT_EQ(s->pNormWeights[0], 1.0f);
        EXPECT_EQ(ktl::gauss::weights<float>(s.get())[0], 1.0f);
    }
}

TEST(Build, IsTheOnePassInFloatToTheBitOnEveryLevel) {
    support::onEveryLevel([] {
        std::mt19937 random(51);
        for (const int n : {1, 2, 3, 4, 5, 7, 8, 9, 15, 16, 17, 31, 33, 39, 50})
            for (const int count : {2, 3, 5, 64, 300}) {
                expectOnePass(floatData(random, count, n));
                expectOnePass(wordData(random, count, n, 32767));
            }
    });
}

TEST(Build, AgreesWithTwoPasses) {
    std::mt19937 random(52);
    const auto data = floatData(random, 500, 13);
    const auto expected = oracle::covariance(wide(data)),
               m = oracle::Matrix{oracle::mean(wide(data))};
    const Server full = build(data, 13, KT_GAUSS_FULL);
    // 500 sequential float sums of terms below 30.
    const double tolerance = 500 * 30 * 0x1p-24;
    for (int i = 0; i < 13; ++i) {
        EXPECT_NEAR(meanAt(full, i), m[0][std::size_t(i)], tolerance);
        for (int j = 0; j < 13; ++j)
            EXPECT_NEAR(matrixAt(full, i, j), expected[std::size_t(i)][std::size_t(j)], tolerance);
    }
}

TEST(Build, FillsEveryPairOfAnOddDimension) {
    std::mt19937 random(53);
    for (const int n : {1, 3, 5, 7, 13}) {
        const auto data = floatData(random, 40, n);
        const auto expected = oracle::covariance(wide(data));
        const Server s = build(data, n, KT_GAUSS_FULL);
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) {
                EXPECT_NEAR(matrixAt(s, i, j), expected[std::size_t(i)][std::size_t(j)], 1e-4);
                EXPECT_EQ(matrixAt(s, i, j), matrixAt(s, j, i));
            }
    }
}

TEST(Build, ProductsOfWordsAreExactIntegersFirst) {
    // 32767 * 32765 needs 30 bits: rounded once, to float.
    const Server s = build<short>({{32767, 32765}, {-32768, 3}}, 2, KT_GAUSS_FULL);
    const OnePass expected = onePass<short>({{32767, 32765}, {-32768, 3}});
    EXPECT_EQ(matrixAt(s, 1, 0), expected.covariance[1][0]);
}

TEST(Build, OneVectorGivesNoFiniteVariance) {
    support::CapturedReports reports;
    const Server s = build<float>({{3, 4}}, 2, 0);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(meanAt(s, 0), 3.0f);
    EXPECT_FALSE(std::isfinite(diagonalAt(s, 0)));
    EXPECT_EQ(reports.count(), 0u);
}

TEST(Build, NoVectorsGiveNotANumber) {
    support::CapturedReports reports;
    for (const int n : {0, -1, INT_MIN}) { // a negative number counts as 0
        const Server s(KTsBuildGaussMixServer(nullptr, n, 2, 0));
        ASSERT_NE(s, nullptr);
        EXPECT_TRUE(std::isnan(meanAt(s, 0)));
        EXPECT_TRUE(std::isnan(diagonalAt(s, 1)));
        EXPECT_EQ(s->nObservations, 0);
    }
    EXPECT_EQ(reports.count(), 0u);
}

TEST(Build, ExhaustionIsReported) {
    float a[] = {1}, b[] = {2};
    float* rows[] = {a, b};
    short c[] = {1}, d[] = {2};
    short* words[] = {c, d};
    for (const bool fixed : {false, true}) {
        support::CapturedReports reports;
        support::alloc::arm(1);
        const auto* s =
            fixed ? KTwBuildGaussMixServer(words, 2, 1, 0) : KTsBuildGaussMixServer(rows, 2, 1, 0);
        support::alloc::disarm();
        EXPECT_EQ(s, nullptr);
        ASSERT_EQ(reports.count(), 1u);
        EXPECT_EQ(reports[0].status, -4);
        EXPECT_EQ(reports[0].message, "insufficiency of memory for pointer  ptr");
        EXPECT_EQ(reports[0].function, fixed ? "KTwBuildGaussMixServer" : "KTsBuildGaussMixServer");
        EXPECT_EQ(reports[0].source, "..\\_LIBSRC\\KT_GAUSS");
    }
}

TEST(Build, DimensionsBelowOneGiveNull) {
    support::CapturedReports reports;
    float a[] = {1};
    float* rows[] = {a};
    for (const int n : {0, -1, INT_MIN})
        EXPECT_EQ(KTsBuildGaussMixServer(rows, 1, n, 0), nullptr);
    EXPECT_EQ(reports.count(), 0u);
}

TEST(Train, MergesABatch) {
    for (const int flags : {0, KT_GAUSS_FULL}) {
        support::CapturedReports reports;
        const Server old = build<float>({{0}, {2}}, 1, flags);
        const Server s = train<float>(old, {{1}, {3}}, 1), w = train<short>(old, {{1}, {3}}, 1);
        for (const Server* merged : {&s, &w}) {
            EXPECT_EQ(meanAt(*merged, 0), 1.5f);
            EXPECT_NEAR(flags != 0 ? matrixAt(*merged, 0, 0) : diagonalAt(*merged, 0), 5.0 / 3,
                        8 * 0x1p-23);
            EXPECT_EQ((*merged)->nObservations, 4);
            EXPECT_EQ((*merged)->flags, old->flags);
        }
        EXPECT_EQ(meanAt(old, 0), 1.0f);
        EXPECT_EQ(old->nObservations, 2);
    }
    KTFreeGaussTbls();
}

TEST(Train, InBatchesGivesWhatOneBuildGives) {
    support::CapturedReports reports;
    std::mt19937 random(54);
    for (const int flags : {0, KT_GAUSS_FULL}) {
        const auto data = floatData(random, 300, 9);
        const auto expected = oracle::covariance(wide(data));
        Server merged = build(Rows<float>(data.begin(), data.begin() + 100), 9, flags);
        merged = train(merged, Rows<float>(data.begin() + 100, data.begin() + 150), 9);
        merged = train(merged, Rows<float>(data.begin() + 150, data.end()), 9);
        EXPECT_EQ(merged->nObservations, 300);
        for (int i = 0; i < 9; ++i)
            for (int j = 0; j < 9; ++j)
                if (flags != 0 || i == j) {
                    EXPECT_NEAR(flags != 0 ? matrixAt(merged, i, j) : diagonalAt(merged, i),
                                expected[std::size_t(i)][std::size_t(j)], 300 * 30 * 0x1p-24);
                }
    }
    KTFreeGaussTbls();
}

TEST(Train, KeepsTheOrderOfItsTerms) {
    support::CapturedReports reports;
    std::mt19937 random(55);
    const auto first = floatData(random, 20, 5), second = floatData(random, 30, 5);
    for (const int flags : {0, KT_GAUSS_FULL}) {
        const Server a = build(first, 5, flags), b = build(second, 5, flags),
                     c = train(a, second, 5);
        const float r = 1.0f / 50, s = 1.0f / 49;
        const float fB = s * 30 - s, fA = s * 20 - s, gB = s * 30, gA = s * 20, gM = gB + gA;
        std::vector<float> m;
        for (int i = 0; i < 5; ++i) {
            m.push_back(meanAt(a, i) * (r * 20) + meanAt(b, i) * (r * 30));
            EXPECT_EQ(meanAt(c, i), m.back());
        }
        for (int i = 0; i < 5; ++i) {
            if (flags == 0) {
                const float x = meanAt(a, i), y = meanAt(b, i), z = m[std::size_t(i)];
                EXPECT_EQ(diagonalAt(c, i), diagonalAt(a, i) * fA + gA * x * x + gB * y * y +
                                                diagonalAt(b, i) * fB - gM * z * z);
                continue;
            }
            for (int j = 0; j <= i; ++j) {
                const float expected = matrixAt(a, i, j) * fA + matrixAt(b, i, j) * fB +
                                       gA * meanAt(a, i) * meanAt(a, j) +
                                       gB * meanAt(b, i) * meanAt(b, j) -
                                       gM * m[std::size_t(i)] * m[std::size_t(j)];
                EXPECT_EQ(matrixAt(c, i, j), expected);
                EXPECT_EQ(matrixAt(c, j, i), expected);
            }
        }
    }
    KTFreeGaussTbls();
}

TEST(Train, AStatusLeftNegativeGivesNull) {
    support::CapturedReports reports;
    const Server old = build<float>({{0}, {2}}, 1, 0);
    KTSetStatus(-5);
    const long before = support::alloc::liveBlocks();
    EXPECT_EQ(train<float>(old, {{1}, {3}}, 1), nullptr);
    EXPECT_EQ(support::alloc::liveBlocks(), before);
    EXPECT_EQ(reports.count(), 0u);
    KTSetStatus(0);
    EXPECT_NE(train<float>(old, {{1}, {3}}, 1), nullptr);
}

TEST(Train, ExhaustionIsReportedAndNothingStaysAllocated) {
    float a[] = {1, 5}, b[] = {2, 4};
    float* rows[] = {a, b};
    short c[] = {1, 5}, d[] = {2, 4};
    short* words[] = {c, d};
    const Server old(KTsBuildGaussMixServer(rows, 2, 2, KT_GAUSS_FULL));
    for (const bool fixed : {false, true}) {
        KTFreeGaussTbls();
        const std::string letter = fixed ? "KTw" : "KTs";
        for (const int failAt : {1, 2}) {
            support::CapturedReports reports;
            const long before = support::alloc::liveBlocks();
            support::alloc::arm(failAt);
            const auto* s = fixed ? KTwTrainGaussMixServer(old.get(), words, 2, 2)
                                  : KTsTrainGaussMixServer(old.get(), rows, 2, 2);
            support::alloc::disarm();
            EXPECT_EQ(s, nullptr);
            ASSERT_EQ(reports.count(), 1u);
            EXPECT_EQ(reports[0].status, -4);
            EXPECT_EQ(reports[0].message, "insufficiency of memory for pointer  ptr");
            EXPECT_EQ(reports[0].function,
                      letter + (failAt == 1 ? "Build" : "Train") + "GaussMixServer");
            EXPECT_EQ(KTGetContext()->trainBuffer, nullptr);
            EXPECT_EQ(KTGetContext()->trainBufferLen, 0);
            EXPECT_LE(support::alloc::liveBlocks(), before + 4); // the report's own strings
        }
    }
}

TEST(Train, WorkVectorGrowsAndIsReleased) {
    support::CapturedReports reports;
    std::mt19937 random(56);
    KTFreeGaussTbls();
    for (const int n : {3, 7, 5}) {
        const Server old = build(floatData(random, 9, n), n, KT_GAUSS_FULL);
        EXPECT_NE(train(old, floatData(random, 9, n), n), nullptr);
        EXPECT_EQ(KTGetContext()->trainBufferLen, n < 5 ? n : 7);
    }
    KTFreeGaussTbls();
    EXPECT_EQ(KTGetContext()->trainBuffer, nullptr);
    const Server old = build(floatData(random, 9, 3), 3, 0);
    EXPECT_NE(train(old, floatData(random, 9, 3), 3), nullptr);
    EXPECT_EQ(KTGetContext()->trainBuffer, nullptr); // diagonals need none
}

TEST(Train, NullFixedAndNarrowerServersGiveNull) {
    support::CapturedReports reports;
    std::mt19937 random(57);
    auto words = randomFixedMixture(random, 2, 2, false);
    const Server fixed = words.server(), narrow = build<float>({{0}, {2}}, 1, 0);
    float a[] = {1, 5}, b[] = {2, 4};
    float* rows[] = {a, b};
    EXPECT_EQ(KTsTrainGaussMixServer(nullptr, rows, 2, 2), nullptr);
    EXPECT_EQ(KTsTrainGaussMixServer(fixed.get(), rows, 2, 2), nullptr);
    EXPECT_EQ(KTsTrainGaussMixServer(narrow.get(), rows, 2, 2), nullptr);
    EXPECT_EQ(reports.count(), 0u);
}
