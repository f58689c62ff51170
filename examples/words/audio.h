// Recordings: read from WAV, FLAC or OGG, mixed to one channel, brought to 8 kHz, trimmed.
#pragma once

#include <string>
#include <vector>

namespace words {

inline constexpr int sampleRate = 8000; // what all models are made for

using Samples = std::vector<short>;

inline double seconds(const Samples& samples) {
    return static_cast<double>(samples.size()) / sampleRate;
}

/// Throws Failure for a file that is no recording, has no samples, or a rate outside 8 to 48 kHz.
Samples readRecording(const std::string& path);

// / Cuts off what lies before the first and behind the last frame that is within 36 dB of the
// loudest.
Samples trimmed(const Samples& samples);

// / How far levels of 10 ms are from their median, on average, the furthest tenth left out, in
// decibels; a constant offset / counts for nothing. Speech has several; silence, constants, tones,
// clicks and even noise have less than one.
double levelSpread(const Samples& samples);

} // namespace words
