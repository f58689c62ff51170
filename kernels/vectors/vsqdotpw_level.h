// Inner products of 16-bit values.
#pragma once

#include "levels/levelrecord.h"

namespace vsq {

struct WordDotProductKernels {
    // The sum of a[i] * b[i] over n (0 or more) elements, modulo 2^32.
    int (*dot)(const short* a, const short* b, int n);
};
VSQ_DECLARE_LEVELS(WordDotProductKernels, wordDotProductKernels)

} // namespace vsq
