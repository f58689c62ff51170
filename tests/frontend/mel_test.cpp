// The mel filter bank: its design against a plain one, the filtering, oddities, failures.
#include "frame/context.h"
#include "frontend/mel.h"
#include "ktlp6.h"
#include "oracle/mel_reference.h"
#include "support/alloc_faults.h"
#include "support/every_level.h"
#include "support/guarded.h"
#include "support/reports.h"

#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <memory>
#include <random>
#include <thread>

namespace {

struct Release {
    void operator()(KTMFCCFilters* filters) const { KTsFreeMFCCFilters(filters); }
};
using Bank = std::unique_ptr<KTMFCCFilters, Release>;

// A thread of its own, so that nothing of another test's mel scale is left.
template <class Body>
void onFreshThread(Body body) {
    std::thread(body).join();
}

Bank design(const oracle::MelRequest& r) {
    KTSetMelScale(r.melMul, r.melDiv);
    return Bank(KTsMFCCInit(r.fftOrder, r.nFilters, r.lowFreq, r.highFreq, r.sampleFreq, r.nLinear,
                            r.linearTop));
}

// Weights of each filter, read the way filtering reads them.
std::vector<std::vector<float>> weightsOf(const KTMFCCFilters& bank) {
    std::vector<std::vector<float>> rows;
    const float* next = bank.FilWeight;
    for (int i = 0; i < bank.nFilters; ++i) {
        rows.emplace_back(next, next + bank.FilLength[i]);
        next += bank.FilLength[i];
    }
    return rows;
}

void expectAsDesigned(const KTMFCCFilters& bank, const oracle::MelBank& plain) {
    EXPECT_EQ(bank.fftOrder, plain.fftOrder);
    EXPECT_EQ(bank.fftLen, plain.fftLen);
    EXPECT_EQ(bank.nFilters, plain.nFilters);
    EXPECT_EQ(bank.firstBin, plain.firstBin);
    EXPECT_EQ(bank.lastBin, plain.lastBin);
    EXPECT_EQ(bank.commonLen, plain.commonLen);
    EXPECT_EQ(bank.nCommon, plain.nCommon);
    EXPECT_EQ(bank.dctOrder, plain.dctOrder);
    EXPECT_EQ(std::vector<int>(bank.disFft, bank.disFft + bank.nFilters), plain.bin);
    EXPECT_EQ(weightsOf(bank), plain.weights);
    EXPECT_EQ(std::vector<float>(bank.dctIn, bank.dctIn + 2 * bank.nFilters), plain.twiddles);
}

std::vector<float> randomSpectrum(std::size_t n, unsigned seed) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> value(-10.0f, 100.0f);
    std::vector<float> spectrum(n);
    for (float& x : spectrum)
        x = value(random);
    return spectrum;
}

std::vector<oracle::Bounded> exact(const std::vector<float>& spectrum) {
    std::vector<oracle::Bounded> bins;
    for (float x : spectrum)
        bins.push_back({double(x), 0.0});
    return bins;
}

// The filters that usual recognisers use, and shapes at the edges of the design.
const oracle::MelRequest requests[] = {
    {9, 26, 0, 8000, 16000, 0, 0},       {8, 24, 64, 4000, 8000, 0, 0},
    {9, 32, 0, 8000, 16000, 10, 1000},   {8, 20, 100, 4000, 8000, 10, 1000},
    {10, 40, 133, 6855, 16000, 0, 0},    {10, 40, 133, 6855, 16000, 13, 1000},
    {8, 64, 0, 4000, 8000, 0, 0},        {6, 40, 0, 4000, 8000, 20, 1000},
    {5, 32, 0, 4000, 8000, 0, 0},        {9, 16, 0, 16000, 16000, 0, 0},
    {9, 16, 300, 3400, 16000, 16, 2000}, {9, 1, 300, 3400, 16000, 0, 0},
    {9, 1, 300, 3400, 16000, 1, 1000},   {9, 2, 0, 8000, 16000, 0, 0},
    {3, 5, 0, 4000, 8000, 2, 500},       {1, 4, 0, 4000, 8000, 0, 0},
    {0, 4, 0, 4000, 8000, 0, 0},         {9, 26, 4000, 100, 16000, 0, 0},
    {9, 26, 8000, 16000, 16000, 0, 0},   {12, 80, 20, 7600, 16000, 0, 0},
    {9, 26, 0, 8000, 0, 0, 0},           {8, 20, 0, 4000, 8000, 5, 8000},
    {9, 26, 0, 8000, -16000, 4, 1000},   {9, 26, 0, 8000, 16000, 26, 8000},
};

} // namespace

