// Plain loops over vectors, as an application would write and compile them.
#pragma once

namespace plain {

// The C library's functions in a loop; their vector forms where the compiler finds them.
void ln(float* vec, int n);
void exp(float* vec, int n);
float dot(const float* a, const float* b, int n);
float squaredDistance(const float* a, const float* b, int n);

// Lag by lag; and all lags side by side in registers, up to these sizes.
inline constexpr int mostLags = 32, mostSamples = 1024;
void autoCorr(const float* src, int n, float* dst, int nLags);
void autoCorrLanes(const float* src, int n, float* dst, int nLags);

// out = the sum over i of in[i] times column i of a square table; null for lengths that are not
// compiled.
using Transform = void (*)(const float* table, const float* in, float* out);
Transform columnTransform(int n);

void widen(const short* src, float* dst, int n);
void clampToWords(const float* src, short* dst, int n);

} // namespace plain
