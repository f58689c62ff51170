// Feature vectors as text and as files that other programs read.
#pragma once

#include "matrix.h"

#include <string>

namespace words {

/// Lines of numbers with commas between them.
std::string asText(const Matrix<float>& features);
std::string asText(const Matrix<short>& features);

// / FILE.csv, or FILE.npy: NumPy's format, version 1.0. Throws Failure for other names and when
// writing fails.
void writeTable(const std::string& path, const Matrix<float>& features);
void writeTable(const std::string& path, const Matrix<short>& features);

} // namespace words
