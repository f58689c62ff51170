// Training with data whose backward variables, products or sums leave the doubles: what comes out
// is finite, and it is what the definition says.
#include "models/flat_mixtures.h"
#include "models/training.h"

#include "support/every_level.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

namespace {

using namespace training;
using FiniteTraining = training::HmmTest;

enum class Flavour { discrete, continuous, semicontinuous };
constexpr Flavour flavours[] = {Flavour::discrete, Flavour::continuous, Flavour::semicontinuous};

// One model for all flavours: symbol k is the frame (k), and densities are so narrow that each sees
// its own symbol alone. The output values are the discrete outputs, the weights of a state's
// components, or those of the codebook's densities.
struct Case {
    oracle::DiscreteHmm model;
    std::vector<std::vector<int>> sequences;

    std::size_t states() const { return model.chain.size(); }
    std::size_t symbols() const { return model.b[0].size(); }

    oracle::Components densities(const Row& weights) const {
        oracle::Components c{weights, {}, {}, true};
        for (std::size_t k = 0; k < weights.size(); ++k) {
            c.means.push_back({double(k)});
            c.inverses.push_back({{1e6}});
        }
        return c;
    }
    FrameData frames() const {
        std::vector<Rows> result;
        for (const auto& sequence : sequences) {
            result.emplace_back();
            for (int symbol : sequence)
                result.back().push_back({double(symbol)});
        }
        return FrameData(result);
    }
    int make(Flavour flavour) const {
        if (flavour == Flavour::discrete) return makeDiscrete(model);
        if (flavour == Flavour::continuous) {
            oracle::ContinuousHmm continuous{model.chain, {}};
            for (const Row& weights : model.b)
                continuous.states.push_back(densities(weights));
            return makeContinuous(continuous);
        }
        std::vector<GaussMixServer*> codebook;
        for (std::size_t k = 0; k < symbols(); ++k) {
            oracle::Components density{{1.0}, {{double(k)}}, {{{1e6}}}, true};
            codebook.push_back(makeMixture(density));
        }
        EXPECT_EQ(KTsInitSemicontCodebook(codebook.data(), int(symbols()), 1, 0), 1);
        for (GaussMixServer* server : codebook)
            KTsFreeGaussMixServer(server);
        return makeSemicontinuous({model.chain, model.b}, 1);
    }
    int train(Flavour flavour, int id, int iterations, float* change) const {
        if (flavour == Flavour::discrete)
            return SymbolData(sequences).train(id, iterations, change);
        if (flavour == Flavour::continuous) return frames().trainContinuous(id, iterations, change);
        return frames().trainSemicontinuous(id, iterations, change);
    }
};

// Outputs by state and symbol.
Rows outputsOf(Flavour flavour, int id) {
    if (flavour == Flavour::discrete) return discreteOf(id).b;
    if (flavour == Flavour::semicontinuous) return semicontinuousOf(id).weights;
    Rows result;
    for (const auto& state : continuousOf(id).states)
        result.push_back(state.weights);
    return result;
}

void expectFinite(int id) {
    ASSERT_GT(id, 0);
    for (float value : allOf(id))
        ASSERT_TRUE(std::isfinite(value)) << value;
}

// test(flavour, id of the model trained once) in every flavour at every level.
template <class Test>
void trainedOnce(const Case& data, const Test& test) {
    support::onEveryLevel([&] {
        for (Flavour flavour : flavours) {
            SCOPED_TRACE(testing::Message() << "flavour " << int(flavour));
            float change = 0.0f;
            const int id = data.train(flavour, data.make(flavour), 1, &change);
            expectFinite(id);
            EXPECT_TRUE(std::isfinite(change));
            if (!testing::Test::HasFatalFailure()) test(flavour, id);
            KTHMMFreeAll();
        }
    });
}

// A walk through all states, one a frame and each at the price of 1e-30, to a last state that takes
// everything at no price: for that state the early frames' backward values are 1e30 and more a
// frame too high for the doubles.
Case costlyWalk(Topology topology, std::size_t n) {
    const std::size_t frames = n + 5, last = n - 1;
    const auto cost = double(1e-30f), wait = double(1e-40f);
    Case data;
    data.model.chain = {Row(n, 0.0), Rows(n, Row(n, 0.0))};
    data.model.chain.pi[0] = 1.0;
    for (std::size_t i = 0; i < n; ++i) {
        for (std::size_t j = 0; j < n; ++j)
            if (connects(topology, i, j)) data.model.chain.a[i][j] = double(1.0f / 64);
        Row outputs(frames, i == last ? 1.0 : 0.0);
        for (std::size_t k = i; i < last && k < frames; ++k)
            outputs[k] = k == i ? cost : wait;
        data.model.b.push_back(outputs);
    }
    // nothing but the walk leads to the last state
    for (std::size_t i = 0; i + 1 < last; ++i)
        data.model.chain.a[i][last] = 0.0;
    data.sequences.resize(1);
    for (std::size_t t = 0; t < frames; ++t)
        data.sequences[0].push_back(int(t));
    return data;
}

TEST_F(FiniteTraining, StatesThatAreNotReachedYetHaveNoOccupancy) {
    for (Topology topology : topologies)
        for (std::size_t n : {16u, 66u}) {
            SCOPED_TRACE(testing::Message() << "topology " << int(topology) << " states " << n);
            const Case data = costlyWalk(topology, n);
            trainedOnce(data, [&](Flavour flavour, int id) {
                const oracle::Hmm chain = chainOf(id);
                const Rows outputs = outputsOf(flavour, id);
                EXPECT_EQ(chain.pi[0], 1.0);
                for (std::size_t i = 0; i + 1 < n; ++i) {
                    EXPECT_NEAR(chain.a[i][i + 1], 1.0, 1e-6) << i;
                    EXPECT_NEAR(outputs[i][i], 1.0, 1e-6) << i;
                }
                EXPECT_NEAR(chain.a[n - 1][n - 1], 1.0, 1e-6);
                for (std::size_t k = n - 1; k < n + 5; ++k)
                    EXPECT_NEAR(outputs[n - 1][k], 1.0 / 6, 1e-6);
                if (flavour != Flavour::continuous) return;
                for (std::size_t i = 0; i + 1 < n; ++i)
                    EXPECT_NEAR(continuousOf(id).states[i].means[i][0], double(i), 1e-5);
            });
        }
}

// A model whose transitions stay below, on and above the diagonal in a way that gives it the
// topology. What is added is never used: the outputs see to that.
void shape(Topology topology, oracle::Hmm& chain) {
    const std::size_t n = chain.size();
    if (topology == Topology::full) chain.a[n - 1][0] = double(FLT_TRUE_MIN);
    if (topology == Topology::triangular) chain.a[0][3] = double(FLT_TRUE_MIN);
}

// Stays in each of its states for ever; states behind the second have no outputs.
Case twoLoops(Topology topology, const Row& first, const Row& second,
              const std::vector<int>& sequence) {
    const std::size_t n = topology == Topology::triangular ? 4 : 3;
    Case data{{{Row(n, 0.0), Rows(n, Row(n, 0.0))}, Rows(n, Row(first.size(), 0.0))}, {sequence}};
    data.model.chain.pi[0] = data.model.chain.pi[1] = 0.5;
    data.model.chain.a[0][0] = data.model.chain.a[1][1] = 1.0;
    data.model.b[0] = first;
    data.model.b[1] = second;
    shape(topology, data.model.chain);
    return data;
}

void expectSecondLoop(Flavour flavour, int id, const Row& outputs) {
    const oracle::Hmm chain = chainOf(id);
    EXPECT_EQ(chain.pi[0], 0.0);
    EXPECT_NEAR(chain.pi[1], 1.0, 1e-6);
    EXPECT_EQ(chain.a[0][0], 1.0);
    EXPECT_EQ(chain.a[0][1], 0.0);
    EXPECT_NEAR(chain.a[1][1], 1.0, 1e-6);
    for (std::size_t k = 0; k < outputs.size(); ++k)
        EXPECT_NEAR(outputsOf(flavour, id)[1][k], outputs[k], 1e-6) << k;
}

// The state that explains everything in the end is at 1e-320 of the sum in between: alpha is
// denormal there, beta 1e320.
TEST_F(FiniteTraining, StateThatComesBackFromDenormalsHasItsWholeOccupancy) {
    const auto rare = double(1e-40f);
    std::vector<int> symbols(8, 0);
    symbols.insert(symbols.end(), 20, 1);
    for (Topology topology : topologies)
        trainedOnce(twoLoops(topology, {1.0, rare}, {rare, 1.0}, symbols),
                    [&](Flavour flavour, int id) {
                        expectSecondLoop(flavour, id, {8.0 / 28, 20.0 / 28});
                    });
}

// The last frame falls from 1e38 to 1e-305, and the state that was at 1e38 cannot give it at all:
// what its output, 0, is to be multiplied with is beyond the doubles.
TEST_F(FiniteTraining, LastFrameFarBelowTheOneBefore) {
    const auto rare = double(1e-40f), least = double(FLT_TRUE_MIN);
    const std::vector<int> symbols = {0, 0, 0, 0, 0, 0, 1, 2};
    for (Topology topology : topologies)
        trainedOnce(
            twoLoops(topology, {1.0, double(1e38f), 0.0}, {rare, double(1e-20f), least}, symbols),
            [&](Flavour flavour, int id) {
                expectSecondLoop(flavour, id, {6.0 / 8, 1.0 / 8, 1.0 / 8});
            });
}

// Nothing leads to the second state, and what it alone leads to would suit the sequence by 1e245
// better: no backward value is beyond the doubles, but with the second state's own output, 1e38,
// its product is.
TEST_F(FiniteTraining, StateThatNothingLeadsToTakesNoTransition) {
    for (Topology topology : topologies) {
        const std::size_t n = topology == Topology::triangular ? 4 : 3;
        Case data{{{Row(n, 0.0), Rows(n, Row(n, 0.0))}, Rows(n, Row(3, 0.0))},
                  {{0, 1, 2, 2, 2, 2, 2, 2, 2}}};
        data.model.chain.pi[0] = 1.0;
        data.model.chain.a[0][0] = data.model.chain.a[1][2] = data.model.chain.a[2][2] = 0.5;
        data.model.b[0] = {1.0, double(FLT_TRUE_MIN), double(1e-35f)};
        data.model.b[1] = {0.0, double(1e38f), 0.0};
        data.model.b[2] = {0.0, 0.0, 1.0};
        shape(topology, data.model.chain);
        trainedOnce(data, [&](Flavour flavour, int id) {
            const oracle::Hmm chain = chainOf(id);
            EXPECT_EQ(chain.pi[0], 1.0);
            EXPECT_NEAR(chain.a[0][0], 1.0, 1e-6);
            EXPECT_EQ(chain.a[0][1], 0.0);
            EXPECT_EQ(chain.a[1][2], 0.5); // never visited
            EXPECT_NEAR(outputsOf(flavour, id)[0][2], 7.0 / 9, 1e-6);
        });
    }
}

// Output values beyond the floats, in the only frame of a sequence: there is nothing to divide by,
// so it is passed by like a longer one.
TEST_F(FiniteTraining, OutputsBeyondTheFloatsArePassedBy) {
    oracle::Components state{{double(3e38f), double(3e38f), 1.0}, {{0.0}, {0.0}, {5.0}}, {}, true};
    state.inverses.assign(3, {{1e6}});
    const oracle::Hmm chain{{1.0}, {{1.0}}};
    const FrameData data(std::vector<Rows>{{{0.0}}, {{5.0}, {5.0}}, {{0.0}, {0.0}}});
    const int id = data.trainContinuous(makeContinuous({chain, {state}}), 1);
    expectFinite(id);
    EXPECT_EQ(continuousOf(id).states[0].weights, (Row{0.0, 0.0, 1.0}));
    EXPECT_EQ(continuousOf(id).states[0].means, (Rows{{0.0}, {0.0}, {5.0}}));

    GaussMixServer* codebook[3];
    for (std::size_t k = 0; k < 3; ++k)
        codebook[k] = makeMixture({{1.0}, {state.means[k]}, {state.inverses[k]}, true});
    ASSERT_EQ(KTsInitSemicontCodebook(codebook, 3, 1, 0), 1);
    for (GaussMixServer* server : codebook)
        KTsFreeGaussMixServer(server);
    const int other = data.trainSemicontinuous(makeSemicontinuous({chain, {state.weights}}, 1), 1);
    expectFinite(other);
    EXPECT_EQ(semicontinuousOf(other).weights, (Rows{{0.0, 0.0, 1.0}}));
}

// Dimensions that the density doesn't look at: their sums leave the floats, their means don't.
TEST_F(FiniteTraining, MeansOfTheLargestFloats) {
    const auto most = double(FLT_MAX);
    oracle::Components state{{1.0}, {{0.0, 0.0, 0.0, 0.0}}, {Rows(4, Row(4, 0.0))}, true};
    state.inverses[0][3][3] = 1e-6;
    const int old = makeContinuous({{{1.0}, {{1.0}}}, {state}});
    std::vector<Rows> sequences(3);
    for (std::size_t t = 0; t < 90; ++t)
        sequences[t / 30].push_back(
            {most, t % 2 == 0 ? most : -most, t < 45 ? -most : most, double(t)});
    support::onEveryLevel([&] {
        const int id = FrameData(sequences).trainContinuous(old, 1);
        expectFinite(id);
        const Row mean = continuousOf(id).states[0].means[0];
        EXPECT_EQ(mean[0], most);
        // a running average rounds to a float at each step
        EXPECT_NEAR(mean[1], 0.0, most * 90 * 0x1p-24);
        EXPECT_NEAR(mean[2], 0.0, most * 90 * 0x1p-24);
        EXPECT_NEAR(mean[3], 44.5, 44.5 * 90 * 0x1p-24);
        KTFreeHMMServer(id);
    });
}

// --- any finite data ---

double extreme(std::mt19937& random, double lowest, double highest) {
    std::uniform_real_distribution<double> exponent(std::log2(lowest), std::log2(highest));
    switch (random() % 6) {
    case 0:
        return 0.0;
    case 1:
        return double(float(highest));
    default:
        return double(float(std::exp2(exponent(random))));
    }
}

Case extremeCase(std::mt19937& random, Topology topology, double highest) {
    const double least = double(FLT_TRUE_MIN);
    const std::size_t n = 1 + random() % (random() % 8 == 0 ? 70 : 12), symbols = 1 + random() % 6;
    Case data{{{Row(n), Rows(n, Row(n, 0.0))}, Rows(n, Row(symbols))}, {}};
    for (std::size_t i = 0; i < n; ++i) {
        data.model.chain.pi[i] = extreme(random, least, 1.0);
        for (std::size_t j = 0; j < n; ++j)
            if (connects(topology, i, j)) data.model.chain.a[i][j] = extreme(random, least, 1.0);
        for (double& output : data.model.b[i])
            output = extreme(random, least, highest);
    }
    for (int q = 0; q < 3; ++q) {
        data.sequences.emplace_back();
        // runs of a symbol, so that one state after the other is much the best
        for (int run = 0; run < 4; ++run)
            data.sequences.back().insert(data.sequences.back().end(), 1 + random() % 20,
                                         int(random() % symbols));
    }
    return data;
}

TEST_F(FiniteTraining, NoFiniteDataGiveAnythingElse) {
    std::mt19937 random(1);
    for (int round = 0; round < 200; ++round) {
        SCOPED_TRACE(round);
        const Case data =
            extremeCase(random, topologies[round % 3], round % 2 == 0 ? 1.0 : double(FLT_MAX));
        for (Flavour flavour : flavours) {
            SCOPED_TRACE(testing::Message() << "flavour " << int(flavour));
            float change = 0.0f;
            const int id = data.train(flavour, data.make(flavour), 3, &change);
            expectFinite(id);
            ASSERT_TRUE(std::isfinite(change));
            KTHMMFreeAll();
            if (HasFatalFailure()) return;
        }
    }
}

// No probabilities at all, but finite: whatever comes of them, it is no NaN.
TEST_F(FiniteTraining, NumbersOfBothSigns) {
    std::mt19937 random(2);
    for (int round = 0; round < 200; ++round) {
        SCOPED_TRACE(round);
        Case data = extremeCase(random, topologies[round % 3], double(FLT_MAX));
        const auto scatter = [&](Row& row) {
            for (double& value : row)
                if (random() % 4 == 0) value = -value;
        };
        scatter(data.model.chain.pi);
        std::for_each(data.model.chain.a.begin(), data.model.chain.a.end(), scatter);
        if (round % 2 == 0) std::for_each(data.model.b.begin(), data.model.b.end(), scatter);
        for (Flavour flavour : flavours) {
            SCOPED_TRACE(testing::Message() << "flavour " << int(flavour));
            expectFinite(data.train(flavour, data.make(flavour), 2, nullptr));
            KTHMMFreeAll();
            if (HasFatalFailure()) return;
        }
    }
}

// --- against the definition, in logarithms ---

// One pass of the definition, with output values that are floats.
struct Reference {
    Reference(const oracle::ContinuousHmm& model, const std::vector<Rows>& sequences)
        : sums(model.chain.size()) {
        for (const auto& state : model.states) {
            counts.emplace_back(state.weights.size(), 0.0);
            means.emplace_back(state.weights.size(), Row(state.means[0].size(), 0.0));
        }
        for (const Rows& frames : sequences)
            add(model, frames);
        chain = sums.reestimate(model.chain);
    }
    void add(const oracle::ContinuousHmm& model, const Rows& frames) {
        auto components = oracle::logComponents(model, frames);
        for (Rows& states : components)
            for (Row& terms : states)
                for (double& term : terms)
                    term = std::log(double(float(std::exp(term))));
        const Rows logB = oracle::logOutputs(components);
        const oracle::Expectations e = oracle::expectations(model.chain, logB);
        if (e.logLikelihood == oracle::logOfZero) return;
        sums.add(e);
        for (std::size_t t = 0; t < frames.size(); ++t)
            for (std::size_t i = 0; i < counts.size(); ++i)
                for (std::size_t m = 0; m < counts[i].size(); ++m)
                    addShare(i, m, oracle::share(e.gamma[t][i], components[t][i][m], logB[t][i]),
                             frames[t]);
    }
    void addShare(std::size_t i, std::size_t m, double share, const Row& frame) {
        counts[i][m] += share;
        for (std::size_t d = 0; d < frame.size(); ++d)
            means[i][m][d] += share * frame[d];
    }
    void expect(int id, double tolerance) const {
        expectNear(chain, chainOf(id), tolerance);
        const oracle::ContinuousHmm trained = continuousOf(id);
        for (std::size_t i = 0; i < counts.size(); ++i)
            for (std::size_t m = 0; m < counts[i].size(); ++m) {
                // what is far below a frame is lost in the floats
                if (counts[i][m] < 1e-6) continue;
                EXPECT_NEAR(counts[i][m] / sums.total[i], trained.states[i].weights[m], tolerance)
                    << i;
                for (std::size_t d = 0; d < means[i][m].size(); ++d)
                    EXPECT_NEAR(means[i][m][d] / counts[i][m], trained.states[i].means[m][d],
                                tolerance)
                        << i;
            }
    }
    oracle::Sums sums;
    oracle::Hmm chain;
    Rows counts;
    std::vector<Rows> means;
};

// States from left to right whose means lie up to 3 deviations apart in each dimension, and
// utterances of equal lengths in all of them; the last utterance is near the last state throughout.
struct Utterances {
    static constexpr std::size_t nStates = 16, nDim = 13;

