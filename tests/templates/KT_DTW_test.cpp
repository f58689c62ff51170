#include "oracle/dtw.h"
#include "support/alloc_faults.h"
#include "support/every_level.h"
#include "support/guarded.h"
#include "support/reports.h"

#include "ktlp6.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

namespace {

constexpr double notAdmitted = 3.4e+38;

// Vectors as the functions take them: rows of their own.
template <class T>
struct Utterance {
    std::vector<std::vector<T>> frames;
    std::vector<T*> rows;
    int nDim;

    Utterance(int n, int dim, T value = T())
        : frames(std::size_t(n), std::vector<T>(std::size_t(dim), value)), nDim(dim) {
        for (auto& frame : frames)
            rows.push_back(frame.data());
    }
    int size() const { return int(frames.size()); }
    const T* operator[](int i) const { return frames[std::size_t(i)].data(); }
};

using Speech = Utterance<float>;

template <class Value>
Speech randomSpeech(std::mt19937& generator, int n, int dim, Value value) {
    Speech result(n, dim);
    for (auto& frame : result.frames)
        for (float& x : frame)
            x = float(value(generator));
    return result;
}

// One dimension, the given values.
Speech line(const std::vector<float>& values) {
    Speech result(int(values.size()), 1);
    for (std::size_t i = 0; i < values.size(); ++i)
        result.frames[i][0] = values[i];
    return result;
}

class Dtw : public testing::Test {
protected:
    ~Dtw() override {
        KTsPatternFreeAll();
        KTwPatternFreeAll();
    }

    int keep(Speech& speech) {
        return KTsPatternIni(speech.rows.data(), speech.size(), speech.nDim);
    }

    // The result of one pattern on its own.
    double compare(Speech& pattern, Speech& test, int flags, double threshold = 0, int delta = 0) {
        const int handle = keep(pattern);
        double result = -1;
        EXPECT_EQ(KTsEvalDTW(&handle, 1, test.rows.data(), test.size(), test.nDim, flags, threshold,
                             delta, &result),
                  0);
        KTsPatternFree(handle);
        return result;
    }

    support::CapturedReports reports;
};

double expected(const Speech& pattern, const Speech& test, int flags, double threshold, int delta) {
    const int margin = flags & KT_DTW_FIXED_ENDS ? 0 : std::abs(delta);
    const int N = test.size(), M = pattern.size();
    if (pattern.nDim != test.nDim || !oracle::dtwAdmits(N, M, margin)) return notAdmitted;
    const auto norm = flags & KT_DTW_NORM_L1 ? oracle::dtwCityBlock : oracle::dtwEuclidean;
    return oracle::dtwGrid(N, M, margin < M - 1 ? margin : M - 1,
                           flags & KT_DTW_USE_THRESHOLD ? threshold : notAdmitted,
                           [&](int i, int j) { return norm(test[i], pattern[j], test.nDim); });
}

} // namespace

// Features are small integers, so local distances are exact or correctly rounded on both sides and
// ties abound. Each grid is run without a threshold, with one that prunes nothing, some and all of
// it.
TEST_F(Dtw, TenThousandRandomGridsEqualTheLiteralRecursion) {
    std::mt19937 generator(7);
    std::uniform_int_distribution<int> length(1, 40), dims(1, 5), margins(-6, 6), values(0, 3),
        bit(0, 1);
    int admitted = 0, pruned = 0, survived = 0;
    for (int run = 0; run < 10000; ++run) {
        if (!vsq::selectLevel(vsq::everyLevel[run % std::size(vsq::everyLevel)])) continue;
        const int dim = dims(generator);
        Speech test = randomSpeech(generator, length(generator), dim, values);
        // Half of the patterns are of a length that a path can reach.
        const int M = bit(generator) ? length(generator)
                                     : std::uniform_int_distribution<int>(
                                           test.size() / 2 + 1, 2 * test.size())(generator);
        Speech pattern = randomSpeech(generator, M, dim, values);
        const int delta = margins(generator);
        const int flags =
            (bit(generator) ? KT_DTW_FIXED_ENDS : 0) | (bit(generator) ? KT_DTW_NORM_L1 : 0);
        const double best = expected(pattern, test, flags, 0, delta);
        ASSERT_EQ(compare(pattern, test, flags, 0, delta), best) << run;
        if (best == notAdmitted) continue;
        ++admitted;
        const double thresholds[] = {best * 2 + 1, std::nextafter(best, 1e9),
                                     best,         best * 0.9,
                                     best * 0.5,   best * 0.2,
                                     0.0,          best + 1,
                                     1.0,          -1.0};
        for (double threshold : thresholds) {
            const double limited =
                expected(pattern, test, flags | KT_DTW_USE_THRESHOLD, threshold, delta);
            ASSERT_EQ(compare(pattern, test, flags | KT_DTW_USE_THRESHOLD, threshold, delta),
                      limited)
                << run << ", threshold " << threshold;
            ++(limited == threshold ? pruned : survived);
        }
    }
    vsq::selectLevel(vsq::bestLevel());
    EXPECT_GT(admitted, 2000);
    EXPECT_GT(pruned, admitted);
    EXPECT_GT(survived, admitted);
}

