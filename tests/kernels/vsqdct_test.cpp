#include "oracle/transforms.h"
#include "support/alloc_faults.h"
#include "support/every_level.h"
#include "support/guarded.h"
#include "support/kernel_reports.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

namespace {

using Floats = std::vector<float>;

Floats noise(int n, float size = 1.0f) {
    std::mt19937 random(static_cast<unsigned>(n));
    std::uniform_real_distribution<float> uniform(-size, size);
    Floats x(static_cast<std::size_t>(n));
    for (float& value : x)
        value = uniform(random);
    return x;
}

Floats transformed(const Floats& x, int flags) {
    Floats y(x.size());
    vsqsDct(x.data(), y.data(), static_cast<int>(x.size()), flags);
    return y;
}

// The transform is orthonormal, so the result has the input's norm. A direct sum of n/2 terms in
// four lanes rounds each result at most n/8 + 4 times at half a unit; the errors are random, so
// their root mean square grows with the root.
double allowedError(std::size_t n) {
    return 6e-8 * (3 + std::sqrt(static_cast<double>(n) / 8.0));
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

TEST(Dct, OneElementStays) {
    support::onEveryLevel([] {
        EXPECT_EQ(transformed({2.75f}, 1), Floats{2.75f});
        EXPECT_EQ(transformed({2.75f}, 2), Floats{2.75f});
    });
}

TEST(Dct, TwoAndThreeElementsAgreeWithTheFormula) {
    support::onEveryLevel([] {
        const Floats two = transformed({1.0f, 3.0f}, 1);
        EXPECT_NEAR(two[0], 4.0 / std::sqrt(2.0), 4e-7);
        EXPECT_NEAR(two[1], -2.0 / std::sqrt(2.0), 2e-7);
        const Floats three = transformed({1.0f, 2.0f, 6.0f}, 1);
        EXPECT_NEAR(three[0], 9.0 / std::sqrt(3.0), 8e-7);
        EXPECT_NEAR(three[1], std::sqrt(2.0 / 3.0) * (1.0 - 6.0) * std::sqrt(0.75), 8e-7);
        EXPECT_NEAR(three[2], std::sqrt(2.0 / 3.0) * (0.5 - 2.0 + 3.0), 8e-7);
    });
}

TEST(Dct, MatchesTheReferenceForEveryLengthBothWays) {
    for (int n = 1; n <= 140; ++n) {
        const Floats x = noise(n);
        const auto forward = oracle::dct(x), inverse = oracle::inverseDct(x);
        support::onEveryLevel([&] {
            EXPECT_LE(relativeError(transformed(x, 1), forward), allowedError(x.size())) << n;
            EXPECT_LE(relativeError(transformed(x, 2), inverse), allowedError(x.size())) << n;
        });
    }
}

TEST(Dct, MatchesTheReferenceForLongLengths) {
    for (int n : {255, 256, 257, 511, 512, 1000, 1023, 1024, 1025, 1026, 2048}) {
        const Floats x = noise(n);
        const auto forward = oracle::dct(x), inverse = oracle::inverseDct(x);
        support::onEveryLevel([&] {
            EXPECT_LE(relativeError(transformed(x, 1), forward), allowedError(x.size())) << n;
            EXPECT_LE(relativeError(transformed(x, 2), inverse), allowedError(x.size())) << n;
        });
    }
    vsqsDct(nullptr, nullptr, 0, 8);
}

TEST(Dct, ForwardAndInverseGiveTheInputBack) {
    for (int n : {1, 2, 3, 13, 24, 26, 32, 40, 64, 128, 300, 4096, 3001}) {
        const Floats x = noise(n);
        const Floats back = transformed(transformed(x, 1), 2);
        EXPECT_LE(relativeError(back, std::vector<oracle::Extended>(x.begin(), x.end())),
                  2 * allowedError(x.size()))
            << n;
    }
    vsqsDct(nullptr, nullptr, 0, 8);
}

TEST(Dct, AllLevelsGiveTheSameBits) {
    for (int n = 1; n <= 300; ++n) {
        const Floats x = noise(n);
        for (int flags : {1, 2}) {
            vsq::selectLevel(vsq::Level::baseline);
            const Floats expected = transformed(x, flags);
            support::onEveryLevel([&] { EXPECT_EQ(transformed(x, flags), expected) << n; });
        }
    }
    vsqsDct(nullptr, nullptr, 0, 8);
}

TEST(Dct, MatchesStoredVectors) {
    std::ifstream file(KTL_SOURCE_DIR "/tests/golden/dct.txt");
    ASSERT_TRUE(file.is_open());
    std::string line;
    int vectors = 0;
    while (std::getline(file, line)) {
        if (line.empty() || line[0] == '#') continue;
        const std::size_t n = std::stoul(line);
        Floats x(n);
        std::vector<oracle::Extended> expected(n);
        std::getline(file, line);
        std::istringstream values(line);
        for (float& value : x)
            values >> value;
        std::getline(file, line);
        std::istringstream results(line);
        for (oracle::Extended& value : expected)
            results >> value;
        ASSERT_TRUE(values && results);
        EXPECT_LE(relativeError(transformed(x, 1), expected), allowedError(n)) << n;
        ++vectors;
    }
    EXPECT_EQ(vectors, 16);
}

TEST(Dct, MaySourceAndDestinationBeTheSame) {
    support::onEveryLevel([] {
        for (int n : {1, 2, 5, 24, 33, 64, 100, 128, 1024, 1100, 2048})
            for (int flags : {1, 2}) {
                const support::Guarded<float> x(noise(n));
                support::Guarded<float> y(x.size()), same(x.values());
                vsqsDct(x.data(), y.data(), n, flags);
                vsqsDct(same.data(), same.data(), n, flags);
                EXPECT_EQ(y.values(), same.values()) << n;
                EXPECT_EQ(x.values(), noise(n));
                EXPECT_TRUE(x.intact() && y.intact() && same.intact()) << n;
            }
    });
}

TEST(Dct, ReleaseNeedsNothingAndTheTablesComeBack) {
    vsqsFreeRealFftTbls();
    vsqsDct(nullptr, nullptr, 0, 8);
    const long before = support::alloc::liveBlocks();
    float x[24] = {1.0f}, y[24];
    vsqsDct(x, y, 24, 1);
    vsqsDct(x, y, 24, 2);
    vsqsDct(x, y, 24, 1);
    vsqsDct(x, y, 16, 1);
    EXPECT_EQ(support::alloc::liveBlocks(), before + 3);
    vsqsDct(nullptr, nullptr, 0, 8);
    EXPECT_EQ(support::alloc::liveBlocks(), before);
    vsqsDct(x, y, 24, 1);
    EXPECT_NEAR(y[0], 1.0 / std::sqrt(24.0), 1e-7);
    vsqwDct(nullptr, nullptr, 0, 8);
    EXPECT_EQ(support::alloc::liveBlocks(), before);
    EXPECT_EQ(vsqGetStatus(), 0);
}

TEST(Dct, UsualLengthsAllocateNothingOnceTheTablesExist) {
    for (int n : {13, 24, 26, 32, 40, 64, 128, 256}) {
        const Floats x = noise(n);
        Floats y(x.size());
        vsqsDct(x.data(), y.data(), n, 1);
        support::alloc::arm(0);
        vsqsDct(x.data(), y.data(), n, 1);
        EXPECT_EQ(support::alloc::allocations(), 0) << n;
        support::alloc::disarm();
    }
}

TEST(Dct, RefusesInTheGivenOrder) {
    float a[2] = {}, b[2] = {9.0f, 9.0f};
    short c[2] = {}, d[2] = {9, 9};
    struct Case {
        bool src, dst;
        int n, flags;
        const char* text;
    };
    const Case cases[] = {{false, true, 0, 0, "\nNull pointer to data buffer\n"},
                          {true, false, 0, 0, "\nNull pointer to data buffer\n"},
                          {true, true, 0, 0, "\nBad value of data buffer size\n"},
                          {true, true, -3, 1, "\nBad value of data buffer size\n"},
                          {true, true, 2, 0, "\nBad value of the transform flag\n"},
                          {true, true, 2, 3, "\nBad value of the transform flag\n"},
                          {true, true, 2, 9, "\nBad value of the transform flag\n"},
                          {true, true, 2, 4, "\nBad value of the transform flag\n"}};
    for (const Case& t : cases) {
        support::KernelReports reports;
        vsqsDct(t.src ? a : nullptr, t.dst ? b : nullptr, t.n, t.flags);
        vsqwDct(t.src ? c : nullptr, t.dst ? d : nullptr, t.n, t.flags);
        ASSERT_EQ(reports.all().size(), 2u);
        EXPECT_EQ(reports.all()[0].function, "vsqsDct");
        EXPECT_EQ(reports.all()[1].function, "vsqwDct");
        for (const auto& report : reports.all()) {
            EXPECT_EQ(report.status, -5);
            EXPECT_EQ(report.source, "vsqdct");
            EXPECT_EQ(report.message, t.text);
        }
        EXPECT_EQ(b[0], 9.0f);
        EXPECT_EQ(d[0], 9);
    }
}

TEST(Dct, ExhaustionIsReportedAndLeavesTheDestination) {
    for (int n : {24, 64, 128, 1025, 4096}) {
        const Floats x = noise(n);
        Floats y(x.size(), 9.0f);
        const Floats untouched = y;
        support::KernelReports reports;
        vsqsFreeRealFftTbls();
        vsqsDct(nullptr, nullptr, 0, 8);
        const long before = support::alloc::liveBlocks();
        const int failures = support::alloc::failEach(
            [&] {
                vsqsFreeRealFftTbls();
                vsqsDct(nullptr, nullptr, 0, 8);
                vsqsDct(x.data(), y.data(), n, 1);
            },
            [&] {
                const bool isReported = !reports.all().empty();
                if (isReported) {
                    EXPECT_EQ(reports.all()[0].status, -4);
                    EXPECT_EQ(reports.all()[0].function, "vsqsDct");
                    EXPECT_EQ(reports.takeMessage(), "\nMemory allocation problem\n");
                    EXPECT_EQ(y, untouched);
                }
                vsqSetStatus(0);
            });
        EXPECT_GE(failures, 1);
        EXPECT_NE(y, untouched);
        vsqsFreeRealFftTbls();
        vsqsDct(nullptr, nullptr, 0, 8);
        EXPECT_EQ(support::alloc::liveBlocks(), before);
    }
}

TEST(Dct, ThreadsShareTheTables) {
    vsqsDct(nullptr, nullptr, 0, 8);
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&wrong] {
            for (int n = 1; n < 80; ++n) {
                const Floats x(static_cast<std::size_t>(n), 1.0f);
                const Floats y = transformed(x, 1);
                if (std::abs(y[0] - std::sqrt(static_cast<float>(n))) > 1e-5f) ++wrong;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
    vsqsDct(nullptr, nullptr, 0, 8);
}

TEST(FixedDct, IsTheFloatTransformTruncatedAndSaturated) {
    support::onEveryLevel([] {
        for (int n : {1, 2, 3, 24, 26, 32, 64, 100, 128, 1025, 2048})
            for (int flags : {1, 2})
                for (float size : {100.0f, 32767.0f}) {
                    const Floats values = noise(n, size);
                    const support::Guarded<short> x(
                        std::vector<short>(values.begin(), values.end()));
                    support::Guarded<short> y(x.size()), same(x.values());
                    vsqwDct(x.data(), y.data(), n, flags);
                    vsqwDct(same.data(), same.data(), n, flags);
                    const Floats exact = transformed(Floats(x.data(), x.data() + n), flags);
                    for (std::size_t i = 0; i < y.size(); ++i) {
                        const float limited = std::min(std::max(exact[i], -32768.0f), 32767.0f);
                        EXPECT_EQ(y[i], static_cast<short>(limited)) << n;
                    }
                    EXPECT_EQ(y.values(), same.values());
                    EXPECT_TRUE(x.intact() && y.intact() && same.intact());
                }
    });
}

TEST(FixedDct, ExhaustionIsReported) {
    std::vector<short> x(3000, 5), y(3000, 9);
    support::KernelReports reports;
    support::alloc::arm(1);
    vsqwDct(x.data(), y.data(), 3000, 1);
    support::alloc::disarm();
    ASSERT_EQ(reports.all().size(), 1u);
    EXPECT_EQ(reports.all()[0].status, -4);
    EXPECT_EQ(reports.all()[0].function, "vsqwDct");
    EXPECT_EQ(reports.takeMessage(), "\nMemory allocation problem\n");
    EXPECT_EQ(y, std::vector<short>(3000, 9));
}

TEST(DctDeath, ARefusalEndsTheProcess) {
    float x[4] = {};
    short w[4] = {};
    EXPECT_EXIT(vsqsDct(nullptr, x, 4, 1), testing::ExitedWithCode(1), "^$");
    EXPECT_EXIT(vsqsDct(x, x, 0, 1), testing::ExitedWithCode(1), "^$");
    EXPECT_EXIT(vsqsDct(x, x, 4, 5), testing::ExitedWithCode(1), "^$");
    EXPECT_EXIT(vsqwDct(w, nullptr, 4, 1), testing::ExitedWithCode(1), "^$");
}

} // namespace