TEST(MelDesign, IsThatOfThePlainLoops) {
    for (const oracle::MelRequest& request : requests) {
        SCOPED_TRACE(&request - requests);
        const Bank bank = design(request);
        ASSERT_NE(bank, nullptr);
        expectAsDesigned(*bank, oracle::designMelBank(request));
    }
}

TEST(MelDesign, IsThatOfThePlainLoopsForRandomRequests) {
    std::mt19937 random(20260101);
    const auto upTo = [&](int n) { return std::uniform_int_distribution<int>(0, n)(random); };
    for (int trial = 0; trial < 1500; ++trial) {
        const int sampleFreq = 8000 * (1 + upTo(1)), low = upTo(1000);
        const oracle::MelRequest request{upTo(10),
                                         1 + upTo(70),
                                         low,
                                         low + 200 + upTo(sampleFreq - low),
                                         sampleFreq,
                                         upTo(1) * upTo(40),
                                         upTo(3000),
                                         1000.0f + float(upTo(2000)),
                                         300.0f + float(upTo(1000))};
        SCOPED_TRACE(trial);
        const Bank bank = design(request);
        ASSERT_NE(bank, nullptr);
        expectAsDesigned(*bank, oracle::designMelBank(request));
        if (HasFailure()) break;
    }
}

TEST(MelDesign, ThreadThatNeverSetAScaleUses2595And700) {
    onFreshThread([] {
        const Bank bank(KTsMFCCInit(9, 26, 0, 8000, 16000, 0, 0));
        expectAsDesigned(*bank,
                         oracle::designMelBank({9, 26, 0, 8000, 16000, 0, 0, 2595.0f, 700.0f}));
        EXPECT_EQ(KTGetContext()->Ceps.melMul, 2595.0f);
        EXPECT_EQ(KTGetContext()->Ceps.melDiv, 700.0f);
    });
}

TEST(MelDesign, DivisorAloneDecidesAboutTheDefaults) {
    onFreshThread([] {
        KTSetMelScale(1127.0f, 0.0f); // overwritten with both defaults
        const Bank bank(KTsMFCCInit(9, 26, 0, 8000, 16000, 0, 0));
        expectAsDesigned(*bank, oracle::designMelBank({9, 26, 0, 8000, 16000, 0, 0}));
        EXPECT_EQ(KTGetContext()->Ceps.melMul, 2595.0f);

        KTSetMelScale(0.0f, 650.0f); // stays, and gives edges that are not numbers
        const Bank odd(KTsMFCCInit(6, 3, 0, 8000, 16000, 0, 0));
        EXPECT_EQ(KTGetContext()->Ceps.melMul, 0.0f);
        EXPECT_EQ(KTGetContext()->Ceps.melDiv, 650.0f);
        ASSERT_NE(odd, nullptr);
        for (const auto& row : weightsOf(*odd))
            for (float weight : row)
                EXPECT_TRUE(std::isnan(weight));
    });
}

TEST(MelDesign, ScaleOfOneThreadIsNotAnothers) {
    KTSetMelScale(1000.0f, 500.0f);
    onFreshThread([] { EXPECT_EQ(KTGetContext()->Ceps.melMul, 0.0f); });
}

TEST(MelDesign, ScaleThatIsNotANumberInTheLinearPartStaysInsideTheArrays) {
    onFreshThread([] {
        KTSetMelScale(0.0f, 650.0f);
        const Bank bank(KTsMFCCInit(6, 12, 0, 8000, 16000, 6, 4000));
        ASSERT_NE(bank, nullptr);
        EXPECT_GT(bank->nCommon, 0);
        for (int i = 0; i < bank->nCommon; ++i)
            EXPECT_EQ(bank->FilLength[i], bank->commonLen);
        support::Guarded<float> out(12);
        const std::vector<float> spectrum = randomSpectrum(64, 1);
        KTsMelFiltering(bank.get(), spectrum.data(), out.data());
        EXPECT_TRUE(out.intact());
    });
}

