// Baum-Welch training of the three output kinds: how each scores its frames and re-estimates its
// outputs. A kind scores in training otherwise than in evaluation: all components or densities of a
// frame at once, and their shares stay for the counts.
#include "models/training.h"

#include "models/flat_mixtures.h"
#include "models/outputs.h"

#include "vsq.h"

#include <algorithm>

namespace {

constexpr ktl::Module module{"..\\_LIBSRC\\KT_HTRN"};

using hmm::Counts;
using hmm::Numbers;
using hmm::smallestDenominator;
using hmm::smallestProbability;

constexpr float smallestFloat = 1.17549435e-38f; // the smallest normal one

std::size_t paddedToLanes(int n) {
    return (std::size_t(n) + vsq::hmmTrainLanes - 1) / vsq::hmmTrainLanes * vsq::hmmTrainLanes;
}

// A stored probability from its numerator and denominator.
float probability(double numerator, double denominator) {
    const float value = static_cast<float>(numerator / denominator);
    return double(value) < smallestProbability ? 0.0f : value;
}

// Rows of floats with their pointers, one for each frame of the longest sequence, readable and zero
// up to a whole group of lanes after their length.
class FrameRows {
public:
    bool allocate(int nFrames, int length) {
        const auto frames = std::size_t(nFrames);
        rowLength = paddedToLanes(length);
        if (frames != 0 && rowLength > PTRDIFF_MAX / sizeof(float) / frames) return false;
        rows = ktl::Scratch<float*>(frames);
        values = ktl::AlignedScratch<float>(static_cast<std::ptrdiff_t>(frames * rowLength));
        if (!rows || !values) return false;
        std::fill_n(values.get(), frames * rowLength, 0.0f);
        for (std::size_t t = 0; t < frames; ++t)
            rows.get()[t] = values.get() + t * rowLength;
        return true;
    }
    float** get() const { return rows.get(); }
    float* row(int t) const { return rows.get()[t]; }
    vsq::HmmOutputs outputs() const {
        return {nullptr, nullptr, values.get(), static_cast<std::ptrdiff_t>(rowLength)};
    }

private:
    ktl::Scratch<float*> rows;
    ktl::AlignedScratch<float> values;
    std::size_t rowLength = 0;
};

// --- discrete: a row of outputs for each symbol ---

class DiscreteEstimator {
public:
    using Sequence = const int*;
    static constexpr unsigned kind = HMM_SERVER_DISCRETE | HMM_SERVER_FLOAT;

    bool prepare(const HMMServer* model, int) {
        return outNum.allocate(std::size_t(std::max(model->nSymbols, 0)),
                               paddedToLanes(model->nStates));
    }

    void startIteration(HMMServer*) { outNum.clear(); }
    void reportDisagreement(const HMMServer*) const {}

    bool score(const HMMServer* current, const HMMServer*, const int* symbols, int nFrames,
               vsq::HmmOutputs* outputs) const {
        *outputs = {hmm::outputRows<const float>(current->outputs), symbols, nullptr, 0};
        return hmm::inAlphabet(current, symbols, nFrames);
    }

    void count(const HMMServer*, const Counts& counts, const int* symbols, int nFrames,
               double weight) {
        vsq::kernels().hmmtrain->symbolOccupancies(counts.lattice(nFrames), symbols, weight,
                                                   outNum.get());
    }

    bool finish(const HMMServer*, HMMServer* next, const Counts& counts) const {
        bool isFinite = true;
        float* const* rows = hmm::outputRows<float>(next->outputs);
        for (int k = 0; k < next->nSymbols; ++k) {
            const double* numerators = outNum.get() + std::size_t(k) * counts.stride;
            for (int i = 0; i < next->nStates; ++i)
                if (counts.visited(i) &&
                    !hmm::replace(rows[k][i],
                                  probability(numerators[i], counts.gammaOut[std::size_t(i)])))
                    isFinite = false;
        }
        return isFinite;
    }

    double change(const HMMServer* current, const HMMServer* next) const {
        double greatest = 0.0;
        for (int k = 0; k < next->nSymbols; ++k)
            greatest = hmm::greatestChange(hmm::outputRows<float>(current->outputs)[k],
                                           hmm::outputRows<float>(next->outputs)[k],
                                           std::size_t(next->nStates), greatest);
        return greatest;
    }

