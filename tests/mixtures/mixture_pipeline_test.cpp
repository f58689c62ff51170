// The whole road of a mixture: from data through inversion, fixed point and a file, and back. What
// the scales cost is worked out for every frame from the scales alone, and no score may be further
// off.
#include "mixtures/mixtures.h"

#include <gtest/gtest.h>

#include <cstdio>

using namespace mixtures;

namespace {

constexpr int nDim = 13, nMix = 8;

// Cepstra-like frames: each dimension follows itself in time around one of eight centres, the
// variance falling with the coefficient's index.
class Speech {
public:
    explicit Speech(unsigned seed) : random(seed) {
        std::uniform_real_distribution<float> spread(-6, 6);
        for (int k = 0; k < nMix; ++k)
            for (int i = 0; i < nDim; ++i)
                centres[k][i] = spread(random) / (1 + 0.2f * float(i));
    }
    std::vector<float> frame(int k) {
        std::normal_distribution<float> noise(0, 1);
        std::vector<float> x;
        for (int i = 0; i < nDim; ++i) {
            state[i] = 0.8f * state[i] + noise(random) * 1.2f / (1 + 0.1f * float(i));
            x.push_back(centres[k][i] + state[i]);
        }
        return x;
    }

private:
    std::mt19937 random;
    float centres[nMix][nDim] = {};
    float state[nDim] = {};
};

// One density a centre, estimated and inverted, and put together as one server; weights carry the
// determinants.
Server mixtureFromData(Speech& speech, bool full) {
    Mixture<float> m;
    m.nDim = nDim;
    m.nMix = nMix;
    for (int k = 0; k < nMix; ++k) {
        Rows<float> data;
        for (int t = 0; t < 400; ++t)
            data.push_back(speech.frame(k));
        auto rows = pointers(data);
        const Server raw(KTsBuildGaussMixServer(rows.data(), 400, nDim, full ? KT_GAUSS_FULL : 0));
        const Server one(KTsInvertGaussianCovMatrix(raw.get(), KT_GAUSS_NORMALIZE));
        m.weights.push_back(one->pNormWeights[0] / nMix);
        const float* mean = ktl::gauss::means<float>(one.get())[0];
        m.means.emplace_back(mean, mean + nDim);
        if (!full) {
            const float* diagonal = ktl::gauss::diagonals<float>(one.get())[0];
            m.diagonals.emplace_back(diagonal, diagonal + nDim);
            continue;
        }
        m.matrices.emplace_back();
        for (int i = 0; i < nDim; ++i) {
            const float* row = ktl::gauss::matrices<float>(one.get())[0][i];
            m.matrices.back().emplace_back(row, row + nDim);
        }
    }
    return m.server();
}

struct Scales {
    int weight, mean, invCov;
};

// The finest scales at which every element fits 15 bits; means and covariances leave room for the
// integer form.
Scales scalesFor(const GaussMixServer* s) {
    return {KTsMaxOrder(s->pNormWeights, nMix) - 15, -5, -8};
}

// A likelihood, and how far an evaluation may be off when elements are off by their scales' unit
// and the vector by `dx`.
struct Bounds {
    double value = 0, error = 0;
};
Bounds boundsOf(const GaussMixServer* s, const std::vector<float>& x, const Scales& scales,
                double dx) {
    const double dm = std::ldexp(1.0, scales.mean) + dx, dc = std::ldexp(1.0, scales.invCov);
    Bounds bounds;
    for (int k = 0; k < nMix; ++k) {
        double q = 0, dq = 0;
        for (int i = 0; i < nDim; ++i)
            for (int j = 0; j < nDim; ++j) {
                if (!ktl::gauss::isFull(s) && i != j) continue;
                const double c = ktl::gauss::isFull(s)
                                     ? double(ktl::gauss::matrices<float>(s)[k][i][j])
                                     : double(ktl::gauss::diagonals<float>(s)[k][i]);
                const float* mean = ktl::gauss::means<float>(s)[k];
                const double di = double(x[std::size_t(i)]) - double(mean[i]),
                             dj = double(x[std::size_t(j)]) - double(mean[j]);
                q += c * di * dj;
                dq += dc * (std::fabs(di) + dm) * (std::fabs(dj) + dm) +
                      std::fabs(c) * (dm * (std::fabs(di) + std::fabs(dj)) + dm * dm);
            }
        const double weight = double(s->pNormWeights[k]), density = std::exp(-std::fabs(q) / 2);
        const double worst =
            std::exp(-std::max(std::fabs(q) - dq, 0.0) / 2); // a form's magnitude is what counts
        bounds.value += weight * density;
        bounds.error += weight * std::max(worst - density, density - density * std::exp(-dq / 2)) +
                        std::ldexp(1.0, scales.weight) * worst +
                        weight * worst * 1e-5; // and float arithmetic
    }
    return bounds;
}

Server throughAFile(const Server& server) {
    FILE* file = std::tmpfile();
    KTWriteGaussMixServer(file, server.get());
    std::rewind(file);
    Server read(KTReadGaussMixServer(file));
    std::fclose(file);
    return read;
}

} // namespace

