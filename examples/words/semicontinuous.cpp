// Semicontinuous hidden Markov models: all states share one codebook of Gaussians and differ in its
// weights.
#include "clusters.h"
#include "frontend.h"
#include "hmmset.h"

namespace words {
namespace {

constexpr int nStates = 8;
constexpr int nDensities = 128;
constexpr int nCodebookFrames = 4000;
constexpr int iterations = 5;
constexpr float leastWeight = 1e-4f;
// Costs and weights of densities share a scale; a weight of 1 is 16384. The densities' own weight
// is 1 at the same scale.
constexpr int costScale = -14;
constexpr int meanScale = featureScale;
constexpr float flattening =
    5.0f; // densities have 14 fraction bits in fixed point: a frame is to reach several of them

using Densities = std::vector<Mixture>;

std::vector<GaussMixServer*> pointersTo(const Densities& densities) {
    std::vector<GaussMixServer*> result;
    for (const Mixture& density : densities)
        result.push_back(density.get());
    return result;
}

// How a model, or a class of models, is scored: the best path's cost.
auto evaluation(const Matrix<float>& features) {
    return [rows = features.pointers()](int id, int* best) {
        return KTsEvalSemicontHMMViterbi(id, rows.data(), static_cast<int>(rows.size()), best);
    };
}
auto evaluation(const Matrix<short>& features) {
    return [rows = features.pointers()](int id, int* best) {
        return KTwEvalSemicontHMMViterbi(id, rows.data(), static_cast<int>(rows.size()), best,
                                         KT_NoScale, nullptr) *
               KTPower2(costScale);
    };
}

class Semicontinuous : public Recogniser {
public:
    ~Semicontinuous() override {
        KTsFreeSemicontCodebook();
        KTwFreeSemicontCodebook();
    }

    std::string name() const override { return "semicontinuous"; }
    std::string title() const override { return "semicontinuous HMM"; }

