// An array with guard words before and behind it.
#pragma once

#include <cstddef>
#include <cstring>
#include <vector>

namespace support {

template <class T>
class Guarded {
public:
    explicit Guarded(std::size_t n, T fill = T()) : size_(n), cells(n + 2 * margin) {
        std::memset(cells.data(), 0xA5, cells.size() * sizeof(T));
        for (std::size_t i = 0; i < n; ++i)
            data()[i] = fill;
    }
    explicit Guarded(const std::vector<T>& values) : Guarded(values.size()) {
        for (std::size_t i = 0; i < size_; ++i)
            data()[i] = values[i];
    }

    T* data() { return cells.data() + margin; }
    const T* data() const { return cells.data() + margin; }
    std::size_t size() const { return size_; }
    T& operator[](std::size_t i) { return data()[i]; }
    const T& operator[](std::size_t i) const { return data()[i]; }
    std::vector<T> values() const { return std::vector<T>(data(), data() + size_); }

    // Whether nothing was written outside the array.
    bool intact() const {
        const auto* bytes = reinterpret_cast<const unsigned char*>(cells.data());
        const std::size_t first = margin * sizeof(T), last = (margin + size_) * sizeof(T);
        for (std::size_t i = 0; i < cells.size() * sizeof(T); ++i)
            if ((i < first || i >= last) && bytes[i] != 0xA5) return false;
        return true;
    }

private:
    static constexpr std::size_t margin = 64;
    std::size_t size_;
    std::vector<T> cells;
};

} // namespace support
