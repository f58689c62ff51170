// Setting a model's parameters: the topology that is found, what is refused, which arrays are used
// again.
#include "models/fixture.h"
#include "support/alloc_faults.h"
#include "support/reports.h"

#include <cstring>

using namespace models;

namespace {

using Classification = ModelTest;

const HMMServer& server(int id) {
    return *KTFindHMMServer(id);
}

unsigned topologyBits(int id) {
    return server(id).status & (HMM_SERVER_BANDED | HMM_SERVER_TRIANGULAR);
}

// The stored transitions of probabilities: row by row, a band's last one twice.
std::vector<float> bySource(const Model<float>& model, Shape shape) {
    std::vector<float> values;
    for (int i = 0; i < model.n; ++i)
        for (int j = 0; j < model.n; ++j)
            if (allows(shape, i, j)) values.push_back(model.trans[at(i)][at(j)]);
    if (shape == Shape::banded) values.push_back(model.trans.back().back());
    return values;
}

// A float model of n states whose transitions are all `value`, a discrete server of it with one
// changed.
int withOne(int n, float value, float changed, int i, int j, int flags) {
    Model<float> model{n,
                       1,
                       Shape::full,
                       Rows<float>(at(n), std::vector<float>(at(n), value)),
                       Rows<float>(at(n), std::vector<float>(1)),
                       std::vector<float>(at(n))};
    model.trans[at(i)][at(j)] = changed;
    return model.discrete(flags);
}

} // namespace

// --- classification ---

TEST_F(Classification, SmallestModels) {
    std::mt19937 random(1);
    EXPECT_EQ(topologyBits(randomModel(random, 1, 1, Shape::banded).discrete(2)), 0u);
    EXPECT_EQ(topologyBits(randomModel(random, 2, 1, Shape::full).discrete(2)), 0u);
    EXPECT_EQ(topologyBits(randomModel(random, 2, 1, Shape::banded).discrete(2)),
              HMM_SERVER_TRIANGULAR);
    EXPECT_EQ(topologyBits(randomModel(random, 3, 1, Shape::triangular).discrete(2)),
              HMM_SERVER_BANDED);
    EXPECT_EQ(topologyBits(randomModel(random, 4, 1, Shape::triangular).discrete(2)),
              HMM_SERVER_TRIANGULAR);
    EXPECT_EQ(topologyBits(randomModel(random, 4, 1, Shape::banded).discrete(2)),
              HMM_SERVER_BANDED);
}

TEST_F(Classification, OneElementDecides) {
    EXPECT_EQ(topologyBits(withOne(4, 40.0f, 1.0f, 1, 0, 0)), 0u);
    EXPECT_EQ(topologyBits(withOne(4, 40.0f, 1.0f, 3, 2, 0)), 0u);
    EXPECT_EQ(topologyBits(withOne(4, 40.0f, 1.0f, 0, 3, 0)), HMM_SERVER_TRIANGULAR);
    EXPECT_EQ(topologyBits(withOne(4, 40.0f, 1.0f, 0, 2, 0)), HMM_SERVER_BANDED);
    EXPECT_EQ(topologyBits(withOne(7, 40.0f, 1.0f, 3, 6, 0)), HMM_SERVER_TRIANGULAR);
    EXPECT_EQ(topologyBits(withOne(7, 40.0f, 1.0f, 4, 6, 0)), HMM_SERVER_BANDED);
}

TEST_F(Classification, FloatThresholds) {
    EXPECT_EQ(topologyBits(withOne(2, 40.0f, 29.9f, 1, 0, KT_HMM_LOGARITHMIC)), 0u);
    EXPECT_EQ(topologyBits(withOne(2, 40.0f, 30.0f, 1, 0, KT_HMM_LOGARITHMIC)),
              HMM_SERVER_TRIANGULAR);
    EXPECT_EQ(topologyBits(withOne(2, 40.0f, -1.0f, 1, 0, KT_HMM_LOGARITHMIC)), 0u);
    EXPECT_EQ(topologyBits(withOne(2, 0.0f, 1e-45f, 1, 0, KT_HMM_EXPONENTIAL)), 0u);
    EXPECT_EQ(topologyBits(withOne(2, 0.0f, -1.0f, 1, 0, KT_HMM_EXPONENTIAL)),
              HMM_SERVER_TRIANGULAR);
}

TEST_F(Classification, FixedThresholds) {
    const auto topology = [](short value, short changed, int flags) {
        const Model<short> model{2,          1,     Shape::full, {{value, value}, {changed, value}},
                                 {{0}, {0}}, {0, 0}};
        return topologyBits(model.discrete(flags));
    };
    EXPECT_EQ(topology(0x7FFF, 0x7FFF, KT_HMM_LOGARITHMIC), HMM_SERVER_TRIANGULAR);
    EXPECT_EQ(topology(0x7FFF, 0x7FFE, KT_HMM_LOGARITHMIC), 0u);
    EXPECT_EQ(topology(0x7FFF, -1, KT_HMM_LOGARITHMIC), 0u);
    EXPECT_EQ(topology(0, 0, 0), HMM_SERVER_TRIANGULAR);
    EXPECT_EQ(topology(0, 1, 0), 0u);
    EXPECT_EQ(topology(0, -1, 0), HMM_SERVER_TRIANGULAR);
}