// Real features: the two metrics against double precision on every level, and long utterances.
TEST_F(Dtw, RealFeaturesEqualTheLiteralRecursionOnEveryLevel) {
    support::onEveryLevel([this] {
        std::mt19937 generator(11);
        std::normal_distribution<float> values(0, 10);
        for (int run = 0; run < 60; ++run) {
            Speech test = randomSpeech(generator, 20 + 7 * run % 90, 13 + run % 3, values);
            Speech pattern = randomSpeech(generator, 20 + 11 * run % 80, test.nDim, values);
            for (int flags : {0, KT_DTW_FIXED_ENDS, KT_DTW_NORM_L1}) {
                const double best = expected(pattern, test, flags, 0, run % 9);
                EXPECT_EQ(compare(pattern, test, flags, 0, run % 9), best);
                flags |= KT_DTW_USE_THRESHOLD;
                for (double part : {0.3, 0.7, 1.0, 1.00001})
                    EXPECT_EQ(compare(pattern, test, flags, best * part, run % 9),
                              expected(pattern, test, flags, best * part, run % 9));
            }
        }
    });
}

// One frame against one frame counts the distance twice, so half of the result is a local distance.
TEST_F(Dtw, LocalDistancesAreWithinAFloatUlpOfTheExactNorm) {
    support::onEveryLevel([this] {
        std::mt19937 generator(5);
        std::normal_distribution<float> values(0, 1);
        for (int run = 0; run < 500; ++run) {
            const int dim = 1 + run % 60;
            const float scale = std::ldexp(1.0f, run % 7 == 0   ? 110
                                                 : run % 7 == 1 ? -110
                                                                : run % 20 - 10);
            auto scaled = [&](std::mt19937& g) { return scale * values(g); };
            Speech a = randomSpeech(generator, 1, dim, scaled),
                   b = randomSpeech(generator, 1, dim, scaled);
            long double squares = 0, magnitudes = 0;
            for (int k = 0; k < dim; ++k) {
                const long double d = static_cast<long double>(a[0][k]) - b[0][k];
                squares += d * d;
                magnitudes += std::fabs(d);
            }
            const auto near = [](double twice, long double exact) {
                const float f = float(exact);
                const double ulp = double(std::nextafter(f, HUGE_VALF)) - double(f);
                EXPECT_NEAR(twice / 2, double(exact), ulp);
            };
            near(compare(a, b, 0), std::sqrt(squares));
            near(compare(a, b, KT_DTW_NORM_L1), magnitudes);
        }
    });
}

TEST_F(Dtw, NoPatternsReturnsZeroAndWritesNothing) {
    Speech test(3, 2);
    double result = 17;
    short frame[] = {1, 2}, *rows[] = {frame, frame, frame};
    int fixedResult = 17, scale = 5;
    EXPECT_EQ(KTsEvalDTW(nullptr, 0, test.rows.data(), 3, 2, 0, 0, 0, &result), 0);
    EXPECT_EQ(KTwEvalDTW(nullptr, 0, rows, 3, 2, 0, 0, 0, 0, 0, &fixedResult, KT_AutoScale, &scale),
              0);
    EXPECT_EQ(KTsEvalDTW(nullptr, -1, test.rows.data(), 3, 2, 0, 0, 0, &result), 0);
    EXPECT_EQ(result, 17);
    EXPECT_EQ(fixedResult, 17);
    EXPECT_EQ(scale, 5);
    EXPECT_EQ(reports.count(), 0u);
}

