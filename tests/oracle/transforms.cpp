#include "oracle/transforms.h"

#include <cmath>

namespace oracle {
namespace {

const Extended pi = std::acos(-1.0L);

ExtendedComplex root(std::size_t k, std::size_t n) {
    const Extended angle = -2.0L * pi * static_cast<Extended>(k % n) / static_cast<Extended>(n);
    return {std::cos(angle), std::sin(angle)};
}

// x[offset], x[offset + stride], ...: n elements.
std::vector<ExtendedComplex> halved(const std::vector<ExtendedComplex>& x, std::size_t offset,
                                    std::size_t stride, std::size_t n,
                                    const std::vector<ExtendedComplex>& roots) {
    if (n == 1) return {x[offset]};
    const auto even = halved(x, offset, 2 * stride, n / 2, roots);
    const auto odd = halved(x, offset + stride, 2 * stride, n / 2, roots);
    std::vector<ExtendedComplex> result(n);
    for (std::size_t k = 0; k < n / 2; ++k) {
        const ExtendedComplex turned = odd[k] * roots[k * stride];
        result[k] = even[k] + turned;
        result[k + n / 2] = even[k] - turned;
    }
    return result;
}

Extended dctCosine(std::size_t k, std::size_t j, std::size_t n) {
    const std::size_t turn = 4 * n;
    const Extended scale = std::sqrt((k == 0 ? 1.0L : 2.0L) / static_cast<Extended>(n));
    return scale * std::cos(2.0L * pi * static_cast<Extended>(k * (2 * j + 1) % turn) /
                            static_cast<Extended>(turn));
}

} // namespace

std::vector<ExtendedComplex> dft(const std::vector<ExtendedComplex>& x) {
    std::vector<ExtendedComplex> result(x.size());
    for (std::size_t k = 0; k < x.size(); ++k)
        for (std::size_t n = 0; n < x.size(); ++n)
            result[k] += x[n] * root(k * n, x.size());
    return result;
}

std::vector<ExtendedComplex> fft(const std::vector<ExtendedComplex>& x) {
    std::vector<ExtendedComplex> roots(x.size() / 2);
    for (std::size_t k = 0; k < roots.size(); ++k)
        roots[k] = root(k, x.size());
    return halved(x, 0, 1, x.size(), roots);
}

std::vector<ExtendedComplex> realSpectrum(const std::vector<float>& x) {
    auto spectrum = fft(std::vector<ExtendedComplex>(x.begin(), x.end()));
    spectrum.resize(x.size() / 2 + 1);
    return spectrum;
}

std::vector<Extended> dct(const std::vector<float>& x) {
    std::vector<Extended> y(x.size());
    for (std::size_t k = 0; k < x.size(); ++k)
        for (std::size_t j = 0; j < x.size(); ++j)
            y[k] += dctCosine(k, j, x.size()) * static_cast<Extended>(x[j]);
    return y;
}

std::vector<Extended> inverseDct(const std::vector<float>& y) {
    std::vector<Extended> x(y.size());
    for (std::size_t j = 0; j < y.size(); ++j)
        for (std::size_t k = 0; k < y.size(); ++k)
            x[j] += dctCosine(k, j, y.size()) * static_cast<Extended>(y[k]);
    return x;
}

} // namespace oracle
