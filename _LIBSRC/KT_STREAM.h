// Arrays on binary streams, as little-endian images whatever the machine.
#pragma once

#include "KT_TYPES.h"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>
#include <type_traits>

namespace ktl {

template <class T>
T byteSwapped(T value) {
    unsigned char bytes[sizeof(T)];
    std::memcpy(bytes, &value, sizeof bytes);
    std::reverse(bytes, bytes + sizeof bytes);
    std::memcpy(&value, bytes, sizeof bytes);
    return value;
}

// Writes n elements; false when the stream took fewer.
template <class T>
bool writeElements(FILE* stream, const T* elements, std::size_t n) {
    static_assert(std::is_arithmetic_v<T>);
    if constexpr (std::endian::native == std::endian::little)
        return std::fwrite(elements, sizeof(T), n, stream) == n;
    for (std::size_t i = 0; i < n; ++i) {
        const T swapped = byteSwapped(elements[i]);
        if (std::fwrite(&swapped, sizeof swapped, 1, stream) != 1) return false;
    }
    return true;
}

// Reads n elements; false when the stream held fewer.
template <class T>
bool readElements(FILE* stream, T* elements, std::size_t n) {
    static_assert(std::is_arithmetic_v<T>);
    if (std::fread(elements, sizeof(T), n, stream) != n) return false;
    if constexpr (std::endian::native != std::endian::little)
        std::transform(elements, elements + n, elements, byteSwapped<T>);
    return true;
}

} // namespace ktl
