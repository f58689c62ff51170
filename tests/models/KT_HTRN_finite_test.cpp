// Training with data whose backward variables, products or sums leave the doubles: what comes out is finite, and it is what
// the definition says.
#include "KT_HFLAT.h"
#include "training.h"

#include "support/every_level.h"

#include <cfloat>
#include <cmath>

namespace {

using namespace training;
using FiniteTraining = training::HmmTest;

enum class Flavour { discrete, continuous, semicontinuous };
constexpr Flavour flavours[] = {Flavour::discrete, Flavour::continuous, Flavour::semicontinuous};

// One model for all flavours: symbol k is the frame (k), and densities are so narrow that each sees its own symbol alone.
// The output values are the discrete outputs, the weights of a state's components, or those of the codebook's densities.
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
        if (flavour == Flavour::discrete) return SymbolData(sequences).train(id, iterations, change);
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

// A walk through all states, one a frame and each at the price of 1e-30, to a last state that takes everything at no price:
// for that state the early frames' backward values are 1e30 and more a frame too high for the doubles.
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
        for (std::size_t n : {15u, 16u, 70u}) {
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

} // namespace
