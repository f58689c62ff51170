// Float copies of the training set with bounds on their errors: labels by planes, and the farthest
// pair by a search that throws out whole boxes of points. Nothing here decides within a bound's
// margin; what is left goes to the exact distance, so that the tree is the plain loops' own.
#include "quantisers/points.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

namespace ktl::codebook {
namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();
// beyond it products of two lengths may leave the floats: bounds give way
constexpr double farOut = 1e15;

// Bounds below are relative errors with room to spare: the distances are within 2^-22 of the exact
// ones, a coordinate relative to the centre within 2^-24, a float sum of nDim products within (nDim
// + 2) * 2^-24 of the sum of magnitudes.
constexpr double distanceError = 0x1p-22;
double sumError(int nDim) {
    return (nDim + 16.0) * 0x1p-23;
}

const vsq::TreeKernels& kernels() {
    return *vsq::kernels().tree;
}

} // namespace

int strideFor(int nDim) {
    // negative where no int holds it
    return static_cast<int>(roundUp(static_cast<unsigned>(nDim), 16));
}

void toReaches(float* squares, int n, int nDim) {
    const double relative = 1 + sumError(nDim), absolute = std::sqrt(double(nDim)) * 0x1p-60;
    for (int i = 0; i < n; ++i) {
        const double length = std::sqrt(double(squares[i])) * relative + absolute;
        squares[i] = length < farOut ? static_cast<float>(length * 1.0001)
                                     : std::numeric_limits<float>::infinity();
    }
}

float reachOf(float squares, int nDim) {
    toReaches(&squares, 1, nDim);
    return squares;
}

void makePoints(const float* const* rows, int n, const Frame& frame, int nDim, float* points,
                int stride, float* squares) {
    kernels().pointsFloat(rows, n, frame.factor, frame.centre, nDim, points, stride, squares);
}

void makePoints(const short* const* rows, int n, const Frame& frame, int nDim, float* points,
                int stride, float* squares) {
    kernels().pointsFixed(rows, n, frame.centre, nDim, points, stride, squares);
}

float makePoint(const float* row, const Frame& frame, int nDim, float* point, int stride) {
    float squares;
    makePoints(&row, 1, frame, nDim, point, stride, &squares);
    return squares;
}

float makePoint(const short* row, const Frame& frame, int nDim, float* point, int stride) {
    float squares;
    makePoints(&row, 1, frame, nDim, point, stride, &squares);
    return squares;
}

// For exact coordinates y, l, r: |y - r|^2 - |y - l|^2 = y . 2(l - r) + |r|^2 - |l|^2.
template <class Sample>
vsq::Plane planeBetween(const Sample* left, const Sample* right, const Frame& frame, int nDim,
                        double unit, float* normal) {
    double leftSquares = 0, rightSquares = 0, normalSquares = 0;
    const double factor = frame.factor;
    for (int k = 0; k < nDim; ++k) {
        const double centre = frame.centre[k];
        const double l = left[k] * factor - centre, r = right[k] * factor - centre;
        const double direction = 2 * (l - r);
        normal[k] = static_cast<float>(direction);
        leftSquares += l * l;
        rightSquares += r * r;
        normalSquares += direction * direction;
    }
    std::fill(normal + nDim, normal + strideFor(nDim), 0.0f);

    const double far = std::sqrt(std::max(leftSquares, rightSquares)),
                 length = std::sqrt(normalSquares);
    const double offset = rightSquares - leftSquares;
    vsq::Plane plane{};
    if (!(leftSquares < farOut * farOut && rightSquares < farOut * farOut)) { // NaN too
        plane.base = std::numeric_limits<float>::infinity();
        return plane;
    }
    // The two distances d, each below reach + far, are themselves rounded: their squares are off by
    // up to 4 * distanceError * (reach^2 + far^2). The last term of base is for products below the
    // normal floats.
    constexpr double room = 1.01;
    plane.offset = static_cast<float>(offset);
    plane.curve = static_cast<float>(room * 8 * distanceError);
    plane.slope = static_cast<float>(room * length * (sumError(nDim) + 0x1p-21));
    plane.base = static_cast<float>(
        room * (std::fabs(offset) * 0x1p-21 + 8 * distanceError * far * far + nDim * 0x1p-90));
    // Truncated distances surely differ when the exact ones are 1 apart: when the squares are dL +
    // dR apart.
    plane.lead = static_cast<float>(room * unit * 2 * far);
    plane.leadSlope = static_cast<float>(room * unit * 2);
    return plane;
}

