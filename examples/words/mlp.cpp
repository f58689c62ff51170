// A multilayer perceptron: an utterance of any length becomes a fixed number of inputs, and one
// output a word says how much the network believes in it.
#include "frontend.h"
#include "library.h"
#include "recogniser.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>

namespace words {
namespace {

// An utterance is cut into equal parts, each of which gives the means of its cepstra; and one input
// is always 1.
constexpr int nParts = 16;
constexpr int nInputs = nParts * nCepstra + 1;
constexpr int nHidden = 80;
constexpr int nOutputs = nInputs; // the trainer wants as many: see KTsTrainMLPBackPropagation
constexpr int nLayers = 3;
constexpr int counts[nLayers] = {nInputs, nHidden, nOutputs};
constexpr int epochs = 12; // at each learning rate
constexpr float learningRates[] = {0.2f, 0.1f, 0.05f};
constexpr int activationScale = -12; // of the fixed network's inputs, sums and outputs

/// The mean of a coefficient over one part.
template <class Value>
auto partMean(const Matrix<Value>& features, int part, int i) {
    using Sum = std::conditional_t<std::is_floating_point_v<Value>, Value, int>;
    const int from = std::min(part * features.rows() / nParts, features.rows() - 1);
    const int to = std::max(from + 1, (part + 1) * features.rows() / nParts);
    Sum sum{};
    for (int t = from; t < to; ++t)
        sum += features.row(t)[i];
    return sum / static_cast<Sum>(to - from);
}

std::vector<float> inputs(const Matrix<float>& features) {
    std::vector<float> result;
    for (int part = 0; part < nParts; ++part)
        for (int i = 0; i < nCepstra; ++i)
            result.push_back(partMean(features, part, i));
    result.push_back(1.0f);
    return result;
}

std::vector<short> inputs(const Matrix<short>& features) {
    constexpr int factor = 1 << (featureScale - activationScale);
    std::vector<short> result;
    for (int part = 0; part < nParts; ++part)
        for (int i = 0; i < nCepstra; ++i)
            result.push_back(static_cast<short>(
                std::clamp(partMean(features, part, i) * factor, -32767, 32767)));
    result.push_back(1 << -activationScale);
    return result;
}

struct FloatWeights {
    float*** rows;
    explicit FloatWeights(float value) : rows(KTsSetWeightsStr(counts, nLayers, value)) {
        if (rows == nullptr) throw Failure("no memory for the weights of a network");
    }
    ~FloatWeights() { KTsFreeWeightsStr(rows); }
    FloatWeights(const FloatWeights&) = delete;
    FloatWeights& operator=(const FloatWeights&) = delete;
};

struct FixedWeights {
    short*** rows;
    FixedWeights() : rows(KTwSetWeightsStr(counts, nLayers, 0)) {
        if (rows == nullptr) throw Failure("no memory for the weights of a network");
    }
    ~FixedWeights() { KTwFreeWeightsStr(rows); }
    FixedWeights(const FixedWeights&) = delete;
    FixedWeights& operator=(const FixedWeights&) = delete;
};

/// A network that has learnt nothing: weights at random, the smaller the more of them a neuron has.
FloatNetwork randomNetwork(std::mt19937& generator) {
    const FloatWeights weights(0.0f);
    std::normal_distribution<float> normal;
    for (int layer = 1; layer < nLayers; ++layer)
        for (int j = 0; j < counts[layer]; ++j)
            for (int i = 0; i < counts[layer - 1]; ++i)
                weights.rows[layer - 1][j][i] =
                    normal(generator) / std::sqrt(static_cast<float>(counts[layer - 1]));
    return FloatNetwork(KTsInitMLPServer(weights.rows, nullptr, nullptr, counts, nullptr, nullptr,
                                         nLayers, KT_MLP_SIGMOID, nullptr));
}

/// The same network in 16 bits: one scale for all weights, the finest that holds the largest.
FixedNetwork converted(sMLPServer* network) {
    std::vector<float> row(nInputs);
    int order = -14;
    for (int layer = 1; layer < nLayers; ++layer)
        for (int j = 0; j < counts[layer]; ++j) {
            sMLPGetWeights(network, layer, j, row.data());
            order = std::max(order, KTsMaxOrder(row.data(), counts[layer - 1]));
        }
    int scale = order - 15;
    const FixedWeights weights;
    for (int layer = 1; layer < nLayers; ++layer)
        for (int j = 0; j < counts[layer]; ++j) {
            sMLPGetWeights(network, layer, j, row.data());
            KTswbConvertDown(row.data(), weights.rows[layer - 1][j], counts[layer - 1],
                             KT_FixedScale, &scale);
        }
    return FixedNetwork(KTwInitMLPServer(weights.rows, nullptr, nullptr, counts, nullptr, nullptr,
                                         nLayers, KT_MLP_SIGMOID, scale, nullptr));
}

// / A network says nothing of its shape, and one of another shape would write more outputs than
// there is room for. But the / numbers of neurons stand behind a header of known length.
void checkShape(const Stream& file, Flavour flavour) {
    const long begin = std::ftell(file);
    for (int i = 0; i < (flavour == Flavour::real ? 60 : 64); ++i)
        std::fgetc(file);
    for (const int count : counts) {
        unsigned stored = 0; // 32 bits, the lowest byte first
        for (int shift = 0; shift < 32; shift += 8)
            stored |= static_cast<unsigned>(std::fgetc(file) & 0xff) << shift;
        if (stored != static_cast<unsigned>(count)) file.damaged("network of this shape");
    }
    std::fseek(file, begin, SEEK_SET);
}

class Perceptron : public Recogniser {
public:
    std::string name() const override { return "mlp"; }
    std::string title() const override { return "multilayer perceptron"; }