    bool prepareToScore(const HMMServer*) const { return true; }

private:
    Numbers outNum; // nSymbols rows of padded states
};

// --- continuous: a mixture for each state, all of them scored as one list of components ---

class ContinuousEstimator {
public:
    using Sequence = const float* const*;
    static constexpr unsigned kind = HMM_SERVER_CONT | HMM_SERVER_FLOAT;

    ContinuousEstimator() = default;
    ContinuousEstimator(const ContinuousEstimator&) = delete;
    ContinuousEstimator& operator=(const ContinuousEstimator&) = delete;
    ~ContinuousEstimator() { ownsFreeFlatMixtures(view); }

    bool prepare(const HMMServer* model, int longest) {
        // a copy would share its mixtures
        if (!ownsMixtures(model) || !prepareToScore(model)) return false;
        const auto components = std::size_t(view->codebook.nSymbols);
        means = ktl::Scratch<float*>(components);
        return means && outProbs.allocate(longest, model->nStates) &&
               componentProbs.allocate(longest, view->codebook.nSymbols) &&
               gammaComp.allocate(components, 1) && gammaCompSeq.allocate(components, 1);
    }

    // The new model's means become the accumulators of their own re-estimates.
    void startIteration(HMMServer* next) {
        gammaComp.clear();
        float** mean = means.get();
        for (int i = 0; i < next->nStates; ++i)
            mean = std::copy_n(ktl::gauss::means<float>(next->mixtures[i]), next->mixtures[i]->nMix,
                               mean);
        for (int m = 0; m < view->codebook.nSymbols; ++m)
            std::fill_n(means[m], next->nQuant, 0.0f);
    }
    void reportDisagreement(const HMMServer*) const {}

    bool score(const HMMServer* current, const HMMServer*, const float* const* frames, int nFrames,
               vsq::HmmOutputs* outputs) const {
        KTsEvalPdfsFrames(&view->codebook, frames, componentProbs.get(), nFrames,
                          view->codebook.nSymbols, current->nQuant);
        const int* start = view->pComponentStart;
        for (int t = 0; t < nFrames; ++t)
            for (int i = 0; i < current->nStates; ++i) {
                float sum = 0.0f;
                for (int m = start[i]; m < start[i + 1]; ++m)
                    sum += componentProbs.row(t)[m];
                outProbs.row(t)[i] = sum;
            }
        *outputs = outProbs.outputs();
        return true;
    }

    void count(const HMMServer* current, const Counts& counts, const float* const* frames,
               int nFrames, double weight) {
        const vsq::HmmTrainKernels* kernels = vsq::kernels().hmmtrain;
        const vsq::HmmLattice lattice = counts.lattice(nFrames);
        counts.formArrivals(current, outProbs.outputs(), nFrames, weight);
        if (counts.careful) {
            averageFrames(lattice, current->nStates, frames, current->nQuant);
            return;
        }
        gammaCompSeq.clear();
        kernels->componentShares(lattice, current->nStates, view->pComponentStart,
                                 componentProbs.get(), gammaCompSeq.get());
        for (std::size_t m = 0; m < std::size_t(view->codebook.nSymbols); ++m)
            gammaComp[m] += gammaCompSeq[m];
        kernels->addFrames(frames, componentProbs.get(), view->codebook.nSymbols, nFrames,
                           current->nQuant, means.get());
    }

    bool finish(const HMMServer* current, HMMServer* next, const Counts& counts) const {
        bool isFinite = true;
        for (int i = 0; i < next->nStates; ++i)
            for (int m = 0; m < next->mixtures[i]->nMix; ++m) {
                const double occupancy =
                    gammaComp[std::size_t(view->pComponentStart[i]) + std::size_t(m)];
                const bool hasWeight =
                    finishWeight(next->mixtures[i], m, occupancy,
                                 counts.visited(i) ? counts.gammaOut[std::size_t(i)] : 0.0);
                float* mean = ktl::gauss::means<float>(next->mixtures[i])[m];
                if (!finishMean(mean, next->nQuant, occupancy, counts.careful)) {
                    std::copy_n(ktl::gauss::means<float>(current->mixtures[i])[m], next->nQuant,
                                mean);
                    isFinite = false;
                }
                isFinite = isFinite && hasWeight;
            }
        return isFinite;
    }