template vsq::Plane planeBetween(const float*, const float*, const Frame&, int, double, float*);
template vsq::Plane planeBetween(const short*, const short*, const Frame&, int, double, float*);

vsq::Plane planeOfLeaf() {
    vsq::Plane plane{};
    plane.offset = 1;
    return plane;
}

// --- frames ---

namespace {

// The power of two that brings a magnitude near 1, within what keeps the factor a normal float.
float factorFor(double magnitude) {
    return static_cast<float>(std::ldexp(1.0, std::clamp(-std::ilogb(magnitude), -126, 126)));
}

// The middle one of n values, which are reordered; 0 without values.
double medianOf(double* values, int n) {
    if (n == 0) return 0;
    std::nth_element(values, values + n / 2, values + n);
    return values[n / 2];
}

// How far a row reaches from a centre in one coordinate; not finite where the row is not.
template <class Sample>
double largestDifference(const Sample* row, const float* centre, int nDim) {
    double most = 0;
    for (int k = 0; k < nDim; ++k) {
        const double difference = std::fabs(double(row[k]) - centre[k]);
        if (!(difference <= most)) most = difference;
        if (!std::isfinite(difference)) break;
    }
    return most;
}

} // namespace

template <class Sample>
bool Points<Sample>::allocate(std::uint64_t n) {
    const std::uint64_t nBlocks = (n + vsq::pointBlock - 1) / vsq::pointBlock;
    points_ = Scratch<float>(n * std::uint64_t(stride_));
    centres_ = Scratch<float>(2 * std::uint64_t(stride_));
    // the search has three points of its own there
    normal_ = Scratch<float>(3 * std::uint64_t(stride_));
    reach_ = Scratch<float>(n);
    squares_ = Scratch<float>(2 * n);
    blocks_ = Scratch<float>(nBlocks * vsq::pointBlock * std::uint64_t(set_.nDim));
    sums_ = Scratch<double>(2 * std::int64_t(set_.nDim));
    candidates_ = Scratch<Candidate>(n);
    slots_ = Scratch<int>(n);
    order_ = Scratch<int>(nBlocks);
    const std::uint64_t nGroups = (nBlocks + vsq::boxBlock - 1) / vsq::boxBlock;
    const std::uint64_t nGroupBlocks = (nGroups + vsq::boxBlock - 1) / vsq::boxBlock;
    boxes_ = Scratch<float>((nGroups + nGroupBlocks) * vsq::boxBlock *
                            (2 * std::uint64_t(set_.nDim) + 1));
    boxOrder_ = Scratch<int>(nGroups);
    labels_ = Scratch<char>(n);
    return points_ && centres_ && normal_ && reach_ && squares_ && blocks_ && sums_ &&
           candidates_ && slots_ && order_ && boxes_ && boxOrder_ && labels_;
}

template <class Sample>
bool Points<Sample>::take(const Vectors& set, const Sample* const* rows) {
    set_ = set;
    rows_ = rows;
    stride_ = strideFor(set.nDim);
    isOwn_ = hasStrange_ = false;
    if (stride_ < 0 || !allocate(static_cast<std::uint64_t>(std::max(set.nVectors, 0))))
        return false;
    chooseCommonFrame();
    bool isStray = false;
    for (int i = 0; i < set.nVectors; ++i) {
        float* point = points_.get() + std::ptrdiff_t(i) * stride_;
        reach_[i] = reachOf(makePoint(rows[i], common(), set.nDim, point, stride_), set.nDim);
        isStray = isStray || !std::isfinite(reach_[i]);
    }
    return !isStray || sortOut();
}

// Tells the vectors that are not finite from those that are only far out; false when memory ran
// out.
template <class Sample>
bool Points<Sample>::sortOut() {
    kinds_ = Scratch<Kind>(set_.nVectors);
    kept_ = Scratch<int>(2 * std::int64_t(set_.nVectors));
    patterns_ = Scratch<Pattern>(set_.nVectors);
    if (!kinds_ || !kept_ || !patterns_) return false;
    for (int i = 0; i < set_.nVectors; ++i) {
        kinds_[i] = finite;
        for (int k = 0; k < set_.nDim && kinds_[i] != missing; ++k) {
            const auto value = double(rows_[i][k]);
            if (value != value)
                kinds_[i] = missing;
            else if (std::isinf(value))
                kinds_[i] = infinite;
        }
        hasStrange_ = hasStrange_ || kinds_[i] != finite;
    }
    return true;
}

