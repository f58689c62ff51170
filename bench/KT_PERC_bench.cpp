// Networks: one vector forward, one pattern of training, and the sigmoid alone.
#include "ktlp6.h"

#include <benchmark/benchmark.h>
#ifdef KTL_HAVE_EIGEN3
#include "plain_mlp.h"
#endif
#ifdef KTL_HAVE_FANN
#include <floatfann.h>
#endif

#include <vector>

namespace {

const std::vector<int> forwardShape = {39, 128, 64, 10};
const std::vector<int> trainingShape = {13, 32, 13};

// Numbers that look like features and weights.
template <class T>
std::vector<T> filled(int n, float range) {
    std::vector<T> values;
    for (int i = 0; i < n; ++i)
        values.push_back(T(float(i * 37 % 101 - 50) * range / 50));
    return values;
}

sMLPServer* floatServer(const std::vector<int>& counts) {
    float*** table = KTsSetWeightsStr(counts.data(), int(counts.size()), 0.0f);
    for (std::size_t l = 1; l < counts.size(); ++l)
        for (int j = 0; j < counts[l]; ++j)
            for (int i = 0; i < counts[l - 1]; ++i)
                table[l - 1][j][i] = float((i * 31 + j * 17) % 41 - 20) * 0.0125f;
    sMLPServer* server = KTsInitMLPServer(table, nullptr, nullptr, counts.data(), nullptr, nullptr,
                                          int(counts.size()), KT_MLP_SIGMOID, nullptr);
    KTsFreeWeightsStr(table);
    return server;
}

wMLPServer* fixedServer(const std::vector<int>& counts) {
    short*** table = KTwSetWeightsStr(counts.data(), int(counts.size()), 0);
    for (std::size_t l = 1; l < counts.size(); ++l)
        for (int j = 0; j < counts[l]; ++j)
            for (int i = 0; i < counts[l - 1]; ++i)
                table[l - 1][j][i] = short(((i * 31 + j * 17) % 41 - 20) * 410);
    wMLPServer* server = KTwInitMLPServer(table, nullptr, nullptr, counts.data(), nullptr, nullptr,
                                          int(counts.size()), KT_MLP_SIGMOID, -15, nullptr);
    KTwFreeWeightsStr(table);
    return server;
}

void forwardFloat(benchmark::State& state) {
    sMLPServer* server = floatServer(forwardShape);
    const std::vector<float> input = filled<float>(39, 1);
    float output[10];
    for (auto _ : state) {
        KTsEvalMLPFeedForward(server, input.data(), 39, output, 10);
        benchmark::DoNotOptimize(output[0]);
    }
    KTsFreeMLPServer(server);
}
BENCHMARK(forwardFloat)->Name("forward/39-128-64-10/ours");

void forwardFixed(benchmark::State& state) {
    wMLPServer* server = fixedServer(forwardShape);
    const std::vector<short> input = filled<short>(39, 32000);
    short output[10];
    int scale = -15;
    for (auto _ : state) {
        KTwEvalMLPFeedForward(server, input.data(), 39, output, 10, KT_FixedScale, &scale, -15);
        benchmark::DoNotOptimize(output[0]);
    }
    KTwFreeMLPServer(server);
}
BENCHMARK(forwardFixed)->Name("forwardFixed/39-128-64-10/ours");

void sigmoids(benchmark::State& state) {
    const std::vector<float> input = filled<float>(4096, 8);
    std::vector<float> output(4096);
    for (auto _ : state) {
        KTsSigmoidActivation(input.data(), output.data(), 4096);
        benchmark::DoNotOptimize(output.data());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(sigmoids)->Name("sigmoid/4096/ours");

void sigmoidsFixed(benchmark::State& state) {
    const std::vector<int> input = filled<int>(4096, 8 * 32768);
    std::vector<short> output(4096);
    for (auto _ : state) {
        KTwSigmoidActivation(input.data(), output.data(), 4096, 15, -15);
        benchmark::DoNotOptimize(output.data());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(sigmoidsFixed)->Name("sigmoidFixed/4096/ours");

// The patterns of one training call; its fixed cost and the error measure are part of the time for one
// pattern.
constexpr int patterns = 200;

void trainOne(benchmark::State& state) {
    sMLPServer* server = floatServer(trainingShape);
    const std::vector<float> inputs = filled<float>(patterns * 13, 1),
                             targets = filled<float>(patterns * 13, 0.2f);
    std::vector<const float*> inputRows, targetRows;
    for (int p = 0; p < patterns; ++p) {
        inputRows.push_back(inputs.data() + 13 * p);
        targetRows.push_back(targets.data() + 13 * p);
    }
    // Each call begins with the same weights: rows whose first changes are their weights would double in every
    // call.
    std::vector<std::vector<float>> weights;
    for (int l = 1; l <= 2; ++l)
        for (int j = 0; j < trainingShape[std::size_t(l)]; ++j) {
            weights.emplace_back(std::size_t(trainingShape[std::size_t(l) - 1]));
            sMLPGetWeights(server, l, j, weights.back().data());
        }
    int epochs;
    for (auto _ : state) {
        for (int j = 0; j < 32 + 13; ++j)
            sMLPSetWeights(server, j < 32 ? 1 : 2, j < 32 ? j : j - 32, weights[std::size_t(j)].data());
        KTsTrainMLPBackPropagation(server, inputRows.data(), patterns, 13, targetRows.data(), 13, 0.01f, 1,
                                   -1.0f, 0.5f, &epochs);
    }
    // items, so that a time for one pattern stands beside FANN's
    state.counters["pattern"] = benchmark::Counter(double(patterns) * double(state.iterations()),
                                                   benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    KTsFreeMLPServer(server);
}
BENCHMARK(trainOne)->Name("train200Patterns/13-32-13/ours");

#ifdef KTL_HAVE_EIGEN3
void forwardEigen(benchmark::State& state) {
    plain::EigenNetwork network(forwardShape.data(), int(forwardShape.size()));
    const std::vector<float> input = filled<float>(39, 1);
    float output[10];
    for (auto _ : state) {
        network.evaluate(input.data(), output);
        benchmark::DoNotOptimize(output[0]);
    }
}
BENCHMARK(forwardEigen)->Name("forward/39-128-64-10/eigen");

void sigmoidsEigen(benchmark::State& state) {
    const std::vector<float> input = filled<float>(4096, 8);
    std::vector<float> output(4096);
    for (auto _ : state) {
        plain::eigenLogistic(input.data(), output.data(), 4096);
        benchmark::DoNotOptimize(output.data());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(sigmoidsEigen)->Name("sigmoid/4096/eigen");
#endif

#ifdef KTL_HAVE_FANN
struct fann* fannOf(const std::vector<int>& counts) {
    const std::vector<unsigned> layers(counts.begin(), counts.end());
    struct fann* network = fann_create_standard_array(unsigned(layers.size()), layers.data());
    fann_set_activation_function_hidden(network, FANN_SIGMOID);
    fann_set_activation_function_output(network, FANN_SIGMOID);
    fann_set_training_algorithm(network, FANN_TRAIN_INCREMENTAL);
    fann_randomize_weights(network, -0.25f, 0.25f);
    fann_set_learning_rate(network, 0.01f);
    fann_set_learning_momentum(network, 0.5f);
    return network;
}

void forwardFann(benchmark::State& state) {
    struct fann* network = fannOf(forwardShape);
    std::vector<float> input = filled<float>(39, 1);
    for (auto _ : state)
        benchmark::DoNotOptimize(fann_run(network, input.data()));
    fann_destroy(network);
}
BENCHMARK(forwardFann)->Name("forward/39-128-64-10/fann");

void trainFann(benchmark::State& state) {
    struct fann* network = fannOf(trainingShape);
    std::vector<float> inputs = filled<float>(patterns * 13, 1), targets = filled<float>(patterns * 13, 0.2f);
    for (auto _ : state)
        for (int p = 0; p < patterns; ++p)
            fann_train(network, inputs.data() + 13 * p, targets.data() + 13 * p);
    state.counters["pattern"] = benchmark::Counter(double(patterns) * double(state.iterations()),
                                                   benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    fann_destroy(network);
}
BENCHMARK(trainFann)->Name("train200Patterns/13-32-13/fann");
#endif

} // namespace