TEST_F(Dtw, OneTestFrameCountsItsDistanceTwice) {
    Speech test = line({3}), same = line({3}), other = line({8});
    EXPECT_EQ(compare(same, test, 0), 0.0);
    EXPECT_EQ(compare(other, test, 0), 10.0);
    Speech several = line({8, 4, 20}); // a margin lets the path begin and end on any of its frames
    EXPECT_EQ(compare(several, test, 0, 0, 2), expected(several, test, 0, 0, 2));
    EXPECT_EQ(compare(several, test, 0, 0, 2), 2.0);
}

TEST_F(Dtw, TwoTestFramesHaveNoMiddleRow) {
    Speech test = line({1, 5});
    Speech one = line({2}), two = line({2, 7}), three = line({1, 9, 5});
    EXPECT_EQ(compare(one, test, 0), 1.0 + 3.0);
    EXPECT_EQ(compare(two, test, 0), 1.0 + 2.0);
    EXPECT_EQ(compare(three, test, 0), 0.0);
}

TEST_F(Dtw, LengthsAreAdmittedUpToBothLimits) {
    for (int N = 1; N <= 12; ++N)
        for (int margin = 0; margin <= 4; ++margin) {
            Speech test(N, 2, 1.0f);
            const int least = ((N - 1) >> 1) + 1, most = 2 * N - 1 + margin;
            Speech shortest(least, 2, 2.0f), longest(most, 2, 2.0f), tooLong(most + 1, 2, 2.0f);
            EXPECT_LT(compare(shortest, test, KT_DTW_NORM_L1, 0, margin), notAdmitted);
            EXPECT_LT(compare(longest, test, KT_DTW_NORM_L1, 0, margin), notAdmitted);
            EXPECT_EQ(compare(tooLong, test, KT_DTW_NORM_L1, 0, margin), notAdmitted);
            if (least > 1) {
                Speech tooShort(least - 1, 2, 2.0f);
                EXPECT_EQ(compare(tooShort, test, KT_DTW_NORM_L1, 0, margin), notAdmitted);
            }
        }
    EXPECT_EQ(reports.count(), 0u);
}

TEST_F(Dtw, OtherDimensionsAreNotAdmitted) {
    Speech test(4, 3), pattern(4, 2);
    EXPECT_EQ(compare(pattern, test, 0), notAdmitted);
}

// With 5 rows and 3 columns the band is 0, 0-1, 1, 1-2, 2. Cells outside it are free of cost here
// and would show.
TEST_F(Dtw, BandOfFiveRowsAndThreeColumns) {
    const oracle::Band band = oracle::dtwBand(5, 3, 0);
    EXPECT_EQ(band.lo, (std::vector<int>{0, 0, 1, 1, 2}));
    EXPECT_EQ(band.hi, (std::vector<int>{0, 1, 1, 2, 2}));
    Speech pattern = line({0, 10, 20});
    Speech inside = line({0, 0, 10, 10, 20}), outside = line({0, 0, 0, 20, 20});
    EXPECT_EQ(compare(pattern, inside, 0), 0.0);
    EXPECT_EQ(compare(pattern, outside, 0), 10.0); // row 2 has column 1 alone
}

TEST_F(Dtw, ThresholdBelowTheFirstRowIsTheResult) {
    Speech test = line({5, 5, 5}), pattern = line({1, 1, 1});
    const int handle = keep(pattern);
    double result = 0;
    EXPECT_EQ(KTsEvalDTW(&handle, 1, test.rows.data(), 3, 1, KT_DTW_USE_THRESHOLD, 3.5, 0, &result),
              0);
    EXPECT_EQ(result, 3.5);
    EXPECT_EQ(KTsEvalDTW(&handle, 1, test.rows.data(), 3, 1, KT_DTW_USE_THRESHOLD, 4.0, 0, &result),
              0);
    EXPECT_EQ(result, 4.0); // a cell at the threshold is dropped too
}

TEST_F(Dtw, PatternsThatRanOutStillCompete) {
    Speech test = line({5, 5, 5}), tooLong(30, 1), far = line({1, 1, 1});
    const int handles[] = {keep(tooLong), keep(far)};
    double results[2];
    EXPECT_EQ(KTsEvalDTW(handles, 2, test.rows.data(), 3, 1, KT_DTW_USE_THRESHOLD, 2.0, 0, results),
              1);
    EXPECT_EQ(results[0], notAdmitted);
    EXPECT_EQ(results[1], 2.0);
}

