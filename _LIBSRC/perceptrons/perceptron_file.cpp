// Multilayer perceptrons on streams: the image of the record in a 32-bit build, the neuron counts
// and the weight block with its padding, all little-endian. Pointers are written as 0 and not
// looked at.
#include "perceptrons/KT_PERC.h"

#include "frame/scratch.h"
#include "frame/stream.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <type_traits>

namespace ktl::perc {
namespace {

constexpr char ioError[] = "input_output_error";
constexpr char noCounts[] = "insufficiency of memory for pointer  pMLPServer0. playerNeuronCounts";
constexpr char sparseRefused[] = "a sparse network cannot be written";

// The words of the record after its identifier. Those after the two function tables stand one
// further on in the fixed form, which has a scale there; the last one is the buffers' length.
enum Word { wordFlags = 2, wordLayers = 6, wordWeightScale = 9 };
template <class T>
constexpr std::size_t wordCount = std::is_same_v<T, float> ? 12 : 13;

template <class T>
struct Header {
    char identifier[12];
    Words<wordCount<T>> words;
};

// A network file may claim any sizes. Rows and inputs that no stored weight stands for are limited
// to this number.
constexpr std::int64_t mostWithoutWeights = 65536;

template <class T>
using Server = typename Form<T>::Server;

// --- writing ---

template <class T>
bool writeHeader(FILE* stream, const Server<T>* server) {
    Words<wordCount<T>> words{};
    words[wordFlags] = server->flags;
    words[wordLayers] = unsigned(server->nLayers);
    if constexpr (std::is_same_v<T, short>) words[wordWeightScale] = unsigned(server->weightScale);
    words.back() = unsigned(server->nBufLen);
    return writeTag(stream, server->identifier) && writeWords(stream, words);
}

template <class T>
void writeServer(FILE* stream, const Server<T>* server, const char* funcName) {
    if (stream == nullptr || server == nullptr) return;
    if (server->ppConnCounts != nullptr) {
        module.report(KT_StsUnsupported, sparseRefused, funcName);
        return;
    }
    if (!writeHeader<T>(stream, server) ||
        !writeElements(stream, server->playerNeuronCounts, std::size_t(server->nLayers))) {
        module.report(KT_StsNoMem, ioError, funcName);
        return;
    }
    const std::ptrdiff_t weights = paddedWeightCount(server->playerNeuronCounts, server->nLayers);
    if (!writeElements(stream, server->pppWeights[0][0], std::size_t(weights)))
        module.report(KT_StsBadState, ioError, funcName);
}

// --- reading ---

float*** makeTable(const int* pCounts, int nLayers, float) {
    return KTsSetWeightsStr(pCounts, nLayers, 0.0f);
}
short*** makeTable(const int* pCounts, int nLayers, short) {
    return KTwSetWeightsStr(pCounts, nLayers, 0);
}
void freeTable(float*** ppp) {
    KTsFreeWeightsStr(ppp);
}
void freeTable(short*** ppp) {
    KTwFreeWeightsStr(ppp);
}

// Whether the weights account for the neurons that the counts claim.
bool plausible(const int* pCounts, int nLayers, std::int64_t weights) {
    const std::int64_t most = weights + mostWithoutWeights;
    return neuronCount(pCounts, nLayers) <= most && pCounts[0] <= most;
}

// The weights table with the stream's block in it; has reported when it is null.
template <class T>
T*** readTable(FILE* stream, const int* pCounts, int nLayers, const char* funcName) {
    const std::ptrdiff_t count = paddedWeightCount(pCounts, nLayers);
    Scratch<T> block;
    const bool sized = count >= 0 && plausible(pCounts, nLayers, count);
    const Arrival arrival =
        sized ? readClaimed(stream, std::uint64_t(count), block) : Arrival::noMemory;
    if (arrival == Arrival::streamEnded) {
        module.report(KT_StsBadState, ioError, funcName);
        return nullptr;
    }
    T*** ppp = arrival == Arrival::complete ? makeTable(pCounts, nLayers, T(0)) : nullptr;
    if (ppp == nullptr)
        module.report(KT_StsNoMem, noMemory, funcName);
    else
        std::copy_n(block.get(), count, ppp[0][0]);
    return ppp;
}

sMLPServer* construct(const Network<float>& network, const Header<float>&) {
    return initServer(network, "KTsInitMLPServer");
}
wMLPServer* construct(const Network<short>& network, const Header<short>& header) {
    return initServer(network, int(header.words[wordWeightScale]), "KTwInitMLPServer");
}

// The identifier is looked at when the whole record is there.
template <class T>
bool readHeader(FILE* stream, Header<T>& header) {
    return readElements(stream, header.identifier, sizeof header.identifier) &&
           readWords(stream, header.words);
}

template <class T>
Server<T>* readServer(FILE* stream, const char* badIdentifier, const char* funcName) {
    Header<T> header;
    if (stream == nullptr || !readHeader(stream, header)) return nullptr;
    if (std::memcmp(header.identifier, Form<T>::identifier, sizeof Form<T>::identifier) != 0) {
        module.report(KT_StsBadArg, badIdentifier, funcName);
        return nullptr;
    }
    const int nLayers = int(header.words[wordLayers]);
    Scratch<int> counts;
    const Arrival arrival =
        nLayers < 0 ? Arrival::noMemory : readClaimed(stream, std::uint64_t(nLayers), counts);
    if (arrival != Arrival::complete) {
        module.report(KT_StsNoMem, arrival == Arrival::noMemory ? noCounts : noMemory, funcName);
        return nullptr;
    }
    T*** ppp = readTable<T>(stream, counts.get(), nLayers, funcName);
    if (ppp == nullptr) return nullptr;
    Server<T>* server = construct(Network<T>{ppp, nullptr, nullptr, counts.get(), nullptr, nullptr,
                                             nLayers, int(header.words[wordFlags]), nullptr, true},
                                  header);
    freeTable(ppp);
    return server;
}

} // namespace
} // namespace ktl::perc

using namespace ktl::perc;

void KTsWriteMLPServer(FILE* stream, sMLPServer* pServer) {
    writeServer<float>(stream, pServer, "KTsWriteMLPServer");
}
void KTwWriteMLPServer(FILE* stream, wMLPServer* pServer) {
    writeServer<short>(stream, pServer, "KTwWriteMLPServer");
}

sMLPServer* KTsReadMLPServer(FILE* stream) {
    return readServer<float>(stream, "Bad sMLPServer identifier", "KTsReadMLPServer");
}
wMLPServer* KTwReadMLPServer(FILE* stream) {
    return readServer<short>(stream, "Bad wMLPServer identifier", "KTwReadMLPServer");
}
