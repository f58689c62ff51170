#include "models/codebooks.h"
#include "models/outputs.h"
#include "support/alloc_faults.h"
#include "support/every_level.h"
#include "support/reports.h"
#include "support/timing.h"

#include <climits>
#include <limits>

using namespace models;
using support::secondsOf;

namespace {

using Forward = ModelTest;

constexpr float failure = std::numeric_limits<float>::max();
constexpr double log10Of2 = 0.3010299956639812;

float evaluate(int hmm, const std::vector<int>& symbols, int* pBest = nullptr) {
    return KTsEvalHMMForward(hmm, symbols.data(), int(symbols.size()), pBest);
}

// A recursion in double and a result in float: 2^-24 of the result beside what 1e-6 covers amply.
void expectCost(float cost, double expected) {
    EXPECT_NEAR(static_cast<double>(cost), expected, 1e-6 * std::fmax(1.0, std::fabs(expected)));
}

// One state that starts with `initial` and stays with `stay`; outputs by symbol.
int oneStateServer(float initial, float stay, std::vector<float> outputs) {
    return oneState(initial, stay, std::move(outputs)).discrete(KT_HMM_EXPONENTIAL);
}

// The sum over all paths of a short sequence, the recursion for a long one.
double costOf(const Model<float>& model, const Rows<double>& outputs) {
    return outputs.size() <= 5 ? costOfAllPaths(model.trans, model.initial, outputs, model.shape)
                               : forwardCost(model.trans, model.initial, outputs, model.shape);
}

// Below, at and above the number of frames whose outputs are computed at once, and a few that all
// paths are known of.
constexpr int sequenceLengths[] = {5, hmm::framesPerRun, hmm::framesPerRun + 1,
                                   2 * hmm::framesPerRun + 2};

} // namespace

TEST_F(Forward, DiscreteSumsAllPaths) {
    std::mt19937 random(1);
    for (const Shape shape : allShapes)
        for (int n = 1; n <= 4; ++n)
            for (int frames = 1; frames <= 5; ++frames) {
                const auto model = randomModel(random, n, 3, shape);
                const auto symbols = randomSymbols(random, frames, 3);
                const double expected = costOfAllPaths(model.trans, model.initial,
                                                       wide(outputsOf(model.out, symbols)), shape);
                const int id = model.discrete(KT_HMM_EXPONENTIAL);
                support::onEveryLevel([&] {
                    int best = -7;
                    expectCost(evaluate(id, symbols, &best), expected);
                    EXPECT_EQ(best, id);
                });
                KTFreeHMMServer(id);
            }
}

TEST_F(Forward, DiscreteIsThePlainRecursion) {
    std::mt19937 random(2);
    for (const Shape shape : allShapes)
        for (const int n : {3, 5, 8, 15, 16, 17, 30, 33, 48, 64, 65, 100})
            for (const int frames : {1, 2, 63, 64, 65, 130, 500}) {
                const auto model = randomModel(random, n, 4, shape);
                const auto symbols = randomSymbols(random, frames, 4);
                const double expected = forwardCost(model.trans, model.initial,
                                                    wide(outputsOf(model.out, symbols)), shape);
                const int id = model.discrete(KT_HMM_EXPONENTIAL);
                std::vector<float> costs;
                support::onEveryLevel([&] {
                    costs.push_back(evaluate(id, symbols));
                    expectCost(costs.back(), expected);
                });
                for (const float cost : costs)
                    EXPECT_EQ(cost, costs[0]); // the same bits at every level
                KTFreeHMMServer(id);
            }
}

TEST_F(Forward, ContinuousSumsAllPaths) {
    std::mt19937 random(3);
    constexpr int dim = 5;
    for (const Shape shape : allShapes)
        for (const bool full : {false, true})
            for (const int length : sequenceLengths) {
                const auto model = randomModel(random, 4, 1, shape);
                auto servers = floatServers(random, 4, dim, 3, full);
                const auto frames = framesOf<float>(random, length, dim);
                const auto outputs =
                    valuesOf(frames, servers, [](GaussMixServer* server, const float* x) {
                        return KTsEvalGaussMix(server, x, dim);
                    });
                const int id = model.continuous(servers.table.data(), dim, KT_HMM_EXPONENTIAL);
                support::onEveryLevel([&] {
                    int best = 0;
                    expectCost(KTsEvalContHMMForward(id, pointers(frames).data(), length, &best),
                               costOf(model, outputs));
                    EXPECT_EQ(best, id);
                });
                KTFreeHMMServer(id);
            }
}

