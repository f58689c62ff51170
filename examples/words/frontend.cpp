#include "frontend.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <numbers>

namespace words {
namespace {

constexpr int frameLength = sampleRate / 40; // 25 ms
constexpr int frameStep = sampleRate / 100;  // 10 ms
constexpr int fftOrder = 8;
constexpr int fftLength = 1 << fftOrder; // the frame and a tail of zeros
constexpr float preemphasis = 0.97f;
constexpr int sampleScale = -15;   // samples are between -1 and 1
constexpr int cepstrumScale = -10; // so that coefficient 0 of silence, -23, has room in 16 bits
constexpr int noiseFloor = 1;      // filter outputs below 2^-15 count as that
constexpr int cepstrumFlags =
    KT_CepsTimeInput | KT_CepsFilterFirst | KT_CepsThreshold | KT_CepsZeroth;
constexpr int deltaReach = 2;   // frames to each side
constexpr int deltaWeight = 10; // 2 * (1 * 1 + 2 * 2)

int countFrames(const Samples& samples) {
    const int n = static_cast<int>(samples.size());
    if (n < frameLength) throw Failure("shorter than one frame of 25 ms");
    return 1 + (n - frameLength) / frameStep;
}

// / Shifts the samples up until the loudest uses the word. A factor is an offset of coefficient 0
// and means nothing to the / normalised features, but fixed-point arithmetic loses fewer bits, and
// the noise floor is relative to the utterance.
Samples levelled(const Samples& samples) {
    const int order = KTwMaxOrder(samples.data(), static_cast<int>(samples.size()));
    Samples result = samples;
    if (order > 0 && order < 15)
        for (short& sample : result)
            sample = static_cast<short>(sample * (1 << (15 - order)));
    return result;
}

// / The slope of the regression line over two frames to each side, for columns from..from+n-1 into
// the n behind them. / (S. Furui, Speaker-Independent Isolated Word Recognition Using Dynamic
// Features of Speech Spectrum, 1986)
template <class Value>
void addDeltas(Matrix<Value>& features, int from, int n) {
    const int last = features.rows() - 1;
    for (int t = 0; t <= last; ++t)
        for (int i = from; i < from + n; ++i) {
            Value slope{};
            for (int k = 1; k <= deltaReach; ++k)
                slope += static_cast<Value>(k) * (features.row(std::min(t + k, last))[i] -
                                                  features.row(std::max(t - k, 0))[i]);
            features.row(t)[i + n] = slope / deltaWeight;
        }
}

template <class Value>
void addMotion(Matrix<Value>& features, const FrontEnd& frontEnd) {
    if (!frontEnd.deltas) return;
    addDeltas(features, 0, nCepstra);        // velocity
    addDeltas(features, nCepstra, nCepstra); // acceleration
}

// / One odd frame is not to outweigh the others; and fixed-point models want to know how large a
// feature can be.
template <class Value>
Value limited(Value value, const FrontEnd& frontEnd, Value one) {
    return frontEnd.normaliseVariance ? std::clamp(value, -featureLimit * one, featureLimit * one)
                                      : value;
}

void normalise(Matrix<float>& features, const FrontEnd& frontEnd) {
    const auto n = static_cast<float>(features.rows());
    for (int i = 0; i < features.columns(); ++i) {
        float mean = 0.0f, variance = 0.0f;
        for (int t = 0; t < features.rows(); ++t)
            mean += features.row(t)[i] / n;
        for (int t = 0; t < features.rows(); ++t)
            variance += (features.row(t)[i] - mean) * (features.row(t)[i] - mean) / n;
        const float offset = frontEnd.normaliseMean ? mean : 0.0f;
        const float factor =
            frontEnd.normaliseVariance && variance > 1e-8f ? 1.0f / std::sqrt(variance) : 1.0f;
        for (int t = 0; t < features.rows(); ++t)
            features.row(t)[i] = limited((features.row(t)[i] - offset) * factor, frontEnd, 1.0f);
    }
}

// / The same in integers: from 32 bits at cepstrumScale to 16 bits at featureScale. The deviation
// is taken with 8 more / bits than the values have, the quotient is exact but for its truncation,
// and what 16 bits do not hold saturates.
Matrix<short> normalise(const Matrix<int>& features, const FrontEnd& frontEnd) {
    constexpr int extraBits = 8;
    Matrix<short> result(features.rows(), features.columns());
    for (int i = 0; i < features.columns(); ++i) {
        std::int64_t sum = 0, squares = 0;
        for (int t = 0; t < features.rows(); ++t)
            sum += features.row(t)[i];
        const std::int64_t mean = sum / features.rows();
        for (int t = 0; t < features.rows(); ++t)
            squares += (features.row(t)[i] - mean) * (features.row(t)[i] - mean);
        const std::int64_t variance = squares * (1 << (2 * extraBits)) / features.rows();
        const auto deviation = static_cast<std::int64_t>(std::sqrt(static_cast<double>(variance)));
        const std::int64_t offset = frontEnd.normaliseMean ? mean : 0;
        const std::int64_t divisor = frontEnd.normaliseVariance && deviation > 0
                                         ? deviation
                                         : std::int64_t{1} << (extraBits - cepstrumScale);
        for (int t = 0; t < features.rows(); ++t) {
            const std::int64_t quotient =
                (features.row(t)[i] - offset) * (1 << (extraBits - featureScale)) / divisor;
            const std::int64_t value =
                limited<std::int64_t>(quotient, frontEnd, 1 << -featureScale);
            result.row(t)[i] = static_cast<short>(std::clamp<std::int64_t>(value, -32767, 32767));
        }
    }
    return result;
}

} // namespace

FeatureExtractor::FeatureExtractor(const FrontEnd& choices)
    : frontEnd(choices),
      filters(KTsMFCCInit(fftOrder, nFilters, lowFrequency, highFrequency, sampleRate, 0, 0)) {
    if (!filters) throw Failure("the filter bank could not be made: " + lastReport());
    for (int i = 0; i < frameLength; ++i) // Hamming
        window.push_back(static_cast<float>(
            0.54 - 0.46 * std::cos(2 * std::numbers::pi * i / (frameLength - 1))));
    fixedWindow.resize(window.size());
    int scale = sampleScale;
    KTswbConvertDown(window.data(), fixedWindow.data(), frameLength, KT_FixedScale, &scale);
}

Samples FeatureExtractor::speech(const Samples& samples) const {
    Samples result = frontEnd.trim ? trimmed(samples) : samples;
    if (static_cast<int>(result.size()) < frameLength) result = samples; // a click
    countFrames(result);
    return levelled(result);
}

Matrix<float> FeatureExtractor::cepstra(const Samples& samples, int nCoefficients) const {
    const Samples spoken = speech(samples);
    std::vector<float> signal(spoken.size());
    KTwsbConvertUp(spoken.data(), signal.data(), static_cast<int>(signal.size()), -sampleScale);
    KTsPreemphasize(signal.data(), preemphasis, static_cast<int>(signal.size()));

    Matrix<float> result(countFrames(spoken), nCoefficients);
    std::vector<float> frame(fftLength);
    for (int t = 0; t < result.rows(); ++t) {
        const float* begin = signal.data() + t * frameStep;
        std::transform(begin, begin + frameLength, window.begin(), frame.begin(),
                       std::multiplies<>());
        KTsCepstralMFCC(filters.get(), frame.data(), result.row(t), nCoefficients,
                        static_cast<float>(noiseFloor * KTPower2(sampleScale)), cepstrumFlags);
    }
    return result;
}

Matrix<float> FeatureExtractor::real(const Samples& samples) const {
    const Matrix<float> statics = cepstra(samples);
    Matrix<float> features(statics.rows(), dimensions());
    for (int t = 0; t < statics.rows(); ++t)
        std::copy_n(statics.row(t), nCepstra, features.row(t));
    addMotion(features, frontEnd);
    normalise(features, frontEnd);
    return features;
}

Matrix<short> FeatureExtractor::fixed(const Samples& samples) const {
    Samples signal = speech(samples);
    KTwPreemphasize(signal.data(), preemphasis, static_cast<int>(signal.size()), KT_Saturate,
                    nullptr);

    Matrix<int> features(countFrames(signal), dimensions());
    std::vector<short> frame(fftLength);
    short cepstrum[nCepstra];
    for (int t = 0; t < features.rows(); ++t) {
        const short* begin = signal.data() + t * frameStep;
        for (std::size_t i = 0; i < fixedWindow.size(); ++i)
            frame[i] = static_cast<short>((begin[i] * fixedWindow[i] + (1 << 14)) >> 15);
        int scale =
            // stored * 2^scale, while the input is told by the power that it was multiplied by
            cepstrumScale;
        KTwCepstralMFCC(filters.get(), frame.data(), cepstrum, nCepstra, noiseFloor, cepstrumFlags,
                        -sampleScale, KT_FixedScale, &scale);
        std::copy_n(cepstrum, nCepstra, features.row(t));
    }
    addMotion(features, frontEnd);
    return normalise(features, frontEnd);
}

Matrix<float> FeatureExtractor::melEnergies(const Samples& samples) const {
    // The cepstrum is an orthonormal transform of the logarithms: a whole one, turned back, gives
    // them again.
    const Matrix<float> whole = cepstra(samples, nFilters);
    Matrix<float> result(whole.rows(), nFilters);
    for (int t = 0; t < whole.rows(); ++t)
        for (int f = 0; f < nFilters; ++f) {
            double sum = whole.row(t)[0] * std::sqrt(1.0 / nFilters);
            for (int k = 1; k < nFilters; ++k)
                sum += whole.row(t)[k] * std::sqrt(2.0 / nFilters) *
                       std::cos(std::numbers::pi * k * (2 * f + 1) / (2 * nFilters));
            result.row(t)[f] = static_cast<float>(sum);
        }
    return result;
}

} // namespace words
