// The codebook of densities that all semicontinuous models of a thread share, one for each numeric
// form.
#pragma once

#include "frame/context.h"

struct GaussMixServer;

inline constexpr int SEMICONT_OWNS_PDFS = 0x40000000;

struct SemicontCodebook {
    int nSymbols; // number of densities
    int nQuant;   // length of the feature vectors
    // 0: empty; SEMICONT_OWNS_PDFS with HMM_SERVER_FLOAT or HMM_SERVER_SHORT: holds densities of
    // its own
    int status;
    int reserved;
    GaussMixServer** ccgPdfs; // nSymbols servers of one mixture
    void* spare0;
    void* spare1;
    // raw block; the nSymbols weights begin at its first boundary of 16 bytes (float) or 8 (short)
    void* pWeights;
    void* pFurther; // released with the codebook; nothing sets it

    // Of a float codebook, what evaluation reads instead of the densities' own rows: a panel of
    // vsqmahal_level.h of nSymbols rows of max(nQuant, 0) elements, full densities being zeros;
    // null where no density is diagonal.
    void* pPanel;
    int nFull; // densities with a full covariance
};

// Prepares pPanel and nFull from densities that are all there; false when memory ran out. Whoever
// frees the densities frees pPanel.
bool ownsPreparePdfs(SemicontCodebook* codebook);
const double* ownsSemicontPanel(const SemicontCodebook* codebook);

// The density weights at their aligned place.
const float* ownsSemicontWeights(const SemicontCodebook* codebook);
const short* ownwSemicontWeights(const SemicontCodebook* codebook);