TEST_F(Forward, SemicontinuousSumsAllPaths) {
    std::mt19937 random(4);
    constexpr int dim = 4, m = 6;
    for (const bool full : {false, true}) {
        reset();
        auto densities = floatServers(random, m, dim, 1, full);
        ASSERT_EQ(KTsInitSemicontCodebook(densities.table.data(), m, dim, 0), 1);
        for (const Shape shape : allShapes)
            for (const int length : sequenceLengths) {
                const auto model = randomModel(random, 4, m, shape);
                const auto frames = framesOf<float>(random, length, dim);
                const auto outputs = weightedOf(densitiesOf(frames, m, dim), model.out,
                                                [](double sum) { return sum; });
                const int id = model.semicont(dim, KT_HMM_EXPONENTIAL);
                // Sums of 6 positive products in floats are off by 6 * 2^-24 of them at most:
                // 1.6e-7 of a frame's cost, which is above 0.2 here.
                int best = 0;
                expectCost(KTsEvalSemicontHMMForward(id, pointers(frames).data(), length, &best),
                           costOf(model, outputs));
                EXPECT_EQ(best, id);
            }
    }
}

// --- range control ---

TEST_F(Forward, AMillionFramesNeedTheExponent) {
    const int id = oneStateServer(1.0f, 0.5f, {0.25f}); // 2^-3 a frame, 2^-2 in the first
    const double expected = (3.0 * 999999 + 2) * log10Of2;
    expectCost(evaluate(id, std::vector<int>(1000000, 0)), expected);

    std::mt19937 random(5);
    for (const Shape shape : {Shape::banded, Shape::full}) {
        const auto model = randomModel(random, 5, 4, shape);
        const auto symbols = randomSymbols(random, 1000000, 4);
        expectCost(
            evaluate(model.discrete(KT_HMM_EXPONENTIAL), symbols),
            forwardCost(model.trans, model.initial, wide(outputsOf(model.out, symbols)), shape));
    }
}

// Likelihoods above 1, as densities give them: the exponent goes down.
TEST_F(Forward, GrowingSums) {
    const int id = oneStateServer(1.0f, 1.0f, {1024.0f});
    expectCost(evaluate(id, std::vector<int>(10000, 0)), -10 * 10000 * log10Of2);
}

// The sum passes from the middle of the range to below 2^-256 in one step, and comes back over two
// frames.
TEST_F(Forward, OneStepRescalesBy256BitsAtMost) {
    const int id = oneStateServer(1.0f, 1.0f, {0x1p-100f, 1.0f});
    for (int frames = 1; frames < 40; ++frames) {
        expectCost(evaluate(id, std::vector<int>(at(frames), 0)), 100 * frames * log10Of2);
        std::vector<int> symbols(at(frames), 0);
        symbols.insert(symbols.end(), 3, 1);
        expectCost(evaluate(id, symbols), 100 * frames * log10Of2);
    }
    // 2^-126 to 2^-126 * 2^-149: far below what one step brings back
    const int steep = oneStateServer(0x1p-126f, 0x1p-149f, {1.0f});
    expectCost(evaluate(steep, {0, 0}), 275 * log10Of2);
    expectCost(evaluate(steep, {0, 0, 0}), 424 * log10Of2);
    expectCost(evaluate(steep, {0, 0, 0, 0, 0, 0}), (126 + 5 * 149) * log10Of2);
}

// Sums of exactly 2^-128 and just below it, 2^128 and above it: the exponent moves or stays, the
// cost is the same.
TEST_F(Forward, EdgesOfTheRange) {
    for (const float step : {0x1p-127f, 0x1p-128f, 0x1p-129f, 0x1p-64f, 0x1p127f}) {
        const int id = oneStateServer(1.0f, step, {1.0f, 2.0f, 4.0f});
        const double bits = -std::log2(static_cast<double>(step));
        expectCost(evaluate(id, {0, 0}), bits * log10Of2);
        expectCost(evaluate(id, {0, 0, 0}), 2 * bits * log10Of2);
        expectCost(evaluate(id, {0, 1, 0}), (2 * bits - 1) * log10Of2);
        expectCost(evaluate(id, {0, 2, 2}), (2 * bits - 4) * log10Of2);
    }
}

