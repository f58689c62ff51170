// Feed-forward evaluation of multilayer perceptrons.
#include "perceptrons/KT_PERC.h"

#include "frame/row_products.h"
#include "frame/scratch.h"
#include "levels/levels.h"

#include <algorithm>
#include <cstdint>

using namespace ktl::perc;

namespace {

constexpr char noOutput[] = "insufficiency of memory for pointer  outputPtr";

// The inputs that are there: what a caller passes beyond the input layer has no weights.
template <class Server>
int inputWidth(const Server* server, int nInputs) {
    return std::clamp(nInputs, 0, server->playerNeuronCounts[0]);
}

template <class Server>
bool usesThresholds(const Server* server) {
    return (server->flags & KT_MLP_THRESHOLD) != 0 && server->pThresholds != nullptr;
}

// --- float ---

void evalDense(sMLPServer* server, const float* pInput, int nInputs, float* pOutput) {
    int width = inputWidth(server, nInputs);
    std::copy_n(pInput, width, server->pLayerOut);
    const float* thresholds = server->pThresholds;
    const float* x = pInput;
    const int last = server->nLayers - 1;
    for (int l = 1; l <= last; ++l) {
        const int n = server->playerNeuronCounts[l];
        float* dst = l == last ? pOutput : server->pLayerOut;
        ktl::rowProducts(server->pNet, server->pppWeights[l - 1], x, n, width);
        if (usesThresholds(server))
            for (int j = 0; j < n; ++j)
                server->pNet[j] -= *thresholds++;
        const KTMLPActivationFn activate = server->ppActivation[l - 1];
        if (activate != nullptr) activate(server->pNet, dst, n);
        x = server->pLayerOut;
        width = n;
    }
}

// The inputs of one neuron are gathered, and summed as a dense row is; a network described both
// ways scores the same.
float sparseSum(const float* row, const int* connections, int count, const float* x,
                float* gathered) {
    for (int i = 0; i < count; ++i)
        gathered[i] = x[connections[i]];
    float sum;
    ktl::rowProducts(&sum, &row, gathered, 1, count);
    return sum;
}

// The most connections of one neuron.
int widestNeuron(const sMLPServer* server) {
    int widest = 0;
    for (int l = 1; l < server->nLayers; ++l)
        for (int j = 0; j < server->playerNeuronCounts[l]; ++j)
            widest = std::max(widest, server->ppConnCounts[l - 1][j]);
    return widest;
}

void evalSparseLayer(const sMLPServer* server, int l, const float* x, float* gathered, float* y) {
    const KTMLPActivationFn activate = server->ppActivation[l - 1];
    for (int j = 0; j < server->playerNeuronCounts[l]; ++j) {
        const float sum = sparseSum(server->pppWeights[l - 1][j], server->pppConnections[l - 1][j],
                                    server->ppConnCounts[l - 1][j], x, gathered);
        if (activate != nullptr) activate(&sum, &y[j], 1);
    }
}

// Inputs that the caller does not pass count as 0, as they do in the dense form.
void evalSparse(sMLPServer* server, const float* pInput, int nInputs, float* pOutput) {
    const int width = inputWidth(server, nInputs), last = server->nLayers - 1;
    std::fill(std::copy_n(pInput, width, server->pLayerOut), server->pLayerOut + server->nBufLen,
              0.0f);
    ktl::Scratch<float> gathered(widestNeuron(server)), x;
    bool exhausted = !gathered;
    for (int l = 1; l <= last && !exhausted; ++l) {
        const int n = server->playerNeuronCounts[l];
        ktl::Scratch<float> y(n);
        exhausted = !y;
        if (exhausted) break;
        std::fill_n(y.get(), n, 0.0f);
        evalSparseLayer(server, l, l == 1 ? server->pLayerOut : x.get(), gathered.get(), y.get());
        x = std::move(y);
        if (l == last && server->ppActivation[l - 1] != nullptr) std::copy_n(x.get(), n, pOutput);
    }
    if (exhausted) module.report(KT_StsNoMem, noOutput, "KTsEvalMLPFeedForward");
}

// --- fixed ---

// value * 2^shift in 32 bits: to the left it wraps, to the right it is cut off.
int shifted(int value, long long shift) {
    if (shift < 0) return value >> std::min(-shift, 31LL);
    return shift > 31 ? 0 : int(unsigned(value) << shift);
}

// Thresholds have the scale of the weights, sums that of the activations; differences wrap.
void subtractThresholds(int* pNet, const short* thresholds, int n, long long shift) {
    for (int j = 0; j < n; ++j)
        pNet[j] = int(unsigned(pNet[j]) - unsigned(shifted(thresholds[j], shift)));
}

void sumSparse(const wMLPServer* server, int l) {
    const int shift = int((0u - unsigned(server->weightScale)) & 31);
    for (int j = 0; j < server->playerNeuronCounts[l]; ++j) {
        const short* row = server->pppWeights[l - 1][j];
        const int* connections = server->pppConnections[l - 1][j];
        unsigned sum = 0;
        for (int i = 0; i < server->ppConnCounts[l - 1][j]; ++i)
            sum += unsigned((server->pLayerOut[connections[i]] * row[i]) >> shift);
        server->pNet[j] = int(sum);
    }
}

// The sums of one layer into pNet.
void sumLayer(wMLPServer* server, int l, int width, const short* thresholds, int actScale) {
    const int n = server->playerNeuronCounts[l];
    if (server->ppConnCounts != nullptr) {
        sumSparse(server, l);
        return;
    }
    ktl::perc::rowSums(server->pNet, server->pppWeights[l - 1], server->pLayerOut, n, width,
                       int(0u - unsigned(server->weightScale)));
    if (usesThresholds(server))
        subtractThresholds(server->pNet, thresholds, n, (long long)server->weightScale - actScale);
}

// One output by mode 1, whose shift is the difference of two scales.
short shiftedOutput(short value, long long shift) {
    return short(shifted(value, shift));
}

} // namespace

