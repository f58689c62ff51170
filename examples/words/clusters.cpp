#include "clusters.h"

#include "library.h"

#include <algorithm>
#include <cmath>

namespace words {
namespace {

constexpr int rounds = 8;

double squaredDistance(const float* a, const float* b, int n) {
    double sum = 0.0;
    for (int i = 0; i < n; ++i)
        sum += (a[i] - b[i]) * (a[i] - b[i]);
    return sum;
}

/// An empty cluster keeps its mean.
void updateMeans(const Frames& frames, int nDimensions, Clusters& clusters) {
    Matrix<double> sums(clusters.means.rows(), nDimensions);
    std::fill(clusters.counts.begin(), clusters.counts.end(), 0);
    for (std::size_t f = 0; f < frames.size(); ++f) {
        const int k = clusters.labels[f];
        ++clusters.counts[static_cast<std::size_t>(k)];
        for (int i = 0; i < nDimensions; ++i)
            sums.row(k)[i] += frames[f][i];
    }
    for (int k = 0; k < sums.rows(); ++k)
        if (const int count = clusters.counts[static_cast<std::size_t>(k)]; count > 0)
            for (int i = 0; i < nDimensions; ++i)
                clusters.means.row(k)[i] = static_cast<float>(sums.row(k)[i] / count);
}

void updateLabels(const Frames& frames, int nDimensions, Clusters& clusters) {
    for (std::size_t f = 0; f < frames.size(); ++f) {
        double best =
            squaredDistance(frames[f], clusters.means.row(clusters.labels[f]), nDimensions);
        for (int k = 0; k < clusters.means.rows(); ++k)
            if (const double d = squaredDistance(frames[f], clusters.means.row(k), nDimensions);
                d < best) {
                best = d;
                clusters.labels[f] = k;
            }
    }
}

} // namespace

Clusters cluster(const Frames& frames, int nDimensions, int n) {
    const int nFrames = static_cast<int>(frames.size());
    const int nCells = std::min(n, nFrames);
    std::vector<float*> rows;
    for (const float* frame : frames)
        // the library's table of rows; it only reads them
        rows.push_back(const_cast<float*>(frame));

    Clusters result{Matrix<float>(nCells, nDimensions),
                    std::vector<int>(static_cast<std::size_t>(nCells)),
                    std::vector<int>(frames.size())};
    const Codebook tree(KTsMakeCodebook(rows.data(), result.labels.data(), nFrames, nDimensions,
                                        nCells, KT_CB_EUCLID | KT_CB_SPLIT_LARGEST));
    if (!tree) throw Failure("the training frames could not be clustered: " + lastReport());
    for (int& label : result.labels)
        --label; // cells count from 1
    for (int round = 0; round < rounds; ++round) {
        updateMeans(frames, nDimensions, result);
        updateLabels(frames, nDimensions, result);
    }
    updateMeans(frames, nDimensions, result);
    return result;
}

Frames someFrames(const TrainingSet& training, int limit) {
    Frames all;
    for (const Utterance& utterance : training.utterances)
        for (int t = 0; t < utterance.real.rows(); ++t)
            all.push_back(utterance.real.row(t));
    const std::size_t step =
        (all.size() + static_cast<std::size_t>(limit) - 1) / static_cast<std::size_t>(limit);
    Frames some;
    for (std::size_t i = 0; i < all.size(); i += step)
        some.push_back(all[i]);
    return some;
}

std::vector<Frames> framesByState(const TrainingSet& training, int word, int nStates) {
    std::vector<Frames> result(static_cast<std::size_t>(nStates));
    for (const Utterance& utterance : training.utterances)
        if (utterance.word == word)
            for (int t = 0; t < utterance.real.rows(); ++t)
                result[static_cast<std::size_t>(t * nStates / utterance.real.rows())].push_back(
                    utterance.real.row(t));
    for (std::size_t i = 1; i < result.size(); ++i)
        if (result[i].empty()) result[i] = result[i - 1];
    return result;
}

std::vector<float> sharedInverseVariances(const std::vector<Frames>& groups,
                                          const std::vector<Clusters>& clusters, int nDimensions,
                                          float flattening) {
    std::vector<double> sums(static_cast<std::size_t>(nDimensions));
    double nFrames = 0.0;
    for (std::size_t g = 0; g < groups.size(); ++g) {
        nFrames += static_cast<double>(groups[g].size());
        for (std::size_t f = 0; f < groups[g].size(); ++f) {
            const float* mean = clusters[g].means.row(clusters[g].labels[f]);
            for (int i = 0; i < nDimensions; ++i) {
                const double difference = groups[g][f][i] - mean[i];
                sums[static_cast<std::size_t>(i)] += difference * difference;
            }
        }
    }
    std::vector<float> result;
    for (const double sum : sums) // a tenth of the features' own variance at least
        result.push_back(static_cast<float>(1.0 / (std::max(sum / nFrames, 0.1) * flattening)));
    return result;
}

int inverseVarianceScale(const TrainingSet& training, const std::vector<float>& inverseVariances,
                         int meanScale) {
    std::vector<float> largest(inverseVariances.size());
    for (const Utterance& utterance : training.utterances)
        for (int t = 0; t < utterance.real.rows(); ++t)
            for (std::size_t i = 0; i < largest.size(); ++i)
                largest[i] = std::max(largest[i], std::abs(utterance.real.row(t)[i]));
    float form = 0.0f;
    for (std::size_t i = 0; i < largest.size(); ++i)
        form += 4.0f * largest[i] * largest[i] * inverseVariances[i];
    const int n = static_cast<int>(inverseVariances.size());
    return std::max(KTsMaxOrder(&form, 1) - 31 - 2 * meanScale,
                    KTsMaxOrder(inverseVariances.data(), n) - 15);
}

} // namespace words