namespace {

// The kernel alone: one state, `outputs` frame by frame after a start of `start` * 2^(-exponent).
vsq::HmmForward advance(double start, const std::vector<float>& outputs, bool rescaleLast,
                        int exponent = 0) {
    static double trans[vsq::hmmLanes], vectors[2][vsq::hmmLanes];
    std::fill_n(trans, vsq::hmmLanes, 0.0);
    std::fill_n(&vectors[0][0], 2 * vsq::hmmLanes, 0.0);
    trans[0] = 1.0;
    vectors[0][0] = start;
    std::vector<std::vector<float>> rows;
    for (const float v : outputs) {
        rows.emplace_back(vsq::hmmLanes, 77.0f); // what follows the state's value takes no part
        rows.back()[0] = v;
    }
    const vsq::HmmModel<double> model{vsq::HmmTopology::full, 1, vsq::hmmLanes, trans};
    vsq::HmmForward state{vectors[0], vectors[1], start, exponent, false};
    vsq::kernels().hmm->forwardFloat(model, pointers(rows).data(), int(rows.size()), rescaleLast,
                                     &state);
    return state;
}

} // namespace

TEST_F(Forward, RangeControlByTheExponentField) {
    support::onEveryLevel([] {
        const auto expect = [](double start, bool last, int exponent, double sum) {
            const auto state = advance(start, {1.0f}, last);
            EXPECT_FALSE(state.failed) << start;
            EXPECT_EQ(state.exponent, exponent) << start;
            EXPECT_EQ(state.sum, sum) << start;
            EXPECT_EQ(state.current[0], sum) << start;
        };
        expect(0x1p-128, false, 0, 0x1p-128);
        expect(0x1.8p-129, false, 129, 0x1.8p0);
        expect(0x1.fp128, false, 0, 0x1.fp128);
        expect(0x1p129, false, -129, 1.0);
        expect(0x1p-256, false, 256, 1.0);
        expect(0x1.8p-257, false, 256, 0x1.8p-1); // no step multiplies by more
        expect(0x1p-1022, false, 256, 0x1p-766);
        expect(0x1.8p1022, false, -1022, 0x1.8p0);
        expect(0x1.8p-5, true, 5, 0x1.8p0); // after the last frame, in range or not
        expect(1.5, true, 0, 1.5);
        for (const double start : {0.0, -0.0, -1.0, -0x1p-300, 0x1p-1023, 0x1p1023, HUGE_VAL,
                                   -HUGE_VAL, std::numeric_limits<double>::quiet_NaN()})
            for (const bool last : {false, true})
                EXPECT_TRUE(advance(start, {1.0f}, last).failed) << start;
    });
}

// Millions of the steepest frames would count beyond the ints: that is a failure, not a wrapped
// exponent that looks like a likelihood.
TEST_F(Forward, ExponentsBeyondTheIntsFail) {
    support::onEveryLevel([] {
        const auto reached = advance(1.0, {0x1p-100f}, true, INT_MAX - 100);
        EXPECT_FALSE(reached.failed);
        EXPECT_EQ(reached.exponent, INT_MAX);
        EXPECT_TRUE(advance(1.0, {0x1p-100f}, true, INT_MAX - 99).failed);
        const auto lowest = advance(1.0, {0x1p100f}, true, INT_MIN + 100);
        EXPECT_FALSE(lowest.failed);
        EXPECT_EQ(lowest.exponent, INT_MIN);
        EXPECT_TRUE(advance(1.0, {0x1p100f}, true, INT_MIN + 99).failed);
    });
}

