// Back-propagation.
#include "perceptrons/perceptrons.h"
#include "support/alloc_faults.h"
#include "support/every_level.h"
#include "support/reports.h"

#include <algorithm>
#include <cstring>

using namespace perceptrons;

namespace {

struct Patterns {
    std::vector<std::vector<float>> inputs, targets;

    std::vector<const float*> rows(const std::vector<std::vector<float>>& vectors) const {
        std::vector<const float*> result;
        for (const auto& vector : vectors)
            result.push_back(vector.data());
        return result;
    }
};

Patterns randomPatterns(std::mt19937& random, int count, int inputs, int outputs) {
    Patterns patterns;
    for (int p = 0; p < count; ++p) {
        patterns.inputs.push_back(randomVector<float>(random, inputs, 1));
        patterns.targets.push_back(randomVector<float>(random, outputs, 0.45));
        for (float& t : patterns.targets.back())
            t += 0.5f;
    }
    return patterns;
}

struct Rules {
    int nInputs;
    int nOutputs;
    float learningRate = 0.5f;
    int maxEpochs = 1;
    float errorThreshold = 0;
    float momentum = 0;
};

int train(sMLPServer* server, const Patterns& patterns, const Rules& rules) {
    std::vector<const float*> inputs = patterns.rows(patterns.inputs),
                              targets = patterns.rows(patterns.targets);
    int epochs = -77;
    KTsTrainMLPBackPropagation(server, inputs.data(), int(inputs.size()), rules.nInputs,
                               targets.data(), rules.nOutputs, rules.learningRate, rules.maxEpochs,
                               rules.errorThreshold, rules.momentum, &epochs);
    return epochs;
}

// --- the reference: one scalar loop after the other, weights and changes in float, everything else
// in double ---

struct Reference {
    using Layer = std::vector<std::vector<float>>;
    std::vector<int> counts;
    std::vector<Layer> weights, changes;
    bool thresholds; // KT_MLP_THRESHOLD
    int width;       // the running input width

    // Changes start as the weights, row after row with padding, and the first sum of counts of them
    // are cleared.
    Reference(const Network<float>& network, int nInputs)
        : counts(network.counts), weights(network.weights), changes(network.weights),
          thresholds((network.flags & KT_MLP_THRESHOLD) != 0), width(nInputs) {
        std::size_t cleared = 0, at = 0;
        for (std::size_t l = 1; l < counts.size(); ++l)
            cleared += std::size_t(counts[l]) * std::size_t(counts[l - 1]);
        for (Layer& layer : changes)
            for (auto& row : layer) {
                for (std::size_t i = 0; i < row.size(); ++i)
                    if (at + i < cleared) row[i] = 0;
                at += (row.size() + 3) / 4 * 4;
            }
    }

    std::vector<std::vector<double>> forward(const std::vector<float>& input, bool training) {
        std::vector<std::vector<double>> outputs = {
            std::vector<double>(input.begin(), input.end())};
        std::size_t w = std::size_t(std::min(width, counts[0]));
        for (const Layer& layer : weights) {
            std::vector<double> y;
            for (const auto& row : layer) {
                double sum = 0;
                for (std::size_t i = training && thresholds ? 1 : 0; i < w; ++i)
                    sum += double(row[i]) * outputs.back()[i];
                if (training && thresholds) sum -= double(row[0]);
                y.push_back(double(float(sigmoid(sum))));
            }
            w = y.size();
            outputs.push_back(y);
        }
        return outputs;
    }

    double error(const Patterns& patterns, int nOutputs) {
        double sum = 0;
        for (std::size_t p = 0; p < patterns.inputs.size(); ++p) {
            const std::vector<double> y = forward(patterns.inputs[p], false).back();
            for (std::size_t k = 0; k < std::size_t(nOutputs); ++k)
                sum += std::pow(double(patterns.targets[p][k]) - y[k], 2.0);
        }
        return sum / (2.0 * double(patterns.inputs.size()));
    }

