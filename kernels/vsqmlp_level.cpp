#include "levels.h"
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

// The polynomial of one element, both chains in one register; the operations are those of nearPolynomials.
VSQ_INLINE double polynomial(int k, double u) {
    const double* row = table.rows[k];
    const Pack<double, 2> both = splat<double, 2>(u);
    Pack<double, 2> chains = load<double, 2>(row);
    for (int i = 2; i < 8; i += 2)
        chains = chains * both + load<double, 2>(row + i);
    const double square = u * u;
    return high(chains).r[0] + square * square * low(chains).r[0];
}

// All elements at once, where every row is below nearRows.
VSQ_INLINE Doubles nearPolynomials(const Ints& k, const Doubles& u) {
    const auto index = convert<std::int64_t>(k);
    const auto coefficient = [&](int i) VSQ_LAMBDA { return lookUp(nearTable.columns[i], index); };
    Doubles a = coefficient(0), b = coefficient(4);
    for (int i = 1; i < 4; ++i) {
        a = a * u + coefficient(i);
        b = b * u + coefficient(i + 4);
    }
    const Doubles square = u * u;
    return b + square * square * a;
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

// 16 elements between -16 and 16.
VSQ_INLINE Floats nearSigmoids(const Floats& x, const Floats& size) {
    const Ints k = convert<std::int32_t>(size);
    const Doubles u = convert<double>(convert<float>(k) - size); // exact in float, since k <= |x| < k + 1
    const Doubles value = nearPolynomials(k, u);
    const Floats left = convert<float>(value), right = convert<float>(splat<double, lanes>(1) - value);
    return select(splat<float, lanes>(0) <= x, right, left);
}

void sigmoid(const float* in, float* out, int n) {
    for (int i = 0; i < n; i += lanes) {
        const int count = n - i < lanes ? n - i : lanes;
        const Floats x = count == lanes ? load<float, lanes>(in + i) : loadPart<float, lanes>(in + i, count);
        const Floats size = magnitude(x);
        if (laneBits(size < splat<float, lanes>(nearRows)) != 0xFFFF) [[unlikely]] {
            for (int j = i; j < i + count; ++j)
                out[j] = sigmoidOf(in[j]);
            continue;
        }
        if (count == lanes)
            store(out + i, nearSigmoids(x, size));
        else
            storePart(out + i, nearSigmoids(x, size), count);
    }
}

// --- training ---

void descend(float* __restrict weights, float* __restrict previous, const float* __restrict x, double g,
             double momentum, int n) {
    for (int i = 0; i < n; ++i) {
        const double delta = double(x[i]) * g + double(previous[i]) * momentum;
        weights[i] = float(double(weights[i]) + delta);
        previous[i] = float(delta);
    }
}

void addScaled(double* __restrict sums, const float* __restrict weights, double delta, int n) {
    for (int i = 0; i < n; ++i)
        sums[i] += double(weights[i]) * delta;
}

} // namespace

extern const MlpKernels mlpKernels{sigmoid, descend, addScaled};

} // namespace vsq::VSQ_LEVEL