TEST(Road, ScoresStayWithinWhatTheScalesImply) {
    for (const bool full : {false, true}) {
        Speech speech(full ? 102 : 101);
        const Server original = mixtureFromData(speech, full);
        const Scales scales = scalesFor(original.get());
        const Server fixed = throughAFile(Server(
            KTswConvertGaussMixServer(original.get(), scales.weight, scales.mean, scales.invCov)));
        ASSERT_NE(fixed, nullptr);
        const Server back(
            KTwsConvertGaussMixServer(fixed.get(), -scales.weight, -scales.mean, -scales.invCov));
        ASSERT_NE(back, nullptr);
        int telling = 0;
        for (int t = 0; t < 10000; ++t) {
            const auto x = speech.frame(t % nMix);
            const Bounds bounds = boundsOf(original.get(), x, scales, 0);
            const double score = KTsEvalGaussMix(back.get(), x.data(), nDim);
            ASSERT_NEAR(score, bounds.value, bounds.error) << t;
            ASSERT_NEAR(KTsEvalGaussMix(original.get(), x.data(), nDim), bounds.value,
                        bounds.value * 1e-4 + 1e-30)
                << t;
            telling += bounds.error < bounds.value;
        }
        // The bound says something about most diagonal frames; with 169 elements a form the worst
        // case is far off.
        EXPECT_GT(telling, full ? 0 : 5000);
    }
}

TEST(Road, FixedScoresStayWithinWhatTheScalesImply) {
    for (const bool full : {false, true}) {
        Speech speech(full ? 104 : 103);
        const Server original = mixtureFromData(speech, full);
        const Scales scales = scalesFor(original.get());
        const Server fixed(
            KTswConvertGaussMixServer(original.get(), scales.weight, scales.mean, scales.invCov));
        double weights = 0;
        for (int k = 0; k < nMix; ++k)
            weights += double(original->pNormWeights[k]);
        for (int t = 0; t < 10000; ++t) {
            const auto x = speech.frame(t % nMix);
            std::vector<short> words(x.size());
            int scale = scales.mean;
            KTswbConvertDown(x.data(), words.data(), nDim, KT_FixedScale, &scale);
            const int result =
                KTwEvalGaussMix(fixed.get(), words.data(), nDim, KT_AutoScale, &scale);
            const double score = std::ldexp(double(result), scale + scales.weight);
            const Bounds bounds = boundsOf(original.get(), x, scales, std::ldexp(1.0, scales.mean));
            // The exponential: 10 bits of the fraction and of its table, and 30 bits of the result.
            const double limit =
                bounds.error + (bounds.value + bounds.error) * 3.0 / 1024 + weights * 0x1p-28;
            ASSERT_NEAR(score, bounds.value, limit) << t;
        }
    }
}
