#include "models/fixture.h"
#include "support/alloc_faults.h"
#include "support/reports.h"

#include <chrono>
#include <climits>
#include <set>

using namespace models;

namespace {

// A class, and servers 1, 2, ... that cost next to nothing to make.
class Classes : public ModelTest {
protected:
    Classes() : group(KTCreateHMMClass()) {}

    static int server() {
        static const Model<float> model{1, 1, Shape::full, {{0}}, {{0}}, {0}};
        return model.discrete(0);
    }
    static void servers(int count) {
        for (int i = 0; i < count; ++i)
            server();
    }
    void add(const std::vector<int>& ids) const {
        for (const int id : ids)
            ASSERT_EQ(KTAddHMMToClass(group, id), 1);
    }
    void addRange(int first, int last) const {
        for (int id = first; id <= last; ++id)
            ASSERT_EQ(KTAddHMMToClass(group, id), 1);
    }
    HMMClass* record() const { return KTFindHMMClass(group); }
    int next() const { return KTNextHMMInClass(group); }
    std::vector<int> rest() const {
        std::vector<int> ids;
        for (int id = next(); id != 0; id = next())
            ids.push_back(id);
        return ids;
    }
    std::vector<int> members() const {
        EXPECT_EQ(KTResetHMMClass(group), 1);
        return rest();
    }
    // Chunk by chunk, after a check of every word of each.
    std::vector<std::vector<int>> chunks() const {
        std::vector<std::vector<int>> result;
        int total = 0;
        for (const HMMClassChunk* chunk = record()->head; chunk != nullptr; chunk = chunk->next) {
            EXPECT_EQ(chunk->classId, group);
            result.emplace_back();
            for (int i = 0; i < HMM_CHUNK_CAPACITY; ++i) {
                const auto& entry = chunk->entries[i];
                EXPECT_EQ(entry.server, i < chunk->count ? KTFindHMMServer(entry.id) : nullptr);
                if (i < chunk->count)
                    result.back().push_back(entry.id);
                else
                    EXPECT_EQ(entry.id, 0);
            }
            EXPECT_TRUE(std::is_sorted(result.back().begin(), result.back().end()));
            if (chunk->next != nullptr)
                EXPECT_LT(chunk->maxKey, chunk->next->entries[0].id);
            else
                EXPECT_EQ(chunk->maxKey, HMM_CHUNK_LAST_KEY);
            EXPECT_GE(chunk->maxKey, result.back().back());
            total += chunk->count;
        }
        EXPECT_EQ(record()->nMembers, total);
        return result;
    }

    const int group;
};

std::vector<int> range(int first, int last) {
    std::vector<int> ids;
    for (int id = first; id <= last; ++id)
        ids.push_back(id);
    return ids;
}

} // namespace

TEST_F(Classes, TheLowestFreeIdIsTaken) {
    EXPECT_EQ(group, 1);
    EXPECT_EQ(KTCreateHMMClass(), 2);
    EXPECT_EQ(KTCreateHMMClass(), 3);
    EXPECT_EQ(KTDeleteHMMClass(2), 1);
    EXPECT_EQ(KTFindHMMClass(2), nullptr);
    EXPECT_EQ(KTFindHMMClass(3)->id, 3);
    EXPECT_EQ(KTGetContext()->nHMMClasses, 2);
    EXPECT_EQ(KTCreateHMMClass(), 2);
    EXPECT_EQ(KTDeleteHMMClass(1), 1);
    EXPECT_EQ(KTCreateHMMClass(), 1);
    EXPECT_EQ(KTCreateHMMClass(), 4);
    EXPECT_EQ(KTGetContext()->nHMMClasses, 4);
    for (const int id : {0, -1, 5, INT_MAX, INT_MIN}) {
        EXPECT_EQ(KTFindHMMClass(id), nullptr);
        EXPECT_EQ(KTDeleteHMMClass(id), -1);
    }
}

TEST_F(Classes, ANewClassIsRewoundAndEmpty) {
    const HMMClass* fresh = record();
    EXPECT_EQ(fresh->status, HMM_CLASS_REWOUND);
    EXPECT_EQ(fresh->nMembers, 0);
    EXPECT_EQ(fresh->reserved, 0);
    EXPECT_EQ(fresh->head, nullptr);
    EXPECT_EQ(next(), 0);
    EXPECT_EQ(record()->status, HMM_CLASS_AT_END);
    EXPECT_EQ(members(), std::vector<int>{});
}

