// Mixture servers on streams: the tag "GAUS", the record of twelve words, and the block's data, all as a
// 32-bit little-endian image. Memory is never copied whole: pointers have another width here.
#include "KT_GAUSSBLOCK.h"
#include "KT_SCRATCH.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

namespace ktl::gauss {
namespace {

constexpr char tag[4] = {'G', 'A', 'U', 'S'};
constexpr int longestTail = 15; // meaningless bytes behind a payload

// The record's words, in file order; pointers of the writer's memory, of which readers look at null or not
// null only.
enum Word {
    wordWeights,
    wordMeans,
    wordInverseCov,
    wordInverseCovD,
    wordNormWeights,
    wordWork,
    wordDim,
    wordMix,
    wordFlags,
    wordScale,
    wordObservations,
    wordBytes,
    wordCount
};
constexpr std::uint32_t presentPointer = 0x30; // stands for any pointer that is not null
using Record = std::array<std::uint32_t, wordCount>;

// Bytes to a stream through a buffer; after the first short write nothing more goes out.
class Output {
public:
    explicit Output(FILE* file) : stream(file) {}

    void bytes(std::uint32_t value, int count) {
        if (used + sizeof value > sizeof buffer) flush();
        for (int i = 0; i < count; ++i)
            buffer[used++] = static_cast<unsigned char>(value >> 8 * i);
    }
    void flush() {
        good = good && std::fwrite(buffer, 1, used, stream) == used;
        used = 0;
    }
    bool isGood() const { return good; }

private:
    FILE* stream;
    std::size_t used = 0;
    bool good = true;
    unsigned char buffer[4096];
};

template <class U>
std::uint32_t bitsOf(U value) {
    if constexpr (sizeof(U) == 4) {
        std::uint32_t word;
        std::memcpy(&word, &value, sizeof word);
        return word;
    } else {
        return static_cast<std::uint16_t>(value);
    }
}

template <class U>
U fromBits(std::uint32_t word) {
    if constexpr (sizeof(U) == 4) {
        U value;
        std::memcpy(&value, &word, sizeof value);
        return value;
    } else {
        return static_cast<U>(static_cast<std::uint16_t>(word));
    }
}

// The payload's arrays in file order: values(array, count) for elements, table(count) for pointers.
template <class T, class Visitor>
void visitPayload(const GaussMixServer* server, Visitor& visitor) {
    using Work = typename Flavour<T>::Work;
    const Shape shape = shapeOf(server);
    const int mixPad = padded(shape.nMix);
    if constexpr (std::is_same_v<T, float>) visitor.values(server->pNormWeights, mixPad);
    visitor.values(static_cast<Work*>(server->pWork), mixPad);
    visitor.values(weights<T>(server), mixPad);
    visitor.table(mixPad);
    visitor.values(means<T>(server)[0], meanElements(shape));
    visitor.table(mixPad);
    if (shape.full) visitor.table(meanElements(shape));
    visitor.values(covariance<T>(server), covarianceElements(shape));
}

class Encoder {
public:
    explicit Encoder(Output& output) : out(output) {}

    template <class U>
    void values(const U* array, std::ptrdiff_t count) {
        for (std::ptrdiff_t i = 0; i < count && out.isGood(); ++i)
            out.bytes(bitsOf(array[i]), int(sizeof(U)));
    }
    void table(std::ptrdiff_t count) {
        for (std::ptrdiff_t i = 0; i < count && out.isGood(); ++i)
            out.bytes(presentPointer, 4);
    }

private:
    Output& out;
};

class Decoder {
public:
    explicit Decoder(const unsigned char* payload) : next(payload) {}