TEST_F(Forward, NothingIsRescaledOnTheWay) {
    support::onEveryLevel([] {
        const auto state = advance(1.0, {0x1p-64f, 0x1p-64f, 4.0f}, false);
        EXPECT_EQ(state.exponent, 0);
        EXPECT_EQ(state.sum, 0x1p-126);
        EXPECT_EQ(advance(1.0, {0x1p-64f, 0x1p-65f, 4.0f}, false).exponent, 129);
    });
}

TEST_F(Forward, AnImpossibleFrameFails) {
    std::mt19937 random(6);
    for (const Shape shape : allShapes) {
        auto model = randomModel(random, 5, 3, shape);
        for (auto& row : model.out)
            row[2] = 0;
        const int id = model.discrete(KT_HMM_EXPONENTIAL);
        int best = -7;
        EXPECT_EQ(evaluate(id, {0, 2, 1}, &best), failure);
        EXPECT_EQ(best, 0);
        EXPECT_EQ(evaluate(id, {2, 0, 1}), failure);
        EXPECT_EQ(evaluate(id, {0, 1, 2}), failure);
        EXPECT_LT(evaluate(id, {0, 1, 1}), failure);
        EXPECT_EQ(KTGetStatus(), 0);
    }
}

// --- a single frame ---

TEST_F(Forward, OneFrameIsThePlainSum) {
    const int id = oneStateServer(0.5f, 1.0f, {0x1p-140f, 0.25f});
    EXPECT_EQ(evaluate(id, {1}), static_cast<float>(3 * log10Of2));
    expectCost(evaluate(id, {0}), 141 * log10Of2);
}

TEST_F(Forward, OneFrameOfProbabilityZero) {
    const int id = oneStateServer(0.5f, 1.0f, {0.0f});
    int best = -7;
    EXPECT_EQ(evaluate(id, {0}, &best), failure);
    EXPECT_EQ(best, 0);
}

// With a single frame the sums of a class's members add up, and the last one with any likelihood
// wins.
TEST_F(Forward, OneFrameOfAClassIsCumulative) {
    const int group = KTCreateHMMClass();
    const int good = oneStateServer(1.0f, 1.0f, {0.5f, 0.0f, 0.0f});
    const int poor = oneStateServer(1.0f, 1.0f, {0.125f, 0.25f, 0.0f});
    const int impossible = oneStateServer(1.0f, 1.0f, {0.0f, 0.0f, 0.0f});
    for (const int id : {good, poor, impossible})
        KTAddHMMToClass(group, id);
    int best = 0;
    expectCost(evaluate(-group, {0}, &best), -std::log10(0.625));
    EXPECT_EQ(best, poor);
    expectCost(evaluate(-group, {1}, &best), -std::log10(0.25));
    EXPECT_EQ(best, poor);
    EXPECT_EQ(evaluate(-group, {2}, &best), failure);
    EXPECT_EQ(best, 0);
    // two frames: the impossible one ends the call,
    EXPECT_EQ(evaluate(-group, {0, 0}, &best), failure);
    EXPECT_EQ(best, good); // after what the earlier members gave
}

// --- classes ---

TEST_F(Forward, TheFirstOfEqualsIsNamed) {
    const int group = KTCreateHMMClass();
    const int first = oneStateServer(1.0f, 1.0f, {0.5f}),
              second = oneStateServer(1.0f, 1.0f, {0.5f});
    KTAddHMMToClass(group, second);
    KTAddHMMToClass(group, first);
    int best = 0;
    expectCost(evaluate(-group, {0, 0}, &best), 2 * log10Of2);
    EXPECT_EQ(best, first);
}

TEST_F(Forward, BestOfUnlikeModels) {
    std::mt19937 random(7);
    const int group = KTCreateHMMClass();
    const auto symbols = randomSymbols(random, 200, 4);
    float expected = failure;
    int expectedId = 0;
    for (int k = 0; k < 100; ++k) {
        const auto model = randomModel(random, 1 + k * 37 % 50, 4, allShapes[k % 3]);
        const int id = model.discrete(KT_HMM_EXPONENTIAL);
        ASSERT_EQ(KTAddHMMToClass(group, id), 1);
        const float cost = evaluate(id, symbols);
        if (cost < expected) {
            expected = cost;
            expectedId = id;
        }
    }
    int best = 0;
    EXPECT_EQ(evaluate(-group, symbols, &best), expected);
    EXPECT_EQ(best, expectedId);
}

