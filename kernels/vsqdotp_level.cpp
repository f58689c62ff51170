#include "vsqdotp_level.h"
#include "simd.h"

namespace vsq::VSQ_LEVEL {
namespace {

constexpr int lanes = 16;

// Half a pack at a time, so that each load widens straight from memory.
VSQ_INLINE Pack<double, lanes> widened(const float* p) {
    return join(convert<double>(load<float, lanes / 2>(p)),
                convert<double>(load<float, lanes / 2>(p + lanes / 2)));
}

double dot(const float* a, const float* b, int n) {
    auto sum = splat<double, lanes>(0);
    int i = 0;
    for (; i + lanes <= n; i += lanes)
        sum = sum + widened(a + i) * widened(b + i);
    if (i < n)
        sum = sum + convert<double>(loadPart<float, lanes>(a + i, n - i)) *
                        convert<double>(loadPart<float, lanes>(b + i, n - i));
    return sumLanes(sum);
}

} // namespace

extern const DotProductKernels dotProductKernels{dot};

} // namespace vsq::VSQ_LEVEL
