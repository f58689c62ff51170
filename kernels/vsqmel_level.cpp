#include "levels.h"
#include "simd.h"

namespace vsq::VSQ_LEVEL {
namespace {

constexpr int rows = MelPlan::rowsPerGroup;
constexpr int bins = MelPlan::binsPerBlock;

using Wide = Pack<double, bins>;
using Quad = Pack<double, rows>;

// The sums of the lanes of four packs, side by side; each is added as sumLanes adds it.
VSQ_INLINE Quad sumRows(const Quad& a, const Quad& b, const Quad& c, const Quad& d) {
    const Quad ac = join(low(a), low(c)) + join(high(a), high(c));
    const Quad bd = join(low(b), low(d)) + join(high(b), high(d));
    return evenPairs(ac, bd) + oddPairs(ac, bd);
}

VSQ_INLINE Quad halved(const Wide& a) {
    return low(a) + high(a);
}

// One group: four sums that grow together, so that their additions do not wait for each other.
VSQ_INLINE Pack<float, rows> groupOf(const int* firstBin, int nBlocks, const double* weights,
                                     const float* spectrum) {
    Wide sum[rows];
    for (int row = 0; row < rows; ++row)
        sum[row] = convert<double>(load<float, bins>(spectrum + firstBin[row])) *
                   load<double, bins>(weights + row * bins);
    for (int block = 1; block < nBlocks; ++block) {
        weights += rows * bins;
        spectrum += bins;
        for (int row = 0; row < rows; ++row)
            sum[row] = sum[row] + convert<double>(load<float, bins>(spectrum + firstBin[row])) *
                                      load<double, bins>(weights + row * bins);
    }
    return convert<float>(sumRows(halved(sum[0]), halved(sum[1]), halved(sum[2]), halved(sum[3])));
}

bool filter(const MelPlan& plan, const float* spectrum, float* out) {
    const double* weights = plan.weights;
    Pack<std::int32_t, rows> numbers = splat<std::int32_t, rows>(-1);
    for (int group = 0; group < plan.nGroups; ++group) {
        const int nBlocks = plan.nBlocks[group];
        const int row = group * rows;
        const auto sums = groupOf(plan.firstBin + row, nBlocks, weights, spectrum);
        numbers = numbers & (sums == sums);
        if (row + rows <= plan.nRows)
            store(out + row, sums);
        else
            storePart(out + row, sums, plan.nRows - row);
        weights += nBlocks * (rows * bins);
    }
    return largestLane(numbers) == -1;
}

} // namespace

extern const MelKernels melKernels{filter};

} // namespace vsq::VSQ_LEVEL