TEST_F(Classes, MembersComeInOrder) {
    servers(5);
    add({5, 3, 4});
    EXPECT_EQ(members(), (std::vector<int>{3, 4, 5}));
    EXPECT_EQ(next(), 0); // and stays at the end
    EXPECT_EQ(members(), (std::vector<int>{3, 4, 5}));
}

TEST_F(Classes, TheSameIdCountsOnce) {
    servers(1);
    add({1, 1});
    EXPECT_EQ(record()->nMembers, 1);
    EXPECT_EQ(members(), std::vector<int>{1});
}

// The first member brings the class's key, and its word replaces the cursor bits too: without a
// rewind the cursor stands on the member, and the next step passes it.
TEST_F(Classes, TheFirstMemberSetsTheKey) {
    servers(1);
    add({1});
    EXPECT_EQ(record()->status, HMM_SERVER_DISCRETE | HMM_SERVER_FLOAT | KT_HMM_LOGARITHMIC);
    EXPECT_EQ(record()->cursorChunk, record()->head);
    EXPECT_EQ(record()->cursorIndex, 0);
    EXPECT_EQ(next(), 0);
}

TEST_F(Classes, AnotherKindIsRefused) {
    std::mt19937 random(1);
    const auto model = randomModel(random, 4, 3, Shape::full);
    const int logarithmic = costsOf(model).discrete(0);
    const int exponential = model.discrete(KT_HMM_EXPONENTIAL);
    const int fixed = fixedOf(model).discrete(KT_HMM_LOGARITHMIC);
    const int otherTopology = costsOf(randomModel(random, 7, 3, Shape::banded)).discrete(0);
    add({logarithmic, otherTopology});
    const auto refused = [&](int id) {
        const unsigned status = record()->status;
        support::CapturedReports reports;
        EXPECT_EQ(KTAddHMMToClass(group, id), -1);
        ASSERT_EQ(reports.count(), 1u);
        EXPECT_EQ(reports[0].status, KT_StsBadArg);
        EXPECT_EQ(reports[0].message, "wrong class for HMM server");
        EXPECT_EQ(reports[0].function, "KTAddHMMToClass");
        EXPECT_EQ(reports[0].source, "..\\_LIBSRC\\KT_HMAN");
        EXPECT_EQ(record()->status, status);
    };
    refused(exponential);
    refused(fixed);
    EXPECT_EQ(members(), (std::vector<int>{logarithmic, otherTopology}));
    EXPECT_EQ(KTRemoveHMMFromClass(group, logarithmic), 1);
    EXPECT_EQ(KTRemoveHMMFromClass(group, otherTopology), 1);
    EXPECT_EQ(record()->nMembers, 0);
    EXPECT_EQ(record()->head, nullptr);
    refused(fixed); // the key stays
    add({logarithmic});
}

TEST_F(Classes, UnknownIds) {
    servers(2);
    EXPECT_EQ(KTAddHMMToClass(group, 3), -1);
    EXPECT_EQ(KTAddHMMToClass(2, 1), -1);
    EXPECT_EQ(KTRemoveHMMFromClass(group, 3), -1);
    EXPECT_EQ(KTRemoveHMMFromClass(2, 1), -1);
    EXPECT_EQ(KTRemoveHMMFromClass(group, 1), 1); // no member of an empty class
    add({2});
    EXPECT_EQ(KTRemoveHMMFromClass(group, 1), 1); // nor of this one
    EXPECT_EQ(record()->nMembers, 1);
    EXPECT_EQ(KTResetHMMClass(2), -1);
    EXPECT_EQ(KTNextHMMInClass(2), -1);
    EXPECT_EQ(KTGetStatus(), 0);
}

TEST_F(Classes, NoRegistry) {
    reset();
    EXPECT_EQ(KTFindHMMClass(1), nullptr);
    EXPECT_EQ(KTDeleteHMMClass(1), -1);
    EXPECT_EQ(KTAddHMMToClass(1, 1), -1);
    EXPECT_EQ(KTRemoveHMMFromClass(1, 1), -1);
    EXPECT_EQ(KTResetHMMClass(1), -1);
    EXPECT_EQ(KTNextHMMInClass(1), -1);
    EXPECT_EQ(KTGetContext()->hmmMode, 0u);
}

// --- chunks ---

TEST_F(Classes, The65thMemberSplitsTheChunk) {
    servers(65);
    addRange(1, 64);
    EXPECT_EQ(chunks().size(), 1u);
    add({65});
    EXPECT_EQ(chunks(), (std::vector<std::vector<int>>{range(1, 32), range(33, 65)}));
    EXPECT_EQ(record()->head->maxKey, 32);
    EXPECT_EQ(record()->head->next->maxKey, HMM_CHUNK_LAST_KEY);
    EXPECT_EQ(members(), range(1, 65));
}

