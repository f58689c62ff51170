#include "models.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace words {
namespace {

constexpr const char* heading = "words models 1";

std::string listPath(const std::string& folder) {
    return (std::filesystem::path(folder) / "words.txt").string();
}

std::string stem(const Recogniser& recogniser, Flavour flavour, const std::string& folder) {
    return (std::filesystem::path(folder) / (recogniser.name() + "." + flavourName(flavour))).string();
}

} // namespace

void ModelList::save(const std::string& folder) const {
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    std::ofstream file(listPath(folder));
    file << heading << "\nfront-end " << frontEnd.trim << ' ' << frontEnd.deltas << ' '
         << frontEnd.normaliseMean << ' ' << frontEnd.normaliseVariance << '\n';
    for (const std::string& recogniser : recognisers)
        file << "recogniser " << recogniser << '\n';
    for (const std::string& word : words)
        file << "word " << word << '\n';
    file.close();
    if (!file) throw Failure(listPath(folder) + ": could not be written");
}

ModelList ModelList::load(const std::string& folder) {
    std::ifstream file(listPath(folder));
    if (!file) throw Failure(listPath(folder) + ": cannot be read");
    std::string line;
    if (!std::getline(file, line) || line != heading)
        throw Failure(listPath(folder) + ": not a list of models");
    ModelList list;
    bool whole = true;
    while (std::getline(file, line)) {
        std::istringstream fields(line);
        std::string key, value;
        fields >> key;
        if (key == "front-end") {
            FrontEnd& choices = list.frontEnd;
            whole = whole && (fields >> choices.trim >> choices.deltas >> choices.normaliseMean >>
                              choices.normaliseVariance);
        } else if (key == "word" && fields >> value)
            list.words.push_back(value);
        else if (key == "recogniser" && fields >> value)
            list.recognisers.push_back(value);
        else
            whole = false;
    }
    if (!whole || list.words.empty() || list.recognisers.empty())
        throw Failure(listPath(folder) + ": damaged, words, recognisers or the front end are missing");
    return list;
}

void saveModels(const Recogniser& recogniser, Flavour flavour, const std::string& folder) {
    recogniser.save(flavour, stem(recogniser, flavour, folder));
}

void loadModels(Recogniser& recogniser, Flavour flavour, const std::string& folder, const ModelList& list) {
    forgetReports();
    recogniser.load(flavour, stem(recogniser, flavour, folder), static_cast<int>(list.words.size()),
                    FeatureExtractor(list.frontEnd).dimensions());
}

} // namespace words
