// Mel-frequency cepstra of one frame, and their liftering.
//
// The steps: spectrum, floor, logarithm, mel filters, orthonormal DCT-II; floor and logarithm come
// before or after the filters. The fixed form converts to float, takes the same steps and converts
// back.
#include "frame/KT_ERROR.h"
#include "frame/numeric.h"
#include "frame/scratch.h"
#include "frontend/mel.h"
#include "vsq.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace {

constexpr ktl::Module module{"..\\_LIBSRC\\KT_CEPS"};

using CepsBuffers = decltype(KTContext::Ceps);

// --- buffers ---

struct Sizes {
    int nFilters;
    int fftLen;
    int nCeps;
};

void releaseStaging(CepsBuffers& ceps) {
    for (float** buffer : {&ceps.filterOutput, &ceps.filterDctInput, &ceps.filterDctOutput,
                           &ceps.fftOut, &ceps.tempVect, &ceps.tempCeps}) {
        vsq::freeAligned(*buffer);
        *buffer = nullptr;
    }
}

// The three capacities belong to all six buffers, of which each numeric form takes its own when it
// first needs them: a buffer that is there has the room that the capacities say. If one capacity is
// too small, all buffers are released.
void fitCapacities(CepsBuffers& ceps, const Sizes& wanted) {
    if (wanted.nFilters <= ceps.nFilters && wanted.fftLen <= ceps.fftLen &&
        wanted.nCeps <= ceps.nCeps)
        return;
    releaseStaging(ceps);
    ceps.nFilters = std::max(ceps.nFilters, wanted.nFilters);
    ceps.fftLen = std::max(ceps.fftLen, wanted.fftLen);
    ceps.nCeps = std::max(ceps.nCeps, wanted.nCeps);
}

// Makes a buffer where there is none. On exhaustion reports and zeroes the capacities, so that the
// next call begins anew; the buffer stays null.
template <class Allocate>
bool take(CepsBuffers& ceps, float*& buffer, Allocate allocate, int count, const char* message,
          const char* funcName = __builtin_FUNCTION(), int line = __builtin_LINE()) {
    if (buffer != nullptr) return true;
    buffer = allocate(count);
    if (buffer != nullptr) return true;
    ceps.nFilters = ceps.fftLen = ceps.nCeps = 0;
    module.report(KT_StsNoMem, message, funcName, line);
    return false;
}

// A transform of order 0, and a bank without a transform, still have one bin.
int spectrumRoom(const CepsBuffers& ceps) {
    return std::max(ceps.fftLen, 2);
}

bool takeFloatBuffers(CepsBuffers& ceps, const char* funcName) {
    return take(ceps, ceps.filterOutput, ktl::allocFloats, ceps.nFilters,
                "insufficiency of memory for pointer  pKTcontext->Ceps.filterOutput", funcName) &&
           take(ceps, ceps.filterDctInput, ktl::allocFloats, ceps.nFilters,
                "insufficiency of memory for pointer  pKTcontext->Ceps.filterDctInput", funcName) &&
           take(ceps, ceps.filterDctOutput, ktl::allocFloats, ceps.nFilters,
                "insufficiency of memory for pointer  pKTcontext->Ceps.filterDctOutput",
                funcName) &&
           take(ceps, ceps.fftOut, ktl::allocComplex, spectrumRoom(ceps),
                "insufficiency of memory for pointer  pKTcontext->Ceps.fftOut", funcName);
}

bool takeFixedBuffers(CepsBuffers& ceps, const char* funcName) {
    return take(ceps, ceps.tempVect, ktl::allocFloats, spectrumRoom(ceps),
                "insufficiency of memory for pointer  pKTcontext->Ceps.tempVect", funcName) &&
           take(ceps, ceps.tempCeps, ktl::allocFloats, ceps.nCeps,
                "insufficiency of memory for pointer  pKTcontext->Ceps.tempCeps", funcName);
}

// --- the frame ---

constexpr float log10OfE = 0.4342944920063019f;
constexpr float halfLog10OfE = 0.21714720129966736f; // for the logarithm of a power

// One call's frame, as the steps hand it on.
struct Frame {
    KTMFCCFilters* filters;
    CepsBuffers* buffers;
    float* pIn;
    float thresh;
    int flags;
    int nBins; // bins that the caller's spectrum has, or that the transform gives
    int nLog;  // bins whose logarithm the filters want, at most nBins

    bool has(int flag) const { return (flags & flag) != 0; }
    bool mirrored() const {
        return filters->firstBin >= nBins || filters->lastBin >= nBins || filters->nReached > nBins;
    }
};

// The logarithm is taken over the bins that the filters reach plus one, but never past the
// spectrum's end.
int logRange(const KTMFCCFilters& filters, int nBins) {
    int nLog = nBins;
    if (filters.firstBin < nBins && filters.lastBin < nBins)
        nLog = std::min(filters.lastBin + 2, nBins);
    return nLog < 1 ? nBins : nLog;
}

