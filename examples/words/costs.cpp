#include "costs.h"

#include <algorithm>
#include <cmath>

namespace words {
namespace {

constexpr std::size_t mostUtterances = 1000;
constexpr std::size_t fewUtterances = 100; // where each takes long
// Speakers that the training never heard are further away than all that it heard.
constexpr double slack = 3.0;
constexpr double largest = 999.0;
constexpr double noiseSpread = 1.0; // noise has about half of that in frames of 80 samples

bool isPossible(double cost) {
    return std::isfinite(cost) && cost < 1e30; // the largest floats stand for impossible words
}

double quantile(std::vector<double>& values, double share) {
    if (values.empty()) return 0.0;
    const auto place = values.begin() +
                       static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), place, values.end());
    return *place;
}

/// A scale has a width, whatever the training was like.
CostScale makeScale(std::vector<double>& right, std::vector<double>& wrong) {
    CostScale scale;
    scale.right = quantile(right, 0.5);
    scale.wrong = quantile(wrong, 0.5);
    const double worst = std::max(quantile(right, 1.0), quantile(wrong, 1.0));
    const double least = 1e-6 + 0.05 * std::abs(scale.right);
    scale.limit = scale.right + slack * std::max(worst - scale.right, 2.0 * least);
    scale.wrong = std::max(scale.wrong, scale.right + least);
    return scale;
}

} // namespace

bool CostScale::admits(double cost) const {
    return std::isfinite(cost) && cost <= limit;
}

double CostScale::forPeople(double cost) const {
    const double place = 100.0 + 100.0 * (cost - right) / (wrong - right);
    // not-a-number is largest
    return place >= 0.0 ? std::min(place, largest) : place < 0.0 ? 0.0 : largest;
}

CostScale findScale(Recogniser& recogniser, Flavour flavour, const TrainingSet& training) {
    std::vector<double> right, wrong;
    const std::size_t n = training.utterances.size();
    const std::size_t most = recogniser.isSlow() ? fewUtterances : mostUtterances;
    const std::size_t step = (n + most - 1) / most;
    for (std::size_t i = 0; i < n; i += step) {
        const Utterance& utterance = training.utterances[i];
        std::vector<double> costs = flavour == Flavour::real
                                        ? recogniser.costsOfTraining(utterance.real)
                                        : recogniser.costsOfTraining(utterance.fixed);
        double& own = costs[static_cast<std::size_t>(utterance.word)];
        const double cost = own;
        own = HUGE_VAL;
        const double other = *std::min_element(costs.begin(), costs.end());
        // What is nearer to another word may be mislabelled, and is no measure.
        if (isPossible(cost) && cost <= other) right.push_back(cost);
        if (isPossible(other)) wrong.push_back(other);
    }
    return makeScale(right, wrong);
}

double findLeastSpread(std::vector<double> spreads) {
    return std::min(0.5 * quantile(spreads, 0.01), noiseSpread);
}

} // namespace words
