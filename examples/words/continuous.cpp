// Continuous hidden Markov models: every state has a Gaussian mixture of its own.
#include "clusters.h"
#include "frontend.h"
#include "hmmset.h"

#include <algorithm>

namespace words {
namespace {

constexpr int nStates = 10;
constexpr int nMixtures = 3;
constexpr int iterations = 10;
constexpr float flattening = 3.0f;      // more costs accuracy, less costs the fixed models theirs
constexpr int costScale = -10;          // of the fixed models: costs in units of 2^-10 ...
constexpr int weightScale = -14;        // ... weights, of which the largest is 1 ...
constexpr int meanScale = featureScale; // ... and means, which have the scale of the vectors

// How a model, or a class of models, is scored: the best path's cost.
auto evaluation(const Matrix<float>& features) {
    return [rows = features.pointers()](int id, int* best) {
        return KTsEvalContHMMViterbi(id, rows.data(), static_cast<int>(rows.size()), best);
    };
}
auto evaluation(const Matrix<short>& features) {
    return [rows = features.pointers()](int id, int* best) {
        return KTwEvalContHMMViterbi(id, rows.data(), static_cast<int>(rows.size()), best,
                                     KT_NoScale, nullptr) *
               KTPower2(costScale);
    };
}

class Continuous : public Recogniser {
public:
    std::string name() const override { return "continuous"; }
    std::string title() const override { return "continuous HMM"; }

    void train(const TrainingSet& training, Progress& progress) override {
        words = training.words;
        real.clear();
        fixed.clear();
        // Every word's frames by state, and every state's frames around the means of its mixture.
        std::vector<Frames> states;
        std::vector<Clusters> mixtures;
        for (int word = 0; word < training.nWords(); ++word)
            for (Frames& frames : framesByState(training, word, nStates)) {
                progress.show("clustering states", static_cast<int>(states.size()),
                              training.nWords() * nStates);
                mixtures.push_back(cluster(frames, training.dimensions(), nMixtures));
                states.push_back(std::move(frames));
            }
        inverseVariances =
            sharedInverseVariances(states, mixtures, training.dimensions(), flattening);
        inverseCovarianceScale = inverseVarianceScale(training, inverseVariances, meanScale);
        for (int word = 0; word < training.nWords(); ++word) {
            progress.show("training continuous models", word, training.nWords());
            trainWord(training, word, &mixtures[static_cast<std::size_t>(word * nStates)]);
        }
    }

    Answer recognise(const Matrix<float>& features) override {
        return real.best(evaluation(features), features.rows());
    }
    Answer recognise(const Matrix<short>& features) override {
        return fixed.best(evaluation(features), features.rows());
    }
    std::vector<double> costs(const Matrix<float>& features) override {
        return real.all(evaluation(features), features.rows());
    }
    std::vector<double> costs(const Matrix<short>& features) override {
        return fixed.all(evaluation(features), features.rows());
    }

    void save(Flavour flavour, const std::string& stem) const override {
        (flavour == Flavour::real ? real : fixed).save(stem + ".hmm", words);
    }
    void load(Flavour flavour, const std::string& stem, const std::vector<std::string>& vocabulary,
              int nDimensions) override {
        words = vocabulary;
        if (flavour == Flavour::real)
            real.load(stem + ".hmm", words, 0, nDimensions,
                      HMM_SERVER_CONT | HMM_SERVER_FLOAT | KT_HMM_LOGARITHMIC);
        else
            fixed.load(stem + ".hmm", words, 0, nDimensions,
                       HMM_SERVER_CONT | HMM_SERVER_SHORT | KT_HMM_LOGARITHMIC);
    }

private:
    void trainWord(const TrainingSet& training, int word, Clusters* states) {
        std::vector<Mixture> servers;
        std::vector<GaussMixServer*> pointers;
        for (int i = 0; i < nStates; ++i) {
            servers.push_back(mixture(states[i], training.dimensions()));
            pointers.push_back(servers.back().get());
        }
        Topology topology(nStates);
        const Hmm start(KTsInitContHMMServer(topology.transitions.pointers().data(),
                                             topology.initial.data(), pointers.data(), nStates,
                                             training.dimensions(), KT_HMM_EXPONENTIAL));
        // Baum-Welch moves means and weights and leaves covariances alone. The determinants of
        // covariances do not enter; so all mixtures have the same one, and likelihoods of different
        // states can be compared.
        Sequences<const float*> frames = framesOf(training, word);
        const Hmm trained(KTsTrainContHMMBaumWelch(start.get(), frames.pointers.data(),
                                                   frames.lengths.data(), frames.size(), iterations,
                                                   nullptr));
        Hmm costs(KTsLogHMMServer(trained.get()));
        fixed.add(Hmm(KTswConvertHMMServer(costs.get(), costScale, weightScale, meanScale,
                                           inverseCovarianceScale)));
        real.add(std::move(costs));
    }

    // / A fixed mixture wants two Gaussians at least; a state with one frame only gets that one
    // twice.
    Mixture mixture(Clusters& clusters, int nDimensions) {
        const int n = std::max(2, clusters.means.rows());
        std::vector<float*> means, variances;
        std::vector<float> weights;
        for (int k = 0; k < n; ++k) {
            const int source = std::min(k, clusters.means.rows() - 1);
            means.push_back(clusters.means.row(source));
            variances.push_back(inverseVariances.data());
            weights.push_back(
                static_cast<float>(clusters.counts[static_cast<std::size_t>(source)]));
        }
        float sum = 0.0f;
        for (const float weight : weights)
            sum += weight;
        for (float& weight : weights)
            weight /= sum;
        Mixture result(KTsInitGaussMixServer(weights.data(), means.data(), nullptr,
                                             variances.data(), nDimensions, n, 0));
        if (!result) throw Failure("a mixture could not be made: " + lastReport());
        return result;
    }

    std::vector<std::string> words;
    HmmSet real;
    HmmSet fixed;
    std::vector<float> inverseVariances; // one vector for all mixtures
    int inverseCovarianceScale = 0;
};

} // namespace

std::unique_ptr<Recogniser> makeContinuous() {
    return std::make_unique<Continuous>();
}

} // namespace words
