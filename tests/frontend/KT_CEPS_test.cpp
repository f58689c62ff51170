// The cepstrum in both flavours against a plain computation in double, its rules about the caller's
// data, failures, liftering, and the whole front end on recorded speech.
#include "frame/context.h"
#include "frontend/mel.h"
#include "ktlp6.h"
#include "oracle/mel_reference.h"
#include "support/alloc_faults.h"
#include "support/every_level.h"
#include "support/guarded.h"
#include "support/reports.h"
#include "vsq.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <limits>
#include <memory>
#include <mutex>
#include <random>
#include <thread>

namespace {

constexpr char source[] = "..\\_LIBSRC\\KT_CEPS";
constexpr float unwritten = -12345.0f;

struct Release {
    void operator()(KTMFCCFilters* filters) const { KTsFreeMFCCFilters(filters); }
};
using Bank = std::unique_ptr<KTMFCCFilters, Release>;

Bank design(const oracle::MelRequest& r) {
    KTSetMelScale(r.melMul, r.melDiv);
    return Bank(KTsMFCCInit(r.fftOrder, r.nFilters, r.lowFreq, r.highFreq, r.sampleFreq, r.nLinear,
                            r.linearTop));
}

// Both roads of the DCT, with and without filters in the upper half of the spectrum, with filters
// that end at its very end, with a common length, and very short frames.
const oracle::MelRequest requests[] = {
    {9, 26, 0, 8000, 16000, 0, 0},     {9, 32, 0, 8000, 16000, 0, 0},
    {8, 24, 64, 3400, 8000, 10, 1000}, {8, 16, 64, 3400, 8000, 4, 800},
    {8, 20, 0, 8000, 8000, 0, 0},      {8, 32, 200, 8000, 8000, 10, 1500},
    {6, 2, 0, 4000, 8000, 0, 0},       {6, 3, 500, 2000, 8000, 0, 0},
    {2, 4, 0, 8000, 16000, 0, 0},      {1, 2, 0, 8000, 16000, 0, 0},
    {10, 64, 133, 6855, 16000, 0, 0},  {7, 13, 5000, 7900, 8000, 0, 0},
    {0, 3, 0, 8000, 16000, 0, 0},
};

// Noise with two tones: no bin is far below the others, so that logarithms are well-conditioned.
std::vector<float> randomSamples(std::size_t n, unsigned seed) {
    std::mt19937 random(seed);
    std::normal_distribution<float> noise(0.0f, 300.0f);
    std::vector<float> samples(n);
    for (std::size_t i = 0; i < n; ++i)
        samples[i] = std::round(
            noise(random) + 2000.0f * float(std::sin(0.3 * double(i)) + std::sin(1.1 * double(i))));
    return samples;
}

std::vector<float> randomSpectrum(std::size_t n, unsigned seed) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> value(0.5f, 2000.0f);
    std::vector<float> spectrum(n);
    for (float& x : spectrum)
        x = std::round(value(random)) + 0.5f;
    return spectrum;
}

std::vector<float> inputFor(const KTMFCCFilters& bank, int flags, unsigned seed) {
    if ((flags & KT_CepsTimeInput) != 0) return randomSamples(std::size_t(bank.fftLen), seed);
    return randomSpectrum(std::size_t(bank.fftLen / 2 + 1), seed);
}

// The sixteen combinations.
std::vector<int> allFlags() {
    std::vector<int> all;
    for (int time : {0, KT_CepsTimeInput})
        for (int threshold : {0, KT_CepsThreshold})
            for (int first : {0, KT_CepsFilterFirst})
                for (int zeroth : {0, KT_CepsZeroth})
                    all.push_back(time | threshold | first | zeroth);
    return all;
}

oracle::CepstrumRequest asRequest(int flags, int nCeps, float thresh) {
    return {(flags & KT_CepsTimeInput) != 0,
            (flags & KT_CepsThreshold) != 0,
            (flags & KT_CepsFilterFirst) != 0,
            (flags & KT_CepsZeroth) != 0,
            nCeps,
            thresh};
}

void expectNear(const support::Guarded<float>& got, const std::vector<oracle::Bounded>& expected) {
    ASSERT_EQ(got.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        if (std::isfinite(expected[i].error)) {
            EXPECT_NEAR(double(got[i]), expected[i].value, expected[i].error) << i;
        }
    }
}

// Runs one frame on guarded copies.
struct Frame {
    support::Guarded<float> in;
    support::Guarded<float> ceps;

    // out of line: inlined, the compiler sees sizes beyond the address space
    [[gnu::noinline]] Frame(const std::vector<float>& input, int nCeps)
        : in(input), ceps(std::size_t(nCeps), unwritten) {}

    void run(KTMFCCFilters* bank, float thresh, int flags) {
        KTsCepstralMFCC(bank, in.data(), ceps.data(), int(ceps.size()), thresh, flags);
        EXPECT_TRUE(in.intact());
        EXPECT_TRUE(ceps.intact());
    }
    bool untouched() const {
        return std::all_of(ceps.data(), ceps.data() + ceps.size(),
                           [](float x) { return x == unwritten; });
    }
};

std::vector<short> words(const std::vector<float>& values) {
    std::vector<short> out;
    for (float x : values)
        out.push_back(short(std::clamp(x, -32768.0f, 32767.0f)));
    return out;
}

