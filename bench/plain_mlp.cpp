#ifdef KTL_HAVE_EIGEN3
#include "plain_mlp.h"

#include <Eigen/Dense>

#include <vector>

namespace plain {

struct EigenNetwork::Layers {
    std::vector<Eigen::MatrixXf> weights;
    std::vector<Eigen::VectorXf> values;
};

EigenNetwork::EigenNetwork(const int* counts, int nLayers) : layers(new Layers) {
    layers->values.push_back(Eigen::VectorXf(counts[0]));
    for (int l = 1; l < nLayers; ++l) {
        layers->weights.push_back(Eigen::MatrixXf::Random(counts[l], counts[l - 1]) * 0.25f);
        layers->values.push_back(Eigen::VectorXf(counts[l]));
    }
}

EigenNetwork::~EigenNetwork() {
    delete layers;
}

void EigenNetwork::evaluate(const float* input, float* output) {
    auto& values = layers->values;
    values[0] = Eigen::Map<const Eigen::VectorXf>(input, values[0].size());
    for (std::size_t l = 0; l < layers->weights.size(); ++l) {
        values[l + 1].noalias() = layers->weights[l] * values[l];
        values[l + 1] = values[l + 1].array().logistic();
    }
    Eigen::Map<Eigen::VectorXf>(output, values.back().size()) = values.back();
}

void eigenLogistic(const float* in, float* out, int n) {
    Eigen::Map<Eigen::ArrayXf>(out, n) = Eigen::Map<const Eigen::ArrayXf>(in, n).logistic();
}

} // namespace plain
#endif
