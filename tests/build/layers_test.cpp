// The rules that keep the tree's floors and rooms apart, sources readable, and the public header
// and the export list in step.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <utility>
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

// Every source below a folder.
std::vector<fs::path> sourcesOf(const fs::path& folder) {
    std::vector<fs::path> sources;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root / folder))
        if (entry.path().extension() == ".cpp" || entry.path().extension() == ".h")
            sources.push_back(entry.path());
    EXPECT_FALSE(sources.empty()) << folder;
    std::sort(sources.begin(), sources.end());
    return sources;
}

std::string relativeName(const fs::path& file) {
    return fs::relative(file, root).generic_string();
}

// The headers below a folder as include lines name them: by their path from there.
std::set<std::string> headersOf(const char* folder) {
    std::set<std::string> names;
    for (const fs::path& source : sourcesOf(folder))
        if (source.extension() == ".h")
            names.insert(fs::relative(source, root / folder).generic_string());
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

// The C and C++ standard library; nothing else may stand in angle brackets outside platform/.
// <immintrin.h> is the compiler's, for the kernels alone.
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
        if (!line.empty() && std::isalpha(static_cast<unsigned char>(line[0])) != 0)
            names.push_back(line);
    return names;
}

// The functions that the public header declares: the name before the first parenthesis after
// KTL_API.
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

// --- tables in the documents ---

std::vector<std::string> cellsOf(const std::string& line) {
    std::vector<std::string> cells;
    std::string cell;
    for (std::size_t i = 1; i < line.size(); ++i) {
        if (line[i] != '|') {
            if (line[i] != '`' && (line[i] != ' ' || !cell.empty())) cell += line[i];
            continue;
        }
        while (!cell.empty() && cell.back() == ' ')
            cell.pop_back();
        cells.push_back(std::exchange(cell, ""));
    }
    return cells;
}

// The rows of the table in docs/architecture.md whose first heading is `heading`.
std::vector<std::vector<std::string>> architectureTable(const std::string& heading) {
    std::vector<std::vector<std::string>> rows;
    bool inTable = false;
    for (const std::string& line : linesOf(root / "docs" / "architecture.md")) {
        const bool isRow = !line.empty() && line[0] == '|';
        if (isRow && cellsOf(line).at(0) == heading) {
            inTable = true;
        } else if (!isRow) {
            inTable = false;
        } else if (inTable && line.find("---") == std::string::npos) {
            rows.push_back(cellsOf(line));
        }
    }
    EXPECT_FALSE(rows.empty()) << "no table of " << heading;
    return rows;
}

std::set<std::string> namesIn(const std::string& cell) {
    std::set<std::string> names;
    static const std::regex word(R"([A-Za-z_./]+)");
    for (std::sregex_iterator it(cell.begin(), cell.end(), word), end; it != end; ++it)
        names.insert(it->str());
    return names;
}

// Which families each family of the recognition layer may include.
std::map<std::string, std::set<std::string>> familyGraph() {
    std::map<std::string, std::set<std::string>> graph;
    for (const auto& row : architectureTable("family")) {
        graph[row.at(0)] = namesIn(row.at(1));
        graph[row.at(0)].erase("none");
    }
    return graph;
}

// --- shapes of sources ---

bool startsWith(const std::string& text, const char* start) {
    return text.rfind(start, 0) == 0;
}

// Bytes that continue a character of UTF-8 take no column.
std::size_t columnsOf(const std::string& line) {
    return static_cast<std::size_t>(std::count_if(line.begin(), line.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    }));
}

std::size_t indentation(const std::string& line) {
    return line.find_first_not_of(' ');
}

// A block as clang-format prints it: from a line that opens it to the line of its closing brace.
struct Block {
    std::string opening;
    std::size_t first, last;
};

// The line that a block's opening begins with: lists of parameters and of initialisers go over
// several lines, which are indented further or begin with a colon.
std::size_t headOf(const std::vector<std::string>& lines, std::size_t opening) {
    std::size_t head = opening;
    while (head > 0 && !lines[head - 1].empty() &&
           (indentation(lines[head]) > 4 || lines[head][indentation(lines[head])] == ':') &&
           lines[head - 1].find_first_of(";{}") == std::string::npos)
        --head;
    return head;
}

