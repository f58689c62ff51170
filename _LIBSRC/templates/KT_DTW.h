// Stored patterns of dynamic time warping. Each thread has two stores, one per numeric form, that
// know nothing of each other.
#pragma once

#include "frame/KT_ERROR.h"
#include "frame/context.h"
#include "templates/pattern_index.h"

#include <utility>

// Records belong to their store, with all that they point to. The list is in the order of creation.
// Handles that a store gives out are positive; those that files bring may be anything.
struct sPattern {
    sPattern* next;
    sPattern* prev;
    int isFirst; // 1 exactly for the head of the list
    int handle;
    float** pData;
    int nVectors;
    int nDim;
    ktl::dtw::PatternLinks<sPattern> links;
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
    ktl::dtw::PatternLinks<wPattern> links;
};

// The record of a handle, or null. An empty store is reported (-2), an absent handle is not. Of two
// records with the same handle, which only reading files can make, the older one is found.
sPattern* KTsPatternPtrGet(int handle);
wPattern* KTwPatternPtrGet(int handle);

// Takes a record out of its store and frees it: 0, or -1 for null and, after a report (-2), for an
// empty store.
int KTsPatternPtrFree(sPattern* pPattern);
int KTwPatternPtrFree(wPattern* pPattern);

namespace ktl::dtw {

inline constexpr Module module{"..\\_LIBSRC\\KT_DTW"};

// Scale arguments change their sign on the way into a conversion; the smallest int has no
// counterpart, and its nearest one does, because scales beyond some thousand all give 0 or
// infinity.
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

// The number of the calling thread's patterns.
int& patternCount(const sPattern* pPattern);
int& patternCount(const wPattern* pPattern);

// Counts a whole record and hangs it on the tail of its list, under its own handle or under the
// smallest free one. False, and the store is unchanged, when memory for the index ran out.
enum class Handle { own, smallestFree };
bool append(sPattern* pPattern, Handle handle);
bool append(wPattern* pPattern, Handle handle);

// A record in the making, zero-filled; freed with all that it got unless it joined its store. False
// when memory ran out.
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

    // Puts the record into its store and returns it, or null when memory ran out.
    const Pattern* join(Handle handle) {
        return append(record, handle) ? std::exchange(record, nullptr) : nullptr;
    }

private:
    Pattern* record;
};

} // namespace ktl::dtw