// A thread's buffers outlive the tests otherwise.
struct ReleaseAtEnd : testing::Environment {
    void TearDown() override { KTFreeCepsTbls(); }
};
[[maybe_unused]] const auto* const releaseAtEnd =
    testing::AddGlobalTestEnvironment(new ReleaseAtEnd);

} // namespace

TEST(Cepstrum, EveryFlagCombinationIsThePlainComputationOnEveryLevel) {
    for (const oracle::MelRequest& request : requests) {
        const Bank bank = design(request);
        const oracle::MelBank plain = oracle::designMelBank(request);
        for (int flags : allFlags()) {
            SCOPED_TRACE(testing::Message()
                         << "bank " << &request - requests << " flags " << flags);
            const std::vector<float> in = inputFor(*bank, flags, 17u);
            const float thresh = 400.0f;
            const int nCeps = std::min(13, request.nFilters);
            const auto expected = oracle::cepstrum(plain, in, asRequest(flags, nCeps, thresh));
            std::vector<float> first;
            support::onEveryLevel([&] {
                Frame frame(in, nCeps);
                frame.run(bank.get(), thresh, flags);
                expectNear(frame.ceps, expected);
                if (first.empty()) first = frame.ceps.values();
                EXPECT_EQ(
                    std::memcmp(first.data(), frame.ceps.data(), first.size() * sizeof(float)), 0);
            });
        }
    }
}

// The bounds of the test above have to mean something.
TEST(Cepstrum, BoundsOfThePlainComputationAreNarrow) {
    const Bank bank = design(requests[0]);
    const oracle::MelBank plain = oracle::designMelBank(requests[0]);
    for (int flags : allFlags())
        for (const oracle::Bounded& c :
             oracle::cepstrum(plain, inputFor(*bank, flags, 17u), asRequest(flags, 13, 400.0f)))
            EXPECT_LT(c.error, 2e-3) << flags;
}

TEST(Cepstrum, MoreCoefficientsThanFiltersEndInZeros) {
    for (int nFilters : {20, 32}) {
        const Bank bank = design({9, nFilters, 0, 8000, 16000, 0, 0});
        for (int flags : allFlags()) {
            Frame frame(inputFor(*bank, flags, 3u), nFilters + 9);
            frame.run(bank.get(), 1.0f, flags);
            const int nOut = (flags & KT_CepsZeroth) != 0 ? nFilters : nFilters - 1;
            for (int i = 0; i < nFilters + 9; ++i)
                EXPECT_EQ(frame.ceps[std::size_t(i)] == 0.0f, i >= nOut) << i;
        }
    }
}

TEST(Cepstrum, AsManyCoefficientsAsFiltersWithoutTheZerothEndInOneZero) {
    for (int nFilters : {24, 16}) {
        const Bank bank = design({9, nFilters, 0, 8000, 16000, 0, 0});
        const int flags = KT_CepsTimeInput | KT_CepsFilterFirst;
        Frame frame(inputFor(*bank, flags, 5u), nFilters);
        frame.run(bank.get(), 0.0f, flags);
        EXPECT_NE(frame.ceps[std::size_t(nFilters - 2)], 0.0f);
        EXPECT_EQ(frame.ceps[std::size_t(nFilters - 1)], 0.0f);
    }
}

TEST(Cepstrum, ZerothOnlyShiftsTheOutput) {
    for (const oracle::MelRequest& request : {requests[0], requests[1]}) {
        const Bank bank = design(request);
        for (int flags : allFlags()) {
            if ((flags & KT_CepsZeroth) != 0) continue;
            Frame from1(inputFor(*bank, flags, 9u), 12), from0(inputFor(*bank, flags, 9u), 13);
            from1.run(bank.get(), 10.0f, flags);
            from0.run(bank.get(), 10.0f, flags | KT_CepsZeroth);
            for (std::size_t i = 0; i < 12; ++i)
                EXPECT_EQ(from1.ceps[i], from0.ceps[i + 1]);
        }
    }
}

TEST(Cepstrum, SpectrumIsOverwrittenByItsLogarithmUpToOneBinBehindTheFilters) {
    const oracle::MelRequest request{8, 24, 64, 2000, 8000, 0, 0};
    const Bank bank = design(request);
    const auto nLog = std::size_t(bank->lastBin + 2);
    ASSERT_LT(nLog, 129u);
    std::vector<float> in = randomSpectrum(129, 2);
    in[0] = in[50] = in[128] = 0.25f;
    for (int flags : {0, KT_CepsThreshold}) {
        Frame frame(in, 12);
        frame.run(bank.get(), 0.5f, flags);
        std::vector<float> expected = in;
        if (flags != 0) // the floor is for the whole spectrum
            for (float& x : expected)
                x = std::max(x, 0.5f);
        vsqsbLn1(expected.data(), int(nLog));
        EXPECT_EQ(frame.in.values(), expected);
    }
}

TEST(Cepstrum, OtherInputIsKept) {
    const Bank bank = design(requests[4]);
    for (int flags : allFlags()) {
        if ((flags & (KT_CepsTimeInput | KT_CepsFilterFirst)) == 0) continue;
        const std::vector<float> in = inputFor(*bank, flags, 4u);
        Frame frame(in, 12);
        frame.run(bank.get(), 500.0f, flags);
        EXPECT_EQ(frame.in.values(), in) << flags;
    }
}

