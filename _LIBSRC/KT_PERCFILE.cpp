// Multilayer perceptrons on streams: the image of the record in a 32-bit build, the neuron counts and the
// weight block with its padding, all little-endian. Pointers are written as 0 and not looked at.
#include "KT_PERC.h"

#include "KT_SCRATCH.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <type_traits>

namespace ktl::perc {
namespace {

constexpr char ioError[] = "input_output_error";
constexpr char noCounts[] = "insufficiency of memory for pointer  pMLPServer0. playerNeuronCounts";
constexpr char sparseRefused[] = "a sparse network cannot be written";

// Offsets in the header; the words behind the two function tables stand 4 bytes further on in the fixed
// flavour.
constexpr int atFlags = 20, atLayers = 36, atWeightScale = 48, identifierBytes = 12;
template <class T>
constexpr int headerBytes = std::is_same_v<T, float> ? 60 : 64;

// A network file may claim any sizes. Rows and inputs that no stored weight stands for are limited to this
// number.
constexpr std::int64_t mostWithoutWeights = 65536;

constexpr std::size_t pieceBytes = 0x10000;

template <class T>
using Server = typename Flavour<T>::Server;

// --- elements and bytes ---

template <class U>
void encode(unsigned char* bytes, U value) {
    std::make_unsigned_t<std::conditional_t<sizeof(U) == 4, std::int32_t, std::int16_t>> pattern;
    static_assert(sizeof pattern == sizeof value);
    std::memcpy(&pattern, &value, sizeof pattern);
    for (std::size_t i = 0; i < sizeof pattern; ++i)
        bytes[i] = static_cast<unsigned char>(pattern >> 8 * i);
}

template <class U>
U decode(const unsigned char* bytes) {
    std::uint32_t pattern = 0;
    for (std::size_t i = 0; i < sizeof(U); ++i)
        pattern |= std::uint32_t(bytes[i]) << 8 * i;
    const auto narrow =
        static_cast<std::conditional_t<sizeof(U) == 4, std::uint32_t, std::uint16_t>>(pattern);
    U value;
    std::memcpy(&value, &narrow, sizeof value);
    return value;
}

bool writeBytes(FILE* stream, const unsigned char* bytes, std::size_t count) {
    return std::fwrite(bytes, 1, count, stream) == count;
}

template <class U>
bool writeElements(FILE* stream, const U* elements, std::ptrdiff_t count) {
    constexpr std::ptrdiff_t pieceElements = 1024;
    unsigned char piece[pieceElements * sizeof(U)];
    while (count > 0) {
        const std::ptrdiff_t now = std::min(count, pieceElements);
        for (std::ptrdiff_t i = 0; i < now; ++i)
            encode(piece + std::size_t(i) * sizeof(U), elements[i]);
        if (!writeBytes(stream, piece, std::size_t(now) * sizeof(U))) return false;
        elements += now;
        count -= now;
    }
    return true;
}

enum class Outcome { complete, streamEnded, noMemory };

// `count` elements from a stream that may hold fewer: memory grows with what has really come, at most to
// twice as much.
template <class U>
Outcome readElements(FILE* stream, std::ptrdiff_t count, Scratch<U>& elements) {
    constexpr auto firstPiece = std::ptrdiff_t(pieceBytes / sizeof(U));
    std::ptrdiff_t room = 0;
    for (std::ptrdiff_t filled = 0; room == 0 || filled < count; filled = room) {
        room = std::min(count, std::max(firstPiece, 2 * filled));
        Scratch<U> grown(room);
        if (!grown) return Outcome::noMemory;
        std::copy_n(elements.get(), filled, grown.get());
        elements = std::move(grown);
        const auto wanted = std::size_t(room - filled);
        auto* bytes = reinterpret_cast<unsigned char*>(elements.get() + filled);
        if (std::fread(bytes, sizeof(U), wanted, stream) != wanted) return Outcome::streamEnded;
        for (std::ptrdiff_t i = filled; i < room; ++i)
            elements[i] = decode<U>(reinterpret_cast<const unsigned char*>(elements.get() + i));
        if (room == count) break;
    }
    return Outcome::complete;
}

// --- writing ---

template <class T>
void encodeHeader(const Server<T>* server, unsigned char* header) {
    std::memset(header, 0, headerBytes<T>);
    std::memcpy(header, server->identifier, identifierBytes);
    encode(header + atFlags, server->flags);
    encode(header + atLayers, server->nLayers);
    if constexpr (std::is_same_v<T, short>) encode(header + atWeightScale, server->weightScale);
    encode(header + headerBytes<T> - 4, server->nBufLen);
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
    if (!writeBytes(stream, header, sizeof header) ||
        !writeElements(stream, server->playerNeuronCounts, server->nLayers)) {
        module.report(KT_StsNoMem, ioError, funcName);
        return;
    }
    if (!writeElements(stream, server->pppWeights[0][0],
                       ownPaddedWeightCount(server->playerNeuronCounts, server->nLayers)))
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
    const Outcome outcome = sized ? readElements(stream, count, block) : Outcome::noMemory;
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
    return initServer(network, decode<int>(header + atWeightScale), "KTwInitMLPServer");
}

template <class T>
Server<T>* readServer(FILE* stream, const char* badIdentifier, const char* funcName) {
    unsigned char header[headerBytes<T>];
    if (stream == nullptr || std::fread(header, 1, sizeof header, stream) != sizeof header) return nullptr;
    if (std::memcmp(header, Flavour<T>::identifier, sizeof Flavour<T>::identifier) != 0) {
        module.report(KT_StsBadArg, badIdentifier, funcName);
        return nullptr;
    }
    const int nLayers = decode<int>(header + atLayers);
    Scratch<int> counts;
    const Outcome outcome = nLayers < 0 ? Outcome::noMemory : readElements(stream, nLayers, counts);
    if (outcome != Outcome::complete) {
        module.report(KT_StsNoMem, outcome == Outcome::noMemory ? noCounts : noMemory, funcName);
        return nullptr;
    }
    T*** ppp = readTable<T>(stream, counts.get(), nLayers, funcName);
    if (ppp == nullptr) return nullptr;
    Server<T>* server = construct(Network<T>{ppp, nullptr, nullptr, counts.get(), nullptr, nullptr, nLayers,
                                             decode<int>(header + atFlags), nullptr, true},
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