// The last step adds an unrounded distance: 2^-24 and a little lifts 1 to the next float, 2^-24
// alone, what the distance would be as a float, does not.
TEST_F(Dtw, TheLastRowRoundsOnce) {
    support::onEveryLevel([this] {
        Speech pattern(2, 2), test(2, 2);
        test.frames = {{1, 0}, {0x1p-24f, 0x1p-36f}};
        for (int i = 0; i < 2; ++i)
            test.rows[std::size_t(i)] = test.frames[std::size_t(i)].data();
        EXPECT_EQ(compare(pattern, test, KT_DTW_FIXED_ENDS), 1 + 0x1p-23);
        EXPECT_EQ(compare(pattern, test, KT_DTW_FIXED_ENDS | KT_DTW_NORM_L1), 1 + 0x1p-23);
    });
}

// A threshold that is no float: a cost of exactly its rounding upwards is dropped, and the result
// is the double.
TEST_F(Dtw, ThresholdsAreComparedAsDoubles) {
    Speech test = line({1, 1, 1}), pattern = line({0.5f, 0.5f, 0.5f}); // costs 0.5, 1, 1.5
    for (double threshold :
         {1.5, 1.5 + 1e-12, 1.5 - 1e-12, 1.0, 1.0 + 1e-12, 0.5 + 1e-12, 0.5 - 1e-12})
        EXPECT_EQ(compare(pattern, test, KT_DTW_USE_THRESHOLD, threshold),
                  expected(pattern, test, KT_DTW_USE_THRESHOLD, threshold, 0))
            << threshold;
    // The end cost 1.5 equals the float of the threshold, though it is below the double: it is
    // clamped away.
    EXPECT_EQ(compare(pattern, test, KT_DTW_USE_THRESHOLD, 1.5 + 1e-12), 1.5 + 1e-12);
}

TEST_F(Dtw, ThresholdsBeyondTheRangeOfAFloat) {
    Speech test = line({1, 1, 1}), pattern = line({0.5f, 0.5f, 0.5f});
    for (double threshold : {1e39, 3.5e38, std::numeric_limits<double>::infinity(), 1e300})
        EXPECT_EQ(compare(pattern, test, KT_DTW_USE_THRESHOLD, threshold), 1.5) << threshold;
    for (double threshold : {-1e39, -std::numeric_limits<double>::infinity(), -1e-300})
        EXPECT_EQ(compare(pattern, test, KT_DTW_USE_THRESHOLD, threshold), threshold);
}

TEST_F(Dtw, CostsBeyondTheRangeOfAFloatGiveTheLimit) {
    Speech test(4, 1, 3e38f), pattern(4, 1, -3e38f);
    EXPECT_EQ(compare(pattern, test, 0), notAdmitted);
    EXPECT_EQ(compare(pattern, test, KT_DTW_USE_THRESHOLD, 7.0), 7.0);
}

TEST_F(Dtw, IdenticalPatternsScoreZeroInBothMetrics) {
    std::mt19937 generator(3);
    std::normal_distribution<float> values;
    Speech speech = randomSpeech(generator, 25, 13, values);
    EXPECT_EQ(compare(speech, speech, 0), 0.0);
    EXPECT_EQ(compare(speech, speech, KT_DTW_NORM_L1), 0.0);
    EXPECT_EQ(compare(speech, speech, KT_DTW_FIXED_ENDS), 0.0);
    EXPECT_EQ(compare(speech, speech, KT_DTW_NORM_L1, 0, 5), 0.0);
}

// The pattern stays on 0 for one frame and the test for three: a second flat step in a row would
// cost nothing.
TEST_F(Dtw, TwoFlatStepsInARowAreImpossible) {
    Speech test = line({0, 0, 0, 9, 9}), pattern = line({0, 9, 9, 9});
    EXPECT_EQ(compare(pattern, test, 0), expected(pattern, test, 0, 0, 0));
    EXPECT_EQ(compare(pattern, test, 0), 9.0);
    Speech twice = line({0, 0, 9, 9});
    EXPECT_EQ(compare(pattern, twice, 0), 0.0);
    Speech constant(2, 1), longTest(5, 1); // shorter than the slope of 1/2 allows
    EXPECT_EQ(compare(constant, longTest, 0), notAdmitted);
}