TEST_F(Classes, ALowMemberGoesToTheLowerHalf) {
    servers(65);
    addRange(2, 65);
    add({1});
    EXPECT_EQ(chunks(), (std::vector<std::vector<int>>{range(1, 33), range(34, 65)}));
    EXPECT_EQ(record()->head->maxKey, 33);
}

TEST_F(Classes, ANewKeyMovesWithTheLastEntry) {
    servers(100);
    addRange(1, 65);
    EXPECT_EQ(KTRemoveHMMFromClass(group, 32), 1);
    EXPECT_EQ(record()->head->maxKey, 31);
    add({32}); // falls in the second chunk now
    EXPECT_EQ(chunks(), (std::vector<std::vector<int>>{range(1, 31), range(32, 65)}));
}

TEST_F(Classes, ChunksGoWithTheirLastEntry) {
    servers(200);
    addRange(1, 129);
    ASSERT_EQ(chunks().size(), 4u);   // 32, 32, 32, 33
    for (int id = 33; id <= 64; ++id) // a middle one
        KTRemoveHMMFromClass(group, id);
    EXPECT_EQ(chunks(),
              (std::vector<std::vector<int>>{range(1, 32), range(65, 96), range(97, 129)}));
    for (int id = 97; id <= 129; ++id) // the last one: the one before takes over its key
        KTRemoveHMMFromClass(group, id);
    EXPECT_EQ(chunks(), (std::vector<std::vector<int>>{range(1, 32), range(65, 96)}));
    for (int id = 1; id <= 32; ++id) // the first
        KTRemoveHMMFromClass(group, id);
    EXPECT_EQ(chunks(), (std::vector<std::vector<int>>{range(65, 96)}));
    for (int id = 96; id >= 65; --id)
        KTRemoveHMMFromClass(group, id);
    EXPECT_EQ(record()->head, nullptr);
    EXPECT_EQ(record()->cursorChunk, nullptr);
    EXPECT_EQ(record()->nMembers, 0);
    add({7});
    EXPECT_EQ(members(), std::vector<int>{7});
}

TEST_F(Classes, RandomMembersAgainstASet) {
    servers(700);
    std::mt19937 random(2);
    std::set<int> expected;
    for (int step = 0; step < 6000; ++step) {
        const int id = 1 + int(random() % 700);
        if (random() % 100 < (step / 1000 % 2 == 0 ? 75u : 25u)) {
            ASSERT_EQ(KTAddHMMToClass(group, id), 1);
            expected.insert(id);
        } else {
            ASSERT_EQ(KTRemoveHMMFromClass(group, id), 1);
            expected.erase(id);
        }
        ASSERT_EQ(record()->nMembers, int(expected.size()));
        if (step % 50 == 0) {
            chunks();
            ASSERT_EQ(members(), std::vector<int>(expected.begin(), expected.end()));
        }
    }
}

TEST_F(Classes, AllocationFailuresLeaveTheClassAsItWas) {
    servers(65);
    support::alloc::arm(1);
    EXPECT_EQ(KTAddHMMToClass(group, 1), -1);
    support::alloc::disarm();
    EXPECT_EQ(record()->status, HMM_CLASS_REWOUND);
    EXPECT_EQ(record()->nMembers, 0);
    addRange(1, 64);
    const auto before = chunks();
    support::alloc::arm(1);
    EXPECT_EQ(KTAddHMMToClass(group, 65), -1);
    support::alloc::disarm();
    EXPECT_EQ(chunks(), before);
    EXPECT_EQ(KTGetStatus(), 0);
    add({65});
    support::alloc::arm(1);
    EXPECT_EQ(KTCreateHMMClass(), -1);
    support::alloc::disarm();
    EXPECT_EQ(KTGetContext()->nHMMClasses, 1);
    EXPECT_EQ(KTGetStatus(), 0);
}

