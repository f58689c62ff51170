// Networks and sigmoids by Eigen, compiled as its users would.
#pragma once

namespace plain {

// A network of three layers with sigmoids; weights column by column as Eigen likes them.
class EigenNetwork {
public:
    EigenNetwork(const int* counts, int nLayers);
    ~EigenNetwork();
    EigenNetwork(const EigenNetwork&) = delete;
    EigenNetwork& operator=(const EigenNetwork&) = delete;
    void evaluate(const float* input, float* output);

private:
    struct Layers;
    Layers* layers;
};

void eigenLogistic(const float* in, float* out, int n);

} // namespace plain
