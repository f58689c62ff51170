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

// The words of a record. Only a fixed-point one has a scale.
enum Word { wordHandle, wordIsFirst, wordDim, wordVectors, wordScale };
using FloatRecord = ktl::Words<wordScale>;
using FixedRecord = ktl::Words<wordScale + 1>;

// --- writing; false at the first shortfall ---

template <class Record>
bool writeHead(FILE* pFile, const Record& record) {
    return ktl::writeTag(pFile, magic) && ktl::writeWords(pFile, record);
}

// Rows in memory are padded, the file's are not.
template <class T>
bool writeRows(FILE* pFile, const T* const* rows, int nVectors, int nDim) {
    for (int i = 0; i < nVectors; ++i)
        if (!ktl::writeElements(pFile, rows[i], static_cast<std::size_t>(nDim))) return false;
    return true;
}

// --- reading ---

template <class Record>
bool readHead(FILE* pFile, Record& record) {
    return ktl::readTag(pFile, magic) && ktl::readWords(pFile, record);
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

// A head may be anything: so may handles, but only a pattern of no vectors may have vectors of no
// elements.
template <class Pattern, class Record>
bool acceptHead(Pattern& pattern, const Record& head) {
    pattern.handle = int(head[wordHandle]);
    pattern.nDim = int(head[wordDim]);
    pattern.nVectors = int(head[wordVectors]);
    return pattern.nDim >= 0 && pattern.nVectors >= 0 &&
           (pattern.nDim > 0 || pattern.nVectors == 0);
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
    const FloatRecord head{unsigned(p->handle), unsigned(p->isFirst), unsigned(p->nDim),
                           unsigned(p->nVectors)};
    if (writeHead(pFile, head)) writeRows(pFile, p->pData, p->nVectors, p->nDim);
}

void KTwWriteDTWPattern(FILE* pFile, int handle) {
    const wPattern* p = KTwPatternPtrGet(handle);
    if (p == nullptr || pFile == nullptr) return;
    const FixedRecord head{unsigned(p->handle), unsigned(p->isFirst), unsigned(p->nDim),
                           unsigned(p->nVectors), unsigned(p->scale)};
    if (writeHead(pFile, head) && writeRows(pFile, p->pFloatData, p->nVectors, p->nDim))
        writeRows(pFile, p->pData, p->nVectors, p->nDim);
}

int KTsReadDTWPattern(FILE* pFile) {
    FloatRecord head;
    if (pFile == nullptr || !readHead(pFile, head)) return -1;
    NewRecord<sPattern> record;
    if (!record || !acceptHead(*record, head)) return -1;
    bool noTable;
    record->pData = readTable<float>(pFile, *record, noTable);
    return record->pData != nullptr ? join(record) : -1;
}

// The record counts from its float table on: where only its 16-bit part fails to come, the store's
// number stays one too high.
int KTwReadDTWPattern(FILE* pFile) {
    FixedRecord head;
    if (pFile == nullptr || !readHead(pFile, head)) return -1;
    NewRecord<wPattern> record;
    if (!record || !acceptHead(*record, head)) return -1;
    record->scale = int(head[wordScale]);
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
