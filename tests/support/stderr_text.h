// What a death test's child wrote to standard error, byte for byte; line ends are '\n' on every
// system.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <string>

namespace support {

class StderrIs {
public:
    using is_gtest_matcher = void;
    explicit StderrIs(std::string text) : expected(std::move(text)) {}

    bool MatchAndExplain(std::string text, std::ostream*) const {
        text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
        return text == expected;
    }
    void DescribeTo(std::ostream* out) const { *out << "is \"" << expected << '"'; }
    void DescribeNegationTo(std::ostream* out) const { *out << "is not \"" << expected << '"'; }

private:
    std::string expected;
};

} // namespace support
