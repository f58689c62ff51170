// The public header explains every parameter of every function, where a reader finds it.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::string publicHeader() {
    std::ifstream in(KTL_SOURCE_DIR "/include/ktlp6.h");
    EXPECT_TRUE(in);
    return {std::istreambuf_iterator<char>(in), {}};
}

// The words that head the rows of a comment's tables: "   pSrc, pDst  n elements each". Rows are
// indented by three spaces, and two end the head.
void addHeads(const std::string& comment, std::set<std::string>& heads) {
    static const std::regex row(R"(^ \* {3}(\w+(, \w+)*)  )");
    static const std::regex word(R"(\w+)");
    std::istringstream lines(comment);
    std::smatch match;
    for (std::string line; std::getline(lines, line);) {
        if (!std::regex_search(line, match, row)) continue;
        const std::string names = match[1];
        for (std::sregex_iterator it(names.begin(), names.end(), word), end; it != end; ++it)
            heads.insert(it->str());
    }
}

// The last words of "const float* pSrc, int n".
std::vector<std::string> parametersOf(const std::string& list) {
    static const std::regex last(R"((\w+)\s*(,|$))");
    std::vector<std::string> names;
    for (std::sregex_iterator it(list.begin(), list.end(), last), end; it != end; ++it)
        if ((*it)[1] != "void") names.push_back((*it)[1]);
    return names;
}

// "KTsLiftering: n" for each parameter that no comment above it in its section names at the head
// of a row. A section begins with a banner.
std::vector<std::string> unexplained(const std::string& header) {
    static const std::regex piece(
        R"(/\*[^*]*\*+(?:[^/*][^*]*\*+)*/|KTL_API\s[^;#(]*?(\w+)\s*\(([^;]*)\);)");
    std::vector<std::string> missing;
    std::set<std::string> heads;
    for (std::sregex_iterator it(header.begin(), header.end(), piece), end; it != end; ++it) {
        const std::string text = it->str();
        if (text.rfind("/* ====", 0) == 0) {
            heads.clear();
        } else if (text[0] == '/') {
            addHeads(text, heads);
        } else {
            for (const std::string& name : parametersOf((*it)[2]))
                if (!heads.contains(name)) missing.push_back((*it)[1].str() + ": " + name);
        }
    }
    return missing;
}

using Names = std::vector<std::string>;

} // namespace

TEST(PublicHeader, NamesEveryParameterAtTheHeadOfALine) {
    for (const std::string& parameter : unexplained(publicHeader()))
        ADD_FAILURE() << parameter;
}

TEST(PublicHeader, AParameterInProseOrInAnotherSectionIsNotNamed) {
    const std::string function = "KTL_API void KTsScale(float* pVec,\n  const float** ppRows);\n";
    const std::string row = "/* Scales.\n *   pVec    n samples\n *   ppRows  n rows */\n";
    EXPECT_EQ(unexplained(row + function), Names());
    EXPECT_EQ(unexplained("/* Scales pVec  and\n * pVec  by ppRows. */\n" + function),
              Names({"KTsScale: pVec", "KTsScale: ppRows"}));
    EXPECT_EQ(unexplained(row + "/* ==== other ==== */\n" + function),
              Names({"KTsScale: pVec", "KTsScale: ppRows"}));
    EXPECT_EQ(unexplained("/* Scales.\n *   pVec, ppRows  both */\n" + function), Names());
}

TEST(PublicHeader, AFunctionWithoutParametersNeedsNoTable) {
    EXPECT_EQ(unexplained("KTL_API int KTGetStatus(void);\n"), Names());
}
