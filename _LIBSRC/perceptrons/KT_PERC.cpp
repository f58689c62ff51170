// Servers and weights tables of multilayer perceptrons.
#include "perceptrons/KT_PERC.h"

#include "frame/scratch.h"

#include <algorithm>
#include <cstring>

namespace ktl::perc {
namespace {

constexpr char noFunctions[] = "can't define type of activation and derivative function to use";
constexpr char badConnections[] = "bad connections of a sparse network";

// Counts of elements stay below this: a quarter of the address space in elements of 8 bytes, so
// that sizes in bytes and sums of two counts cannot overflow.
constexpr std::int64_t mostElements = PTRDIFF_MAX / 32;

// total + a * b, or -1.
std::int64_t addProduct(std::int64_t total, std::int64_t a, std::int64_t b) {
    if (total < 0 || a < 0 || b < 0) return -1;
    if (a != 0 && b > (mostElements - total) / a) return -1;
    return total + a * b;
}

// Elements of a sparse weight block; -1 as for the dense one.
std::int64_t connectionCount(const int* pCounts, const int* const* ppConnCounts, int nLayers) {
    std::int64_t total = 0;
    for (int l = 1; l < nLayers; ++l)
        for (int j = 0; j < pCounts[l]; ++j)
            total = addProduct(total, ppConnCounts[l - 1][j], 1);
    return total;
}

// --- tables of rows over one block ---

// The address of the block of a table: that of its first row. A table always has a first row, even
// one of a network without neurons.
template <class T>
T* blockOf(T*** ppp) {
    return ppp[0][0];
}

// The pointer array of a table: nLayers - 1 layer pointers into its own tail, where the row
// pointers of all layers lie one layer after the other. Entries after what the layers need keep
// blockOf right where there is no layer or no neuron.
template <class T>
T*** allocPointers(const int* pCounts, int nLayers) {
    const std::ptrdiff_t neurons = neuronCount(pCounts, nLayers);
    if (neurons < 0) return nullptr;
    const std::size_t entries = std::size_t(neurons) + std::size_t(std::max(nLayers - 1, 1)) + 1;
    return zeroed<T**>(entries);
}

// Sets the layer and row pointers of a table to the rows of `block`; widthOf(l, j) is the stride of
// a row.
template <class T, class Width>
void layRows(T*** ppp, T* block, const int* pCounts, int nLayers, const Width& widthOf) {
    T** rows = reinterpret_cast<T**>(ppp + std::max(nLayers - 1, 1));
    ppp[0] = rows;
    *rows = block;
    for (int l = 1; l < nLayers; ++l) {
        ppp[l - 1] = rows;
        for (int j = 0; j < pCounts[l]; ++j, ++rows) {
            *rows = block;
            block += widthOf(l, j);
        }
    }
}

template <class T>
void freeTable(T*** ppp) {
    if (ppp == nullptr) return;
    if (ppp[0] != nullptr) vsq::freeAligned(blockOf(ppp));
    std::free(ppp);
}

// A table of rows of `count` elements in all, not set, or null.
template <class T, class Width>
T*** allocTable(const int* pCounts, int nLayers, std::int64_t count, const Width& widthOf) {
    T*** ppp = count < 0 ? nullptr : allocPointers<T>(pCounts, nLayers);
    if (ppp == nullptr) return nullptr;
    AlignedScratch<T> block(std::ptrdiff_t(count) +
                            3); // room for whole groups of four from the last element on
    if (!block) {
        std::free(ppp);
        return nullptr;
    }
    layRows(ppp, block.take(), pCounts, nLayers, widthOf);
    return ppp;
}

template <class T>
T*** allocDenseTable(const int* pCounts, int nLayers) {
    return allocTable<T>(pCounts, nLayers, paddedWeightCount(pCounts, nLayers),
                         [=](int l, int) { return paddedRow(pCounts[l - 1]); });
}

// --- construction ---

template <class T>
using Server = typename Form<T>::Server;

template <class T>
void freeServer(Server<T>* server) {
    if (server == nullptr) return;
    freeTable(server->pppWeights);
    freeTable(server->pppConnections);
    std::free(server->ppConnCounts);
    std::free(server->playerNeuronCounts);
    vsq::freeAligned(server->pNet);
    vsq::freeAligned(server->pLayerOut);
    std::free(server->ppActivation);
    std::free(server->ppDerivative);
    std::free(server);
}

// A copy of the rows of a dense network. Padding that is not copied becomes 0, so that nothing of
// other memory gets into files.
template <class T>
T*** copyDenseRows(const Network<T>& network) {
    T*** ppp = allocDenseTable<T>(network.pCounts, network.nLayers);
    if (ppp == nullptr) return nullptr;
    for (int l = 1; l < network.nLayers; ++l) {
        const int live = network.pCounts[l - 1];
        const std::int64_t stride = paddedRow(live), copied = network.wholeRows ? stride : live;
        for (int j = 0; j < network.pCounts[l]; ++j) {
            T* row = std::copy_n(network.pppWeights[l - 1][j], copied, ppp[l - 1][j]);
            std::fill_n(row, stride - copied, T(0));
        }
    }
    return ppp;
}

// A copy of packed rows, of weights or of connections.
template <class T, class Source>
Source*** copyPackedRows(const Network<T>& network, Source*** source) {
    const int* const* counts = network.ppConnCounts;
    Source*** ppp = allocTable<Source>(network.pCounts, network.nLayers,
                                       connectionCount(network.pCounts, counts, network.nLayers),
                                       [=](int l, int j) { return counts[l - 1][j]; });
    if (ppp == nullptr) return nullptr;
    for (int l = 1; l < network.nLayers; ++l)
        for (int j = 0; j < network.pCounts[l]; ++j)
            std::copy_n(source[l - 1][j], counts[l - 1][j], ppp[l - 1][j]);
    return ppp;
}

// A copy of the counts of connections: nLayers - 1 row pointers, and the rows after them, in one
// block.
template <class T>
int** copyConnCounts(const Network<T>& network) {
    const std::size_t layers = std::size_t(network.nLayers - 1);
    const std::size_t neurons = std::size_t(neuronCount(network.pCounts, network.nLayers));
    auto** counts =
        static_cast<int**>(std::malloc(layers * sizeof(int*) + neurons * sizeof(int) + 1));
    if (counts == nullptr) return nullptr;
    int* row = reinterpret_cast<int*>(counts + layers);
    for (int l = 1; l < network.nLayers; ++l) {
        counts[l - 1] = row;
        row = std::copy_n(network.ppConnCounts[l - 1], network.pCounts[l], row);
    }
    return counts;
}

// Whether every connection leads to an output of the layer before.
template <class T>
bool connectionsHold(const Network<T>& network) {
    if (network.pppConnections == nullptr) return false;
    for (int l = 1; l < network.nLayers; ++l)
        for (int j = 0; j < network.pCounts[l]; ++j)
            for (int i = 0; i < network.ppConnCounts[l - 1][j]; ++i) {
                const int index = network.pppConnections[l - 1][j][i];
                if (index < 0 || index >= network.pCounts[l - 1]) return false;
            }
    return true;
}

template <class T>
bool copyNetwork(Server<T>* server, const Network<T>& network) {
    if (network.ppConnCounts == nullptr) {
        server->pppWeights = copyDenseRows(network);
        return server->pppWeights != nullptr;
    }
    server->pppWeights = copyPackedRows(network, network.pppWeights);
    if (server->pppWeights == nullptr) return false;
    server->pppConnections = copyPackedRows(network, network.pppConnections);
    if (server->pppConnections == nullptr) return false;
    server->ppConnCounts = copyConnCounts(network);
    return server->ppConnCounts != nullptr;
}

// A buffer of zeros, or null.
template <class T>
T* allocBuffer(int n) {
    AlignedScratch<T> buffer(n);
    if (buffer) std::fill_n(buffer.get(), n, T(0));
    return buffer.take();
}

// The neuron counts and the two buffers. That the second buffer could not be had goes unnoticed
// here; evaluation looks.
template <class T>
bool makeLayers(Server<T>* server, const Network<T>& network) {
    server->playerNeuronCounts = allocPlain<int>(network.nLayers);
    if (server->playerNeuronCounts == nullptr) return false;
    std::copy_n(network.pCounts, network.nLayers, server->playerNeuronCounts);
    const int widest = *std::max_element(network.pCounts, network.pCounts + network.nLayers);
    if (widest > INT32_MAX - 3) return false;
    server->nBufLen = widest + 3;
    server->pNet = allocBuffer<typename Form<T>::Sum>(server->nBufLen);
    if (server->pNet == nullptr) return false;
    server->pLayerOut = allocBuffer<T>(server->nBufLen);
    server->nLayers = network.nLayers;
    server->flags = std::uint32_t(network.flags);
    return true;
}

template <class T>
bool allocFunctions(Server<T>* server) {
    using Function = typename Form<T>::Function;
    server->ppActivation = allocPlain<Function>(server->nLayers - 1);
    if (server->ppActivation == nullptr) return false;
    server->ppDerivative = allocPlain<Function>(server->nLayers - 1);
    return server->ppDerivative != nullptr;
}

template <class Function>
struct Pair {
    Function activation, derivative;
};
constexpr Pair<KTMLPActivationFn> sigmoidPair(float) {
    return {KTsSigmoidActivation, KTsSigmoidDerivative};
}
constexpr Pair<KTMLPFixedActivationFn> sigmoidPair(short) {
    return {KTwSigmoidActivation, KTwSigmoidDerivative};
}
constexpr Pair<KTMLPActivationFn> absPair(float) {
    return {KTsAbsActivation, KTsAbsDerivative};
}
constexpr Pair<KTMLPFixedActivationFn> absPair(short) {
    return {KTwAbsActivation, KTwAbsDerivative};
}

// One pair on every layer, or the caller's functions; false when there are none.
template <class T>
bool chooseFunctions(Server<T>* server, const Network<T>& network) {
    const int layers = server->nLayers - 1;
    if ((network.flags & (KT_MLP_SIGMOID | KT_MLP_ABS)) != 0) {
        const auto pair = (network.flags & KT_MLP_SIGMOID) != 0 ? sigmoidPair(T()) : absPair(T());
        std::fill_n(server->ppActivation, layers, pair.activation);
        std::fill_n(server->ppDerivative, layers, pair.derivative);
        return true;
    }
    if (network.pActivation == nullptr || network.pDerivative == nullptr) return false;
    std::copy_n(network.pActivation, layers, server->ppActivation);
    std::copy_n(network.pDerivative, layers, server->ppDerivative);
    return true;
}

template <class T>
Server<T>* refuse(Server<T>* server, int status, const char* message, const char* funcName) {
    freeServer<T>(server);
    module.report(status, message, funcName);
    return nullptr;
}

template <class T>
Server<T>* makeServer(const Network<T>& network, const char* funcName) {
    auto* server = zeroed<Server<T>>();
    if (server == nullptr)
        return refuse<T>(server, KT_StsNoMem, "insufficiency of memory for pointer  pMLPserver",
                         funcName);
    if (neuronCount(network.pCounts, network.nLayers) < 0)
        return refuse<T>(server, KT_StsNoMem, noMemory, funcName);
    if (network.ppConnCounts != nullptr && !connectionsHold(network))
        return refuse<T>(server, KT_StsBadArg, badConnections, funcName);
    if (!copyNetwork<T>(server, network) || !makeLayers<T>(server, network) ||
        !allocFunctions<T>(server))
        return refuse<T>(server, KT_StsNoMem, noMemory, funcName);
    if (!chooseFunctions<T>(server, network))
        return refuse<T>(server, KT_StsBadArg, noFunctions, funcName);
    server->pThresholds = network.pThresholds;
    std::memcpy(server->identifier, Form<T>::identifier, sizeof Form<T>::identifier);
    return server;
}

// --- weights tables ---

template <class T>
T*** setWeightsTable(const int* pCounts, int nLayers, T value, const char* funcName) {
    T*** ppp = allocDenseTable<T>(pCounts, nLayers);
    if (ppp == nullptr) {
        module.report(KT_StsNoMem, noMemory, funcName);
        return nullptr;
    }
    std::fill_n(blockOf(ppp), paddedWeightCount(pCounts, nLayers), value);
    return ppp;
}

// The row of one neuron of a dense server, or null where there is none.
float* rowOf(const sMLPServer* server, int layer, int neuron) {
    if (server == nullptr || server->ppConnCounts != nullptr || layer < 1 ||
        layer >= server->nLayers)
        return nullptr;
    if (neuron < 0 || neuron >= server->playerNeuronCounts[layer]) return nullptr;
    return server->pppWeights[layer - 1][neuron];
}

} // namespace

std::ptrdiff_t neuronCount(const int* pCounts, int nLayers) {
    if (nLayers < 1 || pCounts[0] < 0) return -1;
    std::int64_t total = 0;
    for (int l = 1; l < nLayers; ++l)
        total = addProduct(total, pCounts[l], 1);
    return std::ptrdiff_t(total);
}

std::ptrdiff_t paddedWeightCount(const int* pCounts, int nLayers) {
    if (nLayers < 1 || pCounts[0] < 0) return -1;
    std::int64_t total = 0;
    for (int l = 1; l < nLayers; ++l)
        total = addProduct(total, pCounts[l - 1] < 0 ? -1 : paddedRow(pCounts[l - 1]), pCounts[l]);
    return std::ptrdiff_t(total);
}

sMLPServer* initServer(const Network<float>& network, const char* funcName) {
    return makeServer(network, funcName);
}

wMLPServer* initServer(const Network<short>& network, int weightScale, const char* funcName) {
    wMLPServer* server = makeServer(network, funcName);
    if (server != nullptr) server->weightScale = weightScale;
    return server;
}

} // namespace ktl::perc

