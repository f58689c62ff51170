// Discrete hidden Markov models: a tree codebook turns each frame into one of a few hundred
// symbols.
#include "clusters.h"
#include "frontend.h"
#include "hmmset.h"

#include <algorithm>
#include <future>

namespace words {
namespace {

constexpr int nStates = 10;
constexpr int nSymbols = 256;
constexpr int nCodebookFrames =
    4000; // the search for the two farthest vectors of a cell goes through all pairs
constexpr int iterations = 5;
constexpr float leastProbability = 3e-4f;
constexpr int costScale = -10;
// Fixed-point distances are integers: four more bits keep vectors apart that would tie, and two
// trees alike.
constexpr int codebookScale = featureScale - 4;
constexpr int treeFlags = KT_CB_EUCLID | KT_CB_SPLIT_LARGEST;

using Symbols = std::vector<int>;

// The library's names for one operation in both flavours.
Codebook growTree(Matrix<float>& vectors) {
    return Codebook(KTsMakeCodebook(vectors.pointers().data(), nullptr, vectors.rows(),
                                    vectors.columns(), nSymbols, treeFlags));
}
Codebook growTree(Matrix<short>& vectors) {
    return Codebook(KTwMakeCodebook(vectors.pointers().data(), nullptr, vectors.rows(),
                                    vectors.columns(), nSymbols, treeFlags));
}

void quantise(const Codebook& tree, Matrix<float>& features, Symbols& cells) {
    double distortion = 0.0;
    KTsVQCodebook(tree.get(), features.pointers().data(), cells.data(), features.rows(),
                  features.columns(), &distortion);
}
void quantise(const Codebook& tree, Matrix<short>& features, Symbols& cells) {
    int distortion = 0;
    KTwVQCodebook(tree.get(), features.pointers().data(), cells.data(), features.rows(),
                  features.columns(), &distortion, KT_NoScale, nullptr);
}

Matrix<float> forCodebook(const Matrix<float>& features) {
    return features;
}
Matrix<short> forCodebook(const Matrix<short>& features) {
    constexpr int factor = 1 << (featureScale - codebookScale);
    Matrix<short> result(features.rows(), features.columns());
    for (int t = 0; t < features.rows(); ++t)
        for (int i = 0; i < features.columns(); ++i)
            result.row(t)[i] =
                static_cast<short>(std::clamp(features.row(t)[i] * factor, -32767, 32767));
    return result;
}

auto evaluation(const Symbols& symbols, float) {
    return [&symbols](int id, int* best) {
        return KTsEvalHMMViterbi(id, symbols.data(), static_cast<int>(symbols.size()), best);
    };
}
auto evaluation(const Symbols& symbols, short) {
    return [&symbols](int id, int* best) {
        return KTwEvalHMMViterbi(id, symbols.data(), static_cast<int>(symbols.size()), best,
                                 KT_NoScale, nullptr) *
               KTPower2(costScale);
    };
}

// The library has no file for a tree, but one for tables of vectors, its templates; and a tree
// grows from the same vectors in the same way. Pattern stores belong to threads: on a thread of its
// own a table gets no other pattern's handle.
int storeTable(Matrix<float>& table) {
    return KTsPatternIni(table.pointers().data(), table.rows(), table.columns());
}
int storeTable(Matrix<short>& table) {
    return KTwPatternIni(table.pointers().data(), table.rows(), table.columns(), codebookScale);
}
void writeTable(FILE* file, int handle, float) {
    KTsWriteDTWPattern(file, handle);
}
void writeTable(FILE* file, int handle, short) {
    KTwWriteDTWPattern(file, handle);
}
void readTable(FILE* file, float**& rows, int& nRows, int& nColumns) {
    KTsPatternGet(KTsReadDTWPattern(file), &rows, &nRows, &nColumns);
}
void readTable(FILE* file, short**& rows, int& nRows, int& nColumns) {
    KTwPatternGet(KTwReadDTWPattern(file), &rows, &nRows, &nColumns, nullptr);
}

/// The codebook and the models of one flavour.
template <class Value>
struct DiscreteModels {
    Matrix<Value> vectors; // that the tree has grown from
    Codebook tree;
    HmmSet models;

    void grow(Matrix<Value> from) {
        vectors = std::move(from);
        tree = growTree(vectors);
        if (!tree) throw Failure("no codebook could be made: " + lastReport());
    }

    Symbols symbols(const Matrix<Value>& utterance) const {
        Matrix<Value> features = forCodebook(utterance);
        Symbols result(static_cast<std::size_t>(features.rows()));
        quantise(tree, features, result);
        for (int& symbol : result)
            --symbol; // cells count from 1
        return result;
    }

    Answer recognise(const Matrix<Value>& features) const {
        const Symbols sequence = symbols(features);
        return models.best(evaluation(sequence, Value{}), features.rows());
    }
    std::vector<double> costs(const Matrix<Value>& features) const {
        const Symbols sequence = symbols(features);
        return models.all(evaluation(sequence, Value{}), features.rows());
    }

    void save(const std::string& stem, const std::vector<std::string>& words) const {
        models.save(stem + ".hmm", words);
        std::async(std::launch::async, [&] {
            quietLibrary();
            Stream file(stem + ".codebook.dtw", "wb");
            Matrix<Value> table = vectors;
            writeTable(file, storeTable(table), Value{});
            file.finish();
            releaseLibrary();
        }).get();
    }