// Whether such a line opens a function: it has a list of parameters, in which defaults may stand,
// and is no other statement.
bool opensFunction(const std::string& head) {
    static const std::regex other(
        R"(^\s*((namespace|extern|struct|class|union|enum|if|else|for|while|do|switch|try|case|)"
        R"(return|typedef)\b|\}|//|#))");
    const std::size_t parameters = head.find('('), value = head.find(" = ");
    return indentation(head) <= 4 && parameters != std::string::npos && parameters < value &&
           !std::regex_search(head, other);
}

// The functions of a source: blocks that open at file level or inside a record, with a list of
// parameters.
std::vector<Block> functionsOf(const std::vector<std::string>& lines) {
    std::vector<Block> functions;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const std::string code = lines[i].substr(0, lines[i].find(" //"));
        if (code.size() < 2 || code.back() != '{') continue;
        const std::string& head = lines[headOf(lines, i)];
        if (!opensFunction(head)) continue;
        const std::string closing = std::string(indentation(head), ' ') + "}";
        std::size_t last = i + 1;
        while (last < lines.size() && !startsWith(lines[last], closing.c_str()))
            ++last;
        functions.push_back({head, i, last});
        i = last;
    }
    return functions;
}

std::set<std::string> allowedLong() {
    std::set<std::string> names;
    for (const auto& row : architectureTable("long on purpose"))
        names.insert(row.at(0));
    return names;
}

const char* const libraryFolders[] = {"_LIBSRC", "kernels", "platform", "include"};

} // namespace

// What the rules below take for a function.
TEST(Shapes, FunctionsAreFoundByTheirLists) {
    const std::vector<std::string> lines = {
        "double half(double x, int by = 2) {", // 0: begins as a keyword does, and has a default
        "    return x / by;",
        "}",
        "Record::Record(int n)", // 3: initialisers over two lines
        "    : first(n),",
        "      second(n) {",
        "}",
        "struct Record {", // 7: no function, but 8 is one
        "    int value(int a,",
        "              int b) const {",
        "        if (a) {",
        "        }",
        "    }",
        "};",
        "const Table table = make({", // 14: a value
        "});",
        "do_it(int a) { // why", // 16
        "}",
    };
    const std::vector<Block> functions = functionsOf(lines);
    std::vector<std::size_t> first, last;
    for (const Block& function : functions) {
        first.push_back(function.first);
        last.push_back(function.last);
    }
    EXPECT_EQ(first, (std::vector<std::size_t>{0, 5, 9, 16}));
    EXPECT_EQ(last, (std::vector<std::size_t>{2, 6, 12, 17}));
}

// Where a statement stands outside all functions, one was not found, and the rules say nothing
// about it.
TEST(Shapes, EveryStatementIsInAFunction) {
    static const std::regex statement(R"(^\s+(return|for|if|while)\b)");
    for (const char* folder : {"_LIBSRC", "kernels", "platform"})
        for (const fs::path& source : sourcesOf(folder)) {
            const auto lines = linesOf(source);
            std::vector<bool> isInside(lines.size(), false);
            for (const Block& function : functionsOf(lines))
                std::fill(isInside.begin() + std::ptrdiff_t(function.first),
                          isInside.begin() + std::ptrdiff_t(std::min(function.last, lines.size())),
                          true);
            for (std::size_t i = 0; i < lines.size(); ++i)
                EXPECT_TRUE(isInside[i] || !std::regex_search(lines[i], statement))
                    << relativeName(source) << ':' << i + 1;
        }
}

TEST(Layers, PlatformIncludesNothingOfTheOthers) {
    expectQuotedWithin("platform", headersOf("platform"));
}

TEST(Layers, KernelsIncludeTheirOwnHeadersAndPlatform) {
    expectQuotedWithin("kernels", headersOf("kernels") + headersOf("platform") +
                                      std::set<std::string>{"vsq.h", "levels_list.h"});
}

