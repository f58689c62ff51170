// The orders of a model's parts against orders of the values that the model was made of.
#include "models/stored_models.h"
#include "support/alloc_faults.h"
#include "support/reports.h"

#include "models/layout.h"
#include "quantisers/density_codebook.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

namespace {

using namespace models;
using Floats = std::vector<float>;
using Ints = std::vector<std::int32_t>;

class HmmScales : public testing::Test {
protected:
    ~HmmScales() override { KTHMMFreeAll(); }

    void expectOneReport(const char* text, const char* function, int status) {
        ASSERT_EQ(reports.count(), 1u);
        EXPECT_EQ(reports[0].status, status);
        EXPECT_EQ(reports[0].message, text);
        EXPECT_EQ(reports[0].function, function);
        EXPECT_EQ(reports[0].source, "..\\_LIBSRC\\KT_HCONV");
        reports.clear();
    }

    support::CapturedReports reports;
    std::mt19937 random{20250612};
};

int floatOrder(const Floats& values) {
    int order = -126;
    for (const float v : values) {
        std::uint32_t bits;
        std::memcpy(&bits, &v, sizeof bits);
        order = std::max(order, int((bits >> 23) & 0xFF) - 126);
    }
    return order;
}
int intOrder(const Ints& values) {
    unsigned bits = 0;
    for (const int v : values)
        bits |= v < 0 ? 0u - unsigned(v) : unsigned(v);
    int order = 0;
    for (; bits != 0; bits >>= 1)
        ++order;
    return order;
}

template <class W>
std::vector<W> without(std::vector<W> values, W limit) {
    for (W& v : values)
        if (v > limit) v = 0;
    return values;
}

int orderOf(int id) {
    int order = 12345;
    KTGetHMMScales(id, &order, nullptr, nullptr, nullptr);
    return order;
}

TEST_F(HmmScales, AllPointersNullDoNothing) {
    auto model = randomModel<float>(random, OutputKind::discrete, Shape::full, 3, 1, 2, 0);
    const int id = model.create();
    KTGetHMMScales(id, nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(KTGetContext()->hmmScalesLen, 0);
    EXPECT_EQ(reports.count(), 0u);
}

TEST_F(HmmScales, OrdersOfEveryFloatModel) {
    Codebook<float> codebook(random, 5, 3);
    for (const OutputKind kind : allKinds)
        for (const Shape shape : allShapes)
            for (const unsigned domain : {1u, 2u})
                for (int n = 1; n <= 7; ++n) {
                    auto model = randomModel<float>(random, kind, shape, n, domain, 5, 3);
                    Floats all = model.initial;
                    Floats transitions = storedTransitions(model);
                    if (model.shape == Shape::banded) transitions.pop_back();
                    all.insert(all.end(), transitions.begin(), transitions.end());
                    for (const auto& row : model.out)
                        if (kind == OutputKind::discrete)
                            all.insert(all.end(), row.begin(), row.end());
                    const int wanted = floatOrder(domain == 1 ? without(all, 40.0f) : all);
                    EXPECT_EQ(orderOf(model.create()), wanted)
                        << int(kind) << int(shape) << domain << n;
                }
}

TEST_F(HmmScales, OrdersOfEveryFixedModel) {
    Codebook<short> codebook(random, 5, 3);
    for (const OutputKind kind : allKinds)
        for (const Shape shape : allShapes)
            for (const unsigned domain : {0u, 1u})
                for (int n = 1; n <= 7; ++n) {
                    auto model = randomModel<short>(random, kind, shape, n, domain, 5, 3);
                    Ints all = storedTransitions(model);
                    for (const short v : model.initial)
                        all.push_back(widened(v, domain));
                    for (const auto& row : model.out)
                        for (const short v : row)
                            if (kind == OutputKind::discrete) all.push_back(widened(v, domain));
                    const int wanted = intOrder(domain == 1 ? without(all, 0x10000) : all);
                    EXPECT_EQ(orderOf(model.create()), wanted)
                        << int(kind) << int(shape) << domain << n;
                }
}

TEST_F(HmmScales, CostsAboveFortyAreIgnored) {
    auto model = randomModel<float>(random, OutputKind::discrete, Shape::full, 2, 1, 1, 0);
    model.trans = {{50.0f, 1.5f}, {1.25f, 50.0f}};
    model.initial = {50.0f, 0.5f};
    model.out = {{50.0f}, {0.25f}};
    EXPECT_EQ(orderOf(model.create()), 1); // 1.5 < 2
    model.trans[0][0] = 40.0f;
    EXPECT_EQ(orderOf(model.create()), 6); // 40 < 64 is still a cost
}

TEST_F(HmmScales, FixedCostsAbove10000AreIgnored) {
    auto model = randomModel<short>(random, OutputKind::discrete, Shape::full, 2, 1, 1, 0);
    model.trans = {{3, 3}, {3, 3}};
    model.initial = {3, 3};
    model.out = {{3}, {3}};
    const int id = model.create();
    int* stored = hmm::ints(KTFindHMMServer(id)->initials);
    stored[0] = 0x10001;
    EXPECT_EQ(orderOf(id), 2);
    stored[0] = 0x10000;
    EXPECT_EQ(orderOf(id), 17);
}

TEST_F(HmmScales, TiledCostsAreMeasuredPlain) {
    for (const Shape shape : allShapes) {
        auto model = randomModel<float>(random, OutputKind::discrete, shape, 5, 1, 1, 0);
        const int order = orderOf(model.create());
        KTHMMFreeAll();
        KTSetHMMMode(0);
        KTGetContext()->hmmMode |= HMM_MODE_TILED;
        EXPECT_EQ(orderOf(model.create()), order);
        EXPECT_EQ(KTGetContext()->hmmScalesLen,
                  int(std::max<std::size_t>(
                      storedTransitions(model).size() - (shape == Shape::banded), 8)));
        KTHMMFreeAll();
    }
}

// The last element of a float band is a duplicate and is not looked at.
TEST_F(HmmScales, TheDuplicateOfABandIsLeftOut) {
    for (const unsigned domain : {1u, 2u}) {
        auto model =
            randomModel<float>(random, OutputKind::discrete, Shape::banded, 4, domain, 1, 0);
        const int id = model.create(), order = orderOf(id);
        hmm::floats(KTFindHMMServer(id)->transitions)[9] = 39.0f;
        EXPECT_EQ(orderOf(id), order);
    }
}

TEST_F(HmmScales, TheScratchGrowsAndStays) {
    const KTContext* context = KTGetContext();
    auto small = randomModel<float>(random, OutputKind::discrete, Shape::full, 3, 1, 2, 0);
    orderOf(small.create());
    EXPECT_EQ(context->hmmScalesLen, 9); // 3 x 3 transitions against 2 x 4 outputs
    auto wide = randomModel<float>(random, OutputKind::discrete, Shape::full, 3, 1, 5, 0);
    orderOf(wide.create());
    EXPECT_EQ(context->hmmScalesLen, 20);
    const int* buffer = context->hmmScalesBuffer;
    auto fixed = randomModel<short>(random, OutputKind::discrete, Shape::full, 3, 1, 2, 0);
    orderOf(fixed.create());
    EXPECT_EQ(context->hmmScalesLen, 20);
    EXPECT_EQ(context->hmmScalesBuffer, buffer);
    auto probabilities = randomModel<float>(random, OutputKind::discrete, Shape::full, 8, 2, 2, 0);
    orderOf(probabilities.create()); // read where it stands
    EXPECT_EQ(context->hmmScalesLen, 20);
    KTHMMFreeAll();
    EXPECT_EQ(context->hmmScalesBuffer, nullptr);
    EXPECT_EQ(context->hmmScalesLen, 0);
}

TEST_F(HmmScales, NoMemoryForTheScratchIsReported) {
    auto model = randomModel<float>(random, OutputKind::discrete, Shape::full, 3, 1, 2, 0);
    auto fixedModel = randomModel<short>(random, OutputKind::discrete, Shape::full, 3, 1, 2, 0);
    const int id = model.create(), fixed = fixedModel.create();
    support::alloc::arm(1);
    EXPECT_EQ(orderOf(id), 12345);
    support::alloc::disarm();
    expectOneReport("insufficiency of memory for pointer  buff", "KTGetHMMScales", -4);
    support::alloc::arm(1);
    EXPECT_EQ(orderOf(fixed), 12345);
    support::alloc::disarm();
    expectOneReport("insufficiency of memory for pointer  bufs", "KTGetHMMScales", -4);
    EXPECT_EQ(KTGetContext()->hmmScalesLen, 0);
    orderOf(id);
    KTFreeHMMServer(fixed);
    auto larger = randomModel<float>(random, OutputKind::discrete, Shape::full, 9, 1, 2, 0);
    const int largerId = larger.create();
    support::alloc::arm(1); // a failed growth gives up what there was
    EXPECT_EQ(orderOf(largerId), 12345);
    support::alloc::disarm();
    EXPECT_EQ(KTGetContext()->hmmScalesLen, 0);
    EXPECT_EQ(KTGetContext()->hmmScalesBuffer, nullptr);
}

TEST_F(HmmScales, NothingMoreIsWrittenForDiscreteModels) {
    auto model = randomModel<float>(random, OutputKind::discrete, Shape::full, 3, 1, 2, 0);
    int weights = 7, means = 7, vars = 7;
    KTGetHMMScales(model.create(), nullptr, &weights, &means, &vars);
    EXPECT_EQ(weights, 7);
    EXPECT_EQ(means, 7);
    EXPECT_EQ(vars, 7);
}

template <class T>
int plainOrder(const T* values, int n) {
    if constexpr (std::is_same_v<T, float>)
        return floatOrder(Floats(values, values + n));
    else
        return intOrder(Ints(values, values + n));
}

struct PartOrders {
    int weights = -0x7FFFFFFF, means = -0x7FFFFFFF, vars = -0x7FFFFFFF;
};

template <class T>
void addMixture(const GaussMixServer* s, int nMix, int nQuant, PartOrders& orders) {
    const T* weights = static_cast<const T*>(s->pWeights);
    if constexpr (std::is_same_v<T, float>) weights = s->pNormWeights;
    orders.weights = std::max(orders.weights, plainOrder(weights, nMix));
    for (int k = 0; k < nMix; ++k) {
        orders.means = std::max(orders.means, plainOrder(static_cast<T**>(s->ppMeans)[k], nQuant));
        if (s->ppInverseCovD != nullptr)
            orders.vars =
                std::max(orders.vars, plainOrder(static_cast<T**>(s->ppInverseCovD)[k], nQuant));
        for (int i = 0; s->pppInverseCov != nullptr && i < nQuant; ++i)
            orders.vars = std::max(orders.vars,
                                   plainOrder(static_cast<T***>(s->pppInverseCov)[k][i], nQuant));
    }
}

template <class T>
void expectPartOrders(std::mt19937& random, bool full) {
    Codebook<T> codebook(random, 5, 3, full);
    auto semicontinuous =
        randomModel<T>(random, OutputKind::semicontinuous, Shape::full, 3, 1, 5, 3);
    PartOrders wanted;
    const SemicontCodebook* book =
        std::is_same_v<T, float> ? KTGetContext()->sSemicont : KTGetContext()->wSemicont;
    for (int k = 0; k < 5; ++k)
        addMixture<T>(book->ccgPdfs[k], 1, 3, wanted);
    const auto weights = storedWeights(semicontinuous);
    wanted.weights = plainOrder(weights.data(), int(weights.size()));
    int order = 0, w = 0, m = 0, v = 0;
    KTGetHMMScales(semicontinuous.create(), &order, &w, &m, &v);
    EXPECT_EQ(w, wanted.weights);
    EXPECT_EQ(m, wanted.means);
    EXPECT_EQ(v, wanted.vars);

    auto continuous = randomModel<T>(random, OutputKind::continuous, Shape::full, 4, 1, 0, 3);
    PartOrders states;
    for (const Server& mixture : continuous.mixtures)
        addMixture<T>(mixture.get(), mixture->nMix, 3, states);
    KTGetHMMScales(continuous.create(), nullptr, &w, &m, &v);
    EXPECT_EQ(w, states.weights);
    EXPECT_EQ(m, states.means);
    EXPECT_EQ(v, states.vars);
}

TEST_F(HmmScales, OrdersOfWeightsMeansAndCovariances) {
    for (const bool full : {false, true}) {
        expectPartOrders<float>(random, full);
        expectPartOrders<short>(random, full);
    }
}

TEST_F(HmmScales, WithoutACodebookThereIsNothingToMeasure) {
    int id;
    {
        Codebook<float> codebook(random, 2, 3);
        auto model =
            randomModel<float>(random, OutputKind::semicontinuous, Shape::full, 3, 1, 2, 3);
        model.out = {{0.5f, 0.75f}, {0.5f, 0.5f}, {0.25f, 0.5f}};
        id = model.create();
    }
    int w = 0, m = 0, v = 0;
    KTGetHMMScales(id, nullptr, &w, &m, &v);
    EXPECT_EQ(w, 0);
    EXPECT_EQ(m, -0x7FFFFFFF);
    EXPECT_EQ(v, -0x7FFFFFFF);
}

} // namespace
