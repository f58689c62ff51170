// Feed-forward evaluation, and the sums under it.
#include "perceptrons/perceptrons.h"
#include "support/alloc_faults.h"
#include "support/every_level.h"
#include "support/guarded.h"
#include "support/reports.h"

#include <climits>
#include <cstdint>

using namespace perceptrons;

namespace {

using Doubles = std::vector<double>;

std::vector<float> evaluate(sMLPServer* server, const std::vector<float>& input, int nOutputs) {
    support::Guarded<float> output(std::size_t(nOutputs), -1.0f);
    KTsEvalMLPFeedForward(server, input.data(), int(input.size()), output.data(), nOutputs);
    EXPECT_TRUE(output.intact());
    return output.values();
}

// One result more than the network has would show what was not written.
std::vector<short> evaluate(wMLPServer* server, const std::vector<short>& input, int nOutputs,
                            int actScale = -15, int outScale = -15) {
    support::Guarded<short> output(std::size_t(nOutputs), short(-1));
    KTwEvalMLPFeedForward(server, input.data(), int(input.size()), output.data(), nOutputs,
                          KT_FixedScale, &outScale, actScale);
    EXPECT_TRUE(output.intact());
    return output.values();
}

// The sums of one float layer with the bound on what rounding does to each: n products and n - 1
// additions.
struct Bounded {
    Doubles value, error;
};
Bounded referenceLayer(const std::vector<std::vector<float>>& weights, const Doubles& x,
                       const Doubles& xError) {
    Bounded result;
    for (const auto& row : weights) {
        double sum = 0, size = 0, carried = 0;
        for (std::size_t i = 0; i < row.size() && i < x.size(); ++i) {
            sum += double(row[i]) * x[i];
            size += std::abs(double(row[i]) * x[i]);
            carried += std::abs(double(row[i])) * xError[i];
        }
        result.value.push_back(sum);
        result.error.push_back((double(row.size()) + 1) * 0x1p-24 * (size + carried) * 1.01 +
                               carried);
    }
    return result;
}

// The network in double, with sigmoids or without; an error of the output follows from that of the
// sum, times the slope's limit of 1/4, and from 3e-7 of the table.
Bounded reference(const Network<float>& network, const std::vector<float>& input, bool sigmoids) {
    Bounded x{Doubles(input.begin(), input.end()), Doubles(input.size(), 0.0)};
    std::size_t threshold = 0;
    for (const auto& layer : network.weights) {
        x = referenceLayer(layer, x.value, x.error);
        for (std::size_t j = 0; j < layer.size(); ++j) {
            if ((network.flags & KT_MLP_THRESHOLD) != 0 && !network.thresholds.empty()) {
                x.value[j] -= double(network.thresholds[threshold++]);
                x.error[j] += 0x1p-24 * std::abs(x.value[j]);
            }
            if (!sigmoids) continue;
            x.value[j] = sigmoid(x.value[j]);
            x.error[j] = x.error[j] / 4 + 3e-7 * x.value[j];
        }
    }
    return x;
}

void expectNear(const std::vector<float>& result, const Bounded& expected) {
    ASSERT_EQ(result.size(), expected.value.size());
    for (std::size_t j = 0; j < result.size(); ++j)
        ASSERT_NEAR(double(result[j]), expected.value[j], expected.error[j]) << j;
}

// --- fixed: exact ---

int wrapped(std::int64_t value) {
    return int(std::uint32_t(std::uint64_t(value)));
}

std::vector<int> referenceSums(const std::vector<std::vector<short>>& weights,
                               const std::vector<short>& x, int shift) {
    std::vector<int> sums;
    for (const auto& row : weights) {
        std::int64_t sum = 0;
        for (std::size_t i = 0; i < row.size() && i < x.size(); ++i)
            sum += (int(row[i]) * int(x[i])) >> (shift & 31);
        sums.push_back(wrapped(sum));
    }
    return sums;
}

short referenceSigmoid(int sum) {
    const double r = 32768.0 * sigmoid(sum / 32768.0);
    return r > 32767.0 ? short(32767) : short(r);
}

std::vector<short> reference(const Network<short>& network, std::vector<short> x) {
    std::size_t threshold = 0;
    for (const auto& layer : network.weights) {
        std::vector<int> sums = referenceSums(layer, x, -network.weightScale);
        x.clear();
        for (int sum : sums) {
            if ((network.flags & KT_MLP_THRESHOLD) != 0) {
                const int e = network.weightScale + 15, t = network.thresholds[threshold++];
                sum -= e >= 0 ? t << e : t >> -e;
            }
            x.push_back(referenceSigmoid(sum));
        }
    }
    return x;
}

} // namespace

