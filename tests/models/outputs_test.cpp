// The densities of a codebook on frames, against plain computations.
#include "models/codebooks.h"
#include "models/outputs.h"
#include "support/guarded.h"

#include <cstdlib>

using namespace models;

namespace {

class Densities : public ModelTest {
protected:
    static SemicontCodebook* floats() { return KTGetContext()->sSemicont; }
    static SemicontCodebook* shorts() { return KTGetContext()->wSemicont; }
};

} // namespace

TEST_F(Densities, FloatDensities) {
    std::mt19937 random(14);
    for (const bool full : {false, true})
        for (const int count : {1, 3, 4, 6, 17}) {
            reset();
            constexpr int dim = 5;
            auto servers = floatServers(random, count, dim, 1, full);
            ASSERT_EQ(KTsInitSemicontCodebook(servers.table.data(), count, dim, 0), 1);
            const auto frames = framesOf<float>(random, 4, dim);
            const int padded = (count + 3) / 4 * 4;
            std::vector<support::Guarded<float>> rows(4, support::Guarded<float>(at(padded), 7.0f));
            std::vector<float*> out;
            for (auto& row : rows)
                out.push_back(row.data());
            KTsEvalPdfsFrames(floats(), pointers(frames).data(), out.data(), 4, count, dim);
            for (std::size_t t = 0; t < 4; ++t) {
                EXPECT_TRUE(rows[t].intact());
                for (int k = 0; k < count; ++k) {
                    const auto* s = servers.table[at(k)];
                    const auto x = mixtures::wide(frames[t]),
                               mean = mixtures::wide(ktl::gauss::means<float>(s)[0], dim);
                    oracle::Matrix matrix;
                    for (int i = 0; full && i < dim; ++i)
                        matrix.push_back(mixtures::wide(ktl::gauss::matrices<float>(s)[0][i], dim));
                    // a full density decays twice as fast as its diagonal twin
                    const double q =
                        full ? oracle::fullForm(x, mean, matrix)
                             : oracle::diagonalForm(
                                   x, mean,
                                   mixtures::wide(ktl::gauss::diagonals<float>(s)[0], dim)) /
                                   2;
                    const double expected = static_cast<double>(s->pNormWeights[0]) * std::exp(-q);
                    // the form is rounded to float before the exponential, which is good to 2^-22,
                    // and the product after it
                    EXPECT_NEAR(rows[t][at(k)], expected,
                                expected * (q * 0x1p-21 + 0x1p-21) + 1e-37);
                }
                for (int k = count; k < padded; ++k)
                    EXPECT_EQ(rows[t][at(k)], 0.0f); // the exponential of the lowest float
            }
        }
}

TEST_F(Densities, AFullDensityDecaysTwiceAsFast) {
    mixtures::Mixture<float> diagonal, full;
    diagonal.nDim = full.nDim = 2;
    diagonal.nMix = full.nMix = 1;
    diagonal.weights = full.weights = {1};
    diagonal.means = full.means = {{0, 0}};
    diagonal.diagonals = {{1, 1}};
    full.matrices = {{{1, 0}, {0, 1}}};
    Servers servers;
    servers.add(diagonal.server());
    servers.add(full.server());
    ASSERT_EQ(KTsInitSemicontCodebook(servers.table.data(), 2, 2, 0), 1);
    const Rows<float> frames{{1, 1}};
    float row[4];
    float* out = row;
    KTsEvalPdfsFrames(floats(), pointers(frames).data(), &out, 1, 2, 2);
    EXPECT_NEAR(row[0], std::exp(-1.0), 1e-6);
    EXPECT_NEAR(row[1], std::exp(-2.0), 1e-6);
}

TEST_F(Densities, FixedDensities) {
    std::mt19937 random(15);
    int positive = 0;
    for (const bool full : {false, true})
        for (const int count : {1, 3, 6}) {
            reset();
            constexpr int dim = 5;
            auto servers = fixedServers(random, count, dim, 1, full);
            ASSERT_EQ(KTwInitSemicontCodebook(servers.table.data(), count, dim, 0), 1);
            const auto frames = framesOf<short>(random, 4, dim);
            const int padded = (count + 3) / 4 * 4;
            std::vector<support::Guarded<short>> rows(
                4, support::Guarded<short>(at(padded), short(7)));
            std::vector<short*> out;
            for (auto& row : rows)
                out.push_back(row.data());
            KTwEvalPdfsFrames(shorts(), pointers(frames).data(), out.data(), 4, count, dim);
            for (std::size_t t = 0; t < 4; ++t) {
                EXPECT_TRUE(rows[t].intact());
                for (int k = 0; k < count; ++k) {
                    const auto* s = servers.table[at(k)];
                    const short* mean = ktl::gauss::means<short>(s)[0];
                    std::int64_t q = 0; // small enough here that nothing wraps
                    for (int i = 0; i < dim; ++i)
                        for (int j = 0; j < dim; ++j) {
                            const int c = full     ? ktl::gauss::matrices<short>(s)[0][i][j]
                                          : i == j ? ktl::gauss::diagonals<short>(s)[0][i]
                                                   : 0;
                            q += std::int64_t(frames[t][at(i)] - mean[i]) *
                                 (frames[t][at(j)] - mean[j]) * c;
                        }
                    // both forms have the factor 1/2: one more fractional bit than the scale says
                    const int e = oracle::expFix(int(-std::abs(q)), 1 + 13, 14);
                    const short expected = short((e * ktl::gauss::weights<short>(s)[0]) >> 14);
                    EXPECT_EQ(rows[t][at(k)], expected);
                    positive += expected > 0;
                }
                for (int k = count; k < padded; ++k)
                    EXPECT_EQ(rows[t][at(k)], 0);
            }
        }
    EXPECT_GT(positive, 40); // of 80
}

