// The real transform: a complex one of half the length, M points, and the split into the real
// spectrum.
//
// From M = 64 on the complex transform is made of passes over vectors in which real and imaginary
// parts are apart:
//
// - Columns. The points are 16 rows of H = M / 16; each column is transformed, n = n1 H + p to (k1,
//   p),
// multiplied by
//   w(M, p k1) and stored transposed, so that scratch has H rows of 16 lanes k1: 16 real and 16
//   imaginary
//   parts. No later pass moves data between lanes.
// - Rows. A transform of length H whose points are rows: radix by radix in place, k1 + 16 (k2 + r2
//   (k3 +
// ...)) being the
//   index of a result, each pass completing what its groups need before the next group starts
//   (depth first),
//   so that long transforms stay in the cache once the groups fit it.
// - The last row pass takes its groups in the order of the results' indices and stores them where
//   they
// belong, split:
//   with Z[k] and Z[M - k] at hand it makes X[k] and X[M - k].
//
// The inverse runs the same passes backwards, each one transposed: it joins X[k] and X[M - k] while
// it loads the groups, and twiddles come before the butterflies. All butterflies are forward ones;
// the inverse works with real and imaginary parts exchanged.
//
// Each element goes through the same arithmetic whatever the width of the registers.
#include "transforms/vsqffts_level.h"
#include "transforms/fft_butterflies.h"

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

// L pairs re, im in memory, in the given order or from the back; L lanes may be several registers.
template <int L>
VSQ_INLINE Points<L> loadPairs(const float* p) {
    if constexpr (L > registerLanes) {
        const Points<L / 2> low = loadPairs<L / 2>(p), high = loadPairs<L / 2>(p + L);
        return {{low.re, high.re}, {low.im, high.im}};
    } else {
        const Lanes<L> a = load<float, L>(p), b = load<float, L>(p + L);
        return {pick<evenLane>(a, b), pick<oddLane>(a, b)};
    }
}
template <int L>
VSQ_INLINE Points<L> loadPairsBack(const float* p) {
    if constexpr (L > registerLanes) {
        const Points<L / 2> low = loadPairsBack<L / 2>(p + L), high = loadPairsBack<L / 2>(p);
        return {{low.re, high.re}, {low.im, high.im}};
    } else {
        const Lanes<L> a = load<float, L>(p), b = load<float, L>(p + L);
        return {pick<evenLaneBack>(a, b), pick<oddLaneBack>(a, b)};
    }
}

template <int L>
VSQ_INLINE Points<L / 2> lowHalf(const Points<L>& x) {
    return {x.re.lo, x.im.lo};
}
template <int L>
VSQ_INLINE Points<L / 2> highHalf(const Points<L>& x) {
    return {x.re.hi, x.im.hi};
}

template <int L>
VSQ_INLINE void storePairs(float* p, const Points<L>& x) {
    if constexpr (L > registerLanes) {
        storePairs<L / 2>(p, lowHalf<L>(x));
        storePairs<L / 2>(p + L, highHalf<L>(x));
    } else {
        store(p, pick<zipLane>(x.re, x.im));
        store(p + L, pick<zipUpperLane>(x.re, x.im));
    }
}
template <int L>
VSQ_INLINE void storePairsBack(float* p, const Points<L>& x) {
    if constexpr (L > registerLanes) {
        storePairsBack<L / 2>(p, highHalf<L>(x));
        storePairsBack<L / 2>(p + L, lowHalf<L>(x));
    } else {
        store(p, pick<zipBackLane>(x.re, x.im));
        store(p + L, pick<zipUpperBackLane>(x.re, x.im));
    }
}

// first[0], rest[L - 1], rest[L - 2], ..., rest[1]
template <int L>
VSQ_INLINE Lanes<L> mirrorOf(const Lanes<L>& first, const Lanes<L>& rest) {
    if constexpr (L > registerLanes)
        return {mirrorOf<L / 2>(first.lo, rest.hi), mirrorOf<L / 2>(rest.hi, rest.lo)};
    else
        return pick<mirrorLane>(first, rest);
}
template <int L>
VSQ_INLINE Points<L> mirrorOf(const Points<L>& first, const Points<L>& rest) {
    return {mirrorOf<L>(first.re, rest.re), mirrorOf<L>(first.im, rest.im)};
}

template <int L>
VSQ_INLINE Points<L> splatPair(const float* pair) {
    return {splat<float, L>(pair[0]), splat<float, L>(pair[1])};
}

