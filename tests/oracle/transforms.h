// Plain transforms in long double.
#pragma once

#include <complex>
#include <cstddef>
#include <limits>
#include <type_traits>
#include <vector>

namespace oracle {

// Where the long double is emulated in 113 bits, which takes minutes, a double has digits enough to
// judge floats by.
using Extended =
    std::conditional_t<std::numeric_limits<long double>::digits == 113, double, long double>;
using ExtendedComplex = std::complex<Extended>;

// X[k] = sum of x[n] exp(-2 pi i k n / N), term by term; any length.
std::vector<ExtendedComplex> dft(const std::vector<ExtendedComplex>& x);

// The same by halving, for powers of two.
std::vector<ExtendedComplex> fft(const std::vector<ExtendedComplex>& x);

// The spectrum of reals, bins 0 to N/2, N a power of two.
std::vector<ExtendedComplex> realSpectrum(const std::vector<float>& x);

// The orthonormal DCT-II and its inverse, term by term.
std::vector<Extended> dct(const std::vector<float>& x);
std::vector<Extended> inverseDct(const std::vector<float>& y);

} // namespace oracle