// From the packed order, in which element 1 is the Nyquist value, to one complex number for each of
// half + 1 bins.
void unpack(float* spectrum, int half) {
    if (half > 0) spectrum[2 * half] = spectrum[1]; // a single sample has no Nyquist bin
    spectrum[1] = 0.0f;
    spectrum[2 * half + 1] = 0.0f;
}

// Transforms `from` and unpacks; false where a negative status stands, which has been reported.
bool realSpectrum(const float* from, float* spectrum, int order, int half, const char* funcName,
                  int line = __builtin_LINE()) {
    vsqsRealFftlNip(from, spectrum, order, VSQ_Forw | VSQ_RCPerm);
    if (KTGetStatus() < 0) {
        module.backtrace(funcName, line);
        return false;
    }
    unpack(spectrum, half);
    return true;
}

// The spectrum that the filters see, its logarithm taken where that comes first; null after a
// report. `factor` is what turns the logarithm into log10 of a magnitude.
float* spectrumOf(const Frame& frame, float& factor, const char* funcName) {
    factor = log10OfE;
    if (!frame.has(KT_CepsTimeInput)) {
        if (!frame.has(KT_CepsFilterFirst)) {
            if (frame.has(KT_CepsThreshold)) vsqsbThresh1(frame.pIn, frame.nBins, frame.thresh, 0);
            vsqsbLn1(frame.pIn, frame.nLog);
        }
        return frame.pIn;
    }
    float* spectrum = frame.buffers->fftOut;
    if (!realSpectrum(frame.pIn, spectrum, frame.filters->fftOrder, frame.nBins - 1, funcName))
        return nullptr;
    if (frame.has(KT_CepsFilterFirst)) {
        vsqcbMag(spectrum, spectrum, frame.nBins);
        return spectrum;
    }
    vsqcbPowerSpectr(spectrum, spectrum, frame.nLog);
    if (frame.has(KT_CepsThreshold)) vsqsbThresh1(spectrum, frame.nLog, frame.thresh, 0);
    vsqsbLn1(spectrum, frame.nLog);
    factor = halfLog10OfE;
    return spectrum;
}

// Adds the upper half of the spectrum, in the library's own buffer.
float* mirror(const Frame& frame, float* spectrum) {
    float* whole = frame.buffers->fftOut;
    if (spectrum != whole) vsqsbCopy(spectrum, whole, frame.nBins);
    const int fftLen = frame.filters->fftLen;
    for (int i = frame.nBins; i < fftLen; ++i)
        whole[i] = whole[fftLen - i];
    return whole;
}

// Filters, and the logarithm where it comes last; log10 in either case.
void filterFrame(const Frame& frame, float* spectrum, float factor) {
    float* output = frame.buffers->filterOutput;
    const int nFilters = frame.filters->nFilters;
    vsqsbZero(output, nFilters);
    KTsMelFiltering(frame.filters, frame.mirrored() ? mirror(frame, spectrum) : spectrum, output);
    if (frame.has(KT_CepsFilterFirst)) {
        if (frame.has(KT_CepsThreshold)) vsqsbThresh1(output, nFilters, frame.thresh, 0);
        vsqsbLn1(output, nFilters);
    }
    vsqsbMpy1(factor, output, nFilters);
}

// --- the DCT of a power of two by a real FFT ---

// J. Makhoul: A Fast Cosine Transform in One and Two Dimensions. IEEE Transactions on Acoustics,
// Speech, and Signal Processing 28(1), 1980: the even elements, then the odd ones backwards, make
// one real transform of the same length.
void reorder(const float* from, float* to, int n) {
    for (int i = 0; i < n / 2; ++i) {
        to[i] = from[2 * i];
        to[n - 1 - i] = from[2 * i + 1];
    }
}

// Turns the half spectrum with the twiddles into coefficients skip, skip + 1, ...; the upper half
// of the spectrum is the conjugate of the lower one.
void rotate(const KTMFCCFilters& filters, int skip, int nOut, float* pCeps) {
    const int half = filters.nFilters >> 1;
    for (int i = 0; i < nOut; ++i) {
        const int k = i + skip;
        const float* twiddle = filters.dctIn + 2 * k;
        if (k <= half) {
            const float* bin = filters.dctOut + 2 * k;
            pCeps[i] = bin[0] * twiddle[0] - bin[1] * twiddle[1];
        } else {
            const float* bin = filters.dctOut + 2 * (filters.nFilters - k);
            pCeps[i] = bin[1] * twiddle[1] + bin[0] * twiddle[0];
        }
    }
}

