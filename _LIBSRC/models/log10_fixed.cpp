#include "models/log10_fixed.h"

#include "models/model.h"

#include <array>
#include <bit>
#include <cstdint>

namespace {

// A non-negative number with 32 integer bits and 128 fractional ones, for tables that are exact to the last
// bit whatever the compiler's floating point is. words[0] holds the integer part.
struct Precise {
    static constexpr int count = 5;
    std::uint32_t words[count]{};

    static Precise integer(std::uint32_t value) {
        Precise result;
        result.words[0] = value;
        return result;
    }
    Precise operator+(const Precise& other) const {
        Precise result;
        std::uint64_t carry = 0;
        for (int i = count - 1; i >= 0; --i) {
            carry += std::uint64_t(words[i]) + other.words[i];
            result.words[i] = std::uint32_t(carry);
            carry >>= 32;
        }
        return result;
    }
    Precise operator*(std::uint32_t factor) const {
        Precise result;
        std::uint64_t carry = 0;
        for (int i = count - 1; i >= 0; --i) {
            carry += std::uint64_t(words[i]) * factor;
            result.words[i] = std::uint32_t(carry);
            carry >>= 32;
        }
        return result;
    }
    Precise operator/(std::uint32_t divisor) const {
        Precise result;
        std::uint64_t rest = 0;
        for (int i = 0; i < count; ++i) {
            rest = rest << 32 | words[i];
            result.words[i] = std::uint32_t(rest / divisor);
            rest %= divisor;
        }
        return result;
    }
    // The product, for results below 2^32; what is lost below leaves 94 right fractional bits.
    Precise operator*(const Precise& other) const {
        Precise result, shifted = *this;
        for (std::uint32_t word : other.words) { // word i weighs 2^(-32 i)
            result = result + shifted * word;
            shifted = shifted.shiftedDown();
        }
        return result;
    }
    bool isZero() const {
        for (std::uint32_t word : words)
            if (word != 0) return false;
        return true;
    }
    // The nearest integer to this times 2^exponent, 0 <= exponent <= 64.
    std::uint64_t rounded(int exponent) const {
        const Precise half = Precise::integer(1) / 2;
        Precise scaled = *this;
        std::uint64_t above = 0; // bits that have left the integer word
        for (int i = 0; i < exponent; ++i) {
            above = above << 1 | scaled.words[0] >> 31;
            scaled = scaled * 2;
        }
        const Precise sum = scaled + half;
        const bool carried = sum.words[0] < scaled.words[0];
        return ((above + (carried ? 1 : 0)) << 32) | sum.words[0];
    }

private:
    Precise shiftedDown() const {
        Precise result;
        for (int i = count - 1; i > 0; --i)
            result.words[i] = words[i - 1];
        return result;
    }
};

// 2 atanh(1/m) = ln((m+1)/(m-1)), by its series.
Precise twiceAtanhOfReciprocal(std::uint32_t m) {
    Precise power = Precise::integer(2) / m, sum;
    for (std::uint32_t k = 1; !power.isZero(); k += 2) {
        sum = sum + power / k;
        power = power / m / m;
    }
    return sum;
}

const Precise ln2 = twiceAtanhOfReciprocal(3);
const Precise ln10 = ln2 * 3 + twiceAtanhOfReciprocal(9); // 10 = 8 * (10/8)

// 1/x for x in [1, 4), by Newton's iteration from 1/4: r <- r * (2 - x r), doubling the right bits each time.
Precise reciprocal(const Precise& x) {
    Precise r = Precise::integer(1) / 4;
    for (int i = 0; i < 12; ++i) {
        Precise rest = x * r; // below 2; its complement to 2:
        std::uint64_t carry = 1;
        for (int w = Precise::count - 1; w >= 0; --w) {
            const std::uint32_t two = w == 0 ? 2u : 0u;
            carry += std::uint64_t(two) + std::uint32_t(~rest.words[w]);
            rest.words[w] = std::uint32_t(carry);
            carry >>= 32;
        }
        r = r * rest;
    }
    return r;
}

const Precise log10OfE = reciprocal(ln10);
const Precise log10Of2 = ln2 * log10OfE;

// For the leading bits m = 1 + k/256 of a mantissa: its logarithm, and the factors of the Taylor series
// around it.
struct Tables {
    std::array<std::uint32_t, 256> logarithm; // log10(m) * 2^31
    std::array<std::uint32_t, 256> first;     // c/m * 2^32, c = log10(e)/2
    std::array<std::uint32_t, 256> second;    // c/(2 m^2) * 2^32
    std::array<std::uint32_t, 256> third;     // c/(3 m^3) * 2^32
    std::array<std::int64_t, 93> exponent;    // v * log10(2) * 2^58, v from -31
};

constexpr int lowestExponent = -31, highestExponent = 61;

Tables makeTables() {
    Tables tables{};
    Precise lnOfM; // ln((256 + k)/256), grown by ln((256 + k)/(255 + k)) from one k to the next
    for (std::uint32_t k = 0; k < 256; ++k) {
        if (k > 0) lnOfM = lnOfM + twiceAtanhOfReciprocal(2 * (256 + k) - 1);
        const Precise first = log10OfE / 2 * 256 / (256 + k);
        const Precise second = first * 256 / (256 + k);
        const Precise third = second * 256 / (256 + k);
        tables.logarithm[k] = std::uint32_t((lnOfM * log10OfE).rounded(31));
        tables.first[k] = std::uint32_t(first.rounded(32));
        tables.second[k] = std::uint32_t((second / 2).rounded(32));
        tables.third[k] = std::uint32_t((third / 3).rounded(32));
    }
    for (int v = lowestExponent; v <= highestExponent; ++v) {
        const auto magnitude = std::int64_t((log10Of2 * std::uint32_t(v < 0 ? -v : v)).rounded(58));
        tables.exponent[std::size_t(v - lowestExponent)] = v < 0 ? -magnitude : magnitude;
    }
    return tables;
}

const Tables tables = makeTables(); // when the module is loaded

std::uint32_t highWord(std::uint32_t a, std::uint32_t b) {
    return std::uint32_t((std::uint64_t(a) * b) >> 32);
}

// log10 of a mantissa 1.kf with 31 fractional bits: more terms of the series for more bits of output.
std::uint32_t mantissaLog(std::uint32_t bits, int sfOut) {
    const std::uint32_t k = bits >> 24, f = bits & 0xFFFFFF;
    std::uint32_t sum = tables.logarithm[k];
    if (sfOut >= 9) sum += highWord(f, tables.first[k]);
    if (sfOut >= 18) sum -= highWord(highWord(f, f), tables.second[k]);
    if (sfOut >= 25) sum += highWord(highWord(highWord(f, f), f), tables.third[k]);
    return sum;
}

std::int64_t exponentLog(std::int64_t exponent) {
    const std::int64_t bounded = exponent < lowestExponent    ? lowestExponent
                                 : exponent > highestExponent ? highestExponent
                                                              : exponent;
    return tables.exponent[std::size_t(bounded - lowestExponent)];
}

std::int32_t upperWord(std::int64_t value) {
    return std::int32_t(value >> 32);
}

std::int32_t coarse(std::uint32_t mantissa, std::int64_t exponent, int sfOut) {
    const std::uint32_t rounded = (mantissa >> 5) + (mantissa >> 4 & 1);
    const auto value = std::int32_t(rounded + std::uint32_t(upperWord(exponent))); // 26 fractional bits
    const std::int64_t shift = 26 - std::int64_t(sfOut);
    return std::int32_t(-std::int64_t(value) >> (shift > 63 ? 63 : shift));
}

std::int32_t fine(std::uint32_t mantissa, std::int64_t exponent, int sfOut) {
    const std::uint64_t sum = (std::uint64_t(mantissa) << 27) + std::uint64_t(exponent); // 58 fractional bits
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