    void load(const std::string& stem, const std::vector<std::string>& words, int nDimensions,
              unsigned status) {
        models.load(stem + ".hmm", words, nSymbols, 0, status);
        std::async(std::launch::async, [&] {
            quietLibrary();
            Stream file(stem + ".codebook.dtw", "rb");
            Value** rows = nullptr;
            int nRows = 0, nColumns = 0;
            readTable(file, rows, nRows, nColumns);
            if (rows == nullptr || nRows != nSymbols || nColumns != nDimensions)
                file.damaged("codebook");
            vectors = Matrix<Value>(nRows, nColumns);
            for (int k = 0; k < nRows; ++k)
                std::copy_n(rows[k], nColumns, vectors.row(k));
            file.finish();
            releaseLibrary();
        }).get();
        grow(std::move(vectors));
    }
};

class Discrete : public Recogniser {
public:
    std::string name() const override { return "discrete"; }
    std::string title() const override { return "discrete HMM"; }

    void train(const TrainingSet& training, Progress& progress) override {
        progress.show("growing codebooks", 0, 2);
        words = training.words;
        Clusters clusters =
            cluster(someFrames(training, nCodebookFrames), training.dimensions(), nSymbols);
        if (clusters.means.rows() < nSymbols)
            throw Failure("too little to train from: " + std::to_string(nSymbols) +
                          " frames are wanted at least");
        Matrix<short> fixedMeans(nSymbols, training.dimensions());
        for (int k = 0; k < nSymbols; ++k) {
            int scale = codebookScale;
            KTswbConvertDown(clusters.means.row(k), fixedMeans.row(k), training.dimensions(),
                             KT_FixedScale, &scale);
        }
        real.grow(std::move(clusters.means));
        fixed.grow(std::move(fixedMeans));

        // Fixed-point distances put some frames into other cells: those models learn from the
        // symbols of their own tree.
        real.models.clear();
        fixed.models.clear();
        for (int word = 0; word < training.nWords(); ++word) {
            progress.show("training discrete models", word, training.nWords());
            Sequences<int> realSymbols, fixedSymbols;
            for (const Utterance& utterance : training.utterances)
                if (utterance.word == word) {
                    realSymbols.add(real.symbols(utterance.real));
                    fixedSymbols.add(fixed.symbols(utterance.fixed));
                }
            real.models.add(trainWord(realSymbols));
            const Hmm costs = trainWord(fixedSymbols);
            fixed.models.add(Hmm(KTswConvertHMMServer(costs.get(), costScale, 0, 0, 0)));
        }
    }

    Answer recognise(const Matrix<float>& features) override { return real.recognise(features); }
    Answer recognise(const Matrix<short>& features) override { return fixed.recognise(features); }
    std::vector<double> costs(const Matrix<float>& features) override {
        return real.costs(features);
    }
    std::vector<double> costs(const Matrix<short>& features) override {
        return fixed.costs(features);
    }

    void save(Flavour flavour, const std::string& stem) const override {
        flavour == Flavour::real ? real.save(stem, words) : fixed.save(stem, words);
    }
    void load(Flavour flavour, const std::string& stem, const std::vector<std::string>& vocabulary,
              int nDimensions) override {
        words = vocabulary;
        if (flavour == Flavour::real)
            real.load(stem, words, nDimensions,
                      HMM_SERVER_DISCRETE | HMM_SERVER_FLOAT | KT_HMM_LOGARITHMIC);
        else
            fixed.load(stem, words, nDimensions,
                       HMM_SERVER_DISCRETE | HMM_SERVER_SHORT | KT_HMM_LOGARITHMIC);
    }

private:
    static Hmm trainWord(Sequences<int>& sequences) {
        // What the symbols of evenly cut utterances say of each state is a start, ...
        Topology topology(nStates);
        Matrix<float> outputs(nStates, nSymbols);
        for (const Symbols& sequence : sequences.observations)
            for (int t = 0; t < static_cast<int>(sequence.size()); ++t)
                ++outputs.row(evenState(t, static_cast<int>(sequence.size()),
                                        nStates))[sequence[static_cast<std::size_t>(t)]];
        smooth(outputs, leastProbability);
        const Hmm start = make(topology, outputs);
        // ... Baum-Welch does the rest, ...
        const Hmm trained(KTsTrainHMMBaumWelch(start.get(), sequences.pointers.data(),
                                               sequences.lengths.data(), sequences.size(),
                                               iterations, nullptr));
        // ... and a symbol that the training never saw in a state is to be unlikely there, not
        // impossible.
        std::vector<void*> transitions = untyped(topology.transitions);
        std::vector<void*> rows = untyped(outputs);
        KTGetHMMProb(trained.get(), topology.initial.data(), transitions.data(), rows.data(),
                     nullptr, nullptr);
        smooth(outputs, leastProbability);
        return Hmm(KTsLogHMMServer(make(topology, outputs).get()));
    }

    static Hmm make(Topology& topology, Matrix<float>& outputs) {
        return Hmm(KTsInitHMMServer(topology.transitions.pointers().data(),
                                    outputs.pointers().data(), topology.initial.data(), nStates,
                                    nSymbols, KT_HMM_EXPONENTIAL));
    }

    std::vector<std::string> words;
    DiscreteModels<float> real;
    DiscreteModels<short> fixed;
};

} // namespace

std::unique_ptr<Recogniser> makeDiscrete() {
    return std::make_unique<Discrete>();
}

} // namespace words
