// The fixed-point logarithm of path evaluation: table look-ups by exponent and leading mantissa
// bits, and as many terms of the Taylor series as the wanted output bits need.
#include "models/log10_fixed.h"

#include "models/log10_fixed_table.h"
#include "models/model.h"

#include <algorithm>
#include <bit>
#include <cstdint>

namespace {

namespace table = ktl::log10_table;

std::uint32_t highWord(std::uint32_t a, std::uint32_t b) {
    return std::uint32_t((std::uint64_t(a) * b) >> 32);
}

// log10 of a mantissa 1.kf with 31 fractional bits: more terms of the series for more bits of
// output.
std::uint32_t mantissaLog(std::uint32_t bits, int sfOut) {
    const std::uint32_t k = bits >> 24, f = bits & 0xFFFFFF;
    std::uint32_t sum = table::logarithm[k];
    if (sfOut >= 9) sum += highWord(f, table::first[k]);
    if (sfOut >= 18) sum -= highWord(highWord(f, f), table::second[k]);
    if (sfOut >= 25) sum += highWord(highWord(highWord(f, f), f), table::third[k]);
    return sum;
}

std::int64_t exponentLog(std::int64_t exponent) {
    const std::int64_t bounded =
        std::clamp<std::int64_t>(exponent, table::lowestExponent, table::highestExponent);
    return table::exponent[std::size_t(bounded - table::lowestExponent)];
}

std::int32_t upperWord(std::int64_t value) {
    return std::int32_t(value >> 32);
}

std::int32_t coarse(std::uint32_t mantissa, std::int64_t exponent, int sfOut) {
    const std::uint32_t rounded = (mantissa >> 5) + (mantissa >> 4 & 1);
    // 26 fractional bits
    const auto value = std::int32_t(rounded + std::uint32_t(upperWord(exponent)));
    const std::int64_t shift = 26 - std::int64_t(sfOut);
    return std::int32_t(-std::int64_t(value) >> (shift > 63 ? 63 : shift));
}

std::int32_t fine(std::uint32_t mantissa, std::int64_t exponent, int sfOut) {
    // 58 fractional bits
    const std::uint64_t sum = (std::uint64_t(mantissa) << 27) + std::uint64_t(exponent);
    if (sfOut == 25) return upperWord(std::int64_t(sum)) >> 1;
    const int shift = sfOut - 26;
    return upperWord(std::int64_t(shift > 63 ? 0 : sum << shift));
}

int log10Scaled(int x, int sfIn, int sfOut) {
    if (x <= 0) return HMM_LOG_ZERO;
    const auto value = static_cast<std::uint32_t>(x);
    const int top = 31 - std::countl_zero(value);
    const std::uint32_t bits =
        value << ((32 - top) & 31); // the leading 1 falls off; a shift of 32 is one of 0
    const std::int64_t exponent = exponentLog(std::int64_t(top) + sfIn);
    const std::uint32_t mantissa = mantissaLog(bits, sfOut);
    return sfOut < 25 ? coarse(mantissa, exponent, sfOut) : fine(mantissa, exponent, sfOut);
}

} // namespace

void ownwLog10Scaled(int* vector, int n, int sfIn, int sfOut) {
    for (int i = n - 1; i >= 0; --i)
        vector[i] = log10Scaled(vector[i], sfIn, sfOut);
}
