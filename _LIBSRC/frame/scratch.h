// Memory that lives as long as a scope. A guard that got none says false; each releases what it
// holds on every path.
#pragma once

#include "frame/KT_ALLOC.h"
#include "frame/blocks.h"

#include <concepts>
#include <cstdint>
#include <cstdlib>
#include <type_traits>
#include <utility>

namespace ktl {

// The guards' common part: one block, and the function that releases it.
template <class T, void (*release)(void*)>
class Held {
    static_assert(std::is_trivially_copyable_v<T>);

public:
    Held() = default;
    explicit Held(T* block) : held(block) {}
    Held(Held&& other) noexcept : held(other.take()) {}
    Held& operator=(Held&& other) noexcept {
        std::swap(held, other.held);
        return *this;
    }
    ~Held() { release(held); }

    explicit operator bool() const { return held != nullptr; }
    T* get() const { return held; }
    T* data() const { return held; }
    T& operator[](std::ptrdiff_t i) const { return held[i]; }
    T* take() { return std::exchange(held, nullptr); } // the caller frees it from now on

private:
    T* held = nullptr;
};

inline void freePlain(void* block) {
    std::free(block);
}

// Scratch<float> frame(n); if (!frame) { ... }: n elements, not cleared.
template <class T>
struct Scratch : Held<T, freePlain> {
    Scratch() = default;
    template <std::integral Count>
    explicit Scratch(Count n) : Held<T, freePlain>(allocPlain<T>(n)) {}
};

// The same, aligned for whole-register loads; take() hands over a block for vsq::freeAligned.
template <class T>
struct AlignedScratch : Held<T, vsq::freeAligned> {
    AlignedScratch() = default;
    explicit AlignedScratch(std::ptrdiff_t n)
        : Held<T, vsq::freeAligned>(vsq::allocAligned<T>(n)) {}
};

// A table of aligned rows, float or short: table[row][column]. Has reported when it says false.
template <class T>
struct Table : Held<T*, KTFree2> {
    Table() = default;
    Table(int nRows, int nCols) : Held<T*, KTFree2>(allocate(nRows, nCols)) {}

private:
    static T** allocate(int nRows, int nCols) {
        if constexpr (std::is_same_v<T, float>)
            return KTsAlloc2(nRows, nCols);
        else
            return KTwAlloc2(nRows, nCols);
    }
};

} // namespace ktl
