#include "oracle/mel_reference.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>

namespace oracle {
namespace {

constexpr double pi = std::numbers::pi;
constexpr double halfUlp = 0x1p-24; // of a float's rounding, relative
constexpr double tiny = 0x1p-149;   // and its least absolute error

double mel(const MelRequest& r, double f) {
    return double(r.melMul) * std::log10(1 + f / double(r.melDiv));
}
double invmel(const MelRequest& r, double m) {
    return (std::pow(10, m / double(r.melMul)) - 1) * double(r.melDiv);
}

int linearFilters(const MelRequest& r) {
    return r.linearTop > r.lowFreq ? std::max(0, std::min(r.nLinear, r.nFilters)) : 0;
}

void edges(const MelRequest& r, MelBank& bank) {
    const int n = r.nFilters;
    bank.left.resize(std::size_t(n));
    bank.centre = bank.right = bank.left;
    const int nLin = linearFilters(r);
    const double melHigh = mel(r, r.highFreq);
    double melCur, melStep;
    if (nLin == 0) {
        melCur = mel(r, r.lowFreq);
        melStep = (melHigh - melCur) / (0.5 * n + 0.5);
    } else {
        const double linStep = (r.linearTop - r.lowFreq) * (2.0 / nLin), half = 0.5 * linStep;
        double cur = r.lowFreq;
        for (std::size_t i = 0; i + 1 < std::size_t(nLin); ++i) {
            bank.left[i] = cur;
            bank.centre[i] = cur + half;
            bank.right[i] = cur + linStep;
            cur += half;
        }
        melCur = mel(r, r.linearTop);
        melStep = (melHigh - melCur) / (0.5 * (n - nLin) + 0.5);
        const auto i = std::size_t(nLin - 1);
        bank.left[i] = cur;
        bank.right[i] = invmel(r, mel(r, cur + half) + 0.5 * melStep);
        bank.centre[i] = 0.5 * (bank.left[i] + bank.right[i]);
    }
    for (auto i = std::size_t(nLin); i < std::size_t(n); ++i) {
        bank.left[i] = invmel(r, melCur);
        bank.right[i] = invmel(r, melCur + melStep);
        melCur += 0.5 * melStep;
        bank.centre[i] = invmel(r, melCur);
    }
}

void commonLength(const MelRequest& r, MelBank& bank, double binStep) {
    const int nLin = linearFilters(r);
    if (nLin == 0) return;
    for (int i = 0; i < r.nFilters; ++i) {
        int count = 0;
        double f = 0.0;
        for (int b = 0; b < bank.fftLen; ++b, f += binStep)
            count += bank.left[std::size_t(i)] <= f && f < bank.right[std::size_t(i)];
        if (count > bank.commonLen) {
            if (i >= nLin) return;
            bank.commonLen = count;
        } else if (i >= nLin && bank.commonLen > 4) {
            return;
        }
        ++bank.nCommon;
    }
}

void oneFilter(MelBank& bank, std::size_t i, double binStep) {
    const double left = bank.left[i], centre = bank.centre[i], right = bank.right[i];
    std::vector<float>& weights = bank.weights[i];
    int nIn = 0, lo = -1, hi = -1;
    double sum = 0.0, f = 0.0;
    bool stopped = false;
    for (int b = 0; b < bank.fftLen; ++b, f += binStep) {
        if (f < left) {
            lo = b;
            continue;
        }
        hi = b;
        if (f >= right) {
            stopped = true;
            break;
        }
        if (nIn++ == 0) bank.bin[i] = b;
        if (bank.firstBin < 0) bank.firstBin = b;
        bank.lastBin = b;
        const double weight =
            f > centre ? (f - right) / (centre - right) : (f - left) / (centre - left);
        weights.push_back(float(weight));
        sum += weight;
    }
    if (!stopped) hi = -1;
    if (lo < 0) lo = 0;
    if (hi < 0) hi = bank.fftLen - 1;
    bank.nInside[i] = nIn;
    const bool padded = int(i) < bank.nCommon && bank.commonLen > 0;
    if (nIn > 0 && sum == 0.0) {
        weights[0] = 1.0f; // one bin, on the left edge
    } else if (nIn > 0) {
        for (float& weight : weights)
            weight = float(double(weight) * (1.0 / sum));
    } else if (padded) {
        bank.bin[i] = i > 0 ? bank.bin[i - 1] : 0;
        weights.push_back(1.0f);
    } else {
        bank.bin[i] = centre - lo * binStep <= hi * binStep - centre ? lo : hi;
        if (bank.firstBin < 0) bank.firstBin = bank.bin[i];
        bank.lastBin = bank.bin[i];
        weights.push_back(1.0f);
    }
    if (padded) weights.resize(std::size_t(bank.commonLen), 0.0f);
}

Bounded logarithm(const Bounded& x) {
    const double value = std::log(x.value);
    // the lower end of the interval lies farther away; on top of that a float logarithm of 2 ulp
    const double low = x.value - x.error;
    const double spread = low > 0.0 ? std::log(x.value / low) : INFINITY;
    return {value, spread + 4 * halfUlp * std::abs(value) + 2 * tiny};
}

Bounded raised(const Bounded& x, double floor) {
    return x.value < floor ? Bounded{floor, x.error} : x;
}

// Magnitudes, or powers, of the spectrum of real samples. The transform's error is within 1.5e-7 *
// sqrt(order) of the root mean square over all bins, which is the norm of the samples; eight times
// that is allowed to a single bin.
std::vector<Bounded> spectrumOf(const MelBank& bank, const std::vector<float>& in, bool power) {
    double norm = 0.0;
    for (float x : in)
        norm += double(x) * double(x);
    norm = std::sqrt(norm);
    const double off = 8 * 1.5e-7 * std::sqrt(std::max(bank.fftOrder, 1)) * norm;
    const std::size_t n = in.size();
    std::vector<Bounded> spectrum(n / 2 + 1);
    std::vector<std::complex<double>> roots(n);
    for (std::size_t k = 0; k < n; ++k)
        roots[k] = std::polar(1.0, -2.0 * pi * double(k) / double(n));
    for (std::size_t k = 0; k < spectrum.size(); ++k) {
        std::complex<double> sum = 0.0;
        for (std::size_t j = 0; j < n; ++j)
            sum += double(in[j]) * roots[k * j % n];
        const double magnitude = std::abs(sum);
        if (power)
            spectrum[k] = {magnitude * magnitude,
                           (2 * magnitude + off) * off + 4 * halfUlp * magnitude * magnitude};
        else
            spectrum[k] = {magnitude, off + 4 * halfUlp * magnitude};
    }
    return spectrum;
}

std::vector<Bounded> cosineTransform(const std::vector<Bounded>& x) {
    const std::size_t n = x.size();
    std::vector<Bounded> y(n);
    for (std::size_t k = 0; k < n; ++k) {
        const double scale = std::sqrt((k == 0 ? 1.0 : 2.0) / double(n));
        double magnitudes = 0.0;
        for (std::size_t j = 0; j < n; ++j) {
            const double c = scale * std::cos(pi * double(k) * double(2 * j + 1) / double(2 * n));
            y[k].value += c * x[j].value;
            y[k].error += std::abs(c) * x[j].error;
            magnitudes += scale * std::abs(x[j].value);
        }
        // sums of n floats, or a float transform
        y[k].error += (double(n) + 8) * halfUlp * magnitudes;
    }
    return y;
}

} // namespace

MelBank designMelBank(const MelRequest& r) {
    MelBank bank;
    bank.fftOrder = r.fftOrder;
    bank.fftLen = 1 << r.fftOrder;
    bank.nFilters = r.nFilters;
    const auto n = std::size_t(r.nFilters);
    bank.bin.assign(n, 0);
    bank.nInside.assign(n, 0);
    bank.weights.resize(n);
    for (int order = 0; order < 31; ++order)
        if (r.nFilters == 1 << order) bank.dctOrder = order;
    const double a = 1.0 / r.nFilters;
    for (std::size_t k = 0; k < n; ++k) {
        const double scale = k == 0 ? std::sqrt(a) : std::sqrt(2 * a),
                     angle = double(k) * pi / double(2 * n);
        bank.twiddles.push_back(float(scale * std::cos(angle)));
        bank.twiddles.push_back(float(-scale * std::sin(angle)));
    }
    edges(r, bank);
    const double binStep = double(r.sampleFreq) / (bank.fftLen - 1);
    commonLength(r, bank, binStep);
    for (std::size_t i = 0; i < n; ++i)
        oneFilter(bank, i, binStep);
    if (bank.commonLen == 0) bank.nCommon = 0;
    return bank;
}

std::vector<Bounded> melFilter(const MelBank& bank, const std::vector<Bounded>& spectrum) {
    std::vector<Bounded> out(std::size_t(bank.nFilters));
    for (std::size_t i = 0; i < out.size(); ++i) {
        for (std::size_t j = 0; j < bank.weights[i].size(); ++j) {
            const double weight = double(bank.weights[i][j]);
            if (weight == 0.0) continue;
            const Bounded& bin = spectrum.at(std::size_t(bank.bin[i]) + j);
            out[i].value += bin.value * weight;
            out[i].error += (bin.error + std::abs(bin.value) * 0x1p-45) * std::abs(weight);
        }
        out[i].error += 2 * halfUlp * std::abs(out[i].value) + tiny;
    }
    return out;
}

std::vector<Bounded> cepstrum(const MelBank& bank, const std::vector<float>& in,
                              const CepstrumRequest& r) {
    const std::size_t nBins = std::size_t(bank.fftLen / 2 + 1);
    std::vector<Bounded> spectrum;
    if (r.timeInput) {
        spectrum = spectrumOf(bank, in, !r.filterFirst);
    } else {
        for (std::size_t k = 0; k < nBins; ++k)
            spectrum.push_back({double(in[k]), 0.0});
    }
    double factor = double(float(0.4342944920063019));
    if (!r.filterFirst) {
        if (r.timeInput) factor = double(float(0.21714720129966736));
        for (Bounded& bin : spectrum) {
            if (r.threshold) bin = raised(bin, double(r.thresh));
            bin = logarithm(bin);
        }
    }
    for (std::size_t k = nBins; k < std::size_t(bank.fftLen); ++k)
        spectrum.push_back(spectrum[std::size_t(bank.fftLen) - k]);
    std::vector<Bounded> filtered = melFilter(bank, spectrum);
    for (Bounded& x : filtered) {
        if (r.filterFirst) {
            if (r.threshold) x = raised(x, double(r.thresh));
            x = logarithm(x);
        }
        x.value *= factor;
        x.error = x.error * factor + halfUlp * std::abs(x.value);
    }
    const std::vector<Bounded> transformed = cosineTransform(filtered);
    std::vector<Bounded> out(std::size_t(r.nCeps));
    for (std::size_t i = 0; i < out.size(); ++i)
        if (i + !r.zeroth < transformed.size()) out[i] = transformed[i + !r.zeroth];
    return out;
}

} // namespace oracle
