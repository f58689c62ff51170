// Plain references for the mixtures: one loop each, in double or in exact integers. Includes
// nothing of the library.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

namespace oracle {

using Vector = std::vector<double>;
using Matrix = std::vector<Vector>;

inline double diagonalForm(const Vector& x, const Vector& m, const Vector& c) {
    double q = 0;
    for (std::size_t i = 0; i < x.size(); ++i)
        q += c[i] * (x[i] - m[i]) * (x[i] - m[i]);
    return q;
}

inline double fullForm(const Vector& x, const Vector& m, const Matrix& c) {
    double q = 0;
    for (std::size_t i = 0; i < x.size(); ++i)
        for (std::size_t j = 0; j < x.size(); ++j)
            q += c[i][j] * (x[i] - m[i]) * (x[j] - m[j]);
    return q;
}

// The sum of d*d*c in wrapping 32-bit arithmetic.
inline std::int32_t wrappingForm(const std::vector<short>& x, const std::vector<short>& m,
                                 const std::vector<short>& c) {
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < x.size(); ++i) {
        const std::int64_t d = std::int64_t(x[i]) - m[i];
        sum += std::uint64_t(d * d * c[i]); // below 2^49, exact
    }
    return std::int32_t(std::uint32_t(sum & 0xFFFFFFFFu));
}

// Inverse and determinant by elimination with complete pivoting in long double; empty for a
// singular matrix.
inline Matrix inverse(const Matrix& a, double* determinant = nullptr) {
    const std::size_t n = a.size();
    std::vector<std::vector<long double>> w(n, std::vector<long double>(2 * n, 0));
    for (std::size_t i = 0; i < n; ++i) {
        for (std::size_t j = 0; j < n; ++j)
            w[i][j] = a[i][j];
        w[i][n + i] = 1;
    }
    long double det = 1;
    for (std::size_t k = 0; k < n; ++k) {
        std::size_t best = k;
        for (std::size_t i = k; i < n; ++i)
            if (std::fabs(w[i][k]) > std::fabs(w[best][k])) best = i;
        if (w[best][k] == 0) return {};
        if (best != k) {
            std::swap(w[best], w[k]);
            det = -det;
        }
        det *= w[k][k];
        const long double pivot = w[k][k];
        for (long double& v : w[k])
            v /= pivot;
        for (std::size_t i = 0; i < n; ++i) {
            const long double f = w[i][k];
            for (std::size_t j = 0; i != k && j < 2 * n; ++j)
                w[i][j] -= w[k][j] * f;
        }
    }
    if (determinant != nullptr) *determinant = double(det);
    Matrix result(n, Vector(n));
    for (std::size_t i = 0; i < n; ++i)
        for (std::size_t j = 0; j < n; ++j)
            result[i][j] = double(w[i][n + j]);
    return result;
}

// Mean and unbiased covariance in two passes.
inline Vector mean(const Matrix& data) {
    Vector m(data[0].size(), 0.0);
    for (const Vector& x : data)
        for (std::size_t i = 0; i < m.size(); ++i)
            m[i] += x[i] / double(data.size());
    return m;
}
inline Matrix covariance(const Matrix& data) {
    const Vector m = mean(data);
    Matrix c(m.size(), Vector(m.size(), 0.0));
    for (const Vector& x : data)
        for (std::size_t i = 0; i < m.size(); ++i)
            for (std::size_t j = 0; j < m.size(); ++j)
                c[i][j] += (x[i] - m[i]) * (x[j] - m[j]) / double(data.size() - 1);
    return c;
}

