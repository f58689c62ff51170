// Dynamic time warping: which of the stored patterns is nearest to a test utterance. The grid
// computation itself is kernels/vsqdtw_level; here are the arguments, the band and the scratch of a
// call.
//
// The warping rule (each test frame one step, slopes between 1/2 and 2): F. Itakura, Minimum
// Prediction Residual Principle Applied to Speech Recognition, IEEE Transactions on Acoustics,
// Speech and Signal Processing, 1975.
#include "templates/KT_DTW.h"

#include "frame/scratch.h"

#include "levels/levels.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdlib>

namespace {

using ktl::Scratch;
using ktl::dtw::module;

constexpr double noLimit =
    3.4e+38; // the threshold without a caller's, and the result of a pattern not admitted
constexpr const char* noMemory = "No memory for work arrays allocation";

// What a call asks for, in real values.
struct Request {
    const int* pHandles;
    int nPatterns;
    int nTest;
    int nDim;
    bool cityBlock;
    double threshold;
    long long margin; // columns by which both ends of the band are widened

    Request(const int* handles, int patterns, int test, int dim, int flags, double limit, int delta)
        : pHandles(handles), nPatterns(patterns), nTest(test), nDim(dim),
          cityBlock(flags & KT_DTW_NORM_L1),
          threshold(flags & KT_DTW_USE_THRESHOLD ? limit : noLimit),
          margin(flags & KT_DTW_FIXED_ENDS ? 0 : std::llabs(delta)) {}

    // Between the slopes of 1/2 and 2 a path joins the corners of no other grids.
    template <class Pattern>
    bool admits(const Pattern* pattern) const {
        return pattern != nullptr && nTest > 0 && pattern->nDim == nDim &&
               pattern->nVectors >= ((nTest - 1) >> 1) + 1 &&
               pattern->nVectors <= 2LL * nTest - 1 + margin;
    }
};

// --- conversions of the threshold, defined for every double ---

float nearestFloat(double value) {
    constexpr double roundsToInfinity = 0x1.ffffffp+127;
    if (std::fabs(value) >= roundsToInfinity)
        return std::copysign(HUGE_VALF, value < 0 ? -1.0f : 1.0f);
    if (std::fabs(value) > FLT_MAX) return value < 0 ? -FLT_MAX : FLT_MAX;
    return static_cast<float>(value);
}

// x >= value, for a float x, exactly where x >= the result.
float floatNotBelow(double value) {
    const float nearest = nearestFloat(value);
    return nearest < value ? std::nextafter(nearest, HUGE_VALF) : nearest;
}

// --- the band ---

constexpr long long floorOfThird(long long value) {
    return value >= 0 ? value / 3 : -((2 - value) / 3);
}

// First and last column of each row: a parallelogram between lines of slope 2 and 1/2 through the
// ends of the path, which may lie up to `margin` columns off the corners.
void fillBand(int nRows, int nColumns, int margin, int* bounds) {
    const long long n = nRows, m = nColumns, d = margin;
    const long long lastSteep =
        floorOfThird(2 * m - n - 2 * d - 1); // last row in which the upper edge has slope 2
    const long long firstSteep =
        -floorOfThird(-(4 * n + 2 * d - 2 * m - 2)); // first such row of the lower edge
    for (long long i = 0; i < n; ++i) {
        const long long low = i < firstSteep ? i / 2 : m + 1 - d - 2 * n + 2 * i;
        const long long high = i <= lastSteep ? d + 2 * i : m - 1 - (n - 1 - i) / 2;
        bounds[2 * i] = static_cast<int>(low);
        bounds[2 * i + 1] = static_cast<int>(high);
    }
}

// --- scratch of one call, sized for the longest pattern admitted ---

class WorkArrays {
public:
    // False when memory ran out.
    bool allocate(const Request& request, int maxColumns) {
        rowLength =
            static_cast<std::ptrdiff_t>(maxColumns) + vsq::dtwRoomBefore + vsq::dtwRoomAfter;
        cost = Scratch<float>(2 * rowLength);
        flat = Scratch<int>(2 * rowLength);
        bounds = Scratch<int>(2 * static_cast<std::ptrdiff_t>(request.nTest));
        frames = Scratch<double>(static_cast<long long>(request.nTest) * request.nDim);
        const long long size = vsq::dtwPatternSize(maxColumns, request.nDim);
        columns = Scratch<double>(size);
        if (!cost || !flat || !bounds || !frames || !columns) return false;
        // No row reads what was not written, but for lanes that it drops; they shall hold numbers
        // all the same.
        std::fill_n(columns.get(), size, 0.0);
        for (std::ptrdiff_t i = 0; i < 2 * rowLength; ++i) {
            cost[i] = vsq::dtwDead;
            flat[i] = 0;
        }
        return true;
    }

    double* frame(int i, int nDim) const {
        return frames.get() + static_cast<std::ptrdiff_t>(i) * nDim;
    }

