// The fixed-point logarithm of path evaluation, rule by rule, from tables by the C library: -log10
// of x * 2^sfIn in units of 2^-sfOut. For sfOut from -37 to 24, where a long double tells every
// table entry. Includes nothing of the library.
#pragma once

#include <cmath>
#include <cstdint>

namespace oracle {

inline std::int32_t log10Fixed(std::int32_t x, int sfIn, int sfOut) {
    if (x <= 0) return 0x1FFFFF;
    int top = 30;
    while ((x >> top & 1) == 0)
        --top;
    const auto bits = std::uint32_t(std::uint64_t(x) << (32 - top)); // the leading 1 falls off
    const std::uint64_t k = bits >> 24, f = bits & 0xFFFFFF;
    const long double m = 1 + (long double)k / 256, c = 0.5L / std::log(10.0L);
    std::int64_t sum = std::llround(std::log10(m) * 0x1p31L);
    if (sfOut >= 9) sum += std::int64_t(f * std::uint64_t(std::llround(c / m * 0x1p32L)) >> 32);
    if (sfOut >= 18) {
        const auto second = std::uint64_t(std::llround(c / (2 * m * m) * 0x1p32L));
        sum -= std::int64_t((f * f >> 32) * second >> 32);
    }
    const auto exponent = std::int64_t(std::floor((top + sfIn) * std::log10(2.0L) * 0x1p26L));
    const std::int64_t value = (sum >> 5) + (sum >> 4 & 1) + exponent;
    return std::int32_t(-value >> (26 - sfOut));
}

} // namespace oracle
