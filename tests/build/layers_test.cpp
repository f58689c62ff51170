// The rules that keep the tree's layers apart, and the public header and the export list in step.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

const fs::path root = KTL_SOURCE_DIR;

std::vector<std::string> linesOf(const fs::path& file) {
    std::ifstream in(file);
    EXPECT_TRUE(in) << file;
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        lines.push_back(line);
    }
    return lines;
}

std::vector<fs::path> sourcesOf(const char* folder) {
    std::vector<fs::path> sources;
    for (const fs::directory_entry& entry : fs::directory_iterator(root / folder))
        if (entry.path().extension() == ".cpp" || entry.path().extension() == ".h")
            sources.push_back(entry.path());
    EXPECT_FALSE(sources.empty());
    return sources;
}

std::set<std::string> headersOf(const char* folder) {
    std::set<std::string> names;
    for (const fs::path& source : sourcesOf(folder))
        if (source.extension() == ".h") names.insert(source.filename().string());
    return names;
}

// What a source includes: the names in the brackets or quotes, the bracket kept in front.
std::vector<std::string> includesOf(const fs::path& source) {
    static const std::regex include(R"(^\s*#\s*include\s*([<"][^>"]+)[>"])");
    std::vector<std::string> names;
    std::smatch match;
    for (const std::string& line : linesOf(source))
        if (std::regex_search(line, match, include)) names.push_back(match[1]);
    return names;
}

// Every header that sources of `folder` include in quotes is one of `allowed`.
void expectQuotedWithin(const char* folder, const std::set<std::string>& allowed) {
    for (const fs::path& source : sourcesOf(folder))
        for (const std::string& include : includesOf(source))
            if (include[0] == '"') {
                EXPECT_TRUE(allowed.contains(include.substr(1)))
                    << source << " includes " << include.substr(1);
            }
}

std::set<std::string> operator+(std::set<std::string> one, const std::set<std::string>& other) {
    one.insert(other.begin(), other.end());
    return one;
}

// The C and C++ standard library; nothing else may stand in angle brackets outside platform/. <immintrin.h>
// is the compiler's, for the kernels' vector wrapper alone.
bool isStandard(const std::string& header) {
    static const std::set<std::string> cHeaders = {"stdio.h", "stddef.h", "stdint.h"};
    return header.find('.') == std::string::npos ? header.find('/') == std::string::npos
                                                 : cHeaders.contains(header);
}

void expectStandardHeadersOnly(const char* folder, const std::set<std::string>& besides = {}) {
    for (const fs::path& source : sourcesOf(folder))
        for (const std::string& include : includesOf(source))
            if (include[0] == '<') {
                const std::string header = include.substr(1);
                EXPECT_TRUE(isStandard(header) || besides.contains(header))
                    << source << " includes " << header;
            }
}

std::vector<std::string> exportedNames() {
    std::vector<std::string> names;
    for (const std::string& line : linesOf(root / "exports.txt"))
        if (!line.empty() && std::isalpha(static_cast<unsigned char>(line[0])) != 0) names.push_back(line);
    return names;
}

// The functions that the public header declares: the name in front of the first parenthesis behind KTL_API.
std::set<std::string> declaredNames() {
    std::string text;
    for (const std::string& line : linesOf(root / "include" / "ktlp6.h"))
        if (line[0] != '#') text += line + ' ';
    static const std::regex prototype(R"(KTL_API\s[^;(#]*?(\w+)\s*\()");
    std::set<std::string> names;
    for (std::sregex_iterator it(text.begin(), text.end(), prototype), end; it != end; ++it)
        names.insert((*it)[1]);
    return names;
}

} // namespace

TEST(Layers, PlatformIncludesNothingOfTheOthers) {
    expectQuotedWithin("platform", headersOf("platform"));
}

TEST(Layers, KernelsIncludeTheirOwnHeadersAndPlatform) {
    expectQuotedWithin("kernels",
                       headersOf("kernels") + headersOf("platform") + std::set<std::string>{"vsq.h"});
}

TEST(Layers, TheRecognitionLayerIncludesItsOwnHeadersAndTheLayersBelow) {
    expectQuotedWithin("_LIBSRC", headersOf("_LIBSRC") + headersOf("kernels") + headersOf("platform") +
                                      headersOf("include"));
}

TEST(Layers, PublicHeadersIncludeNoneOfTheLibrary) {
    expectQuotedWithin("include", {});
}

TEST(Layers, OnlyPlatformIncludesHeadersOfTheSystem) {
    expectStandardHeadersOnly("_LIBSRC");
    expectStandardHeadersOnly("kernels", {"immintrin.h", "emmintrin.h", "arm_neon.h"});
    expectStandardHeadersOnly("include");
}

TEST(Exports, AreDeclaredInThePublicHeaderAndNoOtherIs) {
    const std::vector<std::string> exported = exportedNames();
    const std::set<std::string> names(exported.begin(), exported.end());
    EXPECT_EQ(names.size(), exported.size()) << "a name stands twice";
    EXPECT_EQ(names, declaredNames());
}

TEST(Sources, HaveNamesThatDifferIgnoringCase) {
    std::set<std::string> lower;
    for (const char* folder : {"_LIBSRC", "kernels", "platform", "include"})
        for (const fs::path& source : sourcesOf(folder)) {
            std::string name = source.filename().string();
            std::transform(name.begin(), name.end(), name.begin(),
                           [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
            EXPECT_TRUE(lower.insert(name).second) << name;
        }
}
