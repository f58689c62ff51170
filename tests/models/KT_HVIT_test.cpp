#include "models/codebooks.h"
#include "models/outputs.h"
#include "oracle/log10_fixed.h"
#include "support/alloc_faults.h"
#include "support/every_level.h"
#include "support/reports.h"
#include "support/timing.h"

#include <climits>
#include <cstring>
#include <iterator>
#include <limits>
#include <numeric>

using namespace models;
using support::secondsOf;

namespace {

using Viterbi = ModelTest;

constexpr float floatFailure = std::numeric_limits<float>::max();
constexpr int fixedFailure = INT_MAX;

float evaluate(int hmm, const std::vector<int>& symbols, int* pBest = nullptr) {
    return KTsEvalHMMViterbi(hmm, symbols.data(), int(symbols.size()), pBest);
}
int evaluateFixed(int hmm, const std::vector<int>& symbols, int* pBest = nullptr) {
    return KTwEvalHMMViterbi(hmm, symbols.data(), int(symbols.size()), pBest, 0, nullptr);
}

// The minimum over all paths of a short sequence, the recursion for a long one.
template <class T>
T bestCost(const Rows<T>& trans, const std::vector<T>& initial, const Rows<T>& outputs,
           Shape shape) {
    return outputs.size() <= 5 ? bestOfAllPaths(trans, initial, outputs, shape)
                               : bestPath(trans, initial, outputs, shape);
}

// The same in double, for outputs that are known up to an error.
Uncertain bestCost(const Model<float>& model, const Rows<Uncertain>& outputs, Shape shape) {
    Rows<double> values;
    double error = 0;
    for (const auto& row : outputs) {
        values.emplace_back();
        double worst = 0;
        for (const Uncertain& output : row) {
            values.back().push_back(output.value);
            worst = std::max(worst, output.error);
        }
        error += worst;
    }
    const double cost =
        bestCost(wide(model.trans), wide(Rows<float>{model.initial})[0], values, shape);
    // each frame adds twice, each time with half a unit of the largest sum
    return {cost, error + double(outputs.size()) * std::ldexp(1.0, std::ilogb(cost) + 1 - 23)};
}

// Below, at and above the number of frames whose outputs are computed at once, and a few that all
// paths are known of.
constexpr int sequenceLengths[] = {5, hmm::framesPerRun, hmm::framesPerRun + 1,
                                   2 * hmm::framesPerRun + 2};

} // namespace

TEST_F(Viterbi, DiscreteFloatIsTheBestOfAllPaths) {
    std::mt19937 random(1);
    for (const Shape shape : allShapes)
        for (int n = 1; n <= 4; ++n)
            for (int frames = 1; frames <= 5; ++frames) {
                const auto model = costsOf(randomModel(random, n, 3, shape));
                const auto symbols = randomSymbols(random, frames, 3);
                const int id = model.discrete(KT_HMM_LOGARITHMIC);
                support::onEveryLevel([&] {
                    int best = -7;
                    EXPECT_EQ(evaluate(id, symbols, &best),
                              bestOfAllPaths(model.trans, model.initial,
                                             outputsOf(model.out, symbols), shape));
                    EXPECT_EQ(best, id);
                });
                KTFreeHMMServer(id);
            }
}

TEST_F(Viterbi, DiscreteFixedIsTheBestOfAllPaths) {
    std::mt19937 random(2);
    for (const Shape shape : allShapes)
        for (int n = 1; n <= 4; ++n)
            for (int frames = 1; frames <= 5; ++frames) {
                auto model = fixedOf(randomModel(random, n, 3, shape));
                model.out[0][1] = 0x7FFE; // costs of zero probability
                model.initial.back() = 0x7FFF;
                const auto symbols = randomSymbols(random, frames, 3);
                const int id = model.discrete(KT_HMM_LOGARITHMIC);
                const auto initial = widened(Rows<short>{model.initial})[0];
                support::onEveryLevel([&] {
                    int best = -7;
                    EXPECT_EQ(evaluateFixed(id, symbols, &best),
                              bestOfAllPaths(widened(model.trans), initial,
                                             outputsOf(widened(model.out), symbols), shape));
                    EXPECT_EQ(best, id);
                });
                KTFreeHMMServer(id);
            }
}

// Sizes on both sides of the vectors' widths and of their blocks; lengths on both sides of a run of
// frames.
TEST_F(Viterbi, DiscreteIsThePlainRecursionBitForBit) {
    std::mt19937 random(3);
    for (const Shape shape : allShapes)
        for (const int n : {3, 5, 8, 15, 16, 17, 30, 33, 48, 64, 65, 100})
            for (const int frames : {1, 2, 63, 64, 65, 130}) {
                const auto probabilities = randomModel(random, n, 4, shape);
                const auto model = costsOf(probabilities);
                const auto fixed = fixedOf(probabilities);
                const auto symbols = randomSymbols(random, frames, 4);
                const int id = model.discrete(0), fixedId = fixed.discrete(KT_HMM_LOGARITHMIC);
                const float expected =
                    bestPath(model.trans, model.initial, outputsOf(model.out, symbols), shape);
                const int expectedFixed =
                    bestPath(widened(fixed.trans), widened(Rows<short>{fixed.initial})[0],
                             outputsOf(widened(fixed.out), symbols), shape);
                support::onEveryLevel([&] {
                    ASSERT_EQ(evaluate(id, symbols), expected) << n << ' ' << frames;
                    ASSERT_EQ(evaluateFixed(fixedId, symbols), expectedFixed) << n << ' ' << frames;
                });
                KTFreeHMMServer(id);
                KTFreeHMMServer(fixedId);
            }
}

