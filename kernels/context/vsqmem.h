// Aligned blocks, for both layers: memory of the general allocator whose rows the kernels can load
// whole.
#pragma once

#include <cstddef>

namespace vsq {

// A block begins on this boundary: a whole AVX-512 register where there is one, else two SSE
// registers.
inline constexpr std::size_t blockAlignment = sizeof(void*) == 4 ? 32 : 64;

// Room for `count` elements of `elementSize` bytes each, not cleared. Null when memory ran out,
// which is also the answer to a size that the address space cannot hold and to a negative count; a
// count of 0 gives a block of no elements. The address that malloc returned stands in the
// pointer-sized word directly in front of the result.
void* allocAligned(std::ptrdiff_t count, std::size_t elementSize);

// Releases what allocAligned returned; null is allowed.
void freeAligned(void* block);

template <class T>
T* allocAligned(std::ptrdiff_t count) {
    return static_cast<T*>(allocAligned(count, sizeof(T)));
}

} // namespace vsq
