// The cosine transform. Short lengths, and those that are no power of two up to a limit, are
// products with a matrix; powers of two from 128 on go through the real Fourier transform. Tables
// are made once for each method and length and found in lists without locks.
#include "context/vsqmem.h"
#include "levels/levels.h"
#include "transforms/vsqffts.h"

#include <bit>
#include <cmath>
#include <cstddef>
#include <new>

namespace vsq {
namespace {

constexpr Module module{"vsqdct"};
constexpr double pi = 3.141592653589793238462643383279502884;

// Powers of two from here on go through the FFT; below, the product is faster.
constexpr int fftFrom = 128;
constexpr int stackFloats = 1024;

// --- the tables: made once for each method and length, and then kept in lists that are only ever
// added to ---

enum class Method { forward, inverse, fft, cosines };

struct DctTable {
    DctTable* next;
    int n;
    Method method;
    DctMatrices matrices; // of the direct methods
    const float* values;  // of the other two
};

constexpr int nLists = 32;
constinit std::atomic<DctTable*> lists[nLists]{};

// cos(2 pi a / turn), the angle reduced by whole eighths, a below turn.
double cosineOf(unsigned long long a, unsigned long long turn) {
    if (2 * a > turn) a = turn - a;
    const bool mirrored = 4 * a > turn;
    if (mirrored) a = turn / 2 - a; // turn is even
    const double full = 2 * pi / static_cast<double>(turn);
    const double result = 8 * a <= turn ? std::cos(full * static_cast<double>(a))
                                        : std::sin(full * static_cast<double>(turn - 4 * a) / 4);
    return mirrored ? -result : result;
}

// cos(pi k (2 j + 1) / (2 n)) with the factor that makes the transform orthonormal.
float factorOf(int k, int j, int n) {
    const auto turn = 4ULL * static_cast<unsigned>(n);
    const double scale = std::sqrt((k == 0 ? 1.0 : 2.0) / n);
    return static_cast<float>(scale * cosineOf(static_cast<unsigned long long>(k) *
                                                   (2ULL * static_cast<unsigned>(j) + 1) % turn,
                                               turn));
}

std::ptrdiff_t matrixFloats(int results, int terms) {
    return std::ptrdiff_t{(results + dctRow - 1) / dctRow} * dctRow * terms;
}

// Forward, results are k = parity, parity + 2, ... and terms j; inverse the other way round.
void fillMatrix(float* matrix, int n, Method method, int parity, int results, int terms) {
    for (int row = 0; row < results; row += dctRow)
        for (int i = 0; i < terms; ++i)
            for (int r = row; r < row + dctRow; ++r, ++matrix) {
                const int k = 2 * (method == Method::forward ? r : i) + parity;
                *matrix = r < results ? factorOf(k, method == Method::forward ? i : r, n) : 0.0f;
            }
}

void fillDirect(DctTable& table, float* room) {
    const int n = table.n, half = n / 2;
    fillMatrix(room, n, table.method, 0, n - half, n - half);
    float* odd = room + matrixFloats(n - half, n - half);
    fillMatrix(odd, n, table.method, 1, half, half);
    table.matrices = {n, room, odd};
}

void fillFft(DctTable& table, float* room) {
    const int n = table.n;
    const auto turn = 4ULL * static_cast<unsigned>(n);
    const double scale = std::sqrt(2.0 / n);
    for (int k = 0; k < n / 2; ++k) {
        const auto a = static_cast<unsigned>(k);
        room[k] = static_cast<float>((k == 0 ? std::sqrt(1.0 / n) : scale) * cosineOf(a, turn));
        room[n / 2 + k] = static_cast<float>(scale * cosineOf(static_cast<unsigned>(n) - a, turn));
    }
    table.values = room;
}

void fillCosines(DctTable& table, float* room) {
    const auto turn = 4ULL * static_cast<unsigned>(table.n);
    for (unsigned long long a = 0; a < turn; ++a)
        room[a] = static_cast<float>(cosineOf(a, turn));
    table.values = room;
}

std::ptrdiff_t tableFloats(int n, Method method) {
    if (method == Method::fft) return n;
    // at most 2^33 floats, which malloc may refuse
    if (method == Method::cosines) return std::ptrdiff_t{n} * 4;
    return matrixFloats(n - n / 2, n - n / 2) + matrixFloats(n / 2, n / 2);
}

DctTable* buildTable(int n, Method method) {
    constexpr std::ptrdiff_t header = 64 / sizeof(float);
    static_assert(sizeof(DctTable) <= 64);
    if (method == Method::cosines && std::ptrdiff_t{n} > PTRDIFF_MAX / 32) return nullptr;
    float* block = allocAligned<float>(header + tableFloats(n, method));
    if (block == nullptr) return nullptr;
    DctTable* table = new (block) DctTable{nullptr, n, method, {}, nullptr};
    if (method == Method::fft)
        fillFft(*table, block + header);
    else if (method == Method::cosines)
        fillCosines(*table, block + header);
    else
        fillDirect(*table, block + header);
    return table;
}

const DctTable* findTable(const DctTable* list, int n, Method method) {
    while (list != nullptr && (list->n != n || list->method != method))
        list = list->next;
    return list;
}

const DctTable* dctTable(int n, Method method) {
    std::atomic<DctTable*>& list = lists[n % nLists];
    DctTable* head = list.load(std::memory_order_acquire);
    if (const DctTable* found = findTable(head, n, method)) return found;
    DctTable* made = buildTable(n, method);
    if (made == nullptr) return nullptr;
    do {
        if (const DctTable* found = findTable(head, n, method)) { // another thread was quicker
            freeAligned(made);
            return found;
        }
        made->next = head;
    } while (!list.compare_exchange_weak(head, made, std::memory_order_acq_rel,
                                         std::memory_order_acquire));
    return made;
}

void releaseTables() {
    for (std::atomic<DctTable*>& list : lists)
        for (DctTable* table = list.exchange(nullptr, std::memory_order_acq_rel);
             table != nullptr;) {
            DctTable* next = table->next;
            freeAligned(table);
            table = next;
        }
}

// --- the methods; each is false when memory for a table or scratch ran out ---

bool direct(const float* src, float* dst, int n, bool isForward) {
    const DctTable* table = dctTable(n, isForward ? Method::forward : Method::inverse);
    if (table == nullptr) return false;
    (isForward ? kernels().dct->forward : kernels().dct->inverse)(src, dst, table->matrices);
    return true;
}

// Lengths for which a matrix would be out of proportion: cosines by their angle, sums in double.
bool directLong(const float* work, float* dst, int n, bool isForward) {
    const DctTable* table = dctTable(n, Method::cosines);
    if (table == nullptr) return false;
    const auto turn = 4ULL * static_cast<unsigned>(n);
    const double first = std::sqrt(1.0 / n), other = std::sqrt(2.0 / n);
    for (int r = 0; r < n; ++r) {
        const unsigned long long step =
            isForward ? 2ULL * static_cast<unsigned>(r) : 2ULL * static_cast<unsigned>(r) + 1;
        unsigned long long angle = isForward ? static_cast<unsigned>(r) : 0U;
        double sum = 0.0;
        for (int i = 0; i < n; ++i) {
            sum += (isForward || i != 0 ? 1.0 : std::sqrt(0.5)) * work[i] * table->values[angle];
            angle += step;
            if (angle >= turn) angle -= turn;
        }
        dst[r] = static_cast<float>(sum * (isForward && r == 0 ? first : other));
    }
    return true;
}

// The work copy becomes the transform's input, dst its output.
bool byFft(const float* src, float* dst, float* work, int n, bool isForward) {
    const int order = std::countr_zero(static_cast<unsigned>(n));
    const DctTable* table = dctTable(n, Method::fft);
    const FftTables* fft = fftTables(order - 1);
    if (table == nullptr || fft == nullptr) return false;
    const DctKernels& kernel = *kernels().dct;
    if (isForward) {
        kernel.reorder(src, work, n);
        if (!realFft(work, work, order, VSQ_Forw | VSQ_RCPerm, fft)) return false;
        kernel.turn(work, dst, table->values, n);
    } else {
        kernel.turnBack(src, work, table->values, n);
        if (!realFft(work, work, order, VSQ_Inv | VSQ_RCPerm | VSQ_NoScale, fft)) return false;
        kernel.restore(work, dst, n);
    }
    return true;
}

bool transform(const float* src, float* dst, float* work, int n, bool isForward) {
    if (n >= fftFrom && (n & (n - 1)) == 0) return byFft(src, dst, work, n, isForward);
    for (int i = 0; i < n; ++i)
        work[i] = src[i];
    return directLong(work, dst, n, isForward);
}

bool transformWithCopy(const float* src, float* dst, int n, bool isForward) {
    if (n <= stackFloats) {
        alignas(64) float work[stackFloats];
        return transform(src, dst, work, n, isForward);
    }
    float* work = allocAligned<float>(n);
    if (work == nullptr) return false;
    const bool done = transform(src, dst, work, n, isForward);
    freeAligned(work);
    return done;
}

bool refuses(const void* src, const void* dst, int n, int flags, const char* funcName) {
    return module.refuses(src == nullptr || dst == nullptr, "\nNull pointer to data buffer\n",
                          funcName) ||
           module.refuses(n < 1, "\nBad value of data buffer size\n", funcName) ||
           module.refuses(flags != VSQ_DctForw && flags != VSQ_DctInv,
                          "\nBad value of the transform flag\n", funcName);
}

void reportNoMemory(const char* funcName) {
    module.report(stsNoMem, "\nMemory allocation problem\n", funcName);
}

void convertBetween(const short* src, short* dst, float* a, float* b, int n, int flags) {
    vsqsbIntToFloat(src, a, n, 16, 0);
    vsqsDct(a, b, n, flags);
    vsqsbFloatToInt(b, dst, n, 16, VSQ_RoundToZero | VSQ_Saturate);
}

} // namespace
} // namespace vsq

