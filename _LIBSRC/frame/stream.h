// Arrays and records on binary streams, as little-endian images whatever the machine. Everything
// that a file says is a claim: every reader goes through readClaimed here.
#pragma once

#include "frame/scratch.h"
#include "frame/types.h"

#include <algorithm>
#include <array>
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

// Takes n elements of an image in memory and returns what follows them.
template <class T>
const unsigned char* takeElements(const unsigned char* image, T* elements, std::size_t n) {
    static_assert(std::is_arithmetic_v<T>);
    std::memcpy(elements, image, n * sizeof(T));
    if constexpr (std::endian::native != std::endian::little)
        std::transform(elements, elements + n, elements, byteSwapped<T>);
    return image + n * sizeof(T);
}

// --- records: characters that say what follows, and 32-bit words in the order of an enum ---

template <std::size_t n>
using Words = std::array<std::uint32_t, n>;

template <std::size_t n>
bool writeWords(FILE* stream, const Words<n>& words) {
    return writeElements(stream, words.data(), n);
}
template <std::size_t n>
bool readWords(FILE* stream, Words<n>& words) {
    return readElements(stream, words.data(), n);
}

template <std::size_t n>
bool writeTag(FILE* stream, const char (&tag)[n]) {
    return writeElements(stream, tag, n);
}
// Whether the stream goes on with the tag, which is then read, or as many bytes of something else.
template <std::size_t n>
bool readTag(FILE* stream, const char (&tag)[n]) {
    char found[n];
    return readElements(stream, found, n) && std::memcmp(found, tag, n) == 0;
}

// --- arrays of a claimed size ---

// How the reading of an array ended.
enum class Arrival { complete, streamEnded, noMemory };

// The elements that are allocated on a mere claim.
template <class T>
inline constexpr std::size_t claimedPiece = 0x10000 / sizeof(T);

// `count` elements of a stream that says how many come but may lie: memory grows with what has
// really come, to twice as much at most. allocate(n) gives a block with room for n elements, which
// says false when memory ran out; first(block) is where they begin. What came last stays in
// `block`.
template <class T, class Block, class Allocate, class First>
Arrival readClaimed(FILE* stream, std::uint64_t count, Block& block, Allocate allocate,
                    First first) {
    std::uint64_t room = std::min<std::uint64_t>(count, claimedPiece<T>), filled = 0;
    block = allocate(room);
    while (block) {
        if (!readElements(stream, first(block) + filled, static_cast<std::size_t>(room - filled)))
            return Arrival::streamEnded;
        if (room == count) return Arrival::complete;
        filled = room;
        room = std::min(count, 2 * room);
        Block grown = allocate(room);
        if (grown)
            std::memcpy(first(grown), first(block), static_cast<std::size_t>(filled) * sizeof(T));
        block = std::move(grown);
    }
    return Arrival::noMemory;
}

template <class T>
Arrival readClaimed(FILE* stream, std::uint64_t count, Scratch<T>& elements) {
    return readClaimed<T>(
        stream, count, elements, [](std::uint64_t n) { return Scratch<T>(n); },
        [](const Scratch<T>& block) { return block.get(); });
}

} // namespace ktl
