// The dot product of floats with double sums; for level sources.
#pragma once

#include "simd/pack.h"

namespace vsq::VSQ_LEVEL {
namespace {

// The products are exact, so fusing them with the sums changes no bit. Not inlined, so that the
// test that looks for fused operations can tell these from a caller's.
[[gnu::noinline]] double dotProduct(const float* a, const float* b, int n) {
    constexpr int lanes = 16;
    // Half a pack at a time, so that each load widens straight from memory.
    const auto widened = [](const float* p) VSQ_LAMBDA {
        return join(convert<double>(load<float, lanes / 2>(p)),
                    convert<double>(load<float, lanes / 2>(p + lanes / 2)));
    };
    auto sum = splat<double, lanes>(0);
    int i = 0;
    for (; i + lanes <= n; i += lanes)
        sum = fusedMultiplyAdd(widened(a + i), widened(b + i), sum);
    if (i < n)
        sum = fusedMultiplyAdd(convert<double>(loadPart<float, lanes>(a + i, n - i)),
                               convert<double>(loadPart<float, lanes>(b + i, n - i)), sum);
    return sumLanes(sum);
}

} // namespace
} // namespace vsq::VSQ_LEVEL
