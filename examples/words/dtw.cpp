// Dynamic time warping: every training utterance is kept as a template, and the nearest one names
// the word.
#include "frontend.h"
#include "library.h"
#include "recogniser.h"

#include <algorithm>
#include <limits>

namespace words {
namespace {

constexpr int flags = KT_DTW_FIXED_ENDS; // trimmed utterances begin and end where the words do
constexpr double none = std::numeric_limits<double>::infinity();

// The library's names for one operation in both flavours.
int store(Matrix<float>& features) {
    return KTsPatternIni(features.pointers().data(), features.rows(), features.columns());
}
int store(Matrix<short>& features) {
    return KTwPatternIni(features.pointers().data(), features.rows(), features.columns(),
                         featureScale);
}

int nearest(const std::vector<int>& handles, Matrix<float> test, std::vector<double>& costs) {
    const int n = static_cast<int>(handles.size());
    const int best = KTsEvalDTW(handles.data(), n, test.pointers().data(), test.rows(),
                                test.columns(), flags, 0.0, 0, costs.data());
    for (double& cost : costs) // of templates that are less than half or more than twice as long
        if (cost > 3e38) cost = none;
    return best;
}
int nearest(const std::vector<int>& handles, Matrix<short> test, std::vector<double>& costs) {
    const int n = static_cast<int>(handles.size());
    std::vector<int> stored(costs.size());
    int scale = featureScale;
    const int best =
        KTwEvalDTW(handles.data(), n, test.pointers().data(), test.rows(), test.columns(),
                   featureScale, flags, 0, 0, 0, stored.data(), KT_FixedScale, &scale);
    for (std::size_t i = 0; i < costs.size(); ++i) // what does not fit is the most negative number
        costs[i] = stored[i] < 0 ? none : stored[i] * KTPower2(featureScale);
    return best;
}

/// The templates of one flavour.
template <class Value>
struct Templates {
    std::vector<int> handles;
    std::vector<int> words;

    void add(int handle, int word) {
        if (handle < 0) throw Failure("a template could not be stored: " + lastReport());
        handles.push_back(handle);
        words.push_back(word);
    }

    Answer recognise(const Matrix<Value>& features) const {
        std::vector<double> costs(handles.size());
        const auto best = static_cast<std::size_t>(nearest(handles, features, costs));
        if (best >= costs.size() || !(costs[best] < none)) return {};
        return {words[best], costs[best] / features.rows()};
    }

    /// `itself`: whether a template that does not differ from the features counts.
    std::vector<double> wordCosts(const Matrix<Value>& features, std::size_t nWords,
                                  bool itself) const {
        std::vector<double> costs(handles.size());
        nearest(handles, features, costs);
        std::vector<double> result(nWords, none);
        for (std::size_t i = 0; i < costs.size(); ++i) {
            double& best = result[static_cast<std::size_t>(words[i])];
            if (itself || costs[i] > 0.0) best = std::min(best, costs[i] / features.rows());
        }
        return result;
    }

    /// One file a word. Patterns come back under the handles that they have now.
    template <class Write>
    void save(const std::string& stem, const std::vector<std::string>& vocabulary,
              Write write) const {
        for (int word = 0; word < static_cast<int>(vocabulary.size()); ++word) {
            Stream file(stem + "." + std::to_string(word) + ".dtw", "wb");
            file.writeWord(vocabulary[static_cast<std::size_t>(word)]);
            for (std::size_t i = 0; i < handles.size(); ++i)
                if (words[i] == word) write(file, handles[i]);
            file.finish();
        }
    }

    template <class Read>
    void load(const std::string& stem, const std::vector<std::string>& vocabulary, Read read) {
        handles.clear();
        words.clear();
        for (int word = 0; word < static_cast<int>(vocabulary.size()); ++word) {
            Stream file(stem + "." + std::to_string(word) + ".dtw", "rb");
            file.expectWord(vocabulary[static_cast<std::size_t>(word)]);
            while (!file.atEnd()) {
                const int handle = read(file);
                if (handle < 0) file.damaged("template");
                add(handle, word);
            }
            file.finish();
        }
    }
};

class Dtw : public Recogniser {
public:
    std::string name() const override { return "dtw"; }
    std::string title() const override { return "DTW, all templates"; }
    bool isSlow() const override { return true; }

    void train(const TrainingSet& training, Progress& progress) override {
        KTsPatternFreeAll();
        KTwPatternFreeAll();
        real = {};
        fixed = {};
        words = training.words;
        int done = 0;
        for (const Utterance& utterance : training.utterances) {
            progress.show("storing templates", done++,
                          static_cast<int>(training.utterances.size()));
            Matrix<float> realFeatures = utterance.real;
            Matrix<short> fixedFeatures = utterance.fixed;
            real.add(store(realFeatures), utterance.word);
            fixed.add(store(fixedFeatures), utterance.word);
        }
    }

    Answer recognise(const Matrix<float>& features) override { return real.recognise(features); }
    Answer recognise(const Matrix<short>& features) override { return fixed.recognise(features); }
    std::vector<double> costs(const Matrix<float>& features) override {
        return real.wordCosts(features, words.size(), true);
    }
    std::vector<double> costs(const Matrix<short>& features) override {
        return fixed.wordCosts(features, words.size(), true);
    }
    std::vector<double> costsOfTraining(const Matrix<float>& features) override {
        return real.wordCosts(features, words.size(), false);
    }
    std::vector<double> costsOfTraining(const Matrix<short>& features) override {
        return fixed.wordCosts(features, words.size(), false);
    }

    void save(Flavour flavour, const std::string& stem) const override {
        if (flavour == Flavour::real)
            real.save(stem, words, KTsWriteDTWPattern);
        else
            fixed.save(stem, words, KTwWriteDTWPattern);
    }

    void load(Flavour flavour, const std::string& stem, const std::vector<std::string>& vocabulary,
              int nDimensions) override {
        words = vocabulary;
        // Patterns return under their old handles, which have to be free. The file does not tell
        // the flavour: a name does.
        const auto checked = [&](int handle, int columns) {
            return columns == nDimensions ? handle : -1;
        };
        if (flavour == Flavour::real) {
            KTsPatternFreeAll();
            real.load(stem, words, [&](FILE* file) {
                int columns = 0;
                const int handle = KTsReadDTWPattern(file);
                KTsPatternGet(handle, nullptr, nullptr, &columns);
                return checked(handle, columns);
            });
        } else {
            KTwPatternFreeAll();
            fixed.load(stem, words, [&](FILE* file) {
                int columns = 0;
                const int handle = KTwReadDTWPattern(file);
                KTwPatternGet(handle, nullptr, nullptr, &columns, nullptr);
                return checked(handle, columns);
            });
        }
    }

private:
    Templates<float> real;
    Templates<short> fixed;
    std::vector<std::string> words;
};

} // namespace

std::unique_ptr<Recogniser> makeDtw() {
    return std::make_unique<Dtw>();
}

} // namespace words
