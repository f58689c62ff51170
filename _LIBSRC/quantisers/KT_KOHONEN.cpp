// The search step of a self-organising map.
//
// Fixed form: squared distances are 32-bit sums of squares of 17-bit differences and wrap, or,
// where the result is scaled to its own size, exact sums rounded to float. The caller's array of
// 32-bit words holds those floats until they are converted in place; it is read and written as
// words through the kernels, never as both types at once.
#include "frame/numeric.h"
#include "frame/types.h"

#include "levels/levels.h"
#include "vsq.h"

namespace {

const vsq::KohonenKernels& kernels() {
    return *vsq::kernels().kohonen;
}

// Below two elements the first ones are compared, whatever nDim says.
void squaredDistances(const float* vector, float** codes, float* distances, int nDim, int nCodes) {
    if (nDim >= 2) {
        kernels().squaresFloat(vector, codes, distances, nDim, nCodes);
        return;
    }
    for (int c = 0; c < nCodes; ++c) {
        const float difference = codes[c][0] - vector[0];
        distances[c] = difference * difference;
    }
}

// The nearest code; then the word at the nearest code's own place is cleared.
void chooseOne(const void* distances, int nCodes, int* indices) {
    const int winner = kernels().firstSmallest(distances, nCodes);
    indices[0] = winner;
    indices[winner] = 0;
}

// A selection sort of the indices that stops after the places wanted.
template <class Word>
void rank(const Word* distances, int nCodes, int* indices, int nBest) {
    const auto wordOf = [=](int place) {
        int word;
        __builtin_memcpy(&word, distances + indices[place], sizeof word);
        return word;
    };
    for (int c = 0; c < nCodes; ++c)
        indices[c] = c;
    const int places = nBest < nCodes ? nBest : nCodes - 1;
    for (int place = 0; place < places; ++place) {
        int best = place, least = wordOf(place);
        for (int other = place + 1; other < nCodes; ++other) {
            const int word = wordOf(other);
            if (word < least) {
                least = word;
                best = other;
            }
        }
        const int index = indices[place];
        indices[place] = indices[best];
        indices[best] = index;
    }
}

template <class Word>
void chooseBest(const Word* distances, int nCodes, int* indices, int nBest) {
    static_assert(sizeof(Word) == sizeof(int));
    if (nBest == 1)
        chooseOne(distances, nCodes, indices);
    else if (nBest > 1)
        rank(distances, nCodes, indices, nBest);
}

// Distances as floats in the array itself, then converted to integers there.
void scaledDistances(const short* vector, short** codes, int* distances, int nDim, int nCodes,
                     bool wantsRoot, int scaleMode, int* scale) {
    auto* const floats = reinterpret_cast<float*>(distances);
    kernels().squaresFixed(vector, codes, distances, nDim, nCodes);
    if (wantsRoot) vsqsbSqrt1(floats, floats, nCodes);
    KTsibConvertDown(floats, distances, nCodes, scaleMode, scale);
}

// From 1 up to the right; below 1 to the left by the low five bits as they stand.
void shift(int* distances, int nCodes, int scale) {
    if (scale >= 1)
        kernels().shiftRight(distances, nCodes, scale < 31 ? scale : 31);
    else
        kernels().shiftLeft(distances, nCodes, scale & 31);
}

void integerDistances(const short* vector, short** codes, int* distances, int nDim, int nCodes,
                      bool wantsRoot, int scaleMode, int scale) {
    kernels().wrappingSquares(vector, codes, distances, nDim, nCodes);
    if (wantsRoot) kernels().integerRoots(distances, nCodes);
    if (scaleMode == KT_FixedScale) shift(distances, nCodes, scale);
}

} // namespace

void KTsVQKohonen(const float* pVector, float** ppCodes, float* pDistances, int nDim, int nCodes,
                  int* pIndices, int nBest, int bRoot) {
    if (nCodes <= 0) return;
    squaredDistances(pVector, ppCodes, pDistances, nDim, nCodes);
    if (bRoot != 0) vsqsbSqrt1(pDistances, pDistances, nCodes);
    chooseBest(pDistances, nCodes, pIndices, nBest);
}

void KTwVQKohonen(const short* pVector, short** ppCodes, int* pDistances, int nDim, int nCodes,
                  int* pIndices, int nBest, int bRoot, int scaleMode, int* pScale) {
    if (nCodes <= 0) return;
    const ktl::CallScale scale(pScale);
    if (scaleMode == KT_AutoScale || scaleMode == KT_Saturate)
        scaledDistances(pVector, ppCodes, pDistances, nDim, nCodes, bRoot != 0, scaleMode,
                        scale.get());
    else
        integerDistances(pVector, ppCodes, pDistances, nDim, nCodes, bRoot != 0, scaleMode, *scale);
    chooseBest(pDistances, nCodes, pIndices, nBest);
}
