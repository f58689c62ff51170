// The logarithm of fixed-point path evaluation.
#pragma once

// In place, each element x, which stands for x * 2^sfIn, becomes -log10(x * 2^sfIn) * 2^sfOut as an
// integer; what is not above 0 becomes HMM_LOG_ZERO. sfIn is such that the binary exponent of every
// x * 2^sfIn lies in -31 .. 61, else the nearer bound counts; sfOut from -5 to 58 is of use, any is
// defined. Integer arithmetic only: 32-bit values whose products are taken in 64 bits, sums wrap.
// From sfOut = 25 on the sign is not turned: the result is +log10. Models of so fine a scale have
// always been scored so.
void ownwLog10Scaled(int* vector, int n, int sfIn, int sfOut);
