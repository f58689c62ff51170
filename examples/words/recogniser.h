// What all recognisers have in common.
#pragma once

#include "matrix.h"
#include "progress.h"

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

/// Models of a vocabulary, in float and in fixed point. What is returned as a word is its index.
class Recogniser {
public:
    virtual ~Recogniser() = default;

    virtual std::string name() const = 0;  ///< on the command line and in the names of files
    virtual std::string title() const = 0; ///< in tables

    virtual void train(const TrainingSet& training, Progress& progress) = 0;

    /// The word that fits best; -1 if none does.
    virtual int recognise(const Matrix<float>& features) = 0;
    virtual int recognise(const Matrix<short>& features) = 0;

    /// For every word how badly it fits: small is good.
    virtual std::vector<double> costs(const Matrix<float>& features) = 0;
    virtual std::vector<double> costs(const Matrix<short>& features) = 0;

    /// Files of one flavour's models, in the library's own formats, begin with `stem`.
    virtual void save(Flavour flavour, const std::string& stem) const = 0;
    virtual void load(Flavour flavour, const std::string& stem, int nWords, int nDimensions) = 0;
};

std::unique_ptr<Recogniser> makeDtw();
std::unique_ptr<Recogniser> makeDiscrete();
std::unique_ptr<Recogniser> makeSemicontinuous();
std::unique_ptr<Recogniser> makeContinuous();
std::unique_ptr<Recogniser> makePerceptron();

/// All of them in this order, or the one of that name. Throws Failure if there is none.
std::vector<std::unique_ptr<Recogniser>> makeRecognisers(const std::string& name = "");

} // namespace words
