#include "models/codebooks.h"
#include "models/outputs.h"
#include "support/alloc_faults.h"
#include "support/guarded.h"
#include "support/reports.h"

#include <climits>
#include <cstring>
#include <thread>

using namespace models;

namespace {

class Codebooks : public ModelTest {
protected:
    static SemicontCodebook* floats() { return KTGetContext()->sSemicont; }
    static SemicontCodebook* shorts() { return KTGetContext()->wSemicont; }
};

bool isEmpty(const SemicontCodebook* codebook) {
    static const SemicontCodebook nothing{};
    return std::memcmp(codebook, &nothing, sizeof nothing) == 0;
}

// Vectors of two labels, with enough spread for an inverse of their covariance.
template <class T>
struct Labelled {
    Rows<T> rows;
    std::vector<int> labels;
    std::vector<T*> pointers;

    Labelled(std::initializer_list<int> wanted, int each, int nDim) {
        std::mt19937 random(1);
        std::uniform_int_distribution<int> uniform(-50, 50);
        for (int k = 0; k < each; ++k)
            for (const int label : wanted) {
                rows.emplace_back();
                labels.push_back(label);
                for (int i = 0; i < nDim; ++i)
                    rows.back().push_back(T(uniform(random) + 100 * label));
            }
        pointers = mixtures::pointers(rows);
    }
    int count() const { return int(rows.size()); }
    std::vector<T*> of(int label) {
        std::vector<T*> members;
        for (std::size_t i = 0; i < rows.size(); ++i)
            if (labels[i] == label) members.push_back(rows[i].data());
        return members;
    }
};

} // namespace

// --- Init and Free ---

TEST_F(Codebooks, FloatCodebookHoldsCopies) {
    std::mt19937 random(1);
    for (const bool full : {false, true})
        for (const int count : {1, 3, 4, 7}) {
            reset();
            auto servers = floatServers(random, count, 5, 1, full);
            EXPECT_EQ(KTsInitSemicontCodebook(servers.table.data(), count, 5, 0), 1);
            EXPECT_EQ(KTGetContext()->hmmMode, 0x05000000u); // made the registry
            const auto* codebook = floats();
            EXPECT_EQ(codebook->nSymbols, count);
            EXPECT_EQ(codebook->nQuant, 5);
            EXPECT_EQ(codebook->status, 0x40000020);
            EXPECT_EQ(codebook->reserved, 0);
            const float* weights = ownsSemicontWeights(codebook);
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(weights) % 16, 0u);
            for (int k = 0; k < count; ++k) {
                const auto *copy = codebook->ccgPdfs[k], *source = servers.table[at(k)];
                ASSERT_NE(copy, source);
                EXPECT_EQ(weights[k], source->pNormWeights[0]);
                EXPECT_EQ(copy->nDim, 5);
                EXPECT_EQ(copy->nMix, 1);
                EXPECT_EQ(ktl::gauss::isFull(copy), full);
                EXPECT_EQ(std::memcmp(ktl::gauss::means<float>(copy)[0],
                                      ktl::gauss::means<float>(source)[0], 5 * sizeof(float)),
                          0);
            }
            EXPECT_TRUE(isEmpty(shorts()));
        }
}

TEST_F(Codebooks, FixedCodebookHoldsCopies) {
    std::mt19937 random(2);
    auto servers = fixedServers(random, 5, 4, 1, true);
    EXPECT_EQ(KTwInitSemicontCodebook(servers.table.data(), 5, 4, 0), 1);
    const auto* codebook = shorts();
    EXPECT_EQ(codebook->nSymbols, 5);
    EXPECT_EQ(codebook->nQuant, 4);
    EXPECT_EQ(codebook->status, 0x40000010);
    const short* weights = ownwSemicontWeights(codebook);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(weights) % 8, 0u);
    for (int k = 0; k < 5; ++k) {
        ASSERT_NE(codebook->ccgPdfs[k], servers.table[at(k)]);
        EXPECT_EQ(codebook->ccgPdfs[k]->scale, servers.table[at(k)]->scale);
        EXPECT_EQ(weights[k], ktl::gauss::weights<short>(servers.table[at(k)])[0]);
    }
    EXPECT_TRUE(isEmpty(floats()));
}