TEST_F(Viterbi, ContinuousFloat) {
    std::mt19937 random(4);
    constexpr int dim = 5;
    for (const Shape shape : allShapes)
        for (const bool full : {false, true})
            for (const int length : sequenceLengths) {
                const auto model = costsOf(randomModel(random, 4, 1, shape));
                auto servers = floatServers(random, 4, dim, 3, full);
                const auto frames = framesOf<float>(random, length, dim);
                const auto outputs =
                    valuesOf(frames, servers, [](GaussMixServer* server, const float* x) {
                        return costOf(likelihoodOf(server, x, dim));
                    });
                const Uncertain expected = bestCost(model, outputs, shape);
                const int id = model.continuous(servers.table.data(), dim, 0);
                int best = 0;
                EXPECT_NEAR(KTsEvalContHMMViterbi(id, pointers(frames).data(), length, &best),
                            expected.value, expected.error);
                EXPECT_EQ(best, id);
                KTFreeHMMServer(id);
            }
}

TEST_F(Viterbi, ContinuousFixed) {
    std::mt19937 random(5);
    constexpr int dim = 5, scale = -8;
    for (const Shape shape : allShapes)
        for (const bool full : {false, true})
            for (const int length : sequenceLengths) {
                const auto model = fixedOf(randomModel(random, 4, 1, shape));
                auto servers = fixedServers(random, 4, dim, 2, full);
                const auto frames = framesOf<short>(random, length, dim);
                int positive = 0; // otherwise there is nothing to tell apart
                const auto outputs =
                    valuesOf(frames, servers, [&](GaussMixServer* server, const short* x) {
                        const int likelihood = fixedLikelihoodOf(server, x, dim);
                        positive += likelihood > 0;
                        return oracle::log10Fixed(likelihood, -28, -scale);
                    });
                EXPECT_GT(positive, 2 * length);
                const int id =
                    model.continuous(servers.table.data(), dim, KT_HMM_LOGARITHMIC, scale);
                int best = 0;
                EXPECT_EQ(
                    KTwEvalContHMMViterbi(id, pointers(frames).data(), length, &best, 0, nullptr),
                    bestCost(widened(model.trans), widened(Rows<short>{model.initial})[0], outputs,
                             shape));
                EXPECT_EQ(best, id);
                KTFreeHMMServer(id);
            }
}

TEST_F(Viterbi, SemicontinuousFloat) {
    std::mt19937 random(6);
    constexpr int dim = 4, m = 6;
    for (const bool full : {false, true}) {
        reset();
        auto densities = floatServers(random, m, dim, 1, full);
        ASSERT_EQ(KTsInitSemicontCodebook(densities.table.data(), m, dim, 0), 1);
        for (const Shape shape : allShapes)
            for (const int length : sequenceLengths) {
                const auto probabilities = randomModel(random, 4, m, shape);
                auto model = costsOf(probabilities);
                model.out = probabilities.out; // weights stay linear
                const auto frames = framesOf<float>(random, length, dim);
                Rows<Uncertain> outputs;
                for (const auto& frame : frames) {
                    outputs.emplace_back();
                    for (const auto& weights : model.out)
                        outputs.back().push_back(
                            costOf(likelihoodOf(weights, densities, frame.data(), dim)));
                }
                const Uncertain expected = bestCost(model, outputs, shape);
                const int id = model.semicont(dim, 0);
                int best = 0;
                EXPECT_NEAR(KTsEvalSemicontHMMViterbi(id, pointers(frames).data(), length, &best),
                            expected.value, expected.error);
                EXPECT_EQ(best, id);
            }
    }
}

TEST_F(Viterbi, SemicontinuousFixed) {
    std::mt19937 random(7);
    constexpr int dim = 4, m = 6, scale = -8;
    for (const bool full : {false, true}) {
        reset();
        auto densities = fixedServers(random, m, dim, 1, full);
        ASSERT_EQ(KTwInitSemicontCodebook(densities.table.data(), m, dim, 0), 1);
        for (const Shape shape : allShapes)
            for (const int length : sequenceLengths) {
                auto model = fixedOf(randomModel(random, 4, m, shape));
                model.out = fixedWeights(random, 4, m);
                const auto frames = framesOf<short>(random, length, dim);
                int positive = 0;
                Rows<int> outputs;
                for (const auto& frame : frames) {
                    outputs.emplace_back();
                    const auto values = fixedDensitiesOf(densities, frame.data(), dim);
                    for (const auto& weights : model.out) {
                        const int likelihood =
                            std::inner_product(weights.begin(), weights.end(), values.begin(), 0);
                        positive += likelihood > 0;
                        outputs.back().push_back(oracle::log10Fixed(likelihood, -24, -scale));
                    }
                }
                EXPECT_GT(positive, 2 * length);
                const int id = model.semicont(dim, KT_HMM_LOGARITHMIC, scale);
                int best = 0;
                EXPECT_EQ(KTwEvalSemicontHMMViterbi(id, pointers(frames).data(), length, &best, 0,
                                                    nullptr),
                          bestCost(widened(model.trans), widened(Rows<short>{model.initial})[0],
                                   outputs, shape));
                EXPECT_EQ(best, id);
            }
    }
}

