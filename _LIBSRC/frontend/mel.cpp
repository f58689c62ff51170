// Mel filter bank: design and filtering.
//
// Triangular filters, optionally evenly spaced up to a frequency and on the mel scale above it,
// each normalised to weights that add up to 1. The design works in double, step by step in a fixed
// order, because which bins a filter gets hangs on the last bit of a frequency: bin frequencies are
// summed, not multiplied.
//
// S. B. Davis, P. Mermelstein: Comparison of Parametric Representations for Monosyllabic Word
// Recognition in Continuously Spoken Sentences. IEEE Transactions on Acoustics, Speech, and Signal
// Processing 28(4), 1980.
#include "frontend/mel.h"

#include "frame/KT_ERROR.h"
#include "frame/scratch.h"
#include "levels/levels.h"

#include <algorithm>
#include <bit>
#include <climits>
#include <cmath>
#include <cstdint>
#include <numbers>

namespace {

constexpr ktl::Module module{"..\\_LIBSRC\\KT_CEPS"};

using vsq::MelPlan;

// A filter's edges in Hz.
struct FilterEdges {
    double left;
    double centre;
    double right;
};

void releaseFilters(void* filters) {
    KTsFreeMFCCFilters(static_cast<KTMFCCFilters*>(filters));
}
using FiltersGuard = ktl::Held<KTMFCCFilters, releaseFilters>;
using EdgesGuard = ktl::Held<FilterEdges, vsq::freeAligned>;

// --- mel scale ---

struct MelScale {
    double mul;
    double div;

    double mel(double hertz) const { return mul * std::log10(1.0 + hertz / div); }
    double hertz(double mel) const { return (std::pow(10.0, mel / mul) - 1.0) * div; }
};

// The thread's scale. A divisor of 0 stands for "never set", and it alone decides: it brings in
// both defaults.
MelScale threadMelScale() {
    auto& ceps = KTGetContext()->Ceps;
    if (ceps.melDiv == 0.0f) {
        ceps.melMul = 2595.0f;
        ceps.melDiv = 700.0f;
    }
    return {ceps.melMul, ceps.melDiv};
}

// --- edges ---

// What the caller asked for, with counts that can be relied on.
struct BankRequest {
    int fftOrder;
    int nFilters; // 0 or more
    int lowFreq;
    int highFreq;
    int sampleFreq;
    int nLinear; // filters of the linear part, 0 where there is none
    int linearTop;
};

BankRequest soundRequest(int fftOrder, int nFilters, int lowFreq, int highFreq, int sampleFreq,
                         int nLinear, int linearTop) {
    const int filters = std::max(nFilters, 0);
    const int linear = linearTop > lowFreq ? std::clamp(nLinear, 0, filters) : 0;
    return {fftOrder, filters, lowFreq, highFreq, sampleFreq, linear, linearTop};
}

double melStepOf(double melLow, double melHigh, int nMel) {
    return (melHigh - melLow) / (0.5 * nMel + 0.5);
}

// The filters from `first` on, evenly spaced in mel from melCur; neighbours overlap by half.
void melEdges(const MelScale& scale, double melCur, double melStep, int first, int nFilters,
              FilterEdges* edges) {
    for (int i = first; i < nFilters; ++i) {
        edges[i].left = scale.hertz(melCur);
        edges[i].right = scale.hertz(melCur + melStep);
        melCur += 0.5 * melStep;
        edges[i].centre = scale.hertz(melCur);
    }
}

// The linear part. Its last filter joins the parts: it begins like the others and ends half a mel
// step beyond the place where its centre would be, with the centre in the middle.
void linearEdges(const BankRequest& request, const MelScale& scale, double melStep,
                 FilterEdges* edges) {
    const double span = static_cast<double>(request.linearTop) - request.lowFreq;
    const double linStep = span * (2.0 / request.nLinear);
    const double half = 0.5 * linStep;
    double cur = request.lowFreq;
    const int last = request.nLinear - 1;
    for (int i = 0; i < last; ++i) {
        edges[i] = {cur, cur + half, cur + linStep};
        cur += half;
    }
    edges[last].left = cur;
    edges[last].right = scale.hertz(scale.mel(cur + half) + 0.5 * melStep);
    edges[last].centre = 0.5 * (edges[last].left + edges[last].right);
}

void placeEdges(const BankRequest& request, const MelScale& scale, FilterEdges* edges) {
    const double melHigh = scale.mel(request.highFreq);
    const double melLow = scale.mel(request.nLinear > 0 ? request.linearTop : request.lowFreq);
    const double melStep = melStepOf(melLow, melHigh, request.nFilters - request.nLinear);
    if (request.nLinear > 0) linearEdges(request, scale, melStep, edges);
    melEdges(scale, melLow, melStep, request.nLinear, request.nFilters, edges);
}

// --- bins of a filter ---

// The bins that a filter covers, and their neighbours.
struct BinRun {
    int first; // first bin inside, its frequency, and how many there are
    double firstFreq;
    int count;
    int below; // last bin below the left edge, or 0
    int above; // bin at which the scan stopped, or the last one
};

// Finds each filter's bins by going through all bins upward. Edges mostly ascend from filter to
// filter: then the scan goes on from the last bin below the previous left edge, which gives what a
// scan from bin 0 gives.
class BinScan {
public:
    // The last bin stands for the sampling frequency itself, hence the divisor of one less than the
    // length.
    BinScan(int sampleFreq, int fftLen)
        : binStep(static_cast<double>(sampleFreq) / (static_cast<double>(fftLen) - 1.0)),
          nBins(fftLen) {}

