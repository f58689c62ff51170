// Stored patterns of dynamic time warping. Each thread has two stores, one per flavour, that know nothing of
// each other.
#pragma once

#include "frame/context.h"
#include "frame/KT_ERROR.h"

// Records belong to their store, with all that they point to. The list is in the order of creation.
struct sPattern {
    sPattern* next;
    sPattern* prev;
    int isFirst; // 1 exactly for the head of the list
    int handle;  // positive
    float** pData;
    int nVectors;
    int nDim;
    double* pColumns; // the vectors again, by dimension, as kernels/vsqdtw_level.h lays them out
};

struct wPattern {
    wPattern* next;
    wPattern* prev;
    int isFirst;
    int handle;
    short** pData; // as given; a real value is stored * 2^scale
    int spare;
    float** pFloatData; // the real values, which the evaluation reads
    int nVectors;
    int nDim;
    int scale;
    double* pColumns; // the real values by dimension
};

// The record of a handle, or null. An empty store is reported (-2), an absent handle is not. Of two records
// with the same handle, which only reading files can make, the older one is found.
sPattern* KTsPatternPtrGet(int handle);
wPattern* KTwPatternPtrGet(int handle);

// Takes a record out of its store and frees it: 0, or -1 for null and, after a report (-2), for an empty
// store.
int KTsPatternPtrFree(sPattern* pPattern);
int KTwPatternPtrFree(wPattern* pPattern);

namespace ktl::dtw {

inline constexpr Module module{"..\\_LIBSRC\\KT_DTW"};

// Scale arguments change their sign on the way into a conversion; the smallest int has no counterpart, and
// its nearest one does, because scales beyond some thousand all give 0 or infinity.
constexpr int negated(int scale) {
    return scale == -2147483647 - 1 ? 2147483647 : -scale;
}

// The table of real values of a record.
inline float** realRows(const sPattern& pattern) {
    return pattern.pData;
}
inline float** realRows(const wPattern& pattern) {
    return pattern.pFloatData;
}

// Frees a record outside the lists, half-built or whole; null is allowed.
void freeRecord(sPattern* pPattern);
void freeRecord(wPattern* pPattern);

// Lays out the real values by dimension; false when memory ran out.
bool arrangeColumns(sPattern& pattern);
bool arrangeColumns(wPattern& pattern);

// The number of the calling thread's patterns.
int& patternCount(const sPattern* pPattern);
int& patternCount(const wPattern* pPattern);

// Hangs a whole record, which has been counted, on the tail of its list.
void append(sPattern* pPattern);
void append(wPattern* pPattern);

// A record in the making, zero-filled; freed with all that it got unless it was taken. False when memory ran
// out.
template <class Pattern>
class NewRecord {
public:
    NewRecord();
    ~NewRecord() { freeRecord(record); }
    NewRecord(const NewRecord&) = delete;
    NewRecord& operator=(const NewRecord&) = delete;

    explicit operator bool() const { return record != nullptr; }
    Pattern* operator->() const { return record; }
    Pattern& operator*() const { return *record; }

    // Counts the record, which comes before it joins.
    void count() const { ++patternCount(record); }

    // Puts the record into its store and returns its handle.
    int join() {
        append(record);
        const int handle = record->handle;
        record = nullptr;
        return handle;
    }

private:
    Pattern* record;
};

} // namespace ktl::dtw
