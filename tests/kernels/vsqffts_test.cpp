#include "oracle/transforms.h"
#include "support/alloc_faults.h"
#include "support/every_level.h"
#include "support/guarded.h"
#include "support/kernel_reports.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

namespace {

using Floats = std::vector<float>;

constexpr int forwPerm = VSQ_Forw | VSQ_RCPerm;
constexpr int forwPack = VSQ_Forw | VSQ_RCPack;
constexpr int invPerm = VSQ_Inv | VSQ_RCPerm;
constexpr int invPack = VSQ_Inv | VSQ_RCPack;

std::size_t lengthOf(int order) {
    return std::size_t{1} << order;
}

Floats noise(int order, unsigned seed = 1) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> uniform(-1.0f, 1.0f);
    Floats x(lengthOf(order));
    for (float& value : x)
        value = uniform(random);
    return x;
}

Floats transformed(const Floats& x, int order, int flags) {
    Floats y(x.size());
    vsqsRealFftlNip(x.data(), y.data(), order, flags);
    return y;
}

// The packed spectrum, X[0], X[N/2], then pairs, in long double.
std::vector<oracle::Extended> expectedPerm(const Floats& x) {
    const auto spectrum = oracle::realSpectrum(x);
    std::vector<oracle::Extended> y{spectrum[0].real()};
    if (x.size() > 1) y.push_back(spectrum[x.size() / 2].real());
    for (std::size_t k = 1; k < x.size() / 2; ++k) {
        y.push_back(spectrum[k].real());
        y.push_back(spectrum[k].imag());
    }
    return y;
}

double relativeError(const Floats& y, const std::vector<oracle::Extended>& expected) {
    oracle::Extended difference = 0.0L, size = 0.0L;
    for (std::size_t i = 0; i < y.size(); ++i) {
        const oracle::Extended d = static_cast<oracle::Extended>(y[i]) - expected[i];
        difference += d * d;
        size += expected[i] * expected[i];
    }
    return static_cast<double>(std::sqrt(difference / size));
}

double allowedError(int order) {
    return 1.5e-7 * std::sqrt(std::max(order, 1));
}

Floats permToPack(const Floats& perm) {
    Floats pack(perm);
    if (perm.size() < 2) return pack;
    for (std::size_t i = 2; i < perm.size(); ++i)
        pack[i - 1] = perm[i];
    pack.back() = perm[1];
    return pack;
}

TEST(RealFft, OrderZeroCopies) {
    support::onEveryLevel([] {
        for (int flags : {forwPerm, forwPack, invPerm, invPack}) {
            EXPECT_EQ(transformed({-2.5f}, 0, flags), Floats{-2.5f});
            float value = 3.0f;
            vsqsRealFftl(&value, 0, flags);
            EXPECT_EQ(value, 3.0f);
        }
    });
}

TEST(RealFft, OrderOneGivesSumAndDifference) {
    support::onEveryLevel([] {
        for (int packing : {VSQ_RCPerm, VSQ_RCPack}) {
            EXPECT_EQ(transformed({3.0f, 5.0f}, 1, VSQ_Forw | packing), (Floats{8.0f, -2.0f}));
            EXPECT_EQ(transformed({8.0f, -2.0f}, 1, VSQ_Inv | packing), (Floats{3.0f, 5.0f}));
            EXPECT_EQ(transformed({8.0f, -2.0f}, 1, VSQ_Inv | VSQ_NoScale | packing),
                      (Floats{6.0f, 10.0f}));
        }
    });
}

TEST(RealFft, AnImpulseOfEightHasAllBinsOne) {
    support::onEveryLevel([] {
        const Floats impulse{1, 0, 0, 0, 0, 0, 0, 0};
        EXPECT_EQ(transformed(impulse, 3, forwPerm), (Floats{1, 1, 1, 0, 1, 0, 1, 0}));
        EXPECT_EQ(transformed(impulse, 3, forwPack), (Floats{1, 1, 0, 1, 0, 1, 0, 1}));
    });
}

TEST(RealFft, TheOraclesAgreeWithEachOther) {
    for (int order = 0; order <= 7; ++order) {
        const Floats x = noise(order);
        const std::vector<oracle::ExtendedComplex> wide(x.begin(), x.end());
        const auto slow = oracle::dft(wide), fast = oracle::fft(wide);
        for (std::size_t k = 0; k < x.size(); ++k)
            EXPECT_LT(std::abs(slow[k] - fast[k]),
                      1e-15L + 32 * std::numeric_limits<oracle::Extended>::epsilon());
    }
}