template <int N>
VSQ_INLINE float firstLane(const Lanes<N>& v) {
    if constexpr (N > registerLanes)
        return firstLane<N / 2>(v.lo);
    else
        return v.r[0];
}

// --- split and join ---

// X[k] and X[M - k] from z = Z[k] and mirror = Z[M - k], with w = w(2 M, k) / 2.
template <class V>
VSQ_INLINE void splitPair(const Complex<V>& z, const Complex<V>& mirror, const Complex<V>& w,
                          Complex<V>& x, Complex<V>& xMirror) {
    const V half = Constant<V>::of(0.5f);
    const V evenRe = (z.re + mirror.re) * half, evenIm = (z.im - mirror.im) * half;
    const V diffRe = z.re - mirror.re, diffIm = z.im + mirror.im;
    const V oddRe = w.re * diffIm + w.im * diffRe, oddIm = w.im * diffIm - w.re * diffRe;
    x = {evenRe + oddRe, evenIm + oddIm};
    xMirror = {evenRe - oddRe, oddIm - evenIm};
}

// The way back: Z[k] and Z[M - k] from x = X[k] and mirror = X[M - k], real and imaginary parts
// exchanged.
template <class V>
VSQ_INLINE void joinPair(const Complex<V>& x, const Complex<V>& mirror, const Complex<V>& w,
                         Complex<V>& z, Complex<V>& zMirror) {
    const V half = Constant<V>::of(0.5f);
    const V evenRe = (x.re + mirror.re) * half, evenIm = (x.im - mirror.im) * half;
    const V diffRe = x.re - mirror.re, diffIm = x.im + mirror.im;
    const V oddRe = w.im * diffRe - w.re * diffIm, oddIm = w.re * diffRe + w.im * diffIm;
    z = {evenIm + oddIm, evenRe + oddRe};
    zMirror = {oddIm - evenIm, evenRe - oddRe};
}

// The split twiddles of lanes lane .. lane + L - 1 in the given block of 16.
template <int L, bool twoLevels>
VSQ_INLINE Points<L> splitTwiddles(const FftTables& tables, Index block, int lane) {
    if constexpr (twoLevels)
        return loadRow<L>(tables.splitLanes + lane) * splatPair<L>(tables.split + 2 * block);
    else
        return loadRow<L>(tables.split + rowFloats * block + lane);
}

// --- columns ---

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

template <int L, bool twoLevels>
VSQ_INLINE void columns(const float* in, const FftTables& tables, float* scratch) {
    const Index height = Index{1} << (tables.order - 4);
    const int width = height < 16 ? int(height) : 16;
    for (Index p = 0; p < height; p += L) {
        Points<L> x[16];
        unroll<16>([&](auto j) VSQ_LAMBDA { x[j] = loadPairs<L>(in + 2 * (p + j * height)); });
        butterfly(x);
        twiddleColumns<L, twoLevels>(x, tables, p, width);
        Lanes<L> part[16];
        unroll<16>([&](auto k) VSQ_LAMBDA { part[k] = x[k].re; });
        storeTransposed<L>(part, scratch + p * rowFloats);
        unroll<16>([&](auto k) VSQ_LAMBDA { part[k] = x[k].im; });
        storeTransposed<L>(part, scratch + p * rowFloats + 16);
    }
}

template <int L>
VSQ_INLINE void loadTransposed(const float* rows, Lanes<L> (&x)[16]) {
    unroll<16 / L>([&](auto part) VSQ_LAMBDA {
        Lanes<L> block[L];
        unroll<L>([&](auto i)
                      VSQ_LAMBDA { block[i] = load<float, L>(rows + i * rowFloats + part * L); });
        transpose<L>(block);
        unroll<L>([&](auto i) VSQ_LAMBDA { x[part * L + i] = block[i]; });
    });
}

// The inverse's last pass.
template <int L, bool twoLevels>
VSQ_INLINE void columnsBack(const float* scratch, const FftTables& tables, float scale,
                            float* out) {
    const Index height = Index{1} << (tables.order - 4);
    const int width = height < 16 ? int(height) : 16;
    const Lanes<L> factor = splat<float, L>(scale);
    for (Index p = 0; p < height; p += L) {
        Points<L> x[16];
        Lanes<L> part[16];
        loadTransposed<L>(scratch + p * rowFloats, part);
        unroll<16>([&](auto k) VSQ_LAMBDA { x[k].re = part[k]; });
        loadTransposed<L>(scratch + p * rowFloats + 16, part);
        unroll<16>([&](auto k) VSQ_LAMBDA { x[k].im = part[k]; });
        twiddleColumns<L, twoLevels>(x, tables, p, width);
        butterfly(x);
        unroll<16>([&](auto j) VSQ_LAMBDA {
            storePairs<L>(out + 2 * (p + j * height), {x[j].im * factor, x[j].re * factor});
        });
    }
}

