#include "models/codebooks.h"
#include "models/layout.h"
#include "quantisers/density_codebook.h"
#include "support/alloc_faults.h"
#include "support/reports.h"

#include <climits>
#include <cstring>
#include <functional>

using namespace models;

namespace {

using Creation = ModelTest;
using Copies = ModelTest;
using Release = ModelTest;

constexpr unsigned domain = KT_HMM_LOGARITHMIC | KT_HMM_EXPONENTIAL;
constexpr char bothDomains[] =
    "(flags&(KT_HMM_EXPONENTIAL+ KT_HMM_LOGARITHMIC))==(KT_HMM_EXPONENTIAL+KT_HMM_LOGARITHMIC)";

const HMMServer& server(int id) {
    return *KTFindHMMServer(id);
}

void expectReport(const support::CapturedReports& reports, const char* text, const char* name,
                  const char* source = "..\\_LIBSRC\\KT_HMAN") {
    ASSERT_EQ(reports.count(), 1u) << name;
    EXPECT_EQ(reports[0].status, KT_StsBadArg);
    EXPECT_EQ(reports[0].message, text);
    EXPECT_EQ(reports[0].function, name);
    EXPECT_EQ(reports[0].source, source);
}

// One model of four states and six symbols in every flavour and form, with the codebooks they need.
struct Kit {
    static constexpr int n = 4, m = 6, dim = 3;
    std::mt19937 random{1};
    Model<float> model = randomModel(random, n, m, Shape::triangular);
    Model<short> fixed = fixedOf(model);
    Servers mixtures = floatServers(random, n, dim, 2, false);
    Servers fixedMixtures = fixedServers(random, n, dim, 2, true);
    Servers densities = floatServers(random, m, dim, 1, false);
    Servers fixedDensities = fixedServers(random, m, dim, 1, false);

    void setCodebooks() {
        ASSERT_EQ(KTsInitSemicontCodebook(densities.table.data(), m, dim, 0), 1);
        ASSERT_EQ(KTwInitSemicontCodebook(fixedDensities.table.data(), m, dim, 0), 1);
    }

    struct Init {
        const char* name; // of the operation
        bool isFixed;
        unsigned kind;
        std::function<int(int flags)> call;
    };
    std::vector<Init> inits() {
        return {
            {"KTwInitHMMServer", true, 0x800010, [this](int f) { return fixed.discrete(f); }},
            {"KTsInitHMMServer", false, 0x800020, [this](int f) { return model.discrete(f); }},
            {"KTwInitContHMMServer", true, 0x40400010,
             [this](int f) { return fixed.continuous(fixedMixtures.table.data(), dim, f, -8); }},
            {"KTsInitContHMMServer", false, 0x40400020,
             [this](int f) { return model.continuous(mixtures.table.data(), dim, f); }},
            {"KTwInitSemicontHMMServer", true, 0x200010,
             [this](int f) { return fixed.semicont(dim, f, -8); }},
            {"KTsInitSemicontHMMServer", false, 0x200020,
             [this](int f) { return model.semicont(dim, f); }},
        };
    }
};

} // namespace

// --- Init ---

TEST_F(Creation, RecordsOfAllSix) {
    Kit kit;
    kit.setCodebooks();
    int expectedId = 0;
    for (const auto& init : kit.inits()) {
        SCOPED_TRACE(init.name);
        const int id = init.call(int(KT_HMM_LOGARITHMIC));
        ASSERT_EQ(id, ++expectedId);
        const auto& s = server(id);
        const bool continuous = (init.kind & HMM_SERVER_CONT) != 0;
        const bool discrete = (init.kind & HMM_SERVER_DISCRETE) != 0;
        EXPECT_EQ(s.id, id);
        EXPECT_EQ(s.tag, 0);
        EXPECT_EQ(s.status & domain, KT_HMM_LOGARITHMIC);
        EXPECT_EQ(s.status & ~(domain | hmmTopologyBits), init.kind);
        // classified as probabilities and costs are: the float model holds probabilities, all of
        // them below 30
        EXPECT_EQ(s.status & hmmTopologyBits, init.isFixed ? HMM_SERVER_TRIANGULAR : 0);
        EXPECT_EQ(s.nStates, 4);
        EXPECT_EQ(s.nSymbols, continuous ? 0 : 6);
        EXPECT_EQ(s.nQuant, discrete ? 0 : 3);
        EXPECT_EQ(s.scale, init.isFixed && !discrete ? -8 : 0);
        EXPECT_EQ(s.reserved0, 0);
        EXPECT_EQ(s.reserved1, 0);
        EXPECT_EQ(s.stateWords, nullptr);
        EXPECT_NE(s.transitions, nullptr);
        EXPECT_NE(s.initials, nullptr);
        EXPECT_EQ(s.outputs == nullptr, continuous);
        EXPECT_EQ(s.mixtures != nullptr, continuous);
    }
    EXPECT_EQ(KTGetStatus(), 0);
}