TEST(MelDesign, EachFiltersWeightsAddUpToOne) {
    for (const oracle::MelRequest& request : requests) {
        SCOPED_TRACE(&request - requests);
        const Bank bank = design(request);
        for (const auto& row : weightsOf(*bank)) {
            double sum = 0.0;
            for (float weight : row)
                sum += double(weight);
            // each weight is rounded twice, by half a unit in the last place of numbers that add up
            // to 1
            EXPECT_NEAR(sum, 1.0, 2 * 0x1p-24);
        }
    }
}

TEST(MelDesign, NarrowFilterBehindTheCommonOnesTakesTheNearestBin) {
    const oracle::MelRequest request{5, 32, 0, 4000, 8000, 0, 0};
    const Bank bank = design(request);
    const oracle::MelBank plain = oracle::designMelBank(request);
    const double binStep = 8000.0 / 31;
    int narrow = 0;
    for (std::size_t i = 0; i < 32; ++i) {
        if (plain.nInside[i] > 0) continue;
        ++narrow;
        ASSERT_EQ(bank->FilLength[i], 1);
        EXPECT_EQ(weightsOf(*bank)[i][0], 1.0f);
        const double off = std::abs(bank->disFft[i] * binStep - plain.centre[i]);
        for (int b = 0; b < 32; ++b)
            EXPECT_LE(off, std::abs(b * binStep - plain.centre[i]));
    }
    EXPECT_GT(narrow, 5);
}

TEST(MelDesign, NarrowFilterAmongTheCommonOnesTakesItsNeighboursBin) {
    const oracle::MelRequest request{6, 40, 100, 4000, 8000, 20, 1000};
    const Bank bank = design(request);
    const oracle::MelBank plain = oracle::designMelBank(request);
    ASSERT_GT(bank->commonLen, 0);
    int narrow = 0;
    for (int i = 0; i < bank->nCommon; ++i) {
        EXPECT_EQ(bank->FilLength[i], bank->commonLen);
        if (plain.nInside[std::size_t(i)] > 0) continue;
        ++narrow;
        EXPECT_EQ(bank->disFft[i], i > 0 ? bank->disFft[i - 1] : 0);
        EXPECT_EQ(weightsOf(*bank)[std::size_t(i)][0], 1.0f);
    }
    EXPECT_GT(narrow, 5);
}

TEST(MelDesign, LoneBinOnTheLeftEdgeTakesTheWholeWeight) {
    const oracle::MelRequest request{8, 120, 0, 4000, 8000, 0, 0};
    const Bank bank = design(request);
    ASSERT_EQ(oracle::designMelBank(request).nInside[0], 1); // bin 0, at 0 Hz
    EXPECT_EQ(bank->disFft[0], 0);
    EXPECT_EQ(bank->FilLength[0], 1);
    EXPECT_EQ(bank->FilWeight[0], 1.0f);
}

TEST(MelDesign, NoBinAtAllInTheLinearPartLeavesNoCommonLength) {
    const oracle::MelRequest request{3, 4, 10, 60, 8000, 2, 30}; // bins are 1143 Hz apart
    const Bank bank = design(request);
    expectAsDesigned(*bank, oracle::designMelBank(request));
    EXPECT_EQ(bank->commonLen, 0);
    EXPECT_EQ(bank->nCommon, 0);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(bank->FilLength[i], 1);
}

TEST(MelDesign, LinearCountIsCutToTheFilters) {
    const Bank cut = design({9, 12, 100, 4000, 16000, 500, 1000});
    expectAsDesigned(*cut, oracle::designMelBank({9, 12, 100, 4000, 16000, 12, 1000}));
}

TEST(MelDesign, AllLinearJoinsOneMelStep) {
    const oracle::MelRequest request{10, 6, 100, 4000, 16000, 6, 1300};
    const Bank bank = design(request);
    const auto mel = [](double f) { return 2595.0 * std::log10(1 + f / 700.0); };
    const double step = (mel(4000) - mel(1300)) / 0.5; // no mel filters: 0.5 * 0 + 0.5
    const double right = 700.0 * (std::pow(10.0, (mel(100 + 6 * 200.0) + 0.5 * step) / 2595.0) - 1);
    const double binStep = 16000.0 / 1023;
    EXPECT_EQ(bank->disFft[5], int(std::ceil(1100 / binStep)));
    EXPECT_EQ(bank->lastBin, int(std::ceil(right / binStep)) - 1);
}

