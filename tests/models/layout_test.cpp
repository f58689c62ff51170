#include "models/codebooks.h"
#include "models/layout.h"

using namespace models;

namespace {

using Layout = ModelTest;

constexpr float largest = 3.40282346638528859811704183484516925e+38f;
constexpr int pad = 0x1FFFFFFF;

int even(int n) {
    return n + (n & 1);
}
int four(int n) {
    return (n + 3) / 4 * 4;
}

// The transition array as the tables say it, written out one after the other.
template <class T>
struct Listing {
    std::vector<T> elements;
    void put(T v) { elements.push_back(v); }
};

std::vector<float> exponentialTransitions(const Model<float>& m, Shape stored) {
    Listing<float> list;
    const auto a = [&](int i, int j) { return m.trans[at(i)][at(j)]; };
    const int n = m.n;
    if (stored == Shape::banded) {
        for (int i = 0; i <= n - 3; ++i)
            for (int d = 0; d < 3; ++d)
                list.put(a(i, i + d));
        list.put(a(n - 2, n - 2));
        list.put(a(n - 2, n - 1));
        list.put(a(n - 1, n - 1));
        list.put(a(n - 1, n - 1));
    } else {
        for (int i = 0; i < n; ++i)
            for (int j = stored == Shape::triangular ? i : 0; j < n; ++j)
                list.put(a(i, j));
    }
    return list.elements;
}

std::vector<float> logarithmicTransitions(const Model<float>& m, Shape stored) {
    Listing<float> list;
    const auto a = [&](int i, int j) { return m.trans[at(i)][at(j)]; };
    const int n = m.n;
    if (stored == Shape::banded) {
        for (int d = 0; d < 3; ++d)
            for (int i = 0; i + d < n; ++i)
                list.put(a(i, i + d));
        list.put(a(n - 1, n - 1));
    } else {
        for (int j = n - 1; j >= 0; --j)
            for (int i = 0; i <= (stored == Shape::triangular ? j : n - 1); ++i)
                list.put(a(i, j));
    }
    return list.elements;
}

std::vector<int> fixedTransitions(const Model<short>& m, Shape stored, bool costs) {
    Listing<int> list;
    const auto a = [&](int i, int j) {
        const short v = m.trans[at(i)][at(j)];
        return costs ? widened(v) : v;
    };
    const int n = m.n, filler = costs ? pad : 0, zero = costs ? 0x1FFFFF : 0;
    if (stored == Shape::banded) {
        for (int d = 0; d < 3; ++d) {
            for (int j = 0; j < n; ++j)
                list.put(j < d ? zero : a(j - d, j));
            if (n % 2 == 1) list.put(filler);
        }
    } else {
        for (int j = n - 1; j >= 0; --j) {
            for (int i = 0; i <= (stored == Shape::triangular ? j : n - 1); ++i)
                list.put(a(i, j));
            if (stored == Shape::triangular ? j % 2 == 0 : n % 2 == 1) list.put(filler);
        }
    }
    return list.elements;
}

// The topology that a shape of n states is found to have.
Shape found(Shape shape, int n) {
    if (shape == Shape::full || n == 1) return Shape::full;
    if (n == 2) return Shape::triangular;
    return n == 3 ? Shape::banded : shape;
}
unsigned bitOf(Shape shape) {
    if (shape == Shape::full) return 0;
    return shape == Shape::banded ? HMM_SERVER_BANDED : HMM_SERVER_TRIANGULAR;
}
std::size_t elementsOf(Shape shape, int n, bool isFixed) {
    const auto count = at(n);
    if (isFixed) {
        if (shape == Shape::full) return count * at(even(n));
        return shape == Shape::banded ? 3 * at(even(n)) : (count + 1) * (count + 1) / 2;
    }
    if (shape == Shape::full) return count * count;
    return shape == Shape::banded ? 3 * count - 2 : count * (count + 1) / 2;
}

const HMMServer& server(int id) {
    return *KTFindHMMServer(id);
}

unsigned topologyBits(int id) {
    return server(id).status & (HMM_SERVER_BANDED | HMM_SERVER_TRIANGULAR);
}

} // namespace

// --- transitions ---

TEST_F(Layout, FloatTransitions) {
    std::mt19937 random(2);
    for (const Shape shape : allShapes)
        for (int n = 1; n <= 9; ++n) {
            const auto model = randomModel(random, n, 1, shape);
            const auto costs = costsOf(model);
            const Shape as = found(shape, n);
            const int id = model.discrete(KT_HMM_EXPONENTIAL),
                      costId = costs.discrete(KT_HMM_LOGARITHMIC);
            EXPECT_EQ(topologyBits(id), bitOf(as));
            EXPECT_EQ(topologyBits(costId), bitOf(as));
            const auto count = elementsOf(as, n, false);
            const auto expected = exponentialTransitions(model, as);
            ASSERT_EQ(expected.size(), count);
            EXPECT_EQ(hmm::TransitionMap::of(server(id)).size(), count);
            EXPECT_EQ(storedAt<float>(server(id).transitions, count, 16), expected);
            EXPECT_EQ(storedAt<float>(server(costId).transitions, count, 16),
                      logarithmicTransitions(costs, as));
        }
}