TEST_F(Creation, DomainBits) {
    Kit kit;
    kit.setCodebooks();
    for (const auto& init : kit.inits()) {
        SCOPED_TRACE(init.name);
        const auto domainOf = [&](int flags) { return server(init.call(flags)).status & domain; };
        EXPECT_EQ(domainOf(0), init.isFixed ? 0 : KT_HMM_LOGARITHMIC);
        EXPECT_EQ(domainOf(KT_HMM_LOGARITHMIC), KT_HMM_LOGARITHMIC);
        if (!init.isFixed) {
            EXPECT_EQ(domainOf(KT_HMM_EXPONENTIAL), KT_HMM_EXPONENTIAL);
        }
        // no other bit of the flags is used
        const int id = init.call(int(0x7FFFFFFCu | KT_HMM_LOGARITHMIC));
        EXPECT_EQ(server(id).status & ~(domain | hmmTopologyBits), init.kind);
    }
}

TEST_F(Creation, RefusedDomains) {
    Kit kit; // without codebooks, registry or memory: the flags are looked at first
    for (const auto& init : kit.inits()) {
        SCOPED_TRACE(init.name);
        const bool otherName = std::strcmp(init.name, "KTsInitHMMServer") == 0;
        for (const unsigned flags : {KT_HMM_EXPONENTIAL, domain}) {
            if (!init.isFixed && flags != domain) continue;
            support::CapturedReports reports;
            EXPECT_EQ(init.call(int(flags)), -1);
            expectReport(reports, init.isFixed ? "flags&KT_HMM_EXPONENTIAL" : bothDomains,
                         otherName ? "KTwInitHMMServer" : init.name);
        }
        EXPECT_EQ(KTGetContext()->hmmMode, 0u);
    }
}

TEST_F(Creation, CodebookFailures) {
    Kit kit;
    const auto expect = [&](int result, const char* text, const char* fixedText) {
        support::CapturedReports reports;
        EXPECT_EQ(kit.model.semicont(Kit::dim, 0), result);
        expectReport(reports, text, "KTsInitSemicontHMMServer");
        reports.clear();
        EXPECT_EQ(kit.fixed.semicont(Kit::dim, 0, -8), result);
        expectReport(reports, fixedText, "KTwInitSemicontHMMServer");
        EXPECT_EQ(KTGetContext()->nHMMServers, 0);
    };
    expect(-2, "_sSemicontCodebook->status==0", "_wSemicontCodebook->status==0");
    EXPECT_EQ(KTsInitSemicontCodebook(kit.densities.table.data(), 5, 2, 0), 1);
    EXPECT_EQ(KTwInitSemicontCodebook(kit.fixedDensities.table.data(), 5, 2, 0), 1);
    expect(-3, "_sSemicontCodebook->nSymbols!=nSymbols", "_wSemicontCodebook->nSymbols!=nSymbols");
    KTsFreeSemicontCodebook();
    KTwFreeSemicontCodebook();
    EXPECT_EQ(KTsInitSemicontCodebook(kit.densities.table.data(), 6, 2, 0), 1);
    EXPECT_EQ(KTwInitSemicontCodebook(kit.fixedDensities.table.data(), 6, 2, 0), 1);
    expect(-4, "_sSemicontCodebook->nQuant!=nQuant", "_wSemicontCodebook->nQuant!=nQuant");
}

// A float server needs a float codebook, a fixed server a fixed one.
TEST_F(Creation, TheCodebookOfTheSameForm) {
    Kit kit;
    ASSERT_EQ(KTwInitSemicontCodebook(kit.fixedDensities.table.data(), 6, 3, 0), 1);
    support::CapturedReports reports;
    EXPECT_EQ(kit.model.semicont(Kit::dim, 0), -2);
    reports.clear();
    EXPECT_GT(kit.fixed.semicont(Kit::dim, 0, -8), 0);
}

