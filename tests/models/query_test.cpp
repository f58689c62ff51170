#include "models/stored_models.h"
#include "support/alloc_faults.h"
#include "support/guarded.h"
#include "support/reports.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using namespace models;

constexpr float largest = FLT_MAX;

class HmmProb : public testing::Test {
protected:
    ~HmmProb() override { KTHMMFreeAll(); }
    support::CapturedReports reports;
    std::mt19937 random{20250611};
};

TEST_F(HmmProb, AnUnknownIdGivesMinusOneAndWritesNothing) {
    KTSetHMMMode(0);
    support::Guarded<float> initial(4, 7.0f);
    support::Guarded<float> row(4, 7.0f);
    void* rows[4] = {row.data(), row.data(), row.data(), row.data()};
    EXPECT_EQ(KTGetHMMProb(1, initial.data(), rows, rows, rows, nullptr), -1);
    EXPECT_EQ(KTGetHMMProb(-1, initial.data(), rows, rows, rows, nullptr), -1);
    EXPECT_EQ(initial.values(), std::vector<float>(4, 7.0f));
    EXPECT_EQ(row.values(), std::vector<float>(4, 7.0f));
    EXPECT_EQ(reports.count(), 0u);
}

TEST_F(HmmProb, WithoutARegistryNothingHappens) {
    EXPECT_EQ(KTGetHMMProb(1, nullptr, nullptr, nullptr, nullptr, nullptr), -1);
}

