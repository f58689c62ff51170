// The real transform: a complex one of half the length, M points, and the split into the real spectrum.
//
// From M = 64 on the complex transform is made of passes over vectors in which real and imaginary parts are
// apart:
//
// - Columns. The points are 16 rows of H = M / 16; each column is transformed, n = n1 H + p to (k1, p),
// multiplied by
//   w(M, p k1) and stored transposed, so that scratch has H rows of 16 lanes k1: 16 real and 16 imaginary
//   parts. No later pass moves data between lanes.
// - Rows. A transform of length H whose points are rows: radix by radix in place, k1 + 16 (k2 + r2 (k3 +
// ...)) being the
//   index of a result, each pass completing what its groups need before the next group starts (depth first),
//   so that long transforms stay in the cache once the groups fit it.
// - The last row pass takes its groups in the order of the results' indices and stores them where they
// belong.
//
// Forward, the last pass splits: with Z[k] and Z[M - k] at hand it makes X[k] and X[M - k]. The inverse joins
// while it loads the columns. Real and imaginary parts exchanged, the forward passes make the inverse
// transform.
//
// Each element goes through the same arithmetic whatever the width of the registers.
#include "fft_butterflies.h"
#include "vsqffts_level.h"

#include <cstddef>

namespace vsq::VSQ_LEVEL {
namespace {

using Index = std::ptrdiff_t;

constexpr int registerLanes = registerBytes / 4;
constexpr int rowFloats = 32;
constexpr Index depthFirstRows = 64; // groups of this many rows stay in the first-level cache

template <int L>
using Lanes = Pack<float, L>;
template <int L>
using Points = Complex<Pack<float, L>>;

template <int L>
VSQ_INLINE Points<L> loadApart(const float* re, const float* im) {
    return {load<float, L>(re), load<float, L>(im)};
}

template <int L>
VSQ_INLINE void storeApart(float* re, float* im, const Points<L>& x) {
    store(re, x.re);
    store(im, x.im);
}

template <int L>
VSQ_INLINE Points<L> loadRow(const float* row) {
    return loadApart<L>(row, row + 16);
}

template <int L>
VSQ_INLINE void storeRow(float* row, const Points<L>& x) {
    storeApart<L>(row, row + 16, x);
}

// L pairs re, im from memory; in the given order or from the back.
template <int L>
VSQ_INLINE Points<L> loadPairs(const float* p) {
    const Lanes<L> a = load<float, L>(p), b = load<float, L>(p + L);
    return {pick<evenLane>(a, b), pick<oddLane>(a, b)};
}
template <int L>
VSQ_INLINE Points<L> loadPairsBack(const float* p) {
    const Lanes<L> a = load<float, L>(p), b = load<float, L>(p + L);
    return {pick<evenLaneBack>(a, b), pick<oddLaneBack>(a, b)};
}

template <int L>
VSQ_INLINE void storePairs(float* p, const Points<L>& x) {
    store(p, pick<zipLane>(x.re, x.im));
    store(p + L, pick<zipUpperLane>(x.re, x.im));
}
template <int L>
VSQ_INLINE void storePairsBack(float* p, const Points<L>& x) {
    store(p, pick<zipBackLane>(x.re, x.im));
    store(p + L, pick<zipUpperBackLane>(x.re, x.im));
}

template <int L>
VSQ_INLINE Points<L> splatPair(const float* pair) {
    return {splat<float, L>(pair[0]), splat<float, L>(pair[1])};
}

VSQ_INLINE void copyFloats(const float* src, float* dst, int n) {
    for (int i = 0; i < n; ++i)
        dst[i] = src[i];
}

// --- split and join ---

// X[k] and X[M - k] from z = Z[k] and mirror = Z[M - k], with w = w(2 M, k) / 2.
template <class V>
VSQ_INLINE void splitPair(const Complex<V>& z, const Complex<V>& mirror, const Complex<V>& w, Complex<V>& x,
                          Complex<V>& xMirror) {
    const V half = Constant<V>::of(0.5f);
    const V evenRe = (z.re + mirror.re) * half, evenIm = (z.im - mirror.im) * half;
    const V diffRe = z.re - mirror.re, diffIm = z.im + mirror.im;
    const V oddRe = w.re * diffIm + w.im * diffRe, oddIm = w.im * diffIm - w.re * diffRe;
    x = {evenRe + oddRe, evenIm + oddIm};
    xMirror = {evenRe - oddRe, oddIm - evenIm};
}

// Z[k] from x = X[k] and mirror = X[M - k], w as above.
template <class V>
VSQ_INLINE Complex<V> join(const Complex<V>& x, const Complex<V>& mirror, const Complex<V>& w) {
    const V half = Constant<V>::of(0.5f);
    const V evenRe = (x.re + mirror.re) * half, evenIm = (x.im - mirror.im) * half;
    const V diffRe = x.re - mirror.re, diffIm = x.im + mirror.im;
    return {evenRe + (w.im * diffRe - w.re * diffIm), evenIm + (w.re * diffRe + w.im * diffIm)};
}

// The split twiddles of lanes lane .. lane + L - 1 in the given block of 16.
template <int L, bool twoLevels>
VSQ_INLINE Points<L> splitTwiddles(const FftTables& tables, Index block, int lane) {
    if constexpr (twoLevels)
        return loadRow<L>(tables.splitLanes + lane) * splatPair<L>(tables.split + 2 * block);
    else
        return loadRow<L>(tables.split + rowFloats * block + lane);
}

// --- first pass: columns ---

// Time samples, pairs as they stand.
template <int L>
struct LoadTime {
    const float* in;
    VSQ_INLINE Points<L> operator()(Index k) const { return loadPairs<L>(in + 2 * k); }
};

// Spectrum to points of the half transform, real and imaginary parts exchanged. X[0] and X[M], which are
// stored as two reals, stand in the edges as the pairs they are elsewhere.
template <int L, bool twoLevels>
struct LoadSpectrum {
    const float* in;
    int shift;
    Index points;
    const FftTables& tables;
    float low[2 * L];  // X[0] .. X[L - 1]
    float high[2 * L]; // X[M - L + 1] .. X[M]