    void descend(std::size_t layer, std::size_t row, double delta, const std::vector<double>& x,
                 const Rules& rules) {
        for (std::size_t i = 0; i < weights[layer][row].size(); ++i) {
            const double change = x[i] * delta * double(rules.learningRate) +
                                  double(changes[layer][row][i]) * double(rules.momentum);
            weights[layer][row][i] = float(double(weights[layer][row][i]) + change);
            changes[layer][row][i] = float(change);
        }
    }

    void pattern(const std::vector<float>& input, const std::vector<float>& target,
                 const Rules& rules) {
        std::vector<std::vector<double>> y = forward(input, true);
        width = counts.back();
        const std::size_t last = counts.size() - 1,
                          skipped = y[last].size() - std::size_t(rules.nOutputs);
        for (std::size_t k = 0; k < std::size_t(rules.nOutputs); ++k) {
            double& out = y[last][skipped + k];
            out = (double(target[k]) - out) * (1 - out) * out;
        }
        for (std::size_t k = 0; k < std::size_t(rules.nOutputs); ++k)
            descend(last - 1, k, y[last][skipped + k], y[last - 1], rules);
        for (std::size_t l = last - 1; l >= 1; --l) {
            for (std::size_t j = 0; j < y[l].size(); ++j) {
                double sum = 0;
                for (std::size_t k = 0; k < y[l + 1].size(); ++k)
                    sum += double(weights[l][k][j]) * y[l + 1][k]; // as they have just been changed
                y[l][j] = sum * (1 - y[l][j]) * y[l][j];
            }
            for (std::size_t j = 0; j < y[l].size(); ++j)
                descend(l - 1, j, y[l][j], y[l - 1], rules);
        }
    }

    int run(const Patterns& patterns, const Rules& rules) {
        const std::size_t n = patterns.inputs.size();
        for (int epoch = 0; epoch < rules.maxEpochs; ++epoch) {
            if (error(patterns, rules.nOutputs) < double(rules.errorThreshold)) return epoch;
            for (std::size_t p = 0; p < n; ++p) {
                const std::size_t index = (std::size_t(epoch) + p) % n;
                pattern(patterns.inputs[index], patterns.targets[index], rules);
            }
        }
        return rules.maxEpochs;
    }

    std::vector<float> flat() const {
        std::vector<float> all;
        for (const Layer& layer : weights)
            for (const auto& row : layer)
                all.insert(all.end(), row.begin(), row.end());
        return all;
    }
};

// A few epochs move weights by something like 1; deltas carry relative errors of some 1e-6 at most
// (the table's 3e-7 and float sums of some dozen terms), and 20 epochs add them up.
constexpr float tolerance = 1e-4f;

void expectSameWeights(const std::vector<float>& result, const std::vector<float>& expected) {
    ASSERT_EQ(result.size(), expected.size());
    for (std::size_t i = 0; i < result.size(); ++i)
        ASSERT_NEAR(result[i], expected[i], tolerance) << i;
}

void expectTrainsAsTheReference(std::uint32_t seed, const std::vector<int>& counts, Rules rules,
                                int flags = 0) {
    std::mt19937 random(seed);
    Network<float> network = randomNetwork<float>(random, counts, 0.8);
    network.flags |= flags;
    const Patterns patterns = randomPatterns(random, 4, counts[0], counts.back());
    Reference reference(network, rules.nInputs);
    const int epochs = reference.run(patterns, rules);
    std::vector<float> first;
    support::onEveryLevel([&] {
        const Server<float> server = network.server();
        const std::vector<float> before = weightsOf(server.get());
        EXPECT_EQ(train(server.get(), patterns, rules), epochs);
        const std::vector<float> after = weightsOf(server.get());
        expectSameWeights(after, reference.flat());
        double moved = 0;
        for (std::size_t i = 0; i < after.size(); ++i)
            moved = std::max(moved, double(std::abs(after[i] - before[i])));
        EXPECT_GT(moved, 100 * double(tolerance)); // the comparison says something
        if (first.empty()) first = after;
        EXPECT_EQ(after, first); // the same bits on every level
    });
}

} // namespace

TEST(Training, FollowsTheReference) {
    expectTrainsAsTheReference(1, {4, 8, 4}, {.nInputs = 4, .nOutputs = 4, .maxEpochs = 20});
    expectTrainsAsTheReference(2, {13, 32, 13}, {.nInputs = 13, .nOutputs = 13, .maxEpochs = 20});
}

