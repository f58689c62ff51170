// The public conversions. 16-bit and 32-bit truncation, which frames use, runs over the kernels;
// the other rounding modes and 8-bit values go one by one, because the rounding mode is the C
// library's.
#include "context/vsqcontext.h"
#include "levels/levels.h"

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>

namespace {

constexpr vsq::Module module{"vsqcvrts"};

constexpr int unknownFlags = ~(VSQ_Saturate | VSQ_RoundToZero | VSQ_RoundDown);

// The fraction's fate for the modes that are not the block kernels' truncation. NaN stays NaN.
double rounded(double value, int flags) {
    if (flags & VSQ_RoundToZero) return std::trunc(value);
    if (flags & VSQ_RoundDown) return std::floor(value);
    return std::nearbyint(value);
}

// What does not fit becomes the nearer end of the range if values saturate, and NaN then the
// smallest value; otherwise both become the most negative value, as in the recognition layer's
// block conversions.
template <class T>
T fitted(double whole, bool saturates) {
    using Range = std::numeric_limits<T>;
    if (whole >= Range::min() && whole <= Range::max()) return static_cast<T>(whole);
    return saturates && whole > 0 ? Range::max() : Range::min();
}

// Elements by their bytes: converted in place, an array holds results at its beginning and still
// elements of the other type after them.
template <class T>
T elementAt(const void* array, int i) {
    T value;
    std::memcpy(&value,
                static_cast<const char*>(array) + std::ptrdiff_t(i) * std::ptrdiff_t(sizeof value),
                sizeof value);
    return value;
}
template <class T>
void setElement(void* array, int i, T value) {
    std::memcpy(static_cast<char*>(array) + std::ptrdiff_t(i) * std::ptrdiff_t(sizeof value),
                &value, sizeof value);
}

template <class T>
void convertAll(const float* src, void* dst, int len, int flags) {
    for (int i = 0; i < len; ++i)
        setElement(
            dst, i,
            fitted<T>(rounded(elementAt<float>(src, i), flags), (flags & VSQ_Saturate) != 0));
}

// The two widths that frames use run over packs when they truncate.
void truncateAll(const float* src, short* dst, int len, int flags) {
    if (flags & VSQ_Saturate)
        vsq::kernels().cvrts->clampFloatToShort(src, dst, len);
    else
        vsq::kernels().cvrts->truncateFloatToShort(src, dst, len, 1.0);
}

void truncateAll(const float* src, int* dst, int len, int flags) {
    if (flags & VSQ_Saturate)
        vsq::kernels().cvrts->clampFloatToInt(src, dst, len);
    else
        vsq::kernels().cvrts->truncateFloatToInt(src, dst, len, 1.0);
}

template <class T>
void convertWide(const float* src, void* dst, int len, int flags) {
    if (flags & VSQ_RoundToZero)
        truncateAll(src, static_cast<T*>(dst), len, flags);
    else
        convertAll<T>(src, dst, len, flags);
}

} // namespace

void vsqsbFloatToInt(const float* src, void* dst, int len, int wordSize, int flags) {
    if (module.refuses(len <= 0, "len<=0") || module.refuses(src == nullptr, "src==0") ||
        module.refuses(dst == nullptr, "dst==0") ||
        module.refuses((flags & unknownFlags) != 0, "flags is wrong"))
        return;
    switch (wordSize) {
    case 8:
        return convertAll<std::int8_t>(src, dst, len, flags);
    case 16:
        return convertWide<short>(src, dst, len, flags);
    case 32:
        return convertWide<int>(src, dst, len, flags);
    default:
        module.refuses(true, "wordSize is wrong");
    }
}

void vsqsbIntToFloat(const void* src, float* dst, int len, int wordSize, int flags) {
    if (module.refuses(len <= 0, "len<=0") || module.refuses(src == nullptr, "src==0") ||
        module.refuses(dst == nullptr, "dst==0") ||
        module.refuses((flags & unknownFlags) != 0, "flags is wrong"))
        return;
    switch (wordSize) {
    case 8: // from the end: in place each float covers bytes that have been read
        for (int i = len - 1; i >= 0; --i)
            setElement<float>(dst, i, elementAt<std::int8_t>(src, i));
        return;
    case 16:
        return vsq::kernels().cvrts->shortToFloat(static_cast<const short*>(src), dst, len, 1.0);
    case 32:
        return vsq::kernels().cvrts->intToFloat(static_cast<const int*>(src), dst, len, 1.0);
    default:
        module.refuses(true, "wordSize is wrong");
    }
}
