// Plain loops that convert samples, as an application would write and compile them.
#pragma once

namespace plain {

unsigned sum(const unsigned* words, int n); // the words of an array at load speed
void clampToShorts(const float* src, short* dst, int n);
// The same by the processor's own instructions; null where there are none that we know.
using Clamp = void (*)(const float* src, short* dst, int n);
Clamp clampByIntrinsics();
void toFloats(const short* src, float* dst, int n, float factor);

} // namespace plain