TEST(FixedSums, AreExactForEveryShift) {
    std::mt19937 random(2);
    std::uniform_int_distribution<int> words(-32768, 32767);
    for (int cols : {0, 1, 7, 31, 32, 33, 64, 100})
        for (int shift = -2; shift <= 34; ++shift) {
            std::vector<std::vector<short>> table(3, std::vector<short>(std::size_t(cols)));
            std::vector<short> x(static_cast<std::size_t>(cols));
            std::vector<const short*> pointers;
            for (auto& row : table) {
                for (short& w : row)
                    w = short(words(random));
                pointers.push_back(row.data());
            }
            for (short& v : x)
                v = short(words(random));
            for (std::size_t i = 0; i < x.size(); i += 3)
                x[i] = table[0][i] = table[1][i] = -32768; // the largest product
            const std::vector<int> expected = referenceSums(table, x, shift);
            support::onEveryLevel([&] {
                support::Guarded<int> sums(3, -1);
                ktl::perc::rowSums(sums.data(), pointers.data(), x.data(), 3, cols, shift);
                EXPECT_TRUE(sums.intact());
                ASSERT_EQ(sums.values(), expected) << cols << ' ' << shift;
            });
        }
}

TEST(FixedSums, ShiftEachProductBeforeItIsAdded) {
    const std::vector<short> row(40, short(-1)), x(40, short(1));
    const short* pointer = row.data();
    support::onEveryLevel([&] {
        int sum;
        ktl::perc::rowSums(&sum, &pointer, x.data(), 1, 40, 15);
        EXPECT_EQ(sum, -40); // each (-1 * 1) >> 15 is -1
    });
}

TEST(FixedSums, Wrap) {
    const std::vector<short> row(8, short(-32768)), x(8, short(-32768));
    const short* pointer = row.data();
    support::onEveryLevel([&] {
        int sum;
        ktl::perc::rowSums(&sum, &pointer, x.data(), 1, 8, 0);
        EXPECT_EQ(sum, 0); // 8 * 2^30
        ktl::perc::rowSums(&sum, &pointer, x.data(), 1, 3, 0);
        EXPECT_EQ(sum, wrapped(std::int64_t(3) << 30));
    });
}

TEST(FloatEvaluation, IsThatOfThePlainNetwork) {
    std::mt19937 random(3);
    for (const std::vector<int>& counts : {std::vector<int>{39, 128, 64, 10},
                                           {1, 1},
                                           {3, 5},
                                           {5, 3, 2},
                                           {13, 32, 13},
                                           {100, 1, 7}}) {
        Network<float> network = randomNetwork<float>(random, counts, 0.5);
        const Server<float> server = network.server();
        std::vector<float> first;
        const std::vector<float> input = randomVector<float>(random, counts[0], 1);
        support::onEveryLevel([&] {
            const std::vector<float> result = evaluate(server.get(), input, counts.back());
            expectNear(result, reference(network, input, true));
            if (first.empty()) first = result;
            EXPECT_EQ(result, first);
        });
    }
}

TEST(FloatEvaluation, SubtractsTheCallersThresholds) {
    std::mt19937 random(4);
    Network<float> network = randomNetwork<float>(random, {5, 7, 3}, 1);
    network.thresholds = randomVector<float>(random, 10, 2);
    network.flags |= KT_MLP_THRESHOLD;
    const Server<float> server = network.server();
    const std::vector<float> input = randomVector<float>(random, 5, 1);
    expectNear(evaluate(server.get(), input, 3), reference(network, input, true));
    network.thresholds[8] += 1.0f; // the vector is the caller's
    expectNear(evaluate(server.get(), input, 3), reference(network, input, true));
    network.flags = KT_MLP_SIGMOID;
    const Server<float> without = network.server();
    expectNear(evaluate(without.get(), input, 3), reference(network, input, true));
}

TEST(FloatEvaluation, WithTheFlagAndNoThresholdsSubtractsNone) {
    std::mt19937 random(5);
    Network<float> network = randomNetwork<float>(random, {5, 3}, 1);
    const std::vector<float> input = randomVector<float>(random, 5, 1);
    const std::vector<float> plain = evaluate(network.server().get(), input, 3);
    network.flags |= KT_MLP_THRESHOLD;
    EXPECT_EQ(evaluate(network.server().get(), input, 3), plain);
}

