// Plain loops over vectors, as an application would write and compile them.
#pragma once

namespace plain {

void ln(float* vec,
        int n); // the C library's function in a loop; its vector form where the compiler finds one
void exp(float* vec, int n);
float dot(const float* a, const float* b, int n);
void autoCorr(const float* src, int n, float* dst, int nLags);
float squaredDistance(const float* a, const float* b, int n);

} // namespace plain