    template <class U>
    void values(U* array, std::ptrdiff_t count) {
        for (std::ptrdiff_t i = 0; i < count; ++i)
            array[i] = fromBits<U>(bytes(int(sizeof(U))));
    }
    void table(std::ptrdiff_t count) { next += 4 * count; }
    std::uint32_t bytes(int count) {
        std::uint32_t value = 0;
        for (int i = 0; i < count; ++i)
            value |= static_cast<std::uint32_t>(*next++) << 8 * i;
        return value;
    }

private:
    const unsigned char* next;
};

Record recordOf(const GaussMixServer* server, int payloadBytes) {
    const auto pointer = [](const void* p) { return p != nullptr ? presentPointer : 0u; };
    return {pointer(server->pWeights),      pointer(server->ppMeans),        pointer(server->pppInverseCov),
            pointer(server->ppInverseCovD), pointer(server->pNormWeights),   pointer(server->pWork),
            unsigned(server->nDim),         unsigned(server->nMix),          unsigned(server->flags),
            unsigned(server->scale),        unsigned(server->nObservations), unsigned(payloadBytes)};
}

// How far the image's data start behind a block's base: its record, and up to 15 bytes to the next boundary.
int imageStart(const void* base) {
    return imageReserve - int((reinterpret_cast<std::uintptr_t>(base) + imageReserve) & 0xf);
}

template <class T>
void writeServer(Output& out, const GaussMixServer* server) {
    const int payloadBytes = server->nBytes - imageStart(server);
    for (const char c : tag)
        out.bytes(static_cast<unsigned char>(c), 1);
    for (const std::uint32_t word : recordOf(server, payloadBytes))
        out.bytes(word, 4);
    Encoder encoder(out);
    visitPayload<T>(server, encoder);
    for (int i = imageReserve - imageStart(server); i > 0; --i)
        out.bytes(0, 1);
    out.flush();
}

bool readExactly(FILE* stream, unsigned char* buffer, std::size_t count) {
    return std::fread(buffer, 1, count, stream) == count;
}

bool readTag(FILE* stream) {
    unsigned char read[sizeof tag];
    return readExactly(stream, read, sizeof read) && std::memcmp(read, tag, sizeof tag) == 0;
}

bool readRecord(FILE* stream, Record& record) {
    unsigned char image[4 * wordCount];
    if (!readExactly(stream, image, sizeof image)) return false;
    Decoder decoder(image);
    for (std::uint32_t& word : record)
        word = decoder.bytes(4);
    return true;
}

// The payload of a stream that says how long it is but may lie: memory grows with what has really come, at
// most to twice as much. False with `exhausted` set when memory ran out, false without when the stream ended.
bool readPayload(FILE* stream, std::size_t size, Scratch<unsigned char>& payload, bool& exhausted) {
    constexpr std::size_t firstPiece = 0x10000;
    std::size_t room = std::min(size, firstPiece), filled = 0;
    payload = Scratch<unsigned char>(room);
    while (payload && readExactly(stream, payload.get() + filled, room - filled)) {
        if (room == size) return true;
        filled = room;
        room = std::min(size, 2 * room);
        Scratch<unsigned char> grown(room);
        if (grown) std::memcpy(grown.get(), payload.get(), filled);
        payload = std::move(grown);
    }
    exhausted = !payload;
    return false;
}

template <class T>
GaussMixServer* readServer(FILE* stream, const Record& record, const char* funcName) {
    const Shape shape{int(record[wordDim]), int(record[wordMix]), record[wordInverseCov] != 0};
    if (!representable<T>(shape)) return nullptr;
    const std::size_t least = dataBytes<T>(shape, 4), size = record[wordBytes];
    if (size < least || size > least + longestTail) return nullptr;
    Scratch<unsigned char> payload;
    bool exhausted = false;
    const bool complete = readPayload(stream, size, payload, exhausted);
    GaussMixServer* server = complete ? createServer<T>(shape) : nullptr;
    if (server == nullptr) {
        if (complete || exhausted) module.report(KT_StsNoMem, noBlock, funcName);
        return nullptr;
    }
    Decoder decoder(payload.get());
    visitPayload<T>(server, decoder);
    constexpr int settled = GAUSS_SERVER_FVR_S | GAUSS_SERVER_FVR_W | KT_GAUSS_FULL | KT_GAUSS_DIAGONAL;
    server->flags |= int(record[wordFlags]) & ~settled; // those bits follow what was really read
    server->scale = int(record[wordScale]);
    server->nObservations = int(record[wordObservations]);
    return server;
}

} // namespace

std::size_t imageBytes(const GaussMixServer* server) {
    return sizeof tag + sizeof(Record) + std::size_t(server->nBytes - imageStart(server));
}

} // namespace ktl::gauss

using namespace ktl::gauss;

void KTWriteGaussMixServer(FILE* pFile, GaussMixServer* pServer) {
    if (pFile == nullptr || pServer == nullptr) return;
    Output out(pFile);
    if (isFloat(pServer))
        writeServer<float>(out, pServer);
    else
        writeServer<short>(out, pServer);
}

GaussMixServer* KTReadGaussMixServer(FILE* pFile) {
    Record record;
    if (pFile == nullptr || !readTag(pFile) || !readRecord(pFile, record)) return nullptr;
    if ((record[wordInverseCov] == 0) == (record[wordInverseCovD] == 0)) {
        module.report(KT_StsBadArg, bothOrNeither);
        return nullptr;
    }
    if ((record[wordFlags] & GAUSS_SERVER_FVR_S) == 0) {
        GaussMixServer* server = readServer<short>(pFile, record, "KTwReadGaussMixServer");
        if (server != nullptr) server->flags &= ~KT_GAUSS_BLOCK;
        return server;
    }
    GaussMixServer* server = readServer<float>(pFile, record, "KTReadGaussMixServer");
    if (server != nullptr) server->flags |= KT_GAUSS_BLOCK;
    return server;
}
