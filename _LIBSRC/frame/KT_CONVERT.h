// Conversions between the numeric forms, beyond the exported ones of ktlp6.h.
#pragma once

#include "frame/types.h"

// The order of an array as KTsMaxOrder and KTwMaxOrder define it; 0 for n below 1.
int KTdMaxOrder(const double* pSrc, int n);
int KTiMaxOrder(const int* pSrc, int n);

// 2^(-scale), the factor of a scale in both directions of conversion.
namespace ktl {
double factorOfScale(int scale);
}
