// Rows times a vector against plain sums in double.
#include "frame/row_products.h"
#include "support/every_level.h"
#include "support/guarded.h"
#include "support/random.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace {

// n products and n - 1 additions, each rounded to 24 bits: the error is below n * 2^-24 times the
// sum of the products' magnitudes, and a little for the powers of that.
void expectSum(const std::vector<float>& row, const std::vector<float>& x, float sum) {
    double expected = 0, size = 0;
    for (std::size_t i = 0; i < row.size(); ++i) {
        const double product = double(row[i]) * double(x[i]);
        expected += product;
        size += std::abs(product);
    }
    EXPECT_NEAR(double(sum), expected, double(row.size()) * 0x1p-24 * size * 1.01);
}

} // namespace

TEST(RowProducts, AreThePlainSums) {
    unsigned seed = 0;
    for (const std::size_t cols : {0, 1, 2, 3, 15, 16, 17, 70})
        for (const std::size_t rows : {0, 1, 3, 4, 6}) {
            std::vector<std::vector<float>> table;
            std::vector<const float*> pointers;
            for (std::size_t r = 0; r < rows; ++r) {
                table.push_back(support::randomFloats(cols, -3, 3, ++seed));
                pointers.push_back(table.back().data());
            }
            const std::vector<float> x = support::randomFloats(cols, -3, 3, ++seed);
            std::vector<float> first;
            support::onEveryLevel([&] {
                support::Guarded<float> sums(rows, -1.0f);
                ktl::rowProducts(sums.data(), pointers.data(), x.data(), int(rows), int(cols));
                EXPECT_TRUE(sums.intact());
                for (std::size_t r = 0; r < rows; ++r)
                    expectSum(table[r], x, sums.values()[r]);
                if (first.empty()) first = sums.values();
                EXPECT_EQ(sums.values(), first); // the same bits on every level
            });
        }
}

TEST(RowProducts, TakeLaneByLaneWhatIsExact) {
    const std::vector<float> row = {1, 2, 4, 8, 16}, x = {1, 10, 100, 1000, 10000};
    const float* pointers[] = {row.data(), row.data() + 1};
    float sums[2];
    ktl::rowProducts(sums, pointers, x.data(), 2, 4);
    EXPECT_EQ(sums[0], 1.0f + 20 + 400 + 8000);
    EXPECT_EQ(sums[1], 2.0f + 40 + 800 + 16000);
}

TEST(RowProducts, WithoutRowsWriteNothingAndWithoutColumnsZeros) {
    const float x = 1, *const pointers[] = {&x, &x};
    support::Guarded<float> sums(2, -1.0f);
    for (const int rows : {0, -1})
        ktl::rowProducts(sums.data(), pointers, &x, rows, 1);
    EXPECT_EQ(sums.values(), (std::vector<float>{-1, -1}));
    for (const int cols : {0, -1}) {
        ktl::rowProducts(sums.data(), pointers, &x, 2, cols);
        EXPECT_EQ(sums.values(), (std::vector<float>{0, 0}));
        EXPECT_TRUE(sums.intact());
    }
}