TEST_F(Dtw, NegativeDeltaActsLikeItsMagnitudeAndFixedEndsOverrideIt) {
    Speech test = line({5, 6, 7, 8}), pattern = line({0, 0, 5, 6, 7, 8, 0, 0});
    EXPECT_EQ(compare(pattern, test, 0, 0, 2), 0.0);
    EXPECT_EQ(compare(pattern, test, 0, 0, -2), 0.0);
    Speech shorter = line({0, 5, 6, 7, 8});
    EXPECT_EQ(compare(shorter, test, KT_DTW_FIXED_ENDS, 0, 2), compare(shorter, test, 0, 0, 0));
    EXPECT_GT(compare(shorter, test, KT_DTW_FIXED_ENDS, 0, 2), 0.0);
    EXPECT_EQ(compare(pattern, test, KT_DTW_FIXED_ENDS, 0, 2), notAdmitted);
}

TEST_F(Dtw, MarginsOfAnySize) {
    Speech test = line({5, 6}), pattern = line({0, 0, 0, 0, 5, 6, 0, 0});
    for (int delta : {7, 8, 1000, INT_MAX, -INT_MAX, INT_MIN})
        EXPECT_EQ(compare(pattern, test, 0, 0, delta), 0.0) << delta;
}

TEST_F(Dtw, UnknownFlagsAreIgnored) {
    Speech test = line({1, 2, 3}), pattern = line({2, 2, 2});
    EXPECT_EQ(compare(pattern, test, 0x7FFFFF3E, -5), compare(pattern, test, 0));
}

TEST_F(Dtw, TiesStayWithTheLowestIndex) {
    Speech test = line({1, 2, 3}), far = line({9, 9, 9}), near = line({1, 2, 4});
    const int handles[] = {keep(far), keep(near), keep(near), keep(far)};
    double results[4];
    EXPECT_EQ(KTsEvalDTW(handles, 4, test.rows.data(), 3, 1, 0, 0, 0, results), 1);
    EXPECT_EQ(results[1], 1.0);
    EXPECT_EQ(results[1], results[2]);
    EXPECT_EQ(results[0], results[3]);
    EXPECT_EQ(results[0], 8.0 + 7.0 + 6.0);
}

// Long patterns after short ones and under a threshold: nothing of one pattern's scratch shows in
// the next.
TEST_F(Dtw, ResultsDoNotDependOnTheOtherPatternsOfACall) {
    std::mt19937 generator(23);
    std::uniform_int_distribution<int> values(0, 4), length(8, 30);
    Speech test = randomSpeech(generator, 16, 3, values);
    std::vector<Speech> patterns;
    for (int k = 0; k < 40; ++k)
        patterns.push_back(randomSpeech(generator, length(generator), 3, values));
    std::vector<int> handles;
    for (Speech& pattern : patterns)
        handles.push_back(keep(pattern));
    for (double threshold : {5.0, 12.0, 20.0, 30.0, 1e9}) {
        support::Guarded<double> results(patterns.size());
        const int best = KTsEvalDTW(handles.data(), int(handles.size()), test.rows.data(), 16, 3,
                                    KT_DTW_USE_THRESHOLD, threshold, 3, results.data());
        EXPECT_TRUE(results.intact());
        std::size_t smallest = 0;
        for (std::size_t k = 0; k < patterns.size(); ++k) {
            EXPECT_EQ(results[k], expected(patterns[k], test, KT_DTW_USE_THRESHOLD, threshold, 3))
                << k;
            if (results[k] < results[smallest]) smallest = k;
        }
        EXPECT_EQ(best, int(smallest));
    }
}

TEST_F(Dtw, UnknownHandlesCountAsNotAdmitted) {
    Speech test = line({1, 2, 3}), pattern = line({1, 2, 4});
    const int handles[] = {99, keep(pattern), 0, -4};
    double results[4];
    EXPECT_EQ(KTsEvalDTW(handles, 4, test.rows.data(), 3, 1, 0, 0, 0, results), 1);
    EXPECT_EQ(results[0], notAdmitted);
    EXPECT_EQ(results[1], 1.0);
    EXPECT_EQ(results[2], notAdmitted);
    EXPECT_EQ(reports.count(), 0u);
}

TEST_F(Dtw, EmptyStoresAreReportedByTheLookup) {
    Speech test = line({1, 2, 3});
    const int handles[] = {1, 2};
    double results[2];
    EXPECT_EQ(KTsEvalDTW(handles, 2, test.rows.data(), 3, 1, 0, 0, 0, results), 0);
    EXPECT_EQ(results[0], notAdmitted);
    EXPECT_EQ(results[1], notAdmitted);
    ASSERT_EQ(reports.count(), 2u);
    EXPECT_EQ(reports[0].function, "KTsPatternPtrGet");
    EXPECT_EQ(reports[0].message, "sPatterns have not been initialized.");
    EXPECT_EQ(KTGetStatus(), KT_StsUnknownErr);
}

