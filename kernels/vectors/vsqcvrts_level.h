// Conversions between floating and integer arrays, and the range of an array. All arrays have n
// elements; source and destination of a conversion do not overlap or begin at one address.
#pragma once

#include "levels/levelrecord.h"

namespace vsq {

// Downward, `truncate...` multiplies by the factor (1.0 for none) and drops the fraction; what does
// not fit the target, NaN included, becomes the target's most negative value. `clamp...`
// drops the fraction too, but values beyond the target's range become the nearer end of it, and
// NaN the smallest value. Upward, each element is multiplied by the factor; the product is
// rounded once, to the destination's type.
struct CvrtsKernels {
    void (*truncateFloatToShort)(const float* src, short* dst, int n, double factor);
    void (*truncateDoubleToShort)(const double* src, short* dst, int n, double factor);
    void (*truncateFloatToInt)(const float* src, int* dst, int n, double factor);
    void (*truncateDoubleToInt)(const double* src, int* dst, int n, double factor);
    void (*clampFloatToShort)(const float* src, short* dst, int n);
    void (*clampDoubleToShort)(const double* src, short* dst, int n);
    void (*clampFloatToInt)(const float* src, int* dst, int n);
    void (*clampDoubleToInt)(const double* src, int* dst, int n);
    void (*shortToFloat)(const short* src, float* dst, int n, double factor);
    void (*shortToDouble)(const short* src, double* dst, int n, double factor);
    void (*intToFloat)(const int* src, float* dst, int n, double factor);
    void (*intToDouble)(const int* src, double* dst, int n, double factor);

    // the largest biased exponent field; 0 for n < 1
    int (*largestFloatExponent)(const float* src, int n);
    int (*largestDoubleExponent)(const double* src, int n); // the same
    // all absolute values or'ed; 0 for n < 1
    unsigned (*joinedShortMagnitudes)(const short* src, int n);
    unsigned (*joinedIntMagnitudes)(const int* src, int n); // the same
};
VSQ_DECLARE_LEVELS(CvrtsKernels, cvrtsKernels)

} // namespace vsq
