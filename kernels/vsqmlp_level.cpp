#include "vsqmlp_level.h"
#include "simd.h"
#include "vsqmlp_table.h"

namespace vsq::VSQ_LEVEL {
namespace {

// --- the sigmoid ---

constexpr int lanes = 16;
using Floats = Pack<float, lanes>;
using Doubles = Pack<double, lanes>;
using Ints = Pack<std::int32_t, lanes>;

// The rows as doubles, the two chains of the polynomial side by side: a0 b0 a1 b1 a2 b2 a3 b3.
struct Table {
    alignas(64) double rows[sigmoidRows][8];
};
constexpr Table interleaved() {
    Table table{};
    for (int k = 0; k < sigmoidRows; ++k)
        for (int i = 0; i < 8; ++i)
            table.rows[k][i] = double(kSigmoidRows[k][i / 2 + i % 2 * 4]);
    return table;
}
constexpr Table table = interleaved();

// The same by coefficients, for the rows from 0 to 15: a table that a register instruction looks up.
constexpr int nearRows = 16;
struct NearTable {
    alignas(64) double columns[8][nearRows];
};
constexpr NearTable nearColumns() {
    NearTable columns{};
    for (int i = 0; i < 8; ++i)
        for (int k = 0; k < nearRows; ++k)
            columns.columns[i][k] = double(kSigmoidRows[k][i]);
    return columns;
}
constexpr NearTable nearTable = nearColumns();

// The polynomial of one element, both chains in one register; the operations are those of nearSigmoids.
VSQ_INLINE double polynomial(int k, double u) {
    const double* row = table.rows[k];
    const Pack<double, 2> both = splat<double, 2>(u);
    Pack<double, 2> chains = load<double, 2>(row);
    for (int i = 2; i < 8; i += 2)
        chains = chains * both + load<double, 2>(row + i);
    const double square = u * u;
    return high(chains).r[0] + square * square * low(chains).r[0];
}

// 1 / (1 + exp(-x)) for x between -16 and 16: the same for all elements at once.
VSQ_INLINE Doubles nearSigmoids(const Doubles& x) {
    // The sum with 1.5 * 2^52 is rounded to an integer, which its last bits hold. Half a unit less makes that
    // the truncation of |x|; the little more decides for whole numbers, and is below the distance of floats
    // and of fixed-point numbers with up to 30 fractional bits to the next whole number.
    const Doubles rounder = splat<double, lanes>(0x1.8p52), zero = splat<double, lanes>(0);
    const Doubles size = magnitude(x);
    const Doubles turned = (size + splat<double, lanes>(-0.5 + 0x1p-40)) + rounder;
    const Doubles u = (turned - rounder) - size;
    const auto row = bits<std::int64_t>(turned);
    Doubles a = lookUp(nearTable.columns[0], row), b = lookUp(nearTable.columns[4], row);
    for (int i = 1; i < 4; ++i) {
        a = a * u + lookUp(nearTable.columns[i], row);
        b = b * u + lookUp(nearTable.columns[i + 4], row);
    }
    const Doubles square = u * u;
    const Doubles value = b + square * square * a;
    return select(zero <= x, splat<double, lanes>(1) - value, value);
}

// One element by the rules of its range. A not-a-number fails every comparison but the last one's opposite
// and takes the formula, which keeps it.
VSQ_INLINE float sigmoidOf(float x) {
    if (x > 17.0f) return 1.0f;
    if (x < -104.0f) return 0.0f;
    if (!(x > -78.0f && x < 17.0f)) return float(1.0 / (1.0 + __builtin_exp(-double(x))));
    const float t = -__builtin_fabsf(x);
    const int k = int(-t);
    const double value = polynomial(k, double(t) + double(k));
    return float(x >= 0.0f ? 1.0 - value : value);
}

void sigmoid(const float* in, float* out, int n) {
    for (int i = 0; i < n; i += lanes) {
        const int count = n - i < lanes ? n - i : lanes;
        const Floats x = count == lanes ? load<float, lanes>(in + i) : loadPart<float, lanes>(in + i, count);
        if (laneBits(magnitude(x) < splat<float, lanes>(nearRows)) != 0xFFFF) [[unlikely]] {
            for (int j = i; j < i + count; ++j)
                out[j] = sigmoidOf(in[j]);
            continue;
        }
        const Floats y = convert<float>(nearSigmoids(convert<double>(x)));
        if (count == lanes)
            store(out + i, y);
        else
            storePart(out + i, y, count);
    }
}

VSQ_INLINE short exactWord(int in, double inFactor, double outFactor) {
    const double y = 1.0 / (1.0 + __builtin_exp(-(double(in) * inFactor))) * outFactor;
    return short(y > 32767.0 ? 32767 : int(y));
}

// The polynomials are good for the integer that comes out unless it is so near to the next one that their
// error decides; such elements, one in a hundred, and those of blocks with large ones take the formula.
void sigmoidW(const int* in, short* out, int n, double inFactor, double outFactor) {
    const Doubles bound = splat<double, lanes>(nearRows), rounder = splat<double, lanes>(0x1.8p52);
    for (int i = 0; i < n; i += lanes) {
        const int count = n - i < lanes ? n - i : lanes;
        const Ints words =
            count == lanes ? load<std::int32_t, lanes>(in + i) : loadPart<std::int32_t, lanes>(in + i, count);
        const Doubles x = convert<double>(words) * splat<double, lanes>(inFactor);
        unsigned doubtful = ~laneBits(magnitude(x) < bound) & 0xFFFF;
        if (doubtful == 0) {
            const Doubles y = nearSigmoids(x) * splat<double, lanes>(outFactor);
            const Doubles offset = magnitude(y - ((y + rounder) - rounder)); // to the nearest integer
            doubtful = laneBits(offset <= y * splat<double, lanes>(3e-7));
            const Pack<std::int16_t, lanes> narrow = narrowed(truncated(y));
            if (count == lanes)
                store(out + i, narrow);
            else
                storePart(out + i, narrow, count);
        } else {
            doubtful = 0xFFFF;
        }
        for (doubtful &= (1u << count) - 1; doubtful != 0; doubtful &= doubtful - 1) {
            const int j = i + __builtin_ctz(doubtful);
            out[j] = exactWord(in[j], inFactor, outFactor);
        }
    }
}

// --- training ---

constexpr int steps = 8;
using Wide = Pack<double, steps>;

// The next `count` elements of one row.
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

void descend(float* const* weights, float* const* previous, const float* x, const float* deltas, double rate,
             double momentum, int nRows, int n) {
    const Wide factor = splat<double, steps>(momentum);
    int i = 0;
    for (; i + steps <= n; i += steps) {
        const Wide part = convert<double>(load<float, steps>(x + i));
        for (int k = 0; k < nRows; ++k)
            descendStep<true>(weights[k] + i, previous[k] + i, part,
                              splat<double, steps>(double(deltas[k]) * rate), factor, steps);
    }
    if (i >= n) return;
    const Wide part = convert<double>(loadPart<float, steps>(x + i, n - i));
    for (int k = 0; k < nRows; ++k)
        descendStep<false>(weights[k] + i, previous[k] + i, part,
                           splat<double, steps>(double(deltas[k]) * rate), factor, n - i);
}

// Columns from i on, `count` of them.
template <bool whole>
VSQ_INLINE void weighStep(double* sums, const float* const* rows, const float* deltas, int nRows, int i,
                          int count) {
    Pack<double, lanes> sum = splat<double, lanes>(0);
    for (int k = 0; k < nRows; ++k) {
        const Floats row =
            whole ? load<float, lanes>(rows[k] + i) : loadPart<float, lanes>(rows[k] + i, count);
        sum = sum + convert<double>(row) * splat<double, lanes>(double(deltas[k]));
    }
    if constexpr (whole)
        store(sums + i, sum);
    else
        storePart(sums + i, sum, count);
}

void weighDeltas(double* sums, const float* const* rows, const float* deltas, int nRows, int n) {
    int i = 0;
    for (; i + lanes <= n; i += lanes)
        weighStep<true>(sums, rows, deltas, nRows, i, lanes);
    if (i < n) weighStep<false>(sums, rows, deltas, nRows, i, n - i);
}

} // namespace

extern const MlpKernels mlpKernels{sigmoid, sigmoidW, descend, weighDeltas};

} // namespace vsq::VSQ_LEVEL