TEST(Training, HasMomentum) {
    expectTrainsAsTheReference(3, {4, 8, 4},
                               {.nInputs = 4, .nOutputs = 4, .maxEpochs = 10, .momentum = 0.7f});
}

TEST(Training, OfTwoLayersHasNoHiddenOne) {
    expectTrainsAsTheReference(4, {5, 5}, {.nInputs = 5, .nOutputs = 5, .maxEpochs = 20});
}

TEST(Training, OfFourLayersPassesDeltasDown) {
    expectTrainsAsTheReference(5, {6, 9, 7, 6}, {.nInputs = 6, .nOutputs = 6, .maxEpochs = 20});
}

// The rows' padding makes the clearing stop short of the last rows, which begin with their weights
// as previous changes.
TEST(Training, BeginsTheLastRowsWithTheirWeightsAsChanges) {
    const Rules rules{.nInputs = 5, .nOutputs = 5, .maxEpochs = 1, .momentum = 0.5f};
    expectTrainsAsTheReference(6, {5, 5, 5}, rules);
    std::mt19937 random(7); // one layer, one pattern, no error: only the momentum moves weights
    Network<float> network = randomNetwork<float>(random, {5, 5}, 1);
    const Server<float> server = network.server();
    Patterns patterns;
    patterns.inputs = {std::vector<float>(5, 0.0f)};
    patterns.targets = {std::vector<float>(5, 0.0f)};
    train(server.get(), patterns, rules);
    // Rows of 5 stand 8 apart, and 25 elements are cleared: three rows, and the first element of
    // the fourth.
    for (int j = 0; j < 5; ++j)
        for (int i = 0; i < 5; ++i) {
            const float w = network.weights[0][std::size_t(j)][std::size_t(i)];
            const bool kept = 8 * j + i >= 25;
            EXPECT_EQ(server->pppWeights[0][j][i], kept ? w * 1.5f : w) << j << ' ' << i;
        }
}

// With a momentum of 0 it does not matter that the clearing stops short.
TEST(Training, WithoutMomentumHasNoUseForPreviousChanges) {
    std::mt19937 random(26);
    const Server<float> server = randomNetwork<float>(random, {5, 5}, 1).server();
    Patterns patterns;
    patterns.inputs = {std::vector<float>(5, 0.0f)};
    patterns.targets = {std::vector<float>(5, 0.0f)};
    const std::vector<float> before = weightsOf(server.get());
    train(server.get(), patterns, {.nInputs = 5, .nOutputs = 5});
    EXPECT_EQ(weightsOf(server.get()), before);
}

TEST(Training, ClearsAllChangesWhereRowsAreNotPadded) {
    std::mt19937 random(8);
    Network<float> network = randomNetwork<float>(random, {4, 4}, 1);
    const Server<float> server = network.server();
    Patterns patterns;
    patterns.inputs = {std::vector<float>(4, 0.0f)};
    patterns.targets = {std::vector<float>(4, 0.0f)};
    const std::vector<float> before = weightsOf(server.get());
    train(server.get(), patterns, {.nInputs = 4, .nOutputs = 4, .momentum = 0.5f});
    EXPECT_EQ(weightsOf(server.get()), before);
}

TEST(Training, TakesThresholdsFromTheFirstWeights) {
    expectTrainsAsTheReference(9, {4, 8, 4}, {.nInputs = 4, .nOutputs = 4, .maxEpochs = 20},
                               KT_MLP_THRESHOLD);
}

// From the second pattern on as many inputs are fed forward as there are outputs; updates reach all
// weights.
TEST(Training, OfANarrowLastLayerGoesOnWithFewerInputs) {
    expectTrainsAsTheReference(10, {6, 8, 3}, {.nInputs = 6, .nOutputs = 3, .maxEpochs = 10});
    expectTrainsAsTheReference(11, {6, 8, 3}, {.nInputs = 2, .nOutputs = 3, .maxEpochs = 10});
}