TEST_F(Creation, MissingArrays) {
    Kit kit;
    const auto trans = pointers(kit.model.trans), out = pointers(kit.model.out);
    const auto refused = [](auto call) {
        support::CapturedReports reports;
        EXPECT_EQ(call(), -1);
        expectReport(reports, "change HMM nStates without data", "KTSetHMMServerParm",
                     "..\\_LIBSRC\\KT_HINT");
        EXPECT_EQ(KTGetContext()->nHMMServers, 0);
    };
    const float* initial = kit.model.initial.data();
    refused([&] { return KTsInitHMMServer(nullptr, out.data(), initial, 4, 6, 0); });
    refused([&] { return KTsInitHMMServer(trans.data(), nullptr, initial, 4, 6, 0); });
    refused([&] { return KTsInitHMMServer(trans.data(), out.data(), nullptr, 4, 6, 0); });
    refused([&] {
        return KTsInitContHMMServer(trans.data(), nullptr, kit.mixtures.table.data(), 4, 3, 0);
    });
    kit.mixtures.table[2] = nullptr;
    EXPECT_EQ(kit.model.continuous(kit.mixtures.table.data(), 3, 0), -1);
    EXPECT_EQ(kit.model.continuous(nullptr, 3, 0), -1);
    EXPECT_EQ(KTGetContext()->nHMMServers, 0);
    EXPECT_EQ(KTGetStatus(), 0);
}

// No reader would accept the file of such a model. The codebook is compared first.
TEST_F(Creation, NoStatesAreRefused) {
    Kit kit;
    const auto trans = pointers(kit.model.trans), out = pointers(kit.model.out);
    const auto fixedTrans = pointers(kit.fixed.trans), fixedOut = pointers(kit.fixed.out);
    const float* initial = kit.model.initial.data();
    const short* fixedInitial = kit.fixed.initial.data();
    const auto semicont = [&](int n) {
        return KTsInitSemicontHMMServer(trans.data(), out.data(), initial, n, 6, 3, 0);
    };
    {
        support::CapturedReports reports;
        EXPECT_EQ(semicont(0), -2);
    }
    kit.setCodebooks();
    const long before = support::alloc::liveBlocks();
    for (const int n : {0, -1, INT_MIN}) {
        const auto refused = [&](const char* name, int id, support::CapturedReports& reports) {
            EXPECT_EQ(id, -1) << name;
            expectReport(reports, "nStates<1", name);
            EXPECT_EQ(KTGetStatus(), KT_StsBadArg);
            EXPECT_EQ(KTGetContext()->nHMMServers, 0);
            reports.clear();
        };
        support::CapturedReports reports;
        refused("KTsInitHMMServer", KTsInitHMMServer(trans.data(), out.data(), initial, n, 6, 0),
                reports);
        refused("KTwInitHMMServer",
                KTwInitHMMServer(fixedTrans.data(), fixedOut.data(), fixedInitial, n, 6, 0),
                reports);
        refused("KTsInitContHMMServer",
                KTsInitContHMMServer(trans.data(), initial, kit.mixtures.table.data(), n, 3, 0),
                reports);
        refused("KTwInitContHMMServer",
                KTwInitContHMMServer(fixedTrans.data(), fixedInitial,
                                     kit.fixedMixtures.table.data(), n, 3, 0, -8),
                reports);
        refused("KTsInitSemicontHMMServer", semicont(n), reports);
        refused("KTwInitSemicontHMMServer",
                KTwInitSemicontHMMServer(fixedTrans.data(), fixedOut.data(), fixedInitial, n, 6, 3,
                                         0, -8),
                reports);
    }
    EXPECT_EQ(support::alloc::liveBlocks(), before);
}

TEST_F(Creation, DiscreteModelsOfNoSymbolsAreRefused) {
    Kit kit;
    const auto trans = pointers(kit.model.trans), out = pointers(kit.model.out);
    const auto fixedTrans = pointers(kit.fixed.trans), fixedOut = pointers(kit.fixed.out);
    for (const int m : {0, -1, INT_MIN}) {
        support::CapturedReports reports;
        EXPECT_EQ(KTsInitHMMServer(trans.data(), out.data(), kit.model.initial.data(), 4, m, 0),
                  -1);
        expectReport(reports, "nSymbols<1", "KTsInitHMMServer");
        reports.clear();
        EXPECT_EQ(
            KTwInitHMMServer(fixedTrans.data(), fixedOut.data(), kit.fixed.initial.data(), 4, m, 0),
            -1);
        expectReport(reports, "nSymbols<1", "KTwInitHMMServer");
        EXPECT_EQ(KTGetContext()->nHMMServers, 0);
    }
}

