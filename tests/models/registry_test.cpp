#include "models/fixture.h"
#include "quantisers/density_codebook.h"
#include "support/alloc_faults.h"

#include <climits>
#include <set>
#include <thread>

using namespace models;

namespace {

using Registry = ModelTest;

// A record of the test's own, as a trainer or a reader would hand one over.
int registerOne() {
    return KTRegisterHMMServer(static_cast<HMMServer*>(std::calloc(1, sizeof(HMMServer))));
}

std::vector<int> listed() {
    const KTContext* context = KTGetContext();
    std::vector<int> ids;
    for (const HMMServer* s = context->hmmServerList->next; s != context->hmmServerList;
         s = s->next) {
        EXPECT_EQ(s->prev->next, s);
        EXPECT_EQ(s->next->prev, s);
        ids.push_back(s->id);
    }
    return ids;
}

} // namespace

TEST_F(Registry, IsMadeByTheFirstCallThatNeedsIt) {
    const KTContext* context = KTGetContext();
    EXPECT_EQ(context->hmmMode, 0u);
    EXPECT_EQ(context->hmmServerList, nullptr);
    KTSetHMMMode(0);
    EXPECT_EQ(context->hmmMode, 0x05000000u);
    ASSERT_NE(context->hmmServerList, nullptr);
    EXPECT_EQ(context->hmmServerList->id, 0);
    EXPECT_EQ(context->hmmServerList->next, context->hmmServerList);
    EXPECT_EQ(context->hmmServerList->prev, context->hmmServerList);
    EXPECT_EQ(context->hmmServerCursor, context->hmmServerList);
    ASSERT_NE(context->hmmClassList, nullptr);
    EXPECT_EQ(context->hmmClassList->id, 0);
    EXPECT_EQ(context->hmmClassList->next, context->hmmClassList);
    EXPECT_EQ(context->hmmClassList->prev, context->hmmClassList);
    EXPECT_EQ(context->sSemicont->status, 0);
    EXPECT_EQ(context->wSemicont->status, 0);
    EXPECT_EQ(context->nHMMServers, 0);
    EXPECT_EQ(context->nHMMClasses, 0);
    const auto* list = context->hmmServerList;
    KTInitHMMRegistry(); // there is one
    EXPECT_EQ(context->hmmServerList, list);
}

TEST_F(Registry, Modes) {
    const KTContext* context = KTGetContext();
    KTSetHMMMode(KT_HMM_KEEP);
    EXPECT_EQ(context->hmmMode, HMM_MODE_READY | unsigned(KT_HMM_KEEP));
    KTSetHMMMode(0);
    KTSetHMMMode(1);
    EXPECT_EQ(context->hmmMode, HMM_MODE_READY | unsigned(KT_HMM_KEEP));
    KTSetHMMMode(KT_HMM_KEEP | KT_HMM_REPLACE);
    EXPECT_EQ(context->hmmMode, HMM_MODE_READY | unsigned(KT_HMM_REPLACE));
    KTSetHMMMode(KT_HMM_KEEP | 3);
    EXPECT_EQ(context->hmmMode, HMM_MODE_READY | unsigned(KT_HMM_KEEP));
    KTSetHMMMode(KT_HMM_REPLACE);
    EXPECT_EQ(context->hmmMode, 0x05000000u);
}

TEST_F(Registry, AllocationFailuresLeaveItAbsentAndSilent) {
    const long before = support::alloc::liveBlocks();
    const int failures =
        support::alloc::failEach([] { KTSetHMMMode(0); },
                                 [&] {
                                     EXPECT_EQ(KTGetContext()->hmmMode & HMM_MODE_READY, 0u);
                                     EXPECT_EQ(KTGetContext()->hmmServerList, nullptr);
                                     EXPECT_EQ(KTGetStatus(), 0);
                                     EXPECT_EQ(support::alloc::liveBlocks(), before);
                                     KTGetContext()->hmmMode = 0;
                                 });
    EXPECT_EQ(failures, 4);
    EXPECT_EQ(KTGetContext()->hmmMode, 0x05000000u);
}