using namespace vsq;

void vsqsDct(const float* pSrc, float* pDst, int n, int flags) {
    if (flags == VSQ_DctFree) {
        releaseTables();
        return;
    }
    if (refuses(pSrc, pDst, n, flags, __func__)) return;
    const bool isForward = flags == VSQ_DctForw;
    const bool isShort = n < fftFrom || (n <= dctDirectLimit && (n & (n - 1)) != 0);
    const bool done =
        isShort ? direct(pSrc, pDst, n, isForward) : transformWithCopy(pSrc, pDst, n, isForward);
    if (!done) reportNoMemory(__func__);
}

void vsqwDct(const short* pSrc, short* pDst, int n, int flags) {
    if (flags == VSQ_DctFree) {
        releaseTables();
        return;
    }
    if (refuses(pSrc, pDst, n, flags, __func__)) return;
    if (n <= stackFloats) {
        alignas(64) float values[2][stackFloats];
        convertBetween(pSrc, pDst, values[0], values[1], n, flags);
        return;
    }
    float* values = allocAligned<float>(std::ptrdiff_t{n} * 2);
    if (values == nullptr) {
        reportNoMemory(__func__);
        return;
    }
    convertBetween(pSrc, pDst, values, values + n, n, flags);
    freeAligned(values);
}
