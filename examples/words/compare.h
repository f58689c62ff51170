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
    Utterance features;
};

/// Reads the recordings and computes their features. Those that cannot be read are left out and put into `complaints`.
std::vector<Item> readItems(const std::vector<Recording>& recordings, const FeatureExtractor& extractor,
                            Progress& progress, std::vector<std::string>& complaints);

/// The items' features with their words' indices; the vocabulary is that of the items. The items keep their samples.
TrainingSet makeTrainingSet(const std::vector<const Item*>& items);

/// What came of one recogniser in one flavour.
struct Outcome {
    int right = 0;
    int total = 0;
    double workSeconds = 0.0;       ///< processor time of features and recognition
    std::uintmax_t bytes = 0;       ///< of the models on disk
    Matrix<int> confusion;          ///< [spoken][recognised], the last column standing for no word
    std::vector<std::string> folds; ///< "SPEAKER 94.2", with a speaker left out in turn

    int errors() const { return total - right; }
    double accuracy() const { return total > 0 ? 100.0 * right / total : 0.0; }
    double microseconds() const { return total > 0 ? 1e6 * workSeconds / total : 0.0; }
};

struct Result {
    std::string name;
    std::string title;
    std::array<Outcome, 2> outcomes;               ///< float, fixed
    std::vector<std::vector<double>> exampleCosts; ///< of each example for each word, float
};

struct Comparison {
    std::vector<std::string> words;
    int nTraining = 0;
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