TEST_F(Dtw, EmptyTestsAdmitNothing) {
    Speech pattern = line({1, 2});
    const int handle = keep(pattern);
    double result = 0;
    EXPECT_EQ(KTsEvalDTW(&handle, 1, nullptr, 0, 1, 0, 0, 5, &result), 0);
    EXPECT_EQ(result, notAdmitted);
    EXPECT_EQ(KTsEvalDTW(&handle, 1, nullptr, -7, 1, 0, 0, 5, &result), 0);
    EXPECT_EQ(result, notAdmitted);
}

TEST_F(Dtw, EveryFailedAllocationIsReportedAndLeavesTheResultsAlone) {
    Speech test = line({1, 2, 3}), pattern = line({1, 2, 4});
    const int handle = keep(pattern);
    double result = 17;
    int nearest = 5;
    const long before = support::alloc::liveBlocks();
    const int failures = support::alloc::failEach(
        [&] { nearest = KTsEvalDTW(&handle, 1, test.rows.data(), 3, 1, 0, 0, 0, &result); },
        [&] {
            EXPECT_EQ(nearest, -1);
            EXPECT_EQ(result, 17);
            ASSERT_EQ(reports.count(), 1u);
            EXPECT_EQ(reports[0].status, KT_StsNoMem);
            EXPECT_EQ(reports[0].function, "KTsEvalDTW");
            EXPECT_EQ(reports[0].message, "No memory for work arrays allocation");
            EXPECT_EQ(reports[0].source, "..\\_LIBSRC\\KT_DTW");
            EXPECT_EQ(KTGetStatus(), KT_StsNoMem);
            EXPECT_EQ(support::alloc::liveBlocks(), before);
            reports.clear();
        });
    EXPECT_GE(failures, 1);
    EXPECT_EQ(nearest, 0);
    EXPECT_EQ(result, 1.0);
    EXPECT_EQ(support::alloc::liveBlocks(), before);
}

// --- fixed point ---

namespace {

Utterance<short> fixedLine(const std::vector<short>& values) {
    Utterance<short> result(int(values.size()), 1);
    for (std::size_t i = 0; i < values.size(); ++i)
        result.frames[i][0] = values[i];
    return result;
}

int keepFixed(Utterance<short>& pattern, int scale) {
    return KTwPatternIni(pattern.rows.data(), pattern.size(), pattern.nDim, scale);
}

} // namespace

// Both sides at scales of their own, against the float function on the same real values.
TEST_F(Dtw, FixedPointIsTheFloatComputationOnRealValues) {
    support::onEveryLevel([this] {
        std::mt19937 generator(31);
        std::uniform_int_distribution<int> values(-500, 500), length(6, 20), scales(-6, 3);
        for (int run = 0; run < 100; ++run) {
            const int testScale = scales(generator), patternScale = scales(generator),
                      thresholdScale = scales(generator);
            const int N = length(generator), M = length(generator),
                      threshold = 3 * values(generator) + 2000;
            const int flags = (run & 1 ? KT_DTW_NORM_L1 : 0) | (run & 2 ? KT_DTW_USE_THRESHOLD : 0);
            Utterance<short> fixedTest(N, 4), fixedPattern(M, 4);
            Speech test(N, 4), pattern(M, 4);
            for (int i = 0; i < N * 4; ++i) {
                const int value = values(generator);
                fixedTest.rows[std::size_t(i / 4)][i % 4] = short(value);
                test.rows[std::size_t(i / 4)][i % 4] = std::ldexp(float(value), testScale);
            }
            for (int i = 0; i < M * 4; ++i) {
                const int value = values(generator);
                fixedPattern.rows[std::size_t(i / 4)][i % 4] = short(value);
                pattern.rows[std::size_t(i / 4)][i % 4] = std::ldexp(float(value), patternScale);
            }
            const double real =
                compare(pattern, test, flags, std::ldexp(double(threshold), thresholdScale), 1);
            int expectedScale = 0, expectedResult = 0, scale = 0, result = 0;
            KTdibConvertDown(&real, &expectedResult, 1, KT_AutoScale, &expectedScale);
            const int handle = keepFixed(fixedPattern, patternScale);
            EXPECT_EQ(KTwEvalDTW(&handle, 1, fixedTest.rows.data(), N, 4, testScale, flags,
                                 threshold, thresholdScale, 1, &result, KT_AutoScale, &scale),
                      0);
            EXPECT_EQ(result, expectedResult) << run;
            EXPECT_EQ(scale, expectedScale) << run;
            KTwPatternFree(handle);
        }
    });
}

