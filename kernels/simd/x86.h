// The operations of registers.h that x86 has instructions for, by what the level being compiled
// may use. Overloads are whole functions; within a group they go from the widest register down.
#pragma once

#include "simd/registers.h"

#include <immintrin.h>

namespace vsq::VSQ_LEVEL {
namespace {

// --- AVX-512: F, VL, BW and DQ come together ---
#if defined(__AVX512F__) && defined(__AVX512VL__) && defined(__AVX512BW__) && defined(__AVX512DQ__)

// A bit for each of the first `count` lanes.
VSQ_INLINE unsigned long long firstLanes(int count, int lanes) {
    return count >= lanes ? ~0ull : (1ull << count) - 1;
}

template <AnyRegister<8, 64> V, class T>
VSQ_INLINE V loadPartOf(const T* p, int count, T fill) {
    const V others = fill - V{};
    return (V)_mm512_mask_loadu_epi64((__m512i)others, __mmask8(firstLanes(count, 8)), p);
}
template <AnyRegister<4, 64> V, class T>
VSQ_INLINE V loadPartOf(const T* p, int count, T fill) {
    const V others = fill - V{};
    return (V)_mm512_mask_loadu_epi32((__m512i)others, __mmask16(firstLanes(count, 16)), p);
}
template <AnyRegister<2, 64> V, class T>
VSQ_INLINE V loadPartOf(const T* p, int count, T fill) {
    const V others = fill - V{};
    return (V)_mm512_mask_loadu_epi16((__m512i)others, __mmask32(firstLanes(count, 32)), p);
}
template <AnyRegister<8, 32> V, class T>
VSQ_INLINE V loadPartOf(const T* p, int count, T fill) {
    const V others = fill - V{};
    return (V)_mm256_mask_loadu_epi64((__m256i)others, __mmask8(firstLanes(count, 4)), p);
}
template <AnyRegister<4, 32> V, class T>
VSQ_INLINE V loadPartOf(const T* p, int count, T fill) {
    const V others = fill - V{};
    return (V)_mm256_mask_loadu_epi32((__m256i)others, __mmask8(firstLanes(count, 8)), p);
}
template <AnyRegister<2, 32> V, class T>
VSQ_INLINE V loadPartOf(const T* p, int count, T fill) {
    const V others = fill - V{};
    return (V)_mm256_mask_loadu_epi16((__m256i)others, __mmask16(firstLanes(count, 16)), p);
}
template <AnyRegister<4, 16> V, class T>
VSQ_INLINE V loadPartOf(const T* p, int count, T fill) {
    const V others = fill - V{};
    return (V)_mm_mask_loadu_epi32((__m128i)others, __mmask8(firstLanes(count, 4)), p);
}
template <AnyRegister<2, 16> V, class T>
VSQ_INLINE V loadPartOf(const T* p, int count, T fill) {
    const V others = fill - V{};
    return (V)_mm_mask_loadu_epi16((__m128i)others, __mmask8(firstLanes(count, 8)), p);
}

template <AnyRegister<8, 64> V, class T>
VSQ_INLINE void storePartOf(T* p, V v, int count) {
    _mm512_mask_storeu_epi64(p, __mmask8(firstLanes(count, 8)), (__m512i)v);
}
template <AnyRegister<4, 64> V, class T>
VSQ_INLINE void storePartOf(T* p, V v, int count) {
    _mm512_mask_storeu_epi32(p, __mmask16(firstLanes(count, 16)), (__m512i)v);
}
template <AnyRegister<2, 64> V, class T>
VSQ_INLINE void storePartOf(T* p, V v, int count) {
    _mm512_mask_storeu_epi16(p, __mmask32(firstLanes(count, 32)), (__m512i)v);
}
template <AnyRegister<8, 32> V, class T>
VSQ_INLINE void storePartOf(T* p, V v, int count) {
    _mm256_mask_storeu_epi64(p, __mmask8(firstLanes(count, 4)), (__m256i)v);
}
template <AnyRegister<4, 32> V, class T>
VSQ_INLINE void storePartOf(T* p, V v, int count) {
    _mm256_mask_storeu_epi32(p, __mmask8(firstLanes(count, 8)), (__m256i)v);
}
template <AnyRegister<2, 32> V, class T>
VSQ_INLINE void storePartOf(T* p, V v, int count) {
    _mm256_mask_storeu_epi16(p, __mmask16(firstLanes(count, 16)), (__m256i)v);
}
template <AnyRegister<4, 16> V, class T>
VSQ_INLINE void storePartOf(T* p, V v, int count) {
    _mm_mask_storeu_epi32(p, __mmask8(firstLanes(count, 4)), (__m128i)v);
}

template <AnyRegister<4, 64> V, class T>
VSQ_INLINE int storeChosenOf(T* p, V v, unsigned chosen) {
    // to a register first: the form that stores is slow on some processors
    _mm512_storeu_si512(p, _mm512_maskz_compress_epi32(__mmask16(chosen), (__m512i)v));
    return __builtin_popcount(chosen);
}

// The forms with a mask of all lanes keep g++ from warning of its own headers.
template <FloatRegister<64> V>
VSQ_INLINE V smallerOf(V x, V y) {
    return (V)_mm512_maskz_min_ps(0xFFFF, (__m512)x, (__m512)y);
}
template <DoubleRegister<64> V>
VSQ_INLINE V smallerOf(V x, V y) {
    return (V)_mm512_maskz_min_pd(0xFF, (__m512d)x, (__m512d)y);
}
template <FloatRegister<64> V>
VSQ_INLINE V largerOf(V x, V y) {
    return (V)_mm512_maskz_max_ps(0xFFFF, (__m512)x, (__m512)y);
}
template <DoubleRegister<64> V>
VSQ_INLINE V largerOf(V x, V y) {
    return (V)_mm512_maskz_max_pd(0xFF, (__m512d)x, (__m512d)y);
}
template <FloatRegister<64> V>
VSQ_INLINE V rootOf(V x) {
    return (V)_mm512_sqrt_ps((__m512)x);
}
template <DoubleRegister<64> V>
VSQ_INLINE V rootOf(V x) {
    return (V)_mm512_sqrt_pd((__m512d)x);
}

template <DoubleRegister<64> R, FloatRegister<32> V>
VSQ_INLINE R convertedOf(V x) {
    return (R)_mm512_cvtps_pd((__m256)x);
}
template <DoubleRegister<64> R, IntRegister<32> V>
VSQ_INLINE R convertedOf(V x) {
    return (R)_mm512_cvtepi32_pd((__m256i)x);
}
template <IntRegister<64> R, ShortRegister<32> V>
VSQ_INLINE R convertedOf(V x) {
    return (R)_mm512_cvtepi16_epi32((__m256i)x);
}
template <LongRegister<64> R, IntRegister<32> V>
VSQ_INLINE R convertedOf(V x) {
    return (R)_mm512_cvtepi32_epi64((__m256i)x);
}
template <FloatRegister<32> R, DoubleRegister<64> V>
VSQ_INLINE R convertedOf(V x) {
    return (R)_mm512_cvtpd_ps((__m512d)x);
}

template <FloatRegister<64> V>
VSQ_INLINE V timesPowersOf(V a, V n) {
    return (V)_mm512_maskz_scalef_ps(0xFFFF, (__m512)a, (__m512)n);
}
template <FloatRegister<32> V>
VSQ_INLINE V timesPowersOf(V a, V n) {
    return (V)_mm256_maskz_scalef_ps(0xFF, (__m256)a, (__m256)n);
}
template <FloatRegister<16> V>
VSQ_INLINE V timesPowersOf(V a, V n) {
    return (V)_mm_maskz_scalef_ps(0xF, (__m128)a, (__m128)n);
}
template <FloatRegister<64> V>
inline constexpr bool powersInOneStep<V> = true;

template <class R, FloatRegister<64> V>
VSQ_INLINE R truncatedOf(V x) {
    return (R)_mm512_cvttps_epi32((__m512)x);
}
template <class R, DoubleRegister<64> V>
VSQ_INLINE R truncatedOf(V x) {
    return (R)_mm512_cvttpd_epi32((__m512d)x);
}
template <class R, IntRegister<64> V>
VSQ_INLINE R narrowedOf(V x) {
    return (R)_mm512_cvtsepi32_epi16((__m512i)x);
}
template <class R, IntRegister<64> V>
VSQ_INLINE R narrowedPairOf(V lo, V hi) {
    return (R)_mm512_permutexvar_epi64(_mm512_setr_epi64(0, 2, 4, 6, 1, 3, 5, 7),
                                       _mm512_packs_epi32((__m512i)lo, (__m512i)hi));
}

template <ShortRegister<64> V, class Middle>
VSQ_INLINE V pairSumsOf(V a, V b, std::int16_t p, std::int16_t q, const Middle& middle) {
    typedef std::int32_t Wide __attribute__((vector_size(64)));
    const __m512i pq = _mm512_set1_epi32(std::int32_t(std::uint16_t(p) | std::uint32_t(q) << 16));
    const __m512i even = _mm512_madd_epi16(_mm512_unpacklo_epi16((__m512i)a, (__m512i)b), pq);
    const __m512i odd = _mm512_madd_epi16(_mm512_unpackhi_epi16((__m512i)a, (__m512i)b), pq);
    return (V)_mm512_packs_epi32((__m512i)middle((Wide)even), (__m512i)middle((Wide)odd));
}
template <ShortRegister<64> V>
VSQ_INLINE V highProductsOf(V a, V b) {
    return (V)_mm512_mulhi_epi16((__m512i)a, (__m512i)b);
}
template <class R, ShortRegister<64> V>
VSQ_INLINE R pairTotalsOf(V a) {
    return (R)_mm512_madd_epi16((__m512i)a, _mm512_set1_epi16(1));
}

template <DoubleRegister<64> R, LongRegister<64> V>
VSQ_INLINE R lookUp16Of(const double* table, V index) {
    return (R)_mm512_permutex2var_pd(_mm512_loadu_pd(table), (__m512i)index,
                                     _mm512_loadu_pd(table + 8));
}
template <FloatRegister<64> R, IntRegister<64> V>
VSQ_INLINE R lookUp8Of(const float* table, V index) {
    return (R)_mm512_permutexvar_ps((__m512i)index, _mm512_broadcast_f32x8(_mm256_loadu_ps(table)));
}

template <AnyRegister<4, 64> V>
VSQ_INLINE unsigned bitsOf(V mask) {
    return unsigned(_mm512_movepi32_mask((__m512i)mask));
}
template <class V>
requires(sizeof(V) == 64) VSQ_INLINE bool anySetOf(V mask) {
    return _mm512_test_epi64_mask((__m512i)mask, (__m512i)mask) != 0;
}
template <IntRegister<64> V>
VSQ_INLINE bool anyBelowOf(V a, V b) {
    return _mm512_cmplt_epi32_mask((__m512i)a, (__m512i)b) != 0;
}
template <IntRegister<64> V>
inline constexpr bool comparesIntoMasks<V> = true;

// Lanes whose x is not below 0, a bit each.
template <FloatRegister<64> V>
VSQ_INLINE unsigned notBelowZero(V x) {
    return _mm512_cmp_ps_mask(_mm512_setzero_ps(), (__m512)x, _CMP_LE_OQ);
}
template <IntRegister<64> V>
VSQ_INLINE unsigned notBelowZero(V x) {
    return _mm512_cmp_epi32_mask(_mm512_setzero_si512(), (__m512i)x, _MM_CMPINT_LE);
}
// The choice of pack.h for 16 lanes, without the way of a mask through full vectors.
template <class T>
VSQ_INLINE Pack<double, 16> selectNotBelowZero(const Pack<T, 16>& x, const Pack<double, 16>& a,
                                               const Pack<double, 16>& b) {
    const unsigned mask = notBelowZero(x.r);
    using R = decltype(a.lo.r);
    return {{(R)_mm512_mask_mov_pd((__m512d)b.lo.r, __mmask8(mask), (__m512d)a.lo.r)},
            {(R)_mm512_mask_mov_pd((__m512d)b.hi.r, __mmask8(mask >> 8), (__m512d)a.hi.r)}};
}

#endif

// --- FMA, which comes with both of the levels above the baseline ---
#if defined(__FMA__)

#if defined(__AVX512F__)
template <DoubleRegister<64> V>
VSQ_INLINE V fusedMultiplyAddOf(V a, V b, V c) {
    return (V)_mm512_fmadd_pd((__m512d)a, (__m512d)b, (__m512d)c);
}
#endif
template <DoubleRegister<32> V>
VSQ_INLINE V fusedMultiplyAddOf(V a, V b, V c) {
    return (V)_mm256_fmadd_pd((__m256d)a, (__m256d)b, (__m256d)c);
}
template <DoubleRegister<16> V>
VSQ_INLINE V fusedMultiplyAddOf(V a, V b, V c) {
    return (V)_mm_fmadd_pd((__m128d)a, (__m128d)b, (__m128d)c);
}

#endif

// --- AVX2, for what AVX-512 does not do in its own way above ---
#if defined(__AVX2__) && !defined(__AVX512VL__)

template <AnyRegister<4, 32> V, class T>
VSQ_INLINE V loadPartOf(const T* p, int count, T fill) {
    const V others = fill - V{};
    const __m256i mask =
        _mm256_cmpgt_epi32(_mm256_set1_epi32(count), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
    const __m256i found = _mm256_maskload_epi32((const int*)p, mask);
    return (V)_mm256_blendv_epi8((__m256i)others, found, mask);
}
template <AnyRegister<4, 16> V, class T>
VSQ_INLINE V loadPartOf(const T* p, int count, T fill) {
    const V others = fill - V{};
    const __m128i mask = _mm_cmpgt_epi32(_mm_set1_epi32(count), _mm_setr_epi32(0, 1, 2, 3));
    const __m128i found = _mm_maskload_epi32((const int*)p, mask);
    return (V)_mm_blendv_epi8((__m128i)others, found, mask);
}
// Whole pairs, and an odd last element.
template <AnyRegister<2, 32> V, class T>
VSQ_INLINE V loadPartOf(const T* p, int count, T fill) {
    const V others = fill - V{};
    const __m256i pairs = _mm256_cmpgt_epi32(_mm256_set1_epi32(count >> 1),
                                             _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
    const __m256i found = _mm256_maskload_epi32((const int*)p, pairs);
    const __m256i result = _mm256_blendv_epi8((__m256i)others, found, pairs);
    if ((count & 1) == 0) return (V)result;
    const __m256i at = _mm256_setr_epi16(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
    const __m256i last = _mm256_cmpeq_epi16(at, _mm256_set1_epi16(short(count - 1)));
    return (V)_mm256_blendv_epi8(result, _mm256_set1_epi16(short(p[count - 1])), last);
}
// For each choice of 8 lanes their numbers, a byte each.
struct ChosenLanes {
    std::uint64_t of[256];
};
constexpr ChosenLanes chosenLanes() {
    ChosenLanes lanes{};
    for (int choice = 0; choice < 256; ++choice)
        for (int lane = 0, stored = 0; lane < 8; ++lane)
            if ((choice >> lane & 1) != 0) lanes.of[choice] |= std::uint64_t(lane) << 8 * stored++;
    return lanes;
}
template <AnyRegister<4, 32> V, class T>
VSQ_INLINE int storeChosenOf(T* p, V v, unsigned chosen) {
    static constexpr ChosenLanes lanes = chosenLanes();
    const __m128i bytes = _mm_loadl_epi64((const __m128i*)(lanes.of + chosen));
    const __m256i together = _mm256_permutevar8x32_epi32((__m256i)v, _mm256_cvtepu8_epi32(bytes));
    _mm256_storeu_si256((__m256i*)p, together);
    return __builtin_popcount(chosen);
}
template <AnyRegister<4, 32> V, class T>
VSQ_INLINE void storePartOf(T* p, V v, int count) {
    const __m256i mask =
        _mm256_cmpgt_epi32(_mm256_set1_epi32(count), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
    _mm256_maskstore_epi32((int*)p, mask, (__m256i)v);
}

#endif

// --- AVX2 ---
#if defined(__AVX2__)

template <FloatRegister<32> V>
VSQ_INLINE V smallerOf(V x, V y) {
    return (V)_mm256_min_ps((__m256)x, (__m256)y);
}
template <DoubleRegister<32> V>
VSQ_INLINE V smallerOf(V x, V y) {
    return (V)_mm256_min_pd((__m256d)x, (__m256d)y);
}
template <FloatRegister<32> V>
VSQ_INLINE V largerOf(V x, V y) {
    return (V)_mm256_max_ps((__m256)x, (__m256)y);
}
template <DoubleRegister<32> V>
VSQ_INLINE V largerOf(V x, V y) {
    return (V)_mm256_max_pd((__m256d)x, (__m256d)y);
}
template <FloatRegister<32> V>
VSQ_INLINE V rootOf(V x) {
    return (V)_mm256_sqrt_ps((__m256)x);
}
template <DoubleRegister<32> V>
VSQ_INLINE V rootOf(V x) {
    return (V)_mm256_sqrt_pd((__m256d)x);
}

template <DoubleRegister<32> R, FloatRegister<16> V>
VSQ_INLINE R convertedOf(V x) {
    return (R)_mm256_cvtps_pd((__m128)x);
}
template <DoubleRegister<32> R, IntRegister<16> V>
VSQ_INLINE R convertedOf(V x) {
    return (R)_mm256_cvtepi32_pd((__m128i)x);
}
template <IntRegister<32> R, ShortRegister<16> V>
VSQ_INLINE R convertedOf(V x) {
    return (R)_mm256_cvtepi16_epi32((__m128i)x);
}
template <LongRegister<32> R, IntRegister<16> V>
VSQ_INLINE R convertedOf(V x) {
    return (R)_mm256_cvtepi32_epi64((__m128i)x);
}
template <IntRegister<16> R, ShortRegister<8> V>
VSQ_INLINE R convertedOf(V x) {
    std::int64_t all;
    std::memcpy(&all, &x, sizeof all);
    return (R)_mm_cvtepi16_epi32(_mm_cvtsi64_si128(all));
}
template <FloatRegister<16> R, DoubleRegister<32> V>
VSQ_INLINE R convertedOf(V x) {
    return (R)_mm256_cvtpd_ps((__m256d)x);
}

template <class R, FloatRegister<32> V>
VSQ_INLINE R truncatedOf(V x) {
    return (R)_mm256_cvttps_epi32((__m256)x);
}
template <class R, DoubleRegister<32> V>
VSQ_INLINE R truncatedOf(V x) {
    return (R)_mm256_cvttpd_epi32((__m256d)x);
}
template <class R, IntRegister<32> V>
VSQ_INLINE R narrowedOf(V x) {
    return (R)_mm_packs_epi32(_mm256_castsi256_si128((__m256i)x),
                              _mm256_extracti128_si256((__m256i)x, 1));
}
template <class R, IntRegister<32> V>
VSQ_INLINE R narrowedPairOf(V lo, V hi) {
    return (R)_mm256_permute4x64_epi64(_mm256_packs_epi32((__m256i)lo, (__m256i)hi), 0xD8);
}

template <ShortRegister<32> V, class Middle>
VSQ_INLINE V pairSumsOf(V a, V b, std::int16_t p, std::int16_t q, const Middle& middle) {
    typedef std::int32_t Wide __attribute__((vector_size(32)));
    const __m256i pq = _mm256_set1_epi32(std::int32_t(std::uint16_t(p) | std::uint32_t(q) << 16));
    const __m256i even = _mm256_madd_epi16(_mm256_unpacklo_epi16((__m256i)a, (__m256i)b), pq);
    const __m256i odd = _mm256_madd_epi16(_mm256_unpackhi_epi16((__m256i)a, (__m256i)b), pq);
    return (V)_mm256_packs_epi32((__m256i)middle((Wide)even), (__m256i)middle((Wide)odd));
}
template <ShortRegister<32> V>
VSQ_INLINE V highProductsOf(V a, V b) {
    return (V)_mm256_mulhi_epi16((__m256i)a, (__m256i)b);
}
template <class R, ShortRegister<32> V>
VSQ_INLINE R pairTotalsOf(V a) {
    return (R)_mm256_madd_epi16((__m256i)a, _mm256_set1_epi16(1));
}

template <FloatRegister<32> R, IntRegister<32> V>
VSQ_INLINE R lookUp8Of(const float* table, V index) {
    return (R)_mm256_permutevar8x32_ps(_mm256_loadu_ps(table), (__m256i)index);
}

template <AnyRegister<4, 32> V>
VSQ_INLINE unsigned bitsOf(V mask) {
    return unsigned(_mm256_movemask_ps((__m256)mask));
}
template <class V>
requires(sizeof(V) == 32) VSQ_INLINE bool anySetOf(V mask) {
    return _mm256_testz_si256((__m256i)mask, (__m256i)mask) == 0;
}

#endif

// --- SSE2, which every x86 of ours has ---

template <FloatRegister<16> V>
VSQ_INLINE V smallerOf(V x, V y) {
    return (V)_mm_min_ps((__m128)x, (__m128)y);
}
template <DoubleRegister<16> V>
VSQ_INLINE V smallerOf(V x, V y) {
    return (V)_mm_min_pd((__m128d)x, (__m128d)y);
}
template <FloatRegister<16> V>
VSQ_INLINE V largerOf(V x, V y) {
    return (V)_mm_max_ps((__m128)x, (__m128)y);
}
template <DoubleRegister<16> V>
VSQ_INLINE V largerOf(V x, V y) {
    return (V)_mm_max_pd((__m128d)x, (__m128d)y);
}
template <FloatRegister<16> V>
VSQ_INLINE V rootOf(V x) {
    return (V)_mm_sqrt_ps((__m128)x);
}
template <DoubleRegister<16> V>
VSQ_INLINE V rootOf(V x) {
    return (V)_mm_sqrt_pd((__m128d)x);
}

template <class R, FloatRegister<16> V>
VSQ_INLINE R truncatedOf(V x) {
    return (R)_mm_cvttps_epi32((__m128)x);
}
template <class R, IntRegister<16> V>
VSQ_INLINE R narrowedOf(V x) {
    const __m128i packed = _mm_packs_epi32((__m128i)x, (__m128i)x);
    R result;
    std::memcpy(&result, &packed, sizeof result);
    return result;
}
template <class R, IntRegister<16> V>
VSQ_INLINE R narrowedPairOf(V lo, V hi) {
    return (R)_mm_packs_epi32((__m128i)lo, (__m128i)hi);
}

template <ShortRegister<16> V, class Middle>
VSQ_INLINE V pairSumsOf(V a, V b, std::int16_t p, std::int16_t q, const Middle& middle) {
    typedef std::int32_t Wide __attribute__((vector_size(16)));
    const __m128i pq = _mm_set1_epi32(std::int32_t(std::uint16_t(p) | std::uint32_t(q) << 16));
    const __m128i even = _mm_madd_epi16(_mm_unpacklo_epi16((__m128i)a, (__m128i)b), pq);
    const __m128i odd = _mm_madd_epi16(_mm_unpackhi_epi16((__m128i)a, (__m128i)b), pq);
    return (V)_mm_packs_epi32((__m128i)middle((Wide)even), (__m128i)middle((Wide)odd));
}
template <ShortRegister<16> V>
VSQ_INLINE V highProductsOf(V a, V b) {
    return (V)_mm_mulhi_epi16((__m128i)a, (__m128i)b);
}
template <class R, ShortRegister<16> V>
VSQ_INLINE R pairTotalsOf(V a) {
    return (R)_mm_madd_epi16((__m128i)a, _mm_set1_epi16(1));
}

template <AnyRegister<4, 16> V>
VSQ_INLINE unsigned bitsOf(V mask) {
    return unsigned(_mm_movemask_ps((__m128)mask));
}
template <class V>
requires(sizeof(V) == 16) VSQ_INLINE bool anySetOf(V mask) {
    return _mm_movemask_epi8(_mm_cmpeq_epi8((__m128i)mask, _mm_setzero_si128())) != 0xFFFF;
}

} // namespace
} // namespace vsq::VSQ_LEVEL
