#include "audio.h"

#include "library.h"

#include <sndfile.h>
#include <soxr.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numeric>

namespace words {
namespace {

constexpr int trimFrame = sampleRate / 100; // 10 ms
// energies are compared with the largest one / 2^12, 36 dB
constexpr int trimShift = 12;

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
            // Not-a-number, which a file of floats may hold, becomes silence; a filter would spread
            // it.
            mono.push_back(std::isnan(sum)
                               ? 0.0f
                               : std::clamp(sum / static_cast<float>(nChannels), -1.0f, 1.0f));
        }
    return mono;
}

// / Nothing above 4 kHz is left, and nothing below 3.8 kHz, where the front end's highest filter
// ends, is weakened.
Channel toModelRate(const Channel& in, int rate, const std::string& path) {
    const soxr_io_spec_t floats = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
    soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
    quality.passband_end = 0.95;
    quality.stopband_begin = 1.0;
    const std::size_t wanted = (in.size() * sampleRate + static_cast<std::size_t>(rate) - 1) /
                               static_cast<std::size_t>(rate);
    Channel out(wanted);
    std::size_t n = 0;
    const soxr_error_t error = soxr_oneshot(rate, sampleRate, 1, in.data(), in.size(), nullptr,
                                            out.data(), out.size(), &n, &floats, &quality, nullptr);
    if (error != nullptr) throw Failure(path + ": could not be brought to 8 kHz: " + error);
    out.resize(n);
    return out;
}

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
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
    if (info.samplerate != sampleRate) mono = toModelRate(mono, info.samplerate, path);

    Samples samples;
    samples.reserve(mono.size());
    for (const float value : mono)
        samples.push_back(
            static_cast<short>(std::lround(std::clamp(value * 32768.0f, -32768.0f, 32767.0f))));
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

double levelSpread(const Samples& samples) {
    const double offset =
        std::accumulate(samples.begin(), samples.end(), 0.0) / static_cast<double>(samples.size());
    std::vector<double> levels;
    for (std::size_t i = 0; i + trimFrame <= samples.size(); i += trimFrame) {
        double energy = 0.0;
        for (std::size_t k = i; k < i + trimFrame; ++k)
            energy += (samples[k] - offset) * (samples[k] - offset);
        levels.push_back(10.0 * std::log10(energy / trimFrame + 1.0));
    }
    if (levels.empty()) return 0.0;
    const double middle = median(levels);
    for (double& level : levels)
        level = std::abs(level - middle);
    std::sort(levels.begin(), levels.end());
    levels.resize(levels.size() - levels.size() / 10); // a click is no speech
    return std::accumulate(levels.begin(), levels.end(), 0.0) / static_cast<double>(levels.size());
}

} // namespace words
