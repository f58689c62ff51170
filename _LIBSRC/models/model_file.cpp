// Models on streams: a header of 16 bytes with a name, the record of sixteen words, and the stored
// arrays, all as a 32-bit little-endian image. What a file says is a claim until it is read: counts
// are checked before anything is computed from them, and arrays are read in pieces that grow with
// what the stream really holds.
#include "frame/KT_ERROR.h"
#include "frame/scratch.h"
#include "frame/stream.h"
#include "mixtures/KT_GAUSS.h"
#include "models/layout.h"

#include <array>

namespace {

constexpr ktl::Module module{"..\\_LIBSRC\\KT_HMAN"};

constexpr char magic[4] = {'H', 'M', 'M', ' '};
constexpr std::size_t nameLength = 12;

struct Header {
    char magic[4];
    char name[nameLength]; // filled with zeros; not terminated when all 12 are used
};
static_assert(sizeof(Header) == 16);

// The record's words, in file order.
enum Word {
    wordId,
    wordTag,
    wordStates,
    wordSymbols,
    wordTransitions, // file positions, counted from the header
    wordOutputs,
    wordInitials,
    wordNext,
    wordPrev,
    wordStatus,
    wordStateWords,
    wordMixtures,
    wordQuant,
    wordScale,
    wordReserved0,
    wordReserved1,
    wordCount
};
using Record = ktl::Words<wordCount>;

constexpr std::uint32_t bodyPosition = sizeof(Header) + 4 * wordCount;
static_assert(bodyPosition == 0x50);

// The flavour that decides about the outputs; 0 where there are none.
unsigned flavourOf(unsigned status) {
    return status & (HMM_SERVER_DISCRETE | HMM_SERVER_CONT | HMM_SERVER_SEMICONT);
}
bool hasTable(unsigned status) {
    return (status & (HMM_SERVER_DISCRETE | HMM_SERVER_SEMICONT)) != 0;
}
// Weights of densities in a fixed server are the only 16-bit elements.
bool hasShortRows(unsigned status) {
    return (status & HMM_SERVER_SHORT) != 0 && (status & HMM_SERVER_DISCRETE) == 0;
}

// --- writing ---

// Whether all arrays are there; one may be missing for want of memory at the server's creation.
bool isComplete(const HMMServer* server) {
    if (server->initials == nullptr || server->transitions == nullptr) return false;
    if (hasTable(server->status) && server->outputs == nullptr) return false;
    return (server->status & HMM_SERVER_CONT) == 0 || server->mixtures != nullptr;
}

std::size_t outputBytes(const HMMServer* server) {
    if (hasTable(server->status)) {
        const auto shape = hmm::OutputShape::of(server->status, server->nStates, server->nSymbols);
        return shape.elements() * shape.elementSize;
    }
    std::size_t bytes = 0;
    if ((server->status & HMM_SERVER_CONT) != 0)
        for (int i = 0; i < server->nStates; ++i)
            bytes += ktl::gauss::imageBytes(server->mixtures[i]);
    return bytes;
}

Record recordOf(const HMMServer* server, std::size_t nInitials, std::size_t nTransitions) {
    const std::size_t transitions = bodyPosition + 4 * nInitials,
                      outputs = transitions + 4 * nTransitions;
    Record record{};
    record[wordId] = unsigned(server->id);
    record[wordTag] = unsigned(server->tag);
    record[wordStates] = unsigned(server->nStates);
    record[wordSymbols] = unsigned(server->nSymbols);
    record[wordTransitions] = static_cast<std::uint32_t>(transitions);
    record[wordOutputs] = static_cast<std::uint32_t>(outputs);
    record[wordInitials] = bodyPosition;
    record[wordStatus] = server->status & ~HMM_SERVER_TILED;
    if (server->stateWords != nullptr)
        record[wordStateWords] = static_cast<std::uint32_t>(outputs + outputBytes(server));
    record[wordQuant] = unsigned(server->nQuant);
    record[wordScale] = unsigned(server->scale);
    return record;
}

// Rows lie one behind the other, so a table goes out at once.
bool writeTable(FILE* stream, const HMMServer* server) {
    const auto shape = hmm::OutputShape::of(server->status, server->nStates, server->nSymbols);
    if (shape.rows <= 0) return true;
    if (hasShortRows(server->status))
        return ktl::writeElements(stream, hmm::outputRows<short>(server->outputs)[0],
                                  shape.elements());
    return ktl::writeElements(stream, hmm::outputRows<std::uint32_t>(server->outputs)[0],
                              shape.elements());
}

// Also false once the backtrace's handler has released the server.
bool writeMixtures(FILE* stream, const HMMServer* server) {
    const HeldHMMServer held(server);
    const bool hadError = std::ferror(stream) != 0;
    for (int i = 0; i < server->nStates; ++i) {
        KTWriteGaussMixServer(stream, server->mixtures[i]);
        if (KTGetStatus() < 0 && module.backtrace("KTWriteHMMServer") != 0) return false;
        if (held.get() == nullptr) return false;
        if (!hadError && std::ferror(stream) != 0) return false;
    }
    return true;
}

bool writeOutputs(FILE* stream, const HMMServer* server) {
    if (hasTable(server->status)) return writeTable(stream, server);
    return (server->status & HMM_SERVER_CONT) == 0 || writeMixtures(stream, server);
}

// Both flavours' elements are 32-bit words here. The result only ends the writing.
bool writeBody(FILE* stream, const HMMServer* server, void* plainTransitions) {
    const unsigned plainStatus = server->status & ~HMM_SERVER_TILED;
    const std::size_t alignment = hmm::alignmentOf(plainStatus);
    const auto nInitials = std::size_t(hmm::initialsLength(plainStatus, server->nStates));
    const std::size_t nTransitions =
        hmm::TransitionMap{hmm::topologyOf(plainStatus), hmm::orderOf(plainStatus), server->nStates}
            .size();
    const Record record = recordOf(server, nInitials, nTransitions);
    const auto words = [=](void* block) {
        return hmm::aligned<const std::uint32_t>(block, alignment);
    };
    return ktl::writeWords(stream, record) &&
           ktl::writeElements(stream, words(server->initials), nInitials) &&
           ktl::writeElements(stream, words(plainTransitions), nTransitions) &&
           writeOutputs(stream, server) &&
           (server->stateWords == nullptr ||
            ktl::writeElements(stream, server->stateWords, std::size_t(server->nStates)));
}

bool writeHeader(FILE* stream, const char* name) {
    Header header{};
    std::memcpy(header.magic, magic, sizeof magic);
    for (std::size_t i = 0; name != nullptr && i < nameLength && name[i] != '\0'; ++i)
        header.name[i] = name[i];
    return std::fwrite(&header, sizeof header, 1, stream) == 1;
}

// --- reading ---

using Block = ktl::Held<char, ktl::freePlain>;

// An array of `count` elements at the aligned start of its block; null when the stream held fewer
// or memory ran out.
template <class T>
void* readArray(FILE* stream, std::size_t count, std::size_t alignment) {
    Block block;
    const auto allocate = [](std::uint64_t n) {
        return Block(static_cast<char*>(hmm::allocateArray(std::size_t(n), sizeof(T))));
    };
    const auto first = [=](const Block& b) { return hmm::aligned<T>(b.get(), alignment); };
    const bool isComplete =
        ktl::readClaimed<T>(stream, count, block, allocate, first) == ktl::Arrival::complete;
    return isComplete ? block.take() : nullptr;
}

// A table of small size is read to its place; a larger one first as an array that grows, since its
// block can't.
template <class T>
void* readTable(FILE* stream, const hmm::OutputShape& shape, std::size_t alignment) {
    const std::size_t n = shape.elements();
    const bool isLarge = n > ktl::claimedPiece<T>;
    Block array(isLarge ? static_cast<char*>(readArray<T>(stream, n, alignment)) : nullptr);
    if (isLarge && !array) return nullptr;
    void* outputs = hmm::allocateOutputs(shape, alignment);
    if (outputs == nullptr) return nullptr;
    T* first = hmm::outputRows<T>(outputs)[0];
    if (isLarge) {
        std::memcpy(first, hmm::aligned<T>(array.get(), alignment), n * sizeof(T));
    } else if (!ktl::readElements(stream, first, n)) {
        std::free(outputs);
        return nullptr;
    }
    return outputs;
}

// Whether the sizes that follow from a record's counts can be computed in this build and held by
// its memory.
bool isRepresentable(const HMMServer* server) {
    constexpr std::uint64_t mostElements = PTRDIFF_MAX / 16;
    const auto padded = [](int count) { return std::uint64_t(count) + 4; };
    if (server->nStates > hmm::mostCount) return false;
    const bool isBanded = hmm::topologyOf(server->status) == hmm::Topology::banded;
    const std::uint64_t sources = isBanded ? 3 : padded(server->nStates);
    if (sources * padded(server->nStates) > mostElements) return false;
    return !hasTable(server->status) ||
           (server->nSymbols <= hmm::mostCount &&
            padded(server->nSymbols) * padded(server->nStates) <= mostElements);
}

// The status has to name one form, and no more than one flavour: beyond that nobody can say what
// follows, or how long it is.
bool isPlausible(const HMMServer* server) {
    const unsigned form = server->status & hmmFormBits, flavour = flavourOf(server->status);
    if ((form != HMM_SERVER_SHORT && form != HMM_SERVER_FLOAT) || (flavour & (flavour - 1)) != 0)
        return false;
    if (server->nStates < 1 || (hasTable(server->status) && server->nSymbols < 1)) return false;
    return isRepresentable(server);
}

// What a record says of its server. Positions and pointers of the writer play no part.
void takeRecord(const Record& record, HMMServer* server) {
    server->nStates = int(record[wordStates]);
    server->nSymbols = int(record[wordSymbols]);
    server->nQuant = int(record[wordQuant]);
    server->scale = int(record[wordScale]);
    server->reserved0 = int(record[wordReserved0]);
    server->reserved1 = int(record[wordReserved1]);
    server->status = record[wordStatus];
    // those that come from a file belong to the server that they come with
    server->holdsMixtures = true;
}

bool readOutputs(FILE* stream, HMMServer* server) {
    if ((server->status & HMM_SERVER_CONT) != 0)
        return ownFillMixtures(server, server->nStates,
                               [=](int) { return KTReadGaussMixServer(stream); });
    if (!hasTable(server->status)) return true;
    const auto shape = hmm::OutputShape::of(server->status, server->nStates, server->nSymbols);
    const std::size_t alignment = hmm::alignmentOf(server->status);
    server->outputs = hasShortRows(server->status)
                          ? readTable<short>(stream, shape, alignment)
                          : readTable<std::uint32_t>(stream, shape, alignment);
    return server->outputs != nullptr;
}

bool readStateWords(FILE* stream, HMMServer* server) {
    const auto n = std::size_t(server->nStates); // that many initial values have come already
    server->stateWords = ktl::allocPlain<int>(n);
    return server->stateWords != nullptr && ktl::readElements(stream, server->stateWords, n);
}

// Files hold plain arrays, also of a server whose status says that its costs are tiled: they are,
// then.
bool readTransitions(FILE* stream, HMMServer* server) {
    const unsigned plain = server->status & ~HMM_SERVER_TILED;
    const hmm::TransitionMap map{hmm::topologyOf(plain), hmm::orderOf(plain), server->nStates};
    server->transitions = readArray<std::uint32_t>(stream, map.size(), hmm::alignmentOf(plain));
    if (server->transitions == nullptr) return false;
    return hmm::orderOf(server->status) == hmm::Order::tiled ? ownTile(server)
                                                             : ownTileIfWanted(server);
}

bool readBody(FILE* stream, HMMServer* server, bool hasStateWords) {
    const std::size_t alignment = hmm::alignmentOf(server->status);
    const auto nInitials = std::size_t(hmm::initialsLength(server->status, server->nStates));
    server->initials = readArray<std::uint32_t>(stream, nInitials, alignment);
    if (server->initials == nullptr) return false;
    return readTransitions(stream, server) && readOutputs(stream, server) &&
           (!hasStateWords || readStateWords(stream, server));
}

bool readHeader(FILE* stream, char* name) {
    Header header;
    if (std::fread(&header, sizeof header, 1, stream) != 1) return false;
    if (std::memcmp(header.magic, magic, sizeof magic) != 0) return false;
    if (name == nullptr) return true;
    const char* end = std::find(header.name, header.name + nameLength, '\0');
    const std::ptrdiff_t length = end - header.name;
    std::copy_n(header.name, length < std::ptrdiff_t(nameLength) ? length + 1 : length, name);
    return true;
}

} // namespace

