// Rows times a vector, against loops that do one addition after the other.
#include "support/every_level.h"
#include "support/guarded.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

namespace {

using support::Guarded;

// Rows that end where their last element does, each guarded on both sides.
template <class T>
struct Rows {
    std::vector<Guarded<T>> storage;
    std::vector<const T*> pointers;

    template <class Draw>
    Rows(int rows, int cols, const Draw& draw) {
        for (int r = 0; r < rows; ++r) {
            storage.emplace_back(std::size_t(cols));
            for (int c = 0; c < cols; ++c)
                storage.back()[std::size_t(c)] = draw();
        }
        for (const auto& row : storage)
            pointers.push_back(row.data());
    }
};

// The sum as the kernel's header tells it: 16 lanes of floats, then the upper half on the lower one
// until one is left.
float sumInLanes(const float* row, const float* x, int cols) {
    float lanes[16] = {};
    for (int c = 0; c < cols; ++c) {
        const float product = row[c] * x[c];
        lanes[c % 16] += product;
    }
    for (int half = 8; half >= 1; half /= 2)
        for (int l = 0; l < half; ++l)
            lanes[l] += lanes[l + half];
    return lanes[0];
}

int sumOfShifted(const short* row, const short* x, int cols, int shift) {
    std::uint32_t sum = 0;
    for (int c = 0; c < cols; ++c)
        sum += std::uint32_t((int(row[c]) * int(x[c])) >> (shift & 31));
    return int(sum);
}

} // namespace

TEST(FloatRows, AreSummedInSixteenLanesOnEveryLevel) {
    support::onEveryLevel([] {
        std::mt19937 random(1);
        std::normal_distribution<float> normal(0.0f, 3.0f);
        const auto draw = [&] { return normal(random); };
        for (int cols = 0; cols <= 130; ++cols)
            for (const int rows : {0, 1, 2, 3, 4, 5, 7, 8, 9, 16, 21}) {
                const Rows<float> table(rows, cols, draw), x(1, cols, draw);
                Guarded<float> sums(std::size_t(rows), -1.0f);
                vsq::kernels().matvec->rowsFloat(sums.data(), table.pointers.data(), 0,
                                                 x.pointers[0], rows, cols);
                EXPECT_TRUE(sums.intact());
                for (int r = 0; r < rows; ++r)
                    ASSERT_EQ(sums[std::size_t(r)],
                              sumInLanes(table.pointers[std::size_t(r)], x.pointers[0], cols))
                        << cols << ' ' << r;
            }
    });
}

// A product passes through its own rounding, at most cols / 16 additions in its lane and 4 of the
// tree.
TEST(FloatRows, StayWithinTheBoundOfTheirRoundings) {
    support::onEveryLevel([] {
        std::mt19937 random(2);
        std::normal_distribution<float> normal(0.0f, 3.0f);
        const auto draw = [&] { return normal(random); };
        for (const int cols : {1, 15, 16, 17, 39, 64, 128, 1000, 4097}) {
            const Rows<float> table(5, cols, draw), x(1, cols, draw);
            float sums[5];
            vsq::kernels().matvec->rowsFloat(sums, table.pointers.data(), 0, x.pointers[0], 5,
                                             cols);
            for (int r = 0; r < 5; ++r) {
                long double sum = 0, size = 0;
                for (int c = 0; c < cols; ++c) {
                    const long double product =
                        static_cast<long double>(table.pointers[std::size_t(r)][c]) *
                        x.pointers[0][c];
                    sum += product;
                    size += std::fabs(product);
                }
                const long double bound = (cols / 16 + 1 + 4 + 1) * 0x1p-24L * size * 1.001L;
                EXPECT_LE(std::fabs(sums[r] - sum), bound) << cols;
            }
        }
    });
}

TEST(FloatRows, MayBeginAtALaterColumn) {
    support::onEveryLevel([] {
        const std::vector<float> row = {1, 2, 4, 8, 16}, x = {1, 10, 100};
        const float* pointers[5] = {row.data(), row.data(), row.data(), row.data(), row.data()};
        Guarded<float> sums(5);
        vsq::kernels().matvec->rowsFloat(sums.data(), pointers, 2, x.data(), 5, 3);
        EXPECT_EQ(sums.values(), std::vector<float>(5, 4.0f + 80.0f + 1600.0f));
    });
}

TEST(FloatRows, WithoutColumnsGiveZeroAndWithoutRowsNothing) {
    support::onEveryLevel([] {
        const float row[1] = {7};
        const float* pointers[6] = {row, row, row, row, row, row};
        for (const int cols : {0, -1, -100}) {
            Guarded<float> sums(6, -1.0f);
            vsq::kernels().matvec->rowsFloat(sums.data(), pointers, 0, row, 6, cols);
            EXPECT_EQ(sums.values(), std::vector<float>(6, 0.0f));
            EXPECT_TRUE(sums.intact());
        }
        for (const int rows : {0, -1}) {
            Guarded<float> none(3, -1.0f);
            vsq::kernels().matvec->rowsFloat(none.data(), pointers, 0, row, rows, 1);
            EXPECT_EQ(none.values(), std::vector<float>(3, -1.0f));
        }
    });
}

