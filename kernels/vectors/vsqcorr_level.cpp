// Autocorrelation: sums of a group of lags stay in registers while one stretch of the signal,
// widened to double once, passes by. Each lag has its own order of additions, the same at every
// level.
#include "vectors/vsqcorr_level.h"
#include "simd/pack.h"

namespace vsq::VSQ_LEVEL {
namespace {

// One pass over a stretch of the signal serves a group of up to 20 lags. With four lanes, lag 4 q +
// r multiplies block i - q of the signal by the four elements from 4 i + r on: so the four loads r
// = 0 to 3 serve all lags of the group, and the first factors lie on block boundaries. Both factors
// are widened to double once a stretch.
constexpr int lanes = 4;
constexpr int phases = lanes;
constexpr int groupLags = 20;
constexpr int history = groupLags / lanes - 1; // blocks that the first factor lies back, at most
constexpr int stretch = 512;
constexpr int margin = history * lanes;
using Doubles = Pack<double, lanes>;

constexpr int step =
    // elements widened at a time; the arrays have room for a last step that is only partly needed
    8;

struct Stretch {
    // zeros around the signal's stretch
    alignas(64) double first[margin + stretch + margin + lanes + step];
    alignas(64) double second[stretch + margin + lanes +
                              step]; // the signal from the group's first lag on, then zeros
};

// dst[i] = src[i] for the `count` elements, then zeros up to `room`.
VSQ_INLINE void widen(const float* src, int count, double* dst, int room) {
    int i = 0;
    for (; i + step <= count; i += step)
        store(dst + i, convert<double>(load<float, step>(src + i)));
    if (i < count) {
        store(dst + i, convert<double>(loadPart<float, step>(src + i, count - i)));
        i += step;
    }
    for (; i < room; i += step)
        store(dst + i, splat<double, step>(0));
}

VSQ_INLINE int smallerOf(int a, int b) {
    return a < b ? a : b;
}

// The sums of a group's lags over one stretch. Written out for each lag, so that they stay in
// registers.
template <int... k>
VSQ_INLINE void addLags(const double* first, const double* second, int blocks, Doubles* sums,
                        std::integer_sequence<int, k...>) {
    Doubles part[] = {sums[k]...};
    for (int i = 0; i < blocks + history; ++i, first += lanes, second += lanes) {
        const Doubles factors[phases] = {
            load<double, lanes>(second), load<double, lanes>(second + 1),
            load<double, lanes>(second + 2), load<double, lanes>(second + 3)};
        ((part[k] =
              part[k] + load<double, lanes>(first - k / phases * lanes) * factors[k % phases]),
         ...);
    }
    ((sums[k] = part[k]), ...);
}

template <int count>
void groupOfLags(const float* src, int n, int firstLag, double* sums) {
    Doubles lanesOf[count];
    for (Doubles& sum : lanesOf)
        sum = splat<double, lanes>(0);
    Stretch work;
    widen(src, 0, work.first, margin);
    const int last = n - firstLag; // elements that have a partner at the first lag
    for (int from = 0; from < last; from += smallerOf(stretch, last - from)) {
        const int length = smallerOf(stretch, last - from);
        const int blocks = (length + lanes - 1) / lanes;
        double* const first = work.first + margin;
        widen(src + from, length, first, blocks * lanes + margin + lanes);
        // a short signal's first group has the same elements in both places
        const double* second = first;
        if (firstLag != 0 || n > stretch) {
            const int room = (blocks + history) * lanes + lanes;
            widen(src + from + firstLag, smallerOf(room, last - from), work.second, room);
            second = work.second;
        }
        addLags(first, second, blocks, lanesOf, std::make_integer_sequence<int, count>());
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

// The zeros around a stretch meet elements that have no partner. Where such an element is infinite
// or no number that gives a sum that is no number; then the plain sum, over the true pairs alone,
// says what it is.
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

extern const CorrKernels corrKernels{.autoCorr = autoCorr};

} // namespace vsq::VSQ_LEVEL
