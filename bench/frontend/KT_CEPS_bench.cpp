// One frame of mel-frequency cepstra from samples: pre-emphasis, 512-point transform, 26 filters,
// logarithm behind the filters, 13 coefficients; with a window and without. A run is `frames`
// frames, so that peers that take whole utterances can be set beside.
#include "bench/frontend/plain_frontend.h"
#include "bench/support/bench.h"
#include "ktlp6.h"

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#if KTL_HAVE_FFTW
#include <fftw3.h>
#endif
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
constexpr int filterFirst =
    KT_CepsTimeInput | KT_CepsThreshold | KT_CepsFilterFirst | KT_CepsZeroth;
constexpr int logarithmFirst = KT_CepsTimeInput | KT_CepsThreshold | KT_CepsZeroth;

std::vector<short> utterance() {
    std::mt19937 random(1);
    std::normal_distribution<double> noise(0.0, 500.0);
    std::vector<short> samples(hop * frames + fftLen);
    for (std::size_t i = 0; i < samples.size(); ++i)
        samples[i] =
            static_cast<short>(noise(random) + 3000.0 * std::sin(0.05 * static_cast<double>(i)));
    return samples;
}

std::vector<float> hamming() {
    std::vector<float> window;
    for (int i = 0; i < fftLen; ++i)
        window.push_back(float(0.54 - 0.46 * std::cos(2 * std::acos(-1.0) * i / (fftLen - 1))));
    return window;
}

KTMFCCFilters* makeBank(int order = fftOrder, int filters = nFilters) {
    return KTsMFCCInit(order, filters, 0, sampleFreq / 2, sampleFreq, 0, 0);
}

struct Job {
    const int items = frames;
    const std::vector<short> words = utterance();
    const std::vector<float> floats{words.begin(), words.end()}, window = hamming();
    std::vector<float> ceps = std::vector<float>(frames * nCeps);
    bool isWindowed;
    explicit Job(bool windowed) : isWindowed(windowed) {}
    float* row(int i) { return ceps.data() + i * nCeps; }
    bench::Values results() const { return bench::Values(ceps.begin(), ceps.end()); }
};

struct Ours : Job {
    KTMFCCFilters* bank;
    int flags;
    Ours(bool windowed, int filters, int how)
        : Job(windowed), bank(makeBank(fftOrder, filters)), flags(how) {}
    Ours(const Ours&) = delete;
    Ours& operator=(const Ours&) = delete;
    ~Ours() { KTsFreeMFCCFilters(bank); }
    void run() {
        float frame[fftLen];
        for (int i = 0; i < frames; ++i) {
            std::copy_n(floats.data() + i * hop, fftLen, frame);
            KTsPreemphasize(frame, 0.97f, fftLen);
            if (isWindowed) plain::multiply(frame, window.data(), fftLen);
            KTsCepstralMFCC(bank, frame, row(i), nCeps, 1.0f, flags);
        }
    }
};

struct OursFixed : Job {
    KTMFCCFilters* bank = KTwMFCCInit(fftOrder, nFilters, 0, sampleFreq / 2, sampleFreq, 0, 0);
    OursFixed() : Job(false) {}
    OursFixed(const OursFixed&) = delete;
    OursFixed& operator=(const OursFixed&) = delete;
    ~OursFixed() { KTwFreeMFCCFilters(bank); }
    void run() {
        short frame[fftLen], out[nCeps];
        for (int i = 0; i < frames; ++i) {
            std::copy_n(words.data() + i * hop, fftLen, frame);
            int scale = 0;
            KTwPreemphasize(frame, 0.97f, fftLen, KT_Saturate, &scale);
            scale = -10;
            KTwCepstralMFCC(bank, frame, out, nCeps, 1, filterFirst, 0, KT_FixedScale, &scale);
            benchmark::DoNotOptimize(out);
        }
    }
};

#if KTL_HAVE_FFTW
// The weights of our filters over all bins, read from their responses to single bins.
std::vector<float> weightsOf(KTMFCCFilters* bank, int nBins) {
    std::vector<float> weights(std::size_t(nFilters * nBins)), spectrum(fftLen), out(nFilters);
    for (int b = 0; b < nBins; ++b) {
        spectrum[std::size_t(b)] = 1;
        KTsMelFiltering(bank, spectrum.data(), out.data());
        spectrum[std::size_t(b)] = 0;
        for (int f = 0; f < nFilters; ++f)
            weights[std::size_t(f * nBins + b)] = out[std::size_t(f)];
    }
    KTsFreeMFCCFilters(bank);
    return weights;
}

// The same frame with a measured transform of the peer's and plain loops around it.
struct Fftw : Job {
    float* frame = fftwf_alloc_real(fftLen);
    fftwf_complex* bins = fftwf_alloc_complex(fftLen / 2 + 1);
    fftwf_plan plan = fftwf_plan_dft_r2c_1d(fftLen, frame, bins, FFTW_MEASURE);
    plain::Cepstra cepstra{weightsOf(makeBank(), fftLen / 2 + 1), nFilters, fftLen / 2 + 1, nCeps};
    explicit Fftw(bool windowed) : Job(windowed) {}
    Fftw(const Fftw&) = delete;
    Fftw& operator=(const Fftw&) = delete;
    ~Fftw() {
        fftwf_destroy_plan(plan);
        fftwf_free(frame);
        fftwf_free(bins);
    }
    void run() {
        for (int i = 0; i < frames; ++i) {
            plain::prepare(floats.data() + i * hop, isWindowed ? window.data() : nullptr, 0.97f,
                           frame, fftLen);
            fftwf_execute(plan);
            cepstra.evaluate(bins[0], 1.0f, row(i));
        }
    }
};
#endif