TEST(Cepstrum, LogarithmStaysInsideASpectrumWhoseLastBinIsUsed) {
    // lastBin + 2 is one more than the spectrum has; guard words lie behind it
    const oracle::MelRequest request{8, 24, 0, 4016, 8000, 0, 0};
    const Bank bank = design(request);
    ASSERT_EQ(bank->lastBin, 128);
    const std::vector<float> in = randomSpectrum(129, 6);
    Frame frame(in, 12);
    frame.run(bank.get(), 0.0f, 0);
    std::vector<float> expected = in;
    vsqsbLn1(expected.data(), 129);
    EXPECT_EQ(frame.in.values(), expected);
}

TEST(Cepstrum, BothFormsOfTheTransformAgree) {
    const Bank bank = design(requests[1]);
    ASSERT_EQ(bank->dctOrder, 5);
    for (int flags : allFlags()) {
        const std::vector<float> in = inputFor(*bank, flags, 8u);
        Frame fast(in, 32), direct(in, 32);
        fast.run(bank.get(), 100.0f, flags);
        bank->dctOrder = 0; // takes the general transform
        direct.run(bank.get(), 100.0f, flags);
        bank->dctOrder = 5;
        for (std::size_t i = 0; i < 32;
             ++i) // 32 numbers of up to about 4, each form within some roundings of them
            EXPECT_NEAR(fast.ceps[i], direct.ceps[i], 40 * 0x1p-24 * 4 * std::sqrt(32.0)) << flags;
    }
}

TEST(Cepstrum, ZeroBinIsNotGuarded) {
    const Bank bank = design(requests[0]);
    for (int flags : {0, KT_CepsThreshold}) { // a floor of zero does not help
        std::vector<float> in = randomSpectrum(257, 1);
        in[std::size_t(bank->disFft[20]) + 1] = 0.0f;
        Frame frame(in, 12);
        frame.run(bank.get(), 0.0f, flags);
        EXPECT_EQ(frame.in[std::size_t(bank->disFft[20]) + 1],
                  -std::numeric_limits<float>::infinity());
        for (float c : frame.ceps.values())
            EXPECT_FALSE(std::isfinite(c));
    }
    Frame silence(std::vector<float>(512, 0.0f), 12);
    silence.run(bank.get(), 0.0f, KT_CepsTimeInput | KT_CepsFilterFirst);
    for (float c : silence.ceps.values())
        EXPECT_FALSE(std::isfinite(c));
}

TEST(Cepstrum, FloorMakesSilenceACepstrumOfOneLevel) {
    for (const oracle::MelRequest& request : {requests[0], requests[1]}) {
        const Bank bank = design(request);
        for (int first : {0, KT_CepsFilterFirst}) {
            Frame silence(std::vector<float>(512, 0.0f), 5);
            silence.run(bank.get(), 100.0f,
                        KT_CepsTimeInput | KT_CepsThreshold | KT_CepsZeroth | first);
            // log10 of 100, of a magnitude or of a power, in every filter
            const double level = (first != 0 ? 2.0 : 1.0) * std::sqrt(double(request.nFilters));
            EXPECT_NEAR(silence.ceps[0], level, 60 * 0x1p-24 * level);
            for (std::size_t i = 1; i < 5; ++i)
                EXPECT_NEAR(silence.ceps[i], 0.0, 60 * 0x1p-24 * level);
        }
    }
}

TEST(Cepstrum, AllocatesNothingAfterTheFirstFrameOfASize) {
    const Bank large = design(requests[10]), small = design(requests[3]),
               other = design(requests[0]);
    const auto frames = [&] {
        for (const Bank* bank : {&large, &small, &other})
            for (int flags : allFlags()) {
                Frame frame(inputFor(**bank, flags, 1u), 16);
                std::vector<short> in = words(frame.in.values()), out(16);
                support::alloc::arm(0);
                frame.run(bank->get(), 1.0f, flags);
                KTwCepstralMFCC(bank->get(), in.data(), out.data(), 16, 1, flags, 0, KT_Saturate,
                                nullptr);
                EXPECT_EQ(support::alloc::allocations(), 0) << flags;
                support::alloc::disarm();
            }
    };
    for (const Bank* bank : {&large, &small, &other}) {
        Frame frame(inputFor(**bank, KT_CepsTimeInput, 1u), 16);
        std::vector<short> in = words(frame.in.values()), out(16);
        KTwCepstralMFCC(bank->get(), in.data(), out.data(), 16, 1, KT_CepsTimeInput, 0, KT_Saturate,
                        nullptr);
    }
    frames();
    KTFreeCepsTbls();
}

TEST(Cepstrum, GrowsAndShrinksWithoutLosingARow) {
    const Bank banks[] = {design(requests[3]), design(requests[10]), design(requests[6]),
                          design(requests[0])};
    for (int round = 0; round < 3; ++round)
        for (const Bank& bank : banks)
            for (int nCeps : {1, 90, 13}) {
                const int flags = KT_CepsTimeInput | KT_CepsFilterFirst | KT_CepsThreshold;
                const std::vector<float> samples = inputFor(*bank, flags, 12u);
                Frame frame(samples, nCeps);
                frame.run(bank.get(), 1.0f, flags);
                support::Guarded<short> in(words(samples)), out(std::size_t(nCeps), 0);
                int scale = -8;
                KTwCepstralMFCC(bank.get(), in.data(), out.data(), nCeps, 1, flags, 0,
                                KT_FixedScale, &scale);
                EXPECT_TRUE(in.intact());
                EXPECT_TRUE(out.intact());
                for (int i = 0; i < nCeps; ++i)
                    EXPECT_EQ(out[std::size_t(i)], short(frame.ceps[std::size_t(i)] * 256.0f));
            }
    KTFreeCepsTbls();
}

