#include "support/alloc_faults.h"
#include "support/every_level.h"
#include "support/guarded.h"
#include "support/kernel_reports.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <thread>

namespace {

using Shorts = std::vector<short>;

constexpr int forwPerm = VSQ_Forw | VSQ_RCPerm;
constexpr int invPerm = VSQ_Inv | VSQ_RCPerm;

Shorts noise(int order, int size, unsigned seed = 1) {
    std::mt19937 random(seed);
    std::uniform_int_distribution<int> uniform(-size, size);
    Shorts x(std::size_t{1} << order);
    for (short& value : x)
        value = static_cast<short>(uniform(random));
    return x;
}

// What the float transform gives, as it stands.
std::vector<float> inFloat(const Shorts& x, int order, int flags) {
    std::vector<float> y(x.begin(), x.end());
    vsqsRealFftl(y.data(), order, flags);
    return y;
}

short stored(float value, int scale) {
    const double scaled = std::ldexp(static_cast<double>(value), -scale);
    return static_cast<short>(scaled > 32767.0    ? 32767.0
                              : scaled < -32768.0 ? -32768.0
                                                  : std::trunc(scaled));
}

Shorts storedAll(const std::vector<float>& values, int scale) {
    Shorts result;
    for (float value : values)
        result.push_back(stored(value, scale));
    return result;
}

TEST(FixedFft, IsTheFloatTransformTruncatedAndSaturated) {
    support::onEveryLevel([] {
        for (int order = 2; order <= 14; ++order)
            for (int flags : {forwPerm, VSQ_Forw | VSQ_RCPack, invPerm, VSQ_Inv | VSQ_RCPack,
                              invPerm | VSQ_NoScale})
                for (int mode : {0, 1}) {
                    const support::Guarded<short> x(noise(order, 5000));
                    support::Guarded<short> y(x.values());
                    vsqwRealFftl(y.data(), order, flags, mode, nullptr);
                    EXPECT_EQ(y.values(), storedAll(inFloat(x.values(), order, flags), 0))
                        << order << " " << flags;
                    EXPECT_TRUE(y.intact());
                }
    });
}

TEST(FixedFft, RoundingFlagsDoNotChangeTheTruncation) {
    Shorts x = noise(5, 300), y = x, z = x;
    vsqwRealFftl(x.data(), 5, forwPerm, 0, nullptr);
    vsqwRealFftl(y.data(), 5, forwPerm | VSQ_RoundMode0, 0, nullptr);
    vsqwRealFftl(z.data(), 5, forwPerm | VSQ_RoundMode1, 0, nullptr);
    EXPECT_EQ(x, y);
    EXPECT_EQ(x, z);
}

TEST(FixedFft, FixedScaleMultipliesByThePowerOfTwo) {
    for (int scale : {-3, -1, 0, 1, 5, 16, 200, -200, 2147483647, -2147483647 - 1}) {
        const Shorts x = noise(6, 800);
        Shorts y = x;
        int factor = scale;
        vsqwRealFftl(y.data(), 6, forwPerm, VSQ_FIXED_SCALE, &factor);
        EXPECT_EQ(factor, scale);
        const int usable = scale > 1000 ? 1000 : scale < -1000 ? -1000 : scale;
        EXPECT_EQ(y, storedAll(inFloat(x, 6, forwPerm), usable)) << scale;
    }
    Shorts x = noise(6, 800), y = x;
    vsqwRealFftl(x.data(), 6, forwPerm, VSQ_FIXED_SCALE, nullptr); // counts as 0
    vsqwRealFftl(y.data(), 6, forwPerm, 0, nullptr);
    EXPECT_EQ(x, y);
}

TEST(FixedFft, AutoScaleTakesTheSmallestShiftThatFits) {
    for (int size : {0, 1, 100, 1000, 10000, 32767})
        for (int order : {2, 6, 10}) {
            const Shorts x = noise(order, size);
            const auto exact = inFloat(x, order, forwPerm);
            int expected = 0;
            for (float value : exact)
                while (std::trunc(std::ldexp(value, -expected)) > 32767.0 ||
                       std::trunc(std::ldexp(value, -expected)) < -32768.0)
                    ++expected;
            Shorts y = x;
            int factor = 77;
            vsqwRealFftl(y.data(), order, forwPerm, VSQ_AUTO_SCALE, &factor);
            EXPECT_EQ(factor, expected) << size << " " << order;
            EXPECT_EQ(y, storedAll(exact, expected));
        }
}

TEST(FixedFft, OrderZeroCopies) {
    for (int flags : {forwPerm, invPerm, VSQ_Forw | VSQ_RCPack}) {
        short x = -1234;
        vsqwRealFftl(&x, 0, flags, 0, nullptr);
        EXPECT_EQ(x, -1234);
    }
    short x = 1001;
    int scale = 1;
    vsqwRealFftl(&x, 0, forwPerm, VSQ_FIXED_SCALE, &scale);
    EXPECT_EQ(x, 500);
}

TEST(FixedFft, OrderOneSumsInIntegersAndShifts) {
    struct Case {
        short a, b;
        int flags;
        short sum, difference;
    };
    const Case cases[] = {{3, 5, forwPerm, 8, -2},
                          {30000, 30000, forwPerm, 32767, 0},
                          {-30000, 30000, forwPerm, 0, -32768},
                          {3, 6, invPerm, 4, -2}, // 9 >> 1 and -3 >> 1: downward, not toward zero
                          {32767, 32767, invPerm, 32767, 0},
                          {-32768, 32767, invPerm, -1, -32768},
                          {3, 6, invPerm | VSQ_NoScale, 9, -3}};
    for (const Case& c : cases) {
        support::Guarded<short> x(Shorts{c.a, c.b});
        vsqwRealFftl(x.data(), 1, c.flags, 0, nullptr);
        EXPECT_EQ(x.values(), (Shorts{c.sum, c.difference}));
        EXPECT_TRUE(x.intact());
    }
    Shorts x{30000, 30000};
    int scale = 0;
    vsqwRealFftl(x.data(), 1, forwPerm, VSQ_AUTO_SCALE, &scale);
    EXPECT_EQ(scale, 1);
    EXPECT_EQ(x, (Shorts{30000, 0}));
}

TEST(FixedFft, InitPreparesTablesAndSamplesAndFreeReleasesThem) {
    vsqsFreeRealFftTbls();
    vsqwFreeRealFftTbls();
    const long before = support::alloc::liveBlocks();
    vsqwRealFftl(nullptr, 9, VSQ_Init, 6, nullptr);
    EXPECT_EQ(support::alloc::liveBlocks(), before + 2);
    support::alloc::arm(0);
    Shorts x = noise(9, 100);
    vsqwRealFftl(x.data(), 9, forwPerm, 0, nullptr);
    EXPECT_EQ(support::alloc::allocations(), 0);
    support::alloc::disarm();
    vsqwRealFftl(nullptr, 9, VSQ_Free, 0, nullptr);
    EXPECT_EQ(support::alloc::liveBlocks(), before);
    for (int order : {-1, 0, 32, 2147483647, -2147483647 - 1})
        vsqwRealFftl(nullptr, order, VSQ_Free, 0, nullptr);
    vsqwRealFftl(nullptr, 0, VSQ_Init, 0, nullptr);
    vsqwRealFftl(nullptr, 1, VSQ_Init, 0, nullptr);
    EXPECT_EQ(vsqGetStatus(), 0);
    vsqsFreeRealFftTbls();
    vsqwFreeRealFftTbls();
}

TEST(FixedFft, RefusesInTheGivenOrder) {
    struct Case {
        bool given;
        int order, flags, mode;
        const char* text;
    };
    const Case cases[] = {
        {false, -1, 0x6003, 6, "order<0"},
        {false, 32, 0x6003, 6, "order>31"},
        {false, 3, 0x6303, 6, "(flags & 8192) && (flags & 16384)"},
        {false, 3, 0x6004, 6, "(flags & 8192) && (flags & 16384)"}, // with VSQ_Init too
        {false, 3, 0x303, 6, "samps==0"},
        {true, 3, 0x303, 6, "(flags & 1) && (flags & 2)"},
        {true, 3, 0x300, 6, "(flags & 1)==0 && (flags & 2)==0"},
        {true, 3, 0x301, 6, "(flags & 256) && (flags & 512)"},
        {true, 3, 0x001, 6, "(flags & 256)==0 && (flags & 512)==0"},
        {true, 3, 0x201, 6, "(scaleMode & 0x0002) && (scaleMode & 0x0004)"},
        {true, 3, 0x201, 4, "scaleFactor==0"},
        {true, 0, 0x201, 4, "scaleFactor==0"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        Shorts x(8, 3);
        support::KernelReports reports;
        vsqwRealFftl(c.given ? x.data() : nullptr, c.order, c.flags, c.mode, nullptr);
        ASSERT_EQ(reports.all().size(), 1u);
        EXPECT_EQ(reports.all()[0].status, -5);
        EXPECT_EQ(reports.all()[0].function, "vsqwRealFftl");
        EXPECT_EQ(reports.all()[0].source, "vsqfftw");
        EXPECT_EQ(reports.takeMessage(), c.text);
        EXPECT_EQ(x, Shorts(8, 3));
    }
}

TEST(FixedFft, MemoryIsAskedForTwice) {
    const Shorts x = noise(14, 100);
    Shorts expected = x, y;
    vsqwRealFftl(expected.data(), 14, forwPerm, 0, nullptr);
    const auto release = [] {
        vsqsFreeRealFftTbls();
        vsqwFreeRealFftTbls();
    };
    release();
    const long before = support::alloc::liveBlocks();
    const int failures = support::alloc::failEach(
        [&] {
            release();
            y = x;
            vsqwRealFftl(y.data(), 14, forwPerm, 0, nullptr);
        },
        [&] { EXPECT_EQ(y, expected); });
    EXPECT_GE(failures, 3); // samples, tables, scratch
    release();
    y.clear();
    EXPECT_EQ(vsqGetStatus(), 0);
    EXPECT_LE(support::alloc::liveBlocks(), before + 1); // y's own memory
}

TEST(FixedFft, ExhaustionIsReportedAndTheSamplesStay) {
    const Shorts x = noise(14, 100);
    Shorts y = x;
    struct Expected {
        int failFrom, flags, nReports;
        const char* text;
        int status;
    };
    const Expected cases[] = {{1, forwPerm, 1, "No working memory", -4},
                              {2, forwPerm, 2, "out vsqsRealFftl calc. FFT", -1},
                              {1, VSQ_Init, 1, "No working memory", -4},
                              {2, VSQ_Init, 2, "out vsqsRealFftl VSQ_Init", -1}};
    for (const Expected& c : cases) {
        support::KernelReports reports;
        vsqsFreeRealFftTbls();
        vsqwFreeRealFftTbls();
        support::alloc::armFrom(c.failFrom);
        vsqwRealFftl(y.data(), 14, c.flags, 0, nullptr);
        support::alloc::disarm();
        ASSERT_EQ(reports.all().size(), static_cast<std::size_t>(c.nReports)) << c.text;
        EXPECT_EQ(reports.all().back().message, c.text);
        EXPECT_EQ(reports.all().back().status, c.status);
        EXPECT_EQ(reports.all().back().function, "vsqwRealFftl");
        EXPECT_EQ(reports.all().back().source, "vsqfftw");
        EXPECT_EQ(vsqGetStatus(), -4);
        EXPECT_EQ(y, x);
    }
    vsqsFreeRealFftTbls();
    vsqwFreeRealFftTbls();
}

TEST(FixedFft, ThreadsDoNotShareTheSamples) {
    const Shorts x = noise(10, 3000);
    Shorts expected = x;
    vsqwRealFftl(expected.data(), 10, forwPerm, 0, nullptr);
    std::vector<Shorts> results(6, x);
    std::vector<std::thread> threads;
    for (Shorts& result : results)
        threads.emplace_back([&x, &result] {
            for (int i = 0; i < 50; ++i) {
                result = x;
                vsqwRealFftl(result.data(), 10, forwPerm, 0, nullptr);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    for (const Shorts& result : results)
        EXPECT_EQ(result, expected);
    vsqwFreeRealFftTbls();
}

TEST(FixedFftDeath, ARefusalEndsTheProcess) {
    short x[8] = {};
    EXPECT_EXIT(vsqwRealFftl(x, 32, forwPerm, 0, nullptr), testing::ExitedWithCode(1), "^$");
    EXPECT_EXIT(vsqwRealFftl(nullptr, 3, forwPerm, 0, nullptr), testing::ExitedWithCode(1), "^$");
    EXPECT_EXIT(vsqwRealFftl(x, 3, forwPerm, 4, nullptr), testing::ExitedWithCode(1), "^$");
}

} // namespace