TEST(FloatEvaluation, TakesTheCallersWidthForTheFirstLayer) {
    std::mt19937 random(6);
    Network<float> network = randomNetwork<float>(random, {5, 4, 3}, 1);
    const Server<float> server = network.server();
    const std::vector<float> input = randomVector<float>(random, 5, 1);
    evaluate(server.get(), input, 3); // leaves other values in the buffer
    for (int width : {0, 1, 4}) {
        const std::vector<float> fewer(input.begin(), input.begin() + width);
        expectNear(evaluate(server.get(), fewer, 3), reference(network, fewer, true));
    }
    std::vector<float> more = input;
    more.resize(1000, 9.0f);
    EXPECT_EQ(evaluate(server.get(), more, 3), evaluate(server.get(), input, 3));
}

TEST(FloatEvaluation, WritesTheWholeLastLayer) {
    std::mt19937 random(7);
    Network<float> network = randomNetwork<float>(random, {5, 3}, 1);
    const Server<float> server = network.server();
    const std::vector<float> input = randomVector<float>(random, 5, 1),
                             full = evaluate(server.get(), input, 3);
    support::Guarded<float> output(3, -1.0f);
    KTsEvalMLPFeedForward(server.get(), input.data(), 5, output.data(), 1);
    EXPECT_EQ(output.values(), full);
    EXPECT_TRUE(output.intact());
}

TEST(FloatEvaluation, CallsEachLayersFunctionOnce) {
    static std::vector<int> lengths;
    lengths.clear();
    const KTMLPActivationFn counting = [](const float* in, float* out, int n) {
        lengths.push_back(n);
        identity(in, out, n);
    };
    std::mt19937 random(8);
    Network<float> network = randomNetwork<float>(random, {5, 4, 3}, 1, true);
    network.activations = {counting, counting};
    const Server<float> server = network.server();
    const std::vector<float> input = randomVector<float>(random, 5, 1);
    expectNear(evaluate(server.get(), input, 3), reference(network, input, false));
    EXPECT_EQ(lengths, (std::vector<int>{4, 3}));
}

TEST(FloatEvaluation, StoresNothingForANullFunction) {
    std::mt19937 random(9);
    Network<float> network = randomNetwork<float>(random, {4, 4, 3}, 1, true);
    const std::vector<float> input = randomVector<float>(random, 4, 1);
    network.activations[1] = nullptr;
    EXPECT_EQ(evaluate(network.server().get(), input, 3), std::vector<float>(3, -1.0f));
    EXPECT_EQ(evaluate(network.describedAsSparse().server().get(), input, 3),
              std::vector<float>(3, -1.0f));
    // the inputs stay in the buffer and meet the second layer
    network.activations = {nullptr, identity};
    Network<float> second;
    second.counts = {4, 3};
    second.weights = {network.weights[1]};
    expectNear(evaluate(network.server().get(), input, 3), reference(second, input, false));
}

TEST(FloatEvaluation, OfOneLayerWritesNothing) {
    Network<float> network;
    network.counts = {2};
    network.flags = KT_MLP_SIGMOID;
    EXPECT_EQ(evaluate(network.server().get(), {0.5f, 0.25f}, 2), std::vector<float>(2, -1.0f));
}

TEST(FloatEvaluation, AllocatesNothing) {
    std::mt19937 random(10);
    const Server<float> server = randomNetwork<float>(random, {5, 4, 3}, 1).server();
    float output[3];
    const float input[5] = {};
    support::alloc::arm(0);
    KTsEvalMLPFeedForward(server.get(), input, 5, output, 3);
    const long taken = support::alloc::allocations();
    support::alloc::disarm();
    EXPECT_EQ(taken, 0);
}

TEST(FloatEvaluation, OfASparseNetworkIsThatOfTheDenseOne) {
    std::mt19937 random(11);
    for (const std::vector<int>& counts :
         {std::vector<int>{39, 20, 10}, {3, 5}, {1, 1}, {17, 2, 33, 4}}) {
        Network<float> network = randomNetwork<float>(random, counts, 1);
        const Server<float> dense = network.server(), sparse = network.describedAsSparse().server();
        const std::vector<float> input = randomVector<float>(random, counts[0], 1);
        support::onEveryLevel([&] {
            EXPECT_EQ(evaluate(sparse.get(), input, counts.back()),
                      evaluate(dense.get(), input, counts.back()));
        });
    }
}