// What would not fit any memory is as if memory had run out: a server without arrays. The rows are
// not read.
TEST_F(Creation, SizesBeyondAllMemory) {
    const float value = 0;
    const float* row = &value;
    const short word = 0;
    const short* words = &word;
    const int symbol = 0;
    for (const int n : {INT_MAX, INT_MAX - 3, 0x20000000}) {
        const int wide = KTsInitHMMServer(&row, &row, &value, 1, n, 0);
        const int fixedWide = KTwInitHMMServer(&words, &words, &word, 1, n, 0);
        const int many = KTsInitHMMServer(&row, &row, &value, n, 1, 0);
        for (const int id : {wide, fixedWide, many}) {
            ASSERT_GT(id, 0);
            EXPECT_EQ(server(id).nStates, 0);
            EXPECT_EQ(KTsEvalHMMViterbi(id, &symbol, 1, nullptr),
                      std::numeric_limits<float>::max());
            EXPECT_EQ(KTwEvalHMMViterbi(id, &symbol, 1, nullptr, 0, nullptr), INT_MAX);
        }
    }
    EXPECT_EQ(KTGetStatus(), 0);
}

TEST_F(Creation, UnderANegativeStatus) {
    Kit kit;
    kit.setCodebooks();
    const long before = support::alloc::liveBlocks();
    for (const auto& init : kit.inits()) {
        KTSetStatus(-2);
        EXPECT_EQ(init.call(0), -1) << init.name;
        KTSetStatus(0);
        EXPECT_EQ(KTGetContext()->nHMMServers, 0);
    }
    EXPECT_EQ(support::alloc::liveBlocks(), before + 1); // the registry's table of ids
}

// The mixtures of a continuous server are its own.
TEST_F(Creation, PrivateMixtures) {
    Kit kit;
    const int id = kit.model.continuous(kit.mixtures.table.data(), 3, 0);
    const int fixedId = kit.fixed.continuous(kit.fixedMixtures.table.data(), 3, 0, -8);
    const auto frame = mixtures::randomVector(kit.random, 3);
    const auto words = mixtures::randomWords(kit.random, 3, 40);
    std::vector<double> expected;
    std::vector<int> fixedExpected;
    for (std::size_t i = 0; i < 4; ++i) {
        expected.push_back(KTsEvalGaussMix(kit.mixtures.table[i], frame.data(), 3));
        fixedExpected.push_back(
            KTwEvalGaussMix(kit.fixedMixtures.table[i], words.data(), 3, 0, nullptr));
        EXPECT_NE(server(id).mixtures[i], kit.mixtures.table[i]);
        EXPECT_EQ(server(fixedId).mixtures[i]->scale, kit.fixedMixtures.table[i]->scale);
    }
    kit.mixtures = {};
    kit.fixedMixtures = {};
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(KTsEvalGaussMix(server(id).mixtures[i], frame.data(), 3), expected[i]);
        EXPECT_EQ(KTwEvalGaussMix(server(fixedId).mixtures[i], words.data(), 3, 0, nullptr),
                  fixedExpected[i]);
    }
}

// A failed allocation of the record or of a mixture gives -1; one of a stored array gives a server
// that lacks it and cannot be evaluated. Nothing leaks and no record half built stays behind.
TEST_F(Creation, AllocationFailures) {
    Kit kit;
    kit.setCodebooks();
    KTFreeHMMServer(kit.model.discrete(0)); // the table of ids stays
    const long before = support::alloc::liveBlocks();
    support::CapturedReports reports; // mixtures report what they could not get
    for (const auto& init : kit.inits()) {
        SCOPED_TRACE(init.name);
        int id = 0, silent = 0;
        const int failures =
            support::alloc::failEach([&] { id = init.call(KT_HMM_LOGARITHMIC); },
                                     [&] {
                                         silent += id > 0;
                                         if (id > 0) {
                                             EXPECT_EQ(KTGetStatus(), 0);
                                             EXPECT_EQ(server(id).nStates, 0);
                                             EXPECT_EQ(server(id).status, 0u);
                                             EXPECT_GT(KTCopyHMMServer(id), id);
                                             KTFreeHMMServer(id + 1);
                                             KTFreeHMMServer(id);
                                         }
                                         EXPECT_EQ(KTGetContext()->nHMMServers, 0);
                                         EXPECT_EQ(support::alloc::liveBlocks(), before);
                                         KTSetStatus(0);
                                     });
        const bool continuous = (init.kind & HMM_SERVER_CONT) != 0;
        EXPECT_EQ(silent, continuous ? 2 : 3); // the stored arrays
        EXPECT_EQ(failures, continuous ? 8 : 4);
        EXPECT_GT(id, 0);
        KTFreeHMMServer(id);
    }
}

