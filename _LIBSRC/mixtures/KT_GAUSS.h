// Gaussian mixture servers, as the semicontinuous codebook and the HMM modules use them.
#pragma once

#include "frame/blocks.h"
#include "frame/types.h"

#include <cstddef>

// A mixture of nMix Gaussians in nDim dimensions: this record, and after it in the same block the
// arrays that it points to. One free releases it. T is float in the float form and short in the
// fixed one; the tables hold real T*, so the fields are reached through the views below. Every row
// has padded(nDim) elements, the last ones zero.
struct GaussMixServer {
    void* pWeights; // T*: nMix weights, padded
    void* ppMeans;  // T**: nMix rows
    // T***: nMix tables of nDim rows of a symmetric matrix; null for a diagonal server
    void* pppInverseCov;
    void* ppInverseCovD; // T**: nMix diagonals; null for a full server
    // float form: the weights as evaluation uses them; null in the fixed form
    float* pNormWeights;
    void* pWork; // one float or int per mixture, written by every evaluation
    int nDim;
    int nMix;
    int flags;
    int scale;         // fixed form: a quadratic form is its integer * 2^scale; float form: 0
    int nObservations; // training vectors that made the server; 1 for an initialised one
    int nBytes;        // size of the 32-bit image of the block, the same on every build
};
static_assert(sizeof(void*) != 4 || sizeof(GaussMixServer) == 48, "the record of a 32-bit build");

namespace ktl::gauss {

// n rounded up to a multiple of 4.
constexpr int padded(int n) {
    return roundUp(n, 4);
}

template <class T>
T* weights(const GaussMixServer* server) {
    return static_cast<T*>(server->pWeights);
}
template <class T>
T** means(const GaussMixServer* server) {
    return static_cast<T**>(server->ppMeans);
}
template <class T>
T*** matrices(const GaussMixServer* server) {
    return static_cast<T***>(server->pppInverseCov);
}
template <class T>
T** diagonals(const GaussMixServer* server) {
    return static_cast<T**>(server->ppInverseCovD);
}

inline bool isFull(const GaussMixServer* server) {
    return server->pppInverseCov != nullptr;
}
inline bool isFloat(const GaussMixServer* server) {
    return server->pNormWeights != nullptr;
}

// Bytes that KTWriteGaussMixServer puts on a stream.
std::size_t imageBytes(const GaussMixServer* server);

// How a server's integer form becomes the argument of KTexpFix: exp(-form * 2^scale / 2) is
// KTexpFix(-(form << shift), frac, ...). `scale` is the server's.
struct ExponentPlan {
    int frac;
    int shift;
};
constexpr ExponentPlan planExponent(int scale) {
    const long long frac = 1LL - scale;
    if (frac < 1) return {0, static_cast<int>(-frac)};
    return {frac > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int>(frac), 0};
}
// -(|form| << shift) in wrapping 32-bit arithmetic.
constexpr int exponentOf(int form, int shift) {
    const unsigned magnitude =
        form < 0 ? 0u - static_cast<unsigned>(form) : static_cast<unsigned>(form);
    return static_cast<int>(0u - (shift > 31 ? 0u : magnitude << shift));
}

// The quadratic form of one vector by one density of a fixed server: KTwMahalanobis for a full one,
// the wrapping 32-bit sum of d*d*c for a diagonal one. nDim is at most the server's.
int fixedForm(const GaussMixServer* server, int mixture, const short* pVector, int nDim);

// Turns nMix forms of the given scale into densities with 30 fractional bits, in place; 0 where the
// weight is 0.
void fixedDensities(int* forms, const short* weights, int nMix, int scale);

// KTsInvertGaussianCovMatrix, which also tells whether the one failure has come that releases its
// source.
GaussMixServer* invert(GaussMixServer* pServer, int flags, bool* pReleased);

} // namespace ktl::gauss

// exp(value / 2^nFracBits) with nOutFracBits (0 to 31) fractional bits, saturated to 0x7FFFFFFF;
// nFracBits is 0 or more. Integer arithmetic only. The fraction is cut to 10 bits, which leaves a
// relative accuracy of about 0.1 per cent.
int KTexpFix(int value, int nFracBits, int nOutFracBits);

// The exact 64-bit sum of pValues[k] * pWeights[k], which has 30 fractional bits, as a 32-bit
// integer by scaleMode and *pScale. pScale may be null. Fewer than two mixtures give 0 and leave
// *pScale alone: nothing is computed then.
int KTwDotMix(const int* pValues, const short* pWeights, int nMix, int scaleMode, int* pScale);
