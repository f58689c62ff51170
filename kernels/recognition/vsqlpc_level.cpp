// Spectra of linear predictors and Durbin's recursion. The power spectrum is a product with a
// cosine and a sine table; symmetry lets one product serve bins k and n - k. The recursion is one
// long chain of dependent steps, so that its additions are arranged to keep that chain short.
#include "recognition/vsqlpc_level.h"
#include "simd/pack.h"

#include <cstddef>

namespace vsq::VSQ_LEVEL {
namespace {

using std::int16_t;
using std::int32_t;
using std::uint32_t;

// What differs between the numeric forms: the sums' type and how a response becomes a power.
struct FloatSums {
    using Element = float;
    using Sum = double;
    Sum one;

    template <int N>
    static VSQ_INLINE Pack<double, N> wide(const float* p) {
        return convert<double>(load<float, N>(p));
    }
    static VSQ_INLINE double wide(float v) { return v; }
    template <int N>
    VSQ_INLINE Pack<float, N> power(const Pack<double, N>& re, const Pack<double, N>& im) const {
        return convert<float>(re * re + im * im);
    }
};

struct FixedSums {
    using Element = short;
    using Sum = uint32_t; // unsigned, so that wrapping is defined
    Sum one;
    double unit;

    template <int N>
    static VSQ_INLINE Pack<uint32_t, N> wide(const short* p) {
        return bits<uint32_t>(convert<int32_t>(load<int16_t, N>(p)));
    }
    static VSQ_INLINE uint32_t wide(short v) {
        return static_cast<uint32_t>(static_cast<int32_t>(v));
    }
    template <int N>
    static VSQ_INLINE Pack<double, N> rounded(const Pack<uint32_t, N>& v) {
        return convert<double>(convert<float>(bits<int32_t>(v)));
    }
    template <int N>
    VSQ_INLINE Pack<float, N> power(const Pack<uint32_t, N>& re,
                                    const Pack<uint32_t, N>& im) const {
        const Pack<double, N> real = rounded(re), imaginary = rounded(im);
        return convert<float>((real * real + imaginary * imaginary) * splat<double, N>(unit));
    }
};

template <class V, int... I>
VSQ_INLINE V reversedVector(V v, std::integer_sequence<int, I...>) {
    return __builtin_shufflevector(v, v, (int(sizeof...(I)) - 1 - I)...);
}

template <int N>
VSQ_INLINE Pack<float, N> reversed(const Pack<float, N>& v) {
    if constexpr (isRegister<float, N>)
        return {reversedVector(v.r, std::make_integer_sequence<int, N>())};
    else
        return {reversed(v.hi), reversed(v.lo)};
}

// Powers at bins k to k + N - 1, and at their mirror images n - k - N + 1 to n - k, ascending.
// Cosines of even rows are the same at k and n - k and those of odd rows opposite, sines the other
// way round, so each product serves two bins.
template <int N, class Sums>
VSQ_INLINE void twoSides(const Sums& sums, const typename Sums::Element* table, int n,
                         const typename Sums::Element* coef, int nCoef, int k,
                         Pack<float, N>& power, Pack<float, N>& mirrored) {
    using Sum = typename Sums::Sum;
    auto evenRe = splat<Sum, N>(Sum(0)), oddRe = evenRe, evenIm = evenRe, oddIm = evenRe;
    const auto* row = table + k;
    const auto add = [&](int i, auto& re, auto& im) VSQ_LAMBDA {
        const auto factor = splat<Sum, N>(Sums::wide(coef[i]));
        re = re + Sums::template wide<N>(row) * factor;
        im = im + Sums::template wide<N>(row + n) * factor;
        row += 2 * std::ptrdiff_t(n);
    };
    int i = 0; // coef[0] belongs to the first, an odd row
    for (; i + 1 < nCoef; i += 2) {
        add(i, oddRe, oddIm);
        add(i + 1, evenRe, evenIm);
    }
    if (i < nCoef) add(i, oddRe, oddIm);
    const auto one = splat<Sum, N>(sums.one);
    power = sums.power(one - (evenRe + oddRe), evenIm + oddIm);
    mirrored = reversed(sums.power(one - (evenRe - oddRe), oddIm - evenIm));
}

// Bins 0 to n / 2 - 1 in blocks with their mirror images, of which bin n does not exist, and bin n
// / 2 alone. Lanes do not mix, so the number of them changes no result.
template <class Sums>
VSQ_INLINE void powerSpectrum(const Sums& sums, const typename Sums::Element* table, int n,
                              const typename Sums::Element* coef, int nCoef, float* power) {
    constexpr int lanes = registerBytes / 4;
    const int half = n / 2;
    int k = 0;
    if (half >= lanes)
        for (; k < half; k += lanes) {
            Pack<float, lanes> low, high;
            twoSides(sums, table, n, coef, nCoef, k, low, high);
            store(power + k, low);
            if (k > 0)
                store(power + n - k - lanes + 1, high);
            else
                storePart(power + n - lanes + 1, high, lanes - 1);
        }
    for (; k <= half && k < n; ++k) {
        Pack<float, 1> low, high;
        twoSides(sums, table, n, coef, nCoef, k, low, high);
        if (k > 0) store(power + n - k, high); // bin n / 2 is its own image
        store(power + k, low);
    }
}

void powerFloat(const float* table, int n, const float* coef, int nCoef, float* power) {
    powerSpectrum(FloatSums{1.0}, table, n, coef, nCoef, power);
}

void powerFixed(const short* table, int n, const short* coef, int nCoef, unsigned one, double unit,
                float* power) {
    powerSpectrum(FixedSums{one, unit}, table, n, coef, nCoef, power);
}

// --- Durbin's recursion ---

// What each order of the recursion waits for: numerator and denominator of its reflection
// coefficient. They are divided, and not multiplied by a reciprocal: of equal ones the quotient is
// exactly 1, and the next error exactly 0.
struct Pending {
    double numerator;
    double error;
};

// The reflection coefficient, and in `pending` the next order's error; no value where its magnitude
// is above 1: the recursion has lost stability. Comparisons with NaN do not show that.
VSQ_INLINE bool reflect(Pending& pending, double& k, float& error) {
    k = pending.numerator / pending.error;
    if (__builtin_fabs(k) > 1.0) return false;
    error = static_cast<float>((1.0 - k * k) * pending.error);
    pending.error = error;
    return true;
}

template <int n>
VSQ_INLINE double sumAsTree(const double* values) {
    if constexpr (n == 1)
        return values[0];
    else
        return sumAsTree<n / 2>(values) + sumAsTree<n - n / 2>(values + n / 2);
}

// The usual orders are written out, so that predictor and products stay in registers and the
// products add up as a tree: the recursion is one long chain of waiting, and each addition in it
// counts.
constexpr int unrolledOrders = 16;

// Order i: the predictor a[1] to a[i], each rounded to float, and the next numerator.
template <int i>
VSQ_INLINE bool nextOrder(const double* r, double* a, float* e, Pending& pending) {
    double k;
    if (!reflect(pending, k, e[i])) return false;
    double products[i];
#pragma GCC unroll 16
    for (int j = 1; 2 * j < i; ++j) {
        const double lower = a[j], upper = a[i - j];
        a[j] = static_cast<float>(lower - upper * k);
        a[i - j] = static_cast<float>(upper - lower * k);
        products[2 * j - 2] = a[j] * r[i + 1 - j];
        products[2 * j - 1] = a[i - j] * r[j + 1];
    }
    if constexpr (i % 2 == 0) {
        a[i / 2] = static_cast<float>((1.0 - k) * a[i / 2]);
        products[i - 2] = a[i / 2] * r[i / 2 + 1];
    }
    a[i] = static_cast<float>(k);
    products[i - 1] = a[i] * r[1];
    pending.numerator = r[i + 1] - sumAsTree<i>(products);
    return true;
}

template <int i>
VSQ_INLINE bool ordersFrom(const double* r, double* a, float* e, Pending& pending, int order) {
    if (!nextOrder<i>(r, a, e, pending)) return false;
    if constexpr (i < unrolledOrders)
        return i == order || ordersFrom<i + 1>(r, a, e, pending, order);
    else
        return true;
}

// The orders from unrolledOrders + 1 on.
VSQ_INLINE bool longOrders(const float* r, float* e, float* a, Pending& pending, int order) {
    for (int i = unrolledOrders + 1; i <= order; ++i) {
        double k;
        if (!reflect(pending, k, e[i])) return false;
        a[i] = static_cast<float>(k);
        for (int j = 1; 2 * j < i; ++j) {
            const double lower = a[j], upper = a[i - j];
            a[j] = static_cast<float>(lower - upper * k);
            a[i - j] = static_cast<float>(upper - lower * k);
        }
        if (i % 2 == 0) a[i / 2] = static_cast<float>((1.0 - k) * a[i / 2]);
        double sum = 0;
        for (int j = 1; j <= i && i < order; ++j)
            sum += static_cast<double>(a[j]) * r[i + 1 - j];
        if (i < order) pending.numerator = r[i + 1] - sum;
    }
    return true;
}

// r and e have order + 1 elements, a too, its first unused. False when the recursion has lost
// stability.
bool durbin(const float* r, float* e, float* a, int order) {
    e[0] = r[0];
    if (order < 1) return true;
    double lags[unrolledOrders + 2], predictor[unrolledOrders + 1];
    for (int i = 0; i < unrolledOrders + 2; ++i)
        lags[i] = i <= order ? r[i] : 0.0f;
    Pending pending{lags[1], lags[0]};
    if (!ordersFrom<1>(lags, predictor, e, pending, order)) return false;
    for (int i = 1; i <= order && i <= unrolledOrders; ++i)
        a[i] = static_cast<float>(predictor[i]);
    return longOrders(r, e, a, pending, order);
}

} // namespace

extern const LpcKernels lpcKernels{
    .powerFloat = powerFloat,
    .powerFixed = powerFixed,
    .durbin = durbin,
};

} // namespace vsq::VSQ_LEVEL
