// Plain loops for quadratic distances in double, as an application would write them.
#pragma once

namespace plain {

double mahalanobis(const float* a, const float* b, const float* const* invCov, int n);
double mahalanobisDiagonal(const float* a, const float* b, const float* invCovD, int n);

} // namespace plain