// The centre has the medians of a sample for its elements, which stray vectors do not move as they
// move the mean. The middle one of the sample's magnitudes decides about scaling: what is ordinary
// is not scaled.
template <class Sample>
void Points<Sample>::chooseCommonFrame() {
    constexpr int most = 255;
    double values[most];
    const int n = std::max(set_.nVectors, 0), count = std::min(n, most);
    const auto row = [&](int i) { return rows_[std::int64_t(i) * n / count]; };
    float* const centre = centres_.get();
    for (int k = 0; k < set_.nDim; ++k) {
        int known = 0;
        for (int i = 0; i < count; ++i)
            if (std::isfinite(double(row(i)[k]))) values[known++] = double(row(i)[k]);
        centre[k] = static_cast<float>(medianOf(values, known));
    }
    factors_[0] = 1;
    if (set_.unit != 0) return;
    int known = 0;
    for (int i = 0; i < count; ++i) {
        const double magnitude = largestDifference(row(i), centre, set_.nDim);
        if (magnitude > 0 && std::isfinite(magnitude)) values[known++] = magnitude;
    }
    const double middle = medianOf(values, known);
    if (known == 0 || (middle > 0x1p-20 && middle < 0x1p30)) return;
    factors_[0] = factorFor(middle);
    for (int k = 0; k < set_.nDim; ++k)
        centre[k] *= factors_[0];
}

// A frame for one list: around a member, and scaled so that the points fill it.
template <class Sample>
void Points<Sample>::chooseOwnFrame(const int* members, int n) {
    float* const centre = ownCentre();
    const auto isFinite = [this](int member) { return !hasStrange_ || kinds_[member] == finite; };
    std::fill(centre, centre + set_.nDim, 0.0f);
    for (int i = 0; i < n; ++i) {
        if (!isFinite(members[i])) continue;
        for (int k = 0; k < set_.nDim; ++k)
            centre[k] = static_cast<float>(rows_[members[i]][k]);
        break;
    }
    factors_[1] = 1;
    if (set_.unit != 0) return;
    double most = 0;
    for (int i = 0; i < n; ++i)
        if (isFinite(members[i]))
            most = std::max(most, largestDifference(rows_[members[i]], centre, set_.nDim));
    if (most > 0) factors_[1] = factorFor(most);
    for (int k = 0; k < set_.nDim; ++k)
        centre[k] *= factors_[1];
}

template <class Sample>
void Points<Sample>::makePoints(const int* members, int n) {
    for (int i = 0; i < n; ++i) {
        const int m = members[i];
        float* const point = points_.get() + std::ptrdiff_t(m) * stride_;
        reach_[m] = reachOf(makePoint(rows_[m], frame(), set_.nDim, point, stride_), set_.nDim);
    }
}

template <class Sample>
void Points<Sample>::select(const int* members, int n, bool hasOwnFrame) {
    isOwn_ = hasOwnFrame;
    if (!hasOwnFrame) return;
    chooseOwnFrame(members, n);
    makePoints(members, n);
}

template <class Sample>
void Points<Sample>::label(const int* members, int n, const vsq::Plane& plane) {
    kernels().sides(points_.get(), reach_.get(), stride_, members, n, normal(), &plane, labels());
}

// --- farthest pair ---

// Every pair is below the sum of its members' distances (radii) from any one point. So once a good
// pair is known, only members far out can be part of a better one: they are sorted by radius, and
// each is compared with those before which the sum of the radii does not do. A float distance then
// tells which of them the distance itself has to judge.
template <class Sample>
class Points<Sample>::Search {
public:
    Search(Points& points, const int* list, int length)
        : own(points), members(list), n(length), factor(double(points.frame().factor)) {
        float most = 0;
        for (int i = 0; i < n; ++i)
            most = std::max(most, own.reach_[members[i]]);
        // Two exact points are at most this much farther apart than their float copies.
        slack = 2 * (most * 0x1p-22 + std::sqrt(double(own.set_.nDim)) * 0x1p-60);
        error = sumError(own.set_.nDim);
    }

    // False when the points are too coarse for the list, unless these have to do.
    bool run(FarPair& result, bool mustDo) {
        if (n <= plainLimit) {
            comparePlainly();
        } else {
            if (!mustDo && !std::isfinite(slack)) return false;
            if (!findGoodPair()) {
                if (!mustDo && slack > best.spread * factor * 0x1p-8) return false;
                compareFarOnes();
            }
        }
        result = best;
        return true;
    }

private:
    static constexpr int plainLimit = 8;

    // Judges the pair of two places by the distance itself. Of equal distances the pair that the
    // double loop meets first stands.
    void judge(int i, int j) {
        const int first = std::min(i, j), second = std::max(i, j);
        const double distance = own.set_.distance(own.set_, members[first], members[second]);
        if (distance > best.spread || (distance == best.spread && isBeforeBest(first, second)))
            best = {distance, first, second};
    }

