// The mixtures of a continuous model's states as one list of densities, in the shape of a
// semicontinuous codebook, so that one evaluation scores a frame against all of them.
#pragma once

#include "quantisers/density_codebook.h"

struct FlatMixtures {
    // nSymbols densities of length nQuant, as a float codebook that owns no densities
    SemicontCodebook codebook;
    int isSingle; // 1 when no state has more than one component
    int nStates;
    int* pComponentStart; // components of state i: pComponentStart[i] .. pComponentStart[i + 1] - 1
};

// Null when memory ran out, and for mixtures that are fixed or have fewer than nQuant
// dimensions. ownsFreeFlatMixtures releases the view; null is allowed.
FlatMixtures* ownsFlattenMixtures(GaussMixServer* const* mixtures, int nStates, int nQuant);
void ownsFreeFlatMixtures(FlatMixtures* pView);