// Members that differ in the exponent alone, in both orders.
TEST_F(Forward, ExponentsAreComparedFirst) {
    for (const bool betterFirst : {false, true}) {
        const int group = KTCreateHMMClass();
        const int a = oneStateServer(1.0f, 1.0f, {betterFirst ? 0.75f : 0.25f});
        const int b = oneStateServer(1.0f, 1.0f, {betterFirst ? 0.25f : 0.75f});
        KTAddHMMToClass(group, a);
        KTAddHMMToClass(group, b);
        int best = 0;
        expectCost(evaluate(-group, std::vector<int>(1000, 0), &best), -1000 * std::log10(0.75));
        EXPECT_EQ(best, betterFirst ? a : b);
    }
}

// The first model that cannot produce the sequence ends the call for the members behind it too.
TEST_F(Forward, AnImpossibleModelEndsTheClass) {
    const int group = KTCreateHMMClass();
    const int impossible = oneStateServer(1.0f, 1.0f, {0.0f});
    const int possible = oneStateServer(1.0f, 1.0f, {0.5f});
    KTAddHMMToClass(group, impossible);
    KTAddHMMToClass(group, possible);
    int best = -7;
    EXPECT_EQ(evaluate(-group, {0, 0}, &best), failure);
    EXPECT_EQ(best, 0);
}

// --- failures ---

TEST_F(Forward, NoRegistry) {
    const int symbol = 0;
    const float* frame = nullptr;
    int best = -7;
    EXPECT_EQ(KTsEvalHMMForward(1, &symbol, 1, &best), failure);
    EXPECT_EQ(KTsEvalContHMMForward(1, &frame, 1, &best), failure);
    EXPECT_EQ(KTsEvalSemicontHMMForward(1, &frame, 1, &best), failure);
    EXPECT_EQ(best, -7);
}

TEST_F(Forward, UnknownIdsAndHmmZero) {
    const int group = KTCreateHMMClass();
    const int symbol = 0;
    const float* frame = nullptr;
    for (const int hmm : {0, 5, -5, -group, INT_MIN, INT_MAX}) {
        int best = -7;
        EXPECT_EQ(KTsEvalHMMForward(hmm, &symbol, 1, &best), failure);
        EXPECT_EQ(best, 0);
        best = -7;
        EXPECT_EQ(KTsEvalContHMMForward(hmm, &frame, 1, &best), failure);
        EXPECT_EQ(best, 0);
        EXPECT_EQ(KTsEvalHMMForward(hmm, &symbol, 1, nullptr), failure);
    }
    int best = -7;
    EXPECT_EQ(KTsEvalSemicontHMMForward(-5, &frame, 1, &best), failure);
    EXPECT_EQ(best, 0);
    EXPECT_EQ(KTGetStatus(), 0);
}

TEST_F(Forward, NothingToObserve) {
    const int id = oneStateServer(1.0f, 1.0f, {0.5f});
    const int symbol = 0;
    int best = -7;
    EXPECT_EQ(KTsEvalHMMForward(id, &symbol, 0, &best), failure);
    EXPECT_EQ(KTsEvalHMMForward(id, &symbol, -3, &best), failure);
    EXPECT_EQ(best, 0);
}

TEST_F(Forward, SymbolsOutsideTheAlphabetAreNotRead) {
    const int id = oneStateServer(1.0f, 1.0f, {0.5f, 0.5f, 0.5f});
    EXPECT_EQ(evaluate(id, {0, 3}), failure);
    EXPECT_EQ(evaluate(id, {-1, 0}), failure);
}

TEST_F(Forward, AServerOfAnotherKindIsNotRead) {
    const int id = oneStateServer(1.0f, 1.0f, {0.5f});
    const Rows<float> frames{{0, 0}};
    EXPECT_EQ(KTsEvalContHMMForward(id, pointers(frames).data(), 1, nullptr), failure);
}

TEST_F(Forward, ANegativeStatusEndsTheCall) {
    const int id = oneStateServer(1.0f, 1.0f, {0.5f});
    KTSetStatus(-2);
    int best = -7;
    EXPECT_EQ(evaluate(id, {0}, &best), failure);
    EXPECT_EQ(best, 0);
}

