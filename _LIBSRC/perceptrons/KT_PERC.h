// Multilayer perceptrons: the server's record and what the KT_PERC modules share.
#pragma once

#include "frame/KT_ERROR.h"
#include "frame/numeric.h"

#include <cstddef>
#include <cstdint>

// One network with float weights. nLayers counts the input layer; tables of layers are indexed by l
// - 1 with l from 1 on, playerNeuronCounts by l. Everything but the thresholds is the server's.
struct sMLPServer {
    char identifier[12]; // "sMLPServer"; the file reader looks at it
    // [l - 1][j]: the row of neuron j of layer l; see ktl::perc::WeightTable
    float*** pppWeights;
    const float* pThresholds; // the caller's: one per neuron of all weighted layers; may be null
    std::uint32_t flags;
    // sparse servers: [l - 1][j][i] is an index into the outputs of layer l - 1; else null
    int*** pppConnections;
    int** ppConnCounts; // [l - 1][j]: inputs of neuron j; not null marks a sparse server
    int* playerNeuronCounts;
    int nLayers;
    KTMLPActivationFn* ppActivation;
    KTMLPActivationFn* ppDerivative;
    float* pNet;      // net sums of one layer
    float* pLayerOut; // outputs of the layer computed last; null when there was no memory for it
    int nBufLen;      // elements of both: the widest layer and 3
};

// The same with 16-bit weights.
struct wMLPServer {
    char identifier[12]; // "wMLPServer"
    short*** pppWeights;
    const short* pThresholds;
    std::uint32_t flags;
    int*** pppConnections;
    int** ppConnCounts;
    int* playerNeuronCounts;
    int nLayers;
    KTMLPFixedActivationFn* ppActivation;
    KTMLPFixedActivationFn* ppDerivative;
    int weightScale; // a weight is stored * 2^weightScale
    int* pNet;
    short* pLayerOut;
    int nBufLen;
};

static_assert(sizeof(void*) != 4 || sizeof(sMLPServer) == 60, "the record of a 32-bit build");
static_assert(sizeof(void*) != 4 || sizeof(wMLPServer) == 64, "the record of a 32-bit build");

namespace ktl::perc {

inline constexpr Module module{"..\\_LIBSRC\\KT_PERC"};

inline constexpr char noMemory[] = "nomemory";

// What depends on the numeric form alone; T is the type of a weight.
template <class T>
struct Form;
template <>
struct Form<float> : FloatForm {
    using Server = sMLPServer;
    using Function = KTMLPActivationFn;
    static constexpr char identifier[] = "sMLPServer";
};
template <>
struct Form<short> : FixedForm {
    using Server = wMLPServer;
    using Function = KTMLPFixedActivationFn;
    static constexpr char identifier[] = "wMLPServer";
};

// The length of a weight row of a dense server: n live weights and up to 3 of padding.
constexpr std::int64_t paddedRow(int n) {
    return roundUp(std::int64_t(n), 4);
}

// Neurons of all weighted layers; -1 when a count is negative, nLayers is below 1, or memory could
// not hold them.
std::ptrdiff_t neuronCount(const int* pCounts, int nLayers);

// Elements of a dense weight block; -1 as above.
std::ptrdiff_t paddedWeightCount(const int* pCounts, int nLayers);

// What a constructor is given. The rows are copied; wholeRows says that they have padding, which is
// copied with them.
template <class T>
struct Network {
    T*** pppWeights;
    int*** pppConnections;
    int** ppConnCounts;
    const int* pCounts;
    const typename Form<T>::Function* pActivation;
    const typename Form<T>::Function* pDerivative;
    int nLayers;
    int flags;
    const T* pThresholds;
    bool wholeRows;
};

// What the exported constructors call; reports carry `funcName`.
sMLPServer* initServer(const Network<float>& network, const char* funcName);
wMLPServer* initServer(const Network<short>& network, int weightScale, const char* funcName);

// The same function for every element: such a function may be called once for a whole layer where
// user functions are called neuron by neuron.
bool isElementwise(KTMLPActivationFn function);

// The sums of the fixed form: pDest[r] = sum over c below nCols of (ppRows[r][c] * pX[c]) >>
// (shift modulo 32), each product shifted before it is added, in 32 bits that wrap.
void rowSums(int* pDest, const short* const* ppRows, const short* pX, int nRows, int nCols,
             int shift);

// The outputs of the last layer, on the scale `scale`, as KTwEvalMLPFeedForward returns them;
// pScaleFactor is not null.
void scaleOutput(const short* pSrc, short* pDst, int n, int scale, int scaleMode,
                 int* pScaleFactor);

} // namespace ktl::perc