TEST(RealFft, MatchesTheReferenceForEveryOrder) {
    for (int order = 0; order <= 20; ++order) {
        const Floats x = noise(order, 7u + static_cast<unsigned>(order));
        const auto expected = expectedPerm(x);
        support::onEveryLevel([&] {
            EXPECT_LE(relativeError(transformed(x, order, forwPerm), expected), allowedError(order))
                << order;
        });
    }
}

TEST(RealFft, MatchesTheReferenceBinByBin) {
    for (int order = 2; order <= 15; ++order) {
        const Floats x = noise(order, 70u + static_cast<unsigned>(order));
        const auto expected = expectedPerm(x);
        // Every bin gathers N errors of random sign: a bound in units of the root mean square bin,
        // sqrt(N / 3).
        const double bound =
            8 * allowedError(order) * std::sqrt(static_cast<double>(x.size()) / 3.0);
        const Floats y = transformed(x, order, forwPerm);
        for (std::size_t i = 0; i < y.size(); ++i)
            ASSERT_NEAR(y[i], static_cast<double>(expected[i]), bound) << order << " at " << i;
    }
}

TEST(RealFft, TheInverseMatchesTheReferenceForEveryOrder) {
    for (int order = 0; order <= 20; ++order) {
        const Floats x = noise(order, 11u + static_cast<unsigned>(order));
        const auto wide = expectedPerm(x);
        Floats spectrum(wide.size());
        for (std::size_t i = 0; i < wide.size(); ++i)
            spectrum[i] = static_cast<float>(wide[i]);
        // The spectrum's own rounding is below 2^-24 of each bin.
        const std::vector<oracle::Extended> expected(x.begin(), x.end());
        support::onEveryLevel([&] {
            EXPECT_LE(relativeError(transformed(spectrum, order, invPerm), expected),
                      allowedError(order))
                << order;
        });
    }
}

TEST(RealFft, AllLevelsGiveTheSameBits) {
    for (int order = 0; order <= 18; ++order) {
        const Floats x = noise(order, 100u + static_cast<unsigned>(order));
        for (int flags : {forwPerm, forwPack, invPerm, invPack, invPerm | VSQ_NoScale}) {
            vsq::selectLevel(vsq::Level::baseline);
            const Floats expected = transformed(x, order, flags);
            support::onEveryLevel([&] {
                EXPECT_EQ(transformed(x, order, flags), expected) << order << " flags " << flags;
            });
        }
    }
}

TEST(RealFft, ThePackingsDifferOnlyInTheirOrder) {
    support::onEveryLevel([] {
        for (int order = 0; order <= 16; ++order) {
            const Floats x = noise(order, 5);
            const Floats perm = transformed(x, order, forwPerm);
            EXPECT_EQ(transformed(x, order, forwPack), permToPack(perm)) << order;
            EXPECT_EQ(transformed(permToPack(perm), order, invPack),
                      transformed(perm, order, invPerm))
                << order;
        }
    });
}

TEST(RealFft, InPlaceGivesTheSameBitsAndTheInputOfTheOtherStays) {
    support::onEveryLevel([] {
        for (int order = 0; order <= 16; ++order)
            for (int flags : {forwPerm, forwPack, invPerm, invPack, invPack | VSQ_NoScale}) {
                const support::Guarded<float> in(noise(order, 6));
                support::Guarded<float> out(in.size()), samps(in.values());
                vsqsRealFftlNip(in.data(), out.data(), order, flags);
                vsqsRealFftl(samps.data(), order, flags);
                EXPECT_EQ(samps.values(), out.values()) << order << " flags " << flags;
                EXPECT_EQ(in.values(), noise(order, 6));
                EXPECT_TRUE(in.intact() && out.intact() && samps.intact())
                    << order << " flags " << flags;
            }
    });
}