TEST(Cepstrum, FixedPointIsTheFloatRoadBetweenConversions) {
    for (const oracle::MelRequest& request : requests) {
        const Bank bank = design(request);
        for (int flags : allFlags()) {
            SCOPED_TRACE(testing::Message()
                         << "bank " << &request - requests << " flags " << flags);
            const int inScale = 3, nCeps = std::min(13, request.nFilters), thresh = 777;
            const std::vector<short> in = words(inputFor(*bank, flags, 21u));
            std::vector<float> up(in.size());
            KTwsbConvertUp(in.data(), up.data(), int(in.size()), inScale);
            Frame frame(up, nCeps);
            frame.run(bank.get(), 777.0f / 8.0f, flags);
            for (int mode : {KT_NoScale, KT_FixedScale, KT_AutoScale, KT_Saturate, 7})
                for (bool given : {true, false}) {
                    int wantedScale = -9, gotScale = -9;
                    std::vector<short> expected(std::size_t(nCeps), 1);
                    KTswbConvertDown(frame.ceps.data(), expected.data(), nCeps, mode,
                                     given ? &wantedScale : nullptr);
                    support::Guarded<short> samples(in), out(std::size_t(nCeps), 1);
                    KTwCepstralMFCC(bank.get(), samples.data(), out.data(), nCeps, thresh, flags,
                                    inScale, mode, given ? &gotScale : nullptr);
                    EXPECT_EQ(out.values(), expected) << mode;
                    EXPECT_EQ(gotScale, wantedScale);
                    // spectra too: the logarithm is taken of the copy
                    EXPECT_EQ(samples.values(), in);
                    EXPECT_TRUE(samples.intact());
                    EXPECT_TRUE(out.intact());
                }
        }
    }
}

TEST(Cepstrum, EachAllocationReportsItsBuffer) {
    const Bank bank = design(requests[0]);
    const std::vector<float> samples = randomSamples(512, 1);
    const char* const names[] = {"filterOutput", "filterDctInput", "filterDctOutput", "fftOut"};
    Frame warm(samples, 13);
    warm.run(bank.get(), 1.0f, KT_CepsTimeInput); // the kernels' tables
    support::CapturedReports reports;
    auto& ceps = KTGetContext()->Ceps;
    for (int failAt = 1; failAt <= 4; ++failAt) {
        SCOPED_TRACE(failAt);
        reports.clear();
        // exceeds the capacity, so that all buffers are renewed
        Frame larger(samples, 100 * failAt);
        support::alloc::arm(failAt);
        larger.run(bank.get(), 1.0f, KT_CepsTimeInput);
        EXPECT_TRUE(support::alloc::failed());
        support::alloc::disarm();
        EXPECT_TRUE(larger.untouched());
        ASSERT_EQ(reports.count(), 1u);
        EXPECT_EQ(reports[0].status, KT_StsNoMem);
        EXPECT_EQ(reports[0].function, "KTsCepstralMFCC");
        EXPECT_EQ(reports[0].source, source);
        EXPECT_EQ(reports[0].message,
                  std::string("insufficiency of memory for pointer  pKTcontext->Ceps.") +
                      names[failAt - 1]);
        float* const buffers[] = {ceps.filterOutput, ceps.filterDctInput, ceps.filterDctOutput,
                                  ceps.fftOut};
        EXPECT_EQ(buffers[failAt - 1], nullptr);

        reports.clear(); // and the next frame is none the worse
        larger.run(bank.get(), 1.0f, KT_CepsTimeInput);
        EXPECT_EQ(reports.count(), 0u);
        EXPECT_EQ(larger.ceps[0], warm.ceps[0]);
    }
}

TEST(Cepstrum, EachAllocationOfTheFixedFlavourReportsItsBuffer) {
    const Bank bank = design(requests[0]);
    std::vector<short> samples = words(randomSamples(512, 1));
    const std::string own = "insufficiency of memory for pointer  pKTcontext->Ceps.";
    const char* const names[] = {"tempVect",       "tempCeps",        "filterOutput",
                                 "filterDctInput", "filterDctOutput", "fftOut"};
    std::vector<short> warm(13);
    KTwCepstralMFCC(bank.get(), samples.data(), warm.data(), 13, 1, KT_CepsTimeInput, 0,
                    KT_FixedScale, nullptr);
    support::CapturedReports reports;
    for (int failAt = 1; failAt <= 6; ++failAt) {
        SCOPED_TRACE(failAt);
        reports.clear();
        const int nCeps = 1000 * failAt;
        support::Guarded<short> out(std::size_t(nCeps), 99);
        support::alloc::arm(failAt);
        KTwCepstralMFCC(bank.get(), samples.data(), out.data(), nCeps, 1, KT_CepsTimeInput, 0,
                        KT_FixedScale, nullptr);
        EXPECT_TRUE(support::alloc::failed());
        support::alloc::disarm();
        EXPECT_EQ(out.values(), std::vector<short>(std::size_t(nCeps), 99));
        ASSERT_EQ(reports.count(), failAt <= 2 ? 1u : 2u);
        EXPECT_EQ(reports[0].status, KT_StsNoMem);
        EXPECT_EQ(reports[0].function, failAt <= 2 ? "KTwCepstralMFCC" : "KTsCepstralMFCC");
        EXPECT_EQ(reports[0].message, own + names[failAt - 1]);
        if (failAt > 2) {
            EXPECT_EQ(reports[1].status, KT_StsBacktrace);
            EXPECT_EQ(reports[1].function, "KTwCepstralMFCC");
            EXPECT_EQ(reports[1].message, "");
            EXPECT_EQ(reports[1].source, source);
        }
        EXPECT_EQ(KTGetStatus(), KT_StsNoMem);

        reports.clear();
        KTwCepstralMFCC(bank.get(), samples.data(), out.data(), nCeps, 1, KT_CepsTimeInput, 0,
                        KT_FixedScale, nullptr);
        EXPECT_EQ(reports.count(), 0u);
        EXPECT_TRUE(std::equal(warm.begin(), warm.end(), out.data()));
    }
    KTFreeCepsTbls();
}

