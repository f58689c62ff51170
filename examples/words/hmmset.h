// One hidden Markov model per word, in both flavours: what the three kinds of models have in
// common.
#pragma once

#include "library.h"
#include "recogniser.h"

namespace words {

// / Start values and transitions of a left-to-right model: a state lasts, goes on to the next one,
// or skips one.
struct Topology {
    explicit Topology(int nStates);
    std::vector<float> initial;
    Matrix<float> transitions;
};

/// The state of frame t of n, when an utterance is cut into equal parts.
inline int evenState(int t, int n, int nStates) {
    return t * nStates / n;
}

// / Makes each row of probabilities add up to 1, none of them being below about `floor`: what the
// training never saw is / unlikely and not impossible.
void smooth(Matrix<float>& probabilities, float floor);

/// A table's rows as KTGetHMMProb takes them, which writes either flavour.
template <class Value>
std::vector<void*> untyped(Matrix<Value>& table) {
    std::vector<void*> rows;
    for (int i = 0; i < table.rows(); ++i)
        rows.push_back(table.row(i));
    return rows;
}

/// Sequences of observations in the three arrays that the training functions take.
template <class Observation>
struct Sequences {
    std::vector<std::vector<Observation>> observations;
    std::vector<const Observation*> pointers;
    std::vector<int> lengths;

    void add(std::vector<Observation> sequence) {
        lengths.push_back(static_cast<int>(sequence.size()));
        observations.push_back(std::move(sequence));
        pointers.push_back(observations.back().data());
    }
    int size() const { return static_cast<int>(lengths.size()); }
};

/// The frames of one word's utterances, for the training of continuous and semicontinuous models.
Sequences<const float*> framesOf(const TrainingSet& training, int word);

// / The models of one flavour and the class that holds them: a class is scored in one call, which
// names the best.
class HmmSet {
public:
    HmmSet() = default;
    ~HmmSet() { clear(); }
    HmmSet(const HmmSet&) = delete;
    HmmSet& operator=(const HmmSet&) = delete;

    void clear();
    void add(Hmm model); ///< the next word's

    // / `evaluate(id, pBest)` scores one model, or with the negated id of a class all of them;
    // costs are told per frame.
    template <class Evaluate>
    Answer best(Evaluate evaluate, int nFrames) const {
        int id = 0;
        const auto cost = static_cast<double>(evaluate(-classId, &id));
        return {wordOf(id), cost / nFrames};
    }
    template <class Evaluate>
    std::vector<double> all(Evaluate evaluate, int nFrames) const {
        std::vector<double> costs;
        int id = 0;
        for (const Hmm& model : models)
            costs.push_back(static_cast<double>(evaluate(model.get(), &id)) / nFrames);
        return costs;
    }

    void save(const std::string& path, const std::vector<std::string>& words) const;
    // / Throws Failure unless the file holds these words' models, whose status has `statusBits`,
    // with that alphabet and / that length of vectors (0: any).
    void load(const std::string& path, const std::vector<std::string>& words, int nSymbols,
              int nDimensions, unsigned statusBits);

private:
    int wordOf(int id) const;

    std::vector<Hmm> models;
    int classId = 0;
};

} // namespace words
