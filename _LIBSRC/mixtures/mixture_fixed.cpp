// The fixed exponential and the 64-bit dot product of the fixed mixtures.
#include "mixtures/KT_GAUSS.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>

namespace {

// --- tables ---
//
// Worked out by the compiler in 128 fractional bits from the series of e^x, so that every entry is the exact
// floor or nearest integer of its rule.

// A number from 0 to 2^32, little end first: four words of fraction and one of integer part.
struct Precise {
    static constexpr int words = 5;
    std::array<std::uint32_t, words> word{};

    constexpr std::uint32_t integer() const { return word[words - 1]; }
    constexpr std::uint32_t fraction() const { return word[words - 2]; } // the first 32 fractional bits
};

constexpr Precise one() {
    Precise value;
    value.word[Precise::words - 1] = 1;
    return value;
}

constexpr Precise sum(const Precise& a, const Precise& b) {
    Precise result;
    std::uint64_t carry = 0;
    for (int i = 0; i < Precise::words; ++i) {
        carry += std::uint64_t(a.word[std::size_t(i)]) + b.word[std::size_t(i)];
        result.word[std::size_t(i)] = std::uint32_t(carry);
        carry >>= 32;
    }
    return result;
}

constexpr Precise quotient(const Precise& a, std::uint32_t divisor) {
    Precise result;
    std::uint64_t rest = 0;
    for (int i = Precise::words - 1; i >= 0; --i) {
        rest = rest << 32 | a.word[std::size_t(i)];
        result.word[std::size_t(i)] = std::uint32_t(rest / divisor);
        rest %= divisor;
    }
    return result;
}

constexpr Precise product(const Precise& a, const Precise& b) {
    std::array<std::uint32_t, 2 * Precise::words> full{};
    for (std::size_t i = 0; i < Precise::words; ++i) {
        std::uint64_t carry = 0;
        for (std::size_t j = 0; j < Precise::words; ++j) {
            carry += std::uint64_t(a.word[i]) * b.word[j] + full[i + j];
            full[i + j] = std::uint32_t(carry);
            carry >>= 32;
        }
        full[i + Precise::words] = std::uint32_t(carry);
    }
    Precise result;
    for (std::size_t i = 0; i < Precise::words; ++i)
        result.word[i] = full[i + Precise::words - 1];
    return result;
}

// e^(1/divisor) by its series.
constexpr Precise exponential(std::uint32_t divisor) {
    Precise term = one(), total = one();
    for (std::uint32_t k = 1; k < 40; ++k) {
        term = quotient(term, divisor * k);
        total = sum(total, term);
    }
    return total;
}

// 1/e: the same series with alternating signs, the two halves summed apart.
constexpr Precise reciprocalOfE() {
    Precise term = one(), even = one(), odd;
    for (std::uint32_t k = 1; k < 40; ++k) {
        term = quotient(term, k);
        (k % 2 == 0 ? even : odd) = sum(k % 2 == 0 ? even : odd, term);
    }
    Precise complement; // -odd
    for (std::size_t i = 0; i < Precise::words; ++i)
        complement.word[i] = ~odd.word[i];
    Precise unit;
    unit.word[0] = 1;
    return sum(even, sum(complement, unit));
}

constexpr int deepest = 22; // integer exponents below -22 give 0, above 21 saturate

// floor(1024 * e^(i/1024))
constexpr auto makeExpFrac() {
    std::array<std::uint32_t, 1024> table{};
    const Precise step = exponential(1024);
    Precise value = one();
    for (std::uint32_t& entry : table) {
        entry = value.integer() << 10 | value.fraction() >> 22;
        value = product(value, step);
    }
    return table;
}

// floor(e^n * 2^31) for n of -22 to -1 at [n + 23]. The entry before them, for all that lies below, is 0, and
// so is the first, which makes everything below e^-21 vanish.
constexpr auto makeExpNeg() {
    std::array<std::uint32_t, deepest + 1> table{};
    const Precise step = reciprocalOfE();
    Precise value = one();
    for (int i = deepest; i > 0; --i) {
        value = product(value, step);
        table[std::size_t(i)] = value.fraction() >> 1;
    }
    return table;
}

// e^n * 2^21, rounded to nearest, in two words: what lies above bit 21, and the low 21 bits.
struct Halves {
    std::uint32_t high;
    std::uint32_t low;
};
constexpr auto makeExpPos() {
    std::array<Halves, deepest> table{};
    const Precise step = exponential(1);
    Precise value = one();
    for (Halves& entry : table) {
        const std::uint64_t halfBit = std::uint64_t(value.integer()) << 22 | value.fraction() >> 10;
        const std::uint64_t rounded = (halfBit + 1) >> 1;
        entry = {std::uint32_t(rounded >> 21), std::uint32_t(rounded & 0x1FFFFF)};
        value = product(value, step);
    }
    return table;
}

constexpr auto expFrac = makeExpFrac();
constexpr auto expNeg = makeExpNeg();
constexpr auto expPos = makeExpPos();
static_assert(expFrac[0] == 1024 && expFrac[1023] == 2780 && expNeg[0] == 0 && expNeg[1] == 0 &&
              expPos[0].high == 1 && expPos[0].low == 0);

constexpr int largest = 0x7FFFFFFF;

// e^(n + r/1024) for negative n. expNeg has 31 fractional bits and expFrac 10; an r of 0 leaves expNeg as it
// is.
int expBelowOne(int n, unsigned r, int nOutFracBits) {
    const std::uint32_t whole = expNeg[std::size_t(std::max(n + deepest + 1, 0))];
    return int(std::uint64_t(whole) * expFrac[r] >> (41 - nOutFracBits));
}

// The same for n of 0 and above. expFrac has 10 fractional bits and expPos 21, so the product has 31; for n
// of 21 and r below 499 it stays under 2^63.
int expAboveOne(int n, unsigned r, int nOutFracBits) {
    if (n > 21 || (n == 21 && r >= 499)) return largest;
    const Halves& whole = expPos[std::size_t(n)];
    const std::uint64_t value =
        std::uint64_t(expFrac[r]) * whole.low + (std::uint64_t(expFrac[r]) * whole.high << 21);
    const std::uint32_t limit = nOutFracBits < 31 ? std::uint32_t(largest) >> (nOutFracBits + 1) : 0;
    if (value >> 32 > limit) return largest;
    return int(std::uint32_t(value >> (31 - nOutFracBits)));
}

// --- the dot product's scale modes ---

int lowWord(std::int64_t value) {
    return int(std::uint32_t(std::uint64_t(value)));
}

int fixedScale(std::int64_t sum, int scale) {
    if (scale >= 34) return sum < 0 ? -1 : 0;
    if (scale >= 2) return int(sum >> 32) >> (scale - 2);
    if (scale >= -30) return lowWord(sum >> (scale + 30));
    if (scale >= -61) return int(std::uint32_t(std::uint64_t(sum)) << -(scale + 30));
    return 0;
}

// The top bit of |sum| comes to bit 29; a sum that has none above it stays as it is.
int autoScale(std::int64_t sum, int* pScale) {
    const std::uint64_t magnitude = sum < 0 ? 0 - std::uint64_t(sum) : std::uint64_t(sum);
    const int shift = std::max(int(std::bit_width(magnitude)) - 30, 0);
    *pScale = shift - 30;
    return lowWord(sum >> shift);
}

int saturate(std::int64_t sum) {
    const auto high = int(sum >> 32);
    if (high >= 0x1FFFFFFF) return largest;
    if (high <= -0x20000000) return -largest - 1;
    return lowWord(sum >> 30);
}

} // namespace

