// Temporary streams and little-endian images for tests of file formats.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace support {

using Bytes = std::vector<unsigned char>;

struct CloseStream {
    void operator()(FILE* f) const {
        if (f != nullptr) std::fclose(f);
    }
};
using Stream = std::unique_ptr<FILE, CloseStream>;

inline Stream streamOf(const Bytes& bytes) {
    Stream stream(std::tmpfile());
    if (!bytes.empty()) std::fwrite(bytes.data(), 1, bytes.size(), stream.get());
    std::rewind(stream.get());
    return stream;
}

inline Bytes contentsOf(FILE* f) {
    std::fseek(f, 0, SEEK_END);
    Bytes bytes(static_cast<std::size_t>(std::ftell(f)));
    std::rewind(f);
    if (!bytes.empty()) bytes.resize(std::fread(bytes.data(), 1, bytes.size(), f));
    return bytes;
}

inline void putBits(Bytes& bytes, std::uint32_t value, int count) {
    for (int i = 0; i < count; ++i)
        bytes.push_back(static_cast<unsigned char>(value >> 8 * i));
}
inline void put(Bytes& bytes, std::uint32_t value) {
    putBits(bytes, value, 4);
}
inline void put(Bytes& bytes, std::int32_t value) {
    putBits(bytes, static_cast<std::uint32_t>(value), 4);
}
inline void put(Bytes& bytes, short value) {
    putBits(bytes, static_cast<std::uint16_t>(value), 2);
}
inline void put(Bytes& bytes, float value) {
    std::uint32_t word;
    std::memcpy(&word, &value, sizeof word);
    putBits(bytes, word, 4);
}
template <class T>
void putAll(Bytes& bytes, const std::vector<T>& values) {
    for (const T value : values)
        put(bytes, value);
}
inline void putText(Bytes& bytes, const std::string& text, std::size_t length) {
    for (std::size_t i = 0; i < length; ++i)
        bytes.push_back(i < text.size() ? static_cast<unsigned char>(text[i]) : 0);
}

inline std::uint32_t wordAt(const Bytes& bytes, std::size_t at) {
    return bytes.at(at) | std::uint32_t(bytes.at(at + 1)) << 8 |
           std::uint32_t(bytes.at(at + 2)) << 16 | std::uint32_t(bytes.at(at + 3)) << 24;
}
inline void setWordAt(Bytes& bytes, std::size_t at, std::uint32_t value) {
    for (std::size_t i = 0; i < 4; ++i)
        bytes.at(at + i) = static_cast<unsigned char>(value >> 8 * i);
}

} // namespace support