TEST(FloatEvaluation, OfASparseNetworkFollowsItsConnections) {
    Network<float> network;
    network.counts = {4, 3, 1};
    network.weights = {{{1, 2, 4}, {}, {8}}, {{1, 10, 100, 1000}}};
    network.connections = {{{3, 0, 3}, {}, {2}}, {{0, 1, 2, 2}}};
    network.activations = {identity, identity};
    network.derivatives = network.activations;
    network.flags = KT_MLP_THRESHOLD; // plays no part here
    network.thresholds = {5, 5, 5, 5};
    const Server<float> server = network.server();
    // 5 * 4 + 2 * 1 = 22, 0, 24; then 22 + 2400 + 24000
    EXPECT_EQ(evaluate(server.get(), {1, 2, 3, 4}, 1), std::vector<float>{26422});
    EXPECT_EQ(evaluate(server.get(), {1, 2, 3}, 1),
              std::vector<float>{2 + 2400 + 24000}); // the fourth input is 0
}

TEST(FloatEvaluation, OfASparseNetworkReportsFailedAllocations) {
    std::mt19937 random(12);
    const Server<float> server =
        randomNetwork<float>(random, {5, 4, 3}, 1).describedAsSparse().server();
    const float input[5] = {1, 1, 1, 1, 1};
    support::Guarded<float> output(3, -1.0f);
    support::CapturedReports reports;
    const long before = support::alloc::liveBlocks();
    const int failures = support::alloc::failEach(
        [&] { KTsEvalMLPFeedForward(server.get(), input, 5, output.data(), 3); },
        [&] {
            ASSERT_EQ(reports.count(), 1u);
            EXPECT_EQ(reports[0].status, KT_StsNoMem);
            EXPECT_EQ(reports[0].function, "KTsEvalMLPFeedForward");
            EXPECT_EQ(reports[0].message, "insufficiency of memory for pointer  outputPtr");
            EXPECT_EQ(reports[0].source, module);
            EXPECT_EQ(output.values(), std::vector<float>(3, -1.0f));
            reports.clear();
        });
    EXPECT_GE(failures, 2); // one per layer at least
    EXPECT_GT(output[0], 0.0f);
    EXPECT_LE(support::alloc::liveBlocks(), before + 1); // the list of reports may keep its room
}

TEST(FloatEvaluation, WithoutItsSecondBufferWritesNothing) {
    std::mt19937 random(13);
    const Server<float> server = randomNetwork<float>(random, {5, 3}, 1).server();
    float* buffer = server->pLayerOut;
    server->pLayerOut = nullptr;
    EXPECT_EQ(evaluate(server.get(), {1, 1, 1, 1, 1}, 3), std::vector<float>(3, -1.0f));
    server->pLayerOut = buffer;
    float output = -1;
    KTsEvalMLPFeedForward(nullptr, &output, 1, &output, 1);
    EXPECT_EQ(output, -1.0f);
}

TEST(FixedEvaluation, IsThatOfThePlainNetwork) {
    std::mt19937 random(14);
    for (const std::vector<int>& counts : {std::vector<int>{39, 128, 64, 10},
                                           {1, 1},
                                           {3, 5},
                                           {5, 3, 2},
                                           {13, 32, 13},
                                           {100, 1, 7}}) {
        Network<short> network = randomNetwork<short>(random, counts, 32000);
        const Server<short> server = network.server();
        const std::vector<short> input = randomVector<short>(random, counts[0], 32000);
        support::onEveryLevel([&] {
            EXPECT_EQ(evaluate(server.get(), input, counts.back()), reference(network, input));
        });
    }
}

TEST(FixedEvaluation, SubtractsThresholdsOnTheScaleOfTheSums) {
    std::mt19937 random(15);
    for (int weightScale : {-15, -12, -17}) { // as they are, to the left, to the right
        Network<short> network = randomNetwork<short>(random, {5, 7, 3}, 3000);
        network.weightScale = weightScale;
        network.thresholds = randomVector<short>(random, 10, 3000);
        network.flags |= KT_MLP_THRESHOLD;
        const Server<short> server = network.server();
        int* const sums = server->pNet;
        const std::vector<short> input = randomVector<short>(random, 5, 32000);
        EXPECT_EQ(evaluate(server.get(), input, 3), reference(network, input));
        EXPECT_EQ(server->pNet, sums);
        network.thresholds.assign(10, 0);
        EXPECT_EQ(evaluate(server.get(), input, 3), reference(network, input));
    }
}

