// Mel filter bank and cepstrum as plain loops, step by step, in double.
#pragma once

#include <vector>

namespace oracle {

struct MelRequest {
    int fftOrder, nFilters, lowFreq, highFreq, sampleFreq, nLinear, linearTop;
    float melMul = 2595.0f, melDiv = 700.0f;
};

struct MelBank {
    int fftOrder = 0, fftLen = 0, nFilters = 0, firstBin = -1, lastBin = -1, commonLen = 0,
        nCommon = 0, dctOrder = 0;
    std::vector<int> bin;                    // each filter's first bin
    std::vector<int> nInside;                // bins between its edges
    std::vector<std::vector<float>> weights; // each filter's weights, padding included
    std::vector<double> left, centre, right; // Hz
    std::vector<float> twiddles;
};

MelBank designMelBank(const MelRequest& request);

// A number and how far a float computation of it may be off.
struct Bounded {
    double value = 0.0;
    double error = 0.0;
};

// The filters' sums over a spectrum of at least as many bins as the filters reach.
std::vector<Bounded> melFilter(const MelBank& bank, const std::vector<Bounded>& spectrum);

struct CepstrumRequest {
    bool timeInput, threshold, filterFirst, zeroth;
    int nCeps;
    float thresh;
};

// The coefficients of one frame: samples, or the fftLen/2 + 1 values of a spectrum.
std::vector<Bounded> cepstrum(const MelBank& bank, const std::vector<float>& in,
                              const CepstrumRequest& request);

} // namespace oracle
