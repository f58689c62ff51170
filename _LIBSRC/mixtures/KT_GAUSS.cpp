// The mixture server: its block, initialisation, release, and the thread's work tables.
#include "mixtures/mixture_block.h"

#include "levels/levels.h"

#include <algorithm>
#include <cmath>

namespace ktl::gauss {
namespace {

// Products of sizes stop growing here: anything above 2 GB is refused, so the exact value does not
// matter.
constexpr std::int64_t enough = std::int64_t(1) << 32;
constexpr std::int64_t capped(std::int64_t a, std::int64_t b) {
    return std::min(a * b, enough); // a is at most 2^32 and b at most 2^31
}

constexpr std::uintptr_t blockAlignment = 16;
constexpr std::size_t naturalReserve = sizeof(GaussMixServer) + blockAlignment - 1;

std::int64_t countBytes(const Shape& shape, int elementBytes, int vectorBytes, int pointerBytes) {
    const std::int64_t dimPad = padded(shape.nDim), mixPad = padded(shape.nMix);
    const std::int64_t rowElements = capped(shape.nMix, dimPad);
    const std::int64_t rows = capped(rowElements, elementBytes);
    std::int64_t bytes = mixPad * vectorBytes + rows + 2 * mixPad * pointerBytes;
    if (shape.full)
        bytes += capped(rows, shape.nDim) + rowElements * pointerBytes;
    else
        bytes += rows;
    return bytes;
}

unsigned char* alignedStart(GaussMixServer* server) {
    return aligned<unsigned char>(server + 1, blockAlignment);
}

// Hands out the block's arrays one after the other.
class Cutter {
public:
    explicit Cutter(unsigned char* start) : next(start) {}

    template <class U>
    U* take(std::ptrdiff_t count) {
        auto* array = reinterpret_cast<U*>(next);
        next += count * std::ptrdiff_t(sizeof(U));
        return array;
    }

    // A table of `room` pointers, not yet set.
    template <class T>
    T** takeTable(int room) {
        return take<T*>(room);
    }