// The narrowed width is the call's own: the next one begins with the caller's again.
TEST(Training, BeginsEachCallWithTheCallersWidth) {
    std::mt19937 random(25);
    Network<float> network = randomNetwork<float>(random, {6, 8, 3}, 0.8);
    const Patterns patterns = randomPatterns(random, 4, 6, 3);
    const int nInputs = 6;
    const Rules rules{.nInputs = nInputs, .nOutputs = 3, .maxEpochs = 1};
    Reference reference(network, nInputs);
    const Server<float> server = network.server();
    for (int call = 0; call < 2; ++call) {
        reference.width = nInputs;
        reference.run(patterns, rules);
        EXPECT_EQ(train(server.get(), patterns, rules), 1);
    }
    expectSameWeights(weightsOf(server.get()), reference.flat());
}

TEST(Training, OfAWideLastLayerReadsNoMoreThanTheInputs) {
    expectTrainsAsTheReference(12, {3, 8, 6}, {.nInputs = 3, .nOutputs = 6, .maxEpochs = 10});
}

TEST(Training, LooksAtTheLastOutputsWhenFewerAreNamed) {
    expectTrainsAsTheReference(13, {4, 8, 4}, {.nInputs = 4, .nOutputs = 2, .maxEpochs = 10});
}

TEST(Training, LooksAtNoMoreOutputsThanThereAre) {
    std::mt19937 random(14);
    Network<float> network = randomNetwork<float>(random, {4, 4}, 1);
    const Patterns patterns = randomPatterns(random, 3, 4, 4);
    const Server<float> one = network.server(), other = network.server();
    EXPECT_EQ(train(one.get(), patterns, {.nInputs = 4, .nOutputs = 4, .maxEpochs = 3}), 3);
    EXPECT_EQ(train(other.get(), patterns, {.nInputs = 4, .nOutputs = 4000, .maxEpochs = 3}), 3);
    EXPECT_EQ(weightsOf(one.get()), weightsOf(other.get()));
}

namespace {

// The inputs that the activation of a 1-1 network of weight 1 sees in training, which name the
// patterns.
std::vector<float> seen;

std::vector<int> orderOfPatterns(int nPatterns, int epochs) {
    seen.clear();
    Network<float> network;
    network.counts = {1, 1};
    network.weights = {{{1.0f}}};
    network.activations = {[](const float* in, float* out, int n) {
        EXPECT_EQ(n, 1);
        seen.push_back(*in);
        *out = 0;
    }};
    network.derivatives = {[](const float*, float* out, int) { *out = 0; }};
    const Server<float> server = network.server();
    Patterns patterns;
    for (int p = 0; p < nPatterns; ++p) {
        patterns.inputs.push_back({float(p)});
        patterns.targets.push_back({1.0f});
    }
    EXPECT_EQ(train(server.get(), patterns, {.nInputs = 1, .nOutputs = 1, .maxEpochs = epochs}),
              epochs);
    std::vector<int> order;
    for (std::size_t i = 0; i < seen.size();
         ++i) // each epoch first measures the error in the patterns' own order
        if (i % std::size_t(2 * nPatterns) >= std::size_t(nPatterns)) order.push_back(int(seen[i]));
    return order;
}

} // namespace

TEST(Training, PresentsPatternsInCyclicOrder) {
    EXPECT_EQ(orderOfPatterns(3, 4), (std::vector<int>{0, 1, 2, 1, 2, 0, 2, 0, 1, 0, 1, 2}));
    EXPECT_EQ(orderOfPatterns(1, 3), (std::vector<int>{0, 0, 0}));
}

TEST(Training, CallsTheApplicationsFunctionsNeuronByNeuron) {
    static int largest, calls;
    largest = calls = 0;
    const KTMLPActivationFn derivative = [](const float* in, float* out, int n) {
        largest = std::max(largest, n);
        ++calls;
        KTsSigmoidDerivative(in, out, n);
    };
    std::mt19937 random(15);
    Network<float> network = randomNetwork<float>(random, {4, 3, 4}, 1);
    const Patterns patterns = randomPatterns(random, 2, 4, 4);
    const Server<float> builtIn = network.server();
    network.flags = 0;
    network.activations = {KTsSigmoidActivation, KTsSigmoidActivation};
    network.derivatives = {derivative, derivative};
    const Server<float> server = network.server();
    const Rules rules{.nInputs = 4, .nOutputs = 4, .maxEpochs = 5};
    train(server.get(), patterns, rules);
    train(builtIn.get(), patterns, rules);
    EXPECT_EQ(largest, 1);
    EXPECT_EQ(calls, 5 * 2 * (3 + 4));
    EXPECT_EQ(weightsOf(server.get()), weightsOf(builtIn.get()));
}

