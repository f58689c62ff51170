// Runs a program's tests. Exit code 0 says that all of them ran and hold; 77 that what ran holds,
// but that some could not run, which are named with the reason.
#include <gtest/gtest.h>

#include <cstdio>

namespace {

constexpr int someSkipped = 77; // what CMake's SKIP_RETURN_CODE is set to

void tellWhySkipped(const testing::TestSuite& suite, const testing::TestInfo& test) {
    const testing::TestResult& result = *test.result();
    for (int i = 0; i < result.total_part_count(); ++i)
        if (result.GetTestPartResult(i).skipped())
            std::printf("skipped: %s.%s: %s\n", suite.name(), test.name(),
                        result.GetTestPartResult(i).message());
}

void tellSkipped(const testing::UnitTest& program) {
    for (int i = 0; i < program.total_test_suite_count(); ++i) {
        const testing::TestSuite& suite = *program.GetTestSuite(i);
        for (int j = 0; j < suite.total_test_count(); ++j)
            tellWhySkipped(suite, *suite.GetTestInfo(j));
    }
}

} // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    const testing::UnitTest& program = *testing::UnitTest::GetInstance();
    if (result != 0 || GTEST_FLAG_GET(list_tests)) return result;
    if (program.test_to_run_count() == 0) {
        std::puts("no test has this name");
        return 1;
    }
    tellSkipped(program);
    return program.skipped_test_count() > 0 ? someSkipped : 0;
}