// The transform's coefficients skip to skip + nOut - 1; false after a report.
bool transformFrame(const Frame& frame, int skip, int nOut, float* pCeps, const char* funcName) {
    KTMFCCFilters& filters = *frame.filters;
    CepsBuffers& buffers = *frame.buffers;
    if (filters.dctOrder == 0) {
        vsqsDct(buffers.filterOutput, buffers.filterDctOutput, filters.nFilters, VSQ_DctForw);
        vsqsbCopy(buffers.filterDctOutput + skip, pCeps, nOut);
        return true;
    }
    reorder(buffers.filterOutput, filters.dctSrc, filters.nFilters);
    if (!realSpectrum(filters.dctSrc, filters.dctOut, filters.dctOrder, filters.nFilters >> 1,
                      funcName))
        return false;
    if (pCeps != nullptr) rotate(filters, skip, nOut, pCeps);
    return true;
}

// All steps in float. False after any report, whose handler may have released the buffers and
// cleared the status.
bool cepstrum(KTMFCCFilters* filters, float* pIn, float* pCeps, int nCeps, float thresh,
              int flags) {
    const char* const name = "KTsCepstralMFCC";
    const int skip = (flags & KT_CepsZeroth) != 0 ? 0 : 1;
    const int nOut = std::min(nCeps, filters->nFilters - skip);
    CepsBuffers& buffers = KTGetContext()->Ceps;
    fitCapacities(buffers, {filters->nFilters, filters->fftLen, nCeps});
    if (!takeFloatBuffers(buffers, name)) return false;

    const int nBins = (filters->fftLen >> 1) + 1;
    const Frame frame{filters, &buffers, pIn, thresh, flags, nBins, logRange(*filters, nBins)};
    float factor;
    float* spectrum = spectrumOf(frame, factor, name);
    if (spectrum == nullptr) return false;
    filterFrame(frame, spectrum, factor);
    if (!transformFrame(frame, skip, nOut, pCeps, name)) return false;
    if (nOut < nCeps) vsqsbZero(pCeps + nOut, nCeps - nOut);
    if (KTGetStatus() >= 0) return true;
    module.backtrace(name);
    return false;
}

// --- liftering ---

// Elements `first` to first + n - 1 of a row, which begin at pCeps.
void lift(float* pCeps, int first, int n, int L) {
    for (int i = 0; i < n; ++i) {
        const double weight = 1.0 + 0.5 * L * std::sin((first + i) * std::numbers::pi / L);
        pCeps[i] = static_cast<float>(pCeps[i] * weight);
    }
}

} // namespace

void KTsCepstralMFCC(KTMFCCFilters* filters, float* pIn, float* pCeps, int nCeps, float thresh,
                     int flags) {
    if (filters != nullptr) cepstrum(filters, pIn, pCeps, nCeps, thresh, flags);
}

void KTwCepstralMFCC(KTMFCCFilters* filters, short* pIn, short* pCeps, int nCeps, int thresh,
                     int flags, int inScale, int outMode, int* pOutScale) {
    if (filters == nullptr) return;
    const ktl::CallScale outScale(pOutScale);
    CepsBuffers& buffers = KTGetContext()->Ceps;
    fitCapacities(buffers, {filters->nFilters, filters->fftLen, nCeps});
    if (!takeFixedBuffers(buffers, "KTwCepstralMFCC")) return;

    const int fftLen = filters->fftLen;
    const int count = (flags & KT_CepsTimeInput) != 0 ? fftLen : (fftLen >> 1) + 1;
    KTwsbConvertUp(pIn, buffers.tempVect, count, inScale);
    const auto floor = static_cast<float>(KTidConvertUp(thresh, inScale));
    if (!cepstrum(filters, buffers.tempVect, buffers.tempCeps, nCeps, floor, flags)) {
        if (KTGetStatus() < 0) module.backtrace();
        return;
    }
    KTswbConvertDown(buffers.tempCeps, pCeps, nCeps, outMode, outScale.get());
}

void KTsLiftering(float* pCeps, int n, int L) {
    if (L != 0) lift(pCeps, 0, n, L);
}

// Piece by piece through a local buffer: the conversions work element by element, and nothing can
// run out of memory.
void KTwLiftering(short* pCeps, int n, int L) {
    if (L == 0) return;
    constexpr int piece = 256;
    float buffer[piece];
    for (int first = 0; first < n; first += std::min(piece, n - first)) {
        const int count = std::min(piece, n - first);
        KTwsbConvertUp(pCeps + first, buffer, count, 0);
        lift(buffer, first, count, L);
        KTswbConvertDown(buffer, pCeps + first, count, KT_FixedScale, nullptr);
    }
}

void KTFreeCepsTbls(void) {
    vsqFreeFftTbls();
    vsqsFreeRealFftTbls();
    vsqwFreeRealFftTbls();
    CepsBuffers& ceps = KTGetContext()->Ceps;
    releaseStaging(ceps);
    for (void** spare : {&ceps.spare0, &ceps.spare1, &ceps.spare2, &ceps.spare3, &ceps.spare4}) {
        vsq::freeAligned(*spare);
        *spare = nullptr;
    }
    ceps.fftLen = ceps.nFilters = ceps.nCeps = 0;
    vsqsDct(nullptr, nullptr, 0, VSQ_DctFree);
    vsqwDct(nullptr, nullptr, 0, VSQ_DctFree);
}
