// A folder of trained models: the library's own files, and a list of what they are for.
#pragma once

#include "frontend.h"
#include "recogniser.h"

namespace words {

/// What the folder's list, words.txt, says.
struct ModelList {
    FrontEnd frontEnd;
    std::vector<std::string> words;
    std::vector<std::string> recognisers;

    void save(const std::string& folder) const;
    static ModelList load(const std::string& folder); ///< throws Failure
};

void saveModels(const Recogniser& recogniser, Flavour flavour, const std::string& folder);
void loadModels(Recogniser& recogniser, Flavour flavour, const std::string& folder, const ModelList& list);

} // namespace words