// The weights of evaluation are computed anew, by the server's own flags.
TEST_F(Codebooks, NormalisedWeights) {
    std::mt19937 random(3);
    auto mixture = mixtures::randomMixture(random, 3, 1, false);
    Servers servers;
    servers.add(mixture.server(KT_GAUSS_NORMALIZE));
    const float expected = servers.table[0]->pNormWeights[0];
    EXPECT_NE(expected, mixture.weights[0]);
    EXPECT_EQ(KTsInitSemicontCodebook(servers.table.data(), 1, 3, 0), 1);
    EXPECT_EQ(ownsSemicontWeights(floats())[0], expected);
}

TEST_F(Codebooks, ASecondInitLeavesTheFirstAlone) {
    std::mt19937 random(4);
    auto servers = floatServers(random, 3, 4, 1, false);
    auto fixed = fixedServers(random, 3, 4, 1, false);
    EXPECT_EQ(KTsInitSemicontCodebook(servers.table.data(), 3, 4, 0), 1);
    EXPECT_EQ(KTwInitSemicontCodebook(fixed.table.data(), 3, 4, 0), 1);
    const SemicontCodebook before = *floats(), fixedBefore = *shorts();
    EXPECT_EQ(KTsInitSemicontCodebook(servers.table.data(), 2, 4, 0), -1);
    EXPECT_EQ(KTwInitSemicontCodebook(fixed.table.data(), 2, 4, 0), -1);
    EXPECT_EQ(std::memcmp(floats(), &before, sizeof before), 0);
    EXPECT_EQ(std::memcmp(shorts(), &fixedBefore, sizeof fixedBefore), 0);
    EXPECT_EQ(KTGetStatus(), 0);
}

TEST_F(Codebooks, Freeing) {
    EXPECT_EQ(KTsFreeSemicontCodebook(), -1); // no registry, and none is made
    EXPECT_EQ(KTwFreeSemicontCodebook(), -1);
    EXPECT_EQ(KTGetContext()->hmmMode, 0u);
    KTSetHMMMode(0);
    EXPECT_EQ(KTsFreeSemicontCodebook(), -1);
    EXPECT_EQ(KTwFreeSemicontCodebook(), -1);
    std::mt19937 random(5);
    auto servers = floatServers(random, 3, 4, 1, false);
    auto fixed = fixedServers(random, 3, 4, 1, false);
    const long before = support::alloc::liveBlocks();
    EXPECT_EQ(KTsInitSemicontCodebook(servers.table.data(), 3, 4, 0), 1);
    EXPECT_EQ(KTwInitSemicontCodebook(fixed.table.data(), 3, 4, 0), 1);
    EXPECT_EQ(KTsFreeSemicontCodebook(), 1);
    EXPECT_TRUE(isEmpty(floats()));
    EXPECT_EQ(shorts()->nSymbols, 3);
    EXPECT_EQ(KTsFreeSemicontCodebook(), -1);
    EXPECT_EQ(KTwFreeSemicontCodebook(), 1);
    EXPECT_TRUE(isEmpty(shorts()));
    EXPECT_EQ(support::alloc::liveBlocks(), before);
}

TEST_F(Codebooks, FreeingUnderANegativeStatus) {
    std::mt19937 random(6);
    auto servers = floatServers(random, 3, 4, 1, false);
    EXPECT_EQ(KTsInitSemicontCodebook(servers.table.data(), 3, 4, 0), 1);
    KTSetStatus(-2);
    EXPECT_EQ(KTsFreeSemicontCodebook(), -1);
    EXPECT_TRUE(isEmpty(floats())); // freed all the same
}

// The result says 1, the status and the empty codebook say otherwise.
TEST_F(Codebooks, InitUnderANegativeStatus) {
    std::mt19937 random(7);
    auto servers = floatServers(random, 3, 4, 1, false);
    auto fixed = fixedServers(random, 3, 4, 1, false);
    KTSetHMMMode(0);
    const long before = support::alloc::liveBlocks();
    KTSetStatus(-2);
    EXPECT_EQ(KTsInitSemicontCodebook(servers.table.data(), 3, 4, 0), 1);
    EXPECT_EQ(KTwInitSemicontCodebook(fixed.table.data(), 3, 4, 0), 1);
    EXPECT_TRUE(isEmpty(floats()));
    EXPECT_TRUE(isEmpty(shorts()));
    EXPECT_EQ(support::alloc::liveBlocks(), before);
}

