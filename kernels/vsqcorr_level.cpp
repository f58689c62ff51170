#include "levels.h"
#include "simd.h"

namespace vsq::VSQ_LEVEL {
namespace {

// One pass over a stretch of the signal serves a group of up to 16 lags. With four lanes, lag 4 q + r
// multiplies block i - q of the signal by the four elements from 4 i + r on: so the four loads r = 0 to 3
// serve all lags of the group, and the first factors lie on block boundaries. Both factors are widened to
// double once a stretch.
constexpr int lanes = 4;
constexpr int phases = lanes;
constexpr int groupLags = 16;
constexpr int history = groupLags / lanes - 1; // blocks that the first factor lies back, at most
constexpr int stretch = 512;
constexpr int margin = history * lanes;
using Doubles = Pack<double, lanes>;

struct Stretch {
    double first[margin + stretch + margin]; // zeros around the signal's stretch
    double second[stretch + margin + lanes]; // the signal from the group's first lag on, then zeros
};

VSQ_INLINE void widen(const float* src, int count, double* dst, int room) {
    for (int i = 0; i < count; ++i)
        dst[i] = src[i];
    for (int i = count; i < room; ++i)
        dst[i] = 0;
}

VSQ_INLINE int smallerOf(int a, int b) {
    return a < b ? a : b;
}

// Adds the stretch's part of `count` lags.
template <int count>
VSQ_INLINE void addLags(const Stretch& work, int blocks, Doubles (&sums)[groupLags]) {
    for (int i = 0; i < blocks + history; ++i) {
        const double* first = work.first + margin + i * lanes;
        const double* second = work.second + i * lanes;
        for (int r = 0; r < phases && r < count; ++r) {
            const Doubles factor = load<double, lanes>(second + r);
            for (int q = 0; 4 * q + r < count; ++q)
                sums[4 * q + r] = sums[4 * q + r] + load<double, lanes>(first - q * lanes) * factor;
        }
    }
}

template <int count>
void groupOfLags(const float* src, int n, int firstLag, double* sums) {
    Doubles lanesOf[groupLags];
    for (Doubles& sum : lanesOf)
        sum = splat<double, lanes>(0);
    Stretch work;
    widen(src, 0, work.first, margin);
    const int last = n - firstLag; // elements that have a partner at the first lag
    for (int from = 0; from < last; from += smallerOf(stretch, last - from)) {
        const int length = smallerOf(stretch, last - from);
        const int blocks = (length + lanes - 1) / lanes;
        widen(src + from, length, work.first + margin, blocks * lanes + margin);
        const int room = (blocks + history) * lanes + lanes;
        widen(src + from + firstLag, smallerOf(room, last - from), work.second, room);
        addLags<count>(work, blocks, lanesOf);
    }
    for (int k = 0; k < count; ++k)
        sums[k] = sumLanes(lanesOf[k]);
}

template <int... count>
struct Counts {
    using Group = void (*)(const float* src, int n, int firstLag, double* sums);
    static constexpr Group table[] = {groupOfLags<count + 1>...};
};
template <int... count>
constexpr Counts<count...> countsOf(std::integer_sequence<int, count...>) {
    return {};
}
constexpr auto groups = countsOf(std::make_integer_sequence<int, groupLags>());

// The zeros around a stretch meet elements that have no partner. Where such an element is infinite or no
// number that gives a sum that is no number; then the plain sum, over the true pairs alone, says what it is.
double plainSum(const float* src, int n, int lag) {
    double sum = 0;
    for (int i = 0; i + lag < n; ++i)
        sum += double(src[i]) * double(src[i + lag]);
    return sum;
}

void autoCorr(const float* src, int n, int firstLag, double* sums, int nLags) {
    for (int k = 0; k < nLags; k += groupLags) {
        const int count = smallerOf(groupLags, nLags - k);
        groups.table[count - 1](src, n, firstLag + k, sums + k);
    }
    for (int k = 0; k < nLags; ++k)
        if (!(sums[k] == sums[k])) sums[k] = plainSum(src, n, firstLag + k);
}

} // namespace

extern const CorrKernels corrKernels{autoCorr};

} // namespace vsq::VSQ_LEVEL