    bool isBeforeBest(int first, int second) const {
        return first < best.first || (first == best.first && second < best.second);
    }

    void comparePlainly() {
        for (int i = 0; i < n; ++i)
            for (int j = i + 1; j < n; ++j)
                judge(i, j);
    }

    // Goes from one member to the farthest from it, a few times. True when that settles it: all
    // vectors are equal.
    bool findGoodPair() {
        for (int round = 0, from = 0; round < 6; ++round) {
            const double before = best.spread;
            kernels().squaresFrom(own.points_.get(), own.stride_, members, n,
                                  own.pointOf(members[from]), own.squares_.get());
            const int farthest = placeOfLargest(own.squares_.get());
            if (farthest != from) judge(from, farthest);
            if (best.spread == before) break;
            from = farthest;
        }
        return best.spread == 0 && allEqualFirst();
    }

    int placeOfLargest(const float* squares) const {
        int place = 0;
        for (int i = 1; i < n; ++i)
            place = squares[i] > squares[place] ? i : place;
        return place;
    }

    bool allEqualFirst() const {
        for (int i = 1; i < n; ++i)
            if (own.set_.distance(own.set_, members[0], members[i]) != 0) return false;
        return true;
    }

    void compareFarOnes() {
        updateCuts();
        const float* squares = squaresFromCentre();
        count = removeEqual(collectFarOnes(squares));
        for (int i = 0; i < count; ++i)
            own.slots_[i] = i;
        if (double(rowsLeft()) * count > manyPairs)
            compareByBoxes();
        else
            compareByRadii();
    }

    void compareByRadii() {
        fillBlocks();
        int end = count;
        for (int i = 0; i + 1 < end; ++i) {
            while (end > i + 1 &&
                   own.candidates_[i].radius + own.candidates_[end - 1].radius < cuts.radii)
                --end;
            compareRow(i, end);
        }
    }

    // The candidates that can be the one farther out of a pair.
    int rowsLeft() const {
        int rows = 0;
        while (rows < count && 2 * own.candidates_[rows].radius >= cuts.radii)
            ++rows;
        return rows;
    }

    // Radii may be taken from any point. The mean suits clouds and single vectors far out, the
    // middle of the good pair suits skewed sets; the one that leaves fewer pairs is used.
    const float* squaresFromCentre() {
        const int nDim = own.set_.nDim;
        float* centre = own.normal();
        float* const fromMean = own.squares_.get();
        float* const fromMiddle = fromMean + n;
        std::fill(centre, centre + 2 * std::ptrdiff_t(own.stride_), 0.0f);
        std::fill(own.sums_.get(), own.sums_.get() + nDim, 0.0);
        for (int i = 0; i < n; ++i)
            kernels().addFloat(own.pointOf(members[i]), own.sums_.get(), nDim);
        for (int k = 0; k < nDim; ++k)
            centre[k] = static_cast<float>(own.sums_[k] / n);
        kernels().squaresFrom(own.points_.get(), own.stride_, members, n, centre, fromMean);

        centre += own.stride_;
        const float* const a = own.pointOf(members[best.first]);
        const float* const b = own.pointOf(members[best.second]);
        for (int k = 0; k < nDim; ++k)
            centre[k] = 0.5f * a[k] + 0.5f * b[k];
        kernels().squaresFrom(own.points_.get(), own.stride_, members, n, centre, fromMiddle);
        chooseMirror(fromMean, fromMiddle);
        return pairsLeft(fromMiddle) < pairsLeft(fromMean) ? fromMiddle : fromMean;
    }

    // The mirror is the point of the two that is nearer to the middle of the smallest ball around
    // all.
    void chooseMirror(const float* fromMean, const float* fromMiddle) {
        const float mean = fromMean[placeOfLargest(fromMean)];
        const float middle = fromMiddle[placeOfLargest(fromMiddle)];
        mirror = own.normal() + (middle < mean ? own.stride_ : 0);
        fromMirror = middle < mean ? fromMiddle : fromMean;
        mirrorError = 64.0 * error * std::min(mean, middle);
    }

    // Of a pair whose radii do, the larger one is at least half of the sum wanted.
    double pairsLeft(const float* squares) const {
        const double least = std::max(cuts.radii - radiusOf(squares[placeOfLargest(squares)]), 0.0);
        const double half = std::max(cuts.radii / 2, 0.0);
        int larger = 0, smaller = 0;
        for (int i = 0; i < n; ++i) {
            larger += !(double(squares[i]) < half * half);
            smaller += !(double(squares[i]) < least * least);
        }
        return double(larger) * smaller;
    }

