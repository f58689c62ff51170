#include "frame/id_table.h"
#include "support/alloc_faults.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

namespace {

struct Record {
    int id;
};
using Table = ktl::IdTable<Record>;

int lowestFree(const std::map<int, Record>& held) {
    int id = 1;
    for (const auto& [taken, record] : held)
        if (taken == id) ++id;
    return id;
}

} // namespace

TEST(IdTable, IsEmptyWhereMemoryIsZero) {
    Table table{};
    EXPECT_EQ(table.capacity(), 0);
    EXPECT_EQ(table.lowestFree(), 0); // no place yet
    for (const int id : {0, 1, -1, 0x7FFFFFFF}) {
        EXPECT_FALSE(table.covers(id));
        EXPECT_EQ(table.find(id), nullptr);
    }
    table.release();
}

// Full words and groups of words, in every table that growing leads through.
TEST(IdTable, TheLowestFreeIdIsFoundInFullAndHollowTables) {
    Table table{};
    Record record{};
    for (int id = 1; id <= 20000; ++id) {
        if (!table.covers(id)) {
            EXPECT_EQ(table.lowestFree(), table.capacity());
            ASSERT_TRUE(table.grow());
        }
        ASSERT_EQ(table.lowestFree(), id);
        table.set(id, &record);
    }
    for (const int id : {1, 63, 64, 65, 4095, 4096, 4097, 8191, 8192, 20000}) {
        table.set(id, nullptr);
        EXPECT_EQ(table.find(id), nullptr);
        EXPECT_EQ(table.lowestFree(), id);
        table.set(id, &record);
        EXPECT_EQ(table.lowestFree(), 20001);
    }
    table.release();
    EXPECT_EQ(table.capacity(), 0);
}

TEST(IdTable, ThousandsOfStepsEqualAPlainMap) {
    std::mt19937 random(5);
    std::map<int, Record> held;
    Table table{};
    ASSERT_TRUE(table.grow());
    for (int step = 0; step < 30000; ++step) {
        int id = 1 + int(random() % unsigned(table.capacity() - 1));
        if (random() % 2 == 0) id = table.lowestFree();
        ASSERT_TRUE(table.covers(id) || table.grow());
        if (held.count(id) != 0) {
            table.set(id, nullptr);
            held.erase(id);
        } else {
            table.set(id, &(held[id] = {id}));
        }
        const int other = int(random() % unsigned(table.capacity() + 10)) - 5;
        const auto at = held.find(other);
        ASSERT_EQ(table.find(other), at != held.end() ? &at->second : nullptr);
        if (step % 16 == 0) {
            ASSERT_EQ(table.lowestFree(), lowestFree(held));
        }
    }
    table.release();
}

TEST(IdTable, AFailedGrowthChangesNothing) {
    Table table{};
    Record record{};
    for (int doubling = 0; doubling < 4; ++doubling) {
        const int before = table.capacity();
        support::alloc::arm(1);
        EXPECT_FALSE(table.grow());
        support::alloc::disarm();
        EXPECT_EQ(table.capacity(), before);
        ASSERT_TRUE(table.grow());
        table.set(table.capacity() - 1, &record);
    }
    EXPECT_EQ(table.find(63), &record);
    EXPECT_EQ(table.find(511), &record);
    EXPECT_EQ(table.lowestFree(), 1);
    table.release();
}
