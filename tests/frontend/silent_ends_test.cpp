// The calls that ktlp6.h lists because they end the process without a word, and the checks that it
// names: what fails the check ends with exit code 1 and no text, what passes it returns, whatever
// the thread's handler.
#include "ktlp6.h"
#include "support/reports.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <vector>

namespace {

// What the process says as it ends: nothing, but for a leak checker's word on the scratch that is
// left.
#ifdef __SANITIZE_ADDRESS__
constexpr char lastWords[] = "";
#else
constexpr char lastWords[] = "^$";
#endif

class SilentEnds : public testing::Test {
protected:
    void TearDown() override {
        KTFreeLPTbls();
        KTFreeCepsTbls();
    }
    // Reports go to a handler that goes on, and none comes.
    static void expectEnd(const std::function<void()>& call) {
        support::CapturedReports reports;
        EXPECT_EXIT(call(), testing::ExitedWithCode(1), lastWords);
    }
    static void expectReturn(const std::function<void()>& call) {
        support::CapturedReports reports;
        call();
        EXPECT_EQ(reports.count(), 0u);
        EXPECT_EQ(KTGetStatus(), 0);
    }
};

// --- linear prediction: 0 <= order < nSamples ---

void predict(int nSamples, int order, int flags, bool fixed) {
    std::vector<float> x(20, 1.0f), coef(40);
    std::vector<short> words(20, 1), fixedCoef(40);
    x[3] = 7.0f, words[3] = 7;
    if (fixed)
        KTwLPredict(words.data(), nSamples, fixedCoef.data(), order, flags, KT_AutoScale, nullptr);
    else
        KTsLPredict(x.data(), nSamples, coef.data(), order, flags);
}

TEST_F(SilentEnds, OfLinearPrediction) {
    for (bool fixed : {false, true})
        for (int flags : {KT_LPAutocorr, KT_LPCovariance, 3}) {
            expectEnd([=] { predict(5, 10, flags, fixed); });
            expectEnd([=] { predict(5, 5, flags, fixed); });
            expectEnd([=] { predict(0, 0, flags, fixed); });
            expectEnd([=] { predict(5, -1, flags, fixed); });
            expectReturn([=] { predict(5, 4, flags, fixed); });
            expectReturn([=] { predict(5, 0, flags, fixed); });
            expectReturn([=] { predict(1, 0, flags, fixed); });
        }
    for (bool fixed : {false, true})
        expectReturn([=] { predict(5, 10, 0, fixed); }); // no method, nothing to refuse
    float coef[2];
    expectEnd([&] { KTsLPredict(nullptr, 5, coef, 2, KT_LPAutocorr); });
}

// --- cepstra: order 0 to 30, a filter or two, a coefficient, arrays that are there ---

struct Bank {
    KTMFCCFilters* filters;
    Bank(int fftOrder, int nFilters)
        : filters(KTsMFCCInit(fftOrder, nFilters, 100, 3900, 8000, 0, 0)) {}
    ~Bank() { KTsFreeMFCCFilters(filters); }
    Bank(const Bank&) = delete;
    Bank& operator=(const Bank&) = delete;
};

void cepstrum(const Bank& bank, int nCeps, int flags, bool fixed) {
    std::vector<float> frame(512, 0.25f), ceps(40);
    std::vector<short> words(512, 100), fixedCeps(40);
    if (fixed)
        KTwCepstralMFCC(bank.filters, words.data(), fixedCeps.data(), nCeps, 1, flags, 0,
                        KT_AutoScale, nullptr);
    else
        KTsCepstralMFCC(bank.filters, frame.data(), ceps.data(), nCeps, 1e-3f, flags);
}

constexpr int allFlags[] = {0, KT_CepsTimeInput | KT_CepsThreshold | KT_CepsFilterFirst};

TEST_F(SilentEnds, OfCepstraWithoutFilters) {
    const Bank none(8, 0), one(8, 1), two(8, 2), three(8, 3);
    for (bool fixed : {false, true})
        for (int flags : allFlags) {
            expectEnd([&] { cepstrum(none, 3, flags, fixed); });
            expectEnd([&] { cepstrum(none, 3, flags | KT_CepsZeroth, fixed); });
            expectEnd([&] { cepstrum(one, 3, flags, fixed); });
            expectReturn([&] { cepstrum(one, 3, flags | KT_CepsZeroth, fixed); });
            expectReturn([&] { cepstrum(two, 3, flags, fixed); });
            expectReturn([&] { cepstrum(three, 3, flags, fixed); });
        }
}

TEST_F(SilentEnds, OfCepstraWithoutACoefficient) {
    const Bank three(8, 3);
    for (bool fixed : {false, true})
        for (int flags : allFlags) {
            expectEnd([&] { cepstrum(three, 0, flags, fixed); });
            expectEnd([&] { cepstrum(three, -2, flags, fixed); });
            expectReturn([&] { cepstrum(three, 1, flags, fixed); });
        }
}

TEST_F(SilentEnds, OfCepstraOfSamplesWithAnOrderThatIsNone) {
    for (int order : {-1, 32, 100}) {
        const Bank bank(order, 6);
        ASSERT_NE(bank.filters, nullptr);
        for (bool fixed : {false, true})
            expectEnd([&] { cepstrum(bank, 3, KT_CepsTimeInput, fixed); });
    }
    for (int order : {0, 1, 9}) {
        const Bank bank(order, 6);
        for (bool fixed : {false, true})
            expectReturn([&] { cepstrum(bank, 3, KT_CepsTimeInput, fixed); });
    }
}

TEST_F(SilentEnds, OfCepstraWithoutArrays) {
    const Bank six(8, 6);
    std::vector<float> frame(512, 0.25f), ceps(10);
    expectEnd([&] { KTsCepstralMFCC(six.filters, nullptr, ceps.data(), 3, 0, 0); });
    expectEnd([&] { KTsCepstralMFCC(six.filters, nullptr, ceps.data(), 3, 0, KT_CepsTimeInput); });
    expectEnd([&] { KTsCepstralMFCC(six.filters, frame.data(), nullptr, 3, 0, KT_CepsTimeInput); });
}

// --- LP spectrum: A has no zero ---

void spectrum(const std::vector<float>& a, int fftOrder) {
    std::vector<float> values(std::size_t(1) << fftOrder);
    KTsLPSpectrum(a.data(), int(a.size()), values.data(), fftOrder, 1.0f);
    for (float v : values)
        EXPECT_TRUE(std::isfinite(v));
}

// The coefficients are converted with the scale inScale.
void fixedSpectrum(const std::vector<float>& a, int fftOrder, int inScale) {
    std::vector<short> words(a.size()), values(std::size_t(1) << fftOrder);
    KTswbConvertDown(a.data(), words.data(), int(a.size()), KT_FixedScale, &inScale);
    KTwLPSpectrum(words.data(), int(words.size()), values.data(), fftOrder, 1.0f, inScale,
                  KT_AutoScale, nullptr);
}

TEST_F(SilentEnds, OfSpectraWithAZeroOnAFrequency) {
    const std::vector<float> difference = {1.0f},
                             longDifference = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1.0f};
    const std::vector<float> damped = {0.99f};
    for (int order : {1, 3, 4}) { // by direct sum, and by the transform
        expectEnd([&] { spectrum(difference, order); });
        expectEnd([&] { spectrum(longDifference, order); });
        expectReturn([&] { spectrum(damped, order); });
        expectEnd([&] { fixedSpectrum(difference, order, -12); });
        expectReturn([&] { fixedSpectrum(damped, order, -12); });
    }
}