    // A distance reaches `wanted` only if the float copies are at least this far apart.
    double apart(double wanted) const {
        return std::max(wanted * factor * (1 - distanceError) - slack, 0.0);
    }

    // The float square below which two float copies are surely less than that apart.
    float squareCut(double wanted) const {
        const double least = apart(wanted);
        const double square = least * least * (1 - 2 * error) - own.set_.nDim * 0x1p-120;
        return square > 0 ? static_cast<float>(square * (1 - 0x1p-22)) : 0.0f;
    }

    void updateCuts() {
        cuts.radii = apart(best.spread) * (1 - 2 * error) - slack;
        cuts.limit = squareCut(best.spread);
        cuts.above = squareCut(best.spread + own.set_.unit);
    }

    // An overflow or NaN counts as farthest out.
    static double radiusOf(float square) {
        return square <= std::numeric_limits<float>::max() ? std::sqrt(double(square)) : infinity;
    }

    int collectFarOnes(const float* squares) {
        double most = 0;
        for (int i = 0; i < n; ++i)
            most = std::max(most, radiusOf(squares[i]));
        int found = 0;
        for (int i = 0; i < n; ++i) {
            const double radius = radiusOf(squares[i]);
            if (radius + most < cuts.radii) continue;
            own.candidates_[found++] = {radius, hashOf(own.pointOf(members[i])), i};
        }
        std::sort(own.candidates_.get(), own.candidates_.get() + found,
                  [](const auto& a, const auto& b) {
                      if (a.radius != b.radius) return a.radius > b.radius;
                      return a.hash != b.hash ? a.hash < b.hash : a.place < b.place;
                  });
        return found;
    }

    unsigned hashOf(const float* point) const {
        unsigned hash = 0;
        for (int k = 0; k < own.set_.nDim; ++k) {
            std::uint32_t bits;
            std::memcpy(&bits, point + k, sizeof bits);
            hash = (hash ^ bits) * 0x9E3779B1u;
            hash ^= hash >> 15;
        }
        return hash;
    }

    // Of members with the same vector only the first in the list can be in the pair that is looked
    // for.
    int removeEqual(int found) {
        int kept = 0;
        for (int i = 0; i < found; ++i) {
            const Candidate& next = own.candidates_[i];
            if (kept == 0 || !isSameVector(own.candidates_[kept - 1].place, next.place))
                own.candidates_[kept++] = next;
        }
        return kept;
    }

    bool isSameVector(int i, int j) const {
        return std::memcmp(own.pointOf(members[i]), own.pointOf(members[j]),
                           std::size_t(own.set_.nDim) * sizeof(float)) == 0 &&
               own.set_.distance(own.set_, members[i], members[j]) == 0;
    }

    void fillBlocks() {
        const int nDim = own.set_.nDim;
        for (int start = 0, block = 0; start < count; start += vsq::pointBlock, ++block) {
            int list[vsq::pointBlock];
            int first = std::numeric_limits<int>::max();
            for (int i = 0; i < vsq::pointBlock; ++i) { // the last one fills the block up
                const int place = placeAt(std::min(start + i, count - 1));
                list[i] = members[place];
                first = std::min(first, place);
            }
            own.order_[block] = first;
            kernels().transposeBlock(own.points_.get(), own.stride_, list, nDim,
                                     own.blocks_.get() +
                                         std::ptrdiff_t(block) * vsq::pointBlock * nDim);
        }
    }

    int placeAt(int slot) const { return own.candidates_[own.slots_[slot]].place; }

    // Compares candidate i with those from i + 1 to end - 1.
    void compareRow(int i, int end) {
        const int place = own.candidates_[i].place;
        const float* const point = own.pointOf(members[place]);
        const int endBlock = (end + vsq::pointBlock - 1) / vsq::pointBlock;
        for (int block = (i + 1) / vsq::pointBlock;; ++block) {
            unsigned masks[2];
            block = kernels().nextFar(point, own.blocks_.get(), own.set_.nDim, block, endBlock,
                                      cuts.limit, cuts.above, masks);
            if (block >= endBlock) return;
            // Pairs that can only be as far apart as the best one matter when they come before it.
            if (std::min(place, own.order_[block]) > best.first) masks[0] &= masks[1];
            compareLanes(place, block, i + 1, end, masks);
        }
    }

