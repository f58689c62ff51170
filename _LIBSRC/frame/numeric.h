// The two numeric forms as policies, and the scale that a caller passes with the fixed one. A
// family extends the pair by what it does differently:
//     struct FloatTree : ktl::FloatForm { static constexpr int training = 1; ... };
#pragma once

#include "frame/blocks.h"

#include <type_traits>

namespace ktl {

struct FloatForm {
    using Element = float;
    using Sum = float; // of products of elements
    static constexpr std::size_t alignment = floatAlignment;
    static constexpr char letter = 's'; // in names of exported functions
};

struct FixedForm {
    using Element = short;
    using Sum = int;
    static constexpr std::size_t alignment = fixedAlignment;
    static constexpr char letter = 'w';
};

// The form of an element.
template <class T>
using FormOf = std::conditional_t<std::is_same_v<T, float>, FloatForm, FixedForm>;

// The scale of a call, which the caller may leave out: then it reads 0, and what is stored is lost.
//     const ktl::CallScale scale(pScale);
class CallScale {
public:
    explicit CallScale(int* pScale) : place(pScale != nullptr ? pScale : &unwanted) {}
    CallScale(const CallScale&) = delete;
    CallScale& operator=(const CallScale&) = delete;

    int& operator*() const { return *place; }
    int* get() const { return place; }

private:
    int unwanted = 0;
    int* const place;
};

} // namespace ktl
