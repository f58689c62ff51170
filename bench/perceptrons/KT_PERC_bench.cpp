// Networks: one vector forward, one pattern of training, and the sigmoid alone.
#include "bench/support/bench.h"
#include "ktlp6.h"

#ifdef KTL_HAVE_EIGEN3
#include "bench/perceptrons/plain_networks.h"
#endif
#ifdef KTL_HAVE_FANN
#include <floatfann.h>
#endif

#include <vector>

namespace {

using Shape = std::vector<int>;
const Shape forwardShape = {39, 128, 64, 10};
const Shape trainingShape = {13, 32, 13};

// Numbers that look like features and weights.
template <class T>
std::vector<T> filled(int n, float range) {
    std::vector<T> values;
    for (int i = 0; i < n; ++i)
        values.push_back(T(float(i * 37 % 101 - 50) * range / 50));
    return values;
}

float weightAt(int neuron, int input) {
    return float((input * 31 + neuron * 17) % 41 - 20) * 0.0125f;
}

// Calls set(layer, neuron, input, weight) for every weight; layers from 1.
template <class Set>
void setWeights(const Shape& counts, Set set) {
    for (int l = 1; l < int(counts.size()); ++l)
        for (int j = 0; j < counts[std::size_t(l)]; ++j)
            for (int i = 0; i < counts[std::size_t(l) - 1]; ++i)
                set(l, j, i, weightAt(j, i));
}

sMLPServer* floatServer(const Shape& counts) {
    float*** table = KTsSetWeightsStr(counts.data(), int(counts.size()), 0.0f);
    setWeights(counts, [&](int l, int j, int i, float w) { table[l - 1][j][i] = w; });
    sMLPServer* server = KTsInitMLPServer(table, nullptr, nullptr, counts.data(), nullptr, nullptr,
                                          int(counts.size()), KT_MLP_SIGMOID, nullptr);
    KTsFreeWeightsStr(table);
    return server;
}

wMLPServer* fixedServer(const Shape& counts) {
    short*** table = KTwSetWeightsStr(counts.data(), int(counts.size()), 0);
    setWeights(counts,
               [&](int l, int j, int i, float w) { table[l - 1][j][i] = short(w * 32768); });
    wMLPServer* server = KTwInitMLPServer(table, nullptr, nullptr, counts.data(), nullptr, nullptr,
                                          int(counts.size()), KT_MLP_SIGMOID, -15, nullptr);
    KTwFreeWeightsStr(table);
    return server;
}

struct Forward {
    std::vector<float> input = filled<float>(39, 1);
    float output[10];
    bench::Values results() const { return bench::valuesOf(output, 10); }
};

struct OursForward : Forward {
    sMLPServer* server = floatServer(forwardShape);
    OursForward() = default;
    OursForward(const OursForward&) = delete;
    OursForward& operator=(const OursForward&) = delete;
    ~OursForward() { KTsFreeMLPServer(server); }
    void run() { KTsEvalMLPFeedForward(server, input.data(), 39, output, 10); }
};

struct OursForwardFixed {
    wMLPServer* server = fixedServer(forwardShape);
    std::vector<short> input = filled<short>(39, 32000);
    short output[10];
    OursForwardFixed() = default;
    OursForwardFixed(const OursForwardFixed&) = delete;
    OursForwardFixed& operator=(const OursForwardFixed&) = delete;
    ~OursForwardFixed() { KTwFreeMLPServer(server); }
    void run() {
        int scale = -15;
        KTwEvalMLPFeedForward(server, input.data(), 39, output, 10, KT_FixedScale, &scale, -15);
    }
};

struct Sigmoids {
    std::vector<float> input = filled<float>(4096, 8), output = std::vector<float>(4096);
    bench::Values results() const { return bench::Values(output.begin(), output.end()); }
};

struct OursSigmoids : Sigmoids {
    void run() { KTsSigmoidActivation(input.data(), output.data(), 4096); }
};

struct OursSigmoidsFixed {
    std::vector<int> input = filled<int>(4096, 8 * 32768);
    std::vector<short> output = std::vector<short>(4096);
    void run() { KTwSigmoidActivation(input.data(), output.data(), 4096, 15, -15); }
};

// The patterns of one training call; its fixed cost and the pass that measures the error are part
// of the time for one pattern.
constexpr int patterns = 200;
constexpr float rate = 0.01f, momentum = 0.5f;

struct Training {
    const int items = patterns;
    std::vector<float> inputs = filled<float>(patterns * 13, 1),
                       targets = filled<float>(patterns * 13, 0.2f);
    std::vector<const float*> inputRows, targetRows;
    Training() {
        for (int p = 0; p < patterns; ++p) {
            inputRows.push_back(inputs.data() + 13 * p);
            targetRows.push_back(targets.data() + 13 * p);
        }
    }
    Training(const Training&) = delete;
    Training& operator=(const Training&) = delete;
};

// Each call begins with the same weights: rows whose first changes are their weights would double
// in every call.
struct OursTraining : Training {
    sMLPServer* server = floatServer(trainingShape);
    std::vector<std::vector<float>> start = weights();
    ~OursTraining() { KTsFreeMLPServer(server); }
    std::vector<std::vector<float>> weights() const {
        std::vector<std::vector<float>> rows;
        for (int l = 1; l <= 2; ++l)
            for (int j = 0; j < trainingShape[std::size_t(l)]; ++j) {
                rows.emplace_back(std::size_t(trainingShape[std::size_t(l) - 1]));
                sMLPGetWeights(server, l, j, rows.back().data());
            }
        return rows;
    }
    void run() {
        for (int j = 0; j < 32 + 13; ++j)
            sMLPSetWeights(server, j < 32 ? 1 : 2, j < 32 ? j : j - 32,
                           start[std::size_t(j)].data());
        int epochs;
        KTsTrainMLPBackPropagation(server, inputRows.data(), patterns, 13, targetRows.data(), 13,
                                   rate, 1, -1.0f, momentum, &epochs);
    }
    bench::Values results() const {
        bench::Values all;
        for (const auto& row : weights())
            all.insert(all.end(), row.begin(), row.end());
        return all;
    }
};

#ifdef KTL_HAVE_EIGEN3
struct EigenForward : Forward {
    plain::EigenNetwork network;
    EigenForward() {
        setWeights(forwardShape,
                   [&](int l, int j, int i, float w) { network.setWeight(l, j, i, w); });
    }
    void run() { network.evaluate(input.data(), output); }
};

struct EigenTraining : Training {
    plain::EigenTrainer trainer;
    EigenTraining() {
        setWeights(trainingShape,
                   [&](int l, int j, int i, float w) { trainer.setWeight(l, j, i, w); });
    }
    // Our rows are padded to multiples of four and the previous changes cleared without the
    // padding, so the last three rows of the output layer begin with their weights as previous
    // changes.
    void run() { trainer.train(inputRows.data(), targetRows.data(), patterns, rate, momentum, 10); }
    bench::Values results() const {
        bench::Values all;
        setWeights(trainingShape,
                   [&](int l, int j, int i, float) { all.push_back(trainer.weight(l, j, i)); });
        return all;
    }
};

struct EigenSigmoids : Sigmoids {
    void run() { plain::eigenLogistic(input.data(), output.data(), 4096); }
};
#endif

#ifdef KTL_HAVE_FANN
struct fann* fannOf(const Shape& counts) {
    const std::vector<unsigned> layers(counts.begin(), counts.end());
    struct fann* network = fann_create_standard_array(unsigned(layers.size()), layers.data());
    fann_set_activation_function_hidden(network, FANN_SIGMOID);
    fann_set_activation_function_output(network, FANN_SIGMOID);
    fann_set_training_algorithm(network, FANN_TRAIN_INCREMENTAL);
    fann_randomize_weights(network, -0.25f, 0.25f);
    fann_set_learning_rate(network, rate);
    fann_set_learning_momentum(network, momentum);
    return network;
}

struct FannForward : Forward {
    struct fann* network = fannOf(forwardShape);
    FannForward() = default;
    FannForward(const FannForward&) = delete;
    FannForward& operator=(const FannForward&) = delete;
    ~FannForward() { fann_destroy(network); }
    void run() { benchmark::DoNotOptimize(fann_run(network, input.data())); }
};

struct FannTraining : Training {
    struct fann* network = fannOf(trainingShape);
    ~FannTraining() { fann_destroy(network); }
    void run() {
        for (int p = 0; p < patterns; ++p)
            fann_train(network, inputs.data() + 13 * p, targets.data() + 13 * p);
    }
};
#endif

const int registered = [] {
    bench::Row forward("forward/39-128-64-10", [] { return OursForward(); });
    bench::Row training("train/13-32-13", [] { return OursTraining(); });
    bench::Row sigmoid("sigmoid/4096", [] { return OursSigmoids(); });
    bench::Row("forwardFixed/39-128-64-10", [] { return OursForwardFixed(); }).other("float", [] {
        return OursForward();
    });
    bench::Row("sigmoidFixed/4096", [] { return OursSigmoidsFixed(); });
#ifdef KTL_HAVE_EIGEN3
    forward.peer("eigen3", 1e-5, [] { return EigenForward(); });
    training.peer("eigen3", 1e-4, [] { return EigenTraining(); });
    sigmoid.peer("eigen3", 1e-6, [] { return EigenSigmoids(); });
#endif
#ifdef KTL_HAVE_FANN
    forward.other(
        "fann", [] { return FannForward(); }, "weights and biases of its own");
    training.other(
        "fann", [] { return FannTraining(); }, "weights and biases of its own, no error pass");
#endif
    return 0;
}();

} // namespace