// The same real values as in the float form's test of this name, each side at a scale of its own.
TEST_F(Dtw, FixedPointLastRowRoundsOnce) {
    Utterance<short> pattern(2, 2), test(2, 2);
    pattern.rows[0][0] = 1;
    test.rows[1][0] = 4096;
    test.rows[1][1] = 1;
    const int handle = keepFixed(pattern, 0);
    for (int flags : {KT_DTW_FIXED_ENDS, KT_DTW_FIXED_ENDS | KT_DTW_NORM_L1}) {
        int result = 0, scale = 0;
        KTwEvalDTW(&handle, 1, test.rows.data(), 2, 2, -36, flags, 0, 0, 0, &result, KT_AutoScale,
                   &scale);
        EXPECT_EQ(std::ldexp(double(result), scale), 1 + 0x1p-23);
    }
}

// Converted results are equal here, but the index was settled on the doubles.
TEST_F(Dtw, FixedPointSettlesTheIndexBeforeTheConversion) {
    auto test = fixedLine({100, 200, 300}), far = fixedLine({100, 200, 303}),
         near = fixedLine({100, 200, 302});
    const int handles[] = {keepFixed(far, 0), keepFixed(near, 0)};
    support::Guarded<int> results(2);
    int scale = 4;
    EXPECT_EQ(KTwEvalDTW(handles, 2, test.rows.data(), 3, 1, 0, 0, 0, 0, 0, results.data(),
                         KT_FixedScale, &scale),
              1);
    EXPECT_EQ(results.values(), (std::vector<int>{0, 0}));
    EXPECT_EQ(scale, 4);
    EXPECT_EQ(KTwEvalDTW(handles, 2, test.rows.data(), 3, 1, 0, 0, 0, 0, 0, results.data(),
                         KT_NoScale, nullptr),
              1);
    EXPECT_EQ(results.values(), (std::vector<int>{3, 2}));
    EXPECT_TRUE(results.intact());
}

TEST_F(Dtw, FixedPointResultsThatAreNotAdmittedConvertLikeAnyOther) {
    auto test = fixedLine({100, 200, 300}), longer = fixedLine({1, 2, 3, 4, 5, 6, 7});
    const int handles[] = {keepFixed(longer, 0), 77};
    int results[2], scale = 3;
    EXPECT_EQ(
        KTwEvalDTW(handles, 2, test.rows.data(), 3, 1, 0, 0, 0, 0, 0, results, KT_Saturate, &scale),
        0);
    EXPECT_EQ(results[0], INT_MAX);
    EXPECT_EQ(results[1], INT_MAX);
    EXPECT_EQ(scale, 0);
}

TEST_F(Dtw, FixedPointScalesAtTheEndsOfTheirRange) {
    auto test = fixedLine({100, 200}), pattern = fixedLine({100, 200});
    const int handle = keepFixed(pattern, INT_MIN); // every value is 0
    int result = -1;
    EXPECT_EQ(KTwEvalDTW(&handle, 1, test.rows.data(), 2, 1, INT_MIN, KT_DTW_USE_THRESHOLD, 1,
                         INT_MIN, 0, &result, KT_NoScale, nullptr),
              0);
    EXPECT_EQ(result, 0);
}

TEST_F(Dtw, FixedPointEmptyStoreIsReported) {
    auto test = fixedLine({1, 2});
    const int handle = 1;
    int result = 0;
    EXPECT_EQ(KTwEvalDTW(&handle, 1, test.rows.data(), 2, 1, 0, 0, 0, 0, 0, &result, KT_Saturate,
                         nullptr),
              0);
    ASSERT_EQ(reports.count(), 1u);
    EXPECT_EQ(reports[0].function, "KTwPatternPtrGet");
    EXPECT_EQ(reports[0].message, "wPatterns have not been initialized.");
}