TEST_F(Codebooks, ServersThatEvaluationCouldNotRead) {
    std::mt19937 random(8);
    auto servers = floatServers(random, 2, 4, 1, false);
    auto fixed = fixedServers(random, 2, 4, 1, false);
    // beyond the servers' vectors
    EXPECT_EQ(KTsInitSemicontCodebook(servers.table.data(), 2, 5, 0), -1);
    EXPECT_EQ(KTsInitSemicontCodebook(fixed.table.data(), 2, 4, 0), -1);
    EXPECT_EQ(KTwInitSemicontCodebook(servers.table.data(), 2, 4, 0), -1);
    EXPECT_EQ(KTsInitSemicontCodebook(servers.table.data(), -1, 4, 0), -1);
    servers.table[1] = nullptr;
    EXPECT_EQ(KTsInitSemicontCodebook(servers.table.data(), 2, 4, 0), -1);
    EXPECT_TRUE(isEmpty(floats()));
    EXPECT_TRUE(isEmpty(shorts()));
}

TEST_F(Codebooks, InitAllocationFailures) {
    std::mt19937 random(9);
    auto servers = floatServers(random, 3, 4, 1, false);
    auto fixed = fixedServers(random, 3, 4, 1, true);
    KTSetHMMMode(0);
    support::CapturedReports reports; // the copies of densities report what they could not get
    const long before = support::alloc::liveBlocks();
    int result = 0;
    const auto check = [&] {
        EXPECT_EQ(result, KTGetStatus() < 0 ? 1 : -1);
        EXPECT_TRUE(isEmpty(floats()));
        EXPECT_TRUE(isEmpty(shorts()));
        EXPECT_EQ(support::alloc::liveBlocks(), before);
        KTSetStatus(0);
    };
    EXPECT_EQ(support::alloc::failEach(
                  [&] { result = KTsInitSemicontCodebook(servers.table.data(), 3, 4, 0); }, check),
              7); // the table, three copies, the weights, the panel and a table of its rows
    EXPECT_EQ(result, 1);
    KTsFreeSemicontCodebook();
    EXPECT_EQ(support::alloc::failEach(
                  [&] { result = KTwInitSemicontCodebook(fixed.table.data(), 3, 4, 0); }, check),
              5);
    EXPECT_EQ(result, 1);
}

TEST_F(Codebooks, InitWithoutMemoryForTheRegistry) {
    std::mt19937 random(10);
    auto servers = floatServers(random, 1, 4, 1, false);
    for (int n = 1; n <= 4; ++n) {
        support::alloc::arm(n);
        EXPECT_EQ(KTsInitSemicontCodebook(servers.table.data(), 1, 4, 0), -1);
        support::alloc::disarm();
        EXPECT_EQ(KTGetContext()->hmmMode, 0u);
    }
}

// --- conversion: an initialised source is refused, an empty one gives an empty target ---

TEST_F(Codebooks, ConversionRefusesAnInitialisedSource) {
    std::mt19937 random(11);
    auto servers = floatServers(random, 3, 4, 1, false);
    auto fixed = fixedServers(random, 3, 4, 1, false);
    EXPECT_EQ(KTsInitSemicontCodebook(servers.table.data(), 3, 4, 0), 1);
    EXPECT_EQ(KTswConvertSemicontCodebook(0, 0, 0), -1);
    EXPECT_TRUE(isEmpty(shorts()));
    EXPECT_EQ(floats()->nSymbols, 3);
    EXPECT_EQ(KTwInitSemicontCodebook(fixed.table.data(), 3, 4, 0), 1);
    EXPECT_EQ(KTswConvertSemicontCodebook(0, 0, 0), -1);
    EXPECT_EQ(KTwsConvertSemicontCodebook(0, 0, 0), -1);
    EXPECT_EQ(floats()->nSymbols, 3);
    EXPECT_EQ(shorts()->nSymbols, 3);
    EXPECT_EQ(KTGetStatus(), 0);
}

