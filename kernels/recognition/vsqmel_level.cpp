// Filtering a spectrum through mel bands: four bands at a time over blocks of eight bins, summed in
// double. The sums of four rows grow together, since a single one would wait for each addition.
#include "recognition/vsqmel_level.h"
#include "simd/pack.h"

namespace vsq::VSQ_LEVEL {
namespace {

constexpr int rows = MelPlan::rowsPerGroup;
constexpr int bins = MelPlan::binsPerBlock;

using Wide = Pack<double, bins>;
using Quad = Pack<double, rows>;

// The sums of the lanes of four packs, side by side: neighbours first, then halves.
VSQ_INLINE Quad sumRows(const Wide& a, const Wide& b, const Wide& c, const Wide& d) {
    const Wide ab = evenPairs(a, b) + oddPairs(a, b);
    const Wide cd = evenPairs(c, d) + oddPairs(c, d);
    const Quad halfAb = low(ab) + high(ab);
    const Quad halfCd = low(cd) + high(cd);
    return lowHalves(halfAb, halfCd) + highHalves(halfAb, halfCd);
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
            sum[row] =
                fusedMultiplyAdd(convert<double>(load<float, bins>(spectrum + firstBin[row])),
                                 load<double, bins>(weights + row * bins), sum[row]);
    }
    return convert<float>(sumRows(sum[0], sum[1], sum[2], sum[3]));
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

extern const MelKernels melKernels{.filter = filter};

} // namespace vsq::VSQ_LEVEL