TEST(Training, StopsBeforeTheFirstEpochWhenTheErrorIsSmall) {
    std::mt19937 random(16);
    Network<float> network = randomNetwork<float>(random, {4, 4}, 1);
    const Server<float> server = network.server();
    const Patterns patterns = randomPatterns(random, 3, 4, 4);
    const std::vector<float> before = weightsOf(server.get());
    EXPECT_EQ(train(server.get(), patterns,
                    {.nInputs = 4, .nOutputs = 4, .maxEpochs = 9, .errorThreshold = 100}),
              0);
    EXPECT_EQ(weightsOf(server.get()), before);
}

TEST(Training, StopsWithinABillionthOfTheThreshold) {
    // No activation changes what the output is, 0: the error is the targets' squares / 2 = 0.125.
    Network<float> network;
    network.counts = {1, 1};
    network.weights = {{{1.0f}}};
    network.activations = {[](const float*, float* out, int) { *out = 0; }};
    network.derivatives = network.activations;
    Patterns patterns;
    patterns.inputs = {{1.0f}};
    patterns.targets = {{0.5f}};
    const Server<float> server = network.server();
    const auto epochsAt = [&](float threshold) {
        return train(server.get(), patterns,
                     {.nInputs = 1, .nOutputs = 1, .maxEpochs = 2, .errorThreshold = threshold});
    };
    EXPECT_EQ(epochsAt(0.125f), 0);
    EXPECT_EQ(epochsAt(0.12501f), 0);
    EXPECT_EQ(epochsAt(0.12499f), 2);
    patterns.targets = {{0.0f}}; // an error of 0
    EXPECT_EQ(epochsAt(0.0f), 0);
    EXPECT_EQ(epochsAt(-0.9e-9f), 0); // from above
    EXPECT_EQ(epochsAt(-1.1e-9f), 2);
}

// The error is that of evaluation: with KT_MLP_THRESHOLD it subtracts the caller's vector, which
// the training itself does not look at.
TEST(Training, MeasuresTheErrorWithTheCallersThresholds) {
    Network<float> network;
    network.counts = {1, 1};
    network.weights = {{{1.0f}}};
    network.activations = {identity};
    network.derivatives = {[](const float*, float* out, int) { *out = 0; }};
    network.flags = KT_MLP_THRESHOLD;
    Patterns patterns;
    patterns.inputs = {{2.0f}};
    patterns.targets = {{0.5f}};
    const Rules rules{.nInputs = 1, .nOutputs = 1, .maxEpochs = 3, .errorThreshold = 0.01f};
    network.thresholds = {1.5f};
    EXPECT_EQ(train(network.server().get(), patterns, rules), 0); // 1 * 2 - 1.5 is the target
    network.thresholds = {1.0f};
    EXPECT_EQ(train(network.server().get(), patterns, rules), 3);
}

// The sum over all outputs and patterns is divided by twice the patterns, not by the outputs.
TEST(Training, MeasuresHalfTheMeanSumOfSquares) {
    Network<float> network;
    network.counts = {2, 2};
    network.weights = {{{1, 0}, {0, 1}}};
    network.activations = {identity};
    network.derivatives = {[](const float*, float* out, int n) { std::fill_n(out, n, 0.0f); }};
    const Server<float> server = network.server();
    Patterns patterns;
    patterns.inputs = {{1, 0}, {0, 2}, {3, 0}};
    patterns.targets = {{0, 0.5f}, {0, 0}, {3, 0}};
    // (1 + 0.25 + 4 + 0) / 6 = 0.875
    const auto epochsAt = [&](float threshold) {
        return train(server.get(), patterns,
                     {.nInputs = 2, .nOutputs = 2, .maxEpochs = 1, .errorThreshold = threshold});
    };
    EXPECT_EQ(epochsAt(0.875f), 0);
    EXPECT_EQ(epochsAt(0.8751f), 0);
    EXPECT_EQ(epochsAt(0.8749f), 1);
}