TEST_F(Dtw, FixedPointEveryFailedAllocationIsReported) {
    auto test = fixedLine({1, 2, 3}), pattern = fixedLine({1, 2, 4});
    const int handle = keepFixed(pattern, 0);
    int result = 17, nearest = 5;
    const long before = support::alloc::liveBlocks();
    const int failures = support::alloc::failEach(
        [&] {
            nearest = KTwEvalDTW(&handle, 1, test.rows.data(), 3, 1, 0, 0, 0, 0, 0, &result,
                                 KT_NoScale, nullptr);
        },
        [&] {
            EXPECT_EQ(nearest, -1);
            EXPECT_EQ(result, 17);
            ASSERT_EQ(reports.count(), 1u);
            EXPECT_EQ(reports[0].status, KT_StsNoMem);
            EXPECT_EQ(reports[0].function, "KTwEvalDTW");
            EXPECT_EQ(reports[0].message, "No memory for work arrays allocation");
            EXPECT_EQ(reports[0].source, "..\\_LIBSRC\\KT_DTW");
            EXPECT_EQ(support::alloc::liveBlocks(), before);
            reports.clear();
        });
    EXPECT_GE(failures, 1);
    EXPECT_EQ(nearest, 0);
    EXPECT_EQ(result, 1);
    EXPECT_EQ(support::alloc::liveBlocks(), before);
}

// --- handlers that clean up, or make something, while a call goes on ---

namespace {

// Empties both stores and puts one pattern of its own into each.
int restock(int status, const char*, const char*, const char*, int) {
    static bool busy = false;
    if (busy) return status;
    busy = true;
    KTsPatternFreeAll();
    KTwPatternFreeAll();
    float value = 5, *row = &value;
    short fixed = 5, *fixedRow = &fixed;
    KTsPatternIni(&row, 1, 1);
    KTwPatternIni(&fixedRow, 1, 1, 0);
    busy = false;
    return status;
}

class DtwHandler : public Dtw {
protected:
    ~DtwHandler() override { KTRedirectError(previous); }

    // Every failed allocation of the operation reports to the handler, which may take away what the
    // operation began with.
    template <class Operation>
    void failEach(Operation operation) {
        for (int n = 1;; ++n) {
            KTsPatternFreeAll();
            KTwPatternFreeAll();
            for (int i = 0; i < 63; ++i) { // the next one makes the index grow
                keep(pattern);
                KTwPatternIni(fixedRows, 2, 1, 0);
            }
            support::alloc::arm(n);
            operation();
            const bool failed = support::alloc::failed();
            support::alloc::disarm();
            if (!failed) return;
            EXPECT_EQ(KTGetStatus(), KT_StsNoMem) << n;
        }
    }

    Speech pattern = line({1, 2});
    short fixed[2] = {1, 2}, *fixedRows[2] = {fixed, fixed + 1};
    const KTErrorHandler previous = KTRedirectError(restock);
};

} // namespace

TEST_F(DtwHandler, MayReleaseEveryPatternWhereMemoryRunsOut) {
    failEach([&] { keep(pattern); });
    failEach([&] { KTwPatternIni(fixedRows, 2, 1, 0); });
    const int handles[] = {1, 63, 2};
    double results[3];
    failEach([&] { KTsEvalDTW(handles, 3, pattern.rows.data(), 2, 1, 0, 0, 0, results); });
    int fixedResults[3];
    failEach([&] {
        KTwEvalDTW(handles, 3, fixedRows, 2, 1, 0, 0, 0, 0, 0, fixedResults, KT_NoScale, nullptr);
    });
}

TEST_F(DtwHandler, MayFillTheEmptyStoreThatItHearsOf) {
    Speech test = line({5});
    const int handles[] = {1, 1, 2};
    double results[3];
    EXPECT_EQ(KTsEvalDTW(handles, 3, test.rows.data(), 1, 1, 0, 0, 0, results), 1);
    EXPECT_EQ(results[0], notAdmitted);
    EXPECT_EQ(results[1], 0.0);
    EXPECT_EQ(results[2], notAdmitted);
    KTwPatternFreeAll();
    short value = 5, *rows[] = {&value};
    int fixedResults[3];
    EXPECT_EQ(KTwEvalDTW(handles, 3, rows, 1, 1, 0, 0, 0, 0, 0, fixedResults, KT_Saturate, nullptr),
              1);
    EXPECT_EQ(fixedResults[1], 0);
    KTsPatternFreeAll();
    EXPECT_EQ(KTsPatternFree(1), -1); // made by the first of the two reports
    EXPECT_EQ(KTsPatternsNumber(), 1);
}