    double change(const HMMServer* current, const HMMServer* next) const {
        double greatest = 0.0;
        for (int i = 0; i < next->nStates; ++i)
            for (int m = 0; m < next->mixtures[i]->nMix; ++m)
                greatest = hmm::greatestChange(ktl::gauss::means<float>(current->mixtures[i])[m],
                                               ktl::gauss::means<float>(next->mixtures[i])[m],
                                               std::size_t(next->nQuant), greatest);
        return greatest;
    }

    // The view of its mixtures that the next iteration scores with.
    bool prepareToScore(const HMMServer* model) {
        const hmm::OwnStatus ownStatus;
        ownsFreeFlatMixtures(view);
        view = ownsFlattenMixtures(model->mixtures, model->nStates, model->nQuant);
        return view != nullptr;
    }

private:
    // Occupancies of components, and means as running averages: they stay where sums would leave
    // the floats.
    void averageFrames(const vsq::HmmLattice& lattice, int nStates, const float* const* frames,
                       int nQuant) {
        for (int t = 0; t < lattice.nFrames; ++t)
            for (int i = 0; i < nStates; ++i)
                for (int m = view->pComponentStart[i]; m < view->pComponentStart[i + 1]; ++m) {
                    const double share =
                        double(componentProbs.row(t)[m]) * lattice.beta[t * lattice.stride + i];
                    if (share == 0.0) continue;
                    double& occupancy = gammaComp[std::size_t(m)];
                    occupancy += share;
                    for (int d = 0; d < nQuant; ++d) {
                        const auto mean = double(means[m][d]);
                        means[m][d] = static_cast<float>(mean + share / occupancy *
                                                                    (double(frames[t][d]) - mean));
                    }
                }
    }

    // A weight that has reached zero stays there. The normalised weight follows, for the next view.
    static bool finishWeight(GaussMixServer* mixture, int m, double occupancy, double ofState) {
        float& weight = ktl::gauss::weights<float>(mixture)[m];
        const bool isZero = double(weight) < smallestDenominator;
        const bool isFinite =
            ofState == 0.0 ||
            hmm::replace(weight, isZero ? 0.0f : static_cast<float>(occupancy / ofState));
        mixture->pNormWeights[m] = weight;
        return isFinite;
    }

    // A component that received no frames gets a mean of zeros.
    static bool finishMean(float* mean, int nQuant, double occupancy, bool isAverage) {
        if (!std::isfinite(occupancy)) return false;
        if (occupancy < double(smallestFloat))
            std::fill_n(mean, nQuant, 0.0f);
        else if (nQuant > 0 && !isAverage)
            vsqsbMpy1(static_cast<float>(1.0 / occupancy), mean, nQuant);
        return std::all_of(mean, mean + nQuant, [](float x) { return std::isfinite(x); });
    }

    FlatMixtures* view = nullptr;
    FrameRows outProbs;       // per frame: the states' output values
    FrameRows componentProbs; // per frame: the components' values, later their shares of the frame
    Numbers gammaComp, gammaCompSeq;
    ktl::Scratch<float*> means; // of the new model, component by component
};

// --- semicontinuous: a row of weights over the codebook's densities for each state ---

class SemicontinuousEstimator {
public:
    using Sequence = const float* const*;
    static constexpr unsigned kind = HMM_SERVER_SEMICONT | HMM_SERVER_FLOAT;

    bool prepare(const HMMServer* model, int longest) {
        const int nSymbols = std::max(model->nSymbols, 0);
        return outProbs.allocate(longest, model->nStates) &&
               densities.allocate(longest, nSymbols) &&
               weightNum.allocate(std::size_t(model->nStates), paddedToLanes(nSymbols));
    }

    void startIteration(HMMServer*) { weightNum.clear(); }
    void reportDisagreement(const HMMServer* current) const { hmm::compareWithCodebook(current); }

