// The comparison as one page that needs nothing else: styles and pictures are in it.
#pragma once

#include "compare.h"

namespace words {

/// Throws Failure when the file cannot be written.
void writeReport(const std::string& path, const Comparison& comparison,
                 const FeatureExtractor& extractor, const std::string& split);

} // namespace words