    double evaluate(const Request& request, const float* const* pattern, int nColumns) const {
        const long long margin = request.margin < nColumns - 1 ? request.margin : nColumns - 1;
        fillBand(request.nTest, nColumns, static_cast<int>(margin), bounds.get());
        vsq::DtwGrid grid{};
        grid.test = frames.get();
        grid.pattern = pattern;
        grid.columns = columns.get();
        grid.nRows = request.nTest;
        grid.nColumns = nColumns;
        grid.nDim = request.nDim;
        grid.cityBlock = request.cityBlock;
        grid.bounds = bounds.get();
        grid.threshold = request.threshold;
        grid.pruneFrom = floatNotBelow(request.threshold);
        grid.clampTo = nearestFloat(request.threshold);
        for (int row = 0; row < 2; ++row) {
            grid.cost[row] = cost.get() + row * rowLength + vsq::dtwRoomBefore;
            grid.flat[row] = flat.get() + row * rowLength + vsq::dtwRoomBefore;
        }
        return vsq::kernels().dtw->evaluate(grid);
    }

private:
    std::ptrdiff_t rowLength = 0;
    Scratch<float> cost;
    Scratch<int> flat;
    Scratch<int> bounds;
    Scratch<double> frames;
    Scratch<double> columns;
};

// --- test utterances ---

struct FloatTest {
    using Pattern = sPattern;
    static Pattern* find(int handle) { return KTsPatternPtrGet(handle); }

    float** ppTest;

    bool widen(const Request& request, const WorkArrays& work) const {
        for (int i = 0; i < request.nTest; ++i)
            for (int k = 0; k < request.nDim; ++k)
                work.frame(i, request.nDim)[k] = ppTest[i][k];
        return true;
    }
};

// Real values are those of a float, like the patterns'.
struct FixedTest {
    using Pattern = wPattern;
    static Pattern* find(int handle) { return KTwPatternPtrGet(handle); }

    short** ppTest;
    int scale;

    bool widen(const Request& request, const WorkArrays& work) const {
        Scratch<float> row(request.nDim);
        if (!row) return false;
        for (int i = 0; i < request.nTest; ++i) {
            KTwsbConvertUp(ppTest[i], row.get(), request.nDim, ktl::dtw::negated(scale));
            for (int k = 0; k < request.nDim; ++k)
                work.frame(i, request.nDim)[k] = row[k];
        }
        return true;
    }
};

// --- a whole call ---

template <class Pattern>
int longestAdmitted(const Request& request, Pattern* const* records) {
    int longest = 0;
    for (int k = 0; k < request.nPatterns; ++k)
        if (request.admits(records[k]) && records[k]->nVectors > longest)
            longest = records[k]->nVectors;
    return longest;
}

// The index of the smallest result, the lowest of equal ones, or -1 when memory ran out; then
// pResults is untouched.
template <class Test>
int evaluateAll(const Request& request, const Test& test, double* pResults) {
    Scratch<typename Test::Pattern*> records(request.nPatterns);
    if (!records) return -1;
    for (int k = 0; k < request.nPatterns; ++k)
        records[k] = Test::find(request.pHandles[k]);

    WorkArrays work;
    const int longest = longestAdmitted(request, records.get());
    if (longest > 0 && (!work.allocate(request, longest) || !test.widen(request, work))) return -1;

    int nearest = 0;
    double smallest = noLimit;
    for (int k = 0; k < request.nPatterns; ++k) {
        const auto* record = records[k];
        pResults[k] = request.admits(record)
                          ? work.evaluate(request, ktl::dtw::realRows(*record), record->nVectors)
                          : noLimit;
        if (pResults[k] < smallest) {
            smallest = pResults[k];
            nearest = k;
        }
    }
    return nearest;
}

} // namespace

int KTsEvalDTW(const int* pHandles, int nPatterns, float** ppTest, int nTest, int nDim, int flags,
               double threshold, int delta, double* pResults) {
    if (nPatterns <= 0) return 0;
    const Request request(pHandles, nPatterns, nTest, nDim, flags, threshold, delta);
    const int nearest = evaluateAll(request, FloatTest{ppTest}, pResults);
    if (nearest < 0) module.report(KT_StsNoMem, noMemory);
    return nearest;
}

// Fixed point: test and patterns are compared as real values; only the results are converted, all
// with one scale.
int KTwEvalDTW(const int* pHandles, int nPatterns, short** ppTest, int nTest, int nDim,
               int testScale, int flags, int threshold, int thresholdScale, int delta,
               int* pResults, int scaleMode, int* pScale) {
    if (nPatterns <= 0) return 0;
    const double limit = KTidConvertUp(threshold, ktl::dtw::negated(thresholdScale));
    const Request request(pHandles, nPatterns, nTest, nDim, flags, limit, delta);
    const Scratch<double> results(nPatterns);
    const int nearest =
        results ? evaluateAll(request, FixedTest{ppTest, testScale}, results.get()) : -1;
    if (nearest < 0)
        module.report(KT_StsNoMem, noMemory);
    else
        KTdibConvertDown(results.get(), pResults, nPatterns, scaleMode, pScale);
    return nearest;
}