TEST(Layers, TheRecognitionLayerIncludesItsOwnHeadersAndTheLayersBelow) {
    expectQuotedWithin("_LIBSRC", headersOf("_LIBSRC") + headersOf("kernels") +
                                      headersOf("platform") + headersOf("include"));
}

TEST(Layers, PublicHeadersIncludeNoneOfTheLibrary) {
    expectQuotedWithin("include", {});
}

TEST(Layers, OnlyPlatformIncludesHeadersOfTheSystem) {
    expectStandardHeadersOnly("_LIBSRC");
    expectStandardHeadersOnly("kernels", {"immintrin.h", "arm_neon.h"});
    expectStandardHeadersOnly("include");
}

TEST(Families, IncludeOnlyTheFamiliesOfTheTable) {
    const auto graph = familyGraph();
    for (const fs::path& source : sourcesOf("_LIBSRC")) {
        const std::string family = source.parent_path().filename().string();
        ASSERT_TRUE(graph.contains(family)) << family << " stands in no row of the table";
        for (const std::string& include : includesOf(source)) {
            const std::size_t slash = include.find('/');
            if (include[0] != '"' || slash == std::string::npos) continue;
            const std::string other = include.substr(1, slash - 1);
            if (graph.contains(other) && fs::exists(root / "_LIBSRC" / include.substr(1))) {
                EXPECT_TRUE(other == family || graph.at(family).contains(other))
                    << relativeName(source) << " includes " << include.substr(1);
            }
        }
    }
}

TEST(Families, FormAGraphWithoutCycles) {
    const auto graph = familyGraph();
    const std::function<bool(const std::string&, std::set<std::string>)> returns =
        [&](const std::string& family, std::set<std::string> path) {
            if (!path.insert(family).second) return true;
            const auto& next = graph.at(family);
            return std::any_of(next.begin(), next.end(),
                               [&](const std::string& other) { return returns(other, path); });
        };
    for (const auto& entry : graph)
        EXPECT_FALSE(returns(entry.first, {})) << entry.first;
}

TEST(Families, EveryFamilyOfTheTableIsAFolder) {
    for (const auto& entry : familyGraph())
        EXPECT_TRUE(fs::is_directory(root / "_LIBSRC" / entry.first)) << entry.first;
}

TEST(Families, ASourceThatReportsAsAModuleLiesInTheModulesFolder) {
    static const std::regex module(R"re(\{"\.\.\\\\_LIBSRC\\\\(\w+)"\})re");
    int found = 0;
    for (const fs::path& source : sourcesOf("_LIBSRC"))
        for (const std::string& line : linesOf(source)) {
            std::smatch match;
            if (startsWith(line, "//") || !std::regex_search(line, match, module)) continue;
            ++found;
            EXPECT_TRUE(fs::exists(source.parent_path() / (match[1].str() + ".cpp")))
                << relativeName(source) << " reports as " << match[1];
        }
    EXPECT_GT(found, 10);
}

// A table alone, and what exists on one system only, is tested through its users.
TEST(Families, EverySourceHasATestOfItsName) {
    for (const fs::path& source : sourcesOf("_LIBSRC")) {
        if (source.extension() != ".cpp") continue;
        const std::string family = source.parent_path().filename().string();
        const fs::path test = root / "tests" / family / (source.stem().string() + "_test.cpp");
        EXPECT_TRUE(fs::exists(test)) << relativeName(source) << " has no " << relativeName(test);
    }
}

TEST(Exports, AreDeclaredInThePublicHeaderAndNoOtherIs) {
    const std::vector<std::string> exported = exportedNames();
    const std::set<std::string> names(exported.begin(), exported.end());
    EXPECT_EQ(names.size(), exported.size()) << "a name stands twice";
    EXPECT_EQ(names, declaredNames());
}

