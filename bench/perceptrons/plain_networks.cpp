#ifdef KTL_HAVE_EIGEN3
#include "bench/perceptrons/plain_networks.h"

#include <Eigen/Dense>

namespace plain {

template <int rows, int columns>
using Matrix = Eigen::Matrix<float, rows, columns>;
template <int n>
using Vector = Eigen::Matrix<float, n, 1>;

struct EigenNetwork::Layers {
    EIGEN_MAKE_ALIGNED_OPERATOR_NEW
    Matrix<128, 39> first;
    Matrix<64, 128> second;
    Matrix<10, 64> third;
};

EigenNetwork::EigenNetwork() : layers(new Layers) {
}

EigenNetwork::~EigenNetwork() {
    delete layers;
}

void EigenNetwork::setWeight(int layer, int neuron, int input, float weight) {
    if (layer == 1)
        layers->first(neuron, input) = weight;
    else if (layer == 2)
        layers->second(neuron, input) = weight;
    else
        layers->third(neuron, input) = weight;
}

void EigenNetwork::evaluate(const float* input, float* output) {
    Vector<128> one;
    Vector<64> two;
    Vector<10> three;
    one.noalias() = layers->first * Eigen::Map<const Vector<39>>(input);
    one = one.array().logistic();
    two.noalias() = layers->second * one;
    two = two.array().logistic();
    three.noalias() = layers->third * two;
    Eigen::Map<Vector<10>>{output} = three.array().logistic();
}

// The output layer has 16 rows, whole registers: the last three have no weights, and their targets
// are what such a neuron gives.
struct EigenTrainer::State {
    EIGEN_MAKE_ALIGNED_OPERATOR_NEW
    struct Weights {
        Matrix<32, 13> hidden;
        Matrix<16, 32> output;
    };
    Weights start, now, change;
    Vector<32> hidden;
    Vector<16> output, target;

    void forward(const float* input) {
        hidden.noalias() = now.hidden * Eigen::Map<const Vector<13>>(input);
        hidden = hidden.array().logistic();
        output.noalias() = now.output * hidden;
        output = output.array().logistic();
    }
    void aim(const float* values) {
        target.head<13>() = Eigen::Map<const Vector<13>>(values);
        target.tail<3>().setConstant(0.5f);
    }
    void learn(const float* input, float rate, float momentum) {
        const Vector<16> delta = (target - output).array() * (1 - output.array()) * output.array();
        change.output = (rate * delta) * hidden.transpose() + momentum * change.output;
        now.output += change.output;
        Vector<32> below;
        below.noalias() = now.output.transpose() * delta;
        below = below.array() * (1 - hidden.array()) * hidden.array();
        change.hidden = (rate * below) * Eigen::Map<const Vector<13>>(input).transpose() +
                        momentum * change.hidden;
        now.hidden += change.hidden;
    }
};

EigenTrainer::EigenTrainer() : state(new State) {
    state->start.output.setZero();
}

EigenTrainer::~EigenTrainer() {
    delete state;
}

void EigenTrainer::setWeight(int layer, int neuron, int input, float weight) {
    (layer == 1 ? state->start.hidden(neuron, input) : state->start.output(neuron, input)) = weight;
}

float EigenTrainer::weight(int layer, int neuron, int input) const {
    return layer == 1 ? state->now.hidden(neuron, input) : state->now.output(neuron, input);
}

float EigenTrainer::train(const float* const* inputs, const float* const* targets, int nPatterns,
                          float rate, float momentum, int firstMoving) {
    State& s = *state;
    s.now = s.start;
    s.change.hidden.setZero();
    s.change.output.setZero();
    for (int k = firstMoving; k < 13; ++k)
        s.change.output.row(k) = s.now.output.row(k);
    float error = 0;
    for (int p = 0; p < nPatterns; ++p) {
        s.forward(inputs[p]);
        s.aim(targets[p]);
        error += (s.target - s.output).squaredNorm();
    }
    for (int p = 0; p < nPatterns; ++p) {
        s.forward(inputs[p]);
        s.aim(targets[p]);
        s.learn(inputs[p], rate, momentum);
    }
    return error / float(2 * nPatterns);
}

void eigenLogistic(const float* in, float* out, int n) {
    Eigen::Map<Eigen::ArrayXf>(out, n) = Eigen::Map<const Eigen::ArrayXf>(in, n).logistic();
}

} // namespace plain
#endif