TEST(Cepstrum, NegativeStatusFromBeforeEndsTimeInputAtTheTransform) {
    for (const oracle::MelRequest& request : {requests[0], requests[1]}) {
        const Bank bank = design(request);
        support::CapturedReports reports;
        KTSetStatus(KT_StsBadArg);
        Frame frame(randomSamples(512, 1), 13);
        frame.run(bank.get(), 1.0f, KT_CepsTimeInput);
        EXPECT_TRUE(frame.untouched());
        ASSERT_EQ(reports.count(), 1u);
        EXPECT_EQ(reports[0].status, KT_StsBacktrace);
        EXPECT_EQ(reports[0].function, "KTsCepstralMFCC");
        EXPECT_EQ(reports[0].message, "");
        EXPECT_EQ(reports[0].source, source);
        EXPECT_EQ(KTGetStatus(), KT_StsBadArg);
    }
}

TEST(Cepstrum, NegativeStatusFromBeforeIsReportedAfterSpectrumInput) {
    support::CapturedReports reports;
    const Bank general = design(requests[0]);
    Frame good(randomSpectrum(257, 1), 13), frame(randomSpectrum(257, 1), 13);
    good.run(general.get(), 1.0f, 0);
    EXPECT_EQ(reports.count(), 0u);
    KTSetStatus(KT_StsBadArg);
    frame.run(general.get(), 1.0f, 0); // done, and then reported
    EXPECT_EQ(frame.ceps.values(), good.ceps.values());
    ASSERT_EQ(reports.count(), 1u);
    EXPECT_EQ(reports[0].status, KT_StsBacktrace);
    EXPECT_EQ(reports[0].function, "KTsCepstralMFCC");

    const Bank power = design(requests[1]);
    Frame stopped(randomSpectrum(257, 1), 13); // the transform of the filter outputs ends it
    stopped.run(power.get(), 1.0f, 0);
    EXPECT_TRUE(stopped.untouched());
    ASSERT_EQ(reports.count(), 2u);
    EXPECT_EQ(reports[1].status, KT_StsBacktrace);
}

TEST(Cepstrum, NegativeStatusFromBeforeLeavesTheFixedOutputUnwritten) {
    support::CapturedReports reports;
    const Bank bank = design(requests[0]);
    std::vector<short> in = words(randomSpectrum(257, 1)), out(13, 99);
    KTSetStatus(KT_StsBadArg);
    KTwCepstralMFCC(bank.get(), in.data(), out.data(), 13, 1, 0, 0, KT_Saturate, nullptr);
    EXPECT_EQ(out, std::vector<short>(13, 99));
    ASSERT_EQ(reports.count(), 2u);
    EXPECT_EQ(reports[0].function, "KTsCepstralMFCC");
    EXPECT_EQ(reports[1].function, "KTwCepstralMFCC");
    EXPECT_EQ(reports[1].status, KT_StsBacktrace);
}

TEST(Cepstrum, BanksFromOddFrequenciesStayInsideTheArrays) {
    // the last filter is the lowest
    const oracle::MelRequest odd[] = {
        {6, 10, 7900, 100, 16000, 0, 0}, {6, 10, 15000, 100, 16000, 4, 15500},
        {6, 8, 0, 4000, -8000, 3, 1000}, {6, 8, -9000, -1000, 8000, 0, 0},
        {6, 8, 0, 4000, 0, 0, 0},        {6, 8, 0, 8000, 16000, 4, 4000, 0.0f, 500.0f}};
    for (const oracle::MelRequest& request : odd) {
        const Bank bank = design(request);
        for (int flags : allFlags()) {
            Frame frame(inputFor(*bank, flags, 2u), 8);
            frame.run(bank.get(), 1.0f, flags);
            EXPECT_NE(frame.ceps[0], unwritten);
        }
    }
}

// A single filter takes the general transform, which no standing status stops.
TEST(Cepstrum, NegativeStatusFromBeforeLetsASingleFilterWriteItsCoefficient) {
    support::CapturedReports reports;
    const Bank one = design({9, 1, 0, 8000, 16000, 0, 0});
    Frame good(randomSpectrum(257, 1), 2), frame(randomSpectrum(257, 1), 2);
    good.run(one.get(), 1.0f, KT_CepsZeroth);
    EXPECT_EQ(reports.count(), 0u);
    KTSetStatus(KT_StsBadArg);
    frame.run(one.get(), 1.0f, KT_CepsZeroth);
    EXPECT_EQ(frame.ceps.values(), good.ceps.values());
    EXPECT_EQ(reports.count(), 1u);
}