using namespace ktl::perc;

sMLPServer* KTsInitMLPServer(float*** pppWeights, int*** pppConnections, int** ppConnCounts,
                             const int* pCounts, const KTMLPActivationFn* pActivation,
                             const KTMLPActivationFn* pDerivative, int nLayers, int flags,
                             const float* pThresholds) {
    return initServer({pppWeights, pppConnections, ppConnCounts, pCounts, pActivation, pDerivative,
                       nLayers, flags, pThresholds, false},
                      "KTsInitMLPServer");
}

wMLPServer* KTwInitMLPServer(short*** pppWeights, int*** pppConnections, int** ppConnCounts,
                             const int* pCounts, const KTMLPFixedActivationFn* pActivation,
                             const KTMLPFixedActivationFn* pDerivative, int nLayers, int flags,
                             int weightScale, const short* pThresholds) {
    return initServer({pppWeights, pppConnections, ppConnCounts, pCounts, pActivation, pDerivative,
                       nLayers, flags, pThresholds, false},
                      weightScale, "KTwInitMLPServer");
}

void KTsFreeMLPServer(sMLPServer* pServer) {
    freeServer<float>(pServer);
}
void KTwFreeMLPServer(wMLPServer* pServer) {
    freeServer<short>(pServer);
}

float*** KTsSetWeightsStr(const int* pCounts, int nLayers, float value) {
    return setWeightsTable(pCounts, nLayers, value, "KTsSetWeightsStr");
}
short*** KTwSetWeightsStr(const int* pCounts, int nLayers, short value) {
    return setWeightsTable(pCounts, nLayers, value, "KTwSetWeightsStr");
}

void KTsFreeWeightsStr(float*** ppp) {
    freeTable(ppp);
}
void KTwFreeWeightsStr(short*** ppp) {
    freeTable(ppp);
}

void sMLPGetWeights(sMLPServer* pServer, int layer, int neuron, float* pDest) {
    const float* row = rowOf(pServer, layer, neuron);
    if (row != nullptr) std::copy_n(row, pServer->playerNeuronCounts[layer - 1], pDest);
}

void sMLPSetWeights(sMLPServer* pServer, int layer, int neuron, const float* pSrc) {
    float* row = rowOf(pServer, layer, neuron);
    if (row != nullptr) std::copy_n(pSrc, pServer->playerNeuronCounts[layer - 1], row);
}
