// Pattern records in streams: 32-bit little-endian words whatever the processor, floats by their
// bits, rows without padding. A fixed-point record holds the pattern twice, so that nothing is
// computed when it is read.
#include "templates/KT_DTW.h"

#include "frame/stream.h"

namespace {

using ktl::Arrival;
using ktl::dtw::Handle;
using ktl::dtw::module;
using ktl::dtw::NewRecord;
using ktl::dtw::patternCount;

constexpr char magic[4] = {'D', 'T', 'W', ' '};

// --- writing; false at the first shortfall ---

template <std::size_t n>
bool writeHead(FILE* pFile, const int (&fields)[n]) {
    return std::fwrite(magic, 1, sizeof magic, pFile) == sizeof magic &&
           ktl::writeElements(pFile, fields, n);
}

// Rows in memory are padded, the file's are not.
template <class T>
bool writeRows(FILE* pFile, const T* const* rows, int nVectors, int nDim) {
    for (int i = 0; i < nVectors; ++i)
        if (!ktl::writeElements(pFile, rows[i], static_cast<std::size_t>(nDim))) return false;
    return true;
}

// --- reading ---

template <std::size_t n>
bool readHead(FILE* pFile, int (&fields)[n]) {
    char found[sizeof magic];
    return std::fread(found, 1, sizeof found, pFile) == sizeof found &&
           std::memcmp(found, magic, sizeof magic) == 0 && ktl::readElements(pFile, fields, n);
}

// The stream's next vectors as a table of the size that the record claims; null without them.
// `noTable` tells that the table was what failed.
template <class T, class Pattern>
T** readTable(FILE* pFile, const Pattern& pattern, bool& noTable) {
    const auto columns = static_cast<std::size_t>(pattern.nDim);
    ktl::Scratch<T> payload;
    noTable = false;
    if (ktl::readClaimed(pFile, static_cast<std::uint64_t>(pattern.nVectors) * columns, payload) !=
        Arrival::complete)
        return nullptr;
    ktl::Table<T> rows(pattern.nVectors, pattern.nDim);
    noTable = !rows;
    for (int i = 0; i < pattern.nVectors && rows; ++i)
        std::copy_n(payload.get() + static_cast<std::size_t>(i) * columns, columns, rows[i]);
    return rows.take();
}

// A header may be anything: so may handles, but only a pattern of no vectors may have vectors of no
// elements.
template <class Pattern>
bool acceptHeader(Pattern& pattern, int handle, int nDim, int nVectors) {
    pattern.handle = handle;
    pattern.nDim = nDim;
    pattern.nVectors = nVectors;
    return nDim >= 0 && nVectors >= 0 && (nDim > 0 || nVectors == 0);
}

// The handle of a record that has joined its store, or -1.
template <class Pattern>
int join(NewRecord<Pattern>& record) {
    const Pattern* joined = record.join(Handle::own);
    return joined != nullptr ? joined->handle : -1;
}

} // namespace

void KTsWriteDTWPattern(FILE* pFile, int handle) {
    const sPattern* p = KTsPatternPtrGet(handle);
    if (p == nullptr || pFile == nullptr) return;
    const int header[] = {p->handle, p->isFirst, p->nDim, p->nVectors};
    if (writeHead(pFile, header)) writeRows(pFile, p->pData, p->nVectors, p->nDim);
}

void KTwWriteDTWPattern(FILE* pFile, int handle) {
    const wPattern* p = KTwPatternPtrGet(handle);
    if (p == nullptr || pFile == nullptr) return;
    const int header[] = {p->handle, p->isFirst, p->nDim, p->nVectors, p->scale};
    if (writeHead(pFile, header) && writeRows(pFile, p->pFloatData, p->nVectors, p->nDim))
        writeRows(pFile, p->pData, p->nVectors, p->nDim);
}

int KTsReadDTWPattern(FILE* pFile) {
    int header[4]; // handle, isFirst, nDim, nVectors
    if (pFile == nullptr || !readHead(pFile, header)) return -1;
    NewRecord<sPattern> record;
    if (!record || !acceptHeader(*record, header[0], header[2], header[3])) return -1;
    bool noTable;
    record->pData = readTable<float>(pFile, *record, noTable);
    return record->pData != nullptr ? join(record) : -1;
}

// The record counts from its float table on: where only its 16-bit part fails to come, the store's
// number stays one too high.
int KTwReadDTWPattern(FILE* pFile) {
    int header[5]; // handle, isFirst, nDim, nVectors, scale
    if (pFile == nullptr || !readHead(pFile, header)) return -1;
    NewRecord<wPattern> record;
    if (!record || !acceptHeader(*record, header[0], header[2], header[3])) return -1;
    record->scale = header[4];
    bool noTable;
    record->pFloatData = readTable<float>(pFile, *record, noTable);
    if (record->pFloatData == nullptr) return -1;
    ++patternCount(&*record);
    record->pData = readTable<short>(pFile, *record, noTable);
    if (record->pData != nullptr) {
        --patternCount(&*record); // joining counts it
        return join(record);
    }
    if (noTable) module.report(KT_StsNoMem, "wPattern can not be allocated");
    return -1;
}