    void compareLanes(int place, int block, int from, int end, const unsigned* masks) {
        const double before = best.spread;
        const int start = block * vsq::pointBlock;
        for (unsigned left = masks[0]; left != 0; left &= left - 1) {
            const int lane = __builtin_ctz(left);
            if (start + lane >= count) continue;
            const int j = own.slots_[start + lane];
            const int other = own.candidates_[j].place;
            if (j < from || j >= end || other == place) continue;
            if ((masks[1] >> lane & 1u) != 0 ||
                isBeforeBest(std::min(place, other), std::max(place, other)))
                judge(place, other);
        }
        if (best.spread != before) updateCuts();
    }

    // --- many candidates, of which the radii tell little: boxes around those that are near each
    // other ---

    static constexpr double manyPairs = 1 << 22;
    // the candidates of a block of boxes
    static constexpr int group = vsq::pointBlock * vsq::boxBlock;

    void compareByBoxes() {
        orderSlots(0, count, 0);
        fillBlocks();
        fillBoxes();
        compareFirstPlaces();
        for (int i = 0; i + 1 < count && 2 * own.candidates_[i].radius >= cuts.radii; ++i)
            compareWithBoxes(i, i + 1);
    }

    // Brings candidates that are near each other together: halves the slots from `first` to `last`
    // along their widest coordinate, at its middle as nearly as whole blocks allow. Sets that are
    // very uneven are halved by number from some depth on.
    void orderSlots(int first, int last, int depth) {
        const int size = last - first;
        if (size <= vsq::pointBlock) return;
        const int unit = size > group ? group : vsq::pointBlock, most = (size - 1) / unit * unit;
        const Extent widest = widestOf(first, last);
        int* const slots = own.slots_.get();
        const auto valueOf = [&](int slot) {
            return own.pointOf(members[own.candidates_[slot].place])[widest.coordinate];
        };
        int half = size / 2;
        if (depth < 24)
            half = int(std::count_if(slots + first, slots + last,
                                     [&](int slot) { return valueOf(slot) < widest.middle; }));
        half = std::clamp((half + unit / 2) / unit * unit, unit, most);
        std::nth_element(slots + first, slots + first + half, slots + last,
                         [&](int a, int b) { return valueOf(a) < valueOf(b); });
        orderSlots(first, first + half, depth + 1);
        orderSlots(first + half, last, depth + 1);
    }

    struct Extent {
        int coordinate;
        float middle;
    };

    Extent widestOf(int first, int last) const {
        const int nDim = own.set_.nDim;
        double* const bounds = own.sums_.get(); // lower ones, and after them upper ones
        for (int slot = first; slot < last; ++slot) {
            const float* const point = own.pointOf(members[placeAt(slot)]);
            for (int k = 0; k < nDim; ++k) {
                const double value = point[k];
                bounds[k] = slot == first ? value : std::min(bounds[k], value);
                bounds[nDim + k] = slot == first ? value : std::max(bounds[nDim + k], value);
            }
        }
        int widest = 0;
        for (int k = 1; k < nDim; ++k)
            if (bounds[nDim + k] - bounds[k] > bounds[nDim + widest] - bounds[widest]) widest = k;
        return {widest, static_cast<float>((bounds[widest] + bounds[nDim + widest]) / 2)};
    }

    float* boxBlockAt(int block) const {
        return own.boxes_.get() + std::ptrdiff_t(block) * vsq::boxBlockSize(own.set_.nDim);
    }

    // One block of boxes for each group of 256 candidates; after them, in blocks too, the boxes
    // around these.
    void fillBoxes() {
        const int nBlocks = (count + vsq::pointBlock - 1) / vsq::pointBlock;
        groups = (nBlocks + vsq::boxBlock - 1) / vsq::boxBlock;
        groupBlocks = (groups + vsq::boxBlock - 1) / vsq::boxBlock;
        for (int block = 0; block < groups * vsq::boxBlock; ++block)
            fillBox(block, block < nBlocks);
        for (int i = 0; i < groupBlocks * vsq::boxBlock; ++i)
            fillGroup(i, i < groups);
    }

