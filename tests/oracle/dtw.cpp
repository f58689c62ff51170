#include "oracle/dtw.h"

#include <cmath>

namespace oracle {
namespace {

const float dead = 3.4e38f;

struct Rows {
    std::vector<float> costCells;
    std::vector<int> flatCells;
    float* cost;
    int* flat;

    explicit Rows(int nColumns)
        : costCells(static_cast<std::size_t>(nColumns) + 2, dead),
          flatCells(static_cast<std::size_t>(nColumns) + 2, 0), cost(costCells.data() + 2),
          flat(flatCells.data() + 2) {}
};

bool prune(Rows& rows, int lo, int hi, double threshold) {
    bool alive = false;
    for (int j = lo; j <= hi; ++j) {
        if (threshold <= double(rows.cost[j]))
            rows.cost[j] = dead;
        else
            alive = true;
    }
    return alive;
}

void takePredecessors(Rows& rows, int lo, int hi) {
    for (int j = hi; j >= lo; --j) {
        float best = rows.flat[j] == 1 ? dead : rows.cost[j];
        int flag = 1;
        if (rows.cost[j - 1] <= best) {
            best = rows.cost[j - 1];
            flag = 0;
        }
        if (rows.cost[j - 2] < best) {
            best = rows.cost[j - 2];
            flag = 0;
        }
        rows.cost[j] = best;
        rows.flat[j] = flag;
    }
    rows.cost[lo - 1] = dead;
    rows.cost[lo - 2] = dead;
}

double lastRow(Rows& rows, int nRows, int nColumns, int lo, double threshold,
               const LocalDistance& local) {
    double bestCost = threshold;
    int bestCol = -1;
    for (int j = nColumns - 1; j >= lo; --j) {
        double best = rows.flat[j] == 1 ? threshold : double(rows.cost[j]);
        if (double(rows.cost[j - 1]) <= best) best = double(rows.cost[j - 1]);
        if (double(rows.cost[j - 2]) < best) best = double(rows.cost[j - 2]);
        rows.cost[j] = float(local(nRows - 1, j) + best);
        if (float(threshold) <= rows.cost[j]) {
            rows.cost[j] = float(threshold);
        } else if (double(rows.cost[j]) < bestCost) {
            bestCost = double(rows.cost[j]);
            bestCol = j;
        }
    }
    return bestCol != -1 ? double(rows.cost[bestCol]) : threshold;
}

} // namespace

Band dtwBand(int N, int M, int d) {
    Band band{std::vector<int>(static_cast<std::size_t>(N)),
              std::vector<int>(static_cast<std::size_t>(N))};
    int r1 = int(std::floor(double(2 * M - N - 2 * d - 1) * (1.0 / 3.0)));
    if (r1 < 0) r1 = -1;
    for (int i = N - 1; i >= r1 + 1; --i)
        band.hi[static_cast<std::size_t>(i)] = M - 1 - (N - 1 - i) / 2;
    for (int i = r1; i >= 0; --i)
        band.hi[static_cast<std::size_t>(i)] = d + 2 * i;
    int r2 = int(std::ceil(double(4 * N + 2 * d - 2 * M - 2) * (1.0 / 3.0)));
    if (r2 > N - 1) r2 = N;
    for (int i = 0; i < r2; ++i)
        band.lo[static_cast<std::size_t>(i)] = i / 2;
    for (int i = r2; i < N; ++i)
        band.lo[static_cast<std::size_t>(i)] = M + 1 - d - 2 * N + 2 * i;
    return band;
}

double dtwGrid(int N, int M, int d, double threshold, const LocalDistance& local) {
    Rows rows(M);
    const Band band = dtwBand(N, M, d);
    for (int j = band.hi[0]; j >= 0; --j)
        rows.cost[j] = float(local(0, j));
    if (!prune(rows, 0, band.hi[0], threshold)) return threshold;
    for (int i = 1; i <= N - 2; ++i) {
        const int lo = band.lo[static_cast<std::size_t>(i)],
                  hi = band.hi[static_cast<std::size_t>(i)];
        takePredecessors(rows, lo, hi);
        if (!prune(rows, lo, hi, threshold)) return threshold;
        for (int j = lo; j <= hi; ++j)
            if (rows.cost[j] < dead) rows.cost[j] += float(local(i, j));
    }
    return lastRow(rows, N, M, band.lo[static_cast<std::size_t>(N) - 1], threshold, local);
}

bool dtwAdmits(int N, int M, int margin) {
    return M >= ((N - 1) >> 1) + 1 && M <= 2 * N - 1 + margin;
}

double dtwEuclidean(const float* a, const float* b, int nDim) {
    double sum = 0.0;
    for (int k = 0; k < nDim; ++k)
        sum += (double(a[k]) - double(b[k])) * (double(a[k]) - double(b[k]));
    return std::sqrt(sum);
}

double dtwCityBlock(const float* a, const float* b, int nDim) {
    double sum = 0.0;
    for (int k = 0; k < nDim; ++k)
        sum += std::fabs(double(a[k]) - double(b[k]));
    return sum;
}

} // namespace oracle
