// Complex numbers in vectors, the butterflies of the transforms and transposition; for level
// sources only.
//
// Every butterfly is the forward one, exp(-2 pi i / n); the inverse is had by exchanging real and
// imaginary parts on both sides. V is a pack, or a plain float in the shortest transforms.
#pragma once

#include "simd/shuffle.h"

namespace vsq::VSQ_LEVEL {
namespace {

// f(0), f(1), ... f(n - 1), each with its own constant, so that arrays indexed by them live in
// registers.
template <int... I, class F>
VSQ_INLINE void unrolled(std::integer_sequence<int, I...>, const F& f) {
    (f(std::integral_constant<int, I>()), ...);
}
template <int n, class F>
VSQ_INLINE void unroll(const F& f) {
    unrolled(std::make_integer_sequence<int, n>(), f);
}

template <class V>
struct Complex {
    V re, im;
};

template <class V>
VSQ_INLINE Complex<V> operator+(const Complex<V>& a, const Complex<V>& b) {
    return {a.re + b.re, a.im + b.im};
}
template <class V>
VSQ_INLINE Complex<V> operator-(const Complex<V>& a, const Complex<V>& b) {
    return {a.re - b.re, a.im - b.im};
}
template <class V>
VSQ_INLINE Complex<V> operator*(const Complex<V>& a, const Complex<V>& w) {
    return {a.re * w.re - a.im * w.im, a.re * w.im + a.im * w.re};
}

// a - i b and a + i b
template <class V>
VSQ_INLINE Complex<V> minusI(const Complex<V>& a, const Complex<V>& b) {
    return {a.re + b.im, a.im - b.re};
}
template <class V>
VSQ_INLINE Complex<V> plusI(const Complex<V>& a, const Complex<V>& b) {
    return {a.re - b.im, a.im + b.re};
}

template <class V>
struct Constant;
template <int N>
struct Constant<Pack<float, N>> {
    static VSQ_INLINE Pack<float, N> of(float value) { return splat<float, N>(value); }
};
template <>
struct Constant<float> {
    static VSQ_INLINE float of(float value) { return value; }
};

inline constexpr float halfRoot = 0.70710678118654752440f; // sqrt(1/2)
inline constexpr float cos8 = 0.92387953251128675613f;     // cos(pi / 8)
inline constexpr float sin8 = 0.38268343236508977173f;     // sin(pi / 8)

// a * exp(-i pi / 4) and a * exp(-3 i pi / 4)
template <class V>
VSQ_INLINE Complex<V> eighth(const Complex<V>& a) {
    const V c = Constant<V>::of(halfRoot);
    return {(a.re + a.im) * c, (a.im - a.re) * c};
}
template <class V>
VSQ_INLINE Complex<V> threeEighths(const Complex<V>& a) {
    const V c = Constant<V>::of(halfRoot);
    return {(a.im - a.re) * c, (a.re + a.im) * Constant<V>::of(-halfRoot)};
}

template <class V>
VSQ_INLINE void butterfly2(Complex<V>& a, Complex<V>& b) {
    const Complex<V> sum = a + b;
    b = a - b;
    a = sum;
}

template <class V>
VSQ_INLINE void butterfly4(Complex<V>& a, Complex<V>& b, Complex<V>& c, Complex<V>& d) {
    const Complex<V> evenSum = a + c, evenDiff = a - c;
    const Complex<V> oddSum = b + d, oddDiff = b - d;
    a = evenSum + oddSum;
    b = minusI(evenDiff, oddDiff);
    c = evenSum - oddSum;
    d = plusI(evenDiff, oddDiff);
}

template <class V>
VSQ_INLINE void butterfly(Complex<V> (&x)[2]) {
    butterfly2(x[0], x[1]);
}

template <class V>
VSQ_INLINE void butterfly(Complex<V> (&x)[4]) {
    butterfly4(x[0], x[1], x[2], x[3]);
}

// Even and odd elements apart, 4 points each, then the pairs.
template <class V>
VSQ_INLINE void butterfly(Complex<V> (&x)[8]) {
    Complex<V> a0 = x[0], a1 = x[2], a2 = x[4], a3 = x[6];
    Complex<V> b0 = x[1], b1 = x[3], b2 = x[5], b3 = x[7];
    butterfly4(a0, a1, a2, a3);
    butterfly4(b0, b1, b2, b3);
    b1 = eighth(b1);
    b3 = threeEighths(b3);
    x[0] = a0 + b0;
    x[4] = a0 - b0;
    x[1] = a1 + b1;
    x[5] = a1 - b1;
    x[2] = minusI(a2, b2);
    x[6] = plusI(a2, b2);
    x[3] = a3 + b3;
    x[7] = a3 - b3;
}

// 4 times 4 points, n = 4 n1 + n2 and k = k1 + 4 k2.
template <class V>
VSQ_INLINE void butterfly(Complex<V> (&x)[16]) {
    unroll<4>([&](auto i) VSQ_LAMBDA { butterfly4(x[i], x[i + 4], x[i + 8], x[i + 12]); });
    const V c = Constant<V>::of(cos8), s = Constant<V>::of(sin8);
    const V minusC = Constant<V>::of(-cos8), minusS = Constant<V>::of(-sin8);
    x[5] = x[5] * Complex<V>{c, minusS};
    x[6] = eighth(x[6]);
    x[7] = x[7] * Complex<V>{s, minusC};
    x[9] = eighth(x[9]);
    x[11] = threeEighths(x[11]);
    x[13] = x[13] * Complex<V>{s, minusC};
    x[14] = threeEighths(x[14]);
    x[15] = x[15] * Complex<V>{minusC, s};
    // The factor -i of x[10] goes into its butterfly.
    unroll<2>([&](auto i)
                  VSQ_LAMBDA { butterfly4(x[4 * i], x[4 * i + 1], x[4 * i + 2], x[4 * i + 3]); });
    const Complex<V> evenSum = minusI(x[8], x[10]), evenDiff = plusI(x[8], x[10]);
    const Complex<V> oddSum = x[9] + x[11], oddDiff = x[9] - x[11];
    x[8] = evenSum + oddSum;
    x[9] = minusI(evenDiff, oddDiff);
    x[10] = evenSum - oddSum;
    x[11] = plusI(evenDiff, oddDiff);
    butterfly4(x[12], x[13], x[14], x[15]);
    // x[4 k1 + k2] holds the result k1 + 4 k2.
    unroll<4>([&](auto i) VSQ_LAMBDA {
        unroll<4>([&](auto j) VSQ_LAMBDA {
            if constexpr (i < j) {
                const Complex<V> other = x[4 * i + j];
                x[4 * i + j] = x[4 * j + i];
                x[4 * j + i] = other;
            }
        });
    });
}

// --- the transposition of L vectors of L lanes ---

template <int L>
VSQ_INLINE void transpose(Pack<float, L> (&r)[L]) {
    Pack<float, L> t[L];
    unroll<L / 2>([&](auto i) VSQ_LAMBDA {
        t[2 * i] = pick<quarterZipLane>(r[2 * i], r[2 * i + 1]);
        t[2 * i + 1] = pick<quarterZipUpperLane>(r[2 * i], r[2 * i + 1]);
    });
    unroll<L / 4>([&](auto g) VSQ_LAMBDA {
        r[4 * g] = pick<quarterPairLane>(t[4 * g], t[4 * g + 2]);
        r[4 * g + 1] = pick<quarterPairUpperLane>(t[4 * g], t[4 * g + 2]);
        r[4 * g + 2] = pick<quarterPairLane>(t[4 * g + 1], t[4 * g + 3]);
        r[4 * g + 3] = pick<quarterPairUpperLane>(t[4 * g + 1], t[4 * g + 3]);
    });
    // Now r[4 g + s], quarter c, holds column 4 c + s of rows 4 g .. 4 g + 3.
    if constexpr (L == 8) {
        unroll<4>([&](auto s) VSQ_LAMBDA {
            const Pack<float, L> a = r[s], b = r[4 + s];
            r[s] = pick<evenQuarterLane>(a, b);
            r[4 + s] = pick<oddQuarterLane>(a, b);
        });
    } else if constexpr (L == 16) {
        unroll<4>([&](auto s) VSQ_LAMBDA {
            const Pack<float, L> a = pick<evenQuarterLane>(r[s], r[4 + s]),
                                 b = pick<oddQuarterLane>(r[s], r[4 + s]);
            const Pack<float, L> c = pick<evenQuarterLane>(r[8 + s], r[12 + s]),
                                 d = pick<oddQuarterLane>(r[8 + s], r[12 + s]);
            r[s] = pick<evenQuarterLane>(a, c);
            r[4 + s] = pick<evenQuarterLane>(b, d);
            r[8 + s] = pick<oddQuarterLane>(a, c);
            r[12 + s] = pick<oddQuarterLane>(b, d);
        });
    }
}

} // namespace
} // namespace vsq::VSQ_LEVEL