// Integers of any length in two's complement, as bits, little end first; bit() goes on with the
// sign for ever.
class BigInt {
public:
    BigInt() = default;
    BigInt(std::int64_t value) { // NOLINT: a number is a number
        for (int i = 0; i < 64; ++i)
            bits.push_back((value >> i) & 1);
    }
    bool bit(long i) const {
        if (i < 0) return false;
        if (std::size_t(i) < bits.size()) return bits[std::size_t(i)];
        return !bits.empty() && bits.back();
    }
    bool negative() const { return !bits.empty() && bits.back(); }
    BigInt plus(const BigInt& other) const {
        const std::size_t length = std::max(bits.size(), other.bits.size()) + 1;
        BigInt sum;
        bool carry = false;
        for (std::size_t i = 0; i < length; ++i) {
            const int total = bit(long(i)) + other.bit(long(i)) + carry;
            sum.bits.push_back(total & 1);
            carry = total > 1;
        }
        return sum;
    }
    BigInt shifted(long left) const { // multiplied by 2^left, rounded down
        BigInt result;
        for (long i = 0; i < long(bits.size()) + (left > 0 ? left : 0) + 1; ++i)
            result.bits.push_back(bit(i - left));
        return result;
    }
    BigInt negated() const {
        BigInt result;
        for (std::size_t i = 0; i <= bits.size(); ++i)
            result.bits.push_back(!bit(long(i)));
        return result.plus(BigInt(1));
    }
    BigInt times(std::int64_t factor) const {
        BigInt result(0);
        const BigInt self = factor < 0 ? negated() : *this;
        for (std::uint64_t f = factor < 0 ? 0 - std::uint64_t(factor) : std::uint64_t(factor),
                           i = 0;
             f >> i != 0; ++i)
            if (f >> i & 1) result = result.plus(self.shifted(long(i)));
        return result;
    }
    bool lessThan(const BigInt& other) const { return plus(other.negated()).negative(); }
    int topBit() const { // of a value that is not negative; -1 for zero
        for (long i = long(bits.size()); i-- > 0;)
            if (bits[std::size_t(i)]) return int(i);
        return -1;
    }
    std::int32_t low32() const {
        std::uint32_t word = 0;
        for (int i = 0; i < 32; ++i)
            word |= std::uint32_t(bit(i)) << i;
        return std::int32_t(word);
    }

private:
    std::vector<bool> bits;
};

// The mixed dot product, rule by rule. `scale` is left alone where the rule says unchanged.
inline std::int32_t dotMix(const std::vector<std::int32_t>& values,
                           const std::vector<short>& weights, int mode, int& scale) {
    BigInt sum(0);
    for (std::size_t k = 0; k < values.size(); ++k)
        sum = sum.plus(BigInt(values[k]).times(weights[k]));
    const std::int32_t high = sum.shifted(-32).low32();
    if (mode == 1) {
        const long s = scale;
        if (s >= 34) return sum.negative() ? -1 : 0;
        if (s >= 2) return BigInt(high).shifted(-(s - 2)).low32();
        if (s >= -30) return sum.shifted(-(s + 30)).low32();
        if (s >= -61) return BigInt(sum.low32()).shifted(-(s + 30)).low32();
        return 0;
    }
    if (mode == 2) {
        const int top = (sum.negative() ? sum.negated() : sum).topBit();
        const int m = top - 32;
        if (m >= 0)
            scale = m - 27;
        else
            scale = top > 29 ? top - 59 : -30;
        return sum.shifted(-(scale + 30)).low32();
    }
    scale = 0;
    if (mode == 0) return sum.shifted(-30).low32();
    if (high >= 0x1FFFFFFF) return 0x7FFFFFFF;
    if (high <= -0x20000000) return INT32_MIN;
    return sum.shifted(-30).low32();
}

// floor or nearest integer of a value known to long double precision; `safe` says whether the value
// is so far from the next boundary that its error can't matter.
inline std::int64_t floorOf(long double value, bool& safe) {
    const long double down = std::floor(value);
    const long double error = std::fabs(value) * 4 * std::numeric_limits<long double>::epsilon();
    safe = value == down || (value - down > error && down + 1 - value > error);
    return std::int64_t(down);
}

// The fixed exponential, rule by rule, from tables by the C library.
inline std::int32_t expFix(std::int32_t x, int f, int o) {
    bool safe = true;
    const BigInt wide(x);
    const std::int32_t n = wide.shifted(-f).low32();
    BigInt fraction(0);
    for (int i = 0; i < f; ++i)
        fraction = fraction.plus(BigInt(wide.bit(i)).shifted(i));
    const std::int32_t r = fraction.shifted(10 - f).low32();
    const std::int64_t frac = floorOf(1024.0L * std::exp((long double)r / 1024), safe);
    if (n < 0) {
        if (n < -22 || (n == -22 && r < 0x211)) return 0;
        const std::int64_t whole = floorOf(std::exp((long double)n) * 0x1p31L, safe);
        if (r == 0) return BigInt(whole).shifted(-(31 - o)).low32();
        return BigInt(whole).times(frac).shifted(-(41 - o)).low32();
    }
    if (n > 21 || (n == 21 && r >= 499)) return 0x7FFFFFFF;
    const std::int64_t whole = floorOf(std::exp((long double)n) * 0x1p21L + 0.5L, safe);
    const BigInt value = BigInt(whole).times(frac);
    if (BigInt(std::int64_t(0x7FFFFFFF) >> (o + 1)).lessThan(value.shifted(-32))) return 0x7FFFFFFF;
    return value.shifted(-(31 - o)).low32();
}

} // namespace oracle