    void train(const TrainingSet& training, Progress& progress) override {
        words = training.words;
        if (training.nWords() > nOutputs)
            throw Failure("the network tells at most " + std::to_string(nOutputs) + " words apart");
        std::mt19937 generator(1);
        std::vector<std::vector<float>> patterns, targets;
        for (const Utterance& utterance : training.utterances) {
            patterns.push_back(inputs(utterance.real));
            targets.emplace_back(nOutputs, 0.0f); // outputs beyond the words learn to be 0
            targets.back()[static_cast<std::size_t>(utterance.word)] = 1.0f;
        }
        // The trainer takes patterns in their order: words are to come mixed.
        std::vector<std::size_t> order(patterns.size());
        std::iota(order.begin(), order.end(), 0u);
        std::shuffle(order.begin(), order.end(), generator);
        std::vector<const float*> inputRows, targetRows;
        for (const std::size_t i : order) {
            inputRows.push_back(patterns[i].data());
            targetRows.push_back(targets[i].data());
        }
        real = randomNetwork(generator);
        if (!real) throw Failure("no network could be made: " + lastReport());
        int done = 0;
        for (const float rate : learningRates)
            for (int epoch = 0; epoch < epochs; ++epoch) {
                progress.show("training the network, epoch", done++,
                              epochs * static_cast<int>(std::size(learningRates)));
                KTsTrainMLPBackPropagation(
                    real.get(), inputRows.data(), static_cast<int>(inputRows.size()), nInputs,
                    targetRows.data(), nOutputs, rate, 1, 0.0f, 0.0f, nullptr);
            }
        fixed = converted(real.get());
        if (!fixed) throw Failure("no network could be made: " + lastReport());
    }

    Answer recognise(const Matrix<float>& features) override { return best(costs(features)); }
    Answer recognise(const Matrix<short>& features) override { return best(costs(features)); }
    std::vector<double> costs(const Matrix<float>& features) override {
        return doubts(outputs(features), 1.0);
    }
    std::vector<double> costs(const Matrix<short>& features) override {
        return doubts(outputs(features), KTPower2(activationScale));
    }

    /// One network is the model of all words.
    void save(Flavour flavour, const std::string& stem) const override {
        Stream file(stem + ".mlp", "wb");
        for (const std::string& word : words)
            file.writeWord(word);
        if (flavour == Flavour::real)
            KTsWriteMLPServer(file, real.get());
        else
            KTwWriteMLPServer(file, fixed.get());
        file.finish();
    }

    void load(Flavour flavour, const std::string& stem, const std::vector<std::string>& vocabulary,
              int) override {
        words = vocabulary;
        Stream file(stem + ".mlp", "rb");
        for (const std::string& word : words)
            file.expectWord(word);
        checkShape(file, flavour);
        if (flavour == Flavour::real)
            real.reset(KTsReadMLPServer(file));
        else
            fixed.reset(KTwReadMLPServer(file));
        if ((flavour == Flavour::real && !real) || (flavour == Flavour::fixed && !fixed))
            file.damaged("network");
        file.finish();
    }

private:
    std::vector<float> outputs(const Matrix<float>& features) const {
        std::vector<float> result(nOutputs);
        KTsEvalMLPFeedForward(real.get(), inputs(features).data(), nInputs, result.data(),
                              nOutputs);
        return result;
    }
    std::vector<short> outputs(const Matrix<short>& features) const {
        std::vector<short> result(nOutputs);
        int scale = activationScale;
        KTwEvalMLPFeedForward(fixed.get(), inputs(features).data(), nInputs, result.data(),
                              nOutputs, KT_FixedScale, &scale, activationScale);
        return result;
    }

    static Answer best(const std::vector<double>& costs) {
        const auto least = std::min_element(costs.begin(), costs.end());
        return {static_cast<int>(least - costs.begin()), *least};
    }
    template <class Value>
    std::vector<double> doubts(const std::vector<Value>& values, double factor) const {
        std::vector<double> result;
        for (std::size_t word = 0; word < words.size(); ++word)
            result.push_back(1.0 - values[word] * factor);
        return result;
    }

    FloatNetwork real;
    FixedNetwork fixed;
    std::vector<std::string> words;
};

} // namespace

std::unique_ptr<Recogniser> makePerceptron() {
    return std::make_unique<Perceptron>();
}

} // namespace words
