#include "bench/templates/plain_warp.h"

#include "bench/support/lanes.h"

#include <algorithm>
#include <cmath>

namespace plain {
namespace {

constexpr float dead = 1e30f;
constexpr int margin = 2; // columns -1 and -2

// One row of the grid: the previous row's costs and bans on flat steps in, this row's out.
void advance(const float* cost, const float* ban, const float* local, int lo, int hi,
             float* newCost, float* newBan) {
    for (int j = lo; j <= hi; ++j) {
        const float flat = cost[j] + ban[j], diagonal = cost[j - 1], skip = cost[j - 2];
        const float steep = std::min(diagonal, skip);
        newBan[j] = flat < steep ? dead : 0.0f;
        newCost[j] = std::min(flat, steep) + local[j];
    }
}

} // namespace

Pattern::Pattern(const float* const* frames, int nFrames, int dimensions)
    : nColumns(nFrames), nDim(dimensions), stride(nFrames + 16),
      values(std::size_t(nDim) * std::size_t(stride)), local(std::size_t(stride)) {
    for (int j = 0; j < nFrames; ++j)
        for (int d = 0; d < nDim; ++d)
            values[std::size_t(d * stride + j)] = frames[j][d];
    for (auto* rows : {costs, bans})
        for (int k = 0; k < 2; ++k)
            rows[k].resize(std::size_t(nColumns + margin));
}

// The columns of row i.
struct Range {
    int lo, hi;
    Range(int i, int nRows, int nColumns)
        : lo(std::max(i / 2, nColumns + 1 - 2 * nRows + 2 * i)),
          hi(std::min(2 * i, nColumns - 1 - (nRows - 1 - i) / 2)) {}
};

void Pattern::clear() {
    for (auto& row : costs)
        std::fill(row.begin(), row.end(), dead);
    for (auto& row : bans)
        std::fill(row.begin(), row.end(), 0.0f);
}

void Pattern::distances(const float* frame, int lo, int hi) {
    float* const sums = local.data();
    for (int j = lo; j <= hi; ++j)
        sums[j] = 0;
    for (int d = 0; d < nDim; ++d) {
        const float* const row = values.data() + d * stride;
        for (int j = lo; j <= hi; ++j)
            sums[j] += (row[j] - frame[d]) * (row[j] - frame[d]);
    }
    for (int j = lo; j <= hi; ++j)
        sums[j] = std::sqrt(sums[j]);
}

float Pattern::warp(const float* const* test, int nRows) {
    clear();
    float *const cost = costs[0].data() + margin, *const ban = bans[0].data() + margin;
    distances(test[0], 0, 0);
    cost[0] = local[0];
    for (int i = 1; i < nRows; ++i) {
        const auto [lo, hi] = Range(i, nRows, nColumns);
        distances(test[i], lo, hi);
        for (int j = hi; j >= lo; --j) {
            const float flat = cost[j] + ban[j], steep = std::min(cost[j - 1], cost[j - 2]);
            ban[j] = flat < steep ? dead : 0.0f;
            cost[j] = std::min(flat, steep) + local[std::size_t(j)];
        }
        cost[lo - 1] = dead; // what left the band
        cost[lo - 2] = dead;
    }
    return cost[nColumns - 1];
}

void Pattern::distancesLanes(const float* frame, int lo, int hi) {
    for (int first = lo; first <= hi; first += 16) {
        Floats sums = {};
        for (int d = 0; d < nDim; ++d) {
            const Floats difference = load(values.data() + d * stride + first) - frame[d];
            sums += difference * difference;
        }
        store(local.data() + first, sums);
    }
    for (int j = lo; j <= hi; ++j)
        local[std::size_t(j)] = std::sqrt(local[std::size_t(j)]);
}

float Pattern::warpLanes(const float* const* test, int nRows) {
    clear();
    distances(test[0], 0, 0);
    costs[0][margin] = local[0];
    for (int i = 1; i < nRows; ++i) {
        const auto [lo, hi] = Range(i, nRows, nColumns);
        distancesLanes(test[i], lo, hi);
        const int from = (i - 1) % 2, to = i % 2;
        float* const cost = costs[to].data() + margin;
        advance(costs[from].data() + margin, bans[from].data() + margin, local.data(), lo, hi, cost,
                bans[to].data() + margin);
        cost[lo - 1] = dead; // what left the band
        cost[lo - 2] = dead;
    }
    return costs[(nRows - 1) % 2][std::size_t(nColumns - 1 + margin)];
}

} // namespace plain
