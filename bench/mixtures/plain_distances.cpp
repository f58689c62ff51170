#include "bench/mixtures/plain_distances.h"

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

} // namespace plain
