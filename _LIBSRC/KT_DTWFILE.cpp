// Pattern records in streams: 32-bit little-endian words whatever the processor, floats by their bits, rows
// without padding. A fixed-point record holds the pattern twice, so that nothing is computed when it is read.
#include "KT_DTW.h"

#include "KT_ALLOC.h"
#include "KT_SCRATCH.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <utility>

namespace {

using ktl::dtw::arrangeColumns;
using ktl::dtw::module;
using ktl::dtw::NewRecord;

constexpr char magic[4] = {'D', 'T', 'W', ' '};
constexpr int pieceBytes = 4096; // rows pass through a buffer of this size, a multiple of every element's

// --- elements as little-endian bytes ---

void toBytes(std::uint32_t value, unsigned char* bytes) {
    for (int i = 0; i < 4; ++i)
        bytes[i] = static_cast<unsigned char>(value >> (8 * i));
}
void toBytes(int value, unsigned char* bytes) {
    toBytes(static_cast<std::uint32_t>(value), bytes);
}
void toBytes(float value, unsigned char* bytes) {
    std::uint32_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    toBytes(bits, bytes);
}
void toBytes(short value, unsigned char* bytes) {
    const auto bits = static_cast<std::uint16_t>(value);
    bytes[0] = static_cast<unsigned char>(bits);
    bytes[1] = static_cast<unsigned char>(bits >> 8);
}

void fromBytes(const unsigned char* bytes, std::uint32_t& value) {
    value = 0;
    for (int i = 0; i < 4; ++i)
        value |= static_cast<std::uint32_t>(bytes[i]) << (8 * i);
}
void fromBytes(const unsigned char* bytes, int& value) {
    std::uint32_t bits;
    fromBytes(bytes, bits);
    value = static_cast<int>(bits);
}
void fromBytes(const unsigned char* bytes, float& value) {
    std::uint32_t bits;
    fromBytes(bytes, bits);
    std::memcpy(&value, &bits, sizeof value);
}
void fromBytes(const unsigned char* bytes, short& value) {
    value = static_cast<short>(bytes[0] | bytes[1] << 8);
}

// --- writing; false at the first shortfall ---

bool writeMagic(FILE* pFile) {
    return std::fwrite(magic, 1, sizeof magic, pFile) == sizeof magic;
}

template <class T>
bool writeArray(FILE* pFile, const T* values, int n) {
    constexpr int perPiece = pieceBytes / static_cast<int>(sizeof(T));
    unsigned char bytes[pieceBytes];
    for (int done = 0; done < n;) {
        const int count = n - done < perPiece ? n - done : perPiece;
        for (int i = 0; i < count; ++i)
            toBytes(values[done + i], bytes + static_cast<std::size_t>(i) * sizeof(T));
        if (std::fwrite(bytes, sizeof(T), static_cast<std::size_t>(count), pFile) !=
            static_cast<std::size_t>(count))
            return false;
        done += count;
    }
    return true;
}

template <class T>
bool writeRows(FILE* pFile, const T* const* rows, int nVectors, int nDim) {
    for (int i = 0; i < nVectors; ++i)
        if (!writeArray(pFile, rows[i], nDim)) return false;
    return true;
}

// --- reading; false or null at the first shortfall ---

bool readMagic(FILE* pFile) {
    char found[sizeof magic];
    return std::fread(found, 1, sizeof found, pFile) == sizeof found &&
           std::memcmp(found, magic, sizeof magic) == 0;
}

template <int n>
bool readHeader(FILE* pFile, int (&fields)[n]) {
    unsigned char bytes[4 * n];
    if (std::fread(bytes, 1, sizeof bytes, pFile) != sizeof bytes) return false;
    for (int i = 0; i < n; ++i)
        fromBytes(bytes + 4 * i, fields[i]);
    return true;
}

// `size` bytes; false where the stream ends before or memory ran out. The block grows with what arrives, so
// that a header's promise alone takes no memory.
ktl::Scratch<unsigned char> readPayload(FILE* pFile, std::size_t size) {
    std::size_t capacity = size < 65536 ? size : 65536, filled = 0;
    ktl::Scratch<unsigned char> bytes(capacity);
    while (bytes) {
        const std::size_t wanted = capacity - filled;
        if (std::fread(bytes.get() + filled, 1, wanted, pFile) != wanted) return {};
        filled = capacity;
        if (filled == size) return bytes;
        capacity = size - capacity > capacity ? 2 * capacity : size;
        ktl::Scratch<unsigned char> grown(capacity);
        if (grown) std::memcpy(grown.get(), bytes.get(), filled);
        bytes = std::move(grown);
    }
    return {};
}

// nVectors rows of nDim elements into a table of `allocate`'s, or null; `noTable` tells that the table was
// what failed.
template <class T>
T** readTable(FILE* pFile, int nVectors, int nDim, T** (*allocate)(int, int), bool& noTable) {
    const std::uint64_t elements = static_cast<std::uint64_t>(nVectors) * static_cast<std::uint64_t>(nDim);
    if (elements > PTRDIFF_MAX / sizeof(T)) return nullptr;
    const auto payload = readPayload(pFile, static_cast<std::size_t>(elements) * sizeof(T));
    if (!payload) return nullptr;
    T** rows = allocate(nVectors, nDim);
    noTable = rows == nullptr;
    const unsigned char* bytes = payload.get();
    for (int i = 0; i < nVectors && rows != nullptr; ++i)
        for (int k = 0; k < nDim; ++k, bytes += sizeof(T))
            fromBytes(bytes, rows[i][k]);
    return rows;
}

// A header may be anything: handles are positive, and only a pattern of no vectors may have vectors of no
// elements.
template <class Pattern>
bool acceptHeader(Pattern& pattern, int handle, int nDim, int nVectors) {
    pattern.handle = handle;
    pattern.nDim = nDim;
    pattern.nVectors = nVectors;
    return handle > 0 && nDim >= 0 && nVectors >= 0 && (nDim > 0 || nVectors == 0);
}

} // namespace

