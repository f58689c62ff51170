#include "vectors/vsqcorr_level.h"
#include "simd/pack.h"

namespace vsq::VSQ_LEVEL {
namespace {

// One pass over the signal serves a group of up to 20 lags. With four lanes, lag 4 q + r multiplies
// block i - q of the signal by the four elements from 4 i + r on: so the four loads r = 0 to 3 serve
// all lags of the group, and the first factors are blocks that were met before. The products are
// exact, floats widened to double, so fusing them with the sums changes no bit.
constexpr int lanes = 4;
constexpr int phases = lanes;
constexpr int groupLags = 20;
using Doubles = Pack<double, lanes>;

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

    template <class Load, int... r>
    VSQ_INLINE void addBlock(const float* first, const float* second, int left,
                             std::integer_sequence<int, r...>) {
        for (int q = depth - 1; q > 0; --q)
            blocks[q] = blocks[q - 1];
        blocks[0] = Load::at(first, left);
        (addPhase<r>(blocks, Load::at(second + r, left - r), sums,
                     std::make_integer_sequence<int, (count - r + phases - 1) / phases>()),
         ...);
    }
};

template <int count>
void groupOfLags(const float* src, int n, int firstLag, double* sums) {
    Group<count> group;
    for (Doubles& sum : group.sums)
        sum = splat<double, lanes>(0);
    for (Doubles& block : group.blocks)
        block = splat<double, lanes>(0);
    constexpr int used = count < phases ? count : phases;
    constexpr std::make_integer_sequence<int, used> everyPhase;
    const int last = n - firstLag; // elements that have a partner at the first lag
    int i = 0;
    for (; i <= last - (lanes + used - 1); i += lanes)
        group.template addBlock<InsideSignal>(src + i, src + firstLag + i, last - i, everyPhase);
    for (; i < last; i += lanes)
        group.template addBlock<AtTheEnd>(src + i, src + firstLag + i, last - i, everyPhase);
    for (int k = 0; k < count; ++k)
        sums[k] = sumLanes(group.sums[k]);
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
        const int count = nLags - k < groupLags ? nLags - k : groupLags;
        groups.table[count - 1](src, n, firstLag + k, sums + k);
    }
    for (int k = 0; k < nLags; ++k)
        if (!(sums[k] == sums[k])) sums[k] = plainSum(src, n, firstLag + k);
}

} // namespace

extern const CorrKernels corrKernels{autoCorr};

} // namespace vsq::VSQ_LEVEL