// An impossible likelihood costs plus infinity in float and the log zero in fixed point.
TEST_F(Viterbi, LikelihoodZero) {
    const auto model = costsOf([] {
        std::mt19937 random(8);
        return randomModel(random, 3, 1, Shape::full);
    }());
    std::mt19937 random(9);
    auto servers = floatServers(random, 3, 2, 1, false);
    const int id = model.continuous(servers.table.data(), 2, 0);
    const Rows<float> frames{{0, 0}, {1e18f, 1e18f}};
    int best = -7;
    EXPECT_EQ(KTsEvalContHMMViterbi(id, pointers(frames).data(), 2, &best), floatFailure);
    EXPECT_EQ(best, -7); // plus infinity is not below the largest float

    auto fixed = fixedServers(random, 1, 2, 2, false);
    const auto word = oneState<short>(3, 0, {0});
    const int fixedId = word.continuous(fixed.table.data(), 2, KT_HMM_LOGARITHMIC, -8);
    const Rows<short> far{{32000, 32000}};
    EXPECT_EQ(KTwEvalContHMMViterbi(fixedId, pointers(far).data(), 1, &best, 0, nullptr),
              HMM_LOG_ZERO + 3);
    EXPECT_EQ(best, fixedId);
}

TEST_F(Viterbi, OneFrameIsTheSmallestStart) {
    const Model<float> model{3,
                             2,
                             Shape::full,
                             Rows<float>(3, std::vector<float>(3, 1.0f)),
                             {{1, 9}, {2, 9}, {5, 9}},
                             {4, 2.5f, 3}};
    const int id = model.discrete(0);
    EXPECT_EQ(evaluate(id, {0}), 4.5f);
    EXPECT_EQ(evaluate(id, {1}), 11.5f);
}

TEST_F(Viterbi, FixedUnitsAreTheScales) {
    const auto model = oneState<short>(512, 0, {0, 512}); // 1e-2 at a scale of -8
    const int id = model.discrete(KT_HMM_LOGARITHMIC);
    EXPECT_EQ(evaluateFixed(id, {0}), 512);
    EXPECT_EQ(evaluateFixed(id, {1, 1, 1}), 512 + 3 * 512);
}

TEST_F(Viterbi, ScaleStep) {
    const int id = oneState<short>(100, 0, {0}).discrete(KT_HMM_LOGARITHMIC);
    const int symbol = 0;
    const auto shifted = [&](int mode, int scale) {
        const int result = KTwEvalHMMViterbi(id, &symbol, 1, nullptr, mode, &scale);
        return std::pair(result, scale);
    };
    EXPECT_EQ(shifted(1, 3), std::pair(100 >> 3, 3));
    EXPECT_EQ(shifted(1, -3), std::pair(100 << 3, -3));
    EXPECT_EQ(shifted(1, 0), std::pair(100, 0));
    EXPECT_EQ(shifted(1, 31), std::pair(0, 31));
    EXPECT_EQ(shifted(1, 32), std::pair(0, 32));
    EXPECT_EQ(shifted(1, INT_MAX), std::pair(0, INT_MAX));
    EXPECT_EQ(shifted(1, -30), std::pair(0, -30)); // 100 << 30 leaves the word: nothing saturates
    EXPECT_EQ(shifted(1, INT_MIN), std::pair(0, INT_MIN));
    for (const int mode : {0, 2, 3, -1})
        EXPECT_EQ(shifted(mode, 3), std::pair(100, 0));
    EXPECT_EQ(KTwEvalHMMViterbi(id, &symbol, 1, nullptr, 1, nullptr), 100);
    EXPECT_EQ(KTwEvalHMMViterbi(id, &symbol, 1, nullptr, 0, nullptr), 100);
}

TEST_F(Viterbi, NegativeCostsShiftArithmetically) {
    const int id = oneState<short>(-5, 0, {0}).discrete(KT_HMM_LOGARITHMIC);
    int symbol = 0, scale = 1;
    EXPECT_EQ(KTwEvalHMMViterbi(id, &symbol, 1, nullptr, 1, &scale), -3);
}

TEST_F(Viterbi, ATieNamesTheLaterModel) {
    const auto model = oneState<float>(1, 0, {0.5f});
    const int first = model.discrete(0), second = model.discrete(0), group = KTCreateHMMClass();
    const int worse = oneState<float>(1, 0, {0.75f}).discrete(0);
    for (const int id : {second, first, worse})
        ASSERT_EQ(KTAddHMMToClass(group, id), 1);
    int best = 0;
    EXPECT_EQ(evaluate(-group, {0, 0}, &best), 2.0f);
    EXPECT_EQ(best, second);
    EXPECT_EQ(evaluate(-group, {0, 0}, &best), 2.0f); // the cursor is rewound on entry
}

TEST_F(Viterbi, AnImpossibleModelDoesNotEndTheClass) {
    const int group = KTCreateHMMClass();
    const int impossible = oneState<float>(1, 0, {std::numeric_limits<float>::max()}).discrete(0);
    const int possible = oneState<float>(1, 0, {2}).discrete(0);
    KTAddHMMToClass(group, impossible);
    KTAddHMMToClass(group, possible);
    int best = 0;
    EXPECT_EQ(evaluate(-group, {0}, &best), 3.0f);
    EXPECT_EQ(best, possible);
}

