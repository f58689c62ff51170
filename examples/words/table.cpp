#include "table.h"

#include "files.h"
#include "library.h"

#include <fmt/format.h>

#include <bit>
#include <type_traits>

namespace words {
namespace {

template <class Value>
std::string text(const Matrix<Value>& features) {
    std::string result;
    for (int t = 0; t < features.rows(); ++t)
        for (int i = 0; i < features.columns(); ++i)
            result +=
                fmt::format("{}{}", features.row(t)[i], i + 1 < features.columns() ? ',' : '\n');
    return result;
}

// / A magic number, the length of the header, the header as the text of a Python dictionary, padded
// to 64 bytes; then / the values as they are in memory, row after row.
template <class Value>
std::string npy(const Matrix<Value>& features) {
    const char order = std::endian::native == std::endian::little ? '<' : '>';
    const char kind = std::is_floating_point_v<Value> ? 'f' : 'i';
    std::string header =
        fmt::format("{{'descr': '{}{}{}', 'fortran_order': False, 'shape': ({}, {}), }}", order,
                    kind, sizeof(Value), features.rows(), features.columns());
    constexpr std::size_t prefix = 10;
    header.append(63 - (prefix + header.size()) % 64, ' ');
    header += '\n';
    std::string result("\x93NUMPY\x01\x00", 8);
    result += static_cast<char>(header.size() & 0xff);
    result += static_cast<char>(header.size() >> 8);
    result += header;
    for (int t = 0; t < features.rows(); ++t)
        result.append(reinterpret_cast<const char*>(features.row(t)),
                      static_cast<std::size_t>(features.columns()) * sizeof(Value));
    return result;
}

template <class Value>
void write(const std::string& path, const Matrix<Value>& features) {
    const bool isCsv = path.ends_with(".csv");
    if (!isCsv && !path.ends_with(".npy"))
        throw Failure(path + ": the name ends neither in .csv nor in .npy");
    writeFile(path, isCsv ? text(features) : npy(features));
}

} // namespace

std::string asText(const Matrix<float>& features) {
    return text(features);
}
std::string asText(const Matrix<short>& features) {
    return text(features);
}
void writeTable(const std::string& path, const Matrix<float>& features) {
    write(path, features);
}
void writeTable(const std::string& path, const Matrix<short>& features) {
    write(path, features);
}

} // namespace words