TEST(Cepstrum, NullBankLeavesTheStatusAndReportsNothing) {
    support::CapturedReports reports;
    float in[4] = {1, 2, 3, 4}, out[4] = {};
    short win[4] = {1, 2, 3, 4}, wout[4] = {};
    for (int status : {KT_StsOk, KT_StsBadArg}) {
        KTSetStatus(status);
        KTsCepstralMFCC(nullptr, in, out, 4, 1.0f, KT_CepsTimeInput);
        KTwCepstralMFCC(nullptr, win, wout, 4, 1, KT_CepsTimeInput, 0, KT_Saturate, nullptr);
        KTsMelFiltering(nullptr, in, out);
        EXPECT_EQ(KTGetStatus(), status);
    }
    EXPECT_EQ(reports.count(), 0u);
}

TEST(Cepstrum, NullBankDoesNothing) {
    float in[4] = {1, 2, 3, 4}, out[4] = {5, 6, 7, 8};
    short win[4] = {1, 2, 3, 4}, wout[4] = {5, 6, 7, 8};
    KTsCepstralMFCC(nullptr, in, out, 4, 1.0f, 0);
    KTwCepstralMFCC(nullptr, win, wout, 4, 1, 0, 0, KT_Saturate, nullptr);
    EXPECT_EQ(out[0], 5.0f);
    EXPECT_EQ(wout[0], 5);
}

TEST(CepstrumDeathTest, KernelsRefusalsEndTheProcess) {
    const Bank bank = design(requests[0]), power = design(requests[1]),
               none = design({9, 0, 0, 8000, 16000, 0, 0});
    const Bank one = design({9, 1, 0, 8000, 16000, 0, 0});
    const int time = KT_CepsTimeInput | KT_CepsFilterFirst;
    std::vector<float> in(512, 1.0f), out(13);
    const auto ends = testing::ExitedWithCode(1);
    // no filter
    EXPECT_EXIT(KTsCepstralMFCC(none.get(), in.data(), out.data(), 13, 1.0f, time), ends, "");
    EXPECT_EXIT(KTsCepstralMFCC(bank.get(), in.data(), out.data(), 0, 1.0f, time), ends,
                ""); // no coefficient
    EXPECT_EXIT(KTsCepstralMFCC(bank.get(), in.data(), out.data(), -5, 1.0f, time), ends, "");
    EXPECT_EXIT(KTsCepstralMFCC(one.get(), in.data(), out.data(), 3, 1.0f, time), ends,
                ""); // none behind the zeroth
    EXPECT_EXIT(KTsCepstralMFCC(bank.get(), nullptr, out.data(), 13, 1.0f, time), ends, "");
    EXPECT_EXIT(KTsCepstralMFCC(bank.get(), nullptr, out.data(), 13, 1.0f, 0), ends, "");
    EXPECT_EXIT(KTsCepstralMFCC(bank.get(), in.data(), nullptr, 13, 1.0f, time), ends, "");
    for (int order : {-1, 32}) {
        const Bank odd = design({order, 20, 0, 8000, 16000, 0, 0});
        EXPECT_EXIT(KTsCepstralMFCC(odd.get(), in.data(), out.data(), 13, 1.0f, time), ends, "");
    }
}

TEST(Cepstrum, NoCoefficientsOfAPowerOfTwoAreNoRefusal) {
    const Bank power = design(requests[1]);
    std::vector<float> in = randomSamples(512, 1);
    for (int nCeps : {0, -1, std::numeric_limits<int>::min()}) {
        support::Guarded<float> out(1, unwritten);
        KTsCepstralMFCC(power.get(), in.data(), out.data(), nCeps, 1.0f, KT_CepsTimeInput);
        EXPECT_EQ(out[0], unwritten);
    }
}

TEST(Cepstrum, SpectrumOfABankWithoutAnOrderIsOneBin) {
    const Bank bank = design({40, 5, 0, 8000, 16000, 0, 0});
    Frame frame({100.0f}, 5);
    frame.run(bank.get(), 0.0f, KT_CepsZeroth);
    EXPECT_NEAR(frame.ceps[0], 2.0 * std::sqrt(5.0), 1e-5);
}