// 0x7FFE makes a matrix full although it is stored as probability zero.
TEST_F(Classification, TheElementThatMadeAMatrixFullIsStoredAsZeroProbability) {
    const Model<short> model{2, 1, Shape::full, {{1, 2}, {0x7FFE, 3}}, {{0}, {0}}, {0, 0}};
    const int id = model.discrete(KT_HMM_LOGARITHMIC);
    EXPECT_EQ(storedAt<int>(server(id).transitions, 4, 8),
              (std::vector<int>{2, 3, 1, HMM_LOG_ZERO}));
}

// --- setting ---

namespace {

void expectReport(const support::CapturedReports& reports, int status, const char* text) {
    ASSERT_EQ(reports.count(), 1u) << text;
    EXPECT_EQ(reports[0].status, status);
    EXPECT_EQ(reports[0].message, text);
    EXPECT_EQ(reports[0].function, "KTSetHMMServerParm");
    EXPECT_EQ(reports[0].source, "..\\_LIBSRC\\KT_HINT");
}

class Setting : public ModelTest {
protected:
    Setting() {
        std::mt19937 random(9);
        model = randomModel(random, 3, 2, Shape::full);
        trans = pointers(model.trans);
        out = pointers(model.out);
        id = model.discrete(KT_HMM_EXPONENTIAL);
        before = server(id);
    }
    void expectUnchanged() const { EXPECT_EQ(std::memcmp(&server(id), &before, sizeof before), 0); }

    Model<float> model;
    std::vector<const float*> trans, out;
    int id = 0;
    HMMServer before{};
};

} // namespace

TEST_F(Setting, AnUnknownIdIsSilent) {
    support::CapturedReports reports;
    KTSetHMMServerParm(id + 1, 0, nullptr, nullptr, nullptr, 3, 2, 0);
    EXPECT_EQ(reports.count(), 0u);
    expectUnchanged();
}

TEST_F(Setting, StatesWithoutData) {
    const float* initial = model.initial.data();
    struct Row {
        const void *trans, *out, *initial;
    };
    for (const Row& row :
         {Row{trans.data(), out.data(), nullptr}, Row{nullptr, out.data(), initial},
          Row{trans.data(), nullptr, initial}}) {
        support::CapturedReports reports;
        KTSetHMMServerParm(id, 5, row.trans, row.out, row.initial, 3, -1, -1);
        expectReport(reports, KT_StsBadArg, "change HMM nStates without data");
        expectUnchanged();
    }
}

TEST_F(Setting, SymbolsWithoutData) {
    support::CapturedReports reports;
    KTSetHMMServerParm(id, 5, nullptr, nullptr, nullptr, -1, 2, -1);
    expectReport(reports, KT_StsBadArg, "change HMM nSymbols without data");
    expectUnchanged();
}

TEST_F(Setting, NeitherForm) {
    support::CapturedReports reports;
    KTSetHMMServerParm(id, 5, nullptr, nullptr, nullptr, -1, -1, int(HMM_SERVER_DISCRETE));
    expectReport(reports, KT_StsUnknownErr, "wrong HMM flavor");
    expectUnchanged();
}

TEST_F(Setting, ContinuousServersNeedNoOutputs) {
    support::CapturedReports reports;
    KTSetHMMServerParm(id, 0, trans.data(), nullptr, model.initial.data(), 3, -1,
                       int(HMM_SERVER_CONT | HMM_SERVER_FLOAT | KT_HMM_EXPONENTIAL));
    EXPECT_EQ(reports.count(), 0u);
    EXPECT_EQ(server(id).status, HMM_SERVER_CONT | HMM_SERVER_FLOAT | KT_HMM_EXPONENTIAL);
    KTFindHMMServer(id)->status = before.status;
}

TEST_F(Setting, ClosingCommitsTheTagAlone) {
    KTSetHMMServerParm(id, 77, nullptr, nullptr, nullptr, -1, -1, -1);
    before.tag = 77;
    expectUnchanged();
}

TEST_F(Setting, ArraysOfTheSameShapeAreUsedAgain) {
    const auto block = server(id).transitions;
    model.trans[1][0] = 0.5f;
    KTSetHMMServerParm(id, 0, trans.data(), nullptr, nullptr, -1, -1, -1);
    EXPECT_EQ(server(id).transitions, block);
    EXPECT_EQ(storedAt<float>(block, 9, 16), bySource(model, Shape::full));
}

TEST_F(Setting, AnotherShapeTakesTheOldOnesPlace) {
    std::mt19937 random(10);
    const auto other = randomModel(random, 6, 5, Shape::banded);
    const auto otherTrans = pointers(other.trans), otherOut = pointers(other.out);
    const long blocks = support::alloc::liveBlocks();
    KTSetHMMServerParm(id, 3, otherTrans.data(), otherOut.data(), other.initial.data(), 6, 5, -1);
    EXPECT_EQ(support::alloc::liveBlocks(), blocks);
    EXPECT_EQ(server(id).nStates, 6);
    EXPECT_EQ(server(id).nSymbols, 5);
    EXPECT_EQ(server(id).tag, 3);
    EXPECT_EQ(topologyBits(id), HMM_SERVER_BANDED);
    EXPECT_EQ(storedAt<float>(server(id).transitions, 16, 16), bySource(other, Shape::banded));
}
