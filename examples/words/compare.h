// Trains and tests recognisers on a corpus, in both flavours.
#pragma once

#include "corpus.h"
#include "frontend.h"
#include "progress.h"
#include "recogniser.h"

#include <array>
#include <cstdint>

namespace words {

/// A recording with all that is made of it.
struct Item {
    Recording recording;
    Samples samples;
    double spread = 0.0; ///< of its levels, as the front end cuts it
    Utterance features;
};

// / Reads the recordings and computes their features. Those that cannot be read are left out and
// put into `complaints`.
std::vector<Item> readItems(const std::vector<Recording>& recordings,
                            const FeatureExtractor& extractor, Progress& progress,
                            std::vector<std::string>& complaints);

// / The items' features with their words' indices; the vocabulary is that of the items. The items
// keep their samples.
TrainingSet makeTrainingSet(const std::vector<const Item*>& items);

/// The least spread of levels that speech has by these items.
double leastSpreadOf(const std::vector<const Item*>& items);

/// Words right with one speaker left out.
struct Share {
    std::string speaker;
    double percent = 0.0;
};

/// What came of one recogniser in one flavour.
struct Outcome {
    int right = 0;
    int total = 0;
    double workSeconds = 0.0;  ///< processor time of features and recognition
    std::uintmax_t bytes = 0;  ///< of the models on disk
    Matrix<int> confusion;     ///< [spoken][recognised], the last column standing for no word
    std::vector<Share> shares; ///< with a speaker left out in turn

    int errors() const { return total - right; }
    double accuracy() const { return total > 0 ? 100.0 * right / total : 0.0; }
    double microseconds() const { return total > 0 ? 1e6 * workSeconds / total : 0.0; }
};

struct Result {
    std::string name;
    std::string title;
    std::array<Outcome, 2> outcomes; ///< float, fixed
    // / Of each example for each word, in float and in fixed point, on the scale for people; and
    // its limit.
    std::array<std::vector<std::vector<double>>, 2> exampleCosts;
    std::array<double, 2> limits{};
};

struct Comparison {
    std::vector<std::string> words;
    int nTraining = 0; ///< for each round, on average
    int nTest = 0;
    double testSeconds = 0.0; ///< of speech, after one pass through the test set
    std::vector<Result> results;
    std::vector<const Item*> examples; ///< one for each word of the test set

    double timesRealTime(const Outcome& outcome) const {
        return outcome.workSeconds > 0.0 ? testSeconds / outcome.workSeconds : 0.0;
    }
};

struct ComparisonPlan {
    FrontEnd frontEnd;
    int testTakes = 0;            ///< takes below this one are the test set
    bool leaveOutSpeaker = false; ///< instead: each speaker's recordings in turn
    std::string recogniser;       ///< empty: all
};

Comparison compare(const std::vector<Item>& items, const ComparisonPlan& plan,
                   const FeatureExtractor& extractor, Progress& progress,
                   std::vector<std::string>& complaints);

/// The comparison as a table for the terminal.
std::string table(const Comparison& comparison);

} // namespace words