TEST_F(HmmProb, AllPointersNullGiveZero) {
    auto model = randomModel<float>(random, OutputKind::discrete, Shape::full, 3, 1, 2, 0);
    EXPECT_EQ(KTGetHMMProb(model.create(), nullptr, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(reports.count(), 0u);
}

TEST_F(HmmProb, RowTwoOfAFloatCostTriangle) {
    auto model = randomModel<float>(random, OutputKind::discrete, Shape::triangular, 4, 1, 2, 0);
    const auto answer = query<float>(model.create(), 4, 2, OutputKind::discrete);
    EXPECT_EQ(answer.trans[2],
              (std::vector<float>{largest, largest, model.trans[2][2], model.trans[2][3]}));
}

// Three upper triangular states are stored as a band, which for its last row is the same.
TEST_F(HmmProb, RowTwoOfThreeUpperTriangularCostStates) {
    auto model = randomModel<float>(random, OutputKind::discrete, Shape::triangular, 3, 1, 2, 0);
    const auto answer = query<float>(model.create(), 3, 2, OutputKind::discrete);
    EXPECT_EQ(answer.trans[2], (std::vector<float>{largest, largest, model.trans[2][2]}));
}

TEST_F(HmmProb, RowsOfAFloatProbabilityBand) {
    auto model = randomModel<float>(random, OutputKind::discrete, Shape::banded, 4, 2, 2, 0);
    const auto& a = model.trans;
    const auto answer = query<float>(model.create(), 4, 2, OutputKind::discrete);
    EXPECT_EQ(answer.trans[0], (std::vector<float>{a[0][0], a[0][1], a[0][2], 0.0f}));
    EXPECT_EQ(answer.trans[2], (std::vector<float>{0.0f, 0.0f, a[2][2], a[2][3]}));
    EXPECT_EQ(answer.trans[3], (std::vector<float>{0.0f, 0.0f, 0.0f, a[3][3]}));
}

TEST_F(HmmProb, AFixedCostOf7FFEComesBackAs7FFF) {
    auto model = randomModel<short>(random, OutputKind::discrete, Shape::full, 2, 1, 2, 0);
    model.trans[0][1] = 0x7FFE;
    model.initial[1] = 0x7FFE;
    model.out[1][0] = 0x7FFF;
    const auto answer = query<short>(model.create(), 2, 2, OutputKind::discrete);
    EXPECT_EQ(answer.trans[0][1], 0x7FFF);
    EXPECT_EQ(answer.initial[1], 0x7FFF);
    EXPECT_EQ(answer.out[1][0], 0x7FFF);
}

// What a fixed server doesn't store is 0x7FFF even where the values have no domain.
TEST_F(HmmProb, AbsentFixedTransitionsWithoutADomain) {
    auto model = randomModel<short>(random, OutputKind::discrete, Shape::banded, 4, 0, 2, 0);
    const auto answer = query<short>(model.create(), 4, 2, OutputKind::discrete);
    EXPECT_EQ(answer.trans[0][3], 0x7FFF);
    EXPECT_EQ(answer.trans[3][0], 0x7FFF);
    EXPECT_EQ(answer.trans[1][2], model.trans[1][2]);
}

TEST_F(HmmProb, FixedValuesArePinnedAtBothEnds) {
    auto model = randomModel<short>(random, OutputKind::discrete, Shape::full, 2, 0, 1, 0);
    const int id = model.create();
    int* stored = reinterpret_cast<int*>(
        (reinterpret_cast<std::uintptr_t>(KTFindHMMServer(id)->initials) + 7) & ~std::uintptr_t(7));
    const int given[] = {0x7FFE, 0x7FFF, 0x8000, INT32_MAX, -0x7FFE, -0x7FFF, -0x8000, INT32_MIN};
    const short wanted[] = {0x7FFE, 0x7FFF, 0x7FFF, 0x7FFF, -0x7FFE, -0x7FFF, -0x7FFF, -0x7FFF};
    for (std::size_t i = 0; i < 8; ++i) {
        stored[0] = given[i];
        EXPECT_EQ(query<short>(id, 2, 1, OutputKind::discrete).initial[0], wanted[i]) << given[i];
    }
}

TEST_F(HmmProb, ANullRowIsLeftOutAndTheOthersAreFilled) {
    auto model = randomModel<float>(random, OutputKind::discrete, Shape::full, 3, 1, 5, 0);
    const int id = model.create();
    support::Guarded<float> first(3, -1.0f), last(3, -1.0f), outRow(5, -1.0f);
    void* rows[] = {first.data(), nullptr, last.data()};
    void* outRows[] = {nullptr, outRow.data(), nullptr};
    ASSERT_EQ(KTGetHMMProb(id, nullptr, rows, outRows, nullptr, nullptr), 0);
    EXPECT_EQ(first.values(), model.trans[0]);
    EXPECT_EQ(last.values(), model.trans[2]);
    EXPECT_EQ(outRow.values(), model.out[1]);
    EXPECT_TRUE(first.intact() && last.intact() && outRow.intact());
}

TEST_F(HmmProb, OutputsOfOtherKindsAreIgnored) {
    Codebook<float> codebook(random, 3, 2);
    ASSERT_TRUE(codebook.made);
    for (const OutputKind kind : allKinds) {
        auto model = randomModel<float>(random, kind, Shape::full, 2, 1, 3, 2);
        support::Guarded<float> out(3, -1.0f), weights(3, -1.0f);
        void* outRows[] = {out.data(), nullptr};
        void* weightRows[] = {weights.data(), nullptr};
        GaussMixServer* slots[] = {nullptr, nullptr};
        ASSERT_EQ(KTGetHMMProb(model.create(), nullptr, nullptr, outRows, weightRows, slots), 0);
        EXPECT_EQ(out[0] != -1.0f, kind == OutputKind::discrete);
        EXPECT_EQ(weights[0] != -1.0f, kind == OutputKind::semicontinuous);
        EXPECT_EQ(slots[0], nullptr);
    }
}

// --- the inverse of creation ---

template <class T>
T absentResult(unsigned domain) {
    if constexpr (std::is_same_v<T, float>)
        return domain == 1 ? largest : 0.0f;
    else
        return 0x7FFF;
}

template <class T>
void expectReadBack(KindModel<T>& model) {
    const int id = model.create();
    ASSERT_GT(id, 0);
    EXPECT_EQ(unsigned(parametersOf(id).status), model.status());
    const auto answer = query<T>(id, model.n, model.m, model.kind);
    EXPECT_EQ(answer.result, 0);
    EXPECT_EQ(answer.initial, model.initial);
    for (int i = 0; i < model.n; ++i)
        for (int j = 0; j < model.n; ++j) {
            const auto row = std::size_t(i), column = std::size_t(j);
            EXPECT_EQ(answer.trans[row][column], allows(model.shape, i, j)
                                                     ? model.trans[row][column]
                                                     : absentResult<T>(model.domain))
                << i << ", " << j;
        }
    if (model.kind != OutputKind::continuous) {
        EXPECT_EQ(answer.out, model.out);
    }
    KTFreeHMMServer(id);
}

template <class T>
void readBackAll(std::mt19937& random, std::initializer_list<unsigned> domains) {
    for (int round = 0; round < 4; ++round) {
        const int nSymbols = 1 + int(random() % 9), nQuant = 1 + int(random() % 5);
        Codebook<T> codebook(random, nSymbols, nQuant);
        ASSERT_TRUE(codebook.made);
        for (const OutputKind kind : allKinds)
            for (const Shape shape : allShapes)
                for (const unsigned domain : domains)
                    for (int n = 1; n <= 9; ++n) {
                        SCOPED_TRACE(testing::Message() << int(kind) << " " << int(shape) << " "
                                                        << domain << " " << n << " states");
                        auto model =
                            randomModel<T>(random, kind, shape, n, domain, nSymbols, nQuant);
                        expectReadBack(model);
                    }
    }
}

TEST_F(HmmProb, EveryKindOfFloatModelIsReadBack) {
    readBackAll<float>(random, {1u, 2u});
    EXPECT_EQ(reports.count(), 0u);
}
TEST_F(HmmProb, EveryKindOfFixedModelIsReadBack) {
    readBackAll<short>(random, {0u, 1u});
    EXPECT_EQ(reports.count(), 0u);
}

TEST_F(HmmProb, TiledTransitionsAreReadBack) {
    KTSetHMMMode(0);
    KTGetContext()->hmmMode |= HMM_MODE_TILED;
    for (const Shape shape : allShapes)
        for (int n = 1; n <= 9; ++n) {
            auto model = randomModel<float>(random, OutputKind::discrete, shape, n, 1, 2, 0);
            const int id = model.create();
            ASSERT_NE(unsigned(parametersOf(id).status) & HMM_SERVER_TILED, 0u);
            const auto answer = query<float>(id, n, 2, OutputKind::discrete);
            for (std::size_t i = 0; i < std::size_t(n); ++i)
                for (std::size_t j = 0; j < std::size_t(n); ++j)
                    EXPECT_EQ(answer.trans[i][j],
                              allows(model.shape, int(i), int(j)) ? model.trans[i][j] : largest);
        }
}

// --- mixtures ---

TEST_F(HmmProb, MixturesAreGivenForTheSlotsThatAreNotNull) {
    auto model = randomModel<float>(random, OutputKind::continuous, Shape::full, 3, 1, 0, 4);
    const int id = model.create();
    GaussMixServer* const wanted = model.mixtures[0].get(); // any address but null asks
    GaussMixServer* slots[] = {wanted, nullptr, wanted};
    ASSERT_EQ(KTGetHMMProb(id, nullptr, nullptr, nullptr, nullptr, slots), 0);
    EXPECT_EQ(slots[1], nullptr);
    const float frame[] = {0.5f, -0.25f, 1.0f, 0.125f};
    for (const std::size_t i : {std::size_t(0), std::size_t(2)}) {
        ASSERT_NE(slots[i], wanted);
        ASSERT_NE(slots[i], KTFindHMMServer(id)->mixtures[i]);
        EXPECT_EQ(KTsEvalGaussMix(slots[i], frame, 4),
                  KTsEvalGaussMix(model.mixtures[i].get(), frame, 4));
        KTsFreeGaussMixServer(slots[i]);
    }
    KTFreeHMMServer(id); // the given mixtures were the caller's alone
}

TEST_F(HmmProb, NormalisedWeightsComeOverUnchanged) {
    auto model = randomModel<float>(random, OutputKind::continuous, Shape::full, 2, 1, 0, 3);
    for (Server& mixture : model.mixtures)
        mixture =
            randomMixture<float>(random, 3, 2, &mixture == &model.mixtures[0], KT_GAUSS_NORMALIZE);
    const int id = model.create();
    GaussMixServer* slots[] = {model.mixtures[0].get(), model.mixtures[1].get()};
    ASSERT_EQ(KTGetHMMProb(id, nullptr, nullptr, nullptr, nullptr, slots), 0);
    for (std::size_t i = 0; i < 2; ++i) {
        const GaussMixServer* held = KTFindHMMServer(id)->mixtures[i];
        EXPECT_EQ(std::memcmp(slots[i]->pNormWeights, held->pNormWeights, 2 * sizeof(float)), 0);
        EXPECT_EQ(std::memcmp(slots[i]->pWeights, held->pWeights, 2 * sizeof(float)), 0);
        EXPECT_EQ(slots[i]->flags, held->flags);
        EXPECT_NE(slots[i]->flags & KT_GAUSS_NORMALIZE, 0);
        KTsFreeGaussMixServer(slots[i]);
    }
}

TEST_F(HmmProb, FixedMixturesKeepTheirScale) {
    auto model = randomModel<short>(random, OutputKind::continuous, Shape::full, 2, 1, 0, 3);
    const int id = model.create();
    GaussMixServer* slots[] = {model.mixtures[0].get(), model.mixtures[1].get()};
    ASSERT_EQ(KTGetHMMProb(id, nullptr, nullptr, nullptr, nullptr, slots), 0);
    const short frame[] = {3, 40, 7};
    for (std::size_t i = 0; i < 2; ++i) {
        int scale = -16;
        const int wanted =
            KTwEvalGaussMix(model.mixtures[i].get(), frame, 3, KT_FixedScale, &scale);
        EXPECT_EQ(KTwEvalGaussMix(slots[i], frame, 3, KT_FixedScale, &scale), wanted);
        EXPECT_EQ(slots[i]->scale, -7);
        KTwFreeGaussMixServer(slots[i]);
    }
}

TEST_F(HmmProb, AMixtureForWhichMemoryRanOutIsNull) {
    auto model = randomModel<float>(random, OutputKind::continuous, Shape::full, 2, 1, 0, 3);
    const int id = model.create();
    const long before = support::alloc::liveBlocks();
    GaussMixServer* slots[2];
    const int failures = support::alloc::failEach(
        [&] {
            slots[0] = slots[1] = model.mixtures[0].get();
            EXPECT_EQ(KTGetHMMProb(id, nullptr, nullptr, nullptr, nullptr, slots), 0);
        },
        [&] {
            EXPECT_EQ((slots[0] == nullptr) + (slots[1] == nullptr), 1);
            KTsFreeGaussMixServer(slots[0]);
            KTsFreeGaussMixServer(slots[1]);
        });
    EXPECT_EQ(failures, 2);
    KTsFreeGaussMixServer(slots[0]);
    KTsFreeGaussMixServer(slots[1]);
    EXPECT_EQ(support::alloc::liveBlocks(), before);
}

// A server that lacks an array, as after a creation that ran out of memory, delivers what it has.
TEST_F(HmmProb, MissingArraysAreLeftOut) {
    auto model = randomModel<float>(random, OutputKind::discrete, Shape::full, 2, 1, 2, 0);
    const int id = model.create();
    HMMServer* server = KTFindHMMServer(id);
    void* const transitions = server->transitions;
    server->transitions = nullptr;
    const auto answer = query<float>(id, 2, 2, OutputKind::discrete);
    server->transitions = transitions;
    EXPECT_EQ(answer.result, 0);
    EXPECT_EQ(answer.initial, model.initial);
    EXPECT_EQ(answer.trans[0], std::vector<float>(2, 0.0f));
}

} // namespace