// Members of all topologies and sizes: the scratch grows on the way.
TEST_F(Viterbi, ClassOfUnlikeModels) {
    std::mt19937 random(10);
    const int group = KTCreateHMMClass();
    const auto symbols = randomSymbols(random, 70, 4);
    float expected = floatFailure;
    int expectedId = 0;
    for (int k = 0; k < 100; ++k) {
        const auto model = costsOf(randomModel(random, 1 + k * 37 % 50, 4, allShapes[k % 3]));
        const int id = model.discrete(0);
        ASSERT_EQ(KTAddHMMToClass(group, id), 1);
        const float cost = evaluate(id, symbols);
        if (cost <= expected) {
            expected = cost;
            expectedId = id;
        }
    }
    int best = 0;
    EXPECT_EQ(evaluate(-group, symbols, &best), expected);
    EXPECT_EQ(best, expectedId);
}

// Impossible steps only: twice the log zero a frame, which wraps after 512 frames.
TEST_F(Viterbi, FixedCostsWrap) {
    const int id = oneState<short>(0x7FFF, 0x7FFF, {0x7FFF}).discrete(KT_HMM_LOGARITHMIC);
    for (const int frames : {1, 512, 513, 1024, 5000}) {
        const std::vector<int> symbols(at(frames), 0);
        const auto expected = static_cast<int>(2u * static_cast<unsigned>(frames) *
                                               static_cast<unsigned>(HMM_LOG_ZERO));
        EXPECT_EQ(evaluateFixed(id, symbols), expected);
    }
    EXPECT_LT(evaluateFixed(id, std::vector<int>(513, 0)), 0);
}

TEST_F(Viterbi, AMillionFrames) {
    std::mt19937 random(11);
    for (const Shape shape : {Shape::banded, Shape::full}) {
        const auto probabilities = randomModel(random, 5, 4, shape);
        const auto model = costsOf(probabilities);
        const auto fixed = fixedOf(probabilities);
        const auto symbols = randomSymbols(random, 1000000, 4);
        EXPECT_EQ(evaluate(model.discrete(0), symbols),
                  bestPath(model.trans, model.initial, outputsOf(model.out, symbols), shape));
        EXPECT_EQ(evaluateFixed(fixed.discrete(KT_HMM_LOGARITHMIC), symbols),
                  bestPath(widened(fixed.trans), widened(Rows<short>{fixed.initial})[0],
                           outputsOf(widened(fixed.out), symbols), shape));
    }
}

// A server without a domain keeps its values as they came.
TEST_F(Viterbi, FixedWithoutDomain) {
    std::mt19937 random(12);
    auto model = fixedOf(randomModel(random, 4, 3, Shape::full));
    model.out[0][0] = 0x7FFF;
    const auto symbols = randomSymbols(random, 9, 3);
    const int id = model.discrete(0);
    const auto plain = [](const Rows<short>& rows) {
        Rows<int> result;
        for (const auto& row : rows)
            result.emplace_back(row.begin(), row.end());
        return result;
    };
    EXPECT_EQ(evaluateFixed(id, symbols),
              bestPath(plain(model.trans), plain({model.initial})[0],
                       outputsOf(plain(model.out), symbols), Shape::full));
}

// --- failures ---

TEST_F(Viterbi, NoRegistry) {
    const int symbol = 0;
    const float* frame = nullptr;
    const short* words = nullptr;
    int best = -7, scale = 3;
    EXPECT_EQ(KTsEvalHMMViterbi(1, &symbol, 1, &best), floatFailure);
    EXPECT_EQ(KTsEvalContHMMViterbi(1, &frame, 1, &best), floatFailure);
    EXPECT_EQ(KTsEvalSemicontHMMViterbi(1, &frame, 1, &best), floatFailure);
    EXPECT_EQ(KTwEvalHMMViterbi(1, &symbol, 1, &best, 0, &scale), fixedFailure);
    EXPECT_EQ(KTwEvalContHMMViterbi(1, &words, 1, &best, 0, &scale), fixedFailure);
    EXPECT_EQ(KTwEvalSemicontHMMViterbi(1, &words, 1, &best, 0, &scale), fixedFailure);
    EXPECT_EQ(best, -7);
}

TEST_F(Viterbi, UnknownIdsAndHmmZero) {
    std::mt19937 random(15);
    auto densities = floatServers(random, 2, 2, 1, false),
         fixedDensities = fixedServers(random, 2, 2, 1, false);
    ASSERT_EQ(KTsInitSemicontCodebook(densities.table.data(), 2, 2, 0), 1);
    ASSERT_EQ(KTwInitSemicontCodebook(fixedDensities.table.data(), 2, 2, 0), 1);
    const int symbol = 0;
    const float* frame = nullptr;
    const short* words = nullptr;
    int best = -7, scale = 3;
    for (const int hmm : {5, -5, INT_MIN, INT_MAX}) {
        EXPECT_EQ(KTsEvalHMMViterbi(hmm, &symbol, 1, &best), floatFailure);
        EXPECT_EQ(KTsEvalContHMMViterbi(hmm, &frame, 1, &best), floatFailure);
        EXPECT_EQ(KTsEvalSemicontHMMViterbi(hmm, &frame, 1, &best), floatFailure);
        EXPECT_EQ(KTwEvalHMMViterbi(hmm, &symbol, 1, &best, 0, &scale), fixedFailure);
        EXPECT_EQ(KTwEvalContHMMViterbi(hmm, &words, 1, &best, 0, &scale), fixedFailure);
        EXPECT_EQ(KTwEvalSemicontHMMViterbi(hmm, &words, 1, &best, 0, &scale), fixedFailure);
    }
    EXPECT_EQ(KTsEvalHMMViterbi(0, &symbol, 1, &best), floatFailure);
    EXPECT_EQ(KTsEvalContHMMViterbi(0, &frame, 1, &best), floatFailure);
    EXPECT_EQ(best, -7);
    scale = 4;
    EXPECT_EQ(KTwEvalHMMViterbi(0, &symbol, 1, &best, 1, &scale), INT_MAX >> 4);
    EXPECT_EQ(KTwEvalContHMMViterbi(0, &words, 1, &best, 1, &scale), INT_MAX >> 4);
    EXPECT_EQ(KTwEvalHMMViterbi(0, &symbol, 1, &best, 0, &scale), INT_MAX);
    EXPECT_EQ(scale, 0);
}

