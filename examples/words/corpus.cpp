#include "corpus.h"

#include "files.h"
#include "library.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <filesystem>
#include <set>
#include <sstream>

namespace words {
namespace {

namespace fs = std::filesystem;

bool isRecording(const fs::path& path) {
    std::string extension = path.extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return extension == ".wav" || extension == ".flac" || extension == ".ogg";
}

bool readNumber(const std::string& text, int& number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() && number >= 0;
}

/// WORD_SPEAKER_TAKE; a speaker's name may hold further underscores.
bool labelFromName(const fs::path& path, Recording& recording) {
    const std::string name = path.stem().string();
    const std::size_t first = name.find('_');
    const std::size_t last = name.rfind('_');
    if (first == std::string::npos || last == first || first == 0) return false;
    // A word is a line's rest in the list of models.
    if (std::any_of(name.begin(), name.end(), [](unsigned char c) { return std::iscntrl(c) != 0; }))
        return false;
    recording.path = path.string();
    recording.word = name.substr(0, first);
    recording.speaker = name.substr(first + 1, last - first - 1);
    return !recording.speaker.empty() && readNumber(name.substr(last + 1), recording.take);
}

std::vector<Recording> fromNames(const std::string& folder, std::vector<std::string>& complaints) {
    std::vector<Recording> recordings;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        if (!isRecording(entry->path())) continue;
        Recording recording;
        if (labelFromName(entry->path(), recording))
            recordings.push_back(recording);
        else
            complaints.push_back(entry->path().string() + ": the name is not WORD_SPEAKER_TAKE");
    }
    if (error) throw Failure(folder + ": " + error.message());
    return recordings;
}

std::vector<Recording> fromLabels(const std::string& folder, const std::string& labelsFile,
                                  std::vector<std::string>& complaints) {
    std::istringstream file(readFile(labelsFile));
    std::vector<Recording> recordings;
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        std::istringstream fields(line.substr(0, line.find('#')));
        std::string name, take;
        Recording recording;
        if (!(fields >> name)) continue;
        recording.path = (fs::path(folder) / name).string();
        const bool whole = static_cast<bool>(fields >> recording.word);
        recording.speaker = "unknown";
        fields >> recording.speaker;
        if (!whole || (fields >> take && !readNumber(take, recording.take)))
            complaints.push_back(labelsFile + ":" + std::to_string(number) +
                                 ": wanted FILE WORD [SPEAKER [TAKE]]");
        else
            recordings.push_back(recording);
    }
    return recordings;
}

} // namespace

int Corpus::wordIndex(const std::string& word) const {
    const auto place = std::lower_bound(words.begin(), words.end(), word);
    return place != words.end() && *place == word ? static_cast<int>(place - words.begin()) : -1;
}

Corpus readCorpus(const std::string& folder, const std::string& labelsFile,
                  std::vector<std::string>& complaints) {
    Corpus corpus;
    corpus.recordings = labelsFile.empty() ? fromNames(folder, complaints)
                                           : fromLabels(folder, labelsFile, complaints);
    if (corpus.recordings.empty()) throw Failure(folder + ": no recordings with labels");
    std::sort(corpus.recordings.begin(), corpus.recordings.end(),
              [](const Recording& a, const Recording& b) { return a.path < b.path; });
    std::set<std::string> wordSet, speakerSet;
    for (const Recording& recording : corpus.recordings) {
        wordSet.insert(recording.word);
        speakerSet.insert(recording.speaker);
    }
    corpus.words.assign(wordSet.begin(), wordSet.end());
    corpus.speakers.assign(speakerSet.begin(), speakerSet.end());
    return corpus;
}

int customaryTestTakes(const Corpus& corpus) {
    std::set<int> takes;
    for (const Recording& recording : corpus.recordings)
        takes.insert(recording.take);
    const int count = static_cast<int>(takes.size());
    return count >= 15 ? 5 : std::max(1, count / 3);
}

} // namespace words