// What stands in one row reaches that row's sum alone; what stands behind a row's end reaches none.
TEST(FloatRows, KeepWhatIsNoNumberToTheirRow) {
    support::onEveryLevel([] {
        std::mt19937 random(3);
        std::uniform_real_distribution<float> uniform(-1, 1);
        for (const int cols : {1, 7, 16, 20, 39}) {
            Rows<float> table(6, cols, [&] { return uniform(random); });
            const Rows<float> x(1, cols, [] { return 1.0f; });
            table.storage[1][std::size_t(cols) - 1] = std::numeric_limits<float>::quiet_NaN();
            table.storage[4][0] = std::numeric_limits<float>::infinity();
            float sums[6];
            vsq::kernels().matvec->rowsFloat(sums, table.pointers.data(), 0, x.pointers[0], 6,
                                             cols);
            for (const int r : {0, 2, 3, 5})
                EXPECT_EQ(sums[r], sumInLanes(table.pointers[std::size_t(r)], x.pointers[0], cols));
            EXPECT_TRUE(std::isnan(sums[1]));
            EXPECT_EQ(sums[4], std::numeric_limits<float>::infinity());
        }
    });
}

TEST(WordRows, AreExactForEveryShiftOnEveryLevel) {
    support::onEveryLevel([] {
        std::mt19937 random(4);
        std::uniform_int_distribution<int> words(-32768, 32767);
        for (const int cols : {0, 1, 7, 15, 16, 17, 31, 32, 33, 39, 48, 49, 63, 64, 65, 128, 300})
            for (int shift = -3; shift <= 34; ++shift) {
                Rows<short> table(6, cols, [&] { return short(words(random)); });
                Rows<short> x(1, cols, [&] { return short(words(random)); });
                for (std::size_t c = 0; c < std::size_t(cols); c += 3) // the largest product
                    x.storage[0][c] = table.storage[0][c] = table.storage[4][c] = -32768;
                Guarded<int> sums(6, -1);
                vsq::kernels().matvec->rowsFixed(sums.data(), table.pointers.data(), x.pointers[0],
                                                 6, cols, shift);
                EXPECT_TRUE(sums.intact());
                for (std::size_t r = 0; r < 6; ++r)
                    ASSERT_EQ(sums[r], sumOfShifted(table.pointers[r], x.pointers[0], cols, shift))
                        << cols << ' ' << shift << ' ' << r;
            }
    });
}

TEST(WordRows, OfEveryNumberAreSummed) {
    support::onEveryLevel([] {
        std::mt19937 random(5);
        std::uniform_int_distribution<int> words(-32768, 32767);
        const auto draw = [&] { return short(words(random)); };
        for (int rows = 0; rows <= 21; ++rows)
            for (const int cols : {5, 32, 39}) {
                const Rows<short> table(rows, cols, draw), x(1, cols, draw);
                Guarded<int> sums(std::size_t(rows), -1);
                vsq::kernels().matvec->rowsFixed(sums.data(), table.pointers.data(), x.pointers[0],
                                                 rows, cols, 15);
                EXPECT_TRUE(sums.intact());
                for (std::size_t r = 0; r < std::size_t(rows); ++r)
                    ASSERT_EQ(sums[r], sumOfShifted(table.pointers[r], x.pointers[0], cols, 15));
            }
    });
}

// Long rows whose partial sums have their largest and smallest values everywhere: no lane may
// overflow.
TEST(WordRows, OfExtremesAreExact) {
    support::onEveryLevel([] {
        constexpr int cols = 70001;
        for (const int w : {-32768, 32767, -1, 1})
            for (const int v : {-32768, 32767, -1, 1}) {
                const Rows<short> table(5, cols, [w] { return short(w); }),
                    x(1, cols, [v] { return short(v); });
                for (const int shift : {0, 1, 8, 14, 15, 16, 31}) {
                    int sums[5];
                    vsq::kernels().matvec->rowsFixed(sums, table.pointers.data(), x.pointers[0], 5,
                                                     cols, shift);
                    for (const int sum : sums)
                        ASSERT_EQ(sum, int(std::uint32_t((w * v) >> shift) * std::uint32_t(cols)))
                            << w << ' ' << v << ' ' << shift;
                }
            }
    });
}

TEST(WordRows, ShiftEachProductBeforeItIsAdded) {
    support::onEveryLevel([] {
        const Rows<short> table(1, 40, [] { return short(-1); }), x(1, 40, [] { return short(1); });
        int sum = 0;
        vsq::kernels().matvec->rowsFixed(&sum, table.pointers.data(), x.pointers[0], 1, 40, 15);
        EXPECT_EQ(sum, -40); // each (-1 * 1) >> 15 is -1
    });
}

TEST(WordRows, WithoutColumnsGiveZeroAndWithoutRowsNothing) {
    support::onEveryLevel([] {
        const short row[1] = {7};
        const short* pointers[6] = {row, row, row, row, row, row};
        for (const int cols : {0, -1, -100}) {
            Guarded<int> sums(6, -1);
            vsq::kernels().matvec->rowsFixed(sums.data(), pointers, row, 6, cols, 15);
            EXPECT_EQ(sums.values(), std::vector<int>(6, 0));
            EXPECT_TRUE(sums.intact());
        }
        for (const int rows : {0, -1}) {
            Guarded<int> none(3, -1);
            vsq::kernels().matvec->rowsFixed(none.data(), pointers, row, rows, 1, 15);
            EXPECT_EQ(none.values(), std::vector<int>(3, -1));
        }
    });
}
