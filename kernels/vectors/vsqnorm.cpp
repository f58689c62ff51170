// Norms, float and fixed.
//
// Fixed norms. Accumulators are 64-bit integers and hold every sum exactly: 2^31 squares of 17-bit
// differences stay below 2^63. Roots and quotients are truncated; nothing wraps; the 32-bit result
// saturates.
#include "context/vsqcontext.h"
#include "levels/levels.h"

#include <cmath>

namespace {

constexpr vsq::Module module{"vsqnorm"};

constexpr double smallestNormal = 1.1754943508222875e-38;
constexpr double largestFloat = 3.4028234663852886e+38;
constexpr int intMax = 0x7FFFFFFF;

bool isNorm(int flags) {
    const int norm = flags & ~VSQ_NormRelative;
    return norm == VSQ_NormMax || norm == VSQ_NormSum || norm == VSQ_NormRoot ||
           norm == VSQ_NormSquares;
}

bool isRefused(const void* a, int n, int flags, const char* funcName = __builtin_FUNCTION()) {
    return module.refuses(n <= 0, "n<=0", funcName) ||
           module.refuses(a == nullptr, "srcA==0", funcName) ||
           module.refuses(!isNorm(flags), "flag is wrong", funcName);
}

bool isRelative(int flags) {
    return (flags & VSQ_NormRelative) != 0;
}
bool hasRoot(int flags) {
    return (flags & VSQ_NormRoot) != 0;
}

// The sum under the norm, of a or of a - b.
double sumUnder(const float* a, const float* b, int n, int flags) {
    const vsq::NormKernels& kernels = *vsq::kernels().norm;
    if (flags & VSQ_NormMax) return kernels.largestFloat(a, b, n);
    return (flags & VSQ_NormSum ? kernels.sumFloat : kernels.squaresFloat)(a, b, n);
}

std::int64_t sumUnder(const short* a, const short* b, int n, int flags) {
    const vsq::NormKernels& kernels = *vsq::kernels().norm;
    if (flags & VSQ_NormMax) return kernels.largestFixed(a, b, n);
    return (flags & VSQ_NormSum ? kernels.sumFixed : kernels.squaresFixed)(a, b, n);
}

// The square root, truncated; value below 2^63. The double root is off by one at most, where value
// has more than 53 bits.
std::int64_t integerRoot(std::int64_t value) {
    auto root = std::uint64_t(std::sqrt(double(value)));
    while (root * root > std::uint64_t(value))
        --root;
    while ((root + 1) * (root + 1) <= std::uint64_t(value))
        ++root;
    return std::int64_t(root);
}

// numerator / denominator * 2^bits, truncated, or something above 2^62 if it is above that; both
// operands from 1 to 2^63 - 1. Long division, since the product may need more than 64 bits; it ends
// after 126 steps at most.
std::int64_t scaledQuotient(std::int64_t numerator, std::int64_t denominator, int bits) {
    const auto divisor = std::uint64_t(denominator);
    std::uint64_t quotient = std::uint64_t(numerator) / divisor,
                  rest = std::uint64_t(numerator) % divisor;
    for (; bits > 0 && quotient <= std::uint64_t(INT64_MAX) / 2; --bits) {
        rest *= 2;
        const bool bit = rest >= divisor;
        quotient = 2 * quotient + bit;
        rest -= bit ? divisor : 0;
    }
    return std::int64_t(quotient);
}

// value * 2^bits, truncated, or something above 2^62 if it is above that; value 0 or more.
std::int64_t scaled(std::int64_t value, int bits) {
    if (bits < 0) return bits > -63 ? value >> -bits : 0;
    for (; bits > 0 && value != 0 && value <= INT64_MAX / 2; --bits)
        value *= 2;
    return value;
}

// The norm * 2^bits, truncated; what does not fit in 32 bits comes out larger than these hold.
std::int64_t scaledNorm(const short* a, const short* b, int n, int flags, int bits) {
    const bool isQuotient = isRelative(flags) && b != nullptr;
    const std::int64_t sum = isRelative(flags) && b == nullptr ? 1 : sumUnder(a, b, n, flags);
    if (!isQuotient) return scaled(hasRoot(flags) ? integerRoot(sum) : sum, bits);
    const std::int64_t base = sumUnder(a, nullptr, n, flags);
    if (sum == 0) return 0;
    if (base == 0) return intMax;
    // a right shift of the truncated quotient truncates the same
    const int leftBits = bits < 0 ? 0 : bits;
    std::int64_t quotient = scaledQuotient(sum, base, hasRoot(flags) ? 2 * leftBits : leftBits);
    quotient = hasRoot(flags) ? integerRoot(quotient) : quotient;
    return scaled(quotient, bits - leftBits);
}

// A scale factor as a left shift, held where every norm has long become 0 or saturated.
int leftShiftOf(int scaleFactor) {
    constexpr int most = 200;
    return scaleFactor > most ? -most : scaleFactor < -most ? most : -scaleFactor;
}

int saturated(std::int64_t value) {
    return value > intMax ? intMax : int(value);
}

// The right shift under which the value fits in 32 bits.
int fittingShift(std::int64_t value) {
    int shift = 0;
    while (value >> shift > intMax)
        ++shift;
    return shift;
}

} // namespace

double vsqsNorm(const float* a, const float* b, int n, int flags) {
    if (isRefused(a, n, flags)) return 0.0;
    if (isRelative(flags) && b == nullptr) return 1.0;
    double norm = sumUnder(a, b, n, flags);
    if (isRelative(flags)) {
        const double base = sumUnder(a, nullptr, n, flags);
        if (norm < smallestNormal) return 0.0;
        if (base < smallestNormal) return largestFloat;
        norm /= base;
    }
    return hasRoot(flags) ? std::sqrt(norm) : norm;
}

int vsqwNorm(const short* a, const short* b, int n, int flags) {
    if (isRefused(a, n, flags)) return 0;
    return saturated(scaledNorm(a, b, n, flags, 0));
}

int vsqwNormExt(const short* a, const short* b, int n, int flags, int scaleMode, int* scaleFactor) {
    const bool isFixed = (scaleMode & VSQ_FIXED_SCALE) != 0,
               isAuto = (scaleMode & VSQ_AUTO_SCALE) != 0;
    if (isRefused(a, n, flags) ||
        module.refuses(isFixed && isAuto,
                       "scaleMode & VSQ_FIXED_SCALE && scaleMode & VSQ_AUTO_SCALE") ||
        module.refuses(isFixed && scaleFactor == nullptr,
                       "scaleMode & VSQ_FIXED_SCALE && (scaleFactor==NULL)") ||
        module.refuses(isAuto && scaleFactor == nullptr,
                       "scaleMode & VSQ_AUTO_SCALE && scaleFactor==NULL"))
        return 0;
    if (isFixed) return saturated(scaledNorm(a, b, n, flags, leftShiftOf(*scaleFactor)));
    const std::int64_t norm = scaledNorm(a, b, n, flags, 0);
    if (!isAuto) return saturated(norm);
    *scaleFactor = fittingShift(norm);
    return int(norm >> *scaleFactor);
}
