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

// From `start` to the end of the next `closing`.
std::string upTo(const std::string& text, std::size_t start, const char* closing) {
    return text.substr(start, text.find(closing, start) + std::string(closing).size() - start);
}

// Adds "KTsLiftering: n" for each parameter of a prototype that is no head.
void addMissing(const std::string& prototype, const std::set<std::string>& heads,
                std::vector<std::string>& missing) {
    static const std::regex parts(R"((\w+)\(([^)]*)\);$)");
    std::smatch match;
    ASSERT_TRUE(std::regex_search(prototype, match, parts)) << prototype;
    for (const std::string& name : parametersOf(match[2]))
        if (!heads.contains(name)) missing.push_back(match[1].str() + ": " + name);
}

// The parameters that no comment above them in their section names at the head of a row. A section
// begins with a banner.
std::vector<std::string> unexplained(const std::string& header) {
    std::vector<std::string> missing;
    std::set<std::string> heads;
    for (std::size_t at = 0; at < header.size(); ++at) {
        const bool startsLine = at == 0 || header[at - 1] == '\n';
        if (header.compare(at, 7, "/* ====") == 0) {
            heads.clear();
        } else if (header.compare(at, 2, "/*") == 0) {
            const std::string comment = upTo(header, at, "*/");
            addHeads(comment, heads);
            at += comment.size() - 1;
        } else if (startsLine && header.compare(at, 8, "KTL_API ") == 0) {
            const std::string prototype = upTo(header, at, ";");
            addMissing(prototype, heads, missing);
            at += prototype.size() - 1;
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
