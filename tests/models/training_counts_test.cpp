// What training counts of start values and transitions, whatever the outputs are.
#include "models/training.h"

#include <cstdio>
#include <utility>

namespace {

using namespace training;
using TrainingCounts = training::HmmTest;

TEST_F(TrainingCounts, UnvisitedStatesKeepWhatTheyHave) {
    std::mt19937 random(15);
    auto model = randomDiscrete(random, 4, 3, Topology::full);
    model.chain.pi = {0.5, 0.5, 0.0, 0.0};
    for (std::size_t i = 0; i < 2; ++i)
        model.chain.a[i] = {0.25, 0.75, 0.0, 0.0};
    const SymbolData data = drawData(random, model, 4);
    const auto trained = discreteOf(data.train(makeDiscrete(model), 5));
    for (std::size_t i : {2u, 3u}) {
        EXPECT_EQ(trained.chain.a[i], model.chain.a[i]);
        EXPECT_EQ(trained.b[i], model.b[i]);
        EXPECT_EQ(trained.chain.pi[i], 0.0);
    }
    // a state of which nothing follows keeps its transitions, and its outputs are estimated
    const SymbolData single(std::vector<std::vector<int>>{{1}});
    const auto after = discreteOf(single.train(makeDiscrete(model), 1));
    EXPECT_EQ(after.chain.a[0], model.chain.a[0]);
    EXPECT_EQ(after.b[0], (Row{0.0, 1.0, 0.0}));
}

TEST_F(TrainingCounts, ZeroTransitionsStayZero) {
    std::mt19937 random(16);
    auto model = randomDiscrete(random, 5, 4, Topology::full);
    model.chain.a[1][3] = model.chain.a[4][0] = model.chain.a[2][2] = 0.0;
    const SymbolData data = drawData(random, model, 6);
    const auto trained = chainOf(data.train(makeDiscrete(model), 4));
    EXPECT_EQ(trained.a[1][3], 0.0);
    EXPECT_EQ(trained.a[4][0], 0.0);
    EXPECT_EQ(trained.a[2][2], 0.0);
}

TEST_F(TrainingCounts, ProbabilitiesBelowTheFloorBecomeZero) {
    // symbol 1 is all but impossible in state 0: its share of the occurrence is 1e-25
    const oracle::DiscreteHmm model{{{0.5, 0.5}, {{1.0, 0.0}, {0.0, 1.0}}},
                                    {{1.0, double(1e-25f)}, {1.0, 1.0}}};
    const SymbolData data(std::vector<std::vector<int>>{{0}, {1}});
    const auto trained = discreteOf(data.train(makeDiscrete(model), 1));
    EXPECT_EQ(trained.b[0][1], 0.0);
    EXPECT_GT(trained.b[1][1], 0.0);
    const auto kept =
        discreteOf(data.train(makeDiscrete({model.chain, {{1.0, double(1e-19f)}, {1.0, 1.0}}}), 1));
    EXPECT_NEAR(kept.b[0][1] * 1e19, 2.0, 1e-5);
}

TEST_F(TrainingCounts, BandKeepsItsLastTransitionTwice) {
    std::mt19937 random(17);
    const auto check = [](int id) {
        const HMMServer& server = *KTFindHMMServer(id);
        ASSERT_NE(server.status & HMM_SERVER_BANDED, 0u);
        const float* a = hmm::floats(server.transitions);
        const int last = 3 * server.nStates - 3;
        EXPECT_EQ(a[last], a[last - 1]);
        EXPECT_GT(a[last], 0.0f);
    };
    auto model = randomDiscrete(random, 4, 3, Topology::banded);
    model.chain.a[3][3] = 0.5; // so that it changes, to 1
    const SymbolData data = drawData(random, model, 6);
    const int id = data.train(makeDiscrete(model), 2);
    check(id);
    EXPECT_NEAR(chainOf(id).a[3][3], 1.0, 1e-6);
    const FrameData frames = frameData(random, 4, 2);
    check(frames.trainContinuous(makeContinuous(randomContinuous(random, 5, 2, Topology::banded)),
                                 2));
    const Codebook codebook(random, 3, 2);
    check(frames.trainSemicontinuous(
        makeSemicontinuous({randomChain(random, 3, Topology::banded), randomRows(random, 3, 3)}, 2),
        2));
}

// A file may bring a band whose second copy differs; the copy takes no part in the change.
TEST_F(TrainingCounts, SecondCopyOfABandsLastTransitionIsNoChange) {
    std::mt19937 random(17);
    const int id = makeDiscrete(randomDiscrete(random, 4, 3, Topology::banded));
    hmm::floats(KTFindHMMServer(id)->transitions)[9] += 0.5f;
    float change = 1.0f;
    const int copy = SymbolData(std::vector<std::vector<int>>{}).train(id, 1, &change);
    ASSERT_GT(copy, 0);
    EXPECT_EQ(change, 0.0f);
    const float* a = hmm::floats(KTFindHMMServer(copy)->transitions);
    EXPECT_EQ(a[9], a[8]);
}

// Occupancies of start values and transitions by hand: two states that cannot be left say which
// sequence began where.
TEST_F(TrainingCounts, StartValuesAreTheSharesOfTheSequences) {
    const oracle::DiscreteHmm model{{{0.5, 0.5}, {{1.0, 0.0}, {0.0, 1.0}}},
                                    {{1.0, 0.0}, {0.0, 1.0}}};
    const SymbolData data(std::vector<std::vector<int>>{{0, 0}, {1, 1, 1}, {0}, {0, 0, 0, 0}});
    const auto trained = chainOf(data.train(makeDiscrete(model), 1));
    EXPECT_EQ(trained.pi, (Row{0.75, 0.25}));
    EXPECT_EQ(trained.a, model.chain.a);
}

// The path 0 0 1 1 1 is the only one: one of two departures from state 0 stays.
TEST_F(TrainingCounts, TransitionsAreTheSharesOfTheDepartures) {
    const oracle::DiscreteHmm model{{{1.0, 0.0}, {{0.25, 0.75}, {0.0, 1.0}}},
                                    {{1.0, 0.0}, {0.0, 1.0}}};
    const SymbolData data(std::vector<std::vector<int>>{{0, 0, 1, 1, 1}});
    const auto trained = chainOf(data.train(makeDiscrete(model), 1));
    EXPECT_EQ(trained.a, (Rows{{0.5, 0.5}, {0.0, 1.0}}));
}

// --- a band's last transition, which is stored twice ---

// The server as a file brings it back whose copy behind the one that the recursions read says
// something else.
int withOtherCopy(int id, float other) {
    HMMServer* server = KTFindHMMServer(id);
    float& copy = hmm::floats(server->transitions)[hmm::TransitionMap::of(*server).duplicate()];
    const float kept = std::exchange(copy, other);
    std::FILE* file = std::tmpfile();
    KTWriteHMMServer(file, id, "band");
    copy = kept;
    std::rewind(file);
    const int read = KTReadHMMServer(file, nullptr);
    std::fclose(file);
    return read;
}

// Training gives what it gives for a band whose two copies are the one that the recursions read.
template <class Train>
void expectOneCopyIsUsed(int id, const Train& train) {
    const int twofold = withOtherCopy(id, 0.03125f);
    ASSERT_GT(twofold, 0);
    for (int iterations : {1, 2}) {
        float expected = 1e-37f, change = 1e-37f;
        const std::vector<float> one = allOf(train(id, iterations, &expected));
        EXPECT_EQ(allOf(train(twofold, iterations, &change)), one);
        EXPECT_EQ(change, expected);
    }
}

TEST_F(TrainingCounts, BandWithTwoLastTransitionsUsesOne) {
    std::mt19937 random(33);
    for (std::size_t n : {3u, 4u, 9u}) {
        SCOPED_TRACE(n);
        const auto model = randomDiscrete(random, n, 5, Topology::banded);
        const SymbolData symbols = drawData(random, model, 5);
        const FrameData frames = frameData(random, 5, 3);
        const Codebook codebook(random, 5, 3);
        expectOneCopyIsUsed(makeDiscrete(model), [&](int id, int iterations, float* change) {
            return symbols.train(id, iterations, change);
        });
        expectOneCopyIsUsed(makeContinuous(randomContinuous(random, n, 3, Topology::banded)),
                            [&](int id, int iterations, float* change) {
                                return frames.trainContinuous(id, iterations, change);
                            });
        expectOneCopyIsUsed(makeSemicontinuous({model.chain, model.b}, 3),
                            [&](int id, int iterations, float* change) {
                                return frames.trainSemicontinuous(id, iterations, change);
                            });
        KTHMMFreeAll();
    }
}

// A last state that is never left keeps the transition that the recursions read, in both places.
TEST_F(TrainingCounts, BandWithTwoLastTransitionsKeepsOne) {
    std::mt19937 random(34);
    const auto model = randomDiscrete(random, 4, 5, Topology::banded);
    const int id = makeDiscrete(model), twofold = withOtherCopy(id, 0.03125f);
    const SymbolData data(std::vector<std::vector<int>>{{0}, {3}});
    float change = 1.0f;
    const int trained = data.train(twofold, 1, &change);
    EXPECT_EQ(allOf(trained), allOf(data.train(id, 1)));
    const HMMServer* server = KTFindHMMServer(trained);
    EXPECT_EQ(hmm::floats(server->transitions)[8], 1.0f);
    EXPECT_EQ(hmm::floats(server->transitions)[9], 1.0f);
}

} // namespace
