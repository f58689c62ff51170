// What a processor may do in one step, written for any processor: vectors of one register as the
// compiler knows them, and the operations on them that compilers do not find by themselves.
//
// Each operation here is the general form: right on every processor, and slow. A file of one
// architecture (x86.h) overloads it where the processor has an instruction for it, by naming the
// register's element and width. A missing overload is slow, never wrong.
#pragma once

#ifndef VSQ_LEVEL
#error "kernels/simd belongs to level sources (*_level.cpp)"
#endif

#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#define VSQ_INLINE inline __attribute__((always_inline))
#define VSQ_LAMBDA __attribute__((always_inline))

namespace vsq::VSQ_LEVEL {
namespace {

inline constexpr int registerBytes = VSQ_REGISTER_BYTES;

template <class T, int N>
inline constexpr bool isRegister = int(sizeof(T)) * N <= registerBytes;

// N lanes of T whatever the register width: one register, or two packs of half the lanes, down to
// what a register of this level holds.
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

// The element of a register, and its number of lanes.
template <class V>
using ElementOf = std::remove_cvref_t<decltype(std::declval<V&>()[0])>;
template <class V>
inline constexpr int lanesOf = int(sizeof(V) / sizeof(ElementOf<V>));

// Registers by element and width in bytes: how an overload says which ones it is for.
template <class V, class T, int bytes>
concept RegisterOf = std::is_same_v<ElementOf<V>, T> && int(sizeof(V)) == bytes;
template <class V, int bytes>
concept FloatRegister = RegisterOf<V, float, bytes>;
template <class V, int bytes>
concept DoubleRegister = RegisterOf<V, double, bytes>;
template <class V, int bytes>
concept ShortRegister = RegisterOf<V, std::int16_t, bytes>;
template <class V, int bytes>
concept IntRegister = RegisterOf<V, std::int32_t, bytes>;
template <class V, int bytes>
concept LongRegister = RegisterOf<V, std::int64_t, bytes>;
// Any element of one width.
template <class V, int element, int bytes>
concept AnyRegister = int(sizeof(ElementOf<V>)) == element&& int(sizeof(V)) == bytes;

// --- parts of arrays ---

// The first `count` elements at p, `fill` in the lanes after them. Elements from `count` on are
// not read.
template <class V, class T>
VSQ_INLINE V loadPartOf(const T* p, int count, T fill) {
    constexpr int lanes = lanesOf<V>;
    const V others = fill - V{};
    if constexpr (lanes == 4) {
        // Lane by lane: a load of what four stores have just copied would wait for them.
        V result = others;
        if (count > 0) result[0] = p[0];
        if (count > 1) result[1] = p[1];
        if (count > 2) result[2] = p[2];
        if (count > 3) result[3] = p[3];
        return result;
    } else {
        T copy[lanes];
        std::memcpy(copy, &others, sizeof copy);
        // by halves: a branch for each bit of the count, which loops over rows foretell
        int filled = 0;
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

// The first `count` lanes to p; memory from `count` elements on is not touched.
template <class V, class T>
VSQ_INLINE void storePartOf(T* p, V v, int count) {
    constexpr int lanes = lanesOf<V>;
    T copy[lanes];
    std::memcpy(copy, &v, sizeof copy);
    int stored = 0; // by halves, as in loadPartOf
    for (int step = lanes; step >= 1; step /= 2)
        if ((count & step) != 0) {
            std::memcpy(p + stored, copy + stored, std::size_t(step) * sizeof(T));
            stored += step;
        }
}

// The lanes of v whose bit is set, one after another at p. The rest of a register there may be
// written, too. Returns their number.
template <class V, class T>
VSQ_INLINE int storeChosenOf(T* p, V v, unsigned chosen) {
    constexpr int lanes = lanesOf<V>;
    T copy[lanes];
    std::memcpy(copy, &v, sizeof copy);
    int stored = 0;
    for (int i = 0; i < lanes; ++i) { // without a branch that the data decide
        p[stored] = copy[i];
        stored += int(chosen >> i & 1);
    }
    return stored;
}

// --- lane by lane ---

// x < y ? x : y and x > y ? x : y; where a comparison fails for a NaN, y.
template <class V>
VSQ_INLINE V smallerOf(V x, V y) {
    return x < y ? x : y;
}
template <class V>
VSQ_INLINE V largerOf(V x, V y) {
    return x > y ? x : y;
}

// a * b + c for products that are exact, as those of two floats are in double: then it is all the
// same whether the product is rounded before the addition. tests/build/unfused.cmake lists who
// may call it.
template <class V>
VSQ_INLINE V fusedMultiplyAddOf(V a, V b, V c) {
    return a * b + c;
}

template <class V>
VSQ_INLINE V rootOf(V x) {
    for (int i = 0; i < lanesOf<V>; ++i) {
        if constexpr (sizeof(ElementOf<V>) == 4)
            x[i] = __builtin_sqrtf(x[i]);
        else
            x[i] = __builtin_sqrt(x[i]);
    }
    return x;
}

// Each lane's value as R's element; float to integer truncates, out of range is undefined.
template <class R, class V>
VSQ_INLINE R convertedOf(V x) {
    return __builtin_convertvector(x, R);
}

// a * 2^(n rounded downward), rounded once, for n from -250 to 250 in eighths; and whether this
// is one step.
template <class V>
VSQ_INLINE V timesPowersOf(V a, V n) {
    // In two factors, each a normal number; only the second product may round, to a denormal.
    typedef std::int32_t Ints __attribute__((vector_size(sizeof(V))));
    const Ints whole = __builtin_convertvector(n + 256.0f, Ints) - 256; // truncation downward
    const Ints half = whole >> 1;
    return a * (V)((half + 127) << 23) * (V)((whole - half + 127) << 23);
}
template <class V>
inline constexpr bool powersInOneStep = false;

// --- to integers, defined for every value ---

// Toward zero; what does not fit, NaN included, becomes the most negative int, as the x86
// instructions do it.
template <class R, class V>
VSQ_INLINE R truncatedOf(V x) {
    typedef ElementOf<V> Element;
    R result;
    for (int i = 0; i < lanesOf<V>; ++i) {
        const bool fits = x[i] >= Element(-2147483648.0) && x[i] < Element(2147483648.0);
        result[i] = fits ? static_cast<std::int32_t>(x[i]) : INT32_MIN;
    }
    return result;
}

// 32 bits to 16; beyond their range the nearer end of it.
template <class R, class V>
VSQ_INLINE R narrowedOf(V x) {
    x = x < -32768 ? V{} - 32768 : x;
    x = x > 32767 ? V{} + 32767 : x;
    return __builtin_convertvector(x, R);
}

// --- 16-bit lanes ---

// The upper 16 bits of each 32-bit product.
template <class V>
VSQ_INLINE V highProductsOf(V a, V b) {
    typedef std::int32_t All __attribute__((vector_size(2 * sizeof(V))));
    return __builtin_convertvector(
        (__builtin_convertvector(a, All) * __builtin_convertvector(b, All)) >> 16, V);
}

// Lane i is the sum of lanes 2i and 2i + 1, in 32 bits.
template <class R, class V>
VSQ_INLINE R pairTotalsOf(V a) {
    R result;
    for (int i = 0; i < lanesOf<R>; ++i)
        result[i] = std::int32_t(a[2 * i]) + std::int32_t(a[2 * i + 1]);
    return result;
}

// --- tables ---

// table[index modulo 16], lane by lane.
template <class R, class V>
VSQ_INLINE R lookUp16Of(const double* table, V index) {
    R result;
    for (int i = 0; i < lanesOf<R>; ++i)
        result[i] = table[index[i] & 15];
    return result;
}

// table[index modulo 8], lane by lane.
template <class R, class V>
VSQ_INLINE R lookUp8Of(const float* table, V index) {
    R result;
    for (int i = 0; i < lanesOf<R>; ++i)
        result[i] = table[index[i] & 7];
    return result;
}

// --- questions ---

// A bit for each lane of a mask, lane 0 lowest.
template <class V>
VSQ_INLINE unsigned bitsOf(V mask) {
    unsigned result = 0;
    for (int i = 0; i < lanesOf<V>; ++i)
        result |= unsigned(mask[i] != 0) << i;
    return result;
}

// Whether any bit of any lane is set, of a mask or of anything else.
template <class V>
VSQ_INLINE bool anySetOf(V mask) {
    bool any = false;
    for (int i = 0; i < lanesOf<V>; ++i)
        any = any || mask[i] != 0;
    return any;
}

// Whether the answer of anyBelow (pack.h) comes without the way of a mask through full vectors.
template <class V>
inline constexpr bool comparesIntoMasks = false;

} // namespace
} // namespace vsq::VSQ_LEVEL