TEST_F(Viterbi, AnEmptyClassGivesTheFailureValueThroughTheScaleStep) {
    const int group = KTCreateHMMClass();
    const int symbol = 0;
    int best = -7, scale = 4;
    EXPECT_EQ(KTsEvalHMMViterbi(-group, &symbol, 1, &best), floatFailure);
    EXPECT_EQ(KTwEvalHMMViterbi(-group, &symbol, 1, &best, 1, &scale), INT_MAX >> 4);
    EXPECT_EQ(best, -7);
}

TEST_F(Viterbi, NothingToObserve) {
    const int id = oneState<float>(1, 0, {0}).discrete(0);
    const int symbol = 0;
    int best = -7;
    EXPECT_EQ(KTsEvalHMMViterbi(id, &symbol, 0, &best), floatFailure);
    EXPECT_EQ(KTsEvalHMMViterbi(id, &symbol, -3, &best), floatFailure);
    EXPECT_EQ(best, -7);
}

TEST_F(Viterbi, SymbolsOutsideTheAlphabetAreNotRead) {
    const int id = oneState<float>(1, 0, {0, 0, 0}).discrete(0);
    EXPECT_EQ(evaluate(id, {0, 3}), floatFailure);
    EXPECT_EQ(evaluate(id, {-1}), floatFailure);
    EXPECT_EQ(evaluate(id, {INT_MAX}), floatFailure);
}

TEST_F(Viterbi, AServerOfAnotherKindIsNotRead) {
    const int discrete = oneState<float>(1, 0, {0}).discrete(0);
    const int fixed = oneState<short>(1, 0, {0}).discrete(KT_HMM_LOGARITHMIC);
    const Rows<float> frames{{0, 0}};
    EXPECT_EQ(KTsEvalContHMMViterbi(discrete, pointers(frames).data(), 1, nullptr), floatFailure);
    EXPECT_EQ(evaluate(fixed, {0}), floatFailure);
    EXPECT_EQ(evaluateFixed(discrete, {0}), fixedFailure);
}

TEST_F(Viterbi, ANegativeStatusEndsTheCall) {
    const int id = oneState<float>(1, 0, {0}).discrete(0);
    KTSetStatus(-2);
    EXPECT_EQ(evaluate(id, {0}), floatFailure);
    KTSetStatus(0);
    EXPECT_EQ(evaluate(id, {0}), 1.0f);
}

namespace {

void expectReport(const support::CapturedReports& reports, const char* text, const char* name) {
    ASSERT_EQ(reports.count(), 1u) << text;
    EXPECT_EQ(reports[0].status, KT_StsBadArg);
    EXPECT_EQ(reports[0].message, text);
    EXPECT_EQ(reports[0].function, name);
    EXPECT_EQ(reports[0].source, "..\\_LIBSRC\\KT_HVIT");
}

} // namespace

TEST_F(Viterbi, CodebookWithoutDensities) {
    KTSetHMMMode(0);
    const Rows<float> frames{{0, 0}};
    const Rows<short> words{{0, 0}};
    // before the server or the class is looked for, and whatever the number of frames
    for (const int hmm : {0, -KTCreateHMMClass(), -5, 5, INT_MIN}) {
        support::CapturedReports reports;
        int best = -7, scale = 4;
        EXPECT_EQ(KTsEvalSemicontHMMViterbi(hmm, pointers(frames).data(), 1, &best), floatFailure);
        expectReport(reports, "_sSemicontCodebook->ccgPdfs==0", "KTsEvalSemicontHMMViterbi");
        reports.clear();
        EXPECT_EQ(KTwEvalSemicontHMMViterbi(hmm, pointers(words).data(), 1, &best, 0, &scale),
                  fixedFailure);
        expectReport(reports, "_wSemicontCodebook->ccgPdfs==0", "KTsEvalSemicontHMMViterbi");
        EXPECT_EQ(best, -7);
    }
}