    Utterances(unsigned seed, std::size_t reach, double lastDeviation) : random(seed) {
        model.chain = {Row(nStates, 0.0), Rows(nStates, Row(nStates, 0.0))};
        model.chain.pi[0] = 1.0;
        for (std::size_t i = 0; i < nStates; ++i) {
            const std::size_t end = std::min(nStates, i + reach + 1);
            for (std::size_t j = i; j < end; ++j)
                model.chain.a[i][j] = double(1.0f / float(end - i));
        }
        std::normal_distribution<float> mean(0.0f, 3 / std::sqrt(2.0f));
        for (std::size_t i = 0; i < nStates; ++i) {
            oracle::Components c{{1.0}, {Row(nDim)}, {Rows(nDim, Row(nDim, 0.0))}, true};
            for (std::size_t d = 0; d < nDim; ++d) {
                c.means[0][d] = double(mean(random));
                c.inverses[0][d][d] = 1.0;
            }
            model.states.push_back(c);
        }
        for (int q = 0; q < 5; ++q)
            addFrames(
                48, [](int t) { return std::size_t(t) / 3; }, 1.0);
        addFrames(
            40, [](int) { return nStates - 1; }, lastDeviation);
    }
    template <class State>
    void addFrames(int count, const State& state, double deviation) {
        std::normal_distribution<double> noise(0.0, deviation);
        Rows frames;
        for (int t = 0; t < count; ++t) {
            frames.push_back(model.states[state(t)].means[0]);
            for (double& x : frames.back())
                x = double(float(x + noise(random)));
        }
        sequences.push_back(frames);
    }