namespace {

void expectReport(const support::CapturedReports& reports, const char* text) {
    ASSERT_EQ(reports.count(), 1u) << text;
    EXPECT_EQ(reports[0].status, KT_StsBadArg);
    EXPECT_EQ(reports[0].message, text);
    EXPECT_EQ(reports[0].function, "KTsEvalSemicontHMMForward");
    EXPECT_EQ(reports[0].source, "..\\_LIBSRC\\KT_HFOR");
}

} // namespace

TEST_F(Forward, CodebookFailures) {
    KTSetHMMMode(0);
    std::mt19937 random(8);
    const auto frames = framesOf<float>(random, 1, 3);
    const auto rows = pointers(frames);
    {
        support::CapturedReports reports;
        int best = -7;
        EXPECT_EQ(KTsEvalSemicontHMMForward(0, rows.data(), 1, &best), failure);
        expectReport(reports, "_sSemicontCodebook->ccgPdfs==0");
        EXPECT_EQ(best, 0);
    }
    auto densities = floatServers(random, 4, 3, 1, false);
    ASSERT_EQ(KTsInitSemicontCodebook(densities.table.data(), 4, 3, 0), 1);
    const int id = randomModel(random, 2, 4, Shape::full).semicont(3, KT_HMM_EXPONENTIAL);
    KTsFreeSemicontCodebook();
    KTsInitSemicontCodebook(densities.table.data(), 3, 3, 0);
    {
        support::CapturedReports reports;
        EXPECT_EQ(KTsEvalSemicontHMMForward(id, rows.data(), 1, nullptr), failure);
        expectReport(reports, "nSymbols!=_sSemicontCodebook->nSymbols");
    }
    KTsFreeSemicontCodebook();
    KTsInitSemicontCodebook(densities.table.data(), 4, 2, 0);
    {
        support::CapturedReports reports;
        EXPECT_EQ(KTsEvalSemicontHMMForward(id, rows.data(), 1, nullptr), failure);
        expectReport(reports, "nQuant!=_sSemicontCodebook->nQuant");
    }
}

TEST_F(Forward, AllocationFailures) {
    std::mt19937 random(9);
    auto densities = floatServers(random, 4, 3, 1, false);
    ASSERT_EQ(KTsInitSemicontCodebook(densities.table.data(), 4, 3, 0), 1);
    const int group = KTCreateHMMClass(), semicontGroup = KTCreateHMMClass();
    for (const int n : {3, 40}) {
        KTAddHMMToClass(group, randomModel(random, n, 4, Shape::full).discrete(KT_HMM_EXPONENTIAL));
        KTAddHMMToClass(semicontGroup,
                        randomModel(random, n, 4, Shape::full).semicont(3, KT_HMM_EXPONENTIAL));
    }
    const auto symbols = randomSymbols(random, 10, 4);
    const auto frames = framesOf<float>(random, 10, 3);
    const auto rows = pointers(frames);
    const long before = support::alloc::liveBlocks();
    float result = 0;
    const auto check = [&] {
        EXPECT_EQ(result, failure);
        EXPECT_EQ(KTGetStatus(), 0);
        EXPECT_EQ(support::alloc::liveBlocks(), before);
    };
    EXPECT_EQ(support::alloc::failEach([&] { result = evaluate(-group, symbols); }, check), 2);
    EXPECT_LT(result, failure);
    EXPECT_EQ(
        support::alloc::failEach(
            [&] { result = KTsEvalSemicontHMMForward(-semicontGroup, rows.data(), 10, nullptr); },
            check),
        3);
    EXPECT_LT(result, failure);
    EXPECT_EQ(support::alloc::liveBlocks(), before);
}

// --- transitions as they are stored ---

namespace {

// The result where memory for the unpacked transitions is missing.
float evaluateStored(int hmm, const std::vector<int>& symbols) {
    support::alloc::arm(1);
    const float cost = evaluate(hmm, symbols);
    support::alloc::disarm();
    return cost;
}

} // namespace

