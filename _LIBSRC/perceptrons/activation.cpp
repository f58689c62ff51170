// The activation functions of multilayer perceptrons and their derivatives.
#include "perceptrons/KT_PERC.h"

#include "levels/levels.h"

#include <climits>
#include <cmath>
#include <cstdint>

namespace {

// 2^count as fixed-point inputs take it: an int with one bit, which 31 makes the negative one, and
// counts modulo 32.
double bitAsDouble(unsigned count) {
    return double(std::int32_t(1u << (count & 31)));
}

// An input as a real number, by a factor of that kind.
double scaledInput(int value, int inScale) {
    if (inScale > 0) return value / bitAsDouble(unsigned(inScale));
    return value * bitAsDouble(0u - unsigned(inScale));
}

// value * 2^(-outScale), whatever the scale; 0 stays 0.
double scaledOutput(double value, int outScale) {
    return std::ldexp(value, outScale < -INT_MAX ? INT_MAX : -outScale);
}

short saturated(double value) {
    if (value > 32767.0) return 0x7FFF;
    if (!(value >= -32768.0)) return -32768;
    return short(value);
}

// Toward zero, on the scale of the output, the bits beyond 16 dropped.
short convertDown(double value, int outScale) {
    return KTdwConvertDown(value, KT_FixedScale, &outScale);
}

// The low half of an element as a real number.
double lowHalf(int element, int inScale) {
    return KTwdConvertUp(short(std::uint16_t(element & 0xFFFF)), inScale);
}

double absActivation(double x) {
    return x < 0.0 ? 1.0 / (1.0 - x) : 1.0 / (x + 1.0);
}

// The power 2.0 of the general function is the product: both are the double next to the square.
double square(double x) {
    return x * x;
}

// The derivative by the sign that goes with x, which in the fixed form is not always x's own. A
// NaN stays.
double absDerivative(double x, double sign) {
    if (sign > 0.0) return -1.0 / square(x + 1.0);
    if (sign < 0.0) return 1.0 / square(1.0 - x);
    return sign == 0.0 ? 0.0 : sign;
}

// Whether two arrays of n elements have none in common; the order of an elementwise function shows
// in no other.
bool areApart(const float* a, const float* b, int n) {
    const auto first = reinterpret_cast<std::uintptr_t>(a),
               second = reinterpret_cast<std::uintptr_t>(b);
    const auto distance = first < second ? second - first : first - second;
    return n > 0 && distance >= std::uintptr_t(n) * sizeof(float);
}

} // namespace

bool ktl::perc::isElementwise(KTMLPActivationFn function) {
    return function == KTsSigmoidActivation || function == KTsSigmoidDerivative ||
           function == KTsAbsActivation || function == KTsAbsDerivative;
}

// The one of the eight that walks upward.
void KTsSigmoidActivation(const float* pIn, float* pOut, int n) {
    const vsq::MlpKernels& kernels = *vsq::kernels().mlp;
    if (pIn == pOut || areApart(pIn, pOut, n)) {
        kernels.sigmoidFloat(pIn, pOut, n);
        return;
    }
    for (int i = 0; i < n; ++i)
        kernels.sigmoidFloat(pIn + i, pOut + i, 1);
}

void KTsSigmoidDerivative(const float* pIn, float* pOut, int n) {
    if (pIn == pOut || areApart(pIn, pOut, n)) {
        vsq::kernels().mlp->sigmoidSlopes(pIn, pOut, n);
        return;
    }
    for (int i = n - 1; i >= 0; --i)
        pOut[i] = float((1.0 - double(pIn[i])) * double(pIn[i]));
}

void KTsAbsActivation(const float* pIn, float* pOut, int n) {
    for (int i = n - 1; i >= 0; --i)
        pOut[i] = float(absActivation(double(pIn[i])));
}

void KTsAbsDerivative(const float* pIn, float* pOut, int n) {
    for (int i = n - 1; i >= 0; --i)
        pOut[i] = float(absDerivative(double(pIn[i]), double(pIn[i])));
}

// With an inScale of 0 the input is not read: an element's x is the scaled result of the one before
// it.
void KTwSigmoidActivation(const int* pIn, short* pOut, int n, int inScale, int outScale) {
    if (inScale >= 1 && inScale <= 30 && outScale <= -1 && outScale >= -30) {
        vsq::kernels().mlp->sigmoidFixed(pIn, pOut, n, inScale, -outScale);
        return;
    }
    double x = 0.0;
    for (int i = n - 1; i >= 0; --i) {
        if (inScale != 0) x = scaledInput(pIn[i], inScale);
        x = scaledOutput(1.0 / (1.0 + std::exp(-x)), outScale);
        pOut[i] = saturated(x);
    }
}

void KTwSigmoidDerivative(const int* pIn, short* pOut, int n, int inScale, int outScale) {
    for (int i = n - 1; i >= 0; --i) {
        const double value = KTidConvertUp(pIn[i], inScale);
        pOut[i] = convertDown((1.0 - value) * value, outScale);
    }
}

void KTwAbsActivation(const int* pIn, short* pOut, int n, int inScale, int outScale) {
    for (int i = n - 1; i >= 0; --i)
        pOut[i] = convertDown(absActivation(lowHalf(pIn[i], inScale)), outScale);
}

void KTwAbsDerivative(const int* pIn, short* pOut, int n, int inScale, int outScale) {
    for (int i = n - 1; i >= 0; --i)
        pOut[i] = convertDown(absDerivative(lowHalf(pIn[i], inScale), double(pIn[i])), outScale);
}
