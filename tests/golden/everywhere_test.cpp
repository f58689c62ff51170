// The results of every family are the same bits on every target, compiler and level: everywhere.txt
// holds their hashes. KTLP6_GOLDEN=FILE writes what this build gives to FILE instead.
#include "golden/results.h"
#include "support/every_level.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

namespace {

std::map<std::string, std::uint64_t> stored() {
    std::map<std::string, std::uint64_t> found;
    std::ifstream in(KTL_SOURCE_DIR "/tests/golden/everywhere.txt");
    std::string name;
    for (std::uint64_t hash; in >> name >> std::hex >> hash;)
        found[name] = hash;
    return found;
}

} // namespace

TEST(Everywhere, ResultsAreTheStoredBits) {
    if (const char* file = std::getenv("KTLP6_GOLDEN"); file != nullptr) {
        std::ofstream out(file);
        const golden::Results results = golden::everything();
        for (const auto& [name, hash] : results.all())
            out << name << ' ' << std::hex << hash << '\n';
        GTEST_SKIP() << "written to " << file;
    }
    const auto expected = stored();
    ASSERT_FALSE(expected.empty());
    support::onEveryLevel([&] {
        const golden::Results results = golden::everything();
        EXPECT_EQ(results.all().size(), expected.size());
        for (const auto& [name, hash] : results.all()) {
            const auto entry = expected.find(name);
            ASSERT_NE(entry, expected.end()) << name;
            EXPECT_EQ(hash, entry->second) << name;
        }
    });
}