// A mixture of one density has no fixed evaluation of its own; as a density of a codebook it has.
TEST_F(Densities, ASingleFixedDensityIsEvaluatedHere) {
    mixtures::Mixture<short> mixture;
    mixture.nDim = mixture.nMix = 1;
    mixture.weights = {16384};
    mixture.means = {{5}};
    mixture.diagonals = {{1}};
    Servers servers;
    servers.add(mixture.server(0, 0));
    ASSERT_EQ(KTwInitSemicontCodebook(servers.table.data(), 1, 1, 0), 1);
    const short x = 5;
    const short* frame = &x;
    short row[4];
    short* out = row;
    KTwEvalPdfsFrames(shorts(), &frame, &out, 1, 1, 1);
    EXPECT_EQ(row[0], 16384);
    EXPECT_EQ(KTwEvalGaussMix(servers.table[0], frame, 1, KT_NoScale, nullptr), 0);
}

// Frames of no length, which a codebook may ask for, are at every mean.
TEST_F(Densities, FramesWithoutElements) {
    std::mt19937 random(17);
    for (const bool full : {false, true})
        for (const int length : {0, -3}) {
            reset();
            auto servers = floatServers(random, 2, 3, 1, full);
            auto fixed = fixedServers(random, 2, 3, 1, full);
            ASSERT_EQ(KTsInitSemicontCodebook(servers.table.data(), 2, length, 0), 1);
            ASSERT_EQ(KTwInitSemicontCodebook(fixed.table.data(), 2, length, 0), 1);
            const float x = 0;
            const float* frame = &x;
            const short w = 0;
            const short* words = &w;
            float row[4];
            float* out = row;
            short fixedRow[4];
            short* fixedOut = fixedRow;
            KTsEvalPdfsFrames(floats(), &frame, &out, 1, 2, length);
            KTwEvalPdfsFrames(shorts(), &words, &fixedOut, 1, 2, length);
            for (std::size_t k = 0; k < 2; ++k) {
                EXPECT_EQ(row[k], servers.table[k]->pNormWeights[0]);
                EXPECT_EQ(fixedRow[k], ktl::gauss::weights<short>(fixed.table[k])[0]);
            }
        }
}

// A scale above 1 shifts the form; what leaves 32 bits wraps, in the product too.
TEST_F(Densities, FixedDensitiesOfLargeScales) {
    mixtures::Mixture<short> mixture;
    mixture.nDim = mixture.nMix = 1;
    mixture.weights = {32767};
    mixture.means = {{0}};
    mixture.diagonals = {{1}};
    for (const int scale : {1, 2, 17, 29, 30, 31, 32, 33, 34, 100}) {
        reset();
        Servers servers;
        servers.add(mixture.server(0, scale));
        ASSERT_EQ(KTwInitSemicontCodebook(servers.table.data(), 1, 1, 0), 1);
        for (const short x : {0, 1, 2, 3, 5, 181, 32767}) {
            const short* frame = &x;
            short row[4];
            short* out = row;
            KTwEvalPdfsFrames(shorts(), &frame, &out, 1, 1, 1);
            const auto form = std::uint32_t(x * x);
            const auto shifted = scale - 1 > 31 ? 0u : form << (scale - 1);
            const std::int64_t e = oracle::expFix(std::int32_t(0u - shifted), 0, 14);
            EXPECT_EQ(row[0], short(std::int32_t(std::uint32_t(e * 32767)) >> 14))
                << scale << ' ' << x;
        }
    }
}

TEST_F(Densities, NoFramesNoDensities) {
    std::mt19937 random(16);
    auto servers = floatServers(random, 3, 4, 1, false);
    ASSERT_EQ(KTsInitSemicontCodebook(servers.table.data(), 3, 4, 0), 1);
    KTsEvalPdfsFrames(floats(), nullptr, nullptr, 0, 3, 4);
    KTsEvalPdfsFrames(floats(), nullptr, nullptr, -1, 3, 4);
    KTwEvalPdfsFrames(shorts(), nullptr, nullptr, 0, 3, 4);
}
