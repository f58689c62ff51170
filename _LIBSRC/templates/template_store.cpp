// The pattern stores: creation, lookup, release. One text for both numeric forms over a description
// of each.
#include "templates/KT_DTW.h"

#include "frame/numeric.h"
#include "frame/scratch.h"

#include <cstdlib>
#include <cstring>

namespace ktl::dtw {
namespace {

// A text in which the numeric form's letter stands for each '@'.
template <std::size_t n>
struct Text {
    char chars[n];
    consteval Text(const char (&pattern)[n], char letter) : chars{} {
        for (std::size_t i = 0; i < n; ++i)
            chars[i] = pattern[i] == '@' ? letter : pattern[i];
    }
    constexpr operator const char*() const { return chars; }
};

// What the reports of a store say, and under which names.
template <char letter>
struct Reports {
    static constexpr Text empty{"@Patterns have not been initialized.", letter};
    static constexpr Text noMemory{"@Pattern can not be allocated", letter};
    static constexpr Text badSize{"nVectors<0 or nDim<=0", letter};
    static constexpr Text unknown{
        "@Pattern NULL ptr is met in internal structure. The @Pattern can not be free.", letter};
    static constexpr Text damaged{"Error in internal structure. @Patterns have not be allocated.",
                                  letter};
    static constexpr Text notFreed{"Error in internal structure. @Pattern can not be free", letter};
    static constexpr Text iniName{"KT@PatternIni", letter};
    static constexpr Text ptrGetName{"KT@PatternPtrGet", letter};
    static constexpr Text ptrFreeName{"KT@PatternPtrFree", letter};
    static constexpr Text freeName{"KT@PatternFree", letter};
    static constexpr Text freeAllName{"KT@PatternFreeAll", letter};
};

// What tells the numeric forms apart: what their reports say, and where the context keeps the
// store.
template <class Pattern>
struct Store;
template <>
struct Store<sPattern> : Reports<FloatForm::letter> {
    static sPattern*& head(KTContext* context) { return context->sPatternList; }
    static int& count(KTContext* context) { return context->nFloatPatterns; }
};
template <>
struct Store<wPattern> : Reports<FixedForm::letter> {
    static wPattern*& head(KTContext* context) { return context->wPatternList; }
    static int& count(KTContext* context) { return context->nFixedPatterns; }
};

// The index of a list, which goes with its last record; a new one for an empty list. Null when
// memory ran out.
template <class Pattern>
PatternIndex<Pattern>* indexOf(const Pattern* head) {
    if (head != nullptr) return head->links.index;
    return zeroed<PatternIndex<Pattern>>();
}

template <class Pattern>
void freeIndex(PatternIndex<Pattern>* index) {
    index->release();
    std::free(index);
}

template <class Pattern>
bool appendTo(Pattern* record, Handle handle) {
    using S = Store<Pattern>;
    KTContext* context = KTGetContext();
    Pattern*& head = S::head(context);
    PatternIndex<Pattern>* index = indexOf(head);
    if (index == nullptr) return false;
    if (!index->reserve(head)) {
        if (head == nullptr) freeIndex(index);
        return false;
    }
    if (handle == Handle::smallestFree) record->handle = index->freeHandle();
    record->links.index = index;
    index->enter(record);
    record->isFirst = head == nullptr;
    record->prev = index->tail;
    (head == nullptr ? head : index->tail->next) = record;
    index->tail = record;
    ++S::count(context);
    return true;
}

template <class Pattern>
Pattern* find(int handle) {
    using S = Store<Pattern>;
    KTContext* context = KTGetContext();
    const Pattern* p = S::head(context);
    if (S::count(context) == 0 || p == nullptr) {
        module.report(KT_StsUnknownErr, S::empty, S::ptrGetName);
        return nullptr;
    }
    return p->links.index->find(handle);
}

template <class Pattern>
void unlink(Pattern*& head, Pattern* record) {
    PatternIndex<Pattern>* index = record->links.index;
    index->remove(record);
    (record->next != nullptr ? record->next->prev : index->tail) = record->prev;
    if (record->isFirst == 0) {
        record->prev->next = record->next;
    } else {
        head = record->next;
        if (head != nullptr)
            head->isFirst = 1;
        else
            freeIndex(index);
    }
}

template <class Pattern>
int freeOne(Pattern* record) {
    using S = Store<Pattern>;
    if (record == nullptr) return -1;
    KTContext* context = KTGetContext();
    if (S::count(context) == 0 || S::head(context) == nullptr) {
        module.report(KT_StsUnknownErr, S::damaged, S::ptrFreeName);
        return -1;
    }
    unlink(S::head(context), record);
    --S::count(context);
    freeRecord(record);
    return 0;
}

template <class Pattern>
int freeByHandle(int handle) {
    Pattern* record = find<Pattern>(handle);
    if (record != nullptr) return freeOne(record);
    module.report(KT_StsUnknownErr, Store<Pattern>::unknown, Store<Pattern>::freeName);
    return -1;
}

// The record, or null where it is not, or no longer, in its store.
template <class Pattern>
Pattern* stillStored(Pattern* record) {
    Pattern* p = Store<Pattern>::head(KTGetContext());
    while (p != nullptr && p != record)
        p = p->next;
    return p;
}

// Goes on after a failure, as far as the handler of its reports has left anything.
template <class Pattern>
int freeAll() {
    int result = 0;
    for (Pattern *p = Store<Pattern>::head(KTGetContext()), *next; p != nullptr; p = next) {
        next = p->next;
        if (freeOne(p) == 0) continue;
        module.report(KT_StsUnknownErr, Store<Pattern>::notFreed, Store<Pattern>::freeAllName);
        next = stillStored(next);
        result = -1;
    }
    return result;
}

// Vectors of no elements are refused, like negative counts; a pattern of no vectors may be stored,
// and never matches.
template <class Pattern>
bool sizesAccepted(int nVectors, int nDim) {
    if (nVectors == 0 || (nVectors > 0 && nDim > 0)) return true;
    module.report(KT_StsBadArg, Store<Pattern>::badSize, Store<Pattern>::iniName);
    return false;
}

bool fill(sPattern& pattern, float** ppVectors) {
    pattern.pData = KTsAlloc2(pattern.nVectors, pattern.nDim);
    if (pattern.pData == nullptr) return false;
    for (int i = 0; i < pattern.nVectors; ++i)
        std::memcpy(pattern.pData[i], ppVectors[i],
                    sizeof(float) * static_cast<std::size_t>(pattern.nDim));
    return true;
}

// Real values are exact multiples of 2^scale, short of the ends of a float's range.
bool fill(wPattern& pattern, short** ppVectors) {
    pattern.pData = KTwAlloc2(pattern.nVectors, pattern.nDim);
    if (pattern.pData == nullptr) return false;
    pattern.pFloatData = KTsAlloc2(pattern.nVectors, pattern.nDim);
    if (pattern.pFloatData == nullptr) return false;
    for (int i = 0; i < pattern.nVectors; ++i) {
        KTwsbConvertUp(ppVectors[i], pattern.pFloatData[i], pattern.nDim, negated(pattern.scale));
        std::memcpy(pattern.pData[i], ppVectors[i],
                    sizeof(short) * static_cast<std::size_t>(pattern.nDim));
    }
    return true;
}

template <class Pattern, class Sample>
int create(NewRecord<Pattern>& record, Sample** ppVectors, int nVectors, int nDim) {
    if (record) {
        record->nVectors = nVectors;
        record->nDim = nDim;
        const Pattern* joined =
            fill(*record, ppVectors) ? record.join(Handle::smallestFree) : nullptr;
        if (joined != nullptr) return joined->handle;
    }
    module.report(KT_StsNoMem, Store<Pattern>::noMemory, Store<Pattern>::iniName);
    return -1;
}

// Output pointers may be null where the caller has no use for a value.
template <class T>
void give(T* pOut, T value) {
    if (pOut != nullptr) *pOut = value;
}

} // namespace

template <class Pattern>
NewRecord<Pattern>::NewRecord() : record(zeroed<Pattern>()) {
}
template class NewRecord<sPattern>;
template class NewRecord<wPattern>;

void freeRecord(sPattern* pPattern) {
    if (pPattern == nullptr) return;
    KTFree2(pPattern->pData);
    std::free(pPattern);
}

void freeRecord(wPattern* pPattern) {
    if (pPattern == nullptr) return;
    KTFree2(pPattern->pFloatData);
    KTFree2(pPattern->pData);
    std::free(pPattern);
}

int& patternCount(const sPattern*) {
    return Store<sPattern>::count(KTGetContext());
}
int& patternCount(const wPattern*) {
    return Store<wPattern>::count(KTGetContext());
}

bool append(sPattern* pPattern, Handle handle) {
    return appendTo(pPattern, handle);
}
bool append(wPattern* pPattern, Handle handle) {
    return appendTo(pPattern, handle);
}

} // namespace ktl::dtw

