// Lanes of one register, or of two, in any order; beside simd.h, for level sources that rearrange
// what they load.
#pragma once

#include "simd/pack.h"

namespace vsq::VSQ_LEVEL {
namespace {

// Lane i of the result is lane laneOf(i, N) of a (below N) or b (from N on). For packs of one
// register.
template <int (*laneOf)(int i, int n), class T, int N, int... I>
VSQ_INLINE Pack<T, N> pickLanes(const Pack<T, N>& a, const Pack<T, N>& b,
                                std::integer_sequence<int, I...>) {
    static_assert(isRegister<T, N>);
    return {__builtin_shufflevector(a.r, b.r, laneOf(I, N)...)};
}
template <int (*laneOf)(int i, int n), class T, int N>
VSQ_INLINE Pack<T, N> pick(const Pack<T, N>& a, const Pack<T, N>& b) {
    return pickLanes<laneOf>(a, b, std::make_integer_sequence<int, N>());
}

// Of the array that a and b are when b follows a: every second element.
constexpr int evenLane(int i, int) {
    return 2 * i;
}
constexpr int oddLane(int i, int) {
    return 2 * i + 1;
}
// The same, from the back.
constexpr int evenLaneBack(int i, int n) {
    return 2 * (n - 1 - i);
}
constexpr int oddLaneBack(int i, int n) {
    return 2 * (n - 1 - i) + 1;
}

// a[0], b[0], a[1], b[1], ...: the first and the second half; and from the back: a[N-1], b[N-1],
// a[N-2], ...
constexpr int zipLane(int i, int n) {
    return i / 2 + i % 2 * n;
}
constexpr int zipUpperLane(int i, int n) {
    return zipLane(i, n) + n / 2;
}
constexpr int zipBackLane(int i, int n) {
    return n - 1 - i / 2 + i % 2 * n;
}
constexpr int zipUpperBackLane(int i, int n) {
    return zipBackLane(i, n) - n / 2;
}

// a[0], b[N-1], b[N-2], ..., b[1]
constexpr int mirrorLane(int i, int n) {
    return i == 0 ? 0 : 2 * n - i;
}
// b[0], a[1], a[2], ..., a[N-1]
constexpr int firstOfOtherLane(int i, int n) {
    return i == 0 ? n : i;
}
// Without a[1]: a[0], a[2], ..., a[N-1], b[0]; and with a gap there: a[0], a[0], a[1], ..., a[N-2]
constexpr int skipSecondLane(int i, int) {
    return i == 0 ? 0 : i + 1;
}
constexpr int gapSecondLane(int i, int) {
    return i == 0 ? 0 : i - 1;
}
// The last one or two of a, then b; and from the second or third of a on, then b.
constexpr int lastOneLane(int i, int n) {
    return n - 1 + i;
}
constexpr int lastTwoLane(int i, int n) {
    return n - 2 + i;
}
constexpr int fromSecondLane(int i, int) {
    return i + 1;
}
constexpr int fromThirdLane(int i, int) {
    return i + 2;
}

// Steps of a transposition, by quarters of 4 lanes: lanes 0 and 1 of both, or 2 and 3; pairs 0 of
// both, or 1.
constexpr int quarterZipLane(int i, int n) {
    return i / 4 * 4 + i % 4 / 2 + i % 2 * n;
}
constexpr int quarterZipUpperLane(int i, int n) {
    return quarterZipLane(i, n) + 2;
}
constexpr int quarterPairLane(int i, int n) {
    return i / 4 * 4 + i % 2 + i % 4 / 2 * n;
}
constexpr int quarterPairUpperLane(int i, int n) {
    return quarterPairLane(i, n) + 2;
}
// Every second quarter of both, the first or the second of each two.
constexpr int evenQuarterLane(int i, int) {
    return i / 4 * 8 + i % 4;
}
constexpr int oddQuarterLane(int i, int) {
    return i / 4 * 8 + 4 + i % 4;
}

} // namespace
} // namespace vsq::VSQ_LEVEL
