// The cosine transform for the usual numbers of filters and some powers of two.
#include "bench/kernels/plain_vectors.h"
#include "bench/support/bench.h"
#include "vsq.h"

#ifdef KTL_HAVE_FFTW
#include <fftw3.h>
#endif

#include <cmath>
#include <string>

namespace {

constexpr int longest = 256;

struct Arrays {
    int n;
    alignas(64) float in[longest], out[longest];
    explicit Arrays(int count) : n(count) {
        for (int i = 0; i < longest; ++i)
            in[i] = float(i % 7) - 3.0f;
    }
    bench::Values results() const { return bench::valuesOf(out, n); }
};

struct Ours : Arrays {
    int flags;
    Ours(int count, int direction) : Arrays(count), flags(direction) {}
    void run() { vsqsDct(in, out, n, flags); }
};

struct OursFixed {
    int n;
    short in[longest], out[longest];
    explicit OursFixed(int count) : n(count) {
        for (int i = 0; i < longest; ++i)
            in[i] = short(i % 7 * 100);
    }
    void run() { vsqwDct(in, out, n, VSQ_DctForw); }
};

// A column of cosines for each input, its length known to the compiler.
struct Columns : Arrays {
    std::vector<float> table;
    void (*transform)(const float*, const float*, float*);
    explicit Columns(int count) : Arrays(count), transform(plain::columnTransform(count)) {
        for (int i = 0; i < n; ++i)
            for (int k = 0; k < n; ++k)
                table.push_back(float(std::sqrt((k == 0 ? 1.0 : 2.0) / n) *
                                      std::cos(std::acos(-1.0) * k * (2 * i + 1) / (2 * n))));
    }
    void run() { transform(table.data(), in, out); }
};

#ifdef KTL_HAVE_FFTW
// Its transform is not orthonormal: the inputs are scaled before and the results behind the timing.
struct Fftw : Arrays {
    fftwf_plan plan;
    bool isForward;
    Fftw(int count, bool forward)
        : Arrays(count),
          plan(fftwf_plan_r2r_1d(n, in, out, forward ? FFTW_REDFT10 : FFTW_REDFT01, FFTW_MEASURE)),
          isForward(forward) {
        for (int i = 0; i < n; ++i)
            in[i] = (float(i % 7) - 3.0f) * (isForward ? 1.0f : scale(i));
    }
    Fftw(const Fftw&) = delete;
    Fftw& operator=(const Fftw&) = delete;
    ~Fftw() { fftwf_destroy_plan(plan); }
    float scale(int k) const {
        return std::sqrt((k == 0 ? (isForward ? 0.25f : 1.0f) : 0.5f) / float(n));
    }
    void run() { fftwf_execute(plan); }
    bench::Values results() const {
        bench::Values values;
        for (int k = 0; k < n; ++k)
            values.push_back(out[k] * (isForward ? scale(k) : 1.0f));
        return values;
    }
};
#endif

const int registered = [] {
    for (const int n : {13, 24, 26, 32, 40, 64, 128, 256}) {
        const std::string size = std::to_string(n);
        bench::Row forward("dct/" + size, [=] { return Ours(n, VSQ_DctForw); });
        bench::Row inverse("inverseDct/" + size, [=] { return Ours(n, VSQ_DctInv); });
        bench::Row("fixedDct/" + size, [=] { return OursFixed(n); });
        if (plain::columnTransform(n) != nullptr)
            forward.peer("columns", 1e-5, [=] { return Columns(n); });
#ifdef KTL_HAVE_FFTW
        forward.peer("fftw", 1e-5, [=] { return Fftw(n, true); });
        inverse.peer("fftw", 1e-5, [=] { return Fftw(n, false); });
#endif
    }
    return 0;
}();

} // namespace
