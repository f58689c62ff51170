// Vectors of the level being compiled; included by level sources (*_level.cpp) only.
//
// Pack<T, N> is N lanes of T whatever the register width. A kernel that sums in a Pack<double, 16>
// adds the same numbers in the same order at every level, so all levels give the same bits.
// Everything stands in an unnamed namespace and is inlined: a level object may define no symbol
// that the linker could merge with another level's.
//
// A vector splits until it fits a register; what is done to one register stands in registers.h,
// in a form for any processor, and in the header that VSQ_OVERLOADS names, in the processor's own
// instructions. This file is the same for all.
#pragma once

#include "simd/registers.h"

#include VSQ_OVERLOADS

namespace vsq::VSQ_LEVEL {
namespace {

// --- operations on registers that are made of others ---

// Two registers of 32-bit lanes into one of 16-bit lanes, with saturation.
template <class R, class V, int... I>
VSQ_INLINE R joinLanes(V lo, V hi, std::integer_sequence<int, I...>) {
    return __builtin_shufflevector(lo, hi, I...);
}
template <class R, class V>
VSQ_INLINE R narrowedPairOf(V lo, V hi) {
    typedef std::int16_t Half __attribute__((vector_size(sizeof(R) / 2)));
    return joinLanes<R>(narrowedOf<Half>(lo), narrowedOf<Half>(hi),
                        std::make_integer_sequence<int, lanesOf<R>>());
}

// narrowed(middle(a * p + b * q)), lane by lane: the sums stand in 32 bits, `middle` maps a
// register of them, and what it gives is narrowed with saturation. The widened lanes may pass
// through it in any order.
template <class V, class Middle>
VSQ_INLINE V pairSumsOf(V a, V b, std::int16_t p, std::int16_t q, const Middle& middle) {
    typedef std::int32_t All __attribute__((vector_size(2 * sizeof(V))));
    const All sums = __builtin_convertvector(a, All) * p + __builtin_convertvector(b, All) * q;
    return narrowedOf<V>(static_cast<All>(middle(sums)));
}

template <class V>
VSQ_INLINE bool anyBelowOf(V a, V b) {
    return anySetOf(a < b);
}

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
            // the operator broadcasts; x - 0 keeps every x, -0.0 too
            value - typename Pack<T, N>::Register{};
    } else {
        v.lo = splat<T, N / 2>(value);
        v.hi = v.lo;
    }
    return v;
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

// The lanes whose bit is set, one after another; the rest of N elements may be written, too.
// Returns their number. For packs of one register.
template <class T, int N>
VSQ_INLINE int storeChosen(T* p, const Pack<T, N>& v, unsigned chosen) {
    static_assert(isRegister<T, N>);
    return storeChosenOf(p, v.r, chosen);
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

template <class T, int H>
VSQ_INLINE Pack<T, 2 * H> join(const Pack<T, H>& lo, const Pack<T, H>& hi) {
    if constexpr (isRegister<T, 2 * H>)
        return {joinLanes<typename Pack<T, 2 * H>::Register>(
            lo.r, hi.r, std::make_integer_sequence<int, 2 * H>())};
    else
        return {lo, hi};
}

// --- pairs of lanes ---

template <class V, int odd, int... I>
VSQ_INLINE V pairLanes(V a, V b, std::integer_sequence<int, I...>) {
    return __builtin_shufflevector(a, b,
                                   (I % 2 == 0 ? I + odd : int(sizeof...(I)) + I - 1 + odd)...);
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
VSQ_INLINE Pack<T, N> select(const Pack<MaskOf<T>, N>& mask, const Pack<T, N>& a,
                             const Pack<T, N>& b) {
    return each<T, N>([](auto m, auto x, auto y) VSQ_LAMBDA { return m ? x : y; }, mask, a, b);
}

// a * b + c, for exact products only: see fusedMultiplyAddOf.
template <int N>
VSQ_INLINE Pack<double, N> fusedMultiplyAdd(const Pack<double, N>& a, const Pack<double, N>& b,
                                            const Pack<double, N>& c) {
    return each<double, N>(
        [](auto x, auto y, auto z) VSQ_LAMBDA { return fusedMultiplyAddOf(x, y, z); }, a, b, c);
}

// a < b ? a : b and a > b ? a : b; where a comparison fails for a NaN, b.
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

// Each lane's value as another type (float to integer truncates; out of range is undefined).
template <class U, class T, int N>
VSQ_INLINE Pack<U, N> convert(const Pack<T, N>& a) {
    if constexpr (isRegister<T, N> && isRegister<U, N>)
        return {convertedOf<typename Pack<U, N>::Register>(a.r)};
    else
        return join(convert<U>(low(a)), convert<U>(high(a)));
}

// Lane by lane, a where x is not below 0 and b where it is or is no number; the lanes of x, float
// or int, are half as wide as those of a and b.
template <class T, int N>
VSQ_INLINE Pack<double, N> selectNotBelowZero(const Pack<T, N>& x, const Pack<double, N>& a,
                                              const Pack<double, N>& b) {
    static_assert(sizeof(T) == 4);
    if constexpr (!isRegister<T, N>)
        return {selectNotBelowZero(x.lo, a.lo, b.lo), selectNotBelowZero(x.hi, a.hi, b.hi)};
    else
        return select(convert<std::int64_t>(splat<T, N>(0) <= x), a, b);
}

template <class T, int N>
VSQ_INLINE Pack<T, N> squareRoot(const Pack<T, N>& a) {
    return each<T, N>([](auto x) VSQ_LAMBDA { return rootOf(x); }, a);
}

// --- float to integer and to narrower integers, defined for every value ---

// Toward zero; what does not fit, NaN included, becomes the most negative int, as the x86
// instructions do it.
template <class T, int N>
VSQ_INLINE Pack<std::int32_t, N> truncated(const Pack<T, N>& a) {
    if constexpr (isRegister<T, N>)
        return {truncatedOf<typename Pack<std::int32_t, N>::Register>(a.r)};
    else
        return join(truncated(low(a)), truncated(high(a)));
}

// To 16 bits; beyond their range the nearer end of it.
template <int N>
VSQ_INLINE Pack<std::int16_t, N> narrowed(const Pack<std::int32_t, N>& a) {
    if constexpr (isRegister<std::int32_t, N>)
        return {narrowedOf<typename Pack<std::int16_t, N>::Register>(a.r)};
    else if constexpr (isRegister<std::int16_t, N>)
        return {narrowedPairOf<typename Pack<std::int16_t, N>::Register>(a.lo.r, a.hi.r)};
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

// See pairSumsOf.
template <int N, class Middle>
VSQ_INLINE Pack<std::int16_t, N> pairSums(const Pack<std::int16_t, N>& a, std::int16_t p,
                                          const Pack<std::int16_t, N>& b, std::int16_t q,
                                          const Middle& middle) {
    return each<std::int16_t, N>(
        [&](auto x, auto y) VSQ_LAMBDA { return pairSumsOf(x, y, p, q, middle); }, a, b);
}

// --- products and pairs of 16-bit lanes ---

// The upper 16 bits of each 32-bit product.
template <int N>
VSQ_INLINE Pack<std::int16_t, N> highProducts(const Pack<std::int16_t, N>& a,
                                              const Pack<std::int16_t, N>& b) {
    return each<std::int16_t, N>([](auto x, auto y) VSQ_LAMBDA { return highProductsOf(x, y); }, a,
                                 b);
}

// Lane i is the sum of lanes 2i and 2i + 1, in 32 bits.
template <int N>
VSQ_INLINE Pack<std::int32_t, N / 2> pairTotals(const Pack<std::int16_t, N>& a) {
    if constexpr (isRegister<std::int16_t, N>)
        return {pairTotalsOf<typename Pack<std::int32_t, N / 2>::Register>(a.r)};
    else
        return join(pairTotals(a.lo), pairTotals(a.hi));
}

// --- a table of 16 doubles ---

// table[index modulo 16], lane by lane.
template <int N>
VSQ_INLINE Pack<double, N> lookUp(const double* table, const Pack<std::int64_t, N>& index) {
    return each<double, N>(
        [table](auto i) VSQ_LAMBDA {
            typedef double Register __attribute__((vector_size(sizeof i)));
            return lookUp16Of<Register>(table, i);
        },
        index);
}

// --- a table of 8 floats, and powers of two ---

// table[index modulo 8], lane by lane.
template <int N>
VSQ_INLINE Pack<float, N> lookUp8(const float* table, const Pack<std::int32_t, N>& index) {
    return each<float, N>(
        [table](auto i) VSQ_LAMBDA {
            typedef float Register __attribute__((vector_size(sizeof i)));
            return lookUp8Of<Register>(table, i);
        },
        index);
}

// Whether timesPowers is one instruction.
inline constexpr bool hasPowers = powersInOneStep<Pack<float, registerBytes / 4>::Register>;

// a * 2^(n rounded downward), rounded once, for n from -250 to 250 in eighths.
template <int N>
VSQ_INLINE Pack<float, N> timesPowers(const Pack<float, N>& a, const Pack<float, N>& n) {
    return each<float, N>([](auto x, auto y) VSQ_LAMBDA { return timesPowersOf(x, y); }, a, n);
}

// A bit for each lane of a mask, lane 0 lowest; up to 32 lanes.
template <class T, int N>
VSQ_INLINE unsigned laneBits(const Pack<T, N>& mask) {
    static_assert(N <= 32);
    if constexpr (isRegister<T, N>)
        return bitsOf(mask.r);
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
template <class T, int N>
VSQ_INLINE bool anyLane(const Pack<T, N>& mask) {
    if constexpr (isRegister<T, N>)
        return anySetOf(mask.r);
    else
        return anyLane(mask.lo | mask.hi);
}

// Whether any lane of a is below that of b, without the way of a mask through full vectors where
// registers hold masks.
template <int N>
VSQ_INLINE bool anyBelow(const Pack<std::int32_t, N>& a, const Pack<std::int32_t, N>& b) {
    if constexpr (isRegister<std::int32_t, N>)
        return anyBelowOf(a.r, b.r);
    else if constexpr (comparesIntoMasks<Pack<std::int32_t, registerBytes / 4>::Register>)
        return bool(int(anyBelow(a.lo, b.lo)) | int(anyBelow(a.hi, b.hi)));
    else
        return anyLane(a < b);
}

} // namespace
} // namespace vsq::VSQ_LEVEL
