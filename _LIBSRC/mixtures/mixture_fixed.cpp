// The fixed exponential and the 64-bit dot product of the fixed mixtures.
#include "frame/numeric.h"
#include "mixtures/KT_GAUSS.h"
#include "mixtures/exponential_fixed_table.h"

#include <algorithm>
#include <bit>
#include <cstdint>

namespace {

using namespace ktl::exponential_table;

constexpr int largest = 0x7FFFFFFF;

// e^(n + r/1024) for negative n. expNeg has 31 fractional bits and expFrac 10; an r of 0 leaves
// expNeg as it is.
int expBelowOne(int n, unsigned r, int nOutFracBits) {
    const std::uint32_t whole = expNeg[std::size_t(std::max(n + deepest + 1, 0))];
    return int(std::uint64_t(whole) * expFrac[r] >> (41 - nOutFracBits));
}

// The same for n of 0 and above. expFrac has 10 fractional bits and expPos 21, so the product has
// 31; for n of 21 and r below 499 it stays under 2^63.
int expAboveOne(int n, unsigned r, int nOutFracBits) {
    if (n > 21 || (n == 21 && r >= 499)) return largest;
    const std::uint64_t value = std::uint64_t(expFrac[r]) * expPosLow[n] +
                                (std::uint64_t(expFrac[r]) * expPosHigh[n] << 21);
    const std::uint32_t limit =
        nOutFracBits < 31 ? std::uint32_t(largest) >> (nOutFracBits + 1) : 0;
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
        forms[k] =
            weights[k] != 0 ? fixedExponential(exponentOf(forms[k], plan.shift), plan.frac, 30) : 0;
}

int KTwDotMix(const int* pValues, const short* pWeights, int nMix, int scaleMode, int* pScale) {
    if (nMix < 2) return 0;
    const ktl::CallScale scale(pScale);
    std::uint64_t wrapped =
        0; // exact: below 131,072 mixtures no sum of a 32-bit by a 16-bit value reaches 2^63
    for (int k = 0; k < nMix; ++k)
        wrapped += std::uint64_t(std::int64_t(pValues[k]) * pWeights[k]);
    const auto sum = std::int64_t(wrapped);
    if (scaleMode == KT_FixedScale) return fixedScale(sum, *scale);
    if (scaleMode == KT_AutoScale) return autoScale(sum, scale.get());
    *scale = 0;
    return scaleMode == KT_NoScale ? lowWord(sum >> 30) : saturate(sum);
}
