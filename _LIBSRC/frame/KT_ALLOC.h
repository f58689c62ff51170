// Tables and aligned blocks. All of them are blocks of the general allocator, not cleared.
#pragma once

#include "frame/types.h"

#include "context/vsqmem.h"

// A table of nRows rows of nCols elements in one block: the row pointers, and after them the rows,
// each of which begins on a 32-byte boundary. The result is also the address to free. Row stride:
// nCols rounded up to a multiple of 8 floats or 16 shorts. nRows of 0 gives a table that may only
// be freed. Null after a report (-4) when memory ran out or the size is beyond the address space,
// negative counts included.
float** KTsAlloc2(int nRows, int nCols);
short** KTwAlloc2(int nRows, int nCols);
void KTFree2(void* pTable); // a table of either kind; null is allowed

namespace ktl {

// Aligned blocks by name, for vsq::freeAligned: null when memory ran out, and no report, because
// each caller has a text of its own.
inline float* allocFloats(int n) {
    return vsq::allocAligned<float>(n);
}
inline float* allocComplex(int n) { // n pairs of real and imaginary part
    return static_cast<float*>(vsq::allocAligned(n, 2 * sizeof(float)));
}

} // namespace ktl