TEST(RealFft, ArraysNeedNoAlignment) {
    support::onEveryLevel([] {
        for (int order = 2; order <= 13; ++order) {
            const Floats x = noise(order, 8);
            Floats in(x.size() + 3), out(x.size() + 1);
            std::copy(x.begin(), x.end(), in.begin() + 3);
            vsqsRealFftlNip(in.data() + 3, out.data() + 1, order, forwPack);
            EXPECT_EQ(Floats(out.begin() + 1, out.end()), transformed(x, order, forwPack));
        }
    });
}

TEST(RealFft, ForwardAndInverseGiveTheInputBack) {
    support::onEveryLevel([] {
        for (int order = 0; order <= 18; ++order)
            for (int packing : {VSQ_RCPerm, VSQ_RCPack}) {
                const Floats x = noise(order, 9);
                Floats y = transformed(x, order, VSQ_Forw | packing);
                vsqsRealFftl(y.data(), order, VSQ_Inv | packing);
                EXPECT_LE(relativeError(y, std::vector<oracle::Extended>(x.begin(), x.end())),
                          2 * allowedError(order));
            }
    });
}

TEST(RealFft, NoScaleLeavesTheFactorOut) {
    support::onEveryLevel([] {
        for (int order = 0; order <= 16; ++order) {
            const Floats y = noise(order, 10);
            Floats scaled = transformed(y, order, invPerm | VSQ_NoScale);
            for (float& value : scaled)
                value *= 1.0f / static_cast<float>(lengthOf(order));
            EXPECT_EQ(transformed(y, order, invPerm), scaled) << order;
        }
    });
}

TEST(RealFft, ASineHasOneBin) {
    const int order = 10;
    Floats x(lengthOf(order));
    for (std::size_t i = 0; i < x.size(); ++i)
        x[i] = std::sin(2.0f * 3.14159265f * 5.0f * static_cast<float>(i) / 1024.0f);
    const Floats y = transformed(x, order, forwPerm);
    for (std::size_t i = 0; i < y.size(); ++i)
        EXPECT_NEAR(y[i], i == 11 ? -512.0f : 0.0f, 1e-3f) << i;
}

TEST(RealFft, MatchesStoredVectors) {
    std::ifstream file(KTL_SOURCE_DIR "/tests/golden/real_fft.txt");
    ASSERT_TRUE(file.is_open());
    std::string line;
    int vectors = 0;
    while (std::getline(file, line)) {
        if (line.empty() || line[0] == '#') continue;
        const int order = std::stoi(line);
        Floats x(lengthOf(order));
        std::vector<oracle::Extended> expected(x.size());
        std::getline(file, line);
        std::istringstream samples(line);
        for (float& value : x)
            samples >> value;
        std::getline(file, line);
        std::istringstream bins(line);
        for (oracle::Extended& value : expected)
            bins >> value;
        ASSERT_TRUE(samples && bins);
        support::onEveryLevel([&] {
            EXPECT_LE(relativeError(transformed(x, order, forwPerm), expected), allowedError(order))
                << order;
        });
        ++vectors;
    }
    EXPECT_EQ(vectors, 9);
}

TEST(RealFft, LongOrdersPastTheTwoLevelTables) {
    // An impulse at n has the spectrum exp(-2 pi i k n / N), of which a few bins tell.
    for (int order : {22, 23, 24}) {
        const std::size_t length = lengthOf(order), at = 1234567;
        Floats x(length);
        x[at] = 1.0f;
        vsqsRealFftl(x.data(), order, forwPerm);
        for (std::size_t k :
             {std::size_t{1}, std::size_t{2}, std::size_t{77}, length / 4, length / 2 - 1}) {
            const oracle::Extended angle =
                -2.0L * std::acos(-1.0L) * static_cast<oracle::Extended>(k * at % length) / length;
            EXPECT_NEAR(x[2 * k], static_cast<double>(std::cos(angle)), 1e-6) << order;
            EXPECT_NEAR(x[2 * k + 1], static_cast<double>(std::sin(angle)), 1e-6) << order;
        }
        vsqsRealFftl(x.data(), order, invPerm);
        x[at] -= 1.0f;
        float largest = 0.0f;
        for (float value : x)
            largest = std::max(largest, std::fabs(value));
        EXPECT_LT(largest, 1e-6f) << order;
    }
    vsqsFreeRealFftTbls();
}

// --- Init, Free, refusals ---