// A class, nine chunks, and the table of them in three sizes: whatever can't be had, the members
// before stay.
TEST_F(Classes, AddingWithoutMemoryFailsAlone) {
    servers(300);
    const long before = support::alloc::liveBlocks();
    int id = 0;
    const auto run = [&] {
        id = KTCreateHMMClass();
        int joined = 0;
        for (int hmm = 1; id > 0 && hmm <= 300; ++hmm)
            joined += KTAddHMMToClass(id, hmm) == 1;
        if (id < 0) return;
        ASSERT_EQ(joined, KTFindHMMClass(id)->nMembers);
        KTResetHMMClass(id);
        for (int last = 0, hmm = 0; (hmm = KTNextHMMInClass(id)) != 0; last = hmm, --joined)
            ASSERT_GT(hmm, last);
        ASSERT_EQ(joined, 0);
        KTDeleteHMMClass(id);
    };
    EXPECT_EQ(
        support::alloc::failEach(run, [&] { ASSERT_EQ(support::alloc::liveBlocks(), before); }),
        13);
    EXPECT_EQ(support::alloc::liveBlocks(), before);
}

TEST_F(Classes, CreationWithoutMemoryForTheRegistry) {
    reset();
    const long before = support::alloc::liveBlocks();
    EXPECT_EQ(support::alloc::failEach(
                  [&] {
                      KTHMMFreeAll();
                      const int id = KTCreateHMMClass();
                      EXPECT_EQ(id, support::alloc::failed() ? -1 : 1);
                  },
                  [&] {
                      KTHMMFreeAll();
                      EXPECT_EQ(support::alloc::liveBlocks(), before);
                  }),
              5);
}

// However many chunks a class has: the last of many members join and leave about as fast as the
// first ones. A walk over the chunks takes more than ten times as long for them.
TEST_F(Classes, TheCostOfAMemberDoesNotGrowWithTheirNumber) {
    constexpr int count = 80000, part = 4000;
    servers(count);
    using Clock = std::chrono::steady_clock;
    const auto timed = [](auto step, int first, int last) {
        const auto start = Clock::now();
        for (int id = first; id <= last; ++id)
            step(id);
        return std::chrono::duration<double>(Clock::now() - start).count();
    };
    double joining = 1e9, leaving = 1e9; // the least ratios of some tries: the machine may be busy
    for (int attempt = 0; attempt < 10 && (joining >= 10 || leaving >= 5); ++attempt) {
        const int id = KTCreateHMMClass();
        const auto join = [=](int hmm) { KTAddHMMToClass(id, hmm); };
        const auto leave = [=](int back) { KTRemoveHMMFromClass(id, count + 1 - back); };
        const double firstJoin = timed(join, 1, part);
        timed(join, part + 1, count - part);
        joining = std::min(joining, timed(join, count - part + 1, count) / firstJoin);
        const double firstLeave = timed(leave, 1, part); // from the last member down
        timed(leave, part + 1, count - part);
        leaving = std::min(leaving, firstLeave / timed(leave, count - part + 1, count));
        EXPECT_EQ(KTFindHMMClass(id)->nMembers, 0);
        KTDeleteHMMClass(id);
    }
    EXPECT_LT(joining, 10);
    EXPECT_LT(leaving, 5);
}

// --- the cursor while members come and go ---

TEST_F(Classes, AMemberBeforeTheCursorComes) {
    servers(9);
    add({3, 5, 7});
    KTResetHMMClass(group);
    EXPECT_EQ(next(), 3);
    EXPECT_EQ(next(), 5);
    add({4, 1, 6});
    EXPECT_EQ(rest(), (std::vector<int>{6, 7}));
}

TEST_F(Classes, TheMemberUnderTheCursorGoes) {
    servers(9);
    add({3, 5, 7});
    KTResetHMMClass(group);
    next();
    EXPECT_EQ(next(), 5);
    KTRemoveHMMFromClass(group, 5);
    EXPECT_EQ(rest(), std::vector<int>{7});
}

TEST_F(Classes, TheFirstMemberGoesUnderTheCursor) {
    servers(9);
    add({3, 5, 7});
    KTResetHMMClass(group);
    EXPECT_EQ(next(), 3);
    KTRemoveHMMFromClass(group, 3);
    EXPECT_NE(record()->status & HMM_CLASS_REWOUND, 0u);
    EXPECT_EQ(rest(), (std::vector<int>{5, 7}));
}

TEST_F(Classes, AMemberBeforeTheCursorGoes) {
    servers(9);
    add({3, 5, 7, 9});
    KTResetHMMClass(group);
    next();
    next();
    EXPECT_EQ(next(), 7);
    KTRemoveHMMFromClass(group, 3); // the cursor keeps to 7
    EXPECT_EQ(rest(), std::vector<int>{9});
}

TEST_F(Classes, AMemberBehindTheCursorGoesOrComes) {
    servers(9);
    add({3, 5, 7});
    KTResetHMMClass(group);
    EXPECT_EQ(next(), 3);
    KTRemoveHMMFromClass(group, 5);
    add({8});
    EXPECT_EQ(rest(), (std::vector<int>{7, 8}));
}