TEST(FreeCepsTbls, ReleasesAllThatTheThreadHolds) {
    KTFreeCepsTbls();
    const Bank bank = design(requests[0]), power = design(requests[1]);
    auto& ceps = KTGetContext()->Ceps;
    const long before = support::alloc::liveBlocks();
    std::vector<short> in = words(randomSamples(512, 1)), out(13);
    for (const Bank* each : {&bank, &power})
        KTwCepstralMFCC(each->get(), in.data(), out.data(), 13, 1, KT_CepsTimeInput, 0, KT_Saturate,
                        nullptr);
    EXPECT_GT(support::alloc::liveBlocks(), before);
    EXPECT_NE(ceps.fftOut, nullptr);
    KTSetMelScale(1000.0f, 500.0f);
    KTFreeCepsTbls();
    EXPECT_EQ(support::alloc::liveBlocks(), before);
    for (const void* block :
         {static_cast<void*>(ceps.filterOutput), static_cast<void*>(ceps.fftOut), ceps.spare0,
          ceps.spare1, static_cast<void*>(ceps.tempVect), static_cast<void*>(ceps.tempCeps),
          static_cast<void*>(ceps.filterDctInput), static_cast<void*>(ceps.filterDctOutput),
          ceps.spare2, ceps.spare3, ceps.spare4})
        EXPECT_EQ(block, nullptr);
    EXPECT_EQ(ceps.fftLen, 0);
    EXPECT_EQ(ceps.nFilters, 0);
    EXPECT_EQ(ceps.nCeps, 0);
    EXPECT_EQ(ceps.melMul, 1000.0f);
    EXPECT_EQ(ceps.melDiv, 500.0f);

    std::vector<short> again(13);
    KTwCepstralMFCC(power.get(), in.data(), again.data(), 13, 1, KT_CepsTimeInput, 0, KT_Saturate,
                    nullptr);
    EXPECT_EQ(again, out);
    KTFreeCepsTbls();
}

TEST(FreeCepsTbls, OnAThreadWithoutBuffersOrTwiceIsHarmless) {
    std::thread([] {
        KTFreeCepsTbls();
        KTFreeCepsTbls();
    }).join();
}

TEST(Cepstrum, ThreadsDoNotShareBuffers) {
    const std::vector<float> samples = randomSamples(512, 1);
    std::vector<std::vector<float>> results(4);
    std::vector<std::thread> threads;
    std::atomic<int> running = 4;
    std::mutex oneAtATime; // the release is for quiet moments
    for (auto& result : results)
        threads.emplace_back([&] {
            const Bank bank = design(requests[0]);
            for (int round = 0; round < 200; ++round) {
                Frame frame(samples, 13);
                frame.run(bank.get(), 1.0f, KT_CepsTimeInput | KT_CepsFilterFirst);
                result = frame.ceps.values();
            }
            for (float** buffer :
                 {&KTGetContext()->Ceps.filterOutput, &KTGetContext()->Ceps.fftOut})
                EXPECT_NE(*buffer, nullptr);
            for (--running; running != 0;)
                std::this_thread::yield();
            const std::lock_guard lock(oneAtATime);
            KTFreeCepsTbls();
        });
    for (std::thread& thread : threads)
        thread.join();
    for (const auto& result : results)
        EXPECT_EQ(result, results[0]);
}

TEST(Liftering, WeightsAreOneAndTwelveForTwentyTwo) {
    support::Guarded<float> row(12, 1.0f);
    KTsLiftering(row.data(), 12, 22);
    EXPECT_EQ(row[0], 1.0f);
    EXPECT_EQ(row[11], 12.0f);
    EXPECT_TRUE(row.intact());
}

TEST(Liftering, IsTheFormulaForAnyLength) {
    for (int L : {1, 2, 22, -7, 1000})
        for (int n : {1, 2, 13, 700}) {
            const std::vector<float> in = randomSpectrum(std::size_t(n), 5);
            support::Guarded<float> row(in);
            KTsLiftering(row.data(), n, L);
            EXPECT_TRUE(row.intact());
            for (int i = 0; i < n; ++i) {
                const double x = double(in[std::size_t(i)]);
                const double exact = x * (1 + 0.5 * L * std::sin(i * 3.14159265358979323846 / L));
                EXPECT_NEAR(row[std::size_t(i)], exact,
                            std::abs(exact) * 0x1p-23 + std::abs(x * L) * 0x1p-40);
            }
        }
}

TEST(Liftering, NothingToDo) {
    float row[2] = {3.0f, 4.0f};
    short words[2] = {3, 4};
    for (int n : {0, -1}) {
        KTsLiftering(row, n, 22);
        KTwLiftering(words, n, 22);
    }
    KTsLiftering(row, 2, 0);
    KTwLiftering(words, 2, 0);
    EXPECT_EQ(row[1], 4.0f);
    EXPECT_EQ(words[1], 4);
}

TEST(Liftering, FixedPointTruncatesTheFloatResult) {
    for (int n : {1, 13, 255, 256, 257, 1000}) {
        std::mt19937 random(7);
        std::uniform_int_distribution<int> value(-2000, 2000);
        std::vector<short> in(static_cast<std::size_t>(n));
        for (short& x : in)
            x = short(value(random));
        std::vector<float> floats(in.begin(), in.end());
        KTsLiftering(floats.data(), n, 22);
        support::Guarded<short> row(in);
        support::alloc::arm(1); // and needs no memory
        KTwLiftering(row.data(), n, 22);
        EXPECT_FALSE(support::alloc::failed());
        support::alloc::disarm();
        EXPECT_TRUE(row.intact());
        for (std::size_t i = 0; i < in.size(); ++i)
            EXPECT_EQ(row[i], short(std::trunc(floats[i]))) << i;
    }
}

TEST(Liftering, FixedPointTruncatesTowardZeroAndDoesNotSaturate) {
    // weights for L = 4: 1, 1 + 2 sin(pi/4), 3
    short row[] = {-7, -7, 7, 32000};
    KTwLiftering(row, 3, 4);
    EXPECT_EQ(row[0], -7);
    EXPECT_EQ(row[1], -16); // -16.899
    EXPECT_EQ(row[2], 21);
    short large[] = {0, 0, 30000};
    KTwLiftering(large, 3, 4);
    EXPECT_EQ(large[2], std::numeric_limits<short>::min()); // 90000 does not fit
}