void KTsWriteDTWPattern(FILE* pFile, int handle) {
    const sPattern* p = KTsPatternPtrGet(handle);
    if (p == nullptr || pFile == nullptr || !writeMagic(pFile)) return;
    const int header[] = {p->handle, p->isFirst, p->nDim, p->nVectors};
    if (writeArray(pFile, header, 4)) writeRows(pFile, p->pData, p->nVectors, p->nDim);
}

void KTwWriteDTWPattern(FILE* pFile, int handle) {
    const wPattern* p = KTwPatternPtrGet(handle);
    if (p == nullptr || pFile == nullptr || !writeMagic(pFile)) return;
    const int header[] = {p->handle, p->isFirst, p->nDim, p->nVectors, p->scale};
    if (writeArray(pFile, header, 5) && writeRows(pFile, p->pFloatData, p->nVectors, p->nDim))
        writeRows(pFile, p->pData, p->nVectors, p->nDim);
}

int KTsReadDTWPattern(FILE* pFile) {
    int header[4]; // handle, isFirst, nDim, nVectors
    if (pFile == nullptr || !readMagic(pFile) || !readHeader(pFile, header)) return -1;
    NewRecord<sPattern> record;
    if (!record || !acceptHeader(*record, header[0], header[2], header[3])) return -1;
    bool noTable = false;
    record->pData = readTable(pFile, record->nVectors, record->nDim, KTsAlloc2, noTable);
    if (record->pData == nullptr || !arrangeColumns(*record)) return -1;
    return record.join();
}

int KTwReadDTWPattern(FILE* pFile) {
    int header[5]; // handle, isFirst, nDim, nVectors, scale
    if (pFile == nullptr || !readMagic(pFile) || !readHeader(pFile, header)) return -1;
    NewRecord<wPattern> record;
    if (!record || !acceptHeader(*record, header[0], header[2], header[3])) return -1;
    record->scale = header[4];
    bool noTable = false;
    record->pFloatData = readTable(pFile, record->nVectors, record->nDim, KTsAlloc2, noTable);
    if (record->pFloatData == nullptr) return -1;
    record->pData = readTable(pFile, record->nVectors, record->nDim, KTwAlloc2, noTable);
    if (record->pData == nullptr) {
        if (noTable) module.report(KT_StsNoMem, "wPattern can not be allocated");
        return -1;
    }
    return arrangeColumns(*record) ? record.join() : -1;
}
