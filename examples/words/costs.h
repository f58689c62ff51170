// What the training tells about answers: how much a right and a wrong word cost, and from where on
// nothing fits.
#pragma once

#include "audio.h"
#include "recogniser.h"

namespace words {

/// Costs of one recogniser in one flavour, as they were in the training.
struct CostScale {
    double right = 0.0; ///< what utterances cost by their own word: the median ...
    double wrong = 1.0; ///< ... and what they cost by the nearest other word
    double limit = 0.0; ///< a word that costs more than this does not fit

    bool admits(double cost) const;

    // / The cost on a scale that all recognisers and both flavours share: 100 is usual for the
    // right word, 200 for the / nearest wrong one. It ends at 0 and at 999.
    double forPeople(double cost) const;
};

// / The scale of a trained recogniser, from utterances of the training, a hundred or a thousand at
// most.
CostScale findScale(Recogniser& recogniser, Flavour flavour, const TrainingSet& training);

// / The least spread of levels that is taken for speech, in decibels: half of what all but one in a
// hundred recordings of / the training have, and not more than what tells speech from noise.
double findLeastSpread(std::vector<double> spreads);

} // namespace words
