// Tables of aligned rows in one block, so that one free releases a table and a row is ready for
// whole-register loads; and the streams of applications whose runtime is not the library's.
#include "frame/KT_ALLOC.h"

#include "frame/KT_ERROR.h"
#include "frame/blocks.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr ktl::Module module{"..\\_LIBSRC\\KT_ALLOC"};

constexpr std::uint64_t rowAlignment = 32;

// The block of a table, its row pointers set; null when it is not to be had.
template <class T>
T** allocTable(int nRows, int nCols) {
    constexpr std::uint64_t reserve = rowAlignment - 1;
    if (nRows < 0 || nCols < 0) return nullptr;
    const auto rows = static_cast<std::uint64_t>(nRows);
    const std::uint64_t rowBytes =
        ktl::roundUp(static_cast<std::uint64_t>(nCols) * sizeof(T), rowAlignment);
    if (rows > (PTRDIFF_MAX - reserve) / (rowBytes + sizeof(T*))) return nullptr;
    const std::uint64_t size = rows * (rowBytes + sizeof(T*)) + reserve;
    auto* table = static_cast<T**>(std::malloc(static_cast<std::size_t>(size)));
    if (table == nullptr) return nullptr;
    char* row = ktl::aligned<char>(table + nRows, rowAlignment);
    for (int i = 0; i < nRows; ++i, row += rowBytes)
        table[i] = reinterpret_cast<T*>(row);
    return table;
}

constexpr const char* refused = "The table can not be allocated";

} // namespace

// The lines are part of the reports and do not follow the source.
float** KTsAlloc2(int nRows, int nCols) {
    float** table = allocTable<float>(nRows, nCols);
    if (table == nullptr) module.report(KT_StsNoMem, refused, "KTsAlloc2", 60);
    return table;
}

short** KTwAlloc2(int nRows, int nCols) {
    short** table = allocTable<short>(nRows, nCols);
    if (table == nullptr) module.report(KT_StsNoMem, refused, "KTwAlloc2", 108);
    return table;
}

void KTFree2(void* pTable) {
    std::free(pTable);
}

// Forwarders: an application whose runtime is not the library's must open and close its streams
// here.
FILE* KTOpenFile(const char* name, const char* mode) {
    return std::fopen(name, mode);
}
int KTCloseFile(FILE* stream) {
    return std::fclose(stream);
}