    void fillBox(int block, bool exists) {
        const int nDim = own.set_.nDim, lane = block % vsq::boxBlock;
        float* const box = boxBlockAt(block / vsq::boxBlock) + lane;
        const float* const points =
            own.blocks_.get() + std::ptrdiff_t(block) * vsq::pointBlock * nDim;
        for (int k = 0; k < nDim; ++k) {
            const float* const first = points + std::ptrdiff_t(k) * vsq::pointBlock;
            const auto ends = exists ? std::minmax_element(first, first + vsq::pointBlock)
                                     : std::pair<const float*, const float*>{};
            box[2 * vsq::boxBlock * k] = exists ? *ends.first : 0.0f;
            box[2 * vsq::boxBlock * k + vsq::boxBlock] = exists ? *ends.second : 0.0f;
        }
        float reach = -std::numeric_limits<float>::infinity();
        for (int slot = block * vsq::pointBlock; exists && slot < count; ++slot) {
            if (slot == (block + 1) * vsq::pointBlock) break;
            reach = std::max(reach, 2 * fromMirror[placeAt(slot)]);
        }
        box[2 * vsq::boxBlock * nDim] = reach;
    }

    void fillGroup(int i, bool exists) {
        const int nDim = own.set_.nDim, size = vsq::boxBlock;
        float* const box = boxBlockAt(groups + i / size) + i % size;
        const float* const parts = boxBlockAt(exists ? i : 0);
        const int nBlocks = (count + vsq::pointBlock - 1) / vsq::pointBlock;
        const int nParts = exists ? std::min(nBlocks - i * size, size) : 1;
        for (int k = 0; k < nDim; ++k) {
            const float *const low = parts + 2 * size * k, *const high = low + size;
            box[2 * size * k] = *std::min_element(low, low + nParts);
            box[2 * size * k + size] = *std::max_element(high, high + nParts);
        }
        const float* const reach = parts + 2 * size * nDim;
        box[2 * size * nDim] = exists ? *std::max_element(reach, reach + nParts)
                                      : -std::numeric_limits<float>::infinity();
        if (exists)
            own.boxOrder_[i] = *std::min_element(own.order_.get() + i * size,
                                                 own.order_.get() + i * size + nParts);
    }

    // Where many pairs are equally far apart the first ones settle which stands, and only a larger
    // distance matters from then on.
    void compareFirstPlaces() {
        int before = -1;
        for (int round = 0; round < 4; ++round) {
            int first = -1;
            for (int i = 0; i < count; ++i) {
                const int place = own.candidates_[i].place;
                if (place > before && (first < 0 || place < own.candidates_[first].place))
                    first = i;
            }
            if (first < 0) return;
            before = own.candidates_[first].place;
            compareWithBoxes(first, 0);
        }
    }

    // Compares candidate i with those from `from` on.
    void compareWithBoxes(int i, int from) {
        const int place = own.candidates_[i].place, nDim = own.set_.nDim;
        const float* const point = own.pointOf(members[place]);
        float* const mirrored = own.normal() + 2 * std::ptrdiff_t(own.stride_);
        for (int k = 0; k < nDim; ++k)
            mirrored[k] = 2 * mirror[k] - point[k];
        const Row row{
            i,     from,     place,
            point, mirrored, static_cast<float>((2.0 * fromMirror[place] + mirrorError) * 1.0001)};
        for (int block = 0; block < groupBlocks; ++block)
            for (unsigned left =
                     farBoxes(row, groups + block, own.boxOrder_.get() + block * vsq::boxBlock);
                 left != 0; left &= left - 1)
                compareWithGroup(row, block * vsq::boxBlock + __builtin_ctz(left));
    }

    struct Row {
        int candidate, from, place;
        const float *point, *mirrored;
        float twice;
    };

    void compareWithGroup(const Row& row, int i) {
        const int firstBlock = i * vsq::boxBlock;
        for (unsigned left = farBoxes(row, i, own.order_.get() + firstBlock); left != 0;
             left &= left - 1) {
            const int block = firstBlock + __builtin_ctz(left);
            unsigned masks[2];
            if (kernels().nextFar(row.point, own.blocks_.get(), own.set_.nDim, block, block + 1,
                                  cuts.limit, cuts.above, masks) != block)
                continue;
            if (std::min(row.place, own.order_[block]) > best.first) masks[0] &= masks[1];
            compareLanes(row.place, block, row.from, count, masks);
        }
    }

    // The boxes of a block that may hold a partner that matters. `firstPlaces` has the smallest
    // place of each box that is not empty.
    unsigned farBoxes(const Row& row, int block, const int* firstPlaces) const {
        unsigned masks[2];
        kernels().farBoxes(row.point, row.mirrored, row.twice, boxBlockAt(block), own.set_.nDim,
                           cuts.limit, cuts.above, masks);
        unsigned result = masks[1];
        for (unsigned left = masks[0] & ~masks[1]; left != 0; left &= left - 1) {
            const int lane = __builtin_ctz(left);
            if (std::min(row.place, firstPlaces[lane]) <= best.first) result |= 1u << lane;
        }
        return result;
    }