// --- rows ---

// Forward, twiddles follow the butterfly; in the inverse they come before it.
template <int radix, bool isForward>
void rowPass(float* rows, Index length, const float* twiddles) {
    constexpr int L = registerLanes;
    const Index step = length / radix * rowFloats;
    for (Index p = 0; p < length / radix; ++p, rows += rowFloats, twiddles += 2 * (radix - 1)) {
        for (int lane = 0; lane < 16; lane += L) {
            Points<L> x[radix];
            unroll<radix>([&](auto j) VSQ_LAMBDA { x[j] = loadRow<L>(rows + j * step + lane); });
            if constexpr (isForward) butterfly(x);
            unroll<radix - 1>(
                [&](auto i) VSQ_LAMBDA { x[i + 1] = x[i + 1] * splatPair<L>(twiddles + 2 * i); });
            if constexpr (!isForward) butterfly(x);
            unroll<radix>([&](auto j) VSQ_LAMBDA { storeRow(rows + j * step + lane, x[j]); });
        }
    }
}

template <bool isForward>
VSQ_INLINE void anyRowPass(int radixOrder, float* rows, Index length, const float* twiddles) {
    if (radixOrder == 4)
        rowPass<16, isForward>(rows, length, twiddles);
    else if (radixOrder == 3)
        rowPass<8, isForward>(rows, length, twiddles);
    else
        rowPass<4, isForward>(rows, length, twiddles);
}

Index rowTwiddleFloats(Index length, int radixOrder) {
    return (length >> radixOrder) * 2 * ((Index{1} << radixOrder) - 1);
}

// All row passes but the last on `count` groups of `length` rows, which is what the passes before
// `pass` left.
void middlePasses(float* rows, Index count, Index length, const FftTables& tables, int pass,
                  const float* twiddles) {
    if (pass + 1 >= tables.nPasses) return;
    const int radixOrder = tables.radixOrder[pass];
    const float* next = twiddles + rowTwiddleFloats(length, radixOrder);
    const Index together = length <= depthFirstRows ? count : 1;
    for (Index done = 0; done < count; done += together, rows += together * length * rowFloats) {
        for (Index i = 0; i < together; ++i)
            anyRowPass<true>(radixOrder, rows + i * length * rowFloats, length, twiddles);
        middlePasses(rows, together << radixOrder, length >> radixOrder, tables, pass + 1, next);
    }
}

// The same passes from the last one to the first.
void middlePassesBack(float* rows, Index count, Index length, const FftTables& tables, int pass,
                      const float* twiddles) {
    if (pass + 1 >= tables.nPasses) return;
    const int radixOrder = tables.radixOrder[pass];
    const float* next = twiddles + rowTwiddleFloats(length, radixOrder);
    const Index together = length <= depthFirstRows ? count : 1;
    for (Index done = 0; done < count; done += together, rows += together * length * rowFloats) {
        middlePassesBack(rows, together << radixOrder, length >> radixOrder, tables, pass + 1,
                         next);
        for (Index i = 0; i < together; ++i)
            anyRowPass<false>(radixOrder, rows + i * length * rowFloats, length, twiddles);
    }
}

// --- the last row pass and the split ---

// Where the group lies whose results have the indices k1 + 16 (group + groups * k), by the digits
// of the passes before.
struct GroupOrder {
    int nDigits;
    int digitOrder[mostRowPasses];
    int totalOrder;

