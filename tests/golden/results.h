// Results of every family as hashes of their exact bits, made from inputs that need no mathematical
// function: the same on every processor, compiler and instruction-set level.
#pragma once

#include "ktlp6.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace golden {

// A generator of numbers that are the same everywhere (D. Knuth, "The Art of Computer Programming",
// volume 2, 1997: a linear congruence modulo 2^64, its upper bits).
class Numbers {
public:
    explicit Numbers(std::uint64_t seed) : state(seed) {}

    int integer(int low, int high) {
        state = state * 6364136223846793005u + 1442695040888963407u;
        return low + int((state >> 33) % std::uint64_t(high - low + 1));
    }
    // A multiple of 2^-12.
    float real(float low, float high) {
        return low + (high - low) * float(integer(0, 4096)) / 4096.0f;
    }

private:
    std::uint64_t state;
};

template <class T>
using Rows = std::vector<std::vector<T>>;

template <class T>
std::vector<T> vectorOf(Numbers& numbers, int n, int low, int high) {
    std::vector<T> result;
    for (int i = 0; i < n; ++i) {
        if constexpr (sizeof(T) == 2)
            result.push_back(T(numbers.integer(low, high)));
        else
            result.push_back(T(numbers.real(float(low), float(high))));
    }
    return result;
}

template <class T>
Rows<T> rowsOf(Numbers& numbers, int nRows, int n, int low, int high) {
    Rows<T> result;
    for (int i = 0; i < nRows; ++i)
        result.push_back(vectorOf<T>(numbers, n, low, high));
    return result;
}

template <class T>
std::vector<T*> pointersOf(Rows<T>& rows) {
    std::vector<T*> result;
    for (auto& row : rows)
        result.push_back(row.data());
    return result;
}

// FNV-1a (G. Fowler, L. Noll, P. Vo, 1991) over values as little-endian words. Every NaN counts as
// one: its payload is the processor's.
class Hash {
public:
    void add(float value) {
        std::uint32_t word;
        std::memcpy(&word, &value, sizeof word);
        addWord(value != value ? 0x7FC00000u : word, 4);
    }
    void add(double value) {
        std::uint64_t word;
        std::memcpy(&word, &value, sizeof word);
        addWord(value != value ? 0x7FF8000000000000u : word, 8);
    }
    void add(short value) { addWord(std::uint16_t(value), 2); }
    void add(int value) { addWord(std::uint32_t(value), 4); }
    void add(unsigned char value) { addWord(value, 1); }
    template <class T>
    void add(const std::vector<T>& values) {
        for (const T& value : values)
            add(value);
    }
    std::uint64_t value() const { return state; }

private:
    void addWord(std::uint64_t word, int bytes) {
        for (int i = 0; i < bytes; ++i) {
            state ^= word >> (8 * i) & 0xFF;
            state *= 0x100000001B3u;
        }
    }
    std::uint64_t state = 0xCBF29CE484222325u;
};

// What a family gives: a hash for each name.
class Results {
public:
    template <class... T>
    void add(const std::string& name, const T&... values) {
        Hash hash;
        (hash.add(values), ...);
        found[name] = hash.value();
    }
    const std::map<std::string, std::uint64_t>& all() const { return found; }

private:
    std::map<std::string, std::uint64_t> found;
};

// The results of every family.
Results everything();

} // namespace golden