TEST_F(Creation, AllocationFailuresOfTheFirstServer) {
    Kit kit;
    const long before = support::alloc::liveBlocks();
    EXPECT_EQ(support::alloc::failEach(
                  [&] {
                      KTHMMFreeAll();
                      kit.model.discrete(0);
                  },
                  [&] {
                      EXPECT_EQ(KTGetStatus(), 0);
                      KTHMMFreeAll();
                      EXPECT_EQ(support::alloc::liveBlocks(), before);
                  }),
              4 + 1 + 1 + 3); // registry, record, table of ids, arrays
}

// --- copies ---

TEST_F(Copies, EqualTheirSourceAndOwnTheirArrays) {
    Kit kit;
    kit.setCodebooks();
    for (const auto& init : kit.inits())
        for (const int flags :
             {int(KT_HMM_LOGARITHMIC), init.isFixed ? 0 : int(KT_HMM_EXPONENTIAL)}) {
            SCOPED_TRACE(init.name);
            const int id = init.call(flags);
            KTFindHMMServer(id)->tag = 99;
            KTFindHMMServer(id)->reserved0 = 5;
            KTFindHMMServer(id)->reserved1 = 6;
            const int group = KTCreateHMMClass();
            KTAddHMMToClass(group, id);
            const int copyId = KTCopyHMMServer(id);
            ASSERT_EQ(copyId, id + 1);
            EXPECT_EQ(KTFindHMMClass(group)->nMembers, 1); // the copy is in no class
            const HMMServer &source = server(id), &copy = server(copyId);
            EXPECT_EQ(copy.tag, 0);
            EXPECT_EQ(copy.status, source.status);
            EXPECT_EQ(copy.nStates, source.nStates);
            EXPECT_EQ(copy.nSymbols, source.nSymbols);
            EXPECT_EQ(copy.nQuant, source.nQuant);
            EXPECT_EQ(copy.scale, source.scale);
            EXPECT_EQ(copy.reserved0, 0);
            EXPECT_EQ(copy.reserved1, 6);
            EXPECT_EQ(copy.stateWords, nullptr);
            EXPECT_NE(copy.transitions, source.transitions);
            EXPECT_NE(copy.initials, source.initials);
            const std::size_t alignment = hmm::alignmentOf(source.status);
            const auto same = [&](void* a, void* b, std::size_t bytes) {
                return std::memcmp(hmm::aligned<char>(a, alignment),
                                   hmm::aligned<char>(b, alignment), bytes) == 0;
            };
            EXPECT_TRUE(same(copy.transitions, source.transitions,
                             hmm::TransitionMap::of(source).size() * 4));
            EXPECT_TRUE(same(copy.initials, source.initials, 4 * sizeof(int)));
            if (source.outputs != nullptr) {
                const auto shape =
                    hmm::OutputShape::of(source.status, source.nStates, source.nSymbols);
                auto* const* rows = static_cast<char**>(copy.outputs);
                auto* const* sourceRows = static_cast<char**>(source.outputs);
                for (int r = 0; r < shape.slots; ++r) {
                    EXPECT_EQ(rows[r] == nullptr, r >= shape.rows);
                    if (r < shape.rows) {
                        EXPECT_NE(rows[r], sourceRows[r]);
                        EXPECT_EQ(std::memcmp(rows[r], sourceRows[r],
                                              at(shape.stride) * shape.elementSize),
                                  0);
                    }
                }
            }
            for (int i = 0; source.mixtures != nullptr && i < 4; ++i)
                EXPECT_NE(copy.mixtures[i], source.mixtures[i]);
            KTFreeHMMServer(id);
            KTFreeHMMServer(copyId);
            KTDeleteHMMClass(group);
        }
}