TEST_F(Codebooks, ConversionOfAnEmptySource) {
    EXPECT_EQ(KTswConvertSemicontCodebook(-15, 0, 0), 1); // makes the registry
    EXPECT_EQ(shorts()->status, 0x40000010);
    EXPECT_EQ(shorts()->nSymbols, 0);
    EXPECT_EQ(shorts()->nQuant, 0);
    EXPECT_NE(shorts()->ccgPdfs, nullptr);
    EXPECT_TRUE(isEmpty(floats()));
    std::mt19937 random(12);
    auto servers = floatServers(random, 3, 4, 1, false);
    auto fixed = fixedServers(random, 3, 4, 1, false);
    // there is one, without densities
    EXPECT_EQ(KTwInitSemicontCodebook(fixed.table.data(), 3, 4, 0), -1);
    EXPECT_EQ(KTwFreeSemicontCodebook(), 1);
    EXPECT_EQ(KTsInitSemicontCodebook(servers.table.data(), 3, 4, 0), 1);
    const long before = support::alloc::liveBlocks();
    EXPECT_EQ(KTwsConvertSemicontCodebook(-15, 0, 0), 1); // the target's densities go
    EXPECT_EQ(floats()->status, 0x40000020);
    EXPECT_EQ(floats()->nSymbols, 0);
    EXPECT_EQ(support::alloc::liveBlocks(), before - 4); // they and the panel
    EXPECT_EQ(KTsFreeSemicontCodebook(), 1);
}

// A codebook without densities serves models without densities: nothing is read, nothing ends the
// process.
TEST_F(Codebooks, ModelsOfACodebookWithoutDensities) {
    EXPECT_EQ(KTswConvertSemicontCodebook(0, 0, 0), 1);
    EXPECT_EQ(KTwsConvertSemicontCodebook(0, 0, 0), -1); // its source holds something now
    Model<short> model{1, 0, Shape::full, {{1}}, {{0}}, {2}};
    const int id = model.semicont(0, KT_HMM_LOGARITHMIC, -8);
    ASSERT_GT(id, 0);
    const Rows<short> frames{{0}, {0}};
    EXPECT_EQ(KTwEvalSemicontHMMViterbi(id, pointers(frames).data(), 2, nullptr, 0, nullptr),
              2 + 1 + 2 * HMM_LOG_ZERO);
}

// --- making ---

TEST_F(Codebooks, MadeFromLabelledVectors) {
    for (const int flags :
         {0, KT_GAUSS_FULL, KT_GAUSS_NORMALIZE, KT_GAUSS_FULL | KT_GAUSS_NORMALIZE}) {
        reset();
        Labelled<float> data({0, 1, 2}, 20, 3);
        KTSetHMMMode(0);
        KTFreeGaussTbls();
        const long before = support::alloc::liveBlocks();
        KTsMakeSemicontCodebook(data.pointers.data(), data.labels.data(), data.count(), 3, 3,
                                flags);
        const bool full = (flags & KT_GAUSS_FULL) != 0;
        ASSERT_EQ(KTGetStatus(), 0);
        ASSERT_EQ(floats()->nSymbols, 3);
        EXPECT_EQ(floats()->nQuant, 3);
        KTFreeGaussTbls(); // the inversion's scratch
        // the temporary servers are gone
        EXPECT_EQ(support::alloc::liveBlocks(), before + (full ? 5 : 6));
        for (int q = 0; q < 3; ++q) {
            auto members = data.of(q);
            const Server raw(KTsBuildGaussMixServer(members.data(), int(members.size()), 3, flags));
            const Server expected(KTsInvertGaussianCovMatrix(raw.get(), flags));
            const auto* density = floats()->ccgPdfs[q];
            const float* x = data.rows[0].data();
            // a normalised weight is computed anew from the inverse: two roundings of its
            // determinant's root
            const double likelihood = KTsEvalGaussMix(expected.get(), x, 3);
            EXPECT_NEAR(KTsEvalGaussMix(floats()->ccgPdfs[q], x, 3), likelihood, 1e-5 * likelihood);
            EXPECT_EQ(ktl::gauss::isFull(density), (flags & KT_GAUSS_FULL) != 0);
            EXPECT_EQ(ownsSemicontWeights(floats())[q], density->pNormWeights[0]);
        }
    }
}