TEST_F(Classes, TheFirstMemberOfALaterChunkGoesUnderTheCursor) {
    servers(70);
    addRange(1, 65);
    KTResetHMMClass(group);
    for (int id = 1; id <= 33; ++id)
        EXPECT_EQ(next(), id);
    KTRemoveHMMFromClass(group, 33);
    EXPECT_EQ(record()->cursorChunk, record()->head);
    EXPECT_EQ(record()->cursorIndex, 31);
    EXPECT_EQ(rest(), range(34, 65));
}

TEST_F(Classes, ASplitMovesTheCursor) {
    servers(65);
    addRange(1, 64);
    KTResetHMMClass(group);
    for (int id = 1; id <= 40; ++id)
        EXPECT_EQ(next(), id);
    add({65});
    EXPECT_EQ(record()->cursorChunk, record()->head->next);
    EXPECT_EQ(record()->cursorIndex, 7);
    EXPECT_EQ(rest(), range(41, 65));
}

TEST_F(Classes, ASplitLeavesALowCursor) {
    servers(65);
    addRange(1, 64);
    KTResetHMMClass(group);
    for (int id = 1; id <= 32; ++id)
        next();
    add({65});
    EXPECT_EQ(record()->cursorChunk, record()->head);
    EXPECT_EQ(rest(), range(33, 65));
}

TEST_F(Classes, TheOnlyMemberGoesUnderTheCursor) {
    servers(3);
    add({2});
    KTResetHMMClass(group);
    EXPECT_EQ(next(), 2);
    KTRemoveHMMFromClass(group, 2);
    EXPECT_EQ(next(), 0);
    EXPECT_EQ(next(), 0);
}

// Whatever comes and goes between two steps, each step delivers the first member above the one
// before.
TEST_F(Classes, RandomStepsDeliverTheNextHigherMember) {
    servers(300);
    std::mt19937 random(3);
    std::set<int> expected;
    for (int round = 0; round < 60; ++round) {
        KTResetHMMClass(group);
        int last = 0;
        for (;;) {
            for (int change = int(random() % 4); change > 0; --change) {
                const int id = 1 + int(random() % 300);
                if (random() % 2 == 0) {
                    // a class whose first chunk comes during a walk starts with its member passed
                    if (expected.empty()) break;
                    KTAddHMMToClass(group, id);
                    expected.insert(id);
                } else {
                    KTRemoveHMMFromClass(group, id);
                    expected.erase(id);
                }
            }
            const auto above = expected.upper_bound(last);
            const int id = next();
            // when the first member goes from under the cursor it is rewound; what has come before
            // it since is then delivered too
            if (id != (above == expected.end() ? 0 : *above)) {
                ASSERT_TRUE(expected.count(id) == 1 &&
                            id < (above == expected.end() ? 301 : *above));
            }
            if (id == 0) break;
            last = id;
        }
        for (int k = 0; k < 20; ++k) {
            const int id = 1 + int(random() % 300);
            KTAddHMMToClass(group, id);
            expected.insert(id);
        }
    }
}

// --- servers and classes ---

TEST_F(Classes, AReleasedServerLeavesAllClasses) {
    servers(3);
    const int other = KTCreateHMMClass();
    add({1, 2, 3});
    KTAddHMMToClass(other, 2);
    KTFreeHMMServer(2);
    EXPECT_EQ(members(), (std::vector<int>{1, 3}));
    EXPECT_EQ(KTFindHMMClass(other)->nMembers, 0);
    server(); // 2 again, and no member
    EXPECT_EQ(KTFindHMMServer(2)->id, 2);
    EXPECT_EQ(members(), (std::vector<int>{1, 3}));
}

TEST_F(Classes, ADeletedClassLeavesItsMembers) {
    servers(70);
    addRange(1, 70);
    EXPECT_EQ(KTDeleteHMMClass(group), 1);
    EXPECT_EQ(KTGetContext()->nHMMServers, 70);
    EXPECT_EQ(KTAddHMMToClass(group, 1), -1);
}

TEST_F(Classes, WalkByRecord) {
    servers(70);
    addRange(1, 70);
    HMMClass* walked = record();
    rewindHMMClass(walked);
    for (int id = 1; id <= 70; ++id)
        ASSERT_EQ(nextHMMInClass(walked), KTFindHMMServer(id));
    EXPECT_EQ(nextHMMInClass(walked), nullptr);
}
