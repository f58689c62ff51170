// The transforms' tables, one per order, built on first use and published by a compare-and-swap: no
// lock, and a thread that loses the race frees its own copy. Also the working memory that calls
// lend each other.
#include "transforms/vsqtwd.h"

#include "context/vsqcontext.h"
#include "context/vsqmem.h"

#include <cmath>
#include <new>

namespace vsq {
namespace {

constexpr Module module{"vsqtwd"};
constexpr double pi = 3.141592653589793238462643383279502884;

// One block per order, published once. The builder's `free` must fit its `build`.
template <class T>
struct Slots {
    std::atomic<T*> slot[tableOrders];

    template <class Build, class Free>
    T* get(int order, Build build, Free free) {
        T* table = slot[order].load(std::memory_order_acquire);
        if (table != nullptr) return table;
        T* made = build(order);
        if (made == nullptr) return nullptr;
        if (slot[order].compare_exchange_strong(table, made, std::memory_order_acq_rel))
            return made;
        free(made);
        return table;
    }

    template <class Free>
    void release(int order, Free free) {
        free(slot[order].exchange(nullptr, std::memory_order_acq_rel));
    }
};

constinit Slots<int> bitRevTables{};
constinit Slots<float> twiddleTables{};
constinit Slots<FftTables> workingTables{};
constinit WorkCache scratchCache;
constinit WorkCache fixedCache;

// The complex twiddles of long orders are followed by a table of a quarter turn in equal steps.
constexpr int secondLevelFrom = 15;
constexpr int secondLevelEntries = 4096;
constexpr double secondLevelStep = 0.0003834951969714103; // 2 pi / 2^14

int* buildBitRev(int order) {
    int* table = allocAligned<int>(std::ptrdiff_t{1} << order);
    if (table != nullptr) vsqCalcBitRevTbl(table, order);
    return table;
}

float* buildTwiddles(int order) {
    // Pairs are counted, not floats: a count that the address space cannot hold comes out negative
    // and is refused.
    auto* table = static_cast<float*>(allocAligned(std::ptrdiff_t{1} << order, 2 * sizeof(float)));
    if (table != nullptr) vsqcCalcFftTwdTbl(table, order);
    return table;
}

bool badOrder(int order, const char* funcName) {
    return module.refuses(order < 0, "order<0", funcName) ||
           module.refuses(order > 31, "order>31", funcName);
}

template <class T, class Build>
const T* cachedTable(Slots<T>& slots, int order, Build build, const char* funcName) {
    if (badOrder(order, funcName) || vsqGetStatus() < 0) return nullptr;
    const T* table = slots.get(order, build, [](T* block) { freeAligned(block); });
    if (table == nullptr) module.report(stsNoMem, "NULL Pointer", funcName);
    return table;
}

// --- the working tables ---

// How the rows are passed over: as few passes as possible, the last one of radix 8 where there are
// several, since the split step goes with it and wants the registers.
int chooseRadices(int rowOrder, int* radixOrder) {
    if (rowOrder < 2) return 0;
    if (rowOrder <= 4) {
        radixOrder[0] = rowOrder;
        return 1;
    }
    if (rowOrder == 8) {
        radixOrder[0] = radixOrder[1] = 4;
        return 2;
    }
    int n = 0;
    int rest = rowOrder - 3;
    while (rest > 0) {
        const int radix = rest % 4 == 0 ? 4 : rest >= 3 ? 3 : rest;
        radixOrder[n++] = radix;
        rest -= radix;
    }
    radixOrder[n++] = 3;
    return n;
}

struct Sizes {
    std::size_t columns, columnLanes, rows, split, splitLanes;
    std::size_t total() const { return columns + columnLanes + rows + split + splitLanes; }
};

constexpr std::size_t rounded(std::size_t n) {
    return (n + 15) & ~std::size_t{15};
}

Sizes sizesOf(const FftTables& tables) {
    const std::size_t points = std::size_t{1} << tables.order;
    Sizes sizes{};
    sizes.split = 2 * points;
    if (tables.order == 4 || tables.order == 5) sizes.columns = 8 * (points / 4 - 1);
    if (tables.nPasses == 0) return sizes;
    const std::size_t height = points / 16;
    sizes.columns = 2 * 15 * height;
    std::size_t length = height;
    for (int i = 0; i + 1 < tables.nPasses; ++i) {
        const std::size_t radix = std::size_t{1} << tables.radixOrder[i];
        sizes.rows += 2 * (radix - 1) * (length / radix);
        length /= radix;
    }
    sizes.rows = rounded(sizes.rows);
    if (tables.order >= twoLevelFrom) {
        sizes.columns = rounded(2 * 15 * (height / 16));
        sizes.columnLanes = 2 * 15 * 16;
        sizes.split = 2 * height;
        sizes.splitLanes = 32;
    }
    return sizes;
}

void setRoot(float* re, float* im, unsigned long long k, int order, double factor) {
    const UnitRoot root = unitRoot(k & ((1ULL << order) - 1), order);
    *re = static_cast<float>(root.re * factor);
    *im = static_cast<float>(root.im * factor);
}

// radix - 1 times `width` real and `width` imaginary parts of w(2^order, (first + lane) * k).
float* fillColumnBlock(float* p, unsigned long long first, int width, int order,
                       unsigned radix = 16) {
    for (unsigned k = 1; k < radix; ++k, p += 2 * width)
        for (int lane = 0; lane < width; ++lane)
            setRoot(p + lane, p + width + lane, (first + static_cast<unsigned>(lane)) * k, order,
                    1.0);
    return p;
}

void fillColumns(float* columns, float* lanes, int order) {
    const unsigned long long height = 1ULL << (order - 4);
    if (order < twoLevelFrom) {
        const unsigned width = height < 16 ? static_cast<unsigned>(height) : 16U;
        for (unsigned long long p = 0; p < height; p += width)
            columns = fillColumnBlock(columns, p, static_cast<int>(width), order);
        return;
    }
    fillColumnBlock(lanes, 0, 16, order);
    for (unsigned long long p = 0; p < height; p += 16)
        for (unsigned k = 1; k < 16; ++k, columns += 2)
            setRoot(columns, columns + 1, p * k, order, 1.0);
}

void fillRows(float* rows, const FftTables& tables) {
    int length = tables.order - 4;
    for (int i = 0; i + 1 < tables.nPasses; ++i) {
        const unsigned radix = 1U << tables.radixOrder[i];
        const unsigned long long positions = 1ULL << (length - tables.radixOrder[i]);
        for (unsigned long long p = 0; p < positions; ++p)
            for (unsigned k = 1; k < radix; ++k, rows += 2)
                setRoot(rows, rows + 1, p * k, length, 1.0);
        length -= tables.radixOrder[i];
    }
}

void fillSplit(float* split, float* lanes, int order) {
    const unsigned long long points = 1ULL << order;
    if (order >= twoLevelFrom) {
        for (unsigned long long k = 0; k < points; k += 16, split += 2)
            setRoot(split, split + 1, k, order + 1, 0.5);
        for (unsigned k = 0; k < 16; ++k)
            setRoot(lanes + k, lanes + 16 + k, k, order + 1, 1.0);
        return;
    }
    const unsigned long long width = points < 16 ? points : 16;
    for (unsigned long long k = 0; k < points; ++k) {
        float* block = split + k / width * 2 * width + k % width;
        setRoot(block, block + width, k, order + 1, 0.5);
    }
}

FftTables* buildFftTables(int order) {
    constexpr std::size_t header = rounded((sizeof(FftTables) + sizeof(float) - 1) / sizeof(float));
    FftTables tables{};
    tables.order = order;
    tables.nPasses = order < 6 ? 0 : chooseRadices(order - 4, tables.radixOrder);
    const Sizes sizes = sizesOf(tables);
    float* block = allocAligned<float>(static_cast<std::ptrdiff_t>(header + sizes.total()));
    if (block == nullptr) return nullptr;
    float* columns = block + header;
    float* columnLanes = columns + sizes.columns;
    float* rows = columnLanes + sizes.columnLanes;
    float* split = rows + sizes.rows;
    float* splitLanes = split + sizes.split;
    if (order == 4 || order == 5) fillColumnBlock(columns, 0, 4, order, 1U << (order - 2));
    if (tables.nPasses > 0) {
        fillColumns(columns, columnLanes, order);
        fillRows(rows, tables);
    }
    fillSplit(split, splitLanes, order);
    tables.columns = columns;
    tables.columnLanes = columnLanes;
    tables.rows = rows;
    tables.split = split;
    tables.splitLanes = splitLanes;
    return new (block) FftTables(tables);
}

void freeFftTables(FftTables* tables) {
    freeAligned(tables);
}

// --- work blocks: the capacity stands in the first of 16 floats' room in front ---

constexpr std::ptrdiff_t blockHeader = 64 / sizeof(float);

std::ptrdiff_t& capacityOf(float* block) {
    return *reinterpret_cast<std::ptrdiff_t*>(block - blockHeader);
}

void freeWork(float* block) {
    if (block != nullptr) freeAligned(block - blockHeader);
}

} // namespace

UnitRoot unitRoot(unsigned long long k, int order) {
    // Eighths of a turn: an odd one is walked backwards from its end, so every angle lies in 0 ..
    // pi / 4.
    const unsigned long long turn = 1ULL << order;
    const unsigned long long scaled = k * 8;
    const unsigned octant = static_cast<unsigned>(scaled >> order);
    const unsigned long long part =
        octant % 2 == 0 ? scaled - octant * turn : (octant + 1) * turn - scaled;
    const double angle = static_cast<double>(part) / static_cast<double>(turn) * (pi / 4);
    // At pi / 4 itself both are the same number, which the library functions need not see.
    const double c = part == turn ? std::sqrt(0.5) : std::cos(angle);
    const double s = part == turn ? c : std::sin(angle);
    switch (octant) {
    case 0:
        return {c, -s};
    case 1:
        return {s, -c};
    case 2:
        return {-s, -c};
    case 3:
        return {-c, -s};
    case 4:
        return {-c, s};
    case 5:
        return {-s, c};
    case 6:
        return {s, c};
    default:
        return {c, s};
    }
}

const FftTables* fftTables(int order) {
    return workingTables.get(order, buildFftTables, freeFftTables);
}

void releaseFftTables(int order) {
    if (order >= 0 && order < tableOrders) workingTables.release(order, freeFftTables);
}

void releaseAllFftTables() {
    for (int order = 0; order < tableOrders; ++order)
        releaseFftTables(order);
}

float* WorkCache::take(std::ptrdiff_t count) {
    constexpr auto largest = PTRDIFF_MAX / static_cast<std::ptrdiff_t>(sizeof(float)) - blockHeader;
    if (count < 0 || count > largest) return nullptr;
    float* block = slot.exchange(nullptr, std::memory_order_acq_rel);
    if (block != nullptr && capacityOf(block) >= count) return block;
    freeWork(block);
    float* raw = allocAligned<float>(count + blockHeader);
    if (raw == nullptr) return nullptr;
    new (raw) std::ptrdiff_t(count);
    return raw + blockHeader;
}

void WorkCache::give(float* block) {
    freeWork(slot.exchange(block, std::memory_order_acq_rel));
}

void WorkCache::release() {
    give(nullptr);
}

WorkCache& fftScratch() {
    return scratchCache;
}

WorkCache& fixedFftSamples() {
    return fixedCache;
}

void releaseTransformCaches() {
    vsqFreeFftTbls();
    vsqsFreeRealFftTbls();
    vsqwFreeRealFftTbls();
}

} // namespace vsq