#if KTL_HAVE_POCKETSPHINX
struct Pocketsphinx : Job {
    cmd_ln_t* config;
    fe_t* fe;
    std::vector<mfcc_t> out = std::vector<mfcc_t>(std::size_t(frames + 4) * nCeps);
    std::vector<mfcc_t*> rows;
    Pocketsphinx() : Job(true) {
        err_set_logfp(nullptr);
        config = cmd_ln_init(nullptr, fe_get_args(), TRUE, "-samprate", "16000", "-nfft", "512",
                             "-nfilt", "26", "-ncep", "13", "-lowerf", "0", "-upperf", "8000",
                             "-alpha", "0.97", "-wlen", "0.032", "-remove_noise", "no",
                             "-remove_silence", "no", "-dither", "no", nullptr);
        fe = fe_init_auto_r(config);
        for (int i = 0; i < frames + 4; ++i)
            rows.push_back(out.data() + i * nCeps);
    }
    Pocketsphinx(const Pocketsphinx&) = delete;
    Pocketsphinx& operator=(const Pocketsphinx&) = delete;
    ~Pocketsphinx() {
        fe_free(fe);
        cmd_ln_free_r(config);
    }
    void run() {
        fe_start_utt(fe);
        const int16* next = words.data();
        size_t left = words.size();
        int32 wanted = frames, voiced;
        fe_process_frames(fe, &next, &left, rows.data(), &wanted, &voiced);
        if (wanted != frames) std::abort();
    }
};
#endif

#if KTL_HAVE_AUBIO
// With its windowed transform, which is the way to its cepstrum.
struct Aubio : Job {
    fvec_t* in = new_fvec(hop);
    cvec_t* spectrum = new_cvec(fftLen);
    fvec_t* out = new_fvec(nCeps);
    aubio_pvoc_t* vocoder = new_aubio_pvoc(fftLen, hop);
    aubio_mfcc_t* mfcc = new_aubio_mfcc(fftLen, nFilters, nCeps, sampleFreq);
    Aubio() : Job(true) { aubio_mfcc_set_mel_coeffs_htk(mfcc, 0, sampleFreq / 2); }
    Aubio(const Aubio&) = delete;
    Aubio& operator=(const Aubio&) = delete;
    ~Aubio() {
        del_aubio_mfcc(mfcc);
        del_aubio_pvoc(vocoder);
        del_fvec(out);
        del_cvec(spectrum);
        del_fvec(in);
    }
    void run() {
        for (int i = 0; i < frames; ++i) {
            for (int k = 0; k < hop; ++k)
                in->data[k] = floats[std::size_t(i * hop + k)] / 32768.0f;
            aubio_pvoc_do(vocoder, in, spectrum);
            aubio_mfcc_do(mfcc, spectrum, out);
        }
    }
};
#endif

struct Filtering {
    KTMFCCFilters* bank;
    std::vector<float> spectrum;
    float out[nFilters];
    explicit Filtering(int order)
        : bank(makeBank(order)), spectrum(std::size_t{1} << order, 1.5f) {}
    Filtering(const Filtering&) = delete;
    Filtering& operator=(const Filtering&) = delete;
    ~Filtering() { KTsFreeMFCCFilters(bank); }
    void run() { KTsMelFiltering(bank, spectrum.data(), out); }
};

struct Design {
    void run() { KTsFreeMFCCFilters(makeBank()); }
};

auto ours(bool isWindowed, int filters = nFilters, int flags = filterFirst) {
    return [=] { return Ours(isWindowed, filters, flags); };
}

const int registered = [] {
    bench::Row bare("mfcc/512", ours(false));
    bench::Row windowed("mfccWindow/512", ours(true));
#if KTL_HAVE_FFTW
    bare.peer("fftw", 1e-4, [] { return Fftw(false); });
    windowed.peer("fftw", 1e-4, [] { return Fftw(true); });
#endif
#if KTL_HAVE_POCKETSPHINX
    windowed.other(
        "pocketsphinx", [] { return Pocketsphinx(); }, "filters of its own");
#endif
#if KTL_HAVE_AUBIO
    windowed.other(
        "aubio", [] { return Aubio(); }, "filters of its own, no pre-emphasis");
#endif
    // The fixed-point frame is wanted at no more than 1.4 of the float frame's time.
    bench::Row("mfccFixed/512", [] {
        return OursFixed();
    }).other("float", ours(false), "our float frame");
    bench::Row("mfccLogFirst/512", ours(false, nFilters, logarithmFirst));
    bench::Row("mfcc32/512", ours(false, 32));
    bench::Row("melFiltering/512", [] { return Filtering(9); });
    bench::Row("melFiltering/4096", [] { return Filtering(12); });
    bench::Row("melDesign/512", [] { return Design(); });
    return 0;
}();

} // namespace