// A normalised mixture is not normalised again: the copy's weights are the source's, bit for bit.
TEST_F(Copies, NormalisedMixtures) {
    std::mt19937 random(2);
    Servers servers;
    for (int i = 0; i < 2; ++i)
        servers.add(mixtures::randomMixture(random, 3, 2, true).server(KT_GAUSS_NORMALIZE));
    const int id = randomModel(random, 2, 1, Shape::full)
                       .continuous(servers.table.data(), 3, KT_HMM_EXPONENTIAL);
    auto* first = server(id).mixtures[0];
    first->pNormWeights[0] *= 1.5f; // what no normalisation of the weights would give
    const int copy = KTCopyHMMServer(id);
    for (std::size_t i = 0; i < 2; ++i) {
        const auto *a = server(id).mixtures[i], *b = server(copy).mixtures[i];
        EXPECT_EQ(std::memcmp(a->pNormWeights, b->pNormWeights, 2 * sizeof(float)), 0);
        EXPECT_EQ(a->flags & KT_GAUSS_NORMALIZE, KT_GAUSS_NORMALIZE);
        EXPECT_EQ(b->flags & KT_GAUSS_NORMALIZE, KT_GAUSS_NORMALIZE);
    }
    const auto frame = mixtures::randomVector(random, 3);
    EXPECT_EQ(KTsEvalGaussMix(first, frame.data(), 3),
              KTsEvalGaussMix(server(copy).mixtures[0], frame.data(), 3));
}

TEST_F(Copies, StateWordsAreCarriedAlong) {
    std::mt19937 random(3);
    const int id = randomModel(random, 3, 2, Shape::full).discrete(KT_HMM_EXPONENTIAL);
    auto* words = static_cast<int*>(std::malloc(3 * sizeof(int)));
    for (int i = 0; i < 3; ++i)
        words[i] = 40 + i;
    KTFindHMMServer(id)->stateWords = words;
    const int copy = KTCopyHMMServer(id);
    ASSERT_NE(server(copy).stateWords, nullptr);
    EXPECT_NE(server(copy).stateWords, words);
    EXPECT_EQ(std::memcmp(server(copy).stateWords, words, 3 * sizeof(int)), 0);
}

TEST_F(Copies, UnknownIds) {
    EXPECT_EQ(KTCopyHMMServer(1), -1);
    KTSetHMMMode(0);
    for (const int id : {0, 1, -1, INT_MAX, INT_MIN})
        EXPECT_EQ(KTCopyHMMServer(id), -1);
    EXPECT_EQ(KTGetStatus(), 0);
}

// The id is that of a server which is gone again.
TEST_F(Copies, UnderANegativeStatus) {
    std::mt19937 random(4);
    const int id = randomModel(random, 3, 2, Shape::full).discrete(KT_HMM_EXPONENTIAL);
    const long before = support::alloc::liveBlocks();
    KTSetStatus(-2);
    EXPECT_EQ(KTCopyHMMServer(id), id + 1);
    EXPECT_EQ(KTFindHMMServer(id + 1), nullptr);
    EXPECT_EQ(support::alloc::liveBlocks(), before);
}

TEST_F(Copies, AllocationFailures) {
    Kit kit;
    kit.setCodebooks();
    support::CapturedReports reports;
    for (const auto& init : kit.inits()) {
        SCOPED_TRACE(init.name);
        const int id = init.call(KT_HMM_LOGARITHMIC);
        KTFindHMMServer(id)->stateWords = static_cast<int*>(std::calloc(4, sizeof(int)));
        const long before = support::alloc::liveBlocks();
        int copy = 0;
        const int failures =
            support::alloc::failEach([&] { copy = KTCopyHMMServer(id); },
                                     [&] {
                                         EXPECT_EQ(copy, -1);
                                         EXPECT_EQ(KTFindHMMServer(id + 1), nullptr);
                                         EXPECT_EQ(support::alloc::liveBlocks(), before);
                                         KTSetStatus(0);
                                     });
        EXPECT_EQ(failures, (init.kind & HMM_SERVER_CONT) != 0 ? 9 : 5);
        EXPECT_EQ(copy, id + 1);
        KTFreeHMMServer(copy);
        KTFreeHMMServer(id);
    }
}

// --- release ---

