#include "support/every_level.h"
#include "support/guarded.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

namespace {

// Rows of n elements rounded up to a multiple of 4, with rubbish behind the n.
template <class T>
struct PaddedRows {
    PaddedRows(std::mt19937& random, int rows, int n, int range)
        : stride((std::size_t(n) + 3) / 4 * 4) {
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

// What the kernels of the distances, the exponential and the dot product make of the forms; the
// densities go to `out`.
double likelihoodOf(const std::vector<double>& forms, const std::vector<float>& weights,
                    const std::vector<float>& normWeights, std::vector<float>& out) {
    out.clear();
    for (std::size_t k = 0; k < forms.size(); ++k)
        out.push_back(weights[k] == 0.0f && !std::signbit(weights[k])
                          ? 0.0f
                          : float(-std::fabs(forms[k]) * 0.5));
    vsq::kernels().lnexp->exp(out.data(), int(out.size()));
    return vsq::kernels().dotp->dot(out.data(), normWeights.data(), int(out.size()));
}

// Weights with a 0 and a -0 among them, padded to a multiple of 4 with rubbish.
std::vector<float> someWeights(std::mt19937& random, int count) {
    std::vector<float> weights(std::size_t(count + 3) / 4 * 4, NAN);
    for (int k = 0; k < count; ++k)
        weights[std::size_t(k)] = k % 5 == 2   ? 0.0f
                                  : k % 5 == 4 ? -0.0f
                                               : float(random() % 100) / 64;
    return weights;
}

constexpr int mixtureCounts[] = {1, 2, 3, 4, 5, 7, 8, 9, 12, 16, 17, 31, 32, 33, 50};

} // namespace

TEST(GaussKernels, DiagonalLikelihoodsHaveTheBitsOfTheirSteps) {
    support::onEveryLevel([] {
        std::mt19937 random(1);
        for (int n = 0; n <= 50; ++n)
            for (const int rows : mixtureCounts) {
                const PaddedRows<float> m(random, rows, n, 16), c(random, rows, n, 8);
                support::Guarded<float> x{std::size_t(n)}, work(std::size_t(rows + 3) / 4 * 4);
                for (int i = 0; i < n; ++i)
                    x[std::size_t(i)] = float(random() % 100) / 32;
                const auto weights = someWeights(random, rows),
                           normWeights = someWeights(random, rows);
                std::vector<double> forms;
                for (const float* row : m.pointers)
                    forms.push_back(vsq::kernels().mahal->diagonalFloat(
                        x.data(), row, c.pointers[forms.size()], n));
                std::vector<float> densities;
                const double expected = likelihoodOf(forms, weights, normWeights, densities);
                ASSERT_EQ(vsq::kernels().gauss->evaluateDiagonal(
                              x.data(), m.pointers.data(), c.pointers.data(), weights.data(),
                              normWeights.data(), n, rows, work.data()),
                          expected)
                    << n << " " << rows;
                for (std::size_t k = 0; k < std::size_t(rows); ++k)
                    ASSERT_EQ(work[k], densities[k]) << n << " " << rows << " " << k;
                EXPECT_TRUE(work.intact());
            }
    });
}

// Rows are padded, and what stands behind the diagonals is not a number.
TEST(GaussKernels, FullLikelihoodsHaveTheBitsOfTheirSteps) {
    support::onEveryLevel([] {
        std::mt19937 random(4);
        for (const int n : {0, 1, 2, 3, 4, 5, 8, 13, 15, 16, 17, 20, 31, 32, 33, 39, 50})
            for (const int rows : {1, 3, 4, 5, 8, 9, 17}) {
                const PaddedRows<float> m(random, rows, n, 16);
                std::vector<PaddedRows<float>> matrices;
                std::vector<const float* const*> tables;
                for (int k = 0; k < rows; ++k) {
                    matrices.emplace_back(random, n, n, 2);
                    for (std::size_t i = 0; i < std::size_t(n); ++i)
                        for (std::size_t j = i + 1; j < matrices.back().stride; ++j)
                            matrices.back().storage[i][j] = NAN;
                }
                for (auto& matrix : matrices) {
                    matrix.pointers.clear();
                    for (auto& row : matrix.storage)
                        matrix.pointers.push_back(row.data());
                    tables.push_back(matrix.pointers.data());
                }
                support::Guarded<float> x{std::size_t(n)}, work(std::size_t(rows + 3) / 4 * 4);
                for (int i = 0; i < n; ++i)
                    x[std::size_t(i)] = float(random() % 100) / 32;
                const auto weights = someWeights(random, rows),
                           normWeights = someWeights(random, rows);
                std::vector<double> forms;
                for (const float* row : m.pointers)
                    forms.push_back(
                        vsq::kernels().mahal->fullFloat(x.data(), row, tables[forms.size()], n));
                std::vector<float> densities;
                const double expected = likelihoodOf(forms, weights, normWeights, densities);
                ASSERT_EQ(vsq::kernels().gauss->evaluateFull(
                              x.data(), m.pointers.data(), tables.data(), weights.data(),
                              normWeights.data(), n, rows, work.data()),
                          expected)
                    << n << " " << rows;
                for (std::size_t k = 0; k < std::size_t(rows); ++k)
                    ASSERT_EQ(work[k], densities[k]) << n << " " << rows << " " << k;
                EXPECT_TRUE(work.intact());
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
                vsq::kernels().gauss->formsFixed(x.data(), m.pointers.data(), c.pointers.data(), n,
                                                 rows, out.data());
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
            vsq::kernels().gauss->sumsFloat(x.pointers.data(), 11, n, sums.data());
            vsq::kernels().gauss->squaresFloat(x.pointers.data(), 11, n, squares.data());
            vsq::kernels().gauss->productsFloat(x.pointers.data(), 11, n, rows.data());
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