void KTWriteHMMServer(FILE* stream, int hmm, const char* name) {
    const HMMServer* server = KTFindHMMServer(hmm);
    if (server == nullptr || stream == nullptr || !writeHeader(stream, name)) return;
    if ((server->status & hmmFormBits) == 0 || !isComplete(server)) return;
    if (hmm::orderOf(server->status) != hmm::Order::tiled) {
        writeBody(stream, server, server->transitions);
        return;
    }
    ktl::Held<char, ktl::freePlain> plain(
        static_cast<char*>(KTUntileHMMTrans(server->transitions, server->status, server->nStates)));
    if (plain) writeBody(stream, server, plain.get());
}

int KTReadHMMServer(FILE* stream, char* name) {
    if (!startHMMRegistry() || stream == nullptr) return -1;
    if (!readHeader(stream, name)) return -1;
    HMMServer* server = ownNewHMMRecord();
    if (server == nullptr) return -1;
    Record record;
    bool complete = ktl::readWords(stream, record);
    if (complete) {
        takeRecord(record, server);
        complete = isPlausible(server) && readBody(stream, server, record[wordStateWords] != 0);
    }
    if (!complete) {
        ownFreeHMMRecord(server);
        return -1;
    }
    return ownRegisterComplete(server, int(record[wordTag]));
}
