// Random data that are the same in every run.
#pragma once

#include <cstddef>
#include <random>
#include <vector>

namespace support {

// n floats between the bounds.
inline std::vector<float> randomFloats(std::size_t n, float low, float high, std::mt19937& engine) {
    std::uniform_real_distribution<float> values(low, high);
    std::vector<float> result(n);
    for (float& value : result)
        value = values(engine);
    return result;
}
inline std::vector<float> randomFloats(std::size_t n, float low, float high, unsigned seed) {
    std::mt19937 engine(seed);
    return randomFloats(n, low, high, engine);
}

} // namespace support
