#include "bench/frame/plain_conversions.h"

#if defined(__AVX2__)
#include <immintrin.h>
#endif

namespace plain {

unsigned sum(const unsigned* words, int n) {
    unsigned lanes[64] = {};
    for (int i = 0; i + 64 <= n; i += 64)
        for (int lane = 0; lane < 64; ++lane)
            lanes[lane] += words[i + lane];
    unsigned total = 0;
    for (const unsigned lane : lanes)
        total += lane;
    return total;
}

void clampToShorts(const float* src, short* dst, int n) {
    for (int i = 0; i < n; ++i) {
        const float value = src[i] > 32767.0f ? 32767.0f : src[i];
        dst[i] = static_cast<short>(value < -32768.0f ? -32768.0f : value);
    }
}

void toFloats(const short* src, float* dst, int n, float factor) {
    for (int i = 0; i < n; ++i)
        dst[i] = src[i] * factor;
}

// The truncating conversion gives the most negative integer for what is too large, so the upper end
// is clamped before it, and the narrowing clamps the lower one. Whole registers only: n is a
// multiple of 32.
#if defined(__AVX512BW__)
namespace {

__m512i sixteen(const float* src) {
    const __m512 value = _mm512_min_ps(_mm512_loadu_ps(src), _mm512_set1_ps(32767.0f));
    return _mm512_cvttps_epi32(value);
}

void clampRegisters(const float* src, short* dst, int n) {
    const __m512i order = _mm512_setr_epi64(0, 2, 4, 6, 1, 3, 5, 7);
    for (int i = 0; i < n; i += 32) {
        const __m512i packed = _mm512_packs_epi32(sixteen(src + i), sixteen(src + i + 16));
        _mm512_storeu_si512(dst + i, _mm512_permutexvar_epi64(order, packed));
    }
}

} // namespace
#elif defined(__AVX2__)
namespace {

__m256i eight(const float* src) {
    const __m256 value = _mm256_min_ps(_mm256_loadu_ps(src), _mm256_set1_ps(32767.0f));
    return _mm256_cvttps_epi32(value);
}

void clampRegisters(const float* src, short* dst, int n) {
    for (int i = 0; i < n; i += 16) {
        const __m256i packed = _mm256_packs_epi32(eight(src + i), eight(src + i + 8));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + i),
                            _mm256_permute4x64_epi64(packed, 0xD8));
    }
}

} // namespace
#endif

Clamp clampByIntrinsics() {
#if defined(__AVX2__)
    return clampRegisters;
#else
    return nullptr;
#endif
}

} // namespace plain