TEST_F(Viterbi, CodebookThatDisagrees) {
    std::mt19937 random(13);
    auto densities = floatServers(random, 4, 3, 1, false);
    auto fixedDensities = fixedServers(random, 4, 3, 1, false);
    ASSERT_EQ(KTsInitSemicontCodebook(densities.table.data(), 4, 3, 0), 1);
    ASSERT_EQ(KTwInitSemicontCodebook(fixedDensities.table.data(), 4, 3, 0), 1);
    const auto model = costsOf(randomModel(random, 2, 4, Shape::full));
    const auto fixed = fixedOf(randomModel(random, 2, 4, Shape::full));
    const int id = model.semicont(3, 0), fixedId = fixed.semicont(3, KT_HMM_LOGARITHMIC, -8);
    ASSERT_GT(id, 0);
    ASSERT_GT(fixedId, 0);
    const auto frames = framesOf<float>(random, 1, 3);
    const auto words = framesOf<short>(random, 1, 3);
    const auto expect = [&](const char* text) {
        support::CapturedReports reports;
        int best = -7, scale = 4;
        EXPECT_EQ(KTsEvalSemicontHMMViterbi(id, pointers(frames).data(), 1, &best), floatFailure);
        expectReport(reports, text, "KTsEvalSemicontHMMViterbi");
        reports.clear();
        EXPECT_EQ(KTwEvalSemicontHMMViterbi(fixedId, pointers(words).data(), 1, &best, 0, &scale),
                  fixedFailure);
        expectReport(reports, text, "KTwEvalSemicontHMMViterbi");
        EXPECT_EQ(best, -7);
    };
    KTsFreeSemicontCodebook();
    KTwFreeSemicontCodebook();
    KTsInitSemicontCodebook(densities.table.data(), 3, 3, 0);
    KTwInitSemicontCodebook(fixedDensities.table.data(), 3, 3, 0);
    expect("nSymbols!=_sSemicontCodebook->nSymbols");
    KTsFreeSemicontCodebook();
    KTwFreeSemicontCodebook();
    KTsInitSemicontCodebook(densities.table.data(), 4, 2, 0);
    KTwInitSemicontCodebook(fixedDensities.table.data(), 4, 2, 0);
    expect("nQuant!=_sSemicontCodebook->nQuant");
}

TEST_F(Viterbi, AllocationFailures) {
    std::mt19937 random(14);
    auto densities = floatServers(random, 4, 3, 1, false);
    ASSERT_EQ(KTsInitSemicontCodebook(densities.table.data(), 4, 3, 0), 1);
    const int group = KTCreateHMMClass(), semicontGroup = KTCreateHMMClass();
    for (const int n : {3, 40}) {
        KTAddHMMToClass(group, costsOf(randomModel(random, n, 4, Shape::full)).discrete(0));
        KTAddHMMToClass(semicontGroup,
                        costsOf(randomModel(random, n, 4, Shape::full)).semicont(3, 0));
    }
    const auto symbols = randomSymbols(random, 10, 4);
    const auto frames = framesOf<float>(random, 10, 3);
    const auto rows = pointers(frames);
    const long before = support::alloc::liveBlocks();
    float result = 0;
    const auto check = [&] {
        EXPECT_EQ(result, floatFailure);
        EXPECT_EQ(KTGetStatus(), 0);
        EXPECT_EQ(support::alloc::liveBlocks(), before);
    };
    EXPECT_EQ(support::alloc::failEach([&] { result = evaluate(-group, symbols); }, check), 2);
    EXPECT_LT(result, floatFailure);
    EXPECT_EQ(
        support::alloc::failEach(
            [&] { result = KTsEvalSemicontHMMViterbi(-semicontGroup, rows.data(), 10, nullptr); },
            check),
        3);
    EXPECT_LT(result, floatFailure);
    EXPECT_EQ(support::alloc::liveBlocks(), before);
}

// However many members a class has, the scratch is taken once.
TEST_F(Viterbi, NoAllocationForEachMember) {
    const int group = KTCreateHMMClass();
    const auto model = oneState<float>(1, 0, {0});
    for (int k = 0; k < 500; ++k)
        KTAddHMMToClass(group, model.discrete(0));
    support::alloc::arm(0);
    evaluate(-group, std::vector<int>(10, 0));
    EXPECT_EQ(support::alloc::allocations(), 1);
    support::alloc::disarm();
}

// --- costs as they are stored ---

