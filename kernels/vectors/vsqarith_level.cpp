// Elementwise loops, left to the compiler: each element stands for itself, so that any register
// width gives the same bits.
#include "vectors/vsqarith_level.h"
#include "simd/pack.h"

namespace vsq::VSQ_LEVEL {
namespace {

void setFloat(float value, float* dst, int n) {
    for (int i = 0; i < n; ++i)
        dst[i] = value;
}

void setFixed(short value, short* dst, int n) {
    for (int i = 0; i < n; ++i)
        dst[i] = value;
}

void scale(float factor, float* dst, int n) {
    for (int i = 0; i < n; ++i)
        dst[i] *= factor;
}

void multiply(const float* src, float* dst, int n) {
    for (int i = 0; i < n; ++i)
        dst[i] *= src[i];
}

} // namespace

extern const ArithKernels arithKernels{
    .setFloat = setFloat,
    .setFixed = setFixed,
    .scale = scale,
    .multiply = multiply,
};

} // namespace vsq::VSQ_LEVEL