TEST(Sources, HaveNamesThatDifferIgnoringCase) {
    std::set<std::string> lower;
    for (const char* folder : libraryFolders)
        for (const fs::path& source : sourcesOf(folder)) {
            std::string name = source.filename().string();
            std::transform(name.begin(), name.end(), name.begin(),
                           [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
            EXPECT_TRUE(lower.insert(name).second) << name;
        }
}

TEST(Sources, OpenWithWhatTheyHold) {
    for (const char* folder : {"_LIBSRC", "kernels", "platform"})
        for (const fs::path& source : sourcesOf(folder)) {
            const auto lines = linesOf(source);
            ASSERT_FALSE(lines.empty()) << relativeName(source);
            EXPECT_TRUE(startsWith(lines[0], "//")) << relativeName(source);
        }
}

TEST(Sources, KeepToAHundredColumns) {
    for (const char* folder : {"_LIBSRC", "kernels", "platform", "include", "tests"})
        for (const fs::path& source : sourcesOf(folder)) {
            const auto lines = linesOf(source);
            if (lines.at(0).find("Made by") != std::string::npos) continue; // by a script
            std::size_t number = 0;
            for (const std::string& line : lines) {
                ++number;
                const bool cannotBreak = line.find("R\"") != std::string::npos ||
                                         line.find("NOLINT") != std::string::npos;
                EXPECT_TRUE(columnsOf(line) <= 100 || cannotBreak)
                    << relativeName(source) << ':' << number;
            }
        }
}

TEST(Documents, KeepToAHundredColumnsButInTables) {
    std::vector<fs::path> pages = {root / "README.md", root / "CONTRIBUTING.md",
                                   root / "CHANGELOG.md"};
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root / "docs"))
        if (entry.path().extension() == ".md") pages.push_back(entry.path());
    for (const fs::path& page : pages) {
        std::size_t number = 0;
        for (const std::string& line : linesOf(page)) {
            ++number;
            EXPECT_TRUE(columnsOf(line) <= 100 || line[0] == '|')
                << relativeName(page) << ':' << number;
        }
    }
}

// A condition of the preprocessor chooses whole functions; inside one it hides a variant from the
// reader.
TEST(Sources, HaveNoConditionalTextInsideAFunction) {
    for (const char* folder : {"_LIBSRC", "kernels"})
        for (const fs::path& source : sourcesOf(folder)) {
            if (relativeName(source).find("kernels/simd/") == 0) continue;
            const auto lines = linesOf(source);
            for (const Block& function : functionsOf(lines))
                for (std::size_t i = function.first; i < function.last; ++i)
                    EXPECT_FALSE(startsWith(
                        lines[i].substr(std::min(lines[i].size(), indentation(lines[i]))), "#if"))
                        << relativeName(source) << ':' << i + 1;
        }
}

TEST(Sources, NameALevelOnlyInTheListAndItsProcessorTest) {
    static const std::regex level(R"(\b(avx2|avx512)\b)");
    for (const char* folder : {"_LIBSRC", "kernels", "cmake"})
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root / folder)) {
            const fs::path& file = entry.path();
            if (!entry.is_regular_file() || file.filename() == "levels.list") continue;
            std::size_t number = 0;
            for (const std::string& line : linesOf(file)) {
                ++number;
                EXPECT_FALSE(std::regex_search(line, level)) << relativeName(file) << ':' << number;
            }
        }
}

TEST(Sources, AreShortUnlessTheListSaysWhy) {
    const auto allowed = allowedLong();
    std::set<std::string> used;
    for (const char* folder : {"_LIBSRC", "kernels", "platform"})
        for (const fs::path& source : sourcesOf(folder)) {
            const std::string name = relativeName(source);
            const auto lines = linesOf(source);
            bool isLong = lines.size() > 600;
            for (const Block& function : functionsOf(lines))
                isLong = isLong || function.last - function.first > 60;
            if (!isLong) continue;
            EXPECT_TRUE(allowed.contains(name)) << name << " is long, or a function in it";
            if (allowed.contains(name)) used.insert(name);
        }
    EXPECT_EQ(used, allowed) << "the list names what is not long";
}
