// Vectors of the level being compiled; included by level sources (*_level.cpp) only.
//
// Pack<T, N> is N lanes of T whatever the register width: one register, or two packs of half the lanes, down to what
// a register of this level holds. A kernel that sums in a Pack<double, 16> adds the same numbers in the same order at
// every level, so all levels give the same bits. Everything stands in an unnamed namespace and is inlined: a level
// object may define no symbol that the linker could merge with another level's.
#pragma once

#ifndef VSQ_LEVEL
#error "simd.h belongs to level sources (*_level.cpp)"
#endif

#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>
#if defined(__SSE2__)
#include <immintrin.h>
#endif

#define VSQ_INLINE inline __attribute__((always_inline))
#define VSQ_LAMBDA __attribute__((always_inline))

namespace vsq::VSQ_LEVEL {
namespace {

inline constexpr int registerBytes = VSQ_REGISTER_BYTES;

template <class T, int N>
inline constexpr bool isRegister = int(sizeof(T)) * N <= registerBytes;

template <class T, int N, bool fits = isRegister<T, N>>
struct Pack;

template <class T, int N>
struct Pack<T, N, true> {
    typedef T Register __attribute__((vector_size(sizeof(T) * N)));
    Register r;
};

template <class T, int N>
struct Pack<T, N, false> {
    Pack<T, N / 2> lo, hi;
};

// The signed integer of T's width: masks (all ones where true) and bit patterns.
template <int bytes>
struct IntOf;
template <>
struct IntOf<1> {
    using type = std::int8_t;
};
template <>
struct IntOf<2> {
    using type = std::int16_t;
};
template <>
struct IntOf<4> {
    using type = std::int32_t;
};
template <>
struct IntOf<8> {
    using type = std::int64_t;
};
template <class T>
using MaskOf = typename IntOf<int(sizeof(T))>::type;

// --- moving data ---

template <class T, int N>
VSQ_INLINE Pack<T, N> load(const T* p) {
    Pack<T, N> v;
    if constexpr (isRegister<T, N>) {
        std::memcpy(&v.r, p, sizeof v.r);
    } else {
        v.lo = load<T, N / 2>(p);
        v.hi = load<T, N / 2>(p + N / 2);
    }
    return v;
}

template <class T, int N>
VSQ_INLINE void store(T* p, const Pack<T, N>& v) {
    if constexpr (isRegister<T, N>) {
        std::memcpy(p, &v.r, sizeof v.r);
    } else {
        store(p, v.lo);
        store(p + N / 2, v.hi);
    }
}

template <class T, int N>
VSQ_INLINE Pack<T, N> splat(T value) {
    Pack<T, N> v;
    if constexpr (isRegister<T, N>) {
        v.r =
            value - typename Pack<T, N>::Register{}; // the operator broadcasts; x - 0 keeps every x, -0.0 too
    } else {
        v.lo = splat<T, N / 2>(value);
        v.hi = v.lo;
    }
    return v;
}

// One register of loadPart. Elements from `count` on are not touched, with or without instructions that mask loads.
template <class V, class T>
VSQ_INLINE V loadPartOf(const T* p, int count, T fill) {
    constexpr int lanes = int(sizeof(V) / sizeof(T));
    const V others = fill - V{};
#if defined(__AVX512VL__) && defined(__AVX512BW__)
    const auto mask = count >= lanes ? ~0ull : (1ull << count) - 1;
    if constexpr (sizeof(V) == 64 && sizeof(T) == 8)
        return (V)_mm512_mask_loadu_epi64((__m512i)others, __mmask8(mask), p);
    else if constexpr (sizeof(V) == 64 && sizeof(T) == 4)
        return (V)_mm512_mask_loadu_epi32((__m512i)others, __mmask16(mask), p);
    else if constexpr (sizeof(V) == 64 && sizeof(T) == 2)
        return (V)_mm512_mask_loadu_epi16((__m512i)others, __mmask32(mask), p);
    else if constexpr (sizeof(V) == 32 && sizeof(T) == 8)
        return (V)_mm256_mask_loadu_epi64((__m256i)others, __mmask8(mask), p);
    else if constexpr (sizeof(V) == 32 && sizeof(T) == 4)
        return (V)_mm256_mask_loadu_epi32((__m256i)others, __mmask8(mask), p);
    else if constexpr (sizeof(V) == 32 && sizeof(T) == 2)
        return (V)_mm256_mask_loadu_epi16((__m256i)others, __mmask16(mask), p);
    else if constexpr (sizeof(V) == 16 && sizeof(T) == 4)
        return (V)_mm_mask_loadu_epi32((__m128i)others, __mmask8(mask), p);
    else if constexpr (sizeof(V) == 16 && sizeof(T) == 2)
        return (V)_mm_mask_loadu_epi16((__m128i)others, __mmask8(mask), p);
    else
#elif defined(__AVX2__)
    if constexpr (sizeof(V) == 32 && sizeof(T) == 4) {
        const __m256i mask =
            _mm256_cmpgt_epi32(_mm256_set1_epi32(count), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
        const __m256i found = _mm256_maskload_epi32((const int*)p, mask);
        return (V)_mm256_blendv_epi8((__m256i)others, found, mask);
    } else if constexpr (sizeof(V) == 16 && sizeof(T) == 4) {
        const __m128i mask = _mm_cmpgt_epi32(_mm_set1_epi32(count), _mm_setr_epi32(0, 1, 2, 3));
        const __m128i found = _mm_maskload_epi32((const int*)p, mask);
        return (V)_mm_blendv_epi8((__m128i)others, found, mask);
    } else if constexpr (sizeof(V) == 32 && sizeof(T) == 2) { // whole pairs, and an odd last element
        const __m256i pairs =
            _mm256_cmpgt_epi32(_mm256_set1_epi32(count >> 1), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
        const __m256i found = _mm256_maskload_epi32((const int*)p, pairs);
        const __m256i result = _mm256_blendv_epi8((__m256i)others, found, pairs);
        if ((count & 1) == 0) return (V)result;
        const __m256i at = _mm256_setr_epi16(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
        const __m256i last = _mm256_cmpeq_epi16(at, _mm256_set1_epi16(short(count - 1)));
        return (V)_mm256_blendv_epi8(result, _mm256_set1_epi16(short(p[count - 1])), last);
    } else
#endif
        if constexpr (lanes ==
                      4) { // lane by lane: a load of what four stores have just copied would wait for them
        V result = others;
        if (count > 0) result[0] = p[0];
        if (count > 1) result[1] = p[1];
        if (count > 2) result[2] = p[2];
        if (count > 3) result[3] = p[3];
        return result;
    } else {
        T copy[lanes];
        std::memcpy(copy, &others, sizeof copy);
        int filled = 0; // by halves: a branch for each bit of the count, which loops over rows foretell
        for (int step = lanes; step >= 1; step /= 2)
            if ((count & step) != 0) {
                std::memcpy(copy + filled, p + filled, std::size_t(step) * sizeof(T));
                filled += step;
            }
        V result;
        std::memcpy(&result, copy, sizeof result);
        return result;
    }
}

// The first `count` (0 to N) elements; the other lanes are `fill`.
template <class T, int N>
VSQ_INLINE Pack<T, N> loadPart(const T* p, int count, T fill = T(0)) {
    if constexpr (isRegister<T, N>)
        return {loadPartOf<typename Pack<T, N>::Register>(p, count, fill)};
    else if (count <= N / 2)
        return {loadPart<T, N / 2>(p, count, fill), splat<T, N / 2>(fill)};
    else
        return {load<T, N / 2>(p), loadPart<T, N / 2>(p + N / 2, count - N / 2, fill)};
}

// One register of storePart; memory from `count` elements on is not touched.
template <class V, class T>
VSQ_INLINE void storePartOf(T* p, V v, int count) {
    constexpr int lanes = int(sizeof(V) / sizeof(T));
#if defined(__AVX512VL__) && defined(__AVX512BW__)
    const auto mask = count >= lanes ? ~0ull : (1ull << count) - 1;
    if constexpr (sizeof(V) == 64 && sizeof(T) == 8)
        return _mm512_mask_storeu_epi64(p, __mmask8(mask), (__m512i)v);
    else if constexpr (sizeof(V) == 64 && sizeof(T) == 4)
        return _mm512_mask_storeu_epi32(p, __mmask16(mask), (__m512i)v);
    else if constexpr (sizeof(V) == 64 && sizeof(T) == 2)
        return _mm512_mask_storeu_epi16(p, __mmask32(mask), (__m512i)v);
    else if constexpr (sizeof(V) == 32 && sizeof(T) == 8)
        return _mm256_mask_storeu_epi64(p, __mmask8(mask), (__m256i)v);
    else if constexpr (sizeof(V) == 32 && sizeof(T) == 4)
        return _mm256_mask_storeu_epi32(p, __mmask8(mask), (__m256i)v);
    else if constexpr (sizeof(V) == 32 && sizeof(T) == 2)
        return _mm256_mask_storeu_epi16(p, __mmask16(mask), (__m256i)v);
    else if constexpr (sizeof(V) == 16 && sizeof(T) == 4)
        return _mm_mask_storeu_epi32(p, __mmask8(mask), (__m128i)v);
    else
#elif defined(__AVX2__)
    if constexpr (sizeof(V) == 32 && sizeof(T) == 4) {
        const __m256i mask =
            _mm256_cmpgt_epi32(_mm256_set1_epi32(count), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
        return _mm256_maskstore_epi32((int*)p, mask, (__m256i)v);
    } else
#endif
    {
        T copy[lanes];
        std::memcpy(copy, &v, sizeof copy);
        int stored = 0; // by halves, as in loadPartOf
        for (int step = lanes; step >= 1; step /= 2)
            if ((count & step) != 0) {
                std::memcpy(p + stored, copy + stored, std::size_t(step) * sizeof(T));
                stored += step;
            }
    }
}

// The first `count` (0 to N) lanes.
template <class T, int N>
VSQ_INLINE void storePart(T* p, const Pack<T, N>& v, int count) {
    if constexpr (isRegister<T, N>) {
        storePartOf(p, v.r, count);
    } else if (count <= N / 2) {
        storePart(p, v.lo, count);
    } else {
        store(p, v.lo);
        storePart(p + N / 2, v.hi, count - N / 2);
    }
}

// --- halves ---

template <class V, class H, int offset, int... I>
VSQ_INLINE H selectLanes(const V& v, std::integer_sequence<int, I...>) {
    return __builtin_shufflevector(v, v, (I + offset)...);
}

template <class T, int N>
VSQ_INLINE Pack<T, N / 2> low(const Pack<T, N>& v) {
    if constexpr (isRegister<T, N>)
        return {selectLanes<decltype(v.r), typename Pack<T, N / 2>::Register, 0>(
            v.r, std::make_integer_sequence<int, N / 2>())};
    else
        return v.lo;
}

template <class T, int N>
VSQ_INLINE Pack<T, N / 2> high(const Pack<T, N>& v) {
    if constexpr (isRegister<T, N>)
        return {selectLanes<decltype(v.r), typename Pack<T, N / 2>::Register, N / 2>(
            v.r, std::make_integer_sequence<int, N / 2>())};
    else
        return v.hi;
}

template <class V, class H, int... I>
VSQ_INLINE V joinLanes(H lo, H hi, std::integer_sequence<int, I...>) {
    return __builtin_shufflevector(lo, hi, I...);
}

template <class T, int H>
VSQ_INLINE Pack<T, 2 * H> join(const Pack<T, H>& lo, const Pack<T, H>& hi) {
    if constexpr (isRegister<T, 2 * H>)
        return {joinLanes<typename Pack<T, 2 * H>::Register>(lo.r, hi.r,
                                                             std::make_integer_sequence<int, 2 * H>())};
    else
        return {lo, hi};
}

// --- pairs of lanes ---

template <class V, int odd, int... I>
VSQ_INLINE V pairLanes(V a, V b, std::integer_sequence<int, I...>) {
    return __builtin_shufflevector(a, b, (I % 2 == 0 ? I + odd : int(sizeof...(I)) + I - 1 + odd)...);
}

// a0 b0 a2 b2 ... and a1 b1 a3 b3 ...: the 2 by 2 transposes of a and b.
template <class T, int N>
VSQ_INLINE Pack<T, N> evenPairs(const Pack<T, N>& a, const Pack<T, N>& b) {
    if constexpr (isRegister<T, N>)
        return {pairLanes<decltype(a.r), 0>(a.r, b.r, std::make_integer_sequence<int, N>())};
    else
        return {evenPairs(a.lo, b.lo), evenPairs(a.hi, b.hi)};
}
template <class T, int N>
VSQ_INLINE Pack<T, N> oddPairs(const Pack<T, N>& a, const Pack<T, N>& b) {
    if constexpr (isRegister<T, N>)
        return {pairLanes<decltype(a.r), 1>(a.r, b.r, std::make_integer_sequence<int, N>())};
    else
        return {oddPairs(a.lo, b.lo), oddPairs(a.hi, b.hi)};
}

// The lower halves of a and b side by side, and the upper ones.
template <class V, int first, int... I>
VSQ_INLINE V halvesOf(V a, V b, std::integer_sequence<int, I...>) {
    constexpr int n = int(sizeof...(I));
    return __builtin_shufflevector(a, b, (first + I + (I < n / 2 ? 0 : n / 2))...);
}
template <class T, int N>
VSQ_INLINE Pack<T, N> lowHalves(const Pack<T, N>& a, const Pack<T, N>& b) {
    if constexpr (isRegister<T, N>)
        return {halvesOf<decltype(a.r), 0>(a.r, b.r, std::make_integer_sequence<int, N>())};
    else
        return {a.lo, b.lo};
}
template <class T, int N>
VSQ_INLINE Pack<T, N> highHalves(const Pack<T, N>& a, const Pack<T, N>& b) {
    if constexpr (isRegister<T, N>)
        return {halvesOf<decltype(a.r), N / 2>(a.r, b.r, std::make_integer_sequence<int, N>())};
    else
        return {a.hi, b.hi};
}

template <int offset, class V, int... I>
VSQ_INLINE V windowLanes(const V& below, const V& v, std::integer_sequence<int, I...>) {
    return __builtin_shufflevector(below, v, (I + offset)...);
}

// The lanes of v moved up by `count`, with the highest lanes of `below` moving in.
template <int count, class T, int N>
VSQ_INLINE Pack<T, N> movedUp(const Pack<T, N>& below, const Pack<T, N>& v) {
    if constexpr (isRegister<T, N>)
        return {windowLanes<N - count>(below.r, v.r, std::make_integer_sequence<int, N>())};
    else
        return {movedUp<count>(below.hi, v.lo), movedUp<count>(v.lo, v.hi)};
}

// --- elementwise operations ---

// Applies `op` register by register; all operands split alike.
template <class R, int N, class Op, class P, class... Q>
VSQ_INLINE Pack<R, N> each(const Op& op, const P& p, const Q&... q) {
    if constexpr (requires { p.lo; })
        return {each<R, N / 2>(op, p.lo, q.lo...), each<R, N / 2>(op, p.hi, q.hi...)};
    else
        return {op(p.r, q.r...)};
}

template <class T, int N>
VSQ_INLINE Pack<T, N> operator+(const Pack<T, N>& a, const Pack<T, N>& b) {
    return each<T, N>([](auto x, auto y) VSQ_LAMBDA { return x + y; }, a, b);
}
template <class T, int N>
VSQ_INLINE Pack<T, N> operator-(const Pack<T, N>& a, const Pack<T, N>& b) {
    return each<T, N>([](auto x, auto y) VSQ_LAMBDA { return x - y; }, a, b);
}
template <class T, int N>
VSQ_INLINE Pack<T, N> operator*(const Pack<T, N>& a, const Pack<T, N>& b) {
    return each<T, N>([](auto x, auto y) VSQ_LAMBDA { return x * y; }, a, b);
}
template <class T, int N>
VSQ_INLINE Pack<T, N> operator/(const Pack<T, N>& a, const Pack<T, N>& b) {
    return each<T, N>([](auto x, auto y) VSQ_LAMBDA { return x / y; }, a, b);
}
template <class T, int N>
VSQ_INLINE Pack<T, N> operator&(const Pack<T, N>& a, const Pack<T, N>& b) {
    return each<T, N>([](auto x, auto y) VSQ_LAMBDA { return x & y; }, a, b);
}
template <class T, int N>
VSQ_INLINE Pack<T, N> operator|(const Pack<T, N>& a, const Pack<T, N>& b) {
    return each<T, N>([](auto x, auto y) VSQ_LAMBDA { return x | y; }, a, b);
}
template <class T, int N>
VSQ_INLINE Pack<T, N> operator^(const Pack<T, N>& a, const Pack<T, N>& b) {
    return each<T, N>([](auto x, auto y) VSQ_LAMBDA { return x ^ y; }, a, b);
}
template <class T, int N>
VSQ_INLINE Pack<T, N> operator<<(const Pack<T, N>& a, int bits) {
    return each<T, N>([bits](auto x) VSQ_LAMBDA { return x << bits; }, a);
}
template <class T, int N>
VSQ_INLINE Pack<T, N> operator>>(const Pack<T, N>& a, int bits) {
    return each<T, N>([bits](auto x) VSQ_LAMBDA { return x >> bits; }, a);
}

template <class T, int N>
VSQ_INLINE Pack<MaskOf<T>, N> operator<(const Pack<T, N>& a, const Pack<T, N>& b) {
    return each<MaskOf<T>, N>([](auto x, auto y) VSQ_LAMBDA { return x < y; }, a, b);
}
template <class T, int N>
VSQ_INLINE Pack<MaskOf<T>, N> operator<=(const Pack<T, N>& a, const Pack<T, N>& b) {
    return each<MaskOf<T>, N>([](auto x, auto y) VSQ_LAMBDA { return x <= y; }, a, b);
}
template <class T, int N>
VSQ_INLINE Pack<MaskOf<T>, N> operator==(const Pack<T, N>& a, const Pack<T, N>& b) {
    return each<MaskOf<T>, N>([](auto x, auto y) VSQ_LAMBDA { return x == y; }, a, b);
}

// Lane by lane, a where the mask is all ones and b where it is zero.
template <class T, int N>
VSQ_INLINE Pack<T, N> select(const Pack<MaskOf<T>, N>& mask, const Pack<T, N>& a, const Pack<T, N>& b) {
    return each<T, N>([](auto m, auto x, auto y) VSQ_LAMBDA { return m ? x : y; }, mask, a, b);
}

// Compilers make two instructions of such a choice between floats, which the minimum and maximum of x86 are in one. (The
// forms with a mask of all lanes keep g++ from warning of its own headers.)
template <class V>
VSQ_INLINE V smallerOf(V x, V y) {
    [[maybe_unused]] constexpr bool isFloat = std::is_same_v<decltype(x[0] + 0), float>;
    [[maybe_unused]] constexpr bool isDouble = std::is_same_v<decltype(x[0] + 0), double>;
#if defined(__AVX512F__)
    if constexpr (sizeof(V) == 64 && isFloat)
        return (V)_mm512_maskz_min_ps(0xFFFF, (__m512)x, (__m512)y);
    else if constexpr (sizeof(V) == 64 && isDouble)
        return (V)_mm512_maskz_min_pd(0xFF, (__m512d)x, (__m512d)y);
    else
#endif
#if defined(__AVX__)
        if constexpr (sizeof(V) == 32 && isFloat)
        return (V)_mm256_min_ps((__m256)x, (__m256)y);
    else if constexpr (sizeof(V) == 32 && isDouble)
        return (V)_mm256_min_pd((__m256d)x, (__m256d)y);
    else
#endif
#if defined(__SSE2__)
        if constexpr (sizeof(V) == 16 && isFloat)
        return (V)_mm_min_ps((__m128)x, (__m128)y);
    else if constexpr (sizeof(V) == 16 && isDouble)
        return (V)_mm_min_pd((__m128d)x, (__m128d)y);
    else
#endif
        return x < y ? x : y;
}
template <class V>
VSQ_INLINE V largerOf(V x, V y) {
    [[maybe_unused]] constexpr bool isFloat = std::is_same_v<decltype(x[0] + 0), float>;
    [[maybe_unused]] constexpr bool isDouble = std::is_same_v<decltype(x[0] + 0), double>;
#if defined(__AVX512F__)
    if constexpr (sizeof(V) == 64 && isFloat)
        return (V)_mm512_maskz_max_ps(0xFFFF, (__m512)x, (__m512)y);
    else if constexpr (sizeof(V) == 64 && isDouble)
        return (V)_mm512_maskz_max_pd(0xFF, (__m512d)x, (__m512d)y);
    else
#endif
#if defined(__AVX__)
        if constexpr (sizeof(V) == 32 && isFloat)
        return (V)_mm256_max_ps((__m256)x, (__m256)y);
    else if constexpr (sizeof(V) == 32 && isDouble)
        return (V)_mm256_max_pd((__m256d)x, (__m256d)y);
    else
#endif
#if defined(__SSE2__)
        if constexpr (sizeof(V) == 16 && isFloat)
        return (V)_mm_max_ps((__m128)x, (__m128)y);
    else if constexpr (sizeof(V) == 16 && isDouble)
        return (V)_mm_max_pd((__m128d)x, (__m128d)y);
    else
#endif
        return x > y ? x : y;
}

// a < b ? a : b and a > b ? a : b; where a comparison fails for a not-a-number, b.
template <class T, int N>
VSQ_INLINE Pack<T, N> smaller(const Pack<T, N>& a, const Pack<T, N>& b) {
    return each<T, N>([](auto x, auto y) VSQ_LAMBDA { return smallerOf(x, y); }, a, b);
}
template <class T, int N>
VSQ_INLINE Pack<T, N> larger(const Pack<T, N>& a, const Pack<T, N>& b) {
    return each<T, N>([](auto x, auto y) VSQ_LAMBDA { return largerOf(x, y); }, a, b);
}

// The same bits as another type of the same width.
template <class U, class T, int N>
VSQ_INLINE Pack<U, N> bits(const Pack<T, N>& a) {
    static_assert(sizeof(U) == sizeof(T));
    return each<U, N>(
        [](auto x) VSQ_LAMBDA {
            typedef U Register __attribute__((vector_size(sizeof x)));
            return (Register)x;
        },
        a);
}

// Widening and narrowing within one register is spelled out where compilers take the vector apart for it.
template <class R, class U, class T, class V>
VSQ_INLINE R convertedVector(V x) {
#if defined(__AVX512F__) && defined(__AVX512BW__)
    if constexpr (sizeof(R) == 64 && std::is_same_v<U, double> && std::is_same_v<T, float>)
        return (R)_mm512_cvtps_pd((__m256)x);
    else if constexpr (sizeof(R) == 64 && std::is_same_v<U, double> && std::is_same_v<T, std::int32_t>)
        return (R)_mm512_cvtepi32_pd((__m256i)x);
    else if constexpr (sizeof(R) == 64 && std::is_same_v<U, std::int32_t> && std::is_same_v<T, std::int16_t>)
        return (R)_mm512_cvtepi16_epi32((__m256i)x);
    else if constexpr (sizeof(R) == 64 && std::is_same_v<U, std::int64_t> && std::is_same_v<T, std::int32_t>)
        return (R)_mm512_cvtepi32_epi64((__m256i)x);
    else if constexpr (sizeof(V) == 64 && std::is_same_v<U, float> && std::is_same_v<T, double>)
        return (R)_mm512_cvtpd_ps((__m512d)x);
    else
#endif
#if defined(__AVX2__)
        if constexpr (sizeof(R) == 32 && std::is_same_v<U, double> && std::is_same_v<T, float>)
        return (R)_mm256_cvtps_pd((__m128)x);
    else if constexpr (sizeof(R) == 32 && std::is_same_v<U, double> && std::is_same_v<T, std::int32_t>)
        return (R)_mm256_cvtepi32_pd((__m128i)x);
    else if constexpr (sizeof(R) == 32 && std::is_same_v<U, std::int32_t> && std::is_same_v<T, std::int16_t>)
        return (R)_mm256_cvtepi16_epi32((__m128i)x);
    else if constexpr (sizeof(R) == 32 && std::is_same_v<U, std::int64_t> && std::is_same_v<T, std::int32_t>)
        return (R)_mm256_cvtepi32_epi64((__m128i)x);
    else if constexpr (sizeof(R) == 16 && std::is_same_v<U, std::int32_t> &&
                       std::is_same_v<T, std::int16_t>) {
        std::int64_t all;
        std::memcpy(&all, &x, sizeof all);
        return (R)_mm_cvtepi16_epi32(_mm_cvtsi64_si128(all));
    } else if constexpr (sizeof(V) == 32 && std::is_same_v<U, float> && std::is_same_v<T, double>)
        return (R)_mm256_cvtpd_ps((__m256d)x);
    else
#endif
        return __builtin_convertvector(x, R);
}

// Each lane's value as another type (float to integer truncates; out of range is undefined).
template <class U, class T, int N>
VSQ_INLINE Pack<U, N> convert(const Pack<T, N>& a) {
    if constexpr (isRegister<T, N> && isRegister<U, N>)
        return {convertedVector<typename Pack<U, N>::Register, U, T>(a.r)};
    else
        return join(convert<U>(low(a)), convert<U>(high(a)));
}

// Lane by lane, a where x is not below 0 and b where it is or is no number; the lanes of x, float or int, are half
// as wide as those of a and b.
template <class T, int N>
VSQ_INLINE Pack<double, N> selectNotBelowZero(const Pack<T, N>& x, const Pack<double, N>& a,
                                              const Pack<double, N>& b) {
    static_assert(sizeof(T) == 4);
    if constexpr (!isRegister<T, N>)
        return {selectNotBelowZero(x.lo, a.lo, b.lo), selectNotBelowZero(x.hi, a.hi, b.hi)};
    else
#if defined(__AVX512DQ__)
        if constexpr (N == 16) {
        unsigned mask; // without the way of a mask through full vectors
        if constexpr (std::is_same_v<T, float>)
            mask = _mm512_cmp_ps_mask(_mm512_setzero_ps(), (__m512)x.r, _CMP_LE_OQ);
        else
            mask = _mm512_cmp_epi32_mask(_mm512_setzero_si512(), (__m512i)x.r, _MM_CMPINT_LE);
        using R = decltype(a.lo.r);
        return {{(R)_mm512_mask_mov_pd((__m512d)b.lo.r, __mmask8(mask), (__m512d)a.lo.r)},
                {(R)_mm512_mask_mov_pd((__m512d)b.hi.r, __mmask8(mask >> 8), (__m512d)a.hi.r)}};
    } else
#endif
        return select(convert<std::int64_t>(splat<T, N>(0) <= x), a, b);
}

template <class V>
VSQ_INLINE V rootOf(V x) {
#if defined(__AVX512F__)
    if constexpr (sizeof(V) == 64 && sizeof(x[0]) == 4)
        return (V)_mm512_sqrt_ps((__m512)x);
    else if constexpr (sizeof(V) == 64)
        return (V)_mm512_sqrt_pd((__m512d)x);
    else
#endif
#if defined(__AVX__)
        if constexpr (sizeof(V) == 32 && sizeof(x[0]) == 4)
        return (V)_mm256_sqrt_ps((__m256)x);
    else if constexpr (sizeof(V) == 32)
        return (V)_mm256_sqrt_pd((__m256d)x);
    else
#endif
#if defined(__SSE2__)
        if constexpr (sizeof(V) == 16 && sizeof(x[0]) == 4)
        return (V)_mm_sqrt_ps((__m128)x);
    else if constexpr (sizeof(V) == 16)
        return (V)_mm_sqrt_pd((__m128d)x);
    else
#endif
    {
        for (unsigned i = 0; i < sizeof(V) / sizeof(x[0]); ++i) {
            if constexpr (sizeof(x[0]) == 4)
                x[i] = __builtin_sqrtf(x[i]);
            else
                x[i] = __builtin_sqrt(x[i]);
        }
        return x;
    }
}

template <class T, int N>
VSQ_INLINE Pack<T, N> squareRoot(const Pack<T, N>& a) {
    return each<T, N>([](auto x) VSQ_LAMBDA { return rootOf(x); }, a);
}

// --- float to integer and to narrower integers, defined for every value ---

// Toward zero; what does not fit, not-a-number included, becomes the most negative int, as the x86
// instructions do it.
template <class R, class V>
VSQ_INLINE R truncatedVector(V x) {
#if defined(__AVX512F__)
    if constexpr (sizeof(V) == 64 && sizeof(x[0]) == 4)
        return (R)_mm512_cvttps_epi32((__m512)x);
    else if constexpr (sizeof(V) == 64)
        return (R)_mm512_cvttpd_epi32((__m512d)x);
    else
#endif
#if defined(__AVX__)
        if constexpr (sizeof(V) == 32 && sizeof(x[0]) == 4)
        return (R)_mm256_cvttps_epi32((__m256)x);
    else if constexpr (sizeof(V) == 32)
        return (R)_mm256_cvttpd_epi32((__m256d)x);
    else
#endif
#if defined(__SSE2__)
        if constexpr (sizeof(V) == 16 && sizeof(x[0]) == 4)
        return (R)_mm_cvttps_epi32((__m128)x);
    else
#endif
    {
        typedef decltype(x[0] + 0) Element;
        R result;
        for (unsigned i = 0; i < sizeof(V) / sizeof(x[0]); ++i) {
            const bool fits = x[i] >= Element(-2147483648.0) && x[i] < Element(2147483648.0);
            result[i] = fits ? static_cast<std::int32_t>(x[i]) : INT32_MIN;
        }
        return result;
    }
}

template <class T, int N>
VSQ_INLINE Pack<std::int32_t, N> truncated(const Pack<T, N>& a) {
    if constexpr (isRegister<T, N>)
        return {truncatedVector<typename Pack<std::int32_t, N>::Register>(a.r)};
    else
        return join(truncated(low(a)), truncated(high(a)));
}

// To 16 bits; beyond their range the nearer end of it.
template <class R, class V>
VSQ_INLINE R narrowedVector(V x) {
#if defined(__AVX512BW__)
    if constexpr (sizeof(V) == 64)
        return (R)_mm512_cvtsepi32_epi16((__m512i)x);
    else
#endif
#if defined(__AVX2__)
        if constexpr (sizeof(V) == 32)
        return (R)_mm_packs_epi32(_mm256_castsi256_si128((__m256i)x),
                                  _mm256_extracti128_si256((__m256i)x, 1));
    else
#endif
#if defined(__SSE2__)
        if constexpr (sizeof(V) == 16) {
        const __m128i packed = _mm_packs_epi32((__m128i)x, (__m128i)x);
        R result;
        std::memcpy(&result, &packed, sizeof result);
        return result;
    } else
#endif
    {
        x = x < -32768 ? V{} - 32768 : x;
        x = x > 32767 ? V{} + 32767 : x;
        return __builtin_convertvector(x, R);
    }
}

// Two registers into one.
template <class R, class V>
VSQ_INLINE R narrowedPair(V lo, V hi) {
#if defined(__AVX512BW__)
    if constexpr (sizeof(V) == 64)
        return (R)_mm512_permutexvar_epi64(_mm512_setr_epi64(0, 2, 4, 6, 1, 3, 5, 7),
                                           _mm512_packs_epi32((__m512i)lo, (__m512i)hi));
    else
#endif
#if defined(__AVX2__)
        if constexpr (sizeof(V) == 32)
        return (R)_mm256_permute4x64_epi64(_mm256_packs_epi32((__m256i)lo, (__m256i)hi), 0xD8);
    else
#endif
#if defined(__SSE2__)
        if constexpr (sizeof(V) == 16)
        return (R)_mm_packs_epi32((__m128i)lo, (__m128i)hi);
    else
#endif
    {
        typedef std::int16_t Half __attribute__((vector_size(sizeof(R) / 2)));
        return joinLanes<R>(narrowedVector<Half>(lo), narrowedVector<Half>(hi),
                            std::make_integer_sequence<int, int(sizeof(R) / 2)>());
    }
}

template <int N>
VSQ_INLINE Pack<std::int16_t, N> narrowed(const Pack<std::int32_t, N>& a) {
    if constexpr (isRegister<std::int32_t, N>)
        return {narrowedVector<typename Pack<std::int16_t, N>::Register>(a.r)};
    else if constexpr (isRegister<std::int16_t, N>)
        return {narrowedPair<typename Pack<std::int16_t, N>::Register>(a.lo.r, a.hi.r)};
    else
        return {narrowed(a.lo), narrowed(a.hi)};
}

// The distance from zero: the sign bit is cleared.
template <class T, int N>
VSQ_INLINE Pack<T, N> magnitude(const Pack<T, N>& a) {
    using I = MaskOf<T>;
    constexpr I allButSign = I((~typename std::make_unsigned<I>::type(0)) >> 1);
    return bits<T>(bits<I>(a) & splat<I, N>(allButSign));
}

// --- sums of two 16-bit products ---

// Narrowed(middle(a * p + b * q)), lane by lane: the sums stand in 32 bits, `middle` maps a register of them, and what
// it gives is narrowed with saturation. The widened lanes may pass through it in any order.
template <class V, class Middle>
VSQ_INLINE V pairSumsVector(V a, V b, std::int16_t p, std::int16_t q, const Middle& middle) {
    [[maybe_unused]] typedef std::int32_t Wide __attribute__((vector_size(sizeof(V) < 4 ? 4 : sizeof(V))));
    [[maybe_unused]] const auto factors =
        static_cast<std::int32_t>(static_cast<std::uint16_t>(p) | static_cast<std::uint32_t>(q) << 16);
#if defined(__AVX512BW__)
    if constexpr (sizeof(V) == 64) {
        const __m512i pq = _mm512_set1_epi32(factors);
        const __m512i even = _mm512_madd_epi16(_mm512_unpacklo_epi16((__m512i)a, (__m512i)b), pq);
        const __m512i odd = _mm512_madd_epi16(_mm512_unpackhi_epi16((__m512i)a, (__m512i)b), pq);
        return (V)_mm512_packs_epi32((__m512i)middle((Wide)even), (__m512i)middle((Wide)odd));
    } else
#endif
#if defined(__AVX2__)
        if constexpr (sizeof(V) == 32) {
        const __m256i pq = _mm256_set1_epi32(factors);
        const __m256i even = _mm256_madd_epi16(_mm256_unpacklo_epi16((__m256i)a, (__m256i)b), pq);
        const __m256i odd = _mm256_madd_epi16(_mm256_unpackhi_epi16((__m256i)a, (__m256i)b), pq);
        return (V)_mm256_packs_epi32((__m256i)middle((Wide)even), (__m256i)middle((Wide)odd));
    } else
#endif
#if defined(__SSE2__)
        if constexpr (sizeof(V) == 16) {
        const __m128i pq = _mm_set1_epi32(factors);
        const __m128i even = _mm_madd_epi16(_mm_unpacklo_epi16((__m128i)a, (__m128i)b), pq);
        const __m128i odd = _mm_madd_epi16(_mm_unpackhi_epi16((__m128i)a, (__m128i)b), pq);
        return (V)_mm_packs_epi32((__m128i)middle((Wide)even), (__m128i)middle((Wide)odd));
    } else
#endif
    {
        typedef std::int32_t All __attribute__((vector_size(2 * sizeof(V))));
        const All sums = __builtin_convertvector(a, All) * p + __builtin_convertvector(b, All) * q;
        return narrowedVector<V>(static_cast<All>(middle(sums)));
    }
}

template <int N, class Middle>
VSQ_INLINE Pack<std::int16_t, N> pairSums(const Pack<std::int16_t, N>& a, std::int16_t p,
                                          const Pack<std::int16_t, N>& b, std::int16_t q,
                                          const Middle& middle) {
    return each<std::int16_t, N>(
        [&](auto x, auto y) VSQ_LAMBDA { return pairSumsVector(x, y, p, q, middle); }, a, b);
}

// --- products and pairs of 16-bit lanes ---

// The upper 16 bits of each 32-bit product.
template <class V>
VSQ_INLINE V highProductsVector(V a, V b) {
#if defined(__AVX512BW__)
    if constexpr (sizeof(V) == 64)
        return (V)_mm512_mulhi_epi16((__m512i)a, (__m512i)b);
    else
#endif
#if defined(__AVX2__)
        if constexpr (sizeof(V) == 32)
        return (V)_mm256_mulhi_epi16((__m256i)a, (__m256i)b);
    else
#endif
#if defined(__SSE2__)
        if constexpr (sizeof(V) == 16)
        return (V)_mm_mulhi_epi16((__m128i)a, (__m128i)b);
    else
#endif
    {
        typedef std::int32_t All __attribute__((vector_size(2 * sizeof(V))));
        return __builtin_convertvector(
            (__builtin_convertvector(a, All) * __builtin_convertvector(b, All)) >> 16, V);
    }
}

template <int N>
VSQ_INLINE Pack<std::int16_t, N> highProducts(const Pack<std::int16_t, N>& a,
                                              const Pack<std::int16_t, N>& b) {
    return each<std::int16_t, N>([](auto x, auto y) VSQ_LAMBDA { return highProductsVector(x, y); }, a, b);
}

// Lane i is the sum of lanes 2i and 2i + 1, in 32 bits.
template <class R, class V>
VSQ_INLINE R pairTotalsVector(V a) {
#if defined(__AVX512BW__)
    if constexpr (sizeof(V) == 64)
        return (R)_mm512_madd_epi16((__m512i)a, _mm512_set1_epi16(1));
    else
#endif
#if defined(__AVX2__)
        if constexpr (sizeof(V) == 32)
        return (R)_mm256_madd_epi16((__m256i)a, _mm256_set1_epi16(1));
    else
#endif
#if defined(__SSE2__)
        if constexpr (sizeof(V) == 16)
        return (R)_mm_madd_epi16((__m128i)a, _mm_set1_epi16(1));
    else
#endif
    {
        R result;
        for (unsigned i = 0; i < sizeof(R) / 4; ++i)
            result[i] = std::int32_t(a[2 * i]) + std::int32_t(a[2 * i + 1]);
        return result;
    }
}

template <int N>
VSQ_INLINE Pack<std::int32_t, N / 2> pairTotals(const Pack<std::int16_t, N>& a) {
    if constexpr (isRegister<std::int16_t, N>)
        return {pairTotalsVector<typename Pack<std::int32_t, N / 2>::Register>(a.r)};
    else
        return join(pairTotals(a.lo), pairTotals(a.hi));
}

// --- a table of 16 doubles ---

template <class V, class I>
VSQ_INLINE V lookUpVector(const double* table, I index) {
#if defined(__AVX512F__)
    if constexpr (sizeof(V) == 64)
        return (V)_mm512_permutex2var_pd(_mm512_loadu_pd(table), (__m512i)index, _mm512_loadu_pd(table + 8));
    else
#endif
    {
        V result;
        for (unsigned i = 0; i < sizeof(V) / sizeof(double); ++i)
            result[i] = table[index[i] & 15];
        return result;
    }
}

// table[index modulo 16], lane by lane.
template <int N>
VSQ_INLINE Pack<double, N> lookUp(const double* table, const Pack<std::int64_t, N>& index) {
    return each<double, N>(
        [table](auto i) VSQ_LAMBDA {
            typedef double Register __attribute__((vector_size(sizeof i)));
            return lookUpVector<Register>(table, i);
        },
        index);
}

// --- a table of 8 floats, and powers of two ---

template <class V, class I>
VSQ_INLINE V lookUp8Vector(const float* table, I index) {
#if defined(__AVX512DQ__)
    if constexpr (sizeof(V) == 64)
        return (V)_mm512_permutexvar_ps((__m512i)index, _mm512_broadcast_f32x8(_mm256_loadu_ps(table)));
    else
#endif
#if defined(__AVX2__)
        if constexpr (sizeof(V) == 32)
        return (V)_mm256_permutevar8x32_ps(_mm256_loadu_ps(table), (__m256i)index);
    else
#endif
    {
        V result;
        for (unsigned i = 0; i < sizeof(V) / sizeof(float); ++i)
            result[i] = table[index[i] & 7];
        return result;
    }
}

// table[index modulo 8], lane by lane.
template <int N>
VSQ_INLINE Pack<float, N> lookUp8(const float* table, const Pack<std::int32_t, N>& index) {
    return each<float, N>(
        [table](auto i) VSQ_LAMBDA {
            typedef float Register __attribute__((vector_size(sizeof i)));
            return lookUp8Vector<Register>(table, i);
        },
        index);
}

// Whether timesPowers is one instruction.
inline constexpr bool hasPowers = registerBytes == 64;

template <class V>
VSQ_INLINE V timesPowersOf(V a, V n) {
#if defined(__AVX512F__)
    if constexpr (sizeof(V) == 64)
        return (V)_mm512_maskz_scalef_ps(0xFFFF, (__m512)a, (__m512)n);
    else
#endif
#if defined(__AVX512VL__)
        if constexpr (sizeof(V) == 32)
        return (V)_mm256_maskz_scalef_ps(0xFF, (__m256)a, (__m256)n);
    else if constexpr (sizeof(V) == 16)
        return (V)_mm_maskz_scalef_ps(0xF, (__m128)a, (__m128)n);
    else
#endif
    {
        // In two factors, each a normal number; only the second product may round, to a denormal.
        typedef std::int32_t Ints __attribute__((vector_size(sizeof(V))));
        const Ints whole = __builtin_convertvector(n + 256.0f, Ints) - 256; // truncation downward
        const Ints half = whole >> 1;
        return a * (V)((half + 127) << 23) * (V)((whole - half + 127) << 23);
    }
}

// a * 2^(n rounded downward), rounded once, for n from -250 to 250 in eighths.
template <int N>
VSQ_INLINE Pack<float, N> timesPowers(const Pack<float, N>& a, const Pack<float, N>& n) {
    return each<float, N>([](auto x, auto y) VSQ_LAMBDA { return timesPowersOf(x, y); }, a, n);
}

// A bit for each lane of a mask, lane 0 lowest; up to 32 lanes.
template <class V>
VSQ_INLINE unsigned bitsOfVector(V x) {
#if defined(__AVX512DQ__)
    if constexpr (sizeof(V) == 64 && sizeof(x[0]) == 4)
        return unsigned(_mm512_movepi32_mask((__m512i)x));
    else
#endif
#if defined(__AVX2__)
        if constexpr (sizeof(V) == 32 && sizeof(x[0]) == 4)
        return unsigned(_mm256_movemask_ps((__m256)x));
    else
#endif
#if defined(__SSE2__)
        if constexpr (sizeof(V) == 16 && sizeof(x[0]) == 4)
        return unsigned(_mm_movemask_ps((__m128)x));
    else
#endif
    {
        unsigned result = 0;
        for (unsigned i = 0; i < sizeof(V) / sizeof(x[0]); ++i)
            result |= unsigned(x[i] != 0) << i;
        return result;
    }
}

template <class T, int N>
VSQ_INLINE unsigned laneBits(const Pack<T, N>& mask) {
    static_assert(N <= 32);
    if constexpr (isRegister<T, N>)
        return bitsOfVector(mask.r);
    else
        return laneBits(mask.lo) | laneBits(mask.hi) << (N / 2);
}

// --- across lanes, always as the same tree: lower half plus upper half, down to one ---

template <class T, int N>
VSQ_INLINE T sumLanes(const Pack<T, N>& v) {
    if constexpr (N == 1)
        return v.r[0];
    else
        return sumLanes(low(v) + high(v));
}

template <class T, int N>
VSQ_INLINE T smallestLane(const Pack<T, N>& v) {
    if constexpr (N == 1)
        return v.r[0];
    else
        return smallestLane(smaller(low(v), high(v)));
}

template <class T, int N>
VSQ_INLINE T largestLane(const Pack<T, N>& v) {
    if constexpr (N == 1)
        return v.r[0];
    else
        return largestLane(larger(low(v), high(v)));
}

// Whether any bit of any lane is set, of a mask or of anything else.
template <class V>
VSQ_INLINE bool anySet(V mask) {
#if defined(__AVX512F__)
    if constexpr (sizeof(V) == 64)
        return _mm512_test_epi64_mask((__m512i)mask, (__m512i)mask) != 0;
    else
#endif
#if defined(__AVX__)
        if constexpr (sizeof(V) == 32)
        return _mm256_testz_si256((__m256i)mask, (__m256i)mask) == 0;
    else
#endif
#if defined(__SSE2__)
        if constexpr (sizeof(V) == 16)
        return _mm_movemask_epi8(_mm_cmpeq_epi8((__m128i)mask, _mm_setzero_si128())) != 0xFFFF;
    else
#endif
    {
        bool any = false;
        for (unsigned i = 0; i < sizeof(V) / sizeof(mask[0]); ++i)
            any = any || mask[i] != 0;
        return any;
    }
}

template <class T, int N>
VSQ_INLINE bool anyLane(const Pack<T, N>& mask) {
    if constexpr (isRegister<T, N>)
        return anySet(mask.r);
    else
        return anyLane(mask.lo | mask.hi);
}

// Whether any lane of a is below that of b, without the way of a mask through full vectors where registers hold masks.
template <class V>
VSQ_INLINE bool anyBelowVector(V a, V b) {
#if defined(__AVX512F__)
    if constexpr (sizeof(V) == 64)
        return _mm512_cmplt_epi32_mask((__m512i)a, (__m512i)b) != 0;
    else
#endif
        return anySet(a < b);
}

template <int N>
VSQ_INLINE bool anyBelow(const Pack<std::int32_t, N>& a, const Pack<std::int32_t, N>& b) {
    if constexpr (isRegister<std::int32_t, N>)
        return anyBelowVector(a.r, b.r);
    else if constexpr (registerBytes == 64)
        return bool(int(anyBelow(a.lo, b.lo)) | int(anyBelow(a.hi, b.hi)));
    else
        return anyLane(a < b);
}

} // namespace
} // namespace vsq::VSQ_LEVEL
