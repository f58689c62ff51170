// The block of a mixture server: sizes, layout, construction. For the KT_GAUSS modules themselves.
//
// After the record, from a 16-byte boundary on, stand without gaps
//     float form: pNormWeights, pWork, pWeights, each padded(nMix) floats
//     fixed form: pWork as padded(nMix) ints, pWeights as padded(nMix) shorts
// and in both the mean row table (padded(nMix) pointers), the mean rows (nMix * padded(nDim)
// elements), and the covariance:
//     diagonal: a table of padded(nMix) pointers, nMix rows
//     full: a table of padded(nMix) pointers, per mixture a table of padded(nDim) row pointers,
//     then nMix * nDim rows
// Files hold the same with pointers of 32 bits; nBytes is the size of that image, on every build.
#pragma once

#include "frame/KT_ERROR.h"
#include "frame/numeric.h"
#include "mixtures/KT_GAUSS.h"

#include "vectors/scaledproduct.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace ktl::gauss {

inline constexpr Module module{"..\\_LIBSRC\\KT_GAUSS"};

inline constexpr char bothOrNeither[] =
    "One of InverseCov or InverseCovD must be NULL and the other non NULL";
inline constexpr char noBlock[] = "insufficiency of memory for pointer  ptr";
inline constexpr char noTable[] = "insufficiency of memory for pointer  ptr2";

// What depends on the numeric form alone; T is the type of an element, Sum that of a work element.
template <class T>
struct Form;
template <>
struct Form<float> : FloatForm {
    static constexpr int flag = GAUSS_SERVER_FVR_S;
    // per padded mixture: normalised weight, work element, weight
    static constexpr int vectorBytes = 12;
};
template <>
struct Form<short> : FixedForm {
    static constexpr int flag = GAUSS_SERVER_FVR_W;
    static constexpr int vectorBytes = 6; // work element, weight
};

struct Shape {
    int nDim;
    int nMix;
    bool full;
};
inline Shape shapeOf(const GaussMixServer* server) {
    return {server->nDim, server->nMix, isFull(server)};
}

// Dimensions positive and the 32-bit image below 2 GB: only such servers exist.
bool representable(const Shape& shape, int elementBytes, int vectorBytes);
template <class T>
bool representable(const Shape& shape) {
    return representable(shape, int(sizeof(T)), Form<T>::vectorBytes);
}

// Bytes of the data after the record when a pointer takes `pointerBytes`; the shape is
// representable.
std::size_t dataBytes(const Shape& shape, int elementBytes, int vectorBytes, int pointerBytes);
template <class T>
std::size_t dataBytes(const Shape& shape, int pointerBytes) {
    return dataBytes(shape, int(sizeof(T)), Form<T>::vectorBytes, pointerBytes);
}

// The image's record and alignment reserve: 48 bytes and 15.
inline constexpr int imageReserve = 0x3f;

// A zeroed block with its pointers, dimensions, flags (numeric form, full or diagonal) and nBytes
// set and nObservations 1; null for a shape that is not representable or when memory ran out, and
// no report.
template <class T>
GaussMixServer* createServer(const Shape& shape);

// The same with a report (-4, noBlock) under the given name when memory ran out, which a shape too
// large for a block counts as. Dimensions below 1 are the caller's fault and give null without a
// report.
template <class T>
GaussMixServer* createOrReport(const Shape& shape, const char* funcName,
                               int line = __builtin_LINE());

// The first covariance element; all of them follow without gaps.
template <class T>
T* covariance(const GaussMixServer* server) {
    return isFull(server) ? matrices<T>(server)[0][0] : diagonals<T>(server)[0];
}
inline std::ptrdiff_t meanElements(const Shape& shape) {
    return std::ptrdiff_t(shape.nMix) * padded(shape.nDim);
}
inline std::ptrdiff_t covarianceElements(const Shape& shape) {
    return meanElements(shape) * (shape.full ? shape.nDim : 1);
}

// The thread's work matrix: n rows of padded(n) floats, not cleared, and room for n pivots. Null
// rows after a failed growth; the caller reports. KTFreeGaussTbls releases it.
struct WorkMatrix {
    float** rows;
    int* pivots;
};
WorkMatrix workMatrix(int n);

using vsq::ScaledProduct;

// The determinant of the n rows, which are destroyed; 0 where a pivot is below 1e-20.
ScaledProduct determinant(float* const* rows, int n);
// The same of a diagonal.
ScaledProduct diagonalDeterminant(const float* diagonal, int n);

// weight * sqrt(|det|) and weight / sqrt(|det|). Some tens of dimensions are enough for a
// determinant beyond a double, so that the result alone is brought into its range: a weight of 0
// stays 0.
double timesRoot(double weight, const ScaledProduct& det);
double overRoot(double weight, const ScaledProduct& det);

} // namespace ktl::gauss