TEST_F(Registry, LowestIdsAreUsedAgain) {
    KTInitHMMRegistry();
    EXPECT_EQ(registerOne(), 1);
    EXPECT_EQ(registerOne(), 2);
    EXPECT_EQ(registerOne(), 3);
    KTFreeHMMServer(2);
    EXPECT_EQ(KTGetContext()->hmmServerCursor->id, 1);
    EXPECT_EQ(registerOne(), 2);
    EXPECT_EQ(KTGetContext()->hmmServerCursor->id, 3);
    KTFreeHMMServer(1);
    EXPECT_EQ(KTGetContext()->hmmServerCursor, KTGetContext()->hmmServerList);
    EXPECT_EQ(registerOne(), 1);
    EXPECT_EQ(registerOne(), 4);
    EXPECT_EQ(KTGetContext()->nHMMServers, 4);
}

// Against a set of numbers: the lowest free id every time, the list sorted, the cursor at the end
// of the run that begins at 1 after each registration and never behind its first gap.
TEST_F(Registry, RandomComingAndGoing) {
    KTInitHMMRegistry();
    std::mt19937 random(1);
    std::set<int> ids;
    int most = 0;
    for (int step = 0; step < 30000; ++step) {
        const bool grows = ids.empty() || random() % 100 < (step < 15000 ? 70u : 30u);
        if (grows) {
            int expected = 1;
            if (!ids.empty() && *ids.rbegin() != int(ids.size())) {
                while (ids.count(expected) != 0)
                    ++expected;
            } else {
                expected = int(ids.size()) + 1;
            }
            ASSERT_EQ(registerOne(), expected);
            ids.insert(expected);
        } else {
            const int highest = *ids.rbegin();
            const auto chosen = ids.lower_bound(1 + int(random() % unsigned(highest)));
            ASSERT_EQ(KTFindHMMServer(*chosen)->id, *chosen);
            KTFreeHMMServer(*chosen);
            ASSERT_EQ(KTFindHMMServer(*chosen), nullptr);
            ids.erase(chosen);
        }
        const HMMServer* cursor = KTGetContext()->hmmServerCursor;
        ASSERT_EQ(ids.count(cursor->id + 1), 0u);
        ASSERT_EQ(cursor->id == 0 || ids.count(cursor->id) == 1, true);
        if (step % 1000 == 0) {
            ASSERT_EQ(listed(), std::vector<int>(ids.begin(), ids.end()));
        }
        ASSERT_EQ(KTGetContext()->nHMMServers, int(ids.size()));
        most = std::max(most, int(ids.size()));
    }
    EXPECT_GT(most, 4096);
}

TEST_F(Registry, ManyReleasedFromEitherEnd) {
    for (const bool lowestFirst : {true, false}) {
        KTInitHMMRegistry();
        constexpr int count = 20000;
        for (int id = 1; id <= count; ++id)
            ASSERT_EQ(registerOne(), id);
        for (int k = 1; k <= count; ++k)
            KTFreeHMMServer(lowestFirst ? k : count + 1 - k);
        EXPECT_EQ(KTGetContext()->nHMMServers, 0);
        EXPECT_EQ(KTGetContext()->hmmServerCursor, KTGetContext()->hmmServerList);
        EXPECT_EQ(registerOne(), 1);
        reset();
    }
}

TEST_F(Registry, Lookup) {
    EXPECT_EQ(KTFindHMMServer(1), nullptr); // no registry
    KTInitHMMRegistry();
    EXPECT_EQ(KTFindHMMServer(1), nullptr);
    for (int i = 0; i < 5; ++i)
        registerOne();
    KTFreeHMMServer(3);
    EXPECT_EQ(KTFindHMMServer(3), nullptr); // 4 is the first larger id
    for (const int id : {0, -1, 6, 4096, 5000, INT_MAX, INT_MIN})
        EXPECT_EQ(KTFindHMMServer(id), nullptr) << id;
    for (const int id : {1, 2, 4, 5})
        EXPECT_EQ(KTFindHMMServer(id)->id, id);
}