    explicit VSQ_INLINE GroupOrder(const FftTables& tables)
        : nDigits(tables.nPasses - 1), totalOrder(0) {
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

template <int radix>
VSQ_INLINE void transformGroup(const float* src, float* dst) {
    constexpr int L = registerLanes;
    for (int lane = 0; lane < 16; lane += L) {
        Points<L> x[radix];
        unroll<radix>([&](auto j) VSQ_LAMBDA { x[j] = loadRow<L>(src + j * rowFloats + lane); });
        butterfly(x);
        unroll<radix>([&](auto j) VSQ_LAMBDA { storeRow(dst + j * rowFloats + lane, x[j]); });
    }
}

// A group's bins, rows of 16 lanes.
template <int radix>
struct Group {
    alignas(64) float rows[radix * rowFloats];

    // Lane 0 of the upper rows gets a value, since a join may look at it before it has one.
    VSQ_INLINE void clearFirsts() {
        for (int row = radix / 2; row < radix; ++row)
            rows[row * rowFloats] = rows[row * rowFloats + 16] = 0.0f;
    }
};

// The packed spectrum, `out` where it is written and `in` where it is read.
struct Spectrum {
    const float* in;
    float* out;
    int shift;
    Index points;
    Index groups;
    const FftTables& tables;

    Spectrum(const float* src, float* dst, int packShift, const FftTables& t)
        : in(src), out(dst), shift(packShift), points(Index{1} << t.order),
          groups(points >> (4 + t.radixOrder[t.nPasses - 1])), tables(t) {}
};

// Stores L pairs from k = 0 on and their mirror images, of which X[0] and X[M] have places of their
// own.
template <int L>
VSQ_INLINE void storeEdges(float* out, int shift, Index length, const Points<L>& x,
                           const Points<L>& mirror) {
    if constexpr (L > registerLanes) {
        constexpr int half = L / 2;
        storePairs<half>(out + L - shift, highHalf<L>(x));
        storePairsBack<half>(out + 2 * (length - L + 1) - shift, highHalf<L>(mirror));
        storeEdges<half>(out, shift, length, lowHalf<L>(x), lowHalf<L>(mirror));
    } else {
        const Lanes<L> im = pick<firstOfOtherLane>(x.im, mirror.re); // X[M] beside X[0]
        const Lanes<L> low = pick<zipLane>(x.re, im), high = pick<zipUpperLane>(x.re, im);
        const Lanes<L> lowBack = pick<zipBackLane>(mirror.re, mirror.im);
        const Lanes<L> highBack = pick<zipUpperBackLane>(mirror.re, mirror.im);
        store(out, shift == 0 ? low : pick<skipSecondLane>(low, high));
        store(out + L - shift, high);
        store(out + 2 * (length - L + 1) - shift, lowBack);
        store(out + 2 * length - L, shift == 0 ? pick<lastTwoLane>(lowBack, highBack)
                                               : pick<lastOneLane>(lowBack, highBack));
    }
}

// The split for the lower half of the rows of `own`, whose index is `group`. The mirror image of
// lanes 1 to 15 lies in `mirrored`, that of lane 0 in `next`, row by row backwards; for group 0
// that is the group itself, one row later.
template <int radix, bool twoLevels>
VSQ_INLINE void splitGroup(const Spectrum& spectrum, Index group, const float* own,
                           const float* mirrored, const float* next) {
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
            const Points<L> mirror = mirrorOf<L>(loadRow<L>(edge), loadRow<L>(rest));
            Points<L> x, xMirror;
            splitPair(z, mirror, splitTwiddles<L, twoLevels>(spectrum.tables, block, lane), x,
                      xMirror);
            const Index k = 16 * block + lane;
            if (k == 0) {
                storeEdges<L>(spectrum.out, spectrum.shift, spectrum.points, x, xMirror);
            } else {
                storePairs<L>(spectrum.out + 2 * k - spectrum.shift, x);
                storePairsBack<L>(spectrum.out + 2 * (spectrum.points - k - L + 1) - spectrum.shift,
                                  xMirror);
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

// Groups in pairs i and groups - 1 - i, each split as soon as the three groups that it needs are
// there.
template <int radix, bool twoLevels>
void lastForward(const float* scratch, const Spectrum& spectrum) {
    const GroupOrder order(spectrum.tables);
    const auto source = [&](Index group) VSQ_LAMBDA {
        return scratch + order.place(group) * (radix * rowFloats);
    };
    Group<radix> front[2], back[2];
    transformGroup<radix>(source(0), front[0].rows);
    splitMiddle(spectrum, front[0].rows + radix / 2 * rowFloats);
    if (spectrum.groups == 1) {
        splitGroup<radix, twoLevels>(spectrum, 0, front[0].rows, front[0].rows, front[0].rows);
        return;
    }
    transformGroup<radix>(source(spectrum.groups - 1), back[0].rows);
    splitGroup<radix, twoLevels>(spectrum, 0, front[0].rows, back[0].rows, front[0].rows);
    const Index half = spectrum.groups / 2;
    for (Index i = 1; i < half; ++i) {
        const float* frontBefore = front[(i - 1) & 1].rows;
        const float* backBefore = back[(i - 1) & 1].rows;
        Group<radix>& frontNow = front[i & 1];
        Group<radix>& backNow = back[i & 1];
        transformGroup<radix>(source(i), frontNow.rows);
        transformGroup<radix>(source(spectrum.groups - 1 - i), backNow.rows);
        splitGroup<radix, twoLevels>(spectrum, i, frontNow.rows, backNow.rows, backBefore);
        splitGroup<radix, twoLevels>(spectrum, spectrum.groups - i, backBefore, frontBefore,
                                     frontNow.rows);
    }
    const float* lastBack = back[(half - 1) & 1].rows;
    splitGroup<radix, twoLevels>(spectrum, half, lastBack, front[(half - 1) & 1].rows, lastBack);
}

// --- the join and the first row pass of the inverse: the split backwards ---

// L bins from k = 0 on and their mirror images; X[0] and X[M], stored as two reals, become the
// pairs they are elsewhere. Nothing is read outside the array.
template <int L>
VSQ_INLINE void loadEdges(const float* in, int shift, Index length, Points<L>& x,
                          Points<L>& mirror) {
    if constexpr (L > registerLanes) {
        constexpr int half = L / 2;
        const Points<half> high = loadPairs<half>(in + L - shift);
        const Points<half> highMirror = loadPairsBack<half>(in + 2 * (length - L + 1) - shift);
        Points<half> low, lowMirror;
        loadEdges<half>(in, shift, length, low, lowMirror);
        x = {{low.re, high.re}, {low.im, high.im}};
        mirror = {{lowMirror.re, highMirror.re}, {lowMirror.im, highMirror.im}};
    } else {
        const Lanes<L> first = load<float, L>(in), last = load<float, L>(in + 2 * length - L);
        const Lanes<L> second = load<float, L>(in + L - shift);
        const Lanes<L> lastButOne = load<float, L>(in + 2 * (length - L + 1) - shift);
        const Lanes<L> low = shift == 0 ? first : pick<gapSecondLane>(first, first);
        const Lanes<L> high =
            shift == 0 ? pick<fromThirdLane>(last, last) : pick<fromSecondLane>(last, last);
        const Lanes<L> zero = splat<float, L>(0.0f);
        const Lanes<L> nyquist = splat<float, L>(shift == 0 ? in[1] : in[2 * length - 1]);
        x = {pick<evenLane>(low, second), pick<firstOfOtherLane>(pick<oddLane>(low, second), zero)};
        mirror = {pick<firstOfOtherLane>(pick<evenLaneBack>(lastButOne, high), nyquist),
                  pick<firstOfOtherLane>(pick<oddLaneBack>(lastButOne, high), zero)};
    }
}

// Fills the lower half of the rows of `own`; lanes 1 to 15 of the upper half of `opposite`, whose
// lane 0 stays; and lane 0 of the upper half of `next`. The groups are those of splitGroup.
template <int radix, bool twoLevels>
VSQ_INLINE void joinGroup(const Spectrum& spectrum, Index group, float* own, float* opposite,
                          float* next) {
    constexpr int L = registerLanes;
    const int later = group == 0 ? 1 : 0;
    for (int row = 0; row < radix / 2; ++row) {
        float* upper = opposite + (radix - 1 - row) * rowFloats;
        float* first = next + (radix - 1 - row + later) % radix * rowFloats;
        const Index block = group + spectrum.groups * row;
        for (int lane = 0; lane < 16; lane += L) {
            const Index k = 16 * block + lane;
            Points<L> x, xMirror, z, zMirror;
            if (k == 0) {
                loadEdges<L>(spectrum.in, spectrum.shift, spectrum.points, x, xMirror);
            } else {
                x = loadPairs<L>(spectrum.in + 2 * k - spectrum.shift);
                xMirror = loadPairsBack<L>(spectrum.in + 2 * (spectrum.points - k - L + 1) -
                                           spectrum.shift);
            }
            joinPair(x, xMirror, splitTwiddles<L, twoLevels>(spectrum.tables, block, lane), z,
                     zMirror);
            storeRow(own + row * rowFloats + lane, z);
            float* rest = upper + 16 - L - lane;
            storeRow(rest, mirrorOf<L>(loadRow<L>(rest), zMirror));
            float* edge = lane == 0 ? first : upper + 16 - lane;
            edge[0] = firstLane<L>(zMirror.re);
            edge[16] = firstLane<L>(zMirror.im);
        }
    }
}

// Where point k of the only group of a transform lies.
VSQ_INLINE float* pointIn(float* rows, Index k) {
    return rows + k / 16 * rowFloats + k % 16;
}

// All bins of a transform that has one group. The mirror images of L bins become L points together
// with the first image of the bins that follow.
template <int radix, bool twoLevels>
VSQ_INLINE void joinOnlyGroup(const Spectrum& spectrum, float* rows) {
    constexpr int L = registerLanes;
    constexpr Index points = 16 * radix;
    Points<L> z, zMirror, before;
    loadEdges<L>(spectrum.in, spectrum.shift, points, z, before);
    joinPair(Points<L>(z), Points<L>(before), splitTwiddles<L, twoLevels>(spectrum.tables, 0, 0), z,
             before);
    storeRow(rows, z);
    for (Index k = L; k < points / 2; k += L) {
        const Points<L> x = loadPairs<L>(spectrum.in + 2 * k - spectrum.shift);
        const Points<L> xMirror =
            loadPairsBack<L>(spectrum.in + 2 * (points - k - L + 1) - spectrum.shift);
        joinPair(x, xMirror, splitTwiddles<L, twoLevels>(spectrum.tables, k / 16, int(k % 16)), z,
                 zMirror);
        storeRow(pointIn(rows, k), z);
        storeRow(pointIn(rows, points - k), mirrorOf<L>(zMirror, before));
        before = zMirror;
    }
    const float* pair = spectrum.in + points - spectrum.shift; // X[M / 2], its own mirror image
    const Points<L> middle = {splat<float, L>(-pair[1]), splat<float, L>(pair[0])};
    storeRow(pointIn(rows, points / 2), mirrorOf<L>(middle, before));
}

// Z[M / 2], exchanged.
VSQ_INLINE void joinMiddle(const Spectrum& spectrum, float* row) {
    const float* pair = spectrum.in + spectrum.points - spectrum.shift;
    row[0] = -pair[1];
    row[16] = pair[0];
}

// Groups in pairs i and groups - 1 - i, each transformed as soon as its three sources have been
// joined.
template <int radix, bool twoLevels>
void firstInverse(const Spectrum& spectrum, float* scratch) {
    const GroupOrder order(spectrum.tables);
    const auto target = [&](Index group) VSQ_LAMBDA {
        return scratch + order.place(group) * (radix * rowFloats);
    };
    Group<radix> front[2], back[2];
    float* const zero = front[0].rows;
    if (spectrum.groups == 1) {
        joinOnlyGroup<radix, twoLevels>(spectrum, zero);
        transformGroup<radix>(zero, target(0));
        return;
    }
    front[0].clearFirsts();
    front[1].clearFirsts();
    joinGroup<radix, twoLevels>(spectrum, 0, zero, back[0].rows, zero);
    joinMiddle(spectrum, zero + radix / 2 * rowFloats);
    const Index half = spectrum.groups / 2;
    for (Index i = 1; i <= half; ++i) {
        float* frontBefore = front[(i - 1) & 1].rows;
        float* backBefore = back[(i - 1) & 1].rows;
        float* frontNow =
            i < half ? front[i & 1].rows : backBefore; // the middle group is its own mirror image
        if (i < half)
            joinGroup<radix, twoLevels>(spectrum, i, frontNow, back[i & 1].rows, backBefore);
        joinGroup<radix, twoLevels>(spectrum, spectrum.groups - i, backBefore, frontBefore,
                                    frontNow);
        transformGroup<radix>(frontBefore, target(i - 1));
        transformGroup<radix>(backBefore, target(spectrum.groups - i));
    }
}

// --- the transforms from M = 64 on ---

template <bool twoLevels>
void longForward(const float* in, float* out, int shift, const FftTables& tables, float* scratch) {
    constexpr int L = registerLanes;
    constexpr int atMost8 = L < 8 ? L : 8;
    const Index height = Index{1} << (tables.order - 4);
    if (height >= L)
        columns<L, twoLevels>(in, tables, scratch);
    else if (height == 8)
        columns<atMost8, false>(in, tables, scratch);
    else
        columns<4, false>(in, tables, scratch);
    middlePasses(scratch, 1, height, tables, 0, tables.rows);
    const Spectrum spectrum(nullptr, out, shift, tables);
    const int lastOrder = tables.radixOrder[tables.nPasses - 1];
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
    constexpr int atMost8 = L < 8 ? L : 8;
    const Index height = Index{1} << (tables.order - 4);
    const Spectrum spectrum(in, nullptr, shift, tables);
    const int lastOrder = tables.radixOrder[tables.nPasses - 1];
    if (lastOrder == 4)
        firstInverse<16, twoLevels>(spectrum, scratch);
    else if (lastOrder == 3)
        firstInverse<8, twoLevels>(spectrum, scratch);
    else
        firstInverse<4, twoLevels>(spectrum, scratch);
    middlePassesBack(scratch, 1, height, tables, 0, tables.rows);
    const float twice = 2.0f * scale; // the join halves
    if (height >= L)
        columnsBack<L, twoLevels>(scratch, tables, twice, out);
    else if (height == 8)
        columnsBack<atMost8, false>(scratch, tables, twice, out);
    else
        columnsBack<4, false>(scratch, tables, twice, out);
}

// --- M = 16 and 32: W rows of 4 columns, then 4 rows of W lanes, all in registers ---

template <int W>
VSQ_INLINE void twiddleShort(Points<4> (&x)[W], const FftTables& tables) {
    unroll<W - 1>([&](auto i) VSQ_LAMBDA {
        x[i + 1] = x[i + 1] * loadApart<4>(tables.columns + 8 * i, tables.columns + 8 * i + 4);
    });
}

template <int W>
VSQ_INLINE void shortColumns(Points<4> (&x)[W], const FftTables& tables, Points<W> (&rows)[4]) {
    butterfly(x);
    twiddleShort<W>(x, tables);
    Lanes<4> re[W / 4][4], im[W / 4][4];
    unroll<W / 4>([&](auto part) VSQ_LAMBDA {
        unroll<4>([&](auto i) VSQ_LAMBDA {
            re[part][i] = x[4 * part + i].re;
            im[part][i] = x[4 * part + i].im;
        });
        transpose<4>(re[part]);
        transpose<4>(im[part]);
    });
    unroll<4>([&](auto p) VSQ_LAMBDA {
        if constexpr (W == 4)
            rows[p] = {re[0][p], im[0][p]};
        else
            rows[p] = {join(re[0][p], re[1][p]), join(im[0][p], im[1][p])};
    });
    butterfly(rows);
}

template <int W>
void shortForward(const float* in, float* out, int shift, const FftTables& tables) {
    Points<4> x[W];
    unroll<W>([&](auto j) VSQ_LAMBDA { x[j] = loadPairs<4>(in + 8 * j); });
    Points<W> rows[4];
    shortColumns<W>(x, tables, rows);
    Points<W> low, high, lowMirror, highMirror;
    splitPair(rows[0], mirrorOf<W>(rows[0], rows[3]), splitTwiddles<W, false>(tables, 0, 0), low,
              lowMirror);
    splitPair(rows[1], mirrorOf<W>(rows[3], rows[2]), splitTwiddles<W, false>(tables, 0, W), high,
              highMirror);
    storePairs<W>(out + 2 * W - shift, high);
    // The middle bin comes last: the images of the second row end beside it.
    storePairsBack<W>(out + 4 * W + 2 - shift, highMirror);
    storeEdges<W>(out, shift, 4 * W, low, lowMirror);
    float* middle = out + 4 * W - shift;
    middle[0] = firstLane<W>(rows[2].re);
    middle[1] = -firstLane<W>(rows[2].im);
}

template <int part, int W>
VSQ_INLINE Lanes<4> quarterOf(const Lanes<W>& v) {
    if constexpr (W == 4)
        return v;
    else if constexpr (part == 0)
        return low(v);
    else
        return high(v);
}

template <int W>
VSQ_INLINE void shortColumnsBack(Points<W> (&rows)[4], const FftTables& tables, Points<4> (&x)[W]) {
    butterfly(rows);
    unroll<W / 4>([&](auto part) VSQ_LAMBDA {
        Lanes<4> re[4], im[4];
        unroll<4>([&](auto p) VSQ_LAMBDA {
            re[p] = quarterOf<part, W>(rows[p].re);
            im[p] = quarterOf<part, W>(rows[p].im);
        });
        transpose<4>(re);
        transpose<4>(im);
        unroll<4>([&](auto i) VSQ_LAMBDA { x[4 * part + i] = {re[i], im[i]}; });
    });
    twiddleShort<W>(x, tables);
    butterfly(x);
}

template <int W>
void shortInverse(const float* in, float* out, int shift, float scale, const FftTables& tables) {
    Points<W> edge, edgeMirror, rows[4], lowMirror, highMirror;
    loadEdges<W>(in, shift, 4 * W, edge, edgeMirror);
    const Points<W> bins = loadPairs<W>(in + 2 * W - shift),
                    binsMirror = loadPairsBack<W>(in + 4 * W + 2 - shift);
    joinPair(edge, edgeMirror, splitTwiddles<W, false>(tables, 0, 0), rows[0], lowMirror);
    joinPair(bins, binsMirror, splitTwiddles<W, false>(tables, 0, W), rows[1], highMirror);
    const float* pair = in + 4 * W - shift; // X[M / 2]
    const Points<W> middle = {splat<float, W>(-pair[1]), splat<float, W>(pair[0])};
    rows[2] = mirrorOf<W>(middle, highMirror);
    rows[3] = mirrorOf<W>(highMirror, lowMirror);
    Points<4> x[W];
    shortColumnsBack<W>(rows, tables, x);
    const Lanes<4> factor = splat<float, 4>(2.0f * scale);
    unroll<W>([&](auto j) VSQ_LAMBDA {
        storePairs<4>(out + 8 * j, {x[j].im * factor, x[j].re * factor});
    });
}

// --- the shortest ones: everything in one array of scalars ---

using Point = Complex<float>;

VSQ_INLINE void butterfly(Point (&)[1]) {
}

template <int points>
void scalarForward(const float* in, float* out, int shift, const FftTables& tables) {
    Point z[points];
    for (int k = 0; k < points; ++k)
        z[k] = {in[2 * k], in[2 * k + 1]};
    butterfly(z);
    const float first = z[0].re + z[0].im, last = z[0].re - z[0].im;
    float* pairs = out - shift;
    for (int k = 1; k < points / 2; ++k) {
        Point x, mirror;
        splitPair<float>(z[k], z[points - k], {tables.split[k], tables.split[points + k]}, x,
                         mirror);
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
void scalarInverse(const float* in, float* out, int shift, float scale, const FftTables& tables) {
    const float first = in[0], last = in[shift == 0 ? 1 : 2 * points - 1];
    const float* pairs = in - shift;
    Point z[points];
    z[0] = {(first - last) * 0.5f, (first + last) * 0.5f};
    for (int k = 1; k < points / 2; ++k) {
        const Point x{pairs[2 * k], pairs[2 * k + 1]};
        const Point mirror{pairs[2 * (points - k)], pairs[2 * (points - k) + 1]};
        joinPair<float>(x, mirror, {tables.split[k], tables.split[points + k]}, z[k],
                        z[points - k]);
    }
    if (points > 1) z[points / 2] = {-pairs[points + 1], pairs[points]};
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
        return scalarForward<1>(in, out, 0, tables);
    case 1:
        return scalarForward<2>(in, out, shift, tables);
    case 2:
        return scalarForward<4>(in, out, shift, tables);
    case 3:
        return scalarForward<8>(in, out, shift, tables);
    case 4:
        return shortForward<4>(in, out, shift, tables);
    case 5:
        return shortForward<8>(in, out, shift, tables);
    default:
        return tables.order < twoLevelFrom ? longForward<false>(in, out, shift, tables, scratch)
                                           : longForward<true>(in, out, shift, tables, scratch);
    }
}

void inverse(const float* in, float* out, int shift, float scale, const FftTables& tables,
             float* scratch) {
    switch (tables.order) {
    case 0:
        return scalarInverse<1>(in, out, 0, scale, tables);
    case 1:
        return scalarInverse<2>(in, out, shift, scale, tables);
    case 2:
        return scalarInverse<4>(in, out, shift, scale, tables);
    case 3:
        return scalarInverse<8>(in, out, shift, scale, tables);
    case 4:
        return shortInverse<4>(in, out, shift, scale, tables);
    case 5:
        return shortInverse<8>(in, out, shift, scale, tables);
    default:
        return tables.order < twoLevelFrom
                   ? longInverse<false>(in, out, shift, scale, tables, scratch)
                   : longInverse<true>(in, out, shift, scale, tables, scratch);
    }
}

} // namespace

extern const FftsKernels fftsKernels{
    .forward = forward,
    .inverse = inverse,
};

} // namespace vsq::VSQ_LEVEL
