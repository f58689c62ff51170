#include "support/every_level.h"
#include "support/guarded.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

namespace {

// Rows of n elements rounded up to a multiple of 4, with rubbish behind the n.
template <class T>
struct PaddedRows {
    PaddedRows(std::mt19937& random, int rows, int n, int range) : stride((std::size_t(n) + 3) / 4 * 4) {
        for (int k = 0; k < rows; ++k) {
            storage.emplace_back(stride, T(range));
            for (int i = 0; i < n; ++i)
                storage.back()[std::size_t(i)] =
                    T(int(random() % unsigned(2 * range)) - range) / T(sizeof(T) == 4 ? 8 : 1);
        }
        for (auto& row : storage)
            pointers.push_back(row.data());
    }
    std::size_t stride;
    std::vector<support::Guarded<T>> storage;
    std::vector<const T*> pointers;
};

} // namespace

TEST(GaussKernels, ExponentsAreThoseOfTheDistancesAndNothingElseIsWritten) {
    support::onEveryLevel([] {
        std::mt19937 random(1);
        for (int n = 0; n <= 50; ++n)
            for (const int rows : {0, 1, 2, 3, 4, 5, 9}) {
                const PaddedRows<float> m(random, rows, n, 64), c(random, rows, n, 64);
                const std::size_t size = std::size_t(n), count = std::size_t(rows);
                support::Guarded<float> x(size), weights(count, 1.0f), out(count);
                for (int i = 0; i < n; ++i)
                    x[std::size_t(i)] = float(random() % 100);
                vsq::kernels().gauss->exponentsDiagonal(x.data(), m.pointers.data(), c.pointers.data(),
                                                        weights.data(), n, rows, out.data());
                EXPECT_TRUE(out.intact());
                for (std::size_t k = 0; k < std::size_t(rows); ++k) {
                    const double q =
                        vsq::kernels().mahal->diagonal(x.data(), m.pointers[k], c.pointers[k], n);
                    ASSERT_EQ(out[k], float(-std::fabs(q) * 0.5)) << n << " " << rows;
                }
            }
    });
}

TEST(GaussKernels, WordFormsWrapAndNothingElseIsWritten) {
    support::onEveryLevel([] {
        std::mt19937 random(2);
        for (int n = 0; n <= 50; ++n)
            for (const int rows : {0, 1, 3, 4, 7}) {
                const PaddedRows<short> m(random, rows, n, 32767), c(random, rows, n, 32767);
                support::Guarded<short> x(std::size_t(n), -32768);
                support::Guarded<int> out{std::size_t(rows)};
                vsq::kernels().gauss->formsW(x.data(), m.pointers.data(), c.pointers.data(), n, rows,
                                             out.data());
                EXPECT_TRUE(out.intact());
                for (std::size_t k = 0; k < std::size_t(rows); ++k) {
                    std::uint32_t sum = 0;
                    for (int i = 0; i < n; ++i) {
                        const auto d = std::uint32_t(x[std::size_t(i)] - m.pointers[k][i]);
                        sum += d * d * std::uint32_t(c.pointers[k][i]);
                    }
                    ASSERT_EQ(out[k], std::int32_t(sum)) << n << " " << rows;
                }
            }
    });
}

TEST(GaussKernels, SumsWriteTheirElementsOnly) {
    support::onEveryLevel([] {
        std::mt19937 random(3);
        for (int n = 0; n <= 50; ++n) {
            const PaddedRows<float> x(random, 11, n, 64);
            support::Guarded<float> sums(std::size_t(n), 1.0f), squares(std::size_t(n), 2.0f);
            std::vector<support::Guarded<float>> products;
            std::vector<float*> rows;
            for (int i = 0; i < n; ++i)
                products.emplace_back(std::size_t(i) + 1, 0.5f);
            for (auto& row : products)
                rows.push_back(row.data());
            vsq::kernels().gauss->sumsS(x.pointers.data(), 11, n, sums.data());
            vsq::kernels().gauss->squaresS(x.pointers.data(), 11, n, squares.data());
            vsq::kernels().gauss->productsS(x.pointers.data(), 11, n, rows.data());
            EXPECT_TRUE(sums.intact());
            EXPECT_TRUE(squares.intact());
            for (int i = 0; i < n; ++i) {
                const auto at = std::size_t(i);
                float sum = 1, square = 2;
                for (const float* row : x.pointers) {
                    sum += row[i];
                    const float product = row[i] * row[i];
                    square += product;
                }
                ASSERT_EQ(sums[at], sum);
                ASSERT_EQ(squares[at], square);
                EXPECT_TRUE(products[at].intact()) << n << " " << i;
                for (int j = 0; j <= i; ++j) {
                    float expected = 0.5f;
                    for (const float* row : x.pointers) {
                        const float product = row[i] * row[j];
                        expected += product;
                    }
                    ASSERT_EQ(products[at][std::size_t(j)], expected) << n << " " << i << " " << j;
                }
            }
        }
    });
}
