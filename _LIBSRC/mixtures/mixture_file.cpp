// Mixture servers on streams: the tag "GAUS", the record of twelve words, and the block's data, all
// as a 32-bit little-endian image. Memory is never copied whole: pointers have another width here.
#include "frame/stream.h"
#include "mixtures/mixture_block.h"

namespace ktl::gauss {
namespace {

constexpr char tag[4] = {'G', 'A', 'U', 'S'};
constexpr int longestTail = 15; // meaningless bytes after a payload

// The record's words, in file order; pointers of the writer's memory, of which readers look at null
// or not null only.
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
using Record = Words<wordCount>;

// The payload's arrays in file order: values(array, count) for elements, table(count) for pointers.
template <class T, class Visitor>
void visitPayload(const GaussMixServer* server, Visitor& visitor) {
    using Work = typename Form<T>::Sum;
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

// To a stream; after the first short write nothing more goes out.
class Encoder {
public:
    explicit Encoder(FILE* file) : stream(file) {}

    template <class U>
    void values(const U* array, std::ptrdiff_t count) {
        good = good && writeElements(stream, array, static_cast<std::size_t>(count));
    }
    void table(std::ptrdiff_t count) {
        std::uint32_t pointers[64];
        std::fill(std::begin(pointers), std::end(pointers), presentPointer);
        for (; count > 0 && good; count -= 64)
            values(pointers, std::min<std::ptrdiff_t>(count, 64));
    }

private:
    FILE* stream;
    bool good = true;
};

class Decoder {
public:
    explicit Decoder(const unsigned char* payload) : next(payload) {}

    template <class U>
    void values(U* array, std::ptrdiff_t count) {
        next = takeElements(next, array, static_cast<std::size_t>(count));
    }
    void table(std::ptrdiff_t count) { next += 4 * count; }

private:
    const unsigned char* next;
};

Record recordOf(const GaussMixServer* server, int payloadBytes) {
    const auto pointer = [](const void* p) { return p != nullptr ? presentPointer : 0u; };
    return {pointer(server->pWeights),       pointer(server->ppMeans),
            pointer(server->pppInverseCov),  pointer(server->ppInverseCovD),
            pointer(server->pNormWeights),   pointer(server->pWork),
            unsigned(server->nDim),          unsigned(server->nMix),
            unsigned(server->flags),         unsigned(server->scale),
            unsigned(server->nObservations), unsigned(payloadBytes)};
}

// How far the image's data start after a block's base: its record, and up to 15 bytes to the next
// boundary.
int imageStart(const void* base) {
    return imageReserve - int((reinterpret_cast<std::uintptr_t>(base) + imageReserve) & 0xf);
}

template <class T>
void writeServer(FILE* stream, const GaussMixServer* server) {
    const Record record = recordOf(server, server->nBytes - imageStart(server));
    constexpr unsigned char meaningless[longestTail] = {};
    Encoder encoder(stream);
    encoder.values(tag, sizeof tag);
    encoder.values(record.data(), wordCount);
    visitPayload<T>(server, encoder);
    encoder.values(meaningless, imageReserve - imageStart(server));
}

// Flags are kept as they are, so they have to say what is there: a fixed server is told from a
// float one by its own bit, and training takes the shape of a covariance from its bit.
template <class T>
bool flagsAgree(int flags, const Shape& shape) {
    return (flags & Form<T>::flag) != 0 && ((flags & KT_GAUSS_FULL) != 0) == shape.full;
}

template <class T>
GaussMixServer* readServer(FILE* stream, const Record& record, const char* funcName) {
    const Shape shape{int(record[wordDim]), int(record[wordMix]), record[wordInverseCov] != 0};
    if (!representable<T>(shape) || !flagsAgree<T>(int(record[wordFlags]), shape)) return nullptr;
    const std::size_t least = dataBytes<T>(shape, 4), size = record[wordBytes];
    if (size < least || size > least + longestTail) return nullptr;
    Scratch<unsigned char> payload;
    const Arrival arrival = readClaimed(stream, size, payload);
    if (arrival == Arrival::streamEnded) return nullptr;
    GaussMixServer* server = arrival == Arrival::complete ? createServer<T>(shape) : nullptr;
    if (server == nullptr) {
        module.report(KT_StsNoMem, noBlock, funcName);
        return nullptr;
    }
    Decoder decoder(payload.get());
    visitPayload<T>(server, decoder);
    server->flags = int(record[wordFlags]);
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
    if (isFloat(pServer))
        writeServer<float>(pFile, pServer);
    else
        writeServer<short>(pFile, pServer);
}

GaussMixServer* KTReadGaussMixServer(FILE* pFile) {
    Record record;
    if (pFile == nullptr || !ktl::readTag(pFile, tag) || !ktl::readWords(pFile, record))
        return nullptr;
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