    Points& own;
    const int* members;
    int n;
    int count = 0; // candidates
    int groups = 0, groupBlocks = 0;
    // the point, and the squared distances from it
    const float *mirror = nullptr, *fromMirror = nullptr;
    double mirrorError = 0; // of a bound by the mirror
    double factor, slack, error;
    FarPair best;
    Cuts cuts{};
};

// --- the farthest pair of any vectors ---

template <class Sample>
FarPair Points<Sample>::farthest(const int* members, int n, bool hasOwnFrame) {
    isOwn_ = false;
    if (hasOwnFrame) makePoints(members, n);
    if (!hasStrange_) return search(members, n);
    const FarPair pair = firstInfinitePair(members, n);
    return pair.spread > 0 ? pair : searchFinite(members, n);
}

template <class Sample>
FarPair Points<Sample>::search(const int* members, int n) {
    FarPair pair;
    if (Search(*this, members, n).run(pair, false)) return pair;
    select(members, n, true);
    Search(*this, members, n).run(pair, true);
    pair.hasOwnFrame = true;
    return pair;
}

// A distance from a vector that is not finite is not a number here, or there would be an infinite
// one: no such pair is ever the farthest.
template <class Sample>
FarPair Points<Sample>::searchFinite(const int* members, int n) {
    int* const list = kept_.get();
    int* const places = list + set_.nVectors;
    int count = 0;
    for (int i = 0; i < n; ++i) {
        if (kinds_[members[i]] != finite) continue;
        places[count] = i;
        list[count++] = members[i];
    }
    FarPair pair = search(list, count);
    if (pair.spread > 0) {
        pair.first = places[pair.first];
        pair.second = places[pair.second];
    }
    return pair;
}

template <class Sample>
bool Points<Sample>::isInfinite(const int* members, int i, int j) const {
    return std::isinf(set_.distance(set_, members[i], members[j]));
}

// The distance of a finite vector from an infinite one is infinite.
template <class Sample>
FarPair Points<Sample>::firstInfinitePair(const int* members, int n) {
    int firstOf[] = {n, n, n};
    for (int i = n; i-- > 0;)
        firstOf[kinds_[members[i]]] = i;
    const int end = firstOf[finite], from = firstOf[infinite];
    if (from == n) return {};
    if (end == n) return firstPairOfPatterns(members, n);
    if (end < from) return {infinity, end, from};
    for (int j = from + 1; j < end; ++j)
        if (kinds_[members[j]] == infinite && isInfinite(members, from, j))
            return {infinity, from, j};
    return {infinity, from, end};
}

template <class Sample>
typename Points<Sample>::Pattern Points<Sample>::patternOf(int member, int place) const {
    Pattern pattern{0, 0, place};
    for (int k = 0; k < set_.nDim; ++k) {
        const auto value = double(rows_[member][k]);
        if (std::isinf(value))
            (value > 0 ? pattern.positive : pattern.negative) |= std::uint64_t(1) << k % 64;
    }
    return pattern;
}

// Two vectors with the same infinity in one element are at no distance from each other; those with
// none in common are infinitely far apart. So one vector of each pattern is enough, the first;
// there are few patterns.
template <class Sample>
FarPair Points<Sample>::firstPairOfPatterns(const int* members, int n) {
    int count = 0;
    Pattern* const patterns = patterns_.get();
    for (int i = 0; i < n; ++i)
        if (kinds_[members[i]] == infinite) patterns[count++] = patternOf(members[i], i);
    const bool isExact = set_.nDim <= 64;
    if (isExact) {
        std::sort(patterns, patterns + count, [](const Pattern& a, const Pattern& b) {
            if (a.positive != b.positive) return a.positive < b.positive;
            return a.negative != b.negative ? a.negative < b.negative : a.place < b.place;
        });
        count = int(std::unique(patterns, patterns + count,
                                [](const Pattern& a, const Pattern& b) {
                                    return a.positive == b.positive && a.negative == b.negative;
                                }) -
                    patterns);
        std::sort(patterns, patterns + count,
                  [](const Pattern& a, const Pattern& b) { return a.place < b.place; });
    }
    for (int i = 0; i < count; ++i)
        for (int j = i + 1; j < count; ++j) {
            const Pattern &a = patterns[i], &b = patterns[j];
            const bool isApart = ((a.positive & b.positive) | (a.negative & b.negative)) == 0;
            if (isApart || (!isExact && isInfinite(members, a.place, b.place)))
                return {infinity, a.place, b.place};
        }
    return {};
}

template class Points<float>;
template class Points<short>;

} // namespace ktl::codebook