TEST_F(Layout, FixedTransitions) {
    std::mt19937 random(3);
    for (const Shape shape : allShapes)
        for (int n = 1; n <= 9; ++n)
            for (const bool costs : {false, true}) {
                auto model = fixedOf(randomModel(random, n, 1, shape));
                if (!costs)
                    for (auto& row : model.trans)
                        std::replace(row.begin(), row.end(), short(0x7FFF), short(0));
                const Shape as = found(shape, n);
                const int id = model.discrete(costs ? int(KT_HMM_LOGARITHMIC) : 0);
                EXPECT_EQ(topologyBits(id), bitOf(as));
                const auto count = elementsOf(as, n, true);
                const auto expected = fixedTransitions(model, as, costs);
                ASSERT_EQ(expected.size(), count);
                EXPECT_EQ(hmm::TransitionMap::of(server(id)).size(), count);
                EXPECT_EQ(storedAt<int>(server(id).transitions, count, 8), expected);
            }
}

// --- tiles ---

TEST_F(Layout, TiledTransitions) {
    std::mt19937 random(4);
    for (const Shape shape : allShapes)
        for (int n = 1; n <= 9; ++n) {
            const auto model = costsOf(randomModel(random, n, 2, shape));
            const Shape as = found(shape, n);
            const int plain = model.discrete(0);
            KTGetContext()->hmmMode |= HMM_MODE_TILED;
            const int id = model.discrete(0);
            KTGetContext()->hmmMode &= ~HMM_MODE_TILED;
            ASSERT_EQ(server(id).status, server(plain).status | HMM_SERVER_TILED);
            const auto n4 = at(four(n));
            const std::size_t count = as == Shape::full     ? at(n) * n4
                                      : as == Shape::banded ? 3 * n4
                                                            : (n4 + 4) * n4 / 2;
            const auto map = hmm::TransitionMap::of(server(id));
            ASSERT_EQ(map.size(), count);
            const auto elements = storedAt<float>(server(id).transitions, count, 16);
            std::vector<bool> used(count, false);
            for (int i = 0; i < n; ++i)
                for (int j = 0; j < n; ++j) {
                    if (!allows(as, i, j)) continue;
                    const std::size_t position = map.position(i, j);
                    ASSERT_LT(position, count);
                    ASSERT_FALSE(used[position]);
                    used[position] = true;
                    EXPECT_EQ(elements[position], model.trans[at(i)][at(j)]);
                    if (as == Shape::banded) { // rows by target
                        EXPECT_EQ(position, at(j - i) * n4 + at(j));
                    } else { // the first block has the highest four targets
                        const std::size_t blockLength = 4 * (as == Shape::full ? at(n) : n4);
                        EXPECT_EQ(position < blockLength, at(j) >= n4 - 4);
                    }
                }
            for (std::size_t k = 0; k < count; ++k)
                if (!used[k]) {
                    EXPECT_EQ(elements[k], largest);
                }
            void* back = KTUntileHMMTrans(server(id).transitions, server(id).status, n);
            const auto length = elementsOf(as, n, false);
            EXPECT_EQ(storedAt<float>(back, length, 16), logarithmicTransitions(model, as));
            std::free(back);
            const auto symbols = randomSymbols(random, 20, 2);
            EXPECT_EQ(KTsEvalHMMViterbi(id, symbols.data(), 20, nullptr),
                      KTsEvalHMMViterbi(plain, symbols.data(), 20, nullptr));
            const int copy = KTCopyHMMServer(id);
            EXPECT_EQ(storedAt<float>(server(copy).transitions, count, 16), elements);
        }
}

TEST_F(Layout, OnlyLogarithmicFloatServersAreTiled) {
    std::mt19937 random(5);
    const auto model = randomModel(random, 5, 2, Shape::full);
    KTSetHMMMode(0);
    KTGetContext()->hmmMode |= HMM_MODE_TILED;
    EXPECT_EQ(server(model.discrete(KT_HMM_EXPONENTIAL)).status & HMM_SERVER_TILED, 0u);
    EXPECT_EQ(server(fixedOf(model).discrete(KT_HMM_LOGARITHMIC)).status & HMM_SERVER_TILED, 0u);
}