    void train(const TrainingSet& training, Progress& progress) override {
        progress.show("making the codebook of densities", 0, 1);
        makeCodebook(training);
        words = training.words;
        real.clear();
        fixed.clear();
        for (int word = 0; word < training.nWords(); ++word) {
            progress.show("training semicontinuous models", word, training.nWords());
            Hmm costs = trainWord(training, word);
            fixed.add(Hmm(KTswConvertHMMServer(costs.get(), costScale, 0, 0, 0)));
            real.add(std::move(costs));
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

    /// Models are in one file, the codebook in another: the thread has one for all models.
    void save(Flavour flavour, const std::string& stem) const override {
        (flavour == Flavour::real ? real : fixed).save(stem + ".hmm", words);
        Stream file(stem + ".codebook.gaus", "wb");
        for (const Mixture& density : flavour == Flavour::real ? realDensities : fixedDensities)
            KTWriteGaussMixServer(file, density.get());
        file.finish();
    }

    void load(Flavour flavour, const std::string& stem, const std::vector<std::string>& vocabulary,
              int nDimensions) override {
        words = vocabulary;
        Stream file(stem + ".codebook.gaus", "rb");
        Densities densities;
        for (int k = 0; k < nDensities; ++k) {
            densities.emplace_back(KTReadGaussMixServer(file));
            if (!densities.back()) file.damaged("density");
        }
        // The codebook refuses densities of the other flavour or of fewer dimensions.
        if (!install(flavour, std::move(densities), nDimensions))
            file.damaged("density of this kind and size");
        file.finish();
        if (flavour == Flavour::real)
            real.load(stem + ".hmm", words, nDensities, nDimensions,
                      HMM_SERVER_SEMICONT | HMM_SERVER_FLOAT | KT_HMM_LOGARITHMIC);
        else
            fixed.load(stem + ".hmm", words, nDensities, nDimensions,
                       HMM_SERVER_SEMICONT | HMM_SERVER_SHORT | KT_HMM_LOGARITHMIC);
    }

private:
    void makeCodebook(const TrainingSet& training) {
        const int nDimensions = training.dimensions();
        const Frames frames = someFrames(training, nCodebookFrames);
        Clusters clusters = cluster(frames, nDimensions, nDensities);
        if (clusters.means.rows() < nDensities)
            throw Failure("too little to train from: " + std::to_string(nDensities) +
                          " frames are wanted at least");
        std::vector<float> inverseVariances =
            sharedInverseVariances({frames}, {clusters}, nDimensions, flattening);
        const int varianceScale = inverseVarianceScale(training, inverseVariances, meanScale);
        Densities densities, converted;
        const float one = 1.0f;
        for (int k = 0; k < nDensities; ++k) {
            float* mean = clusters.means.row(k);
            float* variance = inverseVariances.data();
            densities.emplace_back(
                KTsInitGaussMixServer(&one, &mean, nullptr, &variance, nDimensions, 1, 0));
            converted.emplace_back(KTswConvertGaussMixServer(densities.back().get(), costScale,
                                                             meanScale, varianceScale));
        }
        if (!install(Flavour::real, std::move(densities), nDimensions) ||
            !install(Flavour::fixed, std::move(converted), nDimensions))
            throw Failure("the codebook of densities could not be made: " + lastReport());
    }

    bool install(Flavour flavour, Densities densities, int nDimensions) {
        std::vector<GaussMixServer*> pointers = pointersTo(densities);
        if (flavour == Flavour::real) {
            KTsFreeSemicontCodebook();
            realDensities = std::move(densities);
            return KTsInitSemicontCodebook(pointers.data(), nDensities, nDimensions, 0) > 0;
        }
        KTwFreeSemicontCodebook();
        fixedDensities = std::move(densities);
        return KTwInitSemicontCodebook(pointers.data(), nDensities, nDimensions, 0) > 0;
    }

    Hmm trainWord(const TrainingSet& training, int word) const {
        const int nDimensions = training.dimensions();
        Sequences<const float*> frames = framesOf(training, word);
        Topology topology(nStates);
        Matrix<float> weights = evenWeights(frames, nDimensions);
        const Hmm start = make(topology, weights, nDimensions);
        const Hmm trained(KTsTrainSemicontHMMBaumWelch(start.get(), frames.pointers.data(),
                                                       frames.lengths.data(), frames.size(),
                                                       iterations, nullptr));
        std::vector<void*> transitions = untyped(topology.transitions);
        std::vector<void*> rows = untyped(weights);
        KTGetHMMProb(trained.get(), topology.initial.data(), transitions.data(), nullptr,
                     rows.data(), nullptr);
        smooth(weights, leastWeight);
        return Hmm(KTsLogHMMServer(make(topology, weights, nDimensions).get()));
    }

    // / To begin with: how much each density has to do with the frames of a state, when utterances
    // are cut evenly.
    Matrix<float> evenWeights(const Sequences<const float*>& frames, int nDimensions) const {
        Matrix<float> weights(nStates, nDensities);
        for (const auto& sequence : frames.observations)
            for (int t = 0; t < static_cast<int>(sequence.size()); ++t) {
                float* row = weights.row(evenState(t, static_cast<int>(sequence.size()), nStates));
                std::vector<double> likelihoods;
                double sum = 1e-30;
                for (const Mixture& density : realDensities) {
                    likelihoods.push_back(KTsEvalGaussMix(
                        density.get(), sequence[static_cast<std::size_t>(t)], nDimensions));
                    sum += likelihoods.back();
                }
                for (int k = 0; k < nDensities; ++k)
                    row[k] += static_cast<float>(likelihoods[static_cast<std::size_t>(k)] / sum);
            }
        smooth(weights, leastWeight);
        return weights;
    }

    static Hmm make(Topology& topology, Matrix<float>& weights, int nDimensions) {
        return Hmm(KTsInitSemicontHMMServer(topology.transitions.pointers().data(),
                                            weights.pointers().data(), topology.initial.data(),
                                            nStates, nDensities, nDimensions, KT_HMM_EXPONENTIAL));
    }

    std::vector<std::string> words;
    HmmSet real;
    HmmSet fixed;
    Densities realDensities;
    Densities fixedDensities;
};

} // namespace

std::unique_ptr<Recogniser> makeSemicontinuous() {
    return std::make_unique<Semicontinuous>();
}

} // namespace words
