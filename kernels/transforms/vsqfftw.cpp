// The fixed-point real transform: the samples become floats, the float transform runs, and the
// results are scaled and narrowed to 16 bits. So both numeric forms share tables and passes.
#include "levels/levels.h"
#include "transforms/vsqffts.h"

#include <cmath>
#include <cstdint>

namespace vsq {
namespace {

constexpr Module module{"vsqfftw"};
constexpr int truncateAndSaturate = VSQ_RoundToZero | VSQ_Saturate;
constexpr float aboveShorts = 32768.0f, belowShorts = -32769.0f; // the nearest that do not fit
// brings even the largest float, just below 2^128, to 16 bits
constexpr int largestShift = 128 - 15;
// order 31 exceeds the conversions' int
constexpr std::ptrdiff_t blockLength = std::ptrdiff_t{1} << 30;

bool refusesArguments(const short* samps, int flags, int scaleMode, const int* scaleFactor,
                      const char* funcName) {
    return module.refuses(samps == nullptr, "samps==0", funcName) ||
           refusesFftFlags(module, flags, funcName) ||
           module.refuses((scaleMode & VSQ_FIXED_SCALE) && (scaleMode & VSQ_AUTO_SCALE),
                          "(scaleMode & 0x0002) && (scaleMode & 0x0004)", funcName) ||
           module.refuses((scaleMode & VSQ_AUTO_SCALE) && scaleFactor == nullptr, "scaleFactor==0",
                          funcName);
}

// --- results to 16 bits: scaled or not, they are truncated toward zero and saturated ---

// The smallest right shift, 0 or more, under which every value fits: |v| * 2^-shift below 32768,
// where -32768 fits too. A NaN does not count; with an infinity the shift is that of the
// largest float.
int fittingShift(const float* values, std::ptrdiff_t n) {
    float highest = 0.0f, lowest = 0.0f;
    for (std::ptrdiff_t i = 0; i < n; ++i) {
        highest = values[i] > highest ? values[i] : highest;
        lowest = values[i] < lowest ? values[i] : lowest;
    }
    int shift = 0;
    while (shift < largestShift && (std::ldexp(highest, -shift) >= aboveShorts ||
                                    std::ldexp(lowest, -shift) <= belowShorts))
        ++shift;
    return shift;
}

void storeScaled(float* values, short* samps, std::ptrdiff_t n, int scaleMode, int* scaleFactor) {
    int scale = 0;
    if ((scaleMode & VSQ_AUTO_SCALE) != 0)
        *scaleFactor = scale = fittingShift(values, n);
    else if ((scaleMode & VSQ_FIXED_SCALE) != 0 && scaleFactor != nullptr)
        scale = *scaleFactor;
    if (scale != 0)
        for (std::ptrdiff_t i = 0; i < n; ++i)
            values[i] = std::ldexp(values[i], scale == INT32_MIN ? INT32_MAX : -scale);
    for (std::ptrdiff_t i = 0; i < n; i += blockLength) {
        const int length = static_cast<int>(n - i < blockLength ? n - i : blockLength);
        vsqsbFloatToInt(values + i, samps + i, length, 16, truncateAndSaturate);
    }
}

void toFloat(const short* samps, float* values, std::ptrdiff_t n) {
    for (std::ptrdiff_t i = 0; i < n; i += blockLength) {
        const int length = static_cast<int>(n - i < blockLength ? n - i : blockLength);
        vsqsbIntToFloat(samps + i, values + i, length, 16, 0);
    }
}

// Orders 0 and 1, in integers; the sums of two samples are exact as floats too.
void shortest(short* samps, int order, int flags, int scaleMode, int* scaleFactor) {
    float results[2] = {static_cast<float>(samps[0]), 0.0f};
    if (order == 1) {
        const int shift = (flags & VSQ_Inv) != 0 && (flags & VSQ_NoScale) == 0 ? 1 : 0;
        results[0] = static_cast<float>((samps[0] + samps[1]) >> shift);
        results[1] = static_cast<float>((samps[0] - samps[1]) >> shift);
    }
    storeScaled(results, samps, order + 1, scaleMode, scaleFactor);
}

// Orders above 1, with a float copy of the samples.
void transformInFloat(short* samps, int order, int flags, int scaleMode, int* scaleFactor,
                      float* work) {
    constexpr const char* name = "vsqwRealFftl";
    const std::ptrdiff_t n = std::ptrdiff_t{1} << order;
    toFloat(samps, work, n);
    vsqsRealFftl(work, order, flags);
    if (vsqGetStatus() < 0) {
        module.report(stsBacktrace, "out vsqsRealFftl calc. FFT", name);
        return;
    }
    storeScaled(work, samps, n, scaleMode, scaleFactor);
}

// Takes the cached block of samples for the length of a call, with a second try when memory ran
// out.
class Samples {
public:
    explicit Samples(std::ptrdiff_t n) : block(fixedFftSamples().take(n)) {
        if (block != nullptr) return;
        releaseTransformCaches();
        block = fixedFftSamples().take(n);
    }
    ~Samples() {
        if (block != nullptr) fixedFftSamples().give(block);
    }
    Samples(const Samples&) = delete;
    Samples& operator=(const Samples&) = delete;
    float* get() const { return block; }

private:
    float* block;
};

} // namespace
} // namespace vsq

using namespace vsq;

void vsqwRealFftl(short* samps, int order, int flags, int scaleMode, int* scaleFactor) {
    if ((flags & VSQ_Free) != 0) {
        vsqsRealFftl(nullptr, order, VSQ_Free);
        fixedFftSamples().release();
        return;
    }
    if (module.refuses(order < 0, "order<0") || module.refuses(order > 31, "order>31") ||
        module.refuses((flags & VSQ_RoundMode0) && (flags & VSQ_RoundMode1),
                       "(flags & 8192) && (flags & 16384)"))
        return;
    const bool onlyPrepare = (flags & VSQ_Init) != 0;
    if (!onlyPrepare && refusesArguments(samps, flags, scaleMode, scaleFactor, __func__)) return;
    if (order < 2 && !onlyPrepare) {
        shortest(samps, order, flags, scaleMode, scaleFactor);
        return;
    }
    const Samples work(order < 2 ? 0 : std::ptrdiff_t{1} << order);
    if (work.get() == nullptr) {
        module.report(stsNoMem, "No working memory");
        return;
    }
    if (!onlyPrepare) {
        transformInFloat(samps, order, flags, scaleMode, scaleFactor, work.get());
        return;
    }
    vsqsRealFftl(nullptr, order, flags);
    if (vsqGetStatus() < 0) module.report(stsBacktrace, "out vsqsRealFftl VSQ_Init");
}
