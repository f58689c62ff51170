// Autocorrelation: sums of a group of lags stay in registers while one stretch of the signal,
// widened to double once, passes by. Each lag has its own order of additions, the same at every
// level.
#include "vectors/vsqcorr_level.h"
#include "simd/pack.h"

namespace vsq::VSQ_LEVEL {
namespace {

// One pass over the signal serves a group of up to 20 lags. With four lanes, lag 4 q + r multiplies
// block i - q of the signal by the four elements from 4 i + r on: so the four loads r = 0 to 3
// serve all lags of the group, and the first factors are blocks that were met before. Registers of
// four doubles hold the sums and these blocks; narrower ones are too few, and both factors are
// widened to memory. The products are exact, floats widened to double, so fusing them with the sums
// changes no bit.
constexpr int lanes = 4;
constexpr int phases = lanes;
constexpr int groupLags = 20;
using Doubles = Pack<double, lanes>;

// --- in registers ---

// Four elements at p, zeros from the `left`-th on.
struct InsideSignal {
    static VSQ_INLINE Doubles at(const float* p, int) {
        return convert<double>(load<float, lanes>(p));
    }
};
struct AtTheEnd {
    static VSQ_INLINE Doubles at(const float* p, int left) {
        const int count = left < 0 ? 0 : left < lanes ? left : lanes;
        return convert<double>(loadPart<float, lanes>(p, count));
    }
};

// Adds phase r's products; written out for each lag, so that the sums stay in registers.
template <int r, int... q>
VSQ_INLINE void addPhase(const Doubles* blocks, const Doubles& factor, Doubles* sums,
                         std::integer_sequence<int, q...>) {
    ((sums[phases * q + r] = fusedMultiplyAdd(blocks[q], factor, sums[phases * q + r])), ...);
}

// What a group keeps while it passes over the signal: its sums, and the blocks i, i - 1, ...
template <int count>
struct Group {
    static constexpr int depth = (count + phases - 1) / phases;
    Doubles sums[count];
    Doubles blocks[depth];

    // From lag 0 on, phase 0's factors are the newest block itself.
    template <class Load, bool fromZero, int... r>
    VSQ_INLINE void addBlock(const float* first, const float* second, int left,
                             std::integer_sequence<int, r...>) {
        for (int q = depth - 1; q > 0; --q)
            blocks[q] = blocks[q - 1];
        blocks[0] = Load::at(first, left);
        (addPhase<r>(blocks, fromZero && r == 0 ? blocks[0] : Load::at(second + r, left - r), sums,
                     std::make_integer_sequence<int, (count - r + phases - 1) / phases>()),
         ...);
    }

    // `last`: elements that have a partner at the first lag.
    template <bool fromZero>
    VSQ_INLINE void pass(const float* first, const float* second, int last) {
        constexpr int used = count < phases ? count : phases;
        constexpr std::make_integer_sequence<int, used> all;
        int i = 0;
        for (; i <= last - (lanes + used - 1); i += lanes)
            addBlock<InsideSignal, fromZero>(first + i, second + i, last - i, all);
        for (; i < last; i += lanes)
            addBlock<AtTheEnd, fromZero>(first + i, second + i, last - i, all);
    }
};

template <int count>
VSQ_INLINE void sumsInRegisters(const float* src, int n, int firstLag, double* sums) {
    Group<count> group;
    for (Doubles& sum : group.sums)
        sum = splat<double, lanes>(0);
    for (Doubles& block : group.blocks)
        block = splat<double, lanes>(0);
    if (firstLag == 0)
        group.template pass<true>(src, src, n);
    else
        group.template pass<false>(src, src + firstLag, n - firstLag);
    for (int k = 0; k < count; ++k)
        sums[k] = sumLanes(group.sums[k]);
}

// --- through memory, a stretch of the signal at a time ---

constexpr int history = groupLags / lanes - 1; // blocks that the first factor lies back, at most
constexpr int stretch = 512;
constexpr int margin = history * lanes;
// elements widened at a time; the arrays have room for a last step that is only partly needed
constexpr int step = 8;

struct Stretch {
    // zeros around the signal's stretch
    alignas(64) double first[margin + stretch + margin + lanes + step];
    alignas(64) double second[stretch + margin + lanes +
                              step]; // the signal from the group's first lag on, then zeros
};

// dst[i] = src[i] for the `count` elements, then zeros up to `room`.
[[maybe_unused]] VSQ_INLINE void widen(const float* src, int count, double* dst, int room) {
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
VSQ_INLINE void sumsThroughMemory(const float* src, int n, int firstLag, double* sums) {
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

template <int count>
void groupOfLags(const float* src, int n, int firstLag, double* sums) {
    if constexpr (isRegister<double, lanes>)
        sumsInRegisters<count>(src, n, firstLag, sums);
    else
        sumsThroughMemory<count>(src, n, firstLag, sums);
}

template <int... count>
struct Counts {
    using Kernel = void (*)(const float* src, int n, int firstLag, double* sums);
    static constexpr Kernel table[] = {groupOfLags<count + 1>...};
};
template <int... count>
constexpr Counts<count...> countsOf(std::integer_sequence<int, count...>) {
    return {};
}
constexpr auto groups = countsOf(std::make_integer_sequence<int, groupLags>());

// The zeros around the signal meet elements that have no partner. Where such an element is infinite
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