    std::mt19937 random;
    oracle::ContinuousHmm model;
    std::vector<Rows> sequences;
};

TEST_F(FiniteTraining, OneUtteranceNearTheLastStateLeavesTheModelWhole) {
    int possible = 0;
    for (unsigned seed = 1; seed <= 12; ++seed)
        for (std::size_t reach : {1u, 2u, 15u}) {
            SCOPED_TRACE(testing::Message() << "seed " << seed << " reach " << reach);
            Utterances data(seed, reach, 0.5);
            const FrameData frames(data.sequences);
            const int old = makeContinuous(data.model);
            const auto cost = [&](int id, std::size_t q) {
                return KTsEvalContHMMForward(id, frames.tables[q], frames.lengths[q], nullptr);
            };
            const bool isPossible = cost(old, 5) < FLT_MAX;
            possible += isPossible;
            float change = 0.0f;
            const int id = frames.trainContinuous(old, 1, &change);
            expectFinite(id);
            Reference(data.model, data.sequences).expect(id, 2e-3);
            double before = 0, after = 0;
            for (std::size_t q = 0; q < 5u + isPossible; ++q) {
                before += double(cost(old, q));
                after += double(cost(id, q));
            }
            EXPECT_LT(after, before);
            KTHMMFreeAll();
        }
    EXPECT_GT(possible, 12);
}

} // namespace
