// Networks and sigmoids by Eigen, compiled as its users would: the shapes are known to the
// compiler.
#pragma once

namespace plain {

// 39-128-64-10 with sigmoids.
class EigenNetwork {
public:
    EigenNetwork();
    ~EigenNetwork();
    EigenNetwork(const EigenNetwork&) = delete;
    EigenNetwork& operator=(const EigenNetwork&) = delete;
    void setWeight(int layer, int neuron, int input, float weight); // layers from 1
    void evaluate(const float* input, float* output);

private:
    struct Layers;
    Layers* layers;
};

// 13-32-13 with sigmoids, trained pattern by pattern with momentum.
class EigenTrainer {
public:
    EigenTrainer();
    ~EigenTrainer();
    EigenTrainer(const EigenTrainer&) = delete;
    EigenTrainer& operator=(const EigenTrainer&) = delete;
    void setWeight(int layer, int neuron, int input, float weight);
    float weight(int layer, int neuron, int input) const;
    // One epoch behind a pass that measures the error, from the weights that were set. A last row
    // of the output layer from `firstMoving` on begins with its weights as its previous change.
    float train(const float* const* inputs, const float* const* targets, int nPatterns, float rate,
                float momentum, int firstMoving);

private:
    struct State;
    State* state;
};

void eigenLogistic(const float* in, float* out, int n);

} // namespace plain
