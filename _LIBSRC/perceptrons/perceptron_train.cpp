// Back-propagation: online gradient descent with momentum (D. Rumelhart, G. Hinton, R. Williams,
// "Learning representations by back-propagating errors", 1986). Weights change after every pattern,
// layer by layer from the output down, and each layer's deltas come from the weights above as they
// have just been changed.
#include "perceptrons/KT_PERC.h"

#include "frame/scratch.h"
#include "levels/levels.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

using namespace ktl::perc;

namespace {

constexpr char noOutputs[] = "insufficiency of memory for pointer  pY";
constexpr char noServer2[] = "insufficiency of memory for pointer  server2";
constexpr char noErrorBuffer[] = "insufficiency of memory for pointer  o";
constexpr char sparseRefused[] = "training of a sparse network is not supported";

struct FreeServer {
    sMLPServer* server;
    explicit FreeServer(sMLPServer* made) : server(made) {}
    FreeServer(const FreeServer&) = delete;
    FreeServer& operator=(const FreeServer&) = delete;
    ~FreeServer() { KTsFreeMLPServer(server); }
};

// The whole of one call.
struct Training {
    sMLPServer* server;
    sMLPServer* changes; // the previous change of each weight
    const float** ppInputs;
    const float** ppTargets;
    int nPatterns;
    // the running width: the caller's for the first pattern, the output layer's from then on
    int nInputs;
    int nOutputs;
    double learningRate;
    double momentum;
    // outputs of the weighted layers one after the other; in the backward pass their deltas
    float* pY;
    float* slopes; // derivatives of one layer
    double* sums;  // weighted deltas of one layer
};

int widthOf(const sMLPServer* server, int layer) {
    return server->playerNeuronCounts[layer];
}

// Elementwise functions take a layer in one call, others each neuron for itself.
void apply(KTMLPActivationFn function, const float* in, float* out, int n) {
    if (function == nullptr) return;
    if (isElementwise(function)) {
        function(in, out, n);
        return;
    }
    for (int j = 0; j < n; ++j)
        function(&in[j], &out[j], 1);
}

// Sets the first `count` weights of the block, the count of the live ones. Rows that have padding
// make the block longer: its tail keeps what it holds, on purpose.
void setLiveWeights(sMLPServer* server, float value) {
    std::ptrdiff_t count = 0;
    for (int l = 1; l < server->nLayers; ++l)
        count += std::ptrdiff_t(widthOf(server, l)) * widthOf(server, l - 1);
    std::fill_n(server->pppWeights[0][0], count, value);
}

double getErrSumMLPBackProp(const Training& t, float* pOutputBuffer) {
    double sum = 0.0;
    for (int p = 0; p < t.nPatterns; ++p) {
        KTsEvalMLPFeedForward(t.server, t.ppInputs[p], t.nInputs, pOutputBuffer, t.nOutputs);
        for (int k = 0; k < t.nOutputs; ++k) {
            const double difference = double(t.ppTargets[p][k]) - double(pOutputBuffer[k]);
            sum += difference * difference; // the power 2.0, exactly
        }
    }
    return sum / (2.0 * t.nPatterns);
}

// The sums of one layer. With KT_MLP_THRESHOLD the first weight of a row is its threshold and the
// first input is skipped.
void sumLayer(const sMLPServer* server, int layer, const float* x, int width, float* sums) {
    const float* const* rows = server->pppWeights[layer - 1];
    const int n = widthOf(server, layer);
    const auto rowsFloat = vsq::kernels().matvec->rowsFloat;
    if ((server->flags & KT_MLP_THRESHOLD) == 0 || widthOf(server, layer - 1) == 0) {
        rowsFloat(sums, rows, 0, x, n, width);
        return;
    }
    rowsFloat(sums, rows, 1, x + 1, n, width - 1);
    for (int j = 0; j < n; ++j)
        sums[j] -= rows[j][0];
}

// The outputs of all layers into pY.
void forward(Training& t, const float* pattern) {
    const float* x = pattern;
    float* y = t.pY;
    int width = std::clamp(t.nInputs, 0, widthOf(t.server, 0));
    for (int l = 1; l < t.server->nLayers; ++l) {
        const int n = widthOf(t.server, l);
        sumLayer(t.server, l, x, width, t.server->pNet);
        apply(t.server->ppActivation[l - 1], t.server->pNet, y, n);
        x = y;
        y += n;
        width = n;
    }
    t.nInputs = width;
}

// Changes the weights of `layer` by the deltas of its first nRows neurons; x is what the layer has
// read.
void descend(const Training& t, int layer, const float* deltas, int nRows, const float* x) {
    vsq::kernels().mlp->descend(t.server->pppWeights[layer - 1], t.changes->pppWeights[layer - 1],
                                x, deltas, t.learningRate, t.momentum, nRows,
                                widthOf(t.server, layer - 1));
}

// Outputs become deltas by the error and the derivative at the output.
void outputDeltas(const Training& t, float* outputs, const float* target) {
    apply(t.server->ppDerivative[t.server->nLayers - 2], outputs, t.slopes, t.nOutputs);
    for (int k = 0; k < t.nOutputs; ++k)
        outputs[k] = float((double(target[k]) - double(outputs[k])) * double(t.slopes[k]));
}

// Outputs of a hidden layer become deltas by those of the layer above.
void hiddenDeltas(const Training& t, int layer, float* outputs, const float* deltasAbove) {
    const int n = widthOf(t.server, layer);
    vsq::kernels().mlp->weighDeltas(t.sums, t.server->pppWeights[layer], deltasAbove,
                                    widthOf(t.server, layer + 1), n);
    apply(t.server->ppDerivative[layer - 1], outputs, t.slopes, n);
    for (int j = 0; j < n; ++j)
        outputs[j] = float(t.sums[j] * double(t.slopes[j]));
}

void trainPattern(Training& t, int pattern) {
    const float* input = t.ppInputs[pattern];
    forward(t, input);
    const int last = t.server->nLayers - 1;
    if (last < 1) return;
    float* y = t.pY; // the outputs of `last`
    for (int l = 1; l < last; ++l)
        y += widthOf(t.server, l);
    float* outputs = y + widthOf(t.server, last) - t.nOutputs;
    outputDeltas(t, outputs, t.ppTargets[pattern]);
    descend(t, last, outputs, t.nOutputs, last == 1 ? input : y - widthOf(t.server, last - 1));
    for (int l = last - 1; l >= 1; --l) {
        const float* deltasAbove = y;
        y -= widthOf(t.server, l);
        hiddenDeltas(t, l, y, deltasAbove);
        descend(t, l, y, widthOf(t.server, l), l == 1 ? input : y - widthOf(t.server, l - 1));
    }
}

// Presents the patterns in cyclic order, each epoch from one further on, until the error is small
// enough or maxEpochs are over; the number of epochs run.
int runEpochs(Training& t, int maxEpochs, double errorThreshold, float* pOutputBuffer) {
    int epoch = 0, start = 0;
    while (epoch < maxEpochs) {
        const double error = getErrSumMLPBackProp(t, pOutputBuffer);
        if (error < errorThreshold || std::abs(error - errorThreshold) < 1e-9) break;
        if (start == t.nPatterns) start = 0;
        for (int p = 0; p < t.nPatterns; ++p)
            trainPattern(t, p < t.nPatterns - start ? start + p : p - (t.nPatterns - start));
        ++epoch;
        ++start;
    }
    return epoch;
}

sMLPServer* makeChanges(const sMLPServer* server) {
    return KTsInitMLPServer(server->pppWeights, server->pppConnections, server->ppConnCounts,
                            server->playerNeuronCounts, server->ppActivation, server->ppDerivative,
                            server->nLayers, 0, nullptr);
}

} // namespace

