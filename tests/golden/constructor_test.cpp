// Every family called from the constructor of a static object, before those of the library have
// run: the results are those of a call from the program.
#include "golden/results.h"

#include <gtest/gtest.h>

namespace {

struct BeforeAll {
    golden::Results results = golden::everything();
};

// 101 is the earliest that a program may ask for.
[[gnu::init_priority(101)]] BeforeAll beforeAll;

} // namespace

TEST(StaticConstructors, MayCallEveryFamily) {
    EXPECT_FALSE(beforeAll.results.all().empty());
    EXPECT_EQ(beforeAll.results.all(), golden::everything().all());
}
