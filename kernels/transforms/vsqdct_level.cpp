// The cosine transform's loops: products with the two half-size matrices of the direct method, and
// the steps before and after the Fourier transform of the other one.
#include "transforms/vsqdct_level.h"
#include "simd/shuffle.h"

#include <cstddef>

namespace vsq::VSQ_LEVEL {
namespace {

using Lanes = Pack<float, 16>;

constexpr int rowLanes = dctRow;
constexpr int mostTerms = dctDirectLimit / 2 + rowLanes; // whole rows

// The first `lanes` of 16 results: result l is the sum over i of matrix[16 i + l] * x[i]. Four
// running sums, i modulo 4, hide the additions' latency.
template <int lanes>
VSQ_INLINE Pack<float, lanes> products(const float* matrix, const float* x, int terms) {
    Pack<float, lanes> sums[4];
    for (auto& sum : sums)
        sum = splat<float, lanes>(0.0f);
    int i = 0;
    for (; i + 4 <= terms; i += 4, matrix += 4 * rowLanes)
        for (int s = 0; s < 4; ++s)
            sums[s] =
                sums[s] + load<float, lanes>(matrix + rowLanes * s) * splat<float, lanes>(x[i + s]);
    // written out, so that the sums stay in registers
    const auto addRest = [&](int s) VSQ_LAMBDA {
        if (i + s < terms)
            sums[s] =
                sums[s] + load<float, lanes>(matrix + rowLanes * s) * splat<float, lanes>(x[i + s]);
    };
    addRest(0);
    addRest(1);
    addRest(2);
    return (sums[0] + sums[1]) + (sums[2] + sums[3]);
}

// One row of the matrix, of which `results` results count; the others are zero, or anything.
VSQ_INLINE Lanes rowOf(const float* matrix, const float* x, int terms, int results) {
    if (results > 8) return products<16>(matrix, x, terms);
    const auto none = splat<float, 8>(0.0f);
    if (results > 4) return join(products<8>(matrix, x, terms), none);
    if (results > 0) return join(join(products<4>(matrix, x, terms), low(none)), none);
    return splat<float, 16>(0.0f);
}

int rowsFor(int results) {
    return (results + rowLanes - 1) / rowLanes;
}

constexpr int reversedLane(int i, int n) {
    return n - 1 - i;
}
template <int N>
VSQ_INLINE Pack<float, N> reversed(const Pack<float, N>& v) {
    if constexpr (isRegister<float, N>)
        return pick<reversedLane>(v, v);
    else
        return {reversed(v.hi), reversed(v.lo)};
}

// a[0], b[0], a[1], b[1], ...
template <int N>
VSQ_INLINE Pack<float, 2 * N> zipped(const Pack<float, N>& a, const Pack<float, N>& b) {
    if constexpr (isRegister<float, N>) {
        const auto lower = pick<zipLane>(a, b), upper = pick<zipUpperLane>(a, b);
        return join(lower, upper);
    } else {
        return {zipped(a.lo, b.lo), zipped(a.hi, b.hi)};
    }
}
// The even elements, or the odd ones.
template <int N>
VSQ_INLINE Pack<float, N / 2> everySecond(const Pack<float, N>& v, bool odd) {
    if constexpr (isRegister<float, N / 2>)
        return odd ? pick<oddLane>(v.lo, v.hi) : pick<evenLane>(v.lo, v.hi);
    else
        return {everySecond(v.lo, odd), everySecond(v.hi, odd)};
}

// Has the compiler load each term from memory into all lanes, where it would otherwise take them
// out of registers by permutations, or keep and spill them from row to row.
template <int n>
VSQ_INLINE void keepInMemory(float (&a)[n], float (&b)[n]) {
    asm("" : "+m"(a), "+m"(b));
}

// Sums and differences of the elements and their mirror images, whole rows of them: lanes from
// half a length on hold anything.
VSQ_INLINE void foldHalves(const float* src, int n, float* sums, float* differences) {
    const int half = n / 2;
    if (n >= rowLanes)
        for (int j = 0; j < half; j += rowLanes) { // so j + 16 is at most n
            const Lanes near = load<float, rowLanes>(src + j);
            const Lanes far = reversed(load<float, rowLanes>(src + n - j - rowLanes));
            store(sums + j, near + far);
            store(differences + j, near - far);
        }
    else
        for (int j = 0; j < half; ++j) {
            sums[j] = src[j] + src[n - 1 - j];
            differences[j] = src[j] - src[n - 1 - j];
        }
    if (n % 2 != 0) sums[half] = src[half];
}

// f(row) for the rows of a length, from the last to the first. Those of a length that the compiler
// knows are written out.
template <int fixed, class F>
VSQ_INLINE void eachRow(int rows, const F& f) {
    static_assert((fixed + 1) / 2 <= 2 * rowLanes);
    if constexpr (fixed == 0) {
        for (int row = rows - 1; row >= 0; --row)
            f(row);
    } else {
        if constexpr ((fixed + 1) / 2 > rowLanes) f(1);
        f(0);
    }
}

// `fixed` is n, or 0.
template <int fixed>
void forwardOf(const float* src, float* dst, const DctMatrices& matrices) {
    const int n = fixed != 0 ? fixed : matrices.n, half = n / 2;
    alignas(64) float sums[mostTerms], differences[mostTerms];
    foldHalves(src, n, sums, differences);
    eachRow<fixed>(rowsFor(n - half), [&](int row) VSQ_LAMBDA {
        const int k = row * rowLanes;
        keepInMemory(sums, differences);
        const Lanes evens = rowOf(matrices.even + k * (n - half), sums, n - half, n - half - k);
        const Lanes odds = rowOf(matrices.odd + k * half, differences, half, half - k);
        storePart(dst + 2 * k, zipped(evens, odds), n - 2 * k < 32 ? n - 2 * k : 32);
    });
}

// The terms of the two products, the even elements and the odd ones.
VSQ_INLINE void splitTerms(const float* src, int n, float* evens, float* odds) {
    int k = 0;
    for (; 2 * k + 2 * rowLanes <= n; k += rowLanes) {
        const auto both = load<float, 2 * rowLanes>(src + 2 * k);
        store(evens + k, everySecond(both, false));
        store(odds + k, everySecond(both, true));
    }
    const auto rest = loadPart<float, 2 * rowLanes>(src + 2 * k, n - 2 * k);
    store(evens + k, everySecond(rest, false));
    store(odds + k, everySecond(rest, true));
}

// Row j's results at their places and at the mirror images; rows come from the last to the first,
// so that what a store writes beyond its results is written again.
VSQ_INLINE void unfoldRow(const Lanes& symmetric, const Lanes& antisymmetric, int j, int n,
                          float* dst) {
    const int count = n / 2 - j < rowLanes ? n / 2 - j : rowLanes;
    const Lanes far = reversed(symmetric - antisymmetric);
    if (n >= rowLanes) {
        store(dst + n - j - rowLanes, far);
    } else {
        alignas(64) float copy[rowLanes];
        store(copy, far);
        for (int i = 0; i < count; ++i)
            dst[n - count + i] = copy[rowLanes - count + i];
    }
    storePart(dst + j, symmetric + antisymmetric, count);
}

template <int fixed>
void inverseOf(const float* src, float* dst, const DctMatrices& matrices) {
    const int n = fixed != 0 ? fixed : matrices.n, half = n / 2;
    alignas(64) float evens[mostTerms], odds[mostTerms];
    splitTerms(src, n, evens, odds);
    float middle = 0.0f;
    eachRow<fixed>(rowsFor(n - half), [&](int row) VSQ_LAMBDA {
        const int j = row * rowLanes;
        keepInMemory(evens, odds);
        const Lanes symmetric =
            rowOf(matrices.even + j * (n - half), evens, n - half, n - half - j);
        if (n % 2 != 0 && half - j < rowLanes) {
            alignas(64) float copy[rowLanes];
            store(copy, symmetric);
            middle = copy[half - j];
        }
        if (j < half)
            unfoldRow(symmetric, rowOf(matrices.odd + j * half, odds, half, half - j), j, n, dst);
    });
    if (n % 2 != 0) dst[half] = middle;
}

// The usual numbers of filters are constants to the compiler, which then writes out their loops.
void forward(const float* src, float* dst, const DctMatrices& matrices) {
    switch (matrices.n) {
    case 24:
        return forwardOf<24>(src, dst, matrices);
    case 32:
        return forwardOf<32>(src, dst, matrices);
    case 40:
        return forwardOf<40>(src, dst, matrices);
    default:
        return forwardOf<0>(src, dst, matrices);
    }
}

void inverse(const float* src, float* dst, const DctMatrices& matrices) {
    switch (matrices.n) {
    case 24:
        return inverseOf<24>(src, dst, matrices);
    case 32:
        return inverseOf<32>(src, dst, matrices);
    case 40:
        return inverseOf<40>(src, dst, matrices);
    default:
        return inverseOf<0>(src, dst, matrices);
    }
}

void reorder(const float* src, float* dst, int n) {
    for (int j = 0; j < n / 2; ++j) {
        dst[j] = src[2 * j];
        dst[n - 1 - j] = src[2 * j + 1];
    }
}

void restore(const float* src, float* dst, int n) {
    for (int j = 0; j < n / 2; ++j) {
        dst[2 * j] = src[j];
        dst[2 * j + 1] = src[n - 1 - j];
    }
}

void turn(const float* spectrum, float* dst, const float* factors, int n) {
    const int half = n / 2;
    dst[0] = spectrum[0] * factors[0];
    dst[half] = spectrum[1] * factors[0]; // sqrt(2/n) cos(pi / 4)
    for (int k = 1; k < half; ++k) {
        const float re = spectrum[2 * k], im = spectrum[2 * k + 1];
        dst[k] = re * factors[k] + im * factors[half + k];
        dst[n - k] = re * factors[half + k] - im * factors[k];
    }
}

// The inverse of the rotation is its transpose; half of it, since the spectrum stands for two
// mirrored halves.
void turnBack(const float* src, float* spectrum, const float* factors, int n) {
    const int half = n / 2;
    spectrum[0] = src[0] * factors[0];
    spectrum[1] = src[half] * factors[0];
    for (int k = 1; k < half; ++k) {
        const float near = src[k] * 0.5f, far = src[n - k] * 0.5f;
        spectrum[2 * k] = near * factors[k] + far * factors[half + k];
        spectrum[2 * k + 1] = near * factors[half + k] - far * factors[k];
    }
}

} // namespace

extern const DctKernels dctKernels{
    .forward = forward,
    .inverse = inverse,
    .reorder = reorder,
    .restore = restore,
    .turn = turn,
    .turnBack = turnBack,
};

} // namespace vsq::VSQ_LEVEL