static inline int fixedExponential(int value, int nFracBits, int nOutFracBits) {
    const int n = value >> std::min(nFracBits, 31);
    const unsigned r = nFracBits >= 10 ? unsigned(value >> std::min(nFracBits - 10, 31)) & 1023
                                       : unsigned(value) << (10 - nFracBits) & 1023;
    return n < 0 ? expBelowOne(n, r, nOutFracBits) : expAboveOne(n, r, nOutFracBits);
}

int KTexpFix(int value, int nFracBits, int nOutFracBits) {
    return fixedExponential(value, nFracBits, nOutFracBits);
}

void ktl::gauss::fixedDensities(int* forms, const short* weights, int nMix, int scale) {
    const ExponentPlan plan = planExponent(scale);
    for (int k = 0; k < nMix; ++k)
        forms[k] = weights[k] != 0 ? fixedExponential(exponentOf(forms[k], plan.shift), plan.frac, 30) : 0;
}

int KTwDotMix(const int* pValues, const short* pWeights, int nMix, int scaleMode, int* pScale) {
    if (nMix < 2) return 0;
    int unscaled = 0;
    if (pScale == nullptr) pScale = &unscaled;
    std::uint64_t wrapped =
        0; // exact: below 131,072 mixtures no sum of a 32-bit by a 16-bit value reaches 2^63
    for (int k = 0; k < nMix; ++k)
        wrapped += std::uint64_t(std::int64_t(pValues[k]) * pWeights[k]);
    const auto sum = std::int64_t(wrapped);
    if (scaleMode == KT_FixedScale) return fixedScale(sum, *pScale);
    if (scaleMode == KT_AutoScale) return autoScale(sum, pScale);
    *pScale = 0;
    return scaleMode == KT_NoScale ? lowWord(sum >> 30) : saturate(sum);
}