// Models and sequences on both sides of what is unpacked: the plain recursion's cost, and the same
// bits at every level, with and without memory to unpack.
TEST_F(Forward, StoredTransitionsGiveTheSameBits) {
    std::mt19937 random(16);
    for (const Shape shape : {Shape::full, Shape::triangular})
        for (const int n : {1, 2, 4, 15, 16, 17, 31, 33, 64, 65, 100, 176, 177, 200, 270})
            for (const int frames : {2, 3, hmm::fewFrames, hmm::fewFrames + 1, 70}) {
                const auto model = randomModel(random, n, 4, shape);
                const auto symbols = randomSymbols(random, frames, 4);
                const int id = model.discrete(KT_HMM_EXPONENTIAL);
                const float expected = evaluate(id, symbols);
                expectCost(expected, forwardCost(model.trans, model.initial,
                                                 wide(outputsOf(model.out, symbols)), shape));
                support::onEveryLevel([&] {
                    EXPECT_EQ(evaluate(id, symbols), expected) << n << ' ' << frames;
                    if (frames > hmm::fewFrames && n <= 176) {
                        EXPECT_EQ(evaluateStored(id, symbols), expected) << n << ' ' << frames;
                        EXPECT_TRUE(support::alloc::failed()) << n;
                    }
                });
                KTFreeHMMServer(id);
            }
}

// What stands behind a stored row and behind the whole array takes no part, whatever it is.
TEST_F(Forward, NothingBehindStoredRowsCounts) {
    std::mt19937 random(17);
    std::uniform_real_distribution<float> uniform(0.01f, 0.1f);
    constexpr int frames = 3;
    for (const auto topology : {vsq::HmmTopology::full, vsq::HmmTopology::triangular})
        for (const int n : {1, 2, 15, 16, 17, 63, 64, 65, 130}) {
            const int stride = (n + 15) / 16 * 16;
            std::vector<float> stored, outputs(at(stride + 16), std::nanf(""));
            std::vector<double> padded(at(n * stride), 0.0);
            for (int i = 0; i < n; ++i)
                for (int j = topology == vsq::HmmTopology::full ? 0 : i; j < n; ++j) {
                    stored.push_back(uniform(random));
                    padded[at(i * stride + j)] = static_cast<double>(stored.back());
                }
            stored.insert(stored.end(), 16, std::nanf(""));
            std::fill_n(outputs.begin(), n, 0.5f);
            const std::vector<const float*> rows(frames, outputs.data());
            support::onEveryLevel([&] {
                std::vector<double> a(at(2 * stride), 0.1), b = a;
                std::fill(a.begin() + n, a.end(), 0.0);
                b = a;
                vsq::HmmForward expected{a.data(), a.data() + stride, 1.0, 0, false};
                vsq::HmmForward found{b.data(), b.data() + stride, 1.0, 0, false};
                const auto& kernels = *vsq::kernels().hmm;
                kernels.forwardFloat({topology, n, stride, padded.data()}, rows.data(), frames,
                                     true, &expected);
                kernels.storedForwardFloat({topology, n, stride, stored.data()}, rows.data(),
                                           frames, true, &found);
                EXPECT_EQ(found.sum, expected.sum) << n;
                EXPECT_EQ(found.exponent, expected.exponent) << n;
                EXPECT_EQ(std::vector<double>(found.current, found.current + stride),
                          std::vector<double>(expected.current, expected.current + stride));
            });
        }
}

// Two vectors, and a band's three diagonals; never the square of the states. Where outputs are
// computed, rows for them.
TEST_F(Forward, ScratchGrowsWithTheStatesAlone) {
    std::mt19937 random(18);
    constexpr int n = 600;
    constexpr long vector = 608 * sizeof(double), slack = 1024;
    const Rows<float> frames = framesOf<float>(random, 100, 1);
    const auto rows = pointers(frames);
    for (const Shape shape : allShapes) {
        const auto model = randomModel(random, n, 2, shape);
        const int id = model.discrete(KT_HMM_EXPONENTIAL);
        auto servers = floatServers(random, n, 1, 1, false);
        const int continuous = model.continuous(servers.table.data(), 1, KT_HMM_EXPONENTIAL);
        const long ofModel = shape == Shape::banded ? 3 * vector : 0;
        for (const int length : {1, 2, 100}) {
            support::alloc::arm(0);
            evaluate(id, std::vector<int>(at(length), 0));
            EXPECT_LE(support::alloc::bytes(), 2 * vector + ofModel + slack) << length;
            support::alloc::arm(0);
            KTsEvalContHMMForward(continuous, rows.data(), length, nullptr);
            EXPECT_LE(support::alloc::bytes(),
                      (2 + std::min(length, 14)) * vector + ofModel + slack)
                << length;
            support::alloc::disarm();
        }
    }
}