// --- outputs and initial vectors ---

TEST_F(Layout, DiscreteFloatOutputs) {
    std::mt19937 random(6);
    for (int n = 1; n <= 6; ++n)
        for (int m = 1; m <= 6; ++m) {
            const auto model = randomModel(random, n, m, Shape::full);
            const int id = model.discrete(KT_HMM_EXPONENTIAL);
            float* const* rows = static_cast<float**>(server(id).outputs);
            for (int k = 0; k < m; ++k) {
                EXPECT_EQ(reinterpret_cast<std::uintptr_t>(rows[k]) % 16, 0u);
                EXPECT_EQ(rows[k], rows[0] + k * four(n));
                for (int i = 0; i < four(n); ++i)
                    EXPECT_EQ(rows[k][i], i < n ? model.out[at(i)][at(k)] : largest);
            }
            for (int k = m; k < four(m); ++k)
                EXPECT_EQ(rows[k], nullptr);
            const auto initials = storedAt<float>(server(id).initials, at(four(n)), 16);
            for (int i = 0; i < four(n); ++i)
                EXPECT_EQ(initials[at(i)], i < n ? model.initial[at(i)] : largest);
        }
}

TEST_F(Layout, DiscreteFixedOutputs) {
    std::mt19937 random(7);
    for (const bool costs : {false, true})
        for (int n = 1; n <= 5; ++n)
            for (int m = 1; m <= 5; ++m) {
                auto model = fixedOf(randomModel(random, n, m, Shape::full));
                model.out[0][0] = 0x7FFE;
                model.out[at(n - 1)][at(m - 1)] = 0x7FFF;
                model.initial[0] = 0x7FFE;
                const int id = model.discrete(costs ? int(KT_HMM_LOGARITHMIC) : 0);
                const auto value = [&](short v) { return costs ? widened(v) : int(v); };
                const int filler = costs ? 0x1FFFFF : 0;
                int* const* rows = static_cast<int**>(server(id).outputs);
                for (int k = 0; k < m; ++k) {
                    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(rows[k]) % 8, 0u);
                    EXPECT_EQ(rows[k], rows[0] + k * even(n));
                    for (int i = 0; i < even(n); ++i)
                        EXPECT_EQ(rows[k][i], i < n ? value(model.out[at(i)][at(k)]) : filler);
                }
                for (int k = m; k < even(m); ++k)
                    EXPECT_EQ(rows[k], nullptr);
                const auto initials = storedAt<int>(server(id).initials, at(even(n)), 8);
                for (int i = 0; i < even(n); ++i)
                    EXPECT_EQ(initials[at(i)], i < n ? value(model.initial[at(i)]) : filler);
            }
}

TEST_F(Layout, SemicontinuousWeights) {
    std::mt19937 random(8);
    for (int n = 1; n <= 5; ++n)
        for (int m = 1; m <= 6; ++m) {
            reset();
            auto densities = floatServers(random, m, 2, 1, false);
            auto fixedDensities = fixedServers(random, m, 2, 1, false);
            ASSERT_EQ(KTsInitSemicontCodebook(densities.table.data(), m, 2, 0), 1);
            ASSERT_EQ(KTwInitSemicontCodebook(fixedDensities.table.data(), m, 2, 0), 1);
            for (const bool costs : {false, true}) {
                auto model = randomModel(random, n, m, Shape::full);
                if (costs) model.out[0][0] = 35.0f; // weights are no costs: nothing is done to them
                const int id = model.semicont(2, costs ? KT_HMM_LOGARITHMIC : KT_HMM_EXPONENTIAL);
                float* const* rows = static_cast<float**>(server(id).outputs);
                for (int i = 0; i < n; ++i) {
                    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(rows[i]) % 16, 0u);
                    for (int k = 0; k < four(m); ++k)
                        EXPECT_EQ(rows[i][k], k < m ? model.out[at(i)][at(k)] : 0.0f);
                }
                for (int i = n; i < four(n); ++i)
                    EXPECT_EQ(rows[i], nullptr);

                auto fixed = fixedOf(model);
                fixed.out[at(n - 1)][at(m - 1)] = 0x7FFF;
                const int fixedId = fixed.semicont(2, costs ? int(KT_HMM_LOGARITHMIC) : 0, -8);
                short* const* words = static_cast<short**>(server(fixedId).outputs);
                for (int i = 0; i < n; ++i) {
                    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(words[i]) % 8, 0u);
                    for (int k = 0; k < four(m); ++k)
                        EXPECT_EQ(words[i][k], k < m ? fixed.out[at(i)][at(k)] : 0);
                }
                for (int i = n; i < even(n); ++i)
                    EXPECT_EQ(words[i], nullptr);
            }
        }
}
