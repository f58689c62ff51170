// A folder of labelled recordings.
#pragma once

#include <string>
#include <vector>

namespace words {

struct Recording {
    std::string path;
    std::string word;
    std::string speaker;
    int take = 0;
};

struct Corpus {
    std::vector<Recording> recordings; ///< in the order of their paths
    std::vector<std::string> words;    ///< in the order of the alphabet
    std::vector<std::string> speakers;

    int wordIndex(const std::string& word) const; ///< -1 for a word that is not in the corpus
};

// / Reads the names of a folder's recordings. Labels come from the names, WORD_SPEAKER_TAKE.ext,
// or, where `labelsFile` / is not empty, from that file: a line holds a file's name, the word and,
// if wanted, speaker and take. / Throws Failure for a folder without recordings; what is wrong with
// single files is put into `complaints`.
Corpus readCorpus(const std::string& folder, const std::string& labelsFile,
                  std::vector<std::string>& complaints);

// / How many of the first takes are kept for testing: five, or the first third where there are
// fewer than fifteen.
int customaryTestTakes(const Corpus& corpus);

} // namespace words