    template <class T>
    void takeRows(T** table, int rows, int rowElements) {
        for (int i = 0; i < rows; ++i)
            table[i] = take<T>(rowElements);
    }

private:
    unsigned char* next;
};

template <class T>
void cutMatrices(Cutter& cutter, GaussMixServer* server, int dimPad, int mixPad) {
    T*** tables = cutter.take<T**>(mixPad);
    for (int k = 0; k < server->nMix; ++k)
        tables[k] = cutter.takeTable<T>(dimPad);
    for (int k = 0; k < server->nMix; ++k)
        cutter.takeRows(tables[k], server->nDim, dimPad);
    server->pppInverseCov = tables;
}

template <class T>
void cutRows(Cutter& cutter, void*& field, const GaussMixServer* server, int dimPad, int mixPad) {
    T** table = cutter.takeTable<T>(mixPad);
    cutter.takeRows(table, server->nMix, dimPad);
    field = table;
}

template <class T>
void setPointers(GaussMixServer* server, bool full) {
    const int dimPad = padded(server->nDim), mixPad = padded(server->nMix);
    Cutter cutter(alignedStart(server));
    if constexpr (std::is_same_v<T, float>) server->pNormWeights = cutter.take<float>(mixPad);
    server->pWork = cutter.take<typename Form<T>::Sum>(mixPad);
    server->pWeights = cutter.take<T>(mixPad);
    cutRows<T>(cutter, server->ppMeans, server, dimPad, mixPad);
    if (full)
        cutMatrices<T>(cutter, server, dimPad, mixPad);
    else
        cutRows<T>(cutter, server->ppInverseCovD, server, dimPad, mixPad);
}

} // namespace

bool representable(const Shape& shape, int elementBytes, int vectorBytes) {
    constexpr int largest = 0x7FFFFFFF;
    if (shape.nDim < 1 || shape.nMix < 1 || shape.nDim > largest - 3 || shape.nMix > largest - 3)
        return false;
    return countBytes(shape, elementBytes, vectorBytes, 4) <= largest - imageReserve;
}

std::size_t dataBytes(const Shape& shape, int elementBytes, int vectorBytes, int pointerBytes) {
    return static_cast<std::size_t>(countBytes(shape, elementBytes, vectorBytes, pointerBytes));
}

template <class T>
GaussMixServer* createServer(const Shape& shape) {
    if (!representable<T>(shape)) return nullptr;
    const std::size_t size = naturalReserve + dataBytes<T>(shape, int(sizeof(void*)));
    auto* server = static_cast<GaussMixServer*>(std::calloc(size, 1));
    if (server == nullptr) return nullptr;
    server->nDim = shape.nDim;
    server->nMix = shape.nMix;
    server->flags = Form<T>::flag | (shape.full ? KT_GAUSS_FULL : KT_GAUSS_DIAGONAL);
    server->nObservations = 1;
    server->nBytes = static_cast<int>(imageReserve + dataBytes<T>(shape, 4));
    setPointers<T>(server, shape.full);
    return server;
}
template GaussMixServer* createServer<float>(const Shape&);
template GaussMixServer* createServer<short>(const Shape&);

template <class T>
GaussMixServer* createOrReport(const Shape& shape, const char* funcName, int line) {
    if (shape.nDim < 1 || shape.nMix < 1) return nullptr;
    GaussMixServer* server = createServer<T>(shape);
    if (server == nullptr) module.report(KT_StsNoMem, noBlock, funcName, line);
    return server;
}
template GaussMixServer* createOrReport<float>(const Shape&, const char*, int);
template GaussMixServer* createOrReport<short>(const Shape&, const char*, int);

WorkMatrix workMatrix(int n) {
    KTContext* context = KTGetContext();
    const auto wide = static_cast<std::size_t>(n);
    const auto stride = static_cast<std::size_t>(padded(n));
    const std::size_t head = wide * (sizeof(float*) + sizeof(int)) + blockAlignment - 1;
    if (n > context->gaussBufferLen &&
        !renewBlock(context->gaussBuffer, context->gaussBufferLen, n, std::free,
                    [=] { return std::malloc(head + wide * stride * sizeof(float)); }))
        return {};
    auto* rows = static_cast<float**>(context->gaussBuffer);
    auto* pivots = reinterpret_cast<int*>(rows + n);
    auto* row = aligned<float>(pivots + n, blockAlignment);
    for (int i = 0; i < n; ++i, row += stride)
        rows[i] = row;
    return {rows, pivots};
}

ScaledProduct determinant(float* const* rows, int n) {
    return vsq::kernels().gauss->determinant(rows, n);
}

ScaledProduct diagonalDeterminant(const float* diagonal, int n) {
    ScaledProduct product{1.0, 0};
    for (int i = 0; i < n; ++i)
        product.times(double(diagonal[i]));
    return product;
}

namespace {

// value * 2^(steps / 2) in the steps of a scaled product. So many of them lead out of a double's
// range for whatever a weight and a root can be.
double stepped(double value, int steps) {
    constexpr int halfStep = 200, most = 20;
    static_assert(ScaledProduct::step == 0x1p400);
    return std::ldexp(value, halfStep * std::clamp(steps, -most, most));
}

} // namespace

double timesRoot(double weight, const ScaledProduct& det) {
    return stepped(weight * std::sqrt(std::fabs(det.part)), det.steps);
}

double overRoot(double weight, const ScaledProduct& det) {
    return stepped(weight / std::sqrt(std::fabs(det.part)), -det.steps);
}

namespace {

// KT_GAUSS_NORMALIZE folds the root of the inverse covariance's determinant into a weight.
bool normalizeWeights(GaussMixServer* server) {
    const int n = server->nDim;
    const WorkMatrix work = isFull(server) ? workMatrix(n) : WorkMatrix{};
    if (isFull(server) && work.rows == nullptr) return false;
    for (int k = 0; k < server->nMix; ++k) {
        for (int i = 0; isFull(server) && i < n; ++i)
            std::copy_n(matrices<float>(server)[k][i], n, work.rows[i]);
        const ScaledProduct det = isFull(server)
                                      ? determinant(work.rows, n)
                                      : diagonalDeterminant(diagonals<float>(server)[k], n);
        server->pNormWeights[k] = float(timesRoot(double(server->pNormWeights[k]), det));
    }
    return true;
}

template <class T>
void copyInputs(GaussMixServer* server, const T* pWeights, T** ppMeans, T*** pppInverseCov,
                T** ppInverseCovD) {
    const int n = server->nDim;
    std::copy_n(pWeights, server->nMix, weights<T>(server));
    for (int k = 0; k < server->nMix; ++k) {
        std::copy_n(ppMeans[k], n, means<T>(server)[k]);
        if (ppInverseCovD != nullptr) std::copy_n(ppInverseCovD[k], n, diagonals<T>(server)[k]);
        for (int i = 0; ppInverseCovD == nullptr && i < n; ++i)
            std::copy_n(pppInverseCov[k][i], n, matrices<T>(server)[k][i]);
    }
}

template <class T>
GaussMixServer* initServer(const T* pWeights, T** ppMeans, T*** pppInverseCov, T** ppInverseCovD,
                           Shape shape, int flags, const char* funcName) {
    if ((pppInverseCov == nullptr) == (ppInverseCovD == nullptr)) {
        module.report(KT_StsBadArg, bothOrNeither, funcName);
        return nullptr;
    }
    if (pWeights == nullptr || ppMeans == nullptr) return nullptr;
    shape.full = ppInverseCovD == nullptr;
    GaussMixServer* server = createOrReport<T>(shape, funcName);
    if (server == nullptr) return nullptr;
    copyInputs(server, pWeights, ppMeans, pppInverseCov, ppInverseCovD);
    server->flags |= flags & KT_GAUSS_NORMALIZE;
    return server;
}

} // namespace
} // namespace ktl::gauss