    double step() const { return binStep; }

    BinRun next(const FilterEdges& edges) {
        if (!(binStep > 0.0 && edges.left >= previousLeft)) {
            resumeBin = 0;
            resumeFreq = 0.0;
        }
        previousLeft = edges.left;
        BinRun run{0, 0.0, 0, -1, -1};
        bool stopped = false;
        double freq = resumeFreq;
        for (int bin = resumeBin; bin < nBins && !stopped; ++bin, freq += binStep)
            stopped = visit(edges, bin, freq, run);
        if (!stopped) run.above = nBins - 1;
        run.below = std::max(run.below, 0);
        run.above = std::max(run.above, 0);
        return run;
    }

private:
    // Comparisons in this form put every bin inside where an edge is not a number.
    bool visit(const FilterEdges& edges, int bin, double freq, BinRun& run) {
        if (freq < edges.left) {
            run.below = resumeBin = bin;
            resumeFreq = freq;
            return false;
        }
        run.above = bin;
        if (freq >= edges.right) return true;
        if (run.count++ == 0) {
            run.first = bin;
            run.firstFreq = freq;
        }
        return false;
    }

    double binStep;
    int nBins;
    double previousLeft = 0.0;
    int resumeBin = 0;
    double resumeFreq = 0.0;
};

// Sets the common length of the leading filters from the number of bins of each: the linear ones,
// and the mel filters after them as long as they are no longer and the length is at most 4.
void shareLength(KTMFCCFilters& filters, const FilterEdges* edges, int nLinear) {
    filters.commonLen = filters.nCommon = 0;
    if (nLinear == 0) return;
    int i = 0;
    for (; i < filters.nFilters; ++i) {
        // not so with an edge that is not a number
        const bool ordered = edges[i].left <= edges[i].right;
        const int count = ordered ? filters.FilLength[i] : 0;
        if (count > filters.commonLen) {
            if (i >= nLinear) break;
            filters.commonLen = count;
        } else if (i >= nLinear && filters.commonLen > 4) {
            break;
        }
    }
    filters.nCommon = filters.commonLen > 0 ? i : 0; // a common length of 0 is none
}

// --- weights ---

// Writes the triangle over `count` bins and scales it to a sum of 1. A lone bin on the left edge
// itself has the weight 0 and nothing to scale: it gets the whole weight.
void triangle(const FilterEdges& edges, const BinRun& run, int count, double binStep,
              float* weights) {
    double sum = 0.0;
    double freq = run.firstFreq;
    for (int k = 0; k < count; ++k, freq += binStep) {
        const double outer = freq > edges.centre ? edges.right : edges.left;
        const double weight = (freq - outer) / (edges.centre - outer);
        weights[k] = static_cast<float>(weight);
        sum += weight;
    }
    if (sum == 0.0) {
        weights[0] = 1.0f;
        return;
    }
    const double norm = 1.0 / sum;
    for (int k = 0; k < count; ++k)
        weights[k] = static_cast<float>(weights[k] * norm);
}

int nearestBin(const FilterEdges& edges, const BinRun& run, double binStep) {
    return edges.centre - run.below * binStep <= run.above * binStep - edges.centre ? run.below
                                                                                    : run.above;
}

void noteBin(KTMFCCFilters& filters, int first, int last) {
    if (filters.firstBin < 0) filters.firstBin = first;
    filters.lastBin = last;
}

// Filter i's bins and weights; the result is how many weights it takes in the array, its padding
// included.
int fillFilter(KTMFCCFilters& filters, int i, const FilterEdges& edges, BinScan& scan,
               float* weights) {
    const bool padded = i < filters.nCommon;
    const BinRun run = scan.next(edges);
    const int count = padded ? std::min(run.count, filters.commonLen) : run.count;
    if (count > 0) {
        filters.disFft[i] = run.first;
        noteBin(filters, run.first, run.first + count - 1);
        triangle(edges, run, count, scan.step(), weights);
    } else if (padded) { // falls back on its neighbour's bin
        filters.disFft[i] = i > 0 ? filters.disFft[i - 1] : 0;
        weights[0] = 1.0f;
    } else {
        filters.disFft[i] = nearestBin(edges, run, scan.step());
        noteBin(filters, filters.disFft[i], filters.disFft[i]);
        weights[0] = 1.0f;
    }
    const int used = std::max(count, 1);
    filters.nReached = std::max(filters.nReached, filters.disFft[i] + used);
    filters.FilLength[i] = padded ? filters.commonLen : used;
    std::fill(weights + used, weights + filters.FilLength[i], 0.0f);
    return filters.FilLength[i];
}

// --- the plan of the filtering kernel ---

int groupsOf(int nRows) {
    return (nRows - 1 + MelPlan::rowsPerGroup) / MelPlan::rowsPerGroup;
}

// Rows of the plan end where the spectrum ends; what they lose are zeros of the padding.
int rowLength(const KTMFCCFilters& filters, int i) {
    return std::min(filters.FilLength[i], filters.nReached - filters.disFft[i]);
}

// The number of blocks that the group's longest row needs; `length(i)` is the length of row i.
template <class Length>
int groupBlocks(int group, int nRows, Length length) {
    int longest = 1;
    const int first = group * MelPlan::rowsPerGroup;
    for (int i = first; i < std::min(first + MelPlan::rowsPerGroup, nRows); ++i)
        longest = std::max(longest, length(i));
    return (longest - 1) / MelPlan::binsPerBlock + 1;
}

constexpr int blockWeights = MelPlan::rowsPerGroup * MelPlan::binsPerBlock;

// Lays one row out: its blocks begin at its first bin, or earlier where they would leave the
// spectrum.
void planRow(const KTMFCCFilters& filters, int i, const float* source, int nBlocks, int* firstBin,
             double* weights) {
    const int row = i % MelPlan::rowsPerGroup;
    firstBin[i] = std::min(filters.disFft[i], filters.nReached - nBlocks * MelPlan::binsPerBlock);
    const int lead = filters.disFft[i] - firstBin[i];
    for (int k = 0; k < rowLength(filters, i); ++k) {
        const int place = lead + k;
        const int block = place / MelPlan::binsPerBlock;
        weights[block * blockWeights + row * MelPlan::binsPerBlock +
                place % MelPlan::binsPerBlock] = static_cast<double>(source[k]);
    }
}

// Fills the plan's arrays: `room` doubles, cleared here, and the bins and block counts that follow
// those of disFft.
void makePlan(KTMFCCFilters& filters, double* weights, std::size_t room) {
    const int nGroups = groupsOf(filters.nFilters);
    int* firstBin = filters.disFft + filters.nFilters;
    int* nBlocks = firstBin + nGroups * MelPlan::rowsPerGroup;
    filters.plan = {filters.nFilters, nGroups, firstBin, nBlocks, weights};
    std::fill_n(weights, room, 0.0);
    std::fill_n(firstBin, nGroups * MelPlan::rowsPerGroup, 0);
    const float* source = filters.FilWeight;
    for (int group = 0; group < nGroups; ++group) {
        nBlocks[group] =
            groupBlocks(group, filters.nFilters, [&](int i) { return rowLength(filters, i); });
        if (nBlocks[group] > filters.nReached / MelPlan::binsPerBlock) {
            filters.plan.nRows = 0; // no whole block fits
            return;
        }
        const int first = group * MelPlan::rowsPerGroup;
        for (int i = first; i < std::min(first + MelPlan::rowsPerGroup, filters.nFilters); ++i) {
            planRow(filters, i, source, nBlocks[group], firstBin, weights);
            source += filters.FilLength[i];
        }
        weights += nBlocks[group] * static_cast<std::ptrdiff_t>(blockWeights);
    }
}

// --- the design ---

// Whether a block is there; reports for KTsMFCCInit where it is not.
bool have(const void* block, const char* message, int line = __builtin_LINE()) {
    if (block == nullptr) module.report(KT_StsNoMem, message, "KTsMFCCInit", line);
    return block != nullptr;
}

// Twiddles of the DCT's FFT form, scaled so that the transform is orthonormal.
void dctTwiddles(float* twiddles, int n) {
    if (n <= 0) return;
    const double a = 1.0 / n;
    twiddles[0] = static_cast<float>(std::sqrt(a));
    twiddles[1] = -0.0f;
    const double scale = std::sqrt(2.0 * a);
    for (int k = 1; k < n; ++k) {
        const double angle = k * std::numbers::pi / (2.0 * n);
        twiddles[2 * k] = static_cast<float>(scale * std::cos(angle));
        twiddles[2 * k + 1] = static_cast<float>(-scale * std::sin(angle));
    }
}

bool allocateDct(KTMFCCFilters& filters, int n) {
    filters.dctIn = ktl::allocComplex(n);
    if (!have(filters.dctIn, "insufficiency of memory for pointer  filters->dctIn")) return false;
    filters.dctSrc = ktl::allocFloats(n);
    if (!have(filters.dctSrc, "insufficiency of memory for pointer  filters->dctSrc")) return false;
    filters.dctOut = ktl::allocComplex(n);
    return have(filters.dctOut, "insufficiency of memory for pointer  filters->dctOut");
}

void storeSizes(KTMFCCFilters& filters, int fftOrder, int nFilters) {
    filters.fftOrder = fftOrder;
    filters.fftLen = fftOrder >= 0 && fftOrder <= 30 ? 1 << fftOrder : 0;
    filters.nFilters = nFilters;
    const auto count = static_cast<unsigned>(nFilters);
    filters.dctOrder = std::has_single_bit(count) ? std::countr_zero(count) : 0;
    filters.firstBin = filters.lastBin = -1;
}

// How much goes into the block of the weights.
struct WeightRoom {
    int nFloats = -1;      // the whole block, in floats; -1: more than an int counts
    int planAt = 0;        // where in it the plan's weights begin, in floats
    std::size_t nPlan = 0; // and how many doubles they are; 0 where the plan would not fit
};

// Exactly what the filters need: however many filters share few bins, none writes past the end.
WeightRoom weightRoom(const KTMFCCFilters& filters) {
    const auto length = [&](int i) {
        return i < filters.nCommon ? filters.commonLen : std::max(filters.FilLength[i], 1);
    };
    std::int64_t nWeights = 0;
    for (int i = 0; i < filters.nFilters; ++i)
        nWeights += length(i);
    std::int64_t nPlan = 0;
    for (int group = 0; group < groupsOf(filters.nFilters); ++group)
        nPlan += std::int64_t{blockWeights} * groupBlocks(group, filters.nFilters, length);

    constexpr std::int64_t floatsPerLine = 16; // the plan begins on a cache line
    const std::int64_t planAt = (nWeights + floatsPerLine - 1) / floatsPerLine * floatsPerLine;
    if (planAt + 2 * nPlan <= INT_MAX)
        return {static_cast<int>(planAt + 2 * nPlan), static_cast<int>(planAt),
                static_cast<std::size_t>(nPlan)};
    if (nWeights <= INT_MAX) return {static_cast<int>(nWeights), 0, 0};
    return {};
}

bool allocateBins(KTMFCCFilters& filters, const WeightRoom& room) {
    // 2^31 bins are more than an int counts, and their weights more than can be had.
    filters.FilWeight = filters.fftOrder == 31 ? nullptr : ktl::allocFloats(room.nFloats);
    if (!have(filters.FilWeight, "insufficiency of memory for pointer  filters->FilWeight"))
        return false;
    const std::int64_t planInts =
        std::int64_t{groupsOf(filters.nFilters)} * (MelPlan::rowsPerGroup + 1);
    const std::int64_t nInts = filters.nFilters + planInts;
    filters.disFft = nInts <= INT_MAX ? vsq::allocAligned<int>(static_cast<int>(nInts)) : nullptr;
    if (!have(filters.disFft, "insufficiency of memory for pointer  filters->disFft")) return false;
    filters.adrFft = vsq::allocAligned<const float*>(filters.nFilters);
    return have(filters.adrFft, "insufficiency of memory for pointer  filters->adrFft");
}

// Bins, weights and plan from the edges; false after a report.
bool fillBank(KTMFCCFilters& filters, const BankRequest& request, const FilterEdges* edges) {
    BinScan counting(request.sampleFreq, filters.fftLen);
    for (int i = 0; i < filters.nFilters; ++i)
        filters.FilLength[i] = counting.next(edges[i]).count;
    shareLength(filters, edges, request.nLinear);

    const WeightRoom room = weightRoom(filters);
    if (!allocateBins(filters, room)) return false;
    BinScan scan(request.sampleFreq, filters.fftLen);
    float* weights = filters.FilWeight;
    for (int i = 0; i < filters.nFilters; ++i)
        weights += fillFilter(filters, i, edges[i], scan, weights);
    if (room.nPlan > 0)
        makePlan(filters, reinterpret_cast<double*>(filters.FilWeight + room.planAt), room.nPlan);
    return true;
}

// The record for a sound request, or null after a report; what was allocated until then is
// released.
KTMFCCFilters* designBank(const BankRequest& request, const MelScale& scale) {
    FiltersGuard filters(vsq::allocAligned<KTMFCCFilters>(1));
    if (!have(filters.get(), "insufficiency of memory for pointer  filters")) return nullptr;
    filters[0] = {};
    const EdgesGuard edges(vsq::allocAligned<FilterEdges>(request.nFilters));
    if (!have(edges.get(), "insufficiency of memory for pointer  tempFilter")) return nullptr;
    if (!allocateDct(filters[0], request.nFilters)) return nullptr;
    dctTwiddles(filters[0].dctIn, request.nFilters);
    filters[0].FilLength = vsq::allocAligned<int>(request.nFilters);
    if (!have(filters[0].FilLength, "insufficiency of memory for pointer  filters->FilLength"))
        return nullptr;
    storeSizes(filters[0], request.fftOrder, request.nFilters);
    placeEdges(request, scale, edges.get());
    return fillBank(filters[0], request, edges.get()) ? filters.take() : nullptr;
}

// The sums as they are defined, for spectra that the plan does not fit.
void orderedSums(const KTMFCCFilters& filters, float* out) {
    const float* weights = filters.FilWeight;
    for (int i = 0; i < filters.nFilters; ++i) {
        double sum = 0.0;
        for (int k = 0; k < rowLength(filters, i); ++k)
            sum += static_cast<double>(filters.adrFft[i][k]) * static_cast<double>(weights[k]);
        out[i] = static_cast<float>(sum);
        weights += filters.FilLength[i];
    }
}

} // namespace

