// The mixtures of a model's states as one list of densities.
#include "models/flat_mixtures.h"
#include "models/training.h"

#include "support/alloc_faults.h"
#include "support/reports.h"

namespace {

using namespace training;

class FlatMixtureView : public training::HmmTest {
protected:
    FlatMixtureView() {
        std::mt19937 random(25);
        mixtures = {makeMixture(randomMixture(random, 2, 3, true)),
                    makeMixture(randomMixture(random, 1, 3, false)),
                    makeMixture(randomMixture(random, 3, 3, true))};
    }
    ~FlatMixtureView() override {
        for (GaussMixServer* mixture : mixtures)
            KTsFreeGaussMixServer(mixture);
    }

    std::vector<GaussMixServer*> mixtures;
};

TEST_F(FlatMixtureView, ListsTheComponentsStateByState) {
    FlatMixtures* view = ownsFlattenMixtures(mixtures.data(), 3, 3);
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(view->codebook.nSymbols, 6);
    EXPECT_EQ(view->codebook.nQuant, 3);
    EXPECT_EQ(view->codebook.status, 0x20);
    EXPECT_EQ(view->isSingle, 0);
    EXPECT_EQ(std::vector<int>(view->pComponentStart, view->pComponentStart + 4),
              (std::vector<int>{0, 2, 3, 6}));
    const float* weights = ownsSemicontWeights(&view->codebook);
    for (int i = 0, k = 0; i < 3; ++i)
        for (int m = 0; m < mixtures[std::size_t(i)]->nMix; ++m, ++k) {
            const GaussMixServer *mixture = mixtures[std::size_t(i)],
                                 *density = view->codebook.ccgPdfs[k];
            EXPECT_EQ(weights[k], mixture->pNormWeights[m]);
            EXPECT_EQ(weights[8 + k], 1.0f); // the second run
            EXPECT_EQ(density->nMix, 1);
            EXPECT_EQ(ktl::gauss::isFull(density), ktl::gauss::isFull(mixture));
            EXPECT_EQ(ktl::gauss::means<float>(density)[0][2],
                      ktl::gauss::means<float>(mixture)[m][2]);
        }
    ownsFreeFlatMixtures(view);
}

TEST_F(FlatMixtureView, IsSingleWhereNoStateHasMoreThanOneComponent) {
    FlatMixtures* view = ownsFlattenMixtures(mixtures.data() + 1, 1, 3);
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(view->isSingle, 1);
    ownsFreeFlatMixtures(view);
    ownsFreeFlatMixtures(nullptr);
}

TEST_F(FlatMixtureView, IsNullForWhatCannotBeViewed) {
    EXPECT_EQ(ownsFlattenMixtures(mixtures.data(), 3, 4), nullptr); // the mixtures are shorter
    EXPECT_EQ(ownsFlattenMixtures(mixtures.data(), 0, 3), nullptr);
    EXPECT_EQ(ownsFlattenMixtures(nullptr, 3, 3), nullptr);
    GaussMixServer* const missing[] = {mixtures[0], nullptr};
    EXPECT_EQ(ownsFlattenMixtures(missing, 2, 3), nullptr);
    short weights[] = {16384, 16384}, row[] = {1, 2, 3};
    short* rows[] = {row, row};
    GaussMixServer* const fixed = KTwInitGaussMixServer(weights, rows, nullptr, rows, 3, 2, 0, -8);
    ASSERT_NE(fixed, nullptr);
    EXPECT_EQ(ownsFlattenMixtures(&fixed, 1, 3), nullptr);
    KTwFreeGaussMixServer(fixed);
}

TEST_F(FlatMixtureView, WithoutMemoryIsNullAndLosesNothing) {
    const support::CapturedReports reports; // a density that could not be made is reported
    const long before = support::alloc::liveBlocks();
    FlatMixtures* view = nullptr;
    const int failures =
        support::alloc::failEach([&] { view = ownsFlattenMixtures(mixtures.data(), 3, 3); },
                                 [&] {
                                     EXPECT_EQ(view, nullptr);
                                     EXPECT_EQ(support::alloc::liveBlocks(), before);
                                     KTSetStatus(0);
                                 });
    EXPECT_GT(failures, 4 + 6); // the view's own blocks, and each density at least one
    ASSERT_NE(view, nullptr);
    ownsFreeFlatMixtures(view);
    EXPECT_EQ(support::alloc::liveBlocks(), before);
}

} // namespace
