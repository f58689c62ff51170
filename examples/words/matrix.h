// A table of feature vectors, one row a frame, in the shapes that the library takes.
#pragma once

#include <cstddef>
#include <vector>

namespace words {

template <class Value>
class Matrix {
public:
    Matrix() = default;
    Matrix(int rows, int columns)
        : nRows(rows), nColumns(columns),
          values(static_cast<std::size_t>(rows) * static_cast<std::size_t>(columns)) {}

    int rows() const { return nRows; }
    int columns() const { return nColumns; }
    bool empty() const { return nRows == 0; }
    Value* row(int i) { return values.data() + offset(i); }
    const Value* row(int i) const { return values.data() + offset(i); }

    // / The library takes tables as arrays of row pointers. It only reads those of observations;
    // some of its / functions ask for pointers to elements that are not const all the same.
    std::vector<Value*> pointers() {
        std::vector<Value*> result;
        for (int i = 0; i < nRows; ++i)
            result.push_back(row(i));
        return result;
    }
    std::vector<const Value*> pointers() const {
        std::vector<const Value*> result;
        for (int i = 0; i < nRows; ++i)
            result.push_back(row(i));
        return result;
    }

private:
    std::size_t offset(int i) const {
        return static_cast<std::size_t>(i) * static_cast<std::size_t>(nColumns);
    }

    int nRows = 0;
    int nColumns = 0;
    std::vector<Value> values;
};

} // namespace words
