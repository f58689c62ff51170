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

// Offsets in the header; the words behind the two function tables stand 4 bytes further on in the
// fixed flavour.
constexpr int atFlags = 20, atLayers = 36, atWeightScale = 48, identifierBytes = 12;
template <class T>
constexpr int headerBytes = std::is_same_v<T, float> ? 60 : 64;

// A network file may claim any sizes. Rows and inputs that no stored weight stands for are limited
// to this number.
constexpr std::int64_t mostWithoutWeights = 65536;

constexpr std::size_t pieceBytes = 0x10000;

template <class T>
using Server = typename Flavour<T>::Server;

// --- elements and words ---

void setWordAt(unsigned char* bytes, std::uint32_t word) {
    for (int i = 0; i < 4; ++i)
        bytes[i] = static_cast<unsigned char>(word >> 8 * i);
}

int wordAt(const unsigned char* bytes) {
    std::uint32_t word = 0;
    for (int i = 0; i < 4; ++i)
        word |= std::uint32_t(bytes[i]) << 8 * i;
    return int(word);
}

enum class Outcome { complete, streamEnded, noMemory };

// `count` elements from a stream that may hold fewer: memory grows with what has really come, at
// most to twice as much.
template <class U>
Outcome readGrowing(FILE* stream, std::ptrdiff_t count, Scratch<U>& elements) {
    constexpr auto firstPiece = std::ptrdiff_t(pieceBytes / sizeof(U));
    std::ptrdiff_t filled = 0;
    do {
        const std::ptrdiff_t room = std::min(count, std::max(firstPiece, 2 * filled));
        Scratch<U> grown(room);
        if (!grown) return Outcome::noMemory;
        std::copy_n(elements.get(), filled, grown.get());
        elements = std::move(grown);
        if (!ktl::readElements(stream, elements.get() + filled, std::size_t(room - filled)))
            return Outcome::streamEnded;
        filled = room;
    } while (filled < count);
    return Outcome::complete;
}

// --- writing ---

template <class T>
void encodeHeader(const Server<T>* server, unsigned char* header) {
    std::memset(header, 0, headerBytes<T>);
    std::memcpy(header, server->identifier, identifierBytes);
    setWordAt(header + atFlags, server->flags);
    setWordAt(header + atLayers, unsigned(server->nLayers));
    if constexpr (std::is_same_v<T, short>)
        setWordAt(header + atWeightScale, unsigned(server->weightScale));
    setWordAt(header + headerBytes<T> - 4, unsigned(server->nBufLen));
}

template <class T>
void writeServer(FILE* stream, const Server<T>* server, const char* funcName) {
    if (stream == nullptr || server == nullptr) return;
    if (server->ppConnCounts != nullptr) {
        module.report(KT_StsUnsupported, sparseRefused, funcName);
        return;
    }
    unsigned char header[headerBytes<T>];
    encodeHeader<T>(server, header);
    if (!writeElements(stream, header, sizeof header) ||
        !writeElements(stream, server->playerNeuronCounts, std::size_t(server->nLayers))) {
        module.report(KT_StsNoMem, ioError, funcName);
        return;
    }
    const std::ptrdiff_t weights =
        ownPaddedWeightCount(server->playerNeuronCounts, server->nLayers);
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
    const std::ptrdiff_t count = ownPaddedWeightCount(pCounts, nLayers);
    Scratch<T> block;
    const bool sized = count >= 0 && plausible(pCounts, nLayers, count);
    const Outcome outcome = sized ? readGrowing(stream, count, block) : Outcome::noMemory;
    if (outcome == Outcome::streamEnded) {
        module.report(KT_StsBadState, ioError, funcName);
        return nullptr;
    }
    T*** ppp = outcome == Outcome::complete ? makeTable(pCounts, nLayers, T(0)) : nullptr;
    if (ppp == nullptr)
        module.report(KT_StsNoMem, noMemory, funcName);
    else
        std::copy_n(block.get(), count, ppp[0][0]);
    return ppp;
}

sMLPServer* construct(const Network<float>& network, const unsigned char*) {
    return initServer(network, "KTsInitMLPServer");
}
wMLPServer* construct(const Network<short>& network, const unsigned char* header) {
    return initServer(network, wordAt(header + atWeightScale), "KTwInitMLPServer");
}

template <class T>
Server<T>* readServer(FILE* stream, const char* badIdentifier, const char* funcName) {
    unsigned char header[headerBytes<T>];
    if (stream == nullptr || std::fread(header, 1, sizeof header, stream) != sizeof header)
        return nullptr;
    if (std::memcmp(header, Flavour<T>::identifier, sizeof Flavour<T>::identifier) != 0) {
        module.report(KT_StsBadArg, badIdentifier, funcName);
        return nullptr;
    }
    const int nLayers = wordAt(header + atLayers);
    Scratch<int> counts;
    const Outcome outcome = nLayers < 0 ? Outcome::noMemory : readGrowing(stream, nLayers, counts);
    if (outcome != Outcome::complete) {
        module.report(KT_StsNoMem, outcome == Outcome::noMemory ? noCounts : noMemory, funcName);
        return nullptr;
    }
    T*** ppp = readTable<T>(stream, counts.get(), nLayers, funcName);
    if (ppp == nullptr) return nullptr;
    Server<T>* server = construct(Network<T>{ppp, nullptr, nullptr, counts.get(), nullptr, nullptr,
                                             nLayers, wordAt(header + atFlags), nullptr, true},
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
