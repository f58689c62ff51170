// Plain loops for quadratic distances and time warping, as an application would write them.
#pragma once

namespace plain {

double mahalanobis(const float* a, const float* b, const float* const* invCov, int n);
double mahalanobisDiagonal(const float* a, const float* b, const float* invCovD, int n);

// Best cost of a path through the band with fixed ends; `cost` and `flat` have room for nColumns + 2
// elements.
float warp(const float* const* test, int nRows, const float* const* pattern, int nColumns, int nDim,
           float* cost, int* flat);

} // namespace plain