// A threshold of 1.0 means the same in both flavours.
TEST(FixedEvaluation, ThresholdsMeanWhatTheyMeanInFloat) {
    Network<short> fixed;
    fixed.counts = {2, 1};
    fixed.weights = {{{2048, -4096}}}; // 0.5, -1.0 with 12 fractional bits
    fixed.weightScale = -12;
    fixed.thresholds = {1024}; // 0.25
    fixed.flags = KT_MLP_SIGMOID | KT_MLP_THRESHOLD;
    Network<float> plain;
    plain.counts = fixed.counts;
    plain.weights = {{{0.5f, -1.0f}}};
    plain.thresholds = {0.25f};
    plain.flags = fixed.flags;
    const float expected = evaluate(plain.server().get(), {0.5f, 0.125f}, 1)[0];
    EXPECT_NEAR(evaluate(fixed.server().get(), {16384, 4096}, 1)[0] / 32768.0, double(expected),
                1.0 / 32768);
}

TEST(FixedEvaluation, CopiesAsManyResultsAsAreAskedFor) {
    std::mt19937 random(16);
    Network<short> network = randomNetwork<short>(random, {5, 3}, 32000);
    const Server<short> server = network.server();
    const std::vector<short> input = randomVector<short>(random, 5, 32000),
                             all = evaluate(server.get(), input, 3);
    EXPECT_EQ(evaluate(server.get(), input, 2), std::vector<short>(all.begin(), all.begin() + 2));
    EXPECT_TRUE(evaluate(server.get(), input, 0).empty());
    std::vector<short> output(1000, short(-1)); // far more than there are
    int scale = -15;
    KTwEvalMLPFeedForward(server.get(), input.data(), 5, output.data(), 1000, KT_FixedScale, &scale,
                          -15);
    EXPECT_EQ(std::vector<short>(output.begin(), output.begin() + 3), all);
    EXPECT_EQ(output[8], -1); // the buffer ends at the widest layer and 3
    KTwEvalMLPFeedForward(server.get(), input.data(), 5, output.data(), -4, KT_FixedScale, &scale,
                          -15);
}

TEST(FixedEvaluation, OfOneLayerScalesTheInput) {
    Network<short> network;
    network.counts = {3};
    network.flags = KT_MLP_SIGMOID;
    EXPECT_EQ(evaluate(network.server().get(), std::vector<short>{100, -100, 7}, 3, -15, -14),
              (std::vector<short>{50, -50, 3}));
}

TEST(FixedEvaluation, WithScaleZeroDoesNotReadTheSums) {
    std::mt19937 random(17);
    const Server<short> server = randomNetwork<short>(random, {2, 2}, 32000).server();
    int scale = 0;
    short output[2] = {-1, -1};
    const short input[2] = {30000, 30000};
    KTwEvalMLPFeedForward(server.get(), input, 2, output, 2, KT_FixedScale, &scale, 0);
    EXPECT_EQ(output[0], 0); // sigmoids of 0 and of 0.5, truncated
    EXPECT_EQ(output[1], 0);
}

TEST(FixedEvaluation, OfASparseNetworkIsThatOfTheDenseOne) {
    std::mt19937 random(18);
    for (const std::vector<int>& counts : {std::vector<int>{39, 20, 10}, {3, 5}, {17, 2, 33, 4}}) {
        Network<short> network = randomNetwork<short>(random, counts, 32000);
        const Server<short> dense = network.server(), sparse = network.describedAsSparse().server();
        const std::vector<short> input = randomVector<short>(random, counts[0], 32000);
        EXPECT_EQ(evaluate(sparse.get(), input, counts.back()),
                  evaluate(dense.get(), input, counts.back()));
        const std::vector<short> fewer(input.begin(), input.end() - 1);
        EXPECT_EQ(evaluate(sparse.get(), fewer, counts.back()),
                  evaluate(dense.get(), fewer, counts.back()));
    }
}

TEST(FixedEvaluation, OfASparseNetworkFollowsItsConnectionsAndScalesItsResult) {
    Network<short> network;
    network.counts = {4, 2};
    network.weights = {{{1, -1, 4}, {-1}}};
    network.connections = {{{3, 0, 3}, {1}}};
    network.activations = {wIdentity};
    network.derivatives = network.activations;
    network.weightScale = -1;
    network.flags = KT_MLP_THRESHOLD; // plays no part here
    network.thresholds = {5, 5};
    const Server<short> server = network.server();
    // (9 >> 1) + (-1 >> 1) + (36 >> 1) = 4 - 1 + 18 and -3 >> 1 = -2
    EXPECT_EQ(evaluate(server.get(), std::vector<short>{1, 3, 5, 9}, 2, -3, -3),
              (std::vector<short>{21, -2}));
    EXPECT_EQ(evaluate(server.get(), std::vector<short>{1, 3, 5, 9}, 2, -3, -2),
              (std::vector<short>{10, -1}));
}