using namespace ktl::dtw;

sPattern* KTsPatternPtrGet(int handle) {
    return find<sPattern>(handle);
}
wPattern* KTwPatternPtrGet(int handle) {
    return find<wPattern>(handle);
}

int KTsPatternPtrFree(sPattern* pPattern) {
    return freeOne(pPattern);
}
int KTwPatternPtrFree(wPattern* pPattern) {
    return freeOne(pPattern);
}

int KTsPatternIni(float** ppVectors, int nVectors, int nDim) {
    if (!sizesAccepted<sPattern>(nVectors, nDim)) return -1;
    NewRecord<sPattern> record;
    return create(record, ppVectors, nVectors, nDim);
}

int KTwPatternIni(short** ppVectors, int nVectors, int nDim, int scale) {
    if (!sizesAccepted<wPattern>(nVectors, nDim)) return -1;
    NewRecord<wPattern> record;
    if (record) record->scale = scale;
    return create(record, ppVectors, nVectors, nDim);
}

int KTsPatternGet(int handle, float*** pppVectors, int* pnVectors, int* pnDim) {
    const sPattern* p = KTsPatternPtrGet(handle);
    if (p == nullptr) return 0;
    give(pppVectors, p->pData);
    give(pnVectors, p->nVectors);
    give(pnDim, p->nDim);
    return handle;
}

int KTwPatternGet(int handle, short*** pppVectors, int* pnVectors, int* pnDim, int* pScale) {
    const wPattern* p = KTwPatternPtrGet(handle);
    if (p == nullptr) return 0;
    give(pppVectors, p->pData);
    give(pnVectors, p->nVectors);
    give(pnDim, p->nDim);
    give(pScale, p->scale);
    return handle;
}

int KTsPatternFree(int handle) {
    return freeByHandle<sPattern>(handle);
}
int KTwPatternFree(int handle) {
    return freeByHandle<wPattern>(handle);
}

int KTsPatternFreeAll(void) {
    return freeAll<sPattern>();
}
int KTwPatternFreeAll(void) {
    return freeAll<wPattern>();
}

int KTsPatternsNumber(void) {
    return KTGetContext()->nFloatPatterns;
}
int KTwPatternsNumber(void) {
    return KTGetContext()->nFixedPatterns;
}
