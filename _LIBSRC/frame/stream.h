// Arrays on binary streams, as little-endian images whatever the machine.
#pragma once

#include "frame/scratch.h"
#include "frame/types.h"

#include <algorithm>
#include <bit>
#include <cstdint>
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

// Takes n elements of an image in memory and returns what stands behind them.
template <class T>
const unsigned char* takeElements(const unsigned char* image, T* elements, std::size_t n) {
    static_assert(std::is_arithmetic_v<T>);
    std::memcpy(elements, image, n * sizeof(T));
    if constexpr (std::endian::native != std::endian::little)
        std::transform(elements, elements + n, elements, byteSwapped<T>);
    return image + n * sizeof(T);
}

// How the reading of an array ended.
enum class Arrival { complete, streamEnded, noMemory };

// `count` elements of a stream that says how many come but may lie: memory grows with what has
// really come, to twice as much at most.
template <class T>
Arrival readClaimed(FILE* stream, std::uint64_t count, Scratch<T>& elements) {
    constexpr std::uint64_t firstPiece = 0x10000 / sizeof(T);
    std::uint64_t room = std::min(count, firstPiece), filled = 0;
    elements = Scratch<T>(room);
    while (elements) {
        if (!readElements(stream, elements.get() + filled, static_cast<std::size_t>(room - filled)))
            return Arrival::streamEnded;
        if (room == count) return Arrival::complete;
        filled = room;
        room = std::min(count, 2 * room);
        Scratch<T> grown(room);
        if (grown)
            std::memcpy(grown.get(), elements.get(), static_cast<std::size_t>(filled) * sizeof(T));
        elements = std::move(grown);
    }
    return Arrival::noMemory;
}

} // namespace ktl