namespace {

// Runs an evaluation where memory for the unpacked transitions is missing.
template <class Evaluate>
auto withoutRoomToUnpack(Evaluate run) {
    support::alloc::arm(1);
    const auto cost = run();
    support::alloc::disarm();
    EXPECT_TRUE(support::alloc::failed());
    return cost;
}

// Costs of every kind that a float can hold, ties and both zeros more often than others.
float anyCost(std::mt19937& random) {
    constexpr float inf = std::numeric_limits<float>::infinity();
    const float values[] = {0.0f, -0.0f, 0.0f,   -0.0f,         1.0f,         -1.0f,        2.0f,
                            inf,  -inf,  1e-40f, std::nanf(""), floatFailure, -floatFailure};
    return values[random() % std::size(values)];
}
int anyWord(std::mt19937& random) {
    return random() % 4 == 0 ? int(random()) : int(random() % 3);
}

// Bit patterns: not-a-numbers are equal to themselves, zeros of unlike signs are not.
std::vector<std::uint32_t> patterns(const void* words, int n) {
    std::vector<std::uint32_t> result(at(n));
    std::memcpy(result.data(), words, at(n) * 4);
    return result;
}

// The two kernels on the same transitions: unpacked, and target by target as they are stored.
template <class T, class Draw, class Padded, class Stored>
void expectTheSameBits(Draw draw, int unit, Padded padded, Stored stored) {
    std::mt19937 random(18);
    constexpr int frames = 3;
    for (const auto topology : {vsq::HmmTopology::full, vsq::HmmTopology::triangular})
        for (const int n : {1, 2, 7, 8, 9, 15, 16, 17, 33, 64, 70})
            for (int attempt = 0; attempt < 20; ++attempt) {
                const int stride = (n + 15) / 16 * 16;
                std::vector<T> rows, matrix(at(n * stride), T(0)), start(at(2 * stride)),
                    outputs(at(stride));
                for (int j = n - 1; j >= 0; --j) {
                    const int sources = topology == vsq::HmmTopology::full ? n : j + 1;
                    for (int i = 0; i < sources; ++i)
                        rows.push_back(matrix[at(i * stride + j)] = draw(random));
                    for (int i = sources; i % unit != 0; ++i)
                        rows.push_back(draw(random));
                }
                for (int i = 0; i < 16; ++i)
                    rows.push_back(draw(random));
                for (T& v : start)
                    v = draw(random);
                for (T& v : outputs)
                    v = draw(random);
                const std::vector<const T*> outputRows(frames, outputs.data());
                support::onEveryLevel([&] {
                    std::vector<T> a = start, b = start;
                    vsq::HmmPath<T> expected{a.data(), a.data() + stride},
                        found{b.data(), b.data() + stride};
                    padded(vsq::HmmModel<T>{topology, n, stride, matrix.data()}, outputRows.data(),
                           frames, &expected);
                    stored(vsq::HmmByTarget<T>{topology, n, unit, rows.data()}, outputRows.data(),
                           frames, &found);
                    ASSERT_EQ(patterns(found.current, n), patterns(expected.current, n)) << n;
                });
            }
}

} // namespace

TEST_F(Viterbi, StoredCostsGiveTheSameBits) {
    const auto kernels = [] { return vsq::kernels().hmm; };
    expectTheSameBits<float>(
        anyCost, 1, [=](auto... arguments) { kernels()->pathFloat(arguments...); },
        [=](auto... arguments) { kernels()->storedPathFloat(arguments...); });
    expectTheSameBits<int>(
        anyWord, 2, [=](auto... arguments) { kernels()->pathFixed(arguments...); },
        [=](auto... arguments) { kernels()->storedPathFixed(arguments...); });
}

// Models and sequences on both sides of what is unpacked, with and without memory for it.
TEST_F(Viterbi, StoredModelsAreThePlainRecursion) {
    std::mt19937 random(19);
    for (const Shape shape : {Shape::full, Shape::triangular})
        for (const int n : {1, 2, 4, 17, 64, 101, 250, 260})
            for (const int frames : {2, 3, hmm::fewFrames, hmm::fewFrames + 1, 70}) {
                const auto probabilities = randomModel(random, n, 4, shape);
                const auto model = costsOf(probabilities);
                const auto fixed = fixedOf(probabilities);
                const auto symbols = randomSymbols(random, frames, 4);
                const int id = model.discrete(0), fixedId = fixed.discrete(KT_HMM_LOGARITHMIC);
                const float expected =
                    bestPath(model.trans, model.initial, outputsOf(model.out, symbols), shape);
                const int expectedFixed =
                    bestPath(widened(fixed.trans), widened(Rows<short>{fixed.initial})[0],
                             outputsOf(widened(fixed.out), symbols), shape);
                support::onEveryLevel([&] {
                    ASSERT_EQ(evaluate(id, symbols), expected) << n << ' ' << frames;
                    ASSERT_EQ(evaluateFixed(fixedId, symbols), expectedFixed) << n << ' ' << frames;
                    if (frames <= hmm::fewFrames || n > 250) return;
                    ASSERT_EQ(withoutRoomToUnpack([&] { return evaluate(id, symbols); }), expected)
                        << n;
                    ASSERT_EQ(withoutRoomToUnpack([&] { return evaluateFixed(fixedId, symbols); }),
                              expectedFixed)
                        << n;
                });
                KTFreeHMMServer(id);
                KTFreeHMMServer(fixedId);
            }
}

// No kernel reads tiles: without memory to unpack them they are read element by element.
TEST_F(Viterbi, TilesWithoutRoomToUnpack) {
    KTSetHMMMode(0);
    KTGetContext()->hmmMode |= HMM_MODE_TILED;
    std::mt19937 random(20);
    for (const Shape shape : {Shape::full, Shape::triangular})
        for (const int n : {4, 5, 30}) {
            const auto model = costsOf(randomModel(random, n, 4, shape));
            const auto symbols = randomSymbols(random, 10, 4);
            const int id = model.discrete(0);
            ASSERT_NE(KTFindHMMServer(id)->status & HMM_SERVER_TILED, 0u);
            const float expected =
                bestPath(model.trans, model.initial, outputsOf(model.out, symbols), shape);
            EXPECT_EQ(evaluate(id, symbols), expected);
            EXPECT_EQ(withoutRoomToUnpack([&] { return evaluate(id, symbols); }), expected);
        }
}

