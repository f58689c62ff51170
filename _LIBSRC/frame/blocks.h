// What every family needs around malloc: sizes rounded up, aligned starts, zeroed records, and
// blocks that grow. Whoever releases a block calls std::free.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <type_traits>
#include <utility>

namespace ktl {

// n rounded up to a multiple of `step`, a power of two; n + step - 1 has to be within its type.
template <std::integral T>
constexpr T roundUp(T n, std::type_identity_t<T> step) {
    return (n + (step - 1)) & ~(step - 1);
}

// The first element on a boundary of `alignment` bytes, a power of two, at `block` or after it.
template <class T>
T* aligned(void* block, std::size_t alignment) {
    return reinterpret_cast<T*>(roundUp(reinterpret_cast<std::uintptr_t>(block), alignment));
}

// Room for `count` elements from malloc; null when memory ran out, for a size beyond the address
// space and for a negative count. A count of 0 gives a block all the same, so that null always
// means failure.
template <class T, std::integral Count>
T* allocPlain(Count count) {
    if (std::cmp_less(count, 0) ||
        std::cmp_greater(count, PTRDIFF_MAX / static_cast<std::ptrdiff_t>(sizeof(T))))
        return nullptr;
    const std::size_t size = static_cast<std::size_t>(count) * sizeof(T);
    return static_cast<T*>(std::malloc(size != 0 ? size : 1));
}

// `count` elements of zeros; null when memory ran out.
template <class T>
T* zeroed(std::size_t count = 1) {
    return static_cast<T*>(std::calloc(count, sizeof(T)));
}

// --- arrays of models and codebooks ---

// First elements stand on the boundary that the kernels expect, which belongs to the numeric form.
inline constexpr std::size_t floatAlignment = 16, fixedAlignment = 8;

inline float* floats(void* block) {
    return aligned<float>(block, floatAlignment);
}

// A zeroed block with room for `count` elements after its aligned start and for a register's
// length beyond them, so that vector loops may read whole groups; null when memory ran out or the
// size is beyond the address space.
inline void* allocateArray(std::size_t count, std::size_t elementSize) {
    constexpr std::size_t slack = floatAlignment + 64;
    if (count > (PTRDIFF_MAX - slack) / elementSize) return nullptr;
    return std::calloc(1, count * elementSize + slack);
}

// --- blocks of the context ---

// Puts another block in the place of one: the old one goes, both fields become 0, and only success
// stores them again. A report's handler, called by make(), finds nothing that is gone, and what it
// stores stays. False when make() gave null; the caller reports.
template <class Pointer, class Release, class Make>
bool renewBlock(Pointer& block, int& capacity, int wanted, Release release, Make make) {
    release(block);
    block = nullptr;
    capacity = 0;
    auto* const made = make();
    if (made == nullptr) return false;
    block = made;
    capacity = wanted;
    return true;
}

// The growth rule of the context's buffers: a block that is long enough stays.
//     growBuffer<float>(context->buff, context->buffLen, n)
template <class T, class Pointer>
bool growBuffer(Pointer& buffer, int& capacity, int wanted) {
    return wanted <= capacity ||
           renewBlock(buffer, capacity, wanted, std::free, [=] { return allocPlain<T>(wanted); });
}

} // namespace ktl
