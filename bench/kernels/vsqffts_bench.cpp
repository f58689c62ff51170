// Real transforms: forward, inverse with scaling, and the fixed-point form beside the float one and
// beside conversions around a peer's transform.
#include "bench/kernels/plain_vectors.h"
#include "bench/support/bench.h"
#include "vsq.h"

#ifdef KTL_HAVE_FFTW
#include <fftw3.h>
#endif

#include <algorithm>
#include <new>
#include <string>

namespace {

// Arrays at the start of cache lines, as the peer has them.
template <class T>
struct AtLines {
    using value_type = T;
    T* allocate(std::size_t n) {
        return static_cast<T*>(::operator new (n * sizeof(T), std::align_val_t{64}));
    }
    void deallocate(T* block, std::size_t) { ::operator delete (block, std::align_val_t{64}); }
    bool operator==(const AtLines&) const { return true; }
};
using Array = std::vector<float, AtLines<float>>;

Array signal(int order) {
    Array samples;
    for (int i = 0; i < 1 << order; ++i)
        samples.push_back(float(i % 77) * 0.3f - 7.0f);
    return samples;
}

// The half spectrum of the signal as bins, from the packed order with the last bin in element 1.
bench::Values binsOf(const Array& packed) {
    bench::Values bins(packed.begin(), packed.end());
    bins.insert(bins.end(), {bins[1], 0});
    bins[1] = 0;
    return bins;
}

struct Ours {
    int order, flags;
    Array in, out;
    Ours(int n, int direction)
        : order(n), flags(direction | VSQ_RCPerm), in(signal(n)), out(in.size()) {
        if (direction == VSQ_Inv) {
            vsqsRealFftlNip(in.data(), out.data(), order, VSQ_Forw | VSQ_RCPerm);
            in = out;
        }
    }
    void run() { vsqsRealFftlNip(in.data(), out.data(), order, flags); }
    bench::Values results() const {
        return flags & VSQ_Forw ? binsOf(out) : bench::Values(out.begin(), out.end());
    }
};

// Loud enough that the fixed-point spectrum is not all rounding.
std::vector<short> words(int order) {
    std::vector<short> samples;
    for (int i = 0; i < 1 << order; ++i)
        samples.push_back(short((i * 7919) % 61 - 30));
    return samples;
}

// In place: each run starts from the same samples, on both sides.
struct OursFixed {
    int order;
    std::vector<short> in, out;
    explicit OursFixed(int n) : order(n), in(words(n)), out(in) {}
    void run() {
        out = in;
        vsqwRealFftl(out.data(), order, VSQ_Forw | VSQ_RCPerm, 0, nullptr);
    }
    bench::Values results() const { return bench::Values(out.begin(), out.end()); }
};

#ifdef KTL_HAVE_FFTW
// Out of place and measured; the inverse does not scale and may destroy its input.
struct Fftw {
    int n;
    bool isForward;
    float* reals;
    fftwf_complex* bins;
    fftwf_plan plan;
    Fftw(int order, bool forward)
        : n(1 << order), isForward(forward), reals(fftwf_alloc_real(std::size_t(n))),
          bins(fftwf_alloc_complex(std::size_t(n / 2 + 1))),
          plan(forward ? fftwf_plan_dft_r2c_1d(n, reals, bins, FFTW_MEASURE)
                       : fftwf_plan_dft_c2r_1d(n, bins, reals, FFTW_MEASURE)) {
        const Array samples = signal(order);
        std::copy(samples.begin(), samples.end(), reals);
        if (isForward) return;
        Ours ours(order, VSQ_Forw);
        ours.run();
        const bench::Values spectrum = ours.results();
        for (std::size_t i = 0; i < spectrum.size(); ++i)
            bins[i / 2][i % 2] = float(spectrum[i]) / float(n);
    }
    Fftw(const Fftw&) = delete;
    Fftw& operator=(const Fftw&) = delete;
    ~Fftw() {
        fftwf_destroy_plan(plan);
        fftwf_free(reals);
        fftwf_free(bins);
    }
    void run() { fftwf_execute(plan); }
    bench::Values results() const {
        return isForward ? bench::valuesOf(bins[0], n + 2) : bench::valuesOf(reals, n);
    }
};

// What a user has without a fixed-point transform: samples to floats, the peer, floats to samples.
struct FftwWords : Fftw {
    std::vector<short> in, out;
    explicit FftwWords(int order) : Fftw(order, true), in(words(order)), out(in) {}
    void run() {
        plain::widen(in.data(), reals, n);
        fftwf_execute(plan);
        bins[0][1] = bins[n / 2][0];
        plain::clampToWords(bins[0], out.data(), n);
    }
    bench::Values results() const { return bench::Values(out.begin(), out.end()); }
};
#endif

const int registered = [] {
    for (const int order : {5, 6, 7, 8, 9, 10, 11, 12, 14, 18}) {
        const std::string size = std::to_string(1 << order);
        bench::Row forward("realFft/" + size, [=] { return Ours(order, VSQ_Forw); });
        bench::Row inverse("inverseFft/" + size, [=] { return Ours(order, VSQ_Inv); });
#ifdef KTL_HAVE_FFTW
        forward.peer("fftw", 2e-6, [=] { return Fftw(order, true); });
        inverse.peer("fftw", 4e-6, [=] { return Fftw(order, false); });
#endif
    }
    for (const int order : {8, 9, 10}) {
        bench::Row row("fixedFft/" + std::to_string(1 << order), [=] { return OursFixed(order); });
        row.other(
            "float", [=] { return Ours(order, VSQ_Forw); }, "our float transform");
#ifdef KTL_HAVE_FFTW
        row.peer("fftw", 2e-3, [=] { return FftwWords(order); }); // a unit where truncation differs
#endif
    }
    return 0;
}();

} // namespace
