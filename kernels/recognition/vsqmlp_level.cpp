// The sigmoid and the steps of perceptron training. The sigmoid is a polynomial per unit interval.
// In fixed point a result that the polynomial's error leaves in doubt is computed again by the
// formula, so that all results are those of the formula.
#include "recognition/vsqmlp_level.h"
#include "recognition/vsqmlp_table.h"
#include "simd/pack.h"

namespace vsq::VSQ_LEVEL {
namespace {

// --- the sigmoid ---

template <int N>
using Floats = Pack<float, N>;
template <int N>
using Doubles = Pack<double, N>;
template <int N>
using Ints = Pack<std::int32_t, N>;

// Elements in one block: as many chains of operations side by side as the registers hold. Results
// do not depend on it.
constexpr int blockLanes = registerBytes == 64 ? 32 : 16, tailLanes = 16;

// Elements from -16 to 16 go through these rows as vectors, others one by one.
constexpr int nearRows = 16, terms = 8;

// The near rows as doubles. Where a register instruction looks up 16 doubles they stand coefficient
// by coefficient; elsewhere row by row, a cache line each, the two chains of the polynomial side by
// side: a0 b0 a1 b1 a2 b2 a3 b3.
struct Rows {
    alignas(64) double values[nearRows * terms];
};
constexpr bool byCoefficient = registerBytes == 64;
template <class T>
constexpr Rows nearRowsOf(const T (*table)[terms]) {
    Rows rows{};
    for (int k = 0; k < nearRows; ++k)
        for (int i = 0; i < terms; ++i)
            rows.values[byCoefficient ? i * nearRows + k : k * terms + i % 4 * 2 + i / 4] =
                double(table[k][i]);
    return rows;
}
constexpr Rows coarse = nearRowsOf(kSigmoidRows), fine = nearRowsOf(kFineSigmoidRows);

// The two chains of the polynomial, (((a0 u + a1) u + a2) u + a3) and the same of the b's.
template <int N>
struct Chains {
    Doubles<N> a, b;