void KTsTrainMLPBackPropagation(sMLPServer* pServer, const float** ppInputs, int nPatterns,
                                int nInputs, const float** ppTargets, int nOutputs,
                                float learningRate, int maxEpochs, float errorThreshold,
                                float momentum, int* pEpochs) {
    if (pServer == nullptr) return;
    if (pServer->ppConnCounts != nullptr) {
        module.report(KT_StsUnsupported, sparseRefused);
        return;
    }
    // Outputs beyond the last layer have no weights, and neither the error nor the deltas look at
    // them.
    const int lastWidth = widthOf(pServer, pServer->nLayers - 1);
    const int outputs = pServer->nLayers < 2 ? 0 : std::clamp(nOutputs, 0, lastWidth);
    const std::ptrdiff_t neurons = neuronCount(pServer->playerNeuronCounts, pServer->nLayers);
    ktl::AlignedScratch<float> pY(neurons + pServer->nBufLen);
    ktl::AlignedScratch<double> sums(pServer->nBufLen);
    if (!pY || !sums) {
        module.report(KT_StsNoMem, noOutputs);
        return;
    }
    const FreeServer server2(makeChanges(pServer));
    if (server2.server == nullptr) {
        module.report(KT_StsNoMem, noServer2);
        return;
    }
    setLiveWeights(server2.server, 0.0f);
    // what a layer without a function keeps
    std::fill_n(pY.get(), neurons + pServer->nBufLen, 0.0f);
    ktl::AlignedScratch<float> o(lastWidth);
    if (!o) {
        module.report(KT_StsNoMem, noErrorBuffer, "getErrSumMLPBackProp");
        return;
    }
    std::fill_n(o.get(), lastWidth, 0.0f);
    Training training{
        pServer, server2.server,       ppInputs,         ppTargets, nPatterns,          nInputs,
        outputs, double(learningRate), double(momentum), pY.get(),  pY.get() + neurons, sums.get()};
    const int epochs = runEpochs(training, maxEpochs, double(errorThreshold), o.get());
    if (pEpochs != nullptr) *pEpochs = epochs;
}
