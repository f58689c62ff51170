// What all recognisers have in common.
#pragma once

#include "matrix.h"
#include "progress.h"

#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace words {

enum class Flavour { real, fixed };
inline constexpr Flavour flavours[] = {Flavour::real, Flavour::fixed};

/// "float" or "fixed", in tables and in the names of files.
std::string flavourName(Flavour flavour);

/// A labelled utterance in both flavours.
struct Utterance {
    Matrix<float> real;
    Matrix<short> fixed;
    int word = 0; ///< index into the vocabulary
};

struct TrainingSet {
    std::vector<std::string> words;
    std::vector<Utterance> utterances;

    int nWords() const { return static_cast<int>(words.size()); }
    int dimensions() const { return utterances.front().real.columns(); }
};

/// The word that fits best, by its index, and how badly it fits; -1 if none fits at all.
struct Answer {
    int word = -1;
    double cost = std::numeric_limits<double>::infinity();
};

// / Models of a vocabulary, in float and in fixed point. Costs are those of a frame, on average,
// where they grow with the / length of the utterance: small is good, and each kind and flavour has
// a range of its own (see costs.h).
class Recogniser {
public:
    virtual ~Recogniser() = default;

    virtual std::string name() const = 0;  ///< on the command line and in the names of files
    virtual std::string title() const = 0; ///< in tables

    virtual void train(const TrainingSet& training, Progress& progress) = 0;

    /// An answer takes the longer the more the training had.
    virtual bool isSlow() const { return false; }

    virtual Answer recognise(const Matrix<float>& features) = 0;
    virtual Answer recognise(const Matrix<short>& features) = 0;

    /// The cost of every word.
    virtual std::vector<double> costs(const Matrix<float>& features) = 0;
    virtual std::vector<double> costs(const Matrix<short>& features) = 0;

    /// The same for an utterance of the training, which is not to be compared with itself.
    virtual std::vector<double> costsOfTraining(const Matrix<float>& features) {
        return costs(features);
    }
    virtual std::vector<double> costsOfTraining(const Matrix<short>& features) {
        return costs(features);
    }

    // / Names of files of one flavour's models begin with `stem`. They hold the library's own
    // formats, before each model / a line with its word; loading compares it with the word that is
    // to be there.
    virtual void save(Flavour flavour, const std::string& stem) const = 0;
    virtual void load(Flavour flavour, const std::string& stem,
                      const std::vector<std::string>& words, int nDimensions) = 0;
};

std::unique_ptr<Recogniser> makeDtw();
std::unique_ptr<Recogniser> makeDiscrete();
std::unique_ptr<Recogniser> makeSemicontinuous();
std::unique_ptr<Recogniser> makeContinuous();
std::unique_ptr<Recogniser> makePerceptron();

/// All of them in this order, or the one of that name. Throws Failure if there is none.
std::vector<std::unique_ptr<Recogniser>> makeRecognisers(const std::string& name = "");

} // namespace words
