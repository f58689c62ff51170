// Pre-emphasis in place, in overlapping blocks from the end to the start, so that every element is
// filtered with its unfiltered predecessor. Fixed point goes through pair sums, which are exact.
#include "recognition/vsqpree_level.h"
#include "simd/pack.h"

namespace vsq::VSQ_LEVEL {
namespace {

using std::int16_t;

// Sets x[i] = op(x[i], x[i-1]) for i from 1 to n - 1, n - 1 >= N. Blocks go from the end to the
// start, so that what is read as previous is still unfiltered. The topmost blocks end at n, the
// lowest one begins at 1; where it overlaps its neighbour both write the same, because it was read
// before anything was written.
template <int N, class T, class Op>
VSQ_INLINE void filterBlocks(T* x, int n, const Op& op) {
    const auto lowest = op(load<T, N>(x + 1), load<T, N>(x));
    for (int i = n - N; i > 1; i -= N)
        store(x + i, op(load<T, N>(x + i), load<T, N>(x + i - 1)));
    store(x + 1, lowest);
}

template <int wide, class T, class Op>
VSQ_INLINE void filterAll(T* x, int n, const Op& op) {
    if (n > wide) return filterBlocks<wide>(x, n, op);
    if (n > 8) return filterBlocks<8>(x, n, op);
    for (int i = n - 1; i > 0; --i)
        store(x + i, op(load<T, 1>(x + i), load<T, 1>(x + i - 1)));
}

template <int N>
VSQ_INLINE Pack<float, N> scaled(const Pack<float, N>& x, float factor) {
    return x * splat<float, N>(factor);
}

void filterFloat(float* vec, int n, float alpha) {
    filterAll<32>(vec, n, [alpha](const auto& current, const auto& previous) VSQ_LAMBDA {
        return current - scaled(previous, alpha);
    });
}

constexpr int fractionBits = 14;
constexpr int16_t one = 1 << fractionBits;

// The bounds of saturation lie 11 and 10 below the accumulator's 2^29; between them and there the
// shift gives the same.
void saturateFixed(short* vec, int n, int alphaQ) {
    const auto minusAlpha = static_cast<int16_t>(-alphaQ);
    filterAll<32>(vec, n, [=](const auto& current, const auto& previous) VSQ_LAMBDA {
        return pairSums(current, one, previous, minusAlpha,
                        [](auto acc) VSQ_LAMBDA { return acc >> fractionBits; });
    });
}

void shiftFixed(short* vec, int n, int alphaQ, int shift) {
    const auto minusAlpha = static_cast<int16_t>(-alphaQ);
    filterAll<32>(vec, n, [=](const auto& current, const auto& previous) VSQ_LAMBDA {
        return pairSums(current, one, previous, minusAlpha,
                        [=](auto acc) VSQ_LAMBDA { return acc >> shift << 16 >> 16; });
    });
}

} // namespace

extern const PreeKernels preeKernels{
    .filterFloat = filterFloat,
    .saturateFixed = saturateFixed,
    .shiftFixed = shiftFixed,
};

} // namespace vsq::VSQ_LEVEL