// A single frame needs no transition. Unpacked, these would cost as much as some frames.
TEST_F(Forward, OneFrameOfALargeModelCostsNextToNothing) {
    std::mt19937 random(19);
    const int id = randomModel(random, 1000, 2, Shape::full).discrete(KT_HMM_EXPONENTIAL);
    double ratio = 1.0; // the least of some tries: the machine may be busy
    for (int attempt = 0; attempt < 20 && ratio > 0.05; ++attempt)
        ratio = std::min(ratio, secondsOf([&] { evaluate(id, {0}); }) / secondsOf([&] {
                                    evaluate(id, {0, 1, 1});
                                }));
    EXPECT_LT(ratio, 0.05);
}

TEST_F(Forward, AMissingUnpackedFormFailsNothing) {
    std::mt19937 random(20);
    const auto symbols = randomSymbols(random, 100, 4);
    for (const Shape shape : {Shape::full, Shape::triangular}) {
        const int group = KTCreateHMMClass();
        for (const int n : {5, 40, 20, 60})
            KTAddHMMToClass(group, randomModel(random, n, 4, shape).discrete(KT_HMM_EXPONENTIAL));
        int expectedBest = 0, best = 0, full = 0;
        const float expected = evaluate(-group, symbols, &expectedBest);
        ASSERT_LT(expected, failure);
        const long before = support::alloc::liveBlocks();
        float result = 0;
        support::alloc::failEach([&] { result = evaluate(-group, symbols, &best); },
                                 [&] {
                                     EXPECT_EQ(result, expected);
                                     EXPECT_EQ(best, expectedBest);
                                     ++full;
                                     EXPECT_EQ(support::alloc::liveBlocks(), before);
                                 });
        EXPECT_GE(full, 3);
        support::alloc::armFrom(1);
        EXPECT_EQ(evaluate(-group, symbols), failure); // without vectors there is no recursion
        support::alloc::disarm();
    }
}

// Evaluation keeps nothing of a model: whatever changes a parameter, the next call scores with it.
TEST_F(Forward, EveryChangeOfAParameterCounts) {
    std::mt19937 random(21);
    const auto symbols = randomSymbols(random, 40, 4);
    for (const Shape shape : allShapes) {
        const int changed = randomModel(random, 20, 4, shape).discrete(KT_HMM_EXPONENTIAL);
        const auto expectAs = [&](const Model<float>& model) {
            expectCost(evaluate(changed, symbols),
                       forwardCost(model.trans, model.initial, wide(outputsOf(model.out, symbols)),
                                   model.shape));
        };
        // the same shape and others, in the same arrays and in new ones
        for (const Shape next : allShapes) {
            const auto model = randomModel(random, 20, 4, next);
            const auto trans = pointers(model.trans), out = pointers(model.out);
            evaluate(changed, symbols);
            KTSetHMMServerParm(changed, 0, trans.data(), out.data(), model.initial.data(), 20, 4,
                               int(HMM_SERVER_DISCRETE | HMM_SERVER_FLOAT | KT_HMM_EXPONENTIAL));
            expectAs(model);
            auto moved = randomModel(random, 20, 4, next); // transitions alone
            const auto movedTrans = pointers(moved.trans);
            KTSetHMMServerParm(changed, 0, movedTrans.data(), nullptr, nullptr, -1, -1, -1);
            moved.out = model.out;
            moved.initial = model.initial;
            expectAs(moved);
            KTFreeHMMServer(changed); // another one under the same id
            const auto fresh = randomModel(random, 17, 4, next);
            ASSERT_EQ(fresh.discrete(KT_HMM_EXPONENTIAL), changed);
            expectAs(fresh);
        }
    }
}