TEST_F(Release, WithoutARegistry) {
    KTFreeHMMServer(1);
    KTHMMFreeAll();
    EXPECT_EQ(KTGetContext()->hmmMode, 0u);
}

TEST_F(Release, UnknownIds) {
    std::mt19937 random(5);
    const int id = randomModel(random, 3, 2, Shape::full).discrete(KT_HMM_EXPONENTIAL);
    for (const int other : {0, -1, id + 1, INT_MAX, INT_MIN})
        KTFreeHMMServer(other);
    EXPECT_EQ(KTGetContext()->nHMMServers, 1);
    KTFreeHMMServer(id);
    KTFreeHMMServer(id);
    EXPECT_EQ(KTGetContext()->nHMMServers, 0);
}

TEST_F(Release, TakesAllMemoryBack) {
    Kit kit;
    kit.setCodebooks();
    KTFreeHMMServer(kit.model.discrete(0));
    const long before = support::alloc::liveBlocks();
    for (const auto& init : kit.inits()) {
        const int id = init.call(KT_HMM_LOGARITHMIC);
        KTFindHMMServer(id)->stateWords = static_cast<int*>(std::calloc(4, sizeof(int)));
        KTFreeHMMServer(id);
        EXPECT_EQ(support::alloc::liveBlocks(), before) << init.name;
    }
}

// Mixtures that are not the server's own are left alone.
TEST_F(Release, BorrowedMixtures) {
    Kit kit;
    const int id = kit.model.continuous(kit.mixtures.table.data(), 3, KT_HMM_EXPONENTIAL);
    HMMServer* record = KTFindHMMServer(id);
    record->status &= ~HMM_SERVER_OWNS_MIXTURES;
    GaussMixServer* borrowed[5];
    for (int i = 0; i < 5; ++i)
        borrowed[i] = record->mixtures[i];
    const int copy = KTCopyHMMServer(id);
    EXPECT_EQ(server(copy).mixtures[0], borrowed[0]);
    KTFreeHMMServer(copy);
    KTFreeHMMServer(id);
    const auto frame = mixtures::randomVector(kit.random, 3);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(KTsEvalGaussMix(borrowed[i], frame.data(), 3),
                  KTsEvalGaussMix(kit.mixtures.table[at(i)], frame.data(), 3));
        KTsFreeGaussMixServer(borrowed[i]);
    }
}

TEST_F(Release, All) {
    Kit kit;
    const long before = support::alloc::liveBlocks();
    kit.setCodebooks();
    KTSetHMMMode(KT_HMM_KEEP);
    const int group = KTCreateHMMClass();
    for (const auto& init : kit.inits())
        for (int k = 0; k < 20; ++k) {
            const int id = init.call(KT_HMM_LOGARITHMIC);
            if (std::strcmp(init.name, "KTsInitHMMServer") == 0) {
                EXPECT_EQ(KTAddHMMToClass(group, id), 1);
            }
        }
    KTContext* context = KTGetContext();
    context->hmmScalesBuffer = static_cast<int*>(std::malloc(64));
    context->hmmScalesLen = 16;
    KTHMMFreeAll();
    EXPECT_EQ(support::alloc::liveBlocks(), before);
    EXPECT_EQ(context->hmmMode, 0u);
    EXPECT_EQ(context->nHMMClasses, 0);
    EXPECT_EQ(context->nHMMServers, 0);
    EXPECT_EQ(context->hmmClassList, nullptr);
    EXPECT_EQ(context->hmmServerList, nullptr);
    EXPECT_EQ(context->hmmServerCursor, nullptr);
    EXPECT_EQ(context->sSemicont, nullptr);
    EXPECT_EQ(context->wSemicont, nullptr);
    EXPECT_EQ(context->hmmScalesBuffer, nullptr);
    EXPECT_EQ(context->hmmScalesLen, 0);
    KTHMMFreeAll();                      // nothing left to do
    EXPECT_EQ(kit.model.discrete(0), 1); // afresh, with the lowest ids
    EXPECT_EQ(KTCreateHMMClass(), 1);
    EXPECT_EQ(context->hmmMode, 0x05000000u);
}

TEST_F(Release, AllUnderANegativeStatus) {
    Kit kit;
    const long before = support::alloc::liveBlocks();
    kit.setCodebooks();
    kit.model.discrete(0);
    KTSetStatus(-2);
    KTHMMFreeAll();
    EXPECT_EQ(support::alloc::liveBlocks(), before);
}