TEST(FixedEvaluation, WithoutItsSecondBufferWritesNothing) {
    std::mt19937 random(19);
    const Server<short> server = randomNetwork<short>(random, {2, 2}, 32000).server();
    short* buffer = server->pLayerOut;
    server->pLayerOut = nullptr;
    EXPECT_EQ(evaluate(server.get(), std::vector<short>{1, 1}, 2), (std::vector<short>{-1, -1}));
    server->pLayerOut = buffer;
    KTwEvalMLPFeedForward(nullptr, nullptr, 0, nullptr, 0, 0, nullptr, 0);
}

namespace {

struct Scaled {
    std::vector<short> values;
    int scale;
};
Scaled scaleOutput(const std::vector<short>& values, int scale, int mode, int wanted) {
    Scaled result{std::vector<short>(values.size(), short(-7)), wanted};
    ktl::perc::scaleOutput(values.data(), result.values.data(), int(values.size()), scale, mode,
                           &result.scale);
    return result;
}

} // namespace

TEST(ScaledOutput, OfModeZeroShiftsRightByAPositiveScaleAndOddlyByANegativeOne) {
    const std::vector<short> values = {1000, -1000, 32767, -32768, 3};
    const Scaled right = scaleOutput(values, 2, KT_NoScale, 99);
    EXPECT_EQ(right.values, (std::vector<short>{250, -250, 8191, -8192, 0}));
    EXPECT_EQ(right.scale, 0);
    EXPECT_EQ(scaleOutput(values, 0, KT_NoScale, 99).values, values);
    // a count of 17
    EXPECT_EQ(scaleOutput(values, -15, KT_NoScale, 99).values, std::vector<short>(5, 0));
    // a count of 1
    EXPECT_EQ(scaleOutput(values, -31, KT_NoScale, 99).values,
              (std::vector<short>{2000, -2000, -2, 0, 6}));
    EXPECT_EQ(scaleOutput(values, 40, KT_NoScale, 99).values,
              (std::vector<short>{0, -1, 0, -1, 0}));
}

TEST(ScaledOutput, OfModeOneGoesToTheScaleAskedFor) {
    const std::vector<short> values = {1000, -1000, 32767, 3};
    const Scaled right = scaleOutput(values, -15, KT_FixedScale, -13);
    EXPECT_EQ(right.values, (std::vector<short>{250, -250, 8191, 0}));
    EXPECT_EQ(right.scale, -13);
    EXPECT_EQ(scaleOutput(values, -15, KT_FixedScale, -15).values, values);
    EXPECT_EQ(scaleOutput(values, -15, KT_FixedScale, -16).values,
              (std::vector<short>{2000, -2000, -2, 6}));
    EXPECT_EQ(scaleOutput(values, -15, KT_FixedScale, -40).values, std::vector<short>(4, 0));
    EXPECT_EQ(scaleOutput(values, INT_MIN, KT_FixedScale, INT_MAX).values,
              (std::vector<short>{0, -1, 0, 0}));
    EXPECT_EQ(scaleOutput(values, INT_MAX, KT_FixedScale, INT_MIN).values,
              std::vector<short>(4, 0));
}

TEST(ScaledOutput, OfOtherModesIsCopied) {
    const std::vector<short> values = {1000, -1000};
    for (int mode : {KT_AutoScale, KT_Saturate, 7, -1}) {
        const Scaled copied = scaleOutput(values, -15, mode, 99);
        EXPECT_EQ(copied.values, values);
        EXPECT_EQ(copied.scale, 0);
    }
}

TEST(ScaledOutput, WithoutAPlaceForTheScaleCountsAsZero) {
    std::mt19937 random(20);
    const Server<short> server = randomNetwork<short>(random, {2, 2}, 32000).server();
    const short input[2] = {30000, 30000};
    short output[2] = {-1, -1};
    KTwEvalMLPFeedForward(server.get(), input, 2, output, 2, KT_FixedScale, nullptr, -15);
    EXPECT_EQ(output[0], 0); // to the right by 15
    EXPECT_EQ(output[1], 0);
    KTwEvalMLPFeedForward(server.get(), input, 2, output, 2, KT_Saturate, nullptr, -15);
    EXPECT_GT(output[0], 0);
}
