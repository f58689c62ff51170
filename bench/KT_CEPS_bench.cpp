// One frame of mel-frequency cepstra from samples: pre-emphasis, 512-point transform, 26 filters, logarithm
// behind the filters, 13 coefficients. A round is `frames` frames, so that peers that take whole utterances
// can be set beside.
#include "ktlp6.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cmath>
#include <random>
#include <vector>

#if KTL_HAVE_POCKETSPHINX
#include <sphinxbase/cmd_ln.h>
#include <sphinxbase/err.h>
#include <sphinxbase/fe.h>
#endif
#if KTL_HAVE_AUBIO
#include <aubio/aubio.h>
#endif

namespace {

constexpr int fftOrder = 9;
constexpr int fftLen = 1 << fftOrder;
constexpr int nFilters = 26;
constexpr int nCeps = 13;
constexpr int sampleFreq = 16000;
constexpr int frames = 64;
constexpr int hop = 160;
constexpr int filterFirst = KT_CepsTimeInput | KT_CepsThreshold | KT_CepsFilterFirst | KT_CepsZeroth;
constexpr int logarithmFirst = KT_CepsTimeInput | KT_CepsThreshold | KT_CepsZeroth;

std::vector<short> utterance() {
    std::mt19937 random(1);
    std::normal_distribution<double> noise(0.0, 500.0);
    std::vector<short> samples(hop * frames + fftLen);
    for (std::size_t i = 0; i < samples.size(); ++i)
        samples[i] = static_cast<short>(noise(random) + 3000.0 * std::sin(0.05 * static_cast<double>(i)));
    return samples;
}

void perFrame(benchmark::State& state) {
    state.counters["frame"] = benchmark::Counter(static_cast<double>(state.iterations()) * frames,
                                                 benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void floatFrames(benchmark::State& state, int filters, int flags) {
    const std::vector<short> samples = utterance();
    const std::vector<float> floats(samples.begin(), samples.end());
    KTMFCCFilters* bank = KTsMFCCInit(fftOrder, filters, 0, sampleFreq / 2, sampleFreq, 0, 0);
    float frame[fftLen], ceps[nCeps];
    for (auto _ : state)
        for (int i = 0; i < frames; ++i) {
            std::copy_n(floats.data() + i * hop, fftLen, frame);
            KTsPreemphasize(frame, 0.97f, fftLen);
            KTsCepstralMFCC(bank, frame, ceps, nCeps, 1.0f, flags);
            benchmark::DoNotOptimize(ceps);
        }
    perFrame(state);
    KTsFreeMFCCFilters(bank);
}

void fixedFrames(benchmark::State& state) {
    const std::vector<short> samples = utterance();
    KTMFCCFilters* bank = KTwMFCCInit(fftOrder, nFilters, 0, sampleFreq / 2, sampleFreq, 0, 0);
    short frame[fftLen], ceps[nCeps];
    for (auto _ : state)
        for (int i = 0; i < frames; ++i) {
            std::copy_n(samples.data() + i * hop, fftLen, frame);
            int scale = 0;
            KTwPreemphasize(frame, 0.97f, fftLen, KT_Saturate, &scale);
            scale = -10;
            KTwCepstralMFCC(bank, frame, ceps, nCeps, 1, filterFirst, 0, KT_FixedScale, &scale);
            benchmark::DoNotOptimize(ceps);
        }
    perFrame(state);
    KTwFreeMFCCFilters(bank);
}

void filtering(benchmark::State& state, int order) {
    KTMFCCFilters* bank = KTsMFCCInit(order, nFilters, 0, sampleFreq / 2, sampleFreq, 0, 0);
    std::vector<float> spectrum(static_cast<std::size_t>(1 << order), 1.5f);
    float out[nFilters];
    for (auto _ : state) {
        KTsMelFiltering(bank, spectrum.data(), out);
        benchmark::DoNotOptimize(out);
    }
    KTsFreeMFCCFilters(bank);
}

void init(benchmark::State& state) {
    for (auto _ : state)
        KTsFreeMFCCFilters(KTsMFCCInit(fftOrder, nFilters, 0, sampleFreq / 2, sampleFreq, 0, 0));
}

// The fixed-point frame is wanted at no more than 1.4 of the float frame's time.
BENCHMARK_CAPTURE(floatFrames, frame26, nFilters, filterFirst)->Name("mfcc/512/ours");
BENCHMARK(fixedFrames)->Name("mfcc/512/oursFixed");
BENCHMARK_CAPTURE(floatFrames, logFirst, nFilters, logarithmFirst)->Name("mfccLogFirst/512/ours");
BENCHMARK_CAPTURE(floatFrames, frame32, 32, filterFirst)->Name("mfcc32/512/ours");
BENCHMARK_CAPTURE(filtering, order9, 9)->Name("melFiltering/512/ours");
BENCHMARK_CAPTURE(filtering, order12, 12)->Name("melFiltering/4096/ours");
BENCHMARK(init)->Name("melDesign/512/ours");

#if KTL_HAVE_POCKETSPHINX
void pocketsphinxFrames(benchmark::State& state) {
    err_set_logfp(nullptr);
    cmd_ln_t* config =
        cmd_ln_init(nullptr, fe_get_args(), TRUE, "-samprate", "16000", "-nfft", "512", "-nfilt", "26",
                    "-ncep", "13", "-lowerf", "0", "-upperf", "8000", "-alpha", "0.97", "-wlen", "0.032",
                    "-remove_noise", "no", "-remove_silence", "no", "-dither", "no", nullptr);
    fe_t* fe = fe_init_auto_r(config);
    const std::vector<short> samples = utterance();
    std::vector<mfcc_t> values(static_cast<std::size_t>(frames + 4) * nCeps);
    std::vector<mfcc_t*> rows;
    for (int i = 0; i < frames + 4; ++i)
        rows.push_back(values.data() + i * nCeps);
    for (auto _ : state) {
        fe_start_utt(fe);
        const int16* next = samples.data();
        size_t left = samples.size();
        int32 wanted = frames;
        int32 voiced;
        fe_process_frames(fe, &next, &left, rows.data(), &wanted, &voiced);
        if (wanted != frames) state.SkipWithError("another number of frames");
        benchmark::DoNotOptimize(values.data());
    }
    perFrame(state);
    fe_free(fe);
    cmd_ln_free_r(config);
}
BENCHMARK(pocketsphinxFrames)->Name("mfcc/512/pocketsphinx");
#endif

#if KTL_HAVE_AUBIO
// With its windowed transform, which is the way to its cepstrum; it has no pre-emphasis.
void aubioFrames(benchmark::State& state) {
    const std::vector<short> samples = utterance();
    fvec_t* in = new_fvec(hop);
    cvec_t* spectrum = new_cvec(fftLen);
    fvec_t* ceps = new_fvec(nCeps);
    aubio_pvoc_t* vocoder = new_aubio_pvoc(fftLen, hop);
    aubio_mfcc_t* mfcc = new_aubio_mfcc(fftLen, nFilters, nCeps, sampleFreq);
    aubio_mfcc_set_mel_coeffs_htk(mfcc, 0, sampleFreq / 2);
    for (auto _ : state)
        for (int i = 0; i < frames; ++i) {
            for (int k = 0; k < hop; ++k)
                in->data[k] = static_cast<float>(samples[static_cast<std::size_t>(i * hop + k)]) / 32768.0f;
            aubio_pvoc_do(vocoder, in, spectrum);
            aubio_mfcc_do(mfcc, spectrum, ceps);
            benchmark::DoNotOptimize(ceps->data);
        }
    perFrame(state);
    del_aubio_mfcc(mfcc);
    del_aubio_pvoc(vocoder);
    del_fvec(ceps);
    del_cvec(spectrum);
    del_fvec(in);
}
BENCHMARK(aubioFrames)->Name("mfcc/512/aubio");
#endif

} // namespace
