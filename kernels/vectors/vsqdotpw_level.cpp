// The inner product of 16-bit values, modulo 2^32: any order gives the same sum, so the compiler
// arranges the loop.
#include "vectors/vsqdotpw_level.h"
#include "simd/pack.h"

namespace vsq::VSQ_LEVEL {
namespace {

// Each product fits in 32 bits; the sum wraps, which only unsigned words are allowed to.
int dot(const short* a, const short* b, int n) {
    std::uint32_t sum = 0;
    for (int i = 0; i < n; ++i)
        sum += std::uint32_t(a[i] * b[i]);
    return int(sum);
}

} // namespace

extern const WordDotProductKernels wordDotProductKernels{.dot = dot};

} // namespace vsq::VSQ_LEVEL