TEST(MelDesign, LinearTopAtOrBelowLowFreqMeansNoLinearPart) {
    for (int top : {0, 99, 100}) {
        const Bank bank = design({9, 20, 100, 4000, 8000, 10, top});
        expectAsDesigned(*bank, oracle::designMelBank({9, 20, 100, 4000, 8000, 0, 0}));
        EXPECT_EQ(bank->nCommon, 0);
        EXPECT_EQ(bank->commonLen, 0);
    }
}

TEST(MelDesign, NegativeLinearCountMeansNoLinearPart) {
    const Bank bank = design({9, 20, 100, 4000, 8000, -3, 1000});
    expectAsDesigned(*bank, oracle::designMelBank({9, 20, 100, 4000, 8000, 0, 0}));
}

TEST(MelDesign, LastBinStandsForTheSamplingFrequency) {
    // fftLen - 1 steps up to sampleFreq: a filter around exactly that frequency holds the last bin
    const Bank bank = design({8, 1, 0, 16000, 8000, 0, 0});
    EXPECT_EQ(bank->lastBin, 255);
    const Bank below = design({8, 1, 0, 7999, 8000, 0, 0});
    EXPECT_EQ(below->lastBin, 254);
}

TEST(MelDesign, DctOrderIsThatOfPowersOfTwoOnly) {
    const std::pair<int, int> expected[] = {{1, 0},  {2, 1},  {24, 0}, {31, 0},
                                            {32, 5}, {33, 0}, {64, 6}};
    for (const auto& [nFilters, order] : expected)
        EXPECT_EQ(design({9, nFilters, 0, 8000, 16000, 0, 0})->dctOrder, order) << nFilters;
}

TEST(MelDesign, FixedPointInitGivesTheSameBank) {
    KTSetMelScale(0.0f, 0.0f);
    KTMFCCFilters* bank = KTwMFCCInit(9, 32, 0, 8000, 16000, 10, 1000);
    ASSERT_NE(bank, nullptr);
    expectAsDesigned(*bank, oracle::designMelBank({9, 32, 0, 8000, 16000, 10, 1000}));
    KTwFreeMFCCFilters(bank);
}

TEST(MelDesign, FreeTakesNull) {
    KTsFreeMFCCFilters(nullptr);
    KTwFreeMFCCFilters(nullptr);
}

TEST(MelDesign, NoFiltersGiveABankThatDoesNothing) {
    for (int nFilters : {0, -1, std::numeric_limits<int>::min()}) {
        const Bank bank = design({9, nFilters, 0, 8000, 16000, 4, 1000});
        ASSERT_NE(bank, nullptr);
        EXPECT_EQ(bank->nFilters, 0);
        EXPECT_EQ(bank->dctOrder, 0);
        support::Guarded<float> out(1, 7.0f);
        const std::vector<float> spectrum(257, 1.0f);
        KTsMelFiltering(bank.get(), spectrum.data(), out.data());
        EXPECT_EQ(out[0], 7.0f);
    }
}

