// The loops of the Kohonen search: squared distances of one vector from a table of codes, integer
// roots, the winner. nDim and nCodes are 1 or more. Distances of fixed-point vectors are 32-bit
// words; they are moved as bytes where floats stand in them, so that a caller's array of int may
// hold either.
#pragma once

#include "levels/levelrecord.h"

namespace vsq {

struct KohonenKernels {
    // squares[c] = (e0^2 + e2^2 + ...) + (e1^2 + e3^2 + ...) of the differences e = code - vector,
    // each of the two sums taken upward in float: these roundings are part of the result.
    void (*squaresFloat)(const float* vector, const float* const* codes, float* squares, int nDim,
                         int nCodes);

    // The same for 16-bit elements: the exact sum, rounded to float; squares is an array of float
    // or int.
    void (*squaresFixed)(const short* vector, const short* const* codes, void* squares, int nDim,
                         int nCodes);

    // The same as a 32-bit sum that wraps.
    void (*wrappingSquares)(const short* vector, const short* const* codes, int* squares, int nDim,
                            int nCodes);

    // values[i] = floor(sqrt(values[i])), the words read as unsigned.
    void (*integerRoots)(int* values, int n);

    // values[i] >>= bits with the sign kept, or <<= bits; 0 <= bits < 32.
    void (*shiftRight)(int* values, int n, int bits);
    void (*shiftLeft)(int* values, int n, int bits);

    // The index of the first smallest 32-bit word, read as a signed integer.
    int (*firstSmallest)(const void* values, int n);
};
VSQ_DECLARE_LEVELS(KohonenKernels, kohonenKernels)

} // namespace vsq
