// The record of a mel filter bank, as the design (KT_MEL) fills it and the cepstrum (KT_CEPS) uses
// it.
#pragma once

#include "frame/types.h"

#include "levels/levels.h"

// Float in both numeric forms. Every array is an aligned block of its own, freed by
// KTsFreeMFCCFilters. A spectrum has fftLen bins, of which a caller gives the first fftLen/2 + 1;
// the others mirror them.
struct KTMFCCFilters {
    int fftOrder; // as asked for, in range or not
    int fftLen;   // 2^fftOrder; 0 where fftOrder is no order of a transform
    int nFilters;
    float* FilWeight; // all weights, filter after filter
    int* FilLength;   // nFilters: number of weights, the padding of the leading filters included
    // lowest and highest bin that a filter got by its edges; -1 where there is no filter
    int firstBin;
    int lastBin;
    int* disFft;          // nFilters: the filter's first bin
    const float** adrFft; // nFilters: that bin in the spectrum of the last filtering call
    int commonLen;        // padded length of the nCommon leading filters
    int nCommon;
    float* dctSrc; // nFilters: reordered input of the FFT form of the DCT
    float* dctIn;  // nFilters complex: its twiddles, scaled to an orthonormal transform
    float* dctOut; // nFilters complex: its spectrum
    int dctOrder;  // base-2 logarithm of nFilters where that is a power of two, otherwise 0

    // Beyond what the design is about: what makes filtering fast and safe.
    // One more than the highest bin that has a weight: what filtering reads of a spectrum.
    int nReached;
    // No rows where the spectrum is too short for whole blocks. Its arrays follow FilWeight's
    // weights and disFft's bins in the same blocks.
    vsq::MelPlan plan;
};