void KTSetMelScale(float mul, float div) {
    auto& ceps = KTGetContext()->Ceps;
    ceps.melMul = mul;
    ceps.melDiv = div;
}

KTMFCCFilters* KTsMFCCInit(int fftOrder, int nFilters, int lowFreq, int highFreq, int sampleFreq,
                           int nLinear, int linearTop) {
    const MelScale scale = threadMelScale();
    return designBank(
        soundRequest(fftOrder, nFilters, lowFreq, highFreq, sampleFreq, nLinear, linearTop), scale);
}

KTMFCCFilters* KTwMFCCInit(int fftOrder, int nFilters, int lowFreq, int highFreq, int sampleFreq,
                           int nLinear, int linearTop) {
    FiltersGuard filters(
        KTsMFCCInit(fftOrder, nFilters, lowFreq, highFreq, sampleFreq, nLinear, linearTop));
    if (KTGetStatus() < 0) { // an old failure that nobody has cleared counts as well
        module.backtrace();
        return nullptr;
    }
    return filters.take();
}

void KTsFreeMFCCFilters(KTMFCCFilters* filters) {
    if (filters == nullptr) return;
    vsq::freeAligned(filters->FilWeight);
    vsq::freeAligned(filters->FilLength);
    vsq::freeAligned(filters->disFft);
    vsq::freeAligned(filters->adrFft);
    vsq::freeAligned(filters->dctSrc);
    vsq::freeAligned(filters->dctIn);
    vsq::freeAligned(filters->dctOut);
    vsq::freeAligned(filters);
}

void KTwFreeMFCCFilters(KTMFCCFilters* filters) {
    KTsFreeMFCCFilters(filters);
}

void KTsMelFiltering(KTMFCCFilters* filters, const float* pSpectrum, float* pOut) {
    if (filters == nullptr || pSpectrum == nullptr || pOut == nullptr) return;
    for (int i = 0; i < filters->nFilters; ++i)
        filters->adrFft[i] = pSpectrum + filters->disFft[i];
    // Infinite bins and such spoil neighbouring rows of the plan; the result then is what the
    // definition gives.
    if (filters->plan.nRows == 0 || !vsq::kernels().mel->filter(filters->plan, pSpectrum, pOut))
        orderedSums(*filters, pOut);
}