// Two vectors, and a band's three diagonals; never the square of the states. Where outputs are
// computed, rows for them.
TEST_F(Viterbi, ScratchGrowsWithTheStatesAlone) {
    std::mt19937 random(21);
    constexpr int n = 600;
    constexpr long vector = 608 * 4, slack = 1024;
    const Rows<float> frames = framesOf<float>(random, 100, 1);
    const Rows<short> words = framesOf<short>(random, 100, 1);
    const auto rows = pointers(frames);
    const auto wordRows = pointers(words);
    for (const Shape shape : allShapes) {
        const auto probabilities = randomModel(random, n, 2, shape);
        const auto model = costsOf(probabilities);
        const auto fixed = fixedOf(probabilities);
        auto servers = floatServers(random, n, 1, 1, false),
             fixedServersOf = fixedServers(random, n, 1, 1, false);
        const int id = model.discrete(0), fixedId = fixed.discrete(KT_HMM_LOGARITHMIC);
        const int continuous = model.continuous(servers.table.data(), 1, 0);
        const int fixedContinuous =
            fixed.continuous(fixedServersOf.table.data(), 1, KT_HMM_LOGARITHMIC, -8);
        const long ofModel = shape == Shape::banded ? 3 * vector : 0;
        for (const int length : {1, 2, 100}) {
            const std::vector<int> symbols(at(length), 0);
            const auto expectBytes = [&](int vectors, auto run) {
                support::alloc::arm(0);
                run();
                support::alloc::disarm();
                EXPECT_LE(support::alloc::bytes(), vectors * vector + ofModel + slack) << length;
            };
            expectBytes(2, [&] { evaluate(id, symbols); });
            expectBytes(2, [&] { evaluateFixed(fixedId, symbols); });
            const int computed = 2 + std::min(length, 27);
            expectBytes(computed,
                        [&] { KTsEvalContHMMViterbi(continuous, rows.data(), length, nullptr); });
            expectBytes(computed, [&] {
                KTwEvalContHMMViterbi(fixedContinuous, wordRows.data(), length, nullptr, 0,
                                      nullptr);
            });
        }
    }
}

// A single frame needs no transition. Unpacked, these would cost as much as many frames.
TEST_F(Viterbi, OneFrameOfALargeModelCostsNextToNothing) {
    std::mt19937 random(22);
    const auto probabilities = randomModel(random, 1000, 2, Shape::full);
    const int id = costsOf(probabilities).discrete(0);
    const int fixed = fixedOf(probabilities).discrete(KT_HMM_LOGARITHMIC);
    double ratio = 1.0, fixedRatio = 1.0; // the least of some tries: the machine may be busy
    for (int attempt = 0; attempt < 20 && (ratio > 0.05 || fixedRatio > 0.05); ++attempt) {
        ratio = std::min(ratio, secondsOf([&] { evaluate(id, {0}); }) / secondsOf([&] {
                                    evaluate(id, {0, 1, 1});
                                }));
        fixedRatio =
            std::min(fixedRatio, secondsOf([&] { evaluateFixed(fixed, {0}); }) / secondsOf([&] {
                                     evaluateFixed(fixed, {0, 1, 1});
                                 }));
    }
    EXPECT_LT(ratio, 0.05);
    EXPECT_LT(fixedRatio, 0.05);
}

// Evaluation keeps nothing of a model: whatever changes a parameter, the next call scores with it.
TEST_F(Viterbi, EveryChangeOfAParameterCounts) {
    std::mt19937 random(23);
    const auto symbols = randomSymbols(random, 40, 4);
    const auto expectAs = [&](int id, const Model<float>& model) {
        EXPECT_EQ(evaluate(id, symbols),
                  bestPath(model.trans, model.initial, outputsOf(model.out, symbols), model.shape));
    };
    const auto costs = [&](Shape shape) { return costsOf(randomModel(random, 20, 4, shape)); };
    KTSetHMMMode(KT_HMM_REPLACE);
    for (const Shape shape : allShapes)
        for (const Shape next : allShapes) {
            const auto first = costs(shape), model = costs(next);
            const int id = first.discrete(0);
            expectAs(id, first);
            const auto trans = pointers(model.trans), out = pointers(model.out);
            KTSetHMMServerParm(id, 0, trans.data(), out.data(), model.initial.data(), 20, 4, -1);
            expectAs(id, model);
            const int copy = KTCopyHMMServer(id);
            auto moved = costs(next);
            const auto movedTrans = pointers(moved.trans);
            KTSetHMMServerParm(id, 0, movedTrans.data(), nullptr, nullptr, -1, -1, -1);
            moved.out = model.out;
            moved.initial = model.initial;
            expectAs(id, moved);
            expectAs(copy, model); // and a copy goes its own way
            ASSERT_EQ(KTsLogHMMServer(KTsExpHMMServer(id)),
                      id); // twice another server, under the same id again
            const auto server = KTFindHMMServer(id);
            Model<float> back{20,
                              4,
                              next,
                              Rows<float>(20, std::vector<float>(20)),
                              Rows<float>(20, std::vector<float>(4)),
                              std::vector<float>(20)};
            std::vector<void*> backTrans, backOut;
            for (std::size_t i = 0; i < 20; ++i) {
                backTrans.push_back(back.trans[i].data());
                backOut.push_back(back.out[i].data());
            }
            ASSERT_EQ(KTGetHMMProb(id, back.initial.data(), backTrans.data(), backOut.data(),
                                   nullptr, nullptr),
                      0);
            ASSERT_EQ(server->nStates, 20);
            expectAs(id, back);
            KTFreeHMMServer(copy);
            KTFreeHMMServer(id);
        }
}
