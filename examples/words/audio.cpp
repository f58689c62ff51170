#include "audio.h"

#include "library.h"

#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numbers>

namespace words {
namespace {

constexpr int trimFrame = sampleRate / 100; // 10 ms
constexpr int trimShift = 12;               // energies are compared with the largest one / 2^12, 36 dB

using Channel = std::vector<float>;

struct Closer {
    void operator()(SNDFILE* file) const { sf_close(file); }
};

Channel readMono(SNDFILE* file, const SF_INFO& info) {
    constexpr sf_count_t block = 4096;
    const auto nChannels = static_cast<std::size_t>(info.channels);
    std::vector<float> frames(block * nChannels);
    Channel mono;
    for (sf_count_t n = 0; (n = sf_readf_float(file, frames.data(), block)) > 0;)
        for (std::size_t i = 0; i < static_cast<std::size_t>(n); ++i) {
            float sum = 0.0f;
            for (std::size_t c = 0; c < nChannels; ++c)
                sum += frames[i * nChannels + c];
            mono.push_back(sum / static_cast<float>(nChannels));
        }
    return mono;
}

/// Band-limited interpolation: every output sample is a weighted sum of the input around its place, the weights being a
/// low pass just below 4 kHz under a Hann window (J. O. Smith, Digital Audio Resampling, 1984).
Channel toModelRate(const Channel& in, int rate) {
    constexpr int zeroCrossings = 16;
    const double step = static_cast<double>(rate) / sampleRate; // input samples per output sample, 1 or more
    const double reach = zeroCrossings * step;
    const double cutoff = 0.95 / step;
    const auto last = static_cast<std::ptrdiff_t>(in.size()) - 1;
    Channel out(static_cast<std::size_t>(std::ceil(static_cast<double>(in.size()) / step)));
    for (std::size_t m = 0; m < out.size(); ++m) {
        const double centre = static_cast<double>(m) * step;
        const auto from = std::max<std::ptrdiff_t>(0, static_cast<std::ptrdiff_t>(std::ceil(centre - reach)));
        const auto to = std::min(last, static_cast<std::ptrdiff_t>(std::floor(centre + reach)));
        double sum = 0.0;
        for (std::ptrdiff_t k = from; k <= to; ++k) {
            const double x = static_cast<double>(k) - centre;
            const double phase = std::numbers::pi * x * cutoff;
            const double sinc = std::abs(phase) < 1e-9 ? 1.0 : std::sin(phase) / phase;
            const double window = 0.5 + 0.5 * std::cos(std::numbers::pi * x / reach);
            sum += in[static_cast<std::size_t>(k)] * sinc * window * cutoff;
        }
        out[m] = static_cast<float>(sum);
    }
    return out;
}

} // namespace

Samples readRecording(const std::string& path) {
    SF_INFO info{};
    const std::unique_ptr<SNDFILE, Closer> file(sf_open(path.c_str(), SFM_READ, &info));
    if (!file) throw Failure(path + ": " + sf_strerror(nullptr));
    if (info.samplerate < 8000 || info.samplerate > 48000)
        throw Failure(path + ": " + std::to_string(info.samplerate) +
                      " samples a second, wanted 8000 to 48000");

    Channel mono = readMono(file.get(), info);
    if (mono.empty()) throw Failure(path + ": no samples");
    if (info.samplerate != sampleRate) mono = toModelRate(mono, info.samplerate);

    Samples samples;
    samples.reserve(mono.size());
    for (const float value : mono) // not-a-number, which a file of floats may hold, becomes silence
        samples.push_back(static_cast<short>(
            std::isnan(value) ? 0l : std::lround(std::clamp(value * 32768.0f, -32768.0f, 32767.0f))));
    return samples;
}

Samples trimmed(const Samples& samples) {
    std::vector<std::int64_t> energies;
    for (std::size_t i = 0; i < samples.size(); ++i) {
        if (i % trimFrame == 0) energies.push_back(0);
        energies.back() += samples[i] * samples[i];
    }
    const std::int64_t floor = *std::max_element(energies.begin(), energies.end()) >> trimShift;
    const auto loud = [floor](std::int64_t energy) { return energy > floor; };
    const auto first = std::find_if(energies.begin(), energies.end(), loud);
    const auto last = std::find_if(energies.rbegin(), energies.rend(), loud).base();
    if (first == energies.end()) return samples; // digital silence: nothing to tell apart
    const auto begin = samples.begin() + (first - energies.begin()) * trimFrame;
    const auto length = std::min<std::ptrdiff_t>((last - first) * trimFrame, samples.end() - begin);
    return Samples(begin, begin + length);
}

} // namespace words
