// Linear prediction, beyond the exported functions of ktlp6.h.
#pragma once

#include "frame/types.h"

// The two methods: `order` coefficients of the predictor of nSamples samples, 1 on success and 0 on
// failure.
int ownsLPAutocorr(const float* pSrc, int nSamples, float* pCoef, int order);
int ownsLPCovariance(const float* pSrc, int nSamples, float* pCoef, int order);
