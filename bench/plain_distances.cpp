#include "plain_distances.h"

#include <cmath>

namespace plain {

double mahalanobisDiagonal(const float* a, const float* b, const float* invCovD, int n) {
    double sum = 0;
    for (int i = 0; i < n; ++i) {
        const double d = double(a[i]) - double(b[i]);
        sum += invCovD[i] * d * d;
    }
    return sum;
}

double mahalanobis(const float* a, const float* b, const float* const* invCov, int n) {
    double diagonal = 0, triangle = 0;
    for (int i = 0; i < n; ++i) {
        const double di = double(a[i]) - double(b[i]);
        double row = 0;
        for (int j = 0; j < i; ++j)
            row += invCov[i][j] * (double(a[j]) - double(b[j]));
        triangle += di * row;
        diagonal += invCov[i][i] * di * di;
    }
    return diagonal + triangle + triangle;
}

namespace {

const float dead = 3.4e38f;

float distance(const float* a, const float* b, int n) {
    float sum = 0;
    for (int k = 0; k < n; ++k)
        sum += (a[k] - b[k]) * (a[k] - b[k]);
    return std::sqrt(sum);
}

int smallest(int a, int b) {
    return a < b ? a : b;
}
int largest(int a, int b) {
    return a > b ? a : b;
}

} // namespace

float warp(const float* const* test, int nRows, const float* const* pattern, int nColumns, int nDim,
           float* cost, int* flat) {
    cost += 2;
    flat += 2;
    for (int j = -2; j < nColumns; ++j) {
        cost[j] = dead;
        flat[j] = 0;
    }
    cost[0] = distance(test[0], pattern[0], nDim);
    for (int i = 1; i < nRows; ++i) {
        const int lo = largest(i / 2, nColumns + 1 - 2 * nRows + 2 * i);
        const int hi = smallest(2 * i, nColumns - 1 - (nRows - 1 - i) / 2);
        for (int j = hi; j >= lo; --j) {
            float best = flat[j] ? dead : cost[j];
            int flag = 1;
            if (cost[j - 1] <= best) best = cost[j - 1], flag = 0;
            if (cost[j - 2] < best) best = cost[j - 2], flag = 0;
            flat[j] = flag;
            cost[j] = best < dead ? best + distance(test[i], pattern[j], nDim) : best;
        }
        if (lo > 0) cost[lo - 1] = dead;
        if (lo > 1) cost[lo - 2] = dead;
    }
    return cost[nColumns - 1];
}

} // namespace plain