TEST(MelDesign, OrdersThatAreNoneGiveFiltersOverTheFirstBin) {
    for (int order :
         {-1, 32, 1000, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
        const Bank bank = design({order, 5, 0, 8000, 16000, 2, 1000});
        ASSERT_NE(bank, nullptr);
        EXPECT_EQ(bank->fftOrder, order);
        EXPECT_EQ(bank->nReached, 1);
        const float bin = 3.0f;
        support::Guarded<float> out(5);
        KTsMelFiltering(bank.get(), &bin, out.data());
        EXPECT_EQ(out.values(), std::vector<float>(5, 3.0f));
        EXPECT_TRUE(out.intact());
    }
}

TEST(MelDesign, OddFrequenciesEndAndStayInside) {
    const int big = std::numeric_limits<int>::max(), small = std::numeric_limits<int>::min();
    const oracle::MelRequest odd[] = {
        {6, 10, big, small, big, 5, small},
        {6, 10, small, big, 8000, 5, big},
        {6, 10, -5000, -1000, 8000, 0, 0},
        {6, 10, 0, 4000, small, 5, 1000},
        {6, 10, 0, 0, 0, 0, 0},
        {6, 10, 4000, 4000, 8000, 10, 4001},
    };
    for (const oracle::MelRequest& request : odd) {
        SCOPED_TRACE(&request - odd);
        const Bank bank = design(request);
        ASSERT_NE(bank, nullptr);
        ASSERT_LE(bank->nReached, 64);
        support::Guarded<float> out(10);
        const std::vector<float> spectrum = randomSpectrum(std::size_t(bank->nReached), 3);
        KTsMelFiltering(bank.get(), spectrum.data(), out.data());
        EXPECT_TRUE(out.intact());
    }
}

TEST(MelDesign, VeryManyFiltersOverFewBinsStayInsideTheWeights) {
    const oracle::MelRequest request{4, 3000, 0, 4000, 8000, 0, 0};
    expectAsDesigned(*design(request), oracle::designMelBank(request));
    const oracle::MelRequest linear{4, 3000, 0, 4000, 8000, 2000, 3000};
    expectAsDesigned(*design(linear), oracle::designMelBank(linear));
}

TEST(MelDesign, EveryAllocationReportsItsNameAndNothingLeaks) {
    const char* const names[] = {
        "filters",         "tempFilter",         "filters->dctIn",     "filters->dctSrc",
        "filters->dctOut", "filters->FilLength", "filters->FilWeight", "filters->disFft",
        "filters->adrFft"};
    KTSetMelScale(0.0f, 0.0f);
    support::CapturedReports reports;
    const long before = support::alloc::liveBlocks();
    KTMFCCFilters* bank = nullptr;
    std::size_t failing = 0;
    const int failures = support::alloc::failEach(
        [&] { bank = KTsMFCCInit(9, 26, 0, 8000, 16000, 5, 600); },
        [&] {
            EXPECT_EQ(bank, nullptr);
            EXPECT_EQ(support::alloc::liveBlocks(), before);
            ASSERT_LT(failing, std::size(names));
            ASSERT_EQ(reports.count(), 1u);
            EXPECT_EQ(reports[0].status, KT_StsNoMem);
            EXPECT_EQ(reports[0].function, "KTsMFCCInit");
            EXPECT_EQ(reports[0].source, "..\\_LIBSRC\\KT_CEPS");
            EXPECT_EQ(reports[0].message,
                      std::string("insufficiency of memory for pointer  ") + names[failing++]);
            EXPECT_EQ(KTGetStatus(), KT_StsNoMem);
            reports.clear();
        });
    EXPECT_EQ(failures, int(std::size(names)));
    ASSERT_NE(bank, nullptr);
    KTsFreeMFCCFilters(bank);
    EXPECT_EQ(support::alloc::liveBlocks(), before);
}

TEST(MelDesign, FixedPointInitAddsABacktrace) {
    support::CapturedReports reports;
    const long before = support::alloc::liveBlocks();
    support::alloc::arm(1);
    EXPECT_EQ(KTwMFCCInit(9, 26, 0, 8000, 16000, 0, 0), nullptr);
    support::alloc::disarm();
    ASSERT_EQ(reports.count(), 2u);
    EXPECT_EQ(reports[0].function, "KTsMFCCInit");
    EXPECT_EQ(reports[1].status, KT_StsBacktrace);
    EXPECT_EQ(reports[1].function, "KTwMFCCInit");
    EXPECT_EQ(reports[1].message, "");
    EXPECT_EQ(reports[1].source, "..\\_LIBSRC\\KT_CEPS");
    EXPECT_EQ(KTGetStatus(), KT_StsNoMem);

    reports.clear();
    KTSetStatus(KT_StsBadArg); // an old failure is enough
    EXPECT_EQ(KTwMFCCInit(9, 26, 0, 8000, 16000, 0, 0), nullptr);
    ASSERT_EQ(reports.count(), 1u);
    EXPECT_EQ(reports[0].status, KT_StsBacktrace);
    EXPECT_EQ(support::alloc::liveBlocks(), before);
}

TEST(MelDesign, TransformOfOrder31IsMoreThanThereIsMemoryFor) {
    support::CapturedReports reports;
    EXPECT_EQ(KTsMFCCInit(31, 4, 0, 8000, 16000, 0, 0), nullptr);
    ASSERT_EQ(reports.count(), 1u);
    EXPECT_EQ(reports[0].message, "insufficiency of memory for pointer  filters->FilWeight");
    EXPECT_EQ(reports[0].status, KT_StsNoMem);
}

TEST(MelFiltering, GivesTheOrderedSumsOnEveryLevel) {
    for (const oracle::MelRequest& request : requests) {
        SCOPED_TRACE(&request - requests);
        const Bank bank = design(request);
        const oracle::MelBank plain = oracle::designMelBank(request);
        const auto n = std::size_t(request.nFilters);
        const std::vector<float> whole = randomSpectrum(std::size_t(bank->fftLen), 7);
        const auto expected = oracle::melFilter(plain, exact(whole));
        // what lies behind the filters' bins belongs to somebody else
        const auto spectrum = std::make_unique<float[]>(std::size_t(bank->nReached));
        std::copy_n(whole.begin(), bank->nReached, spectrum.get());
        std::vector<float> first;
        support::onEveryLevel([&] {
            support::Guarded<float> out(n);
            KTsMelFiltering(bank.get(), spectrum.get(), out.data());
            EXPECT_TRUE(out.intact());
            for (std::size_t i = 0; i < n; ++i) {
                EXPECT_NEAR(double(out[i]), expected[i].value, expected[i].error) << i;
                EXPECT_EQ(bank->adrFft[i], spectrum.get() + bank->disFft[i]);
            }
            if (first.empty()) first = out.values();
            EXPECT_EQ(out.values(), first);
        });
    }
}

TEST(MelFiltering, StaysWithinOneUlpOfTheOrderedSum) {
    for (const oracle::MelRequest& request : {requests[0], requests[2], requests[4]}) {
        const Bank bank = design(request);
        const oracle::MelBank plain = oracle::designMelBank(request);
        std::vector<float> spectrum = randomSpectrum(std::size_t(bank->fftLen), 11);
        for (float& x : spectrum)
            x = std::abs(x);
        std::vector<float> out(std::size_t(request.nFilters));
        KTsMelFiltering(bank.get(), spectrum.data(), out.data());
        for (std::size_t i = 0; i < out.size(); ++i) {
            long double sum = 0.0L;
            for (std::size_t j = 0; j < plain.weights[i].size(); ++j)
                sum += static_cast<long double>(spectrum[std::size_t(plain.bin[i]) + j]) *
                       plain.weights[i][j];
            const float rounded = static_cast<float>(sum);
            EXPECT_GE(out[i], std::nextafter(rounded, 0.0f));
            EXPECT_LE(out[i], std::nextafter(rounded, 1e30f));
        }
    }
}

TEST(MelFiltering, InfiniteBinReachesOnlyTheFiltersThatHaveIt) {
    support::onEveryLevel([] {
        const oracle::MelRequest request{9, 26, 0, 8000, 16000, 0, 0};
        const Bank bank = design(request);
        const oracle::MelBank plain = oracle::designMelBank(request);
        std::vector<float> spectrum = randomSpectrum(512, 5);
        for (const float odd :
             {-std::numeric_limits<float>::infinity(), std::numeric_limits<float>::quiet_NaN()}) {
            for (int bin = 0; bin < bank->nReached; bin += 3) {
                const float old = std::exchange(spectrum[std::size_t(bin)], odd);
                support::Guarded<float> out(26);
                KTsMelFiltering(bank.get(), spectrum.data(), out.data());
                for (std::size_t i = 0; i < 26; ++i) {
                    const int place = bin - plain.bin[i];
                    const bool has = place >= 0 && place < int(plain.weights[i].size());
                    EXPECT_EQ(std::isfinite(out[i]), !has) << bin << ' ' << i;
                    if (has && std::isinf(odd) && plain.weights[i][std::size_t(place)] > 0.0f) {
                        EXPECT_EQ(out[i], odd);
                    }
                }
                spectrum[std::size_t(bin)] = old;
            }
        }
    });
}

TEST(MelFiltering, NullArgumentsDoNothing) {
    const Bank bank = design(requests[0]);
    float out[26] = {4.0f};
    const float spectrum[512] = {};
    KTsMelFiltering(nullptr, spectrum, out);
    KTsMelFiltering(bank.get(), nullptr, out);
    KTsMelFiltering(bank.get(), spectrum, nullptr);
    EXPECT_EQ(out[0], 4.0f);
}