TEST(Training, StopsWhenTheErrorHasBecomeSmall) {
    std::mt19937 random(17);
    Network<float> network = randomNetwork<float>(random, {4, 8, 4}, 1);
    const Patterns patterns = randomPatterns(random, 2, 4, 4);
    Reference reference(network, 4);
    Rules rules{.nInputs = 4,
                .nOutputs = 4,
                .learningRate = 1.0f,
                .maxEpochs = 500,
                .errorThreshold = 0.02f};
    const int expected = reference.run(patterns, rules);
    ASSERT_GT(expected, 3);
    ASSERT_LT(expected, 500);
    const Server<float> server = network.server();
    EXPECT_NEAR(train(server.get(), patterns, rules), expected, 1);
}

TEST(Training, WithoutEpochsDoesNothing) {
    std::mt19937 random(18);
    Network<float> network = randomNetwork<float>(random, {4, 4}, 1);
    const Server<float> server = network.server();
    const Patterns patterns = randomPatterns(random, 3, 4, 4);
    const std::vector<float> before = weightsOf(server.get());
    for (int epochs : {0, -3})
        EXPECT_EQ(train(server.get(), patterns, {.nInputs = 4, .nOutputs = 4, .maxEpochs = epochs}),
                  0);
    EXPECT_EQ(weightsOf(server.get()), before);
}

TEST(Training, WithoutPatternsOrLayersOnlyCountsEpochs) {
    std::mt19937 random(19);
    Network<float> network = randomNetwork<float>(random, {4, 4}, 1);
    const Server<float> server = network.server();
    EXPECT_EQ(train(server.get(), Patterns(), {.nInputs = 4, .nOutputs = 4, .maxEpochs = 3}), 3);
    Network<float> empty;
    empty.counts = {4};
    empty.flags = KT_MLP_SIGMOID;
    const Server<float> single = empty.server();
    const Patterns patterns = randomPatterns(random, 2, 4, 4);
    EXPECT_EQ(train(single.get(), patterns,
                    {.nInputs = 4, .nOutputs = 4, .maxEpochs = 3, .errorThreshold = -1}),
              3);
}

TEST(Training, OfASparseNetworkIsRefused) {
    std::mt19937 random(20);
    const Server<float> server =
        randomNetwork<float>(random, {4, 4}, 1).describedAsSparse().server();
    support::CapturedReports reports;
    EXPECT_EQ(train(server.get(), randomPatterns(random, 2, 4, 4), {.nInputs = 4, .nOutputs = 4}),
              -77);
    ASSERT_EQ(reports.count(), 1u);
    EXPECT_EQ(reports[0].status, KT_StsUnsupported);
    EXPECT_EQ(reports[0].function, "KTsTrainMLPBackPropagation");
    EXPECT_EQ(reports[0].message, "training of a sparse network is not supported");
    EXPECT_EQ(reports[0].source, module);
}