TEST_F(Registry, ParametersOfAServer) {
    std::mt19937 random(2);
    const int id = randomModel(random, 4, 7, Shape::banded).discrete(KT_HMM_EXPONENTIAL);
    int nStates = -9, nSymbols = -9, nQuant = -9, scale = -9, status = -9;
    EXPECT_EQ(KTGetHMMParm(id, &nStates, &nSymbols, &nQuant, &scale, &status), 0);
    EXPECT_EQ(nStates, 4);
    EXPECT_EQ(nSymbols, 7);
    EXPECT_EQ(nQuant, 0);
    EXPECT_EQ(scale, 0);
    EXPECT_EQ(unsigned(status),
              HMM_SERVER_DISCRETE | HMM_SERVER_FLOAT | HMM_SERVER_BANDED | KT_HMM_EXPONENTIAL);
    EXPECT_EQ(KTGetHMMParm(id, nullptr, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(KTGetHMMParm(id + 1, &nStates, nullptr, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(KTGetHMMParm(-1, nullptr, nullptr, nullptr, nullptr, nullptr), -1);
    reset();
    EXPECT_EQ(KTGetHMMParm(id, nullptr, nullptr, nullptr, nullptr, nullptr), -1);
}

TEST_F(Registry, InfoOfAServer) {
    KTInitHMMRegistry();
    auto* record = static_cast<HMMServer*>(std::calloc(1, sizeof(HMMServer)));
    int words[6] = {};
    record->tag = 11;
    record->nStates = 12;
    record->nSymbols = 13;
    record->nQuant = 14;
    record->scale = -15;
    record->status = HMM_SERVER_DISCRETE;
    record->transitions = &words[0];
    record->outputs = &words[1];
    record->initials = &words[2];
    record->mixtures = reinterpret_cast<GaussMixServer**>(&words[4]);
    const int id = KTRegisterHMMServer(record);
    struct Info {
        int tag = -1, nStates = -1, nSymbols = -1, nQuant = -1, scale = -1;
        void *transitions, *outputs, *initials;
        unsigned status = 1;
        explicit Info(int id) : transitions(this), outputs(this), initials(this) {
            KTGetHMMServerInfo(id, &tag, &transitions, &outputs, &initials, &nStates, &nSymbols,
                               &nQuant, &scale, &status);
        }
    };
    const Info info(id);
    EXPECT_EQ(info.tag, 11);
    EXPECT_EQ(info.nStates, 12);
    EXPECT_EQ(info.nSymbols, 13);
    EXPECT_EQ(info.nQuant, 14);
    EXPECT_EQ(info.scale, -15);
    EXPECT_EQ(info.transitions, &words[0]);
    EXPECT_EQ(info.outputs, &words[1]);
    EXPECT_EQ(info.initials, &words[2]);
    EXPECT_EQ(info.status, HMM_SERVER_DISCRETE);
    record->status = HMM_SERVER_CONT;
    EXPECT_EQ(Info(id).outputs, &words[4]); // a continuous server's mixtures
    const Info unknown(id + 1);
    EXPECT_EQ(unknown.tag | unknown.nStates | unknown.nSymbols | unknown.nQuant | unknown.scale, 0);
    EXPECT_EQ(unknown.transitions, nullptr);
    EXPECT_EQ(unknown.outputs, nullptr);
    EXPECT_EQ(unknown.initials, nullptr);
    EXPECT_EQ(unknown.status, 0u);
    KTGetHMMServerInfo(id, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                       nullptr);
    KTUnregisterHMMServer(record);
    std::free(record);
}

// The ids of one thread mean nothing in another.
TEST_F(Registry, EachThreadHasItsOwn) {
    KTInitHMMRegistry();
    registerOne();
    std::thread([] {
        EXPECT_EQ(KTFindHMMServer(1), nullptr);
        EXPECT_EQ(KTGetContext()->hmmMode, 0u);
        KTInitHMMRegistry();
        EXPECT_EQ(registerOne(), 1);
        KTHMMFreeAll();
    }).join();
    EXPECT_NE(KTFindHMMServer(1), nullptr);
}
