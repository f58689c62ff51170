#include "models.h"

#include "files.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

namespace words {
namespace {

namespace fs = std::filesystem;

constexpr const char* family = "words models ";
constexpr const char* heading = "words models 2";
constexpr const char* listName = "words.txt";

std::string pathIn(const std::string& folder, const std::string& name) {
    return (fs::path(folder) / name).string();
}

/// Names of files of one recogniser in one flavour begin so; a point follows.
std::string stemName(const Recogniser& recogniser, Flavour flavour) {
    return recogniser.name() + "." + flavourName(flavour);
}

bool isModelName(const std::string& name) {
    if (name == listName) return true;
    for (const auto& recogniser : makeRecognisers())
        for (const Flavour flavour : flavours)
            if (name.starts_with(stemName(*recogniser, flavour) + ".")) return true;
    return false;
}

std::vector<StoredFile> filesIn(const std::string& folder) {
    std::vector<StoredFile> files;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
        const std::string name = entry.path().filename().string();
        if (name == listName) continue;
        const std::string contents = readFile(entry.path().string());
        files.push_back({name, contents.size(), checksum(contents)});
    }
    std::sort(files.begin(), files.end(),
              [](const StoredFile& a, const StoredFile& b) { return a.name < b.name; });
    return files;
}

/// The list without its last line, which holds the checksum of the others.
std::string checkedList(const std::string& path) {
    std::string text = readFile(path);
    if (!text.starts_with(family)) throw Failure(path + ": not a list of models");
    if (!text.starts_with(std::string(heading) + "\n"))
        throw Failure(path + ": of another version of this program, please train again");
    const std::size_t last = text.rfind("checksum ");
    const std::string rest = text.substr(0, last);
    if (last == std::string::npos ||
        text.substr(last) != fmt::format("checksum {:016x}\n", checksum(rest)))
        throw Failure(path + ": damaged, its checksum is not that of its text");
    return rest;
}

/// What stands behind the key and a space; words may hold spaces.
std::string restOf(const std::string& line, const std::string& key) {
    return line.substr(std::min(line.size(), key.size() + 1));
}

bool readLine(const std::string& line, ModelList& list) {
    std::istringstream fields(line);
    std::string key, name, flavour;
    fields >> key;
    if (key == "front-end") {
        FrontEnd& choices = list.frontEnd;
        fields >> choices.trim >> choices.deltas >> choices.normaliseMean >>
            choices.normaliseVariance;
    } else if (key == "level-spread")
        fields >> list.leastSpread;
    else if (key == "word")
        list.words.push_back(restOf(line, key));
    else if (key == "recogniser" && fields >> name)
        list.recognisers.push_back(name);
    else if (key == "costs" && fields >> name >> flavour) {
        CostScale scale;
        fields >> scale.right >> scale.wrong >> scale.limit;
        list.scales[{name, flavour == flavourName(Flavour::real) ? Flavour::real
                                                                 : Flavour::fixed}] = scale;
    } else if (key == "file") {
        StoredFile file;
        fields >> file.name >> file.bytes >> std::hex >> file.sum;
        list.files.push_back(file);
    } else
        return false;
    return static_cast<bool>(fields);
}

void checkFile(const StoredFile& file, const std::string& folder) {
    const std::string path = pathIn(folder, file.name);
    if (!fs::exists(path)) throw Failure(path + ": missing, the list of models names it");
    const std::string contents = readFile(path);
    if (contents.size() != file.bytes)
        throw Failure(fmt::format("{}: damaged, {} bytes where {} were written", path,
                                  contents.size(), file.bytes));
    if (checksum(contents) != file.sum)
        throw Failure(path + ": damaged, its checksum is not the one that the list of models has");
}

} // namespace

void ModelList::save(const std::string& folder) {
    files = filesIn(folder);
    std::string text = fmt::format("{}\nfront-end {:d} {:d} {:d} {:d}\nlevel-spread {}\n", heading,
                                   frontEnd.trim, frontEnd.deltas, frontEnd.normaliseMean,
                                   frontEnd.normaliseVariance, leastSpread);
    for (const std::string& recogniser : recognisers)
        text += "recogniser " + recogniser + "\n";
    for (const std::string& word : words)
        text += "word " + word + "\n";
    for (const auto& [key, scale] : scales)
        text += fmt::format("costs {} {} {} {} {}\n", key.first, flavourName(key.second),
                            scale.right, scale.wrong, scale.limit);
    for (const StoredFile& file : files)
        text += fmt::format("file {} {} {:016x}\n", file.name, file.bytes, file.sum);
    text += fmt::format("checksum {:016x}\n", checksum(text));
    writeFile(pathIn(folder, listName), text);
}

ModelList ModelList::load(const std::string& folder) {
    const std::string path = pathIn(folder, listName);
    std::istringstream lines(checkedList(path));
    ModelList list;
    bool whole = true;
    std::string line;
    std::getline(lines, line); // the heading
    while (std::getline(lines, line))
        whole = readLine(line, list) && whole;
    if (!whole || list.words.empty() || list.recognisers.empty())
        throw Failure(path + ": damaged, words, recognisers or the front end are missing");
    return list;
}

const CostScale& ModelList::scale(const std::string& recogniser, Flavour flavour) const {
    const auto place = scales.find({recogniser, flavour});
    if (place == scales.end())
        throw Failure(std::string(listName) + ": damaged, no costs of " + recogniser + " in " +
                      flavourName(flavour));
    return place->second;
}

void saveModels(const Recogniser& recogniser, Flavour flavour, const std::string& folder) {
    recogniser.save(flavour, pathIn(folder, stemName(recogniser, flavour)));
}

void loadModels(Recogniser& recogniser, Flavour flavour, const std::string& folder,
                const ModelList& list) {
    const std::string stem = stemName(recogniser, flavour);
    for (const StoredFile& file : list.files)
        if (file.name.starts_with(stem + ".")) checkFile(file, folder);
    forgetReports();
    recogniser.load(flavour, pathIn(folder, stem), list.words,
                    FeatureExtractor(list.frontEnd).dimensions());
}

void checkReplaceable(const std::string& folder) {
    std::error_code error;
    if (!fs::exists(folder, error)) return;
    fs::directory_iterator entry(folder, error);
    if (error) throw Failure(folder + ": " + error.message());
    if (entry == fs::directory_iterator{}) return;
    for (; entry != fs::directory_iterator{}; entry.increment(error))
        if (const std::string name = entry->path().filename().string(); !isModelName(name))
            throw Failure(folder + ": holds '" + name +
                          "', which is no model: please name a folder for models alone");
    if (!readFile(pathIn(folder, listName)).starts_with(family))
        throw Failure(pathIn(folder, listName) +
                      ": not a list of models: please name a folder for models alone");
}

} // namespace words