TEST(Training, ReportsEveryAllocationThatFails) {
    std::mt19937 random(21);
    const Server<float> server = randomNetwork<float>(random, {4, 8, 4}, 1).server();
    const Patterns patterns = randomPatterns(random, 2, 4, 4);
    std::vector<const float*> inputs = patterns.rows(patterns.inputs),
                              targets = patterns.rows(patterns.targets);
    std::vector<float> before = weightsOf(server.get());
    int epochs = -77;
    std::vector<std::string> last; // function and message of each failing run's last report
    support::CapturedReports reports;
    support::alloc::failEach(
        [&] {
            KTsTrainMLPBackPropagation(server.get(), inputs.data(), 2, 4, targets.data(), 4, 0.5f,
                                       1, 0.0f, 0.0f, &epochs);
        },
        [&] {
            // the buffer of server2 that nobody misses: training went well
            if (reports.count() == 0) {
                EXPECT_EQ(epochs, 1);
                epochs = -77;
                before = weightsOf(server.get());
                return;
            }
            const support::Report& report = reports[reports.count() - 1];
            EXPECT_EQ(report.status, KT_StsNoMem);
            EXPECT_EQ(report.source, module);
            last.push_back(report.function + ": " + report.message);
            const bool nested = report.message == "insufficiency of memory for pointer  server2";
            EXPECT_EQ(reports.count(), nested ? 2u : 1u);
            if (nested) {
                EXPECT_EQ(reports[0].function, "KTsInitMLPServer");
            }
            EXPECT_EQ(epochs, -77);
            EXPECT_EQ(weightsOf(server.get()), before);
            reports.clear();
        });
    last.erase(std::unique(last.begin(), last.end()), last.end());
    EXPECT_EQ(last, (std::vector<std::string>{
                        "KTsTrainMLPBackPropagation: insufficiency of memory for pointer  pY",
                        "KTsTrainMLPBackPropagation: insufficiency of memory for pointer  server2",
                        "getErrSumMLPBackProp: insufficiency of memory for pointer  o"}));
    EXPECT_EQ(epochs, 1);
}

TEST(Training, ReleasesItsWorkingStorage) {
    std::mt19937 random(22);
    const Server<float> server = randomNetwork<float>(random, {4, 8, 4}, 1).server();
    const Patterns patterns = randomPatterns(random, 2, 4, 4);
    std::vector<const float*> inputs = patterns.rows(patterns.inputs),
                              targets = patterns.rows(patterns.targets);
    const auto silent = [](int status, const char*, const char*, const char*, int) {
        return status;
    };
    KTErrorHandler previous = KTRedirectError(silent);
    const long before = support::alloc::liveBlocks();
    const auto run = [&] {
        KTsTrainMLPBackPropagation(server.get(), inputs.data(), 2, 4, targets.data(), 4, 0.5f, 2,
                                   0.0f, 0.5f, nullptr);
    };
    support::alloc::failEach(run, [&] { EXPECT_EQ(support::alloc::liveBlocks(), before); });
    EXPECT_EQ(support::alloc::liveBlocks(), before);
    KTRedirectError(previous);
    KTSetStatus(0);
}

TEST(Training, WithoutFunctionsOnALayerIsHarmless) {
    std::mt19937 random(23);
    Network<float> network = randomNetwork<float>(random, {4, 3, 4}, 1, true);
    network.activations[0] = network.derivatives[1] = nullptr;
    const Server<float> server = network.server();
    EXPECT_EQ(train(server.get(), randomPatterns(random, 2, 4, 4),
                    {.nInputs = 4, .nOutputs = 4, .maxEpochs = 2}),
              2);
    KTsTrainMLPBackPropagation(nullptr, nullptr, 0, 0, nullptr, 0, 0, 0, 0, 0, nullptr);
}

// As the header advises: a classifier of 4 inputs and 2 classes gets two idle outputs.
TEST(Training, LearnsWithPaddedTargets) {
    std::mt19937 random(24);
    Network<float> network = randomNetwork<float>(random, {4, 6, 4}, 1);
    const Server<float> server = network.server();
    Patterns patterns;
    // exclusive or of the first two inputs; the last input is the bias
    for (int p = 0; p < 4; ++p) {
        const float a = float(p & 1), b = float(p >> 1), differs = a != b ? 0.9f : 0.1f;
        patterns.inputs.push_back({a, b, 0.0f, 1.0f});
        patterns.targets.push_back({differs, 1.0f - differs, 0.5f, 0.5f});
    }
    const int epochs = train(server.get(), patterns,
                             {.nInputs = 4,
                              .nOutputs = 4,
                              .learningRate = 1.0f,
                              .maxEpochs = 20000,
                              .errorThreshold = 0.002f,
                              .momentum = 0.5f});
    EXPECT_LT(epochs, 20000);
    for (int p = 0; p < 4; ++p) {
        float y[4];
        KTsEvalMLPFeedForward(server.get(), patterns.inputs[std::size_t(p)].data(), 4, y, 4);
        EXPECT_EQ(y[0] > 0.5f, patterns.targets[std::size_t(p)][0] > 0.5f);
    }
}