    // A codebook that does not agree with the server is read as far as both go; what is beyond it
    // counts as densities that never respond.
    bool score(const HMMServer* current, const HMMServer* next, const float* const* frames,
               int nFrames, vsq::HmmOutputs* outputs) const {
        const SemicontCodebook* codebook = KTGetContext()->sSemicont;
        // rows may still hold densities of a codebook that a report's handler has replaced
        for (int t = 0; codebook->nSymbols < current->nSymbols && t < nFrames; ++t)
            std::fill_n(densities.row(t), current->nSymbols, 0.0f);
        KTsEvalPdfsFrames(codebook, frames, densities.get(), nFrames,
                          std::min(current->nSymbols, codebook->nSymbols),
                          std::min(current->nQuant, codebook->nQuant));
        for (int t = 0; t < nFrames; ++t)
            hmm::weightedRow(next, densities.row(t), outProbs.row(t));
        *outputs = outProbs.outputs();
        return true;
    }

    void count(const HMMServer* current, const Counts& counts, const float* const*, int nFrames,
               double weight) {
        const vsq::HmmLattice lattice = counts.lattice(nFrames);
        counts.formArrivals(current, outProbs.outputs(), nFrames, weight);
        vsq::kernels().hmmtrain->densityShares(
            lattice, current->nStates, densities.get(), current->nSymbols, weightNum.get(),
            static_cast<std::ptrdiff_t>(paddedToLanes(current->nSymbols)));
    }

    // Every count lacks the factor of its weight, which comes in here.
    bool finish(const HMMServer* current, HMMServer* next, const Counts& counts) const {
        bool isFinite = true;
        for (int i = 0; i < next->nStates; ++i) {
            if (!counts.visited(i)) continue;
            const double* numerators =
                weightNum.get() + std::size_t(i) * paddedToLanes(next->nSymbols);
            const float* before = hmm::outputRows<float>(current->outputs)[i];
            float* weights = hmm::outputRows<float>(next->outputs)[i];
            for (int k = 0; k < next->nSymbols; ++k)
                if (!hmm::replace(weights[k], probability(double(before[k]) * numerators[k],
                                                          counts.gammaOut[std::size_t(i)])))
                    isFinite = false;
        }
        return isFinite;
    }

    double change(const HMMServer* current, const HMMServer* next) const {
        double greatest = 0.0;
        for (int i = 0; i < next->nStates; ++i)
            greatest = hmm::greatestChange(hmm::outputRows<float>(current->outputs)[i],
                                           hmm::outputRows<float>(next->outputs)[i],
                                           std::size_t(next->nSymbols), greatest);
        return greatest;
    }

    bool prepareToScore(const HMMServer*) const { return true; }

private:
    FrameRows outProbs;  // per frame: the states' output values
    FrameRows densities; // per frame: the codebook's weighted densities
    // per state a padded row over the densities, without the factor of the weight
    Numbers weightNum;
};

// The server of an id; null for an unknown one and for that of a class.
const HMMServer* serverToTrain(int hmm) {
    return hmm > 0 ? KTFindHMMServer(hmm) : nullptr;
}

} // namespace

int KTsTrainHMMBaumWelch(int hmm, const int* const* ppObservations, const int* pFrames,
                         int nSequences, int maxIterations, float* pTolerance) {
    const HMMServer* model = serverToTrain(hmm);
    if (model == nullptr) return -1;
    DiscreteEstimator estimator;
    return hmm::train(estimator, model, {ppObservations, pFrames, nSequences}, maxIterations,
                      pTolerance);
}

int KTsTrainContHMMBaumWelch(int hmm, const float* const* const* pppFrames, const int* pFrames,
                             int nSequences, int maxIterations, float* pTolerance) {
    const HMMServer* model = serverToTrain(hmm);
    if (model == nullptr) return -1;
    ContinuousEstimator estimator;
    return hmm::train(estimator, model, {pppFrames, pFrames, nSequences}, maxIterations,
                      pTolerance);
}

int KTsTrainSemicontHMMBaumWelch(int hmm, const float* const* const* pppFrames, const int* pFrames,
                                 int nSequences, int maxIterations, float* pTolerance) {
    const HMMServer* model = serverToTrain(hmm);
    if (model == nullptr || !hmm::evaluable(model, SemicontinuousEstimator::kind)) return -1;
    const HeldHMMServer held(model);
    // training goes on after these reports, unless a handler has released the model
    hmm::CodebookDisagreement(model).report(module, "KTsTrainSemicontHMMBaumWelch");
    if (held.get() == nullptr) return -1;
    SemicontinuousEstimator estimator;
    return hmm::train(estimator, model, {pppFrames, pFrames, nSequences}, maxIterations,
                      pTolerance);
}