TEST(RealFft, InitNeedsNoPointersAndNoOtherFlags) {
    vsqsRealFftl(nullptr, 6, VSQ_Init);
    vsqsRealFftlNip(nullptr, nullptr, 6, VSQ_Init);
    vsqsRealFftl(nullptr, 0, VSQ_Init);
    EXPECT_EQ(vsqGetStatus(), 0);
}

TEST(RealFft, InitMakesTheTablesAndFreeReleasesThem) {
    vsqsFreeRealFftTbls();
    const long before = support::alloc::liveBlocks();
    vsqsRealFftl(nullptr, 9, VSQ_Init);
    EXPECT_EQ(support::alloc::liveBlocks(), before + 1);
    const Floats x = noise(9);
    transformed(x, 9, forwPerm);
    EXPECT_EQ(support::alloc::liveBlocks(), before + 1);
    vsqsRealFftl(nullptr, 9, VSQ_Free);
    EXPECT_EQ(support::alloc::liveBlocks(), before);
    // made again
    EXPECT_LE(relativeError(transformed(x, 9, forwPerm), expectedPerm(x)), allowedError(9));
    vsqsRealFftlNip(nullptr, nullptr, 9, VSQ_Free | VSQ_Forw);
    EXPECT_EQ(support::alloc::liveBlocks(), before);
}

TEST(RealFft, FreeAsksForNothingElse) {
    for (int order : {-2147483647 - 1, -1, 0, 1, 31, 32, 33, 2147483647})
        vsqsRealFftl(nullptr, order, VSQ_Free);
    EXPECT_EQ(vsqGetStatus(), 0);
}