    VSQ_INLINE LoadSpectrum(const float* spectrum, int packShift, const FftTables& t)
        : in(spectrum), shift(packShift), points(Index{1} << t.order), tables(t) {
        low[0] = in[0];
        low[1] = 0.0f;
        copyFloats(in + 2 - shift, low + 2, 2 * L - 2);
        copyFloats(in + 2 * (points - L + 1) - shift, high, 2 * L - 2);
        high[2 * L - 2] = shift == 0 ? in[1] : in[2 * points - 1];
        high[2 * L - 1] = 0.0f;
    }

    VSQ_INLINE Points<L> operator()(Index k) const {
        const Points<L> x = loadPairs<L>(k == 0 ? low : in + 2 * k - shift);
        const Points<L> mirror = loadPairsBack<L>(k == 0 ? high : in + 2 * (points - k - L + 1) - shift);
        const Points<L> z = join(x, mirror, splitTwiddles<L, twoLevels>(tables, k / 16, int(k % 16)));
        return {z.im, z.re};
    }
};

template <int L>
VSQ_INLINE void storeTransposed(Lanes<L> (&x)[16], float* rows) {
    unroll<16 / L>([&](auto part) VSQ_LAMBDA {
        Lanes<L> block[L];
        unroll<L>([&](auto i) VSQ_LAMBDA { block[i] = x[part * L + i]; });
        transpose<L>(block);
        unroll<L>([&](auto i) VSQ_LAMBDA { store(rows + i * rowFloats + part * L, block[i]); });
    });
}

template <int L, bool twoLevels>
VSQ_INLINE void twiddleColumns(Points<L> (&x)[16], const FftTables& tables, Index p, int width) {
    const float* twiddles = tables.columns + p / width * (15 * 2 * width) + p % width;
    unroll<15>([&](auto i) VSQ_LAMBDA {
        if constexpr (twoLevels) {
            const Points<L> lanes = loadRow<L>(tables.columnLanes + i * rowFloats + p % 16);
            x[i + 1] = x[i + 1] * (lanes * splatPair<L>(tables.columns + p / 16 * 30 + 2 * i));
        } else {
            const float* re = twiddles + i * 2 * width;
            x[i + 1] = x[i + 1] * loadApart<L>(re, re + width);
        }
    });
}

template <int L, bool twoLevels, class Load>
VSQ_INLINE void columns(const Load& loadPoints, const FftTables& tables, float* scratch) {
    const Index height = Index{1} << (tables.order - 4);
    const int width = height < 16 ? int(height) : 16;
    for (Index p = 0; p < height; p += L) {
        Points<L> x[16];
        unroll<16>([&](auto j) VSQ_LAMBDA { x[j] = loadPoints(p + j * height); });
        butterfly(x);
        twiddleColumns<L, twoLevels>(x, tables, p, width);
        Lanes<L> part[16];
        unroll<16>([&](auto k) VSQ_LAMBDA { part[k] = x[k].re; });
        storeTransposed<L>(part, scratch + p * rowFloats);
        unroll<16>([&](auto k) VSQ_LAMBDA { part[k] = x[k].im; });
        storeTransposed<L>(part, scratch + p * rowFloats + 16);
    }
}

// --- middle passes: rows ---

template <int radix>
void rowPass(float* rows, Index length, const float* twiddles) {
    constexpr int L = registerLanes;
    const Index step = length / radix * rowFloats;
    for (Index p = 0; p < length / radix; ++p, rows += rowFloats, twiddles += 2 * (radix - 1)) {
        for (int lane = 0; lane < 16; lane += L) {
            Points<L> x[radix];
            unroll<radix>([&](auto j) VSQ_LAMBDA { x[j] = loadRow<L>(rows + j * step + lane); });
            butterfly(x);
            storeRow(rows + lane, x[0]);
            unroll<radix - 1>([&](auto i) VSQ_LAMBDA {
                storeRow(rows + (i + 1) * step + lane, x[i + 1] * splatPair<L>(twiddles + 2 * i));
            });
        }
    }
}

VSQ_INLINE void anyRowPass(int radixOrder, float* rows, Index length, const float* twiddles) {
    if (radixOrder == 4)
        rowPass<16>(rows, length, twiddles);
    else if (radixOrder == 3)
        rowPass<8>(rows, length, twiddles);
    else
        rowPass<4>(rows, length, twiddles);
}

Index rowTwiddleFloats(Index length, int radixOrder) {
    return (length >> radixOrder) * 2 * ((Index{1} << radixOrder) - 1);
}

// All passes but the last on `count` groups of `length` rows, which is what the passes before `pass` left.
void middlePasses(float* rows, Index count, Index length, const FftTables& tables, int pass,
                  const float* twiddles) {
    if (pass + 1 >= tables.nPasses) return;
    const int radixOrder = tables.radixOrder[pass];
    const float* next = twiddles + rowTwiddleFloats(length, radixOrder);
    if (length <= depthFirstRows) {
        for (Index i = 0; i < count; ++i)
            anyRowPass(radixOrder, rows + i * length * rowFloats, length, twiddles);
        middlePasses(rows, count << radixOrder, length >> radixOrder, tables, pass + 1, next);
        return;
    }
    for (Index i = 0; i < count; ++i, rows += length * rowFloats) {
        anyRowPass(radixOrder, rows, length, twiddles);
        middlePasses(rows, Index{1} << radixOrder, length >> radixOrder, tables, pass + 1, next);
    }
}

// --- last pass ---

// Where the group lies whose results have the indices k1 + 16 (group + groups * k), by the digits of the
// passes before.
struct GroupOrder {
    int nDigits;
    int digitOrder[mostRowPasses];
    int totalOrder;