void ktl::perc::rowSums(int* pDest, const short* const* ppRows, const short* pX, int nRows,
                        int nCols, int shift) {
    vsq::kernels().matvec->rowsFixed(pDest, ppRows, pX, nRows, nCols, shift);
}

void ktl::perc::scaleOutput(const short* pSrc, short* pDst, int n, int scale, int scaleMode,
                            int* pScaleFactor) {
    long long shift = 0; // to the left
    if (scaleMode == KT_FixedScale)
        shift = (long long)scale - *pScaleFactor;
    else if (scaleMode == KT_NoScale)
        // a negative scale is not negated
        shift = scale > 0 ? -(long long)scale : int(unsigned(scale) & 31);
    if (scaleMode != KT_FixedScale) *pScaleFactor = 0;
    for (int i = 0; i < n; ++i)
        pDst[i] = shiftedOutput(pSrc[i], shift);
}

void KTsEvalMLPFeedForward(sMLPServer* pServer, const float* pInput, int nInputs, float* pOutput,
                           int) {
    if (pServer == nullptr || pServer->pLayerOut == nullptr) return;
    if (pServer->ppConnCounts == nullptr)
        evalDense(pServer, pInput, nInputs, pOutput);
    else
        evalSparse(pServer, pInput, nInputs, pOutput);
}

void KTwEvalMLPFeedForward(wMLPServer* pServer, const short* pInput, int nInputs, short* pOutput,
                           int nOutputs, int scaleMode, int* pScaleFactor, int actScale) {
    if (pServer == nullptr || pServer->pLayerOut == nullptr) return;
    const ktl::CallScale callScale(pScaleFactor);
    int width = inputWidth(pServer, nInputs);
    std::copy_n(pInput, width, pServer->pLayerOut);
    if (pServer->ppConnCounts != nullptr)
        std::fill(pServer->pLayerOut + width, pServer->pLayerOut + pServer->nBufLen, short(0));
    const short* thresholds = pServer->pThresholds;
    for (int l = 1; l < pServer->nLayers; ++l) {
        const int n = pServer->playerNeuronCounts[l];
        sumLayer(pServer, l, width, thresholds, actScale);
        const KTMLPFixedActivationFn activate = pServer->ppActivation[l - 1];
        if (activate != nullptr)
            activate(pServer->pNet, pServer->pLayerOut, n, int(0u - unsigned(actScale)), actScale);
        if (thresholds != nullptr) thresholds += n;
        width = n;
    }
    ktl::perc::scaleOutput(pServer->pLayerOut, pOutput, std::min(nOutputs, pServer->nBufLen),
                           actScale, scaleMode, callScale.get());
}