TEST_F(SilentEnds, OfFixedSpectraWithoutRoomForOne) {
    const std::vector<float> none(16, 0.0f), few(1, 0.0f);
    expectEnd([&] { fixedSpectrum(none, 3, 1); }); // the transform
    expectEnd([&] { fixedSpectrum(none, 3, -16); });
    expectEnd([&] { fixedSpectrum(few, 3, -18); }); // the direct sum
    expectReturn([&] { fixedSpectrum(none, 3, 0); });
    expectReturn([&] { fixedSpectrum(none, 3, -14); });
    expectReturn([&] { fixedSpectrum(few, 3, -14); });
}

TEST_F(SilentEnds, OfSpectraWithoutCoefficients) {
    float values[8];
    expectEnd([&] { KTsLPSpectrum(nullptr, 20, values, 3, 1.0f); });
}

// What linear prediction gives with a result of 1 may lie on the circle, and the header's remedy
// moves it off.
TEST_F(SilentEnds, AreAvertedByMovingZerosOffTheCircle) {
    std::vector<float> x(20000);
    for (std::size_t i = 0; i < x.size(); ++i)
        x[i] = float(std::sin(3.14159265358979323846 * (double(i) + 0.5) / 20000.0));
    std::vector<float> a(1);
    ASSERT_EQ(KTsLPredict(x.data(), 20000, a.data(), 1, KT_LPAutocorr), 1);
    ASSERT_EQ(a[0], 1.0f);
    expectEnd([&] { spectrum(a, 3); });
    a[0] *= 0.99f;
    expectReturn([&] { spectrum(a, 3); });
}

// --- codebooks: every row is there ---

TEST_F(SilentEnds, OfQuantisersWithARowThatIsNotThere) {
    float rows[4][2] = {{0, 0}, {1, 1}, {5, 5}, {6, 6}};
    float* vectors[] = {rows[0], rows[1], rows[2], rows[3]};
    KTCodebook* codebook =
        KTsMakeCodebook(vectors, nullptr, 4, 2, 2, KT_CB_EUCLID | KT_CB_SPLIT_LARGEST);
    ASSERT_NE(codebook, nullptr);
    float* none[] = {nullptr};
    int cell = 0;
    expectEnd([&] { KTsVQCodebook(codebook, none, &cell, 1, 1, nullptr); });
    KT_FreeCodebook(codebook);
}

} // namespace