using namespace ktl::gauss;

GaussMixServer* KTsInitGaussMixServer(const float* pWeights, float** ppMeans,
                                      float*** pppInverseCov, float** ppInverseCovD, int nDim,
                                      int nMix, int flags) {
    GaussMixServer* server = initServer<float>(pWeights, ppMeans, pppInverseCov, ppInverseCovD,
                                               {nDim, nMix, false}, flags, "KTsInitGaussMixServer");
    if (server == nullptr) return nullptr;
    std::copy_n(weights<float>(server), nMix, server->pNormWeights);
    if ((flags & KT_GAUSS_NORMALIZE) != 0 && !normalizeWeights(server)) {
        module.report(KT_StsNoMem, noTable);
        std::free(server);
        return nullptr;
    }
    return server;
}

GaussMixServer* KTwInitGaussMixServer(const short* pWeights, short** ppMeans,
                                      short*** pppInverseCov, short** ppInverseCovD, int nDim,
                                      int nMix, int flags, int scale) {
    GaussMixServer* server = initServer<short>(pWeights, ppMeans, pppInverseCov, ppInverseCovD,
                                               {nDim, nMix, false}, flags, "KTwInitGaussMixServer");
    if (server != nullptr) server->scale = scale;
    return server;
}

void KTsFreeGaussMixServer(GaussMixServer* pServer) {
    std::free(pServer);
}

void KTwFreeGaussMixServer(GaussMixServer* pServer) {
    std::free(pServer);
}

void KTFreeGaussTbls(void) {
    KTContext* context = KTGetContext();
    context->gaussBufferLen = 0;
    context->trainBufferLen = 0;
    std::free(context->gaussBuffer);
    std::free(context->trainBuffer);
    context->gaussBuffer = nullptr;
    context->trainBuffer = nullptr;
}