TEST(RealFft, RefusesInTheGivenOrder) {
    struct Case {
        int order, flags;
        bool in, out;
        const char* text;
    };
    const Case cases[] = {
        {-1, 0, false, false, "order<0"},
        {-1, VSQ_Init, true, true, "order<0"},
        {32, 3, false, false, "order>31"},
        {3, 3 | 0x300, false, true, "inSamps==0"},
        {3, 3 | 0x300, true, false, "outSamps==0"},
        {3, 3 | 0x300, true, true, "(flags & 1) && (flags & 2)"},
        {3, 0x300, true, true, "(flags & 1)==0 && (flags & 2)==0"},
        {3, 1 | 0x300, true, true, "(flags & 256) && (flags & 512)"},
        {3, 2, true, true, "(flags & 256)==0 && (flags & 512)==0"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        Floats in(8, 1.0f), out(8, 2.0f);
        float* inPointer = c.in ? in.data() : nullptr;
        support::KernelReports reports;
        vsqsRealFftlNip(inPointer, c.out ? out.data() : nullptr, c.order, c.flags);
        ASSERT_EQ(reports.all().size(), 1u);
        EXPECT_EQ(reports.all()[0].status, -5);
        EXPECT_EQ(reports.all()[0].function, "vsqsRealFftlNip");
        EXPECT_EQ(reports.all()[0].source, "vsqffts");
        EXPECT_EQ(reports.takeMessage(), c.text);
        EXPECT_EQ(out, Floats(8, 2.0f));
        const std::string text = std::string(c.text) == "inSamps==0" ? "samps==0" : c.text;
        if (!c.out && c.in && c.order == 3) continue;
        vsqsRealFftl(inPointer, c.order, c.flags);
        ASSERT_EQ(reports.all().size(), 1u);
        EXPECT_EQ(reports.all()[0].function, "vsqsRealFftl");
        EXPECT_EQ(reports.takeMessage(), text);
        EXPECT_EQ(in, Floats(8, 1.0f));
    }
}

TEST(RealFftDeath, ARefusalEndsTheProcess) {
    float x[8] = {};
    EXPECT_EXIT(vsqsRealFftl(x, -1, forwPerm), testing::ExitedWithCode(1), "^$");
    EXPECT_EXIT(vsqsRealFftl(x, 32, forwPerm), testing::ExitedWithCode(1), "^$");
    EXPECT_EXIT(vsqsRealFftl(nullptr, 3, forwPerm), testing::ExitedWithCode(1), "^$");
    EXPECT_EXIT(vsqsRealFftl(x, 3, VSQ_Forw), testing::ExitedWithCode(1), "^$");
    EXPECT_EXIT(vsqsRealFftlNip(x, nullptr, 3, forwPerm), testing::ExitedWithCode(1), "^$");
    EXPECT_EXIT(
        {
            vsqsFreeRealFftTbls();
            support::alloc::arm(1);
            vsqsRealFftl(x, 3, forwPerm);
            std::_Exit(7); // the second try found memory
        },
        testing::ExitedWithCode(7), "^$");
    EXPECT_EXIT(
        {
            vsqsFreeRealFftTbls();
            support::alloc::armFrom(1);
            vsqsRealFftl(x, 3, forwPerm);
        },
        testing::ExitedWithCode(1), "^$");
}

// --- memory running out ---

TEST(RealFft, ATableIsAskedForTwice) {
    vsqsFreeRealFftTbls();
    const Floats x = noise(8);
    const Floats expected = transformed(x, 8, forwPerm);
    vsqsFreeRealFftTbls();
    const long before = support::alloc::liveBlocks();
    support::alloc::arm(1);
    const Floats y = transformed(x, 8, forwPerm);
    EXPECT_TRUE(support::alloc::failed());
    support::alloc::disarm();
    EXPECT_EQ(y, expected);
    EXPECT_EQ(support::alloc::liveBlocks(), before + 1);
    vsqsFreeRealFftTbls();
}

TEST(RealFft, ExhaustionIsReportedAfterTheSecondTry) {
    const Floats x = noise(14);
    Floats y(x.size(), 2.0f);
    const Floats untouched = y;
    for (int failFrom : {1, 2}) { // the tables; the scratch, when the tables were there
        support::KernelReports reports;
        vsqsFreeRealFftTbls();
        support::alloc::armFrom(failFrom);
        vsqsRealFftlNip(x.data(), y.data(), 14, forwPerm);
        EXPECT_GE(support::alloc::allocations(), 2);
        support::alloc::disarm();
        ASSERT_EQ(reports.all().size(), 1u);
        EXPECT_EQ(reports.all()[0].status, -4);
        EXPECT_EQ(reports.all()[0].function, "vsqsRealFftlNip");
        EXPECT_EQ(reports.all()[0].source, "vsqffts");
        EXPECT_EQ(reports.takeMessage(), "No working Twd memory");
        EXPECT_EQ(y, untouched);
        support::alloc::armFrom(1);
        vsqsRealFftl(nullptr, 20, VSQ_Init);
        support::alloc::disarm();
        EXPECT_EQ(reports.all()[0].function, "vsqsRealFftl");
        EXPECT_EQ(reports.takeMessage(), "No working Twd memory");
    }
    vsqsFreeRealFftTbls();
}

TEST(RealFft, ScratchOfLongTransformsIsKeptAndAskedForTwice) {
    vsqsFreeRealFftTbls();
    const Floats x = noise(14);
    Floats y(x.size());
    const long before = support::alloc::liveBlocks();
    vsqsRealFftlNip(x.data(), y.data(), 14, forwPerm);
    EXPECT_EQ(support::alloc::liveBlocks(), before + 2);
    const Floats expected = y;
    vsqsFreeRealFftTbls();
    EXPECT_EQ(support::alloc::liveBlocks(), before);
    const int failures = support::alloc::failEach(
        [&] {
            vsqsFreeRealFftTbls();
            vsqsRealFftlNip(x.data(), y.data(), 14, forwPerm);
        },
        [&] {
            EXPECT_EQ(y, expected);
            EXPECT_EQ(vsqGetStatus(), 0);
        });
    EXPECT_EQ(failures, 2);
    vsqsFreeRealFftTbls();
    EXPECT_EQ(support::alloc::liveBlocks(), before);
}

TEST(RealFft, ThreadsShareTheTables) {
    vsqsFreeRealFftTbls();
    const Floats x = noise(15);
    Floats expected = transformed(x, 15, forwPerm);
    vsqsFreeRealFftTbls();
    std::vector<Floats> results(8);
    std::vector<std::thread> threads;
    for (Floats& result : results)
        threads.emplace_back([&x, &result] {
            for (int i = 0; i < 5; ++i)
                result = transformed(x, 15, forwPerm);
        });
    for (std::thread& thread : threads)
        thread.join();
    for (const Floats& result : results)
        EXPECT_EQ(result, expected);
    vsqsFreeRealFftTbls();
}

} // namespace