// --- recorded speech ---

namespace {

constexpr char recordings[] = KTL_SPEECH;

// The samples of a 16-bit mono WAV file whose data chunk comes last.
std::vector<short> readWav(const std::string& path) {
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) return {};
    std::vector<unsigned char> bytes(std::filesystem::file_size(path));
    bytes.resize(std::fread(bytes.data(), 1, bytes.size(), file));
    std::fclose(file);
    std::vector<short> samples;
    for (std::size_t at = 44; at + 1 < bytes.size(); at += 2)
        samples.push_back(static_cast<short>(bytes[at] | bytes[at + 1] << 8));
    return samples;
}

std::vector<std::vector<short>> someSpeech() {
    std::vector<std::vector<short>> all;
    for (const char* speaker : {"george", "jackson", "nicolas", "theo"})
        for (int digit = 0; digit < 10; digit += 3) {
            const std::string name = std::to_string(digit) + "_" + speaker + "_7.wav";
            std::vector<short> samples = readWav(std::string(recordings) + "/" + name);
            if (samples.size() >= 256) all.push_back(std::move(samples));
        }
    return all;
}

// Frames of 256 samples (32 ms) every 80, as words.
template <class Body>
void forEachFrame(const std::vector<std::vector<short>>& speech, Body body) {
    for (const std::vector<short>& samples : speech)
        for (std::size_t at = 0; at + 256 <= samples.size(); at += 240)
            body(std::vector<short>(samples.begin() + std::ptrdiff_t(at),
                                    samples.begin() + std::ptrdiff_t(at) + 256));
}

} // namespace

TEST(FrontEnd, FloatOnRecordedSpeechIsThePlainComputation) {
    const auto speech = someSpeech();
    if (speech.empty()) GTEST_SKIP() << "no recordings at \"" << recordings << '"';
    for (int nFilters : {24, 32}) {
        const oracle::MelRequest request{8, nFilters, 64, 3800, 8000, 8, 1000};
        const Bank bank = design(request);
        const oracle::MelBank plain = oracle::designMelBank(request);
        for (int first : {0, KT_CepsFilterFirst}) {
            const int flags = KT_CepsTimeInput | KT_CepsThreshold | KT_CepsZeroth | first;
            const float floor = first != 0 ? 1.0f : 1e4f;
            int frames = 0, tight = 0;
            forEachFrame(speech, [&](const std::vector<short>& words16) {
                std::vector<float> samples(words16.begin(), words16.end());
                std::vector<float> emphasised(256);
                emphasised[0] = samples[0];
                // what the pre-emphasis gives, rounded as it rounds
                for (std::size_t i = 1; i < 256; ++i)
                    emphasised[i] = samples[i] - 0.97f * samples[i - 1];
                KTsPreemphasize(samples.data(), 0.97f, 256);
                Frame frame(samples, 13);
                frame.run(bank.get(), floor, flags);
                const auto expected =
                    oracle::cepstrum(plain, emphasised, asRequest(flags, 13, floor));
                expectNear(frame.ceps, expected);
                ++frames;
                tight += std::all_of(expected.begin(), expected.end(),
                                     [](auto& c) { return c.error < 2e-2; });
            });
            EXPECT_GT(frames, 100);
            EXPECT_GT(tight, frames * 9 / 10); // the bounds are no licence
        }
    }
}

TEST(FrontEnd, FixedPointOnRecordedSpeechIsThePlainComputationTruncated) {
    const auto speech = someSpeech();
    if (speech.empty()) GTEST_SKIP() << "no recordings at \"" << recordings << '"';
    const oracle::MelRequest request{8, 24, 64, 3800, 8000, 8, 1000};
    const Bank bank = design(request);
    const oracle::MelBank plain = oracle::designMelBank(request);
    const int flags = KT_CepsTimeInput | KT_CepsThreshold | KT_CepsFilterFirst;
    int frames = 0;
    forEachFrame(speech, [&](std::vector<short> samples) {
        const std::vector<short> original = samples;
        int scale = 0;
        KTwPreemphasize(samples.data(), 0.97f, 256, KT_Saturate, &scale);
        std::vector<float> emphasised(256);
        emphasised[0] = original[0];
        for (std::size_t i = 1; i < 256; ++i) { // Q14, rounded toward minus infinity
            const int sum = (int{original[i]} * 16384 - 15892 * int{original[i - 1]}) >> 14;
            emphasised[i] = float(std::clamp(sum, -32768, 32767));
        }
        support::Guarded<short> out(13, 0);
        scale = -10;
        KTwCepstralMFCC(bank.get(), samples.data(), out.data(), 13, 1, flags, 0, KT_FixedScale,
                        &scale);
        EXPECT_TRUE(out.intact());
        EXPECT_EQ(scale, -10);
        const auto expected = oracle::cepstrum(plain, emphasised, asRequest(flags, 13, 1.0f));
        for (std::size_t i = 0; i < 13; ++i) // less than one unit is lost by truncation
            EXPECT_NEAR(double(out[i]), expected[i].value * 1024, 1.0 + expected[i].error * 1024);
        ++frames;
    });
    EXPECT_GT(frames, 100);
}
