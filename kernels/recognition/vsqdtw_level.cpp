// The grid of time warping, row by row, eight columns at a time. Runs in which no path can survive
// the pruning threshold take no local distances; frames of the pattern are laid out by dimension
// only as far as the rows reach.
#include "recognition/vsqdtw_level.h"
#include "simd/shuffle.h"

namespace vsq::VSQ_LEVEL {
namespace {

using Wide = Pack<double, dtwRun>;
using Costs = Pack<float, dtwRun>;
using Flags = Pack<std::int32_t, dtwRun>; // all ones or zero

struct Euclidean {
    static VSQ_INLINE Wide term(const Wide& d) { return d * d; }
    static VSQ_INLINE Wide finish(const Wide& sum) { return squareRoot(sum); }
};

struct CityBlock {
    static VSQ_INLINE Wide term(const Wide& d) { return magnitude(d); }
    static VSQ_INLINE Wide finish(const Wide& sum) { return sum; }
};

// The pattern's frames as runs read them, brought there as far as the rows reach.
struct Arranged {
    long long stride;
    int columns; // so many stand ready, a multiple of the run or beyond the last
};

using Quarter = Pack<float, 4>;

// Four elements of four frames, by element.
VSQ_INLINE void transposed(const float* const* frame, int k, Quarter* columns) {
    const Quarter a = load<float, 4>(frame[0] + k), b = load<float, 4>(frame[1] + k);
    const Quarter c = load<float, 4>(frame[2] + k), d = load<float, 4>(frame[3] + k);
    const Quarter lowAC = pick<zipLane>(a, c), lowBD = pick<zipLane>(b, d);
    const Quarter highAC = pick<zipUpperLane>(a, c), highBD = pick<zipUpperLane>(b, d);
    columns[0] = pick<zipLane>(lowAC, lowBD);
    columns[1] = pick<zipUpperLane>(lowAC, lowBD);
    columns[2] = pick<zipLane>(highAC, highBD);
    columns[3] = pick<zipUpperLane>(highAC, highBD);
}

// Frames after the last are the last again; nobody counts them.
VSQ_INLINE void arrangeRun(const DtwGrid& grid, long long stride, int j) {
    const float* frame[dtwRun];
    for (int lane = 0; lane < dtwRun; ++lane)
        frame[lane] = grid.pattern[j + lane < grid.nColumns ? j + lane : grid.nColumns - 1];
    double* column = grid.columns + j;
    for (int k = 0; k < grid.nDim; k += 4, column += 4 * stride) {
        Quarter low[4], high[4];
        transposed(frame, k, low);
        transposed(frame + 4, k, high);
        const int rest = grid.nDim - k;
        store(column, convert<double>(join(low[0], high[0])));
        if (rest > 1) store(column + stride, convert<double>(join(low[1], high[1])));
        if (rest > 2) store(column + 2 * stride, convert<double>(join(low[2], high[2])));
        if (rest > 3) store(column + 3 * stride, convert<double>(join(low[3], high[3])));
    }
}

// Not inline: the registers are the rows'.
[[gnu::noinline]] void arrangeUpTo(const DtwGrid& grid, Arranged& arranged, int last) {
    for (; arranged.columns <= last; arranged.columns += dtwRun)
        arrangeRun(grid, arranged.stride, arranged.columns);
}

// Local distances between a test frame and the run of pattern frames that begins at column j.
template <class Metric>
VSQ_INLINE Wide localDistances(const DtwGrid& grid, long long stride, const double* frame, int j) {
    const double* column = grid.columns + j;
    Wide sum = splat<double, dtwRun>(0.0);
    for (int k = 0; k < grid.nDim; ++k, column += stride)
        sum = sum + Metric::term(load<double, dtwRun>(column) - splat<double, dtwRun>(frame[k]));
    return Metric::finish(sum);
}

// Columns between which a row may hold cells that are not dropped; none where first > last.
struct Range {
    int first, last;
};

VSQ_INLINE Range intersect(const int* bounds, Range alive) {
    // A step reaches at most two columns further than the row before.
    return {bounds[0] > alive.first ? bounds[0] : alive.first,
            bounds[1] < alive.last + 2 ? bounds[1] : alive.last + 2};
}

// Notes that the run at column j of a row that ends at `last` holds a cell that is not dropped.
VSQ_INLINE void extend(Range& alive, int j, int last) {
    if (alive.first > alive.last) alive.first = j;
    alive.last = j + dtwRun - 1 < last ? j + dtwRun - 1 : last;
}

constexpr Range noColumns{0, -1};

// Which lanes of the run at column j lie inside a row that ends at `last`.
VSQ_INLINE Flags inside(int j, int last) {
    static const std::int32_t lane[dtwRun] = {0, 1, 2, 3, 4, 5, 6, 7};
    return load<std::int32_t, dtwRun>(lane) <= splat<std::int32_t, dtwRun>(last - j);
}

VSQ_INLINE Costs dead() {
    return splat<float, dtwRun>(dtwDead);
}

// The columns that the next row can reach beside this row's own.
VSQ_INLINE void closeRow(float* cost, int* flat, Range row) {
    cost[row.first - 2] = cost[row.first - 1] = dtwDead;
    cost[row.last + 1] = cost[row.last + 2] = dtwDead;
    flat[row.last + 1] = flat[row.last + 2] = 0;
}

struct Best {
    Costs cost;
    Flags flat;
};

// The best predecessors of a run of cells in the row before: the step of 1 wins all ties. `banned`
// stands for the step of 0 where the predecessor was itself reached by one.
VSQ_INLINE Best bestPredecessors(const float* cost, const int* flat, int j, float banned) {
    const Flags ban = load<std::int32_t, dtwRun>(flat + j);
    const Costs stay = select(ban, splat<float, dtwRun>(banned), load<float, dtwRun>(cost + j));
    const Costs one = load<float, dtwRun>(cost + j - 1);
    const Costs two = load<float, dtwRun>(cost + j - 2);
    const Flags takeOne = one <= stay;
    const Costs best = select(takeOne, one, stay);
    const Flags takeTwo = two < best;
    return {select(takeTwo, two, best), (takeOne | takeTwo) == splat<std::int32_t, dtwRun>(0)};
}

template <class Metric>
VSQ_INLINE Range firstRow(const DtwGrid& grid, Arranged& arranged, float* cost, int* flat) {
    const Costs limit = splat<float, dtwRun>(grid.pruneFrom);
    const int last = grid.bounds[1];
    arrangeUpTo(grid, arranged, last);
    Range alive = noColumns;
    for (int j = 0; j <= last; j += dtwRun) {
        const Costs local =
            convert<float>(localDistances<Metric>(grid, arranged.stride, grid.test, j));
        const Flags valid = inside(j, last);
        const Flags drop = limit <= local;
        if (anyLane(select(drop, splat<std::int32_t, dtwRun>(0), valid))) extend(alive, j, last);
        store(cost + j, select(valid, select(drop, dead(), local), dead()));
        store(flat + j, splat<std::int32_t, dtwRun>(0));
    }
    closeRow(cost, flat, {0, last});
    return alive;
}

// A row between the first and the last; `from` and `to` are the buffers of the row before and of
// this one.
template <class Metric>
VSQ_INLINE Range middleRow(const DtwGrid& grid, Arranged& arranged, int i, int from, Range row) {
    const float* cost = grid.cost[from];
    float* newCost = grid.cost[1 - from];
    int* newFlat = grid.flat[1 - from];
    const double* frame = grid.test + static_cast<std::ptrdiff_t>(i) * grid.nDim;
    const Costs limit = splat<float, dtwRun>(grid.pruneFrom);
    Range alive = noColumns;
    arrangeUpTo(grid, arranged, row.last);
    for (int j = row.first; j <= row.last; j += dtwRun) {
        const Best best = bestPredecessors(cost, grid.flat[from], j, dtwDead);
        const Flags valid = inside(j, row.last);
        const Flags drop = limit <= best.cost;
        Costs sum = select(valid, select(drop, dead(), best.cost), dead());
        if (anyLane(select(drop, splat<std::int32_t, dtwRun>(0), valid))) {
            extend(alive, j, row.last);
            const Costs local =
                convert<float>(localDistances<Metric>(grid, arranged.stride, frame, j));
            sum = select(sum < dead(), sum + local, sum);
        }
        store(newCost + j, sum);
        store(newFlat + j, best.flat);
    }
    closeRow(newCost, newFlat, row);
    return alive;
}

// The smallest cost of a path's end, or the threshold where none is below it. Here alone the local
// distance is added before it is rounded.
template <class Metric>
VSQ_INLINE double lastRow(const DtwGrid& grid, Arranged& arranged, int from, Range row) {
    const double* frame = grid.test + static_cast<std::ptrdiff_t>(grid.nRows - 1) * grid.nDim;
    const Costs clamp = splat<float, dtwRun>(grid.clampTo);
    const Costs none = splat<float, dtwRun>(__builtin_inff());
    Costs smallest = none;
    arrangeUpTo(grid, arranged, row.last);
    for (int j = row.first; j <= row.last; j += dtwRun) {
        const Best best = bestPredecessors(grid.cost[from], grid.flat[from], j, grid.pruneFrom);
        const Flags valid = inside(j, row.last);
        const Flags hopeless = clamp <= best.cost; // a distance is never negative
        if (!anyLane(select(hopeless, splat<std::int32_t, dtwRun>(0), valid))) continue;
        const Wide local = localDistances<Metric>(grid, arranged.stride, frame, j);
        const Costs cost = convert<float>(local + convert<double>(best.cost));
        smallest = smaller(select(valid, select(cost < clamp, cost, none), none), smallest);
    }
    const float result = smallestLane(smallest);
    return result < __builtin_inff() ? double(result) : grid.threshold;
}

template <class Metric>
double evaluateWith(const DtwGrid& grid) {
    Arranged arranged{dtwStride(grid.nColumns), 0};
    Range alive = firstRow<Metric>(grid, arranged, grid.cost[0], grid.flat[0]);
    int from = 0;
    for (int i = 1; i < grid.nRows - 1; ++i) {
        const Range row = intersect(grid.bounds + 2 * i, alive);
        if (alive.first > alive.last || row.first > row.last) return grid.threshold;
        alive = middleRow<Metric>(grid, arranged, i, from, row);
        from = 1 - from;
    }
    if (alive.first > alive.last) return grid.threshold;
    return lastRow<Metric>(grid, arranged, from,
                           intersect(grid.bounds + 2 * (grid.nRows - 1), alive));
}

double evaluate(const DtwGrid& grid) {
    return grid.cityBlock ? evaluateWith<CityBlock>(grid) : evaluateWith<Euclidean>(grid);
}

} // namespace

extern const DtwKernels dtwKernels{.evaluate = evaluate};

} // namespace vsq::VSQ_LEVEL
