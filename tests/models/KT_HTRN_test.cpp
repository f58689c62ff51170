#include "models/training.h"
#include "quantisers/density_codebook.h"

#include "support/alloc_faults.h"
#include "support/every_level.h"
#include "support/reports.h"

#include <cstring>

namespace {

using namespace training;
using Training = training::HmmTest;

// The trained values are floats and are rounded once in an iteration; three iterations may carry
// the differences on.
constexpr double tolerance = 1e-5;

const std::size_t sizes[] = {1, 2, 3, 4, 6, 9, 10, 17};

int serverCount() {
    return KTGetContext()->nHMMServers;
}

// --- against the textbook ---

TEST_F(Training, DiscreteIsTheTextbooks) {
    support::onEveryLevel([] {
        std::mt19937 random(1);
        for (Topology topology : topologies)
            for (std::size_t n : sizes)
                for (int iterations : {1, 3}) {
                    SCOPED_TRACE(testing::Message()
                                 << "topology " << int(topology) << " states " << n);
                    auto model = randomDiscrete(random, n, 1 + random() % 12, topology);
                    const SymbolData data = drawData(random, model, 8);
                    const int old = makeDiscrete(model);
                    float change = 1e-30f;
                    const int id = data.train(old, iterations, &change);
                    ASSERT_GT(id, old);
                    double expected = 0.0;
                    for (int k = 0; k < iterations; ++k)
                        expected = oracle::iterate(model, data.sequences);
                    EXPECT_NEAR(change, expected, tolerance);
                    expectNear(model.chain, chainOf(id), tolerance);
                    expectNear(model.b, discreteOf(id).b, tolerance, "output");
                    KTHMMFreeAll();
                }
    });
}

TEST_F(Training, ContinuousIsTheTextbooks) {
    support::onEveryLevel([] {
        std::mt19937 random(2);
        for (Topology topology : topologies)
            for (std::size_t n : {1u, 2u, 5u, 9u})
                for (std::size_t nDim : {1u, 7u, 16u, 18u}) {
                    SCOPED_TRACE(testing::Message() << "states " << n << " dimensions " << nDim);
                    auto model = randomContinuous(random, n, nDim, topology);
                    const FrameData data = frameData(random, 6, nDim);
                    const int old = makeContinuous(model);
                    float change = 1e-30f;
                    const int id = data.trainContinuous(old, 2, &change);
                    ASSERT_GT(id, old);
                    oracle::iterate(model, data.sequences);
                    EXPECT_NEAR(change, oracle::iterate(model, data.sequences), 4 * tolerance);
                    expectNear(model.chain, chainOf(id), tolerance);
                    const auto trained = continuousOf(id);
                    for (std::size_t i = 0; i < n; ++i) {
                        expectNear(Rows{model.states[i].weights}, Rows{trained.states[i].weights},
                                   tolerance, "weight");
                        // summed in float, and divided by what may be a small part of a frame
                        expectNear(model.states[i].means, trained.states[i].means, 4 * tolerance,
                                   "mean");
                    }
                    KTHMMFreeAll();
                }
    });
}

TEST_F(Training, SemicontinuousIsTheTextbooks) {
    support::onEveryLevel([] {
        std::mt19937 random(3);
        for (Topology topology : topologies)
            for (std::size_t n : sizes)
                for (int iterations : {1, 3}) {
                    SCOPED_TRACE(testing::Message()
                                 << "topology " << int(topology) << " states " << n);
                    const std::size_t nSymbols = 1 + random() % 12, nDim = 1 + random() % 5;
                    const Codebook codebook(random, nSymbols, nDim);
                    oracle::SemicontinuousHmm model{randomChain(random, n, topology),
                                                    randomRows(random, n, nSymbols)};
                    const FrameData data = frameData(random, 6, nDim);
                    const int old = makeSemicontinuous(model, int(nDim));
                    float change = 1e-30f;
                    const int id = data.trainSemicontinuous(old, iterations, &change);
                    ASSERT_GT(id, old);
                    double expected = 0.0;
                    for (int k = 0; k < iterations; ++k)
                        expected = oracle::iterate(model, codebook.logDensities(data));
                    EXPECT_NEAR(change, expected, tolerance);
                    expectNear(model.chain, chainOf(id), tolerance);
                    expectNear(model.weights, semicontinuousOf(id).weights, tolerance, "weight");
                    KTHMMFreeAll();
                }
    });
}

TEST_F(Training, AllLevelsGiveTheSameBits) {
    std::mt19937 random(4);
    for (Topology topology : topologies)
        for (std::size_t n : {3u, 10u, 20u}) {
            const auto discrete = randomDiscrete(random, n, 9, topology);
            const auto continuous = randomContinuous(random, n, 13, topology);
            const Codebook codebook(random, 10, 13);
            const oracle::SemicontinuousHmm semicontinuous{randomChain(random, n, topology),
                                                           randomRows(random, n, 10)};
            const SymbolData symbols = drawData(random, discrete, 5);
            const FrameData frames = frameData(random, 5, 13);
            const int ids[] = {makeDiscrete(discrete), makeContinuous(continuous),
                               makeSemicontinuous(semicontinuous, 13)};
            std::vector<float> baseline;
            support::onEveryLevel([&] {
                std::vector<float> all;
                for (int id : {symbols.train(ids[0], 3), frames.trainContinuous(ids[1], 3),
                               frames.trainSemicontinuous(ids[2], 3)}) {
                    ASSERT_GT(id, 0);
                    for (float value : allOf(id))
                        all.push_back(value);
                    KTFreeHMMServer(id);
                }
                if (baseline.empty()) baseline = all;
                ASSERT_EQ(all.size(), baseline.size());
                EXPECT_EQ(std::memcmp(all.data(), baseline.data(), all.size() * sizeof(float)), 0);
            });
            KTHMMFreeAll();
        }
}

// --- likelihood ---

template <class Train, class Cost>
void expectNeverWorse(int id, const Train& train, const Cost& cost) {
    double before = cost(id);
    for (int iteration = 0; iteration < 12; ++iteration) {
        const int next = train(id);
        ASSERT_GT(next, 0);
        KTFreeHMMServer(id);
        id = next;
        const double after = cost(id);
        // parameters and costs are floats: the cost of a sequence is right to 6e-8 of it
        EXPECT_LE(after, before + 2e-7 * before) << iteration;
        before = after;
    }
    KTFreeHMMServer(id);
}

TEST_F(Training, DiscreteLikelihoodNeverFalls) {
    std::mt19937 random(5);
    for (int round = 0; round < 30; ++round) {
        SCOPED_TRACE(round);
        const Topology topology = topologies[round % 3];
        const std::size_t n = 2 + random() % 8, symbols = 2 + random() % 10;
        const SymbolData data = drawData(random, randomDiscrete(random, n, symbols, topology), 6);
        expectNeverWorse(
            makeDiscrete(randomDiscrete(random, n, symbols, topology)),
            [&](int id) { return data.train(id, 1); },
            [&](int id) {
                double sum = 0;
                for (std::size_t q = 0; q < data.rows.size(); ++q)
                    sum += double(KTsEvalHMMForward(id, data.rows[q], data.lengths[q], nullptr));
                return sum;
            });
    }
}

TEST_F(Training, SemicontinuousLikelihoodNeverFalls) {
    std::mt19937 random(6);
    for (int round = 0; round < 30; ++round) {
        SCOPED_TRACE(round);
        const std::size_t n = 2 + random() % 8, nSymbols = 2 + random() % 10;
        const Codebook codebook(random, nSymbols, 3);
        const FrameData data = frameData(random, 6, 3);
        const oracle::SemicontinuousHmm model{randomChain(random, n, topologies[round % 3]),
                                              randomRows(random, n, nSymbols)};
        expectNeverWorse(
            makeSemicontinuous(model, 3), [&](int id) { return data.trainSemicontinuous(id, 1); },
            [&](int id) {
                double sum = 0;
                for (std::size_t q = 0; q < data.tables.size(); ++q)
                    sum += double(
                        KTsEvalSemicontHMMForward(id, data.tables[q], data.lengths[q], nullptr));
                return sum;
            });
        KTHMMFreeAll();
    }
}

// --- the frame: iterations, goal, ids ---

TEST_F(Training, OneIterationIsOnePass) {
    std::mt19937 random(7);
    const auto model = randomDiscrete(random, 4, 5, Topology::full);
    const SymbolData data = drawData(random, model, 5);
    const int id = makeDiscrete(model);
    const int two = data.train(id, 2), one = data.train(id, 1), other = data.train(one, 1);
    EXPECT_NE(allOf(one), allOf(two));
    EXPECT_EQ(allOf(other), allOf(two));
}

TEST_F(Training, IterationsBelowOneMeanAThousand) {
    std::mt19937 random(8);
    const auto model = randomDiscrete(random, 3, 4, Topology::full);
    const SymbolData data = drawData(random, model, 3);
    const int id = makeDiscrete(model);
    float change[3] = {1e-37f, 1e-37f, 1e-37f};
    const int thousand = data.train(id, 1000, change), zero = data.train(id, 0, change + 1),
              negative = data.train(id, -3, change + 2);
    EXPECT_EQ(allOf(zero), allOf(thousand));
    EXPECT_EQ(allOf(negative), allOf(thousand));
    EXPECT_EQ(change[0], change[1]);
    EXPECT_EQ(change[0], change[2]);
}

TEST_F(Training, GoalOfAMillionthWithoutAPositiveTolerance) {
    std::mt19937 random(9);
    const auto model = randomDiscrete(random, 3, 4, Topology::full);
    const SymbolData data = drawData(random, model, 3);
    const int id = makeDiscrete(model);
    float goal = 1e-6f, zero = 0.0f, negative = -5.0f;
    const std::vector<float> expected = allOf(data.train(id, 0, &goal));
    EXPECT_LT(double(goal), 9.999999974752427e-07); // a change now
    EXPECT_EQ(allOf(data.train(id, 0)), expected);
    EXPECT_EQ(allOf(data.train(id, 0, &zero)), expected);
    EXPECT_EQ(allOf(data.train(id, 0, &negative)), expected);
    EXPECT_EQ(zero, goal);
    EXPECT_EQ(negative, goal);
}

TEST_F(Training, StopsBelowTheGoal) {
    std::mt19937 random(10);
    const auto model = randomDiscrete(random, 3, 4, Topology::full);
    const SymbolData data = drawData(random, model, 3);
    const int id = makeDiscrete(model);
    float change = 10.0f; // no parameter can change by so much
    EXPECT_EQ(allOf(data.train(id, 0, &change)), allOf(data.train(id, 1)));
    const float first = change;
    change = first; // the first pass changes by exactly this, which is not below
    EXPECT_NE(allOf(data.train(id, 0, &change)), allOf(data.train(id, 1)));
    EXPECT_LT(change, first);
}

TEST_F(Training, OnlyTheCallersServerAndTheResultStayAlive) {
    std::mt19937 random(11);
    const auto model = randomDiscrete(random, 4, 5, Topology::full);
    const SymbolData data = drawData(random, model, 4);
    for (int mode : {KT_HMM_REPLACE, KT_HMM_KEEP}) {
        KTSetHMMMode(mode);
        const int id = makeDiscrete(model);
        const std::vector<float> before = allOf(id);
        // copies take the ids 2, 3, 2, 3, ...
        for (int iterations : {1, 2, 3, 4}) {
            float change = 1e-37f;
            const int trained = data.train(id, iterations, &change);
            EXPECT_EQ(trained, iterations % 2 == 1 ? 2 : 3);
            EXPECT_EQ(serverCount(), 2);
            KTFreeHMMServer(trained);
        }
        EXPECT_EQ(allOf(id), before);
        KTFreeHMMServer(id);
    }
}

TEST_F(Training, NoSequencesGiveACopy) {
    std::mt19937 random(12);
    const Codebook codebook(random, 4, 3);
    const int ids[] = {
        makeDiscrete(randomDiscrete(random, 5, 6, Topology::banded)),
        makeSemicontinuous({randomChain(random, 5, Topology::full), randomRows(random, 5, 4)}, 3)};
    float change = 0.5f;
    const int discrete = KTsTrainHMMBaumWelch(ids[0], nullptr, nullptr, 0, 0, &change);
    ASSERT_GT(discrete, 0);
    EXPECT_EQ(change, 0.0f);
    EXPECT_EQ(allOf(discrete), allOf(ids[0]));
    const int semicontinuous =
        KTsTrainSemicontHMMBaumWelch(ids[1], nullptr, nullptr, 0, 0, nullptr);
    ASSERT_GT(semicontinuous, 0);
    EXPECT_EQ(allOf(semicontinuous), allOf(ids[1]));
}

TEST_F(Training, ImpossibleSequencesHaveNoInfluence) {
    std::mt19937 random(13);
    auto model = randomDiscrete(random, 4, 5, Topology::full);
    SymbolData data = drawData(random, model, 4);
    for (Row& outputs : model.b)
        outputs.push_back(0.0); // a symbol that no state puts out
    const int id = makeDiscrete(model);
    const std::vector<float> expected = allOf(data.train(id, 3));
    data.sequences.insert(data.sequences.begin() + 1, {{0, 5, 1}, {6, 0}, {-1}, {}});
    const SymbolData withOthers(data.sequences);
    EXPECT_EQ(allOf(withOthers.train(id, 3)), expected);
    const SymbolData onlyOthers(std::vector<std::vector<int>>{{0, 5, 1}, {5}, {2, 77}});
    float change = 0.0f;
    const int copy = onlyOthers.train(id, 0, &change);
    EXPECT_EQ(allOf(copy), allOf(id));
    EXPECT_EQ(change, 0.0f);
}

TEST_F(Training, SymbolsThatNeverOccurGetZero) {
    std::mt19937 random(14);
    const auto model = randomDiscrete(random, 3, 4, Topology::full);
    const SymbolData data(std::vector<std::vector<int>>{{0, 1, 3, 1, 0}, {3, 3, 0}});
    const auto trained = discreteOf(data.train(makeDiscrete(model), 1));
    for (const Row& outputs : trained.b)
        EXPECT_EQ(outputs[2], 0.0);
}

// --- what is refused ---

TEST_F(Training, RefusesWhatIsNoServerOfItsKind) {
    const SymbolData symbols(std::vector<std::vector<int>>{{0, 1}});
    const FrameData frames(std::vector<Rows>{{{0.0}, {1.0}}});
    float tolerated = 0.25f;
    EXPECT_EQ(symbols.train(1, 1, &tolerated), -1); // no registry
    EXPECT_EQ(frames.trainContinuous(1, 1, &tolerated), -1);
    EXPECT_EQ(frames.trainSemicontinuous(1, 1, &tolerated), -1);
    std::mt19937 random(18);
    const Codebook codebook(random, 2, 1);
    const int discrete = makeDiscrete(randomDiscrete(random, 2, 2, Topology::full));
    const int continuous = makeContinuous(randomContinuous(random, 2, 1, Topology::full));
    const int semicontinuous =
        makeSemicontinuous({randomChain(random, 2, Topology::full), randomRows(random, 2, 2)}, 1);
    const short row[] = {0, 0};
    const short* const rows[] = {row, row};
    const int fixed = KTwInitHMMServer(rows, rows, row, 2, 2, 0);
    ASSERT_GT(fixed, 0);
    const int group = KTCreateHMMClass();
    ASSERT_EQ(KTAddHMMToClass(group, discrete), 1);
    support::CapturedReports reports;
    const int servers = serverCount();
    for (int id : {0, -group, 99, continuous, semicontinuous, fixed, INT32_MIN})
        EXPECT_EQ(symbols.train(id, 1, &tolerated), -1) << id;
    for (int id : {0, -group, 99, discrete, semicontinuous, fixed})
        EXPECT_EQ(frames.trainContinuous(id, 1, &tolerated), -1) << id;
    for (int id : {0, -group, 99, discrete, continuous, fixed})
        EXPECT_EQ(frames.trainSemicontinuous(id, 1, &tolerated), -1) << id;
    EXPECT_EQ(tolerated, 0.25f);
    EXPECT_EQ(serverCount(), servers);
    EXPECT_EQ(reports.count(), 0u);
    EXPECT_EQ(KTGetStatus(), 0);
}

TEST_F(Training, StatusOfTheThreadIsNeitherReadNorChanged) {
    std::mt19937 random(19);
    const auto model = randomDiscrete(random, 3, 3, Topology::full);
    const SymbolData data = drawData(random, model, 3);
    const int id = makeDiscrete(model);
    const int continuous = makeContinuous(randomContinuous(random, 2, 2, Topology::full));
    const FrameData frames = frameData(random, 2, 2);
    const std::vector<float> expected = allOf(data.train(id, 2));
    for (int status : {KT_StsBadArg, 3}) {
        KTSetStatus(status);
        const int trained = data.train(id, 2);
        ASSERT_GT(trained, 0);
        EXPECT_EQ(allOf(trained), expected);
        EXPECT_GT(frames.trainContinuous(continuous, 2), 0);
        EXPECT_EQ(KTGetStatus(), status);
    }
}

// --- continuous ---

TEST_F(Training, SingleComponentsKeepTheirWeight) {
    std::mt19937 random(20);
    const auto model = randomContinuous(random, 4, 3, Topology::full, 1);
    const auto trained =
        continuousOf(frameData(random, 5, 3).trainContinuous(makeContinuous(model), 3));
    for (std::size_t i = 0; i < 4; ++i)
        EXPECT_NEAR(trained.states[i].weights[0], 1.0, 1e-6);
}

TEST_F(Training, UnreachedStateKeepsItsWeightsAndGetsMeansOfZero) {
    std::mt19937 random(21);
    auto model = randomContinuous(random, 3, 4, Topology::full);
    model.chain.pi = {1.0, 0.0, 0.0};
    model.chain.a = {{0.5, 0.5, 0.0}, {0.5, 0.5, 0.0}, {0.25, 0.25, 0.5}};
    const auto trained =
        continuousOf(frameData(random, 5, 4).trainContinuous(makeContinuous(model), 1));
    EXPECT_EQ(trained.states[2].weights, model.states[2].weights);
    for (const Row& mean : trained.states[2].means)
        EXPECT_EQ(mean, Row(4, 0.0));
    EXPECT_EQ(trained.chain.a[2], model.chain.a[2]);
}

TEST_F(Training, ZeroWeightsStayZero) {
    std::mt19937 random(22);
    auto model = randomContinuous(random, 2, 3, Topology::full, 1);
    for (auto& state : model.states) {
        state = randomMixture(random, 3, 3, true);
        state.weights = {0.5, 0.0, 0.5};
    }
    const auto trained =
        continuousOf(frameData(random, 5, 3).trainContinuous(makeContinuous(model), 2));
    for (const auto& state : trained.states) {
        EXPECT_EQ(state.weights[1], 0.0);
        EXPECT_EQ(state.means[1], Row(3, 0.0));
        EXPECT_GT(state.weights[0], 0.0);
    }
}

TEST_F(Training, InverseCovariancesStayBitForBit) {
    std::mt19937 random(23);
    const int old = makeContinuous(randomContinuous(random, 4, 5, Topology::triangular));
    const int id = frameData(random, 5, 5).trainContinuous(old, 4);
    ASSERT_GT(id, 0);
    for (int i = 0; i < 4; ++i) {
        const GaussMixServer *a = KTFindHMMServer(old)->mixtures[i],
                             *b = KTFindHMMServer(id)->mixtures[i];
        ASSERT_EQ(ktl::gauss::isFull(a), ktl::gauss::isFull(b));
        EXPECT_NE(a, b);
        for (int m = 0; m < a->nMix; ++m)
            for (int d = 0; d < 5; ++d) {
                if (ktl::gauss::isFull(a)) {
                    EXPECT_EQ(0,
                              std::memcmp(ktl::gauss::matrices<float>(a)[m][d],
                                          ktl::gauss::matrices<float>(b)[m][d], 5 * sizeof(float)));
                } else {
                    EXPECT_EQ(ktl::gauss::diagonals<float>(a)[m][d],
                              ktl::gauss::diagonals<float>(b)[m][d]);
                }
            }
    }
}

TEST_F(Training, WeightsDoNotEnterTheChange) {
    // one state, two components with the same mean: their weights would change and nothing else
    // does
    oracle::Components c{{0.5, 0.5}, {{0.0}, {0.0}}, {{{1.0}}, {{4.0}}}};
    const oracle::ContinuousHmm model{{{1.0}, {{1.0}}}, {c}};
    const FrameData data(std::vector<Rows>{{{1.0}, {-1.0}}});
    float change = 0.0f;
    const int id = data.trainContinuous(makeContinuous(model), 1000, &change);
    const auto trained = continuousOf(id);
    EXPECT_LT(change, 1e-6f);
    // after one pass: exp(-1/2) against exp(-2)
    const double first = 1.0 / (1.0 + std::exp(-1.5));
    EXPECT_NEAR(trained.states[0].weights[0], first, 1e-6);
}

TEST_F(Training, NormalisedWeightsFollowTheWeights) {
    std::mt19937 random(24);
    const int id =
        frameData(random, 4, 3)
            .trainContinuous(makeContinuous(randomContinuous(random, 3, 3, Topology::full)), 2);
    for (int i = 0; i < 3; ++i) {
        const GaussMixServer* mixture = KTFindHMMServer(id)->mixtures[i];
        for (int m = 0; m < mixture->nMix; ++m)
            EXPECT_EQ(mixture->pNormWeights[m], ktl::gauss::weights<float>(mixture)[m]);
    }
}

// --- normalised weights are lost, and how they come back ---

// A model of one state around 0.
int modelOf(GaussMixServer* mixture) {
    const float one = 1.0f;
    const float* row = &one;
    return KTsInitContHMMServer(&row, &one, &mixture, 1, 1, KT_HMM_EXPONENTIAL);
}

// The ways that ktlp6.h gives: a new server normalises mixtures that are marked, and the second
// inversion marks them.
int builtAnew(int id, bool markFirst) {
    // any pointer but null asks for the mixture
    GaussMixServer* mixture = KTFindHMMServer(id)->mixtures[0];
    EXPECT_EQ(KTGetHMMProb(id, nullptr, nullptr, nullptr, nullptr, &mixture), 0);
    if (markFirst) {
        GaussMixServer* covariance = KTsInvertGaussianCovMatrix(mixture, 0);
        KTsFreeGaussMixServer(mixture);
        mixture = KTsInvertGaussianCovMatrix(covariance, KT_GAUSS_NORMALIZE);
        KTsFreeGaussMixServer(covariance);
    }
    const int result = modelOf(mixture);
    KTsFreeGaussMixServer(mixture);
    return result;
}

TEST_F(Training, NormalisedModelsCompareAgainWhenTheyAreBuiltAnew) {
    const double deviations[] = {0.2, 5.0};
    std::mt19937 random(35);
    std::vector<FrameData> data;
    int before[2], trained[2], again[2], marked[2];
    for (int k = 0; k < 2; ++k) {
        std::normal_distribution<double> normal(0.0, deviations[k]);
        std::vector<Rows> sequences(20);
        for (Rows& frames : sequences)
            for (int t = 0; t < 10; ++t)
                frames.push_back({double(float(normal(random)))});
        data.emplace_back(sequences);
        const double inverse = 1 / (deviations[k] * deviations[k]);
        GaussMixServer* mixture = makeMixture({{1.0}, {{0.0}}, {{{inverse}}}}, KT_GAUSS_NORMALIZE);
        before[k] = modelOf(mixture);
        KTsFreeGaussMixServer(mixture);
        trained[k] = data.back().trainContinuous(before[k], 3);
        again[k] = builtAnew(trained[k], false);
        mixture = makeMixture({{1.0}, {{0.0}}, {{{inverse}}}});
        marked[k] = builtAnew(data.back().trainContinuous(modelOf(mixture), 3), true);
        KTsFreeGaussMixServer(mixture);
    }
    const auto narrowOnes = [&](const int(&ids)[2]) {
        int count = 0;
        for (std::size_t q = 0; q < 20; ++q)
            count += KTsEvalContHMMForward(ids[0], data[0].tables[q], 10, nullptr) <
                     KTsEvalContHMMForward(ids[1], data[0].tables[q], 10, nullptr);
        return count;
    };
    EXPECT_EQ(narrowOnes(before), 20);
    EXPECT_EQ(narrowOnes(trained), 0);
    EXPECT_EQ(narrowOnes(again), 20);
    EXPECT_EQ(narrowOnes(marked), 20);
}

// --- semicontinuous ---

TEST_F(Training, DensitiesThatNeverRespondGetZero) {
    std::mt19937 random(26);
    Codebook codebook(random, 3, 2);
    KTsFreeSemicontCodebook();
    codebook.densities[1].means = {{1e4, 1e4}};
    codebook.install();
    const int old =
        makeSemicontinuous({randomChain(random, 3, Topology::full), randomRows(random, 3, 3)}, 2);
    const auto trained = semicontinuousOf(frameData(random, 5, 2).trainSemicontinuous(old, 1));
    for (const Row& weights : trained.weights)
        EXPECT_EQ(weights[1], 0.0);
}

TEST_F(Training, CodebookIsOnlyRead) {
    std::mt19937 random(27);
    const Codebook codebook(random, 4, 3);
    const SemicontCodebook* live = KTGetContext()->sSemicont;
    const SemicontCodebook before = *live;
    std::vector<std::vector<char>> blocks;
    for (int k = 0; k < 4; ++k) {
        const char* bytes = reinterpret_cast<const char*>(live->ccgPdfs[k]);
        blocks.emplace_back(bytes, bytes + sizeof(GaussMixServer) + 3 * sizeof(float));
    }
    const int old =
        makeSemicontinuous({randomChain(random, 3, Topology::full), randomRows(random, 3, 4)}, 3);
    ASSERT_GT(frameData(random, 5, 3).trainSemicontinuous(old, 5), 0);
    EXPECT_EQ(std::memcmp(&before, live, sizeof before), 0);
    for (std::size_t k = 0; k < 4; ++k)
        EXPECT_EQ(std::memcmp(blocks[k].data(), live->ccgPdfs[k], blocks[k].size()), 0);
}

// With the error mode KT_ErrorModeParent the training goes on with what server and codebook both
// have.
TEST_F(Training, AHandlerMayReleaseTheModel) {
    std::mt19937 random(28);
    const Codebook codebook(random, 4, 2);
    static int id;
    id = makeSemicontinuous({randomChain(random, 3, Topology::full), randomRows(random, 3, 4)}, 2);
    KTsFreeSemicontCodebook();
    const KTErrorHandler before =
        KTRedirectError([](int, const char*, const char*, const char*, int) {
            KTFreeHMMServer(id);
            return 0;
        });
    EXPECT_EQ(frameData(random, 2, 2).trainSemicontinuous(id, 1), -1);
    KTRedirectError(before);
    EXPECT_EQ(serverCount(), 0);
}

TEST_F(Training, CodebookThatDisagreesIsReportedAndReadAsFarAsItGoes) {
    std::mt19937 random(28);
    const Codebook full(random, 4, 2);
    oracle::SemicontinuousHmm model{randomChain(random, 3, Topology::full),
                                    randomRows(random, 3, 4)};
    const int old = makeSemicontinuous(model, 2);
    const FrameData data = frameData(random, 5, 2);
    support::CapturedReports reports;
    const auto expectReport = [&](const std::string& text) {
        ASSERT_GT(reports.count(), 1u);
        EXPECT_EQ(reports[0].status, KT_StsBadArg);
        EXPECT_EQ(reports[0].message, text);
        EXPECT_EQ(reports[0].function, "KTsTrainSemicontHMMBaumWelch");
        EXPECT_EQ(reports[0].source, "..\\_LIBSRC\\KT_HTRN");
        EXPECT_EQ(reports[1].function, "KTsEvalSemicontHMMForwardBackward");
        EXPECT_EQ(reports[1].message, text);
        reports.clear();
    };

    KTsFreeSemicontCodebook(); // fewer densities: the others never respond
    Codebook fewer = full;
    fewer.densities.resize(2);
    fewer.install();
    int id = data.trainSemicontinuous(old, 1);
    ASSERT_GT(id, 0);
    expectReport("nSymbols!=_sSemicontCodebook->nSymbols");
    auto expected = model;
    std::vector<Rows> responses = fewer.logDensities(data);
    for (Rows& frames : responses)
        for (Row& row : frames)
            row.resize(4, oracle::logOfZero);
    oracle::iterate(expected, responses);
    expectNear(expected.chain, chainOf(id), tolerance);
    expectNear(expected.weights, semicontinuousOf(id).weights, tolerance, "weight");

    KTsFreeSemicontCodebook(); // more densities: the server's count is read
    Codebook more = full;
    more.densities.push_back(full.densities[0]);
    more.install();
    id = data.trainSemicontinuous(old, 1);
    ASSERT_GT(id, 0);
    expectReport("nSymbols!=_sSemicontCodebook->nSymbols");
    expected = model;
    oracle::iterate(expected, full.logDensities(data));
    expectNear(expected.weights, semicontinuousOf(id).weights, tolerance, "weight");

    KTsFreeSemicontCodebook(); // shorter vectors
    Codebook shorter = full;
    for (auto& density : shorter.densities) {
        density.isDiagonal = true;
        density.means[0].resize(1);
        density.inverses[0] = {{density.inverses[0][0][0]}};
    }
    shorter.install();
    EXPECT_GT(data.trainSemicontinuous(old, 2), 0);
    expectReport("nQuant!=_sSemicontCodebook->nQuant");

    KTsFreeSemicontCodebook(); // none at all: nothing can be produced
    id = data.trainSemicontinuous(old, 1);
    ASSERT_GT(id, 0);
    EXPECT_EQ(allOf(id), allOf(old));
    ASSERT_GT(reports.count(), 4u);
    EXPECT_EQ(reports[0].message, "nSymbols!=_sSemicontCodebook->nSymbols");
    EXPECT_EQ(reports[1].message, "nQuant!=_sSemicontCodebook->nQuant");
    EXPECT_EQ(reports[2].message, "_sSemicontCodebook->ccgPdfs==0");
    EXPECT_EQ(reports[2].source, "..\\_LIBSRC\\KT_HFOR");
}

// --- memory ---

// Every allocation fails once: -1, nothing but the caller's server left, which is as it was.
template <class Train>
void expectSafeWithoutMemory(int id, const Train& train, bool silent) {
    const std::vector<float> before = allOf(id);
    // the thread's tables and the registry's growth are not the training's
    KTFreeHMMServer(train(id));
    support::CapturedReports reports;
    const int servers = serverCount();
    const long blocks = support::alloc::liveBlocks();
    int result = 0;
    const int failures =
        support::alloc::failEach([&] { result = train(id); },
                                 [&] {
                                     EXPECT_EQ(result, -1);
                                     EXPECT_EQ(serverCount(), servers);
                                     EXPECT_EQ(support::alloc::liveBlocks(), blocks);
                                     EXPECT_EQ(allOf(id), before);
                                     EXPECT_TRUE(reports.count() == 0 || !silent);
                                 });
    EXPECT_GT(failures, 10);
    EXPECT_GT(result, 0);
    KTFreeHMMServer(result);
    EXPECT_EQ(support::alloc::liveBlocks(), blocks);
}

TEST_F(Training, DiscreteWithoutMemory) {
    std::mt19937 random(29);
    const auto model = randomDiscrete(random, 4, 5, Topology::banded);
    const SymbolData data = drawData(random, model, 3);
    float goal = 1e-37f;
    expectSafeWithoutMemory(
        makeDiscrete(model), [&](int id) { return goal = 1e-37f, data.train(id, 3, &goal); }, true);
}

TEST_F(Training, ContinuousWithoutMemory) {
    std::mt19937 random(30);
    const FrameData data = frameData(random, 3, 3);
    float goal = 1e-37f;
    expectSafeWithoutMemory(
        makeContinuous(randomContinuous(random, 3, 3, Topology::full)),
        [&](int id) { return goal = 1e-37f, data.trainContinuous(id, 3, &goal); }, false);
}

TEST_F(Training, SemicontinuousWithoutMemory) {
    std::mt19937 random(31);
    const Codebook codebook(random, 4, 3);
    const FrameData data = frameData(random, 3, 3);
    float goal = 1e-37f;
    expectSafeWithoutMemory(
        makeSemicontinuous({randomChain(random, 3, Topology::triangular), randomRows(random, 3, 4)},
                           3),
        [&](int id) { return goal = 1e-37f, data.trainSemicontinuous(id, 3, &goal); }, true);
}

// An iteration allocates its model, whatever the number of frames.
TEST_F(Training, FramesCostNoAllocation) {
    std::mt19937 random(32);
    const auto model = randomDiscrete(random, 4, 5, Topology::full);
    const Codebook codebook(random, 5, 2);
    const auto count = [](const auto& train) {
        support::alloc::arm(0);
        const int id = train();
        const long allocations = support::alloc::allocations();
        support::alloc::disarm();
        KTFreeHMMServer(id);
        return allocations;
    };
    const SymbolData few = drawData(random, model, 1), many = drawData(random, model, 30);
    const FrameData fewFrames = frameData(random, 1, 2), manyFrames = frameData(random, 30, 2);
    const int ids[] = {makeDiscrete(model),
                       makeContinuous(randomContinuous(random, 4, 2, Topology::full)),
                       makeSemicontinuous({model.chain, model.b}, 2)};
    EXPECT_EQ(count([&] { return few.train(ids[0], 1); }),
              count([&] { return many.train(ids[0], 1); }));
    EXPECT_EQ(count([&] { return fewFrames.trainContinuous(ids[1], 1); }),
              count([&] { return manyFrames.trainContinuous(ids[1], 1); }));
    EXPECT_EQ(count([&] { return fewFrames.trainSemicontinuous(ids[2], 1); }),
              count([&] { return manyFrames.trainSemicontinuous(ids[2], 1); }));
}

} // namespace
