// A folder of trained models: the library's own files, and a list of what they are for.
#pragma once

#include "costs.h"
#include "frontend.h"
#include "recogniser.h"

#include <cstdint>
#include <map>
#include <utility>

namespace words {

/// A file as it was written.
struct StoredFile {
    std::string name;
    std::uintmax_t bytes = 0;
    std::uint64_t sum = 0;
};

/// What the folder's list, words.txt, says.
struct ModelList {
    FrontEnd frontEnd;
    std::vector<std::string> words;
    std::vector<std::string> recognisers;
    double leastSpread = 0.0; ///< of levels, in decibels; see levelSpread
    std::map<std::pair<std::string, Flavour>, CostScale> scales;
    std::vector<StoredFile> files;

    /// Writes the list, with the checksums of all that the folder holds and with one of its own.
    void save(const std::string& folder);
    static ModelList load(const std::string& folder); ///< throws Failure

    /// Throws Failure when there is none: the list is damaged.
    const CostScale& scale(const std::string& recogniser, Flavour flavour) const;
};

void saveModels(const Recogniser& recogniser, Flavour flavour, const std::string& folder);

// / Compares the files with the list before the library reads them. Throws Failure, which tells
// missing files from damaged / ones.
void loadModels(Recogniser& recogniser, Flavour flavour, const std::string& folder,
                const ModelList& list);

// / Whether new models may take a folder's place: it does not exist, is empty, or holds models and
// nothing else. / Throws Failure that names what would be lost.
void checkReplaceable(const std::string& folder);

} // namespace words