    VSQ_INLINE Doubles<N> value(const Doubles<N>& u) const {
        const Doubles<N> square = u * u;
        return b + square * square * a;
    }
};

// The chains of the rows k[0], k[1], ... at u, in registers of N lanes: pairs of coefficients are
// loaded row by row, and transposed.
template <int N>
VSQ_INLINE Chains<N> chainsByRow(const double* rows, const std::int32_t* k, const Doubles<N>& u) {
    const auto pair = [rows, k](int lane, int i)
                          VSQ_LAMBDA { return load<double, 2>(rows + terms * k[lane] + i); };
    Chains<N> chains{splat<double, N>(0), splat<double, N>(0)};
    for (int i = 0; i < terms; i += 2) {
        Doubles<N> even, odd;
        if constexpr (N == 2)
            even = pair(0, i), odd = pair(1, i);
        else
            even = join(pair(0, i), pair(2, i)), odd = join(pair(1, i), pair(3, i));
        const Doubles<N> a = evenPairs(even, odd), b = oddPairs(even, odd);
        chains.a = i == 0 ? a : chains.a * u + a;
        chains.b = i == 0 ? b : chains.b * u + b;
    }
    return chains;
}

template <int N>
VSQ_INLINE Doubles<N> polynomialsByRow(const double* rows, const std::int32_t* k,
                                       const Doubles<N>& u) {
    if constexpr (isRegister<double, N>)
        return chainsByRow<N>(rows, k, u).value(u);
    else
        return {polynomialsByRow<N / 2>(rows, k, u.lo),
                polynomialsByRow<N / 2>(rows, k + N / 2, u.hi)};
}

template <int N>
VSQ_INLINE Doubles<N> polynomialsByCoefficient(const double* columns, const Ints<N>& k,
                                               const Doubles<N>& u) {
    const auto index = convert<std::int64_t>(k);
    Chains<N> chains{lookUp(columns, index), lookUp(columns + 4 * nearRows, index)};
    // Unrolled, the look-ups would all be moved to the front, and their results out of the
    // registers.
#pragma GCC unroll 1
    for (int i = 1; i < 4; ++i) {
        chains.a = chains.a * u + lookUp(columns + i * nearRows, index);
        chains.b = chains.b * u + lookUp(columns + (i + 4) * nearRows, index);
    }
    return chains.value(u);
}

// The polynomials of a block at u, k below nearRows; the operations on an element are the same on
// every level.
template <int N>
VSQ_INLINE Doubles<N> polynomials(const Rows& rows, const Ints<N>& k, const Doubles<N>& u) {
    if constexpr (byCoefficient) {
        return polynomialsByCoefficient<N>(rows.values, k, u);
    } else {
        std::int32_t indices[N];
        store(indices, k);
        return polynomialsByRow<N>(rows.values, indices, u);
    }
}

// The bits of all lanes, as laneBits gives them.
template <int N>
constexpr unsigned allLanes = ~0u >> (32 - N);

// 1 less the value where x is not negative.
template <int N>
VSQ_INLINE Doubles<N> mirrored(const Doubles<N>& value, const Floats<N>& x) {
    return selectNotBelowZero(x, splat<double, N>(1) - value, value);
}

// Beyond these the float nearest to the sigmoid is 1 or 0; below the table's end the formula holds.
constexpr float oneAbove = 17.0f, zeroBelow = -104.0f, tableEnd = -78.0f;

// One element by the rules of its range. A NaN fails every comparison but the last one's
// opposite and takes the formula, which keeps it.
VSQ_INLINE float sigmoidOf(float x) {
    if (x > oneAbove) return 1.0f;
    if (x < zeroBelow) return 0.0f;
    if (!(x > tableEnd && x < oneAbove)) return float(1.0 / (1.0 + __builtin_exp(-double(x))));
    const double size = double(__builtin_fabsf(x));
    const int k = int(size);
    const double u = double(k) - size;
    double value = double(kSigmoidRows[k][0]);
    for (int i = 1; i < terms; ++i)
        value = value * u + double(kSigmoidRows[k][i]);
    return float(x >= 0.0f ? 1.0 - value : value);
}

// A block of elements; what is not near comes out wrong, and its bits are set in the result.
template <int N>
VSQ_INLINE unsigned sigmoidBlock(const Floats<N>& x, Floats<N>& y) {
    const Floats<N> size = magnitude(x);
    const Ints<N> k = truncated(size), row = k & splat<std::int32_t, N>(nearRows - 1);
    // The distance to the next whole number toward zero, which is a float.
    const Doubles<N> u = convert<double>(convert<float>(row) - size);
    y = convert<float>(mirrored(polynomials(coarse, row, u), x));
    const Ints<N> beyond = k ^ row;
    return anyLane(beyond) ? laneBits(beyond == splat<std::int32_t, N>(0)) ^ allLanes<N> : 0;
}

// The first `count` elements from in on.
template <int N>
VSQ_INLINE void sigmoidBlock(const float* in, float* out, int count) {
    const Floats<N> x = count == N ? load<float, N>(in) : loadPart<float, N>(in, count);
    Floats<N> y;
    unsigned far = sigmoidBlock(x, y);
    if (far != 0) [[unlikely]] {
        float elements[N], results[N];
        store(elements, x);
        store(results, y);
        for (; far != 0; far &= far - 1)
            results[__builtin_ctz(far)] = sigmoidOf(elements[__builtin_ctz(far)]);
        y = load<float, N>(results);
    }
    if (count == N)
        store(out, y);
    else
        storePart(out, y, count);
}

void sigmoidFloat(const float* in, float* out, int n) {
    int i = 0;
    for (; i + blockLanes <= n; i += blockLanes)
        sigmoidBlock<blockLanes>(in + i, out + i, blockLanes);
    for (; i < n; i += tailLanes)
        sigmoidBlock<tailLanes>(in + i, out + i, n - i < tailLanes ? n - i : tailLanes);
}

// --- the fixed sigmoid ---

VSQ_INLINE short exactWord(int in, double inFactor, double outFactor) {
    const double y = 1.0 / (1.0 + __builtin_exp(-(double(in) * inFactor))) * outFactor;
    return short(y > INT16_MAX ? INT16_MAX : int(y));
}

struct WordScales {
    int inBits;
    double inFactor, outFactor;
};

// A block of elements, with a bit set in the result for each that the formula has to decide: those
// that are not near, and those so near to a whole number that the polynomial's error could make
// another one of it.
template <int N>
VSQ_INLINE unsigned sigmoidWordBlock(const Ints<N>& in, const WordScales& scales,
                                     Pack<std::int16_t, N>& out) {
    const Ints<N> sign = in >> 31;
    const auto size = bits<std::uint32_t>(in ^ sign) - bits<std::uint32_t>(sign); // 2^31 included
    const Ints<N> k = bits<std::int32_t>(size >> scales.inBits),
                  row = k & splat<std::int32_t, N>(nearRows - 1);
    const Ints<N> fraction =
        bits<std::int32_t>(size) & splat<std::int32_t, N>((1 << scales.inBits) - 1);
    const Doubles<N> u = convert<double>(fraction) * splat<double, N>(-scales.inFactor);
    const Doubles<N> value = polynomials(fine, row, u);
    const Doubles<N> result = selectNotBelowZero(in, splat<double, N>(1) - value, value);
    // What the error can make of the result: where both ends are truncated to one number, that is
    // it.
    const Ints<N> least =
        truncated(result * splat<double, N>(scales.outFactor * (1 - fineSigmoidError)));
    const Ints<N> most =
        truncated(result * splat<double, N>(scales.outFactor * (1 + fineSigmoidError)));
    out = narrowed(least);
    const Ints<N> open = (k ^ row) | (least ^ most);
    return anyLane(open) ? laneBits(open == splat<std::int32_t, N>(0)) ^ allLanes<N> : 0;
}

template <int N>
VSQ_INLINE void sigmoidWordBlock(const int* in, short* out, const WordScales& scales, int count) {
    const Ints<N> words =
        count == N ? load<std::int32_t, N>(in) : loadPart<std::int32_t, N>(in, count);
    Pack<std::int16_t, N> results;
    unsigned open = sigmoidWordBlock(words, scales, results);
    if (count == N)
        store(out, results);
    else
        storePart(out, results, count);
    for (open &= (allLanes<N>) >> (N - count); open != 0; open &= open - 1) {
        const int j = __builtin_ctz(open);
        out[j] = exactWord(in[j], scales.inFactor, scales.outFactor);
    }
}

void sigmoidFixed(const int* in, short* out, int n, int inBits, int outBits) {
    const WordScales scales{inBits, 1.0 / double(1u << inBits), double(1u << outBits)};
    int i = 0;
    for (; i + blockLanes <= n; i += blockLanes)
        sigmoidWordBlock<blockLanes>(in + i, out + i, scales, blockLanes);
    for (; i < n; i += tailLanes)
        sigmoidWordBlock<tailLanes>(in + i, out + i, scales, n - i < tailLanes ? n - i : tailLanes);
}

// --- training ---

constexpr int steps = 8;
using Wide = Pack<double, steps>;

// The first `count` elements of one row, all 8 when `whole`.
template <bool whole>
VSQ_INLINE void descendStep(float* weights, float* previous, const Wide& x, const Wide& g,
                            const Wide& momentum, int count) {
    const auto part = [count](const float* p) VSQ_LAMBDA {
        return convert<double>(whole ? load<float, steps>(p) : loadPart<float, steps>(p, count));
    };
    const Wide delta = x * g + part(previous) * momentum;
    const auto changed = convert<float>(part(weights) + delta), kept = convert<float>(delta);
    if constexpr (whole) {
        store(weights, changed);
        store(previous, kept);
    } else {
        storePart(weights, changed, count);
        storePart(previous, kept, count);
    }
}

// Inputs are widened once for all rows, so many at a time.
constexpr int widened = 64;

// Up to `widened` columns of all rows, from `first` on.
VSQ_INLINE void descendColumns(float* const* weights, float* const* previous, const float* x,
                               const float* deltas, double rate, const Wide& momentum, int nRows,
                               int first, int count) {
    double inputs[widened];
    int whole = 0;
    for (; whole + steps <= count; whole += steps)
        store(inputs + whole, convert<double>(load<float, steps>(x + first + whole)));
    if (whole < count)
        store(inputs + whole,
              convert<double>(loadPart<float, steps>(x + first + whole, count - whole)));
    for (int k = 0; k < nRows; ++k) {
        const Wide g = splat<double, steps>(double(deltas[k]) * rate);
        float *w = weights[k] + first, *p = previous[k] + first;
        for (int i = 0; i < whole; i += steps)
            descendStep<true>(w + i, p + i, load<double, steps>(inputs + i), g, momentum, steps);
        if (whole < count)
            descendStep<false>(w + whole, p + whole, load<double, steps>(inputs + whole), g,
                               momentum, count - whole);
    }
}

void descend(float* const* weights, float* const* previous, const float* x, const float* deltas,
             double rate, double momentum, int nRows, int n) {
    for (int i = 0; i < n; i += widened)
        descendColumns(weights, previous, x, deltas, rate, splat<double, steps>(momentum), nRows, i,
                       n - i < widened ? n - i : widened);
}

// Columns from i on, `count` of them.
template <int N, bool whole>
VSQ_INLINE void weighStep(double* sums, const float* const* rows, const float* deltas, int nRows,
                          int i, int count) {
    Doubles<N> sum = splat<double, N>(0);
    for (int k = 0; k < nRows; ++k) {
        const Floats<N> row =
            whole ? load<float, N>(rows[k] + i) : loadPart<float, N>(rows[k] + i, count);
        sum = sum + convert<double>(row) * splat<double, N>(double(deltas[k]));
    }
    if constexpr (whole)
        store(sums + i, sum);
    else
        storePart(sums + i, sum, count);
}

void weighDeltas(double* sums, const float* const* rows, const float* deltas, int nRows, int n) {
    int i = 0;
    for (; i + blockLanes <= n; i += blockLanes)
        weighStep<blockLanes, true>(sums, rows, deltas, nRows, i, blockLanes);
    for (; i + tailLanes <= n; i += tailLanes)
        weighStep<tailLanes, true>(sums, rows, deltas, nRows, i, tailLanes);
    if (i < n) weighStep<tailLanes, false>(sums, rows, deltas, nRows, i, n - i);
}

void sigmoidSlopes(const float* outputs, float* slopes, int n) {
    for (int i = 0; i < n; ++i)
        slopes[i] = float((1.0 - double(outputs[i])) * double(outputs[i]));
}

} // namespace

extern const MlpKernels mlpKernels{
    .sigmoidFloat = sigmoidFloat,
    .sigmoidFixed = sigmoidFixed,
    .sigmoidSlopes = sigmoidSlopes,
    .descend = descend,
    .weighDeltas = weighDeltas,
};

} // namespace vsq::VSQ_LEVEL
