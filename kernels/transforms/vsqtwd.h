// Tables of the transforms: what the layer caches for the process, and who may use and release it.
//
// A table is built once, by whoever needs it first, and published by a compare-exchange on an
// atomic pointer; when two threads build the same table the later one throws its own away. Readers
// take no lock. Releasing is the application's affair: it frees tables only while no other thread
// runs a transform.
#pragma once

#include <atomic>
#include <cstddef>

namespace vsq {

struct UnitRoot {
    double re, im;
};

// exp(-2 pi i k / 2^order), the angle reduced by whole octants, so that roots which mirror each
// other are exact mirror images. k in 0 .. 2^order - 1, order 0 to 62.
UnitRoot unitRoot(unsigned long long k, int order);

inline constexpr int tableOrders = 32;  // orders 0 to 31
inline constexpr int mostRowPasses = 8; // enough for the largest order
// complex orders from here on keep their long tables as products
inline constexpr int twoLevelFrom = 14;

// What the passes over M = 2^order complex points need, one block of memory. The passes are:
// columns of 16 points, H = M / 16 apart, and then row passes over the H rows of 16 lanes that come
// out of them; see vsqffts_level.cpp. w(n, k) stands for exp(-2 pi i k / n).
struct FftTables {
    int order;
    int nPasses; // of rows; 0 below order 6, where one routine does it all
    // radix of each row pass as a power of two; their sum is order - 4
    int radixOrder[mostRowPasses];
    // Column twiddles w(M, p * k), k = 1 .. 15, for each block of 16 columns p (or all H, if those
    // are fewer): 15 times the real parts and then the imaginary parts. From twoLevelFrom on they
    // are products of columns[block][k - 1], a pair w(M, 16 * block * k), and the lanes w(M, lane *
    // k) in columnLanes, laid out as one block. Orders 4 and 5 have 4 columns p and k = 1 .. M / 4
    // - 1.
    const float* columns;
    const float* columnLanes;
    // Row twiddles, pass by pass but the last: for each p below n / r the r - 1 pairs w(n, p * k),
    // k = 1 .. r
    // - 1.
    const float* rows;
    // Split twiddles w(2 M, k) / 2 in blocks of 16 real and 16 imaginary parts, for all k below M;
    // below order 4, M real and M imaginary parts. From twoLevelFrom on the products of the pairs
    // split[block] and one block splitLanes.
    const float* split;
    const float* splitLanes;
};

// The tables for 2^order complex points, order 0 to 30, from the cache or built now; null when
// memory ran out.
const FftTables* fftTables(int order);

// Orders outside the range have no tables and are ignored.
void releaseFftTables(int order);
void releaseAllFftTables();

// A block of floats kept between calls: taken out of its slot while in use, so that no two calls
// ever share it.
class WorkCache {
public:
    // At least `count` floats, 64-byte aligned, content arbitrary; null when memory ran out.
    float* take(std::ptrdiff_t count);
    // Gives the block back; the slot keeps the last one that came.
    void give(float* block);
    void release();

private:
    std::atomic<float*> slot{nullptr};
};

// A block on loan from a cache, for the length of a scope.
class WorkLoan {
public:
    WorkLoan(WorkCache& from, std::ptrdiff_t count) : cache(from), block(from.take(count)) {}
    ~WorkLoan() {
        if (block != nullptr) cache.give(block);
    }
    WorkLoan(const WorkLoan&) = delete;
    WorkLoan& operator=(const WorkLoan&) = delete;
    float* get() const { return block; }

private:
    WorkCache& cache;
    float* block;
};

// Scratch of the float transforms that are too long for the stack, and the fixed-point transform's
// float samples.
WorkCache& fftScratch();
WorkCache& fixedFftSamples();

// Everything that the transforms keep, for a second try when memory ran out.
void releaseTransformCaches();

} // namespace vsq