TEST_F(Codebooks, FixedOneMadeFromLabelledVectors) {
    Labelled<short> data({0, 1}, 20, 3);
    KTwMakeSemicontCodebook(data.pointers.data(), data.labels.data(), data.count(), 3, 2, 0, 0,
                            -20);
    ASSERT_EQ(KTGetStatus(), 0);
    ASSERT_EQ(shorts()->nSymbols, 2);
    EXPECT_TRUE(isEmpty(floats()));
    for (int q = 0; q < 2; ++q) {
        auto members = data.of(q);
        const Server raw(KTwBuildGaussMixServer(members.data(), int(members.size()), 3, 0));
        const Server inverse(KTsInvertGaussianCovMatrix(raw.get(), 0));
        const Server expected(KTswConvertGaussMixServer(inverse.get(), 0, 0, -20));
        const auto* density = shorts()->ccgPdfs[q];
        EXPECT_EQ(density->scale, expected->scale);
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(ktl::gauss::means<short>(density)[0][i],
                      ktl::gauss::means<short>(expected.get())[0][i]);
            EXPECT_EQ(ktl::gauss::diagonals<short>(density)[0][i],
                      ktl::gauss::diagonals<short>(expected.get())[0][i]);
        }
        EXPECT_EQ(ownwSemicontWeights(shorts())[q], ktl::gauss::weights<short>(expected.get())[0]);
    }
}

// More members than densities are collected all the same.
TEST_F(Codebooks, AClusterLargerThanTheNumberOfDensities) {
    Labelled<float> data({0}, 500, 2);
    KTsMakeSemicontCodebook(data.pointers.data(), data.labels.data(), data.count(), 2, 1, 0);
    ASSERT_EQ(floats()->nSymbols, 1);
    auto members = data.of(0);
    const Server raw(KTsBuildGaussMixServer(members.data(), 500, 2, 0));
    EXPECT_EQ(ktl::gauss::means<float>(floats()->ccgPdfs[0])[0][0],
              ktl::gauss::means<float>(raw.get())[0][0]);
}

TEST_F(Codebooks, AnEmptyClassIsADensityOfNotANumbers) {
    Labelled<float> data({0, 2}, 20, 2);
    support::CapturedReports reports;
    KTsMakeSemicontCodebook(data.pointers.data(), data.labels.data(), data.count(), 2, 3, 0);
    EXPECT_EQ(reports.count(), 0u);
    ASSERT_EQ(floats()->nSymbols, 3);
    EXPECT_TRUE(std::isnan(ktl::gauss::means<float>(floats()->ccgPdfs[1])[0][0]));
    EXPECT_FALSE(std::isnan(ktl::gauss::means<float>(floats()->ccgPdfs[2])[0][0]));
}

// A full covariance of not-a-numbers is singular: there is no codebook, and that is said.
TEST_F(Codebooks, AClassWithoutAFullCovarianceIsReported) {
    Labelled<float> data({0, 2}, 20, 2);
    Labelled<short> words({0, 2}, 20, 2);
    KTSetHMMMode(0);
    KTFreeGaussTbls();
    const long before = support::alloc::liveBlocks();
    const auto expectReport = [&](auto make, const char* name) {
        support::CapturedReports reports;
        make();
        ASSERT_EQ(reports.count(), 1u);
        EXPECT_EQ(reports[0].status, KT_StsBadArg);
        EXPECT_EQ(reports[0].message, "a class has too few vectors for a full covariance");
        EXPECT_EQ(reports[0].function, name);
        EXPECT_EQ(reports[0].source, "..\\_LIBSRC\\Kt_cdbk");
        EXPECT_TRUE(isEmpty(floats()));
        EXPECT_TRUE(isEmpty(shorts()));
        KTFreeGaussTbls();
        EXPECT_EQ(support::alloc::liveBlocks(), before);
    };
    const auto makeFloat = [&] {
        KTsMakeSemicontCodebook(data.pointers.data(), data.labels.data(), data.count(), 2, 3,
                                KT_GAUSS_FULL);
    };
    const auto makeFixed = [&] {
        KTwMakeSemicontCodebook(words.pointers.data(), words.labels.data(), words.count(), 2, 3,
                                KT_GAUSS_FULL | KT_GAUSS_NORMALIZE, 0, -20);
    };
    expectReport(makeFloat, "KTsMakeSemicontCodebook");
    expectReport(makeFixed, "KTwMakeSemicontCodebook");
    data.labels[5] = words.labels[5] = 1; // one vector has no covariance either
    expectReport(makeFloat, "KTsMakeSemicontCodebook");
    expectReport(makeFixed, "KTwMakeSemicontCodebook");
    data.labels[6] = words.labels[6] = 1; // two have one, but a singular one: that stays silent
    support::CapturedReports reports;
    makeFloat();
    makeFixed();
    EXPECT_EQ(reports.count(), 0u);
    EXPECT_TRUE(isEmpty(floats()));
    KTFreeGaussTbls();
}