    explicit VSQ_INLINE GroupOrder(const FftTables& tables) : nDigits(tables.nPasses - 1), totalOrder(0) {
        for (int i = 0; i < nDigits; ++i) {
            digitOrder[i] = tables.radixOrder[i];
            totalOrder += digitOrder[i];
        }
    }

    VSQ_INLINE Index place(Index group) const {
        if (nDigits <= 1) return group;
        Index result = 0;
        for (int i = 0; i < nDigits; ++i) {
            result = result << digitOrder[i] | (group & ((Index{1} << digitOrder[i]) - 1));
            group >>= digitOrder[i];
        }
        return result;
    }
};

// One group's results, rows of 16 lanes.
template <int radix>
struct Group {
    alignas(64) float rows[radix * rowFloats];

    VSQ_INLINE void transform(const float* src) {
        constexpr int L = registerLanes;
        for (int lane = 0; lane < 16; lane += L) {
            Points<L> x[radix];
            unroll<radix>([&](auto j) VSQ_LAMBDA { x[j] = loadRow<L>(src + j * rowFloats + lane); });
            butterfly(x);
            unroll<radix>([&](auto j) VSQ_LAMBDA { storeRow(rows + j * rowFloats + lane, x[j]); });
        }
    }
};

struct Spectrum {
    float* out;
    int shift;
    Index points;
    Index groups;
    const FftTables& tables;
};

// Stores L pairs at k = 0 and their mirror images, of which X[0] and X[M] have places of their own.
template <int L>
VSQ_INLINE void storeEdges(const Spectrum& spectrum, const Points<L>& x, const Points<L>& mirror) {
    float pairs[2 * L];
    storePairs<L>(pairs, x);
    spectrum.out[0] = pairs[0];
    copyFloats(pairs + 2, spectrum.out + 2 - spectrum.shift, 2 * L - 2);
    storePairsBack<L>(pairs, mirror);
    copyFloats(pairs, spectrum.out + 2 * (spectrum.points - L + 1) - spectrum.shift, 2 * L - 2);
    spectrum.out[spectrum.shift == 0 ? 1 : 2 * spectrum.points - 1] = pairs[2 * L - 2];
}

// The split for the lower half of the rows of `own`, whose index is `group`. The mirror image of lanes 1 to
// 15 lies in `mirrored`, that of lane 0 in `next`, row by row backwards; for group 0 that is the group
// itself, one row later.
template <int radix, bool twoLevels>
VSQ_INLINE void splitGroup(const Spectrum& spectrum, Index group, const float* own, const float* mirrored,
                           const float* next) {
    constexpr int L = registerLanes;
    const int later = group == 0 ? 1 : 0;
    for (int row = 0; row < radix / 2; ++row) {
        const float* opposite = mirrored + (radix - 1 - row) * rowFloats;
        const float* first = next + (radix - 1 - row + later) % radix * rowFloats;
        const Index block = group + spectrum.groups * row;
        for (int lane = 0; lane < 16; lane += L) {
            const float* edge = lane == 0 ? first : opposite + 16 - lane;
            const float* rest = opposite + 16 - L - lane;
            const Points<L> z = loadRow<L>(own + row * rowFloats + lane);
            const Points<L> mirror = {pick<mirrorLane>(load<float, L>(edge), load<float, L>(rest)),
                                      pick<mirrorLane>(load<float, L>(edge + 16), load<float, L>(rest + 16))};
            Points<L> x, xMirror;
            splitPair(z, mirror, splitTwiddles<L, twoLevels>(spectrum.tables, block, lane), x, xMirror);
            const Index k = 16 * block + lane;
            if (k == 0) {
                storeEdges<L>(spectrum, x, xMirror);
            } else {
                storePairs<L>(spectrum.out + 2 * k - spectrum.shift, x);
                storePairsBack<L>(spectrum.out + 2 * (spectrum.points - k - L + 1) - spectrum.shift, xMirror);
            }
        }
    }
}

// X[M / 2], its own mirror image, from row radix / 2 of group 0.
VSQ_INLINE void splitMiddle(const Spectrum& spectrum, const float* row) {
    float* pair = spectrum.out + spectrum.points - spectrum.shift;
    pair[0] = row[0];
    pair[1] = -row[16];
}

// Groups in pairs i and groups - 1 - i, each split as soon as the three groups that it needs are there.
template <int radix, bool twoLevels>
void lastForward(const float* scratch, const Spectrum& spectrum) {
    const GroupOrder order(spectrum.tables);
    const auto source = [&](Index group)
                            VSQ_LAMBDA { return scratch + order.place(group) * (radix * rowFloats); };
    Group<radix> front[2], back[2];
    front[0].transform(source(0));
    splitMiddle(spectrum, front[0].rows + radix / 2 * rowFloats);
    if (spectrum.groups == 1) {
        splitGroup<radix, twoLevels>(spectrum, 0, front[0].rows, front[0].rows, front[0].rows);
        return;
    }
    back[0].transform(source(spectrum.groups - 1));
    splitGroup<radix, twoLevels>(spectrum, 0, front[0].rows, back[0].rows, front[0].rows);
    const Index half = spectrum.groups / 2;
    for (Index i = 1; i < half; ++i) {
        const float* frontBefore = front[(i - 1) & 1].rows;
        const float* backBefore = back[(i - 1) & 1].rows;
        Group<radix>& frontNow = front[i & 1];
        Group<radix>& backNow = back[i & 1];
        frontNow.transform(source(i));
        backNow.transform(source(spectrum.groups - 1 - i));
        splitGroup<radix, twoLevels>(spectrum, i, frontNow.rows, backNow.rows, backBefore);
        splitGroup<radix, twoLevels>(spectrum, spectrum.groups - i, backBefore, frontBefore, frontNow.rows);
    }
    const float* lastBack = back[(half - 1) & 1].rows;
    splitGroup<radix, twoLevels>(spectrum, half, lastBack, front[(half - 1) & 1].rows, lastBack);
}

template <int radix>
void lastInverse(const float* scratch, float* out, Index groups, float scale, const FftTables& tables) {
    constexpr int L = registerLanes;
    const GroupOrder order(tables);
    const Lanes<L> factor = splat<float, L>(scale);
    for (Index group = 0; group < groups; ++group) {
        const float* src = scratch + order.place(group) * (radix * rowFloats);
        for (int lane = 0; lane < 16; lane += L) {
            Points<L> x[radix];
            unroll<radix>([&](auto j) VSQ_LAMBDA { x[j] = loadRow<L>(src + j * rowFloats + lane); });
            butterfly(x);
            unroll<radix>([&](auto j) VSQ_LAMBDA {
                storePairs<L>(out + 2 * (16 * (group + groups * j) + lane),
                              {x[j].im * factor, x[j].re * factor});
            });
        }
    }
}

// --- the transforms from M = 64 on ---

template <bool twoLevels>
void longForward(const float* in, float* out, int shift, const FftTables& tables, float* scratch) {
    constexpr int L = registerLanes;
    const Index height = Index{1} << (tables.order - 4);
    if (height >= L)
        columns<L, twoLevels>(LoadTime<L>{in}, tables, scratch);
    else if (height == 8)
        columns < L<8 ? L : 8, false>(LoadTime < L < 8 ? L : 8 > {in}, tables, scratch);
    else
        columns<4, false>(LoadTime<4>{in}, tables, scratch);
    middlePasses(scratch, 1, height, tables, 0, tables.rows);
    const int lastOrder = tables.radixOrder[tables.nPasses - 1];
    const Spectrum spectrum{out, shift, height * 16, height >> lastOrder, tables};
    if (lastOrder == 4)
        lastForward<16, twoLevels>(scratch, spectrum);
    else if (lastOrder == 3)
        lastForward<8, twoLevels>(scratch, spectrum);
    else
        lastForward<4, twoLevels>(scratch, spectrum);
}

template <bool twoLevels>
void longInverse(const float* in, float* out, int shift, float scale, const FftTables& tables,
                 float* scratch) {
    constexpr int L = registerLanes;
    const Index height = Index{1} << (tables.order - 4);
    if (height >= L)
        columns<L, twoLevels>(LoadSpectrum<L, twoLevels>(in, shift, tables), tables, scratch);
    else if (height == 8)
        columns <
            L<8 ? L : 8, false>(LoadSpectrum < L < 8 ? L : 8, false > (in, shift, tables), tables, scratch);
    else
        columns<4, false>(LoadSpectrum<4, false>(in, shift, tables), tables, scratch);
    middlePasses(scratch, 1, height, tables, 0, tables.rows);
    const int lastOrder = tables.radixOrder[tables.nPasses - 1];
    const float twice = 2.0f * scale; // the join halves
    if (lastOrder == 4)
        lastInverse<16>(scratch, out, height / 16, twice, tables);
    else if (lastOrder == 3)
        lastInverse<8>(scratch, out, height / 8, twice, tables);
    else
        lastInverse<4>(scratch, out, height / 4, twice, tables);
}

// --- the shortest ones: everything in one array of scalars ---

using Point = Complex<float>;

// cos(pi i / 16)
inline constexpr float cosines32[16] = {1.0f,
                                        0.980785280403230449f,
                                        0.923879532511286756f,
                                        0.831469612302545237f,
                                        0.707106781186547524f,
                                        0.555570233019602225f,
                                        0.382683432365089772f,
                                        0.195090322016128268f,
                                        0.0f,
                                        -0.195090322016128268f,
                                        -0.382683432365089772f,
                                        -0.555570233019602225f,
                                        -0.707106781186547524f,
                                        -0.831469612302545237f,
                                        -0.923879532511286756f,
                                        -0.980785280403230449f};

// n = 2 n1 + n2: both halves by the 16-point butterfly.
VSQ_INLINE void butterfly(Point (&x)[32]) {
    Point even[16], odd[16];
    unroll<16>([&](auto i) VSQ_LAMBDA {
        even[i] = x[2 * i];
        odd[i] = x[2 * i + 1];
    });
    butterfly<float>(even);
    butterfly<float>(odd);
    unroll<16>([&](auto i) VSQ_LAMBDA {
        const Point turned = odd[i] * Point{cosines32[i], -cosines32[i <= 8 ? 8 - i : i - 8]};
        x[i] = even[i] + turned;
        x[i + 16] = even[i] - turned;
    });
}

VSQ_INLINE void butterfly(Point (&)[1]) {
}

template <int points>
void shortForward(const float* in, float* out, int shift, const FftTables& tables) {
    Point z[points];
    for (int k = 0; k < points; ++k)
        z[k] = {in[2 * k], in[2 * k + 1]};
    butterfly(z);
    const float first = z[0].re + z[0].im, last = z[0].re - z[0].im;
    float* pairs = out - shift;
    for (int k = 1; k < points / 2; ++k) {
        Point x, mirror;
        splitPair<float>(z[k], z[points - k], {tables.split[k], tables.split[points + k]}, x, mirror);
        pairs[2 * k] = x.re;
        pairs[2 * k + 1] = x.im;
        pairs[2 * (points - k)] = mirror.re;
        pairs[2 * (points - k) + 1] = mirror.im;
    }
    if (points > 1) {
        pairs[points] = z[points / 2].re;
        pairs[points + 1] = -z[points / 2].im;
    }
    out[0] = first;
    out[shift == 0 ? 1 : 2 * points - 1] = last;
}

template <int points>
void shortInverse(const float* in, float* out, int shift, float scale, const FftTables& tables) {
    const float first = in[0], last = in[shift == 0 ? 1 : 2 * points - 1];
    const float* pairs = in - shift;
    Point z[points];
    z[0] = {(first - last) * 0.5f, (first + last) * 0.5f};
    for (int k = 1; k < points; ++k) {
        const Point x{pairs[2 * k], pairs[2 * k + 1]};
        const Point mirror{pairs[2 * (points - k)], pairs[2 * (points - k) + 1]};
        const Point joined = join<float>(x, mirror, {tables.split[k], tables.split[points + k]});
        z[k] = {joined.im, joined.re};
    }
    butterfly(z);
    const float twice = 2.0f * scale;
    for (int k = 0; k < points; ++k) {
        out[2 * k] = z[k].im * twice;
        out[2 * k + 1] = z[k].re * twice;
    }
}

void forward(const float* in, float* out, int shift, const FftTables& tables, float* scratch) {
    switch (tables.order) {
    case 0:
        return shortForward<1>(in, out, 0, tables);
    case 1:
        return shortForward<2>(in, out, shift, tables);
    case 2:
        return shortForward<4>(in, out, shift, tables);
    case 3:
        return shortForward<8>(in, out, shift, tables);
    case 4:
        return shortForward<16>(in, out, shift, tables);
    case 5:
        return shortForward<32>(in, out, shift, tables);
    default:
        return tables.order < twoLevelFrom ? longForward<false>(in, out, shift, tables, scratch)
                                           : longForward<true>(in, out, shift, tables, scratch);
    }
}

void inverse(const float* in, float* out, int shift, float scale, const FftTables& tables, float* scratch) {
    switch (tables.order) {
    case 0:
        return shortInverse<1>(in, out, 0, scale, tables);
    case 1:
        return shortInverse<2>(in, out, shift, scale, tables);
    case 2:
        return shortInverse<4>(in, out, shift, scale, tables);
    case 3:
        return shortInverse<8>(in, out, shift, scale, tables);
    case 4:
        return shortInverse<16>(in, out, shift, scale, tables);
    case 5:
        return shortInverse<32>(in, out, shift, scale, tables);
    default:
        return tables.order < twoLevelFrom ? longInverse<false>(in, out, shift, scale, tables, scratch)
                                           : longInverse<true>(in, out, shift, scale, tables, scratch);
    }
}

} // namespace

extern const FftsKernels fftsKernels{forward, inverse};

} // namespace vsq::VSQ_LEVEL
