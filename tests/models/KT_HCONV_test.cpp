#include "models/stored_models.h"
#include "support/alloc_faults.h"
#include "support/reports.h"

#include "models/layout.h"
#include "quantisers/density_codebook.h"
#include "vsq.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace {

using namespace models;
using Floats = std::vector<float>;
using Ints = std::vector<std::int32_t>;

constexpr float largest = FLT_MAX;
constexpr int logZero = 0x1FFFFF;

class HmmTransforms : public testing::Test {
protected:
    ~HmmTransforms() override { KTHMMFreeAll(); }

    void expectOneReport(const char* text, const char* function, int status = -5) {
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

// What a server really stores, in order.
template <class W>
std::vector<W> transitionsOf(int id, std::size_t n) {
    return storedAt<W>(KTFindHMMServer(id)->transitions, n, std::is_same_v<W, float> ? 16 : 8);
}
template <class W>
std::vector<W> initialsOf(int id, std::size_t n) {
    return storedAt<W>(KTFindHMMServer(id)->initials, n, std::is_same_v<W, float> ? 16 : 8);
}
template <class W>
std::vector<W> outputsOf(int id, std::size_t n) {
    const W* first = static_cast<W**>(KTFindHMMServer(id)->outputs)[0];
    return std::vector<W>(first, first + n);
}

// --- unknown ids and refusals ---

TEST_F(HmmTransforms, WithoutARegistryOrAServerEverythingFailsInSilence) {
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(KTsExpHMMServer(1), -1);
        EXPECT_EQ(KTsLogHMMServer(1), -1);
        EXPECT_EQ(KTswConvertHMMServer(1, 0, 0, 0, 0), -1);
        EXPECT_EQ(KTwsConvertHMMServer(1, 0, 0, 0, 0), -1);
        int order = 77;
        KTGetHMMScales(1, &order, &order, &order, &order);
        EXPECT_EQ(order, 77);
        KTSetHMMMode(0);
    }
    EXPECT_EQ(reports.count(), 0u);
}

TEST_F(HmmTransforms, ExpRefusesAServerOfProbabilitiesAndLeavesItInPlace) {
    auto model = randomModel<float>(random, OutputKind::discrete, Shape::full, 3, 2, 2, 0);
    const int id = model.create();
    EXPECT_EQ(KTsExpHMMServer(id), -1);
    expectOneReport("!(ser->status&KT_HMM_LOGARITHMIC)", "KTsExpHMMServer");
    EXPECT_EQ(query<float>(id, 3, 2, OutputKind::discrete).trans, model.trans);
    EXPECT_EQ(KTGetContext()->nHMMServers, 1);
}

TEST_F(HmmTransforms, LogRefusesAServerOfCosts) {
    auto model = randomModel<float>(random, OutputKind::discrete, Shape::full, 3, 1, 2, 0);
    const int id = model.create();
    EXPECT_EQ(KTsLogHMMServer(id), -1);
    expectOneReport("!(ser->status&KT_HMM_EXPONENTIAL)", "KTsLogHMMServer");
    EXPECT_NE(KTFindHMMServer(id), nullptr);
}

TEST_F(HmmTransforms, BothRefuseFixedServers) {
    auto model = randomModel<short>(random, OutputKind::discrete, Shape::full, 3, 1, 2, 0);
    const int id = model.create();
    EXPECT_EQ(KTsExpHMMServer(id), -1);
    expectOneReport("!(ser->status&HMM_SERVER_FLOAT)", "KTsExpHMMServer");
    EXPECT_EQ(KTsLogHMMServer(id), -1);
    expectOneReport("!(ser->status&HMM_SERVER_FLOAT)", "KTsLogHMMServer");
}

TEST_F(HmmTransforms, ConversionsRefuseProbabilitiesUnderOneName) {
    auto model = randomModel<float>(random, OutputKind::discrete, Shape::full, 3, 2, 2, 0);
    const int id = model.create();
    EXPECT_EQ(KTswConvertHMMServer(id, -8, 0, 0, 0), -1);
    expectOneReport("ser->status&KT_HMM_EXPONENTIAL", "KTswConvertHMMServer");
    EXPECT_EQ(KTwsConvertHMMServer(id, 8, 0, 0, 0), -1);
    expectOneReport("ser->status&KT_HMM_EXPONENTIAL", "KTswConvertHMMServer");
    EXPECT_NE(KTFindHMMServer(id), nullptr);
}

TEST_F(HmmTransforms, ConversionsOfTheWrongFormFailInSilence) {
    auto floats = randomModel<float>(random, OutputKind::discrete, Shape::full, 3, 1, 2, 0);
    auto fixed = randomModel<short>(random, OutputKind::discrete, Shape::full, 3, 1, 2, 0);
    EXPECT_EQ(KTwsConvertHMMServer(floats.create(), 0, 0, 0, 0), -1);
    EXPECT_EQ(KTswConvertHMMServer(fixed.create(), 0, 0, 0, 0), -1);
    EXPECT_EQ(reports.count(), 0u);
    EXPECT_EQ(KTGetContext()->nHMMServers, 2);
}

// --- keep and replace ---

TEST_F(HmmTransforms, TheDefaultModeReleasesTheSource) {
    auto model = randomModel<float>(random, OutputKind::discrete, Shape::full, 3, 2, 2, 0);
    const int id = model.create(), made = KTsLogHMMServer(id);
    EXPECT_GT(made, 0);
    EXPECT_NE(made, id);
    EXPECT_EQ(KTFindHMMServer(id), nullptr);
    EXPECT_EQ(KTGetContext()->nHMMServers, 1);
}

TEST_F(HmmTransforms, KeepLeavesEverySourceAlive) {
    KTSetHMMMode(KT_HMM_KEEP);
    auto model = randomModel<float>(random, OutputKind::discrete, Shape::full, 3, 2, 2, 0);
    const int id = model.create(), costs = KTsLogHMMServer(id), back = KTsExpHMMServer(costs),
              fixed = KTswConvertHMMServer(costs, -8, 0, 0, 0),
              again = KTwsConvertHMMServer(fixed, 8, 0, 0, 0);
    for (const int server : {id, costs, back, fixed, again})
        EXPECT_NE(KTFindHMMServer(server), nullptr) << server;
    EXPECT_EQ(KTGetContext()->nHMMServers, 5);
    KTSetHMMMode(KT_HMM_REPLACE);
    const int last = KTswConvertHMMServer(again, -8, 0, 0, 0);
    EXPECT_GT(last, 0);
    EXPECT_EQ(KTFindHMMServer(again), nullptr);
}

// The rule of every server that is closed: a status that is already negative releases it, the id
// comes back.
TEST_F(HmmTransforms, AStatusThatWasNegativeBefore) {
    KTSetHMMMode(KT_HMM_KEEP);
    auto model = randomModel<float>(random, OutputKind::discrete, Shape::full, 2, 1, 2, 0);
    const int id = model.create();
    KTSetStatus(-4);
    EXPECT_EQ(KTswConvertHMMServer(id, -8, 0, 0, 0), 2);
    EXPECT_EQ(KTFindHMMServer(2), nullptr);
    EXPECT_EQ(KTsExpHMMServer(id), -1);
    EXPECT_EQ(KTGetContext()->nHMMServers, 1);
    EXPECT_NE(KTFindHMMServer(id), nullptr);
}

// --- domains: every element goes through the two kernels, in the layout of the new domain ---

void viaKernels(Floats& values, bool toCosts) {
    const int n = int(values.size());
    if (toCosts) {
        vsqsbLn1(values.data(), n);
        vsqsbMpy1(-0.4342945f, values.data(), n);
    } else {
        vsqsbMpy1(-2.3025851f, values.data(), n);
        vsqsbExp1(values.data(), n);
    }
}

void expectDomainChange(KindModel<float>& model) {
    const bool toCosts = model.domain == 2;
    const int id = model.create();
    const int made = toCosts ? KTsLogHMMServer(id) : KTsExpHMMServer(id);
    ASSERT_GT(made, 0);
    Floats initials(model.initial);
    viaKernels(initials, toCosts);
    EXPECT_EQ(initialsOf<float>(made, initials.size()), initials);
    KindModel<float> other; // the same matrix in the order of the other domain
    other.n = model.n;
    other.shape = model.shape;
    other.domain = model.domain ^ 3u;
    other.trans = model.trans;
    Floats transitions = storedTransitions(other);
    viaKernels(transitions, toCosts);
    EXPECT_EQ(transitionsOf<float>(made, transitions.size()), transitions);
    if (model.kind == OutputKind::discrete) {
        Floats outputs = storedDiscrete(model); // padding included
        viaKernels(outputs, toCosts);
        EXPECT_EQ(outputsOf<float>(made, outputs.size()), outputs);
    } else if (model.kind == OutputKind::semicontinuous) {
        EXPECT_EQ(outputsOf<float>(made, storedWeights(model).size()), storedWeights(model));
    } else {
        const Floats frame(std::size_t(model.nQuant), 0.5f);
        for (std::size_t i = 0; i < std::size_t(model.n); ++i)
            EXPECT_EQ(
                KTsEvalGaussMix(KTFindHMMServer(made)->mixtures[i], frame.data(), model.nQuant),
                KTsEvalGaussMix(model.mixtures[i].get(), frame.data(), model.nQuant));
    }
    EXPECT_EQ(unsigned(parametersOf(made).status), model.status() ^ 3u);
    KTFreeHMMServer(made);
}

TEST_F(HmmTransforms, EveryKindOfModelChangesItsDomain) {
    Codebook<float> codebook(random, 5, 3);
    for (const OutputKind kind : allKinds)
        for (const Shape shape : allShapes)
            for (const unsigned domain : {1u, 2u})
                for (int n = 1; n <= 7; ++n) {
                    SCOPED_TRACE(testing::Message()
                                 << int(kind) << " " << int(shape) << " " << domain << " " << n);
                    auto model = randomModel<float>(random, kind, shape, n, domain, 5, 3);
                    expectDomainChange(model);
                }
    EXPECT_EQ(reports.count(), 0u);
}

TEST_F(HmmTransforms, ZerosAndLimitCostsOfARoundTrip) {
    KTSetHMMMode(KT_HMM_KEEP);
    auto model = randomModel<float>(random, OutputKind::discrete, Shape::full, 2, 2, 1, 0);
    model.initial = {1.0f, 0.0f};
    const int costs = KTsLogHMMServer(model.create());
    const Floats initials = query<float>(costs, 2, 1, OutputKind::discrete).initial;
    EXPECT_EQ(initials[0], 0.0f);
    EXPECT_EQ(initials[1], std::numeric_limits<float>::infinity()); // the logarithm of 0, scaled
    auto second = randomModel<float>(random, OutputKind::discrete, Shape::full, 2, 1, 1, 0);
    second.initial = {30.0f, 1.0f};
    const Floats back =
        query<float>(KTsExpHMMServer(second.create()), 2, 1, OutputKind::discrete).initial;
    // the factor is off ln(10) by at most 2^-24 relative, its product rounds once, and the
    // exponential adds 2 ulp
    EXPECT_NEAR(back[0], 1e-30, 1e-30 * (30 * 2.302585 * 0x1p-23 + 0x1p-21));
    EXPECT_NEAR(back[1], 0.1, 0.1 * (2.302585 * 0x1p-23 + 0x1p-21));
}

// A probability of 1e-31 has a cost beyond what counts as present; the shape stays.
TEST_F(HmmTransforms, TheTopologyIsNotFoundAgain) {
    auto model = randomModel<float>(random, OutputKind::discrete, Shape::full, 4, 2, 1, 0);
    for (std::size_t i = 0; i < 4; ++i)
        for (std::size_t j = 0; j < i; ++j)
            model.trans[i][j] = 1e-33f;
    const int made = KTsLogHMMServer(model.create());
    EXPECT_EQ(unsigned(parametersOf(made).status) & 0x3000u, 0u);
    EXPECT_GT(query<float>(made, 4, 1, OutputKind::discrete).trans[3][0], 30.0f);
}

TEST_F(HmmTransforms, TilesComeAndGoWithTheCosts) {
    KTSetHMMMode(0);
    KTGetContext()->hmmMode |= HMM_MODE_TILED;
    for (const Shape shape : allShapes)
        for (int n = 1; n <= 6; ++n) {
            auto model = randomModel<float>(random, OutputKind::discrete, shape, n, 2, 2, 0);
            const int costs = KTsLogHMMServer(model.create());
            EXPECT_NE(unsigned(parametersOf(costs).status) & HMM_SERVER_TILED, 0u);
            const Rows<float> trans = query<float>(costs, n, 2, OutputKind::discrete).trans;
            KTSetHMMMode(KT_HMM_KEEP);
            const int fixed = KTswConvertHMMServer(costs, -8, 0, 0, 0);
            EXPECT_EQ(unsigned(parametersOf(fixed).status) & HMM_SERVER_TILED, 0u);
            const auto fixedTrans = query<short>(fixed, n, 2, OutputKind::discrete).trans;
            const bool odd = n % 2 == 1 && model.shape == Shape::banded;
            for (int i = 0; i < n; ++i)
                for (int j = 0; j < n; ++j)
                    if (allows(model.shape, i, j) && !(odd && i == 0 && j == 2)) {
                        EXPECT_EQ(fixedTrans[std::size_t(i)][std::size_t(j)],
                                  short(trans[std::size_t(i)][std::size_t(j)] * 256.0f));
                    }
            KTSetHMMMode(KT_HMM_REPLACE);
            const int floats = KTwsConvertHMMServer(fixed, 8, 0, 0, 0);
            EXPECT_NE(unsigned(parametersOf(floats).status) & HMM_SERVER_TILED, 0u);
            const int back = KTsExpHMMServer(costs);
            EXPECT_EQ(unsigned(parametersOf(back).status) & HMM_SERVER_TILED, 0u);
            int order = 0;
            KTGetHMMScales(floats, &order, nullptr, nullptr, nullptr);
            EXPECT_GT(order, -8);
        }
}

// --- float to fixed ---

int fixedOracle(float x, int scale) {
    const double p = std::ldexp(1.0, -scale), limit = 2097151.0 * p, wide = double(x);
    if (wide >= limit) return logZero;
    if (wide < -limit) return -logZero;
    const double scaled = wide * p;
    return std::fabs(scaled) < 2147483648.0 ? int(scaled) : INT32_MIN;
}

Ints fixedInitials(const KindModel<float>& model, int scale) {
    Ints wanted;
    for (const float x : model.initial)
        wanted.push_back(fixedOracle(x, scale));
    padTo(wanted, 2, logZero);
    return wanted;
}

Ints fixedTransitions(const KindModel<float>& model, int scale) {
    Ints wanted =
        fixedByTarget(model, logZero, logZero, [=](float x) { return fixedOracle(x, scale); });
    if (model.shape == Shape::banded && model.n % 2 == 1) {
        wanted[wanted.size() - 1] = 0; // the filler stands at position 2 of the third row instead
        wanted[2 * std::size_t(model.n + 1) + 2] = logZero;
    }
    return wanted;
}

Ints fixedDiscrete(const KindModel<float>& model, int scale) {
    Ints wanted;
    for (std::size_t k = 0; k < std::size_t(model.m); ++k) {
        for (const Floats& row : model.out)
            wanted.push_back(fixedOracle(row[k], scale));
        padTo(wanted, 2, logZero);
    }
    return wanted;
}

TEST_F(HmmTransforms, EveryKindOfFloatModelBecomesFixed) {
    Codebook<float> codebook(random, 5, 3);
    for (const OutputKind kind : allKinds)
        for (const Shape shape : allShapes)
            for (const int scale : {-8, 0, 3, -20})
                for (int n = 1; n <= 7; ++n) {
                    SCOPED_TRACE(testing::Message()
                                 << int(kind) << " " << int(shape) << " " << scale << " " << n);
                    auto model = randomModel<float>(random, kind, shape, n, 1, 5, 3);
                    const int made = KTswConvertHMMServer(model.create(), scale, -14, -10, -9);
                    ASSERT_GT(made, 0);
                    const Parameters p = parametersOf(made);
                    EXPECT_EQ(unsigned(p.status), model.status() ^ 0x30u);
                    EXPECT_EQ(p.scale, scale);
                    EXPECT_EQ(p.nStates, n);
                    EXPECT_EQ(p.nQuant, model.nQuant);
                    EXPECT_EQ(p.nSymbols, model.m);
                    EXPECT_EQ(initialsOf<std::int32_t>(made, std::size_t(n + n % 2)),
                              fixedInitials(model, scale));
                    const Ints transitions = fixedTransitions(model, scale);
                    EXPECT_EQ(transitionsOf<std::int32_t>(made, transitions.size()), transitions);
                    if (kind == OutputKind::discrete) {
                        const Ints outputs = fixedDiscrete(model, scale);
                        EXPECT_EQ(outputsOf<std::int32_t>(made, outputs.size()), outputs);
                    }
                    KTFreeHMMServer(made);
                }
    EXPECT_EQ(reports.count(), 0u);
}

TEST_F(HmmTransforms, ACostOfOneAtScaleMinusEightIs256) {
    auto model = randomModel<float>(random, OutputKind::discrete, Shape::full, 2, 1, 1, 0);
    model.initial = {1.0f, -1.999f / 256};
    const int made = KTswConvertHMMServer(model.create(), -8, 0, 0, 0);
    EXPECT_EQ(initialsOf<std::int32_t>(made, 2), (Ints{256, -1})); // truncated toward zero
}

// At scale 3 the limit is 2097151 / 8 for the unscaled value; at scale -4 values far above it pass.
TEST_F(HmmTransforms, TheLimitIsComparedWithTheUnscaledValue) {
    const float limit = 2097151.0f / 8;
    const struct {
        float x;
        int scale, wanted;
    } cases[] = {
        {limit, 3, logZero},
        {std::nextafter(limit, 0.0f), 3, int(limit / 8)},
        {-limit, 3, -int(limit / 8)},
        {std::nextafter(-limit, -1e9f), 3, -logZero},
        {2097150.0f, 0, 2097150},
        {2097151.0f, 0, logZero},
        {-2097151.0f, 0, -2097151},
        {-2097152.0f, 0, -logZero},
        {2097151.0f, -4, 2097151 * 16},
        {-2097152.0f, -4, -2097152 * 16},
        {2097151.0f * 16, -4, logZero},
        {134217728.0f, -7, INT32_MIN}, // 2^34 leaves 32 bits
        {-134217728.0f, -7, INT32_MIN},
        {16777215.0f, -7, 2147483520},
        {std::numeric_limits<float>::infinity(), -8, logZero},
        {-std::numeric_limits<float>::infinity(), -8, -logZero},
        {std::numeric_limits<float>::quiet_NaN(), -8, INT32_MIN},
        {1.0f, INT32_MAX, logZero}, // the power is 0, and so is the limit
        {-1.0f, INT32_MAX, -logZero},
        {1.0f, INT32_MIN, INT32_MIN}, // the power is infinite
    };
    for (const auto& c : cases) {
        auto model = randomModel<float>(random, OutputKind::discrete, Shape::full, 2, 1, 1, 0);
        model.initial[1] = c.x;
        const int made = KTswConvertHMMServer(model.create(), c.scale, 0, 0, 0);
        EXPECT_EQ(initialsOf<std::int32_t>(made, 2)[1], c.wanted) << c.x << " at " << c.scale;
        KTFreeHMMServer(made);
    }
}

TEST_F(HmmTransforms, ABandOfThreeStatesLosesItsLeapAndOneOfFourKeepsIt) {
    for (const int n : {3, 4}) {
        auto model = randomModel<float>(random, OutputKind::discrete, Shape::banded, n, 1, 1, 0);
        model.trans[0][2] = 2.0f;
        const int made = KTswConvertHMMServer(model.create(), -8, 0, 0, 0);
        EXPECT_EQ(query<short>(made, n, 1, OutputKind::discrete).trans[0][2],
                  n == 3 ? 0x7FFF : 512);
        KTFreeHMMServer(made);
    }
}

// --- weights of densities ---

std::vector<short> convertedWeights(std::mt19937& random, const Floats& weights, int scale) {
    Codebook<float> codebook(random, int(weights.size()), 2);
    auto model = randomModel<float>(random, OutputKind::semicontinuous, Shape::full, 1, 1,
                                    int(weights.size()), 2);
    model.out = {weights};
    const int made = KTswConvertHMMServer(model.create(), scale, 0, 0, 0);
    return outputsOf<short>(made, (weights.size() + 3) / 4 * 4);
}

TEST_F(HmmTransforms, AWeightOfOneAtScaleMinus16IsTruncatedToZero) {
    EXPECT_EQ(convertedWeights(random, {1.0f, 0.5f, 0.25f}, -16),
              (std::vector<short>{0, -32768, 16384, 0})); // 65536, 32768 and 16384 in 16 bits
}

TEST_F(HmmTransforms, WeightsBeyondTheLimitTurnTheirSign) {
    EXPECT_EQ(convertedWeights(random, {32767.0f, 32766.0f, -32767.0f, -32768.0f, 1e9f}, 0),
              (std::vector<short>{-1, 32766, -32767, 1, -1, 0, 0, 0}));
    EXPECT_EQ(convertedWeights(random, {32767.0f / 4, 8190.0f, -8192.0f}, 2),
              (std::vector<short>{-1, 2047, 1, 0}));
    EXPECT_EQ(convertedWeights(random, {0.25f, 0.75f, 0.1f, 1.0f / 65536}, -14),
              (std::vector<short>{4096, 12288, 1638, 0}));
}

TEST_F(HmmTransforms, WeightsComeBackUp) {
    Codebook<short> codebook(random, 5, 2);
    auto model = randomModel<short>(random, OutputKind::semicontinuous, Shape::full, 2, 1, 5, 2);
    model.out = {{0, 1, -1, 0x7FFE, 0x7FFF}, {-0x7FFE, -0x7FFF, -0x8000, 4096, 2}};
    const int made = KTwsConvertHMMServer(model.create(), 14, 0, 0, 0);
    const float p = 0x1p-14f;
    EXPECT_EQ(outputsOf<float>(made, 16), (Floats{0, p, -p, 32766 * p, largest, 0, 0, 0, -32766 * p,
                                                  -largest, -largest, 4096 * p, 2 * p, 0, 0, 0}));
}

// --- fixed to float ---

float floatOracle(int v, int scale) {
    if (v >= 0x7FFF) return largest;
    if (v <= -0x7FFF) return -largest;
    return float(v) * float(std::ldexp(1.0, -scale));
}

TEST_F(HmmTransforms, EveryKindOfFixedModelBecomesFloat) {
    Codebook<short> codebook(random, 5, 3);
    for (const OutputKind kind : allKinds)
        for (const Shape shape : allShapes)
            for (const unsigned domain : {0u, 1u})
                for (int n = 1; n <= 7; ++n) {
                    SCOPED_TRACE(testing::Message()
                                 << int(kind) << " " << int(shape) << " " << domain << " " << n);
                    auto model = randomModel<short>(random, kind, shape, n, domain, 5, 3);
                    KindModel<float> wanted;
                    wanted.n = n;
                    wanted.shape = model.shape;
                    wanted.domain = domain;
                    wanted.m = model.m;
                    const auto up = [](const std::vector<short>& row) {
                        Floats values;
                        for (const short v : row)
                            values.push_back(floatOracle(v, 8));
                        return values;
                    };
                    wanted.initial = up(model.initial);
                    for (const auto& row : model.trans)
                        wanted.trans.push_back(up(row));
                    for (const auto& row : model.out)
                        wanted.out.push_back(up(row));
                    const int made = KTwsConvertHMMServer(model.create(), 8, 14, 10, 9);
                    ASSERT_GT(made, 0);
                    EXPECT_EQ(unsigned(parametersOf(made).status), model.status() ^ 0x30u);
                    EXPECT_EQ(parametersOf(made).scale, 0);
                    EXPECT_EQ(initialsOf<float>(made, std::size_t(n)), wanted.initial);
                    const Floats transitions = storedTransitions(wanted);
                    EXPECT_EQ(transitionsOf<float>(made, transitions.size()), transitions);
                    if (kind == OutputKind::discrete) {
                        EXPECT_EQ(outputsOf<float>(made, storedDiscrete(wanted).size()),
                                  storedDiscrete(wanted));
                    }
                    KTFreeHMMServer(made);
                }
    EXPECT_EQ(reports.count(), 0u);
}

TEST_F(HmmTransforms, FixedValuesFrom7FFFOnAreTheLargestFloat) {
    auto model = randomModel<short>(random, OutputKind::discrete, Shape::full, 2, 1, 1, 0);
    KTSetHMMMode(KT_HMM_KEEP);
    const int id = model.create();
    int* stored = hmm::ints(KTFindHMMServer(id)->initials);
    for (const int v :
         {0, 1, 0x7FFE, 0x7FFF, 0x8000, logZero, INT32_MAX, -0x7FFE, -0x7FFF, INT32_MIN}) {
        stored[0] = v;
        const int made = KTwsConvertHMMServer(id, 8, 0, 0, 0);
        EXPECT_EQ(initialsOf<float>(made, 1)[0], floatOracle(v, 8)) << v;
        KTFreeHMMServer(made);
    }
    stored[0] = 1;
    const int made = KTwsConvertHMMServer(id, -200, 0, 0, 0); // 2^200 is no float
    EXPECT_EQ(initialsOf<float>(made, 1)[0], std::numeric_limits<float>::infinity());
    const int tiny = KTwsConvertHMMServer(id, INT32_MAX, 0, 0, 0);
    EXPECT_EQ(initialsOf<float>(tiny, 1)[0], 0.0f);
    KTwsConvertHMMServer(id, INT32_MIN, 0, 0, 0);
}

TEST_F(HmmTransforms, DownAndUpTruncatesCostsToMultiplesOfTheScale) {
    for (const int n : {1, 2, 4, 6, 8}) { // odd bands lose a transition
        auto model = randomModel<float>(random, OutputKind::discrete, Shape::banded, n, 1, 3, 0);
        const int back =
            KTwsConvertHMMServer(KTswConvertHMMServer(model.create(), -8, 0, 0, 0), 8, 0, 0, 0);
        const auto answer = query<float>(back, n, 3, OutputKind::discrete);
        const auto truncated = [](float x) { return std::trunc(x * 256.0f) / 256.0f; };
        for (std::size_t i = 0; i < std::size_t(n); ++i) {
            EXPECT_EQ(answer.initial[i], truncated(model.initial[i]));
            for (std::size_t j = 0; j < std::size_t(n); ++j)
                EXPECT_EQ(answer.trans[i][j], allows(model.shape, int(i), int(j))
                                                  ? truncated(model.trans[i][j])
                                                  : largest);
            for (std::size_t k = 0; k < 3; ++k)
                EXPECT_EQ(answer.out[i][k], truncated(model.out[i][k]));
        }
    }
}

TEST_F(HmmTransforms, MixturesAreConvertedWithTheirOwnScales) {
    KTSetHMMMode(KT_HMM_KEEP);
    auto model = randomModel<float>(random, OutputKind::continuous, Shape::full, 3, 1, 0, 4);
    const int id = model.create(), fixed = KTswConvertHMMServer(id, -8, -14, -10, -9);
    const int back = KTwsConvertHMMServer(fixed, 8, 14, 10, 9);
    for (std::size_t i = 0; i < 3; ++i) {
        const Server wanted(
            KTswConvertGaussMixServer(KTFindHMMServer(id)->mixtures[i], -14, -10, -9));
        const GaussMixServer* held = KTFindHMMServer(fixed)->mixtures[i];
        EXPECT_EQ(held->scale, wanted->scale);
        EXPECT_EQ(
            std::memcmp(held->pWeights, wanted->pWeights, sizeof(short) * std::size_t(held->nMix)),
            0);
        EXPECT_EQ(std::memcmp(ktl::gauss::means<short>(held)[0],
                              ktl::gauss::means<short>(wanted.get())[0], 8),
                  0);
        const Server up(KTwsConvertGaussMixServer(KTFindHMMServer(fixed)->mixtures[i], 14, 10, 9));
        EXPECT_EQ(ktl::gauss::means<float>(KTFindHMMServer(back)->mixtures[i])[0][0],
                  ktl::gauss::means<float>(up.get())[0][0]);
    }
    EXPECT_EQ(parametersOf(back).nQuant, 4);
}

TEST_F(HmmTransforms, TheSecondReservedWordIsCarried) {
    auto model = randomModel<float>(random, OutputKind::discrete, Shape::full, 2, 1, 1, 0);
    const int id = model.create();
    KTFindHMMServer(id)->reserved1 = 4711;
    KTFindHMMServer(id)->tag = 5;
    const int fixed = KTswConvertHMMServer(id, -8, 0, 0, 0);
    EXPECT_EQ(KTFindHMMServer(fixed)->reserved1, 4711);
    EXPECT_EQ(KTFindHMMServer(fixed)->tag, 0);
    const int back = KTwsConvertHMMServer(fixed, 8, 0, 0, 0);
    EXPECT_EQ(KTFindHMMServer(back)->reserved1, 4711);
}

// --- memory ---

template <class Operation>
void failEveryAllocation(Operation operation, int expectedLeftovers) {
    const KTContext* context = KTGetContext();
    const int before = context->nHMMServers;
    int made = -1, leftovers = 0;
    support::alloc::failEach([&] { made = operation(); },
                             [&] {
                                 EXPECT_EQ(made, -1);
                                 leftovers += context->nHMMServers - before;
                                 while (context->nHMMServers > before)
                                     KTFreeHMMServer(context->hmmServerList->prev->id);
                                 KTSetStatus(0);
                             });
    EXPECT_GT(made, 0);
    EXPECT_EQ(leftovers, expectedLeftovers);
    KTFreeHMMServer(made);
}

// One failure leaves a server: that of the rewritten transitions, behind which the copy stays.
TEST_F(HmmTransforms, EveryAllocationMayFail) {
    KTSetHMMMode(KT_HMM_KEEP);
    Codebook<float> codebook(random, 3, 2);
    Codebook<short> fixedCodebook(random, 3, 2);
    for (const OutputKind kind : allKinds) {
        auto model = randomModel<float>(random, kind, Shape::banded, 4, 1, 3, 2);
        auto fixedModel = randomModel<short>(random, kind, Shape::banded, 4, 1, 3, 2);
        const int id = model.create(), fixed = fixedModel.create();
        const long blocks = support::alloc::liveBlocks();
        failEveryAllocation([=] { return KTsExpHMMServer(id); }, 1);
        failEveryAllocation([=] { return KTswConvertHMMServer(id, -8, -14, -10, -9); }, 0);
        failEveryAllocation([=] { return KTwsConvertHMMServer(fixed, 8, 14, 10, 9); }, 0);
        const int probabilities = KTsExpHMMServer(id);
        failEveryAllocation([=] { return KTsLogHMMServer(probabilities); }, 1);
        KTFreeHMMServer(probabilities);
        EXPECT_EQ(support::alloc::liveBlocks(), blocks);
        EXPECT_NE(KTFindHMMServer(id), nullptr);
    }
}

// The initial values come first; transitions, outputs and status are still the source's.
TEST_F(HmmTransforms, TheCopyThatAFailedRewriteLeavesHasTransformedInitials) {
    KTSetHMMMode(KT_HMM_KEEP);
    for (const bool toCosts : {false, true}) {
        auto model =
            randomModel<float>(random, OutputKind::discrete, Shape::full, 3, toCosts ? 2 : 1, 2, 0);
        const int id = model.create();
        const auto transform = toCosts ? KTsLogHMMServer : KTsExpHMMServer;
        const int whole = transform(id), left = whole + 1;
        support::alloc::arm(5); // behind the copy's record and its three arrays
        EXPECT_EQ(transform(id), -1);
        support::alloc::disarm();
        const auto answer = query<float>(left, 3, 2, OutputKind::discrete);
        EXPECT_EQ(answer.trans, model.trans);
        EXPECT_EQ(answer.out, model.out);
        EXPECT_EQ(answer.initial, query<float>(whole, 3, 2, OutputKind::discrete).initial);
        EXPECT_NE(answer.initial, model.initial);
        EXPECT_EQ(unsigned(parametersOf(left).status), model.status());
        EXPECT_NE(KTFindHMMServer(id), nullptr);
        EXPECT_EQ(KTGetStatus(), 0);
    }
}

TEST_F(HmmTransforms, FailingTilesReleaseTheNewServer) {
    KTSetHMMMode(KT_HMM_KEEP);
    KTGetContext()->hmmMode |= HMM_MODE_TILED;
    auto model = randomModel<float>(random, OutputKind::discrete, Shape::full, 3, 2, 2, 0);
    const int id = model.create();
    failEveryAllocation([=] { return KTsLogHMMServer(id); }, 1);
    auto fixedModel = randomModel<short>(random, OutputKind::discrete, Shape::full, 3, 1, 2, 0);
    const int fixed = fixedModel.create();
    failEveryAllocation([=] { return KTwsConvertHMMServer(fixed, 8, 0, 0, 0); }, 0);
}

} // namespace