// The inversion of a single element does not see a not-a-number.
TEST_F(Codebooks, AnEmptyClassOfOneElementIsKeptInFullFormToo) {
    Labelled<float> data({0, 2}, 20, 1);
    support::CapturedReports reports;
    KTsMakeSemicontCodebook(data.pointers.data(), data.labels.data(), data.count(), 1, 3,
                            KT_GAUSS_FULL);
    EXPECT_EQ(reports.count(), 0u);
    ASSERT_EQ(floats()->nSymbols, 3);
    EXPECT_TRUE(std::isnan(ktl::gauss::means<float>(floats()->ccgPdfs[1])[0][0]));
}

TEST_F(Codebooks, MakingLeavesAnExistingCodebookAlone) {
    Labelled<float> data({0, 1}, 20, 2);
    KTsMakeSemicontCodebook(data.pointers.data(), data.labels.data(), data.count(), 2, 1, 0);
    const SemicontCodebook before = *floats();
    const long blocks = support::alloc::liveBlocks();
    KTsMakeSemicontCodebook(data.pointers.data(), data.labels.data(), data.count(), 2, 2, 0);
    EXPECT_EQ(std::memcmp(floats(), &before, sizeof before), 0);
    EXPECT_EQ(support::alloc::liveBlocks(), blocks);
}

TEST_F(Codebooks, MakingWithoutMemory) {
    Labelled<float> data({0, 1}, 20, 2);
    Labelled<short> words({0, 1}, 20, 2);
    KTSetHMMMode(0);
    KTFreeGaussTbls();
    const long before = support::alloc::liveBlocks();
    const auto run = [&](auto make, const char* name) {
        support::CapturedReports reports;
        const auto expectFailure = [&](int n, const char* text) {
            reports.clear();
            support::alloc::arm(n);
            make();
            support::alloc::disarm();
            ASSERT_EQ(reports.count(), 1u);
            EXPECT_EQ(reports[0].status, KT_StsNoMem);
            EXPECT_EQ(reports[0].message, text);
            EXPECT_EQ(reports[0].function, name);
            EXPECT_EQ(reports[0].source, "..\\_LIBSRC\\Kt_cdbk");
            EXPECT_TRUE(isEmpty(floats()));
            EXPECT_TRUE(isEmpty(shorts()));
            EXPECT_EQ(support::alloc::liveBlocks(), before);
        };
        expectFailure(1, "insufficiency of memory for pointer  GMSSet");
        expectFailure(2, "insufficiency of memory for pointer  clusters");
        reports.clear();
        const int failures = support::alloc::failEach(make, [&] {
            KTFreeGaussTbls();
            EXPECT_TRUE(isEmpty(floats()));
            EXPECT_TRUE(isEmpty(shorts()));
            EXPECT_EQ(support::alloc::liveBlocks(), before);
            KTSetStatus(0);
        });
        EXPECT_GT(failures, 8);
        EXPECT_EQ(floats()->nSymbols + shorts()->nSymbols, 2);
        KTsFreeSemicontCodebook();
        KTwFreeSemicontCodebook();
        KTFreeGaussTbls();
    };
    for (const int flags : {0, KT_GAUSS_FULL})
        run(
            [&] {
                KTsMakeSemicontCodebook(data.pointers.data(), data.labels.data(), data.count(), 2,
                                        2, flags);
            },
            "KTsMakeSemicontCodebook");
    run(
        [&] {
            KTwMakeSemicontCodebook(words.pointers.data(), words.labels.data(), words.count(), 2, 2,
                                    0, 0, -20);
        },
        "KTwMakeSemicontCodebook");
}

TEST_F(Codebooks, OneForEachThread) {
    std::mt19937 random(13);
    auto servers = floatServers(random, 3, 4, 1, false);
    EXPECT_EQ(KTsInitSemicontCodebook(servers.table.data(), 3, 4, 0), 1);
    std::thread([&] {
        EXPECT_EQ(KTsFreeSemicontCodebook(), -1);
        EXPECT_EQ(KTsInitSemicontCodebook(servers.table.data(), 2, 4, 0), 1);
        KTHMMFreeAll();
    }).join();
    EXPECT_EQ(floats()->nSymbols, 3);
}