using namespace vsq;

const int* vsqGetBitRevTbl(int order) {
    return cachedTable(bitRevTables, order, buildBitRev, __func__);
}

const float* vsqcGetFftTwdTbl(int order) {
    return cachedTable(twiddleTables, order, buildTwiddles, __func__);
}

void vsqCalcBitRevTbl(int* tbl, int order) {
    if (badOrder(order, __func__) || module.refuses(tbl == nullptr, "tbl==0")) return;
    // The second half repeats the first one with the lowest bit set; each doubling of the table
    // appends a bit.
    tbl[0] = 0;
    for (int bit = 0; bit < order; ++bit) {
        const std::ptrdiff_t half = std::ptrdiff_t{1} << bit;
        for (std::ptrdiff_t i = 0; i < half; ++i)
            tbl[half + i] = tbl[i] | (1 << (order - 1 - bit));
    }
}

void vsqcCalcFftTwdTbl(float* tbl, int order) {
    if (badOrder(order, __func__) || module.refuses(tbl == nullptr, "tbl==0")) return;
    const std::ptrdiff_t entries = order < 1 ? 1 : std::ptrdiff_t{1} << (order - 1);
    for (std::ptrdiff_t k = 0; k < entries; ++k)
        setRoot(tbl + 2 * k, tbl + 2 * k + 1, static_cast<unsigned long long>(k), order, 1.0);
    if (order < secondLevelFrom) return;
    for (int k = 0; k < secondLevelEntries; ++k) {
        tbl[2 * (entries + k)] = static_cast<float>(std::cos(k * secondLevelStep));
        tbl[2 * (entries + k) + 1] = static_cast<float>(-std::sin(k * secondLevelStep));
    }
}

void vsqFreeFftTbls(void) {
    for (int order = 0; order < tableOrders; ++order) {
        bitRevTables.release(order, [](int* table) { freeAligned(table); });
        twiddleTables.release(order, [](float* table) { freeAligned(table); });
    }
}

void vsqsFreeRealFftTbls(void) {
    releaseAllFftTables();
    fftScratch().release();
}

void vsqwFreeRealFftTbls(void) {
    fixedFftSamples().release();
}
